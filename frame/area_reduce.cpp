// The area reduction behind Resize and Thumbnail, byte for byte the result of
// OpenCV's resize with INTER_AREA (4.x) for a reduction by factors that are
// not both whole.
//
// That reduction is separable and runs in single precision. Along each
// axis, output cell d spans [d s, d s + s) source pixels (s = source size /
// output size, in double); every source pixel it touches gets the float
// weight (covered part) / (cell width), a pixel covered by less than 1e-3
// none. A source row becomes a row of horizontal sums, each started at 0
// and added to tap by tap from left to right (sum + level * weight); an
// output row is the first of its source rows' sums times that row's weight,
// plus each following one's times its weight, in row order; the result is
// rounded half to even and saturated to 0..255. Floating-point sums are
// reproducible only when every output sample sees the same operations in
// the same order, so the speed comes from elsewhere: horizontal sums of 16
// source rows are computed at once, one row per SIMD lane (the 16 rows'
// bytes are transposed first, so one load gives a pixel of all 16 rows),
// which hides the latency of the tap-by-tap chain OpenCV waits on at every
// tap; the sums are transposed back to rows and the vertical step runs
// across each row. Multiply and add stay two rounded operations: this file
// is compiled with -ffp-contract=off, and the vector code asks for no FMA.
//
// A reduction by exactly 2 on both axes is OpenCV's integer average of each
// 2 x 2 cell, rounded half up; it makes 16 output samples a step (12 for
// 3-byte pixels).
//
// A 1-bit source is expanded to its two gray levels 16 rows at a time, so
// no 8-bit copy of the page is made. Cells that OpenCV would not reach the
// same way (an output row or column with no tap) send the caller back to
// OpenCV, which is also the path on processors without AVX2.
#include "frame/area_reduce.h"

#include <immintrin.h>

#include <algorithm>
#include <atomic>
#include <cfloat>
#include <climits>
#include <cmath>
#include <vector>

#include "frame/kernels.h"

