// Catches: audio decoded wrong or at the wrong rate per codec and source (file, live camera), extra samples, a planar frame mixed up, a short output buffer overrun or its message lost, audio delivered with decoding off, audio announced late never decoded, audio threads leaked across session cycles.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "camctl/FileVideoSession.h"
#include "camctl/UrlVideoSession.h"
#include "camsim/server.h"
#include "engine/engine.h"
#include "support/fixtures.h"
#include "support/media_support.h"

using camctl_test::Fixture;
using camctl_test::MediaSession;
using camctl_test::WaitFor;

namespace {

// A small picture beside a 440 Hz tone in the given codec.
std::string ToneClip(const std::string& name, const std::string& codec, int rate) {
    return Fixture("au_" + name + ".mkv", "-f lavfi -i testsrc2=size=160x120:rate=25 -f lavfi -i sine=frequency=440:"
                                          "sample_rate=" + std::to_string(rate) + " -t 4 -c:v libx264 -preset "
                                          "ultrafast -bf 0 -g 25 -pix_fmt yuv420p -ac 1 -c:a " + codec);
}

// The ffmpeg CLI's decode of the file's audio, mono 16-bit at its own rate.
std::vector<int16_t> ReferenceDecode(const std::string& file) {
    camctl_test::TempDir dir;
    EXPECT_EQ(camctl_test::RunCommand("ffmpeg -v error -y -nostdin -i '" + file + "' -map 0:a -f s16le -ac 1 '" +
                                      (dir / "ref.raw") + "'"), 0);
    auto bytes = camctl_test::ReadFileBytes(dir / "ref.raw");
    std::vector<int16_t> out(bytes.size() / 2);
    std::memcpy(out.data(), bytes.data(), out.size() * 2);
    return out;
}

// Best normalised correlation of half a second of got (from half a second
// in) against the reference's steady tone, over lags of one tone period
// either way: any gap, repeat or wrong rate inside the window lowers it.
double ToneMatch(const std::vector<int16_t>& got, const std::vector<int16_t>& ref, int rate) {
    const size_t start = size_t(rate) / 2, len = size_t(rate) / 2, period = size_t(rate) / 440 + 1;
    if (got.size() < start + len || ref.size() < size_t(rate) + len + period) return 0;
    double best = -1;
    for (size_t from = rate - period; from <= rate + period; ++from) {
        double xy = 0, xx = 0, yy = 0;
        for (size_t i = 0; i < len; ++i) {
            const double x = got[start + i], y = ref[from + i];
            xy += x * y, xx += x * x, yy += y * y;
        }
        if (xx > 0 && yy > 0) best = std::max(best, xy / std::sqrt(xx * yy));
    }
    return best;
}

camsim::Server StartCamera(const std::string& file, camsim::AudioCodec pattern_audio, bool late = false) {
    camsim::Options o;
    o.file = file;
    o.pattern.width = 160;
    o.pattern.height = 120;
    o.pattern.audio = pattern_audio;
    o.audio_announced_late = late;
    return camsim::Server(o);
}

// Each codec from a file and from a live camera serving the same clip: the
// owner gets the tone at the clip's rate, one rate throughout.
TEST(SessionAudio, EachCodecFromFileAndCamera) {
    const struct { const char* name; const char* codec; int rate; bool wire; } cases[] = {
        {"aac", "aac -b:a 48k", 16000, true}, {"mulaw", "pcm_mulaw", 8000, true}, {"alaw", "pcm_alaw", 8000, true},
        {"g726", "g726 -b:a 16k", 8000, true}, {"g722", "g722", 16000, true},
        {"mp3", "libmp3lame -b:a 64k", 16000, false}};
    std::thread([] {}).join();  // a sanitizer's runtime starts its own thread with the first one
    const int threads_before = camctl_test::CountThreads();
    for (const auto& c : cases) {
        const std::string clip = ToneClip(c.name, c.codec, c.rate);
        const std::vector<int16_t> ref = ReferenceDecode(clip);
        ASSERT_GT(ref.size(), size_t(c.rate) * 3);
        for (bool live : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (live ? " live" : " file"));
            if (live && !c.wire) continue;
            camsim::Server camera = StartCamera(clip, camsim::AudioCodec::None);
            std::string error;
            ASSERT_TRUE(!live || camera.Start(&error)) << error;
            MediaSession<CUrlVideoSession> live_session;
            MediaSession<CFileVideoSession> file_session;
            camctl_test::MediaLog& log = live ? live_session.log : file_session.log;
            ASSERT_EQ(live ? live_session.Open(camera.Url().c_str()) : file_session.Open(clip.c_str()), 0);
            // All of the file (less its decoder's start-up), two seconds of the camera.
            const size_t want = live ? size_t(c.rate) * 2 : ref.size() - size_t(c.rate) / 10;
            ASSERT_TRUE(WaitFor([&] { return log.SampleCount() >= want; })) << log.SampleCount() << " of " << want;
            EXPECT_TRUE(live || log.SampleCount() <= ref.size() + 2048) << log.SampleCount();  // no sample twice
            EXPECT_EQ(log.Rate(), c.rate);
            EXPECT_EQ(log.RateChanges(), 1);
            EXPECT_GT(ToneMatch(log.Samples(), ref, c.rate), 0.99);
        }
    }
    EXPECT_TRUE(WaitFor([&] { return camctl_test::CountThreads() == threads_before; }))
        << camctl_test::CountThreads() << " threads, " << threads_before << " before";
}

