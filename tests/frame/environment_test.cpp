#include <gtest/gtest.h>

#include <cstdlib>
#include <string>

#include "frame/environment.h"
#include "frame/fpmode.h"
#include "frame/memory.h"
#include "frame/progress.h"
#include "frame/trace.h"

namespace {

const char* kPath = "MKL_PARDISO_OOC_PATH";
const char* kCore = "MKL_PARDISO_OOC_MAX_CORE_SIZE";
const char* kKeep = "MKL_PARDISO_OOC_KEEP_FILE";

std::string env(const char* name) {
    const char* v = std::getenv(name);
    return v ? v : "<unset>";
}

class LoaderEntry : public ::testing::Test {
protected:
    void SetUp() override {
        unsetenv(kPath);
        unsetenv(kCore);
        unsetenv(kKeep);
    }
    void TearDown() override { SetUp(); }
};

TEST_F(LoaderEntry, ProcessWithoutPathGetsTheLibraryValuesAndKeepsThem) {
    setenv(kCore, "77", 1);  // lost until unload: the library's values are written over it
    EXPECT_EQ(qx::libraryEntry(1), 1);
    EXPECT_EQ(qx::isPardisoOOCOk(), 1);
    EXPECT_EQ(env(kCore), "1500");
    EXPECT_EQ(env(kKeep), "0");
    EXPECT_FALSE(env(kPath).empty());
    EXPECT_EQ(env(kPath).back(), '/');
    EXPECT_EQ(qx::libraryEntry(0), 1);
    // No path at load: the library's own path and keep-file stay; the core size comes back.
    EXPECT_EQ(env(kCore), "77");
    EXPECT_EQ(env(kKeep), "0");
}

TEST_F(LoaderEntry, ProcessWithPathKeepsAllThree) {
    setenv(kPath, "/data/ooc", 1);
    setenv(kCore, "900", 1);
    setenv(kKeep, "1", 1);
    qx::libraryEntry(1);
    EXPECT_EQ(env(kPath), "/data/ooc");
    EXPECT_EQ(env(kCore), "900");
    EXPECT_EQ(env(kKeep), "1");
    EXPECT_EQ(qx::isPardisoOOCOk(), 1);
    setenv(kCore, "5", 1);
    setenv(kKeep, "9", 1);
    qx::libraryEntry(0);
    EXPECT_EQ(env(kPath), "/data/ooc");
    EXPECT_EQ(env(kCore), "900");
    EXPECT_EQ(env(kKeep), "1");
}

TEST_F(LoaderEntry, KeepFileIsRestoredUnderThePathsTest) {
    // The process had a path but no keep-file: unload writes the empty saved value.
    setenv(kPath, "/data/ooc", 1);
    qx::libraryEntry(1);
    setenv(kKeep, "3", 1);
    qx::libraryEntry(0);
    EXPECT_EQ(env(kKeep), "");
}

TEST_F(LoaderEntry, LoadClearsProgressAndTrace) {
    qx::setProgProc([](int, int, void*) { return 0; }, reinterpret_cast<void*>(1), 5, 5);
    qx::libraryEntry(1);
    EXPECT_EQ(qx::progressState().proc, nullptr);
    EXPECT_EQ(qx::isTrace(), 0u);
    EXPECT_EQ(std::string(qx::traceFilePath()), "/tmp//qxtrace_log.txt");
    qx::libraryEntry(0);
}

TEST_F(LoaderEntry, ThreadReasonsDoNothing) {
    EXPECT_EQ(qx::libraryEntry(2), 1);
    EXPECT_EQ(qx::libraryEntry(3), 1);
    EXPECT_EQ(env(kPath), "<unset>");
}

TEST(FpMode, FlushModesHoldForTheCallAndAreRestoredAfter) {
    ASSERT_FALSE(qx::flushToZeroOn());
    {
        qx::FpModeGuard outer;
        EXPECT_TRUE(qx::flushToZeroOn());
        EXPECT_TRUE(qx::denormalsAreZeroOn());
        volatile float tiny = 1e-39f;  // a denormal
        volatile float zero = tiny * 1.0f;
        EXPECT_EQ(zero, 0.0f);
        int workersOn = 0;
#pragma omp parallel reduction(+ : workersOn)
        workersOn += qx::flushToZeroOn() ? 1 : 0;
        int threads = 0;
#pragma omp parallel reduction(+ : threads)
        threads += 1;
        EXPECT_EQ(workersOn, threads);
        {
            qx::FpModeGuard nested;
            EXPECT_TRUE(qx::flushToZeroOn());
        }
        EXPECT_TRUE(qx::flushToZeroOn());
    }
    EXPECT_FALSE(qx::flushToZeroOn());
    EXPECT_FALSE(qx::denormalsAreZeroOn());
    int workersOn = 0;
#pragma omp parallel reduction(+ : workersOn)
    workersOn += qx::flushToZeroOn() ? 1 : 0;
    EXPECT_EQ(workersOn, 0);
}

}  // namespace
