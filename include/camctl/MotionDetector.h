/// Grid-based motion detector for one camera's decoded pictures.
///
/// The picture is divided into 32 columns by 24 rows of cells. Every fourth
/// picture is compared with a stored reference picture, cell by cell over
/// the cells enabled in the detection map, sampling a quarter of each cell's
/// pixels. Detection and notification are rate-limited in wall-clock seconds.
/// \class CMotionDetector
#pragma once

#include "camctl/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>

class CAMCTL_API CMotionDetector {
public:
    static constexpr int kGridColumns = 32;
    static constexpr int kGridRows = 24;
    /// One byte per cell, column by column: the cell in column c (left to
    /// right) and row r (top to bottom) is at index c * 24 + r. The cell is
    /// checked unless its byte is the character '0'.
    static constexpr int kMapSize = kGridColumns * kGridRows;
    /// Pictures counted (from the start phase) before the first test.
    static constexpr int kWarmUpPictures = 25;

    /// Source of the current time in whole seconds (defaults to time()).
    using SecondsSource = int64_t (*)(void* context);

    CMotionDetector();
    ~CMotionDetector();
    CMotionDetector(const CMotionDetector&) = delete;
    CMotionDetector& operator=(const CMotionDetector&) = delete;

    /// (Re)starts the detector for pictures of width x height packed 24-bit
    /// pixels, rows top to bottom (smaller pictures, such as a sub stream's,
    /// are compared too). Each Init takes the next start phase of a
    /// process-wide counter (1, 2, ... 15, 0, 1, ...) so that detectors of
    /// different cameras test on different pictures. Returns 0, or -1 when
    /// width * height <= 0. owner is the camera; it is only remembered.
    int Init(void* owner, int width, int height);
    /// Releases the reference picture. Returns -1 if not initialised, else 0.
    int Free();

    int SetDetectEnable(int enable);
    /// 0: least sensitive (75% of a cell, byte difference 50); 1: 50%, 35;
    /// 2: most sensitive, 25%, 20. Any other level is stored but leaves the
    /// thresholds as they are.
    int SetDetectLevel(int level);
    /// Copies kMapSize bytes from map.
    int SetDetectMap(unsigned char* map);
    /// Minimum seconds between two positive detections (default 2).
    int SetDetectSpaceTime(int seconds);
    /// Minimum seconds between two notifications (default 5).
    int SetNotifySpaceTime(int seconds);

    /// Per-picture entry point. Returns 0 (nothing to report), 1 (motion,
    /// notify) or 2 (motion within the notification spacing: record it, but
    /// do not notify again).
    int MotionDetectRun(unsigned char* picture, int width, int height);
    /// Scans the enabled cells in row-major order and stops at the first one
    /// that changed; the picture then becomes the reference either way.
    bool ALgMotionDetect(unsigned char* picture, int width, int height);
    /// Tests the cell whose top-left pixel is at byte `offset` of both the
    /// picture and the reference.
    bool AlgMotionWinDetect(unsigned char* picture, int width, int height, int offset);

    /// Name printed in the log lines as the camera's name.
    int SetOwnerName(const char* name);
    /// Replaces the clock; for tests. Call before pictures flow.
    void SetClock(SecondsSource source, void* context);

    int GetDetectEnable() const { return m_bEnable.load(std::memory_order_relaxed); }
    int GetDetectLevel() const { return m_nLevel.load(std::memory_order_relaxed); }
    int GetAreaPercent() const { return m_nAreaPercent.load(std::memory_order_relaxed); }
    int GetPixelDiff() const { return m_nPixelDiff.load(std::memory_order_relaxed); }
    int GetDetectSpaceTime() const { return m_nDetectSpaceTime.load(std::memory_order_relaxed); }
    int GetNotifySpaceTime() const { return m_nNotifySpaceTime.load(std::memory_order_relaxed); }
    int GetFrameCount() const { return m_nFrameCount; }
    bool IsInit() const { return m_bInit != 0; }
    /// The reference picture (null when there is none) and its size in bytes.
    const unsigned char* GetReference() const { return m_pPreData.get(); }
    size_t GetReferenceSize() const { return m_nPreSize; }

private:
    // Copies the picture into the first bytes of the reference when it
    // fits (see HasReferenceFor).
    void StoreReference(const unsigned char* picture, int width, int height);
    // A picture is compared when it is no wider and no taller than the size
    // the detector was started for (a sub stream's pictures are smaller).
    bool HasReferenceFor(int width, int height) const;
    int64_t Now() const;

    void* m_pOwner;
    int32_t m_bInit;
    // Settings: written by the host's thread, read while pictures flow.
    std::atomic<int32_t> m_bEnable;
    std::atomic<int32_t> m_nLevel;
    std::atomic<unsigned char> m_DetectMap[kMapSize];
    std::unique_ptr<unsigned char[]> m_pPreData;
    std::atomic<int32_t> m_nDetectSpaceTime;
    std::atomic<int32_t> m_nNotifySpaceTime;
    // State of the picture thread.
    int32_t m_tLastDetect;
    int32_t m_tLastNotify;
    int32_t m_nFrameCount;
    std::atomic<int32_t> m_nAreaPercent;
    std::atomic<int32_t> m_nPixelDiff;

    size_t m_nPreSize;  // bytes of m_pPreData
    int32_t m_nPreWidth;   // size given to Init
    int32_t m_nPreHeight;
    SecondsSource m_pfnClock;
    void* m_pClockContext;
    mutable std::mutex m_NameLock;  // guards m_szOwnerName
    char m_szOwnerName[256];
};
