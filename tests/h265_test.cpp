// H.265 through IHW265D (libde265), on real streams made with libx265: the
// decoder's pictures against FFmpeg's, its status mapping, size limit and
// corrupted input; the marker that routes a stream to it; and the engine's
// decode threads choosing it, delivering its pictures, and stopping on
// damaged or oversized ones.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <mutex>
#include <random>
#include <thread>
#include <string>
#include <vector>

#include "engine/av_ptr.h"
#include "engine/engine.h"
#include "engine/h265/IHW265D.h"
#include "engine/h265/ihw265d_stage.h"
#include "support/engine_support.h"
#include "support/fixtures.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::string HevcFixture(int width, int height, int seconds) {
    const std::string size = std::to_string(width) + "x" + std::to_string(height);
    return camctl_test::Fixture("testsrc_" + size + "_" + std::to_string(seconds) + "s.hevc",
                                "-f lavfi -i testsrc=size=" + size + ":rate=25 -t " + std::to_string(seconds) +
                                    " -c:v libx265 -bf 0 -g 25 -pix_fmt yuv420p -x265-params log-level=error");
}

// The access units of an Annex-B file, as the demuxer hands them out.
std::vector<Bytes> ReadAccessUnits(const std::string& path, std::vector<bool>* keys = nullptr) {
    std::vector<Bytes> units;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) != 0) return units;
    camctl::InputFormatPtr fmt(raw);
    camctl::PacketPtr pkt = camctl::MakePacket();
    while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
        units.emplace_back(pkt->data, pkt->data + pkt->size);
        if (keys) keys->push_back(pkt->flags & AV_PKT_FLAG_KEY);
        av_packet_unref(pkt.get());
    }
    return units;
}

// A decoded picture, packed I420.
struct Picture {
    int width = 0;
    int height = 0;
    Bytes i420;
};

std::vector<Picture> DecodeWithFfmpeg(const std::vector<Bytes>& units) {
    std::vector<Picture> out;
    camctl::CodecContextPtr ctx(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_HEVC)));
    ctx->thread_count = 1;
    if (avcodec_open2(ctx.get(), nullptr, nullptr) != 0) return out;
    camctl::PacketPtr pkt = camctl::MakePacket();
    camctl::FramePtr frame = camctl::MakeFrame();
    auto drain = [&] {
        while (avcodec_receive_frame(ctx.get(), frame.get()) == 0) {
            Picture p{frame->width, frame->height, {}};
            for (int c = 0; c < 3; ++c) {
                const int w = c ? p.width / 2 : p.width, h = c ? p.height / 2 : p.height;
                for (int y = 0; y < h; ++y)
                    p.i420.insert(p.i420.end(), frame->data[c] + y * frame->linesize[c],
                                  frame->data[c] + y * frame->linesize[c] + w);
            }
            out.push_back(std::move(p));
        }
    };
    for (const Bytes& u : units) {
        pkt->data = const_cast<uint8_t*>(u.data());
        pkt->size = static_cast<int>(u.size());
        avcodec_send_packet(ctx.get(), pkt.get());
        drain();
    }
    avcodec_send_packet(ctx.get(), nullptr);
    drain();
    return out;
}

class Decoder {
public:
    explicit Decoder(uint32_t max_w, uint32_t max_h, IHW265D_INIT_PARAM extra = {}) {
        IHW265D_INIT_PARAM p = extra;
        p.uiMaxWidth = max_w;
        p.uiMaxHeight = max_h;
        p.uiThreads = 1;
        create_result_ = IHW265D_Create(&handle_, &p);
    }
    ~Decoder() { IHW265D_Delete(handle_); }
    Decoder(const Decoder&) = delete;
    Decoder& operator=(const Decoder&) = delete;

    uint32_t create_result() const { return create_result_; }
    IHW265D_HANDLE handle() const { return handle_; }

    uint32_t Decode(const Bytes& unit, IHW265D_OUTPUT* out) {
        IHW265D_INPUT in{unit.data(), static_cast<uint32_t>(unit.size()), 0};
        return IHW265D_Decode(handle_, &in, out);
    }

private:
    IHW265D_HANDLE handle_ = nullptr;
    uint32_t create_result_ = 0;
};

