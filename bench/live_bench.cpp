// Live sources on loopback: how long a stream takes to show its first
// picture, and how many simulated 720p cameras the library keeps up with.
//
//   BM_TimeToFirstPicture/http  a live session on the camera simulator
//                               (in process) serving a 720p H.264 clip
//   BM_TimeToFirstPicture/rtsp  a live session on GStreamer's RTSP server
//                               (720p H.264, key frame every 25 pictures),
//                               against ffmpeg -frames:v 1 on the same URL
//   BM_IdleManager              CPU of the camera manager's timer with 8
//                               cameras that have no stream open
//   BM_Reference720pBgr         ffmpeg -threads 1 -pix_fmt bgr24 -f null on the
//                               same clip: the single-core decode rate that
//                               bounds the camera count (2 x fps / 25)
//   BM_LiveSessions/N           N live sessions, each on its own simulator
//                               connection (720p H.264, 25 fps, key frame
//                               every 25), BGR24 pictures, a motion detector
//                               run on every picture as a camera does
//
// Counters of BM_LiveSessions/N (measured over the trial after a warm-up):
//   min_fps, mean_fps     delivered pictures per second per session
//   flushes               live-queue flushes ("GetAVPktListElmCount" lines)
//   keeps_up              1 when every session kept >= 24.5 fps with no flush
//   lib_cpu_pct_per_cam   CPU of the library's threads (camctl/*) per session,
//                         in % of one core (the simulator is not counted)
//   proc_cpu_pct          CPU of the whole process, % of one core
//   rss_mb_per_cam        resident memory added per session
//
// Environment: CAMCTL_LIVE_N (comma list, default "1,4,8"),
// CAMCTL_LIVE_TRIAL_S (trial seconds, default 20), CAMCTL_LIVE_TTFP_RUNS
// (default 5). Run one N per process (--benchmark_filter) for clean RSS.
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <malloc.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camctl/MotionDetector.h"
#include "camctl/UrlVideoSession.h"
#include "camsim/server.h"
#include "support/engine_support.h"
#include "support/fixtures.h"
#include "support/rtsp_server.h"
#include "proc_stats.h"

