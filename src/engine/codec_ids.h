// The codec numbers the engine branches on, named once: FFmpeg's AVCodecID
// values as ints, the type the context keeps them in.
#pragma once

extern "C" {
#include <libavcodec/codec_id.h>
}

constexpr int kCodecH264 = AV_CODEC_ID_H264;
constexpr int kCodecHevc = AV_CODEC_ID_HEVC;
constexpr int kCodecMpeg4 = AV_CODEC_ID_MPEG4;
constexpr int kCodecMjpeg = AV_CODEC_ID_MJPEG;
constexpr int kCodecMulaw = AV_CODEC_ID_PCM_MULAW;
constexpr int kCodecAlaw = AV_CODEC_ID_PCM_ALAW;
constexpr int kCodecG726 = AV_CODEC_ID_ADPCM_G726;
constexpr int kCodecG722 = AV_CODEC_ID_ADPCM_G722;
constexpr int kCodecAac = AV_CODEC_ID_AAC;
