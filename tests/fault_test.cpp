// Faults on live and file sources. Whatever breaks a stream must end it
// cleanly (no crash, no hang, the session reports it finished and closes
// within a second), a stream that changes its own settings must go on with
// them, and a host that reopens must get pictures again. Faults come from the
// camera simulator itself (codec and size changes) or from a proxy between
// simulator and session that damages the byte stream (support/frame_proxy),
// a real RTSP server that is killed, or a disk that fills up.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camctl/FileVideoSession.h"
#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camctl/UrlVideoSession.h"
#include "camsim/server.h"
#include "support/engine_support.h"
#include "support/fixtures.h"
#include "support/frame_proxy.h"
#include "support/rtsp_server.h"

namespace {

using camctl_test::FrameProxy;
using camctl_test::PictureLog;
using camctl_test::RtspServer;
using camctl_test::TempDir;

constexpr int kCloseBudgetMs = 1000;

// A live session as a host would hold it, logging pictures and audio rates.
class LiveSession : public CUrlVideoSession {
public:
    // Closed while this class's slots still stand (the engine calls them
    // until the stream is closed).
    ~LiveSession() override { VideoFree(); }
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        log.OnPicture(buf, width, height, m_bD3DDisplay != 0);
        return 0;
    }
    int DoAudioBuffer(unsigned short*, int samples, int rate) override {
        std::lock_guard<std::mutex> lock(mu_);
        if (samples > 0 && (rates_.empty() || rates_.back().first != rate)) rates_.push_back({rate, 0});
        if (samples > 0) rates_.back().second += samples;
        return 0;
    }
    int UpdateMotionAlarmRegion(char*) override { return 0; }

    // Opens url and switches decoding on, as a camera does.
    bool Open(const std::string& url) {
        if (VideoInit(this, url.c_str()) != 0) return false;
        SetDecodeEnbale(1);
        return true;
    }
    // Closes; the time it took in ms.
    long long Close() {
        return camctl_test::TimeMs([&] { VideoFree(); });
    }
    // Audio sample rates in order of arrival with the samples received at each.
    std::vector<std::pair<int, long>> AudioRates() {
        std::lock_guard<std::mutex> lock(mu_);
        return rates_;
    }
    PictureLog log;

private:
    std::mutex mu_;
    std::vector<std::pair<int, long>> rates_;
};

class FileSession : public CFileVideoSession {
public:
    ~FileSession() override { VideoFree(); }
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        log.OnPicture(buf, width, height, m_bD3DDisplay != 0);
        return 0;
    }
    PictureLog log;
};

// 640x480 Motion JPEG at about 780 kB/s: high enough a rate that a damaged
// stream fills the reader's 2,000,000-byte receive buffer within seconds.
std::string MjpegClip() {
    return camctl_test::Fixture("fault_mjpeg_640x480_4s.avi",
                                "-f lavfi -i testsrc2=size=640x480:rate=25 -t 4 -c:v mjpeg -q:v 2 -pix_fmt yuvj420p");
}

std::unique_ptr<camsim::Server> StartSimulator(const camsim::Options& o) {
    auto server = std::make_unique<camsim::Server>(o);
    std::string error;
    if (!server->Start(&error)) {
        ADD_FAILURE() << "simulator: " << error;
        return nullptr;
    }
    return server;
}

// ---- damaged byte streams: the reader ends, the host reopens ----------

struct DamageCase {
    const char* name;
    FrameProxy::Fault fault;
};

class DamagedStreamTest : public ::testing::TestWithParam<DamageCase> {};

TEST_P(DamagedStreamTest, ReaderEnds_ReopenResumes) {
    camsim::Options so;
    so.file = MjpegClip();
    auto sim = StartSimulator(so);
    ASSERT_TRUE(sim);
    FrameProxy::Options po;
    po.upstream_port = sim->Port();
    po.fault = GetParam().fault;
    po.at_video_frame = 40;
    FrameProxy proxy(po);
    ASSERT_TRUE(proxy.Start());

    LiveSession s;
    ASSERT_TRUE(s.Open(proxy.Url()));
    EXPECT_TRUE(s.log.WaitForCount(10, 10000)) << "no pictures before the fault";
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, 20000))
        << "the reader did not give up on the damaged stream";
    EXPECT_TRUE(proxy.FaultInjected());
    const int before = s.log.Count();
    EXPECT_LE(before, 40) << "pictures from beyond the damage";
    EXPECT_LT(s.Close(), kCloseBudgetMs);

    // The host reopens the same URL and gets pictures again.
    ASSERT_TRUE(s.Open(proxy.Url()));
    EXPECT_TRUE(s.log.WaitForCount(before + 25, 10000)) << "no pictures after reopening";
    EXPECT_FALSE(s.IsPlayFinish());
    EXPECT_EQ(s.log.Last().width, 640);
    EXPECT_EQ(s.log.Last().height, 480);
    EXPECT_LT(s.Close(), kCloseBudgetMs);
}

