// The image primitives' code paths give the same bytes.
//
// The row loops under src/image/primitives_*.cpp are compiled once per code path (baseline
// x86-64, AVX2, AVX-512) and the loader binds each to the best path the processor offers, once
// for the life of the process (image/dispatch.h). A running test cannot switch paths, so the
// baseline's results are kept here as digests, one per primitive, recorded from a build
// configured with -DCMAKE_CXX_FLAGS=-DQX_BASELINE_ONLY=1: run this program there with
// QX_PRINT_PATH_DIGESTS=1 and DispatchPaths.RecordBaseline prints the table. Every other build
// checks the path it runs against the table; a path the processor lacks, or that this build
// does not run, is reported as skipped.
//
// The inputs come from a fixed generator of our own (the standard library's distributions
// differ between library versions): every width from 1 to 70 and some past the widest vector,
// rows padded by 1 to 9 elements and planes starting off any alignment, so each loop's vector
// body, its remainders and its peeled heads all run. What lies outside the region (frames, row
// pads, the tail) must come back untouched, and inputs must not change.
//
// The comparison is exact for floats too. Each float result is one IEEE operation, or a fixed
// sequence of them, rounded per element; nothing is reassociated, and the build is ISO C++, in
// which GCC does not fuse a multiply and an add. A path that differs by one bit computes
// something else. The one freedom is which NaN comes out of an operation on NaNs (IEEE leaves
// the payload open, and a compiler may swap the operands of an addition): all NaNs digest
// alike.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <limits>
#include <ostream>
#include <string>
#include <type_traits>
#include <vector>

#include "image/dispatch.h"
#include "image/primitives.h"

namespace {

namespace prim = qx::prim;
using prim::kOk;

// ---- Inputs -------------------------------------------------------------------------------

class Rng {
public:
    explicit Rng(uint64_t seed) : s_(seed) {}
    uint64_t next() {  // splitmix64
        uint64_t z = (s_ += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }
    int uniform(int lo, int hi) {  // lo..hi inclusive
        return lo + static_cast<int>(next() % static_cast<uint64_t>(int64_t(hi) - lo + 1));
    }
    bool coin() { return (next() & 1) != 0; }
    uint8_t u8() { return static_cast<uint8_t>(next()); }
    int16_t s16() { return static_cast<int16_t>(next()); }
    // Finite floats: signed zeros, halves (the ties of the roundings to integers), values past
    // the 16-bit range, full 24-bit mantissas over a wide range of exponents, small multiples of
    // 1/128.
    float f32finite() {
        const int k = uniform(0, 99);
        if (k < 3) return coin() ? 0.0f : -0.0f;
        if (k < 15) return static_cast<float>(uniform(-300, 300)) + 0.5f;
        if (k < 22) return static_cast<float>(uniform(-3000000, 3000000));
        if (k < 45) {
            const float m = std::ldexp(static_cast<float>(uniform(1 << 23, (1 << 24) - 1)), -23);
            return (coin() ? 1.0f : -1.0f) * std::ldexp(m, uniform(-20, 12));
        }
        return static_cast<float>(uniform(-40000, 40000)) / 128.0f;
    }
    // The finite ones with NaNs and infinities among them.
    float f32() {
        const int k = uniform(0, 99);
        if (k < 2) return std::numeric_limits<float>::quiet_NaN();
        if (k < 4)
            return coin() ? std::numeric_limits<float>::infinity()
                          : -std::numeric_limits<float>::infinity();
        return f32finite();
    }
    // 0..1: the ends, steps of 1/255 (where channels tie) and full mantissas.
    float unit() {
        const int k = uniform(0, 99);
        if (k < 5) return coin() ? 0.0f : 1.0f;
        if (k < 40) return static_cast<float>(uniform(0, 255)) / 255.0f;
        return static_cast<float>(uniform(0, (1 << 24) - 1)) / 16777216.0f;
    }
    double f64() {
        const int k = uniform(0, 99);
        if (k < 3) return coin() ? 0.0 : -0.0;
        if (k < 6) return (coin() ? 1.0 : -1.0) * std::ldexp(1.0, uniform(-160, 140));
        const double m = std::ldexp(static_cast<double>(next() >> 11), -53);
        return (coin() ? 1.0 : -1.0) * std::ldexp(1.0 + m, uniform(-30, 30));
    }

private:
    uint64_t s_;
};

// FNV-1a over the results; every NaN digests as the same NaN.
class Digest {
public:
    void bytes(const void* p, size_t n) {
        const auto* b = static_cast<const unsigned char*>(p);
        for (size_t i = 0; i < n; ++i) h_ = (h_ ^ b[i]) * 0x100000001B3ull;
    }
    template <typename T>
    void value(T v) {
        if constexpr (std::is_floating_point_v<T>) {
            if (std::isnan(v)) v = std::numeric_limits<T>::quiet_NaN();
        }
        bytes(&v, sizeof v);
    }
    uint64_t get() const { return h_; }

private:
    uint64_t h_ = 0xCBF29CE484222325ull;
};

// One region: width x height pixels, each row followed by `pad` spare elements, the plane's
// first element `offset` elements into its buffer.
struct Geometry {
    int width, height, pad, offset;
};

std::string describe(const Geometry& g) {
    return "width " + std::to_string(g.width) + ", height " + std::to_string(g.height) + ", pad " +
           std::to_string(g.pad) + ", offset " + std::to_string(g.offset);
}

std::vector<Geometry> geometries() {
    Rng rng(20240611);
    std::vector<int> widths;
    for (int w = 1; w <= 70; ++w) widths.push_back(w);
    for (int w : {95, 127, 128, 129, 191, 255, 257}) widths.push_back(w);
    std::vector<Geometry> out;
    for (const int w : widths) out.push_back({w, 3, rng.uniform(1, 9), rng.uniform(0, 15)});
    return out;
}

// A plane of T with `channels` elements a pixel and a frame of `frame` pixels on every side of
// the region, every element (frame, pads, tail) filled from the generator. Rows are
// (width + 2 frame) * channels + pad elements apart; 16 elements of tail follow the last row.
template <typename T>
class Plane {
public:
    template <class Gen>
    Plane(Rng& rng, const Geometry& g, int channels, int frame, Gen gen)
        : g_(g),
          ch_(channels),
          frame_(frame),
          stride_((g.width + 2 * frame) * channels + g.pad),
          buf_(static_cast<size_t>(g.offset) +
               static_cast<size_t>(stride_) * (g.height + 2 * frame) + 16) {
        for (T& v : buf_) v = gen(rng);
        keep();
    }
    // The region's pixel (x, y), frame pixels at negative or past-the-end coordinates.
    T* at(int x, int y) {
        return buf_.data() + g_.offset + static_cast<ptrdiff_t>(y + frame_) * stride_ +
               static_cast<ptrdiff_t>(x + frame_) * ch_;
    }
    T* origin() { return at(0, 0); }
    int step() const { return stride_ * static_cast<int>(sizeof(T)); }
    // Takes the present contents as the ones to compare with (after a test edits its inputs).
    void keep() { kept_ = buf_; }
    bool unchanged() const {
        return std::memcmp(buf_.data(), kept_.data(), buf_.size() * sizeof(T)) == 0;
    }
    bool outsideUntouched() const {
        for (size_t i = 0; i < buf_.size(); ++i) {
            if (std::memcmp(&buf_[i], &kept_[i], sizeof(T)) == 0) continue;
            const ptrdiff_t k = static_cast<ptrdiff_t>(i) - g_.offset;
            const ptrdiff_t row = k / stride_ - frame_, col = k % stride_ - ptrdiff_t(frame_) * ch_;
            const bool inside = k >= 0 && row >= 0 && row < g_.height && col >= 0 &&
                                col < ptrdiff_t(g_.width) * ch_;
            if (!inside) return false;
        }
        return true;
    }
    void digestRegion(Digest& d) {
        for (int y = 0; y < g_.height; ++y) {
            const T* r = at(0, y);
            for (int i = 0; i < g_.width * ch_; ++i) d.value(r[i]);
        }
    }

private:
    Geometry g_;
    int ch_, frame_, stride_;
    std::vector<T> buf_, kept_;
};

const auto U8 = [](Rng& r) { return r.u8(); };
const auto S16 = [](Rng& r) { return r.s16(); };
const auto F32 = [](Rng& r) { return r.f32(); };
const auto F32Finite = [](Rng& r) { return r.f32finite(); };
const auto Unit = [](Rng& r) { return r.unit(); };
const auto F64 = [](Rng& r) { return r.f64(); };
// Masks: about half the pixels zero, the rest any other byte.
const auto Mask = [](Rng& r) {
    return r.coin() ? uint8_t(0) : static_cast<uint8_t>(r.uniform(1, 255));
};

// ---- Running the primitives ---------------------------------------------------------------

// What one primitive's runs leave: the digest of its results, and what went wrong on any path
// (a refused call, a write outside the region, a changed input).
struct Ctx {
    Rng rng;
    Digest digest;
    std::vector<std::string> problems;
    const char* name = "";
    const Geometry* g = nullptr;

