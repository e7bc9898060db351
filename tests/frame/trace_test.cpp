#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "frame/trace.h"
#include "qxiveilon31.h"

namespace fs = std::filesystem;

namespace {

std::string readFile(const fs::path& p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

class Trace : public ::testing::Test {
protected:
    void SetUp() override {
        dir = fs::temp_directory_path() / ("qxtrace_test_" + std::to_string(getpid()));
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override {
        qx::setTrace(0, "/tmp/");
        fs::remove_all(dir);
    }
    fs::path dir;
};

TEST_F(Trace, LogEntriesHaveTheirFormatsAndShareTheCounter) {
    const int start = qx::traceCounterValue();
    EXPECT_EQ(qx::setTrace(1, dir.c_str()), 1);
    EXPECT_EQ(qx::traceInt("value", -42), 1);
    EXPECT_EQ(qx::tracePtr("ptr", 0xbeefUL), 1);
    const std::string log = readFile(dir / "qxtrace_log.txt");
    const std::string file = dir.string() + "/qxtrace_log.txt";
    std::ostringstream want;
    want << "<<<<" << start << ": setTrace - traceFile: \n -- " << file << " \n>>>>\n"
         << "<<<<" << start + 1 << ": setTrace - traceMask:  1 \n>>>>\n"
         << "<<<<" << start + 2 << ": value -42 \n>>>>\n"
         << "<<<<" << start + 3 << ": ptr beef \n>>>>\n";
    EXPECT_EQ(log, want.str());
}

TEST_F(Trace, FirstDumpAfterThreeEntriesIsNumberedThree) {
    qx::setTrace(0, dir.c_str());
    // Nothing written while the mask is 0, and the counter does not move.
    const int start = qx::traceCounterValue();
    EXPECT_EQ(qx::traceMsg("a", "b"), 0);
    EXPECT_EQ(qx::traceCounterValue(), start);
    EXPECT_FALSE(fs::exists(dir / "qxtrace_log.txt"));

    qx::setTrace(3, dir.c_str());  // two entries of its own
    qx::traceMsg("one", "x");      // the third
    const int n = qx::traceCounterValue();
    const unsigned char px[2 * 3] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(qx::tracePPM(px, 2, 1, 6, 3, 0, 1), 1);
    char name[64];
    std::snprintf(name, sizeof name, "img_%04d.ppm", n);
    EXPECT_EQ(n - start, 3);
    EXPECT_TRUE(fs::exists(dir / name));
}

TEST_F(Trace, PpmDumpSwapsAndSkipsPixels) {
    qx::setTrace(2, dir.c_str());  // dumps only: setTrace's own entries are not written
    EXPECT_FALSE(fs::exists(dir / "qxtrace_log.txt"));
    const int n = qx::traceCounterValue();
    // Two rows of two 4-byte pixels, row step 10 (pad bytes 0xEE).
    const unsigned char px[20] = {10, 20, 30, 99, 40, 50, 60, 99, 0xEE, 0xEE,
                                  70, 80, 90, 99, 1,  2,  3,  99, 0xEE, 0xEE};
    ASSERT_EQ(qx::tracePPM(px, 2, 2, 10, 4, 1, 1), 1);
    char name[64];
    std::snprintf(name, sizeof name, "img_%04d.ppm", n);
    const std::string header = "P6\n# Created by QX for debugging\n2 2\n255\n";
    const std::string body = {30, 20, 10, 60, 50, 40, 90, 80, 70, 3, 2, 1};
    EXPECT_EQ(readFile(dir / name), header + body);
}

TEST_F(Trace, PgmOf16BitSamplesShiftsBySeven) {
    qx::setTrace(2, dir.c_str());
    const int n = qx::traceCounterValue();
    const uint16_t px[3] = {32640, 128, 0x7fff};  // 255, 1, 255 on the 8-bit scale
    ASSERT_EQ(qx::tracePGM(px, 3, 1, 6, 1, 2), 1);
    char name[64];
    std::snprintf(name, sizeof name, "img_%04d.pgm", n);
    const std::string body = {static_cast<char>(255), 1, static_cast<char>(255)};
    EXPECT_EQ(readFile(dir / name), "P5\n# Created by QX for debugging\n3 1\n255\n" + body);
}

TEST_F(Trace, ZeroHeightGivesAHeaderOnly) {
    qx::setTrace(2, dir.c_str());
    const int n = qx::traceCounterValue();
    const unsigned char px[3] = {1, 2, 3};
    ASSERT_EQ(qx::tracePGM(px, 3, 0, 3, 1, 1), 1);
    char name[64];
    std::snprintf(name, sizeof name, "img_%04d.pgm", n);
    EXPECT_EQ(readFile(dir / name), "P5\n# Created by QX for debugging\n3 0\n255\n");
}

TEST_F(Trace, NullDirectoryKeepsThePreviousOne) {
    qx::setTrace(0, dir.c_str());
    qx::setTrace(0, nullptr);
    EXPECT_EQ(std::string(qx::traceFilePath()), dir.string() + "/qxtrace_log.txt");
}

TEST_F(Trace, UnwritableDirectoryReturnsZero) {
    EXPECT_EQ(qx::setTrace(1, "/nonexistent/dir/for/qx"), 0);
    EXPECT_EQ(qx::traceInt("x", 1), 0);
}

TEST_F(Trace, SetupLibRefusesANegativeMask) {
    qx::setTrace(1, dir.c_str());
    EXPECT_EQ(qxSetupLib(-1, "/somewhere/else"), 0);
    EXPECT_EQ(qx::isTrace(), 1u);
    EXPECT_EQ(std::string(qx::traceFilePath()), dir.string() + "/qxtrace_log.txt");
    EXPECT_EQ(qxSetupLib(0, nullptr), 0);  // log bit off: its own entry is not written
    EXPECT_EQ(qx::isTrace(), 0u);
    EXPECT_EQ(setDebugTrace(1u, nullptr), 1);
    EXPECT_EQ(qx::isTrace(), 1u);
}

}  // namespace
