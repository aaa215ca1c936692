/// Playback of a recorded file at a chosen speed.
///
/// The player owns one file session that opens and decodes the file. Every
/// decoded picture is held on the session's decode thread until the player's
/// 2 ms timer releases it, so the picture rate follows the file's frame rate
/// times the speed level. Pictures and sound go to the host's callbacks; one
/// picture at a time can be saved as a BMP file.
///
/// Threads: the host calls the public operations from one thread; the timer
/// thread lives as long as the player and ticks every 2 ms while a file plays
/// unpaused (it sleeps otherwise); the session's decode and audio threads
/// call DoVideoBuffer / DoAudioBuffer.
/// \class CRecordPlayer
#pragma once

#include "camctl/Export.h"

#include <atomic>
#include <cstdint>

#include "camctl/FileVideoSession.h"
#include "camctl/VideoDisplayer.h"

class CDC;
class CRecordPlayer;
class CVideoSession;
struct os_cond;
struct os_mutex;
struct os_sem;
struct os_thread;

// (player, user data, BGR24 bottom-up picture, width, height)
typedef int (*PlayerVideoBufCallBack)(CRecordPlayer* player, void* user, unsigned char* buf,
                                      int32_t width, int32_t height);
// (player, user data, signed 16-bit samples, sample count, sample rate)
typedef int (*PlayerAudioBufCallBack)(CRecordPlayer* player, void* user, unsigned short* buf,
                                      int32_t count, int32_t rate);

class CAMCTL_API CRecordPlayer {
public:
    CRecordPlayer();
    ~CRecordPlayer();
    CRecordPlayer(const CRecordPlayer&) = delete;
    CRecordPlayer& operator=(const CRecordPlayer&) = delete;

    /// Opens and starts playing a file. dc, width and height are accepted for
    /// the host's convenience and not used: pictures go to the video callback.
    /// -1 when a file is already playing or cannot be opened.
    int PlayFile(const char* path, CDC* dc, int width, int height);
    int Pause();
    int Resume();
    int Stop();
    /// Jumps to t seconds, rounded down to a multiple of 5 (at least 5).
    int SeekTime(int t);
    /// 0 or 100 normal; 1..4 slower (1/16, 1/8, 1/4, 1/2); 101..104 faster
    /// (2x, 4x, 8x, 16x). Other values keep the current pace.
    int SetSpeedLevel(int level);
    int64_t GetCurrTime();
    int64_t GetDuration();
    bool IsPlayFinish();

    /// Folder under which snapshots go to "VMS/PLAY-IMAGE-MANUAL". Missing
    /// levels are created. Default ".".
    int SetSaveDir(const char* dir);
    /// Path for a snapshot taken now (out: at least 256 bytes).
    int GetImagePath(char* out);
    /// Saves the next picture delivered as a BMP file.
    int SaveImage();
    void SetVideoBufCallBack(PlayerVideoBufCallBack fn, void* user);
    void SetAudioBufCallBack(PlayerAudioBufCallBack fn, void* user);

    /// Called by the session's decode thread for every picture; blocks until
    /// the picture is due. -1 when nothing plays.
    int DoVideoBuffer(CVideoSession* session, unsigned char* buf, int width, int height);
    /// Called by the session's audio thread; forwarded at once, not paced.
    int DoAudioBuffer(CVideoSession* session, unsigned short* buf, int count, int rate);

private:
    static void* TimerThreadProc(void* self);
    void OnTimer();
    // One wait on the frame event: 0 signalled, 1 timed out.
    int WaitFrameEvent(uint32_t timeout_ms);
    void WriteSnapshot(unsigned char* buf, int width, int height);

    std::atomic<int32_t> m_bPlaying{0};
    std::atomic<int32_t> m_bPause{0};
    int32_t m_nSpeedLevel = 0;
    int64_t m_nFrameDuration = 0;  // ms per picture of the file
    int64_t m_nCurrTime = 0;
    std::atomic<int32_t> m_nFrameCount{0};  // pictures delivered since construction
    int32_t m_nSeekTime = 0;
    char m_szSaveDir[256] = {};
    char m_szImagePath[256] = {};  // guarded by m_hLock
    int32_t m_bSaveImage = 0;      // guarded by m_hLock
    CFileVideoSession m_FileSession;
    CVideoDisplayer m_Displayer;  // kept for the host's window; pictures go to the callback
    // Callbacks and their user data: guarded by m_hLock.
    void* m_pVideoUser = nullptr;
    PlayerVideoBufCallBack m_pfnVideo = nullptr;
    void* m_pAudioUser = nullptr;
    PlayerAudioBufCallBack m_pfnAudio = nullptr;
    int32_t m_nTimerId = -1;
    os_cond* m_hFrameEvent = nullptr;  // one count per released picture
    // Guards the snapshot request and the callbacks; also the mutex handed to
    // the frame-event waits.
    os_mutex* m_hLock = nullptr;
    std::atomic<int64_t> m_nTickInterval{20};  // 2 ms ticks per picture
    std::atomic<int32_t> m_nTickCount{-1};     // ticks since the last release; -1 resync
    os_thread* m_hTimerThread = nullptr;
    std::atomic<int32_t> m_bTimerRunning{0};
    os_sem* m_hTimerWake = nullptr;  // posted when ticks start to matter (play, resume, end)
};
