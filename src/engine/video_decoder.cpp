// The video decode thread: takes packets from the context's video queue,
// decodes them and hands every good picture to the owner's DoVideoBuffer in
// one of two layouts:
//   BGR thread  packed BGR24, rows bottom-up (the scaler writes through a
//               negative line size starting at the last row), no padding;
//   YUV thread  planar I420, width*height*3/2 bytes, rows top-down.
//
// Decoding starts at the first key frame and restarts at the next one
// whenever decoding is switched off. A damaged picture withholds delivery
// until the next key frame; if the damage came from a key frame, the next
// key frame's picture is withheld too.
#include <atomic>
#include <cstdio>
#include <cstring>
#include <memory>

#include "engine/engine.h"
#include "engine/h265/ihw265d_stage.h"
#include "engine/hwaccel.h"

extern "C" {
#include <libavutil/imgutils.h>
}

namespace {

// Longest wait for a packet when none can come soon (decoding off).
constexpr uint32_t kIdleWaitMs = 1000;
constexpr int kStartWidth = 320;
constexpr int kStartHeight = 240;

// The picture handed to the owner, in one of the two layouts.
class PictureOutput {
public:
    virtual ~PictureOutput() = default;
    // (Re)allocates for a width x height picture. False when out of memory.
    virtual bool Resize(int width, int height) = 0;
    // Converts a decoded software picture of the current size.
    virtual bool Convert(const AVFrame* pic) = 0;
    virtual uint8_t* Data() = 0;
    virtual const char* ChangeMessage() const = 0;
    // IHW265D pictures are copied into an I420 staging picture before
    // Convert (BGR) rather than converted from the decoder's planes (I420).
    virtual bool StagesIhw265d() const { return false; }
};

class BgrOutput final : public PictureOutput {
public:
    bool Resize(int width, int height) override {
        width_ = width;
        height_ = height;
        scaler_.reset();
        buffer_.reset(static_cast<uint8_t*>(av_malloc(size_t(width) * height * 3)));
        return buffer_ != nullptr;
    }
    bool Convert(const AVFrame* pic) override {
        SwsContext* s = sws_getCachedContext(scaler_.release(), pic->width, pic->height,
                                             AVPixelFormat(pic->format), width_, height_, AV_PIX_FMT_BGR24,
                                             SWS_BILINEAR, nullptr, nullptr, nullptr);
        scaler_.reset(s);
        if (!s) return false;
        // Bottom-up: start at the last row and walk upwards.
        const int stride = width_ * 3;
        uint8_t* dst[4] = {buffer_.get() + size_t(height_ - 1) * stride, nullptr, nullptr, nullptr};
        int dstStride[4] = {-stride, 0, 0, 0};
        return sws_scale(s, pic->data, pic->linesize, 0, pic->height, dst, dstStride) > 0;
    }
    uint8_t* Data() override { return buffer_.get(); }
    const char* ChangeMessage() const override {
        return "=The==Camera=resulotion=has=change=from(%d, %d)=to==(%d, %d)===";
    }
    bool StagesIhw265d() const override { return true; }

private:
    int width_ = 0;
    int height_ = 0;
    camctl::SwsPtr scaler_;
    camctl::AvBufferPtr<uint8_t> buffer_;
};

class I420Output final : public PictureOutput {
public:
    bool Resize(int width, int height) override {
        width_ = width;
        height_ = height;
        scaler_.reset();
        staging_.reset();
        buffer_.reset(static_cast<uint8_t*>(av_malloc(size_t(width) * height * 3 / 2)));
        return buffer_ != nullptr;
    }
    bool Convert(const AVFrame* pic) override {
        switch (pic->format) {
            case AV_PIX_FMT_YUV420P:
            case AV_PIX_FMT_YUVJ420P:
                CopyPlanes(pic);
                return true;
            case AV_PIX_FMT_NV12:
                camctl::hw::CopyNv12ToI420(pic, width_, height_, buffer_.get());
                return true;
            default:
                return ConvertOther(pic);
        }
    }
    uint8_t* Data() override { return buffer_.get(); }
    const char* ChangeMessage() const override {
        return "=1111=The==Camera=resulotion=has=change=from(%d, %d)=to==(%d, %d)===";
    }

private:
    static void CopyPlane(uint8_t* dst, int dstStride, const uint8_t* src, int srcStride, int w, int h) {
        for (int y = 0; y < h; ++y) std::memcpy(dst + size_t(y) * dstStride, src + ptrdiff_t(y) * srcStride, w);
    }
    void CopyPlanes(const AVFrame* pic) {
        const int w = width_, h = height_, cw = w / 2, ch = h / 2;
        uint8_t* y = buffer_.get();
        uint8_t* u = y + size_t(w) * h;
        uint8_t* v = y + size_t(w) * h * 5 / 4;
        CopyPlane(y, w, pic->data[0], pic->linesize[0], w, h);
        CopyPlane(u, cw, pic->data[1], pic->linesize[1], cw, ch);
        CopyPlane(v, cw, pic->data[2], pic->linesize[2], cw, ch);
    }
    // Other layouts (4:2:2 and 4:4:4 JPEG, high bit depths) go through an
    // I420 staging picture first.
    bool ConvertOther(const AVFrame* pic) {
        if (!staging_) {
            staging_ = camctl::MakeFrame();
            if (!staging_) return false;
            staging_->format = AV_PIX_FMT_YUV420P;
            staging_->width = width_;
            staging_->height = height_;
            if (av_frame_get_buffer(staging_.get(), 0) < 0) {
                staging_.reset();
                return false;
            }
        }
        SwsContext* s = sws_getCachedContext(scaler_.release(), pic->width, pic->height,
                                             AVPixelFormat(pic->format), width_, height_, AV_PIX_FMT_YUV420P,
                                             SWS_BILINEAR, nullptr, nullptr, nullptr);
        scaler_.reset(s);
        if (!s) return false;
        if (sws_scale(s, pic->data, pic->linesize, 0, pic->height, staging_->data, staging_->linesize) <= 0)
            return false;
        CopyPlanes(staging_.get());
        return true;
    }

