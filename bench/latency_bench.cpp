// Live latency: how old a picture is when the host gets it.
//
// bench/latency_server.py serves 720p25 H.264 over RTSP; every picture
// carries its number as blocks along its top edge, and the server logs the
// moment the first RTP packet of each picture leaves. A reader takes the
// number back from the decoded picture and its age is arrival minus send
// (both CLOCK_MONOTONIC on this machine).
//
//   BM_Latency/camctl_smooth_off  a CUrlVideoSession, smooth stream off
//   BM_Latency/camctl_smooth_on   the same, smooth stream on (mode 1) with
//                                 the host's display timer every 2 ms
//   BM_Latency/ffmpeg_low_delay   ffmpeg -fflags nobuffer -flags low_delay
//                                 -rtsp_transport tcp -i URL -f rawvideo
//                                 (gray) read from a pipe
//   BM_Latency/gst_latency0       gst-launch-1.0 rtspsrc latency=0 !
//                                 decodebin ! GRAY8 ! fdsink, from a pipe
//
// Counters: p50_ms, p95_ms, p99_ms, pictures (measured after a 3 s warm-up).
// Environment: CAMCTL_LATENCY_TRIAL_S (default 60).
#include <benchmark/benchmark.h>
#include <signal.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <mutex>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "camctl/UrlVideoSession.h"
#include "support/fixtures.h"
#include "proc_stats.h"

namespace {

constexpr int kWidth = 1280, kHeight = 720, kBlock = 40;
constexpr double kWarmUpS = 3.0;

double Now() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return double(ts.tv_sec) + double(ts.tv_nsec) / 1e9;
}

int TrialSeconds() { return bench::EnvInt("CAMCTL_LATENCY_TRIAL_S", 60); }

// The picture number from a luma (or any one-channel) sample reader.
template <typename Sample>
uint32_t ReadNumber(Sample sample) {
    uint32_t n = 0;
    for (int bit = 0; bit < 32; ++bit) n = (n << 1) | (sample(bit * kBlock + kBlock / 2, kBlock / 2) > 128 ? 1u : 0u);
    return n;
}

