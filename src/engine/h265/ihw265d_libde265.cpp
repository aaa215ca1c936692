// IHW265D over libde265.
//
// Each call pushes one access unit, marks its end so libde265 decodes it at
// once, runs the decoder until it wants input, and hands out the next
// picture of libde265's output queue. Errors and warnings libde265 reports
// while decoding are remembered and charged to the next picture handed out,
// which is then reported as damaged (status 3).
#include "engine/h265/IHW265D.h"

#include <libde265/de265.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

struct IHW265D_Decoder {
    uint32_t channel = 0;
    uint32_t max_width = 0;
    uint32_t max_height = 0;
    IHW265D_FreeFn free_fn = nullptr;
    IHW265D_LogFn log_fn = nullptr;
    de265_decoder_context* de265 = nullptr;
    bool damage_pending = false;   // errors seen since the last picture handed out
    bool chain_damaged = false;    // a picture since the last random-access point was damaged
    uint32_t first_error = 0;      // first error/warning number since the last picture
};

namespace {

constexpr uint32_t kApiVersion = 0x00010000;  // 1.0
// Upper bound of de265_decode steps per call; one step handles one NAL
// unit or one slice, an access unit has far fewer.
constexpr int kMaxDecodeSteps = 4096;

void* DefaultMalloc(uint32_t /*channel*/, uint32_t size) { return std::malloc(size); }
void DefaultFree(uint32_t /*channel*/, void* ptr) { std::free(ptr); }

void Log(const IHW265D_Decoder* d, uint32_t level, const char* fmt, ...) __attribute__((format(printf, 3, 4)));
void Log(const IHW265D_Decoder* d, uint32_t level, const char* fmt, ...) {
    if (!d->log_fn) return;
    char text[256];
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    d->log_fn(d->channel, level, text);
}

// Warnings that say nothing about the picture's content.
bool IsHarmless(de265_error e) {
    return e == DE265_OK || e == DE265_WARNING_NO_WPP_CANNOT_USE_MULTITHREADING ||
           e == DE265_WARNING_NUMBER_OF_THREADS_LIMITED_TO_MAXIMUM || e == DE265_WARNING_WARNING_BUFFER_FULL;
}

void NoteError(IHW265D_Decoder* d, de265_error e) {
    if (IsHarmless(e)) return;
    if (!d->damage_pending) Log(d, IHW265D_LOG_WARNING, "IHW265D: %s (%d)", de265_get_error_text(e), int(e));
    d->damage_pending = true;
    if (d->first_error == 0) d->first_error = static_cast<uint32_t>(e);
}

// Runs the decoder until it waits for input, a picture queue fills, or it
// has nothing more to do.
void RunDecoder(IHW265D_Decoder* d) {
    for (int step = 0; step < kMaxDecodeSteps; ++step) {
        int more = 0;
        const de265_error err = de265_decode(d->de265, &more);
        if (err == DE265_ERROR_WAITING_FOR_INPUT_DATA || err == DE265_ERROR_IMAGE_BUFFER_FULL) break;
        NoteError(d, err);
        if (!more) break;
    }
    for (int i = 0; i < 256; ++i) {  // the warning queue is bounded; so is this
        const de265_error w = de265_get_warning(d->de265);
        if (w == DE265_OK) break;
        NoteError(d, w);
    }
}

bool IsRandomAccessPoint(const de265_image* img) {
    int nal_type = -1;
    de265_get_image_NAL_header(img, &nal_type, nullptr, nullptr, nullptr);
    return nal_type >= 16 && nal_type <= 23;  // BLA, IDR, CRA and reserved IRAP types
}

bool Is8Bit420(const de265_image* img) {
    if (de265_get_chroma_format(img) != de265_chroma_420) return false;
    for (int c = 0; c < 3; ++c)
        if (de265_get_bits_per_pixel(img, c) != 8) return false;
    return true;
}

}  // namespace

