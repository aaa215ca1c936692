// The generated test picture and tone, encoded frame by frame.
#include "camsim/pattern.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "camsim/av_owners.h"

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

// libx265 keeps a few blocks of every encoder it opens (frame filter
// buffers) past x265_encoder_close; they are not ours to free. Under
// LeakSanitizer, programs using the simulator would otherwise fail on them.
// Weak, so that a program with its own suppression list keeps it.
extern "C" __attribute__((weak, used)) const char* __lsan_default_suppressions() {
    return "leak:libx265.so\n";
}

namespace camsim {
namespace {

// A copy of n bytes at data; empty for no data.
std::vector<uint8_t> PacketBytes(const uint8_t* data, int n) {
    if (!data || n <= 0) return {};
    return std::vector<uint8_t>(data, data + n);
}

std::string AvError(int err) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(err, text, sizeof text);
    return text;
}

void FillRect(uint8_t* plane, int stride, int planeW, int planeH, int x, int y, int w, int h,
              uint8_t value) {
    int x0 = std::max(0, x), y0 = std::max(0, y);
    int x1 = std::min(planeW, x + w), y1 = std::min(planeH, y + h);
    for (int row = y0; row < y1; ++row) memset(plane + row * stride + x0, value, static_cast<size_t>(std::max(0, x1 - x0)));
}

// Seven-segment glyphs: bit 0 top, 1 top right, 2 bottom right, 3 bottom,
// 4 bottom left, 5 top left, 6 middle.
constexpr uint8_t kDigitSegments[10] = {0x3F, 0x06, 0x5B, 0x4F, 0x66, 0x6D, 0x7D, 0x07, 0x7F, 0x6F};

// Draws text made of digits, ':' and '.' with stroke t.
void DrawText(uint8_t* y, int stride, int w, int h, int x, int top, int t, const char* text,
             uint8_t value) {
    const int len = 4 * t;
    int pen = x;
    for (const char* c = text; *c; ++c) {
        if (*c >= '0' && *c <= '9') {
            uint8_t seg = kDigitSegments[*c - '0'];
            const int rects[7][4] = {
                {pen + t, top, len, t},                    {pen + t + len, top + t, t, len},
                {pen + t + len, top + 2 * t + len, t, len}, {pen + t, top + 2 * t + 2 * len, len, t},
                {pen, top + 2 * t + len, t, len},           {pen, top + t, t, len},
                {pen + t, top + t + len, len, t}};
            for (int i = 0; i < 7; ++i)
                if (seg & (1 << i)) FillRect(y, stride, w, h, rects[i][0], rects[i][1], rects[i][2], rects[i][3], value);
            pen += len + 4 * t;
        } else if (*c == ':') {
            FillRect(y, stride, w, h, pen, top + t + len / 2, t, t, value);
            FillRect(y, stride, w, h, pen, top + 2 * t + len + len / 2, t, t, value);
            pen += 3 * t;
        } else {
            FillRect(y, stride, w, h, pen, top + 2 * t + 2 * len, t, t, value);
            pen += 3 * t;
        }
    }
}

int TextWidth(const char* text, int t) {
    int width = 0;
    for (const char* c = text; *c; ++c) width += (*c >= '0' && *c <= '9') ? 8 * t : 3 * t;
    return width;
}

struct Pending {
    MediaFrame meta;
    std::vector<uint8_t> data;
};

}  // namespace

struct PatternSource::Impl {
    PatternOptions opt;
    // Video encoder and its current settings.
    CodecContextPtr venc;
    FramePtr vframe;
    VideoCodec vcodec = VideoCodec::H264;
    int width = 0;
    int height = 0;
    int64_t frameIndex = 0;
    // Audio encoder.
    CodecContextPtr aenc;
    FramePtr aframe;
    int64_t audioSamples = 0;
    int audioFrameSize = 0;

    PacketPtr pkt = MakePacket();
    std::deque<Pending> pending;
    Pending current;

    bool OpenVideo(VideoCodec codec, int w, int h, std::string* error);
    bool OpenAudio(std::string* error);
    bool EncodeVideo();
    bool EncodeAudioUpTo(int64_t ms);
    MediaFrame Meta(uint32_t type) const {
        MediaFrame m;
        m.stream_type = type;
        m.codec = WireCodec(vcodec);
        m.width = static_cast<uint32_t>(width);
        m.height = static_cast<uint32_t>(height);
        m.audio_codec = WireCodec(opt.audio);
        m.sample_rate = aenc ? static_cast<uint32_t>(aenc->sample_rate) : 0;
        return m;
    }
};