// A child process with its stdout on a pipe (or none), in its own group.
class Child {
public:
    Child(const std::string& cmd, bool pipeOut) {
        int fds[2] = {-1, -1};
        if (pipeOut && pipe(fds) != 0) return;
        pid_ = fork();
        if (pid_ == 0) {
            setpgid(0, 0);
            if (pipeOut) {
                dup2(fds[1], 1);
                close(fds[0]);
                close(fds[1]);
            }
            execl("/bin/sh", "sh", "-c", ("exec " + cmd).c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
        if (pipeOut) {
            close(fds[1]);
            out_ = fds[0];
        }
    }
    ~Child() {
        if (out_ >= 0) close(out_);
        if (pid_ > 0) {
            kill(-pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    int out() const { return out_; }

private:
    pid_t pid_ = -1;
    int out_ = -1;
};

// The server and its send log: (client pipeline, picture) -> send time.
class StampedServer {
public:
    StampedServer() : log_(dir_ / "send.log") {
        const std::string portFile = dir_ / "port";
        server_ = std::make_unique<Child>("/usr/bin/python3 " + std::string(CAMCTL_SOURCE_DIR) +
                                              "/bench/latency_server.py --port-file " + portFile + " --send-log " + log_,
                                          false);
        for (int i = 0; i < 150 && port_ == 0; ++i) {
            std::ifstream f(portFile);
            if (!(f >> port_)) usleep(100 * 1000);
        }
    }
    bool ok() const { return port_ > 0; }
    std::string Url() const { return "rtsp://127.0.0.1:" + std::to_string(port_) + "/stamped"; }
    // Send times of the newest client pipeline (each client gets its own).
    std::map<uint32_t, double> SendTimes() const {
        std::ifstream f(log_);
        std::map<int, std::map<uint32_t, double>> byMedia;
        int media;
        uint32_t n;
        double t;
        while (f >> media >> n >> t) byMedia[media][n] = t;
        return byMedia.empty() ? std::map<uint32_t, double>() : byMedia.rbegin()->second;
    }

private:
    camctl_test::TempDir dir_;
    std::string log_;
    std::unique_ptr<Child> server_;
    int port_ = 0;
};

// Arrivals: picture number -> arrival time, first arrival only.
class Arrivals {
public:
    void Add(uint32_t n, double t) {
        std::lock_guard<std::mutex> lock(mu_);
        at_.emplace(n, t);
    }
    void Report(benchmark::State& state, const StampedServer& server, double measureFrom) {
        const std::map<uint32_t, double> sent = server.SendTimes();
        std::vector<double> ages;
        std::lock_guard<std::mutex> lock(mu_);
        for (const auto& [n, t] : at_) {
            auto s = sent.find(n);
            if (s != sent.end() && t >= measureFrom) ages.push_back((t - s->second) * 1000.0);
        }
        if (getenv("CAMCTL_LATENCY_DEBUG"))
            fprintf(stderr, "latency: %zu arrivals (%u..%u), %zu sent (%u..%u)\n", at_.size(),
                    at_.empty() ? 0 : at_.begin()->first, at_.empty() ? 0 : at_.rbegin()->first, sent.size(),
                    sent.empty() ? 0 : sent.begin()->first, sent.empty() ? 0 : sent.rbegin()->first);
        if (ages.size() < 100) return state.SkipWithError(("only " + std::to_string(ages.size()) + " pictures matched").c_str());
        std::sort(ages.begin(), ages.end());
        auto pct = [&](double p) { return ages[std::min(ages.size() - 1, size_t(p * double(ages.size())))]; };
        state.counters["p50_ms"] = pct(0.50);
        state.counters["p95_ms"] = pct(0.95);
        state.counters["p99_ms"] = pct(0.99);
        state.counters["pictures"] = double(ages.size());
    }

private:
    std::mutex mu_;
    std::map<uint32_t, double> at_;
};

class StampReader : public CUrlVideoSession {
public:
    explicit StampReader(Arrivals* arrivals) : arrivals_(arrivals) {}
    ~StampReader() override { VideoFree(); }
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        const double t = Now();
        if (width != kWidth || height != kHeight) return 0;
        // BGR24, rows bottom-up: picture row y is memory row height-1-y.
        arrivals_->Add(ReadNumber([&](int x, int y) { return buf[(size_t(height - 1 - y) * width + x) * 3 + 1]; }), t);
        return 0;
    }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    int UpdateMotionAlarmRegion(char*) override { return 0; }

private:
    Arrivals* arrivals_;
};

void RunCamctl(benchmark::State& state, int smooth) {
    StampedServer server;
    if (!server.ok()) return state.SkipWithError("latency server did not start");
    Arrivals arrivals;
    StampReader session(&arrivals);
    session.SetSmoothStream(smooth);
    if (session.VideoInit(&session, server.Url().c_str()) != 0) return state.SkipWithError("open failed");
    session.SetDecodeEnbale(1);
    std::atomic<bool> pacing{smooth != 0};
    std::thread pacer([&] {
        auto next = std::chrono::steady_clock::now();
        while (pacing.load()) {
            session.SendVideoCond();
            next += std::chrono::milliseconds(2);
            std::this_thread::sleep_until(next);
        }
    });
    const double from = Now() + kWarmUpS;
    for (auto _ : state) std::this_thread::sleep_for(std::chrono::duration<double>(kWarmUpS + TrialSeconds()));
    pacing = false;
    pacer.join();
    session.VideoFree();
    arrivals.Report(state, server, from);
}

// A reference reading gray 1280x720 pictures from a child's stdout.
void RunPipeReader(benchmark::State& state, const std::string& commandWithUrl) {
    StampedServer server;
    if (!server.ok()) return state.SkipWithError("latency server did not start");
    std::string cmd = commandWithUrl;
    cmd.replace(cmd.find("URL"), 3, server.Url());
    Arrivals arrivals;
    auto child = std::make_unique<Child>(cmd, true);
    const int out = child->out();
    std::thread reader([&arrivals, out] {
        std::vector<unsigned char> pic(size_t(kWidth) * kHeight);
        for (;;) {
            size_t got = 0;
            while (got < pic.size()) {
                const ssize_t r = read(out, pic.data() + got, pic.size() - got);
                if (r <= 0) return;
                got += size_t(r);
            }
            arrivals.Add(ReadNumber([&](int x, int y) { return pic[size_t(y) * kWidth + x]; }), Now());
        }
    });
    const double from = Now() + kWarmUpS;
    for (auto _ : state) std::this_thread::sleep_for(std::chrono::duration<double>(kWarmUpS + TrialSeconds()));
    child.reset();  // the reader sees the pipe close
    reader.join();
    arrivals.Report(state, server, from);
}

void BM_LatencyCamctlSmoothOff(benchmark::State& state) { RunCamctl(state, 0); }
void BM_LatencyCamctlSmoothOn(benchmark::State& state) { RunCamctl(state, 1); }
void BM_LatencyFfmpeg(benchmark::State& state) {
    RunPipeReader(state,
                  "ffmpeg -nostdin -hide_banner -loglevel error -fflags nobuffer -flags low_delay "
                  "-rtsp_transport tcp -i URL -f rawvideo -pix_fmt gray - 2>/dev/null");
}
void BM_LatencyGst(benchmark::State& state) {
    RunPipeReader(state,
                  "gst-launch-1.0 -q rtspsrc location=URL latency=0 protocols=tcp ! decodebin ! videoconvert ! "
                  "video/x-raw,format=GRAY8 ! fdsink fd=1 sync=false 2>/dev/null");
}

}  // namespace

BENCHMARK(BM_LatencyCamctlSmoothOff)->Name("BM_Latency/camctl_smooth_off")->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_LatencyCamctlSmoothOn)->Name("BM_Latency/camctl_smooth_on")->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_LatencyFfmpeg)->Name("BM_Latency/ffmpeg_low_delay")->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK(BM_LatencyGst)->Name("BM_Latency/gst_latency0")->Iterations(1)->UseRealTime()->Unit(benchmark::kSecond);
BENCHMARK_MAIN();
