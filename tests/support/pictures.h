// Test support for picture work: raw frames made by the ffmpeg CLI, JPEG
// decoding through libjpeg, and picture comparison.
#pragma once

#include <string>
#include <vector>

namespace camctl_test {

// One raw frame of an ffmpeg test source: `source` is a lavfi source such
// as "testsrc" or "testsrc2", pixFmt "yuv420p", "bgr24" or "rgb24", frame the
// index (0-based) of the frame at 25 fps. Cached as a fixture file.
std::vector<unsigned char> RawTestFrame(const std::string& source, int width, int height,
                                        const std::string& pixFmt, int frame = 0);

// A JPEG decoded by libjpeg.
struct DecodedJpeg {
    bool ok = false;
    int width = 0;
    int height = 0;
    int components = 0;
    int warnings = 0;       // libjpeg warnings (corrupt data, early end, ...)
    int mcusPerRow = 0;     // interleaved scan geometry
    int mcuRows = 0;
    std::vector<unsigned char> pixels;  // rows top-down, interleaved
};

// Decodes to interleaved components in the given libjpeg colour space
// (JCS_RGB = 2, JCS_YCbCr = 3); fatal errors give ok = false.
DecodedJpeg DecodeJpeg(const std::vector<unsigned char>& file, int colorSpace);

// Peak signal-to-noise ratio of two equally long byte pictures, in dB
// (1000 for identical pictures).
double Psnr(const unsigned char* a, const unsigned char* b, size_t size);

// An I420 picture blown up to interleaved 4:4:4 YCbCr by repeating each
// chroma sample 2x2 (what the JPEG encoder codes).
std::vector<unsigned char> I420ToYuv444(const unsigned char* yuv, int width, int height);

// A BGR24 picture stored bottom-up (as the decoder hands it out): the upper
// half, as seen, red, the lower half blue.
std::vector<unsigned char> RedOverBlue(int width, int height);

// Reverses the row order of a packed picture.
std::vector<unsigned char> FlipRows(const unsigned char* data, int rowBytes, int rows);

}  // namespace camctl_test
