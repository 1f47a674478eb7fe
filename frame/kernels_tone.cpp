// The arithmetic form of contrast tables (see kernels_tone.h). Fitting: every
// x on either side of the pivot bounds the multiplier, floor(x * M / 65536)
// = q holding for M in [ceil(q * 65536 / x), ceil((q + 1) * 65536 / x) - 1],
// or only the lower bound where the table clamps; the least M inside every
// bound is the answer. A table of the form p + x * c / d with d <= 255 always
// fits, since M = ceil(c * 65536 / d) errs by less than x / 65536 < 1 / d.
//
// Applying: |s - p| on each side by saturating byte subtractions (one side is
// 0, and both multipliers map 0 to 0), widened to 16 bits, multiplied as
// x * (M >> 16) + mulhi(x, M & 0xFFFF) (at most 255 * 127 + 254, so a signed
// pack saturates it to 255 exactly as the clamp does), then p + up - down
// with saturating byte arithmetic.
#include "frame/kernels_tone.h"

#include <emmintrin.h>
#include <immintrin.h>

#include <algorithm>

#include "frame/kernels.h"

namespace quarvel::kernels {

namespace {

constexpr std::uint32_t kMaxMultiplier = 128u << 16;

inline int Side(std::uint32_t m, int x) { return static_cast<int>((static_cast<std::uint32_t>(x) * m) >> 16); }

inline std::uint8_t Apply(const ToneLine &l, int v) {
    const int s = std::clamp(v + std::clamp(l.brightness, -255, 255), 0, 255);
    const int up = Side(l.up, std::max(s - l.pivot, 0)), down = Side(l.down, std::max(l.pivot - s, 0));
    return static_cast<std::uint8_t>(std::clamp(l.pivot + up - down, 0, 255));
}

// The least multiplier with floor(x * M / 65536) = q(x) for every x in
// 1..count, where got(x) gives q, or -1 for "at least `atLeast`" (clamped).
template <class Q>
bool FitSide(int count, int clampAt, Q q, std::uint32_t *m) {
    std::uint64_t lo = 0, hi = kMaxMultiplier - 1;
    for (int x = 1; x <= count; ++x) {
        const int v = q(x);
        if (v < 0) return false;
        const std::uint64_t ux = static_cast<std::uint64_t>(x);
        lo = std::max(lo, (static_cast<std::uint64_t>(v) * 65536 + ux - 1) / ux);
        if (v < clampAt) hi = std::min(hi, (static_cast<std::uint64_t>(v + 1) * 65536 + ux - 1) / ux - 1);
    }
    if (lo > hi) return false;
    *m = static_cast<std::uint32_t>(lo);
    return true;
}

struct Consts128 {
    __m128i add, sub, pivot, upHi, upLo, downHi, downLo, fourth;
};

inline __m128i Line16(__m128i v, const Consts128 &c) {
    const __m128i zero = _mm_setzero_si128();
    const __m128i s = _mm_subs_epu8(_mm_adds_epu8(v, c.add), c.sub);
    const __m128i xu = _mm_subs_epu8(s, c.pivot), xd = _mm_subs_epu8(c.pivot, s);
    auto side = [&](__m128i x, __m128i hi, __m128i lo) {
        const __m128i a = _mm_unpacklo_epi8(x, zero), b = _mm_unpackhi_epi8(x, zero);
        return _mm_packus_epi16(_mm_add_epi16(_mm_mullo_epi16(a, hi), _mm_mulhi_epu16(a, lo)),
                                _mm_add_epi16(_mm_mullo_epi16(b, hi), _mm_mulhi_epu16(b, lo)));
    };
    const __m128i r = _mm_subs_epu8(_mm_adds_epu8(c.pivot, side(xu, c.upHi, c.upLo)), side(xd, c.downHi, c.downLo));
    return _mm_or_si128(_mm_andnot_si128(c.fourth, r), _mm_and_si128(c.fourth, v));
}

__attribute__((target("avx2"))) inline __m256i Side32(__m256i x, __m256i hi, __m256i lo) {
    const __m256i a = _mm256_unpacklo_epi8(x, _mm256_setzero_si256()), b = _mm256_unpackhi_epi8(x, _mm256_setzero_si256());
    return _mm256_packus_epi16(_mm256_add_epi16(_mm256_mullo_epi16(a, hi), _mm256_mulhi_epu16(a, lo)),
                               _mm256_add_epi16(_mm256_mullo_epi16(b, hi), _mm256_mulhi_epu16(b, lo)));
}

// Without brightness the saturating add and subtract are left out (two of
// about twenty-six instructions a step), and without a fourth byte to keep
// the final blend.
template <bool Bright, bool Fourth>
__attribute__((target("avx2"))) std::size_t ToneAvx2(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const Consts128 &c128) {
    const __m256i add = _mm256_broadcastsi128_si256(c128.add), sub = _mm256_broadcastsi128_si256(c128.sub);
    const __m256i pivot = _mm256_broadcastsi128_si256(c128.pivot), fourth = _mm256_broadcastsi128_si256(c128.fourth);
    const __m256i upHi = _mm256_broadcastsi128_si256(c128.upHi), upLo = _mm256_broadcastsi128_si256(c128.upLo);
    const __m256i downHi = _mm256_broadcastsi128_si256(c128.downHi), downLo = _mm256_broadcastsi128_si256(c128.downLo);
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        const __m256i s = Bright ? _mm256_subs_epu8(_mm256_adds_epu8(v, add), sub) : v;
        const __m256i xu = _mm256_subs_epu8(s, pivot), xd = _mm256_subs_epu8(pivot, s);
        const __m256i r = _mm256_subs_epu8(_mm256_adds_epu8(pivot, Side32(xu, upHi, upLo)), Side32(xd, downHi, downLo));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), Fourth ? _mm256_blendv_epi8(r, v, fourth) : r);
    }
    return i;
}

}  // namespace

