// Drawing surfaces: memory pixels and X11 windows.
//
// The window surface opens its own connection to the X server and uses it
// only under its own lock, so painting from a decoding thread needs nothing
// from the host's connection or UI thread.
#include "camctl/CDC.h"

#include <X11/Xlib.h>
#include <X11/Xutil.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>

// ---------------------------------------------------------------------------
// CMemoryDC

CMemoryDC::CMemoryDC(int width, int height)
    : CDC(std::max(width, 0), std::max(height, 0)),
      m_Pixels(static_cast<size_t>(std::max(width, 0)) * std::max(height, 0) * 4, 0) {}

unsigned char* CMemoryDC::LockPixels(int* strideBytes) {
    m_Lock.lock();
    if (m_Pixels.empty()) {
        m_Lock.unlock();
        return nullptr;
    }
    if (strideBytes) *strideBytes = GetWidth() * 4;
    return m_Pixels.data();
}

void CMemoryDC::UnlockPixels(int, int, int, int) {
    ++m_nPaintCount;
    m_Lock.unlock();
}

uint32_t CMemoryDC::GetPixel(int x, int y) const {
    std::lock_guard<std::mutex> lock(m_Lock);
    if (x < 0 || y < 0 || x >= GetWidth() || y >= GetHeight()) return 0;
    const unsigned char* p = &m_Pixels[(static_cast<size_t>(y) * GetWidth() + x) * 4];
    return (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[1]) << 8) | p[0];
}

std::vector<unsigned char> CMemoryDC::CopyPixels() const {
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_Pixels;
}

void CMemoryDC::Fill(uint32_t rgb) {
    std::lock_guard<std::mutex> lock(m_Lock);
    for (size_t i = 0; i + 3 < m_Pixels.size(); i += 4) {
        m_Pixels[i] = rgb & 0xff;
        m_Pixels[i + 1] = (rgb >> 8) & 0xff;
        m_Pixels[i + 2] = (rgb >> 16) & 0xff;
        m_Pixels[i + 3] = 0;
    }
}

int CMemoryDC::GetPaintCount() const {
    std::lock_guard<std::mutex> lock(m_Lock);
    return m_nPaintCount;
}

// ---------------------------------------------------------------------------
// CWindowDC

namespace {

struct DisplayCloser {
    void operator()(Display* d) const { XCloseDisplay(d); }
};
using DisplayPtr = std::unique_ptr<Display, DisplayCloser>;

// The image only describes our pixel vector: detach it before destroying.
struct ImageDestroyer {
    void operator()(XImage* img) const {
        img->data = nullptr;
        XDestroyImage(img);
    }
};
using ImagePtr = std::unique_ptr<XImage, ImageDestroyer>;

bool IsBgrxVisual(const Visual* v, int depth) {
    return v && (depth == 24 || depth == 32) && v->red_mask == 0xff0000 &&
           v->green_mask == 0x00ff00 && v->blue_mask == 0x0000ff;
}

void EnableXlibThreads() {
    static std::once_flag once;
    std::call_once(once, [] { XInitThreads(); });
}

}  // namespace

struct CWindowDC::Impl {
    // Guards every member; held from LockPixels to UnlockPixels.
    std::mutex lock;
    DisplayPtr display;
    Window window = 0;
    bool ownsWindow = false;
    Colormap colormap = 0;  // of a window we created; lives as long as it
    GC gc = nullptr;
    Visual* visual = nullptr;
    int depth = 0;
    int width = 0;
    int height = 0;
    std::vector<unsigned char> pixels;  // back buffer, BGRX top down
    ImagePtr image;

    ~Impl() {
        if (!display) return;
        image.reset();
        if (gc) XFreeGC(display.get(), gc);
        if (ownsWindow && window) XDestroyWindow(display.get(), window);
        if (colormap) XFreeColormap(display.get(), colormap);
        XSync(display.get(), False);
    }

    // Makes the back buffer and its image for w x h (lock held or not yet shared).
    bool Allocate(int w, int h) {
        image.reset();
        pixels.assign(static_cast<size_t>(std::max(w, 0)) * std::max(h, 0) * 4, 0);
        width = std::max(w, 0);
        height = std::max(h, 0);
        if (pixels.empty()) return false;
        XImage* img = XCreateImage(display.get(), visual, depth, ZPixmap, 0,
                                   reinterpret_cast<char*>(pixels.data()), width, height, 32,
                                   width * 4);
        if (!img) return false;
        img->byte_order = LSBFirst;  // our bytes are B, G, R, X
        image.reset(img);
        return true;
    }

    void Put(int x, int y, int w, int h) {
        if (!image || !gc) return;
        x = std::clamp(x, 0, width);
        y = std::clamp(y, 0, height);
        w = std::clamp(w, 0, width - x);
        h = std::clamp(h, 0, height - y);
        if (w == 0 || h == 0) return;
        XPutImage(display.get(), window, gc, image.get(), x, y, x, y, w, h);
        // A round trip: the picture is on the window when painting returns.
        XSync(display.get(), False);
    }
};

