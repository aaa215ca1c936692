// Private HTTP frame protocol: cutting frames out of the receive buffer and
// turning them into packets for the reader thread.
#include "engine/http_frame.h"

#include <cstring>

namespace {

constexpr uint8_t kMarker[4] = {0x33, 0x22, 0x11, 0x00};

uint32_t Le32(const uint8_t* p) {
    return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

uint64_t Le64(const uint8_t* p) { return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32; }

uint32_t Be32(const uint8_t* p) {
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]);
}

// Addresses appear in the diagnostic lines as 32-bit numbers.
int AddrForLog(const uint8_t* p) { return static_cast<int>(reinterpret_cast<uintptr_t>(p)); }

// Distance from the frame start to its end marker: 88 + size, in 64 bits so
// that a hostile size cannot wrap round.
uint64_t FrameSpan(const HttpFrameState* state) {
    return uint64_t(HTTP_FRAME_HEADER_SIZE) + state->header.size;
}

// Decodes the header at state->start if all 88 bytes lie before limit.
bool CopyHeader(HttpFrameState* state, const uint8_t* limit) {
    if (limit - state->start < static_cast<ptrdiff_t>(HTTP_FRAME_HEADER_SIZE)) return false;
    DecodeFrameHeader(state->start, &state->header);
    return true;
}

int NeedMoreData(HttpFrameState* state, uint32_t len) {
    state->integrity = HTTP_INTEGRITY_PARTIAL;
    state->allreadsize += len >= 3 ? len - 3 : 0;
    return HTTP_DATA_NO_ENOUGH;
}

int CompleteFrame(HttpFrameState* state, const uint8_t* end) {
    const uint8_t* data = state->start + HTTP_FRAME_HEADER_SIZE;
    state->payload.assign(data, data + state->header.size);
    state->allreadsize = static_cast<uint32_t>(end - state->start);
    state->integrity = HTTP_INTEGRITY_COMPLETE;
    return HTTP_FRAME_OK;
}

// The end marker E was found and the header copied: complete, or keep
// looking past markers that belong to the payload.
int DecideAtMarker(const uint8_t* end, const uint8_t* buf, uint32_t len, HttpFrameState* state) {
    if (uint64_t(end - state->start) == FrameSpan(state)) return CompleteFrame(state, end);
    return http_find_right_endbuffer(state->start, end, buf, len, state);
}

void LogEndSearch(const char* what, const HttpFrameState* state, const uint8_t* start,
                  const uint8_t* end, const uint8_t* buf, uint32_t len) {
    os_print("[http_find_right_endbuffer return %s]sizeof:%d, header.size:%d,allreadsize:%d,"
             "ntegrity:%d,starbuffer:%d,endbuffer:%d,len:%d,buf:%d \n",
             what, static_cast<int>(HTTP_FRAME_HEADER_SIZE), static_cast<int>(state->header.size),
             static_cast<int>(state->allreadsize), state->integrity, AddrForLog(start),
             AddrForLog(end), static_cast<int>(len), AddrForLog(buf));
}

void HandleMotionRegion(FFMpegContext* ctx, const std::vector<uint8_t>& payload) {
    char text[HTTP_MOTION_TEXT_LEN + 1];
    if (!HttpMotionRegionText(payload.data(), static_cast<uint32_t>(payload.size()), text)) return;
    if (ctx->m_pOwner) ctx->m_pOwner->UpdateMotionAlarmRegion(text);
}

// Applies an audio frame's header to the context and raises the reader's
// request to reopen the audio decoder when codec or rate changed.
void CheckAudioFormat(FFMpegContext* ctx, const HttpFrameHeader& h, int* audioChanged,
                      int* newAudioCodec) {
    int current = ctx->m_nAudioCodecId.load(std::memory_order_relaxed);
    if (h.audio_codec < 1 && current != 0) return;
    int wanted = HttpFrameAudioCodecId(h.audio_codec);
    int rate = static_cast<int>(h.sample_rate);
    int oldRate = ctx->m_AudioClock.SampleRate();
    bool request = false;
    if (wanted != current || rate != oldRate) {
        os_print("Audio codec change:%d , (%d -> %d) !!", h.audio_codec, oldRate, rate);
        request = true;
    } else if (audioChanged && *audioChanged == 1) {
        request = true;
    }
    if (!request) return;
    if (audioChanged) *audioChanged = 1;
    if (newAudioCodec) *newAudioCodec = wanted;
    ctx->m_nAudioIndex = 1;
    ctx->m_AudioClock.SetSampleRate(rate);
}

}  // namespace

const uint8_t* FindFrameMarker(const uint8_t* data, uint32_t len) {
    if (!data || len < 4) return nullptr;
    const uint8_t* p = data;
    const uint8_t* last = data + len - 4;
    while (p <= last) {
        p = static_cast<const uint8_t*>(memchr(p, kMarker[0], static_cast<size_t>(last - p) + 1));
        if (!p) return nullptr;
        if (p[1] == kMarker[1] && p[2] == kMarker[2] && p[3] == kMarker[3]) return p;
        ++p;
    }
    return nullptr;
}

