/// A camera's two weekly schedules: the recording schedule (auto-save times)
/// and the motion-detection schedule (motion-save times). The camera
/// manager's timer ticks it about every 50 ms; about once a second it checks
/// the local time against each schedule and reports every change of state to
/// its camera (NotifyAutoSave / NotifyMotionSave).
/// \class CTimeManager
#pragma once

#include "camctl/Export.h"

#include <atomic>
#include <cstdint>
#include <ctime>
#include <memory>
#include <mutex>
#include <vector>

class CIpCamera;

/// One weekly schedule entry: eleven signed 32-bit integers.
struct _record_time_t {
    int32_t bWeekDay[7];  ///< 0 Sunday .. 6 Saturday; non-zero: applies that day
    int32_t nStartHour;   ///< 0..23
    int32_t nStartMinute; ///< 0..59
    int32_t nEndHour;     ///< 0..23
    int32_t nEndMinute;   ///< 0..59
};

class CAMCTL_API CTimeManager {
public:
    /// Wall clock in seconds since 1970; the local time is derived from it.
    typedef time_t (*ClockFn)();

    CTimeManager();
    ~CTimeManager();
    CTimeManager(const CTimeManager&) = delete;
    CTimeManager& operator=(const CTimeManager&) = delete;

    /// 0, or -1 if already initialised. owner is the CIpCamera to notify.
    int Init(void* owner);
    /// 0, or -1 if not initialised. Drops both schedules.
    int Free();
    /// Both reported states back to off and the tick count to 0 (no
    /// notification is sent), so a schedule that is on is reported again at
    /// the next check.
    void Reset();

    int AddAutoSaveTime(_record_time_t* r);
    int AddMotionSaveTime(_record_time_t* r);
    int ResetAutoSaveTime();
    int ResetMotionSaveTime();

    /// True when the local time lies inside an entry (both ends inclusive to
    /// the minute; seconds ignored).
    bool CheckAutoSaveTime();
    bool CheckMotionSaveTime();

    /// One timer tick: 0, or -1 if not initialised or without owner. The
    /// first check comes at tick 80, then one every 20 ticks.
    int OnTimer();

    /// Replaces the clock (null restores the system clock).
    void SetClock(ClockFn now);

    bool GetAutoSaveOn() const { return m_bAutoSaveOn.load(std::memory_order_relaxed); }
    bool GetMotionSaveOn() const { return m_bMotionSaveOn.load(std::memory_order_relaxed); }
    int GetTick() const { return m_nTick.load(std::memory_order_relaxed); }

private:
    using Schedule = std::vector<_record_time_t>;

    bool Matches(const std::unique_ptr<Schedule>& list);

    std::atomic<CIpCamera*> m_pOwner{nullptr};
    std::atomic<int32_t> m_bInit{0};
    std::atomic<int32_t> m_nTick{0};  // timer thread; Reset from a host thread
    // Guards both schedule lists (host threads add and reset, the timer
    // thread checks). Null before Init and after Free.
    std::mutex m_ListLock;
    std::unique_ptr<Schedule> m_pAutoSaveList;
    std::unique_ptr<Schedule> m_pMotionSaveList;
    std::atomic<bool> m_bAutoSaveOn{false};
    std::atomic<bool> m_bMotionSaveOn{false};
    std::atomic<ClockFn> m_pfnClock{nullptr};
};
