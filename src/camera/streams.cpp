// The camera's stream pair: opening and closing the main and sub streams, choosing the decoded
// one, the queries that read them, and the display.
#include "camctl/IpCamera.h"

#include <strings.h>

#include <cstdint>
#include <cstring>
#include <memory>

#include "camera/camera_internal.h"
#include "runtime/os.h"

TRC_USE_UNIT(g_trcCameraUnit);

using namespace camera;

namespace {

// The media context of a session, for log lines only (the member is
// protected; a pointer to it is taken through a derived class).
struct SessionContextOf : CUrlVideoSession {
    static const void* Get(CVideoSession* s) {
        FFMpegContext* CVideoSession::*member = &SessionContextOf::m_pContext;
        return s ? static_cast<const void*>(s->*member) : nullptr;
    }
};

unsigned long long ContextAddr(CVideoSession* s) {
    return static_cast<unsigned long long>(reinterpret_cast<uintptr_t>(SessionContextOf::Get(s)));
}

}  // namespace

void CIpCamera::BeginMainChange() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    StopSaveAvi(kRecordAll);
    m_bMainBusy = true;
}

void CIpCamera::EndMainChange(const char* openedUrl) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    if (openedUrl) BoundedPrint(m_szMainUrl, sizeof m_szMainUrl, "%s", openedUrl);
    m_bMainBusy = false;
}

// Closing and opening run outside the camera lock: closing waits for the
// stream's decoding thread, which may itself be waiting for that lock.
int CIpCamera::OpenMainStreamVideo(const char* url) {
    std::lock_guard<std::mutex> change(m_MainStreamLock);
    const bool yuv = m_bYuvDisplay.load();
    char masked[kTextSize];
    MaskUrlCredentials(url, masked, sizeof masked);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  OpenMainStreamVideo url:%s  start yuv:%d... ",
            GetId(), Name().c_str(), masked, yuv ? 1 : 0);
    m_TimeManager.Reset();
    BeginMainChange();
    m_MainVideoSession.VideoFree();
    m_bMainYuv.store(yuv);
    m_MainVideoSession.SetD3DDisplay(yuv ? 1 : 0);
    m_MainVideoSession.SetSmoothStream(m_nSmoothStream.load());
    const bool opened = m_MainVideoSession.VideoInit(this, url) == 0;  // a null url fails there
    EndMainChange(opened ? url : nullptr);
    if (opened) {
        trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  OpenMainStreamVideo end suc context:0x%llx... ",
                GetId(), Name().c_str(), ContextAddr(&m_MainVideoSession));
        return 0;
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  OpenMainStreamVideo fail ... ", GetId(),
            Name().c_str());
    return -1;
}

int CIpCamera::OpenSubStreamVideo(const char* url) {
    const bool yuv = m_bYuvDisplay.load();
    char masked[kTextSize];
    MaskUrlCredentials(url, masked, sizeof masked);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) OpenSubStreamVideo url:%s start ... ", GetId(),
            Name().c_str(), masked);
    bool usable = false;
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        usable = url && strlen(url) >= 4 && m_szMainUrl[0] != '\0' &&
                 strcasecmp(url, m_szMainUrl) != 0;
        m_nSubOpenFailure = CAMCTL_OPEN_OK;  // none tried, or this one opens
        m_szSubOpenFailure[0] = '\0';
    }
    if (!usable) {
        // A separate sub stream that was open is closed rather than left
        // running unreachable.
        if (HasSubStream()) CloseSubStreamVideo();
        m_pSubVideoSession.store(&m_MainVideoSession);
        trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) OpenSubStreamVideo break init to m_MainVideoSession",
                GetId(), Name().c_str());
        return 0;
    }
    CloseSubStreamVideo();
    auto session = std::make_unique<CUrlVideoSession>();
    m_bSubYuv.store(yuv);
    session->SetD3DDisplay(yuv ? 1 : 0);
    session->SetSmoothStream(m_nSmoothStream.load());
    if (session->VideoInit(this, url) == 0) {
        const unsigned long long ctx = ContextAddr(session.get());
        std::unique_ptr<CUrlVideoSession> replaced;  // one another thread opened meanwhile
        {
            std::lock_guard<std::recursive_mutex> lock(m_hLock);
            BoundedPrint(m_szSubUrl, sizeof m_szSubUrl, "%s", url);
            replaced = std::move(m_pSeparateSubSession);
            m_pSubVideoSession.store(session.get());
            m_pSeparateSubSession = std::move(session);
        }
        if (replaced) replaced->VideoFree();
        trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) OpenSubStreamVideo end suc ... Context:0x%llx",
                GetId(), Name().c_str(), ctx);
        return 0;
    }
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        m_nSubOpenFailure = session->GetOpenFailure(m_szSubOpenFailure, sizeof m_szSubOpenFailure);
    }
    session.reset();
    m_pSubVideoSession.store(&m_MainVideoSession);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) OpenSubStreamVideo error init to m_MainVideoSession",
            GetId(), Name().c_str());
    return 0;
}

