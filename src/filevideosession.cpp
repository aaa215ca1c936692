// CFileVideoSession: a recorded file played by a CRecordPlayer, read
// throttled and decoded in full; pause, resume, seek, position, duration.
#include "camctl/FileVideoSession.h"

#include "camctl/RecordPlayer.h"
#include "engine/engine.h"

namespace {
// Positions above this many time-base units are not trusted.
constexpr uint64_t kMaxPosition = 100000;
}  // namespace

CFileVideoSession::CFileVideoSession() { m_bFileSession = 1; }

CFileVideoSession::~CFileVideoSession() { VideoFree(); }

int CFileVideoSession::DoVideoBuffer(unsigned char* buf, int width, int height) {
    if (!m_pPlayer) return -1;
    m_pPlayer->DoVideoBuffer(this, buf, width, height);
    return 0;
}

int CFileVideoSession::DoAudioBuffer(unsigned short* buf, int a, int b) {
    if (!m_pPlayer) return -1;
    m_pPlayer->DoAudioBuffer(this, buf, a, b);
    return 0;
}

int CFileVideoSession::UpdateMotionAlarmRegion(char*) { return 0; }

// VideoInit's owner of a file session is always its player.
void CFileVideoSession::AttachOwner(void* owner) { m_pPlayer = static_cast<CRecordPlayer*>(owner); }

int CFileVideoSession::Pause() {
    if (!m_bOpen || !m_pContext) return -1;
    m_pContext->m_bPause = 1;
    return 0;
}

int CFileVideoSession::Resume() {
    if (!m_bOpen || !m_pContext) return -1;
    m_pContext->m_bPause = 0;
    return 0;
}

bool CFileVideoSession::IsPlayFinish() {
    if (!m_bOpen || !m_pContext) return false;
    return m_pContext->m_bReadEnd != 0;
}

int64_t CFileVideoSession::GetTotalDuration() {
    if (!m_bOpen || !m_pContext) return -1;
    return m_pContext->m_nDurationSec;
}

int64_t CFileVideoSession::GetFrequency() {
    if (!m_bOpen || !m_pContext) return -1;
    return m_pContext->m_nTimeBaseDen / m_pContext->m_nTimeBaseNum;
}

int64_t CFileVideoSession::GetCurrTime() {
    if (!m_bOpen || !m_pContext) return -1;
    const uint64_t pos = uint64_t(m_pContext->m_nLastVideoPts.load());
    if (pos > kMaxPosition || m_pContext->m_nDurationSec <= 0) return -1;
    return int64_t(pos) * m_pContext->m_nTimeBaseNum / m_pContext->m_nTimeBaseDen;
}

int CFileVideoSession::SeekTime(int t) {
    if (!m_bOpen || !m_pContext) return -1;
    RequestSeek(m_pContext, t);
    return 0;
}

int CFileVideoSession::SetSpeedLevel(int) { return m_bOpen ? 0 : -1; }
