// Histograms (see histogram.h). Levels: 32 bytes a step compared with the
// step's first byte (SSE2); a step of one level adds 32 once, any other
// counts its sixteen pairs into the pair tables. Colour sums: sixteen equal
// pixels add 16 once; else eight pixels a step spread into 32-bit lanes (the
// byte shuffles of the colour kernels), B + G + R summed there; eight equal
// sums add 8 once, else the eight sums are counted into two tables in turn.
// With AVX-512, 32 pixels' sums a step in 16-bit lanes, the lanes equal to
// one of two running reference sums counted by a popcount.
// Column sums: 32 levels or bits, or 16 colour pixels, a step (AVX2).
#include "frame/histogram.h"

#include <emmintrin.h>
#include <immintrin.h>

#include <cstring>
#include <new>

#include "frame/kernels.h"
#include "frame/spread.h"

namespace quarvel::kernels {

namespace plain {

void AddBytesRow(const std::uint8_t *src, int n, bool complement, std::uint16_t *col) {
    for (int x = 0; x < n; ++x) col[x] = static_cast<std::uint16_t>(col[x] + (complement ? 255 - src[x] : src[x]));
}

void AddBitsRow(const std::uint8_t *src, int n, std::uint8_t zero, std::uint8_t one, std::uint16_t *col) {
    for (int x = 0; x < n; ++x) col[x] = static_cast<std::uint16_t>(col[x] + ((src[x >> 3] >> (7 - (x & 7))) & 1 ? one : zero));
}

void AddColourInkRow(const std::uint8_t *src, int n, int bpp, std::uint16_t *col) {
    for (int x = 0; x < n; ++x, src += bpp) col[x] = static_cast<std::uint16_t>(col[x] + 255 - (src[0] + src[1] + src[2]) / 3);
}

void CountLevels(const std::uint8_t *src, int n, std::uint32_t count[256]) {
    for (int i = 0; i < n; ++i) ++count[src[i]];
}

void CountSumsRow(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]) {
    for (int i = 0; i < n; ++i, src += bpp) ++sums[0][src[0] + src[1] + src[2]];
}

}  // namespace plain

namespace {

__attribute__((target("avx2"))) int CountSumsAvx2(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]) {
    const int lane = 4 * bpp;
    const Spread spread = SpreadMasks(bpp);
    const __m256i mb = spread.b, mg = spread.g, mr = spread.r;
    alignas(32) std::uint32_t s[8];
    const __m256i low3 = _mm256_set1_epi32(0x00FFFFFF);
    int x = 0;
    for (; (n - x) * bpp >= lane + 16; x += 8) {
        const std::uint8_t *q = src + static_cast<std::ptrdiff_t>(x) * bpp;
        // Sixteen equal pixels (the next step's eight too): 3-byte pixels as
        // bytes repeating every three (byte i against byte i + 3 for i < 45),
        // 4-byte pixels as equal dwords without their fourth bytes.
        if ((n - x) * bpp >= 16 * bpp + 8) {
            bool same;
            if (bpp == 3) {
                const __m256i a = _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(q)),
                                                    _mm256_loadu_si256(reinterpret_cast<const __m256i *>(q + 3)));
                const __m256i b = _mm256_cmpeq_epi8(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(q + 13)),
                                                    _mm256_loadu_si256(reinterpret_cast<const __m256i *>(q + 16)));
                same = _mm256_movemask_epi8(_mm256_and_si256(a, b)) == -1;
            } else {
                const __m256i first = _mm256_set1_epi32(static_cast<int>(q[0] | q[1] << 8 | q[2] << 16));
                const __m256i a = _mm256_and_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(q)), low3);
                const __m256i b = _mm256_and_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(q + 32)), low3);
                same = _mm256_movemask_epi8(_mm256_and_si256(_mm256_cmpeq_epi32(a, first), _mm256_cmpeq_epi32(b, first))) == -1;
            }
            if (same) {
                sums[0][q[0] + q[1] + q[2]] += 16;
                x += 8;
                continue;
            }
        }
        const __m256i v = LoadEight(q, lane);
        const __m256i sum = _mm256_add_epi32(_mm256_add_epi32(_mm256_shuffle_epi8(v, mb), _mm256_shuffle_epi8(v, mg)), _mm256_shuffle_epi8(v, mr));
        const __m256i first = _mm256_broadcastd_epi32(_mm256_castsi256_si128(sum));
        if (_mm256_movemask_epi8(_mm256_cmpeq_epi32(sum, first)) == -1) {
            sums[0][q[0] + q[1] + q[2]] += 8;
            continue;
        }
        _mm256_store_si256(reinterpret_cast<__m256i *>(s), sum);
        for (int k = 0; k < 8; k += 2) ++sums[0][s[k]], ++sums[1][s[k + 1]];
    }
    return x;
}

