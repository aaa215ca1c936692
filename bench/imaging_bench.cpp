// Imaging speed: the motion detector per picture, and the library's JPEG
// encoder against libjpeg-turbo on the same 1080p picture (quality 100,
// 4:4:4), with the ratio printed at the end of the run.
#include <benchmark/benchmark.h>
#include <jpeglib.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

#include "camctl/MotionDetector.h"
#include "jpeg_encoder.h"
#include "support/pictures.h"

namespace {

struct Frames {
    std::vector<unsigned char> a, b, c;  // three different pictures of one source
};

const Frames& Bgr(int width, int height) {
    static std::map<std::pair<int, int>, Frames> cache;
    Frames& f = cache[{width, height}];
    if (f.a.empty()) {
        f.a = camctl_test::RawTestFrame("testsrc2", width, height, "bgr24", 0);
        f.b = camctl_test::RawTestFrame("testsrc2", width, height, "bgr24", 40);
        f.c = camctl_test::RawTestFrame("testsrc2", width, height, "bgr24", 80);
    }
    return f;
}

const std::vector<unsigned char>& I420_1080p() {
    static const std::vector<unsigned char> frame = camctl_test::RawTestFrame("testsrc", 1920, 1080, "yuv420p");
    return frame;
}

int64_t FixedClock(void* context) {
    return *static_cast<int64_t*>(context);
}

// A static scene: every fourth picture scans all 768 cells and renews the
// reference. This is the detector's most expensive steady state.
void MotionStatic(benchmark::State& state, int width, int height) {
    const Frames& frames = Bgr(width, height);
    std::vector<unsigned char> picture = frames.a;
    CMotionDetector detector;
    detector.SetOwnerName("bench");
    detector.Init(nullptr, width, height);
    detector.SetDetectEnable(1);
    for (int i = 0; i < 40; ++i) detector.MotionDetectRun(picture.data(), width, height);  // warm-up
    int detections = 0;
    for (auto _ : state) {
        detections += detector.MotionDetectRun(picture.data(), width, height) != 0;
    }
    state.counters["detections"] = detections;
    state.SetItemsProcessed(state.iterations());
}

// Three pictures in turn (so the test pictures, four apart, always differ)
// and a clock that moves on by the detection spacing before every picture:
// every test picture scans until the first changed cell and reports.
void MotionMoving(benchmark::State& state, int width, int height) {
    const Frames& frames = Bgr(width, height);
    std::vector<unsigned char> pictures[3] = {frames.a, frames.b, frames.c};
    int64_t now = 1000000;
    CMotionDetector detector;
    detector.SetClock(FixedClock, &now);
    detector.SetOwnerName("bench");
    detector.SetNotifySpaceTime(0);
    detector.Init(nullptr, width, height);
    detector.SetDetectEnable(1);
    size_t n = 0;
    for (int i = 0; i < 40; ++i) detector.MotionDetectRun(pictures[n++ % 3].data(), width, height);
    int detections = 0;
    for (auto _ : state) {
        now += 2;
        detections += detector.MotionDetectRun(pictures[n++ % 3].data(), width, height) != 0;
    }
    state.counters["detections"] = detections;
    state.SetItemsProcessed(state.iterations());
}

void BM_MotionDetectRun_1080p_Static(benchmark::State& state) { MotionStatic(state, 1920, 1080); }
void BM_MotionDetectRun_1080p_Moving(benchmark::State& state) { MotionMoving(state, 1920, 1080); }
void BM_MotionDetectRun_CIF_Static(benchmark::State& state) { MotionStatic(state, 352, 288); }
void BM_MotionDetectRun_CIF_Moving(benchmark::State& state) { MotionMoving(state, 352, 288); }

// One test picture's work on its own: the scan of all cells plus the copy.
void BM_ALgMotionDetect_1080p_FullScan(benchmark::State& state) {
    const Frames& frames = Bgr(1920, 1080);
    std::vector<unsigned char> picture = frames.a;
    CMotionDetector detector;
    detector.Init(nullptr, 1920, 1080);
    detector.ALgMotionDetect(picture.data(), 1920, 1080);
    for (auto _ : state) {
        benchmark::DoNotOptimize(detector.ALgMotionDetect(picture.data(), 1920, 1080));
    }
}

void BM_JpegEncodeYuv_1080p_Q100(benchmark::State& state) {
    const int w = 1920, h = 1080;
    const auto& yuv = I420_1080p();
    const size_t plane = static_cast<size_t>(w) * h;
    std::vector<unsigned char> out(plane * 3);
    uint32_t length = 0;
    for (auto _ : state) {
        if (JpegEncodeYuv(yuv.data(), yuv.data() + plane, yuv.data() + plane * 5 / 4, w, h, 100, w, out.data(),
                          &length) != 0) {
            state.SkipWithError("encode failed");
            break;
        }
        benchmark::DoNotOptimize(out.data());
    }
    state.counters["bytes"] = length;
}

// libjpeg-turbo with its defaults (SIMD integer DCT, standard tables), fed
// the same picture as interleaved 4:4:4 YCbCr and coding it 1x1, quality 100.
void BM_LibjpegTurbo_1080p_Q100_444(benchmark::State& state) {
    const int w = 1920, h = 1080;
    const auto yuv444 = camctl_test::I420ToYuv444(I420_1080p().data(), w, h);
    std::vector<unsigned char> buffer(static_cast<size_t>(w) * h * 3);
    unsigned long length = 0;
    for (auto _ : state) {
        jpeg_compress_struct cinfo;
        jpeg_error_mgr err;
        cinfo.err = jpeg_std_error(&err);
        jpeg_create_compress(&cinfo);
        unsigned char* out = buffer.data();
        length = buffer.size();
        jpeg_mem_dest(&cinfo, &out, &length);
        cinfo.image_width = w;
        cinfo.image_height = h;
        cinfo.input_components = 3;
        cinfo.in_color_space = JCS_YCbCr;
        jpeg_set_defaults(&cinfo);
        for (int c = 0; c < 3; ++c) {
            cinfo.comp_info[c].h_samp_factor = 1;
            cinfo.comp_info[c].v_samp_factor = 1;
        }
        jpeg_set_quality(&cinfo, 100, TRUE);
        jpeg_start_compress(&cinfo, TRUE);
        while (cinfo.next_scanline < cinfo.image_height) {
            JSAMPROW row = const_cast<unsigned char*>(yuv444.data()) + static_cast<size_t>(cinfo.next_scanline) * w * 3;
            jpeg_write_scanlines(&cinfo, &row, 1);
        }
        jpeg_finish_compress(&cinfo);
        jpeg_destroy_compress(&cinfo);
        if (out != buffer.data()) free(out);  // only if libjpeg had to grow it
        benchmark::DoNotOptimize(buffer.data());
    }
    state.counters["bytes"] = static_cast<double>(length);
}

BENCHMARK(BM_MotionDetectRun_1080p_Static)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MotionDetectRun_1080p_Moving)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MotionDetectRun_CIF_Static)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_MotionDetectRun_CIF_Moving)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_ALgMotionDetect_1080p_FullScan)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_JpegEncodeYuv_1080p_Q100)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_LibjpegTurbo_1080p_Q100_444)->Unit(benchmark::kMillisecond);

