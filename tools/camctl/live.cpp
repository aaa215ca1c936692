// LiveCamera: one camera of the manager, opened on a source.
#include "live.h"

#include "camctl.h"

namespace camctl_cli {

LiveCamera::LiveCamera(const Source& source, LiveOptions options)
    : source_(source), options_(std::move(options)) {
    CIpCameraManager* manager = CIpCameraManager::GetInstance();
    if (!manager) Fail(kExitFailure, "the camera manager could not be created");
    const std::string ip = source_.kind == SourceKind::File ? "file" : source_.host;
    camera_ = manager->AddIpCamera(-1, options_.name.c_str(), ip.c_str());
    if (!camera_) Fail(kExitFailure, "the camera manager refused a new camera");
    id_ = camera_->GetId();
}

LiveCamera::~LiveCamera() {
    pacing_ = false;
    if (pacer_.joinable()) pacer_.join();
    // Deleting the camera stops its recordings (files get their final
    // names) and closes its streams, so no callback runs after this.
    if (CIpCameraManager* manager = CIpCameraManager::GetInstance()) manager->DelIpCamera(id_);
}

void LiveCamera::SetPictureHook(PictureHook hook, void* user) {
    hook_ = hook;
    hook_user_ = user;
}

void LiveCamera::Open() {
    camera_->SetYuvDisplay(options_.yuv ? 1 : 0);
    camera_->SetSmoothStream(options_.smooth);
    if (!options_.save_root.empty()) camera_->SetSaveDir(options_.save_root.c_str(), nullptr);
    camera_->SetVideoBufCallBack(&LiveCamera::OnVideo, this);
    camera_->SetAudioBufCallBack(&LiveCamera::OnAudio, this);

    open_start_ = Clock::now();
    const int rc = camera_->OpenMainStreamVideo(source_.url.c_str());
    open_seconds_ = SecondsSince(open_start_);
    if (rc != 0) Fail(kExitSource, source_.display + ": cannot open: " + DescribeOpenFailure(camera_, true, source_));

    if (!options_.sub_url.empty()) {
        Source sub = ParseSource(options_.sub_url);
        camera_->OpenSubStreamVideo(sub.url.c_str());
        // Not even tried: the camera takes the main stream's URL (in any
        // letter case) for no sub stream.
        const bool tried = camera_->GetOpenFailure(false, nullptr, 0) != CAMCTL_OPEN_OK;
        if (!camera_->HasSubStream())
            Fail(kExitSource, sub.display + ": cannot open the sub stream: " +
                                  (tried ? DescribeOpenFailure(camera_, false, sub)
                                         : std::string("it is the main stream's URL")));
        camera_->SetDecodeEnable(false, true);
    } else {
        camera_->SetDecodeEnable(true, true);
    }
    if (options_.smooth != 0) {
        pacing_ = true;
        pacer_ = std::thread(&LiveCamera::PaceLoop, this);
    }
}

void LiveCamera::PaceLoop() {
    // The host's display timer of smooth-stream mode: one call every 2 ms.
    auto next = Clock::now();
    while (pacing_.load()) {
        camera_->SendVideoCond();
        next += std::chrono::milliseconds(2);
        std::this_thread::sleep_until(next);
    }
}

bool LiveCamera::WaitFirstPicture() {
    const auto start = Clock::now();
    while (pictures_.load() == 0) {
        if (Interrupted()) return false;
        if (StreamEnded())
            Fail(kExitStream, source_.display + ": the stream ended before the first picture");
        if (SecondsSince(start) > kFirstPictureTimeoutSeconds)
            Fail(kExitStream, source_.display + ": opened, but no picture came within " +
                                  std::to_string(kFirstPictureTimeoutSeconds) +
                                  " s (is the camera sending video?)");
        SleepFor(10);
    }
    return true;
}

double LiveCamera::FirstPictureSeconds() const {
    long long ns = first_picture_ns_.load();
    return ns < 0 ? -1.0 : ns / 1e9;
}

bool LiveCamera::StreamEnded() const {
    if (camera_->IsMainVideoFinish()) return true;
    return !options_.sub_url.empty() && camera_->HasSubStream() && camera_->IsSubVideoFinish();
}

std::string LiveCamera::Describe() const {
    char text[96];
    snprintf(text, sizeof text, "%s %dx%d", CodecName(camera_->GetMainVideoCodec()), Width(), Height());
    return text;
}

std::vector<std::string> LiveCamera::SavedFiles(const std::string& suffix) const {
    return FilesBelow(camera_->GetSaveDir(), suffix);
}

int LiveCamera::OnVideo(void*, void* user, unsigned char* buf, int width, int height) {
    auto* self = static_cast<LiveCamera*>(user);
    self->width_ = width;
    self->height_ = height;
    if (self->first_picture_ns_.load() < 0) {
        self->first_picture_ns_ =
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - self->open_start_).count();
    }
    self->pictures_.fetch_add(1);
    if (self->hook_) self->hook_(self->hook_user_, buf, width, height);
    return 0;
}

int LiveCamera::OnAudio(void*, void* user, unsigned short*, int, int rate) {
    auto* self = static_cast<LiveCamera*>(user);
    self->audio_rate_ = rate;
    self->audio_blocks_.fetch_add(1);
    return 0;
}

}  // namespace camctl_cli
