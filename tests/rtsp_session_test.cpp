// Live sessions against a real RTSP server on 127.0.0.1: every codec in both
// picture layouts, the decode switch, queue overflow, lost and frozen
// servers, credentials in log lines.
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>

#include "camctl/UrlVideoSession.h"
#include "engine/engine.h"
#include "support/engine_support.h"
#include "support/logging_session.h"
#include "support/fixtures.h"
#include "support/rtsp_server.h"

using camctl_test::Fixture;
using camctl_test::PictureLog;
using camctl_test::RtspServer;
using camctl_test::StderrCapture;
using camctl_test::TimeMs;

namespace {

using TestUrlSession = camctl_test::LoggingUrlSession;

std::string Mpeg4Mkv() {
    return Fixture("rtsp_mpeg4_20s.mkv",
                   "-f lavfi -i testsrc2=size=176x144:rate=25 -t 20 -c:v mpeg4 -q:v 5 -bf 0 -g 25");
}

class RtspTest : public ::testing::Test {
protected:
    void SetUp() override {
        if (!RtspServer::Available()) GTEST_SKIP() << "GStreamer RTSP server (python3-gi) not installed";
    }
    std::unique_ptr<RtspServer> Start(const std::vector<RtspServer::Mount>& mounts) {
        auto server = std::make_unique<RtspServer>(mounts);
        EXPECT_TRUE(server->ok()) << server->Log();
        return server;
    }
};

struct LiveCase {
    const char* name;
    std::string (*launch)();
    int codecNumber;
    int width;
    int height;
};

class RtspCodecTest : public RtspTest, public ::testing::WithParamInterface<LiveCase> {};

TEST_P(RtspCodecTest, BothLayoutsDeliverPicturesOfTheStreamSize) {
    const LiveCase& c = GetParam();
    auto server = Start({{"/live", c.launch()}});
    ASSERT_TRUE(server->ok());
    TestUrlSession bgr, yuv;
    yuv.log.KeepBytes(true);
    bgr.log.KeepBytes(true);
    ASSERT_EQ(bgr.Open(server->Url("/live"), 0), 0) << server->Log();
    ASSERT_EQ(yuv.Open(server->Url("/live"), 1), 0) << server->Log();
    EXPECT_EQ(bgr.GetVideoCodec(), c.codecNumber);
    EXPECT_EQ(bgr.GetVideoWidth(), c.width);  // known before the first picture
    EXPECT_EQ(bgr.GetVideoHeight(), c.height);
    EXPECT_EQ(bgr.GetFrequency(), 24);  // the 90 kHz RTP clock is out of range
    ASSERT_TRUE(bgr.log.WaitForCount(5, 8000)) << bgr.log.Count();
    ASSERT_TRUE(yuv.log.WaitForCount(5, 8000)) << yuv.log.Count();
    PictureLog::Picture b = bgr.log.Last(), y = yuv.log.Last();
    EXPECT_EQ(b.width, c.width);
    EXPECT_EQ(b.height, c.height);
    EXPECT_EQ(b.bytes.size(), size_t(c.width) * c.height * 3);
    EXPECT_EQ(y.width, c.width);
    EXPECT_EQ(y.bytes.size(), size_t(c.width) * c.height * 3 / 2);
    EXPECT_FALSE(bgr.IsPlayFinish());
    if (c.codecNumber == 0) {  // the H.264 stream carries G.711 mu-law audio too
        EXPECT_EQ(bgr.Context()->m_nAudioCodecId, AV_CODEC_ID_PCM_MULAW);
        EXPECT_TRUE(PictureLog::WaitUntil([&] { return bgr.audioSamples > 4000; }, 3000));
        EXPECT_EQ(bgr.audioRate, 8000);
    }
    EXPECT_EQ(bgr.VideoFree(), 0);
    EXPECT_EQ(yuv.VideoFree(), 0);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, RtspCodecTest,
    ::testing::Values(LiveCase{"H264", [] { return RtspServer::H264(320, 240, 25, 25, true); }, 0, 320, 240},
                      LiveCase{"Mpeg4", [] { return RtspServer::Mpeg4File(Mpeg4Mkv()); }, 1, 176, 144},
                      LiveCase{"Mjpeg", [] { return RtspServer::Mjpeg(320, 240, 25); }, 2, 320, 240},
                      LiveCase{"Hevc", [] { return RtspServer::H265(320, 240, 25, 25); }, 3, 320, 240}),
    [](const ::testing::TestParamInfo<LiveCase>& i) { return i.param.name; });

TEST_F(RtspTest, DecodeSwitch_NothingQueuedUntilEnabledThenKeyFrameFirst) {
    auto server = Start({{"/h264", RtspServer::H264(160, 120, 50, 10)}});
    ASSERT_TRUE(server->ok());
    TestUrlSession s;
    ASSERT_EQ(s.VideoInit(&s, server->Url("/h264").c_str()), 0);  // decoding off
    FFMpegContext* ctx = s.Context();
    // The key frame kept from the picture-size probe is dropped undecoded.
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return GetAVPktListElmCount(ctx) == 0; }, 2000));
    std::this_thread::sleep_for(std::chrono::milliseconds(500));  // 25 packets go by
    EXPECT_EQ(GetAVPktListElmCount(ctx), 0);
    EXPECT_EQ(s.log.Count(), 0);

    // Hold the decoder on its first picture so the queue can be inspected.
    std::atomic<bool> hold{true};
    s.log.SetHook([&] {
        while (hold) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    ASSERT_EQ(s.SetDecodeEnbale(1), 0);
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return GetAVPktListElmCount(ctx) >= 3; }, 3000));
    // Once started, queueing goes on with decoding switched off again.
    ASSERT_EQ(s.SetDecodeEnbale(0), 0);
    int queued = GetAVPktListElmCount(ctx);
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return GetAVPktListElmCount(ctx) > queued + 5; }, 3000));
    hold = false;
    s.VideoFree();
}

