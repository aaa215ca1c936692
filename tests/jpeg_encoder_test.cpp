// The library's baseline JPEG encoder, checked by decoding its files with
// libjpeg and the djpeg/ffprobe tools.
#include "jpeg_encoder.h"

#include <gtest/gtest.h>
#include <jpeglib.h>

#include <cmath>
#include <algorithm>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "support/fixtures.h"
#include "support/pictures.h"

namespace {

using camctl_test::DecodeJpeg;
using camctl_test::DecodedJpeg;
using camctl_test::I420ToYuv444;
using camctl_test::Psnr;
using camctl_test::RawTestFrame;

struct Encoded {
    int result = -1;
    std::vector<unsigned char> file;
};

Encoded EncodeI420(const std::vector<unsigned char>& yuv, int width, int height, int quality,
                   size_t capacity = 0) {
    const size_t plane = static_cast<size_t>(width) * height;
    if (capacity == 0) capacity = plane * 3;
    std::vector<unsigned char> out(capacity);
    uint32_t length = 12345;
    Encoded e;
    e.result = JpegEncodeYuv(yuv.data(), yuv.data() + plane, yuv.data() + plane * 5 / 4, width, height,
                             quality, width, out.data(), &length, capacity);
    if (e.result == 0) {
        out.resize(length);
        e.file = std::move(out);
    } else {
        EXPECT_EQ(length, 0u);
    }
    return e;
}

// Offset of the first marker segment `marker` in the file, or npos.
size_t FindMarker(const std::vector<unsigned char>& file, unsigned char marker, size_t from = 2) {
    size_t pos = from;
    while (pos + 4 <= file.size() && file[pos] == 0xFF) {
        if (file[pos + 1] == marker) return pos;
        pos += 2 + (file[pos + 2] << 8 | file[pos + 3]);
    }
    return std::string::npos;
}

std::vector<unsigned char> Segment(const std::vector<unsigned char>& file, size_t at) {
    const size_t length = file[at + 2] << 8 | file[at + 3];
    return std::vector<unsigned char>(file.begin() + at, file.begin() + at + 2 + length);
}

TEST(JpegEncoder_Quality, TestsrcAtQuality100DecodesCloseToTheInput) {
    const int w = 352, h = 288;
    const auto yuv = RawTestFrame("testsrc", w, h, "yuv420p");
    const Encoded e = EncodeI420(yuv, w, h, 100);
    ASSERT_EQ(e.result, 0);

    const DecodedJpeg d = DecodeJpeg(e.file, JCS_YCbCr);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.warnings, 0);
    ASSERT_EQ(d.width, w);
    ASSERT_EQ(d.height, h);
    ASSERT_EQ(d.components, 3);
    // One Y, one U and one V block per 8x8 position.
    EXPECT_EQ(d.mcusPerRow, 44);
    EXPECT_EQ(d.mcuRows, 36);

    const auto expected = I420ToYuv444(yuv.data(), w, h);
    EXPECT_GE(Psnr(expected.data(), d.pixels.data(), expected.size()), 45.0);
}

TEST(JpegEncoder_Quality, LowerQualityGivesSmallerFilesThatStillDecode) {
    const int w = 320, h = 240;
    const auto yuv = RawTestFrame("testsrc2", w, h, "yuv420p", 10);
    const auto expected = I420ToYuv444(yuv.data(), w, h);
    size_t previousSize = 0;
    double previousPsnr = 1e9;
    for (int quality : {100, 75, 20}) {
        SCOPED_TRACE(quality);
        const Encoded e = EncodeI420(yuv, w, h, quality);
        ASSERT_EQ(e.result, 0);
        const DecodedJpeg d = DecodeJpeg(e.file, JCS_YCbCr);
        ASSERT_TRUE(d.ok);
        EXPECT_EQ(d.warnings, 0);
        const double psnr = Psnr(expected.data(), d.pixels.data(), expected.size());
        EXPECT_GT(psnr, 28.0);
        if (previousSize) {
            EXPECT_LT(e.file.size(), previousSize);
            EXPECT_LT(psnr, previousPsnr);
        }
        previousSize = e.file.size();
        previousPsnr = psnr;
    }
}

