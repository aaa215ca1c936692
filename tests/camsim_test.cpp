// Catches: a simulator that puts wrong header fields, timestamps, key frames, codecs, audio, junk, markers or motion records on the wire, pictures that do not change as asked, files that do not loop or stop, and a server or program that does not pace, serve several clients, stop or restart.
#include "camsim/server.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <chrono>
#include <cmath>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "camsim/av_owners.h"
#include "camsim/pattern.h"
#include "engine/http_frame.h"
#include "support/cli_support.h"
#include "support/engine_support.h"
#include "support/fixtures.h"

namespace {

using Bytes = std::vector<uint8_t>;
struct WireFrame {
    HttpFrameHeader h;
    Bytes payload;
};
using Frames = std::vector<WireFrame>;

// Reads the stream as it lies on the wire, with the library's frame parser.
class WireReader {
public:
    bool Open(const std::string& url) {
        AVDictionary* opts = nullptr;
        av_dict_set(&opts, "rw_timeout", "5000000", 0);
        AVIOContext* io = nullptr;
        const int ret = avio_open2(&io, url.c_str(), AVIO_FLAG_READ, nullptr, &opts);
        av_dict_free(&opts);
        io_.reset(io);
        return ret >= 0;
    }
    bool Raw(Bytes* out, size_t n) {
        out->resize(n);
        return n == 0 || avio_read(io_.get(), out->data(), static_cast<int>(n)) == static_cast<int>(n);
    }
    Frames Take(size_t n) {
        Frames frames;
        for (WireFrame f; frames.size() < n && Raw(&f.payload, HTTP_FRAME_HEADER_SIZE);) {
            DecodeFrameHeader(f.payload.data(), &f.h);
            if (f.h.marker != 0x00112233u || f.h.size > HTTP_FRAME_MAX_PAYLOAD || !Raw(&f.payload, f.h.size)) break;
            frames.push_back(f);
        }
        return frames;
    }
    void Close() { io_.reset(); }

private:
    struct Closer {
        void operator()(AVIOContext* io) const { avio_closep(&io); }
    };
    std::unique_ptr<AVIOContext, Closer> io_;
};

class Decoder {
public:
    explicit Decoder(AVCodecID id, int sampleRate = 0, int bitsPerSample = 0) {
        const AVCodec* codec = avcodec_find_decoder(id);
        ctx_.reset(avcodec_alloc_context3(codec));
        ctx_->sample_rate = sampleRate, ctx_->bits_per_coded_sample = bitsPerSample;
        if (sampleRate) av_channel_layout_default(&ctx_->ch_layout, 1);
        ok_ = avcodec_open2(ctx_.get(), codec, nullptr) == 0;
    }
    const AVFrame* Decode(const Bytes& data) {
        camsim::PacketPtr pkt = camsim::MakePacket();
        if (!ok_ || av_new_packet(pkt.get(), static_cast<int>(data.size())) < 0) return nullptr;
        memcpy(pkt->data, data.data(), data.size());
        if (avcodec_send_packet(ctx_.get(), pkt.get()) < 0) return nullptr;
        av_frame_unref(frame_.get());
        return avcodec_receive_frame(ctx_.get(), frame_.get()) == 0 ? frame_.get() : nullptr;
    }

private:
    camsim::CodecContextPtr ctx_;
    camsim::FramePtr frame_ = camsim::MakeFrame();
    bool ok_ = false;
};

Frames OfType(const Frames& frames, uint32_t type) {
    Frames out;
    for (const WireFrame& f : frames)
        if (f.h.stream_type == type) out.push_back(f);
    return out;
}

camsim::Options Generated(int w = 320, int h = 240) {
    camsim::Options o;
    o.speed = 0;  // as fast as the test reads
    o.pattern.width = w, o.pattern.height = h;
    return o;
}

std::string H264Clip() {
    return camctl_test::Fixture("h264_160x120_1s.mp4", "-f lavfi -i testsrc2=size=160x120:rate=25 -t 1 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p");
}

Frames Serve(const camsim::Options& o, size_t n, Bytes* junk = nullptr) {
    camsim::Server server(o);
    std::string error;
    EXPECT_TRUE(server.Start(&error)) << error;
    WireReader reader;
    EXPECT_TRUE(reader.Open(server.Url()));
    EXPECT_TRUE(!junk || reader.Raw(junk, junk->size()));
    return reader.Take(n);
}

struct WireRow {
    const char* name;
    std::function<void(camsim::Options&)> setup;
    size_t frames;
    std::function<void(const Frames&)> check;
};

// Video frames in order: header fields, 40 ms steps, a key frame a second, each decodable with the decoder its codec number names.
void CheckVideo(const Frames& all, AVCodecID id, uint32_t codec, uint32_t width, uint32_t height) {
    const Frames frames = OfType(all, HTTP_STREAM_VIDEO);
    ASSERT_FALSE(frames.empty());
    EXPECT_EQ(all[0].h.stream_type, HTTP_STREAM_VIDEO) << "the stream opens with video";
    Decoder dec(id);
    for (size_t i = 0; i < frames.size(); ++i) {
        const HttpFrameHeader& h = frames[i].h;
        EXPECT_EQ(HttpFrameVideoCodecId(h.codec), id) << i;
        EXPECT_EQ(std::make_tuple(h.codec, h.width, h.height, h.timestamp), std::make_tuple(codec, width, height, uint64_t(i * 40))) << i;
        EXPECT_EQ(h.frame_kind == 0, id == AV_CODEC_ID_MJPEG || i % 25 == 0) << "key frames once a second, frame " << i;
        const AVFrame* pic = dec.Decode(frames[i].payload);
        ASSERT_NE(pic, nullptr) << "frame " << i;
        EXPECT_EQ(pic->width, int(width));
    }
}

// Audio frames: header codec and rate, rising timestamps, and a beep of at least the given peak.
void CheckAudio(const Frames& all, AVCodecID id, int rate, int bits, double beep = 0.2) {
    EXPECT_EQ(HttpFrameAudioCodecId(all[0].h.audio_codec), id);
    const Frames audio = OfType(all, HTTP_STREAM_AUDIO);
    ASSERT_GE(audio.size(), 5u);
    Decoder dec(id, rate, bits);
    int decoded = 0;
    uint64_t lastTs = 0;
    double peak = 0;
    for (const WireFrame& a : audio) {
        EXPECT_EQ(a.h.sample_rate, uint32_t(rate));
        EXPECT_GE(a.h.timestamp, lastTs);
        lastTs = a.h.timestamp;
        const AVFrame* f = dec.Decode(a.payload);
        decoded += f != nullptr;
        for (int i = 0; f && i < f->nb_samples; ++i)
            peak = std::max(peak, std::fabs(f->format == AV_SAMPLE_FMT_FLTP ? double(reinterpret_cast<const float*>(f->data[0])[i])
                                                                            : reinterpret_cast<const int16_t*>(f->data[0])[i] / 32768.0));
    }
    EXPECT_GE(decoded, int(audio.size()) - 2);
    EXPECT_GT(peak, beep);
}

WireRow AudioRow(const char* name, camsim::AudioCodec a, AVCodecID id, int rate, int bits) {
    return {name, [a](camsim::Options& o) { o.pattern.width = 160, o.pattern.height = 120, o.pattern.audio = a; }, 40,
            [=](const Frames& f) { CheckAudio(f, id, rate, bits); }};
}

// A 256x144 file with a 8000 Hz sine (a quieter beep than the generated one).
WireRow FileRow(const char* name, const char* fixture, const std::string& codecs, AVCodecID video, uint32_t wire, AVCodecID audio) {
    const std::string args = "-f lavfi -i testsrc2=size=256x144:rate=25 -f lavfi -i sine=sample_rate=8000 -t 1 -ac 1 " + codecs;
    return {name, [=](camsim::Options& o) { o.file = camctl_test::Fixture(fixture, args); }, 40, [=](const Frames& f) {
                CheckVideo(f, video, wire, 256, 144);
                CheckAudio(f, audio, 8000, 0, 0.1);
            }};
}

void PrintTo(const WireRow& row, std::ostream* os) { *os << row.name; }

class CamsimWire : public ::testing::TestWithParam<WireRow> {};

TEST_P(CamsimWire, FramesAsAsked) {
    camsim::Options o = Generated();
    GetParam().setup(o);
    const Frames frames = Serve(o, GetParam().frames);
    ASSERT_EQ(frames.size(), GetParam().frames);
    GetParam().check(frames);
}

INSTANTIATE_TEST_SUITE_P(
    Options, CamsimWire,
    ::testing::Values(
        WireRow{"H264", [](camsim::Options& o) { o.ver = 7; }, 30,
                [](const Frames& f) {
                    CheckVideo(f, AV_CODEC_ID_H264, 0, 320, 240);
                    EXPECT_EQ(f[0].h.ver, 7u);
                    EXPECT_EQ(f[0].h.audio_codec, -1);  // no audio
                }},
        WireRow{"Hevc", [](camsim::Options& o) { o.pattern.codec = camsim::VideoCodec::HEVC; }, 3, [](const Frames& f) { CheckVideo(f, AV_CODEC_ID_HEVC, 3, 320, 240); }},
        WireRow{"Mjpeg", [](camsim::Options& o) { o.pattern.codec = camsim::VideoCodec::MJPEG; }, 3, [](const Frames& f) { CheckVideo(f, AV_CODEC_ID_MJPEG, 2, 320, 240); }},
        AudioRow("Mulaw", camsim::AudioCodec::Mulaw, AV_CODEC_ID_PCM_MULAW, 8000, 0),
        AudioRow("Alaw", camsim::AudioCodec::Alaw, AV_CODEC_ID_PCM_ALAW, 8000, 0),
        AudioRow("G722", camsim::AudioCodec::G722, AV_CODEC_ID_ADPCM_G722, 16000, 8),
        AudioRow("G726", camsim::AudioCodec::G726, AV_CODEC_ID_ADPCM_G726, 8000, 2),
        AudioRow("Aac", camsim::AudioCodec::Aac, AV_CODEC_ID_AAC, 16000, 0),
        // Markers inside every third payload (which must still decode) and a motion record carrying the mask after every fourth.
        WireRow{"MarkersAndMotion", [](camsim::Options& o) { o.marker_in_payload_every = 3, o.motion_every = 4; }, 30,
                [](const Frames& f) {
                    CheckVideo(f, AV_CODEC_ID_H264, 0, 320, 240);
                    int video = 0;
                    for (size_t i = 0; i < f.size(); ++i) {
                        if (f[i].h.stream_type == HTTP_STREAM_MOTION) {
                            EXPECT_EQ(video % 4, 0);
                            EXPECT_EQ(f[i - 1].h.stream_type, HTTP_STREAM_VIDEO);
                            char text[HTTP_MOTION_TEXT_LEN + 1];
                            ASSERT_TRUE(HttpMotionRegionText(f[i].payload.data(), uint32_t(f[i].payload.size()), text));
                            EXPECT_EQ(std::string(text).substr(0, 16), "1010010110100101");  // low half of 0x0000A5A5
                            continue;
                        }
                        EXPECT_EQ(FindFrameMarker(f[i].payload.data(), uint32_t(f[i].payload.size())) != nullptr, video % 3 == 2) << "video frame " << video;
                        ++video;
                    }
                    EXPECT_EQ(OfType(f, HTTP_STREAM_MOTION).size(), size_t(video / 4));
                }},
        WireRow{"CodecChange", [](camsim::Options& o) { o.pattern.codec_change_after = 5, o.pattern.codec_change_to = camsim::VideoCodec::MJPEG; }, 8,
                [](const Frames& f) {
                    CheckVideo(Frames(f.begin(), f.begin() + 5), AV_CODEC_ID_H264, 0, 320, 240);
                    Decoder mjpeg(AV_CODEC_ID_MJPEG);
                    for (int i = 5; i < 8; ++i) {
                        EXPECT_EQ(f[i].h.codec, 2u);
                        EXPECT_NE(mjpeg.Decode(f[i].payload), nullptr);
                    }
                }},
        // A file loops with growing timestamps; its codec change is in the header only.
        WireRow{"FileLoops",
                [](camsim::Options& o) { o.file = H264Clip(), o.pattern.codec_change_after = 30, o.pattern.codec_change_to = camsim::VideoCodec::HEVC; }, 60,
                [](const Frames& f) {
                    CheckVideo(Frames(f.begin(), f.begin() + 30), AV_CODEC_ID_H264, 0, 160, 120);
                    for (size_t i = 30; i < f.size(); ++i) EXPECT_EQ(f[i].h.timestamp, i * 40) << i;
                    EXPECT_EQ(f[30].h.codec, 3u);
                    EXPECT_EQ(f[25].payload, f[0].payload);
                    EXPECT_EQ(f[30].payload, f[5].payload);
                }},
        FileRow("FileHevcMulaw", "hevc_mulaw_256x144.mkv",
                "-c:v libx265 -x265-params bframes=0:keyint=25:log-level=error -pix_fmt yuv420p -c:a pcm_mulaw",
                AV_CODEC_ID_HEVC, 3, AV_CODEC_ID_PCM_MULAW),
        FileRow("FileMjpegAlaw", "mjpeg_alaw_256x144.avi", "-c:v mjpeg -q:v 5 -c:a pcm_alaw", AV_CODEC_ID_MJPEG, 2,
                AV_CODEC_ID_PCM_ALAW)),
    [](const ::testing::TestParamInfo<WireRow>& row) { return row.param.name; });

TEST(CamsimWireExtras, JunkFirstAndFileWithoutLoop) {
    camsim::Options o = Generated();
    o.junk_before_first = 301;
    Bytes junk(301);
    const Frames frames = Serve(o, 3, &junk);
    EXPECT_EQ(frames.size(), 3u) << "the frame right after the junk starts with the marker";
    EXPECT_EQ(FindFrameMarker(junk.data(), uint32_t(junk.size())), nullptr);

    camsim::Options file;
    file.file = H264Clip(), file.speed = 0, file.loop = false;
    EXPECT_EQ(Serve(file, 60).size(), 25u);
    file.file = "/nonexistent/missing.mp4";
    camsim::Server missing(file);
    std::string error;
    EXPECT_FALSE(missing.Start(&error));
    EXPECT_NE(error.find("missing.mp4"), std::string::npos) << error;
    EXPECT_EQ(missing.Port(), 0);
}

TEST(CamsimPattern, ResizeSceneSwitchClockAndSquare) {
    camsim::PatternOptions o;
    o.width = 320, o.height = 240, o.scene_switch_every = 10;
    o.resize_after = 15, o.resize_width = 160, o.resize_height = 128;
    camsim::PatternSource source(o);
    std::string error;
    ASSERT_TRUE(source.Open(&error)) << error;
    Decoder dec(AV_CODEC_ID_H264);
    double last = 0;
    for (int i = 0; i < 22; ++i) {
        camsim::MediaFrame f;
        ASSERT_TRUE(source.Next(&f));
        EXPECT_EQ(f.width, i < 15 ? 320u : 160u) << i;
        EXPECT_EQ(f.key, i % 25 == 0 || i == 15) << i;  // a new size starts with a key frame
        const AVFrame* pic = dec.Decode(Bytes(f.data, f.data + f.size));
        ASSERT_NE(pic, nullptr) << i;
        EXPECT_EQ(pic->width, int(f.width));
        double luma = 0;
        for (int y = 0; y < pic->height; ++y)
            for (int x = 0; x < pic->width; ++x) luma += pic->data[0][y * pic->linesize[0] + x] / double(pic->width * pic->height);
        const bool jump = i == 10 || i == 20;  // abrupt changes at frames 10 and 20 only
        EXPECT_TRUE(i == 0 || i == 15 || (jump ? std::fabs(luma - last) > 30.0 : std::fabs(luma - last) < 5.0)) << i << ": " << luma - last;
        last = luma;
    }

    auto changed = [](const camsim::PatternOptions& p) {
        const int w = p.width, h = p.height;
        Bytes ya(w * h), yb(w * h), uv(w * h / 4);
        camsim::PatternSource::Draw(p, 0, w, h, ya.data(), w, uv.data(), w / 2, uv.data(), w / 2);
        camsim::PatternSource::Draw(p, 1, w, h, yb.data(), w, uv.data(), w / 2, uv.data(), w / 2);
        int n = 0;
        for (int i = 0; i < w * h; ++i) n += ya[i] != yb[i];
        return n;
    };
    camsim::PatternOptions p;
    p.width = 320, p.height = 240;
    EXPECT_GT(changed(p), 100);  // square and clock move
    p.moving_object = false;
    EXPECT_GT(changed(p), 0);  // the clock still runs
    p.clock = false;
    EXPECT_EQ(changed(p), 0);
    p.scene_switch_every = 1;
    EXPECT_GT(changed(p), 320 * 240 / 2);
}

TEST(CamsimServer, PacesServesSeveralStopsAndRestarts) {
    camsim::Options o = Generated(160, 120);
    o.port = camctl_test::FreeLoopbackPort();
    o.speed = 1.0;
    camsim::Server server(o);
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(server.Port(), o.port);
    EXPECT_EQ(server.Url("/a"), "http://127.0.0.1:" + std::to_string(o.port) + "/a");
    camsim::Server second(o);
    std::string error;
    EXPECT_FALSE(second.Start(&error)) << "the port is taken";
    EXPECT_FALSE(error.empty());

    WireReader a, b;
    ASSERT_TRUE(a.Open(server.Url()));
    ASSERT_TRUE(b.Open(server.Url("/other")));
    // Frame 25 is due a second after frame 0 (a lower bound: load only adds).
    EXPECT_GE(camctl_test::TimeMs([&] { EXPECT_EQ(a.Take(26).size(), 26u); }), 900);
    EXPECT_EQ(b.Take(3).size(), 3u);
    EXPECT_EQ(server.ActiveClients(), 2);
    EXPECT_EQ(server.ConnectionsAccepted(), 2);
    EXPECT_TRUE(camctl_test::PictureLog::WaitUntil([&] { return server.FramesSent() >= 29; }, 20000));
    b.Close();
    EXPECT_TRUE(camctl_test::PictureLog::WaitUntil([&] { return server.ActiveClients() == 1; }, 20000)) << "a closed client's thread goes on";

    EXPECT_LT(camctl_test::TimeMs([&] { server.Stop(); }), 2000);
    EXPECT_EQ(server.ActiveClients(), 0);
    EXPECT_LT(a.Take(100).size(), 100u) << "the client does not see the end";
    server.Stop();  // idempotent
    ASSERT_TRUE(server.Start());
    WireReader c;
    ASSERT_TRUE(c.Open(server.Url()));
    EXPECT_EQ(c.Take(1).size(), 1u);
}

TEST(CamsimProgram, ServesOnTheGivenPortUntilTerminated) {
    const std::string port = std::to_string(camctl_test::FreeLoopbackPort());
    camctl_test::ChildProcess sim({std::string(CAMCTL_BINARY_DIR) + "/tools/camsim", "--port", port, "--size", "160x120", "--codec", "mjpeg",
                                   "--motion-every", "2", "--speed", "0"}, {});
    WireReader r;
    ASSERT_TRUE(camctl_test::PictureLog::WaitUntil([&] { return r.Open("http://127.0.0.1:" + port + "/cam"); }, 20000));
    const Frames frames = r.Take(6);
    ASSERT_EQ(frames.size(), 6u);
    EXPECT_EQ(frames[0].h.codec, 2u);
    EXPECT_EQ(frames[0].h.width, 160u);
    EXPECT_EQ(OfType(frames, HTTP_STREAM_MOTION).size(), 2u);
    r.Close();
    sim.Signal(SIGTERM);
    EXPECT_EQ(sim.Wait(30).code, 0) << sim.Err();
}

}  // namespace
