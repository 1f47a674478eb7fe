// Fused affine warps (see warp_affine.h).
//
// Both warps work per destination row. The row's fixed-point origin X0 =
// round((m01 Y + m02) 1024) + delta and the per-column terms round(m00 X 1024)
// (computed once per call) give each pixel's position exactly as OpenCV's
// warpAffine does; delta is 16 for linear interpolation (round to 1/32) and
// 512 for nearest (round to a pixel).
//
// Linear rows run over bytes rather than pixels: the per-column terms are
// spread to every byte of their pixel, so one loop serves 1, 3 and 4 channels
// (a byte's two horizontal neighbours are `cn` bytes apart). Sixteen bytes a
// step (AVX2): where their source bytes are sixteen consecutive bytes of one
// row and the source row steps by at most one across them (true almost
// everywhere at small angles), the two or three source rows are loaded whole,
// interpolated across with byte multiply-adds (weights 32 - fx and fx), each
// byte's upper and lower rows picked, and interpolated down with 16-bit
// multiply-adds (weights 32 - fy and fy): (sum + 512) >> 10, which equals
// OpenCV's (32 sum + 2^14) >> 15. Other steps, and the ends of each row, take
// the plain per-byte formula with clamped neighbours.
#include "frame/warp_affine.h"

#include <immintrin.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <vector>

namespace quarvel::warp {

namespace {

const bool kHasAvx2 = __builtin_cpu_supports("avx2");
// Source rows fetched ahead of the row being read (see LinearStepsAvx2).
constexpr int kAhead = 4;

// Half to even, as cvRound in the default rounding mode.
int RoundEven(double v) { return static_cast<int>(std::lrint(v)); }

// Whether every fixed-point term stays well inside the int range, so no
// saturation or overflow happens on either side, source columns and rows fit
// OpenCV's 16-bit coordinates, and a destination row has at most 2^20 bytes.
bool MapFits(const cv::Mat &in, const cv::Mat &out, const cv::Matx23d &m) {
    constexpr double kLimit = 1 << 29;
    // The per-column tables take 8 to 12 bytes per destination byte of a row.
    if (in.cols >= 32767 || in.rows >= 32767 || static_cast<long long>(out.cols) * in.channels() > (1 << 20) ||
        out.rows >= (1 << 24))
        return false;
    for (int r = 0; r < 2; ++r) {
        const double a = m(r, 0), b = m(r, 1), c = m(r, 2);
        if (!std::isfinite(a) || !std::isfinite(b) || !std::isfinite(c)) return false;
        if (std::fabs(a * out.cols * 1024) >= kLimit) return false;
        if (std::fabs(c * 1024) >= kLimit || std::fabs((b * (out.rows - 1) + c) * 1024) >= kLimit) return false;
    }
    return true;
}

bool Handled(const cv::Mat &in, const cv::Mat &out) {
    const int t = in.type();
    return (t == CV_8UC1 || t == CV_8UC3 || t == CV_8UC4) && out.type() == t && !in.empty() && !out.empty();
}

// One destination row of a linear warp: origins and the per-byte tables.
struct LinearRow {
    const std::uint8_t *src;
    std::size_t step;
    int w, h, cn;
    const int *ad, *bd, *ch;  // per destination byte: column terms, channel
    int X0, Y0;

    std::uint8_t Byte(int j) const {
        const int X = (X0 + ad[j]) >> 5, Y = (Y0 + bd[j]) >> 5;
        const int sx = X >> 5, fx = X & 31, sy = Y >> 5, fy = Y & 31;
        const int x0 = std::clamp(sx, 0, w - 1) * cn + ch[j], x1 = std::clamp(sx + 1, 0, w - 1) * cn + ch[j];
        const std::uint8_t *r0 = src + std::clamp(sy, 0, h - 1) * step, *r1 = src + std::clamp(sy + 1, 0, h - 1) * step;
        const int top = r0[x0] * (32 - fx) + r0[x1] * fx, bottom = r1[x0] * (32 - fx) + r1[x1] * fx;
        return static_cast<std::uint8_t>((top * (32 - fy) + bottom * fy + 512) >> 10);
    }
};

__attribute__((target("avx2"))) inline __m256i Across(const std::uint8_t *p, int cn, __m256i wx) {
    const __m128i a = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p));
    const __m128i b = _mm_loadu_si128(reinterpret_cast<const __m128i *>(p + cn));
    const __m256i pairs = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_unpacklo_epi8(a, b)), _mm_unpackhi_epi8(a, b), 1);
    return _mm256_maddubs_epi16(pairs, wx);
}