namespace quarvel {

namespace {

constexpr int kLanes = 16;  // source rows summed at once

const bool kHasAvx2 = __builtin_cpu_supports("avx2");
std::atomic<bool> gEnabled{true};

// The taps of every output cell along one axis: cell d reads `count[d]`
// consecutive source pixels from `first[d]` on, with the weights
// weight[offset[d]] onwards.
struct Taps {
    std::vector<int> first, count, offset;
    std::vector<float> weight;
};

// Cells of `cells` outputs over `size` source pixels, scale = size / cells as
// the inverse of cells / size (the exact double OpenCV derives). Weights are
// the covered fraction of a pixel over the cell's width, in double, rounded
// once to float; a cut-off end pixel counts only if more than 1e-3 of it is
// covered. False if a cell would have no tap.
bool CellTaps(int size, int cells, Taps *taps) {
    const double scale = 1.0 / (static_cast<double>(cells) / size);
    taps->first.resize(cells);
    taps->count.resize(cells);
    taps->offset.resize(cells);
    taps->weight.clear();
    taps->weight.reserve(static_cast<std::size_t>(size) + 2 * static_cast<std::size_t>(cells));
    for (int d = 0; d < cells; ++d) {
        const double from = d * scale;
        const double to = from + scale;
        const double width = std::min(scale, size - from);
        const int whole2 = std::min(static_cast<int>(std::floor(to)), size - 1);
        const int whole1 = std::min(static_cast<int>(std::ceil(from)), whole2);
        taps->offset[d] = static_cast<int>(taps->weight.size());
        taps->first[d] = whole1;
        if (whole1 - from > 1e-3) {
            taps->first[d] = whole1 - 1;
            taps->weight.push_back(static_cast<float>((whole1 - from) / width));
        }
        for (int s = whole1; s < whole2; ++s) taps->weight.push_back(static_cast<float>(1.0 / width));
        if (to - whole2 > 1e-3)
            taps->weight.push_back(static_cast<float>(std::min(std::min(to - whole2, 1.0), width) / width));
        taps->count[d] = static_cast<int>(taps->weight.size()) - taps->offset[d];
        if (taps->count[d] == 0) return false;
    }
    return true;
}

bool WholeScale(int size, int cells) {
    const double scale = 1.0 / (static_cast<double>(cells) / size);
    const double whole = std::nearbyint(scale);
    return whole <= INT_MAX && std::abs(scale - whole) < DBL_EPSILON;
}

#define QUARVEL_AVX2 __attribute__((target("avx2")))

// Transposes 16 x 16 bytes: rows r[i] (16 pixels each) become columns, one
// 16-byte vector per pixel holding that pixel of the 16 rows.
QUARVEL_AVX2 inline void Transpose16(const __m128i r[16], std::uint8_t *out) {
    __m128i a[16], b[16];
    for (int k = 0; k < 8; ++k) {
        a[k] = _mm_unpacklo_epi8(r[2 * k], r[2 * k + 1]);
        a[k + 8] = _mm_unpackhi_epi8(r[2 * k], r[2 * k + 1]);
    }
    for (int half = 0; half < 2; ++half)
        for (int m = 0; m < 4; ++m) {
            b[half * 8 + m] = _mm_unpacklo_epi16(a[half * 8 + 2 * m], a[half * 8 + 2 * m + 1]);
            b[half * 8 + m + 4] = _mm_unpackhi_epi16(a[half * 8 + 2 * m], a[half * 8 + 2 * m + 1]);
        }
    // b[4 q + m]: pixels 4q .. 4q + 3, rows 4m .. 4m + 3.
    for (int q = 0; q < 4; ++q) {
        const __m128i lo0 = _mm_unpacklo_epi32(b[4 * q], b[4 * q + 1]),
                      lo1 = _mm_unpacklo_epi32(b[4 * q + 2], b[4 * q + 3]);
        const __m128i hi0 = _mm_unpackhi_epi32(b[4 * q], b[4 * q + 1]),
                      hi1 = _mm_unpackhi_epi32(b[4 * q + 2], b[4 * q + 3]);
        auto *o = reinterpret_cast<__m128i *>(out + 4 * q * kLanes);
        _mm_storeu_si128(o, _mm_unpacklo_epi64(lo0, lo1));
        _mm_storeu_si128(o + 1, _mm_unpackhi_epi64(lo0, lo1));
        _mm_storeu_si128(o + 2, _mm_unpacklo_epi64(hi0, hi1));
        _mm_storeu_si128(o + 3, _mm_unpackhi_epi64(hi0, hi1));
    }
}

// Two 16 x 16 transposes at once: rows r[i] of 32 pixels, one 16 x 16 block
// per 128-bit lane (the unpacks work within lanes); pixel p of the low lane
// goes to out + 16 p, of the high lane to out + 16 (16 + p).
QUARVEL_AVX2 inline void Transpose16x2(const __m256i r[16], std::uint8_t *out) {
    __m256i a[16], b[16];
    for (int k = 0; k < 8; ++k) {
        a[k] = _mm256_unpacklo_epi8(r[2 * k], r[2 * k + 1]);
        a[k + 8] = _mm256_unpackhi_epi8(r[2 * k], r[2 * k + 1]);
    }
    for (int half = 0; half < 2; ++half)
        for (int m = 0; m < 4; ++m) {
            b[half * 8 + m] = _mm256_unpacklo_epi16(a[half * 8 + 2 * m], a[half * 8 + 2 * m + 1]);
            b[half * 8 + m + 4] = _mm256_unpackhi_epi16(a[half * 8 + 2 * m], a[half * 8 + 2 * m + 1]);
        }
    for (int q = 0; q < 4; ++q) {
        const __m256i lo0 = _mm256_unpacklo_epi32(b[4 * q], b[4 * q + 1]),
                      lo1 = _mm256_unpacklo_epi32(b[4 * q + 2], b[4 * q + 3]);
        const __m256i hi0 = _mm256_unpackhi_epi32(b[4 * q], b[4 * q + 1]),
                      hi1 = _mm256_unpackhi_epi32(b[4 * q + 2], b[4 * q + 3]);
        const __m256i c[4] = {_mm256_unpacklo_epi64(lo0, lo1), _mm256_unpackhi_epi64(lo0, lo1),
                              _mm256_unpacklo_epi64(hi0, hi1), _mm256_unpackhi_epi64(hi0, hi1)};
        for (int i = 0; i < 4; ++i) {
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + (4 * q + i) * kLanes), _mm256_castsi256_si128(c[i]));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(out + (16 + 4 * q + i) * kLanes),
                             _mm256_extracti128_si256(c[i], 1));
        }
    }
}

