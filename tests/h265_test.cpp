// Catches: IHW265D pictures that differ from FFmpeg's, wrong decoder statuses or damage flags, oversized pictures let through, crashes or over-reads on damaged input, callbacks and parameters ignored, a marker scan that misses or over-reaches, the engine choosing the wrong decoder, damaged pictures not counted, missing log texts.
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <mutex>
#include <random>
#include <string>
#include <vector>

#include "engine/av_ptr.h"
#include "engine/engine.h"
#include "engine/h265/IHW265D.h"
#include "engine/h265/ihw265d_stage.h"
#include "camctl/FileVideoSession.h"
#include "support/engine_support.h"
#include "support/fixtures.h"
#include "support/media_support.h"
#include "support/pictures.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string HevcFixture(int width, int height, int seconds) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    return camctl_test::Fixture("testsrc_" + size + "_" + std::to_string(seconds) + "s.hevc",
                                "-f lavfi -i testsrc=size=" + size + ":rate=25 -t " + std::to_string(seconds) +
                                    " -c:v libx265 -bf 0 -g 25 -pix_fmt yuv420p -x265-params log-level=error");
}

// The access units of an Annex-B file, as the demuxer hands them out.
struct Stream {
    std::vector<Bytes> units;
    std::vector<bool> keys;
};
Stream ReadStream(const std::string& path) {
    Stream s;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) != 0) return s;
    camctl::InputFormatPtr fmt(raw);
    camctl::PacketPtr pkt = camctl::MakePacket();
    while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
        s.units.emplace_back(pkt->data, pkt->data + pkt->size);
        s.keys.push_back(pkt->flags & AV_PKT_FLAG_KEY);
        av_packet_unref(pkt.get());
    }
    return s;
}

// Packs three planes into I420 bytes.
Bytes PackI420(int w, int h, const uint8_t* const planes[3], const int strides[3]) {
    Bytes out;
    for (int c = 0; c < 3; ++c)
        for (int y = 0; y < (c ? h / 2 : h); ++y)
            out.insert(out.end(), planes[c] + y * strides[c], planes[c] + y * strides[c] + (c ? w / 2 : w));
    return out;
}

std::vector<Bytes> DecodeWithFfmpeg(const std::vector<Bytes>& units) {
    std::vector<Bytes> out;
    camctl::CodecContextPtr ctx(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_HEVC)));
    ctx->thread_count = 1;
    if (avcodec_open2(ctx.get(), nullptr, nullptr) != 0) return out;
    camctl::PacketPtr pkt = camctl::MakePacket();
    camctl::FramePtr f = camctl::MakeFrame();
    for (size_t i = 0; i <= units.size(); ++i) {
        pkt->data = i < units.size() ? const_cast<uint8_t*>(units[i].data()) : nullptr;
        pkt->size = i < units.size() ? static_cast<int>(units[i].size()) : 0;
        avcodec_send_packet(ctx.get(), i < units.size() ? pkt.get() : nullptr);
        while (avcodec_receive_frame(ctx.get(), f.get()) == 0) {
            const uint8_t* planes[3] = {f->data[0], f->data[1], f->data[2]};
            out.push_back(PackI420(f->width, f->height, planes, f->linesize));
        }
    }
    return out;
}

class Decoder {
public:
    Decoder(uint32_t max_w, uint32_t max_h, IHW265D_INIT_PARAM p = {}) {
        p.uiMaxWidth = max_w;
        p.uiMaxHeight = max_h;
        p.uiThreads = 1;
        created = IHW265D_Create(&handle, &p);
    }
    ~Decoder() { IHW265D_Delete(handle); }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;
    uint32_t Decode(const Bytes& unit, IHW265D_OUTPUT* out) const {
        IHW265D_INPUT in{unit.data(), static_cast<uint32_t>(unit.size()), 0};
        return IHW265D_Decode(handle, &in, out);
    }
    IHW265D_HANDLE handle = nullptr;
    uint32_t created = 0;
};

// Packs a handed-out picture, reading every byte of its planes (a short
// plane shows up under AddressSanitizer).
Bytes Pack(const IHW265D_OUTPUT& o) {
    const uint8_t* planes[3] = {o.pY, o.pU, o.pV};
    const int strides[3] = {int(o.uiYStride), int(o.uiUVStride), int(o.uiUVStride)};
    return o.pY ? PackI420(int(o.uiWidth), int(o.uiHeight), planes, strides) : Bytes{};
}

