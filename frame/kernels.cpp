// Row kernels (see kernels.h). Pixel reversal works on 32-byte AVX2 blocks
// where the processor has them (chosen at run time), else 16-byte SSE2 blocks:
// 8-bit pixels are reversed by swapping dwords, then words, then the bytes of
// each word; 32-bit pixels by one dword shuffle; 24-bit pixels, sixteen at a
// time, by seven SSSE3 byte shuffles chosen at run time (the plain loop
// otherwise).
// 1-bit rows are reversed 32 bytes at a time (AVX2: a byte shuffle and a
// lane swap, then one GFNI affine transform or two nibble-table shuffles), 16
// (SSSE3) or 64 bits at a time (byte swap, then three
// mask-and-shift steps), straight into the result when the row has no
// unused tail bits, else into a scratch row then shifted left by them. Table lookups run
// eight bytes per step through one 64-bit load and store; brightness alone is
// an SSE2 saturating add or subtract, 16 bytes a step (32 with AVX2). Colour
// to gray is exact integer arithmetic.
// Where the processor has AVX-512 (byte instructions and VBMI byte
// permutes), table lookups take 64 bytes a step from four table registers
// and thresholds pack 64 levels a step into a compare mask; their last step
// is a masked load and store, so a row is one kernel call with no tail.
// Row copies that read out of memory order prefetch the rows ahead.
#include "frame/kernels.h"

#include <emmintrin.h>
#include <immintrin.h>
#include <tmmintrin.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "frame/bits.h"
#include "frame/kernels_bits.h"
#include "frame/spread.h"

namespace quarvel::kernels {

namespace plain {

void MirrorRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp) {
    for (int i = 0; i < n; ++i)
        for (int c = 0; c < bpp; ++c) dst[i * bpp + c] = src[(n - 1 - i) * bpp + c];
}

void CopyRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t *) {
    if (n > 0) std::memcpy(dst, src, n);
}

void MinMaxSquareRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int w, bool minimum) {
    const auto op = [minimum](std::uint8_t u, std::uint8_t v) { return minimum ? std::min(u, v) : std::max(u, v); };
    for (int x = 0; x < w; ++x) d[x] = x + 1 < w ? op(op(a[x], a[x + 1]), op(b[x], b[x + 1])) : op(a[x], b[x]);
}

void MirrorBits(const std::uint8_t *src, std::uint8_t *dst, int w) {
    for (int i = 0; i < w; ++i) bits::Set(dst, i, bits::Get(src, w - 1 - i));
}

void MirrorBitRows(const std::uint8_t *src, std::uint8_t *dst, int stride, int w, int count) {
    for (int y = 0; y < count; ++y) {
        std::uint8_t *d = dst + static_cast<std::ptrdiff_t>(y) * stride;
        MirrorBits(src + static_cast<std::ptrdiff_t>(y) * stride, d, w);
        for (int x = w; x < 8 * stride; ++x) bits::Set(d, x, 0);
    }
}

void LookupRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]) {
    for (std::size_t i = 0; i < n; ++i) dst[i] = table[src[i]];
}

void LookupRow32(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]) {
    for (std::size_t i = 0; i < 4 * n; ++i) dst[i] = (i & 3) == 3 ? src[i] : table[src[i]];
}

void ColourToGrayRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp, int redDelta, int blueDelta) {
    for (int x = 0; x < n; ++x, src += bpp) {
        const int b = src[0], g = src[1], r = src[2];
        const bool red = redDelta > 0 && r >= 60 && r - std::max(g, b) >= redDelta;
        const bool blue = !red && blueDelta > 0 && b >= 60 && b - std::max(g, r) >= blueDelta;
        dst[x] = red || blue ? 0 : static_cast<std::uint8_t>(0.072169 * b + 0.715160 * g + 0.212671 * r + 0.5);
    }
}

void AddSaturateRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, int value, bool keepFourth) {
    for (std::size_t i = 0; i < n; ++i) {
        const long long v = static_cast<long long>(src[i]) + value;
        dst[i] = keepFourth && (i & 3) == 3 ? src[i] : static_cast<std::uint8_t>(std::clamp(v, 0LL, 255LL));
    }
}

void SubtractSaturateRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth) {
    for (std::size_t i = 0; i < n; ++i) {
        const int v = a[i] - b[i];
        d[i] = keepFourth && (i & 3) == 3 ? a[i] : static_cast<std::uint8_t>(v < 0 ? 0 : v);
    }
}

void ThresholdToBits(const std::uint8_t *src, std::uint8_t *packed, int w, int threshold) {
    int x = 0;
    for (int j = 0; x < w; ++j) {
        unsigned b = 0;
        const int n = std::min(8, w - x);
        for (int k = 0; k < n; ++k) b |= (src[x + k] >= threshold ? 0x80u : 0u) >> k;
        packed[j] = static_cast<std::uint8_t>(b);
        x += n;
    }
}

void ExpandBitsRow(const std::uint8_t *src, std::uint8_t *dst, int w, int bpp, std::uint8_t zero, std::uint8_t one) {
    for (int x = 0; x < w; ++x, dst += bpp) {
        const std::uint8_t v = bits::Get(src, x) ? one : zero;
        for (int c = 0; c < bpp; ++c) dst[c] = c == 3 ? 255 : v;
    }
}

void AndRowTwice(std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth) {
    for (std::size_t i = 0; i < n; ++i) a[i] = d[i] = keepFourth && (i & 3) == 3 ? a[i] : static_cast<std::uint8_t>(a[i] & b[i]);
}

void DecolourRow(std::uint8_t *p, int n, int bpp, bool keepDistinct, int redDelta, int blueDelta, int greenDelta) {
    for (int x = 0; x < n; ++x, p += bpp) {
        const int b = p[0], g = p[1], r = p[2];
        if (keepDistinct) {
            if (redDelta > 0 && r >= 60 && r - std::max(g, b) >= redDelta) continue;
            if (blueDelta > 0 && b >= 60 && b - std::max(g, r) >= blueDelta) continue;
            if (greenDelta > 0 && g >= 60 && g - std::max(b, r) >= greenDelta) continue;
        }
        p[0] = p[1] = p[2] = static_cast<std::uint8_t>((b >> 2) + (g >> 1) + (r >> 2));
    }
}

void RedMarksRow(std::uint8_t *p, const std::uint8_t *gray, int n, int bpp, int colorDiff, int minLevel, bool keepBlue) {
    for (int x = 0; x < n; ++x, p += bpp) {
        const int b = p[0], g = p[1], r = p[2];
        const int redExcess = r - std::max(g, b);
        const int t = r >= 100 ? r / 2 : 50;
        if ((r >= minLevel && redExcess >= colorDiff) || redExcess > t) {
            p[0] = 0, p[1] = 0, p[2] = 255;
        } else if (keepBlue && b >= minLevel && b - std::max(g, r) >= colorDiff) {
            p[0] = 255, p[1] = 0, p[2] = 0;
        } else {
            p[0] = p[1] = p[2] = gray[x];
        }
    }
}

int NextSpread(const std::uint8_t *row, int from, int to, int bpp, int minSpread) {
    for (int x = from; x < to; ++x) {
        const std::uint8_t *p = row + static_cast<std::ptrdiff_t>(x) * bpp;
        if (std::max({p[0], p[1], p[2]}) - std::min({p[0], p[1], p[2]}) >= minSpread) return x;
    }
    return to;
}

}  // namespace plain

namespace {

// The AVX-512 kernels (byte and word instructions, byte permutes with two
// table registers, masked loads and stores): chosen at run time, like AVX2.
#define AVX512 __attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vl,bmi2")))

inline __m128i Reverse16(__m128i v) {
    v = _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3));
    v = _mm_shufflelo_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
    v = _mm_shufflehi_epi16(v, _MM_SHUFFLE(2, 3, 0, 1));
    return _mm_or_si128(_mm_slli_epi16(v, 8), _mm_srli_epi16(v, 8));
}