// An 8 x 8 block of floats transposed in place: r[i] becomes what was
// column i.
QUARVEL_AVX2 inline void Transpose8(__m256 r[8]) {
    __m256 t[8], s[8];
    for (int k = 0; k < 4; ++k) {
        t[2 * k] = _mm256_unpacklo_ps(r[2 * k], r[2 * k + 1]);
        t[2 * k + 1] = _mm256_unpackhi_ps(r[2 * k], r[2 * k + 1]);
    }
    for (int k = 0; k < 2; ++k) {
        s[4 * k] = _mm256_shuffle_ps(t[4 * k], t[4 * k + 2], _MM_SHUFFLE(1, 0, 1, 0));
        s[4 * k + 1] = _mm256_shuffle_ps(t[4 * k], t[4 * k + 2], _MM_SHUFFLE(3, 2, 3, 2));
        s[4 * k + 2] = _mm256_shuffle_ps(t[4 * k + 1], t[4 * k + 3], _MM_SHUFFLE(1, 0, 1, 0));
        s[4 * k + 3] = _mm256_shuffle_ps(t[4 * k + 1], t[4 * k + 3], _MM_SHUFFLE(3, 2, 3, 2));
    }
    for (int k = 0; k < 4; ++k) {
        r[k] = _mm256_permute2f128_ps(s[k], s[k + 4], 0x20);
        r[k + 4] = _mm256_permute2f128_ps(s[k], s[k + 4], 0x31);
    }
}

// The reduction's working state: tables, the 16 rows of a group and their
// horizontal sums.
struct Reducer {
    const AreaSource &src;
    int w, h, cn;
    Taps xt, yt;
    int elements = 0;                    // source samples per row the taps reach
    int rowLen = 0;                      // output samples per row, w * cn
    int rowStride = 0;                   // floats between rows of `sums`, a multiple of 8
    std::vector<std::uint8_t> expanded;  // 1-bit rows as levels
    std::vector<std::uint8_t> columns;   // a group's samples, 16 rows per sample
    std::vector<float> lanes;            // horizontal sums, 16 rows per output sample
    std::vector<float> sums;             // the same, row by row

    Reducer(const AreaSource &s, int ww, int hh) : src(s), w(ww), h(hh), cn(s.channels) {}

    // Source row y; a 1-bit row is expanded to levels in lane's scratch row
    // (from the byte holding its first pixel on).
    const std::uint8_t *Row(int y, int lane) {
        const std::uint8_t *row = src.data + static_cast<std::ptrdiff_t>(y) * src.step;
        if (src.bitX < 0) return row;
        const int skip = src.bitX & 7;
        std::uint8_t *out = expanded.data() + static_cast<std::size_t>(lane) * (elements + 8);
        kernels::ExpandBitsRow(row + (src.bitX >> 3), out, elements + skip, 1, src.zero, src.one);
        return out + skip;
    }

