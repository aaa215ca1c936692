// camctl: the command-line host of the Camctl library.
//
//   camctl [-v] COMMAND [options]      camctl COMMAND --help
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

void PrintUsage(FILE* to) {
    fprintf(to,
            "usage: camctl [-v] COMMAND [options]\n"
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
            "  -v, --verbose   also show the library's debug lines on stderr\n"
            "  -h, --help      help (also after a command: camctl record --help)\n"
            "\n"
            "exit codes: 0 done, 1 unexpected failure, 2 bad command line or URL scheme,\n"
            "3 source could not be opened, 4 no pictures or stream lost, 5 output not\n"
            "writable, 130 interrupted before done. Details: docs/CLI.md\n");
}

int Main(int argc, char** argv) {
    bool verbose = getenv("CAMCTL_VERBOSE") && *getenv("CAMCTL_VERBOSE") && strcmp(getenv("CAMCTL_VERBOSE"), "0");
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        if (i > 0 && (!strcmp(argv[i], "-v") || !strcmp(argv[i], "--verbose"))) {
            verbose = true;
            continue;
        }
        rest.push_back(argv[i]);
    }
    InitOutput(verbose);
    InstallSignalHandlers();

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
