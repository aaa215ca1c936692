// The camctl tool driven as a user drives it: every subcommand runs as a
// child process against the camera simulator on 127.0.0.1, and its output
// and files are checked (ffprobe for recordings, a full decode for JPEG, the
// BMP header, the screen under Xvfb). The demo and the slow network
// failures are in camctl_demo_test.cpp.
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "camsim/server.h"
#include "support/cli_support.h"
#include "support/fixtures.h"

namespace {

using namespace camctl_test;
using Child = ChildProcess;
using Result = ChildResult;

std::string CamctlPath() { return std::string(CAMCTL_BINARY_DIR) + "/tools/camctl"; }

std::vector<std::string> Camctl(std::vector<std::string> args) {
    args.insert(args.begin(), CamctlPath());
    return args;
}

Result RunCamctl(const std::vector<std::string>& args, double seconds = 60) {
    Child c(Camctl(args), Child::Options());
    return c.Wait(seconds);
}

// The simulator on a free loopback port; the generated picture unless changed.
struct Camera {
    explicit Camera(camsim::Options o = {}) : server(o) {
        std::string error;
        started = server.Start(&error);
        EXPECT_TRUE(started) << error;
    }
    std::string Url() const { return server.Url(); }
    camsim::Server server;
    bool started = false;
};

// "recorded: PATH (N bytes)" lines of stdout -> PATH.
std::vector<std::string> RecordedFiles(const std::string& out) {
    std::vector<std::string> files;
    for (const std::string& l : Lines(out)) {
        const size_t size = l.rfind(" (");
        if (l.rfind("recorded: ", 0) == 0 && size != std::string::npos && Contains(l.substr(size), " bytes)"))
            files.push_back(l.substr(10, size - 10));
    }
    return files;
}

// One status line of 'view':
//   "00:12  H.264 640x360  25 fps  412 kbit/s  shown 25.0/s  queue ok  rec 00:08"
struct ViewStatus {
    std::string codec, size, queue, rec;
    int fps = 0, kbit = 0;
    double shown = 0;
};

bool ParseViewStatus(const std::string& line, ViewStatus* st) {
    int mm = 0, ss = 0, used = 0;
    char codec[16], size[16], queue[16], rec[16];
    if (sscanf(line.c_str(), "%d:%d  %15s %15s  %d fps  %d kbit/s  shown %lf/s  queue %15s  rec %15s%n", &mm, &ss,
               codec, size, &st->fps, &st->kbit, &st->shown, queue, rec, &used) != 9 ||
        used != static_cast<int>(line.size()))
        return false;
    st->codec = codec;
    st->size = size;
    st->queue = queue;
    st->rec = rec;
    return (st->queue == "ok" || st->queue == "behind") && (st->rec == "off" || st->rec.size() == 5);
}

// ---------------------------------------------------------------------------

TEST(CamctlCli, Help_EveryCommandAndUsageErrors) {
    const char* commands[] = {"view", "record", "snapshot", "motion", "probe", "play", "serve", "demo"};
    Result all = RunCamctl({"--help"});
    EXPECT_EQ(all.code, 0);
    for (const char* c : commands) {
        EXPECT_TRUE(Contains(all.out, std::string("  ") + c + " ")) << c;
        Result r = RunCamctl({c, "--help"});
        EXPECT_EQ(r.code, 0) << c;
        EXPECT_TRUE(Contains(r.out, std::string("usage: camctl ") + c)) << r.out;
        EXPECT_TRUE(Contains(r.out, "--help")) << r.out;
    }

    Result none = RunCamctl({});
    EXPECT_EQ(none.code, 2);
    Result unknown = RunCamctl({"frobnicate"});
    EXPECT_EQ(unknown.code, 2);
    EXPECT_EQ(Lines(unknown.err).size(), 1u) << unknown.err;
    EXPECT_TRUE(Contains(unknown.err, "unknown command 'frobnicate'")) << unknown.err;
    Result option = RunCamctl({"record", "http://127.0.0.1:1/x", "--out", "/tmp", "--bogus"});
    EXPECT_EQ(option.code, 2);
    EXPECT_TRUE(Contains(option.err, "unknown option --bogus")) << option.err;
    Result no_out = RunCamctl({"record", "http://127.0.0.1:1/x"});
    EXPECT_EQ(no_out.code, 2);
    EXPECT_TRUE(Contains(no_out.err, "--out DIR is required")) << no_out.err;
    Result bad_number = RunCamctl({"snapshot", "http://127.0.0.1:1/x", "--out", "/tmp", "--count", "two"});
    EXPECT_EQ(bad_number.code, 2);
    EXPECT_TRUE(Contains(bad_number.err, "--count")) << bad_number.err;
    Result bad_speed = RunCamctl({"play", "/dev/null", "--speed", "3x"});
    EXPECT_EQ(bad_speed.code, 2);
    EXPECT_TRUE(Contains(bad_speed.err, "--speed '3x'")) << bad_speed.err;
}

TEST(CamctlCli, ServeThenProbe_ReportsWhatIsServed) {
    const int port = camctl_test::FreeLoopbackPort();
    Child serve(Camctl({"serve", "--port", std::to_string(port), "--seconds", "40", "--codec", "mjpeg", "--size",
                 "320x240", "--audio", "mulaw"}),
                Child::Options());
    const std::string url = "http://127.0.0.1:" + std::to_string(port) + "/stream";
    ASSERT_TRUE(serve.WaitForText("serving " + url, 10)) << serve.Err();

    Result probe = RunCamctl({"probe", url}, 40);
    ASSERT_EQ(probe.code, 0) << probe.err;
    EXPECT_EQ(Field(probe.out, "video"), "MJPEG");
    EXPECT_EQ(Field(probe.out, "size"), "320x240");
    const std::string rate = Field(probe.out, "frame rate");
    EXPECT_GE(atoi(rate.c_str()), 20) << rate;
    EXPECT_LE(atoi(rate.c_str()), 30) << rate;
    EXPECT_GT(atof(Field(probe.out, "bit rate").c_str()), 10.0) << probe.out;
    EXPECT_TRUE(Contains(Field(probe.out, "audio"), "8000 Hz")) << probe.out;
    const double first = atof(Field(probe.out, "first picture").c_str());
    EXPECT_GT(first, 0.0);
    EXPECT_LT(first, 10.0);

    serve.Signal(SIGINT);
    Result end = serve.Wait(10);
    EXPECT_EQ(end.code, 0) << end.err;
    EXPECT_TRUE(Contains(end.err, "served 1 connection")) << end.err;
}

TEST(CamctlCli, Snapshot_WritesDecodableJpegs) {
    Camera cam;
    ASSERT_TRUE(cam.started);
    TempDir dir;
    Result r = RunCamctl({"snapshot", cam.Url(), "--out", dir.path(), "--count", "2", "--name", "door"});
    ASSERT_EQ(r.code, 0) << r.err;
    std::vector<std::string> files = Lines(r.out);
    ASSERT_EQ(files.size(), 2u) << r.out;
    EXPECT_EQ(camctl_test::ListFiles(dir.path()).size(), 2u);
    for (const std::string& f : files) {
        EXPECT_TRUE(Contains(f, dir.path() + "/VMS/door+")) << f;
        EXPECT_TRUE(Contains(f, "/IMAGE-MANUAL/")) << f;
        EXPECT_EQ(ProbeSize(f), "640x360") << f;
        EXPECT_TRUE(Decodes(f)) << f;
    }
}

TEST(CamctlCli, Record_SegmentsAreFinishedFiles) {
    Camera cam;
    ASSERT_TRUE(cam.started);
    TempDir dir;
    Result r = RunCamctl({"record", cam.Url(), "--out", dir.path(), "--seconds", "5", "--segment", "2"});
    ASSERT_EQ(r.code, 0) << r.err;
    std::vector<std::string> printed = RecordedFiles(r.out);
    std::vector<std::string> on_disk = camctl_test::ListFiles(dir.path());
    EXPECT_GE(printed.size(), 2u) << r.out;
    EXPECT_EQ(printed.size(), on_disk.size()) << r.out;
    for (const std::string& f : on_disk) {
        int seconds = -1;
        EXPECT_TRUE(HasFinishedRecordingName(f, 1, &seconds)) << f;
        EXPECT_LE(seconds, 4) << f;
        EXPECT_TRUE(HasAviIndex(f)) << f;
        EXPECT_EQ(ProbeSize(f), "640x360") << f;
        EXPECT_GT(ProbeDuration(f), 0.5) << f;
    }
    EXPECT_TRUE(Contains(r.err, "recording")) << r.err;
}

TEST(CamctlCli, Record_CtrlCFinishesTheFile) {
    Camera cam;
    ASSERT_TRUE(cam.started);
    TempDir dir;
    Child rec(Camctl({"record", cam.Url(), "--out", dir.path()}), Child::Options());
    ASSERT_TRUE(rec.WaitForText("recording 00:02", 20)) << rec.Err();
    rec.Signal(SIGINT);
    Result r = rec.Wait(15);
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(Contains(r.err, "interrupted: finishing the recording")) << r.err;
    std::vector<std::string> files = camctl_test::ListFiles(dir.path());
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(RecordedFiles(r.out), files);
    int seconds = -1;
    EXPECT_TRUE(HasFinishedRecordingName(files[0], 1, &seconds)) << files[0];
    EXPECT_GE(seconds, 1);
    EXPECT_LE(seconds, 10);
    EXPECT_TRUE(HasAviIndex(files[0])) << "no index: the trailer was not written";
    EXPECT_GT(ProbeDuration(files[0]), 1.0);
    EXPECT_TRUE(Decodes(files[0]));
}

TEST(CamctlCli, Motion_SceneChangesOnlyAndTheMap) {
    camsim::Options changing;
    changing.pattern.width = 320;
    changing.pattern.height = 240;
    changing.pattern.moving_object = false;
    changing.pattern.clock = false;
    changing.pattern.scene_switch_every = 25;
    camsim::Options still = changing;
    still.pattern.scene_switch_every = 0;
    Camera moving_cam(changing), still_cam(still);
    ASSERT_TRUE(moving_cam.started && still_cam.started);
    TempDir dir;
    {
        std::ofstream map(dir / "off.map");
        for (int r = 0; r < 24; ++r) map << std::string(32, '0') << "\n";
    }
    const std::vector<std::string> common = {"--level", "2", "--seconds", "7"};
    auto args = [&](const std::string& url, std::vector<std::string> extra) {
        std::vector<std::string> a = Camctl({"motion", url});
        a.insert(a.end(), common.begin(), common.end());
        a.insert(a.end(), extra.begin(), extra.end());
        return a;
    };
    Child seen(args(moving_cam.Url(), {}), Child::Options());
    Child quiet(args(still_cam.Url(), {}), Child::Options());
    Child masked(args(moving_cam.Url(), {"--map", dir / "off.map"}), Child::Options());
    // The camera's own detector, recording on motion.
    Child recorder(Camctl({"record", moving_cam.Url(), "--out", dir / "rec", "--motion", "-", "--level", "2",
                           "--segment", "2", "--seconds", "7"}),
                   Child::Options());
    Result r_seen = seen.Wait(30), r_quiet = quiet.Wait(30), r_masked = masked.Wait(30);
    Result r_rec = recorder.Wait(30);
    ASSERT_EQ(r_seen.code, 0) << r_seen.err;
    ASSERT_EQ(r_quiet.code, 0) << r_quiet.err;
    ASSERT_EQ(r_masked.code, 0) << r_masked.err;
    ASSERT_EQ(r_rec.code, 0) << r_rec.err;
    std::vector<std::string> motion_files = ListFiles(dir / "rec");
    EXPECT_GE(motion_files.size(), 1u) << r_rec.err;
    EXPECT_EQ(RecordedFiles(r_rec.out), motion_files);
    for (const std::string& f : motion_files) {
        EXPECT_TRUE(HasFinishedRecordingName(f, 2)) << "not a motion recording: " << f;
        EXPECT_TRUE(HasAviIndex(f)) << f;
    }

    // "YYYY-MM-DD hh:mm:ss.mmm result=R ..."
    int events = 0;
    for (const std::string& l : Lines(r_seen.out)) {
        int date[6], ms = 0, result = 0;
        ASSERT_EQ(sscanf(l.c_str(), "%4d-%2d-%2d %2d:%2d:%2d.%3d result=%d", &date[0], &date[1], &date[2], &date[3],
                         &date[4], &date[5], &ms, &result),
                  8)
            << l;
        ASSERT_TRUE(result == 1 || result == 2) << l;
        if (result == 1) ++events;
    }
    EXPECT_GE(events, 1) << r_seen.out;
    EXPECT_EQ(r_quiet.out, "") << "motion on a still picture";
    EXPECT_EQ(r_masked.out, "") << "motion outside the map";

    Result bad_map = RunCamctl({"motion", moving_cam.Url(), "--map", "/etc/hostname"});
    EXPECT_EQ(bad_map.code, 2);
    EXPECT_TRUE(Contains(bad_map.err, "24 lines of 32 cells")) << bad_map.err;
}

TEST(CamctlCli, Play_DoubleSpeedWithSnapshot) {
    const std::string clip = camctl_test::Fixture(
        "cli_play_320x240_4s.avi",
        "-f lavfi -i testsrc2=size=320x240:rate=25 -t 4 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p");
    TempDir dir;
    Result r = RunCamctl({"play", clip, "--speed", "2x", "--snapshot-at", "1", "--out", dir.path(), "--headless"});
    ASSERT_EQ(r.code, 0) << r.err;
    const std::string shot = Field(r.out, "snapshot");
    ASSERT_FALSE(shot.empty()) << r.out;
    EXPECT_TRUE(Contains(shot, dir.path() + "/VMS/PLAY-IMAGE-MANUAL/")) << shot;
    BmpHeader bmp = ReadBmpHeader(shot);
    EXPECT_TRUE(bmp.ok);
    EXPECT_EQ(bmp.width, 320);
    EXPECT_EQ(bmp.height, 240);
    EXPECT_EQ(bmp.bits, 24);
    // The progress bar counts up to the file's length, at 2x.
    EXPECT_TRUE(Contains(r.err, "] 00:01 / 00:04  2x") || Contains(r.err, "] 00:02 / 00:04  2x") ||
                Contains(r.err, "] 00:03 / 00:04  2x"))
        << r.err;
    const size_t played = r.err.find("played ");
    ASSERT_NE(played, std::string::npos) << r.err;
    // 4 s at 25 fps; the player may drop the odd picture at its start.
    const int pictures = atoi(r.err.c_str() + played + 7);
    EXPECT_GE(pictures, 80) << "pictures lost in playback";
    EXPECT_LE(pictures, 100);
}

TEST(CamctlCli, View_HeadlessStatusLineAndRecording) {
    Camera cam;
    ASSERT_TRUE(cam.started);
    TempDir dir;
    Result r = RunCamctl({"view", cam.Url(), "--headless", "--seconds", "5", "--record", dir.path()});
    ASSERT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(Contains(r.err, "headless")) << r.err;
    int lines = 0, recording = 0, live = 0;
    for (const std::string& l : Lines(r.err)) {
        ViewStatus st;
        if (!ParseViewStatus(l, &st)) continue;
        ++lines;
        EXPECT_EQ(st.codec + " " + st.size, "H.264 640x360") << l;
        if (st.rec != "off") ++recording;
        if (st.fps >= 20 && st.kbit > 0 && st.shown >= 15) ++live;
    }
    EXPECT_GE(lines, 3) << r.err;
    EXPECT_GE(recording, 3) << r.err;
    EXPECT_GE(live, 1) << "rates never showed a live stream:\n" << r.err;
    std::vector<std::string> files = RecordedFiles(r.out);
    ASSERT_EQ(files.size(), 1u) << r.out;
    EXPECT_TRUE(HasFinishedRecordingName(files[0], 1)) << files[0];
}

TEST(CamctlCli, View_SubStreamInYuvWithSmoothPacing) {
    camsim::Options small;
    small.pattern.width = 320;
    small.pattern.height = 240;
    Camera main_cam, sub_cam(small);
    ASSERT_TRUE(main_cam.started && sub_cam.started);
    Result r = RunCamctl({"view", main_cam.Url(), "--sub", sub_cam.Url(), "--yuv", "--smooth", "1", "--headless",
                          "--seconds", "4"});
    ASSERT_EQ(r.code, 0) << r.err;
    // The sub stream's pictures are the ones decoded and shown.
    int showing = 0;
    for (const std::string& l : Lines(r.err)) {
        ViewStatus st;
        if (ParseViewStatus(l, &st) && st.size == "320x240" && st.shown >= 10) ++showing;
    }
    EXPECT_GE(showing, 1) << r.err;

    Result bad_sub = RunCamctl({"view", main_cam.Url(), "--sub", "http://127.0.0.1:1/none", "--headless"});
    EXPECT_EQ(bad_sub.code, 3) << bad_sub.err;
    EXPECT_TRUE(Contains(bad_sub.err, "cannot open the sub stream")) << bad_sub.err;
}

// The X server for the window test, on a display number of its own.
class Xvfb {
public:
    Xvfb() {
        if (camctl_test::RunCommand("command -v Xvfb >/dev/null") != 0) return;
        for (int n = 90 + getpid() % 100; n < 400 && display_.empty(); n += 7) {
            const std::string lock = "/tmp/.X" + std::to_string(n) + "-lock";
            if (camctl_test::FileExists(lock)) continue;
            pid_ = fork();
            if (pid_ == 0) {
                int null_fd = open("/dev/null", O_RDWR);
                dup2(null_fd, 1);
                dup2(null_fd, 2);
                execlp("Xvfb", "Xvfb", (":" + std::to_string(n)).c_str(), "-screen", "0", "800x600x24", "-nolisten",
                       "tcp", "-br", static_cast<char*>(nullptr));
                _exit(127);
            }
            const std::string socket = "/tmp/.X11-unix/X" + std::to_string(n);
            for (int i = 0; i < 100 && !camctl_test::FileExists(socket); ++i)
                std::this_thread::sleep_for(std::chrono::milliseconds(50));
            if (camctl_test::FileExists(socket)) display_ = ":" + std::to_string(n);
            else Stop();
        }
    }
    ~Xvfb() { Stop(); }
    const std::string& display() const { return display_; }

private:
    void Stop() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
        pid_ = -1;
    }
    pid_t pid_ = -1;
    std::string display_;
};

