// camctl: the command-line host of the library. Shared pieces of the
// subcommands: exit codes, the failure type, argument parsing, output
// channels, interruption, sources, output folders and the picture window.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <vector>

class CDC;
class CIpCamera;
class CVideoDisplayer;
class CWindowDC;

namespace camctl_cli {

// Exit codes (docs/CLI.md lists them for users).
enum ExitCode : int {
    kExitOk = 0,
    kExitFailure = 1,      // anything unexpected
    kExitUsage = 2,        // bad command line, unknown subcommand, option or URL scheme
    kExitSource = 3,       // the source could not be opened
    kExitStream = 4,       // opened, but no pictures came, or the stream was lost
    kExitOutput = 5,       // an output folder or file could not be written
    kExitInterrupted = 130 // Ctrl-C before a command with a natural end was done
};

// A failure that ends the subcommand: one line for the user and an exit code.
struct Failure {
    int code;
    std::string message;
};
[[noreturn]] void Fail(int code, const std::string& message);

// ---------------------------------------------------------------------------
// Arguments

struct OptionSpec {
    const char* name;        // "--out"
    const char* value_name;  // "DIR", or null for a flag
    const char* help;
};

struct CommandSpec {
    const char* name;      // "record"
    const char* synopsis;  // "URL --out DIR [--seconds N]"
    const char* summary;   // one line
    const char* details;   // further help text, may be empty
    std::vector<OptionSpec> options;
    int min_positional;
    int max_positional;
};

class Args {
public:
    bool Has(const std::string& name) const;
    std::string Get(const std::string& name, const std::string& fallback = "") const;
    // Whole number in [lo, hi]; a usage failure otherwise.
    int GetInt(const std::string& name, int fallback, int lo, int hi) const;
    double GetDouble(const std::string& name, double fallback, double lo, double hi) const;
    const std::vector<std::string>& Positional() const { return positional_; }

    std::string command;  // for messages
    std::vector<std::string> positional_;
    std::map<std::string, std::string> values_;
    std::set<std::string> flags_;
    bool help = false;
};

// Parses argv[first..argc) against the spec. --help sets Args::help and
// nothing is checked further. Usage failures on anything unknown.
Args ParseArgs(const CommandSpec& spec, int argc, char** argv, int first);
std::string HelpText(const CommandSpec& spec);

// ---------------------------------------------------------------------------
// Output. Results go to stdout; progress, status and errors to the user's
// stderr. The library writes its own debug lines to stderr as well; unless
// verbose, those are sent to /dev/null (they also go to trc_new.log).

void InitOutput(bool verbose);
// A line for the user on stderr: "camctl: <text>".
void Note(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// A result line on stdout (flushed at once).
void Out(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// The live status line: rewritten in place on a terminal; elsewhere one
// line per update, at most one a second unless forced.
void Status(const std::string& text, bool force = false);
void EndStatus();
bool StderrIsTerminal();

// ---------------------------------------------------------------------------
// Interruption (SIGINT, SIGTERM). The first one asks the command to finish
// (files are closed properly); a second one ends the process at once.

void InstallSignalHandlers();
bool Interrupted();
// Sleeps up to ms, in short slices; false when interrupted meanwhile.
bool SleepFor(int ms);

using Clock = std::chrono::steady_clock;
double SecondsSince(Clock::time_point t);

// ---------------------------------------------------------------------------
// Sources

enum class SourceKind { Rtsp, Http, File };

struct Source {
    std::string url;      // as the library gets it
    std::string display;  // for messages: password hidden
    SourceKind kind = SourceKind::File;
    std::string host;     // network sources
    int port = 0;
};

// Checks the text: a known scheme, or a readable regular file. Usage
// failure for an unknown scheme, source failure for a missing file.
Source ParseSource(const std::string& text);
// Why the camera's last open of its main (or sub) stream from source failed,
// as the rest of one line: "<reason>: <detail> (<what to try>)".
std::string DescribeOpenFailure(CIpCamera* camera, bool main, const Source& source);
// The documented bound on opening a network source, seconds.
constexpr int kOpenTimeoutSeconds = 10;
// How long a command waits for the first picture after the source opened.
constexpr int kFirstPictureTimeoutSeconds = 10;

// Library codec numbers as names: H.264, MPEG-4, MJPEG, H.265.
const char* CodecName(int code);

// ---------------------------------------------------------------------------
// Files and folders

// Creates the folder (and its parents) and checks that files can be made in
// it; an output failure naming the folder otherwise.
void PrepareOutputDir(const std::string& dir);
// Regular files below dir whose names end with suffix, sorted.
std::vector<std::string> FilesBelow(const std::string& dir, const std::string& suffix);
// Entries of after that are not in before.
std::vector<std::string> NewFiles(const std::vector<std::string>& before,
                                  const std::vector<std::string>& after);
long long FileSize(const std::string& path);
// Folder of the library's debug log files (the executable's folder).
std::string LogDir();
std::string FormatDuration(double seconds);  // "01:05"

// ---------------------------------------------------------------------------
// Picture window

enum class ShowMode { Auto, Window, Headless };
ShowMode ParseShowMode(const Args& args);

// Shows pictures in a window of its own (through CWindowDC and a
// CVideoDisplayer), or nothing when headless. Show may be called from a
// decoding thread; the window is made at the first picture, sized to it.
class PictureWindow {
public:
    PictureWindow(ShowMode mode, std::string title, bool yuv);
    ~PictureWindow();
    PictureWindow(const PictureWindow&) = delete;
    PictureWindow& operator=(const PictureWindow&) = delete;

    // Opens the window now, for pictures of width x height. False (and
    // headless from then on) when no display can be opened; a usage failure
    // when the window was asked for explicitly.
    bool Open(int width, int height);
    void Show(unsigned char* picture, int width, int height);
    // Puts the window's contents up again (call about once a second).
    void Refresh();
    void Close();
    bool IsWindow() const { return is_window_.load(); }
    bool Headless() const { return mode_ == ShowMode::Headless; }

private:
    ShowMode mode_;
    std::string title_;
    bool yuv_;
    std::atomic<bool> is_window_{false};
    // Guards the surface and the displayer.
    std::mutex lock_;
    std::unique_ptr<CWindowDC> dc_;
    std::unique_ptr<CVideoDisplayer> displayer_;
    int shown_width_ = 0;
    int shown_height_ = 0;
};

// ---------------------------------------------------------------------------
// Subcommands

struct Command {
    const CommandSpec* spec;
    int (*run)(const Args& args);
};

extern const CommandSpec kServeSpec, kProbeSpec, kViewSpec, kRecordSpec, kSnapshotSpec,
    kMotionSpec, kPlaySpec, kDemoSpec;
int RunServe(const Args& args);
int RunProbe(const Args& args);
int RunView(const Args& args);
int RunRecord(const Args& args);
int RunSnapshot(const Args& args);
int RunMotion(const Args& args);
int RunPlay(const Args& args);
int RunDemo(const Args& args);

}  // namespace camctl_cli
