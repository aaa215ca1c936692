// 1080p H.265 decoding with BGR24 delivery through the engine's video
// decode thread, once through FFmpeg and once through IHW265D (libde265),
// against the ffmpeg command line decoding the same file single-threaded to
// bgr24. Each path reports its time per picture and its ratio to the
// command line measured in the same run (ratio < 1: faster than ffmpeg).
// Wall time is what the benchmark reports; the cpu_* counters use the CPU
// time the work consumed (this process, or the ffmpeg child), which stays
// meaningful on a machine shared with other jobs.
#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "engine/engine.h"
#include "engine/h265/ihw265d_stage.h"
#include "support/fixtures.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Clock = std::chrono::steady_clock;

constexpr int kWidth = 1920;
constexpr int kHeight = 1080;

// CPU seconds used so far by this process (who = RUSAGE_SELF) or by its
// waited-for children (RUSAGE_CHILDREN).
double CpuSeconds(int who) {
    rusage u{};
    getrusage(who, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + double(u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

// Wall and CPU seconds of one run.
struct Cost {
    double wall = -1;
    double cpu = -1;
};

const std::string& Stream1080p() {
    static const std::string path = camctl_test::Fixture(
        "bench_testsrc2_1920x1080_2s.hevc",
        "-f lavfi -i testsrc2=size=1920x1080:rate=25 -t 2 -c:v libx265 -preset veryfast -bf 0 -g 25 "
        "-pix_fmt yuv420p -x265-params log-level=error");
    return path;
}

struct Unit {
    Bytes data;
    bool key;
};

std::vector<Unit> ReadUnits(const std::string& path) {
    std::vector<Unit> units;
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) != 0) return units;
    camctl::InputFormatPtr fmt(raw);
    camctl::PacketPtr pkt = camctl::MakePacket();
    while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
        units.push_back({Bytes(pkt->data, pkt->data + pkt->size), (pkt->flags & AV_PKT_FLAG_KEY) != 0});
        av_packet_unref(pkt.get());
    }
    return units;
}

// The first key frame with the IHW265D marker (a prefix SEI of payload type
// 229) after its parameter sets.
Bytes WithMarker(const Bytes& key) {
    size_t at = key.size();
    for (size_t i = 0; i + 4 < key.size(); ++i) {
        if (key[i] || key[i + 1] || key[i + 2] != 1) continue;
        const int type = (key[i + 3] >> 1) & 0x3F;
        if (type != 32 && type != 33 && type != 34) {
            at = i > 0 && key[i - 1] == 0 ? i - 1 : i;
            break;
        }
        i += 2;
    }
    const Bytes sei = {0, 0, 0, 1, 0x4E, 0x01, 0xE5, 0x04, 0xC1, 0xA2, 0xB3, 0xD4, 0x80};
    Bytes out(key.begin(), key.begin() + at);
    out.insert(out.end(), sei.begin(), sei.end());
    out.insert(out.end(), key.begin() + at, key.end());
    return out;
}

class CountingListener final : public IFrameListener {
public:
    int DoVideoBuffer(unsigned char* buf, int, int) override {
        sink_ = sink_ + buf[0];  // touch the picture
        count.fetch_add(1, std::memory_order_release);
        return 0;
    }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    int UpdateMotionAlarmRegion(char*) override { return 0; }
    std::atomic<int> count{0};

private:
    unsigned sink_ = 0;
};

