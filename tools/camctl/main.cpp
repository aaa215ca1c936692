// camctl: the command-line host of the Camctl library.
//
//   camctl [-v] [--log-dir DIR] COMMAND [options]      camctl COMMAND --help
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>
#include <vector>

#include "camctl.h"
#include "cli.h"

namespace camctl_cli {
namespace {

const Command kCommands[] = {
    {&kViewSpec, RunView},       {&kRecordSpec, RunRecord}, {&kSnapshotSpec, RunSnapshot},
    {&kMotionSpec, RunMotion},   {&kProbeSpec, RunProbe},   {&kPlaySpec, RunPlay},
    {&kServeSpec, RunServe},     {&kDemoSpec, RunDemo},
};

// The man page and the bash completion are generated from this text and
// the commands' --help (tools/camctl/gen_man.py): keep its layout of
// "section:" lines and two-space-indented entries.
void PrintUsage(FILE* to) {
    fprintf(to,
            "usage: camctl [-v] [--log-dir DIR] COMMAND [options]\n"
            "\n"
            "Camctl's command-line host: live cameras, recording, snapshots, motion\n"
            "detection and playback, on the library's exported classes.\n"
            "\n"
            "commands:\n");
    for (const Command& c : kCommands) fprintf(to, "  %-10s %s\n", c.spec->name, c.spec->summary);
    fprintf(to,
            "\n"
            "URL is rtsp://[USER:PASS@]HOST[:PORT]/PATH, http://HOST[:PORT]/PATH (the\n"
            "private frame stream, e.g. from 'camctl serve') or a media file.\n"
            "\n"
            "options for every command:\n"
            "  -v, --verbose       also show the library's debug lines on stderr\n"
            "  --log-dir DIR       write the debug log (trc_new.log, trc_old.log) in DIR\n"
            "                      instead of beside camctl\n"
            "  -h, --help          help (also after a command: camctl record --help)\n"
            "\n"
            "environment:\n"
            "  CAMCTL_VERBOSE=1    as -v\n"
            "  CAMCTL_LOG_DIR=DIR  as --log-dir DIR\n"
            "\n"
            "exit codes:\n"
            "  0                   done\n"
            "  1                   unexpected failure\n"
            "  2                   bad command line or URL scheme\n"
            "  3                   source could not be opened\n"
            "  4                   no pictures, or the stream was lost\n"
            "  5                   output not writable\n"
            "  130                 interrupted before done\n"
            "\n"
            "Details: docs/CLI.md\n");
}

int Main(int argc, char** argv) {
    bool verbose = getenv("CAMCTL_VERBOSE") && *getenv("CAMCTL_VERBOSE") && strcmp(getenv("CAMCTL_VERBOSE"), "0");
    std::vector<char*> rest;
    const char* log_dir = nullptr;
    for (int i = 0; i < argc; ++i) {
        if (i > 0 && (!strcmp(argv[i], "-v") || !strcmp(argv[i], "--verbose"))) {
            verbose = true;
            continue;
        }
        if (i > 0 && !strcmp(argv[i], "--log-dir")) {
            if (i + 1 >= argc) {
                InitOutput(verbose);
                Note("--log-dir needs a value DIR (see: camctl --help)");
                return kExitUsage;
            }
            log_dir = argv[++i];
            continue;
        }
        if (i > 0 && !strncmp(argv[i], "--log-dir=", 10)) {
            log_dir = argv[i] + 10;
            continue;
        }
        rest.push_back(argv[i]);
    }
    // The library reads its log folder from the environment at its first line.
    if (log_dir) setenv("CAMCTL_LOG_DIR", log_dir, 1);
    InitOutput(verbose);
    InstallSignalHandlers();
    // The library says once on stderr when its log cannot be written; without
    // -v that stderr is /dev/null, so camctl says it instead.
    if (!verbose && !LogDirWritable())
        Note("debug log folder %s cannot be written; its lines are dropped (--log-dir DIR moves it)",
             LogDir().c_str());

    const int n = static_cast<int>(rest.size());
    if (n < 2) {
        PrintUsage(stderr);
        return kExitUsage;
    }
    const std::string name = rest[1];
    if (name == "--help" || name == "-h" || name == "help") {
        PrintUsage(stdout);
        return kExitOk;
    }
    const Command* command = nullptr;
    for (const Command& c : kCommands)
        if (name == c.spec->name) command = &c;
    if (!command) {
        Note("unknown command '%s' (see: camctl --help)", name.c_str());
        return kExitUsage;
    }

    int rc = kExitOk;
    try {
        Args args = ParseArgs(*command->spec, n, rest.data(), 2);
        if (args.help) {
            fputs(HelpText(*command->spec).c_str(), stdout);
            return kExitOk;
        }
        rc = command->run(args);
    } catch (const Failure& f) {
        EndStatus();
        Note("%s", f.message.c_str());
        rc = f.code;
    } catch (const std::exception& e) {
        EndStatus();
        Note("unexpected failure: %s", e.what());
        rc = kExitFailure;
    }
    EndStatus();
    // Deleting the manager stops its timer thread and deletes any camera left.
    if (CIpCameraManager::pInstance.load()) delete CIpCameraManager::GetInstance();
    return rc;
}

}  // namespace
}  // namespace camctl_cli

int main(int argc, char** argv) { return camctl_cli::Main(argc, argv); }
