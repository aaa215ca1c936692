// Audio decoding thread: takes packets from the context's audio queue,
// decodes them to signed 16-bit samples and hands them to the owner.
#include "engine/engine.h"

int OpenAudioDecoder(FFMpegContext* ctx, int codec_id) {
    if (!ctx) return -1;
    StopAudioThread(ctx);
    ctx->m_nAudioCodecId.store(codec_id, std::memory_order_relaxed);
    ctx->m_hAudioThread = os_thread_create(nullptr, AudioDecodeThreadProc, ctx);
    return ctx->m_hAudioThread ? 0 : -1;
}

void* AudioDecodeThreadProc(void* arg) {
    auto* ctx = static_cast<FFMpegContext*>(arg);
    ctx->m_bAudioRunning.store(1, std::memory_order_relaxed);
    while (ctx->m_bAudioRunning.load(std::memory_order_relaxed) &&
           ctx->m_bRunning.load(std::memory_order_relaxed)) {
        AVPacket* pkt = PopAudioPacket(ctx);
        if (!pkt) {
            os_sleep_ms(10);
            continue;
        }
        FreePacket(pkt);
    }
    return nullptr;
}

void StopAudioThread(FFMpegContext* ctx) {
    if (!ctx || !ctx->m_hAudioThread) return;
    ctx->m_bAudioRunning.store(0, std::memory_order_relaxed);
    os_thread_join(ctx->m_hAudioThread);
    os_thread_free(ctx->m_hAudioThread);
    ctx->m_hAudioThread = nullptr;
}
