// Packed 1-bit rows: 8 pixels per byte, the leftmost pixel in the most
// significant bit. Every routine touches only the bits it is given: bits
// before and after the span, padding included, keep their values, and no
// byte outside the span's bytes is read or written.
#pragma once

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace quarvel::bits {

inline int Get(const std::uint8_t *row, int x) { return (row[x >> 3] >> (7 - (x & 7))) & 1; }

inline void Set(std::uint8_t *row, int x, int value) {
    const std::uint8_t mask = static_cast<std::uint8_t>(0x80u >> (x & 7));
    if (value) {
        row[x >> 3] |= mask;
    } else {
        row[x >> 3] &= static_cast<std::uint8_t>(~mask);
    }
}

// Up to 8 bits starting at bit x, most significant first; `n` is how many
// bits are wanted, so the byte after is read only when the span reaches it.
inline std::uint8_t Load8(const std::uint8_t *row, int x, int n) {
    const int shift = x & 7;
    const std::uint8_t *p = row + (x >> 3);
    if (shift == 0) return p[0];
    unsigned v = static_cast<unsigned>(p[0]) << shift;
    if (shift + n > 8) v |= static_cast<unsigned>(p[1]) >> (8 - shift);
    return static_cast<std::uint8_t>(v);
}

// dst bits [dstX, dstX + count) = op(dst byte, source bits aligned to it),
// source bits read from srcX on. `op(d, s)` works on whole bytes; only the
// bits of the span are stored.
template <class Op>
inline void Apply(const std::uint8_t *src, int srcX, std::uint8_t *dst, int dstX, int count, Op op) {
    while (count > 0) {
        const int pos = dstX & 7;
        const int n = std::min(8 - pos, count);
        const unsigned s = static_cast<unsigned>(Load8(src, srcX, n)) >> pos;
        const unsigned mask = (0xFFu >> pos) & ~(0xFFu >> (pos + n));
        std::uint8_t &d = dst[dstX >> 3];
        d = static_cast<std::uint8_t>((d & ~mask) | (static_cast<unsigned>(op(d, static_cast<std::uint8_t>(s))) & mask));
        srcX += n;
        dstX += n;
        count -= n;
    }
}

// The same with a whole-byte fast path when source and destination share
// their bit phase: head bits to a byte boundary, whole bytes, tail bits.
template <class Op>
inline void ApplyRow(const std::uint8_t *src, int srcX, std::uint8_t *dst, int dstX, int count, Op op) {
    if ((srcX & 7) == (dstX & 7) && (dstX & 7) != 0 && count > 8) {
        const int head = 8 - (dstX & 7);
        Apply(src, srcX, dst, dstX, head, op);
        srcX += head;
        dstX += head;
        count -= head;
    }
    if (((srcX | dstX) & 7) == 0) {
        const int whole = count >> 3;
        const std::uint8_t *s = src + (srcX >> 3);
        std::uint8_t *d = dst + (dstX >> 3);
        for (int i = 0; i < whole; ++i) d[i] = static_cast<std::uint8_t>(op(d[i], s[i]));
        const int done = whole << 3;
        if (done < count) Apply(src, srcX + done, dst, dstX + done, count - done, op);
        return;
    }
    Apply(src, srcX, dst, dstX, count, op);
}

// d bits [x, x + count) = op(a bits, b bits) at the same places, the three
// rows sharing their bit phase (x in 0..7; 0 is the whole-row case): the head
// bits to a byte boundary merged, then eight bytes a step as 64-bit words,
// then bytes, the last partial byte merged; d's other bits keep their
// values. `op` must be a bitwise operation that takes 64-bit words as well
// as bytes. d may be a or b.
template <class Op>
inline void CombineInPhase(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int x, int count, Op op) {
    if (count <= 0) return;
    if (x != 0) {
        const int n = std::min(8 - x, count);
        const unsigned mask = (0xFFu >> x) & ~(0xFFu >> (x + n));
        d[0] = static_cast<std::uint8_t>((d[0] & ~mask) | (static_cast<unsigned>(op(a[0], b[0])) & mask));
        if (n == count) return;
        ++a, ++b, ++d;
        count -= n;
    }
    const int whole = count >> 3;
    int i = 0;
    for (; i + 8 <= whole; i += 8) {
        std::uint64_t u, v;
        std::memcpy(&u, a + i, 8);
        std::memcpy(&v, b + i, 8);
        const std::uint64_t r = op(u, v);
        std::memcpy(d + i, &r, 8);
    }
    for (; i < whole; ++i) d[i] = static_cast<std::uint8_t>(op(a[i], b[i]));
    if ((count & 7) != 0) {
        const unsigned mask = (0xFF00u >> (count & 7)) & 0xFFu;
        d[whole] = static_cast<std::uint8_t>((d[whole] & ~mask) | (static_cast<unsigned>(op(a[whole], b[whole])) & mask));
    }
}

inline void Copy(const std::uint8_t *src, int srcX, std::uint8_t *dst, int dstX, int count) {
    // Bits up to the destination's next byte boundary, then whole
    // destination bytes: moved whole when the source is aligned too, else
    // from two source bytes each.
    if ((dstX & 7) != 0 && count > 8) {
        const int head = 8 - (dstX & 7);
        Apply(src, srcX, dst, dstX, head, [](std::uint8_t, std::uint8_t s) { return s; });
        srcX += head;
        dstX += head;
        count -= head;
    }
    if (((srcX | dstX) & 7) == 0 && src + (srcX >> 3) != dst + (dstX >> 3)) {
        const int whole = count >> 3;
        std::memmove(dst + (dstX >> 3), src + (srcX >> 3), static_cast<std::size_t>(whole));
        if ((whole << 3) < count) {
            Apply(src, srcX + (whole << 3), dst, dstX + (whole << 3), count - (whole << 3),
                  [](std::uint8_t, std::uint8_t s) { return s; });
        }
        return;
    }
    if ((dstX & 7) == 0 && count >= 16) {
        // Into whole bytes from an odd bit offset: eight destination bytes
        // from nine source bytes, then two source bytes a byte, while the
        // last source byte still lies in the span; the rest bit-exact.
        const int shift = srcX & 7;
        const std::uint8_t *s = src + (srcX >> 3);
        std::uint8_t *d = dst + (dstX >> 3);
        const int whole = (count >> 3) - 1;
        int i = 0;
        for (; i + 8 <= whole; i += 8) {
            std::uint64_t v;
            std::memcpy(&v, s + i, 8);
            v = (__builtin_bswap64(v) << shift) | (s[i + 8] >> (8 - shift));
            v = __builtin_bswap64(v);
            std::memcpy(d + i, &v, 8);
        }
        for (; i < whole; ++i) d[i] = static_cast<std::uint8_t>((s[i] << shift) | (s[i + 1] >> (8 - shift)));
        Apply(src, srcX + (whole << 3), dst, dstX + (whole << 3), count - (whole << 3),
              [](std::uint8_t, std::uint8_t v) { return v; });
        return;
    }
    ApplyRow(src, srcX, dst, dstX, count, [](std::uint8_t, std::uint8_t s) { return s; });
}

// Sets (value non-zero) or clears bits [x, x + count).
inline void Fill(std::uint8_t *row, int x, int count, int value) {
    const std::uint8_t v = value ? 0xFF : 0x00;
    const auto set = [v](std::uint8_t, std::uint8_t) { return v; };
    if (count <= 16) {
        Apply(row, x, row, x, count, set);
        return;
    }
    // Head bits to a byte boundary, whole bytes, tail bits.
    const int head = (8 - (x & 7)) & 7;
    Apply(row, x, row, x, head, set);
    x += head;
    count -= head;
    std::memset(row + (x >> 3), v, static_cast<std::size_t>(count >> 3));
    Apply(row, x + (count & ~7), row, x + (count & ~7), count & 7, set);
}

// Bit-reversal of a byte.
extern const std::uint8_t kReverse[256];

}  // namespace quarvel::bits