// Offset of each NAL unit's start code in an access unit.
std::vector<size_t> NalStarts(const Bytes& u) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= u.size(); ++i)
        if (u[i] == 0 && u[i + 1] == 0 && u[i + 2] == 1) {
            starts.push_back(i > 0 && u[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    return starts;
}
int NalType(const Bytes& u, size_t start) { return (u[start + (u[start + 2] == 1 ? 3 : 4)] >> 1) & 0x3F; }

// Offset of the first NAL unit of a type in [lo, hi) (the unit's size when none).
size_t FirstNal(const Bytes& u, int lo, int hi) {
    for (size_t s : NalStarts(u))
        if (NalType(u, s) >= lo && NalType(u, s) < hi) return s;
    return u.size();
}

// The key frame with the IHW265D marker (a prefix SEI of payload type 229
// behind a four-byte start code) right after its parameter sets.
Bytes WithMarker(const Bytes& key) {
    const size_t at = std::min(FirstNal(key, 0, 32), FirstNal(key, 35, 64));
    const Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 0xE5, 0x04, 0xC1, 0xA2, 0xB3, 0xD4, 0x80};
    Bytes marked(key.begin(), key.begin() + at);
    marked.insert(marked.end(), sei.begin(), sei.end());
    marked.insert(marked.end(), key.begin() + at, key.end());
    return marked;
}

TEST(Ihw265d, PicturesAndStatuses) {
    const Stream s = ReadStream(HevcFixture(320, 240, 2));
    ASSERT_EQ(s.units.size(), 50u);
    ASSERT_TRUE(s.keys[0] && s.keys[25]);
    const std::vector<Bytes> reference = DecodeWithFfmpeg(s.units);
    ASSERT_EQ(reference.size(), s.units.size());
    IHW265D_OUTPUT out;
    {  // Clean stream: each unit's picture at once, bit for bit FFmpeg's.
        Decoder dec(320, 240);
        ASSERT_EQ(dec.created, IHW265D_OK);
        ASSERT_EQ(dec.Decode(Bytes{}, &out), IHW265D_OK);
        EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
        EXPECT_EQ(out.pY, nullptr);
        const size_t slice = FirstNal(s.units[0], 0, 32);  // parameter sets and SEI alone: no picture yet
        ASSERT_EQ(dec.Decode(Bytes(s.units[0].begin(), s.units[0].begin() + slice), &out), IHW265D_OK);
        EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
        for (size_t i = 0; i < s.units.size(); ++i) {
            ASSERT_EQ(dec.Decode(i ? s.units[i] : Bytes(s.units[0].begin() + slice, s.units[0].end()), &out),
                      IHW265D_OK);
            ASSERT_EQ(out.uiDecodeStatus, IHW265D_STATUS_PICTURE) << i;
            EXPECT_EQ(out.uiFlags | out.uiErrorCode, 0u);
            ASSERT_EQ(out.uiWidth, 320u);
            ASSERT_EQ(out.uiHeight, 240u);
            EXPECT_TRUE(Pack(out) == reference[i]) << "picture " << i;
        }
    }
    {  // Corrupted P slices: damaged, and pictures after them flagged, until the next key frame.
        std::mt19937 rng(1);
        Decoder dec(320, 240);
        int corrupted = 0, damaged = 0;
        for (size_t i = 0; i < s.units.size(); ++i) {
            Bytes u = s.units[i];
            if (!s.keys[i] && i % 5 == 3) {
                ++corrupted;
                for (int k = 0; k < 3; ++k) u[u.size() / 2 + rng() % (u.size() / 2)] ^= uint8_t(1u << (rng() % 8));
            }
            ASSERT_EQ(dec.Decode(u, &out), IHW265D_OK) << i;
            ASSERT_NE(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE) << i;
            if (i < 3 || s.keys[i]) {
                EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_PICTURE) << i;
                EXPECT_EQ(out.uiFlags, 0u) << i;
            }
            if (out.uiDecodeStatus == IHW265D_STATUS_DAMAGED) {
                ++damaged;
                EXPECT_NE(out.uiErrorCode, 0u);
                EXPECT_EQ(out.uiFlags, unsigned(IHW265D_FLAG_DAMAGED | IHW265D_FLAG_REF_DAMAGED));
            } else if (i > 3 && i < 25) {
                EXPECT_EQ(out.uiFlags, unsigned(IHW265D_FLAG_REF_DAMAGED)) << i;
            }
        }
        EXPECT_GE(damaged, corrupted * 2 / 3) << damaged << " of " << corrupted;  // a flip may change nothing
    }
    // Larger than created is refused, from the start or mid-stream; smaller is fine.
    const Stream large = ReadStream(HevcFixture(640, 480, 1));
    {
        Decoder small(160, 120);
        EXPECT_EQ(small.Decode(s.units[0], &out), IHW265D_ERR_PICTURE_TOO_LARGE);
        EXPECT_EQ(out.pY, nullptr);
        EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
        Decoder dec(320, 240);
        for (size_t i = 0; i < 10; ++i) ASSERT_EQ(dec.Decode(s.units[i], &out), IHW265D_OK);
        EXPECT_EQ(dec.Decode(large.units[0], &out), IHW265D_ERR_PICTURE_TOO_LARGE);
        Decoder roomy(1920, 1080);
        EXPECT_EQ(roomy.Decode(s.units[0], &out), IHW265D_OK);
        EXPECT_EQ(out.uiWidth, 320u);
    }
    // Bit flips anywhere, truncation and noise: only the documented results, no over-read.
    for (unsigned seed = 0; seed < 8; ++seed) {
        std::mt19937 rng(seed);
        Decoder dec(320, 240);
        for (size_t i = 0; i <= s.units.size(); ++i) {
            Bytes u = i < s.units.size() ? s.units[i] : Bytes(4096);
            const unsigned flips = 1 + rng() % (seed + 2);  // headers too
            for (unsigned k = 0; k < flips; ++k) u[rng() % u.size()] ^= uint8_t(1u << (rng() % 8));
            if (rng() % 7 == 0) u.resize(rng() % u.size());
            const uint32_t r = dec.Decode(u, &out);
            ASSERT_TRUE(r == IHW265D_OK || r == IHW265D_ERR_PICTURE_TOO_LARGE || r == IHW265D_ERR_STREAM) << r;
            if (out.uiDecodeStatus != IHW265D_STATUS_NO_PICTURE && out.pY) {
                EXPECT_LE(out.uiWidth, 320u);
                EXPECT_LE(out.uiHeight, 240u);
                Pack(out);
            }
        }
    }
}

