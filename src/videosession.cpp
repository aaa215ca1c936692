// CVideoSession: one media context behind the exported session interface,
// plus the smooth-stream pacing that releases one picture per display-timer
// interval.
#include "camctl/VideoSession.h"

#include <atomic>

#include "engine/engine.h"
#include "runtime/os.h"

namespace {

constexpr uint32_t kFrameWaitMs = 1000;

}  // namespace

CVideoSession::CVideoSession()
    : m_pContext(nullptr),
      m_bOpen(0),
      m_bD3DDisplay(0),
      m_pOwner(nullptr),
      m_bFileSession(0),
      m_hFrameSignal(nullptr),
      m_hSessionLock(nullptr),
      m_nCondCount(0),
      m_nSmoothStream(0),
      m_nCondAdjust(0) {
    EngineGlobalInit();  // once per process
    m_hFrameSignal = os_cond_create();
    m_hSessionLock = os_mutex_create();
}

CVideoSession::~CVideoSession() {
    // Owners close first; a stream left open is closed here rather than left
    // running against a destroyed session.
    VideoFree();
    os_cond_destroy(m_hFrameSignal);
    os_mutex_destroy(m_hSessionLock);
}

int CVideoSession::DoVideoBuffer(unsigned char*, int, int) { return 0; }
int CVideoSession::DoAudioBuffer(unsigned short*, int, int) { return 0; }
int CVideoSession::UpdateMotionAlarmRegion(char*) { return 0; }

int CVideoSession::FrameWait() {
    if (m_bFileSession) return 0;
    // At most one picture per release; a stalled host slows delivery to one
    // picture a second but never stops it.
    OsMutexLock lock(m_hSessionLock);
    os_cond_timedwait_ms(m_hFrameSignal, m_hSessionLock, kFrameWaitMs);
    return 0;
}

void CVideoSession::AttachOwner(void*) {}

int CVideoSession::VideoInit(void* owner, const char* url) {
    std::lock_guard<std::mutex> lock(m_OpenLock);
    if (m_bOpen) {
        SetOpenFailure(CAMCTL_OPEN_OTHER, "the session is already open (its stream is kept)");
        return -1;
    }
    ContextOptions options;
    if (m_bFileSession) {
        options.decode = 1;
        options.throttleRead = 1;
    }
    // The owner is in place before the threads start: the first pictures
    // reach it, and the threads never see the field change under them.
    m_pOwner = owner;
    AttachOwner(owner);
    OpenFailureInfo failure;
    FFMpegContext* ctx = FFMpegContextCreateEx(this, url, m_bD3DDisplay, [this] { return FrameWait(); },
                                               m_nSmoothStream, options, &failure);
    SetOpenFailure(failure.reason, failure.text);
    if (!ctx) {
        m_pOwner = nullptr;
        AttachOwner(nullptr);
        return -1;
    }
    m_pContext = ctx;
    m_bOpen = 1;
    return 0;
}

void CVideoSession::SetOpenFailure(int reason, const char* text) {
    std::lock_guard<std::mutex> lock(m_OpenFailureLock);
    m_nOpenFailure = reason;
    os_strlcpy(m_szOpenFailure, text, sizeof m_szOpenFailure);
}

int CVideoSession::GetOpenFailure(char* text, int size) const {
    std::lock_guard<std::mutex> lock(m_OpenFailureLock);
    if (text && size > 0) os_strlcpy(text, m_szOpenFailure, size);
    return m_nOpenFailure;
}

int CVideoSession::VideoFree() {
    std::lock_guard<std::mutex> lock(m_OpenLock);
    if (!m_bOpen.exchange(0)) return -1;  // only one caller closes the context
    // Stop the threads first, then wake a decode thread waiting for its
    // release: woken after the flag is down, it cannot start another wait.
    m_pContext->m_bRunning = 0;
    os_cond_signal(m_hFrameSignal);
    // The threads are gone once the context is closed; only then are the
    // fields they read cleared.
    FFMpegContextDestroy(m_pContext);
    m_pContext = nullptr;
    m_bD3DDisplay = 0;
    m_pOwner = nullptr;
    AttachOwner(nullptr);
    return 0;
}

int CVideoSession::SetD3DDisplay(int yuv) {
    m_bD3DDisplay = yuv;
    return 0;
}

int CVideoSession::SetSmoothStream(int mode) {
    m_nSmoothStream = mode;
    return 0;
}

int CVideoSession::SetDecodeEnbale(int on) {
    if (!m_bOpen || !m_pContext) return -1;
    m_pContext->m_bDecode = on;
    return 0;
}

int CVideoSession::GetVideoWidth() {
    if (!m_bOpen || !m_pContext) return -1;
    return m_pContext->m_nWidth;
}

int CVideoSession::GetVideoHeight() {
    if (!m_bOpen || !m_pContext) return -1;
    return m_pContext->m_nHeight;
}

int CVideoSession::GetVideoCodec() {
    if (!m_bOpen || !m_pContext) return -1;
    return GetVideoCodecNumber(m_pContext);
}

int CVideoSession::SendVideoCond() {
    if (!m_bOpen || !m_pContext) return -1;
    if (m_bFileSession || m_nSmoothStream == 0 || !m_pContext->m_bDecode) return 0;

    const int queued = GetAVPktListElmCount(m_pContext);
    if (++m_nCondCount < m_pContext->m_nHalfFrameInterval + m_nCondAdjust) return 0;

    // A long queue shortens the interval by one call per release, a short
    // one lengthens it; in the middle band the correction starts over.
    const int high = m_nSmoothStream == 1 ? 10 : 20;
    const int low = m_nSmoothStream == 1 ? 5 : 10;
    if (queued > high)
        m_nCondAdjust -= 1;
    else if (queued >= low)
        m_nCondAdjust = 0;
    else
        m_nCondAdjust += 1;

    os_cond_signal(m_hFrameSignal);
    m_nCondCount = 0;
    return 0;
}

const char* CamctlOpenFailureName(int reason) {
    switch (reason) {
        case CAMCTL_OPEN_OK: return "ok";
        case CAMCTL_OPEN_UNREACHABLE: return "unreachable";
        case CAMCTL_OPEN_UNAUTHORIZED: return "credentials refused";
        case CAMCTL_OPEN_NOT_FOUND: return "not found";
        case CAMCTL_OPEN_NO_VIDEO: return "no video";
        case CAMCTL_OPEN_BAD_URL: return "bad url";
        default: return "failed";
    }
}
