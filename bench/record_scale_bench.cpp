// Recording-only cameras at scale: how cheap a camera is when the host only
// records (decoding off), against one `ffmpeg -c copy -f segment` process per
// camera, the usual way of recording many cameras.
//
//   BM_RecordScaleHttp/N   N cameras (CIpCameraManager/CIpCamera) on the
//                          camera simulator run as a separate process
//                          (private HTTP stream, the cheapest server), half
//                          of them with G.711 audio
//   BM_RecordScaleRtsp/N   N cameras on GStreamer's RTSP server (each client
//                          its own file-fed pipeline, no encoding)
//   BM_RecordScaleFfmpeg/N N ffmpeg -rtsp_transport tcp -i URL -c copy -f
//                          segment -segment_time 10 processes, same server
//
// Every camera records 1080p25 H.264 of about 2 Mbit/s in 10 s segments for
// the trial (default 60 s, CAMCTL_RECORD_TRIAL_S). A watcher checks each
// segment as it closes (ffprobe reads it, the codec tag, the first packet is
// a key frame, the pictures it holds against its length) and deletes it, so
// the disk stays small.
//
// Counters: cpu_pct_per_cam (% of one core, the client process or the
// ffmpeg processes, servers excluded), rss_mb_per_cam, threads_per_cam,
// fds_per_cam, server_cpu_pct, segments, segments_bad, missing_pct (pictures
// missing against the segments' own lengths, one key-frame interval allowed
// per boundary).
//
// Environment: CAMCTL_RECORD_N (default "20" for HTTP), CAMCTL_RECORD_REF_N
// (RTSP and ffmpeg sample, default 8), CAMCTL_RECORD_TRIAL_S (default 60).
#include <benchmark/benchmark.h>
#include <dirent.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
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

#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "support/fixtures.h"
#include "support/rtsp_server.h"
#include "proc_stats.h"

namespace {

using bench::CountEntries;
using bench::EnvInt;
using bench::ProcCpuSeconds;
using Clock = std::chrono::steady_clock;
constexpr int kSegmentSec = 10;
constexpr int kFps = 25;
constexpr int kGop = 25;
// 75 s so that a file-fed RTSP pipeline outlasts a 60 s trial without looping.
std::string Clip(bool audio) {
    if (!audio)
        return camctl_test::Fixture(
            "bench_1080p25_2mbit_75s.mp4",
            "-f lavfi -i testsrc2=size=1920x1080:rate=25 -t 75 -c:v libx264 -preset ultrafast "
            "-b:v 2M -maxrate 2M -bufsize 2M -g 25 -bf 0 -pix_fmt yuv420p");
    return camctl_test::Fixture(
        "bench_1080p25_2mbit_75s_ulaw.mkv",
        "-f lavfi -i testsrc2=size=1920x1080:rate=25 -f lavfi -i sine=frequency=440:sample_rate=8000 "
        "-t 75 -c:v libx264 -preset ultrafast -b:v 2M -maxrate 2M -bufsize 2M -g 25 -bf 0 "
        "-pix_fmt yuv420p -c:a pcm_mulaw -ac 1");
}
// A child process run through /bin/sh, killed with SIGINT (then SIGKILL) at
// the end so that ffmpeg closes its last segment.
class Child {
public:
    explicit Child(const std::string& cmd) {
        pid_ = fork();
        if (pid_ == 0) {
            setpgid(0, 0);
            execl("/bin/sh", "sh", "-c", ("exec " + cmd).c_str(), static_cast<char*>(nullptr));
            _exit(127);
        }
    }
    ~Child() { Stop(); }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;
    pid_t pid() const { return pid_; }
    void Stop() {
        if (pid_ <= 0) return;
        kill(pid_, SIGINT);
        for (int i = 0; i < 50; ++i) {
            if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
                pid_ = -1;
                return;
            }
            usleep(100 * 1000);
        }
        kill(pid_, SIGKILL);
        waitpid(pid_, nullptr, 0);
        pid_ = -1;
    }

private:
    pid_t pid_ = -1;
};

// Checks closed segments and deletes them. A segment is closed when a newer
// one exists in its folder (ffmpeg) or when its name carries its length
// (the camera renames a finished recording "..._<reason>_<seconds>.avi").
class SegmentWatcher {
public:
    SegmentWatcher(std::vector<std::string> dirs, bool cameraNames) : dirs_(std::move(dirs)), camera_(cameraNames) {
        thread_ = std::thread([this] { Loop(); });
    }
    ~SegmentWatcher() { Finish(); }
    SegmentWatcher(const SegmentWatcher&) = delete;
    SegmentWatcher& operator=(const SegmentWatcher&) = delete;