// Sixteen 3-byte pixels (48 bytes) reversed a step: output byte j takes
// block byte 3 * (15 - j / 3) + j % 3, gathered from the three 16-byte source
// registers by one byte shuffle each (bytes from another register masked to
// zero) and OR-ed; the stores neither overlap nor leave gaps.
struct Mirror24Masks {
    alignas(16) std::int8_t m[3][3][16];  // [output register][source register][byte]
    constexpr Mirror24Masks() : m{} {
        for (int k = 0; k < 3; ++k)
            for (int r = 0; r < 3; ++r)
                for (int b = 0; b < 16; ++b) {
                    const int j = 16 * k + b, o = 3 * (15 - j / 3) + j % 3;
                    m[k][r][b] = static_cast<std::int8_t>(o / 16 == r ? o % 16 : -128);
                }
    }
};
constexpr Mirror24Masks kMirror24;

__attribute__((target("ssse3"))) int MirrorRow24Ssse3(const std::uint8_t *src, std::uint8_t *dst, int n) {
    __m128i mask[3][3];
    for (int k = 0; k < 3; ++k)
        for (int r = 0; r < 3; ++r) mask[k][r] = _mm_load_si128(reinterpret_cast<const __m128i *>(kMirror24.m[k][r]));
    int i = 0;
    for (; i + 16 <= n; i += 16) {
        const std::uint8_t *s = src + 3 * (n - 16 - i);
        __m128i v[3];
        for (int r = 0; r < 3; ++r) v[r] = _mm_loadu_si128(reinterpret_cast<const __m128i *>(s + 16 * r));
        for (int k = 0; k < 3; ++k) {
            __m128i out = _mm_setzero_si128();
            for (int r = 0; r < 3; ++r) {
                if (k == 0 && r == 0) continue;  // no byte of the first output comes from the first source register
                if (k == 2 && r == 2) continue;  // nor of the last from the last
                out = _mm_or_si128(out, _mm_shuffle_epi8(v[r], mask[k][r]));
            }
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 3 * i + 16 * k), out);
        }
    }
    return i;
}

const bool kHasSsse3 = __builtin_cpu_supports("ssse3");
const bool kHasAvx2 = __builtin_cpu_supports("avx2");
bool useAvx2 = kHasAvx2;
const bool kHasAvx512 = __builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw") &&
                        __builtin_cpu_supports("avx512vbmi") && __builtin_cpu_supports("avx512vl") &&
                        __builtin_cpu_supports("bmi2");
bool useAvx512 = kHasAvx512;

// 32 pixels of 1 byte or 8 of 4 bytes a step: bytes reversed within each
// 16-byte lane, then the lanes swapped; or one dword permutation. After the
// first block the stores move to 32-byte boundaries of the destination (no
// store splits a cache line), and the last block overlaps the one before it,
// so a row of at least one block needs no plain tail. Returns the pixels done.
template <int Bpp>
__attribute__((target("avx2"))) inline void MirrorBlockAvx2(const std::uint8_t *src, std::uint8_t *dst, int n, int i) {
    const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + Bpp * (n - 32 / Bpp - i)));
    __m256i r;
    if constexpr (Bpp == 1) {
        const __m256i order = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10,
                                               9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
        r = _mm256_permute4x64_epi64(_mm256_shuffle_epi8(v, order), 0x4E);
    } else {
        r = _mm256_permutevar8x32_epi32(v, _mm256_setr_epi32(7, 6, 5, 4, 3, 2, 1, 0));
    }
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + Bpp * i), r);
}

template <int Bpp>
__attribute__((target("avx2"))) int MirrorRowAvx2(const std::uint8_t *src, std::uint8_t *dst, int n) {
    constexpr int step = 32 / Bpp;
    if (n < step) return 0;
    MirrorBlockAvx2<Bpp>(src, dst, n, 0);
    const int skew = static_cast<int>((0 - reinterpret_cast<std::uintptr_t>(dst)) & 31);
    int i = skew != 0 && skew % Bpp == 0 ? skew / Bpp : step;
    for (; i + step <= n; i += step) MirrorBlockAvx2<Bpp>(src, dst, n, i);
    if (i < n) MirrorBlockAvx2<Bpp>(src, dst, n, n - step);
    return n;
}

inline std::uint64_t ReverseBits64(std::uint64_t v) {
    v = __builtin_bswap64(v);
    v = ((v >> 1) & 0x5555555555555555ull) | ((v & 0x5555555555555555ull) << 1);
    v = ((v >> 2) & 0x3333333333333333ull) | ((v & 0x3333333333333333ull) << 2);
    return ((v >> 4) & 0x0F0F0F0F0F0F0F0Full) | ((v & 0x0F0F0F0F0F0F0F0Full) << 4);
}

inline std::uint64_t Load64(const std::uint8_t *p) {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return v;
}

inline void Store64(std::uint8_t *p, std::uint64_t v) { std::memcpy(p, &v, 8); }

// t byte j = bit-reversed src byte nb - 1 - j, 16 bytes a step: the byte
// order reversed by one shuffle, then each byte's nibbles looked up in
// 16-entry tables of their reversals and swapped. Returns the bytes done.
__attribute__((target("ssse3"))) int ReverseBytesSsse3(const std::uint8_t *src, std::uint8_t *t, int nb) {
    const __m128i order = _mm_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const __m128i toHigh = _mm_setr_epi8(0x00, 0x80, 0x40, 0xC0, 0x20, 0xA0, 0x60, 0xE0, 0x10, 0x90, 0x50, 0xD0, 0x30,
                                         static_cast<char>(0xB0), 0x70, static_cast<char>(0xF0));
    const __m128i toLow = _mm_setr_epi8(0x0, 0x8, 0x4, 0xC, 0x2, 0xA, 0x6, 0xE, 0x1, 0x9, 0x5, 0xD, 0x3, 0xB, 0x7, 0xF);
    const __m128i nibble = _mm_set1_epi8(0x0F);
    int j = 0;
    for (; j + 16 <= nb; j += 16) {
        const __m128i v = _mm_shuffle_epi8(_mm_loadu_si128(reinterpret_cast<const __m128i *>(src + nb - 16 - j)), order);
        const __m128i lo = _mm_shuffle_epi8(toHigh, _mm_and_si128(v, nibble));
        const __m128i hi = _mm_shuffle_epi8(toLow, _mm_and_si128(_mm_srli_epi16(v, 4), nibble));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(t + j), _mm_or_si128(lo, hi));
    }
    return j;
}

// The same 32 bytes a step: bytes reversed within each lane and the lanes
// swapped, then the nibble lookups; a row of at least 32 bytes ends with a
// block overlapping the one before it instead of a byte tail. Returns the
// bytes done.
__attribute__((target("avx2"))) int ReverseBytesAvx2(const std::uint8_t *src, std::uint8_t *t, int nb) {
    if (nb < 32) return 0;
    const __m256i order = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10,
                                           9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const __m256i toHigh = _mm256_broadcastsi128_si256(
        _mm_setr_epi8(0x00, static_cast<char>(0x80), 0x40, static_cast<char>(0xC0), 0x20, static_cast<char>(0xA0), 0x60,
                      static_cast<char>(0xE0), 0x10, static_cast<char>(0x90), 0x50, static_cast<char>(0xD0), 0x30,
                      static_cast<char>(0xB0), 0x70, static_cast<char>(0xF0)));
    const __m256i toLow =
        _mm256_broadcastsi128_si256(_mm_setr_epi8(0x0, 0x8, 0x4, 0xC, 0x2, 0xA, 0x6, 0xE, 0x1, 0x9, 0x5, 0xD, 0x3, 0xB, 0x7, 0xF));
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    for (int j = 0;; j += 32) {
        const bool last = j + 32 >= nb;
        if (last) j = nb - 32;
        const __m256i v = _mm256_permute4x64_epi64(
            _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + nb - 32 - j)), order), 0x4E);
        const __m256i lo = _mm256_shuffle_epi8(toHigh, _mm256_and_si256(v, nibble));
        const __m256i hi = _mm256_shuffle_epi8(toLow, _mm256_and_si256(_mm256_srli_epi16(v, 4), nibble));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(t + j), _mm256_or_si256(lo, hi));
        if (last) return nb;
    }
}

