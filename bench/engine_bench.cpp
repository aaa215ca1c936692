// A file session decoding a 10 s 1080p H.264 clip and delivering every
// picture as fast as it can, in each layout, against the ffmpeg command line
// decoding the same file single-threaded to the same pixel format:
//   BGR24 bottom-up  vs  ffmpeg -threads 1 -i FILE -pix_fmt bgr24 -f null -
//   I420             vs  ffmpeg -threads 1 -i FILE -pix_fmt yuv420p -f null -
// Each iteration runs both, so every ratio compares runs made side by side.
// ratio_fps = session pictures per second / ffmpeg pictures per second
// (wall time; the goal is >= 0.9 for BGR24 and >= 0.95 for I420).
// ratio_cpu_fps is the same from the CPU time each consumed (this process's
// threads, or the ffmpeg child), which stays meaningful on a loaded machine.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "camctl/FileVideoSession.h"
#include "support/fixtures.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPictures = 250;

const std::string& Clip1080p() {
    static const std::string path = camctl_test::Fixture(
        "bench_h264_1920x1080_10s.mp4",
        "-f lavfi -i testsrc2=size=1920x1080:rate=25 -t 10 -c:v libx264 -preset veryfast -bf 0 -g 25 "
        "-pix_fmt yuv420p");
    return path;
}

double CpuSeconds(int who) {
    rusage u{};
    getrusage(who, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct Cost {
    double wall = 0;
    double cpu = 0;
};

// A file session that only counts what it is given (and reads one byte of
// each picture, as any consumer would).
class CountingSession : public CFileVideoSession {
public:
    // Closed here, while this class's DoVideoBuffer still stands: the
    // base destructor would leave the engine calling the owner forwarding.
    ~CountingSession() override { VideoFree(); }
    int DoVideoBuffer(unsigned char* buf, int, int) override {
        std::lock_guard<std::mutex> lock(mu_);
        checksum_ += buf[0];
        if (++count_ >= kPictures) done_.notify_all();
        return 0;
    }
    bool WaitAll(int timeout_s) {
        std::unique_lock<std::mutex> lock(mu_);
        return done_.wait_for(lock, std::chrono::seconds(timeout_s), [&] { return count_ >= kPictures; });
    }

private:
    std::mutex mu_;
    std::condition_variable done_;
    int count_ = 0;
    unsigned checksum_ = 0;
};

bool RunSession(int yuv, Cost* cost) {
    const double cpu0 = CpuSeconds(RUSAGE_SELF);
    const auto t0 = Clock::now();
    CountingSession s;
    s.SetD3DDisplay(yuv);
    if (s.VideoInit(&s, Clip1080p().c_str()) != 0) return false;
    bool ok = s.WaitAll(120);
    cost->wall = std::chrono::duration<double>(Clock::now() - t0).count();
    cost->cpu = CpuSeconds(RUSAGE_SELF) - cpu0;
    s.VideoFree();
    return ok;
}

bool RunFfmpeg(const char* pixFmt, Cost* cost) {
    const double cpu0 = CpuSeconds(RUSAGE_CHILDREN);
    const auto t0 = Clock::now();
    int rc = camctl_test::RunCommand("ffmpeg -hide_banner -loglevel error -nostdin -threads 1 -i '" + Clip1080p() +
                                     "' -pix_fmt " + pixFmt + " -f null -");
    cost->wall = std::chrono::duration<double>(Clock::now() - t0).count();
    cost->cpu = CpuSeconds(RUSAGE_CHILDREN) - cpu0;
    return rc == 0;
}

void SessionVsFfmpeg(benchmark::State& state, int yuv, const char* pixFmt) {
    Clip1080p();
    Cost total, reference;
    for (auto _ : state) {
        Cost session, ffmpeg;
        if (!RunSession(yuv, &session) || !RunFfmpeg(pixFmt, &ffmpeg)) {
            state.SkipWithError("session or ffmpeg failed");
            return;
        }
        state.SetIterationTime(session.wall);
        total.wall += session.wall;
        total.cpu += session.cpu;
        reference.wall += ffmpeg.wall;
        reference.cpu += ffmpeg.cpu;
    }
    const double n = double(state.iterations()) * kPictures;
    state.counters["session_fps"] = n / total.wall;
    state.counters["ffmpeg_fps"] = n / reference.wall;
    state.counters["ratio_fps"] = reference.wall / total.wall;
    state.counters["session_cpu_ms"] = total.cpu * 1000 / n;
    state.counters["ffmpeg_cpu_ms"] = reference.cpu * 1000 / n;
    state.counters["ratio_cpu_fps"] = reference.cpu / total.cpu;
}

void BM_FileSession_Bgr24_vs_ffmpeg(benchmark::State& state) { SessionVsFfmpeg(state, 0, "bgr24"); }
void BM_FileSession_I420_vs_ffmpeg(benchmark::State& state) { SessionVsFfmpeg(state, 1, "yuv420p"); }

BENCHMARK(BM_FileSession_Bgr24_vs_ffmpeg)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_FileSession_I420_vs_ffmpeg)->UseManualTime()->Iterations(3)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
