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

void MediaLog::OnAudio(const unsigned short* buf, int count, int rate) {
    std::lock_guard<std::mutex> lock(mutex_);
    const auto* s = reinterpret_cast<const int16_t*>(buf);
    samples_.insert(samples_.end(), s, s + count);
    rate_changes_ += rate != rate_;
    rate_ = rate;
}

void MediaLog::OnPicture(const unsigned char* buf, int width, int height, bool yuv) {
    const size_t size = static_cast<size_t>(width) * height * (yuv ? 3 : 6) / 2;
    std::lock_guard<std::mutex> lock(mutex_);
    pictures_.emplace_back(buf, buf + size);
    sizes_.emplace_back(width, height);
}

size_t MediaLog::SampleCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return samples_.size();
}
std::vector<int16_t> MediaLog::Samples() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return samples_;
}
int MediaLog::Rate() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return rate_;
}
int MediaLog::RateChanges() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return rate_changes_;
}
size_t MediaLog::PictureCount() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return pictures_.size();
}
std::vector<MediaLog::Picture> MediaLog::Pictures(std::vector<std::pair<int, int>>* sizes) const {
    std::lock_guard<std::mutex> lock(mutex_);
    if (sizes) *sizes = sizes_;
    return pictures_;
}

}  // namespace camctl_test