Picture Pack(const IHW265D_OUTPUT& o) {
    Picture p{static_cast<int>(o.uiWidth), static_cast<int>(o.uiHeight), {}};
    const uint8_t* planes[3] = {o.pY, o.pU, o.pV};
    for (int c = 0; c < 3; ++c) {
        const int w = c ? p.width / 2 : p.width, h = c ? p.height / 2 : p.height;
        const uint32_t stride = c ? o.uiUVStride : o.uiYStride;
        for (int y = 0; y < h; ++y) p.i420.insert(p.i420.end(), planes[c] + y * stride, planes[c] + y * stride + w);
    }
    return p;
}

TEST(Ihw265dDecode, PicturesMatchFfmpegBitForBit) {
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2));
    ASSERT_EQ(units.size(), 50u);
    const std::vector<Picture> reference = DecodeWithFfmpeg(units);
    ASSERT_EQ(reference.size(), units.size());

    Decoder dec(320, 240);
    ASSERT_EQ(dec.create_result(), IHW265D_OK);
    for (size_t i = 0; i < units.size(); ++i) {
        IHW265D_OUTPUT out;
        ASSERT_EQ(dec.Decode(units[i], &out), IHW265D_OK) << i;
        // Without B-frames every access unit gives its picture at once.
        ASSERT_EQ(out.uiDecodeStatus, IHW265D_STATUS_PICTURE) << i;
        EXPECT_EQ(out.uiFlags, 0u);
        EXPECT_EQ(out.uiErrorCode, 0u);
        ASSERT_EQ(out.uiWidth, 320u);
        ASSERT_EQ(out.uiHeight, 240u);
        EXPECT_GE(out.uiYStride, 320u);
        EXPECT_GE(out.uiUVStride, 160u);
        EXPECT_TRUE(Pack(out).i420 == reference[i].i420) << "picture " << i;
    }
}

// Offsets of the NAL units (their start codes) in an Annex-B unit.
std::vector<size_t> NalStarts(const Bytes& u) {
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 <= u.size(); ++i)
        if (u[i] == 0 && u[i + 1] == 0 && u[i + 2] == 1) {
            starts.push_back(i > 0 && u[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    return starts;
}

int NalType(const Bytes& u, size_t start) {
    const size_t hdr = start + (u[start + 2] == 1 ? 3 : 4);
    return (u[hdr] >> 1) & 0x3F;
}

// Offset of the first slice NAL unit of an access unit (0 when none).
size_t FirstSlice(const Bytes& u) {
    for (size_t s : NalStarts(u))
        if (NalType(u, s) < 32) return s;
    return 0;
}

TEST(Ihw265dStatus, NoPictureUntilTheSliceArrives) {
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2));
    Decoder dec(320, 240);
    IHW265D_OUTPUT out;
    ASSERT_EQ(dec.Decode(Bytes{}, &out), IHW265D_OK);
    EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
    EXPECT_EQ(out.pY, nullptr);

    // The key frame split into its parameter sets and SEI, then its slices.
    const Bytes& key = units[0];
    const size_t first_slice = FirstSlice(key);
    ASSERT_GT(first_slice, 0u);
    ASSERT_EQ(dec.Decode(Bytes(key.begin(), key.begin() + first_slice), &out), IHW265D_OK);
    EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
    ASSERT_EQ(dec.Decode(Bytes(key.begin() + first_slice, key.end()), &out), IHW265D_OK);
    EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_PICTURE);
    EXPECT_EQ(out.uiWidth, 320u);
}

