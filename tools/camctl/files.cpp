// Output folders and the files the library writes into them.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "cli.h"

namespace fs = std::filesystem;

namespace camctl_cli {

void PrepareOutputDir(const std::string& dir) {
    if (dir.empty()) Fail(kExitUsage, "empty output folder");
    std::error_code ec;
    fs::create_directories(dir, ec);
    if (ec) Fail(kExitOutput, dir + ": cannot create the output folder: " + ec.message());
    if (!fs::is_directory(dir, ec)) Fail(kExitOutput, dir + ": not a folder");
    // access() says yes to root for any folder; making a file tells the truth.
    std::string probe = dir + "/.camctl-write-test-" + std::to_string(getpid());
    int fd = open(probe.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    if (fd < 0) {
        int err = errno;
        Fail(kExitOutput, dir + ": cannot write into the output folder: " + strerror(err) +
                              " (choose another folder with --out)");
    }
    close(fd);
    unlink(probe.c_str());
}

std::vector<std::string> FilesBelow(const std::string& dir, const std::string& suffix) {
    std::vector<std::string> files;
    std::error_code ec;
    fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec), end;
    for (; !ec && it != end; it.increment(ec)) {
        if (!it->is_regular_file(ec)) continue;
        std::string p = it->path().string();
        if (p.size() >= suffix.size() && p.compare(p.size() - suffix.size(), suffix.size(), suffix) == 0)
            files.push_back(p);
    }
    std::sort(files.begin(), files.end());
    return files;
}

std::vector<std::string> NewFiles(const std::vector<std::string>& before,
                                  const std::vector<std::string>& after) {
    std::vector<std::string> fresh;
    for (const std::string& f : after)
        if (!std::binary_search(before.begin(), before.end(), f)) fresh.push_back(f);
    return fresh;
}

long long FileSize(const std::string& path) {
    struct stat st{};
    if (stat(path.c_str(), &st) != 0) return -1;
    return static_cast<long long>(st.st_size);
}

std::string LogDir() {
    if (const char* env = getenv("CAMCTL_LOG_DIR"); env && *env) return env;
    char buf[4096] = {};
    ssize_t n = readlink("/proc/self/exe", buf, sizeof buf - 1);
    if (n <= 0) return ".";
    std::string exe(buf, static_cast<size_t>(n));
    size_t slash = exe.rfind('/');
    if (slash == std::string::npos) return ".";
    return slash == 0 ? "/" : exe.substr(0, slash);
}

bool LogDirWritable() {
    struct stat st{};
    const std::string dir = LogDir();
    return stat(dir.c_str(), &st) == 0 && S_ISDIR(st.st_mode) && access(dir.c_str(), W_OK | X_OK) == 0;
}

}  // namespace camctl_cli