    QUARVEL_AVX2 void Gather(int y0) {
        const std::uint8_t *rows[kLanes];
        for (int r = 0; r < kLanes; ++r) rows[r] = Row(std::min(y0 + r, src.height - 1), r);
        std::uint8_t *out = columns.data();
        int e = 0;
        for (; e + 32 <= elements; e += 32) {
            __m256i r32[kLanes];
            for (int r = 0; r < kLanes; ++r)
                r32[r] = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(rows[r] + e));
            Transpose16x2(r32, out + static_cast<std::size_t>(e) * kLanes);
        }
        for (; e + 16 <= elements; e += 16) {
            __m128i r16[kLanes];
            for (int r = 0; r < kLanes; ++r) r16[r] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(rows[r] + e));
            Transpose16(r16, out + static_cast<std::size_t>(e) * kLanes);
        }
        for (; e < elements; ++e)
            for (int r = 0; r < kLanes; ++r) out[static_cast<std::size_t>(e) * kLanes + r] = rows[r][e];
    }

    template <int CN>
    QUARVEL_AVX2 void Horizontal() {
        const std::uint8_t *col = columns.data();
        float *out = lanes.data();
        for (int dx = 0; dx < w; ++dx) {
            const std::uint8_t *p = col + static_cast<std::size_t>(xt.first[dx]) * CN * kLanes;
            const float *wt = xt.weight.data() + xt.offset[dx];
            __m256 lo[CN], hi[CN];
            for (int c = 0; c < CN; ++c) lo[c] = hi[c] = _mm256_setzero_ps();
            for (int t = 0, n = xt.count[dx]; t < n; ++t, p += CN * kLanes) {
                const __m256 a = _mm256_set1_ps(wt[t]);
                for (int c = 0; c < CN; ++c) {
                    const __m128i l = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p + c * kLanes));
                    const __m128i u = _mm_loadl_epi64(reinterpret_cast<const __m128i *>(p + c * kLanes + 8));
                    lo[c] = _mm256_add_ps(lo[c], _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(l)), a));
                    hi[c] = _mm256_add_ps(hi[c], _mm256_mul_ps(_mm256_cvtepi32_ps(_mm256_cvtepu8_epi32(u)), a));
                }
            }
            for (int c = 0; c < CN; ++c, out += kLanes) {
                _mm256_storeu_ps(out, lo[c]);
                _mm256_storeu_ps(out + 8, hi[c]);
            }
        }
    }

    // lanes (16 rows per sample) to sums (row by row).
    QUARVEL_AVX2 void Untranspose() {
        const float *in = lanes.data();
        int e = 0;
        for (; e + 8 <= rowLen; e += 8)
            for (int half = 0; half < 2; ++half) {
                __m256 r[8];
                for (int i = 0; i < 8; ++i)
                    r[i] = _mm256_loadu_ps(in + static_cast<std::size_t>(e + i) * kLanes + half * 8);
                Transpose8(r);
                for (int i = 0; i < 8; ++i)
                    _mm256_storeu_ps(sums.data() + static_cast<std::size_t>(half * 8 + i) * rowStride + e, r[i]);
            }
        for (; e < rowLen; ++e)
            for (int r = 0; r < kLanes; ++r)
                sums[static_cast<std::size_t>(r) * rowStride + e] = in[static_cast<std::size_t>(e) * kLanes + r];
    }

    QUARVEL_AVX2 void Group(int y0) {
        Gather(y0);
        switch (cn) {
            case 1:
                Horizontal<1>();
                break;
            case 3:
                Horizontal<3>();
                break;
            default:
                Horizontal<4>();
                break;
        }
        Untranspose();
    }

    QUARVEL_AVX2 void Run(std::uint8_t *dst, std::ptrdiff_t dstStep) {
        elements = (xt.first[w - 1] + xt.count[w - 1]) * cn;
        rowLen = w * cn;
        rowStride = (rowLen + 7) / 8 * 8;
        if (src.bitX >= 0) expanded.resize(static_cast<std::size_t>(kLanes) * (elements + 8));
        columns.resize(static_cast<std::size_t>(kLanes) * elements);
        lanes.resize(static_cast<std::size_t>(kLanes) * rowLen);
        sums.resize(static_cast<std::size_t>(kLanes) * rowStride);
        std::vector<float> acc(static_cast<std::size_t>(rowStride));
        int y0 = INT_MIN;
        for (int dy = 0; dy < h; ++dy) {
            for (int t = 0; t < yt.count[dy]; ++t) {
                const int sy = yt.first[dy] + t;
                if (y0 == INT_MIN || sy >= y0 + kLanes) Group(y0 = sy);
                const float *row = sums.data() + static_cast<std::size_t>(sy - y0) * rowStride;
                const __m256 beta = _mm256_set1_ps(yt.weight[yt.offset[dy] + t]);
                int e = 0;
                if (t == 0) {
                    for (; e + 8 <= rowLen; e += 8)
                        _mm256_storeu_ps(&acc[e], _mm256_mul_ps(beta, _mm256_loadu_ps(row + e)));
                    for (; e < rowLen; ++e) acc[e] = yt.weight[yt.offset[dy]] * row[e];
                } else {
                    for (; e + 8 <= rowLen; e += 8)
                        _mm256_storeu_ps(&acc[e], _mm256_add_ps(_mm256_loadu_ps(&acc[e]),
                                                                _mm256_mul_ps(beta, _mm256_loadu_ps(row + e))));
                    for (; e < rowLen; ++e) acc[e] = acc[e] + yt.weight[yt.offset[dy] + t] * row[e];
                }
            }
            std::uint8_t *out = dst + static_cast<std::ptrdiff_t>(dy) * dstStep;
            int e = 0;
            for (; e + 16 <= rowLen; e += 16) {
                const __m256i a = _mm256_cvtps_epi32(_mm256_loadu_ps(&acc[e]));
                const __m256i b = _mm256_cvtps_epi32(_mm256_loadu_ps(&acc[e + 8]));
                const __m256i words = _mm256_permute4x64_epi64(_mm256_packs_epi32(a, b), 0xD8);
                const __m128i bytes =
                    _mm_packus_epi16(_mm256_castsi256_si128(words), _mm256_extracti128_si256(words, 1));
                _mm_storeu_si128(reinterpret_cast<__m128i *>(out + e), bytes);
            }
            for (; e < rowLen; ++e) {
                const long v = std::lrint(acc[e]);
                out[e] = static_cast<std::uint8_t>(std::clamp<long>(v, 0, 255));
            }
        }
    }
};

