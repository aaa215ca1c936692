// Catches: streams from foreign encoders and servers (slices, parameter sets out of band, B-frames, H.265, MJPEG, AAC, G.711, G.726, audio first, UDP, loss, authentication) that lose pictures or audio against what the server reports sending, hang on close, or record files ffprobe cannot read.
// Each row is a GStreamer pipeline behind GStreamer's RTSP server, played through a camera of the manager.
// With CAMCTL_INTEROP_TABLE set, each row appends its figures to that file (scripts/interop.sh).
#include <gtest/gtest.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <mutex>
#include <string>
#include <vector>

#include "camctl.h"
#include "support/cli_support.h"
#include "support/engine_support.h"
#include "support/fixtures.h"
#include "support/rtsp_server.h"

using camctl_test::RtspServer;

namespace {

constexpr int kPictures = 150;  // 6 s at 25/s

struct Row {
    const char* name;
    std::string video;       // encoder ! payloader, after the counted source
    std::string audio;       // encoder ! payloader, after the counted audio source ("": none)
    int codec;               // GetMainVideoCodec
    const char* tag;         // the recording's video codec tag
    int keyInterval = 25;                   // pictures
    int rate = 0, channels = 1;             // audio: samples/s and channels
    bool audioFirst = false, udpOnly = false;  // audioFirst: the audio payloader is pay0
    double loss = 0;                        // share of encoded pictures dropped at the server
    int pictures = kPictures;
    RtspServer::Auth auth = RtspServer::Auth::kNone;
};

// Pictures and samples per channel (the RTP clock span plus one packet's share) that the server says pay<index> sent.
void SentBy(const std::string& log, int index, long long* pictures, long long* samples) {
    const size_t at = log.find("sent pay" + std::to_string(index) + " ");
    long long packets = 0, stamps = 0, span = 0;
    if (at != std::string::npos && std::sscanf(log.c_str() + at, "sent pay%*d packets=%lld stamps=%lld span=%lld", &packets, &stamps, &span) == 3)
        *pictures = stamps, *samples = packets > 1 ? span * packets / (packets - 1) : 0;
}

void PrintTo(const Row& row, std::ostream* os) { *os << row.name; }

std::string X264(const std::string& opts, const std::string& pay = "config-interval=-1") {
    return "x264enc tune=zerolatency speed-preset=ultrafast key-int-max=25 " + opts + " ! rtph264pay pt=96 " + pay;
}
std::string X265(const std::string& opts, const std::string& pay) {
    return "x265enc tune=zerolatency speed-preset=ultrafast key-int-max=25 " + opts + " ! rtph265pay pt=96 " + pay;
}
Row WithAudio(const char* name, const std::string& audio, int rate, int channels = 1) {
    Row r{name, X264("threads=1"), audio, 0, "H264"};
    r.rate = rate, r.channels = channels;
    return r;
}
template <class Change>
Row With(Row r, Change change) {
    change(r);
    return r;
}
std::string G726(int kbit) { return "avenc_g726 bitrate=" + std::to_string(kbit * 1000) + " ! rtpg726pay pt=97 max-ptime=40000000"; }

std::vector<Row> Rows() {
    const std::string aac = "audioconvert ! avenc_aac ! rtpmp4gpay pt=97", mulaw = "mulawenc ! rtppcmupay";
    const Row h264{"", X264("threads=1"), "", 0, "H264"};
    return {
        With(h264, [](Row& r) { r.name = "H.264 one slice, SPS/PPS in-band"; }),
        {"H.264 2 slices", X264("threads=1 option-string=slices=2"), "", 0, "H264"},
        {"H.264 4 slices", X264("threads=1 option-string=slices=4"), "", 0, "H264"},
        {"H.264 2 sliced threads, default x264", X264(""), "", 0, "H264"},
        {"H.264 SPS/PPS only in the SDP", X264("threads=1", "config-interval=0"), "", 0, "H264"},
        {"H.264 SEI on every key frame", X264("threads=1 option-string=nal-hrd=vbr vbv-buf-capacity=1000 bitrate=500"), "", 0, "H264"},
        {"H.264 no AUD", X264("threads=1 aud=false"), "", 0, "H264"},
        {"H.264 High, 2 B-frames",
         "x264enc speed-preset=ultrafast key-int-max=25 bframes=2 b-adapt=false ! video/x-h264,profile=high ! "
         "rtph264pay pt=96 config-interval=-1", "", 0, "H264"},
        With(h264, [](Row& r) { r.name = "H.264 key frame every 4 s", r.video = X264("threads=1 key-int-max=100"), r.keyInterval = 100, r.pictures = 225; }),
        {"H.265 one slice", X265("", "config-interval=0"), "", 3, "HEVC"},
        {"H.265 4 slices", X265("option-string=slices=4", "config-interval=-1"), "", 3, "HEVC"},
        {"H.265 VPS/SPS/PPS in-band", X265("", "config-interval=-1"), "", 3, "HEVC"},
        {"MJPEG quality 30", "jpegenc quality=30 ! rtpjpegpay pt=26", "", 2, "MJPG"},
        {"MJPEG quality 90", "jpegenc quality=90 ! rtpjpegpay pt=26", "", 2, "MJPG"},
        WithAudio("AAC 16 kHz mono", aac, 16000),
        WithAudio("AAC 48 kHz stereo", aac, 48000, 2),
        WithAudio("G.711 mu-law", mulaw, 8000),
        WithAudio("G.711 A-law", "alawenc ! rtppcmapay", 8000),
        WithAudio("G.726 16 kbit/s", G726(16), 8000),
        WithAudio("G.726 24 kbit/s", G726(24), 8000),
        WithAudio("G.726 32 kbit/s", G726(32), 8000),
        WithAudio("G.726 40 kbit/s", G726(40), 8000),
        With(WithAudio("audio listed first (G.711)", mulaw, 8000), [](Row& r) { r.audioFirst = true; }),
        With(WithAudio("UDP only", mulaw, 8000), [](Row& r) { r.udpOnly = true; }),
        With(WithAudio("1 % of pictures lost", mulaw, 8000), [](Row& r) { r.video = X264("threads=1 ! identity drop-probability=0.01"), r.loss = 0.01; }),
        With(WithAudio("5 % of pictures lost", mulaw, 8000), [](Row& r) { r.video = X264("threads=1 ! identity drop-probability=0.05"), r.loss = 0.05; }),
        With(h264, [](Row& r) { r.name = "basic authentication", r.auth = RtspServer::Auth::kBasic; }),
        With(h264, [](Row& r) { r.name = "digest authentication", r.auth = RtspServer::Auth::kDigest; }),
    };
}

// What the host's callbacks saw.
struct Host {
    std::mutex mu;
    int pictures = 0, width = 0, height = 0, rate = 0;
    long long samples = 0;
    std::vector<long long> pictureAudio;  // audio samples seen when each picture came: stream time
    static int OnVideo(void*, void* user, unsigned char*, int w, int h) {
        auto* self = static_cast<Host*>(user);
        std::lock_guard<std::mutex> lock(self->mu);
        ++self->pictures, self->width = w, self->height = h, self->pictureAudio.push_back(self->samples);
        return 0;
    }
    static int OnAudio(void*, void* user, unsigned short*, int count, int rate) {
        auto* self = static_cast<Host*>(user);
        std::lock_guard<std::mutex> lock(self->mu);
        return self->samples += count, self->rate = rate, 0;
    }
    int Pictures() {
        std::lock_guard<std::mutex> lock(mu);
        return pictures;
    }
};

class InteropTest : public ::testing::TestWithParam<Row> {};

TEST_P(InteropTest, PlaysThroughACamera) {
    if (!RtspServer::Available()) GTEST_SKIP() << "GStreamer RTSP server (python3-gi) not installed";
    const Row& row = GetParam();
    std::string launch = "( " + RtspServer::CountedVideo(row.pictures) + " ! " + row.video + " name=pay" + (row.audioFirst ? "1" : "0");
    if (!row.audio.empty())
        launch += " " + RtspServer::CountedAudio(row.pictures, row.rate, row.channels) + " ! " + row.audio + " name=pay" + (row.audioFirst ? "0" : "1");
    RtspServer server({{"/cam", launch + " )", row.auth, "viewer", "s3cret"}}, 0, row.udpOnly);
    ASSERT_TRUE(server.ok()) << server.Log();

    camctl_test::TempDir dir;
    Host host;
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    CIpCamera* cam = mgr->AddIpCamera(7, "interop", "127.0.0.1");
    ASSERT_NE(cam, nullptr);
    cam->SetSaveDir(dir.path().c_str(), nullptr);
    cam->SetVideoBufCallBack(&Host::OnVideo, &host);
    cam->SetAudioBufCallBack(&Host::OnAudio, &host);
    const std::string url = server.Url("/cam", row.auth == RtspServer::Auth::kNone ? "" : "viewer:s3cret");
    ASSERT_EQ(cam->OpenMainStreamVideo(url.c_str()), 0) << server.Log();
    EXPECT_EQ(cam->GetMainVideoCodec(), row.codec);
    cam->SetDecodeEnable(true, true);
    ASSERT_TRUE(camctl_test::PictureLog::WaitUntil([&] { return host.Pictures() > 0; }, 20000)) << server.Log();
    cam->StartSaveAvi(1);
    const int streamSeconds = row.pictures / 25;
    EXPECT_TRUE(camctl_test::PictureLog::WaitUntil([&] { return cam->IsMainVideoFinish(); }, (streamSeconds + 20) * 1000))
        << "the stream never ended";
    cam->StopSaveAvi(1);
    auto closing = std::async(std::launch::async, [&] { return mgr->DelIpCamera(7); });
    std::future_status closed = std::future_status::timeout;
    const long long closeMs = camctl_test::TimeMs([&] { closed = closing.wait_for(std::chrono::seconds(5)); });
    ASSERT_EQ(closed, std::future_status::ready) << "close hangs";

    // Pictures: the first group may pass before decoding is switched on.
    long long sentPictures = 0, sentSamples = 0, unused = 0;
    const std::string log = server.Log();
    SentBy(log, row.audioFirst ? 1 : 0, &sentPictures, &unused);
    if (row.rate) SentBy(log, row.audioFirst ? 0 : 1, &unused, &sentSamples);
    ASSERT_GT(sentPictures, 0) << log;
    const long long expected = sentPictures - row.keyInterval;
    const double pictureShare = 100.0 * host.pictures / sentPictures;
    EXPECT_EQ(std::make_pair(host.width, host.height), std::make_pair(320, 240));
    // Lost pictures cost the rest of their group, never more than the next two groups, in stream time (audio samples).
    long long longest = 0;
    for (size_t i = 1; i < host.pictureAudio.size(); ++i) longest = std::max(longest, host.pictureAudio[i] - host.pictureAudio[i - 1]);
    EXPECT_GE(host.pictures, row.loss ? expected / 4 : expected * 9 / 10) << sentPictures << " sent";
    EXPECT_LE(row.loss ? longest : 0, 2.5 * row.keyInterval / 25 * row.rate) << "stall in samples";
    double audioShare = 0;
    if (row.rate) {
        ASSERT_GT(sentSamples, 0) << log;
        audioShare = 100.0 * host.samples / double(sentSamples * row.channels);
        EXPECT_EQ(host.rate, row.rate);
        EXPECT_TRUE(audioShare >= 90 && audioShare <= 102) << audioShare;
    }

    // The recording: one file whose pictures all decode.
    const std::vector<std::string> avis = camctl_test::ListFiles(dir.path());
    ASSERT_EQ(avis.size(), 1u);
    EXPECT_TRUE(camctl_test::IsFinishedRecording(avis[0], 1)) << avis[0];
    const std::string probe = camctl_test::Ffprobe(
        "-select_streams v -count_frames -count_packets -show_entries stream=codec_tag_string,nb_read_frames,nb_read_packets -of csv=p=0", avis[0]);
    int packets = 0, frames = 0;
    char tag[16] = {};
    const bool parsed = std::sscanf(probe.c_str(), "%15[^,],%d,%d", tag, &frames, &packets) == 3;
    EXPECT_TRUE(parsed) << probe;
    EXPECT_STREQ(tag, row.tag);
    EXPECT_EQ(frames, packets) << "a packet per picture";
    const long long recordable = sentPictures - 2 * row.keyInterval;  // it starts at a key frame
    std::string errors;  // a key picture recorded in pieces decodes to half-concealed pictures
    camctl_test::RunCommand("ffmpeg -v error -i '" + avis[0] + "' -map 0:v -f null - 2>&1", &errors);
    EXPECT_GE(packets, row.loss ? 0 : recordable * 9 / 10);
    EXPECT_EQ(row.loss ? "" : errors, "");
    const bool recordingOk = parsed && std::string(tag) == row.tag && frames == packets && packets > 0 && (row.loss > 0 || errors.empty());

    FILE* table = std::getenv("CAMCTL_INTEROP_TABLE") ? std::fopen(std::getenv("CAMCTL_INTEROP_TABLE"), "a") : nullptr;
    if (table) {
        std::fprintf(table, "| %s | %.0f | %s | %s (%d pictures) | %lld ms |\n", row.name, pictureShare,
                     row.rate ? std::to_string(int(audioShare + 0.5)).c_str() : "-", recordingOk ? "yes" : "NO", packets, closeMs);
        std::fclose(table);
    }
}

INSTANTIATE_TEST_SUITE_P(Rows, InteropTest, ::testing::ValuesIn(Rows()), [](const auto& row) {
    std::string n;
    for (char c : std::string(row.param.name)) n += std::isalnum(static_cast<unsigned char>(c)) ? c : '_';
    return n;
});

}  // namespace