// 32 levels widened to 16 bits (the in-lane unpacks give columns 0-7 with
// 16-23 and 8-15 with 24-31; one lane exchange puts them in order) and added
// to 32 column sums.
__attribute__((target("avx2"))) inline void AddLevels32(__m256i v, std::uint16_t *col) {
    const __m256i zero = _mm256_setzero_si256();
    __m256i *c = reinterpret_cast<__m256i *>(col);
    const __m256i c0 = _mm256_loadu_si256(c), c1 = _mm256_loadu_si256(c + 1);
    const __m256i w0 = _mm256_unpacklo_epi8(v, zero), w1 = _mm256_unpackhi_epi8(v, zero);
    // w0 = columns 0-7 | 16-23, w1 = 8-15 | 24-31.
    const __m256i s0 = _mm256_add_epi16(c0, _mm256_permute2x128_si256(w0, w1, 0x20));
    const __m256i s1 = _mm256_add_epi16(c1, _mm256_permute2x128_si256(w0, w1, 0x31));
    _mm256_storeu_si256(c, s0);
    _mm256_storeu_si256(c + 1, s1);
}

__attribute__((target("avx2"))) int AddBytesAvx2(const std::uint8_t *src, int n, bool complement, std::uint16_t *col) {
    const __m256i flip = _mm256_set1_epi8(complement ? -1 : 0);
    int x = 0;
    for (; x + 32 <= n; x += 32) AddLevels32(_mm256_xor_si256(_mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + x)), flip), col + x);
    return x;
}

// Bits to levels 32 at a time: the four source bytes repeated eight times
// each, every byte tested against its own bit, and the test choosing `one`
// or `zero`.
__attribute__((target("avx2"))) int AddBitsAvx2(const std::uint8_t *src, int n, std::uint8_t zero, std::uint8_t one, std::uint16_t *col) {
    const __m256i spread = _mm256_setr_epi8(0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1, 1, 1, 1, 1, 1, 2, 2, 2, 2, 2, 2, 2, 2, 3, 3, 3, 3, 3, 3, 3, 3);
    const __m256i bit = _mm256_set1_epi64x(static_cast<long long>(0x0102040810204080ull));
    const __m256i z = _mm256_set1_epi8(static_cast<char>(zero)), o = _mm256_set1_epi8(static_cast<char>(one));
    int x = 0;
    for (; x + 32 <= n; x += 32) {
        std::int32_t four;
        std::memcpy(&four, src + (x >> 3), 4);
        const __m256i bytes = _mm256_shuffle_epi8(_mm256_set1_epi32(four), spread);
        const __m256i set = _mm256_cmpeq_epi8(_mm256_and_si256(bytes, bit), bit);
        AddLevels32(_mm256_blendv_epi8(z, o, set), col + x);
    }
    return x;
}

