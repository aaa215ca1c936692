// Audio thread: generated sine-tone files in each camera audio codec go
// through the audio queue and the thread; what reaches the owner's audio
// callback is compared with the ffmpeg CLI's own decode.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <algorithm>
#include <cstdio>

#include "camctl/FileVideoSession.h"
#include "camctl/FrameListener.h"
#include "camctl/UrlVideoSession.h"
#include "camsim/server.h"
#include "engine/engine.h"
#include "support/fixtures.h"

using camctl_test::Fixture;
using camctl_test::TempDir;

namespace {

std::string Sine(int rate) {
    return "-f lavfi -i sine=frequency=440:sample_rate=" + std::to_string(rate) + " -t 3 -ac 1 ";
}

// Records every block the audio thread delivers.
class AudioSink final : public IFrameListener {
public:
    int DoVideoBuffer(unsigned char*, int, int) override { return 0; }
    int DoAudioBuffer(unsigned short* buf, int count, int rate) override {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto* s = reinterpret_cast<const int16_t*>(buf);
        samples_.insert(samples_.end(), s, s + count);
        rates_.push_back(rate);
        ++blocks_;
        return 0;
    }
    int UpdateMotionAlarmRegion(char*) override { return 0; }

    std::vector<int16_t> samples() {
        std::lock_guard<std::mutex> lock(mutex_);
        return samples_;
    }
    std::vector<int> rates() {
        std::lock_guard<std::mutex> lock(mutex_);
        return rates_;
    }
    int blocks() const { return blocks_.load(); }

private:
    std::mutex mutex_;  // guards samples_ and rates_
    std::vector<int16_t> samples_;
    std::vector<int> rates_;
    std::atomic<int> blocks_{0};
};

bool WaitFor(const std::function<bool()>& cond, int timeout_ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

// A media context with a demuxer on an audio file and a running audio
// thread that reports to an AudioSink, as stream opening leaves it.
class AudioHarness {
public:
    // reopen: start through OpenAudioDecoder (the private HTTP path, which
    // builds its own decoder from the codec id and the announced rate)
    // rather than from the demuxer's stream parameters.
    AudioHarness(const std::string& file, bool reopen) : ctx_(FFMpegContextAlloc()) {
        ctx_->m_pOwner = static_cast<IFrameListener*>(&sink_);
        AVFormatContext* raw = nullptr;
        // Camera-sized packets from WAV files (a camera sends 20-100 ms).
        AVDictionary* opts = nullptr;
        av_dict_set(&opts, "max_size", "1024", 0);
        int opened = avformat_open_input(&raw, file.c_str(), nullptr, &opts);
        av_dict_free(&opts);
        if (opened < 0) return;
        ctx_->m_pFormatCtx.reset(raw);
        if (avformat_find_stream_info(raw, nullptr) < 0) return;
        int index = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (index < 0) return;
        const AVCodecParameters* par = raw->streams[index]->codecpar;
        ctx_->m_nAudioIndex = index;
        ctx_->m_bRunning = 1;
        ctx_->m_bDecode = 1;
        if (reopen) {
            ctx_->m_nAudioSampleRate = par->sample_rate;
            ok_ = OpenAudioDecoder(ctx_, par->codec_id) == 0;
            return;
        }
        const AVCodec* codec = avcodec_find_decoder(par->codec_id);
        camctl::CodecContextPtr c(avcodec_alloc_context3(codec));
        avcodec_parameters_to_context(c.get(), par);
        if (avcodec_open2(c.get(), codec, nullptr) < 0) return;
        ctx_->m_pAudioCodecCtx = std::move(c);
        ctx_->m_nAudioCodecId = par->codec_id;
        ok_ = StartAudioThread(ctx_) == 0;
    }
    ~AudioHarness() {
        ctx_->m_bRunning = 0;
        StopAudioThread(ctx_);
        FFMpegContextFree(ctx_);
    }
    AudioHarness(const AudioHarness&) = delete;
    AudioHarness& operator=(const AudioHarness&) = delete;

    bool ok() const { return ok_; }
    FFMpegContext* ctx() { return ctx_; }
    AudioSink& sink() { return sink_; }

    // Queues up to max audio packets (all when negative); pts_shift is
    // added to their time stamps. Returns the number queued.
    int Push(int max = -1, int64_t pts_shift = 0) {
        camctl::PacketPtr pkt = camctl::MakePacket();
        int n = 0;
        while ((max < 0 || n < max) && av_read_frame(ctx_->m_pFormatCtx.get(), pkt.get()) >= 0) {
            if (pkt->stream_index == ctx_->m_nAudioIndex) {
                pkt->pts += pts_shift;
                PushAudioPacket(ctx_, pkt.get());
                ++n;
            }
            av_packet_unref(pkt.get());
        }
        return n;
    }

private:
    AudioSink sink_;
    FFMpegContext* ctx_;
    bool ok_ = false;
};

// The ffmpeg CLI's decode of file, mono 16-bit at its own rate.
std::vector<int16_t> ReferenceDecode(const std::string& file) {
    TempDir dir;
    std::string raw = dir / "ref.raw";
    EXPECT_EQ(camctl_test::RunCommand("ffmpeg -v error -y -nostdin -i '" + file + "' -f s16le -ac 1 '" + raw + "'"), 0);
    auto bytes = camctl_test::ReadFileBytes(raw);
    std::vector<int16_t> out(bytes.size() / 2);
    std::memcpy(out.data(), bytes.data(), out.size() * 2);
    return out;
}

// Highest normalised correlation of got[start, start + len) against
// ref[start + lag, ...) over lags in [lag_min, lag_max].
double BestCorrelationIn(const std::vector<int16_t>& got, const std::vector<int16_t>& ref, size_t start, size_t len,
                         long lag_min, long lag_max) {
    if (got.size() < start + len) return 0;
    double best = -1;
    for (long lag = lag_min; lag <= lag_max; ++lag) {
        const long from = static_cast<long>(start) + lag;
        if (from < 0 || static_cast<size_t>(from) + len > ref.size()) continue;
        double xy = 0, xx = 0, yy = 0;
        for (size_t i = 0; i < len; ++i) {
            double x = got[start + i];
            double y = ref[static_cast<size_t>(from) + i];
            xy += x * y;
            xx += x * x;
            yy += y * y;
        }
        if (xx > 0 && yy > 0) best = std::max(best, xy / std::sqrt(xx * yy));
    }
    return best;
}

// One second from half a second in, lags of up to max_lag samples either
// way (decoders differ in start-up delay).
double BestCorrelation(const std::vector<int16_t>& got, const std::vector<int16_t>& ref, int rate, int max_lag) {
    return BestCorrelationIn(got, ref, static_cast<size_t>(rate) / 2, static_cast<size_t>(rate), -max_lag, max_lag);
}

struct CodecCase {
    const char* name;
    std::string file;  // fixture name
    std::string args;  // ffmpeg arguments that make it
    int rate;          // rate the callback must report
    bool reopen;       // open through OpenAudioDecoder
};

void PrintTo(const CodecCase& c, std::ostream* os) { *os << c.name; }

class AudioCodecTest : public ::testing::TestWithParam<CodecCase> {};

// Each codec's samples reach the callback at the right rate and match the
// reference decode; AAC goes through FAAD2 from ADTS and from MP4.
TEST_P(AudioCodecTest, Decode_MatchesReference) {
    const CodecCase& c = GetParam();
    std::string file = Fixture(c.file, c.args);
    AudioHarness h(file, c.reopen);
    ASSERT_TRUE(h.ok());
    std::vector<int16_t> ref = ReferenceDecode(file);
    ASSERT_GT(ref.size(), static_cast<size_t>(c.rate * 2));
    int packets = h.Push();
    ASSERT_GT(packets, 0);
    ASSERT_TRUE(WaitFor([&] { return h.sink().samples().size() + c.rate / 10 >= ref.size(); }, 10000))
        << "got " << h.sink().samples().size() << " of " << ref.size();
    std::vector<int16_t> got = h.sink().samples();
    std::vector<int> rates = h.sink().rates();
    for (int r : rates) ASSERT_EQ(r, c.rate);
    // FAAD2 adds no samples beyond priming; the FFmpeg decoders none at all.
    EXPECT_LE(got.size(), ref.size() + 2048);
    EXPECT_GT(BestCorrelation(got, ref, c.rate, 2048), 0.99);
    EXPECT_EQ(h.ctx()->m_nAudioSampleRate, c.rate);
    EXPECT_EQ(h.ctx()->m_bAudioClock, 1);
}

INSTANTIATE_TEST_SUITE_P(
    Codecs, AudioCodecTest,
    ::testing::Values(
        CodecCase{"AacAdts", "au_aac.aac", Sine(16000) + "-c:a aac -b:a 48k", 16000, false},
        CodecCase{"AacMp4", "au_aac.m4a", Sine(16000) + "-c:a aac -b:a 48k", 16000, false},
        CodecCase{"Mulaw", "au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw", 8000, true},
        CodecCase{"Alaw", "au_alaw.wav", Sine(8000) + "-c:a pcm_alaw", 8000, true},
        CodecCase{"G726", "au_g726.wav", Sine(8000) + "-c:a g726 -b:a 16k", 8000, true},
        CodecCase{"G722", "au_g722.wav", Sine(16000) + "-c:a g722", 16000, true},
        CodecCase{"Mp3Float", "au_mp3.mp3", Sine(16000) + "-c:a libmp3lame -b:a 64k", 16000, false}),
    [](const ::testing::TestParamInfo<CodecCase>& i) { return std::string(i.param.name); });

// Opens a decoder on the first audio stream of file for the helper tests.
struct DirectDecoder {
    camctl::InputFormatPtr fmt;
    camctl::CodecContextPtr codec;
    int index = -1;
    explicit DirectDecoder(const std::string& file) {
        AVFormatContext* raw = nullptr;
        if (avformat_open_input(&raw, file.c_str(), nullptr, nullptr) < 0) return;
        fmt.reset(raw);
        avformat_find_stream_info(raw, nullptr);
        index = av_find_best_stream(raw, AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
        if (index < 0) return;
        const AVCodec* c = avcodec_find_decoder(raw->streams[index]->codecpar->codec_id);
        codec.reset(avcodec_alloc_context3(c));
        avcodec_parameters_to_context(codec.get(), raw->streams[index]->codecpar);
        if (avcodec_open2(codec.get(), c, nullptr) < 0) codec.reset();
    }
    camctl::PacketPtr NextPacket() {
        camctl::PacketPtr pkt = camctl::MakePacket();
        while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
            if (pkt->stream_index == index) return pkt;
            av_packet_unref(pkt.get());
        }
        return nullptr;
    }
};

double Rms(const int16_t* s, int n) {
    double sum = 0;
    for (int i = 0; i < n; ++i) sum += static_cast<double>(s[i]) * s[i];
    return std::sqrt(sum / n);
}

// The one-call helper: a planar stereo frame comes out as plane 0 then
// plane 1, and a buffer too small for the frame gives AVERROR(EINVAL) with
// the decoder's message.
TEST(AudioDecode4, PlanarPlanesAndShortBuffer) {
    // Left: a tone, right: silence.
    std::string file = Fixture("au_stereo.mp2",
                               "-f lavfi -i sine=frequency=440:sample_rate=16000 -f lavfi -i anullsrc=r=16000:cl=mono "
                               "-filter_complex [0][1]amerge=inputs=2 -t 1 -c:a mp2 -ac 2");
    DirectDecoder d(file);
    ASSERT_TRUE(d.codec);
    ASSERT_TRUE(av_sample_fmt_is_planar(d.codec->sample_fmt));
    ASSERT_EQ(d.codec->sample_fmt, AV_SAMPLE_FMT_S16P);
    std::vector<uint8_t> out(64000);
    // Skip the encoder's start-up frame.
    for (int i = 0; i < 2; ++i) {
        camctl::PacketPtr pkt = d.NextPacket();
        ASSERT_TRUE(pkt);
        int size = static_cast<int>(out.size());
        ASSERT_EQ(AudioDecode4(d.codec.get(), pkt.get(), out.data(), &size), pkt->size);
        ASSERT_EQ(size, 1152 * 2 * 2);
    }
    const auto* s = reinterpret_cast<const int16_t*>(out.data());
    EXPECT_GT(Rms(s, 1152), 2000);  // lavfi's sine: 1/8 of full scale
    EXPECT_LT(Rms(s + 1152, 1152), 30);

    camctl::PacketPtr pkt = d.NextPacket();
    ASSERT_TRUE(pkt);
    int size = 1000;
    testing::internal::CaptureStderr();
    EXPECT_EQ(AudioDecode4(d.codec.get(), pkt.get(), out.data(), &size), AVERROR(EINVAL));
    std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(size, 0);
    EXPECT_NE(log.find("output buffer size is too small for the current frame (1000 < 4608)"), std::string::npos)
        << log;
}

// Send/receive copies exactly the decoded samples of the first frame.
TEST(AudioDecodeSendReceive, CopiesFrame) {
    std::string file = Fixture("au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw");
    DirectDecoder d(file);
    ASSERT_TRUE(d.codec);
    camctl::PacketPtr pkt = d.NextPacket();
    ASSERT_TRUE(pkt);
    std::vector<uint8_t> out(16000, 0xAB);
    int size = static_cast<int>(out.size());
    ASSERT_EQ(AudioDecodeSendReceive(d.codec.get(), pkt.get(), out.data(), &size), 0);
    EXPECT_EQ(size, pkt->size * 2);
    EXPECT_EQ(out[static_cast<size_t>(size)], 0xAB);
    // A packet the decoder refuses gives -1 (mu-law of 0 bytes is "drain").
    camctl::PacketPtr bad = camctl::MakePacket();
    size = static_cast<int>(out.size());
    EXPECT_EQ(AudioDecodeSendReceive(d.codec.get(), bad.get(), out.data(), &size), -1);
}

// The audio clock: anchored by the first time-stamped block, kept while
// blocks follow one another, re-anchored (and the video offset reset) on a
// jump, and dropped after about three seconds without packets.
TEST(AudioClock, AnchorContinueJumpAndDrop) {
    std::string file = Fixture("au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw");
    AudioHarness h(file, true);
    ASSERT_TRUE(h.ok());
    FFMpegContext* ctx = h.ctx();
    // The first packet has time stamp 0 and sets no clock.
    ASSERT_EQ(h.Push(1), 1);
    ASSERT_TRUE(WaitFor([&] { return h.sink().blocks() == 1; }, 2000));
    EXPECT_EQ(ctx->m_bAudioClock, 1);
    EXPECT_EQ(ctx->m_AudioClock.Load().refTick, 0u);

    uint64_t before = os_tick_count64();
    ASSERT_EQ(h.Push(1), 1);
    ASSERT_TRUE(WaitFor([&] { return h.sink().blocks() == 2; }, 2000));
    const AudioClock::State anchored = ctx->m_AudioClock.Load();
    const uint64_t ref_tick = anchored.refTick, ref_pts = anchored.refPts;
    EXPECT_GE(ref_tick, before);
    EXPECT_LE(ref_tick, os_tick_count64());
    ASSERT_GT(ref_pts, 0u);
    EXPECT_GT(anchored.clock, ref_tick);  // the end of that block
    ctx->m_AudioClock.Update([](AudioClock::State& c) { c.videoOffset = 777; });

    ASSERT_EQ(h.Push(3), 3);
    ASSERT_TRUE(WaitFor([&] { return h.sink().blocks() == 5; }, 2000));
    AudioClock::State c = ctx->m_AudioClock.Load();
    EXPECT_EQ(c.refTick, ref_tick);
    EXPECT_EQ(c.refPts, ref_pts);
    EXPECT_EQ(c.videoOffset, 777u);

    // Ten seconds ahead of the stream.
    ASSERT_EQ(h.Push(1, 80000), 1);
    ASSERT_TRUE(WaitFor([&] { return h.sink().blocks() == 6; }, 2000));
    c = ctx->m_AudioClock.Load();
    EXPECT_GT(c.refPts, ref_pts + 9000);
    EXPECT_EQ(c.videoOffset, 0u);

    ASSERT_TRUE(WaitFor([&] { return ctx->m_bAudioClock == 0; }, 5000));
    c = ctx->m_AudioClock.Load();
    EXPECT_EQ(c.refTick, 0u);
    EXPECT_EQ(c.refPts, 0u);
    EXPECT_EQ(c.clock, 0u);
}

// The audio thread anchors the clock (tick, time and end move together)
// while the reader resets it and the video thread reads it: every read is
// one whole state, never half of one update and half of another.
TEST(AudioClock, ReadsNeverSeeHalfAnUpdate) {
    AudioClock clock;
    std::atomic<bool> done{false};
    std::thread audio([&] {
        for (uint64_t t = 1; t <= 20000; ++t)
            clock.Update([t](AudioClock::State& c) { c = {1000 + t, t, 1040 + t, 0}; });
        done = true;
    });
    std::thread reader([&] {
        while (!done) clock.Reset();
    });
    int torn = 0;
    while (!done) {
        const AudioClock::State c = clock.Load();
        const bool reset = c.refTick == 0 && c.refPts == 0 && c.clock == 0;
        torn += !reset && (c.refTick - c.refPts != 1000 || c.clock != c.refTick + 40);
    }
    audio.join();
    reader.join();
    EXPECT_EQ(torn, 0);
}

// With decoding switched off packets are consumed, the clock flag is set,
// and nothing is delivered.
TEST(AudioThread, DecodeOff_NothingDelivered) {
    std::string file = Fixture("au_alaw.wav", Sine(8000) + "-c:a pcm_alaw");
    AudioHarness h(file, true);
    ASSERT_TRUE(h.ok());
    h.ctx()->m_bDecode = 0;
    ASSERT_GT(h.Push(5), 0);
    ASSERT_TRUE(WaitFor([&] { return h.ctx()->m_bAudioClock == 1; }, 2000));
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    AVPacket* left = PopAudioPacket(h.ctx());
    EXPECT_EQ(left, nullptr) << "packets left in the queue";
    FreePacket(left);
    EXPECT_EQ(h.sink().blocks(), 0);
}

// Reopening for another codec stops the running thread and decodes the
// new one; a codec without decoder leaves the stream without audio.
TEST(AudioThread, Reopen_SwitchesCodecOrDropsAudio) {
    std::string mulaw = Fixture("au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw");
    std::string alaw = Fixture("au_alaw.wav", Sine(8000) + "-c:a pcm_alaw");
    AudioHarness h(mulaw, true);
    ASSERT_TRUE(h.ok());
    ASSERT_EQ(OpenAudioDecoder(h.ctx(), AV_CODEC_ID_PCM_ALAW), 0);
    EXPECT_NE(h.ctx()->m_hAudioThread, nullptr);
    EXPECT_EQ(h.ctx()->m_nAudioCodecId, AV_CODEC_ID_PCM_ALAW);

    // A-law packets now decode to the tone.
    DirectDecoder d(alaw);
    std::vector<int16_t> ref = ReferenceDecode(alaw);
    int pushed = 0;
    while (camctl::PacketPtr pkt = d.NextPacket()) {
        pkt->stream_index = h.ctx()->m_nAudioIndex;
        PushAudioPacket(h.ctx(), pkt.get());
        ++pushed;
    }
    ASSERT_GT(pushed, 0);
    ASSERT_TRUE(WaitFor([&] { return h.sink().samples().size() >= ref.size(); }, 5000));
    EXPECT_GT(BestCorrelation(h.sink().samples(), ref, 8000, 16), 0.999);

    EXPECT_EQ(OpenAudioDecoder(h.ctx(), AV_CODEC_ID_NONE), -1);
    EXPECT_EQ(h.ctx()->m_nAudioIndex, -1);
    EXPECT_EQ(h.ctx()->m_nAudioCodecId, 0);
    EXPECT_EQ(h.ctx()->m_hAudioThread, nullptr);
    EXPECT_EQ(h.ctx()->m_pAudioCodecCtx, nullptr);
}

// ---- through the session classes -------------------------------------

// Audio blocks as a session's owner sees them.
class AudioLog {
public:
    void Add(const unsigned short* buf, int count, int rate) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto* s = reinterpret_cast<const int16_t*>(buf);
        samples_.insert(samples_.end(), s, s + count);
        if (rate != rate_) rate_changes_++;
        rate_ = rate;
    }
    size_t Count() {
        std::lock_guard<std::mutex> lock(mutex_);
        return samples_.size();
    }
    std::vector<int16_t> Samples() {
        std::lock_guard<std::mutex> lock(mutex_);
        return samples_;
    }
    int Rate() {
        std::lock_guard<std::mutex> lock(mutex_);
        return rate_;
    }
    int RateChanges() {
        std::lock_guard<std::mutex> lock(mutex_);
        return rate_changes_;
    }

private:
    std::mutex mutex_;  // guards the fields below
    std::vector<int16_t> samples_;
    int rate_ = 0;
    int rate_changes_ = 0;
};

// A file session with smooth pacing that notes, for every picture, how far
// from its audio-clock due time it arrived.
class PacedFileSession : public CFileVideoSession {
public:
    int DoVideoBuffer(unsigned char*, int, int) override {
        FFMpegContext* c = ctx.load();
        if (!c || !c->m_bAudioClock) return 0;
        const AudioClock::State clock = c->m_AudioClock.Load();
        const uint64_t ref_tick = clock.refTick, ref_pts = clock.refPts, offset = clock.videoOffset;
        if (!ref_tick || !ref_pts || !offset) return 0;
        // Same 32-bit tick arithmetic as the pacing itself (90 kHz video).
        const uint32_t t = static_cast<uint32_t>(c->m_nLastVideoPts.load() * 1000 / 90000);
        const uint32_t due = static_cast<uint32_t>(ref_tick - ref_pts - offset) + t;
        const uint32_t now = os_tick_count();
        std::lock_guard<std::mutex> lock(mutex_);
        errors_.push_back(static_cast<int32_t>(now - due));
        deliveries_.push_back(now);
        media_ms_.push_back(t);
        return 0;
    }
    int DoAudioBuffer(unsigned short* buf, int count, int rate) override {
        audio.Add(buf, count, rate);
        return 0;
    }
    std::vector<int32_t> Errors() {
        std::lock_guard<std::mutex> lock(mutex_);
        return errors_;
    }
    // Wall-clock and media milliseconds between the first and last picture.
    std::pair<uint32_t, uint32_t> Spans() {
        std::lock_guard<std::mutex> lock(mutex_);
        if (deliveries_.size() < 2) return {0, 0};
        return {deliveries_.back() - deliveries_.front(), media_ms_.back() - media_ms_.front()};
    }
    FFMpegContext* Context() { return m_pContext; }

