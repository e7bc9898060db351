#include <algorithm>
#include <cstdio>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <sstream>

#include "runtime/memory.h"
#include "runtime/progress.h"
#include "workflow/workflow.h"

namespace qx::workflow {

void Relay::span(double lo, double hi) {
    qx::checkCancel();  // between the stages of a composed workflow
    lo_ = lo;
    hi_ = hi;
    report(lo);
}

CancelScope::CancelScope(const QxwJob* job)
    : saved_(qx::cancelFlag()), flag_(job ? job->cancel : nullptr) {
    qx::setCancelFlag(flag_);
}

CancelScope::~CancelScope() { qx::setCancelFlag(saved_); }

bool CancelScope::requested() const { return qx::cancelRequested(); }

QxwStatus cancelled(QxwJob* job) {
    return finishJob(job, QXW_CANCELLED, "cancelled", QX_CANCELLED);
}

void Relay::report(double fraction) {
    fraction = std::clamp(fraction, 0.0, 1.0);
    if (fraction <= last_) return;
    last_ = fraction;
    if (job_ && job_->progress) job_->progress(fraction, job_->progressData);
}

int Relay::proc(int, int, void*) { return 0; }

void Relay::heard(double fraction, void* param) {
    auto* relay = static_cast<Relay*>(param);
    relay->report(relay->lo_ + (relay->hi_ - relay->lo_) * std::clamp(fraction, 0.0, 1.0));
}

void Relay::install(int total) { qx::setProgProc(&Relay::proc, this, total, 1); }

void Relay::uninstall() {
    // A job refused before it started leaves the callback installed; a relay that has gone
    // must not be.
    if (qx::progressState().param == this) qx::setProgProc(nullptr, nullptr, 0, 0);
}

namespace {

// A byte count in decimal units: "512 bytes", "7.9 MB", "36 MB", "3.2 GB".
std::string bytesInWords(uint64_t bytes) {
    static const char* const units[] = {"bytes", "kB", "MB", "GB", "TB", "PB", "EB"};
    double v = static_cast<double>(bytes);
    int u = 0;
    while (v >= 1000.0 && u < 6) v /= 1000.0, ++u;
    char text[40];
    if (u == 0)
        std::snprintf(text, sizeof text, "%d bytes", static_cast<int>(bytes));
    else
        std::snprintf(text, sizeof text, v < 9.95 ? "%.1f %s" : "%.0f %s", v, units[u]);
    return text;
}

const char* jobName(qx::Export which) {
    switch (which) {
        case qx::Export::MaskAlpha: return "matting";
        case qx::Export::KeepCut: return "keep-cut matting";
        case qx::Export::StrokesToAlpha: return "stroke matting";
        case qx::Export::GrabCut: return "GrabCut";
        case qx::Export::ForegroundRecovery:
        case qx::Export::ForegroundFull: return "foreground recovery";
    }
    return "the job";
}

// The words for a failure (a fault's value, qx::kNoMemory, qx::kUnknownFailure or qx::kRefused)
// in job `what`; memory: whether it means memory ran out, bytes what was asked for (0: not
// known). strokes: a job of keep and cut strokes, whose one-piece limit the user can move.
std::string failureWords(const std::string& what, int failure, bool memory, uint64_t bytes,
                         bool strokes) {
    using qx::Fault;
    if (failure == int(Fault::Cancelled)) return "cancelled";
    if (memory || qx::isMemoryFailure(failure) || failure == int(Fault::TraceBuffer))
        return outOfMemoryWords(bytes);
    const std::string failed = what + " failed: ";
    switch (failure) {
        case qx::kRefused:
            return failed + "the library refused the job's request (an internal fault)";
        case int(Fault::GuardRow):
            return failed + "a working image was written past its end (an internal fault)";
        case int(Fault::FilterSize): return failed + "a smoothing filter could not be set up";
        case int(Fault::SolverAnalysis):
            return failed + "the sparse solver could not analyse the system";
        case int(Fault::SolverFactorisation):
            return failed + "the sparse solver could not factorise the system";
        case int(Fault::SolverSolve):
            return failed + "the sparse solver could not solve the system";
        case int(Fault::SizeLimit):
            return strokes ? "an area without enough strokes is too large to solve in one piece: "
                             "add keep and cut strokes across the subject"
                           : failed + "the system to solve is too large";
        case int(Fault::TooFewStrokes):
            return "too few strokes: paint at least one keep and one cut stroke";
        case int(Fault::TransposeTooLarge):
            return failed + "a piece of the recovery is too large for its solver";
        default: return failed + "an unexpected internal failure";
    }
}

// An exception's text as one line: its lines trimmed (OpenCV marks the lines of a long message
// with "> ") and joined by spaces.
std::string oneLine(const std::string& text) {
    std::string line, out;
    std::istringstream lines(text);
    while (std::getline(lines, line)) {
        const size_t first = line.find_first_not_of(" \t>"), last = line.find_last_not_of(" \t\r");
        if (first == std::string::npos) continue;
        if (!out.empty()) out += ' ';
        out.append(line, first, last - first + 1);
    }
    return out.empty() ? "an unexpected internal failure" : out;
}

}  // namespace

std::string outOfMemoryWords(uint64_t askedBytes) {
    uint64_t free = 0;
    const bool known = qx::freeMemory(&free);
    std::string words = "out of memory: ";
    if (askedBytes > 0 && (!known || askedBytes > free)) {
        words += "the job needs another " + bytesInWords(askedBytes);
        if (known) words += " and " + bytesInWords(free) + " is free";
    } else if (known) {
        words += "the job needs more than the " + bytesInWords(free) + " that is free";
        if (askedBytes > 0)
            words += " (it asked for another " + bytesInWords(askedBytes) + " when memory ran out)";
    } else {
        words += "the job needs more memory than is free";
    }
    return words + "; close other programs or use a smaller image";
}

std::string jobFailureWords(qx::Export which, int status) {
    int failure = qx::failureOf(which, status);
    bool memory = false;
    uint64_t bytes = 0;
    // The export's own failure, when the note is the one that made this status.
    const qx::FailureNote note = qx::lastFailure();
    if (note.failure != 0 && qx::statusFor(which, note.failure) == status) {
        failure = note.failure;
        memory = note.memory;
        bytes = note.bytes;
    }
    return failureWords(jobName(which), failure, memory, bytes,
                        which == qx::Export::KeepCut || which == qx::Export::StrokesToAlpha);
}

QxwStatus jobFailed(QxwJob* job, qx::Export which, int status) {
    return finishJob(job, QXW_FAILED, jobFailureWords(which, status), status);
}

std::string thrownWords(const char* what) {
    try {
        throw;
    } catch (const cv::Exception& e) {
        if (e.code == cv::Error::StsNoMem || qx::memoryMessage(e.err.c_str()))
            return outOfMemoryWords(qx::allocationBytes(e.err.c_str()));
        return std::string(what) + " failed: " + oneLine(e.err);
    } catch (const std::bad_alloc&) {
        return outOfMemoryWords(0);
    } catch (const std::exception& e) {
        if (qx::memoryMessage(e.what())) return outOfMemoryWords(qx::allocationBytes(e.what()));
        return std::string(what) + " failed: " + oneLine(e.what());
    } catch (const qx::Failure& e) {
        return failureWords(what, e.value(), false, 0, false);
    } catch (...) {
        return std::string(what) + " failed: an unexpected internal failure";
    }
}

KeepCutRequest wholeImageRequest(cv::Mat& src, cv::Mat& alpha, cv::Mat& dst, cv::Mat& aux) {
    KeepCutRequest req{};
    req.srcImage = src.data;
    req.srcStep = static_cast<int32_t>(src.step);
    req.alphaPlane = alpha.data;
    req.alphaStep = static_cast<int32_t>(alpha.step);
    req.dstImage = dst.data;
    req.dstStep = static_cast<int32_t>(dst.step);
    req.auxPlane = aux.data;
    req.auxStep = static_cast<int32_t>(aux.step);
    req.fullWidth = req.roiWidth = alpha.cols;
    req.fullHeight = req.roiHeight = alpha.rows;
    return req;
}

void startJob(QxwJob* job) {
    if (!job) return;
    job->libraryStatus = 0;
    job->message[0] = '\0';
}

QxwStatus finishJob(QxwJob* job, QxwStatus status, const std::string& message,
                    int libraryStatus) {
    if (job) {
        job->libraryStatus = libraryStatus;
        std::snprintf(job->message, sizeof job->message, "%s", message.c_str());
    }
    return status;
}

std::string checkImage(const QxwImage* image) {
    if (!image || !image->pixels) return "no image";
    if (image->channels != 3 && image->channels != 4)
        return "the image has " + std::to_string(image->channels) +
               " bytes a pixel; 3 or 4 are taken";
    if (image->width < 1 || image->height < 1) return "the image is empty";
    if (image->order != QXW_BGR && image->order != QXW_RGB) return "unknown byte order";
    if (image->stride < static_cast<int64_t>(image->width) * image->channels)
        return "the image's stride is shorter than a row";
    return {};
}

std::string checkPlane(const void* data, int stride, const QxwImage& image, const char* what) {
    if (!data) return std::string("no ") + what;
    if (stride < image.width) return std::string("the ") + what + "'s stride is shorter than a row";
    return {};
}

cv::Mat toBgr(const QxwImage& image) {
    const cv::Mat view(image.height, image.width, image.channels == 3 ? CV_8UC3 : CV_8UC4,
                       const_cast<unsigned char*>(image.pixels), image.stride);
    cv::Mat bgr;
    if (image.channels == 3)
        bgr = image.order == QXW_RGB ? (cv::cvtColor(view, bgr, cv::COLOR_RGB2BGR), bgr)
                                     : view.clone();
    else
        cv::cvtColor(view, bgr, image.order == QXW_RGB ? cv::COLOR_RGBA2BGR : cv::COLOR_BGRA2BGR);
    return bgr;
}

cv::Mat toBgra(const QxwImage& image) {
    cv::Mat out;
    cv::cvtColor(toBgr(image), out, cv::COLOR_BGR2BGRA);
    return out;
}

cv::Mat disc(int radius) {
    return cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(2 * radius + 1, 2 * radius + 1));
}

