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

enum CodecNumber { kCodecH264 = 27, kCodecMpeg4 = 12, kCodecMjpeg = 7, kCodecHevc = 173 };

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

void FreePacketValue(void* value) { FreePacket(static_cast<AVPacket*>(value)); }

void Push(os_mutex* lock, os_list* list, const AVPacket* pkt) {
    AVPacket* copy = CopyPacket(pkt);  // copied before the lock is taken
    if (!copy) return;
    int rc;
    {
        OsMutexLock guard(lock);
        rc = os_list_insert(list, copy, -1);
    }
    if (rc < 0) FreePacket(copy);
}

AVPacket* Pop(os_mutex* lock, os_list* list) {
    OsMutexLock guard(lock);
    AVPacket* pkt = nullptr;
    if (os_list_at_end(list, 0) == 0) {
        pkt = static_cast<AVPacket*>(os_list_get(list, 0));
        os_list_remove(list, 0);
    }
    return pkt;
}

void Flush(os_mutex* lock, os_list* list) {
    OsMutexLock guard(lock);
    os_list_iter it{};
    for (void* value = os_list_begin(list, &it); value;) {
        AVPacket* pkt = static_cast<AVPacket*>(value);
        value = os_list_erase(&it);
        FreePacket(pkt);
    }
}

}  // namespace

void PushVideoPacket(FFMpegContext* ctx, const AVPacket* pkt) {
    if (!ctx) return;
    Push(ctx->m_hVideoPktLock, ctx->m_pVideoPktList, pkt);
    ctx->m_VideoArrivals.Notify();
}

void PushAudioPacket(FFMpegContext* ctx, const AVPacket* pkt) {
    if (!ctx) return;
    Push(ctx->m_hAudioPktLock, ctx->m_pAudioPktList, pkt);
    ctx->m_AudioArrivals.Notify();
}

void WakePacketWaiters(FFMpegContext* ctx) {
    if (!ctx) return;
    ctx->m_VideoArrivals.Notify();
    ctx->m_AudioArrivals.Notify();
}

AVPacket* PopVideoPacket(FFMpegContext* ctx) {
    return ctx ? Pop(ctx->m_hVideoPktLock, ctx->m_pVideoPktList) : nullptr;
}

AVPacket* PopAudioPacket(FFMpegContext* ctx) {
    return ctx ? Pop(ctx->m_hAudioPktLock, ctx->m_pAudioPktList) : nullptr;
}

int GetAVPktListElmCount(FFMpegContext* ctx) {
    if (!ctx) return -1;
    OsMutexLock guard(ctx->m_hVideoPktLock);
    return os_list_count(ctx->m_pVideoPktList);
}

void FlushVideoPackets(FFMpegContext* ctx) {
    if (ctx) Flush(ctx->m_hVideoPktLock, ctx->m_pVideoPktList);
}

void FlushAudioPackets(FFMpegContext* ctx) {
    if (ctx) Flush(ctx->m_hAudioPktLock, ctx->m_pAudioPktList);
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
    ctx->m_pVideoPktList = os_list_create();
    ctx->m_hVideoPktLock = os_mutex_create();
    ctx->m_pAudioPktList = os_list_create();
    ctx->m_hAudioPktLock = os_mutex_create();
    ctx->m_hRecordLock = os_mutex_create();
    if (!ctx->m_pVideoPktList || !ctx->m_hVideoPktLock || !ctx->m_pAudioPktList ||
        !ctx->m_hAudioPktLock || !ctx->m_hRecordLock) {
        FFMpegContextFree(ctx.release());
        return nullptr;
    }
    return ctx.release();
}

void FFMpegContextFree(FFMpegContext* ctx) {
    if (!ctx) return;
    std::unique_ptr<FFMpegContext> owner(ctx);
    os_list_destroy(ctx->m_pVideoPktList, FreePacketValue);
    os_list_destroy(ctx->m_pAudioPktList, FreePacketValue);
    ctx->m_pVideoPktList = nullptr;
    ctx->m_pAudioPktList = nullptr;
    os_mutex_destroy(ctx->m_hVideoPktLock);
    os_mutex_destroy(ctx->m_hAudioPktLock);
    os_mutex_destroy(ctx->m_hRecordLock);
    ctx->m_hVideoPktLock = nullptr;
    ctx->m_hAudioPktLock = nullptr;
    ctx->m_hRecordLock = nullptr;
}
