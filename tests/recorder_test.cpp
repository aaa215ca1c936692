// Catches: a recording not starting on a key frame, lost or doubled packets, gap frames, length-prefixed NAL units, wrong tags or codecs, a wrong or unpatched frame rate, wrong audio timestamps, a file left without index on a full disk, SIGXFSZ, a wrong log text.
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "camctl/UrlVideoSession.h"
#include "camsim/server.h"
#include "engine/engine.h"
#include "support/engine_support.h"
#include "support/fixtures.h"

using camctl_test::Ffprobe;
using camctl_test::Fixture;
using camctl_test::TempDir;

namespace {

const char* kVideo = "-f lavfi -i testsrc2=size=320x240:rate=25 -t 4 ";
const char* kX264 = "-c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p -preset ultrafast ";

std::string H264Ts() { return Fixture("rec_h264.ts", std::string(kVideo) + kX264); }
std::string H264Mp4() { return Fixture("rec_h264.mp4", std::string(kVideo) + kX264); }
std::string HevcMkv() {
    return Fixture("rec_hevc.mkv", std::string(kVideo) +
                                       "-c:v libx265 -preset ultrafast -x265-params bframes=0:keyint=25:log-level=error "
                                       "-pix_fmt yuv420p");
}
std::string MjpegAvi() { return Fixture("rec_mjpeg.avi", std::string(kVideo) + "-c:v mjpeg -pix_fmt yuvj420p"); }
std::string H264Mulaw() {
    return Fixture("rec_h264_mulaw.nut", std::string(kVideo) + "-f lavfi -i sine=frequency=440:sample_rate=8000 -t 4 " +
                                             kX264 + "-c:a pcm_mulaw -ar 8000 -ac 1 -shortest");
}
std::string H264Aac() {
    return Fixture("rec_h264_aac.ts", std::string(kVideo) + "-f lavfi -i sine=frequency=440:sample_rate=16000 -t 4 " +
                                          kX264 + "-c:a aac -b:a 32k -ar 16000 -ac 1 -shortest");
}
std::string H264G726() {
    return Fixture("rec_h264_g726.mkv", std::string(kVideo) + "-f lavfi -i sine=frequency=440:sample_rate=8000 -t 4 " +
                                            kX264 + "-c:a g726 -b:a 16k -ar 8000 -ac 1 -shortest");
}

uint32_t Le32(const std::vector<unsigned char>& b, size_t at) {
    return b[at] | (b[at + 1] << 8) | (b[at + 2] << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

std::string Trim(std::string s) {
    while (!s.empty() && (s.back() == '\n' || s.back() == '\r' || s.back() == ',')) s.pop_back();
    return s;
}

// A media context set up the way stream opening leaves it, without threads:
// demuxer, decoder contexts, indexes, codec ids and picture size.
class RecordSource {
public:
    explicit RecordSource(const std::string& file) : ctx_(FFMpegContextAlloc()) {
        AVFormatContext* raw = nullptr;
        if (avformat_open_input(&raw, file.c_str(), nullptr, nullptr) < 0) return;
        ctx_->m_pFormatCtx.reset(raw);
        if (avformat_find_stream_info(raw, nullptr) < 0) return;
        ctx_->m_nVideoIndex = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (ctx_->m_nVideoIndex < 0) return;
        ctx_->m_pVideoCodecCtx = ContextFor(raw->streams[ctx_->m_nVideoIndex]);
        ctx_->m_nVideoCodecId = raw->streams[ctx_->m_nVideoIndex]->codecpar->codec_id;
        ctx_->m_nWidth = raw->streams[ctx_->m_nVideoIndex]->codecpar->width;
        ctx_->m_nHeight = raw->streams[ctx_->m_nVideoIndex]->codecpar->height;
        int audio = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (audio >= 0) {
            ctx_->m_nAudioIndex = audio;
            ctx_->m_pAudioCodecCtx = ContextFor(raw->streams[audio]);
            ctx_->m_nAudioCodecId = raw->streams[audio]->codecpar->codec_id;
        }
        ok_ = true;
    }
    ~RecordSource() {
        RecordStop(ctx_);
        FFMpegContextFree(ctx_);
    }
    RecordSource(const RecordSource&) = delete;
    RecordSource& operator=(const RecordSource&) = delete;

    bool ok() const { return ok_; }
    FFMpegContext* ctx() { return ctx_; }

    // Hands up to max_packets packets (all when negative), after skipping
    // skip of them, to the write step; the file is read loops times over.
    // Returns the video packets handed over.
    int Feed(int max_packets = -1, int skip = 0, int loops = 1) {
        camctl::PacketPtr pkt = camctl::MakePacket();
        int video = 0;
        for (int n = 0; max_packets < 0 || n < max_packets + skip; ++n) {
            if (av_read_frame(ctx_->m_pFormatCtx.get(), pkt.get()) < 0) {
                if (--loops <= 0 || av_seek_frame(ctx_->m_pFormatCtx.get(), -1, 0, AVSEEK_FLAG_BACKWARD) < 0) break;
                continue;
            }
            if (n >= skip) {
                if (pkt->stream_index == ctx_->m_nVideoIndex) ++video;
                RecordWritePacket(ctx_, pkt.get());
            }
            av_packet_unref(pkt.get());
        }
        return video;
    }

private:
    static camctl::CodecContextPtr ContextFor(const AVStream* st) {
        camctl::CodecContextPtr c(avcodec_alloc_context3(nullptr));
        avcodec_parameters_to_context(c.get(), st->codecpar);
        return c;
    }

    FFMpegContext* ctx_;
    bool ok_ = false;
};

struct Probe {
    std::string codecs;  // "video[,audio]" codec names
    std::string video_tag;
    int header_frames = -1;   // frame count in the stream header
    int video_packets = -1;   // non-empty video chunks
    int decoded_frames = -1;  // pictures a decoder gets out of them
    std::string first_flags;
    bool first_annexb = false;  // first packet starts with a start code
    uint32_t scale = 0, rate = 0;
};

std::string Lines(const std::string& text) {
    std::string out = text;
    for (char& c : out)
        if (c == '\n') c = ',';
    return Trim(out);
}

Probe ProbeAvi(const std::string& path) {
    Probe p;
    p.codecs = Lines(Ffprobe("-show_entries stream=codec_name -of csv=p=0", path));
    p.video_tag = Trim(Ffprobe("-select_streams v -show_entries stream=codec_tag_string -of csv=p=0", path));
    std::string counts = Ffprobe(
        "-select_streams v -count_frames -count_packets "
        "-show_entries stream=nb_frames,nb_read_frames,nb_read_packets -of csv=p=0",
        path);
    int a = -1, b = -1, c = -1;
    char first_field[32] = {};
    if (sscanf(counts.c_str(), "%31[^,],%d,%d", first_field, &b, &c) == 3) {
        a = first_field[0] >= '0' && first_field[0] <= '9' ? atoi(first_field) : -1;  // N/A: header not updated
        p.header_frames = a;
        p.decoded_frames = b;
        p.video_packets = c;
    }
    std::string first = Ffprobe("-select_streams v -read_intervals %+#1 -show_packets -show_data -of flat", path);
    size_t flags = first.find("flags=\"");
    if (flags != std::string::npos) p.first_flags = first.substr(flags + 7, 1);
    p.first_annexb = first.find("00000000: 0000 0001") != std::string::npos ||
                     first.find("00000000: 0000 01") != std::string::npos;
    auto bytes = camctl_test::ReadFileBytes(path);
    if (bytes.size() >= 136) {
        p.scale = Le32(bytes, 128);
        p.rate = Le32(bytes, 132);
    }
    return p;
}

struct CodecCase {
    const char* name;
    std::string (*file)();
    const char* codecs;
    const char* tag;
};

void PrintTo(const CodecCase& c, std::ostream* os) { *os << c.name; }

class RecorderCodecTest : public ::testing::TestWithParam<CodecCase> {};

// Every video codec, with and without audio, from Annex-B and from
// length-prefixed containers: the right codecs, key frame first, every
// packet once, and the patched frame rate in the stream header.
TEST_P(RecorderCodecTest, Record_ReadableByFfprobe) {
    const CodecCase& c = GetParam();
    TempDir dir;
    std::string out = dir / "rec.avi";
    RecordSource src(c.file());
    ASSERT_TRUE(src.ok());
    ASSERT_EQ(RecordStart(src.ctx(), out.c_str()), 0);
    EXPECT_EQ(RecordStart(src.ctx(), out.c_str()), -1) << "second start while recording";
    // Start between key frames: the first packets are skipped until the
    // next key frame.
    src.Feed(-1, 7);
    uint64_t frames = src.ctx()->m_Recorder.Frames();
    ASSERT_EQ(RecordStop(src.ctx()), 0);
    EXPECT_EQ(RecordStop(src.ctx()), -1) << "second stop";

    Probe p = ProbeAvi(out);
    EXPECT_EQ(p.codecs, c.codecs);
    EXPECT_EQ(p.video_tag, c.tag);
    EXPECT_EQ(p.header_frames, static_cast<int>(frames)) << "empty frames were inserted";
    EXPECT_EQ(p.video_packets, static_cast<int>(frames));
    EXPECT_EQ(p.decoded_frames, static_cast<int>(frames));
    EXPECT_EQ(p.first_flags, "K");
    if (std::string(c.tag) != "MJPG") {
        EXPECT_TRUE(p.first_annexb) << "length-prefixed NAL units in an AVI";
    }
    EXPECT_EQ(p.scale, 100u);
    EXPECT_GE(p.rate, 1u);
    EXPECT_LE(p.rate, 300000u);
    // 4 s at 25 fps from the 7th packet on: the next key frame is packet 25
    // (MJPEG: every packet is a key frame).
    if (std::string(c.codecs).rfind("mjpeg", 0) == 0)
        EXPECT_GE(frames, 90u);
    else
        EXPECT_EQ(frames, 75u);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, RecorderCodecTest,
    ::testing::Values(CodecCase{"H264AnnexB", H264Ts, "h264", "H264"},
                      CodecCase{"H264Mp4", H264Mp4, "h264", "H264"}, CodecCase{"HevcMkv", HevcMkv, "hevc", "HEVC"},
                      CodecCase{"Mjpeg", MjpegAvi, "mjpeg", "MJPG"},
                      CodecCase{"H264Mulaw", H264Mulaw, "h264,pcm_mulaw", "H264"},
                      CodecCase{"H264Aac", H264Aac, "h264,aac", "H264"},
                      CodecCase{"H264G726", H264G726, "h264,adpcm_g726", "H264"}),
    [](const ::testing::TestParamInfo<CodecCase>& i) { return std::string(i.param.name); });

// The time base reaches the file as dwScale 100 / dwRate 2499, and the stop
// rewrites only dwRate, from the recording's ticks: 100 frames in 1000 ms give
// 10000, 25 give 2500 (less when a loaded machine delays the stop); a stop in
// the start's millisecond keeps 24; no video at all falls back to 3000.
TEST(Recorder, VideoFreq_FromTicksPatchedIntoTheHeader) {
    TempDir dir;
    const struct {
        int packets;  // -1: the whole file (100 frames)
        int64_t ms_ago;
        uint32_t lo, hi;
    } cases[] = {{-1, 1000, 9990, 10000}, {25, 1000, 2000, 2500}, {25, -5, 24, 24}, {0, 1000, 3000, 3000}};
    int i = 0;
    for (const auto& c : cases) {
        std::string out = dir / ("f" + std::to_string(i++) + ".avi");
        RecordSource src(H264Ts());
        ASSERT_TRUE(src.ok());
        ASSERT_EQ(RecordStart(src.ctx(), out.c_str()), 0);
        src.Feed(c.packets);
        auto before = camctl_test::ReadFileBytes(out);  // the header is on disk after the whole file
        if (c.packets < 0) {
            ASSERT_GE(before.size(), 136u);
            EXPECT_EQ(Le32(before, 128), 100u);
            EXPECT_EQ(Le32(before, 132), 2499u);
        }
        src.ctx()->m_Recorder.SetStartTick(os_tick_count64() - c.ms_ago);
        testing::internal::CaptureStderr();
        ASSERT_EQ(RecordStop(src.ctx()), 0);
        std::string log = testing::internal::GetCapturedStderr();
        auto b = camctl_test::ReadFileBytes(out);
        ASSERT_GE(b.size(), 136u);
        EXPECT_EQ(Le32(b, 128), 100u);
        EXPECT_GE(Le32(b, 132), c.lo) << "case " << i;
        EXPECT_LE(Le32(b, 132), c.hi) << "case " << i;
        EXPECT_EQ(log.find("nVideoFreq:0  nVideoFreq error") != std::string::npos, c.packets == 0) << log;
        // Only dwRate changed after byte 100 (the trailer's sizes lie before).
        if (c.packets < 0) {
            EXPECT_TRUE(std::equal(before.begin() + 100, before.begin() + 132, b.begin() + 100));
        }
    }
}

// With 8 kHz audio the audio sample count, not the wall clock, sets the
// rate: a 25 fps file fed as fast as possible still records as 25 fps.
TEST(Recorder, VideoFreq_FromAudioSamples) {
    TempDir dir;
    std::string out = dir / "a.avi";
    RecordSource src(H264Mulaw());
    ASSERT_TRUE(src.ok());
    ASSERT_EQ(RecordStart(src.ctx(), out.c_str()), 0);
    src.Feed();
    uint64_t frames = src.ctx()->m_Recorder.Frames();
    uint64_t samples = src.ctx()->m_Recorder.AudioSamples();
    ASSERT_GT(frames, 0u);
    ASSERT_GT(samples, 0u);
    ASSERT_EQ(RecordStop(src.ctx()), 0);
    auto b = camctl_test::ReadFileBytes(out);
    ASSERT_GE(b.size(), 136u);
    EXPECT_EQ(Le32(b, 132), frames * 800000 / samples);
    EXPECT_NEAR(Le32(b, 132), 2500, 30);
    // The audio in the file lasts as long as the samples counted.
    std::string durations = Ffprobe("-select_streams a -show_entries packet=duration_time -of csv=p=0", out);
    double total = 0;
    for (size_t pos = 0; pos < durations.size();) {
        size_t end = durations.find('\n', pos);
        if (end == std::string::npos) end = durations.size();
        if (end > pos) total += std::stod(durations.substr(pos, end - pos));
        pos = end + 1;
    }
    EXPECT_NEAR(total, samples / 8000.0, 0.01);
}

TEST(Recorder, Start_UnknownExtensionFails) {
    TempDir dir;
    RecordSource src(H264Ts());
    ASSERT_TRUE(src.ok());
    std::string bad = dir / "clip.nosuchext";
    testing::internal::CaptureStderr();
    EXPECT_EQ(RecordStart(src.ctx(), bad.c_str()), -1);
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("av_guess_format file:" + bad + " error!"), std::string::npos) << log;
    EXPECT_FALSE(src.ctx()->m_Recorder.Recording());
    EXPECT_FALSE(camctl_test::FileExists(bad));
    // A directory that does not exist: no recording either.
    EXPECT_EQ(RecordStart(src.ctx(), (dir / "missing/x.avi").c_str()), -1);
    EXPECT_FALSE(src.ctx()->m_Recorder.Recording());
    EXPECT_EQ(RecordStop(src.ctx()), -1);
}

struct ChildResult {
    bool exited = false;
    int code = -1;
    int signal = 0;
    std::string log;
    long long size = -1;
    uint64_t frames = 0;
};

// Records the mu-law file five times over in a child process with a file
// size limit: set before the start, or lowered under the written size after
// the first pass (writes then fail outright).
ChildResult RecordUnderSizeLimit(const std::string& out, rlim_t limit, bool lower_midway) {
    TempDir logdir;
    std::string log = logdir / "child.log";
    std::string frames_file = logdir / "frames";
    std::string src_file = H264Mulaw();
    ChildResult r;
    pid_t pid = fork();
    if (pid < 0) return r;
    if (pid == 0) {
        if (!freopen(log.c_str(), "w", stderr)) _exit(3);
        struct rlimit lim {
            limit, limit
        };
        if (!lower_midway && setrlimit(RLIMIT_FSIZE, &lim) != 0) _exit(3);
        RecordSource src(src_file);
        if (!src.ok() || RecordStart(src.ctx(), out.c_str()) != 0) _exit(4);
        src.Feed();
        if (lower_midway && setrlimit(RLIMIT_FSIZE, &lim) != 0) _exit(3);
        src.Feed(-1, 0, 4);
        uint64_t frames = src.ctx()->m_Recorder.Frames();
        int stopped = RecordStop(src.ctx());
        FILE* f = fopen(frames_file.c_str(), "w");
        if (f) {
            fprintf(f, "%llu", static_cast<unsigned long long>(frames));
            fclose(f);
        }
        _exit(stopped == 0 ? 0 : 5);
    }
    int status = 0;
    if (waitpid(pid, &status, 0) != pid) return r;
    r.exited = WIFEXITED(status);
    r.code = r.exited ? WEXITSTATUS(status) : -1;
    r.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    camctl_test::RunCommand("cat '" + log + "'", &r.log);
    std::string frames;
    camctl_test::RunCommand("cat '" + frames_file + "'", &frames);
    if (!frames.empty()) r.frames = std::stoull(frames);
    r.size = camctl_test::FileSize(out);
    return r;
}

// A recording that would outgrow the file size limit is closed in time
// (complete index, every packet that went in, a log line); writes that fail
// outright (the limit drops under the file's size) neither kill the process
// with SIGXFSZ nor lose what reached the file.
TEST(Recorder, SizeLimit_ClosedWithIndexAndProcessSurvives) {
    const struct {
        rlim_t limit;
        bool lowerMidway;
        const char* log;
    } cases[] = {{600 * 1024, false, " no room left"}, {100 * 1024, true, ""}};
    for (const auto& c : cases) {
        TempDir dir;
        std::string out = dir / "full.avi";
        ChildResult r = RecordUnderSizeLimit(out, c.limit, c.lowerMidway);
        ASSERT_TRUE(r.exited) << "child killed by signal " << r.signal;
        EXPECT_EQ(r.code, 0);
        EXPECT_NE(r.log.find("file:" + out + c.log), std::string::npos) << r.log;
        Probe p = ProbeAvi(out);
        EXPECT_EQ(p.codecs, "h264,pcm_mulaw");
        EXPECT_EQ(p.first_flags, "K");
        EXPECT_GT(p.video_packets, 10);
        if (c.lowerMidway) continue;
        EXPECT_LE(r.size, static_cast<long long>(c.limit));
        EXPECT_GT(r.frames, 50u);
        EXPECT_EQ(p.header_frames, static_cast<int>(r.frames));
        EXPECT_EQ(p.video_packets, static_cast<int>(r.frames));
        EXPECT_EQ(p.decoded_frames, static_cast<int>(r.frames));
    }
}

// ---- live recordings through the session ------------------------------

class RecordingSession : public CUrlVideoSession {
public:
    int DoVideoBuffer(unsigned char*, int, int) override { return 0; }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    FFMpegContext* Context() { return m_pContext; }
};

// A live stream recorded until the camera closes the connection (the reader
// ends; the file, finished when the session closes, holds every packet), or
// until the session closes mid-stream (closing finishes the file). 8 kHz
// audio sets the rate from its sample count.
TEST(RecorderSession, LiveRecordingFinished) {
    const struct {
        camsim::VideoCodec video;
        camsim::AudioCodec audio;
        int maxFrames;  // 0: endless, closed once 50 frames are in
        const char* codecs;
        const char* tag;
    } cases[] = {{camsim::VideoCodec::H264, camsim::AudioCodec::Mulaw, 60, "h264,pcm_mulaw", "H264"},
                 {camsim::VideoCodec::HEVC, camsim::AudioCodec::G726, 0, "hevc,adpcm_g726", "HEVC"}};
    for (const auto& c : cases) {
        camsim::Options o;
        o.pattern.width = 320;
        o.pattern.height = 240;
        o.pattern.codec = c.video;
        o.pattern.audio = c.audio;
        o.max_video_frames = c.maxFrames;
        camsim::Server server(o);
        std::string error;
        ASSERT_TRUE(server.Start(&error)) << error;
        TempDir dir;
        std::string out = dir / "live.avi";
        RecordingSession s;
        ASSERT_EQ(s.VideoInit(&s, server.Url().c_str()), 0);
        ASSERT_EQ(s.StartSaveAvi(out.c_str()), 0);
        FFMpegContext* ctx = s.Context();
        if (c.maxFrames)
            ASSERT_TRUE(camctl_test::PictureLog::WaitUntil([&] { return s.IsPlayFinish(); }, 20000));
        else
            ASSERT_TRUE(camctl_test::PictureLog::WaitUntil([&] { return ctx->m_Recorder.Frames() >= 50; }, 20000));
        const uint64_t frames = ctx->m_Recorder.Frames();
        const uint64_t samples = ctx->m_Recorder.AudioSamples();
        ASSERT_EQ(s.VideoFree(), 0);
        server.Stop();

        ASSERT_GT(frames, 30u);
        ASSERT_GT(samples, 0u);
        Probe p = ProbeAvi(out);
        EXPECT_EQ(p.codecs, c.codecs);
        EXPECT_EQ(p.video_tag, c.tag);
        EXPECT_GE(p.header_frames, static_cast<int>(frames));  // the reader may add some before the close
        EXPECT_EQ(p.video_packets, p.header_frames);
        EXPECT_EQ(p.decoded_frames, p.header_frames);
        EXPECT_EQ(p.first_flags, "K");
        EXPECT_EQ(p.scale, 100u);
        if (c.maxFrames) {
            EXPECT_EQ(p.header_frames, static_cast<int>(frames));
            EXPECT_EQ(p.rate, frames * 800000 / samples);
        } else {
            EXPECT_GE(p.rate, 1250u);
            EXPECT_LE(p.rate, 2750u);
        }
    }
}

}  // namespace
