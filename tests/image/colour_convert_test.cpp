// Colour conversions of planar float images: hand values, the twists' round trip and the
// clamp that only the way back to RGB applies.
#include <gtest/gtest.h>

#include <random>

#include "image/base_tools.h"

namespace {

using qx::IMG;

struct Planes {
    IMG<float, 1> r, g, b;
    IMG<float, 1>* list[3];
    Planes(int w, int h) : r(w, h), g(w, h), b(w, h), list{&r, &g, &b} {}
    void set(int x, int y, float vr, float vg, float vb) {
        *r.ptr(x, y) = vr;
        *g.ptr(x, y) = vg;
        *b.ptr(x, y) = vb;
    }
};

TEST(ColourConvert, GrayFromHandValues) {
    Planes p(3, 1);
    p.set(0, 0, 1, 0, 0);
    p.set(1, 0, 0, 0, 1);
    p.set(2, 0, 0.5f, 0.5f, 0.5f);
    IMG<float, 1> gray(3, 1);
    qx::RGB2Gray(p.list, gray);
    EXPECT_FLOAT_EQ(*gray.ptr(0, 0), 0.299f);
    EXPECT_FLOAT_EQ(*gray.ptr(1, 0), 0.114f);
    EXPECT_NEAR(*gray.ptr(2, 0), 0.5f, 1e-6);
}

TEST(ColourConvert, YCbCrTablesAndRoundTrip) {
    // A grey has no chroma: Cb and Cr sit at their offsets (0 without them).
    Planes grey(1, 1);
    grey.set(0, 0, 0.4f, 0.4f, 0.4f);
    EXPECT_EQ(qx::RGB2YCbCr(grey.list, false), 1);
    EXPECT_NEAR(*grey.r.data, 0.4f, 1e-6);
    EXPECT_NEAR(*grey.g.data, 0.61176f, 1e-6);
    EXPECT_NEAR(*grey.b.data, 0.53725f, 1e-6);
    // Pure red, the offset-free table: (0.299, -0.1306, 0.3729).
    Planes red(1, 1);
    red.set(0, 0, 1, 0, 0);
    qx::RGB2YCbCr(red.list, true);
    EXPECT_FLOAT_EQ(*red.r.data, 0.299f);
    EXPECT_FLOAT_EQ(*red.g.data, -0.1306f);
    EXPECT_FLOAT_EQ(*red.b.data, 0.3729f);

    // There and back: the tables with offsets invert each other to 1e-4, the shorter ones to 1e-3.
    std::mt19937 rng(5);
    std::uniform_real_distribution<float> u(0.0f, 1.0f);
    for (bool noOffset : {false, true}) {
        Planes p(17, 5);
        for (int y = 0; y < 5; ++y)
            for (int x = 0; x < 17; ++x) p.set(x, y, u(rng), u(rng), u(rng));
        Planes q(17, 5);
        for (int i = 0; i < 3; ++i) qx::Copy(*p.list[i], *q.list[i]);
        qx::RGB2YCbCr(q.list, noOffset);
        EXPECT_GT(std::abs(*q.g.ptr(3, 2) - *p.g.ptr(3, 2)), 1e-3);
        EXPECT_EQ(qx::YCbCr2RGB(q.list, noOffset), 1);
        for (int i = 0; i < 3; ++i)
            for (int y = 0; y < 5; ++y)
                for (int x = 0; x < 17; ++x)
                    EXPECT_NEAR(*q.list[i]->ptr(x, y), *p.list[i]->ptr(x, y), noOffset ? 1e-3 : 1e-4);
    }
}

TEST(ColourConvert, HlsRoundTripAndClampOnTheWayBack) {
    Planes p(4, 1);
    p.set(0, 0, 1, 0, 0);         // hue 0, lightness 0.5, saturation 1
    p.set(1, 0, 0, 0.5f, 0.5f);   // cyan: hue one half
    p.set(2, 0, 0.2f, 0.6f, 0.9f);
    p.set(3, 0, 1.5f, 1.5f, 1.5f);  // out of range: not clamped on the way to HLS
    EXPECT_EQ(qx::RGB2HLS(p.list), 1);
    EXPECT_NEAR(*p.r.ptr(0, 0), 0.0f, 1e-6);
    EXPECT_NEAR(*p.g.ptr(0, 0), 0.5f, 1e-6);
    EXPECT_NEAR(*p.b.ptr(0, 0), 1.0f, 1e-6);
    EXPECT_NEAR(*p.r.ptr(1, 0), 0.5f, 1e-6);
    EXPECT_NEAR(*p.g.ptr(1, 0), 0.25f, 1e-6);
    EXPECT_NEAR(*p.g.ptr(3, 0), 1.5f, 1e-6);
    EXPECT_EQ(qx::HLS2RGB(p.list), 1);
    EXPECT_NEAR(*p.r.ptr(2, 0), 0.2f, 1e-5);
    EXPECT_NEAR(*p.g.ptr(2, 0), 0.6f, 1e-5);
    EXPECT_NEAR(*p.b.ptr(2, 0), 0.9f, 1e-5);
    EXPECT_NEAR(*p.g.ptr(1, 0), 0.5f, 1e-5);
    // The lightness 1.5 came back clamped to 1: white.
    EXPECT_FLOAT_EQ(*p.r.ptr(3, 0), 1.0f);
    EXPECT_FLOAT_EQ(*p.b.ptr(3, 0), 1.0f);
}

}  // namespace
