// iplRotate and iplGetRotateShift.
//
// The mapping, in each image's own coordinates (column, stored row; relative
// to the region of interest where there is one): a source pixel (x, y) goes
// to x' = x cos a + y sin a + xShift, y' = -x sin a + y cos a + yShift. Each
// destination pixel is looked up backwards; one whose source position falls
// outside the source region keeps its value. 8-bit and colour images run on
// the fused warps of warp_affine.h, which give OpenCV's affine warp (inverse
// map) to the bit, or on that warp itself (cubic interpolation, and the plain
// path their tests compare against); 1-bit images are
// sampled nearest-neighbour on packed bits whatever the mode, so bits stay
// clean. Nearest neighbour rounds the source position to the nearest pixel,
// so quarter turns move pixels exactly; linear and cubic interpolation write
// every destination pixel whose source position lies within the source's
// first and last rows and columns.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"
#include "frame/kernels_bits.h"
#include "frame/warp_affine.h"

namespace quarvel {

namespace {

constexpr double kPi = 3.14159265358979323846;
// Source rows fetched ahead by the 1-bit run loop: the next destination rows
// read the rows below at about the same columns, and a row crosses too many
// source rows for the hardware prefetcher to follow.
constexpr int kAheadRows = 8;

int CvInterpolation(int interpolate) {
    switch (interpolate) {
        case IPL_INTER_LINEAR: return cv::INTER_LINEAR;
        case IPL_INTER_CUBIC: return cv::INTER_CUBIC;
        default: return cv::INTER_NEAREST;  // 0 and any value the library does not know
    }
}

// Source of destination (X, Y): x = c (X - xs) - s (Y - ys), y = s (X - xs) +
// c (Y - ys), stepped along a row in 32.32 fixed point; +0.5 makes the shift
// round to the nearest pixel. Integer steps make the positions exactly
// linear in X, so the columns whose source lies inside the source form one
// interval, found by a double estimate corrected with the exact test. Inside
// it, where the source column advances by exactly one pixel per column and
// the source row stays put, whole runs of bits are copied at once.
struct BitonalRow {
    std::int64_t fx, fy, stepX, stepY;
    int w, h;
    bool Inside(std::int64_t X) const {
        const std::int64_t ix = (fx + X * stepX) >> 32, iy = (fy + X * stepY) >> 32;
        return ix >= 0 && iy >= 0 && ix < w && iy < h;
    }
};

// The interval [first, last] of columns in [0, n) whose source is inside.
void InsideColumns(const BitonalRow &r, int n, int *first, int *last) {
    constexpr double kOne = 4294967296.0;
    double lo = 0, hi = n - 1;
    auto clip = [&](double start, double step, double limit) {
        // start + X step within [0, limit), in pixels
        if (step == 0) {
            if (start < 0 || start >= limit) hi = -1;
            return;
        }
        double x0 = (0 - start) / step, x1 = (limit - start) / step;
        if (x0 > x1) std::swap(x0, x1);
        lo = std::max(lo, x0);
        hi = std::min(hi, x1);
    };
    clip(r.fx / kOne, r.stepX / kOne, r.w);
    clip(r.fy / kOne, r.stepY / kOne, r.h);
    *first = 1, *last = 0;
    if (!(hi >= lo - 2)) return;
    const std::int64_t guess = std::clamp<std::int64_t>(static_cast<std::int64_t>(std::floor((lo + hi) / 2)), 0, n - 1);
    std::int64_t f = std::clamp<std::int64_t>(static_cast<std::int64_t>(std::floor(lo)), 0, n - 1);
    std::int64_t l = std::clamp<std::int64_t>(static_cast<std::int64_t>(std::ceil(hi)), 0, n - 1);
    // Find one inside column near the estimate, then widen and narrow.
    std::int64_t in = -1;
    for (std::int64_t X : {guess, f, l, f + 1, l - 1})
        if (X >= 0 && X < n && r.Inside(X)) {
            in = X;
            break;
        }
    if (in < 0) {
        for (std::int64_t X = std::max<std::int64_t>(0, f - 2); X <= std::min<std::int64_t>(n - 1, l + 2); ++X)
            if (r.Inside(X)) {
                in = X;
                break;
            }
        if (in < 0) return;
    }
    f = std::min(f, in);
    l = std::max(l, in);
    while (f > 0 && r.Inside(f - 1)) --f;
    while (!r.Inside(f)) ++f;
    while (l + 1 < n && r.Inside(l + 1)) ++l;
    while (!r.Inside(l)) --l;
    *first = static_cast<int>(f);
    *last = static_cast<int>(l);
}

// With a fill (0 or 1; -1 keeps the destination's bits): the columns of a
// destination row outside [first, last] set to it and, where the region is
// the whole row, the row's padding cleared, before the turned bits go in.
void FillAround(IplImage &dst, const Region &rd, int Y, int first, int last, int fill) {
    if (fill < 0) return;
    std::uint8_t *out = RowOf(dst, rd.y + Y);
    if (first > last) {
        bits::Fill(out, rd.x, rd.width, fill);
    } else {
        bits::Fill(out, rd.x, first, fill);
        bits::Fill(out, rd.x + last + 1, rd.width - last - 1, fill);
    }
    if (rd.x == 0 && rd.width == dst.width) kernels::ClearRowTail(out, dst.width, dst.widthStep);
}

// The plain form: every destination pixel sampled and set on its own.
void RotateBitonalPlain(const IplImage &src, const Region &rs, IplImage &dst, const Region &rd, double c, double s,
                        double xShift, double yShift, int fill) {
    constexpr double kOne = 4294967296.0;
    const std::int64_t stepX = std::llround(c * kOne), stepY = std::llround(s * kOne);
    for (int Y = 0; Y < rd.height; ++Y) {
        const double dy = Y - yShift;
        const double x0 = c * (0 - xShift) - s * dy + 0.5, y0 = s * (0 - xShift) + c * dy + 0.5;
        FillAround(dst, rd, Y, 1, 0, fill);
        if (std::fabs(x0) > 1e9 || std::fabs(y0) > 1e9) continue;
        std::int64_t fx = std::llround(x0 * kOne), fy = std::llround(y0 * kOne);
        std::uint8_t *out = RowOf(dst, rd.y + Y);
        for (int X = 0; X < rd.width; ++X, fx += stepX, fy += stepY) {
            const std::int64_t ix = fx >> 32, iy = fy >> 32;
            if (ix < 0 || iy < 0 || ix >= rs.width || iy >= rs.height) continue;
            bits::Set(out, rd.x + X, bits::Get(RowOf(src, rs.y + static_cast<int>(iy)), rs.x + static_cast<int>(ix)));
        }
    }
}

inline std::uint64_t LoadBE(const std::uint8_t *p) {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

// 64 bits of a row from bit p on, most significant first; bytes past the
// row's `rowBytes` read as zero.
[[gnu::noinline, gnu::cold]] std::uint64_t LoadBitsAtEnd(const std::uint8_t *row, int p, int rowBytes) {
    const int at = p >> 3;
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) v = (v << 8) | (at + i < rowBytes ? row[at + i] : 0u);
    return v << (p & 7);
}

inline std::uint64_t LoadBits(const std::uint8_t *row, int p, int rowBytes) {
    const int at = p >> 3;
    if (__builtin_expect(at + 8 <= rowBytes, 1)) return LoadBE(row + at) << (p & 7);
    return LoadBitsAtEnd(row, p, rowBytes);
}

// Stores `bits` into the 64 bits of a row from byte `at` on, keeping the bits
// set in `keep`; bytes past the row's `rowBytes` are not touched.
inline void StoreBits(std::uint8_t *row, int at, int rowBytes, std::uint64_t bits, std::uint64_t keep) {
    if (at + 8 <= rowBytes) {
        const std::uint64_t v = __builtin_bswap64(keep == 0 ? bits : (LoadBE(row + at) & keep) | (bits & ~keep));
        std::memcpy(row + at, &v, 8);
        return;
    }
    for (int i = 0; at + i < rowBytes; ++i) {
        const int sh = 56 - 8 * i;
        const auto k = static_cast<std::uint8_t>(keep >> sh), b = static_cast<std::uint8_t>(bits >> sh);
        row[at + i] = static_cast<std::uint8_t>((row[at + i] & k) | (b & ~k));
    }
}

// Counts of columns until floor(f / 2^32) next changes, f advancing by a
// fixed step d of either sign (0 < |d| < 2^32). Anywhere, from a double
// estimate of the quotient, exact after one correction each way. Right after
// a change, the fractional part lies within |d| of the edge it crossed, which
// leaves two candidate lengths, told apart by one comparison of the fraction
// with a threshold; the fraction at the next change follows by one addition.
// So a row's changes are followed without multiplying or dividing.
struct RunCounter {
    static constexpr std::int64_t kUnit = std::int64_t{1} << 32;
    std::int64_t d, mag;
    double inverse;
    // frac >= threshold: run lenHi and frac += addHi; else lenLo, addLo.
    std::int64_t threshold = 0, lenHi = 0, lenLo = 0, addHi = 0, addLo = 0;
    explicit RunCounter(std::int64_t step) : d(step), mag(step < 0 ? -step : step) {
        inverse = mag == 0 ? 0 : 1.0 / static_cast<double>(mag);
        if (mag == 0) return;
        if (d > 0) {
            const std::int64_t after = (kUnit + mag - 1) / mag;
            threshold = kUnit - (after - 1) * mag, lenHi = after - 1, lenLo = after;
            addHi = lenHi * mag - kUnit, addLo = lenLo * mag - kUnit;
        } else {
            const std::int64_t after = (kUnit - 1) / mag + 1;
            threshold = (after - 1) * mag, lenHi = after, lenLo = after - 1;
            addHi = kUnit - lenHi * mag, addLo = kUnit - lenLo * mag;
        }
    }
    std::int64_t FloorDiv(std::int64_t r) const {
        std::int64_t q = static_cast<std::int64_t>(static_cast<double>(r) * inverse);
        if (q * mag > r) --q;
        if ((q + 1) * mag <= r) ++q;
        return q;
    }
    // Columns left from a column whose fraction is `frac`; `frac` becomes the
    // fraction at the change.
    std::int64_t Left(std::int64_t &frac) const {
        std::int64_t n;
        if (d > 0) {
            const std::int64_t rem = kUnit - frac, q = FloorDiv(rem);
            n = q * mag == rem ? q : q + 1;
            frac += n * mag - kUnit;
        } else {
            n = FloorDiv(frac) + 1;
            frac += kUnit - n * mag;
        }
        return n;
    }
    // The same from the column of a change.
    std::int64_t Next(std::int64_t &frac) const {
        const bool hi = frac >= threshold;
        frac += hi ? addHi : addLo;
        return hi ? lenHi : lenLo;
    }
};

void RotateBitonal(const IplImage &src, const Region &rs, IplImage &dst, const Region &rd, double c, double s,
                   double xShift, double yShift, int fill) {
    constexpr double kOne = 4294967296.0;
    constexpr std::int64_t kUnit = std::int64_t{1} << 32, kFrac = kUnit - 1;
    const std::int64_t stepX = std::llround(c * kOne), stepY = std::llround(s * kOne);
    // Runs apply when the source column advances by one pixel per column.
    const bool runs = stepX > 0 && stepX <= kUnit;
    // The source column repeats when its fraction, falling by 2^32 - stepX
    // a column, would go below zero.
    const RunCounter xRuns(stepX - kUnit), yRuns(stepY);
    std::vector<const std::uint8_t *> rows(static_cast<std::size_t>(rs.height));
    for (int y = 0; y < rs.height; ++y) rows[y] = RowOf(src, rs.y + y);
    // One destination row's words, from the 64-bit boundary at or before its
    // first column.
    std::vector<std::uint64_t> acc(static_cast<std::size_t>(rd.width / 64 + 3));
    for (int Y = 0; Y < rd.height; ++Y) {
        const double dy = Y - yShift;
        const double x0 = c * (0 - xShift) - s * dy + 0.5, y0 = s * (0 - xShift) + c * dy + 0.5;
        // Positions so far off that fixed point would overflow are outside.
        if (std::fabs(x0) > 1e9 || std::fabs(y0) > 1e9) {
            FillAround(dst, rd, Y, 1, 0, fill);
            continue;
        }
        const BitonalRow r{std::llround(x0 * kOne), std::llround(y0 * kOne), stepX, stepY, rs.width, rs.height};
        int first, last;
        InsideColumns(r, rd.width, &first, &last);
        FillAround(dst, rd, Y, first, last, fill);
        if (first > last) continue;
        std::uint8_t *out = RowOf(dst, rd.y + Y);
        if (!runs) {
            std::int64_t fx = r.fx + first * stepX, fy = r.fy + first * stepY;
            for (int X = first; X <= last; ++X, fx += stepX, fy += stepY)
                bits::Set(out, rd.x + X, bits::Get(rows[fy >> 32], rs.x + static_cast<int>(fx >> 32)));
            continue;
        }
        // Runs (source column advancing one pixel a column, source row
        // unchanged) end where the source row changes or the column repeats;
        // both are tracked as the next column where they happen. Each run is
        // one unaligned 64-bit load appended to the row's words in `acc`
        // without branches (the word is stored after every run; the index
        // moves on when it fills), then the words go to the row, the first
        // and last keeping the bits outside [first, last].
        const std::int64_t end = last + 1;
        std::int64_t X = first;
        const std::int64_t fx = r.fx + X * stepX, fy = r.fy + X * stepY;
        const int iy = static_cast<int>(fy >> 32);
        const std::ptrdiff_t ahead = static_cast<std::ptrdiff_t>(src.widthStep) * kAheadRows;
        const std::ptrdiff_t yStride = stepY > 0 ? src.widthStep : -static_cast<std::ptrdiff_t>(src.widthStep);
        const std::uint8_t *row = rows[iy];
        int p = rs.x + static_cast<int>(fx >> 32);
        std::int64_t xFrac = fx & kFrac, yFrac = fy & kFrac;
        std::int64_t nextX = stepX == kUnit ? end : X + xRuns.Left(xFrac);
        std::int64_t nextY = stepY == 0 ? end : X + yRuns.Left(yFrac);
        const int base = (rd.x + first) & ~63, o0 = rd.x + first - base;
        int k = 0, o = o0;
        std::uint64_t word = 0;
        auto append = [&](std::uint64_t v, int m) {
            word = (word & ~(~0ull >> o)) | (v >> o);
            acc[k] = word;
            const int n = o + m;
            const bool full = n >= 64;
            k += full;
            word = full ? (v << 1) << (63 - o) : word;
            o = n & 63;
        };
        auto copy = [&](int run) {
            for (; run > 57; run -= 57, p += 57) append(LoadBits(row, p, src.widthStep), 57);
            append(LoadBits(row, p, src.widthStep), run);
            __builtin_prefetch(row + ahead + (p >> 3));
            p += run;
        };
        // Stretches between repeats of the source column, each a series of
        // runs between source row changes.
        for (;;) {
            const std::int64_t stretchEnd = std::min(nextX, end);
            while (nextY < stretchEnd) {
                copy(static_cast<int>(nextY - X));
                X = nextY;
                row += yStride;
                nextY = X + yRuns.Next(yFrac);
            }
            copy(static_cast<int>(stretchEnd - X));
            X = stretchEnd;
            if (X >= end) break;
            if (X == nextY) {
                row += yStride;
                nextY = X + yRuns.Next(yFrac);
            }
            --p;
            nextX = X + xRuns.Next(xFrac);
        }
        acc[k] = word;
        const int words = k + (o > 0);
        for (int w = 0; w < words; ++w) {
            std::uint64_t keep = w == 0 ? ~(~0ull >> o0) : 0;
            if (w == words - 1 && o > 0) keep |= ~0ull >> o;
            StoreBits(out, (base >> 3) + 8 * w, dst.widthStep, acc[w], keep);
        }
    }
}

// Interpolating warps read a pixel's neighbours, which OpenCV's transparent
// border skips along the source's last row and column. The warp runs with a
// replicated border instead, and every destination pixel whose source lies
// outside the source keeps its value: those are saved first and put back.
void WarpInterpolated(const cv::Mat &in, cv::Mat &out, const cv::Matx23d &m, int flags) {
    const std::size_t px = out.elemSize();
    std::vector<warp::Span> spans(static_cast<std::size_t>(out.rows));
    std::vector<std::uint8_t> saved;
    for (int Y = 0; Y < out.rows; ++Y) {
        warp::Span &s = spans[Y];
        s = warp::InsideSpan(m, Y, in.cols, in.rows, out.cols);
        const std::uint8_t *row = out.ptr<std::uint8_t>(Y);
        if (s.first > s.last) {
            saved.insert(saved.end(), row, row + out.cols * px);
        } else {
            saved.insert(saved.end(), row, row + s.first * px);
            saved.insert(saved.end(), row + (s.last + 1) * px, row + out.cols * px);
        }
    }
    cv::warpAffine(in, out, m, out.size(), flags | cv::WARP_INVERSE_MAP, cv::BORDER_REPLICATE);
    const std::uint8_t *from = saved.data();
    for (int Y = 0; Y < out.rows; ++Y) {
        const warp::Span &s = spans[Y];
        std::uint8_t *row = out.ptr<std::uint8_t>(Y);
        const std::size_t left = s.first > s.last ? out.cols * px : s.first * px;
        if (left > 0) std::memcpy(row, from, left);
        from += left;
        if (s.first <= s.last) {
            const std::size_t right = (out.cols - s.last - 1) * px;
            if (right > 0) std::memcpy(row + (s.last + 1) * px, from, right);
            from += right;
        }
    }
}

}  // namespace

void iplGetRotateShift(double xCenter, double yCenter, double angle, double *xShift, double *yShift) {
    const double a = angle * kPi / 180.0;
    const double c = std::cos(a), s = std::sin(a);
    *xShift = xCenter - (xCenter * c + yCenter * s);
    *yShift = yCenter - (-xCenter * s + yCenter * c);
}

void iplRotate(IplImage *src, IplImage *dst, double angle, double xShift, double yShift, int interpolate) {
    RotateImage(src, dst, angle, xShift, yShift, interpolate, false);
}

void RotateBitonalFilled(IplImage *src, IplImage *dst, double angle, double xShift, double yShift, int fill, bool plain) {
    if (dst == nullptr || dst->depth != IPL_DEPTH_1U) return;
    Region rd;
    if (!RegionOf(*dst, &rd)) return;
    Region rs;
    if (src == nullptr || !SameFormat(*src, *dst) || !RegionOf(*src, &rs) || !std::isfinite(angle) ||
        !std::isfinite(xShift) || !std::isfinite(yShift)) {
        for (int Y = 0; Y < rd.height; ++Y) FillAround(*dst, rd, Y, 1, 0, fill != 0);
        return;
    }
    const double a = angle * kPi / 180.0;
    (plain ? RotateBitonalPlain : RotateBitonal)(*src, rs, *dst, rd, std::cos(a), std::sin(a), xShift, yShift, fill != 0);
}

void RotateImage(IplImage *src, IplImage *dst, double angle, double xShift, double yShift, int interpolate,
                 bool plain) {
    if (src == nullptr || dst == nullptr || !SameFormat(*src, *dst)) return;
    if (!std::isfinite(angle) || !std::isfinite(xShift) || !std::isfinite(yShift)) return;
    Region rs, rd;
    if (!RegionOf(*src, &rs) || !RegionOf(*dst, &rd)) return;
    const double a = angle * kPi / 180.0;
    const double c = std::cos(a), s = std::sin(a);

    if (src->depth == IPL_DEPTH_1U) {
        (plain ? RotateBitonalPlain : RotateBitonal)(*src, rs, *dst, rd, c, s, xShift, yShift, -1);
        return;
    }
    cv::Mat in = MatOf(*src, rs);
    cv::Mat out = MatOf(*dst, rd);
    const cv::Matx23d inverse(c, -s, -(c * xShift - s * yShift), s, c, -(s * xShift + c * yShift));
    const int mode = CvInterpolation(interpolate);
    if (!plain && mode == cv::INTER_NEAREST && warp::WarpNearest(in, out, inverse)) return;
    if (!plain && mode == cv::INTER_LINEAR && warp::WarpLinear(in, out, inverse)) return;
    if (mode == cv::INTER_NEAREST)
        cv::warpAffine(in, out, inverse, out.size(), mode | cv::WARP_INVERSE_MAP, cv::BORDER_TRANSPARENT);
    else
        WarpInterpolated(in, out, inverse, mode);
}

}  // namespace quarvel