    // Stops watching and checks whatever closed since (call after the
    // recorders have stopped: every remaining file is then closed).
    void Finish() {
        if (!thread_.joinable()) return;
        stop_ = true;
        thread_.join();
        Scan(true);
    }
    // The recordings are about to be stopped: segments that close from now
    // on were cut by the stop.
    void Stopping() { stopping_ = true; }
    int segments = 0;
    int bad = 0;
    int emptyTails = 0;
    long missing = 0;
    long expected = 0;
    std::string firstProblem;

private:
    void Loop() {
        while (!stop_) {
            Scan(false);
            for (int i = 0; i < 10 && !stop_; ++i) usleep(100 * 1000);
        }
    }

    void Scan(bool all) {
        for (const std::string& dir : dirs_) {
            std::vector<std::string> files = camctl_test::ListFiles(dir);
            files.erase(std::remove_if(files.begin(), files.end(),
                                       [](const std::string& f) { return f.size() < 4 || f.substr(f.size() - 4) != ".avi"; }),
                        files.end());
            for (size_t i = 0; i < files.size(); ++i) {
                const bool closed = all || (camera_ ? LengthFromName(files[i]) >= 0 : i + 1 < files.size());
                // The first segment of a camera starts late; ffmpeg's last one is
                // cut by the stop: neither is held to its length.
                if (closed) Check(files[i], seen_[dir]++ > 0 && !(all && !camera_), stopping_);
            }
        }
    }

    // The seconds a camera recording's name gives, or -1.
    static int LengthFromName(const std::string& path) {
        const size_t dot = path.rfind(".avi");
        const size_t us = path.rfind('_', dot);
        const size_t us2 = us == std::string::npos ? us : path.rfind('_', us - 1);
        if (us2 == std::string::npos || us2 < path.rfind('/')) return -1;
        // name+id_YYYYMMDD-hhmmss_<reason>_<seconds>.avi: three underscores after the id
        int n = 0;
        for (size_t p = path.rfind('/'); p < dot; ++p) n += path[p] == '_';
        if (n < 3) return -1;
        return atoi(path.c_str() + us + 1);
    }

    void Check(const std::string& file, bool holdToLength, bool stopped) {
        std::string tag = camctl_test::Ffprobe(
            "-select_streams v:0 -count_packets -show_entries stream=codec_tag_string,nb_read_packets -of csv=p=0", file);
        std::string first = camctl_test::Ffprobe(
            "-select_streams v:0 -read_intervals %+#1 -show_entries packet=flags -of csv=p=0", file);
        unlink(file.c_str());
        ++segments;
        int packets = 0;
        char fourcc[16] = {};
        const bool parsed = sscanf(tag.c_str(), "%15[^,],%d", fourcc, &packets) == 2;
        const bool ok = parsed && std::string(fourcc) == "H264" && packets > 0 && first.find('K') != std::string::npos;
        // A segment begun in the trial's last second and closed by the stop
        // before its first key frame holds no picture (nothing is lost: the
        // boundary allowance covers those pictures); counted apart.
        if (!ok && stopped && camera_ && LengthFromName(file) == 0 && packets == 0) {
            ++emptyTails;
            return;
        }
        if (!ok) {
            ++bad;
            if (firstProblem.empty()) firstProblem = file + ": " + tag + " / " + first;
        }
        // The camera's recording length is whole seconds; one key-frame
        // interval may be lost at each boundary.
        const int seconds = camera_ ? LengthFromName(file) : kSegmentSec;
        if (seconds > 1 && holdToLength) {
            const long want = long(seconds - 1) * kFps - kGop;
            expected += want;
            if (packets < want) missing += want - packets;
        }
    }

