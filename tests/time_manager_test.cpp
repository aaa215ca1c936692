// Faults caught: off-by-one minute edges, wrong weekday, overnight spans, wrong tick cadence, lost resets, calls accepted uninitialised.
#include <gtest/gtest.h>

#include <ctime>

#include "camctl/IpCamera.h"
#include "camctl/TimeManager.h"
#include "support/fixtures.h"

namespace {

time_t g_now = 0;
time_t FakeClock() { return g_now; }

// Local time on a day of March 2024 (the 4th is a Monday).
time_t At(int day, int hour, int minute, int second = 0) {
    struct tm t {};
    t.tm_year = 124, t.tm_mon = 2, t.tm_mday = day, t.tm_hour = hour, t.tm_min = minute, t.tm_sec = second;
    t.tm_isdst = -1;
    return mktime(&t);
}

_record_time_t Entry(int weekday, int sh, int sm, int eh, int em) {
    _record_time_t r{};
    r.bWeekDay[weekday] = 1;
    r.nStartHour = sh, r.nStartMinute = sm, r.nEndHour = eh, r.nEndMinute = em;
    return r;
}

class TimeManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        g_now = At(4, 12, 0);
        tm_.SetClock(&FakeClock);
        ASSERT_EQ(camera_.SetSaveDir(dir_.path().c_str(), nullptr), 0);  // keeps the owner's reactions in here
        ASSERT_EQ(tm_.Init(&camera_), 0);
    }
    // Ticks until the schedule's state is `wanted`; the tick count it took, 0 if never within limit.
    int TicksUntilAutoSaveIs(bool wanted, int limit) {
        for (int i = 1; i <= limit; ++i) {
            EXPECT_EQ(tm_.OnTimer(), 0);
            if (tm_.GetAutoSaveOn() == wanted) return i;
        }
        return 0;
    }
    camctl_test::TempDir dir_;
    CIpCamera camera_;
    CTimeManager tm_;
};

TEST_F(TimeManagerTest, Match_WindowsInclusiveToTheMinuteAndPerWeekday) {
    _record_time_t monday = Entry(1, 8, 0, 17, 30);
    ASSERT_EQ(tm_.AddAutoSaveTime(&monday), 0);
    const struct { time_t when; bool match; } cases[] = {
        {At(4, 7, 59, 59), false}, {At(4, 8, 0, 0), true},    {At(4, 12, 0), true}, {At(4, 17, 30, 59), true},
        {At(4, 17, 31, 0), false}, {At(5, 9, 0), false},      {At(11, 8, 0), true}, {At(3, 12, 0), false},
    };
    for (const auto& c : cases) {
        g_now = c.when;
        EXPECT_EQ(tm_.CheckAutoSaveTime(), c.match) << ctime(&c.when);
        EXPECT_FALSE(tm_.CheckMotionSaveTime()) << "the motion list is separate";
    }
}

TEST_F(TimeManagerTest, Match_SpanOverMidnightNeedsTwoEntries) {
    _record_time_t wrapped = Entry(1, 22, 0, 2, 0), evening = Entry(1, 22, 0, 23, 59), morning = Entry(2, 0, 0, 2, 0);
    ASSERT_EQ(tm_.AddMotionSaveTime(&wrapped), 0);
    for (time_t t : {At(4, 23, 0), At(4, 1, 0), At(4, 22, 0), At(4, 2, 0)}) {
        g_now = t;
        EXPECT_FALSE(tm_.CheckMotionSaveTime());
    }
    ASSERT_EQ(tm_.AddMotionSaveTime(&evening), 0);
    ASSERT_EQ(tm_.AddMotionSaveTime(&morning), 0);
    for (auto [t, match] : {std::pair<time_t, bool>{At(4, 23, 30), true}, {At(5, 1, 59), true}, {At(5, 2, 1), false}}) {
        g_now = t;
        EXPECT_EQ(tm_.CheckMotionSaveTime(), match) << ctime(&t);
    }
    ASSERT_EQ(tm_.ResetMotionSaveTime(), 0);
    g_now = At(4, 23, 30);
    EXPECT_FALSE(tm_.CheckMotionSaveTime()) << "an emptied list matches nothing";
}

TEST_F(TimeManagerTest, Lifecycle_UninitialisedOrFreedManagerRefusesEverything) {
    _record_time_t r = Entry(1, 0, 0, 23, 59);
    CTimeManager fresh;
    for (int rc : {fresh.AddAutoSaveTime(&r), fresh.AddMotionSaveTime(&r), fresh.ResetAutoSaveTime(),
                   fresh.ResetMotionSaveTime(), fresh.OnTimer(), fresh.Free()})
        EXPECT_EQ(rc, -1);
    EXPECT_FALSE(fresh.CheckAutoSaveTime());
    EXPECT_EQ(tm_.Init(&camera_), -1) << "second Init";
    ASSERT_EQ(tm_.AddAutoSaveTime(&r), 0);
    EXPECT_EQ(tm_.Free(), 0);
    EXPECT_EQ(tm_.AddAutoSaveTime(&r), -1) << "after Free";
    EXPECT_EQ(tm_.OnTimer(), -1);
    EXPECT_EQ(tm_.Free(), -1);
    CTimeManager ownerless;
    ASSERT_EQ(ownerless.Init(nullptr), 0);
    EXPECT_EQ(ownerless.OnTimer(), -1) << "no owner to notify";
}

TEST_F(TimeManagerTest, OnTimer_FirstCheckAtTick80ThenEvery20AndResetStartsOver) {
    _record_time_t all = Entry(1, 0, 0, 23, 59);
    ASSERT_EQ(tm_.AddAutoSaveTime(&all), 0);
    EXPECT_EQ(TicksUntilAutoSaveIs(true, 200), 80);
    g_now = At(5, 12, 0);  // off the schedule: shows at the next multiple of 20
    for (int i = 0; i < 5; ++i) ASSERT_EQ(tm_.OnTimer(), 0);
    EXPECT_TRUE(tm_.GetAutoSaveOn());
    EXPECT_EQ(TicksUntilAutoSaveIs(false, 100), 15);
    EXPECT_EQ(tm_.GetTick(), 100);

    g_now = At(4, 12, 0);
    tm_.Reset();
    EXPECT_FALSE(tm_.GetAutoSaveOn());
    EXPECT_EQ(tm_.GetTick(), 0);
    EXPECT_EQ(TicksUntilAutoSaveIs(true, 100), 80);
    ASSERT_EQ(tm_.ResetAutoSaveTime(), 0);  // emptied while on: off at the next check
    EXPECT_EQ(TicksUntilAutoSaveIs(false, 40), 20);
}

}  // namespace
