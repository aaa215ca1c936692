// Catches: a reader that hangs, crashes or delivers past a damaged, cut, frozen or vanished stream, a slow close, a host that cannot reopen, lost log lines, settings changes that stop pictures, half files that never finish, recordings broken by a full disk, descriptors and threads leaked by open/close cycles.
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camsim/server.h"
#include "support/engine_support.h"
#include "support/fixtures.h"
#include "support/frame_proxy.h"
#include "support/logging_session.h"
#include "support/rtsp_server.h"

namespace {

using camctl_test::FrameProxy;
using camctl_test::PictureLog;
using camctl_test::RtspServer;
using camctl_test::TempDir;
using camctl_test::TimeMs;

// A close gives up on the stream within a second; sanitizers slow every step of it several times over.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kCloseBudgetMs = 3000;
#else
constexpr int kCloseBudgetMs = 1000;
#endif
constexpr int kDeadlineMs = 30000;  // bounds a failure only
constexpr int kFaultAt = 100;       // the video frame a stream's own fault hits: 4 s in, for slow decoders

// A live session that also keeps the audio rates in order of arrival.
class LiveSession final : public camctl_test::LoggingUrlSession {
public:
    ~LiveSession() override { VideoFree(); }  // while the rates still stand
    int DoAudioBuffer(unsigned short* buf, int samples, int rate) override {
        std::lock_guard<std::mutex> lock(mu_);
        if (samples > 0 && (rates_.empty() || rates_.back().first != rate)) rates_.push_back({rate, 0});
        if (samples > 0) rates_.back().second += samples;
        return camctl_test::LoggingUrlSession::DoAudioBuffer(buf, samples, rate);
    }
    std::vector<std::pair<int, long>> AudioRates() {
        std::lock_guard<std::mutex> lock(mu_);
        return rates_;
    }

private:
    std::mutex mu_;
    std::vector<std::pair<int, long>> rates_;
};

bool Until(const std::function<bool()>& pred) { return PictureLog::WaitUntil(pred, kDeadlineMs); }

// 640x480 Motion JPEG at about 780 kB/s: a damaged stream fills the reader's 2,000,000-byte receive buffer within seconds.
std::string MjpegClip() {
    return camctl_test::Fixture("fault_mjpeg_640x480_4s.avi", "-f lavfi -i testsrc2=size=640x480:rate=25 -t 4 -c:v mjpeg -q:v 2 -pix_fmt yuvj420p");
}

std::shared_ptr<camsim::Server> Simulator(const camsim::Options& o) {
    auto server = std::make_shared<camsim::Server>(o);
    std::string error;
    EXPECT_TRUE(server->Start(&error)) << error;
    return server;
}

// A source as a fault row builds it: where to connect, how to break it (none: the stream carries its own fault), how to mend it.
struct Broken {
    explicit Broken(std::string u, std::function<void()> f = nullptr, std::function<void()> m = nullptr)
        : url(std::move(u)), fault(std::move(f)), mend(std::move(m)) {}
    std::string url;
    std::function<void()> fault, mend;
    std::function<bool()> injected = [] { return true; };
    std::vector<std::shared_ptr<void>> keep;
};

Broken ThroughProxy(FrameProxy::Fault fault) {
    camsim::Options so;
    so.file = MjpegClip();
    auto sim = Simulator(so);
    FrameProxy::Options po;
    po.upstream_port = sim->Port(), po.fault = fault, po.at_video_frame = kFaultAt;
    auto proxy = std::make_shared<FrameProxy>(po);
    EXPECT_TRUE(proxy->Start());
    Broken b(proxy->Url());
    b.injected = [proxy] { return proxy->FaultInjected(); };
    b.keep = {sim, proxy};
    return b;
}

// Frozen and thawed, or killed and back at the same address (a camera that restarts).
Broken Rtsp(bool freeze) {
    const std::vector<RtspServer::Mount> mounts{{"/cam", RtspServer::H264(640, 480, 25, 25)}};
    auto server = std::make_shared<RtspServer>(mounts);
    EXPECT_TRUE(server->ok()) << server->Log();
    auto again = std::make_shared<std::unique_ptr<RtspServer>>();
    Broken b(server->Url("/cam"), [server, freeze] { freeze ? server->Freeze() : server->Kill(); }, [=] {
        if (freeze) return server->Thaw();
        *again = std::make_unique<RtspServer>(mounts, server->port());
        EXPECT_TRUE((*again)->ok()) << (*again)->Log();
    });
    b.keep = {again, server};
    return b;
}

// The simulator at 640x480 that changes its codec at kFaultAt, or else stops and starts again at the same port.
Broken Simulated(bool codecChange) {
    camsim::Options so;
    so.pattern.width = 640, so.pattern.height = 480;
    so.pattern.codec_change_after = codecChange ? kFaultAt : 0, so.pattern.codec_change_to = camsim::VideoCodec::MJPEG;
    if (!codecChange) so.port = camctl_test::FreeLoopbackPort();
    auto sim = Simulator(so);
    Broken b(sim->Url());
    if (!codecChange) b.fault = [sim] { sim->Stop(); }, b.mend = [sim] { EXPECT_TRUE(sim->Start()); };
    b.keep = {sim};
    return b;
}

struct FaultRow {
    const char* name;
    Broken (*make)();
    bool rtsp;
    int maxBefore;        // pictures the stream can have given before it ended
    const char* logText;  // said on stderr; "" none
    bool closeAtOnce;     // close right after the fault, before the reader notices
};

class StreamFaultTest : public ::testing::TestWithParam<FaultRow> {};

TEST_P(StreamFaultTest, ReaderEnds_CloseIsQuick_ReopenResumes) {
    const FaultRow& row = GetParam();
    if (row.rtsp && !RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings (python3-gi)";
    Broken src = row.make();
    camctl_test::StderrCapture capture;
    LiveSession s;
    s.log.KeepBytes(true);
    ASSERT_EQ(s.Open(src.url, 1), 0);
    ASSERT_TRUE(s.log.WaitForCount(10, kDeadlineMs)) << "no pictures before the fault";
    EXPECT_FALSE(s.IsPlayFinish());
    if (src.fault) src.fault();
    if (!row.closeAtOnce) {
        ASSERT_TRUE(Until([&] { return s.IsPlayFinish(); })) << "the reader did not give up";
        EXPECT_TRUE(src.injected());
        EXPECT_LE(s.log.Count(), row.maxBefore) << "pictures from beyond the fault";
    }
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), kCloseBudgetMs);
    EXPECT_NE(capture.Text().find(row.logText), std::string::npos) << row.logText;  // "" is found anywhere
    if (src.mend) src.mend();

