// Audio decoding thread: takes packets from the context's audio queue,
// decodes them to signed 16-bit samples, hands each block to the owning
// session and keeps the audio clock that video pacing follows.
//
// AAC goes through FAAD2; G.711 through send/receive; G.726, G.722 and any
// other codec through AudioDecode4, which keeps the size-in/size-out
// contract of the old one-call audio decoder.
#include <neaacdec.h>

#include <cstring>
#include <vector>

#include "engine/engine.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/samplefmt.h>
}

namespace {

constexpr int kSampleBufBytes = 32000;  // the thread's sample buffer
constexpr int kDecodeBytes = 16000;     // in/out size given to one decode
constexpr int kEmptyRoundsBeforeDrop = 300;
// Longest wait for a packet once the audio clock is dropped.
constexpr uint32_t kIdleWaitMs = 1000;


// Owner of a FAAD2 decoder handle.
class FaadDecoder {
public:
    FaadDecoder() = default;
    FaadDecoder(const FaadDecoder&) = delete;
    FaadDecoder& operator=(const FaadDecoder&) = delete;
    ~FaadDecoder() {
        if (handle_) NeAACDecClose(handle_);
    }

    // Opens the decoder for 16-bit, down-mixed output.
    bool Open(unsigned long default_rate) {
        handle_ = NeAACDecOpen();
        if (!handle_) return false;
        NeAACDecConfigurationPtr cfg = NeAACDecGetCurrentConfiguration(handle_);
        cfg->defObjectType = 0;
        cfg->defSampleRate = default_rate;
        cfg->outputFormat = FAAD_FMT_16BIT;
        cfg->downMatrix = 1;
        // Low-rate AAC-LC would otherwise come out at twice its rate
        // (implicit SBR assumed).
        cfg->dontUpSampleImplicitSBR = 1;
        NeAACDecSetConfiguration(handle_, cfg);
        return true;
    }

    // Initialises from the decoder-specific info when the container gave
    // one (raw AAC from MP4/MKV), else from the first packet (ADTS).
    bool Init(const AVCodecContext* codec_ctx, const AVPacket* pkt) {
        unsigned long rate = 0;
        unsigned char channels = 0;
        if (codec_ctx && codec_ctx->ch_layout.nb_channels > 0) {
            source_channels_ = codec_ctx->ch_layout.nb_channels;
        } else if (pkt->size >= 4 && pkt->data[0] == 0xFF && (pkt->data[1] & 0xF0) == 0xF0) {
            source_channels_ = ((pkt->data[2] & 0x01) << 2) | (pkt->data[3] >> 6);  // ADTS
        }
        if (codec_ctx && codec_ctx->extradata && codec_ctx->extradata_size >= 2) {
            return NeAACDecInit2(handle_, codec_ctx->extradata,
                                 static_cast<unsigned long>(codec_ctx->extradata_size), &rate,
                                 &channels) >= 0;
        }
        return NeAACDecInit(handle_, pkt->data, static_cast<unsigned long>(pkt->size), &rate,
                            &channels) >= 0;
    }

