// The reader thread: pulls packets from the demuxer (or the private HTTP
// frame stream), keeps the rate figures, feeds a running recording and
// fills the video and audio queues. Also the video-to-audio pacing and the
// seek request of file playback.
//
// Queue limits: a throttled (file) source holds at most 10 queued video
// packets (it reads no further once 10 are waiting, as each read may add
// one); a live source whose decoder lags is flushed above 100 and then
// waits for the next key frame.
#include <cstring>
#include <ctime>
#include <string>

#include "engine/engine.h"
#include "engine/http_frame.h"

namespace {

constexpr uint32_t kThrottleSleepMs = 20;
constexpr int kThrottleQueue = 10;
constexpr int kOverflowQueue = 100;
// The network figures are averaged over this many seconds.
constexpr uint32_t kRatePeriodSec = 3;
constexpr uint32_t kRatePeriodMs = kRatePeriodSec * 1000;
// Smooth pacing counts in display ticks of 40 ms (one picture at 25 fps),
// rounded to the nearest tick.
constexpr uint32_t kSmoothTickMs = 40;
constexpr int kSmoothSamplePackets = 20;
constexpr int kProbeFollowers = 25;  // about a second of video

bool IsKey(const AVPacket* pkt) { return (pkt->flags & AV_PKT_FLAG_KEY) != 0; }

// An MJPEG packet begins a picture only when its bytes 1..3 are zero
// (the framing of the private HTTP stream).
bool StartsPicture(const FFMpegContext* ctx, const AVPacket* pkt) {
    if (ctx->m_nVideoCodecId != AV_CODEC_ID_MJPEG) return true;
    return pkt->size >= 4 && pkt->data[1] == 0 && pkt->data[2] == 0 && pkt->data[3] == 0;
}

// Per-thread counters of the reader.
struct ReaderState {
    camctl::PacketPtr heldKey;    // a key picture that may have more pieces to come
    bool splitsKeys = false;      // SplitsKeyPictures, fixed for the stream's life
    uint64_t rateStart = 0;       // start of the bit-rate period
    uint64_t frameRateStart = 0;  // start of the frame-rate period
    uint64_t periodBytes = 0;     // video bytes in the bit-rate period
    int periodQueued = 0;         // video packets queued in the bit-rate period
    int periodFrames = 0;         // video pictures read in the frame-rate period
    int smoothCount = 0;
    uint64_t smoothStart = 0;
    bool dropUntilKey = false;
    bool videoQueued = false;     // a video packet was queued since the start
    int probeFollowers = 0;       // video packets queued behind the probe's key frame, decoding still off
    time_t lastPacketTime = 0;    // wall time of the last packet handed on
};

void UpdateBitRate(FFMpegContext* ctx, ReaderState& st, const AVPacket* pkt) {
    uint64_t now = os_tick_count64();
    uint64_t ms = now - st.rateStart;
    if (ms >= kRatePeriodMs) {
        st.rateStart = now;
        ctx->m_nNetFrameRate = st.periodQueued / int(kRatePeriodSec);
        ctx->m_fNetRate = float(double(st.periodBytes) * 8.0 / double(ms));
        st.periodQueued = 0;
        st.periodBytes = 0;
    }
    if (pkt->stream_index == ctx->m_nVideoIndex && pkt->size >= 0) st.periodBytes += uint64_t(pkt->size);
}

void CountVideoPacket(FFMpegContext* ctx, ReaderState& st, const AVPacket* pkt) {
    uint64_t now = os_tick_count64();
    if (ctx->m_bSmooth) {
        if (st.smoothCount++ == 0) st.smoothStart = now;
        if (st.smoothCount == kSmoothSamplePackets) {
            ctx->m_nHalfFrameInterval = int32_t(uint32_t(now - st.smoothStart + kSmoothTickMs / 2) / kSmoothTickMs);
            st.smoothCount = 0;
            st.smoothStart = now;
        }
    }
    uint64_t ms = now - st.frameRateStart;
    if (ms >= kRatePeriodMs) {
        ctx->m_nFramesCount = int32_t((uint64_t(st.periodFrames) * 1000 + ms / 2) / ms);
        st.periodFrames = 0;
        st.frameRateStart = now;
    }
    if (StartsPicture(ctx, pkt)) ++st.periodFrames;
}

// Carries out a pending seek. False when the target lies beyond the end.
bool ApplySeek(FFMpegContext* ctx, int64_t target, bool network) {
    FlushVideoPackets(ctx);
    int64_t seconds = target * ctx->m_nTimeBaseNum / ctx->m_nTimeBaseDen;
    if (seconds > ctx->m_nDurationSec) return false;
    {
        const ScopedIoDeadline deadline(ctx->m_IoGuard, network, kNetReadTimeoutMs);
        av_seek_frame(ctx->m_pFormatCtx.get(), ctx->m_nVideoIndex, target, AVSEEK_FLAG_BACKWARD);
    }
    ctx->m_nSeekTarget = 0;
    return true;
}

void OnOverflow(FFMpegContext* ctx, ReaderState& st, int count) {
    os_print("GetAVPktListElmCount :%d", count);
    FlushVideoPackets(ctx);
    FlushAudioPackets(ctx);
    ctx->m_AudioClock.Reset();
    st.dropUntilKey = true;
}

// Reads the next packet. False ends the reader (after logging why).
bool ReadPacket(FFMpegContext* ctx, ReaderState& st, bool network, AVPacket* pkt) {
    const ScopedIoDeadline deadline(ctx->m_IoGuard, network, kNetReadTimeoutMs);
    if (ctx->m_HttpFrame.IsFrameStream()) {
        int audioChanged = 0;
        int newAudioCodec = 0;
        if (http_read_one_frame(ctx, pkt, &audioChanged, &newAudioCodec) < 0) {
            os_print("http_read_one_frame error time-period:%d", int(time(nullptr) - st.lastPacketTime));
            return false;
        }
        if (audioChanged) OpenAudioDecoder(ctx, newAudioCodec);
        return true;
    }
    int ret = av_read_frame(ctx->m_pFormatCtx.get(), pkt);
    if (ret < 0) {
        os_print("av_read_frame error time-period:%d", int(time(nullptr) - st.lastPacketTime));
        return false;
    }
    return true;
}

void Enqueue(FFMpegContext* ctx, ReaderState& st, AVPacket* pkt);

// Counts, records and queues a packet of the video or audio stream.
void HandOn(FFMpegContext* ctx, ReaderState& st, AVPacket* pkt) {
    if (pkt->stream_index == ctx->m_nVideoIndex) CountVideoPacket(ctx, st, pkt);
    st.lastPacketTime = time(nullptr);
    RecordWritePacket(ctx, pkt);
    Enqueue(ctx, st, pkt);
    av_packet_unref(pkt);
}

// Joins the pieces of a key picture (see JoinKeyPicturePiece): a key packet
// is held until the next video packet shows whether it continues it. True
// when pkt was taken (held or joined) and nothing is to be handed on now.
bool HoldKeyPicture(FFMpegContext* ctx, ReaderState& st, AVPacket* pkt) {
    if (!st.splitsKeys || pkt->stream_index != ctx->m_nVideoIndex) return false;
    if (st.heldKey) {
        if (JoinKeyPicturePiece(st.heldKey.get(), pkt)) {
            av_packet_unref(pkt);
            return true;
        }
        HandOn(ctx, st, st.heldKey.get());
        st.heldKey.reset();
    }
    if (!IsKey(pkt)) return false;
    st.heldKey = camctl::MakePacket();
    if (!st.heldKey) return false;
    av_packet_move_ref(st.heldKey.get(), pkt);
    return true;
}

void Enqueue(FFMpegContext* ctx, ReaderState& st, AVPacket* pkt) {
    if (st.dropUntilKey) {
        if (pkt->stream_index != ctx->m_nVideoIndex || !IsKey(pkt)) return;
        st.dropUntilKey = false;
    }
    if (pkt->stream_index == ctx->m_nAudioIndex) {
        PushAudioPacket(ctx, pkt);
        return;
    }
    // The first queued video packet is a key frame taken while decoding is
    // enabled; from then on every video packet is queued. The key frame an
    // RTSP open's probe queued counts as one if decoding comes on within the
    // kProbeFollowers video packets after it: they are queued behind it while
    // the decode thread waits; if decoding stays off they are flushed.
    if (!st.videoQueued && ctx->m_bProbeKeyQueued) {
        if (ctx->m_bDecode || ++st.probeFollowers <= kProbeFollowers) {
            PushVideoPacket(ctx, pkt);
            ++st.periodQueued;
            if (ctx->m_bDecode) {
                st.videoQueued = true;
                ctx->m_bProbeKeyQueued = false;
            }
            return;
        }
        FlushVideoPackets(ctx);
        ctx->m_bProbeKeyQueued = false;
    }
    if (st.videoQueued || (IsKey(pkt) && ctx->m_bDecode)) {
        PushVideoPacket(ctx, pkt);
        st.videoQueued = true;
        ++st.periodQueued;
    }
}

}  // namespace

