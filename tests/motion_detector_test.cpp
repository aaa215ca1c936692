// CMotionDetector on real pictures (ffmpeg test sources) with an injected
// clock; log lines are read from stderr, where every debug line goes.
#include "camctl/MotionDetector.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <atomic>
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

// The bytes of each sample the detector compares for the cell at (column,
// row), found by walking the cell as the detector does: the first
// ceil(H / 2) rows, every second pixel from the walk position, and after a
// row (width - W) pixels on from where the row's sampling ended.
std::vector<size_t> SampleOffsets(int width, int height, int column, int row) {
    const int W = width / 32, H = height / 24;
    size_t p = 3 * (static_cast<size_t>(row) * H * width + static_cast<size_t>(column) * W);
    std::vector<size_t> offsets;
    for (int y = 0; y < H; y += 2) {
        for (int x = 0; x < W; x += 2) {
            offsets.push_back(p);
            p += 6;
        }
        p += static_cast<size_t>(width - W) * 3;
    }
    return offsets;
}

// Moves the green byte of the first `count` samples by exactly `delta`.
Picture ChangeSamples(const Picture& base, const std::vector<size_t>& samples, int count, int delta) {
    Picture p = base;
    for (int i = 0; i < count; ++i) {
        unsigned char& g = p[samples[i] + 1];
        g = static_cast<unsigned char>(g >= delta ? g - delta : g + delta);
    }
    return p;
}

std::vector<unsigned char> MapWithOnly(int column, int row) {
    std::vector<unsigned char> map(CMotionDetector::kMapSize, '0');
    map[column * 24 + row] = '1';
    return map;
}

// Paints a w x h square with its top-left pixel at (x, y), every byte moved
// to the far end of its range (a change of at least 128).
Picture WithSquare(const Picture& base, int width, int x, int y, int w, int h) {
    Picture p = base;
    for (int r = y; r < y + h; ++r) {
        for (int c = x; c < x + w; ++c) {
            unsigned char* px = &p[(static_cast<size_t>(r) * width + c) * 3];
            for (int k = 0; k < 3; ++k) px[k] = px[k] < 128 ? 255 : 0;
        }
    }
    return p;
}

bool SameAsReference(const CMotionDetector& d, const Picture& p) {
    return d.GetReference() && d.GetReferenceSize() == p.size() &&
           std::memcmp(d.GetReference(), p.data(), p.size()) == 0;
}

// Feeds the picture until the detector has taken a test picture (frame count
// divisible by 4) and returns that picture's result; pictures before it
// must report nothing.
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
        a_ = RawTestFrame("testsrc2", kW, kH, "bgr24", 0);
        b_ = RawTestFrame("testsrc2", kW, kH, "bgr24", 40);
        c_ = RawTestFrame("testsrc2", kW, kH, "bgr24", 80);
        detector_.SetClock(FakeClock::Read, &clock_);
        detector_.SetOwnerName("front door");
    }
    // Initialises and feeds pictures until the warm-up is over.
    void StartPastWarmUp() {
        ASSERT_EQ(detector_.Init(nullptr, kW, kH), 0);
        detector_.SetDetectEnable(1);
        while (detector_.GetFrameCount() < CMotionDetector::kWarmUpPictures + 1) {
            ASSERT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 0);
        }
    }
    Picture a_, b_, c_;
    FakeClock clock_;
    CMotionDetector detector_;
};

TEST(MotionDetector_Settings, DefaultsAndLevels) {
    CMotionDetector d;
    EXPECT_EQ(d.GetDetectEnable(), 0);
    EXPECT_EQ(d.GetDetectLevel(), 1);
    EXPECT_EQ(d.GetAreaPercent(), 50);
    EXPECT_EQ(d.GetPixelDiff(), 35);
    EXPECT_EQ(d.GetDetectSpaceTime(), 2);
    EXPECT_EQ(d.GetNotifySpaceTime(), 5);
    EXPECT_FALSE(d.IsInit());

    EXPECT_EQ(d.SetDetectLevel(0), 0);
    EXPECT_EQ(d.GetAreaPercent(), 75);
    EXPECT_EQ(d.GetPixelDiff(), 50);
    EXPECT_EQ(d.SetDetectLevel(2), 0);
    EXPECT_EQ(d.GetAreaPercent(), 25);
    EXPECT_EQ(d.GetPixelDiff(), 20);
    // An unknown level is stored but keeps the thresholds.
    EXPECT_EQ(d.SetDetectLevel(5), 0);
    EXPECT_EQ(d.GetDetectLevel(), 5);
    EXPECT_EQ(d.GetAreaPercent(), 25);
    EXPECT_EQ(d.GetPixelDiff(), 20);
    EXPECT_EQ(d.SetDetectLevel(-1), 0);
    EXPECT_EQ(d.GetDetectLevel(), -1);
    EXPECT_EQ(d.GetPixelDiff(), 20);
}

