// Faults caught: wrong level thresholds, off-by-one sample counts, wrong sampling grid or cell order, margins scanned, warm-up/spacing miscounted, reference not renewed, wrong log texts, races on settings.
#include "camctl/MotionDetector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "support/pictures.h"

namespace {

using Picture = std::vector<unsigned char>;
using camctl_test::RawTestFrame;

struct FakeClock {
    int64_t now = 1000000;
    static int64_t Read(void* self) { return static_cast<FakeClock*>(self)->now; }
};

// Offsets of the samples compared for cell (column, row), walking the cell as
// the detector does: every second row and pixel from the walk position, and
// after a row (width - W) pixels on from where the row's sampling ended.
std::vector<size_t> SampleOffsets(int width, int height, int column, int row) {
    const int W = width / 32, H = height / 24;
    size_t p = 3 * (static_cast<size_t>(row) * H * width + static_cast<size_t>(column) * W);
    std::vector<size_t> offsets;
    for (int y = 0; y < H; y += 2, p += static_cast<size_t>(width - W) * 3)
        for (int x = 0; x < W; x += 2, p += 6) offsets.push_back(p);
    return offsets;
}

// Moves the green byte of the first `count` samples by exactly `delta`.
Picture ChangeSamples(Picture p, const std::vector<size_t>& samples, int count, int delta) {
    for (int i = 0; i < count; ++i) {
        unsigned char& g = p[samples[i] + 1];
        g = static_cast<unsigned char>(g >= delta ? g - delta : g + delta);
    }
    return p;
}

// Paints a w x h square at (x, y), every byte moved to the far end of its range.
Picture WithSquare(Picture p, int width, int x, int y, int w, int h) {
    for (int r = y; r < y + h; ++r)
        for (int c = x; c < x + w; ++c)
            for (int k = 0; k < 3; ++k) {
                unsigned char& b = p[(static_cast<size_t>(r) * width + c) * 3 + k];
                b = b < 128 ? 255 : 0;
            }
    return p;
}

bool SameAsReference(const CMotionDetector& d, const Picture& p) {
    return d.GetReference() && d.GetReferenceSize() == p.size() && std::memcmp(d.GetReference(), p.data(), p.size()) == 0;
}

// Feeds p until the detector takes a test picture (frame count divisible by
// 4) and returns its result; pictures before it must report nothing.
int RunToTestPicture(CMotionDetector& d, Picture& p, int width, int height) {
    for (int i = 0; i < 4; ++i) {
        const int result = d.MotionDetectRun(p.data(), width, height);
        if (d.GetFrameCount() % 4 == 0) return result;
        EXPECT_EQ(result, 0);
    }
    ADD_FAILURE() << "no test picture within four pictures";
    return -1;
}

class MotionDetectorCif : public ::testing::Test {
protected:
    static constexpr int kW = 352, kH = 288;
    void SetUp() override {
        detector_.SetClock(FakeClock::Read, &clock_);
        detector_.SetOwnerName("front door");
    }
    void StartPastWarmUp() {
        ASSERT_EQ(detector_.Init(nullptr, kW, kH), 0);
        detector_.SetDetectEnable(1);
        while (detector_.GetFrameCount() < CMotionDetector::kWarmUpPictures + 1)
            ASSERT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 0);
    }
    Picture a_ = RawTestFrame("testsrc2", kW, kH, "bgr24", 0), b_ = RawTestFrame("testsrc2", kW, kH, "bgr24", 40),
            c_ = RawTestFrame("testsrc2", kW, kH, "bgr24", 80);
    Picture* turn_[3] = {&b_, &c_, &a_};  // pictures four apart differ: a, b, c in turn
    FakeClock clock_;
    CMotionDetector detector_;
};

