// Catches: a closed session answering as if open, wrong sizes/codec/duration/frequency, seeks that miss their 5 s step or position, pause that goes on delivering, wrong smooth-stream release counts, leaked threads or descriptors.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>

#include "camctl/FileVideoSession.h"
#include "camctl/UrlVideoSession.h"
#include "engine/av_ptr.h"
#include "engine/engine.h"
#include "support/engine_support.h"
#include "support/logging_session.h"
#include "support/fixtures.h"

using camctl_test::Fixture;
using camctl_test::PictureLog;

namespace {

// 20 s at 25 fps in AVI (time base 1/25), a key frame every second.
std::string LongAviClip() {
    return Fixture("ses_h264_20s.avi",
                   "-f lavfi -i testsrc2=size=160x120:rate=25 -t 20 -c:v libx264 -preset ultrafast -bf 0 -g 25 "
                   "-pix_fmt yuv420p");
}
std::string ShortAviClip() {
    return Fixture("ses_mjpeg_4s.avi", "-f lavfi -i testsrc2=size=160x120:rate=25 -t 4 -c:v mjpeg -q:v 8 -pix_fmt yuvj420p");
}
std::string HevcClip() {
    return Fixture("ses_hevc_2s.mp4",
                   "-f lavfi -i testsrc2=size=192x108:rate=25 -t 2 -c:v libx265 -preset ultrafast "
                   "-x265-params log-level=error:bframes=0:keyint=25 -pix_fmt yuv420p");
}

// A file session whose pictures are logged instead of going to a player;
// the test reaches into the context through the protected members.
using TestFileSession = camctl_test::LoggingFileSession;

class TestUrlSession : public camctl_test::LoggingUrlSession {
public:
    os_cond* Signal() { return m_hFrameSignal; }
    int CondAdjust() const { return m_nCondAdjust; }
};

TEST(SessionTest, ClosedSession_AnswersWithFailureValues) {
    TestFileSession f;
    EXPECT_EQ(f.VideoFree(), -1);
    EXPECT_EQ(f.SetDecodeEnbale(1), -1);
    EXPECT_EQ(f.GetVideoWidth(), -1);
    EXPECT_EQ(f.GetVideoHeight(), -1);
    EXPECT_EQ(f.GetVideoCodec(), -1);
    EXPECT_EQ(f.SendVideoCond(), -1);
    EXPECT_EQ(f.Pause(), -1);
    EXPECT_EQ(f.Resume(), -1);
    EXPECT_FALSE(f.IsPlayFinish());
    EXPECT_EQ(f.GetTotalDuration(), -1);
    EXPECT_EQ(f.GetFrequency(), -1);
    EXPECT_EQ(f.GetCurrTime(), -1);
    EXPECT_EQ(f.SeekTime(10), -1);
    EXPECT_EQ(f.SetSpeedLevel(2), -1);
    EXPECT_EQ(f.SetD3DDisplay(1), 0);
    EXPECT_EQ(f.SetSmoothStream(1), 0);

    TestUrlSession u;
    EXPECT_EQ(u.StartSaveAvi("/tmp/x.avi"), -1);
    EXPECT_EQ(u.StopSaveAvi(), -1);
    EXPECT_EQ(u.GetSaveAviDurationSec(), 0);
    EXPECT_EQ(u.GetNetFrameRate(), -1);
    EXPECT_FLOAT_EQ(u.GetNetRateInfo(), -1.0f);
    EXPECT_EQ(u.GetFramesCount(), -1);
    EXPECT_EQ(u.GetFrequency(), -1);
    EXPECT_FALSE(u.IsPlayFinish());
    EXPECT_EQ(u.SetName("front door"), 0);
    // Without an owner the forwarding slots refuse.
    EXPECT_EQ(static_cast<CUrlVideoSession&>(u).CUrlVideoSession::DoVideoBuffer(nullptr, 1, 1), -1);
}

TEST(SessionTest, FileSession_DecodesToTheEndInBothLayouts) {
    for (int yuv : {0, 1}) {
        TestFileSession s;
        s.SetD3DDisplay(yuv);
        ASSERT_EQ(s.VideoInit(&s, ShortAviClip().c_str()), 0);
        EXPECT_EQ(s.VideoInit(&s, ShortAviClip().c_str()), -1) << "already open";
        EXPECT_EQ(s.GetVideoWidth(), 160);
        EXPECT_EQ(s.GetVideoHeight(), 120);
        EXPECT_EQ(s.GetVideoCodec(), 2);
        EXPECT_EQ(s.GetTotalDuration(), 4);
        EXPECT_EQ(s.GetFrequency(), 25);
        EXPECT_EQ(s.SetSpeedLevel(3), 0);
        ASSERT_TRUE(PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, 10000));
        ASSERT_TRUE(s.log.WaitForCount(100, 5000)) << s.log.Count();
        EXPECT_EQ(s.log.Last().width, 160);
        EXPECT_EQ(s.VideoFree(), 0);
        EXPECT_FALSE(s.IsPlayFinish());
        EXPECT_EQ(s.GetVideoWidth(), -1);
    }
}