TEST(Ihw265dStatus, CorruptedSlicesAreDamagedUntilTheNextKeyFrame) {
    std::vector<bool> keys;
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2), &keys);
    ASSERT_TRUE(keys[0] && keys[25]);
    std::mt19937 rng(1);
    Decoder dec(320, 240);
    int corrupted = 0, damaged = 0;
    for (size_t i = 0; i < units.size(); ++i) {
        Bytes u = units[i];
        const bool corrupt = !keys[i] && i % 5 == 3;  // P pictures 3, 8, 13, ...
        if (corrupt) {
            ++corrupted;
            for (int k = 0; k < 3; ++k) u[u.size() / 2 + rng() % (u.size() / 2)] ^= uint8_t(1u << (rng() % 8));
        }
        IHW265D_OUTPUT out;
        ASSERT_EQ(dec.Decode(u, &out), IHW265D_OK) << i;
        ASSERT_NE(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE) << i;
        if (i < 3 || keys[i]) {
            EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_PICTURE) << i;
            EXPECT_EQ(out.uiFlags, 0u) << i;  // a key frame ends the damaged chain
        }
        if (out.uiDecodeStatus == IHW265D_STATUS_DAMAGED) {
            ++damaged;
            EXPECT_NE(out.uiErrorCode, 0u);
            EXPECT_EQ(out.uiFlags, unsigned(IHW265D_FLAG_DAMAGED | IHW265D_FLAG_REF_DAMAGED));
        } else if (i > 3 && i < 25) {
            EXPECT_EQ(out.uiFlags, unsigned(IHW265D_FLAG_REF_DAMAGED)) << i;  // predicted from a damaged one
        }
    }
    // A flip can land where it changes nothing detectable; most do not.
    EXPECT_GE(damaged, corrupted * 2 / 3) << damaged << " of " << corrupted;
}

TEST(Ihw265dStatus, PictureLargerThanCreatedIsRefused) {
    {
        Decoder dec(160, 120);
        IHW265D_OUTPUT out;
        EXPECT_EQ(dec.Decode(ReadAccessUnits(HevcFixture(320, 240, 2))[0], &out), IHW265D_ERR_PICTURE_TOO_LARGE);
        EXPECT_EQ(out.pY, nullptr);
        EXPECT_EQ(out.uiDecodeStatus, IHW265D_STATUS_NO_PICTURE);
    }
    // A camera switching to a larger resolution in the middle of a stream.
    std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2));
    const std::vector<Bytes> larger = ReadAccessUnits(HevcFixture(640, 480, 1));
    const size_t switch_at = units.size();
    units.insert(units.end(), larger.begin(), larger.end());
    Decoder dec(320, 240);
    for (size_t i = 0; i < units.size(); ++i) {
        IHW265D_OUTPUT out;
        const uint32_t r = dec.Decode(units[i], &out);
        if (i < switch_at) {
            ASSERT_EQ(r, IHW265D_OK);
            ASSERT_EQ(out.uiDecodeStatus, IHW265D_STATUS_PICTURE);
        } else {
            EXPECT_EQ(r, IHW265D_ERR_PICTURE_TOO_LARGE);
            break;
        }
    }
    // Smaller pictures than created are fine.
    Decoder roomy(1920, 1080);
    IHW265D_OUTPUT out;
    EXPECT_EQ(roomy.Decode(ReadAccessUnits(HevcFixture(320, 240, 2))[0], &out), IHW265D_OK);
    EXPECT_EQ(out.uiWidth, 320u);
}

// Reads every byte of a handed-out picture, so a plane that is shorter than
// its stated size shows up under AddressSanitizer.
unsigned Touch(const IHW265D_OUTPUT& o) {
    if (!o.pY) return 0;
    unsigned sum = 0;
    for (uint32_t y = 0; y < o.uiHeight; ++y)
        for (uint32_t x = 0; x < o.uiWidth; ++x) sum += o.pY[y * o.uiYStride + x];
    for (uint32_t y = 0; y < o.uiHeight / 2; ++y)
        for (uint32_t x = 0; x < o.uiWidth / 2; ++x) sum += o.pU[y * o.uiUVStride + x] + o.pV[y * o.uiUVStride + x];
    return sum;
}

TEST(Ihw265dRobustness, BitFlippedAndTruncatedInputDecodesCleanly) {
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2));
    for (unsigned seed = 0; seed < 8; ++seed) {
        std::mt19937 rng(seed);
        Decoder dec(320, 240);
        int pictures = 0;
        for (size_t i = 0; i < units.size(); ++i) {
            Bytes u = units[i];
            const unsigned flips = 1 + rng() % (seed + 2);  // headers too
            for (unsigned k = 0; k < flips; ++k) u[rng() % u.size()] ^= uint8_t(1u << (rng() % 8));
            if (rng() % 7 == 0) u.resize(rng() % u.size());
            IHW265D_OUTPUT out;
            const uint32_t r = dec.Decode(u, &out);
            ASSERT_TRUE(r == IHW265D_OK || r == IHW265D_ERR_PICTURE_TOO_LARGE || r == IHW265D_ERR_STREAM) << std::hex << r;
            if (out.uiDecodeStatus != IHW265D_STATUS_NO_PICTURE && out.pY) {
                ++pictures;
                EXPECT_LE(out.uiWidth, 320u);
                EXPECT_LE(out.uiHeight, 240u);
                Touch(out);
            }
        }
        // Random garbage between pictures.
        Bytes noise(4096);
        for (auto& b : noise) b = uint8_t(rng());
        IHW265D_OUTPUT out;
        dec.Decode(noise, &out);
        Touch(out);
        EXPECT_LE(pictures, int(units.size()));
    }
}

