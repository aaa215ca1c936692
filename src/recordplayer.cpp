// CRecordPlayer: paced playback of a recorded file.
//
// Pacing: a timer thread wakes every 2 ms at absolute CLOCK_MONOTONIC
// deadlines and counts ticks while a file plays unpaused. While nothing
// plays, or the file is paused, a tick would do nothing: the thread then
// sleeps until PlayFile, Resume or destruction wakes it, so an idle player
// costs no CPU. When the count
// reaches the tick interval it releases one picture through the frame event
// (a counting semaphore, so a release that comes before the wait is kept).
// The session's decode thread waits for that release in DoVideoBuffer.
//
// A tick count of -1 means "resynchronise": the timer stays quiet, and the
// next picture takes a release that is already pending (waiting at most one
// 10 ms round), drops any stale ones, and restarts the count at 0 so that
// pacing runs from that picture on.
#include "camctl/RecordPlayer.h"

#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <string>

#include "runtime/os.h"
#include "snapshot_writer.h"

namespace {

constexpr long kTickNs = 2 * 1000 * 1000;  // timer period: 2 ms
// After a stall longer than this the timer restarts from now instead of
// replaying every missed tick at once.
constexpr long long kMaxLagNs = 100LL * 1000 * 1000;
constexpr uint32_t kResyncRoundMs = 10;
constexpr uint32_t kFrameWaitMs = 1000;
constexpr uint32_t kIdleWaitMs = 1000;
constexpr int64_t kMsPerSecond = 1000;
// A frame rate that gives pictures shorter than this is not believed; the
// player then paces at 25 pictures a second.
constexpr int64_t kShortestFrameMs = 11;
constexpr int64_t kDefaultFrameMs = 40;
// Fastest pace, in 2 ms ticks: one picture per 4 ms.
constexpr int64_t kMinTickInterval = 2;
// Speed levels: normal pace, 1 to 4 slower (8x to 1x a picture's length),
// 101 to 104 faster (4x to 32x).
constexpr int kSpeedNormal = 0;
constexpr int kSpeedNormalToo = 100;
constexpr int kSpeedSlow8 = 1, kSpeedSlow4 = 2, kSpeedSlow2 = 3, kSpeedSlow1 = 4;
constexpr int kSpeedFast4 = 101, kSpeedFast8 = 102, kSpeedFast16 = 103, kSpeedFast32 = 104;
constexpr mode_t kFolderMode = 0755;

long long ToNs(const timespec& t) { return static_cast<long long>(t.tv_sec) * 1000000000LL + t.tv_nsec; }

void AddNs(timespec* t, long ns) {
    t->tv_nsec += ns;
    while (t->tv_nsec >= 1000000000L) {
        t->tv_nsec -= 1000000000L;
        ++t->tv_sec;
    }
}

}  // namespace

CRecordPlayer::CRecordPlayer() {
    std::snprintf(m_szSaveDir, sizeof m_szSaveDir, "%s", ".");
    m_hLock = os_mutex_create();
    m_hFrameEvent = os_cond_create();
    m_hTimerWake = os_sem_create(0);
    m_bTimerRunning.store(1);
    m_hTimerThread = os_thread_create(nullptr, &CRecordPlayer::TimerThreadProc, this);
    m_nTimerId = m_hTimerThread ? 1 : -1;
    if (!m_hTimerThread) {
        m_bTimerRunning.store(0);
        os_print("CRecordPlayer: timer thread could not be started");
    }
}

CRecordPlayer::~CRecordPlayer() {
    Stop();
    if (m_hTimerThread) {
        m_bTimerRunning.store(0);
        os_sem_post(m_hTimerWake);
        os_thread_join(m_hTimerThread);
        os_thread_free(m_hTimerThread);
        m_hTimerThread = nullptr;
    }
    m_nTimerId = -1;
    os_cond_destroy(m_hFrameEvent);
    m_hFrameEvent = nullptr;
    os_mutex_destroy(m_hLock);
    m_hLock = nullptr;
    os_sem_destroy(m_hTimerWake);
    m_hTimerWake = nullptr;
}

void* CRecordPlayer::TimerThreadProc(void* self) {
    auto* player = static_cast<CRecordPlayer*>(self);
    os_thread_set_name("player/timer");
    timespec next{};
    clock_gettime(CLOCK_MONOTONIC, &next);
    while (player->m_bTimerRunning.load(std::memory_order_relaxed)) {
        if (!player->m_bPlaying.load(std::memory_order_relaxed) ||
            player->m_bPause.load(std::memory_order_relaxed)) {
            // Nothing to count: sleep until woken (the second is only a
            // safety net), then tick from that moment on.
            os_sem_timedwait(player->m_hTimerWake, kIdleWaitMs);
            clock_gettime(CLOCK_MONOTONIC, &next);
            continue;
        }
        AddNs(&next, kTickNs);
        while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr) == EINTR) {
        }
        if (!player->m_bTimerRunning.load(std::memory_order_relaxed)) break;
        player->OnTimer();
        timespec now{};
        clock_gettime(CLOCK_MONOTONIC, &now);
        if (ToNs(now) - ToNs(next) > kMaxLagNs) next = now;
    }
    return nullptr;
}

