// Opening and closing a stream: the one-time engine initialisation, and
// FFMpegContextCreate / FFMpegContextDestroy for files, RTSP URLs and the
// private HTTP frame stream.
//
// Network sources never block for good: every demuxer (and the AVIO
// connection of the private HTTP stream) carries an interrupt callback that
// gives up once the context is being destroyed or the current I/O deadline
// has passed (kNetOpenTimeoutMs while opening, kNetReadTimeoutMs per read).
// RTSP runs interleaved over the TCP control connection first: a server that
// stops answering or goes away is then noticed by the next read. Only when
// the server refuses that transport is the stream opened again over UDP.
#include <netdb.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "engine/engine.h"
#include "engine/h265/ihw265d_stage.h"
#include "engine/http_frame.h"

extern "C" {
#include <libavutil/error.h>
}

namespace {

// The network initialisation runs once per process (FFmpeg keeps its own
// locks, so no lock-manager is installed).
std::once_flag g_initOnce;

constexpr int kProbePackets = 200;
constexpr int kDefaultWidth = 1280;
constexpr int kDefaultHeight = 720;

void FreeContext(FFMpegContext* ctx) {
    FFMpegContextFree(ctx);
}

struct ContextFreer {
    void operator()(FFMpegContext* ctx) const { FreeContext(ctx); }
};
using ContextPtr = std::unique_ptr<FFMpegContext, ContextFreer>;

struct DictFreer {
    void operator()(AVDictionary* d) const { av_dict_free(&d); }
};

std::string ErrText(int err) {
    char buf[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, buf, sizeof buf);
    return buf;
}

bool Contains(const char* s, const char* what) { return s && std::strstr(s, what) != nullptr; }

// Records why an open failed (when the caller asked) and answers -1. The
// detail is what was being done, then FFmpeg's text for err (if any).
int OpenFailed(OpenFailureInfo* failure, int reason, const std::string& doing, int err = 0) {
    if (failure) {
        failure->reason = reason;
        const std::string text = err ? doing + ": " + ErrText(err) : doing;
        os_strlcpy(failure->text, text.c_str(), sizeof failure->text);
    }
    return -1;
}

// A failed avformat_open_input / avio_open2 as a reason a user can act on.
// AVERROR_EXIT is our own open deadline: nothing answered in time.
int OpenErrorReason(int err) {
    switch (err) {
        case AVERROR_HTTP_UNAUTHORIZED:
        case AVERROR_HTTP_FORBIDDEN:
            return CAMCTL_OPEN_UNAUTHORIZED;
        case AVERROR_HTTP_NOT_FOUND:
        case AVERROR(ENOENT):
            return CAMCTL_OPEN_NOT_FOUND;
        case AVERROR(ECONNREFUSED):
        case AVERROR(EHOSTUNREACH):
        case AVERROR(ENETUNREACH):
        case AVERROR(ETIMEDOUT):
        case AVERROR_EXIT:
            return CAMCTL_OPEN_UNREACHABLE;
        case AVERROR_PROTOCOL_NOT_FOUND:
        case AVERROR(EINVAL):
            return CAMCTL_OPEN_BAD_URL;
        case AVERROR_INVALIDDATA:
        case AVERROR_DEMUXER_NOT_FOUND:
            return CAMCTL_OPEN_NO_VIDEO;
        default:
            return CAMCTL_OPEN_OTHER;
    }
}

// A source that would not open. FFmpeg reports a host name that does not
// resolve as a plain I/O error; resolving it again tells that case apart.
int SourceOpenFailed(OpenFailureInfo* failure, const char* url, const char* doing, int err) {
    if (err == AVERROR(EIO) && IsNetworkSource(url)) {
        char host[256] = {};
        int port = -1;
        av_url_split(nullptr, 0, nullptr, 0, host, sizeof host, &port, nullptr, 0, url);
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        const int rc = host[0] ? getaddrinfo(host, nullptr, &hints, &found) : 0;
        if (found) freeaddrinfo(found);
        if (rc != 0)
            return OpenFailed(failure, CAMCTL_OPEN_UNREACHABLE,
                              std::string("resolving host ") + host + ": " + gai_strerror(rc));
    }
    return OpenFailed(failure, OpenErrorReason(err), doing, err);
}

// Opens the demuxer once with the given RTSP lower transport ("" for none).
int OpenInput(FFMpegContext* ctx, const char* url, const char* rtspTransport, AVFormatContext** out) {
    AVFormatContext* fmt = avformat_alloc_context();
    if (!fmt) return AVERROR(ENOMEM);
    fmt->interrupt_callback = ctx->m_IoGuard.Callback();

    AVDictionary* raw = nullptr;
    if (*rtspTransport) {
        av_dict_set(&raw, "rtsp_transport", rtspTransport, 0);
        av_dict_set_int(&raw, "timeout", int64_t(kNetReadTimeoutMs) * 1000, 0);  // socket I/O, µs
    } else if (IsNetworkSource(url)) {
        av_dict_set_int(&raw, "rw_timeout", int64_t(kNetReadTimeoutMs) * 1000, 0);
    }
    std::unique_ptr<AVDictionary, DictFreer> opts(raw);
    ctx->m_IoGuard.Arm(IsNetworkSource(url) ? kNetOpenTimeoutMs : 0);
    AVDictionary* o = opts.release();
    int ret = avformat_open_input(&fmt, url, nullptr, &o);  // frees fmt on failure
    opts.reset(o);
    if (ret >= 0) *out = fmt;
    return ret;
}

// Reads up to kProbePackets packets and decodes video until a picture comes
// out; its size becomes the context's size. When that picture came from a
// key frame on, the key frame and the packets after it are queued so the
// stream starts with them (MJPEG pictures stand alone and need no such
// help); a key picture that may come in pieces (see JoinKeyPicturePiece)
// is read on until its next packet. The probe ends on a count of packets,
// not on time: each read has a deadline of its own, so a camera that is
// slow to show its first picture stays usable. False when a read missed
// its deadline: the source is gone.
bool ProbePictureSize(FFMpegContext* ctx) {
    AVFormatContext* fmt = ctx->m_pFormatCtx.get();
    AVCodecContext* cc = ctx->m_pVideoCodecCtx.get();
    camctl::PacketPtr pkt = camctl::MakePacket();
    camctl::FramePtr frame = camctl::MakeFrame();
    if (!pkt || !frame) return true;
    std::vector<camctl::PacketPtr> group;  // video packets from the last key frame on
    const bool splits = SplitsKeyPictures(ctx);
    bool got = false;
    for (int i = 0; i < kProbePackets; ++i) {
        int read = 0;
        {
            const ScopedIoDeadline deadline(ctx->m_IoGuard, true, kNetReadTimeoutMs);
            read = av_read_frame(fmt, pkt.get());
        }
        if (read < 0) break;
        if (pkt->stream_index != ctx->m_nVideoIndex) {
            av_packet_unref(pkt.get());
            continue;
        }
        const bool key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
        const bool piece = group.size() == 1 && splits && JoinKeyPicturePiece(group[0].get(), pkt.get());
        if (!piece && (key || !group.empty())) {
            if (key) group.clear();
            group.push_back(camctl::MakePacket());
            if (!group.back() || av_packet_ref(group.back().get(), pkt.get()) < 0) group.clear();
        }
        if (!got && avcodec_send_packet(cc, pkt.get()) >= 0 && avcodec_receive_frame(cc, frame.get()) >= 0) {
            got = true;
            ctx->m_nWidth = frame->width;
            ctx->m_nHeight = frame->height;
        }
        av_packet_unref(pkt.get());
        if (got && !piece && !(group.size() == 1 && splits)) break;
    }
    if (got && !group.empty() && ctx->m_nVideoCodecId != kCodecMjpeg) {
        for (const camctl::PacketPtr& p : group) PushVideoPacket(ctx, p.get());
        ctx->m_bProbeKeyQueued = true;
    }
    // The decode thread starts from the queued key frame with a clean decoder.
    avcodec_flush_buffers(cc);
    return !ctx->m_IoGuard.Aborted();
}

// Prepares a video decoder context for codec params of the stream (or, for
// the private HTTP stream, just the codec). HEVC gets the hardware device
// when one is usable and low-delay output.
camctl::CodecContextPtr MakeVideoDecoder(const AVCodec* dec, const AVStream* st) {
    camctl::CodecContextPtr cc(avcodec_alloc_context3(dec));
    if (!cc) return nullptr;
    if (st) {
        if (avcodec_parameters_to_context(cc.get(), st->codecpar) < 0) return nullptr;
        cc->pkt_timebase = st->time_base;
    }
    if (dec->id == kCodecHevc) {
        PrepareHwDecoder(cc.get(), kCodecHevc);  // -1: software decoding
        cc->flags |= AV_CODEC_FLAG_LOW_DELAY;
    }
    if (avcodec_open2(cc.get(), dec, nullptr) < 0) return nullptr;
    return cc;
}

// Opens the decoder of a demuxer's audio stream from its parameters. A
// decoder that will not open leaves the stream without audio. G.726 is
// 2 bits a sample, except over RTSP, where the SDP's G726-16/24/32/40 name
// gives 2 to 5.
void OpenStreamAudioDecoder(FFMpegContext* ctx, const AVCodec* dec, const AVStream* st, int index, bool rtsp) {
    camctl::CodecContextPtr ac(avcodec_alloc_context3(dec));
    if (!ac || avcodec_parameters_to_context(ac.get(), st->codecpar) < 0) return;
    ac->pkt_timebase = st->time_base;
    if (dec->id == AV_CODEC_ID_ADPCM_G726) {
        const int bits = st->codecpar->bits_per_coded_sample;
        ac->bits_per_coded_sample = rtsp && bits >= 2 && bits <= 5 ? bits : 2;
        ac->sample_rate = kNarrowbandRateHz;
    } else if (dec->id == AV_CODEC_ID_ADPCM_G722) {
        ac->bits_per_coded_sample = 4;
        ac->sample_rate = 16000;
    }
    if (avcodec_open2(ac.get(), dec, nullptr) < 0) return;
    ctx->m_nAudioIndex = index;
    ctx->m_nAudioCodecId = dec->id;
    ctx->m_AudioClock.SetSampleRate(ac->sample_rate);
    ctx->m_pAudioCodecCtx = std::move(ac);
}

int OpenDemuxerSource(FFMpegContext* ctx, const char* url, const char* maskedUrl, OpenFailureInfo* failure) {
    ctx->m_bHttpSource = 0;
    const bool rtsp = Contains(url, "rtsp://");

    AVFormatContext* fmt = nullptr;
    int ret = OpenInput(ctx, url, rtsp ? "tcp" : "", &fmt);
    if (ret < 0 && rtsp && !ctx->m_IoGuard.Interrupted() && ret != AVERROR(ECONNREFUSED) &&
        ret != AVERROR(ETIMEDOUT) && ret != AVERROR_EXIT) {
        os_print("%s: no interleaved RTSP (%s), trying UDP", maskedUrl, ErrText(ret).c_str());
        ret = OpenInput(ctx, url, "udp", &fmt);
    }
    ctx->m_IoGuard.Arm(0);
    if (ret < 0) {
        os_print("avformat_open_input error");
        os_print("%s: %s", maskedUrl, ErrText(ret).c_str());
        return SourceOpenFailed(failure, url, rtsp ? "opening the RTSP stream" : "opening the source", ret);
    }
    ctx->m_pFormatCtx.reset(fmt);

    const AVCodec* dec = nullptr;
    int vi = av_find_best_stream(fmt, AVMEDIA_TYPE_VIDEO, -1, -1, &dec, 0);
    if (vi < 0 || !dec)
        return OpenFailed(failure, CAMCTL_OPEN_NO_VIDEO, "looking for a video stream",
                          vi < 0 ? vi : AVERROR_DECODER_NOT_FOUND);

    // RTSP sessions describe their streams in the SDP; probing them would
    // cost seconds of live video. MPEG-4 Part 2 needs the probe for its
    // configuration.
    if (!rtsp || dec->id == kCodecMpeg4) {
        ctx->m_IoGuard.Arm(IsNetworkSource(url) ? kNetOpenTimeoutMs : 0);
        avformat_find_stream_info(fmt, nullptr);
        ctx->m_IoGuard.Arm(0);
    }

    ctx->m_nDurationSec = fmt->duration == AV_NOPTS_VALUE ? 0 : fmt->duration / 1000000;
    const AVStream* st = fmt->streams[vi];
    int64_t den = st->time_base.den;
    int64_t num = st->time_base.num < 1 ? 1 : st->time_base.num;
    if (den < 1 || den > 30000) {
        den = 24;
        num = 1;
    }
    ctx->m_nTimeBaseDen = den;
    ctx->m_nTimeBaseNum = num;
    ctx->m_nVideoIndex = vi;
    ctx->m_nVideoCodecId = dec->id;

    camctl::CodecContextPtr cc = MakeVideoDecoder(dec, st);
    if (!cc) return OpenFailed(failure, CAMCTL_OPEN_NO_VIDEO, std::string("opening the decoder ") + dec->name);
    ctx->m_nWidth = cc->width;
    ctx->m_nHeight = cc->height;
    ctx->m_pVideoCodecCtx = std::move(cc);

    if (rtsp && !ProbePictureSize(ctx)) {
        os_print("%s: no answer while probing the picture size", maskedUrl);
        return OpenFailed(failure, CAMCTL_OPEN_NO_VIDEO, "probing the picture size: no answer", AVERROR_EXIT);
    }
    if (int64_t(ctx->m_nWidth) * ctx->m_nHeight == 0) {
        ctx->m_nWidth = kDefaultWidth;
        ctx->m_nHeight = kDefaultHeight;
    }

    // HEVC: the IHW265D instance, at the context size; failing to make it
    // leaves the stream to FFmpeg.
    if (ctx->m_nVideoCodecId == kCodecHevc) camctl::h265::CreateContextDecoder(ctx);

    // The audio stream is taken at any index: a camera whose SDP lists its
    // audio before the video has it at index 0.
    const AVCodec* adec = nullptr;
    int ai = av_find_best_stream(fmt, AVMEDIA_TYPE_AUDIO, -1, -1, &adec, 0);
    if (ai >= 0 && adec) OpenStreamAudioDecoder(ctx, adec, fmt->streams[ai], ai, rtsp);
    return 0;
}

// The private frame stream: the first 2000 bytes must hold a frame header,
// which gives the picture size and the codecs.
int OpenHttpSource(FFMpegContext* ctx, const char* url, const char* maskedUrl, OpenFailureInfo* failure) {
    ctx->m_bHttpSource = 1;
    ctx->m_HttpFrame.Open();

    AVIOInterruptCB cb = ctx->m_IoGuard.Callback();
    AVDictionary* raw = nullptr;
    av_dict_set_int(&raw, "rw_timeout", int64_t(kNetReadTimeoutMs) * 1000, 0);
    std::unique_ptr<AVDictionary, DictFreer> opts(raw);
    AVIOContext* io = nullptr;
    ctx->m_IoGuard.Arm(kNetOpenTimeoutMs);
    AVDictionary* o = opts.release();
    int ret = avio_open2(&io, url, AVIO_FLAG_READ, &cb, &o);
    opts.reset(o);
    if (ret < 0) {
        ctx->m_IoGuard.Arm(0);
        os_print("FFMpegContextCreate  fail avio_open error(%d)", ret);
        os_print("%s: %s", maskedUrl, ErrText(ret).c_str());
        return SourceOpenFailed(failure, url, "connecting to the frame stream", ret);
    }
    ctx->m_pHttpIo.reset(io);

    int got = ctx->m_HttpFrame.ReadMore(io);  // parsed again by the reader
    ctx->m_IoGuard.Arm(0);
    if (got <= 0) {
        os_print("avio_read failed");
        const char* doing = got < 0 ? "reading the first frame" : "the server sent no data";
        return OpenFailed(failure, CAMCTL_OPEN_NO_VIDEO, doing, got);
    }

    HttpFrameHeader h;
    if (ParseFrameHeader(ctx->m_HttpFrame.Data(), ctx->m_HttpFrame.Len(), &h) < 0)
        return OpenFailed(failure, CAMCTL_OPEN_NO_VIDEO, "no frame header in the first data (not a frame stream)");
    os_print("header.ver:%d, width:%d, height:%d, size:%d codec:%d audio_codec:%d", int(h.ver), int(h.width),
             int(h.height), int(h.size), int(h.codec), int(h.audio_codec));

    ctx->m_nWidth = int32_t(h.width);
    ctx->m_nHeight = int32_t(h.height);
    ctx->m_nVideoIndex = 0;
    ctx->m_nVideoCodecId = HttpFrameVideoCodecId(h.codec);
    const AVCodec* dec = avcodec_find_decoder(AVCodecID(ctx->m_nVideoCodecId.load()));
    if (!dec)
        return OpenFailed(failure, CAMCTL_OPEN_NO_VIDEO, "frame codec " + std::to_string(h.codec),
                          AVERROR_DECODER_NOT_FOUND);
    ctx->m_pVideoCodecCtx = MakeVideoDecoder(dec, nullptr);
    if (!ctx->m_pVideoCodecCtx)
        return OpenFailed(failure, CAMCTL_OPEN_NO_VIDEO, std::string("opening the decoder ") + dec->name);

    // The audio decoder itself is opened when the threads start.
    if (h.audio_codec != -1) {
        ctx->m_nAudioIndex = 1;
        ctx->m_nAudioCodecId = HttpFrameAudioCodecId(h.audio_codec);
        ctx->m_AudioClock.SetSampleRate(int32_t(h.sample_rate));
    }
    return 0;
}

}  // namespace

