// camctl snapshot: JPEG snapshots of a camera.
#include <algorithm>
#include <thread>

#include "camctl.h"
#include "cli.h"
#include "live.h"

namespace camctl_cli {

const CommandSpec kSnapshotSpec = {
    "snapshot",
    "URL --out DIR [--count N]",
    "take N JPEG snapshots of a camera, one a second",
    "Files go to DIR/VMS/NAME+ID/IMAGE-MANUAL/YYYY-MM-DD/\n"
    "NAME_YYYYMMDD-hhmmss_1_SERIAL.jpg; each is printed on stdout once written.\n",
    {
        {"--out", "DIR", "save root (required)"},
        {"--count", "N", "number of snapshots (1)"},
        {"--name", "NAME", "camera name used in file names (cam)"},
    },
    1,
    1,
};

int RunSnapshot(const Args& args) {
    const Source source = ParseSource(args.Positional()[0]);
    if (!args.Has("--out")) Fail(kExitUsage, "snapshot: --out DIR is required (see: camctl snapshot --help)");
    const std::string out = args.Get("--out");
    const int count = args.GetInt("--count", 1, 1, 3600);
    PrepareOutputDir(out);

    LiveOptions options;
    options.save_root = out;
    options.name = args.Get("--name", "cam");
    LiveCamera live(source, options);
    live.Open();
    if (!live.WaitFirstPicture()) return kExitInterrupted;
    CIpCamera* cam = live.camera();
    const std::vector<std::string> before = live.SavedFiles(".jpg");
    cam->SaveImage(1, count);

    // One snapshot now, then one a second, each written from the next
    // picture; allow 10 s beyond that for a slow stream.
    const auto start = Clock::now();
    const long long pictures_before = live.Pictures();
    const double limit = count + 10.0;
    std::vector<std::string> printed;
    long long last_size = -1;
    while (static_cast<int>(printed.size()) < count) {
        if (Interrupted()) return kExitInterrupted;
        if (SecondsSince(start) > limit)
            Fail(kExitStream, source.display + ": only " + std::to_string(printed.size()) + " of " +
                                  std::to_string(count) + " snapshots were written in " +
                                  std::to_string(static_cast<int>(limit)) + " s (" +
                                  std::to_string(live.Pictures() - pictures_before) + " pictures came meanwhile)");
        if (live.StreamEnded() && printed.empty())
            Fail(kExitStream, source.display + ": the stream stopped before a snapshot was written");
        SleepFor(50);
        for (const std::string& f : NewFiles(before, live.SavedFiles(".jpg"))) {
            if (std::find(printed.begin(), printed.end(), f) != printed.end()) continue;
            // Printed once its size holds still between two looks.
            const long long size = FileSize(f);
            if (size <= 0 || size != last_size) {
                last_size = size;
                break;
            }
            Out("%s", f.c_str());
            printed.push_back(f);
            last_size = -1;
        }
    }
    return kExitOk;
}

}  // namespace camctl_cli