INSTANTIATE_TEST_SUITE_P(Faults, DamagedStreamTest,
                         ::testing::Values(DamageCase{"TruncatedFrame", FrameProxy::Fault::kTruncate},
                                           DamageCase{"TwoMegabytesOfGarbage", FrameProxy::Fault::kGarbage},
                                           DamageCase{"ConnectionCutMidFrame", FrameProxy::Fault::kCut}),
                         [](const ::testing::TestParamInfo<DamageCase>& row) { return row.param.name; });

// ---- the camera changes its settings mid-stream ------------------------

// A video codec change in the frame headers ends the stream (the decoder
// was opened for the first codec); reopening picks up the stream again.
TEST(StreamChangeTest, VideoCodecChange_EndsStream_ReopenResumes) {
    camsim::Options so;
    so.pattern.width = 320;
    so.pattern.height = 240;
    so.pattern.codec_change_after = 30;
    so.pattern.codec_change_to = camsim::VideoCodec::MJPEG;
    auto sim = StartSimulator(so);
    ASSERT_TRUE(sim);

    camctl_test::StderrCapture capture;
    LiveSession s;
    ASSERT_TRUE(s.Open(sim->Url()));
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, 10000));
    EXPECT_NE(capture.Text().find("Video codec change:27 -> 7 !!"), std::string::npos);
    const int before = s.log.Count();
    EXPECT_GE(before, 10);
    EXPECT_LE(before, 30);
    EXPECT_LT(s.Close(), kCloseBudgetMs);

    ASSERT_TRUE(s.Open(sim->Url()));
    EXPECT_TRUE(s.log.WaitForCount(before + 10, 10000));
    EXPECT_LT(s.Close(), kCloseBudgetMs);
}

// 640x480 to 1280x720 mid-stream: pictures go on, at the new size, in
// both layouts.
class ResolutionChangeTest : public ::testing::TestWithParam<int> {};

TEST_P(ResolutionChangeTest, PicturesResumeAtNewSize) {
    const int yuv = GetParam();
    camsim::Options so;
    so.pattern.width = 640;
    so.pattern.height = 480;
    so.pattern.resize_after = 30;
    so.pattern.resize_width = 1280;
    so.pattern.resize_height = 720;
    auto sim = StartSimulator(so);
    ASSERT_TRUE(sim);

    LiveSession s;
    s.SetD3DDisplay(yuv);
    s.log.KeepBytes(true);
    ASSERT_TRUE(s.Open(sim->Url()));
    ASSERT_TRUE(PictureLog::WaitUntil(
        [&] {
            auto sizes = s.log.Sizes();
            return !sizes.empty() && sizes.back() == std::make_pair(1280, 720);
        },
        15000))
        << "no 1280x720 picture";
    const int atChange = s.log.Count();
    EXPECT_TRUE(s.log.WaitForCount(atChange + 25, 10000)) << "pictures stopped after the change";
    EXPECT_FALSE(s.IsPlayFinish());
    const auto sizes = s.log.Sizes();
    ASSERT_GE(sizes.size(), 2u);
    EXPECT_EQ(sizes.front(), std::make_pair(640, 480));
    EXPECT_EQ(sizes.back(), std::make_pair(1280, 720));
    const PictureLog::Picture last = s.log.Last();
    EXPECT_EQ(last.bytes.size(), size_t(1280) * 720 * (yuv ? 3 : 6) / 2);
    EXPECT_EQ(s.GetVideoWidth(), 1280);
    EXPECT_EQ(s.GetVideoHeight(), 720);
    EXPECT_LT(s.Close(), kCloseBudgetMs);
}

INSTANTIATE_TEST_SUITE_P(Layouts, ResolutionChangeTest, ::testing::Values(0, 1),
                         [](const ::testing::TestParamInfo<int>& row) { return row.param ? "I420" : "BGR24"; });

