// Failures in words: every status the library's jobs return reads as one line without the
// number, and a job that really runs out of memory under a lowered address-space limit (in a
// process of its own) says what it needed and what is free.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "runtime/fault.h"
#include "runtime/memory.h"
#include "workflow/workflow.h"

namespace {

using qx::Export;
using qx::workflow::jobFailureWords;

// The machine's figures replaced for the length of a test: 1.1 GB free.
struct FreeMemory {
    explicit FreeMemory(uint64_t free) {
        const qx::MemStatus s{8000000000ull, free, uint64_t(1) << 46};
        qx::overrideMemStatus(&s);
    }
    ~FreeMemory() { qx::overrideMemStatus(nullptr); }
};

constexpr char kCloseOthers[] = "; close other programs or use a smaller image";

// One line, and no number that is the status (a byte count may hold its digits: "1.1 GB"; a
// status 0 is no number to find).
void expectWordsWithoutStatus(const std::string& m, int status) {
    EXPECT_FALSE(m.empty());
    EXPECT_EQ(m.find('\n'), std::string::npos) << m;
    EXPECT_EQ(m.find("status"), std::string::npos) << m;
    if (status == 0) return;
    const std::regex numbers(R"(-?\d+(\.\d+)?)");
    std::smatch number;
    for (auto it = m.cbegin(); std::regex_search(it, m.cend(), number, numbers);
         it = number[0].second)
        EXPECT_NE(std::stod(number[0]), double(status)) << m;
}

// The statuses each job's documentation gives: those that mean memory ran out, and the others.
struct Statuses {
    Export job;
    std::vector<int> memory, other;
};
const Statuses kStatuses[] = {
    // qxMaskAlpha: the fault less 1000; qxRecoverForeground the same, and a refusal.
    {Export::MaskAlpha, {-898, -888, -887, -875, -870}, {-897, -892, -1001, -879, -878, -877, -1000}},
    {Export::ForegroundRecovery, {-870, -898}, {-879, -989, -1000, -2}},
    // qxKeepCutToAlpha: the fault itself.
    {Export::KeepCut, {102, 112, 113, 125, 130}, {-1, 103, 121, 122, 123, -1000}},
    // qxStrokesToAlpha, qxRecoverForegroundFull: -1 memory.
    {Export::StrokesToAlpha, {-1}, {-5, -2, -1000}},
    {Export::ForegroundFull, {-1}, {-2, -1000}},
    // qxGrabCut: a thrown image failure as it stands, 0 a refusal.
    {Export::GrabCut, {102, 112, 113}, {103, -1000, 0}},
};

TEST(FailureWords, EveryStatusOfTheJobsReadsAsOneLineWithoutItsNumber) {
    const FreeMemory free(1100000000ull);
    for (const Statuses& c : kStatuses)
        for (const bool memory : {true, false})
            for (const int status : memory ? c.memory : c.other) {
                qx::noteFailure(0);  // no export has failed on this thread
                const std::string m = jobFailureWords(c.job, status);
                SCOPED_TRACE(m);
                expectWordsWithoutStatus(m, status);
                if (memory) {
                    EXPECT_EQ(m, std::string("out of memory: the job needs more than the 1.1 GB "
                                             "that is free") + kCloseOthers);
                } else {
                    EXPECT_EQ(m.find("memory"), std::string::npos);
                }
            }
    // The library's cancelled status.
    EXPECT_EQ(jobFailureWords(Export::MaskAlpha, QX_CANCELLED), "cancelled");
}

TEST(FailureWords, WhatTheExportNotedTellsApartWhatOneStatusStandsFor) {
    const FreeMemory free(1100000000ull);
    // -1000 of the tri-map job: no memory, or anything else.
    qx::noteFailure(qx::kNoMemory);
    EXPECT_EQ(jobFailureWords(Export::MaskAlpha, -1000),
              std::string("out of memory: the job needs more than the 1.1 GB that is free") +
                  kCloseOthers);
    // -1 of the keep-cut job: no memory, or an area too large.
    EXPECT_EQ(jobFailureWords(Export::KeepCut, -1).rfind("out of memory: ", 0), 0u);
    qx::noteFailure(int(qx::Fault::SizeLimit));
    EXPECT_EQ(jobFailureWords(Export::KeepCut, -1).rfind("an area without enough strokes", 0),
              0u);
    // An allocation the job asked OpenCV for, larger than what is free, and smaller.
    qx::noteFailure(qx::kUnknownFailure,
                    "OpenCV(4.6.0) alloc.cpp:73: error: (-4:Insufficient memory) Failed to "
                    "allocate 3200000000 bytes in function 'OutOfMemoryError'\n");
    EXPECT_EQ(jobFailureWords(Export::StrokesToAlpha, -1000),
              std::string("out of memory: the job needs another 3.2 GB and 1.1 GB is free") +
                  kCloseOthers);
    qx::noteFailure(qx::kUnknownFailure, "Failed to allocate 36000000 bytes");
    EXPECT_EQ(jobFailureWords(Export::GrabCut, -1000),
              std::string("out of memory: the job needs more than the 1.1 GB that is free (it "
                          "asked for another 36 MB when memory ran out)") +
                  kCloseOthers);
    // A note that did not make this status (left by an earlier job) is not taken.
    qx::noteFailure(int(qx::Fault::GuardRow));
    EXPECT_EQ(jobFailureWords(Export::MaskAlpha, -875).rfind("out of memory: ", 0), 0u);
    qx::noteFailure(0);
}

TEST(FailureWords, WhatIsFreeComesFromTheMemoryStatus) {
    using qx::workflow::outOfMemoryWords;
    {
        const FreeMemory free(512);
        EXPECT_EQ(outOfMemoryWords(0),
                  std::string("out of memory: the job needs more than the 512 bytes that is "
                              "free") + kCloseOthers);
        EXPECT_EQ(outOfMemoryWords(36000000),
                  std::string("out of memory: the job needs another 36 MB and 512 bytes is "
                              "free") + kCloseOthers);
    }
    {
        // Available memory and swap 9.9 GB, the address space 7.9 MB: the less counts.
        const qx::MemStatus s{16000000000ull, 9900000000ull, 7900000ull};
        qx::overrideMemStatus(&s);
        EXPECT_NE(outOfMemoryWords(0).find("the 7.9 MB that is free"), std::string::npos);
        const qx::MemStatus t{16000000000ull, 9900000000ull, uint64_t(1) << 46};
        qx::overrideMemStatus(&t);
        EXPECT_NE(outOfMemoryWords(0).find("the 9.9 GB that is free"), std::string::npos);
        qx::overrideMemStatus(nullptr, true);  // the status can't be read
        EXPECT_EQ(outOfMemoryWords(0),
                  std::string("out of memory: the job needs more memory than is free") +
                      kCloseOthers);
        qx::overrideMemStatus(nullptr);
    }
}

// What escapes a workflow's body: an OpenCV exception in its own one line, an allocation
// failure, a fault's value.
TEST(FailureWords, AnExceptionThatReachesTheWorkflowFrameIsOneLine) {
    const FreeMemory free(1100000000ull);
    const auto run = [](auto thrower) {
        QxwJob job{};
        EXPECT_EQ(qx::workflow::runEntry(&job, "", "matting",
                                         [&](qx::workflow::Relay&) {
                                             thrower();
                                             return QXW_OK;
                                         }),
                  QXW_FAILED);
        EXPECT_EQ(job.libraryStatus, 0);
        return std::string(job.message);
    };
    EXPECT_EQ(run([] {
                  throw cv::Exception(cv::Error::StsNoMem, "Failed to allocate 36000000 bytes",
                                      "OutOfMemoryError", "alloc.cpp", 73);
              }),
              std::string("out of memory: the job needs more than the 1.1 GB that is free (it "
                          "asked for another 36 MB when memory ran out)") +
                  kCloseOthers);
    EXPECT_EQ(run([] {
                  throw cv::Exception(cv::Error::StsBadArg, "sizes differ\nin the second plane",
                                      "f", "file.cpp", 1);
              }),
              "matting failed: sizes differ in the second plane");
    EXPECT_EQ(run([] { throw std::bad_alloc(); }),
              std::string("out of memory: the job needs more than the 1.1 GB that is free") +
                  kCloseOthers);
    EXPECT_EQ(run([] { qx::fail(qx::Fault::SolverAnalysis); }),
              "matting failed: the sparse solver could not analyse the system");
    const std::string other = run([] { throw 7777; });
    EXPECT_EQ(other, "matting failed: an unexpected internal failure");
}

// ---- A job in a process of its own, under a lowered address-space limit ----------------------
//
// The test below runs this file's program again with QX_OOM_CASE set: there, the job runs
// under the limit and writes its status and message to QX_OOM_REPORT. Run as a test of its own
// (no QX_OOM_CASE), it runs both jobs without a limit: they succeed, so a failure under the
// limit is the limit's doing.

// Virtual memory the process maps now, in bytes.
uint64_t mappedBytes() {
    std::ifstream statm("/proc/self/statm");
    uint64_t pages = 0;
    statm >> pages;
    return pages * uint64_t(sysconf(_SC_PAGESIZE));
}

// The two jobs: "copy", strokes painted everywhere on 4000 x 3000 (the answer is the strokes;
// the image's first copy, 36,000,000 bytes, is what runs out); "budget", colour recovery on
// 3000 x 2000 under a soft alpha (the memory budget can't hold its pieces).
QxwStatus runJob(const std::string& which, uint64_t limitAbove, QxwJob* job) {
    const bool copy = which == "copy";
    const int w = copy ? 4000 : 3000, h = copy ? 3000 : 2000;
    std::vector<unsigned char> image(size_t(w) * h * 3), plane(size_t(w) * h),
        out(size_t(w) * h * 3);
    for (size_t i = 0; i < image.size(); ++i) image[i] = static_cast<unsigned char>(i * 7);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) plane[size_t(y) * w + x] = copy ? 255 : x * 255 / (w - 1);
    const QxwImage img{image.data(), w * 3, 3, w, h, QXW_BGR};
    const QxwColourOut colours{out.data(), w * 3};
    if (limitAbove > 0) {
        const rlimit limit{mappedBytes() + limitAbove, RLIM_INFINITY};
        if (setrlimit(RLIMIT_AS, &limit) != 0) return QxwStatus(-1);
    }
    return copy ? qxwMatteStrokes(&img, plane.data(), w, QXW_ENGINE_STROKES, out.data(), w, job)
                : qxwRecoverForeground(&img, plane.data(), w, QXW_FG_FULL, &colours, job);
}

