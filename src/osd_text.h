// On-screen text overlay: stamps a line of text into a 24-bit picture in
// place, with a built-in bitmap font chosen by the picture's width.
//
// Pictures are packed blue-green-red, 3 bytes per pixel, `width` pixels per
// row without padding, rows stored bottom-up (the first row in memory is the
// bottom row of the image).
#pragma once

// The fonts cover the printable ASCII codes 32 (' ') to 126 ('~'), stored
// glyph after glyph from the space. Rows top first, most significant bit
// leftmost; a set bit paints, a clear bit leaves the picture as it is.
constexpr int kOsdFirstChar = 32;
constexpr int kOsdLastChar = 126;
constexpr int kOsdGlyphCount = kOsdLastChar - kOsdFirstChar + 1;

// 8 x 16 pixels, one byte per row: pictures narrower than 720 pixels.
extern const unsigned char kOsdFont8x16[kOsdGlyphCount * 16];
// 16 x 32 pixels, two bytes per row (left byte first): 720 pixels and wider.
extern const unsigned char kOsdFont16x32[kOsdGlyphCount * 64];

// Painted pixels get these bytes, in memory order (blue, green, red).
constexpr unsigned char kOsdColorB = 194;
constexpr unsigned char kOsdColorG = 163;
constexpr unsigned char kOsdColorR = 100;

// Draws the zero-terminated text with its first cell's top-left corner at
// (x, y), image coordinates counted from the top-left. Character i goes to
// x + i * glyph width; codes outside 32..126 paint nothing but keep their
// cell. The first painted row is image row y - 1 (the overlay sits one row
// higher than y). Returns 0.
int DrawOsdText(const char* text, unsigned char* picture, int width, int height, int x, int y);

// Paints one glyph (glyphWidth a multiple of 8) with its top-left corner at
// (x, y), placed as DrawOsdText places its cells. Pixels that would fall
// outside the picture are skipped. Returns 0.
int DrawOsdChar(const unsigned char* glyph, int glyphWidth, int glyphHeight, unsigned char* picture,
                int width, int height, int x, int y);
