// CUrlVideoSession: a camera's live stream. Pictures, audio and motion-region
// updates go to the owning camera; recording is the engine's AVI recorder.
#include "camctl/UrlVideoSession.h"

#include "camctl/IpCamera.h"
#include "engine/engine.h"
#include "runtime/trc_log.h"

trc_unit g_trcSessionUnit;
TRC_USE_UNIT(g_trcSessionUnit);

CUrlVideoSession::CUrlVideoSession() : m_szName(), m_szReserved() { m_bFileSession = 0; }

CUrlVideoSession::~CUrlVideoSession() { VideoFree(); }

int CUrlVideoSession::DoVideoBuffer(unsigned char* buf, int width, int height) {
    if (!m_pCamera) return -1;
    m_pCamera->DoVideoBuffer(this, buf, width, height);
    return 0;
}

int CUrlVideoSession::DoAudioBuffer(unsigned short* buf, int a, int b) {
    if (!m_pCamera) return -1;
    m_pCamera->DoAudioBuffer(this, buf, a, b);
    return 0;
}

int CUrlVideoSession::UpdateMotionAlarmRegion(char* region) {
    if (!m_pCamera) return -1;
    m_pCamera->UpdateMotionAlarmRegion(this, region);
    return 0;
}

// VideoInit's owner of a live session is always its camera.
void CUrlVideoSession::AttachOwner(void* owner) { m_pCamera = static_cast<CIpCamera*>(owner); }

int CUrlVideoSession::SetName(const char* name) {
    os_strlcpy(m_szName, name ? name : "", sizeof m_szName);
    return 0;
}

int CUrlVideoSession::StartSaveAvi(const char* path) {
    if (!m_bOpen || !m_pContext) return -1;
    StopSaveAvi();
    return RecordStart(m_pContext, path);
}

int CUrlVideoSession::StopSaveAvi() {
    if (!m_bOpen || !m_pContext) return -1;
    trc_log(__FILE__, __LINE__, "", "CUrlVideoSession::StopSaveAvi start ...");
    RecordStop(m_pContext);
    trc_log(__FILE__, __LINE__, "", "CUrlVideoSession::StopSaveAvi end ...");
    return 0;
}

int64_t CUrlVideoSession::GetSaveAviDurationSec() {
    if (!m_bOpen || !m_pContext) return 0;
    // Unsigned 32-bit difference: right across the tick counter's wrap.
    const uint32_t elapsed = os_tick_count() - uint32_t(m_pContext->m_Recorder.StartTick());
    return elapsed / 1000;
}

int CUrlVideoSession::GetNetFrameRate() {
    if (!m_bOpen || !m_pContext) return -1;
    return m_pContext->m_nNetFrameRate;
}

float CUrlVideoSession::GetNetRateInfo() {
    if (!m_bOpen || !m_pContext) return -1.0f;
    return m_pContext->m_fNetRate;
}

int CUrlVideoSession::GetFramesCount() {
    if (!m_bOpen || !m_pContext) return -1;
    return m_pContext->m_nFramesCount;
}

int64_t CUrlVideoSession::GetFrequency() {
    if (!m_bOpen || !m_pContext) return -1;
    return m_pContext->m_nTimeBaseDen / m_pContext->m_nTimeBaseNum;
}

bool CUrlVideoSession::IsPlayFinish() {
    if (!m_bOpen || !m_pContext) return false;
    return m_pContext->m_bReadEnd != 0;
}
