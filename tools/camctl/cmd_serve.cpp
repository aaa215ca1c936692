// camctl serve: the camera simulator on a loopback port.
#include <cstdio>

#include "camsim/server.h"
#include "cli.h"

namespace camctl_cli {

const CommandSpec kServeSpec = {
    "serve",
    "[FILE] [--port P] [options]",
    "serve a camera stream (private frame protocol) on 127.0.0.1",
    "Serves FILE in a loop, or a generated test picture (running clock, moving\n"
    "square) when no file is given, as http://127.0.0.1:P/stream. Prints that URL\n"
    "on stdout once listening, then runs until Ctrl-C.\n",
    {
        {"--port", "P", "listen on 127.0.0.1:P (default: a free port)"},
        {"--seconds", "N", "stop after N seconds"},
        {"--size", "WxH", "generated picture size (640x360)"},
        {"--fps", "N", "generated picture rate (25)"},
        {"--codec", "C", "generated picture codec: h264, hevc or mjpeg (h264)"},
        {"--audio", "A", "generated tone: none, aac, mulaw, alaw, g722, g726 (none)"},
        {"--scene-switch", "N", "change the background every N frames (causes motion)"},
        {"--still", nullptr, "no moving square"},
        {"--no-clock", nullptr, "no running clock"},
    },
    0,
    1,
};

namespace {

void ParseSize(const Args& args, int* w, int* h) {
    const std::string text = args.Get("--size");
    if (text.empty()) return;
    int a = 0, b = 0;
    char extra = 0;
    if (sscanf(text.c_str(), "%dx%d%c", &a, &b, &extra) != 2 || a < 16 || b < 16 || a > 4096 || b > 4096 ||
        a % 2 || b % 2)
        Fail(kExitUsage, "serve: --size wants WxH with even sides from 16 to 4096, not '" + text + "'");
    *w = a;
    *h = b;
}

}  // namespace

int RunServe(const Args& args) {
    camsim::Options o;
    o.port = args.GetInt("--port", 0, 0, 65535);
    const int seconds = args.GetInt("--seconds", 0, 0, 86400 * 365);
    if (!args.Positional().empty()) {
        o.file = args.Positional()[0];
        ParseSource(o.file);  // a readable file, or a clear failure
    }
    ParseSize(args, &o.pattern.width, &o.pattern.height);
    o.pattern.fps = args.GetInt("--fps", 25, 1, 120);
    if (args.Has("--codec") && !camsim::ParseVideoCodec(args.Get("--codec"), &o.pattern.codec))
        Fail(kExitUsage, "serve: unknown --codec '" + args.Get("--codec") + "' (h264, hevc, mjpeg)");
    if (args.Has("--audio") && !camsim::ParseAudioCodec(args.Get("--audio"), &o.pattern.audio))
        Fail(kExitUsage, "serve: unknown --audio '" + args.Get("--audio") + "'");
    o.pattern.scene_switch_every = args.GetInt("--scene-switch", 0, 0, 1000000);
    o.pattern.moving_object = !args.Has("--still");
    o.pattern.clock = !args.Has("--no-clock");

    camsim::Server server(o);
    std::string error;
    if (!server.Start(&error)) {
        const int code = o.file.empty() ? kExitFailure : kExitSource;
        Fail(code, "serve: " + (o.file.empty() ? std::string() : o.file + ": ") + error);
    }
    Out("serving %s", server.Url().c_str());
    Note("serving %s %s; Ctrl-C stops", o.file.empty() ? "a test picture" : o.file.c_str(),
         server.Url().c_str());
    const auto start = Clock::now();
    while (!Interrupted() && (seconds == 0 || SecondsSince(start) < seconds)) SleepFor(100);
    server.Stop();
    Note("served %d connection(s)", server.ConnectionsAccepted());
    return kExitOk;
}

}  // namespace camctl_cli
