// Border routines on padded planes: replication against the clamped-coordinate rule, the
// three-byte smear, band copies and sets, and the extending copy. Nothing outside the region
// may change.
#include <gtest/gtest.h>

#include <algorithm>

#include "image/base_tools.h"
#include "plane_fixture.h"

namespace {

using qx::IMG;
using qx::test::Plane;

// A distinct value for every pixel and channel.
template <typename T>
void numbered(Plane<T>& p) {
    p.fill([](int x, int y, int c) { return 1 + x + 10 * y + 100 * c; });
}

// After replication pixel (x, y) holds the original at the coordinates clamped into the
// inner rectangle.
template <typename T>
void expectReplicated(const Plane<T>& p, int channels, int top, int bottom, int left, int right) {
    const int w = p.width(), h = p.height();
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < channels; ++c) {
                const int sx = std::clamp(x, std::max(left, 0), w - 1 - std::max(right, 0));
                const int sy = std::clamp(y, std::max(top, 0), h - 1 - std::max(bottom, 0));
                ASSERT_EQ(p(x, y, c), T(1 + sx + 10 * sy + 100 * c))
                    << x << "," << y << "," << c;
            }
}

TEST(Borders, ExtendBorderReplicatesEachSide) {
    struct Bands {
        int top, bottom, left, right;
    };
    for (Bands b : {Bands{1, 2, 2, 1}, Bands{0, 1, 0, 3}, Bands{2, 0, 1, 0}, Bands{0, 0, 0, 0}}) {
        Plane<uint8_t> p8(7, 5);
        numbered(p8);
        qx::extendBorder(p8.data(), p8.step(), p8.size(), b.top, b.bottom, b.left, b.right);
        expectReplicated(p8, 1, b.top, b.bottom, b.left, b.right);
        EXPECT_TRUE(p8.outsideUnchanged());

        Plane<uint32_t> p32(7, 5);
        numbered(p32);
        qx::extendBorder(p32.data(), p32.step(), p32.size(), b.top, b.bottom, b.left, b.right);
        expectReplicated(p32, 1, b.top, b.bottom, b.left, b.right);
        EXPECT_TRUE(p32.outsideUnchanged());

        // The image overloads take left, top, right, bottom.
        Plane<float> f3(7, 5, 3);
        numbered(f3);
        IMG<float, 3> v3(7, 5, f3.data(), f3.step());
        qx::imageExtendBorder(v3, b.left, b.top, b.right, b.bottom);
        expectReplicated(f3, 3, b.top, b.bottom, b.left, b.right);
        EXPECT_TRUE(f3.outsideUnchanged());

        Plane<float> f1(7, 5);
        numbered(f1);
        IMG<float, 1> v1(7, 5, f1.data(), f1.step());
        qx::imageExtendBorder(v1, b.left, b.top, b.right, b.bottom);
        expectReplicated(f1, 1, b.top, b.bottom, b.left, b.right);

        Plane<short> s1(7, 5);
        numbered(s1);
        IMG<short, 1> vs(7, 5, s1.data(), s1.step());
        qx::imageExtendBorder(vs, b.left, b.top, b.right, b.bottom);
        expectReplicated(s1, 1, b.top, b.bottom, b.left, b.right);

        Plane<uint8_t> b1(7, 5);
        numbered(b1);
        IMG<unsigned char, 1> vb(7, 5, b1.data(), b1.step());
        qx::imageExtendBorder(vb, b.left, b.top, b.right, b.bottom);
        expectReplicated(b1, 1, b.top, b.bottom, b.left, b.right);
        EXPECT_TRUE(b1.outsideUnchanged());
    }
    // A band reaching the far edge would read outside: nothing happens at all.
    Plane<uint8_t> p(4, 3);
    numbered(p);
    qx::extendBorder(p.data(), p.step(), p.size(), 1, 3, 0, 0);
    qx::extendBorder(p.data(), p.step(), p.size(), 0, 0, 4, 0);
    EXPECT_TRUE(p.unchanged());
}

TEST(Borders, ImageExtendBorderWorksOnTheCurrentRegion) {
    Plane<unsigned short> p(6, 5);
    numbered(p);
    IMG<unsigned short, 1> v(6, 5, p.data(), p.step());
    v.roiRect(1, 1, -1, -1);  // the inner 4 x 3 pixels
    qx::imageExtendBorder(v, 1, 1, 0, 0);
    EXPECT_EQ(p(1, 1), 1 + 2 + 20);  // from (2, 2)
    EXPECT_EQ(p(4, 1), 1 + 4 + 20);
    EXPECT_EQ(p(1, 3), 1 + 2 + 30);
    EXPECT_EQ(p(0, 0), 1);           // outside the region: untouched
    EXPECT_EQ(p(5, 4), 1 + 5 + 40);
}

