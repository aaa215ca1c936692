// Sources: checking what the user typed before the library sees it, and
// saying in words why an open failed. The library only answers -1 when a
// source cannot be opened, so a failed network open is followed by a TCP
// connect of our own to tell "refused" from "silent" from "wrong stream".
#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "cli.h"

namespace camctl_cli {

namespace {

std::string Lower(std::string s) {
    for (char& c : s) c = static_cast<char>(tolower(static_cast<unsigned char>(c)));
    return s;
}

// "user:pass@" of a URL authority shown as "user:***@".
std::string HidePassword(const std::string& url, size_t authority_start) {
    size_t end = url.find('/', authority_start);
    if (end == std::string::npos) end = url.size();
    size_t at = url.rfind('@', end);
    if (at == std::string::npos || at < authority_start) return url;
    size_t colon = url.find(':', authority_start);
    if (colon == std::string::npos || colon > at) return url;
    return url.substr(0, colon + 1) + "***" + url.substr(at);
}

struct Fd {
    int fd;
    ~Fd() {
        if (fd >= 0) close(fd);
    }
};

// 0 connected (the socket in *out), else an errno value (ETIMEDOUT when no
// answer came in time).
int TryConnect(const std::string& host, int port, int timeout_ms, std::string* resolve_error, Fd* out) {
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    if (rc != 0) {
        *resolve_error = gai_strerror(rc);
        return EHOSTUNREACH;
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> list(found, freeaddrinfo);
    int last = ETIMEDOUT;
    for (addrinfo* a = found; a; a = a->ai_next) {
        Fd s{socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol)};
        if (s.fd < 0) {
            last = errno;
            continue;
        }
        int err = 0;
        if (connect(s.fd, a->ai_addr, a->ai_addrlen) != 0) {
            if (errno != EINPROGRESS) {
                last = errno;
                continue;
            }
            pollfd p{s.fd, POLLOUT, 0};
            if (poll(&p, 1, timeout_ms) <= 0) {
                last = ETIMEDOUT;
                continue;
            }
            socklen_t len = sizeof err;
            getsockopt(s.fd, SOL_SOCKET, SO_ERROR, &err, &len);
        }
        if (err == 0) {
            std::swap(out->fd, s.fd);
            return 0;
        }
        last = err;
    }
    return last;
}

// Sends the protocol's first request and waits for any answer.
bool AnswersRequest(const Source& source, const Fd& s, int timeout_ms) {
    std::string path = "/";
    if (size_t p = source.url.find('/', source.url.find("://") + 3); p != std::string::npos)
        path = source.url.substr(p);
    const std::string request =
        source.kind == SourceKind::Rtsp
            ? "OPTIONS " + source.url + " RTSP/1.0\r\nCSeq: 1\r\nUser-Agent: camctl\r\n\r\n"
            : "GET " + path + " HTTP/1.0\r\nHost: " + source.host + "\r\nUser-Agent: camctl\r\n\r\n";
    if (send(s.fd, request.data(), request.size(), MSG_NOSIGNAL) < 0) return false;
    pollfd p{s.fd, POLLIN, 0};
    if (poll(&p, 1, timeout_ms) <= 0) return false;
    char byte;
    return recv(s.fd, &byte, 1, 0) == 1;
}

}  // namespace

Source ParseSource(const std::string& text) {
    Source s;
    s.url = text;
    s.display = text;
    if (text.empty()) Fail(kExitUsage, "empty source; give an rtsp:// or http:// URL or a file path");
    size_t sep = text.find("://");
    if (sep != std::string::npos) {
        std::string scheme = Lower(text.substr(0, sep));
        if (scheme == "rtsp") {
            s.kind = SourceKind::Rtsp;
            s.port = 554;
        } else if (scheme == "http") {
            s.kind = SourceKind::Http;
            s.port = 80;
        } else {
            Fail(kExitUsage, text + ": unsupported source scheme '" + scheme +
                                 "://'; use rtsp://HOST[:PORT]/PATH, http://HOST[:PORT]/PATH "
                                 "(private frame stream) or a file path");
        }
        const size_t auth = sep + 3;
        s.display = HidePassword(text, auth);
        size_t end = text.find_first_of("/?#", auth);
        std::string authority = text.substr(auth, end == std::string::npos ? std::string::npos : end - auth);
        if (size_t at = authority.rfind('@'); at != std::string::npos) authority = authority.substr(at + 1);
        std::string port_text;
        if (!authority.empty() && authority[0] == '[') {
            size_t close_bracket = authority.find(']');
            if (close_bracket == std::string::npos) Fail(kExitUsage, s.display + ": bad host in URL");
            s.host = authority.substr(1, close_bracket - 1);
            if (close_bracket + 1 < authority.size() && authority[close_bracket + 1] == ':')
                port_text = authority.substr(close_bracket + 2);
        } else {
            size_t colon = authority.rfind(':');
            s.host = authority.substr(0, colon);
            if (colon != std::string::npos) port_text = authority.substr(colon + 1);
        }
        if (s.host.empty()) Fail(kExitUsage, s.display + ": no host in URL");
        if (!port_text.empty()) {
            char* e = nullptr;
            long p = strtol(port_text.c_str(), &e, 10);
            if (*e != '\0' || p <= 0 || p > 65535) Fail(kExitUsage, s.display + ": bad port '" + port_text + "'");
            s.port = static_cast<int>(p);
        }
        return s;
    }
    // A file.
    s.kind = SourceKind::File;
    struct stat st{};
    if (stat(text.c_str(), &st) != 0)
        Fail(kExitSource, text + ": " + strerror(errno) + " (give an rtsp:// or http:// URL or an existing file)");
    if (S_ISDIR(st.st_mode)) Fail(kExitSource, text + ": is a folder, not a media file");
    if (access(text.c_str(), R_OK) != 0) Fail(kExitSource, text + ": cannot read: " + strerror(errno));
    return s;
}

std::string DiagnoseOpenFailure(const Source& source, double elapsed_seconds) {
    if (source.kind == SourceKind::File)
        return "not a media file the library can play (no video stream it can decode); see trc_new.log";
    const std::string where = source.host + ":" + std::to_string(source.port);
    std::string resolve_error;
    Fd s{-1};
    int err = TryConnect(source.host, source.port, 3000, &resolve_error, &s);
    if (!resolve_error.empty()) return "cannot resolve host " + source.host + ": " + resolve_error;
    if (err == ECONNREFUSED)
        return "connection refused by " + where + " (is the camera on, and is " +
               std::to_string(source.port) + " its port?)";
    if (err == ETIMEDOUT) return "no answer from " + where + " (host down, or a firewall drops the connection)";
    if (err != 0) return "cannot reach " + where + ": " + strerror(err);
    char waited[64];
    snprintf(waited, sizeof waited, "%.1f", elapsed_seconds);
    if (!AnswersRequest(source, s, 2000))
        return where + " accepted the connection but sent no stream (gave up after " + waited +
               " s; wrong port or service?)";
    return where + " answered, but no playable video came (wrong path, credentials or stream format?)";
}

const char* CodecName(int code) {
    switch (code) {
        case 0: return "H.264";
        case 1: return "MPEG-4";
        case 2: return "MJPEG";
        case 3: return "H.265";
        default: return "unknown codec";
    }
}

}  // namespace camctl_cli
