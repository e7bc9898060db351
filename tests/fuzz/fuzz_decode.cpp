// The command line's image reading: sizes from headers, the JPEG and PNG damage checks, and the
// whole read (header checks, OpenCV's decoding, the scaling of samples) of any file. Every input
// must be either refused with a reason or read as an 8-bit image of the size its header gave.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "image_io.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const std::string path = [] {
        qxmatte::setPixelLimit(4);  // keeps each decode small
        const char* dir = std::getenv("TMPDIR");
        return std::string(dir ? dir : "/tmp") + "/qx_fuzz_decode_" + std::to_string(getpid());
    }();
    const qxmatte::DeclaredSize declared = qxmatte::declaredSize(data, size);
    qxmatte::jpegDamage(data, size);
    qxmatte::pngDamage(data, size);

    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f) return 0;
    std::fwrite(data, 1, size, f);
    std::fclose(f);
    for (int grey = 0; grey < 2; ++grey) {
        cv::Mat image;
        const std::string err = grey ? qxmatte::readPlane(path, "plane", &image)
                                     : qxmatte::readImage(path, &image);
        if (!err.empty()) {
            if (!image.empty()) std::abort();  // a refusal leaves nothing behind
            continue;
        }
        if (image.empty() || image.depth() != CV_8U ||
            image.channels() != (grey ? 1 : 3) || image.total() > 4000000)
            std::abort();
        // PNG, JPEG and WebP have no orientation that swaps the sides once decoded by OpenCV
        // without an EXIF tag; where the header was read, the size is the one it declared, or
        // its transpose (an orientation tag).
        if (declared.known && !((image.cols == declared.width && image.rows == declared.height) ||
                                (image.cols == declared.height && image.rows == declared.width)))
            std::abort();
    }
    unlink(path.c_str());
    return 0;
}
