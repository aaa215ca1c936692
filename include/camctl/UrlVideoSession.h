/// A live network stream owned by a camera: pictures, audio and motion-region
/// updates go to the owning CIpCamera (the owner given to VideoInit), which
/// also drives AVI recording through StartSaveAvi / StopSaveAvi.
///
/// The owner is a CIpCamera (camctl/IpCamera.h) with
///   int DoVideoBuffer(CVideoSession*, unsigned char* buf, int width, int height);
///   int DoAudioBuffer(CVideoSession*, unsigned short* buf, int a, int b);
///   int UpdateMotionAlarmRegion(CVideoSession*, char* region);
/// \class CUrlVideoSession
#pragma once

#include "camctl/Export.h"

#include <cstdint>

#include "camctl/VideoSession.h"

class CIpCamera;

class CAMCTL_API CUrlVideoSession : public CVideoSession {
public:
    CUrlVideoSession();
    ~CUrlVideoSession() override;

    /// Forward to the owner's DoVideoBuffer / DoAudioBuffer /
    /// UpdateMotionAlarmRegion with this session first; -1 without owner.
    int DoVideoBuffer(unsigned char* buf, int width, int height) override;
    int DoAudioBuffer(unsigned short* buf, int a, int b) override;
    int UpdateMotionAlarmRegion(char* region) override;

    int SetName(const char* name);
    /// Stops any recording, then records the stream to the AVI file at path.
    int StartSaveAvi(const char* path);
    int StopSaveAvi();
    /// Seconds since the first packet of the current recording; 0 when closed.
    int64_t GetSaveAviDurationSec();
    int GetNetFrameRate();     ///< video packets per second queued (3 s periods)
    float GetNetRateInfo();    ///< received video kbit/s; -1.0 when closed
    int GetFramesCount();      ///< video packets per second received
    int64_t GetFrequency();    ///< time-base denominator / numerator
    bool IsPlayFinish();       ///< the reader has stopped (end, error, lost server)

protected:
    void AttachOwner(void* owner) override;

    char m_szName[256];
    char m_szReserved[256];

private:
    CIpCamera* m_pCamera = nullptr;  ///< the owner, from VideoInit to VideoFree
};