struct CallbackLog {
    int allocs = 0, frees = 0;
    uint32_t channel = 0;
    std::string text;
} g_callbacks;

TEST(Ihw265d, ApiArgumentsCallbacksAndMarker) {
    IHW265D_VERSION v;
    ASSERT_EQ(IHW265D_GetVersion(&v), IHW265D_OK);
    EXPECT_NE(std::string(v.szVersion).find("libde265"), std::string::npos);
    IHW265D_HANDLE h = reinterpret_cast<IHW265D_HANDLE>(1);
    IHW265D_INIT_PARAM no_size{};
    EXPECT_EQ(IHW265D_Create(&h, &no_size), IHW265D_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(IHW265D_Create(&h, nullptr), IHW265D_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(IHW265D_Delete(nullptr), IHW265D_OK);
    IHW265D_OUTPUT out;
    IHW265D_INPUT in{nullptr, 10, 0};
    EXPECT_EQ(IHW265D_Decode(nullptr, &in, &out), IHW265D_ERR_INVALID_ARGUMENT);
    IHW265D_INIT_PARAM p{};
    p.uiChannelId = 7;
    p.pfnMalloc = [](uint32_t ch, uint32_t size) -> void* {
        ++g_callbacks.allocs;
        g_callbacks.channel = ch;
        return malloc(size);
    };
    p.pfnFree = [](uint32_t, void* ptr) {
        ++g_callbacks.frees;
        free(ptr);
    };
    p.pfnLog = [](uint32_t, uint32_t, const char* text) { g_callbacks.text += text; };
    {
        Decoder dec(320, 240, p);
        ASSERT_EQ(dec.created, IHW265D_OK);
        EXPECT_EQ(IHW265D_Decode(dec.handle, &in, &out), IHW265D_ERR_INVALID_ARGUMENT);  // data missing
        EXPECT_EQ(g_callbacks.allocs, 1);
        EXPECT_EQ(g_callbacks.channel, 7u);
        EXPECT_NE(g_callbacks.text.find("320x240"), std::string::npos) << g_callbacks.text;
    }
    EXPECT_EQ(g_callbacks.frees, 1);

    const Bytes key = ReadStream(HevcFixture(320, 240, 2)).units[0];
    const Bytes m = {0, 0, 0, 1, 0x4E, 0x01, 0xE5};
    auto at = [&](size_t pos, Bytes marker) {
        Bytes b(300, 0x55);
        std::copy(marker.begin(), marker.end(), b.begin() + long(pos));
        return b;
    };
    const struct {
        const char* name;
        Bytes data;
        int size;  // -1: all of it
        bool marked;
    } cases[] = {
        {"marker", m, -1, true},
        {"cut before the payload type", m, 6, false},
        {"layer-id bit set", {0, 0, 0, 1, 0x4F, 0x01, 0xE5}, -1, true},
        {"suffix SEI", {0, 0, 0, 1, 0x50, 0x01, 0xE5}, -1, false},
        {"other payload type", {0, 0, 0, 1, 0x4E, 0x01, 0x05}, -1, false},
        {"last scanned position", at(254, m), -1, true},
        {"past the scanned positions", at(255, m), -1, false},
        {"x265's own SEI", key, -1, false},
        {"marked key frame", WithMarker(key), -1, true},
    };
    for (const auto& c : cases)
        EXPECT_EQ(camctl::h265::HasIhw265dMarker(c.data.data(), c.size < 0 ? int(c.data.size()) : c.size), c.marked)
            << c.name;
}

// ---- Through a file session ----------------------------------------------

// Writes packets (data, key) into a NUT file, which hands them back as they are.
void WritePackets(const std::string& path, const std::vector<std::pair<Bytes, bool>>& packets) {
    AVFormatContext* raw = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&raw, nullptr, "nut", path.c_str()), 0);
    std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> oc(raw, [](AVFormatContext* c) {
        avio_closep(&c->pb);
        avformat_free_context(c);
    });
    AVStream* st = avformat_new_stream(raw, nullptr);
    st->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
    st->codecpar->codec_id = AV_CODEC_ID_HEVC;
    st->codecpar->width = 320;
    st->codecpar->height = 240;
    st->time_base = {1, 25};
    ASSERT_GE(avio_open(&raw->pb, path.c_str(), AVIO_FLAG_WRITE), 0);
    ASSERT_GE(avformat_write_header(raw, nullptr), 0);
    int64_t n = 0;
    for (const auto& [data, key] : packets) {
        camctl::PacketPtr pkt = camctl::MakePacket();
        av_new_packet(pkt.get(), int(data.size()));
        std::copy(data.begin(), data.end(), pkt->data);
        pkt->flags = key ? AV_PKT_FLAG_KEY : 0;
        pkt->pts = pkt->dts = av_rescale_q(n++, {1, 25}, st->time_base);
        ASSERT_GE(av_write_frame(raw, pkt.get()), 0);
    }
    ASSERT_GE(av_write_trailer(raw), 0);
}

