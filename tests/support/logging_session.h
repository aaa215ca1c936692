// A session that records what the engine delivers instead of forwarding it
// to a camera or player: the owner given to VideoInit is the session itself,
// so every slot is taken here.
#pragma once

#include <atomic>
#include <string>

#include "camctl/FileVideoSession.h"
#include "camctl/UrlVideoSession.h"
#include "support/engine_support.h"

namespace camctl_test {

template <class Session>
class LoggingSession : public Session {
public:
    // Closed here, while this class's slots still stand: the base
    // destructor would leave the engine calling the owner forwarding.
    ~LoggingSession() override { this->VideoFree(); }

    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        log.OnPicture(buf, width, height, this->m_bD3DDisplay != 0);
        return 0;
    }
    int DoAudioBuffer(unsigned short*, int count, int rate) override {
        audioSamples += count;
        audioRate = rate;
        return 0;
    }
    int UpdateMotionAlarmRegion(char*) override { return 0; }

    // Opens url with the given layout and decoding switched on.
    int Open(const std::string& url, int layout) {
        this->SetD3DDisplay(layout);
        int rc = this->VideoInit(this, url.c_str());
        if (rc == 0) this->SetDecodeEnbale(1);
        return rc;
    }
    FFMpegContext* Context() { return this->m_pContext; }  // for the engine's own tests

    PictureLog log;
    std::atomic<long> audioSamples{0};
    std::atomic<int> audioRate{0};
};

using LoggingUrlSession = LoggingSession<CUrlVideoSession>;
using LoggingFileSession = LoggingSession<CFileVideoSession>;

}  // namespace camctl_test
