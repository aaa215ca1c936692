// Test support for the media tests: bounded waits and a session that keeps
// the audio and pictures the engine delivers to it.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

namespace camctl_test {

// Waits until cond holds, polling; false once timeout_ms passed (the deadline
// only ends a failing test).
bool WaitFor(const std::function<bool()>& cond, int timeout_ms = 20000);

// What an owner received, readable while the engine delivers more.
class MediaLog {
public:
    using Picture = std::vector<uint8_t>;
    void OnAudio(const unsigned short* buf, int count, int rate) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto* s = reinterpret_cast<const int16_t*>(buf);
        samples_.insert(samples_.end(), s, s + count);
        rate_changes_ += rate != rate_;
        rate_ = rate;
    }
    void OnPicture(const unsigned char* buf, int width, int height, bool yuv) {
        std::lock_guard<std::mutex> lock(mutex_);
        pictures_.emplace_back(buf, buf + size_t(width) * height * (yuv ? 3 : 6) / 2);
        sizes_.emplace_back(width, height);
    }
    size_t SampleCount() const { return Locked([this] { return samples_.size(); }); }
    std::vector<int16_t> Samples() const { return Locked([this] { return samples_; }); }
    int Rate() const { return Locked([this] { return rate_; }); }
    int RateChanges() const { return Locked([this] { return rate_changes_; }); }  // 1: one rate throughout
    size_t PictureCount() const { return Locked([this] { return pictures_.size(); }); }
    std::vector<Picture> Pictures() const { return Locked([this] { return pictures_; }); }
    std::vector<std::pair<int, int>> Sizes() const { return Locked([this] { return sizes_; }); }

private:
    template <class F>
    auto Locked(F f) const -> decltype(f()) {
        std::lock_guard<std::mutex> lock(mutex_);
        return f();
    }
    mutable std::mutex mutex_;  // guards the fields below
    std::vector<int16_t> samples_;
    int rate_ = 0;
    int rate_changes_ = 0;
    std::vector<Picture> pictures_;
    std::vector<std::pair<int, int>> sizes_;
};

// A session (file or URL) that is its own owner and logs what it gets.
template <class Session>
class MediaSession final : public Session {
public:
    // yuv: I420 pictures instead of bottom-up BGR24.
    explicit MediaSession(bool yuv = false) : yuv_(yuv) { this->SetD3DDisplay(yuv ? 1 : 0); }
    ~MediaSession() override { this->VideoFree(); }  // while this class's slots still stand
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        log.OnPicture(buf, width, height, yuv_);
        return 0;
    }
    int DoAudioBuffer(unsigned short* buf, int count, int rate) override {
        log.OnAudio(buf, count, rate);
        return 0;
    }
    int UpdateMotionAlarmRegion(char*) override { return 0; }
    // Opens url with decoding switched on; 0 on success.
    int Open(const char* url) {
        const int rc = this->VideoInit(this, url);
        return rc == 0 ? this->SetDecodeEnbale(1) : rc;
    }
    MediaLog log;

private:
    bool yuv_;
};

}  // namespace camctl_test