TEST(SessionTest, SeekTime_FiveSecondStepsAndPositionFollows) {
    TestFileSession s;
    // Paced like a player, 10 ms per picture: 20 s of video last 5 s.
    s.log.SetHook([] { std::this_thread::sleep_for(std::chrono::milliseconds(10)); });
    ASSERT_EQ(s.VideoInit(&s, LongAviClip().c_str()), 0);
    EXPECT_EQ(s.GetTotalDuration(), 20);
    ASSERT_TRUE(s.log.WaitForCount(5, 5000));
    int64_t t0 = s.GetCurrTime();
    EXPECT_GE(t0, 0);
    EXPECT_LT(t0, 5);

    auto reaches = [&](int64_t lo, int64_t hi) {
        int64_t t = -1;
        bool ok = PictureLog::WaitUntil([&] { t = s.GetCurrTime(); return t >= lo && t < hi; }, 3000);
        return ok ? ::testing::AssertionSuccess() : ::testing::AssertionFailure() << "position " << t;
    };
    EXPECT_EQ(s.SeekTime(12), 0);  // 10 s
    EXPECT_TRUE(reaches(10, 12));
    EXPECT_EQ(s.SeekTime(3), 0);   // 5 s, backwards
    EXPECT_TRUE(reaches(5, 7));
    EXPECT_EQ(s.SeekTime(17), 0);  // 15 s
    EXPECT_TRUE(reaches(15, 17));
    EXPECT_EQ(s.SeekTime(-7), 0);  // 5 s
    EXPECT_TRUE(reaches(5, 7));
    EXPECT_FALSE(s.IsPlayFinish());

    // Beyond the end: the reader gives up at once.
    EXPECT_EQ(s.SeekTime(25), 0);
    EXPECT_TRUE(PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, 2000));
    s.VideoFree();
}

TEST(SessionTest, SeekTime_NothingOnFilesShorterThanFiveSeconds) {
    TestFileSession s;
    ASSERT_EQ(s.VideoInit(&s, HevcClip().c_str()), 0);  // 2 s
    EXPECT_EQ(s.SeekTime(3), 0);
    EXPECT_EQ(s.Context()->m_nSeekTarget, 0);
    EXPECT_EQ(RequestSeek(s.Context(), 12), 0);
    EXPECT_EQ(s.GetVideoCodec(), 3);
    s.VideoFree();
}

TEST(SessionTest, Pause_StopsDeliveryUntilResume) {
    TestFileSession s;
    // The decode thread is held inside a picture while the pause is set, so
    // that picture is the last one before the pause.
    std::atomic<bool> hold{false}, held{false};
    s.log.SetHook([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        while (hold) {
            held = true;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    });
    ASSERT_EQ(s.VideoInit(&s, LongAviClip().c_str()), 0);
    ASSERT_TRUE(s.log.WaitForCount(3, 5000));
    hold = true;
    ASSERT_TRUE(PictureLog::WaitUntil([&] { return held.load(); }, 5000));
    const int paused = s.log.Count() + 1;
    EXPECT_EQ(s.Pause(), 0);
    hold = false;
    ASSERT_TRUE(s.log.WaitForCount(paused, 5000));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // nothing may come meanwhile
    EXPECT_EQ(s.log.Count(), paused);
    EXPECT_EQ(s.Resume(), 0);
    EXPECT_TRUE(s.log.WaitForCount(paused + 5, 3000));
    s.VideoFree();
}

// A live session on a file: not throttled, decoding switched on by hand.
class SmoothSessionTest : public ::testing::Test {
protected:
    void Open(int mode) {
        s.SetSmoothStream(mode);
        ASSERT_EQ(s.VideoInit(&s, LongAviClip().c_str()), 0);
        ASSERT_EQ(s.SetDecodeEnbale(1), 0);
    }
    // Empties the release semaphore; returns how many releases it held.
    int DrainReleases() {
        int n = 0;
        while (os_sem_timedwait(s.Signal()->sem, 0) == 0) ++n;
        return n;
    }
    // Calls SendVideoCond until it releases a picture; the number of calls.
    int CallsUntilRelease() {
        for (int calls = 1; calls <= 100; ++calls) {
            EXPECT_EQ(s.SendVideoCond(), 0);
            int released = DrainReleases();
            if (released) {
                EXPECT_EQ(released, 1);
                return calls;
            }
        }
        return -1;
    }
    // Freezes reader and decoder and leaves `queued` packets in the queue.
    void FreezeWithQueue(int queued) {
        FFMpegContext* ctx = s.Context();
        ctx->m_bPause = 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(150));  // both threads idle now
        FlushVideoPackets(ctx);
        camctl::PacketPtr pkt = camctl::MakePacket();
        ASSERT_EQ(av_new_packet(pkt.get(), 16), 0);
        for (int i = 0; i < queued; ++i) PushVideoPacket(ctx, pkt.get());
        ASSERT_EQ(GetAVPktListElmCount(ctx), queued);
        ctx->m_nHalfFrameInterval = 6;
        DrainReleases();
    }
    TestUrlSession s;
};

