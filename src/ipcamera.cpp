// One camera: its streams, frame dispatch, recording and snapshot storage.
#include "camctl/IpCamera.h"

#include <strings.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <string>

#include "runtime/os.h"
#include "runtime/trc_log.h"
#include "snapshot_writer.h"

TRC_DEFINE_UNIT();

std::atomic<int32_t> CIpCamera::s_nImageSerial{0};

namespace {

constexpr int kTextSize = 256;        // texts hold at most 255 characters
constexpr int kAlarmRegionSize = 300;
constexpr int32_t kForcedMotionRecordSec = 5;
constexpr int64_t kSuspectDurationSec = 10000;

// A bounded formatted print: texts are cut at size - 1 characters.
__attribute__((format(printf, 3, 4))) void BoundedPrint(char* out, size_t size, const char* fmt,
                                                         ...) {
    va_list args;
    va_start(args, fmt);
    vsnprintf(out, size, fmt, args);
    va_end(args);
}

int32_t NowSec() { return static_cast<int32_t>(time(nullptr)); }

struct tm LocalNow() {
    const time_t t = time(nullptr);
    struct tm local {};
    localtime_r(&t, &local);
    return local;
}

// A camera name as it may appear in a path component: '/', control
// characters and runs of two or more dots become '_'.
std::string SafeComponent(const char* name) {
    std::string out(name ? name : "");
    for (char& c : out) {
        const unsigned char u = static_cast<unsigned char>(c);
        if (c == '/' || u < 0x20 || u == 0x7f) c = '_';
    }
    for (size_t i = 0; i < out.size();) {
        if (out[i] != '.') {
            ++i;
            continue;
        }
        size_t j = i;
        while (j < out.size() && out[j] == '.') ++j;
        if (j - i >= 2) std::fill(out.begin() + i, out.begin() + j, '_');
        i = j;
    }
    return out;
}

// One folder level; failures (the folder exists, a parent is missing) are
// the caller's to ignore.
bool MakeDir(const char* path) { return mkdir(path, 0755) == 0; }

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
    StopSaveAvi(7);
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
            m_szName, sIpAddr ? sIpAddr : "");
    m_nId.store(id, std::memory_order_relaxed);
    BoundedPrint(m_szName, sizeof m_szName, "%s", name ? name : "");
    {
        std::lock_guard<std::mutex> lock(m_MotionLock);
        m_MotionDetector.SetOwnerName(m_szName);
    }
    BoundedPrint(m_szIpAddr, sizeof m_szIpAddr, "%s", sIpAddr ? sIpAddr : "");
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  SetInfo end ... ", GetId(), m_szName);
    return 0;
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

// ---------------------------------------------------------------------------
// Streams

void CIpCamera::BeginMainChange() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    StopSaveAvi(7);
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
    const bool yuv = m_bYuvDisplay.load();
    char masked[kTextSize];
    MaskUrlCredentials(url, masked, sizeof masked);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  OpenMainStreamVideo url:%s  start yuv:%d... ",
            GetId(), m_szName, masked, yuv ? 1 : 0);
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
                GetId(), m_szName, ContextAddr(&m_MainVideoSession));
        return 0;
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  OpenMainStreamVideo fail ... ", GetId(),
            m_szName);
    return -1;
}

int CIpCamera::OpenSubStreamVideo(const char* url) {
    const bool yuv = m_bYuvDisplay.load();
    char masked[kTextSize];
    MaskUrlCredentials(url, masked, sizeof masked);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) OpenSubStreamVideo url:%s start ... ", GetId(),
            m_szName, masked);
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
                GetId(), m_szName);
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
                GetId(), m_szName, ctx);
        return 0;
    }
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        m_nSubOpenFailure = session->GetOpenFailure(m_szSubOpenFailure, sizeof m_szSubOpenFailure);
    }
    session.reset();
    m_pSubVideoSession.store(&m_MainVideoSession);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) OpenSubStreamVideo error init to m_MainVideoSession",
            GetId(), m_szName);
    return 0;
}

