#include "support/frame_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace camctl_test {

namespace {

constexpr size_t kHeaderSize = 88;
constexpr uint32_t kStreamVideo = 1;
constexpr int kPollMs = 100;

uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }

int ConnectLoopback(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(uint16_t(port));
    if (connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

}  // namespace

struct FrameProxy::Impl {
    Options options;
    int listen_fd = -1;
    int port = 0;
    std::atomic<bool> running{false};
    std::atomic<bool> fault_injected{false};
    std::atomic<int> connections{0};
    std::thread acceptor;
    std::mutex mu;
    std::vector<std::thread> workers;
    std::vector<int> open_fds;  // every socket a worker uses, shut down by Stop

    void Track(int fd) {
        std::lock_guard<std::mutex> lock(mu);
        open_fds.push_back(fd);
    }
    void Release(int fd) {
        if (fd < 0) return;
        {
            std::lock_guard<std::mutex> lock(mu);
            for (auto& f : open_fds)
                if (f == fd) f = -1;
        }
        close(fd);
    }

    // Waits until fd is readable; false when stopping or on error.
    bool WaitReadable(int fd) {
        while (running) {
            pollfd p{fd, POLLIN, 0};
            int r = poll(&p, 1, kPollMs);
            if (r > 0) return true;
            if (r < 0 && errno != EINTR) return false;
        }
        return false;
    }
    bool ReadExact(int fd, uint8_t* out, size_t n) {
        while (n > 0) {
            if (!WaitReadable(fd)) return false;
            ssize_t r = recv(fd, out, n, 0);
            if (r <= 0) return false;
            out += r;
            n -= size_t(r);
        }
        return true;
    }
    bool WriteAll(int fd, const uint8_t* data, size_t n) {
        while (n > 0 && running) {
            ssize_t w = send(fd, data, n, MSG_NOSIGNAL);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return false;
            data += w;
            n -= size_t(w);
        }
        return n == 0;
    }
    // Reads an HTTP head (up to and including the empty line).
    bool ReadHead(int fd, std::string* head) {
        head->clear();
        uint8_t c;
        while (head->size() < 8192) {
            if (!ReadExact(fd, &c, 1)) return false;
            head->push_back(char(c));
            if (head->size() >= 4 && head->compare(head->size() - 4, 4, "\r\n\r\n") == 0) return true;
        }
        return false;
    }
    // Connects to a simulator, sends the client's request and skips the
    // answer's head (returned in *answer). -1 on failure.
    int OpenUpstream(int upstreamPort, const std::string& request, std::string* answer) {
        int fd = ConnectLoopback(upstreamPort);
        if (fd < 0) return -1;
        Track(fd);
        if (!WriteAll(fd, reinterpret_cast<const uint8_t*>(request.data()), request.size()) || !ReadHead(fd, answer)) {
            Release(fd);
            return -1;
        }
        return fd;
    }

    void Serve(int client, bool first) {
        std::string request, answer;
        int upstream = -1;
        if (ReadHead(client, &request)) upstream = OpenUpstream(options.upstream_port, request, &answer);
        if (upstream >= 0 && WriteAll(client, reinterpret_cast<const uint8_t*>(answer.data()), answer.size()))
            Forward(client, upstream, request, first && options.fault != Fault::kNone);
        else
            Release(upstream);
        Release(client);
    }

    // Frame by frame from upstream to client; releases upstream.
    void Forward(int client, int upstream, const std::string& request, bool faulty) {
        std::vector<uint8_t> frame;
        int videoFrames = 0;
        for (;;) {
            frame.resize(kHeaderSize);
            if (!ReadExact(upstream, frame.data(), kHeaderSize)) break;
            const size_t size = Le32(&frame[52]);
            const bool video = Le32(&frame[48]) == kStreamVideo;
            if (size > 4000000) break;  // not a frame stream we understand
            frame.resize(kHeaderSize + size);
            if (!ReadExact(upstream, frame.data() + kHeaderSize, size)) break;
            if (video) ++videoFrames;

            if (faulty && video && videoFrames == options.at_video_frame) {
                faulty = false;
                fault_injected = true;
                bool go_on = true;
                switch (options.fault) {
                    case Fault::kTruncate:
                        frame.resize(kHeaderSize + size / 2);
                        break;
                    case Fault::kGarbage:
                        go_on = SendGarbage(client);
                        break;
                    case Fault::kCut:
                        WriteAll(client, frame.data(), kHeaderSize + size / 2);
                        go_on = false;
                        break;
                    case Fault::kSplice: {
                        std::string answer;
                        int other = OpenUpstream(options.splice_port, request, &answer);
                        Release(upstream);
                        upstream = other;
                        if (upstream < 0) return;
                        continue;  // the frame in hand is dropped; B starts over
                    }
                    case Fault::kNone:
                        break;
                }
                if (!go_on) break;
            }
            if (!WriteAll(client, frame.data(), frame.size())) break;
        }
        Release(upstream);
    }

    bool SendGarbage(int client) {
        std::vector<uint8_t> junk(64 * 1024);
        uint32_t x = 0x12345678u;
        for (size_t sent = 0; sent < options.garbage_bytes;) {
            for (auto& b : junk) {
                x = x * 1664525u + 1013904223u;
                b = uint8_t(x >> 24);
                if (b == 0x33) b = 0x34;  // never the first byte of the marker
            }
            const size_t n = std::min(junk.size(), options.garbage_bytes - sent);
            if (!WriteAll(client, junk.data(), n)) return false;
            sent += n;
        }
        return true;
    }

    void Accept() {
        while (running) {
            pollfd p{listen_fd, POLLIN, 0};
            if (poll(&p, 1, kPollMs) <= 0) continue;
            int client = accept(listen_fd, nullptr, nullptr);
            if (client < 0) continue;
            Track(client);
            const bool first = connections.fetch_add(1) == 0;
            std::lock_guard<std::mutex> lock(mu);
            workers.emplace_back([this, client, first] { Serve(client, first); });
        }
    }
};

FrameProxy::FrameProxy(const Options& options) : impl_(std::make_unique<Impl>()) { impl_->options = options; }

FrameProxy::~FrameProxy() { Stop(); }

bool FrameProxy::Start() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return false;
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        close(fd);
        return false;
    }
    impl_->listen_fd = fd;
    impl_->port = ntohs(addr.sin_port);
    impl_->running = true;
    impl_->acceptor = std::thread([this] { impl_->Accept(); });
    return true;
}

void FrameProxy::Stop() {
    if (!impl_->running.exchange(false)) return;
    impl_->acceptor.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(impl_->mu);
        for (int fd : impl_->open_fds)
            if (fd >= 0) shutdown(fd, SHUT_RDWR);
        workers.swap(impl_->workers);
    }
    for (auto& t : workers) t.join();
    close(impl_->listen_fd);
    impl_->listen_fd = -1;
}

int FrameProxy::Port() const { return impl_->port; }
std::string FrameProxy::Url() const { return "http://127.0.0.1:" + std::to_string(impl_->port) + "/stream"; }
bool FrameProxy::FaultInjected() const { return impl_->fault_injected; }
int FrameProxy::Connections() const { return impl_->connections; }

}  // namespace camctl_test
