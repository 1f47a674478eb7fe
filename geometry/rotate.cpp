// Rotate, RotateEx, RotateEx1 and RotateExpand.
//
// All four turn the page with iplRotate about a centre (the shift from
// iplGetRotateShift). Rotate keeps the page's frame and fills what the turned
// page leaves uncovered with the background value (white: 0 on a light-first
// page, else 255). RotateEx and RotateEx1 enlarge the canvas to hold the
// turned corners and centre the page on the canvas' growth; RotateEx fills
// with the background value, RotateEx1 with its opposite. RotateExpand turns
// by quarter and half turns, choosing the output size and shifts from its
// turn table; whole-degree turns move pixels exactly (transpose and flips).
#include <algorithm>
#include <cmath>
#include <opencv2/core.hpp>

#include "frame/bits.h"
#include "frame/ipl_mat.h"
#include "frame/view.h"
#include "geometry/geometry.h"

namespace quarvel::geometry {

namespace {

// Degrees to radians with the decimal constant the canvas arithmetic uses.
constexpr double kRadiansPerDegree = 0.0174532925;

enum class Fill { kBackground, kOpposite };

// The longest canvas side RotateEx and RotateEx1 make: 4 (w + h) + 64. A turn
// about any centre within a page's width and height of the page keeps every
// corner within twice the diagonal of it, well inside; a centre far off the
// page (a billion rows away) would ask for a canvas of millions of pixels a
// side from a page of one, and is refused.
long long MaxCanvasSide(int w, int h) { return 4LL * (static_cast<long long>(w) + h) + 64; }

HGLOBAL RotateInto(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate, bool enlarge, Fill fill) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    const int w = in.width(), h = in.height();
    int newW = w, newH = h;
    if (enlarge && !RotatedCanvas(w, h, angle, xCenter, yCenter, &newW, &newH)) return nullptr;
    if (enlarge && (newW > MaxCanvasSide(w, h) || newH > MaxCanvasSide(w, h) || !ResultSizeAllowed(newW, newH, w, h)))
        return nullptr;
    PixelFormat format = FormatOf(*view);
    const bool bitonal = format == PixelFormat::kBitonal;
    // A 1-bit canvas is written once: the turned page's bits and the fill
    // around them, row by row.
    ResultBlock out = ResultBlock::Rewritten(in, format, newW, newH, NewTable::kKeep,
                                             bitonal ? ResultRows::kUnset : ResultRows::kZeroed);
    if (!out) return nullptr;
    const int background = BackgroundValue(in.header());
    const int value = fill == Fill::kBackground ? background : 255 - background;
    if (!bitonal) out.Fill(value);

    double xShift = 0.0, yShift = 0.0;
    iplGetRotateShift(xCenter, yCenter, angle, &xShift, &yShift);
    xShift += (newW - w) / 2;
    yShift += (newH - h) / 2;
    if (bitonal)
        RotateBitonalFilled(view.get(), out.image(), angle, xShift, yShift, value, false);
    else
        iplRotate(view.get(), out.image(), angle, xShift, yShift, interpolate);
    return out.Release();
}

// A turn by a whole number of quarter turns as exact pixel moves. `rem` is
// 90, 180 or 270 (-90 turns as 270).
void QuarterTurn(IplImage &src, IplImage &dst, int rem) {
    if (src.depth == IPL_DEPTH_1U) {
        const int w = src.width, h = src.height;
        // Quarter turns move 8 x 8 blocks of bits: eight source rows' bytes
        // transposed in one 64-bit word give eight destination bytes. 270
        // needs the block rows to land on byte boundaries (h a multiple of
        // 8); bits outside whole blocks go one at a time below.
        int blockRows = 0, blockCols = 0;
        if (rem == 90 || (rem == 270 && h % 8 == 0)) {
            blockRows = h / 8 * 8;
            blockCols = w / 8 * 8;
            for (int y0 = 0; y0 < blockRows; y0 += 8) {
                const std::uint8_t *rows[8];
                for (int r = 0; r < 8; ++r) rows[r] = RowOf(src, y0 + r);
                for (int x0 = 0; x0 < blockCols; x0 += 8) {
                    std::uint64_t v = 0;
                    for (int r = 0; r < 8; ++r) v = (v << 8) | rows[r][x0 >> 3];
                    std::uint64_t t = (v ^ (v >> 7)) & 0x00AA00AA00AA00AAull;
                    v ^= t ^ (t << 7);
                    t = (v ^ (v >> 14)) & 0x0000CCCC0000CCCCull;
                    v ^= t ^ (t << 14);
                    t = (v ^ (v >> 28)) & 0x00000000F0F0F0F0ull;
                    v ^= t ^ (t << 28);
                    // Byte i (from the top) is source column x0 + i, row y0 in its top bit.
                    for (int i = 0; i < 8; ++i) {
                        const auto column = static_cast<std::uint8_t>(v >> (56 - 8 * i));
                        if (rem == 90) {
                            RowOf(dst, w - 1 - (x0 + i))[y0 >> 3] = column;
                        } else {
                            RowOf(dst, x0 + i)[(h - 8 - y0) >> 3] = bits::kReverse[column];
                        }
                    }
                }
            }
        }
        for (int y = 0; y < h; ++y) {
            if (y < blockRows) {
                // Only the columns past the whole blocks are left in this row.
                const std::uint8_t *in = RowOf(src, y);
                for (int x = blockCols; x < w; ++x) {
                    const int v = bits::Get(in, x);
                    if (rem == 90) bits::Set(RowOf(dst, w - 1 - x), y, v);
                    else bits::Set(RowOf(dst, x), h - 1 - y, v);
                }
                continue;
            }
            const std::uint8_t *in = RowOf(src, y);
            for (int x = 0; x < w; ++x) {
                const int v = bits::Get(in, x);
                switch (rem) {
                    case 90: bits::Set(RowOf(dst, w - 1 - x), y, v); break;
                    case 180: bits::Set(RowOf(dst, h - 1 - y), w - 1 - x, v); break;
                    default: bits::Set(RowOf(dst, x), h - 1 - y, v); break;
                }
            }
        }
        return;
    }
    Region rs{0, 0, src.width, src.height}, rd{0, 0, dst.width, dst.height};
    cv::Mat in = MatOf(src, rs), out = MatOf(dst, rd);
    if (rem == 180) {
        cv::flip(in, out, -1);
        return;
    }
    // 90: output (X, Y) = source (W - 1 - Y, X); 270: source (Y, H - 1 - X).
    cv::Mat t;
    cv::transpose(in, t);
    cv::flip(t, out, rem == 90 ? 0 : 1);
}

}  // namespace

