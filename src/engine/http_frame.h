// Private HTTP frame protocol (client side).
//
// A camera source "http://..." is a plain byte stream of frames, each an
// 88-byte little-endian header followed by `size` payload bytes:
//
//   off len  field
//     0   4  start marker 33 22 11 00
//     4   4  ver
//     8  40  reserved
//    48   4  stream type (1 video, 2 audio, 3 motion-region record)
//    52   4  size (payload bytes, at most 2,000,000)
//    56   4  codec (video: 0 H.264, 3 H.265, anything else MJPEG)
//    60   4  frame kind (0 key frame)
//    64   4  width
//    68   4  height
//    72   4  audio_codec (signed; -1 in the first header: no audio)
//    76   4  sample rate (Hz)
//    80   8  timestamp (ms; used as pts and dts)
//
// There is no end marker: a frame is complete only once the start marker of
// the next frame is seen exactly 88 + size bytes after its own.
//
// The receive buffer is the context's HttpFrameReceiver (http_receiver.h);
// the connection is ctx->m_pHttpIo, read with avio_read.
#pragma once

#include <cstdint>
#include <vector>

#include "engine/ffmpeg_context.h"

// Results of http_read_frame / http_find_right_endbuffer.
constexpr int HTTP_FRAME_OK = 0;        // a whole frame was cut
constexpr int HTTP_FRAME_FAILED = -1;   // bad arguments, or the frame overran its end
constexpr int HTTP_DATA_NO_ENOUGH = 2;  // read more and call again with the same state
constexpr int HTTP_DATA_ERROR = 3;      // the header announces more than 2,000,000 bytes

constexpr uint32_t HTTP_FRAME_HEADER_SIZE = 88;
constexpr uint32_t HTTP_FRAME_MAX_PAYLOAD = 2000000;

constexpr uint32_t HTTP_STREAM_VIDEO = 1;
constexpr uint32_t HTTP_STREAM_AUDIO = 2;
constexpr uint32_t HTTP_STREAM_MOTION = 3;

// Integrity values of the parser state.
constexpr int32_t HTTP_INTEGRITY_COMPLETE = 0;
constexpr int32_t HTTP_INTEGRITY_PARTIAL = 2;

// Length of the motion-region text handed to UpdateMotionAlarmRegion.
constexpr int HTTP_MOTION_TEXT_LEN = 299;

// The decoded 88-byte frame header.
struct HttpFrameHeader {
    uint32_t marker = 0;       // 0x00112233
    uint32_t ver = 0;
    uint8_t reserved[40] = {};
    uint32_t stream_type = 0;
    uint32_t size = 0;
    uint32_t codec = 0;
    uint32_t frame_kind = 0;   // 0: key frame
    uint32_t width = 0;
    uint32_t height = 0;
    int32_t audio_codec = 0;
    uint32_t sample_rate = 0;
    uint64_t timestamp = 0;
};

// State of one frame being cut. Start each frame from a fresh (reset) state
// and keep it across HTTP_DATA_NO_ENOUGH / HTTP_FRAME_FAILED results while
// more bytes are appended to the same buffer.
struct HttpFrameState {
    HttpFrameHeader header;
    int32_t integrity = 0;
    // How far the buffer has been consumed (after HTTP_FRAME_OK: the frame's
    // length) or scanned (otherwise: where the next scan starts, 3 bytes
    // before the end of what was seen, so a marker cut by a read boundary is
    // found). Relative to the start of the buffer the frame began in.
    uint32_t allreadsize = 0;
    std::vector<uint8_t> payload;      // the frame's payload once complete
    const uint8_t* start = nullptr;    // the frame's start marker

    void Reset() { *this = HttpFrameState(); }
};

// Position of the first start marker in data[0, len), or null.
const uint8_t* FindFrameMarker(const uint8_t* data, uint32_t len);

// Decodes 88 header bytes (no marker check).
void DecodeFrameHeader(const uint8_t* bytes, HttpFrameHeader* header);

// Finds the first marker in data[0, len) and decodes the header there.
// 0, or -1 for null/zero arguments, no marker, or a header that is not
// wholly inside data.
int ParseFrameHeader(const uint8_t* data, uint32_t len, HttpFrameHeader* header);

// Cuts one frame out of buf[0, len). When state->integrity is
// HTTP_INTEGRITY_PARTIAL, buf must continue the buffer that state->start
// points into (the bytes from start up to buf + len are all valid): it is
// where the previous call asked the next scan to begin.
int http_read_frame(const uint8_t* buf, uint32_t len, HttpFrameState* state);

// Looks for the frame's true end after `end` (a marker inside the payload).
int http_find_right_endbuffer(const uint8_t* start, const uint8_t* end, const uint8_t* buf,
                              uint32_t len, HttpFrameState* state);

// Reads the next frame into pkt (which it allocates with av_new_packet).
// Returns the payload size (0 or more) or -1: no receive buffer or
// connection, a failed or over-long read, a full receive buffer, an
// oversize header, a video codec change, or the context stopped running.
// On -1 the packet is left empty. *audioChanged / *newAudioCodec ask the
// reader to reopen the audio decoder (FFmpeg codec id).
int http_read_one_frame(FFMpegContext* ctx, AVPacket* pkt, int* audioChanged,
                        int* newAudioCodec);

// Codec numbers of the header mapped to FFmpeg codec ids.
int HttpFrameVideoCodecId(uint32_t codec);      // 0→27, 3→173, else 7
int HttpFrameAudioCodecId(int32_t audio_codec);  // 1..5, else mu-law

// Turns a motion-region record into its '0'/'1' text (299 characters, NUL
// terminated, text must hold 300 bytes). False when the record is not valid.
bool HttpMotionRegionText(const uint8_t* payload, uint32_t len, char* text);