    void status(int st) {
        if (st != kOk)
            problems.push_back(std::string(name) + ": status " + std::to_string(st) + " at " +
                               describe(*g));
    }
    template <typename T>
    void output(Plane<T>& p) {
        if (!p.outsideUntouched())
            problems.push_back(std::string(name) + ": wrote outside the region at " + describe(*g));
        p.digestRegion(digest);
    }
    template <typename T>
    void input(const Plane<T>& p) {
        if (!p.unchanged())
            problems.push_back(std::string(name) + ": changed its input at " + describe(*g));
    }
    prim::Size size() const { return {g->width, g->height}; }
};

struct Case {
    const char* name;
    void (*run)(Ctx&);
};

// The scale factors of the 8-bit arithmetic: plain, the 16-bit kernels 1..8, and the general
// rule on either side.
const int kScales[] = {0, 1, 2, 3, 5, 8, 9, 13, 25, -1, -2, -7, -16};

// srcDst = op(srcDst, src) with a scale factor.
template <int (*F)(const uint8_t*, int, uint8_t*, int, prim::Size, int)>
void binaryInPlace8u(Ctx& c) {
    for (const int s : kScales) {
        Plane<uint8_t> src(c.rng, *c.g, 1, 0, U8), sd(c.rng, *c.g, 1, 0, U8);
        c.status(F(src.origin(), src.step(), sd.origin(), sd.step(), c.size(), s));
        c.input(src);
        c.output(sd);
    }
}

// srcDst = op(srcDst, value) with a scale factor.
template <int (*F)(uint8_t, uint8_t*, int, prim::Size, int)>
void constInPlace8u(Ctx& c) {
    for (const int s : kScales) {
        Plane<uint8_t> sd(c.rng, *c.g, 1, 0, U8);
        c.status(F(c.rng.u8(), sd.origin(), sd.step(), c.size(), s));
        c.output(sd);
    }
}

template <int (*F)(const float*, int, float*, int, prim::Size)>
void binaryInPlace32f(Ctx& c) {
    Plane<float> src(c.rng, *c.g, 1, 0, F32), sd(c.rng, *c.g, 1, 0, F32);
    c.status(F(src.origin(), src.step(), sd.origin(), sd.step(), c.size()));
    c.input(src);
    c.output(sd);
}

template <typename S, typename D, int (*F)(const S*, int, D*, int, prim::Size), class GenS>
void unaryCopy(Ctx& c, GenS gen, int channels = 1) {
    Plane<S> src(c.rng, *c.g, channels, 0, gen);
    Plane<D> dst(c.rng, *c.g, channels, 0, [](Rng& r) { return static_cast<D>(r.next()); });
    c.status(F(src.origin(), src.step(), dst.origin(), dst.step(), c.size()));
    c.input(src);
    c.output(dst);
}

// A neighbourhood filter from a framed source into a plain destination.
template <typename T, class Gen, class Call>
void framed(Ctx& c, int frame, Gen gen, Call call) {
    Plane<T> src(c.rng, *c.g, 1, frame, gen), dst(c.rng, *c.g, 1, 0, gen);
    c.status(call(src.origin(), src.step(), dst.origin(), dst.step()));
    c.input(src);
    c.output(dst);
}

// Vectors: the geometry's width is the length, the pad and tail must stay.
template <typename T>
Plane<T> vectorOf(Ctx& c, T (*gen)(Rng&)) {
    return Plane<T>(c.rng, Geometry{c.g->width, 1, c.g->pad, c.g->offset}, 1, 0, gen);
}

template <int (*F)(double, double*, int)>
void vectorAffine(Ctx& c) {
    Plane<double> v = vectorOf<double>(c, [](Rng& r) { return r.f64(); });
    c.status(F(c.rng.f64(), v.origin(), c.g->width));
    c.output(v);
}

const Case kCases[] = {
    // ---- Copy, fill, channels
    {"set_8u_C1",
     [](Ctx& c) {
         Plane<uint8_t> d(c.rng, *c.g, 1, 0, U8);
         c.status(prim::set_8u_C1(c.rng.u8(), d.origin(), d.step(), c.size()));
         c.output(d);
     }},
    {"set_16s_C1",
     [](Ctx& c) {
         Plane<int16_t> d(c.rng, *c.g, 1, 0, S16);
         c.status(prim::set_16s_C1(c.rng.s16(), d.origin(), d.step(), c.size()));
         c.output(d);
     }},
    {"set_32f_C1",
     [](Ctx& c) {
         Plane<float> d(c.rng, *c.g, 1, 0, F32);
         c.status(prim::set_32f_C1(c.rng.f32finite(), d.origin(), d.step(), c.size()));
         c.output(d);
     }},
    {"set_32f_C3",
     [](Ctx& c) {
         Plane<float> d(c.rng, *c.g, 3, 0, F32);
         const float v[3] = {c.rng.f32finite(), c.rng.f32finite(), c.rng.f32finite()};
         c.status(prim::set_32f_C3(v, d.origin(), d.step(), c.size()));
         c.output(d);
     }},
    {"copyMasked_8u_C1",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8), d(c.rng, *c.g, 1, 0, U8),
             m(c.rng, *c.g, 1, 0, Mask);
         c.status(prim::copyMasked_8u_C1(s.origin(), s.step(), d.origin(), d.step(), c.size(),
                                         m.origin(), m.step()));
         c.input(s);
         c.input(m);
         c.output(d);
     }},
    {"copyMasked_32f_C1",
     [](Ctx& c) {
         Plane<float> s(c.rng, *c.g, 1, 0, F32), d(c.rng, *c.g, 1, 0, F32);
         Plane<uint8_t> m(c.rng, *c.g, 1, 0, Mask);
         c.status(prim::copyMasked_32f_C1(s.origin(), s.step(), d.origin(), d.step(), c.size(),
                                          m.origin(), m.step()));
         c.input(s);
         c.input(m);
         c.output(d);
     }},
    {"copyMasked_8u_C4",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 4, 0, U8), d(c.rng, *c.g, 4, 0, U8),
             m(c.rng, *c.g, 1, 0, Mask);
         c.status(prim::copyMasked_8u_C4(s.origin(), s.step(), d.origin(), d.step(), c.size(),
                                         m.origin(), m.step()));
         c.input(s);
         c.input(m);
         c.output(d);
     }},
    {"setMasked_8u_C1",
     [](Ctx& c) {
         Plane<uint8_t> d(c.rng, *c.g, 1, 0, U8), m(c.rng, *c.g, 1, 0, Mask);
         c.status(prim::setMasked_8u_C1(c.rng.u8(), d.origin(), d.step(), c.size(), m.origin(),
                                        m.step()));
         c.input(m);
         c.output(d);
     }},
    {"copy_8u_AC4", [](Ctx& c) { unaryCopy<uint8_t, uint8_t, prim::copy_8u_AC4>(c, U8, 4); }},
    {"extractChannel_8u_C4C1",
     [](Ctx& c) {
         for (int b = 0; b < 4; ++b) {
             Plane<uint8_t> s(c.rng, *c.g, 4, 0, U8), d(c.rng, *c.g, 1, 0, U8);
             c.status(prim::extractChannel_8u_C4C1(s.origin() + b, s.step(), d.origin(), d.step(),
                                                   c.size()));
             c.input(s);
             c.output(d);
         }
     }},
    {"extractChannel_32f_C3C1",
     [](Ctx& c) {
         for (int b = 0; b < 3; ++b) {
             Plane<float> s(c.rng, *c.g, 3, 0, F32), d(c.rng, *c.g, 1, 0, F32);
             c.status(prim::extractChannel_32f_C3C1(s.origin() + b, s.step(), d.origin(), d.step(),
                                                    c.size()));
             c.input(s);
             c.output(d);
         }
     }},
    {"insertChannel_8u_C1C4",
     [](Ctx& c) {
         for (int b = 0; b < 4; ++b) {
             Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8), d(c.rng, *c.g, 4, 0, U8);
             c.status(prim::insertChannel_8u_C1C4(s.origin(), s.step(), d.origin() + b, d.step(),
                                                  c.size()));
             c.input(s);
             c.output(d);
         }
     }},
    {"insertChannel_8u_C1C3",
     [](Ctx& c) {
         for (int b = 0; b < 3; ++b) {
             Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8), d(c.rng, *c.g, 3, 0, U8);
             c.status(prim::insertChannel_8u_C1C3(s.origin(), s.step(), d.origin() + b, d.step(),
                                                  c.size()));
             c.input(s);
             c.output(d);
         }
     }},
    {"insertChannel_32f_C1C3",
     [](Ctx& c) {
         for (int b = 0; b < 3; ++b) {
             Plane<float> s(c.rng, *c.g, 1, 0, F32), d(c.rng, *c.g, 3, 0, F32);
             c.status(prim::insertChannel_32f_C1C3(s.origin(), s.step(), d.origin() + b, d.step(),
                                                   c.size()));
             c.input(s);
             c.output(d);
         }
     }},
    {"interleave_8u_P3C3",
     [](Ctx& c) {
         Plane<uint8_t> a(c.rng, *c.g, 1, 0, U8), b(c.rng, *c.g, 1, 0, U8),
             e(c.rng, *c.g, 1, 0, U8), d(c.rng, *c.g, 3, 0, U8);
         const uint8_t* src[3] = {a.origin(), b.origin(), e.origin()};
         c.status(prim::interleave_8u_P3C3(src, a.step(), d.origin(), d.step(), c.size()));
         c.input(a);
         c.input(b);
         c.input(e);
         c.output(d);
     }},
    {"deinterleave_8u_C4P4",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 4, 0, U8), d0(c.rng, *c.g, 1, 0, U8),
             d1(c.rng, *c.g, 1, 0, U8), d2(c.rng, *c.g, 1, 0, U8), d3(c.rng, *c.g, 1, 0, U8);
         uint8_t* dst[4] = {d0.origin(), d1.origin(), d2.origin(), d3.origin()};
         c.status(prim::deinterleave_8u_C4P4(s.origin(), s.step(), dst, d0.step(), c.size()));
         c.input(s);
         c.output(d0);
         c.output(d1);
         c.output(d2);
         c.output(d3);
     }},

    // ---- 8-bit arithmetic
    {"add_8u_C1IS", binaryInPlace8u<prim::add_8u_C1IS>},
    {"sub_8u_C1IS", binaryInPlace8u<prim::sub_8u_C1IS>},
    {"mul_8u_C1IS", binaryInPlace8u<prim::mul_8u_C1IS>},
    {"sub_8u_C1S",
     [](Ctx& c) {
         for (const int s : kScales) {
             Plane<uint8_t> a(c.rng, *c.g, 1, 0, U8), b(c.rng, *c.g, 1, 0, U8),
                 d(c.rng, *c.g, 1, 0, U8);
             c.status(prim::sub_8u_C1S(a.origin(), a.step(), b.origin(), b.step(), d.origin(),
                                       d.step(), c.size(), s));
             c.input(a);
             c.input(b);
             c.output(d);
         }
     }},
    {"addC_8u_C1IS", constInPlace8u<prim::addC_8u_C1IS>},
    {"subC_8u_C1IS", constInPlace8u<prim::subC_8u_C1IS>},
    {"mulC_8u_C1IS", constInPlace8u<prim::mulC_8u_C1IS>},
    {"subC_8u_C1S",
     [](Ctx& c) {
         for (const int s : kScales) {
             Plane<uint8_t> a(c.rng, *c.g, 1, 0, U8), d(c.rng, *c.g, 1, 0, U8);
             c.status(prim::subC_8u_C1S(a.origin(), a.step(), c.rng.u8(), d.origin(), d.step(),
                                        c.size(), s));
             c.input(a);
             c.output(d);
         }
     }},
    {"mulC_8u_C3IS",
     [](Ctx& c) {
         for (const int s : kScales) {
             Plane<uint8_t> sd(c.rng, *c.g, 3, 0, U8);
             const uint8_t v[3] = {c.rng.u8(), c.rng.u8(), c.rng.u8()};
             c.status(prim::mulC_8u_C3IS(v, sd.origin(), sd.step(), c.size(), s));
             c.output(sd);
         }
     }},
    {"mulC_8u_C4IS",
     [](Ctx& c) {
         for (const int s : kScales) {
             Plane<uint8_t> sd(c.rng, *c.g, 4, 0, U8);
             const uint8_t v[4] = {c.rng.u8(), c.rng.u8(), c.rng.u8(), c.rng.u8()};
             c.status(prim::mulC_8u_C4IS(v, sd.origin(), sd.step(), c.size(), s));
             c.output(sd);
         }
     }},
    {"andC_8u_C1I",
     [](Ctx& c) {
         Plane<uint8_t> sd(c.rng, *c.g, 1, 0, U8);
         c.status(prim::andC_8u_C1I(c.rng.u8(), sd.origin(), sd.step(), c.size()));
         c.output(sd);
     }},
    {"and_8u_C1I",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8), sd(c.rng, *c.g, 1, 0, U8);
         c.status(prim::and_8u_C1I(s.origin(), s.step(), sd.origin(), sd.step(), c.size()));
         c.input(s);
         c.output(sd);
     }},
    {"or_8u_C1I",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8), sd(c.rng, *c.g, 1, 0, U8);
         c.status(prim::or_8u_C1I(s.origin(), s.step(), sd.origin(), sd.step(), c.size()));
         c.input(s);
         c.output(sd);
     }},
    {"absDiff_8u_C1",
     [](Ctx& c) {
         Plane<uint8_t> a(c.rng, *c.g, 1, 0, U8), b(c.rng, *c.g, 1, 0, U8),
             d(c.rng, *c.g, 1, 0, U8);
         c.status(prim::absDiff_8u_C1(a.origin(), a.step(), b.origin(), b.step(), d.origin(),
                                      d.step(), c.size()));
         c.input(a);
         c.input(b);
         c.output(d);
     }},
    {"compareC_8u_C1",
     [](Ctx& c) {
         // Values near the constant, so that all three relations come out both ways.
         const auto around = [](Rng& r) { return static_cast<uint8_t>(r.uniform(96, 104)); };
         for (const prim::CmpOp op : {prim::kCmpLessEq, prim::kCmpEq, prim::kCmpGreaterEq}) {
             Plane<uint8_t> s(c.rng, *c.g, 1, 0, around), d(c.rng, *c.g, 1, 0, U8);
             c.status(prim::compareC_8u_C1(s.origin(), s.step(), 100, d.origin(), d.step(),
                                           c.size(), op));
             c.input(s);
             c.output(d);
         }
     }},
    {"lut_8u_C1",
     [](Ctx& c) {
         uint8_t table[256];
         for (uint8_t& t : table) t = c.rng.u8();
         Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8), d(c.rng, *c.g, 1, 0, U8);
         c.status(prim::lut_8u_C1(s.origin(), s.step(), d.origin(), d.step(), c.size(), table));
         c.input(s);
         c.output(d);
     }},

    // ---- Float arithmetic, reductions, conversions
    {"add_32f_C1I", binaryInPlace32f<prim::add_32f_C1I>},
    {"sub_32f_C1I", binaryInPlace32f<prim::sub_32f_C1I>},
    {"mul_32f_C1I", binaryInPlace32f<prim::mul_32f_C1I>},
    {"div_32f_C1I", binaryInPlace32f<prim::div_32f_C1I>},
    {"addC_32f_C1I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 1, 0, F32);
         c.status(prim::addC_32f_C1I(c.rng.f32finite(), sd.origin(), sd.step(), c.size()));
         c.output(sd);
     }},
    {"mulC_32f_C1I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 1, 0, F32);
         c.status(prim::mulC_32f_C1I(c.rng.f32finite(), sd.origin(), sd.step(), c.size()));
         c.output(sd);
     }},
    {"addC_32f_C1",
     [](Ctx& c) {
         Plane<float> s(c.rng, *c.g, 1, 0, F32), d(c.rng, *c.g, 1, 0, F32);
         c.status(prim::addC_32f_C1(s.origin(), s.step(), c.rng.f32finite(), d.origin(), d.step(),
                                    c.size()));
         c.input(s);
         c.output(d);
     }},
    {"mulC_32f_C1",
     [](Ctx& c) {
         Plane<float> s(c.rng, *c.g, 1, 0, F32), d(c.rng, *c.g, 1, 0, F32);
         c.status(prim::mulC_32f_C1(s.origin(), s.step(), c.rng.f32finite(), d.origin(), d.step(),
                                    c.size()));
         c.input(s);
         c.output(d);
     }},
    {"abs_32f_C1I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 1, 0, F32);
         c.status(prim::abs_32f_C1I(sd.origin(), sd.step(), c.size()));
         c.output(sd);
     }},
    {"sqrt_32f_C1I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 1, 0, F32);
         c.status(prim::sqrt_32f_C1I(sd.origin(), sd.step(), c.size()));
         c.output(sd);
     }},
    {"clampAbove_32f_C1I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 1, 0, F32);
         c.status(prim::clampAbove_32f_C1I(sd.origin(), sd.step(), c.size(), c.rng.f32finite()));
         c.output(sd);
     }},
    {"clampBelow_32f_C1I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 1, 0, F32);
         c.status(prim::clampBelow_32f_C1I(sd.origin(), sd.step(), c.size(), c.rng.f32finite()));
         c.output(sd);
     }},
    {"clampAbove_32f_C3I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 3, 0, F32);
         const float lim[3] = {c.rng.f32finite(), c.rng.f32finite(), c.rng.f32finite()};
         c.status(prim::clampAbove_32f_C3I(sd.origin(), sd.step(), c.size(), lim));
         c.output(sd);
     }},
    {"clampBelow_32f_C3I",
     [](Ctx& c) {
         Plane<float> sd(c.rng, *c.g, 3, 0, F32);
         const float lim[3] = {c.rng.f32finite(), c.rng.f32finite(), c.rng.f32finite()};
         c.status(prim::clampBelow_32f_C3I(sd.origin(), sd.step(), c.size(), lim));
         c.output(sd);
     }},
    {"addProduct_8u32f_C1I",
     [](Ctx& c) {
         Plane<uint8_t> a(c.rng, *c.g, 1, 0, U8), b(c.rng, *c.g, 1, 0, U8);
         Plane<float> sd(c.rng, *c.g, 1, 0, F32);
         c.status(prim::addProduct_8u32f_C1I(a.origin(), a.step(), b.origin(), b.step(),
                                             sd.origin(), sd.step(), c.size()));
         c.input(a);
         c.input(b);
         c.output(sd);
     }},
    {"compareGreater_32f_C1",
     [](Ctx& c) {
         // Few distinct values, so that equal pairs come up, and NaNs, which compare false.
         const auto few = [](Rng& r) {
             return r.uniform(0, 15) == 0 ? std::numeric_limits<float>::quiet_NaN()
                                          : static_cast<float>(r.uniform(-2, 2)) * 0.5f;
         };
         Plane<float> a(c.rng, *c.g, 1, 0, few), b(c.rng, *c.g, 1, 0, few);
         Plane<uint8_t> d(c.rng, *c.g, 1, 0, U8);
         c.status(prim::compareGreater_32f_C1(a.origin(), a.step(), b.origin(), b.step(),
                                              d.origin(), d.step(), c.size()));
         c.input(a);
         c.input(b);
         c.output(d);
     }},
    {"sum_32f_C1",
     [](Ctx& c) {
         Plane<float> s(c.rng, *c.g, 1, 0, F32Finite);
         double sum = 0;
         c.status(prim::sum_32f_C1(s.origin(), s.step(), c.size(), &sum));
         c.input(s);
         c.digest.value(sum);
     }},
    {"sum_8u_C1",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8);
         double sum = 0;
         c.status(prim::sum_8u_C1(s.origin(), s.step(), c.size(), &sum));
         c.input(s);
         c.digest.value(sum);
     }},
    {"mean_8u_C1",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8);
         double mean = 0;
         c.status(prim::mean_8u_C1(s.origin(), s.step(), c.size(), &mean));
         c.input(s);
         c.digest.value(mean);
     }},
    {"mean_8u_C3",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 3, 0, U8);
         double mean[3] = {};
         c.status(prim::mean_8u_C3(s.origin(), s.step(), c.size(), mean));
         c.input(s);
         for (const double m : mean) c.digest.value(m);
     }},
    {"convert_8u32f_C1", [](Ctx& c) { unaryCopy<uint8_t, float, prim::convert_8u32f_C1>(c, U8); }},
    {"convert_16s32f_C1",
     [](Ctx& c) { unaryCopy<int16_t, float, prim::convert_16s32f_C1>(c, S16); }},
    {"convert_32f8u_C1", [](Ctx& c) { unaryCopy<float, uint8_t, prim::convert_32f8u_C1>(c, F32); }},
    {"convert_32f16s_C1",
     [](Ctx& c) { unaryCopy<float, int16_t, prim::convert_32f16s_C1>(c, F32); }},
    {"scale_8u32f_C1",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 1, 0, U8);
         Plane<float> d(c.rng, *c.g, 1, 0, F32);
         const float lo = c.rng.f32finite(), hi = lo + std::fabs(c.rng.f32finite()) + 1.0f;
         c.status(
             prim::scale_8u32f_C1(s.origin(), s.step(), d.origin(), d.step(), c.size(), lo, hi));
         c.input(s);
         c.output(d);
     }},
    {"scale_8u32f_C3",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 3, 0, U8);
         Plane<float> d(c.rng, *c.g, 3, 0, F32);
         const float lo = c.rng.f32finite(), hi = lo + std::fabs(c.rng.f32finite()) + 1.0f;
         c.status(
             prim::scale_8u32f_C3(s.origin(), s.step(), d.origin(), d.step(), c.size(), lo, hi));
         c.input(s);
         c.output(d);
     }},
    {"scale_32f8u_C1",
     [](Ctx& c) {
         Plane<float> s(c.rng, *c.g, 1, 0, F32);
         Plane<uint8_t> d(c.rng, *c.g, 1, 0, U8);
         const float lo = static_cast<float>(c.rng.uniform(-300, 100));
         const float hi = lo + static_cast<float>(c.rng.uniform(1, 600));
         c.status(
             prim::scale_32f8u_C1(s.origin(), s.step(), d.origin(), d.step(), c.size(), lo, hi));
         c.input(s);
         c.output(d);
     }},
    {"scale_32f8u_C3",
     [](Ctx& c) {
         Plane<float> s(c.rng, *c.g, 3, 0, F32);
         Plane<uint8_t> d(c.rng, *c.g, 3, 0, U8);
         const float lo = static_cast<float>(c.rng.uniform(-300, 100));
         const float hi = lo + static_cast<float>(c.rng.uniform(1, 600));
         c.status(
             prim::scale_32f8u_C3(s.origin(), s.step(), d.origin(), d.step(), c.size(), lo, hi));
         c.input(s);
         c.output(d);
     }},

    // ---- Colour
    {"rgbToHls_8u_C4",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 4, 0, U8), d(c.rng, *c.g, 4, 0, U8);
         for (int y = 0; y < c.g->height; ++y)  // greys and ties for the largest channel
             for (int x = 0; x < c.g->width; ++x)
                 if (c.rng.uniform(0, 3) == 0)
                     s.at(x, y)[c.rng.uniform(0, 2)] = s.at(x, y)[c.rng.uniform(0, 2)];
         s.keep();
         c.status(prim::rgbToHls_8u_C4(s.origin(), s.step(), d.origin(), d.step(), c.size()));
         c.input(s);
         c.output(d);
     }},
    {"hlsToRgb_8u_C4", [](Ctx& c) { unaryCopy<uint8_t, uint8_t, prim::hlsToRgb_8u_C4>(c, U8, 4); }},
    {"rgbToHls_32f_C3",
     [](Ctx& c) {
         Plane<float> s(c.rng, *c.g, 3, 0, Unit), d(c.rng, *c.g, 3, 0, F32);
         for (int y = 0; y < c.g->height; ++y)
             for (int x = 0; x < c.g->width; ++x)
                 if (c.rng.uniform(0, 3) == 0)
                     s.at(x, y)[c.rng.uniform(0, 2)] = s.at(x, y)[c.rng.uniform(0, 2)];
         s.keep();
         c.status(prim::rgbToHls_32f_C3(s.origin(), s.step(), d.origin(), d.step(), c.size()));
         c.input(s);
         c.output(d);
     }},
    {"hlsToRgb_32f_C3", [](Ctx& c) { unaryCopy<float, float, prim::hlsToRgb_32f_C3>(c, Unit, 3); }},
    {"rgbToYCbCr_8u_C3P3",
     [](Ctx& c) {
         Plane<uint8_t> s(c.rng, *c.g, 3, 0, U8), y(c.rng, *c.g, 1, 0, U8),
             u(c.rng, *c.g, 1, 0, U8), v(c.rng, *c.g, 1, 0, U8);
         uint8_t* dst[3] = {y.origin(), u.origin(), v.origin()};
         c.status(prim::rgbToYCbCr_8u_C3P3(s.origin(), s.step(), dst, y.step(), c.size()));
         c.input(s);
         c.output(y);
         c.output(u);
         c.output(v);
     }},
    {"yCbCrToRgb_8u_P3C3",
     [](Ctx& c) {
         Plane<uint8_t> y(c.rng, *c.g, 1, 0, U8), u(c.rng, *c.g, 1, 0, U8),
             v(c.rng, *c.g, 1, 0, U8), d(c.rng, *c.g, 3, 0, U8);
         const uint8_t* src[3] = {y.origin(), u.origin(), v.origin()};
         c.status(prim::yCbCrToRgb_8u_P3C3(src, y.step(), d.origin(), d.step(), c.size()));
         c.input(y);
         c.input(u);
         c.input(v);
         c.output(d);
     }},
    {"colorTwist_32f_P3I",
     [](Ctx& c) {
         Plane<float> p0(c.rng, *c.g, 1, 0, F32Finite), p1(c.rng, *c.g, 1, 0, F32Finite),
             p2(c.rng, *c.g, 1, 0, F32Finite);
         float twist[3][4];
         for (auto& row : twist)
             for (float& t : row) t = c.rng.f32finite();
         float* planes[3] = {p0.origin(), p1.origin(), p2.origin()};
         c.status(prim::colorTwist_32f_P3I(planes, p0.step(), c.size(), twist));
         c.output(p0);
         c.output(p1);
         c.output(p2);
     }},

    // ---- Neighbourhood filters
    {"filterGauss_8u_C1",
     [](Ctx& c) {
         for (const int code : {33, 55})
             framed<uint8_t>(c, 2, U8, [&](const uint8_t* s, int ss, uint8_t* d, int ds) {
                 return prim::filterGauss_8u_C1(s, ss, d, ds, c.size(), code);
             });
     }},
    {"erode3x3_8u_C1",
     [](Ctx& c) {
         framed<uint8_t>(c, 1, U8, [&](const uint8_t* s, int ss, uint8_t* d, int ds) {
             return prim::erode3x3_8u_C1(s, ss, d, ds, c.size());
         });
     }},
    {"dilate3x3_8u_C1",
     [](Ctx& c) {
         framed<uint8_t>(c, 1, U8, [&](const uint8_t* s, int ss, uint8_t* d, int ds) {
             return prim::dilate3x3_8u_C1(s, ss, d, ds, c.size());
         });
     }},
    {"min3x3_32f_C1",
     [](Ctx& c) {
         framed<float>(c, 1, F32, [&](const float* s, int ss, float* d, int ds) {
             return prim::min3x3_32f_C1(s, ss, d, ds, c.size());
         });
     }},
    {"max3x3_32f_C1",
     [](Ctx& c) {
         framed<float>(c, 1, F32, [&](const float* s, int ss, float* d, int ds) {
             return prim::max3x3_32f_C1(s, ss, d, ds, c.size());
         });
     }},
    {"medianCross_8u_C1",
     [](Ctx& c) {
         for (const int code : {33, 55})
             framed<uint8_t>(c, 2, U8, [&](const uint8_t* s, int ss, uint8_t* d, int ds) {
                 return prim::medianCross_8u_C1(s, ss, d, ds, c.size(), code);
             });
     }},
    {"medianCross_16s_C1",
     [](Ctx& c) {
         for (const int code : {33, 55})
             framed<int16_t>(c, 2, S16, [&](const int16_t* s, int ss, int16_t* d, int ds) {
                 return prim::medianCross_16s_C1(s, ss, d, ds, c.size(), code);
             });
     }},
    {"erode_8u_C1I / dilate_8u_C1I",
     [](Ctx& c) {
         for (const bool dilate : {false, true}) {
             const prim::Size ms{c.rng.uniform(1, 5), c.rng.uniform(1, 5)};
             std::vector<uint8_t> mask(static_cast<size_t>(ms.width * ms.height));
             for (uint8_t& m : mask) m = Mask(c.rng);
             mask[c.rng.uniform(0, ms.width * ms.height - 1)] = 1;
             const prim::Point anchor{c.rng.uniform(0, ms.width - 1),
                                      c.rng.uniform(0, ms.height - 1)};
             Plane<uint8_t> sd(c.rng, *c.g, 1, 5, U8);
             c.status(dilate ? prim::dilate_8u_C1I(sd.origin(), sd.step(), c.size(), mask.data(),
                                                   ms, anchor)
                             : prim::erode_8u_C1I(sd.origin(), sd.step(), c.size(), mask.data(), ms,
                                                  anchor));
             c.output(sd);
         }
     }},
    {"filterRow_32f_C1 / filterColumn_32f_C1",
     [](Ctx& c) {
         for (const bool column : {false, true}) {
             const int k = c.rng.uniform(1, 7), anchor = c.rng.uniform(0, k - 1);
             std::vector<float> kernel(static_cast<size_t>(k));
             for (float& t : kernel) t = c.rng.f32finite();
             framed<float>(c, 7, F32Finite, [&](const float* s, int ss, float* d, int ds) {
                 return column ? prim::filterColumn_32f_C1(s, ss, d, ds, c.size(), kernel.data(), k,
                                                           anchor)
                               : prim::filterRow_32f_C1(s, ss, d, ds, c.size(), kernel.data(), k,
                                                        anchor);
             });
         }
     }},
    {"filterRow_32f_C3 / filterColumn_32f_C3",
     [](Ctx& c) {
         for (const bool column : {false, true}) {
             const int k = c.rng.uniform(1, 7), anchor = c.rng.uniform(0, k - 1);
             std::vector<float> kernel(static_cast<size_t>(k));
             for (float& t : kernel) t = c.rng.f32finite();
             Plane<float> s(c.rng, *c.g, 3, 7, F32Finite), d(c.rng, *c.g, 3, 0, F32);
             c.status(column ? prim::filterColumn_32f_C3(s.origin(), s.step(), d.origin(), d.step(),
                                                         c.size(), kernel.data(), k, anchor)
                             : prim::filterRow_32f_C3(s.origin(), s.step(), d.origin(), d.step(),
                                                      c.size(), kernel.data(), k, anchor));
             c.input(s);
             c.output(d);
         }
     }},
    {"filter_32f_C1",
     [](Ctx& c) {
         const prim::Size ks{c.rng.uniform(1, 5), c.rng.uniform(1, 5)};
         const prim::Point anchor{c.rng.uniform(0, ks.width - 1), c.rng.uniform(0, ks.height - 1)};
         std::vector<float> kernel(static_cast<size_t>(ks.width * ks.height));
         for (float& t : kernel) t = c.rng.f32finite();
         framed<float>(c, 5, F32Finite, [&](const float* s, int ss, float* d, int ds) {
             return prim::filter_32f_C1(s, ss, d, ds, c.size(), kernel.data(), ks, anchor);
         });
     }},
    {"sepFilterRow_16s_C1 / sepFilterRow_32f_C1",
     [](Ctx& c) {
         for (const int border : {0, 1, 2, 4}) {
             const int k = c.rng.uniform(1, 7), anchor = c.rng.uniform(0, k - 1);
             Plane<int16_t> s16(c.rng, *c.g, 1, 0, S16), d16(c.rng, *c.g, 1, 0, S16);
             Plane<float> s32(c.rng, *c.g, 1, 0, F32Finite), d32(c.rng, *c.g, 1, 0, F32);
             std::vector<const int16_t*> in16;
             std::vector<int16_t*> out16;
             std::vector<const float*> in32;
             std::vector<float*> out32;
             for (int y = 0; y < c.g->height; ++y) {
                 in16.push_back(s16.at(0, y));
                 out16.push_back(d16.at(0, y));
                 in32.push_back(s32.at(0, y));
                 out32.push_back(d32.at(0, y));
             }
             std::vector<int16_t> k16(static_cast<size_t>(k));
             std::vector<float> k32(static_cast<size_t>(k));
             for (int16_t& t : k16) t = static_cast<int16_t>(c.rng.uniform(-300, 300));
             for (float& t : k32) t = c.rng.f32finite();
             int bytes16 = 0, bytes32 = 0;
             c.status(prim::sepFilterRowBufferSize(c.size(), k, 2, &bytes16));
             c.status(prim::sepFilterRowBufferSize(c.size(), k, 4, &bytes32));
             std::vector<uint8_t> buf16(static_cast<size_t>(bytes16)),
                 buf32(static_cast<size_t>(bytes32));
             c.status(prim::sepFilterRow_16s_C1(in16.data(), out16.data(), c.g->width, c.g->height,
                                                k16.data(), k, anchor, border, c.rng.s16(),
                                                c.rng.uniform(1, 400), buf16.data()));
             c.status(prim::sepFilterRow_32f_C1(in32.data(), out32.data(), c.g->width, c.g->height,
                                                k32.data(), k, anchor, border, c.rng.f32finite(),
                                                buf32.data()));
             c.input(s16);
             c.input(s32);
             c.output(d16);
             c.output(d32);
         }
     }},
    {"sepFilterColumn_16s_C1 / sepFilterColumn_32f_C1",
     [](Ctx& c) {
         const int k = c.rng.uniform(1, 7);
         // The source rows: the region's height plus k - 1, the frame below it standing in.
         Plane<int16_t> s16(c.rng, *c.g, 1, 7, S16), d16(c.rng, *c.g, 1, 0, S16);
         Plane<float> s32(c.rng, *c.g, 1, 7, F32Finite), d32(c.rng, *c.g, 1, 0, F32);
         std::vector<const int16_t*> in16;
         std::vector<const float*> in32;
         for (int y = 0; y < c.g->height + k - 1; ++y) {
             in16.push_back(s16.at(0, y));
             in32.push_back(s32.at(0, y));
         }
         std::vector<int16_t> k16(static_cast<size_t>(k));
         std::vector<float> k32(static_cast<size_t>(k));
         for (int16_t& t : k16) t = static_cast<int16_t>(c.rng.uniform(-300, 300));
         for (float& t : k32) t = c.rng.f32finite();
         int bytes16 = 0, bytes32 = 0;
         c.status(prim::sepFilterColumnBufferSize(c.size(), k, 2, &bytes16));
         c.status(prim::sepFilterColumnBufferSize(c.size(), k, 4, &bytes32));
         std::vector<uint8_t> buf16(static_cast<size_t>(bytes16)),
             buf32(static_cast<size_t>(bytes32));
         c.status(prim::sepFilterColumn_16s_C1(in16.data(), d16.origin(), d16.step(), c.size(),
                                               k16.data(), k, c.rng.uniform(1, 400), buf16.data()));
         c.status(prim::sepFilterColumn_32f_C1(in32.data(), d32.origin(), d32.step(), c.size(),
                                               k32.data(), k, buf32.data()));
         c.input(s16);
         c.input(s32);
         c.output(d16);
         c.output(d32);
     }},

    // ---- Vectors
    {"mulC_64f_I", vectorAffine<prim::mulC_64f_I>},
    {"addC_64f_I", vectorAffine<prim::addC_64f_I>},
    {"subC_64f_I", vectorAffine<prim::subC_64f_I>},
    {"dotProd_64f",
     [](Ctx& c) {
         Plane<double> a = vectorOf<double>(c, [](Rng& r) { return r.f64(); });
         Plane<double> b = vectorOf<double>(c, [](Rng& r) { return r.f64(); });
         double result = 0;
         c.status(prim::dotProd_64f(a.origin(), b.origin(), c.g->width, &result));
         c.input(a);
         c.input(b);
         c.digest.value(result);
     }},
    {"convert_64f32f",
     [](Ctx& c) {
         Plane<double> s = vectorOf<double>(c, [](Rng& r) { return r.f64(); });
         Plane<float> d = vectorOf<float>(c, [](Rng& r) { return r.f32(); });
         c.status(prim::convert_64f32f(s.origin(), d.origin(), c.g->width));
         c.input(s);
         c.output(d);
     }},
    {"set_16s / zero_16s",
     [](Ctx& c) {
         Plane<int16_t> a = vectorOf<int16_t>(c, [](Rng& r) { return r.s16(); });
         Plane<int16_t> b = vectorOf<int16_t>(c, [](Rng& r) { return r.s16(); });
         c.status(prim::set_16s(c.rng.s16(), a.origin(), c.g->width));
         c.status(prim::zero_16s(b.origin(), c.g->width));
         c.output(a);
         c.output(b);
     }},
    {"set_32f / zero_32f",
     [](Ctx& c) {
         Plane<float> a = vectorOf<float>(c, [](Rng& r) { return r.f32(); });
         Plane<float> b = vectorOf<float>(c, [](Rng& r) { return r.f32(); });
         c.status(prim::set_32f(c.rng.f32finite(), a.origin(), c.g->width));
         c.status(prim::zero_32f(b.origin(), c.g->width));
         c.output(a);
         c.output(b);
     }},
};

