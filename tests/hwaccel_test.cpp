// Catches: a refused or unidentified GPU let through, the wrong node opened or a walk that stops early, a device leaked on re-prepare, missing fallback log texts, the wrong pixel format chosen, NV12 planes swapped or misread.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <fstream>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "engine/hwaccel.h"
#include "support/fixtures.h"

extern "C" {
#include <libavutil/hwcontext.h>
}

namespace {

// A node of the fake tree; an empty vendor: no sysfs identity.
struct Node { const char *name, *vendor, *device; };

// A fake /dev/dri and /sys/class/drm tree holding the given nodes.
struct FakeGpuTree {
    explicit FakeGpuTree(const std::vector<Node>& nodes) {
        for (const char* d : {"dev", "sys", "sys/class", "sys/class/drm"}) mkdir((tmp / d).c_str(), 0755);
        paths = {tmp / "dev", tmp / "sys"};
        for (const Node& n : nodes) {
            std::ofstream(paths.dev_dir + "/" + n.name) << "";
            const std::string dir = paths.sysfs_root + "/class/drm/" + n.name;
            if (!*n.vendor || mkdir(dir.c_str(), 0755) || mkdir((dir + "/device").c_str(), 0755)) continue;
            std::ofstream(dir + "/device/vendor") << n.vendor << "\n";
            std::ofstream(dir + "/device/device") << n.device << "\n";
        }
    }
    camctl_test::TempDir tmp;
    camctl::hw::HwProbePaths paths;
};

// Notes the nodes it is asked to open; gives a device only for `accept`.
struct RecordingOpener {
    std::vector<std::string>* calls;
    std::string accept;
    int operator()(const std::string& node_path, AVBufferRef** out) const {
        calls->push_back(node_path.substr(node_path.rfind('/') + 1));
        if (accept.empty() || calls->back() != accept) return AVERROR(ENODEV);
        *out = av_hwdevice_ctx_alloc(AV_HWDEVICE_TYPE_VAAPI);
        return *out ? 0 : AVERROR(ENOMEM);
    }
};

camctl::CodecContextPtr HevcContext() {
    return camctl::CodecContextPtr(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_HEVC)));
}

TEST(HwAccel, PrepareWalksTheFakeTree) {
    const char* kRefused = "This gpu doesn't have ability to decode";
    struct Case {  // log: expected in stderr ("": nothing asked)
        const char* name; std::vector<Node> nodes; int codec; const char* accept; int result;
        std::vector<std::string> opened; std::string log;
    } cases[] = {
        {"refused gpu stops the walk", {{"renderD128", "0x8086", "0x1616"}, {"renderD129", "0x8086", "0x3e92"}},
         AV_CODEC_ID_HEVC, "renderD129", -1, {}, std::string(kRefused) + " 173 properly."},
        {"refused for H.265 only", {{"renderD128", "0x8086", "0x0412"}}, AV_CODEC_ID_H264, "renderD128", 0,
         {"renderD128"}, ""},
        {"refused for H.264 too", {{"renderD128", "0x8086", "0x2e22"}}, AV_CODEC_ID_H264, "renderD128", -1, {},
         kRefused},
        {"listed device of another vendor", {{"renderD128", "0x1002", "0x0412"}}, AV_CODEC_ID_HEVC, "renderD128", 0,
         {"renderD128"}, ""},
        {"unidentified gpu", {{"renderD128", "", ""}}, AV_CODEC_ID_HEVC, "renderD128", -1, {}, kRefused},
        {"failed node then accepted one, cards ignored",
         {{"renderD129", "0x8086", "0x3e92"}, {"card0", "0x8086", "0x3e92"}, {"renderD128", "0x1002", "0x73bf"}},
         AV_CODEC_ID_HEVC, "renderD129", 0, {"renderD128", "renderD129"}, ""},
        {"no node opens", {{"renderD128", "0x1002", "0x73bf"}, {"renderD129", "0x8086", "0x3e92"}}, AV_CODEC_ID_HEVC,
         "", -1, {"renderD128", "renderD129"}, ""},
        {"no render node", {}, AV_CODEC_ID_HEVC, "", -1, {}, "This pc do not have d3d9.dll."},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        FakeGpuTree tree(c.nodes);
        camctl::CodecContextPtr ctx = HevcContext();
        auto* default_get_format = ctx->get_format;
        std::vector<std::string> calls;
        testing::internal::CaptureStderr();
        EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(ctx.get(), c.codec, tree.paths, RecordingOpener{&calls, c.accept}),
                  c.result);
        const std::string log = testing::internal::GetCapturedStderr();
        EXPECT_TRUE(c.log.empty() || log.find(c.log) != std::string::npos) << log;
        EXPECT_EQ(calls, c.opened);
        if (c.result == 0) {
            ASSERT_NE(ctx->hw_device_ctx, nullptr);
            EXPECT_EQ(reinterpret_cast<AVHWDeviceContext*>(ctx->hw_device_ctx->data)->type, AV_HWDEVICE_TYPE_VAAPI);
            EXPECT_EQ(ctx->get_format, &camctl::hw::GetHwFormat);
            // Preparing again drops the device it had before.
            calls.clear();
            EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(ctx.get(), c.codec, tree.paths, RecordingOpener{&calls, ""}), -1);
        } else {
            EXPECT_EQ(ctx->get_format, default_get_format);
        }
        EXPECT_EQ(ctx->hw_device_ctx, nullptr);
    }
}