struct CallbackLog {
    int allocs = 0;
    int frees = 0;
    uint32_t channel = 0;
    std::string text;
};
CallbackLog g_callbacks;

TEST(Ihw265dApi, CreationParametersAndCallbacks) {
    IHW265D_VERSION v;
    ASSERT_EQ(IHW265D_GetVersion(&v), IHW265D_OK);
    EXPECT_NE(std::string(v.szVersion).find("libde265"), std::string::npos);

    IHW265D_HANDLE h = reinterpret_cast<IHW265D_HANDLE>(1);
    IHW265D_INIT_PARAM bad{};
    EXPECT_EQ(IHW265D_Create(&h, &bad), IHW265D_ERR_INVALID_ARGUMENT);  // no size
    EXPECT_EQ(h, nullptr);
    EXPECT_EQ(IHW265D_Create(&h, nullptr), IHW265D_ERR_INVALID_ARGUMENT);
    EXPECT_EQ(IHW265D_Delete(nullptr), IHW265D_OK);
    IHW265D_OUTPUT out;
    IHW265D_INPUT in{nullptr, 10, 0};
    EXPECT_EQ(IHW265D_Decode(nullptr, &in, &out), IHW265D_ERR_INVALID_ARGUMENT);

    g_callbacks = {};
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
        ASSERT_EQ(dec.create_result(), IHW265D_OK);
        EXPECT_EQ(IHW265D_Decode(dec.handle(), &in, &out), IHW265D_ERR_INVALID_ARGUMENT);  // data missing
        EXPECT_EQ(g_callbacks.allocs, 1);
        EXPECT_EQ(g_callbacks.channel, 7u);
        EXPECT_NE(g_callbacks.text.find("320x240"), std::string::npos) << g_callbacks.text;
    }
    EXPECT_EQ(g_callbacks.frees, 1);
}

// The first key frame with a prefix SEI of payload type 229 placed right
// after its parameter sets, behind a four-byte start code: the IHW265D marker.
Bytes WithMarker(const Bytes& key) {
    size_t insert_at = key.size();
    for (size_t s : NalStarts(key)) {
        const int type = NalType(key, s);
        if (type != 32 && type != 33 && type != 34) {  // past VPS, SPS, PPS
            insert_at = s;
            break;
        }
    }
    const Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 0xE5, 0x04, 0xC1, 0xA2, 0xB3, 0xD4, 0x80};
    Bytes marked(key.begin(), key.begin() + insert_at);
    marked.insert(marked.end(), sei.begin(), sei.end());
    marked.insert(marked.end(), key.begin() + insert_at, key.end());
    return marked;
}

TEST(Ihw265dChoice, MarkerScan) {
    Bytes m = {0, 0, 0, 1, 0x4E, 0x01, 0xE5};
    EXPECT_TRUE(camctl::h265::HasIhw265dMarker(m.data(), 7));
    EXPECT_FALSE(camctl::h265::HasIhw265dMarker(m.data(), 6));  // shorter than 7 bytes
    m[4] = 0x4F;  // the layer-id bit does not matter
    EXPECT_TRUE(camctl::h265::HasIhw265dMarker(m.data(), 7));
    m[4] = 0x50;  // suffix SEI
    EXPECT_FALSE(camctl::h265::HasIhw265dMarker(m.data(), 7));
    m[4] = 0x4E;
    m[6] = 0x05;  // another payload type
    EXPECT_FALSE(camctl::h265::HasIhw265dMarker(m.data(), 7));

    // Only the first 255 positions are scanned.
    Bytes far(300, 0x55);
    const Bytes marker = {0, 0, 0, 1, 0x4E, 0x01, 0xE5};
    std::copy(marker.begin(), marker.end(), far.begin() + 254);
    EXPECT_TRUE(camctl::h265::HasIhw265dMarker(far.data(), int(far.size())));
    std::fill(far.begin(), far.end(), 0x55);
    std::copy(marker.begin(), marker.end(), far.begin() + 255);
    EXPECT_FALSE(camctl::h265::HasIhw265dMarker(far.data(), int(far.size())));

    // x265's own SEI (user data, three-byte start code) is no marker.
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2));
    EXPECT_FALSE(camctl::h265::HasIhw265dMarker(units[0].data(), int(units[0].size())));
    const Bytes marked = WithMarker(units[0]);
    EXPECT_TRUE(camctl::h265::HasIhw265dMarker(marked.data(), int(marked.size())));
}