namespace {

using bench::EnvInt;
using bench::RssMb;
using Clock = std::chrono::steady_clock;

constexpr double kRequiredFps = 24.5;
constexpr int kWarmUpMs = 4000;
double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

double Median(std::vector<double> v) {
    if (v.empty()) return -1;
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

double ProcessCpuSeconds(int who) {
    rusage u{};
    getrusage(who, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// CPU seconds of this process's threads whose name starts with prefix.
double ThreadCpuSeconds(const char* prefix) {
    static const double kTicks = double(sysconf(_SC_CLK_TCK));
    double total = 0;
    DIR* dir = opendir("/proc/self/task");
    if (!dir) return 0;
    while (dirent* e = readdir(dir)) {
        if (e->d_name[0] == '.') continue;
        std::ifstream f(std::string("/proc/self/task/") + e->d_name + "/stat");
        std::string stat;
        std::getline(f, stat);
        // pid (comm) state ... field 14 utime, 15 stime
        const size_t open = stat.find('('), close = stat.rfind(')');
        if (open == std::string::npos || close == std::string::npos) continue;
        if (stat.compare(open + 1, strlen(prefix), prefix) != 0) continue;
        std::istringstream rest(stat.substr(close + 2));
        std::string field;
        unsigned long long utime = 0, stime = 0;
        for (int i = 3; i <= 15 && rest >> field; ++i) {
            if (i == 14) utime = std::stoull(field);
            if (i == 15) stime = std::stoull(field);
        }
        total += double(utime + stime) / kTicks;
    }
    closedir(dir);
    return total;
}
int CountOccurrences(const std::string& text, const std::string& what) {
    int n = 0;
    for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + what.size())) ++n;
    return n;
}

// The 720p clip the simulator serves (the camera benchmark uses the same).
const std::string& Clip720p() {
    static const std::string path = camctl_test::Fixture(
        "bench_testsrc2_1280x720_25fps_10s.mp4",
        "-f lavfi -i testsrc2=size=1280x720:rate=25 -t 10 -c:v libx264 -preset veryfast "
        "-bf 0 -g 25 -pix_fmt yuv420p");
    return path;
}

// A live session that counts its pictures and runs a motion detector over
// each, as a camera does with its main stream.
class LiveSession : public CUrlVideoSession {
public:
    explicit LiveSession(bool motion) : motion_(motion) {}
    // Closed while this class's slots still stand.
    ~LiveSession() override { VideoFree(); }
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        if (pictures.load(std::memory_order_relaxed) == 0) firstPicture = Clock::now();
        if (motion_) {
            if (width != width_ || height != height_) {
                detector_.Init(this, width, height);
                detector_.SetDetectEnable(1);
                width_ = width;
                height_ = height;
            }
            detector_.MotionDetectRun(buf, width, height);
        }
        pictures.fetch_add(1, std::memory_order_release);
        return 0;
    }
    // Not forwarded to a camera: this session has none.
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    int UpdateMotionAlarmRegion(char*) override { return 0; }
    std::atomic<int> pictures{0};
    Clock::time_point firstPicture;  // written before the first count is published

private:
    bool motion_;
    CMotionDetector detector_;
    int width_ = 0;
    int height_ = 0;
};

std::unique_ptr<camsim::Server> StartSimulator(benchmark::State& state) {
    camsim::Options o;
    o.file = Clip720p();
    auto server = std::make_unique<camsim::Server>(o);
    std::string error;
    if (!server->Start(&error)) {
        state.SkipWithError(("simulator: " + error).c_str());
        return nullptr;
    }
    return server;
}

// Open to first delivered picture, the way a host opens a camera stream:
// VideoInit, then decoding switched on.
double TimeToFirstPictureMs(const std::string& url) {
    LiveSession s(false);
    const auto t0 = Clock::now();
    if (s.VideoInit(&s, url.c_str()) != 0) return -1;
    s.SetDecodeEnbale(1);
    const bool ok = camctl_test::PictureLog::WaitUntil(
        [&] { return s.pictures.load(std::memory_order_acquire) > 0; }, 10000);
    const double ms = ok ? Seconds(s.firstPicture - t0) * 1000 : -1;
    s.VideoFree();
    return ms;
}

void BM_TimeToFirstPictureHttp(benchmark::State& state) {
    auto server = StartSimulator(state);
    if (!server) return;
    const int runs = EnvInt("CAMCTL_LIVE_TTFP_RUNS", 5);
    std::vector<double> ms;
    for (auto _ : state) {
        for (int i = 0; i < runs; ++i) {
            const double t = TimeToFirstPictureMs(server->Url());
            if (t < 0) {
                state.SkipWithError("no picture within 10 s");
                return;
            }
            ms.push_back(t);
        }
        state.SetIterationTime(Median(ms) / 1000);
    }
    state.counters["ttfp_ms"] = Median(ms);
    state.counters["ttfp_max_ms"] = *std::max_element(ms.begin(), ms.end());
}

void BM_TimeToFirstPictureRtsp(benchmark::State& state) {
    if (!camctl_test::RtspServer::Available()) {
        state.SkipWithError("no RTSP server bindings (python3-gi)");
        return;
    }
    camctl_test::RtspServer server({{"/cam", camctl_test::RtspServer::H264(1280, 720, 25, 25)}});
    if (!server.ok()) {
        state.SkipWithError("RTSP server did not start");
        return;
    }
    const std::string url = server.Url("/cam");
    const int runs = EnvInt("CAMCTL_LIVE_TTFP_RUNS", 5);
    std::vector<double> ms, ref;
    for (auto _ : state) {
        for (int i = 0; i < runs; ++i) {
            const double t = TimeToFirstPictureMs(url);
            if (t < 0) {
                state.SkipWithError("no picture within 10 s");
                return;
            }
            ms.push_back(t);
            // The reference: the ffmpeg command line up to its first decoded
            // picture (process start included), over TCP as the engine tries first.
            const auto t0 = Clock::now();
            const int rc = camctl_test::RunCommand("ffmpeg -hide_banner -loglevel error -nostdin -rtsp_transport tcp -i '" +
                                                   url + "' -frames:v 1 -f null - 2>/dev/null");
            if (rc == 0) ref.push_back(Seconds(Clock::now() - t0) * 1000);
        }
        state.SetIterationTime(Median(ms) / 1000);
    }
    state.counters["ttfp_ms"] = Median(ms);
    state.counters["ttfp_max_ms"] = *std::max_element(ms.begin(), ms.end());
    if (!ref.empty()) state.counters["ffmpeg_ttfp_ms"] = Median(ref);
}

// The manager's 50 ms timer walking 8 cameras with nothing open, measured
// as the whole process's CPU while the main thread sleeps.
void BM_IdleManager(benchmark::State& state) {
    constexpr int kCameras = 8;
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    for (int i = 0; i < kCameras; ++i) mgr->AddIpCamera(500 + i, ("idle" + std::to_string(i)).c_str(), "127.0.0.1");
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    double pct = 0;
    for (auto _ : state) {
        const double c0 = ProcessCpuSeconds(RUSAGE_SELF);
        const auto t0 = Clock::now();
        std::this_thread::sleep_for(std::chrono::seconds(3));
        const double wall = Seconds(Clock::now() - t0);
        pct = 100 * (ProcessCpuSeconds(RUSAGE_SELF) - c0) / wall;
        state.SetIterationTime(wall);
    }
    for (int i = 0; i < kCameras; ++i) mgr->DelIpCamera(500 + i);
    state.counters["core_pct"] = pct;
    state.counters["core_pct_per_camera"] = pct / kCameras;
}

void BM_Reference720pBgr(benchmark::State& state) {
    const std::string cmd =
        "ffmpeg -hide_banner -loglevel error -nostdin -threads 1 -i '" + Clip720p() + "' -pix_fmt bgr24 -f null -";
    const int frames = 250;
    double wall = 0, cpu = 0;
    for (auto _ : state) {
        const double c0 = ProcessCpuSeconds(RUSAGE_CHILDREN);
        const auto t0 = Clock::now();
        if (camctl_test::RunCommand(cmd) != 0) {
            state.SkipWithError("ffmpeg failed");
            return;
        }
        wall = Seconds(Clock::now() - t0);
        cpu = ProcessCpuSeconds(RUSAGE_CHILDREN) - c0;
        state.SetIterationTime(wall);
    }
    state.counters["ref_fps"] = frames / wall;
    state.counters["ref_cpu_fps"] = frames / cpu;
    state.counters["bound"] = 2 * (frames / cpu) / 25;  // two cores, 25 fps per camera
}

void BM_LiveSessions(benchmark::State& state) {
    const int n = int(state.range(0));
    const int trialMs = EnvInt("CAMCTL_LIVE_TRIAL_S", 20) * 1000;
    auto server = StartSimulator(state);
    if (!server) return;
    Clip720p();
    malloc_trim(0);
    const double rss0 = RssMb();

    for (auto _ : state) {
        camctl_test::StderrCapture capture;
        std::vector<std::unique_ptr<LiveSession>> sessions;
        for (int i = 0; i < n; ++i) {
            sessions.push_back(std::make_unique<LiveSession>(true));
            LiveSession& s = *sessions.back();
            if (s.VideoInit(&s, server->Url().c_str()) != 0) {
                state.SkipWithError("VideoInit failed");
                for (auto& p : sessions) p->VideoFree();
                return;
            }
            s.SetDecodeEnbale(1);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(kWarmUpMs));
        const int flushesBefore = CountOccurrences(capture.Text(), "GetAVPktListElmCount");
        std::vector<int> start;
        for (auto& s : sessions) start.push_back(s->pictures.load());
        const double lib0 = ThreadCpuSeconds("camctl/"), proc0 = ProcessCpuSeconds(RUSAGE_SELF);
        const auto t0 = Clock::now();
        std::this_thread::sleep_for(std::chrono::milliseconds(trialMs));
        const double wall = Seconds(Clock::now() - t0);
        const double lib = ThreadCpuSeconds("camctl/") - lib0, proc = ProcessCpuSeconds(RUSAGE_SELF) - proc0;
        const double rss = RssMb();
        double minFps = 1e9, sumFps = 0;
        for (size_t i = 0; i < sessions.size(); ++i) {
            const double fps = (sessions[i]->pictures.load() - start[i]) / wall;
            minFps = std::min(minFps, fps);
            sumFps += fps;
        }
        const int flushes = CountOccurrences(capture.Text(), "GetAVPktListElmCount") - flushesBefore;
        for (auto& s : sessions) s->VideoFree();
        capture.Stop();
        state.SetIterationTime(wall);

        state.counters["cameras"] = n;
        state.counters["min_fps"] = minFps;
        state.counters["mean_fps"] = sumFps / n;
        state.counters["flushes"] = flushes;
        state.counters["keeps_up"] = (minFps >= kRequiredFps && flushes == 0) ? 1 : 0;
        state.counters["lib_cpu_pct_per_cam"] = 100 * lib / wall / n;
        state.counters["proc_cpu_pct"] = 100 * proc / wall;
        state.counters["rss_mb_per_cam"] = (rss - rss0) / n;
    }
}

std::vector<int> CameraCounts() {
    std::vector<int> out;
    const char* v = getenv("CAMCTL_LIVE_N");
    std::stringstream list(v && *v ? v : "1,4,8");
    std::string item;
    while (std::getline(list, item, ','))
        if (atoi(item.c_str()) > 0) out.push_back(atoi(item.c_str()));
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    benchmark::RegisterBenchmark("BM_TimeToFirstPicture/http", BM_TimeToFirstPictureHttp)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_TimeToFirstPicture/rtsp", BM_TimeToFirstPictureRtsp)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_IdleManager", BM_IdleManager)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    benchmark::RegisterBenchmark("BM_Reference720pBgr", BM_Reference720pBgr)
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMillisecond);
    auto* live = benchmark::RegisterBenchmark("BM_LiveSessions", BM_LiveSessions);
    for (int n : CameraCounts()) live->Arg(n);
    live->Iterations(1)->UseManualTime()->Unit(benchmark::kSecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
