// RemoveBorder_Fill: whiten the dark frame around a page without changing
// its size. Dark pixels (below the threshold in a gray copy) joined to the
// image edge are marked by two raster passes — forward from the previous row
// and the left neighbour, backward from the next row and the right
// neighbour — instead of a flood fill, and painted white in the result.
// Level 255 is the mark, so genuine 255 pixels are first lowered to 254.
#include <algorithm>

#include "border/border.h"
#include "frame/convert.h"
#include "frame/view.h"

namespace quarvel::border {

HGLOBAL RemoveBorderFill(HGLOBAL hDib, int nThreshold) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in);
    if (!view || !out) return nullptr;
    ImagePtr work = ExpandBitonalToGray(view.get(), in.header());
    if (!work) return nullptr;
    const int w = in.width(), h = in.height();
    auto px = [&](int x, int y) -> std::uint8_t & { return RowOf(*work, y)[x]; };
    for (int y = 0; y < h; ++y) {
        std::uint8_t *row = RowOf(*work, y);
        for (int x = 0; x < w; ++x) row[x] = std::min<std::uint8_t>(row[x], 254);
    }
    constexpr std::uint8_t kMark = 255;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            std::uint8_t &p = px(x, y);
            if (p >= nThreshold) continue;
            if (y == 0 || x == 0 || x == w - 1 || y == h - 1 || px(x, y - 1) == kMark || px(x - 1, y) == kMark) p = kMark;
        }
    for (int y = h - 1; y >= 0; --y)
        for (int x = w - 1; x >= 0; --x) {
            std::uint8_t &p = px(x, y);
            if (p >= nThreshold) continue;  // marked pixels (255) are never dark
            if (y == 0 || x == 0 || x == w - 1 || y == h - 1 || px(x, y + 1) == kMark || px(x + 1, y) == kMark) p = kMark;
        }

    if (in.bitCount() == 1) {
        // Bit 1 where the copy is light; a page whose table lists white first
        // gets the complement, so both palettes keep their colours.
        iplThreshold(work.get(), out.image(), 128);
        if (IsLightFirst(in.header())) iplNot(out.image(), out.image());
        return out.Release();
    }
    iplCopy(view.get(), out.image());
    const int bpp = in.bitCount() / 8;
    const int colours = std::min(bpp, 3);
    for (int y = 0; y < h; ++y) {
        const std::uint8_t *m = RowOf(*work, y);
        std::uint8_t *d = RowOf(*out.image(), y);
        for (int x = 0; x < w; ++x)
            if (m[x] == kMark) std::fill(d + x * bpp, d + x * bpp + colours, 255);
    }
    return out.Release();
}

}  // namespace quarvel::border
