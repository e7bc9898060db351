// Image containers. An image is one rectangular buffer with a region of interest that can be
// narrowed (border, roiRect, or by writing width/height) and restored. It either owns its
// buffer, with a guard row behind the pixels that is checked at destruction, or wraps memory the
// host gave it (no guard, never freed).
//
// Failures are thrown as plain ints: 102 no memory, 112/113 no memory for an image wider/higher
// than 5000, 103 guard row overwritten. The exported entries turn them into statuses.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <type_traits>

#include "runtime/fault.h"
#include "image/primitives.h"

namespace qx {

template <typename T>
struct GuardTraits;
template <>
struct GuardTraits<unsigned char> {
    static constexpr bool kChecked = true;
    static void write(void* row, int n) { std::memset(row, 109, static_cast<size_t>(n)); }
    static bool intact(const void* row, int n) {
        const auto* p = static_cast<const unsigned char*>(row);
        for (int i = 0; i < n; ++i)
            if (p[i] != 109) return false;
        return true;
    }
};
template <>
struct GuardTraits<float> {
    static constexpr bool kChecked = true;
    static constexpr uint32_t kWord = 0x6d676effu;
    static void write(void* row, int n) {
        auto* p = static_cast<uint32_t*>(row);
        for (int i = 0; i < n; ++i) p[i] = kWord;
    }
    static bool intact(const void* row, int n) {
        const auto* p = static_cast<const uint32_t*>(row);
        for (int i = 0; i < n; ++i)
            if (p[i] != kWord) return false;
        return true;
    }
};
template <>
struct GuardTraits<short> {
    static constexpr bool kChecked = false;  // 16-bit images carry no tested guard
    static void write(void*, int) {}
    static bool intact(const void*, int) { return true; }
};
template <>
struct GuardTraits<unsigned short> : GuardTraits<short> {};

template <typename T, int C>
class IMG {
public:
    // Owned image of width x height pixels.
    IMG(int w, int h) { allocate(w, h); }
    // Wraps the caller's buffer as it stands; a null pointer allocates instead.
    IMG(int w, int h, void* pointer, int rowStep) {
        if (pointer == nullptr) {
            allocate(w, h);
            return;
        }
        rawPtr = pointer;
        data = static_cast<T*>(pointer);
        fromPrimitive = 0;
        wrapped = 1;
        step = rowStep;
        allocWidth = width = w;
        allocHeight = height = h;
        status = 1;
    }
    IMG(const IMG&) = delete;
    IMG& operator=(const IMG&) = delete;

    // Checks the guard (throws 103 when it was overwritten, after releasing the buffer, unless
    // an exception is already on its way out) and frees an owned buffer.
    virtual ~IMG() noexcept(false) {
        if (wrapped || rawPtr == nullptr) return;
        bool intact = true;
        if (GuardTraits<T>::kChecked) {
            const auto* guard = static_cast<const unsigned char*>(rawPtr) +
                                static_cast<int64_t>(step) * allocHeight;
            intact = GuardTraits<T>::intact(guard, allocWidth);
        }
        release();
        if (!intact && std::uncaught_exceptions() == 0) fail(Fault::GuardRow);
    }

    // Moves the top-left corner of the region by dx pixels and dy rows, shrinking it.
    virtual void border(int dx, int dy) {
        data = reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(data) +
                                    static_cast<int64_t>(dx) * C * sizeof(T) +
                                    static_cast<int64_t>(dy) * step);
        width -= dx;
        height -= dy;
    }
    virtual void restoreRect() {
        data = static_cast<T*>(rawPtr);
        width = allocWidth;
        height = allocHeight;
    }
    void roiRect(int x, int y, int dw, int dh) {
        border(x, y);
        width += dw;
        height += dh;
    }
    T* ptr(int x, int y) const {
        return reinterpret_cast<T*>(reinterpret_cast<unsigned char*>(data) +
                                    static_cast<int64_t>(x) * C * sizeof(T) +
                                    static_cast<int64_t>(y) * step);
    }
    T* row(int y) const { return ptr(0, y); }
    prim::Size size() const { return {width, height}; }

    void* rawPtr = nullptr;
    unsigned char fromPrimitive = 0;
    unsigned char wrapped = 0;
    T* data = nullptr;
    int step = 0;
    int allocWidth = 0;
    int allocHeight = 0;
    int width = 0;
    int height = 0;
    int status = 1;

private:
    void allocate(int w, int h) {
        allocWidth = width = w;
        allocHeight = height = h;
        status = 1;
        wrapped = 0;
        const int64_t rowBytes64 = static_cast<int64_t>(w) * C * static_cast<int64_t>(sizeof(T));
        // An empty image is valid (the fallback below gives it a guard row); a negative or
        // absurd size is a failed allocation.
        if (w < 0 || h < 0 || rowBytes64 > INT32_MAX / 2) throwNoMemory();
        const int rowBytes = static_cast<int>(rowBytes64);
        step = rowBytes;
        int pitch = 0;
        void* p = prim::allocPlane(rowBytes, h + 1, &pitch);
        if (p) {
            rawPtr = p;
            step = pitch;
            fromPrimitive = 1;
        } else {
            const int64_t padded = (rowBytes / 16) * 16 + 16;
            const int64_t total = padded * h + padded;
            p = (total > 0 && total < (int64_t(1) << 40) && !prim::takeInjectedFailure())
                    ? std::malloc(static_cast<size_t>(total))
                    : nullptr;
            if (!p) throwNoMemory();
            rawPtr = p;
            step = static_cast<int>(padded);
            fromPrimitive = 0;
        }
        data = static_cast<T*>(rawPtr);
        GuardTraits<T>::write(static_cast<unsigned char*>(rawPtr) + static_cast<int64_t>(step) * h,
                              allocWidth);
    }
    [[noreturn]] void throwNoMemory() const {
        if (allocWidth > 5000) fail(Fault::WideImageMemory);
        if (allocHeight > 5000) fail(Fault::HighImageMemory);
        fail(Fault::ImageMemory);
    }
    void release() {
        if (fromPrimitive)
            prim::freeAligned(rawPtr);
        else
            std::free(rawPtr);
        rawPtr = nullptr;
        data = nullptr;
    }
};

