// Content colour mode: what the content needs, whatever the file stores.
//
// 1-bit pages (and two-entry palettes) hold nothing beyond black and white.
// Otherwise the content is judged on the coarse page (about 75 dpi, block
// means, so JPEG noise averages away): inside the content box, on the
// sheet's paper (never the frame, the scanner bed or a book's edge round
// it), punch holes left out. Its marks are the pixels 12 % darker than
// their paper (as for the blank verdict).
//  - colour (24) when coloured ink makes at least 0.4 % of the marks, 0.05 %
//    of the content and 20 mm2 (a stamp, a line of coloured pen, a coloured
//    rule or figure): each pixel is divided by the paper colour (the median
//    of the content's brighter half), so yellowed or tinted paper is white;
//    a pixel is coloured when its balanced saturation (max - min) / max is
//    at least 0.3, it is not near black, no near-black or neutral dark
//    pixel touches it, the mean of its 3 x 3 neighbourhood keeps a
//    saturation of 0.12 (misregistered channels colour the two sides of a
//    black stroke in opposite hues, which cancel there, while coloured ink
//    only pales with the paper round it), and (on tinted paper) its hue is
//    more than 20 degrees from the paper's, since stains, ageing and shading
//    take the paper's hue.
//  - gray (8) when photos or halftones cover at least 2 % of the content:
//    mid-tone pixels (20 % to 70 % of the typical paper level, the paper
//    being the brightest level over 60 mm) whose 3 x 3 neighbourhood is flat
//    (within 12 % of it), counted after an erosion by 1.5 mm, areas that
//    reach the sheet's 3 mm edge band left out (bed or book edge). Text at 75 dpi
//    has mid-tones only on stroke edges, beside paper and ink, and even
//    blurred print has them only in strokes, so it is not flat over an area.
//  - else black-and-white (1), on any paper tint.
#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kMinSaturation = 0.3;
constexpr float kMinSaturationAround = 0.12f;  // of the 3 x 3 mean round a coloured pixel
constexpr double kMinColourMm2 = 20.0;
constexpr double kMinColourOfMarks = 0.004;
constexpr double kMinColourOfContent = 0.0005;
constexpr int kMarkPercent = 88;            // marks: darker than 88 % of their paper
constexpr int kNeutralDarkPercent = 60;     // stroke pixels that fringe: darker than 60 % and neutral,
constexpr int kBlackPercent = 25;           // or darker than 25 % whatever their colour
constexpr double kMinGrayShare = 0.02;
constexpr double kEdgeBandMm = 3.0;
constexpr float kPaperHueDegrees = 20;

// Per-channel paper colour: the median of the brighter half of the sheet
// (every other row and column is plenty).
cv::Vec3f PaperColour(const cv::Mat &bgr, const cv::Mat &gray, const cv::Rect &r) {
    std::array<int, 256> hg{};
    int all = 0;
    for (int y = r.y; y < r.y + r.height; y += 2) {
        const std::uint8_t *g = gray.ptr<std::uint8_t>(y);
        for (int x = r.x; x < r.x + r.width; x += 2, ++all) ++hg[g[x]];
    }
    int median = 0;
    for (int acc = 0; median < 255 && (acc += hg[median]) * 2 < all;) ++median;
    std::array<std::array<int, 256>, 3> h{};
    int n = 0;
    for (int y = r.y; y < r.y + r.height; y += 2) {
        const std::uint8_t *g = gray.ptr<std::uint8_t>(y), *p = bgr.ptr<std::uint8_t>(y);
        for (int x = r.x; x < r.x + r.width; x += 2)
            if (g[x] >= median) {
                for (int c = 0; c < 3; ++c) ++h[c][p[3 * x + c]];
                ++n;
            }
    }
    cv::Vec3f out;
    for (int c = 0; c < 3; ++c) {
        int v = 0;
        for (int acc = 0; v < 255 && (acc += h[c][v]) * 2 < n;) ++v;
        out[c] = static_cast<float>(std::max(v, 16));
    }
    return out;
}

// Hue in degrees of a BGR triple.
float Hue(float b, float g, float r) {
    const float hi = std::max({b, g, r}), lo = std::min({b, g, r});
    if (hi - lo <= 0) return 0;
    float h;
    if (hi == r)
        h = 60 * (g - b) / (hi - lo);
    else if (hi == g)
        h = 60 * (b - r) / (hi - lo) + 120;
    else
        h = 60 * (r - g) / (hi - lo) + 240;
    return h < 0 ? h + 360 : h;
}

float HueDistance(float a, float b) {
    const float d = std::abs(a - b);
    return std::min(d, 360 - d);
}

