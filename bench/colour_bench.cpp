// Evaluation of libyuv for the engine's BGR output: same-size 4:2:0 to
// bottom-up BGR24 conversion of a 1080p picture, the engine's scaler set-up
// (swscale, SWS_BILINEAR, negative line size, as in video_decoder.cpp)
// against libyuv's I420ToRGB24 / J420ToRGB24 (RGB24 is B, G, R in memory;
// a negative height writes the rows bottom-up), interleaved in one loop so
// that both see the same machine load. libyuv would replace swscale where no
// scaling is needed only if it were at least 1.5x faster and within two
// levels of swscale's colours; docs/PERFORMANCE.md has the outcome.
//
// Counters of BM_ColourConvert1080p/<source>/<range>:
//   swscale_ms, libyuv_ms  median thread CPU time per picture
//   speedup                swscale_ms / libyuv_ms (adoption needs >= 1.5)
//   max_diff               largest difference of one colour byte (needs <= 2)
//   diff_share             share of colour bytes that differ at all
// Pictures: one frame each of ffmpeg's testsrc2, testsrc and smptebars
// sources, converted by the ffmpeg CLI to yuv420p.
#include <benchmark/benchmark.h>
#include <time.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "engine/av_ptr.h"
#include "support/pictures.h"

#ifdef CAMCTL_HAVE_LIBYUV
#include <libyuv/convert_argb.h>
#endif

namespace {

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

double ThreadCpuMs() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return ts.tv_sec * 1e3 + ts.tv_nsec / 1e6;
}

double Median(std::vector<double> v) {
    if (v.empty()) return 0;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

// An AVFrame over a raw I420 picture (no copy).
camctl::FramePtr WrapI420(std::vector<unsigned char>& yuv, int w, int h, AVPixelFormat fmt) {
    camctl::FramePtr f = camctl::MakeFrame();
    f->format = fmt;
    f->width = w;
    f->height = h;
    f->data[0] = yuv.data();
    f->data[1] = yuv.data() + size_t(w) * h;
    f->data[2] = yuv.data() + size_t(w) * h * 5 / 4;
    f->linesize[0] = w;
    f->linesize[1] = w / 2;
    f->linesize[2] = w / 2;
    return f;
}

// The engine's swscale conversion (video_decoder.cpp, BGR output).
class SwsBgr {
public:
    SwsBgr(int w, int h, AVPixelFormat fmt)
        : w_(w), h_(h),
          sws_(sws_getContext(w, h, fmt, w, h, AV_PIX_FMT_BGR24, SWS_BILINEAR, nullptr, nullptr, nullptr)) {}
    bool Convert(const AVFrame* pic, uint8_t* out) {
        if (!sws_) return false;
        const int stride = w_ * 3;
        uint8_t* dst[4] = {out + size_t(h_ - 1) * stride, nullptr, nullptr, nullptr};
        int dstStride[4] = {-stride, 0, 0, 0};
        return sws_scale(sws_.get(), pic->data, pic->linesize, 0, h_, dst, dstStride) > 0;
    }

private:
    int w_, h_;
    camctl::SwsPtr sws_;
};

// The libyuv candidate: the same output as SwsBgr.
bool LibyuvBgr(const AVFrame* pic, uint8_t* out) {
#ifdef CAMCTL_HAVE_LIBYUV
    auto convert = pic->format == AV_PIX_FMT_YUVJ420P ? libyuv::J420ToRGB24 : libyuv::I420ToRGB24;
    return convert(pic->data[0], pic->linesize[0], pic->data[1], pic->linesize[1], pic->data[2], pic->linesize[2],
                   out, pic->width * 3, pic->width, -pic->height) == 0;
#else
    (void)pic;
    (void)out;
    return false;
#endif
}

void BM_ColourConvert1080p(benchmark::State& state, const char* source, AVPixelFormat fmt) {
#ifndef CAMCTL_HAVE_LIBYUV
    state.SkipWithError("built without libyuv (libyuv-dev)");
    return;
#endif
    std::vector<unsigned char> yuv = camctl_test::RawTestFrame(source, kWidth, kHeight, "yuv420p");
    camctl::FramePtr pic = WrapI420(yuv, kWidth, kHeight, fmt);
    const size_t bytes = size_t(kWidth) * kHeight * 3;
    std::vector<uint8_t> a(bytes), b(bytes);
    SwsBgr sws(kWidth, kHeight, fmt);

    std::vector<double> swsMs, yuvMs;
    for (auto _ : state) {
        double t0 = ThreadCpuMs();
        bool ok1 = sws.Convert(pic.get(), a.data());
        double t1 = ThreadCpuMs();
        bool ok2 = LibyuvBgr(pic.get(), b.data());
        double t2 = ThreadCpuMs();
        if (!ok1 || !ok2) {
            state.SkipWithError("conversion failed");
            return;
        }
        benchmark::DoNotOptimize(a.data());
        benchmark::DoNotOptimize(b.data());
        swsMs.push_back(t1 - t0);
        yuvMs.push_back(t2 - t1);
    }
    int maxDiff = 0;
    size_t differing = 0;
    for (size_t i = 0; i < bytes; ++i) {
        int d = std::abs(int(a[i]) - int(b[i]));
        maxDiff = std::max(maxDiff, d);
        differing += d != 0;
    }
    const double s = Median(swsMs), y = Median(yuvMs);
    state.counters["swscale_ms"] = s;
    state.counters["libyuv_ms"] = y;
    state.counters["speedup"] = y > 0 ? s / y : 0;
    state.counters["max_diff"] = maxDiff;
    state.counters["diff_share"] = double(differing) / double(bytes);
}

BENCHMARK_CAPTURE(BM_ColourConvert1080p, testsrc2_limited, "testsrc2", AV_PIX_FMT_YUV420P)
    ->Iterations(100)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ColourConvert1080p, testsrc_limited, "testsrc", AV_PIX_FMT_YUV420P)
    ->Iterations(100)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ColourConvert1080p, smptebars_limited, "smptebars", AV_PIX_FMT_YUV420P)
    ->Iterations(100)
    ->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_ColourConvert1080p, testsrc2_full, "testsrc2", AV_PIX_FMT_YUVJ420P)
    ->Iterations(100)
    ->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
