#include "camsim/server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <list>
#include <mutex>
#include <thread>

namespace camsim {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPollMs = 50;

// A socket descriptor owner.
class Fd {
public:
    explicit Fd(int fd = -1) : fd_(fd) {}
    ~Fd() { Reset(); }
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd& operator=(Fd&& other) noexcept {
        if (this != &other) {
            Reset();
            fd_ = other.fd_;
            other.fd_ = -1;
        }
        return *this;
    }
    int get() const { return fd_; }
    void Reset() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

private:
    int fd_;
};

void SetTimeouts(int fd) {
    timeval tv{0, kPollMs * 1000};
    setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
}

// The same bytes with the marker pattern placed where the decoder skips it:
// an unregistered-user-data SEI (H.264/H.265) in front, a JPEG comment
// after SOI, or the end of any other payload.
std::vector<uint8_t> WithEmbeddedMarker(const uint8_t* data, size_t size, uint32_t codec) {
    static const uint8_t kUuid[16] = {'c', 'a', 'm', 's', 'i', 'm', '-', 'm',
                                      'a', 'r', 'k', 'e', 'r', '-', 'i', 'd'};
    std::vector<uint8_t> out;
    out.reserve(size + 48);
    if (codec == kWireH264 || codec == kWireHevc) {
        out.insert(out.end(), {0, 0, 0, 1});
        if (codec == kWireH264) out.push_back(0x06);
        else out.insert(out.end(), {0x4E, 0x01});
        out.push_back(5);   // user data unregistered
        out.push_back(24);  // uuid + 8 bytes
        out.insert(out.end(), kUuid, kUuid + 16);
        out.insert(out.end(), kMarker, kMarker + 4);
        out.insert(out.end(), {'c', 'a', 'm', 's'});
        out.push_back(0x80);  // rbsp trailing bits
        out.insert(out.end(), data, data + size);
    } else if (codec == kWireMjpeg && size >= 2 && data[0] == 0xFF && data[1] == 0xD8) {
        out.insert(out.end(), {0xFF, 0xD8, 0xFF, 0xFE, 0x00, 0x0A});
        out.insert(out.end(), kMarker, kMarker + 4);
        out.insert(out.end(), {'c', 'a', 'm', 's'});
        out.insert(out.end(), data + 2, data + size);
    } else {
        out.insert(out.end(), data, data + size);
        out.insert(out.end(), kMarker, kMarker + 4);
    }
    return out;
}

}  // namespace

struct Server::Impl {
    Options opt;
    std::shared_ptr<const Clip> clip;
    Fd listener;
    int port = 0;
    std::thread acceptThread;
    std::atomic<bool> stopping{false};
    bool started = false;

    struct Client {
        std::thread thread;
        std::atomic<bool> done{false};
        int fd = -1;  // owned by the client thread; shut down by Stop
    };
    std::mutex clientsLock;  // guards clients
    std::list<std::unique_ptr<Client>> clients;

    std::atomic<int> active{0};
    std::atomic<int> accepted{0};
    std::atomic<uint64_t> framesSent{0};

    void AcceptLoop();
    void ReapFinished(bool all);
    void Serve(Client* client);
    bool SendAll(int fd, const uint8_t* data, size_t size, bool more);
    bool ReadRequest(int fd);
    bool WaitUntil(Clock::time_point due);
    std::unique_ptr<FrameSource> MakeSource();
};

bool Server::Impl::SendAll(int fd, const uint8_t* data, size_t size, bool more) {
    while (size > 0) {
        if (stopping.load(std::memory_order_relaxed)) return false;
        ssize_t n = send(fd, data, size, MSG_NOSIGNAL | (more ? MSG_MORE : 0));
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            return false;
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool Server::Impl::ReadRequest(int fd) {
    std::string request;
    const auto deadline = Clock::now() + std::chrono::seconds(5);
    char buf[1024];
    while (request.find("\r\n\r\n") == std::string::npos && request.find("\n\n") == std::string::npos) {
        if (stopping.load(std::memory_order_relaxed) || Clock::now() > deadline || request.size() > 16384)
            return false;
        ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n == 0) return false;
        if (n < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) continue;
            return false;
        }
        request.append(buf, static_cast<size_t>(n));
    }
    return request.compare(0, 4, "GET ") == 0;
}