bool PatternSource::Impl::OpenVideo(VideoCodec codec, int w, int h, std::string* error) {
    const AVCodec* enc = nullptr;
    switch (codec) {
    case VideoCodec::H264: enc = avcodec_find_encoder_by_name("libx264"); break;
    case VideoCodec::HEVC: enc = avcodec_find_encoder_by_name("libx265"); break;
    case VideoCodec::MJPEG: enc = avcodec_find_encoder(AV_CODEC_ID_MJPEG); break;
    }
    if (!enc && codec != VideoCodec::MJPEG)
        enc = avcodec_find_encoder(codec == VideoCodec::H264 ? AV_CODEC_ID_H264 : AV_CODEC_ID_HEVC);
    if (!enc) {
        if (error) *error = "no video encoder";
        return false;
    }
    CodecContextPtr ctx(avcodec_alloc_context3(enc));
    if (!ctx) return false;
    ctx->width = w;
    ctx->height = h;
    ctx->time_base = AVRational{1, opt.fps};
    ctx->framerate = AVRational{opt.fps, 1};
    ctx->gop_size = opt.fps;
    ctx->max_b_frames = 0;
    ctx->pix_fmt = AV_PIX_FMT_YUV420P;
    if (codec == VideoCodec::H264) {
        av_opt_set(ctx->priv_data, "preset", "ultrafast", 0);
        av_opt_set(ctx->priv_data, "tune", "zerolatency", 0);
    } else if (codec == VideoCodec::HEVC) {
        av_opt_set(ctx->priv_data, "preset", "ultrafast", 0);
        av_opt_set(ctx->priv_data, "tune", "zerolatency", 0);
        std::string params = "keyint=" + std::to_string(opt.fps) + ":min-keyint=" + std::to_string(opt.fps) +
                             ":bframes=0:repeat-headers=1:log-level=error";
        av_opt_set(ctx->priv_data, "x265-params", params.c_str(), 0);
    } else {
        ctx->pix_fmt = AV_PIX_FMT_YUVJ420P;
        ctx->color_range = AVCOL_RANGE_JPEG;
        ctx->flags |= AV_CODEC_FLAG_QSCALE;
        ctx->global_quality = FF_QP2LAMBDA * 4;
    }
    int err = avcodec_open2(ctx.get(), enc, nullptr);
    if (err < 0) {
        if (error) *error = std::string("cannot open ") + enc->name + ": " + AvError(err);
        return false;
    }
    FramePtr frame = MakeFrame();
    frame->format = ctx->pix_fmt;
    frame->width = w;
    frame->height = h;
    if (av_frame_get_buffer(frame.get(), 0) < 0) return false;
    venc = std::move(ctx);
    vframe = std::move(frame);
    vcodec = codec;
    width = w;
    height = h;
    return true;
}

bool PatternSource::Impl::OpenAudio(std::string* error) {
    AVCodecID id = AV_CODEC_ID_NONE;
    int rate = 8000;
    switch (opt.audio) {
    case AudioCodec::None: return true;
    case AudioCodec::Aac: id = AV_CODEC_ID_AAC; rate = 16000; break;
    case AudioCodec::Mulaw: id = AV_CODEC_ID_PCM_MULAW; break;
    case AudioCodec::Alaw: id = AV_CODEC_ID_PCM_ALAW; break;
    case AudioCodec::G722: id = AV_CODEC_ID_ADPCM_G722; rate = 16000; break;
    case AudioCodec::G726: id = AV_CODEC_ID_ADPCM_G726; break;
    }
    const AVCodec* enc = avcodec_find_encoder(id);
    if (!enc) {
        if (error) *error = std::string("no audio encoder for ") + avcodec_get_name(id);
        return false;
    }
    CodecContextPtr ctx(avcodec_alloc_context3(enc));
    ctx->sample_rate = rate;
    ctx->time_base = AVRational{1, rate};
    av_channel_layout_default(&ctx->ch_layout, 1);
    ctx->sample_fmt = id == AV_CODEC_ID_AAC ? AV_SAMPLE_FMT_FLTP : AV_SAMPLE_FMT_S16;
    if (id == AV_CODEC_ID_ADPCM_G726) ctx->bit_rate = 16000;  // 2 bits per sample
    if (id == AV_CODEC_ID_AAC) {
        ctx->bit_rate = 32000;
        ctx->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;  // the config the ADTS headers need
    }
    int err = avcodec_open2(ctx.get(), enc, nullptr);
    if (err < 0) {
        if (error) *error = std::string("cannot open ") + enc->name + ": " + AvError(err);
        return false;
    }
    audioFrameSize = ctx->frame_size > 0 ? ctx->frame_size : rate / 25;
    FramePtr frame = MakeFrame();
    frame->format = ctx->sample_fmt;
    frame->sample_rate = rate;
    frame->nb_samples = audioFrameSize;
    av_channel_layout_copy(&frame->ch_layout, &ctx->ch_layout);
    if (av_frame_get_buffer(frame.get(), 0) < 0) return false;
    aenc = std::move(ctx);
    aframe = std::move(frame);
    return true;
}

