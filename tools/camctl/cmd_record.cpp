// camctl record: record a camera through its own storage tree.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <sstream>

#include "camctl.h"
#include "cli.h"
#include "live.h"

namespace camctl_cli {

const CommandSpec kRecordSpec = {
    "record",
    "URL --out DIR [--seconds N] [--segment S] [--motion MAPFILE --level L]",
    "record a camera to AVI files below DIR",
    "Files go to DIR/VMS/NAME+ID/MS_Record/YYYY-MM-DD/ and are named\n"
    "NAME+ID_YYYYMMDD-hhmmss_REASON_SECONDS.avi once finished (REASON 1: asked\n"
    "for, 2: motion). Ctrl-C finishes the file being written (index written,\n"
    "renamed with its length) and exits 0. Each finished file is printed on stdout.\n"
    "\n"
    "With --motion, only motion is recorded: every motion event starts a file of\n"
    "--segment seconds (default 10). MAPFILE selects the grid cells watched: 24\n"
    "lines of 32 characters, '0' off, anything else on (top line = top of the\n"
    "picture); '-' watches every cell.\n",
    {
        {"--out", "DIR", "save root (required)"},
        {"--seconds", "N", "stop after N seconds (default: until Ctrl-C)"},
        {"--segment", "S", "start a new file every S seconds (default 1800)"},
        {"--motion", "MAPFILE", "record on motion only, watching the cells of MAPFILE"},
        {"--level", "L", "motion sensitivity: 0 low, 1 medium, 2 high (default 1)"},
        {"--name", "NAME", "camera name used in file names (cam)"},
    },
    1,
    1,
};

// Reads a motion map: 24 lines of 32 cells, or "-" for all cells. The
// library's map is column by column (index column * 24 + row).
std::vector<unsigned char> ReadMotionMap(const std::string& path) {
    std::vector<unsigned char> map(CMotionDetector::kMapSize, '1');
    if (path == "-") return map;
    std::ifstream in(path);
    if (!in) Fail(kExitUsage, path + ": cannot read the motion map");
    std::vector<std::string> rows;
    std::string line;
    while (std::getline(in, line)) {
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ')) line.pop_back();
        if (line.empty() || line[0] == '#') continue;
        rows.push_back(line);
    }
    const int cols = CMotionDetector::kGridColumns, nrows = CMotionDetector::kGridRows;
    if (static_cast<int>(rows.size()) != nrows)
        Fail(kExitUsage, path + ": a motion map has " + std::to_string(nrows) + " lines of " +
                             std::to_string(cols) + " cells, this one has " + std::to_string(rows.size()) + " lines");
    for (int r = 0; r < nrows; ++r) {
        if (static_cast<int>(rows[r].size()) != cols)
            Fail(kExitUsage, path + ": line " + std::to_string(r + 1) + " has " + std::to_string(rows[r].size()) +
                                 " cells, not " + std::to_string(cols));
        for (int c = 0; c < cols; ++c) map[c * nrows + r] = rows[r][c] == '0' ? '0' : '1';
    }
    return map;
}

namespace {

bool AllDigits(const std::string& s) {
    return !s.empty() && std::all_of(s.begin(), s.end(), [](char c) { return c >= '0' && c <= '9'; });
}

// "..._YYYYMMDD-hhmmss_REASON_SECONDS.avi": the library renames a recording
// so once it is finished; the file being written lacks "_SECONDS".
bool IsFinishedRecording(const std::string& path) {
    const std::string name = path.substr(path.rfind('/') + 1);
    if (name.size() < 4 || name.compare(name.size() - 4, 4, ".avi") != 0) return false;
    std::vector<std::string> parts;
    std::stringstream stem(name.substr(0, name.size() - 4));
    for (std::string part; std::getline(stem, part, '_');) parts.push_back(part);
    if (parts.size() < 4) return false;
    const std::string& when = parts[parts.size() - 3];
    return AllDigits(parts.back()) && AllDigits(parts[parts.size() - 2]) && when.size() == 15 && when[8] == '-' &&
           AllDigits(when.substr(0, 8)) && AllDigits(when.substr(9));
}

void PrintFinished(const std::vector<std::string>& files) {
    for (const std::string& f : files) Out("recorded: %s (%lld bytes)", f.c_str(), FileSize(f));
}

}  // namespace

int RunRecord(const Args& args) {
    const Source source = ParseSource(args.Positional()[0]);
    if (!args.Has("--out")) Fail(kExitUsage, "record: --out DIR is required (see: camctl record --help)");
    const std::string out = args.Get("--out");
    const double seconds = args.GetDouble("--seconds", 0.0, 0.0, 1e7);
    const int segment = args.GetInt("--segment", 0, 1, 86400);
    const bool motion = args.Has("--motion");
    if (args.Has("--level") && !motion) Fail(kExitUsage, "record: --level goes with --motion");
    const int level = args.GetInt("--level", 1, 0, 2);
    std::vector<unsigned char> map;
    if (motion) map = ReadMotionMap(args.Get("--motion"));
    PrepareOutputDir(out);

    LiveOptions options;
    options.save_root = out;
    options.name = args.Get("--name", "cam");
    // Motion is detected on the luma of planar pictures: rows top down, as
    // the map is written.
    options.yuv = motion;
    LiveCamera live(source, options);
    Note("opening %s ...", source.display.c_str());
    live.Open();
    if (!live.WaitFirstPicture()) return kExitOk;
    CIpCamera* cam = live.camera();
    const std::vector<std::string> before = live.SavedFiles(".avi");

    if (segment > 0) cam->m_nAutoRecordSec = segment;
    if (motion) {
        cam->SetMotionDetectMap(map.data());
        cam->SetMotionDetectLevel(level);
        cam->SetMotionSaveType(0, 1, segment > 0 ? segment : 10);
        cam->NotifyMotionSave(1);
        Note("%s: %s; recording on motion into %s", source.display.c_str(), live.Describe().c_str(),
             cam->GetSaveDir());
    } else {
        if (cam->StartSaveAvi(1) != 0)
            Fail(kExitOutput, std::string(cam->GetSaveDir()) + ": the recording could not be started");
        Note("%s: %s; recording into %s", source.display.c_str(), live.Describe().c_str(), cam->GetSaveDir());
    }

    const auto start = Clock::now();
    std::vector<std::string> reported;
    int rc = kExitOk;
    while (!Interrupted()) {
        if (seconds > 0 && SecondsSince(start) >= seconds) break;
        if (live.StreamEnded()) {
            EndStatus();
            if (source.kind == SourceKind::File) {
                Note("%s: end of file", source.display.c_str());
            } else {
                Note("%s: the stream stopped (connection lost or camera gone); finishing the file",
                     source.display.c_str());
                rc = kExitStream;
            }
            break;
        }
        SleepFor(seconds > 0 ? std::min(1000, std::max(10, static_cast<int>((seconds - SecondsSince(start)) * 1000)))
                             : 1000);
        // Segments finished meanwhile: those renamed with their length.
        std::vector<std::string> finished;
        for (const std::string& f : NewFiles(before, live.SavedFiles(".avi"))) {
            if (IsFinishedRecording(f) && std::find(reported.begin(), reported.end(), f) == reported.end()) {
                finished.push_back(f);
                reported.push_back(f);
            }
        }
        if (!finished.empty()) {
            EndStatus();
            PrintFinished(finished);
        }
        char current[256] = {};
        cam->GetRecordingPath(current, sizeof current);
        char line[512];
        if (current[0]) {
            const char* base = strrchr(current, '/');
            snprintf(line, sizeof line, "%s  recording %s  %s  %lld KB", FormatDuration(SecondsSince(start)).c_str(),
                     FormatDuration(static_cast<double>(cam->GetAviDuration())).c_str(), base ? base + 1 : current,
                     std::max(0LL, FileSize(current)) / 1024);
        } else {
            snprintf(line, sizeof line, "%s  %s  %zu file(s)", FormatDuration(SecondsSince(start)).c_str(),
                     motion ? "watching for motion" : "not recording", reported.size());
        }
        Status(line);
    }
    EndStatus();
    if (Interrupted()) Note("interrupted: finishing the recording");
    cam->StopSaveAvi(7);
    std::vector<std::string> rest;
    for (const std::string& f : NewFiles(before, live.SavedFiles(".avi"))) {
        if (std::find(reported.begin(), reported.end(), f) != reported.end()) continue;
        if (!IsFinishedRecording(f)) Note("%s: the library did not give this file its final name", f.c_str());
        rest.push_back(f);
    }
    PrintFinished(rest);
    if (reported.empty() && rest.empty() && !motion && rc == kExitOk)
        Fail(kExitOutput, std::string(cam->GetSaveDir()) + ": no recording was written");
    return rc;
}

}  // namespace camctl_cli
