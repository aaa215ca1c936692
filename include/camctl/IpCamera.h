/// One network camera as the host sees it.
///
/// A camera owns its main-stream session and at most one sub-stream session.
/// Every decoded picture of either comes back through DoVideoBuffer, where
/// the camera paints it (StartDisplay), runs motion detection, turns motion
/// into snapshots and recordings, writes a pending snapshot and finally hands
/// the picture to the host's video callback. Recordings (always of the main
/// stream) and snapshots go below the folder chosen with SetSaveDir:
///
///     <root>/VMS/<name>+<id>[/<sub>]/MS_Record/YYYY-MM-DD/<name>+<id>_YYYYMMDD-hhmmss_<reason>[_<seconds>].avi
///     <root>/VMS/<name>+<id>[/<sub>]/IMAGE[-MANUAL]/YYYY-MM-DD/<name>_YYYYMMDD-hhmmss_<type>_<serial>.jpg
///
/// In those paths every '/', control character and ".." of the name is
/// written as '_' so that no name leads outside the save root (the name
/// itself, logs and callbacks keep it as given).
///
/// Recording reasons (a bit set): 1 asked for by the host, 2 motion,
/// 4 schedule; StopSaveAvi(7) stops them all. Snapshot types: 1 manual
/// (folder IMAGE-MANUAL), anything else automatic (folder IMAGE).
///
/// Threads: host threads (open, close, settings, snapshots), the sessions'
/// decoding and audio threads (DoVideoBuffer, DoAudioBuffer) and the camera
/// manager's timer thread (OnTimer). Locks, in the order they are taken: the
/// manager's list lock, the camera lock (IpcLock, recursive), the stream's
/// record lock, the packet-queue locks. The motion lock is a leaf.
/// \class CIpCamera
#pragma once

#include "camctl/Export.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camctl/MotionDetector.h"
#include "camctl/OpenFailure.h"
#include "camctl/TimeManager.h"
#include "camctl/UrlVideoSession.h"
#include "camctl/VideoDisplayer.h"

class CDC;
class CVideoSession;

// (camera, user pointer, picture, width, height); the result is ignored.
typedef int (*VideoBufCallBack)(void* camera, void* user, unsigned char* buf, int width,
                                int height);
// (camera, user pointer, signed 16-bit samples, sample count, sample rate).
typedef int (*AudioBufCallBack)(void* camera, void* user, unsigned short* buf, int a, int b);

class CAMCTL_API CIpCamera {
public:
    CIpCamera();
    /// A default camera with the given identity (the manager itself uses the
    /// default constructor and SetInfo).
    CIpCamera(int id, const char* name, const char* ip);
    ~CIpCamera();
    /// A camera owns streams, threads and files: it is never copied.
    CIpCamera(const CIpCamera&) = delete;
    CIpCamera& operator=(const CIpCamera&) = delete;

    // --- identity and simple settings
    int SetInfo(int id, const char* name, const char* sIpAddr);
    int GetId() const { return m_nId.load(std::memory_order_relaxed); }
    /// The name itself: not to be read while another thread calls SetInfo.
    const char* GetName() const { return m_szName; }
    const char* GetIpAddr() const { return m_szIpAddr; }
    /// The name, or else the IP address, equals text without regard to
    /// letter case; safe against a concurrent SetInfo.
    bool MatchesNameOrIp(const char* text) const;
    bool GetActive() const { return m_bActive.load(std::memory_order_relaxed); }
    void SetActive(bool active) { m_bActive.store(active, std::memory_order_relaxed); }
    int IpcLock();
    int IpcUnLock();
    /// Layout of the streams opened from now on (planar YUV 4:2:0 or packed
    /// BGR24); a stream already open keeps the layout it was opened with.
    int SetYuvDisplay(int yuv);
    void SetSmoothStream(int n);
    void SetVideoBufCallBack(VideoBufCallBack fn, void* user);
    void SetAudioBufCallBack(AudioBufCallBack fn, void* user);

