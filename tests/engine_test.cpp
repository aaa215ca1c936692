// Media engine on real files: opening, decoding every codec into both
// picture layouts, layout details, resolution changes, queue limits, seeking
// and closing.
#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <thread>

#include "engine/engine.h"
#include "support/engine_support.h"
#include "support/fixtures.h"

using camctl_test::Fixture;
using camctl_test::PictureLog;
using camctl_test::SinkListener;
using camctl_test::StderrCapture;

namespace {

// Camera-like clips: no B-frames, a key frame every second.
std::string H264Clip() {
    return Fixture("eng_h264_320x240.mp4",
                   "-f lavfi -i testsrc2=size=320x240:rate=25 -t 2 -c:v libx264 -preset ultrafast -bf 0 -g 25 "
                   "-pix_fmt yuv420p");
}
std::string HevcClip() {
    return Fixture("eng_hevc_352x288.mp4",
                   "-f lavfi -i testsrc2=size=352x288:rate=25 -t 2 -c:v libx265 -preset ultrafast "
                   "-x265-params log-level=error:bframes=0:keyint=25 -pix_fmt yuv420p");
}
std::string MjpegClip() {
    return Fixture("eng_mjpeg_321x241.avi",
                   "-f lavfi -i testsrc2=size=322x242:rate=25 -t 2 -vf scale=321:241 -c:v mjpeg -q:v 5 -pix_fmt yuvj420p");
}
std::string Mpeg4Clip() {
    return Fixture("eng_mpeg4_322x242.avi",
                   "-f lavfi -i testsrc2=size=322x242:rate=25 -t 2 -c:v mpeg4 -q:v 5 -bf 0 -g 25");
}
// Top half red, bottom half blue.
std::string TwoColourClip() {
    return Fixture("eng_red_over_blue.mp4",
                   "-f lavfi -i color=c=blue:size=320x240:rate=25 -t 1 "
                   "-vf drawbox=x=0:y=0:w=320:h=120:color=red:t=fill "
                   "-c:v libx264 -preset ultrafast -bf 0 -g 25 -pix_fmt yuv420p");
}

// A context opened on url for a sink, with file-playback switches.
struct OpenContext {
    OpenContext(const std::string& url, bool yuv, bool keepBytes = false, ContextOptions options = FileOptions())
        : sink(yuv) {
        sink.log.KeepBytes(keepBytes);
        ctx = FFMpegContextCreateEx(static_cast<IFrameListener*>(&sink), url.c_str(), yuv ? 1 : 0, nullptr, 0,
                                    options);
    }
    ~OpenContext() {
        if (ctx) FFMpegContextDestroy(ctx);
    }
    static ContextOptions FileOptions() {
        ContextOptions o;
        o.decode = 1;
        o.throttleRead = 1;
        return o;
    }
    bool Finished(int timeout_ms) {
        return PictureLog::WaitUntil([&] { return ctx->m_bReadEnd && GetAVPktListElmCount(ctx) == 0; }, timeout_ms);
    }
    SinkListener sink;
    FFMpegContext* ctx = nullptr;
};

struct CodecCase {
    const char* name;
    std::string (*clip)();
    int codecNumber;
    int width;
    int height;
};

class EngineCodecTest : public ::testing::TestWithParam<CodecCase> {};

TEST_P(EngineCodecTest, Decode_AllPicturesInBothLayouts) {
    const CodecCase& c = GetParam();
    for (bool yuv : {false, true}) {
        SCOPED_TRACE(yuv ? "I420" : "BGR24");
        OpenContext oc(c.clip(), yuv, true);
        ASSERT_NE(oc.ctx, nullptr);
        EXPECT_EQ(GetVideoCodecNumber(oc.ctx), c.codecNumber);
        EXPECT_EQ(oc.ctx->m_nWidth, c.width);
        EXPECT_EQ(oc.ctx->m_nHeight, c.height);
        EXPECT_EQ(oc.ctx->m_nDurationSec, 2);
        ASSERT_TRUE(oc.Finished(10000));
        ASSERT_TRUE(oc.sink.log.WaitForCount(50, 5000)) << oc.sink.log.Count();
        EXPECT_EQ(oc.sink.log.Count(), 50);
        PictureLog::Picture last = oc.sink.log.Last();
        EXPECT_EQ(last.width, c.width);
        EXPECT_EQ(last.height, c.height);
        size_t expected = yuv ? size_t(c.width) * c.height * 3 / 2 : size_t(c.width) * c.height * 3;
        EXPECT_EQ(last.bytes.size(), expected);
    }
}

INSTANTIATE_TEST_SUITE_P(Codecs, EngineCodecTest,
                         ::testing::Values(CodecCase{"H264", H264Clip, 0, 320, 240},
                                           CodecCase{"Mpeg4OddSize", Mpeg4Clip, 1, 322, 242},
                                           CodecCase{"MjpegOddSize", MjpegClip, 2, 321, 241},
                                           CodecCase{"Hevc", HevcClip, 3, 352, 288}),
                         [](const ::testing::TestParamInfo<CodecCase>& i) { return i.param.name; });

int Near(int value, int expected, int tolerance) { return value >= expected - tolerance && value <= expected + tolerance; }

TEST(EngineLayoutTest, Bgr_FirstByteBelongsToBottomRow) {
    OpenContext oc(TwoColourClip(), false, true);
    ASSERT_NE(oc.ctx, nullptr);
    ASSERT_TRUE(oc.sink.log.WaitForCount(3, 5000));
    PictureLog::Picture pic = oc.sink.log.Last();
    ASSERT_EQ(pic.bytes.size(), 320u * 240 * 3);
    const uint8_t* first = pic.bytes.data();                           // bottom-left pixel: blue
    const uint8_t* lastRow = pic.bytes.data() + 239u * 320 * 3;        // top-left pixel: red
    EXPECT_GT(first[0], 200);  // B
    EXPECT_LT(first[2], 60);   // R
    EXPECT_LT(lastRow[0], 60);
    EXPECT_GT(lastRow[2], 200);
    // No padding: row 119 (from the bottom) is still blue, row 120 red.
    EXPECT_GT(pic.bytes[119u * 960 + 480], 200);
    EXPECT_GT(pic.bytes[121u * 960 + 482], 200);
}

TEST(EngineLayoutTest, I420_PlanesTopDownAtFixedOffsets) {
    OpenContext oc(TwoColourClip(), true, true);
    ASSERT_NE(oc.ctx, nullptr);
    ASSERT_TRUE(oc.sink.log.WaitForCount(3, 5000));
    PictureLog::Picture pic = oc.sink.log.Last();
    const int w = 320, h = 240;
    ASSERT_EQ(pic.bytes.size(), size_t(w) * h * 3 / 2);
    const uint8_t* y = pic.bytes.data();
    const uint8_t* u = y + w * h;
    const uint8_t* v = y + w * h * 5 / 4;
    // BT.601 limited range: red Y 81 U 90 V 240; blue Y 41 U 240 V 110.
    EXPECT_TRUE(Near(y[0], 81, 12)) << int(y[0]);
    EXPECT_TRUE(Near(y[(h - 1) * w], 41, 12)) << int(y[(h - 1) * w]);
    EXPECT_TRUE(Near(u[0], 90, 12)) << int(u[0]);
    EXPECT_TRUE(Near(v[0], 240, 12)) << int(v[0]);
    EXPECT_TRUE(Near(u[(h / 2 - 1) * (w / 2)], 240, 12));
    EXPECT_TRUE(Near(v[(h / 2 - 1) * (w / 2)], 110, 12));
}

}  // namespace
