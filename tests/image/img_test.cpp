// Image containers: ownership, the guard row, regions of interest and allocation failure.
#include <gtest/gtest.h>

#include <vector>

#include "image/img.h"

namespace {

using qx::GIMG;
using qx::IMG3;

// Runs f, which is expected to throw an int (possibly from a destructor), and returns it.
template <class F>
int thrownCode(F f) {
    try {
        f();
    } catch (const qx::Failure& e) {
        return e.value();
    }
    return 0;
}

TEST(ImgContainer, WrappedImageDestructorTouchesNothing) {
    std::vector<uint8_t> host(40 * 12 + 64);
    for (size_t i = 0; i < host.size(); ++i) host[i] = static_cast<uint8_t>(i * 13);
    const std::vector<uint8_t> before = host;
    {
        auto* im = new GIMG<uint8_t>(30, 12, host.data(), 40);
        EXPECT_EQ(im->wrapped, 1);
        EXPECT_EQ(im->data, host.data());
        im->border(2, 3);
        delete im;  // through the virtual destructor, as the exported entries do
    }
    EXPECT_EQ(host, before);
}

TEST(ImgContainer, GuardRowCatchesOneElementPastTheLastRow) {
    EXPECT_EQ(thrownCode([] {
                  GIMG<uint8_t> im(10, 5);
                  im.row(4)[im.step] = 0;  // first element of the guard row
              }),
              103);
    EXPECT_EQ(thrownCode([] {
                  GIMG<float> im(6, 4);
                  im.ptr(0, 4)[5] = 1.0f;  // last guarded element
              }),
              103);
    EXPECT_EQ(thrownCode([] {
                  IMG3<uint8_t> im(6, 4);
                  im.ptr(0, 4)[5] = 0;  // 3-channel byte images guard allocWidth bytes
              }),
              103);
    // Untouched images and 16-bit images (no tested guard) leave quietly.
    EXPECT_EQ(thrownCode([] {
                  GIMG<uint8_t> a(10, 5);
                  GIMG<float> b(6, 4);
                  GIMG<short> c(6, 4);
                  c.ptr(0, 4)[0] = 1;
              }),
              0);
}

TEST(ImgContainer, FailedAllocationThrowsBySize) {
    // Both the primitive allocator and the plain fallback fail.
    qx::prim::failNextAllocations(2);
    EXPECT_EQ(thrownCode([] { GIMG<uint8_t> im(6000, 6000); }), 112);
    qx::prim::failNextAllocations(2);
    EXPECT_EQ(thrownCode([] { GIMG<uint8_t> im(100, 6000); }), 113);
    qx::prim::failNextAllocations(2);
    EXPECT_EQ(thrownCode([] { IMG3<float> im(100, 100); }), 102);
    qx::prim::failNextAllocations(0);
    EXPECT_EQ(thrownCode([] { GIMG<uint8_t> im(-1, 3); }), 102);
}

}  // namespace
