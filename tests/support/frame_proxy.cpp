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
// Where a header field lies, found by encoding a known header.
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
    a.sin_family = AF_INET, a.sin_addr.s_addr = htonl(INADDR_LOOPBACK), a.sin_port = htons(uint16_t(port));
    return a;
}
}  // namespace

struct FrameProxy::Impl {
    Options o;
    int listen_fd = -1, port = 0, connections = 0;
    std::atomic<bool> running{false}, injected{false};
    std::thread acceptor;
    std::mutex mu;
    std::vector<std::thread> workers;
    std::vector<int> fds;  // every open socket, shut down on destruction
    const size_t type_at = FieldOffset(&camsim::FrameHeader::stream_type), size_at = FieldOffset(&camsim::FrameHeader::size);

    int Track(int fd) {
        std::lock_guard<std::mutex> lock(mu);
        if (fd >= 0) fds.push_back(fd);
        return fd;
    }
    void Release(int fd) {
        if (fd < 0) return;
        std::lock_guard<std::mutex> lock(mu);
        std::replace(fds.begin(), fds.end(), fd, -1);
        close(fd);
    }
    bool Read(int fd, uint8_t* out, size_t n) {
        while (n > 0) {
            pollfd p{fd, POLLIN, 0};
            const int r = poll(&p, 1, 100);
            if (!running || (r < 0 && errno != EINTR)) return false;
            if (r <= 0) continue;
            const ssize_t got = recv(fd, out, n, 0);
            if (got <= 0) return false;
            out += got, n -= size_t(got);
        }
        return true;
    }
    bool Write(int fd, const void* data, size_t n) {
        for (auto* p = static_cast<const uint8_t*>(data); n > 0 && running;) {
            const ssize_t w = send(fd, p, n, MSG_NOSIGNAL);
            if (w < 0 && errno == EINTR) continue;
            if (w <= 0) return false;
            p += w, n -= size_t(w);
        }
        return n == 0;
    }
    bool ReadHead(int fd, std::string* head) {  // up to and including the empty line
        head->clear();
        for (uint8_t c; head->size() < 8192 && Read(fd, &c, 1);) {
            head->push_back(char(c));
            if (head->size() >= 4 && head->compare(head->size() - 4, 4, "\r\n\r\n") == 0) return true;
        }
        return false;
    }
    // Sends the client's request to a simulator and reads the answer's head.
    int Upstream(int to, const std::string& request, std::string* answer) {
        const int fd = Track(socket(AF_INET, SOCK_STREAM, 0));
        const sockaddr_in a = Loopback(to);
        if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&a), sizeof a) == 0 &&
            Write(fd, request.data(), request.size()) && ReadHead(fd, answer))
            return fd;
        Release(fd);
        return -1;
    }
    void Serve(int client, bool faulty) {
        std::string request, answer;
        int up = ReadHead(client, &request) ? Upstream(o.upstream_port, request, &answer) : -1;
        std::vector<uint8_t> frame;
        const size_t hs = camsim::kHeaderSize;
        // The answer's head first (empty afterwards; a spliced simulator's is dropped).
        for (int video = 0; up >= 0 && Write(client, answer.data(), answer.size());) {
            answer.clear();
            frame.resize(hs);
            if (!Read(up, frame.data(), hs)) break;
            const size_t size = Le32(&frame[size_at]);
            const bool isVideo = Le32(&frame[type_at]) == camsim::kStreamVideo;
            frame.resize(hs + size);
            if (size > 4000000 || !Read(up, frame.data() + hs, size)) break;
            if (faulty && isVideo && ++video == o.at_video_frame) {
                faulty = false, injected = true;
                if (o.fault == Fault::kTruncate) frame.resize(hs + size / 2);
                if (o.fault == Fault::kGarbage && !SendGarbage(client)) break;
                if (o.fault == Fault::kCut) {
                    Write(client, frame.data(), hs + size / 2);
                    break;
                }
                if (o.fault == Fault::kSplice) {  // the frame in hand is dropped; the second simulator starts over
                    Release(up);
                    up = Upstream(o.splice_port, request, &answer);
                    answer.clear();
                    continue;
                }
            }
            if (!Write(client, frame.data(), frame.size())) break;
        }
        Release(up);
        Release(client);
    }
    bool SendGarbage(int client) {
        std::vector<uint8_t> junk(64 * 1024);
        uint32_t x = 0x12345678u;
        for (size_t sent = 0; sent < o.garbage_bytes; sent += junk.size()) {
            for (auto& b : junk) x = x * 1664525u + 1013904223u, b = uint8_t(x >> 24) == camsim::kMarker[0] ? 0 : uint8_t(x >> 24);
            if (!Write(client, junk.data(), std::min(junk.size(), o.garbage_bytes - sent))) return false;
        }
        return true;
    }
};

FrameProxy::FrameProxy(const Options& options) : impl_(std::make_unique<Impl>()) { impl_->o = options; }

FrameProxy::~FrameProxy() {
    if (!impl_->running.exchange(false)) return;
    impl_->acceptor.join();
    std::vector<std::thread> workers;
    {
        std::lock_guard<std::mutex> lock(impl_->mu);
        for (int fd : impl_->fds)
            if (fd >= 0) shutdown(fd, SHUT_RDWR);
        workers.swap(impl_->workers);
    }
    for (auto& t : workers) t.join();
    close(impl_->listen_fd);
}

bool FrameProxy::Start() {
    Impl& m = *impl_;
    sockaddr_in a = Loopback(0);
    socklen_t len = sizeof a;
    m.listen_fd = socket(AF_INET, SOCK_STREAM, 0);
    if (m.listen_fd < 0 || bind(m.listen_fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 || listen(m.listen_fd, 16) != 0 ||
        getsockname(m.listen_fd, reinterpret_cast<sockaddr*>(&a), &len) != 0)
        return close(m.listen_fd), false;
    m.port = ntohs(a.sin_port);
    m.running = true;
    m.acceptor = std::thread([&m] {
        while (m.running) {
            pollfd p{m.listen_fd, POLLIN, 0};
            const int client = poll(&p, 1, 100) > 0 ? m.Track(accept(m.listen_fd, nullptr, nullptr)) : -1;
            std::lock_guard<std::mutex> lock(m.mu);
            if (client >= 0) m.workers.emplace_back([&m, client, first = m.connections++ == 0] {
                m.Serve(client, first && m.o.fault != Fault::kNone);
            });
        }
    });
    return true;
}

std::string FrameProxy::Url() const { return "http://127.0.0.1:" + std::to_string(impl_->port) + "/stream"; }
bool FrameProxy::FaultInjected() const { return impl_->injected; }

}  // namespace camctl_test
