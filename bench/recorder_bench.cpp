// Recording throughput: packets of a 1080p H.264 file demuxed and handed to
// the recorder's write step (RecordStart, RecordWritePacket per packet,
// RecordStop with the frame-rate fix-up), against `ffmpeg -i FILE -c copy
// -f avi` on the same file in the same run. The ratio (ours / ffmpeg, in
// packets per second) is printed at the end.
//
// Both figures leave out opening and probing the input: ffmpeg's by running
// it a second time on the first video packet only and subtracting that time
// (process start-up, probing, header), ours by timing from RecordStart to
// the end of RecordStop. What remains is reading the packets and writing
// them out, index and trailer included.
#include <benchmark/benchmark.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>
#include <vector>

#include "engine/engine.h"
#include "support/fixtures.h"

namespace {

const char* kSource = "-f lavfi -i testsrc2=size=1920x1080:rate=25 -t 20 -c:v libx264 -preset ultrafast -bf 0 -g 25 "
                      "-pix_fmt yuv420p";

std::string SourceFile(const std::string& ext) { return camctl_test::Fixture("bench_1080p_h264." + ext, kSource); }

int CountPackets(const std::string& file) {
    std::string out = camctl_test::Ffprobe("-count_packets -show_entries stream=nb_read_packets -of csv=p=0", file);
    return out.empty() ? 0 : std::stoi(out);
}

// CPU seconds of this thread, and of all waited-for children.
double ThreadCpu() {
    timespec ts{};
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}
double ChildrenCpu() {
    rusage ru{};
    getrusage(RUSAGE_CHILDREN, &ru);
    auto sec = [](const timeval& tv) { return static_cast<double>(tv.tv_sec) + static_cast<double>(tv.tv_usec) * 1e-6; };
    return sec(ru.ru_utime) + sec(ru.ru_stime);
}

// Output folder in memory when there is one, so that page-cache write-back
// of earlier iterations does not land on a later one.
class OutDir {
public:
    OutDir() {
        char tmpl[] = "/dev/shm/camctl-bench-XXXXXX";
        char tmpl2[] = "/tmp/camctl-bench-XXXXXX";
        const char* p = mkdtemp(tmpl);
        if (!p) p = mkdtemp(tmpl2);
        path_ = p ? p : "/tmp";
    }
    ~OutDir() { camctl_test::RunCommand("rm -rf '" + path_ + "'"); }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

double Seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Demux file into a fresh context and record it to out; the packets
// written. *seconds, *cpu: wall and thread CPU time from RecordStart to the
// end of RecordStop.
int RecordFile(const std::string& file, const std::string& out, double* seconds, double* cpu) {
    FFMpegContext* ctx = FFMpegContextAlloc();
    int packets = 0;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, file.c_str(), nullptr, nullptr) == 0) {
        ctx->m_pFormatCtx.reset(raw);
        avformat_find_stream_info(raw, nullptr);
        int v = av_find_best_stream(raw, AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
        if (v >= 0) {
            const AVCodecParameters* par = raw->streams[v]->codecpar;
            ctx->m_nVideoIndex = v;
            ctx->m_nVideoCodecId = par->codec_id;
            ctx->m_nWidth = par->width;
            ctx->m_nHeight = par->height;
            ctx->m_pVideoCodecCtx.reset(avcodec_alloc_context3(nullptr));
            avcodec_parameters_to_context(ctx->m_pVideoCodecCtx.get(), par);
            auto t0 = std::chrono::steady_clock::now();
            const double c0 = ThreadCpu();
            if (RecordStart(ctx, out.c_str()) == 0) {
                camctl::PacketPtr pkt = camctl::MakePacket();
                while (av_read_frame(raw, pkt.get()) >= 0) {
                    RecordWritePacket(ctx, pkt.get());
                    av_packet_unref(pkt.get());
                    ++packets;
                }
                RecordStop(ctx);
            }
            *seconds = Seconds(t0);
            *cpu = ThreadCpu() - c0;
        }
    }
    FFMpegContextFree(ctx);
    return packets;
}

void BM_Recorder(benchmark::State& state, const std::string& ext) {
    const std::string file = SourceFile(ext);
    OutDir dir;
    const std::string out = dir / "out.avi";
    av_log_set_level(AV_LOG_ERROR);  // no stream dump per recording
    int64_t packets = 0;
    double cpu_total = 0;
    for (auto _ : state) {
        double seconds = 0, cpu = 0;
        packets += RecordFile(file, out, &seconds, &cpu);
        state.SetIterationTime(seconds);
        cpu_total += cpu;
    }
    state.SetItemsProcessed(packets);
    state.counters["cpu_ms"] = benchmark::Counter(cpu_total * 1000, benchmark::Counter::kAvgIterations);
}

// extra: further output options (a bitstream filter).
void BM_FfmpegCopy(benchmark::State& state, const std::string& ext, const std::string& extra) {
    const std::string file = SourceFile(ext);
    const int packets = CountPackets(file);
    OutDir dir;
    const std::string base = "ffmpeg -v error -y -nostdin -i '" + file + "' -c copy " + extra + " -f avi ";
    const std::string all = base + "'" + (dir / "all.avi") + "'";
    const std::string one = base + "-frames:v 1 '" + (dir / "one.avi") + "'";
    double cpu_total = 0;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        double c0 = ChildrenCpu();
        if (camctl_test::RunCommand(all) != 0) state.SkipWithError("ffmpeg failed");
        const double full = Seconds(t0), full_cpu = ChildrenCpu() - c0;
        t0 = std::chrono::steady_clock::now();
        c0 = ChildrenCpu();
        if (camctl_test::RunCommand(one) != 0) state.SkipWithError("ffmpeg failed");
        const double startup = Seconds(t0), startup_cpu = ChildrenCpu() - c0;
        state.SetIterationTime(full > startup ? full - startup : 1e-6);
        cpu_total += full_cpu - startup_cpu;
    }
    state.SetItemsProcessed(static_cast<int64_t>(packets) * state.iterations());
    state.counters["cpu_ms"] = benchmark::Counter(cpu_total * 1000, benchmark::Counter::kAvgIterations);
}