TEST(OutOfMemoryProcess, TheJobsRunWithoutTheLimit) {
    const char* which = std::getenv("QX_OOM_CASE");
    if (which != nullptr) {  // the run under the limit
        QxwJob job{};
        const QxwStatus s = runJob(which, std::strtoull(std::getenv("QX_OOM_LIMIT"), nullptr, 10),
                                   &job);
        std::ofstream(std::getenv("QX_OOM_REPORT")) << int(s) << ' ' << job.libraryStatus << '\n'
                                                    << job.message;
        return;
    }
    for (const char* c : {"copy", "budget"}) {
        QxwJob job{};
        EXPECT_EQ(runJob(c, 0, &job), QXW_OK) << c << ": " << job.message;
    }
}

struct Report {
    int status = -99, libraryStatus = -99;
    std::string message;
};

// Runs one job under the limit in a new process of this program, one thread (every thread's
// stack would count against the limit); a hang (timeout's 120 s) fails the test instead of
// holding the suite.
Report runUnderLimit(const std::string& which, uint64_t limitAbove) {
    const std::string report = ::testing::TempDir() + "qx_oom_" + which + ".txt",
                      log = report + ".log";
    std::remove(report.c_str());
    const std::string command =
        "QX_OOM_CASE=" + which + " QX_OOM_LIMIT=" + std::to_string(limitAbove) + " QX_OOM_REPORT='" +
        report + "' OMP_THREAD_LIMIT=1 OPENBLAS_NUM_THREADS=1 timeout -s KILL 120 '" +
        std::filesystem::read_symlink("/proc/self/exe").string() +
        "' --gtest_filter=OutOfMemoryProcess.TheJobsRunWithoutTheLimit >'" + log + "' 2>&1";
    const int wstatus = std::system(command.c_str());
    std::stringstream output;
    output << std::ifstream(log).rdbuf();
    EXPECT_TRUE(WIFEXITED(wstatus) && WEXITSTATUS(wstatus) == 0) << which << ": " << output.str();
    Report r;
    std::ifstream in(report);
    in >> r.status >> r.libraryStatus;
    in.ignore(1);
    std::getline(in, r.message, '\0');
    return r;
}