// Masks of the first n bytes of a 64-byte block.
AVX512 inline __mmask64 FirstBytes(std::size_t n) { return n >= 64 ? ~0ull : _bzhi_u64(~0ull, static_cast<unsigned>(n)); }

// The order that reverses the bytes of every 8-byte group, so a byte
// mask's bits come out most significant pixel first in each byte.
#define KERNELS_REVERSE_EIGHTS 7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10, 9, 8

// 64 levels a step: bytes reversed in each group of eight, compared
// unsigned into a 64-bit mask that is the eight packed bytes; the last
// step's loads and stores are masked to the row.
AVX512 void ThresholdAvx512(const std::uint8_t *src, std::uint8_t *packed, int w, int threshold) {
    alignas(64) static constexpr std::int8_t kOrder[64] = {KERNELS_REVERSE_EIGHTS, KERNELS_REVERSE_EIGHTS, KERNELS_REVERSE_EIGHTS,
                                                          KERNELS_REVERSE_EIGHTS};
    const __m512i order = _mm512_load_si512(kOrder);
    const __m512i t = _mm512_set1_epi8(static_cast<char>(threshold));
    for (int x = 0; x < w; x += 64) {
        const std::size_t left = static_cast<std::size_t>(w - x);
        const __m512i v = _mm512_maskz_loadu_epi8(FirstBytes(left), src + x);
        const std::uint64_t m = _mm512_cmpge_epu8_mask(_mm512_shuffle_epi8(v, order), t);
        if (left >= 64) {
            std::memcpy(packed + x / 8, &m, 8);
        } else {
            _mm_mask_storeu_epi8(packed + x / 8, static_cast<__mmask16>(FirstBytes((left + 7) / 8)), _mm_cvtsi64_si128(static_cast<long long>(m)));
        }
    }
}

// 32 levels a step: the same reversal, v >= t as max(v, t) == v, and the
// byte mask's sign bits are the four packed bytes.
__attribute__((target("avx2"))) int ThresholdAvx2(const std::uint8_t *src, std::uint8_t *packed, int w, int threshold) {
    const __m256i order = _mm256_setr_epi8(KERNELS_REVERSE_EIGHTS, KERNELS_REVERSE_EIGHTS);
    const __m256i t = _mm256_set1_epi8(static_cast<char>(threshold));
    int x = 0;
    for (; x + 32 <= w; x += 32) {
        const __m256i v = _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + x)), order);
        const auto m = static_cast<std::uint32_t>(_mm256_movemask_epi8(_mm256_cmpeq_epi8(_mm256_max_epu8(v, t), v)));
        std::memcpy(packed + x / 8, &m, 4);
    }
    return x;
}

// The same with GFNI: one affine byte transform with the matrix that maps
// bit i to bit 7 - i reverses each byte's bits, instead of two nibble lookups.
__attribute__((target("avx2,gfni"))) int ReverseBytesGfni(const std::uint8_t *src, std::uint8_t *t, int nb) {
    if (nb < 32) return 0;
    const __m256i order = _mm256_setr_epi8(15, 14, 13, 12, 11, 10, 9, 8, 7, 6, 5, 4, 3, 2, 1, 0, 15, 14, 13, 12, 11, 10,
                                           9, 8, 7, 6, 5, 4, 3, 2, 1, 0);
    const __m256i flip = _mm256_set1_epi64x(0x8040201008040201LL);
    for (int j = 0;; j += 32) {
        const bool last = j + 32 >= nb;
        if (last) j = nb - 32;
        const __m256i v = _mm256_permute4x64_epi64(
            _mm256_shuffle_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + nb - 32 - j)), order), 0x4E);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(t + j), _mm256_gf2p8affine_epi64_epi8(v, flip, 0));
        if (last) return nb;
    }
}

const bool kHasGfni = kHasAvx2 && __builtin_cpu_supports("gfni");
bool useGfni = kHasGfni;

}  // namespace

// With SSE2 alone, 16 levels a step: v >= t as max(v, t) == v, the byte
// mask's sign bits gathered (first level in bit 0) and each byte's bits
// reversed by a table.
void ThresholdToBits(const std::uint8_t *src, std::uint8_t *packed, int w, int threshold) {
    int x = 0;
    if (threshold >= 1 && threshold <= 255) {
        if (useAvx512) {
            ThresholdAvx512(src, packed, w, threshold);
            return;
        }
        if (useAvx2) x = ThresholdAvx2(src, packed, w, threshold);
        const __m128i t = _mm_set1_epi8(static_cast<char>(threshold));
        for (; x + 16 <= w; x += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + x));
            const unsigned m = static_cast<unsigned>(_mm_movemask_epi8(_mm_cmpeq_epi8(_mm_max_epu8(v, t), v)));
            packed[x >> 3] = bits::kReverse[m & 0xFF];
            packed[(x >> 3) + 1] = bits::kReverse[m >> 8];
        }
    }
    plain::ThresholdToBits(src + x, packed + (x >> 3), w - x, threshold);
}

template <bool Minimum>
__attribute__((target("avx2"))) inline __m256i Op32(__m256i u, __m256i v) {
    return Minimum ? _mm256_min_epu8(u, v) : _mm256_max_epu8(u, v);
}

__attribute__((target("avx2"))) inline __m256i At32(const std::uint8_t *p) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i *>(p));
}

// 32 cells a step; returns the cells done (the loads stay inside w).
template <bool Minimum>
__attribute__((target("avx2"))) int SquareAvx2(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int w) {
    int x = 0;
    for (; x + 33 <= w; x += 32)
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + x),
                            Op32<Minimum>(Op32<Minimum>(At32(a + x), At32(a + x + 1)), Op32<Minimum>(At32(b + x), At32(b + x + 1))));
    return x;
}

template <bool Minimum>
AVX512 inline __m512i Op64(__m512i u, __m512i v) {
    return Minimum ? _mm512_min_epu8(u, v) : _mm512_max_epu8(u, v);
}

// 64 cells a step, the whole row. The two rows are combined first (the
// minimum of a, a + 1, b, b + 1 is that of m = op(a, b) and m one cell on),
// and m one cell on is taken from this step's and the next step's m by a
// two-register byte permute: two loads a step instead of four, half of
// which split a cache line. The last one or two steps load masked to the
// row, the loads one column on keeping the unshifted level in the last cell.
template <bool Minimum>
AVX512 void SquareAvx512(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int w) {
    int x = 0;
    if (w >= 128) {
        alignas(64) static constexpr std::uint8_t kOn[64] = {
            1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 21, 22,
            23, 24, 25, 26, 27, 28, 29, 30, 31, 32, 33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44,
            45, 46, 47, 48, 49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63, 64};
        const __m512i on = _mm512_load_si512(kOn);
        __m512i m = Op64<Minimum>(_mm512_loadu_si512(a), _mm512_loadu_si512(b));
        for (; x + 128 <= w; x += 64) {
            const __m512i later = Op64<Minimum>(_mm512_loadu_si512(a + x + 64), _mm512_loadu_si512(b + x + 64));
            _mm512_storeu_si512(d + x, Op64<Minimum>(m, _mm512_permutex2var_epi8(m, on, later)));
            m = later;
        }
    }
    for (; x < w; x += 64) {
        const std::size_t left = static_cast<std::size_t>(w - x);
        const __mmask64 m = FirstBytes(left), on = FirstBytes(left - 1);
        const __m512i a0 = _mm512_maskz_loadu_epi8(m, a + x), b0 = _mm512_maskz_loadu_epi8(m, b + x);
        const __m512i a1 = _mm512_mask_loadu_epi8(a0, on, a + x + 1), b1 = _mm512_mask_loadu_epi8(b0, on, b + x + 1);
        _mm512_mask_storeu_epi8(d + x, m, Op64<Minimum>(Op64<Minimum>(a0, a1), Op64<Minimum>(b0, b1)));
    }
}

