#include "support/fixtures.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <thread>

namespace camctl_test {

std::string FixtureDir() {
    std::string dir = CAMCTL_FIXTURE_DIR;
    mkdir(dir.c_str(), 0755);
    return dir;
}

std::string Fixture(const std::string& name, const std::string& ffmpeg_args) {
    std::string path = FixtureDir() + "/" + name;
    if (FileExists(path)) return path;
    std::string ext = name.substr(name.find_last_of('.'));
    std::string tmp = path + ".tmp" + std::to_string(getpid()) + ext;
    std::string cmd = "ffmpeg -y -hide_banner -loglevel error -nostdin " + ffmpeg_args + " '" + tmp + "'";
    if (RunCommand(cmd) != 0 || !FileExists(tmp)) {
        unlink(tmp.c_str());
        throw std::runtime_error("fixture generation failed: " + cmd);
    }
    rename(tmp.c_str(), path.c_str());
    return path;
}

TempDir::TempDir() {
    char tmpl[] = "/tmp/camctl-test-XXXXXX";
    char* p = mkdtemp(tmpl);
    if (!p) throw std::runtime_error("mkdtemp failed");
    path_ = p;
}

TempDir::~TempDir() {
    std::string cmd = "chmod -R u+rwx '" + path_ + "' 2>/dev/null; rm -rf '" + path_ + "'";
    RunCommand(cmd);
}

int FreeLoopbackPort() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) return -1;
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    int port = -1;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0) {
        socklen_t len = sizeof addr;
        if (getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) == 0) port = ntohs(addr.sin_port);
    }
    close(fd);
    return port;
}

int RunCommand(const std::string& cmd, std::string* out) {
    FILE* f = popen(cmd.c_str(), "r");
    if (!f) return -1;
    std::string text;
    char buf[4096];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) text.append(buf, n);
    int status = pclose(f);
    if (out) *out = text;
    if (status == -1) return -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string Ffprobe(const std::string& args, const std::string& file) {
    std::string out;
    if (RunCommand("ffprobe -v error " + args + " '" + file + "'", &out) != 0) return "";
    return out;
}

bool FileExists(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0;
}

long long FileSize(const std::string& path) {
    struct stat st {};
    if (stat(path.c_str(), &st) != 0) return -1;
    return st.st_size;
}

std::vector<unsigned char> ReadFileBytes(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<unsigned char>(std::istreambuf_iterator<char>(in), {});
}

static void ListInto(const std::string& dir, std::vector<std::string>& out) {
    DIR* d = opendir(dir.c_str());
    if (!d) return;
    while (dirent* e = readdir(d)) {
        std::string name = e->d_name;
        if (name == "." || name == "..") continue;
        std::string full = dir + "/" + name;
        struct stat st {};
        if (stat(full.c_str(), &st) != 0) continue;
        if (S_ISDIR(st.st_mode))
            ListInto(full, out);
        else if (S_ISREG(st.st_mode))
            out.push_back(full);
    }
    closedir(d);
}

std::vector<std::string> ListFiles(const std::string& dir) {
    std::vector<std::string> out;
    ListInto(dir, out);
    std::sort(out.begin(), out.end());
    return out;
}

static int CountEntries(const char* dir) {
    DIR* d = opendir(dir);
    if (!d) return -1;
    int n = 0;
    while (dirent* e = readdir(d))
        if (e->d_name[0] != '.') ++n;
    closedir(d);
    return n;
}

int CountOpenFds() { return CountEntries("/proc/self/fd") - 1; }  // minus the DIR itself
int CountThreads() { return CountEntries("/proc/self/task"); }

bool WaitUntil(const std::function<bool()>& pred, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

}  // namespace camctl_test