int EngineGlobalInit() {
    std::call_once(g_initOnce, [] { avformat_network_init(); });
    return 0;
}

bool IsNetworkSource(const char* url) { return Contains(url, "://"); }

FFMpegContext* FFMpegContextCreate(IFrameListener* owner, const char* url, int yuvOutput, FrameWaitFn frameWait,
                                   int smooth) {
    return FFMpegContextCreateEx(owner, url, yuvOutput, frameWait, smooth, ContextOptions{});
}

FFMpegContext* FFMpegContextCreateEx(IFrameListener* owner, const char* url, int yuvOutput, FrameWaitFn frameWait,
                                     int smooth, const ContextOptions& options, OpenFailureInfo* failure) {
    if (failure) *failure = OpenFailureInfo{};
    if (!url) {
        OpenFailed(failure, CAMCTL_OPEN_BAD_URL, "no source given");
        return nullptr;
    }
    EngineGlobalInit();
    ContextPtr ctx(FFMpegContextAlloc());
    if (!ctx) {
        OpenFailed(failure, CAMCTL_OPEN_OTHER, "allocating the media context", AVERROR(ENOMEM));
        return nullptr;
    }
    ctx->m_nAudioIndex = -1;

    char masked[256];
    MaskUrlCredentials(url, masked, sizeof masked);
    const bool http = Contains(url, "http://");
    if ((http ? OpenHttpSource(ctx.get(), url, masked, failure)
              : OpenDemuxerSource(ctx.get(), url, masked, failure)) < 0)
        return nullptr;

    ctx->m_pOwner = owner;
    ctx->m_bRunning = 1;
    os_strlcpy(ctx->m_szUrl, url, sizeof ctx->m_szUrl);
    // Everything the threads read is in place before the first one starts.
    ctx->m_pfnFrameWait = frameWait;
    ctx->m_bSmooth = Contains(url, "playback") ? 0 : smooth;
    ctx->m_bDecode = options.decode;
    ctx->m_bThrottleRead = options.throttleRead;

    // The audio thread runs whether or not there is audio: it also drains
    // the records of the private stream that carry no stream of their own.
    // It starts before the reader, which reopens the audio decoder (and
    // restarts this thread) when the stream's audio changes: from then on
    // only the reader touches the decoder and the thread handle.
    if (http && ctx->m_nAudioIndex >= 0) OpenAudioDecoder(ctx.get(), ctx->m_nAudioCodecId);
    if (!ctx->m_hAudioThread) StartAudioThread(ctx.get());

    ctx->m_hReadThread.reset(os_thread_create(nullptr, ReadThreadProc, ctx.get()));
    if (ctx->m_hReadThread)
        ctx->m_hVideoThread.reset(
            os_thread_create(nullptr, yuvOutput ? VideoDecodeThreadYuv : VideoDecodeThreadBgr, ctx.get()));
    if (!ctx->m_hVideoThread) {
        ctx->m_bRunning = 0;
        ctx->m_IoGuard.Abort();
        ctx->m_hReadThread.reset();
        StopAudioThread(ctx.get());
        OpenFailed(failure, CAMCTL_OPEN_OTHER, "starting the stream's threads");
        return nullptr;
    }
    os_print("FFMpegContextCreate  succ end(yuv:%d) 9999999999999999999999999", yuvOutput);
    return ctx.release();
}

int FFMpegContextDestroy(FFMpegContext* ctx) {
    if (!ctx) return 0;
    ctx->m_bRunning = 0;
    ctx->m_IoGuard.Abort();  // wakes a reader blocked in network I/O
    WakePacketWaiters(ctx);
    RecordStop(ctx);
    ctx->m_hReadThread.reset();
    ctx->m_hVideoThread.reset();
    StopAudioThread(ctx);
    ctx->m_hH265Decoder.reset();  // the IHW265D instance, if any
    FreeContext(ctx);  // queues, locks, decoders, then the source
    return 0;
}