CWindowDC::CWindowDC() : CDC(0, 0), m_pImpl(std::make_unique<Impl>()) {}

CWindowDC::CWindowDC(const char* displayName, unsigned long window) : CWindowDC() {
    EnableXlibThreads();
    Impl& im = *m_pImpl;
    im.display.reset(XOpenDisplay(displayName));
    if (!im.display) return;
    XWindowAttributes attr{};
    if (!window || !XGetWindowAttributes(im.display.get(), window, &attr) ||
        !IsBgrxVisual(attr.visual, attr.depth)) {
        im.display.reset();
        return;
    }
    im.window = window;
    im.visual = attr.visual;
    im.depth = attr.depth;
    im.gc = XCreateGC(im.display.get(), window, 0, nullptr);
    im.Allocate(attr.width, attr.height);
    m_nWidth = im.width;
    m_nHeight = im.height;
}

CWindowDC::~CWindowDC() = default;

std::unique_ptr<CWindowDC> CWindowDC::Create(int width, int height, const char* title,
                                             const char* displayName) {
    if (width <= 0 || height <= 0) return nullptr;
    EnableXlibThreads();
    std::unique_ptr<CWindowDC> dc(new CWindowDC());
    Impl& im = *dc->m_pImpl;
    im.display.reset(XOpenDisplay(displayName));
    if (!im.display) return nullptr;
    Display* d = im.display.get();
    const int screen = DefaultScreen(d);
    XVisualInfo vinfo{};
    if (!XMatchVisualInfo(d, screen, 24, TrueColor, &vinfo) ||
        !IsBgrxVisual(vinfo.visual, vinfo.depth))
        return nullptr;
    XSetWindowAttributes swa{};
    swa.colormap = XCreateColormap(d, RootWindow(d, screen), vinfo.visual, AllocNone);
    // Freeing a window's colormap would leave the window without one: it is
    // freed after the window, on every path.
    im.colormap = swa.colormap;
    swa.background_pixel = 0;
    swa.border_pixel = 0;
    swa.event_mask = StructureNotifyMask;
    const Window w = XCreateWindow(d, RootWindow(d, screen), 0, 0, width, height, 0, vinfo.depth,
                                   InputOutput, vinfo.visual,
                                   CWColormap | CWBackPixel | CWBorderPixel | CWEventMask, &swa);
    if (!w) return nullptr;
    im.window = w;
    im.ownsWindow = true;
    im.visual = vinfo.visual;
    im.depth = vinfo.depth;
    if (title) XStoreName(d, w, title);
    im.gc = XCreateGC(d, w, 0, nullptr);
    XMapWindow(d, w);
    XFlush(d);
    // Wait (bounded) until the window is on screen, so the first picture
    // painted into it is not lost.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(3);
    XEvent ev;
    bool mapped = false;
    while (!mapped && std::chrono::steady_clock::now() < deadline) {
        if (XCheckTypedWindowEvent(d, w, MapNotify, &ev)) {
            mapped = true;
        } else {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
    }
    if (!im.Allocate(width, height)) return nullptr;
    dc->m_nWidth = im.width;
    dc->m_nHeight = im.height;
    return dc;
}

bool CWindowDC::IsOpen() const {
    std::lock_guard<std::mutex> lock(m_pImpl->lock);
    return m_pImpl->display != nullptr && m_pImpl->window != 0;
}

unsigned long CWindowDC::GetWindow() const {
    std::lock_guard<std::mutex> lock(m_pImpl->lock);
    return m_pImpl->window;
}

int CWindowDC::UpdateSize() {
    Impl& im = *m_pImpl;
    std::lock_guard<std::mutex> lock(im.lock);
    if (!im.display) return -1;
    XWindowAttributes attr{};
    if (!XGetWindowAttributes(im.display.get(), im.window, &attr)) return -1;
    im.Allocate(attr.width, attr.height);
    m_nWidth = im.width;
    m_nHeight = im.height;
    return 0;
}

void CWindowDC::Repaint() {
    Impl& im = *m_pImpl;
    std::lock_guard<std::mutex> lock(im.lock);
    if (im.display) im.Put(0, 0, im.width, im.height);
}

unsigned char* CWindowDC::LockPixels(int* strideBytes) {
    Impl& im = *m_pImpl;
    im.lock.lock();
    if (!im.display || !im.image) {
        im.lock.unlock();
        return nullptr;
    }
    if (strideBytes) *strideBytes = im.width * 4;
    return im.pixels.data();
}

void CWindowDC::UnlockPixels(int x, int y, int width, int height) {
    Impl& im = *m_pImpl;
    im.Put(x, y, width, height);
    im.lock.unlock();
}
