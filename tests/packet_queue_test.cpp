// Media context allocation and its packet queues: deep copies, FIFO order,
// counting, flushing, fragment joining and codec numbers.
#include <atomic>
#include <cstring>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "engine/ffmpeg_context.h"

namespace {

// A refcounted packet like the demuxer hands out, payload = seed, seed+1, ...
camctl::PacketPtr MakeSourcePacket(int size, int seed, int64_t pts, int stream = 0) {
    camctl::PacketPtr pkt = camctl::MakePacket();
    if (!pkt || av_new_packet(pkt.get(), size) < 0) return nullptr;
    for (int i = 0; i < size; ++i) pkt->data[i] = static_cast<uint8_t>(seed + i);
    pkt->pts = pts;
    pkt->dts = pts - 1;
    pkt->duration = 40;
    pkt->pos = 1000 + pts;
    pkt->stream_index = stream;
    pkt->flags = AV_PKT_FLAG_KEY;
    return pkt;
}

bool PayloadIs(const AVPacket* pkt, int size, int seed) {
    if (!pkt || pkt->size != size) return false;
    for (int i = 0; i < size; ++i)
        if (pkt->data[i] != static_cast<uint8_t>(seed + i)) return false;
    return true;
}

struct QueuedPacket {
    AVPacket* pkt;
    explicit QueuedPacket(AVPacket* p) : pkt(p) {}
    ~QueuedPacket() { FreePacket(pkt); }
    QueuedPacket(const QueuedPacket&) = delete;
    QueuedPacket& operator=(const QueuedPacket&) = delete;
};

class PacketQueueTest : public ::testing::Test {
protected:
    void SetUp() override { ASSERT_NE(ctx_, nullptr); }
    void TearDown() override { FFMpegContextFree(ctx_); }
    FFMpegContext* ctx_ = FFMpegContextAlloc();
};

TEST_F(PacketQueueTest, Alloc_EmptyContext) {
    EXPECT_EQ(ctx_->m_nAudioIndex, -1);
    EXPECT_EQ(ctx_->m_bRunning.load(), 0);
    EXPECT_TRUE(ctx_->m_VideoQueue.Ok());
    EXPECT_TRUE(ctx_->m_AudioQueue.Ok());
    EXPECT_TRUE(ctx_->m_Recorder.Ok());
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 0);
    EXPECT_EQ(PopVideoPacket(ctx_), nullptr);
    EXPECT_EQ(PopAudioPacket(ctx_), nullptr);
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 0);
}

TEST_F(PacketQueueTest, Push_DeepCopySurvivesSource) {
    camctl::PacketPtr src = MakeSourcePacket(1000, 7, 90);
    ASSERT_NE(src, nullptr);
    uint8_t* side = av_packet_new_side_data(src.get(), AV_PKT_DATA_NEW_EXTRADATA, 6);
    ASSERT_NE(side, nullptr);
    memcpy(side, "extra", 6);
    const uint8_t* srcData = src->data;

    PushVideoPacket(ctx_, src.get());
    src.reset();  // the demuxer's buffer is gone

    QueuedPacket got(PopVideoPacket(ctx_));
    ASSERT_NE(got.pkt, nullptr);
    EXPECT_NE(got.pkt->data, srcData);
    EXPECT_EQ(got.pkt->buf, nullptr);
    EXPECT_TRUE(PayloadIs(got.pkt, 1000, 7));
    EXPECT_EQ(got.pkt->pts, 90);
    EXPECT_EQ(got.pkt->dts, 89);
    EXPECT_EQ(got.pkt->duration, 40);
    EXPECT_EQ(got.pkt->pos, 1090);
    EXPECT_EQ(got.pkt->flags, AV_PKT_FLAG_KEY);
    size_t sideSize = 0;
    const uint8_t* copied = av_packet_get_side_data(got.pkt, AV_PKT_DATA_NEW_EXTRADATA, &sideSize);
    ASSERT_NE(copied, nullptr);
    EXPECT_EQ(sideSize, 6u);
    EXPECT_STREQ(reinterpret_cast<const char*>(copied), "extra");
    // 32 bytes of slack follow the payload (a sanitizer build checks bounds).
    for (int i = 0; i < 32; ++i) EXPECT_EQ(got.pkt->data[1000 + i], 0) << i;
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 0);
}

