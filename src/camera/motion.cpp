// Motion dispatch: the detector's settings, every decoded picture's way through display, motion
// detection and snapshots to the host, and the motion events' snapshots and recordings.
#include "camctl/IpCamera.h"

#include <algorithm>
#include <cstring>
#include <mutex>
#include <vector>

#include "camera/camera_internal.h"
#include "runtime/os.h"

TRC_USE_UNIT(g_trcCameraUnit);

using namespace camera;

// ---------------------------------------------------------------------------
// Motion detection settings

int CIpCamera::GetMotionAlarmRegion(char* out) {
    if (!out) return -1;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    memcpy(out, m_AlarmRegion, kAlarmRegionSize);
    return 0;
}

int CIpCamera::UpdateMotionAlarmRegion(CVideoSession*, char* region) {
    if (!region) return -1;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    memcpy(m_AlarmRegion, region, kAlarmRegionSize);
    m_bAlarmRegionUpdated.store(1);
    return 0;
}

int CIpCamera::SetMotionDetectLevel(int level) {
    std::lock_guard<std::mutex> lock(m_MotionLock);
    return m_MotionDetector.SetDetectLevel(level);
}

int CIpCamera::SetMotionDetectMap(unsigned char* map) {
    if (!map) return -1;
    std::lock_guard<std::mutex> lock(m_MotionLock);
    m_HostDetectMap.assign(map, map + CMotionDetector::kMapSize);
    return ApplyDetectMap();
}

// The host's map counts rows from the top of the picture. Packed pictures
// reach the detector bottom row first, so their map is handed over with its
// rows reversed. Called with the motion lock held.
int CIpCamera::ApplyDetectMap() {
    if (m_HostDetectMap.empty()) return 0;
    if (m_bMotionPlanar) return m_MotionDetector.SetDetectMap(m_HostDetectMap.data());
    constexpr int rows = CMotionDetector::kGridRows;
    std::vector<unsigned char> flipped(m_HostDetectMap.size());
    for (int c = 0; c < CMotionDetector::kGridColumns; ++c) {
        for (int r = 0; r < rows; ++r) flipped[c * rows + r] = m_HostDetectMap[c * rows + rows - 1 - r];
    }
    return m_MotionDetector.SetDetectMap(flipped.data());
}

int CIpCamera::SetMotionSpaceTime(int seconds) {
    std::lock_guard<std::mutex> lock(m_MotionLock);
    return m_MotionDetector.SetDetectSpaceTime(seconds);
}

int CIpCamera::SetMotionSaveType(int type, int imageCount, int recordSec) {
    m_nMotionSaveType.store(type);
    m_nMotionImageCount.store(imageCount);
    m_nMotionRecordSec.store(recordSec);
    std::lock_guard<std::mutex> lock(m_MotionLock);
    m_MotionDetector.SetNotifySpaceTime(std::max(imageCount, recordSec));
    return 0;
}

int CIpCamera::NotifyMotionSave(int on) {
    std::lock_guard<std::mutex> lock(m_MotionLock);
    m_MotionDetector.SetDetectEnable(on);
    return 0;
}

// ---------------------------------------------------------------------------
// Frame dispatch

bool CIpCamera::IsPlanar(CVideoSession* session) const {
    if (session == &m_MainVideoSession) return m_bMainYuv.load();
    // Pictures handed in by anything but a session of this camera follow
    // the camera's setting.
    return session ? m_bSubYuv.load() : m_bYuvDisplay.load();
}

unsigned char* CIpCamera::MotionPicture(unsigned char* buf, int width, int height, bool planar) {
    if (!planar) return buf;
    // The detector compares three bytes per pixel; a planar picture gives it
    // its luma, spread to three equal bytes (only while detection is on).
    if (!m_MotionDetector.GetDetectEnable()) return nullptr;
    const size_t pixels = static_cast<size_t>(width) * height;
    m_MotionScratch.resize(pixels * kMotionBytesPerPixel);
    unsigned char* dst = m_MotionScratch.data();
    for (size_t i = 0; i < pixels; ++i) {
        dst[0] = dst[1] = dst[2] = buf[i];
        dst += kMotionBytesPerPixel;
    }
    return m_MotionScratch.data();
}

