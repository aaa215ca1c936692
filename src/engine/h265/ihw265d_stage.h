// The engine's use of IHW265D: which H.265 streams it decodes, creating a
// context's instance, and the decode thread's per-packet step.
//
// A stream goes through IHW265D when its first key frame starts (within its
// first 255 bytes) with a prefix SEI NAL unit of payload type 229 behind a
// four-byte start code; every other H.265 stream stays with FFmpeg.
#pragma once

#include <atomic>
#include <cstdint>

#include "engine/ffmpeg_context.h"
#include "engine/h265/IHW265D.h"

namespace camctl {
namespace h265 {

// True when data carries the IHW265D marker: 00 00 00 01 at i, a prefix SEI
// NAL header at i+4 and payload type 229 at i+6, for i < size - 6 and
// i < 255.
bool HasIhw265dMarker(const uint8_t* data, int size);

// Creates ctx's IHW265D instance at the context's size, asking the version
// first, and logs the outcome. Returns 0 or the creation's error code.
uint32_t CreateContextDecoder(FFMpegContext* ctx);

// Decides the decoder of an H.265 stream on its first key frame: true when
// the frame carries the marker and ctx has (or now gets) an instance.
bool ChooseIhw265d(FFMpegContext* ctx, const AVPacket* key_frame);

// Pictures handed out through IHW265D by every context so far.
uint64_t Ihw265dPicturesDecoded();

// The decode thread's side of IHW265D: one packet in, at most one picture
// out, damaged pictures counted.
class Ihw265dStage {
public:
    enum class Outcome {
        kPicture,    // a picture is ready: Picture() / StagedPicture()
        kNoPicture,  // nothing handed out (status 1); counts as a damaged picture
        kDamaged,    // a damaged picture was decoded and dropped
        kStop,       // the thread must stop; m_bRunning has been cleared
    };

    Ihw265dStage();
    Ihw265dStage(const Ihw265dStage&) = delete;
    Ihw265dStage& operator=(const Ihw265dStage&) = delete;

    // Decodes pkt through ctx's instance. A picture larger than the instance
    // was created for, and the fourth damaged picture, stop the thread.
    Outcome Decode(FFMpegContext* ctx, const AVPacket* pkt);

    // The decoder's flag word of the last call was 0 (nothing damaged).
    bool clean() const { return out_.uiFlags == 0; }

    // The ready picture as a YUV420P frame pointing into the decoder's
    // planes; valid until the next Decode.
    const AVFrame* Picture() const { return view_.get(); }
    // The ready picture copied row by row into the I420 staging picture,
    // which follows the picture's size. Null when out of memory.
    const AVFrame* StagedPicture();

private:
    IHW265D_OUTPUT out_{};
    FramePtr view_;
    FramePtr staging_;
    int bad_frame_count_ = 0;
};

}  // namespace h265
}  // namespace camctl
