// camctl play: play a recording back, with a progress bar.
#include <sys/stat.h>

#include <cstring>

#include "camctl.h"
#include "cli.h"
#include "playback.h"

namespace camctl_cli {

const CommandSpec kPlaySpec = {
    "play",
    "FILE [--speed LEVEL] [--snapshot-at SEC] [--out DIR] [--window|--headless]",
    "play a recording back at a chosen speed, with a progress bar",
    "LEVEL is a factor (1/16, 1/8, 1/4, 1/2, 1x, 2x, 4x, 8x, 16x) or one of the\n"
    "library's speed levels (0 normal, 1..4 slower, 101..104 faster). With\n"
    "--snapshot-at, the picture shown at SEC seconds is saved as a BMP file in\n"
    "DIR/VMS/PLAY-IMAGE-MANUAL/ (DIR defaults to '.').\n",
    {
        {"--speed", "LEVEL", "playback speed (1x)"},
        {"--snapshot-at", "SEC", "save the picture at SEC seconds as BMP"},
        {"--out", "DIR", "save root of the snapshot ('.')"},
        {"--window", nullptr, "show a window (fail when no display can be opened)"},
        {"--headless", nullptr, "no window (default when DISPLAY is not set)"},
    },
    1,
    1,
};

namespace {

struct Level {
    const char* factor;
    int level;
};
const Level kLevels[] = {{"1/16", 1}, {"1/8", 2}, {"1/4", 3}, {"1/2", 4}, {"1", 0},
                         {"2", 101},  {"4", 102}, {"8", 103}, {"16", 104}};

// Pictures handed over by the player's decoding thread.
struct PlayState {
    PictureWindow* window;
    std::atomic<long long> pictures{0};
    std::atomic<int> width{0};
    std::atomic<int> height{0};
    std::atomic<long long> last_picture_ns{0};
};

int OnPlayerPicture(CRecordPlayer*, void* user, unsigned char* buf, int32_t width, int32_t height) {
    auto* state = static_cast<PlayState*>(user);
    state->width = width;
    state->height = height;
    state->last_picture_ns = Clock::now().time_since_epoch().count();
    state->pictures.fetch_add(1);
    state->window->Show(buf, width, height);
    return 0;
}

std::string ProgressBar(int64_t pos, int64_t total, const std::string& speed) {
    const int width = 30;
    int filled = total > 0 ? static_cast<int>(std::min<int64_t>(pos, total) * width / total) : 0;
    std::string bar = "[" + std::string(filled, '#') + std::string(width - filled, '.') + "] ";
    return bar + FormatDuration(static_cast<double>(std::max<int64_t>(pos, 0))) + " / " +
           FormatDuration(static_cast<double>(std::max<int64_t>(total, 0))) + "  " + speed;
}

}  // namespace

void ParseSpeed(const std::string& text, PlayOptions* options) {
    std::string t = text;
    bool factor = false;
    if (!t.empty() && (t.back() == 'x' || t.back() == 'X')) {
        t.pop_back();
        factor = true;
    }
    if (t.find('/') != std::string::npos) factor = true;
    if (factor) {
        for (const Level& l : kLevels)
            if (t == l.factor) {
                options->speed_level = l.level;
                options->speed_label = std::string(l.factor) + (t.find('/') == std::string::npos ? "x" : "");
                return;
            }
    } else {
        char* end = nullptr;
        long v = strtol(t.c_str(), &end, 10);
        if (!t.empty() && *end == '\0') {
            for (const Level& l : kLevels)
                if (l.level == v || (v == 100 && l.level == 0)) {
                    options->speed_level = static_cast<int>(v);
                    options->speed_label = std::string(l.factor) + (strchr(l.factor, '/') ? "" : "x");
                    return;
                }
        }
    }
    Fail(kExitUsage, "play: unknown --speed '" + text +
                         "' (1/16, 1/8, 1/4, 1/2, 1x, 2x, 4x, 8x, 16x, or a level 0..4, 100..104)");
}

PlayResult PlayRecording(const std::string& file, const PlayOptions& options) {
    PlayResult result;
    const Source source = ParseSource(file);
    if (source.kind != SourceKind::File) Fail(kExitUsage, "play: " + file + ": give a recorded file, not a URL");
    const std::string snapshot_dir = options.save_dir + "/VMS/PLAY-IMAGE-MANUAL";
    std::vector<std::string> before;
    if (options.snapshot_at >= 0) {
        // The player makes only the last folder level itself.
        PrepareOutputDir(options.save_dir + "/VMS");
        before = FilesBelow(snapshot_dir, ".bmp");
    }

    PictureWindow window(options.show, "camctl play " + file, false);
    PlayState state;
    state.window = &window;
    // Declared after the window and the state: destroyed (and stopped) first.
    CRecordPlayer player;
    player.SetVideoBufCallBack(&OnPlayerPicture, &state);
    if (options.snapshot_at >= 0) player.SetSaveDir(options.save_dir.c_str());
    const auto start = Clock::now();
    if (player.PlayFile(file.c_str(), nullptr, 0, 0) != 0)
        Fail(kExitSource, file + ": cannot play: not a recording the library can read (no video stream it can decode)");
    player.SetSpeedLevel(options.speed_level);
    result.duration = player.GetDuration();

    bool window_tried = false;
    bool snapshot_asked = false;
    auto last_draw = Clock::time_point();
    while (true) {
        if (Interrupted()) {
            result.interrupted = true;
            break;
        }
        const long long pictures = state.pictures.load();
        if (pictures > 0 && !window_tried) {
            window_tried = true;
            window.Open(state.width.load(), state.height.load());
        }
        if (pictures == 0 && SecondsSince(start) > kFirstPictureTimeoutSeconds)
            Fail(kExitStream, file + ": no picture could be decoded in " + std::to_string(kFirstPictureTimeoutSeconds) + " s");
        const int64_t pos = player.GetCurrTime();
        if (options.snapshot_at >= 0 && !snapshot_asked && pictures > 0 && pos >= options.snapshot_at) {
            player.SaveImage();
            snapshot_asked = true;
        }
        // The end: the reader has finished and no picture came for 0.5 s.
        const double idle = pictures > 0 ? (Clock::now().time_since_epoch().count() - state.last_picture_ns.load()) / 1e9 : 0;
        if (player.IsPlayFinish() && pictures > 0 && idle > 0.5) break;
        if (SecondsSince(last_draw) >= 0.2) {
            Status(ProgressBar(pos, result.duration, options.speed_label));
            last_draw = Clock::now();
            window.Refresh();
        }
        SleepFor(50);
    }
    Status(ProgressBar(result.interrupted ? player.GetCurrTime() : result.duration, result.duration, options.speed_label),
           true);
    EndStatus();
    player.Stop();
    result.pictures = state.pictures.load();
    result.seconds = SecondsSince(start);
    result.shown_in_window = window.IsWindow();
    if (snapshot_asked) {
        std::vector<std::string> fresh = NewFiles(before, FilesBelow(snapshot_dir, ".bmp"));
        if (!fresh.empty()) result.snapshot = fresh.back();
    }
    return result;
}

int RunPlay(const Args& args) {
    PlayOptions options;
    if (args.Has("--speed")) ParseSpeed(args.Get("--speed"), &options);
    options.snapshot_at = args.GetDouble("--snapshot-at", -1.0, 0.0, 1e7);
    options.save_dir = args.Get("--out", ".");
    options.show = ParseShowMode(args);
    const std::string file = args.Positional()[0];
    PlayResult r = PlayRecording(file, options);
    Note("played %lld pictures in %.1f s (%s)", r.pictures, r.seconds, options.speed_label.c_str());
    if (!r.snapshot.empty()) Out("snapshot: %s", r.snapshot.c_str());
    else if (options.snapshot_at >= 0 && !r.interrupted)
        Fail(kExitOutput, "play: no snapshot was written at " + args.Get("--snapshot-at") + " s (is the file that long?)");
    return r.interrupted ? kExitInterrupted : kExitOk;
}

}  // namespace camctl_cli
