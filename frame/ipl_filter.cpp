// iplMinFilter and iplMaxFilter: the minimum or maximum over an n x m
// neighbourhood placed by its anchor cell; with the anchor at (0, 0) the
// neighbourhood of (x, y) is columns x .. x + n - 1 and stored rows
// y .. y + m - 1. The region is the whole image to the filter: cells beyond
// it are left out of the minimum or maximum (nothing outside is read).
// 8-bit images run on OpenCV's erode and dilate; 1-bit images AND (minimum)
// or OR (maximum) shifted copies of their rows, 64 bits a word (the byte-wise
// form stays in `plain` as the tests' oracle).
#include <opencv2/imgproc.hpp>
#include <algorithm>
#include <cstring>
#include <vector>

#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"

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

}  // namespace

namespace plain {

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
    // Vertical pass over stored rows y - anchorY .. y - anchorY + nRows - 1.
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

}  // namespace plain

namespace {

// The same filter on 64-bit words: each region row is held as big-endian
// words (bit x of the row in word x / 64, most significant first), padded
// with the identity; a shift by k bits is two word shifts, and the shifted
// copies and then the rows are combined a word at a time.
void BitonalFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY, bool minimum) {
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const int w = rs.width, h = rs.height;
    const std::uint64_t identity = minimum ? ~0ull : 0ull;
    const std::size_t words = static_cast<std::size_t>(w + 63) / 64;
    // Rows with `pad` identity words on each side, so every shift reads inside.
    const long long reach = std::max<long long>(nCols - 1 - anchorX, anchorX);
    const std::size_t pad = static_cast<std::size_t>(reach / 64 + 1);
    std::vector<std::uint64_t> row(words + 2 * pad), horiz(words * static_cast<std::size_t>(h));
    std::vector<std::uint8_t> packed(words * 8);
    const int tail = w & 63;
    const std::uint64_t tailMask = tail == 0 ? ~0ull : ~0ull << (64 - tail);  // the row's own bits in its last word
    for (int y = 0; y < h; ++y) {
        std::fill(packed.begin(), packed.end(), 0);
        bits::Copy(RowOf(*src, rs.y + y), rs.x, packed.data(), 0, w);
        std::fill(row.begin(), row.end(), identity);
        for (std::size_t i = 0; i < words; ++i) {
            std::uint64_t v;
            std::memcpy(&v, &packed[8 * i], 8);
            row[pad + i] = __builtin_bswap64(v);
        }
        row[pad + words - 1] = (row[pad + words - 1] & tailMask) | (identity & ~tailMask);
        std::uint64_t *acc = &horiz[static_cast<std::size_t>(y) * words];
        std::fill(acc, acc + words, identity);
        for (int dx = 0; dx < nCols; ++dx) {
            // Bit x of the shifted copy is row bit x + k.
            const long long k = dx - anchorX;
            const long long q = k >= 0 ? k / 64 : -((-k + 63) / 64);
            const int r = static_cast<int>(k - q * 64);
            const std::uint64_t *base = row.data() + pad + q;
            for (std::size_t i = 0; i < words; ++i) {
                const std::uint64_t v = r == 0 ? base[i] : (base[i] << r) | (base[i + 1] >> (64 - r));
                acc[i] = minimum ? (acc[i] & v) : (acc[i] | v);
            }
        }
    }
    std::vector<std::uint64_t> acc(words);
    for (int y = 0; y < h; ++y) {
        std::fill(acc.begin(), acc.end(), identity);
        const int y0 = std::max(0, y - anchorY), y1 = std::min(h - 1, y - anchorY + nRows - 1);
        for (int yy = y0; yy <= y1; ++yy) {
            const std::uint64_t *hr = &horiz[static_cast<std::size_t>(yy) * words];
            if (minimum) {
                for (std::size_t i = 0; i < words; ++i) acc[i] &= hr[i];
            } else {
                for (std::size_t i = 0; i < words; ++i) acc[i] |= hr[i];
            }
        }
        for (std::size_t i = 0; i < words; ++i) {
            const std::uint64_t v = __builtin_bswap64(acc[i]);
            std::memcpy(&packed[8 * i], &v, 8);
        }
        bits::Copy(packed.data(), 0, RowOf(*dst, rd.y + y), rd.x, w);
    }
}

void Filter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY, bool minimum) {
    if (src == nullptr || dst == nullptr || !SameFormat(*src, *dst) || nCols <= 0 || nRows <= 0) return;
    if (anchorX < 0 || anchorY < 0 || anchorX >= nCols || anchorY >= nRows) return;
    const PixelFormat f = FormatOf(*src);
    if (f == PixelFormat::kBitonal) {
        BitonalFilter(src, dst, nCols, nRows, anchorX, anchorY, minimum);
        return;
    }
    if (f != PixelFormat::kGray) return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const cv::Mat in = MatOf(*src, rs);
    cv::Mat out = MatOf(*dst, rd);
    const cv::Mat kernel = cv::Mat::ones(nRows, nCols, CV_8U);
    const int border = cv::BORDER_CONSTANT | cv::BORDER_ISOLATED;
    if (minimum)
        cv::erode(in, out, kernel, cv::Point(anchorX, anchorY), 1, border, cv::morphologyDefaultBorderValue());
    else
        cv::dilate(in, out, kernel, cv::Point(anchorX, anchorY), 1, border, cv::morphologyDefaultBorderValue());
}

}  // namespace

void iplMinFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY) {
    Filter(src, dst, nCols, nRows, anchorX, anchorY, true);
}

void iplMaxFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY) {
    Filter(src, dst, nCols, nRows, anchorX, anchorY, false);
}

}  // namespace quarvel
