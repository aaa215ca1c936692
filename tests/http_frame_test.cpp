// Private HTTP frame protocol: the frame cutter on crafted buffers, the
// frame reader over an in-memory connection, and the reader over a real
// HTTP connection to the camera simulator.
#include "engine/http_frame.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "camsim/frame_format.h"
#include "camsim/server.h"
#include "fuzz/memory_avio.h"
#include "support/fixtures.h"

namespace {

using Bytes = std::vector<uint8_t>;

camsim::FrameHeader VideoHeader(uint64_t ts, bool key = true) {
    camsim::FrameHeader h;
    h.stream_type = camsim::kStreamVideo;
    h.codec = camsim::kWireH264;
    h.frame_kind = key ? 0 : 1;
    h.width = 320;
    h.height = 240;
    h.audio_codec = camsim::kWireMulaw;
    h.sample_rate = 8000;
    h.timestamp = ts;
    return h;
}

Bytes Frame(const camsim::FrameHeader& h, const Bytes& payload) {
    return camsim::EncodeFrame(h, payload.data(), payload.size());
}

Bytes Payload(size_t size, uint8_t seed) {
    Bytes p(size);
    for (size_t i = 0; i < size; ++i) p[i] = static_cast<uint8_t>(seed + i * 7);
    for (uint8_t& b : p)
        if (b == 0x33) b = 0x34;  // no accidental markers
    return p;
}

void Append(Bytes* to, const Bytes& more) { to->insert(to->end(), more.begin(), more.end()); }

const Bytes kMarker = {0x33, 0x22, 0x11, 0x00};

// Cuts every frame out of `stream`, handing the bytes over in pieces of
// `chunk` bytes, the way the reader does: parse, and on "read more" append
// the next piece and resume from where the last scan stopped.
std::vector<HttpFrameState> CutAll(const Bytes& stream, size_t chunk) {
    std::vector<HttpFrameState> frames;
    Bytes buf(stream.size() + 16);
    uint32_t len = 0, pos = 0;
    size_t fed = 0;
    HttpFrameState state;
    for (int guard = 0; guard < 1000000; ++guard) {
        const bool empty = len == pos;
        int ret = http_read_frame(buf.data() + pos, len - pos, &state);
        pos = state.allreadsize;
        if (ret == HTTP_FRAME_OK && state.start) {
            frames.push_back(state);
            len -= state.allreadsize;
            memmove(buf.data(), buf.data() + state.allreadsize, len);
            pos = 0;
            state.Reset();
            continue;
        }
        EXPECT_NE(ret, HTTP_DATA_ERROR);
        if (!empty) {
            EXPECT_NE(ret, HTTP_FRAME_FAILED);
        }
        if (fed == stream.size()) break;
        size_t n = std::min(chunk, stream.size() - fed);
        memcpy(buf.data() + len, stream.data() + fed, n);
        len += static_cast<uint32_t>(n);
        fed += n;
    }
    return frames;
}

// Captures os_print output while alive.
class LogCapture {
public:
    LogCapture() { testing::internal::CaptureStderr(); }
    std::string Take() { return testing::internal::GetCapturedStderr(); }
};

// ---------------------------------------------------------------------------
// Marker search and header decoding.

TEST(HttpFrameHeader_Parse, MarkerSearchCoversEveryPositionUpToLenMinus4) {
    Bytes b = {1, 2, 3, 0x33, 0x22, 0x11, 0x00};
    EXPECT_EQ(FindFrameMarker(b.data(), 7), b.data() + 3);
    EXPECT_EQ(FindFrameMarker(b.data(), 6), nullptr);  // marker cut short
    EXPECT_EQ(FindFrameMarker(b.data() + 3, 4), b.data() + 3);
    EXPECT_EQ(FindFrameMarker(b.data() + 3, 3), nullptr);
    EXPECT_EQ(FindFrameMarker(nullptr, 7), nullptr);
    Bytes near = {0x33, 0x22, 0x11, 0x01, 0x33, 0x33, 0x22, 0x11, 0x00};
    EXPECT_EQ(FindFrameMarker(near.data(), 9), near.data() + 5);
}

TEST(HttpFrameHeader_Parse, DecodesEveryFieldTheSimulatorWrites) {
    camsim::FrameHeader h;
    h.ver = 0x01020304;
    h.reserved[0] = 0x33;  // reserved bytes are carried, never interpreted
    h.stream_type = 2;
    h.size = 1234;
    h.codec = 3;
    h.frame_kind = 1;
    h.width = 2560;
    h.height = 1440;
    h.audio_codec = -1;
    h.sample_rate = 16000;
    h.timestamp = 0x123456789AULL;
    Bytes junk = {9, 9, 9};
    Bytes bytes = junk;
    Append(&bytes, Frame(h, Payload(1234, 1)));

    HttpFrameHeader out;
    ASSERT_EQ(ParseFrameHeader(bytes.data(), static_cast<uint32_t>(bytes.size()), &out), 0);
    EXPECT_EQ(out.marker, 0x00112233u);
    EXPECT_EQ(out.ver, 0x01020304u);
    EXPECT_EQ(out.reserved[0], 0x33);
    EXPECT_EQ(out.stream_type, 2u);
    EXPECT_EQ(out.size, 1234u);
    EXPECT_EQ(out.codec, 3u);
    EXPECT_EQ(out.frame_kind, 1u);
    EXPECT_EQ(out.width, 2560u);
    EXPECT_EQ(out.height, 1440u);
    EXPECT_EQ(out.audio_codec, -1);
    EXPECT_EQ(out.sample_rate, 16000u);
    EXPECT_EQ(out.timestamp, 0x123456789AULL);

    // A header whose 88 bytes are not all there, no marker, bad arguments.
    EXPECT_EQ(ParseFrameHeader(bytes.data(), 3 + 87, &out), -1);
    EXPECT_EQ(ParseFrameHeader(junk.data(), 3, &out), -1);
    EXPECT_EQ(ParseFrameHeader(bytes.data(), 0, &out), -1);
    EXPECT_EQ(ParseFrameHeader(bytes.data(), 200, nullptr), -1);
}

// ---------------------------------------------------------------------------
// Cutting frames out of a buffer.

TEST(HttpReadFrame_Cut, FrameEndsOnlyAtTheMarkerExactlyBehindItsPayload) {
    Bytes payload = Payload(300, 5);
    // Marker patterns inside the payload, one straddling the header end.
    std::copy(kMarker.begin(), kMarker.end(), payload.begin());
    std::copy(kMarker.begin(), kMarker.end(), payload.begin() + 150);
    std::copy(kMarker.begin(), kMarker.end(), payload.end() - 4);
    Bytes stream = Frame(VideoHeader(40), payload);
    Append(&stream, Frame(VideoHeader(80, false), Payload(10, 1)));

    LogCapture log;
    HttpFrameState state;
    ASSERT_EQ(http_read_frame(stream.data(), static_cast<uint32_t>(stream.size()), &state), HTTP_FRAME_OK);
    std::string text = log.Take();
    EXPECT_EQ(state.payload, payload);
    EXPECT_EQ(state.allreadsize, 88u + 300u);
    EXPECT_EQ(state.integrity, 0);
    EXPECT_EQ(state.header.timestamp, 40u);
    EXPECT_NE(text.find("[enter http_find_right_endbuffer]sizeof:88, header.size:300,allreadsize:88,"), std::string::npos)
        << text;
    EXPECT_NE(text.find("[http_find_right_endbuffer return HTTP_FRAME_OK]sizeof:88, header.size:300,allreadsize:388,"
                        "ntegrity:0,"),
              std::string::npos)
        << text;
}

TEST(HttpReadFrame_Cut, IncompleteFrameAsksForMoreAndResumesThreeBytesBack) {
    Bytes stream = Frame(VideoHeader(0), Payload(100, 3));
    Append(&stream, Frame(VideoHeader(40), Payload(20, 4)));
    HttpFrameState state;
    // Cut inside the next frame's marker: 2 of its 4 bytes present.
    const uint32_t first = 88 + 100 + 2;
    EXPECT_EQ(http_read_frame(stream.data(), first, &state), HTTP_DATA_NO_ENOUGH);
    EXPECT_EQ(state.integrity, HTTP_INTEGRITY_PARTIAL);
    EXPECT_EQ(state.allreadsize, first - 3);
    EXPECT_EQ(state.start, stream.data());
    // The scan resumes 3 bytes before the old end, so the split marker is found.
    const uint32_t total = first + 10;
    ASSERT_EQ(http_read_frame(stream.data() + state.allreadsize, total - state.allreadsize, &state), HTTP_FRAME_OK);
    EXPECT_EQ(state.allreadsize, 188u);
    EXPECT_EQ(state.payload, Payload(100, 3));
}

TEST(HttpReadFrame_Cut, NoMarkerInAFreshStateIsAnEmptyFrame) {
    Bytes junk = Payload(500, 9);
    HttpFrameState state;
    EXPECT_EQ(http_read_frame(junk.data(), 500, &state), HTTP_FRAME_OK);
    EXPECT_EQ(state.start, nullptr);
    EXPECT_TRUE(state.payload.empty());
    EXPECT_EQ(state.allreadsize, 0u);
    EXPECT_EQ(state.header.stream_type, 0u);
    // Bad arguments.
    EXPECT_EQ(http_read_frame(nullptr, 5, &state), HTTP_FRAME_FAILED);
    EXPECT_EQ(http_read_frame(junk.data(), 0, &state), HTTP_FRAME_FAILED);
    EXPECT_EQ(http_read_frame(junk.data(), 5, nullptr), HTTP_FRAME_FAILED);
}

TEST(HttpReadFrame_Cut, JunkBeforeTheFirstMarkerIsSkipped) {
    Bytes stream = Payload(37, 2);
    Bytes payload = Payload(64, 8);
    Append(&stream, Frame(VideoHeader(7), payload));
    Append(&stream, Frame(VideoHeader(47), Payload(8, 1)));
    HttpFrameState state;
    ASSERT_EQ(http_read_frame(stream.data(), static_cast<uint32_t>(stream.size()), &state), HTTP_FRAME_OK);
    EXPECT_EQ(state.start, stream.data() + 37);
    EXPECT_EQ(state.payload, payload);
    // What is consumed is the frame's length, not the junk.
    EXPECT_EQ(state.allreadsize, 88u + 64u);
}

TEST(HttpReadFrame_Cut, SizeThatMissesTheNextMarkerFails) {
    camsim::FrameHeader h = VideoHeader(0);
    Bytes stream(88 + 50);
    camsim::EncodeHeader(h, stream.data());
    stream[52] = 10;  // announces 10 bytes, the next marker is 50 bytes on
    for (size_t i = 88; i < stream.size(); ++i) stream[i] = 0x55;
    Append(&stream, Frame(VideoHeader(40), Payload(8, 1)));
    Append(&stream, Frame(VideoHeader(80), Payload(8, 1)));
    LogCapture log;
    HttpFrameState state;
    EXPECT_EQ(http_read_frame(stream.data(), static_cast<uint32_t>(stream.size()), &state), HTTP_FRAME_FAILED);
    EXPECT_NE(log.Take().find("[http_find_right_endbuffer return HTTP_FRAME_FAILED]"), std::string::npos);
}

TEST(HttpReadFrame_Cut, OversizeHeaderIsADataError) {
    camsim::FrameHeader h = VideoHeader(0);
    Bytes stream(88);
    h.size = HTTP_FRAME_MAX_PAYLOAD + 1;
    camsim::EncodeHeader(h, stream.data());
    Append(&stream, Frame(VideoHeader(40), Payload(8, 1)));
    LogCapture log;
    HttpFrameState state;
    EXPECT_EQ(http_read_frame(stream.data(), static_cast<uint32_t>(stream.size()), &state), HTTP_DATA_ERROR);
    EXPECT_NE(log.Take().find("ret =http_read_frame= HTTP_DATA_ERRORret1 == HTTP_DATA_ERROR \n"), std::string::npos);
}

TEST(HttpReadFrame_Cut, HugeSizeCannotWrapRoundOnTheResumedPath) {
    // 0xFFFFFFB0 + 88 is 8 in 32 bits: a marker 8 bytes after the start
    // (in the reserved bytes) must not be taken for the end of a 4 GB frame.
    camsim::FrameHeader h = VideoHeader(0);
    Bytes stream(88);
    h.size = 0xFFFFFFB0u;
    std::copy(kMarker.begin(), kMarker.end(), h.reserved);
    camsim::EncodeHeader(h, stream.data());
    Bytes tail = Payload(40, 3);
    std::copy(kMarker.begin(), kMarker.end(), tail.begin() + 20);
    Append(&stream, tail);
    HttpFrameState state;
    // The first read ends before that marker, the resumed scan finds it.
    ASSERT_EQ(http_read_frame(stream.data(), 10, &state), HTTP_DATA_NO_ENOUGH);
    int ret = http_read_frame(stream.data() + state.allreadsize,
                              static_cast<uint32_t>(stream.size()) - state.allreadsize, &state);
    EXPECT_EQ(ret, HTTP_DATA_NO_ENOUGH);
    EXPECT_TRUE(state.payload.empty());
}

TEST(HttpReadFrame_Cut, EveryReadBoundaryGivesTheSameFrames) {
    // Frames of all kinds, payload markers included, cut at many chunk sizes.
    Bytes stream = Payload(11, 0);
    std::vector<Bytes> payloads;
    for (int i = 0; i < 12; ++i) {
        Bytes p = Payload(static_cast<size_t>(i * 97 % 700), static_cast<uint8_t>(i));
        if (i % 3 == 1 && p.size() > 10) std::copy(kMarker.begin(), kMarker.end(), p.begin() + p.size() / 2);
        camsim::FrameHeader h = VideoHeader(static_cast<uint64_t>(i) * 40, i % 4 == 0);
        h.stream_type = i % 5 == 2 ? camsim::kStreamAudio : camsim::kStreamVideo;
        Append(&stream, Frame(h, p));
        payloads.push_back(p);
    }
    Append(&stream, Frame(VideoHeader(9999), {}));  // closes the last frame

    testing::internal::CaptureStderr();
    for (size_t chunk : {1u, 2u, 3u, 4u, 5u, 7u, 13u, 88u, 89u, 500u, 2000u, 100000u}) {
        std::vector<HttpFrameState> frames = CutAll(stream, chunk);
        ASSERT_EQ(frames.size(), payloads.size()) << "chunk " << chunk;
        for (size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(frames[i].payload, payloads[i]) << "chunk " << chunk << " frame " << i;
            EXPECT_EQ(frames[i].header.timestamp, i * 40) << "chunk " << chunk;
        }
    }
    testing::internal::GetCapturedStderr();
}

// ---------------------------------------------------------------------------
// The frame reader over an in-memory connection.

class RegionListener final : public IFrameListener {
public:
    int DoVideoBuffer(unsigned char*, int, int) override { return 0; }
    int DoAudioBuffer(unsigned short*, int, int) override { return 0; }
    int UpdateMotionAlarmRegion(char* region) override {
        regions.emplace_back(region);
        return 0;
    }
    std::vector<std::string> regions;
};

// A media context as the engine sets it up for an "http://" source, fed
// from memory: the first `firstRead` bytes are already received.
class HttpReaderTest : public testing::Test {
protected:
    void Open(Bytes stream, size_t firstRead = HTTP_READ_CHUNK) {
        firstRead = std::min(firstRead, stream.size());
        ctx_->m_HttpFrame.Append(stream.data(), static_cast<uint32_t>(firstRead));
        stream.erase(stream.begin(), stream.begin() + static_cast<ptrdiff_t>(firstRead));
        io_ = std::make_unique<camctl_test::MemoryAvio>(std::move(stream), 1500);
        io_->AttachTo(ctx_.get());
    }
    void SetUp() override {
        ctx_.reset(FFMpegContextAlloc());
        ASSERT_TRUE(ctx_);
        ctx_->m_HttpFrame.Open();
        ctx_->m_bHttpSource = 1;
        ctx_->m_bRunning = 1;
        ctx_->m_nVideoCodecId = 27;
        ctx_->m_nVideoIndex = 0;
        ctx_->m_pOwner = static_cast<IFrameListener*>(&listener_);
    }
    void TearDown() override {
        if (ctx_) {
            camctl_test::MemoryAvio::Detach(ctx_.get());
        }
    }
    int ReadOne() { return http_read_one_frame(ctx_.get(), pkt_.get(), &audioChanged_, &newAudioCodec_); }