void NameEngineThread(const FFMpegContext* ctx, const char* role) {
    const std::string url = ctx->m_szUrl;
    std::string source;
    const size_t scheme = url.find("://");
    if (scheme != std::string::npos) {
        size_t start = scheme + 3;
        const size_t end = url.find_first_of("/?", start);
        const size_t at = url.rfind('@', end);  // credentials never reach the name
        if (at != std::string::npos && at >= start) start = at + 1;
        source = url.substr(start, end == std::string::npos ? std::string::npos : end - start);
        const size_t port = source.rfind(':');
        if (port != std::string::npos && source.find(']') == std::string::npos) source.resize(port);
    } else {
        const size_t slash = url.rfind('/');
        source = slash == std::string::npos ? url : url.substr(slash + 1);
    }
    constexpr size_t kThreadNameMax = 15;  // Linux keeps 15 characters and the NUL
    std::string name = std::string(role) + ":" + source;
    if (name.size() > kThreadNameMax) name.resize(kThreadNameMax);
    os_thread_set_name(name.c_str());
}

void* ReadThreadProc(void* arg) {
    auto* ctx = static_cast<FFMpegContext*>(arg);
    NameEngineThread(ctx, "rd");
    const bool network = IsNetworkSource(ctx->m_szUrl);
    ReaderState st;
    st.splitsKeys = SplitsKeyPictures(ctx);
    st.rateStart = st.frameRateStart = os_tick_count64();
    st.lastPacketTime = time(nullptr);
    camctl::PacketPtr pkt = camctl::MakePacket();
    if (!pkt) {
        ctx->m_bReadEnd = 1;
        return nullptr;
    }

    while (ctx->m_bRunning) {
        if (ctx->m_bPause) {
            os_sleep_ms(kPauseSleepMs);
            continue;
        }
        int64_t target = ctx->m_nSeekTarget;
        if (target > 0 && !ApplySeek(ctx, target, network)) {
            os_print("Seek error time-period:%d", int(time(nullptr) - st.lastPacketTime));
            break;
        }
        int queued = GetAVPktListElmCount(ctx);
        if (ctx->m_bThrottleRead && queued >= kThrottleQueue) {
            os_sleep_ms(kThrottleSleepMs);
            continue;
        }
        if (queued > kOverflowQueue) {
            OnOverflow(ctx, st, queued);
            continue;
        }
        if (ctx->m_Recorder.Recording() && ctx->m_Recorder.StartTick() == 0)
            os_print("nSaveTickCount:%d\n", int(ctx->m_Recorder.StartTick()));

        if (!ReadPacket(ctx, st, network, pkt.get())) break;

        UpdateBitRate(ctx, st, pkt.get());
        const int index = pkt->stream_index;
        if (index != ctx->m_nVideoIndex && index != ctx->m_nAudioIndex) {
            av_packet_unref(pkt.get());
            continue;
        }
        if (!HoldKeyPicture(ctx, st, pkt.get())) HandOn(ctx, st, pkt.get());
    }
    // A stream that ended by itself still hands on the key picture it held.
    if (st.heldKey && ctx->m_bRunning) HandOn(ctx, st, st.heldKey.get());
    ctx->m_bReadEnd = 1;
    return nullptr;
}

