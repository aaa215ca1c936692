#include "support/rtsp_server.h"

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

#include "support/cli_support.h"
#include "support/fixtures.h"

namespace camctl_test {

namespace {

constexpr const char* kPython = "/usr/bin/python3";

std::string Quote(const std::string& s) { return "'" + s + "'"; }  // launch lines and credentials hold no quotes

std::string VideoCaps(int width, int height, int fps) {
    return "video/x-raw,format=I420,width=" + std::to_string(width) + ",height=" + std::to_string(height) +
           ",framerate=" + std::to_string(fps) + "/1";
}

}  // namespace

bool RtspServer::Available() {
    static const bool available =
        RunCommand(std::string(kPython) +
                   " -c \"import gi; gi.require_version('GstRtspServer', '1.0'); "
                   "from gi.repository import GstRtspServer\" 2>/dev/null") == 0;
    return available;
}

RtspServer::RtspServer(const std::vector<Mount>& mounts, int port, bool udpOnly) {
    char tmpl[] = "/tmp/camctl-rtsp-XXXXXX";
    if (!mkdtemp(tmpl)) return;
    dir_ = tmpl;
    const std::string portFile = dir_ + "/port";
    std::string cmd = "echo $$ > " + dir_ + "/pid; exec " + kPython + " " + CAMCTL_SOURCE_DIR +
                      "/tests/support/rtsp_server.py --port " + std::to_string(port) + " --port-file " + portFile;
    if (udpOnly) cmd += " --udp-only";
    for (const Mount& m : mounts) {
        cmd += " --mount " + Quote(m.path) + " " + Quote(m.launch);
        if (m.auth != Auth::kNone)
            cmd += " --auth " + Quote(m.path) + (m.auth == Auth::kBasic ? " basic " : " digest ") + Quote(m.user) +
                   " " + Quote(m.password);
    }
    cmd += " >" + dir_ + "/log 2>&1";

    pid_t pid = fork();
    if (pid == 0) {
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    if (pid < 0) return;
    pid_ = pid;  // sh execs the server: this is the server's own PID
    auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (std::chrono::steady_clock::now() < end && (port_ = std::atoi(ReadText(portFile).c_str())) == 0) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) {
            pid_ = -1;
            break;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
}

RtspServer::~RtspServer() {
    Kill();
    if (!dir_.empty()) RunCommand("rm -rf '" + dir_ + "'");
}

std::string RtspServer::Url(const std::string& path, const std::string& credentials) const {
    return "rtsp://" + (credentials.empty() ? "" : credentials + "@") + "127.0.0.1:" + std::to_string(port_) + path;
}

std::string RtspServer::Log() const { return ReadText(dir_ + "/log"); }

void RtspServer::Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGCONT);
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
}

void RtspServer::Freeze() { if (pid_ > 0) kill(pid_, SIGSTOP); }
void RtspServer::Thaw() { if (pid_ > 0) kill(pid_, SIGCONT); }

std::string RtspServer::H264(int width, int height, int fps, int keyInterval, bool audio) {
    std::string s = "( videotestsrc is-live=true pattern=smpte ! " + VideoCaps(width, height, fps) +
                    " ! x264enc tune=zerolatency speed-preset=ultrafast key-int-max=" + std::to_string(keyInterval) +
                    " ! rtph264pay name=pay0 pt=96 config-interval=1";
    if (audio)
        s += " audiotestsrc is-live=true wave=sine ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! "
             "rtppcmupay name=pay1";
    return s + " )";
}

std::string RtspServer::H265(int width, int height, int fps, int keyInterval) {
    return "( videotestsrc is-live=true pattern=smpte ! " + VideoCaps(width, height, fps) +
           " ! x265enc tune=zerolatency speed-preset=ultrafast key-int-max=" + std::to_string(keyInterval) +
           " ! rtph265pay name=pay0 pt=96 config-interval=1 )";
}

std::string RtspServer::Mjpeg(int width, int height, int fps) {
    return "( videotestsrc is-live=true pattern=smpte ! " + VideoCaps(width, height, fps) + " ! jpegenc ! rtpjpegpay name=pay0 pt=26 )";
}

std::string RtspServer::CountedVideo(int n) {
    return "videotestsrc is-live=true pattern=ball num-buffers=" + std::to_string(n) + " ! " + VideoCaps(320, 240, 25);
}

std::string RtspServer::CountedAudio(int n, int rate, int channels) {
    return "audiotestsrc is-live=true wave=sine num-buffers=" + std::to_string(n) +
           " samplesperbuffer=" + std::to_string(rate / 25) + " ! audio/x-raw,rate=" + std::to_string(rate) +
           ",channels=" + std::to_string(channels);
}

std::string RtspServer::Mpeg4File(const std::string& mkvPath) {
    return "( filesrc location=" + mkvPath +
           " ! matroskademux ! mpeg4videoparse ! rtpmp4vpay name=pay0 pt=96 config-interval=1 )";
}

}  // namespace camctl_test
