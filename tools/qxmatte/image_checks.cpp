// What an image file says about itself before it is decoded: the size its header declares
// (PNG, JPEG, TIFF and BigTIFF, WebP, BMP), and whether a JPEG's or a PNG's data is whole.
#include "image_checks.h"

#include <jpeglib.h>
#include <setjmp.h>
#include <zlib.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace qxmatte {
namespace {

// ---- Sizes from headers -----------------------------------------------------------------------

uint32_t be16(const unsigned char* p) { return uint32_t(p[0]) << 8 | p[1]; }
uint32_t be32(const unsigned char* p) { return be16(p) << 16 | be16(p + 2); }
uint32_t le16(const unsigned char* p) { return uint32_t(p[1]) << 8 | p[0]; }
uint32_t le32(const unsigned char* p) { return le16(p + 2) << 16 | le16(p); }
uint32_t le24(const unsigned char* p) { return uint32_t(p[2]) << 16 | le16(p); }

DeclaredSize sized(const char* format, int64_t width, int64_t height) {
    DeclaredSize d;
    d.format = format;
    d.known = width > 0 && height > 0;
    d.width = width;
    d.height = height;
    return d;
}

DeclaredSize pngSize(const unsigned char* p, size_t n) {
    if (n < 24 || std::memcmp(p + 12, "IHDR", 4) != 0) return {};
    return sized("PNG", be32(p + 16), be32(p + 20));
}

// The first frame header (SOFn) after the markers before it; segments are skipped by their
// lengths, reading only their first bytes.
DeclaredSize jpegSize(const ReadAt& readAt) {
    uint64_t at = 2;
    unsigned char m[9];
    for (int segments = 0; segments < 4096; ++segments) {
        if (readAt(at, m, 2) < 2 || m[0] != 0xFF) return {};
        while (m[1] == 0xFF) {  // fill bytes
            if (readAt(++at, m, 2) < 2) return {};
        }
        const unsigned marker = m[1];
        at += 2;
        if (marker == 0x01 || (marker >= 0xD0 && marker <= 0xD7)) continue;  // no length
        if (marker == 0xD9 || marker == 0xDA) return {};  // image data before any frame header
        if (readAt(at, m, 7) < 2) return {};
        const uint32_t length = be16(m);
        const bool frame = marker >= 0xC0 && marker <= 0xCF && marker != 0xC4 &&
                           marker != 0xC8 && marker != 0xCC;
        if (frame) {
            if (length < 7) return {};
            return sized("JPEG", be16(m + 5), be16(m + 3));
        }
        if (length < 2) return {};
        at += length;
    }
    return {};
}

// The first image directory's width and height (tags 256 and 257), classic TIFF or BigTIFF.
// A tag given twice counts at its first entry, as libtiff reads it.
DeclaredSize tiffSize(const ReadAt& readAt) {
    unsigned char h[16];
    if (readAt(0, h, 16) < 8) return {};
    const bool little = h[0] == 'I';
    auto u16 = [&](const unsigned char* p) { return little ? le16(p) : be16(p); };
    auto u32 = [&](const unsigned char* p) { return little ? le32(p) : be32(p); };
    auto u64 = [&](const unsigned char* p) {
        return little ? uint64_t(u32(p + 4)) << 32 | u32(p) : uint64_t(u32(p)) << 32 | u32(p + 4);
    };
    const bool big = u16(h + 2) == 43;
    const uint64_t ifd = big ? u64(h + 8) : u32(h + 4);
    const size_t countSize = big ? 8 : 2, entrySize = big ? 20 : 12;
    unsigned char c[8];
    if (readAt(ifd, c, countSize) < countSize) return {};
    const uint64_t count = std::min<uint64_t>(big ? u64(c) : u16(c), 4096);
    int64_t width = -1, height = -1;
    unsigned char e[20];
    for (uint64_t i = 0; i < count; ++i) {
        if (readAt(ifd + countSize + i * entrySize, e, entrySize) < entrySize) return {};
        const uint32_t tag = u16(e), type = u16(e + 2);
        const unsigned char* value = e + (big ? 12 : 8);
        int64_t v;
        if (type == 3) v = u16(value);        // SHORT
        else if (type == 4) v = u32(value);   // LONG
        else if (type == 16) v = int64_t(std::min<uint64_t>(u64(value), INT64_MAX));  // LONG8
        else continue;
        if (tag == 256 && width < 0) width = v;
        if (tag == 257 && height < 0) height = v;
    }
    return sized("TIFF", std::max<int64_t>(width, 0), std::max<int64_t>(height, 0));
}

DeclaredSize webpSize(const unsigned char* p, size_t n) {
    if (n < 30) return {};
    if (std::memcmp(p + 12, "VP8 ", 4) == 0 && p[23] == 0x9D && p[24] == 0x01 && p[25] == 0x2A)
        return sized("WebP", le16(p + 26) & 0x3FFF, le16(p + 28) & 0x3FFF);
    if (std::memcmp(p + 12, "VP8L", 4) == 0 && p[20] == 0x2F) {
        const uint32_t bits = le32(p + 21);
        return sized("WebP", (bits & 0x3FFF) + 1, ((bits >> 14) & 0x3FFF) + 1);
    }
    if (std::memcmp(p + 12, "VP8X", 4) == 0)
        return sized("WebP", int64_t(le24(p + 24)) + 1, int64_t(le24(p + 27)) + 1);
    return {};
}

}  // namespace

