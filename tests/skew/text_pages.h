// Text-like pages for the skew tests: lines of word-sized dark blocks, like a
// typed page, turned by a known angle about the page centre (positive: lines
// fall toward the right as displayed).
#pragma once

#include <cmath>
#include <vector>

#include "support/pages.h"

namespace qtest {

struct TextLayout {
    int width = 1240;     // 150 dpi A4-ish
    int height = 1754;
    int margin = 140;
    int lineSpacing = 36;
    int xHeight = 14;
    int columns = 1;
    int gutter = 60;
    unsigned seed = 7;
};

// Display-coordinate ink mask of the upright page: true where a word is.
inline std::vector<bool> UprightText(const TextLayout &t) {
    std::vector<bool> ink(static_cast<std::size_t>(t.width) * t.height, false);
    unsigned state = t.seed;
    auto next = [&state](int lo, int hi) {
        state = state * 1103515245u + 12345u;
        return lo + static_cast<int>((state >> 16) % static_cast<unsigned>(hi - lo + 1));
    };
    const int columnWidth = (t.width - 2 * t.margin - (t.columns - 1) * t.gutter) / t.columns;
    for (int top = t.margin; top + t.xHeight < t.height - t.margin; top += t.lineSpacing) {
        for (int col = 0; col < t.columns; ++col) {
            const int left = t.margin + col * (columnWidth + t.gutter);
            int x = left + next(0, 40);
            const int end = left + columnWidth - next(0, columnWidth / 5);
            while (x < end) {
                const int word = next(18, 110);
                for (int y = top; y < top + t.xHeight; ++y)
                    for (int u = x; u < std::min(x + word, end); ++u) ink[static_cast<std::size_t>(y) * t.width + u] = true;
                x += word + next(10, 18);
            }
        }
    }
    return ink;
}

// The layout turned by `degrees` about the page centre, as an 8-bit gray
// page (ink 0, paper 255), nearest-neighbour sampling.
inline Block TurnedTextPage(const TextLayout &t, double degrees, int bitCount = 8) {
    const std::vector<bool> ink = UprightText(t);
    const double a = degrees * M_PI / 180.0, c = std::cos(a), s = std::sin(a);
    const double cx = t.width / 2.0, cy = t.height / 2.0;
    auto inkAt = [&](int x, int displayY) {
        const double dx = x + 0.5 - cx, dy = displayY + 0.5 - cy;
        const int u = static_cast<int>(std::floor(cx + dx * c + dy * s));
        const int v = static_cast<int>(std::floor(cy - dx * s + dy * c));
        return u >= 0 && v >= 0 && u < t.width && v < t.height && ink[static_cast<std::size_t>(v) * t.width + u];
    };
    PageShape shape;
    shape.width = t.width;
    shape.height = t.height;
    shape.bitCount = bitCount;
    shape.palette = bitCount == 1 ? Palette::kLightFirst : bitCount == 8 ? Palette::kDarkFirst : Palette::kNone;
    return MakePageWith(shape, [&](int x, int y, int) {
        const bool dark = inkAt(x, t.height - 1 - y);
        if (bitCount == 1) return dark ? 1 : 0;  // light-first table: bit 1 is black
        return dark ? 0 : 255;
    });
}

}  // namespace qtest
