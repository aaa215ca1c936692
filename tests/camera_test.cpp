// Faults caught: wrong storage names/folders or escapes from the root, wrong picture layout or orientation, lost or late callbacks, wrong open-failure reasons, unfinished or misnamed recordings, lost segments, wrong motion/schedule/burst behaviour, races between host threads.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <ctime>
#include <fstream>
#include <mutex>
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // GCC 12 false positive in <regex> under sanitizers
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "camctl/CDC.h"
#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camctl/OpenFailure.h"
#include "camsim/server.h"
#include "support/cli_support.h"
#include "support/fixtures.h"
#include "support/pictures.h"
#include "support/rtsp_server.h"

namespace {

using namespace std::chrono_literals;
using camctl_test::Ffprobe;
using camctl_test::ListFiles;
using camctl_test::TempDir;
using camctl_test::WaitUntil;
using Clock = std::chrono::steady_clock;

bool IsDir(const std::string& p) {
    struct stat st {};
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string RealPath(const std::string& p) {
    char buf[PATH_MAX];
    return realpath(p.c_str(), buf) ? std::string(buf) : std::string();
}

// Files below dir whose name matches re.
std::vector<std::string> Matching(const std::string& dir, const std::string& re) {
    std::vector<std::string> out;
    const std::regex rx(re);
    for (const std::string& f : ListFiles(dir))
        if (std::regex_match(f.substr(f.rfind('/') + 1), rx)) out.push_back(f);
    return out;
}

int Packets(const std::string& file) {
    return std::atoi(Ffprobe("-select_streams v -count_packets -show_entries stream=nb_read_packets -of csv=p=0", file).c_str());
}

// The number after `tag` in a file name (a recording's seconds, a snapshot's serial).
int NumberAfter(const std::string& f, const std::string& tag) { return std::atoi(f.substr(f.rfind(tag) + tag.size()).c_str()); }

// What the host's video callback saw.
struct HostView {
    std::mutex mu;
    int count = 0, width = 0, height = 0;
    std::vector<unsigned char> last;
    bool keep = false;
    size_t layoutBytes = 3;  // bytes per pixel times 2 (6: BGR, 3: I420)
    int Count() {
        std::lock_guard<std::mutex> lock(mu);
        return count;
    }
    int Width() {
        std::lock_guard<std::mutex> lock(mu);
        return width;
    }
};

int OnVideo(void*, void* user, unsigned char* buf, int w, int h) {
    HostView* v = static_cast<HostView*>(user);
    std::lock_guard<std::mutex> lock(v->mu);
    ++v->count;
    v->width = w;
    v->height = h;
    if (v->keep) v->last.assign(buf, buf + static_cast<size_t>(w) * h * v->layoutBytes / 2);
    return 0;
}

// A simulated 25 fps camera; only a scene switch (if any) looks like motion.
camsim::Options Pattern(int w, int h, int sceneSwitchEvery = 0) {
    camsim::Options o;
    o.pattern.width = w;
    o.pattern.height = h;
    o.pattern.fps = 25;
    o.pattern.scene_switch_every = sceneSwitchEvery;
    o.pattern.clock = o.pattern.moving_object = sceneSwitchEvery == 0;
    return o;
}

TEST(CameraStorageTest, Paths_NamesFoldersAndNoEscapeFromTheRoot) {
    TempDir dir;
    CIpCamera cam;
    cam.SetInfo(3, "cam", "127.0.0.1");
    EXPECT_STREQ(cam.GetSaveDir(), ".") << "default save root";
    const std::string root = dir / "rec";
    ASSERT_EQ(cam.SetSaveDir(root.c_str(), nullptr), 0);
    EXPECT_EQ(std::string(cam.GetSaveDir()), root + "/VMS/cam+3");
    ASSERT_EQ(cam.SetSaveDir(root.c_str(), "x"), 0);
    EXPECT_EQ(std::string(cam.GetSaveDir()), root + "/VMS/cam+3/x");
    EXPECT_TRUE(IsDir(root + "/VMS/cam+3/x"));

    ASSERT_EQ(cam.SetSaveDir(dir.path().c_str(), nullptr), 0);
    const std::string base = std::regex_replace(dir.path() + "/VMS/cam+3", std::regex(R"([.^$|()\[\]{}*+?\\])"), R"(\$&)");
    const time_t before = time(nullptr);
    char path[256];
    ASSERT_EQ(cam.GetAviPath(path, 4), 0);
    std::smatch m;
    const std::string avi = path;
    ASSERT_TRUE(std::regex_match(avi, m, std::regex(base + R"(/MS_Record/(\d{4})-(\d\d)-(\d\d)/cam\+3_(\d{8})-(\d{6})_4\.avi)"))) << avi;
    EXPECT_EQ(m[1].str() + m[2].str() + m[3].str(), m[4].str()) << "date folder = file date";
    EXPECT_TRUE(IsDir(avi.substr(0, avi.rfind('/'))));
    struct tm t {};
    strptime((m[4].str() + m[5].str()).c_str(), "%Y%m%d%H%M%S", &t);
    t.tm_isdst = -1;
    EXPECT_LE(std::abs(difftime(mktime(&t), before)), 2.0) << "local time of the call";
    const int serial = CIpCamera::s_nImageSerial.load();
    for (int type : {1, 2}) {  // 1: asked for, 2: motion
        ASSERT_EQ(cam.GetImagePath(path, type), 0);
        const std::string folder = type == 1 ? "/IMAGE-MANUAL/" : "/IMAGE/";
        EXPECT_TRUE(std::regex_match(std::string(path), std::regex(base + folder + R"(\d{4}-\d\d-\d\d/cam_\d{8}-\d{6}_)" +
                                                                      std::to_string(type) + "_" + std::to_string(serial + type - 1) + R"(\.jpg)")))
            << path;
    }

    const char* hostile = "../../evil/x\x01..y";
    cam.SetInfo(4, hostile, "127.0.0.1");
    ASSERT_EQ(cam.SetSaveDir(root.c_str(), nullptr), 0);
    EXPECT_STREQ(cam.GetName(), hostile) << "the name itself is kept";
    EXPECT_EQ(std::string(cam.GetSaveDir()), root + "/VMS/______evil_x___y+4");
    char hAvi[256], hJpg[256];
    ASSERT_EQ(cam.GetAviPath(hAvi, 1), 0);
    ASSERT_EQ(cam.GetImagePath(hJpg, 1), 0);
    const std::string realRoot = RealPath(root);
    for (const std::string& p : {std::string(cam.GetSaveDir()), std::string(hAvi), std::string(hJpg)}) {
        const std::string folder = RealPath(p.substr(0, p.rfind('/')));
        ASSERT_FALSE(folder.empty()) << p;
        EXPECT_EQ(folder.compare(0, realRoot.size(), realRoot), 0) << p << " -> " << folder;
        EXPECT_EQ(p.find("/.."), std::string::npos) << p;
    }
    EXPECT_TRUE(ListFiles(dir.path() + "/evil").empty());

    // Without a main stream nothing records and no sub stream opens.
    EXPECT_EQ(cam.StartSaveAvi(1), -1);
    EXPECT_EQ(cam.GetRecordFlags(), 0u);
    EXPECT_EQ(cam.StopSaveAvi(7), 0);
    EXPECT_EQ(cam.SetDecodeEnable(true, true), -1);
    EXPECT_EQ(cam.OpenSubStreamVideo("http://127.0.0.1:1/stream"), 0);
    EXPECT_FALSE(cam.HasSubStream());
    EXPECT_FALSE(cam.IsMainVideoOpenSuc());
    EXPECT_EQ(cam.GetMainVideoCodec(), -1);
    EXPECT_EQ(cam.OpenMainStreamVideo("http://127.0.0.1:1/none"), -1);
}

// Frame dispatch driven directly, as a session's decode thread would.
TEST(CameraDispatchTest, Dispatch_HostSeesTruePictureSnapshotsAreUprightAndCloseDropsTheCallback) {
    for (int yuv : {0, 1}) {
        SCOPED_TRACE(yuv ? "I420" : "BGR24");
        TempDir dir;
        CIpCamera cam;
        cam.SetInfo(3, "cam", "127.0.0.1");
        ASSERT_EQ(cam.SetSaveDir(dir.path().c_str(), nullptr), 0);
        cam.SetYuvDisplay(yuv);
        HostView view;
        view.keep = true;
        view.layoutBytes = yuv ? 3 : 6;
        cam.SetVideoBufCallBack(&OnVideo, &view);
        const int w = 64, h = 48;
        std::vector<unsigned char> pic = camctl_test::RedOverBlue(w, h);
        if (yuv) {
            pic.assign(static_cast<size_t>(w) * h * 3 / 2, 128);
            std::fill(pic.begin(), pic.begin() + w * h, 180);
        }
        const std::vector<unsigned char> original = pic;
        const int type = yuv ? 2 : 1;
        ASSERT_EQ(cam.SaveImage(type, 1), 0);
        ASSERT_EQ(cam.DoVideoBuffer(nullptr, pic.data(), w, h), 0);
        EXPECT_EQ(view.Count(), 1);
        EXPECT_TRUE(view.last == original) << "the callback after a snapshot sees the picture as decoded";
        EXPECT_TRUE(pic == original) << "the decoder's buffer is left alone";
        const std::vector<std::string> jpgs = Matching(dir.path(), R"(cam_\d{8}-\d{6}_)" + std::to_string(type) + R"(_\d+\.jpg)");
        ASSERT_EQ(jpgs.size(), 1u);
        EXPECT_NE(jpgs[0].find(yuv ? "/IMAGE/" : "/IMAGE-MANUAL/"), std::string::npos);
        EXPECT_EQ(Ffprobe("-show_entries stream=width,height -of csv=p=0", jpgs[0]), "64,48\n");
        std::string rgb;
        ASSERT_EQ(camctl_test::RunCommand("ffmpeg -v error -i '" + jpgs[0] + "' -f rawvideo -pix_fmt rgb24 -", &rgb), 0);
        ASSERT_EQ(rgb.size(), static_cast<size_t>(w) * h * 3);
        const auto top = [&](int k) { return static_cast<unsigned char>(rgb[(5 * w + 10) * 3 + k]); };
        const auto bottom = [&](int k) { return static_cast<unsigned char>(rgb[((h - 5) * w + 10) * 3 + k]); };
        EXPECT_TRUE(yuv || (top(0) > 200 && top(2) < 60 && bottom(0) < 60 && bottom(2) > 200)) << "red over blue";
        // One snapshot was asked for; the next picture writes nothing.
        ASSERT_EQ(cam.DoVideoBuffer(nullptr, pic.data(), w, h), 0);
        EXPECT_EQ(Matching(dir.path(), R"(.*\.jpg)").size(), 1u);
        EXPECT_EQ(view.Count(), 2);
        cam.CloseMainStreamVideo();  // drops the host's video callback
        ASSERT_EQ(cam.DoVideoBuffer(nullptr, pic.data(), w, h), 0);
        EXPECT_EQ(view.Count(), 2);
    }
}

class LiveCameraTest : public ::testing::Test {
protected:
    void SetUp() override {
        mgr_ = CIpCameraManager::GetInstance();
        ASSERT_NE(mgr_, nullptr);
        cam_ = mgr_->AddIpCamera(3, "cam", "127.0.0.1");
        ASSERT_NE(cam_, nullptr);
        ASSERT_EQ(cam_->SetSaveDir(dir_.path().c_str(), nullptr), 0);
    }
    void TearDown() override {
        if (mgr_) mgr_->DelIpCamera(3);
    }
    // Opens url as the main stream and waits for n pictures.
    void OpenAndShow(const std::string& url, int n = 5) {
        ASSERT_EQ(cam_->OpenMainStreamVideo(url.c_str()), 0);
        cam_->SetVideoBufCallBack(&OnVideo, &view_);
        ASSERT_EQ(cam_->SetDecodeEnable(true, true), 0);
        const int seen = view_.Count();
        ASSERT_TRUE(WaitUntil([&] { return view_.Count() >= seen + n; })) << "no pictures";
    }
    void OpenSim(const camsim::Options& o) {
        sim_ = std::make_unique<camsim::Server>(o);
        std::string error;
        ASSERT_TRUE(sim_->Start(&error)) << error;
        OpenAndShow(sim_->Url());
    }
    void WaitPictures(int n) {
        const int seen = view_.Count();
        ASSERT_TRUE(WaitUntil([&] { return view_.Count() >= seen + n; }));
    }
    std::vector<std::string> Recordings(const std::string& reason) {
        return Matching(Base() + "/MS_Record", R"(cam\+3_\d{8}-\d{6}_)" + reason + R"(_\d+\.avi)");
    }
    bool Provisional() { return !Matching(dir_.path(), R"(cam\+3_\d{8}-\d{6}_\d\.avi)").empty(); }
    std::string Base() const { return dir_.path() + "/VMS/cam+3"; }

    TempDir dir_;
    CIpCameraManager* mgr_ = nullptr;
    CIpCamera* cam_ = nullptr;
    HostView view_;
    std::unique_ptr<camsim::Server> sim_;
};

TEST_F(LiveCameraTest, Delivery_BothLayoutsInCallbackSnapshotAndDisplay) {
    for (int yuv : {0, 1}) {
        SCOPED_TRACE(yuv ? "I420" : "BGR24");
        cam_->SetYuvDisplay(yuv);
        {
            std::lock_guard<std::mutex> lock(view_.mu);  // the previous stream still delivers
            view_.keep = true;
            view_.layoutBytes = yuv ? 3 : 6;
        }
        OpenSim(Pattern(320, 240));
        EXPECT_TRUE(cam_->IsMainVideoOpenSuc());
        EXPECT_EQ(cam_->GetMainVideoCodec(), 0);
        {
            std::lock_guard<std::mutex> lock(view_.mu);
            EXPECT_EQ(view_.width, 320);
            EXPECT_EQ(view_.height, 240);
            ASSERT_EQ(view_.last.size(), 320u * 240 * view_.layoutBytes / 2);
            // Row 200 (clear of the clock and the square) is a gradient growing to the right.
            auto at = [&](int x) { return yuv ? view_.last[200 * 320 + x] : view_.last[(200 * 320 + x) * 3 + 1]; };
            EXPECT_GT(at(310), at(10) + 20);
        }
        // A layout asked for now is for the next open: the open stream keeps its own.
        cam_->SetYuvDisplay(!yuv);
        const std::string shotRx = R"(cam_\d{8}-\d{6}_1_)" + std::to_string(CIpCamera::s_nImageSerial.load()) + R"(\.jpg)";
        ASSERT_EQ(cam_->SaveImage(1, 1), 0);
        ASSERT_TRUE(WaitUntil([&] { return !Matching(Base() + "/IMAGE-MANUAL", shotRx).empty(); }));
        WaitPictures(2);  // the file is complete once the next picture came
        std::string gray;
        ASSERT_EQ(camctl_test::RunCommand("ffmpeg -v error -i '" + Matching(Base() + "/IMAGE-MANUAL", shotRx)[0] +
                                              "' -f rawvideo -pix_fmt gray -", &gray), 0);
        ASSERT_EQ(gray.size(), 320u * 240);
        // Below the square, rows 180..229: about 30 at the left, 100 at the right.
        auto mean = [&](int x0) {
            double sum = 0;
            for (int y = 180; y < 230; ++y)
                for (int x = x0; x < x0 + 20; ++x) sum += static_cast<unsigned char>(gray[y * 320 + x]);
            return sum / 1000;
        };
        EXPECT_GT(mean(300) - mean(0), 45) << mean(0) << " .. " << mean(300);
        EXPECT_NEAR(mean(300), 98, 10);

        CMemoryDC dc(324, 243);
        ASSERT_EQ(cam_->StartDisplay(&dc, 324, 243), 0);
        WaitPictures(3);
        EXPECT_GT(dc.GetPaintCount(), 0);
        EXPECT_NE(dc.GetPixel(10, 200), dc.GetPixel(310, 200)) << "the picture, not a flat fill";
        EXPECT_EQ(dc.GetPixel(321, 100), 0u) << "margin";
        cam_->StopDisplay();
    }
}

// Why an open failed, for each failure a user meets, against real servers;
// every open ends (within its TCP and UDP deadlines).
TEST_F(LiveCameraTest, OpenFailure_ReasonForEachKindOfSourceAndRtspPicturesReachTheHost) {
    using camctl_test::RtspServer;
    if (!RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings";
    const std::string video = RtspServer::H264(160, 120, 25, 25);
    RtspServer server({{"/basic", video, RtspServer::Auth::kBasic, "viewer", "s3cret"},
                       {"/digest", video, RtspServer::Auth::kDigest, "viewer", "s3cret"},
                       {"/audio", "( audiotestsrc is-live=true ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! rtppcmupay name=pay0 )"}});
    ASSERT_TRUE(server.ok()) << server.Log();
    camctl_test::SilentServer silent;
    const std::string nobody = "127.0.0.1:" + std::to_string(camctl_test::FreeLoopbackPort());
    const std::string text = dir_ / "notes.mp4";
    std::ofstream(text) << "a text file, not a video\n";
    const struct { const char* name; std::string url; int reason; } rows[] = {
        {"basic, right credentials", server.Url("/basic", "viewer:s3cret"), CAMCTL_OPEN_OK},
        {"digest, right credentials", server.Url("/digest", "viewer:s3cret"), CAMCTL_OPEN_OK},
        {"digest, wrong password", server.Url("/digest", "viewer:wrong"), CAMCTL_OPEN_UNAUTHORIZED},
        {"basic, no credentials", server.Url("/basic"), CAMCTL_OPEN_UNAUTHORIZED},
        {"wrong path", server.Url("/nothere"), CAMCTL_OPEN_NOT_FOUND},
        {"audio only", server.Url("/audio"), CAMCTL_OPEN_NO_VIDEO},
        {"accepts, never answers", "rtsp://127.0.0.1:" + std::to_string(silent.port()) + "/cam", CAMCTL_OPEN_NO_VIDEO},
        {"nothing listening, RTSP", "rtsp://" + nobody + "/cam", CAMCTL_OPEN_UNREACHABLE},
        {"nothing listening, frame stream", "http://" + nobody + "/cam", CAMCTL_OPEN_UNREACHABLE},
        {"unknown scheme", "foo://127.0.0.1/cam", CAMCTL_OPEN_BAD_URL},
        {"missing file", dir_ / "missing.mp4", CAMCTL_OPEN_NOT_FOUND},
        {"not a media file", text, CAMCTL_OPEN_NO_VIDEO},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        const auto start = Clock::now();
        const int rc = cam_->OpenMainStreamVideo(row.url.c_str());
        EXPECT_LT(Clock::now() - start, 30s) << "past its deadlines (TCP, then UDP)";
        char detail[256] = "unchanged";
        EXPECT_EQ(cam_->GetOpenFailure(true, detail, sizeof detail), row.reason) << detail;
        EXPECT_EQ(rc, row.reason == CAMCTL_OPEN_OK ? 0 : -1);
        EXPECT_EQ(detail[0] == '\0', row.reason == CAMCTL_OPEN_OK) << detail;
    }
    // A sub stream that fails is no error for the caller, but says why.
    OpenAndShow(server.Url("/basic", "viewer:s3cret"), 10);
    EXPECT_EQ(view_.Width(), 160);
    EXPECT_EQ(cam_->OpenSubStreamVideo(server.Url("/digest").c_str()), 0);
    EXPECT_EQ(cam_->GetOpenFailure(false, nullptr, 0), CAMCTL_OPEN_UNAUTHORIZED);
    EXPECT_EQ(cam_->GetOpenFailure(true, nullptr, 0), CAMCTL_OPEN_OK);
}

TEST_F(LiveCameraTest, Recording_ManualFileNamedWithItsLengthAndAlwaysFinished) {
    OpenSim(Pattern(320, 240));
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    EXPECT_EQ(cam_->GetRecordFlags(), 1u);
    WaitPictures(83);  // 3.3 s of pictures
    ASSERT_EQ(cam_->StopSaveAvi(1), 0);
    EXPECT_EQ(cam_->GetRecordFlags(), 0u);
    // The length counts from the first key frame (at most 1 s after the
    // start); load may let the camera send more than was shown.
    const std::vector<std::string> files = Recordings("1");
    ASSERT_EQ(files.size(), 1u) << ::testing::PrintToString(ListFiles(dir_.path()));
    const int named = NumberAfter(files[0], "_1_");
    EXPECT_GE(named, 2);
    EXPECT_NEAR(std::atof(Ffprobe("-show_entries format=duration -of csv=p=0", files[0]).c_str()), named + 0.5, 0.75)
        << "the name gives the whole seconds recorded";
    EXPECT_EQ(Ffprobe("-select_streams v -show_entries stream=codec_name -of csv=p=0", files[0]), "h264\n");
    EXPECT_GE(Packets(files[0]), 40) << "about 3 s at 25 fps, from the first key frame";
    EXPECT_FALSE(Provisional()) << "no provisional name left";

    // Reopening the stream and deleting the camera both finish the file.
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    WaitPictures(30);
    OpenAndShow(sim_->Url());
    EXPECT_EQ(cam_->GetRecordFlags(), 0u);
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    ASSERT_TRUE(WaitUntil([&] { return Provisional(); })) << "a key frame starts the file";
    ASSERT_EQ(mgr_->DelIpCamera(3), 0);
    EXPECT_FALSE(Provisional()) << ::testing::PrintToString(ListFiles(dir_.path()));
    EXPECT_EQ(Recordings("1").size(), 3u);
}

TEST_F(LiveCameraTest, Recording_SegmentsFollowEachOtherWithoutGaps) {
    OpenSim(Pattern(320, 240));
    cam_->m_nAutoRecordSec = 1;  // a new file once more than 1 s has passed
    const int first = view_.Count();
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    WaitPictures(162);  // 6.5 s of pictures
    ASSERT_EQ(cam_->StopSaveAvi(1), 0);
    const int shown = view_.Count() - first, sent = static_cast<int>(sim_->FramesSent());
    std::vector<std::string> files = Recordings("1");
    std::sort(files.begin(), files.end());
    ASSERT_GE(files.size(), 3u) << ::testing::PrintToString(files);
    int frames = 0;
    for (const std::string& f : files) frames += Packets(f);
    // Each segment starts at a key frame (one per 25 pictures): a cut loses
    // at most one GOP. Pictures the decoder dropped are still recorded, but
    // none the camera did not send.
    EXPECT_GE(frames, shown - 25 * static_cast<int>(files.size()) - 10) << frames << " of about " << shown;
    EXPECT_LE(frames, sent);
}

TEST_F(LiveCameraTest, Motion_SceneSwitchRecordsFiveSecondsAndTakesSnapshot) {
    cam_->SetMotionSaveType(1, 1, 20);  // type 1: a snapshot per event; 20 s are cut to 5
    cam_->NotifyMotionSave(1);
    OpenSim(Pattern(320, 240, 75));  // the scene switches every 3 s
    ASSERT_TRUE(WaitUntil([&] { return (cam_->GetRecordFlags() & 2u) != 0; })) << "no motion recording";
    EXPECT_GE(cam_->GetMotionCount(), 1);
    ASSERT_TRUE(WaitUntil([&] { return !Recordings("2").empty(); })) << ::testing::PrintToString(ListFiles(dir_.path()));
    const std::vector<std::string> jpgs = Matching(Base() + "/IMAGE", R"(cam_\d{8}-\d{6}_2_\d+\.jpg)");
    ASSERT_GE(jpgs.size(), 1u);
    EXPECT_EQ(Ffprobe("-show_entries stream=width,height -of csv=p=0", jpgs[0]), "320,240\n");
    // Stopped once more than 5 whole seconds passed, counted from the first
    // key frame (up to 1 s after the start); load may only delay the stop.
    const int len = NumberAfter(Recordings("2")[0], "_2_");
    EXPECT_GE(len, 4);
    EXPECT_LE(len, 12);
}

TEST_F(LiveCameraTest, Snapshot_BurstOfThreeOneSecondApart) {
    OpenSim(Pattern(320, 240));
    // The timer asks for the next picture of a burst once time()'s second
    // has moved on, replacing a request still waiting for its picture; asking
    // early in a second (clear of its start, where the coarse clock behind
    // time() may lag) leaves the first request its picture.
    ASSERT_TRUE(WaitUntil([] {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_nsec > 100000000 && now.tv_nsec < 400000000;
    }));
    const int serial = CIpCamera::s_nImageSerial.load();
    ASSERT_EQ(cam_->SaveImage(1, 3), 0);
    const std::string manual = Base() + "/IMAGE-MANUAL";
    ASSERT_TRUE(WaitUntil([&] { return Matching(manual, R"(.*\.jpg)").size() >= 3; }));
    EXPECT_FALSE(WaitUntil([&] { return Matching(manual, R"(.*\.jpg)").size() > 3; }, 1300ms)) << "a burst of three, no more";
    std::vector<int> serials;
    std::vector<double> mtimes;
    for (const std::string& f : Matching(manual, R"(cam_\d{8}-\d{6}_1_\d+\.jpg)")) {
        serials.push_back(NumberAfter(f, "_"));
        struct stat st {};
        stat(f.c_str(), &st);
        mtimes.push_back(st.st_mtim.tv_sec + st.st_mtim.tv_nsec / 1e9);
    }
    std::sort(serials.begin(), serials.end());
    EXPECT_EQ(serials, (std::vector<int>{serial, serial + 1, serial + 2}));
    std::sort(mtimes.begin(), mtimes.end());
    ASSERT_EQ(mtimes.size(), 3u);
    EXPECT_GT(mtimes[2] - mtimes[0], 0.9) << "one picture a second, not all at once";
}

TEST_F(LiveCameraTest, Schedule_StartsAfterFirstChecksResumesAfterMotionAndStops) {
    _record_time_t always{};
    for (int& d : always.bWeekDay) d = 1;
    always.nEndHour = 23;
    always.nEndMinute = 59;
    ASSERT_EQ(cam_->AddAutoSaveTime(&always), 0);
    cam_->SetMotionSaveType(0, 1, 2);  // motion: a 2 s recording, no snapshot
    cam_->NotifyMotionSave(1);
    const auto opened = Clock::now();
    OpenSim(Pattern(320, 240, 250));  // the scene switches at 10 s
    ASSERT_TRUE(WaitUntil([&] { return cam_->GetRecordFlags() != 0u; }));
    EXPECT_EQ(cam_->GetRecordFlags(), 4u) << "the schedule starts first";
    EXPECT_GT(Clock::now() - opened, 3s) << "after its first checks";
    // The scene switch: the schedule's file ends, a motion file runs 2 s,
    // then the schedule resumes in a new file.
    ASSERT_TRUE(WaitUntil([&] { return (cam_->GetRecordFlags() & 2u) != 0; }));
    EXPECT_EQ(cam_->GetRecordFlags(), 6u);
    cam_->NotifyMotionSave(0);  // one motion event is enough
    ASSERT_TRUE(WaitUntil([&] { return cam_->GetRecordFlags() == 4u; }));
    char resumed[256];
    ASSERT_TRUE(WaitUntil([&] {
        cam_->GetRecordingPath(resumed, sizeof resumed);
        return std::string(resumed).find("_4.avi") != std::string::npos;
    }));
    ASSERT_EQ(cam_->ResetAutoSaveTime(), 0);
    ASSERT_TRUE(WaitUntil([&] { return cam_->GetRecordFlags() == 0u; }));
    EXPECT_FALSE(camctl_test::FileExists(resumed)) << "renamed with its length";
    const std::vector<std::string> files = Recordings(R"(\d)");
    ASSERT_EQ(files.size(), 3u) << ::testing::PrintToString(files);
    EXPECT_EQ(Recordings("4").size(), 2u);
    EXPECT_EQ(Recordings("2").size(), 1u);
}

TEST_F(LiveCameraTest, Streams_TwoHostThreadsOpenAndCloseWhileTheNameChanges) {
    sim_ = std::make_unique<camsim::Server>(Pattern(160, 120));
    ASSERT_TRUE(sim_->Start());
    const std::string url = sim_->Url();
    std::atomic<int> cycling{2};
    auto cycle = [&] {
        for (int i = 0; i < 15; ++i) {
            cam_->OpenMainStreamVideo(url.c_str());
            cam_->CloseMainStreamVideo();
        }
        --cycling;
    };
    std::thread a(cycle), b(cycle);
    for (int i = 0; cycling.load() > 0; ++i) {
        const char* name = i % 2 ? "north" : "south";
        cam_->SetInfo(3, name, "127.0.0.1");
        EXPECT_EQ(mgr_->GetIpCamera(name), cam_);
        std::this_thread::sleep_for(1ms);
    }
    a.join();
    b.join();
    OpenAndShow(url, 3);  // still a working camera
}

TEST_F(LiveCameraTest, SubStream_RulesDecodeSwitchAndMotionOnSubStreamPicturesAlone) {
    cam_->SetMotionSaveType(0, 1, 2);
    cam_->NotifyMotionSave(1);
    OpenSim(Pattern(480, 360, 1000));  // a still main stream
    std::string upper = sim_->Url();
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    for (const std::string& refused : {upper, std::string("rt")}) {  // the main URL in other case; too short
        EXPECT_EQ(cam_->OpenSubStreamVideo(refused.c_str()), 0);
        EXPECT_FALSE(cam_->HasSubStream()) << refused;
    }
    camsim::Server small(Pattern(320, 240, 50));  // the scene switches every 2 s
    ASSERT_TRUE(small.Start());
    ASSERT_EQ(cam_->OpenSubStreamVideo(small.Url().c_str()), 0);
    ASSERT_TRUE(cam_->HasSubStream());
    EXPECT_TRUE(cam_->IsSubVideoOpenSuc());
    cam_->SetVideoBufCallBack(&OnVideo, &view_);
    ASSERT_EQ(cam_->SetDecodeEnable(false, true), 0);
    ASSERT_TRUE(WaitUntil([&] { return view_.Width() == 320; }));
    WaitPictures(5);
    EXPECT_EQ(view_.Width(), 320) << "the main stream is no longer decoded";
    // The detector, started at the main stream's size, scans the smaller pictures.
    EXPECT_TRUE(WaitUntil([&] { return cam_->GetMotionCount() >= 1; }));
    ASSERT_EQ(cam_->SetDecodeEnable(true, true), 0);
    ASSERT_TRUE(WaitUntil([&] { return view_.Width() == 480; }));
    // A sub stream that cannot be opened leaves the camera on its main one.
    const std::string dead = "http://127.0.0.1:" + std::to_string(camctl_test::FreeLoopbackPort()) + "/x";
    EXPECT_EQ(cam_->OpenSubStreamVideo(dead.c_str()), 0);
    EXPECT_FALSE(cam_->HasSubStream());
    EXPECT_TRUE(cam_->IsSubVideoOpenSuc()) << "reports the main stream";
}

}  // namespace