// The camera restarts with another audio codec (G.711 mu-law at 8000 Hz,
// then G.722 at 16000 Hz): the audio decoder is reopened and audio and
// pictures go on.
TEST(StreamChangeTest, AudioCodecChange_AudioGoesOnAtNewRate) {
    camsim::Options a;
    a.pattern.width = 320;
    a.pattern.height = 240;
    a.pattern.audio = camsim::AudioCodec::Mulaw;
    camsim::Options b = a;
    b.pattern.audio = camsim::AudioCodec::G722;
    auto simA = StartSimulator(a);
    auto simB = StartSimulator(b);
    ASSERT_TRUE(simA && simB);
    FrameProxy::Options po;
    po.upstream_port = simA->Port();
    po.fault = FrameProxy::Fault::kSplice;
    po.splice_port = simB->Port();
    po.at_video_frame = 50;
    FrameProxy proxy(po);
    ASSERT_TRUE(proxy.Start());

    camctl_test::StderrCapture capture;
    LiveSession s;
    ASSERT_TRUE(s.Open(proxy.Url()));
    ASSERT_TRUE(PictureLog::WaitUntil(
        [&] {
            auto r = s.AudioRates();
            return !r.empty() && r.back().first == 16000 && r.back().second >= 16000;
        },
        15000))
        << "no second of audio at 16000 Hz";
    EXPECT_TRUE(proxy.FaultInjected());
    const auto rates = s.AudioRates();
    ASSERT_GE(rates.size(), 2u);
    EXPECT_EQ(rates.front().first, 8000);
    EXPECT_GE(rates.front().second, 8000) << "less than a second of mu-law audio";
    EXPECT_NE(capture.Text().find("Audio codec change"), std::string::npos);
    const int pictures = s.log.Count();
    EXPECT_TRUE(s.log.WaitForCount(pictures + 10, 5000)) << "pictures stopped with the audio change";
    EXPECT_FALSE(s.IsPlayFinish());
    EXPECT_LT(s.Close(), kCloseBudgetMs);
}

// ---- files cut in half --------------------------------------------------

struct TruncatedFile {
    const char* name;
    const char* fixture;
    const char* args;
    bool opens;  // false: the index lies in the lost half, opening fails
};

class TruncatedFileTest : public ::testing::TestWithParam<TruncatedFile> {};

TEST_P(TruncatedFileTest, PlaysWhatIsThere_ThenFinishes) {
    const TruncatedFile& c = GetParam();
    const std::string whole = camctl_test::Fixture(c.fixture, c.args);
    TempDir dir;
    const std::string half = dir / ("half_" + std::string(c.fixture));
    const long long size = camctl_test::FileSize(whole);
    ASSERT_GT(size, 0);
    ASSERT_EQ(camctl_test::RunCommand("head -c " + std::to_string(size / 2) + " '" + whole + "' > '" + half + "'"),
              0);

    FileSession s;
    int result = 0;
    const long long openMs = camctl_test::TimeMs([&] { result = s.VideoInit(&s, half.c_str()); });
    EXPECT_LT(openMs, 5000);
    if (!c.opens) {
        EXPECT_EQ(result, -1);
        return;
    }
    ASSERT_EQ(result, 0);
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, 20000)) << "never finished";
    // Let the decoder drain what the reader queued before it stopped.
    int last = -1;
    while (last != s.log.Count()) {
        last = s.log.Count();
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
    }
    // 100 pictures in the whole file: about half survive.
    EXPECT_GE(s.log.Count(), 30);
    EXPECT_LE(s.log.Count(), 70);
    EXPECT_EQ(s.log.Last().width, 320);
    EXPECT_LT(camctl_test::TimeMs([&] { s.VideoFree(); }), kCloseBudgetMs);
}

INSTANTIATE_TEST_SUITE_P(
    Files, TruncatedFileTest,
    ::testing::Values(
        TruncatedFile{"Avi", "fault_h264_320x240_4s.avi",
                      "-f lavfi -i testsrc2=size=320x240:rate=25 -t 4 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p",
                      true},
        TruncatedFile{"Mp4IndexAtEnd", "fault_h264_320x240_4s.mp4",
                      "-f lavfi -i testsrc2=size=320x240:rate=25 -t 4 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p",
                      false},
        TruncatedFile{"Mp4IndexFirst", "fault_h264_320x240_4s_faststart.mp4",
                      "-f lavfi -i testsrc2=size=320x240:rate=25 -t 4 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p "
                      "-movflags +faststart",
                      true},
        TruncatedFile{"MpegTs", "fault_h264_320x240_4s.ts",
                      "-f lavfi -i testsrc2=size=320x240:rate=25 -t 4 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p",
                      true}),
    [](const ::testing::TestParamInfo<TruncatedFile>& row) { return row.param.name; });