int CIpCamera::GetOpenFailure(bool bMain, char* text, int size) {
    if (bMain) return m_MainVideoSession.GetOpenFailure(text, size);
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    if (text && size > 0) os_strlcpy(text, m_szSubOpenFailure, size);
    return m_nSubOpenFailure;
}

int CIpCamera::CloseMainStreamVideo() {
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  CloseMainStreamVideo start ... ", GetId(),
            m_szName);
    // A recording in progress is finished and renamed while its length is
    // still known.
    BeginMainChange();
    m_MainVideoSession.VideoFree();
    EndMainChange(nullptr);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  CloseMainStreamVideo end 222222222222222222 ... ",
            GetId(), m_szName);
    {
        std::lock_guard<std::mutex> lock(m_MotionLock);
        m_MotionDetector.Free();
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  CloseMainStreamVideo end ... ", GetId(),
            m_szName);
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
            m_szName);
    std::unique_ptr<CUrlVideoSession> sub;
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        sub = std::move(m_pSeparateSubSession);
        m_pSubVideoSession.store(&m_MainVideoSession);
    }
    if (!sub) {
        trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) CloseSubStreamVideo break ... ", GetId(),
                m_szName);
        return 0;
    }
    sub->VideoFree();
    sub.reset();
    {
        std::lock_guard<std::mutex> lock(m_MotionLock);
        m_MotionDetector.Free();
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) CloseSubStreamVideo end ... ", GetId(),
            m_szName);
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
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) StartDisplay start ... ", GetId(), m_szName);
    int width = -1, height = -1;
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        if (!m_bMainBusy) {
            width = m_MainVideoSession.GetVideoWidth();
            height = m_MainVideoSession.GetVideoHeight();
        }
    }
    m_Displayer.Start(dc, w, h, width, height, m_bMainYuv.load() ? 1 : 0);
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) StartDisplay end ... ", GetId(), m_szName);
    return 0;
}

int CIpCamera::StopDisplay() {
    m_Displayer.Stop();
    return 0;
}

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
    m_MotionScratch.resize(pixels * 3);
    unsigned char* dst = m_MotionScratch.data();
    for (size_t i = 0; i < pixels; ++i) {
        dst[0] = dst[1] = dst[2] = buf[i];
        dst += 3;
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
        // The detector was started for the main stream's size; a picture of
        // another size (a sub stream) is not compared with its reference.
        if (width == m_nMotionWidth && height == m_nMotionHeight && width > 0 && height > 0) {
            if (unsigned char* picture = MotionPicture(buf, width, height, planar))
                r = m_MotionDetector.MotionDetectRun(picture, width, height);
        }
    }
    const int type = m_nMotionSaveType.load();
    const bool saveImage = type == 1 || type == 2;
    if (r == 1) {
        if (saveImage) SaveImage(2, m_nMotionImageCount.load());
        if (!(m_nRecordFlags.load() & 1u)) {
            if (type != 0 && type != 2) m_nMotionRecordSec.store(kForcedMotionRecordSec);
            StartSaveAvi(2);
        }
        m_nMotionCount.fetch_add(1);
    } else if (r == 2) {
        m_nMotionCount.fetch_add(1);
        if (saveImage) SaveImage(2, m_nMotionImageCount.load());
    }
}