TEST(JpegEncoder_Quality, OddSizesDecodeWholeWithEdgesRepeated) {
    for (auto [w, h] : {std::pair{250, 130}, std::pair{66, 34}, std::pair{18, 10}}) {
        SCOPED_TRACE(std::to_string(w) + "x" + std::to_string(h));
        const auto yuv = RawTestFrame("testsrc", w, h, "yuv420p");
        const Encoded e = EncodeI420(yuv, w, h, 100, 64 * 1024 + static_cast<size_t>(w) * h * 3);
        ASSERT_EQ(e.result, 0);
        const DecodedJpeg d = DecodeJpeg(e.file, JCS_YCbCr);
        ASSERT_TRUE(d.ok);
        EXPECT_EQ(d.warnings, 0);
        ASSERT_EQ(d.width, w);
        ASSERT_EQ(d.height, h);
        EXPECT_EQ(d.mcusPerRow, (w + 7) / 8);
        EXPECT_EQ(d.mcuRows, (h + 7) / 8);
        const auto expected = I420ToYuv444(yuv.data(), w, h);
        EXPECT_GE(Psnr(expected.data(), d.pixels.data(), expected.size()), 45.0);
    }
}

TEST(JpegEncoder_Tools, DjpegAndFfprobeReadTheFile) {
    const int w = 640, h = 480;
    const auto yuv = RawTestFrame("testsrc", w, h, "yuv420p", 5);
    const Encoded e = EncodeI420(yuv, w, h, 100);
    ASSERT_EQ(e.result, 0);
    camctl_test::TempDir dir;
    const std::string path = dir / "frame.jpg";
    FILE* f = fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    fwrite(e.file.data(), 1, e.file.size(), f);
    fclose(f);

    std::string probe = camctl_test::Ffprobe(
        "-select_streams v:0 -show_entries stream=codec_name,width,height,pix_fmt -of csv=p=0", path);
    EXPECT_EQ(probe, "mjpeg,640,480,yuvj444p\n");

    // djpeg writes any warning about the data to stderr.
    std::string out;
    EXPECT_EQ(camctl_test::RunCommand("djpeg -ppm -outfile '" + dir / "frame.ppm" + "' '" + path +
                                          "' 2>&1",
                                      &out),
              0);
    EXPECT_EQ(out, "");
    EXPECT_EQ(camctl_test::FileSize(dir / "frame.ppm"), 15 + w * h * 3);
}