// Mean red, green and blue of a w x h area at (x, y) of the screen.
std::vector<double> MeanColour(const std::string& display, int x, int y, int w, int h) {
    std::string raw;
    char cmd[512];
    snprintf(cmd, sizeof cmd,
             "ffmpeg -v error -f x11grab -video_size %dx%d -i '%s+%d,%d' -frames:v 1 -f rawvideo -pix_fmt rgb24 -", w,
             h, display.c_str(), x, y);
    if (camctl_test::RunCommand(cmd, &raw) != 0 || raw.size() != static_cast<size_t>(w) * h * 3) return {};
    std::vector<double> sum(3, 0.0);
    for (size_t i = 0; i < raw.size(); ++i) sum[i % 3] += static_cast<unsigned char>(raw[i]);
    for (double& s : sum) s /= static_cast<double>(w) * h;
    return sum;
}

TEST(CamctlCli, View_WindowShowsThePictureUnderXvfb) {
    Xvfb x;
    if (x.display().empty()) GTEST_SKIP() << "Xvfb not available";
    // A plain colour, so the window's mean colour is known: rgb(51, 102, 204).
    camsim::Options o;
    o.file = camctl_test::Fixture("cli_colour_320x240.mp4",
                                  "-f lavfi -i color=c=0x3366CC:size=320x240:rate=25 -t 2 -c:v libx264 -bf 0 -g 25 "
                                  "-pix_fmt yuv420p");
    Camera cam(o);
    ASSERT_TRUE(cam.started);
    Child::Options co;
    co.display = x.display().c_str();
    Child view(Camctl({"view", cam.Url(), "--window", "--seconds", "6"}), co);
    ASSERT_TRUE(view.WaitForText("shown in a window", 15)) << view.Err();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    // The window sits at the top-left corner; the picture fills its 320 x 240.
    std::vector<double> inside = MeanColour(x.display(), 20, 20, 280, 200);
    std::vector<double> outside = MeanColour(x.display(), 500, 400, 200, 150);
    ASSERT_EQ(inside.size(), 3u);
    ASSERT_EQ(outside.size(), 3u);
    EXPECT_NEAR(inside[0], 51, 12);
    EXPECT_NEAR(inside[1], 102, 12);
    EXPECT_NEAR(inside[2], 204, 12);
    EXPECT_LT(outside[0] + outside[1] + outside[2], 10) << "the screen outside the window is not black";
    Result r = view.Wait(20);
    EXPECT_EQ(r.code, 0) << r.err;

    Result no_display = [] {
        Child::Options bad;
        bad.display = ":399";
        Child c(Camctl({"view", "http://127.0.0.1:1/x", "--window"}), bad);
        return c.Wait(20);
    }();
    EXPECT_NE(no_display.code, 0);
}