void CIpCamera::WritePendingSnapshot(unsigned char* buf, int width, int height, bool planar) {
    char path[kTextSize];
    {
        std::lock_guard<std::recursive_mutex> lock(m_hLock);
        if (!m_bImagePending) return;
        memcpy(path, m_szImagePath, sizeof path);
        m_bImagePending = 0;
        m_szImagePath[0] = '\0';
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s)  SaveBmp  Path:%s start ... ", GetId(), m_szName,
            path);
    if (path[0] != '\0' && width > 0 && height > 0) {
        if (planar) {
            SaveYuvJpegFile(path, buf, width, height);
        } else {
            // The JPEG writer turns the pixels it is given from blue-green-red
            // into red-green-blue in place: it gets a copy, so the host sees
            // the picture as it came.
            const size_t bytes = static_cast<size_t>(width) * height * 3;
            std::vector<unsigned char> copy(buf, buf + bytes);
            SaveJpegFile(path, copy.data(), width, height, 3);
        }
    }
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    m_nLastImageTime = NowSec();
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
                GetId(), m_szName, oldW, width, oldH, height);
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
                    m_szName);
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
// Storage paths

int CIpCamera::SetSaveDir(const char* root, const char* sub) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const std::string name = SafeComponent(m_szName);
    if (!root) root = ".";
    if (sub) {
        BoundedPrint(m_szSaveDir, sizeof m_szSaveDir, "%s/%s/%s+%d/%s/", root, "VMS", name.c_str(),
                 GetId(), sub);
    } else {
        BoundedPrint(m_szSaveDir, sizeof m_szSaveDir, "%s/%s/%s+%d/", root, "VMS", name.c_str(),
                 GetId());
    }
    if (!MakeDirectories(m_szSaveDir)) {
        trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) SetSaveDir:%s break ... ", GetId(), m_szName,
                m_szSaveDir);
        return -1;
    }
    const size_t len = strlen(m_szSaveDir);
    if (len > 1 && m_szSaveDir[len - 1] == '/') m_szSaveDir[len - 1] = '\0';
    return 0;
}

int CIpCamera::GetAviPath(char* out, int reason) {
    if (!out) return -1;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const struct tm t = LocalNow();
    const std::string name = SafeComponent(m_szName);
    char record[kTextSize];
    char day[kTextSize];
    MakeDir(m_szSaveDir);
    BoundedPrint(record, sizeof record, "%s/MS_Record", m_szSaveDir);
    MakeDir(record);
    BoundedPrint(day, sizeof day, "%s/%04d-%02d-%02d", record, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
    MakeDir(day);
    BoundedPrint(out, kTextSize, "%s/%s+%d_%04d%02d%02d-%02d%02d%02d_%d.avi", day, name.c_str(), GetId(),
             t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, reason);
    return 0;
}

int CIpCamera::GetImagePath(char* out, int type) {
    if (!out) return -1;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const struct tm t = LocalNow();
    const std::string name = SafeComponent(m_szName);
    char folder[kTextSize];
    char day[kTextSize];
    MakeDir(m_szSaveDir);
    if (type == 1) {
        BoundedPrint(folder, sizeof folder, "%s/IMAGE-MANUAL", m_szSaveDir);
        if (!MakeDir(folder)) trc_log(__FILE__, __LINE__, "", "Create path:%s Failed......", folder);
    } else {
        BoundedPrint(folder, sizeof folder, "%s/IMAGE", m_szSaveDir);
        MakeDir(folder);
    }
    BoundedPrint(day, sizeof day, "%s/%04d-%02d-%02d", folder, t.tm_year + 1900, t.tm_mon + 1, t.tm_mday);
    MakeDir(day);
    const int32_t serial = s_nImageSerial.fetch_add(1);
    BoundedPrint(out, kTextSize, "%s/%s_%04d%02d%02d-%02d%02d%02d_%d_%d.jpg", day, name.c_str(),
             t.tm_year + 1900, t.tm_mon + 1, t.tm_mday, t.tm_hour, t.tm_min, t.tm_sec, type, serial);
    return 0;
}

void CIpCamera::GetRecordingPath(char* out, int size) {
    if (!out || size <= 0) return;
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    BoundedPrint(out, static_cast<size_t>(size), "%s", m_szAviPath);
}

// ---------------------------------------------------------------------------
// Recording

int CIpCamera::StartSaveAvi(int reason) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    StopSaveAvi(reason);
    char path[kTextSize];
    GetAviPath(path, reason);
    if (!m_bMainBusy && m_MainVideoSession.StartSaveAvi(path) == 0) {
        m_nRecordFlags.store((m_nRecordFlags.load() & ~2u) | static_cast<uint32_t>(reason));
        m_nRecordStartTime = NowSec();
        m_nRecordReserved = 0;
        BoundedPrint(m_szAviPath, sizeof m_szAviPath, "%s", path);
        return 0;
    }
    trc_log(__FILE__, __LINE__, "", "Camera(id:%d  name:%s) StartSaveAvi error ... ", GetId(), m_szName);
    return -1;
}

