// camctl probe: what a source delivers.
#include "camctl.h"
#include "cli.h"
#include "live.h"

namespace camctl_cli {

const CommandSpec kProbeSpec = {
    "probe",
    "URL [--seconds N]",
    "show a source's codec, picture size, frame rate, bit rate, audio and time to first picture",
    "Opens the source as a camera, waits for the first picture, then watches it\n"
    "for N seconds (default 3.5: the library's rate counters cover 3 s) and\n"
    "prints one 'key: value' line per property on stdout.\n",
    {
        {"--seconds", "N", "how long to watch after the first picture (3.5)"},
    },
    1,
    1,
};

int RunProbe(const Args& args) {
    const Source source = ParseSource(args.Positional()[0]);
    const double watch = args.GetDouble("--seconds", 3.5, 0.0, 3600.0);
    LiveCamera live(source, LiveOptions{});
    live.Open();
    if (!live.WaitFirstPicture()) return kExitInterrupted;

    const auto start = Clock::now();
    const long long first_count = live.Pictures();
    while (SecondsSince(start) < watch && !live.StreamEnded())
        if (!SleepFor(50)) return kExitInterrupted;
    const double watched = SecondsSince(start);
    const long long pictures = live.Pictures() - first_count;
    CIpCamera* cam = live.camera();

    Out("source: %s", source.display.c_str());
    Out("video: %s", CodecName(cam->GetMainVideoCodec()));
    Out("size: %dx%d", live.Width(), live.Height());
    const double shown = watched > 0 ? pictures / watched : 0.0;
    const int received = cam->getFramesCount();
    if (received > 0)
        Out("frame rate: %d fps received, %.1f pictures/s decoded", received, shown);
    else
        Out("frame rate: %.1f pictures/s decoded", shown);
    const float kbit = cam->getNetRate();
    if (kbit > 0) Out("bit rate: %.0f kbit/s", kbit);
    else Out("bit rate: not measured yet (watch longer than 3 s)");
    if (live.AudioBlocks() > 0)
        Out("audio: %d Hz, 16-bit samples (%lld blocks)", live.AudioRate(), live.AudioBlocks());
    else
        Out("audio: none");
    Out("open: %.2f s", live.OpenSeconds());
    Out("first picture: %.2f s", live.FirstPictureSeconds());
    if (live.StreamEnded()) Out("end: the stream ended after %.1f s", watched);
    return kExitOk;
}

}  // namespace camctl_cli
