// Pieces the camera's source files share: its log unit, the recording
// reasons and picture types, and small text and clock helpers.
#pragma once

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <ctime>

#include "runtime/trc_log.h"

// All of a camera's source files log through one unit, so the log file is
// rotated once, at the camera's first line.
extern trc_unit g_trcCameraUnit;

namespace camera {

// Why a recording runs: a bit set (the exported calls take it as an int).
enum RecordReason : uint32_t {
    kRecordHost = 1,      // asked for by the host (StartSaveAvi)
    kRecordMotion = 2,    // a motion event
    kRecordSchedule = 4,  // the automatic-save schedule
    kRecordAll = kRecordHost | kRecordMotion | kRecordSchedule,
};

// Snapshot types: manual ones go to IMAGE-MANUAL, all others to IMAGE.
enum PictureType : int {
    kPictureManual = 1,
    kPictureMotion = 2,
};

// What a motion event saves (SetMotionSaveType): snapshots for
// kMotionSaveImageShortClip and kMotionSaveImageRecord; every type records,
// for the host's seconds with kMotionSaveRecord and kMotionSaveImageRecord,
// otherwise for kForcedMotionRecordSec.
enum MotionSaveType : int {
    kMotionSaveRecord = 0,
    kMotionSaveImageShortClip = 1,
    kMotionSaveImageRecord = 2,
};

// CMotionDetector::MotionDetectRun's answers.
enum MotionResult : int {
    kMotionNone = 0,
    kMotionNotify = 1,      // motion, to be acted on in full
    kMotionWithinSpan = 2,  // motion within the notification spacing
};

constexpr int kTextSize = 256;  // texts hold at most 255 characters
constexpr int kAlarmRegionSize = 300;
constexpr int32_t kForcedMotionRecordSec = 5;
// A recording longer than this is logged as suspect.
constexpr int64_t kSuspectDurationSec = 10000;
// Snapshots of a burst are taken this many seconds apart.
constexpr int32_t kBurstSpacingSec = 1;
// The detector compares three bytes per pixel.
constexpr size_t kMotionBytesPerPixel = 3;
constexpr size_t kPackedBytesPerPixel = 3;

// A bounded formatted print: texts are cut at size - 1 characters.
__attribute__((format(printf, 3, 4))) inline void BoundedPrint(char* out, size_t size,
                                                                const char* fmt, ...) {
    va_list args;
    va_start(args, fmt);
    vsnprintf(out, size, fmt, args);
    va_end(args);
}

inline int32_t NowSec() { return static_cast<int32_t>(time(nullptr)); }

}  // namespace camera