// Halving: each output sample is (a + b + c + d + 2) >> 2 over its 2 x 2
// cell, as OpenCV's area resize computes a reduction by 2 on both axes. A
// 128-bit lane takes 16 bytes (12 for 3-byte pixels) of each of the cell's
// two rows, a byte shuffle puts the two pixels of each cell side by side,
// and one multiply-add against ones sums each pair.
QUARVEL_AVX2 void HalveRow(const std::uint8_t *r0, const std::uint8_t *r1, std::uint8_t *out, int n, int cn) {
    const int in = cn == 3 ? 12 : 16, made = in / 2;
    const __m128i pairs = cn == 1   ? _mm_setr_epi8(0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15)
                          : cn == 3 ? _mm_setr_epi8(0, 3, 1, 4, 2, 5, 6, 9, 7, 10, 8, 11, -1, -1, -1, -1)
                                    : _mm_setr_epi8(0, 4, 1, 5, 2, 6, 3, 7, 8, 12, 9, 13, 10, 14, 11, 15);
    const __m256i shuffle = _mm256_broadcastsi128_si256(pairs);
    const __m256i ones = _mm256_set1_epi8(1), two = _mm256_set1_epi16(2);
    int o = 0, i = 0;
    for (; o + made + 8 <= n && i + in + 16 <= 2 * n; o += 2 * made, i += 2 * in) {
        const __m256i a = _mm256_shuffle_epi8(_mm256_loadu2_m128i(reinterpret_cast<const __m128i *>(r0 + i + in),
                                                                  reinterpret_cast<const __m128i *>(r0 + i)),
                                              shuffle);
        const __m256i b = _mm256_shuffle_epi8(_mm256_loadu2_m128i(reinterpret_cast<const __m128i *>(r1 + i + in),
                                                                  reinterpret_cast<const __m128i *>(r1 + i)),
                                              shuffle);
        const __m256i sum = _mm256_add_epi16(_mm256_maddubs_epi16(a, ones), _mm256_maddubs_epi16(b, ones));
        const __m256i bytes = _mm256_packus_epi16(_mm256_srli_epi16(_mm256_add_epi16(sum, two), 2), sum);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(out + o), _mm256_castsi256_si128(bytes));
        _mm_storel_epi64(reinterpret_cast<__m128i *>(out + o + made), _mm256_extracti128_si256(bytes, 1));
    }
    for (; o < n; ++o) {
        const int s = 2 * (o - o % cn) + o % cn;
        out[o] = static_cast<std::uint8_t>((r0[s] + r0[s + cn] + r1[s] + r1[s + cn] + 2) >> 2);
    }
}

}  // namespace

