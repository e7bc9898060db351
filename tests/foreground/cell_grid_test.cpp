#include <gtest/gtest.h>

#include <set>
#include <utility>
#include <vector>

#include "foreground/cell_grid.h"
#include "frame/memory.h"

namespace {

const qx::CellGridParams kWhole{384, 1.5, 0.5};
const qx::CellGridParams kCell{100, 1.03, 0.03};

std::vector<qx::CellPos> walk(const qx::CellGrid& g, int qw, int qh) {
    std::vector<qx::CellPos> cells;
    qx::walkCells(g, qw, qh, [&](const qx::CellPos& p) { cells.push_back(p); });
    return cells;
}

class CellGrid : public ::testing::Test {
protected:
    void TearDown() override { qx::overrideMemStatus(nullptr); }
    // A budget of exactly `pixels` (usableMemInMB is bytes / 1300).
    static void budget(uint64_t pixels) {
        const qx::MemStatus s{pixels * 1300, pixels * 1300, pixels * 1300};
        qx::overrideMemStatus(&s);
    }
};

TEST_F(CellGrid, WholeImageGridWorkedByHand) {
    budget(3500000);  // side sqrt(3.5e9 / 1940) = 42476, cut to 384
    const qx::CellGrid g = qx::deriveCellGrid(1000, 500, kWhole, qx::usableMemInMB());
    EXPECT_EQ(g.side, 384);
    // d = 256: nx = trunc(3.906 + 0.75) = 4, ny = trunc(1.953 + 0.75) = 2
    EXPECT_EQ(g.nx, 4);
    EXPECT_EQ(g.ny, 2);
    EXPECT_EQ(g.cellW, 375);  // 1.5 * 1000 / 4
    EXPECT_EQ(g.cellH, 375);  // 1.5 * 500 / 2
    EXPECT_EQ(g.stepX, 204);  // 250 - trunc(46.875)
    EXPECT_EQ(g.stepY, 157);  // 250 - trunc(93.75)
    EXPECT_EQ(g.trimX, 42);   // 171 / 4
    EXPECT_EQ(g.trimY, 54);   // 218 / 4
    EXPECT_FALSE(g.singleX);
    EXPECT_FALSE(g.singleY);

    // Columns 0, 204, 408, 612, then 816 leaves 184 <= 375: snapped to 625. Rows 0, then 157
    // leaves 343 <= 375: snapped to 125.
    const auto cells = walk(g, 1000, 500);
    ASSERT_EQ(cells.size(), 10u);
    const int xs[5] = {0, 204, 408, 612, 625};
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(cells[size_t(i)].x, xs[i % 5]) << i;
        EXPECT_EQ(cells[size_t(i)].y, i < 5 ? 0 : 125) << i;
        EXPECT_EQ(cells[size_t(i)].lastColumn, i % 5 == 4) << i;
        EXPECT_EQ(cells[size_t(i)].lastRow, i >= 5) << i;
    }
}

TEST_F(CellGrid, CellWiseGridAtTheStrokeScale) {
    // 800 x 600 at 0.18 is 144 x 108.
    budget(3500000);
    const qx::CellGrid g = qx::deriveCellGrid(144, 108, kCell, qx::usableMemInMB());
    EXPECT_EQ(g.side, 100);
    EXPECT_EQ(g.nx, 2);  // 144 / 97.09 + 0.75 = 2.23
    EXPECT_EQ(g.cellW, 74);  // 1.03 * 72
    EXPECT_EQ(g.stepX, 71);  // 72 - trunc(1.11)
    EXPECT_EQ(g.trimX, 0);
    // 1.03 * 108 is not below 108: one cell high.
    EXPECT_TRUE(g.singleY);
    EXPECT_EQ(g.cellH, 108);
    EXPECT_EQ(g.stepY, 108);
    const auto cells = walk(g, 144, 108);
    ASSERT_EQ(cells.size(), 2u);
    EXPECT_EQ(cells[0].x, 0);
    EXPECT_EQ(cells[1].x, 70);  // 144 - 74
    EXPECT_TRUE(cells[1].lastColumn && cells[1].lastRow);
}

TEST_F(CellGrid, SideFollowsTheBudget) {
    budget(19400);  // 19400 * 1000 / 1940 = 10000: side 100
    EXPECT_EQ(qx::deriveCellGrid(300, 300, kWhole, qx::usableMemInMB()).side, 100);
    budget(19399);  // just under: 99
    EXPECT_EQ(qx::deriveCellGrid(300, 300, kWhole, qx::usableMemInMB()).side, 99);
}