TEST(MotionDetector_Lifecycle, InitFreeAndTheirLogLines) {
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
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(d.GetReference(), nullptr);

    const std::string init1 = "[debug]============Camera(cam7) ALgMotionDetect Init(352,288)...===========\n";
    const std::string free = "[debug]============Camera(cam7) ALgMotionDetect Free...===========\n";
    const std::string init2 = "[debug]============Camera(cam7) ALgMotionDetect Init(64,48)...===========\n";
    const size_t i1 = log.find(init1);
    const size_t f1 = log.find(free, i1);
    const size_t i2 = log.find(init2, f1);
    const size_t f2 = log.find(free, i2);
    EXPECT_NE(i1, std::string::npos) << log;
    EXPECT_NE(f1, std::string::npos) << log;
    EXPECT_NE(i2, std::string::npos) << log;
    EXPECT_NE(f2, std::string::npos) << log;
    EXPECT_EQ(log.find(free, f2 + 1), std::string::npos) << log;
}

TEST(MotionDetector_Lifecycle, StartPhasesFollowAProcessWideCounterModulo16) {
    CMotionDetector first, second;
    int previous = -1;
    for (int i = 0; i < 20; ++i) {
        CMotionDetector& d = i % 2 ? second : first;
        ASSERT_EQ(d.Init(nullptr, 64, 48), 0);
        const int phase = d.GetFrameCount();
        EXPECT_GE(phase, 0);
        EXPECT_LT(phase, 16);
        if (previous >= 0) {
            EXPECT_EQ(phase, (previous + 1) % 16);
        }
        previous = phase;
    }
}

TEST_F(MotionDetectorCif, WarmUpFromPhaseOneIgnoresTheFirst24Pictures) {
    for (int i = 0; i < 16 && detector_.GetFrameCount() != 1; ++i) ASSERT_EQ(detector_.Init(nullptr, kW, kH), 0);
    ASSERT_EQ(detector_.GetFrameCount(), 1);
    // Pictures seen while disabled are not counted.
    EXPECT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 0);
    EXPECT_EQ(detector_.GetFrameCount(), 1);

    detector_.SetDetectEnable(1);
    const Picture initialReference(detector_.GetReference(), detector_.GetReference() + detector_.GetReferenceSize());
    for (int i = 0; i < 24; ++i) {
        Picture& p = i % 2 ? a_ : b_;
        EXPECT_EQ(detector_.MotionDetectRun(p.data(), kW, kH), 0) << i;
    }
    EXPECT_TRUE(SameAsReference(detector_, initialReference));

    // The 25th picture brings the count to 26 and becomes the reference.
    EXPECT_EQ(detector_.MotionDetectRun(c_.data(), kW, kH), 0);
    EXPECT_EQ(detector_.GetFrameCount(), 26);
    EXPECT_TRUE(SameAsReference(detector_, c_));
    // 27 is no test picture and is not stored; 28 is tested against c.
    EXPECT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 0);
    EXPECT_TRUE(SameAsReference(detector_, c_));
    EXPECT_EQ(detector_.MotionDetectRun(a_.data(), kW, kH), 1);
    EXPECT_EQ(detector_.GetFrameCount(), 28);
}

TEST_F(MotionDetectorCif, DetectionAndNotificationSpacing) {
    StartPastWarmUp();
    testing::internal::CaptureStderr();
    // Pictures four apart differ: a, b, c in turn every test picture.
    EXPECT_EQ(RunToTestPicture(detector_, b_, kW, kH), 1);
    const int firstCount = detector_.GetFrameCount();

    // Still inside the 2 s detection spacing: no scan, but the test picture
    // becomes the reference.
    clock_.now += 1;
    EXPECT_EQ(RunToTestPicture(detector_, c_, kW, kH), 0);
    EXPECT_TRUE(SameAsReference(detector_, c_));

    // 3 s after the first detection: motion again, inside the 5 s
    // notification spacing.
    clock_.now += 2;
    EXPECT_EQ(RunToTestPicture(detector_, a_, kW, kH), 2);
    // 6 s after the first: a new notification.
    clock_.now += 3;
    EXPECT_EQ(RunToTestPicture(detector_, b_, kW, kH), 1);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_NE(log.find("=====ALgMotionDetect Succ FrameCount:" + std::to_string(firstCount) + "=====\n"),
              std::string::npos)
        << log;

    // A still scene reports nothing, however much time passes.
    for (int i = 0; i < 3; ++i) {
        clock_.now += 10;
        EXPECT_EQ(RunToTestPicture(detector_, b_, kW, kH), 0);
    }
}