// Queues the whole stream on a fresh context and runs the BGR decode thread
// until every picture has been delivered.
Cost DecodeThroughEngine(const std::vector<Unit>& units, bool marked) {
    FFMpegContext* ctx = FFMpegContextAlloc();
    CountingListener listener;
    const AVCodec* dec = avcodec_find_decoder(AV_CODEC_ID_HEVC);
    ctx->m_pVideoCodecCtx.reset(avcodec_alloc_context3(dec));
    ctx->m_pVideoCodecCtx->flags |= AV_CODEC_FLAG_LOW_DELAY;
    avcodec_open2(ctx->m_pVideoCodecCtx.get(), dec, nullptr);
    ctx->m_nVideoCodecId = AV_CODEC_ID_HEVC;
    ctx->m_nVideoIndex = 0;
    ctx->m_nWidth = kWidth;
    ctx->m_nHeight = kHeight;
    ctx->m_pOwner = static_cast<IFrameListener*>(&listener);
    ctx->m_bDecode = 1;
    ctx->m_bRunning = 1;
    camctl::h265::CreateContextDecoder(ctx);

    const Bytes first = marked ? WithMarker(units[0].data) : units[0].data;
    camctl::PacketPtr pkt = camctl::MakePacket();
    for (size_t i = 0; i < units.size(); ++i) {
        const Bytes& d = i == 0 ? first : units[i].data;
        av_new_packet(pkt.get(), static_cast<int>(d.size()));
        std::copy(d.begin(), d.end(), pkt->data);
        pkt->flags = units[i].key ? AV_PKT_FLAG_KEY : 0;
        pkt->stream_index = 0;
        PushVideoPacket(ctx, pkt.get());
        av_packet_unref(pkt.get());
    }

    const int want = static_cast<int>(units.size());
    const auto t0 = Clock::now();
    const double cpu0 = CpuSeconds(RUSAGE_SELF);
    os_thread* thread = os_thread_create(nullptr, VideoDecodeThreadBgr, ctx);
    while (listener.count.load(std::memory_order_acquire) < want && ctx->m_bRunning)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    const Cost cost{std::chrono::duration<double>(Clock::now() - t0).count(), CpuSeconds(RUSAGE_SELF) - cpu0};
    ctx->m_bRunning = 0;
    os_thread_join(thread);
    os_thread_free(thread);
    FFMpegContextFree(ctx);
    return listener.count.load() == want ? cost : Cost{};
}

Cost g_cli;  // per run of the whole stream

Cost RunCli() {
    const std::string cmd =
        "ffmpeg -nostdin -hide_banner -loglevel error -threads 1 -i '" + Stream1080p() + "' -pix_fmt bgr24 -f null -";
    const auto t0 = Clock::now();
    const double cpu0 = CpuSeconds(RUSAGE_CHILDREN);
    const int rc = camctl_test::RunCommand(cmd);
    const Cost c{std::chrono::duration<double>(Clock::now() - t0).count(), CpuSeconds(RUSAGE_CHILDREN) - cpu0};
    return rc == 0 ? c : Cost{};
}

// Adds the per-picture and against-the-command-line counters of a path.
void Report(benchmark::State& state, const Cost& total, int runs, size_t pictures) {
    if (g_cli.wall <= 0) g_cli = RunCli();
    const double wall = total.wall / runs, cpu = total.cpu / runs;
    state.counters["ms_per_picture"] = 1000 * wall / static_cast<double>(pictures);
    state.counters["cpu_ms_per_picture"] = 1000 * cpu / static_cast<double>(pictures);
    state.counters["ratio_vs_ffmpeg_cli"] = wall / g_cli.wall;
    state.counters["cpu_ratio_vs_ffmpeg_cli"] = cpu / g_cli.cpu;
}

void BM_FfmpegCliReference(benchmark::State& state) {
    Cost total{0, 0};
    int runs = 0;
    for (auto _ : state) {
        const Cost c = RunCli();
        if (c.wall < 0) {
            state.SkipWithError("ffmpeg failed");
            return;
        }
        state.SetIterationTime(c.wall);
        total.wall += c.wall;
        total.cpu += c.cpu;
        ++runs;
    }
    g_cli = {total.wall / runs, total.cpu / runs};
    Report(state, total, runs, ReadUnits(Stream1080p()).size());
}