void DecodeFrameHeader(const uint8_t* b, HttpFrameHeader* h) {
    h->marker = Le32(b);
    h->ver = Le32(b + 4);
    memcpy(h->reserved, b + 8, sizeof h->reserved);
    h->stream_type = Le32(b + 48);
    h->size = Le32(b + 52);
    h->codec = Le32(b + 56);
    h->frame_kind = Le32(b + 60);
    h->width = Le32(b + 64);
    h->height = Le32(b + 68);
    h->audio_codec = static_cast<int32_t>(Le32(b + 72));
    h->sample_rate = Le32(b + 76);
    h->timestamp = Le64(b + 80);
}

int ParseFrameHeader(const uint8_t* data, uint32_t len, HttpFrameHeader* header) {
    if (!data || !len || !header) return -1;
    const uint8_t* start = FindFrameMarker(data, len);
    if (!start) return -1;
    // The header counts only when all of its bytes were received.
    if (data + len - start < static_cast<ptrdiff_t>(HTTP_FRAME_HEADER_SIZE)) return -1;
    DecodeFrameHeader(start, header);
    return 0;
}

int HttpFrameVideoCodecId(uint32_t codec) {
    switch (codec) {
    case 0: return AV_CODEC_ID_H264;
    case 3: return AV_CODEC_ID_HEVC;
    default: return AV_CODEC_ID_MJPEG;  // 1 included
    }
}

int HttpFrameAudioCodecId(int32_t audio_codec) {
    switch (audio_codec) {
    case 1: return AV_CODEC_ID_AAC;
    case 2: return AV_CODEC_ID_PCM_MULAW;
    case 3: return AV_CODEC_ID_PCM_ALAW;
    case 4: return AV_CODEC_ID_ADPCM_G722;
    case 5: return AV_CODEC_ID_ADPCM_G726;
    default: return AV_CODEC_ID_PCM_MULAW;  // 0 included
    }
}

int http_read_frame(const uint8_t* buf, uint32_t len, HttpFrameState* state) {
    if (!buf || !state || !len) return HTTP_FRAME_FAILED;
    const uint8_t* limit = buf + len;

    if (state->integrity != HTTP_INTEGRITY_PARTIAL) {
        const uint8_t* start = FindFrameMarker(buf, len);
        // No marker at all: a fresh state reports a (zero-size) frame.
        if (!start) return state->integrity;
        state->start = start;
        const uint8_t* scan = start + 4;
        const uint8_t* end = FindFrameMarker(scan, static_cast<uint32_t>(limit - scan));
        // A marker closer than 88 bytes cannot end the frame, and a header
        // not wholly received cannot be read: both mean "read more".
        if (!end || !CopyHeader(state, limit)) return NeedMoreData(state, len);
        if (state->header.size > HTTP_FRAME_MAX_PAYLOAD) {
            os_print("ret =http_read_frame= HTTP_DATA_ERRORret1 == HTTP_DATA_ERROR \n");
            return HTTP_DATA_ERROR;
        }
        return DecideAtMarker(end, buf, len, state);
    }

    // Resuming: buf starts where the last scan stopped, within the same
    // buffer as state->start.
    const uint8_t* end = FindFrameMarker(buf, len);
    if (!end || !CopyHeader(state, limit)) return NeedMoreData(state, len);
    return DecideAtMarker(end, buf, len, state);
}

int http_find_right_endbuffer(const uint8_t* start, const uint8_t* end, const uint8_t* buf,
                              uint32_t len, HttpFrameState* state) {
    os_print("[enter http_find_right_endbuffer]sizeof:%d, header.size:%d,allreadsize:%d,"
             "integrity:%d,tarbuffer:%d,endbuffer:%d,len:%d,buf:%d \n",
             static_cast<int>(HTTP_FRAME_HEADER_SIZE), static_cast<int>(state->header.size),
             static_cast<int>(end - start), state->integrity, AddrForLog(start), AddrForLog(end),
             static_cast<int>(len), AddrForLog(buf));
    const uint8_t* limit = buf + len;
    const uint64_t span = FrameSpan(state);
    while (end + 4 <= limit) {
        const uint8_t* next = FindFrameMarker(end + 1, static_cast<uint32_t>(limit - end - 1));
        if (!next) {
            NeedMoreData(state, len);
            LogEndSearch("HTTP_DATA_NO_ENOUGH_can't find end_TempBuffer", state, start, end, buf,
                         len);
            return HTTP_DATA_NO_ENOUGH;
        }
        uint64_t distance = uint64_t(next - start);
        if (distance == span) {
            CompleteFrame(state, next);
            LogEndSearch("HTTP_FRAME_OK", state, start, next, buf, len);
            return HTTP_FRAME_OK;
        }
        if (distance > span) {
            LogEndSearch("HTTP_FRAME_FAILED", state, start, next, buf, len);
            return HTTP_FRAME_FAILED;
        }
        end = next;  // a marker pattern inside the payload
    }
    NeedMoreData(state, len);
    LogEndSearch("HTTP_DATA_NO_ENOUGH_over the len", state, start, end, buf, len);
    return HTTP_DATA_NO_ENOUGH;
}

