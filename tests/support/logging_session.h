// A session that records what the engine delivers: the owner given to VideoInit is the session itself.
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
    ~LoggingSession() override { this->VideoFree(); }  // while this class's slots still stand
    int DoVideoBuffer(unsigned char* buf, int width, int height) override {
        return log.OnPicture(buf, width, height, this->m_bD3DDisplay != 0), 0;
    }
    int DoAudioBuffer(unsigned short*, int count, int rate) override { return audioSamples += count, audioRate = rate, 0; }
    int UpdateMotionAlarmRegion(char*) override { return 0; }
    int Open(const std::string& url, int layout) {  // with decoding switched on
        this->SetD3DDisplay(layout);
        const int rc = this->VideoInit(this, url.c_str());
        return rc == 0 ? this->SetDecodeEnbale(1), 0 : rc;
    }
    FFMpegContext* Context() { return this->m_pContext; }  // for the engine's own tests

    PictureLog log;
    std::atomic<long> audioSamples{0};
    std::atomic<int> audioRate{0};
};

using LoggingUrlSession = LoggingSession<CUrlVideoSession>;
using LoggingFileSession = LoggingSession<CFileVideoSession>;

}  // namespace camctl_test