// Sixteen-byte steps from byte b while they fit before `end`; returns where
// it stopped. Steps whose sources are not one run go through Byte.
__attribute__((target("avx2"))) int LinearStepsAvx2(const LinearRow &r, std::uint8_t *d, int b, int end) {
    const __m256i iota0 = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7), iota1 = _mm256_setr_epi32(8, 9, 10, 11, 12, 13, 14, 15);
    const __m256i x0 = _mm256_set1_epi32(r.X0), y0 = _mm256_set1_epi32(r.Y0), m31 = _mm256_set1_epi32(31);
    const __m256i cnv = _mm256_set1_epi32(r.cn);
    const int lastByte = r.w * r.cn - 1;
    for (; b + 16 <= end; b += 16) {
        const __m256i xa = _mm256_srai_epi32(_mm256_add_epi32(x0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.ad + b))), 5);
        const __m256i xb = _mm256_srai_epi32(_mm256_add_epi32(x0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.ad + b + 8))), 5);
        const __m256i ya = _mm256_srai_epi32(_mm256_add_epi32(y0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.bd + b))), 5);
        const __m256i yb = _mm256_srai_epi32(_mm256_add_epi32(y0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.bd + b + 8))), 5);
        const __m256i offa = _mm256_add_epi32(_mm256_mullo_epi32(_mm256_srai_epi32(xa, 5), cnv),
                                              _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.ch + b)));
        const __m256i offb = _mm256_add_epi32(_mm256_mullo_epi32(_mm256_srai_epi32(xb, 5), cnv),
                                              _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.ch + b + 8)));
        const int off0 = _mm256_cvtsi256_si32(offa);
        const __m256i base = _mm256_set1_epi32(off0);
        const __m256i run = _mm256_and_si256(_mm256_cmpeq_epi32(_mm256_sub_epi32(offa, iota0), base),
                                             _mm256_cmpeq_epi32(_mm256_sub_epi32(offb, iota1), base));
        const __m256i sya = _mm256_srai_epi32(ya, 5), syb = _mm256_srai_epi32(yb, 5);
        // Source rows are monotonic across the step: the ends bound them.
        const int syFirst = _mm256_cvtsi256_si32(sya), syLast = _mm256_extract_epi32(syb, 7);
        const int syLo = std::min(syFirst, syLast), syHi = std::max(syFirst, syLast);
        if (_mm256_movemask_epi8(run) != -1 || syHi - syLo > 1 || syLo < 0 || syHi + 1 > r.h - 1 || off0 < 0 ||
            off0 + 15 + r.cn > lastByte) {
            for (int j = b; j < b + 16; ++j) d[j] = r.Byte(j);
            continue;
        }
        // Weights as byte pairs (32 - fx, fx) and word pairs (32 - fy, fy).
        const __m256i fx16 = _mm256_permute4x64_epi64(_mm256_packs_epi32(_mm256_and_si256(xa, m31), _mm256_and_si256(xb, m31)), 0xD8);
        const __m256i wx = _mm256_add_epi16(_mm256_set1_epi16(32), _mm256_sub_epi16(_mm256_slli_epi16(fx16, 8), fx16));
        const __m256i fya = _mm256_and_si256(ya, m31), fyb = _mm256_and_si256(yb, m31);
        const __m256i wya = _mm256_add_epi32(_mm256_set1_epi32(32), _mm256_sub_epi32(_mm256_slli_epi32(fya, 16), fya));
        const __m256i wyb = _mm256_add_epi32(_mm256_set1_epi32(32), _mm256_sub_epi32(_mm256_slli_epi32(fyb, 16), fyb));

        const std::uint8_t *p = r.src + static_cast<std::size_t>(syLo) * r.step + off0;
        // The next destination rows read the source rows below at about
        // these columns; fetch them now (rows are too many streams for the
        // hardware prefetcher).
        _mm_prefetch(reinterpret_cast<const char *>(p + kAhead * r.step), _MM_HINT_T0);
        const __m256i h0 = Across(p, r.cn, wx), h1 = Across(p + r.step, r.cn, wx);
        __m256i top = h0, bottom = h1;
        if (syHi != syLo) {
            const __m256i lo = _mm256_set1_epi32(syLo);
            const __m256i sel = _mm256_permute4x64_epi64(
                _mm256_packs_epi32(_mm256_cmpgt_epi32(sya, lo), _mm256_cmpgt_epi32(syb, lo)), 0xD8);
            const __m256i h2 = Across(p + 2 * r.step, r.cn, wx);
            top = _mm256_blendv_epi8(h0, h1, sel);
            bottom = _mm256_blendv_epi8(h1, h2, sel);
        }
        const __m256i round = _mm256_set1_epi32(512);
        __m256i vlo = _mm256_madd_epi16(_mm256_unpacklo_epi16(top, bottom), _mm256_permute2x128_si256(wya, wyb, 0x20));
        __m256i vhi = _mm256_madd_epi16(_mm256_unpackhi_epi16(top, bottom), _mm256_permute2x128_si256(wya, wyb, 0x31));
        vlo = _mm256_srli_epi32(_mm256_add_epi32(vlo, round), 10);
        vhi = _mm256_srli_epi32(_mm256_add_epi32(vhi, round), 10);
        const __m256i v16 = _mm256_packs_epi32(vlo, vhi);
        const __m256i v8 = _mm256_permute4x64_epi64(_mm256_packus_epi16(v16, v16), 0x08);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(d + b), _mm256_castsi256_si128(v8));
    }
    return b;
}

