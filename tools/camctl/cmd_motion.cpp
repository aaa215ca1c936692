// camctl motion: print motion events of a camera.
//
// The camera's pictures are fed to a CMotionDetector of our own, set up as a
// camera sets up its detector, so every result can be printed as it comes
// (the camera itself only counts them).
#include <sys/time.h>

#include <deque>
#include <mutex>

#include "camctl.h"
#include "cli.h"
#include "live.h"

namespace camctl_cli {

const CommandSpec kMotionSpec = {
    "motion",
    "URL [--map FILE] [--level L] [--seconds N]",
    "print one line per motion event: time and detector result",
    "Each line on stdout reads 'YYYY-MM-DD hh:mm:ss.mmm result=R ...', where\n"
    "R is 1 for a motion event (the camera would notify, snapshot, record) and\n"
    "2 for motion seen within the notify spacing after an event. The picture is\n"
    "cut into 32 x 24 cells; FILE (24 lines of 32 characters, '0' off) chooses the\n"
    "cells watched, as for 'camctl record --motion'.\n",
    {
        {"--map", "FILE", "cells to watch (default: all)"},
        {"--level", "L", "sensitivity: 0 low, 1 medium, 2 high (default 1)"},
        {"--seconds", "N", "stop after N seconds (default: until Ctrl-C)"},
    },
    1,
    1,
};

namespace {

struct MotionEvent {
    timeval when;
    int result;
};

class MotionWatch {
public:
    MotionWatch(int level, std::vector<unsigned char> map) : level_(level), map_(std::move(map)) {}

    static void OnPicture(void* user, unsigned char* picture, int width, int height) {
        static_cast<MotionWatch*>(user)->Run(picture, width, height);
    }

    std::vector<MotionEvent> Take() {
        std::lock_guard<std::mutex> lock(lock_);
        std::vector<MotionEvent> out(events_.begin(), events_.end());
        events_.clear();
        return out;
    }

private:
    // Decoding thread only (apart from the event queue).
    void Run(unsigned char* picture, int width, int height) {
        if (width != width_ || height != height_) {
            detector_.Free();
            detector_.SetDetectEnable(1);
            detector_.SetDetectLevel(level_);
            detector_.SetDetectMap(map_.data());
            detector_.Init(nullptr, width, height);
            width_ = width;
            height_ = height;
        }
        // Planar picture: the luma, three equal bytes per pixel.
        const size_t pixels = static_cast<size_t>(width) * height;
        spread_.resize(pixels * 3);
        for (size_t i = 0; i < pixels; ++i) spread_[3 * i] = spread_[3 * i + 1] = spread_[3 * i + 2] = picture[i];
        const int r = detector_.MotionDetectRun(spread_.data(), width, height);
        if (r == 0) return;
        MotionEvent e;
        gettimeofday(&e.when, nullptr);
        e.result = r;
        std::lock_guard<std::mutex> lock(lock_);
        events_.push_back(e);
    }

    const int level_;
    std::vector<unsigned char> map_;  // the detector copies it
    CMotionDetector detector_;
    int width_ = 0;
    int height_ = 0;
    std::vector<unsigned char> spread_;
    std::mutex lock_;  // guards events_
    std::deque<MotionEvent> events_;
};

void PrintEvent(const MotionEvent& e) {
    tm local{};
    time_t secs = e.when.tv_sec;
    localtime_r(&secs, &local);
    char stamp[64];
    strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    Out("%s.%03ld result=%d %s", stamp, static_cast<long>(e.when.tv_usec / 1000), e.result,
        e.result == 1 ? "motion event" : "motion within the notify spacing");
}

}  // namespace

int RunMotion(const Args& args) {
    const Source source = ParseSource(args.Positional()[0]);
    const int level = args.GetInt("--level", 1, 0, 2);
    const double seconds = args.GetDouble("--seconds", 0.0, 0.0, 1e7);
    MotionWatch watch(level, ReadMotionMap(args.Has("--map") ? args.Get("--map") : "-"));

    LiveOptions options;
    options.yuv = true;
    LiveCamera live(source, options);
    live.SetPictureHook(&MotionWatch::OnPicture, &watch);
    live.Open();
    if (!live.WaitFirstPicture()) return kExitOk;
    Note("%s: %s; watching for motion (level %d)", source.display.c_str(), live.Describe().c_str(), level);

    const auto start = Clock::now();
    int events = 0;
    int rc = kExitOk;
    while (!Interrupted()) {
        if (seconds > 0 && SecondsSince(start) >= seconds) break;
        if (live.StreamEnded()) {
            if (source.kind != SourceKind::File) {
                Note("%s: the stream stopped (connection lost or camera gone)", source.display.c_str());
                rc = kExitStream;
            }
            break;
        }
        SleepFor(100);
        for (const MotionEvent& e : watch.Take()) {
            PrintEvent(e);
            if (e.result == 1) ++events;
        }
    }
    for (const MotionEvent& e : watch.Take()) {
        PrintEvent(e);
        if (e.result == 1) ++events;
    }
    Note("%d motion event(s) in %.0f s", events, SecondsSince(start));
    return rc;
}

}  // namespace camctl_cli
