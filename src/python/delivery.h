// How pictures and sound travel from the library's threads to Python.
//
// A decoding thread copies each picture once into a pooled buffer (BGR rows
// turned top-down on the way), puts it into a single "latest" slot and,
// only when a Python callback is set, takes the GIL for that call. Python
// threads wait for the slot with the GIL released.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

namespace camctl_py {

namespace py = pybind11;

// Buffers of pictures Python no longer holds, kept for the next pictures so
// that large pictures do not fault fresh pages in every time.
class BufferPool {
public:
    std::vector<uint8_t> Take(size_t bytes);
    void Give(std::vector<uint8_t> buffer);

private:
    static constexpr size_t kKept = 4;
    std::mutex lock_;
    std::vector<std::vector<uint8_t>> free_;
};

// One decoded picture: packed BGR24 top-down, or planar I420.
struct Frame {
    Frame(std::shared_ptr<BufferPool> pool, size_t bytes);
    ~Frame();
    Frame(const Frame&) = delete;
    Frame& operator=(const Frame&) = delete;

    std::shared_ptr<BufferPool> pool;
    std::vector<uint8_t> data;
    int width = 0;
    int height = 0;
    bool planar = false;
    uint64_t seq = 0;  // 1, 2, ... per camera or player, never reused
    double time = 0;   // seconds since the epoch at delivery

    static std::atomic<long> live;  // frames in existence (leak checks)
};

// Marks the current thread as running one of our Python callbacks (closing
// from there must not wait for the thread itself).
bool InCallback();

class Sink {
public:
    Sink();
    ~Sink();  // drops the callbacks under the GIL

    // Decoding thread. bottom_up: packed rows arrive bottom row first.
    // Returns the frame (already in the slot) for further use, or null.
    std::shared_ptr<Frame> Deliver(const unsigned char* buf, int width, int height, bool planar,
                                   bool bottom_up);
    void DeliverAudio(const unsigned short* buf, int count, int rate);
    // Calls fn(arg) under the GIL if the sink still runs.
    void CallPython(const py::object& fn, const py::object& arg);
    void CallPython(const py::object& fn, const std::function<py::object()>& make_arg);

    std::shared_ptr<Frame> Peek() {
        std::lock_guard<std::mutex> lock(lock_);
        return latest_;
    }

    void Start();
    void Stop();  // no callbacks from now on; wakes waiters
    bool Running() const { return running_.load(); }

    // Python thread, GIL held: the newest picture with a sequence number
    // above after; null when none came within timeout (< 0: no limit), or
    // when the sink stopped or ended() said the stream is over. Raises on a
    // pending signal (KeyboardInterrupt).
    std::shared_ptr<Frame> Wait(uint64_t after, double timeout, const std::function<bool()>& ended);

    // Callbacks: read and written with the GIL held.
    py::object on_picture;
    py::object on_audio;
    py::object on_motion;
    void SetPictureCallback(py::object fn);
    void SetAudioCallback(py::object fn);

    uint64_t taken = 0;  // sequence number latest() last returned (GIL)
    std::atomic<int> audio_rate{0};

private:
    std::shared_ptr<BufferPool> pool_ = std::make_shared<BufferPool>();
    std::atomic<bool> running_{false};
    std::atomic<bool> has_picture_cb_{false};
    std::atomic<bool> has_audio_cb_{false};
    std::mutex lock_;  // guards latest_ and seq_
    std::condition_variable cv_;
    std::shared_ptr<Frame> latest_;
    uint64_t seq_ = 0;
};

// Wraps a frame as a NumPy view kept alive by owner (the Python picture).
py::array FrameImage(const Frame& f, py::handle owner);

}  // namespace camctl_py