struct ContextFreer {
    void operator()(FFMpegContext* c) const { FFMpegContextFree(c); }
};
using ContextPtr = std::unique_ptr<FFMpegContext, ContextFreer>;

ContextPtr MakeContext(int width, int height) {
    ContextPtr ctx(FFMpegContextAlloc());
    ctx->m_nVideoCodecId = AV_CODEC_ID_HEVC;
    ctx->m_nWidth = width;
    ctx->m_nHeight = height;
    ctx->m_bRunning = 1;
    return ctx;
}

AVPacket View(const Bytes& u) {
    AVPacket p{};
    p.data = const_cast<uint8_t*>(u.data());
    p.size = static_cast<int>(u.size());
    return p;
}

TEST(Ihw265dChoice, CreationAndChoice) {
    const Bytes key = ReadAccessUnits(HevcFixture(320, 240, 2))[0];
    const Bytes marked = WithMarker(key);
    {
        ContextPtr ctx = MakeContext(320, 240);
        testing::internal::CaptureStderr();
        AVPacket p = View(key);
        EXPECT_FALSE(camctl::h265::ChooseIhw265d(ctx.get(), &p));
        // Every H.265 stream gets its instance, marked or not.
        EXPECT_NE(testing::internal::GetCapturedStderr().find("IHW265D_Create===success====0x0===="),
                  std::string::npos);
        EXPECT_TRUE(ctx->m_hH265Decoder);
        IHW265D_HANDLE first = ctx->m_hH265Decoder.get();
        p = View(marked);
        EXPECT_TRUE(camctl::h265::ChooseIhw265d(ctx.get(), &p));
        EXPECT_EQ(ctx->m_hH265Decoder.get(), first);  // not made twice
    }
    {
        ContextPtr ctx = MakeContext(0, 0);  // an instance cannot be made for no size
        testing::internal::CaptureStderr();
        AVPacket p = View(marked);
        EXPECT_FALSE(camctl::h265::ChooseIhw265d(ctx.get(), &p));
        EXPECT_NE(testing::internal::GetCapturedStderr().find("IHW265D_Create===failed====0xf0401001===="),
                  std::string::npos);
        EXPECT_FALSE(ctx->m_hH265Decoder);
    }
}

// ---- Through the engine's video decode threads ---------------------------

// Keeps every picture the engine delivers.
class AllPictures final : public IFrameListener {
public:
    explicit AllPictures(bool yuv) : yuv_(yuv) {}
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        const size_t size = yuv_ ? size_t(width) * height * 3 / 2 : size_t(width) * height * 3;
        std::lock_guard<std::mutex> lock(mu_);
        pictures_.push_back({width, height, Bytes(buf, buf + size)});
        return 0;
    }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    int UpdateMotionAlarmRegion(char*) override { return 0; }
    size_t Count() const {
        std::lock_guard<std::mutex> lock(mu_);
        return pictures_.size();
    }
    std::vector<Picture> Take() {
        std::lock_guard<std::mutex> lock(mu_);
        return std::move(pictures_);
    }

private:
    bool yuv_;
    mutable std::mutex mu_;
    std::vector<Picture> pictures_;
};

bool WaitFor(const std::function<bool()>& pred, int timeout_ms = 10000) {
    return camctl_test::PictureLog::WaitUntil(pred, timeout_ms);
}

double Psnr(const Bytes& a, const Bytes& b) {
    if (a.size() != b.size() || a.empty()) return 0;
    double se = 0;
    for (size_t i = 0; i < a.size(); ++i) se += double(a[i] - b[i]) * (a[i] - b[i]);
    if (se == 0) return INFINITY;
    return 10 * std::log10(255.0 * 255.0 * a.size() / se);
}

