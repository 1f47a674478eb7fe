// Row histograms (see histogram.h). Levels: 32 bytes a step (AVX2) or 16
// (SSE2) compared with the step's first byte; a step of one level adds its
// length once, any other counts its bytes into four tables in turn. Colour
// sums: eight pixels a step spread into 32-bit lanes (the byte shuffles of
// the colour kernels), B + G + R summed there; eight equal sums add 8 once,
// else the eight sums are counted into two tables in turn.
#include "frame/histogram.h"

#include <emmintrin.h>
#include <immintrin.h>

#include <cstring>

#include "frame/kernels.h"

namespace quarvel::kernels {

namespace plain {

void CountLevelsRow(const std::uint8_t *src, int n, std::uint32_t count[4][256]) {
    for (int i = 0; i < n; ++i) ++count[0][src[i]];
}

void CountSumsRow(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]) {
    for (int i = 0; i < n; ++i, src += bpp) ++sums[0][src[0] + src[1] + src[2]];
}

}  // namespace plain

namespace {

inline void CountFour(const std::uint8_t *s, int n, std::uint32_t count[4][256]) {
    for (int k = 0; k < n; k += 4) ++count[0][s[k]], ++count[1][s[k + 1]], ++count[2][s[k + 2]], ++count[3][s[k + 3]];
}

__attribute__((target("avx2"))) int CountLevelsAvx2(const std::uint8_t *src, int n, std::uint32_t count[4][256]) {
    int i = 0;
    for (; i + 32 <= n; i += 32) {
        const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(src + i));
        const __m256i first = _mm256_broadcastb_epi8(_mm256_castsi256_si128(v));
        if (_mm256_movemask_epi8(_mm256_cmpeq_epi8(v, first)) == -1) {
            count[0][src[i]] += 32;
        } else {
            CountFour(src + i, 32, count);
        }
    }
    return i;
}

__attribute__((target("avx2"))) int CountSumsAvx2(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]) {
    const int lane = 4 * bpp;
    alignas(32) std::int8_t masks[3][32];
    for (int i = 0; i < 32; ++i)
        for (int c = 0; c < 3; ++c) masks[c][i] = (i & 3) == 0 ? static_cast<std::int8_t>(bpp * ((i & 15) >> 2) + c) : -1;
    const __m256i mb = _mm256_load_si256(reinterpret_cast<const __m256i *>(masks[0]));
    const __m256i mg = _mm256_load_si256(reinterpret_cast<const __m256i *>(masks[1]));
    const __m256i mr = _mm256_load_si256(reinterpret_cast<const __m256i *>(masks[2]));
    alignas(32) std::uint32_t s[8];
    int x = 0;
    for (; (n - x) * bpp >= lane + 16; x += 8) {
        const std::uint8_t *q = src + static_cast<std::ptrdiff_t>(x) * bpp;
        const __m256i v = _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(q))),
                                                  _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + lane)), 1);
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

}  // namespace

void CountLevelsRow(const std::uint8_t *src, int n, std::uint32_t count[4][256]) {
    int i = 0;
    if (Avx2On()) {
        i = CountLevelsAvx2(src, n, count);
    } else {
        for (; i + 16 <= n; i += 16) {
            const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(src + i));
            if (_mm_movemask_epi8(_mm_cmpeq_epi8(v, _mm_set1_epi8(static_cast<char>(src[i])))) == 0xFFFF) {
                count[0][src[i]] += 16;
            } else {
                CountFour(src + i, 16, count);
            }
        }
    }
    plain::CountLevelsRow(src + i, n - i, count);
}

void CountSumsRow(const std::uint8_t *src, int n, int bpp, std::uint32_t sums[2][766]) {
    int x = 0;
    if (Avx2On() && (bpp == 3 || bpp == 4)) {
        x = CountSumsAvx2(src, n, bpp, sums);
    } else {
        const std::uint8_t *p = src;
        for (; x + 2 <= n; x += 2, p += 2 * bpp) ++sums[0][p[0] + p[1] + p[2]], ++sums[1][p[bpp] + p[bpp + 1] + p[bpp + 2]];
    }
    plain::CountSumsRow(src + static_cast<std::ptrdiff_t>(x) * bpp, n - x, bpp, sums);
}

}  // namespace quarvel::kernels
