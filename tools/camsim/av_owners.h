// The simulator's FFmpeg owners, each freeing its object with its own call.
// The simulator is built only on the exported library and FFmpeg.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
}

namespace camsim {

struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFree {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct InputFormatClose {
    void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct CodecContextFree {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct BsfFree {
    void operator()(AVBSFContext* p) const { av_bsf_free(&p); }
};
using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatClose>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextFree>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfFree>;
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

inline PacketPtr MakePacket() { return PacketPtr(av_packet_alloc()); }
inline FramePtr MakeFrame() { return FramePtr(av_frame_alloc()); }

}  // namespace camsim