// Plays path through a file session (I420 or BGR24) until `pictures` came,
// or `stop_log` was printed; returns the session's log and stderr.
std::vector<Bytes> Play(const std::string& path, bool yuv, size_t pictures, std::string* log,
                        const char* stop_log = nullptr) {
    camctl_test::StderrCapture capture;
    camctl_test::MediaSession<CFileVideoSession> s(yuv);
    EXPECT_EQ(s.Open(path.c_str()), 0);
    EXPECT_TRUE(camctl_test::WaitFor([&] {
        return stop_log ? capture.Text().find(stop_log) != std::string::npos : s.log.PictureCount() >= pictures;
    })) << s.log.PictureCount();
    s.VideoFree();
    *log = capture.Text();
    std::vector<std::pair<int, int>> sizes;
    std::vector<Bytes> out = s.log.Pictures(&sizes);
    for (const auto& size : sizes) EXPECT_EQ(size, std::make_pair(320, 240));
    return out;
}

size_t Count(const std::string& text, const std::string& what) {
    size_t n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++n;
    return n;
}

// A marked stream goes through IHW265D with FFmpeg's pictures; one instance
// per stream, made for marked and unmarked streams alike.
TEST(EngineH265, MarkedStreamGoesThroughIhw265dWithTheSamePictures) {
    camctl_test::TempDir tmp;
    const std::string plain_file = HevcFixture(320, 240, 2);
    const Stream s = ReadStream(plain_file);
    std::vector<std::pair<Bytes, bool>> marked = {{WithMarker(s.units[0]), true}};
    for (size_t i = 1; i < s.units.size(); ++i) marked.push_back({s.units[i], s.keys[i]});
    WritePackets(tmp / "marked.nut", marked);
    for (bool yuv : {false, true}) {
        SCOPED_TRACE(yuv ? "I420" : "BGR24");
        std::string log;
        uint64_t before = camctl::h265::Ihw265dPicturesDecoded();
        const std::vector<Bytes> plain = Play(plain_file, yuv, s.units.size(), &log);
        EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded(), before);  // FFmpeg served it
        EXPECT_EQ(Count(log, "IHW265D_Create===success====0x0===="), 1u) << log;
        before = camctl::h265::Ihw265dPicturesDecoded();
        const std::vector<Bytes> through = Play(tmp / "marked.nut", yuv, s.units.size(), &log);
        EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded() - before, s.units.size());
        EXPECT_EQ(Count(log, "IHW265D_Create===success====0x0===="), 1u) << log;
        ASSERT_EQ(plain.size(), s.units.size());
        ASSERT_EQ(through.size(), s.units.size());
        for (size_t i = 0; i < s.units.size(); ++i)
            EXPECT_GT(camctl_test::Psnr(plain[i].data(), through[i].data(), plain[i].size()), 45.0) << i;
    }
}

