// Hardware decoding for H.265: choosing a VAAPI render node, refusing GPUs
// known to decode badly, the get_format callback and the download of
// hardware pictures to NV12.
//
// PrepareHwDecoder (engine.h) is the entry point the engine uses; the pieces
// below take their file-system roots as parameters so they can be exercised
// against a fake /dev and /sys tree.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "engine/av_ptr.h"

namespace camctl {
namespace hw {

// Where the render nodes and their sysfs descriptions live.
struct HwProbePaths {
    std::string dev_dir = "/dev/dri";  // holds renderD128, renderD129, ...
    std::string sysfs_root = "/sys";   // <root>/class/drm/<node>/device/{vendor,device}
};

// What the system tells about the GPU behind one render node.
struct GpuIdentity {
    uint32_t vendor = 0;
    uint32_t device = 0;
    // Vendor driver version; the kernel does not publish one for render
    // nodes, so it reads as 0 unless a caller knows better.
    uint64_t driver_version = 0;
};

// Render node names ("renderD128", ...) present in dev_dir, in node order.
std::vector<std::string> ListRenderNodes(const std::string& dev_dir);

// Reads vendor and device id of a render node from sysfs. False when either
// file is missing or unreadable.
bool ReadGpuIdentity(const std::string& sysfs_root, const std::string& node, GpuIdentity* out);

// Intel's driver version folded into one comparable number.
uint32_t FoldIntelDriverVersion(uint64_t driver_version);

// True when the GPU is known to decode codec_id badly. A GPU whose identity
// could not be read (identity == nullptr) is refused too.
bool IsGpuRefused(const GpuIdentity* identity, int codec_id);

// Opens the hardware device of one render node. 0 and *out set on success,
// a negative AVERROR otherwise.
using DeviceOpener = std::function<int(const std::string& node_path, AVBufferRef** out)>;
int OpenVaapiDevice(const std::string& node_path, AVBufferRef** out);

// PrepareHwDecoder with explicit roots and device opener.
int PrepareHwDecoderAt(AVCodecContext* codec_ctx, int codec_id, const HwProbePaths& paths,
                       const DeviceOpener& open_device = OpenVaapiDevice);

// The get_format callback installed on a prepared decoder.
AVPixelFormat GetHwFormat(AVCodecContext* codec_ctx, const AVPixelFormat* formats);

// Returns frame itself when it holds a software picture. A hardware picture
// is downloaded into *transfer (allocated on first use) and transfer is
// returned; null when the download fails.
AVFrame* DownloadHwFrame(AVFrame* frame, FramePtr* transfer);

// Copies an NV12 picture into a packed I420 block of width*height*3/2
// bytes: Y rows, then the interleaved chroma split into U and V.
void CopyNv12ToI420(const AVFrame* frame, int width, int height, uint8_t* dst);

}  // namespace hw
}  // namespace camctl
