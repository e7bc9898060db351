// The command line's files: reading images so that a wrong file is refused rather than read as
// something else, checking outputs before any work, and writing all outputs or none.
#pragma once

#include <opencv2/core.hpp>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "image_checks.h"

namespace qxmatte {

// Refuses images of more pixels than this before decoding them (default kDefaultMegapixels).
constexpr double kDefaultMegapixels = 400.0;
void setPixelLimit(double megapixels);

// Reads a colour image as 8-bit BGR; an empty string when it worked, otherwise the reason with
// the path. Only regular files are opened; 16-bit samples are scaled by 255/65535 and
// floating-point ones, which must lie in 0..1, by 255.
std::string readImage(const std::string& path, cv::Mat* bgr);
// Reads a grey plane (a tri-map, strokes, an alpha). A colour image is refused rather than turned
// into grey by luminance, which would make its codes meaningless; one whose colour channels are
// all equal (a grey image saved as colour) is taken as grey, any alpha channel ignored.
std::string readPlane(const std::string& path, const char* what, cv::Mat* plane);
// Reads a colour image and a grey plane of the same size.
std::string readImageAndPlane(const std::string& imagePath, const std::string& planePath,
                              const char* planeWhat, cv::Mat* image, cv::Mat* plane);

// An output to check before any work: its path (empty: not asked for) and whether the image
// written to it has an alpha channel that the format must keep.
struct Output {
    std::string path;
    bool alpha = false;
};

// Whether two paths name the same file: by device and inode where both exist, otherwise by
// their resolved paths (links followed as far as they go).
bool sameFile(const std::string& a, const std::string& b);

// Checks before any work that each named output can be written: a known image format (one that
// keeps alpha where the output has it), an existing writable folder, not a folder itself, not
// one of the inputs, and no file named for two outputs. An empty string when they can.
std::string checkOutputs(const std::vector<Output>& outputs,
                         const std::vector<std::string>& inputs);

// Writes every named image or none: each goes to a temporary name in its own folder first, and
// only when all are written are they renamed to their names. Entries with an empty path are
// skipped. The exit status; on failure nothing is left behind.
int writeAll(const std::vector<std::pair<std::string, cv::Mat>>& files);

}  // namespace qxmatte
