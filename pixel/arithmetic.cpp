// ImageAnd, ImageOr and GetLess: two pages combined pixel by pixel.
//
// ImageAnd and ImageOr combine a rectangle of page 1 with an equally large
// rectangle of page 2 (corners counted from the top of each page) by bitwise
// AND or OR. ImageAnd writes the combination into page 1's own block as well.
// The result has page 1's size and pixels under page 2's header and colour
// table. Both pages must have the same depth. The rectangles are clipped
// together, so that both stay inside their pages.
//
// GetLess marks where page 1's pixel is greater than page 2's: on 1-bit
// pages a 1 bit where page 1 has 1 and page 2 has 0. On deeper pages the
// result is a page of page 1's depth holding 255 where any colour channel of
// page 1 is greater and 0 elsewhere. The pages must have the same size and
// depth.
#include <algorithm>

#include "frame/bits.h"
#include "frame/kernels.h"
#include "frame/kernels_bits.h"
#include "frame/view.h"
#include "pixel/pixel.h"

namespace quarvel::pixel {

namespace {

struct Rects {
    int x1, y1, x2, y2, w, h;
};

// Clips the common rectangle so that it lies inside both pages (top-down
// coordinates); false when nothing is left.
bool ClipTogether(Rects &r, int w1, int h1, int w2, int h2) {
    long long x1 = r.x1, y1 = r.y1, x2 = r.x2, y2 = r.y2, w = r.w, h = r.h;
    const long long dx = std::max({0LL, -x1, -x2}), dy = std::max({0LL, -y1, -y2});
    x1 += dx, x2 += dx, w -= dx;
    y1 += dy, y2 += dy, h -= dy;
    w = std::min({w, w1 - x1, w2 - x2});
    h = std::min({h, h1 - y1, h2 - y2});
    if (w <= 0 || h <= 0) return false;
    r = Rects{static_cast<int>(x1), static_cast<int>(y1), static_cast<int>(x2), static_cast<int>(y2),
              static_cast<int>(w), static_cast<int>(h)};
    return true;
}

// 1-bit pages whose rectangle spans page 1's rows whole: the rows below and
// above it copied from page 1 and the rows in it combined with page 2's, each
// result row written once, padding included, by one page kernel a part.
HGLOBAL CombineWholeRows(const LockedDib &page1, const LockedDib &page2, const Rects &r, bool conjunction) {
    ResultBlock out = ResultBlock::Rewritten(page2, PixelFormat::kBitonal, page1.width(), page1.height(), NewTable::kKeep,
                                             ResultRows::kUnset);
    if (!out) return nullptr;
    const int w = page1.width(), stride = page1.stride(), y1 = page1.height() - r.y1 - r.h;
    const int y2 = page2.height() - r.y2 - r.h;
    std::uint8_t *rows1 = page1.bits(), *d = RowOf(*out.image(), 0);
    const auto at = [stride](std::uint8_t *rows, int y) { return rows + static_cast<std::ptrdiff_t>(y) * stride; };
    using kernels::Logic;
    kernels::LogicRows({rows1, stride, rows1, stride, d, stride, w, y1}, Logic::kCopy);
    const int above = y1 + r.h;
    kernels::LogicRows({at(rows1, above), stride, at(rows1, above), stride, at(d, above), stride, w, page1.height() - above},
                       Logic::kCopy);
    const std::uint8_t *b = page2.bits() + static_cast<std::ptrdiff_t>(y2) * page2.stride();
    if (!conjunction) {
        kernels::LogicRows({at(rows1, y1), stride, b, page2.stride(), at(d, y1), stride, w, r.h}, Logic::kOr);
        return out.Release();
    }
    // Page 1's rows take the AND too (w is a multiple of 8).
    kernels::AndRowsBack(at(rows1, y1), stride, b, page2.stride(), at(d, y1), stride, w, r.h);
    return out.Release();
}

HGLOBAL Combine(HGLOBAL hDib1, HGLOBAL hDib2, Rects r, bool conjunction) {
    LockedDib page1(hDib1, kImageDepths), page2(hDib2, kImageDepths);
    if (!page1.ok() || !page2.ok() || page1.bitCount() != page2.bitCount()) return nullptr;
    const bool any = ClipTogether(r, page1.width(), page1.height(), page2.width(), page2.height());
    if (any && page1.bitCount() == 1 && r.x1 == 0 && r.x2 == 0 && r.w == page1.width() &&
        (!conjunction || (hDib1 != hDib2 && r.w % 8 == 0)))
        return CombineWholeRows(page1, page2, r, conjunction);
    ImagePtr view1 = DibToIplImage(page1.header()), view2 = DibToIplImage(page2.header());
    if (!view1 || !view2) return nullptr;
    ResultBlock out =
        ResultBlock::Rewritten(page2, FormatOf(*view1), page1.width(), page1.height(), NewTable::kKeep, true);
    if (!out) return nullptr;
    RoiPtr roi1(any ? iplCreateROI(0, r.x1, page1.height() - r.y1 - r.h, r.w, r.h) : nullptr);
    RoiPtr roi2(any ? iplCreateROI(0, r.x2, page2.height() - r.y2 - r.h, r.w, r.h) : nullptr);
    if (any && (!roi1 || !roi2)) return nullptr;
    const bool wholeBytes = page1.bitCount() >= 8 || ((r.x1 | r.x2 | r.w) & 7) == 0;
    if (conjunction && any && hDib1 != hDib2 && wholeBytes) {
        // One pass: each AND written to page 1 and to the result (1-bit
        // rectangles when they start and end on byte boundaries).
        const int bits = page1.bitCount();
        const auto bytes = [bits](int pixels) { return static_cast<std::ptrdiff_t>(pixels) * bits / 8; };
        const int y1 = page1.height() - r.y1 - r.h, y2 = page2.height() - r.y2 - r.h;
        for (int i = 0; i < r.h; ++i)
            kernels::AndRowTwice(RowOf(*view1, y1 + i) + bytes(r.x1), RowOf(*view2, y2 + i) + bytes(r.x2),
                                 RowOf(*out.image(), y1 + i) + bytes(r.x1), static_cast<std::size_t>(bytes(r.w)), bits == 32);
        PaintOutside(view1.get(), out.image(), r.x1, y1, r.w, r.h, 0);
    } else if (conjunction) {
        if (any) {
            RoiScope a(view1.get(), roi1.get()), b(view2.get(), roi2.get());
            iplAnd(view1.get(), view2.get(), view1.get());  // page 1's own block changes
        }
        iplCopy(view1.get(), out.image());
    } else if (!any) {
        iplCopy(view1.get(), out.image());
    } else {
        // The rectangle's OR written straight into the result, page 1's
        // pixels around it copied.
        {
            RoiScope a(view1.get(), roi1.get()), b(view2.get(), roi2.get()), c(out.image(), roi1.get());
            iplOr(view1.get(), view2.get(), out.image());
        }
        PaintOutside(view1.get(), out.image(), r.x1, page1.height() - r.y1 - r.h, r.w, r.h, 0);
    }
    return out.Release();
}

}  // namespace

HGLOBAL ImageAnd(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height) {
    return Combine(hDib1, hDib2, Rects{x1, y1, x2, y2, width, height}, true);
}

HGLOBAL ImageOr(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height) {
    return Combine(hDib1, hDib2, Rects{x1, y1, x2, y2, width, height}, false);
}

HGLOBAL GetLess(HGLOBAL hDib1, HGLOBAL hDib2) {
    LockedDib page1(hDib1, kImageDepths), page2(hDib2, kImageDepths);
    if (!page1.ok() || !page2.ok() || page1.bitCount() != page2.bitCount() || page1.width() != page2.width() ||
        page1.height() != page2.height())
        return nullptr;
    if (page1.bitCount() == 1) {
        // Whole rows, padding included, by one page kernel.
        ResultBlock out = ResultBlock::CopiedHeader(page1, ResultRows::kUnset);
        if (!out) return nullptr;
        const int stride = page1.stride();
        kernels::LogicRows({page1.bits(), stride, page2.bits(), stride, RowOf(*out.image(), 0), stride, page1.width(),
                            page1.height()},
                           kernels::Logic::kAndNot);
        return out.Release();
    }
    ImagePtr view1 = DibToIplImage(page1.header()), view2 = DibToIplImage(page2.header());
    ResultBlock out = ResultBlock::CopiedHeader(page1, true);  // every pixel is written
    if (!view1 || !view2 || !out) return nullptr;
    // A bitonal answer first, then spread to 255 and 0 at the page's depth.
    ImagePtr mask = CreateImage(PixelFormat::kBitonal, page1.width(), page1.height(), 0);
    if (!mask) return nullptr;
    iplGreater(view1.get(), view2.get(), mask.get());
    const int bpp = page1.bitCount() / 8;
    for (int y = 0; y < page1.height(); ++y) {
        const std::uint8_t *m = RowOf(*mask, y);
        std::uint8_t *d = RowOf(*out.image(), y);
        for (int x = 0; x < page1.width(); ++x)
            std::fill(d + static_cast<std::size_t>(x) * bpp, d + static_cast<std::size_t>(x + 1) * bpp,
                      bits::Get(m, x) ? 255 : 0);
    }
    return out.Release();
}

}  // namespace quarvel::pixel
