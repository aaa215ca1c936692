#include "support/cli_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>

extern char** environ;

namespace camctl_test {

using Clock = std::chrono::steady_clock;
static double Since(Clock::time_point t) { return std::chrono::duration<double>(Clock::now() - t).count(); }

ChildProcess::ChildProcess(const std::vector<std::string>& command, const Options& o) {
    std::vector<std::string> argv = o.prefix;
    argv.insert(argv.end(), command.begin(), command.end());
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e)
        if (strncmp(*e, "DISPLAY=", 8) != 0) env.push_back(*e);
    if (o.display) env.push_back(std::string("DISPLAY=") + o.display);
    std::vector<char*> cargv, cenv;
    for (std::string& a : argv) cargv.push_back(a.data());
    cargv.push_back(nullptr);
    for (std::string& e : env) cenv.push_back(e.data());
    cenv.push_back(nullptr);
    const std::string out = dir_ / "stdout", err = dir_ / "stderr";
    start_ = Clock::now();
    pid_ = fork();
    if (pid_ == 0) {
        int fo = open(out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int fe = open(err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        int fi = open("/dev/null", O_RDONLY);
        if (fo < 0 || fe < 0 || fi < 0 || dup2(fi, 0) < 0 || dup2(fo, 1) < 0 || dup2(fe, 2) < 0 ||
            (!o.cwd.empty() && chdir(o.cwd.c_str()) != 0))
            _exit(126);
        execvpe(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
}

ChildProcess::~ChildProcess() {
    Signal(SIGKILL);
    Reap(true);
}

std::string ChildProcess::Out() const { return ReadText(dir_ / "stdout"); }
std::string ChildProcess::Err() const { return ReadText(dir_ / "stderr"); }

void ChildProcess::Signal(int sig) { if (pid_ > 0 && !done_) kill(pid_, sig); }

bool ChildProcess::Reap(bool block) {
    if (done_ || pid_ <= 0) return true;
    if (waitpid(pid_, &status_, block ? 0 : WNOHANG) == pid_) done_ = true;
    return done_;
}

bool ChildProcess::WaitForText(const std::string& text, double seconds) {
    const auto start = Clock::now();
    while (Since(start) < seconds) {
        if (Contains(Out(), text) || Contains(Err(), text)) return true;
        if (Reap(false)) return Contains(Out(), text) || Contains(Err(), text);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    return false;
}

ChildResult ChildProcess::Wait(double seconds) {
    const auto start = Clock::now();
    while (!Reap(false) && Since(start) < seconds) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    const bool late = !done_;
    Signal(SIGKILL);
    Reap(true);
    const int code = late ? -1 : WIFEXITED(status_) ? WEXITSTATUS(status_) : 128 + WTERMSIG(status_);
    return {code, Since(start_), Out(), Err()};
}

SilentServer::SilentServer() {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof a;
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        getsockname(fd_, reinterpret_cast<sockaddr*>(&a), &len) != 0 || listen(fd_, 8) != 0)
        return;
    port_ = ntohs(a.sin_port);
    thread_ = std::thread([this] {
        while (!stop_) {
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, 50) <= 0) continue;
            int c = accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) held_.push_back(c);
        }
    });
}

SilentServer::~SilentServer() {
    stop_ = true;
    if (thread_.joinable()) thread_.join();
    for (int c : held_) close(c);
    if (fd_ >= 0) close(fd_);
}

std::string ReadText(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

std::vector<std::string> Lines(const std::string& text) {
    std::vector<std::string> lines;
    std::stringstream s(text);
    std::string line;
    while (std::getline(s, line)) {
        if (size_t cr = line.rfind('\r'); cr != std::string::npos) line = line.substr(cr + 1);
        if (!line.empty()) lines.push_back(line);
    }
    return lines;
}

std::string Field(const std::string& text, const std::string& key) {
    for (const std::string& l : Lines(text))
        if (l.rfind(key + ": ", 0) == 0) return l.substr(key.size() + 2);
    return "";
}

bool Contains(const std::string& text, const std::string& what) { return text.find(what) != std::string::npos; }

std::vector<std::string> Camctl(std::vector<std::string> args) {
    args.insert(args.begin(), std::string(CAMCTL_BINARY_DIR) + "/tools/camctl");
    return args;
}

ChildResult RunCamctl(const std::vector<std::string>& args, double seconds) {
    return ChildProcess(Camctl(args), ChildProcess::Options()).Wait(seconds);
}

std::vector<std::string> RecordedFiles(const std::string& out) {
    std::vector<std::string> files;
    static const std::regex line(R"(^recorded: (.+) \(\d+ bytes\)$)");
    std::smatch m;
    for (const std::string& l : Lines(out))
        if (std::regex_match(l, m, line)) files.push_back(m[1]);
    return files;
}

std::string ProbeVideo(const std::string& file) {
    const std::vector<std::string> l = Lines(Ffprobe("-select_streams v:0 -show_entries stream=codec_name,width,height,pix_fmt -of csv=p=0", file));
    return l.empty() ? "" : l[0];
}

double ProbeDuration(const std::string& file) {
    std::string s = Ffprobe("-show_entries format=duration -of csv=p=0", file);
    return s.empty() ? -1 : atof(s.c_str());
}

bool Decodes(const std::string& file) {
    std::string out;
    return RunCommand("ffmpeg -nostdin -v error -xerror -i '" + file + "' -f null - 2>&1", &out) == 0 && out.empty();
}

bool IsFinishedRecording(const std::string& path, int reason, int* seconds) {
    static const std::regex name(R"(.*/[^/]*\+\d+_\d{8}-\d{6}_(\d+)_(\d+)\.avi$)");
    std::smatch m;
    if (!std::regex_match(path, m, name) || m[1] != std::to_string(reason)) return false;
    if (seconds) *seconds = std::stoi(m[2]);
    const std::vector<unsigned char> b = ReadFileBytes(path);
    static const char kIndex[] = "idx1";
    return std::search(b.begin(), b.end(), kIndex, kIndex + 4) != b.end();
}

}  // namespace camctl_test
