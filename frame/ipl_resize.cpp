// iplResize: scale the source region by xDst / xSrc and yDst / ySrc into the
// destination region (which it fills from its corner: the scaled size is
// clipped to the region). Cubic interpolation (2) or, for reductions,
// super-sampling (3, an area average); any other mode is linear. 8-bit and
// colour images run on OpenCV; a 1-bit image is resampled as gray levels 0
// and 255 and thresholded at 128, so thin strokes survive a reduction.
//
// A 1-bit super-sampled reduction by whole factors on both axes (the case
// OpenCV averages cell by cell) runs on the packed bits: each destination
// pixel counts the set bits of its cell and rounds the cell's mean level as
// that average does, in single precision (255 n / area, half to even, the
// int sum wrapping past 2^31 as it does there). It needs no 8-bit copy of
// the page, and no per-cell offset table (4 bytes per source pixel of a
// cell), which made Resize(1, 1) of a 20000 x 20000 page take 1.6 GB.
// Narrow cells are counted column by column on rows expanded to bytes of 0
// and 1; wide cells a byte of bits at a time.
//
// Other super-sampled reductions (8-bit, colour, and 1-bit read as gray
// levels) run on our own area reduction (area_reduce.cpp), which gives
// OpenCV's bytes; OpenCV computes what it does not cover. Every other 1-bit
// case expands the region to gray levels and resizes those.
#include <algorithm>
#include <cfloat>
#include <climits>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "frame/area_reduce.h"
#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"
#include "frame/kernels.h"

