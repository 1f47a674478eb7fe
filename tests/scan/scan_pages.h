// Pages for the real-scan tests: a gray page drawn with OpenCV (letters with
// ascenders and descenders, frames, turns) handed over as a packed DIB, and
// the report of the public analysis.
#pragma once

#include <cstring>
#include <string>

#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>

#include "quarvel/scan.h"
#include "support/pages.h"

namespace qtest {

// An 8-bit gray page (row 0 of `img` is the top) at `dpi`.
inline Block PageFromMat(const cv::Mat &img, int dpi) {
    Block page = MakePage(Shape(img.cols, img.rows, 8));
    PageView v(page.get());
    for (int y = 0; y < img.rows; ++y) std::memcpy(v.row(img.rows - 1 - y), img.ptr(y), static_cast<std::size_t>(img.cols));
    v.header()->biXPelsPerMeter = v.header()->biYPelsPerMeter = static_cast<LONG>(dpi / 0.0254 + 0.5);
    return page;
}

// The top-down gray image of an 8-bit or 1-bit page.
inline cv::Mat MatFromPage(HGLOBAL h) {
    PageView v(h);
    cv::Mat out(v.height(), v.width(), CV_8UC1);
    for (int y = 0; y < v.height(); ++y)
        for (int x = 0; x < v.width(); ++x) {
            const int value = v.get(x, y);
            out.at<std::uint8_t>(v.height() - 1 - y, x) =
                static_cast<std::uint8_t>(v.bitCount() == 1 ? (value ? 255 : 0) : value);
        }
    return out;
}

// A page of English-like text lines in `box` (paper 235, ink 20), drawn
// upright, at about 150 dpi sizes; in capitals only with `capitals`.
inline void DrawText(cv::Mat *img, const cv::Rect &box, double scale = 0.9, bool capitals = false) {
    // Letters in about English proportions: more ascenders than descenders.
    static const char *words[] = {"the", "which", "held", "a", "black", "table", "field", "of", "and", "built",
                                  "kind", "light", "hill", "by", "its", "more", "people", "often", "time", "said"};
    unsigned k = 12345;
    for (int y = box.y + 30; y + 10 < box.y + box.height; y += 34) {
        int x = box.x;
        while (true) {
            k = k * 1103515245u + 12345u;
            std::string w = words[(k >> 16) % 20];
            if (capitals)
                for (char &ch : w) ch = static_cast<char>(ch - 'a' + 'A');
            const int width = cv::getTextSize(w, cv::FONT_HERSHEY_SIMPLEX, scale, 2, nullptr).width;
            if (x + width > box.x + box.width) break;
            cv::putText(*img, w, cv::Point(x, y), cv::FONT_HERSHEY_SIMPLEX, scale, cv::Scalar(20), 2, cv::LINE_AA);
            x += width + 16;
        }
    }
}

// `img` turned by `degrees` about its centre (positive: lines fall toward
// the right as displayed), the corners filled with `fill`.
inline cv::Mat Turned(const cv::Mat &img, double degrees, int fill = 235) {
    cv::Mat out;
    const cv::Mat m = cv::getRotationMatrix2D(cv::Point2f(img.cols / 2.0f, img.rows / 2.0f), -degrees, 1.0);
    cv::warpAffine(img, out, m, img.size(), cv::INTER_LINEAR, cv::BORDER_CONSTANT, cv::Scalar(fill));
    return out;
}

inline QuarvelPageReport Analyze(HGLOBAL page, const QuarvelScanOptions *options = nullptr) {
    QuarvelPageReport r{};
    r.size = sizeof r;
    QuarvelAnalyzePage(page, options, &r);
    return r;
}

}  // namespace qtest
