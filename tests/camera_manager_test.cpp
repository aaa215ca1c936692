// Faults caught: wrong id counter, duplicate ids accepted, wrong or prefix lookups, lost deletes, stale singleton, races, unfinished recordings.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"  // GCC 12 false positive in <regex> under sanitizers
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camsim/server.h"
#include "support/fixtures.h"

namespace {

class CameraManagerTest : public ::testing::Test {
protected:
    void SetUp() override {
        mgr_ = CIpCameraManager::GetInstance();
        ASSERT_NE(mgr_, nullptr);
        mgr_->DelAllCamera();
        CIpCameraManager::s_nNextCameraId = 0;
    }
    void TearDown() override { mgr_->DelAllCamera(); }
    CIpCameraManager* mgr_ = nullptr;
};

TEST_F(CameraManagerTest, Add_CounterSkipsTakenIdsAndDuplicatesAreRefused) {
    CIpCamera* a = mgr_->AddIpCamera(-1, "a", "10.0.0.1");
    CIpCamera* b = mgr_->AddIpCamera(-1, "b", "10.0.0.2");
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->GetId(), 0);
    EXPECT_EQ(b->GetId(), 1);
    EXPECT_STREQ(b->GetName(), "b");
    EXPECT_STREQ(b->GetIpAddr(), "10.0.0.2");
    ASSERT_NE(mgr_->AddIpCamera(5, "five", "10.0.0.5"), nullptr);
    EXPECT_EQ(mgr_->AddIpCamera(5, "again", "10.0.0.6"), nullptr);
    EXPECT_EQ(mgr_->GetCameraCnt(), 3);
    EXPECT_STREQ(mgr_->GetIpCamera(5)->GetName(), "five");

    // The counter ignores ids given explicitly: each taken one costs a refusal.
    mgr_->DelAllCamera();
    CIpCameraManager::s_nNextCameraId = 0;
    ASSERT_NE(mgr_->AddIpCamera(0, "zero", "10.0.0.1"), nullptr);
    ASSERT_NE(mgr_->AddIpCamera(1, "one", "10.0.0.2"), nullptr);
    EXPECT_EQ(mgr_->AddIpCamera(-1, "x", "10.0.0.3"), nullptr);
    EXPECT_EQ(mgr_->AddIpCamera(-1, "x", "10.0.0.3"), nullptr);
    CIpCamera* c = mgr_->AddIpCamera(-1, "x", "10.0.0.3");
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->GetId(), 2);
}

TEST_F(CameraManagerTest, Lookup_ByIdNameOrAddressIgnoringCaseAndSoftFailures) {
    EXPECT_EQ(mgr_->GetIpCamera(0), nullptr);
    EXPECT_EQ(mgr_->GetIpCamera("cam"), nullptr);
    EXPECT_EQ(mgr_->GetIpCamera(nullptr), nullptr);
    EXPECT_EQ(mgr_->DelIpCamera(0), -1);
    EXPECT_EQ(mgr_->DelIpCamera("cam"), -1);
    EXPECT_EQ(mgr_->DelAllCamera(), 0);

    CIpCamera* cam1 = mgr_->AddIpCamera(7, "cam1", "192.168.1.10");
    CIpCamera* cam2 = mgr_->AddIpCamera(8, "Lobby", "192.168.1.11");
    const struct { const char* key; CIpCamera* found; } rows[] = {
        {"192.168.1.10", cam1}, {"CAM1", cam1}, {"lobby", cam2}, {"192.168.1.1", nullptr}};
    for (const auto& r : rows) EXPECT_EQ(mgr_->GetIpCamera(r.key), r.found) << r.key;
    EXPECT_EQ(mgr_->GetIpCamera(7), cam1);
    EXPECT_EQ(mgr_->GetIpCamera(9), nullptr);
    // List order decides: a camera named like another's address comes later.
    CIpCamera* impostor = mgr_->AddIpCamera(9, "192.168.1.11", "10.1.1.1");
    EXPECT_EQ(mgr_->GetIpCamera("192.168.1.11"), cam2);
    EXPECT_EQ(mgr_->DelIpCamera("192.168.1.11"), 0);
    EXPECT_EQ(mgr_->GetIpCamera("192.168.1.11"), impostor);
    EXPECT_EQ(mgr_->DelIpCamera(7), 0);
    EXPECT_EQ(mgr_->DelIpCamera(7), -1);
    EXPECT_EQ(mgr_->GetIpCamera("cam1"), nullptr);
    EXPECT_EQ(mgr_->GetCameraCnt(), 1);
}

