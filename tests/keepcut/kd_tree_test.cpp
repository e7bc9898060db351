// The KD-tree: construction on hand-built stroke layouts whose boxes can be worked out by hand,
// the memory check, the two-pass walk and its overlaps, the leaf solve, and the recovery walk.
#include <gtest/gtest.h>

#include <vector>

#include "kd_fixtures.h"
#include "keepcut/kd_tree.h"

namespace {

using kdtest::Box;
using kdtest::TreeImages;

std::vector<Box> leavesOf(const qx::KDTree& tree) {
    std::vector<Box> out;
    kdtest::collectLeaves(tree.root, out);
    return out;
}

// ---- Axis choice and cut point ----------------------------------------------------------------

TEST(KDTreeSplit, AxisFollowsTheSpreadOfTheUnknownPixelsAndTiesGoToRows) {
    {
        // A tall band of two columns (x 14, 15) over 60 rows, keep left, cut right. The mean is
        // (14.5, 29.5), truncated to (14, 29); the spread is far larger in y.
        TreeImages im(30, 60);
        im.strokeRect(0, 0, 13, 59, 255);
        im.unknownRect(14, 0, 15, 59);
        auto tree = im.makeTree();
        tree->constructTree(tree->root);
        EXPECT_EQ(tree->root->medianX, 14);
        EXPECT_EQ(tree->root->medianY, 29);
        EXPECT_EQ(tree->root->splitAxis, 1);
        ASSERT_NE(tree->root->left, nullptr);
        EXPECT_EQ(tree->root->left->y1, 29);
        EXPECT_EQ(tree->root->right->y0, 29);
        EXPECT_EQ(tree->root->left->x0, 0);
        EXPECT_EQ(tree->root->left->x1, 29);
    }
    {
        // The same turned on its side: a wide band of rows 14, 15, keep above, cut below.
        TreeImages im(60, 30);
        im.strokeRect(0, 0, 59, 13, 255);
        im.unknownRect(0, 14, 59, 15);
        auto tree = im.makeTree();
        tree->constructTree(tree->root);
        EXPECT_EQ(tree->root->medianX, 29);
        EXPECT_EQ(tree->root->medianY, 14);
        EXPECT_EQ(tree->root->splitAxis, 0);
        ASSERT_NE(tree->root->left, nullptr);
        EXPECT_EQ(tree->root->left->x1, 29);
        EXPECT_EQ(tree->root->right->x0, 29);
        EXPECT_EQ(tree->root->right->y1, 29);
    }
    {
        // An 8 x 8 square of unknown pixels: the spreads are equal, the tie cuts rows.
        TreeImages im(24, 24);
        im.strokeRect(0, 0, 11, 23, 255);
        im.unknownRect(8, 8, 15, 15);
        auto tree = im.makeTree();
        tree->constructTree(tree->root);
        EXPECT_EQ(tree->root->medianX, 11);
        EXPECT_EQ(tree->root->medianY, 11);
        EXPECT_EQ(tree->root->splitAxis, 1);
    }
}

TEST(KDTreeSplit, MeanIsTakenOverUnknownPixelsInImageCoordinates) {
    // Unknown pixels (3, 5), (10, 5), (10, 20): mean (7.67, 10) -> (7, 10). The node's box
    // starts at (2, 4), so a box-relative mean would be different.
    TreeImages im(30, 30);
    im.unknownRect(3, 5, 3, 5);
    im.unknownRect(10, 5, 10, 5);
    im.unknownRect(10, 20, 10, 20);
    auto tree = im.makeTree();
    qx::KDNode node;
    node.x0 = 2;
    node.y0 = 4;
    node.x1 = 25;
    node.y1 = 25;
    node.known = im.known.data() + 4 * im.known.step + 2;
    EXPECT_EQ(tree->getMedianPt(&node), 3.0);
    EXPECT_EQ(node.medianX, 7);
    EXPECT_EQ(node.medianY, 10);
}

// ---- Verdicts ----------------------------------------------------------------------------------

TEST(KDTreeVerdict, ThinChildrenStrokeKindsAndTheAlphaThreshold) {
    TreeImages im(40, 40);
    im.strokeRect(0, 0, 39, 19, 255);  // keep above, cut below (alpha 0 from the start)
    auto tree = im.makeTree();
    auto verdict = [&](int x0, int y0, int x1, int y1) {
        qx::KDNode n;
        n.x0 = x0;
        n.y0 = y0;
        n.x1 = x1;
        n.y1 = y1;
        n.known = im.known.data() + y0 * im.known.step + x0;
        n.alpha = im.alpha.data() + y0 * im.alpha.step + x0;
        return tree->checkTermination(&n);
    };
    EXPECT_EQ(verdict(0, 0, 10, 39), 4);   // 11 wide, both kinds: too thin all the same
    EXPECT_EQ(verdict(0, 0, 39, 10), 4);   // 11 high
    EXPECT_EQ(verdict(0, 14, 11, 25), 0);  // 12 x 12 passes the size test; both kinds
    EXPECT_EQ(verdict(0, 0, 20, 15), 1);   // keep only
    EXPECT_EQ(verdict(0, 22, 20, 39), 2);  // cut only

    // Constraints of alpha 5 are cut, of alpha 6 keep; unknown pixels don't count.
    TreeImages p(20, 20);
    p.unknownRect(0, 0, 19, 19);
    auto tp = p.makeTree();
    auto whole = [&]() {
        qx::KDNode n;
        n.x0 = 0;
        n.y0 = 0;
        n.x1 = 19;
        n.y1 = 19;
        n.known = p.known.data();
        n.alpha = p.alpha.data();
        return tp->checkTermination(&n);
    };
    p.alpha.at(5, 5) = 200;  // unknown: no constraint
    EXPECT_EQ(whole(), 2);    // no constraint at all reads as "no keep"
    p.strokeRect(3, 3, 3, 3, 5);
    EXPECT_EQ(whole(), 2);
    p.strokeRect(9, 9, 9, 9, 6);
    EXPECT_EQ(whole(), 0);
    p.strokeRect(3, 3, 3, 3, 128);
    EXPECT_EQ(whole(), 1);
}

// ---- Whole trees --------------------------------------------------------------------------------

TEST(KDTreeConstruct, BoxesOfAHorizontalBandAreCutDownToThinLimit) {
    // 48 x 24: keep in rows 0..10, unknown rows 11..12, cut rows 13..23. The root is cut at
    // column 23 (mean 23.5), its halves at 11 and 35; every quarter would then be cut into parts
    // narrower than 12 (at 5, 17, 29, 41), so the quarters are the leaves, all first-pass.
    TreeImages im(48, 24);
    im.strokeRect(0, 0, 47, 10, 255);
    im.unknownRect(0, 11, 47, 12);
    auto tree = im.makeTree();
    EXPECT_EQ(tree->constructTree(tree->root), tree->root);
    const std::vector<Box> expected = {
        {0, 0, 11, 23, 1}, {11, 0, 23, 23, 1}, {23, 0, 35, 23, 1}, {35, 0, 47, 23, 1}};
    EXPECT_EQ(leavesOf(*tree), expected);
    EXPECT_EQ(tree->leafCount, 4);
    EXPECT_EQ(tree->root->splitAxis, 0);
    EXPECT_EQ(tree->root->solveFirst, 0);
    // Node addresses point at each box's corner in every image.
    const qx::KDNode* r = tree->root->right;
    EXPECT_EQ(r->known, im.known.data() + 23);
    EXPECT_EQ(r->alpha, im.alpha.data() + 23);
    EXPECT_EQ(r->plane[2], im.planes[2].data() + 23);
    EXPECT_EQ(r->colour, nullptr);
}

TEST(KDTreeConstruct, OneSidedChildrenBecomeSecondPassLeaves) {
    // As above, but below the band the left half is keep too: the left half holds keep only
    // (verdict 1) and stays a leaf of the second pass; the right half is cut further.
    TreeImages im(48, 24);
    im.strokeRect(0, 0, 47, 10, 255);
    im.strokeRect(0, 13, 23, 23, 255);
    im.unknownRect(0, 11, 47, 12);
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    const std::vector<Box> expected = {{0, 0, 23, 23, 0}, {23, 0, 35, 23, 1}, {35, 0, 47, 23, 1}};
    EXPECT_EQ(leavesOf(*tree), expected);
    EXPECT_EQ(tree->leafCount, 3);
}

TEST(KDTreeConstruct, KeepAndCutOnOppositeSidesLeaveTheRootAlone) {
    // 60 x 16, keep in x < 20, cut in x > 39, unknown between: mean (29, 7), sx 10720 > sy 6880,
    // so the cut is at column 29; the halves read keep only and cut only, and the root stays
    // the one leaf, first-pass.
    TreeImages im(60, 16);
    im.strokeRect(0, 0, 19, 15, 255);
    im.unknownRect(20, 0, 39, 15);
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    EXPECT_EQ(tree->root->splitAxis, 0);
    EXPECT_EQ(tree->root->medianX, 29);
    EXPECT_EQ(tree->root->left, nullptr);
    EXPECT_EQ(tree->root->right, nullptr);
    EXPECT_EQ(tree->root->solveFirst, 1);
    EXPECT_EQ(tree->leafCount, 1);
}

TEST(KDTreeConstruct, StrokesOnTheCutLineCountInBothChildren) {
    // Keep in rows 0..1, the only cut pixels at column 23, rows 22..23; everything else unknown.
    // Mean x of the unknown pixels is 23.5 less a little: the cut is at column 23, so both
    // halves see the cut stroke and both are cut further.
    TreeImages im(48, 24);
    im.unknownRect(0, 0, 47, 23);
    im.strokeRect(0, 0, 47, 1, 255);
    im.strokeRect(23, 22, 23, 23, 0);
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    EXPECT_EQ(tree->root->splitAxis, 0);
    EXPECT_EQ(tree->root->medianX, 23);
    ASSERT_NE(tree->root->left, nullptr);
    EXPECT_EQ(tree->root->left->x1, 23);
    EXPECT_EQ(tree->root->right->x0, 23);
    EXPECT_EQ(tree->checkTermination(tree->root->left), 0);
    EXPECT_EQ(tree->checkTermination(tree->root->right), 0);
}

TEST(KDTreeConstruct, NoUnknownPixelAndThinImages) {
    {
        // All pixels are constraints of both kinds: no mean to cut at; a first-pass leaf.
        TreeImages im(40, 40);
        im.strokeRect(0, 0, 19, 39, 255);
        auto tree = im.makeTree();
        tree->constructTree(tree->root);
        EXPECT_EQ(tree->root->left, nullptr);
        EXPECT_EQ(tree->root->solveFirst, 1);
        EXPECT_EQ(tree->leafCount, 1);
        EXPECT_EQ(tree->root->medianX, -1);
    }
    {
        // An image 11 rows high can't be cut at all.
        TreeImages im(200, 11);
        im.strokeRect(0, 0, 49, 10, 255);
        im.unknownRect(50, 0, 149, 10);
        auto tree = im.makeTree();
        tree->constructTree(tree->root);
        EXPECT_EQ(tree->root->left, nullptr);
        EXPECT_EQ(tree->root->solveFirst, 1);
        EXPECT_EQ(tree->leafCount, 1);
    }
}

TEST(KDTreeMemory, ALeafOfMoreThanTwoMillionUnknownPixelsThrowsMinusOne) {
    // Keep in the first 50 columns, cut in the last 50, 2000 x 1000 unknown between: the root is
    // the only leaf, with exactly 2,000,000 unknown pixels, which passes.
    TreeImages im(2100, 1000);
    im.strokeRect(0, 0, 49, 999, 255);
    im.unknownRect(50, 0, 2049, 999);
    {
        auto tree = im.makeTree();
        tree->constructTree(tree->root);
        ASSERT_EQ(tree->leafCount, 1);
        EXPECT_NO_THROW(tree->checkMemoryUsage(tree->root));
    }
    im.unknownRect(0, 500, 0, 500);  // one more
    {
        auto tree = im.makeTree();
        tree->constructTree(tree->root);
        ASSERT_EQ(tree->leafCount, 1);
        try {
            tree->checkMemoryUsage(tree->root);
            FAIL() << "no throw";
        } catch (int e) {
            EXPECT_EQ(e, -1);
        }
    }
}

TEST(KDTreeMemory, TheCheckLooksAtEveryLeaf) {
    // Many small leaves pass; the check walks into both children.
    TreeImages im(48, 24);
    im.strokeRect(0, 0, 47, 10, 255);
    im.unknownRect(0, 11, 47, 12);
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    EXPECT_NO_THROW(tree->checkMemoryUsage(tree->root));
}

// ---- The leaf solve -----------------------------------------------------------------------------

TEST(KDTreeLeafSolve, ThreeUnknownPixelsAreSolvedTwoAreNot) {
    TreeImages im(20, 20);
    im.strokeRect(0, 0, 19, 19, 255);
    im.strokeRect(0, 10, 19, 19, 0);
    im.alpha.at(9, 9) = im.alpha.at(10, 9) = im.alpha.at(11, 9) = 77;
    im.unknownRect(9, 9, 10, 9);
    auto views = [&](std::vector<std::unique_ptr<qx::GIMG<unsigned char>>>& keep) {
        for (int c = 0; c < 3; ++c)
            keep.push_back(std::make_unique<qx::GIMG<unsigned char>>(20, 20, im.planes[c].data(),
                                                                     im.planes[c].step));
        keep.push_back(std::make_unique<qx::GIMG<unsigned char>>(20, 20, im.known.data(), im.known.step));
        keep.push_back(std::make_unique<qx::GIMG<unsigned char>>(20, 20, im.alpha.data(), im.alpha.step));
    };
    {
        std::vector<std::unique_ptr<qx::GIMG<unsigned char>>> v;
        views(v);
        qx::GIMG<unsigned char>* planes[3] = {v[0].get(), v[1].get(), v[2].get()};
        EXPECT_EQ(qx::compAlphaKDTree(planes, v[3].get(), v[4].get(), 1), -5);
        EXPECT_EQ(im.alpha.at(9, 9), 77);
        EXPECT_EQ(im.alpha.at(10, 9), 77);
    }
    im.unknownRect(11, 9, 11, 9);
    {
        std::vector<std::unique_ptr<qx::GIMG<unsigned char>>> v;
        views(v);
        qx::GIMG<unsigned char>* planes[3] = {v[0].get(), v[1].get(), v[2].get()};
        EXPECT_EQ(qx::compAlphaKDTree(planes, v[3].get(), v[4].get(), 1), 1);
        // Between a keep row above and cut rows below, on a flat image: mixed values.
        for (int x = 9; x <= 11; ++x) {
            EXPECT_NE(im.alpha.at(x, 9), 77) << x;
            EXPECT_GT(im.alpha.at(x, 9), 20) << x;
            EXPECT_LT(im.alpha.at(x, 9), 235) << x;
        }
        EXPECT_EQ(im.alpha.at(9, 8), 255);  // constraints stay
        EXPECT_EQ(im.alpha.at(9, 10), 0);
    }
    EXPECT_TRUE(im.alpha.padsIntact());
    EXPECT_TRUE(im.known.padsIntact());
}

// ---- The walk ----------------------------------------------------------------------------------

// Layout of OneSidedChildrenBecomeSecondPassLeaves on a scene with a soft vertical edge, and
// strokes that leave the band between rows 9 and 14 open.
TreeImages twoPassLayout() {
    TreeImages im(48, 24, 11);
    for (int y = 0; y < 24; ++y)
        for (int x = 0; x < 48; ++x) {
            const int t = std::clamp((y - 8) * 40, 0, 255);
            im.planes[0].at(x, y) = static_cast<unsigned char>(200 - t / 2 + (x * 7 + y * 3) % 11);
            im.planes[1].at(x, y) = static_cast<unsigned char>(60 + t / 3 + (x * 5) % 7);
            im.planes[2].at(x, y) = static_cast<unsigned char>(40 + t / 2);
        }
    im.strokeRect(0, 0, 47, 8, 255);
    im.strokeRect(0, 15, 23, 23, 255);
    im.unknownRect(0, 9, 47, 14);
    for (int y = 9; y <= 14; ++y)
        for (int x = 0; x < 48; ++x) im.alpha.at(x, y) = 100;
    return im;
}

TEST(KDTreeWalk, FirstPassThenSecondWithMarginsClippedAtTheImage) {
    TreeImages im = twoPassLayout();
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    const std::vector<Box> expected = {{0, 0, 23, 23, 0}, {23, 0, 35, 23, 1}, {35, 0, 47, 23, 1}};
    ASSERT_EQ(leavesOf(*tree), expected);

    tree->traverseTree(tree->root, 1);
    // First-pass tiles: columns 13..45 and 25..47 (clipped), every row (clipped): all known.
    // Columns 0..12 are untouched: the unknown band is still open there, and its alpha too.
    for (int y = 0; y < 24; ++y)
        for (int x = 0; x < 48; ++x) {
            const bool inTile = x >= 13;
            const bool wasUnknown = y >= 9 && y <= 14;
            EXPECT_EQ(im.known.at(x, y), inTile || !wasUnknown ? 255 : 0) << x << "," << y;
            if (!inTile && wasUnknown) {
                EXPECT_EQ(im.alpha.at(x, y), 100) << x << "," << y;
            }
        }
    tree->traverseTree(tree->root, 0);
    for (int y = 0; y < 24; ++y)
        for (int x = 0; x < 48; ++x) EXPECT_EQ(im.known.at(x, y), 255);
    for (int y = 9; y <= 14; ++y)
        for (int x = 0; x < 13; ++x) EXPECT_NE(im.alpha.at(x, y), 100) << x << "," << y;
}

TEST(KDTreeWalk, OverlapsKeepTheFirstTilesResult) {
    // Reference: the first tile of the first pass (columns 13..45) solved alone.
    TreeImages ref = twoPassLayout();
    {
        std::vector<std::unique_ptr<qx::GIMG<unsigned char>>> v;
        for (int c = 0; c < 3; ++c)
            v.push_back(std::make_unique<qx::GIMG<unsigned char>>(33, 24, ref.planes[c].data() + 13,
                                                                  ref.planes[c].step));
        v.push_back(std::make_unique<qx::GIMG<unsigned char>>(33, 24, ref.known.data() + 13, ref.known.step));
        v.push_back(std::make_unique<qx::GIMG<unsigned char>>(33, 24, ref.alpha.data() + 13, ref.alpha.step));
        qx::GIMG<unsigned char>* planes[3] = {v[0].get(), v[1].get(), v[2].get()};
        ASSERT_EQ(qx::compAlphaKDTree(planes, v[3].get(), v[4].get(), 1), 1);
    }
    TreeImages im = twoPassLayout();
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    tree->traverseTree(tree->root, 1);
    tree->traverseTree(tree->root, 0);
    for (int y = 9; y <= 14; ++y)
        for (int x = 13; x <= 45; ++x) EXPECT_EQ(im.alpha.at(x, y), ref.alpha.at(x, y)) << x << "," << y;
    // The overlap really was solved (the band falls from keep to cut on the right) and the
    // second tile took it as given rather than solving it again with its own constraints.
    EXPECT_GT(im.alpha.at(40, 9), im.alpha.at(40, 14));
}

TEST(KDTreeWalk, SingleLeafTreeIsSolvedInThePassOfItsKindOnly) {
    TreeImages im(60, 16);
    im.strokeRect(0, 0, 19, 15, 255);
    im.unknownRect(20, 0, 39, 15);
    for (int y = 0; y < 16; ++y)
        for (int x = 20; x <= 39; ++x) im.alpha.at(x, y) = 100;
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    tree->traverseTree(tree->root, 0);
    EXPECT_EQ(im.known.at(30, 8), 0);
    EXPECT_EQ(im.alpha.at(30, 8), 100);
    tree->traverseTree(tree->root, 1);
    EXPECT_EQ(im.known.at(30, 8), 255);
    // Keep on the left, cut on the right: alpha falls across the band.
    EXPECT_GT(im.alpha.at(21, 8), im.alpha.at(38, 8));
}

TEST(KDTreeWalk, AllKnownTileIsMarkedAndLeftAsItWas) {
    TreeImages im(40, 40);
    im.strokeRect(0, 0, 19, 39, 255);
    const std::vector<unsigned char> before = im.alpha.bytes;
    auto tree = im.makeTree();
    tree->constructTree(tree->root);
    tree->traverseTree(tree->root, 1);
    EXPECT_EQ(im.alpha.bytes, before);
}

// ---- The recovery walk -------------------------------------------------------------------------

struct RecoveryCall {
    int fullWidth, fullHeight, roiWidth, roiHeight;
    long alphaOffset, dstOffset;
    unsigned char srcFirst[4];
};
std::vector<RecoveryCall>* g_calls = nullptr;
const unsigned char* g_alphaBase = nullptr;
const unsigned char* g_dstBase = nullptr;

int64_t recordCall(KeepCutRequest* r, int64_t flag) {
    EXPECT_EQ(flag, 1);
    EXPECT_EQ(r->roiX, 0);
    EXPECT_EQ(r->roiY, 0);
    EXPECT_EQ(r->regionMode, 0);
    RecoveryCall c{r->fullWidth, r->fullHeight, r->roiWidth, r->roiHeight,
                   static_cast<long>(r->alphaPlane - g_alphaBase),
                   static_cast<long>(r->dstImage - g_dstBase),
                   {r->srcImage[0], r->srcImage[1], r->srcImage[2], r->srcImage[3]}};
    g_calls->push_back(c);
    return 1;
}

TEST(KDTreeRecoveryWalk, VisitsTheLeavesOfItsPassWithBoxesGrownByHalf) {
    TreeImages im(48, 24);
    im.strokeRect(0, 0, 47, 10, 255);
    im.strokeRect(0, 13, 23, 23, 255);
    im.unknownRect(0, 11, 47, 12);
    const int colourStep = 4 * 48 + 16;
    std::vector<unsigned char> colour(static_cast<size_t>(colourStep) * 24, 0);
    auto tree = im.makeTree(colour.data(), colourStep);
    tree->constructTree(tree->root);
    tree->recoverCell = recordCall;
    std::vector<RecoveryCall> calls;
    g_calls = &calls;
    g_alphaBase = im.alpha.data();
    g_dstBase = colour.data();

    // Pass 1: leaves (23..35) and (35..47) x (0..23), 13 x 24: margins 6 and 12, grown to
    // 17..41 x 0..23 and 29..47 x 0..23 after clipping.
    tree->traverseTreeFBRecovery(tree->root, 1);
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].fullWidth, 25);
    EXPECT_EQ(calls[0].roiWidth, 25);
    EXPECT_EQ(calls[0].fullHeight, 24);
    EXPECT_EQ(calls[0].roiHeight, 24);
    EXPECT_EQ(calls[0].alphaOffset, 17);
    EXPECT_EQ(calls[0].dstOffset, 4 * 17);
    EXPECT_EQ(calls[1].fullWidth, 19);
    EXPECT_EQ(calls[1].alphaOffset, 29);
    EXPECT_EQ(calls[1].dstOffset, 4 * 29);
    // The source is the three planes and the known map interleaved, from the grown corner.
    EXPECT_EQ(calls[0].srcFirst[0], im.planes[0].at(17, 0));
    EXPECT_EQ(calls[0].srcFirst[1], im.planes[1].at(17, 0));
    EXPECT_EQ(calls[0].srcFirst[2], im.planes[2].at(17, 0));
    EXPECT_EQ(calls[0].srcFirst[3], 255);

    // Pass 0: the leaf (0..23) x (0..23), margins 12: grown to 0..35 x 0..23.
    calls.clear();
    tree->traverseTreeFBRecovery(tree->root, 0);
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].fullWidth, 36);
    EXPECT_EQ(calls[0].fullHeight, 24);
    EXPECT_EQ(calls[0].alphaOffset, 0);
    g_calls = nullptr;
}

}  // namespace
