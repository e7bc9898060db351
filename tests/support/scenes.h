// What the test programs share: a soft-edged disc over a background and the demonstration
// scene, each with its tri-map, strokes and true alpha; the library's requests over host
// buffers (support/requests.h); a scratch folder of one test's own. Header only: include it
// as "support/scenes.h".
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <string>
#include <vector>

#include "qxworkflow.h"
#include "support/requests.h"

namespace qxtest {

// What an output holds before a call that must leave it as it was.
constexpr unsigned char kSentinel = 0x5A;
inline bool untouched(const Bytes& v, unsigned char fill = kSentinel) {
    return std::all_of(v.begin(), v.end(), [fill](unsigned char b) { return b == fill; });
}

// A stroke plane (QXW_KEEP, QXW_CUT, anything else open) in the library's stroke coding.
inline Bytes libraryCoding(const Bytes& strokes) {
    Bytes coded(strokes.size());
    for (size_t i = 0; i < coded.size(); ++i)
        coded[i] = strokes[i] == QXW_KEEP ? 255 : strokes[i] == QXW_CUT ? 1 : 128;
    return coded;
}

const unsigned char kDiscFg[3] = {40, 200, 60}, kDiscBg[3] = {210, 50, 170};  // B, G, R

// A w x h BGR composite I = a F + (1 - a) B of a disc (radius r, centred) whose alpha falls
// linearly over `soft` pixels, over a plain or striped background. The tri-map and the stroke
// plane leave `band` pixels open beyond either side of the soft edge (strokes open: 100).
struct DiscScene {
    int w, h;
    Bytes image, alpha, trimap, strokes;
    DiscScene(int w, int h, double r, double soft, double band, bool stripes = false)
        : w(w), h(h), image(size_t(w) * h * 3), alpha(size_t(w) * h), trimap(alpha.size()),
          strokes(alpha.size()) {
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                const size_t i = size_t(y) * w + x;
                const double d = std::hypot(x - w / 2.0, y - h / 2.0);
                const double a = std::clamp((r + soft / 2 - d) / soft, 0.0, 1.0);
                const int stripe = stripes ? (x * 7 + y * 3) % 23 : 0;
                for (int c = 0; c < 3; ++c)
                    image[i * 3 + c] = static_cast<unsigned char>(std::lround(
                        a * kDiscFg[c] + (1 - a) * std::min(255, kDiscBg[c] + stripe)));
                alpha[i] = static_cast<unsigned char>(std::lround(255 * a));
                const bool open = std::fabs(d - r) <= soft / 2 + band;
                trimap[i] = open ? 128 : d < r ? 255 : 0;
                strokes[i] = open ? 100 : d < r ? QXW_KEEP : QXW_CUT;
            }
    }
    QxwImage view() const { return {image.data(), w * 3, 3, w, h, QXW_BGR}; }
    // Mean |alpha - truth| / 255 over the pixels the tri-map leaves open.
    double openError(const Bytes& out) const {
        double sum = 0;
        int n = 0;
        for (size_t i = 0; i < out.size(); ++i)
            if (trimap[i] == 128) sum += std::abs(out[i] - alpha[i]) / 255.0, ++n;
        return n ? sum / n : 1.0;
    }
};

// The demonstration scene (hair-like strands, a known alpha): BGR image, tri-map, truth and
// strokes (QXW_KEEP / QXW_CUT / open).
struct DemoScene {
    int w, h;
    Bytes image, trimap, truth, strokes;
    DemoScene(int w, int h, int seed)
        : w(w), h(h), image(size_t(w) * h * 3), trimap(size_t(w) * h), truth(trimap.size()),
          strokes(trimap.size()) {
        const QxwColourOut out{image.data(), w * 3};
        EXPECT_EQ(qxwDemoScene(w, h, seed, &out, trimap.data(), w, truth.data(), w, nullptr,
                               strokes.data(), w),
                  QXW_OK);
    }
    QxwImage view() const { return {image.data(), w * 3, 3, w, h, QXW_BGR}; }
    // The image with a fourth byte of 255 a pixel.
    Bytes bgra() const {
        Bytes out(size_t(w) * h * 4, 255);
        for (size_t i = 0; i < size_t(w) * h; ++i)
            for (int c = 0; c < 3; ++c) out[4 * i + c] = image[3 * i + c];
        return out;
    }
};

// A scratch folder of the running test's own, removed after it.
class TempFolder : public ::testing::Test {
protected:
    void SetUp() override {
        dir_ = std::filesystem::temp_directory_path() /
               ("qx_" + std::to_string(getpid()) + "_" +
                ::testing::UnitTest::GetInstance()->current_test_info()->name());
        std::filesystem::remove_all(dir_);
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override { std::filesystem::remove_all(dir_); }
    std::string path(const std::string& name) const { return (dir_ / name).string(); }
    std::filesystem::path dir_;
};

}  // namespace qxtest
