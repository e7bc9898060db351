#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <thread>
#include <vector>

#include "runtime/fault.h"
#include "runtime/progress.h"

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
    for (int i = 0; i < 15; ++i) EXPECT_EQ(qx::progressKick(), 7);  // the callback's result
    const std::vector<int> expected = {10, 20, 30, 40, 50, 60, 70, 80, 90, 100, 110, 120, 65, 75, 85};
    EXPECT_EQ(r.current, expected);
    for (int t : r.total) EXPECT_EQ(t, 130);
}

TEST(Progress, NoCallbackWithoutParameter) {
    Recorder r;
    qx::setProgProc(record, nullptr, 130, 10);
    EXPECT_EQ(qx::progressKick(), 1);
    qx::setProgProc(nullptr, &r, 130, 10);
    EXPECT_EQ(qx::progressKick(), 1);
    EXPECT_TRUE(r.current.empty());
}

// Each thread has its own progress: a job on another thread neither sees this thread's callback
// nor moves its count.
TEST(Progress, EachThreadKeepsItsOwnState) {
    Recorder mine, theirs;
    qx::setProgProc(record, &mine, 1000, 1);
    qx::progressKick();
    std::thread other([&] {
        EXPECT_EQ(qx::progressState().proc, nullptr);
        qx::setProgProc(record, &theirs, 1000, 5);
        for (int i = 0; i < 3; ++i) qx::progressKick();
    });
    other.join();
    qx::progressKick();
    EXPECT_EQ(mine.current, (std::vector<int>{1, 2}));
    EXPECT_EQ(theirs.current, (std::vector<int>{5, 10, 15}));
    qx::initProgProc();
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

// The cancel flag stops the job at its next step, with or without a callback, and only on the
// thread that gave it.
TEST(Progress, CancelFlagStopsTheNextStep) {
    volatile int32_t flag = 0;
    qx::setCancelFlag(&flag);
    EXPECT_EQ(qx::progressKick(), 1);
    flag = 1;
    bool threw = false;
    try {
        qx::progressKick();
    } catch (const qx::Failure& e) {
        threw = e.fault == qx::Fault::Cancelled;
    }
    EXPECT_TRUE(threw);
    std::thread other([] { EXPECT_EQ(qx::progressKick(), 1); });
    other.join();
    qx::setCancelFlag(nullptr);
    EXPECT_EQ(qx::progressKick(), 1);
}

}  // namespace
