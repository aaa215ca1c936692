// A loopback proxy in front of a camera simulator that forwards the private frame stream frame by frame and
// damages the first connection once, at a chosen video frame; later connections pass untouched.
#pragma once

#include <cstddef>
#include <memory>
#include <string>

namespace camctl_test {

class FrameProxy {
public:
    enum class Fault {
        kNone,
        kTruncate,  // the payload cut to half (the header still says the full size); the stream goes on
        kGarbage,   // garbage_bytes of random bytes (never a marker's start) before the frame
        kCut,       // half of the frame, then both connections close
        kSplice,    // from here on, a second simulator's stream from its first frame (a camera restarting)
    };
    struct Options {
        int upstream_port = 0;
        Fault fault = Fault::kNone;
        int at_video_frame = 50;  // 1-based
        size_t garbage_bytes = 2 * 1024 * 1024;
        int splice_port = 0;
    };
    explicit FrameProxy(const Options& options);
    ~FrameProxy();  // closes every connection, joins every thread
    FrameProxy(const FrameProxy&) = delete;
    FrameProxy& operator=(const FrameProxy&) = delete;
    bool Start();             // binds a free loopback port and accepts
    std::string Url() const;  // http://127.0.0.1:<port>/stream
    bool FaultInjected() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace camctl_test
