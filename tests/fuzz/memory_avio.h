// An AVIOContext that reads from a byte vector, for driving the private
// HTTP frame reader with exact, repeatable input. Header-only so that the
// fuzz target (built with clang) and the unit tests share it.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "engine/ffmpeg_context.h"

extern "C" {
#include <libavformat/avio.h>
#include <libavutil/mem.h>
}

namespace camctl_test {

class MemoryAvio {
public:
    // chunk: the most bytes one read callback hands over.
    explicit MemoryAvio(std::vector<uint8_t> data, size_t chunk = 4096)
        : data_(std::move(data)), chunk_(std::max<size_t>(1, chunk)) {
        const int size = 4096;
        auto* buffer = static_cast<unsigned char*>(av_malloc(size));
        io_ = avio_alloc_context(buffer, size, 0, this, &MemoryAvio::Read, nullptr, nullptr);
        if (!io_) av_free(buffer);
    }
    ~MemoryAvio() {
        if (io_) av_freep(&io_->buffer);
        avio_context_free(&io_);
    }
    MemoryAvio(const MemoryAvio&) = delete;
    MemoryAvio& operator=(const MemoryAvio&) = delete;

    AVIOContext* get() const { return io_; }
    size_t served() const { return pos_; }

    // Lends the context to ctx->m_pHttpIo; Detach takes it back before the
    // media context goes away (its owner would otherwise close it as a URL).
    void AttachTo(FFMpegContext* ctx) { ctx->m_pHttpIo.reset(io_); }
    static void Detach(FFMpegContext* ctx) { (void)ctx->m_pHttpIo.release(); }

private:
    static int Read(void* opaque, uint8_t* buf, int size) {
        auto* self = static_cast<MemoryAvio*>(opaque);
        size_t left = self->data_.size() - self->pos_;
        if (left == 0) return AVERROR_EOF;
        size_t n = std::min({left, self->chunk_, static_cast<size_t>(size)});
        memcpy(buf, self->data_.data() + self->pos_, n);
        self->pos_ += n;
        return static_cast<int>(n);
    }

    std::vector<uint8_t> data_;
    size_t chunk_;
    size_t pos_ = 0;
    AVIOContext* io_ = nullptr;
};

}  // namespace camctl_test