    const int before = s.log.Count();
    ASSERT_EQ(s.Open(src.url, 1), 0);
    EXPECT_TRUE(s.log.WaitForCount(before + 25, kDeadlineMs)) << "no pictures after reopening";
    EXPECT_FALSE(s.IsPlayFinish());
    EXPECT_EQ(s.log.Last().width, 640);
    EXPECT_EQ(s.log.Last().bytes.size(), 640u * 480 * 3 / 2);
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), kCloseBudgetMs);
}

INSTANTIATE_TEST_SUITE_P(
    Faults, StreamFaultTest,
    ::testing::Values(
        FaultRow{"TruncatedFrame", [] { return ThroughProxy(FrameProxy::Fault::kTruncate); }, false, kFaultAt, "", false},
        FaultRow{"TwoMegabytesOfGarbage", [] { return ThroughProxy(FrameProxy::Fault::kGarbage); }, false, kFaultAt, "", false},
        FaultRow{"ConnectionCutMidFrame", [] { return ThroughProxy(FrameProxy::Fault::kCut); }, false, kFaultAt, "", false},
        // The decoder was opened for the first codec: a change ends the stream.
        FaultRow{"VideoCodecChange", [] { return Simulated(true); }, false, kFaultAt, "Video codec change:27 -> 7 !!", false},
        FaultRow{"CameraGoesAway", [] { return Simulated(false); }, false, 1 << 30, "http_read_one_frame error time-period:", false},
        FaultRow{"RtspServerKilled", [] { return Rtsp(false); }, true, 1 << 30, "", false},
        FaultRow{"RtspServerFrozen_ReadTimeout", [] { return Rtsp(true); }, true, 1 << 30, "", false},
        FaultRow{"RtspServerFrozen_ClosedAtOnce", [] { return Rtsp(true); }, true, 1 << 30, "", true}),
    [](const ::testing::TestParamInfo<FaultRow>& row) { return row.param.name; });

