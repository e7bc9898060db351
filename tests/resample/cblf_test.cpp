#include "resample/cblf.h"

#include <gtest/gtest.h>
#include <omp.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <random>
#include <vector>

#include "planes.h"

namespace qx {
namespace {

using test::Plane8;

// The planes of one call: `alpha` planes to filter and three reference planes.
struct BlfSetup {
    std::vector<Plane8> alpha;
    std::vector<Plane8> refs;
    std::vector<unsigned char*> alphaPtrs, refPtrs;
    BlfSetup(int w, int h, int planeCount, int refCount)
        : alpha(planeCount, Plane8(w, h)), refs(refCount, Plane8(w, h)) {}
    int run(int radius, float sigmaRange = 10.0f, float sigmaSpace = 0.825f,
            float epsilon = 1e-6f) {
        alphaPtrs.clear();
        refPtrs.clear();
        for (auto& a : alpha) alphaPtrs.push_back(a.data());
        for (auto& r : refs) refPtrs.push_back(r.data());
        return CBLFRGB(alpha[0].width(), alpha[0].height(), alphaPtrs.data(),
                       alpha[0].stepBytes(), static_cast<int>(alpha.size()), refPtrs.data(),
                       refs[0].stepBytes(), static_cast<int>(refs.size()), radius, sigmaRange,
                       sigmaSpace, epsilon);
    }
    void setRef(int x, int y, int v) {
        for (auto& r : refs) r.at(x, y) = static_cast<uint8_t>(v);
    }
};

TEST(Cblf, RefusedArgumentsLeaveThePlanesUntouched) {
    std::mt19937 rng(3);
    BlfSetup s(9, 9, 1, 3);
    s.alpha[0].fillRandom(rng, 0, 255);
    for (auto& r : s.refs) r.fillRandom(rng, 0, 255);
    const Plane8 before = s.alpha[0];
    EXPECT_EQ(s.run(0), 0);
    EXPECT_EQ(s.run(4), 0);
    EXPECT_EQ(s.run(-1), 0);
    EXPECT_TRUE(test::samePixels(s.alpha[0], before));

    // 2r + 1 pixels in either direction leave an interior of 1: refused.
    for (auto [w, h, r] : {std::tuple{3, 9, 1}, std::tuple{9, 3, 1}, std::tuple{7, 12, 3},
                           std::tuple{12, 5, 2}}) {
        BlfSetup t(w, h, 1, 3);
        t.alpha[0].fillRandom(rng, 0, 255);
        const Plane8 keep = t.alpha[0];
        EXPECT_EQ(t.run(r), 0) << w << "x" << h << " r" << r;
        EXPECT_TRUE(test::samePixels(t.alpha[0], keep));
    }
    // One more pixel is enough.
    BlfSetup ok(4, 4, 1, 3);
    EXPECT_EQ(ok.run(1), 1);
    EXPECT_TRUE(ok.alpha[0].padIntact());

    // Null lists and entries, counts below 1, steps shorter than a row.
    unsigned char* none[3] = {nullptr, nullptr, nullptr};
    unsigned char* one[1] = {s.alpha[0].data()};
    unsigned char* refs[3] = {s.refs[0].data(), s.refs[1].data(), s.refs[2].data()};
    const int st = s.alpha[0].stepBytes();
    EXPECT_EQ(CBLFRGB(9, 9, nullptr, st, 1, refs, st, 3, 1, 10.0f, 0.825f, 1e-6f), 0);
    EXPECT_EQ(CBLFRGB(9, 9, one, st, 1, none, st, 3, 1, 10.0f, 0.825f, 1e-6f), 0);
    EXPECT_EQ(CBLFRGB(9, 9, one, st, 0, refs, st, 3, 1, 10.0f, 0.825f, 1e-6f), 0);
    EXPECT_EQ(CBLFRGB(9, 9, one, st, 1, refs, st, 0, 1, 10.0f, 0.825f, 1e-6f), 0);
    EXPECT_EQ(CBLFRGB(9, 9, one, 8, 1, refs, st, 3, 1, 10.0f, 0.825f, 1e-6f), 0);
    EXPECT_TRUE(test::samePixels(s.alpha[0], before));
}

TEST(Cblf, FailedAllocationThrowsAndLeavesThePlanes) {
    std::mt19937 rng(9);
    BlfSetup s(9, 9, 1, 3);
    s.alpha[0].fillRandom(rng, 0, 255);
    const Plane8 before = s.alpha[0];
    prim::failNextAllocations(2);  // the aligned and the fallback allocator of the first image
    int thrown = 0;
    try {
        s.run(1);
    } catch (int e) {
        thrown = e;
    }
    prim::failNextAllocations(0);
    EXPECT_EQ(thrown, 102);
    EXPECT_TRUE(test::samePixels(s.alpha[0], before));
}

TEST(Cblf, CentreKeepsItsValueWhenEveryNeighbourIsFarInColour) {
    // Reference 0 at (2, 2) and 255 around it: every distance saturates and every weight of
    // the window is 0, so only the centre's own tiny term is left.
    std::mt19937 rng(8);
    BlfSetup s(5, 5, 2, 3);
    for (auto& a : s.alpha) a.fillRandom(rng, 0, 255);
    for (auto& r : s.refs) r = Plane8(5, 5, 255);
    s.setRef(2, 2, 0);
    const uint8_t c0 = s.alpha[0].at(2, 2), c1 = s.alpha[1].at(2, 2);
    ASSERT_EQ(s.run(1), 1);
    EXPECT_EQ(s.alpha[0].at(2, 2), c0);
    EXPECT_EQ(s.alpha[1].at(2, 2), c1);
}

TEST(Cblf, IsolatedOutlierTakesItsNeighboursMean) {
    // Like colours everywhere: the range weight is 255 for all. The spatial weights are
    // trunc(128 e^{-1/1.36125}) = 61 on the sides and trunc(128 e^{-2/1.36125}) = 29 on the
    // diagonals; 255 * 61 / 128 = 121.5 -> 122 and 255 * 29 / 128 = 57.8 -> 58.
    // (4 * 122 * 100 + 4 * 58 * 60) / (4 * 122 + 4 * 58) = 62720 / 720 = 87.1.
    BlfSetup s(5, 5, 1, 3);
    for (auto& r : s.refs) r = Plane8(5, 5, 128);
    Plane8& a = s.alpha[0];
    for (int y = 1; y <= 3; ++y)
        for (int x = 1; x <= 3; ++x) a.at(x, y) = ((x + y) % 2) ? 100 : 60;
    a.at(2, 2) = 250;
    ASSERT_EQ(s.run(1), 1);
    EXPECT_EQ(a.at(2, 2), 87);
}

// The filter written pixel by pixel, in double precision.
Plane8 referenceBlf(const Plane8& alpha, const std::vector<Plane8>& refs, int radius,
                    double sigmaRange, float sigmaSpace, float epsilon) {
    Plane8 out = alpha;
    int range[256];
    for (int i = 0; i < 256; ++i)
        range[i] = static_cast<int>(255.0 * std::exp(-3.0 * (i / sigmaRange) * (i / sigmaRange)));
    const double c = static_cast<float>(epsilon * 255.0);
    for (int y = radius; y < alpha.height() - radius; ++y)
        for (int x = radius; x < alpha.width() - radius; ++x) {
            double num = c * alpha.at(x, y), den = c;
            for (int dy = -radius; dy <= radius; ++dy)
                for (int dx = -radius; dx <= radius; ++dx) {
                    if (dx == 0 && dy == 0) continue;
                    const float s = std::exp(-static_cast<float>(dx * dx + dy * dy) /
                                             (2.0f * sigmaSpace * sigmaSpace));
                    const int m = static_cast<int>(s * 128.0);
                    int d = 0;
                    for (const Plane8& r : refs) d += std::abs(r.at(x + dx, y + dy) - r.at(x, y));
                    const int prod = range[std::min(d, 255)] * m;
                    int w = prod >> 7;  // over 128, ties to even
                    const int rem = prod & 127;
                    if (rem > 64 || (rem == 64 && (w & 1))) ++w;
                    num += static_cast<double>(w) * alpha.at(x + dx, y + dy);
                    den += w;
                }
            out.at(x, y) = static_cast<uint8_t>(std::nearbyint(num / den));
        }
    return out;
}

TEST(Cblf, MatchesPerPixelReferenceWithinOneLevel) {
    std::mt19937 rng(77);
    for (int radius = 1; radius <= 3; ++radius) {
        for (float sigmaRange : {10.0f, 15.0f}) {
            const int w = 23, h = 17;
            BlfSetup s(w, h, 2, 3);
            for (auto& a : s.alpha) a.fillRandom(rng, 0, 255);
            // References from a few flat colour regions plus a little noise, so weights span
            // the whole table.
            std::uniform_int_distribution<int> noise(-4, 4);
            for (int i = 0; i < 3; ++i)
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x) {
                        const int base = ((x / 5 + y / 4) % 3) * (20 + 10 * i);
                        s.refs[i].at(x, y) = static_cast<uint8_t>(std::clamp(base + noise(rng), 0, 255));
                    }
            const Plane8 ref0 = referenceBlf(s.alpha[0], s.refs, radius, sigmaRange, 0.825f, 1e-6f);
            const Plane8 ref1 = referenceBlf(s.alpha[1], s.refs, radius, sigmaRange, 0.825f, 1e-6f);
            const std::vector<Plane8> refsBefore = s.refs;
            ASSERT_EQ(s.run(radius, sigmaRange), 1);
            int off = 0;
            for (int p = 0; p < 2; ++p) {
                const Plane8& want = p ? ref1 : ref0;
                for (int y = 0; y < h; ++y)
                    for (int x = 0; x < w; ++x) {
                        const int got = s.alpha[p].at(x, y), exp = want.at(x, y);
                        const bool border = x < radius || y < radius || x >= w - radius ||
                                            y >= h - radius;
                        if (border) {  // the reference keeps the input there
                            EXPECT_EQ(got, exp) << "border " << x << "," << y;
                            continue;
                        }
                        EXPECT_LE(std::abs(got - exp), 1) << "r" << radius << " " << x << "," << y;
                        off += got != exp;
                    }
                EXPECT_TRUE(s.alpha[p].padIntact());
            }
            for (int i = 0; i < 3; ++i) EXPECT_TRUE(test::samePixels(s.refs[i], refsBefore[i]));
            // Rounding differences are rare, not the rule.
            EXPECT_LE(off, 2 * (w - 2 * radius) * (h - 2 * radius) / 50) << "r" << radius;
        }
    }
}

// The window rows add into the shared sums in row order: one thread and several give the same
// bytes, run after run.
TEST(Cblf, SameResultWithAnyNumberOfThreads) {
    std::mt19937 rng(5);
    const int w = 61, h = 47;
    for (int radius = 1; radius <= 3; ++radius) {
        BlfSetup base(w, h, 1, 3);
        base.alpha[0].fillRandom(rng, 0, 255);
        for (auto& r : base.refs) r.fillRandom(rng, 0, 255);
        std::vector<Plane8> results;
        for (int threads : {1, 2, 3, 2}) {
            BlfSetup s = base;
            const int saved = omp_get_max_threads();
            omp_set_num_threads(threads);
            EXPECT_EQ(s.run(radius, 15.0f), 1);
            omp_set_num_threads(saved);
            results.push_back(s.alpha[0]);
        }
        for (size_t k = 1; k < results.size(); ++k)
            EXPECT_TRUE(test::samePixels(results[0], results[k])) << "radius " << radius << " run " << k;
    }
}

}  // namespace
}  // namespace qx