TEST_F(PacketQueueTest, Push_EmptyPayloadAndNulls) {
    camctl::PacketPtr empty = camctl::MakePacket();
    PushAudioPacket(ctx_, empty.get());
    QueuedPacket got(PopAudioPacket(ctx_));
    ASSERT_NE(got.pkt, nullptr);
    EXPECT_EQ(got.pkt->size, 0);

    PushVideoPacket(ctx_, nullptr);
    PushVideoPacket(nullptr, empty.get());
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 0);
    EXPECT_EQ(GetAVPktListElmCount(nullptr), -1);
    EXPECT_EQ(PopVideoPacket(nullptr), nullptr);
    FlushVideoPackets(nullptr);
    FreePacket(nullptr);
}

TEST_F(PacketQueueTest, Queues_FifoAndSeparateCounts) {
    for (int i = 0; i < 5; ++i) PushVideoPacket(ctx_, MakeSourcePacket(10 + i, i, i).get());
    for (int i = 0; i < 7; ++i) PushAudioPacket(ctx_, MakeSourcePacket(4, 100 + i, 50 + i, 1).get());
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 5);  // video only

    for (int i = 0; i < 7; ++i) {
        QueuedPacket a(PopAudioPacket(ctx_));
        ASSERT_NE(a.pkt, nullptr);
        EXPECT_EQ(a.pkt->pts, 50 + i);
        EXPECT_EQ(a.pkt->stream_index, 1);
        EXPECT_TRUE(PayloadIs(a.pkt, 4, 100 + i));
    }
    EXPECT_EQ(PopAudioPacket(ctx_), nullptr);
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 5);

    for (int i = 0; i < 5; ++i) {
        QueuedPacket v(PopVideoPacket(ctx_));
        ASSERT_NE(v.pkt, nullptr);
        EXPECT_EQ(v.pkt->pts, i);
        EXPECT_TRUE(PayloadIs(v.pkt, 10 + i, i));
        EXPECT_EQ(GetAVPktListElmCount(ctx_), 4 - i);
    }
    EXPECT_EQ(PopVideoPacket(ctx_), nullptr);
}

TEST_F(PacketQueueTest, Flush_EmptiesOnlyItsQueue) {
    FlushVideoPackets(ctx_);  // harmless when empty
    FlushAudioPackets(ctx_);
    for (int i = 0; i < 6; ++i) PushVideoPacket(ctx_, MakeSourcePacket(64, i, i).get());
    for (int i = 0; i < 3; ++i) PushAudioPacket(ctx_, MakeSourcePacket(8, i, i).get());

    FlushVideoPackets(ctx_);
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 0);
    EXPECT_EQ(PopVideoPacket(ctx_), nullptr);
    EXPECT_EQ(ctx_->m_AudioQueue.Count(), 3);

    PushVideoPacket(ctx_, MakeSourcePacket(16, 3, 77).get());  // usable after a flush
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 1);
    FlushAudioPackets(ctx_);
    EXPECT_EQ(PopAudioPacket(ctx_), nullptr);
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 1);
    // The context is freed with the video packet still queued.
}

TEST_F(PacketQueueTest, Concurrent_ProducerConsumer) {
    constexpr int kPackets = 2000;
    std::thread producer([this] {
        for (int i = 0; i < kPackets; ++i) {
            PushVideoPacket(ctx_, MakeSourcePacket(32, i, i).get());
            if (i % 500 == 0) PushAudioPacket(ctx_, MakeSourcePacket(8, i, i).get());
        }
    });
    int expected = 0;
    bool inOrder = true;
    while (expected < kPackets) {
        QueuedPacket v(PopVideoPacket(ctx_));
        if (!v.pkt) {
            std::this_thread::yield();
            continue;
        }
        inOrder = inOrder && v.pkt->pts == expected && PayloadIs(v.pkt, 32, expected);
        ++expected;
    }
    producer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(GetAVPktListElmCount(ctx_), 0);
    EXPECT_EQ(ctx_->m_AudioQueue.Count(), 4);
}


TEST(CodecNumber, MapsPublicCodecs) {
    FFMpegContext* ctx = FFMpegContextAlloc();
    ASSERT_NE(ctx, nullptr);
    const struct {
        int codecId;
        int number;
    } cases[] = {{27, 0}, {12, 1}, {7, 2}, {173, 3}, {0, -1}, {86018, -1}, {0x10006, -1}};
    for (const auto& c : cases) {
        ctx->m_nVideoCodecId = c.codecId;
        EXPECT_EQ(GetVideoCodecNumber(ctx), c.number) << c.codecId;
    }
    EXPECT_EQ(GetVideoCodecNumber(nullptr), -1);
    FFMpegContextFree(ctx);
    FFMpegContextFree(nullptr);
}

}  // namespace
