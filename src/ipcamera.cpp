// One camera: construction, identity, settings and callbacks, the timer and the schedules.
// Streams, motion dispatch, storage paths, recording and snapshots live in src/camera/.
#include "camctl/IpCamera.h"

#include <strings.h>

#include <mutex>
#include <string>

#include "camera/camera_internal.h"
#include "runtime/os.h"

trc_unit g_trcCameraUnit;
TRC_USE_UNIT(g_trcCameraUnit);

using namespace camera;

std::atomic<int32_t> CIpCamera::s_nImageSerial{0};

// ---------------------------------------------------------------------------
// Construction

CIpCamera::CIpCamera() { SetDefaults(); }

CIpCamera::CIpCamera(int id, const char* name, const char* ip) {
    SetDefaults();
    SetInfo(id, name, ip);
    m_bYuvDisplay.store(false, std::memory_order_relaxed);
}

void CIpCamera::SetDefaults() {
    m_pSubVideoSession.store(&m_MainVideoSession, std::memory_order_relaxed);
    BoundedPrint(m_szSaveDir, sizeof m_szSaveDir, "%s", ".");
    m_TimeManager.Init(this);
}

CIpCamera::~CIpCamera() {
    m_bDispatchEnable.store(0, std::memory_order_relaxed);
    m_bAlarmRegionUpdated.store(0, std::memory_order_relaxed);
    m_TimeManager.Free();
    StopSaveAvi(kRecordAll);
    StopDisplay();
    CloseSubStreamVideo();
    CloseMainStreamVideo();
    std::lock_guard<std::mutex> lock(m_MotionLock);
    m_MotionDetector.Free();
}

// ---------------------------------------------------------------------------
// Identity and settings

int CIpCamera::SetInfo(int id, const char* name, const char* sIpAddr) {
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  sIpAddr:%s SetInfo start ... ", GetId(),
            Name().c_str(), sIpAddr ? sIpAddr : "");
    m_nId.store(id, std::memory_order_relaxed);
    {
        std::lock_guard<std::mutex> lock(m_NameLock);
        BoundedPrint(m_szName, sizeof m_szName, "%s", name ? name : "");
        BoundedPrint(m_szIpAddr, sizeof m_szIpAddr, "%s", sIpAddr ? sIpAddr : "");
    }
    {
        std::lock_guard<std::mutex> lock(m_MotionLock);
        m_MotionDetector.SetOwnerName(Name().c_str());
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  SetInfo end ... ", GetId(), Name().c_str());
    return 0;
}

std::string CIpCamera::Name() const {
    std::lock_guard<std::mutex> lock(m_NameLock);
    return m_szName;
}

bool CIpCamera::MatchesNameOrIp(const char* text) const {
    std::lock_guard<std::mutex> lock(m_NameLock);
    return text && (strcasecmp(m_szName, text) == 0 || strcasecmp(m_szIpAddr, text) == 0);
}

int CIpCamera::IpcLock() {
    m_hLock.lock();
    return 0;
}

int CIpCamera::IpcUnLock() {
    m_hLock.unlock();
    return 0;
}

int CIpCamera::SetYuvDisplay(int yuv) {
    m_bYuvDisplay.store(yuv != 0, std::memory_order_relaxed);
    return 0;
}

void CIpCamera::SetSmoothStream(int n) {
    m_nSmoothStream.store(n, std::memory_order_relaxed);
    os_print("========SetSmoothStream=========%d==========\n", n);
}

void CIpCamera::SetVideoBufCallBack(VideoBufCallBack fn, void* user) {
    std::lock_guard<std::mutex> lock(m_CallbackLock);
    m_pfnVideoCallBack = fn;
    m_pVideoUser = user;
}

void CIpCamera::SetAudioBufCallBack(AudioBufCallBack fn, void* user) {
    std::lock_guard<std::mutex> lock(m_CallbackLock);
    m_pfnAudioCallBack = fn;
    m_pAudioUser = user;
}

int CIpCamera::DoAudioBuffer(CVideoSession*, unsigned short* buf, int a, int b) {
    AudioBufCallBack fn = nullptr;
    void* user = nullptr;
    {
        std::lock_guard<std::mutex> lock(m_CallbackLock);
        fn = m_pfnAudioCallBack;
        user = m_pAudioUser;
    }
    if (fn) fn(this, user, buf, a, b);
    return 0;
}

int CIpCamera::DoReverseEvent(void*, void*, void*) { return 0; }

int CIpCamera::OnTimer() {
    IpcLock();
    OnSaveTimer();
    IpcUnLock();
    m_TimeManager.OnTimer();
    return 0;
}

// ---------------------------------------------------------------------------
// Schedules

int CIpCamera::AddAutoSaveTime(_record_time_t* r) { return m_TimeManager.AddAutoSaveTime(r); }
int CIpCamera::AddMotionSaveTime(_record_time_t* r) { return m_TimeManager.AddMotionSaveTime(r); }
int CIpCamera::ResetAutoSaveTime() { return m_TimeManager.ResetAutoSaveTime(); }
int CIpCamera::ResetMotionSaveTime() { return m_TimeManager.ResetMotionSaveTime(); }
