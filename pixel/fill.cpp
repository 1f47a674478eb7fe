// Fill and FillOutside: paint a rectangle of the page, or everything but the
// rectangle, with one gray level. On a 1-bit page with a light-first palette
// the level is inverted, so 255 is always paper and 0 always ink. The
// rectangle (rows counted from the top) is clipped to the page; an empty or
// inverted one covers nothing.
#include "frame/view.h"
#include "pixel/pixel.h"
#include "platform/rect.h"

namespace quarvel::pixel {

namespace {

HGLOBAL Paint(HGLOBAL hDib, const RECT *rect, int value, bool outside) {
    if (rect == nullptr || value < 0 || value > 255) return nullptr;
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in, true);  // every pixel is written
    if (!view || !out) return nullptr;
    const int written = in.bitCount() == 1 && IsLightFirst(in.header()) ? 255 - value : value;

    const RECT asked = FlipRows(*rect, in.height());
    const RECT page{0, 0, in.width(), in.height()};
    RECT r;
    const bool any = IntersectRect(&r, &asked, &page);
    RoiPtr roi(any ? iplCreateROI(0, r.left, r.top, r.right - r.left, r.bottom - r.top) : nullptr);
    if (any && !roi) return nullptr;
    if (outside) {
        iplSet(out.image(), written);
        if (any) {
            RoiScope a(view.get(), roi.get()), b(out.image(), roi.get());
            iplCopy(view.get(), out.image());
        }
    } else {
        iplCopy(view.get(), out.image());
        if (any) {
            RoiScope b(out.image(), roi.get());
            iplSet(out.image(), written);
        }
    }
    return out.Release();
}

}  // namespace

HGLOBAL Fill(HGLOBAL hDib, const RECT *rect, int value) { return Paint(hDib, rect, value, false); }

HGLOBAL FillOutside(HGLOBAL hDib, const RECT *rect, int value) { return Paint(hDib, rect, value, true); }

}  // namespace quarvel::pixel