extern "C" {

uint32_t IHW265D_GetVersion(IHW265D_VERSION* version) {
    if (!version) return IHW265D_ERR_INVALID_ARGUMENT;
    std::memset(version, 0, sizeof *version);
    std::snprintf(version->szVersion, sizeof version->szVersion, "IHW265D 1.0 (libde265 %s)", de265_get_version());
    version->uiApiVersion = kApiVersion;
    return IHW265D_OK;
}

uint32_t IHW265D_Create(IHW265D_HANDLE* handle, const IHW265D_INIT_PARAM* params) {
    if (!handle) return IHW265D_ERR_INVALID_ARGUMENT;
    *handle = nullptr;
    if (!params || params->uiMaxWidth == 0 || params->uiMaxHeight == 0 || params->uiMaxWidth > 16384 ||
        params->uiMaxHeight > 16384)
        return IHW265D_ERR_INVALID_ARGUMENT;

    IHW265D_MallocFn malloc_fn = params->pfnMalloc ? params->pfnMalloc : DefaultMalloc;
    IHW265D_FreeFn free_fn = params->pfnFree ? params->pfnFree : DefaultFree;
    void* mem = malloc_fn(params->uiChannelId, sizeof(IHW265D_Decoder));
    if (!mem) return IHW265D_ERR_NO_MEMORY;
    // The instance lives in caller-provided memory; IHW265D_Delete ends it.
    auto* d = new (mem) IHW265D_Decoder;
    d->channel = params->uiChannelId;
    d->max_width = params->uiMaxWidth;
    d->max_height = params->uiMaxHeight;
    d->free_fn = free_fn;
    d->log_fn = params->pfnLog;

    d->de265 = de265_new_decoder();
    if (!d->de265) {
        d->~IHW265D_Decoder();
        free_fn(params->uiChannelId, mem);
        return IHW265D_ERR_DECODER;
    }
    if (params->uiThreads > 1) {
        const de265_error err = de265_start_worker_threads(d->de265, static_cast<int>(params->uiThreads));
        if (!de265_isOK(err)) Log(d, IHW265D_LOG_WARNING, "IHW265D: no worker threads: %s", de265_get_error_text(err));
    }
    Log(d, IHW265D_LOG_INFO, "IHW265D: created, pictures up to %ux%u", d->max_width, d->max_height);
    *handle = d;
    return IHW265D_OK;
}

uint32_t IHW265D_Decode(IHW265D_HANDLE d, const IHW265D_INPUT* in, IHW265D_OUTPUT* out) {
    if (!d || !in || !out || (in->uiStreamLen > 0 && !in->pStream) || in->uiStreamLen > 0x7FFFFFFFu)
        return IHW265D_ERR_INVALID_ARGUMENT;
    std::memset(out, 0, sizeof *out);
    out->uiDecodeStatus = IHW265D_STATUS_NO_PICTURE;

    if (in->uiStreamLen > 0) {
        const de265_error err = de265_push_data(d->de265, in->pStream, static_cast<int>(in->uiStreamLen),
                                                static_cast<de265_PTS>(in->uiTimeStamp), nullptr);
        if (!de265_isOK(err)) {
            out->uiErrorCode = static_cast<uint32_t>(err);
            return IHW265D_ERR_STREAM;
        }
        // One call carries one whole access unit.
        de265_push_end_of_frame(d->de265);
    }
    RunDecoder(d);
    out->uiErrorCode = d->first_error;

    const de265_image* img = de265_get_next_picture(d->de265);
    if (!img) return IHW265D_OK;

    const int width = de265_get_image_width(img, 0);
    const int height = de265_get_image_height(img, 0);
    if (width <= 0 || height <= 0 || static_cast<uint32_t>(width) > d->max_width ||
        static_cast<uint32_t>(height) > d->max_height) {
        Log(d, IHW265D_LOG_ERROR, "IHW265D: picture %dx%d exceeds %ux%u", width, height, d->max_width,
            d->max_height);
        return IHW265D_ERR_PICTURE_TOO_LARGE;
    }

    if (IsRandomAccessPoint(img)) d->chain_damaged = false;
    bool damaged = d->damage_pending;
    d->damage_pending = false;
    d->first_error = 0;
    if (!Is8Bit420(img)) damaged = true;  // cannot be handed out as 8-bit 4:2:0
    if (damaged) d->chain_damaged = true;

    out->uiWidth = static_cast<uint32_t>(width);
    out->uiHeight = static_cast<uint32_t>(height);
    out->uiFlags = (damaged ? IHW265D_FLAG_DAMAGED : 0u) | (d->chain_damaged ? IHW265D_FLAG_REF_DAMAGED : 0u);
    out->uiDecodeStatus = damaged ? IHW265D_STATUS_DAMAGED : IHW265D_STATUS_PICTURE;
    if (!Is8Bit420(img)) return IHW265D_OK;  // damaged, no planes

    int y_stride = 0, u_stride = 0, v_stride = 0;
    out->pY = de265_get_image_plane(img, 0, &y_stride);
    out->pU = de265_get_image_plane(img, 1, &u_stride);
    out->pV = de265_get_image_plane(img, 2, &v_stride);
    out->uiYStride = static_cast<uint32_t>(y_stride);
    out->uiUVStride = static_cast<uint32_t>(u_stride);
    return IHW265D_OK;
}

uint32_t IHW265D_Delete(IHW265D_HANDLE d) {
    if (!d) return IHW265D_OK;
    de265_free_decoder(d->de265);
    const uint32_t channel = d->channel;
    IHW265D_FreeFn free_fn = d->free_fn;
    d->~IHW265D_Decoder();
    free_fn(channel, d);
    return IHW265D_OK;
}

}  // extern "C"