// One destination row of a nearest-neighbour warp.
struct NearestRow {
    const std::uint8_t *src;
    std::size_t step;
    int w, h, cn;
    const int *ad, *bd;  // per destination column
    int X0, Y0;

    void Pixel(std::uint8_t *d, int x) const {
        const int sx = (X0 + ad[x]) >> 10, sy = (Y0 + bd[x]) >> 10;
        if (static_cast<unsigned>(sx) >= static_cast<unsigned>(w) || static_cast<unsigned>(sy) >= static_cast<unsigned>(h)) return;
        const std::uint8_t *p = src + static_cast<std::size_t>(sy) * step + static_cast<std::size_t>(sx) * cn;
        for (int c = 0; c < cn; ++c) d[x * cn + c] = p[c];
    }
};

// Eight pixels a step: where their source columns are consecutive and the
// source row steps at most once across them (to the row after or before),
// both rows' 32 bytes are loaded and blended at the step, and the 8 pixels'
// bytes stored with a dword mask. Other steps go pixel by pixel.
__attribute__((target("avx2"))) int NearestStepsAvx2(const NearestRow &r, std::uint8_t *d, int x, int end) {
    const __m256i iota = _mm256_setr_epi32(0, 1, 2, 3, 4, 5, 6, 7);
    const __m256i x0 = _mm256_set1_epi32(r.X0), y0 = _mm256_set1_epi32(r.Y0);
    // Byte b of a step belongs to pixel b / cn; the store covers 2 cn dwords.
    alignas(32) std::int8_t pixelOf[32];
    alignas(32) std::int32_t storeMask[8];
    for (int b = 0; b < 32; ++b) pixelOf[b] = static_cast<std::int8_t>(b / r.cn);
    for (int k = 0; k < 8; ++k) storeMask[k] = k < 2 * r.cn ? -1 : 0;
    const __m256i byPixel = _mm256_load_si256(reinterpret_cast<const __m256i *>(pixelOf));
    const __m256i stores = _mm256_load_si256(reinterpret_cast<const __m256i *>(storeMask));
    const int rowBytes = r.w * r.cn;
    for (; x + 8 <= end; x += 8) {
        const __m256i sx = _mm256_srai_epi32(_mm256_add_epi32(x0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.ad + x))), 10);
        const __m256i sy = _mm256_srai_epi32(_mm256_add_epi32(y0, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(r.bd + x))), 10);
        const int sx0 = _mm256_cvtsi256_si32(sx), syA = _mm256_cvtsi256_si32(sy), syB = _mm256_extract_epi32(sy, 7);
        const bool run = _mm256_movemask_epi8(_mm256_cmpeq_epi32(_mm256_sub_epi32(sx, iota), _mm256_set1_epi32(sx0))) == -1;
        if (!run || syB - syA > 1 || syA - syB > 1 || sx0 < 0 || sx0 * r.cn + 32 > rowBytes ||
            static_cast<unsigned>(syA) >= static_cast<unsigned>(r.h) || static_cast<unsigned>(syB) >= static_cast<unsigned>(r.h)) {
            for (int k = x; k < x + 8; ++k) r.Pixel(d, k);
            continue;
        }
        // Source rows are monotonic across the step: the first k pixels
        // come from row syA, the rest from syB.
        const int k = __builtin_popcount(static_cast<unsigned>(
            _mm256_movemask_ps(_mm256_castsi256_ps(_mm256_cmpeq_epi32(sy, _mm256_set1_epi32(syA))))));
        const std::uint8_t *a = r.src + static_cast<std::size_t>(syA) * r.step + sx0 * r.cn;
        const std::uint8_t *b = r.src + static_cast<std::size_t>(syB) * r.step + sx0 * r.cn;
        const __m256i va = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a));
        const __m256i vb = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(b));
        const __m256i fromA = _mm256_cmpgt_epi8(_mm256_set1_epi8(static_cast<char>(k)), byPixel);
        _mm256_maskstore_epi32(reinterpret_cast<int *>(d + x * r.cn), stores, _mm256_blendv_epi8(vb, va, fromA));
    }
    return x;
}

