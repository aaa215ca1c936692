#include "delivery.h"

#include <algorithm>
#include <cstring>

namespace camctl_py {

namespace {

thread_local int t_callbackDepth = 0;

struct CallbackScope {
    CallbackScope() { ++t_callbackDepth; }
    ~CallbackScope() { --t_callbackDepth; }
    CallbackScope(const CallbackScope&) = delete;
    CallbackScope& operator=(const CallbackScope&) = delete;
};

double EpochSeconds() {
    return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count();
}

}  // namespace

bool InCallback() { return t_callbackDepth > 0; }

std::vector<uint8_t> BufferPool::Take(size_t bytes) {
    std::vector<uint8_t> buffer;
    {
        std::lock_guard<std::mutex> lock(lock_);
        auto it = std::find_if(free_.begin(), free_.end(),
                               [bytes](const std::vector<uint8_t>& b) { return b.size() == bytes; });
        if (it != free_.end()) {
            buffer = std::move(*it);
            free_.erase(it);
        }
    }
    if (buffer.size() != bytes) buffer.resize(bytes);
    return buffer;
}

void BufferPool::Give(std::vector<uint8_t> buffer) {
    std::lock_guard<std::mutex> lock(lock_);
    if (free_.size() >= kKept) free_.erase(free_.begin());
    free_.push_back(std::move(buffer));
}

std::atomic<long> Frame::live{0};

Frame::Frame(std::shared_ptr<BufferPool> p, size_t bytes) : pool(std::move(p)), data(pool->Take(bytes)) {
    live.fetch_add(1);
}

Frame::~Frame() {
    pool->Give(std::move(data));
    live.fetch_sub(1);
}

Sink::Sink() = default;

Sink::~Sink() {
    if (!Py_IsInitialized()) {
        // The interpreter is gone: its objects went with it.
        on_picture.release();
        on_audio.release();
        on_motion.release();
        return;
    }
    py::gil_scoped_acquire gil;
    on_picture = py::object();
    on_audio = py::object();
    on_motion = py::object();
}

void Sink::SetPictureCallback(py::object fn) {
    on_picture = fn.is_none() ? py::object() : std::move(fn);
    has_picture_cb_ = static_cast<bool>(on_picture);
}

void Sink::SetAudioCallback(py::object fn) {
    on_audio = fn.is_none() ? py::object() : std::move(fn);
    has_audio_cb_ = static_cast<bool>(on_audio);
}

void Sink::Start() {
    std::lock_guard<std::mutex> lock(lock_);
    latest_.reset();
    running_ = true;
}

void Sink::Stop() {
    std::shared_ptr<Frame> last;
    {
        std::lock_guard<std::mutex> lock(lock_);
        running_ = false;
        last = std::move(latest_);  // a closed stream offers no picture
    }
    cv_.notify_all();
}

std::shared_ptr<Frame> Sink::Deliver(const unsigned char* buf, int width, int height, bool planar,
                                     bool bottom_up) {
    if (!running_.load() || !buf || width <= 0 || height <= 0) return nullptr;
    const size_t w = static_cast<size_t>(width), h = static_cast<size_t>(height);
    const size_t bytes = planar ? w * h + 2 * (((w + 1) / 2) * ((h + 1) / 2)) : w * h * 3;
    auto f = std::make_shared<Frame>(pool_, bytes);
    f->width = width;
    f->height = height;
    f->planar = planar;
    f->time = EpochSeconds();
    if (planar || !bottom_up) {
        std::memcpy(f->data.data(), buf, bytes);
    } else {
        const size_t row = w * 3;
        for (size_t y = 0; y < h; ++y) std::memcpy(f->data.data() + y * row, buf + (h - 1 - y) * row, row);
    }
    {
        std::lock_guard<std::mutex> lock(lock_);
        f->seq = ++seq_;
        latest_ = f;
    }
    cv_.notify_all();
    if (has_picture_cb_.load()) {
        CallPython(on_picture, [&f] { return py::cast(f); });
    }
    return f;
}

void Sink::DeliverAudio(const unsigned short* buf, int count, int rate) {
    audio_rate = rate;
    if (!has_audio_cb_.load() || !buf || count <= 0) return;
    py::gil_scoped_acquire gil;
    if (!running_.load() || !on_audio) return;
    py::object fn = on_audio;  // stays alive even if the callback replaces itself
    py::array_t<int16_t> samples(count);
    std::memcpy(samples.mutable_data(), buf, static_cast<size_t>(count) * sizeof(int16_t));
    CallbackScope scope;
    try {
        fn(samples, rate);
    } catch (py::error_already_set& e) {
        e.discard_as_unraisable("camctl audio callback");
    }
}

void Sink::CallPython(const py::object& fn, const std::function<py::object()>& make_arg) {
    py::gil_scoped_acquire gil;
    if (!running_.load() || !fn) return;
    py::object keep = fn;
    CallbackScope scope;
    try {
        keep(make_arg());
    } catch (py::error_already_set& e) {
        e.discard_as_unraisable("camctl callback");
    }
}

void Sink::CallPython(const py::object& fn, const py::object& arg) {
    CallPython(fn, [&arg] { return arg; });
}

std::shared_ptr<Frame> Sink::Wait(uint64_t after, double timeout, const std::function<bool()>& ended) {
    using Clock = std::chrono::steady_clock;
    const auto start = Clock::now();
    const auto deadline = timeout < 0 ? Clock::time_point::max()
                                      : start + std::chrono::duration_cast<Clock::duration>(
                                                    std::chrono::duration<double>(timeout));
    // Wakes up now and then to let Python see Ctrl-C.
    constexpr auto kSlice = std::chrono::milliseconds(100);
    for (;;) {
        std::shared_ptr<Frame> got;
        bool over = false;
        {
            py::gil_scoped_release nogil;
            std::unique_lock<std::mutex> lock(lock_);
            const auto until = std::min(deadline, Clock::now() + kSlice);
            cv_.wait_until(lock, until, [&] { return (latest_ && latest_->seq > after) || !running_; });
            if (latest_ && latest_->seq > after) got = latest_;
            over = !got && (!running_ || Clock::now() >= deadline);
            lock.unlock();
            if (!got && !over && ended && ended()) over = true;
        }
        if (got || over) return got;
        if (PyErr_CheckSignals() != 0) throw py::error_already_set();
    }
}

py::array FrameImage(const Frame& f, py::handle owner) {
    const auto w = static_cast<py::ssize_t>(f.width), h = static_cast<py::ssize_t>(f.height);
    using Dims = std::vector<py::ssize_t>;
    py::array a = f.planar  // the I420 buffer as one (height * 3 / 2) x width image
                      ? py::array(py::dtype::of<uint8_t>(), Dims{static_cast<py::ssize_t>(f.data.size()) / w, w},
                                  Dims{w, 1}, f.data.data(), owner)
                      : py::array(py::dtype::of<uint8_t>(), Dims{h, w, 3}, Dims{w * 3, 3, 1}, f.data.data(), owner);
    // Shared by every consumer of the picture: copy() it to draw on it.
    py::detail::array_proxy(a.ptr())->flags &= ~py::detail::npy_api::NPY_ARRAY_WRITEABLE_;
    return a;
}

}  // namespace camctl_py