bool PatternSource::Impl::EncodeAudioUpTo(int64_t ms) {
    if (!aenc) return true;
    const int rate = aenc->sample_rate;
    while (audioSamples * 1000 / rate < ms) {
        if (av_frame_make_writable(aframe.get()) < 0) return false;
        for (int i = 0; i < audioFrameSize; ++i) {
            // A 440 Hz tone that beeps once a second.
            int64_t s = audioSamples + i;
            double on = (s % rate) < rate / 5 ? 0.4 : 0.05;
            double value = on * std::sin(2.0 * M_PI * 440.0 * static_cast<double>(s) / rate);
            if (aenc->sample_fmt == AV_SAMPLE_FMT_FLTP)
                reinterpret_cast<float*>(aframe->data[0])[i] = static_cast<float>(value);
            else
                reinterpret_cast<int16_t*>(aframe->data[0])[i] = static_cast<int16_t>(value * 32767.0);
        }
        aframe->pts = audioSamples;
        audioSamples += audioFrameSize;
        if (avcodec_send_frame(aenc.get(), aframe.get()) < 0) return false;
        while (avcodec_receive_packet(aenc.get(), pkt.get()) == 0) {
            const int64_t ts = av_rescale(std::max<int64_t>(0, pkt->pts), 1000, rate);
            if (aenc->codec_id == AV_CODEC_ID_ADPCM_G726) {
                // The encoder works in half-second blocks; a camera sends
                // 40 ms pieces of the same bit stream (2 bits a sample).
                const int piece = rate / 25 * 2 / 8;
                for (int off = 0; off < pkt->size; off += piece) {
                    Pending p{Meta(kStreamAudio), {}};
                    p.meta.key = true;
                    p.meta.ts_ms = ts + off / piece * 40;
                    p.data = PacketBytes(pkt->data + off, std::min(pkt->size, off + piece) - off);
                    pending.push_back(std::move(p));
                }
            } else {
                Pending p{Meta(kStreamAudio), {}};
                p.meta.key = true;
                p.meta.ts_ms = ts;
                if (aenc->codec_id == AV_CODEC_ID_AAC)
                    p.data = WithAdtsHeader(pkt->data, static_cast<size_t>(pkt->size), aenc->extradata,
                                            static_cast<size_t>(std::max(0, aenc->extradata_size)));
                else
                    p.data = PacketBytes(pkt->data, pkt->size);
                pending.push_back(std::move(p));
            }
            av_packet_unref(pkt.get());
        }
    }
    return true;
}

bool PatternSource::Impl::EncodeVideo() {
    const int64_t n = frameIndex++;
    if (opt.codec_change_after > 0 && n == opt.codec_change_after &&
        !OpenVideo(opt.codec_change_to, width, height, nullptr))
        return false;
    if (opt.resize_after > 0 && n == opt.resize_after &&
        !OpenVideo(vcodec, opt.resize_width, opt.resize_height, nullptr))
        return false;
    const int64_t ms = n * 1000 / opt.fps;
    if (!EncodeAudioUpTo(ms)) return false;
    if (av_frame_make_writable(vframe.get()) < 0) return false;
    Draw(opt, n, width, height, vframe->data[0], vframe->linesize[0], vframe->data[1],
         vframe->linesize[1], vframe->data[2], vframe->linesize[2]);
    vframe->pts = n;
    vframe->pict_type = AV_PICTURE_TYPE_NONE;
    if (avcodec_send_frame(venc.get(), vframe.get()) < 0) return false;
    while (avcodec_receive_packet(venc.get(), pkt.get()) == 0) {
        Pending p{Meta(kStreamVideo), {}};
        p.meta.key = (pkt->flags & AV_PKT_FLAG_KEY) != 0;
        p.meta.ts_ms = pkt->pts * 1000 / opt.fps;
        p.data = PacketBytes(pkt->data, pkt->size);
        pending.push_back(std::move(p));
        av_packet_unref(pkt.get());
    }
    return true;
}