    struct CtxFree {
        void operator()(FFMpegContext* c) const { FFMpegContextFree(c); }
    };
    std::unique_ptr<FFMpegContext, CtxFree> ctx_;
    std::unique_ptr<camctl_test::MemoryAvio> io_;
    camctl::PacketPtr pkt_ = camctl::MakePacket();
    RegionListener listener_;
    int audioChanged_ = 0;
    int newAudioCodec_ = 0;
};

TEST_F(HttpReaderTest, DeliversFramesInOrderWithFlagsTimestampsAndStreams) {
    ctx_->m_nAudioIndex = 1;
    ctx_->m_nAudioCodecId = 0x10006;
    ctx_->m_AudioClock.SetSampleRate(8000);
    struct Expect { uint32_t type; bool key; uint64_t ts; Bytes payload; };
    std::vector<Expect> expect;
    Bytes stream = Payload(123, 77);  // junk before the first marker
    for (int i = 0; i < 30; ++i) {
        camsim::FrameHeader h = VideoHeader(1000 + static_cast<uint64_t>(i) * 20, i % 10 == 0);
        if (i % 3 == 2) h.stream_type = camsim::kStreamAudio;
        // Sizes around the 2000-byte read so that frames and markers fall
        // on read boundaries.
        Bytes p = Payload(200 + static_cast<size_t>((i * 613) % 2300), static_cast<uint8_t>(i));
        if (i == 4) std::copy(kMarker.begin(), kMarker.end(), p.begin() + 100);
        expect.push_back({h.stream_type, h.stream_type == camsim::kStreamAudio || i % 10 == 0, h.timestamp, p});
        Append(&stream, Frame(h, p));
    }
    Append(&stream, Frame(VideoHeader(5000), Payload(5, 0)));
    Open(stream);

    testing::internal::CaptureStderr();
    for (size_t i = 0; i < expect.size(); ++i) {
        ASSERT_EQ(ReadOne(), static_cast<int>(expect[i].payload.size())) << "frame " << i;
        EXPECT_EQ(Bytes(pkt_->data, pkt_->data + pkt_->size), expect[i].payload) << "frame " << i;
        EXPECT_EQ(pkt_->pts, static_cast<int64_t>(expect[i].ts));
        EXPECT_EQ(pkt_->dts, static_cast<int64_t>(expect[i].ts));
        EXPECT_EQ((pkt_->flags & AV_PKT_FLAG_KEY) != 0, expect[i].key) << "frame " << i;
        EXPECT_EQ(pkt_->stream_index, expect[i].type == camsim::kStreamAudio ? 1 : 0);
        EXPECT_EQ(ctx_->m_HttpFrame.Pos(), 0u);
        av_packet_unref(pkt_.get());
    }
    EXPECT_EQ(audioChanged_, 0);  // codec and rate never changed
    // The last frame has no successor: the end of the stream ends the reader.
    EXPECT_EQ(ReadOne(), -1);
    testing::internal::GetCapturedStderr();
}

TEST_F(HttpReaderTest, BufferWithoutMarkerGivesEmptyUnknownFrameAndReadsNothing) {
    Open(Payload(1000, 1), 1000);
    LogCapture log;
    EXPECT_EQ(ReadOne(), 0);
    EXPECT_NE(log.Take().find("unknow stream type:0"), std::string::npos);
    EXPECT_EQ(pkt_->size, 0);
    EXPECT_EQ(pkt_->stream_index, -1);
    EXPECT_EQ(io_->served(), 0u);
    EXPECT_EQ(ctx_->m_HttpFrame.Len(), 1000u);
}

TEST_F(HttpReaderTest, OversizeHeaderEndsTheConnectionAfterLogging) {
    camsim::FrameHeader h = VideoHeader(0);
    h.size = HTTP_FRAME_MAX_PAYLOAD + 5;
    Bytes stream(88);
    camsim::EncodeHeader(h, stream.data());
    Append(&stream, Frame(VideoHeader(40), Payload(10, 1)));
    Open(stream);
    LogCapture log;
    EXPECT_EQ(ReadOne(), -1);
    std::string text = log.Take();
    EXPECT_NE(text.find("ret =http_read_frame= HTTP_DATA_ERRORret1 == HTTP_DATA_ERROR \n"), std::string::npos);
    EXPECT_NE(text.find("ret == HTTP_DATA_ERRORret == HTTP_DATA_ERROR \n"), std::string::npos);
    EXPECT_EQ(pkt_->size, 0);
}

TEST_F(HttpReaderTest, VideoCodecChangeEndsTheReader) {
    camsim::FrameHeader mjpeg = VideoHeader(40);
    mjpeg.codec = 1;  // every number but 0 and 3 means MJPEG
    Bytes stream = Frame(VideoHeader(0), Payload(50, 1));
    Append(&stream, Frame(mjpeg, Payload(50, 2)));
    Append(&stream, Frame(VideoHeader(80), Payload(50, 3)));
    Open(stream);
    EXPECT_EQ(ReadOne(), 50);
    av_packet_unref(pkt_.get());
    LogCapture log;
    EXPECT_EQ(ReadOne(), -1);
    EXPECT_NE(log.Take().find("Video codec change:27 -> 7 !!"), std::string::npos);
}

TEST_F(HttpReaderTest, AudioHeaderRequestsDecoderChanges) {
    auto audio = [](int32_t codec, uint32_t rate, uint64_t ts) {
        camsim::FrameHeader h = VideoHeader(ts);
        h.stream_type = camsim::kStreamAudio;
        h.audio_codec = codec;
        h.sample_rate = rate;
        return Frame(h, Payload(32, 1));
    };
    // No audio when opened: codec 0 in the header means mu-law.
    Bytes stream = audio(0, 8000, 0);
    Append(&stream, audio(2, 8000, 20));   // same as what was asked for
    Append(&stream, audio(2, 16000, 40));  // rate change
    Append(&stream, audio(2, 16000, 50));  // nothing new, request still pending
    Append(&stream, audio(4, 16000, 60));  // codec change
    Append(&stream, audio(0, 8000, 80));   // below 1 with a codec set: ignored
    Append(&stream, audio(2, 8000, 100));
    Open(stream);
    LogCapture log;

    ASSERT_EQ(ReadOne(), 32);
    EXPECT_EQ(pkt_->stream_index, -1);  // the index before the request
    EXPECT_EQ(audioChanged_, 1);
    EXPECT_EQ(newAudioCodec_, 0x10006);
    EXPECT_EQ(ctx_->m_nAudioIndex, 1);
    EXPECT_EQ(ctx_->m_AudioClock.SampleRate(), 8000);
    // The reader reopens the decoder and clears the request.
    ctx_->m_nAudioCodecId = newAudioCodec_;
    audioChanged_ = 0;
    av_packet_unref(pkt_.get());

    ASSERT_EQ(ReadOne(), 32);
    EXPECT_EQ(pkt_->stream_index, 1);
    EXPECT_EQ(audioChanged_, 0);
    av_packet_unref(pkt_.get());

    ASSERT_EQ(ReadOne(), 32);
    EXPECT_EQ(audioChanged_, 1);
    EXPECT_EQ(newAudioCodec_, 0x10006);
    EXPECT_EQ(ctx_->m_AudioClock.SampleRate(), 16000);
    av_packet_unref(pkt_.get());

    // Not yet served: the next frame renews the request without a message.
    newAudioCodec_ = 0;
    ASSERT_EQ(ReadOne(), 32);
    EXPECT_EQ(audioChanged_, 1);
    EXPECT_EQ(newAudioCodec_, 0x10006);
    av_packet_unref(pkt_.get());

    ASSERT_EQ(ReadOne(), 32);
    EXPECT_EQ(audioChanged_, 1);
    EXPECT_EQ(newAudioCodec_, 0x1101C);
    ctx_->m_nAudioCodecId = newAudioCodec_;
    audioChanged_ = 0;
    av_packet_unref(pkt_.get());

    ASSERT_EQ(ReadOne(), 32);
    EXPECT_EQ(audioChanged_, 0);
    EXPECT_EQ(ctx_->m_AudioClock.SampleRate(), 16000);
    av_packet_unref(pkt_.get());

    std::string text = log.Take();
    EXPECT_NE(text.find("Audio codec change:0 , (0 -> 8000) !!"), std::string::npos) << text;
    EXPECT_NE(text.find("Audio codec change:2 , (8000 -> 16000) !!"), std::string::npos) << text;
    EXPECT_NE(text.find("Audio codec change:4 , (16000 -> 16000) !!"), std::string::npos) << text;
    size_t changes = 0;
    for (size_t at = text.find("Audio codec change"); at != std::string::npos; at = text.find("Audio codec change", at + 1))
        ++changes;
    EXPECT_EQ(changes, 3u);
}

TEST_F(HttpReaderTest, H265KeyFrameRenewsPictureSize) {
    ctx_->m_nVideoCodecId = 173;
    ctx_->m_nWidth = 100;
    ctx_->m_nHeight = 100;
    camsim::FrameHeader h = VideoHeader(0, false);
    h.codec = camsim::kWireHevc;
    h.width = 1920;
    h.height = 1080;
    Bytes stream = Frame(h, Payload(10, 1));
    h.frame_kind = 0;
    h.width = 1280;
    h.height = 720;
    Append(&stream, Frame(h, Payload(10, 1)));
    Append(&stream, Frame(h, Payload(10, 1)));
    Open(stream);
    ASSERT_EQ(ReadOne(), 10);
    EXPECT_EQ(ctx_->m_nWidth, 100);  // not a key frame
    av_packet_unref(pkt_.get());
    ASSERT_EQ(ReadOne(), 10);
    EXPECT_EQ(ctx_->m_nWidth, 1280);
    EXPECT_EQ(ctx_->m_nHeight, 720);
}

std::string ExpectedRegion(const std::array<uint32_t, 10>& mask) {
    std::string s;
    for (int b = 15; b >= 0; --b) s += (mask[0] >> b & 1) ? '1' : '0';
    for (int w = 1; w < 10; ++w)
        for (int b = 31; b >= 0; --b) s += (mask[w] >> b & 1) ? '1' : '0';
    return s.substr(0, 299);
}

TEST_F(HttpReaderTest, MotionRegionRecordReachesTheOwnerAsText) {
    std::array<uint32_t, 10> mask = {0xFFFF8001u, 0x80000000u, 1, 0, 0xFFFFFFFFu,
                                     0xA5A5A5A5u, 0, 0, 0, 0xFFFFFFE0u};
    camsim::FrameHeader h = VideoHeader(0);
    h.stream_type = camsim::kStreamMotion;
    Bytes good = camsim::MotionRecord(mask);
    Bytes badByte10 = good;
    badByte10[10] = 1;
    Bytes badLength = good;
    badLength.push_back(0);
    Bytes stream = Frame(h, good);
    Append(&stream, Frame(h, badByte10));
    Append(&stream, Frame(h, badLength));
    Append(&stream, Frame(VideoHeader(40), Payload(3, 1)));
    Open(stream);

    ASSERT_EQ(ReadOne(), static_cast<int>(good.size()));
    EXPECT_EQ(pkt_->stream_index, -1);
    ASSERT_EQ(listener_.regions.size(), 1u);
    const std::string& text = listener_.regions[0];
    EXPECT_EQ(text.size(), 299u);
    EXPECT_EQ(text, ExpectedRegion(mask));
    EXPECT_EQ(text.substr(0, 17), "10000000000000011");  // low 16 bits of word 0, then word 1
    EXPECT_EQ(text.substr(294), "11111");  // ninth further word, its last five bits cut
    av_packet_unref(pkt_.get());
    ASSERT_EQ(ReadOne(), static_cast<int>(badByte10.size()));
    av_packet_unref(pkt_.get());
    ASSERT_EQ(ReadOne(), static_cast<int>(badLength.size()));
    EXPECT_EQ(listener_.regions.size(), 1u);
}

TEST_F(HttpReaderTest, StoppedContextReturnsWithoutReading) {
    Open(Frame(VideoHeader(0), Payload(5000, 1)), 100);
    ctx_->m_bRunning = 0;
    EXPECT_EQ(ReadOne(), -1);
    EXPECT_EQ(io_->served(), 0u);
}

TEST_F(HttpReaderTest, FrameThatNeverEndsFillsTheBufferAndEnds) {
    // Announces almost the whole buffer, then the stream runs on with a
    // marker at the wrong place: the reader gives up when the buffer is full.
    camsim::FrameHeader h = VideoHeader(0);
    h.size = HTTP_FRAME_MAX_PAYLOAD - 100;
    Bytes stream(88);
    camsim::EncodeHeader(h, stream.data());
    Append(&stream, Payload(10000, 1));
    Append(&stream, Frame(VideoHeader(40), Payload(HTTP_RECV_BUF_SIZE, 2)));
    Open(stream);
    testing::internal::CaptureStderr();
    EXPECT_EQ(ReadOne(), -1);
    testing::internal::GetCapturedStderr();
    EXPECT_GT(ctx_->m_HttpFrame.Len() + HTTP_READ_CHUNK, HTTP_RECV_BUF_SIZE);
}

TEST_F(HttpReaderTest, MissingBufferOrConnectionFails) {
    EXPECT_EQ(ReadOne(), -1);  // no connection, nothing received
    ctx_->m_HttpFrame = HttpFrameReceiver();
    EXPECT_EQ(ReadOne(), -1);
    EXPECT_EQ(http_read_one_frame(nullptr, pkt_.get(), &audioChanged_, &newAudioCodec_), -1);
}

// ---------------------------------------------------------------------------
// The reader over a real HTTP connection to the simulator.

struct FileFrame {
    bool video;
    bool key;
    int64_t ts;
    int size;
};

// The file's frames as the wire should carry them, read independently:
// video through the Annex-B filter, AAC plus its 7-byte ADTS header, from
// the first video key frame on, timestamps in ms from there.
std::vector<FileFrame> ReadFileFrames(const std::string& path) {
    AVFormatContext* raw = nullptr;
    EXPECT_EQ(avformat_open_input(&raw, path.c_str(), nullptr, nullptr), 0);
    camctl::InputFormatPtr fmt(raw);
    EXPECT_GE(avformat_find_stream_info(fmt.get(), nullptr), 0);
    int vi = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_VIDEO, -1, -1, nullptr, 0);
    int ai = av_find_best_stream(fmt.get(), AVMEDIA_TYPE_AUDIO, -1, vi, nullptr, 0);
    AVBSFContext* b = nullptr;
    av_bsf_alloc(av_bsf_get_by_name("h264_mp4toannexb"), &b);
    camctl::BsfPtr bsf(b);
    avcodec_parameters_copy(bsf->par_in, fmt->streams[vi]->codecpar);
    bsf->time_base_in = fmt->streams[vi]->time_base;
    EXPECT_EQ(av_bsf_init(bsf.get()), 0);
    std::vector<FileFrame> frames;
    camctl::PacketPtr pkt = camctl::MakePacket();
    auto ms = [&](const AVPacket* p, int stream) {
        return av_rescale_q(p->pts, fmt->streams[stream]->time_base, AVRational{1, 1000});
    };
    while (av_read_frame(fmt.get(), pkt.get()) >= 0) {
        if (pkt->stream_index == vi) {
            av_bsf_send_packet(bsf.get(), pkt.get());
            while (av_bsf_receive_packet(bsf.get(), pkt.get()) == 0) {
                frames.push_back({true, (pkt->flags & AV_PKT_FLAG_KEY) != 0, ms(pkt.get(), vi), pkt->size});
                av_packet_unref(pkt.get());
            }
        } else if (pkt->stream_index == ai) {
            frames.push_back({false, true, ms(pkt.get(), ai), pkt->size + 7});
        }
        av_packet_unref(pkt.get());
    }
    while (!frames.empty() && !(frames.front().video && frames.front().key)) frames.erase(frames.begin());
    int64_t base = frames.empty() ? 0 : frames.front().ts;
    for (FileFrame& f : frames) f.ts = std::max<int64_t>(0, f.ts - base);
    return frames;
}

