// 1-bit row kernels (see kernels_bits.h). One loop shape serves every
// operation: 64-byte AVX-512 blocks with a masked last step (LogicRows),
// 32-byte AVX2 blocks where the processor has them (two a step,
// the row's last bytes as one block overlapping the one before), else
// 16-byte SSE2 blocks, then one 16-, 8- and 4-byte step each as the length
// needs, then single bytes; so a 310-byte A4 row is ten blocks. The
// operations are written once over GCC's vector types, which take the same
// & | ~ as plain integers. Nothing is stored before its source bytes are
// loaded, which is what lets d be one of the sources.
#include "frame/kernels_bits.h"

#include <emmintrin.h>
#include <immintrin.h>

#include <algorithm>
#include <cstring>

#include "frame/kernels.h"

// The 32-byte helpers are always inlined into the AVX2 loop, so the note
// that passing 32-byte vectors by value changes the ABI without AVX does not
// apply.
#pragma GCC diagnostic ignored "-Wpsabi"

namespace quarvel::kernels {

namespace plain {

void LogicRows(const BitRows &r, Logic op) {
    const std::size_t nb = static_cast<std::size_t>(r.w + 7) / 8;
    for (int y = 0; y < r.count; ++y) {
        const std::uint8_t *a = r.a + y * r.strideA, *b = r.b + y * r.strideB;
        std::uint8_t *d = r.d + static_cast<std::ptrdiff_t>(y) * r.dstStride;
        for (std::size_t i = 0; i < nb; ++i) {
            switch (op) {
                case Logic::kCopy: d[i] = a[i]; break;
                case Logic::kNot: d[i] = static_cast<std::uint8_t>(~a[i]); break;
                case Logic::kAnd: d[i] = a[i] & b[i]; break;
                case Logic::kOr: d[i] = a[i] | b[i]; break;
                case Logic::kAndNot: d[i] = static_cast<std::uint8_t>(a[i] & ~b[i]); break;
            }
        }
        for (int x = r.w; x < 8 * r.dstStride; ++x) d[x >> 3] &= static_cast<std::uint8_t>(~(0x80u >> (x & 7)));
    }
}

void AndRowsBack(std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *b, std::ptrdiff_t strideB, std::uint8_t *d,
                 int dstStride, int w, int count) {
    for (int y = 0; y < count; ++y) {
        BitRows row{a + y * strideA, 0, b + y * strideB, 0, d + static_cast<std::ptrdiff_t>(y) * dstStride, dstStride, w, 1};
        plain::LogicRows(row, Logic::kAnd);
        std::memcpy(a + y * strideA, row.d, static_cast<std::size_t>(w / 8));
    }
}

void Filter2x2Row(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int x, int w, bool minimum) {
    const auto at = [&](int i) {
        if (i >= x + w) return minimum ? 1 : 0;
        const int u = (a[i >> 3] >> (7 - (i & 7))) & 1, v = b == nullptr ? u : (b[i >> 3] >> (7 - (i & 7))) & 1;
        return minimum ? u & v : u | v;
    };
    for (int i = x; i < x + w; ++i) {
        const int bit = minimum ? at(i) & at(i + 1) : at(i) | at(i + 1);
        const auto mask = static_cast<std::uint8_t>(0x80u >> (i & 7));
        d[i >> 3] = static_cast<std::uint8_t>(bit ? d[i >> 3] | mask : d[i >> 3] & ~mask);
    }
}

void Filter2x2Rows(const std::uint8_t *a, std::ptrdiff_t strideA, std::uint8_t *d, std::ptrdiff_t strideD, int x, int w,
                   int count, bool minimum) {
    for (int y = 0; y < count; ++y)
        Filter2x2Row(a + y * strideA, y + 1 < count ? a + (y + 1) * strideA : nullptr, d + y * strideD, x, w, minimum);
}

void Filter2x2Page(const std::uint8_t *a, std::uint8_t *d, int stride, int w, int count, bool minimum) {
    Filter2x2Rows(a, stride, d, stride, 0, w, count, minimum);
    for (int y = 0; y < count; ++y) ClearRowTail(d + static_cast<std::ptrdiff_t>(y) * stride, w, stride);
}

void Filter2x2RectPage(const std::uint8_t *a, std::uint8_t *d, int stride, int pageW, int count, const RectSpan &r,
                       bool minimum) {
    plain::LogicRows(BitRows{a, stride, a, stride, d, stride, pageW, count}, Logic::kCopy);
    const std::size_t at =
        static_cast<std::size_t>(r.y) * static_cast<std::size_t>(stride) + static_cast<std::size_t>(r.x >> 3);
    Filter2x2Rows(a + at, stride, d + at, stride, r.x & 7, r.w, r.h, minimum);
}

void AndNotSpanRows(const std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *m, std::ptrdiff_t strideM,
                    std::uint8_t *d, std::ptrdiff_t strideD, int n, int count) {
    for (int y = 0; y < count; ++y)
        for (int j = 0; j < n; ++j)
            d[y * strideD + j] = static_cast<std::uint8_t>(a[y * strideA + j] & ~m[y * strideM + j]);
}

}  // namespace plain

namespace {

template <class T>
__attribute__((always_inline)) inline T Load(const std::uint8_t *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class T>
__attribute__((always_inline)) inline void Store(std::uint8_t *p, T v) {
    std::memcpy(p, &v, sizeof v);
}

using V32 = std::uint8_t __attribute__((vector_size(32)));
using V16 = std::uint8_t __attribute__((vector_size(16)));

// 32-byte loads and stores, compiled for AVX2 like their callers: a 32-byte
// vector may only pass between functions that both have AVX (Clang refuses
// the call otherwise).
__attribute__((target("avx2"), always_inline)) inline V32 Load32(const std::uint8_t *p) {
    V32 v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

__attribute__((target("avx2"), always_inline)) inline void Store32(std::uint8_t *p, V32 v) { std::memcpy(p, &v, sizeof v); }

// The operations, each over any of the widths; the 32-byte form for AVX2.
template <Logic L>
struct Op {
    template <class T>
    __attribute__((always_inline)) T operator()(T a, T b) const {
        if constexpr (L == Logic::kCopy) return a;
        if constexpr (L == Logic::kNot) return ~a;
        if constexpr (L == Logic::kAnd) return a & b;
        if constexpr (L == Logic::kOr) return a | b;
        if constexpr (L == Logic::kAndNot) return a & ~b;
    }
    __attribute__((target("avx2"), always_inline)) V32 operator()(V32 a, V32 b) const {
        if constexpr (L == Logic::kCopy) return a;
        if constexpr (L == Logic::kNot) return ~a;
        if constexpr (L == Logic::kAnd) return a & b;
        if constexpr (L == Logic::kOr) return a | b;
        if constexpr (L == Logic::kAndNot) return a & ~b;
    }
};

// The steps after the blocks: at most one of 16, 8 and 4 bytes, then bytes.
template <class F>
__attribute__((always_inline)) inline void Tail(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t i,
                                                std::size_t n, F f) {
    if (i + 16 <= n) Store(d + i, f(Load<V16>(a + i), Load<V16>(b + i))), i += 16;
    if (i + 8 <= n) Store(d + i, f(Load<std::uint64_t>(a + i), Load<std::uint64_t>(b + i))), i += 8;
    if (i + 4 <= n) Store(d + i, f(Load<std::uint32_t>(a + i), Load<std::uint32_t>(b + i))), i += 4;
    for (; i < n; ++i) d[i] = static_cast<std::uint8_t>(f(a[i], b[i]));
}

// Every row: the blocks, the tail steps, then the bits past w and the
// padding cleared while the row is in cache.
template <class F>
__attribute__((target("avx2"))) void RowsAvx2(const BitRows &r, F f) {
    const std::size_t nb = static_cast<std::size_t>(r.w + 7) / 8;
    for (int y = 0; y < r.count; ++y) {
        const std::uint8_t *a = r.a + y * r.strideA, *b = r.b + y * r.strideB;
        std::uint8_t *d = r.d + static_cast<std::ptrdiff_t>(y) * r.dstStride;
        std::size_t i = 0;
        for (; i + 64 <= nb; i += 64) {
            const V32 u = f(Load32(a + i), Load32(b + i)), v = f(Load32(a + i + 32), Load32(b + i + 32));
            Store32(d + i, u);
            Store32(d + i + 32, v);
        }
        if (i + 32 <= nb) Store32(d + i, f(Load32(a + i), Load32(b + i))), i += 32;
        // The last bytes as one block overlapping the one before, which
        // rewrites those bytes with the same values, unless d is a source.
        if (i < nb && nb >= 32 && d != a && d != b)
            Store32(d + nb - 32, f(Load32(a + nb - 32), Load32(b + nb - 32)));
        else
            Tail(a, b, d, i, nb, f);
        ClearRowTail(d, r.w, r.dstStride);
    }
}

template <class F>
void RowsSse2(const BitRows &r, F f) {
    const std::size_t nb = static_cast<std::size_t>(r.w + 7) / 8;
    for (int y = 0; y < r.count; ++y) {
        const std::uint8_t *a = r.a + y * r.strideA, *b = r.b + y * r.strideB;
        std::uint8_t *d = r.d + static_cast<std::ptrdiff_t>(y) * r.dstStride;
        std::size_t i = 0;
        for (; i + 16 <= nb; i += 16) Store(d + i, f(Load<V16>(a + i), Load<V16>(b + i)));
        Tail(a, b, d, i, nb, f);
        ClearRowTail(d, r.w, r.dstStride);
    }
}

#define AVX512 __attribute__((target("avx512f,avx512bw,avx512vl,bmi2")))

// Masks of the first n bytes of a 64-byte block.
AVX512 inline __mmask64 FirstBytes(std::size_t n) { return n >= 64 ? ~0ull : _bzhi_u64(~0ull, static_cast<unsigned>(n)); }

template <Logic L>
AVX512 inline __m512i Op512(__m512i a, __m512i b) {
    if constexpr (L == Logic::kCopy) return a;
    if constexpr (L == Logic::kNot) return ~a;
    if constexpr (L == Logic::kAnd) return a & b;
    if constexpr (L == Logic::kOr) return a | b;
    if constexpr (L == Logic::kAndNot) return a & ~b;
}

// 64 bytes a step, and the row's last step writes the rest of the row,
// padding included, at once: its loads masked to the pixel bytes, the bytes
// past them zeroed, the bits past w cleared in their byte, the store masked
// to the row. So a 312-byte A4 row is five steps with no tail code.
template <Logic L>
AVX512 void RowsAvx512(const BitRows &r) {
    const std::size_t nb = static_cast<std::size_t>(r.w + 7) / 8, stride = static_cast<std::size_t>(r.dstStride);
    const std::size_t full = nb & ~std::size_t{63};
    // The step holding the last pixel byte clears the bits past w in it.
    const std::size_t lastAt = full < nb ? full : full - 64, lastByte = nb - 1 - lastAt;
    const __m512i tail = _mm512_mask_set1_epi8(_mm512_set1_epi8(-1), __mmask64{1} << lastByte,
                                               static_cast<char>(0xFF00u >> ((r.w & 7) != 0 ? r.w & 7 : 8)));
    for (int y = 0; y < r.count; ++y) {
        const std::uint8_t *a = r.a + y * r.strideA, *b = r.b + y * r.strideB;
        std::uint8_t *d = r.d + static_cast<std::ptrdiff_t>(y) * r.dstStride;
        std::size_t i = 0;
        for (; i < full; i += 64) {
            __m512i v = Op512<L>(_mm512_loadu_si512(a + i), _mm512_loadu_si512(b + i));
            if (i == lastAt) v &= tail;
            _mm512_storeu_si512(d + i, v);
        }
        for (; i < stride; i += 64) {
            const __mmask64 pixels = FirstBytes(nb > i ? nb - i : 0);
            __m512i v = Op512<L>(_mm512_maskz_loadu_epi8(pixels, a + i), _mm512_maskz_loadu_epi8(pixels, b + i));
            v = _mm512_maskz_mov_epi8(pixels, i == lastAt ? v & tail : v);
            _mm512_mask_storeu_epi8(d + i, FirstBytes(stride - i), v);
        }
    }
}

// AndRowsBack 64 bytes a step, the last block overlapping the one before.
AVX512 void AndRowsBackAvx512(std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *b, std::ptrdiff_t strideB,
                              std::uint8_t *d, int dstStride, int w, int count) {
    const std::size_t nb = static_cast<std::size_t>(w / 8);
    for (int y = 0; y < count; ++y, a += strideA, b += strideB, d += dstStride) {
        for (std::size_t i = 0;; i += 64) {
            const bool last = i + 64 >= nb;
            if (last) i = nb - 64;
            const __m512i u = _mm512_loadu_si512(a + i), v = _mm512_loadu_si512(b + i), r = u & v;
            _mm512_storeu_si512(d + i, r);
            if (_mm512_test_epi64_mask(u, ~v) != 0) _mm512_storeu_si512(a + i, r);
            if (last) break;
        }
        ClearRowTail(d, w, dstStride);
    }
}

template <Logic L>
void Rows(const BitRows &r) {
    if (Avx512On() && r.w > 0)
        RowsAvx512<L>(r);
    else if (Avx2On())
        RowsAvx2(r, Op<L>{});
    else
        RowsSse2(r, Op<L>{});
}

// Blocks where the AND clears no bit (b covers a) leave a unwritten.
__attribute__((target("avx2"))) void AndRowsBackAvx2(std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *b,
                                                     std::ptrdiff_t strideB, std::uint8_t *d, int dstStride, int w, int count) {
    const std::size_t nb = static_cast<std::size_t>(w / 8);
    const Op<Logic::kAnd> both;
    for (int y = 0; y < count; ++y, a += strideA, b += strideB, d += dstStride) {
        if (nb < 32) {
            Tail(a, b, d, 0, nb, both);
            for (std::size_t i = 0; i < nb; ++i) a[i] = d[i];
            ClearRowTail(d, w, dstStride);
            continue;
        }
        // The last block overlaps the one before: ANDing a's bytes again
        // that already took the AND leaves them as they are.
        for (std::size_t i = 0;; i += 32) {
            const bool last = i + 32 >= nb;
            if (last) i = nb - 32;
            const __m256i u = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(a + i));
            const __m256i v = _mm256_loadu_si256(reinterpret_cast<const __m256i *>(b + i));
            const __m256i r = _mm256_and_si256(u, v);
            _mm256_storeu_si256(reinterpret_cast<__m256i *>(d + i), r);
            if (!_mm256_testc_si256(v, u)) _mm256_storeu_si256(reinterpret_cast<__m256i *>(a + i), r);
            if (last) break;
        }
        ClearRowTail(d, w, dstStride);
    }
}

// t = op(a, b) bytes; d byte = op(t, t shifted left one bit, the next byte's
// top bit coming in), 32 bytes a step while the next byte is in the row.
// Every byte but the last, which needs the identity past w. Each block's
// combined rows are kept for the next step, which supplies the next byte's
// top bit through a lane-crossing byte shift; the row's end is one block
// overlapping the one before. Returns the bytes done.
template <bool Minimum>
__attribute__((target("avx2"), always_inline)) inline V32 Combine32(const std::uint8_t *p, const std::uint8_t *q) {
    const V32 u = Load32(p), v = Load32(q);
    return Minimum ? u & v : u | v;
}

template <bool Minimum>
__attribute__((target("avx2"))) int Filter2x2Avx2(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int nb) {
    if (nb < 33) return 0;
    V32 t = Combine32<Minimum>(a, b);
    int i = 0;
    for (; i + 65 <= nb; i += 32) {
        const V32 later = Combine32<Minimum>(a + i + 32, b + i + 32);
        const __m256i ti = reinterpret_cast<__m256i>(t), li = reinterpret_cast<__m256i>(later);
        const V32 next = reinterpret_cast<V32>(_mm256_alignr_epi8(_mm256_permute2x128_si256(ti, li, 0x21), ti, 1));
        const V32 shifted = (t + t) | (next >> 7);
        Store32(d + i, Minimum ? t & shifted : t | shifted);
        t = later;
    }
    for (;; i += 32) {
        const bool last = i + 33 >= nb;
        if (last) i = nb - 33;
        const V32 u = Combine32<Minimum>(a + i, b + i), next = Combine32<Minimum>(a + i + 1, b + i + 1);
        const V32 shifted = (u + u) | (next >> 7);
        Store32(d + i, Minimum ? u & shifted : u | shifted);
        if (last) return nb - 1;
    }
}

}  // namespace

namespace {

template <bool Minimum>
inline void Filter2x2(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int x, int w, bool avx2) {
    if (w <= 0) return;
    const int nb = (x + w + 7) / 8;
    if (b == nullptr) b = a;
    const std::uint8_t first = d[0];
    int j = avx2 ? Filter2x2Avx2<Minimum>(a, b, d, nb) : 0;
    // The rest a byte at a time; the bits past the span count as the
    // identity, and d's bits outside it keep their values.
    const int end = (x + w) & 7;
    const unsigned valid = (0xFF00u >> (end != 0 ? end : 8)) & 0xFFu, identity = Minimum ? 0xFFu : 0u;
    const auto op = [](unsigned u, unsigned v) { return Minimum ? u & v : u | v; };
    for (; j < nb; ++j) {
        const bool last = j + 1 == nb;
        unsigned t = op(a[j], b[j]);
        if (last) t = (t & valid) | (identity & ~valid);
        const unsigned next = last ? identity : op(a[j + 1], b[j + 1]);
        const unsigned r = op(t, ((t << 1) | (next >> 7)) & 0xFFu), keep = last ? ~valid & 0xFFu : 0u;
        d[j] = static_cast<std::uint8_t>((r & ~keep) | (d[j] & keep));
    }
    if (x != 0) {
        const unsigned head = ~(0xFFu >> x) & 0xFFu;  // bits before the span
        d[0] = static_cast<std::uint8_t>((d[0] & ~head) | (first & head));
    }
}

template <bool Minimum>
void Filter2x2Page(const std::uint8_t *a, std::ptrdiff_t strideA, std::uint8_t *d, std::ptrdiff_t strideD, int x, int w,
                   int count) {
    const bool avx2 = Avx2On();
    for (int y = 0; y < count; ++y, a += strideA, d += strideD)
        Filter2x2<Minimum>(a, y + 1 < count ? a + strideA : nullptr, d, x, w, avx2);
}

using V64 = std::uint8_t __attribute__((vector_size(64)));

// Bytes [k, n - 1) of a run of rows filtered, 64 (or 32) bytes a step:
// byte k from bytes k and k + 1 of its row and of the next (the reads stay
// below n + stride). Under AVX-512 each step's rows are combined once and
// the bytes one on taken from that and the next step's by one two-register
// byte permute (a load one byte on splits a cache line every time, which
// made the loads the limit); the run ends with a block overlapping the one
// before. Returns the bytes done.
#define KERNELS_RUN512 __attribute__((target("avx512f,avx512bw,avx512vbmi"), always_inline)) inline

// Bytes p .. p + 63 of a row combined with the bytes one stride on.
template <bool Minimum>
KERNELS_RUN512 V64 RowPair(const std::uint8_t *p, std::size_t stride) {
    V64 u, v;
    std::memcpy(&u, p, sizeof u);
    std::memcpy(&v, p + stride, sizeof v);
    return Minimum ? u & v : u | v;
}

// 64 result bytes from the combined rows u and the combined bytes one on.
template <bool Minimum>
KERNELS_RUN512 void PutFiltered(std::uint8_t *d, V64 u, V64 next) {
    const V64 shifted = (u + u) | (next >> 7), r = Minimum ? u & shifted : u | shifted;
    std::memcpy(d, &r, sizeof r);
}

template <bool Minimum>
__attribute__((target("avx512f,avx512bw,avx512vbmi"))) std::size_t FilterRunAvx512(const std::uint8_t *a, std::uint8_t *d,
                                                                                std::size_t stride, std::size_t k, std::size_t n) {
    alignas(64) static constexpr std::uint8_t kOn[64] = {1,  2,  3,  4,  5,  6,  7,  8,  9,  10, 11, 12, 13, 14, 15, 16,
                                                         17, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28, 29, 30, 31, 32,
                                                         33, 34, 35, 36, 37, 38, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48,
                                                         49, 50, 51, 52, 53, 54, 55, 56, 57, 58, 59, 60, 61, 62, 63, 64};
    if (k + 65 > n) return k;
    // One step to put the stores on 64-byte boundaries (a store split
    // across two cache lines costs two).
    if (const std::size_t off = reinterpret_cast<std::uintptr_t>(d + k) & 63; off != 0 && k + 192 <= n) {
        PutFiltered<Minimum>(d + k, RowPair<Minimum>(a + k, stride), RowPair<Minimum>(a + k + 1, stride));
        k += 64 - off;
    }
    if (k + 128 <= n) {
        const __m512i on = _mm512_load_si512(kOn);
        V64 u = RowPair<Minimum>(a + k, stride);
        for (; k + 128 <= n; k += 64) {
            const V64 later = RowPair<Minimum>(a + k + 64, stride);
            PutFiltered<Minimum>(d + k, u,
                                 reinterpret_cast<V64>(_mm512_permutex2var_epi8(reinterpret_cast<__m512i>(u), on, reinterpret_cast<__m512i>(later))));
            u = later;
        }
    }
    if (k + 65 <= n) PutFiltered<Minimum>(d + k, RowPair<Minimum>(a + k, stride), RowPair<Minimum>(a + k + 1, stride)), k += 64;
    if (k + 1 < n) PutFiltered<Minimum>(d + n - 65, RowPair<Minimum>(a + n - 65, stride), RowPair<Minimum>(a + n - 64, stride));
    return n - 1;
}

template <bool Minimum>
__attribute__((target("avx2"))) std::size_t FilterRunAvx2(const std::uint8_t *a, std::uint8_t *d, std::size_t stride, std::size_t k,
                                                          std::size_t n) {
    for (; k + 32 < n; k += 32) {
        const V32 u = Combine32<Minimum>(a + k, a + k + stride), next = Combine32<Minimum>(a + k + 1, a + k + 1 + stride);
        const V32 shifted = (u + u) | (next >> 7);
        Store32(d + k, Minimum ? u & shifted : u | shifted);
    }
    return k;
}

// Bytes [k, n - 1) of a run of rows filtered as FilterRunAvx512 says, the
// widest kernel the processor has and single bytes after it.
template <bool Minimum>
inline void FilterRun(const std::uint8_t *a, std::uint8_t *d, std::size_t s, std::size_t k, std::size_t n, bool avx512,
                      bool avx2) {
    const auto op = [](unsigned u, unsigned v) { return Minimum ? u & v : u | v; };
    k = avx512 ? FilterRunAvx512<Minimum>(a, d, s, k, n) : avx2 ? FilterRunAvx2<Minimum>(a, d, s, k, n) : k;
    for (; k + 1 < n; ++k) {
        const unsigned t = op(a[k], a[k + s]), next = op(a[k + 1], a[k + 1 + s]);
        d[k] = static_cast<std::uint8_t>(op(t, ((t << 1) | (next >> 7)) & 0xFFu));
    }
}

// Rows of the run kernels go in bands of 32 (10 KB of an A4 page), each
// band's row ends taken while the band is in cache (8 and 16 rows measured
// 1-2 us slower on the A4 page, 64 and 128 rows 2 us slower).
constexpr int kBand = 32;

template <bool Minimum>
void FilterPage(const std::uint8_t *a, std::uint8_t *d, int stride, int w, int count) {
    if (w <= 0 || count <= 0) return;
    const auto op = [](unsigned u, unsigned v) { return Minimum ? u & v : u | v; };
    const std::size_t s = static_cast<std::size_t>(stride), nb = static_cast<std::size_t>(w + 7) / 8;
    const int end = w & 7;
    const unsigned valid = (0xFF00u >> (end != 0 ? end : 8)) & 0xFFu, identity = Minimum ? 0xFFu : 0u;
    const bool avx512 = Avx512On(), avx2 = Avx2On();
    // Each band's last byte (padding, or a last pixel byte) is left to the
    // rows' ends.
    for (int y0 = 0; y0 + 1 < count; y0 += kBand) {
        const int y1 = std::min(y0 + kBand, count - 1);
        FilterRun<Minimum>(a, d, s, static_cast<std::size_t>(y0) * s, static_cast<std::size_t>(y1) * s, avx512, avx2);
        for (int y = y0; y < y1; ++y) {
            const std::size_t j = static_cast<std::size_t>(y) * s + nb - 1;
            const unsigned t = (op(a[j], a[j + s]) & valid) | (identity & ~valid);
            d[j] = static_cast<std::uint8_t>(op(t, ((t << 1) | (identity >> 7)) & 0xFFu));
            ClearRowTail(d + static_cast<std::size_t>(y) * s, w, stride);
        }
    }
    const std::size_t last = static_cast<std::size_t>(count - 1) * s;
    Filter2x2<Minimum>(a + last, nullptr, d + last, 0, w, Avx2On());
    ClearRowTail(d + last, w, stride);
}

// d[i] = s[i] for n bytes, inline: 16-byte steps and one overlapping the
// last, or two overlapping 8- or 4-byte moves, for the few bytes a rectangle
// leaves at a row's ends (a library call costs more than the copy there).
inline void CopyFew(std::uint8_t *d, const std::uint8_t *s, std::size_t n) {
    if (n >= 16) {
        std::size_t i = 0;
        for (; i + 16 < n; i += 16) Store(d + i, Load<V16>(s + i));
        Store(d + n - 16, Load<V16>(s + n - 16));
    } else if (n >= 8) {
        const auto u = Load<std::uint64_t>(s), v = Load<std::uint64_t>(s + n - 8);
        Store(d, u), Store(d + n - 8, v);
    } else if (n >= 4) {
        const auto u = Load<std::uint32_t>(s), v = Load<std::uint32_t>(s + n - 4);
        Store(d, u), Store(d + n - 4, v);
    } else {
        for (std::size_t i = 0; i < n; ++i) d[i] = s[i];
    }
}

// The rows' ends of FilterRectPage under AVX-512, where the rectangle's
// first byte is among a row's first 62 and its last byte among the last
// 64: each side is one step of masked loads from the source rows, filtered
// where the rectangle is and copied elsewhere, and one masked store
// (against about forty scalar instructions a row).
struct RowEnds {
    int j0, j1;
    unsigned head, inside, tailByte;
    std::size_t nbw, s;
};

template <bool Minimum>
__attribute__((target("avx512f,avx512bw,avx512vl,bmi2"))) void FixRowsAvx512(const std::uint8_t *a, std::uint8_t *d,
                                                                             int y0, int y1, const RowEnds &e) {
    using V = V64;
    const std::size_t s = e.s, j0 = static_cast<std::size_t>(e.j0), j1 = static_cast<std::size_t>(e.j1);
    const __mmask64 left = _bzhi_u64(~0ull, static_cast<unsigned>(j0 + 1));
    const __mmask64 rightSrc = _bzhi_u64(~0ull, static_cast<unsigned>(e.nbw - j1)),
                    rightDst = _bzhi_u64(~0ull, static_cast<unsigned>(s - j1));
    const V ones = reinterpret_cast<V>(_mm512_set1_epi8(1)),
            identity = reinterpret_cast<V>(_mm512_set1_epi8(Minimum ? -1 : 0));
    // keepLeft: the source's bits on the left side (the bytes before the
    // rectangle and the bits of its first byte before it); inRight: the
    // rectangle's bits in its last byte (byte 0 of the right side); tail:
    // the bits before the page's width on the right side.
    const V keepLeft = reinterpret_cast<V>(
        _mm512_mask_set1_epi8(_mm512_maskz_set1_epi8(left >> 1, -1), 1ull << j0, static_cast<char>(e.head)));
    const V inRight = reinterpret_cast<V>(_mm512_maskz_set1_epi8(1, static_cast<char>(e.inside)));
    const V tail = reinterpret_cast<V>(
        _mm512_mask_set1_epi8(_mm512_set1_epi8(-1), 1ull << (e.nbw - 1 - j1), static_cast<char>(e.tailByte)));
    // A left side within 31 bytes (rectangles from within 248 pixels of the
    // page's left edge) takes 32-byte steps: two 64-byte ones cost about
    // 2 us more on the A4 page.
    const bool narrowLeft = j0 < 31;
    const __mmask32 left32 = static_cast<__mmask32>(left);
    const V32 ones32 = reinterpret_cast<V32>(_mm256_set1_epi8(1));
    const V32 keepLeft32 = reinterpret_cast<V32>(_mm256_mask_set1_epi8(
        _mm256_maskz_set1_epi8(left32 >> 1, -1), static_cast<__mmask32>(1u << (j0 & 31)), static_cast<char>(e.head)));
#define KB_LOAD(mask, p) reinterpret_cast<V>(_mm512_maskz_loadu_epi8(mask, p))
    for (int y = y0; y < y1; ++y) {
        const std::uint8_t *p = a + static_cast<std::size_t>(y) * s;
        std::uint8_t *q = d + static_cast<std::size_t>(y) * s;
        // Left: the filtered bytes from the rows and the bytes one on, the
        // source's bits kept before the rectangle.
        if (narrowLeft) {  // the same in 32 bytes
#define KB_LOAD32(p) reinterpret_cast<V32>(_mm256_maskz_loadu_epi8(left32, p))
            const V32 l = KB_LOAD32(p), ls = KB_LOAD32(p + s), lo = KB_LOAD32(p + 1), lso = KB_LOAD32(p + 1 + s);
#undef KB_LOAD32
            const V32 t = Minimum ? l & ls : l | ls, tn = Minimum ? lo & lso : lo | lso;
            const V32 sh = (t + t) | ((tn >> 7) & ones32), f = Minimum ? t & sh : t | sh;
            _mm256_mask_storeu_epi8(q, left32, reinterpret_cast<__m256i>((l & keepLeft32) | (f & ~keepLeft32)));
        } else {
            const V l = KB_LOAD(left, p), ls = KB_LOAD(left, p + s);
            const V lo = KB_LOAD(left, p + 1), lso = KB_LOAD(left, p + 1 + s);
            const V t = Minimum ? l & ls : l | ls, tn = Minimum ? lo & lso : lo | lso;
            const V sh = (t + t) | ((tn >> 7) & ones), f = Minimum ? t & sh : t | sh;
            _mm512_mask_storeu_epi8(q, left, reinterpret_cast<__m512i>((l & keepLeft) | (f & ~keepLeft)));
        }
        // Right: the last byte filtered with the identity past the
        // rectangle, the source after it, the bits past the width cleared.
        const V r = KB_LOAD(rightSrc, p + j1), rs = KB_LOAD(1, p + j1 + s);
        const V u = Minimum ? r & rs : r | rs, ue = (u & inRight) | (identity & ~inRight);
        const V fr = Minimum ? ue & ((ue + ue) | (identity >> 7 & ones)) : ue | ((ue + ue) | (identity >> 7 & ones));
        _mm512_mask_storeu_epi8(q + j1, rightDst, reinterpret_cast<__m512i>(((fr & inRight) | (r & ~inRight)) & tail));
    }
#undef KB_LOAD
}

// The rectangle's rows but its last are filtered whole by the run kernel, a
// band at a time; then, while the band is in cache, each row's bytes
// outside the rectangle are copied from the source over the run's values,
// and the bytes holding its first and last columns are taken again (the
// last with the identity past it). Those two come from the source rows, not
// from the run's result: a byte load from a row the run has just stored
// waits for the stores. The rectangle's last row is copied and filtered
// alone, and the rows around the rectangle are copied.
template <bool Minimum>
void FilterRectPage(const std::uint8_t *a, std::uint8_t *d, int stride, int pageW, int count, const RectSpan &r) {
    const auto op = [](unsigned u, unsigned v) { return Minimum ? u & v : u | v; };
    const std::size_t s = static_cast<std::size_t>(stride), nbw = static_cast<std::size_t>(pageW + 7) / 8;
    const auto copyRows = [&](int from, int to) {
        if (to > from) LogicRows({a + from * s, stride, a, 0, d + from * s, stride, pageW, to - from}, Logic::kCopy);
    };
    copyRows(0, r.y);
    const int j0 = r.x >> 3, j1 = (r.x + r.w - 1) >> 3, end = (r.x + r.w) & 7;
    const unsigned identity = Minimum ? 0xFFu : 0u, inside = (0xFF00u >> (end != 0 ? end : 8)) & 0xFFu,
                   head = ~(0xFFu >> (r.x & 7)) & 0xFFu;
    const bool avx512 = Avx512On(), avx2 = Avx2On();
    const int lastRow = r.y + r.h - 1;
    const unsigned tailByte = (pageW & 7) != 0 ? (0xFF00u >> (pageW & 7)) & 0xFFu : 0xFFu;
    const RowEnds ends{j0, j1, head, inside, tailByte, nbw, s};
    const bool narrowEnds = avx512 && j0 < j1 && j0 < 62 && s - static_cast<std::size_t>(j1) <= 64;
    for (int y0 = r.y; y0 < lastRow; y0 += kBand) {
        const int y1 = std::min(y0 + kBand, lastRow);
        FilterRun<Minimum>(a, d, s, static_cast<std::size_t>(y0) * s, static_cast<std::size_t>(y1) * s, avx512, avx2);
        if (narrowEnds) {
            FixRowsAvx512<Minimum>(a, d, y0, y1, ends);
            continue;
        }
        for (int y = y0; y < y1; ++y) {
            const std::uint8_t *p = a + static_cast<std::size_t>(y) * s;
            std::uint8_t *q = d + static_cast<std::size_t>(y) * s;
            CopyFew(q, p, static_cast<std::size_t>(j0));
            if (j0 < j1) {
                const unsigned t = op(p[j0], p[j0 + s]), next = op(p[j0 + 1], p[j0 + 1 + s]);
                const unsigned f = op(t, ((t << 1) | (next >> 7)) & 0xFFu);
                q[j0] = static_cast<std::uint8_t>((f & ~head) | (p[j0] & head));
            }
            const unsigned t = (op(p[j1], p[j1 + s]) & inside) | (identity & ~inside);
            const unsigned f = op(t, ((t << 1) | (identity >> 7)) & 0xFFu);
            unsigned v = (f & inside) | (p[j1] & ~inside);
            if (j0 == j1) v = (v & ~head) | (p[j0] & head);
            q[j1] = static_cast<std::uint8_t>(v);
            CopyFew(q + j1 + 1, p + j1 + 1, nbw - static_cast<std::size_t>(j1) - 1);
            ClearRowTail(q, pageW, stride);
        }
    }
    copyRows(lastRow, lastRow + 1);
    Filter2x2<Minimum>(a + static_cast<std::size_t>(lastRow) * s + j0, nullptr,
                       d + static_cast<std::size_t>(lastRow) * s + j0, r.x & 7, r.w, avx2);
    copyRows(lastRow + 1, count);
}

}  // namespace

void Filter2x2Page(const std::uint8_t *a, std::uint8_t *d, int stride, int w, int count, bool minimum) {
    if (minimum)
        FilterPage<true>(a, d, stride, w, count);
    else
        FilterPage<false>(a, d, stride, w, count);
}

void Filter2x2RectPage(const std::uint8_t *a, std::uint8_t *d, int stride, int pageW, int count, const RectSpan &r,
                       bool minimum) {
    if (r.w <= 0 || r.h <= 0) return;
    if (minimum)
        FilterRectPage<true>(a, d, stride, pageW, count, r);
    else
        FilterRectPage<false>(a, d, stride, pageW, count, r);
}

void Filter2x2Row(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int x, int w, bool minimum) {
    if (minimum)
        Filter2x2<true>(a, b, d, x, w, Avx2On());
    else
        Filter2x2<false>(a, b, d, x, w, Avx2On());
}

void Filter2x2Rows(const std::uint8_t *a, std::ptrdiff_t strideA, std::uint8_t *d, std::ptrdiff_t strideD, int x, int w,
                   int count, bool minimum) {
    if (minimum)
        Filter2x2Page<true>(a, strideA, d, strideD, x, w, count);
    else
        Filter2x2Page<false>(a, strideA, d, strideD, x, w, count);
}

namespace {

// 32-byte steps and one overlapping the last; spans under 32 bytes by 8
// and then single bytes.
__attribute__((target("avx2"))) void AndNotSpanRowsAvx2(const std::uint8_t *a, std::ptrdiff_t strideA,
                                                        const std::uint8_t *m, std::ptrdiff_t strideM, std::uint8_t *d,
                                                        std::ptrdiff_t strideD, std::size_t n, int count) {
    for (int y = 0; y < count; ++y, a += strideA, m += strideM, d += strideD) {
        std::size_t i = 0;
        for (; i + 32 < n; i += 32) Store32(d + i, Load32(a + i) & ~Load32(m + i));
        Store32(d + n - 32, Load32(a + n - 32) & ~Load32(m + n - 32));
    }
}

}  // namespace

void AndNotSpanRows(const std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *m, std::ptrdiff_t strideM,
                    std::uint8_t *d, std::ptrdiff_t strideD, int n, int count) {
    if (n >= 32 && Avx2On()) {
        AndNotSpanRowsAvx2(a, strideA, m, strideM, d, strideD, static_cast<std::size_t>(n), count);
        return;
    }
    for (int y = 0; y < count; ++y, a += strideA, m += strideM, d += strideD) {
        int i = 0;
        for (; i + 8 <= n; i += 8) Store(d + i, Load<std::uint64_t>(a + i) & ~Load<std::uint64_t>(m + i));
        for (; i < n; ++i) d[i] = static_cast<std::uint8_t>(a[i] & ~m[i]);
    }
}

void AndRowsBack(std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *b, std::ptrdiff_t strideB, std::uint8_t *d,
                 int dstStride, int w, int count) {
    if (Avx512On() && w >= 512) {
        AndRowsBackAvx512(a, strideA, b, strideB, d, dstStride, w, count);
        return;
    }
    if (Avx2On()) {
        AndRowsBackAvx2(a, strideA, b, strideB, d, dstStride, w, count);
        return;
    }
    plain::AndRowsBack(a, strideA, b, strideB, d, dstStride, w, count);
}

void LogicRows(const BitRows &rows, Logic op) {
    BitRows r = rows;
    if (op == Logic::kCopy || op == Logic::kNot) r.b = r.a, r.strideB = r.strideA;
    switch (op) {
        case Logic::kCopy: Rows<Logic::kCopy>(r); break;
        case Logic::kNot: Rows<Logic::kNot>(r); break;
        case Logic::kAnd: Rows<Logic::kAnd>(r); break;
        case Logic::kOr: Rows<Logic::kOr>(r); break;
        case Logic::kAndNot: Rows<Logic::kAndNot>(r); break;
    }
}

}  // namespace quarvel::kernels
