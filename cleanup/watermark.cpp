// AddWaterMark and AddWaterMarkEx: stamp an 8-bit gray mark into a page by
// subtracting it (saturating at 0): mark value 0 leaves the page alone, 255
// makes it black. The mark is first converted to the page's format (1-bit
// pages: mark levels of 128 and more clear the page's bits). AddWaterMark
// centres one copy; AddWaterMarkEx stacks copies in a centred column from
// (page height mod mark height) / 2 rows above the bottom edge. Only the
// part of a copy inside the page is drawn: its lower-left part, since copies
// are placed by their lower-left corner.
#include <algorithm>

#include "cleanup/cleanup.h"
#include "frame/view.h"

namespace quarvel::cleanup {

namespace {

// Copies the converted mark into the canvas at (x, y), clipped to the canvas.
bool Place(IplImage &mark, IplImage &canvas, int x, int y) {
    const int w = std::min(mark.width, canvas.width - x), h = std::min(mark.height, canvas.height - y);
    if (w <= 0 || h <= 0 || x < 0 || y < 0) return true;
    RoiPtr roi(iplCreateROI(0, x, y, w, h));
    if (!roi) return false;
    RoiScope scope(&canvas, roi.get());
    iplCopy(&mark, &canvas);
    return true;
}

HGLOBAL Stamp(HGLOBAL hDib, HGLOBAL hMark, bool column) {
    LockedDib page(hDib, kImageDepths), mark(hMark, kDepth8);
    if (!page.ok() || !mark.ok()) return nullptr;  // the mark must be an 8-bit page
    ImagePtr pageView = DibToIplImage(page.header()), markView = DibToIplImage(mark.header());
    ResultBlock out = ResultBlock::CopiedHeader(page);
    if (!pageView || !markView || !out) return nullptr;
    ImagePtr converted = CreateImageLike(*pageView, mark.width(), mark.height(), 255);
    if (!converted) return nullptr;
    switch (page.bitCount()) {
        case 1: iplThreshold(markView.get(), converted.get(), 128); break;
        case 8: iplCopy(markView.get(), converted.get()); break;
        default: iplGrayToColor(markView.get(), converted.get(), 1.0f, 1.0f, 1.0f); break;
    }
    IplImage &canvas = *out.image();  // allocated zero-filled
    const int pw = page.width(), ph = page.height(), mw = mark.width(), mh = mark.height();
    const int xOff = std::max((pw - mw) / 2, 0);
    if (!column) {
        if (!Place(*converted, canvas, xOff, std::max((ph - mh) / 2, 0))) return nullptr;
    } else {
        for (int y = (ph % mh) / 2; y < ph; y += mh)
            if (!Place(*converted, canvas, xOff, y)) return nullptr;
    }
    iplSubtract(pageView.get(), &canvas, &canvas);
    return out.Release();
}

}  // namespace

HGLOBAL AddWaterMark(HGLOBAL hDib, HGLOBAL hMark) { return Stamp(hDib, hMark, false); }

HGLOBAL AddWaterMarkEx(HGLOBAL hDib, HGLOBAL hMark) { return Stamp(hDib, hMark, true); }

}  // namespace quarvel::cleanup
