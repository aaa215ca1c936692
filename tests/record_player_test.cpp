// Faults caught: wrong pace per speed level, pause/seek/stop that do not take effect or hang, lost
// sound, wrong snapshot folder/name/pixels/padding, bad calls accepted while idle, leaked threads.
//
// The main fixture is a black 322x242 picture with a white bar in its upper
// half whose x position is 5 x (whole seconds of the picture's timestamp), so
// every delivered picture tells which second of the file it shows. 322
// pixels of 3 bytes make rows that need 2 bytes of BMP padding. Pace is
// checked by lower bounds on durations (a loaded machine only delays
// pictures) and by ordering speeds against each other; figures live in bench/.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <atomic>
#include <chrono>
#include <cctype>
#include <condition_variable>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camctl/RecordPlayer.h"
#include "camctl/UrlVideoSession.h"
#include "camsim/server.h"
#include "support/fixtures.h"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

constexpr int kWidth = 322;
constexpr int kHeight = 242;

std::string BarFile() {
    return camctl_test::Fixture(
        "player_bar_25fps.avi",
        "-f lavfi -i color=c=black:size=322x242:rate=25:duration=60 "
        "-f lavfi -i color=c=white:size=4x121:rate=25 "
        "-filter_complex \"[0][1]overlay=x='5*floor(t)':y=0:eval=frame:shortest=1\" "
        "-c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p");
}

std::string FastFile() {
    return camctl_test::Fixture("player_100fps.avi",
                                "-f lavfi -i testsrc2=size=160x120:rate=100 -t 8 "
                                "-c:v libx264 -bf 0 -g 100 -pix_fmt yuv420p");
}

std::string AudioFile() {
    return camctl_test::Fixture("player_audio.avi",
                                "-f lavfi -i testsrc2=size=160x120:rate=25 "
                                "-f lavfi -i sine=frequency=440:sample_rate=8000 -t 8 "
                                "-c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p -c:a pcm_mulaw");
}

// Second shown by a bar-fixture picture (BGR24, bottom-up), -1 if no bar.
int BarSecond(const unsigned char* bgr, int width, int height) {
    const unsigned char* row = bgr + static_cast<size_t>(height - 10) * width * 3;  // 10th row from the top
    for (int x = 0; x < width; ++x)
        if (row[x * 3] > 128) return (x + 2) / 5;
    return -1;
}

// True when path is <folder>/YYYYMMDD-hhmmss.bmp.
bool IsSnapshotPath(const std::string& path, const std::string& folder) {
    if (path.compare(0, folder.size() + 1, folder + "/") != 0) return false;
    const std::string name = path.substr(folder.size() + 1);
    if (name.size() != 19 || name.compare(15, 4, ".bmp") != 0 || name[8] != '-') return false;
    for (int i = 0; i < 15; ++i)
        if (i != 8 && !std::isdigit(static_cast<unsigned char>(name[i]))) return false;
    return true;
}

// Everything the player hands to the host, with the time it arrived.
struct Deliveries {
    std::mutex mu;
    std::condition_variable cv;
    std::vector<Clock::time_point> times;
    std::vector<int> seconds;
    int width = 0;
    int height = 0;
    bool capture_next = false;
    std::vector<unsigned char> captured;
    CRecordPlayer* player = nullptr;
    bool wrong_player = false;
    long long samples = 0;
    int audio_calls = 0;
    int rate = 0;

    size_t Count() {
        std::lock_guard<std::mutex> lock(mu);
        return times.size();
    }
    bool WaitCount(size_t n, std::chrono::milliseconds timeout = 30s) {
        std::unique_lock<std::mutex> lock(mu);
        return cv.wait_for(lock, timeout, [&] { return times.size() >= n; });
    }
    int LastSecond() {
        std::lock_guard<std::mutex> lock(mu);
        return seconds.empty() ? -1 : seconds.back();
    }
    long long Samples() {
        std::lock_guard<std::mutex> lock(mu);
        return samples;
    }
};