TEST_F(CellGrid, FailedMemoryQueryMakesOneCellVisitedTwice) {
    const qx::MemStatus any{1, 1, 1};
    qx::overrideMemStatus(&any, true);
    const qx::CellGrid g = qx::deriveCellGrid(5000, 3000, kWhole, qx::usableMemInMB());
    EXPECT_EQ(g.side, 0);
    EXPECT_EQ(g.nx, 1);
    EXPECT_EQ(g.ny, 1);
    EXPECT_EQ(g.cellW, 5000);
    EXPECT_EQ(g.cellH, 3000);
    const auto cells = walk(g, 5000, 3000);
    ASSERT_EQ(cells.size(), 2u);  // the one cell, then again as the last of its row
    EXPECT_EQ(cells[0].x, 0);
    EXPECT_FALSE(cells[0].lastColumn);
    EXPECT_EQ(cells[1].x, 0);
    EXPECT_TRUE(cells[1].lastColumn && cells[1].lastRow);
}

TEST_F(CellGrid, ImageOneCellWideVisitsItsFirstRowTwice) {
    budget(19400);  // side 100, d = 66.7
    const qx::CellGrid g = qx::deriveCellGrid(80, 300, kWhole, qx::usableMemInMB());
    EXPECT_TRUE(g.singleX);  // 80 <= side
    EXPECT_FALSE(g.singleY);
    EXPECT_EQ(g.ny, 5);      // 4.5 + 0.75
    EXPECT_EQ(g.cellH, 90);  // 1.5 * 300 / 5
    EXPECT_EQ(g.stepY, 51);  // 60 - trunc(9)
    // The first cell is visited with the column flag clear, then again as the last of its row.
    // Each next row starts at x = 0, which already leaves no more than a cell: it is the last
    // column at once and is visited once. Rows 0, 51, 102, 153, 204, then 255 snaps to 210.
    const auto cells = walk(g, 80, 300);
    const int ys[7] = {0, 0, 51, 102, 153, 204, 210};
    ASSERT_EQ(cells.size(), 7u);
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(cells[i].x, 0);
        EXPECT_EQ(cells[i].y, ys[i]) << i;
        EXPECT_EQ(cells[i].lastColumn, i > 0) << i;
        EXPECT_EQ(cells[i].lastRow, i == 6) << i;
    }
}

TEST_F(CellGrid, TinyBudgetStillWalksTheWholeImage) {
    budget(2);  // side trunc(sqrt(1.03)) = 1: the quotient qw / nx is 0
    const qx::CellGrid g = qx::deriveCellGrid(10, 10, kWhole, qx::usableMemInMB());
    EXPECT_EQ(g.side, 1);
    EXPECT_GE(g.stepX, 1);
    EXPECT_GE(g.cellW, 1);
    const auto cells = walk(g, 10, 10);
    std::set<std::pair<int, int>> covered;
    for (const auto& c : cells)
        for (int y = c.y; y < c.y + g.cellH; ++y)
            for (int x = c.x; x < c.x + g.cellW; ++x) covered.insert({x, y});
    EXPECT_EQ(covered.size(), 100u);
    EXPECT_EQ(cells.size(), 100u);
}

TEST_F(CellGrid, CellsCoverTheImageAndStayInside) {
    budget(3500000);
    for (const auto& params : {kWhole, kCell}) {
        for (auto [qw, qh] : {std::pair{700, 290}, std::pair{101, 399}, std::pair{1200, 1200}}) {
            const qx::CellGrid g = qx::deriveCellGrid(qw, qh, params, qx::usableMemInMB());
            std::vector<char> seen(size_t(qw) * qh, 0);
            for (const auto& c : walk(g, qw, qh)) {
                ASSERT_GE(c.x, 0);
                ASSERT_GE(c.y, 0);
                ASSERT_LE(c.x + g.cellW, qw);
                ASSERT_LE(c.y + g.cellH, qh);
                for (int y = c.y; y < c.y + g.cellH; ++y)
                    for (int x = c.x; x < c.x + g.cellW; ++x) seen[size_t(y) * qw + x] = 1;
            }
            for (char s : seen) ASSERT_TRUE(s) << qw << "x" << qh;
        }
    }
}

}  // namespace