template <bool Minimum>
void Square(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int w) {
    if (useAvx512) {
        SquareAvx512<Minimum>(a, b, d, w);
        return;
    }
    int x = useAvx2 ? SquareAvx2<Minimum>(a, b, d, w) : 0;
    const auto at = [](const std::uint8_t *p) { return _mm_loadu_si128(reinterpret_cast<const __m128i *>(p)); };
    const auto op = [](__m128i u, __m128i v) { return Minimum ? _mm_min_epu8(u, v) : _mm_max_epu8(u, v); };
    for (; x + 17 <= w; x += 16) _mm_storeu_si128(reinterpret_cast<__m128i *>(d + x), op(op(at(a + x), at(a + x + 1)), op(at(b + x), at(b + x + 1))));
    if (x < w) plain::MinMaxSquareRow(a + x, b + x, d + x, w - x, Minimum);
}

void MinMaxSquareRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int w, bool minimum) {
    if (minimum)
        Square<true>(a, b, d, w);
    else
        Square<false>(a, b, d, w);
}

void PrefetchRow(const std::uint8_t *p, std::size_t n) {
    if (n == 0) return;
    for (std::size_t i = 0; i < n; i += 64) _mm_prefetch(reinterpret_cast<const char *>(p + i), _MM_HINT_T0);
    _mm_prefetch(reinterpret_cast<const char *>(p + n - 1), _MM_HINT_T0);
}

// 64 bytes a step, the step's line of `ahead` prefetched; after the first
// block the stores fall on 32-byte boundaries of dst and the last block
// overlaps the one before it.
__attribute__((target("avx2"))) void CopyRowAvx2(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t *ahead) {
#define load(i) _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + (i)))
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst), load(0));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + 32), load(32));
    std::size_t i = 32 - (reinterpret_cast<std::uintptr_t>(dst) & 31);
    for (; i + 64 <= n; i += 64) {
        if (ahead != nullptr) _mm_prefetch(reinterpret_cast<const char *>(ahead + i), _MM_HINT_T0);
        const __m256i a = load(i), b = load(i + 32);
        _mm256_store_si256(reinterpret_cast<__m256i *>(dst + i), a);
        _mm256_store_si256(reinterpret_cast<__m256i *>(dst + i + 32), b);
    }
    if (ahead != nullptr) _mm_prefetch(reinterpret_cast<const char *>(ahead + n - 1), _MM_HINT_T0);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + n - 64), load(n - 64));
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + n - 32), load(n - 32));
#undef load
}

void CopyRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t *ahead) {
    if (useAvx2 && n >= 128) {
        CopyRowAvx2(src, dst, n, ahead);
        return;
    }
    if (ahead != nullptr) PrefetchRow(ahead, n);
    if (n > 0) std::memcpy(dst, src, n);
}

bool UseAvx2(bool on) {
    const bool was = useAvx2;
    useAvx2 = on && kHasAvx2;
    return was;
}

bool Avx2On() { return useAvx2; }

bool UseAvx512(bool on) {
    const bool was = useAvx512;
    useAvx512 = on && kHasAvx512;
    return was;
}

bool Avx512On() { return useAvx512; }

// 64 three-byte pixels (192 bytes) a step: each 64-byte output register is
// one two-register byte permute of the 128 source bytes that hold its
// pixels (windows starting at bytes 64, 63 and 0 of the block). The last
// step overlaps the one before it. Returns the pixels done (0 for a row of
// fewer than 64).
struct Mirror24Wide {
    alignas(64) std::uint8_t index[3][64];
    constexpr Mirror24Wide() : index{} {
        const int base[3] = {64, 63, 0};
        for (int r = 0; r < 3; ++r)
            for (int b = 0; b < 64; ++b) {
                const int j = 64 * r + b;
                index[r][b] = static_cast<std::uint8_t>(3 * (63 - j / 3) + j % 3 - base[r]);
            }
    }
};
constexpr Mirror24Wide kMirror24Wide;

AVX512 inline void Mirror24Step(const std::uint8_t *s, std::uint8_t *d, __m512i i0, __m512i i1, __m512i i2) {
    const __m512i s64 = _mm512_loadu_si512(s + 64);
    _mm512_storeu_si512(d, _mm512_permutex2var_epi8(s64, i0, _mm512_loadu_si512(s + 128)));
    _mm512_storeu_si512(d + 64, _mm512_permutex2var_epi8(_mm512_loadu_si512(s + 63), i1, _mm512_loadu_si512(s + 127)));
    _mm512_storeu_si512(d + 128, _mm512_permutex2var_epi8(_mm512_loadu_si512(s), i2, s64));
}

AVX512 int MirrorRow24Avx512(const std::uint8_t *src, std::uint8_t *dst, int n) {
    if (n < 64) return 0;
    const __m512i i0 = _mm512_load_si512(kMirror24Wide.index[0]), i1 = _mm512_load_si512(kMirror24Wide.index[1]);
    const __m512i i2 = _mm512_load_si512(kMirror24Wide.index[2]);
#define STEP(i) Mirror24Step(src + 3 * static_cast<std::ptrdiff_t>(n - 64 - (i)), dst + 3 * static_cast<std::ptrdiff_t>(i), i0, i1, i2)
    // After the first step, steps start where 3 * i puts the destination on
    // a 64-byte boundary (43 is the inverse of 3 modulo 64), so no store
    // splits a cache line.
    STEP(0);
    int i = static_cast<int>((0 - reinterpret_cast<std::uintptr_t>(dst)) * 43 % 64);
    for (; i + 64 <= n; i += 64) STEP(i);
    if (i < n) STEP(n - 64);
#undef STEP
    return n;
}

bool UseGfni(bool on) {
    const bool was = useGfni;
    useGfni = on && kHasGfni;
    return was;
}

void MirrorRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp) {
    int i = 0;
    if (bpp == 3 && useAvx512) {
        i = MirrorRow24Avx512(src, dst, n);
        if (i == n) return;
    }
    if ((bpp == 1 || bpp == 4) && useAvx2) {
        i = bpp == 1 ? MirrorRowAvx2<1>(src, dst, n) : MirrorRowAvx2<4>(src, dst, n);
        // The rest: the plain loop's pixels i.. of a row whose source ends
        // n - i pixels in.
        plain::MirrorRow(src, dst + i * bpp, n - i, bpp);
        return;
    }
    if (bpp == 1) {
        for (; i + 16 <= n; i += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + n - 16 - i));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), Reverse16(v));
        }
    } else if (bpp == 4) {
        for (; i + 4 <= n; i += 4) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + 4 * (n - 4 - i)));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + 4 * i), _mm_shuffle_epi32(v, _MM_SHUFFLE(0, 1, 2, 3)));
        }
    } else if (bpp == 3 && kHasSsse3) {
        i = MirrorRow24Ssse3(src, dst, n);
    }
    // The pixels left: dst i.. from src n - 1 - i down to 0.
    plain::MirrorRow(src, dst + i * bpp, n - i, bpp);
}

