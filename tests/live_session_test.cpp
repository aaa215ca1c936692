// Catches: a live source (RTSP or the private HTTP stream) giving the wrong codec, size, layout or audio rate, pictures decoded while the switch is off, a stalled host that never resumes after the queue overflow, smooth pacing that stops or forgets its wait, wrong open-failure reasons, passwords in log lines.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <tuple>

#include "camctl/OpenFailure.h"
#include "camsim/server.h"
#include "support/engine_support.h"
#include "support/fixtures.h"
#include "support/logging_session.h"
#include "support/rtsp_server.h"

using camctl_test::PictureLog;
using camctl_test::RtspServer;
using camctl_test::StderrCapture;
using camctl_test::TimeMs;
using Session = camctl_test::LoggingUrlSession;

namespace {

std::string Mpeg4Mkv() { return camctl_test::Fixture("rtsp_mpeg4_20s.mkv", "-f lavfi -i testsrc2=size=176x144:rate=25 -t 20 -c:v mpeg4 -q:v 5 -bf 0 -g 25"); }

// A running source: an RTSP server when launch is set, else the simulator.
struct Source {
    Source(const std::string& launch, camsim::Options o) {
        if (!launch.empty()) rtsp = std::make_unique<RtspServer>(std::vector<RtspServer::Mount>{{"/live", launch}});
        else sim = std::make_unique<camsim::Server>(o);
        EXPECT_TRUE(rtsp ? rtsp->ok() : sim->Start()) << (rtsp ? rtsp->Log() : "");
        url = rtsp ? rtsp->Url("/live") : sim->Url();
    }
    std::unique_ptr<RtspServer> rtsp;
    std::unique_ptr<camsim::Server> sim;
    std::string url;
};

camsim::Options Sim(camsim::VideoCodec codec, int width, int height) {
    camsim::Options o;
    o.pattern.codec = codec, o.pattern.width = width, o.pattern.height = height;
    return o;
}

struct CodecRow {
    const char* name;
    std::string (*launch)();  // null: the simulator
    camsim::VideoCodec sim;
    int codec, width, height;
    int audioRate;  // 0: no audio
};

class LiveCodecTest : public ::testing::TestWithParam<CodecRow> {};

TEST_P(LiveCodecTest, BothLayoutsDeliverPicturesOfTheStreamSize) {
    const CodecRow& c = GetParam();
    if (c.launch && !RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings (python3-gi)";
    Source src(c.launch ? c.launch() : "", Sim(c.sim, c.width, c.height));
    ASSERT_FALSE(src.url.empty());
    Session bgr, yuv;
    for (Session* s : {&bgr, &yuv}) s->log.KeepBytes(true);
    ASSERT_EQ(bgr.Open(src.url, 0), 0);
    ASSERT_EQ(yuv.Open(src.url, 1), 0);
    EXPECT_EQ(bgr.GetVideoCodec(), c.codec);
    EXPECT_EQ(std::make_pair(bgr.GetVideoWidth(), bgr.GetVideoHeight()), std::make_pair(c.width, c.height));  // before the first picture
    EXPECT_TRUE(!c.launch || bgr.GetFrequency() == 24) << "the 90 kHz RTP clock is out of range: " << bgr.GetFrequency();
    ASSERT_TRUE(bgr.log.WaitForCount(5, 20000) && yuv.log.WaitForCount(5, 20000)) << bgr.log.Count() << " " << yuv.log.Count();
    const PictureLog::Picture b = bgr.log.Last(), y = yuv.log.Last();
    EXPECT_EQ(std::make_tuple(b.width, b.height, b.bytes.size()), std::make_tuple(c.width, c.height, size_t(c.width) * c.height * 3));
    EXPECT_EQ(std::make_tuple(y.width, y.height, y.bytes.size()), std::make_tuple(c.width, c.height, size_t(c.width) * c.height * 3 / 2));
    EXPECT_FALSE(bgr.IsPlayFinish());
    EXPECT_TRUE(!c.audioRate || PictureLog::WaitUntil([&] { return bgr.audioSamples > 4000; }, 20000));
    EXPECT_EQ(c.audioRate ? bgr.audioRate.load() : 0, c.audioRate);
    EXPECT_EQ(bgr.VideoFree() | yuv.VideoFree(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Sources, LiveCodecTest,
    ::testing::Values(
        CodecRow{"RtspH264", [] { return RtspServer::H264(320, 240, 25, 25, true); }, {}, 0, 320, 240, 8000},
        CodecRow{"RtspMpeg4", [] { return RtspServer::Mpeg4File(Mpeg4Mkv()); }, {}, 1, 176, 144, 0},
        CodecRow{"RtspMjpeg", [] { return RtspServer::Mjpeg(320, 240, 25); }, {}, 2, 320, 240, 0},
        CodecRow{"RtspHevc", [] { return RtspServer::H265(320, 240, 25, 25); }, {}, 3, 320, 240, 0},
        CodecRow{"HttpH264", nullptr, camsim::VideoCodec::H264, 0, 320, 176, 0},
        CodecRow{"HttpMjpeg", nullptr, camsim::VideoCodec::MJPEG, 2, 320, 176, 0},
        CodecRow{"HttpHevc", nullptr, camsim::VideoCodec::HEVC, 3, 320, 176, 0}),
    [](const ::testing::TestParamInfo<CodecRow>& i) { return i.param.name; });

// Decoding off: packets flow (the rate figures, renewed after 3 s, say so) but no picture comes until the switch is on.
TEST(LiveSession, DecodeSwitchAndRateFigures) {
    Source src("", Sim(camsim::VideoCodec::H264, 160, 120));
    Session s;
    ASSERT_EQ(s.VideoInit(&s, src.url.c_str()), 0);
    EXPECT_EQ(s.GetFramesCount(), 0);
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return s.GetFramesCount() > 0; }, 20000));
    EXPECT_EQ(s.log.Count(), 0) << "pictures with decoding off";
    EXPECT_TRUE(s.GetFramesCount() >= 20 && s.GetFramesCount() <= 30) << s.GetFramesCount();  // a 25 fps camera
    EXPECT_EQ(s.GetNetFrameRate(), 0) << "packets queued with decoding off";
    EXPECT_GT(s.GetNetRateInfo(), 1.0f);  // kbit/s
    ASSERT_EQ(s.SetDecodeEnbale(1), 0);
    EXPECT_TRUE(s.log.WaitForCount(5, 20000));
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return s.GetNetFrameRate() > 0; }, 20000));
    EXPECT_TRUE(s.GetNetFrameRate() >= 15 && s.GetNetFrameRate() <= 30) << s.GetNetFrameRate();  // queued packets / 3
    EXPECT_EQ(s.VideoFree(), 0);
}