struct Result {
    std::string name;
    uint64_t digest;
    std::vector<std::string> problems;
};

uint64_t seedOf(const char* name) {
    Digest d;
    d.bytes(name, std::strlen(name));
    return d.get();
}

// Every case over every geometry, each case from its own seed (so that adding one changes no
// other's digest).
std::vector<Result> runAll() {
    const std::vector<Geometry> gs = geometries();
    std::vector<Result> out;
    for (const Case& k : kCases) {
        Ctx c{Rng(seedOf(k.name)), Digest(), {}, k.name, nullptr};
        for (const Geometry& g : gs) {
            c.g = &g;
            k.run(c);
        }
        out.push_back({k.name, c.digest.get(), c.problems});
    }
    return out;
}

// ---- The baseline ---------------------------------------------------------------------------

struct Recorded {
    const char* name;
    uint64_t digest;
};

// Recorded from a baseline-only build (see the top of this file).
const Recorded kBaseline[] = {
    {"set_8u_C1", 0x11FF8BB1FD0414C1ull},
    {"set_16s_C1", 0x7FBE3E6A7F02414Cull},
    {"set_32f_C1", 0xA33B3D6FBAE383F7ull},
    {"set_32f_C3", 0x2AB1FE8F808CADB3ull},
    {"copyMasked_8u_C1", 0x0F76406C91498D86ull},
    {"copyMasked_32f_C1", 0x6A646D2F5F1C57C1ull},
    {"copyMasked_8u_C4", 0x3AC46DF5159D9BFAull},
    {"setMasked_8u_C1", 0x480D73F1206C1698ull},
    {"copy_8u_AC4", 0x81C5C6980B92EAA9ull},
    {"extractChannel_8u_C4C1", 0x76CED87911E92326ull},
    {"extractChannel_32f_C3C1", 0x61AC119D1813007Cull},
    {"insertChannel_8u_C1C4", 0xA023DB765DF3032Cull},
    {"insertChannel_8u_C1C3", 0xA373FDE551846847ull},
    {"insertChannel_32f_C1C3", 0xC89A13B9F2CC4BC6ull},
    {"interleave_8u_P3C3", 0xD4C33395101C730Cull},
    {"deinterleave_8u_C4P4", 0xC06E81DD025E6A74ull},
    {"add_8u_C1IS", 0x9157239459B568C0ull},
    {"sub_8u_C1IS", 0xD3CFEB69BCAFC67Aull},
    {"mul_8u_C1IS", 0x61B67ABBCABA03CCull},
    {"sub_8u_C1S", 0x9E18A1C5A51AAD3Bull},
    {"addC_8u_C1IS", 0xA050716F0AB8E0D4ull},
    {"subC_8u_C1IS", 0xAFB1F97FE9DD975Eull},
    {"mulC_8u_C1IS", 0xF0F9CC593584733Full},
    {"subC_8u_C1S", 0x7F4729FB8E380EFCull},
    {"mulC_8u_C3IS", 0x0CE8AFBC46DEF9E2ull},
    {"mulC_8u_C4IS", 0xE7BC93030BE04973ull},
    {"andC_8u_C1I", 0x77C2616C5AB580D1ull},
    {"and_8u_C1I", 0xFC2C9C0EBE461124ull},
    {"or_8u_C1I", 0xDEC909FD99993726ull},
    {"absDiff_8u_C1", 0x72DFE450040D22A0ull},
    {"compareC_8u_C1", 0xFFA8AA74F359EB82ull},
    {"lut_8u_C1", 0xFBCD2215F50B932Full},
    {"add_32f_C1I", 0xE14400CAC22A6A82ull},
    {"sub_32f_C1I", 0x67A45A7CFB3BBB7Cull},
    {"mul_32f_C1I", 0xC583D4912A24986Dull},
    {"div_32f_C1I", 0x752E42613790D7C5ull},
    {"addC_32f_C1I", 0xF59ADF901C956C52ull},
    {"mulC_32f_C1I", 0x0F25BF29BC15B987ull},
    {"addC_32f_C1", 0x5CE83A892AF05E91ull},
    {"mulC_32f_C1", 0x51DC141EDE2E93FBull},
    {"abs_32f_C1I", 0x3A57C98BF3ECEAF8ull},
    {"sqrt_32f_C1I", 0x8BC6D81956FC13C2ull},
    {"clampAbove_32f_C1I", 0x51A302971A1204E9ull},
    {"clampBelow_32f_C1I", 0x116A412B4BC69E99ull},
    {"clampAbove_32f_C3I", 0x1375C669071458A0ull},
    {"clampBelow_32f_C3I", 0x5873A67EB68DBCADull},
    {"addProduct_8u32f_C1I", 0x1702CDBBAC43235Aull},
    {"compareGreater_32f_C1", 0x2CC3E63DA8759F90ull},
    {"sum_32f_C1", 0x1305FDFCD34778FBull},
    {"sum_8u_C1", 0xCA75393D5EE0F93Cull},
    {"mean_8u_C1", 0x75C6FAA551217490ull},
    {"mean_8u_C3", 0xF31E7B04F978A128ull},
    {"convert_8u32f_C1", 0xE35C56BFC62B469Bull},
    {"convert_16s32f_C1", 0x7731DE821DC1499Eull},
    {"convert_32f8u_C1", 0x8B44C6A9387BB8D7ull},
    {"convert_32f16s_C1", 0x0A3195D687A6A5DDull},
    {"scale_8u32f_C1", 0xD6C1C002E6C59DECull},
    {"scale_8u32f_C3", 0x50620BE72D0FF062ull},
    {"scale_32f8u_C1", 0x434C67E7254D0051ull},
    {"scale_32f8u_C3", 0xF287E06BE2CD97B2ull},
    {"rgbToHls_8u_C4", 0x1734B660EF960C3Dull},
    {"hlsToRgb_8u_C4", 0x7DBD32D1A625B653ull},
    {"rgbToHls_32f_C3", 0x4801AC88A215CCCDull},
    {"hlsToRgb_32f_C3", 0x1B4228A5BE5C252Bull},
    {"rgbToYCbCr_8u_C3P3", 0x8963230270D2A78Aull},
    {"yCbCrToRgb_8u_P3C3", 0x087973F4ADBDC0F9ull},
    {"colorTwist_32f_P3I", 0x698B6F843E144C3Full},
    {"filterGauss_8u_C1", 0x0D43EE6102FDD375ull},
    {"erode3x3_8u_C1", 0x5C5793EBAEC25008ull},
    {"dilate3x3_8u_C1", 0xFC20A98C2A97086Full},
    {"min3x3_32f_C1", 0x5326A8F3886B9CEAull},
    {"max3x3_32f_C1", 0x5BF105391CAD9DEAull},
    {"medianCross_8u_C1", 0xF9E6F498D0C44DCAull},
    {"medianCross_16s_C1", 0xCFBD3654B67BD927ull},
    {"erode_8u_C1I / dilate_8u_C1I", 0x844837A6855B1D4Bull},
    {"filterRow_32f_C1 / filterColumn_32f_C1", 0xAE16ED2E21E16C26ull},
    {"filterRow_32f_C3 / filterColumn_32f_C3", 0x7CDD172CE5DA4EE1ull},
    {"filter_32f_C1", 0xF3A97FB66F7A0697ull},
    {"sepFilterRow_16s_C1 / sepFilterRow_32f_C1", 0x8B4AB46FFDC2A0A3ull},
    {"sepFilterColumn_16s_C1 / sepFilterColumn_32f_C1", 0xE9E921A0F1258449ull},
    {"mulC_64f_I", 0xF7E68E64D06BC89Dull},
    {"addC_64f_I", 0x74755E2B4D7C6DB3ull},
    {"subC_64f_I", 0xB10E72F3628AFD58ull},
    {"dotProd_64f", 0x2B63D6C7136BDF47ull},
    {"convert_64f32f", 0x0A71EBAE6443F346ull},
    {"set_16s / zero_16s", 0xC2BD8EDA3C8202DCull},
    {"set_32f / zero_32f", 0xBA7430D7B93D5A49ull},
};