// Share of the usable pixels in `box` that lie in flat mid-tone areas, areas
// reaching the sheet's 3 mm edge band (a scanner bed, a book's edge or
// shadow that the sheet finder left) left out.
double FlatMidtones(const cv::Mat &g, const cv::Rect &box, const cv::Rect &sheet, const cv::Mat &use, double mm) {
    // The paper here is the brightest level over 60 mm, so a photo (larger
    // than any stroke) is not taken for paper.
    const cv::Mat widePaper = PaperLevel(g, std::max(2, static_cast<int>(3 * mm)), static_cast<int>(60 * mm));
    cv::Mat ratio(g.size(), CV_8U);
    std::array<int, 101> hist{};
    std::array<std::uint32_t, 256> percentOf{};  // 100 / level in 16.16 fixed point
    for (int v = 0; v < 256; ++v) percentOf[v] = (100u << 16) / std::max(1, v);
    for (int y = 0; y < g.rows; ++y) {
        const std::uint8_t *gy = g.ptr<std::uint8_t>(y), *py = widePaper.ptr<std::uint8_t>(y);
        std::uint8_t *ry = ratio.ptr<std::uint8_t>(y);
        for (int x = 0; x < g.cols; ++x)
            ry[x] = static_cast<std::uint8_t>(std::min<int>(100, (gy[x] * percentOf[py[x]]) >> 16));
    }
    int n = 0;
    for (int y = box.y; y < box.y + box.height; ++y)
        for (int x = box.x; x < box.x + box.width; ++x)
            if (use.at<std::uint8_t>(y, x)) {
                ++hist[ratio.at<std::uint8_t>(y, x)];
                ++n;
            }
    if (n == 0) return 0;
    int typical = 100;
    for (int v = 0, acc = 0; v <= 100; ++v)
        if ((acc += hist[v]) * 2 >= n) {
            typical = v;
            break;
        }
    cv::Mat lo, hi;
    cv::erode(ratio, lo, cv::Mat());
    cv::dilate(ratio, hi, cv::Mat());
    cv::Mat flat(g.size(), CV_8U, cv::Scalar(0));
    for (int y = box.y; y < box.y + box.height; ++y) {
        const std::uint8_t *ry = ratio.ptr<std::uint8_t>(y), *ly = lo.ptr<std::uint8_t>(y),
                           *hy = hi.ptr<std::uint8_t>(y), *uy = use.ptr<std::uint8_t>(y);
        std::uint8_t *fy = flat.ptr<std::uint8_t>(y);
        for (int x = box.x; x < box.x + box.width; ++x) {
            if (!uy[x] || ry[x] * 5 < typical || ry[x] * 10 > typical * 7) continue;
            fy[x] = (hy[x] - ly[x]) * 100 <= typical * 12 ? 255 : 0;
        }
    }
    // Only areas count: an erosion by 1.5 mm leaves photos and drops the
    // soft edges of blurred print.
    const int e = std::max(3, static_cast<int>(std::lround(1.5 * mm))) | 1;
    cv::erode(flat, flat, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(e, e)));
    cv::Mat labels, stats;
    const int blobs = LabelBlobs(flat, &labels, &stats);
    const int band = std::max(1, static_cast<int>(kEdgeBandMm * mm)) + e / 2;
    double area = 0;
    for (int i = 1; i < blobs; ++i) {
        const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        if (x < sheet.x + band || y < sheet.y + band || x + w > sheet.x + sheet.width - band ||
            y + h > sheet.y + sheet.height - band)
            continue;
        area += stats.at<int>(i, cv::CC_STAT_AREA);
    }
    return area / n;
}

}  // namespace

