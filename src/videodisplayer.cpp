// Stretches pictures into a drawing surface with swscale.
#include "camctl/VideoDisplayer.h"

#include <algorithm>
#include <cstring>

#include "camctl/CDC.h"

extern "C" {
#include <libswscale/swscale.h>
}

namespace {

// The picture never covers the display area's right and bottom edge.
constexpr int kRightMargin = 4;
constexpr int kBottomMargin = 3;

}  // namespace

void CVideoDisplayer::ScalerFree::operator()(SwsContext* p) const { sws_freeContext(p); }

CVideoDisplayer::CVideoDisplayer() = default;

CVideoDisplayer::~CVideoDisplayer() { Stop(); }

int CVideoDisplayer::Start(CDC* pDC, int dstWidth, int dstHeight, int width, int height,
                           int yuv) {
    Stop();
    std::lock_guard<std::mutex> lock(m_Lock);
    m_pDC = pDC;
    m_nDstWidth = dstWidth;
    m_nDstHeight = dstHeight;
    m_nWidth = width;
    m_nHeight = height;
    m_bYuv = yuv ? 1 : 0;
    const int rectW = dstWidth - kRightMargin;
    const int rectH = dstHeight - kBottomMargin;
    if (pDC && width > 0 && height > 0 && rectW > 0 && rectH > 0) {
        m_hScaler.reset(sws_getContext(width, height,
                                       m_bYuv ? AV_PIX_FMT_YUV420P : AV_PIX_FMT_BGR24, rectW,
                                       rectH, AV_PIX_FMT_BGR0, SWS_BILINEAR, nullptr, nullptr,
                                       nullptr));
    }
    m_bStart = 1;
    return 0;
}

int CVideoDisplayer::Stop() {
    std::lock_guard<std::mutex> lock(m_Lock);
    if (!m_bStart) return -1;
    m_bStart = 0;
    m_hScaler.reset();
    m_Scratch.clear();
    m_Scratch.shrink_to_fit();
    m_pDC = nullptr;
    return 0;
}

bool CVideoDisplayer::IsStarted() const {
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_bStart != 0;
}

int CVideoDisplayer::DisplayVideoBuffer(unsigned char* data, int width, int height, int yuv) {
    std::lock_guard<std::mutex> lock(m_Lock);
    if (!m_bStart) return -1;
    // The sizes and layout given to Start describe the buffer; a picture of
    // another size or layout would be read past its end.
    if (width != m_nWidth || height != m_nHeight) return -1;
    if (yuv >= 0 && (yuv ? 1 : 0) != m_bYuv) return -1;
    if (!data || !m_hScaler || !m_pDC) return 0;

    const uint8_t* src[4] = {};
    int srcStride[4] = {};
    if (m_bYuv) {
        const size_t luma = static_cast<size_t>(width) * height;
        src[0] = data;
        src[1] = data + luma;
        src[2] = data + luma * 5 / 4;
        srcStride[0] = width;
        srcStride[1] = srcStride[2] = width / 2;
    } else {
        // Bottom-up rows: start at the last row and walk backwards.
        src[0] = data + static_cast<size_t>(height - 1) * width * 3;
        srcStride[0] = -width * 3;
    }

    const int rectW = m_nDstWidth - kRightMargin;
    const int rectH = m_nDstHeight - kBottomMargin;
    int stride = 0;
    unsigned char* pixels = m_pDC->LockPixels(&stride);
    if (!pixels) return 0;
    const int surfW = m_pDC->GetWidth();
    const int surfH = m_pDC->GetHeight();
    const int visW = std::min(rectW, surfW);
    const int visH = std::min(rectH, surfH);
    if (rectW <= surfW && rectH <= surfH) {
        uint8_t* dst[4] = {pixels, nullptr, nullptr, nullptr};
        int dstStride[4] = {stride, 0, 0, 0};
        sws_scale(m_hScaler.get(), src, srcStride, 0, height, dst, dstStride);
    } else {
        // The rectangle overhangs the surface: scale whole, show what fits.
        m_Scratch.resize(static_cast<size_t>(rectW) * rectH * 4);
        uint8_t* dst[4] = {m_Scratch.data(), nullptr, nullptr, nullptr};
        int dstStride[4] = {rectW * 4, 0, 0, 0};
        sws_scale(m_hScaler.get(), src, srcStride, 0, height, dst, dstStride);
        for (int y = 0; y < visH; ++y) {
            std::memcpy(pixels + static_cast<size_t>(y) * stride,
                        m_Scratch.data() + static_cast<size_t>(y) * rectW * 4,
                        static_cast<size_t>(std::max(visW, 0)) * 4);
        }
    }
    m_pDC->UnlockPixels(0, 0, std::max(visW, 0), std::max(visH, 0));
    return 0;
}

void DrawRectFrame(unsigned char* picture, int stride, int /*reserved*/, int width, int height,
                   int red, int thickness) {
    if (!picture || width <= 0 || height <= 0 || thickness <= 0 || stride < width) return;
    // Blue-green-red pixels: red, or white.
    constexpr unsigned char kFull = 255;
    constexpr size_t kBytesPerPixel = 3;
    const unsigned char c = red ? 0 : kFull;
    const int t = std::min(thickness, height);
    auto paint = [&](int x, int y) {
        unsigned char* p = picture + (static_cast<size_t>(y) * stride + x) * kBytesPerPixel;
        p[0] = c;
        p[1] = c;
        p[2] = kFull;
    };
    auto paintRow = [&](int y) {
        for (int x = 0; x < width; ++x) paint(x, y);
    };
    for (int y = 0; y < t; ++y) paintRow(y);
    const int side = std::min(thickness, width);
    for (int y = t; y < height - t; ++y) {
        for (int x = 0; x < side; ++x) paint(x, y);
        for (int x = width - side; x < width; ++x) paint(x, y);
    }
    for (int y = std::max(height - t, t); y < height; ++y) paintRow(y);
}
