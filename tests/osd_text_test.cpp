// Text overlay stamped into real bottom-up BGR pictures.
#include "osd_text.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "support/pictures.h"

namespace {

using Picture = std::vector<unsigned char>;

// A real test-source picture in the overlay's layout (BGR, bottom-up).
Picture BottomUpFrame(int width, int height) {
    const Picture topDown = camctl_test::RawTestFrame("testsrc2", width, height, "bgr24", 7);
    return camctl_test::FlipRows(topDown.data(), width * 3, height);
}

// The pixel at image row `row` counted from the top.
const unsigned char* PixelAt(const Picture& p, int width, int height, int x, int row) {
    return &p[(static_cast<size_t>(height - 1 - row) * width + x) * 3];
}

bool IsTextColour(const unsigned char* px) {
    return px[0] == kOsdColorB && px[1] == kOsdColorG && px[2] == kOsdColorR;
}

bool GlyphBit(const unsigned char* glyph, int glyphWidth, int gx, int gy) {
    const int bytesPerRow = glyphWidth / 8;
    return glyph[gy * bytesPerRow + gx / 8] & (0x80 >> (gx % 8));
}

// Checks one cell: set glyph bits painted in the text colour, clear bits
// left as they were, the cell's top row being image row y - 1.
void ExpectCell(const Picture& before, const Picture& after, int width, int height, int x, int y,
                const unsigned char* glyph, int glyphWidth, int glyphHeight) {
    for (int gy = 0; gy < glyphHeight; ++gy) {
        for (int gx = 0; gx < glyphWidth; ++gx) {
            const unsigned char* now = PixelAt(after, width, height, x + gx, y - 1 + gy);
            const unsigned char* was = PixelAt(before, width, height, x + gx, y - 1 + gy);
            if (glyph && GlyphBit(glyph, glyphWidth, gx, gy)) {
                ASSERT_TRUE(IsTextColour(now)) << "glyph pixel " << gx << "," << gy;
            } else {
                ASSERT_TRUE(now[0] == was[0] && now[1] == was[1] && now[2] == was[2])
                    << "background pixel " << gx << "," << gy;
            }
        }
    }
}

// Pixels that differ between two pictures.
int ChangedPixels(const Picture& a, const Picture& b) {
    int n = 0;
    for (size_t i = 0; i < a.size(); i += 3) n += a[i] != b[i] || a[i + 1] != b[i + 1] || a[i + 2] != b[i + 2];
    return n;
}

TEST(OsdText_Font, EveryPrintableGlyphHasInkAndTheSpaceNone) {
    for (int code = kOsdFirstChar; code <= kOsdLastChar; ++code) {
        int small = 0, large = 0;
        for (int i = 0; i < 16; ++i) small += kOsdFont8x16[(code - kOsdFirstChar) * 16 + i] != 0;
        for (int i = 0; i < 64; ++i) large += kOsdFont16x32[(code - kOsdFirstChar) * 64 + i] != 0;
        if (code == ' ') {
            EXPECT_EQ(small, 0);
            EXPECT_EQ(large, 0);
        } else {
            EXPECT_GT(small, 0) << static_cast<char>(code);
            EXPECT_GT(large, 0) << static_cast<char>(code);
        }
    }
}

TEST(OsdText_Draw, FontFollowsThePictureWidth) {
    // Below 720 pixels: 8 x 16 glyphs; from 720: 16 x 32.
    for (auto [width, glyphWidth] : {std::pair{704, 8}, std::pair{719, 8}, std::pair{720, 16}, std::pair{1280, 16}}) {
        SCOPED_TRACE(width);
        const int height = 120, x = 40, y = 20;
        const Picture before = BottomUpFrame(width, height);
        Picture after = before;
        EXPECT_EQ(DrawOsdText("W", after.data(), width, height, x, y), 0);
        const unsigned char* glyph =
            glyphWidth == 8 ? kOsdFont8x16 + ('W' - kOsdFirstChar) * 16 : kOsdFont16x32 + ('W' - kOsdFirstChar) * 64;
        ExpectCell(before, after, width, height, x, y, glyph, glyphWidth, glyphWidth * 2);
        int ink = 0;
        for (int i = 0; i < glyphWidth * glyphWidth * 2 / 8; ++i) ink += __builtin_popcount(glyph[i]);
        EXPECT_EQ(ChangedPixels(before, after), ink);
    }
}

TEST(OsdText_Draw, CellsAdvanceForEveryCharacterAndOnlyPrintablesPaint) {
    const int width = 352, height = 288, x = 17, y = 101;
    const Picture before = BottomUpFrame(width, height);
    Picture after = before;
    EXPECT_EQ(DrawOsdText("A\tB C", after.data(), width, height, x, y), 0);
    const unsigned char* a = kOsdFont8x16 + ('A' - kOsdFirstChar) * 16;
    const unsigned char* b = kOsdFont8x16 + ('B' - kOsdFirstChar) * 16;
    const unsigned char* c = kOsdFont8x16 + ('C' - kOsdFirstChar) * 16;
    ExpectCell(before, after, width, height, x, y, a, 8, 16);
    ExpectCell(before, after, width, height, x + 8, y, nullptr, 8, 16);  // tab: untouched gap
    ExpectCell(before, after, width, height, x + 16, y, b, 8, 16);
    ExpectCell(before, after, width, height, x + 24, y, nullptr, 8, 16);  // space: nothing
    ExpectCell(before, after, width, height, x + 32, y, c, 8, 16);
    int ink = 0;
    for (int i = 0; i < 16; ++i) ink += __builtin_popcount(a[i]) + __builtin_popcount(b[i]) + __builtin_popcount(c[i]);
    EXPECT_EQ(ChangedPixels(before, after), ink);
}

TEST(OsdText_Draw, GlyphRowsStartAtTheRowAboveYInMemoryOrder) {
    // Glyph row gy starts at byte ((height - y) * width + x) * 3 and each
    // next row lies width * 3 bytes earlier in memory.
    const int width = 64, height = 40, x = 8, y = 10;
    Picture p(static_cast<size_t>(width) * height * 3, 0);
    DrawOsdText("#", p.data(), width, height, x, y);
    const unsigned char* glyph = kOsdFont8x16 + ('#' - kOsdFirstChar) * 16;
    int painted = 0;
    for (int gy = 0; gy < 16; ++gy) {
        const size_t row = (static_cast<size_t>(height - y) * width + x) * 3 - static_cast<size_t>(gy) * width * 3;
        for (int gx = 0; gx < 8; ++gx) {
            EXPECT_EQ(IsTextColour(&p[row + gx * 3]), GlyphBit(glyph, 8, gx, gy)) << gx << "," << gy;
        }
        painted += __builtin_popcount(glyph[gy]);
    }
    EXPECT_GT(painted, 0);
    EXPECT_EQ(ChangedPixels(p, Picture(p.size(), 0)), painted);
}

TEST(OsdText_Draw, TextPastTheEdgesIsClippedInsideTheBuffer) {
    const int width = 100, height = 30;
    const size_t size = static_cast<size_t>(width) * height * 3;
    // Guard bytes on both sides of the picture.
    std::vector<unsigned char> buffer(size + 2 * 4096, 0x5A);
    unsigned char* picture = buffer.data() + 4096;
    std::fill(picture, picture + size, 0);
    DrawOsdText("clipped at the right edge", picture, width, height, 60, 10);
    DrawOsdText("top", picture, width, height, 0, 0);          // first row above the picture
    DrawOsdText("bottom", picture, width, height, 0, 25);      // runs below the last row
    DrawOsdText("left", picture, width, height, -12, 12);
    for (size_t i = 0; i < 4096; ++i) {
        ASSERT_EQ(buffer[i], 0x5A);
        ASSERT_EQ(buffer[4096 + size + i], 0x5A);
    }
    // What fits is still drawn: the 'c' at x = 60 is whole.
    Picture p(picture, picture + size);
    Picture blank(size, 0);
    const unsigned char* c = kOsdFont8x16 + ('c' - kOsdFirstChar) * 16;
    ExpectCell(blank, p, width, height, 60, 10, c, 8, 16);
}

TEST(OsdText_Draw, EmptyTextChangesNothing) {
    const Picture before = BottomUpFrame(352, 288);
    Picture after = before;
    EXPECT_EQ(DrawOsdText("", after.data(), 352, 288, 10, 10), 0);
    EXPECT_EQ(after, before);
}

}  // namespace
