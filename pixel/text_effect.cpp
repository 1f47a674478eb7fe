// TextEffect and TextEffectRect on 1 and 8-bit pages: a minimum filter over
// (n + 1) x (n + 1) cells thickens dark strokes for a level n > 0, a maximum
// filter over (1 - n) x (1 - n) cells thins them for n < 0 (level 0 is a
// copy), whatever the level. The neighbourhood of a pixel reaches right and up the page (its
// anchor is cell (0, 0) on bottom-up rows). TextEffectRect filters only the
// rectangle, clipped to the page, and treats it as the whole image: cells
// beyond it are left out. With a side of 2 (levels 1 and -1) a whole 1-bit
// page is filtered as one run of bytes; a 1-bit rectangle's rows are
// filtered as that run and put right around the rectangle band by band, and
// on 8 bits the rectangle's rows are filtered in the same pass that copies
// the page around them: either way each result row is written in one pass.
#include <algorithm>

#include "frame/kernels.h"
#include "frame/kernels_bits.h"
#include "frame/view.h"
#include "pixel/pixel.h"
#include "platform/rect.h"

namespace quarvel::pixel {

namespace {

constexpr unsigned kTextDepths = kDepth1 | kDepth8;
// Rows fetched this far ahead by the rectangle's one pass on 8 bits: each
// row is visited in three pieces (copy, filter, copy), which the processor's
// own prefetching follows poorly.
constexpr int kAhead = 8;

// The neighbourhood side of a level (n + 1 for n > 0, 1 - n otherwise), in
// 64 bits so that no level overflows.
long long Side(int level) { return level > 0 ? 1LL + level : 1LL - level; }

// Filters a w x h image or region. Cells beyond it are left out, so a side
// longer than the region gives the same result as the region's own length:
// the side is capped at it per axis, which bounds the work by the page
// whatever the level.
void Filter(IplImage *view, IplImage *result, int level, int w, int h) {
    const int cols = static_cast<int>(std::min<long long>(Side(level), std::max(w, 1)));
    const int rows = static_cast<int>(std::min<long long>(Side(level), std::max(h, 1)));
    if (level > 0)
        iplMinFilter(view, result, cols, rows, 0, 0);
    else
        iplMaxFilter(view, result, cols, rows, 0, 0);
}

HGLOBAL Effect(HGLOBAL hDib, const RECT *rect, bool whole, int level) {
    if (!whole && rect == nullptr) return nullptr;
    LockedDib in(hDib, kTextDepths);
    if (!in.ok()) return nullptr;
    // The rectangle in storage rows, clipped to the page; empty when nothing
    // of the page is in it.
    RECT r{};
    if (!whole) {
        const RECT asked = FlipRows(*rect, in.height()), page{0, 0, in.width(), in.height()};
        if (!IntersectRect(&r, &asked, &page)) r = RECT{};
    }
    const int rw = r.right - r.left, rh = r.bottom - r.top;
    if (in.bitCount() == 1 && Side(level) == 2 && (whole || rw > 0)) {
        // One run of bytes down the page (around the rectangle, the page
        // copied); every byte of every row written.
        ResultBlock out = ResultBlock::CopiedHeader(in, ResultRows::kUnset);
        if (!out) return nullptr;
        if (whole)
            kernels::Filter2x2Page(in.bits(), RowOf(*out.image(), 0), in.stride(), in.width(), in.height(), level > 0);
        else
            kernels::Filter2x2RectPage(in.bits(), RowOf(*out.image(), 0), in.stride(), in.width(), in.height(),
                                       {r.left, r.top, rw, rh}, level > 0);
        return out.Release();
    }
    // Every pixel is written; the 1-bit kernels write every byte of each
    // row, padding included.
    const bool bitonal = in.bitCount() == 1;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in, bitonal && !whole ? ResultRows::kUnset : ResultRows::kPaddingZeroed);
    if (!view || !out) return nullptr;
    const auto copyBits = [&] {
        kernels::LogicRows({in.bits(), in.stride(), in.bits(), in.stride(), RowOf(*out.image(), 0), in.stride(), in.width(), in.height()},
                           kernels::Logic::kCopy);
    };
    if (whole) {
        Filter(view.get(), out.image(), level, in.width(), in.height());
        return out.Release();
    }
    if (rw <= 0) {  // nothing of the page to filter
        if (bitonal)
            copyBits();
        else
            iplCopy(view.get(), out.image());
        return out.Release();
    }
    if (in.bitCount() == 8 && Side(level) == 2) {
        // One pass down the rows: each row copied around the rectangle, its
        // part inside filtered from it and the row above it on the page
        // (the next stored row; the rectangle's last row alone), the page row
        // kAhead on fetched whole.
        const bool minimum = level > 0;
        const std::size_t rowBytes = static_cast<std::size_t>(in.width());
        PaintAround(view.get(), out.image(), r.left, r.top, rw, rh, 0, [&](int i) {
            if (i + kAhead < in.height()) kernels::PrefetchRow(RowOf(*view, i + kAhead), rowBytes);
            const std::uint8_t *a = RowOf(*view, i) + r.left;
            const std::uint8_t *b = i + 1 < r.top + rh ? RowOf(*view, i + 1) + r.left : a;
            kernels::MinMaxSquareRow(a, b, RowOf(*out.image(), i) + r.left, rw, minimum);
        });
        return out.Release();
    }
    // Larger sides: the rectangle filtered, the page around it copied. A
    // 1-bit page is copied whole first by one page kernel (a bit-exact copy
    // around the rectangle costs more per row than the whole row's); the
    // filter then writes the rectangle's bits over it.
    IplROI roi{0, r.left, r.top, r.right - r.left, r.bottom - r.top};
    if (bitonal) copyBits();
    {
        RoiScope a(view.get(), &roi), b(out.image(), &roi);
        Filter(view.get(), out.image(), level, r.right - r.left, r.bottom - r.top);
    }  // the regions come off before the block is handed over
    if (!bitonal) PaintOutside(view.get(), out.image(), r.left, r.top, r.right - r.left, r.bottom - r.top, 0);
    return out.Release();
}

}  // namespace

HGLOBAL TextEffect(HGLOBAL hDib, int level) { return Effect(hDib, nullptr, true, level); }

HGLOBAL TextEffectRect(HGLOBAL hDib, const RECT *rect, int level) { return Effect(hDib, rect, false, level); }

}  // namespace quarvel::pixel
