#include "image_io.h"

#include <fcntl.h>
#include <jpeglib.h>
#include <setjmp.h>
#include <sys/stat.h>
#include <unistd.h>
#include <zlib.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <opencv2/imgcodecs.hpp>
#include <opencv2/imgproc.hpp>

#include "cli.h"
#include "interrupt.h"

namespace qxmatte {
namespace {

namespace fs = std::filesystem;

std::atomic<double> pixelLimit{kDefaultMegapixels * 1e6};

// ---- Sizes from headers -----------------------------------------------------------------------

// Reads n bytes at offset into buf; how many it could.
using ReadAt = std::function<size_t(uint64_t offset, unsigned char* buf, size_t n)>;

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
    int64_t width = 0, height = 0;
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
        if (tag == 256) width = v;
        if (tag == 257) height = v;
    }
    return sized("TIFF", width, height);
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

// ---- Files ------------------------------------------------------------------------------------

// A regular file opened for reading, or the reason it can't be.
struct InputFile {
    int fd = -1;
    uint64_t size = 0;
    std::string error;
    explicit InputFile(const std::string& path) {
        struct stat st {};
        if (stat(path.c_str(), &st) != 0) {
            error = errno == ENOENT || errno == ENOTDIR ? "no such file"
                                                        : std::string(std::strerror(errno));
            return;
        }
        if (!S_ISREG(st.st_mode)) {
            error = S_ISDIR(st.st_mode) ? "a folder, not an image file"
                                        : "not a regular file (a pipe, device or socket is not read)";
            return;
        }
        // O_NONBLOCK: should the path have become a pipe since, the open doesn't wait for a
        // writer.
        fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        if (fd < 0) {
            error = std::strerror(errno);
            return;
        }
        if (fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) error = "not a regular file";
        size = static_cast<uint64_t>(st.st_size);
    }
    ~InputFile() {
        if (fd >= 0) close(fd);
    }
    size_t readAt(uint64_t offset, unsigned char* buf, size_t n) const {
        size_t got = 0;
        while (got < n) {
            const ssize_t r = pread(fd, buf + got, n - got, static_cast<off_t>(offset + got));
            if (r <= 0) break;
            got += static_cast<size_t>(r);
        }
        return got;
    }
};

std::string megapixels(double pixels) {
    char text[32];
    std::snprintf(text, sizeof text, pixels < 10e6 ? "%.1f" : "%.0f", pixels / 1e6);
    return text;
}

// Empty when an image of this size is within the pixel limit, otherwise the refusal.
std::string overLimit(int64_t width, int64_t height) {
    const double pixels = double(width) * double(height);
    if (pixels <= pixelLimit.load()) return {};
    return std::to_string(width) + "x" + std::to_string(height) + " is " + megapixels(pixels) +
           " megapixels, over the limit of " + megapixels(pixelLimit.load()) +
           " (--max-megapixels raises it)";
}

// Whether every sample of a floating-point image lies in 0..1 (NaN does not).
bool withinZeroToOne(const cv::Mat& m) {
    const cv::Mat flat = m.reshape(1, 1);
    if (m.depth() == CV_32F)
        return std::all_of(flat.begin<float>(), flat.end<float>(),
                           [](float v) { return v >= 0.0f && v <= 1.0f; });
    return std::all_of(flat.begin<double>(), flat.end<double>(),
                       [](double v) { return v >= 0.0 && v <= 1.0; });
}

// A byte count as people say it: "36 MB", "1.1 GB".
std::string bytesInWords(double bytes) {
    char text[32];
    if (bytes >= 1e9) std::snprintf(text, sizeof text, "%.1f GB", bytes / 1e9);
    else std::snprintf(text, sizeof text, "%.0f MB", std::max(1.0, bytes / 1e6));
    return text;
}

// Decodes path with OpenCV and brings the samples to 8 bits; the reason when it can't.
std::string decode(const std::string& path, int flags, const DeclaredSize& declared,
                   cv::Mat* out) {
    try {
        *out = cv::imread(path, flags | cv::IMREAD_ANYDEPTH);
    } catch (const std::exception&) {  // OpenCV's own, or memory
        out->release();
    }
    if (out->empty()) {
        if (!declared.known) return "not a readable image (PNG, JPEG, TIFF or WebP)";
        const std::string image = std::to_string(declared.width) + "x" +
                                  std::to_string(declared.height) + " " + declared.format +
                                  " image";
        // 8-bit colour at the least, and as much again for the decoder's own rows and the
        // conversion: more than is free means the memory ran out, not the file.
        const double need = 2.0 * 3.0 * double(declared.width) * double(declared.height);
        uint64_t free = 0;
        if (qxwFreeMemory(&free) == 1 && need > double(free))
            return "out of memory: decoding the " + image + " needs about " + bytesInWords(need) +
                   " and " + bytesInWords(double(free)) +
                   " is free; close other programs or use a smaller image";
        return "cannot decode the " + image + " (the file is damaged)";
    }
    // A format whose header isn't read here was held to OpenCV's copy of the limit.
    const std::string limit = overLimit(out->cols, out->rows);
    if (!limit.empty()) return limit;
    switch (out->depth()) {
        case CV_8U:
            return {};
        case CV_16U:
            out->convertTo(*out, CV_8U, 255.0 / 65535.0);
            return {};
        case CV_32F:
        case CV_64F:
            // Floating-point images are on the 0..1 scale; anything else would be guessed at.
            if (!withinZeroToOne(*out))
                return "a floating-point image must hold values from 0 to 1 (this one has "
                       "others, or NaN)";
            out->convertTo(*out, CV_8U, 255.0);
            return {};
        default:
            return "signed samples are not taken; save the image with 8 or 16 bits a sample";
    }
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

void setPixelLimit(double megapixels) {
    pixelLimit = megapixels * 1e6;
    // OpenCV's own limit, for the formats whose header isn't read here; it reads it once.
    const std::string pixels = std::to_string(static_cast<long long>(std::ceil(megapixels * 1e6)));
    setenv("OPENCV_IO_MAX_IMAGE_PIXELS", pixels.c_str(), 1);
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

namespace {

// Reads an image with OpenCV's flags, after the checks that need no decoding.
std::string readImageAs(const std::string& path, int flags, cv::Mat* out) {
    out->release();
    const InputFile file(path);
    if (!file.error.empty()) return path + ": " + file.error;
    const DeclaredSize declared = declaredSizeAt([&](uint64_t o, unsigned char* b, size_t n) {
        return file.readAt(o, b, n);
    });
    const std::string limit = declared.known ? overLimit(declared.width, declared.height) : "";
    if (!limit.empty()) return path + ": " + limit;
    const bool jpeg = std::strcmp(declared.format, "JPEG") == 0;
    if (declared.known && (jpeg || std::strcmp(declared.format, "PNG") == 0)) {
        std::vector<unsigned char> bytes(file.size);
        if (file.readAt(0, bytes.data(), bytes.size()) != bytes.size())
            return path + ": cannot read the file";
        const std::string damage = jpeg ? jpegDamage(bytes.data(), bytes.size())
                                        : pngDamage(bytes.data(), bytes.size());
        if (!damage.empty())
            return path + ": a damaged " + declared.format + " file (" + damage + ")";
    }
    const std::string err = decode(path, flags, declared, out);
    if (!err.empty()) {
        out->release();
        return path + ": " + err;
    }
    return {};
}

}  // namespace

std::string readImage(const std::string& path, cv::Mat* bgr) {
    return readImageAs(path, cv::IMREAD_COLOR, bgr);
}

std::string readPlane(const std::string& path, const char* what, cv::Mat* out) {
    // Any colour as stored (and turned upright by its orientation tag, as the image is), so
    // that a colour file is seen as colour.
    std::string err = readImageAs(path, cv::IMREAD_ANYCOLOR, out);
    if (!err.empty()) return err;
    if (out->channels() == 1) return {};
    if (out->channels() >= 3) {
        std::vector<cv::Mat> ch;
        cv::split(*out, ch);
        if (cv::countNonZero(ch[0] != ch[1]) == 0 && cv::countNonZero(ch[0] != ch[2]) == 0) {
            *out = ch[0];
            return {};
        }
    }
    out->release();
    return path + ": " + what + " is a colour image; give a grey image (one value a pixel)";
}

std::string readImageAndPlane(const std::string& imagePath, const std::string& planePath,
                              const char* planeWhat, cv::Mat* image, cv::Mat* plane) {
    std::string err = readImage(imagePath, image);
    if (!err.empty()) return err;
    err = readPlane(planePath, planeWhat, plane);
    if (!err.empty()) return err;
    if (image->size() != plane->size())
        return planePath + ": " + planeWhat + " is " + std::to_string(plane->cols) + "x" +
               std::to_string(plane->rows) + ", image is " + std::to_string(image->cols) + "x" +
               std::to_string(image->rows);
    return {};
}

bool sameFile(const std::string& a, const std::string& b) {
    struct stat sa {}, sb {};
    if (stat(a.c_str(), &sa) == 0 && stat(b.c_str(), &sb) == 0)
        return sa.st_dev == sb.st_dev && sa.st_ino == sb.st_ino;
    std::error_code ea, eb;
    const fs::path ca = fs::weakly_canonical(fs::absolute(a, ea), ea);
    const fs::path cb = fs::weakly_canonical(fs::absolute(b, eb), eb);
    return !ea && !eb && ca == cb;
}

namespace {

bool keepsAlpha(const std::string& path) {
    std::string ext = fs::path(path).extension().string();
    std::transform(ext.begin(), ext.end(), ext.begin(),
                   [](unsigned char c) { return std::tolower(c); });
    return ext == ".png" || ext == ".tif" || ext == ".tiff" || ext == ".webp";
}

}  // namespace

std::string checkOutputs(const std::vector<Output>& outputs,
                         const std::vector<std::string>& inputs) {
    for (size_t i = 0; i < outputs.size(); ++i) {
        const std::string& path = outputs[i].path;
        if (path.empty()) continue;
        bool known = false;
        try {
            known = cv::haveImageWriter(path);
        } catch (const cv::Exception&) {
            known = false;
        }
        if (!known) return path + ": cannot write the image (unknown extension)";
        if (outputs[i].alpha && !keepsAlpha(path))
            return path + ": cannot write the image (the format keeps no alpha; use PNG, TIFF or "
                          "WebP)";
        std::error_code ec;
        const fs::path parent = fs::path(path).parent_path();
        if (!parent.empty() && !fs::is_directory(parent, ec))
            return path + ": cannot write the image (no folder " + parent.string() + ")";
        if (fs::is_directory(path, ec)) return path + ": cannot write the image (it is a folder)";
        const std::string folder = parent.empty() ? "." : parent.string();
        if (access(folder.c_str(), W_OK | X_OK) != 0)
            return path + ": cannot write the image (folder " + folder + " is not writable)";
        for (const std::string& input : inputs)
            if (!input.empty() && sameFile(path, input))
                return path + ": is an input (" + input +
                       "); writing it would destroy it, name another file";
        for (size_t k = 0; k < i; ++k)
            if (!outputs[k].path.empty() && sameFile(path, outputs[k].path))
                return path + ": named for two outputs";
    }
    return {};
}

int writeAll(const std::vector<std::pair<std::string, cv::Mat>>& files) {
    std::vector<std::pair<fs::path, fs::path>> written;  // temporary name, final name
    std::error_code ec;
    auto removeTemporaries = [&](size_t from) {
        for (size_t i = from; i < written.size(); ++i) fs::remove(written[i].first, ec);
    };
    for (const auto& [path, image] : files) {
        if (path.empty()) continue;
        const fs::path target(path);
        const fs::path temp = target.parent_path() / (".qxmatte-" + std::to_string(getpid()) +
                                                       "-" + target.filename().string());
        bool ok = false;
        registerTemporary(temp.c_str());
        try {
            ok = cv::imwrite(temp.string(), image);
        } catch (const cv::Exception&) {
            ok = false;
        }
        if (!ok) {
            fs::remove(temp, ec);
            removeTemporaries(0);
            clearTemporaries();
            return fail(kExitOutput,
                        path + ": cannot write the image (unknown extension or unwritable folder)");
        }
        written.emplace_back(temp, target);
    }
    if (interruptedBy() != 0) {  // stopped while writing: nothing is left
        removeTemporaries(0);
        clearTemporaries();
        return 128 + interruptedBy();
    }
    for (size_t i = 0; i < written.size(); ++i) {
        fs::rename(written[i].first, written[i].second, ec);
        if (ec) {
            const std::string reason = ec.message();
            removeTemporaries(i);
            // The ones already renamed go too: all or nothing.
            for (size_t k = 0; k < i; ++k) fs::remove(written[k].second, ec);
            clearTemporaries();
            return fail(kExitOutput,
                        written[i].second.string() + ": cannot write the image (" + reason + ")");
        }
    }
    clearTemporaries();
    return kExitOk;
}

}  // namespace qxmatte
