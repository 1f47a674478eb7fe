// AdjustBrightness, AdjustContrast and AdjustBrightnessAndContrast on 8, 24
// and 32-bit pages. Brightness adds a constant with saturation; contrast
// maps every channel through a 256-entry table that stretches (contrast > 0)
// or compresses (< 0) the levels about a pivot: 127, moved by a quarter of
// the brightness when both are given. The table is built per call, folded
// with the brightness step and applied as one lookup per byte, so concurrent
// calls never share it. Brightness without a table is a saturating add. Divisions
// truncate toward zero. The fourth byte of a 32-bit pixel is kept.
#include <algorithm>
#include <opencv2/core.hpp>

#include "frame/ipl_mat.h"
#include "frame/kernels.h"
#include "frame/kernels_tone.h"
#include "frame/view.h"
#include "pixel/pixel.h"

namespace quarvel::pixel {

namespace {

constexpr unsigned kToneDepths = kDepth8 | kDepth24 | kDepth32;

void ContrastAbout127(int k, int t[256]) {
    std::fill(t, t + 256, 127);
    if (k > 0) {
        const int d = 128 * k / 100;
        for (int i = 127; i <= 255; ++i) t[i] = d == 128 ? 255 : std::min(255, 127 + 128 * (i - 127) / (128 - d));
        const int e = 127 * k / 100;
        for (int i = 0; i <= 126; ++i) t[i] = e == 127 ? 0 : std::max(0, 127 - 127 * (127 - i) / (127 - e));
    } else {
        const int d = 128 * k / 100;
        for (int i = 127; i <= 255; ++i) t[i] = std::min(255, 127 + (i - 127) * (128 + d) / 128);
        const int e = 127 - (-127 * k) / 100;
        for (int i = 0; i <= 126; ++i) t[i] = std::max(0, 127 - e * (127 - i) / 127);
    }
}

void ContrastAboutPivot(int b, int k, int t[256]) {
    const int p = 127 + b / 4;
    std::fill(t, t + 256, p);
    if (k > 0) {
        const int hi = 255 - (255 - p) * k / 100;
        for (int i = p; i <= 255; ++i) t[i] = hi == p ? 255 : std::min(255, p + (255 - p) * (i - p) / (hi - p));
        const int e = p * k / 100;
        for (int i = 0; i < p; ++i) t[i] = e == p ? 0 : std::max(0, p - p * (p - i) / (p - e));
    } else if (k < 0) {
        const int hi = 255 + (255 - p) * k / 100;
        for (int i = p; i <= 255; ++i) t[i] = p == 255 ? 255 : std::min(255, p + (hi - p) * (i - p) / (255 - p));
        const int e = -p * k / 100;
        for (int i = 0; i < p; ++i) t[i] = std::max(0, p - (p - e) * (p - i) / p);
    }
}

// Brightness and contrast fold into one table (the level after brightness
// looked up in the contrast table), applied in a single pass from the
// caller's rows into the result block: as a lookup where the processor
// looks up 64 bytes in a few instructions (AVX-512 byte permutes), else as
// arithmetic where the table is a clamped line about its pivot (every table
// of ours, checked per call over all 256 levels), else as a slower lookup.
HGLOBAL Tone(HGLOBAL hDib, bool brighten, int brightness, bool contrastTable, int contrast) {
    int table[256];
    // With brightness, contrast 0 is the brightness change alone: no table,
    // so no pivot to keep inside the levels.
    const bool useTable = contrastTable && !(brighten && contrast == 0);
    if (useTable && !ContrastTable(brightness, contrast, brighten, table)) return nullptr;
    LockedDib in(hDib, kToneDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in, true);  // every pixel is written
    if (!view || !out) return nullptr;
    const bool lookup = useTable;
    std::uint8_t fused[256];
    for (int v = 0; v < 256; ++v) {
        const int b = brighten ? static_cast<int>(std::clamp<long long>(static_cast<long long>(v) + brightness, 0, 255)) : v;
        fused[v] = static_cast<std::uint8_t>(lookup ? (table[b] & 0xFF) : b);
    }
    // Contrast tables are a clamped line on each side of the pivot: where the
    // folded table is exactly that line, it is computed instead of looked up.
    kernels::ToneLine line{};
    bool arithmetic = false;
    if (lookup && !kernels::FastLookup()) {
        std::uint8_t contrastOnly[256];
        for (int v = 0; v < 256; ++v) contrastOnly[v] = static_cast<std::uint8_t>(table[v] & 0xFF);
        const int pivot = brighten ? 127 + brightness / 4 : 127;
        arithmetic = kernels::FitToneLine(contrastOnly, pivot, &line);
        line.brightness = brighten ? std::clamp(brightness, -255, 255) : 0;
        arithmetic = arithmetic && kernels::ToneLineMatches(line, fused);
    }
    const int bpp = in.bitCount() / 8;
    for (int y = 0; y < view->height; ++y) {
        const std::uint8_t *s = RowOf(*view, y);
        std::uint8_t *d = RowOf(*out.image(), y);
        if (arithmetic) {
            kernels::ToneRow(s, d, static_cast<std::size_t>(view->width) * bpp, line, bpp == 4);
        } else if (!lookup) {
            kernels::AddSaturateRow(s, d, static_cast<std::size_t>(view->width) * bpp, brighten ? brightness : 0, bpp == 4);
        } else if (bpp == 4) {
            kernels::LookupRow32(s, d, static_cast<std::size_t>(view->width), fused);
        } else {
            kernels::LookupRow(s, d, static_cast<std::size_t>(view->width) * bpp, fused);
        }
    }
    return out.Release();
}

}  // namespace

bool ContrastTable(int brightness, int contrast, bool withBrightness, int table[256]) {
    if (contrast < -100 || contrast > 100) return false;
    if (!withBrightness) {
        ContrastAbout127(contrast, table);
        return true;
    }
    const long long pivot = 127 + static_cast<long long>(brightness) / 4;
    if (pivot < 0 || pivot > 255) return false;
    ContrastAboutPivot(brightness, contrast, table);
    return true;
}

HGLOBAL AdjustBrightness(HGLOBAL hDib, int brightness) { return Tone(hDib, true, brightness, false, 0); }

HGLOBAL AdjustContrast(HGLOBAL hDib, int contrast) { return Tone(hDib, false, 0, true, contrast); }

HGLOBAL AdjustBrightnessAndContrast(HGLOBAL hDib, int brightness, int contrast) {
    return Tone(hDib, true, brightness, true, contrast);
}

}  // namespace quarvel::pixel
