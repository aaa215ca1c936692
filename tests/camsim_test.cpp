// The camera simulator: what it puts on the wire (headers, codecs, pacing,
// the protocol extras), the pictures it generates, and its lifecycle, as a
// library and as a program.
#include "camsim/server.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <string>
#include <thread>
#include <vector>

#include "camsim/pattern.h"
#include "engine/http_frame.h"
#include "support/fixtures.h"

extern "C" {
#include <libavutil/channel_layout.h>
}

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

struct WireFrame {
    HttpFrameHeader h;
    Bytes payload;
};

// Reads the stream frame by frame as it lies on the wire: 88 header bytes,
// then exactly `size` payload bytes.
class WireReader {
public:
    bool Open(const std::string& url) {
        AVDictionary* opts = nullptr;
        av_dict_set(&opts, "rw_timeout", "5000000", 0);
        AVIOContext* io = nullptr;
        int ret = avio_open2(&io, url.c_str(), AVIO_FLAG_READ, nullptr, &opts);
        av_dict_free(&opts);
        if (ret < 0) return false;
        io_.reset(io);
        return true;
    }
    bool ReadRaw(Bytes* out, size_t n) {
        out->resize(n);
        return n == 0 || avio_read(io_.get(), out->data(), static_cast<int>(n)) == static_cast<int>(n);
    }
    bool Next(WireFrame* f) {
        Bytes head;
        if (!ReadRaw(&head, HTTP_FRAME_HEADER_SIZE)) return false;
        DecodeFrameHeader(head.data(), &f->h);
        if (f->h.marker != 0x00112233u || f->h.size > HTTP_FRAME_MAX_PAYLOAD) return false;
        return ReadRaw(&f->payload, f->h.size);
    }
    std::vector<WireFrame> Take(size_t n) {
        std::vector<WireFrame> frames;
        WireFrame f;
        while (frames.size() < n && Next(&f)) frames.push_back(f);
        return frames;
    }
    void Close() { io_.reset(); }

private:
    camctl::AvioPtr io_;
};

// A decoder for one codec; Decode returns the decoded frame, if any.
class Decoder {
public:
    explicit Decoder(AVCodecID id, int sampleRate = 0, int bitsPerSample = 0) {
        const AVCodec* codec = avcodec_find_decoder(id);
        ctx_.reset(avcodec_alloc_context3(codec));
        if (sampleRate) {
            ctx_->sample_rate = sampleRate;
            av_channel_layout_default(&ctx_->ch_layout, 1);
        }
        if (bitsPerSample) ctx_->bits_per_coded_sample = bitsPerSample;
        ok_ = avcodec_open2(ctx_.get(), codec, nullptr) == 0;
    }
    bool ok() const { return ok_; }
    const AVFrame* Decode(const Bytes& data) {
        camctl::PacketPtr pkt = camctl::MakePacket();
        if (av_new_packet(pkt.get(), static_cast<int>(data.size())) < 0) return nullptr;
        memcpy(pkt->data, data.data(), data.size());
        if (avcodec_send_packet(ctx_.get(), pkt.get()) < 0) return nullptr;
        av_frame_unref(frame_.get());
        return avcodec_receive_frame(ctx_.get(), frame_.get()) == 0 ? frame_.get() : nullptr;
    }

private:
    camctl::CodecContextPtr ctx_;
    camctl::FramePtr frame_ = camctl::MakeFrame();
    bool ok_ = false;
};

double LumaMean(const AVFrame* f) {
    double sum = 0;
    for (int y = 0; y < f->height; ++y)
        for (int x = 0; x < f->width; ++x) sum += f->data[0][y * f->linesize[0] + x];
    return sum / (f->width * f->height);
}

std::vector<WireFrame> OfType(const std::vector<WireFrame>& frames, uint32_t type) {
    std::vector<WireFrame> out;
    for (const WireFrame& f : frames)
        if (f.h.stream_type == type) out.push_back(f);
    return out;
}

camsim::Options Generated(int w = 320, int h = 240) {
    camsim::Options o;
    o.speed = 0;  // as fast as the test reads
    o.pattern.width = w;
    o.pattern.height = h;
    return o;
}

std::vector<WireFrame> Serve(const camsim::Options& o, size_t n, Bytes* junk = nullptr, size_t junkSize = 0) {
    camsim::Server server(o);
    std::string error;
    EXPECT_TRUE(server.Start(&error)) << error;
    WireReader reader;
    EXPECT_TRUE(reader.Open(server.Url()));
    if (junk) {
        EXPECT_TRUE(reader.ReadRaw(junk, junkSize));
    }
    return reader.Take(n);
}