// Console output plus the times needed for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        // CPU time: the machine is shared, wall time carries other load.
        // With repetitions the median wins over single runs.
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const std::string& name = run.run_name.function_name;
            if (run.run_type == Run::RT_Iteration && !medians_.count(name)) {
                seconds_[name] = run.cpu_accumulated_time / static_cast<double>(run.iterations);
            } else if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
                seconds_[name] = run.GetAdjustedCPUTime() * TimeUnitSeconds(run.time_unit);
                medians_.insert(name);
            }
        }
    }
    double Seconds(const std::string& name) const {
        auto it = seconds_.find(name);
        return it == seconds_.end() ? 0 : it->second;
    }

private:
    static double TimeUnitSeconds(benchmark::TimeUnit unit) {
        switch (unit) {
            case benchmark::kNanosecond: return 1e-9;
            case benchmark::kMicrosecond: return 1e-6;
            case benchmark::kMillisecond: return 1e-3;
            default: return 1.0;
        }
    }
    std::map<std::string, double> seconds_;
    std::set<std::string> medians_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);

    const double ours = reporter.Seconds("BM_JpegEncodeYuv_1080p_Q100");
    const double turbo = reporter.Seconds("BM_LibjpegTurbo_1080p_Q100_444");
    if (ours > 0 && turbo > 0) {
        printf("JPEG 1080p q100 4:4:4 (CPU time): ours %.2f ms, libjpeg-turbo %.2f ms, ratio %.2f (target <= 2.00)\n",
               ours * 1e3, turbo * 1e3, ours / turbo);
    }
    const double motion = reporter.Seconds("BM_MotionDetectRun_1080p_Static");
    if (motion > 0) {
        printf("MotionDetectRun 1080p static scene (CPU time): %.3f ms per picture (target <= 0.500)\n",
               motion * 1e3);
    }
    benchmark::Shutdown();
    return 0;
}
