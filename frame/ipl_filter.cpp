// iplMinFilter and iplMaxFilter: the minimum or maximum over an n x m
// neighbourhood placed by its anchor cell; with the anchor at (0, 0) the
// neighbourhood of (x, y) is columns x .. x + n - 1 and stored rows
// y .. y + m - 1. The region is the whole image to the filter: cells beyond
// it are left out of the minimum or maximum (nothing outside is read).
// With the anchor at cell (0, 0) the spans double (each step combines a row
// or the rows with themselves shifted by the span so far), so a side of n
// costs log2(n) steps per axis:
// - 1-bit rows as 64-bit words (the leftmost pixel in the most significant
//   bit), each step a shift of the whole row by the span and an AND (minimum)
//   or OR (maximum); rows held in one scratch page, the last vertical step
//   combined on the way out into the destination.
// - 8-bit rows with SSE2 byte minimum or maximum, written into the
//   destination; a 2 x 2 neighbourhood (text effect levels 1 and -1) in one
//   pass, each destination row from its two source rows and their
//   neighbours one column on (AVX2 where present).
// For sides of at most 2 rows, two spread rows roll down the page instead
// and every destination row is written once. Other anchors, and an image
// filtered onto itself, take the plain path, which is also the oracle of
// the fast one: 8-bit images on OpenCV's erode and dilate (doubling spans
// beyond a side of 128), 1-bit images AND-ing or OR-ing shifted copies of
// their packed rows a byte at a time.
#include <emmintrin.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "frame/bits.h"
#include "frame/kernels_bits.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"
#include "frame/kernels.h"

