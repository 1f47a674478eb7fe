// Row kernels for the copy-shaped passes: pixel reversal (Mirror), packed
// 1-bit reversal, a 256-entry table applied per byte (tone operations), a
// forward row copy that can prefetch a later row, and the 2 x 2 minimum
// and maximum of two rows (text effect).
// Each fast kernel has a plain twin in `plain`, the oracle its tests compare
// against bit for bit.
//
// Contracts: a kernel reads exactly the source bytes of its pixels and writes
// exactly the destination bytes of its pixels, except MirrorBits, which
// writes the bytes holding bits [0, w) of the destination and leaves the bits
// past w as they were. Source and destination never overlap. PrefetchRow
// reads nothing: a prefetch is a hint, and never faults.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quarvel::kernels {

// dst pixel i = src pixel n - 1 - i, pixels of `bpp` bytes (1, 3 or 4).
void MirrorRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp);
// dst bit i = src bit w - 1 - i for i < w; rows start at bit 0, the leftmost
// pixel in the most significant bit.
void MirrorBits(const std::uint8_t *src, std::uint8_t *dst, int w);
// Asks for the n bytes at p to be brought into the cache (no effect on
// results): for a pass that will read a row out of memory order, a few rows
// ahead of the one it works on.
void PrefetchRow(const std::uint8_t *p, std::size_t n);
// dst[i] = src[i] for n bytes, with the n bytes at `ahead` (null for none)
// prefetched along the way. Always forwards: the C library's copy of a
// few hundred bytes to a few kilobytes runs backwards when source and
// destination sit at nearby offsets of a 4 KB page, as rows of two pages
// allocated alike do, and reading rows backwards loses the prefetching that
// forward rows get.
void CopyRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t *ahead);
// MirrorBits over `count` rows `stride` bytes apart, each result row written
// whole: the bits past w and the padding up to `stride` cleared.
void MirrorBitRows(const std::uint8_t *src, std::uint8_t *dst, int stride, int w, int count);
// dst[i] = table[src[i]] for n bytes.
void LookupRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]);
// The same over n 4-byte pixels, the fourth byte copied unchanged.
void LookupRow32(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]);

// Gray levels of n colour pixels of `bpp` bytes (3 or 4): 0.212671 R +
// 0.715160 G + 0.072169 B rounded half up, as iplColorToGray gives them;
// with redDelta or blueDelta above 0, a pixel whose red (blue) is at least 60
// and exceeds both other channels by at least the delta is written as 0.
void ColourToGrayRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp, int redDelta, int blueDelta);

// dst = src + value, saturated to 0..255, for n bytes; with `keepFourth`,
// over 4-byte pixels whose fourth byte is copied unchanged (n counts bytes).
void AddSaturateRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, int value, bool keepFourth);

// d = a - b, saturated at 0, for n bytes; with `keepFourth`, over 4-byte
// pixels whose fourth byte keeps a's value. d may be a or b.
void SubtractSaturateRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth);

// d[x] = the minimum (or maximum) of a[x], a[x + 1], b[x] and b[x + 1] for
// x < w - 1, and of a[x] and b[x] at x = w - 1: rows a and b filtered over
// 2 x 2 cells, cells past the row left out. With b = a, over 1 x 2 cells.
void MinMaxSquareRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int w, bool minimum);

// Packs w gray levels into (w + 7) / 8 bytes of bits, most significant
// first: 1 where the level is at least `threshold`; bits past w are 0.
void ThresholdToBits(const std::uint8_t *src, std::uint8_t *packed, int w, int threshold);

// w pixels of a packed 1-bit row (most significant bit first) written as
// pixels of `bpp` bytes (1, 3 or 4): every colour byte `one` for a 1 bit and
// `zero` for a 0 bit, the fourth byte of a 4-byte pixel 255.
void ExpandBitsRow(const std::uint8_t *src, std::uint8_t *dst, int w, int bpp, std::uint8_t zero, std::uint8_t one);

