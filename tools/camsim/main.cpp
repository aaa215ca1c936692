// camsim: serves the private frame stream on 127.0.0.1 until interrupted.
//
//   camsim [--port N] [--file PATH] [options]
// Prints "camsim: serving http://127.0.0.1:PORT/stream" once listening.
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>

#include "camsim/server.h"

namespace {

volatile std::sig_atomic_t g_stop = 0;

void OnSignal(int) { g_stop = 1; }

void Usage() {
    fprintf(stderr,
            "usage: camsim [options]\n"
            "  --port N                 listen on 127.0.0.1:N (default: any free port)\n"
            "  --file PATH              serve this media file (default: generated picture)\n"
            "  --no-loop                close the connection at the end of the file\n"
            "  --speed X                pacing factor, 0 = as fast as possible (default 1)\n"
            "  --max-frames N           close each connection after N video frames\n"
            "  --size WxH --fps N       generated picture size and rate (640x360, 25)\n"
            "  --codec h264|hevc|mjpeg  generated picture codec (h264)\n"
            "  --audio none|aac|mulaw|alaw|g722|g726   generated tone (none)\n"
            "  --still                  no moving square\n"
            "  --no-clock               no clock\n"
            "  --scene-switch N         change the background every N frames\n"
            "  --resize-after N --resize WxH   new picture size from frame N\n"
            "  --codec-change-after N --codec-change-to CODEC\n"
            "  --junk N                 N bytes of junk before the first frame\n"
            "  --marker-every N         marker pattern inside every Nth video payload\n"
            "  --motion-every N         motion-region record after every Nth video frame\n"
            "  --ver N                  header version field (1)\n");
}

bool ParseSize(const char* text, int* w, int* h) { return sscanf(text, "%dx%d", w, h) == 2; }

}  // namespace

int main(int argc, char** argv) {
    camsim::Options o;
    for (int i = 1; i < argc; ++i) {
        std::string a = argv[i];
        auto value = [&]() -> const char* {
            if (i + 1 >= argc) {
                fprintf(stderr, "camsim: %s needs a value\n", a.c_str());
                exit(2);
            }
            return argv[++i];
        };
        bool good = true;
        if (a == "--port") o.port = atoi(value());
        else if (a == "--file") o.file = value();
        else if (a == "--no-loop") o.loop = false;
        else if (a == "--speed") o.speed = atof(value());
        else if (a == "--max-frames") o.max_video_frames = atoi(value());
        else if (a == "--size") good = ParseSize(value(), &o.pattern.width, &o.pattern.height);
        else if (a == "--fps") o.pattern.fps = atoi(value());
        else if (a == "--codec") good = camsim::ParseVideoCodec(value(), &o.pattern.codec);
        else if (a == "--audio") good = camsim::ParseAudioCodec(value(), &o.pattern.audio);
        else if (a == "--still") o.pattern.moving_object = false;
        else if (a == "--no-clock") o.pattern.clock = false;
        else if (a == "--scene-switch") o.pattern.scene_switch_every = atoi(value());
        else if (a == "--resize-after") o.pattern.resize_after = atoi(value());
        else if (a == "--resize") good = ParseSize(value(), &o.pattern.resize_width, &o.pattern.resize_height);
        else if (a == "--codec-change-after") o.pattern.codec_change_after = atoi(value());
        else if (a == "--codec-change-to") good = camsim::ParseVideoCodec(value(), &o.pattern.codec_change_to);
        else if (a == "--junk") o.junk_before_first = atoi(value());
        else if (a == "--marker-every") o.marker_in_payload_every = atoi(value());
        else if (a == "--motion-every") o.motion_every = atoi(value());
        else if (a == "--ver") o.ver = static_cast<uint32_t>(strtoul(value(), nullptr, 0));
        else if (a == "--help" || a == "-h") {
            Usage();
            return 0;
        } else {
            good = false;
        }
        if (!good) {
            fprintf(stderr, "camsim: bad argument %s\n", a.c_str());
            Usage();
            return 2;
        }
    }

    signal(SIGINT, OnSignal);
    signal(SIGTERM, OnSignal);
    signal(SIGPIPE, SIG_IGN);

    camsim::Server server(o);
    std::string error;
    if (!server.Start(&error)) {
        fprintf(stderr, "camsim: %s\n", error.c_str());
        return 1;
    }
    printf("camsim: serving %s\n", server.Url().c_str());
    fflush(stdout);
    while (!g_stop) std::this_thread::sleep_for(std::chrono::milliseconds(100));
    server.Stop();
    return 0;
}