int OnVideo(CRecordPlayer* player, void* user, unsigned char* buf, int32_t width, int32_t height) {
    auto* d = static_cast<Deliveries*>(user);
    std::lock_guard<std::mutex> lock(d->mu);
    if (player != d->player) d->wrong_player = true;
    d->times.push_back(Clock::now());
    d->seconds.push_back(BarSecond(buf, width, height));
    d->width = width;
    d->height = height;
    if (d->capture_next) {
        d->captured.assign(buf, buf + static_cast<size_t>(width) * height * 3);
        d->capture_next = false;
    }
    d->cv.notify_all();
    return 0;
}

int OnAudio(CRecordPlayer*, void* user, unsigned short* buf, int32_t count, int32_t rate) {
    auto* d = static_cast<Deliveries*>(user);
    std::lock_guard<std::mutex> lock(d->mu);
    if (buf && count > 0) d->samples += count;
    d->audio_calls++;
    d->rate = rate;
    return 0;
}

class RecordPlayerTest : public ::testing::Test {
protected:
    void SetUp() override {
        player_ = std::make_unique<CRecordPlayer>();
        d_.player = player_.get();
        player_->SetVideoBufCallBack(&OnVideo, &d_);
    }
    void TearDown() override {
        player_.reset();
        EXPECT_FALSE(d_.wrong_player);
    }

    void Play(const std::string& file) {
        ASSERT_EQ(0, player_->PlayFile(file.c_str(), nullptr, 0, 0));
        ASSERT_TRUE(d_.WaitCount(1)) << "no picture from " << file;
    }

    // Time the next n pictures take, once two have passed at the current
    // level. The player keeps a schedule, so load can lengthen it but never
    // shorten it below (n - 1) intervals.
    std::chrono::microseconds Span(size_t n) {
        const size_t first = d_.Count() + 2;
        EXPECT_TRUE(d_.WaitCount(first + n, 60s)) << "the player stopped delivering";
        std::lock_guard<std::mutex> lock(d_.mu);
        if (d_.times.size() < first + n) return {};
        return std::chrono::duration_cast<std::chrono::microseconds>(d_.times[first + n - 1] - d_.times[first]);
    }
    std::chrono::microseconds SpanAtLevel(int level, size_t n) {
        EXPECT_EQ(0, player_->SetSpeedLevel(level));
        return Span(n);
    }
    void WaitFinished() {
        EXPECT_TRUE(camctl_test::WaitUntil([&] { return player_->IsPlayFinish(); }, 60s));
    }

    Deliveries d_;
    std::unique_ptr<CRecordPlayer> player_;
};

// n pictures took at least (n - 1) intervals, less a tenth for tick rounding.
void ExpectAtLeast(std::chrono::microseconds interval, size_t n, std::chrono::microseconds got) {
    EXPECT_GE(got, interval * static_cast<int>(n - 1) * 9 / 10) << got.count() << " us for " << n << " pictures";
}

TEST_F(RecordPlayerTest, Pacing_SpeedLevels) {
    Play(BarFile());
    EXPECT_EQ(kWidth, d_.width);
    EXPECT_EQ(kHeight, d_.height);
    // Level -> interval: 20 ticks of 2 ms at level 0, 10 at 2x, 40 at half
    // speed; 40 / 32 = 1 tick at level 104 is raised to 2.
    const struct { int level; std::chrono::microseconds interval; size_t n; } table[] = {
        {0, 40ms, 25}, {101, 20ms, 40}, {4, 80ms, 12}, {104, 4ms, 150},
    };
    std::vector<std::chrono::microseconds> spans;
    for (const auto& row : table) {
        SCOPED_TRACE(row.level);
        spans.push_back(SpanAtLevel(row.level, row.n));
        ExpectAtLeast(row.interval, row.n, spans.back());
    }
    // Per picture, 2x is faster than 1x and 1x faster than half speed.
    EXPECT_LT(spans[1] / 40, spans[0] / 25);
    EXPECT_LT(spans[0] / 25, spans[2] / 12);
    // An unknown level keeps the current pace (half speed).
    ASSERT_EQ(0, player_->SetSpeedLevel(4));
    ExpectAtLeast(80ms, 8, SpanAtLevel(57, 8));
}