TEST(JpegEncoder_Layout, SegmentsAreWrittenInOrderWithTheirExactBytes) {
    const int w = 352, h = 288;
    const auto yuv = RawTestFrame("testsrc", w, h, "yuv420p");
    const Encoded e = EncodeI420(yuv, w, h, 100);
    ASSERT_EQ(e.result, 0);
    const auto& f = e.file;

    const std::vector<unsigned char> soiApp0 = {0xFF, 0xD8, 0xFF, 0xE0, 0x00, 0x10, 'J', 'F', 'I', 'F',
                                                0x00, 0x01, 0x01, 0x00, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00};
    ASSERT_GE(f.size(), 623u);
    EXPECT_EQ(std::vector<unsigned char>(f.begin(), f.begin() + 20), soiApp0);

    // Two DQT segments, luminance (id 0) then chrominance (id 1).
    for (int i = 0; i < 2; ++i) {
        const size_t at = 20 + i * 69;
        EXPECT_EQ(f[at], 0xFF);
        EXPECT_EQ(f[at + 1], 0xDB);
        EXPECT_EQ(f[at + 2] << 8 | f[at + 3], 67);
        EXPECT_EQ(f[at + 4], i);
    }

    const std::vector<unsigned char> sof = {0xFF, 0xC0, 0x00, 0x11, 0x08, 0x01, 0x20, 0x01, 0x60, 0x03,
                                            0x01, 0x11, 0x00, 0x02, 0x11, 0x01, 0x03, 0x11, 0x01};
    EXPECT_EQ(std::vector<unsigned char>(f.begin() + 158, f.begin() + 177), sof);

    // DHT: luminance DC and AC, then chrominance DC and AC.
    size_t at = 177;
    const int classIds[4] = {0x00, 0x10, 0x01, 0x11};
    const int lengths[4] = {31, 181, 31, 181};
    for (int i = 0; i < 4; ++i) {
        SCOPED_TRACE(i);
        ASSERT_EQ(f[at], 0xFF);
        ASSERT_EQ(f[at + 1], 0xC4);
        EXPECT_EQ(f[at + 2] << 8 | f[at + 3], lengths[i]);
        EXPECT_EQ(f[at + 4], classIds[i]);
        int symbols = 0;
        for (int k = 0; k < 16; ++k) symbols += f[at + 5 + k];
        EXPECT_EQ(symbols, i % 2 ? 162 : 12);
        at += 2 + lengths[i];
    }

    const std::vector<unsigned char> sos = {0xFF, 0xDA, 0x00, 0x0C, 0x03, 0x01, 0x00,
                                            0x02, 0x11, 0x03, 0x11, 0x00, 0x3F, 0x00};
    EXPECT_EQ(std::vector<unsigned char>(f.begin() + at, f.begin() + at + 14), sos);
    at += 14;
    EXPECT_EQ(at, 623u);

    // Entropy-coded data: every 0xFF is stuffed; the file ends with EOI.
    ASSERT_EQ(f[f.size() - 2], 0xFF);
    ASSERT_EQ(f[f.size() - 1], 0xD9);
    for (size_t i = at; i + 2 < f.size(); ++i) {
        if (f[i] == 0xFF) {
            ASSERT_EQ(f[i + 1], 0x00) << "unstuffed 0xFF at " << i;
        }
    }
}

TEST(JpegEncoder_Layout, QualityRuleShapesTheQuantisers) {
    const int w = 64, h = 64;
    const auto yuv = RawTestFrame("testsrc", w, h, "yuv420p");
    auto tables = [&](int quality) {
        const Encoded e = EncodeI420(yuv, w, h, quality, 256 * 1024);
        EXPECT_EQ(e.result, 0);
        const size_t luma = FindMarker(e.file, 0xDB);
        const size_t chroma = FindMarker(e.file, 0xDB, luma + 69);
        EXPECT_NE(luma, std::string::npos);
        EXPECT_NE(chroma, std::string::npos);
        auto seg = Segment(e.file, luma);
        auto seg2 = Segment(e.file, chroma);
        std::vector<unsigned char> q(seg.begin() + 5, seg.end());
        q.insert(q.end(), seg2.begin() + 5, seg2.end());
        return q;
    };
    EXPECT_EQ(tables(100), std::vector<unsigned char>(128, 1));
    EXPECT_EQ(tables(150), tables(100));
    EXPECT_EQ(tables(0), std::vector<unsigned char>(128, 255));
    EXPECT_EQ(tables(-7), tables(0));
    EXPECT_EQ(tables(1), tables(0));

    // Quality 50 keeps the example tables; zig-zag order puts the luminance
    // entries 16, 11, 12, 14, 12, 10 first and the chrominance 17, 18, 18.
    const auto q50 = tables(50);
    EXPECT_EQ(std::vector<int>(q50.begin(), q50.begin() + 6), (std::vector<int>{16, 11, 12, 14, 12, 10}));
    EXPECT_EQ(q50[63], 99);
    EXPECT_EQ(std::vector<int>(q50.begin() + 64, q50.begin() + 67), (std::vector<int>{17, 18, 18}));
    // Quality 75: scale 50, (16 * 50 + 50) / 100 = 8.
    EXPECT_EQ(tables(75)[0], 8);
    // Quality 10: scale 500, (16 * 500 + 50) / 100 = 80; 99 * 5 = 495 clamps to 255.
    const auto q10 = tables(10);
    EXPECT_EQ(q10[0], 80);
    EXPECT_EQ(q10[127], 255);
}

