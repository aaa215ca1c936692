/// A recorded file played back by a CRecordPlayer (the owner given to
/// VideoInit): the engine reads it throttled and decodes every picture; the
/// owner paces delivery by blocking in its DoVideoBuffer.
///
/// The owner is a CRecordPlayer (camctl/RecordPlayer.h) with
///   int DoVideoBuffer(CVideoSession*, unsigned char* buf, int width, int height);
///   int DoAudioBuffer(CVideoSession*, unsigned short* buf, int count, int rate);
/// \class CFileVideoSession
#pragma once

#include "camctl/Export.h"

#include <cstdint>

#include "camctl/VideoSession.h"

class CRecordPlayer;

class CAMCTL_API CFileVideoSession : public CVideoSession {
public:
    CFileVideoSession();
    ~CFileVideoSession() override;

    /// Forward to the owning CRecordPlayer with this session first; -1
    /// without owner. Motion-region updates are ignored (0).
    int DoVideoBuffer(unsigned char* buf, int width, int height) override;
    int DoAudioBuffer(unsigned short* buf, int a, int b) override;
    int UpdateMotionAlarmRegion(char* region) override;

    int Pause();
    int Resume();
    bool IsPlayFinish();
    int64_t GetTotalDuration();  ///< whole seconds
    int64_t GetFrequency();      ///< time-base denominator / numerator
    int64_t GetCurrTime();       ///< seconds of the last picture taken; -1 on any fault
    /// Seeks to t rounded down to a multiple of 5 s (at least 5 s); nothing
    /// happens on files shorter than 5 s.
    int SeekTime(int t);
    int SetSpeedLevel(int level);  ///< accepted, no effect

protected:
    void AttachOwner(void* owner) override;

private:
    CRecordPlayer* m_pPlayer = nullptr;  ///< the owner, from VideoInit to VideoFree
};
