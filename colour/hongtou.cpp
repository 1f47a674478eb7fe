// ConvertHongTou and ConvertHongTouEx: keep a page's distinctly red pixels
// (and, for Ex, its distinctly blue ones) as pure red (blue) and show every
// other pixel as the gray level of the caller's gray version of the page.
// The rules, in order: strong red (R at least the minimum level and its
// excess over the larger other component at least colorDiff), relative red
// (excess above R / 2, or above 50 for R below 100), strong blue (Ex only),
// else gray.
#include <algorithm>

#include "colour/colour.h"

namespace quarvel::colour {

HGLOBAL ConvertHongTou(HGLOBAL hColorDib, HGLOBAL hGrayDib, int colorDiff, int minLevel, bool keepBlue) {
    LockedDib colour(hColorDib, kBelowColourToo);
    if (!colour.ok()) return nullptr;
    BlockCopy out(colour);
    if (!out) return nullptr;
    LockedDib gray(hGrayDib, kDepth8);
    if (!gray.ok() || colour.bitCount() < 24 || gray.width() != colour.width() || gray.height() != colour.height())
        return out.Release();

    const ColourRows rows = RowsOf(out.header());
    for (int y = 0; y < rows.height; ++y) {
        std::uint8_t *p = rows.row(y);
        const std::uint8_t *g = gray.row(y);
        for (int x = 0; x < rows.width; ++x, p += rows.bytesPerPixel) {
            const int b = p[0], gr = p[1], r = p[2];
            const int redExcess = r - std::max(gr, b);
            const int t = r >= 100 ? r / 2 : 50;
            if ((r >= minLevel && redExcess >= colorDiff) || redExcess > t) {
                p[0] = 0, p[1] = 0, p[2] = 255;
            } else if (keepBlue && b >= minLevel && b - std::max(gr, r) >= colorDiff) {
                p[0] = 255, p[1] = 0, p[2] = 0;
            } else {
                p[0] = p[1] = p[2] = g[x];
            }
        }
    }
    return out.Release();
}

}  // namespace quarvel::colour
