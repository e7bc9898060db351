// Medians and the two stages of the separable filter.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "image/primitives.h"
#include "plane_fixture.h"

namespace {

using namespace qx::prim;
using qx::test::Plane;

template <typename T>
T refMedian(std::vector<T> v) {
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

template <typename T>
void checkCross(int lo, int hi) {
    for (int code : {33, 55}) {
        const int r = code == 33 ? 1 : 2;
        Plane<T> s(70, 6, 1, 2), d(70, 6);
        s.fillRandom(code + lo, lo, hi);
        int st;
        if constexpr (sizeof(T) == 1)
            st = medianCross_8u_C1(s.data(), s.step(), d.data(), d.step(), d.size(), code);
        else
            st = medianCross_16s_C1(s.data(), s.step(), d.data(), d.step(), d.size(), code);
        ASSERT_EQ(st, kOk);
        int wrong = 0;
        for (int y = 0; y < 6; ++y)
            for (int x = 0; x < 70; ++x) {
                std::vector<T> v;
                for (int k = -r; k <= r; ++k) {
                    v.push_back(s(x + k, y));
                    if (k) v.push_back(s(x, y + k));
                }
                wrong += d(x, y) != refMedian(v);
            }
        EXPECT_EQ(wrong, 0) << code;
        EXPECT_TRUE(d.outsideUnchanged());
    }
}

TEST(Median, CrossShapedOverBytesAndShorts) {
    checkCross<uint8_t>(0, 255);
    checkCross<int16_t>(-32768, 32767);
    checkCross<int16_t>(-3, 3);  // many ties
    Plane<uint8_t> s(4, 4, 1, 2), d(4, 4);
    EXPECT_EQ(medianCross_8u_C1(s.data(), s.step(), d.data(), d.step(), d.size(), 77), kBadArg);
    EXPECT_TRUE(d.unchanged());
}

TEST(Median, SquareWindowWithAnchor) {
    for (auto [ms, anchor] : {std::pair{Size{7, 7}, Point{3, 3}}, std::pair{Size{4, 3}, Point{0, 2}}}) {
        Plane<int16_t> s(19, 8, 1, 7), d(19, 8);
        s.fillRandom(ms.width, -500, 500);
        ASSERT_EQ(medianSquare_16s_C1(s.data(), s.step(), d.data(), d.step(), d.size(), ms, anchor), kOk);
        for (int y = 0; y < 8; ++y)
            for (int x = 0; x < 19; ++x) {
                std::vector<int16_t> v;
                for (int j = 0; j < ms.height; ++j)
                    for (int i = 0; i < ms.width; ++i) v.push_back(s(x - anchor.x + i, y - anchor.y + j));
                ASSERT_EQ(d(x, y), refMedian(v)) << x << "," << y;
            }
        EXPECT_TRUE(d.outsideUnchanged());
    }
}

// Border positions worked out by walking outwards, independent of the modular arithmetic of
// the implementation.
int refBorder(int i, int w, int mode) {
    if (mode == 1) return std::clamp(i, 0, w - 1);
    if (mode == 2) {
        while (i < 0) i += w;
        while (i >= w) i -= w;
        return i;
    }
    // mirror: -1 -> 1, w -> w - 2, bouncing between the edges
    if (w == 1) return 0;
    while (i < 0 || i >= w) i = i < 0 ? -i : 2 * (w - 1) - i;
    return i;
}

TEST(SepFilter, RowStageBorderModes) {
    const int w = 5, rows = 3;
    const float k[4] = {1.0f, 10.0f, 100.0f, 1000.0f};  // distinct powers keep each term visible
    for (int mode : {0, 1, 2, 4}) {
        for (int anchor : {0, 2, 3}) {
            std::vector<float> src(rows * w), dst(rows * (w + 2), -7.0f);
            for (int i = 0; i < rows * w; ++i) src[i] = float(i % 7 + 1);
            std::vector<const float*> in(rows);
            std::vector<float*> out(rows);
            for (int r = 0; r < rows; ++r) in[r] = &src[r * w], out[r] = &dst[r * (w + 2)];
            int bytes = 0;
            ASSERT_EQ(sepFilterRowBufferSize({w, rows}, 4, 4, &bytes), kOk);
            std::vector<uint8_t> buf(bytes);
            ASSERT_EQ(sepFilterRow_32f_C1(in.data(), out.data(), w, rows, k, 4, anchor, mode, 0.5f, buf.data()), kOk);
            for (int r = 0; r < rows; ++r) {
                for (int x = 0; x < w; ++x) {
                    double v = 0;
                    for (int i = 0; i < 4; ++i) {
                        const int at = x + anchor - i;
                        const double s = (at >= 0 && at < w) ? in[r][at]
                                         : mode == 0       ? 0.5
                                                           : in[r][refBorder(at, w, mode)];
                        v += k[i] * s;
                    }
                    EXPECT_EQ(out[r][x], float(v)) << "mode " << mode << " anchor " << anchor << " x " << x;
                }
                EXPECT_EQ(out[r][w], -7.0f);  // pad after the row
                EXPECT_EQ(out[r][w + 1], -7.0f);
            }
        }
    }
}

TEST(SepFilter, ShortStagesDivideToNearestEven) {
    // Row stage on one row with kernel {1}: the divisor alone decides.
    const int16_t row[6] = {5, 7, -5, -7, 3, 32767};
    const int16_t one[1] = {1};
    int16_t out[8];
    std::fill(out, out + 8, int16_t(99));
    const int16_t* in[1] = {row};
    int16_t* outs[1] = {out};
    int bytes = 0;
    ASSERT_EQ(sepFilterRowBufferSize({6, 1}, 1, 2, &bytes), kOk);
    std::vector<uint8_t> buf(bytes);
    ASSERT_EQ(sepFilterRow_16s_C1(in, outs, 6, 1, one, 1, 0, 1, 0, 2, buf.data()), kOk);
    const int16_t expect[6] = {2, 4, -2, -4, 2, 16384};  // 2.5, 3.5, -2.5, -3.5, 1.5, 16383.5
    for (int i = 0; i < 6; ++i) EXPECT_EQ(out[i], expect[i]) << i;
    EXPECT_EQ(out[6], 99);
    // Saturation: 32767 * 3 / 1.
    const int16_t three[1] = {3};
    ASSERT_EQ(sepFilterRow_16s_C1(in, outs, 6, 1, three, 1, 0, 1, 0, 1, buf.data()), kOk);
    EXPECT_EQ(out[5], 32767);
    EXPECT_EQ(out[3], -21);

    // Column stage: dst row y = sum_i kernel[n-1-i] * rows[y + i], divided.
    const int16_t r0[3] = {1, 2, 3}, r1[3] = {10, 20, 30}, r2[3] = {100, 200, 300};
    const int16_t* rows[4] = {r0, r1, r2, r0};
    const int16_t kc[3] = {1, 2, 4};  // rows[y] weighs 4, rows[y+1] 2, rows[y+2] 1
    Plane<int16_t> d(3, 2);
    ASSERT_EQ(sepFilterColumnBufferSize({3, 2}, 3, 2, &bytes), kOk);
    std::vector<uint8_t> cbuf(bytes);
    ASSERT_EQ(sepFilterColumn_16s_C1(rows, d.data(), d.step(), d.size(), kc, 3, 4, cbuf.data()), kOk);
    // Row 0: 124 / 4, 248 / 4, 372 / 4. Row 1: 241 / 4 = 60.25, 482 / 4 = 120.5 (a tie, to
    // even), 723 / 4 = 180.75.
    const int columns[2][3] = {{31, 62, 93}, {60, 120, 181}};
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 3; ++x) EXPECT_EQ(d(x, y), columns[y][x]) << x << "," << y;
    EXPECT_TRUE(d.outsideUnchanged());
}

TEST(SepFilter, FloatColumnStageAndRefusals) {
    const float r0[2] = {1, 2}, r1[2] = {3, 4}, r2[2] = {5, 6};
    const float* rows[3] = {r0, r1, r2};
    const float k[2] = {0.5f, 2.0f};
    Plane<float> d(2, 2);
    int bytes = 0;
    ASSERT_EQ(sepFilterColumnBufferSize({2, 2}, 2, 4, &bytes), kOk);
    std::vector<uint8_t> buf(bytes);
    ASSERT_EQ(sepFilterColumn_32f_C1(rows, d.data(), d.step(), d.size(), k, 2, buf.data()), kOk);
    EXPECT_EQ(d(0, 0), 2.0f * 1 + 0.5f * 3);
    EXPECT_EQ(d(1, 1), 2.0f * 4 + 0.5f * 6);
    EXPECT_TRUE(d.outsideUnchanged());

    float out[2] = {9, 9};
    float* outs[1] = {out};
    const float* in[1] = {r0};
    ASSERT_EQ(sepFilterRowBufferSize({2, 1}, 2, 4, &bytes), kOk);
    buf.resize(bytes);
    EXPECT_EQ(sepFilterRow_32f_C1(in, outs, 2, 1, k, 2, 0, 7, 0, buf.data()), kBadArg);
    EXPECT_EQ(sepFilterRow_32f_C1(in, outs, 2, 1, k, 2, 2, 1, 0, buf.data()), kBadArg);
    EXPECT_EQ(out[0], 9);
    EXPECT_EQ(sepFilterRowBufferSize({2, 1}, 2, 3, &bytes), kBadArg);
    const int16_t* in16[1] = {nullptr};
    int16_t o16[2];
    int16_t* outs16[1] = {o16};
    const int16_t k16[1] = {1};
    EXPECT_EQ(sepFilterRow_16s_C1(in16, outs16, 2, 1, k16, 1, 0, 1, 0, 1, buf.data()), kNullPtr);
}

}  // namespace
