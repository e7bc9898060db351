#include "resample/upsample2x.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <deque>
#include <ostream>
#include <random>
#include <vector>

#include "planes.h"

namespace qx {
namespace {

using test::Plane32f;
using test::Plane8;

// ---- Phase extraction and insertion ---------------------------------------------------------

TEST(HalfImage, GetTakesEachPhaseAndDropsTheOddLastColumn) {
    // 5 x 4 source: the half size is 2 x 2, the source's last column never read.
    Plane8 src(5, 4);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) src.at(x, y) = static_cast<uint8_t>(10 * y + x);
    GIMG<unsigned char> s = src.view();
    const uint8_t expected[4][2][2] = {
        {{0, 2}, {20, 22}}, {{1, 3}, {21, 23}}, {{10, 12}, {30, 32}}, {{11, 13}, {31, 33}}};
    for (int ph = 0; ph < 4; ++ph) {
        Plane8 dst(3, 3, 200);  // larger than the half size: the rest stays
        GIMG<unsigned char> d = dst.view();
        EXPECT_EQ(getHalfImage(s, ph & 1, ph >> 1, d), 1);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 3; ++x) {
                const int want = (x < 2 && y < 2) ? expected[ph][y][x] : 200;
                EXPECT_EQ(dst.at(x, y), want) << "phase " << ph << " at " << x << "," << y;
            }
        EXPECT_TRUE(dst.padIntact());
    }
}

TEST(HalfImage, GetIsLimitedByTheSmallerDestination) {
    Plane8 src(8, 8);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) src.at(x, y) = static_cast<uint8_t>(8 * y + x);
    Plane8 dst(2, 3);
    GIMG<unsigned char> s = src.view(), d = dst.view();
    EXPECT_EQ(getHalfImage(s, 1, 0, d), 1);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 2; ++x) EXPECT_EQ(dst.at(x, y), 8 * (2 * y) + 2 * x + 1);
    EXPECT_TRUE(dst.padIntact());
}

TEST(HalfImage, FloatFormsMoveValuesUnchanged) {
    Plane32f big(7, 5, -1.0f);
    Plane32f small(3, 2);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) small.at(x, y) = 0.25f + x - 3.5f * y;
    GIMG<float> s = small.view(), b = big.view();
    EXPECT_EQ(putHalfImage(s, b, 1, 1), 1);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) {
            const bool hit = (x & 1) && (y & 1) && x / 2 < 3 && y / 2 < 2;
            EXPECT_EQ(big.at(x, y), hit ? small.at(x / 2, y / 2) : -1.0f) << x << "," << y;
        }
    EXPECT_TRUE(big.padIntact());

    Plane32f back(3, 2, 9.0f);
    GIMG<float> k = back.view();
    EXPECT_EQ(getHalfImage(b, 1, 1, k), 1);
    EXPECT_TRUE(test::samePixels(back, small));
    EXPECT_TRUE(back.padIntact());
}

TEST(HalfImage, PutWritesOnlyItsPhase) {
    Plane8 small(3, 3);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x) small.at(x, y) = static_cast<uint8_t>(1 + x + 3 * y);
    // 7 x 5 destination: 3 x 2 pixels of the source fit at phase (0, 0).
    Plane8 big(7, 5, 99);
    GIMG<unsigned char> s = small.view(), b = big.view();
    EXPECT_EQ(putHalfImage(s, b, 0, 0), 1);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) {
            const bool hit = x % 2 == 0 && y % 2 == 0 && x / 2 < 3 && y / 2 < 2;
            EXPECT_EQ(big.at(x, y), hit ? small.at(x / 2, y / 2) : 99) << x << "," << y;
        }
    EXPECT_TRUE(big.padIntact());
}