// The decode thread stalls inside a delivery: the reader flushes its full queue (and says so); pictures resume after.
TEST(LiveSession, StalledHost_OverflowFlushesAndResumes) {
    if (!RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings (python3-gi)";
    Source src(RtspServer::H264(160, 120, 100, 10), {});
    Session s;
    std::atomic<bool> hold{false};
    s.log.SetHook([&] { while (hold) std::this_thread::sleep_for(std::chrono::milliseconds(5)); });
    StderrCapture err;
    ASSERT_EQ(s.Open(src.url, 0), 0);
    ASSERT_TRUE(s.log.WaitForCount(3, 20000));
    hold = true;
    // The count is said when the full queue is flushed: past 100, by how much depends on the reader's timing.
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return std::regex_search(err.Text(), std::regex("GetAVPktListElmCount :10[1-9]")); }, 20000));
    const int before = s.log.Count();
    hold = false;
    EXPECT_TRUE(s.log.WaitForCount(before + 20, 20000));
    EXPECT_FALSE(s.IsPlayFinish());
    s.VideoFree();
}

// Smooth pacing: a host that never calls SendVideoCond still gets a picture about once a second (never sooner),
// one that calls it gets them all, and closing wakes a decoder waiting for its release.
TEST(LiveSession, SmoothStream_ReleasesAndTheSecondWait) {
    if (!RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings (python3-gi)";
    Source src(RtspServer::H264(160, 120, 25, 25), {});
    Session s;
    s.SetSmoothStream(1);
    ASSERT_EQ(s.Open(src.url, 0), 0);
    ASSERT_TRUE(s.log.WaitForCount(1, 20000));
    int n = s.log.Count();
    ASSERT_TRUE(s.log.WaitForCount(n + 1, 20000)) << "a stalled host stops delivery";
    n = s.log.Count();
    EXPECT_GE(TimeMs([&] { s.log.WaitForCount(n + 1, 20000); }), 800) << "no wait without a release";
    n = s.log.Count();
    for (int i = 0; i < 5000 && s.log.Count() < n + 10; ++i) {
        s.SendVideoCond();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_GE(s.log.Count(), n + 10) << "releases do not release pictures";
    n = s.log.Count();
    ASSERT_TRUE(s.log.WaitForCount(n + 1, 20000));
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), 500);
}

