/// The library's entry object: the process-wide registry of cameras.
///
/// The host obtains the manager with GetInstance, adds cameras to it, finds
/// them by id, name or IP address, and deletes them. The manager owns every
/// camera it hands out; a camera pointer kept after its deletion dangles.
/// One timer thread calls every camera's OnTimer about every 50 ms, which
/// drives recording segments, snapshot bursts and schedules.
///
/// Destroying the manager (delete GetInstance()) stops the timer, deletes
/// every camera and clears the singleton; a later GetInstance makes a new
/// manager.
/// \class CIpCameraManager
#pragma once

#include "camctl/Export.h"

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <list>
#include <memory>
#include <mutex>
#include <thread>

class CIpCamera;

class CAMCTL_API CIpCameraManager {
public:
    /// The singleton, made on first use (null if it cannot be made).
    static CIpCameraManager* GetInstance();

    ~CIpCameraManager();
    CIpCameraManager(const CIpCameraManager&) = delete;
    CIpCameraManager& operator=(const CIpCameraManager&) = delete;

    /// Adds a camera. id < 0 takes the next number of a process-wide counter.
    /// Null when a camera with that id exists.
    CIpCamera* AddIpCamera(int id, const char* name, const char* ip);
    /// First camera with the id; null when none.
    CIpCamera* GetIpCamera(int id);
    /// First camera whose name, or else whose IP address text, equals name
    /// without regard to letter case; null when none.
    CIpCamera* GetIpCamera(const char* name);
    /// 0 deleted, -1 not found.
    int DelIpCamera(int id);
    int DelIpCamera(const char* name);
    /// Deletes every camera; 0.
    int DelAllCamera();
    int GetCameraCnt();

    /// The singleton; null before the first GetInstance and after the
    /// singleton was destroyed.
    static std::atomic<CIpCameraManager*> pInstance;
    /// Next id handed out for id < 0.
    static std::atomic<int32_t> s_nNextCameraId;

private:
    CIpCameraManager();
    // The timer thread's body: one round over the cameras, then 50 ms pause.
    int OnTimer();
    // Unlinks the first camera matching pred; the caller deletes it.
    template <typename Pred>
    std::unique_ptr<CIpCamera> Unlink(Pred pred);

    std::atomic<int32_t> m_bRunning{0};
    // Guards m_pCameraList. Held by the timer thread for a whole round, so
    // a camera is never deleted while its OnTimer runs (cameras are unlinked
    // under it and destroyed after it is released).
    std::recursive_mutex m_hListLock;
    std::list<std::unique_ptr<CIpCamera>> m_pCameraList;
    // Wakes the timer thread early when the manager is destroyed.
    std::mutex m_StopLock;
    std::condition_variable m_StopSignal;
    std::thread m_hTimerThread;
};
