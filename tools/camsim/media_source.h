// Where the frames a client receives come from: a media file read once and
// shared by every client (Clip/ClipSource), or a picture generated and
// encoded per client (PatternSource, pattern.h).
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camsim/frame_format.h"

namespace camsim {

enum class VideoCodec { H264, HEVC, MJPEG };
enum class AudioCodec { None, Aac, Mulaw, Alaw, G722, G726 };

uint32_t WireCodec(VideoCodec codec);
int32_t WireCodec(AudioCodec codec);
// Names used on the command line: "h264", "hevc", "mjpeg"; "none", "aac",
// "mulaw", "alaw", "g722", "g726". False for an unknown name.
bool ParseVideoCodec(const std::string& name, VideoCodec* out);
bool ParseAudioCodec(const std::string& name, AudioCodec* out);

// One frame as it goes out, with the stream properties its header carries.
struct MediaFrame {
    uint32_t stream_type = kStreamVideo;
    bool key = false;
    int64_t ts_ms = 0;
    uint32_t codec = kWireH264;
    uint32_t width = 0;
    uint32_t height = 0;
    int32_t audio_codec = kWireNoAudio;
    uint32_t sample_rate = 0;
    const uint8_t* data = nullptr;  // valid until the next call of Next()
    size_t size = 0;
};

class FrameSource {
public:
    virtual ~FrameSource() = default;
    // The next frame in sending order; false at the end or on failure.
    virtual bool Next(MediaFrame* frame) = 0;
};

// A media file in memory: video as Annex-B (H.264/H.265) or JPEG pictures,
// audio packets (AAC with ADTS headers). Timestamps in ms from the first
// video key frame, which is the first frame.
struct Clip {
    struct Frame {
        uint32_t stream_type;
        bool key;
        int64_t ts_ms;
        std::vector<uint8_t> data;
    };
    std::vector<Frame> frames;
    int64_t duration_ms = 0;  // one loop; timestamps grow by this per loop
    uint32_t codec = kWireH264;
    uint32_t width = 0;
    uint32_t height = 0;
    int32_t audio_codec = kWireNoAudio;
    uint32_t sample_rate = 0;
    double fps = 25.0;

    static std::shared_ptr<const Clip> Load(const std::string& path, std::string* error);
};

class ClipSource : public FrameSource {
public:
    ClipSource(std::shared_ptr<const Clip> clip, bool loop) : clip_(std::move(clip)), loop_(loop) {}
    bool Next(MediaFrame* frame) override;

private:
    std::shared_ptr<const Clip> clip_;
    bool loop_;
    size_t index_ = 0;
    int64_t loop_offset_ms_ = 0;
};

}  // namespace camsim
