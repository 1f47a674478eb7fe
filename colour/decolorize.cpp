// DeColorize: gray the colour of a page while it stays a colour page. Over
// the whole page, distinctly red, blue or green pixels (each test on only
// when its threshold is above 0) are kept and every other pixel becomes its
// gray value (B >> 2) + (G >> 1) + (R >> 2); over a rectangle every pixel is
// grayed.
#include <algorithm>

#include "colour/colour.h"
#include "frame/kernels.h"

namespace quarvel::colour {

HGLOBAL DeColorize(HGLOBAL hDib, const RECT *rect, int redThreshold, int blueThreshold, int greenThreshold) {
    LockedDib in(hDib, kBelowColourToo);
    BlockCopy out(in);
    if (!out) return nullptr;
    if (in.bitCount() < 24) return out.Release();
    const int w = in.width(), h = in.height();
    const RECT r = rect != nullptr ? *rect : RECT{0, 0, 0, 0};
    const bool wholePage = r.right == 0 && r.bottom == 0;
    Span span;
    if (wholePage) {
        // Columns from left and rows from top to the page's edges.
        if (r.left < 0 || r.top < 0 || r.left > w || r.top > h) return out.Release();
        span = Span{static_cast<int>(r.left), w, 0, h - static_cast<int>(r.top)};
    } else if (!ResolveRect(&r, w, h, &span)) {
        return out.Release();
    }
    const ColourRows rows = RowsOf(out.header());
    out.CopyRows(span.y0, span.y1, [&](int y) {
        kernels::DecolourRow(rows.row(y) + static_cast<std::size_t>(span.x0) * rows.bytesPerPixel, span.x1 - span.x0,
                             rows.bytesPerPixel, wholePage, redThreshold, blueThreshold, greenThreshold);
    });
    return out.Release();
}

}  // namespace quarvel::colour