void MirrorBits(const std::uint8_t *src, std::uint8_t *dst, int w) {
    if (w <= 0) return;
    const int nb = (w + 7) / 8;
    const int pad = nb * 8 - w;
    // With no unused tail bits the reversed bytes are the result; else they
    // go to a scratch row and are shifted into place.
    thread_local std::vector<std::uint8_t> scratch;
    if (pad != 0 && scratch.size() < static_cast<std::size_t>(nb) + 1) scratch.resize(static_cast<std::size_t>(nb) + 1);
    std::uint8_t *t = pad == 0 ? dst : scratch.data();
    // t byte j = bit-reversed src byte nb - 1 - j.
    int j = !useAvx2 ? 0 : useGfni ? ReverseBytesGfni(src, t, nb) : ReverseBytesAvx2(src, t, nb);
    if (j == 0 && kHasSsse3) j = ReverseBytesSsse3(src, t, nb);
    for (; j + 8 <= nb; j += 8) Store64(t + j, ReverseBits64(Load64(src + nb - 8 - j)));
    for (; j < nb; ++j) t[j] = bits::kReverse[src[nb - 1 - j]];
    if (pad == 0) return;
    t[nb] = 0;
    // dst byte j = t bits from j * 8 + pad on.
    const int whole = w / 8;
    j = 0;
    for (; j + 8 <= whole; j += 8) {
        const std::uint64_t hi = __builtin_bswap64(Load64(t + j));
        const std::uint64_t v = (hi << pad) | (t[j + 8] >> (8 - pad));
        Store64(dst + j, __builtin_bswap64(v));
    }
    for (; j < whole; ++j) dst[j] = static_cast<std::uint8_t>((t[j] << pad) | (t[j + 1] >> (8 - pad)));
    if (j < nb) {
        const std::uint8_t v = static_cast<std::uint8_t>((t[j] << pad) | (t[j + 1] >> (8 - pad)));
        const std::uint8_t mask = static_cast<std::uint8_t>(0xFF00u >> (w & 7));
        dst[j] = static_cast<std::uint8_t>((v & mask) | (dst[j] & ~mask));
    }
}

void MirrorBitRows(const std::uint8_t *src, std::uint8_t *dst, int stride, int w, int count) {
    const int nb = (w + 7) / 8;
    const std::ptrdiff_t step = stride;
    if ((w & 7) == 0 && nb >= 32 && useAvx2) {
        // Whole bytes: each row reversed straight into the result.
        const auto reverse = useGfni ? ReverseBytesGfni : ReverseBytesAvx2;
        for (int y = 0; y < count; ++y, src += step, dst += step) {
            reverse(src, dst, nb);
            ClearRowTail(dst, w, stride);
        }
        return;
    }
    for (int y = 0; y < count; ++y, src += step, dst += step) {
        MirrorBits(src, dst, w);
        ClearRowTail(dst, w, stride);
    }
}

// Integer gray: (892007 R + 2999598 G + 302699 B + 2097133) >> 22 gives the
// rounded double sum of the plain form for every one of the 2^24 colours
// (checked exhaustively by the kernel tests); the largest sum, 1.07e9, fits
// in 32 bits.
inline std::uint8_t Gray(unsigned b, unsigned g, unsigned r) {
    return static_cast<std::uint8_t>((892007u * r + 2999598u * g + 302699u * b + 2097133u) >> 22);
}

// Eight pixels a step in 32-bit lanes: four pixels' blue, green and red
// spread into each 128-bit lane by byte shuffles, the same integer sum, the
// red and blue tests as lane masks. Returns the pixels done; the loads never
// reach past pixel n.
__attribute__((target("avx2"))) int ColourToGrayAvx2(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp, int redDelta,
                                                     int blueDelta) {
    const int lane = 4 * bpp;
    const Spread spread = SpreadMasks(bpp);
    const __m256i mb = spread.b, mg = spread.g, mr = spread.r;
    const __m256i wr = _mm256_set1_epi32(892007), wg = _mm256_set1_epi32(2999598), wb = _mm256_set1_epi32(302699);
    const __m256i half = _mm256_set1_epi32(2097133), floor59 = _mm256_set1_epi32(59);
    const __m256i rd = _mm256_set1_epi32(redDelta > 0 ? redDelta - 1 : 0), bd = _mm256_set1_epi32(blueDelta > 0 ? blueDelta - 1 : 0);
    const __m256i useRed = _mm256_set1_epi32(redDelta > 0 ? -1 : 0), useBlue = _mm256_set1_epi32(blueDelta > 0 ? -1 : 0);
    const __m256i gather = _mm256_setr_epi32(0, 4, 1, 1, 1, 1, 1, 1);
    int x = 0;
    for (; (n - x) * bpp >= lane + 16; x += 8) {
        const std::uint8_t *p = src + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i v = LoadEight(p, lane);
        const __m256i b = _mm256_shuffle_epi8(v, mb), g = _mm256_shuffle_epi8(v, mg), r = _mm256_shuffle_epi8(v, mr);
        __m256i sum = _mm256_add_epi32(_mm256_mullo_epi32(r, wr), _mm256_mullo_epi32(g, wg));
        sum = _mm256_srli_epi32(_mm256_add_epi32(_mm256_add_epi32(sum, _mm256_mullo_epi32(b, wb)), half), 22);
        const __m256i red = _mm256_and_si256(
            useRed, _mm256_and_si256(_mm256_cmpgt_epi32(r, floor59), _mm256_cmpgt_epi32(_mm256_sub_epi32(r, _mm256_max_epi32(g, b)), rd)));
        const __m256i blue = _mm256_and_si256(
            useBlue, _mm256_and_si256(_mm256_cmpgt_epi32(b, floor59), _mm256_cmpgt_epi32(_mm256_sub_epi32(b, _mm256_max_epi32(g, r)), bd)));
        sum = _mm256_andnot_si256(_mm256_or_si256(red, blue), sum);
        const __m256i words = _mm256_packus_epi32(sum, sum);
        const __m256i bytes = _mm256_packus_epi16(words, words);
        _mm_storel_epi64(reinterpret_cast<__m128i *>(dst + x), _mm256_castsi256_si128(_mm256_permutevar8x32_epi32(bytes, gather)));
    }
    return x;
}

void ColourToGrayRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp, int redDelta, int blueDelta) {
    if (useAvx2 && (bpp == 3 || bpp == 4)) {
        const int done = ColourToGrayAvx2(src, dst, n, bpp, redDelta, blueDelta);
        src += static_cast<std::ptrdiff_t>(done) * bpp;
        dst += done;
        n -= done;
    }
    if (redDelta <= 0 && blueDelta <= 0) {
        for (int x = 0; x < n; ++x, src += bpp) dst[x] = Gray(src[0], src[1], src[2]);
        return;
    }
    for (int x = 0; x < n; ++x, src += bpp) {
        const int b = src[0], g = src[1], r = src[2];
        const bool red = (redDelta > 0) & (r >= 60) & (r - std::max(g, b) >= redDelta);
        const bool blue = (blueDelta > 0) & (b >= 60) & (b - std::max(g, r) >= blueDelta);
        dst[x] = (red || blue) ? 0 : Gray(b, g, r);
    }
}

// Saturating byte adds (or subtracts) of |value| clamped to 255, which
// saturate exactly as the clamped sum does.
__attribute__((target("avx2"))) std::size_t AddSaturateAvx2(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, int amount,
                                                           bool keepFourth) {
    const __m256i add = _mm256_set1_epi8(static_cast<char>(amount > 0 ? amount : 0));
    const __m256i sub = _mm256_set1_epi8(static_cast<char>(amount < 0 ? -amount : 0));
    const __m256i fourth = _mm256_set1_epi32(keepFourth ? static_cast<int>(0xFF000000u) : 0);
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), _mm256_blendv_epi8(_mm256_subs_epu8(_mm256_adds_epu8(v, add), sub), v, fourth));
    }
    return i;
}

void AddSaturateRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, int value, bool keepFourth) {
    const int amount = std::clamp(value, -255, 255);
    const __m128i add = _mm_set1_epi8(static_cast<char>(amount > 0 ? amount : 0));
    const __m128i sub = _mm_set1_epi8(static_cast<char>(amount < 0 ? -amount : 0));
    const __m128i fourth = keepFourth ? _mm_set1_epi32(static_cast<int>(0xFF000000u)) : _mm_setzero_si128();
    std::size_t i = useAvx2 ? AddSaturateAvx2(src, dst, n, amount, keepFourth) : 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        const __m128i r = _mm_subs_epu8(_mm_adds_epu8(v, add), sub);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(dst + i), _mm_or_si128(_mm_andnot_si128(fourth, r), _mm_and_si128(fourth, v)));
    }
    plain::AddSaturateRow(src + i, dst + i, n - i, value, keepFourth);
}

