// The module's Player: one CRecordPlayer per open, its speed as a factor.
#include <pybind11/stl.h>

#include <cmath>
#include <filesystem>

#include "core.h"

namespace camctl_py {
namespace {

namespace fs = std::filesystem;

// ---------------------------------------------------------------------------
// Player

struct SpeedLevel {
    int level;
    double factor;
};
constexpr SpeedLevel kSpeeds[] = {{1, 1.0 / 16}, {2, 1.0 / 8}, {3, 1.0 / 4}, {4, 1.0 / 2}, {0, 1.0},
                                  {101, 2.0},    {102, 4.0},   {103, 8.0},   {104, 16.0}};

const SpeedLevel& NearestSpeed(double factor) {
    if (!(factor > 0) || !std::isfinite(factor)) throw py::value_error("speed must be a positive factor");
    const SpeedLevel* best = &kSpeeds[0];
    for (const SpeedLevel& s : kSpeeds)
        if (std::fabs(std::log2(factor / s.factor)) < std::fabs(std::log2(factor / best->factor))) best = &s;
    return *best;
}

class PlayerCore : public Core {
public:
    PlayerCore(std::string path, std::string save_dir) : path_(std::move(path)), save_dir_(std::move(save_dir)) {}
    ~PlayerCore() override { CloseNow(generation_.load()); }

    void OpenPlayer() { Open(path_); }
    template <typename F>
    auto Play(F&& f) {
        return Call(path_ + ": the player", [&] { return f(player_); });
    }

    bool Ended() override {
        std::unique_lock<std::mutex> lock(op_, std::try_to_lock);
        return lock && (!open_.load() || player_.IsPlayFinish());
    }

    std::string path_, save_dir_;
    double speed_ = 1.0;
    bool paused_ = false;

private:
    OpenFailure OpenStreams() override {
        player_.SetSaveDir(save_dir_.c_str());
        player_.SetVideoBufCallBack(&PlayerCore::OnVideo, this);
        player_.SetAudioBufCallBack(&PlayerCore::OnAudio, this);
        player_.SetSpeedLevel(NearestSpeed(speed_).level);
        if (player_.PlayFile(path_.c_str(), nullptr, 0, 0) == 0) return OpenFailure{};
        std::error_code ec;
        return fs::exists(path_, ec) ? Failure(CAMCTL_OPEN_NO_VIDEO, "not a playable recording")
                                     : Failure(CAMCTL_OPEN_NOT_FOUND, "no such file");
    }
    void CloseStreams() override { player_.Stop(); }

    static int OnVideo(CRecordPlayer*, void* user, unsigned char* buf, int32_t width, int32_t height) {
        static_cast<PlayerCore*>(user)->sink.Deliver(buf, width, height, false, true);
        return 0;
    }
    static int OnAudio(CRecordPlayer*, void* user, unsigned short* buf, int32_t count, int32_t rate) {
        static_cast<PlayerCore*>(user)->sink.DeliverAudio(buf, count, rate);
        return 0;
    }

    CRecordPlayer player_;
};

using PlayerHandle = Handle<PlayerCore>;

}  // namespace

void BindPlayer(py::module_& m) {
    auto player = py::class_<PlayerHandle>(m, "Player", CollectableCallbacks<PlayerHandle>(), R"(Plays a recording back at a chosen speed.

    with camctl.Player("door+0_20240101-120000_1_60.avi") as p:
        p.play(2.0)                   # 2x; factors map to 1/16 .. 16
        for pic in p.pictures():      # ends with the file
            ...)");
    player
        .def(py::init([](std::string path, std::string save_dir) {
                 return PlayerHandle{std::make_shared<PlayerCore>(std::move(path), std::move(save_dir))};
             }),
             py::arg("path"), py::arg("save_dir") = ".", "save_dir: snapshots go to save_dir/VMS/PLAY-IMAGE-MANUAL/.")
        .def(
            "play",
            [](PlayerHandle& h, double speed) {
                const SpeedLevel& level = NearestSpeed(speed);
                h.core->speed_ = level.factor;
                if (!h.core->IsOpen()) {
                    h.core->OpenPlayer();
                } else {
                    const bool resume = h.core->paused_;
                    h.core->Play([&](CRecordPlayer& p) { return p.SetSpeedLevel(level.level), resume && p.Resume(); });
                }
                h.core->paused_ = false;
                return level.factor;
            },
            py::arg("speed") = 1.0,
            "Starts or resumes playing at the speed level nearest to the factor (1/16, 1/8, 1/4,\n"
            "1/2, 1, 2, 4, 8, 16) and returns that level's factor. Raises OpenError.")
        .def(
            "pause",
            [](PlayerHandle& h) {
                h.core->Play([](CRecordPlayer& p) { return p.Pause(); });
                h.core->paused_ = true;
            },
            "Holds the picture; play() resumes.")
        .def(
            "seek", [](PlayerHandle& h, double seconds) {
                h.core->Play([seconds](CRecordPlayer& p) { return p.SeekTime(static_cast<int>(seconds)); });
            },
            py::arg("seconds"), "Jumps to seconds, rounded down to a multiple of 5 (at least 5).")
        .def(
            "snapshot", [](PlayerHandle& h) { h.core->Play([](CRecordPlayer& p) { return p.SaveImage(); }); },
            "Saves the next picture as a BMP file below save_dir/VMS/PLAY-IMAGE-MANUAL/.")
        .def("close", [](PlayerHandle& h) { h.core->Close(); }, "Stops playing; safe from any thread and callback.")
        .def("__enter__", [](PlayerHandle& h) -> PlayerHandle& { return h; }, py::return_value_policy::reference)
        .def("__exit__", [](PlayerHandle& h, py::args) { h.core->Close(); })
        .def_property_readonly("closed", [](PlayerHandle& h) { return !h.core->IsOpen(); })
        .def_property_readonly("speed", [](PlayerHandle& h) { return h.core->speed_; })
        .def_property_readonly(
            "position", [](PlayerHandle& h) { return h.core->Play([](CRecordPlayer& p) { return p.GetCurrTime(); }); },
            "Seconds into the file of the last picture.")
        .def_property_readonly(
            "duration", [](PlayerHandle& h) { return h.core->Play([](CRecordPlayer& p) { return p.GetDuration(); }); }, "Length in whole seconds.")
        .def_property_readonly(
            "finished", [](PlayerHandle& h) { return h.core->IsOpen() && h.core->Play([](CRecordPlayer& p) { return p.IsPlayFinish(); }); },
            "The file has been played to its end.");
    AddPictureMethods<PlayerHandle>(player);
}

}  // namespace camctl_py