    /// --- streams
    int OpenMainStreamVideo(const char* url);
    int OpenSubStreamVideo(const char* url);
    int CloseMainStreamVideo();
    int CloseSubStreamVideo();
    /// Chooses the decoded stream: at most one of main and sub is decoded.
    /// -1 when the main stream is not open.
    int SetDecodeEnable(bool bMain, bool bEnable);
    /// Smooth-stream pacing, from the host's display timer.
    void SendVideoCond();
    int GetMainVideoCodec();
    /// Why the last open of the main (bMain) or of a separate sub stream
    /// failed: a CamctlOpenFailure, CAMCTL_OPEN_OK after a success or when
    /// none was tried. The detail goes to text as CVideoSession::GetOpenFailure
    /// gives it.
    int GetOpenFailure(bool bMain, char* text, int size);
    bool IsMainVideoOpenSuc();
    bool IsMainVideoFinish();
    bool IsSubVideoOpenSuc();
    bool IsSubVideoFinish();
    bool HasSubStream() const;
    int getFrameRate();
    int getFramesCount();
    float getNetRate();

    // --- display
    int StartDisplay(CDC* dc, int w, int h);
    int StopDisplay();

    // --- motion detection
    int GetMotionAlarmRegion(char* out);
    int UpdateMotionAlarmRegion(CVideoSession* s, char* region);
    int SetMotionDetectLevel(int level);
    int SetMotionDetectMap(unsigned char* map);
    int SetMotionSpaceTime(int seconds);
    /// What a motion event saves: 1 or 2 snapshots (imageCount each event);
    /// any type but 0 and 2 records 5 s, otherwise recordSec.
    int SetMotionSaveType(int type, int imageCount, int recordSec);
    int GetMotionCount() const { return m_nMotionCount.load(std::memory_order_relaxed); }

    // --- recording and snapshots
    int SetSaveDir(const char* root, const char* sub);
    const char* GetSaveDir() const { return m_szSaveDir; }
    int GetAviPath(char* out, int reason);
    int GetImagePath(char* out, int type);
    int StartSaveAvi(int reason);
    int StopSaveAvi(int reason);
    /// Takes count snapshots of the given type: one from the next picture,
    /// then one a second.
    int SaveImage(int type, int count);
    int NotifyAutoSave(int on);
    int NotifyMotionSave(int on);
    int64_t GetAviDuration();
    uint32_t GetRecordFlags() const { return m_nRecordFlags.load(std::memory_order_relaxed); }
    /// Path of the recording file being written ("" when none); a copy.
    void GetRecordingPath(char* out, int size);

    // --- schedules
    int AddAutoSaveTime(_record_time_t* r);
    int AddMotionSaveTime(_record_time_t* r);
    int ResetAutoSaveTime();
    int ResetMotionSaveTime();

    // --- called by the sessions and the manager
    int DoVideoBuffer(CVideoSession* session, unsigned char* buf, int width, int height);
    int DoAudioBuffer(CVideoSession* session, unsigned short* buf, int a, int b);
    int DoReverseEvent(void*, void*, void*);
    int OnTimer();
    int OnSaveTimer();

    /// Numbers snapshot files across all cameras; never reset.
    static std::atomic<int32_t> s_nImageSerial;

    /// Length of a recording segment in seconds (host-tunable).
    std::atomic<int32_t> m_nAutoRecordSec{1800};

private:
    void SetDefaults();
    // Layout of a picture delivered by session (one of this camera's).
    bool IsPlanar(CVideoSession* session) const;
    void WritePendingSnapshot(unsigned char* buf, int width, int height, bool planar);
    void RunMotionDetection(unsigned char* buf, int width, int height, bool planar);
    // The picture handed to the motion detector: the picture itself, or the
    // luma of a planar picture spread to three bytes per pixel.
    unsigned char* MotionPicture(unsigned char* buf, int width, int height, bool planar);
    int ApplyDetectMap();
    // Around closing and reopening the main stream: finishes any recording
    // and keeps the recording calls of other threads (the timer, motion
    // events) off the main session until EndMainChange.
    void BeginMainChange();
    void EndMainChange(const char* openedUrl);
    // A copy of the name, for log lines and file names.
    std::string Name() const;