    int width_ = 0;
    int height_ = 0;
    camctl::SwsPtr scaler_;
    camctl::FramePtr staging_;
    camctl::AvBufferPtr<uint8_t> buffer_;
};

// Which decoder serves the stream; decided once, on the first key frame.
enum class DecoderChoice { kUndecided = -1, kFfmpeg = 0, kIhw265d = 1 };

class VideoDecodeLoop {
public:
    VideoDecodeLoop(FFMpegContext* ctx, std::unique_ptr<PictureOutput> out)
        : ctx_(ctx), codec_(ctx->m_pVideoCodecCtx.get()), out_(std::move(out)) {}

    void Run() {
        frame_ = camctl::MakeFrame();
        if (!frame_ || !codec_) return;
        if (ctx_->m_nWidth == 0) {
            ctx_->m_nWidth = kStartWidth;
            ctx_->m_nHeight = kStartHeight;
        }
        width_ = ctx_->m_nWidth;
        height_ = ctx_->m_nHeight;
        if (!out_->Resize(width_, height_)) return;

        while (ctx_->m_bRunning) {
            if (ctx_->m_bPause) {
                os_sleep_ms(kPauseSleepMs);
                continue;
            }
            // The RTSP probe's key frame and what follows it wait in the
            // queue until the reader knows whether decoding came on in time
            // (see ReadThreadProc) rather than being dropped before the host
            // could switch decoding on.
            if (!ctx_->m_bDecode && ctx_->m_bProbeKeyQueued) {
                os_sleep_ms(kIdleSleepMs);
                continue;
            }
            const uint64_t seen = ctx_->m_VideoQueue.Arrivals();
            QueuedPacket pkt = ctx_->m_VideoQueue.Pop();
            if (!pkt) {
                // Woken by the next packet. With decoding off the reader
                // queues nothing until decoding comes on (and then pushes),
                // so the wait may be long.
                ctx_->m_VideoQueue.WaitPast(seen, ctx_->m_bDecode ? kIdleSleepMs : kIdleWaitMs);
                continue;
            }
            HandlePacket(pkt.get());
        }
    }

private:
    void Pace(const AVPacket* pkt) {
        if (!ctx_->m_bSmooth || !ctx_->m_bDecode || pkt->stream_index != ctx_->m_nVideoIndex) return;
        if (ctx_->m_AudioClock.Active())
            SyncVideoToAudio(ctx_, pkt->pts);
        else if (ctx_->m_pfnFrameWait)
            ctx_->m_pfnFrameWait();
    }

    void HandlePacket(AVPacket* pkt) {
        Pace(pkt);
        const bool isVideo = pkt->stream_index == ctx_->m_nVideoIndex;
        const bool key = isVideo && (pkt->flags & AV_PKT_FLAG_KEY);
        if (isVideo) ctx_->m_nLastVideoPts = pkt->dts != AV_NOPTS_VALUE ? pkt->dts : pkt->pts;

        if (key) {
            if (ctx_->m_nVideoCodecId == AV_CODEC_ID_HEVC && choice_ == DecoderChoice::kUndecided) {
                // IHW265D takes the stream when this first key frame carries
                // its marker (the instance is made here if it does not exist
                // yet); the output is rebuilt for whichever decoder serves.
                choice_ = camctl::h265::ChooseIhw265d(ctx_, pkt) ? DecoderChoice::kIhw265d : DecoderChoice::kFfmpeg;
                if (!out_->Resize(width_, height_)) return;
            }
            if (choice_ != DecoderChoice::kIhw265d) badPicture_ = false;
        }

        if (!ctx_->m_bDecode || pkt->size < 1) {
            started_ = false;  // decoding restarts at the next key frame
            return;
        }
        if (!started_ && !key) return;
        started_ = true;

        if (choice_ == DecoderChoice::kIhw265d)
            DecodeWithIhw265d(pkt, key);
        else
            DecodeWithFfmpeg(pkt, key);
    }

