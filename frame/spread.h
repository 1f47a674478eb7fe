// The byte shuffles the AVX2 colour kernels share: the blue, green and red
// of four pixels (of 3 or 4 bytes) in each 128-bit half spread into 32-bit
// lanes, and the shuffle that puts lane bytes back in pixel order (-1 where
// a byte has no lane value); loads and stores of eight such pixels (sixteen
// for AVX-512). Used only inside functions built for AVX2 (AVX-512).
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

#define KERNELS_SPREAD512 __attribute__((target("avx512f,avx512bw,avx512vl,avx512vbmi,bmi2")))

// The same for sixteen pixels in a 512-bit register, four to each 128-bit
// lane as above: the lane masks repeated, and for 3-byte pixels the byte
// permutes that spread 48 packed bytes to the lanes (lane L from byte 12 L)
// and pack them back. A load reads 64 bytes; a store writes exactly the
// pixels' bytes, 3-byte pixels as 32 and 16 bytes (a masked 64-byte store
// reaching over the next step's load stalled that load: 3x slower).
struct Spread512 {
    __m512i b, g, r, back, gather, scatter;
    bool packed;  // 3-byte pixels
};

// The byte tables of SpreadMasks512 for 3- and 4-byte pixels, made once.
struct Spread512Tables {
    alignas(64) std::int8_t t[2][6][64];  // [bpp - 3][b, g, r, back, gather, scatter][byte]
    constexpr Spread512Tables() : t{} {
        for (int bpp = 3; bpp <= 4; ++bpp)
            for (int i = 0; i < 64; ++i) {
                const int j = i & 15, lane = 4 * bpp;
                std::int8_t(&m)[6][64] = t[bpp - 3];
                for (int c = 0; c < 3; ++c) m[c][i] = (i & 3) == 0 ? static_cast<std::int8_t>(bpp * (j >> 2) + c) : -1;
                m[3][i] = j < lane && j % bpp < 3 ? static_cast<std::int8_t>(4 * (j / bpp) + j % bpp) : -1;
                m[4][i] = static_cast<std::int8_t>(bpp * 4 * (i / 16) + j);
                m[5][i] = static_cast<std::int8_t>(bpp == 3 ? 16 * (i / 12) + i % 12 : i);
            }
    }
};
inline constexpr Spread512Tables kSpread512{};

KERNELS_SPREAD512 inline Spread512 SpreadMasks512(int bpp) {
    const auto &m = kSpread512.t[bpp == 3 ? 0 : 1];
    Spread512 w;
    w.b = _mm512_load_si512(m[0]), w.g = _mm512_load_si512(m[1]), w.r = _mm512_load_si512(m[2]);
    w.back = _mm512_load_si512(m[3]), w.gather = _mm512_load_si512(m[4]), w.scatter = _mm512_load_si512(m[5]);
    w.packed = bpp == 3;
    return w;
}

KERNELS_SPREAD512 inline __m512i LoadSixteen(const std::uint8_t *q, const Spread512 &m) {
    const __m512i v = _mm512_loadu_si512(q);
    return m.packed ? _mm512_maskz_permutexvar_epi8(~__mmask64{0}, m.gather, v) : v;
}

KERNELS_SPREAD512 inline void StoreSixteen(std::uint8_t *q, const Spread512 &m, __m512i v) {
    if (!m.packed) {
        _mm512_storeu_si512(q, v);
        return;
    }
    v = _mm512_maskz_permutexvar_epi8(~__mmask64{0}, m.scatter, v);
    _mm256_storeu_si256(reinterpret_cast<__m256i *>(q), _mm512_maskz_extracti64x4_epi64(0xF, v, 0));
    _mm_storeu_si128(reinterpret_cast<__m128i *>(q + 32), _mm512_maskz_extracti32x4_epi32(0xF, v, 2));
}

// Lanes of a 16-bit mask as bytes in pixel order (none for bytes the shuffle
// back leaves empty).
KERNELS_SPREAD512 inline __mmask64 LaneBytes(__mmask16 lanes, const Spread512 &m) {
    return _mm512_movepi8_mask(_mm512_shuffle_epi8(_mm512_maskz_mov_epi32(lanes, _mm512_set1_epi32(-1)), m.back));
}

}  // namespace quarvel::kernels