// Sixteen pixels a step: two groups of eight summed in 32-bit lanes (as the
// colour sums are), packed to 16 bits and put back in order by one
// permutation; s / 3 is the high half of s * 21846, exact for s <= 765
// (the error, s * 2 / (3 * 65536), stays below 1/3).
__attribute__((target("avx2"))) int AddColourInkAvx2(const std::uint8_t *src, int n, int bpp, std::uint16_t *col) {
    const int lane = 4 * bpp;
    const Spread spread = SpreadMasks(bpp);
    const __m256i mb = spread.b, mg = spread.g, mr = spread.r;
    const __m256i third = _mm256_set1_epi16(21846), white = _mm256_set1_epi16(255);
    auto sums = [&](const std::uint8_t *q) __attribute__((target("avx2"))) {
        const __m256i v = LoadEight(q, lane);
        return _mm256_add_epi32(_mm256_add_epi32(_mm256_shuffle_epi8(v, mb), _mm256_shuffle_epi8(v, mg)), _mm256_shuffle_epi8(v, mr));
    };
    int x = 0;
    for (; (n - x) * bpp >= 8 * bpp + lane + 16; x += 16) {
        const std::uint8_t *q = src + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i s = _mm256_permute4x64_epi64(_mm256_packus_epi32(sums(q), sums(q + 8 * bpp)), 0xD8);
        const __m256i ink = _mm256_sub_epi16(white, _mm256_mulhi_epu16(s, third));
        __m256i *c = reinterpret_cast<__m256i *>(col + x);
        _mm256_storeu_si256(c, _mm256_add_epi16(_mm256_loadu_si256(c), ink));
    }
    return x;
}

}  // namespace

void AddColourInkRow(const std::uint8_t *src, int n, int bpp, std::uint16_t *col) {
    const int x = Avx2On() && (bpp == 3 || bpp == 4) ? AddColourInkAvx2(src, n, bpp, col) : 0;
    plain::AddColourInkRow(src + static_cast<std::ptrdiff_t>(x) * bpp, n - x, bpp, col + x);
}

void AddBytesRow(const std::uint8_t *src, int n, bool complement, std::uint16_t *col) {
    const int x = Avx2On() ? AddBytesAvx2(src, n, complement, col) : 0;
    plain::AddBytesRow(src + x, n - x, complement, col + x);
}

void AddBitsRow(const std::uint8_t *src, int n, std::uint8_t zero, std::uint8_t one, std::uint16_t *col) {
    const int x = Avx2On() ? AddBitsAvx2(src, n, zero, one, col) : 0;
    // x is a multiple of 32, so the rest starts on a whole byte.
    plain::AddBitsRow(src + (x >> 3), n - x, zero, one, col + x);
}

LevelCounter::LevelCounter(bool pairs) {
    if (pairs) pairs_.reset(new (std::nothrow) std::uint32_t[2 * 65536]());
}

void LevelCounter::AddRow(const std::uint8_t *src, int n) {
    if (!pairs_) {
        plain::CountLevels(src, n, single_);
        return;
    }
    std::uint32_t *a = pairs_.get(), *b = a + 65536;
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m128i first = _mm_set1_epi8(static_cast<char>(src[i]));
        const __m128i v0 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
        const __m128i v1 = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i + 16));
        if (_mm_movemask_epi8(_mm_and_si128(_mm_cmpeq_epi8(v0, first), _mm_cmpeq_epi8(v1, first))) == 0xFFFF) {
            single_[src[i]] += 32;
            continue;
        }
        for (int k = 0; k < 32; k += 8) {
            std::uint64_t w;
            std::memcpy(&w, src + i + k, 8);
            ++a[w & 0xFFFF], ++b[(w >> 16) & 0xFFFF], ++a[(w >> 32) & 0xFFFF], ++b[w >> 48];
        }
    }
    plain::CountLevels(src + i, n - i, single_);
}

void LevelCounter::AddTo(std::uint32_t count[256]) const {
    for (int v = 0; v < 256; ++v) count[v] += single_[v];
    if (!pairs_) return;
    const std::uint32_t *a = pairs_.get(), *b = a + 65536;
    for (int second = 0; second < 256; ++second) {
        std::uint32_t row = 0;
        for (int first = 0; first < 256; ++first) {
            const std::uint32_t t = a[second << 8 | first] + b[second << 8 | first];
            row += t;
            count[first] += t;
        }
        count[second] += row;
    }
}