bool SplitsKeyPictures(const FFMpegContext* ctx) {
    // Files hold whole pictures, and so does the private HTTP stream.
    const AVFormatContext* fmt = ctx->m_HttpFrame.IsFrameStream() ? nullptr : ctx->m_pFormatCtx.get();
    if (!fmt || !fmt->iformat || std::strcmp(fmt->iformat->name, "rtsp") != 0) return false;
    return ctx->m_nVideoCodecId == AV_CODEC_ID_H264 || ctx->m_nVideoCodecId == AV_CODEC_ID_HEVC;
}

bool JoinKeyPicturePiece(AVPacket* held, const AVPacket* pkt) {
    if (!IsKey(held) || !IsKey(pkt) || pkt->stream_index != held->stream_index) return false;
    if (held->pts != AV_NOPTS_VALUE && held->pts != pkt->pts) return false;
    const int start = held->size;
    if (av_grow_packet(held, pkt->size) < 0) return false;
    std::memcpy(held->data + start, pkt->data, size_t(pkt->size));
    held->pts = pkt->pts;
    held->dts = pkt->dts;
    return true;
}

int SyncVideoToAudio(FFMpegContext* ctx, int64_t pts) {
    const uint32_t now = os_tick_count();
    bool known = false;
    uint32_t due = 0;
    // One look at the clock (and, the first time, the offset taken from it).
    ctx->m_AudioClock.Update([&](AudioClock::State& clock) {
        if (!clock.refPts || !clock.refTick || !clock.clock || now == 0) return;
        const uint32_t refPts = uint32_t(clock.refPts);
        const uint32_t refTick = uint32_t(clock.refTick);
        if (int32_t(refTick - now) > 0) return;  // the audio reference lies ahead
        known = true;
        if (ctx->m_bHttpSource) {
            due = refTick - refPts + uint32_t(pts);  // millisecond timestamps
        } else {
            const uint32_t t = uint32_t(pts * 1000 / kPtsClockHz);
            if (clock.videoOffset == 0) clock.videoOffset = uint32_t(refTick - refPts - now + t);
            due = refTick - refPts - uint32_t(clock.videoOffset) + t;
        }
    });
    if (!known) return 0;
    // Slept in slices so that closing the context is never held up.
    for (int32_t wait = int32_t(due - os_tick_count()); wait > 0 && ctx->m_bRunning;
         wait = int32_t(due - os_tick_count()))
        os_sleep_ms(uint32_t(wait < int32_t(kPauseSleepMs) ? wait : int32_t(kPauseSleepMs)));
    return 0;
}

int64_t RequestSeek(FFMpegContext* ctx, int64_t seconds) {
    if (!ctx || ctx->m_nDurationSec < 5) return 0;
    int64_t s = seconds / 5 * 5;
    if (s < 5) s = 5;
    ctx->m_nSeekTarget = s * ctx->m_nTimeBaseDen / ctx->m_nTimeBaseNum;
    return s;
}
