// A GrabCut session as an editor runs it: cut, paint, cut again, now and then a request the
// session must refuse, the tri-map of the selection's edge, and the end of the session; planes,
// rectangles, codes and band widths chosen by the fuzzer.
#include <cstddef>
#include <cstdint>

#include "fuzz_host.h"

using namespace qxfuzz;

namespace {

struct Session {
    int w, h;
    HostPlane image, mask, result;
    bool withResult;
    GrabCutRequest req{};

    Session(Input& in, int w, int h)
        : w(w),
          h(h),
          image(w, h, 4, stepFor(in, w, 4)),
          mask(w, h, 1, stepFor(in, w, 1)),
          result(w, h, 1, stepFor(in, w, 1)),
          withResult(in.range<int>(0, 3) != 0) {
        for (HostPlane* p : {&image, &mask, &result}) p->fill(in, p != &image);
        req = {.image = image.data(), .imageStep = image.step(), .mask = mask.data(),
               .maskStep = mask.step(), .result = withResult ? result.data() : nullptr,
               .resultStep = result.step(), .width = w, .height = h};
    }
    bool planesValid() const {
        return validShape(w, h, image.step(), 4) && validShape(w, h, mask.step(), 1) &&
               (!withResult || validShape(w, h, result.step(), 1));
    }
    // The planes of the code tools (edge band, end of session): the image is not read there.
    bool codePlanesValid() const {
        return validShape(w, h, mask.step(), 1) &&
               (!withResult || validShape(w, h, result.step(), 1));
    }
    bool roiValid() const {
        return req.roiWidth >= 1 && req.roiHeight >= 1 && req.roiLeft >= 0 && req.roiTop >= 0 &&
               int64_t(req.roiLeft) + req.roiWidth <= w && int64_t(req.roiTop) + req.roiHeight <= h;
    }
    void snapshot() { snapshotAll(image, mask, result); }
    std::vector<uint8_t> roiBytes(HostPlane& p) {
        std::vector<uint8_t> v;
        for (int y = req.roiTop; y < req.roiTop + req.roiHeight; ++y)
            for (int x = req.roiLeft; x < req.roiLeft + req.roiWidth; ++x) v.push_back(p.at(x, y));
        return v;
    }
    void checkOutsideRoi(const char* call) {
        image.checkUntouched(call);
        writable(call, mask, result);
        expect(mask.unchangedOutside(req.roiLeft, req.roiTop, req.roiWidth, req.roiHeight),
               "mask written outside the rectangle", call);
        expect(result.unchangedOutside(req.roiLeft, req.roiTop, req.roiWidth, req.roiHeight),
               "result written outside the rectangle", call);
    }
};

// One cut. `expectRefusal`: the caller knows the control does not fit this request.
void cut(Input& in, Session& s, bool expectRefusal) {
    const bool refuse = expectRefusal || !s.planesValid() || !s.roiValid();
    const auto maskBefore = s.roiValid() && s.planesValid() ? s.roiBytes(s.mask)
                                                            : std::vector<uint8_t>();
    void* const controlBefore = s.req.control;
    s.snapshot();
    const int rc = qxGrabCut(&s.req, in.byte());
    const char* call = "qxGrabCut";
    if (refused(refuse, rc, 0, call, s.image, s.mask, s.result))
        return expect(s.req.control == controlBefore, "a refused call changed the control", call);
    s.checkOutsideRoi(call);
    if (rc != 1) {
        expect(rc == 102 || rc == 103 || rc == 112 || rc == 113 || rc == -1000,
               "status outside the documented set", call);
        expect(s.mask.unchanged() && s.result.unchanged(), "a failed cut left changes", call);
        return;
    }
    expect(s.req.control != nullptr, "no control after a cut", call);
    const auto maskAfter = s.roiBytes(s.mask);
    for (size_t i = 0; i < maskAfter.size(); ++i)
        if (maskBefore[i] & 1) expect(maskAfter[i] == maskBefore[i], "a fixed code changed", call);
    if (s.withResult) expect(s.roiBytes(s.result) == maskAfter, "result differs from mask", call);
    else expect(s.result.unchanged(), "result written though not given", call);
}

// The user paints between cuts: strokes of fixed and leaning codes in the rectangle.
void paint(Input& in, Session& s) {
    if (!s.planesValid() || !s.roiValid()) return;
    const int n = in.range<int>(0, 6);
    for (int i = 0; i < n; ++i) {
        const int x = s.req.roiLeft + in.range<int>(0, s.req.roiWidth - 1);
        const int y = s.req.roiTop + in.range<int>(0, s.req.roiHeight - 1);
        const int len = in.range<int>(1, 12);
        const uint8_t code = codeFromByte(in.byte());
        for (int k = 0; k < len && x + k < s.req.roiLeft + s.req.roiWidth; ++k)
            s.mask.at(x + k, y) = code;
    }
}

void edgeGen(Input& in, Session& s) {
    const int band = in.wideInt(0, 12);
    const bool refuse = !s.withResult || !s.codePlanesValid() || !s.roiValid() || band < 0 ||
                        band > 32767;
    const auto resultBytes = !refuse ? s.roiBytes(s.result) : std::vector<uint8_t>();
    s.snapshot();
    qxGrabCutEdgeGen(&s.req, band);
    const char* call = "qxGrabCutEdgeGen";
    untouched(call, s.image, s.result);
    if (refuse) return s.mask.checkUntouched(call);
    s.checkOutsideRoi(call);
    const auto m = s.roiBytes(s.mask);
    for (size_t i = 0; i < m.size(); ++i) {
        if (resultBytes[i] & 1) expect(m[i] == resultBytes[i], "a fixed code not carried", call);
        else expect(m[i] == 0 || m[i] == 126 || m[i] == 254, "a code outside 0/126/254", call);
    }
}

uint8_t settled(uint8_t v) {
    if (v <= 1) return 1;
    if (v >= 254) return 255;
    return uint8_t(v & 254);
}

// Ends the session: the settled mask codes of the rectangle go into mask and result. The image
// is not read, so only the rectangle and the code planes decide whether codes are written.
void finish(Session& s) {
    const bool codes = s.roiValid() && s.codePlanesValid();
    const auto maskBefore = codes ? s.roiBytes(s.mask) : std::vector<uint8_t>();
    s.snapshot();
    qxGrabCutDeleteBuf(&s.req);
    const char* call = "qxGrabCutDeleteBuf";
    expect(s.req.control == nullptr, "control not cleared", call);
    s.image.checkUntouched(call);
    if (!codes) return untouched(call, s.mask, s.result);
    s.checkOutsideRoi(call);
    const auto m = s.roiBytes(s.mask);
    for (size_t i = 0; i < m.size(); ++i)
        expect(m[i] == settled(maskBefore[i]), "mask code not settled as documented", call);
    if (s.withResult) expect(s.roiBytes(s.result) == m, "result differs from the settled mask", call);
    else s.result.checkUntouched(call);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Input in(data, size);
    const bool hostile = in.range<int>(0, 15) == 0;
    const int w = hostile ? in.range<int>(-1, 2) : in.range<int>(1, 36);
    const int h = hostile ? in.range<int>(-1, 2) : in.range<int>(1, 36);
    Session s(in, w, h);
    rectFor(in, w, h, s.req.roiLeft, s.req.roiTop, s.req.roiWidth, s.req.roiHeight);
    cut(in, s, false);
    const int steps = in.range<int>(0, 4);
    for (int i = 0; i < steps && in.remaining() > 0; ++i) {
        switch (in.range<int>(0, 4)) {
        case 0:
        case 1: paint(in, s), cut(in, s, false); break;
        case 2: {
            // Another rectangle size with the same control: refused, nothing written.
            if (s.req.control == nullptr) break;
            const GrabCutRequest keep = s.req;
            s.req.roiWidth += in.range<int>(1, 3);
            cut(in, s, true);
            s.req = keep;
            break;
        }
        case 3: {
            // A control the library never made.
            HostPlane fake(64, 1, 1, 64);
            fake.fill(in, false);
            const GrabCutRequest keep = s.req;
            s.req.control = fake.data();
            cut(in, s, true);
            s.snapshot();
            qxGrabCutDeleteBuf(&s.req);
            expect(s.req.control == fake.data(), "a foreign control was cleared",
                   "qxGrabCutDeleteBuf");
            untouched("qxGrabCutDeleteBuf", s.mask, s.result, fake);
            s.req = keep;
            break;
        }
        default: edgeGen(in, s);
        }
    }
    finish(s);
    return 0;
}
