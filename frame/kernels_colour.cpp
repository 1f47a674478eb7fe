// Colour enhancement kernels (see kernels_colour.h). Eight pixels a step
// (AVX2): four pixels' blue, green and red spread into the 32-bit lanes of
// each 128-bit half by byte shuffles (and the map's the same way), the
// excesses, levels and rule tests as lane masks, and each lane's outcome
// picked as a pair of byte amounts (what to add, what to subtract) by three
// blends. Shuffled back to pixel order, the amounts are applied with
// saturating byte arithmetic, which clamps exactly as the sum does; bytes
// with no lane (fourth bytes, the four overlapping bytes of 3-byte pixels)
// get no amount and, like pixels left alone, keep out's bytes. 3-byte pixels
// store only their own 24 bytes, the upper half last. Under AVX-512, sixteen
// pixels a step in the same lanes, the tests as lane masks.
#include "frame/kernels_colour.h"

#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "frame/kernels.h"
#include "frame/spread.h"

namespace quarvel::kernels {

namespace plain {

void EnhanceRow(const std::uint8_t *in, const std::uint8_t *map, std::uint8_t *out, int n, int bpp, const EnhanceRule &rule) {
    for (int x = 0; x < n; ++x) {
        const std::uint8_t *p = in + static_cast<std::ptrdiff_t>(x) * bpp;
        std::uint8_t *o = out + static_cast<std::ptrdiff_t>(x) * bpp;
        const int b = p[0], g = p[1], r = p[2];
        int redExcess = r - std::max(g, b), blueExcess = b - std::max(g, r), level = b + g + r;
        if (map != nullptr) {
            const std::uint8_t *m = map + static_cast<std::ptrdiff_t>(x) * bpp;
            redExcess = m[2], blueExcess = m[0], level = m[1];
        }
        const bool red = rule.redThreshold > 0 && r >= 60 && redExcess >= rule.redThreshold;
        const bool blue = rule.blueThreshold > 0 && b >= 60 && blueExcess >= rule.blueThreshold;
        const int outcome = red ? 0 : blue ? 1 : !rule.tone ? -1 : level < rule.darkBelow ? 2 : 3;
        if (outcome < 0) continue;
        for (int c = 0; c < 3; ++c) o[c] = static_cast<std::uint8_t>(std::clamp(p[c] + rule.delta[outcome][c], 0, 255));
    }
}

void ExcessMapRow(std::uint8_t *p, int n, int bpp) {
    for (int x = 0; x < n; ++x, p += bpp) {
        const int b = p[0], g = p[1], r = p[2];
        p[0] = static_cast<std::uint8_t>(std::max(b - std::max(g, r), 0));
        p[1] = static_cast<std::uint8_t>((b + g + r) / 3);
        p[2] = static_cast<std::uint8_t>(std::max(r - std::max(g, b), 0));
    }
}

}  // namespace plain

namespace {

// One outcome's byte amounts in a lane: what to add, what to subtract.
__attribute__((target("avx2"))) inline void Amounts(const int d[3], bool on, __m256i *add, __m256i *sub) {
    int a = 0, s = 0;
    for (int c = 0; c < 3 && on; ++c) {
        const int v = std::clamp(d[c], -255, 255);
        a |= std::max(v, 0) << (8 * c);
        s |= std::max(-v, 0) << (8 * c);
    }
    *add = _mm256_set1_epi32(a);
    *sub = _mm256_set1_epi32(s);
}

template <bool WithMap, bool InPlace>
__attribute__((target("avx2"))) int EnhanceAvx2(const std::uint8_t *in, const std::uint8_t *map, std::uint8_t *out, int n, int bpp,
                                                const EnhanceRule &rule) {
    const int lane = 4 * bpp;
    const Spread m = SpreadMasks(bpp);
    __m256i add[4], sub[4];
    const bool ruleOn[4] = {rule.redThreshold > 0, rule.blueThreshold > 0, rule.tone, rule.tone};
    for (int o = 0; o < 4; ++o) Amounts(rule.delta[o], ruleOn[o], &add[o], &sub[o]);
    // x >= t as x > t - 1, the limits clamped to where they still decide.
    const __m256i redLimit = _mm256_set1_epi32(rule.redThreshold > 0 ? std::min(rule.redThreshold, 256) - 1 : 1 << 20);
    const __m256i blueLimit = _mm256_set1_epi32(rule.blueThreshold > 0 ? std::min(rule.blueThreshold, 256) - 1 : 1 << 20);
    const __m256i darkBelow = _mm256_set1_epi32(static_cast<int>(std::clamp(rule.darkBelow, 0LL, 1000LL)));
    const __m256i floor59 = _mm256_set1_epi32(59), tone = _mm256_set1_epi32(rule.tone ? -1 : 0);
    int x = 0;
    for (; (n - x) * bpp >= lane + 16; x += 8) {
        const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i v = LoadEight(in + at, lane);
        const __m256i b = _mm256_shuffle_epi8(v, m.b), g = _mm256_shuffle_epi8(v, m.g), r = _mm256_shuffle_epi8(v, m.r);
        __m256i redExcess, blueExcess, level;
        if constexpr (WithMap) {
            const __m256i w = LoadEight(map + at, lane);
            blueExcess = _mm256_shuffle_epi8(w, m.b), level = _mm256_shuffle_epi8(w, m.g), redExcess = _mm256_shuffle_epi8(w, m.r);
        } else {
            redExcess = _mm256_sub_epi32(r, _mm256_max_epi32(g, b));
            blueExcess = _mm256_sub_epi32(b, _mm256_max_epi32(g, r));
            level = _mm256_add_epi32(_mm256_add_epi32(b, g), r);
        }
        const __m256i red = _mm256_and_si256(_mm256_cmpgt_epi32(r, floor59), _mm256_cmpgt_epi32(redExcess, redLimit));
        const __m256i blue = _mm256_and_si256(_mm256_cmpgt_epi32(b, floor59), _mm256_cmpgt_epi32(blueExcess, blueLimit));
        const __m256i dark = _mm256_cmpgt_epi32(darkBelow, level);
        __m256i a = _mm256_blendv_epi8(add[3], add[2], dark), s = _mm256_blendv_epi8(sub[3], sub[2], dark);
        a = _mm256_blendv_epi8(_mm256_blendv_epi8(a, add[1], blue), add[0], red);
        s = _mm256_blendv_epi8(_mm256_blendv_epi8(s, sub[1], blue), sub[0], red);
        __m256i result = _mm256_subs_epu8(_mm256_adds_epu8(v, _mm256_shuffle_epi8(a, m.back)), _mm256_shuffle_epi8(s, m.back));
        if constexpr (!InPlace) {
            // Lanes whose pixel takes an outcome, as bytes; the rest keep out's.
            const __m256i written = _mm256_shuffle_epi8(_mm256_or_si256(_mm256_or_si256(red, blue), tone), m.back);
            result = _mm256_blendv_epi8(LoadEight(out + at, lane), result, written);
        }
        StoreEight(out + at, lane, bpp, result);
    }
    return x;
}

// The same sixteen pixels a step while 64 bytes are left to load: the tests
// are lane masks and the blends take them directly.
template <bool WithMap, bool InPlace>
KERNELS_SPREAD512 int EnhanceAvx512(const std::uint8_t *in, const std::uint8_t *map, std::uint8_t *out, int n, int bpp,
                                    const EnhanceRule &rule) {
    const Spread512 m = SpreadMasks512(bpp);
    __m512i add[4], sub[4];
    const bool ruleOn[4] = {rule.redThreshold > 0, rule.blueThreshold > 0, rule.tone, rule.tone};
    for (int o = 0; o < 4; ++o) {
        __m256i a, s;
        Amounts(rule.delta[o], ruleOn[o], &a, &s);
        add[o] = _mm512_set1_epi32(_mm256_extract_epi32(a, 0));
        sub[o] = _mm512_set1_epi32(_mm256_extract_epi32(s, 0));
    }
    const __m512i redLimit = _mm512_set1_epi32(rule.redThreshold > 0 ? std::min(rule.redThreshold, 256) - 1 : 1 << 20);
    const __m512i blueLimit = _mm512_set1_epi32(rule.blueThreshold > 0 ? std::min(rule.blueThreshold, 256) - 1 : 1 << 20);
    const __m512i darkBelow = _mm512_set1_epi32(static_cast<int>(std::clamp(rule.darkBelow, 0LL, 1000LL)));
    const __m512i floor59 = _mm512_set1_epi32(59);
    const __mmask16 tone = rule.tone ? 0xFFFF : 0;
    int x = 0;
    for (; (n - x) * bpp >= 64; x += 16) {
        const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(x) * bpp;
        const __m512i v = LoadSixteen(in + at, m);
        const __m512i b = _mm512_shuffle_epi8(v, m.b), g = _mm512_shuffle_epi8(v, m.g), r = _mm512_shuffle_epi8(v, m.r);
        __m512i redExcess, blueExcess, level;
        if constexpr (WithMap) {
            const __m512i w = LoadSixteen(map + at, m);
            blueExcess = _mm512_shuffle_epi8(w, m.b), level = _mm512_shuffle_epi8(w, m.g), redExcess = _mm512_shuffle_epi8(w, m.r);
        } else {
            redExcess = _mm512_sub_epi32(r, _mm512_maskz_max_epi32(0xFFFF, g, b));
            blueExcess = _mm512_sub_epi32(b, _mm512_maskz_max_epi32(0xFFFF, g, r));
            level = _mm512_add_epi32(_mm512_add_epi32(b, g), r);
        }
        const __mmask16 red = _mm512_cmpgt_epi32_mask(r, floor59) & _mm512_cmpgt_epi32_mask(redExcess, redLimit);
        const __mmask16 blue = _mm512_cmpgt_epi32_mask(b, floor59) & _mm512_cmpgt_epi32_mask(blueExcess, blueLimit);
        const __mmask16 dark = _mm512_cmpgt_epi32_mask(darkBelow, level);
        __m512i a = _mm512_mask_blend_epi32(dark, add[3], add[2]), s = _mm512_mask_blend_epi32(dark, sub[3], sub[2]);
        a = _mm512_mask_blend_epi32(red, _mm512_mask_blend_epi32(blue, a, add[1]), add[0]);
        s = _mm512_mask_blend_epi32(red, _mm512_mask_blend_epi32(blue, s, sub[1]), sub[0]);
        __m512i result = _mm512_subs_epu8(_mm512_adds_epu8(v, _mm512_shuffle_epi8(a, m.back)), _mm512_shuffle_epi8(s, m.back));
        if constexpr (!InPlace) result = _mm512_mask_blend_epi8(LaneBytes(red | blue | tone, m), LoadSixteen(out + at, m), result);
        StoreSixteen(out + at, m, result);
    }
    return x;
}

__attribute__((target("avx2"))) int ExcessMapAvx2(std::uint8_t *p, int n, int bpp) {
    const int lane = 4 * bpp;
    const Spread m = SpreadMasks(bpp);
    const __m256i untouched = _mm256_cmpgt_epi8(_mm256_setzero_si256(), m.back), zero = _mm256_setzero_si256();
    const __m256i third = _mm256_set1_epi32(43691);  // s / 3 = (s * 43691) >> 17 for s <= 765
    int x = 0;
    for (; (n - x) * bpp >= lane + 16; x += 8) {
        std::uint8_t *q = p + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i v = LoadEight(q, lane);
        const __m256i b = _mm256_shuffle_epi8(v, m.b), g = _mm256_shuffle_epi8(v, m.g), r = _mm256_shuffle_epi8(v, m.r);
        const __m256i blue = _mm256_max_epi32(_mm256_sub_epi32(b, _mm256_max_epi32(g, r)), zero);
        const __m256i red = _mm256_max_epi32(_mm256_sub_epi32(r, _mm256_max_epi32(g, b)), zero);
        const __m256i level = _mm256_srli_epi32(_mm256_mullo_epi32(_mm256_add_epi32(_mm256_add_epi32(b, g), r), third), 17);
        const __m256i lanes = _mm256_or_si256(_mm256_or_si256(blue, _mm256_slli_epi32(level, 8)), _mm256_slli_epi32(red, 16));
        StoreEight(q, lane, bpp, _mm256_blendv_epi8(_mm256_shuffle_epi8(lanes, m.back), v, untouched));
    }
    return x;
}

}  // namespace

void EnhanceRow(const std::uint8_t *in, const std::uint8_t *map, std::uint8_t *out, int n, int bpp, const EnhanceRule &rule) {
    int done = 0;
    if (Avx512On() && (bpp == 3 || bpp == 4)) {
        const bool inPlace = in == out;
        done = map != nullptr ? (inPlace ? EnhanceAvx512<true, true>(in, map, out, n, bpp, rule) : EnhanceAvx512<true, false>(in, map, out, n, bpp, rule))
                              : (inPlace ? EnhanceAvx512<false, true>(in, map, out, n, bpp, rule) : EnhanceAvx512<false, false>(in, map, out, n, bpp, rule));
    } else if (Avx2On() && (bpp == 3 || bpp == 4)) {
        const bool inPlace = in == out;
        done = map != nullptr ? (inPlace ? EnhanceAvx2<true, true>(in, map, out, n, bpp, rule) : EnhanceAvx2<true, false>(in, map, out, n, bpp, rule))
                              : (inPlace ? EnhanceAvx2<false, true>(in, map, out, n, bpp, rule) : EnhanceAvx2<false, false>(in, map, out, n, bpp, rule));
    }
    const std::ptrdiff_t at = static_cast<std::ptrdiff_t>(done) * bpp;
    plain::EnhanceRow(in + at, map != nullptr ? map + at : nullptr, out + at, n - done, bpp, rule);
}

void ExcessMapRow(std::uint8_t *p, int n, int bpp) {
    const int done = Avx2On() && (bpp == 3 || bpp == 4) ? ExcessMapAvx2(p, n, bpp) : 0;
    plain::ExcessMapRow(p + static_cast<std::ptrdiff_t>(done) * bpp, n - done, bpp);
}

}  // namespace quarvel::kernels
