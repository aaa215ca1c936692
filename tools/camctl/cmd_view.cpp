// camctl view: show a camera, with a live status line.
#include "camctl.h"
#include "cli.h"
#include "live.h"

namespace camctl_cli {

const CommandSpec kViewSpec = {
    "view",
    "URL [--sub URL] [--yuv] [--smooth N] [--window|--headless] [--seconds N] [--record DIR]",
    "show a camera in a window (or headless) with a live status line",
    "The status line on stderr is refreshed every second: time, codec, size,\n"
    "frames received per second, kbit/s received, pictures shown per second,\n"
    "queue (ok, or 'behind' when fewer pictures are shown than received), and\n"
    "the recording state. Runs until Ctrl-C, --seconds, or the end of a file.\n",
    {
        {"--sub", "URL", "also open this sub stream and show it instead of the main one"},
        {"--yuv", nullptr, "have the library deliver planar YUV 4:2:0 pictures"},
        {"--smooth", "N", "smooth-stream mode: 1 low latency, 2 wide bands (0 off)"},
        {"--window", nullptr, "show a window (fail when no display can be opened)"},
        {"--headless", nullptr, "no window (default when DISPLAY is not set)"},
        {"--seconds", "N", "stop after N seconds"},
        {"--record", "DIR", "record the main stream below DIR while viewing"},
        {"--name", "NAME", "camera name used in file names (cam)"},
    },
    1,
    1,
};

namespace {

void ShowPicture(void* user, unsigned char* picture, int width, int height) {
    static_cast<PictureWindow*>(user)->Show(picture, width, height);
}

}  // namespace

int RunView(const Args& args) {
    const Source source = ParseSource(args.Positional()[0]);
    LiveOptions options;
    options.yuv = args.Has("--yuv");
    options.smooth = args.GetInt("--smooth", 0, 0, 2);
    options.sub_url = args.Get("--sub");
    options.name = args.Get("--name", "cam");
    const double seconds = args.GetDouble("--seconds", 0.0, 0.0, 1e7);
    const std::string record_dir = args.Get("--record");
    if (args.Has("--record")) {
        PrepareOutputDir(record_dir);
        options.save_root = record_dir;
    }
    const ShowMode mode = ParseShowMode(args);

    // The window outlives the camera: the camera's decoding thread paints it.
    PictureWindow window(mode, "camctl view " + source.display, options.yuv);
    LiveCamera live(source, options);
    live.SetPictureHook(&ShowPicture, &window);
    Note("opening %s ...", source.display.c_str());
    live.Open();
    if (!live.WaitFirstPicture()) return kExitOk;
    window.Open(live.Width(), live.Height());
    Note("%s: %s, first picture after %.2f s, %s", source.display.c_str(), live.Describe().c_str(),
         live.FirstPictureSeconds(), window.IsWindow() ? "shown in a window" : "headless");

    CIpCamera* cam = live.camera();
    std::vector<std::string> before;
    if (!record_dir.empty()) {
        before = live.SavedFiles(".avi");
        if (cam->StartSaveAvi(1) != 0) Fail(kExitOutput, record_dir + ": the recording could not be started");
    }

    const auto start = Clock::now();
    long long last_pictures = live.Pictures();
    auto last_tick = Clock::now();
    int rc = kExitOk;
    while (!Interrupted()) {
        if (seconds > 0 && SecondsSince(start) >= seconds) break;
        if (live.StreamEnded()) {
            if (source.kind == SourceKind::File) {
                EndStatus();
                Note("%s: end of file", source.display.c_str());
                break;
            }
            EndStatus();
            Note("%s: the stream stopped (connection lost or camera gone)", source.display.c_str());
            rc = kExitStream;
            break;
        }
        SleepFor(std::max(0, 1000 - static_cast<int>(SecondsSince(last_tick) * 1000)));
        if (Interrupted()) break;
        const double span = SecondsSince(last_tick);
        last_tick = Clock::now();
        const long long now_pictures = live.Pictures();
        const double shown = span > 0 ? (now_pictures - last_pictures) / span : 0;
        last_pictures = now_pictures;
        const int received = cam->getFramesCount();
        const float kbit = cam->getNetRate();
        const bool behind = received > 0 && shown < 0.8 * received;
        char rec[64] = "rec off";
        if (cam->GetRecordFlags() != 0)
            snprintf(rec, sizeof rec, "rec %s", FormatDuration(static_cast<double>(cam->GetAviDuration())).c_str());
        char line[256];
        snprintf(line, sizeof line, "%s  %s  %d fps  %.0f kbit/s  shown %.1f/s  queue %s  %s",
                 FormatDuration(SecondsSince(start)).c_str(), live.Describe().c_str(), std::max(received, 0),
                 std::max(kbit, 0.0f), shown, behind ? "behind" : "ok", rec);
        Status(line);
        window.Refresh();
    }
    EndStatus();
    if (!record_dir.empty()) {
        cam->StopSaveAvi(7);
        for (const std::string& f : NewFiles(before, live.SavedFiles(".avi")))
            Out("recorded: %s (%lld bytes)", f.c_str(), FileSize(f));
    }
    return rc;
}

}  // namespace camctl_cli
