// Image primitives on a 4096 x 4096 plane, each next to OpenCV's nearest equivalent and to a
// memcpy of the same bytes, in one run. At the end a table gives, per operation, the time
// relative to OpenCV and to memcpy.
//
// OpenCV runs on one thread here (cv::setNumThreads(1)): the primitives are single-threaded
// by design (the callers parallelise over rows or images), so the comparison is per core.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "image/dispatch.h"
#include "image/primitives.h"

namespace {

using namespace qx::prim;

constexpr int kSide = 4096;
// Filters read a frame around the region; every filter works on the same inset region.
constexpr int kFrame = 2;

struct Planes {
    cv::Mat a, b, d, mask, fa, fd;
    uint8_t table[256];
    Planes() {
        a.create(kSide, kSide, CV_8UC1);
        b.create(kSide, kSide, CV_8UC1);
        d.create(kSide, kSide, CV_8UC1);
        mask.create(kSide, kSide, CV_8UC1);
        fa.create(kSide, kSide, CV_32FC1);
        fd.create(kSide, kSide, CV_32FC1);
        cv::RNG rng(7);
        rng.fill(a, cv::RNG::UNIFORM, 0, 256);
        rng.fill(b, cv::RNG::UNIFORM, 0, 256);
        rng.fill(mask, cv::RNG::UNIFORM, 0, 2);
        a.convertTo(fa, CV_32F, 1.0 / 255);
        d = cv::Scalar(0);
        fd = cv::Scalar(0);
        for (int i = 0; i < 256; ++i) table[i] = static_cast<uint8_t>(255 - i);
    }
    static Planes& get() {
        static Planes p;
        return p;
    }
};

const Size kFull{kSide, kSide};
const Size kInner{kSide - 2 * kFrame, kSide - 2 * kFrame};
uint8_t* at(cv::Mat& m, int inset) { return m.ptr<uint8_t>(inset) + inset * m.elemSize(); }
int st(const cv::Mat& m) { return static_cast<int>(m.step); }

// ---- registration: ours / OpenCV / memcpy ----------------------------------------------------

// Operation name -> (ours, OpenCV, memcpy baseline name).
struct Pair {
    std::string ours, opencv, base;
};
std::vector<Pair>& pairs() {
    static std::vector<Pair> p;
    return p;
}

template <class F>
void add(const std::string& name, F f) {
    benchmark::RegisterBenchmark(name.c_str(), [f](benchmark::State& s) {
        Planes& p = Planes::get();
        for (auto _ : s) {
            f(p);
            benchmark::ClobberMemory();
        }
    })->Unit(benchmark::kMillisecond)->MinTime(0.3);
}

template <class Ours, class Cv>
void pair(const std::string& op, const std::string& base, Ours ours, Cv cv) {
    add(op + "/qx", ours);
    add(op + "/opencv", cv);
    pairs().push_back({op + "/qx", op + "/opencv", base});
}

void registerAll() {
    add("memcpy/8u", [](Planes& p) { std::memcpy(p.d.data, p.a.data, p.a.total()); });
    add("memcpy/32f", [](Planes& p) { std::memcpy(p.fd.data, p.fa.data, p.fa.total() * 4); });
    const std::string m8 = "memcpy/8u", m32 = "memcpy/32f";

    pair("copy", m8,
         [](Planes& p) { copy_8u_C1(p.a.data, st(p.a), p.d.data, st(p.d), kFull); },
         [](Planes& p) { p.a.copyTo(p.d); });
    pair("set", m8, [](Planes& p) { set_8u_C1(7, p.d.data, st(p.d), kFull); },
         [](Planes& p) { p.d.setTo(cv::Scalar(7)); });
    pair("copyMasked", m8,
         [](Planes& p) {
             copyMasked_8u_C1(p.a.data, st(p.a), p.d.data, st(p.d), kFull, p.mask.data, st(p.mask));
         },
         [](Planes& p) { p.a.copyTo(p.d, p.mask); });
    pair("add", m8,
         [](Planes& p) { add_8u_C1IS(p.a.data, st(p.a), p.d.data, st(p.d), kFull, 0); },
         [](Planes& p) { cv::add(p.d, p.a, p.d); });
    pair("sub", m8,
         [](Planes& p) { sub_8u_C1IS(p.a.data, st(p.a), p.d.data, st(p.d), kFull, 0); },
         [](Planes& p) { cv::subtract(p.d, p.a, p.d); });
    pair("mul_scale6", m8,
         [](Planes& p) { mul_8u_C1IS(p.a.data, st(p.a), p.d.data, st(p.d), kFull, 6); },
         [](Planes& p) { cv::multiply(p.d, p.a, p.d, 1.0 / 64); });
    pair("mulC_scale6", m8,
         [](Planes& p) { mulC_8u_C1IS(85, p.d.data, st(p.d), kFull, 6); },
         [](Planes& p) { cv::multiply(p.d, cv::Scalar(85), p.d, 1.0 / 64); });
    pair("addC", m8, [](Planes& p) { addC_8u_C1IS(3, p.d.data, st(p.d), kFull, 0); },
         [](Planes& p) { cv::add(p.d, cv::Scalar(3), p.d); });
    pair("absDiff", m8,
         [](Planes& p) {
             absDiff_8u_C1(p.a.data, st(p.a), p.b.data, st(p.b), p.d.data, st(p.d), kFull);
         },
         [](Planes& p) { cv::absdiff(p.a, p.b, p.d); });
    pair("and", m8, [](Planes& p) { and_8u_C1I(p.a.data, st(p.a), p.d.data, st(p.d), kFull); },
         [](Planes& p) { cv::bitwise_and(p.d, p.a, p.d); });
    pair("compareC", m8,
         [](Planes& p) {
             compareC_8u_C1(p.a.data, st(p.a), 100, p.d.data, st(p.d), kFull, kCmpGreaterEq);
         },
         [](Planes& p) { cv::compare(p.a, 100, p.d, cv::CMP_GE); });
    pair("lut", m8,
         [](Planes& p) { lut_8u_C1(p.a.data, st(p.a), p.d.data, st(p.d), kFull, p.table); },
         [](Planes& p) {
             static const cv::Mat t(1, 256, CV_8UC1, Planes::get().table);
             cv::LUT(p.a, t, p.d);
         });
    pair("convert_8u32f", m32,
         [](Planes& p) { convert_8u32f_C1(p.a.data, st(p.a), p.fd.ptr<float>(), st(p.fd), kFull); },
         [](Planes& p) { p.a.convertTo(p.fd, CV_32F); });
    pair("scale_8u32f", m32,
         [](Planes& p) {
             scale_8u32f_C1(p.a.data, st(p.a), p.fd.ptr<float>(), st(p.fd), kFull, 0.0f, 1.0f);
         },
         [](Planes& p) { p.a.convertTo(p.fd, CV_32F, 1.0 / 255); });
    pair("convert_32f8u", m32,
         [](Planes& p) { convert_32f8u_C1(p.fa.ptr<float>(), st(p.fa), p.d.data, st(p.d), kFull); },
         [](Planes& p) { p.fa.convertTo(p.d, CV_8U); });

    // Filters: ours on the inset region reading its frame, OpenCV on the whole plane with its
    // own border handling.
    pair("gauss3x3", m8,
         [](Planes& p) {
             filterGauss_8u_C1(at(p.a, kFrame), st(p.a), at(p.d, kFrame), st(p.d), kInner, 33);
         },
         [](Planes& p) { cv::GaussianBlur(p.a, p.d, cv::Size(3, 3), 0); });
    pair("gauss5x5", m8,
         [](Planes& p) {
             filterGauss_8u_C1(at(p.a, kFrame), st(p.a), at(p.d, kFrame), st(p.d), kInner, 55);
         },
         [](Planes& p) { cv::GaussianBlur(p.a, p.d, cv::Size(5, 5), 0); });
    static const cv::Mat rect3 = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3));
    pair("erode3x3", m8,
         [](Planes& p) {
             erode3x3_8u_C1(at(p.a, kFrame), st(p.a), at(p.d, kFrame), st(p.d), kInner);
         },
         [](Planes& p) { cv::erode(p.a, p.d, rect3); });
    pair("dilate3x3", m8,
         [](Planes& p) {
             dilate3x3_8u_C1(at(p.a, kFrame), st(p.a), at(p.d, kFrame), st(p.d), kInner);
         },
         [](Planes& p) { cv::dilate(p.a, p.d, rect3); });
    pair("median_cross3", m8,
         [](Planes& p) {
             medianCross_8u_C1(at(p.a, kFrame), st(p.a), at(p.d, kFrame), st(p.d), kInner, 33);
         },
         [](Planes& p) { cv::medianBlur(p.a, p.d, 3); });
    pair("median_cross5", m8,
         [](Planes& p) {
             medianCross_8u_C1(at(p.a, kFrame), st(p.a), at(p.d, kFrame), st(p.d), kInner, 55);
         },
         [](Planes& p) { cv::medianBlur(p.a, p.d, 5); });
}

