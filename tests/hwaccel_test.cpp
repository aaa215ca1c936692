// Hardware decoder preparation: render-node walk, GPU refusal table against a
// fake sysfs tree, the get_format callback and NV12 download helpers.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
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

using camctl::hw::GpuIdentity;
using camctl::hw::HwProbePaths;

constexpr int kHevc = AV_CODEC_ID_HEVC;

// A fake /dev/dri and /sys tree in a temp dir.
class FakeGpuTree {
public:
    FakeGpuTree() {
        mkdir((tmp_ / "dev").c_str(), 0755);
        mkdir((tmp_ / "sys").c_str(), 0755);
        mkdir((tmp_ / "sys/class").c_str(), 0755);
        mkdir((tmp_ / "sys/class/drm").c_str(), 0755);
        paths_.dev_dir = tmp_ / "dev";
        paths_.sysfs_root = tmp_ / "sys";
    }
    // Adds a render node; vendor/device empty leaves the sysfs entry out.
    void AddNode(const std::string& node, const std::string& vendor, const std::string& device) {
        std::ofstream(paths_.dev_dir + "/" + node) << "";
        if (vendor.empty()) return;
        const std::string dir = paths_.sysfs_root + "/class/drm/" + node;
        mkdir(dir.c_str(), 0755);
        mkdir((dir + "/device").c_str(), 0755);
        std::ofstream(dir + "/device/vendor") << vendor << "\n";
        std::ofstream(dir + "/device/device") << device << "\n";
    }
    const HwProbePaths& paths() const { return paths_; }

private:
    camctl_test::TempDir tmp_;
    HwProbePaths paths_;
};

struct CodecCtx {
    CodecCtx() : ctx(avcodec_alloc_context3(avcodec_find_decoder(AV_CODEC_ID_HEVC))) {}
    camctl::CodecContextPtr ctx;
};

// Records the nodes it is asked to open; succeeds on the node named `accept`.
struct RecordingOpener {
    std::vector<std::string>* calls;
    std::string accept;
    int operator()(const std::string& node_path, AVBufferRef** out) const {
        calls->push_back(node_path.substr(node_path.rfind('/') + 1));
        if (node_path.size() < accept.size() || node_path.compare(node_path.size() - accept.size(), accept.size(), accept) != 0 ||
            accept.empty())
            return AVERROR(ENODEV);
        *out = av_hwdevice_ctx_alloc(AV_HWDEVICE_TYPE_VAAPI);
        return *out ? 0 : AVERROR(ENOMEM);
    }
};

TEST(HwAccelRefusal, TableLookups) {
    GpuIdentity hd4600{0x8086, 0x0412, 0};
    EXPECT_TRUE(camctl::hw::IsGpuRefused(&hd4600, kHevc));
    EXPECT_FALSE(camctl::hw::IsGpuRefused(&hd4600, AV_CODEC_ID_H264));  // first group: H.265 only

    GpuIdentity g45{0x8086, 0x2e22, 0};
    EXPECT_TRUE(camctl::hw::IsGpuRefused(&g45, kHevc));
    EXPECT_TRUE(camctl::hw::IsGpuRefused(&g45, AV_CODEC_ID_H264));
    EXPECT_TRUE(camctl::hw::IsGpuRefused(&g45, AV_CODEC_ID_MJPEG));
    EXPECT_FALSE(camctl::hw::IsGpuRefused(&g45, AV_CODEC_ID_MPEG4));

    // First and last entries of each group.
    for (uint32_t dev : {0x1606u, 0xd26u, 0x2a42u, 0x27aeu}) {
        GpuIdentity id{0x8086, dev, 0};
        EXPECT_TRUE(camctl::hw::IsGpuRefused(&id, kHevc)) << std::hex << dev;
    }

    GpuIdentity unlisted{0x8086, 0x3e92, 0};
    EXPECT_FALSE(camctl::hw::IsGpuRefused(&unlisted, kHevc));
    GpuIdentity other_vendor{0x1002, 0x0412, 0};  // listed device id, other vendor
    EXPECT_FALSE(camctl::hw::IsGpuRefused(&other_vendor, kHevc));
    EXPECT_TRUE(camctl::hw::IsGpuRefused(nullptr, kHevc));  // identity not readable
}

