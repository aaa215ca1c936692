// The engine's use of IHW265D: decoder choice, creation and the decode
// thread's per-packet step.
#include "engine/h265/ihw265d_stage.h"

#include <cstdlib>
#include <cstring>

#include "runtime/os.h"
#include "runtime/trc_log.h"

// No unit of its own: a fourth one would rotate the log file once more.
TRC_USE_UNIT(g_trcSessionUnit);

namespace camctl {
namespace h265 {
namespace {

constexpr int kMarkerScanLimit = 255;
constexpr uint8_t kPrefixSeiHeader = 0x4E;  // NAL type 39 in the first header byte
constexpr uint8_t kMarkerPayloadType = 0xE5;  // 229
constexpr int kBadFrameLimit = 3;             // damaged pictures tolerated

std::atomic<uint64_t> g_picturesDecoded{0};

void* DecoderMalloc(uint32_t /*channel*/, uint32_t size) { return std::malloc(size); }
void DecoderFree(uint32_t /*channel*/, void* ptr) { std::free(ptr); }
void DecoderLog(uint32_t /*channel*/, uint32_t /*level*/, const char* text) {
    trc_log(__FILE__, __LINE__, "", "%s", text);
}

void CopyRows(uint8_t* dst, int dst_stride, const uint8_t* src, uint32_t src_stride, int width, int rows) {
    for (int y = 0; y < rows; ++y)
        std::memcpy(dst + static_cast<ptrdiff_t>(y) * dst_stride, src + static_cast<size_t>(y) * src_stride, width);
}

}  // namespace

bool HasIhw265dMarker(const uint8_t* data, int size) {
    if (!data) return false;
    for (int i = 0; i < size - 6 && i < kMarkerScanLimit; ++i) {
        if (data[i] == 0 && data[i + 1] == 0 && data[i + 2] == 0 && data[i + 3] == 1 &&
            (data[i + 4] & 0x7E) == kPrefixSeiHeader && data[i + 6] == kMarkerPayloadType)
            return true;
    }
    return false;
}

uint32_t CreateContextDecoder(FFMpegContext* ctx) {
    IHW265D_VERSION version;
    IHW265D_GetVersion(&version);

    IHW265D_INIT_PARAM params{};
    params.uiChannelId = 0;
    params.uiMaxWidth = static_cast<uint32_t>(ctx->m_nWidth.load());
    params.uiMaxHeight = static_cast<uint32_t>(ctx->m_nHeight.load());
    params.uiThreads = 1;
    const uint32_t reserved[9] = {1, 1, 1, 10, 1, 0, 1, 0, 0};
    std::memcpy(params.uiReserved, reserved, sizeof reserved);
    params.pfnMalloc = DecoderMalloc;
    params.pfnFree = DecoderFree;
    params.pfnLog = DecoderLog;

    IHW265D_HANDLE handle = nullptr;
    const uint32_t ret = IHW265D_Create(&handle, &params);
    if (ret == IHW265D_OK) {
        ctx->m_hH265Decoder.reset(handle);
        os_print("IHW265D_Create===success====0x%x====", 0u);
    } else {
        os_print("IHW265D_Create===failed====0x%x====", ret);
    }
    return ret;
}

bool ChooseIhw265d(FFMpegContext* ctx, const AVPacket* key_frame) {
    bool use = HasIhw265dMarker(key_frame->data, key_frame->size);
    // The instance is made for every H.265 stream that has none yet; without
    // it the marked stream stays with FFmpeg.
    if (!ctx->m_hH265Decoder && CreateContextDecoder(ctx) != IHW265D_OK) use = false;
    return use;
}

uint64_t Ihw265dPicturesDecoded() { return g_picturesDecoded.load(std::memory_order_relaxed); }

Ihw265dStage::Ihw265dStage() : view_(MakeFrame()) {}

Ihw265dStage::Outcome Ihw265dStage::Decode(FFMpegContext* ctx, const AVPacket* pkt) {
    const IHW265D_INPUT in{pkt->data, static_cast<uint32_t>(pkt->size > 0 ? pkt->size : 0), 0};
    std::memset(&out_, 0, sizeof out_);
    const uint32_t ret = IHW265D_Decode(ctx->m_hH265Decoder.get(), &in, &out_);
    if (ret == IHW265D_ERR_PICTURE_TOO_LARGE) {
        os_print("maybe resolution change to big one=====");
        ctx->m_bRunning = 0;
        return Outcome::kStop;
    }
    if (ret != IHW265D_OK)
        os_print("ret:0x%x, error:%d, decodeStatus:%d", ret, static_cast<int>(out_.uiErrorCode),
                 static_cast<int>(out_.uiDecodeStatus));

    if (out_.uiDecodeStatus == IHW265D_STATUS_DAMAGED) {
        if (bad_frame_count_ == kBadFrameLimit) {
            os_print("===IH265D_ERR_HANDLE====nBadFrameCount:3====\n");
            ctx->m_bRunning = 0;
        }
        ++bad_frame_count_;
        return ctx->m_bRunning ? Outcome::kDamaged : Outcome::kStop;
    }
    if (out_.uiDecodeStatus == IHW265D_STATUS_NO_PICTURE || !out_.pY || !out_.pU || !out_.pV || !view_)
        return Outcome::kNoPicture;

    const bool sized = static_cast<uint64_t>(out_.uiWidth) * out_.uiHeight != 0;
    view_->format = AV_PIX_FMT_YUV420P;
    view_->width = sized ? static_cast<int>(out_.uiWidth) : ctx->m_nWidth.load();
    view_->height = sized ? static_cast<int>(out_.uiHeight) : ctx->m_nHeight.load();
    view_->data[0] = const_cast<uint8_t*>(out_.pY);
    view_->data[1] = const_cast<uint8_t*>(out_.pU);
    view_->data[2] = const_cast<uint8_t*>(out_.pV);
    view_->linesize[0] = static_cast<int>(out_.uiYStride);
    view_->linesize[1] = static_cast<int>(out_.uiUVStride);
    view_->linesize[2] = static_cast<int>(out_.uiUVStride);
    g_picturesDecoded.fetch_add(1, std::memory_order_relaxed);
    return Outcome::kPicture;
}

const AVFrame* Ihw265dStage::StagedPicture() {
    const int w = view_->width, h = view_->height;
    if (!staging_ || staging_->width != w || staging_->height != h) {
        staging_ = MakeFrame();
        if (!staging_) return nullptr;
        staging_->format = AV_PIX_FMT_YUV420P;
        staging_->width = w;
        staging_->height = h;
        if (av_frame_get_buffer(staging_.get(), 0) < 0) {
            staging_.reset();
            return nullptr;
        }
    }
    const int cw = (w + 1) / 2, ch = (h + 1) / 2;
    CopyRows(staging_->data[0], staging_->linesize[0], out_.pY, out_.uiYStride, w, h);
    CopyRows(staging_->data[1], staging_->linesize[1], out_.pU, out_.uiUVStride, cw, ch);
    CopyRows(staging_->data[2], staging_->linesize[2], out_.pV, out_.uiUVStride, cw, ch);
    return staging_.get();
}

}  // namespace h265
}  // namespace camctl
