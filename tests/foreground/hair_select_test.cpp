// The hair brush: the colour projection on hand-computed pixels (colours in reverse byte
// order), the box and the dot drawn from the far edges, the seven-pixel neighbourhood, and the
// cases that write nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "foreground/shared_sample.h"
#include "qxiveilon31.h"

namespace {

// A 4-byte image and an alpha plane with padded rows, and the request that points at them.
struct Scene {
    int w, h, imageStep, alphaStep;
    std::vector<uint8_t> image, alpha;
    uint8_t fore[3] = {0, 0, 0}, back[3] = {0, 0, 0};
    KeepCutRequest req{};
    Scene(int width, int height) : w(width), h(height), imageStep(4 * width + 8),
                                   alphaStep(width + 3),
                                   image(size_t(imageStep) * height, 0),
                                   alpha(size_t(alphaStep) * height, 0) {
        req.srcImage = image.data();
        req.srcStep = imageStep;
        req.alphaPlane = alpha.data();
        req.alphaStep = alphaStep;
        req.fullWidth = w;
        req.fullHeight = h;
        req.foreColor = fore;
        req.backColor = back;
    }
    uint8_t* px(int x, int y) { return &image[size_t(y) * imageStep + 4 * x]; }
    uint8_t& a(int x, int y) { return alpha[size_t(y) * alphaStep + x]; }
};

TEST(CompAlphaMapHair, ProjectsOntoTheColourLineInReverseOrder) {
    // foreColor {10, 200, 50}: byte 0 goes with channel 2, so the pixel (50, 200, 10) is the
    // foreground itself. backColor black.
    const uint8_t fore[3] = {10, 200, 50}, back[3] = {0, 0, 0};
    const uint8_t image[6 * 3] = {50, 200, 10,    // exactly the foreground: 255
                                  10, 200, 50,    // not reversed: 41000 / 42600 = 0.9624 -> 245
                                  0,  0,   0,     // the background: 0
                                  255, 255, 255,  // beyond the foreground: clamped to 255
                                  20, 80,  4,     // (4*10 + 80*200 + 20*50) / 42600 = 0.4 -> 102
                                  20, 80,  4};    // mask 0: keeps its alpha
    const uint8_t mask[6] = {1, 1, 1, 1, 1, 0};
    uint8_t alpha[6] = {9, 9, 9, 9, 9, 77};
    qx::FBSeperationSharedSample s;
    EXPECT_EQ(s.CompAlphaMapHair(image, 18, 6, 1, mask, 6, alpha, 6, fore, back), 0);
    const uint8_t want[6] = {255, 245, 0, 255, 102, 77};
    for (int i = 0; i < 6; ++i) EXPECT_EQ(alpha[i], want[i]) << i;

    // A null mask computes nothing; a null alpha is a scratch plane; bad arguments refuse.
    uint8_t keep[6] = {1, 2, 3, 4, 5, 6};
    s.CompAlphaMapHair(image, 18, 6, 1, nullptr, 0, keep, 6, fore, back);
    EXPECT_EQ(keep[4], 5);
    EXPECT_EQ(s.CompAlphaMapHair(image, 18, 6, 1, mask, 6, nullptr, 0, fore, back), 0);
    s.CompAlphaMapHair(image, 18, 6, 1, mask, 6, keep, 6, nullptr, back);
    s.CompAlphaMapHair(image, 17, 6, 1, mask, 6, keep, 6, fore, back);  // step below a row
    EXPECT_EQ(keep[0], 1);
    // Equal colours divide by zero: whatever comes out is a byte, and nothing faults.
    s.CompAlphaMapHair(image, 18, 6, 1, mask, 6, keep, 6, fore, fore);
}

// The brush with colours that make the projection the pixel's channel 2 exactly
// (foreColor {255, 0, 0}, backColor black): setting channel 2 and the alpha plane to the same
// values fixes the alpha copy everywhere, under the dot or not.
void setMap(Scene& s, int x0, int y0, const std::vector<std::vector<int>>& map) {
    for (size_t j = 0; j < map.size(); ++j)
        for (size_t i = 0; i < map[j].size(); ++i) {
            s.px(x0 + int(i), y0 + int(j))[2] = uint8_t(map[j][i]);
            s.a(x0 + int(i), y0 + int(j)) = uint8_t(map[j][i]);
        }
}

// A 12 x 12 scene at 100 with `map` at (3,3), after the stroke (5,5)-(5,5) of radius 2: its box
// is 3..7 square and the dot at box (2,2) covers the box's interior.
Scene strokeOverMap(const std::vector<std::vector<int>>& map) {
    Scene s(12, 12);
    s.fore[0] = 255;
    s.fore[1] = s.fore[2] = 0;
    s.back[0] = s.back[1] = s.back[2] = 0;
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x) {
            s.px(x, y)[2] = 100;
            s.a(x, y) = 100;
        }
    setMap(s, 3, 3, map);
    EXPECT_EQ(qxHairSelect(&s.req, 5, 5, 5, 5, 2), 1);
    return s;
}

