// Test support: real media fixtures made with the ffmpeg CLI, loopback
// ports, child processes and small file helpers.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace camctl_test {

// Path of a generated fixture. The file is made once, on first use, by
//   ffmpeg -y -hide_banner -loglevel error <ffmpeg_args> <tmpfile>
// and renamed into place, so tests running in parallel never see half a file.
// Example: Fixture("h264_640x480.mp4",
//   "-f lavfi -i testsrc2=size=640x480:rate=25 -t 4 -c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p")
std::string Fixture(const std::string& name, const std::string& ffmpeg_args);

// Folder for generated fixtures (created on demand).
std::string FixtureDir();

// A fresh, empty temporary directory, removed by the destructor.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

// A TCP port on 127.0.0.1 that was free a moment ago.
int FreeLoopbackPort();

// Runs a shell command, returns its exit status (-1 if it could not run)
// and, when out is given, what it printed on stdout.
int RunCommand(const std::string& cmd, std::string* out = nullptr);

// ffprobe -v error <args> <file>, stdout returned (empty on failure).
std::string Ffprobe(const std::string& args, const std::string& file);

bool FileExists(const std::string& path);
long long FileSize(const std::string& path);
std::vector<unsigned char> ReadFileBytes(const std::string& path);
// Regular files under dir (recursively), sorted.
std::vector<std::string> ListFiles(const std::string& dir);

// Polls pred every 10 ms until it holds; false once deadline has passed.
// The deadline only bounds a failure: keep it generous.
bool WaitUntil(const std::function<bool()>& pred,
               std::chrono::milliseconds deadline = std::chrono::seconds(30));

// Open descriptors and threads of this process (from /proc/self).
int CountOpenFds();
int CountThreads();

}  // namespace camctl_test
