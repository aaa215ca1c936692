#include "support/engine_support.h"

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <thread>

namespace camctl_test {

void PictureLog::OnPicture(const unsigned char* buf, int width, int height, bool yuv) {
    std::function<void()> hook;
    {
        std::lock_guard<std::mutex> lock(mu_);
        hook = hook_;
    }
    if (hook) hook();
    std::lock_guard<std::mutex> lock(mu_);
    ++count_;
    last_.width = width;
    last_.height = height;
    if (keep_) {
        size_t size = yuv ? size_t(width) * height * 3 / 2 : size_t(width) * height * 3;
        last_.bytes.assign(buf, buf + size);
    }
    if (sizes_.empty() || sizes_.back() != std::make_pair(width, height)) sizes_.emplace_back(width, height);
    cv_.notify_all();
}

void PictureLog::KeepBytes(bool keep) {
    std::lock_guard<std::mutex> lock(mu_);
    keep_ = keep;
}

void PictureLog::SetHook(std::function<void()> hook) {
    std::lock_guard<std::mutex> lock(mu_);
    hook_ = std::move(hook);
}

int PictureLog::Count() const {
    std::lock_guard<std::mutex> lock(mu_);
    return count_;
}

PictureLog::Picture PictureLog::Last() const {
    std::lock_guard<std::mutex> lock(mu_);
    return last_;
}

std::vector<std::pair<int, int>> PictureLog::Sizes() const {
    std::lock_guard<std::mutex> lock(mu_);
    return sizes_;
}

bool PictureLog::WaitForCount(int n, int timeout_ms) const {
    std::unique_lock<std::mutex> lock(mu_);
    return cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] { return count_ >= n; });
}

bool PictureLog::WaitUntil(const std::function<bool()>& pred, int timeout_ms) {
    auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeout_ms);
    while (!pred()) {
        if (std::chrono::steady_clock::now() >= end) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

StderrCapture::StderrCapture() {
    char tmpl[] = "/tmp/camctl-stderr-XXXXXX";
    int fd = mkstemp(tmpl);
    if (fd < 0) return;
    path_ = tmpl;
    fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
}

StderrCapture::~StderrCapture() {
    Stop();
    if (!path_.empty()) {
        std::string text = Text();
        fwrite(text.data(), 1, text.size(), stderr);
        unlink(path_.c_str());
    }
}

std::string StderrCapture::Text() const {
    fflush(stderr);
    std::ifstream in(path_);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

void StderrCapture::Stop() {
    if (saved_ < 0) return;
    fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    saved_ = -1;
}

}  // namespace camctl_test
