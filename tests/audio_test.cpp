// Catches: audio decoded wrong or at the wrong rate per codec and source, a planar frame mixed up, a short output buffer overrun or its message lost, a clock not anchored, not kept, not re-anchored or not dropped, torn clock reads, audio delivered with decoding off, a codec switch that keeps the old thread, audio thread leaks across session cycles.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstring>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// Audio blocks as an owner sees them.
class AudioLog {
public:
    void Add(const unsigned short* buf, int count, int rate) {
        std::lock_guard<std::mutex> lock(mutex_);
        const auto* s = reinterpret_cast<const int16_t*>(buf);
        samples_.insert(samples_.end(), s, s + count);
        rate_changes_ += rate != rate_;
        rate_ = rate;
        ++blocks_;
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
    int Blocks() const { return blocks_.load(); }

private:
    std::mutex mutex_;  // guards the fields below
    std::vector<int16_t> samples_;
    int rate_ = 0;
    int rate_changes_ = 0;
    std::atomic<int> blocks_{0};
};

// An owner (a session class, or a bare listener) that logs its audio.
struct NoMotion : IFrameListener {
    virtual ~NoMotion() = default;
    int UpdateMotionAlarmRegion(char*) override { return 0; }
};
template <class Base>
class ToneOwner final : public Base {
public:
    int DoVideoBuffer(unsigned char*, int, int) override { return 0; }
    int DoAudioBuffer(unsigned short* buf, int count, int rate) override {
        audio.Add(buf, count, rate);
        return 0;
    }
    AudioLog audio;
};
using AudioSink = ToneOwner<NoMotion>;
using ToneFileSession = ToneOwner<CFileVideoSession>;
using ToneSession = ToneOwner<CUrlVideoSession>;

// Bounded wait for an event; the deadline only ends a failing test.
bool WaitFor(const std::function<bool()>& cond, int timeout_ms = 20000) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
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
            ctx_->m_AudioClock.SetSampleRate(par->sample_rate);
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

struct CodecCase {
    const char* name;
    std::string file;  // fixture name
    std::string args;  // ffmpeg arguments that make it
    int rate;          // rate the callback must report
    bool reopen;       // open through OpenAudioDecoder (the private HTTP path)
};

// Each codec's samples reach the owner at the right rate and match the
// ffmpeg CLI's decode; AAC goes through FAAD2 from ADTS and from MP4.
TEST(AudioThread, EachCodecMatchesTheReferenceDecode) {
    const CodecCase cases[] = {
        {"AacAdts", "au_aac.aac", Sine(16000) + "-c:a aac -b:a 48k", 16000, false},
        {"AacMp4", "au_aac.m4a", Sine(16000) + "-c:a aac -b:a 48k", 16000, false},
        {"Mulaw", "au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw", 8000, true},
        {"Alaw", "au_alaw.wav", Sine(8000) + "-c:a pcm_alaw", 8000, true},
        {"G726", "au_g726.wav", Sine(8000) + "-c:a g726 -b:a 16k", 8000, true},
        {"G722", "au_g722.wav", Sine(16000) + "-c:a g722", 16000, true},
        {"Mp3Float", "au_mp3.mp3", Sine(16000) + "-c:a libmp3lame -b:a 64k", 16000, false}};
    for (const CodecCase& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string file = Fixture(c.file, c.args);
        AudioHarness h(file, c.reopen);
        ASSERT_TRUE(h.ok());
        const std::vector<int16_t> ref = ReferenceDecode(file);
        ASSERT_GT(ref.size(), static_cast<size_t>(c.rate * 2));
        ASSERT_GT(h.Push(), 0);
        ASSERT_TRUE(WaitFor([&] { return h.sink().audio.Count() + c.rate / 10 >= ref.size(); }))
            << "got " << h.sink().audio.Count() << " of " << ref.size();
        EXPECT_EQ(h.sink().audio.Rate(), c.rate);
        EXPECT_EQ(h.sink().audio.RateChanges(), 1);
        const std::vector<int16_t> got = h.sink().audio.Samples();
        EXPECT_LE(got.size(), ref.size() + 2048);  // FAAD2 adds no samples beyond priming
        EXPECT_GT(BestCorrelation(got, ref, c.rate, 2048), 0.99);
        EXPECT_EQ(h.ctx()->m_AudioClock.SampleRate(), c.rate);
        EXPECT_TRUE(h.ctx()->m_AudioClock.Active());
    }
}

// The one-call helpers: a planar stereo frame comes out plane 0 then plane 1,
// a too small buffer gives AVERROR(EINVAL) and the decoder's message, and
// send/receive copies exactly the frame's samples.
TEST(AudioThread, DecodeHelpers) {
    // Left: a tone, right: silence.
    DirectDecoder d(Fixture("au_stereo.mp2",
                            "-f lavfi -i sine=frequency=440:sample_rate=16000 -f lavfi -i anullsrc=r=16000:cl=mono "
                            "-filter_complex [0][1]amerge=inputs=2 -t 1 -c:a mp2 -ac 2"));
    ASSERT_TRUE(d.codec);
    ASSERT_EQ(d.codec->sample_fmt, AV_SAMPLE_FMT_S16P);
    std::vector<uint8_t> out(64000, 0xAB);
    for (int i = 0; i < 2; ++i) {  // the second frame, past the encoder's start-up
        camctl::PacketPtr pkt = d.NextPacket();
        ASSERT_TRUE(pkt);
        int size = static_cast<int>(out.size());
        ASSERT_EQ(AudioDecode4(d.codec.get(), pkt.get(), out.data(), &size), pkt->size);
        ASSERT_EQ(size, 1152 * 2 * 2);
    }
    auto rms = [](const int16_t* s, int n) {
        double sum = 0;
        for (int i = 0; i < n; ++i) sum += static_cast<double>(s[i]) * s[i];
        return std::sqrt(sum / n);
    };
    EXPECT_GT(rms(reinterpret_cast<const int16_t*>(out.data()), 1152), 2000);  // lavfi's sine: 1/8 of full scale
    EXPECT_LT(rms(reinterpret_cast<const int16_t*>(out.data()) + 1152, 1152), 30);
    camctl::PacketPtr pkt = d.NextPacket();
    ASSERT_TRUE(pkt);
    int size = 1000;
    testing::internal::CaptureStderr();
    EXPECT_EQ(AudioDecode4(d.codec.get(), pkt.get(), out.data(), &size), AVERROR(EINVAL));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(size, 0);
    EXPECT_NE(log.find("output buffer size is too small for the current frame (1000 < 4608)"), std::string::npos)
        << log;

    DirectDecoder mulaw(Fixture("au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw"));
    ASSERT_TRUE(mulaw.codec);
    pkt = mulaw.NextPacket();
    ASSERT_TRUE(pkt);
    std::fill(out.begin(), out.end(), 0xAB);
    size = 16000;
    ASSERT_EQ(AudioDecodeSendReceive(mulaw.codec.get(), pkt.get(), out.data(), &size), 0);
    EXPECT_EQ(size, pkt->size * 2);
    EXPECT_EQ(out[static_cast<size_t>(size)], 0xAB);
    camctl::PacketPtr empty = camctl::MakePacket();  // an empty packet means "drain": refused
    size = 16000;
    EXPECT_EQ(AudioDecodeSendReceive(mulaw.codec.get(), empty.get(), out.data(), &size), -1);
}

// The audio clock: anchored by the first time-stamped block, kept while
// blocks follow one another, re-anchored (video offset reset) on a jump, and
// dropped after some seconds without packets.
TEST(AudioThread, ClockAnchorContinueJumpAndDrop) {
    AudioHarness h(Fixture("au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw"), true);
    ASSERT_TRUE(h.ok());
    FFMpegContext* ctx = h.ctx();
    auto push_and_wait = [&](int n, int64_t shift) {
        const int want = h.sink().audio.Blocks() + n;
        ASSERT_EQ(h.Push(n, shift), n);
        ASSERT_TRUE(WaitFor([&] { return h.sink().audio.Blocks() == want; }));
    };
    push_and_wait(1, 0);  // time stamp 0 sets no reference
    EXPECT_TRUE(ctx->m_AudioClock.Active());
    EXPECT_EQ(ctx->m_AudioClock.Load().refTick, 0u);
    const uint64_t before = os_tick_count64();
    push_and_wait(1, 0);
    const AudioClock::State anchored = ctx->m_AudioClock.Load();
    EXPECT_GE(anchored.refTick, before);
    EXPECT_LE(anchored.refTick, os_tick_count64());
    ASSERT_GT(anchored.refPts, 0u);
    EXPECT_GT(anchored.clock, anchored.refTick);  // the end of that block
    ctx->m_AudioClock.Update([](AudioClock::State& c) { c.videoOffset = 777; });
    push_and_wait(3, 0);
    AudioClock::State c = ctx->m_AudioClock.Load();
    EXPECT_EQ(c.refTick, anchored.refTick);
    EXPECT_EQ(c.refPts, anchored.refPts);
    EXPECT_EQ(c.videoOffset, 777u);
    push_and_wait(1, 80000);  // ten seconds ahead of the stream
    c = ctx->m_AudioClock.Load();
    EXPECT_GT(c.refPts, anchored.refPts + 9000);
    EXPECT_EQ(c.videoOffset, 0u);
    ASSERT_TRUE(WaitFor([&] { return !ctx->m_AudioClock.Active(); }));
    c = ctx->m_AudioClock.Load();
    EXPECT_EQ(c.refTick | c.refPts | c.clock, 0u);
}

// Writer, resetter and reader at once: every read is one whole state.
TEST(AudioThread, ClockReadsNeverSeeHalfAnUpdate) {
    AudioClock clock;
    std::atomic<bool> done{false};
    std::thread audio([&] {
        for (uint64_t t = 1; t <= 20000; ++t) clock.Update([t](AudioClock::State& c) { c = {1000 + t, t, 1040 + t, 0}; });
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

// Decoding off: packets are consumed and set the clock flag but deliver
// nothing; the first packet after switching on is the only block delivered.
// Then reopening for another codec decodes the new one, and a codec without
// decoder leaves the stream without audio.
TEST(AudioThread, DecodeOffThenCodecSwitch) {
    const std::string mulaw = Fixture("au_mulaw.wav", Sine(8000) + "-c:a pcm_mulaw");
    const std::string alaw = Fixture("au_alaw.wav", Sine(8000) + "-c:a pcm_alaw");
    AudioHarness h(mulaw, true);
    ASSERT_TRUE(h.ok());
    h.ctx()->m_bDecode = 0;
    ASSERT_EQ(h.Push(5), 5);
    // The clock flag rises on the first packet and drops once the queue has stayed empty.
    ASSERT_TRUE(WaitFor([&] { return h.ctx()->m_AudioClock.Active(); }));
    ASSERT_TRUE(WaitFor([&] { return !h.ctx()->m_AudioClock.Active(); }));
    EXPECT_EQ(h.sink().audio.Blocks(), 0);
    h.ctx()->m_bDecode = 1;
    ASSERT_EQ(h.Push(1), 1);
    ASSERT_TRUE(WaitFor([&] { return h.sink().audio.Blocks() >= 1; }));
    EXPECT_TRUE(h.ctx()->m_AudioClock.Active());
    ASSERT_EQ(OpenAudioDecoder(h.ctx(), AV_CODEC_ID_PCM_ALAW), 0);  // joins the old thread first
    EXPECT_EQ(h.sink().audio.Blocks(), 1);
    EXPECT_NE(h.ctx()->m_hAudioThread, nullptr);
    EXPECT_EQ(h.ctx()->m_nAudioCodecId, AV_CODEC_ID_PCM_ALAW);

    const size_t first = h.sink().audio.Count();
    DirectDecoder d(alaw);
    const std::vector<int16_t> ref = ReferenceDecode(alaw);
    while (camctl::PacketPtr pkt = d.NextPacket()) {
        pkt->stream_index = h.ctx()->m_nAudioIndex;
        PushAudioPacket(h.ctx(), pkt.get());
    }
    ASSERT_TRUE(WaitFor([&] { return h.sink().audio.Count() >= first + ref.size(); }));
    const std::vector<int16_t> all = h.sink().audio.Samples();
    EXPECT_GT(BestCorrelation(std::vector<int16_t>(all.begin() + long(first), all.end()), ref, 8000, 16), 0.999);

    EXPECT_EQ(OpenAudioDecoder(h.ctx(), AV_CODEC_ID_NONE), -1);
    EXPECT_EQ(h.ctx()->m_nAudioIndex, -1);
    EXPECT_EQ(h.ctx()->m_nAudioCodecId, 0);
    EXPECT_EQ(h.ctx()->m_hAudioThread, nullptr);
    EXPECT_EQ(h.ctx()->m_pAudioCodecCtx, nullptr);
}

// ---- through the session classes -------------------------------------

// A file with AAC audio beside its video: the owner gets the tone at 16 kHz
// and closing the session ends every engine thread, the audio one included.
TEST(SessionAudio, FileSessionDeliversToneAndJoinsItsThreads) {
    const std::string file =
        Fixture("ses_h264_aac.ts",
                "-f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=16000 "
                "-t 8 -c:v libx264 -preset ultrafast -bf 0 -g 25 -pix_fmt yuv420p -c:a aac -b:a 48k -ac 1");
    const int threads_before = camctl_test::CountThreads();
    {
        ToneFileSession s;
        s.SetSmoothStream(1);
        ASSERT_EQ(s.VideoInit(&s, file.c_str()), 0);
        EXPECT_TRUE(WaitFor([&] { return s.audio.Count() >= 16000u * 2; })) << s.audio.Count();
        EXPECT_EQ(s.VideoFree(), 0);
        EXPECT_EQ(s.audio.Rate(), 16000);
        EXPECT_EQ(s.audio.RateChanges(), 1);
        std::vector<int16_t> ref(16000 * 3);
        for (size_t i = 0; i < ref.size(); ++i)
            ref[i] = static_cast<int16_t>(4096 * std::sin(2 * M_PI * 440.0 * static_cast<double>(i) / 16000));
        EXPECT_GT(BestCorrelation(s.audio.Samples(), ref, 16000, 40), 0.99);
    }
    EXPECT_TRUE(WaitFor([&] { return camctl_test::CountThreads() == threads_before; }))
        << camctl_test::CountThreads() << " threads, " << threads_before << " before";
}

// A live session on the camera simulator: every audio mode reaches the
// owner at its rate, matching FFmpeg's decode of what the simulator sent.
TEST(SessionAudio, LiveSessionDeliversEachCodec) {
    const std::pair<camsim::AudioCodec, int> cases[] = {{camsim::AudioCodec::Aac, 16000},
                                                        {camsim::AudioCodec::Mulaw, 8000},
                                                        {camsim::AudioCodec::Alaw, 8000},
                                                        {camsim::AudioCodec::G726, 8000},
                                                        {camsim::AudioCodec::G722, 16000}};
    for (const auto& [codec, rate] : cases) {
        SCOPED_TRACE(static_cast<int>(codec));
        camsim::Options o;
        o.pattern.width = 160;
        o.pattern.height = 120;
        o.pattern.audio = codec;
        camsim::Server server(o);
        std::string error;
        ASSERT_TRUE(server.Start(&error)) << error;
        ToneSession s;
        ASSERT_EQ(s.VideoInit(&s, server.Url().c_str()), 0);
        ASSERT_EQ(s.SetDecodeEnbale(1), 0);  // a live session starts with decoding off
        const bool enough = WaitFor([&] { return s.audio.Count() >= static_cast<size_t>(rate) * 3; });
        s.VideoFree();
        server.Stop();
        ASSERT_TRUE(enough) << s.audio.Count() << " samples";
        EXPECT_EQ(s.audio.Rate(), rate);
        EXPECT_EQ(s.audio.RateChanges(), 1);
        EXPECT_GT(ToneCorrelation(s.audio.Samples(), SimulatorReference(o.pattern, rate, 5), rate), 0.99);
    }
}

// A camera that announces its audio only with its first audio frame: the
// reader reopens the audio decoder while the stream starts. Every cycle runs
// one audio thread at a time, joined on close.
TEST(SessionAudio, AudioAnnouncedLateOpenCloseCycles) {
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
        ASSERT_TRUE(WaitFor([&] { return s.audio.Count() > 0; })) << "cycle " << i;
        EXPECT_EQ(s.audio.Rate(), 8000);
        s.VideoFree();
    }
}

}  // namespace
