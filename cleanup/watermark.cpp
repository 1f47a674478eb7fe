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
#include "frame/bits.h"
#include "frame/kernels.h"
#include "frame/view.h"

namespace quarvel::cleanup {

namespace {

HGLOBAL Stamp(HGLOBAL hDib, HGLOBAL hMark, bool column) {
    LockedDib page(hDib, kImageDepths), mark(hMark, kDepth8);
    if (!page.ok() || !mark.ok()) return nullptr;  // the mark must be an 8-bit page
    ImagePtr pageView = DibToIplImage(page.header()), markView = DibToIplImage(mark.header());
    ResultBlock out = ResultBlock::CopiedHeader(page, true);  // every pixel is written
    if (!pageView || !markView || !out) return nullptr;
    const int pw = page.width(), ph = page.height(), mw = mark.width(), mh = mark.height();
    const int xOff = std::max((pw - mw) / 2, 0);
    // The mark in the page's format; an 8-bit mark is used as it is, a
    // 1-bit one starts at the page's bit phase, so their bytes line up.
    const int phase = page.bitCount() == 1 ? xOff & 7 : 0;
    ImagePtr converted;
    if (page.bitCount() != 8) {
        converted = CreateImageLike(*pageView, mw + phase, mh, 255);
        if (!converted) return nullptr;
        IplROI at{0, phase, 0, mw, mh};
        RoiScope scope(converted.get(), &at);
        if (page.bitCount() == 1)
            iplThreshold(markView.get(), converted.get(), 128);
        else
            iplGrayToColor(markView.get(), converted.get(), 1.0f, 1.0f, 1.0f);
    }
    const IplImage &stamp = converted ? *converted : *markView;
    // Row by row: the page's row copied around the copies of the mark (one
    // rectangle, as the column's copies touch), the mark's row subtracted
    // from the page's in between.
    const int y0 = column ? (ph % mh) / 2 : std::max((ph - mh) / 2, 0);
    const int w = std::min(mw, pw - xOff), h = column ? ph - y0 : std::min(mh, ph - y0);
    if (w <= 0 || h <= 0) {
        iplCopy(pageView.get(), out.image());
        return out.Release();
    }
    IplImage &result = *out.image();
    const std::size_t bpp = static_cast<std::size_t>(page.bitCount() / 8);
    const std::size_t left = page.bitCount() == 1 ? static_cast<std::size_t>(xOff >> 3) : bpp * xOff;
    PaintAround(pageView.get(), &result, xOff, y0, w, h, 0, [&](int i) {
        const std::uint8_t *p = RowOf(*pageView, i) + left, *m = RowOf(stamp, (i - y0) % mh);
        std::uint8_t *d = RowOf(result, i) + left;
        if (bpp == 0)
            bits::CombineInPhase(p, m, d, phase, w, [](auto a, auto b) { return static_cast<decltype(a)>(a & ~b); });
        else
            kernels::SubtractSaturateRow(p, m, d, bpp * w, bpp == 4);
    });
    return out.Release();
}

}  // namespace

HGLOBAL AddWaterMark(HGLOBAL hDib, HGLOBAL hMark) { return Stamp(hDib, hMark, false); }

HGLOBAL AddWaterMarkEx(HGLOBAL hDib, HGLOBAL hMark) { return Stamp(hDib, hMark, true); }

}  // namespace quarvel::cleanup