__attribute__((target("avx2"))) std::size_t SubtractAvx2(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n,
                                                        bool keepFourth) {
    const __m256i fourth = _mm256_set1_epi32(keepFourth ? static_cast<int>(0xFF000000u) : 0);
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i u = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a + i));
        const __m256i r = _mm256_subs_epu8(u, _mm256_loadu_si256(reinterpret_cast<const __m256i *>(b + i)));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + i), _mm256_blendv_epi8(r, u, fourth));
    }
    return i;
}

void SubtractSaturateRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth) {
    const __m128i fourth = keepFourth ? _mm_set1_epi32(static_cast<int>(0xFF000000u)) : _mm_setzero_si128();
    std::size_t i = useAvx2 ? SubtractAvx2(a, b, d, n, keepFourth) : 0;
    for (; i + 16 <= n; i += 16) {
        const __m128i u = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a + i));
        const __m128i r = _mm_subs_epu8(u, _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + i)));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(d + i), _mm_or_si128(_mm_andnot_si128(fourth, r), _mm_and_si128(fourth, u)));
    }
    plain::SubtractSaturateRow(a + i, b + i, d + i, n - i, keepFourth);
}

// 32 bytes a step: the 16 sixteen-entry slices of the table looked up by
// each byte's low nibble (one byte shuffle each), then the byte's high
// nibble picks among them by a tree of 15 blends on its bits 4 to 7 (each
// moved into the byte's top bit). With `keepFourth`, the fourth byte of each
// 4-byte pixel is blended back from the source. Returns the bytes done.
__attribute__((target("avx2"))) std::size_t LookupAvx2(const std::uint8_t *src, std::uint8_t *dst, std::size_t n,
                                                       const std::uint8_t table[256], bool keepFourth) {
    __m256i slice[16];
    for (int k = 0; k < 16; ++k)
        slice[k] = _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(table + 16 * k)));
    const __m256i nibble = _mm256_set1_epi8(0x0F);
    const __m256i fourth = _mm256_set1_epi32(keepFourth ? static_cast<int>(0xFF000000u) : 0);
    std::size_t i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        const __m256i lo = _mm256_and_si256(v, nibble);
        __m256i level[8];
        const __m256i bit4 = _mm256_slli_epi16(v, 3);
        for (int k = 0; k < 8; ++k)
            level[k] = _mm256_blendv_epi8(_mm256_shuffle_epi8(slice[2 * k], lo), _mm256_shuffle_epi8(slice[2 * k + 1], lo), bit4);
        const __m256i bit5 = _mm256_slli_epi16(v, 2);
        for (int k = 0; k < 4; ++k) level[k] = _mm256_blendv_epi8(level[2 * k], level[2 * k + 1], bit5);
        const __m256i bit6 = _mm256_slli_epi16(v, 1);
        level[0] = _mm256_blendv_epi8(level[0], level[1], bit6);
        level[1] = _mm256_blendv_epi8(level[2], level[3], bit6);
        const __m256i r = _mm256_blendv_epi8(level[0], level[1], v);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + i), _mm256_blendv_epi8(r, v, fourth));
    }
    return i;
}

// 64 bytes a step: two two-register byte permutes look each byte up in
// the table's lower and upper 128 entries (its bit 6 picks the register),
// its top bit picks between them; the row's last step is masked.
AVX512 void LookupAvx512(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256], bool keepFourth) {
    const __m512i t0 = _mm512_loadu_si512(table), t1 = _mm512_loadu_si512(table + 64);
    const __m512i t2 = _mm512_loadu_si512(table + 128), t3 = _mm512_loadu_si512(table + 192);
    const __mmask64 fourth = keepFourth ? 0x8888888888888888ull : 0;
    for (std::size_t i = 0; i < n; i += 64) {
        const __mmask64 m = FirstBytes(n - i);
        const __m512i v = _mm512_maskz_loadu_epi8(m, src + i);
        const __m512i r = _mm512_mask_blend_epi8(_mm512_movepi8_mask(v), _mm512_permutex2var_epi8(t0, v, t1),
                                                 _mm512_permutex2var_epi8(t2, v, t3));
        _mm512_mask_storeu_epi8(dst + i, m, _mm512_mask_blend_epi8(fourth, r, v));
    }
}

bool FastLookup() { return useAvx512; }

void LookupRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]) {
    if (useAvx512) {
        LookupAvx512(src, dst, n, table, false);
        return;
    }
    std::size_t i = useAvx2 ? LookupAvx2(src, dst, n, table, false) : 0;
    for (; i + 8 <= n; i += 8) {
        const std::uint64_t v = Load64(src + i);
        std::uint64_t r = 0;
        for (int k = 0; k < 8; ++k) r |= static_cast<std::uint64_t>(table[(v >> (8 * k)) & 0xFF]) << (8 * k);
        Store64(dst + i, r);
    }
    plain::LookupRow(src + i, dst + i, n - i, table);
}

void LookupRow32(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]) {
    if (useAvx512) {
        LookupAvx512(src, dst, 4 * n, table, true);
        return;
    }
    std::size_t i = useAvx2 ? LookupAvx2(src, dst, 4 * n, table, true) / 4 : 0;
    for (; i + 2 <= n; i += 2) {
        const std::uint64_t v = Load64(src + 4 * i);
        std::uint64_t r = v & 0xFF000000FF000000ull;
        for (int k : {0, 1, 2, 4, 5, 6}) r |= static_cast<std::uint64_t>(table[(v >> (8 * k)) & 0xFF]) << (8 * k);
        Store64(dst + 4 * i, r);
    }
    plain::LookupRow32(src + 4 * i, dst + 4 * i, n - i, table);
}

// Eight pixels a step: each packed byte's pixels copied from a table of the
// 256 byte values (2 K to 8 K), kept per thread for the last depth and levels.
// 32 gray levels a step from 4 bytes of bits: the bytes spread to eight
// lanes each, each lane tested against its own bit, the two levels chosen by
// the test. Returns the pixels done (a multiple of 32).
__attribute__((target("avx2"))) int ExpandBitsAvx2(const std::uint8_t *src, std::uint8_t *dst, int w, std::uint8_t zero,
                                                   std::uint8_t one) {
    const __m256i spread = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3,
                                            3, 3, 3, 3);
    const __m256i bit = _mm256_set1_epi64x(static_cast<long long>(0x0102040810204080ULL));
    const __m256i z = _mm256_set1_epi8(static_cast<char>(zero)), flip = _mm256_set1_epi8(static_cast<char>(zero ^ one));
    int x = 0;
    for (; x + 32 <= w; x += 32) {
        std::uint32_t four;
        std::memcpy(&four, src + (x >> 3), 4);
        const __m256i v = _mm256_and_si256(_mm256_shuffle_epi8(_mm256_set1_epi32(static_cast<int>(four)), spread), bit);
        const __m256i set = _mm256_cmpeq_epi8(v, bit);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(dst + x), _mm256_xor_si256(z, _mm256_and_si256(set, flip)));
    }
    return x;
}

