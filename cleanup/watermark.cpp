// AddWaterMark and AddWaterMarkEx: stamp an 8-bit gray mark into a page by
// subtracting it (saturating at 0): mark value 0 leaves the page alone, 255
// makes it black. The mark is first converted to the page's format (1-bit
// pages: mark levels of 128 and more clear the page's bits). AddWaterMark
// centres one copy; AddWaterMarkEx stacks copies in a centred column from
// (page height mod mark height) / 2 rows above the bottom edge. Only the
// part of a copy inside the page is drawn: its lower-left part, since copies
// are placed by their lower-left corner. Every result byte is written once:
// the page is copied around the mark's copies, each of which is subtracted
// from the page into its own rectangle.
#include <algorithm>

#include "cleanup/cleanup.h"
#include "frame/kernels.h"
#include "frame/view.h"

namespace quarvel::cleanup {

namespace {

// Subtracts the converted mark from the page's pixels at (x, y), clipped to
// the page, into the same pixels of the result.
void Place(IplImage &mark, IplImage &page, IplImage &out, int x, int y) {
    const int w = std::min(mark.width, page.width - x), h = std::min(mark.height, page.height - y);
    if (w <= 0 || h <= 0 || x < 0 || y < 0) return;
    IplROI roi{0, x, y, w, h};
    RoiScope a(&page, &roi), b(&out, &roi);
    iplSubtract(&page, &mark, &out);
}

HGLOBAL Stamp(HGLOBAL hDib, HGLOBAL hMark, bool column) {
    LockedDib page(hDib, kImageDepths), mark(hMark, kDepth8);
    if (!page.ok() || !mark.ok()) return nullptr;  // the mark must be an 8-bit page
    ImagePtr pageView = DibToIplImage(page.header()), markView = DibToIplImage(mark.header());
    ResultBlock out = ResultBlock::CopiedHeader(page, true);  // every pixel is written
    if (!pageView || !markView || !out) return nullptr;
    // The mark in the page's format; an 8-bit mark is used as it is.
    ImagePtr converted;
    if (page.bitCount() != 8) {
        converted = CreateImageLike(*pageView, mark.width(), mark.height(), 255);
        if (!converted) return nullptr;
        if (page.bitCount() == 1)
            iplThreshold(markView.get(), converted.get(), 128);
        else
            iplGrayToColor(markView.get(), converted.get(), 1.0f, 1.0f, 1.0f);
    }
    IplImage &stamp = converted ? *converted : *markView;
    // The page copied around the copies of the mark (one rectangle, as the
    // column's copies touch), then the mark subtracted where it lies.
    const int pw = page.width(), ph = page.height(), mw = mark.width(), mh = mark.height();
    const int xOff = std::max((pw - mw) / 2, 0);
    const int y0 = column ? (ph % mh) / 2 : std::max((ph - mh) / 2, 0);
    const int w = std::min(mw, pw - xOff), h = column ? ph - y0 : std::min(mh, ph - y0);
    if (w <= 0 || h <= 0) {
        iplCopy(pageView.get(), out.image());
        return out.Release();
    }
    if (page.bitCount() >= 8) {
        // Row by row: the page's row around the mark, the mark's row
        // subtracted in between.
        const std::size_t bpp = static_cast<std::size_t>(page.bitCount() / 8), left = bpp * xOff;
        PaintAround(pageView.get(), out.image(), xOff, y0, w, h, 0, [&](int i) {
            kernels::SubtractSaturateRow(RowOf(*pageView, i) + left, RowOf(stamp, (i - y0) % mh),
                                         RowOf(*out.image(), i) + left, bpp * w, bpp == 4);
        });
        return out.Release();
    }
    PaintOutside(pageView.get(), out.image(), xOff, y0, w, h, 0);
    if (!column) {
        Place(stamp, *pageView, *out.image(), xOff, std::max((ph - mh) / 2, 0));
    } else {
        for (int y = (ph % mh) / 2; y < ph; y += mh) Place(stamp, *pageView, *out.image(), xOff, y);
    }
    return out.Release();
}

}  // namespace

HGLOBAL AddWaterMark(HGLOBAL hDib, HGLOBAL hMark) { return Stamp(hDib, hMark, false); }

HGLOBAL AddWaterMarkEx(HGLOBAL hDib, HGLOBAL hMark) { return Stamp(hDib, hMark, true); }

}  // namespace quarvel::cleanup
