// camctl demo: the whole library in one run, on a simulated camera.
//
// Serves a test picture on a free loopback port, opens it as a camera,
// shows it, records it into ./camctl-demo/ while motion detection snapshots
// the scene changes, plays the recording back at 2x and lists every file.
#include "camctl.h"
#include "camsim/server.h"
#include "cli.h"
#include "live.h"
#include "playback.h"

namespace camctl_cli {

const CommandSpec kDemoSpec = {
    "demo",
    "[--out DIR] [--seconds N] [--window|--headless]",
    "serve a simulated camera, view, record, snapshot on motion, play back at 2x",
    "Needs no camera and finishes by itself (about 20 s). Files go below DIR\n"
    "(default ./camctl-demo); every one is listed at the end.\n",
    {
        {"--out", "DIR", "save root (./camctl-demo)"},
        {"--seconds", "N", "length of the recording (10)"},
        {"--window", nullptr, "show a window (fail when no display can be opened)"},
        {"--headless", nullptr, "no window (default when DISPLAY is not set)"},
    },
    0,
    0,
};

namespace {

void ShowPicture(void* user, unsigned char* picture, int width, int height) {
    static_cast<PictureWindow*>(user)->Show(picture, width, height);
}

}  // namespace

int RunDemo(const Args& args) {
    const std::string out = args.Get("--out", "camctl-demo");
    const int seconds = args.GetInt("--seconds", 10, 2, 600);
    const ShowMode show = ParseShowMode(args);
    PrepareOutputDir(out);
    const auto demo_start = Clock::now();

    // 1. The camera: a simulator whose background changes every 3 s, so the
    //    motion detector has something to see.
    camsim::Options sim;
    sim.pattern.width = 640;
    sim.pattern.height = 360;
    sim.pattern.fps = 25;
    sim.pattern.scene_switch_every = 75;
    camsim::Server server(sim);
    std::string error;
    if (!server.Start(&error)) Fail(kExitFailure, "demo: the camera simulator did not start: " + error);
    const std::string url = server.Url();
    Note("[1/5] camera simulator serving %s", url.c_str());

    // 2. Open it as a camera.
    LiveOptions options;
    options.name = "demo";
    options.save_root = out;
    PictureWindow window(show, "camctl demo", false);
    PlayResult played;
    std::string recording, motion_snapshot;
    {
        LiveCamera live(ParseSource(url), options);
        live.SetPictureHook(&ShowPicture, &window);
        live.Open();
        if (!live.WaitFirstPicture()) return kExitInterrupted;
        window.Open(live.Width(), live.Height());
        CIpCamera* cam = live.camera();
        Note("[2/5] opened as camera '%s': %s, first picture after %.2f s, %s", cam->GetName(),
             live.Describe().c_str(), live.FirstPictureSeconds(),
             window.IsWindow() ? "shown in a window" : "headless (no display)");

        // 3. Record, with motion detection taking a snapshot per event.
        const std::vector<std::string> avi_before = live.SavedFiles(".avi");
        const std::vector<std::string> jpg_before = live.SavedFiles(".jpg");
        cam->SetMotionDetectLevel(2);
        cam->SetMotionSaveType(1, 1, 5);  // a snapshot per event; the recording runs anyway
        cam->NotifyMotionSave(1);
        if (cam->StartSaveAvi(1) != 0) Fail(kExitOutput, out + ": the recording could not be started");
        Note("[3/5] recording %d s into %s (motion snapshots on)", seconds, cam->GetSaveDir());
        const auto rec_start = Clock::now();
        while (SecondsSince(rec_start) < seconds) {
            if (!SleepFor(200)) break;
            char line[160];
            snprintf(line, sizeof line, "recording %s / %s  %s  %.1f pictures/s  %zu motion snapshot(s)",
                     FormatDuration(SecondsSince(rec_start)).c_str(), FormatDuration(seconds).c_str(),
                     live.Describe().c_str(), live.Pictures() / std::max(0.1, SecondsSince(rec_start)),
                     NewFiles(jpg_before, live.SavedFiles(".jpg")).size());
            Status(line);
            window.Refresh();
        }
        EndStatus();
        cam->NotifyMotionSave(0);
        cam->StopSaveAvi(7);
        if (Interrupted()) return kExitInterrupted;
        std::vector<std::string> avis = NewFiles(avi_before, live.SavedFiles(".avi"));
        if (avis.empty()) Fail(kExitOutput, out + ": the recording was not written");
        recording = avis.back();
        std::vector<std::string> jpgs = NewFiles(jpg_before, live.SavedFiles(".jpg"));
        if (jpgs.empty()) {
            // Should not happen: the scene changes every 3 s.
            Note("[4/5] no motion was detected; taking a manual snapshot instead");
            cam->SaveImage(1, 1);
            for (int i = 0; i < 40 && jpgs.empty(); ++i) {
                SleepFor(50);
                jpgs = NewFiles(jpg_before, live.SavedFiles(".jpg"));
            }
        } else {
            Note("[4/5] motion detected: %zu snapshot(s)", jpgs.size());
        }
        if (!jpgs.empty()) motion_snapshot = jpgs.front();
    }
    server.Stop();

    // 5. Play the recording back at 2x, snapshotting the middle.
    window.Close();
    Note("[5/5] playing the recording back at 2x");
    PlayOptions play;
    play.speed_level = 101;
    play.speed_label = "2x";
    play.snapshot_at = seconds / 2;
    play.save_dir = out;
    play.show = window.Headless() ? ShowMode::Headless : show;
    played = PlayRecording(recording, play);
    if (played.interrupted) return kExitInterrupted;

    Note("done in %.1f s. Files:", SecondsSince(demo_start));
    Out("recording: %s (%lld bytes)", recording.c_str(), FileSize(recording));
    if (!motion_snapshot.empty()) Out("motion snapshot: %s", motion_snapshot.c_str());
    if (!played.snapshot.empty()) Out("playback snapshot: %s", played.snapshot.c_str());
    Out("debug log: %s/trc_new.log (the run before: trc_old.log)", LogDir().c_str());
    if (motion_snapshot.empty()) Fail(kExitStream, "demo: no snapshot was written");
    return kExitOk;
}

}  // namespace camctl_cli