TEST_F(MotionDetectorCif, SpacingsAreSettable) {
    detector_.SetDetectSpaceTime(0);
    detector_.SetNotifySpaceTime(100);
    StartPastWarmUp();
    Picture* turn[3] = {&b_, &c_, &a_};
    EXPECT_EQ(RunToTestPicture(detector_, *turn[0], kW, kH), 1);
    for (int i = 1; i < 6; ++i) EXPECT_EQ(RunToTestPicture(detector_, *turn[i % 3], kW, kH), 2) << i;
    clock_.now += 100;
    EXPECT_EQ(RunToTestPicture(detector_, *turn[0], kW, kH), 1);
}

TEST_F(MotionDetectorCif, AllDisabledMapNeverDetectsButRenewsTheReference) {
    std::vector<unsigned char> map(CMotionDetector::kMapSize, '0');
    detector_.SetDetectMap(map.data());
    StartPastWarmUp();
    // Test pictures renew the reference whether they are scanned (clock past
    // the detection spacing) or not; other pictures leave it alone.
    Picture* turn[3] = {&b_, &c_, &a_};
    const Picture* stored = &a_;
    for (int i = 0; i < 24; ++i) {
        clock_.now += i % 8 < 4 ? 3 : 0;
        Picture& p = *turn[i % 3];
        EXPECT_EQ(detector_.MotionDetectRun(p.data(), kW, kH), 0);
        if (detector_.GetFrameCount() % 4 == 0) stored = &p;
        EXPECT_TRUE(SameAsReference(detector_, *stored)) << i;
    }
    // Bytes other than '0' enable a cell, the initial 0x01 included.
    std::vector<unsigned char> ones(CMotionDetector::kMapSize, 0x01);
    detector_.SetDetectMap(ones.data());
    clock_.now += 3;
    Picture& next = SameAsReference(detector_, a_) ? b_ : a_;
    EXPECT_EQ(RunToTestPicture(detector_, next, kW, kH), 1);
}

TEST_F(MotionDetectorCif, SettingsChangeWhilePicturesFlow) {
    // The host's thread changes settings while the picture thread runs.
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
    Picture* turn[3] = {&b_, &c_, &a_};
    int reports = 0;
    for (int i = 0; i < 400; ++i) {
        clock_.now += 1;
        const int result = detector_.MotionDetectRun(turn[i % 3]->data(), kW, kH);
        EXPECT_GE(result, 0);
        EXPECT_LE(result, 2);
        reports += result != 0;
    }
    done = true;
    host.join();
    EXPECT_GT(reports, 0);
}

TEST_F(MotionDetectorCif, SmallerPicturesAreScannedLargerOnesIgnored) {
    // A sub stream's pictures, smaller than the size the detector was started
    // for, are detected like the main stream's; a picture larger in either
    // dimension is never compared.
    struct Case {
        int width, height;
        bool detected;
    } cases[] = {{320, 240, true}, {352, 192, true}, {640, 480, false}, {384, 192, false}};
    for (const Case& c : cases) {
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
        // A scanned picture becomes the reference (in its first bytes).
        detector_.ALgMotionDetect(p[0].data(), c.width, c.height);
        const size_t n = std::min(p[0].size(), detector_.GetReferenceSize());
        EXPECT_EQ(std::memcmp(detector_.GetReference(), p[0].data(), n) == 0, c.detected);
    }
}

TEST(MotionDetector_Cells, MovingSquareIsFoundInTheFirstEnabledChangedCell) {
    const int w = 1920, h = 1080;  // cells of 60 x 45
    const Picture base = RawTestFrame("testsrc2", w, h, "bgr24", 0);
    // The square leaves cell (5, 5) and arrives in cell (10, 7).
    Picture before = WithSquare(base, w, 5 * 60, 5 * 45, 60, 45);
    Picture after = WithSquare(base, w, 10 * 60, 7 * 45, 60, 45);

    CMotionDetector d;
    ASSERT_EQ(d.Init(nullptr, w, h), 0);
    d.ALgMotionDetect(before.data(), w, h);

    // Row-major scan: the cell the square left (row 5) comes first.
    testing::internal::CaptureStderr();
    EXPECT_TRUE(d.ALgMotionDetect(after.data(), w, h));
    EXPECT_TRUE(SameAsReference(d, after));
    d.ALgMotionDetect(before.data(), w, h);
    // With that cell disabled (column-major map), the arrival is reported.
    std::vector<unsigned char> map(CMotionDetector::kMapSize, '1');
    map[5 * 24 + 5] = '0';
    d.SetDetectMap(map.data());
    EXPECT_TRUE(d.ALgMotionDetect(after.data(), w, h));
    const std::string log = testing::internal::GetCapturedStderr();
    const size_t first = log.find("=====ALgMotionDetect Succ x:5  y:5=====\n");
    const size_t second = log.find("=====ALgMotionDetect Succ x:10  y:7=====\n");
    EXPECT_NE(first, std::string::npos) << log;
    EXPECT_NE(second, std::string::npos) << log;
    EXPECT_LT(first, second);

    // A change confined to disabled cells is ignored.
    map.assign(CMotionDetector::kMapSize, '1');
    map[10 * 24 + 7] = '0';
    map[5 * 24 + 5] = '0';
    d.SetDetectMap(map.data());
    EXPECT_FALSE(d.ALgMotionDetect(before.data(), w, h));
    EXPECT_TRUE(SameAsReference(d, before));
}

