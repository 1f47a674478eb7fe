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

struct Decision {
    int redExcess, blueExcess;
    bool dark;
};

enum class Outcome { kRed, kBlue, kDarken, kBrighten, kNone };

inline Outcome Decide(const std::uint8_t *page, const Decision &d, const EnhanceParams &p) {
    const bool red = (p.redThreshold > 0) & (page[2] >= 60) & (d.redExcess >= p.redThreshold);
    const bool blue = (p.blueThreshold > 0) & (page[0] >= 60) & (d.blueExcess >= p.blueThreshold);
    const bool tone = p.brighten > 0 || p.darken > 0;
    return red ? Outcome::kRed : blue ? Outcome::kBlue : !tone ? Outcome::kNone : d.dark ? Outcome::kDarken : Outcome::kBrighten;
}

// Every outcome adds a fixed amount to each channel and clamps, so each is
// three 256-entry tables built once per call; a pixel then costs three
// lookups. With darkMarkers, a boost of -255 darkens instead.
class Outcomes {
public:
    Outcomes(const EnhanceParams &p, bool darkMarkers) {
        const long long dark = -static_cast<long long>(p.darken);
        const bool redDark = darkMarkers && p.redBoost == -255, blueDark = darkMarkers && p.blueBoost == -255;
        const long long red = p.redBoost, blue = p.blueBoost;
        Fill(Outcome::kRed, redDark ? dark : -red, redDark ? dark : -red, redDark ? dark : red);
        Fill(Outcome::kBlue, blueDark ? dark : blue, blueDark ? dark : -blue, blueDark ? dark : -blue);
        Fill(Outcome::kDarken, dark, dark, dark);
        Fill(Outcome::kBrighten, p.brighten, p.brighten, p.brighten);
    }
    // Writes the outcome for page pixel `in` into `out` (which may be the
    // same); kNone leaves `out` as it is (the base image's pixel).
    void Write(Outcome o, const std::uint8_t *in, std::uint8_t *out) const {
        if (o == Outcome::kNone) return;
        const auto &t = table_[static_cast<int>(o)];
        const std::uint8_t b = t[0][in[0]], g = t[1][in[1]], r = t[2][in[2]];
        out[0] = b, out[1] = g, out[2] = r;
    }

private:
    void Fill(Outcome o, long long db, long long dg, long long dr) {
        const long long d[3] = {db, dg, dr};
        for (int c = 0; c < 3; ++c)
            for (int v = 0; v < 256; ++v) table_[static_cast<int>(o)][c][v] = static_cast<std::uint8_t>(std::clamp(v + d[c], 0LL, 255LL));
    }
    std::uint8_t table_[4][3][256];
};

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
    // The lambdas take the parameters by value: writes through the pixel
    // pointers could otherwise alias them and force a reload per pixel.
    const Outcomes outcomes(p, false);
    const Outcomes *o = &outcomes;
    const EnhanceParams q = p;
    ForSpan(span, RowsOf(out.header()), [=](int, int, std::uint8_t *px) {
        o->Write(Decide(px, OwnValues(px, q.splitLevel), q), px, px);
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
    const Outcomes outcomes(p, false);
    const Outcomes *o = &outcomes;
    const EnhanceParams q = p;
    const std::uint8_t *mapBits = map.row(0);
    const std::size_t mapStride = static_cast<std::size_t>(map.stride());
    ForSpan(span, rows, [=](int x, int y, std::uint8_t *px) {
        const std::uint8_t *m = mapBits + y * mapStride + static_cast<std::size_t>(x) * bpp;
        o->Write(Decide(px, FromMap(m, q.splitLevel), q), px, px);
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
    const Outcomes outcomes(p, true);
    const Outcomes *o = &outcomes;
    const EnhanceParams q = p;
    const std::uint8_t *mapBits = map.row(0), *pageBits = page.row(0);
    const std::size_t mapStride = static_cast<std::size_t>(map.stride()), pageStride = static_cast<std::size_t>(page.stride());
    ForSpan(span, rows, [=](int x, int y, std::uint8_t *px) {
        const std::size_t at = static_cast<std::size_t>(x) * bpp;
        const std::uint8_t *in = pageBits + y * pageStride + at;
        o->Write(Decide(in, FromMap(mapBits + y * mapStride + at, q.splitLevel), q), in, px);
    });
    return out.Release();
}

}  // namespace quarvel::colour
