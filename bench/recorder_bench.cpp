// Recording throughput: packets of a 1080p H.264 file demuxed and handed to
// the recorder's write step (RecordStart, RecordWritePacket per packet,
// RecordStop with the frame-rate fix-up), against `ffmpeg -i FILE -c copy
// -f avi` on the same file in the same run. The ratio (ours / ffmpeg, in
// packets per second) is printed at the end.
//
// ffmpeg's figure excludes its process start-up: each iteration also runs
// it on the first video packet only and subtracts that time. Ours includes
// opening and probing the input.
#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdio>
#include <map>
#include <string>

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

double Seconds(std::chrono::steady_clock::time_point t0) {
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - t0).count();
}

// Demux file into a fresh context and record it to out; the packets written.
int RecordFile(const std::string& file, const std::string& out) {
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
            if (RecordStart(ctx, out.c_str()) == 0) {
                camctl::PacketPtr pkt = camctl::MakePacket();
                while (av_read_frame(raw, pkt.get()) >= 0) {
                    RecordWritePacket(ctx, pkt.get());
                    av_packet_unref(pkt.get());
                    ++packets;
                }
                RecordStop(ctx);
            }
        }
    }
    FFMpegContextFree(ctx);
    return packets;
}

void BM_Recorder(benchmark::State& state, const std::string& ext) {
    const std::string file = SourceFile(ext);
    camctl_test::TempDir dir;
    const std::string out = dir / "out.avi";
    av_log_set_level(AV_LOG_ERROR);  // no stream dump per recording
    int64_t packets = 0;
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        packets += RecordFile(file, out);
        state.SetIterationTime(Seconds(t0));
    }
    state.SetItemsProcessed(packets);
}

void BM_FfmpegCopy(benchmark::State& state, const std::string& ext) {
    const std::string file = SourceFile(ext);
    const int packets = CountPackets(file);
    camctl_test::TempDir dir;
    const std::string base = "ffmpeg -v error -y -nostdin -i '" + file + "' -c copy -f avi ";
    const std::string all = base + "'" + (dir / "all.avi") + "'";
    const std::string one = base + "-frames:v 1 '" + (dir / "one.avi") + "'";
    for (auto _ : state) {
        auto t0 = std::chrono::steady_clock::now();
        if (camctl_test::RunCommand(all) != 0) state.SkipWithError("ffmpeg failed");
        const double full = Seconds(t0);
        t0 = std::chrono::steady_clock::now();
        if (camctl_test::RunCommand(one) != 0) state.SkipWithError("ffmpeg failed");
        const double startup = Seconds(t0);
        state.SetIterationTime(full > startup ? full - startup : 1e-6);
    }
    state.SetItemsProcessed(static_cast<int64_t>(packets) * state.iterations());
}

// Console output plus the packets per second needed for the ratios.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Aggregate || run.aggregate_name != "median") continue;
            auto it = run.counters.find("items_per_second");
            if (it != run.counters.end()) rates_[run.run_name.function_name + run.run_name.args] = it->second;
        }
    }
    double Rate(const std::string& name) const {
        for (const auto& [key, value] : rates_)
            if (key.rfind(name, 0) == 0) return value;
        return 0;
    }

private:
    std::map<std::string, double> rates_;
};

}  // namespace

BENCHMARK_CAPTURE(BM_Recorder, ts, std::string("ts"))->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK_CAPTURE(BM_FfmpegCopy, ts, std::string("ts"))->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK_CAPTURE(BM_Recorder, mp4, std::string("mp4"))->UseManualTime()->Unit(benchmark::kMillisecond)->Repetitions(5);
BENCHMARK_CAPTURE(BM_FfmpegCopy, mp4, std::string("mp4"))
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond)
    ->Repetitions(5);

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    for (const char* ext : {"ts", "mp4"}) {
        const double ours = reporter.Rate(std::string("BM_Recorder/") + ext);
        const double ref = reporter.Rate(std::string("BM_FfmpegCopy/") + ext);
        if (ours > 0 && ref > 0)
            printf("recording 1080p H.264 from .%s (median packets/s): ours %.0f, ffmpeg -c copy -f avi %.0f, "
                   "ratio %.2f (target >= 0.90)\n",
                   ext, ours, ref, ours / ref);
    }
    benchmark::Shutdown();
    return 0;
}