void ExpandBitsRow(const std::uint8_t *src, std::uint8_t *dst, int w, int bpp, std::uint8_t zero, std::uint8_t one) {
    if (bpp == 1 && useAvx2) {
        const int done = ExpandBitsAvx2(src, dst, w, zero, one);
        plain::ExpandBitsRow(src + done / 8, dst + done, w - done, 1, zero, one);
        return;
    }
    const int whole = w / 8;
    if (whole < 64 || (bpp != 1 && bpp != 3 && bpp != 4)) {
        plain::ExpandBitsRow(src, dst, w, bpp, zero, one);
        return;
    }
    thread_local std::uint8_t table[256][32];
    thread_local int built = -1;
    const int key = bpp << 16 | zero << 8 | one;
    if (built != key) {
        for (int v = 0; v < 256; ++v) {
            const std::uint8_t b = static_cast<std::uint8_t>(v);
            plain::ExpandBitsRow(&b, table[v], 8, bpp, zero, one);
        }
        built = key;
    }
    switch (bpp) {
        case 1: for (int j = 0; j < whole; ++j) std::memcpy(dst + 8 * j, table[src[j]], 8); break;
        case 3: for (int j = 0; j < whole; ++j) std::memcpy(dst + 24 * j, table[src[j]], 24); break;
        default: for (int j = 0; j < whole; ++j) std::memcpy(dst + 32 * j, table[src[j]], 32); break;
    }
    plain::ExpandBitsRow(src + whole, dst + static_cast<std::ptrdiff_t>(whole) * 8 * bpp, w - 8 * whole, bpp, zero, one);
}

// 16 bytes a step; the fourth bytes are kept by OR-ing ones into b's.
// 64 bytes a step, stored back into a only where the AND changed one of
// them: a block a keeps unchanged (paper AND paper) is not written, which
// spares the memory traffic of writing it back.
__attribute__((target("avx2"))) std::size_t AndTwiceAvx2(std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n,
                                                        bool keepFourth) {
    const __m256i fourth = _mm256_set1_epi32(keepFourth ? static_cast<int>(0xFF000000u) : 0);
    std::size_t i = 0;
    for (; i + 64 <= n; i += 64) {
        const __m256i u0 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a + i));
        const __m256i u1 = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a + i + 32));
        const __m256i v0 = _mm256_and_si256(u0, _mm256_or_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(b + i)), fourth));
        const __m256i v1 = _mm256_and_si256(u1, _mm256_or_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(b + i + 32)), fourth));
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + i), v0);
        _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + i + 32), v1);
        const __m256i changed = _mm256_or_si256(_mm256_xor_si256(u0, v0), _mm256_xor_si256(u1, v1));
        if (!_mm256_testz_si256(changed, changed)) {
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(a + i), v0);
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(a + i + 32), v1);
        }
    }
    return i;
}

void AndRowTwice(std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth) {
    const __m128i fourth = keepFourth ? _mm_set1_epi32(static_cast<int>(0xFF000000u)) : _mm_setzero_si128();
    std::size_t i = useAvx2 ? AndTwiceAvx2(a, b, d, n, keepFourth) : 0;
    for (; i + 64 <= n; i += 64) {
        __m128i v[4], changed = _mm_setzero_si128();
        for (int k = 0; k < 4; ++k) {
            const __m128i u = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a + i + 16 * k));
            v[k] = _mm_and_si128(u, _mm_or_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(b + i + 16 * k)), fourth));
            changed = _mm_or_si128(changed, _mm_xor_si128(u, v[k]));
            _mm_storeu_si128(reinterpret_cast<__m128i *>(d + i + 16 * k), v[k]);
        }
        if (_mm_movemask_epi8(_mm_cmpeq_epi8(changed, _mm_setzero_si128())) != 0xFFFF)
            for (int k = 0; k < 4; ++k) _mm_storeu_si128(reinterpret_cast<__m128i *>(a + i + 16 * k), v[k]);
    }
    for (; i + 16 <= n; i += 16) {
        const __m128i v = _mm_and_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(a + i)),
                                        _mm_or_si128(_mm_loadu_si128(reinterpret_cast<const __m128i *>(b + i)), fourth));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(a + i), v);
        _mm_storeu_si128(reinterpret_cast<__m128i *>(d + i), v);
    }
    plain::AndRowTwice(a + i, b + i, d + i, n - i, keepFourth);
}

// Eight pixels a step, as the gray kernel spreads them: four pixels' channels
// in the 32-bit lanes of each 128-bit half, the level and the keep tests
// there, the level repeated into the three colour bytes and shuffled back to
// pixel order, blended with the source where a pixel is kept. For 3-byte
// pixels the halves overlap by four bytes; the upper half is stored last,
// without the bytes past the eighth pixel.
// Lanes where channel c is at least 60 and exceeds o1 and o2 by more than
// delta, if `use`.
__attribute__((target("avx2"))) inline __m256i Distinct(__m256i use, __m256i c, __m256i o1, __m256i o2, __m256i delta,
                                                        __m256i floor59) {
    return _mm256_and_si256(use, _mm256_and_si256(_mm256_cmpgt_epi32(c, floor59),
                                                  _mm256_cmpgt_epi32(_mm256_sub_epi32(c, _mm256_max_epi32(o1, o2)), delta)));
}

__attribute__((target("avx2"))) int DecolourAvx2(std::uint8_t *p, int n, int bpp, bool keepDistinct, int redDelta,
                                                 int blueDelta, int greenDelta) {
    const int lane = 4 * bpp;
    const Spread spread = SpreadMasks(bpp);
    const __m256i mb = spread.b, mg = spread.g, mr = spread.r, back = spread.back;
    // Bytes the shuffle back leaves empty (the fourth byte, the overlap) keep the source.
    const __m256i untouched = _mm256_cmpgt_epi8(_mm256_setzero_si256(), back);
    const __m256i floor59 = _mm256_set1_epi32(59), repeat = _mm256_set1_epi32(0x010101);
    const __m256i rd = _mm256_set1_epi32(redDelta > 0 ? redDelta - 1 : 0), bd = _mm256_set1_epi32(blueDelta > 0 ? blueDelta - 1 : 0), gd = _mm256_set1_epi32(greenDelta > 0 ? greenDelta - 1 : 0);
    const __m256i useRed = _mm256_set1_epi32(keepDistinct && redDelta > 0 ? -1 : 0);
    const __m256i useBlue = _mm256_set1_epi32(keepDistinct && blueDelta > 0 ? -1 : 0);
    const __m256i useGreen = _mm256_set1_epi32(keepDistinct && greenDelta > 0 ? -1 : 0);
    int x = 0;
    for (; (n - x) * bpp >= lane + 16; x += 8) {
        std::uint8_t *q = p + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i v = LoadEight(q, lane);
        const __m256i b = _mm256_shuffle_epi8(v, mb), g = _mm256_shuffle_epi8(v, mg), r = _mm256_shuffle_epi8(v, mr);
        const __m256i level = _mm256_add_epi32(_mm256_add_epi32(_mm256_srli_epi32(b, 2), _mm256_srli_epi32(g, 1)), _mm256_srli_epi32(r, 2));
        const __m256i keep = _mm256_or_si256(
            _mm256_or_si256(Distinct(useRed, r, g, b, rd, floor59), Distinct(useBlue, b, g, r, bd, floor59)),
            Distinct(useGreen, g, b, r, gd, floor59));
        const __m256i grayBytes = _mm256_shuffle_epi8(_mm256_mullo_epi32(level, repeat), back);
        const __m256i keepBytes = _mm256_or_si256(_mm256_shuffle_epi8(keep, back), untouched);
        const __m256i out = _mm256_blendv_epi8(grayBytes, v, keepBytes);
        StoreEight(q, lane, bpp, out);
    }
    return x;
}

// Lanes where channel c is at least 60 and exceeds o1 and o2 by more than
// delta, if `use`.
__attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,bmi2"), always_inline)) inline __mmask16 Distinct512(
    __mmask16 use, __m512i c, __m512i o1, __m512i o2, __m512i delta) {
    return static_cast<__mmask16>(use & _mm512_cmpgt_epi32_mask(c, _mm512_set1_epi32(59)) &
                                  _mm512_cmpgt_epi32_mask(_mm512_sub_epi32(c, _mm512_maskz_max_epi32(0xFFFF, o1, o2)), delta));
}