    // Decodes one packet into out (at most out_size bytes). Returns the
    // bytes written, or -1 on a decode error; rate and channels are set
    // from the frame information.
    int Decode(const AVPacket* pkt, uint8_t* out, int out_size, int* rate, int* channels) {
        NeAACDecFrameInfo info{};
        void* samples = NeAACDecDecode(handle_, &info, pkt->data, static_cast<unsigned long>(pkt->size));
        if (info.error != 0) return -1;
        int count = samples ? static_cast<int>(info.samples) : 0;
        *rate = static_cast<int>(info.samplerate);
        *channels = info.channels > 0 ? info.channels : 1;
        const auto* in = static_cast<const int16_t*>(samples);
        if (*channels == 2 && source_channels_ == 1) {
            // FAAD2 always hands mono out as two equal channels (room for
            // parametric stereo); keep the left one.
            count /= 2;
            if (count * 2 > out_size) count = out_size / 2;
            auto* dst = reinterpret_cast<int16_t*>(out);
            for (int i = 0; i < count; ++i) dst[i] = in[2 * i];
            *channels = 1;
            return count * 2;
        }
        int bytes = count * 2;
        if (bytes > out_size) bytes = out_size;
        if (bytes > 0) std::memcpy(out, in, static_cast<size_t>(bytes));
        return bytes;
    }

private:
    NeAACDecHandle handle_ = nullptr;
    int source_channels_ = 0;  // channels of the stream itself, 0 unknown
};

// Bytes of one decoded frame laid out without padding.
int FrameBytes(const AVFrame* frame) {
    return av_samples_get_buffer_size(nullptr, frame->ch_layout.nb_channels, frame->nb_samples,
                                      static_cast<AVSampleFormat>(frame->format), 1);
}

// Rewrites samples of another format as signed 16-bit in place (plane
// order kept). Returns the new byte count.
int ConvertToS16(uint8_t* buf, int bytes, AVSampleFormat fmt) {
    AVSampleFormat packed = av_get_packed_sample_fmt(fmt);
    int width = av_get_bytes_per_sample(packed);
    if (packed == AV_SAMPLE_FMT_S16 || width <= 0) return bytes;
    int count = bytes / width;
    auto* out = reinterpret_cast<int16_t*>(buf);
    auto clip = [](double v) {
        if (v > 1.0) v = 1.0;
        if (v < -1.0) v = -1.0;
        return static_cast<int16_t>(v * 32767.0);
    };
    if (packed == AV_SAMPLE_FMT_U8) {
        // Output is wider than input: walk backwards.
        for (int i = count - 1; i >= 0; --i) out[i] = static_cast<int16_t>((buf[i] - 128) << 8);
        return count * 2;
    }
    for (int i = 0; i < count; ++i) {
        const uint8_t* src = buf + static_cast<size_t>(i) * width;
        int16_t v = 0;
        switch (packed) {
            case AV_SAMPLE_FMT_S32: {
                int32_t s;
                std::memcpy(&s, src, sizeof s);
                v = static_cast<int16_t>(s >> 16);
                break;
            }
            case AV_SAMPLE_FMT_S64: {
                int64_t s;
                std::memcpy(&s, src, sizeof s);
                v = static_cast<int16_t>(s >> 48);
                break;
            }
            case AV_SAMPLE_FMT_FLT: {
                float s;
                std::memcpy(&s, src, sizeof s);
                v = clip(s);
                break;
            }
            case AV_SAMPLE_FMT_DBL: {
                double s;
                std::memcpy(&s, src, sizeof s);
                v = clip(s);
                break;
            }
            default:
                return bytes;
        }
        out[i] = v;  // i * 2 <= i * width: never overwrites unread input
    }
    return count * 2;
}

// Time base of the demuxer's audio stream, read once when the thread starts
// (the reader may grow the stream table while it reads); {0, 0} when the
// packets do not come from a demuxer.
AVRational AudioStreamTimeBase(const FFMpegContext* ctx) {
    const AVFormatContext* fmt = ctx->m_pFormatCtx.get();
    const int index = ctx->m_nAudioIndex;
    if (ctx->m_bHttpSource || !fmt || index < 0 || static_cast<unsigned>(index) >= fmt->nb_streams)
        return AVRational{0, 0};
    return fmt->streams[index]->time_base;
}

// Milliseconds of a packet time stamp: the private HTTP source sends
// milliseconds; demuxed packets carry their stream's time base; without
// one the time stamp counts samples.
int64_t PacketTimeMs(const FFMpegContext* ctx, const AVPacket* pkt, AVRational tb, int rate) {
    if (ctx->m_bHttpSource) return pkt->pts;
    if (tb.num > 0 && tb.den > 0) return av_rescale_q(pkt->pts, tb, AVRational{1, 1000});
    return rate > 0 ? pkt->pts * 1000 / rate : pkt->pts;
}

// The audio thread's own view of the clock anchor.
struct AudioClockState {
    uint64_t last_anchor_time = 0;
    uint64_t last_anchor_tick = 0;
};

void AnchorAudioClock(AudioClock::State& clock, AudioClockState& st, uint64_t t, uint64_t now, uint64_t d) {
    clock.refTick = now;
    clock.refPts = t;
    clock.clock = now + d;
    st.last_anchor_time = t;
    st.last_anchor_tick = now;
}

// Moves the audio clock on after a block of duration d ms with packet time
// t was delivered. A jump in time or a late block re-anchors the clock and
// asks the video side to re-anchor too (video offset 0).
void UpdateAudioClock(FFMpegContext* ctx, AudioClockState& st, uint64_t t, uint64_t d) {
    const uint64_t now = os_tick_count64();
    ctx->m_AudioClock.Update([&](AudioClock::State& clock) {
        if (clock.refTick == 0 || clock.refPts == 0 || st.last_anchor_time == 0 || st.last_anchor_tick == 0) {
            AnchorAudioClock(clock, st, t, now, d);
            return;
        }
        clock.clock = clock.refTick - clock.refPts + t + d;
        const bool continuous = now - st.last_anchor_tick < 2001 &&
                                static_cast<int64_t>(t - st.last_anchor_time) <= static_cast<int64_t>(2 * d) &&
                                static_cast<int64_t>(now - clock.clock) <= static_cast<int64_t>(d);
        if (continuous) {
            st.last_anchor_time = t;
            st.last_anchor_tick = now;
            return;
        }
        AnchorAudioClock(clock, st, t, now, d);
        clock.videoOffset = 0;
    });
}

void DropAudioClock(FFMpegContext* ctx) {
    ctx->m_AudioClock.Stop();
}

bool KeepRunning(const FFMpegContext* ctx) {
    return ctx->m_bAudioRunning.load(std::memory_order_relaxed) &&
           ctx->m_bRunning.load(std::memory_order_relaxed);
}

}  // namespace