TEST_F(RecordPlayerTest, Pacing_FileAbove90FpsPlaysAt40MsPerPicture) {
    Play(FastFile());
    ExpectAtLeast(40ms, 25, Span(25));
}

TEST_F(RecordPlayerTest, Pacing_FirstPictureAfterSpeedChangeIsPrompt) {
    Play(BarFile());
    // At 1/16 speed a picture is due every 640 ms; the change itself lets the
    // next picture out at once, and the one after it waits for its 640 ms.
    const size_t before = d_.Count();
    const auto t0 = Clock::now();
    ASSERT_EQ(0, player_->SetSpeedLevel(1));
    ASSERT_TRUE(d_.WaitCount(before + 3));
    std::lock_guard<std::mutex> lock(d_.mu);
    const auto prompt = d_.times[before] - t0;
    const auto gap = d_.times[before + 2] - d_.times[before + 1];
    EXPECT_GT(gap, 570ms);
    EXPECT_LT(prompt, gap / 2);
}

TEST_F(RecordPlayerTest, Control_PauseHoldsPicturesAndResumeContinues) {
    Play(BarFile());
    ASSERT_TRUE(d_.WaitCount(5));
    const size_t before = d_.Count();
    ASSERT_EQ(0, player_->Pause());
    // Longer than the 1000 ms frame wait: the held picture stays held. One
    // picture released just before the pause may still arrive.
    std::this_thread::sleep_for(1300ms);
    const size_t held = d_.Count();
    EXPECT_LE(held, before + 1);
    ASSERT_EQ(0, player_->Resume());
    EXPECT_TRUE(d_.WaitCount(held + 25));
}

TEST_F(RecordPlayerTest, Control_SeekTwelveShowsSecondTen) {
    Play(BarFile());
    ASSERT_TRUE(d_.WaitCount(3));
    EXPECT_LT(d_.LastSecond(), 2);
    const size_t before = d_.Count();
    ASSERT_EQ(0, player_->SeekTime(12));
    ASSERT_TRUE(d_.WaitCount(before + 35));
    std::vector<int> after;
    {
        std::lock_guard<std::mutex> lock(d_.mu);
        after.assign(d_.seconds.begin() + before, d_.seconds.end());
    }
    // A few pictures of the old position may still be on their way; the
    // first picture of the new one is second 10, never 12 or later, and
    // the whole of second 10 follows.
    size_t i = 0;
    while (i < after.size() && after[i] < 10) ++i;
    ASSERT_LT(i, 5u) << "seek did not take effect";
    ASSERT_GE(after.size(), i + 25);
    for (size_t k = i; k < i + 25; ++k) EXPECT_EQ(10, after[k]) << "picture " << k - i << " after the seek";
    const int64_t now = player_->GetCurrTime();
    EXPECT_GE(now, 10);
    EXPECT_LE(now, d_.LastSecond() + 1);
    EXPECT_EQ(60, player_->GetDuration());
}

TEST_F(RecordPlayerTest, Control_StopWhileDecodeThreadWaitsIsPrompt) {
    Play(BarFile());
    ASSERT_EQ(0, player_->SetSpeedLevel(1));  // 640 ms per picture
    ASSERT_TRUE(d_.WaitCount(d_.Count() + 1));
    std::this_thread::sleep_for(100ms);  // the next picture now waits
    const auto t0 = Clock::now();
    ASSERT_EQ(0, player_->Stop());
    EXPECT_LT(Clock::now() - t0, 400ms) << "Stop waited for the picture's tick";
    const size_t stopped = d_.Count();
    std::this_thread::sleep_for(300ms);
    EXPECT_EQ(stopped, d_.Count());
    // The player can play again after a stop.
    Play(FastFile());
}