// Sixteen pixels a step in the same lanes, the tests as lane masks.
KERNELS_SPREAD512 int DecolourAvx512(std::uint8_t *p, int n, int bpp, bool keepDistinct, int redDelta, int blueDelta, int greenDelta) {
    const Spread512 m = SpreadMasks512(bpp);
    const __m512i repeat = _mm512_set1_epi32(0x010101);
    const __m512i rd = _mm512_set1_epi32(redDelta > 0 ? redDelta - 1 : 0), bd = _mm512_set1_epi32(blueDelta > 0 ? blueDelta - 1 : 0),
                  gd = _mm512_set1_epi32(greenDelta > 0 ? greenDelta - 1 : 0);
    const __mmask16 useRed = keepDistinct && redDelta > 0 ? 0xFFFF : 0, useBlue = keepDistinct && blueDelta > 0 ? 0xFFFF : 0,
                    useGreen = keepDistinct && greenDelta > 0 ? 0xFFFF : 0;
    int x = 0;
    for (; (n - x) * bpp >= 64; x += 16) {
        std::uint8_t *q = p + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m512i v = LoadSixteen(q, m);
        const __m512i b = _mm512_shuffle_epi8(v, m.b), g = _mm512_shuffle_epi8(v, m.g), r = _mm512_shuffle_epi8(v, m.r);
        const __m512i level = _mm512_add_epi32(_mm512_add_epi32(_mm512_maskz_srli_epi32(0xFFFF, b, 2), _mm512_maskz_srli_epi32(0xFFFF, g, 1)),
                                               _mm512_maskz_srli_epi32(0xFFFF, r, 2));
        const __mmask16 keep = Distinct512(useRed, r, g, b, rd) | Distinct512(useBlue, b, g, r, bd) | Distinct512(useGreen, g, b, r, gd);
        const __m512i gray = _mm512_shuffle_epi8(_mm512_mullo_epi32(level, repeat), m.back);
        // Bytes of pixels grayed; the rest (and bytes with no lane) keep v.
        StoreSixteen(q, m, _mm512_mask_blend_epi8(LaneBytes(static_cast<__mmask16>(~keep), m), v, gray));
    }
    return x;
}

void DecolourRow(std::uint8_t *p, int n, int bpp, bool keepDistinct, int redDelta, int blueDelta, int greenDelta) {
    if (useAvx512 && (bpp == 3 || bpp == 4)) {
        const int done = DecolourAvx512(p, n, bpp, keepDistinct, redDelta, blueDelta, greenDelta);
        p += static_cast<std::ptrdiff_t>(done) * bpp, n -= done;
    }
    const int done = useAvx2 && (bpp == 3 || bpp == 4) ? DecolourAvx2(p, n, bpp, keepDistinct, redDelta, blueDelta, greenDelta) : 0;
    plain::DecolourRow(p + static_cast<std::ptrdiff_t>(done) * bpp, n - done, bpp, keepDistinct, redDelta, blueDelta, greenDelta);
}

// Eight pixels a step, laid out as in the decolouring kernel; the limits are
// clamped to the range where they still decide (channels are 0..255).
__attribute__((target("avx2"))) int RedMarksAvx2(std::uint8_t *p, const std::uint8_t *gray, int n, int bpp, int colorDiff,
                                                 int minLevel, bool keepBlue) {
    const int lane = 4 * bpp;
    const Spread spread = SpreadMasks(bpp);
    const __m256i mb = spread.b, mg = spread.g, mr = spread.r, back = spread.back;
    const __m256i untouched = _mm256_cmpgt_epi8(_mm256_setzero_si256(), back);
    const __m256i level = _mm256_set1_epi32(std::clamp(minLevel, 0, 256) - 1);
    const __m256i diff = _mm256_set1_epi32(std::clamp(colorDiff, -256, 256) - 1);
    const __m256i useBlue = _mm256_set1_epi32(keepBlue ? -1 : 0), c99 = _mm256_set1_epi32(99), c50 = _mm256_set1_epi32(50);
    const __m256i pureRed = _mm256_set1_epi32(0x00FF0000), pureBlue = _mm256_set1_epi32(0x000000FF), repeat = _mm256_set1_epi32(0x010101);
    int x = 0;
    for (; (n - x) * bpp >= lane + 16; x += 8) {
        std::uint8_t *q = p + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i v = LoadEight(q, lane);
        const __m256i b = _mm256_shuffle_epi8(v, mb), g = _mm256_shuffle_epi8(v, mg), r = _mm256_shuffle_epi8(v, mr);
        const __m256i redExcess = _mm256_sub_epi32(r, _mm256_max_epi32(g, b));
        const __m256i t = _mm256_blendv_epi8(c50, _mm256_srli_epi32(r, 1), _mm256_cmpgt_epi32(r, c99));
        const __m256i red = _mm256_or_si256(_mm256_and_si256(_mm256_cmpgt_epi32(r, level), _mm256_cmpgt_epi32(redExcess, diff)),
                                            _mm256_cmpgt_epi32(redExcess, t));
        const __m256i blue = _mm256_and_si256(
            useBlue, _mm256_and_si256(_mm256_cmpgt_epi32(b, level), _mm256_cmpgt_epi32(_mm256_sub_epi32(b, _mm256_max_epi32(g, r)), diff)));
        const __m256i levels = _mm256_mullo_epi32(_mm256_cvtepu8_epi32(_mm_loadl_epi64(reinterpret_cast<const __m128i *>(gray + x))), repeat);
        const __m256i pixel = _mm256_blendv_epi8(_mm256_blendv_epi8(levels, pureBlue, blue), pureRed, red);
        const __m256i out = _mm256_blendv_epi8(_mm256_shuffle_epi8(pixel, back), v, untouched);
        StoreEight(q, lane, bpp, out);
    }
    return x;
}

void RedMarksRow(std::uint8_t *p, const std::uint8_t *gray, int n, int bpp, int colorDiff, int minLevel, bool keepBlue) {
    const int done = useAvx2 && (bpp == 3 || bpp == 4) ? RedMarksAvx2(p, gray, n, bpp, colorDiff, minLevel, keepBlue) : 0;
    plain::RedMarksRow(p + static_cast<std::ptrdiff_t>(done) * bpp, gray + done, n - done, bpp, colorDiff, minLevel, keepBlue);
}

// Eight pixels a step, spread into 32-bit lanes as the gray kernel does;
// the first step whose mask has a lane set is searched by the plain loop.
__attribute__((target("avx2"))) int NextSpreadAvx2(const std::uint8_t *row, int from, int to, int bpp, int minSpread) {
    const int lane = 4 * bpp;
    const Spread spread = SpreadMasks(bpp);
    const __m256i mb = spread.b, mg = spread.g, mr = spread.r;
    const __m256i limit = _mm256_set1_epi32(std::clamp(minSpread, -1, 256) - 1);
    int x = from;
    for (; (to - x) * bpp >= lane + 16; x += 8) {
        const std::uint8_t *q = row + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i v = LoadEight(q, lane);
        const __m256i b = _mm256_shuffle_epi8(v, mb), g = _mm256_shuffle_epi8(v, mg), r = _mm256_shuffle_epi8(v, mr);
        const __m256i spread = _mm256_sub_epi32(_mm256_max_epi32(_mm256_max_epi32(b, g), r), _mm256_min_epi32(_mm256_min_epi32(b, g), r));
        if (!_mm256_testz_si256(_mm256_cmpgt_epi32(spread, limit), _mm256_cmpgt_epi32(spread, limit))) return plain::NextSpread(row, x, x + 8, bpp, minSpread);
    }
    return plain::NextSpread(row, x, to, bpp, minSpread);
}

int NextSpread(const std::uint8_t *row, int from, int to, int bpp, int minSpread) {
    if (useAvx2 && (bpp == 3 || bpp == 4) && from < to) return NextSpreadAvx2(row, from, to, bpp, minSpread);
    return plain::NextSpread(row, from, to, bpp, minSpread);
}

}  // namespace quarvel::kernels