void RunEnginePath(benchmark::State& state, bool marked) {
    const std::vector<Unit> units = ReadUnits(Stream1080p());
    const uint64_t ihw_before = camctl::h265::Ihw265dPicturesDecoded();
    Cost total{0, 0};
    int runs = 0;
    for (auto _ : state) {
        const Cost c = DecodeThroughEngine(units, marked);
        if (c.wall < 0) {
            state.SkipWithError("not every picture was delivered");
            return;
        }
        state.SetIterationTime(c.wall);
        total.wall += c.wall;
        total.cpu += c.cpu;
        ++runs;
    }
    Report(state, total, runs, units.size());
    // Which decoder really ran: pictures that went through IHW265D per run.
    state.counters["ihw265d_pictures"] =
        static_cast<double>(camctl::h265::Ihw265dPicturesDecoded() - ihw_before) / runs;
}

void BM_EngineFfmpegPath(benchmark::State& state) { RunEnginePath(state, false); }
void BM_EngineIhw265dPath(benchmark::State& state) { RunEnginePath(state, true); }

// The decoders alone, without the thread, conversion or delivery.
void BM_DecodeOnlyFfmpeg(benchmark::State& state) {
    const std::vector<Unit> units = ReadUnits(Stream1080p());
    camctl::FramePtr frame = camctl::MakeFrame();
    camctl::PacketPtr pkt = camctl::MakePacket();
    Cost total{0, 0};
    int runs = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        const double cpu0 = CpuSeconds(RUSAGE_SELF);
        const AVCodec* dec = avcodec_find_decoder(AV_CODEC_ID_HEVC);
        camctl::CodecContextPtr cc(avcodec_alloc_context3(dec));
        cc->flags |= AV_CODEC_FLAG_LOW_DELAY;
        avcodec_open2(cc.get(), dec, nullptr);
        for (const Unit& u : units) {
            pkt->data = const_cast<uint8_t*>(u.data.data());
            pkt->size = static_cast<int>(u.data.size());
            avcodec_send_packet(cc.get(), pkt.get());
            while (avcodec_receive_frame(cc.get(), frame.get()) == 0) benchmark::DoNotOptimize(frame->data[0][0]);
        }
        const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        state.SetIterationTime(seconds);
        total.wall += seconds;
        total.cpu += CpuSeconds(RUSAGE_SELF) - cpu0;
        ++runs;
    }
    Report(state, total, runs, units.size());
}

void BM_DecodeOnlyIhw265d(benchmark::State& state) {
    const std::vector<Unit> units = ReadUnits(Stream1080p());
    Cost total{0, 0};
    int runs = 0;
    for (auto _ : state) {
        const auto t0 = Clock::now();
        const double cpu0 = CpuSeconds(RUSAGE_SELF);
        IHW265D_INIT_PARAM p{};
        p.uiMaxWidth = kWidth;
        p.uiMaxHeight = kHeight;
        p.uiThreads = 1;
        IHW265D_HANDLE h = nullptr;
        IHW265D_Create(&h, &p);
        for (const Unit& u : units) {
            const IHW265D_INPUT in{u.data.data(), static_cast<uint32_t>(u.data.size()), 0};
            IHW265D_OUTPUT out;
            IHW265D_Decode(h, &in, &out);
            if (out.pY) benchmark::DoNotOptimize(out.pY[0]);
        }
        IHW265D_Delete(h);
        const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
        state.SetIterationTime(seconds);
        total.wall += seconds;
        total.cpu += CpuSeconds(RUSAGE_SELF) - cpu0;
        ++runs;
    }
    Report(state, total, runs, units.size());
}

BENCHMARK(BM_FfmpegCliReference)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(5);
BENCHMARK(BM_EngineFfmpegPath)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(5);
BENCHMARK(BM_EngineIhw265dPath)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(5);
BENCHMARK(BM_DecodeOnlyFfmpeg)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);
BENCHMARK(BM_DecodeOnlyIhw265d)->Unit(benchmark::kMillisecond)->UseManualTime()->Iterations(3);

}  // namespace

BENCHMARK_MAIN();
