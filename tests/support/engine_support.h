// Test helpers for the media engine and the sessions: a picture sink that
// records what the engine delivers, and a capture of the stderr lines the
// engine prints.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "camctl/FrameListener.h"

namespace camctl_test {

// Records the pictures handed to it. Thread-safe; the engine's decode thread
// calls OnPicture while the test thread waits and reads.
class PictureLog {
public:
    struct Picture {
        int width;
        int height;
        std::vector<uint8_t> bytes;  // kept only while KeepBytes(true)
    };

    // Records a picture of the given layout (yuv: I420, else BGR24).
    void OnPicture(const unsigned char* buf, int width, int height, bool yuv);
    void KeepBytes(bool keep);
    // Runs hook (on the decode thread) before each picture is recorded.
    void SetHook(std::function<void()> hook);

    int Count() const;
    Picture Last() const;
    std::vector<std::pair<int, int>> Sizes() const;  // distinct sizes, in order of arrival
    // Waits until Count() >= n; false on timeout.
    bool WaitForCount(int n, int timeout_ms) const;
    // Waits until pred() holds (polled every 10 ms); false on timeout.
    static bool WaitUntil(const std::function<bool()>& pred, int timeout_ms);

private:
    mutable std::mutex mu_;
    mutable std::condition_variable cv_;
    int count_ = 0;
    bool keep_ = false;
    Picture last_{0, 0, {}};
    std::vector<std::pair<int, int>> sizes_;
    std::function<void()> hook_;
};

// An engine owner (what a session is to its context) that logs pictures.
class SinkListener final : public IFrameListener {
public:
    explicit SinkListener(bool yuv) : yuv_(yuv) {}
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        log.OnPicture(buf, width, height, yuv_);
        return 0;
    }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    int UpdateMotionAlarmRegion(char*) override { return 0; }
    PictureLog log;

private:
    bool yuv_;
};

// Captures everything written to stderr (fd 2) from construction until
// Stop() or destruction, and echoes it back to the real stderr afterwards.
class StderrCapture {
public:
    StderrCapture();
    ~StderrCapture();
    StderrCapture(const StderrCapture&) = delete;
    StderrCapture& operator=(const StderrCapture&) = delete;
    // What was written so far (the capture goes on).
    std::string Text() const;
    void Stop();

private:
    int saved_ = -1;
    std::string path_;
};

// Milliseconds spent in fn.
inline long long TimeMs(const std::function<void()>& fn) {
    auto t0 = std::chrono::steady_clock::now();
    fn();
    return std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - t0).count();
}

}  // namespace camctl_test
