// Weekly record and motion schedules of a camera.
#include "camctl/TimeManager.h"

#include "camctl/IpCamera.h"

namespace {

// Ticks before the first check, and ticks between checks.
constexpr int32_t kFirstCheckAfter = 60;
constexpr int32_t kCheckEvery = 20;

bool EntryMatches(const _record_time_t& e, const struct tm& now) {
    if (now.tm_wday < 0 || now.tm_wday > 6 || e.bWeekDay[now.tm_wday] == 0) return false;
    const int h = now.tm_hour;
    const int m = now.tm_min;
    if (h < e.nStartHour || h > e.nEndHour) return false;
    if (h == e.nStartHour && m < e.nStartMinute) return false;
    if (h == e.nEndHour && m > e.nEndMinute) return false;
    return true;
}

}  // namespace

CTimeManager::CTimeManager() = default;

CTimeManager::~CTimeManager() { Free(); }

int CTimeManager::Init(void* owner) {
    std::lock_guard<std::mutex> lock(m_ListLock);
    if (m_bInit.load(std::memory_order_relaxed)) return -1;
    m_pAutoSaveList = std::make_unique<Schedule>();
    m_pMotionSaveList = std::make_unique<Schedule>();
    m_pOwner.store(static_cast<CIpCamera*>(owner), std::memory_order_relaxed);
    m_nTick.store(0, std::memory_order_relaxed);
    m_bInit.store(1, std::memory_order_relaxed);
    return 0;
}

int CTimeManager::Free() {
    std::lock_guard<std::mutex> lock(m_ListLock);
    if (!m_bInit.load(std::memory_order_relaxed)) return -1;
    m_pAutoSaveList.reset();
    m_pMotionSaveList.reset();
    m_bInit.store(0, std::memory_order_relaxed);
    return 0;
}

void CTimeManager::Reset() {
    m_bAutoSaveOn.store(false, std::memory_order_relaxed);
    m_bMotionSaveOn.store(false, std::memory_order_relaxed);
    m_nTick.store(0, std::memory_order_relaxed);
}

int CTimeManager::AddAutoSaveTime(_record_time_t* r) {
    std::lock_guard<std::mutex> lock(m_ListLock);
    if (!m_pAutoSaveList || !r) return -1;
    m_pAutoSaveList->push_back(*r);
    return 0;
}

int CTimeManager::AddMotionSaveTime(_record_time_t* r) {
    std::lock_guard<std::mutex> lock(m_ListLock);
    if (!m_pMotionSaveList || !r) return -1;
    m_pMotionSaveList->push_back(*r);
    return 0;
}

int CTimeManager::ResetAutoSaveTime() {
    std::lock_guard<std::mutex> lock(m_ListLock);
    if (!m_pAutoSaveList) return -1;
    m_pAutoSaveList = std::make_unique<Schedule>();
    return 0;
}

int CTimeManager::ResetMotionSaveTime() {
    std::lock_guard<std::mutex> lock(m_ListLock);
    if (!m_pMotionSaveList) return -1;
    m_pMotionSaveList = std::make_unique<Schedule>();
    return 0;
}

void CTimeManager::SetClock(ClockFn now) { m_pfnClock.store(now, std::memory_order_relaxed); }

bool CTimeManager::Matches(const std::unique_ptr<Schedule>& list) {
    ClockFn clock = m_pfnClock.load(std::memory_order_relaxed);
    const time_t t = clock ? clock() : time(nullptr);
    struct tm now {};
    if (!localtime_r(&t, &now)) return false;
    std::lock_guard<std::mutex> lock(m_ListLock);
    if (!list) return false;
    for (const _record_time_t& e : *list) {
        if (EntryMatches(e, now)) return true;
    }
    return false;
}

bool CTimeManager::CheckAutoSaveTime() { return Matches(m_pAutoSaveList); }

bool CTimeManager::CheckMotionSaveTime() { return Matches(m_pMotionSaveList); }

int CTimeManager::OnTimer() {
    CIpCamera* owner = m_pOwner.load(std::memory_order_relaxed);
    if (!m_bInit.load(std::memory_order_relaxed) || !owner) return -1;
    const int32_t tick = m_nTick.fetch_add(1, std::memory_order_relaxed) + 1;
    if (tick <= kFirstCheckAfter || tick % kCheckEvery != 0) return 0;

    const bool autoSave = CheckAutoSaveTime();
    if (autoSave != m_bAutoSaveOn.load(std::memory_order_relaxed)) {
        m_bAutoSaveOn.store(autoSave, std::memory_order_relaxed);
        owner->NotifyAutoSave(autoSave ? 1 : 0);
    }
    const bool motionSave = CheckMotionSaveTime();
    if (motionSave != m_bMotionSaveOn.load(std::memory_order_relaxed)) {
        m_bMotionSaveOn.store(motionSave, std::memory_order_relaxed);
        owner->NotifyMotionSave(motionSave ? 1 : 0);
    }
    return 0;
}