    std::vector<std::string> dirs_;
    std::map<std::string, int> seen_;  // segments checked per folder
    bool camera_;
    std::atomic<bool> stop_{false};
    std::atomic<bool> stopping_{false};
    std::thread thread_;
};
void Report(benchmark::State& state, int n, double cpuSeconds, double seconds, double rssMb, double threads,
            double fds, double serverCpu, SegmentWatcher& w) {
    state.counters["cameras"] = n;
    state.counters["cpu_pct_per_cam"] = cpuSeconds / seconds * 100.0 / n;
    state.counters["rss_mb_per_cam"] = rssMb / n;
    state.counters["threads_per_cam"] = threads / n;
    state.counters["fds_per_cam"] = fds / n;
    state.counters["server_cpu_pct"] = serverCpu / seconds * 100.0;
    state.counters["segments"] = w.segments;
    state.counters["segments_bad"] = w.bad;
    state.counters["segments_empty_tail"] = w.emptyTails;
    state.counters["missing_pct"] = w.expected ? 100.0 * double(w.missing) / double(w.expected) : 0;
    if (!w.firstProblem.empty()) fprintf(stderr, "record_scale: %s\n", w.firstProblem.c_str());
}

// N cameras recording from the given URLs; measures this process.
void RunCameras(benchmark::State& state, const std::vector<std::string>& urls, pid_t server) {
    const int n = int(urls.size());
    const int trial = EnvInt("CAMCTL_RECORD_TRIAL_S", 60);
    camctl_test::TempDir root;
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    const double rss0 = bench::RssMb(0);
    const int threads0 = CountEntries("/proc/self/task"), fds0 = CountEntries("/proc/self/fd");
    std::vector<CIpCamera*> cams(n, nullptr);
    std::vector<std::string> dirs(n);
    std::atomic<int> next{0}, failed{0};
    auto opener = [&] {
        for (int i = next++; i < n; i = next++) {
            const std::string name = "rec" + std::to_string(i);
            CIpCamera* cam = mgr->AddIpCamera(1000 + i, name.c_str(), "127.0.0.1");
            dirs[i] = root / name;
            mkdir(dirs[i].c_str(), 0755);
            if (!cam || cam->SetSaveDir(dirs[i].c_str(), nullptr) != 0 || cam->OpenMainStreamVideo(urls[i].c_str()) != 0) {
                ++failed;
                continue;
            }
            cam->SetDecodeEnable(false, false);
            cam->m_nAutoRecordSec = kSegmentSec;
            if (cam->StartSaveAvi(1) != 0) ++failed;
            cams[i] = cam;
        }
    };
    std::vector<std::thread> openers;
    for (int t = 0; t < 4; ++t) openers.emplace_back(opener);
    for (auto& t : openers) t.join();
    if (failed) {
        state.SkipWithError((std::to_string(failed.load()) + " cameras did not open or record").c_str());
        mgr->DelAllCamera();
        return;
    }
    SegmentWatcher watcher(dirs, true);
    std::this_thread::sleep_for(std::chrono::seconds(3));  // past the opening bursts
    const double cpu0 = ProcCpuSeconds(0), server0 = server > 0 ? ProcCpuSeconds(server) : 0;
    const auto t0 = Clock::now();
    for (auto _ : state) std::this_thread::sleep_for(std::chrono::seconds(trial));
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    const double cpu = ProcCpuSeconds(0) - cpu0, serverCpu = server > 0 ? ProcCpuSeconds(server) - server0 : 0;
    const double rss = bench::RssMb(0) - rss0;
    const double threads = CountEntries("/proc/self/task") - threads0, fds = CountEntries("/proc/self/fd") - fds0;
    watcher.Stopping();
    for (CIpCamera* cam : cams) cam->StopSaveAvi(7);
    mgr->DelAllCamera();
    watcher.Finish();
    Report(state, n, cpu, seconds, rss, threads, fds, serverCpu, watcher);
}

std::string CamsimBinary() { return std::string(CAMCTL_BINARY_DIR) + "/tools/camsim"; }

void BM_RecordScaleHttp(benchmark::State& state) {
    const int n = int(state.range(0));
    const int portA = camctl_test::FreeLoopbackPort(), portB = camctl_test::FreeLoopbackPort();
    Child plain(CamsimBinary() + " --port " + std::to_string(portA) + " --file " + Clip(false) + " >/dev/null");
    Child withAudio(CamsimBinary() + " --port " + std::to_string(portB) + " --file " + Clip(true) + " >/dev/null");
    std::this_thread::sleep_for(std::chrono::seconds(2));  // both listening (bench only)
    std::vector<std::string> urls;
    for (int i = 0; i < n; ++i)
        urls.push_back("http://127.0.0.1:" + std::to_string(i % 2 ? portB : portA) + "/stream");
    RunCameras(state, urls, plain.pid());
}