TEST(CameraManagerSingletonTest, Destroy_ClearsTheInstanceAndANewOneWorks) {
    CIpCameraManager* first = CIpCameraManager::GetInstance();
    ASSERT_NE(first, nullptr);
    EXPECT_EQ(CIpCameraManager::GetInstance(), first);
    ASSERT_NE(first->AddIpCamera(-1, "doomed", "1.2.3.4"), nullptr);
    delete first;
    EXPECT_EQ(CIpCameraManager::pInstance.load(), nullptr);
    CIpCameraManager* second = CIpCameraManager::GetInstance();
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(CIpCameraManager::pInstance.load(), second);
    EXPECT_EQ(second->GetCameraCnt(), 0) << "cameras died with the old manager";
    EXPECT_NE(second->AddIpCamera(-1, "fresh", "1.2.3.5"), nullptr);
    delete second;
    EXPECT_EQ(CIpCameraManager::pInstance.load(), nullptr);
}

// Four threads add, find and delete cameras (a quarter of them streaming and
// recording) while the timer walks them; under TSan this finds races.
TEST(CameraManagerStressTest, Concurrent_AddFindDeleteWhileTimerRuns) {
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    mgr->DelAllCamera();
    camctl_test::TempDir dir;
    camsim::Options o;
    o.pattern.width = 160;
    o.pattern.height = 120;
    camsim::Server sim(o);
    ASSERT_TRUE(sim.Start());
    const std::string url = sim.Url();
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            for (int round = 0; round < 3; ++round) {
                std::vector<CIpCamera*> recording;  // cameras that stream and record
                for (int i = 0; i < 8; ++i) {
                    const int id = 1000 + t * 100 + i;
                    CIpCamera* cam = mgr->AddIpCamera(id, ("stress" + std::to_string(id)).c_str(), "127.0.0.1");
                    if (!cam) {
                        ++failures;
                        continue;
                    }
                    cam->SetSaveDir(dir.path().c_str(), nullptr);
                    cam->m_nAutoRecordSec = 1;
                    cam->SaveImage(2, 2);
                    if (i % 4 != round % 4) continue;
                    if (cam->OpenMainStreamVideo(url.c_str()) != 0) ++failures;
                    cam->SetDecodeEnable(true, true);
                    cam->StartSaveAvi(1);
                    recording.push_back(cam);
                }
                for (CIpCamera* cam : recording) {  // a key frame opens the file
                    const std::string prefix = "/" + std::string(cam->GetName()) + "+" + std::to_string(cam->GetId()) + "_";
                    if (!camctl_test::WaitUntil([&] {
                            for (const std::string& f : camctl_test::ListFiles(dir.path()))
                                if (f.find(prefix) != std::string::npos) return true;
                            return false;
                        }))
                        ++failures;
                }
                for (int i = 0; i < 8; ++i) {
                    const int id = 1000 + t * 100 + i;
                    const std::string name = "STRESS" + std::to_string(id);
                    if (mgr->GetIpCamera(name.c_str()) != mgr->GetIpCamera(id)) ++failures;
                    if ((i % 2 ? mgr->DelIpCamera(id) : mgr->DelIpCamera(name.c_str())) != 0) ++failures;
                }
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(mgr->GetCameraCnt(), 0);
    EXPECT_GT(sim.ConnectionsAccepted(), 0);
    int provisional = 0, finished = 0;
    const std::regex open(R"(.*-\d{6}_1\.avi$)"), done(R"(.*-\d{6}_1_\d+\.avi$)");
    for (const std::string& f : camctl_test::ListFiles(dir.path())) {
        provisional += std::regex_match(f, open);
        finished += std::regex_match(f, done);
    }
    EXPECT_EQ(provisional, 0) << "every recording is finished and named";
    EXPECT_GE(finished, 24) << ::testing::PrintToString(camctl_test::ListFiles(dir.path()));
    delete mgr;
}

}  // namespace