TEST(HalfImage, OriginThatWouldLeaveThePlaneIsRefused) {
    // At origin 2 a full-size source would reach one column past an even-width destination.
    Plane8 small(3, 3, 7);
    Plane8 big(6, 6, 0);
    GIMG<unsigned char> s = small.view(), b = big.view();
    EXPECT_EQ(putHalfImage(s, b, 2, 0), 0);
    EXPECT_EQ(putHalfImage(s, b, -1, 0), 0);
    EXPECT_EQ(getHalfImage(b, 0, 2, s), 0);
    for (int y = 0; y < 6; ++y)
        for (int x = 0; x < 6; ++x) EXPECT_EQ(big.at(x, y), 0);
    EXPECT_TRUE(big.padIntact());
    // A source one smaller fits at origin 2.
    s.width = 2;
    EXPECT_EQ(putHalfImage(s, b, 2, 1), 1);
    EXPECT_EQ(big.at(2, 1), 7);
    EXPECT_EQ(big.at(4, 5), 7);
    EXPECT_EQ(big.at(0, 1), 0);
}

// ---- Halving --------------------------------------------------------------------------------

TEST(Dnsample, PlainDecimationKeepsATrimapATrimap) {
    std::mt19937 rng(11);
    Plane8 src(9, 7);
    const uint8_t codes[3] = {0, 128, 255};
    for (int y = 0; y < 7; ++y)
        for (int x = 0; x < 9; ++x) src.at(x, y) = codes[rng() % 3];
    Plane8 dst(5, 4, 17);  // half size 4 x 3; the last column and row stay
    GIMG<unsigned char> s = src.view(), d = dst.view();
    EXPECT_EQ(CDnsampleQX2X(s, d, 0), 1);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) {
            if (x < 4 && y < 3)
                EXPECT_EQ(dst.at(x, y), src.at(2 * x, 2 * y)) << x << "," << y;
            else
                EXPECT_EQ(dst.at(x, y), 17) << x << "," << y;
        }
    EXPECT_TRUE(dst.padIntact());
}

TEST(Dnsample, FilteredByHandOnASmallImage) {
    // 5 x 5 zeros with 160 at (2, 1) and 77 on the left border at (0, 2). The output reads the
    // smoothed pixels (0,0), (2,0), (0,2), (2,2): the first three lie on the copied border,
    // (2, 2) sees the 160 with weight 2 / 16.
    Plane8 src(5, 5, 0);
    src.at(2, 1) = 160;
    src.at(0, 2) = 77;
    Plane8 dst(2, 2, 55);
    GIMG<unsigned char> s = src.view(), d = dst.view();
    EXPECT_EQ(CDnsampleQX2X(s, d, 1), 1);
    EXPECT_EQ(dst.at(0, 0), 0);
    EXPECT_EQ(dst.at(1, 0), 0);  // (2, 0) is border: the 160 below it does not reach it
    EXPECT_EQ(dst.at(0, 1), 77);
    EXPECT_EQ(dst.at(1, 1), 20);
    EXPECT_TRUE(dst.padIntact());
}

// Gaussian 1 2 1 / 2 4 2 / 1 2 1 over the interior, division by 16 with ties to even; the
// outer frame as it is; then every second pixel.
std::vector<uint8_t> referenceFilteredHalf(const Plane8& src, int dw, int dh) {
    const int w = src.width(), h = src.height();
    std::vector<uint8_t> out(static_cast<size_t>(dw) * dh);
    auto smoothed = [&](int x, int y) -> int {
        if (x == 0 || y == 0 || x == w - 1 || y == h - 1) return src.at(x, y);
        const int k[3] = {1, 2, 1};
        int v = 0;
        for (int j = -1; j <= 1; ++j)
            for (int i = -1; i <= 1; ++i) v += k[i + 1] * k[j + 1] * src.at(x + i, y + j);
        int q = v / 16;
        const int rem = v % 16;
        if (rem > 8 || (rem == 8 && (q & 1))) ++q;
        return q;
    };
    for (int y = 0; y < dh; ++y)
        for (int x = 0; x < dw; ++x) out[y * dw + x] = static_cast<uint8_t>(smoothed(2 * x, 2 * y));
    return out;
}