std::string RtspLaunch(bool audio) {
    if (!audio)
        return "( filesrc location=" + Clip(false) +
               " ! qtdemux ! h264parse ! rtph264pay name=pay0 pt=96 config-interval=-1 )";
    return "( filesrc location=" + Clip(true) +
           " ! matroskademux name=d d.video_0 ! queue ! h264parse ! rtph264pay name=pay0 pt=96 config-interval=-1"
           " d.audio_0 ! queue ! rtppcmupay name=pay1 )";
}

std::vector<std::string> RtspUrls(const camctl_test::RtspServer& server, int n) {
    std::vector<std::string> urls;
    for (int i = 0; i < n; ++i) urls.push_back(server.Url(i % 2 ? "/audio" : "/plain"));
    return urls;
}

void BM_RecordScaleRtsp(benchmark::State& state) {
    camctl_test::RtspServer server({{"/plain", RtspLaunch(false)}, {"/audio", RtspLaunch(true)}});
    if (!server.ok()) return state.SkipWithError("RTSP server did not start");
    RunCameras(state, RtspUrls(server, int(state.range(0))), server.pid());
}

void BM_RecordScaleFfmpeg(benchmark::State& state) {
    const int n = int(state.range(0));
    const int trial = EnvInt("CAMCTL_RECORD_TRIAL_S", 60);
    camctl_test::RtspServer server({{"/plain", RtspLaunch(false)}, {"/audio", RtspLaunch(true)}});
    if (!server.ok()) return state.SkipWithError("RTSP server did not start");
    camctl_test::TempDir root;
    std::vector<std::string> dirs;
    std::vector<std::unique_ptr<Child>> procs;
    const std::vector<std::string> urls = RtspUrls(server, n);
    for (int i = 0; i < n; ++i) {
        dirs.push_back(root / ("ff" + std::to_string(i)));
        mkdir(dirs.back().c_str(), 0755);
        procs.push_back(std::make_unique<Child>(
            "ffmpeg -nostdin -hide_banner -loglevel error -rtsp_transport tcp -i " + urls[i] +
            " -c copy -f segment -segment_time " + std::to_string(kSegmentSec) + " " + dirs.back() + "/seg%03d.avi"));
    }
    SegmentWatcher watcher(dirs, false);
    std::this_thread::sleep_for(std::chrono::seconds(3));
    std::vector<double> cpu0;
    for (auto& p : procs) cpu0.push_back(ProcCpuSeconds(p->pid()));
    const double server0 = ProcCpuSeconds(server.pid());
    const auto t0 = Clock::now();
    for (auto _ : state) std::this_thread::sleep_for(std::chrono::seconds(trial));
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    double cpu = 0, rss = 0, threads = 0, fds = 0;
    for (size_t i = 0; i < procs.size(); ++i) {
        const std::string proc = "/proc/" + std::to_string(procs[i]->pid());
        cpu += ProcCpuSeconds(procs[i]->pid()) - cpu0[i];
        rss += bench::RssMb(procs[i]->pid());
        threads += CountEntries(proc + "/task");
        fds += CountEntries(proc + "/fd");
    }
    const double serverCpu = ProcCpuSeconds(server.pid()) - server0;
    for (auto& p : procs) p->Stop();
    watcher.Finish();
    Report(state, n, cpu, seconds, rss, threads, fds, serverCpu, watcher);
}

std::vector<int64_t> Counts(const char* env, const char* fallback) {
    const char* v = getenv(env);
    std::vector<int64_t> out;
    std::stringstream ss(v && *v ? v : fallback);
    for (std::string item; std::getline(ss, item, ',');)
        if (atoi(item.c_str()) > 0) out.push_back(atoi(item.c_str()));
    return out;
}

}  // namespace

int main(int argc, char** argv) {
    for (int64_t n : Counts("CAMCTL_RECORD_N", "20"))
        benchmark::RegisterBenchmark("BM_RecordScaleHttp", BM_RecordScaleHttp)
            ->Arg(n)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
    for (int64_t n : Counts("CAMCTL_RECORD_REF_N", "8")) {
        benchmark::RegisterBenchmark("BM_RecordScaleRtsp", BM_RecordScaleRtsp)
            ->Arg(n)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
        benchmark::RegisterBenchmark("BM_RecordScaleFfmpeg", BM_RecordScaleFfmpeg)
            ->Arg(n)->Iterations(1)->Unit(benchmark::kSecond)->UseRealTime();
    }
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
