// Soak run (not CI; scripts/soak.sh drives it): N cameras of the manager on
// the camera simulator, each recording in fixed-length segments with motion
// detection and motion recordings on, for a long time. Every ten seconds the
// process's resident memory, descriptors and threads and every camera's
// picture count go to a CSV file; at the end the cameras are stopped and a
// summary is written. scripts/soak.sh checks the recordings afterwards.
//
//   camctl_soak --out DIR [--cameras 8] [--minutes 30] [--segment 60]
//               [--clip FILE]
//
// The clip (default: a 60 s 720p H.264 loop, 25 fps, a key frame every 25
// pictures, still for 20 s, moving for 20 s, still again) is read once and
// served to every camera by the in-process simulator.
#include <dirent.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camsim/server.h"
#include "support/fixtures.h"
#include "proc_stats.h"

namespace {

using bench::CountEntries;
using Clock = std::chrono::steady_clock;

long RssKb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line))
        if (line.rfind("VmRSS:", 0) == 0) return std::atol(line.c_str() + 6);
    return 0;
}
int CountPicture(void*, void* user, unsigned char*, int, int) {
    static_cast<std::atomic<long>*>(user)->fetch_add(1, std::memory_order_relaxed);
    return 0;
}

std::string DefaultClip() {
    return camctl_test::Fixture(
        "soak_1280x720_still_moving_still_60s.mp4",
        "-f lavfi -i smptebars=size=1280x720:rate=25:duration=20 "
        "-f lavfi -i testsrc2=size=1280x720:rate=25:duration=20 "
        "-f lavfi -i smptebars=size=1280x720:rate=25:duration=20 "
        "-filter_complex concat=n=3:v=1:a=0 -c:v libx264 -preset veryfast -bf 0 -g 25 -pix_fmt yuv420p");
}

}  // namespace

int main(int argc, char** argv) {
    std::string out, clip;
    int cameras = 8, minutes = 30, segment = 60;
    for (int i = 1; i + 1 < argc; i += 2) {
        const std::string k = argv[i], v = argv[i + 1];
        if (k == "--out") out = v;
        else if (k == "--cameras") cameras = std::atoi(v.c_str());
        else if (k == "--minutes") minutes = std::atoi(v.c_str());
        else if (k == "--segment") segment = std::atoi(v.c_str());
        else if (k == "--clip") clip = v;
        else {
            std::fprintf(stderr, "unknown option %s\n", k.c_str());
            return 2;
        }
    }
    if (out.empty() || cameras < 1 || minutes < 1 || segment < 2) {
        std::fprintf(stderr, "usage: %s --out DIR [--cameras N] [--minutes M] [--segment S] [--clip FILE]\n", argv[0]);
        return 2;
    }
    if (clip.empty()) clip = DefaultClip();

    camsim::Options so;
    so.file = clip;
    camsim::Server sim(so);
    std::string error;
    if (!sim.Start(&error)) {
        std::fprintf(stderr, "simulator: %s\n", error.c_str());
        return 1;
    }
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    std::vector<CIpCamera*> cams;
    std::vector<std::unique_ptr<std::atomic<long>>> pictures;
    const std::string recordings = out + "/recordings";
    for (int i = 0; i < cameras; ++i) {
        const std::string name = "soak" + std::to_string(i);
        CIpCamera* cam = mgr->AddIpCamera(100 + i, name.c_str(), "127.0.0.1");
        pictures.push_back(std::make_unique<std::atomic<long>>(0));
        if (!cam || cam->SetSaveDir(recordings.c_str(), nullptr) != 0 ||
            cam->OpenMainStreamVideo(sim.Url().c_str()) != 0) {
            std::fprintf(stderr, "camera %d did not open\n", i);
            return 1;
        }
        cam->SetVideoBufCallBack(&CountPicture, pictures.back().get());
        cam->SetDecodeEnable(true, true);
        cam->m_nAutoRecordSec = segment;
        cam->SetMotionSaveType(2, 1, 10);  // a snapshot and 10 s of recording per event
        cam->NotifyMotionSave(1);
        if (cam->StartSaveAvi(1) != 0) {
            std::fprintf(stderr, "camera %d did not start recording\n", i);
            return 1;
        }
        cams.push_back(cam);
    }
    const auto t0 = Clock::now();
    const time_t wallStart = time(nullptr);

    std::ofstream csv(out + "/samples.csv");
    csv << "seconds,rss_kb,fds,threads";
    for (int i = 0; i < cameras; ++i) csv << ",pictures" << i;
    csv << ",motion_events\n";
    const auto end = t0 + std::chrono::minutes(minutes);
    auto next = t0;
    while (Clock::now() < end) {
        const double s = std::chrono::duration<double>(Clock::now() - t0).count();
        csv << long(s) << "," << RssKb() << "," << CountEntries("/proc/self/fd") << ","
            << CountEntries("/proc/self/task");
        long motion = 0;
        for (int i = 0; i < cameras; ++i) {
            csv << "," << pictures[i]->load();
            motion += cams[i]->GetMotionCount();
        }
        csv << "," << motion << "\n" << std::flush;
        next += std::chrono::seconds(10);
        std::this_thread::sleep_until(std::min(next, end));
    }
    const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
    for (CIpCamera* cam : cams) cam->StopSaveAvi(7);
    const time_t wallStop = time(nullptr);
    long total = 0;
    for (auto& p : pictures) total += p->load();
    mgr->DelAllCamera();
    sim.Stop();

    std::ofstream summary(out + "/summary.txt");
    summary << "cameras=" << cameras << "\nminutes=" << minutes << "\nsegment=" << segment
            << "\nseconds=" << seconds << "\nrecord_start=" << wallStart << "\nrecord_stop=" << wallStop
            << "\npictures=" << total << "\nfps_per_camera=" << total / seconds / cameras << "\nclip=" << clip
            << "\n";
    std::printf("soak: %d cameras, %.0f s, %.2f fps per camera\n", cameras, seconds, total / seconds / cameras);
    return 0;
}
