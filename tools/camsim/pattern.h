// A generated camera picture: a running clock (stream time), a moving
// square and a background that can switch abruptly, encoded per client as
// H.264, H.265 or MJPEG, optionally with a tone as audio.
#pragma once

#include <deque>
#include <memory>
#include <string>

#include "camsim/media_source.h"

namespace camsim {

struct PatternOptions {
    int width = 640;
    int height = 360;
    int fps = 25;
    VideoCodec codec = VideoCodec::H264;
    AudioCodec audio = AudioCodec::None;
    bool clock = true;          // draw the stream time
    bool moving_object = true;  // draw a square crossing the picture
    // Every N frames the background changes abruptly (0: never).
    int scene_switch_every = 0;
    // From video frame N on, encode with codec_change_to (0: never).
    int codec_change_after = 0;
    VideoCodec codec_change_to = VideoCodec::MJPEG;
    // From video frame N on, encode at resize_width x resize_height (0: never).
    int resize_after = 0;
    int resize_width = 320;
    int resize_height = 240;
};

class PatternSource : public FrameSource {
public:
    explicit PatternSource(const PatternOptions& options);
    ~PatternSource() override;
    PatternSource(const PatternSource&) = delete;
    PatternSource& operator=(const PatternSource&) = delete;

    // False when an encoder cannot be opened (error says why).
    bool Open(std::string* error);
    bool Next(MediaFrame* frame) override;

    // Draws frame n of the pattern into planar 4:2:0 planes (tests use it to
    // know what a picture should look like).
    static void Draw(const PatternOptions& options, int64_t n, int width, int height,
                     uint8_t* y, int yStride, uint8_t* u, int uStride, uint8_t* v, int vStride);

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace camsim
