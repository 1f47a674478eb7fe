// EnhanceColor, EnhanceColorEx and EnhanceColorEx1: strengthen distinctly red
// and blue pixels, brighten light pixels and darken dark ones, inside a
// rectangle. The rules, first match wins: red (red excess at least the
// threshold, R at least 60: red up and the others down by redBoost), blue
// (likewise), then light and dark (a pixel below the split level is darkened,
// any other brightened). EnhanceColor decides from each pixel's own values;
// the Ex forms read the excesses and the mean level from a colour-excess map
// (blue byte: blue excess, green byte: mean level, red byte: red excess),
// which EnhanceColorEx returns when called without one.
//
// Every sum and difference is taken in 64 bits and clamped to 0..255, so
// negative amounts work the other way round instead of wrapping, and no
// amount overflows. The rules run a row at a time in the colour kernels
// (eight pixels a step, see frame/kernels_colour.cpp), each row right after
// it is copied into the result block, while it is in cache.
#include <algorithm>

#include "colour/colour.h"
#include "frame/kernels_colour.h"

namespace quarvel::colour {

namespace {

// The rules of one call as the row kernel takes them. Every outcome adds a
// fixed amount to each channel (clamped to -255..255, which clamps the sums
// the same way). With darkMarkers, a boost of -255 darkens instead.
kernels::EnhanceRule RuleOf(const EnhanceParams &p, bool darkMarkers, bool fromMap) {
    kernels::EnhanceRule rule{};
    rule.redThreshold = p.redThreshold;
    rule.blueThreshold = p.blueThreshold;
    rule.darkBelow = fromMap ? p.splitLevel : 3LL * p.splitLevel;
    rule.tone = p.brighten > 0 || p.darken > 0;
    const long long dark = -static_cast<long long>(p.darken);
    const bool redDark = darkMarkers && p.redBoost == -255, blueDark = darkMarkers && p.blueBoost == -255;
    const long long red = p.redBoost, blue = p.blueBoost;
    const long long amounts[4][3] = {{redDark ? dark : -red, redDark ? dark : -red, redDark ? dark : red},
                                     {blueDark ? dark : blue, blueDark ? dark : -blue, blueDark ? dark : -blue},
                                     {dark, dark, dark},
                                     {p.brighten, p.brighten, p.brighten}};
    for (int o = 0; o < 4; ++o)
        for (int c = 0; c < 3; ++c) rule.delta[o][c] = static_cast<int>(std::clamp(amounts[o][c], -255LL, 255LL));
    return rule;
}

bool SameLayout(const LockedDib &a, const LockedDib &b) {
    return a.width() == b.width() && a.height() == b.height() && a.bitCount() == b.bitCount();
}

// Pixel x of stored row y.
std::uint8_t *At(std::uint8_t *bits, std::size_t stride, int bpp, int x, int y) {
    return bits + static_cast<std::size_t>(y) * stride + static_cast<std::size_t>(x) * static_cast<std::size_t>(bpp);
}

void WriteMaps(BlockCopy &out, const Span &s) {
    const ColourRows rows = RowsOf(out.header());
    out.CopyRows(s.y0, s.y1, [&](int y) {
        kernels::ExcessMapRow(At(rows.bits, static_cast<std::size_t>(rows.stride), rows.bytesPerPixel, s.x0, y), s.x1 - s.x0,
                              rows.bytesPerPixel);
    });
}

}  // namespace

HGLOBAL EnhanceColor(HGLOBAL hDib, const RECT *rect, const EnhanceParams &p) {
    LockedDib in(hDib, kBelowColourToo);
    BlockCopy out(in);
    if (!out) return nullptr;
    Span span;
    if (in.bitCount() < 24 || !ResolveRect(rect, in.width(), in.height(), &span)) return out.Release();
    const kernels::EnhanceRule rule = RuleOf(p, false, false);
    const ColourRows rows = RowsOf(out.header());
    const std::size_t stride = static_cast<std::size_t>(rows.stride);
    out.CopyRows(span.y0, span.y1, [&](int y) {
        std::uint8_t *px = At(rows.bits, stride, rows.bytesPerPixel, span.x0, y);
        kernels::EnhanceRow(px, nullptr, px, span.x1 - span.x0, rows.bytesPerPixel, rule);
    });
    return out.Release();
}

HGLOBAL EnhanceColorEx(HGLOBAL hDib, HGLOBAL hMap, const RECT *rect, const EnhanceParams &p) {
    LockedDib in(hDib, kBelowColourToo);
    BlockCopy out(in);
    if (!out) return nullptr;
    Span span;
    if (in.bitCount() < 24 || !ResolveRect(rect, in.width(), in.height(), &span)) return out.Release();
    if (hMap == nullptr) {
        WriteMaps(out, span);
        return out.Release();
    }
    const ColourRows rows = RowsOf(out.header());
    LockedDib map(hMap, kColorDepths);
    if (!map.ok() || !SameLayout(in, map)) return out.Release();
    const kernels::EnhanceRule rule = RuleOf(p, false, true);
    const int bpp = rows.bytesPerPixel;
    std::uint8_t *mapBits = map.row(0);
    out.CopyRows(span.y0, span.y1, [&](int y) {
        std::uint8_t *px = At(rows.bits, static_cast<std::size_t>(rows.stride), bpp, span.x0, y);
        kernels::EnhanceRow(px, At(mapBits, static_cast<std::size_t>(map.stride()), bpp, span.x0, y), px, span.x1 - span.x0, bpp, rule);
    });
    return out.Release();
}

HGLOBAL EnhanceColorEx1(HGLOBAL hDib, HGLOBAL hBaseDib, HGLOBAL hMap, const RECT *rect, const EnhanceParams &p) {
    LockedDib page(hDib, kBelowColourToo);
    if (!page.ok()) return nullptr;
    const bool withBase = hBaseDib != nullptr && hMap != nullptr;
    LockedDib base(withBase ? hBaseDib : nullptr, kBelowColourToo);
    if (withBase && !base.ok()) return nullptr;
    BlockCopy out(withBase ? base : page);
    if (!out) return nullptr;
    const LockedDib &start = withBase ? base : page;
    Span span;
    if (start.bitCount() < 24 || !ResolveRect(rect, start.width(), start.height(), &span)) return out.Release();
    if (hMap == nullptr) {
        WriteMaps(out, span);
        return out.Release();
    }
    const ColourRows rows = RowsOf(out.header());
    LockedDib map(hMap, kColorDepths);
    if (!map.ok() || !SameLayout(page, map) || (withBase && !SameLayout(page, base))) return out.Release();
    const kernels::EnhanceRule rule = RuleOf(p, true, true);
    const int bpp = rows.bytesPerPixel;
    std::uint8_t *mapBits = map.row(0);
    std::uint8_t *pageBits = page.row(0);
    out.CopyRows(span.y0, span.y1, [&](int y) {
        const std::uint8_t *in = At(pageBits, static_cast<std::size_t>(page.stride()), bpp, span.x0, y);
        std::uint8_t *px = At(rows.bits, static_cast<std::size_t>(rows.stride), bpp, span.x0, y);
        kernels::EnhanceRow(in, At(mapBits, static_cast<std::size_t>(map.stride()), bpp, span.x0, y), px, span.x1 - span.x0, bpp, rule);
    });
    return out.Release();
}

}  // namespace quarvel::colour