TEST(Dnsample, FilteredMatchesPerPixelReferenceOnOddAndEvenSizes) {
    std::mt19937 rng(5);
    for (auto [w, h] : {std::pair{9, 7}, std::pair{12, 10}, std::pair{3, 3}, std::pair{2, 5}}) {
        Plane8 src(w, h);
        src.fillRandom(rng, 0, 255);
        const Plane8 before = src;
        Plane8 dst(w / 2, h / 2, 1);
        GIMG<unsigned char> s = src.view(), d = dst.view();
        EXPECT_EQ(CDnsampleQX2X(s, d, 1), 1);
        const auto ref = referenceFilteredHalf(src, w / 2, h / 2);
        for (int y = 0; y < h / 2; ++y)
            for (int x = 0; x < w / 2; ++x)
                EXPECT_EQ(dst.at(x, y), ref[y * (w / 2) + x]) << w << "x" << h << " " << x << "," << y;
        EXPECT_TRUE(dst.padIntact());
        EXPECT_TRUE(test::samePixels(src, before));  // the source is only read
    }
}

// ---- Guided doubling ------------------------------------------------------------------------

TEST(UpsampleWeights, TableIsLinearInTheDistanceAndNeverZero) {
    uint8_t t[256];
    makeUpsampleWeightTable(10.0f, t);
    EXPECT_EQ(t[0], 255);
    EXPECT_EQ(t[1], 242);   // 255 * e^-0.05 = 242.56
    EXPECT_EQ(t[20], 93);   // 255 * e^-1 = 93.81
    EXPECT_EQ(t[60], 12);   // 255 * e^-3 = 12.70
    EXPECT_EQ(t[100], 1);   // 255 * e^-5 = 1.72, truncated
    EXPECT_EQ(t[110], 1);   // 1.04 is below 1.4: raised to 1
    EXPECT_EQ(t[255], 1);   // far below 1.4
    for (int i = 1; i < 256; ++i) {
        EXPECT_GE(t[i], 1);
        EXPECT_LE(t[i], t[i - 1]);
    }
    makeUpsampleWeightTable(9.0f, t);
    EXPECT_EQ(t[9], 154);  // 255 * e^-0.5 = 154.66
}

// The guided doubler written pixel by pixel in full-resolution coordinates.
struct UpsampleReference {
    std::vector<Plane8*> small;
    std::vector<Plane8*> guide;
    float sigma;

