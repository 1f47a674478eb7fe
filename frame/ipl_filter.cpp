// iplMinFilter and iplMaxFilter: the minimum or maximum over an n x m
// neighbourhood placed by its anchor cell; with the anchor at (0, 0) the
// neighbourhood of (x, y) is columns x .. x + n - 1 and stored rows
// y .. y + m - 1. The region is the whole image to the filter: cells beyond
// it are left out of the minimum or maximum (nothing outside is read).
// 8-bit images run on OpenCV's erode and dilate; 1-bit images AND (minimum)
// or OR (maximum) shifted copies of their packed rows. With the anchor at
// cell 0 the spans double, so a side of n costs log2(n) passes per axis: on
// 1-bit rows always, on 8-bit images for sides beyond 128 (below that,
// OpenCV's erosion and dilation are faster).
#include <algorithm>
#include <opencv2/imgproc.hpp>
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
    // Each step writes into the other buffer: the combined head, then the
    // tail that has no partner yet.
    for (long long have = 1; have < nCols && have < a.cols;) {
        const int step = static_cast<int>(std::min<long long>(have, nCols - have)), keep = a.cols - step;
        combine(a.colRange(0, keep), a.colRange(step, a.cols), b.colRange(0, keep));
        a.colRange(keep, a.cols).copyTo(b.colRange(keep, a.cols));
        std::swap(a, b);
        have += step;
    }
    for (long long have = 1; have < nRows && have < a.rows;) {
        const int step = static_cast<int>(std::min<long long>(have, nRows - have)), keep = a.rows - step;
        combine(a.rowRange(0, keep), a.rowRange(step, a.rows), b.rowRange(0, keep));
        a.rowRange(keep, a.rows).copyTo(b.rowRange(keep, a.rows));
        std::swap(a, b);
        have += step;
    }
    a.copyTo(out);
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

}  // namespace

void iplMinFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY) {
    Filter(src, dst, nCols, nRows, anchorX, anchorY, true);
}

void iplMaxFilter(IplImage *src, IplImage *dst, int nCols, int nRows, int anchorX, int anchorY) {
    Filter(src, dst, nCols, nRows, anchorX, anchorY, false);
}

}  // namespace quarvel
