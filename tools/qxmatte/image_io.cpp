// The command line's files: inputs opened only as regular files, checked against the pixel
// limit from their headers and for damage before they are decoded, decoded to 8 bits; outputs
// checked before any work and written all or none.
#include "image_io.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

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

void setPixelLimit(double megapixels) {
    pixelLimit = megapixels * 1e6;
    // OpenCV's own limit, for the formats whose header isn't read here; it reads it once.
    const std::string pixels = std::to_string(static_cast<long long>(std::ceil(megapixels * 1e6)));
    setenv("OPENCV_IO_MAX_IMAGE_PIXELS", pixels.c_str(), 1);
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
