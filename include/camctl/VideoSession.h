/// A media session: one open stream (live URL or recorded file) decoded by
/// the engine and delivered picture by picture to the session's owner.
///
/// Pictures arrive on the engine's decoding thread through the first virtual
/// slot (DoVideoBuffer) in one of two layouts, chosen by SetD3DDisplay before
/// VideoInit:
///   0      packed BGR24, 3 bytes per pixel, rows bottom-up, no row padding;
///   not 0  planar I420, width*height*3/2 bytes: Y, then U at width*height,
///          then V at width*height*5/4, rows top-down.
/// Audio arrives on the engine's audio thread through DoAudioBuffer as
/// signed 16-bit samples (buffer, sample count, sample rate).
///
/// Results: 0 success, -1 failure (or as noted per operation). A closed
/// session answers every query with its failure value and does nothing.
/// \class CVideoSession
#pragma once

#include "camctl/Export.h"

#include <atomic>
#include <cstdint>
#include <mutex>

#include "camctl/FrameListener.h"
#include "camctl/OpenFailure.h"

struct FFMpegContext;
struct os_cond;
struct os_mutex;

class CAMCTL_API CVideoSession : public IFrameListener {
public:
    CVideoSession();
    /// Owners call VideoFree first. A stream still open is closed here (and
    /// by the derived sessions' destructors); a class deriving further that
    /// overrides the frame slots must call VideoFree in its own destructor,
    /// since the engine keeps calling the slots until the stream is closed.
    virtual ~CVideoSession();

    /// A session owns engine threads and handles; copies would share them.
    CVideoSession(const CVideoSession&) = delete;
    CVideoSession& operator=(const CVideoSession&) = delete;

    /// Frame-listener slots, in this order. The base versions do nothing.
    int DoVideoBuffer(unsigned char* buf, int width, int height) override;
    int DoAudioBuffer(unsigned short* buf, int a, int b) override;
    int UpdateMotionAlarmRegion(char* region) override;

    /// Opens url ("rtsp://...", "http://..." private frames, or a file) for
    /// owner. -1 when already open (the open stream is kept) or on failure.
    int VideoInit(void* owner, const char* url);
    /// Why the last VideoInit failed: a CamctlOpenFailure (CAMCTL_OPEN_OK
    /// after a success or before any). Copies the detail (what was being
    /// done and FFmpeg's error text, never a password) into text, at most
    /// size - 1 characters and a NUL; text may be null.
    int GetOpenFailure(char* text, int size) const;
    /// Closes the stream; also resets the display flag and the owner.
    /// -1 when not open.
    int VideoFree();

    int SetD3DDisplay(int yuv);         ///< picture layout for the next VideoInit
    int SetSmoothStream(int mode);      ///< 0 off, 1 low-latency bands, other: wide bands
    int SetDecodeEnbale(int on);        ///< decode switch; -1 when not open
    int GetVideoWidth();                ///< -1 when not open
    int GetVideoHeight();               ///< -1 when not open
    int GetVideoCodec();                ///< H.264 0, MPEG-4 1, MJPEG 2, H.265 3, else -1
    /// Smooth-stream pacing: called by the host's display timer; releases
    /// one picture every (frame interval + correction) calls.
    int SendVideoCond();

    bool IsOpen() const { return m_bOpen != 0; }

protected:
    /// Engine hook run before each picture: a live session waits here (at
    /// most 1000 ms) for SendVideoCond; a file session returns at once.
    int FrameWait();
    /// Takes the owner VideoInit was given (before the engine starts), or
    /// null once the engine has stopped: a subclass keeps it with its type.
    virtual void AttachOwner(void* owner);

    FFMpegContext* m_pContext;
    std::atomic<int32_t> m_bOpen;  ///< also read from the engine's threads
    int32_t m_bD3DDisplay;
    void* m_pOwner;
    int32_t m_bFileSession;
    os_cond* m_hFrameSignal;   ///< counting semaphore released by SendVideoCond / VideoFree
    os_mutex* m_hSessionLock;  ///< taken around the wait on m_hFrameSignal
    int32_t m_nCondCount;      ///< SendVideoCond calls since the last release
    int32_t m_nSmoothStream;
    int32_t m_nCondAdjust;     ///< correction added to the frame interval
    std::mutex m_OpenLock;     ///< one VideoInit or VideoFree at a time

private:
    void SetOpenFailure(int reason, const char* text);

    // The last VideoInit's failure, read from any thread.
    mutable std::mutex m_OpenFailureLock;
    int32_t m_nOpenFailure = CAMCTL_OPEN_OK;
    char m_szOpenFailure[256] = {};
};
