// Playing a recording with CRecordPlayer: shared by 'play' and 'demo'.
#pragma once

#include <string>

#include "cli.h"

namespace camctl_cli {

struct PlayOptions {
    int speed_level = 0;        // the player's speed level
    std::string speed_label = "1x";
    double snapshot_at = -1;    // seconds into the file; < 0: none
    std::string save_dir = "."; // snapshots go to SAVE_DIR/VMS/PLAY-IMAGE-MANUAL
    ShowMode show = ShowMode::Auto;
};

struct PlayResult {
    bool interrupted = false;
    long long pictures = 0;
    double seconds = 0;         // wall time of the playback
    int64_t duration = 0;       // the file's, whole seconds
    std::string snapshot;       // BMP written, empty when none
    bool shown_in_window = false;
};

// "2x", "1/2", "16x" or a level number (0..4, 100..104); a usage failure
// for anything else.
void ParseSpeed(const std::string& text, PlayOptions* options);

// Plays the file to its end (or to Ctrl-C) with a progress bar on stderr.
// Source failure when it cannot be played.
PlayResult PlayRecording(const std::string& file, const PlayOptions& options);

}  // namespace camctl_cli
