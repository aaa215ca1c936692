// Output channels and interruption.
//
// The user's stderr is duplicated at start-up; camctl writes its notes and
// status line there. File descriptor 2 itself, where the library prints its
// debug lines, goes to /dev/null unless --verbose was given.
#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <thread>

#include "cli.h"

namespace camctl_cli {

namespace {

int g_ui_fd = STDERR_FILENO;
bool g_ui_tty = false;
bool g_status_open = false;  // a status line without its newline is on a terminal
std::mutex g_ui_lock;

volatile sig_atomic_t g_signals = 0;
std::atomic<bool> g_interrupted{false};

void WriteAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = write(fd, data, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        data += n;
        size -= static_cast<size_t>(n);
    }
}

void OnSignal(int) {
    g_signals = g_signals + 1;
    g_interrupted.store(true, std::memory_order_relaxed);
    if (g_signals >= 2) {
        static const char kMsg[] = "\ncamctl: interrupted again, leaving at once\n";
        WriteAll(g_ui_fd, kMsg, sizeof kMsg - 1);
        _exit(kExitInterrupted);
    }
}

}  // namespace

void InitOutput(bool verbose) {
    int fd = dup(STDERR_FILENO);
    if (fd >= 0) {
        fcntl(fd, F_SETFD, FD_CLOEXEC);
        g_ui_fd = fd;
    }
    g_ui_tty = isatty(g_ui_fd) != 0;
    if (!verbose && fd >= 0) {
        int null_fd = open("/dev/null", O_WRONLY | O_CLOEXEC);
        if (null_fd >= 0) {
            dup2(null_fd, STDERR_FILENO);
            close(null_fd);
        }
    }
    setvbuf(stdout, nullptr, _IOLBF, 0);
}

bool StderrIsTerminal() { return g_ui_tty; }

void Note(const char* fmt, ...) {
    char text[2048];
    va_list args;
    va_start(args, fmt);
    vsnprintf(text, sizeof text, fmt, args);
    va_end(args);
    std::string line;
    std::lock_guard<std::mutex> lock(g_ui_lock);
    if (g_status_open) {
        line += "\n";
        g_status_open = false;
    }
    line += "camctl: ";
    line += text;
    line += "\n";
    WriteAll(g_ui_fd, line.data(), line.size());
}

void Out(const char* fmt, ...) {
    std::lock_guard<std::mutex> lock(g_ui_lock);
    if (g_status_open && g_ui_tty && isatty(STDOUT_FILENO)) {
        // stdout and the status line share the terminal: end the line first.
        WriteAll(g_ui_fd, "\n", 1);
        g_status_open = false;
    }
    va_list args;
    va_start(args, fmt);
    vfprintf(stdout, fmt, args);
    va_end(args);
    fputc('\n', stdout);
    fflush(stdout);
}

void Status(const std::string& text, bool force) {
    std::lock_guard<std::mutex> lock(g_ui_lock);
    std::string line;
    if (g_ui_tty) {
        line = "\r" + text + "\033[K";
        g_status_open = true;
    } else {
        // A log or a pipe gets at most one status line a second.
        static Clock::time_point last;
        const auto now = Clock::now();
        if (!force && last != Clock::time_point() && now - last < std::chrono::milliseconds(950)) return;
        last = now;
        line = text + "\n";
    }
    WriteAll(g_ui_fd, line.data(), line.size());
}

void EndStatus() {
    std::lock_guard<std::mutex> lock(g_ui_lock);
    if (g_status_open) WriteAll(g_ui_fd, "\n", 1);
    g_status_open = false;
}

void InstallSignalHandlers() {
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

bool Interrupted() { return g_interrupted.load(std::memory_order_relaxed); }

bool SleepFor(int ms) {
    const auto end = Clock::now() + std::chrono::milliseconds(ms);
    while (!Interrupted()) {
        const auto now = Clock::now();
        if (now >= end) return true;
        std::this_thread::sleep_for(std::min<Clock::duration>(end - now, std::chrono::milliseconds(20)));
    }
    return false;
}

double SecondsSince(Clock::time_point t) {
    return std::chrono::duration<double>(Clock::now() - t).count();
}

std::string FormatDuration(double seconds) {
    if (seconds < 0) seconds = 0;
    long s = static_cast<long>(seconds);
    char text[32];
    if (s >= 3600)
        snprintf(text, sizeof text, "%ld:%02ld:%02ld", s / 3600, (s / 60) % 60, s % 60);
    else
        snprintf(text, sizeof text, "%02ld:%02ld", s / 60, s % 60);
    return text;
}

}  // namespace camctl_cli
