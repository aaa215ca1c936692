// Faults caught: picture upside down or colours swapped, margins painted, wrong scaling or clipping, planar input misread, calls accepted when stopped or mis-sized, X window left blank.
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
#include "support/pictures.h"

extern char** environ;

namespace {

using camctl_test::RedOverBlue;
constexpr uint32_t kRed = 0xff0000, kBlue = 0x0000ff, kGreen = 0x00ff00, kWhite = 0xffffff;

// Channel distance small enough for bilinear scaling away from edges.
bool Near(uint32_t got, uint32_t want, int tol = 8) {
    for (int s = 0; s < 24; s += 8)
        if (std::abs(static_cast<int>((got >> s) & 0xff) - static_cast<int>((want >> s) & 0xff)) > tol) return false;
    return true;
}

// A w x h I420 picture of pure blue (BT.601 limited range).
std::vector<unsigned char> BlueI420(int w, int h) {
    std::vector<unsigned char> yuv(static_cast<size_t>(w) * h * 3 / 2, 110);
    std::memset(yuv.data(), 41, static_cast<size_t>(w) * h);
    std::memset(yuv.data() + w * h, 240, static_cast<size_t>(w) * h / 4);
    return yuv;
}

TEST(DisplayerTest, Display_PaintsUprightIntoTheAreaLessItsMargins) {
    struct Point { int x, y; uint32_t colour; int tol; };
    const struct {
        const char* name;
        int dcW, dcH, areaW, areaH, w, h, yuv;
        std::vector<Point> points;
    } cases[] = {
        {"packed", 700, 500, 644, 483, 320, 240, 0,
         {{0, 0, kRed, 8}, {639, 200, kRed, 8}, {320, 300, kBlue, 8}, {639, 479, kBlue, 8},
          {640, 0, kGreen, 0}, {680, 240, kGreen, 0}, {660, 479, kGreen, 0},   // right margin: 4 columns
          {0, 480, kGreen, 0}, {320, 482, kGreen, 0}, {639, 495, kGreen, 0}}},  // bottom margin: 3 rows
        {"area larger than the surface: its top left", 320, 200, 644, 483, 160, 120, 0,
         {{0, 0, kRed, 8}, {319, 199, kRed, 8}}},
        {"planar", 132, 99, 132, 99, 64, 48, 1, {{60, 40, kBlue, 16}, {130, 40, kGreen, 0}}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        CMemoryDC dc(c.dcW, c.dcH);
        dc.Fill(kGreen);
        std::vector<unsigned char> pic = c.yuv ? BlueI420(c.w, c.h) : RedOverBlue(c.w, c.h);
        CVideoDisplayer disp;
        ASSERT_EQ(disp.Start(&dc, c.areaW, c.areaH, c.w, c.h, c.yuv), 0);
        ASSERT_EQ(disp.DisplayVideoBuffer(pic.data(), c.w, c.h), 0);
        EXPECT_EQ(dc.GetPaintCount(), 1);
        for (const Point& p : c.points)
            EXPECT_TRUE(Near(dc.GetPixel(p.x, p.y), p.colour, p.tol)) << p.x << "," << p.y << ": " << std::hex << dc.GetPixel(p.x, p.y);
    }
}

TEST(DisplayerTest, Lifecycle_NotStartedStoppedOrWrongSizeDrawsNothing) {
    CMemoryDC dc(100, 100);
    std::vector<unsigned char> pic = RedOverBlue(64, 48), small = RedOverBlue(32, 24);
    CVideoDisplayer disp;
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), -1) << "before Start";
    EXPECT_EQ(disp.Stop(), -1);
    ASSERT_EQ(disp.Start(&dc, 84, 63, 64, 48), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 32, 24), -1) << "size other than Start's";
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48, 1), -1) << "planar, started for packed";
    EXPECT_EQ(dc.GetPaintCount(), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), 0);
    EXPECT_EQ(dc.GetPaintCount(), 1);
    EXPECT_EQ(disp.Stop(), 0);
    EXPECT_EQ(disp.Stop(), -1) << "second Stop";
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), -1) << "after Stop";
    EXPECT_EQ(dc.GetPaintCount(), 1);
    // Start on a started displayer restarts it with the new sizes.
    ASSERT_EQ(disp.Start(&dc, 84, 63, 64, 48), 0);
    ASSERT_EQ(disp.Start(&dc, 44, 43, 32, 24), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(small.data(), 32, 24), 0);
    EXPECT_EQ(disp.DisplayVideoBuffer(pic.data(), 64, 48), -1);
}

