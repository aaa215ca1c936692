#include "support/frame_proxy.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdint>
#include <mutex>
#include <thread>
#include <vector>

#include "camsim/frame_format.h"

namespace camctl_test {

namespace {

constexpr int kPollMs = 100;

// The header's stream type and payload size, found by encoding a known header.
size_t FieldOffset(uint32_t camsim::FrameHeader::*field) {
    camsim::FrameHeader h;
    h.*field = 0xA5C3E1F0u;
    uint8_t bytes[camsim::kHeaderSize];
    camsim::EncodeHeader(h, bytes);
    const uint8_t le[4] = {0xF0, 0xE1, 0xC3, 0xA5};
    return size_t(std::search(bytes, bytes + sizeof bytes, le, le + 4) - bytes);
}

uint32_t Le32(const uint8_t* p) { return p[0] | p[1] << 8 | p[2] << 16 | uint32_t(p[3]) << 24; }

sockaddr_in Loopback(int port) {
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    a.sin_port = htons(uint16_t(port));
    return a;
}

}  // namespace

struct FrameProxy::Impl {
    Options options;
    int listen_fd = -1;
    int port = 0;
    std::atomic<bool> running{false};
    std::atomic<bool> fault_injected{false};
    int connections = 0;  // the acceptor's
    std::thread acceptor;
    std::mutex mu;
    std::vector<std::thread> workers;
    std::vector<int> open_fds;  // every socket a worker uses, shut down on destruction
    const size_t type_at = FieldOffset(&camsim::FrameHeader::stream_type);
    const size_t size_at = FieldOffset(&camsim::FrameHeader::size);

    int Track(int fd) {
        std::lock_guard<std::mutex> lock(mu);
        if (fd >= 0) open_fds.push_back(fd);
        return fd;
    }
    void Release(int fd) {
        if (fd < 0) return;
        {
            std::lock_guard<std::mutex> lock(mu);
            std::replace(open_fds.begin(), open_fds.end(), fd, -1);
        }
        close(fd);
    }
    bool ReadExact(int fd, uint8_t* out, size_t n) {
        while (n > 0) {
            pollfd p{fd, POLLIN, 0};
            const int r = poll(&p, 1, kPollMs);
            if (!running || (r < 0 && errno != EINTR)) return false;
            if (r <= 0) continue;
            const ssize_t got = recv(fd, out, n, 0);
            if (got <= 0) return false;
            out += got;
            n -= size_t(got);
        }
        return true;
    }
    bool WriteAll(int fd, const void* data, size_t n) {
        auto* p = static_cast<const uint8_t*>(data);
        while (n > 0 && running) {
            const ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return false;
            p += w;
            n -= size_t(w);
        }
        return n == 0;
    }
    // Reads an HTTP head, up to and including the empty line.
    bool ReadHead(int fd, std::string* head) {
        head->clear();
        for (uint8_t c; head->size() < 8192 && ReadExact(fd, &c, 1);) {
            head->push_back(char(c));
            if (head->size() >= 4 && head->compare(head->size() - 4, 4, "\r\n\r\n") == 0) return true;
        }
        return false;
    }
    // Sends the client's request to a simulator and reads the answer's head.
    int OpenUpstream(int upstreamPort, const std::string& request, std::string* answer) {
        const int fd = Track(socket(AF_INET, SOCK_STREAM, 0));
        const sockaddr_in a = Loopback(upstreamPort);
        if (fd < 0 || connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) != 0 ||
            !WriteAll(fd, request.data(), request.size()) || !ReadHead(fd, answer)) {
            Release(fd);
            return -1;
        }
        return fd;
    }

    void Serve(int client, bool first) {
        std::string request, answer;
        int upstream = ReadHead(client, &request) ? OpenUpstream(options.upstream_port, request, &answer) : -1;
        if (upstream >= 0 && WriteAll(client, answer.data(), answer.size()))
            upstream = Forward(client, upstream, request, first && options.fault != Fault::kNone);
        Release(upstream);
        Release(client);
    }

    // Frame by frame from upstream to client; the upstream left to release.
    int Forward(int client, int upstream, const std::string& request, bool faulty) {
        std::vector<uint8_t> frame;
        for (int videoFrames = 0;;) {
            frame.resize(camsim::kHeaderSize);
            if (!ReadExact(upstream, frame.data(), frame.size())) break;
            const size_t size = Le32(&frame[size_at]);
            const bool video = Le32(&frame[type_at]) == camsim::kStreamVideo;
            frame.resize(camsim::kHeaderSize + size);
            if (size > 4000000 || !ReadExact(upstream, frame.data() + camsim::kHeaderSize, size)) break;
            videoFrames += video;
            if (faulty && video && videoFrames == options.at_video_frame) {
                faulty = false;
                fault_injected = true;
                if (options.fault == Fault::kTruncate) frame.resize(camsim::kHeaderSize + size / 2);
                if (options.fault == Fault::kGarbage && !SendGarbage(client)) break;
                if (options.fault == Fault::kCut) {
                    WriteAll(client, frame.data(), camsim::kHeaderSize + size / 2);
                    break;
                }
                if (options.fault == Fault::kSplice) {  // the frame in hand is dropped; B starts over
                    std::string answer;
                    Release(upstream);
                    upstream = OpenUpstream(options.splice_port, request, &answer);
                    if (upstream < 0) break;
                    continue;
                }
            }
            if (!WriteAll(client, frame.data(), frame.size())) break;
        }
        return upstream;
    }

    bool SendGarbage(int client) {
        std::vector<uint8_t> junk(64 * 1024);
        uint32_t x = 0x12345678u;
        for (size_t sent = 0; sent < options.garbage_bytes; sent += junk.size()) {
            for (auto& b : junk) {
                x = x * 1664525u + 1013904223u;
                b = uint8_t(x >> 24) == camsim::kMarker[0] ? 0 : uint8_t(x >> 24);  // never a marker's start
            }
            if (!WriteAll(client, junk.data(), std::min(junk.size(), options.garbage_bytes - sent))) return false;
        }
        return true;
    }

    void Accept() {
        while (running) {
            pollfd p{listen_fd, POLLIN, 0};
            if (poll(&p, 1, kPollMs) <= 0) continue;
            const int client = Track(accept(listen_fd, nullptr, nullptr));
            if (client < 0) continue;
            const bool first = connections++ == 0;
            std::lock_guard<std::mutex> lock(mu);
            workers.emplace_back([this, client, first] { Serve(client, first); });
        }
    }
};

FrameProxy::FrameProxy(const Options& options) : impl_(std::make_unique<Impl>()) { impl_->options = options; }

FrameProxy::~FrameProxy() {
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
}

bool FrameProxy::Start() {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a = Loopback(0);
    socklen_t len = sizeof a;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(fd, 16) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
        if (fd >= 0) close(fd);
        return false;
    }
    impl_->listen_fd = fd;
    impl_->port = ntohs(a.sin_port);
    impl_->running = true;
    impl_->acceptor = std::thread([this] { impl_->Accept(); });
    return true;
}

std::string FrameProxy::Url() const { return "http://127.0.0.1:" + std::to_string(impl_->port) + "/stream"; }
bool FrameProxy::FaultInjected() const { return impl_->fault_injected; }

}  // namespace camctl_test
