// A camera end to end: storage paths, frame dispatch, live streams from the
// camera simulator and an RTSP server, recordings, snapshots and schedules.
#include <gtest/gtest.h>
#include <limits.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstring>
#include <ctime>
#include <fstream>
#include <functional>
#include <mutex>
// GCC 12 reports a false maybe-uninitialized inside <regex> when built
// with the sanitizers.
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "camctl/CDC.h"
#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camsim/server.h"
#include "engine/engine.h"
#include "support/cli_support.h"
#include "support/fixtures.h"
#include "support/rtsp_server.h"

namespace {

using camctl_test::FileExists;
using camctl_test::ListFiles;
using camctl_test::TempDir;
using Clock = std::chrono::steady_clock;

std::string RegexEscape(const std::string& s) {
    static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
    return std::regex_replace(s, special, R"(\$&)");
}

bool IsDir(const std::string& p) {
    struct stat st {};
    return stat(p.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

std::string RealPath(const std::string& p) {
    char buf[PATH_MAX];
    return realpath(p.c_str(), buf) ? std::string(buf) : std::string();
}

bool WaitFor(const std::function<bool()>& pred, int timeout_ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(timeout_ms);
    while (Clock::now() < end) {
        if (pred()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return pred();
}

// Files below dir whose name matches re.
std::vector<std::string> Matching(const std::string& dir, const std::string& re) {
    std::vector<std::string> out;
    const std::regex rx(re);
    for (const std::string& f : ListFiles(dir)) {
        const std::string name = f.substr(f.rfind('/') + 1);
        if (std::regex_match(name, rx)) out.push_back(f);
    }
    return out;
}

// A BGR24 picture stored bottom-up: upper half (as seen) red, lower blue.
std::vector<unsigned char> RedOverBlue(int w, int h) {
    std::vector<unsigned char> pic(static_cast<size_t>(w) * h * 3);
    for (int row = 0; row < h; ++row) {
        const bool upper = row >= h / 2;
        for (int x = 0; x < w; ++x) {
            unsigned char* p = &pic[(static_cast<size_t>(row) * w + x) * 3];
            p[0] = upper ? 0 : 255;
            p[1] = 0;
            p[2] = upper ? 255 : 0;
        }
    }
    return pic;
}

// Decodes an image file to top-down pixels (rgb24, gray) with the ffmpeg CLI.
std::vector<unsigned char> Decode(const std::string& image, const TempDir& dir,
                                  const char* pixFmt = "rgb24") {
    const std::string raw = dir / "decoded.raw";
    const std::string cmd = "ffmpeg -v error -y -i '" + image + "' -f rawvideo -pix_fmt " +
                            pixFmt + " '" + raw + "'";
    if (camctl_test::RunCommand(cmd) != 0) return {};
    return camctl_test::ReadFileBytes(raw);
}

// Mean of a w-wide gray picture over columns [x0, x0 + 20) of rows [y0, y0 + 50).
double MeanGray(const std::vector<unsigned char>& gray, int w, int x0, int y0) {
    double sum = 0;
    for (int y = y0; y < y0 + 50; ++y)
        for (int x = x0; x < x0 + 20; ++x) sum += gray[static_cast<size_t>(y) * w + x];
    return sum / (50 * 20);
}

// What the host's video callback saw.
struct HostView {
    std::mutex mu;
    int count = 0;
    int width = 0;
    int height = 0;
    std::vector<unsigned char> last;
    bool keep = false;
    size_t layoutBytes = 3;  // bytes per pixel times 2 (6: BGR, 3: I420)

    int Count() {
        std::lock_guard<std::mutex> lock(mu);
        return count;
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

camsim::Options Pattern(int w, int h, int sceneSwitchEvery = 0) {
    camsim::Options o;
    o.pattern.width = w;
    o.pattern.height = h;
    o.pattern.fps = 25;
    o.pattern.scene_switch_every = sceneSwitchEvery;
    // Only the scene switch may look like motion.
    o.pattern.clock = sceneSwitchEvery == 0;
    o.pattern.moving_object = sceneSwitchEvery == 0;
    return o;
}

// ---------------------------------------------------------------------------
// Storage paths (no stream needed)

class CameraStorageTest : public ::testing::Test {
protected:
    void SetUp() override { cam_.SetInfo(3, "cam", "127.0.0.1"); }
    TempDir dir_;
    CIpCamera cam_;
};

TEST_F(CameraStorageTest, SaveDir_TreeCreatedAndTrailingSlashDropped) {
    EXPECT_STREQ(cam_.GetSaveDir(), ".") << "default save root";
    const std::string root = dir_ / "rec";
    ASSERT_EQ(cam_.SetSaveDir(root.c_str(), nullptr), 0);
    EXPECT_EQ(std::string(cam_.GetSaveDir()), root + "/VMS/cam+3");
    EXPECT_TRUE(IsDir(root + "/VMS/cam+3"));
    ASSERT_EQ(cam_.SetSaveDir(root.c_str(), "x"), 0);
    EXPECT_EQ(std::string(cam_.GetSaveDir()), root + "/VMS/cam+3/x");
    EXPECT_TRUE(IsDir(root + "/VMS/cam+3/x"));
}

TEST_F(CameraStorageTest, Paths_NameDateTimeReasonTypeAndSerial) {
    ASSERT_EQ(cam_.SetSaveDir(dir_.path().c_str(), nullptr), 0);
    const std::string base = RegexEscape(dir_.path() + "/VMS/cam+3");
    const time_t before = time(nullptr);
    char path[256];
    ASSERT_EQ(cam_.GetAviPath(path, 4), 0);
    std::smatch m;
    const std::string avi = path;
    ASSERT_TRUE(std::regex_match(avi, m,
                                 std::regex(base + R"(/MS_Record/(\d{4})-(\d\d)-(\d\d)/cam\+3_)"
                                                   R"((\d{8})-(\d{6})_4\.avi)")))
        << avi;
    EXPECT_EQ(m[1].str() + m[2].str() + m[3].str(), m[4].str()) << "date folder = file date";
    EXPECT_TRUE(IsDir(avi.substr(0, avi.rfind('/'))));
    struct tm t {};
    strptime((m[4].str() + m[5].str()).c_str(), "%Y%m%d%H%M%S", &t);
    t.tm_isdst = -1;
    EXPECT_LE(std::abs(difftime(mktime(&t), before)), 2.0) << "local time of the call";

    const int serial = CIpCamera::s_nImageSerial.load();
    ASSERT_EQ(cam_.GetImagePath(path, 1), 0);
    EXPECT_TRUE(std::regex_match(std::string(path),
                                 std::regex(base + R"(/IMAGE-MANUAL/\d{4}-\d\d-\d\d/cam_\d{8}-\d{6}_1_)" +
                                            std::to_string(serial) + R"(\.jpg)")))
        << path;
    ASSERT_EQ(cam_.GetImagePath(path, 2), 0);
    EXPECT_TRUE(std::regex_match(std::string(path),
                                 std::regex(base + R"(/IMAGE/\d{4}-\d\d-\d\d/cam_\d{8}-\d{6}_2_)" +
                                            std::to_string(serial + 1) + R"(\.jpg)")))
        << path;
}

TEST_F(CameraStorageTest, Paths_HostileNameStaysBelowTheRoot) {
    const char* hostile = "../../evil/x\x01..y";
    cam_.SetInfo(4, hostile, "127.0.0.1");
    const std::string root = dir_ / "root";
    ASSERT_EQ(cam_.SetSaveDir(root.c_str(), nullptr), 0);
    EXPECT_STREQ(cam_.GetName(), hostile) << "the name itself is kept";
    EXPECT_EQ(std::string(cam_.GetSaveDir()), root + "/VMS/______evil_x___y+4");
    char avi[256], jpg[256];
    ASSERT_EQ(cam_.GetAviPath(avi, 1), 0);
    ASSERT_EQ(cam_.GetImagePath(jpg, 1), 0);
    const std::string realRoot = RealPath(root);
    for (const std::string& p : {std::string(cam_.GetSaveDir()), std::string(avi), std::string(jpg)}) {
        const std::string folder = RealPath(p.substr(0, p.rfind('/')));
        ASSERT_FALSE(folder.empty()) << p;
        EXPECT_EQ(folder.compare(0, realRoot.size(), realRoot), 0) << p << " -> " << folder;
        EXPECT_EQ(p.find("/.."), std::string::npos) << p;
    }
    EXPECT_EQ(ListFiles(dir_.path() + "/evil").size(), 0u);
}

TEST_F(CameraStorageTest, Streams_ClosedMainRefusesRecordingAndSubStream) {
    ASSERT_EQ(cam_.SetSaveDir(dir_.path().c_str(), nullptr), 0);
    EXPECT_EQ(cam_.StartSaveAvi(1), -1);
    EXPECT_EQ(cam_.GetRecordFlags(), 0u);
    EXPECT_EQ(cam_.StopSaveAvi(7), 0);
    EXPECT_EQ(cam_.SetDecodeEnable(true, true), -1);
    EXPECT_EQ(cam_.OpenSubStreamVideo("http://127.0.0.1:1/stream"), 0) << "no main stream yet";
    EXPECT_FALSE(cam_.HasSubStream());
    EXPECT_FALSE(cam_.IsMainVideoOpenSuc());
    EXPECT_EQ(cam_.GetMainVideoCodec(), -1);
    EXPECT_EQ(cam_.OpenMainStreamVideo("http://127.0.0.1:1/none"), -1);
}

// ---------------------------------------------------------------------------
// Frame dispatch, driven directly as a session's decode thread would

TEST_F(CameraStorageTest, Dispatch_HostSeesTruePictureAndSnapshotIsUpright) {
    ASSERT_EQ(cam_.SetSaveDir(dir_.path().c_str(), nullptr), 0);
    HostView view;
    view.keep = true;
    view.layoutBytes = 6;
    cam_.SetVideoBufCallBack(&OnVideo, &view);
    const int w = 64, h = 48;
    std::vector<unsigned char> pic = RedOverBlue(w, h);
    const std::vector<unsigned char> original = pic;
    ASSERT_EQ(cam_.SaveImage(1, 1), 0);
    ASSERT_EQ(cam_.DoVideoBuffer(nullptr, pic.data(), w, h), 0);

    EXPECT_EQ(view.Count(), 1);
    EXPECT_TRUE(view.last == original) << "callback after a snapshot sees the picture as decoded";
    EXPECT_TRUE(pic == original) << "the decoder's buffer is left alone";

    std::vector<std::string> jpgs = Matching(dir_.path(), R"(cam_\d{8}-\d{6}_1_\d+\.jpg)");
    ASSERT_EQ(jpgs.size(), 1u);
    EXPECT_NE(jpgs[0].find("/IMAGE-MANUAL/"), std::string::npos);
    std::vector<unsigned char> rgb = Decode(jpgs[0], dir_);
    ASSERT_EQ(rgb.size(), static_cast<size_t>(w) * h * 3);
    const unsigned char* top = &rgb[(5 * w + 10) * 3];
    const unsigned char* bottom = &rgb[((h - 5) * w + 10) * 3];
    EXPECT_GT(top[0], 200);
    EXPECT_LT(top[2], 60);
    EXPECT_LT(bottom[0], 60);
    EXPECT_GT(bottom[2], 200);

    // Only one snapshot was asked for; the next picture writes nothing.
    ASSERT_EQ(cam_.DoVideoBuffer(nullptr, pic.data(), w, h), 0);
    EXPECT_EQ(Matching(dir_.path(), R"(.*\.jpg)").size(), 1u);
    EXPECT_EQ(view.Count(), 2);
}

TEST_F(CameraStorageTest, Dispatch_PlanarSnapshotAndNoCallbackAfterClose) {
    ASSERT_EQ(cam_.SetSaveDir(dir_.path().c_str(), nullptr), 0);
    cam_.SetYuvDisplay(1);
    HostView view;
    cam_.SetVideoBufCallBack(&OnVideo, &view);
    const int w = 64, h = 48;
    std::vector<unsigned char> yuv(static_cast<size_t>(w) * h * 3 / 2, 128);
    std::fill(yuv.begin(), yuv.begin() + w * h, 180);
    ASSERT_EQ(cam_.SaveImage(2, 1), 0);
    ASSERT_EQ(cam_.DoVideoBuffer(nullptr, yuv.data(), w, h), 0);
    std::vector<std::string> jpgs = Matching(dir_.path(), R"(cam_\d{8}-\d{6}_2_\d+\.jpg)");
    ASSERT_EQ(jpgs.size(), 1u);
    EXPECT_NE(jpgs[0].find("/IMAGE/"), std::string::npos);
    EXPECT_EQ(camctl_test::Ffprobe("-show_entries stream=width,height -of csv=p=0", jpgs[0]),
              "64,48\n");
    EXPECT_EQ(view.Count(), 1);

    // Closing the main stream drops the host's video callback.
    cam_.CloseMainStreamVideo();
    ASSERT_EQ(cam_.DoVideoBuffer(nullptr, yuv.data(), w, h), 0);
    EXPECT_EQ(view.Count(), 1);
}

// ---------------------------------------------------------------------------
// Live streams

class LiveCameraTest : public ::testing::Test {
protected:
    void SetUp() override {
        mgr_ = CIpCameraManager::GetInstance();
        ASSERT_NE(mgr_, nullptr);
        cam_ = mgr_->AddIpCamera(3, "cam", "127.0.0.1");
        ASSERT_NE(cam_, nullptr);
        ASSERT_EQ(cam_->SetSaveDir(dir_.path().c_str(), nullptr), 0);
        cam_->SetVideoBufCallBack(&OnVideo, &view_);
    }
    void TearDown() override {
        if (mgr_) mgr_->DelIpCamera(3);
    }

    // Starts a simulator and opens it as the main stream.
    void OpenSim(const camsim::Options& o) {
        sim_ = std::make_unique<camsim::Server>(o);
        std::string error;
        ASSERT_TRUE(sim_->Start(&error)) << error;
        ASSERT_EQ(cam_->OpenMainStreamVideo(sim_->Url().c_str()), 0);
        cam_->SetVideoBufCallBack(&OnVideo, &view_);
        ASSERT_EQ(cam_->SetDecodeEnable(true, true), 0);
        ASSERT_TRUE(WaitFor([&] { return view_.Count() >= 5; }, 8000)) << "no pictures";
    }

    std::string Base() const { return dir_.path() + "/VMS/cam+3"; }

    TempDir dir_;
    CIpCameraManager* mgr_ = nullptr;
    CIpCamera* cam_ = nullptr;
    HostView view_;
    std::unique_ptr<camsim::Server> sim_;
};

TEST_F(LiveCameraTest, Delivery_BothLayoutsFromSimulatorAndDisplay) {
    for (int yuv : {0, 1}) {
        SCOPED_TRACE(yuv ? "I420" : "BGR24");
        cam_->SetYuvDisplay(yuv);
        {
            // The previous round's stream still delivers until OpenSim replaces it.
            std::lock_guard<std::mutex> lock(view_.mu);
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
            // Scene A's background is a dark gradient growing to the right:
            // luma (or green) is higher at the right edge than the left.
            const size_t row = 200;  // away from the clock box and the square
            auto at = [&](int x) {
                return yuv ? view_.last[row * 320 + x] : view_.last[(row * 320 + x) * 3 + 1];
            };
            EXPECT_GT(at(310), at(10) + 20);
        }

        // A layout asked for now is for the next open: the open stream's
        // pictures keep theirs, in snapshots as in the display below.
        cam_->SetYuvDisplay(!yuv);
        const int serial = CIpCamera::s_nImageSerial.load();
        ASSERT_EQ(cam_->SaveImage(1, 1), 0);
        const std::string shotRx = R"(cam_\d{8}-\d{6}_1_)" + std::to_string(serial) + R"(\.jpg)";
        ASSERT_TRUE(WaitFor([&] { return !Matching(Base() + "/IMAGE-MANUAL", shotRx).empty(); }, 3000));
        const int written = view_.Count();  // the file is complete once the next picture came
        ASSERT_TRUE(WaitFor([&] { return view_.Count() >= written + 2; }, 3000));
        const std::vector<unsigned char> gray =
            Decode(Matching(Base() + "/IMAGE-MANUAL", shotRx)[0], dir_, "gray");
        ASSERT_EQ(gray.size(), 320u * 240);
        // Below the moving square: scene A's gradient, from about 30 (40 in
        // the stream's own range) at the left to 100 at the right.
        const double left = MeanGray(gray, 320, 0, 180), right = MeanGray(gray, 320, 300, 180);
        EXPECT_GT(right - left, 45) << left << " .. " << right;
        EXPECT_NEAR(right, 98, 10);

        CMemoryDC dc(324, 243);
        ASSERT_EQ(cam_->StartDisplay(&dc, 324, 243), 0);
        const int seen = view_.Count();
        ASSERT_TRUE(WaitFor([&] { return view_.Count() >= seen + 3; }, 3000));
        EXPECT_GT(dc.GetPaintCount(), 0);
        EXPECT_NE(dc.GetPixel(10, 200), dc.GetPixel(310, 200)) << "the picture, not a flat fill";
        EXPECT_EQ(dc.GetPixel(321, 100), 0u) << "margin";
        cam_->StopDisplay();
        std::lock_guard<std::mutex> lock(view_.mu);
        view_.count = 0;
    }
}

TEST_F(LiveCameraTest, Delivery_RtspStreamReachesTheHost) {
    if (!camctl_test::RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings";
    camctl_test::RtspServer server({{"/cam", camctl_test::RtspServer::H264(320, 240, 25, 25)}});
    ASSERT_TRUE(server.ok()) << server.Log();
    ASSERT_EQ(cam_->OpenMainStreamVideo(server.Url("/cam").c_str()), 0);
    cam_->SetVideoBufCallBack(&OnVideo, &view_);
    ASSERT_EQ(cam_->SetDecodeEnable(true, true), 0);
    ASSERT_TRUE(WaitFor([&] { return view_.Count() >= 10; }, 10000));
    std::lock_guard<std::mutex> lock(view_.mu);
    EXPECT_EQ(view_.width, 320);
    EXPECT_EQ(view_.height, 240);
}

// Why an open failed, for each failure a user meets, against real servers;
// every open ends within its deadlines (TCP, then UDP for RTSP).
TEST_F(LiveCameraTest, OpenFailure_ReasonForEachKindOfSource) {
    using camctl_test::RtspServer;
    if (!RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings";
    const std::string video = RtspServer::H264(160, 120, 25, 25);
    RtspServer server({{"/basic", video, RtspServer::Auth::kBasic, "viewer", "s3cret"},
                       {"/digest", video, RtspServer::Auth::kDigest, "viewer", "s3cret"},
                       {"/audio", "( audiotestsrc is-live=true ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! "
                                  "rtppcmupay name=pay0 )"}});
    ASSERT_TRUE(server.ok()) << server.Log();
    camctl_test::SilentServer silent;
    const std::string nobody = "127.0.0.1:" + std::to_string(camctl_test::FreeLoopbackPort());
    const std::string text = dir_.path() + "/notes.mp4";
    std::ofstream(text) << "a text file, not a video\n";
    struct Row {
        const char* name;
        std::string url;
        int reason;
    };
    const Row rows[] = {
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
        {"missing file", dir_.path() + "/missing.mp4", CAMCTL_OPEN_NOT_FOUND},
        {"not a media file", text, CAMCTL_OPEN_NO_VIDEO},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        const auto start = Clock::now();
        const int rc = cam_->OpenMainStreamVideo(row.url.c_str());
        EXPECT_LT(Clock::now() - start, std::chrono::milliseconds(2 * kNetOpenTimeoutMs + 5000));
        char detail[256] = "unchanged";
        EXPECT_EQ(cam_->GetOpenFailure(true, detail, sizeof detail), row.reason) << detail;
        EXPECT_EQ(rc, row.reason == CAMCTL_OPEN_OK ? 0 : -1);
        EXPECT_EQ(detail[0] == '\0', row.reason == CAMCTL_OPEN_OK) << detail;
    }
    // A sub stream that fails is no error for the caller, but says why.
    ASSERT_EQ(cam_->OpenMainStreamVideo(server.Url("/basic", "viewer:s3cret").c_str()), 0);
    EXPECT_EQ(cam_->OpenSubStreamVideo(server.Url("/digest").c_str()), 0);
    EXPECT_EQ(cam_->GetOpenFailure(false, nullptr, 0), CAMCTL_OPEN_UNAUTHORIZED);
    EXPECT_EQ(cam_->GetOpenFailure(true, nullptr, 0), CAMCTL_OPEN_OK);
}

TEST_F(LiveCameraTest, Recording_ManualFileNamedWithItsLengthAndAlwaysFinished) {
    OpenSim(Pattern(320, 240));
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    EXPECT_EQ(cam_->GetRecordFlags(), 1u);
    const int shown = view_.Count();
    ASSERT_TRUE(WaitFor([&] { return view_.Count() >= shown + 83; }, 30000));  // 3.3 s of pictures
    ASSERT_EQ(cam_->StopSaveAvi(1), 0);
    EXPECT_EQ(cam_->GetRecordFlags(), 0u);

    // The file's length counts from its first key frame (at most one GOP,
    // 1 s, after the start).
    std::vector<std::string> files = Matching(Base() + "/MS_Record", R"(cam\+3_\d{8}-\d{6}_1_[23]\.avi)");
    ASSERT_EQ(files.size(), 1u) << ::testing::PrintToString(ListFiles(dir_.path()));
    const double probed = std::atof(
        camctl_test::Ffprobe("-show_entries format=duration -of csv=p=0", files[0]).c_str());
    const int named = std::atoi(files[0].substr(files[0].rfind("_1_") + 3).c_str());
    EXPECT_NEAR(probed, named + 0.5, 0.75) << "the name gives the whole seconds recorded";
    EXPECT_EQ(camctl_test::Ffprobe("-select_streams v -show_entries stream=codec_name -of csv=p=0",
                                   files[0]),
              "h264\n");
    const int packets = std::atoi(camctl_test::Ffprobe(
        "-select_streams v -count_packets -show_entries stream=nb_read_packets -of csv=p=0",
        files[0]).c_str());
    EXPECT_GE(packets, 40) << "about 3 s at 25 fps, from the first key frame";
    EXPECT_TRUE(Matching(dir_.path(), R"(cam\+3_\d{8}-\d{6}_1\.avi)").empty()) << "no provisional name left";

    // Reopening the stream and deleting the camera both finish the file.
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    const int before_reopen = view_.Count();
    ASSERT_TRUE(WaitFor([&] { return view_.Count() >= before_reopen + 30; }, 30000));
    ASSERT_EQ(cam_->OpenMainStreamVideo(sim_->Url().c_str()), 0);
    EXPECT_EQ(cam_->GetRecordFlags(), 0u);
    ASSERT_TRUE(WaitFor([&] { return view_.Count() >= 5; }, 5000));
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(1200));  // a key frame starts the file
    ASSERT_EQ(mgr_->DelIpCamera(3), 0);
    EXPECT_TRUE(Matching(dir_.path(), R"(cam\+3_\d{8}-\d{6}_1\.avi)").empty())
        << ::testing::PrintToString(ListFiles(dir_.path()));
    EXPECT_EQ(Matching(dir_.path(), R"(cam\+3_\d{8}-\d{6}_1_\d+\.avi)").size(), 3u);
}

TEST_F(LiveCameraTest, Recording_SegmentsFollowEachOtherWithoutGaps) {
    OpenSim(Pattern(320, 240));
    cam_->m_nAutoRecordSec = 1;  // a new file once more than 1 s has passed
    const int first = view_.Count();
    ASSERT_EQ(cam_->StartSaveAvi(1), 0);
    ASSERT_TRUE(WaitFor([&] { return view_.Count() >= first + 162; }, 60000));  // 6.5 s of pictures
    ASSERT_EQ(cam_->StopSaveAvi(1), 0);
    const int shown = view_.Count() - first;

    std::vector<std::string> files = Matching(Base() + "/MS_Record", R"(cam\+3_\d{8}-\d{6}_1_\d+\.avi)");
    std::sort(files.begin(), files.end());
    ASSERT_GE(files.size(), 3u) << ::testing::PrintToString(files);
    ASSERT_LE(files.size(), 4u) << ::testing::PrintToString(files);
    int frames = 0;
    for (const std::string& f : files) {
        frames += std::atoi(camctl_test::Ffprobe(
            "-select_streams v -count_packets -show_entries stream=nb_read_packets -of csv=p=0",
            f).c_str());
    }
    // Every segment starts at a key frame (one per 25 pictures): each cut
    // may lose at most one GOP, and the start waits for the first one.
    const int expected = shown;
    EXPECT_GE(frames, expected - 25 * static_cast<int>(files.size()) - 10)
        << frames << " of about " << expected;
    EXPECT_LE(frames, expected + 35);  // pictures the decoder dropped were still recorded
}

TEST_F(LiveCameraTest, Motion_SceneSwitchRecordsAndTakesSnapshot) {
    // Type 1: a snapshot per event, and a recording whose asked-for 20 s
    // are cut to 5 s.
    cam_->SetMotionSaveType(1, 1, 20);
    cam_->NotifyMotionSave(1);
    OpenSim(Pattern(320, 240, 75));  // the scene switches every 3 s
    ASSERT_TRUE(WaitFor([&] { return (cam_->GetRecordFlags() & 2u) != 0; }, 9000))
        << "no motion recording";
    EXPECT_GE(cam_->GetMotionCount(), 1);
    ASSERT_TRUE(WaitFor([&] {
        return !Matching(Base() + "/MS_Record", R"(cam\+3_\d{8}-\d{6}_2_\d+\.avi)").empty();
    }, 8000)) << ::testing::PrintToString(ListFiles(dir_.path()));
    std::vector<std::string> jpgs = Matching(Base() + "/IMAGE", R"(cam_\d{8}-\d{6}_2_\d+\.jpg)");
    ASSERT_GE(jpgs.size(), 1u);
    EXPECT_EQ(camctl_test::Ffprobe("-show_entries stream=width,height -of csv=p=0", jpgs[0]),
              "320,240\n");
    std::vector<std::string> avis = Matching(Base(), R"(cam\+3_\d{8}-\d{6}_2_(\d+)\.avi)");
    ASSERT_FALSE(avis.empty());
    const int len = std::atoi(avis[0].substr(avis[0].rfind("_2_") + 3).c_str());
    // Stopped once more than 5 whole seconds passed; the file's length
    // counts from its first key frame, up to 1 s after the start.
    EXPECT_GE(len, 4);
    EXPECT_LE(len, 7);
}

TEST_F(LiveCameraTest, Motion_DetectedOnSubStreamPicturesAlone) {
    // The usual grid view: only the smaller sub stream is decoded; the
    // detector, started at the main stream's size, scans its pictures.
    cam_->SetMotionSaveType(0, 1, 2);
    cam_->NotifyMotionSave(1);
    OpenSim(Pattern(480, 360));
    camsim::Server sub(Pattern(320, 240, 50));
    ASSERT_TRUE(sub.Start());
    ASSERT_EQ(cam_->OpenSubStreamVideo(sub.Url().c_str()), 0);
    ASSERT_TRUE(cam_->HasSubStream());
    ASSERT_EQ(cam_->SetDecodeEnable(false, true), 0);
    EXPECT_TRUE(WaitFor([&] { return cam_->GetMotionCount() >= 1; }, 10000));
}

TEST_F(LiveCameraTest, Snapshot_BurstOfThreeOneSecondApart) {
    OpenSim(Pattern(320, 240));
    // The timer asks for the next picture of a burst once time()'s whole
    // second has moved on; a request still waiting for its picture is then
    // replaced. Asking early in a second (but clear of its start, where the
    // coarse clock behind time() may still show the last one) leaves the
    // first request its picture.
    ASSERT_TRUE(WaitFor([] {
        timespec now{};
        clock_gettime(CLOCK_REALTIME, &now);
        return now.tv_nsec > 100000000 && now.tv_nsec < 400000000;
    }, 1500));
    const int serial = CIpCamera::s_nImageSerial.load();
    ASSERT_EQ(cam_->SaveImage(1, 3), 0);
    ASSERT_TRUE(WaitFor([&] {
        return Matching(Base() + "/IMAGE-MANUAL", R"(.*\.jpg)").size() >= 3;
    }, 8000));
    std::this_thread::sleep_for(std::chrono::milliseconds(1300));
    std::vector<std::string> jpgs = Matching(Base() + "/IMAGE-MANUAL", R"(cam_\d{8}-\d{6}_1_\d+\.jpg)");
    ASSERT_EQ(jpgs.size(), 3u) << "a burst of three, no more";
    std::vector<int> serials;
    std::vector<double> mtimes;
    for (const std::string& f : jpgs) {
        serials.push_back(std::atoi(f.substr(f.rfind('_') + 1).c_str()));
        struct stat st {};
        stat(f.c_str(), &st);
        mtimes.push_back(st.st_mtim.tv_sec + st.st_mtim.tv_nsec / 1e9);
    }
    std::sort(serials.begin(), serials.end());
    EXPECT_EQ(serials, (std::vector<int>{serial, serial + 1, serial + 2}));
    std::sort(mtimes.begin(), mtimes.end());
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
    OpenSim(Pattern(320, 240, 150));  // the scene switches at 6 s

    ASSERT_TRUE(WaitFor([&] { return cam_->GetRecordFlags() == 4u; }, 8000));
    const double startedAfter = std::chrono::duration<double>(Clock::now() - opened).count();
    EXPECT_GT(startedAfter, 3.0);
    EXPECT_LT(startedAfter, 6.0);

    // The scene switch: the schedule's file ends, a motion file runs 2 s,
    // then the schedule resumes in a new file.
    ASSERT_TRUE(WaitFor([&] { return (cam_->GetRecordFlags() & 2u) != 0; }, 6000));
    EXPECT_EQ(cam_->GetRecordFlags(), 6u);
    cam_->NotifyMotionSave(0);  // one motion event is enough
    ASSERT_TRUE(WaitFor([&] { return cam_->GetRecordFlags() == 4u; }, 5000));
    char resumed[256];
    ASSERT_TRUE(WaitFor([&] {
        cam_->GetRecordingPath(resumed, sizeof resumed);
        return std::string(resumed).find("_4.avi") != std::string::npos;
    }, 2000));

    ASSERT_EQ(cam_->ResetAutoSaveTime(), 0);
    ASSERT_TRUE(WaitFor([&] { return cam_->GetRecordFlags() == 0u; }, 2500));
    EXPECT_FALSE(FileExists(resumed)) << "renamed with its length";

    std::vector<std::string> files = Matching(Base() + "/MS_Record", R"(cam\+3_\d{8}-\d{6}_\d_\d+\.avi)");
    std::sort(files.begin(), files.end());
    std::string reasons;
    const std::regex reasonRx(R"(_(\d)_\d+\.avi$)");
    for (const std::string& f : files) {
        std::smatch m;
        if (std::regex_search(f, m, reasonRx)) reasons += m[1].str();
    }
    // Names sort by start time; within one second the order is 4, 2, 4.
    ASSERT_EQ(files.size(), 3u) << ::testing::PrintToString(files);
    EXPECT_EQ(std::count(reasons.begin(), reasons.end(), '4'), 2) << reasons;
    EXPECT_EQ(std::count(reasons.begin(), reasons.end(), '2'), 1) << reasons;
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
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    a.join();
    b.join();
    // Still a working camera.
    ASSERT_EQ(cam_->OpenMainStreamVideo(url.c_str()), 0);
    cam_->SetVideoBufCallBack(&OnVideo, &view_);
    ASSERT_EQ(cam_->SetDecodeEnable(true, true), 0);
    const int seen = view_.Count();
    EXPECT_TRUE(WaitFor([&] { return view_.Count() >= seen + 3; }, 8000));
}

TEST_F(LiveCameraTest, SubStream_RulesAndDecodeSwitch) {
    OpenSim(Pattern(320, 240));
    std::string upper = sim_->Url();
    std::transform(upper.begin(), upper.end(), upper.begin(), ::toupper);
    EXPECT_EQ(cam_->OpenSubStreamVideo(upper.c_str()), 0);
    EXPECT_FALSE(cam_->HasSubStream()) << "same URL in other case";
    EXPECT_EQ(cam_->OpenSubStreamVideo("rt"), 0);
    EXPECT_FALSE(cam_->HasSubStream()) << "too short";

    camsim::Server small(Pattern(160, 120));
    ASSERT_TRUE(small.Start());
    ASSERT_EQ(cam_->OpenSubStreamVideo(small.Url().c_str()), 0);
    ASSERT_TRUE(cam_->HasSubStream());
    EXPECT_TRUE(cam_->IsSubVideoOpenSuc());
    cam_->SetVideoBufCallBack(&OnVideo, &view_);
    ASSERT_EQ(cam_->SetDecodeEnable(false, true), 0);
    auto lastWidth = [&] {
        std::lock_guard<std::mutex> lock(view_.mu);
        return view_.width;
    };
    ASSERT_TRUE(WaitFor([&] { return lastWidth() == 160; }, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_EQ(lastWidth(), 160) << "the main stream is no longer decoded";
    ASSERT_EQ(cam_->SetDecodeEnable(true, true), 0);
    ASSERT_TRUE(WaitFor([&] { return lastWidth() == 320; }, 5000));

    // A sub stream that cannot be opened leaves the camera on its main one.
    const std::string dead = "http://127.0.0.1:" + std::to_string(camctl_test::FreeLoopbackPort()) + "/x";
    EXPECT_EQ(cam_->OpenSubStreamVideo(dead.c_str()), 0);
    EXPECT_FALSE(cam_->HasSubStream());
    EXPECT_TRUE(cam_->IsSubVideoOpenSuc()) << "reports the main stream";
}

}  // namespace