// Rows are shared among OpenCV's worker threads, as its own warp does, in
// stripes of about 64 rows (one thread when the caller turned them off);
// images under 128 rows stay on the calling thread.
template <class Body>
void ForRows(const cv::Mat &out, const Body &body) {
    if (out.rows < 128) {
        body(cv::Range(0, out.rows));
        return;
    }
    cv::parallel_for_(cv::Range(0, out.rows), body, out.rows / 64.0);
}

// Per-column terms round(k X 1024) for X in [0, n).
std::vector<int> ColumnTerms(double k, int n) {
    std::vector<int> t(static_cast<std::size_t>(n));
    for (int x = 0; x < n; ++x) t[x] = RoundEven(k * x * 1024);
    return t;
}

}  // namespace

Span InsideSpan(const cv::Matx23d &m, int Y, int w, int h, int dstWidth) {
    double lo = 0, hi = dstWidth - 1;
    constexpr double kSlack = 1e-9;  // exact grid positions count as inside
    auto clip = [&](double a, double b, double limit) {
        // a X + b within [0, limit]
        if (std::fabs(a) < 1e-15) {
            if (b < -kSlack || b > limit + kSlack) hi = -1, lo = 0;
            return;
        }
        double x0 = (0 - b) / a, x1 = (limit - b) / a;
        if (x0 > x1) std::swap(x0, x1);
        lo = std::max(lo, x0 - kSlack);
        hi = std::min(hi, x1 + kSlack);
    };
    clip(m(0, 0), m(0, 1) * Y + m(0, 2), w - 1);
    clip(m(1, 0), m(1, 1) * Y + m(1, 2), h - 1);
    if (hi < lo) return {1, 0};
    return {static_cast<int>(std::ceil(lo)), static_cast<int>(std::floor(hi))};
}

bool WarpLinear(const cv::Mat &in, cv::Mat &out, const cv::Matx23d &m) {
    if (!kHasAvx2 || !Handled(in, out) || !MapFits(in, out, m)) return false;
    const int cn = in.channels(), n = out.cols * cn;
    const std::vector<int> adelta = ColumnTerms(m(0, 0), out.cols), bdelta = ColumnTerms(m(1, 0), out.cols);
    std::vector<int> ad(static_cast<std::size_t>(n)), bd(ad.size()), ch(ad.size());
    for (int j = 0; j < n; ++j) ad[j] = adelta[j / cn], bd[j] = bdelta[j / cn], ch[j] = j % cn;
    ForRows(out, [&](const cv::Range &rows) {
        LinearRow r{in.data, in.step, in.cols, in.rows, cn, ad.data(), bd.data(), ch.data(), 0, 0};
        for (int Y = rows.start; Y < rows.end; ++Y) {
            const Span s = InsideSpan(m, Y, in.cols, in.rows, out.cols);
            if (s.first > s.last) continue;
            r.X0 = RoundEven((m(0, 1) * Y + m(0, 2)) * 1024) + 16;
            r.Y0 = RoundEven((m(1, 1) * Y + m(1, 2)) * 1024) + 16;
            std::uint8_t *d = out.ptr<std::uint8_t>(Y);
            int b = LinearStepsAvx2(r, d, s.first * cn, (s.last + 1) * cn);
            for (; b < (s.last + 1) * cn; ++b) d[b] = r.Byte(b);
        }
    });
    return true;
}

bool WarpNearest(const cv::Mat &in, cv::Mat &out, const cv::Matx23d &m) {
    if (!Handled(in, out) || !MapFits(in, out, m)) return false;
    const int cn = in.channels(), w = in.cols, h = in.rows;
    const std::vector<int> adelta = ColumnTerms(m(0, 0), out.cols + 8), bdelta = ColumnTerms(m(1, 0), out.cols + 8);
    // Rounded positions inside lie within [-0.5, w - 0.5): look one pixel
    // further out (a box of w + 2 by h + 2), then test exactly.
    cv::Matx23d shifted = m;
    shifted(0, 2) += 1, shifted(1, 2) += 1;
    ForRows(out, [&](const cv::Range &rows) {
        NearestRow r{in.data, in.step, w, h, cn, adelta.data(), bdelta.data(), 0, 0};
        for (int Y = rows.start; Y < rows.end; ++Y) {
            const Span s = InsideSpan(shifted, Y, w + 2, h + 2, out.cols);
            if (s.first > s.last) continue;
            r.X0 = RoundEven((m(0, 1) * Y + m(0, 2)) * 1024) + 512;
            r.Y0 = RoundEven((m(1, 1) * Y + m(1, 2)) * 1024) + 512;
            std::uint8_t *d = out.ptr<std::uint8_t>(Y);
            int x = std::max(0, s.first - 1);
            const int end = std::min(out.cols - 1, s.last + 1) + 1;
            if (kHasAvx2) x = NearestStepsAvx2(r, d, x, end);
            for (; x < end; ++x) r.Pixel(d, x);
        }
    });
    return true;
}

}  // namespace quarvel::warp
