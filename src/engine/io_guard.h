// Bounds the blocking I/O of one source: the demuxer's and the connection's
// interrupt callback gives up once the guard is stopped (closing the stream)
// or the armed deadline has passed. Read from FFmpeg's I/O on the reader
// thread, set from any thread.
#pragma once

#include <atomic>
#include <cstdint>

extern "C" {
#include <libavformat/avio.h>
}

#include "runtime/os.h"

class IoGuard {
public:
    // Makes every later (and the current) blocking call give up for good.
    void Abort() { m_bAbortIo.store(1, std::memory_order_relaxed); }
    bool Aborted() const { return m_bAbortIo.load(std::memory_order_relaxed) != 0; }
    // Sets the deadline to now + ms (0: none).
    void Arm(uint32_t ms) { m_nIoDeadline.store(ms ? os_tick_count64() + ms : 0, std::memory_order_relaxed); }

    // 1 when I/O must give up. A source that missed its deadline stays
    // failed: the demuxer answers a failed read by flushing its parsers, and
    // the read after that must not wait a whole period again.
    int Interrupted() {
        if (Aborted()) return 1;
        const uint64_t deadline = m_nIoDeadline.load(std::memory_order_relaxed);
        if (deadline == 0 || os_tick_count64() <= deadline) return 0;
        Abort();
        return 1;
    }
    // The callback to install on a demuxer or AVIO connection.
    AVIOInterruptCB Callback() { return AVIOInterruptCB{&IoGuard::Interrupt, this}; }

private:
    static int Interrupt(void* self) { return static_cast<IoGuard*>(self)->Interrupted(); }

    std::atomic<int32_t> m_bAbortIo{0};
    std::atomic<uint64_t> m_nIoDeadline{0};
};

// A fresh deadline of ms for one blocking call (read, seek) of a network
// source, cleared when the call is over: no call inherits a stale one, however
// long the reader paused before it. Does nothing for local sources.
class ScopedIoDeadline {
public:
    ScopedIoDeadline(IoGuard& guard, bool network, uint32_t ms) : guard_(network ? &guard : nullptr) {
        if (guard_) guard_->Arm(ms);
    }
    ~ScopedIoDeadline() {
        if (guard_) guard_->Arm(0);
    }
    ScopedIoDeadline(const ScopedIoDeadline&) = delete;
    ScopedIoDeadline& operator=(const ScopedIoDeadline&) = delete;

private:
    IoGuard* guard_;
};
