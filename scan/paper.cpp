// Helpers the content analyses share (scan/paper.h).
#include "scan/paper.h"

#include <algorithm>
#include <array>
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

int LabelBlobs(const cv::Mat &mask, cv::Mat *labels, cv::Mat *stats) {
    const int n = cv::connectedComponents(mask, *labels, 8, CV_32S);
    std::vector<int> x0(n, mask.cols), y0(n, mask.rows), x1(n, -1), y1(n, -1), area(n, 0);
    // Runs of marked pixels along a row: each lies in one blob (neighbours
    // across are connected), so a run updates its blob once, and unmarked
    // stretches are skipped eight bytes at a time.
    const int w = mask.cols;
    for (int y = 0; y < mask.rows; ++y) {
        const std::uint8_t *m = mask.ptr<std::uint8_t>(y);
        const int *l = labels->ptr<int>(y);
        int x = 0;
        while (x < w) {
            std::uint64_t word;
            if (x + 8 <= w && (std::memcpy(&word, m + x, 8), word == 0)) {
                x += 8;
                continue;
            }
            if (m[x] == 0) {
                ++x;
                continue;
            }
            const int start = x;
            while (x < w && m[x] != 0) ++x;
            const int i = l[start];
            x0[i] = std::min(x0[i], start);
            x1[i] = std::max(x1[i], x - 1);
            y0[i] = std::min(y0[i], y);
            y1[i] = y;
            area[i] += x - start;
        }
    }
    *stats = cv::Mat(n, cv::CC_STAT_MAX, CV_32S, cv::Scalar(0));
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
