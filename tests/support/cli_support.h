// Child processes with captured output, a server that never answers, and checks of the files the tools write.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "support/fixtures.h"

namespace camctl_test {

struct ChildResult {
    int code = -1;  // exit code; 128 + n for signal n; -1 when killed for taking too long
    double seconds = 0;
    std::string out, err;
};

class ChildProcess {
public:
    struct Options {
        const char* display = nullptr;    // DISPLAY for the child; null: none
        std::string cwd;                  // empty: ours
        std::vector<std::string> prefix;  // run through this (e.g. setpriv ...)
    };
    ChildProcess(const std::vector<std::string>& argv, const Options& options);  // argv[0] looked up in PATH
    ~ChildProcess();  // kills a child still running
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    std::string Out() const;
    std::string Err() const;
    void Signal(int sig);
    bool WaitForText(const std::string& text, double seconds);  // in stdout or stderr; false at the end
    ChildResult Wait(double seconds);                           // kills the child after `seconds` (code -1)

private:
    bool Reap(bool block);
    TempDir dir_;
    pid_t pid_ = -1;
    bool done_ = false;
    int status_ = 0;
    std::chrono::steady_clock::time_point start_;
};

// Listens on 127.0.0.1, accepts every connection and never sends a byte.
class SilentServer {
public:
    SilentServer();
    ~SilentServer();
    SilentServer(const SilentServer&) = delete;
    SilentServer& operator=(const SilentServer&) = delete;
    int port() const { return port_; }

private:
    int fd_ = -1, port_ = 0;
    std::atomic<bool> stop_{false};
    std::vector<int> held_;  // the accept thread's, until joined
    std::thread thread_;
};

std::string ReadText(const std::string& path);
std::vector<std::string> Lines(const std::string& text);  // non-empty; of a line rewritten with '\r', the last text
std::string Field(const std::string& text, const std::string& key);  // after "key: " on its first line; "" when none
bool Contains(const std::string& text, const std::string& what);
std::vector<std::string> Camctl(std::vector<std::string> args);  // this build's camctl, with args
ChildResult RunCamctl(const std::vector<std::string>& args, double seconds = 60);
std::vector<std::string> RecordedFiles(const std::string& out);  // of "recorded: PATH (N bytes)" lines
std::string ProbeVideo(const std::string& file);  // "h264,640,360,yuv420p" of the first video stream; "" on failure
double ProbeDuration(const std::string& file);    // seconds; -1 when ffprobe fails
bool Decodes(const std::string& file);            // ffmpeg decodes it all without an error
// "<name>+<id>_YYYYMMDD-hhmmss_<reason>_<seconds>.avi" with the index the trailer writes.
bool IsFinishedRecording(const std::string& path, int reason, int* seconds = nullptr);

}  // namespace camctl_test
