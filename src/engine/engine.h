// Entry points that the engine's units offer one another. Each unit has
// its own source: stream_open.cpp, http_frame.cpp, reader.cpp,
// video_decoder.cpp, audio_decoder.cpp, recorder.cpp, hwaccel.cpp.
#pragma once

#include <cstdint>

#include "camctl/OpenFailure.h"
#include "engine/ffmpeg_context.h"

// Figures shared by the engine's units.
// RTP and MPEG-TS timestamps tick at 90 kHz.
constexpr int kPtsClockHz = 90000;
// Narrow-band camera audio (G.711/G.726) and the rate assumed when a
// source announces none.
constexpr int kNarrowbandRateHz = 8000;
// Samples per channel in one AAC frame.
constexpr int kAacFrameSamples = 1024;
// Recorded frame rates are kept in hundredths of a frame per second.
constexpr int64_t kFreqScale = 100;
// A paused thread polls its flag this often.
constexpr uint32_t kPauseSleepMs = 50;
// A decode thread with nothing to do (decoding off) looks again this soon.
constexpr uint32_t kIdleSleepMs = 10;

// One-time engine initialisation (library-wide mutexes, network init) and
// its counterpart.
int EngineGlobalInit();

// Opens a source ("rtsp://", "http://" private frames, file) and starts the
// reader, video and audio threads. Null on failure.
FFMpegContext* FFMpegContextCreate(IFrameListener* owner, const char* url, int yuvOutput,
                                   FrameWaitFn frameWait, int smooth);
int FFMpegContextDestroy(FFMpegContext* ctx);

// Start-up switches applied before any thread of the context runs.
struct ContextOptions {
    int32_t decode = 0;        // initial m_bDecode
    int32_t throttleRead = 0;  // initial m_bThrottleRead (file playback)
};
// Why an open failed: a CamctlOpenFailure and one line of detail (what was
// being done, then FFmpeg's error text; never a password).
struct OpenFailureInfo {
    int reason = CAMCTL_OPEN_OK;
    char text[256] = {};
};
// As FFMpegContextCreate; failure (when given) receives why the open
// failed, or CAMCTL_OPEN_OK and "" when it succeeded.
FFMpegContext* FFMpegContextCreateEx(IFrameListener* owner, const char* url, int yuvOutput,
                                     FrameWaitFn frameWait, int smooth, const ContextOptions& options,
                                     OpenFailureInfo* failure = nullptr);

// Network I/O limits. Opening (connect, handshake, picture-size probe) may
// take kNetOpenTimeoutMs; each later read kNetReadTimeoutMs.
constexpr uint32_t kNetOpenTimeoutMs = 10000;
constexpr uint32_t kNetReadTimeoutMs = 5000;
// True for sources reached over the network ("scheme://...").
bool IsNetworkSource(const char* url);
// Names the calling thread "<role>:<source>" (the camera's host, or the
// file's name), cut to the 15 characters Linux keeps, so the threads of two
// cameras can be told apart in top -H and a debugger.
void NameEngineThread(const FFMpegContext* ctx, const char* role);

// Reader thread and pacing.
void* ReadThreadProc(void* ctx);
int SyncVideoToAudio(FFMpegContext* ctx, int64_t pts);
int64_t RequestSeek(FFMpegContext* ctx, int64_t seconds);

// Video decoding threads: packed BGR24 bottom-up, or planar I420.
void* VideoDecodeThreadBgr(void* ctx);
void* VideoDecodeThreadYuv(void* ctx);
// Hardware decoder preparation; 0 when a device was attached, else -1.
int PrepareHwDecoder(AVCodecContext* codec_ctx, int codec_id);

// Audio: (re)opens the decoder for codec_id and (re)starts the audio thread.
int OpenAudioDecoder(FFMpegContext* ctx, int codec_id);
void* AudioDecodeThreadProc(void* ctx);
// Starts the audio thread on the context's current audio decoder (a null
// m_pAudioCodecCtx is fine for AAC, which FAAD2 decodes); 0 or -1.
int StartAudioThread(FFMpegContext* ctx);
// Stops the audio thread and waits for it (no-op when none runs).
void StopAudioThread(FFMpegContext* ctx);
// One packet through an FFmpeg audio decoder, old one-call contract: *size
// is the room in out on entry, the bytes written on return (planar planes
// one after another). Result: bytes consumed, or a negative AVERROR;
// AVERROR(EINVAL) with an av_log line when out is too small.
int AudioDecode4(AVCodecContext* codec_ctx, const AVPacket* pkt, uint8_t* out, int* size);
// One packet through send/receive; copies the first frame's plane 0.
// 0 on success, -1 otherwise.
int AudioDecodeSendReceive(AVCodecContext* codec_ctx, const AVPacket* pkt, uint8_t* out, int* size);

// The H.264 and H.265 parsers start a new access unit at every parameter
// set, so a payloader that repeats them before each slice of a key picture
// has it handed over in pieces, every one flagged key and all but the first
// with the picture's pts. SplitsKeyPictures: the stream (RTSP, H.264 or
// H.265) can come so.
// JoinKeyPicturePiece appends pkt to held when it is such a further piece
// (both key, same pts or none on held yet); false leaves held unchanged.
bool SplitsKeyPictures(const FFMpegContext* ctx);
bool JoinKeyPicturePiece(AVPacket* held, const AVPacket* pkt);

// AVI recorder.
int RecordStart(FFMpegContext* ctx, const char* path);
int RecordStop(FFMpegContext* ctx);
// The reader's write step: writes pkt if a recording runs.
void RecordWritePacket(FFMpegContext* ctx, AVPacket* pkt);