int CIpCamera::StopSaveAvi(int reason) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    if (!m_bMainBusy) m_MainVideoSession.StopSaveAvi();
    if (strlen(m_szAviPath) > 8 && m_nRecordStartTime > 0) {
        m_nRecordStartTime = 0;
        const int64_t d = m_bMainBusy ? 0 : m_MainVideoSession.GetSaveAviDurationSec();
        if (d > kSuspectDurationSec) trc_log(__FILE__, __LINE__, "", "Duration(%d) is wrong..", static_cast<int>(d));
        char finalPath[kTextSize + 16];
        const int stem = static_cast<int>(strlen(m_szAviPath)) - 4;
        BoundedPrint(finalPath, sizeof finalPath, "%.*s_%d.avi", stem, m_szAviPath, static_cast<int>(d));
        rename(m_szAviPath, finalPath);
        m_szAviPath[0] = '\0';
    }
    m_nRecordStartTime = 0;
    m_nRecordReserved = 0;
    m_nRecordFlags.store(m_nRecordFlags.load() & ~(static_cast<uint32_t>(reason) | 2u));
    return 0;
}

int CIpCamera::OnSaveTimer() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    const int32_t now = NowSec();
    const uint32_t flags = m_nRecordFlags.load();
    const int32_t autoSec = m_nAutoRecordSec.load();
    if (flags & 1u) {
        if (now - m_nRecordStartTime > autoSec) StartSaveAvi(1);
    } else if (flags & 2u) {
        if (now - m_nRecordStartTime > m_nMotionRecordSec.load()) StopSaveAvi(2);
    } else if (flags & 4u) {
        if (m_nRecordStartTime == 0 || now - m_nRecordStartTime > autoSec) StartSaveAvi(4);
    }
    if (m_nImageRemain >= 1 && m_nLastImageTime >= 1 && now - m_nLastImageTime >= 1)
        SaveImage(m_nImageType, 1);
    return 0;
}

int CIpCamera::NotifyAutoSave(int on) {
    if (on)
        StartSaveAvi(4);
    else
        StopSaveAvi(4);
    return 0;
}

int64_t CIpCamera::GetAviDuration() {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    return m_bMainBusy ? 0 : m_MainVideoSession.GetSaveAviDurationSec();
}

// ---------------------------------------------------------------------------
// Snapshots

int CIpCamera::SaveImage(int type, int count) {
    std::lock_guard<std::recursive_mutex> lock(m_hLock);
    GetImagePath(m_szImagePath, type);
    m_bImagePending = 1;
    if (count > m_nImageRemain) m_nImageType = type;
    m_nLastImageTime = NowSec();
    m_nImageRemain = std::max(m_nImageRemain, count) - 1;
    return 0;
}

// ---------------------------------------------------------------------------
// Schedules

int CIpCamera::AddAutoSaveTime(_record_time_t* r) { return m_TimeManager.AddAutoSaveTime(r); }
int CIpCamera::AddMotionSaveTime(_record_time_t* r) { return m_TimeManager.AddMotionSaveTime(r); }
int CIpCamera::ResetAutoSaveTime() { return m_TimeManager.ResetAutoSaveTime(); }
int CIpCamera::ResetMotionSaveTime() { return m_TimeManager.ResetMotionSaveTime(); }