// ---------------------------------------------------------------------------
// Generated picture over the wire.

TEST(CamsimWire, GeneratedH264StreamIsDecodableWithConsistentHeaders) {
    camsim::Options o = Generated();
    o.ver = 7;
    std::vector<WireFrame> frames = Serve(o, 30);
    ASSERT_EQ(frames.size(), 30u);
    Decoder dec(AV_CODEC_ID_H264);
    ASSERT_TRUE(dec.ok());
    for (size_t i = 0; i < frames.size(); ++i) {
        const HttpFrameHeader& h = frames[i].h;
        EXPECT_EQ(h.stream_type, 1u);
        EXPECT_EQ(h.ver, 7u);
        EXPECT_EQ(h.codec, 0u);
        EXPECT_EQ(h.width, 320u);
        EXPECT_EQ(h.height, 240u);
        EXPECT_EQ(h.audio_codec, -1);  // no audio
        EXPECT_EQ(h.timestamp, i * 40) << i;
        EXPECT_EQ(h.frame_kind == 0, i % 25 == 0) << "key frame once a second, frame " << i;
        const AVFrame* pic = dec.Decode(frames[i].payload);
        ASSERT_NE(pic, nullptr) << "frame " << i;
        EXPECT_EQ(pic->width, 320);
        EXPECT_EQ(pic->height, 240);
    }
}

TEST(CamsimWire, GeneratedCodecsCarryTheirNumbers) {
    struct Case { camsim::VideoCodec codec; uint32_t wire; AVCodecID id; };
    for (Case c : {Case{camsim::VideoCodec::HEVC, 3, AV_CODEC_ID_HEVC}, Case{camsim::VideoCodec::MJPEG, 2, AV_CODEC_ID_MJPEG}}) {
        camsim::Options o = Generated(192, 128);
        o.pattern.codec = c.codec;
        std::vector<WireFrame> frames = Serve(o, 3);
        ASSERT_EQ(frames.size(), 3u);
        EXPECT_EQ(frames[0].h.codec, c.wire);
        EXPECT_EQ(frames[0].h.frame_kind, 0u);
        EXPECT_EQ(HttpFrameVideoCodecId(frames[0].h.codec), c.id);
        Decoder dec(c.id);
        const AVFrame* pic = dec.Decode(frames[0].payload);
        ASSERT_NE(pic, nullptr);
        EXPECT_EQ(pic->width, 192);
    }
}

