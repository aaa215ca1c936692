// The camera simulator: serves the private frame stream over HTTP/1.0 on
// 127.0.0.1. Any GET is answered "HTTP/1.0 200 OK" and then frames, one
// thread per client, paced in real time, looping.
//
//   camsim::Options o;
//   o.file = "clip.mp4";              // or leave empty for a generated picture
//   camsim::Server server(o);
//   if (!server.Start(&error)) ...;
//   std::string url = server.Url();   // http://127.0.0.1:<port>/stream
//   ...
//   server.Stop();                    // also done by the destructor
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>

#include "camsim/pattern.h"

namespace camsim {

struct Options {
    int port = 0;           // 0: any free port (see Server::Port)
    std::string file;       // media file to serve; empty: the generated picture
    bool loop = true;       // start the file over at its end (else close the connection)
    double speed = 1.0;     // 1: real time; 2: twice as fast; 0: as fast as the client reads
    int max_video_frames = 0;  // close the connection after this many video frames (0: no limit)

    // The generated picture (and, for codec_change_*, also file sources).
    PatternOptions pattern;

    uint32_t ver = 1;       // header version field
    // Bytes of junk (never containing the marker) before the first frame.
    int junk_before_first = 0;
    // Every Nth video frame carries the start-marker pattern inside its
    // payload (an SEI/COM segment the decoders ignore) (0: never).
    int marker_in_payload_every = 0;
    // A motion-region record after every Nth video frame (0: never).
    int motion_every = 0;
    // Video headers announce no audio until the first audio frame is sent
    // (a camera whose audio shows up only with its own frames).
    bool audio_announced_late = false;
    std::array<uint32_t, 10> motion_mask = {0x0000A5A5u, 0x80000001u, 0xF0F0F0F0u, 0x0F0F0F0Fu,
                                            0xFFFF0000u, 0x0000FFFFu, 0x12345678u, 0x9ABCDEF0u,
                                            0xAAAAAAAAu, 0x5555555Fu};
    // pattern.codec_change_after / codec_change_to also apply to a file:
    // from that video frame on the header announces the other codec
    // (the payload stays the file's).
};

class Server {
public:
    explicit Server(Options options);
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Loads the file (or checks the encoders), binds 127.0.0.1:port and
    // starts accepting. False with a reason in *error on failure.
    bool Start(std::string* error = nullptr);
    // Closes every connection and joins every thread. Idempotent.
    void Stop();

    int Port() const;  // the bound port, 0 before Start
    std::string Url(const std::string& path = "/stream") const;

    int ActiveClients() const;
    int ConnectionsAccepted() const;
    uint64_t FramesSent() const;  // frames of every stream type, all clients

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace camsim