DeclaredSize declaredSizeAt(const ReadAt& readAt) {
    unsigned char p[32] = {};
    const size_t n = readAt(0, p, sizeof p);
    if (n >= 8 && std::memcmp(p, "\x89PNG\r\n\x1a\n", 8) == 0) return pngSize(p, n);
    if (n >= 3 && p[0] == 0xFF && p[1] == 0xD8 && p[2] == 0xFF) return jpegSize(readAt);
    if (n >= 4 && (std::memcmp(p, "II*\0", 4) == 0 || std::memcmp(p, "MM\0*", 4) == 0 ||
                   std::memcmp(p, "II+\0", 4) == 0 || std::memcmp(p, "MM\0+", 4) == 0))
        return tiffSize(readAt);
    if (n >= 12 && std::memcmp(p, "RIFF", 4) == 0 && std::memcmp(p + 8, "WEBP", 4) == 0)
        return webpSize(p, n);
    if (n >= 26 && p[0] == 'B' && p[1] == 'M') {
        const int64_t w = int32_t(le32(p + 18)), h = int32_t(le32(p + 22));
        return sized("BMP", w, h < 0 ? -h : h);
    }
    return {};
}

namespace {

// ---- JPEG damage ------------------------------------------------------------------------------

struct JpegErrors {
    jpeg_error_mgr mgr;
    jmp_buf jump;
    char first[JMSG_LENGTH_MAX];
};

void jpegFatal(j_common_ptr info) {
    auto* e = reinterpret_cast<JpegErrors*>(info->err);
    if (!e->first[0]) e->mgr.format_message(info, e->first);
    longjmp(e->jump, 1);
}

void jpegMessage(j_common_ptr info, int level) {
    auto* e = reinterpret_cast<JpegErrors*>(info->err);
    if (level >= 0) return;  // trace messages
    if (e->mgr.num_warnings++ == 0 && !e->first[0]) e->mgr.format_message(info, e->first);
}

void jpegQuiet(j_common_ptr) {}

// Decodes the whole image a row at a time (fastest settings: the pixels are thrown away, only
// the decoder's complaints count) and reports the first warning or error. Memory stays at a few
// rows for a baseline JPEG. Kept free of objects with destructors for the sake of longjmp.
void jpegCheck(const unsigned char* data, size_t size, char* first) {
    jpeg_decompress_struct info;
    JpegErrors errors;
    std::memset(&errors, 0, sizeof errors);
    info.err = jpeg_std_error(&errors.mgr);
    errors.mgr.error_exit = jpegFatal;
    errors.mgr.emit_message = jpegMessage;
    errors.mgr.output_message = jpegQuiet;
    if (setjmp(errors.jump) == 0) {
        jpeg_create_decompress(&info);
        jpeg_mem_src(&info, data, static_cast<unsigned long>(size));
        jpeg_read_header(&info, TRUE);
        info.dct_method = JDCT_IFAST;
        info.do_fancy_upsampling = FALSE;
        info.do_block_smoothing = FALSE;
        info.out_color_space = JCS_GRAYSCALE;
        if (info.jpeg_color_space == JCS_CMYK || info.jpeg_color_space == JCS_YCCK)
            info.out_color_space = JCS_CMYK;
        jpeg_start_decompress(&info);
        JSAMPARRAY row = (*info.mem->alloc_sarray)(
            reinterpret_cast<j_common_ptr>(&info), JPOOL_IMAGE,
            info.output_width * static_cast<JDIMENSION>(info.output_components), 1);
        while (info.output_scanline < info.output_height) jpeg_read_scanlines(&info, row, 1);
        jpeg_finish_decompress(&info);
    }
    jpeg_destroy_decompress(&info);
    std::memcpy(first, errors.first, sizeof errors.first);
}

// ---- PNG damage --------------------------------------------------------------------------------

// Walks the chunks: each must fit in the file with a matching CRC, up to IEND. libpng would find
// the same damage while decoding, but say so on the standard error in words of its own.
std::string pngChunks(const unsigned char* data, size_t size) {
    size_t at = 8;
    while (at + 12 <= size) {
        const uint64_t length = be32(data + at);
        if (length > size - at - 12) return "cut short";
        const unsigned char* type = data + at + 4;
        const uLong crc = crc32(crc32(0L, Z_NULL, 0), type, static_cast<uInt>(length + 4));
        if (crc != be32(type + 4 + length))
            return "chunk " + std::string(reinterpret_cast<const char*>(type), 4) +
                   " is damaged";
        if (std::memcmp(type, "IEND", 4) == 0) return {};
        at += 12 + length;
    }
    return "cut short";
}

}  // namespace

DeclaredSize declaredSize(const unsigned char* data, size_t size) {
    return declaredSizeAt([&](uint64_t offset, unsigned char* buf, size_t n) -> size_t {
        if (offset >= size) return 0;
        const size_t k = std::min<uint64_t>(n, size - offset);
        std::memcpy(buf, data + offset, k);
        return k;
    });
}

std::string jpegDamage(const unsigned char* data, size_t size) {
    char first[JMSG_LENGTH_MAX] = {};
    jpegCheck(data, size, first);
    return first;
}

std::string pngDamage(const unsigned char* data, size_t size) {
    if (size < 8 || std::memcmp(data, "\x89PNG\r\n\x1a\n", 8) != 0) return "not a PNG file";
    return pngChunks(data, size);
}

}  // namespace qxmatte
