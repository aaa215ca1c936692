// The audio clock that video pacing follows: the tick at which the
// reference audio block was delivered, that block's packet time, the tick
// at which the last delivered block ends, and the video side's offset.
// The audio thread anchors and moves it, the reader resets it when it
// flushes the queues, the video thread reads it and fills in its offset.
// The fields belong together: the clock is one value, changed and read as a
// whole under its own lock, so no reader ever sees half an update. Beside it
// live the two figures the audio side publishes to the rest: whether audio
// packets are arriving (video then paces by this clock) and the sample rate.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>

class AudioClock {
public:
    struct State {
        uint64_t refTick = 0;      // tick (ms) the reference block was delivered; 0: none
        uint64_t refPts = 0;       // the reference block's packet time (ms); 0: none
        uint64_t clock = 0;        // tick at which the last delivered block ends
        uint64_t videoOffset = 0;  // video time minus audio time; 0: to be taken again
    };

    State Load() const {
        std::lock_guard<std::mutex> lock(mutex_);
        return state_;
    }
    void Store(const State& state) {
        std::lock_guard<std::mutex> lock(mutex_);
        state_ = state;
    }
    // Forgets the clock (the queues were flushed).
    void Reset() { Store(State{}); }
    // Audio stopped: video paces by the owner's wait again until the next
    // audio packet.
    void Stop() {
        active_.store(false, std::memory_order_relaxed);
        Reset();
    }
    // An audio packet arrived: video follows this clock.
    void MarkActive() { active_.store(true, std::memory_order_relaxed); }
    bool Active() const { return active_.load(std::memory_order_relaxed); }

    int32_t SampleRate() const { return sampleRate_.load(std::memory_order_relaxed); }
    void SetSampleRate(int32_t rate) { sampleRate_.store(rate, std::memory_order_relaxed); }
    // Applies change(State&) as one step (a read-modify-write).
    template <typename Change>
    void Update(Change change) {
        std::lock_guard<std::mutex> lock(mutex_);
        change(state_);
    }

private:
    mutable std::mutex mutex_;  // guards state_
    State state_;
    std::atomic<bool> active_{false};
    std::atomic<int32_t> sampleRate_{0};
};