int AudioDecode4(AVCodecContext* codec_ctx, const AVPacket* pkt, uint8_t* out, int* size) {
    camctl::FramePtr frame = camctl::MakeFrame();
    if (!frame) return AVERROR(ENOMEM);
    int capacity = *size;
    *size = 0;
    int ret = avcodec_send_packet(codec_ctx, pkt);
    if (ret < 0) return ret;
    int written = 0;
    while ((ret = avcodec_receive_frame(codec_ctx, frame.get())) >= 0) {
        int needed = FrameBytes(frame.get());
        if (needed < 0) return needed;
        if (capacity - written < needed) {
            av_log(codec_ctx, AV_LOG_ERROR, "output buffer size is too small for the current frame (%d < %d)\n",
                   capacity - written, needed);
            av_frame_unref(frame.get());
            return AVERROR(EINVAL);
        }
        int channels = frame->ch_layout.nb_channels;
        bool planar = av_sample_fmt_is_planar(static_cast<AVSampleFormat>(frame->format)) && channels > 1;
        int planes = planar ? channels : 1;
        int plane_bytes = needed / planes;
        for (int p = 0; p < planes; ++p) {
            std::memcpy(out + written, frame->extended_data[p], static_cast<size_t>(plane_bytes));
            written += plane_bytes;
        }
        av_frame_unref(frame.get());
    }
    if (ret != AVERROR(EAGAIN) && ret != AVERROR_EOF) return ret;
    *size = written;
    return pkt ? pkt->size : 0;
}

int AudioDecodeSendReceive(AVCodecContext* codec_ctx, const AVPacket* pkt, uint8_t* out, int* size) {
    camctl::FramePtr frame = camctl::MakeFrame();
    if (!frame) return AVERROR(ENOMEM);
    int capacity = *size;
    *size = 0;
    if (avcodec_send_packet(codec_ctx, pkt) < 0) return -1;
    if (avcodec_receive_frame(codec_ctx, frame.get()) < 0) return -1;
    int bytes = FrameBytes(frame.get());
    if (bytes < 0) return -1;
    if (bytes > capacity) bytes = capacity;
    std::memcpy(out, frame->extended_data[0], static_cast<size_t>(bytes));
    *size = bytes;
    return 0;
}