// a[i] = d[i] = a[i] & b[i] for n bytes; with `keepFourth`, over 4-byte
// pixels whose fourth byte keeps a's value. b may not overlap a or d.
void AndRowTwice(std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth);

// In place over n colour pixels of `bpp` bytes (3 or 4): blue, green and red
// become (B >> 2) + (G >> 1) + (R >> 2), except, with `keepDistinct`, a pixel
// whose red (blue, green) is at least 60 and exceeds both other channels by
// at least redDelta (blueDelta, greenDelta), when that delta is above 0.
void DecolourRow(std::uint8_t *p, int n, int bpp, bool keepDistinct, int redDelta, int blueDelta, int greenDelta);

// In place over n colour pixels of `bpp` bytes (3 or 4), with the gray
// levels `gray` of the same pixels: a red pixel (R >= minLevel and its excess
// over the larger other channel >= colorDiff, or that excess above R / 2, or
// above 50 for R below 100) becomes pure red; else, with keepBlue, a blue one
// (the same first test for B) pure blue; every other pixel its gray level.
void RedMarksRow(std::uint8_t *p, const std::uint8_t *gray, int n, int bpp, int colorDiff, int minLevel, bool keepBlue);

// The first x in [from, to) whose colour pixel (`bpp` bytes, 3 or 4) has
// max(B, G, R) - min(B, G, R) >= minSpread, or `to` when none has.
int NextSpread(const std::uint8_t *row, int from, int to, int bpp, int minSpread);

// Turns the AVX2 kernels on (where the processor has AVX2) or off, so tests
// can run the SSE2 ones on any machine; returns the previous setting. Not
// for use while other threads run kernels.
bool UseAvx2(bool on);
// Whether the AVX2 kernels are on (for kernels kept in other files).
bool Avx2On();
// The same for the AVX-512 kernels (byte and word instructions and byte
// permutes); tests turn both off to reach the SSE2 ones.
bool UseAvx512(bool on);
bool Avx512On();
// Whether LookupRow runs at about a copy's speed (a few instructions per 64
// bytes), so a table beats arithmetic.
bool FastLookup();
// Turns the GFNI form of the AVX2 bit reversal on (where the processor has
// it) or off, so tests reach the nibble-table form too; returns the previous
// setting. GFNI is used only while AVX2 is on.
bool UseGfni(bool on);

namespace plain {
void MinMaxSquareRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int w, bool minimum);
int NextSpread(const std::uint8_t *row, int from, int to, int bpp, int minSpread);
void RedMarksRow(std::uint8_t *p, const std::uint8_t *gray, int n, int bpp, int colorDiff, int minLevel, bool keepBlue);
void DecolourRow(std::uint8_t *p, int n, int bpp, bool keepDistinct, int redDelta, int blueDelta, int greenDelta);
void AndRowTwice(std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth);
void ExpandBitsRow(const std::uint8_t *src, std::uint8_t *dst, int w, int bpp, std::uint8_t zero, std::uint8_t one);
void ThresholdToBits(const std::uint8_t *src, std::uint8_t *packed, int w, int threshold);
void AddSaturateRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, int value, bool keepFourth);
void SubtractSaturateRow(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, std::size_t n, bool keepFourth);
void ColourToGrayRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp, int redDelta, int blueDelta);
void MirrorRow(const std::uint8_t *src, std::uint8_t *dst, int n, int bpp);
void CopyRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t *ahead);
void MirrorBits(const std::uint8_t *src, std::uint8_t *dst, int w);
void MirrorBitRows(const std::uint8_t *src, std::uint8_t *dst, int stride, int w, int count);
void LookupRow(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]);
void LookupRow32(const std::uint8_t *src, std::uint8_t *dst, std::size_t n, const std::uint8_t table[256]);
}  // namespace plain

}  // namespace quarvel::kernels