// ---- cameras ------------------------------------------------------------

int CountPicture(void*, void* user, unsigned char*, int, int) {
    static_cast<std::atomic<int>*>(user)->fetch_add(1, std::memory_order_relaxed);
    return 0;
}

// A camera of the manager, deleted with the fixture.
class CameraFault : public ::testing::Test {
protected:
    void SetUp() override {
        mgr_ = CIpCameraManager::GetInstance();
        ASSERT_NE(mgr_, nullptr);
        cam_ = mgr_->AddIpCamera(kId, "fault", "127.0.0.1");
        ASSERT_NE(cam_, nullptr);
        cam_->SetVideoBufCallBack(&CountPicture, &pictures_);
    }
    void TearDown() override {
        if (mgr_) mgr_->DelIpCamera(kId);
    }
    bool OpenMain(const std::string& url) {
        if (cam_->OpenMainStreamVideo(url.c_str()) != 0) return false;
        return cam_->SetDecodeEnable(true, true) == 0;
    }
    bool WaitPictures(int n, int timeout_ms) {
        return PictureLog::WaitUntil([&] { return pictures_.load() >= n; }, timeout_ms);
    }

    static constexpr int kId = 72;
    CIpCameraManager* mgr_ = nullptr;
    CIpCamera* cam_ = nullptr;
    std::atomic<int> pictures_{0};
};

// The RTSP server dies mid-stream: the camera reports its main stream
// finished; the server comes back at the same address, the host reopens
// and pictures resume.
TEST_F(CameraFault, RtspServerKilledAndRestarted_HostReopensAndPicturesResume) {
    if (!RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings (python3-gi)";
    const std::vector<RtspServer::Mount> mounts = {{"/cam", RtspServer::H264(320, 240, 25, 25)}};
    auto server = std::make_unique<RtspServer>(mounts);
    ASSERT_TRUE(server->ok()) << server->Log();
    const int port = server->port();
    const std::string url = server->Url("/cam");

    ASSERT_TRUE(OpenMain(url));
    ASSERT_TRUE(WaitPictures(10, 10000)) << "no pictures from the RTSP server";
    EXPECT_FALSE(cam_->IsMainVideoFinish());
    server->Kill();
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return cam_->IsMainVideoFinish(); }, 8000))
        << "the camera did not notice the server was gone";
    const int atKill = pictures_.load();

    server = std::make_unique<RtspServer>(mounts, port);
    ASSERT_TRUE(server->ok()) << "restart on port " << port << ": " << server->Log();
    long long reopenMs = 0;
    bool reopened = false;
    reopenMs = camctl_test::TimeMs([&] { reopened = OpenMain(url); });
    ASSERT_TRUE(reopened);
    EXPECT_LT(reopenMs, 5000) << "closing the dead stream and opening the new one";
    EXPECT_TRUE(WaitPictures(atKill + 25, 10000)) << "pictures did not resume";
    EXPECT_FALSE(cam_->IsMainVideoFinish());
    EXPECT_LT(camctl_test::TimeMs([&] { cam_->CloseMainStreamVideo(); }), kCloseBudgetMs);
}

