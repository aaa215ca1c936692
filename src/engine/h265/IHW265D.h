// IHW265D: the H.265 decoder interface the engine decodes marked H.265
// streams through. One instance decodes one stream; every call on an
// instance comes from one thread.
//
// Input is Annex-B (start-code prefixed) data, one access unit per call.
// Each call hands out at most one picture, which stays valid until the next
// call on the same instance.
//
// This build implements the interface over libde265 (ihw265d_libde265.cpp);
// nothing outside src/engine/h265/ depends on which decoder is behind it.
#pragma once

#include <cstdint>

extern "C" {

typedef struct IHW265D_Decoder* IHW265D_HANDLE;

// Results of the calls (0 is success).
enum : uint32_t {
    IHW265D_OK = 0,
    IHW265D_ERR_INVALID_ARGUMENT = 0xF0401001u,  // null pointer, zero size, bad parameter block
    IHW265D_ERR_NO_MEMORY = 0xF0401002u,         // instance could not be allocated
    IHW265D_ERR_DECODER = 0xF0401003u,           // the decoder engine refused to start
    IHW265D_ERR_PICTURE_TOO_LARGE = 0xF0402001u, // picture larger than the creation size
    IHW265D_ERR_STREAM = 0xF0402002u,            // data could not be taken in
};

// Decode status in IHW265D_OUTPUT::uiDecodeStatus.
enum : uint32_t {
    IHW265D_STATUS_PICTURE = 0,     // a clean picture is handed out
    IHW265D_STATUS_NO_PICTURE = 1,  // nothing to hand out yet (more data needed)
    IHW265D_STATUS_DAMAGED = 3,     // a picture is handed out, decoded with errors
};

// Bits of IHW265D_OUTPUT::uiFlags.
enum : uint32_t {
    IHW265D_FLAG_DAMAGED = 1u << 0,       // this picture was decoded with errors
    IHW265D_FLAG_REF_DAMAGED = 1u << 1,   // a picture since the last random-access point was
};

// Levels passed to the log callback.
enum : uint32_t {
    IHW265D_LOG_ERROR = 0,
    IHW265D_LOG_WARNING = 1,
    IHW265D_LOG_INFO = 2,
};

// Memory and log services the caller provides. The channel word is the
// creation block's uiChannelId, handed back unchanged.
typedef void* (*IHW265D_MallocFn)(uint32_t channel, uint32_t size);
typedef void (*IHW265D_FreeFn)(uint32_t channel, void* ptr);
typedef void (*IHW265D_LogFn)(uint32_t channel, uint32_t level, const char* text);

// Creation parameters: thirteen words, then the three services.
struct IHW265D_INIT_PARAM {
    uint32_t uiChannelId;    // opaque, passed to the callbacks
    uint32_t uiMaxWidth;     // largest picture accepted, pixels
    uint32_t uiMaxHeight;
    uint32_t uiThreads;      // decoding threads; 0 or 1 decode on the caller's thread
    uint32_t uiReserved[9];  // must be passed as the engine does; ignored here
    IHW265D_MallocFn pfnMalloc;  // instance memory; null: malloc
    IHW265D_FreeFn pfnFree;      // null: free
    IHW265D_LogFn pfnLog;        // null: no log
};

struct IHW265D_INPUT {
    const uint8_t* pStream;  // Annex-B data of one access unit
    uint32_t uiStreamLen;
    uint64_t uiTimeStamp;    // carried through, not interpreted
};

struct IHW265D_OUTPUT {
    uint32_t uiFlags;         // IHW265D_FLAG_* of the picture handed out; 0 when clean
    uint32_t uiDecodeStatus;  // IHW265D_STATUS_*
    uint32_t uiWidth;         // picture size; 0 when no picture
    uint32_t uiHeight;
    uint32_t uiYStride;       // bytes per row of the Y plane
    uint32_t uiUVStride;      // bytes per row of the U and V planes
    const uint8_t* pY;        // 8-bit planes, 4:2:0
    const uint8_t* pU;
    const uint8_t* pV;
    uint32_t uiErrorCode;     // first decoder error/warning number seen for this call, 0 if none
};

struct IHW265D_VERSION {
    char szVersion[64];  // "IHW265D <interface> (<decoder> <version>)"
    uint32_t uiApiVersion;
};

// Fills *version. 0 on success.
uint32_t IHW265D_GetVersion(IHW265D_VERSION* version);

// Creates an instance into *handle. 0 on success, else an IHW265D_ERR_*
// value and *handle null.
uint32_t IHW265D_Create(IHW265D_HANDLE* handle, const IHW265D_INIT_PARAM* params);

// Decodes one access unit. 0 on success (out tells whether a picture came
// out), IHW265D_ERR_PICTURE_TOO_LARGE when the stream's pictures exceed the
// creation size (nothing is handed out), another IHW265D_ERR_* otherwise.
// An empty input (uiStreamLen 0) drains one picture still held, if any.
uint32_t IHW265D_Decode(IHW265D_HANDLE handle, const IHW265D_INPUT* in, IHW265D_OUTPUT* out);

// Destroys an instance; null is accepted.
uint32_t IHW265D_Delete(IHW265D_HANDLE handle);

}  // extern "C"