namespace quarvel {

namespace {

int CvMode(int interpolate) {
    switch (interpolate) {
        case IPL_INTER_CUBIC: return cv::INTER_CUBIC;
        case IPL_INTER_SUPER: return cv::INTER_AREA;
        case IPL_INTER_NN: return cv::INTER_NEAREST;
        default: return cv::INTER_LINEAR;
    }
}

// Set bits of row bits x .. x + n - 1.
std::int64_t CountBits(const std::uint8_t *row, std::int64_t x, std::int64_t n) {
    std::int64_t count = 0;
    for (; n > 0 && (x & 7) != 0; ++x, --n) count += bits::Get(row, static_cast<int>(x));
    const std::uint8_t *p = row + (x >> 3);
    for (; n >= 8; n -= 8, x += 8) count += __builtin_popcount(*p++);
    for (; n > 0; ++x, --n) count += bits::Get(row, static_cast<int>(x));
    return count;
}

// The whole factors of a super-sampled reduction from `from` to `to` pixels,
// decided as OpenCV decides it (the scale is the inverse of to / from, and
// must lie within DBL_EPSILON of an integer), or 0.
int WholeFactor(int from, int to) {
    const double scale = 1.0 / (static_cast<double>(to) / from);
    const double whole = std::nearbyint(scale);
    return scale >= 1.0 && whole <= INT_MAX && std::abs(scale - whole) < DBL_EPSILON ? static_cast<int>(whole) : 0;
}

// The mean level of a cell with `count` set bits, thresholded (see the file
// header).
inline bool CellIsSet(std::int64_t count, float scale) {
    const auto sum = static_cast<std::int32_t>(static_cast<std::uint32_t>(255 * count));
    return std::nearbyint(static_cast<float>(sum) * scale) >= 128.f;
}

// The super-sampled reduction of a 1-bit region by whole factors, on packed
// bits (see the file header); w x h destination pixels are written. Narrow
// cells (fx < 16, fy < 256) count their bits column by column: each source
// row is expanded to bytes of 0 or 1 and added into per-column byte counts,
// which are summed across each cell at the end of the cell's rows. Wider
// cells count bits a byte at a time.
void ReduceBitonalCells(const IplImage &src, const Region &rs, IplImage &dst, const Region &rd, int fx, int fy, int w,
                        int h) {
    const std::int64_t area = static_cast<std::int64_t>(fx) * fy;
    const float scale = 1.f / static_cast<float>(area);
    if (fx < 16 && fy < 256) {
        const int skip = rs.x & 7, n = w * fx;
        std::vector<std::uint8_t> ones(static_cast<std::size_t>(n + skip)), columns(static_cast<std::size_t>(n));
        std::vector<std::uint8_t> cells(static_cast<std::size_t>(w)), packed((static_cast<std::size_t>(w) + 7) / 8);
        std::vector<std::uint8_t> set(static_cast<std::size_t>(area) + 1);
        for (std::int64_t count = 0; count <= area; ++count) set[count] = CellIsSet(count, scale);
        for (int y = 0; y < h; ++y) {
            std::fill(columns.begin(), columns.end(), 0);
            for (int k = 0; k < fy; ++k) {
                kernels::ExpandBitsRow(RowOf(src, rs.y + y * fy + k) + (rs.x >> 3), ones.data(), n + skip, 1, 0, 1);
                const std::uint8_t *o = ones.data() + skip;
                for (int i = 0; i < n; ++i) columns[i] = static_cast<std::uint8_t>(columns[i] + o[i]);
            }
            std::uint8_t *out = RowOf(dst, rd.y + y);
            const std::uint8_t *c = columns.data();
            if (fx == 2) {
                for (int x = 0; x < w; ++x) cells[x] = set[c[2 * x] + c[2 * x + 1]];
            } else {
                for (int x = 0; x < w; ++x, c += fx) {
                    int count = 0;
                    for (int i = 0; i < fx; ++i) count += c[i];
                    cells[x] = set[count];
                }
            }
            kernels::ThresholdToBits(cells.data(), packed.data(), w, 1);
            bits::Copy(packed.data(), 0, out, rd.x, w);
        }
        return;
    }
    std::vector<std::int64_t> counts(static_cast<std::size_t>(w));
    for (int y = 0; y < h; ++y) {
        std::fill(counts.begin(), counts.end(), 0);
        for (int k = 0; k < fy; ++k) {
            const std::uint8_t *row = RowOf(src, rs.y + y * fy + k);
            for (int x = 0; x < w; ++x)
                counts[x] += CountBits(row, rs.x + static_cast<std::int64_t>(x) * fx, fx);
        }
        std::uint8_t *out = RowOf(dst, rd.y + y);
        for (int x = 0; x < w; ++x) bits::Set(out, rd.x + x, CellIsSet(counts[x], scale));
    }
}

}  // namespace

bool BitonalResizeFits(int srcW, int srcH, long long outW, long long outH, int interpolate) {
    if (srcW <= 0 || srcH <= 0 || outW <= 0 || outH <= 0 || outW > INT_MAX || outH > INT_MAX) return false;
    const int fx = WholeFactor(srcW, static_cast<int>(outW)), fy = WholeFactor(srcH, static_cast<int>(outH));
    if (CvMode(interpolate) == cv::INTER_AREA && fx > 0 && fy > 0) return true;
    const long long bytes = static_cast<long long>(srcW) * srcH + outW * outH;  // both at most 2^62
    return bytes <= kMaxBitonalResizeBytes;
}

void iplResize(IplImage *src, IplImage *dst, int xDst, int xSrc, int yDst, int ySrc, int interpolate) {
    if (src == nullptr || dst == nullptr || !SameFormat(*src, *dst)) return;
    if (xDst <= 0 || xSrc <= 0 || yDst <= 0 || ySrc <= 0) return;
    Region rs, rd;
    if (!RegionOf(*src, &rs) || !RegionOf(*dst, &rd)) return;
    const long long outW = static_cast<long long>(rs.width) * xDst / xSrc;
    const long long outH = static_cast<long long>(rs.height) * yDst / ySrc;
    const int w = static_cast<int>(std::min<long long>(outW, rd.width));
    const int h = static_cast<int>(std::min<long long>(outH, rd.height));
    if (w <= 0 || h <= 0) return;
    const int mode = CvMode(interpolate);

    if (FormatOf(*src) == PixelFormat::kBitonal) {
        if (!BitonalResizeFits(rs.width, rs.height, outW, outH, interpolate)) return;
        const int fx = WholeFactor(rs.width, static_cast<int>(outW)), fy = WholeFactor(rs.height, static_cast<int>(outH));
        if (mode == cv::INTER_AREA && fx > 0 && fy > 0) {
            ReduceBitonalCells(*src, rs, *dst, rd, fx, fy, w, h);
            return;
        }
        if (mode == cv::INTER_AREA && AreaReduceCovers(rs.width, rs.height, static_cast<int>(outW), static_cast<int>(outH))) {
            const AreaSource bitsIn{RowOf(*src, rs.y), src->widthStep, rs.width, rs.height, 1, rs.x};
            std::vector<std::uint8_t> levels(static_cast<std::size_t>(w) * h);
            if (AreaReduce(bitsIn, static_cast<int>(outW), static_cast<int>(outH), levels.data(), w, w, h)) {
                std::vector<std::uint8_t> packed((static_cast<std::size_t>(w) + 7) / 8);
                for (int y = 0; y < h; ++y) {
                    kernels::ThresholdToBits(levels.data() + static_cast<std::size_t>(y) * w, packed.data(), w, 128);
                    bits::Copy(packed.data(), 0, RowOf(*dst, rd.y + y), rd.x, w);
                }
                return;
            }
        }
        cv::Mat gray(rs.height, rs.width, CV_8UC1);
        for (int y = 0; y < rs.height; ++y) {
            const std::uint8_t *row = RowOf(*src, rs.y + y);
            std::uint8_t *g = gray.ptr<std::uint8_t>(y);
            for (int x = 0; x < rs.width; ++x) g[x] = bits::Get(row, rs.x + x) ? 255 : 0;
        }
        cv::Mat scaled;
        cv::resize(gray, scaled, cv::Size(static_cast<int>(outW), static_cast<int>(outH)), 0, 0, mode);
        for (int y = 0; y < h; ++y) {
            const std::uint8_t *g = scaled.ptr<std::uint8_t>(y);
            std::uint8_t *row = RowOf(*dst, rd.y + y);
            for (int x = 0; x < w; ++x) bits::Set(row, rd.x + x, g[x] >= 128);
        }
        return;
    }
    const cv::Mat in = MatOf(*src, rs);
    cv::Mat out = MatOf(*dst, Region{rd.x, rd.y, w, h});
    if (mode == cv::INTER_AREA && outW <= INT_MAX && outH <= INT_MAX) {  // our reductions, where they cover the sizes
        const AreaSource samples{in.data, static_cast<std::ptrdiff_t>(in.step), in.cols, in.rows, in.channels()};
        const int ow = static_cast<int>(outW), oh = static_cast<int>(outH);
        const auto step = static_cast<std::ptrdiff_t>(out.step);
        if (AreaReduce(samples, ow, oh, out.data, step, w, h)) return;
        if (outW * 2 == rs.width && outH * 2 == rs.height && AreaHalve(samples, out.data, step, w, h)) return;
    }
    if (w == outW && h == outH) {
        cv::resize(in, out, out.size(), 0, 0, mode);
    } else {  // the scaled image is larger than the region: keep its corner
        cv::Mat scaled;
        cv::resize(in, scaled, cv::Size(static_cast<int>(outW), static_cast<int>(outH)), 0, 0, mode);
        scaled(cv::Rect(0, 0, w, h)).copyTo(out);
    }
}

}  // namespace quarvel
