// A list of heap-allocated working images that is released as a whole.
//
// The image destructor may fail with Fault::GuardRow when a guard row was overwritten. Standard
// containers and smart pointers destroy their elements in noexcept code, where such a throw
// would end the process; this list deletes every image first and only then reports the first
// failure, and only when no other exception is already on its way out.
#pragma once

#include <exception>
#include <vector>

#include "image/img.h"

namespace qx::detail {

template <typename T>
class OwnedImages {
public:
    OwnedImages() = default;
    OwnedImages(const OwnedImages&) = delete;
    OwnedImages& operator=(const OwnedImages&) = delete;
    ~OwnedImages() noexcept(false) {
        const int err = releaseAll();
        if (err != 0 && std::uncaught_exceptions() == 0) fail(Fault(err));
    }

    // Allocates an owned image of w x h (throws the image constructor's faults).
    GIMG<T>* add(int w, int h) {
        items_.reserve(items_.size() + 1);  // so that the push below cannot throw
        auto* img = new GIMG<T>(w, h);
        items_.push_back(img);
        return img;
    }
    GIMG<T>* operator[](size_t i) const { return items_[i]; }
    size_t size() const { return items_.size(); }

    // Deletes everything; returns the first fault's value a destructor threw, or 0.
    int releaseAll() {
        int first = 0;
        for (GIMG<T>* img : items_) {
            try {
                delete img;
            } catch (const Failure& e) {
                if (first == 0) first = e.value();
            }
        }
        items_.clear();
        return first;
    }

private:
    std::vector<GIMG<T>*> items_;
};

}  // namespace qx::detail