TEST_F(RtspTest, StalledConsumer_OverflowFlushesAndResumesAtKeyFrame) {
    auto server = Start({{"/fast", RtspServer::H264(160, 120, 100, 10)}});
    ASSERT_TRUE(server->ok());
    TestUrlSession s;
    std::atomic<bool> hold{false};
    s.log.SetHook([&] {
        while (hold) std::this_thread::sleep_for(std::chrono::milliseconds(5));
    });
    StderrCapture err;
    ASSERT_EQ(s.Open(server->Url("/fast"), 0), 0);
    ASSERT_TRUE(s.log.WaitForCount(3, 5000));
    hold = true;  // the decode thread stalls inside the next delivery
    FFMpegContext* ctx = s.Context();
    ASSERT_TRUE(PictureLog::WaitUntil(
        [&] { return err.Text().find("GetAVPktListElmCount :101") != std::string::npos; }, 5000));
    // After the flush the queue starts again at a key frame.
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return GetAVPktListElmCount(ctx) >= 1; }, 2000));
    os_mutex_lock(ctx->m_hVideoPktLock);
    auto* head = static_cast<AVPacket*>(os_list_get(ctx->m_pVideoPktList, 0));
    bool headIsKey = head && (head->flags & AV_PKT_FLAG_KEY);
    os_mutex_unlock(ctx->m_hVideoPktLock);
    EXPECT_TRUE(headIsKey);
    EXPECT_LE(GetAVPktListElmCount(ctx), 101);

    int before = s.log.Count();
    hold = false;
    EXPECT_TRUE(s.log.WaitForCount(before + 20, 5000));
    EXPECT_FALSE(s.IsPlayFinish());
    s.VideoFree();
}

TEST_F(RtspTest, KilledServer_EndsReaderAndCloseIsQuick) {
    auto server = Start({{"/h264", RtspServer::H264(160, 120, 25, 25)}});
    ASSERT_TRUE(server->ok());
    TestUrlSession s;
    ASSERT_EQ(s.Open(server->Url("/h264"), 1), 0);
    ASSERT_TRUE(s.log.WaitForCount(3, 5000));
    server->Kill();
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, 3000));
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), 1000);
}

TEST_F(RtspTest, FrozenServer_CloseReturnsWithinOneSecond) {
    auto server = Start({{"/h264", RtspServer::H264(160, 120, 25, 25)}});
    ASSERT_TRUE(server->ok());
    TestUrlSession s;
    ASSERT_EQ(s.Open(server->Url("/h264"), 0), 0);
    ASSERT_TRUE(s.log.WaitForCount(3, 5000));
    server->Freeze();  // the connection stays open but nothing arrives
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    EXPECT_FALSE(s.IsPlayFinish());
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), 1000);
    server->Thaw();
}

TEST_F(RtspTest, FrozenServer_ReadTimeoutEndsReader) {
    auto server = Start({{"/h264", RtspServer::H264(160, 120, 25, 25)}});
    ASSERT_TRUE(server->ok());
    TestUrlSession s;
    ASSERT_EQ(s.Open(server->Url("/h264"), 0), 0);
    ASSERT_TRUE(s.log.WaitForCount(3, 5000));
    server->Freeze();
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, int(kNetReadTimeoutMs) + 3000));
    s.VideoFree();
    server->Thaw();
}

TEST_F(RtspTest, PlaybackPausedLongerThanAReadThenSought_GoesOn) {
    auto server = Start({{"/playback/clip", RtspServer::Mpeg4File(Mpeg4Mkv())}});
    ASSERT_TRUE(server->ok());
    camctl_test::LoggingFileSession s;
    ASSERT_EQ(s.Open(server->Url("/playback/clip"), 0), 0) << server->Log();
    ASSERT_GE(s.GetTotalDuration(), 5) << "the server announces the clip's length";
    ASSERT_TRUE(s.log.WaitForCount(3, 8000));
    ASSERT_EQ(s.Pause(), 0);
    // The pause outlasts a read's deadline; the seek gets one of its own.
    std::this_thread::sleep_for(std::chrono::milliseconds(kNetReadTimeoutMs + 1000));
    ASSERT_EQ(s.SeekTime(10), 0);
    const int seen = s.log.Count();
    ASSERT_EQ(s.Resume(), 0);
    EXPECT_TRUE(s.log.WaitForCount(seen + 30, 10000)) << s.log.Count() - seen;
    EXPECT_FALSE(s.IsPlayFinish());
}