TEST(HwAccelRefusal, IntelDriverFold) {
    // High half of the low word >= 100: high * 1000 + low - 100000.
    EXPECT_EQ(camctl::hw::FoldIntelDriverVersion((uint64_t{0x0014000A} << 32) | (101u << 16) | 4000u), 5000u);
    EXPECT_EQ(camctl::hw::FoldIntelDriverVersion((100u << 16) | 7u), 7u);
    // Otherwise just the low 16 bits.
    EXPECT_EQ(camctl::hw::FoldIntelDriverVersion((99u << 16) | 1234u), 1234u);
}

TEST(HwAccelSysfs, ReadsIdentityAndListsNodesInOrder) {
    FakeGpuTree tree;
    tree.AddNode("renderD129", "0x10de", "0x2330");
    tree.AddNode("renderD128", "0x8086", "0x0412");
    tree.AddNode("card0", "0x8086", "0x0412");
    EXPECT_EQ(camctl::hw::ListRenderNodes(tree.paths().dev_dir),
              (std::vector<std::string>{"renderD128", "renderD129"}));

    GpuIdentity id;
    ASSERT_TRUE(camctl::hw::ReadGpuIdentity(tree.paths().sysfs_root, "renderD129", &id));
    EXPECT_EQ(id.vendor, 0x10deu);
    EXPECT_EQ(id.device, 0x2330u);
    EXPECT_FALSE(camctl::hw::ReadGpuIdentity(tree.paths().sysfs_root, "renderD130", &id));
}

TEST(HwAccelPrepare, RefusedOrUnknownGpuStopsTheWalk) {
    FakeGpuTree tree;
    tree.AddNode("renderD128", "0x8086", "0x1616");
    tree.AddNode("renderD129", "0x8086", "0x3e92");  // acceptable, but never reached
    std::vector<std::string> calls;
    CodecCtx c;
    testing::internal::CaptureStderr();
    EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(c.ctx.get(), kHevc, tree.paths(), RecordingOpener{&calls, "renderD129"}), -1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("This gpu doesn't have ability to decode 173 properly."), std::string::npos) << log;
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(c.ctx->hw_device_ctx, nullptr);

    // A node whose GPU cannot be identified is refused the same way.
    FakeGpuTree unknown;
    unknown.AddNode("renderD128", "", "");
    testing::internal::CaptureStderr();
    EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(c.ctx.get(), kHevc, unknown.paths(), RecordingOpener{&calls, "renderD128"}), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("doesn't have ability to decode 173"), std::string::npos);
    EXPECT_TRUE(calls.empty());
}

TEST(HwAccelPrepare, AcceptedGpuGetsDeviceAfterFailedNode) {
    FakeGpuTree tree;
    tree.AddNode("renderD128", "0x1002", "0x73bf");
    tree.AddNode("renderD129", "0x8086", "0x3e92");
    std::vector<std::string> calls;
    CodecCtx c;
    ASSERT_EQ(camctl::hw::PrepareHwDecoderAt(c.ctx.get(), kHevc, tree.paths(), RecordingOpener{&calls, "renderD129"}), 0);
    EXPECT_EQ(calls, (std::vector<std::string>{"renderD128", "renderD129"}));
    ASSERT_NE(c.ctx->hw_device_ctx, nullptr);
    EXPECT_EQ(reinterpret_cast<AVHWDeviceContext*>(c.ctx->hw_device_ctx->data)->type, AV_HWDEVICE_TYPE_VAAPI);
    EXPECT_EQ(c.ctx->get_format, &camctl::hw::GetHwFormat);

    // Preparing again first drops the previous device.
    calls.clear();
    EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(c.ctx.get(), kHevc, tree.paths(), RecordingOpener{&calls, ""}), -1);
    EXPECT_EQ(c.ctx->hw_device_ctx, nullptr);
    EXPECT_EQ(calls.size(), 2u);
}

TEST(HwAccelPrepare, NoRenderNodeFallsBackToSoftware) {
    FakeGpuTree tree;
    CodecCtx c;
    auto* default_get_format = c.ctx->get_format;
    testing::internal::CaptureStderr();
    EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(c.ctx.get(), kHevc, tree.paths()), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("This pc do not have d3d9.dll."), std::string::npos);
    EXPECT_EQ(c.ctx->hw_device_ctx, nullptr);
    EXPECT_EQ(c.ctx->get_format, default_get_format);
    EXPECT_EQ(PrepareHwDecoder(nullptr, kHevc), -1);
}

