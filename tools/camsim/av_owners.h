// The simulator's FFmpeg owners: packets and frames freed with their own
// calls. The simulator is built only on the exported library and FFmpeg.
#pragma once

#include <memory>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace camsim {

struct PacketFree {
    void operator()(AVPacket* p) const { av_packet_free(&p); }
};
struct FrameFree {
    void operator()(AVFrame* p) const { av_frame_free(&p); }
};
using PacketPtr = std::unique_ptr<AVPacket, PacketFree>;
using FramePtr = std::unique_ptr<AVFrame, FrameFree>;

inline PacketPtr MakePacket() { return PacketPtr(av_packet_alloc()); }
inline FramePtr MakeFrame() { return FramePtr(av_frame_alloc()); }

}  // namespace camsim