TEST_F(RecordPlayerTest, Control_NothingPlayingGivesFailure) {
    auto check_idle = [&] {
        EXPECT_EQ(-1, player_->Pause());
        EXPECT_EQ(-1, player_->Resume());
        EXPECT_EQ(-1, player_->Stop());
        EXPECT_EQ(-1, player_->SeekTime(12));
        EXPECT_EQ(-1, player_->SetSpeedLevel(0));
        EXPECT_EQ(-1, player_->SetSpeedLevel(33));
        EXPECT_EQ(-1, player_->GetCurrTime());
        EXPECT_EQ(-1, player_->GetDuration());
        EXPECT_FALSE(player_->IsPlayFinish());
        unsigned char pixel[3] = {};
        EXPECT_EQ(-1, player_->DoVideoBuffer(nullptr, pixel, 1, 1));
    };
    check_idle();
    EXPECT_EQ(-1, player_->PlayFile("/nonexistent/file.avi", nullptr, 0, 0));
    check_idle();
    EXPECT_EQ(0u, d_.Count());  // an idle DoVideoBuffer delivers nothing
    Play(FastFile());
    EXPECT_EQ(-1, player_->PlayFile(BarFile().c_str(), nullptr, 0, 0));
    EXPECT_EQ(0, player_->Stop());
    const size_t stopped = d_.Count();
    check_idle();
    EXPECT_EQ(stopped, d_.Count());
}

TEST_F(RecordPlayerTest, Control_EndOfFileIsReported) {
    const std::string file = camctl_test::Fixture(
        "player_short.avi",
        "-f lavfi -i testsrc2=size=160x120:rate=25 -t 1 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p");
    Play(file);
    EXPECT_EQ(0, player_->SetSpeedLevel(104));
    WaitFinished();
    EXPECT_EQ(0, player_->Stop());
}

TEST_F(RecordPlayerTest, Snapshot_WhilePausedWritesFirstPictureAfterResume) {
    camctl_test::TempDir dir;
    ASSERT_EQ(0, mkdir((dir / "VMS").c_str(), 0755));
    ASSERT_EQ(0, player_->SetSaveDir(dir.path().c_str()));
    Play(BarFile());
    ASSERT_TRUE(d_.WaitCount(30));  // into second 1
    ASSERT_EQ(0, player_->Pause());
    std::this_thread::sleep_for(100ms);  // a picture released before the pause arrives
    ASSERT_EQ(0, player_->SaveImage());
    std::this_thread::sleep_for(1200ms);
    EXPECT_TRUE(camctl_test::ListFiles(dir.path()).empty()) << "written while paused";
    size_t before;
    {
        std::lock_guard<std::mutex> lock(d_.mu);
        d_.capture_next = true;
        before = d_.times.size();
    }
    ASSERT_EQ(0, player_->Resume());
    ASSERT_TRUE(camctl_test::WaitUntil([&] { return !camctl_test::ListFiles(dir.path()).empty(); }));
    ASSERT_TRUE(d_.WaitCount(before + 3));
    const auto files = camctl_test::ListFiles(dir.path());
    ASSERT_EQ(1u, files.size());
    EXPECT_TRUE(IsSnapshotPath(files[0], dir / "VMS/PLAY-IMAGE-MANUAL")) << files[0];
    EXPECT_EQ(camctl_test::Ffprobe("-show_entries stream=width,height,pix_fmt -of csv=p=0", files[0]),
              "322,242,bgr24\n");

    // After a 54-byte header, the pixel rows are the first picture
    // delivered after Resume, each followed by two zero bytes of padding.
    const auto bmp = camctl_test::ReadFileBytes(files[0]);
    const size_t row = kWidth * 3 + 2;
    ASSERT_EQ(54 + row * kHeight, bmp.size());
    EXPECT_EQ('B', bmp[0]);
    EXPECT_EQ('M', bmp[1]);
    std::lock_guard<std::mutex> lock(d_.mu);
    ASSERT_EQ(static_cast<size_t>(kWidth) * kHeight * 3, d_.captured.size());
    for (int y = 0; y < kHeight; ++y) {
        const unsigned char* file_row = bmp.data() + 54 + y * row;
        ASSERT_EQ(0, std::memcmp(file_row, d_.captured.data() + static_cast<size_t>(y) * kWidth * 3, kWidth * 3))
            << "row " << y;
        EXPECT_EQ(0, file_row[kWidth * 3]);
        EXPECT_EQ(0, file_row[kWidth * 3 + 1]);
    }
    // It follows the last picture before the pause.
    const int second = BarSecond(d_.captured.data(), kWidth, kHeight);
    const int second_before = d_.seconds[before - 1];
    EXPECT_GE(second_before, 1);
    EXPECT_TRUE(second == second_before || second == second_before + 1) << second << " after " << second_before;

    // Read back by an independent decoder, the bar is in the upper half.
    std::string gray;
    ASSERT_EQ(0, camctl_test::RunCommand("ffmpeg -v error -i '" + files[0] + "' -f rawvideo -pix_fmt gray -", &gray));
    ASSERT_EQ(static_cast<size_t>(kWidth) * kHeight, gray.size());
    auto bright = [&](int top_row) {
        int n = 0;
        for (int x = 0; x < kWidth; ++x) n += static_cast<unsigned char>(gray[top_row * kWidth + x]) > 128;
        return n;
    };
    EXPECT_GE(bright(10), 3);
    EXPECT_EQ(0, bright(kHeight - 10));
}