template <typename T>
class GIMG : public IMG<T, 1> {
public:
    using IMG<T, 1>::IMG;
};

template <typename T>
class IMG3 : public IMG<T, 3> {
public:
    using IMG<T, 3>::IMG;
};

// ---- Wrappers: whole-region primitives; the destination's status receives the result. -------

inline void Set(unsigned char v, IMG<unsigned char, 1>& d) {
    d.status = prim::set_8u_C1(v, d.data, d.step, d.size());
}
inline void Set(short v, IMG<short, 1>& d) {
    d.status = prim::set_16s_C1(v, d.data, d.step, d.size());
}
inline void Set(float v, IMG<float, 1>& d) {
    d.status = prim::set_32f_C1(v, d.data, d.step, d.size());
}
inline void Set(const float v[3], IMG<float, 3>& d) {
    d.status = prim::set_32f_C3(v, d.data, d.step, d.size());
}

// Copies the destination's region size from the source.
inline void Copy(const IMG<unsigned char, 1>& s, IMG<unsigned char, 1>& d) {
    d.status = prim::copy_8u_C1(s.data, s.step, d.data, d.step, d.size());
}
inline void Copy(const IMG<unsigned char, 3>& s, IMG<unsigned char, 3>& d) {
    d.status = prim::copy_8u_C3(s.data, s.step, d.data, d.step, d.size());
}
inline void Copy(const IMG<short, 1>& s, IMG<short, 1>& d) {
    d.status = prim::copy_16s_C1(s.data, s.step, d.data, d.step, d.size());
}
inline void Copy(const IMG<float, 1>& s, IMG<float, 1>& d) {
    d.status = prim::copy_32f_C1(s.data, s.step, d.data, d.step, d.size());
}
inline void Copy(const IMG<float, 3>& s, IMG<float, 3>& d) {
    d.status = prim::copy_32f_C3(s.data, s.step, d.data, d.step, d.size());
}

// 8-bit arithmetic in place on the destination: Add and Sub with scale factor 0, Mul with the
// caller's.
inline void Add(const IMG<unsigned char, 1>& s, IMG<unsigned char, 1>& d) {
    d.status = prim::add_8u_C1IS(s.data, s.step, d.data, d.step, d.size(), 0);
}
inline void Sub(const IMG<unsigned char, 1>& s, IMG<unsigned char, 1>& d) {
    d.status = prim::sub_8u_C1IS(s.data, s.step, d.data, d.step, d.size(), 0);
}
inline void Mul(const IMG<unsigned char, 1>& s, IMG<unsigned char, 1>& d, int scale) {
    d.status = prim::mul_8u_C1IS(s.data, s.step, d.data, d.step, d.size(), scale);
}
inline void Add(const IMG<float, 1>& s, IMG<float, 1>& d) {
    d.status = prim::add_32f_C1I(s.data, s.step, d.data, d.step, d.size());
}
inline void Mul(const IMG<float, 1>& s, IMG<float, 1>& d) {
    d.status = prim::mul_32f_C1I(s.data, s.step, d.data, d.step, d.size());
}
inline void Div(const IMG<float, 1>& s, IMG<float, 1>& d) {
    d.status = prim::div_32f_C1I(s.data, s.step, d.data, d.step, d.size());
}

inline void Convert(const IMG<unsigned char, 1>& s, IMG<float, 1>& d) {
    d.status = prim::convert_8u32f_C1(s.data, s.step, d.data, d.step, d.size());
}
inline void Convert(const IMG<short, 1>& s, IMG<float, 1>& d) {
    d.status = prim::convert_16s32f_C1(s.data, s.step, d.data, d.step, d.size());
}
inline void Convert(const IMG<float, 1>& s, IMG<unsigned char, 1>& d) {
    d.status = prim::convert_32f8u_C1(s.data, s.step, d.data, d.step, d.size());
}
inline void Convert(const IMG<float, 1>& s, IMG<short, 1>& d) {
    d.status = prim::convert_32f16s_C1(s.data, s.step, d.data, d.step, d.size());
}

// Copies the outer `n` rows and columns of src into dst (top, bottom, left, right), for filters
// that leave a frame of the image unfiltered. Both images have the same region size.
inline void copyFrame(const IMG<unsigned char, 1>& s, IMG<unsigned char, 1>& d, int n) {
    const int w = d.width, h = d.height;
    if (w < 1 || h < 1 || n < 1) return;
    const int rows = n < h ? n : h, cols = n < w ? n : w;
    prim::copy_8u_C1(s.data, s.step, d.data, d.step, {w, rows});
    prim::copy_8u_C1(s.ptr(0, h - rows), s.step, d.ptr(0, h - rows), d.step, {w, rows});
    prim::copy_8u_C1(s.data, s.step, d.data, d.step, {cols, h});
    prim::copy_8u_C1(s.ptr(w - cols, 0), s.step, d.ptr(w - cols, 0), d.step, {cols, h});
}

// The lesser / greater of two floats by address; on a tie, the first.
inline const float* fminPtr(const float* a, const float* b) { return *b < *a ? b : a; }
inline const float* fmaxPtr(const float* a, const float* b) { return *b > *a ? b : a; }

}  // namespace qx