    // Expected content of each big plane, starting from what it held before.
    std::vector<std::vector<int>> run(const std::vector<Plane8*>& big) const {
        const int W = big[0]->width(), H = big[0]->height();
        const int hw = std::min(W / 2, small[0]->width());
        const int hh = std::min(H / 2, small[0]->height());
        int table[256];
        for (int i = 0; i < 256; ++i) {
            double v = 255.0 * std::exp(-static_cast<double>(i) / (2.0 * sigma));
            table[i] = v < 1.4 ? 1 : static_cast<int>(v);
        }
        auto weight = [&](int x, int y, int nx, int ny) {
            int d = 0;
            for (const Plane8* g : guide) d += std::abs(g->at(x, y) - g->at(nx, ny));
            return table[std::min(d, 255)];
        };
        auto mean = [&](int x, int y, const int (&nbx)[4], const int (&nby)[4],
                        const int (&val)[4]) {
            float sw = 0.0f, acc = 0.0f;
            for (int n = 0; n < 4; ++n) {
                const int w = weight(x, y, nbx[n], nby[n]);
                sw += static_cast<float>(w);
                acc += static_cast<float>(w * val[n]);
            }
            const float v = acc * (1.0f / sw);
            return static_cast<int>(std::nearbyint(v));  // ties to even
        };

        std::vector<std::vector<int>> out;
        for (size_t p = 0; p < big.size(); ++p) {
            std::vector<int> e(static_cast<size_t>(W) * H);
            for (int y = 0; y < H; ++y)
                for (int x = 0; x < W; ++x) e[y * W + x] = big[p]->at(x, y);
            auto S = [&](int x, int y) { return static_cast<int>(small[p]->at(x, y)); };
            for (int y = 0; y < hh; ++y)
                for (int x = 0; x < hw; ++x) e[2 * y * W + 2 * x] = S(x, y);
            // Centres; those of the last half row and column are never estimated and count as 0.
            std::vector<int> cent(static_cast<size_t>(hw) * hh, 0);
            for (int y = 0; y + 1 < hh; ++y)
                for (int x = 0; x + 1 < hw; ++x) {
                    const int X = 2 * x + 1, Y = 2 * y + 1;
                    const int v = mean(X, Y, {X - 1, X + 1, X - 1, X + 1}, {Y - 1, Y - 1, Y + 1, Y + 1},
                                       {S(x, y), S(x + 1, y), S(x, y + 1), S(x + 1, y + 1)});
                    cent[y * hw + x] = v;
                    e[Y * W + X] = v;
                }
            auto Cn = [&](int x, int y) { return cent[y * hw + x]; };
            for (int y = 0; y + 1 < hh; ++y)
                for (int x = 0; x + 1 < hw; ++x) {
                    // horizontal gap (2x+1, 2y+2)
                    int X = 2 * x + 1, Y = 2 * y + 2;
                    e[Y * W + X] = mean(X, Y, {X - 1, X + 1, X, X}, {Y, Y, Y - 1, Y + 1},
                                        {S(x, y + 1), S(x + 1, y + 1), Cn(x, y), Cn(x, y + 1)});
                }
            for (int y = 0; y + 1 < hh; ++y)
                for (int x = 0; x + 1 < hw; ++x) {
                    // vertical gap (2x+2, 2y+1)
                    int X = 2 * x + 2, Y = 2 * y + 1;
                    e[Y * W + X] = mean(X, Y, {X - 1, X + 1, X, X}, {Y, Y, Y - 1, Y + 1},
                                        {Cn(x, y), Cn(x + 1, y), S(x + 1, y), S(x + 1, y + 1)});
                }
            out.push_back(std::move(e));
        }
        return out;
    }
};

struct UpsampleCase {
    int bigW, bigH, smallW, smallH, planes, guides;
    float sigma;
};

void PrintTo(const UpsampleCase& c, std::ostream* os) {
    *os << c.bigW << "x" << c.bigH << " from " << c.smallW << "x" << c.smallH << ", " << c.planes
        << " planes, " << c.guides << " guides, sigma " << c.sigma;
}

class UpsampleAgainstReference : public ::testing::TestWithParam<UpsampleCase> {};

TEST_P(UpsampleAgainstReference, MatchesPerPixelReference) {
    const UpsampleCase c = GetParam();
    std::mt19937 rng(1234 + c.bigW * 7 + c.guides);
    std::vector<Plane8> guides, smalls, bigs;
    guides.reserve(c.guides);
    smalls.reserve(c.planes);
    bigs.reserve(c.planes);
    for (int g = 0; g < c.guides; ++g) {
        guides.emplace_back(c.bigW, c.bigH);
        // Narrow value range so that distances fall all over the weight table.
        guides.back().fillRandom(rng, 40, 40 + 30 * (g + 1));
    }
    for (int p = 0; p < c.planes; ++p) {
        smalls.emplace_back(c.smallW, c.smallH);
        smalls.back().fillRandom(rng, 0, 255);
        bigs.emplace_back(c.bigW, c.bigH);
        bigs.back().fillRandom(rng, 0, 255);  // what the unestimated pixels must keep
    }
    UpsampleReference ref;
    ref.sigma = c.sigma;
    std::vector<Plane8*> bigPtrs;
    for (auto& s : smalls) ref.small.push_back(&s);
    for (auto& g : guides) ref.guide.push_back(&g);
    for (auto& b : bigs) bigPtrs.push_back(&b);
    const auto expected = ref.run(bigPtrs);

    std::deque<GIMG<unsigned char>> sv, bv, gv;  // images cannot move: no vector
    std::vector<GIMG<unsigned char>*> sp, bp, gp;
    for (auto& s : smalls) sp.push_back(&sv.emplace_back(s.width(), s.height(), s.data(), s.stepBytes()));
    for (auto& b : bigs) bp.push_back(&bv.emplace_back(b.width(), b.height(), b.data(), b.stepBytes()));
    for (auto& g : guides) gp.push_back(&gv.emplace_back(g.width(), g.height(), g.data(), g.stepBytes()));
    const std::vector<Plane8> guidesBefore = guides, smallsBefore = smalls;

    ASSERT_EQ(CUpSampleQX2X(sp.data(), bp.data(), c.planes, gp.data(), c.guides, c.sigma), 1);

    for (int p = 0; p < c.planes; ++p) {
        int mismatches = 0;
        for (int y = 0; y < c.bigH; ++y)
            for (int x = 0; x < c.bigW; ++x)
                if (bigs[p].at(x, y) != expected[p][y * c.bigW + x] && ++mismatches < 5)
                    ADD_FAILURE() << "plane " << p << " at " << x << "," << y << ": "
                                  << int(bigs[p].at(x, y)) << " != " << expected[p][y * c.bigW + x];
        EXPECT_EQ(mismatches, 0);
        EXPECT_TRUE(bigs[p].padIntact());
        EXPECT_TRUE(test::samePixels(smalls[p], smallsBefore[p]));
    }
    for (int g = 0; g < c.guides; ++g) EXPECT_TRUE(test::samePixels(guides[g], guidesBefore[g]));
}

