// Debug log of the camera-level classes: each line goes to stderr and is
// appended to "trc_new.log" beside the executable (or in CAMCTL_LOG_DIR),
// opening and closing the file per line. A unit's first line moves the
// previous file aside.
#include "runtime/trc_log.h"

#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>

namespace {

constexpr size_t kPathSize = 256;     // paths hold at most 255 characters
constexpr size_t kMessageSize = 1024; // message and line: at most 1023

std::string ExecutableDir() {
    char buf[kPathSize] = {};
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return ".";
    buf[n] = '\0';
    char* slash = strrchr(buf, '/');
    if (!slash) return ".";
    if (slash == buf) return "/";
    *slash = '\0';
    return buf;
}

// CAMCTL_LOG_DIR when set and not empty (without trailing '/'), else the
// executable's folder.
std::string LogDir() {
    const char* env = getenv("CAMCTL_LOG_DIR");
    if (!env || !*env) return ExecutableDir();
    std::string dir = env;
    while (dir.size() > 1 && dir.back() == '/') dir.pop_back();
    return dir;
}

// Serialises the first-line rotation of the units within this process.
std::mutex g_rotateMutex;
// Set once the failure to write the log has been reported on stderr.
std::atomic<bool> g_failureReported{false};

void ReportUnwritable(const char* path, int error) {
    if (g_failureReported.exchange(true)) return;
    const std::string line = std::string("camctl: cannot write the debug log ") + path + " (" + strerror(error) +
                             "); its lines are dropped\n";
    ssize_t written = write(STDERR_FILENO, line.data(), line.size());
    (void)written;
}

// A folder too long for the 255-character paths cannot hold the log: its
// names would be cut, and the cut names must never be renamed or deleted.
bool LogPathsFit() { return strlen(trc_log_dir()) + sizeof "/trc_new.log" <= kPathSize; }

}  // namespace

const char* trc_log_dir() {
    static const std::string dir = LogDir();
    return dir.c_str();
}

int trc_append(const char* path, const char* text) {
    if (!path || !text) return -1;
    FILE* f = fopen(path, "a+");
    if (!f) return -1;
    fwrite(text, 1, strlen(text), f);
    fclose(f);
    return 0;
}

int trc_rotate(char* path_out) {
    char current[kPathSize];
    char previous[kPathSize];
    snprintf(current, sizeof current, "%s/trc_new.log", trc_log_dir());
    snprintf(previous, sizeof previous, "%s/trc_old.log", trc_log_dir());
    if (!LogPathsFit()) {
        if (path_out) path_out[0] = '\0';
        return 0;
    }
    if (path_out) memcpy(path_out, current, sizeof current);

    if (FILE* f = fopen(previous, "rb")) {
        fclose(f);
        unlink(previous);
    }
    if (FILE* f = fopen(current, "rb")) {
        fclose(f);
        rename(current, previous);
    }
    return 0;
}

int trc_log_unit(trc_unit* unit, const char* /*source_path*/, int /*line*/, const char* /*tag*/,
                 const char* fmt, ...) {
    if (!unit || !fmt) return -1;

    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    time_t secs = now.tv_sec;
    tm local{};
    localtime_r(&secs, &local);
    char stamp[64];
    snprintf(stamp, sizeof stamp, "%d-%02d-%02d %02d:%02d:%02d:%03d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec,
             static_cast<int>(now.tv_nsec / 1000000L));

    char message[kMessageSize] = {};
    va_list args;
    va_start(args, fmt);
    vsnprintf(message, sizeof message, fmt, args);
    va_end(args);

    char line[kMessageSize];
    int n = snprintf(line, sizeof line, "%s[debug]=====%s=====\n", stamp, message);
    if (n < 0) return -1;
    size_t len = static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
    ssize_t written = write(STDERR_FILENO, line, len);
    (void)written;

    bool firstLine = false;
    if (!unit->ready.load(std::memory_order_acquire)) {
        std::lock_guard<std::mutex> lock(g_rotateMutex);
        if (!unit->ready.load(std::memory_order_relaxed)) {
            trc_rotate(unit->path);
            unit->ready.store(true, std::memory_order_release);
            firstLine = true;
        }
    }
    const bool fits = LogPathsFit();
    errno = 0;
    int rc = fits ? trc_append(unit->path, line) : -1;
    // A line that cannot be written is lost (stderr still has it); the first
    // such loss in the process says so once on stderr. Only a failure on the
    // unit's first line is returned.
    if (rc != 0) ReportUnwritable(fits ? unit->path : trc_log_dir(), fits ? errno : ENAMETOOLONG);
    return (firstLine && rc != 0) ? -1 : 0;
}
