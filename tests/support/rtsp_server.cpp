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
const std::string kPython = "/usr/bin/python3";
std::string Quote(const std::string& s) { return "'" + s + "'"; }  // launch lines and credentials hold no quotes
std::string Live(const std::string& pattern, int width, int height, int fps) {
    return "videotestsrc is-live=true pattern=" + pattern + " ! video/x-raw,format=I420,width=" + std::to_string(width) +
           ",height=" + std::to_string(height) + ",framerate=" + std::to_string(fps) + "/1";
}
std::string Encoded(const std::string& enc, int w, int h, int fps, int key, const std::string& pay) {
    return "( " + Live("smpte", w, h, fps) + " ! " + enc + " tune=zerolatency speed-preset=ultrafast key-int-max=" +
           std::to_string(key) + " ! " + pay + " name=pay0 pt=96 config-interval=1";
}
}  // namespace

bool RtspServer::Available() {
    static const bool available = RunCommand(kPython + " -c \"import gi; gi.require_version('GstRtspServer', '1.0'); "
                                                       "from gi.repository import GstRtspServer\" 2>/dev/null") == 0;
    return available;
}

RtspServer::RtspServer(const std::vector<Mount>& mounts, int port, bool udpOnly) {
    char tmpl[] = "/tmp/camctl-rtsp-XXXXXX";
    if (!mkdtemp(tmpl)) return;
    dir_ = tmpl;
    std::string cmd = "exec " + kPython + " " + CAMCTL_SOURCE_DIR + "/tests/support/rtsp_server.py --port " +
                      std::to_string(port) + " --port-file " + dir_ + "/port" + (udpOnly ? " --udp-only" : "");
    for (const Mount& m : mounts) {
        cmd += " --mount " + Quote(m.path) + " " + Quote(m.launch);
        if (m.auth != Auth::kNone)
            cmd += " --auth " + Quote(m.path) + (m.auth == Auth::kBasic ? " basic " : " digest ") + Quote(m.user) + " " +
                   Quote(m.password);
    }
    cmd += " >" + dir_ + "/log 2>&1";
    if ((pid_ = fork()) == 0) {  // sh execs the server: pid_ is the server's own
        execl("/bin/sh", "sh", "-c", cmd.c_str(), static_cast<char*>(nullptr));
        _exit(127);
    }
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(15);
    while (pid_ > 0 && std::chrono::steady_clock::now() < end && (port_ = atoi(ReadText(dir_ + "/port").c_str())) == 0) {
        if (waitpid(pid_, nullptr, WNOHANG) == pid_) pid_ = -1;
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
    return Encoded("x264enc", width, height, fps, keyInterval, "rtph264pay") +
           (audio ? " audiotestsrc is-live=true wave=sine ! audio/x-raw,rate=8000,channels=1 ! mulawenc ! rtppcmupay name=pay1"
                  : "") + " )";
}
std::string RtspServer::H265(int width, int height, int fps, int keyInterval) {
    return Encoded("x265enc", width, height, fps, keyInterval, "rtph265pay") + " )";
}
std::string RtspServer::Mjpeg(int width, int height, int fps) {
    return "( " + Live("smpte", width, height, fps) + " ! jpegenc ! rtpjpegpay name=pay0 pt=26 )";
}
std::string RtspServer::CountedVideo(int n) { return Live("ball num-buffers=" + std::to_string(n), 320, 240, 25); }
std::string RtspServer::CountedAudio(int n, int rate, int channels) {
    return "audiotestsrc is-live=true wave=sine num-buffers=" + std::to_string(n) + " samplesperbuffer=" +
           std::to_string(rate / 25) + " ! audio/x-raw,rate=" + std::to_string(rate) + ",channels=" + std::to_string(channels);
}
std::string RtspServer::Mpeg4File(const std::string& mkvPath) {
    return "( filesrc location=" + mkvPath + " ! matroskademux ! mpeg4videoparse ! rtpmp4vpay name=pay0 pt=96 config-interval=1 )";
}

}  // namespace camctl_test