// Damage on the IHW265D path: counted, logged, and the fourth damaged
// picture or a larger picture than the instance was made for stops decoding.
TEST(EngineH265, DamageIsCountedAndStopsDecoding) {
    const Stream s = ReadStream(HevcFixture(320, 240, 2));
    const Stream large = ReadStream(HevcFixture(640, 480, 1));
    const Bytes key = WithMarker(s.units[0]);
    const size_t slice = FirstNal(key, 0, 32);
    using Packets = std::vector<std::pair<Bytes, bool>>;
    auto rest = [&](size_t from, size_t to, bool corrupt) {
        Packets p;
        std::mt19937 rng(5);
        for (size_t i = from; i < to; ++i) {
            Bytes u = s.units[i];
            if (corrupt && !s.keys[i])  // no zero bytes: no start code made up
                for (size_t k = u.size() / 2; k < u.size(); k += 3) u[k] = uint8_t(rng() | 1);
            p.push_back({u, s.keys[i]});
        }
        return p;
    };
    auto join = [](Packets a, const Packets& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    Packets larger;
    for (const Bytes& u : large.units) larger.push_back({u, larger.empty()});
    const struct {
        const char* name;
        Packets packets;
        bool stops;
        const char* log;
        size_t pictures;
        uint64_t through_ihw265d;
    } cases[] = {
        {"first key frame shorter than seven bytes keeps FFmpeg",
         join({{{0, 0, 0, 1, 0x4E, 0x01}, true}, {key, true}}, rest(1, 50, false)), false, "", 50, 0},
        {"fourth damaged picture stops", join({{key, true}}, join(rest(1, 5, false), rest(5, 50, true))), true,
         "===IH265D_ERR_HANDLE====nBadFrameCount:3====\n", 5, 5},
        {"larger picture than created stops", join(join({{key, true}}, rest(1, 10, false)), larger), true,
         "maybe resolution change to big one=====", 10, 10},
        {"key frame without a picture counts as damaged (the next key frame's is withheld)",
         join({{Bytes(key.begin(), key.begin() + slice), true}, {Bytes(key.begin() + slice, key.end()), false}},
              rest(1, 50, false)),
         false, "=======nIsBadFrame=======", 49, 50},
    };
    camctl_test::TempDir tmp;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        WritePackets(tmp / "case.nut", c.packets);
        const uint64_t before = camctl::h265::Ihw265dPicturesDecoded();
        std::string log;
        EXPECT_EQ(Play(tmp / "case.nut", false, c.pictures, &log, c.stops ? c.log : nullptr).size(), c.pictures);
        EXPECT_NE(log.find(c.log), std::string::npos) << log;
        EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded() - before, c.through_ihw265d);
    }
}

}  // namespace
