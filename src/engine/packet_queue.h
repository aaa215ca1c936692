// A queue of compressed packets between the reader and one decode thread
// (the context has one for video, one for audio). Elements are deep copies:
// the properties (timestamps, flags, side data) are copied, any buffer
// reference is dropped and the payload lives in a private block with 32 zero
// bytes of slack. The queue owns its lock; its arrivals wake the thread that
// waits for it.
#pragma once

#include <deque>
#include <memory>

#include "engine/av_ptr.h"
#include "engine/packet_arrivals.h"
#include "runtime/os.h"

// Releases a queue element (or any packet whose payload the holder owns).
void FreePacket(AVPacket* pkt);
struct QueuedPacketFree {
    void operator()(AVPacket* p) const { FreePacket(p); }
};
// The one owner type for a packet taken out of a queue.
using QueuedPacket = std::unique_ptr<AVPacket, QueuedPacketFree>;

class PacketQueue {
public:
    PacketQueue() : lock_(os_mutex_create()) {}
    PacketQueue(const PacketQueue&) = delete;
    PacketQueue& operator=(const PacketQueue&) = delete;

    bool Ok() const { return lock_ != nullptr; }
    // Appends a copy of pkt and wakes the waiter; dropped when memory runs out.
    void Push(const AVPacket* pkt);
    // The oldest element, or null when empty.
    QueuedPacket Pop();
    void Flush();
    int Count() const;

    // See packet_arrivals.h: take Arrivals() before looking at the queue.
    uint64_t Arrivals() const { return arrivals_.Count(); }
    void WaitPast(uint64_t seen, uint32_t ms) { arrivals_.WaitPast(seen, ms); }
    // Wakes the waiter without a packet (it then sees a lowered stop flag).
    void Wake() { arrivals_.Notify(); }

private:
    OsMutexPtr lock_;  // guards items_
    std::deque<QueuedPacket> items_;
    PacketArrivals arrivals_;
};
