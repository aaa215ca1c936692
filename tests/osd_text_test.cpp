// Catches: the wrong font for the picture width, glyph rows drawn upside down or off by a row, cells that do not advance, non-printables painted, writes outside the picture, a blank glyph table.
#include "osd_text.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/pictures.h"

namespace {

using Picture = std::vector<unsigned char>;

// Expected picture: `before` with each printable character's set glyph bits
// painted, cells advancing one glyph width per character, the glyph's top row
// on image row y - 1 (rows counted from the top of a bottom-up picture).
Picture Expected(Picture p, int width, int height, const std::string& text, int x, int y) {
    const int gw = width < 720 ? 8 : 16, gh = gw * 2;
    for (size_t i = 0; i < text.size(); ++i) {
        const int code = static_cast<unsigned char>(text[i]);
        if (code < kOsdFirstChar || code > kOsdLastChar) continue;
        const unsigned char* glyph = gw == 8 ? kOsdFont8x16 + (code - kOsdFirstChar) * 16
                                             : kOsdFont16x32 + (code - kOsdFirstChar) * 64;
        for (int gy = 0; gy < gh; ++gy)
            for (int gx = 0; gx < gw; ++gx) {
                const int px = x + static_cast<int>(i) * gw + gx, row = y - 1 + gy;
                if (px < 0 || px >= width || row < 0 || row >= height) continue;
                if (!(glyph[gy * gw / 8 + gx / 8] & (0x80 >> (gx % 8)))) continue;
                unsigned char* d = &p[(static_cast<size_t>(height - 1 - row) * width + px) * 3];
                d[0] = kOsdColorB;
                d[1] = kOsdColorG;
                d[2] = kOsdColorR;
            }
    }
    return p;
}

TEST(OsdText, DrawsGlyphCellsIntoBottomUpPictures) {
    struct {
        int width, height, x, y;
        std::string text;
    } cases[] = {
        {704, 120, 40, 20, "W"}, {719, 120, 40, 20, "W"}, {720, 120, 40, 20, "W"}, {1280, 120, 40, 20, "W"},
        {352, 288, 17, 101, "A\tB C"}, {352, 288, 10, 10, ""}, {100, 30, 60, 10, "clipped at the right edge"},
        {100, 30, 0, 0, "top"}, {100, 30, 0, 25, "bottom"}, {100, 30, -12, 12, "left"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.width) + " '" + c.text + "'");
        const Picture top_down = camctl_test::RawTestFrame("testsrc2", c.width, c.height, "bgr24", 7);
        const Picture before = camctl_test::FlipRows(top_down.data(), c.width * 3, c.height);
        const Picture expected = Expected(before, c.width, c.height, c.text, c.x, c.y);
        EXPECT_EQ(expected == before, c.text.empty());  // every case but the empty text has ink
        // Guard bytes on both sides catch writes outside the picture.
        std::vector<unsigned char> buffer(before.size() + 2 * 4096, 0x5A);
        std::copy(before.begin(), before.end(), buffer.begin() + 4096);
        EXPECT_EQ(DrawOsdText(c.text.c_str(), buffer.data() + 4096, c.width, c.height, c.x, c.y), 0);
        EXPECT_TRUE(Picture(buffer.begin() + 4096, buffer.end() - 4096) == expected);
        for (size_t i = 0; i < 4096; ++i) {
            ASSERT_EQ(buffer[i], 0x5A);
            ASSERT_EQ(buffer[buffer.size() - 1 - i], 0x5A);
        }
    }
}

TEST(OsdText, EveryPrintableGlyphHasInkAndTheSpaceNone) {
    for (int code = kOsdFirstChar; code <= kOsdLastChar; ++code) {
        const unsigned char *small = kOsdFont8x16 + (code - kOsdFirstChar) * 16, *large = kOsdFont16x32 + (code - kOsdFirstChar) * 64;
        EXPECT_EQ(std::any_of(small, small + 16, [](int b) { return b; }), code != ' ') << char(code);
        EXPECT_EQ(std::any_of(large, large + 64, [](int b) { return b; }), code != ' ') << char(code);
    }
}

}  // namespace
