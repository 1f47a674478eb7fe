// Despeckling: isolated dark specks (dust, salt noise) are painted with the
// paper round them.
//
// Ink is what is 25 % darker than the local paper level (scan/paper.h), so
// the step works on gray pages and on 0/255 binarised ones alike. A blob of
// ink is a speck when it is at most `maxSize` pixels across (by default
// 0.3 mm, from the resolution) and nothing larger than a speck lies within
// 1 mm of its box: the dot of an i, a full stop or a comma sits that close to
// a letter, thin strokes are long, so neither is touched, while a cluster of
// dust goes as a whole.
//
// Blobs are found on a map of q x q cells (q the speck size, at most 8)
// that holds a cell when any pixel in it is ink, so labelling reads a
// sixteenth of the page at 300 dpi. A blob of the map is a candidate when
// it spans at most the speck size plus a cell or two (a small cluster) and
// no larger blob of the map lies within 1 mm; its own pixels are then
// labelled again at full resolution and every speck in it up to `maxSize`
// across is painted.
#include <algorithm>
#include <cmath>
#include <vector>

#include <opencv2/imgproc.hpp>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

// band[x] |= 255 where the pixel is ink; a plain loop over restrict
// pointers, which the compiler turns into vector code.
void MarkInk(const std::uint8_t *__restrict g, const std::uint16_t *__restrict limit, int w,
             std::uint8_t *__restrict band) {
    for (int x = 0; x < w; ++x) band[x] |= static_cast<std::uint16_t>(g[x] * 4) < limit[x] ? 255 : 0;
}

}  // namespace

void Despeckle(cv::Mat *gray, int maxSize, int dpi) {
    if (gray == nullptr || gray->empty() || gray->type() != CV_8UC1 || maxSize < 0) return;
    dpi = std::clamp(dpi, 20, 10000);
    const double mm = dpi / 25.4;
    if (maxSize == 0) maxSize = std::max(2, static_cast<int>(std::lround(0.3 * mm)));
    const int q = std::clamp(maxSize, 1, 8);
    const int gap = std::max(1, static_cast<int>(std::ceil(1.0 * mm / q)));  // in cells
    const int speckCells = (maxSize + q - 1) / q + 2;  // most cells a speck or a small cluster spans

    // Paper level per cell of the paper grid, spread as in PaperLevel.
    const int cell = std::max(2, static_cast<int>(mm / 2));
    cv::Mat grid = CellMax(*gray, cell);
    const int n = std::max(3, static_cast<int>(6 * mm) / cell) | 1;
    cv::dilate(grid, grid, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(n, n)), cv::Point(-1, -1), 1,
               cv::BORDER_REPLICATE);
    cv::blur(grid, grid, cv::Size(n, n), cv::Point(-1, -1), cv::BORDER_REPLICATE);

    const int w = gray->cols, h = gray->rows;
    std::vector<int> gridCol(w), mapCol(w);
    for (int x = 0; x < w; ++x) {
        gridCol[x] = x / cell;
        mapCol[x] = x / q;
    }
    auto isInk = [&](int x, int y) {
        return gray->at<std::uint8_t>(y, x) * 4 < grid.at<std::uint8_t>(y / cell, gridCol[x]) * 3;
    };
    cv::Mat map((h + q - 1) / q, (w + q - 1) / q, CV_8U, cv::Scalar(0));
    std::vector<std::uint16_t> limit(w);  // 3 x the paper level: ink when 4 v is below
    std::vector<std::uint8_t> band(w);
    int limitRow = -1;
    for (int y = 0; y < h; ++y) {
        if (y / cell != limitRow) {
            limitRow = y / cell;
            const std::uint8_t *p = grid.ptr<std::uint8_t>(limitRow);
            for (int x = 0; x < w; ++x) limit[x] = static_cast<std::uint16_t>(p[gridCol[x]] * 3);
        }
        if (y % q == 0) std::fill(band.begin(), band.end(), 0);
        MarkInk(gray->ptr<std::uint8_t>(y), limit.data(), w, band.data());
        if (y % q == q - 1 || y == h - 1) {
            std::uint8_t *m = map.ptr<std::uint8_t>(y / q);
            for (int x = 0; x < w; ++x) m[mapCol[x]] |= band[x];
        }
    }

    cv::Mat labels, stats;
    const int count = LabelBlobs(map, &labels, &stats);
    auto big = [&](int i) {
        return std::max(stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT)) > speckCells;
    };
    for (int i = 1; i < count; ++i) {
        if (big(i)) continue;
        const cv::Rect box(stats.at<int>(i, cv::CC_STAT_LEFT), stats.at<int>(i, cv::CC_STAT_TOP),
                           stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT));
        const cv::Rect near = cv::Rect(box.x - gap, box.y - gap, box.width + 2 * gap, box.height + 2 * gap) &
                              cv::Rect(0, 0, map.cols, map.rows);
        bool alone = true;
        for (int yy = near.y; yy < near.y + near.height && alone; ++yy) {
            const int *l = labels.ptr<int>(yy);
            for (int xx = near.x; xx < near.x + near.width; ++xx)
                if (l[xx] != 0 && l[xx] != i && big(l[xx])) {
                    alone = false;
                    break;
                }
        }
        if (!alone) continue;
        // The blob's own pixels, labelled again at full resolution: every
        // speck in it up to maxSize across is painted.
        const cv::Rect pixels = cv::Rect(box.x * q, box.y * q, box.width * q, box.height * q) & cv::Rect(0, 0, w, h);
        cv::Mat mine(pixels.size(), CV_8U, cv::Scalar(0));
        for (int y = 0; y < pixels.height; ++y)
            for (int x = 0; x < pixels.width; ++x)
                if (labels.at<int>((pixels.y + y) / q, mapCol[pixels.x + x]) == i && isInk(pixels.x + x, pixels.y + y))
                    mine.at<std::uint8_t>(y, x) = 255;
        cv::Mat subLabels, subStats;
        const int subCount = LabelBlobs(mine, &subLabels, &subStats);
        for (int k = 1; k < subCount; ++k) {
            if (std::max(subStats.at<int>(k, cv::CC_STAT_WIDTH), subStats.at<int>(k, cv::CC_STAT_HEIGHT)) > maxSize)
                continue;
            for (int y = 0; y < pixels.height; ++y)
                for (int x = 0; x < pixels.width; ++x)
                    if (subLabels.at<int>(y, x) == k)
                        gray->at<std::uint8_t>(pixels.y + y, pixels.x + x) =
                            grid.at<std::uint8_t>((pixels.y + y) / cell, gridCol[pixels.x + x]);
        }
    }
}

}  // namespace quarvel::scan
