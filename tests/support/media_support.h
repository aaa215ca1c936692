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
    void OnAudio(const unsigned short* buf, int count, int rate);
    void OnPicture(const unsigned char* buf, int width, int height, bool yuv);
    size_t SampleCount() const;
    std::vector<int16_t> Samples() const;
    int Rate() const;
    int RateChanges() const;  // 1 when every block had the first block's rate
    size_t PictureCount() const;
    std::vector<Picture> Pictures(std::vector<std::pair<int, int>>* sizes = nullptr) const;

private:
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
    // Closed here, while this class's slots still stand.
    ~MediaSession() override { this->VideoFree(); }
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