TEST(MotionDetectorSettings, DefaultsAndLevels) {
    CMotionDetector d;
    EXPECT_EQ(d.GetDetectEnable(), 0);
    EXPECT_EQ(d.GetDetectSpaceTime(), 2);
    EXPECT_EQ(d.GetNotifySpaceTime(), 5);
    EXPECT_FALSE(d.IsInit());
    EXPECT_EQ(d.GetDetectLevel(), 1);
    // An unknown level is stored but keeps the thresholds in force.
    const struct { int level, area, diff; } rows[] = {{1, 50, 35}, {0, 75, 50}, {2, 25, 20}, {5, 25, 20}, {-1, 25, 20}};
    for (const auto& r : rows) {
        EXPECT_EQ(r.level == 1 ? 0 : d.SetDetectLevel(r.level), 0);
        EXPECT_EQ(d.GetDetectLevel(), r.level);
        EXPECT_EQ(d.GetAreaPercent(), r.area) << r.level;
        EXPECT_EQ(d.GetPixelDiff(), r.diff) << r.level;
    }
}

TEST(MotionDetectorLifecycle, InitFreeLogLinesAndStartPhases) {
    CMotionDetector d;
    d.SetOwnerName("cam7");
    testing::internal::CaptureStderr();
    EXPECT_EQ(d.Free(), -1);  // never initialised: no log line either
    EXPECT_EQ(d.Init(nullptr, 0, 288), -1);
    EXPECT_EQ(d.Init(nullptr, -352, -288), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
    EXPECT_FALSE(d.IsInit());

    testing::internal::CaptureStderr();
    int owner = 0;
    EXPECT_EQ(d.Init(&owner, 352, 288), 0);
    EXPECT_TRUE(d.IsInit());
    EXPECT_EQ(d.GetReferenceSize(), 352u * 288 * 3);
    EXPECT_EQ(d.Init(&owner, 64, 48), 0);  // a second Init replaces the first
    EXPECT_EQ(d.GetReferenceSize(), 64u * 48 * 3);
    EXPECT_EQ(d.Free(), 0);
    EXPECT_EQ(d.Free(), -1);
    EXPECT_EQ(d.GetReference(), nullptr);
    const std::string log = testing::internal::GetCapturedStderr();
    const std::string head = "[debug]============Camera(cam7) ALgMotionDetect ", tail = "...===========\n";
    size_t at = 0;
    for (const char* what : {"Init(352,288)", "Free", "Init(64,48)", "Free"}) {
        at = log.find(head + what + tail, at);
        ASSERT_NE(at, std::string::npos) << what << " in " << log;
        ++at;
    }
    EXPECT_EQ(log.find(head + "Free", at), std::string::npos) << log;

    // Start phases follow a process-wide counter modulo 16.
    CMotionDetector other;
    int previous = -1;
    for (int i = 0; i < 20; ++i) {
        CMotionDetector& e = i % 2 ? other : d;
        ASSERT_EQ(e.Init(nullptr, 64, 48), 0);
        const int phase = e.GetFrameCount();
        EXPECT_TRUE(phase >= 0 && phase < 16) << phase;
        EXPECT_TRUE(previous < 0 || phase == (previous + 1) % 16) << previous << " then " << phase;
        previous = phase;
    }
}

TEST_F(MotionDetectorCif, WarmUpFromPhaseOneIgnoresTheFirst24Pictures) {
    for (int i = 0; i < 16 && detector_.GetFrameCount() != 1; ++i) ASSERT_EQ(detector_.Init(nullptr, kW, kH), 0);
    ASSERT_EQ(detector_.GetFrameCount(), 1);
    EXPECT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 0);
    EXPECT_EQ(detector_.GetFrameCount(), 1) << "pictures seen while disabled are not counted";
    detector_.SetDetectEnable(1);
    const Picture initial(detector_.GetReference(), detector_.GetReference() + detector_.GetReferenceSize());
    for (int i = 0; i < 24; ++i) EXPECT_EQ(detector_.MotionDetectRun((i % 2 ? a_ : b_).data(), kW, kH), 0) << i;
    EXPECT_TRUE(SameAsReference(detector_, initial));
    // The 25th picture brings the count to 26 and becomes the reference;
    // 27 is no test picture and is not stored; 28 is tested against it.
    EXPECT_EQ(detector_.MotionDetectRun(c_.data(), kW, kH), 0);
    EXPECT_EQ(detector_.GetFrameCount(), 26);
    EXPECT_TRUE(SameAsReference(detector_, c_));
    EXPECT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 0);
    EXPECT_TRUE(SameAsReference(detector_, c_));
    EXPECT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 1);
    EXPECT_EQ(detector_.GetFrameCount(), 28);
}