    std::atomic<FFMpegContext*> ctx{nullptr};
    AudioLog audio;

private:
    std::mutex mutex_;  // guards the vectors below
    std::vector<int32_t> errors_;
    std::vector<uint32_t> deliveries_;
    std::vector<uint32_t> media_ms_;
};

// A file with AAC audio played through a file session: the owner gets the
// tone at 16 kHz, and pictures follow the audio clock in real time. The
// figures printed here go into docs/PERFORMANCE.md.
TEST(SessionAudio, FileSession_AudioAndVideoPacedToAudio) {
    std::string file = Fixture("ses_h264_aac.ts",
                               "-f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=16000 "
                               "-t 8 -c:v libx264 -preset ultrafast -bf 0 -g 25 -pix_fmt yuv420p -c:a aac -b:a 48k -ac 1");
    const int threads_before = camctl_test::CountThreads();
    PacedFileSession s;
    s.SetSmoothStream(1);
    ASSERT_EQ(s.VideoInit(&s, file.c_str()), 0);
    s.ctx = s.Context();
    std::this_thread::sleep_for(std::chrono::milliseconds(5500));
    EXPECT_EQ(s.VideoFree(), 0);
    // All three engine threads are gone, the audio thread included.
    EXPECT_TRUE(WaitFor([&] { return camctl_test::CountThreads() == threads_before; }, 2000))
        << camctl_test::CountThreads() << " threads, " << threads_before << " before";

    EXPECT_EQ(s.audio.Rate(), 16000);
    EXPECT_EQ(s.audio.RateChanges(), 1);
    EXPECT_GT(s.audio.Count(), 16000u * 4);
    std::vector<int16_t> ref(16000 * 3);
    for (size_t i = 0; i < ref.size(); ++i)
        ref[i] = static_cast<int16_t>(4096 * std::sin(2 * M_PI * 440.0 * static_cast<double>(i) / 16000));
    EXPECT_GT(BestCorrelation(s.audio.Samples(), ref, 16000, 40), 0.99);

    std::vector<int32_t> errors = s.Errors();
    ASSERT_GT(errors.size(), 100u);
    std::vector<int32_t> abs_errors;
    for (int32_t e : errors) abs_errors.push_back(e < 0 ? -e : e);
    std::sort(abs_errors.begin(), abs_errors.end());
    const int32_t p50 = abs_errors[abs_errors.size() / 2];
    const int32_t p95 = abs_errors[abs_errors.size() * 95 / 100];
    const int32_t worst = abs_errors.back();
    auto spans = s.Spans();
    printf("pacing: %zu pictures, |delivery - due| p50 %d ms, p95 %d ms, max %d ms; %u ms wall for %u ms media\n",
           errors.size(), p50, p95, worst, spans.first, spans.second);
    EXPECT_LE(p95, 40);
    EXPECT_LE(worst, 200);
    // Real time, not as fast as the decoder goes.
    EXPECT_NEAR(static_cast<double>(spans.first), static_cast<double>(spans.second), 0.05 * spans.second + 40);
}

// A live session on the camera simulator: every audio mode reaches the
// owner at its rate, matching FFmpeg's decode of what the simulator sent.
class ToneSession : public CUrlVideoSession {
public:
    int DoVideoBuffer(unsigned char*, int, int) override { return 0; }
    int DoAudioBuffer(unsigned short* buf, int count, int rate) override {
        audio.Add(buf, count, rate);
        return 0;
    }
    AudioLog audio;
};

// FFmpeg's own decode of the audio the simulator sends for these options
// (each client gets the same generated stream from its start).
std::vector<int16_t> SimulatorReference(const camsim::PatternOptions& options, int rate, int seconds) {
    std::vector<int16_t> out;
    camsim::PatternSource source(options);
    if (!source.Open(nullptr)) return out;
    static const std::pair<camsim::AudioCodec, AVCodecID> kIds[] = {
        {camsim::AudioCodec::Aac, AV_CODEC_ID_AAC},          {camsim::AudioCodec::Mulaw, AV_CODEC_ID_PCM_MULAW},
        {camsim::AudioCodec::Alaw, AV_CODEC_ID_PCM_ALAW},    {camsim::AudioCodec::G726, AV_CODEC_ID_ADPCM_G726},
        {camsim::AudioCodec::G722, AV_CODEC_ID_ADPCM_G722}};
    AVCodecID id = AV_CODEC_ID_NONE;
    for (const auto& k : kIds)
        if (k.first == options.audio) id = k.second;
    const AVCodec* codec = avcodec_find_decoder(id);
    camctl::CodecContextPtr dec(avcodec_alloc_context3(codec));
    dec->sample_rate = rate;
    av_channel_layout_default(&dec->ch_layout, 1);
    if (id == AV_CODEC_ID_ADPCM_G726) dec->bits_per_coded_sample = 2;
    if (id == AV_CODEC_ID_ADPCM_G722) dec->bits_per_coded_sample = 4;
    if (avcodec_open2(dec.get(), codec, nullptr) < 0) return out;
    camctl::PacketPtr pkt = camctl::MakePacket();
    camctl::FramePtr frame = camctl::MakeFrame();
    camsim::MediaFrame f;
    while (out.size() < static_cast<size_t>(rate) * seconds && source.Next(&f)) {
        if (f.stream_type != camsim::kStreamAudio) continue;
        pkt->data = const_cast<uint8_t*>(f.data);
        pkt->size = static_cast<int>(f.size);
        if (avcodec_send_packet(dec.get(), pkt.get()) < 0) continue;
        while (avcodec_receive_frame(dec.get(), frame.get()) == 0) {
            for (int i = 0; i < frame->nb_samples; ++i) {
                if (frame->format == AV_SAMPLE_FMT_FLTP) {
                    float v = reinterpret_cast<const float*>(frame->data[0])[i];
                    out.push_back(static_cast<int16_t>(std::max(-1.0f, std::min(1.0f, v)) * 32767.0f));
                } else {
                    out.push_back(reinterpret_cast<const int16_t*>(frame->data[0])[i]);
                }
            }
            av_frame_unref(frame.get());
        }
    }
    return out;
}

// Start of the first beep at or after from: a loud sample after half a
// second of quiet. -1 when there is none.
long BeepOnset(const std::vector<int16_t>& v, size_t from, int rate) {
    size_t quiet = 0;
    for (size_t i = from; i < v.size(); ++i) {
        const int a = v[i] < 0 ? -v[i] : v[i];
        if (a > 8000) {
            if (quiet >= static_cast<size_t>(rate) / 2) return static_cast<long>(i);
            quiet = 0;
        } else if (a < 4000) {
            ++quiet;  // the rise in between neither counts nor resets
        }
    }
    return -1;
}

// Correlation of got with the simulator's reference at the best alignment:
// the beeps give the lag up to whole seconds, a narrow search the rest.
double ToneCorrelation(const std::vector<int16_t>& got, const std::vector<int16_t>& ref, int rate) {
    const long g = BeepOnset(got, 0, rate), r = BeepOnset(ref, 0, rate);
    if (g < 0 || r < 0) return 0;
    // One second from the quiet half second before the beep.
    const size_t start = static_cast<size_t>(g - rate / 2);
    double best = 0;
    for (long k = -2; k <= 2; ++k) {
        const long lag = r - g + k * rate;
        best = std::max(best, BestCorrelationIn(got, ref, start, static_cast<size_t>(rate), lag - 64, lag + 64));
    }
    return best;
}

struct SimCase {
    const char* name;
    camsim::AudioCodec codec;
    int rate;
};

void PrintTo(const SimCase& c, std::ostream* os) { *os << c.name; }

class SimulatorAudioTest : public ::testing::TestWithParam<SimCase> {};

TEST_P(SimulatorAudioTest, LiveSession_DeliversTone) {
    const SimCase& c = GetParam();
    camsim::Options o;
    o.pattern.width = 160;
    o.pattern.height = 120;
    o.pattern.audio = c.codec;
    camsim::Server server(o);
    std::string error;
    ASSERT_TRUE(server.Start(&error)) << error;
    ToneSession s;
    ASSERT_EQ(s.VideoInit(&s, server.Url().c_str()), 0);
    ASSERT_EQ(s.SetDecodeEnbale(1), 0);  // a live session starts with decoding off
    const size_t want = static_cast<size_t>(c.rate) * 3;
    bool enough = WaitFor([&] { return s.audio.Count() >= want; }, 8000);
    s.VideoFree();
    server.Stop();
    ASSERT_TRUE(enough) << s.audio.Count() << " samples";
    EXPECT_EQ(s.audio.Rate(), c.rate);
    EXPECT_EQ(s.audio.RateChanges(), 1);
    std::vector<int16_t> got = s.audio.Samples();
    std::vector<int16_t> ref = SimulatorReference(o.pattern, c.rate, 5);
    EXPECT_GT(ToneCorrelation(got, ref, c.rate), 0.99);
}

INSTANTIATE_TEST_SUITE_P(Simulator, SimulatorAudioTest,
                         ::testing::Values(SimCase{"Aac", camsim::AudioCodec::Aac, 16000},
                                           SimCase{"Mulaw", camsim::AudioCodec::Mulaw, 8000},
                                           SimCase{"Alaw", camsim::AudioCodec::Alaw, 8000},
                                           SimCase{"G726", camsim::AudioCodec::G726, 8000},
                                           SimCase{"G722", camsim::AudioCodec::G722, 16000}),
                         [](const ::testing::TestParamInfo<SimCase>& i) { return std::string(i.param.name); });

// A camera that announces its audio only with its first audio frame: the
// reader reopens the audio decoder while the stream is still starting.
// Every cycle must run one audio thread at a time, joined on close.
TEST(SessionAudio, AudioAnnouncedLate_OpenCloseCycles) {
    camsim::Options o;
    o.pattern.width = 160;
    o.pattern.height = 120;
    o.pattern.audio = camsim::AudioCodec::Mulaw;
    o.audio_announced_late = true;
    camsim::Server server(o);
    std::string error;
    ASSERT_TRUE(server.Start(&error)) << error;
    for (int i = 0; i < 20; ++i) {
        ToneSession s;
        ASSERT_EQ(s.VideoInit(&s, server.Url().c_str()), 0);
        ASSERT_EQ(s.SetDecodeEnbale(1), 0);
        ASSERT_TRUE(WaitFor([&] { return s.audio.Count() > 0; }, 8000)) << "cycle " << i;
        EXPECT_EQ(s.audio.Rate(), 8000);
        s.VideoFree();
    }
}

}  // namespace
