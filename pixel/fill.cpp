// Fill and FillOutside: paint a rectangle of the page, or everything but the
// rectangle, with one gray level. On a 1-bit page with a light-first palette
// the level is inverted, so 255 is always paper and 0 always ink. The
// rectangle (rows counted from the top) is clipped to the page; an empty or
// inverted one covers nothing. Every byte of the result is written once: the
// rectangle is set (Fill) or copied (FillOutside) and the rest copied or set
// around it.
#include "frame/view.h"
#include "pixel/pixel.h"
#include "platform/rect.h"

namespace quarvel::pixel {

void PaintOutside(IplImage *from, IplImage *to, int x, int y, int w, int h, int value) {
    const int pw = to->width, ph = to->height;
    const int parts[4][4] = {{0, 0, pw, y}, {0, y + h, pw, ph - y - h}, {0, y, x, h}, {x + w, y, pw - x - w, h}};
    for (const auto &p : parts) {
        if (p[2] <= 0 || p[3] <= 0) continue;
        IplROI roi{0, p[0], p[1], p[2], p[3]};
        RoiScope b(to, &roi);
        if (from == nullptr) {
            iplSet(to, value);
        } else {
            RoiScope a(from, &roi);
            iplCopy(from, to);
        }
    }
}

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
    if (!any) {
        if (outside)
            iplSet(out.image(), written);
        else
            iplCopy(view.get(), out.image());
        return out.Release();
    }
    IplROI roi{0, r.left, r.top, r.right - r.left, r.bottom - r.top};
    PaintOutside(outside ? nullptr : view.get(), out.image(), r.left, r.top, r.right - r.left, r.bottom - r.top,
                 written);
    RoiScope b(out.image(), &roi);
    if (outside) {
        RoiScope a(view.get(), &roi);
        iplCopy(view.get(), out.image());
    } else {
        iplSet(out.image(), written);
    }
    return out.Release();
}

}  // namespace

HGLOBAL Fill(HGLOBAL hDib, const RECT *rect, int value) { return Paint(hDib, rect, value, false); }

HGLOBAL FillOutside(HGLOBAL hDib, const RECT *rect, int value) { return Paint(hDib, rect, value, true); }

}  // namespace quarvel::pixel