// Console output plus the packets per second needed for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    RatioReporter() : ConsoleReporter(OO_Tabular) {}
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
            const std::string name = run.run_name.function_name + run.run_name.args;
            auto it = run.counters.find("items_per_second");
            if (it != run.counters.end()) rates_[name] = it->second;
            it = run.counters.find("cpu_ms");
            if (it != run.counters.end()) cpu_ms_[name] = it->second;
        }
    }
    double Rate(const std::string& name) const { return Find(rates_, name); }
    double CpuMs(const std::string& name) const { return Find(cpu_ms_, name); }

private:
    static double Find(const std::map<std::string, double>& m, const std::string& name) {
        auto it = m.find(name);
        return it == m.end() ? 0 : it->second;
    }
    std::map<std::string, double> rates_;
    std::map<std::string, double> cpu_ms_;
};

}  // namespace

#define RECORDER_BENCH(...) \
    BENCHMARK_CAPTURE(__VA_ARGS__)->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5)

// A live-like Annex-B source, and an MP4 one (which ours also turns into
// Annex B; ffmpeg's plain copy keeps the length prefixes, so the same copy
// with the filter is measured too).
RECORDER_BENCH(BM_Recorder, ts, std::string("ts"));
RECORDER_BENCH(BM_FfmpegCopy, ts, std::string("ts"), std::string());
RECORDER_BENCH(BM_Recorder, mp4, std::string("mp4"));
RECORDER_BENCH(BM_FfmpegCopy, mp4, std::string("mp4"), std::string());
RECORDER_BENCH(BM_FfmpegCopy, mp4_annexb, std::string("mp4"), std::string("-bsf:v h264_mp4toannexb"));

int main(int argc, char** argv) {
    // Ours and ffmpeg's runs take turns, so that load changes on a shared
    // machine hit both alike (a later flag on the command line wins).
    std::vector<char*> args(argv, argv + argc);
    char interleave[] = "--benchmark_enable_random_interleaving=true";
    args.insert(args.begin() + 1, interleave);
    int count = static_cast<int>(args.size());
    benchmark::Initialize(&count, args.data());
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    const std::pair<const char*, const char*> cases[] = {{"ts", "ts"}, {"mp4", "mp4"}, {"mp4", "mp4_annexb"}};
    for (const auto& [ext, ref_name] : cases) {
        const std::string a = std::string("BM_Recorder/") + ext, b = std::string("BM_FfmpegCopy/") + ref_name;
        const double ours = reporter.Rate(a), ref = reporter.Rate(b);
        const double ours_cpu = reporter.CpuMs(a), ref_cpu = reporter.CpuMs(b);
        if (ours > 0 && ref > 0)
            printf("\nrecording 1080p H.264 from .%s vs %s (medians): wall ours %.0f packets/s, ffmpeg %.0f, "
                   "ratio %.2f; CPU per file ours %.1f ms, ffmpeg %.1f ms, ratio %.2f (target >= 0.90)\n",
                   ext, b.c_str(), ours, ref, ours / ref, ours_cpu, ref_cpu, ours_cpu > 0 ? ref_cpu / ours_cpu : 0.0);
    }
    benchmark::Shutdown();
    return 0;
}