// Keeps each benchmark's time per iteration for the table.
class Recorder : public benchmark::ConsoleReporter {
public:
    std::map<std::string, double> ms;
    void ReportRuns(const std::vector<Run>& runs) override {
        for (const Run& r : runs)
            if (r.run_type == Run::RT_Iteration) {
                std::string name = r.benchmark_name();
                name = name.substr(0, name.find("/min_time"));
                // CPU time: the machine is shared, and wall time counts other processes' turns.
                ms[name] = r.GetAdjustedCPUTime();
            }
        ConsoleReporter::ReportRuns(runs);
    }
};

}  // namespace

int main(int argc, char** argv) {
    cv::setNumThreads(1);
    benchmark::Initialize(&argc, argv);
    registerAll();
    Recorder rec;
    benchmark::RunSpecifiedBenchmarks(&rec);
    std::printf("\nCode path: %s; plane %d x %d, one thread, CPU time per call.\n",
                codePathName(), kSide, kSide);
    std::printf("%-16s %10s %10s %10s %10s %10s\n", "operation", "qx ms", "opencv ms", "qx/cv",
                "memcpy ms", "qx/memcpy");
    for (const Pair& p : pairs()) {
        const auto o = rec.ms.find(p.ours), c = rec.ms.find(p.opencv), m = rec.ms.find(p.base);
        if (o == rec.ms.end() || c == rec.ms.end() || m == rec.ms.end()) continue;
        std::printf("%-16s %10.2f %10.2f %10.2f %10.2f %10.2f\n",
                    p.ours.substr(0, p.ours.size() - 3).c_str(), o->second, c->second,
                    o->second / c->second, m->second, o->second / m->second);
    }
    benchmark::Shutdown();
    return 0;
}
