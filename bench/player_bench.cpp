// Idle cost of the record player's 2 ms timer.
//
// A player ticks every 2 ms for its whole life, also while nothing plays.
// These benchmarks measure the CPU time the process spends while N idle
// players exist and the main thread sleeps, as a percentage of one core per
// player. The reference is a bare thread that does nothing but sleep to the
// same 2 ms absolute deadlines: the floor any periodic 2 ms timer costs on
// this machine, measured in the same run.
#include <benchmark/benchmark.h>
#include <pthread.h>
#include <sys/resource.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <memory>
#include <thread>
#include <vector>

#include "camctl/RecordPlayer.h"

namespace {

constexpr auto kWindow = std::chrono::seconds(3);

double ProcessCpuSeconds() {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return static_cast<double>(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           static_cast<double>(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// CPU of the whole process over one window, in percent of a core per item.
double CorePercentPerItem(int items) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));  // let start-up settle
    const double cpu0 = ProcessCpuSeconds();
    const auto wall0 = std::chrono::steady_clock::now();
    std::this_thread::sleep_for(kWindow);
    const double cpu = ProcessCpuSeconds() - cpu0;
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - wall0).count();
    return cpu / wall / items * 100.0;
}

// A thread that only sleeps to absolute 2 ms deadlines.
class BareTicker {
public:
    BareTicker() : thread_([this] { Run(); }) {}
    ~BareTicker() {
        running_.store(false);
        thread_.join();
    }

private:
    void Run() {
        timespec next{};
        clock_gettime(CLOCK_MONOTONIC, &next);
        while (running_.load(std::memory_order_relaxed)) {
            next.tv_nsec += 2000000;
            if (next.tv_nsec >= 1000000000) {
                next.tv_nsec -= 1000000000;
                ++next.tv_sec;
            }
            clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &next, nullptr);
            ticks_.fetch_add(1, std::memory_order_relaxed);
        }
    }
    std::atomic<bool> running_{true};
    std::atomic<long> ticks_{0};
    std::thread thread_;
};

void BM_IdlePlayerTimer(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    double pct = 0;
    for (auto _ : state) {
        std::vector<std::unique_ptr<CRecordPlayer>> players;
        for (int i = 0; i < n; ++i) players.push_back(std::make_unique<CRecordPlayer>());
        pct = CorePercentPerItem(n);
    }
    state.counters["core_pct_per_player"] = pct;
}

void BM_BareTwoMsTicker(benchmark::State& state) {
    const int n = static_cast<int>(state.range(0));
    double pct = 0;
    for (auto _ : state) {
        std::vector<std::unique_ptr<BareTicker>> tickers;
        for (int i = 0; i < n; ++i) tickers.push_back(std::make_unique<BareTicker>());
        pct = CorePercentPerItem(n);
    }
    state.counters["core_pct_per_thread"] = pct;
}

}  // namespace

BENCHMARK(BM_BareTwoMsTicker)->Arg(1)->Arg(8)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_IdlePlayerTimer)->Arg(1)->Arg(8)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
