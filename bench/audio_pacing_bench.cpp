// Video paced to the audio clock.
//
// Plays an 8 s MPEG-TS file (320x240 H.264 at 25 fps, 16 kHz mono AAC)
// through a CFileVideoSession with smooth pacing for 5.5 s. For each picture
// it takes the due tick the pacing works to (audio reference tick minus
// reference time minus video offset plus the packet's time) and the tick at
// which the picture reached DoVideoBuffer, and reports |delivery - due|
// (p50, p95, max) and the wall span against the media span.
#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <thread>
#include <vector>

#include "camctl/FileVideoSession.h"
#include "engine/engine.h"
#include "support/fixtures.h"

namespace {

class PacedFileSession final : public CFileVideoSession {
public:
    int DoVideoBuffer(unsigned char*, int, int) override {
        FFMpegContext* c = ctx.load();
        if (!c || !c->m_AudioClock.Active()) return 0;
        const AudioClock::State clock = c->m_AudioClock.Load();
        if (!clock.refTick || !clock.refPts || !clock.videoOffset) return 0;
        // Same 32-bit tick arithmetic as the pacing itself (90 kHz video).
        const uint32_t t = static_cast<uint32_t>(c->m_nLastVideoPts.load() * 1000 / 90000);
        const uint32_t due = static_cast<uint32_t>(clock.refTick - clock.refPts - clock.videoOffset) + t;
        const uint32_t now = os_tick_count();
        std::lock_guard<std::mutex> lock(mutex);
        errors.push_back(static_cast<int32_t>(now - due));
        deliveries.push_back(now);
        media_ms.push_back(t);
        return 0;
    }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    FFMpegContext* Context() { return m_pContext; }

    std::atomic<FFMpegContext*> ctx{nullptr};
    std::mutex mutex;  // guards the vectors below
    std::vector<int32_t> errors;
    std::vector<uint32_t> deliveries;
    std::vector<uint32_t> media_ms;
};

void BM_VideoPacedToAudio(benchmark::State& state) {
    const std::string file = camctl_test::Fixture(
        "ses_h264_aac.ts",
        "-f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=16000 "
        "-t 8 -c:v libx264 -preset ultrafast -bf 0 -g 25 -pix_fmt yuv420p -c:a aac -b:a 48k -ac 1");
    for (auto _ : state) {
        PacedFileSession s;
        s.SetSmoothStream(1);
        if (s.VideoInit(&s, file.c_str()) != 0) {
            state.SkipWithError("cannot open the file");
            return;
        }
        s.ctx = s.Context();
        std::this_thread::sleep_for(std::chrono::milliseconds(5500));
        s.VideoFree();
        std::lock_guard<std::mutex> lock(s.mutex);
        if (s.errors.size() < 2) {
            state.SkipWithError("no paced pictures");
            return;
        }
        std::vector<int32_t> abs_errors;
        for (int32_t e : s.errors) abs_errors.push_back(e < 0 ? -e : e);
        std::sort(abs_errors.begin(), abs_errors.end());
        state.counters["pictures"] = static_cast<double>(abs_errors.size());
        state.counters["p50_ms"] = abs_errors[abs_errors.size() / 2];
        state.counters["p95_ms"] = abs_errors[abs_errors.size() * 95 / 100];
        state.counters["max_ms"] = abs_errors.back();
        state.counters["wall_ms"] = s.deliveries.back() - s.deliveries.front();
        state.counters["media_ms"] = s.media_ms.back() - s.media_ms.front();
    }
}
BENCHMARK(BM_VideoPacedToAudio)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
