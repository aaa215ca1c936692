// A camera whose streams are opened and closed hundreds of times leaves
// nothing behind: no descriptor, no thread, no memory (the sanitizer build
// checks the last).
#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <string>

#include "camctl/IpCamera.h"
#include "camctl/IpCameraManager.h"
#include "camsim/server.h"
#include "support/engine_support.h"
#include "support/fixtures.h"

namespace {

using camctl_test::PictureLog;

int CountPicture(void*, void* user, unsigned char*, int, int) {
    static_cast<std::atomic<int>*>(user)->fetch_add(1, std::memory_order_relaxed);
    return 0;
}

std::unique_ptr<camsim::Server> StartSimulator(int width, int height) {
    camsim::Options o;
    o.pattern.width = width;
    o.pattern.height = height;
    auto server = std::make_unique<camsim::Server>(o);
    std::string error;
    if (!server->Start(&error)) {
        ADD_FAILURE() << "simulator: " << error;
        return nullptr;
    }
    return server;
}

TEST(CameraCycles, OpenCloseMainAndSub500Times_NoDescriptorOrThreadLeft) {
    auto mainSim = StartSimulator(640, 360);
    auto subSim = StartSimulator(320, 180);
    ASSERT_TRUE(mainSim && subSim);
    CIpCameraManager* mgr = CIpCameraManager::GetInstance();
    ASSERT_NE(mgr, nullptr);
    CIpCamera* cam = mgr->AddIpCamera(71, "cycles", "127.0.0.1");
    ASSERT_NE(cam, nullptr);
    std::atomic<int> pictures{0};

    // One cycle: main and sub stream up, decoding of the main one on; every
    // tenth cycle waits for a picture so that the decode path runs too.
    // (Closing the main stream drops the host's callback: set it each time.)
    auto cycle = [&](bool waitPicture) {
        ASSERT_EQ(cam->OpenMainStreamVideo(mainSim->Url().c_str()), 0);
        cam->SetVideoBufCallBack(&CountPicture, &pictures);
        ASSERT_EQ(cam->OpenSubStreamVideo(subSim->Url().c_str()), 0);
        ASSERT_EQ(cam->SetDecodeEnable(true, true), 0);
        if (waitPicture) {
            const int before = pictures.load();
            EXPECT_TRUE(PictureLog::WaitUntil([&] { return pictures.load() > before; }, 5000));
        }
        EXPECT_EQ(cam->CloseSubStreamVideo(), 0);
        EXPECT_EQ(cam->CloseMainStreamVideo(), 0);
    };
    // The first cycle initialises the engine and the manager's timer once.
    cycle(true);
    if (HasFatalFailure()) return;
    // The simulator's sending threads end on their next send after a close.
    PictureLog::WaitUntil([&] { return mainSim->ActiveClients() == 0 && subSim->ActiveClients() == 0; }, 3000);
    const int fds0 = camctl_test::CountOpenFds(), threads0 = camctl_test::CountThreads();

    constexpr int kCycles = 500;
    for (int i = 0; i < kCycles; ++i) {
        cycle(i % 10 == 0);
        if (HasFatalFailure()) break;
    }
    EXPECT_GE(pictures.load(), kCycles / 10);
    EXPECT_EQ(mainSim->ConnectionsAccepted(), kCycles + 1);
    EXPECT_EQ(subSim->ConnectionsAccepted(), kCycles + 1);
    const bool settled = PictureLog::WaitUntil(
        [&] { return camctl_test::CountOpenFds() <= fds0 && camctl_test::CountThreads() <= threads0; }, 3000);
    EXPECT_TRUE(settled) << "descriptors " << fds0 << " -> " << camctl_test::CountOpenFds() << ", threads "
                         << threads0 << " -> " << camctl_test::CountThreads();
    EXPECT_EQ(mgr->DelIpCamera(71), 0);
}

}  // namespace