TEST(HwAccel, RealOpenerAndThisMachine) {
    EXPECT_EQ(PrepareHwDecoder(nullptr, AV_CODEC_ID_HEVC), -1);
    {  // VAAPI on a plain file fails cleanly.
        FakeGpuTree tree({{"renderD128", "0x8086", "0x3e92"}});
        camctl::CodecContextPtr ctx = HevcContext();
        testing::internal::CaptureStderr();
        EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(ctx.get(), AV_CODEC_ID_HEVC, tree.paths), -1);
        testing::internal::GetCapturedStderr();
        EXPECT_EQ(ctx->hw_device_ctx, nullptr);
    }
    if (!camctl::hw::ListRenderNodes("/dev/dri").empty()) GTEST_SKIP() << "a render node exists here";
    camctl::CodecContextPtr ctx = HevcContext();
    testing::internal::CaptureStderr();
    EXPECT_EQ(PrepareHwDecoder(ctx.get(), AV_CODEC_ID_HEVC), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("This pc do not have d3d9.dll."), std::string::npos);
    EXPECT_EQ(avcodec_open2(ctx.get(), avcodec_find_decoder(AV_CODEC_ID_HEVC), nullptr), 0);  // software still runs
}

TEST(HwAccel, FormatChoiceAndNv12Download) {
    struct { std::vector<AVPixelFormat> offered; AVPixelFormat chosen; } cases[] = {
        {{AV_PIX_FMT_YUV420P, AV_PIX_FMT_VAAPI}, AV_PIX_FMT_VAAPI}, {{AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVJ420P}, AV_PIX_FMT_YUVJ420P},
        {{AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P}, AV_PIX_FMT_YUV420P}, {{AV_PIX_FMT_YUV420P}, AV_PIX_FMT_YUV420P},
        {{AV_PIX_FMT_NV12}, AV_PIX_FMT_NONE}};
    for (auto& c : cases) {
        c.offered.push_back(AV_PIX_FMT_NONE);
        testing::internal::CaptureStderr();
        EXPECT_EQ(camctl::hw::GetHwFormat(nullptr, c.offered.data()), c.chosen);
        const std::string log = testing::internal::GetCapturedStderr();
        if (c.chosen != AV_PIX_FMT_VAAPI) {  // the software answer is logged
            EXPECT_NE(log.find("sw_formatget_hw_format - 55 ## av_pix_fmt: " + std::to_string(c.chosen) + ", "),
                      std::string::npos) << log;
        }
    }

    // NV12 with distinct bytes everywhere comes out as I420 planes.
    const int w = 6, h = 4;
    camctl::FramePtr f = camctl::MakeFrame();
    f->format = AV_PIX_FMT_NV12;
    f->width = w;
    f->height = h;
    ASSERT_EQ(av_frame_get_buffer(f.get(), 32), 0);
    std::vector<uint8_t> want(w * h * 3 / 2);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            want[y * w + x] = f->data[0][y * f->linesize[0] + x] = uint8_t(10 * y + x);
            if (y >= h / 2 || x >= w / 2) continue;
            want[w * h + y * w / 2 + x] = f->data[1][y * f->linesize[1] + 2 * x] = uint8_t(100 + 10 * y + x);
            want[w * h * 5 / 4 + y * w / 2 + x] = f->data[1][y * f->linesize[1] + 2 * x + 1] = uint8_t(200 + 10 * y + x);
        }
    camctl::FramePtr transfer;
    EXPECT_EQ(camctl::hw::DownloadHwFrame(f.get(), &transfer), f.get());  // software picture: as is
    EXPECT_EQ(transfer, nullptr);
    std::vector<uint8_t> out(w * h * 3 / 2, 0xEE);
    camctl::hw::CopyNv12ToI420(f.get(), w, h, out.data());
    EXPECT_EQ(out, want);
}

}  // namespace
