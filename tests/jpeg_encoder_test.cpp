// Catches: pictures that decode wrong or with warnings, segments missing or out of order, unstuffed 0xFF bytes, a wrong quality rule, writes past the output capacity, bad arguments accepted, vector and plain DCT paths that disagree, wrong rounding.
#include "jpeg_encoder.h"

#include <gtest/gtest.h>
#include <jpeglib.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "support/fixtures.h"
#include "support/pictures.h"

namespace {

using Bytes = std::vector<unsigned char>;

// Encodes an I420 picture; an empty result when the encoder refuses.
Bytes Encode(const Bytes& yuv, int w, int h, int quality, size_t capacity) {
    const size_t plane = static_cast<size_t>(w) * h;
    Bytes out(capacity);
    uint32_t length = 12345;
    const int r = JpegEncodeYuv(yuv.data(), yuv.data() + plane, yuv.data() + plane * 5 / 4, w, h, quality, w,
                                out.data(), &length, capacity);
    EXPECT_EQ(r == 0, length != 0);
    out.resize(r == 0 ? length : 0);
    return out;
}

// Checks the segment order, the stuffing of 0xFF in the coded data and the
// closing EOI; returns the two quantisers (64 + 64 bytes).
Bytes CheckLayout(const Bytes& f) {
    Bytes markers, q;
    size_t pos = 2;
    EXPECT_EQ(Bytes(f.begin(), f.begin() + 2), (Bytes{0xFF, 0xD8}));
    while (pos + 4 <= f.size() && f[pos] == 0xFF && (markers.empty() || markers.back() != 0xDA)) {
        const size_t len = f[pos + 2] << 8 | f[pos + 3];
        markers.push_back(f[pos + 1]);
        if (markers.back() == 0xDB) q.insert(q.end(), f.begin() + long(pos + 5), f.begin() + long(pos + 2 + len));
        pos += 2 + len;
    }
    EXPECT_EQ(markers, (Bytes{0xE0, 0xDB, 0xDB, 0xC0, 0xC4, 0xC4, 0xC4, 0xC4, 0xDA}));
    EXPECT_EQ(Bytes(f.end() - 2, f.end()), (Bytes{0xFF, 0xD9}));
    for (size_t i = pos; i + 2 < f.size(); ++i) EXPECT_TRUE(f[i] != 0xFF || f[i + 1] == 0) << "unstuffed 0xFF at " << i;
    return q;
}

Bytes Noise(size_t n) {
    std::mt19937 rng(7);
    Bytes b(n);
    for (auto& v : b) v = static_cast<unsigned char>(rng());
    return b;
}

TEST(JpegEncoder, PicturesDecodeBackWithTheRightLayout) {
    struct { const char* source; int w, h, quality; double min_psnr; } cases[] = {  // lavfi source, "noise" or "grey"
        {"testsrc", 352, 288, 100, 45}, {"testsrc", 250, 130, 100, 45}, {"testsrc", 66, 34, 100, 45},
        {"testsrc", 18, 10, 100, 45},   {"testsrc2", 320, 240, 100, 28}, {"testsrc2", 320, 240, 75, 28},
        {"testsrc2", 320, 240, 20, 28}, {"noise", 64, 48, 100, 45},     {"grey", 8, 16, 100, 1000},
    };
    size_t previous_size = 0;
    double previous_psnr = 0;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.source) + " " + std::to_string(c.w) + " q" + std::to_string(c.quality));
        const size_t plane = static_cast<size_t>(c.w) * c.h;
        const std::string src = c.source;
        const Bytes yuv = src == "noise"  ? Noise(plane * 3 / 2)
                          : src == "grey" ? Bytes(plane * 3 / 2, 128)
                                          : camctl_test::RawTestFrame(src, c.w, c.h, "yuv420p", 10);
        const Bytes f = Encode(yuv, c.w, c.h, c.quality, 64 * 1024 + plane * 8);
        ASSERT_FALSE(f.empty());
        CheckLayout(f);
        const camctl_test::DecodedJpeg d = camctl_test::DecodeJpeg(f, JCS_YCbCr);
        ASSERT_TRUE(d.ok);
        EXPECT_EQ(d.warnings, 0);
        ASSERT_EQ(std::make_tuple(d.width, d.height, d.components), std::make_tuple(c.w, c.h, 3));
        // One Y, U and V block per 8x8 position.
        EXPECT_EQ(std::make_pair(d.mcusPerRow, d.mcuRows), std::make_pair((c.w + 7) / 8, (c.h + 7) / 8));
        const Bytes expected = camctl_test::I420ToYuv444(yuv.data(), c.w, c.h);
        const double psnr = camctl_test::Psnr(expected.data(), d.pixels.data(), expected.size());
        EXPECT_GE(psnr, c.min_psnr);
        EXPECT_TRUE(src != "noise" || f.size() > plane * 3);  // needs more than the short form's room
        if (c.w == 352) {  // djpeg (which prints any warning) and ffprobe read the file
            camctl_test::TempDir dir;
            const std::string path = dir / "frame.jpg", ppm = dir / "frame.ppm";
            std::ofstream(path, std::ios::binary).write(reinterpret_cast<const char*>(f.data()), long(f.size()));
            EXPECT_EQ(camctl_test::Ffprobe("-show_entries stream=codec_name,width,height,pix_fmt -of csv=p=0", path),
                      "mjpeg,352,288,yuvj444p\n");
            std::string out;
            EXPECT_EQ(camctl_test::RunCommand("djpeg -ppm -outfile '" + ppm + "' '" + path + "' 2>&1", &out), 0);
            EXPECT_EQ(out, "");
            EXPECT_EQ(camctl_test::FileSize(ppm), 15 + plane * 3);
        }
        if (src == "testsrc2" && c.quality < 100) {  // lower quality: smaller file, lower fidelity
            EXPECT_LT(f.size(), previous_size);
            EXPECT_LT(psnr, previous_psnr);
        }
        previous_size = f.size();
        previous_psnr = psnr;
    }
}

