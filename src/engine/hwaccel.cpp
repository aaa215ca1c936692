// Hardware decoding for H.265 over VAAPI render nodes.
//
// The nodes are tried in order. Each node's GPU is first checked against a
// table of GPUs whose decoders are known to produce broken pictures; a
// refused GPU ends the search (later nodes are not tried).
#include "engine/hwaccel.h"

#include <dirent.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/engine.h"
#include "engine/codec_ids.h"
#include "runtime/os.h"

extern "C" {
#include <libavutil/hwcontext.h>
#include <libavutil/pixdesc.h>
}

namespace camctl {
namespace hw {
namespace {

constexpr uint32_t kVendorIntel = 0x8086;

// Codec lists end with 0.
constexpr int kHevcOnly[] = {kCodecHevc, 0};
constexpr int kH264HevcMjpeg[] = {kCodecH264, kCodecHevc, kCodecMjpeg, 0};

// mode 0: refused whatever the driver; mode 1: refused while the folded
// driver number is below min_driver.
struct RefusedDevice {
    uint32_t device;
    const int* codecs;
    int mode;
    uint32_t min_driver;
};

constexpr RefusedDevice kIntelDevices[] = {
    {0x1606, kHevcOnly, 0, 0},       {0x160e, kHevcOnly, 0, 0},
    {0x1612, kHevcOnly, 0, 0},       {0x1616, kHevcOnly, 0, 0},
    {0x161a, kHevcOnly, 0, 0},       {0x161e, kHevcOnly, 0, 0},
    {0x1622, kHevcOnly, 0, 0},       {0x1626, kHevcOnly, 0, 0},
    {0x162a, kHevcOnly, 0, 0},       {0x162b, kHevcOnly, 0, 0},
    {0x402, kHevcOnly, 0, 0},        {0x406, kHevcOnly, 0, 0},
    {0x40a, kHevcOnly, 0, 0},        {0x412, kHevcOnly, 0, 0},
    {0x416, kHevcOnly, 0, 0},        {0x41e, kHevcOnly, 0, 0},
    {0x41a, kHevcOnly, 0, 0},        {0xa06, kHevcOnly, 0, 0},
    {0xa0e, kHevcOnly, 0, 0},        {0xa16, kHevcOnly, 0, 0},
    {0xa1e, kHevcOnly, 0, 0},        {0xa26, kHevcOnly, 0, 0},
    {0xa2e, kHevcOnly, 0, 0},        {0xd22, kHevcOnly, 0, 0},
    {0xd26, kHevcOnly, 0, 0},
    {0x2a42, kH264HevcMjpeg, 0, 0},  {0x2a43, kH264HevcMjpeg, 0, 0},
    {0x2e02, kH264HevcMjpeg, 0, 0},  {0x2e03, kH264HevcMjpeg, 0, 0},
    {0x2e12, kH264HevcMjpeg, 0, 0},  {0x2e13, kH264HevcMjpeg, 0, 0},
    {0x2e22, kH264HevcMjpeg, 0, 0},  {0x2e23, kH264HevcMjpeg, 0, 0},
    {0x2e32, kH264HevcMjpeg, 0, 0},  {0x2e33, kH264HevcMjpeg, 0, 0},
    {0x2e42, kH264HevcMjpeg, 0, 0},  {0x2e43, kH264HevcMjpeg, 0, 0},
    {0x2e92, kH264HevcMjpeg, 0, 0},  {0x2e93, kH264HevcMjpeg, 0, 0},
    {0x29d3, kH264HevcMjpeg, 0, 0},  {0x29d2, kH264HevcMjpeg, 0, 0},
    {0x29b3, kH264HevcMjpeg, 0, 0},  {0x29b2, kH264HevcMjpeg, 0, 0},
    {0x29c3, kH264HevcMjpeg, 0, 0},  {0x29c2, kH264HevcMjpeg, 0, 0},
    {0x2a13, kH264HevcMjpeg, 0, 0},  {0x2a12, kH264HevcMjpeg, 0, 0},
    {0x2a03, kH264HevcMjpeg, 0, 0},  {0x2a02, kH264HevcMjpeg, 0, 0},
    {0x2973, kH264HevcMjpeg, 0, 0},  {0x2972, kH264HevcMjpeg, 0, 0},
    {0x29a3, kH264HevcMjpeg, 0, 0},  {0x29a2, kH264HevcMjpeg, 0, 0},
    {0x2993, kH264HevcMjpeg, 0, 0},  {0x2992, kH264HevcMjpeg, 0, 0},
    {0x2983, kH264HevcMjpeg, 0, 0},  {0x2982, kH264HevcMjpeg, 0, 0},
    {0x2772, kH264HevcMjpeg, 0, 0},  {0x2776, kH264HevcMjpeg, 0, 0},
    {0x27a2, kH264HevcMjpeg, 0, 0},  {0x27a6, kH264HevcMjpeg, 0, 0},
    {0x27ae, kH264HevcMjpeg, 0, 0},
};

struct RefusedVendor {
    uint32_t vendor;
    const RefusedDevice* devices;
    size_t count;
};

constexpr RefusedVendor kRefusedVendors[] = {
    {kVendorIntel, kIntelDevices, sizeof kIntelDevices / sizeof kIntelDevices[0]},
};

bool ListsCodec(const int* codecs, int codec_id) {
    for (; *codecs != 0; ++codecs)
        if (*codecs == codec_id) return true;
    return false;
}

// Reads a sysfs number such as "0x8086\n".
bool ReadHexFile(const std::string& path, uint32_t* out) {
    FILE* f = std::fopen(path.c_str(), "r");
    if (!f) return false;
    char text[32] = {};
    size_t n = std::fread(text, 1, sizeof text - 1, f);
    std::fclose(f);
    if (n == 0) return false;
    char* end = nullptr;
    unsigned long value = std::strtoul(text, &end, 16);
    if (end == text || value > 0xFFFFFFFFul) return false;
    *out = static_cast<uint32_t>(value);
    return true;
}

// Node number of "renderD<n>", or -1.
int RenderNodeNumber(const char* name) {
    static const char kPrefix[] = "renderD";
    if (std::strncmp(name, kPrefix, sizeof kPrefix - 1) != 0) return -1;
    const char* digits = name + sizeof kPrefix - 1;
    if (*digits == '\0') return -1;
    int n = 0;
    for (const char* p = digits; *p; ++p) {
        if (*p < '0' || *p > '9' || n > 100000) return -1;
        n = n * 10 + (*p - '0');
    }
    return n;
}

bool VaapiAvailable() {
    for (AVHWDeviceType t = av_hwdevice_iterate_types(AV_HWDEVICE_TYPE_NONE); t != AV_HWDEVICE_TYPE_NONE;
         t = av_hwdevice_iterate_types(t))
        if (t == AV_HWDEVICE_TYPE_VAAPI) return true;
    return false;
}

void LogNoHardware(int codec_id) {
    // The codec id travels with the line although the text does not show it.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-extra-args"
    os_print("This pc do not have d3d9.dll.", codec_id);
#pragma GCC diagnostic pop
}

}  // namespace

std::vector<std::string> ListRenderNodes(const std::string& dev_dir) {
    std::vector<std::pair<int, std::string>> found;
    if (DIR* dir = opendir(dev_dir.c_str())) {
        while (dirent* e = readdir(dir)) {
            int n = RenderNodeNumber(e->d_name);
            if (n >= 0) found.emplace_back(n, e->d_name);
        }
        closedir(dir);
    }
    std::sort(found.begin(), found.end());
    std::vector<std::string> nodes;
    nodes.reserve(found.size());
    for (auto& f : found) nodes.push_back(std::move(f.second));
    return nodes;
}

bool ReadGpuIdentity(const std::string& sysfs_root, const std::string& node, GpuIdentity* out) {
    const std::string dir = sysfs_root + "/class/drm/" + node + "/device/";
    GpuIdentity id;
    if (!ReadHexFile(dir + "vendor", &id.vendor) || !ReadHexFile(dir + "device", &id.device)) return false;
    *out = id;
    return true;
}

uint32_t FoldIntelDriverVersion(uint64_t driver_version) {
    const uint32_t low_word = static_cast<uint32_t>(driver_version);
    const uint32_t high16 = low_word >> 16;
    const uint32_t low16 = low_word & 0xFFFF;
    if (high16 >= 100) return high16 * 1000 + low16 - 100000;
    return low16;
}

bool IsGpuRefused(const GpuIdentity* identity, int codec_id) {
    if (!identity) return true;
    for (const RefusedVendor& v : kRefusedVendors) {
        if (v.vendor != identity->vendor) continue;
        const uint32_t driver =
            identity->vendor == kVendorIntel ? FoldIntelDriverVersion(identity->driver_version) : 0;
        for (size_t i = 0; i < v.count; ++i) {
            const RefusedDevice& d = v.devices[i];
            if (d.device != identity->device || !ListsCodec(d.codecs, codec_id)) continue;
            if (d.mode == 0 || (d.mode == 1 && driver < d.min_driver)) return true;
        }
    }
    return false;
}

int OpenVaapiDevice(const std::string& node_path, AVBufferRef** out) {
    return av_hwdevice_ctx_create(out, AV_HWDEVICE_TYPE_VAAPI, node_path.c_str(), nullptr, 0);
}

int PrepareHwDecoderAt(AVCodecContext* codec_ctx, int codec_id, const HwProbePaths& paths,
                       const DeviceOpener& open_device) {
    if (!codec_ctx) return -1;
    av_buffer_unref(&codec_ctx->hw_device_ctx);

    const std::vector<std::string> nodes = ListRenderNodes(paths.dev_dir);
    if (nodes.empty() || !VaapiAvailable()) {
        LogNoHardware(codec_id);
        return -1;
    }
    for (const std::string& node : nodes) {
        GpuIdentity identity;
        const bool known = ReadGpuIdentity(paths.sysfs_root, node, &identity);
        if (IsGpuRefused(known ? &identity : nullptr, codec_id)) {
            os_print("This gpu doesn't have ability to decode %d properly.", codec_id);
            return -1;
        }
        AVBufferRef* device = nullptr;
        if (open_device(paths.dev_dir + "/" + node, &device) >= 0 && device) {
            codec_ctx->hw_device_ctx = device;
            codec_ctx->get_format = GetHwFormat;
            return 0;
        }
        av_buffer_unref(&device);
    }
    return -1;
}

AVPixelFormat GetHwFormat(AVCodecContext* /*codec_ctx*/, const AVPixelFormat* formats) {
    int answer = AV_PIX_FMT_NONE;
    for (const AVPixelFormat* p = formats; *p != AV_PIX_FMT_NONE; ++p) {
        if (*p == AV_PIX_FMT_VAAPI) return AV_PIX_FMT_VAAPI;
        if (*p == AV_PIX_FMT_YUVJ420P) answer = AV_PIX_FMT_YUVJ420P;
        if (*p == AV_PIX_FMT_YUV420P) answer = AV_PIX_FMT_YUV420P;
    }
    os_print("sw_format%s - %d ## av_pix_fmt: %d, ", "get_hw_format", 55, answer);
    return static_cast<AVPixelFormat>(answer);
}

AVFrame* DownloadHwFrame(AVFrame* frame, FramePtr* transfer) {
    if (!frame || !frame->hw_frames_ctx) return frame;
    if (!*transfer) *transfer = MakeFrame();
    if (!*transfer) return nullptr;
    av_frame_unref(transfer->get());
    if (av_hwframe_transfer_data(transfer->get(), frame, 0) < 0) return nullptr;
    return transfer->get();
}

void CopyNv12ToI420(const AVFrame* frame, int width, int height, uint8_t* dst) {
    for (int y = 0; y < height; ++y)
        std::memcpy(dst + static_cast<size_t>(y) * width, frame->data[0] + static_cast<ptrdiff_t>(y) * frame->linesize[0],
                    width);
    uint8_t* u = dst + static_cast<size_t>(width) * height;
    uint8_t* v = dst + static_cast<size_t>(width) * height * 5 / 4;
    const int cw = width / 2;
    for (int y = 0; y < height / 2; ++y) {
        const uint8_t* src = frame->data[1] + static_cast<ptrdiff_t>(y) * frame->linesize[1];
        for (int x = 0; x < cw; ++x) {
            u[static_cast<size_t>(y) * cw + x] = src[2 * x];
            v[static_cast<size_t>(y) * cw + x] = src[2 * x + 1];
        }
    }
}

}  // namespace hw
}  // namespace camctl

int PrepareHwDecoder(AVCodecContext* codec_ctx, int codec_id) {
    return camctl::hw::PrepareHwDecoderAt(codec_ctx, codec_id, camctl::hw::HwProbePaths{});
}