TEST(Borders, ThreeByteColumnsKeepTheirSmear) {
    Plane<uint8_t> p(5, 2, 3);
    numbered(p);  // byte c of pixel x in row y: 1 + x + 10 y + 100 c
    qx::extendBorder3C(p.data(), p.step(), p.size(), 1, 0, 2, 2);
    // Rows: row 0 is a true copy of row 1. Then in each row the left pass writes the first
    // byte of pixel 2 into bytes 0 and 1 and its second and third bytes once each behind
    // them; the right pass does the same from byte 9 with pixel 2 again.
    for (int y = 0; y < 2; ++y) {
        const uint8_t a = 1 + 2 + 10, b = 101 + 2 + 10, c = 201 + 2 + 10;  // pixel 2 of row 1
        const uint8_t want[15] = {a, a, b, c, 101 + 1 + 10, 201 + 1 + 10,  // pixel 1: 2 bytes left
                                  a, b, c,                                 // pixel 2
                                  a, a, b, c, 101 + 4 + 10, 201 + 4 + 10};  // pixels 3, 4
        for (int i = 0; i < 15; ++i) EXPECT_EQ(p.at(0, y)[i], want[i]) << y << " byte " << i;
    }
    EXPECT_TRUE(p.outsideUnchanged());
}

TEST(Borders, CopySetAndExtendingCopy) {
    Plane<float> s(6, 5), d(6, 5);
    numbered(s);
    d.fill([](int, int, int) { return -1; });
    IMG<float, 1> sv(6, 5, s.data(), s.step()), dv(6, 5, d.data(), d.step());
    qx::imageCopyBorder(sv, dv, 1, 0, 2, -1);  // top 1, left 2; bottom 0 and right -1 skipped
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x)
            EXPECT_EQ(d(x, y), (y < 1 || x < 2) ? s(x, y) : -1.0f) << x << "," << y;
    EXPECT_TRUE(d.outsideUnchanged());

    Plane<short> s16(6, 5), d16(6, 5);
    numbered(s16);
    d16.fill([](int, int, int) { return -1; });
    qx::imageCopyBorder(s16.data(), s16.step(), d16.data(), d16.step(), s16.size(), 1, 2);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x) {
            const bool band = y < 2 || y >= 3 || x < 1 || x >= 5;
            EXPECT_EQ(d16(x, y), band ? s16(x, y) : short(-1)) << x << "," << y;
        }
    EXPECT_TRUE(d16.outsideUnchanged());
    Plane<unsigned short> u1(4, 4), u2(4, 4);
    numbered(u1);
    u2.fill([](int, int, int) { return 0; });
    IMG<unsigned short, 1> uv1(4, 4, u1.data(), u1.step()), uv2(4, 4, u2.data(), u2.step());
    qx::imageCopyBorder(uv1, uv2, 9, 0);  // columns cut to the width: everything
    EXPECT_EQ(u2(2, 2), u1(2, 2));

    Plane<uint8_t> m(5, 4);
    m.fill([](int, int, int) { return 0; });
    IMG<unsigned char, 1> mv(5, 4, m.data(), m.step());
    qx::imageSetBorder(mv, 7, 2, 1);
    for (int y = 0; y < 4; ++y)
        for (int x = 0; x < 5; ++x) {
            const bool band = y < 1 || y >= 3 || x < 2 || x >= 3;
            EXPECT_EQ(m(x, y), band ? 7 : 0) << x << "," << y;
        }
    EXPECT_TRUE(m.outsideUnchanged());

    // Extending copy into a larger destination: the last row and column repeat.
    Plane<float> big(6, 5);
    big.fill([](int, int, int) { return -1; });
    Plane<float> small(3, 2);
    numbered(small);
    IMG<float, 1> smallv(3, 2, small.data(), small.step()), bigv(6, 5, big.data(), big.step());
    EXPECT_EQ(qx::imageCopyExt(smallv, bigv), 1);
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 6; ++x)
            EXPECT_EQ(big(x, y), small(std::min(x, 2), std::min(y, 1))) << x << "," << y;
    EXPECT_TRUE(big.outsideUnchanged());
    // Wider only, then higher only.
    Plane<float> wide(5, 2), high(3, 4);
    wide.fill([](int, int, int) { return -1; });
    high.fill([](int, int, int) { return -1; });
    IMG<float, 1> wv(5, 2, wide.data(), wide.step()), hv(3, 4, high.data(), high.step());
    qx::imageCopyExt(smallv, wv);
    qx::imageCopyExt(smallv, hv);
    EXPECT_EQ(wide(4, 1), small(2, 1));
    EXPECT_EQ(wide(3, 0), small(2, 0));
    EXPECT_EQ(high(1, 3), small(1, 1));
    EXPECT_EQ(high(2, 2), small(2, 1));
    // Into a smaller destination: cropped, nothing replicated.
    Plane<float> tiny(2, 1);
    tiny.fill([](int, int, int) { return -1; });
    IMG<float, 1> tv(2, 1, tiny.data(), tiny.step());
    qx::imageCopyExt(smallv, tv);
    EXPECT_EQ(tiny(0, 0), small(0, 0));
    EXPECT_EQ(tiny(1, 0), small(1, 0));
    EXPECT_TRUE(tiny.outsideUnchanged());
}

}  // namespace