TEST_F(MotionDetectorCif, DetectionAndNotificationSpacing) {
    StartPastWarmUp();
    testing::internal::CaptureStderr();
    EXPECT_EQ(RunToTestPicture(detector_, b_, kW, kH), 1);
    const int firstCount = detector_.GetFrameCount();
    // Inside the 2 s detection spacing: no scan, but the picture becomes the reference.
    clock_.now += 1;
    EXPECT_EQ(RunToTestPicture(detector_, c_, kW, kH), 0);
    EXPECT_TRUE(SameAsReference(detector_, c_));
    clock_.now += 2;  // 3 s after the first: motion inside the 5 s notification spacing
    EXPECT_EQ(RunToTestPicture(detector_, a_, kW, kH), 2);
    clock_.now += 3;  // 6 s after the first: a new notification
    EXPECT_EQ(RunToTestPicture(detector_, b_, kW, kH), 1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("=====ALgMotionDetect Succ FrameCount:" + std::to_string(firstCount) + "=====\n"), std::string::npos)
        << log;
    for (int i = 0; i < 3; ++i) {  // a still scene reports nothing, however much time passes
        clock_.now += 10;
        EXPECT_EQ(RunToTestPicture(detector_, b_, kW, kH), 0);
    }
}

TEST_F(MotionDetectorCif, SpacingsAreSettable) {
    detector_.SetDetectSpaceTime(0);
    detector_.SetNotifySpaceTime(100);
    StartPastWarmUp();
    EXPECT_EQ(RunToTestPicture(detector_, *turn_[0], kW, kH), 1);
    for (int i = 1; i < 6; ++i) EXPECT_EQ(RunToTestPicture(detector_, *turn_[i % 3], kW, kH), 2) << i;
    clock_.now += 100;
    EXPECT_EQ(RunToTestPicture(detector_, *turn_[0], kW, kH), 1);
}

TEST_F(MotionDetectorCif, AllDisabledMapNeverDetectsButRenewsTheReference) {
    std::vector<unsigned char> map(CMotionDetector::kMapSize, '0');
    detector_.SetDetectMap(map.data());
    StartPastWarmUp();
    // Test pictures renew the reference whether scanned (clock past the
    // detection spacing) or not; other pictures leave it alone.
    const Picture* stored = &a_;
    for (int i = 0; i < 24; ++i) {
        clock_.now += i % 8 < 4 ? 3 : 0;
        Picture& p = *turn_[i % 3];
        EXPECT_EQ(detector_.MotionDetectRun(p.data(), kW, kH), 0);
        if (detector_.GetFrameCount() % 4 == 0) stored = &p;
        EXPECT_TRUE(SameAsReference(detector_, *stored)) << i;
    }
    // Bytes other than '0' enable a cell, the initial 0x01 included.
    std::vector<unsigned char> ones(CMotionDetector::kMapSize, 0x01);
    detector_.SetDetectMap(ones.data());
    clock_.now += 3;
    EXPECT_EQ(RunToTestPicture(detector_, SameAsReference(detector_, a_) ? b_ : a_, kW, kH), 1);
}