TEST(CamctlCli, BadInput_UnknownSchemeAndMissingFile) {
    Result scheme = RunCamctl({"probe", "ftp://127.0.0.1/cam"});
    EXPECT_EQ(scheme.code, 2);
    EXPECT_EQ(Lines(scheme.err).size(), 1u) << scheme.err;
    EXPECT_TRUE(Contains(scheme.err, "unsupported source scheme 'ftp://'")) << scheme.err;

    Result missing = RunCamctl({"view", "/nonexistent/cam.mp4", "--headless"});
    EXPECT_EQ(missing.code, 3);
    EXPECT_EQ(Lines(missing.err).size(), 1u) << missing.err;
    EXPECT_TRUE(Contains(missing.err, "No such file")) << missing.err;
}

TEST(CamctlCli, BadInput_ConnectionRefused) {
    const int port = camctl_test::FreeLoopbackPort();
    Result r = RunCamctl({"probe", "http://127.0.0.1:" + std::to_string(port) + "/stream"}, 30);
    EXPECT_EQ(r.code, 3) << r.err;
    EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
    EXPECT_TRUE(Contains(r.err, "cannot open: unreachable: ")) << r.err;
    EXPECT_TRUE(Contains(r.err, "Connection refused (is the camera on, and is " + std::to_string(port))) << r.err;
}

