#include "osd_text.h"

#include <cstddef>

int DrawOsdChar(const unsigned char* glyph, int glyphWidth, int glyphHeight, unsigned char* picture,
                int width, int height, int x, int y) {
    if (!glyph || !picture || width <= 0 || height <= 0 || glyphWidth <= 0) return 0;
    const int bytesPerRow = (glyphWidth + 7) / 8;
    const size_t pitch = static_cast<size_t>(width) * 3;
    for (int gy = 0; gy < glyphHeight; ++gy) {
        // Glyph row gy lands on image row y - 1 + gy counted from the top,
        // which is memory row height - y - gy in the bottom-up layout.
        const long imageRow = static_cast<long>(y) - 1 + gy;
        if (imageRow < 0 || imageRow >= height) continue;
        unsigned char* row = picture + static_cast<size_t>(height - 1 - imageRow) * pitch;
        const unsigned char* bits = glyph + static_cast<size_t>(gy) * bytesPerRow;
        for (int gx = 0; gx < glyphWidth; ++gx) {
            if (!(bits[gx >> 3] & (0x80 >> (gx & 7)))) continue;
            const long column = static_cast<long>(x) + gx;
            if (column < 0 || column >= width) continue;
            unsigned char* px = row + static_cast<size_t>(column) * 3;
            px[0] = kOsdColorB;
            px[1] = kOsdColorG;
            px[2] = kOsdColorR;
        }
    }
    return 0;
}

int DrawOsdText(const char* text, unsigned char* picture, int width, int height, int x, int y) {
    if (!text || !*text) return 0;
    const bool large = width >= 720;
    const unsigned char* font = large ? kOsdFont16x32 : kOsdFont8x16;
    const int glyphWidth = large ? 16 : 8;
    const int glyphHeight = large ? 32 : 16;
    const int glyphBytes = glyphHeight * (glyphWidth / 8);
    for (long i = 0; text[i] != '\0'; ++i) {
        const int code = static_cast<unsigned char>(text[i]);
        if (code < kOsdFirstChar || code > kOsdLastChar) continue;
        const long cellX = static_cast<long>(x) + i * glyphWidth;
        if (cellX >= width) break;  // this cell and every later one are off the picture
        DrawOsdChar(font + static_cast<size_t>(code - kOsdFirstChar) * glyphBytes, glyphWidth,
                    glyphHeight, picture, width, height, static_cast<int>(cellX), y);
    }
    return 0;
}
