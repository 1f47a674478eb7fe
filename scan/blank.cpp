// Blank pages: the ink that counts as content, and the verdict.
//
// The coarse page (about 75 dpi, scan/page.h) is divided by its local paper
// level (scan/paper.h), so shading, tinted paper and a dark scanner frame (which
// becomes its own "paper") drop out. Ink is anything 12 % darker than its
// paper: faint print stays ink, paper grain and most bleed-through do not.
// Ink blobs then count as content unless they are
//  - cut by the sheet's edge band (3 mm): frame remnants, book edges, shadows;
//  - in a punch hole;
//  - specks under 0.35 mm;
//  - stains: wider than 12 mm yet faint (never darker than 60 % of the
//    paper), where print of that size is dark.
// The ink measure is the counted ink's share of the sheet; the page is blank
// when it is under 0.03 % (about two short words on A4), so a page number or
// a few specks left on an empty page keep it blank, while one line of text,
// however faint, does not.
#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr int kInkPercent = 88;  // ink: darker than 88 % of its paper
constexpr double kEdgeBandMm = 3.0;
constexpr double kMinSpeckMm = 0.35;
constexpr double kStainMm = 12.0;
constexpr int kStainDarkestPercent = 60;
constexpr double kBlankInk = 0.0003;

}  // namespace

Blank JudgeBlank(const ScanPage &page, const Analysis &analysis) {
    Blank b;
    if (page.coarse.empty()) return b;
    const int f = page.coarseReduction;
    const cv::Mat &g = page.coarse;
    const double mm = PaperDpi(page) / 25.4 / f;
    const cv::Mat &paper = page.coarsePaper;
    cv::Rect sheet = ShrinkRect(
        analysis.sheet.box.area() > 0 ? analysis.sheet.box : cv::Rect(0, 0, page.width, page.height), f, g.size());
    if (analysis.sheet.sides == 0) sheet = PaperBox(g, sheet);
    const int band = std::max(1, static_cast<int>(kEdgeBandMm * mm));
    const cv::Rect inner(sheet.x + band, sheet.y + band, sheet.width - 2 * band, sheet.height - 2 * band);
    if (inner.width <= 2 || inner.height <= 2) return b;

    // Ink as a share of the paper level, in percent.
    std::array<std::uint32_t, 256> percentOf{};  // 100 / level in 16.16 fixed point
    for (int v = 0; v < 256; ++v) percentOf[v] = (100u << 16) / std::max(1, v);
    cv::Mat ratio(g.size(), CV_8U, cv::Scalar(100));
    for (int y = inner.y; y < inner.y + inner.height; ++y) {
        const std::uint8_t *p = g.ptr<std::uint8_t>(y), *q = paper.ptr<std::uint8_t>(y);
        std::uint8_t *r = ratio.ptr<std::uint8_t>(y);
        for (int x = inner.x; x < inner.x + inner.width; ++x)
            r[x] = static_cast<std::uint8_t>(std::min<std::uint32_t>(100, (p[x] * percentOf[q[x]]) >> 16));
    }
    for (const Hole &h : analysis.holes)
        cv::circle(ratio, cv::Point(static_cast<int>(h.cx / f), static_cast<int>(h.cy / f)),
                   static_cast<int>(h.r * 1.3 / f) + 1, cv::Scalar(100), cv::FILLED);
    // Paper grain: where most of the sheet sits below its brightest level,
    // ink is measured from the typical paper instead.
    std::vector<int> hist(101, 0);
    for (int y = inner.y; y < inner.y + inner.height; ++y) {
        const std::uint8_t *r = ratio.ptr<std::uint8_t>(y);
        for (int x = inner.x; x < inner.x + inner.width; ++x) ++hist[r[x]];
    }
    int typical = 100;
    for (int v = 0, acc = 0; v <= 100; ++v) {
        acc += hist[v];
        if (acc * 2 >= inner.area()) {
            typical = v;
            break;
        }
    }
    cv::Mat ink = ratio < typical * kInkPercent / 100;
    cv::Mat labels, stats;
    const int n = LabelBlobs(ink, &labels, &stats);
    std::vector<int> darkest(n, 100);
    for (int y = inner.y; y < inner.y + inner.height; ++y) {
        const int *l = labels.ptr<int>(y);
        const std::uint8_t *r = ratio.ptr<std::uint8_t>(y);
        for (int x = inner.x; x < inner.x + inner.width; ++x)
            if (l[x] > 0) darkest[l[x]] = std::min<int>(darkest[l[x]], r[x]);
    }
    double area = 0;
    for (int i = 1; i < n; ++i) {
        const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        if (x <= inner.x || y <= inner.y || x + w >= inner.x + inner.width || y + h >= inner.y + inner.height) continue;
        if (std::max(w, h) < kMinSpeckMm * mm) continue;
        if (std::max(w, h) > kStainMm * mm && darkest[i] > kStainDarkestPercent) continue;
        area += stats.at<int>(i, cv::CC_STAT_AREA);
    }
    b.ink = std::clamp(area / std::max(1.0, static_cast<double>(sheet.area())), 0.0, 1.0);
    b.blank = b.ink < kBlankInk;
    return b;
}

}  // namespace quarvel::scan
