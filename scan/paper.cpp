// Helpers the content analyses share (scan/paper.h).
#include "scan/paper.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <vector>

namespace quarvel::scan {

int PaperDpi(const ScanPage &page) {
    const double longSide = std::max(page.width, page.height);
    // A3 is 16.5 inches long; anything past 18 inches at the stated
    // resolution is a wrong header, not a sheet.
    if (page.dpi > 0 && longSide / page.dpi <= 18.0) return page.dpi;
    return std::clamp(static_cast<int>(std::lround(longSide / 11.5)), 50, 1200);
}

cv::Mat CellMax(const cv::Mat &gray, int cell) {
    cell = std::max(1, cell);
    const int gw = (gray.cols + cell - 1) / cell, gh = (gray.rows + cell - 1) / cell;
    cv::Mat grid(gh, gw, CV_8U);
    std::vector<std::uint8_t> acc(gray.cols);
    for (int gy = 0; gy < gh; ++gy) {
        std::fill(acc.begin(), acc.end(), 0);
        for (int y = gy * cell; y < std::min(gray.rows, (gy + 1) * cell); ++y) {
            const std::uint8_t *p = gray.ptr<std::uint8_t>(y);
            std::uint8_t *a = acc.data();
            for (int x = 0; x < gray.cols; ++x) a[x] = std::max(a[x], p[x]);
        }
        std::uint8_t *g = grid.ptr<std::uint8_t>(gy);
        for (int gx = 0; gx < gw; ++gx) {
            std::uint8_t m = 0;
            for (int x = gx * cell; x < std::min(gray.cols, (gx + 1) * cell); ++x) m = std::max(m, acc[x]);
            g[gx] = m;
        }
    }
    return grid;
}

cv::Mat PaperLevel(const cv::Mat &gray, int cell, int window) {
    cell = std::max(1, cell);
    cv::Mat grid = CellMax(gray, cell);
    const int gw = grid.cols, gh = grid.rows;
    const int n = std::max(3, window / cell) | 1;
    const cv::Mat box = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(n, n));
    cv::dilate(grid, grid, box, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    cv::blur(grid, grid, cv::Size(n, n), cv::Point(-1, -1), cv::BORDER_REPLICATE);
    cv::Mat out;
    cv::resize(grid, out, cv::Size(gw * cell, gh * cell), 0, 0, cv::INTER_LINEAR);
    return out(cv::Rect(0, 0, gray.cols, gray.rows));
}

namespace {

// Runs of marked pixels, row by row: [x0, x1] inclusive on row y.
struct Run {
    int x0, x1, y;
};

int Root(std::vector<int> &parent, int r) {
    while (parent[static_cast<std::size_t>(r)] != r) {
        const std::size_t i = static_cast<std::size_t>(r);
        parent[i] = parent[static_cast<std::size_t>(parent[i])];
        r = parent[i];
    }
    return r;
}

// One bit per pixel of a mask row (set where the byte is not 0), eight
// bytes at a time: each byte's "not zero" lands in its top bit, and one
// multiplication gathers the eight top bits into a byte.
void RowBits(const std::uint8_t *m, int w, std::vector<std::uint64_t> *bits) {
    std::fill(bits->begin(), bits->end(), 0);
    std::uint64_t *b = bits->data();
    constexpr std::uint64_t kLow7 = 0x7f7f7f7f7f7f7f7full, kHigh = 0x8080808080808080ull;
    int x = 0;
    for (; x + 8 <= w; x += 8) {
        std::uint64_t v;
        std::memcpy(&v, m + x, 8);
        const std::uint64_t t = (((v & kLow7) + kLow7) | v) & kHigh;
        b[x >> 6] |= (((t >> 7) * 0x0102040810204080ull) >> 56) << (x & 63);
    }
    for (; x < w; ++x)
        if (m[x] != 0) b[x >> 6] |= std::uint64_t{1} << (x & 63);
}

// The first pixel at or after x whose bit is `set`, or w.
int NextBit(const std::vector<std::uint64_t> &bits, int x, bool set, int w) {
    if (x >= w) return w;
    std::size_t i = static_cast<std::size_t>(x >> 6);
    std::uint64_t v = (set ? bits[i] : ~bits[i]) & (~std::uint64_t{0} << (x & 63));
    while (v == 0) {
        if (++i == bits.size()) return w;
        v = set ? bits[i] : ~bits[i];
    }
    return std::min(w, static_cast<int>(i * 64) + std::countr_zero(v));
}

}  // namespace

int LabelBlobs(const cv::Mat &mask, cv::Mat *labels, cv::Mat *stats) {
    // Anything but a one-channel 8-bit mask holds no blobs.
    if (mask.empty() || mask.type() != CV_8UC1) {
        if (labels != nullptr) *labels = mask.dims == 2 ? cv::Mat::zeros(mask.rows, mask.cols, CV_32S) : cv::Mat();
        *stats = cv::Mat(1, cv::CC_STAT_MAX, CV_32S, cv::Scalar(0));
        return 1;
    }
    const int w = mask.cols, h = mask.rows;
    // Runs, joined to the runs of the row above that touch them (8-connected:
    // overlapping or meeting at a corner) by union-find on run indices.
    std::vector<Run> runs;
    std::vector<int> parent;
    std::vector<std::uint64_t> bits(static_cast<std::size_t>(w + 63) / 64);
    std::size_t above = 0, aboveEnd = 0;
    for (int y = 0; y < h; ++y) {
        RowBits(mask.ptr<std::uint8_t>(y), w, &bits);
        const std::size_t rowStart = runs.size();
        std::size_t j = above;
        for (int x = NextBit(bits, 0, true, w); x < w; x = NextBit(bits, x, true, w)) {
            const int x0 = x;
            x = NextBit(bits, x, false, w);
            const int r = static_cast<int>(runs.size());
            runs.push_back(Run{x0, x - 1, y});
            parent.push_back(r);
            while (j < aboveEnd && runs[j].x1 < x0 - 1) ++j;
            for (std::size_t k = j; k < aboveEnd && runs[k].x0 <= x; ++k) {
                const int a = Root(parent, static_cast<int>(k)), b = Root(parent, r);
                if (a != b) parent[static_cast<std::size_t>(std::max(a, b))] = std::min(a, b);
            }
        }
        above = rowStart;
        aboveEnd = runs.size();
    }
    // Labels numbered as OpenCV's block-based labelling numbers them: by the
    // first 2 x 2 block (in rows of blocks, left to right) each blob
    // touches. Two blobs never share a block, so the order is strict.
    const std::int64_t blocksAcross = w / 2 + 1;
    std::vector<std::int64_t> key(runs.size(), INT64_MAX);
    for (std::size_t r = 0; r < runs.size(); ++r) {
        const int root = Root(parent, static_cast<int>(r));
        parent[r] = root;
        const std::size_t k = static_cast<std::size_t>(root);
        key[k] = std::min(key[k], (runs[r].y / 2) * blocksAcross + runs[r].x0 / 2);
    }
    std::vector<int> roots;
    for (std::size_t r = 0; r < runs.size(); ++r)
        if (parent[r] == static_cast<int>(r)) roots.push_back(static_cast<int>(r));
    std::sort(roots.begin(), roots.end(),
              [&key](int a, int b) { return key[static_cast<std::size_t>(a)] < key[static_cast<std::size_t>(b)]; });
    std::vector<int> label(runs.size(), 0);
    for (std::size_t i = 0; i < roots.size(); ++i) label[static_cast<std::size_t>(roots[i])] = static_cast<int>(i) + 1;
    const int n = static_cast<int>(roots.size()) + 1;

    if (labels != nullptr) labels->create(h, w, CV_32S);
    *stats = cv::Mat(n, cv::CC_STAT_MAX, CV_32S, cv::Scalar(0));
    std::vector<int> x0(n, w), y0(n, h), x1(n, -1), y1(n, -1), area(n, 0);
    std::size_t r = 0;
    for (int y = 0; y < h; ++y) {
        int *l = labels != nullptr ? labels->ptr<int>(y) : nullptr;
        if (l != nullptr) std::fill(l, l + w, 0);
        for (; r < runs.size() && runs[r].y == y; ++r) {
            const Run &run = runs[r];
            const int i = label[static_cast<std::size_t>(parent[r])];
            if (l != nullptr) std::fill(l + run.x0, l + run.x1 + 1, i);
            x0[i] = std::min(x0[i], run.x0);
            x1[i] = std::max(x1[i], run.x1);
            y0[i] = std::min(y0[i], y);
            y1[i] = y;
            area[i] += run.x1 - run.x0 + 1;
        }
    }
    for (int i = 1; i < n; ++i) {
        int *row = stats->ptr<int>(i);
        row[cv::CC_STAT_LEFT] = x0[i];
        row[cv::CC_STAT_TOP] = y0[i];
        row[cv::CC_STAT_WIDTH] = x1[i] - x0[i] + 1;
        row[cv::CC_STAT_HEIGHT] = y1[i] - y0[i] + 1;
        row[cv::CC_STAT_AREA] = area[i];
    }
    return n;
}

cv::Rect PaperBox(const cv::Mat &gray, const cv::Rect &within) {
    const cv::Rect r = within & cv::Rect(0, 0, gray.cols, gray.rows);
    if (r.width < 8 || r.height < 8) return r;
    std::array<int, 256> hist{};
    std::vector<std::int64_t> colSum(r.width, 0), rowSum(r.height, 0);
    for (int y = 0; y < r.height; ++y) {
        const std::uint8_t *p = gray.ptr<std::uint8_t>(r.y + y) + r.x;
        std::int64_t s = 0;
        for (int x = 0; x < r.width; ++x) {
            ++hist[p[x]];
            colSum[x] += p[x];
            s += p[x];
        }
        rowSum[y] = s;
    }
    int paper = 255;
    for (int acc = 0; paper > 0 && (acc += hist[paper]) * 10 < r.area();) --paper;
    const double dark = 0.6 * paper;
    auto cut = [dark](const std::vector<std::int64_t> &sums, int lineLength, bool fromEnd) {
        const int n = static_cast<int>(sums.size()), most = n * 15 / 100;
        int k = 0;
        while (k < most && sums[fromEnd ? n - 1 - k : k] < dark * lineLength) ++k;
        return k;
    };
    const int left = cut(colSum, r.height, false), right = cut(colSum, r.height, true);
    const int top = cut(rowSum, r.width, false), bottom = cut(rowSum, r.width, true);
    return cv::Rect(r.x + left, r.y + top, r.width - left - right, r.height - top - bottom);
}

cv::Rect ShrinkRect(const cv::Rect &r, int factor, cv::Size size) {
    factor = std::max(1, factor);
    const int x0 = r.x / factor, y0 = r.y / factor;
    const int x1 = (r.x + r.width) / factor, y1 = (r.y + r.height) / factor;
    return cv::Rect(x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0)) & cv::Rect(0, 0, size.width, size.height);
}

}  // namespace quarvel::scan
