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
        src.fill(in, false);
        alpha.fill(in, true);
        dst.fill(in, false);
        aux.fill(in, true);
        colours.fill(in, false);
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
    void snapshot() {
        src.snapshot();
        alpha.snapshot();
        dst.snapshot();
        aux.snapshot();
        colours.snapshot();
    }
    void checkUntouched(const char* call) const {
        src.checkUntouched(call);
        alpha.checkUntouched(call);
        dst.checkUntouched(call);
        aux.checkUntouched(call);
        colours.checkUntouched(call);
    }
};

KeepCutRequest requestFor(Input& in, Document& d, int* calls) {
    KeepCutRequest r{};
    r.srcImage = d.src.data();
    r.srcStep = d.src.step();
    r.alphaPlane = d.alpha.data();
    r.alphaStep = d.alpha.step();
    r.dstImage = in.range<int>(0, 15) == 0 ? nullptr : d.dst.data();
    r.dstStep = d.dst.step();
    r.auxPlane = d.aux.data();
    r.auxStep = d.aux.step();
    r.fullWidth = d.fw;
    r.fullHeight = d.fh;
    if (in.range<int>(0, 7) == 0) {
        r.roiX = in.wideInt(-2, d.fw);
        r.roiY = in.wideInt(-2, d.fh);
        r.roiWidth = in.wideInt(-1, d.fw + 2);
        r.roiHeight = in.wideInt(-1, d.fh + 2);
    } else {
        r.roiX = in.range<int>(0, std::max(d.fw - 1, 0));
        r.roiY = in.range<int>(0, std::max(d.fh - 1, 0));
        r.roiWidth = in.range<int>(1, std::max(d.fw - r.roiX, 1));
        r.roiHeight = in.range<int>(1, std::max(d.fh - r.roiY, 1));
    }
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
    trace("qxKeepCutToAlpha full %dx%d roi %d,%d %dx%d regionMode %d recover %d merge %d "
          "hiRes %d steps %d %d %d %d dst %p\n",
          r.fullWidth, r.fullHeight, r.roiX, r.roiY, r.roiWidth, r.roiHeight, r.regionMode,
          r.recoverFlag, r.mergeMode, hiRes, r.srcStep, r.alphaStep, r.dstStep, r.auxStep,
          static_cast<void*>(r.dstImage));
    const int rc = qxKeepCutToAlpha(&r, hiRes);
    trace("  -> %d\n", rc);
    const char* call = "qxKeepCutToAlpha";
    if (refused(refuse, rc, -1000, call, d)) return;
    d.src.checkUntouched(call);
    d.aux.checkUntouched(call);
    d.colours.checkUntouched(call);
    d.alpha.checkWritable(call);
    d.dst.checkWritable(call);
    expect(d.alpha.unchangedOutside(r.roiX, r.roiY, r.roiWidth, r.roiHeight),
           "alpha written outside the region", call);
    expect(d.dst.unchangedOutside(r.roiX, r.roiY, r.roiWidth, r.roiHeight),
           "dstImage written outside the region", call);
    expect(rc == 1 || rc == -1 || rc == -5 || rc == -1000 || rc == 102 || rc == 103 ||
               rc == 112 || rc == 113 || (rc >= 121 && rc <= 123) || rc == 125 || rc == 130,
           "status outside the documented set", call);
    // The paint flags are back however the call ends, taken from the host's record (auxPlane)
    // where a call had to restore them; painted bytes come back as they were when it succeeds.
    for (int y = r.roiY; y < r.roiY + r.roiHeight; ++y)
        for (int x = r.roiX; x < r.roiX + r.roiWidth; ++x) {
            const uint8_t was = before[size_t(y) * d.fw + x], now = d.alpha.at(x, y);
            const uint8_t record = d.aux.at(x, y);
            if ((was & 1) != (now & 1))
                trace("  (%d,%d) %d -> %d, aux %d\n", x, y, int(was), int(now), int(record));
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
    std::vector<uint8_t> byte3;
    if (!refuse)
        for (int y = 0; y < d.fh; ++y)
            for (int x = 0; x < d.fw; ++x) byte3.push_back(d.dst.at(size_t(x) * 4 + 3, y));
    d.snapshot();
    trace("%s full %dx%d roi %d,%d %dx%d regionMode %d\n", cell ? "cell" : "whole", d.fw, d.fh,
          r.roiX, r.roiY, r.roiWidth, r.roiHeight, r.regionMode);
    const int64_t rc = cell ? qxRecoverForegroundCell(&r, 0) : qxRecoverForeground(&r, in.byte());
    const char* call = cell ? "qxRecoverForegroundCell" : "qxRecoverForeground";
    if (refused(refuse, rc, int64_t(-2), call, d)) return;
    d.src.checkUntouched(call);
    d.alpha.checkUntouched(call);
    d.aux.checkUntouched(call);
    d.colours.checkUntouched(call);
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
    if (!cell) {
        // Byte 3 and a frame of 3 pixels stay.
        expect(d.dst.unchangedOutside(r.roiX + 3, r.roiY + 3, r.roiWidth - 6, r.roiHeight - 6),
               "the frame of 3 pixels was written", call);
    }
    if (!cell)
        for (int y = 0; y < d.fh; ++y)
            for (int x = 0; x < d.fw; ++x)
                expect(d.dst.at(size_t(x) * 4 + 3, y) == byte3[size_t(y) * d.fw + x],
                       "byte 3 of dstImage changed", call);
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
    trace("qxHairSelect %dx%d (%d,%d)-(%d,%d) radius %u\n", d.fw, d.fh, x1, y1, x2, y2, radius);
    const int64_t rc = qxHairSelect(&r, x1, y1, x2, y2, radius);
    const char* call = "qxHairSelect";
    expect(rc == 1, "status other than 1", call);
    if (refuse) {
        d.checkUntouched(call);
        return;
    }
    d.src.checkUntouched(call);
    d.dst.checkUntouched(call);
    d.aux.checkUntouched(call);
    d.colours.checkUntouched(call);
    d.alpha.checkWritable(call);
    const int64_t left = std::max<int64_t>(std::min(x1, x2) - int64_t(radius), 0);
    const int64_t top = std::max<int64_t>(std::min(y1, y2) - int64_t(radius), 0);
    const int64_t right = std::min<int64_t>(std::max(x1, x2) + int64_t(radius), d.fw - 1);
    const int64_t bottom = std::min<int64_t>(std::max(y1, y2) + int64_t(radius), d.fh - 1);
    for (int y = 0; y < d.fh; ++y)
        for (int x = 0; x < d.fw; ++x) {
            const uint8_t was = before[size_t(y) * d.fw + x], now = d.alpha.at(x, y);
            if (was == now) continue;
            expect(x >= left && x <= right && y >= top && y <= bottom,
                   "alpha written outside the stroke's box", call);
            expect((now & 1) == 1, "a brushed pixel without its paint flag", call);
        }
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
