// Helpers the content analyses share (scan/paper.h).
#include "scan/paper.h"

#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

namespace quarvel::scan {

int PaperDpi(const ScanPage &page) {
    const double longSide = std::max(page.width, page.height);
    // A3 is 16.5 inches long; anything past 18 inches at the stated
    // resolution is a wrong header, not a sheet.
    if (page.dpi > 0 && longSide / page.dpi <= 18.0) return page.dpi;
    return std::clamp(static_cast<int>(std::lround(longSide / 11.5)), 50, 1200);
}

cv::Mat Shrink(const cv::Mat &image, int factor) {
    if (factor <= 1) return image;
    cv::Mat out;
    cv::resize(image, out, cv::Size(std::max(1, image.cols / factor), std::max(1, image.rows / factor)), 0, 0,
               cv::INTER_AREA);
    return out;
}

cv::Mat PaperLevel(const cv::Mat &gray, int cell, int window) {
    cell = std::max(1, cell);
    const int gw = (gray.cols + cell - 1) / cell, gh = (gray.rows + cell - 1) / cell;
    cv::Mat grid(gh, gw, CV_8U, cv::Scalar(0));
    for (int y = 0; y < gray.rows; ++y) {
        const std::uint8_t *p = gray.ptr<std::uint8_t>(y);
        std::uint8_t *g = grid.ptr<std::uint8_t>(y / cell);
        for (int x = 0; x < gray.cols; ++x) g[x / cell] = std::max(g[x / cell], p[x]);
    }
    const int n = std::max(3, window / cell) | 1;
    const cv::Mat box = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(n, n));
    cv::dilate(grid, grid, box, cv::Point(-1, -1), 1, cv::BORDER_REPLICATE);
    cv::blur(grid, grid, cv::Size(n, n), cv::Point(-1, -1), cv::BORDER_REPLICATE);
    cv::Mat out;
    cv::resize(grid, out, cv::Size(gw * cell, gh * cell), 0, 0, cv::INTER_LINEAR);
    return out(cv::Rect(0, 0, gray.cols, gray.rows)).clone();
}

cv::Rect ShrinkRect(const cv::Rect &r, int factor, cv::Size size) {
    factor = std::max(1, factor);
    const int x0 = r.x / factor, y0 = r.y / factor;
    const int x1 = (r.x + r.width) / factor, y1 = (r.y + r.height) / factor;
    return cv::Rect(x0, y0, std::max(0, x1 - x0), std::max(0, y1 - y0)) & cv::Rect(0, 0, size.width, size.height);
}

}  // namespace quarvel::scan
