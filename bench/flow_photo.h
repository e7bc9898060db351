// The photo the flows' benchmarks work on: GT04 of the matting benchmark and its tri-map at full
// size (178,728 undecided pixels), or a synthetic scene of the same size when the photos are
// absent; and the checksum label those benchmarks put on what they found.
#pragma once

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdio>
#include <opencv2/core.hpp>
#include <opencv2/imgcodecs.hpp>
#include <string>

#include "flows/flow_image.h"

namespace flow_bench {

using namespace qx::flows;

struct Photo {
    cv::Mat planes[3], tri;
    FlowImage image;
    PixelSets sets;
};

inline const Photo& photo() {
    static Photo p = [] {
        Photo out;
        const std::string dir = std::string(QX_DATA_DIR) + "/alphamatting/";
        cv::Mat bgr = cv::imread(dir + "input/GT04.png", cv::IMREAD_COLOR);
        cv::Mat tri = cv::imread(dir + "trimap/GT04.png", cv::IMREAD_GRAYSCALE);
        if (bgr.empty() || tri.empty()) {
            // A smooth colour field with a wavy undecided band across the middle.
            bgr.create(600, 800, CV_8UC3);
            tri.create(600, 800, CV_8UC1);
            for (int y = 0; y < 600; ++y)
                for (int x = 0; x < 800; ++x) {
                    bgr.at<cv::Vec3b>(y, x) = cv::Vec3b(uchar((x * 7 + y) % 256),
                                                        uchar((y * 5 + x / 3) % 256),
                                                        uchar((x ^ y) & 255));
                    const int edge = 300 + int(40 * std::sin(x / 37.0));
                    tri.at<uchar>(y, x) = y < edge - 60 ? 0 : y > edge + 60 ? 255 : 128;
                }
        }
        cv::split(bgr, out.planes);
        out.tri = tri;
        FlowImage& im = out.image;
        im.width = bgr.cols;
        im.height = bgr.rows;
        for (int c = 0; c < 3; ++c) im.planes[c] = out.planes[2 - c].data;
        im.planeStep = int(out.planes[0].step);
        im.tri = out.tri.data;
        im.triStep = int(out.tri.step);
        out.sets = classifyPixels(im);
        return out;
    }();
    return p;
}

// The checksum in full on the label (a counter would round it to four digits).
inline void report(benchmark::State& state, double sum) {
    char label[64];
    std::snprintf(label, sizeof label, "sum %.12g", sum);
    state.SetLabel(label);
}

}  // namespace flow_bench