// Decoding off: the camera's audio flows but reaches nobody until it is
// switched on. A camera that announces its audio only with its first audio
// frame: the reader opens the decoder late, every cycle, one thread each.
TEST(SessionAudio, DecodeSwitchAndAudioAnnouncedLate) {
    camsim::Server camera = StartCamera("", camsim::AudioCodec::Mulaw, true);
    std::string error;
    ASSERT_TRUE(camera.Start(&error)) << error;
    const int threads_before = camctl_test::CountThreads();
    for (int i = 0; i < 10; ++i) {
        SCOPED_TRACE(i);
        MediaSession<CUrlVideoSession> s;
        const uint64_t sent = camera.FramesSent();
        ASSERT_EQ(s.VideoInit(&s, camera.Url().c_str()), 0);
        if (i == 0) {  // a live session starts with decoding off
            ASSERT_TRUE(WaitFor([&] { return camera.FramesSent() >= sent + 60; }));
            EXPECT_EQ(s.log.SampleCount(), 0u);
        }
        ASSERT_EQ(s.SetDecodeEnbale(1), 0);
        ASSERT_TRUE(WaitFor([&] { return s.log.SampleCount() > 0; }));
        EXPECT_EQ(s.log.Rate(), 8000);
    }
    EXPECT_TRUE(WaitFor([&] { return camctl_test::CountThreads() == threads_before; }));
}

// The one-call helpers: a planar stereo frame comes out plane 0 then plane 1,
// a too small buffer gives AVERROR(EINVAL) and the decoder's message, and
// send/receive copies exactly the frame's samples.
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

TEST(AudioDecode, PlanarFramesShortBuffersAndSendReceive) {
    DirectDecoder d(Fixture("au_stereo.mp2",  // left: a tone, right: silence
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
    auto rms = [](const uint8_t* bytes) {
        const auto* s = reinterpret_cast<const int16_t*>(bytes);
        double sum = 0;
        for (int i = 0; i < 1152; ++i) sum += double(s[i]) * s[i];
        return std::sqrt(sum / 1152);
    };
    EXPECT_GT(rms(out.data()), 2000);  // lavfi's sine: 1/8 of full scale
    EXPECT_LT(rms(out.data() + 1152 * 2), 30);
    camctl::PacketPtr pkt = d.NextPacket();
    ASSERT_TRUE(pkt);
    int size = 1000;
    testing::internal::CaptureStderr();
    EXPECT_EQ(AudioDecode4(d.codec.get(), pkt.get(), out.data(), &size), AVERROR(EINVAL));
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(size, 0);
    EXPECT_NE(log.find("output buffer size is too small for the current frame (1000 < 4608)"), std::string::npos)
        << log;

    DirectDecoder mulaw(ToneClip("mulaw", "pcm_mulaw", 8000));
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

}  // namespace