cv::Mat planeView(const unsigned char* data, int stride, const QxwImage& image) {
    return cv::Mat(image.height, image.width, CV_8UC1, const_cast<unsigned char*>(data), stride);
}

void copyPlaneOut(const cv::Mat& plane, unsigned char* data, int stride) {
    for (int y = 0; y < plane.rows; ++y)
        std::memcpy(data + static_cast<size_t>(y) * stride, plane.ptr(y), plane.cols);
}

void copyColoursOut(const cv::Mat& bgr, const QxwImage& image, const QxwColourOut& out) {
    cv::Mat ordered = bgr;
    if (image.order == QXW_RGB) cv::cvtColor(bgr, ordered, cv::COLOR_BGR2RGB);
    for (int y = 0; y < ordered.rows; ++y)
        std::memcpy(out.pixels + static_cast<size_t>(y) * out.stride, ordered.ptr(y),
                    static_cast<size_t>(ordered.cols) * 3);
}

cv::Mat encodeStrokes(const cv::Mat& strokes, unsigned char unpainted) {
    cv::Mat coded(strokes.size(), CV_8UC1);
    for (int y = 0; y < strokes.rows; ++y) {
        const unsigned char* s = strokes.ptr<unsigned char>(y);
        unsigned char* c = coded.ptr<unsigned char>(y);
        for (int x = 0; x < strokes.cols; ++x)
            c[x] = s[x] == QXW_KEEP ? 255 : s[x] == QXW_CUT ? 1 : unpainted;
    }
    return coded;
}