void CRecordPlayer::OnTimer() {
    if (!m_bPlaying.load(std::memory_order_relaxed) || m_bPause.load(std::memory_order_relaxed)) return;
    int32_t count = m_nTickCount.load(std::memory_order_relaxed);
    if (count == -1) return;
    // Compare-and-swap so that a -1 written meanwhile by the host or a 0
    // written by the decode thread is never overwritten.
    if (count + 1 >= m_nTickInterval.load(std::memory_order_relaxed)) {
        if (m_nTickCount.compare_exchange_strong(count, 0)) os_cond_signal(m_hFrameEvent);
    } else {
        m_nTickCount.compare_exchange_strong(count, count + 1);
    }
}

int CRecordPlayer::WaitFrameEvent(uint32_t timeout_ms) {
    // The runtime's timed wait releases the mutex it is given for the time of
    // the wait, so the caller holds it on entry.
    OsMutexLock lock(m_hLock);
    return os_cond_timedwait_ms(m_hFrameEvent, m_hLock, timeout_ms) == 0 ? 0 : 1;
}

int CRecordPlayer::PlayFile(const char* path, CDC* dc, int width, int height) {
    (void)dc;
    (void)width;
    (void)height;
    if (m_bPlaying.load() || !path) return -1;
    m_bPause.store(0);
    // Playing is announced before the session starts decoding, so that its
    // first picture is paced (resynchronised) rather than refused.
    m_nTickCount.store(-1);
    m_nCurrTime = 0;
    m_bPlaying.store(1);
    os_sem_post(m_hTimerWake);
    if (m_FileSession.VideoInit(this, path) != 0) {
        m_bPlaying.store(0);
        return -1;
    }
    m_FileSession.SetDecodeEnbale(1);
    const int64_t frequency = m_FileSession.GetFrequency();
    if (frequency != 0) m_nFrameDuration = kMsPerSecond / frequency;
    if (m_nFrameDuration < kShortestFrameMs) m_nFrameDuration = kDefaultFrameMs;
    m_nTickInterval.store((m_nFrameDuration + 1) / 2);
    return 0;
}

int CRecordPlayer::Pause() {
    if (!m_bPlaying.load()) return -1;
    m_bPause.store(1);
    m_FileSession.Pause();
    return 0;
}

int CRecordPlayer::Resume() {
    if (!m_bPlaying.load()) return -1;
    m_bPause.store(0);
    os_sem_post(m_hTimerWake);
    m_FileSession.Resume();
    return 0;
}

int CRecordPlayer::Stop() {
    if (!m_bPlaying.load()) return -1;
    // Clear the state first, then release a decode thread that waits for
    // its picture: it sees that nothing plays and returns at once.
    m_nTickCount.store(-1);
    m_bPlaying.store(0);
    os_cond_signal(m_hFrameEvent);
    m_FileSession.VideoFree();
    return 0;
}

int CRecordPlayer::SeekTime(int t) {
    if (!m_bPlaying.load()) return -1;
    m_FileSession.SeekTime(t);
    m_nSeekTime = t;
    return 0;
}

int CRecordPlayer::SetSpeedLevel(int level) {
    if (!m_bPlaying.load()) return -1;
    const int64_t d = m_nFrameDuration;
    int64_t interval = m_nTickInterval.load();
    switch (level) {
        case kSpeedNormal:
        case kSpeedNormalToo: interval = (d + 1) / 2; break;
        case kSpeedSlow8: interval = 8 * d; break;
        case kSpeedSlow4: interval = 4 * d; break;
        case kSpeedSlow2: interval = 2 * d; break;
        case kSpeedSlow1: interval = d; break;
        case kSpeedFast4: interval = d / 4; break;
        case kSpeedFast8: interval = d / 8; break;
        case kSpeedFast16: interval = d / 16; break;
        case kSpeedFast32: interval = d / 32; break;
        default: break;
    }
    if (interval < kMinTickInterval) interval = kMinTickInterval;
    m_nTickInterval.store(interval);
    m_nSpeedLevel = level;
    m_FileSession.SetSpeedLevel(level);
    m_nTickCount.store(-1);
    // Wake a decode thread that waits at the old pace so that it
    // resynchronises at the new one instead of sitting out its wait.
    os_cond_signal(m_hFrameEvent);
    return 0;
}

int64_t CRecordPlayer::GetCurrTime() {
    if (!m_bPlaying.load()) return -1;
    return m_FileSession.GetCurrTime();
}

int64_t CRecordPlayer::GetDuration() {
    if (!m_bPlaying.load()) return -1;
    return m_FileSession.GetTotalDuration();
}

