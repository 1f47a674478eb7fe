// ConvertHongTou and ConvertHongTouEx: keep a page's distinctly red pixels
// (and, for Ex, its distinctly blue ones) as pure red (blue) and show every
// other pixel as the gray level of the caller's gray version of the page.
// The rules, in order: strong red (R at least the minimum level and its
// excess over the larger other component at least colorDiff), relative red
// (excess above R / 2, or above 50 for R below 100), strong blue (Ex only),
// else gray.
#include "colour/colour.h"
#include "frame/kernels.h"

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
    out.CopyRows(0, rows.height, [&](int y) {
        kernels::RedMarksRow(rows.row(y), gray.row(y), rows.width, rows.bytesPerPixel, colorDiff, minLevel, keepBlue);
    });
    return out.Release();
}

}  // namespace quarvel::colour
