// The media context: one per open stream, shared by its reader, video and
// audio threads, and the packet queues between them.
//
// Lock order (never reversed): a camera's lock, the recorder's lock, then
// one of the packet-queue locks. No two queue locks are ever held together.
// Fields read by one thread and written by another without a lock are
// std::atomic (relaxed ordering is enough: they are polled flags/figures).
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>

#include "camctl/FrameListener.h"
#include "engine/audio_clock.h"
#include "engine/av_ptr.h"
#include "engine/codec_ids.h"
#include "engine/h265/ihw265d_handle.h"
#include "engine/http_receiver.h"
#include "engine/io_guard.h"
#include "engine/packet_queue.h"
#include "engine/recorder.h"
#include "runtime/os.h"

// Pacing hook the video thread calls before a picture while no audio clock
// runs: bound by the session that opened the context to itself.
using FrameWaitFn = std::function<int()>;

struct FFMpegContext {
    // Receives the decoded pictures, audio and motion regions: the session
    // that created the context (the only way from the engine to its host).
    IFrameListener* m_pOwner = nullptr;

    camctl::InputFormatPtr m_pFormatCtx;   // demuxer (file and RTSP sources)
    camctl::AvioPtr m_pHttpIo;             // connection of a private HTTP source
    camctl::CodecContextPtr m_pVideoCodecCtx;
    camctl::CodecContextPtr m_pAudioCodecCtx;
    std::atomic<int32_t> m_nVideoCodecId{0};
    std::atomic<int32_t> m_nAudioCodecId{0};

    // Reader to decode threads; each queue owns its lock.
    PacketQueue m_VideoQueue;
    PacketQueue m_AudioQueue;

    std::atomic<int32_t> m_bRunning{0};
    std::atomic<int32_t> m_bAudioRunning{0};
    std::atomic<int32_t> m_bThrottleRead{0};
    char m_szUrl[256] = {};
    std::atomic<int32_t> m_bPause{0};

    // The file being recorded, if any (its own lock).
    Recorder m_Recorder;

    std::atomic<int32_t> m_nWidth{0};
    std::atomic<int32_t> m_nHeight{0};
    std::atomic<int32_t> m_bDecode{0};
    int64_t m_nDurationSec = 0;
    int64_t m_nTimeBaseDen = 0;
    int64_t m_nTimeBaseNum = 1;
    int32_t m_nVideoIndex = 0;
    std::atomic<int32_t> m_nAudioIndex{-1};  // changes on the reader thread (private HTTP audio)
    std::atomic<int64_t> m_nSeekTarget{0};
    std::atomic<int64_t> m_nLastVideoPts{0};
    std::atomic<int32_t> m_bReadEnd{0};
    std::atomic<int32_t> m_nHalfFrameInterval{0};
    int32_t m_bSmooth = 0;
    FrameWaitFn m_pfnFrameWait = nullptr;

    std::atomic<float> m_fNetRate{0.0f};
    std::atomic<int32_t> m_nNetFrameRate{0};
    std::atomic<int32_t> m_nFramesCount{0};
    // The RTSP size probe queued a key frame (set before the threads start);
    // the reader clears it once it decided whether that key frame starts the
    // queued stream (decoding came on within its first video packets). Until
    // then the decode thread leaves the queue alone while decoding is off.
    std::atomic<bool> m_bProbeKeyQueued{false};

    camctl::Ihw265dHandle m_hH265Decoder;  // IHW265D instance, HEVC only (deleted with the context)

    // Private HTTP frame protocol (reader thread only).
    HttpFrameReceiver m_HttpFrame;

    int32_t m_bHttpSource = 0;
    // Moved by the audio thread, reset by the reader, followed by the video
    // thread; also carries the audio sample rate.
    AudioClock m_AudioClock;

    // Stops blocking I/O at close or when a deadline passes.
    IoGuard m_IoGuard;

    // Declared last so that they are joined before anything they use goes.
    OsThreadPtr m_hReadThread;
    OsThreadPtr m_hVideoThread;
    OsThreadPtr m_hAudioThread;
};

// Shorthands for the two queues (the ctx may be null). Pop* hands over a
// packet that the caller frees with FreePacket.
void PushVideoPacket(FFMpegContext* ctx, const AVPacket* pkt);
void PushAudioPacket(FFMpegContext* ctx, const AVPacket* pkt);
AVPacket* PopVideoPacket(FFMpegContext* ctx);
AVPacket* PopAudioPacket(FFMpegContext* ctx);
int GetAVPktListElmCount(FFMpegContext* ctx);
// Wakes both decode threads (after a stop flag was lowered).
void WakePacketWaiters(FFMpegContext* ctx);
void FlushVideoPackets(FFMpegContext* ctx);
void FlushAudioPackets(FFMpegContext* ctx);
int GetVideoCodecNumber(FFMpegContext* ctx);

// Allocates an empty context with its queues and locks (no source, no
// threads). Used by FFMpegContextCreate and by tests.
FFMpegContext* FFMpegContextAlloc();
// Frees what FFMpegContextAlloc made plus anything still queued.
void FFMpegContextFree(FFMpegContext* ctx);