struct PathInfo {
    int level;
    const char* name;
};

void PrintTo(const PathInfo& p, std::ostream* os) {
    *os << p.name;
}

class DispatchPath : public ::testing::TestWithParam<PathInfo> {};

TEST_P(DispatchPath, GivesTheBaselinesBytes) {
    const PathInfo path = GetParam();
    if (prim::cpuFeatureLevel() < path.level) GTEST_SKIP() << "this processor has no " << path.name;
    if (prim::selectCodePath() != path.level)
        GTEST_SKIP() << "this program runs the " << prim::codePathName() << " loops"
                     << (path.level == 0 ? "; the baseline runs in a build with QX_BASELINE_ONLY"
                                         : "");
    const std::vector<Result> results = runAll();
    for (const Result& r : results) {
        for (size_t i = 0; i < r.problems.size() && i < 5; ++i) ADD_FAILURE() << r.problems[i];
        const Recorded* want = nullptr;
        for (const Recorded& b : kBaseline)
            if (r.name == b.name) want = &b;
        if (want == nullptr) {
            ADD_FAILURE() << r.name << ": no baseline recorded";
            continue;
        }
        EXPECT_EQ(r.digest, want->digest)
            << r.name << ": the " << path.name << " loops give other bytes than the baseline's";
    }
    EXPECT_EQ(results.size(), std::size(kBaseline)) << "a recorded primitive is no longer run";
}

INSTANTIATE_TEST_SUITE_P(Paths, DispatchPath,
                         ::testing::Values(PathInfo{0, "x86-64"}, PathInfo{2, "avx2"},
                                           PathInfo{3, "avx512"}),
                         [](const ::testing::TestParamInfo<PathInfo>& info) {
                             return std::string(info.param.level == 0   ? "Baseline"
                                                : info.param.level == 2 ? "Avx2"
                                                                        : "Avx512");
                         });

// With QX_PRINT_PATH_DIGESTS set, prints kBaseline's entries from this build's results; only a
// build that runs the baseline loops may record them.
TEST(DispatchPaths, RecordBaseline) {
    if (std::getenv("QX_PRINT_PATH_DIGESTS") == nullptr)
        GTEST_SKIP() << "set QX_PRINT_PATH_DIGESTS to print the baseline's digests";
    ASSERT_EQ(prim::selectCodePath(), 0)
        << "record the baseline from a build with QX_BASELINE_ONLY";
    for (const Result& r : runAll()) {
        for (const std::string& p : r.problems) ADD_FAILURE() << p;
        std::printf("    {\"%s\", 0x%016llXull},\n", r.name.c_str(),
                    static_cast<unsigned long long>(r.digest));
    }
}

}  // namespace
