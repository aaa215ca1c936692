// Catches: an off-by-one in the marker search or header fields, a frame cut at a payload marker, a lost frame at a read boundary, junk or oversize or wrap-round sizes taken as frames, a wrong log text, wrong packet flags/timestamps/streams, a missed audio change, a wrong motion text.
#include "engine/http_frame.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <tuple>
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
    EXPECT_EQ(out.reserved[0], 0x33);
    EXPECT_EQ(std::tie(out.ver, out.stream_type, out.size, out.codec, out.frame_kind, out.width, out.height,
                       out.audio_codec, out.sample_rate, out.timestamp),
              std::tie(h.ver, h.stream_type, h.size, h.codec, h.frame_kind, h.width, h.height, h.audio_codec,
                       h.sample_rate, h.timestamp));

    // A header whose 88 bytes are not all there, no marker, bad arguments.
    EXPECT_EQ(ParseFrameHeader(bytes.data(), 3 + 87, &out), -1);
    EXPECT_EQ(ParseFrameHeader(junk.data(), 3, &out), -1);
    EXPECT_EQ(ParseFrameHeader(bytes.data(), 0, &out), -1);
    EXPECT_EQ(ParseFrameHeader(bytes.data(), 200, nullptr), -1);
}

// Cutting frames out of a buffer.

// One frame cut out of crafted bytes: the first call sees `first` bytes;
// when it asks for more, a second call resumes (at allreadsize) with `total`.
struct CutCase {
    const char* name;
    Bytes bytes;
    uint32_t first, total;
    int ret1, ret2;            // ret2: only when total > 0
    Bytes payload;             // after HTTP_FRAME_OK
    uint32_t allreadsize;      // after the last call
    ptrdiff_t startAt;         // -1: no frame start
    const char* log;           // expected in the log, "" for none
    const char* log2 = "";
    bool skipAllread = false;  // the wrap-round case checks only that no frame is cut
};

std::vector<CutCase> CutCases() {
    std::vector<CutCase> cases;
    {   // Marker patterns inside the payload (one straddling the header end):
        // the frame ends only at the marker exactly behind its payload.
        Bytes payload = Payload(300, 5);
        std::copy(kMarker.begin(), kMarker.end(), payload.begin());
        std::copy(kMarker.begin(), kMarker.end(), payload.begin() + 150);
        std::copy(kMarker.begin(), kMarker.end(), payload.end() - 4);
        Bytes s = Frame(VideoHeader(40), payload);
        Append(&s, Frame(VideoHeader(80, false), Payload(10, 1)));
        cases.push_back({"payload markers", s, uint32_t(s.size()), 0, HTTP_FRAME_OK, 0, payload, 388, 0,
                         "[http_find_right_endbuffer return HTTP_FRAME_OK]sizeof:88, header.size:300,allreadsize:388,ntegrity:0,"});
        cases.back().log2 = "[enter http_find_right_endbuffer]sizeof:88, header.size:300,allreadsize:88,";
    }
    {   // Cut inside the next frame's marker: the scan resumes 3 bytes back.
        Bytes s = Frame(VideoHeader(0), Payload(100, 3));
        Append(&s, Frame(VideoHeader(40), Payload(20, 4)));
        cases.push_back({"split marker", s, 88 + 100 + 2, 88 + 100 + 12, HTTP_DATA_NO_ENOUGH, HTTP_FRAME_OK,
                         Payload(100, 3), 188, 0, ""});
    }
    {   // Junk without a marker is an empty frame; junk before one is skipped.
        Bytes junk = Payload(500, 9);
        cases.push_back({"no marker", junk, 500, 0, HTTP_FRAME_OK, 0, {}, 0, -1, ""});
        Bytes s = Payload(37, 2);
        Append(&s, Frame(VideoHeader(7), Payload(64, 8)));
        Append(&s, Frame(VideoHeader(47), Payload(8, 1)));
        cases.push_back({"junk first", s, uint32_t(s.size()), 0, HTTP_FRAME_OK, 0, Payload(64, 8), 88 + 64, 37, ""});
    }
    {   // A size that misses the next marker fails.
        Bytes s(88 + 50, 0x55);
        camsim::EncodeHeader(VideoHeader(0), s.data());
        s[52] = 10;  // announces 10 bytes, the next marker is 50 bytes on
        s[53] = s[54] = s[55] = 0;
        Append(&s, Frame(VideoHeader(40), Payload(8, 1)));
        Append(&s, Frame(VideoHeader(80), Payload(8, 1)));
        cases.push_back({"size misses marker", s, uint32_t(s.size()), 0, HTTP_FRAME_FAILED, 0, {}, 0, 0,
                         "[http_find_right_endbuffer return HTTP_FRAME_FAILED]"});
    }
    {   // Over 2,000,000 bytes announced.
        camsim::FrameHeader h = VideoHeader(0);
        h.size = HTTP_FRAME_MAX_PAYLOAD + 1;
        Bytes s(88);
        camsim::EncodeHeader(h, s.data());
        Append(&s, Frame(VideoHeader(40), Payload(8, 1)));
        cases.push_back({"oversize", s, uint32_t(s.size()), 0, HTTP_DATA_ERROR, 0, {}, 0, 0,
                         "ret =http_read_frame= HTTP_DATA_ERRORret1 == HTTP_DATA_ERROR \n"});
    }
    {   // 0xFFFFFFB0 + 88 is 8 in 32 bits: a marker 8 bytes after the start
        // (in the reserved bytes) is not the end of a 4 GB frame.
        camsim::FrameHeader h = VideoHeader(0);
        h.size = 0xFFFFFFB0u;
        std::copy(kMarker.begin(), kMarker.end(), h.reserved);
        Bytes s(88);
        camsim::EncodeHeader(h, s.data());
        Bytes tail = Payload(40, 3);
        std::copy(kMarker.begin(), kMarker.end(), tail.begin() + 20);
        Append(&s, tail);
        cases.push_back({"wrap-round size", s, 10, uint32_t(s.size()), HTTP_DATA_NO_ENOUGH, HTTP_DATA_NO_ENOUGH, {},
                         0, 0, ""});
        cases.back().skipAllread = true;
    }
    return cases;
}