bool CRecordPlayer::IsPlayFinish() {
    if (!m_bPlaying.load()) return false;
    return m_FileSession.IsPlayFinish();
}

int CRecordPlayer::SetSaveDir(const char* dir) {
    if (!dir) return -1;
    std::snprintf(m_szSaveDir, sizeof m_szSaveDir, "%s", dir);
    if (!IsDirectory(m_szSaveDir)) MakeDirectories(m_szSaveDir);
    const size_t len = std::strlen(m_szSaveDir);
    if (len > 0 && m_szSaveDir[len - 1] == '/') m_szSaveDir[len - 1] = '\0';
    return 0;
}

int CRecordPlayer::GetImagePath(char* out) {
    if (!out) return -1;
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    localtime_r(&now, &local);
    mkdir(m_szSaveDir, kFolderMode);
    // Only the last level is made here: the folder appears when
    // <save dir>/VMS exists already.
    char folder[512];
    std::snprintf(folder, sizeof folder, "%s/%s/PLAY-IMAGE-MANUAL", m_szSaveDir, "VMS");
    mkdir(folder, kFolderMode);
    char name[96];
    std::snprintf(name, sizeof name, "%04d%02d%02d-%02d%02d%02d.bmp", local.tm_year + 1900,
                  local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    const std::string path = std::string(folder) + "/" + name;
    const size_t len = std::min<size_t>(path.size(), sizeof m_szImagePath - 1);
    std::memcpy(out, path.data(), len);
    out[len] = '\0';
    return 0;
}

int CRecordPlayer::SaveImage() {
    char path[sizeof m_szImagePath];
    GetImagePath(path);
    OsMutexLock lock(m_hLock);
    std::memcpy(m_szImagePath, path, sizeof m_szImagePath);
    m_bSaveImage = 1;
    return 0;
}

void CRecordPlayer::SetVideoBufCallBack(PlayerVideoBufCallBack fn, void* user) {
    OsMutexLock lock(m_hLock);
    m_pfnVideo = fn;
    m_pVideoUser = user;
}

void CRecordPlayer::SetAudioBufCallBack(PlayerAudioBufCallBack fn, void* user) {
    OsMutexLock lock(m_hLock);
    m_pfnAudio = fn;
    m_pAudioUser = user;
}

void CRecordPlayer::WriteSnapshot(unsigned char* buf, int width, int height) {
    char path[sizeof m_szImagePath];
    bool pending = false;
    {
        OsMutexLock lock(m_hLock);
        pending = m_bSaveImage != 0;
        if (pending) {
            std::memcpy(path, m_szImagePath, sizeof path);
            m_szImagePath[0] = '\0';
            m_bSaveImage = 0;
        }
    }
    if (pending) SaveBmpFileUnpadded(path, buf, width, height);
}

int CRecordPlayer::DoVideoBuffer(CVideoSession* session, unsigned char* buf, int width, int height) {
    (void)session;
    if (!m_bPlaying.load()) return -1;
    m_nFrameCount.fetch_add(1, std::memory_order_relaxed);

    for (;;) {
        if (!m_bPlaying.load()) return -1;
        int32_t count = m_nTickCount.load();
        if (count == -1) {
            if (m_bPause.load()) {
                // Paused before pacing started: hold the picture.
                WaitFrameEvent(kResyncRoundMs);
                continue;
            }
            // The timer is quiet while the count is -1: take a release that
            // is pending (at most one round), drop stale ones, and let the
            // timer pace from now.
            if (WaitFrameEvent(kResyncRoundMs) == 0) {
                while (WaitFrameEvent(0) == 0) {
                }
            }
            m_nTickCount.compare_exchange_strong(count, 0);
            break;
        }
        const int rc = WaitFrameEvent(kFrameWaitMs);
        // Stop or a new speed level while waiting: look again.
        if (m_nTickCount.load() == -1) continue;
        if (rc == 0) break;
        // Timed out: the timer was quiet for a second. While paused that is
        // expected and the picture stays held; otherwise it goes out now.
        if (!m_bPause.load()) break;
    }
    if (!m_bPlaying.load()) return -1;

    WriteSnapshot(buf, width, height);

    PlayerVideoBufCallBack fn = nullptr;
    void* user = nullptr;
    {
        OsMutexLock lock(m_hLock);
        fn = m_pfnVideo;
        user = m_pVideoUser;
    }
    if (fn) fn(this, user, buf, width, height);
    return 0;
}

int CRecordPlayer::DoAudioBuffer(CVideoSession* session, unsigned short* buf, int count, int rate) {
    (void)session;
    PlayerAudioBufCallBack fn = nullptr;
    void* user = nullptr;
    {
        OsMutexLock lock(m_hLock);
        fn = m_pfnAudio;
        user = m_pAudioUser;
    }
    if (fn) fn(this, user, buf, count, rate);
    return 0;
}