TEST_F(RecordPlayerTest, Snapshot_FolderAndPathRules) {
    camctl_test::TempDir dir;
    // Missing levels are created; a trailing separator is dropped.
    ASSERT_EQ(0, player_->SetSaveDir((dir / "a/b/").c_str()));
    struct stat st {};
    ASSERT_EQ(0, stat((dir / "a/b").c_str(), &st));
    EXPECT_TRUE(S_ISDIR(st.st_mode));
    char path[256] = {};
    ASSERT_EQ(0, player_->GetImagePath(path));
    EXPECT_TRUE(IsSnapshotPath(path, dir / "a/b/VMS/PLAY-IMAGE-MANUAL")) << path;
    // Without <save dir>/VMS the folder is not made and the snapshot is
    // skipped silently.
    EXPECT_NE(0, stat((dir / "a/b/VMS").c_str(), &st));
    Play(FastFile());
    ASSERT_EQ(0, player_->SaveImage());
    ASSERT_TRUE(d_.WaitCount(d_.Count() + 3));
    EXPECT_TRUE(camctl_test::ListFiles(dir.path()).empty());
    // Once VMS exists the next snapshot lands in its PLAY-IMAGE-MANUAL.
    ASSERT_EQ(0, mkdir((dir / "a/b/VMS").c_str(), 0755));
    ASSERT_EQ(0, player_->SaveImage());
    ASSERT_TRUE(camctl_test::WaitUntil([&] { return !camctl_test::ListFiles(dir.path()).empty(); }));
    ASSERT_TRUE(d_.WaitCount(d_.Count() + 3));
    const auto files = camctl_test::ListFiles(dir.path());
    ASSERT_EQ(1u, files.size());
    EXPECT_EQ(54 + 480 * 120, camctl_test::FileSize(files[0]));  // 160 x 3 needs no padding
}

TEST_F(RecordPlayerTest, Audio_EverySampleReachesTheCallback) {
    player_->SetAudioBufCallBack(&OnAudio, &d_);
    Play(AudioFile());
    ASSERT_EQ(0, player_->SetSpeedLevel(104));
    WaitFinished();
    // 8 s of 8 kHz sound in blocks of 1024 samples, delivered as fast as it
    // is read. The session currently loses what is decoded while it is still
    // opening (up to half a second), so the lower bound leaves room for that.
    EXPECT_TRUE(camctl_test::WaitUntil([&] { return d_.Samples() >= 7 * 8000; })) << d_.Samples();
    std::lock_guard<std::mutex> lock(d_.mu);
    EXPECT_EQ(8000, d_.rate);
    EXPECT_LE(d_.samples, 8 * 8000);
}

