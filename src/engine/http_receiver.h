// The receive buffer of a private HTTP frame source: bytes read from the
// connection and not yet cut into frames. Reader thread only (the open
// fills it first, before the threads start).
#pragma once

#include <cstdint>
#include <cstring>
#include <memory>

extern "C" {
#include <libavformat/avio.h>
}

constexpr uint32_t HTTP_RECV_BUF_SIZE = 2000000;  // bytes the receive buffer holds
constexpr uint32_t HTTP_READ_CHUNK = 2000;        // bytes asked of avio_read at a time

class HttpFrameReceiver {
public:
    // Makes the (empty) buffer and marks the source as a frame stream.
    bool Open() {
        m_pRecvBuf = std::make_unique<uint8_t[]>(HTTP_RECV_BUF_SIZE);
        m_nRecvLen = m_nRecvPos = 0;
        m_bHttpFrame = 1;
        return true;
    }
    bool IsFrameStream() const { return m_bHttpFrame != 0; }
    bool HasBuffer() const { return m_pRecvBuf != nullptr; }

    const uint8_t* Data() const { return m_pRecvBuf.get(); }
    uint32_t Len() const { return m_nRecvLen; }
    // Where the next scan starts (kept across reads of one frame).
    uint32_t Pos() const { return m_nRecvPos < m_nRecvLen ? m_nRecvPos : m_nRecvLen; }
    void SetPos(uint32_t pos) { m_nRecvPos = pos; }
    // No room for another read.
    bool Full() const { return m_nRecvLen + HTTP_READ_CHUNK > HTTP_RECV_BUF_SIZE; }

    // One read of up to HTTP_READ_CHUNK bytes appended to the buffer; what
    // avio_read returned (the bytes count only when 1..HTTP_READ_CHUNK).
    int ReadMore(AVIOContext* io) {
        if (!m_pRecvBuf || !io || Full()) return -1;
        const int got = avio_read(io, m_pRecvBuf.get() + m_nRecvLen, HTTP_READ_CHUNK);
        if (got > 0 && got <= static_cast<int>(HTTP_READ_CHUNK)) m_nRecvLen += static_cast<uint32_t>(got);
        return got;
    }
    // Appends bytes already read; false when they do not fit.
    bool Append(const uint8_t* data, uint32_t n) {
        if (!m_pRecvBuf || n > HTTP_RECV_BUF_SIZE - m_nRecvLen) return false;
        memcpy(m_pRecvBuf.get() + m_nRecvLen, data, n);
        m_nRecvLen += n;
        return true;
    }
    // Drops the first n bytes (a cut frame); the next scan starts at 0.
    void Consume(uint32_t n) {
        if (n > m_nRecvLen) n = m_nRecvLen;
        m_nRecvLen -= n;
        memmove(m_pRecvBuf.get(), m_pRecvBuf.get() + n, m_nRecvLen);
        m_nRecvPos = 0;
    }

private:
    std::unique_ptr<uint8_t[]> m_pRecvBuf;
    uint32_t m_nRecvLen = 0;
    uint32_t m_nRecvPos = 0;
    int32_t m_bHttpFrame = 0;
};
