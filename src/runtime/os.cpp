// Clock and text helpers, frame-listener forwarders and the engine's debug
// print.
#include <errno.h>
#include <time.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "runtime/os.h"

// ---- clocks ----------------------------------------------------------------

uint64_t os_tick_count64() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000u + static_cast<uint64_t>(now.tv_nsec) / 1000000u;
}

uint32_t os_tick_count() { return static_cast<uint32_t>(os_tick_count64()); }

void os_sleep_ms(uint32_t ms) {
    timespec req{static_cast<time_t>(ms / 1000), static_cast<long>(ms % 1000) * 1000000L};
    while (nanosleep(&req, &req) != 0 && errno == EINTR) {
    }
}

// ---- text ------------------------------------------------------------------

char* os_strlcpy(char* dst, const char* src, int len) {
    if (!dst || !src || len <= 0) return dst;
    // strncpy's result, the last byte always the terminator.
    const size_t size = static_cast<size_t>(len);
    const size_t n = strnlen(src, size - 1);
    memcpy(dst, src, n);
    memset(dst + n, 0, size - n);
    return dst;
}

void MaskUrlCredentials(const char* url, char* out, int out_len) {
    if (!out || out_len <= 0) return;
    out[0] = '\0';
    if (!url) return;
    std::string s = url;
    size_t scheme = s.find("://");
    if (scheme != std::string::npos) {
        size_t start = scheme + 3;
        size_t hostEnd = s.find_first_of("/?#", start);
        size_t at = s.rfind('@', hostEnd == std::string::npos ? std::string::npos : hostEnd);
        if (at != std::string::npos && at >= start) {
            size_t colon = s.find(':', start);
            if (colon != std::string::npos && colon < at) s.replace(colon + 1, at - colon - 1, "***");
        }
    }
    os_strlcpy(out, s.c_str(), out_len);
}

// ---- debug print -----------------------------------------------------------

void os_print(const char* fmt, ...) {
    if (!fmt) return;
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char full[64];
    snprintf(full, sizeof full, "%4d-%02d-%02d %02d:%02d:%02d", local.tm_year + 1900,
             local.tm_mon + 1, local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    char stamp[20];
    os_strlcpy(stamp, full, sizeof stamp);  // at most 19 characters are kept

    char message[1600];
    va_list args;
    va_start(args, fmt);
    vsnprintf(message, sizeof message, fmt, args);
    va_end(args);

    char line[1600];
    int n = snprintf(line, sizeof line, "PRINT %s  %s=================================================\n",
                     stamp, message);
    if (n < 0) return;
    size_t len = static_cast<size_t>(n) < sizeof line ? static_cast<size_t>(n) : sizeof line - 1;
    // One write keeps lines from different threads whole.
    ssize_t written = write(STDERR_FILENO, line, len);
    (void)written;
}