int JudgeContentMode(const ScanPage &page, const Analysis &analysis) {
    if (page.coarse.empty()) return 0;
    if (page.bitonalSource) return QUARVEL_MODE_BITONAL;
    const int f = page.coarseReduction;
    const double mm = PaperDpi(page) / 25.4 / f;
    const cv::Mat &c = page.coarseColor, &g = page.coarse;

    // The content: its box on the sheet's paper, holes left out.
    cv::Rect sheet = ShrinkRect(
        analysis.sheet.box.area() > 0 ? analysis.sheet.box : cv::Rect(0, 0, page.width, page.height), f, g.size());
    if (analysis.sheet.sides == 0) sheet = PaperBox(g, sheet);
    const cv::Rect box = analysis.hasContent ? ShrinkRect(analysis.content, f, g.size()) & sheet : sheet;
    if (box.area() == 0) return QUARVEL_MODE_BITONAL;
    cv::Mat use(g.size(), CV_8U, cv::Scalar(255));
    if (analysis.sheet.sides != 0 && !analysis.sheet.paper.empty()) {
        cv::Mat onSheet;
        cv::resize(analysis.sheet.paper, onSheet, g.size(), 0, 0, cv::INTER_NEAREST);
        use &= onSheet;
    }
    for (const Hole &h : analysis.holes)
        cv::circle(use, cv::Point(static_cast<int>(h.cx / f), static_cast<int>(h.cy / f)),
                   static_cast<int>(h.r * 1.3 / f) + 1, cv::Scalar(0), cv::FILLED);

    if (page.colorSource) {
        const cv::Mat &paper = page.coarsePaper;
        const cv::Vec3f pc = PaperColour(c, g, box);
        // A tinted paper's own hue: stains, ageing and shading of the paper
        // take it, so coloured pixels near it are not coloured ink.
        const float pmax = std::max({pc[0], pc[1], pc[2]}), pmin = std::min({pc[0], pc[1], pc[2]});
        const bool tinted = (pmax - pmin) / pmax >= 0.08f;
        const float paperHue = Hue(pc[0], pc[1], pc[2]);
        const cv::Vec3f inv(1 / pc[0], 1 / pc[1], 1 / pc[2]);
        // Balanced value (max) and saturation of every content pixel.
        cv::Mat value(g.size(), CV_32F, cv::Scalar(1)), sat(g.size(), CV_32F, cv::Scalar(0));
        cv::Mat neutralDark(g.size(), CV_8U, cv::Scalar(0));
        int marks = 0, content = 0;
        for (int y = box.y; y < box.y + box.height; ++y) {
            const cv::Vec3b *p = c.ptr<cv::Vec3b>(y);
            const std::uint8_t *gy = g.ptr<std::uint8_t>(y), *py = paper.ptr<std::uint8_t>(y),
                               *uy = use.ptr<std::uint8_t>(y);
            float *vy = value.ptr<float>(y), *sy = sat.ptr<float>(y);
            std::uint8_t *ny = neutralDark.ptr<std::uint8_t>(y);
            for (int x = box.x; x < box.x + box.width; ++x) {
                const float b = p[x][0] * inv[0], gg = p[x][1] * inv[1], r = p[x][2] * inv[2];
                const float hi = std::max({b, gg, r}), lo = std::min({b, gg, r});
                vy[x] = hi;
                sy[x] = hi > 0 ? (hi - lo) / hi : 0;
                content += uy[x] != 0;
                marks += uy[x] && gy[x] * 100 < py[x] * kMarkPercent;
                // Dark and neutral, before or after the paper's tint is taken
                // out (dark pixels are where noise and the tint weigh most);
                // near-black whatever its colour.
                const int rawHi = std::max({p[x][0], p[x][1], p[x][2]}), rawLo = std::min({p[x][0], p[x][1], p[x][2]});
                const bool neutral = sy[x] < 0.2f || (rawHi - rawLo) * 5 < rawHi;
                if (gy[x] * 100 < py[x] * kBlackPercent ||
                    (gy[x] * 100 < py[x] * kNeutralDarkPercent && neutral))
                    ny[x] = 255;
            }
        }
        // Colour fringes of black strokes lie next to them; coloured ink (a
        // stamp over text included) mostly does not.
        cv::dilate(neutralDark, neutralDark, cv::Mat());
        // Misregistered channels colour the two sides of a neutral stroke in
        // opposite hues, which cancel in the mean round it; coloured ink keeps
        // its hue there, paler by the paper it is mixed with.
        cv::Mat around;
        cv::blur(c, around, cv::Size(3, 3));
        double coloured = 0;
        for (int y = box.y; y < box.y + box.height; ++y) {
            const cv::Vec3b *p = c.ptr<cv::Vec3b>(y), *a = around.ptr<cv::Vec3b>(y);
            const std::uint8_t *uy = use.ptr<std::uint8_t>(y), *ny = neutralDark.ptr<std::uint8_t>(y);
            const float *vy = value.ptr<float>(y), *sy = sat.ptr<float>(y);
            for (int x = box.x; x < box.x + box.width; ++x) {
                if (!uy[x] || ny[x] || vy[x] < 0.25f || sy[x] < kMinSaturation) continue;  // near black: noise
                const float ab = a[x][0] * inv[0], ag = a[x][1] * inv[1], ar = a[x][2] * inv[2];
                const float ahi = std::max({ab, ag, ar}), alo = std::min({ab, ag, ar});
                if (ahi <= 0 || (ahi - alo) < kMinSaturationAround * ahi) continue;
                const float hue = Hue(p[x][0] * inv[0], p[x][1] * inv[1], p[x][2] * inv[2]);
                if (tinted && HueDistance(hue, paperHue) < kPaperHueDegrees) continue;
                ++coloured;
            }
        }
        if (coloured >= kMinColourMm2 * mm * mm && coloured >= kMinColourOfMarks * marks &&
            coloured >= kMinColourOfContent * content)
            return QUARVEL_MODE_COLOR;
    }
    return FlatMidtones(g, box, sheet, use, mm) >= kMinGrayShare ? QUARVEL_MODE_GRAY : QUARVEL_MODE_BITONAL;
}

}  // namespace quarvel::scan