bool RotatedCanvas(int width, int height, double angle, int xCenter, int yCenter, int *newWidth, int *newHeight) {
    const double a = angle * kRadiansPerDegree;
    const double c = std::cos(a), s = std::sin(a);
    const double corners[4][2] = {{0, 0}, {static_cast<double>(width), 0}, {0, static_cast<double>(height)},
                                  {static_cast<double>(width), static_cast<double>(height)}};
    float minX = 0.0f, minY = 0.0f, maxX = static_cast<float>(width), maxY = static_cast<float>(height);
    for (const auto &p : corners) {
        const double dx = p[0] - xCenter, dy = p[1] - yCenter;
        const float x = static_cast<float>(xCenter + dx * c + dy * s);
        const float y = static_cast<float>(yCenter - dx * s + dy * c);
        minX = std::min(minX, x), maxX = std::max(maxX, x);
        minY = std::min(minY, y), maxY = std::max(maxY, y);
    }
    const double w = maxX - std::trunc(minX - 1.0) + 2.0;
    const double h = maxY - std::trunc(minY - 1.0) + 2.0;
    if (!(w < 2147483647.0 && h < 2147483647.0)) return false;  // also catches NaN
    *newWidth = static_cast<int>(w);
    *newHeight = static_cast<int>(h);
    return true;
}

HGLOBAL Rotate(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate) {
    return RotateInto(hDib, angle, xCenter, yCenter, interpolate, false, Fill::kBackground);
}

HGLOBAL RotateEx(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate) {
    return RotateInto(hDib, angle, xCenter, yCenter, interpolate, true, Fill::kBackground);
}

HGLOBAL RotateEx1(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate) {
    return RotateInto(hDib, angle, xCenter, yCenter, interpolate, true, Fill::kOpposite);
}

HGLOBAL RotateExpand(HGLOBAL hDib, double angle) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok() || !std::isfinite(angle) || std::fabs(angle) >= 2147483647.0) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    const int w = in.width(), h = in.height();
    const int whole = static_cast<int>(angle);
    const int rem = whole % 360;
    int outW = h, outH = w;
    double xShift = 0, yShift = 0;
    switch (rem) {
        case 90: xShift = 0, yShift = w - 1; break;
        case 180: outW = w, outH = h, xShift = w - 1, yShift = h - 1; break;
        case 270:
        case -90: xShift = h - 1, yShift = 0; break;
        case 0: outW = w, outH = h; break;  // no turn: an unchanged copy
        default: return nullptr;            // not a turn the table knows
    }
    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(*view), outW, outH, NewTable::kKeep);
    if (!out) return nullptr;
    if (rem == 0) {
        iplCopy(view.get(), out.image());
    } else if (angle == whole) {
        QuarterTurn(*view, *out.image(), rem == -90 ? 270 : rem);
    } else {
        out.Fill(0);
        iplRotate(view.get(), out.image(), angle, xShift, yShift, IPL_INTER_NN);
    }
    return out.Release();
}

}  // namespace quarvel::geometry