void WriteUnits(const std::string& path, const std::vector<Bytes>& units) {
    std::ofstream f(path, std::ios::binary);
    for (const Bytes& u : units) f.write(reinterpret_cast<const char*>(u.data()), std::streamsize(u.size()));
}

// Opens a file through FFMpegContextCreate and collects all its pictures.
std::vector<Picture> PlayFile(const std::string& path, bool yuv, size_t expect) {
    AllPictures sink(yuv);
    ContextOptions options;
    options.decode = 1;
    options.throttleRead = 1;
    FFMpegContext* ctx =
        FFMpegContextCreateEx(static_cast<IFrameListener*>(&sink), path.c_str(), yuv ? 1 : 0, nullptr, 0, options);
    if (!ctx) return {};
    EXPECT_TRUE(ctx->m_hH265Decoder);  // made while opening every H.265 source
    EXPECT_TRUE(WaitFor([&] { return sink.Count() >= expect; })) << sink.Count();
    FFMpegContextDestroy(ctx);
    return sink.Take();
}

TEST(EngineH265, MarkedStreamGoesThroughIhw265dWithTheSamePictures) {
    camctl_test::TempDir tmp;
    std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2));
    units[0] = WithMarker(units[0]);
    const std::string marked = tmp / "marked.hevc";
    WriteUnits(marked, units);

    for (bool yuv : {false, true}) {
        SCOPED_TRACE(yuv ? "I420" : "BGR24");
        uint64_t before = camctl::h265::Ihw265dPicturesDecoded();
        const std::vector<Picture> plain = PlayFile(HevcFixture(320, 240, 2), yuv, units.size());
        EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded(), before);  // FFmpeg served it
        before = camctl::h265::Ihw265dPicturesDecoded();
        const std::vector<Picture> through = PlayFile(marked, yuv, units.size());
        EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded() - before, units.size());

        ASSERT_EQ(plain.size(), units.size());
        ASSERT_EQ(through.size(), units.size());
        double worst = INFINITY;
        for (size_t i = 0; i < units.size(); ++i) {
            ASSERT_EQ(through[i].width, 320);
            ASSERT_EQ(through[i].height, 240);
            worst = std::min(worst, Psnr(plain[i].i420, through[i].i420));
        }
        EXPECT_GT(worst, 45.0);
    }
}

// The decode thread alone on a context whose queue the test fills.
class DecodeThreadRun {
public:
    DecodeThreadRun(int width, int height, bool yuv) : sink_(yuv) {
        ctx_ = FFMpegContextAlloc();
        const AVCodec* dec = avcodec_find_decoder(AV_CODEC_ID_HEVC);
        ctx_->m_pVideoCodecCtx.reset(avcodec_alloc_context3(dec));
        avcodec_open2(ctx_->m_pVideoCodecCtx.get(), dec, nullptr);
        ctx_->m_nVideoCodecId = AV_CODEC_ID_HEVC;
        ctx_->m_nWidth = width;
        ctx_->m_nHeight = height;
        ctx_->m_pOwner = static_cast<IFrameListener*>(&sink_);
        ctx_->m_bDecode = 1;
        ctx_->m_bRunning = 1;
    }
    ~DecodeThreadRun() {
        Stop();
        FFMpegContextFree(ctx_);
    }
    // Stops and joins the thread: every packet it took has been handled.
    void Stop() {
        ctx_->m_bRunning = 0;
        if (thread_) os_thread_join(thread_);
        os_thread_free(thread_);
        thread_ = nullptr;
    }
    void Push(const Bytes& data, bool key) {
        camctl::PacketPtr pkt = camctl::MakePacket();
        av_new_packet(pkt.get(), int(data.size()));
        std::copy(data.begin(), data.end(), pkt->data);
        pkt->flags = key ? AV_PKT_FLAG_KEY : 0;
        PushVideoPacket(ctx_, pkt.get());
    }
    void Start() { thread_ = os_thread_create(nullptr, VideoDecodeThreadBgr, ctx_); }
    bool Drained() const { return GetAVPktListElmCount(ctx_) == 0; }
    FFMpegContext* ctx() const { return ctx_; }
    AllPictures& sink() { return sink_; }

private:
    AllPictures sink_;
    FFMpegContext* ctx_;
    os_thread* thread_ = nullptr;
};

