// Replays every input of the fuzz corpus through the frame reader, so the
// normal suite keeps the cases the fuzzer found interesting.
#include <gtest/gtest.h>

#include <string>

#include "fuzz/http_frame_fuzz_entry.h"
#include "support/fixtures.h"

TEST(HttpFrameFuzzCorpus, EveryInputRunsCleanly) {
    std::vector<std::string> files = camctl_test::ListFiles(HTTP_FRAME_CORPUS_DIR);
    ASSERT_GE(files.size(), 8u);
    testing::internal::CaptureStderr();  // the reader logs a lot on hostile input
    for (const std::string& file : files) {
        std::vector<unsigned char> bytes = camctl_test::ReadFileBytes(file);
        EXPECT_EQ(camctl_fuzz::RunHttpFrameInput(bytes.data(), bytes.size()), 0) << file;
    }
    testing::internal::GetCapturedStderr();
}