TEST(JpegEncoder_Layout, FlatPictureCodesKnownBitsPaddedWithOnes) {
    // Mid-grey: every coefficient is 0, so each block sends its DC code for
    // category 0 and EOB: luminance 00 + 1010, chrominance 00 + 00 twice,
    // 14 bits per block position.
    const int w = 8, h = 16;
    std::vector<unsigned char> yuv(w * h * 3 / 2, 128);
    const Encoded e = EncodeI420(yuv, w, h, 100, 4096);
    ASSERT_EQ(e.result, 0);
    ASSERT_EQ(e.file.size(), 623u + 4 + 2);
    // 00101000000000 twice (28 bits), then four 1-bits of padding.
    const std::vector<unsigned char> data(e.file.begin() + 623, e.file.end());
    EXPECT_EQ(data, (std::vector<unsigned char>{0x28, 0x00, 0xA0, 0x0F, 0xFF, 0xD9}));
    const DecodedJpeg d = DecodeJpeg(e.file, JCS_YCbCr);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.warnings, 0);
    EXPECT_EQ(d.pixels, std::vector<unsigned char>(w * h * 3, 128));
}

TEST(JpegEncoder_Bounds, NeverWritesPastTheCapacity) {
    // Noise at quality 100 needs more than 3 bytes per pixel.
    const int w = 64, h = 48;
    std::mt19937 rng(7);
    std::vector<unsigned char> yuv(w * h * 3 / 2);
    for (auto& b : yuv) b = static_cast<unsigned char>(rng());
    const size_t plane = static_cast<size_t>(w) * h;

    for (size_t capacity : {plane * 3, size_t{600}, size_t{624}, size_t{2000}}) {
        SCOPED_TRACE(capacity);
        std::vector<unsigned char> out(capacity + 256, 0xAB);
        uint32_t length = 99;
        EXPECT_EQ(JpegEncodeYuv(yuv.data(), yuv.data() + plane, yuv.data() + plane * 5 / 4, w, h, 100, w,
                                out.data(), &length, capacity),
                  -1);
        EXPECT_EQ(length, 0u);
        for (size_t i = capacity; i < out.size(); ++i) ASSERT_EQ(out[i], 0xAB) << "written at " << i;
    }
    // The short form assumes width * height * 3 bytes.
    std::vector<unsigned char> out(plane * 3 + 256, 0xAB);
    uint32_t length = 99;
    EXPECT_EQ(JpegEncodeYuv(yuv.data(), yuv.data() + plane, yuv.data() + plane * 5 / 4, w, h, 100, w,
                            out.data(), &length),
              -1);
    for (size_t i = plane * 3; i < out.size(); ++i) ASSERT_EQ(out[i], 0xAB) << "written at " << i;

    // With room enough the same noise codes, with plenty of stuffed 0xFF bytes.
    const Encoded e = EncodeI420(yuv, w, h, 100, plane * 8);
    ASSERT_EQ(e.result, 0);
    EXPECT_GT(e.file.size(), plane * 3);
    const DecodedJpeg d = DecodeJpeg(e.file, JCS_YCbCr);
    ASSERT_TRUE(d.ok);
    EXPECT_EQ(d.warnings, 0);
    const auto expected = I420ToYuv444(yuv.data(), w, h);
    EXPECT_GE(Psnr(expected.data(), d.pixels.data(), expected.size()), 45.0);
}

TEST(JpegEncoder_Bounds, RejectsUnusableArguments) {
    std::vector<unsigned char> yuv(64 * 64 * 3 / 2, 100);
    std::vector<unsigned char> out(64 * 64 * 3);
    const unsigned char* y = yuv.data();
    const unsigned char* u = y + 64 * 64;
    const unsigned char* v = u + 64 * 16;
    uint32_t length = 1;
    EXPECT_EQ(JpegEncodeYuv(nullptr, u, v, 64, 64, 100, 64, out.data(), &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, 64, 64, 100, 64, nullptr, &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, 0, 64, 100, 64, out.data(), &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, 64, -8, 100, 64, out.data(), &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, 64, 64, 100, 32, out.data(), &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, 64, 64, 100, 64, out.data(), nullptr), -1);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, 64, 64, 100, 64, out.data(), &length), 0);
    EXPECT_GT(length, 623u);
}

