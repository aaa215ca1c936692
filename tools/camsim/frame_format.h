// Wire format of the private frame stream, server side: 88-byte
// little-endian header, then the payload.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace camsim {

constexpr size_t kHeaderSize = 88;
constexpr uint8_t kMarker[4] = {0x33, 0x22, 0x11, 0x00};

constexpr uint32_t kStreamVideo = 1;
constexpr uint32_t kStreamAudio = 2;
constexpr uint32_t kStreamMotion = 3;

// Codec numbers carried in the header.
constexpr uint32_t kWireH264 = 0;
constexpr uint32_t kWireMjpeg = 2;
constexpr uint32_t kWireHevc = 3;
constexpr int32_t kWireNoAudio = -1;
constexpr int32_t kWireAac = 1;
constexpr int32_t kWireMulaw = 2;
constexpr int32_t kWireAlaw = 3;
constexpr int32_t kWireG722 = 4;
constexpr int32_t kWireG726 = 5;

struct FrameHeader {
    uint32_t ver = 1;
    uint8_t reserved[40] = {};
    uint32_t stream_type = kStreamVideo;
    uint32_t size = 0;
    uint32_t codec = kWireH264;
    uint32_t frame_kind = 0;  // 0: key frame
    uint32_t width = 0;
    uint32_t height = 0;
    int32_t audio_codec = kWireNoAudio;
    uint32_t sample_rate = 0;
    uint64_t timestamp = 0;  // milliseconds
};

// Writes the 88 header bytes (marker included).
void EncodeHeader(const FrameHeader& h, uint8_t* out);

// Header and payload in one buffer; h.size is taken from `size`.
std::vector<uint8_t> EncodeFrame(FrameHeader h, const uint8_t* payload, size_t size);

// A motion-region record: 20-byte head (big-endian, byte 10 zero, length
// of the rest at 16), then ten big-endian mask words.
std::vector<uint8_t> MotionRecord(const std::array<uint32_t, 10>& mask);

// Prefixes a raw AAC frame with a 7-byte ADTS header built from the
// stream's AudioSpecificConfig (asc). Frames that already start with an ADTS
// sync word, or a missing config, give the frame unchanged.
std::vector<uint8_t> WithAdtsHeader(const uint8_t* data, size_t size, const uint8_t* asc,
                                    size_t asc_size);

// Codec numbers of FFmpeg codec ids: -1 / -2 when the codec cannot be carried.
int WireVideoCodec(int av_codec_id);
int WireAudioCodec(int av_codec_id);

}  // namespace camsim
