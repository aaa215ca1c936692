// Baseline JPEG encoder: one planar YUV 4:2:0 picture to a complete JFIF
// file in memory. Sequential Huffman coding with the example tables of
// ITU-T T.81 Annex K, a floating-point AAN forward DCT, and no chroma
// subsampling in the output (chroma is replicated to full size and all
// three components are coded 1x1).
#pragma once

#include <cstddef>
#include <cstdint>

// Encodes the picture whose Y plane starts at y (lines of `stride` bytes)
// and whose U and V planes start at u and v (lines of stride / 2 bytes, the
// chroma sample for pixel (r, c) at line r / 2, column c / 2). Each chroma
// plane is read only within height / 2 lines of stride / 2 bytes, so an
// I420 buffer of stride * height * 3 / 2 bytes is never read past.
//
// quality follows the IJG rule (clamped to 1..100; 100 makes every
// quantiser 1). The file is written to out, at most `capacity` bytes;
// *outLength receives its length. Returns 0, or -1 with *outLength = 0 when
// an argument is unusable (null plane, width or height below 2 or above
// 65535, stride < width) or the file would not fit in capacity.
//
// Pictures whose sizes are not multiples of 8 are coded with their right
// and bottom edge pixels repeated into the last blocks, so the coded block
// count always matches the size in the frame header.
int JpegEncodeYuv(const unsigned char* y, const unsigned char* u, const unsigned char* v, int width,
                  int height, int quality, int stride, unsigned char* out, uint32_t* outLength,
                  size_t capacity);

// The same with the capacity every caller in the library provides:
// width * height * 3 bytes.
int JpegEncodeYuv(const unsigned char* y, const unsigned char* u, const unsigned char* v, int width,
                  int height, int quality, int stride, unsigned char* out, uint32_t* outLength);

namespace jpeg_internal {

// Forward DCT of one 8x8 block of level-shifted samples (natural order,
// rows top to bottom), rows first, then columns; the output is left scaled
// by the AAN factors. The vector and the plain version must agree bit for
// bit; the encoder uses the vector one where the CPU has it.
void ForwardDctPlain(const float in[64], float out[64]);
void ForwardDctVector(const float in[64], float out[64]);

// The quantisation rounding applied to coefficient * divisor:
// trunc(product + 0.5), computed in double precision.
int RoundQuantized(float product);

// Quantises DCT output (natural order) with the divisors (natural order)
// into zig-zag order, rounding as RoundQuantized does; AC values are
// limited to +-1023 and DC to -1024..1023 as baseline coding requires.
void QuantizeBlock(const float coef[64], const float divisor[64], int16_t zigzag[64]);

}  // namespace jpeg_internal