TEST(HttpReaderOverCamsim, ReceivesEveryFrameOfAnH264FileInOrder) {
    std::string file = camctl_test::Fixture(
        "h264_aac_320x240_2s.mp4",
        "-f lavfi -i testsrc2=size=320x240:rate=25 -f lavfi -i sine=frequency=440:sample_rate=16000 -t 2 "
        "-c:v libx264 -bf 0 -g 25 -pix_fmt yuv420p -c:a aac -ac 1 -b:a 32k");
    std::vector<FileFrame> expect = ReadFileFrames(file);
    ASSERT_GT(expect.size(), 50u);

    camsim::Options o;
    o.file = file;
    o.speed = 4.0;
    camsim::Server server(o);
    std::string error;
    ASSERT_TRUE(server.Start(&error)) << error;

    struct CtxFree {
        void operator()(FFMpegContext* c) const { FFMpegContextFree(c); }
    };
    std::unique_ptr<FFMpegContext, CtxFree> ctx(FFMpegContextAlloc());
    ctx->m_HttpFrame.Open();
    ctx->m_bRunning = 1;
    AVIOContext* io = nullptr;
    ASSERT_GE(avio_open(&io, server.Url("/live/ch0").c_str(), AVIO_FLAG_READ), 0);
    ctx->m_pHttpIo.reset(io);

    // What the engine does when it opens the stream.
    ASSERT_GT(ctx->m_HttpFrame.ReadMore(io), 0);
    HttpFrameHeader first;
    ASSERT_EQ(ParseFrameHeader(ctx->m_HttpFrame.Data(), ctx->m_HttpFrame.Len(), &first), 0);
    EXPECT_EQ(first.width, 320u);
    EXPECT_EQ(first.height, 240u);
    EXPECT_EQ(first.sample_rate, 16000u);
    ctx->m_nVideoCodecId = HttpFrameVideoCodecId(first.codec);
    ctx->m_nAudioCodecId = HttpFrameAudioCodecId(first.audio_codec);
    ctx->m_AudioClock.SetSampleRate(static_cast<int32_t>(first.sample_rate));
    ctx->m_nAudioIndex = 1;
    EXPECT_EQ(ctx->m_nVideoCodecId, 27);
    EXPECT_EQ(ctx->m_nAudioCodecId, 0x15002);

    int audioChanged = 0, newAudio = 0;
    camctl::PacketPtr pkt = camctl::MakePacket();
    for (size_t i = 0; i < expect.size(); ++i) {
        ASSERT_EQ(http_read_one_frame(ctx.get(), pkt.get(), &audioChanged, &newAudio), expect[i].size)
            << "frame " << i;
        EXPECT_EQ(pkt->stream_index, expect[i].video ? 0 : 1) << "frame " << i;
        EXPECT_EQ((pkt->flags & AV_PKT_FLAG_KEY) != 0, expect[i].key) << "frame " << i;
        EXPECT_EQ(pkt->pts, expect[i].ts) << "frame " << i;
        av_packet_unref(pkt.get());
    }
    EXPECT_EQ(audioChanged, 0);
    // The file loops: its first frame comes again, one clip length later.
    ASSERT_EQ(http_read_one_frame(ctx.get(), pkt.get(), &audioChanged, &newAudio), expect[0].size);
    EXPECT_GE(pkt->pts, expect.back().ts);
    EXPECT_TRUE(pkt->flags & AV_PKT_FLAG_KEY);
    server.Stop();
}

}  // namespace