int CIpCamera::GetOpenFailure(bool bMain, char* text, int size) {
    if (bMain) return m_MainVideoSession.GetOpenFailure(text, size);
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    if (text && size > 0) os_strlcpy(text, m_szSubOpenFailure, size);
    return m_nSubOpenFailure;
}

int CIpCamera::CloseMainStreamVideo() {
    std::lock_guard<std::mutex> change(m_MainStreamLock);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  CloseMainStreamVideo start ... ", GetId(),
            Name().c_str());
    // A recording in progress is finished and renamed while its length is
    // still known.
    BeginMainChange();
    m_MainVideoSession.VideoFree();
    EndMainChange(nullptr);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  CloseMainStreamVideo end 222222222222222222 ... ",
            GetId(), Name().c_str());
    {
        std::lock_guard<std::mutex> lock(m_MotionLock);
        m_MotionDetector.Free();
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  CloseMainStreamVideo end ... ", GetId(),
            Name().c_str());
    {
        std::lock_guard<std::mutex> lock(m_CallbackLock);
        m_pfnVideoCallBack = nullptr;
    }
    m_nWidth.store(0);
    m_nHeight.store(0);
    return 0;
}

int CIpCamera::CloseSubStreamVideo() {
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) CloseSubStreamVideo start ... ", GetId(),
            Name().c_str());
    std::unique_ptr<CUrlVideoSession> sub;
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        sub = std::move(m_pSeparateSubSession);
        m_pSubVideoSession.store(&m_MainVideoSession);
    }
    if (!sub) {
        trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) CloseSubStreamVideo break ... ", GetId(),
                Name().c_str());
        return 0;
    }
    sub->VideoFree();
    sub.reset();
    {
        std::lock_guard<std::mutex> lock(m_MotionLock);
        m_MotionDetector.Free();
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) CloseSubStreamVideo end ... ", GetId(),
            Name().c_str());
    m_nWidth.store(0);
    m_nHeight.store(0);
    return 0;
}

bool CIpCamera::HasSubStream() const {
    return m_pSubVideoSession.load() != &m_MainVideoSession;
}

int CIpCamera::SetDecodeEnable(bool bMain, bool bEnable) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    if (m_bMainBusy || !m_MainVideoSession.IsOpen()) return -1;
    CUrlVideoSession* sub = m_pSubVideoSession.load();
    if (!bMain && sub != &m_MainVideoSession) {
        if (bEnable) {
            m_MainVideoSession.SetDecodeEnbale(0);
            sub->SetDecodeEnbale(1);
        } else {
            sub->SetDecodeEnbale(0);
        }
        return 0;
    }
    if (bEnable) {
        sub->SetDecodeEnbale(0);
        m_MainVideoSession.SetDecodeEnbale(1);
    } else {
        m_MainVideoSession.SetDecodeEnbale(0);
    }
    return 0;
}

void CIpCamera::SendVideoCond() {
    if (m_nSmoothStream.load() == 0) return;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    if (!m_bMainBusy) m_MainVideoSession.SendVideoCond();
    CUrlVideoSession* sub = m_pSubVideoSession.load();
    if (sub != &m_MainVideoSession) sub->SendVideoCond();
}

// The queries below read the sessions' media contexts: under the camera
// lock, and not while the main stream is being closed or opened (they then
// answer as a closed session does).
int CIpCamera::GetMainVideoCodec() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return m_bMainBusy ? -1 : m_MainVideoSession.GetVideoCodec();
}
bool CIpCamera::IsMainVideoOpenSuc() { return m_MainVideoSession.IsOpen(); }
bool CIpCamera::IsMainVideoFinish() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return !m_bMainBusy && m_MainVideoSession.IsPlayFinish();
}
bool CIpCamera::IsSubVideoOpenSuc() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return m_pSubVideoSession.load()->IsOpen();
}
bool CIpCamera::IsSubVideoFinish() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    CUrlVideoSession* sub = m_pSubVideoSession.load();
    if (sub == &m_MainVideoSession && m_bMainBusy) return false;
    return sub->IsPlayFinish();
}
int CIpCamera::getFrameRate() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return m_bMainBusy ? -1 : m_MainVideoSession.GetNetFrameRate();
}
int CIpCamera::getFramesCount() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return m_bMainBusy ? -1 : m_MainVideoSession.GetFramesCount();
}
float CIpCamera::getNetRate() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return m_bMainBusy ? -1.0f : m_MainVideoSession.GetNetRateInfo();
}

// ---------------------------------------------------------------------------
// Display

int CIpCamera::StartDisplay(CDC* dc, int w, int h) {
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) StartDisplay start ... ", GetId(), Name().c_str());
    int width = -1, height = -1;
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        if (!m_bMainBusy) {
            width = m_MainVideoSession.GetVideoWidth();
            height = m_MainVideoSession.GetVideoHeight();
        }
    }
    m_Displayer.Start(dc, w, h, width, height, m_bMainYuv.load() ? 1 : 0);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) StartDisplay end ... ", GetId(), Name().c_str());
    return 0;
}

int CIpCamera::StopDisplay() {
    m_Displayer.Stop();
    return 0;
}
