// A fault injector for the private frame stream: a TCP proxy on 127.0.0.1
// between a client (the session under test) and a real camera simulator. It
// forwards the HTTP exchange and then the frames one by one, and damages the
// stream of the first connection once, at a chosen video frame:
//
//   kTruncate  the frame's payload is cut to half (its header still
//              announces the full size); the stream goes on after it
//   kGarbage   `garbage_bytes` of random bytes (never containing the start
//              marker) are sent before the frame
//   kCut       half of the frame is sent, then both connections close
//   kSplice    from this frame on the client gets a second simulator's
//              stream (from its first frame), as when a camera restarts
//              with other settings
//
// Later connections are forwarded untouched, so a client that reopens gets
// a healthy stream.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <string>

namespace camctl_test {

class FrameProxy {
public:
    enum class Fault { kNone, kTruncate, kGarbage, kCut, kSplice };
    struct Options {
        int upstream_port = 0;
        Fault fault = Fault::kNone;
        int at_video_frame = 50;  // 1-based: the fault hits this video frame
        size_t garbage_bytes = 2 * 1024 * 1024;
        int splice_port = 0;  // kSplice: the second simulator
    };

    explicit FrameProxy(const Options& options);
    ~FrameProxy();  // stops
    FrameProxy(const FrameProxy&) = delete;
    FrameProxy& operator=(const FrameProxy&) = delete;

    bool Start();  // binds a free loopback port and accepts
    void Stop();   // closes every connection, joins every thread

    int Port() const;
    std::string Url() const;  // http://127.0.0.1:<port>/stream
    bool FaultInjected() const;
    int Connections() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace camctl_test