TEST(MotionDetector_Cells, RightAndBottomMarginsAreNeverExamined) {
    // Cells of 32 x 29 (an even width, so no sampled row drifts sideways),
    // margins of 6 columns and 4 rows.
    const int w = 1030, h = 700;
    const Picture base = RawTestFrame("testsrc2", w, h, "bgr24", 0);
    CMotionDetector d;
    ASSERT_EQ(d.Init(nullptr, w, h), 0);
    d.ALgMotionDetect(const_cast<unsigned char*>(base.data()), w, h);
    Picture margins = WithSquare(base, w, 1024, 0, 6, h);
    margins = WithSquare(margins, w, 0, 696, w, 4);
    EXPECT_FALSE(d.ALgMotionDetect(margins.data(), w, h));
    Picture inside = WithSquare(base, w, 31 * 32, 23 * 29, 32, 29);
    EXPECT_TRUE(d.ALgMotionDetect(inside.data(), w, h));
}

struct ThresholdCase {
    int width, height, level;
    int column, row;
    int samples;        // samples the detector takes in a cell
    int needed;         // changed samples that make the cell change
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
    auto detects = [&](const Picture& p) {
        d.ALgMotionDetect(reference.data(), tc.width, tc.height);  // reference := base
        Picture copy = p;
        return d.ALgMotionDetect(copy.data(), tc.width, tc.height);
    };
    EXPECT_FALSE(detects(base));
    EXPECT_FALSE(detects(ChangeSamples(base, samples, tc.needed - 1, diff)));
    EXPECT_TRUE(detects(ChangeSamples(base, samples, tc.needed, diff)));
    // A difference one short of the threshold does not count at all.
    EXPECT_FALSE(detects(ChangeSamples(base, samples, tc.samples, diff - 1)));

    // Pixels outside the sample pattern do not count: with only this cell
    // enabled, change every pixel of the cell that is not sampled.
    const std::vector<unsigned char> map = MapWithOnly(tc.column, tc.row);
    d.SetDetectMap(const_cast<unsigned char*>(map.data()));
    const int W = tc.width / 32, H = tc.height / 24;
    Picture others = base;
    std::vector<bool> sampled(base.size(), false);
    for (size_t s : samples) sampled[s] = true;
    for (int y = tc.row * H; y < (tc.row + 1) * H; ++y) {
        for (int x = tc.column * W; x < (tc.column + 1) * W; ++x) {
            const size_t at = (static_cast<size_t>(y) * tc.width + x) * 3;
            if (!sampled[at]) others[at + 1] ^= 0x80;
        }
    }
    EXPECT_FALSE(detects(others));
    EXPECT_TRUE(detects(ChangeSamples(base, samples, tc.needed, diff)));
}

INSTANTIATE_TEST_SUITE_P(
    Levels, MotionDetectorThreshold,
    ::testing::Values(
        // 352 x 288: cells 11 x 12, 6 rows of 6 samples; odd cell width, so
        // each sampled row starts one pixel further right.
        ThresholdCase{352, 288, 1, 7, 9, 36, 17},   // P = 66
        ThresholdCase{352, 288, 2, 7, 9, 36, 13},   // P = 33, floor of 50 applies
        ThresholdCase{352, 288, 0, 31, 23, 36, 25}, // P = 99
        // 1920 x 1080: cells 60 x 45, 23 rows of 30 samples, no floor.
        ThresholdCase{1920, 1080, 1, 12, 4, 690, 338},  // P = 1350
        ThresholdCase{1920, 1080, 2, 0, 0, 690, 169},   // P = 675
        ThresholdCase{1920, 1080, 0, 31, 23, 690, 507}, // P = 2025
        // 704 x 576 is wider than 640: cells 22 x 24, P = 132 at level 2,
        // 4 x 33 reaches it.
        ThresholdCase{704, 576, 2, 16, 12, 132, 33}));

}  // namespace
