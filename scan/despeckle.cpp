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
#include <algorithm>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {

void Despeckle(cv::Mat *gray, int maxSize, int dpi) {
    if (gray == nullptr || gray->empty() || gray->type() != CV_8UC1 || maxSize < 0) return;
    dpi = std::clamp(dpi, 20, 10000);
    const double mm = dpi / 25.4;
    if (maxSize == 0) maxSize = std::max(2, static_cast<int>(std::lround(0.3 * mm)));
    const int gap = std::max(2, static_cast<int>(std::lround(1.0 * mm)));
    const cv::Mat paper = PaperLevel(*gray, std::max(2, static_cast<int>(mm / 2)), static_cast<int>(6 * mm));
    cv::Mat ink(gray->size(), CV_8U);
    for (int y = 0; y < gray->rows; ++y) {
        const std::uint8_t *g = gray->ptr<std::uint8_t>(y), *p = paper.ptr<std::uint8_t>(y);
        std::uint8_t *k = ink.ptr<std::uint8_t>(y);
        for (int x = 0; x < gray->cols; ++x) k[x] = g[x] * 4 < p[x] * 3 ? 255 : 0;
    }
    cv::Mat labels, stats;
    const int n = LabelBlobs(ink, &labels, &stats);
    for (int i = 1; i < n; ++i) {
        const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        if (std::max(w, h) > maxSize) continue;
        const cv::Rect near =
            cv::Rect(x - gap, y - gap, w + 2 * gap, h + 2 * gap) & cv::Rect(0, 0, gray->cols, gray->rows);
        bool alone = true;
        for (int yy = near.y; yy < near.y + near.height && alone; ++yy) {
            const int *l = labels.ptr<int>(yy);
            for (int xx = near.x; xx < near.x + near.width; ++xx)
                if (l[xx] != 0 && l[xx] != i &&
                    std::max(stats.at<int>(l[xx], cv::CC_STAT_WIDTH), stats.at<int>(l[xx], cv::CC_STAT_HEIGHT)) >
                        maxSize) {
                    alone = false;
                    break;
                }
        }
        if (!alone) continue;
        for (int yy = y; yy < y + h; ++yy) {
            const int *l = labels.ptr<int>(yy);
            std::uint8_t *g = gray->ptr<std::uint8_t>(yy);
            const std::uint8_t *p = paper.ptr<std::uint8_t>(yy);
            for (int xx = x; xx < x + w; ++xx)
                if (l[xx] == i) g[xx] = p[xx];
        }
    }
}

}  // namespace quarvel::scan
