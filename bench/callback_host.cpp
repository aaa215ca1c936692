// The C++ side of bench/python_bench.py: a host receiving a camera's
// pictures in its own callback, as the Python module's users do in Python.
//
//   camctl_callback_host URL SECONDS callback|latest
// callback: the callback counts the pictures;
// latest:   the callback copies each picture into a one-picture slot and a
//           host thread takes the newest one (what latest() does).
// Prints "pictures N cpu S wall W age_ms A age_max_ms M", measured from the
// first picture.
#include <camctl.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

double CpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return u.ru_utime.tv_sec + u.ru_stime.tv_sec + (u.ru_utime.tv_usec + u.ru_stime.tv_usec) / 1e6;
}

struct Host {
    bool latest = false;
    std::atomic<long> pictures{0};
    std::mutex lock;
    std::condition_variable cv;
    std::vector<unsigned char> slot;
    Clock::time_point slotTime;
    long slotSeq = 0;
};

int OnPicture(void*, void* user, unsigned char* buf, int width, int height) {
    auto* h = static_cast<Host*>(user);
    const long n = h->pictures.fetch_add(1) + 1;
    if (h->latest) {
        {
            std::lock_guard<std::mutex> l(h->lock);
            h->slot.assign(buf, buf + static_cast<size_t>(width) * height * 3);
            h->slotTime = Clock::now();
            h->slotSeq = n;
        }
        h->cv.notify_all();
    }
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) return fprintf(stderr, "usage: camctl_callback_host URL SECONDS callback|latest\n"), 2;
    Host host;
    host.latest = std::string(argv[3]) == "latest";
    const double seconds = atof(argv[2]);
    CIpCamera* cam = CIpCameraManager::GetInstance()->AddIpCamera(-1, "bench", "127.0.0.1");
    cam->SetVideoBufCallBack(OnPicture, &host);
    if (cam->OpenMainStreamVideo(argv[1]) != 0) return fprintf(stderr, "cannot open %s\n", argv[1]), 1;
    cam->SetDecodeEnable(true, true);
    while (host.pictures.load() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(5));

    const long n0 = host.pictures.load();
    const double cpu0 = CpuSeconds();
    const auto start = Clock::now();
    const auto end = start + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    double ageSum = 0, ageMax = 0;
    long taken = 0, lastSeq = 0;
    std::vector<unsigned char> mine;
    if (host.latest) {
        while (Clock::now() < end) {
            std::unique_lock<std::mutex> l(host.lock);
            if (!host.cv.wait_until(l, end, [&] { return host.slotSeq > lastSeq; })) break;
            mine = host.slot;  // the picture the host works on
            lastSeq = host.slotSeq;
            const double age = std::chrono::duration<double, std::milli>(Clock::now() - host.slotTime).count();
            ageSum += age;
            ageMax = std::max(ageMax, age);
            ++taken;
        }
    } else {
        std::this_thread::sleep_until(end);
    }
    const double wall = std::chrono::duration<double>(Clock::now() - start).count();
    printf("pictures %ld cpu %.3f wall %.3f age_ms %.2f age_max_ms %.2f\n", host.pictures.load() - n0,
           CpuSeconds() - cpu0, wall, taken ? ageSum / taken : 0.0, ageMax);
    delete CIpCameraManager::GetInstance();
    return 0;
}