TEST_F(MotionDetectorCif, SettingsChangeWhilePicturesFlow) {
    StartPastWarmUp();
    std::atomic<bool> done{false};
    std::thread host([&] {
        std::vector<unsigned char> map(CMotionDetector::kMapSize, '1');
        for (int i = 0; !done.load(); ++i) {
            detector_.SetDetectLevel(i % 3);
            map[i % CMotionDetector::kMapSize] = i % 2 ? '0' : '1';
            detector_.SetDetectMap(map.data());
            detector_.SetDetectSpaceTime(i % 3);
            detector_.SetNotifySpaceTime(i % 7);
            detector_.SetOwnerName(i % 2 ? "north" : "south");
            std::this_thread::yield();
        }
    });
    int reports = 0;
    for (int i = 0; i < 400; ++i) {
        clock_.now += 1;
        const int result = detector_.MotionDetectRun(turn_[i % 3]->data(), kW, kH);
        EXPECT_TRUE(result >= 0 && result <= 2) << result;
        reports += result != 0;
    }
    done = true;
    host.join();
    EXPECT_GT(reports, 0);
}

TEST_F(MotionDetectorCif, SmallerPicturesAreScannedLargerOnesIgnored) {
    // A sub stream's smaller pictures are detected like the main stream's; a
    // picture larger in either dimension is never compared.
    const struct { int width, height; bool detected; } cases[] = {
        {320, 240, true}, {352, 192, true}, {640, 480, false}, {384, 192, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + "x" + std::to_string(c.height));
        Picture p[2] = {RawTestFrame("testsrc2", c.width, c.height, "bgr24", 0),
                        RawTestFrame("testsrc2", c.width, c.height, "bgr24", 40)};
        StartPastWarmUp();
        int reports = 0;
        for (int i = 0; i < 16; ++i) {
            clock_.now += 10;
            reports += detector_.MotionDetectRun(p[i % 2].data(), c.width, c.height) != 0;
        }
        EXPECT_EQ(reports > 0, c.detected) << reports;
        detector_.ALgMotionDetect(p[0].data(), c.width, c.height);  // a scanned picture becomes the reference
        const size_t n = std::min(p[0].size(), detector_.GetReferenceSize());
        EXPECT_EQ(std::memcmp(detector_.GetReference(), p[0].data(), n) == 0, c.detected);
    }
}

TEST(MotionDetectorCells, FirstEnabledChangedCellIsReportedAndMarginsIgnored) {
    const int w = 1920, h = 1080;  // cells of 60 x 45
    const Picture base = RawTestFrame("testsrc2", w, h, "bgr24", 0);
    Picture before = WithSquare(base, w, 5 * 60, 5 * 45, 60, 45);  // the square leaves cell (5, 5)
    Picture after = WithSquare(base, w, 10 * 60, 7 * 45, 60, 45);  // and arrives in (10, 7)
    CMotionDetector d;
    ASSERT_EQ(d.Init(nullptr, w, h), 0);
    d.ALgMotionDetect(before.data(), w, h);
    testing::internal::CaptureStderr();
    EXPECT_TRUE(d.ALgMotionDetect(after.data(), w, h));  // row-major scan: row 5 first
    EXPECT_TRUE(SameAsReference(d, after));
    d.ALgMotionDetect(before.data(), w, h);
    std::vector<unsigned char> map(CMotionDetector::kMapSize, '1');
    map[5 * 24 + 5] = '0';  // the map is column-major
    d.SetDetectMap(map.data());
    EXPECT_TRUE(d.ALgMotionDetect(after.data(), w, h));
    const std::string log = testing::internal::GetCapturedStderr();
    const size_t first = log.find("=====ALgMotionDetect Succ x:5  y:5=====\n");
    const size_t second = log.find("=====ALgMotionDetect Succ x:10  y:7=====\n");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_NE(second, std::string::npos) << log;
    EXPECT_LT(first, second);
    map[10 * 24 + 7] = '0';  // a change confined to disabled cells is ignored
    d.SetDetectMap(map.data());
    EXPECT_FALSE(d.ALgMotionDetect(before.data(), w, h));
    EXPECT_TRUE(SameAsReference(d, before));

    // Cells of 32 x 29 leave margins of 6 columns and 4 rows, never examined.
    const int mw = 1030, mh = 700;
    const Picture m = RawTestFrame("testsrc2", mw, mh, "bgr24", 0);
    Picture margins = WithSquare(WithSquare(m, mw, 1024, 0, 6, mh), mw, 0, 696, mw, 4), start = m,
            inside = WithSquare(m, mw, 31 * 32, 23 * 29, 32, 29);
    CMotionDetector e;
    ASSERT_EQ(e.Init(nullptr, mw, mh), 0);
    e.ALgMotionDetect(start.data(), mw, mh);
    EXPECT_FALSE(e.ALgMotionDetect(margins.data(), mw, mh));
    EXPECT_TRUE(e.ALgMotionDetect(inside.data(), mw, mh));
}

