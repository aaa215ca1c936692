/// Drawing surfaces that a camera or a record player paints pictures into.
///
/// A surface holds 32-bit pixels, bytes blue, green, red, unused, rows top
/// down. Painting locks the pixels (LockPixels), writes them, and presents
/// the changed rectangle (UnlockPixels). Painting may come from a decoding
/// thread while the host's own thread reads or shows the surface: every
/// surface serialises its pixel access with a lock of its own.
///
/// Two surfaces are offered:
///  - CMemoryDC: pixels in memory; the host (or a test) reads them back.
///  - CWindowDC: an X11 window, either one the host already has (wrapped by
///    its window id) or one the surface creates. It talks to the X server
///    through a connection of its own, so the host's connection and UI
///    thread are never touched by a painting thread.
/// \class CDC
#pragma once

#include "camctl/Export.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

class CAMCTL_API CDC {
public:
    virtual ~CDC() = default;
    CDC(const CDC&) = delete;
    CDC& operator=(const CDC&) = delete;

    int GetWidth() const { return m_nWidth.load(std::memory_order_relaxed); }
    int GetHeight() const { return m_nHeight.load(std::memory_order_relaxed); }

    /// Locks the surface for painting and returns its first pixel (row 0 is
    /// the top row) and the row length in bytes; null (and unlocked) when
    /// the surface cannot be painted.
    virtual unsigned char* LockPixels(int* strideBytes) = 0;
    /// Shows the rectangle painted since LockPixels and unlocks the surface.
    virtual void UnlockPixels(int x, int y, int width, int height) = 0;

protected:
    CDC(int width, int height) : m_nWidth(width), m_nHeight(height) {}

    std::atomic<int> m_nWidth;
    std::atomic<int> m_nHeight;
};

class CAMCTL_API CMemoryDC : public CDC {
public:
    /// A width x height surface filled with black.
    CMemoryDC(int width, int height);

    unsigned char* LockPixels(int* strideBytes) override;
    void UnlockPixels(int x, int y, int width, int height) override;

    /// Colour of one pixel as 0xRRGGBB; 0 outside the surface.
    uint32_t GetPixel(int x, int y) const;
    /// Copy of every pixel (GetWidth() * GetHeight() * 4 bytes, top down).
    std::vector<unsigned char> CopyPixels() const;
    /// Paints every pixel with the colour 0xRRGGBB.
    void Fill(uint32_t rgb);
    /// Number of UnlockPixels calls so far.
    int GetPaintCount() const;

private:
    // Guards m_Pixels and m_nPaintCount; held from LockPixels to UnlockPixels.
    mutable std::mutex m_Lock;
    std::vector<unsigned char> m_Pixels;
    int m_nPaintCount = 0;
};

class CAMCTL_API CWindowDC : public CDC {
public:
    /// Wraps an existing window of the host on the X display displayName
    /// (null: $DISPLAY). The surface keeps a back buffer of the window's
    /// size at construction; call UpdateSize after the host resized it.
    CWindowDC(const char* displayName, unsigned long window);
    ~CWindowDC() override;

    /// Creates, names and maps a window of its own; null when the display
    /// cannot be opened or has no 24-bit true-colour visual.
    static std::unique_ptr<CWindowDC> Create(int width, int height, const char* title,
                                             const char* displayName = nullptr);

    bool IsOpen() const;
    unsigned long GetWindow() const;
    /// Re-reads the window's size and resizes the back buffer (cleared).
    int UpdateSize();
    /// Puts the whole back buffer on the window again (for expose events).
    void Repaint();

    unsigned char* LockPixels(int* strideBytes) override;
    void UnlockPixels(int x, int y, int width, int height) override;

private:
    struct Impl;
    CWindowDC();
    std::unique_ptr<Impl> m_pImpl;
};