TEST_F(RtspTest, FirstKeyFrameAfterTheOpenDeadline_ProbeEndsAndTheStreamGoesOn) {
    // A camera joined between key frames: 14 s of 15 fps pictures that need
    // a key frame before them. The probe's 200 packets take longer than an
    // open's deadline and give no picture.
    const std::string clip = Fixture("rtsp_h264_late_key.mkv",
                                     "-f lavfi -i testsrc2=size=160x120:rate=15 -t 30 -c:v libx264 "
                                     "-preset ultrafast -bf 0 -g 225 -pix_fmt yuv420p -bsf:v 'noise=drop=lt(n\\,15)'");
    auto server = Start({{"/late", "( filesrc location=" + clip +
                                       " ! matroskademux ! h264parse ! rtph264pay name=pay0 pt=96 config-interval=1 )"}});
    ASSERT_TRUE(server->ok());
    TestUrlSession s;
    ASSERT_EQ(s.Open(server->Url("/late"), 0), 0) << server->Log();
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return s.GetNetRateInfo() > 0; }, 6000));
    EXPECT_FALSE(s.IsPlayFinish());
}

TEST_F(RtspTest, Credentials_NeverLoggedInClear) {
    auto server = Start({{"/h264", RtspServer::H264(160, 120, 25, 25)}});
    ASSERT_TRUE(server->ok());
    StderrCapture err;
    TestUrlSession s;
    EXPECT_EQ(s.VideoInit(&s, server->Url("/missing", "admin:s3cret").c_str()), -1);
    ASSERT_EQ(s.VideoInit(&s, server->Url("/h264", "admin:s3cret").c_str()), 0);
    s.VideoFree();
    err.Stop();
    std::string text = err.Text();
    EXPECT_NE(text.find("admin:***@127.0.0.1"), std::string::npos) << text;
    EXPECT_EQ(text.find("s3cret"), std::string::npos) << text;
}

TEST_F(RtspTest, RefusedConnection_FailsFast) {
    int port = camctl_test::FreeLoopbackPort();
    TestUrlSession s;
    std::string url = "rtsp://127.0.0.1:" + std::to_string(port) + "/none";
    EXPECT_LT(TimeMs([&] { EXPECT_EQ(s.VideoInit(&s, url.c_str()), -1); }), 2000);
}

TEST_F(RtspTest, SmoothStream_WithoutReleasesOnePicturePerSecond) {
    auto server = Start({{"/h264", RtspServer::H264(160, 120, 25, 25)}});
    ASSERT_TRUE(server->ok());
    TestUrlSession s;
    s.SetSmoothStream(1);
    ASSERT_EQ(s.Open(server->Url("/h264"), 0), 0);
    ASSERT_TRUE(s.log.WaitForCount(1, 3000));
    int first = s.log.Count();
    std::this_thread::sleep_for(std::chrono::milliseconds(2100));
    int more = s.log.Count() - first;
    EXPECT_GE(more, 1);  // a stalled host slows delivery but never stops it
    EXPECT_LE(more, 3);
    // A display timer calling every 2 ms: a release about every half frame
    // interval (20 ms at 25 fps) in calls, sooner while the queue is long.
    EXPECT_GT(s.Context()->m_nHalfFrameInterval, 10);
    EXPECT_LT(s.Context()->m_nHalfFrameInterval, 30);
    for (int i = 0; i < 200; ++i) {
        s.SendVideoCond();
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_GE(s.log.Count() - first - more, 10);

    // Right after a delivery the decoder waits a whole second for its next
    // release; closing wakes it.
    int n = s.log.Count();
    ASSERT_TRUE(s.log.WaitForCount(n + 1, 2000));
    EXPECT_LT(TimeMs([&] { s.VideoFree(); }), 500);
}

TEST_F(RtspTest, OpenCloseCycles_LeaveNoThreadBehind) {
    auto server = Start({{"/h264", RtspServer::H264(160, 120, 25, 25)},
                         {"/playback/1", RtspServer::H264(160, 120, 25, 25)}});
    ASSERT_TRUE(server->ok());
    const int threads = camctl_test::CountThreads();
    for (int i = 0; i < 5; ++i) {
        TestUrlSession s;
        s.SetSmoothStream(i % 2);
        ASSERT_EQ(s.Open(server->Url(i < 3 ? "/h264" : "/playback/1"), i % 2), 0);
        // A playback source is never paced by the smooth-stream hand-over.
        EXPECT_EQ(s.Context()->m_bSmooth, i < 3 ? i % 2 : 0);
        ASSERT_TRUE(s.log.WaitForCount(1, 5000));
        EXPECT_EQ(s.VideoFree(), 0);
    }
    EXPECT_EQ(camctl_test::CountThreads(), threads);
}

}  // namespace