bool Server::Impl::WaitUntil(Clock::time_point due) {
    for (;;) {
        if (stopping.load(std::memory_order_relaxed)) return false;
        auto now = Clock::now();
        if (now >= due) return true;
        std::this_thread::sleep_for(std::min<Clock::duration>(due - now, std::chrono::milliseconds(kPollMs)));
    }
}

std::unique_ptr<FrameSource> Server::Impl::MakeSource() {
    if (clip) return std::make_unique<ClipSource>(clip, opt.loop);
    auto source = std::make_unique<PatternSource>(opt.pattern);
    if (!source->Open(nullptr)) return nullptr;
    return source;
}

void Server::Impl::Serve(Client* client) {
    pthread_setname_np(pthread_self(), "camsim/client");
    const int fd = client->fd;
    SetTimeouts(fd);
    static const char kResponse[] =
        "HTTP/1.0 200 OK\r\nContent-Type: application/octet-stream\r\nCache-Control: no-cache\r\n"
        "Connection: close\r\n\r\n";
    std::unique_ptr<FrameSource> source;
    if (ReadRequest(fd) && SendAll(fd, reinterpret_cast<const uint8_t*>(kResponse), sizeof kResponse - 1, false))
        source = MakeSource();

    bool ok = source != nullptr;
    if (ok && opt.junk_before_first > 0) {
        std::vector<uint8_t> junk(static_cast<size_t>(opt.junk_before_first));
        uint32_t seed = 12345;
        for (uint8_t& b : junk) {
            seed = seed * 1103515245u + 12345u;
            b = static_cast<uint8_t>(seed >> 16);
            if (b == kMarker[0]) b = 0x34;
        }
        ok = SendAll(fd, junk.data(), junk.size(), false);
    }

    const auto t0 = Clock::now();
    int64_t firstTs = -1;
    int videoFrames = 0;
    bool audioSent = false;
    const int changeAfter = clip ? opt.pattern.codec_change_after : 0;
    uint8_t header[kHeaderSize];
    while (ok) {
        MediaFrame f;
        if (!source->Next(&f)) break;
        if (firstTs < 0) firstTs = f.ts_ms;
        if (opt.speed > 0) {
            auto offset = std::chrono::duration<double, std::milli>((f.ts_ms - firstTs) / opt.speed);
            if (!WaitUntil(t0 + std::chrono::duration_cast<Clock::duration>(offset))) break;
        }
        FrameHeader h;
        h.ver = opt.ver;
        h.stream_type = f.stream_type;
        h.codec = changeAfter > 0 && videoFrames >= changeAfter ? WireCodec(opt.pattern.codec_change_to) : f.codec;
        h.frame_kind = f.key ? 0 : 1;
        h.width = f.width;
        h.height = f.height;
        audioSent = audioSent || f.stream_type == kStreamAudio;
        const bool hideAudio = opt.audio_announced_late && !audioSent;
        h.audio_codec = hideAudio ? kWireNoAudio : f.audio_codec;
        h.sample_rate = hideAudio ? 0 : f.sample_rate;
        h.timestamp = static_cast<uint64_t>(f.ts_ms);

        const bool video = f.stream_type == kStreamVideo;
        std::vector<uint8_t> marked;
        const uint8_t* payload = f.data;
        size_t size = f.size;
        if (video && opt.marker_in_payload_every > 0 &&
            videoFrames % opt.marker_in_payload_every == opt.marker_in_payload_every - 1) {
            marked = WithEmbeddedMarker(f.data, f.size, h.codec);
            payload = marked.data();
            size = marked.size();
        }
        h.size = static_cast<uint32_t>(size);
        EncodeHeader(h, header);
        ok = SendAll(fd, header, sizeof header, size > 0) && SendAll(fd, payload, size, false);
        if (!ok) break;
        framesSent.fetch_add(1, std::memory_order_relaxed);
        if (!video) continue;
        ++videoFrames;
        if (opt.motion_every > 0 && videoFrames % opt.motion_every == 0) {
            std::vector<uint8_t> record = MotionRecord(opt.motion_mask);
            h.stream_type = kStreamMotion;
            h.frame_kind = 0;
            h.size = static_cast<uint32_t>(record.size());
            EncodeHeader(h, header);
            ok = SendAll(fd, header, sizeof header, true) && SendAll(fd, record.data(), record.size(), false);
            if (ok) framesSent.fetch_add(1, std::memory_order_relaxed);
        }
        if (opt.max_video_frames > 0 && videoFrames >= opt.max_video_frames) break;
    }
    shutdown(fd, SHUT_RDWR);
    active.fetch_sub(1, std::memory_order_relaxed);
    client->done.store(true, std::memory_order_release);
}

