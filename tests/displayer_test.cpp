// Video displayer and drawing surfaces: memory pixels and a real X window.
#include <gtest/gtest.h>
// Xlib after gtest: its None/Bool/Status macros would clash with gtest's names.
#include <X11/Xlib.h>
#include <X11/Xutil.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "camctl/CDC.h"
#include "camctl/VideoDisplayer.h"

extern char** environ;

namespace {

constexpr uint32_t kRed = 0xff0000;
constexpr uint32_t kBlue = 0x0000ff;
constexpr uint32_t kGreen = 0x00ff00;

// A BGR24 picture stored bottom-up whose upper half (as seen) is red and
// lower half blue.
std::vector<unsigned char> RedOverBlue(int w, int h) {
    std::vector<unsigned char> pic(static_cast<size_t>(w) * h * 3);
    for (int row = 0; row < h; ++row) {          // row 0 is the bottom line
        const bool upper = row >= h / 2;
        unsigned char* p = &pic[static_cast<size_t>(row) * w * 3];
        for (int x = 0; x < w; ++x, p += 3) {
            p[0] = upper ? 0 : 255;  // blue
            p[1] = 0;
            p[2] = upper ? 255 : 0;  // red
        }
    }
    return pic;
}

// Channel distance small enough for bilinear scaling away from edges.
bool Near(uint32_t got, uint32_t want, int tol = 8) {
    for (int s = 0; s < 24; s += 8) {
        int a = (got >> s) & 0xff, b = (want >> s) & 0xff;
        if (std::abs(a - b) > tol) return false;
    }
    return true;
}

TEST(DisplayerTest, Display_PicturePaintedUprightIntoAreaLessMargins) {
    CMemoryDC dc(700, 500);
    dc.Fill(kGreen);
    std::vector<unsigned char> pic = RedOverBlue(320, 240);
    CVideoDisplayer disp;
    ASSERT_EQ(disp.Start(&dc, 644, 483, 320, 240), 0);
    ASSERT_EQ(disp.DisplayVideoBuffer(pic.data(), 320, 240), 0);
    EXPECT_EQ(dc.GetPaintCount(), 1);

    EXPECT_TRUE(Near(dc.GetPixel(0, 0), kRed)) << std::hex << dc.GetPixel(0, 0);
    EXPECT_TRUE(Near(dc.GetPixel(639, 200), kRed));
    EXPECT_TRUE(Near(dc.GetPixel(320, 300), kBlue));
    EXPECT_TRUE(Near(dc.GetPixel(639, 479), kBlue));
    // The right 4 columns and bottom 3 rows of the area stay as they were.
    for (int y : {0, 240, 479}) {
        for (int x = 640; x < 700; x += 20) EXPECT_EQ(dc.GetPixel(x, y), kGreen) << x << "," << y;
    }
    for (int x : {0, 320, 639}) {
        for (int y = 480; y < 500; y += 5) EXPECT_EQ(dc.GetPixel(x, y), kGreen) << x << "," << y;
    }
}

TEST(DisplayerTest, Lifecycle_NotStartedOrWrongSizeDrawsNothing) {
    CMemoryDC dc(100, 100);
    std::vector<unsigned char> pic = RedOverBlue(64, 48);
    CVideoDisplayer disp;
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), -1) << "before Start";
    EXPECT_EQ(disp.Stop(), -1);
    ASSERT_EQ(disp.Start(&dc, 84, 63, 64, 48), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 32, 24), -1) << "size other than Start's";
    EXPECT_EQ(dc.GetPaintCount(), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48, 1), -1) << "planar, started for packed";
    EXPECT_EQ(dc.GetPaintCount(), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), 0);
    EXPECT_EQ(dc.GetPaintCount(), 1);
    EXPECT_EQ(disp.Stop(), 0);
    EXPECT_EQ(disp.Stop(), -1) << "second Stop";
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), -1) << "after Stop";
    EXPECT_EQ(dc.GetPaintCount(), 1);

    // Start on a started displayer restarts it with the new sizes.
    std::vector<unsigned char> small = RedOverBlue(32, 24);
    ASSERT_EQ(disp.Start(&dc, 84, 63, 64, 48), 0);
    ASSERT_EQ(disp.Start(&dc, 44, 43, 32, 24), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(small.data(), 32, 24), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), -1);
}