TEST(StreamChange, ResolutionChange_PicturesFollowInBothLayouts) {
    camsim::Options so;
    so.pattern.width = 640, so.pattern.height = 480;
    so.pattern.resize_after = 30, so.pattern.resize_width = 1280, so.pattern.resize_height = 720;
    auto sim = Simulator(so);
    for (int yuv : {0, 1}) {
        SCOPED_TRACE(yuv);
        LiveSession s;
        s.log.KeepBytes(true);
        ASSERT_EQ(s.Open(sim->Url(), yuv), 0);
        ASSERT_TRUE(Until([&] { return s.log.Sizes().size() > 1 && s.log.Sizes().back() == std::make_pair(1280, 720); })) << "no 1280x720 picture";
        EXPECT_TRUE(s.log.WaitForCount(s.log.Count() + 25, kDeadlineMs)) << "pictures stopped after the change";
        EXPECT_FALSE(s.IsPlayFinish());
        EXPECT_EQ(s.log.Sizes(), (std::vector<std::pair<int, int>>{{640, 480}, {1280, 720}}));
        EXPECT_EQ(s.log.Last().bytes.size(), size_t(1280) * 720 * (yuv ? 3 : 6) / 2);
        EXPECT_EQ(std::make_pair(s.GetVideoWidth(), s.GetVideoHeight()), std::make_pair(1280, 720));
        EXPECT_LT(TimeMs([&] { s.VideoFree(); }), kCloseBudgetMs);
    }
}

// The camera restarts with G.722 at 16000 Hz instead of mu-law at 8000 Hz: audio and pictures go on.
TEST(StreamChange, AudioCodecChange_AudioGoesOnAtNewRate) {
    camsim::Options a;
    a.pattern.width = 320, a.pattern.height = 240, a.pattern.audio = camsim::AudioCodec::Mulaw;
    camsim::Options b = a;
    b.pattern.audio = camsim::AudioCodec::G722;
    auto simA = Simulator(a), simB = Simulator(b);
    FrameProxy::Options po;
    po.upstream_port = simA->Port(), po.fault = FrameProxy::Fault::kSplice, po.splice_port = simB->Port();
    FrameProxy proxy(po);
    ASSERT_TRUE(proxy.Start());

    camctl_test::StderrCapture capture;
    LiveSession s;
    ASSERT_EQ(s.Open(proxy.Url(), 0), 0);
    ASSERT_TRUE(Until([&] { auto r = s.AudioRates(); return !r.empty() && r.back().first == 16000 && r.back().second >= 16000; }))
        << "no second of audio at 16000 Hz";
    EXPECT_TRUE(proxy.FaultInjected());
    const auto rates = s.AudioRates();
    ASSERT_GE(rates.size(), 2u);
    EXPECT_EQ(rates.front().first, 8000);
    EXPECT_GE(rates.front().second, 8000) << "less than a second of mu-law audio";
    EXPECT_NE(capture.Text().find("Audio codec change"), std::string::npos);
    EXPECT_TRUE(s.log.WaitForCount(s.log.Count() + 10, kDeadlineMs)) << "pictures stopped with the audio change";
    EXPECT_FALSE(s.IsPlayFinish());
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), kCloseBudgetMs);
}

// Files cut in half: what is there plays, then the reader finishes.
struct TruncatedFile {
    const char* name;
    const char* extra;  // ffmpeg options after the common ones
    bool opens;         // false: the index lies in the lost half
};

class TruncatedFileTest : public ::testing::TestWithParam<TruncatedFile> {};

TEST_P(TruncatedFileTest, PlaysWhatIsThere_ThenFinishes) {
    const TruncatedFile& c = GetParam();
    const std::string whole = camctl_test::Fixture(
        std::string("fault_h264_320x240_4s") + (*c.extra ? "_faststart." : ".") + c.name,
        std::string("-f lavfi -i testsrc2=size=320x240:rate=25 -t 4 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p ") + c.extra);
    TempDir dir;
    const std::string half = dir / (std::string("half.") + c.name);
    ASSERT_EQ(camctl_test::RunCommand("head -c " + std::to_string(camctl_test::FileSize(whole) / 2) + " '" + whole + "' > '" + half + "'"), 0);
    camctl_test::LoggingFileSession s;
    int result = 0;
    EXPECT_LT(TimeMs([&] { result = s.VideoInit(&s, half.c_str()); }), 5000);
    ASSERT_EQ(result, c.opens ? 0 : -1);
    if (!c.opens) return;
    ASSERT_TRUE(Until([&] { return s.IsPlayFinish(); })) << "never finished";
    // 100 pictures in the whole file: about half survive.
    EXPECT_TRUE(s.log.WaitForCount(30, kDeadlineMs));
    EXPECT_EQ(s.log.Last().width, 320);
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), kCloseBudgetMs);
    EXPECT_LE(s.log.Count(), 70);
}