namespace plain {
void ToneRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const ToneLine &line, bool keepFourth) {
    for (std::size_t i = 0; i < n; ++i) dst[i] = keepFourth && (i & 3) == 3 ? src[i] : Apply(line, src[i]);
}
}  // namespace plain

bool FitToneLine(const std::uint8_t table[256], int pivot, ToneLine *line) {
    if (pivot < 0 || pivot > 255 || table[pivot] != pivot) return false;
    ToneLine l{0, pivot, 0, 0};
    // Above the pivot: q = level - p, clamped at 255 - p; below: q = p - level, clamped at p.
    const bool up = FitSide(255 - pivot, 255 - pivot, [&](int x) { return table[pivot + x] >= pivot ? table[pivot + x] - pivot : -1; }, &l.up);
    const bool down = FitSide(pivot, pivot, [&](int x) { return table[pivot - x] <= pivot ? pivot - table[pivot - x] : -1; }, &l.down);
    if (!up || !down) return false;
    *line = l;
    return true;
}

bool ToneLineMatches(const ToneLine &line, const std::uint8_t table[256]) {
    if (line.pivot < 0 || line.pivot > 255 || line.up >= kMaxMultiplier || line.down >= kMaxMultiplier) return false;
    for (int v = 0; v < 256; ++v)
        if (Apply(line, v) != table[v]) return false;
    return true;
}

void ToneRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const ToneLine &line, bool keepFourth) {
    const int b = std::clamp(line.brightness, -255, 255);
    Consts128 c;
    c.add = _mm_set1_epi8(static_cast<char>(b > 0 ? b : 0));
    c.sub = _mm_set1_epi8(static_cast<char>(b < 0 ? -b : 0));
    c.pivot = _mm_set1_epi8(static_cast<char>(line.pivot));
    c.upHi = _mm_set1_epi16(static_cast<short>(line.up >> 16));
    c.upLo = _mm_set1_epi16(static_cast<short>(line.up & 0xFFFF));
    c.downHi = _mm_set1_epi16(static_cast<short>(line.down >> 16));
    c.downLo = _mm_set1_epi16(static_cast<short>(line.down & 0xFFFF));
    c.fourth = keepFourth ? _mm_set1_epi32(static_cast<int>(0xFF000000u)) : _mm_setzero_si128();
    std::size_t i = 0;
    if (Avx2On()) {
        i = b != 0 ? (keepFourth ? ToneAvx2<true, true>(src, dst, n, c) : ToneAvx2<true, false>(src, dst, n, c))
                   : (keepFourth ? ToneAvx2<false, true>(src, dst, n, c) : ToneAvx2<false, false>(src, dst, n, c));
    }
    for (; i + 16 <= n; i += 16)
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), Line16(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i)), c));
    plain::ToneRow(src + i, dst + i, n - i, line, keepFourth);
}

}  // namespace quarvel::kernels