TEST(CamsimWire, GeneratedAudioDecodesForEveryCodec) {
    struct Case { camsim::AudioCodec codec; int32_t wire; AVCodecID id; int rate; int bits; };
    const Case cases[] = {
        {camsim::AudioCodec::Mulaw, 2, AV_CODEC_ID_PCM_MULAW, 8000, 0},
        {camsim::AudioCodec::Alaw, 3, AV_CODEC_ID_PCM_ALAW, 8000, 0},
        {camsim::AudioCodec::G722, 4, AV_CODEC_ID_ADPCM_G722, 16000, 8},
        {camsim::AudioCodec::G726, 5, AV_CODEC_ID_ADPCM_G726, 8000, 2},
        {camsim::AudioCodec::Aac, 1, AV_CODEC_ID_AAC, 16000, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(avcodec_get_name(c.id));
        camsim::Options o = Generated(160, 120);
        o.pattern.audio = c.codec;
        std::vector<WireFrame> frames = Serve(o, 40);
        ASSERT_EQ(frames.size(), 40u);
        EXPECT_EQ(frames[0].h.stream_type, 1u);  // the stream opens with video
        EXPECT_EQ(frames[0].h.audio_codec, c.wire);
        EXPECT_EQ(HttpFrameAudioCodecId(frames[0].h.audio_codec), c.id);
        std::vector<WireFrame> audio = OfType(frames, 2);
        ASSERT_GE(audio.size(), 5u);
        Decoder dec(c.id, c.rate, c.bits);
        ASSERT_TRUE(dec.ok());
        int decoded = 0;
        uint64_t lastTs = 0;
        double peak = 0;
        for (const WireFrame& a : audio) {
            EXPECT_EQ(a.h.sample_rate, static_cast<uint32_t>(c.rate));
            EXPECT_GE(a.h.timestamp, lastTs);
            lastTs = a.h.timestamp;
            const AVFrame* f = dec.Decode(a.payload);
            if (!f) continue;
            ++decoded;
            for (int i = 0; i < f->nb_samples; ++i) {
                double v = f->format == AV_SAMPLE_FMT_FLTP ? reinterpret_cast<const float*>(f->data[0])[i]
                                                           : reinterpret_cast<const int16_t*>(f->data[0])[i] / 32768.0;
                peak = std::max(peak, std::fabs(v));
            }
        }
        EXPECT_GE(decoded, static_cast<int>(audio.size()) - 2);
        EXPECT_GT(peak, 0.2);  // the beep is there
    }
}

TEST(CamsimWire, ExtrasJunkMarkerInPayloadAndMotionRecords) {
    camsim::Options o = Generated();
    o.junk_before_first = 301;
    o.marker_in_payload_every = 3;
    o.motion_every = 4;
    Bytes junk;
    std::vector<WireFrame> frames = Serve(o, 30, &junk, 301);
    ASSERT_EQ(frames.size(), 30u);  // the frame right after the junk starts with the marker
    EXPECT_EQ(FindFrameMarker(junk.data(), static_cast<uint32_t>(junk.size())), nullptr);

    Decoder dec(AV_CODEC_ID_H264);
    int video = 0, marked = 0;
    for (size_t i = 0; i < frames.size(); ++i) {
        const WireFrame& f = frames[i];
        if (f.h.stream_type == 3) {
            // After every 4th video frame, carrying the simulator's mask.
            EXPECT_EQ(video % 4, 0);
            EXPECT_EQ(frames[i - 1].h.stream_type, 1u);
            char text[HTTP_MOTION_TEXT_LEN + 1];
            ASSERT_TRUE(HttpMotionRegionText(f.payload.data(), static_cast<uint32_t>(f.payload.size()), text));
            EXPECT_EQ(std::string(text).substr(0, 16), "1010010110100101");  // low half of 0x0000A5A5
            continue;
        }
        ASSERT_EQ(f.h.stream_type, 1u);
        bool hasMarker = FindFrameMarker(f.payload.data(), static_cast<uint32_t>(f.payload.size())) != nullptr;
        EXPECT_EQ(hasMarker, video % 3 == 2) << "video frame " << video;
        marked += hasMarker;
        EXPECT_NE(dec.Decode(f.payload), nullptr) << "video frame " << video;  // the marker does not hurt
        ++video;
    }
    EXPECT_GE(marked, 5);
    EXPECT_EQ(OfType(frames, 3).size(), static_cast<size_t>(video / 4));
}

TEST(CamsimWire, CodecChangeSwitchesTheEncoderAfterNFrames) {
    camsim::Options o = Generated();
    o.pattern.codec_change_after = 5;
    o.pattern.codec_change_to = camsim::VideoCodec::MJPEG;
    std::vector<WireFrame> frames = Serve(o, 8);
    ASSERT_EQ(frames.size(), 8u);
    for (int i = 0; i < 5; ++i) EXPECT_EQ(frames[i].h.codec, 0u);
    Decoder mjpeg(AV_CODEC_ID_MJPEG);
    for (int i = 5; i < 8; ++i) {
        EXPECT_EQ(frames[i].h.codec, 2u);
        EXPECT_NE(mjpeg.Decode(frames[i].payload), nullptr);
    }
}

// ---------------------------------------------------------------------------
// The generated picture itself.

TEST(CamsimPattern, ResizeAndSceneSwitch) {
    camsim::PatternOptions o;
    o.width = 320;
    o.height = 240;
    o.scene_switch_every = 10;
    o.resize_after = 15;
    o.resize_width = 160;
    o.resize_height = 128;
    camsim::PatternSource source(o);
    std::string error;
    ASSERT_TRUE(source.Open(&error)) << error;
    Decoder dec(AV_CODEC_ID_H264);
    std::vector<double> luma;
    for (int i = 0; i < 22; ++i) {
        camsim::MediaFrame f;
        ASSERT_TRUE(source.Next(&f));
        EXPECT_EQ(f.width, i < 15 ? 320u : 160u) << i;
        EXPECT_EQ(f.key, i % 25 == 0 || i == 15) << i;  // a new size starts with a key frame
        const AVFrame* pic = dec.Decode(Bytes(f.data, f.data + f.size));
        ASSERT_NE(pic, nullptr) << i;
        EXPECT_EQ(pic->width, static_cast<int>(f.width));
        luma.push_back(LumaMean(pic));
    }
    // The picture changes abruptly at frames 10 and 20, and little in between.
    for (int i = 1; i < 22; ++i) {
        double step = std::fabs(luma[i] - luma[i - 1]);
        if (i == 10 || i == 20) {
            EXPECT_GT(step, 30.0) << i;
        } else if (i != 15) {
            EXPECT_LT(step, 5.0) << i;
        }
    }
}

TEST(CamsimPattern, ClockAndSquareMoveStillPictureDoesNot) {
    auto frameDiff = [](const camsim::PatternOptions& o, int a, int b) {
        const int w = o.width, h = o.height;
        Bytes ya(w * h), yb(w * h), uv(w * h / 4);
        camsim::PatternSource::Draw(o, a, w, h, ya.data(), w, uv.data(), w / 2, uv.data(), w / 2);
        camsim::PatternSource::Draw(o, b, w, h, yb.data(), w, uv.data(), w / 2, uv.data(), w / 2);
        int changed = 0;
        for (int i = 0; i < w * h; ++i) changed += ya[i] != yb[i];
        return changed;
    };
    camsim::PatternOptions o;
    o.width = 320;
    o.height = 240;
    EXPECT_GT(frameDiff(o, 0, 1), 100);  // square and clock move
    o.moving_object = false;
    EXPECT_GT(frameDiff(o, 0, 1), 0);    // the clock still runs
    o.clock = false;
    EXPECT_EQ(frameDiff(o, 0, 1), 0);    // nothing moves
    o.scene_switch_every = 1;
    EXPECT_GT(frameDiff(o, 0, 1), 320 * 240 / 2);
}

// ---------------------------------------------------------------------------
// Media files.

TEST(CamsimFile, HevcWithMulawAndMjpegWithAlaw) {
    struct Case { std::string name, args; uint32_t codec; int32_t audio; uint32_t rate; };
    const Case cases[] = {
        {"hevc_mulaw_256x144.mkv",
         "-f lavfi -i testsrc2=size=256x144:rate=25 -f lavfi -i sine=sample_rate=8000 -t 1 -c:v libx265 "
         "-x265-params bframes=0:keyint=25:log-level=error -pix_fmt yuv420p -c:a pcm_mulaw -ac 1",
         3, 2, 8000},
        {"mjpeg_alaw_256x144.avi",
         "-f lavfi -i testsrc2=size=256x144:rate=25 -f lavfi -i sine=sample_rate=8000 -t 1 -c:v mjpeg -q:v 5 "
         "-c:a pcm_alaw -ac 1",
         2, 3, 8000},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        camsim::Options o;
        o.file = camctl_test::Fixture(c.name, c.args);
        o.speed = 0;
        std::vector<WireFrame> frames = Serve(o, 40);
        ASSERT_EQ(frames.size(), 40u);
        EXPECT_EQ(frames[0].h.stream_type, 1u);
        EXPECT_EQ(frames[0].h.frame_kind, 0u);
        EXPECT_EQ(frames[0].h.width, 256u);
        EXPECT_EQ(frames[0].h.codec, c.codec);
        EXPECT_EQ(frames[0].h.audio_codec, c.audio);
        EXPECT_EQ(frames[0].h.sample_rate, c.rate);
        EXPECT_FALSE(OfType(frames, 2).empty());
        Decoder dec(static_cast<AVCodecID>(HttpFrameVideoCodecId(c.codec)));
        const AVFrame* pic = dec.Decode(frames[0].payload);  // Annex-B / JPEG as sent
        ASSERT_NE(pic, nullptr);
        EXPECT_EQ(pic->width, 256);
    }
}

TEST(CamsimFile, ClipLoopsWithGrowingTimestampsAndCanStopAtTheEnd) {
    std::string file = camctl_test::Fixture(
        "h264_160x120_1s.mp4", "-f lavfi -i testsrc2=size=160x120:rate=25 -t 1 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p");
    camsim::Options o;
    o.file = file;
    o.speed = 0;
    std::vector<WireFrame> frames = Serve(o, 60);
    ASSERT_EQ(frames.size(), 60u);
    for (size_t i = 0; i < frames.size(); ++i) EXPECT_EQ(frames[i].h.timestamp, i * 40) << i;
    EXPECT_EQ(frames[25].h.frame_kind, 0u);
    EXPECT_EQ(frames[25].payload, frames[0].payload);

    o.loop = false;
    EXPECT_EQ(Serve(o, 60).size(), 25u);

    // A file's codec change is announced in the header only.
    o.pattern.codec_change_after = 3;
    o.pattern.codec_change_to = camsim::VideoCodec::HEVC;
    std::vector<WireFrame> changed = Serve(o, 5);
    ASSERT_EQ(changed.size(), 5u);
    EXPECT_EQ(changed[2].h.codec, 0u);
    EXPECT_EQ(changed[3].h.codec, 3u);
    EXPECT_EQ(changed[3].payload, frames[3].payload);
}

TEST(CamsimFile, UnreadableFileFailsStart) {
    camctl_test::TempDir dir;
    camsim::Options o;
    o.file = dir / "missing.mp4";
    camsim::Server server(o);
    std::string error;
    EXPECT_FALSE(server.Start(&error));
    EXPECT_NE(error.find("missing.mp4"), std::string::npos) << error;
    EXPECT_EQ(server.Port(), 0);
}

// ---------------------------------------------------------------------------
// Pacing and lifecycle.

TEST(CamsimServer, PacesFramesInRealTime) {
    camsim::Options o = Generated(160, 120);
    o.speed = 1.0;
    camsim::Server server(o);
    ASSERT_TRUE(server.Start());
    WireReader reader;
    ASSERT_TRUE(reader.Open(server.Url()));
    auto t0 = Clock::now();
    std::vector<WireFrame> frames = reader.Take(26);  // frame 25 is due 1 s after frame 0
    double elapsed = std::chrono::duration<double>(Clock::now() - t0).count();
    ASSERT_EQ(frames.size(), 26u);
    EXPECT_GE(elapsed, 0.9);
}

TEST(CamsimServer, ServesClientsConcurrentlyAndStopsWhileTheyAreConnected) {
    const int port = camctl_test::FreeLoopbackPort();
    camsim::Options o = Generated(160, 120);
    o.port = port;
    o.speed = 1.0;
    camsim::Server server(o);
    ASSERT_TRUE(server.Start());
    EXPECT_EQ(server.Port(), port);
    EXPECT_EQ(server.Url("/a"), "http://127.0.0.1:" + std::to_string(port) + "/a");

    // The port is taken now.
    camsim::Server second(o);
    std::string error;
    EXPECT_FALSE(second.Start(&error));
    EXPECT_FALSE(error.empty());

    WireReader a, b;
    ASSERT_TRUE(a.Open(server.Url()));
    ASSERT_TRUE(b.Open(server.Url("/other")));
    EXPECT_EQ(a.Take(3).size(), 3u);
    EXPECT_EQ(b.Take(3).size(), 3u);
    EXPECT_EQ(server.ActiveClients(), 2);
    EXPECT_EQ(server.ConnectionsAccepted(), 2);
    for (int i = 0; i < 50 && server.FramesSent() < 6; ++i) std::this_thread::sleep_for(std::chrono::milliseconds(10));
    EXPECT_GE(server.FramesSent(), 6u);

    auto t0 = Clock::now();
    server.Stop();
    EXPECT_LT(std::chrono::duration<double>(Clock::now() - t0).count(), 2.0);
    EXPECT_EQ(server.ActiveClients(), 0);
    // The clients see the end of the stream (maybe after what was in flight).
    EXPECT_LT(a.Take(100).size(), 100u);
    server.Stop();  // idempotent

    // A stopped server can start again.
    ASSERT_TRUE(server.Start());
    WireReader c;
    ASSERT_TRUE(c.Open(server.Url()));
    EXPECT_EQ(c.Take(1).size(), 1u);
}

TEST(CamsimServer, ClosedClientEndsItsThread) {
    camsim::Options o = Generated(160, 120);
    camsim::Server server(o);
    ASSERT_TRUE(server.Start());
    {
        WireReader r;
        ASSERT_TRUE(r.Open(server.Url()));
        EXPECT_EQ(r.Take(2).size(), 2u);
    }
    for (int i = 0; i < 100 && server.ActiveClients() > 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(server.ActiveClients(), 0);
}

TEST(CamsimProgram, ServesOnTheGivenPortUntilTerminated) {
    const std::string exe = std::string(CAMCTL_BINARY_DIR) + "/tools/camsim";
    ASSERT_TRUE(camctl_test::FileExists(exe));
    const int port = camctl_test::FreeLoopbackPort();
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        std::string p = std::to_string(port);
        execl(exe.c_str(), "camsim", "--port", p.c_str(), "--size", "160x120", "--codec", "mjpeg", "--motion-every",
              "2", "--speed", "0", static_cast<char*>(nullptr));
        _exit(127);
    }
    WireReader r;
    bool open = false;
    for (int i = 0; i < 100 && !open; ++i) {
        open = r.Open("http://127.0.0.1:" + std::to_string(port) + "/cam");
        if (!open) std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    if (!open) kill(pid, SIGKILL);
    ASSERT_TRUE(open);
    std::vector<WireFrame> frames = r.Take(6);
    ASSERT_EQ(frames.size(), 6u);
    EXPECT_EQ(frames[0].h.codec, 2u);
    EXPECT_EQ(frames[0].h.width, 160u);
    EXPECT_EQ(OfType(frames, 3).size(), 2u);
    r.Close();
    kill(pid, SIGTERM);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 0);
}

}  // namespace