void Server::Impl::ReapFinished(bool all) {
    std::list<std::unique_ptr<Client>> finished;
    {
        std::lock_guard<std::mutex> lock(clientsLock);
        for (auto it = clients.begin(); it != clients.end();) {
            if (all || (*it)->done.load(std::memory_order_acquire)) {
                if (all) shutdown((*it)->fd, SHUT_RDWR);
                finished.splice(finished.end(), clients, it++);
            } else {
                ++it;
            }
        }
    }
    for (auto& c : finished) {
        c->thread.join();
        close(c->fd);
    }
}

void Server::Impl::AcceptLoop() {
    pthread_setname_np(pthread_self(), "camsim/accept");
    while (!stopping.load(std::memory_order_relaxed)) {
        ReapFinished(false);
        pollfd p{listener.get(), POLLIN, 0};
        if (poll(&p, 1, kPollMs) <= 0) continue;
        int fd = accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) continue;
        auto client = std::make_unique<Client>();
        client->fd = fd;
        Client* raw = client.get();
        accepted.fetch_add(1, std::memory_order_relaxed);
        active.fetch_add(1, std::memory_order_relaxed);
        std::lock_guard<std::mutex> lock(clientsLock);
        client->thread = std::thread([this, raw] { Serve(raw); });
        clients.push_back(std::move(client));
    }
}

Server::Server(Options options) : impl_(std::make_unique<Impl>()) { impl_->opt = std::move(options); }

Server::~Server() { Stop(); }

bool Server::Start(std::string* error) {
    Impl& s = *impl_;
    if (s.started) return true;
    if (!s.opt.file.empty()) {
        s.clip = Clip::Load(s.opt.file, error);
        if (!s.clip) return false;
    } else {
        PatternSource probe(s.opt.pattern);
        if (!probe.Open(error)) return false;
    }
    Fd fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (fd.get() < 0) {
        if (error) *error = std::string("socket: ") + strerror(errno);
        return false;
    }
    int one = 1;
    setsockopt(fd.get(), SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(s.opt.port));
    socklen_t len = sizeof addr;
    if (bind(fd.get(), reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd.get(), 16) != 0 ||
        getsockname(fd.get(), reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        if (error) *error = "cannot listen on 127.0.0.1:" + std::to_string(s.opt.port) + ": " + strerror(errno);
        return false;
    }
    s.port = ntohs(addr.sin_port);
    s.listener = std::move(fd);
    s.stopping.store(false);
    s.acceptThread = std::thread([&s] { s.AcceptLoop(); });
    s.started = true;
    return true;
}

void Server::Stop() {
    Impl& s = *impl_;
    if (!s.started) return;
    s.stopping.store(true);
    s.acceptThread.join();
    s.ReapFinished(true);
    s.listener.Reset();
    s.started = false;
}

int Server::Port() const { return impl_->port; }

std::string Server::Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(impl_->port) + path;
}

int Server::ActiveClients() const { return impl_->active.load(std::memory_order_relaxed); }
int Server::ConnectionsAccepted() const { return impl_->accepted.load(std::memory_order_relaxed); }
uint64_t Server::FramesSent() const { return impl_->framesSent.load(std::memory_order_relaxed); }

}  // namespace camsim
