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
// amount overflows.
#include <algorithm>

#include "colour/colour.h"

namespace quarvel::colour {

namespace {

inline std::uint8_t Clamp(std::int64_t v) { return static_cast<std::uint8_t>(std::clamp<std::int64_t>(v, 0, 255)); }

struct Decision {
    int redExcess, blueExcess;
    bool dark;
};

enum class Outcome { kRed, kBlue, kDarken, kBrighten, kNone };

Outcome Decide(const std::uint8_t *page, const Decision &d, const EnhanceParams &p) {
    if (p.redThreshold > 0 && page[2] >= 60 && d.redExcess >= p.redThreshold) return Outcome::kRed;
    if (p.blueThreshold > 0 && page[0] >= 60 && d.blueExcess >= p.blueThreshold) return Outcome::kBlue;
    if (p.brighten > 0 || p.darken > 0) return d.dark ? Outcome::kDarken : Outcome::kBrighten;
    return Outcome::kNone;
}

// Writes the outcome for page pixel `in` into `out` (which may be the same).
void Apply(Outcome o, const std::uint8_t *in, std::uint8_t *out, const EnhanceParams &p, bool darkMarkers) {
    const std::int64_t b = in[0], g = in[1], r = in[2];  // 64 bits: any amount, no overflow
    switch (o) {
        case Outcome::kRed:
            if (darkMarkers && p.redBoost == -255) {
                out[0] = Clamp(b - p.darken), out[1] = Clamp(g - p.darken), out[2] = Clamp(r - p.darken);
            } else {
                out[0] = Clamp(b - p.redBoost), out[1] = Clamp(g - p.redBoost), out[2] = Clamp(r + p.redBoost);
            }
            break;
        case Outcome::kBlue:
            if (darkMarkers && p.blueBoost == -255) {
                out[0] = Clamp(b - p.darken), out[1] = Clamp(g - p.darken), out[2] = Clamp(r - p.darken);
            } else {
                out[0] = Clamp(b + p.blueBoost), out[1] = Clamp(g - p.blueBoost), out[2] = Clamp(r - p.blueBoost);
            }
            break;
        case Outcome::kDarken:
            out[0] = Clamp(b - p.darken), out[1] = Clamp(g - p.darken), out[2] = Clamp(r - p.darken);
            break;
        case Outcome::kBrighten:
            out[0] = Clamp(b + p.brighten), out[1] = Clamp(g + p.brighten), out[2] = Clamp(r + p.brighten);
            break;
        case Outcome::kNone:  // the result keeps what it has (the base image's pixel)
            break;
    }
}

Decision OwnValues(const std::uint8_t *px, int splitLevel) {
    const int b = px[0], g = px[1], r = px[2];
    return Decision{r - std::max(g, b), b - std::max(g, r), b + g + r < 3LL * splitLevel};
}

Decision FromMap(const std::uint8_t *m, int splitLevel) { return Decision{m[2], m[0], m[1] < splitLevel}; }

void WriteMap(std::uint8_t *px) {
    const int b = px[0], g = px[1], r = px[2];
    px[0] = static_cast<std::uint8_t>(std::max(b - std::max(g, r), 0));
    px[1] = static_cast<std::uint8_t>((b + g + r) / 3);
    px[2] = static_cast<std::uint8_t>(std::max(r - std::max(g, b), 0));
}

bool SameLayout(const LockedDib &a, const LockedDib &b) {
    return a.width() == b.width() && a.height() == b.height() && a.bitCount() == b.bitCount();
}

// Calls f(pixel of rows a, pixel of rows b...) over the span.
template <class F>
void ForSpan(const Span &s, const ColourRows &rows, F f) {
    for (int y = s.y0; y < s.y1; ++y) {
        std::uint8_t *p = rows.row(y) + static_cast<std::size_t>(s.x0) * rows.bytesPerPixel;
        for (int x = s.x0; x < s.x1; ++x, p += rows.bytesPerPixel) f(x, y, p);
    }
}

}  // namespace

HGLOBAL EnhanceColor(HGLOBAL hDib, const RECT *rect, const EnhanceParams &p) {
    LockedDib in(hDib, kBelowColourToo);
    BlockCopy out(in);
    if (!out) return nullptr;
    Span span;
    if (in.bitCount() < 24 || !ResolveRect(rect, in.width(), in.height(), &span)) return out.Release();
    ForSpan(span, RowsOf(out.header()), [&](int, int, std::uint8_t *px) {
        Apply(Decide(px, OwnValues(px, p.splitLevel), p), px, px, p, false);
    });
    return out.Release();
}

HGLOBAL EnhanceColorEx(HGLOBAL hDib, HGLOBAL hMap, const RECT *rect, const EnhanceParams &p) {
    LockedDib in(hDib, kBelowColourToo);
    BlockCopy out(in);
    if (!out) return nullptr;
    Span span;
    if (in.bitCount() < 24 || !ResolveRect(rect, in.width(), in.height(), &span)) return out.Release();
    const ColourRows rows = RowsOf(out.header());
    if (hMap == nullptr) {
        ForSpan(span, rows, [](int, int, std::uint8_t *px) { WriteMap(px); });
        return out.Release();
    }
    LockedDib map(hMap, kColorDepths);
    if (!map.ok() || !SameLayout(in, map)) return out.Release();
    const int bpp = rows.bytesPerPixel;
    ForSpan(span, rows, [&](int x, int y, std::uint8_t *px) {
        const std::uint8_t *m = map.row(y) + static_cast<std::size_t>(x) * bpp;
        Apply(Decide(px, FromMap(m, p.splitLevel), p), px, px, p, false);
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
    const ColourRows rows = RowsOf(out.header());
    if (hMap == nullptr) {
        ForSpan(span, rows, [](int, int, std::uint8_t *px) { WriteMap(px); });
        return out.Release();
    }
    LockedDib map(hMap, kColorDepths);
    if (!map.ok() || !SameLayout(page, map) || (withBase && !SameLayout(page, base))) return out.Release();
    const int bpp = rows.bytesPerPixel;
    ForSpan(span, rows, [&](int x, int y, std::uint8_t *px) {
        const std::size_t at = static_cast<std::size_t>(x) * bpp;
        const std::uint8_t *in = page.row(y) + at;
        Apply(Decide(in, FromMap(map.row(y) + at, p.splitLevel), p), in, px, p, true);
    });
    return out.Release();
}

}  // namespace quarvel::colour