bool HttpMotionRegionText(const uint8_t* payload, uint32_t len, char* text) {
    if (!payload || !text || len < 20) return false;
    if (payload[10] != 0) return false;
    if (uint64_t(Be32(payload + 16)) + 20 != len) return false;
    // Ten mask words follow the head; a short record reads as zero bits.
    uint8_t words[40] = {};
    memcpy(words, payload + 20, len - 20 < sizeof words ? len - 20 : sizeof words);
    memset(text, 0, HTTP_MOTION_TEXT_LEN + 1);
    int n = 0;
    uint32_t first = Be32(words) & 0xFFFFu;
    for (int bit = 15; bit >= 0; --bit) text[n++] = (first >> bit) & 1u ? '1' : '0';
    for (int w = 1; w < 10 && n < HTTP_MOTION_TEXT_LEN; ++w) {
        uint32_t word = Be32(words + 4 * w);
        for (int bit = 31; bit >= 0 && n < HTTP_MOTION_TEXT_LEN; --bit)
            text[n++] = (word >> bit) & 1u ? '1' : '0';
    }
    return true;
}

int http_read_one_frame(FFMpegContext* ctx, AVPacket* pkt, int* audioChanged, int* newAudioCodec) {
    if (!ctx || !pkt || !ctx->m_HttpFrame.HasBuffer()) return -1;
    HttpFrameReceiver& recv = ctx->m_HttpFrame;
    AVIOContext* io = ctx->m_pHttpIo.get();
    HttpFrameState state;

    for (;;) {
        if (!ctx->m_bRunning.load(std::memory_order_relaxed)) return -1;
        int ret = http_read_frame(recv.Data() + recv.Pos(), recv.Len() - recv.Pos(), &state);
        recv.SetPos(state.allreadsize);
        if (ret == HTTP_FRAME_OK) break;
        if (ret == HTTP_DATA_ERROR) {
            // Parsing the same bytes again cannot succeed: end the connection.
            os_print("ret == HTTP_DATA_ERRORret == HTTP_DATA_ERROR \n");
            return -1;
        }
        // HTTP_DATA_NO_ENOUGH or HTTP_FRAME_FAILED: read more.
        int got = recv.ReadMore(io);
        if (got < 1 || got > static_cast<int>(HTTP_READ_CHUNK)) return -1;
    }
    recv.Consume(state.allreadsize);  // drop the frame's bytes

    const HttpFrameHeader& h = state.header;
    const int size = static_cast<int>(state.payload.size());
    if (av_new_packet(pkt, size) < 0) return -1;
    switch (h.stream_type) {
    case HTTP_STREAM_VIDEO: {
        int codec = HttpFrameVideoCodecId(h.codec);
        int current = ctx->m_nVideoCodecId.load(std::memory_order_relaxed);
        if (codec != current) {
            os_print("Video codec change:%d -> %d !!", current, codec);
            av_packet_unref(pkt);
            return -1;
        }
        bool key = h.frame_kind == 0;
        if (key) pkt->flags |= AV_PKT_FLAG_KEY;
        pkt->stream_index = ctx->m_nVideoIndex;
        if (!ctx->m_hH265Decoder && h.codec == 3 && key) {
            ctx->m_nWidth.store(static_cast<int32_t>(h.width), std::memory_order_relaxed);
            ctx->m_nHeight.store(static_cast<int32_t>(h.height), std::memory_order_relaxed);
        }
        break;
    }
    case HTTP_STREAM_AUDIO:
        pkt->stream_index = ctx->m_nAudioIndex;
        pkt->flags |= AV_PKT_FLAG_KEY;
        CheckAudioFormat(ctx, h, audioChanged, newAudioCodec);
        break;
    case HTTP_STREAM_MOTION:
        pkt->stream_index = -1;
        pkt->flags |= AV_PKT_FLAG_KEY;
        HandleMotionRegion(ctx, state.payload);
        break;
    default:
        pkt->stream_index = -1;
        pkt->flags |= AV_PKT_FLAG_KEY;
        os_print("unknow stream type:%d", static_cast<int>(h.stream_type));
        break;
    }
    pkt->pts = static_cast<int64_t>(h.timestamp);
    pkt->dts = pkt->pts;
    if (size > 0) memcpy(pkt->data, state.payload.data(), static_cast<size_t>(size));
    return size;
}