// A playback pause longer than a read's 5 s deadline, then a seek: the seek gets a deadline of its own and the clip goes on.
TEST(LiveSession, RtspPlaybackPausedThenSought_GoesOn) {
    if (!RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings (python3-gi)";
    RtspServer server({{"/playback/clip", RtspServer::Mpeg4File(Mpeg4Mkv())}});
    ASSERT_TRUE(server.ok()) << server.Log();
    camctl_test::LoggingFileSession s;
    ASSERT_EQ(s.Open(server.Url("/playback/clip"), 0), 0) << server.Log();
    ASSERT_GE(s.GetTotalDuration(), 5) << "the server announces the clip's length";
    ASSERT_TRUE(s.log.WaitForCount(3, 20000));
    ASSERT_EQ(s.Pause(), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(6000));  // the condition under test, not a wait
    ASSERT_EQ(s.SeekTime(10), 0);
    const int seen = s.log.Count();
    ASSERT_EQ(s.Resume(), 0);
    EXPECT_TRUE(s.log.WaitForCount(seen + 30, 20000)) << s.log.Count() - seen;
    EXPECT_FALSE(s.IsPlayFinish());
}

// A camera joined between key frames: the probe's 200 packets outlast the open's deadline and give no picture;
// the stream must go on regardless.
TEST(LiveSession, FirstKeyFrameAfterTheOpenDeadline_StreamGoesOn) {
    if (!RtspServer::Available()) GTEST_SKIP() << "no RTSP server bindings (python3-gi)";
    const std::string clip = camctl_test::Fixture("rtsp_h264_late_key.mkv", "-f lavfi -i testsrc2=size=160x120:rate=15 -t 30 -c:v libx264 "
                                                  "-preset ultrafast -bf 0 -g 225 -pix_fmt yuv420p -bsf:v 'noise=drop=lt(n\\,15)'");
    Source src("( filesrc location=" + clip + " ! matroskademux ! h264parse ! rtph264pay name=pay0 pt=96 config-interval=1 )", {});
    Session s;
    ASSERT_EQ(s.Open(src.url, 0), 0) << src.rtsp->Log();
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return s.GetNetRateInfo() > 0; }, 20000));
    EXPECT_FALSE(s.IsPlayFinish());
}

// Opens that fail: the reason a host can act on, the log line, and a password that never shows.
TEST(LiveSession, OpenFailures_ReasonAndMaskedPassword) {
    std::unique_ptr<RtspServer> server;
    if (RtspServer::Available()) server = std::make_unique<RtspServer>(std::vector<RtspServer::Mount>{{"/h264", RtspServer::H264(160, 120, 25, 25)}});
    const std::string refused = "127.0.0.1:" + std::to_string(camctl_test::FreeLoopbackPort());
    struct Row {
        std::string url;
        int reason;        // -1: the open succeeds
        const char* text;  // in the log
        int maxMs;         // a refused connection fails at once
    };
    std::vector<Row> rows = {
        {"http://admin:hunter2@" + refused + "/stream", CAMCTL_OPEN_UNREACHABLE, "FFMpegContextCreate  fail avio_open error(", 2000},
        {"rtsp://admin:hunter2@" + refused + "/none", CAMCTL_OPEN_UNREACHABLE, "admin:***@127.0.0.1", 2000},
    };
    if (server) {
        rows.push_back({server->Url("/missing", "admin:hunter2"), CAMCTL_OPEN_NOT_FOUND, "admin:***@127.0.0.1", 10000});
        rows.push_back({server->Url("/h264", "admin:hunter2"), -1, "FFMpegContextCreate  succ end", 10000});
    }
    for (const Row& r : rows) {
        SCOPED_TRACE(r.url);
        StderrCapture err;
        Session s;
        int rc = 0;
        EXPECT_LT(TimeMs([&] { rc = s.VideoInit(&s, r.url.c_str()); }), r.maxMs);
        EXPECT_EQ(rc, r.reason < 0 ? 0 : -1);
        char detail[512] = {};
        EXPECT_EQ(s.GetOpenFailure(detail, sizeof detail), r.reason < 0 ? CAMCTL_OPEN_OK : r.reason) << detail;
        s.VideoFree();
        err.Stop();
        const std::string text = err.Text() + detail;
        EXPECT_NE(text.find(r.text), std::string::npos) << text;
        EXPECT_EQ(text.find("hunter2"), std::string::npos) << text;
    }
}

}  // namespace
