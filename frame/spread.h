// The byte shuffles the AVX2 colour kernels share: the blue, green and red
// of four pixels (of 3 or 4 bytes) in each 128-bit half spread into 32-bit
// lanes, and the shuffle that puts lane bytes back in pixel order (-1 where
// a byte has no lane value); loads and stores of eight such pixels. Used
// only inside functions built for AVX2.
#pragma once

#include <immintrin.h>

#include <cstdint>
#include <cstring>

namespace quarvel::kernels {

struct Spread {
    __m256i b, g, r, back;
};

__attribute__((target("avx2"))) inline Spread SpreadMasks(int bpp) {
    const int lane = 4 * bpp;
    alignas(32) std::int8_t masks[4][32];
    for (int i = 0; i < 32; ++i) {
        const int j = i & 15;
        for (int c = 0; c < 3; ++c) masks[c][i] = (i & 3) == 0 ? static_cast<std::int8_t>(bpp * (j >> 2) + c) : -1;
        masks[3][i] = j < lane && j % bpp < 3 ? static_cast<std::int8_t>(4 * (j / bpp) + j % bpp) : -1;
    }
    Spread m;
    m.b = _mm256_load_si256(reinterpret_cast<const __m256i *>(masks[0]));
    m.g = _mm256_load_si256(reinterpret_cast<const __m256i *>(masks[1]));
    m.r = _mm256_load_si256(reinterpret_cast<const __m256i *>(masks[2]));
    m.back = _mm256_load_si256(reinterpret_cast<const __m256i *>(masks[3]));
    return m;
}

// Eight pixels: four from q and four from q + lane (lane = 4 * bpp bytes).
__attribute__((target("avx2"))) inline __m256i LoadEight(const std::uint8_t *q, int lane) {
    return _mm256_inserti128_si256(_mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i *>(q))),
                                   _mm_loadu_si128(reinterpret_cast<const __m128i *>(q + lane)), 1);
}

// Stores eight pixels; 3-byte pixels write only their own 24 bytes (a store
// reaching into the next step's load would stall it).
__attribute__((target("avx2"))) inline void StoreEight(std::uint8_t *q, int lane, int bpp, __m256i out) {
    _mm_storeu_si128(reinterpret_cast<__m128i *>(q), _mm256_castsi256_si128(out));
    const __m128i upper = _mm256_extracti128_si256(out, 1);
    if (bpp == 4) {
        _mm_storeu_si128(reinterpret_cast<__m128i *>(q + lane), upper);
    } else {
        _mm_storel_epi64(reinterpret_cast<__m128i *>(q + lane), upper);
        const int last = _mm_extract_epi32(upper, 2);
        std::memcpy(q + lane + 8, &last, 4);
    }
}

}  // namespace quarvel::kernels
