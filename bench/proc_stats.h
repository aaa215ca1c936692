// What the benchmarks read about processes: environment settings, resident
// memory, CPU time and /proc entry counts, of this process (pid 0) or another.
#pragma once

#include <dirent.h>
#include <sys/types.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

namespace bench {

inline int EnvInt(const char* name, int fallback) {
    const char* v = getenv(name);
    return v && *v ? atoi(v) : fallback;
}

inline std::string ProcPath(pid_t pid, const char* what) {
    return (pid ? "/proc/" + std::to_string(pid) : std::string("/proc/self")) + "/" + what;
}

// Resident memory in MB (VmRSS).
inline double RssMb(pid_t pid = 0) {
    std::ifstream status(ProcPath(pid, "status"));
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atof(line.c_str() + 6) / 1024.0;
    return 0;
}

// utime + stime in seconds.
inline double ProcCpuSeconds(pid_t pid = 0) {
    std::ifstream f(ProcPath(pid, "stat"));
    std::string stat;
    std::getline(f, stat);
    const size_t close = stat.rfind(')');
    if (close == std::string::npos) return 0;
    std::istringstream rest(stat.substr(close + 2));
    std::string field;
    unsigned long long ut = 0, st = 0;
    for (int i = 3; i <= 15 && rest >> field; ++i) {
        if (i == 14) ut = std::stoull(field);
        if (i == 15) st = std::stoull(field);
    }
    return double(ut + st) / double(sysconf(_SC_CLK_TCK));
}

// Entries of a folder (threads in .../task, descriptors in .../fd); -1 when
// it cannot be read.
inline int CountEntries(const std::string& dir) {
    DIR* d = opendir(dir.c_str());
    if (!d) return -1;
    int n = 0;
    while (dirent* e = readdir(d)) n += e->d_name[0] != '.';
    closedir(d);
    return n;
}

}  // namespace bench