// Records a camera's Motion JPEG stream (about 780 kB/s) in 1 s segments
// below dir until there is no room left, then checks that nothing was lost
// that reached the disk: every file is a readable AVI starting on a key
// frame, the camera kept delivering pictures, the recorder said why it
// stopped. Used on a small tmpfs, or in a child under a file size limit.
void RecordUntilFull(const std::string& dir, long long capacity) {
    camsim::Options so;
    so.file = MjpegClip();
    auto sim = StartSimulator(so);
    ASSERT_TRUE(sim);
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    ASSERT_NE(mgr, nullptr);
    CIpCamera* cam = mgr->AddIpCamera(73, "full", "127.0.0.1");
    ASSERT_NE(cam, nullptr);
    std::atomic<int> pictures{0};
    cam->SetVideoBufCallBack(&CountPicture, &pictures);
    ASSERT_EQ(cam->SetSaveDir(dir.c_str(), nullptr), 0);
    cam->m_nAutoRecordSec = 1;

    camctl_test::StderrCapture capture;
    ASSERT_EQ(cam->OpenMainStreamVideo(sim->Url().c_str()), 0);
    ASSERT_EQ(cam->SetDecodeEnable(true, true), 0);
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return pictures.load() >= 5; }, 10000));
    ASSERT_EQ(cam->StartSaveAvi(1), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(5000));
    // Long past full: pictures still reach the host.
    const int before = pictures.load();
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return pictures.load() >= before + 25; }, 5000))
        << "pictures stopped when the disk filled";
    cam->StopSaveAvi(7);
    EXPECT_EQ(mgr->DelIpCamera(73), 0);
    capture.Stop();
    EXPECT_NE(capture.Text().find("no room left"), std::string::npos) << "no log line about the full disk";

    std::vector<std::string> avis;
    long long total = 0;
    for (const std::string& f : camctl_test::ListFiles(dir)) {
        total += camctl_test::FileSize(f);
        if (f.size() > 4 && f.compare(f.size() - 4, 4, ".avi") == 0) avis.push_back(f);
    }
    EXPECT_LE(total, capacity);
    ASSERT_GE(avis.size(), 1u) << "nothing recorded";
    // Segments begun when the disk was nearly full hold a picture or two;
    // each file must still be complete: its header's frame count matches
    // what can be decoded, and it starts on a key frame.
    int longest = 0;
    for (const std::string& f : avis) {
        if (camctl_test::FileSize(f) == 0) continue;  // begun with no room at all
        const std::string counts = camctl_test::Ffprobe(
            "-select_streams v -count_frames -show_entries stream=nb_frames,nb_read_frames -of csv=p=0", f);
        const int header = std::atoi(counts.c_str());
        const int decoded = std::atoi(counts.substr(counts.find(',') + 1).c_str());
        EXPECT_EQ(header, decoded) << f << " has an incomplete index (" << counts << ")";
        // A segment begun with room for its header but not its first
        // picture is empty yet valid; anything longer must start on a key.
        if (header == 0 && decoded == 0 && !counts.empty()) continue;
        EXPECT_GE(decoded, 1) << f << " unreadable (" << counts << ")";
        EXPECT_EQ(camctl_test::Ffprobe("-select_streams v -show_entries packet=flags -read_intervals %+#1 -of csv=p=0",
                                       f)
                      .substr(0, 1),
                  "K")
            << f << " does not start on a key frame";
        longest = std::max(longest, decoded);
    }
    EXPECT_GE(longest, 10) << "no segment was recorded before the disk filled";
}

constexpr long long kTmpfsBytes = 2 * 1024 * 1024;
constexpr long long kFileLimitBytes = 600 * 1024;
constexpr const char* kChildDirEnv = "CAMCTL_FAULT_DISK_DIR";

// The child side of DiskFull.CameraRecordingsStayPlayable where no tmpfs can be
// mounted: runs under RLIMIT_FSIZE, started by the test below.
TEST(DiskFullChild, DISABLED_RecordUnderFileSizeLimit) {
    const char* dir = getenv(kChildDirEnv);
    ASSERT_NE(dir, nullptr);
    RecordUntilFull(dir, kFileLimitBytes * 64);
}

TEST(DiskFull, CameraRecordingsStayPlayable) {
    TempDir dir;
    const std::string mnt = dir / "disk";
    ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
    const std::string opts = "size=" + std::to_string(kTmpfsBytes);
    if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, opts.c_str()) == 0) {
        RecordUntilFull(mnt, kTmpfsBytes);
        umount2(mnt.c_str(), MNT_DETACH);
        return;
    }
    // No permission to mount: the same in a child process whose files may
    // not grow past kFileLimitBytes (the recorder sees the limit as a full
    // disk and must not be killed by SIGXFSZ).
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        rlimit lim{rlim_t(kFileLimitBytes), rlim_t(kFileLimitBytes)};
        setrlimit(RLIMIT_FSIZE, &lim);
        setenv(kChildDirEnv, mnt.c_str(), 1);
        execl("/proc/self/exe", "fault_test", "--gtest_also_run_disabled_tests",
              "--gtest_filter=DiskFullChild.DISABLED_RecordUnderFileSizeLimit", static_cast<char*>(nullptr));
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    ASSERT_TRUE(WIFEXITED(status)) << "child killed by signal " << (WIFSIGNALED(status) ? WTERMSIG(status) : 0);
    EXPECT_EQ(WEXITSTATUS(status), 0) << "the child's checks failed (its output is above)";
}

}  // namespace
