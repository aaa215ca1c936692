// Records a stream's packets, unchanged, into a container file (AVI for
// ".avi"). The reader writes each packet it reads; starts and stops come
// from the session's thread. Everything below is guarded by m_hRecordLock;
// m_bRecording and nSaveTickCount are also read without it.
#pragma once

#include <atomic>
#include <cstdint>

#include "engine/av_ptr.h"
#include "runtime/os.h"

struct FFMpegContext;

class Recorder {
public:
    Recorder() : m_hRecordLock(os_mutex_create()) {}
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;
    bool Ok() const { return m_hRecordLock != nullptr; }

    // The source's streams and codecs are read from src. -1 when already
    // recording or the file cannot be made.
    int Start(const FFMpegContext* src, const char* path);
    // Finishes the file and writes the measured frame rate into it.
    int Stop(const FFMpegContext* src);
    // Reader thread: writes pkt when it belongs to the recording.
    void Write(const FFMpegContext* src, AVPacket* pkt);

    bool Recording() const { return m_bRecording.load(std::memory_order_relaxed) != 0; }
    // Tick (ms) of the first written frame: the recording's clock.
    uint64_t StartTick() const { return nSaveTickCount.load(std::memory_order_relaxed); }
    void SetStartTick(uint64_t tick) { nSaveTickCount.store(tick, std::memory_order_relaxed); }
    uint64_t Frames() const {
        OsMutexLock hold(m_hRecordLock.get());
        return m_nRecordFrames;
    }
    uint64_t AudioSamples() const {
        OsMutexLock hold(m_hRecordLock.get());
        return m_nRecordAudioPts;
    }
    // The lock to hold while changing a source field the recorder reads
    // (the audio decoder context).
    os_mutex* Lock() const { return m_hRecordLock.get(); }

private:
    int AddVideoStream(const FFMpegContext* ctx, AVFormatContext* oc);
    void AddAudioStream(const FFMpegContext* ctx, AVFormatContext* oc);
    void FinishRecordingFile();
    bool RecordHasRoom(int size) const;
    void WriteRecordPacket(AVPacket* pkt);
    int64_t ComputeVideoFreq(const FFMpegContext* ctx) const;

    OsMutexPtr m_hRecordLock;
    std::atomic<int32_t> m_bRecording{0};
    uint64_t m_nRecordFrames = 0;
    uint64_t m_nRecordReserved = 0;
    std::atomic<uint64_t> nSaveTickCount{0};
    uint64_t m_nRecordAudioPts = 0;  // audio samples written
    char m_szRecordFile[256] = {};
    camctl::OutputFormatPtr m_pRecordFmtCtx;
    AVStream* m_pRecordVideoStream = nullptr;
    AVStream* m_pRecordAudioStream = nullptr;
    // Length-prefixed (MP4/MKV) H.264/H.265 to Annex B for the recording.
    camctl::BsfPtr m_pRecordBsf;
};
