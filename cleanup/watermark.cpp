// AddWaterMark and AddWaterMarkEx: stamp an 8-bit gray mark into a page by
// subtracting it (saturating at 0): mark value 0 leaves the page alone, 255
// makes it black. The mark is first converted to the page's format (1-bit
// pages: mark levels of 128 and more clear the page's bits). AddWaterMark
// centres one copy; AddWaterMarkEx stacks copies in a centred column from
// (page height mod mark height) / 2 rows above the bottom edge. Only the
// part of a copy inside the page is drawn: its lower-left part, since copies
// are placed by their lower-left corner. Every result byte is written: the
// page is copied around the mark's copies, each of which is subtracted from
// the page into its own rectangle; a 1-bit page is copied 32 rows at a time
// and, while those rows are in cache, the mark's bytes of each are written
// a second time as the page's row AND NOT a mask row of the mark's bits.
#include <algorithm>
#include <cstring>
#include <memory>

#include "cleanup/cleanup.h"
#include "frame/bits.h"
#include "frame/kernels.h"
#include "frame/kernels_bits.h"
#include "frame/view.h"

namespace quarvel::cleanup {

namespace {

// Rows of a 1-bit page copied before the mark's bytes are put in (16 and
// 64 measured 2-3 us slower on an A4 page).
constexpr int kRowsBand = 32;

// A 1-bit page: the mark's rows thresholded once into mask rows as wide as
// the mark's bytes (1 where the level is at least 128), then the page copied
// a band of rows at a time and each row's bytes under the mark written again
// as the page's bytes AND NOT the mask row's. Narrow mask rows (30 KB for a
// 600 x 400 mark, against 125 KB as wide as the page) stay in the faster
// caches while the column of copies reads them again and again.
HGLOBAL StampBits(const LockedDib &page, const LockedDib &mark, bool column) {
    ResultBlock out = ResultBlock::CopiedHeader(page, ResultRows::kUnset);
    if (!out) return nullptr;
    const int pw = page.width(), ph = page.height(), mw = mark.width(), mh = mark.height();
    const int xOff = std::max((pw - mw) / 2, 0);
    const int y0 = column ? (ph % mh) / 2 : std::max((ph - mh) / 2, 0);
    const int w = std::min(mw, pw - xOff), h = column ? ph - y0 : std::min(mh, ph - y0);
    const int stride = page.stride();
    const std::uint8_t *src = page.bits();
    std::uint8_t *d = RowOf(*out.image(), 0);
    const auto at = [stride](int y) { return static_cast<std::ptrdiff_t>(y) * stride; };
    const auto copy = [&](int from, int to) {
        if (to > from) kernels::LogicRows({src + at(from), stride, src, stride, d + at(from), stride, pw, to - from}, kernels::Logic::kCopy);
    };
    if (w <= 0 || h <= 0) {
        copy(0, ph);
        return out.Release();
    }
    // A column repeats the mark's rows: one band of them serves every copy.
    // Each mask row holds the mark's columns only, bytes `from` .. `to` of
    // a page row: the mark's levels thresholded straight into the page's
    // bit phase (from `phase` levels before the mark's row, which lie in
    // its block: an 8-bit page has a 40-byte header before its rows; their
    // bits are cleared), and in the page's last byte the bits past its
    // width set, so the AND-NOT clears them as the copy does.
    const int band = std::min(mh, h), phase = xOff & 7;
    const std::size_t nb = static_cast<std::size_t>(pw + 7) / 8, from = static_cast<std::size_t>(xOff >> 3);
    const std::size_t to = static_cast<std::size_t>(xOff + w + 7) / 8, span = to - from;
    std::unique_ptr<std::uint8_t[]> masks(new std::uint8_t[static_cast<std::size_t>(band) * span]);
    for (int j = 0; j < band; ++j) {
        std::uint8_t *m = masks.get() + static_cast<std::size_t>(j) * span;
        kernels::ThresholdToBits(mark.row(j) - phase, m, w + phase, 128);
        m[0] &= static_cast<std::uint8_t>(0xFFu >> phase);
        if (to == nb && (pw & 7) != 0) m[span - 1] |= static_cast<std::uint8_t>(0xFFu >> (pw & 7));
    }
    copy(0, y0);
    for (int b = y0; b < y0 + h; b += kRowsBand) {
        const int e = std::min(b + kRowsBand, y0 + h);
        copy(b, e);
        for (int i = b; i < e;) {
            const int j = (i - y0) % mh, count = std::min(band - j, e - i);
            kernels::AndNotSpanRows(src + at(i) + from, stride, masks.get() + static_cast<std::size_t>(j) * span,
                                    static_cast<std::ptrdiff_t>(span), d + at(i) + from, stride, static_cast<int>(span),
                                    count);
            i += count;
        }
    }
    copy(y0 + h, ph);
    return out.Release();
}

HGLOBAL Stamp(HGLOBAL hDib, HGLOBAL hMark, bool column) {
    LockedDib page(hDib, kImageDepths), mark(hMark, kDepth8);
    if (!page.ok() || !mark.ok()) return nullptr;  // the mark must be an 8-bit page
    if (page.bitCount() == 1) return StampBits(page, mark, column);
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