TEST(DisplayerTest, Display_AreaLargerThanSurfaceShowsItsTopLeft) {
    CMemoryDC dc(320, 200);
    std::vector<unsigned char> pic = RedOverBlue(160, 120);
    CVideoDisplayer disp;
    ASSERT_EQ(disp.Start(&dc, 644, 483, 160, 120), 0);
    ASSERT_EQ(disp.DisplayVideoBuffer(pic.data(), 160, 120), 0);
    // The stretched picture is 640x480; the surface shows its top 200 rows.
    EXPECT_TRUE(Near(dc.GetPixel(0, 0), kRed));
    EXPECT_TRUE(Near(dc.GetPixel(319, 199), kRed));
}

TEST(DisplayerTest, Display_PlanarPictureWhenStartedForYuv) {
    const int w = 64, h = 48;
    // Y/U/V of pure blue (BT.601 limited range): Y 41, U 240, V 110.
    std::vector<unsigned char> yuv(static_cast<size_t>(w) * h * 3 / 2);
    std::memset(yuv.data(), 41, static_cast<size_t>(w) * h);
    std::memset(yuv.data() + w * h, 240, static_cast<size_t>(w) * h / 4);
    std::memset(yuv.data() + w * h * 5 / 4, 110, static_cast<size_t>(w) * h / 4);
    CMemoryDC dc(132, 99);
    CVideoDisplayer disp;
    ASSERT_EQ(disp.Start(&dc, 132, 99, w, h, 1), 0);
    ASSERT_EQ(disp.DisplayVideoBuffer(yuv.data(), w, h), 0);
    EXPECT_TRUE(Near(dc.GetPixel(60, 40), kBlue, 16)) << std::hex << dc.GetPixel(60, 40);
    EXPECT_EQ(dc.GetPixel(130, 40), 0u) << "margin untouched";
}

TEST(DisplayerTest, DrawRectFrame_PaintsBorderOnly) {
    const int stride = 12, w = 10, h = 8, rows = 9;
    std::vector<unsigned char> pic(static_cast<size_t>(stride) * rows * 3, 7);
    DrawRectFrame(pic.data(), stride, 0, w, h, 1, 2);
    auto px = [&](int x, int y) { return &pic[(static_cast<size_t>(y) * stride + x) * 3]; };
    for (int y = 0; y < rows; ++y) {
        for (int x = 0; x < stride; ++x) {
            const bool inArea = x < w && y < h;
            const bool border = inArea && (y < 2 || y >= h - 2 || x < 2 || x >= w - 2);
            const unsigned char* p = px(x, y);
            if (border) {
                EXPECT_TRUE(p[0] == 0 && p[1] == 0 && p[2] == 255) << x << "," << y;
            } else {
                EXPECT_TRUE(p[0] == 7 && p[1] == 7 && p[2] == 7) << x << "," << y;
            }
        }
    }
    DrawRectFrame(pic.data(), stride, 0, w, h, 0, 1);
    EXPECT_TRUE(px(0, 0)[0] == 255 && px(0, 0)[1] == 255 && px(0, 0)[2] == 255) << "white";
    EXPECT_EQ(px(1, 1)[0], 0) << "inside the thin frame: the red one remains";
}

// --- X window surface under a private Xvfb server

