// The media context's packet queues and its allocation.
//
// A queue element is a deep copy of an AVPacket: the properties (timestamps,
// flags, side data, ...) are copied, the buffer reference is dropped and the
// payload lives in a private av_malloc block of size + 32 bytes. FreePacket
// is the only way to release one.
#include <cstring>
#include <memory>

#include "engine/ffmpeg_context.h"

namespace {

constexpr int kPacketSlack = 32;

// Makes the queue element for pkt; null when memory runs out.
AVPacket* CopyPacket(const AVPacket* pkt) {
    if (!pkt || pkt->size < 0) return nullptr;
    camctl::PacketPtr copy = camctl::MakePacket();
    if (!copy || av_packet_copy_props(copy.get(), pkt) < 0) return nullptr;
    auto* data = static_cast<uint8_t*>(av_malloc(static_cast<size_t>(pkt->size) + kPacketSlack));
    if (!data) return nullptr;
    if (pkt->size > 0 && pkt->data) memcpy(data, pkt->data, static_cast<size_t>(pkt->size));
    memset(data + pkt->size, 0, kPacketSlack);
    copy->buf = nullptr;
    copy->data = data;
    copy->size = pkt->size;
    return copy.release();
}

}  // namespace

void PacketQueue::Push(const AVPacket* pkt) {
    QueuedPacket copy(CopyPacket(pkt));  // copied before the lock is taken
    if (!copy) return;
    {
        OsMutexLock guard(lock_.get());
        items_.push_back(std::move(copy));
    }
    arrivals_.Notify();
}

QueuedPacket PacketQueue::Pop() {
    OsMutexLock guard(lock_.get());
    if (items_.empty()) return nullptr;
    QueuedPacket pkt = std::move(items_.front());
    items_.pop_front();
    return pkt;
}

void PacketQueue::Flush() {
    std::deque<QueuedPacket> dropped;
    {
        OsMutexLock guard(lock_.get());
        dropped.swap(items_);
    }
}

int PacketQueue::Count() const {
    OsMutexLock guard(lock_.get());
    return static_cast<int>(items_.size());
}

void PushVideoPacket(FFMpegContext* ctx, const AVPacket* pkt) {
    if (ctx) ctx->m_VideoQueue.Push(pkt);
}

void PushAudioPacket(FFMpegContext* ctx, const AVPacket* pkt) {
    if (ctx) ctx->m_AudioQueue.Push(pkt);
}

void WakePacketWaiters(FFMpegContext* ctx) {
    if (!ctx) return;
    ctx->m_VideoQueue.Wake();
    ctx->m_AudioQueue.Wake();
}

AVPacket* PopVideoPacket(FFMpegContext* ctx) { return ctx ? ctx->m_VideoQueue.Pop().release() : nullptr; }

AVPacket* PopAudioPacket(FFMpegContext* ctx) { return ctx ? ctx->m_AudioQueue.Pop().release() : nullptr; }

int GetAVPktListElmCount(FFMpegContext* ctx) { return ctx ? ctx->m_VideoQueue.Count() : -1; }

void FlushVideoPackets(FFMpegContext* ctx) {
    if (ctx) ctx->m_VideoQueue.Flush();
}

void FlushAudioPackets(FFMpegContext* ctx) {
    if (ctx) ctx->m_AudioQueue.Flush();
}

void FreePacket(AVPacket* pkt) {
    if (!pkt) return;
    if (!pkt->buf) av_freep(&pkt->data);  // the private payload copy
    camctl::PacketPtr owner(pkt);         // side data, props, any buffer reference
}

int GetVideoCodecNumber(FFMpegContext* ctx) {
    if (!ctx) return -1;
    switch (ctx->m_nVideoCodecId.load(std::memory_order_relaxed)) {
        case kCodecH264: return 0;
        case kCodecMpeg4: return 1;
        case kCodecMjpeg: return 2;
        case kCodecHevc: return 3;
        default: return -1;
    }
}

FFMpegContext* FFMpegContextAlloc() {
    auto ctx = std::make_unique<FFMpegContext>();
    ctx->m_nAudioIndex = -1;
    if (!ctx->m_VideoQueue.Ok() || !ctx->m_AudioQueue.Ok() || !ctx->m_Recorder.Ok()) {
        FFMpegContextFree(ctx.release());
        return nullptr;
    }
    return ctx.release();
}

void FFMpegContextFree(FFMpegContext* ctx) {
    if (!ctx) return;
    std::unique_ptr<FFMpegContext> owner(ctx);
}