TEST_F(SmoothSessionTest, SendVideoCond_LongQueueReleasesOneCallEarlierEachTime) {
    Open(1);
    FreezeWithQueue(12);
    EXPECT_EQ(CallsUntilRelease(), 6);
    EXPECT_EQ(CallsUntilRelease(), 5);
    EXPECT_EQ(CallsUntilRelease(), 4);
    EXPECT_EQ(CallsUntilRelease(), 3);
    EXPECT_EQ(s.CondAdjust(), -4);
    s.VideoFree();
}

TEST_F(SmoothSessionTest, SendVideoCond_BandsOfEachMode) {
    Open(1);
    FreezeWithQueue(3);  // short queue: one call later each time
    EXPECT_EQ(CallsUntilRelease(), 6);
    EXPECT_EQ(CallsUntilRelease(), 7);
    EXPECT_EQ(CallsUntilRelease(), 8);
    FreezeWithQueue(7);  // middle band: the correction starts over
    EXPECT_EQ(CallsUntilRelease(), 9);
    EXPECT_EQ(s.CondAdjust(), 0);
    EXPECT_EQ(CallsUntilRelease(), 6);
    s.VideoFree();

    Open(2);  // wide bands: 12 lies in the middle, 21 above it
    FreezeWithQueue(12);
    EXPECT_EQ(CallsUntilRelease(), 6);
    EXPECT_EQ(CallsUntilRelease(), 6);
    FreezeWithQueue(21);
    EXPECT_EQ(CallsUntilRelease(), 6);
    EXPECT_EQ(CallsUntilRelease(), 5);
    s.VideoFree();
}

TEST_F(SmoothSessionTest, SendVideoCond_InactiveCases) {
    Open(0);
    FreezeWithQueue(12);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(s.SendVideoCond(), 0);
    EXPECT_EQ(DrainReleases(), 0);  // smooth stream off
    s.VideoFree();

    Open(1);
    FreezeWithQueue(12);
    s.SetDecodeEnbale(0);
    for (int i = 0; i < 20; ++i) EXPECT_EQ(s.SendVideoCond(), 0);
    EXPECT_EQ(DrainReleases(), 0);  // decoding off
    s.VideoFree();

    TestFileSession f;
    f.SetSmoothStream(1);
    ASSERT_EQ(f.VideoInit(&f, LongAviClip().c_str()), 0);
    EXPECT_EQ(f.SendVideoCond(), 0);  // file sessions are paced by their player
    f.VideoFree();
}

TEST(SessionTest, OpenCloseCycles_LeaveNoThreadOrDescriptorBehind) {
    const std::string clip = ShortAviClip();
    {
        TestFileSession warm;  // first use initialises the engine
        ASSERT_EQ(warm.VideoInit(&warm, clip.c_str()), 0);
        warm.VideoFree();
    }
    const int threads = camctl_test::CountThreads();
    const int fds = camctl_test::CountOpenFds();
    for (int i = 0; i < 50; ++i) {
        TestFileSession s;
        s.SetD3DDisplay(i % 2);
        ASSERT_EQ(s.VideoInit(&s, clip.c_str()), 0);
        if (i % 5 == 0) {
            ASSERT_TRUE(s.log.WaitForCount(1, 3000));
        }
        ASSERT_EQ(s.VideoFree(), 0);
    }
    EXPECT_EQ(camctl_test::CountThreads(), threads);
    EXPECT_EQ(camctl_test::CountOpenFds(), fds);
}

TEST(SessionTest, Destructor_ClosesAStreamLeftOpen) {
    const int threads = camctl_test::CountThreads();
    {
        // A plain session with no owner: a derived listener would already be
        // gone while the base destructor closes the stream. Pictures are
        // refused; decoding goes on.
        CFileVideoSession s;
        ASSERT_EQ(s.VideoInit(nullptr, LongAviClip().c_str()), 0);
        ASSERT_TRUE(PictureLog::WaitUntil([&] { return s.GetCurrTime() >= 1; }, 3000));
        EXPECT_GT(camctl_test::CountThreads(), threads);
    }
    EXPECT_EQ(camctl_test::CountThreads(), threads);
}

TEST(SessionTest, VideoInit_MissingFileFails) {
    TestFileSession s;
    EXPECT_EQ(s.VideoInit(&s, "/nonexistent/clip.avi"), -1);
    EXPECT_EQ(s.VideoFree(), -1);
}

}  // namespace