std::string checkColours(const QxwColourOut* colours, const QxwImage& image) {
    if (!colours) return {};
    if (!colours->pixels) return "no colour output";
    if (colours->stride < static_cast<int64_t>(image.width) * 3)
        return "the colour output's stride is shorter than a row";
    return {};
}

std::string checkCutoutBuffers(const QxwImage* image, const unsigned char* strokes,
                               int strokesStride, const unsigned char* alpha, int alphaStride,
                               const QxwColourOut* colours) {
    std::string err = checkImage(image);
    if (err.empty() && strokes) err = checkPlane(strokes, strokesStride, *image, "stroke plane");
    if (err.empty()) err = checkPlane(alpha, alphaStride, *image, "alpha");
    if (err.empty()) err = checkColours(colours, *image);
    return err;
}

std::string checkRect(const QxwImage& image, int x, int y, int width, int height) {
    if (width < 1 || height < 1 || x < 0 || y < 0 || x > image.width - width ||
        y > image.height - height)
        return "the rectangle " + std::to_string(x) + "," + std::to_string(y) + "," +
               std::to_string(width) + "," + std::to_string(height) + " is not inside the " +
               std::to_string(image.width) + "x" + std::to_string(image.height) + " image";
    return {};
}

}  // namespace qx::workflow