TEST(DisplayerTest, DrawRectFrame_PaintsBorderOnly) {
    const int stride = 12, w = 10, h = 8, rows = 9;
    std::vector<unsigned char> pic(static_cast<size_t>(stride) * rows * 3, 7);
    DrawRectFrame(pic.data(), stride, 0, w, h, 1, 2);
    auto px = [&](int x, int y) { return std::vector<unsigned char>(&pic[(y * stride + x) * 3], &pic[(y * stride + x) * 3 + 3]); };
    const std::vector<unsigned char> red{0, 0, 255}, untouched{7, 7, 7};
    for (int y = 0; y < rows; ++y)
        for (int x = 0; x < stride; ++x) {
            const bool border = x < w && y < h && (y < 2 || y >= h - 2 || x < 2 || x >= w - 2);
            EXPECT_EQ(px(x, y), border ? red : untouched) << x << "," << y;
        }
    DrawRectFrame(pic.data(), stride, 0, w, h, 0, 1);
    EXPECT_EQ(px(0, 0), std::vector<unsigned char>(3, 255)) << "white";
    EXPECT_EQ(px(1, 1), red) << "inside the thin frame: the red one remains";
}

// A private Xvfb server, ready once it wrote its display number.
class XvfbServer {
public:
    XvfbServer() {
        int fds[2];
        if (access("/usr/bin/Xvfb", X_OK) != 0 || pipe(fds) != 0) return;
        const std::string fd = std::to_string(fds[1]);
        const char* argv[] = {"Xvfb", "-displayfd", fd.c_str(), "-screen", "0", "800x600x24", "-nolisten", "tcp", nullptr};
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        if (posix_spawn(&pid_, "/usr/bin/Xvfb", &actions, nullptr, const_cast<char**>(argv), environ) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        std::string number;
        char c = 0;
        while (pid_ > 0 && read(fds[0], &c, 1) == 1 && c != '\n') number += c;
        close(fds[0]);
        if (!number.empty()) name_ = ":" + number;
    }
    ~XvfbServer() {
        if (pid_ > 0 && kill(pid_, SIGTERM) == 0) waitpid(pid_, nullptr, 0);
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
    for (int y = 0; y < ch; ++y)
        for (int x = 0; x < cw; ++x) {
            const unsigned long p = XGetPixel(img, x, y);
            for (int k = 0; k < 3; ++k) sum[k] += (p >> (16 - 8 * k)) & 0xff;
        }
    XDestroyImage(img);
    const unsigned long long n = static_cast<unsigned long long>(cw) * ch;
    return static_cast<uint32_t>((sum[0] / n) << 16 | (sum[1] / n) << 8 | (sum[2] / n));
}

TEST(DisplayerWindowTest, Window_HostAndCreatedWindowsShowThePicture) {
    XvfbServer server;
    if (!server.ok()) GTEST_SKIP() << "Xvfb is not available";
    Display* host = XOpenDisplay(server.name());
    ASSERT_NE(host, nullptr);
    const int screen = DefaultScreen(host);
    Window win = XCreateSimpleWindow(host, RootWindow(host, screen), 0, 0, 644, 483, 0, BlackPixel(host, screen),
                                     WhitePixel(host, screen));
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
        EXPECT_TRUE(Near(MeanColour(host, win, 10, 10, 620, 200), kRed)) << std::hex << MeanColour(host, win, 10, 10, 620, 200);
        EXPECT_TRUE(Near(MeanColour(host, win, 10, 260, 620, 200), kBlue));
        EXPECT_TRUE(Near(MeanColour(host, win, 640, 0, 4, 483), kWhite)) << "margins keep the background";
        EXPECT_TRUE(Near(MeanColour(host, win, 0, 480, 644, 3), kWhite));
    }
    XDestroyWindow(host, win);

    std::unique_ptr<CWindowDC> dc = CWindowDC::Create(324, 243, "camctl test", server.name());
    ASSERT_NE(dc, nullptr);
    std::vector<unsigned char> pic = RedOverBlue(160, 120);
    CVideoDisplayer disp;
    ASSERT_EQ(disp.Start(dc.get(), 324, 243, 160, 120), 0);
    ASSERT_EQ(disp.DisplayVideoBuffer(pic.data(), 160, 120), 0);
    EXPECT_TRUE(Near(MeanColour(host, dc->GetWindow(), 5, 5, 300, 100), kRed));
    EXPECT_TRUE(Near(MeanColour(host, dc->GetWindow(), 5, 130, 300, 100), kBlue));
    XCloseDisplay(host);
}

}  // namespace