    // Held across a whole open or close of the main stream (taken before the
    // camera lock): two host threads never open or close it at once.
    std::mutex m_MainStreamLock;
    std::atomic<bool> m_bActive{false};
    std::atomic<bool> m_bYuvDisplay{false};
    std::atomic<int32_t> m_nSmoothStream{0};
    std::atomic<int32_t> m_nWidth{0};   // size of the last picture seen
    std::atomic<int32_t> m_nHeight{0};
    CUrlVideoSession m_MainVideoSession;
    // The sub stream: the main session whenever no separate one is open.
    // Changed under the camera lock; it is only dereferenced under it, and
    // a separate session is closed after it was detached from it.
    std::atomic<CUrlVideoSession*> m_pSubVideoSession{nullptr};
    std::unique_ptr<CUrlVideoSession> m_pSeparateSubSession;
    // Layouts the main and the separate sub stream were opened with.
    std::atomic<bool> m_bMainYuv{false};
    std::atomic<bool> m_bSubYuv{false};
    CTimeManager m_TimeManager;
    CVideoDisplayer m_Displayer;

    // Leaf lock guarding the motion detector and its scratch picture.
    std::mutex m_MotionLock;
    CMotionDetector m_MotionDetector;
    int32_t m_nMotionWidth = 0;  // size the detector was started for
    int32_t m_nMotionHeight = 0;
    bool m_bMotionPlanar = false;  // layout the detection map was given for
    std::vector<unsigned char> m_MotionScratch;
    std::vector<unsigned char> m_HostDetectMap;  // as the host gave it; empty: none

    // The camera lock (recursive). It guards the recording state
    // (m_szAviPath, m_nRecordStartTime, m_nRecordReserved, m_bMainBusy),
    // the snapshot state (m_szImagePath, m_bImagePending, m_nImageRemain,
    // m_nImageType, m_nLastImageTime), the stream URLs, the separate sub
    // session, the sub stream's open failure and m_AlarmRegion;
    // m_nRecordFlags is written under it and read without it. Every call
    // into a session's media context is made under it, except closing and
    // opening, which run outside it.
    std::recursive_mutex m_hLock;
    // The main session is being closed or opened: no call reaches it.
    bool m_bMainBusy = false;

    char m_szMainUrl[256] = {};
    char m_szSubUrl[256] = {};
    // Why the last sub-stream open failed (its session is gone by then).
    int32_t m_nSubOpenFailure = CAMCTL_OPEN_OK;
    char m_szSubOpenFailure[256] = {};
    std::atomic<int32_t> m_nId{-1};
    mutable std::mutex m_NameLock;  // guards m_szName and m_szIpAddr (written by SetInfo)
    char m_szName[256] = {};
    char m_szIpAddr[256] = {};
    char m_szSaveDir[256] = {};
    std::atomic<int32_t> m_nMotionCount{0};
    std::atomic<int32_t> m_nMotionSaveType{0};
    std::atomic<int32_t> m_nMotionRecordSec{5};
    std::atomic<int32_t> m_nMotionImageCount{1};
    int32_t m_nLastImageTime = 0;
    int32_t m_bImagePending = 0;
    int32_t m_nImageRemain = 0;
    char m_szImagePath[256] = {};
    int32_t m_nImageType = 0;
    std::atomic<int32_t> m_bDispatchEnable{1};
    std::atomic<int32_t> m_bAlarmRegionUpdated{0};
    unsigned char m_AlarmRegion[300] = {};
    std::atomic<uint32_t> m_nRecordFlags{0};
    int32_t m_nRecordStartTime = 0;
    char m_szAviPath[256] = {};
    int32_t m_nRecordReserved = 0;
    // Leaf lock keeping each callback together with its user pointer.
    std::mutex m_CallbackLock;
    void* m_pVideoUser = nullptr;
    VideoBufCallBack m_pfnVideoCallBack = nullptr;
    void* m_pAudioUser = nullptr;
    AudioBufCallBack m_pfnAudioCallBack = nullptr;
};