// 32 pixels a step: their B, G and R gathered into 16-bit lanes by three
// two-register byte permutes and summed there; the lanes equal to either of
// two reference sums (on a page: paper, and the ink last seen beside it) are
// counted with one addition each, the others one by one into the two
// tables in turn. A step where few lanes match a reference makes its first
// other sum that reference (the first when the paper's sum changed, else
// the second). Returns the pixels done; loads are masked to the n pixels.
__attribute__((target("avx512f,avx512bw,avx512vbmi,avx512vl,bmi2,popcnt"))) int CountSumsAvx512(const std::uint8_t *src, int n, int bpp,
                                                                                               std::uint32_t sums[2][766]) {
    alignas(64) std::int8_t index[3][64];
    for (int k = 0; k < 32; ++k)
        for (int c = 0; c < 3; ++c) index[c][2 * k] = static_cast<std::int8_t>(bpp * k + c), index[c][2 * k + 1] = 0;
    const __m512i ib = _mm512_load_si512(index[0]), ig = _mm512_load_si512(index[1]), ir = _mm512_load_si512(index[2]);
    const __mmask64 low = 0x5555555555555555ull;
    const __mmask64 upper = bpp == 3 ? _bzhi_u64(~0ull, 32) : ~0ull;  // the step's bytes past the first 64
    alignas(64) std::uint16_t lane[32];
    int ref = src[0] + src[1] + src[2], ref2 = 0;
    int turn = 0;
    int x = 0;
    for (; n - x >= 32; x += 32) {
        const std::uint8_t *q = src + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m512i a = _mm512_loadu_si512(q), b = _mm512_maskz_loadu_epi8(upper, q + 64);
        const __m512i sum = _mm512_add_epi16(_mm512_add_epi16(_mm512_maskz_permutex2var_epi8(low, a, ib, b), _mm512_maskz_permutex2var_epi8(low, a, ig, b)),
                                             _mm512_maskz_permutex2var_epi8(low, a, ir, b));
        const std::uint32_t same = _mm512_cmpeq_epi16_mask(sum, _mm512_set1_epi16(static_cast<short>(ref)));
        if (same == 0xFFFFFFFFu) {
            sums[0][ref] += 32;
            continue;
        }
        const std::uint32_t same2 = _mm512_cmpeq_epi16_mask(sum, _mm512_set1_epi16(static_cast<short>(ref2))) & ~same;
        sums[0][ref] += static_cast<std::uint32_t>(__builtin_popcount(same));
        sums[1][ref2] += static_cast<std::uint32_t>(__builtin_popcount(same2));
        std::uint32_t other = ~(same | same2);
        if (other == 0) continue;
        _mm512_store_si512(lane, sum);
        const int first = __builtin_ctz(other);
        if (__builtin_popcount(same) < 8) {
            ref = lane[first];
        } else if (__builtin_popcount(other) >= 4) {
            ref2 = lane[first];
        }
        for (; other != 0; other &= other - 1) {
            ++sums[turn][lane[__builtin_ctz(other)]];
            turn ^= 1;
        }
    }
    return x;
}

void CountSumsRow(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]) {
    int x = 0;
    if (Avx512On() && (bpp == 3 || bpp == 4) && n > 0) x = CountSumsAvx512(src, n, bpp, sums);
    if (Avx2On() && (bpp == 3 || bpp == 4)) {
        const int done = CountSumsAvx2(src + static_cast<std::ptrdiff_t>(x) * bpp, n - x, bpp, sums);
        x += done;
    } else {
        const std::uint8_t *p = src + static_cast<std::ptrdiff_t>(x) * bpp;
        for (; x + 2 <= n; x += 2, p += 2 * bpp) ++sums[0][p[0] + p[1] + p[2]], ++sums[1][p[bpp] + p[bpp + 1] + p[bpp + 2]];
    }
    plain::CountSumsRow(src + static_cast<std::ptrdiff_t>(x) * bpp, n - x, bpp, sums);
}

}  // namespace quarvel::kernels
