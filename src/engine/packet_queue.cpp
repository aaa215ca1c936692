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
    int rc = -1;
    if (os_mutex_lock(lock) == 0) {
        rc = os_list_insert(list, copy, -1);
        os_mutex_unlock(lock);
    }
    if (rc < 0) FreePacket(copy);
}

AVPacket* Pop(os_mutex* lock, os_list* list) {
    if (os_mutex_lock(lock) != 0) return nullptr;
    AVPacket* pkt = nullptr;
    if (os_list_at_end(list, 0) == 0) {
        pkt = static_cast<AVPacket*>(os_list_get(list, 0));
        os_list_remove(list, 0);
    }
    os_mutex_unlock(lock);
    return pkt;
}

void Flush(os_mutex* lock, os_list* list) {
    if (os_mutex_lock(lock) != 0) return;
    os_list_iter it{};
    for (void* value = os_list_begin(list, &it); value;) {
        AVPacket* pkt = static_cast<AVPacket*>(value);
        value = os_list_erase(&it);
        FreePacket(pkt);
    }
    os_mutex_unlock(lock);
}

// Makes acc's payload a private block (no buffer reference) of at least
// `capacity` bytes plus slack, keeping its first `keep` bytes.
bool ReservePrivate(AVPacket* acc, int keep, int capacity) {
    size_t bytes = static_cast<size_t>(capacity) + kPacketSlack;
    if (acc->buf) {
        auto* data = static_cast<uint8_t*>(av_malloc(bytes));
        if (!data) return false;
        if (keep > 0) memcpy(data, acc->data, static_cast<size_t>(keep));
        av_buffer_unref(&acc->buf);
        acc->data = data;
        return true;
    }
    auto* data = static_cast<uint8_t*>(av_realloc(acc->data, bytes));
    if (!data) return false;
    acc->data = data;
    return true;
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
    if (!ctx || os_mutex_lock(ctx->m_hVideoPktLock) != 0) return -1;
    int count = os_list_count(ctx->m_pVideoPktList);
    os_mutex_unlock(ctx->m_hVideoPktLock);
    return count;
}

void FlushVideoPackets(FFMpegContext* ctx) {
    if (ctx) Flush(ctx->m_hVideoPktLock, ctx->m_pVideoPktList);
}

void FlushAudioPackets(FFMpegContext* ctx) {
    if (ctx) Flush(ctx->m_hAudioPktLock, ctx->m_pAudioPktList);
}

int AppendPacketFragment(AVPacket* acc, const AVPacket* pkt, int start) {
    if (!acc || !pkt || start < 0 || start > pkt->size) return -1;
    int add = pkt->size - start;
    const uint8_t* src = pkt->data ? pkt->data + start : nullptr;
    int result;
    if (acc->size <= 0 || !acc->data) {
        if (!ReservePrivate(acc, 0, add)) return -1;
        if (add > 0) memcpy(acc->data, src, static_cast<size_t>(add));
        acc->size = add;
        result = 1;
    } else {
        if (!ReservePrivate(acc, acc->size, acc->size + add)) return -1;
        if (add > 0) memcpy(acc->data + acc->size, src, static_cast<size_t>(add));
        acc->size += add;
        result = 0;
    }
    memset(acc->data + acc->size, 0, kPacketSlack);
    acc->pts = pkt->pts;
    acc->dts = pkt->dts;
    acc->stream_index = pkt->stream_index;
    acc->flags = pkt->flags;
    return result;
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
