// Catches: IHW265D pictures that differ from FFmpeg's, wrong decoder statuses or damage flags, oversized pictures let through, crashes or over-reads on damaged input, callbacks and parameters ignored, a marker scan that misses or over-reaches, the engine choosing the wrong decoder or making it twice, damaged pictures not counted, missing log texts.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "camctl/FileVideoSession.h"
#include "engine/av_ptr.h"
#include "engine/h265/IHW265D.h"
#include "engine/h265/ihw265d_stage.h"
#include "support/engine_support.h"
#include "support/fixtures.h"
#include "support/media_support.h"
#include "support/pictures.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Packets = std::vector<std::pair<Bytes, bool>>;  // data, key

std::string HevcFixture(int width, int height, int seconds) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    return camctl_test::Fixture("testsrc_" + size + "_" + std::to_string(seconds) + "s.hevc",
                                "-f lavfi -i testsrc=size=" + size + ":rate=25 -t " + std::to_string(seconds) +
                                    " -c:v libx265 -bf 0 -g 25 -pix_fmt yuv420p -x265-params log-level=error");
}

// The access units of a file, as the demuxer hands them out.
Packets ReadStream(const std::string& path) {
    Packets s;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) != 0) return s;
    camctl::InputFormatPtr fmt(raw);
    for (camctl::PacketPtr pkt = camctl::MakePacket(); av_read_frame(fmt.get(), pkt.get()) >= 0; av_packet_unref(pkt.get()))
        s.push_back({Bytes(pkt->data, pkt->data + pkt->size), (pkt->flags & AV_PKT_FLAG_KEY) != 0});
    return s;
}

struct Decoder {
    Decoder(uint32_t max_w, uint32_t max_h, IHW265D_INIT_PARAM p = {}) {
        p.uiMaxWidth = max_w, p.uiMaxHeight = max_h, p.uiThreads = 1;
        created = IHW265D_Create(&handle, &p);
    }
    ~Decoder() { IHW265D_Delete(handle); }
    uint32_t Decode(const Bytes& unit) {
        IHW265D_INPUT in{unit.data(), static_cast<uint32_t>(unit.size()), 0};
        return IHW265D_Decode(handle, &in, &out);
    }
    // The handed-out picture as I420, every byte of its planes read (a short
    // plane shows up under AddressSanitizer).
    Bytes Picture() const {
        Bytes b;
        const uint8_t* planes[3] = {out.pY, out.pU, out.pV};
        for (int c = 0; c < 3 && out.pY; ++c)
            for (uint32_t y = 0; y < (c ? out.uiHeight / 2 : out.uiHeight); ++y) {
                const uint8_t* row = planes[c] + y * (c ? out.uiUVStride : out.uiYStride);
                b.insert(b.end(), row, row + (c ? out.uiWidth / 2 : out.uiWidth));
            }
        return b;
    }
    IHW265D_HANDLE handle = nullptr;
    uint32_t created = 0;
    IHW265D_OUTPUT out{};
};

// Offset of the first NAL unit of a type in [lo, hi) (the unit's size when none).
size_t FirstNal(const Bytes& u, int lo, int hi) {
    for (size_t i = 0; i + 4 < u.size(); ++i)
        if (u[i] == 0 && u[i + 1] == 0 && u[i + 2] == 1) {
            const int type = (u[i + 3] >> 1) & 0x3F;
            if (type >= lo && type < hi) return i > 0 && u[i - 1] == 0 ? i - 1 : i;
            i += 2;
        }
    return u.size();
}

// The key frame with the IHW265D marker (a prefix SEI of payload type 229
// behind a four-byte start code) right after its parameter sets.
Bytes WithMarker(const Bytes& key) {
    const size_t at = std::min(FirstNal(key, 0, 32), FirstNal(key, 35, 64));
    const Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 0xE5, 0x04, 0xC1, 0xA2, 0xB3, 0xD4, 0x80};
    Bytes marked(key.begin(), key.begin() + long(at));
    marked.insert(marked.end(), sei.begin(), sei.end());
    marked.insert(marked.end(), key.begin() + long(at), key.end());
    return marked;
}

