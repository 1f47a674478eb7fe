// Whole-byte kernels for packed 1-bit pages, a page (or a band of rows) a
// call: copy, complement, AND, OR and AND-NOT of rows (LogicRows), ImageAnd's
// AND written back to its first page (AndRowsBack), and the 2 x 2 minimum and
// maximum filter of the first text levels (Filter2x2Rows, over a whole page
// and over a page with a rectangle filtered, Filter2x2RectPage). 64 bytes a step
// under AVX-512 (the row logic), 32 under AVX2, 16 under SSE2; the plain byte and bit loops in `plain` are the
// oracle the tests compare against bit for bit.
//
// Contracts of LogicRows and AndRowsBack: they read the (w + 7) / 8 bytes
// of each source row and write exactly the `dstStride` bytes of each result
// row: its w pixels, then zeros for the bits past them and for the padding.
// A result row may be its own source row (every byte is loaded before it is
// stored) but may not overlap a source at any other offset. The filter's
// contract is at its declaration.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace quarvel::kernels {

// d = a (kCopy), ~a (kNot), a & b, a | b or a & ~b; b is not read for kCopy
// and kNot. With b a mask row, kOr sets and kAndNot clears the bits under it.
enum class Logic { kCopy, kNot, kAnd, kOr, kAndNot };

// `count` rows of w pixels: result row i at d + i * dstStride from source
// rows a + i * strideA and b + i * strideB. Source strides may be negative
// (a page walked from the top) or 0 (one row, such as a mask, for every row).
struct BitRows {
    const std::uint8_t *a;
    std::ptrdiff_t strideA;
    const std::uint8_t *b;
    std::ptrdiff_t strideB;
    std::uint8_t *d;
    int dstStride;
    int w, count;
};

void LogicRows(const BitRows &rows, Logic op);

// ImageAnd's rows: d = a & b as LogicRows gives it, and a's rows take the
// AND as well, written back only where it changes them. w is a multiple of 8,
// so a's bytes past its pixels are never touched.
void AndRowsBack(std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *b, std::ptrdiff_t strideB, std::uint8_t *d,
                 int dstStride, int w, int count);

// One row of the 2 x 2 minimum (AND) or maximum (OR) filter anchored at its
// first cell, over bits [x, x + w) of rows sharing their bit phase (x in
// 0..7): d bit i = op of bits i and i + 1 of row a and of row b (b null: row
// a alone, as on a page's last row), bit x + w counting as the identity.
// Writes the bytes holding bits [x, x + w); d's other bits keep their
// values. d may not overlap a or b.
void Filter2x2Row(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int x, int w, bool minimum);
// The same down `count` rows: row y from source rows y and y + 1 (the last
// row alone), strides in bytes.
void Filter2x2Rows(const std::uint8_t *a, std::ptrdiff_t strideA, std::uint8_t *d, std::ptrdiff_t strideD, int x, int w,
                   int count, bool minimum);

// The same over a whole page whose rows (source and result) lie `stride`
// bytes apart, from bit 0, each result row written whole: bits past w and
// the padding cleared. The rows but the last are filtered as one run of
// bytes (row y's bytes and the bytes one stride on), and then each row's
// last pixel byte is taken again with the identity past w.
void Filter2x2Page(const std::uint8_t *a, std::uint8_t *d, int stride, int w, int count, bool minimum);

// d = a & ~m over the first n bytes of `count` rows (strides in bytes; m
// may repeat one row with stride 0): a mark's bytes cleared in a page's
// rows whose other bytes are already in d. Nothing past the n bytes is read
// or written; d may not overlap a or m.
void AndNotSpanRows(const std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *m, std::ptrdiff_t strideM,
                    std::uint8_t *d, std::ptrdiff_t strideD, int n, int count);

// A rectangle of a page in storage rows: bits [x, x + w) of rows
// [y, y + h), inside the page.
struct RectSpan {
    int x, y, w, h;
};

// The page copied with the same filter over a rectangle taken as an image
// of its own (its last row alone, the bit past its last column the
// identity): the result's rows written in memory order, rows outside the
// rectangle copied, rows inside filtered over the rectangle's bits and
// copied around them; bits past pageW and the padding cleared. Source and
// result rows lie `stride` bytes apart and do not overlap.
void Filter2x2RectPage(const std::uint8_t *a, std::uint8_t *d, int stride, int pageW, int count, const RectSpan &r,
                       bool minimum);

// Clears a row's padding, n bytes at p: at most 4 on a DIB row, so plain
// stores, not a memset call per row (which costs more than a 1-bit row's
// copy).
inline void ZeroPadding(std::uint8_t *p, std::size_t n) {
    switch (n) {
        case 4: p[3] = 0; [[fallthrough]];
        case 3: p[2] = 0; [[fallthrough]];
        case 2: p[1] = 0; [[fallthrough]];
        case 1: p[0] = 0; [[fallthrough]];
        case 0: break;
        default: std::memset(p, 0, n);
    }
}

// Clears the bits of a row of `stride` bytes past its first w pixels: the
// rest of the byte holding pixel w - 1 and the bytes after it.
inline void ClearRowTail(std::uint8_t *row, int w, int stride) {
    int j = w >> 3;
    if ((w & 7) != 0) row[j] &= static_cast<std::uint8_t>(0xFF00u >> (w & 7)), ++j;
    ZeroPadding(row + j, static_cast<std::size_t>(stride - j));
}

namespace plain {
void LogicRows(const BitRows &rows, Logic op);
void AndRowsBack(std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *b, std::ptrdiff_t strideB, std::uint8_t *d,
                 int dstStride, int w, int count);
void Filter2x2Row(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int x, int w, bool minimum);
void Filter2x2Rows(const std::uint8_t *a, std::ptrdiff_t strideA, std::uint8_t *d, std::ptrdiff_t strideD, int x, int w,
                   int count, bool minimum);
void Filter2x2Page(const std::uint8_t *a, std::uint8_t *d, int stride, int w, int count, bool minimum);
void Filter2x2RectPage(const std::uint8_t *a, std::uint8_t *d, int stride, int pageW, int count, const RectSpan &r,
                       bool minimum);
void AndNotSpanRows(const std::uint8_t *a, std::ptrdiff_t strideA, const std::uint8_t *m, std::ptrdiff_t strideM,
                    std::uint8_t *d, std::ptrdiff_t strideD, int n, int count);
}  // namespace plain

}  // namespace quarvel::kernels