namespace quarvel {

namespace {

// out bit x = in bit x + k, with `fill` bits shifted in past the end.
void ShiftBits(const std::vector<std::uint8_t> &in, std::vector<std::uint8_t> &out, int k, std::uint8_t fill) {
    const std::size_t n = in.size();
    const std::size_t bytes = static_cast<std::size_t>(k) >> 3;
    const int bitsShift = k & 7;
    for (std::size_t i = 0; i < n; ++i) {
        const std::uint8_t a = i + bytes < n ? in[i + bytes] : fill;
        const std::uint8_t b = i + bytes + 1 < n ? in[i + bytes + 1] : fill;
        out[i] = bitsShift == 0 ? a : static_cast<std::uint8_t>((a << bitsShift) | (b >> (8 - bitsShift)));
    }
}

// row(x) becomes op over row(x .. x + n - 1), cells past the end being the
// identity: spans double (1, 2, 4 ...) until they reach n, so a pass costs
// log2(n) shifts of the row instead of n.
void Spread(std::vector<std::uint8_t> &row, std::vector<std::uint8_t> &shifted, int n, bool minimum,
            std::uint8_t identity) {
    const long long limit = static_cast<long long>(row.size()) * 8;
    for (long long have = 1; have < n && have < limit;) {
        const int step = static_cast<int>(std::min<long long>(have, n - have));
        ShiftBits(row, shifted, step, identity);
        for (std::size_t i = 0; i < row.size(); ++i) row[i] = minimum ? (row[i] & shifted[i]) : (row[i] | shifted[i]);
        have += step;
    }
}

void BitonalFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY, bool minimum) {
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const int w = rs.width, h = rs.height;
    const std::size_t bytes = static_cast<std::size_t>((w + 7) / 8);
    const std::uint8_t identity = minimum ? 0xFF : 0x00;
    // Each region row, aligned to bit 0 and padded with the identity.
    auto load = [&](int y, std::vector<std::uint8_t> &row) {
        std::fill(row.begin(), row.end(), identity);
        bits::Copy(RowOf(*src, rs.y + y), rs.x, row.data(), 0, w);
    };
    // Horizontal pass: row h(x) = op over columns x - anchorX .. x - anchorX + nCols - 1.
    std::vector<std::vector<std::uint8_t>> horiz(static_cast<std::size_t>(h), std::vector<std::uint8_t>(bytes + 1));
    std::vector<std::uint8_t> row(bytes + 1), shifted(bytes + 1), acc(bytes + 1);
    for (int y = 0; y < h; ++y) {
        load(y, row);
        if (anchorX == 0) {
            horiz[y] = row;
            Spread(horiz[y], shifted, nCols, minimum, identity);
            continue;
        }
        std::fill(acc.begin(), acc.end(), identity);
        for (int dx = 0; dx < nCols; ++dx) {
            const int k = dx - anchorX;
            if (k >= 0) {
                ShiftBits(row, shifted, k, identity);
            } else {  // cells left of the pixel: shift right
                std::fill(shifted.begin(), shifted.end(), identity);
                bits::Copy(row.data(), 0, shifted.data(), -k, std::max(0, w + k));
            }
            for (std::size_t i = 0; i < acc.size(); ++i) acc[i] = minimum ? (acc[i] & shifted[i]) : (acc[i] | shifted[i]);
        }
        horiz[y] = acc;
    }
    // Vertical pass over stored rows y - anchorY .. y - anchorY + nRows - 1;
    // with the anchor at 0, by doubling spans as in the horizontal pass.
    if (anchorY == 0) {
        for (long long have = 1; have < nRows && have < h;) {
            const int step = static_cast<int>(std::min<long long>(have, nRows - have));
            for (int y = 0; y + step < h; ++y)
                for (std::size_t i = 0; i < acc.size(); ++i)
                    horiz[y][i] = minimum ? (horiz[y][i] & horiz[y + step][i]) : (horiz[y][i] | horiz[y + step][i]);
            have += step;
        }
        for (int y = 0; y < h; ++y) bits::Copy(horiz[y].data(), 0, RowOf(*dst, rd.y + y), rd.x, w);
        return;
    }
    for (int y = 0; y < h; ++y) {
        std::fill(acc.begin(), acc.end(), identity);
        for (int dy = 0; dy < nRows; ++dy) {
            const int yy = y + dy - anchorY;
            if (yy < 0 || yy >= h) continue;
            for (std::size_t i = 0; i < acc.size(); ++i)
                acc[i] = minimum ? (acc[i] & horiz[yy][i]) : (acc[i] | horiz[yy][i]);
        }
        bits::Copy(acc.data(), 0, RowOf(*dst, rd.y + y), rd.x, w);
    }
}

// Beyond this side OpenCV's rectangle erosion, which costs the side per
// pixel and axis, gives way to doubling spans.
constexpr int kLargeSide = 128;

// The minimum (maximum) over columns x .. x + nCols - 1 and rows
// y .. y + nRows - 1 of an 8-bit image, cells past its end left out: spans
// double per axis (each step combines the image with itself shifted by the
// span so far), log2 of the side in passes of the image.
void SpreadGray(const cv::Mat &in, cv::Mat &out, int nCols, int nRows, bool minimum) {
    cv::Mat a = in.clone(), b(in.size(), in.type());
    const auto combine = [minimum](const cv::Mat &x, const cv::Mat &y, cv::Mat to) {
        if (minimum)
            cv::min(x, y, to);
        else
            cv::max(x, y, to);
    };
    // Along one axis (columns when `across`), each step writes into the
    // other buffer: the combined head, then the tail that has no partner yet.
    const auto doubleSpans = [&](int side, bool across) {
        const auto part = [across](const cv::Mat &m, int from, int to) { return across ? m.colRange(from, to) : m.rowRange(from, to); };
        const int size = across ? a.cols : a.rows;
        for (long long have = 1; have < side && have < size;) {
            const int step = static_cast<int>(std::min<long long>(have, side - have)), keep = size - step;
            combine(part(a, 0, keep), part(a, step, size), part(b, 0, keep));
            part(a, keep, size).copyTo(part(b, keep, size));
            std::swap(a, b);
            have += step;
        }
    };
    doubleSpans(nCols, true);
    doubleSpans(nRows, false);
    a.copyTo(out);
}

// --- Fast paths, anchor (0, 0) ---------------------------------------------

inline std::uint64_t LoadBig64(const std::uint8_t *p) {
    std::uint64_t v;
    std::memcpy(&v, p, 8);
    return __builtin_bswap64(v);
}

inline void StoreBig64(std::uint8_t *p, std::uint64_t v) {
    v = __builtin_bswap64(v);
    std::memcpy(p, &v, 8);
}

// row word i becomes op(row word i, the row shifted left by k bits), words
// past the end being the identity; in place, word by word upwards (each
// word reads only itself and words above it).
template <bool Minimum>
void SpreadWords(std::uint64_t *row, int words, long long k, std::uint64_t identity) {
    const auto op = [](std::uint64_t a, std::uint64_t b) { return Minimum ? (a & b) : (a | b); };
    const int q = static_cast<int>(std::min<long long>(k >> 6, words));
    const int r = static_cast<int>(k & 63);
    int i = 0;
    if (r == 0) {
        for (; i + q < words; ++i) row[i] = op(row[i], row[i + q]);
    } else {
        for (; i + q + 1 < words; ++i) row[i] = op(row[i], (row[i + q] << r) | (row[i + q + 1] >> (64 - r)));
        if (i + q < words) {
            row[i] = op(row[i], (row[i + q] << r) | (identity >> (64 - r)));
            ++i;
        }
    }
    for (; i < words; ++i) row[i] = op(row[i], identity);
}

template <bool Minimum>
void CombineWords(const std::uint64_t *a, const std::uint64_t *b, std::uint64_t *d, int words) {
    for (int i = 0; i < words; ++i) d[i] = Minimum ? (a[i] & b[i]) : (a[i] | b[i]);
}

template <bool Minimum>
void BitonalFilterWords(const IplImage &src, const Region &rs, IplImage &dst, const Region &rd, int nCols, int nRows) {
    const int w = rs.width, h = rs.height;
    const int words = (w + 63) / 64;
    const std::size_t nbytes = static_cast<std::size_t>((w + 7) / 8), whole = nbytes / 8;
    const std::uint64_t identity = Minimum ? ~0ull : 0ull;
    // Bits past w in the last word are the identity.
    const std::uint64_t tail = (w & 63) == 0 ? 0 : ~0ull >> (w & 63);
    std::uint8_t bytes[16];
    // Region row y, its bits from bit 0 of word 0, spread along the row.
    // Source bytes from the one holding the region's first bit to the one
    // holding its last, and the bit phases of both images.
    const int srcShift = rs.x & 7, dstShift = rd.x & 7;
    const std::size_t avail = static_cast<std::size_t>(((rs.x + w - 1) >> 3) - (rs.x >> 3) + 1);
    const auto load = [&](int y, std::uint64_t *row) {
        const std::uint8_t *s = RowOf(src, rs.y + y) + (rs.x >> 3);
        std::size_t j = 0;
        if (srcShift == 0) {
            for (; j < whole; ++j) row[j] = LoadBig64(s + 8 * j);
        } else {
            // Nine source bytes a word while the ninth lies in the region's bytes.
            for (; 8 * j + 9 <= avail && j < static_cast<std::size_t>(words); ++j)
                row[j] = (LoadBig64(s + 8 * j) << srcShift) | (s[8 * j + 8] >> (8 - srcShift));
        }
        if (j < static_cast<std::size_t>(words)) {
            // The last word or two, bit-exact through a buffer.
            std::memset(bytes, Minimum ? 0xFF : 0x00, sizeof bytes);
            bits::Copy(RowOf(src, rs.y + y), rs.x + static_cast<int>(64 * j), bytes, 0, w - static_cast<int>(64 * j));
            for (std::size_t k = 0; j < static_cast<std::size_t>(words); ++j, ++k) row[j] = LoadBig64(bytes + 8 * k);
        }
        row[words - 1] = Minimum ? (row[words - 1] | tail) : (row[words - 1] & ~tail);
        for (long long have = 1; have < nCols && have < 64LL * words;) {
            const long long step = std::min<long long>(have, nCols - have);
            SpreadWords<Minimum>(row, words, step, identity);
            have += step;
        }
    };
    // Whole destination bytes stored eight at a time, the edges through
    // bits::Copy, which keeps the bits past the region.
    const auto store = [&](int y, const std::uint64_t *row) {
        std::uint8_t *line = RowOf(dst, rd.y + y), *d = line + (rd.x >> 3);
        int done = 0;  // bits of the row stored
        std::size_t i = 0;
        if (dstShift == 0) {
            for (; 64 * (i + 1) <= static_cast<std::size_t>(w); ++i) StoreBig64(d + 8 * i, row[i]);
            done = static_cast<int>(64 * i);
        } else {
            // The head up to the byte boundary, then chunk i = row bits
            // from head + 64 i on, from words i and i + 1.
            const int head = std::min(8 - dstShift, w);
            const std::uint8_t first = static_cast<std::uint8_t>(row[0] >> 56);
            bits::Copy(&first, 0, line, rd.x, head);
            for (; head + 64 * (i + 1) <= static_cast<std::size_t>(w) && i + 1 < static_cast<std::size_t>(words); ++i)
                StoreBig64(d + 1 + 8 * i, (row[i] << head) | (row[i + 1] >> (64 - head)));
            done = head + static_cast<int>(64 * i);
        }
        if (done < w) {
            const std::size_t k = static_cast<std::size_t>(done) / 64;
            std::uint8_t buf[16];
            StoreBig64(buf, row[k]);
            StoreBig64(buf + 8, k + 1 < static_cast<std::size_t>(words) ? row[k + 1] : 0);
            bits::Copy(buf, done & 63, line, rd.x + done, w - done);
        }
    };
    const std::size_t rowWords = static_cast<std::size_t>(words);
    if (nRows <= 2 || h <= 2) {
        // Two rolling rows: destination row y from the spread rows y and
        // y + 1 (row y alone for one row, or at the top).
        std::vector<std::uint64_t> rolling(3 * rowWords);
        std::uint64_t *cur = rolling.data(), *next = cur + rowWords, *out = next + rowWords;
        load(0, cur);
        for (int y = 0; y < h; ++y) {
            if (nRows == 1 || y + 1 == h) {
                store(y, cur);
                if (y + 1 < h) load(y + 1, cur);
                continue;
            }
            load(y + 1, next);
            CombineWords<Minimum>(cur, next, out, words);
            store(y, out);
            std::swap(cur, next);
        }
        return;
    }
    std::unique_ptr<std::uint64_t[]> page(new std::uint64_t[rowWords * h]);
    for (int y = 0; y < h; ++y) load(y, page.get() + rowWords * y);
    // Vertical steps but the last in place; the last one on the way out.
    long long have = 1, last = 0;
    while (have < nRows && have < h) {
        const long long step = std::min<long long>(have, nRows - have);
        have += step;
        if (have >= nRows || have >= h) {
            last = step;
            break;
        }
        for (long long y = 0; y + step < h; ++y) {
            std::uint64_t *a = page.get() + rowWords * y;
            CombineWords<Minimum>(a, a + rowWords * step, a, words);
        }
    }
    std::vector<std::uint64_t> out(rowWords);
    for (int y = 0; y < h; ++y) {
        const std::uint64_t *a = page.get() + rowWords * y;
        if (last != 0 && y + last < h) {
            CombineWords<Minimum>(a, a + rowWords * last, out.data(), words);
            a = out.data();
        }
        store(y, a);
    }
}

// d[x] = op(a[x], b[x]) for n bytes; d may be a.
template <bool Minimum>
void CombineBytes(const std::uint8_t *a, const std::uint8_t *b, std::uint8_t *d, int n) {
    int x = 0;
    for (; x + 16 <= n; x += 16) {
        const __m128i u = _mm_loadu_si128(reinterpret_cast<const __m128i *>(a + x));
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i *>(b + x));
        _mm_storeu_si128(reinterpret_cast<__m128i *>(d + x), Minimum ? _mm_min_epu8(u, v) : _mm_max_epu8(u, v));
    }
    for (; x < n; ++x) d[x] = Minimum ? std::min(a[x], b[x]) : std::max(a[x], b[x]);
}