struct ThresholdCase {
    int width, height, level, column, row;
    int samples;  // samples taken in a cell
    int needed;   // changed samples that make the cell change
};

class MotionDetectorThreshold : public ::testing::TestWithParam<ThresholdCase> {};

TEST_P(MotionDetectorThreshold, BitesAtTheExactSampleCount) {
    const ThresholdCase& tc = GetParam();
    const Picture base = RawTestFrame("testsrc2", tc.width, tc.height, "bgr24", 3);
    const std::vector<size_t> samples = SampleOffsets(tc.width, tc.height, tc.column, tc.row);
    ASSERT_EQ(static_cast<int>(samples.size()), tc.samples);
    CMotionDetector d;
    ASSERT_EQ(d.Init(nullptr, tc.width, tc.height), 0);
    d.SetDetectLevel(tc.level);
    const int diff = d.GetPixelDiff();
    Picture reference = base;
    auto detects = [&](Picture p) {
        d.ALgMotionDetect(reference.data(), tc.width, tc.height);
        return d.ALgMotionDetect(p.data(), tc.width, tc.height);
    };
    EXPECT_FALSE(detects(base));
    EXPECT_FALSE(detects(ChangeSamples(base, samples, tc.needed - 1, diff)));
    EXPECT_TRUE(detects(ChangeSamples(base, samples, tc.needed, diff)));
    EXPECT_FALSE(detects(ChangeSamples(base, samples, tc.samples, diff - 1))) << "one short of the threshold";

    // With only this cell enabled, changing every pixel it does not sample is ignored.
    std::vector<unsigned char> map(CMotionDetector::kMapSize, '0');
    map[tc.column * 24 + tc.row] = '1';
    d.SetDetectMap(map.data());
    const int W = tc.width / 32, H = tc.height / 24;
    Picture others = base;
    std::vector<bool> sampled(base.size(), false);
    for (size_t s : samples) sampled[s] = true;
    for (int y = tc.row * H; y < (tc.row + 1) * H; ++y)
        for (int x = tc.column * W; x < (tc.column + 1) * W; ++x) {
            const size_t at = (static_cast<size_t>(y) * tc.width + x) * 3;
            if (!sampled[at]) others[at + 1] ^= 0x80;
        }
    EXPECT_FALSE(detects(others));
    EXPECT_TRUE(detects(ChangeSamples(base, samples, tc.needed, diff)));
}

INSTANTIATE_TEST_SUITE_P(
    Levels, MotionDetectorThreshold,
    ::testing::Values(
        // 352 x 288: cells 11 x 12, 6 rows of 6 samples; odd cell width, so
        // each sampled row starts one pixel further right.
        ThresholdCase{352, 288, 1, 7, 9, 36, 17}, ThresholdCase{352, 288, 2, 7, 9, 36, 13},
        ThresholdCase{352, 288, 0, 31, 23, 36, 25},
        // 1920 x 1080: cells 60 x 45, 23 rows of 30 samples.
        ThresholdCase{1920, 1080, 1, 12, 4, 690, 338}, ThresholdCase{1920, 1080, 2, 0, 0, 690, 169},
        ThresholdCase{1920, 1080, 0, 31, 23, 690, 507},
        // 704 x 576 is wider than 640: cells 22 x 24.
        ThresholdCase{704, 576, 2, 16, 12, 132, 33}));

}  // namespace
