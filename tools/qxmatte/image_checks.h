// What an image file says about itself before it is decoded: the size its header declares, and
// whether its compressed data is whole.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

namespace qxmatte {

// The size an image file declares, read from its header alone; known is false for a format
// not looked at here (OpenCV then reads it with its own size limit) or a header cut short.
struct DeclaredSize {
    bool known = false;
    int64_t width = 0, height = 0;
    const char* format = "";
};
DeclaredSize declaredSize(const unsigned char* data, size_t size);
// The same, reading the file through readAt (bytes at an offset; fewer at its end).
using ReadAt = std::function<size_t(uint64_t offset, unsigned char* buf, size_t n)>;
DeclaredSize declaredSizeAt(const ReadAt& readAt);

// Empty when a JPEG file's compressed data decodes without a warning (cut short, corrupt
// entropy data), otherwise the decoder's own words.
std::string jpegDamage(const unsigned char* data, size_t size);

// The same for a PNG file: every chunk whole with its CRC, up to the end chunk.
std::string pngDamage(const unsigned char* data, size_t size);

}  // namespace qxmatte
