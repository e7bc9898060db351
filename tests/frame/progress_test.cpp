#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <thread>
#include <vector>

#include "frame/progress.h"

namespace {

struct Recorder {
    std::vector<int> current;
    std::vector<int> total;
};

int record(int current, int total, void* param) {
    auto* r = static_cast<Recorder*>(param);
    r->current.push_back(current);
    r->total.push_back(total);
    return 7;
}

TEST(Progress, OverrunFallsBackToHalfAndClimbsAgain) {
    Recorder r;
    qx::setProgProc(record, &r, 130, 10);
    for (int i = 0; i < 15; ++i) qx::progressKick();
    const std::vector<int> expected = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120, 65, 75, 85};
    EXPECT_EQ(r.current, expected);
    for (int t : r.total) EXPECT_EQ(t, 130);
}

TEST(Progress, KickReturnsTheCallbacksResult) {
    Recorder r;
    qx::setProgProc(record, &r, 100, 1);
    EXPECT_EQ(qx::progressKick(), 7);
}

TEST(Progress, NoCallbackWithoutParameter) {
    Recorder r;
    qx::setProgProc(record, nullptr, 130, 10);
    EXPECT_EQ(qx::progressKick(), 1);
    qx::setProgProc(nullptr, &r, 130, 10);
    EXPECT_EQ(qx::progressKick(), 1);
    EXPECT_TRUE(r.current.empty());
}

TEST(Progress, KicksFromParallelThreadsAreAllCounted) {
    Recorder r;
    qx::setProgProc(record, &r, 1 << 30, 1);
#pragma omp parallel for
    for (int i = 0; i < 1000; ++i) qx::progressKick();
    ASSERT_EQ(r.current.size(), 1000u);
    // Under the lock every report is one more than the one before.
    for (size_t i = 0; i < r.current.size(); ++i) EXPECT_EQ(r.current[i], static_cast<int>(i) + 1);
}

TEST(Progress, StepsNearTheIntLimitFallBackWithoutOverflow) {
    Recorder r;
    qx::setProgProc(record, &r, INT_MAX, INT_MAX);
    qx::progressKick();  // 0 + INT_MAX reaches the total: half of it
    qx::progressKick();  // INT_MAX / 2 + INT_MAX is past the int range: half again
    const std::vector<int> expected = {INT_MAX / 2, INT_MAX / 2};
    EXPECT_EQ(r.current, expected);
    qx::initProgProc();
}

// The callback and its parameter are installed and removed by one thread while another kicks:
// a kick either reports to the installed pair or does nothing, never calls a removed one.
int countCall(int, int, void* param) {
    static_cast<std::atomic<int>*>(param)->fetch_add(1);
    return 1;
}

TEST(Progress, InstallingWhileKickingNeverCallsARemovedCallback) {
    std::atomic<int> calls{0};
    std::atomic<bool> done{false};
    std::thread installer([&] {
        for (int i = 0; i < 20000; ++i) {
            qx::setProgProc(countCall, &calls, 1000, 1);
            qx::setProgProc(nullptr, nullptr, 1000, 1);
        }
        done = true;
    });
    int kicks = 0;
    while (!done) {
        EXPECT_EQ(qx::progressKick(), 1);
        ++kicks;
    }
    installer.join();
    EXPECT_LE(calls.load(), kicks);
    qx::initProgProc();
}

}  // namespace