TEST(HwAccelPrepare, RealVaapiOnFakeNodeFailsCleanly) {
    FakeGpuTree tree;
    tree.AddNode("renderD128", "0x8086", "0x3e92");
    CodecCtx c;
    testing::internal::CaptureStderr();
    EXPECT_EQ(camctl::hw::PrepareHwDecoderAt(c.ctx.get(), kHevc, tree.paths()), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(c.ctx->hw_device_ctx, nullptr);
}

TEST(HwAccelPrepare, ThisMachineWithoutGpu) {
    if (!camctl::hw::ListRenderNodes("/dev/dri").empty()) GTEST_SKIP() << "a render node exists here";
    CodecCtx c;
    testing::internal::CaptureStderr();
    EXPECT_EQ(PrepareHwDecoder(c.ctx.get(), kHevc), -1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("This pc do not have d3d9.dll."), std::string::npos);
    // The decoder still opens and runs in software.
    EXPECT_EQ(avcodec_open2(c.ctx.get(), avcodec_find_decoder(AV_CODEC_ID_HEVC), nullptr), 0);
}

TEST(HwAccelFormat, GetHwFormatChoice) {
    auto pick = [](std::vector<AVPixelFormat> offered) {
        offered.push_back(AV_PIX_FMT_NONE);
        testing::internal::CaptureStderr();
        AVPixelFormat f = camctl::hw::GetHwFormat(nullptr, offered.data());
        testing::internal::GetCapturedStderr();
        return f;
    };
    EXPECT_EQ(pick({AV_PIX_FMT_YUV420P, AV_PIX_FMT_VAAPI}), AV_PIX_FMT_VAAPI);
    EXPECT_EQ(pick({AV_PIX_FMT_YUV420P, AV_PIX_FMT_YUVJ420P}), AV_PIX_FMT_YUVJ420P);  // the later wins
    EXPECT_EQ(pick({AV_PIX_FMT_YUVJ420P, AV_PIX_FMT_YUV420P}), AV_PIX_FMT_YUV420P);
    EXPECT_EQ(pick({AV_PIX_FMT_NV12}), AV_PIX_FMT_NONE);

    const AVPixelFormat sw[] = {AV_PIX_FMT_YUV420P, AV_PIX_FMT_NONE};
    testing::internal::CaptureStderr();
    camctl::hw::GetHwFormat(nullptr, sw);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("sw_formatget_hw_format - 55 ## av_pix_fmt: 0, "),
              std::string::npos);
}

TEST(HwAccelFormat, Nv12SplitsIntoI420) {
    const int w = 6, h = 4;
    camctl::FramePtr f = camctl::MakeFrame();
    f->format = AV_PIX_FMT_NV12;
    f->width = w;
    f->height = h;
    ASSERT_EQ(av_frame_get_buffer(f.get(), 32), 0);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) f->data[0][y * f->linesize[0] + x] = static_cast<uint8_t>(10 * y + x);
    for (int y = 0; y < h / 2; ++y)
        for (int x = 0; x < w / 2; ++x) {
            f->data[1][y * f->linesize[1] + 2 * x] = static_cast<uint8_t>(100 + 10 * y + x);
            f->data[1][y * f->linesize[1] + 2 * x + 1] = static_cast<uint8_t>(200 + 10 * y + x);
        }

    camctl::FramePtr transfer;
    EXPECT_EQ(camctl::hw::DownloadHwFrame(f.get(), &transfer), f.get());  // software picture: as is
    EXPECT_EQ(transfer, nullptr);

    std::vector<uint8_t> out(w * h * 3 / 2, 0xEE);
    camctl::hw::CopyNv12ToI420(f.get(), w, h, out.data());
    EXPECT_EQ(out[1 * w + 5], 15);
    EXPECT_EQ(out[3 * w + 0], 30);
    const uint8_t* u = out.data() + w * h;
    const uint8_t* v = out.data() + w * h * 5 / 4;
    EXPECT_EQ(u[0], 100);
    EXPECT_EQ(u[1 * 3 + 2], 112);
    EXPECT_EQ(v[0], 200);
    EXPECT_EQ(v[1 * 3 + 2], 212);
}

}  // namespace
