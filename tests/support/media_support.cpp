#include "support/media_support.h"

#include <chrono>
#include <thread>

namespace camctl_test {

bool WaitFor(const std::function<bool()>& cond, int timeout_ms) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

}  // namespace camctl_test