void CIpCamera::RunMotionDetection(unsigned char* buf, int width, int height, bool planar) {
    int r = 0;
    {
        std::lock_guard<std::mutex> lock(m_MotionLock);
        if (planar != m_bMotionPlanar) {
            m_bMotionPlanar = planar;
            ApplyDetectMap();
        }
        // The detector was started for the main stream's size; a sub stream's
        // smaller pictures are scanned too, a larger picture is not.
        if (width <= m_nMotionWidth && height <= m_nMotionHeight && width > 0 && height > 0) {
            if (unsigned char* picture = MotionPicture(buf, width, height, planar))
                r = m_MotionDetector.MotionDetectRun(picture, width, height);
        }
    }
    const int type = m_nMotionSaveType.load();
    const bool saveImage = type == kMotionSaveImageShortClip || type == kMotionSaveImageRecord;
    if (r == kMotionNotify) {
        if (saveImage) SaveImage(kPictureMotion, m_nMotionImageCount.load());
        if (!(m_nRecordFlags.load() & kRecordHost)) {
            if (type != kMotionSaveRecord && type != kMotionSaveImageRecord) m_nMotionRecordSec.store(kForcedMotionRecordSec);
            StartSaveAvi(kRecordMotion);
        }
        m_nMotionCount.fetch_add(1);
    } else if (r == kMotionWithinSpan) {
        m_nMotionCount.fetch_add(1);
        if (saveImage) SaveImage(kPictureMotion, m_nMotionImageCount.load());
    }
}

int CIpCamera::DoVideoBuffer(CVideoSession* session, unsigned char* buf, int width, int height) {
    if (!m_bDispatchEnable.load(std::memory_order_relaxed)) return 0;
    const bool planar = IsPlanar(session);
    m_Displayer.DisplayVideoBuffer(buf, width, height, planar ? 1 : 0);

    const int oldW = m_nWidth.load();
    const int oldH = m_nHeight.load();
    if (oldW == 0 || oldH == 0 || oldW != width || oldH != height) {
        trc_log(__FILE__, __LINE__, "",
                "Camera(id:%d  name:%s)  m_nWidth(%d) != width(%d) || m_nHeight(%d) != height(%d) ... ",
                GetId(), Name().c_str(), oldW, width, oldH, height);
        int w = -1, h = -1;
        {
            std::lock_guard<std::recursive_mutex> lock(m_hLock);
            if (!m_bMainBusy) {
                w = m_MainVideoSession.GetVideoWidth();
                h = m_MainVideoSession.GetVideoHeight();
            }
        }
        int rc = 0;
        {
            std::lock_guard<std::mutex> lock(m_MotionLock);
            m_MotionDetector.Free();
            rc = m_MotionDetector.Init(this, w, h);
            m_bMotionPlanar = planar;
            ApplyDetectMap();  // the picture layout may have changed with the stream
            m_nMotionWidth = rc == 0 ? w : 0;
            m_nMotionHeight = rc == 0 ? h : 0;
        }
        if (rc != 0)
            trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) Init Motion Dection Fail...", GetId(),
                    Name().c_str());
    }
    m_nWidth.store(width);
    m_nHeight.store(height);

    if (buf) {
        RunMotionDetection(buf, width, height, planar);
        WritePendingSnapshot(buf, width, height, planar);
    }

    VideoBufCallBack fn = nullptr;
    void* user = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_CallbackLock);
        fn = m_pfnVideoCallBack;
        user = m_pVideoUser;
    }
    if (fn) {
        fn(this, user, buf, width, height);
        return 0;
    }
    m_nMotionCount.store(0);
    return 0;
}
