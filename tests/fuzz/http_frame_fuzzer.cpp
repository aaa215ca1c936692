// libFuzzer target: arbitrary camera byte streams through the frame reader.
#include <cstdlib>

#include "fuzz/http_frame_fuzz_entry.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (camctl_fuzz::RunHttpFrameInput(data, size) != 0) abort();
    return 0;
}