// d = the op over columns x .. x + n - 1 of the w levels of s, cells past
// the end left out; d may be s. Each step combines the row with itself
// shifted by the span so far, upwards, so in place it reads only what it
// has not yet written.
template <bool Minimum>
void SpreadGrayRow(const std::uint8_t *s, std::uint8_t *d, int w, int n) {
    if (n <= 1 || w <= 1) {
        if (d != s) std::memcpy(d, s, static_cast<std::size_t>(w));
        return;
    }
    const std::uint8_t *from = s;
    for (long long have = 1; have < n && have < w;) {
        const int step = static_cast<int>(std::min<long long>(have, n - have));
        CombineBytes<Minimum>(from, from + step, d, w - step);
        if (d != from) std::memcpy(d + w - step, from + w - step, static_cast<std::size_t>(step));
        from = d;
        have += step;
    }
    if (from != d) std::memcpy(d, s, static_cast<std::size_t>(w));
}

// Rows of a region narrower than the image are not one stream of memory,
// which the processor's own prefetching follows poorly: each source row is
// fetched this many rows ahead (a whole page's rows are one stream, and
// prefetching them costs more than it saves).
constexpr int kRowsAhead = 4;

template <bool Minimum>
void GrayFilterRows(const IplImage &src, const Region &rs, IplImage &dst, const Region &rd, int nCols, int nRows) {
    const int w = rs.width, h = rs.height;
    const auto in = [&](int y) { return RowOf(src, rs.y + y) + rs.x; };
    const auto out = [&](int y) { return RowOf(dst, rd.y + y) + rd.x; };
    if (nRows == 2 && nCols == 2) {
        const bool ahead = w < src.width;  // rows of a narrower region are not one stream
        for (int y = 0; y + 1 < h; ++y) {
            if (ahead && y + kRowsAhead < h) kernels::PrefetchRow(in(y + kRowsAhead), static_cast<std::size_t>(w));
            kernels::MinMaxSquareRow(in(y), in(y + 1), out(y), w, Minimum);
        }
        kernels::MinMaxSquareRow(in(h - 1), in(h - 1), out(h - 1), w, Minimum);
        return;
    }
    if (nRows <= 2) {
        // Two rolling rows: destination row y from the spread rows y and y + 1.
        std::vector<std::uint8_t> rolling(2 * static_cast<std::size_t>(w));
        std::uint8_t *cur = rolling.data(), *next = cur + w;
        if (nRows == 1) {
            for (int y = 0; y < h; ++y) SpreadGrayRow<Minimum>(in(y), out(y), w, nCols);
            return;
        }
        SpreadGrayRow<Minimum>(in(0), cur, w, nCols);
        for (int y = 0; y < h; ++y) {
            if (y + 1 == h) {
                std::memcpy(out(y), cur, static_cast<std::size_t>(w));
                break;
            }
            SpreadGrayRow<Minimum>(in(y + 1), next, w, nCols);
            CombineBytes<Minimum>(cur, next, out(y), w);
            std::swap(cur, next);
        }
        return;
    }
    for (int y = 0; y < h; ++y) SpreadGrayRow<Minimum>(in(y), out(y), w, nCols);
    for (long long have = 1; have < nRows && have < h;) {
        const int step = static_cast<int>(std::min<long long>(have, nRows - have));
        for (int y = 0; y + step < h; ++y) CombineBytes<Minimum>(out(y), out(y + step), out(y), w);
        have += step;
    }
}

}  // namespace

void MinMaxFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY, bool minimum,
                  bool plain) {
    if (src == nullptr || dst == nullptr || !SameFormat(*src, *dst) || nCols <= 0 || nRows <= 0) return;
    if (anchorX < 0 || anchorY < 0 || anchorX >= nCols || anchorY >= nRows) return;
    const PixelFormat f = FormatOf(*src);
    if (f != PixelFormat::kBitonal && f != PixelFormat::kGray) return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    // The fast paths read every source row before writing its destination
    // rows, which an image filtered onto itself would overwrite first.
    const bool fast = !plain && anchorX == 0 && anchorY == 0 && src->imageData != dst->imageData;
    if (f == PixelFormat::kBitonal) {
        if (fast && nCols == 2 && nRows == 2 && (rs.x & 7) == (rd.x & 7)) {
            // The 2 x 2 cell of the first text levels, regions in the same
            // bit phase: one pass of whole bytes, each destination row from
            // its source row and the next.
            kernels::Filter2x2Rows(RowOf(*src, rs.y) + (rs.x >> 3), src->widthStep, RowOf(*dst, rd.y) + (rd.x >> 3),
                                   dst->widthStep, rs.x & 7, rs.width, rs.height, minimum);
            return;
        }
        if (!fast)
            BitonalFilter(src, dst, nCols, nRows, anchorX, anchorY, minimum);
        else if (minimum)
            BitonalFilterWords<true>(*src, rs, *dst, rd, nCols, nRows);
        else
            BitonalFilterWords<false>(*src, rs, *dst, rd, nCols, nRows);
        return;
    }
    if (fast) {
        if (minimum)
            GrayFilterRows<true>(*src, rs, *dst, rd, nCols, nRows);
        else
            GrayFilterRows<false>(*src, rs, *dst, rd, nCols, nRows);
        return;
    }
    const cv::Mat in = MatOf(*src, rs);
    cv::Mat out = MatOf(*dst, rd);
    if (anchorX == 0 && anchorY == 0 && std::max(nCols, nRows) > kLargeSide) {
        SpreadGray(in, out, nCols, nRows, minimum);
        return;
    }
    const cv::Mat kernel = cv::Mat::ones(nRows, nCols, CV_8U);
    const int border = cv::BORDER_CONSTANT | cv::BORDER_ISOLATED;
    if (minimum)
        cv::erode(in, out, kernel, cv::Point(anchorX, anchorY), 1, border, cv::morphologyDefaultBorderValue());
    else
        cv::dilate(in, out, kernel, cv::Point(anchorX, anchorY), 1, border, cv::morphologyDefaultBorderValue());
}

void iplMinFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY) {
    MinMaxFilter(src, dst, nCols, nRows, anchorX, anchorY, true, false);
}

void iplMaxFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY) {
    MinMaxFilter(src, dst, nCols, nRows, anchorX, anchorY, false, false);
}

}  // namespace quarvel
