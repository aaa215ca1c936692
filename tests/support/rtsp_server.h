// GStreamer's RTSP server (python3-gi) as a child process on 127.0.0.1, one launch line per mount.
#pragma once

#include <sys/types.h>

#include <string>
#include <utility>
#include <vector>

namespace camctl_test {

class RtspServer {
public:
    enum class Auth { kNone, kBasic, kDigest };
    struct Mount {  // launch: a bin whose payloaders are named pay0, pay1, ...; auth: 401 without user and password
        Mount(std::string p, std::string l, Auth a = Auth::kNone, std::string u = "", std::string pw = "")
            : path(std::move(p)), launch(std::move(l)), auth(a), user(std::move(u)), password(std::move(pw)) {}
        std::string path, launch;
        Auth auth;
        std::string user, password;
    };
    // Waits (at most 15 s) until it listens on port (0: any free one).
    explicit RtspServer(const std::vector<Mount>& mounts, int port = 0, bool udpOnly = false);
    ~RtspServer();
    RtspServer(const RtspServer&) = delete;
    RtspServer& operator=(const RtspServer&) = delete;

    static bool Available();  // python3-gi with the RTSP server bindings
    bool ok() const { return port_ > 0; }
    int port() const { return port_; }
    pid_t pid() const { return pid_; }
    std::string Url(const std::string& path, const std::string& credentials = "") const;  // "user:pass" or ""
    std::string Log() const;  // what the server printed so far
    void Kill();              // SIGKILL and reap
    void Freeze();            // SIGSTOP: connections stay open, nothing answers
    void Thaw();

    // Live test sources (H264: optional G.711 audio as pay1).
    static std::string H264(int width, int height, int fps, int keyInterval, bool audio = false);
    static std::string H265(int width, int height, int fps, int keyInterval);
    static std::string Mjpeg(int width, int height, int fps);
    // 320x240 video ending after n pictures at 25/s, or audio of n pictures' time.
    static std::string CountedVideo(int n);
    static std::string CountedAudio(int n, int rate, int channels);
    static std::string Mpeg4File(const std::string& mkvPath);  // paced in real time

private:
    std::string dir_;
    pid_t pid_ = -1;
    int port_ = 0;
};

}  // namespace camctl_test