TEST(EngineH265, FirstKeyFrameShorterThanSevenBytesKeepsFfmpeg) {
    std::vector<bool> keys;
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2), &keys);
    const uint64_t before = camctl::h265::Ihw265dPicturesDecoded();
    DecodeThreadRun run(320, 240, false);
    run.Push({0, 0, 0, 1, 0x4E, 0x01}, true);  // the marker's start, cut before the payload type
    run.Push(WithMarker(units[0]), true);
    for (size_t i = 1; i < units.size(); ++i) run.Push(units[i], keys[i]);
    testing::internal::CaptureStderr();
    run.Start();
    EXPECT_TRUE(WaitFor([&] { return run.sink().Count() >= units.size(); })) << run.sink().Count();
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(camctl::h265::Ihw265dPicturesDecoded(), before);
    EXPECT_TRUE(run.ctx()->m_hH265Decoder);  // made on that first key frame all the same
}

TEST(EngineH265, CorruptedSlicesStopTheThreadOnTheFourthDamagedPicture) {
    std::vector<bool> keys;
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2), &keys);
    DecodeThreadRun run(320, 240, false);
    run.Push(WithMarker(units[0]), true);
    std::mt19937 rng(5);
    for (size_t i = 1; i < units.size(); ++i) {
        Bytes u = units[i];
        if (i >= 5 && !keys[i])
            for (size_t k = u.size() / 2; k < u.size(); k += 3) u[k] = uint8_t(rng());
        run.Push(u, keys[i]);
    }
    testing::internal::CaptureStderr();
    run.Start();
    const bool stopped = WaitFor([&] { return run.ctx()->m_bRunning == 0; });
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(stopped);
    EXPECT_NE(log.find("===IH265D_ERR_HANDLE====nBadFrameCount:3====\n"), std::string::npos);
    EXPECT_EQ(run.sink().Count(), 5u);  // the clean pictures before the damage
    EXPECT_FALSE(run.Drained());        // the thread did not go on
}

TEST(EngineH265, LargerPictureThanCreatedStopsTheThread) {
    const std::vector<Bytes> small = ReadAccessUnits(HevcFixture(320, 240, 2));
    const std::vector<Bytes> large = ReadAccessUnits(HevcFixture(640, 480, 1));
    DecodeThreadRun run(320, 240, false);
    run.Push(WithMarker(small[0]), true);
    for (size_t i = 1; i < 10; ++i) run.Push(small[i], false);
    for (const Bytes& u : large) run.Push(u, &u == &large[0]);
    testing::internal::CaptureStderr();
    run.Start();
    const bool stopped = WaitFor([&] { return run.ctx()->m_bRunning == 0; });
    const std::string log = testing::internal::GetCapturedStderr();
    ASSERT_TRUE(stopped);
    EXPECT_NE(log.find("maybe resolution change to big one====="), std::string::npos);
    EXPECT_EQ(run.sink().Count(), 10u);
}

TEST(EngineH265, KeyFrameWithoutPictureCountsAsDamaged) {
    // The first key frame arrives as two packets: its parameter sets and SEI
    // (flagged key: nothing to hand out yet), then its slices.
    std::vector<bool> keys;
    const std::vector<Bytes> units = ReadAccessUnits(HevcFixture(320, 240, 2), &keys);
    const Bytes key = WithMarker(units[0]);
    const size_t first_slice = FirstSlice(key);
    ASSERT_GT(first_slice, 0u);
    ASSERT_TRUE(keys[25]);
    DecodeThreadRun run(320, 240, false);
    run.Push(Bytes(key.begin(), key.begin() + first_slice), true);
    run.Push(Bytes(key.begin() + first_slice, key.end()), false);
    for (size_t i = 1; i < units.size(); ++i) run.Push(units[i], keys[i]);
    testing::internal::CaptureStderr();
    run.Start();
    EXPECT_TRUE(WaitFor([&] { return run.Drained() && run.sink().Count() >= units.size() - 1; }));
    run.Stop();
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("=======nIsBadFrame======="), std::string::npos);
    // Every picture but the next key frame's, which the damaged one withholds.
    EXPECT_EQ(run.sink().Count(), units.size() - 1);
}

}  // namespace