INSTANTIATE_TEST_SUITE_P(
    Sizes, UpsampleAgainstReference,
    ::testing::Values(UpsampleCase{12, 10, 6, 5, 1, 3, 10.0f},  // even, exact half
                      UpsampleCase{13, 11, 6, 5, 2, 3, 10.0f},  // odd big, two planes
                      UpsampleCase{12, 10, 8, 7, 1, 3, 9.0f},   // small larger than the half
                      UpsampleCase{12, 10, 4, 3, 1, 3, 10.0f},  // small smaller than the half
                      UpsampleCase{10, 12, 5, 6, 1, 4, 10.0f},  // four guides
                      UpsampleCase{9, 8, 4, 4, 1, 1, 10.0f},    // one guide
                      UpsampleCase{8, 8, 4, 4, 2, 0, 10.0f},    // no guide: equal weights
                      UpsampleCase{5, 5, 2, 2, 1, 3, 10.0f}));  // a single centre

// A 4 x 4 target: one centre (1, 1) from the even pixels (0,0), (2,0), (0,2), (2,2).
struct OneCentre {
    Plane8 small{2, 2, 0};
    Plane8 big{4, 4, 0};
    std::vector<Plane8> guides = std::vector<Plane8>(3, Plane8(4, 4, 100));
    int run() {
        GIMG<unsigned char> s = small.view(), b = big.view();
        GIMG<unsigned char> g0 = guides[0].view(), g1 = guides[1].view(), g2 = guides[2].view();
        GIMG<unsigned char>* sp[1] = {&s};
        GIMG<unsigned char>* bp[1] = {&b};
        GIMG<unsigned char>* gp[3] = {&g0, &g1, &g2};
        return CUpSampleQX2X(sp, bp, 1, gp, 3, 10.0f);
    }
    void setGuide(int x, int y, int v) {
        for (auto& g : guides) g.at(x, y) = static_cast<uint8_t>(v);
    }
};

TEST(Upsample, EqualGuidesGiveTheMeanOfFourNeighbours) {
    OneCentre t;
    t.small.at(0, 0) = 10;
    t.small.at(1, 0) = 20;
    t.small.at(0, 1) = 30;
    t.small.at(1, 1) = 41;
    ASSERT_EQ(t.run(), 1);
    EXPECT_EQ(t.big.at(1, 1), 25);  // 101 / 4 = 25.25
    EXPECT_EQ(t.big.at(0, 0), 10);
    EXPECT_EQ(t.big.at(2, 2), 41);
}