bool AreaHalveCovers(int srcW, int srcH, int outW, int outH, int channels) {
    if (!kHasAvx2 || !gEnabled.load(std::memory_order_relaxed)) return false;
    if (channels != 1 && channels != 3 && channels != 4) return false;
    return outW > 0 && outH > 0 && srcW / 2 == outW && srcH / 2 == outH && srcW % 2 == 0 && srcH % 2 == 0;
}

bool AreaHalve(const AreaSource &src, std::uint8_t *dst, std::ptrdiff_t dstStep, int w, int h) {
    if (src.data == nullptr || dst == nullptr || src.bitX >= 0) return false;
    if (!AreaHalveCovers(src.width, src.height, src.width / 2, src.height / 2, src.channels)) return false;
    if (w <= 0 || h <= 0 || w > src.width / 2 || h > src.height / 2) return false;
    for (int y = 0; y < h; ++y) {
        const std::uint8_t *r0 = src.data + static_cast<std::ptrdiff_t>(2 * y) * src.step;
        HalveRow(r0, r0 + src.step, dst + static_cast<std::ptrdiff_t>(y) * dstStep, w * src.channels, src.channels);
    }
    return true;
}

bool UseAreaReduce(bool on) {
    return gEnabled.exchange(on);
}

bool AreaReduceCovers(int srcW, int srcH, int outW, int outH) {
    if (!kHasAvx2 || !gEnabled.load(std::memory_order_relaxed)) return false;
    if (srcW <= 0 || srcH <= 0 || outW <= 0 || outH <= 0 || outW > srcW || outH > srcH) return false;
    return !(WholeScale(srcW, outW) && WholeScale(srcH, outH));
}

bool AreaReduce(const AreaSource &src, int outW, int outH, std::uint8_t *dst, std::ptrdiff_t dstStep, int w, int h) {
    if (src.data == nullptr || dst == nullptr || !AreaReduceCovers(src.width, src.height, outW, outH)) return false;
    if (w <= 0 || h <= 0 || w > outW || h > outH) return false;
    if (src.channels != 1 && src.channels != 3 && src.channels != 4) return false;
    if (src.bitX >= 0 && src.channels != 1) return false;
    Reducer reducer(src, w, h);
    if (!CellTaps(src.width, outW, &reducer.xt) || !CellTaps(src.height, outH, &reducer.yt)) return false;
    reducer.Run(dst, dstStep);
    return true;
}

}  // namespace quarvel
