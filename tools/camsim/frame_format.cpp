#include "camsim/frame_format.h"

#include <cstring>

extern "C" {
#include <libavcodec/codec_id.h>
}

namespace camsim {
namespace {

void PutLe32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

void PutBe32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (24 - 8 * i));
}

}  // namespace

void EncodeHeader(const FrameHeader& h, uint8_t* out) {
    memcpy(out, kMarker, 4);
    PutLe32(out + 4, h.ver);
    memcpy(out + 8, h.reserved, sizeof h.reserved);
    PutLe32(out + 48, h.stream_type);
    PutLe32(out + 52, h.size);
    PutLe32(out + 56, h.codec);
    PutLe32(out + 60, h.frame_kind);
    PutLe32(out + 64, h.width);
    PutLe32(out + 68, h.height);
    PutLe32(out + 72, static_cast<uint32_t>(h.audio_codec));
    PutLe32(out + 76, h.sample_rate);
    PutLe32(out + 80, static_cast<uint32_t>(h.timestamp));
    PutLe32(out + 84, static_cast<uint32_t>(h.timestamp >> 32));
}

std::vector<uint8_t> EncodeFrame(FrameHeader h, const uint8_t* payload, size_t size) {
    h.size = static_cast<uint32_t>(size);
    std::vector<uint8_t> out(kHeaderSize + size);
    EncodeHeader(h, out.data());
    if (size) memcpy(out.data() + kHeaderSize, payload, size);
    return out;
}

std::vector<uint8_t> MotionRecord(const std::array<uint32_t, 10>& mask) {
    std::vector<uint8_t> rec(20 + 4 * mask.size(), 0);
    // Head: five words (a record version and the grid size, informative
    // only), byte 10 zero, then the length of what follows.
    rec[1] = 1;
    rec[3] = 22;
    rec[5] = 18;
    PutBe32(rec.data() + 16, static_cast<uint32_t>(4 * mask.size()));
    for (size_t i = 0; i < mask.size(); ++i) PutBe32(rec.data() + 20 + 4 * i, mask[i]);
    return rec;
}

std::vector<uint8_t> WithAdtsHeader(const uint8_t* data, size_t size, const uint8_t* asc,
                                    size_t asc_size) {
    bool hasSync = size >= 2 && data[0] == 0xFF && (data[1] & 0xF0) == 0xF0;
    if (hasSync || !asc || asc_size < 2) return std::vector<uint8_t>(data, data + size);
    unsigned objectType = asc[0] >> 3;
    unsigned freqIndex = ((asc[0] & 7u) << 1) | (asc[1] >> 7);
    unsigned channels = (asc[1] >> 3) & 0xFu;
    size_t full = size + 7;
    std::vector<uint8_t> out(full);
    out[0] = 0xFF;
    out[1] = 0xF1;  // MPEG-4, layer 0, no CRC
    out[2] = static_cast<uint8_t>(((objectType - 1) & 3u) << 6 | (freqIndex & 0xFu) << 2 |
                                  (channels >> 2 & 1u));
    out[3] = static_cast<uint8_t>((channels & 3u) << 6 | (full >> 11 & 3u));
    out[4] = static_cast<uint8_t>(full >> 3 & 0xFFu);
    out[5] = static_cast<uint8_t>((full & 7u) << 5 | 0x1Fu);
    out[6] = 0xFC;
    memcpy(out.data() + 7, data, size);
    return out;
}

int WireVideoCodec(int id) {
    switch (id) {
    case AV_CODEC_ID_H264: return static_cast<int>(kWireH264);
    case AV_CODEC_ID_HEVC: return static_cast<int>(kWireHevc);
    case AV_CODEC_ID_MJPEG: return static_cast<int>(kWireMjpeg);
    default: return -1;
    }
}

int WireAudioCodec(int id) {
    switch (id) {
    case AV_CODEC_ID_AAC: return kWireAac;
    case AV_CODEC_ID_PCM_MULAW: return kWireMulaw;
    case AV_CODEC_ID_PCM_ALAW: return kWireAlaw;
    case AV_CODEC_ID_ADPCM_G722: return kWireG722;
    case AV_CODEC_ID_ADPCM_G726: return kWireG726;
    default: return -2;
    }
}

}  // namespace camsim
