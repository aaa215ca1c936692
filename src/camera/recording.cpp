// Recording: starting and stopping the main stream's recording files, their final names and the
// segment and motion-clip timer.
#include "camctl/IpCamera.h"

#include <cstdio>
#include <cstring>
#include <mutex>

#include "camera/camera_internal.h"
#include "runtime/os.h"

TRC_USE_UNIT(g_trcCameraUnit);

using namespace camera;

namespace {

constexpr size_t kAviSuffixLength = 4;  // ".avi"
// A recording path no longer than this names no file worth finishing.
constexpr size_t kShortestAviPath = 8;

}  // namespace

// ---------------------------------------------------------------------------
// Recording

int CIpCamera::StartSaveAvi(int reason) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    StopSaveAvi(reason);
    char path[kTextSize];
    GetAviPath(path, reason);
    if (!m_bMainBusy && m_MainVideoSession.StartSaveAvi(path) == 0) {
        m_nRecordFlags.store((m_nRecordFlags.load() & ~static_cast<uint32_t>(kRecordMotion)) | static_cast<uint32_t>(reason));
        m_nRecordStartTime = NowSec();
        m_nRecordReserved = 0;
        BoundedPrint(m_szAviPath, sizeof m_szAviPath, "%s", path);
        return 0;
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) StartSaveAvi error ... ", GetId(), Name().c_str());
    return -1;
}

int CIpCamera::StopSaveAvi(int reason) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    if (!m_bMainBusy) m_MainVideoSession.StopSaveAvi();
    if (strlen(m_szAviPath) > kShortestAviPath && m_nRecordStartTime > 0) {
        m_nRecordStartTime = 0;
        const int64_t d = m_bMainBusy ? 0 : m_MainVideoSession.GetSaveAviDurationSec();
        if (d > kSuspectDurationSec) trc_log(__FILE__, __LINE__, "", "Duration(%d) is wrong..", static_cast<int>(d));
        char finalPath[kTextSize + 16];
        const int stem = static_cast<int>(strlen(m_szAviPath) - kAviSuffixLength);
        BoundedPrint(finalPath, sizeof finalPath, "%.*s_%d.avi", stem, m_szAviPath, static_cast<int>(d));
        rename(m_szAviPath, finalPath);
        m_szAviPath[0] = '\0';
    }
    m_nRecordStartTime = 0;
    m_nRecordReserved = 0;
    m_nRecordFlags.store(m_nRecordFlags.load() & ~(static_cast<uint32_t>(reason) | kRecordMotion));
    return 0;
}

int CIpCamera::OnSaveTimer() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const int32_t now = NowSec();
    const uint32_t flags = m_nRecordFlags.load();
    const int32_t autoSec = m_nAutoRecordSec.load();
    if (flags & kRecordHost) {
        if (now - m_nRecordStartTime > autoSec) StartSaveAvi(kRecordHost);
    } else if (flags & kRecordMotion) {
        if (now - m_nRecordStartTime > m_nMotionRecordSec.load()) StopSaveAvi(kRecordMotion);
    } else if (flags & kRecordSchedule) {
        if (m_nRecordStartTime == 0 || now - m_nRecordStartTime > autoSec) StartSaveAvi(kRecordSchedule);
    }
    // The next snapshot of a burst is asked for only once the last one was
    // written: asking again would take over its path and lose it.
    if (m_nImageRemain >= 1 && !m_bImagePending && m_nLastImageTime >= 1 && now - m_nLastImageTime >= kBurstSpacingSec)
        SaveImage(m_nImageType, 1);
    return 0;
}

int CIpCamera::NotifyAutoSave(int on) {
    if (on)
        StartSaveAvi(kRecordSchedule);
    else
        StopSaveAvi(kRecordSchedule);
    return 0;
}

int64_t CIpCamera::GetAviDuration() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return m_bMainBusy ? 0 : m_MainVideoSession.GetSaveAviDurationSec();
}