INSTANTIATE_TEST_SUITE_P(Files, TruncatedFileTest,
                         ::testing::Values(TruncatedFile{"avi", "", true},
                                           TruncatedFile{"mp4", "", false},  // the index comes last
                                           TruncatedFile{"mp4", "-movflags +faststart", true},
                                           TruncatedFile{"ts", "", true}),
                         [](const ::testing::TestParamInfo<TruncatedFile>& row) {
                             return std::string(row.param.name) + (*row.param.extra ? "_IndexFirst" : "");
                         });

int CountPicture(void*, void* user, unsigned char*, int, int) {
    static_cast<std::atomic<int>*>(user)->fetch_add(1, std::memory_order_relaxed);
    return 0;
}

// Main and sub stream opened and closed 500 times, then RTSP sessions (live and playback, paced and not):
// nothing is left behind (the sanitizer build checks memory).
TEST(Cycles, OpenCloseLeavesNoDescriptorOrThread) {
    camsim::Options mo, so;
    mo.pattern.width = 640, mo.pattern.height = 360;
    so.pattern.width = 320, so.pattern.height = 180;
    auto mainSim = Simulator(mo), subSim = Simulator(so);
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    CIpCamera* cam = mgr->AddIpCamera(71, "cycles", "127.0.0.1");
    ASSERT_NE(cam, nullptr);
    std::atomic<int> pictures{0};
    // Every tenth cycle waits for a picture so the decode path runs too (closing drops the callback: set it each time).
    auto cycle = [&](bool waitPicture) {
        ASSERT_EQ(cam->OpenMainStreamVideo(mainSim->Url().c_str()), 0);
        cam->SetVideoBufCallBack(&CountPicture, &pictures);
        ASSERT_EQ(cam->OpenSubStreamVideo(subSim->Url().c_str()), 0);
        ASSERT_EQ(cam->SetDecodeEnable(true, true), 0);
        const int before = pictures.load();
        EXPECT_TRUE(!waitPicture || Until([&] { return pictures.load() > before; }));
        EXPECT_EQ(cam->CloseSubStreamVideo(), 0);
        EXPECT_EQ(cam->CloseMainStreamVideo(), 0);
    };
    cycle(true);  // the engine and the manager's timer start once
    ASSERT_FALSE(HasFatalFailure());
    Until([&] { return mainSim->ActiveClients() == 0 && subSim->ActiveClients() == 0; });
    const int fds0 = camctl_test::CountOpenFds(), threads0 = camctl_test::CountThreads();
    constexpr int kCycles = 500;
    for (int i = 0; i < kCycles && !HasFatalFailure(); ++i) cycle(i % 10 == 0);
    EXPECT_GE(pictures.load(), kCycles / 10);
    EXPECT_EQ(mainSim->ConnectionsAccepted(), kCycles + 1);
    EXPECT_EQ(subSim->ConnectionsAccepted(), kCycles + 1);
    EXPECT_EQ(mgr->DelIpCamera(71), 0);

    if (RtspServer::Available()) {
        RtspServer server({{"/h264", RtspServer::H264(160, 120, 25, 25)}, {"/playback/1", RtspServer::H264(160, 120, 25, 25)}});
        ASSERT_TRUE(server.ok()) << server.Log();
        for (int i = 0; i < 5; ++i) {
            camctl_test::LoggingUrlSession s;
            s.SetSmoothStream(i % 2);
            ASSERT_EQ(s.Open(server.Url(i < 3 ? "/h264" : "/playback/1"), i % 2), 0);
            ASSERT_TRUE(s.log.WaitForCount(1, kDeadlineMs));
            EXPECT_EQ(s.VideoFree(), 0);
        }
    }
    EXPECT_TRUE(Until([&] { return camctl_test::CountOpenFds() <= fds0 && camctl_test::CountThreads() <= threads0; }))
        << "descriptors " << fds0 << " -> " << camctl_test::CountOpenFds() << ", threads " << threads0 << " -> " << camctl_test::CountThreads();
}