TEST(JpegEncoder, QualityShapesTheQuantisers) {
    const Bytes yuv = camctl_test::RawTestFrame("testsrc", 64, 64, "yuv420p");
    auto tables = [&](int quality) { return CheckLayout(Encode(yuv, 64, 64, quality, 256 * 1024)); };
    EXPECT_EQ(tables(100), Bytes(128, 1));
    EXPECT_EQ(tables(150), tables(100));
    for (int q : {0, -7, 1}) EXPECT_EQ(tables(q), Bytes(128, 255)) << q;
    // Quality 50 keeps the example tables (zig-zag order); others scale them.
    const Bytes q50 = tables(50), q75 = tables(75), q10 = tables(10);
    EXPECT_EQ((Bytes{q50[0], q50[1], q50[2], q50[63], q50[64], q50[65], q75[0], q10[0], q10[127]}),
              (Bytes{16, 11, 12, 99, 17, 18, 8, 80, 255}));
    for (size_t i = 0; i < 128; ++i) EXPECT_TRUE(q75[i] <= q50[i] && q50[i] <= q10[i]) << i;
}

TEST(JpegEncoder, RefusesWithoutWritingPastTheCapacity) {
    const int w = 64, h = 48;
    const size_t plane = static_cast<size_t>(w) * h;
    const Bytes yuv = Noise(plane * 3 / 2);  // needs more than 3 bytes per pixel at quality 100
    const unsigned char *y = yuv.data(), *u = y + plane, *v = u + plane / 4;
    for (size_t capacity : {plane * 3, size_t{600}, size_t{624}, size_t{2000}, size_t{0}}) {
        SCOPED_TRACE(capacity);
        const size_t room = capacity ? capacity : plane * 3;  // 0: the short form, width * height * 3
        Bytes out(room + 256, 0xAB);
        uint32_t length = 99;
        const int r = capacity ? JpegEncodeYuv(y, u, v, w, h, 100, w, out.data(), &length, capacity)
                               : JpegEncodeYuv(y, u, v, w, h, 100, w, out.data(), &length);
        EXPECT_EQ(r, -1);
        EXPECT_EQ(length, 0u);
        for (size_t i = room; i < out.size(); ++i) ASSERT_EQ(out[i], 0xAB) << "written at " << i;
    }
    // With exactly the room it needs (the last bytes take the bounded path) the same file comes out.
    const Bytes roomy = Encode(yuv, w, h, 100, plane * 8);
    EXPECT_EQ(Encode(yuv, w, h, 100, roomy.size()), roomy);
    EXPECT_TRUE(Encode(yuv, w, h, 100, roomy.size() - 1).empty());
    Bytes out(plane * 3);
    uint32_t length = 1;
    EXPECT_EQ(JpegEncodeYuv(nullptr, u, v, w, h, 100, w, out.data(), &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, w, h, 100, w, nullptr, &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, 0, h, 100, w, out.data(), &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, w, -8, 100, w, out.data(), &length), -1);
    EXPECT_EQ(JpegEncodeYuv(y, u, v, w, h, 100, w / 2, out.data(), &length), -1);  // stride below width
    EXPECT_EQ(JpegEncodeYuv(y, u, v, w, h, 100, w, out.data(), nullptr), -1);
    EXPECT_EQ(length, 0u);
}

TEST(JpegEncoder, DctPathsAgreeAndQuantisersRound) {
    std::mt19937 rng(3);
    for (int trial = 0; trial < 200; ++trial) {
        alignas(16) float in[64];
        for (float& s : in) s = static_cast<float>(rng() & 0xFF) - 128.0f;
        float plain[64], vec[64];
        jpeg_internal::ForwardDctPlain(in, plain);
        jpeg_internal::ForwardDctVector(in, vec);
        ASSERT_EQ(std::memcmp(plain, vec, sizeof plain), 0) << "trial " << trial;
    }
    // Halves round up, other values toward the nearest, negatives toward zero below.
    const std::pair<float, int> rounding[] = {{2.5f, 3}, {2.49f, 2}, {0.6f, 1}, {-0.6f, 0}, {-1.7f, -1}, {-2.5f, -2}, {-1023.2f, -1022}};
    for (auto [value, rounded] : rounding) EXPECT_EQ(jpeg_internal::RoundQuantized(value), rounded) << value;
    // The block quantiser writes zig-zag order, clamped to the baseline range.
    alignas(16) float coef[64], divisor[64];
    for (int i = 0; i < 64; ++i) coef[i] = i < 2 ? (i ? 5000.0f : -5000.0f) : float(i), divisor[i] = 1.0f;
    int16_t out[64];
    jpeg_internal::QuantizeBlock(coef, divisor, out);
    // Natural index 1, then 8 (the walk goes down first), the last one last.
    EXPECT_EQ((std::vector<int>{out[0], out[1], out[2], out[63]}), (std::vector<int>{-1024, 1023, 8, 63}));
}

}  // namespace