TEST(HairSelect, SevenPixelNeighbourhood) {
    // Box coordinates below; (2,2) has 200 to its right and 0 below and below right, none of
    // which it reads, and 150 at its (-2, 1).
    {
        Scene s = strokeOverMap(
               {{100, 100, 100, 100, 100},
                {100, 100, 100, 100, 100},
                {100, 100, 100, 200, 100},
                {150, 100, 0, 0, 100},
                {100, 100, 100, 100, 100}});
        EXPECT_EQ(s.a(5, 5), 101);  // least of its seven
        EXPECT_EQ(s.a(6, 5), 201);  // (3,2): greatest of its seven
        EXPECT_EQ(s.a(6, 6), 1);    // (3,3): 0 is the least
        EXPECT_EQ(s.a(4, 4), 101);  // flat
        EXPECT_EQ(s.a(3, 3), 100);  // the box's edge is never written
        EXPECT_EQ(s.a(7, 7), 100);
        EXPECT_EQ(s.a(2, 2), 100);  // outside the box
    }
    {
        // 90 at (1,1) and 150 at (-2,1) around the 100 of (2,2): not an extreme, not written.
        Scene s = strokeOverMap(
               {{100, 100, 100, 100, 100},
                {100, 90, 100, 100, 100},
                {100, 100, 100, 100, 100},
                {150, 100, 100, 100, 100},
                {100, 100, 100, 100, 100}});
        EXPECT_EQ(s.a(5, 5), 100);
        EXPECT_EQ(s.a(4, 4), 91);  // (1,1) is the least of its own seven
    }
    {
        // At box column 1 the (-2, 1) neighbour is read from the copy's previous byte: the
        // last pixel of the same row, (4,2). With 30 there and 160 at (0,1), the 100 at (1,2)
        // is no extreme.
        Scene s = strokeOverMap(
               {{100, 100, 100, 100, 100},
                {160, 100, 100, 100, 100},
                {100, 100, 100, 100, 30},
                {100, 100, 100, 100, 100},
                {100, 100, 100, 100, 100}});
        EXPECT_EQ(s.a(4, 5), 100);
        EXPECT_EQ(s.a(5, 5), 101);
    }
}

TEST(HairSelect, DotAtTheBoxCornerHoweverLongTheStroke) {
    // Stroke (8,8)-(14,11), radius 2, on a flat image whose projection is 0.4 (102): the box is
    // 6..16 x 6..13, and the line runs from (2,2) to (16-14, 13-11) = (2,2) of the box, one dot
    // at image (8,8). Flat alpha: every dot pixel of the interior is written as 102 | 1.
    Scene s(20, 20);
    const uint8_t fore[3] = {10, 200, 50};
    std::copy(fore, fore + 3, s.fore);
    s.back[0] = s.back[1] = s.back[2] = 0;
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x) {
            uint8_t* p = s.px(x, y);
            p[0] = 20, p[1] = 80, p[2] = 4, p[3] = 255;
            s.a(x, y) = 102;
        }
    qxHairSelect(&s.req, 14, 11, 8, 8, 2);
    int written = 0;
    for (int y = 0; y < 20; ++y)
        for (int x = 0; x < 20; ++x) {
            if (s.a(x, y) == 102) continue;
            ++written;
            EXPECT_EQ(s.a(x, y), 103);
            // OpenCV's dot of thickness 5 (half-width 2.5 in its sub-pixel arithmetic)
            EXPECT_LE(std::hypot(x - 8, y - 8), 3.0) << x << "," << y;
            EXPECT_TRUE(x >= 7 && y >= 7) << "box interior only";
        }
    EXPECT_EQ(s.a(8, 8), 103);
    EXPECT_GE(written, 9);
    EXPECT_EQ(s.a(13, 11), 102);  // nothing along the stroke itself

    // Run again over the same pixels: odd values stay odd.
    qxHairSelect(&s.req, 14, 11, 8, 8, 2);
    EXPECT_EQ(s.a(8, 8) & 1, 1);
}

TEST(HairSelect, CasesThatWriteNothing) {
    Scene s(10, 10);
    s.fore[0] = 200;
    s.back[0] = 0;
    for (int y = 0; y < 10; ++y)
        for (int x = 0; x < 10; ++x) s.a(x, y) = 40, s.px(x, y)[2] = 100;
    const std::vector<uint8_t> before = s.alpha;
    EXPECT_EQ(qxHairSelect(&s.req, 3, 3, 10, 3, 2), 1);   // an end outside
    EXPECT_EQ(qxHairSelect(&s.req, -1, 3, 4, 3, 2), 1);
    EXPECT_EQ(qxHairSelect(&s.req, 3, 3, 4, 3, 0), 1);    // radius 0: the dot at box (0,0)
    EXPECT_EQ(qxHairSelect(&s.req, 3, 0, 5, 0, 1), 1);    // box rows 0..1: no interior
    s.req.fullHeight = 2;
    EXPECT_EQ(qxHairSelect(&s.req, 3, 1, 5, 1, 3), 1);
    s.req.fullHeight = 10;
    EXPECT_EQ(qxHairSelect(&s.req, 3, 3, 4, 3, 20000), 1);  // thicker than a brush can be
    EXPECT_EQ(qxHairSelect(nullptr, 3, 3, 4, 3, 2), 1);
    s.req.backColor = nullptr;
    EXPECT_EQ(qxHairSelect(&s.req, 3, 3, 4, 3, 2), 1);
    s.req.backColor = s.back;
    s.req.alphaStep = 5;
    EXPECT_EQ(qxHairSelect(&s.req, 3, 3, 4, 3, 2), 1);
    s.req.alphaStep = s.alphaStep;
    EXPECT_EQ(s.alpha, before);
    // The same request with a real stroke does write.
    qxHairSelect(&s.req, 4, 4, 5, 5, 2);
    EXPECT_NE(s.alpha, before);
}

}  // namespace
