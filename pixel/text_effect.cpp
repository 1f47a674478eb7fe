// TextEffect and TextEffectRect on 1 and 8-bit pages: a minimum filter over
// (n + 1) x (n + 1) cells thickens dark strokes for a level n > 0, a maximum
// filter over (1 - n) x (1 - n) cells thins them for n < 0 (level 0 is a
// copy). The neighbourhood of a pixel reaches right and up the page (its
// anchor is cell (0, 0) on bottom-up rows). TextEffectRect filters only the
// rectangle, clipped to the page, and treats it as the whole image: cells
// beyond it are left out.
#include <algorithm>

#include "frame/view.h"
#include "pixel/pixel.h"
#include "platform/rect.h"

namespace quarvel::pixel {

namespace {

constexpr unsigned kTextDepths = kDepth1 | kDepth8;
// Larger neighbourhoods would only blacken or whiten the page; this bound
// keeps a level from costing more than the page is worth.
constexpr int kMaxLevel = 255;

void Filter(IplImage *view, IplImage *result, int level) {
    if (level > 0)
        iplMinFilter(view, result, level + 1, level + 1, 0, 0);
    else
        iplMaxFilter(view, result, 1 - level, 1 - level, 0, 0);
}

HGLOBAL Effect(HGLOBAL hDib, const RECT *rect, bool whole, int level) {
    if (level < -kMaxLevel || level > kMaxLevel || (!whole && rect == nullptr)) return nullptr;
    LockedDib in(hDib, kTextDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in);
    if (!view || !out) return nullptr;
    if (whole) {
        Filter(view.get(), out.image(), level);
        return out.Release();
    }
    iplCopy(view.get(), out.image());
    const RECT asked{rect->left, in.height() - rect->bottom, rect->right, in.height() - rect->top};
    const RECT page{0, 0, in.width(), in.height()};
    RECT r;
    if (!IntersectRect(&r, &asked, &page)) return out.Release();  // nothing of the page to filter
    RoiPtr roi(iplCreateROI(0, r.left, r.top, r.right - r.left, r.bottom - r.top));
    if (!roi) return nullptr;
    {
        RoiScope a(view.get(), roi.get()), b(out.image(), roi.get());
        Filter(view.get(), out.image(), level);
    }  // the regions come off before the block is handed over
    return out.Release();
}

}  // namespace

HGLOBAL TextEffect(HGLOBAL hDib, int level) { return Effect(hDib, nullptr, true, level); }

HGLOBAL TextEffectRect(HGLOBAL hDib, const RECT *rect, int level) { return Effect(hDib, rect, false, level); }

}  // namespace quarvel::pixel