class XvfbServer {
public:
    XvfbServer() {
        if (access("/usr/bin/Xvfb", X_OK) != 0) return;
        int fds[2];
        if (pipe(fds) != 0) return;
        std::string fd = std::to_string(fds[1]);
        const char* argv[] = {"Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "800x600x24",
                              "-nolisten", "tcp", nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        if (posix_spawn(&pid_, "/usr/bin/Xvfb", &actions, nullptr, const_cast<char**>(argv),
                        environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        // The server writes its display number, then a newline, once ready.
        std::string number;
        char c = 0;
        while (pid_ > 0 && read(fds[0], &c, 1) == 1 && c != '\n') number += c;
        close(fds[0]);
        if (!number.empty()) name_ = ":" + number;
    }
    ~XvfbServer() {
        if (pid_ > 0) {
            kill(pid_, SIGTERM);
            waitpid(pid_, nullptr, 0);
        }
    }
    bool ok() const { return !name_.empty(); }
    const char* name() const { return name_.c_str(); }

private:
    pid_t pid_ = -1;
    std::string name_;
};

// Mean colour of a window rectangle as read back from the X server.
uint32_t MeanColour(Display* d, Window w, int x0, int y0, int cw, int ch) {
    XImage* img = XGetImage(d, w, x0, y0, cw, ch, AllPlanes, ZPixmap);
    if (!img) return 0xffffffff;
    unsigned long long sum[3] = {};
    for (int y = 0; y < ch; ++y) {
        for (int x = 0; x < cw; ++x) {
            unsigned long p = XGetPixel(img, x, y);
            sum[0] += (p >> 16) & 0xff;
            sum[1] += (p >> 8) & 0xff;
            sum[2] += p & 0xff;
        }
    }
    XDestroyImage(img);
    const unsigned long long n = static_cast<unsigned long long>(cw) * ch;
    return static_cast<uint32_t>((sum[0] / n) << 16 | (sum[1] / n) << 8 | (sum[2] / n));
}

TEST(DisplayerWindowTest, Window_HostWindowShowsPictureOnScreen) {
    XvfbServer server;
    if (!server.ok()) GTEST_SKIP() << "Xvfb is not available";

    // The host's own connection and window.
    Display* host = XOpenDisplay(server.name());
    ASSERT_NE(host, nullptr);
    const int screen = DefaultScreen(host);
    Window win = XCreateSimpleWindow(host, RootWindow(host, screen), 0, 0, 644, 483, 0,
                                     BlackPixel(host, screen), WhitePixel(host, screen));
    XSelectInput(host, win, StructureNotifyMask);
    XMapWindow(host, win);
    XEvent ev;
    do XNextEvent(host, &ev);
    while (ev.type != MapNotify);

    {
        CWindowDC dc(server.name(), win);
        ASSERT_TRUE(dc.IsOpen());
        EXPECT_EQ(dc.GetWidth(), 644);
        EXPECT_EQ(dc.GetHeight(), 483);
        std::vector<unsigned char> pic = RedOverBlue(320, 240);
        CVideoDisplayer disp;
        ASSERT_EQ(disp.Start(&dc, 644, 483, 320, 240), 0);
        ASSERT_EQ(disp.DisplayVideoBuffer(pic.data(), 320, 240), 0);

        EXPECT_TRUE(Near(MeanColour(host, win, 10, 10, 620, 200), kRed))
            << std::hex << MeanColour(host, win, 10, 10, 620, 200);
        EXPECT_TRUE(Near(MeanColour(host, win, 10, 260, 620, 200), kBlue));
        // The margins keep the window's white background.
        EXPECT_TRUE(Near(MeanColour(host, win, 640, 0, 4, 483), 0xffffff));
        EXPECT_TRUE(Near(MeanColour(host, win, 0, 480, 644, 3), 0xffffff));
    }
    XDestroyWindow(host, win);
    XCloseDisplay(host);
}

TEST(DisplayerWindowTest, Window_CreatedWindowShowsPicture) {
    XvfbServer server;
    if (!server.ok()) GTEST_SKIP() << "Xvfb is not available";
    std::unique_ptr<CWindowDC> dc = CWindowDC::Create(324, 243, "camctl test", server.name());
    ASSERT_NE(dc, nullptr);
    std::vector<unsigned char> pic = RedOverBlue(160, 120);
    CVideoDisplayer disp;
    ASSERT_EQ(disp.Start(dc.get(), 324, 243, 160, 120), 0);
    ASSERT_EQ(disp.DisplayVideoBuffer(pic.data(), 160, 120), 0);

    Display* reader = XOpenDisplay(server.name());
    ASSERT_NE(reader, nullptr);
    EXPECT_TRUE(Near(MeanColour(reader, dc->GetWindow(), 5, 5, 300, 100), kRed));
    EXPECT_TRUE(Near(MeanColour(reader, dc->GetWindow(), 5, 130, 300, 100), kBlue));
    XCloseDisplay(reader);
}

}  // namespace
