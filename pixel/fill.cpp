// Fill and FillOutside: paint a rectangle of the page, or everything but the
// rectangle, with one gray level. On a 1-bit page with a light-first palette
// the level is inverted, so 255 is always paper and 0 always ink. The
// rectangle (rows counted from the top) is clipped to the page; an empty or
// inverted one covers nothing. Every byte of the result is written once: the
// rectangle's part of each row is set (Fill) or copied (FillOutside) and the
// rest of the row copied or set around it, one pass down the rows; on a
// 1-bit page each row is written whole by one page kernel through a mask row.
#include <cstring>
#include <vector>

#include "frame/bits.h"
#include "frame/kernels.h"
#include "frame/kernels_bits.h"
#include "frame/view.h"
#include "pixel/pixel.h"
#include "platform/rect.h"

namespace quarvel::pixel {

namespace {

// A 1-bit page: a mask row holding 1 over the painted columns, then every
// result row written whole by one page kernel: the page's row OR the mask
// (the level sets bits) or AND NOT the mask (it clears them); rows outside the
// rectangle are copied (Fill) or painted whole through an all-ones mask
// (FillOutside).
HGLOBAL PaintBits(const LockedDib &in, const RECT &rect, int value, bool outside) {
    ResultBlock out = ResultBlock::CopiedHeader(in, ResultRows::kUnset);
    if (!out) return nullptr;
    const bool one = (IsLightFirst(in.header()) ? 255 - value : value) != 0;
    const int w = in.width(), h = in.height(), stride = in.stride();
    const RECT asked = FlipRows(rect, h);
    const RECT page{0, 0, w, h};
    RECT r;
    IntersectRect(&r, &asked, &page);  // all zeros when nothing is left
    const std::size_t nb = static_cast<std::size_t>(w + 7) / 8;
    std::vector<std::uint8_t> inside(nb, 0), all(nb, 0xFF);
    bits::Fill(inside.data(), r.left, r.right - r.left, 1);
    if (outside)
        for (std::uint8_t &b : inside) b = static_cast<std::uint8_t>(~b);
    const std::uint8_t *src = in.bits();
    std::uint8_t *d = RowOf(*out.image(), 0);
    const auto rows = [&](int from, int to, const std::uint8_t *mask) {
        if (to <= from) return;
        const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(from) * stride;
        const kernels::Logic op = mask == nullptr ? kernels::Logic::kCopy : one ? kernels::Logic::kOr : kernels::Logic::kAndNot;
        kernels::LogicRows({src + at, stride, mask, 0, d + at, stride, w, to - from}, op);
    };
    const std::uint8_t *around = outside ? all.data() : nullptr;
    rows(0, r.top, around);
    rows(r.top, r.bottom, inside.data());
    rows(r.bottom, h, around);
    return out.Release();
}

HGLOBAL Paint(HGLOBAL hDib, const RECT *rect, int value, bool outside) {
    if (rect == nullptr || value < 0 || value > 255) return nullptr;
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    if (in.bitCount() == 1) return PaintBits(in, *rect, value, outside);
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
    // One pass down the rows: the rectangle's part of each row set or
    // copied, the rest copied or set around it.
    const int x = r.left, w = r.right - r.left;
    IplImage *src = view.get(), *result = out.image();
    const std::size_t bpp = static_cast<std::size_t>(in.bitCount() / 8);
    const auto v = static_cast<std::uint8_t>(written);
    PaintAround(outside ? nullptr : src, result, x, r.top, w, r.bottom - r.top, written, [&](int i) {
        std::uint8_t *d = RowOf(*result, i);
        if (in.bitCount() == 1) {
            if (outside)
                bits::Copy(RowOf(*src, i), x, d, x, w);
            else
                bits::Fill(d, x, w, written);
        } else if (outside) {
            kernels::CopyRow(RowOf(*src, i) + bpp * x, d + bpp * x, bpp * w, nullptr);
        } else {
            std::memset(d + bpp * x, v, bpp * w);
        }
    });
    return out.Release();
}

}  // namespace

HGLOBAL Fill(HGLOBAL hDib, const RECT *rect, int value) { return Paint(hDib, rect, value, false); }

HGLOBAL FillOutside(HGLOBAL hDib, const RECT *rect, int value) { return Paint(hDib, rect, value, true); }

}  // namespace quarvel::pixel
