// The picture window: a CWindowDC of its own, painted by a CVideoDisplayer.
// The window is 4 x 3 pixels larger than the picture, because the displayer
// leaves the area's right and bottom edge free; the picture is shown 1:1.
#include <cstdlib>

#include "camctl.h"
#include "cli.h"

namespace camctl_cli {

ShowMode ParseShowMode(const Args& args) {
    if (args.Has("--window") && args.Has("--headless"))
        Fail(kExitUsage, args.command + ": --window and --headless exclude each other");
    if (args.Has("--window")) return ShowMode::Window;
    if (args.Has("--headless")) return ShowMode::Headless;
    return ShowMode::Auto;
}

PictureWindow::PictureWindow(ShowMode mode, std::string title, bool yuv)
    : mode_(mode), title_(std::move(title)), yuv_(yuv) {}

PictureWindow::~PictureWindow() { Close(); }

bool PictureWindow::Open(int width, int height) {
    if (mode_ == ShowMode::Headless) return false;
    const char* display = getenv("DISPLAY");
    if (mode_ == ShowMode::Auto && (!display || !*display)) {
        mode_ = ShowMode::Headless;
        return false;
    }
    std::unique_ptr<CWindowDC> dc = CWindowDC::Create(width + 4, height + 3, title_.c_str());
    if (!dc || !dc->IsOpen()) {
        const std::string name = display && *display ? display : "(DISPLAY not set)";
        if (mode_ == ShowMode::Window)
            Fail(kExitUsage, "cannot open a window on display " + name + "; use --headless");
        Note("cannot open a window on display %s; running headless", name.c_str());
        mode_ = ShowMode::Headless;
        return false;
    }
    auto displayer = std::make_unique<CVideoDisplayer>();
    std::lock_guard<std::mutex> lock(lock_);
    displayer->Start(dc.get(), dc->GetWidth(), dc->GetHeight(), width, height, yuv_ ? 1 : 0);
    shown_width_ = width;
    shown_height_ = height;
    dc_ = std::move(dc);
    displayer_ = std::move(displayer);
    is_window_ = true;
    return true;
}

void PictureWindow::Show(unsigned char* picture, int width, int height) {
    std::lock_guard<std::mutex> lock(lock_);
    if (!dc_ || !displayer_) return;
    if (width != shown_width_ || height != shown_height_) {
        // A new picture size (sub stream, camera reconfigured): stretch it
        // into the window as it is.
        displayer_->Start(dc_.get(), dc_->GetWidth(), dc_->GetHeight(), width, height, yuv_ ? 1 : 0);
        shown_width_ = width;
        shown_height_ = height;
    }
    displayer_->DisplayVideoBuffer(picture, width, height);
}

void PictureWindow::Refresh() {
    std::lock_guard<std::mutex> lock(lock_);
    if (dc_) dc_->Repaint();
}

void PictureWindow::Close() {
    std::lock_guard<std::mutex> lock(lock_);
    if (displayer_) displayer_->Stop();
    displayer_.reset();
    dc_.reset();
    is_window_ = false;
}

}  // namespace camctl_cli
