// One fuzz input run through the private HTTP frame reader. Shared by the
// libFuzzer target and the corpus replay test.
#pragma once

#include <cstddef>
#include <cstdint>

namespace camctl_fuzz {

// Input layout: byte 0 picks how much the opening read received, byte 1
// seeds the read boundaries of the second pass, byte 2 picks the context's
// codecs; the rest is the byte stream from the camera.
//
// Pass 1 runs http_read_one_frame over the stream (served by an in-memory
// AVIOContext) until it fails or 64 frames were read. Pass 2 cuts the same
// stream with http_read_frame, handing it over at pseudo-random read
// boundaries, with the bytes not yet received made unreadable under ASan.
//
// Returns 0, or the number of the first invariant that did not hold.
int RunHttpFrameInput(const uint8_t* data, size_t size);

}  // namespace camctl_fuzz
