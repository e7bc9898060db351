#include <gtest/gtest.h>

#include "frame/memory.h"

namespace {

class MemoryBudget : public ::testing::Test {
protected:
    void TearDown() override { qx::overrideMemStatus(nullptr); }
};

TEST_F(MemoryBudget, LeastOfTheThreeFiguresOver1300) {
    const qx::MemStatus s{8000000000ull, 2600000ull * 1000, 9000000000ull};
    qx::overrideMemStatus(&s);
    EXPECT_EQ(qx::usableMemInMB(), 2000000);  // 2.6e9 / 1300
    const qx::MemStatus v{8000000000ull, 9000000000ull, 1300ull * 12345 + 1299};
    qx::overrideMemStatus(&v);
    EXPECT_EQ(qx::usableMemInMB(), 12345);  // truncated
}

TEST_F(MemoryBudget, CappedAt3500000) {
    // 4.55e9 bytes is where the cap starts: 4,550,000,000 / 1300 = 3,500,000.
    const qx::MemStatus at{4550000000ull, 4550000000ull, 4550000000ull};
    qx::overrideMemStatus(&at);
    EXPECT_EQ(qx::usableMemInMB(), 3500000);
    const qx::MemStatus big{64ull << 30, 64ull << 30, 1ull << 47};
    qx::overrideMemStatus(&big);
    EXPECT_EQ(qx::usableMemInMB(), 3500000);
    const qx::MemStatus below{4549998700ull, 1ull << 40, 1ull << 40};
    qx::overrideMemStatus(&below);
    EXPECT_EQ(qx::usableMemInMB(), 3499999);
}

TEST_F(MemoryBudget, FailedStatusGivesZero) {
    qx::overrideMemStatus(nullptr, true);
    EXPECT_EQ(qx::usableMemInMB(), 0);
}

TEST_F(MemoryBudget, LinuxFiguresAreConsistent) {
    qx::MemStatus s{};
    ASSERT_TRUE(qx::queryMemStatus(&s));
    EXPECT_GT(s.totalPhys, 64ull << 20);
    EXPECT_GT(s.availPageFile, 0u);
    EXPECT_GT(s.availVirtual, 0u);
    double phys = 0, virt = 0;
    qx::checkMemInBytes(&phys, &virt);
    EXPECT_GT(phys, 0.0);
    EXPECT_GT(virt, 0.0);
    EXPECT_GT(qx::usableMemInMB(), 0);
}

}  // namespace