TEST(JpegEncoder_Dct, VectorAndPlainPathsAgreeBitForBit) {
    std::mt19937 rng(3);
    const auto frame = RawTestFrame("testsrc2", 64, 64, "yuv420p");
    for (int trial = 0; trial < 200; ++trial) {
        alignas(16) float in[64];
        for (int i = 0; i < 64; ++i) {
            const int sample = trial < 64 ? frame[(trial / 8 * 8 + i / 8) * 64 + (trial % 8) * 8 + i % 8]
                                          : static_cast<int>(rng() & 0xFF);
            in[i] = static_cast<float>(sample) - 128.0f;
        }
        float plain[64], vec[64];
        jpeg_internal::ForwardDctPlain(in, plain);
        jpeg_internal::ForwardDctVector(in, vec);
        ASSERT_EQ(std::memcmp(plain, vec, sizeof plain), 0) << "trial " << trial;
    }
}

// Natural index of each zig-zag position, by walking the anti-diagonals.
std::vector<int> ZigZagOrder() {
    std::vector<int> order;
    for (int s = 0; s < 15; ++s) {
        const int lo = std::max(0, s - 7), hi = std::min(s, 7);
        for (int i = 0; i <= hi - lo; ++i) {
            const int row = s % 2 ? lo + i : hi - i;
            order.push_back(row * 8 + (s - row));
        }
    }
    return order;
}

TEST(JpegEncoder_Dct, BlockQuantisationMatchesTheScalarRounding) {
    const std::vector<int> zigzag = ZigZagOrder();
    ASSERT_EQ(zigzag.size(), 64u);
    std::mt19937 rng(11);
    std::uniform_real_distribution<float> value(-1100.0f, 1100.0f);
    std::uniform_real_distribution<float> scale(0.01f, 1.5f);
    for (int trial = 0; trial < 3000; ++trial) {
        alignas(16) float coef[64];
        alignas(16) float divisor[64];
        for (int i = 0; i < 64; ++i) {
            divisor[i] = trial % 3 ? scale(rng) : 1.0f;
            const float v = value(rng);
            switch ((trial + i) % 4) {
                case 0: coef[i] = v; break;
                case 1: coef[i] = std::trunc(v) + 0.5f; break;  // exact halves
                case 2: coef[i] = std::nextafter(std::trunc(v) + 0.5f, 0.0f); break;
                default: coef[i] = std::trunc(v / 1000.0f) - 0.5f; break;  // -1.5, -0.5, 0.5
            }
        }
        int16_t out[64];
        jpeg_internal::QuantizeBlock(coef, divisor, out);
        for (int k = 0; k < 64; ++k) {
            const int n = zigzag[k];
            const int rounded = jpeg_internal::RoundQuantized(coef[n] * divisor[n]);
            const int expected = k == 0 ? std::clamp(rounded, -1024, 1023) : std::clamp(rounded, -1023, 1023);
            ASSERT_EQ(out[k], expected) << "trial " << trial << " coefficient " << n << " value " << coef[n] * divisor[n];
        }
    }
}

TEST(JpegEncoder_Dct, QuantisedValuesRoundHalfUpAndTowardZeroBelow) {
    EXPECT_EQ(jpeg_internal::RoundQuantized(2.5f), 3);
    EXPECT_EQ(jpeg_internal::RoundQuantized(2.49f), 2);
    EXPECT_EQ(jpeg_internal::RoundQuantized(0.6f), 1);
    EXPECT_EQ(jpeg_internal::RoundQuantized(-0.6f), 0);
    EXPECT_EQ(jpeg_internal::RoundQuantized(-1.7f), -1);
    EXPECT_EQ(jpeg_internal::RoundQuantized(-2.5f), -2);
    EXPECT_EQ(jpeg_internal::RoundQuantized(-1023.2f), -1022);
}

}  // namespace