TEST(CamctlCli, BadInput_NotAMediaFile) {
    TempDir dir;
    {
        std::ofstream f(dir / "notes.mp4");
        for (int i = 0; i < 200; ++i) f << "this is a text file, not a video\n";
    }
    for (const char* command : {"probe", "play"}) {
        Result r = RunCamctl({command, dir / "notes.mp4"}, 30);
        EXPECT_EQ(r.code, 3) << command << ": " << r.err;
        EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
        EXPECT_TRUE(Contains(r.err, "notes.mp4")) << r.err;
        EXPECT_TRUE(Contains(r.err, "no video")) << r.err;
    }
}

TEST(CamctlCli, BadInput_OutputFolderNotWritable) {
    Camera cam;
    ASSERT_TRUE(cam.started);
    TempDir dir;
    const std::string locked = dir / "locked";
    ASSERT_EQ(mkdir(locked.c_str(), 0555), 0);
    chmod(dir.path().c_str(), 0755);
    Child::Options o;
    if (geteuid() == 0) {
        // root writes anywhere: run camctl as nobody.
        if (camctl_test::RunCommand("command -v setpriv >/dev/null") != 0) GTEST_SKIP() << "setpriv missing";
        o.prefix = {"setpriv", "--reuid=65534", "--regid=65534", "--clear-groups", "--"};
    }
    for (const std::vector<std::string>& args :
         {std::vector<std::string>{"record", cam.Url(), "--out", locked, "--seconds", "2"},
          std::vector<std::string>{"snapshot", cam.Url(), "--out", locked + "/sub"}}) {
        Child c(Camctl(args), o);
        Result r = c.Wait(30);
        EXPECT_EQ(r.code, 5) << r.err;
        EXPECT_EQ(Lines(r.err).size(), 1u) << r.err;
        EXPECT_TRUE(Contains(r.err, locked)) << r.err;
        EXPECT_TRUE(Contains(r.err, "Permission denied")) << r.err;
    }
    EXPECT_TRUE(camctl_test::ListFiles(locked).empty());
}

// The README's host example is the file the build compiles.
TEST(CamctlCli, Readme_ExampleIsTheCompiledOne) {
    const std::string readme = ReadText(std::string(CAMCTL_SOURCE_DIR) + "/README.md");
    const std::string example = ReadText(std::string(CAMCTL_SOURCE_DIR) + "/tools/example/host_example.cpp");
    ASSERT_FALSE(example.empty());
    EXPECT_TRUE(Contains(readme, "```cpp\n" + example + "```")) << "README.md and tools/example/host_example.cpp differ";
}

}  // namespace