TEST(HttpReadFrame_Cut, CraftedFrames) {
    for (const CutCase& c : CutCases()) {
        SCOPED_TRACE(c.name);
        LogCapture log;
        HttpFrameState state;
        int ret = http_read_frame(c.bytes.data(), c.first, &state);
        EXPECT_EQ(ret, c.ret1);
        if (c.total) {
            if (!c.skipAllread) {
                EXPECT_EQ(state.integrity, HTTP_INTEGRITY_PARTIAL);
                EXPECT_EQ(state.start, c.bytes.data());
                EXPECT_EQ(state.allreadsize, c.first - 3);
            }
            ret = http_read_frame(c.bytes.data() + state.allreadsize, c.total - state.allreadsize, &state);
            EXPECT_EQ(ret, c.ret2);
        }
        const std::string text = log.Take();
        EXPECT_EQ(state.payload, c.payload);
        if (!c.skipAllread) {
            EXPECT_EQ(state.allreadsize, c.allreadsize);
        }
        if (ret == HTTP_FRAME_OK) {
            EXPECT_EQ(state.integrity, 0);
            EXPECT_EQ(state.start, c.startAt < 0 ? nullptr : c.bytes.data() + c.startAt);
        }
        EXPECT_NE(text.find(c.log), std::string::npos) << text;
        EXPECT_NE(text.find(c.log2), std::string::npos) << text;
    }
    // Bad arguments.
    HttpFrameState state;
    Bytes junk = Payload(8, 1);
    EXPECT_EQ(http_read_frame(nullptr, 5, &state), HTTP_FRAME_FAILED);
    EXPECT_EQ(http_read_frame(junk.data(), 0, &state), HTTP_FRAME_FAILED);
    EXPECT_EQ(http_read_frame(junk.data(), 5, nullptr), HTTP_FRAME_FAILED);
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

// Streams the reader gives up on (or answers with an empty frame), and why.
TEST_F(HttpReaderTest, FailuresEndTheReaderWithTheirLogLine) {
    camsim::FrameHeader oversize = VideoHeader(0);
    oversize.size = HTTP_FRAME_MAX_PAYLOAD + 5;
    Bytes oversizeStream(88);
    camsim::EncodeHeader(oversize, oversizeStream.data());
    Append(&oversizeStream, Frame(VideoHeader(40), Payload(10, 1)));
    camsim::FrameHeader mjpeg = VideoHeader(40);
    mjpeg.codec = 1;  // every number but 0 and 3 means MJPEG
    Bytes codecChange = Frame(VideoHeader(0), Payload(50, 1));
    Append(&codecChange, Frame(mjpeg, Payload(50, 2)));
    Append(&codecChange, Frame(VideoHeader(80), Payload(50, 3)));
    // Announces almost the whole buffer, then runs on with a marker at the
    // wrong place: the reader gives up when the buffer is full.
    camsim::FrameHeader huge = VideoHeader(0);
    huge.size = HTTP_FRAME_MAX_PAYLOAD - 100;
    Bytes neverEnds(88);
    camsim::EncodeHeader(huge, neverEnds.data());
    Append(&neverEnds, Payload(10000, 1));
    Append(&neverEnds, Frame(VideoHeader(40), Payload(HTTP_RECV_BUF_SIZE, 2)));

    const struct {
        const char* name;
        Bytes stream;
        size_t firstRead;
        std::vector<int> results;  // of successive reads
        std::vector<const char*> logs;
        bool stopped, noBuffer;
    } cases[] = {
        {"no marker: empty unknown frame, nothing read", Payload(1000, 1), 1000, {0}, {"unknow stream type:0"}, false, false},
        {"oversize header", oversizeStream, HTTP_READ_CHUNK, {-1},
         {"ret =http_read_frame= HTTP_DATA_ERRORret1 == HTTP_DATA_ERROR \n", "ret == HTTP_DATA_ERRORret == HTTP_DATA_ERROR \n"},
         false, false},
        {"video codec change", codecChange, HTTP_READ_CHUNK, {50, -1}, {"Video codec change:27 -> 7 !!"}, false, false},
        {"buffer full", neverEnds, HTTP_READ_CHUNK, {-1}, {}, false, false},
        {"stopped context", Frame(VideoHeader(0), Payload(5000, 1)), 100, {-1}, {}, true, false},
        {"no connection", {}, 0, {-1}, {}, false, false},
        {"no buffer", Frame(VideoHeader(0), Payload(50, 1)), 0, {-1}, {}, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        SetUp();
        if (!c.stream.empty()) Open(c.stream, c.firstRead);
        if (c.stopped) ctx_->m_bRunning = 0;
        if (c.noBuffer) ctx_->m_HttpFrame = HttpFrameReceiver();
        LogCapture log;
        for (int want : c.results) {
            EXPECT_EQ(ReadOne(), want);
            if (want <= 0) {
                EXPECT_EQ(pkt_->size, 0);  // nothing left in the packet
            }
            if (want == 0) {
                EXPECT_EQ(pkt_->stream_index, -1);
            }
            av_packet_unref(pkt_.get());
        }
        const std::string text = log.Take();
        for (const char* line : c.logs) EXPECT_NE(text.find(line), std::string::npos) << text;
        if (c.name[0] == 'b') {
            EXPECT_GT(ctx_->m_HttpFrame.Len() + HTTP_READ_CHUNK, HTTP_RECV_BUF_SIZE);
        }
        if (c.stopped) {
            EXPECT_EQ(io_->served(), 0u);
        }
        if (c.results[0] == 0) {
            EXPECT_EQ(io_->served(), 0u);
            EXPECT_EQ(ctx_->m_HttpFrame.Len(), 1000u);
        }
        TearDown();
    }
    EXPECT_EQ(http_read_one_frame(nullptr, pkt_.get(), &audioChanged_, &newAudioCodec_), -1);
}

// The audio fields of each header against what the decoder was opened
// with: a change asks the reader to reopen it, until it has done so.
TEST_F(HttpReaderTest, AudioHeaderRequestsDecoderChanges) {
    const struct {
        int32_t codec;
        uint32_t rate;
        int streamIndex;    // of the packet
        int changed;        // *audioChanged after the read
        int newCodec;       // *newAudioCodec after the read (0: not set)
        int rateAfter;
        bool served;        // the reader reopens the decoder after this read
    } steps[] = {
        {0, 8000, -1, 1, 0x10006, 8000, true},       // no audio yet: codec 0 means mu-law
        {2, 8000, 1, 0, 0, 8000, false},             // same as what was asked for
        {2, 16000, 1, 1, 0x10006, 16000, false},     // rate change
        {2, 16000, 1, 1, 0x10006, 16000, false},     // nothing new: the request is renewed silently
        {4, 16000, 1, 1, 0x1101C, 16000, true},      // codec change
        {0, 8000, 1, 0, 0, 16000, false},            // below 1 with a codec set: ignored
    };
    Bytes stream;
    uint64_t ts = 0;
    for (const auto& st : steps) {
        camsim::FrameHeader h = VideoHeader(ts += 20);
        h.stream_type = camsim::kStreamAudio;
        h.audio_codec = st.codec;
        h.sample_rate = st.rate;
        Append(&stream, Frame(h, Payload(32, 1)));
    }
    Append(&stream, Frame(VideoHeader(ts + 20), Payload(32, 1)));
    Open(stream);
    LogCapture log;
    int i = 0;
    for (const auto& st : steps) {
        SCOPED_TRACE(i++);
        newAudioCodec_ = 0;
        ASSERT_EQ(ReadOne(), 32);
        EXPECT_EQ(pkt_->stream_index, st.streamIndex);
        EXPECT_EQ(audioChanged_, st.changed);
        EXPECT_EQ(newAudioCodec_, st.newCodec);
        EXPECT_EQ(ctx_->m_AudioClock.SampleRate(), st.rateAfter);
        EXPECT_EQ(ctx_->m_nAudioIndex, 1);
        if (st.served) {
            ctx_->m_nAudioCodecId = newAudioCodec_;
            audioChanged_ = 0;
        }
        av_packet_unref(pkt_.get());
    }
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
