// The camera registry and its timer thread.
#include "camctl/IpCameraManager.h"

#include <strings.h>

#include <chrono>
#include <new>
#include <vector>

#include "camctl/IpCamera.h"
#include "runtime/os.h"

std::atomic<CIpCameraManager*> CIpCameraManager::pInstance{nullptr};
std::atomic<int32_t> CIpCameraManager::s_nNextCameraId{0};

namespace {

// Pause between two timer rounds.
constexpr auto kTimerPause = std::chrono::milliseconds(50);

// Serialises the making of the singleton.
std::mutex& InstanceLock() {
    static std::mutex lock;
    return lock;
}

bool MatchesText(CIpCamera* cam, const char* text) { return cam->MatchesNameOrIp(text); }

}  // namespace

CIpCameraManager* CIpCameraManager::GetInstance() {
    CIpCameraManager* mgr = pInstance.load(std::memory_order_acquire);
    if (mgr) return mgr;
    std::lock_guard<std::mutex> lock(InstanceLock());
    mgr = pInstance.load(std::memory_order_acquire);
    if (!mgr) mgr = new (std::nothrow) CIpCameraManager();  // stores itself in pInstance
    return mgr;
}

CIpCameraManager::CIpCameraManager() {
    m_bRunning.store(1, std::memory_order_relaxed);
    m_hTimerThread = std::thread([this] {
        os_thread_set_name("camctl/timer");
        OnTimer();
    });
    pInstance.store(this, std::memory_order_release);
}

CIpCameraManager::~CIpCameraManager() {
    {
        std::lock_guard<std::mutex> lock(m_StopLock);
        m_bRunning.store(0, std::memory_order_relaxed);
    }
    m_StopSignal.notify_all();
    if (m_hTimerThread.joinable()) m_hTimerThread.join();
    DelAllCamera();
    CIpCameraManager* self = this;
    pInstance.compare_exchange_strong(self, nullptr, std::memory_order_acq_rel);
}

int CIpCameraManager::OnTimer() {
    while (m_bRunning.load(std::memory_order_relaxed)) {
        {
            std::lock_guard<std::recursive_mutex> lock(m_hListLock);
            for (auto& cam : m_pCameraList) {
                if (cam) cam->OnTimer();
            }
        }
        std::unique_lock<std::mutex> lock(m_StopLock);
        m_StopSignal.wait_for(lock, kTimerPause,
                              [this] { return !m_bRunning.load(std::memory_order_relaxed); });
    }
    return 0;
}

CIpCamera* CIpCameraManager::AddIpCamera(int id, const char* name, const char* ip) {
    if (id < 0) id = s_nNextCameraId.fetch_add(1, std::memory_order_relaxed);
    if (GetIpCamera(id)) return nullptr;
    std::unique_ptr<CIpCamera> cam(new (std::nothrow) CIpCamera());
    if (!cam) return nullptr;
    cam->SetInfo(id, name ? name : "", ip ? ip : "");
    CIpCamera* raw = cam.get();
    std::lock_guard<std::recursive_mutex> lock(m_hListLock);
    m_pCameraList.push_back(std::move(cam));
    return raw;
}

CIpCamera* CIpCameraManager::GetIpCamera(int id) {
    std::lock_guard<std::recursive_mutex> lock(m_hListLock);
    for (auto& cam : m_pCameraList) {
        if (cam && cam->GetId() == id) return cam.get();
    }
    return nullptr;
}

CIpCamera* CIpCameraManager::GetIpCamera(const char* name) {
    if (!name) return nullptr;
    std::lock_guard<std::recursive_mutex> lock(m_hListLock);
    for (auto& cam : m_pCameraList) {
        if (cam && MatchesText(cam.get(), name)) return cam.get();
    }
    return nullptr;
}

template <typename Pred>
std::unique_ptr<CIpCamera> CIpCameraManager::Unlink(Pred pred) {
    std::lock_guard<std::recursive_mutex> lock(m_hListLock);
    for (auto it = m_pCameraList.begin(); it != m_pCameraList.end(); ++it) {
        if (*it && pred(it->get())) {
            std::unique_ptr<CIpCamera> cam = std::move(*it);
            m_pCameraList.erase(it);
            return cam;
        }
    }
    return nullptr;
}

// A camera is destroyed after the list lock is released: its streams'
// threads may be inside a host callback that itself calls the manager.
int CIpCameraManager::DelIpCamera(int id) {
    std::unique_ptr<CIpCamera> cam = Unlink([id](CIpCamera* c) { return c->GetId() == id; });
    return cam ? 0 : -1;
}

int CIpCameraManager::DelIpCamera(const char* name) {
    if (!name) return -1;
    std::unique_ptr<CIpCamera> cam = Unlink([name](CIpCamera* c) { return MatchesText(c, name); });
    return cam ? 0 : -1;
}

int CIpCameraManager::DelAllCamera() {
    std::list<std::unique_ptr<CIpCamera>> doomed;
    {
        std::lock_guard<std::recursive_mutex> lock(m_hListLock);
        doomed.swap(m_pCameraList);
    }
    doomed.clear();
    return 0;
}

int CIpCameraManager::GetCameraCnt() {
    std::lock_guard<std::recursive_mutex> lock(m_hListLock);
    return static_cast<int>(m_pCameraList.size());
}