    // Damaged IHW265D pictures are dropped and counted by the stage, which
    // stops the thread on an oversized or the fourth damaged picture.
    void DecodeWithIhw265d(const AVPacket* pkt, bool key) {
        using Outcome = camctl::h265::Ihw265dStage::Outcome;
        const Outcome outcome = h265_.Decode(ctx_, pkt);
        if (outcome == Outcome::kStop) return;
        if (h265_.clean()) badPicture_ = false;
        if (outcome == Outcome::kNoPicture) MarkDamaged(pkt, key);  // nothing handed out counts as damaged
        if (outcome != Outcome::kPicture || badPicture_) return;
        const AVFrame* pic = out_->StagesIhw265d() ? h265_.StagedPicture() : h265_.Picture();
        if (pic) DeliverPicture(pic, key);
    }

    void DecodeWithFfmpeg(AVPacket* pkt, bool key) {
        if (avcodec_send_packet(codec_, pkt) < 0) {
            std::fprintf(stderr, "Error while decoding frame %d\n", frameNumber_);
            return;
        }
        for (;;) {
            int ret = avcodec_receive_frame(codec_, frame_.get());
            if (ret == AVERROR(EAGAIN) || ret == AVERROR_EOF) break;
            if (ret < 0) {
                std::fprintf(stderr, "Error while decoding frame %d\n", frameNumber_);
                break;
            }
            HandlePicture(pkt, key);
            av_frame_unref(frame_.get());
        }
    }

    // Pictures are withheld from a damaged one on (until a key frame, or
    // for IHW265D a clean picture); a damaged key frame withholds the next
    // key frame's picture too.
    void MarkDamaged(const AVPacket* pkt, bool key) {
        badPicture_ = true;
        os_print("=======nIsBadFrame=======%d=====%x===\n", pkt->size, pkt->size > 4 ? pkt->data[4] : 0);
        if (key) skipNextKey_ = true;
    }

    void HandlePicture(const AVPacket* pkt, bool key) {
        if (frame_->decode_error_flags || (frame_->flags & AV_FRAME_FLAG_CORRUPT)) MarkDamaged(pkt, key);
        if (badPicture_) return;

        const AVFrame* pic = camctl::hw::DownloadHwFrame(frame_.get(), &transfer_);
        if (pic) DeliverPicture(pic, key);
    }

    void DeliverPicture(const AVFrame* pic, bool key) {
        if (pic->width <= 0 || pic->height <= 0) return;
        if (pic->width != width_ || pic->height != height_) {
            os_print(out_->ChangeMessage(), width_, height_, pic->width, pic->height);
            width_ = pic->width;
            height_ = pic->height;
            ctx_->m_nWidth = width_;
            ctx_->m_nHeight = height_;
            if (!out_->Resize(width_, height_)) {
                ctx_->m_bRunning = 0;  // out of memory: nothing more can be shown
                return;
            }
        }
        if (!out_->Convert(pic)) return;
        if (skipNextKey_ && key) {
            skipNextKey_ = false;
            return;
        }
        if (ctx_->m_bDecode) {
            if (IFrameListener* owner = ctx_->m_pOwner)
                owner->DoVideoBuffer(out_->Data(), width_, height_);
        }
        ++frameNumber_;
    }

    FFMpegContext* ctx_;
    AVCodecContext* codec_;
    std::unique_ptr<PictureOutput> out_;
    camctl::FramePtr frame_;
    camctl::FramePtr transfer_;  // hardware pictures downloaded to memory
    int width_ = 0;
    int height_ = 0;
    DecoderChoice choice_ = DecoderChoice::kUndecided;
    camctl::h265::Ihw265dStage h265_;  // used when choice_ is kIhw265d
    bool started_ = false;      // the first key frame has been seen
    bool badPicture_ = false;   // withhold pictures until the next key frame
    bool skipNextKey_ = false;  // a damaged key frame: withhold the next one too
    int frameNumber_ = 0;
};

}  // namespace

void* VideoDecodeThreadBgr(void* arg) {
    NameEngineThread(static_cast<FFMpegContext*>(arg), "dv");
    VideoDecodeLoop(static_cast<FFMpegContext*>(arg), std::make_unique<BgrOutput>()).Run();
    return nullptr;
}

void* VideoDecodeThreadYuv(void* arg) {
    NameEngineThread(static_cast<FFMpegContext*>(arg), "dv");
    VideoDecodeLoop(static_cast<FFMpegContext*>(arg), std::make_unique<I420Output>()).Run();
    return nullptr;
}