PatternSource::PatternSource(const PatternOptions& options) : impl_(std::make_unique<Impl>()) {
    impl_->opt = options;
    if (impl_->opt.fps < 1) impl_->opt.fps = 25;
}

PatternSource::~PatternSource() = default;

bool PatternSource::Open(std::string* error) {
    const PatternOptions& o = impl_->opt;
    if (o.width < 16 || o.height < 16 || (o.width | o.height) & 1) {
        if (error) *error = "picture size must be even and at least 16x16";
        return false;
    }
    return impl_->OpenVideo(o.codec, o.width, o.height, error) && impl_->OpenAudio(error);
}

bool PatternSource::Next(MediaFrame* frame) {
    if (!impl_->venc) return false;
    // An encoder may hold a picture back; a few tries always yield output.
    for (int tries = 0; impl_->pending.empty() && tries < 8; ++tries)
        if (!impl_->EncodeVideo()) return false;
    if (impl_->pending.empty()) return false;
    impl_->current = std::move(impl_->pending.front());
    impl_->pending.pop_front();
    *frame = impl_->current.meta;
    frame->data = impl_->current.data.data();
    frame->size = impl_->current.data.size();
    return true;
}

void PatternSource::Draw(const PatternOptions& o, int64_t n, int w, int h, uint8_t* y, int ys,
                         uint8_t* u, int us, uint8_t* v, int vs) {
    const int fps = o.fps > 0 ? o.fps : 25;
    const bool alternate = o.scene_switch_every > 0 && (n / o.scene_switch_every) % 2 == 1;
    const int cw = w / 2, ch = h / 2;
    if (!alternate) {
        // Scene A: a dark horizontal gradient, slightly blue.
        for (int row = 0; row < h; ++row)
            for (int col = 0; col < w; ++col) y[row * ys + col] = static_cast<uint8_t>(40 + col * 60 / w);
        for (int row = 0; row < ch; ++row) {
            memset(u + row * us, 140, static_cast<size_t>(cw));
            memset(v + row * vs, 120, static_cast<size_t>(cw));
        }
    } else {
        // Scene B: a bright checkerboard, warm.
        for (int row = 0; row < h; ++row)
            for (int col = 0; col < w; ++col)
                y[row * ys + col] = ((row / 32 + col / 32) & 1) ? 200 : 90;
        for (int row = 0; row < ch; ++row) {
            memset(u + row * us, 100, static_cast<size_t>(cw));
            memset(v + row * vs, 160, static_cast<size_t>(cw));
        }
    }
    if (o.moving_object) {
        // A square sweeping left and right once every 4 s.
        const int size = std::max(8, h / 6);
        const int64_t steps = 2 * static_cast<int64_t>(fps);
        int64_t phase = n % (2 * steps);
        if (phase > steps) phase = 2 * steps - phase;
        const int x = static_cast<int>(phase * (w - size) / steps);
        FillRect(y, ys, w, h, x, h / 2 - size / 2, size, size, alternate ? 16 : 235);
    }
    if (o.clock) {
        int64_t ms = n * 1000 / fps;
        char text[32];
        snprintf(text, sizeof text, "%02d:%02d:%02d.%02d", static_cast<int>(ms / 3600000 % 100),
                 static_cast<int>(ms / 60000 % 60), static_cast<int>(ms / 1000 % 60),
                 static_cast<int>(ms / 10 % 100));
        const int t = std::max(1, h / 120);
        const int boxW = TextWidth(text, t) + 4 * t;
        FillRect(y, ys, w, h, 4 * t, 4 * t, boxW, 11 * t + 4 * t, 16);
        DrawText(y, ys, w, h, 6 * t, 6 * t, t, text, 235);
    }
}

}  // namespace camsim