TEST_F(RecordPlayerTest, Audio_NotHeldWhilePicturesAre) {
    player_->SetAudioBufCallBack(&OnAudio, &d_);
    Play(AudioFile());
    ASSERT_EQ(0, player_->SetSpeedLevel(1));  // a picture every 640 ms: the decode thread waits
    std::this_thread::sleep_for(100ms);
    unsigned short samples[160] = {};
    int calls;
    {
        std::lock_guard<std::mutex> lock(d_.mu);
        calls = d_.audio_calls;
    }
    const auto t0 = Clock::now();
    EXPECT_EQ(0, player_->DoAudioBuffer(nullptr, samples, 160, 8000));
    EXPECT_LT(Clock::now() - t0, 300ms) << "sound waited for the picture's tick";
    std::lock_guard<std::mutex> lock(d_.mu);
    EXPECT_GE(d_.audio_calls, calls + 1);
}

// A live session that only records.
class RecordingSession : public CUrlVideoSession {
public:
    int DoVideoBuffer(unsigned char*, int, int) override { return 0; }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
};

// A recording made by the library from a simulated 25 fps camera with
// G.711 sound plays at 25 pictures a second.
TEST_F(RecordPlayerTest, Recording_FromCameraPlaysAt25Fps) {
    camsim::Options o;
    o.pattern.width = 320;
    o.pattern.height = 240;
    o.pattern.audio = camsim::AudioCodec::Mulaw;
    o.speed = 0;  // as fast as the session reads
    o.max_video_frames = 150;
    camsim::Server server(o);
    std::string error;
    ASSERT_TRUE(server.Start(&error)) << error;
    camctl_test::TempDir dir;
    const std::string file = dir / "camera.avi";
    {
        RecordingSession session;
        ASSERT_EQ(0, session.VideoInit(&session, server.Url().c_str()));
        ASSERT_EQ(0, session.StartSaveAvi(file.c_str()));
        ASSERT_TRUE(camctl_test::WaitUntil([&] { return session.IsPlayFinish(); }, 60s));
        ASSERT_EQ(0, session.VideoFree());
    }
    server.Stop();

    Play(file);
    EXPECT_EQ(320, d_.width);
    EXPECT_EQ(240, d_.height);
    // The recording begins at the first key frame after StartSaveAvi (how
    // many of the 150 pictures came before depends on the machine's load).
    EXPECT_GE(player_->GetDuration(), 1);
    EXPECT_LE(player_->GetDuration(), 6);
    ExpectAtLeast(40ms, 10, SpanAtLevel(0, 10));
}

TEST(RecordPlayerLifecycle, DestroyWhilePlayingLeavesNoThread) {
    const std::string file = AudioFile();
    const int threads_before = camctl_test::CountThreads();
    for (int round = 0; round < 3; ++round) {
        Deliveries d;
        auto player = std::make_unique<CRecordPlayer>();
        d.player = player.get();
        player->SetVideoBufCallBack(&OnVideo, &d);
        player->SetAudioBufCallBack(&OnAudio, &d);
        ASSERT_EQ(0, player->PlayFile(file.c_str(), nullptr, 0, 0));
        ASSERT_TRUE(d.WaitCount(2));
        if (round == 1) player->Pause();
        player.reset();
        EXPECT_FALSE(d.wrong_player);
    }
    // Threads a stream leaves behind may take a moment to end.
    camctl_test::WaitUntil([&] { return camctl_test::CountThreads() <= threads_before; });
    EXPECT_EQ(threads_before, camctl_test::CountThreads());
}

}  // namespace
