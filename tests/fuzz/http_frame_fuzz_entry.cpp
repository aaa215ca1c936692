#include "fuzz/http_frame_fuzz_entry.h"

#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "engine/http_frame.h"
#include "fuzz/memory_avio.h"

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define CAMCTL_FUZZ_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define CAMCTL_FUZZ_ASAN 1
#endif
#ifdef CAMCTL_FUZZ_ASAN
#include <sanitizer/asan_interface.h>
#define POISON(p, n) ASAN_POISON_MEMORY_REGION((p), (n))
#define UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION((p), (n))
#else
#define POISON(p, n) ((void)(p), (void)(n))
#define UNPOISON(p, n) ((void)(p), (void)(n))
#endif

namespace camctl_fuzz {
namespace {

class CheckingListener final : public IFrameListener {
public:
    int DoVideoBuffer(unsigned char*, int, int) override { return 0; }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    int UpdateMotionAlarmRegion(char* region) override {
        size_t n = strlen(region);
        if (n != static_cast<size_t>(HTTP_MOTION_TEXT_LEN)) bad = true;
        for (size_t i = 0; i < n; ++i)
            if (region[i] != '0' && region[i] != '1') bad = true;
        return 0;
    }
    bool bad = false;
};

struct CtxFree {
    void operator()(FFMpegContext* c) const { FFMpegContextFree(c); }
};

int ReaderPass(const uint8_t* stream, size_t size, uint8_t firstSel, uint8_t codecSel) {
    std::unique_ptr<FFMpegContext, CtxFree> ctx(FFMpegContextAlloc());
    if (!ctx) return 1;
    CheckingListener listener;
    ctx->m_pOwner = static_cast<IFrameListener*>(&listener);
    ctx->m_HttpFrame.Open();
    ctx->m_bRunning = 1;
    static const int kVideo[3] = {27, 173, 7};
    ctx->m_nVideoCodecId = kVideo[codecSel % 3];
    if (codecSel & 4) {
        ctx->m_nAudioIndex = 1;
        ctx->m_nAudioCodecId = 0x10006;
        ctx->m_AudioClock.SetSampleRate(8000);
    }

    // The opening read: up to 2000 bytes.
    size_t first = firstSel < 128 ? HTTP_READ_CHUNK : static_cast<size_t>(firstSel - 127) * 15;
    first = std::min({first, size, static_cast<size_t>(HTTP_READ_CHUNK)});
    ctx->m_HttpFrame.Append(stream, static_cast<uint32_t>(first));
    camctl_test::MemoryAvio io(std::vector<uint8_t>(stream + first, stream + size), 1 + firstSel * 7);
    io.AttachTo(ctx.get());

    int result = 0;
    camctl::PacketPtr pkt = camctl::MakePacket();
    int audioChanged = 0, newAudio = 0;
    for (int i = 0; i < 64 && result == 0; ++i) {
        int n = http_read_one_frame(ctx.get(), pkt.get(), &audioChanged, &newAudio);
        if (n < 0) {
            if (pkt->size != 0) result = 2;
            break;
        }
        if (n != pkt->size) result = 3;
        if (ctx->m_HttpFrame.Pos() != 0 || ctx->m_HttpFrame.Len() > HTTP_RECV_BUF_SIZE) result = 4;
        if (audioChanged && newAudio != HttpFrameAudioCodecId(1) && newAudio != HttpFrameAudioCodecId(2) &&
            newAudio != HttpFrameAudioCodecId(3) && newAudio != HttpFrameAudioCodecId(4) &&
            newAudio != HttpFrameAudioCodecId(5))
            result = 5;
        av_packet_unref(pkt.get());
    }
    if (listener.bad) result = 6;
    camctl_test::MemoryAvio::Detach(ctx.get());
    return result;
}

int CutterPass(const uint8_t* stream, size_t size, uint8_t seed) {
    // The whole stream in one block; what has not been "received" yet is
    // poisoned so that any look at it is reported.
    std::vector<uint8_t> buf(stream, stream + size);
    buf.reserve(size + 1);
    uint8_t* base = buf.data();
    POISON(base, size);
    size_t received = 0;   // bytes of the stream handed over
    size_t dropped = 0;    // bytes of the stream consumed by finished frames
    uint32_t pos = 0;      // resume point, relative to `dropped`
    uint32_t rng = 0x9E3779B9u ^ seed;
    HttpFrameState state;
    int result = 0;
    for (int guard = 0; guard < 100000 && result == 0; ++guard) {
        const uint8_t* part = base + dropped;
        const uint32_t len = static_cast<uint32_t>(received - dropped);
        if (pos > len) {
            result = 10;
            break;
        }
        int ret = http_read_frame(part + pos, len - pos, &state);
        if (ret == HTTP_FRAME_OK && state.start) {
            const uint64_t span = uint64_t(HTTP_FRAME_HEADER_SIZE) + state.header.size;
            if (state.payload.size() != state.header.size || state.allreadsize != span) result = 11;
            else if (state.start < part || state.start + span + 4 > base + received) result = 12;
            else if (!state.payload.empty() &&
                     memcmp(state.payload.data(), state.start + HTTP_FRAME_HEADER_SIZE, state.payload.size()) != 0)
                result = 13;
            dropped += state.allreadsize;
            pos = 0;
            state.Reset();
            continue;
        }
        if (ret == HTTP_DATA_ERROR) break;  // the reader ends the connection here
        if (ret == HTTP_DATA_NO_ENOUGH && state.allreadsize > len) result = 14;
        pos = state.allreadsize;
        if (received == size) break;
        rng = rng * 1664525u + 1013904223u;
        size_t chunk = 1 + (rng >> 8) % ((seed & 1) ? 7 : 2500);
        chunk = std::min(chunk, size - received);
        UNPOISON(base + received, chunk);
        received += chunk;
    }
    UNPOISON(base, size);
    return result;
}

}  // namespace

int RunHttpFrameInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const uint8_t* stream = data + 3;
    const size_t len = size - 3;
    int r = ReaderPass(stream, len, data[0], data[2]);
    if (r != 0) return r;
    return CutterPass(stream, len, data[1]);
}

}  // namespace camctl_fuzz
