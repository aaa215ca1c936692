/// Paints decoded pictures into a drawing surface (CDC).
///
/// Start gives the surface, the size of the display area and the picture
/// size; every picture handed to DisplayVideoBuffer is stretched (aspect not
/// kept) into the area's top-left (width - 4) x (height - 3) rectangle, so
/// the picture never covers the area's right and bottom edge. Pictures are
/// packed 24-bit blue-green-red rows stored bottom-up, or, when started
/// with yuv set, planar YUV 4:2:0.
///
/// DisplayVideoBuffer runs on the thread that delivers pictures while Start
/// and Stop come from the host's thread; the displayer serialises them.
/// \class CVideoDisplayer
#pragma once

#include "camctl/Export.h"

#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class CDC;
struct SwsContext;

class CAMCTL_API CVideoDisplayer {
public:
    CVideoDisplayer();
    ~CVideoDisplayer();
    CVideoDisplayer(const CVideoDisplayer&) = delete;
    CVideoDisplayer& operator=(const CVideoDisplayer&) = delete;

    /// Restarts when already started. Returns 0 (a displayer whose scaler
    /// could not be made still counts as started and paints nothing).
    int Start(CDC* pDC, int dstWidth, int dstHeight, int width, int height, int yuv = 0);
    /// 0 when painted; -1 when not started, or when the picture's size is not
    /// the size given to Start (restart the displayer after a size change).
    /// yuv, when 0 or 1, is the picture's layout: a picture whose layout is
    /// not the one given to Start is refused (-1) like one of another size.
    int DisplayVideoBuffer(unsigned char* data, int width, int height, int yuv = -1);
    /// 0, or -1 when not started.
    int Stop();
    bool IsStarted() const;

private:
    struct ScalerFree {
        void operator()(SwsContext* p) const;
    };

    // Guards every field below.
    mutable std::mutex m_Lock;
    int32_t m_bStart = 0;
    int32_t m_nDstWidth = 0;
    int32_t m_nDstHeight = 0;
    int32_t m_nWidth = 0;
    int32_t m_nHeight = 0;
    int32_t m_bYuv = 0;
    CDC* m_pDC = nullptr;
    std::unique_ptr<SwsContext, ScalerFree> m_hScaler;
    std::vector<unsigned char> m_Scratch;  // used when the rectangle overhangs the surface
};

// Paints a border of `thickness` pixels around a width x height area of a
// 24-bit blue-green-red picture whose rows are `stride` pixels long,
// starting at `picture`: pure red when `red` is non-zero, white otherwise.
// `reserved` is not used.
CAMCTL_API void DrawRectFrame(unsigned char* picture, int stride, int reserved, int width, int height,
                   int red, int thickness);