int StartAudioThread(FFMpegContext* ctx) {
    if (!ctx || ctx->m_hAudioThread) return -1;
    ctx->m_hAudioThread.reset(os_thread_create(nullptr, AudioDecodeThreadProc, ctx));
    return ctx->m_hAudioThread ? 0 : -1;
}

void StopAudioThread(FFMpegContext* ctx) {
    if (!ctx || !ctx->m_hAudioThread) return;
    // The thread raises m_bAudioRunning as its first act and never lowers
    // it; wait for that so the stop below cannot be overwritten.
    while (!ctx->m_bAudioRunning.load(std::memory_order_relaxed)) os_sleep_ms(1);
    ctx->m_bAudioRunning.store(0, std::memory_order_relaxed);
    ctx->m_AudioQueue.Wake();
    ctx->m_hAudioThread.reset();  // joins
}

int OpenAudioDecoder(FFMpegContext* ctx, int codec_id) {
    if (!ctx) return -1;
    StopAudioThread(ctx);

    camctl::CodecContextPtr codec_ctx;
    if (codec_id != kCodecAac) {
        const AVCodec* codec = avcodec_find_decoder(static_cast<AVCodecID>(codec_id));
        if (codec) codec_ctx.reset(avcodec_alloc_context3(codec));
        if (codec_ctx) {
            int rate = ctx->m_AudioClock.SampleRate();
            codec_ctx->sample_rate = rate > 0 ? rate : kNarrowbandRateHz;
            av_channel_layout_default(&codec_ctx->ch_layout, 1);
            if (codec_id == kCodecG726) {
                codec_ctx->sample_rate = kNarrowbandRateHz;
                codec_ctx->bits_per_coded_sample = 2;
            } else if (codec_id == kCodecG722) {
                codec_ctx->sample_rate = 16000;
                codec_ctx->bits_per_coded_sample = 4;
            }
        }
        if (!codec_ctx || avcodec_open2(codec_ctx.get(), codec, nullptr) < 0) {
            // The recorder reads the audio decoder context under the record lock.
            {
                OsMutexLock record(ctx->m_Recorder.Lock());
                ctx->m_pAudioCodecCtx.reset();
            }
            ctx->m_nAudioIndex = -1;
            ctx->m_nAudioCodecId.store(0, std::memory_order_relaxed);
            return -1;
        }
    }
    {
        OsMutexLock record(ctx->m_Recorder.Lock());
        ctx->m_pAudioCodecCtx = std::move(codec_ctx);
        ctx->m_nAudioCodecId.store(codec_id, std::memory_order_relaxed);
    }
    return StartAudioThread(ctx);
}

