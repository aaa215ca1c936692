// A camera of the library's camera manager, opened on one source, with the
// counters the subcommands show (pictures, size, audio, first-picture time).
#pragma once

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "cli.h"

class CIpCamera;

namespace camctl_cli {

struct LiveOptions {
    std::string name = "cam";  // camera name: part of the file names
    bool yuv = false;          // pictures as planar YUV 4:2:0 instead of BGR24
    int smooth = 0;            // smooth-stream mode (paced by a 2 ms timer here)
    std::string save_root;     // recordings and snapshots go below it; empty: not set
    std::string sub_url;       // sub stream, decoded instead of the main one
};

// The motion-map file of 'record --motion' and 'motion': 24 lines of 32
// cells, '0' off ("-": all cells on), in the library's column-major layout.
std::vector<unsigned char> ReadMotionMap(const std::string& path);

class LiveCamera {
public:
    // Called on the decoding thread for every picture, after the counters.
    using PictureHook = void (*)(void* user, unsigned char* picture, int width, int height);

    LiveCamera(const Source& source, LiveOptions options);
    ~LiveCamera();  // closes the streams and deletes the camera
    LiveCamera(const LiveCamera&) = delete;
    LiveCamera& operator=(const LiveCamera&) = delete;

    void SetPictureHook(PictureHook hook, void* user);
    // Opens the main (and sub) stream and switches decoding on; a source
    // failure with the reason when it cannot be opened.
    void Open();
    // Waits for the first picture; a stream failure when none comes in
    // kFirstPictureTimeoutSeconds. False when interrupted first.
    bool WaitFirstPicture();

    CIpCamera* camera() const { return camera_; }
    const Source& source() const { return source_; }
    double OpenSeconds() const { return open_seconds_; }
    // From the start of the open to the first picture; < 0 before it.
    double FirstPictureSeconds() const;
    long long Pictures() const { return pictures_.load(); }
    int Width() const { return width_.load(); }
    int Height() const { return height_.load(); }
    int AudioRate() const { return audio_rate_.load(); }
    long long AudioBlocks() const { return audio_blocks_.load(); }
    // The decoded stream stopped (end of a file, lost connection).
    bool StreamEnded() const;
    // "H.264 640x360"
    std::string Describe() const;
    // Files the camera wrote below the save root that end in suffix.
    std::vector<std::string> SavedFiles(const std::string& suffix) const;

private:
    static int OnVideo(void* camera, void* user, unsigned char* buf, int width, int height);
    static int OnAudio(void* camera, void* user, unsigned short* buf, int count, int rate);
    void PaceLoop();

    Source source_;
    LiveOptions options_;
    CIpCamera* camera_ = nullptr;  // owned by the camera manager
    int id_ = -1;
    PictureHook hook_ = nullptr;
    void* hook_user_ = nullptr;
    Clock::time_point open_start_;
    double open_seconds_ = 0;
    std::atomic<long long> first_picture_ns_{-1};  // since open_start_
    std::atomic<long long> pictures_{0};
    std::atomic<int> width_{0};
    std::atomic<int> height_{0};
    std::atomic<int> audio_rate_{0};
    std::atomic<long long> audio_blocks_{0};
    std::atomic<bool> pacing_{false};
    std::thread pacer_;
};

}  // namespace camctl_cli
