// Wakes a decode thread that waits for its packet queue: every push counts
// one arrival, and a stop wakes the waiter too. A thread with nothing to do
// waits here instead of sleeping in short rounds, so an idle stream (decoding
// off, no audio) costs no wake-ups, and a packet that arrives is taken at
// once rather than at the end of the round.
//
//   const uint64_t seen = arrivals.Count();   // before looking at the queue
//   if (queue empty) arrivals.WaitPast(seen, ms);
//
// Taking the count before the look means a push in between is never missed.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

class PacketArrivals {
public:
    uint64_t Count() const {
        std::lock_guard<std::mutex> lock(lock_);
        return count_;
    }
    // After a push, or to wake a waiter so that it sees a stop flag.
    void Notify() {
        {
            std::lock_guard<std::mutex> lock(lock_);
            ++count_;
        }
        changed_.notify_all();
    }
    // Returns once the count is past seen, or after ms.
    void WaitPast(uint64_t seen, uint32_t ms) {
        std::unique_lock<std::mutex> lock(lock_);
        changed_.wait_for(lock, std::chrono::milliseconds(ms), [&] { return count_ != seen; });
    }

private:
    mutable std::mutex lock_;  // guards count_
    std::condition_variable changed_;
    uint64_t count_ = 0;
};