// "copy": an OpenCV allocation (the image's copy, 36,000,000 bytes) fails under 16 MB and
// says what it asked for; "budget": the image's copy and the colour output (18,000,000 bytes
// each) fit under 64 MB, the recovery's pieces (some 150 MB) do not, and the library's memory
// status -1 says what is free. Either way the free figure said is within the limit.
TEST(OutOfMemoryProcess, AJobUnderALimitSaysWhatItNeededAndWhatIsFree) {
#if defined(__SANITIZE_ADDRESS__)  // its shadow memory, not the library, would meet the limit
    GTEST_SKIP() << "no address-space limit under AddressSanitizer";
#endif
    const struct { const char* which; uint64_t limit; const char* starts; bool library; } cases[] = {
        {"copy", 16000000, "out of memory: the job needs another 36 MB and ", false},
        {"budget", 64000000, "out of memory: the job needs more than the ", true}};
    const std::regex freeSaid(R"(([0-9.]+) (bytes|kB|MB|GB)( is| that is) free)");
    for (const auto& c : cases) {
        const Report r = runUnderLimit(c.which, c.limit);
        SCOPED_TRACE(r.message);
        EXPECT_EQ(r.status, QXW_FAILED);
        expectWordsWithoutStatus(r.message, r.libraryStatus);
        EXPECT_EQ(r.message.rfind(c.starts, 0), 0u);
        EXPECT_NE(r.message.find(kCloseOthers), std::string::npos);
        std::smatch said;
        ASSERT_TRUE(std::regex_search(r.message, said, freeSaid));
        const std::string unit = said[2];
        const double free = std::stod(said[1]) *
                            (unit == "bytes" ? 1 : unit == "kB" ? 1e3 : unit == "MB" ? 1e6 : 1e9);
        EXPECT_GE(free, 0.0);
        EXPECT_LE(free, double(c.limit));
        if (c.library) { EXPECT_EQ(r.libraryStatus, -1); EXPECT_GT(free, 0.0); }
    }
}

}  // namespace
