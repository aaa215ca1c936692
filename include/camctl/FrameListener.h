/// The three operations through which the media engine hands decoded
/// pictures, audio and motion-region updates to the object that owns a stream.
/// \class IFrameListener
#pragma once

#include "camctl/Export.h"

class CAMCTL_API IFrameListener {
public:
    /// A picture: packed BGR24 bottom-up or planar I420, see the session.
    virtual int DoVideoBuffer(unsigned char* buf, int width, int height) = 0;
    /// Audio: signed 16-bit samples, count, sample rate.
    virtual int DoAudioBuffer(unsigned short* buf, int a, int b) = 0;
    /// Motion-region map announced by a camera, as '0'/'1' text.
    virtual int UpdateMotionAlarmRegion(char* region) = 0;

protected:
    ~IFrameListener() = default;
};
