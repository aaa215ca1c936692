// One owner type per FFmpeg object kind. Raw av_*_free calls live here only.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavcodec/bsf.h>
#include <libavformat/avformat.h>
#include <libavutil/frame.h>
#include <libswscale/swscale.h>
}

namespace camctl {

struct InputFormatDeleter {
    void operator()(AVFormatContext* p) const { avformat_close_input(&p); }
};
struct OutputFormatDeleter {
    void operator()(AVFormatContext* p) const {
        if (p && p->pb && !(p->oformat->flags & AVFMT_NOFILE)) avio_closep(&p->pb);
        avformat_free_context(p);
    }
};
struct CodecContextDeleter {
    void operator()(AVCodecContext* p) const { avcodec_free_context(&p); }
};
struct PacketDeleter {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameDeleter {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
struct SwsDeleter {
    void operator()(SwsContext* p) const { sws_freeContext(p); }
};
struct AvioDeleter {
    void operator()(AVIOContext* p) const { avio_closep(&p); }
};
struct BufferRefDeleter {
    void operator()(AVBufferRef* p) const { av_buffer_unref(&p); }
};
struct BsfDeleter {
    void operator()(AVBSFContext* p) const { av_bsf_free(&p); }
};
struct AvFreeDeleter {
    void operator()(void* p) const { av_free(p); }
};

using InputFormatPtr = std::unique_ptr<AVFormatContext, InputFormatDeleter>;
using OutputFormatPtr = std::unique_ptr<AVFormatContext, OutputFormatDeleter>;
using CodecContextPtr = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using PacketPtr = std::unique_ptr<AVPacket, PacketDeleter>;
using FramePtr = std::unique_ptr<AVFrame, FrameDeleter>;
using SwsPtr = std::unique_ptr<SwsContext, SwsDeleter>;
using AvioPtr = std::unique_ptr<AVIOContext, AvioDeleter>;
using BufferRefPtr = std::unique_ptr<AVBufferRef, BufferRefDeleter>;
using BsfPtr = std::unique_ptr<AVBSFContext, BsfDeleter>;
template <typename T>
using AvBufferPtr = std::unique_ptr<T, AvFreeDeleter>;

inline PacketPtr MakePacket() { return PacketPtr(av_packet_alloc()); }
inline FramePtr MakeFrame() { return FramePtr(av_frame_alloc()); }

}  // namespace camctl