void* AudioDecodeThreadProc(void* arg) {
    auto* ctx = static_cast<FFMpegContext*>(arg);
    ctx->m_bAudioRunning.store(1, std::memory_order_relaxed);
    NameEngineThread(ctx, "da");

    const int codec_id = ctx->m_nAudioCodecId.load(std::memory_order_relaxed);
    AVCodecContext* codec_ctx = ctx->m_pAudioCodecCtx.get();
    const AVRational stream_tb = AudioStreamTimeBase(ctx);
    // Fixed for the thread's life: a new audio stream (private HTTP source)
    // restarts the thread through OpenAudioDecoder.
    const int audio_index = ctx->m_nAudioIndex;
    std::vector<uint8_t> sample_buf(kSampleBufBytes);
    uint8_t* samples = sample_buf.data();

    FaadDecoder faad;
    bool aac_uninitialised = true;
    if (codec_id == kCodecAac) {
        int rate = ctx->m_AudioClock.SampleRate();
        if (!faad.Open(static_cast<unsigned long>(rate > 0 ? rate : kNarrowbandRateHz))) {
            os_print("======NeAACDecOpen==Failed===================\n");
            return nullptr;
        }
    }

    int rate_in_use = kNarrowbandRateHz;
    int empty_rounds = 0;
    int last_bytes = 0;
    int last_rate = 0;
    uint64_t block_ms = 0;
    AudioClockState clock;

    while (KeepRunning(ctx)) {
        if (ctx->m_bPause.load(std::memory_order_relaxed)) {
            os_sleep_ms(kPauseSleepMs);
            continue;
        }
        const uint64_t seen = ctx->m_AudioQueue.Arrivals();
        QueuedPacket pkt = ctx->m_AudioQueue.Pop();
        if (!pkt) {
            // Rounds of 10 ms until the clock is dropped, then of 50 ms;
            // each ends early when a packet comes. Once the clock is
            // dropped nothing changes until one does, so the thread then
            // waits up to a second at a time.
            if (empty_rounds <= kEmptyRoundsBeforeDrop) {
                ++empty_rounds;
                ctx->m_AudioQueue.WaitPast(seen, 10);
            } else if (empty_rounds == kEmptyRoundsBeforeDrop + 1) {
                ++empty_rounds;
                ctx->m_AudioQueue.WaitPast(seen, 50);
                DropAudioClock(ctx);
            } else {
                ctx->m_AudioQueue.WaitPast(seen, kIdleWaitMs);
            }
            continue;
        }
        empty_rounds = 0;
        ctx->m_AudioClock.MarkActive();
        const bool decode = ctx->m_bDecode.load(std::memory_order_relaxed) != 0;
        if (!decode || pkt->size <= 0) continue;
        if (audio_index < 0 || pkt->stream_index != audio_index) continue;

        int bytes = kDecodeBytes;
        int channels = 1;
        if (codec_id == kCodecAac) {
            if (aac_uninitialised) {
                if (!faad.Init(codec_ctx, pkt.get())) {
                    os_print("======NeAACDecInit==Failed===================\n");
                    break;
                }
                aac_uninitialised = false;
            }
            bytes = faad.Decode(pkt.get(), samples, kSampleBufBytes, &rate_in_use, &channels);
            if (bytes < 0) {
                os_print("======NeAACDecDecode==Failed===================\n");
                continue;
            }
        } else if (!codec_ctx) {
            continue;
        } else {
            int ret = (codec_id == kCodecMulaw || codec_id == kCodecAlaw)
                          ? AudioDecodeSendReceive(codec_ctx, pkt.get(), samples, &bytes)
                          : AudioDecode4(codec_ctx, pkt.get(), samples, &bytes);
            if (ret < 0) continue;
            bytes = ConvertToS16(samples, bytes, codec_ctx->sample_fmt);
            channels = codec_ctx->ch_layout.nb_channels > 0 ? codec_ctx->ch_layout.nb_channels : 1;
            if (codec_ctx->sample_rate > 0) rate_in_use = codec_ctx->sample_rate;
        }
        if (codec_ctx && codec_ctx->sample_rate > 0 &&
            codec_ctx->sample_rate != ctx->m_AudioClock.SampleRate()) {
            ctx->m_AudioClock.SetSampleRate(codec_ctx->sample_rate);
        }
        if (bytes <= 0 || rate_in_use <= 0) continue;

        if (ctx->m_pOwner)
            ctx->m_pOwner->DoAudioBuffer(reinterpret_cast<unsigned short*>(samples), bytes / 2, rate_in_use);
        if (bytes != last_bytes || rate_in_use != last_rate) {
            last_bytes = bytes;
            last_rate = rate_in_use;
            // bytes / 2 samples spread over the channels.
            block_ms = static_cast<uint64_t>(bytes) * 500 / static_cast<uint64_t>(rate_in_use) /
                       static_cast<uint64_t>(channels);
        }
        if (pkt->pts > 0 && pkt->pts != AV_NOPTS_VALUE) {
            int64_t t = PacketTimeMs(ctx, pkt.get(), stream_tb, rate_in_use);
            if (t > 0) UpdateAudioClock(ctx, clock, static_cast<uint64_t>(t), block_ms);
        }
    }
    return nullptr;
}
