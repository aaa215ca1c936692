// Clock and text helpers, frame-listener forwarders, the loopback socket
// pipe and the engine's debug print.
#include <arpa/inet.h>
#include <errno.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "runtime/os.h"

// ---- clocks ----------------------------------------------------------------

int os_clock_gettime(int clock_id, os_timespec* ts) {
    if (clock_id != OS_CLOCK_REALTIME_MS || !ts) return -1;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    ts->sec = static_cast<int32_t>(now.tv_sec);
    ts->nsec = static_cast<int32_t>(now.tv_nsec / 1000000L * 1000000L);  // millisecond grain
    return 0;
}

int os_timespec_diff_ms(const os_timespec* a, const os_timespec* b) {
    if (!a || !b) return 0;
    return (b->nsec - a->nsec) / 1000000 + (b->sec - a->sec) * 1000;
}

int os_gettimeofday(os_timeval* tv) {
    if (!tv) return -1;
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tv->sec = static_cast<int32_t>(now.tv_sec);
    tv->usec = static_cast<int32_t>(now.tv_nsec / 1000);
    return 0;
}

const char* os_time_string() {
    // One buffer per thread: every call overwrites the caller's own copy.
    static thread_local char buf[20];
    time_t now = time(nullptr);
    tm local{};
    localtime_r(&now, &local);
    char full[64];
    snprintf(full, sizeof full, "%4d%02d%02d-%02d%02d%02d", local.tm_year + 1900, local.tm_mon + 1,
             local.tm_mday, local.tm_hour, local.tm_min, local.tm_sec);
    return os_strlcpy(buf, full, sizeof buf);  // at most 19 characters are kept
}

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

int os_strtrim(char* s) {
    if (!s || !*s) return -1;
    size_t len = strlen(s);
    size_t begin = 0;
    while (begin < len && s[begin] == ' ') ++begin;
    size_t end = len;
    while (end > begin && s[end - 1] == ' ') --end;
    if (begin == end) {
        s[0] = '\0';
        return -1;
    }
    memmove(s, s + begin, end - begin);
    s[end - begin] = '\0';
    return 0;
}

char* os_strlcpy(char* dst, const char* src, int len) {
    if (!dst || !src || len <= 0) return dst;
    strncpy(dst, src, static_cast<size_t>(len));
    dst[len - 1] = '\0';
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

// ---- frame-listener forwarders --------------------------------------------

namespace {
IFrameListener* ListenerOf(void* holder) {
    return holder ? *static_cast<IFrameListener**>(holder) : nullptr;
}
}  // namespace

int os_notify_video(void* holder, unsigned char* buf, int width, int height) {
    IFrameListener* listener = ListenerOf(holder);
    if (!listener) return -1;
    listener->DoVideoBuffer(buf, width, height);
    return 0;
}

int os_notify_audio(void* holder, unsigned short* buf, int a, int b) {
    IFrameListener* listener = ListenerOf(holder);
    if (!listener) return -1;
    listener->DoAudioBuffer(buf, a, b);
    return 0;
}

int os_notify_event(void* holder, char* region) {
    IFrameListener* listener = ListenerOf(holder);
    if (!listener) return -1;
    listener->UpdateMotionAlarmRegion(region);
    return 0;
}

// ---- loopback socket pipe -------------------------------------------------

namespace {

constexpr int kSockPairFirstPort = 10500;  // the first port tried is one above
constexpr int kSockPairAttempts = 50;
std::atomic<int> g_sockPairPort{kSockPairFirstPort};

void CloseFd(int& fd) {
    if (fd >= 0) close(fd);
    fd = -1;
}

}  // namespace

os_sockpair* os_sockpair_open() {
    int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    int sender = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, IPPROTO_TCP);
    int receiver = -1;
    os_sockpair* pair = nullptr;
    sockaddr_in addr{};
    bool bound = false;
    timeval noTimeout{0, 0};

    if (listener < 0 || sender < 0) goto fail;
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (int attempt = 0; attempt < kSockPairAttempts && !bound; ++attempt) {
        int port = g_sockPairPort.fetch_add(1, std::memory_order_relaxed) + 1;
        addr.sin_port = htons(static_cast<uint16_t>(port));
        bound = bind(listener, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    }
    if (!bound || listen(listener, 1) != 0) goto fail;
    if (setsockopt(sender, SOL_SOCKET, SO_RCVTIMEO, &noTimeout, sizeof noTimeout) != 0) goto fail;
    if (connect(sender, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) goto fail;
    receiver = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (receiver < 0) goto fail;
    pair = static_cast<os_sockpair*>(os_zalloc(sizeof(os_sockpair)));
    if (!pair) goto fail;
    CloseFd(listener);
    pair->recv_fd = receiver;
    pair->send_fd = sender;
    return pair;

fail:
    CloseFd(listener);
    CloseFd(sender);
    CloseFd(receiver);
    return nullptr;
}

int os_sockpair_send(os_sockpair* p, const void* buf, int len) {
    if (!p || len < 0) return -1;
    return static_cast<int>(send(p->send_fd, buf, static_cast<size_t>(len), MSG_NOSIGNAL));
}

int os_sockpair_recv(os_sockpair* p, void* buf, int len) {
    if (!p || len < 0) return -1;
    return static_cast<int>(recv(p->recv_fd, buf, static_cast<size_t>(len), 0));
}

int os_sockpair_close(os_sockpair* p) {
    if (!p) return -1;
    CloseFd(p->recv_fd);
    CloseFd(p->send_fd);
    free(p);
    return 0;
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
