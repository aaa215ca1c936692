// A camera, a picture callback, a recording and a snapshot.
#include <camctl.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

// Runs on the camera's decoding thread: BGR24 pictures, rows bottom-up.
static int OnPicture(void*, void* user, unsigned char*, int, int) {
    ++*static_cast<std::atomic<int>*>(user);
    return 0;
}

int main(int argc, char** argv) {
    const char* url = argc > 1 ? argv[1] : "rtsp://192.168.1.10/stream1";
    const int seconds = argc > 2 ? atoi(argv[2]) : 10;
    CIpCamera* cam = CIpCameraManager::GetInstance()->AddIpCamera(-1, "door", "192.168.1.10");
    std::atomic<int> pictures{0};
    cam->SetVideoBufCallBack(OnPicture, &pictures);
    cam->SetSaveDir(".", nullptr);  // files go below ./VMS/door+0/
    if (cam->OpenMainStreamVideo(url) != 0) {  // say why; the URL may hold a password
        char detail[256];
        int reason = cam->GetOpenFailure(true, detail, sizeof detail);
        return fprintf(stderr, "cannot open: %s (%s)\n", CamctlOpenFailureName(reason), detail), 1;
    }
    cam->SetDecodeEnable(true, true);  // decode the main stream
    cam->StartSaveAvi(1);              // record: MS_Record/<date>/door+0_<time>_1.avi
    cam->SaveImage(1, 1);              // one JPEG from the next picture: IMAGE-MANUAL/<date>/
    std::this_thread::sleep_for(std::chrono::seconds(seconds));
    cam->StopSaveAvi(1);               // renamed ..._1_<seconds>.avi, index written
    printf("%d pictures\n", pictures.load());
    delete CIpCameraManager::GetInstance();  // stops the timer, deletes the camera
    return 0;
}
