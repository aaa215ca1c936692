// Catches: a shallow or partial packet copy, lost slack, FIFO order broken, counts that mix the two queues, a flush that leaks or spares packets, a missed wake-up, a race between pusher and popper.
#include <cstring>
#include <thread>

#include <gtest/gtest.h>

#include "engine/ffmpeg_context.h"

namespace {

// A refcounted packet like the demuxer hands out, payload = seed, seed+1, ...
camctl::PacketPtr SourcePacket(int size, int seed, int64_t pts) {
    camctl::PacketPtr pkt = camctl::MakePacket();
    if (!pkt || av_new_packet(pkt.get(), size) < 0) return nullptr;
    for (int i = 0; i < size; ++i) pkt->data[i] = static_cast<uint8_t>(seed + i);
    pkt->pts = pts;
    pkt->dts = pts - 1;
    pkt->duration = 40;
    pkt->pos = 1000 + pts;
    pkt->flags = AV_PKT_FLAG_KEY;
    return pkt;
}

bool PayloadIs(const AVPacket* pkt, int size, int seed) {
    if (!pkt || pkt->size != size) return false;
    for (int i = 0; i < size; ++i)
        if (pkt->data[i] != static_cast<uint8_t>(seed + i)) return false;
    return true;
}

struct CtxFree {
    void operator()(FFMpegContext* c) const { FFMpegContextFree(c); }
};

TEST(PacketQueue, CopyIsDeepWithPropsSideDataAndZeroSlack) {
    PacketQueue q;
    ASSERT_TRUE(q.Ok());
    camctl::PacketPtr src = SourcePacket(1000, 7, 90);
    uint8_t* side = av_packet_new_side_data(src.get(), AV_PKT_DATA_NEW_EXTRADATA, 6);
    ASSERT_NE(side, nullptr);
    memcpy(side, "extra", 6);
    q.Push(src.get());
    src.reset();  // the demuxer's buffer is gone

    QueuedPacket got = q.Pop();
    ASSERT_NE(got, nullptr);
    EXPECT_EQ(got->buf, nullptr);
    EXPECT_TRUE(PayloadIs(got.get(), 1000, 7));
    EXPECT_EQ(got->pts, 90);
    EXPECT_EQ(got->dts, 89);
    EXPECT_EQ(got->duration, 40);
    EXPECT_EQ(got->pos, 1090);
    EXPECT_EQ(got->flags, AV_PKT_FLAG_KEY);
    size_t sideSize = 0;
    const uint8_t* copied = av_packet_get_side_data(got.get(), AV_PKT_DATA_NEW_EXTRADATA, &sideSize);
    ASSERT_NE(copied, nullptr);
    EXPECT_EQ(sideSize, 6u);
    EXPECT_STREQ(reinterpret_cast<const char*>(copied), "extra");
    for (int i = 0; i < 32; ++i) EXPECT_EQ(got->data[1000 + i], 0) << i;  // slack (bounds checked under ASan)

    q.Push(camctl::MakePacket().get());  // an empty payload is queued too
    QueuedPacket empty = q.Pop();
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->size, 0);
    q.Push(nullptr);
    EXPECT_EQ(q.Count(), 0);
    EXPECT_EQ(q.Pop(), nullptr);
}

TEST(PacketQueue, ContextQueuesKeepOrderCountsAndFlushApart) {
    std::unique_ptr<FFMpegContext, CtxFree> ctx(FFMpegContextAlloc());
    ASSERT_TRUE(ctx);
    EXPECT_EQ(ctx->m_nAudioIndex, -1);
    for (int i = 0; i < 5; ++i) PushVideoPacket(ctx.get(), SourcePacket(10 + i, i, i).get());
    for (int i = 0; i < 3; ++i) PushAudioPacket(ctx.get(), SourcePacket(4, 100 + i, 50 + i).get());
    EXPECT_EQ(GetAVPktListElmCount(ctx.get()), 5);  // video only
    EXPECT_EQ(ctx->m_AudioQueue.Count(), 3);
    for (int i = 0; i < 3; ++i) {
        QueuedPacket a(PopAudioPacket(ctx.get()));
        EXPECT_TRUE(PayloadIs(a.get(), 4, 100 + i));
    }
    EXPECT_EQ(PopAudioPacket(ctx.get()), nullptr);
    for (int i = 0; i < 2; ++i) {
        QueuedPacket v(PopVideoPacket(ctx.get()));
        ASSERT_NE(v, nullptr);
        EXPECT_EQ(v->pts, i);
        EXPECT_TRUE(PayloadIs(v.get(), 10 + i, i));
        EXPECT_EQ(GetAVPktListElmCount(ctx.get()), 4 - i);
    }
    PushAudioPacket(ctx.get(), SourcePacket(8, 1, 1).get());
    FlushVideoPackets(ctx.get());
    EXPECT_EQ(GetAVPktListElmCount(ctx.get()), 0);
    EXPECT_EQ(PopVideoPacket(ctx.get()), nullptr);
    EXPECT_EQ(ctx->m_AudioQueue.Count(), 1);  // the other queue is untouched
    PushVideoPacket(ctx.get(), SourcePacket(16, 3, 77).get());  // usable after a flush
    EXPECT_EQ(GetAVPktListElmCount(ctx.get()), 1);
    FlushAudioPackets(ctx.get());
    EXPECT_EQ(ctx->m_AudioQueue.Count(), 0);
    // Null contexts answer without touching anything.
    EXPECT_EQ(GetAVPktListElmCount(nullptr), -1);
    EXPECT_EQ(PopVideoPacket(nullptr), nullptr);
    PushVideoPacket(nullptr, nullptr);
    FlushVideoPackets(nullptr);
    FreePacket(nullptr);
    // The context is freed with a packet still queued (ASan: nothing leaks).
}

TEST(PacketQueue, PushWakesTheWaiterAndConcurrentUseKeepsOrder) {
    PacketQueue q;
    constexpr int kPackets = 2000;
    std::thread producer([&q] {
        for (int i = 0; i < kPackets; ++i) q.Push(SourcePacket(32, i, i).get());
    });
    int expected = 0;
    bool inOrder = true;
    while (expected < kPackets) {
        const uint64_t seen = q.Arrivals();
        QueuedPacket v = q.Pop();
        if (!v) {
            q.WaitPast(seen, 60000);  // returns at the next push
            continue;
        }
        inOrder = inOrder && v->pts == expected && PayloadIs(v.get(), 32, expected);
        ++expected;
    }
    producer.join();
    EXPECT_TRUE(inOrder);
    EXPECT_EQ(q.Count(), 0);
    const uint64_t seen = q.Arrivals();
    std::thread waker([&q] { q.Wake(); });
    q.WaitPast(seen, 60000);
    EXPECT_NE(q.Arrivals(), seen);
    waker.join();
}

}  // namespace