TEST(Upsample, StrongColourDifferenceWeighsOneNotZero) {
    // Three neighbours at distance 3 x 20 = 60 (weight 12) hold 0; the fourth is at a
    // saturated distance (weight 1) and holds 255: 255 / 37 = 6.9.
    OneCentre t;
    t.setGuide(0, 0, 80);
    t.setGuide(2, 0, 80);
    t.setGuide(0, 2, 80);
    t.setGuide(2, 2, 0);
    t.small.at(1, 1) = 255;
    ASSERT_EQ(t.run(), 1);
    EXPECT_EQ(t.big.at(1, 1), 7);

    // All four far: equal weights of 1, so the plain mean and no division by zero.
    OneCentre f;
    f.setGuide(1, 1, 255);
    for (int y = 0; y < 4; y += 2)
        for (int x = 0; x < 4; x += 2) f.setGuide(x, y, 0);
    f.small.at(0, 0) = 10;
    f.small.at(1, 0) = 20;
    f.small.at(0, 1) = 30;
    f.small.at(1, 1) = 41;
    ASSERT_EQ(f.run(), 1);
    EXPECT_EQ(f.big.at(1, 1), 25);
}

TEST(Upsample, RefusalsWriteNothing) {
    Plane8 small(4, 4, 9), big(8, 8, 0), guide(8, 8, 50), tinyGuide(6, 8, 50);
    GIMG<unsigned char> s = small.view(), b = big.view(), g = guide.view(), tg = tinyGuide.view();
    GIMG<unsigned char>* sp[1] = {&s};
    GIMG<unsigned char>* bp[1] = {&b};
    GIMG<unsigned char>* gp[5] = {&g, &g, &g, &g, &g};
    EXPECT_EQ(CUpSampleQX2X(sp, bp, 1, gp, 5, 10.0f), 0);
    EXPECT_EQ(CUpSampleQX2X(sp, bp, 1, gp, -1, 10.0f), 0);
    GIMG<unsigned char>* nullPlane[1] = {nullptr};
    EXPECT_EQ(CUpSampleQX2X(nullPlane, bp, 1, gp, 3, 10.0f), 0);
    GIMG<unsigned char>* small_guide[1] = {&tg};
    EXPECT_EQ(CUpSampleQX2X(sp, bp, 1, small_guide, 1, 10.0f), 0);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) EXPECT_EQ(big.at(x, y), 0);
    EXPECT_TRUE(big.padIntact());
    // Four guides are accepted.
    EXPECT_EQ(CUpSampleQX2X(sp, bp, 1, gp, 4, 10.0f), 1);
    EXPECT_EQ(big.at(3, 3), 9);
}

TEST(Upsample, FailedWorkImageThrowsBeforeWritingAnything) {
    Plane8 small(4, 4, 9), big(8, 8, 0), guide(8, 8, 50);
    GIMG<unsigned char> s = small.view(), b = big.view(), g = guide.view();
    GIMG<unsigned char>* sp[1] = {&s};
    GIMG<unsigned char>* bp[1] = {&b};
    GIMG<unsigned char>* gp[1] = {&g};
    prim::failNextAllocations(2);  // the aligned and the fallback allocator of the first image
    int thrown = 0;
    try {
        CUpSampleQX2X(sp, bp, 1, gp, 1, 10.0f);
    } catch (int e) {
        thrown = e;
    }
    prim::failNextAllocations(0);
    EXPECT_EQ(thrown, 102);
    for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) EXPECT_EQ(big.at(x, y), 0);
}

TEST(Upsample, TooSmallForACentreOnlyPlacesTheEvenPixels) {
    Plane8 small(1, 1, 42), big(3, 3, 0), guide(3, 3, 0);
    GIMG<unsigned char> s = small.view(), b = big.view(), g = guide.view();
    GIMG<unsigned char>* sp[1] = {&s};
    GIMG<unsigned char>* bp[1] = {&b};
    GIMG<unsigned char>* gp[1] = {&g};
    EXPECT_EQ(CUpSampleQX2X(sp, bp, 1, gp, 1, 10.0f), 1);
    for (int y = 0; y < 3; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(big.at(x, y), (x == 0 && y == 0) ? 42 : 0);
}

}  // namespace
}  // namespace qx