TEST(Ihw265d, PicturesAndStatuses) {
    const std::string file = HevcFixture(320, 240, 2);
    const Packets s = ReadStream(file);
    ASSERT_EQ(s.size(), 50u);
    ASSERT_TRUE(s[0].second && s[25].second);
    camctl_test::TempDir tmp;  // FFmpeg's pictures
    ASSERT_EQ(camctl_test::RunCommand("ffmpeg -v error -i '" + file + "' -f rawvideo '" + (tmp / "ref.yuv") + "'"), 0);
    const Bytes reference = camctl_test::ReadFileBytes(tmp / "ref.yuv");
    const size_t picture = 320 * 240 * 3 / 2;
    ASSERT_EQ(reference.size(), picture * s.size());
    {  // Clean stream: each unit's picture at once, bit for bit FFmpeg's.
        Decoder dec(320, 240);
        ASSERT_EQ(dec.created, IHW265D_OK);
        ASSERT_EQ(dec.Decode(Bytes{}), IHW265D_OK);
        EXPECT_EQ(dec.out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
        EXPECT_EQ(dec.out.pY, nullptr);
        const Bytes& key = s[0].first;
        const size_t slice = FirstNal(key, 0, 32);  // parameter sets and SEI alone: no picture yet
        ASSERT_EQ(dec.Decode(Bytes(key.begin(), key.begin() + long(slice))), IHW265D_OK);
        EXPECT_EQ(dec.out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
        for (size_t i = 0; i < s.size(); ++i) {
            ASSERT_EQ(dec.Decode(i ? s[i].first : Bytes(key.begin() + long(slice), key.end())), IHW265D_OK);
            ASSERT_EQ(dec.out.uiDecodeStatus, IHW265D_STATUS_PICTURE) << i;
            EXPECT_EQ(dec.out.uiFlags | dec.out.uiErrorCode, 0u);
            ASSERT_EQ(std::make_pair(dec.out.uiWidth, dec.out.uiHeight), std::make_pair(320u, 240u));
            EXPECT_TRUE(dec.Picture() == Bytes(reference.begin() + long(i * picture), reference.begin() + long((i + 1) * picture))) << i;
        }
    }
    {  // Corrupted P slices: damaged, and pictures after them flagged, until the next key frame.
        std::mt19937 rng(1);
        Decoder dec(320, 240);
        int corrupted = 0, damaged = 0;
        for (size_t i = 0; i < s.size(); ++i) {
            Bytes u = s[i].first;
            if (!s[i].second && i % 5 == 3 && ++corrupted)
                for (int k = 0; k < 3; ++k) u[u.size() / 2 + rng() % (u.size() / 2)] ^= uint8_t(1u << (rng() % 8));
            ASSERT_EQ(dec.Decode(u), IHW265D_OK) << i;
            const IHW265D_OUTPUT& o = dec.out;
            ASSERT_NE(o.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE) << i;
            EXPECT_TRUE((i >= 3 && !s[i].second) || (o.uiDecodeStatus | o.uiFlags) == 0) << i;  // clean until the damage
            if (o.uiDecodeStatus == IHW265D_STATUS_DAMAGED && ++damaged) {
                EXPECT_NE(o.uiErrorCode, 0u);
                EXPECT_EQ(o.uiFlags, unsigned(IHW265D_FLAG_DAMAGED | IHW265D_FLAG_REF_DAMAGED));
            } else if (i > 3 && i < 25) {
                EXPECT_EQ(o.uiFlags, unsigned(IHW265D_FLAG_REF_DAMAGED)) << i;
            }
        }
        EXPECT_GE(damaged, corrupted * 2 / 3) << damaged << " of " << corrupted;  // a flip may change nothing
    }
    // Larger than created is refused, from the start or mid-stream; smaller is fine.
    Decoder small(160, 120), dec(320, 240), roomy(1920, 1080);
    EXPECT_EQ(small.Decode(s[0].first), IHW265D_ERR_PICTURE_TOO_LARGE);
    EXPECT_EQ(small.out.pY, nullptr);
    EXPECT_EQ(small.out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
    for (size_t i = 0; i < 10; ++i) ASSERT_EQ(dec.Decode(s[i].first), IHW265D_OK);
    EXPECT_EQ(dec.Decode(ReadStream(HevcFixture(640, 480, 1))[0].first), IHW265D_ERR_PICTURE_TOO_LARGE);
    EXPECT_EQ(roomy.Decode(s[0].first), IHW265D_OK);
    EXPECT_EQ(roomy.out.uiWidth, 320u);
    // Bit flips anywhere, truncation and noise: only the documented results, no over-read.
    for (unsigned seed = 0; seed < 8; ++seed) {
        std::mt19937 rng(seed);
        Decoder d(320, 240);
        for (size_t i = 0; i <= s.size(); ++i) {
            Bytes u = i < s.size() ? s[i].first : Bytes(4096);
            for (unsigned k = 1 + rng() % (seed + 2); k > 0; --k) u[rng() % u.size()] ^= uint8_t(1u << (rng() % 8));
            if (rng() % 7 == 0) u.resize(rng() % u.size());
            const uint32_t r = d.Decode(u);
            ASSERT_TRUE(r == IHW265D_OK || r == IHW265D_ERR_PICTURE_TOO_LARGE || r == IHW265D_ERR_STREAM) << r;
            if (d.out.uiDecodeStatus != IHW265D_STATUS_NO_PICTURE && d.out.pY) {
                EXPECT_LE(d.out.uiWidth, 320u);
                EXPECT_LE(d.out.uiHeight, 240u);
                d.Picture();
            }
        }
    }
}

struct CallbackLog { int allocs = 0, frees = 0; uint32_t channel = 0; std::string text; } g_callbacks;

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
    IHW265D_OUTPUT out{};
    IHW265D_INPUT in{nullptr, 10, 0};
    EXPECT_EQ(IHW265D_Decode(nullptr, &in, &out), IHW265D_ERR_INVALID_ARGUMENT);
    IHW265D_INIT_PARAM p{};
    p.uiChannelId = 7;
    p.pfnMalloc = [](uint32_t ch, uint32_t size) { return ++g_callbacks.allocs, g_callbacks.channel = ch, malloc(size); };
    p.pfnFree = [](uint32_t, void* ptr) { ++g_callbacks.frees, free(ptr); };
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

    const Bytes key = ReadStream(HevcFixture(320, 240, 2))[0].first;
    const Bytes m = {0, 0, 0, 1, 0x4E, 0x01, 0xE5};
    auto at = [&](size_t pos, Bytes b) { return b.insert(b.begin(), pos, 0x55), b.resize(300, 0x55), b; };
    const struct { const char* name; Bytes data; int size; bool marked; } cases[] = {  // size -1: all of it
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
void WritePackets(const std::string& path, const Packets& packets) {
    AVFormatContext* raw = nullptr;
    ASSERT_GE(avformat_alloc_output_context2(&raw, nullptr, "nut", path.c_str()), 0);
    std::unique_ptr<AVFormatContext, void (*)(AVFormatContext*)> oc(raw, [](AVFormatContext* c) {
        avio_closep(&c->pb);
        avformat_free_context(c);
    });
    AVStream* st = avformat_new_stream(raw, nullptr);
    st->codecpar->codec_type = AVMEDIA_TYPE_VIDEO, st->codecpar->codec_id = AV_CODEC_ID_HEVC;
    st->codecpar->width = 320, st->codecpar->height = 240, st->time_base = {1, 25};
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
    for (const auto& size : s.log.Sizes()) EXPECT_EQ(size, std::make_pair(320, 240));
    return s.log.Pictures();
}

size_t Count(const std::string& text, const std::string& what, size_t from = 0) {
    return (from = text.find(what, from)) == std::string::npos ? 0 : 1 + Count(text, what, from + 1);
}

// A marked stream goes through IHW265D with FFmpeg's pictures; one instance
// per stream, made for marked and unmarked streams alike.
TEST(EngineH265, MarkedStreamGoesThroughIhw265dWithTheSamePictures) {
    camctl_test::TempDir tmp;
    const std::string plain_file = HevcFixture(320, 240, 2);
    Packets s = ReadStream(plain_file);
    const size_t n = s.size();
    s[0].first = WithMarker(s[0].first);
    WritePackets(tmp / "marked.nut", s);
    for (bool yuv : {false, true}) {
        SCOPED_TRACE(yuv ? "I420" : "BGR24");
        std::string log;
        uint64_t before = camctl::h265::Ihw265dPicturesDecoded();
        const std::vector<Bytes> plain = Play(plain_file, yuv, n, &log);
        EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded(), before);  // FFmpeg served it
        EXPECT_EQ(Count(log, "IHW265D_Create===success====0x0===="), 1u) << log;
        before = camctl::h265::Ihw265dPicturesDecoded();
        const std::vector<Bytes> through = Play(tmp / "marked.nut", yuv, n, &log);
        EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded() - before, n);
        EXPECT_EQ(Count(log, "IHW265D_Create===success====0x0===="), 1u) << log;
        ASSERT_EQ(plain.size(), n);
        ASSERT_EQ(through.size(), n);
        for (size_t i = 0; i < n; ++i)
            EXPECT_GT(camctl_test::Psnr(plain[i].data(), through[i].data(), plain[i].size()), 45.0) << i;
    }
}

// Damage on the IHW265D path: counted, logged, and the fourth damaged
// picture or a larger picture than the instance was made for stops decoding.
TEST(EngineH265, DamageIsCountedAndStopsDecoding) {
    const Packets s = ReadStream(HevcFixture(320, 240, 2));
    const Bytes key = WithMarker(s[0].first);
    const size_t slice = FirstNal(key, 0, 32);
    auto rest = [&](size_t from, size_t to, bool corrupt) {
        Packets p;
        std::mt19937 rng(5);
        for (size_t i = from; i < to; ++i) {
            p.push_back(s[i]);
            if (corrupt && !s[i].second)  // no zero bytes: no start code made up
                for (size_t k = p.back().first.size() / 2; k < p.back().first.size(); k += 3) p.back().first[k] = uint8_t(rng() | 1);
        }
        return p;
    };
    auto join = [](Packets a, const Packets& b) { return a.insert(a.end(), b.begin(), b.end()), a; };
    const Packets larger = ReadStream(HevcFixture(640, 480, 1));
    const struct { const char* name; Packets packets; bool stops; const char* log; size_t pictures; uint64_t through_ihw265d; } cases[] = {
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
