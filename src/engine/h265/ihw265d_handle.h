// Owner of a context's IHW265D instance. The decode thread may create it
// while the reader only asks whether one exists, so the handle is atomic.
// The instance is deleted by reset() or when the owner goes away.
#pragma once

#include <atomic>

#include "engine/h265/IHW265D.h"

namespace camctl {

class Ihw265dHandle {
public:
    Ihw265dHandle() = default;
    ~Ihw265dHandle() { reset(); }
    Ihw265dHandle(const Ihw265dHandle&) = delete;
    Ihw265dHandle& operator=(const Ihw265dHandle&) = delete;

    IHW265D_HANDLE get() const { return handle_.load(std::memory_order_acquire); }
    explicit operator bool() const { return get() != nullptr; }

    // Takes ownership of h (may be null), deleting the previous instance.
    void reset(IHW265D_HANDLE h = nullptr) {
        IHW265D_HANDLE old = handle_.exchange(h, std::memory_order_acq_rel);
        if (old) IHW265D_Delete(old);
    }

private:
    std::atomic<IHW265D_HANDLE> handle_{nullptr};
};

}  // namespace camctl
