// Keep-cut matting, foreground recovery and the hair brush on one request: image and region
// sizes, strokes, engines, frames, merge modes and colours chosen by the fuzzer.
#include <cstddef>
#include <cstdint>

#include "fuzz_host.h"

using namespace qxfuzz;

namespace {

struct Document {
    int fw, fh;
    HostPlane src, alpha, dst, aux, colours;
    bool auxIsRecord = false;  // aux holds the same strokes as alpha, as a host keeps it

    Document(Input& in, int fw, int fh)
        : fw(fw),
          fh(fh),
          src(fw, fh, 4, stepFor(in, fw, 4)),
          alpha(fw, fh, 1, stepFor(in, fw, 1)),
          dst(fw, fh, 4, stepFor(in, fw, 4)),
          aux(fw, fh, 1, stepFor(in, fw, 1)),
          colours(6, 1, 1, 6) {
        for (HostPlane* p : {&src, &alpha, &dst, &aux, &colours}) p->fill(in, p == &alpha || p == &aux);
        if (in.range<int>(0, 3) != 0 && alpha.stepValid() && aux.stepValid()) {
            auxIsRecord = true;
            for (int y = 0; y < fh; ++y)
                for (int x = 0; x < fw; ++x) aux.at(x, y) = alpha.at(x, y);
            aux.snapshot();
        }
    }
    bool planesValid(bool withDst) const {
        return validShape(fw, fh, src.step(), 4) && validShape(fw, fh, alpha.step(), 1) &&
               validShape(fw, fh, aux.step(), 1) &&
               (!withDst || validShape(fw, fh, dst.step(), 4));
    }
    void snapshot() { snapshotAll(src, alpha, dst, aux, colours); }
    void checkUntouched(const char* call) const { untouched(call, src, alpha, dst, aux, colours); }
};

KeepCutRequest requestFor(Input& in, Document& d, int* calls) {
    KeepCutRequest r{.srcImage = d.src.data(), .srcStep = d.src.step(),
                     .alphaPlane = d.alpha.data(), .alphaStep = d.alpha.step(),
                     .dstImage = in.range<int>(0, 15) == 0 ? nullptr : d.dst.data(),
                     .dstStep = d.dst.step(), .auxPlane = d.aux.data(), .auxStep = d.aux.step(),
                     .fullWidth = d.fw, .fullHeight = d.fh};
    rectFor(in, d.fw, d.fh, r.roiX, r.roiY, r.roiWidth, r.roiHeight);
    r.regionMode = in.flag() ? 0 : in.wideInt(1, 8);
    r.recoverFlag = in.range<int>(0, 3) == 0 ? in.byte() : 0;
    if (in.flag()) {
        r.progProc = progressProbe;
        r.progParam = calls;
    }
    r.foreColor = d.colours.data();
    r.backColor = d.colours.data() + 3;
    r.mergeMode = in.wideInt(-1, 2);
    return r;
}

bool regionValid(const KeepCutRequest& r) {
    return r.fullWidth >= 1 && r.fullHeight >= 1 && r.roiWidth >= 1 && r.roiHeight >= 1 &&
           r.roiX >= 0 && r.roiY >= 0 && int64_t(r.roiX) + r.roiWidth <= r.fullWidth &&
           int64_t(r.roiY) + r.roiHeight <= r.fullHeight;
}

void keepCut(Input& in, Document& d, KeepCutRequest& r) {
    const int hiRes = in.range<int>(0, 2);
    const int32_t pixels = int32_t(uint32_t(r.roiWidth) * uint32_t(r.roiHeight));
    const bool window = r.regionMode != 0 && pixels < 937024;
    const bool needsDst = !window || r.recoverFlag != 0;
    const bool refuse = !regionValid(r) || !d.planesValid(needsDst) ||
                        (needsDst && r.dstImage == nullptr);
    const std::vector<uint8_t> before = d.alpha.pixels();
    d.snapshot();
    const int rc = qxKeepCutToAlpha(&r, hiRes);
    const char* call = "qxKeepCutToAlpha";
    if (refused(refuse, rc, -1000, call, d)) return;
    untouched(call, d.src, d.aux, d.colours);
    writable(call, d.alpha, d.dst);
    expect(d.alpha.unchangedOutside(r.roiX, r.roiY, r.roiWidth, r.roiHeight),
           "alpha written outside the region", call);
    expect(d.dst.unchangedOutside(r.roiX, r.roiY, r.roiWidth, r.roiHeight),
           "dstImage written outside the region", call);
    expect(rc == 1 || rc == -1 || rc == -5 || rc == -1000 || rc == 102 || rc == 103 || rc == 112 ||
               rc == 113 || (rc >= 121 && rc <= 123) || rc == 125 || rc == 130,
           "status outside the documented set", call);
    // The paint flags are back however the call ends, taken from the host's record (auxPlane)
    // where a call had to restore them; painted bytes come back as they were when it succeeds.
    for (int y = r.roiY; y < r.roiY + r.roiHeight; ++y)
        for (int x = r.roiX; x < r.roiX + r.roiWidth; ++x) {
            const uint8_t was = before[size_t(y) * d.fw + x], now = d.alpha.at(x, y);
            const uint8_t record = d.aux.at(x, y);
            if (d.auxIsRecord) {
                expect((was & 1) == (now & 1), "a paint flag was not restored", call);
                if (rc == 1 && (was & 1)) expect(now == was, "a painted byte changed", call);
            } else {
                expect((now & 1) == (was & 1) || (now & 1) == (record & 1),
                       "a paint flag from neither the plane nor the record", call);
            }
        }
    if (rc == -5 && d.auxIsRecord)
        expect(d.alpha.unchanged(), "too few strokes, yet the plane changed", call);
}

void recover(Input& in, Document& d, KeepCutRequest& r) {
    const bool cell = in.flag();
    const bool refuse = !regionValid(r) || r.dstImage == nullptr ||
                        !validShape(d.fw, d.fh, d.src.step(), 4) ||
                        !validShape(d.fw, d.fh, d.alpha.step(), 1) ||
                        !validShape(d.fw, d.fh, d.dst.step(), 4) ||
                        (!cell && !validShape(d.fw, d.fh, d.aux.step(), 1));
    if (cell && in.flag()) r.auxPlane = nullptr;  // not read by the cell-wise recovery
    const std::vector<uint8_t> byte3 = refuse ? std::vector<uint8_t>() : d.dst.channel(3);
    d.snapshot();
    const int64_t rc = cell ? qxRecoverForegroundCell(&r, 0) : qxRecoverForeground(&r, in.byte());
    const char* call = cell ? "qxRecoverForegroundCell" : "qxRecoverForeground";
    if (refused(refuse, rc, int64_t(-2), call, d)) return;
    untouched(call, d.src, d.alpha, d.aux, d.colours);
    d.dst.checkWritable(call);
    const int64_t done = cell ? 1 : 0;
    if (rc != done) {
        expect(rc == -1000 || (rc <= -870 && rc >= -989) || rc == -1001,
               "status outside the documented set", call);
        if (!cell) expect(d.dst.unchanged(), "dstImage written by a failed recovery", call);
        return;
    }
    expect(d.dst.unchangedOutside(r.roiX, r.roiY, r.roiWidth, r.roiHeight),
           "dstImage written outside the region", call);
    if (cell) return;
    // Byte 3 and a frame of 3 pixels stay.
    expect(d.dst.unchangedOutside(r.roiX + 3, r.roiY + 3, r.roiWidth - 6, r.roiHeight - 6),
           "the frame of 3 pixels was written", call);
    expect(d.dst.channel(3) == byte3, "byte 3 of dstImage changed", call);
}

void hair(Input& in, Document& d, KeepCutRequest& r) {
    const int x1 = in.wideInt(-2, d.fw + 1), y1 = in.wideInt(-2, d.fh + 1);
    const int x2 = in.wideInt(-2, d.fw + 1), y2 = in.wideInt(-2, d.fh + 1);
    const unsigned radius = in.flag() ? in.range<unsigned>(0, 6) : in.range<unsigned>(0, ~0u);
    if (in.range<int>(0, 15) == 0) r.foreColor = nullptr;
    const bool refuse = r.foreColor == nullptr || !validShape(d.fw, d.fh, d.src.step(), 4) ||
                        !validShape(d.fw, d.fh, d.alpha.step(), 1) || radius > 16383 ||
                        x1 < 0 || y1 < 0 || x2 < 0 || y2 < 0 || x1 >= d.fw || x2 >= d.fw ||
                        y1 >= d.fh || y2 >= d.fh;
    const std::vector<uint8_t> before = d.alpha.pixels();
    d.snapshot();
    const int64_t rc = qxHairSelect(&r, x1, y1, x2, y2, radius);
    const char* call = "qxHairSelect";
    expect(rc == 1, "status other than 1", call);
    if (refuse) return d.checkUntouched(call);
    untouched(call, d.src, d.dst, d.aux, d.colours);
    d.alpha.checkWritable(call);
    const int64_t left = std::max<int64_t>(std::min(x1, x2) - int64_t(radius), 0);
    const int64_t top = std::max<int64_t>(std::min(y1, y2) - int64_t(radius), 0);
    const int64_t right = std::min<int64_t>(std::max(x1, x2) + int64_t(radius), d.fw - 1);
    const int64_t bottom = std::min<int64_t>(std::max(y1, y2) + int64_t(radius), d.fh - 1);
    d.alpha.eachPixel(before, [&](int x, int y, uint8_t was, uint8_t now) {
        if (was == now) return;
        expect(x >= left && x <= right && y >= top && y <= bottom,
               "alpha written outside the stroke's box", call);
        expect((now & 1) == 1, "a brushed pixel without its paint flag", call);
    });
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const bool hostile = in.range<int>(0, 15) == 0;
    const int fw = hostile ? in.range<int>(-1, 2) : in.range<int>(1, 40);
    const int fh = hostile ? in.range<int>(-1, 2) : in.range<int>(1, 40);
    Document d(in, fw, fh);
    int calls = 0;
    KeepCutRequest r = requestFor(in, d, &calls);
    switch (in.range<int>(0, 3)) {
    case 0:
    case 1: keepCut(in, d, r); break;
    case 2: recover(in, d, r); break;
    default: hair(in, d, r);
    }
    return 0;
}