// Records the Motion JPEG camera in 1 s segments below dir until the disk is full: pictures go on, the
// recorder says why it stopped, and every file that reached the disk is a complete AVI starting on a key frame.
void RecordUntilFull(const std::string& dir, long long capacity) {
    camsim::Options so;
    so.file = MjpegClip();
    auto sim = Simulator(so);
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    CIpCamera* cam = mgr->AddIpCamera(73, "full", "127.0.0.1");
    ASSERT_NE(cam, nullptr);
    std::atomic<int> pictures{0};
    cam->SetVideoBufCallBack(&CountPicture, &pictures);
    ASSERT_EQ(cam->SetSaveDir(dir.c_str(), nullptr), 0);
    cam->m_nAutoRecordSec = 1;

    camctl_test::StderrCapture capture;
    ASSERT_EQ(cam->OpenMainStreamVideo(sim->Url().c_str()), 0);
    ASSERT_EQ(cam->SetDecodeEnable(true, true), 0);
    ASSERT_TRUE(Until([&] { return pictures.load() >= 5; }));
    ASSERT_EQ(cam->StartSaveAvi(1), 0);
    EXPECT_TRUE(Until([&] { return capture.Text().find("no room left") != std::string::npos; })) << "no log line about the full disk";
    const int before = pictures.load();
    EXPECT_TRUE(Until([&] { return pictures.load() >= before + 25; })) << "pictures stopped when the disk filled";
    cam->StopSaveAvi(7);
    EXPECT_EQ(mgr->DelIpCamera(73), 0);
    capture.Stop();

    long long total = 0;
    int longest = 0, avis = 0;
    for (const std::string& f : camctl_test::ListFiles(dir)) {
        total += camctl_test::FileSize(f);
        if (f.size() < 4 || f.compare(f.size() - 4, 4, ".avi") != 0 || camctl_test::FileSize(f) == 0) continue;
        ++avis;
        const std::string counts = camctl_test::Ffprobe("-select_streams v -count_frames -show_entries stream=nb_frames,nb_read_frames -of csv=p=0", f);
        const int header = std::atoi(counts.c_str());
        const int decoded = std::atoi(counts.substr(counts.find(',') + 1).c_str());
        EXPECT_EQ(header, decoded) << f << " has an incomplete index (" << counts << ")";
        // Begun with room for its header but not its first picture: empty yet valid.
        if (header == 0 && decoded == 0 && !counts.empty()) continue;
        EXPECT_GE(decoded, 1) << f << " unreadable (" << counts << ")";
        EXPECT_EQ(camctl_test::Ffprobe("-select_streams v -show_entries packet=flags -read_intervals %+#1 -of csv=p=0", f).substr(0, 1), "K")
            << f << " does not start on a key frame";
        longest = std::max(longest, decoded);
    }
    EXPECT_LE(total, capacity);
    EXPECT_GE(avis, 1) << "nothing recorded";
    EXPECT_GE(longest, 10) << "no segment was recorded before the disk filled";
}

constexpr long long kTmpfsBytes = 2 * 1024 * 1024;
constexpr long long kFileLimitBytes = 600 * 1024;
constexpr const char* kChildDirEnv = "CAMCTL_FAULT_DISK_DIR";

// The child side where no tmpfs can be mounted: runs under RLIMIT_FSIZE.
TEST(DiskFullChild, DISABLED_RecordUnderFileSizeLimit) {
    const char* dir = getenv(kChildDirEnv);
    ASSERT_NE(dir, nullptr);
    RecordUntilFull(dir, kFileLimitBytes * 64);
}

TEST(DiskFull, CameraRecordingsStayPlayable) {
    TempDir dir;
    const std::string mnt = dir / "disk";
    ASSERT_EQ(mkdir(mnt.c_str(), 0755), 0);
    if (mount("tmpfs", mnt.c_str(), "tmpfs", 0, ("size=" + std::to_string(kTmpfsBytes)).c_str()) == 0) {
        RecordUntilFull(mnt, kTmpfsBytes);
        umount2(mnt.c_str(), MNT_DETACH);
        return;
    }
    // No permission to mount: a child whose files may not grow past the limit (a full disk; it must survive SIGXFSZ).
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
