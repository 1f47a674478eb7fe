// Orientation: which quarter turn makes the page upright, from text-line
// statistics alone.
//
// The sheet's ink (scan/page.h), straightened by the skew when it is known,
// is cut into strips about 20 mm wide; in each strip the row profile splits
// into text lines at empty rows. A line's core (its x-height band) is the
// run of rows holding at least 40 % of its fullest row; the ink above the
// core (ascenders, capitals) and below it (descenders) is summed over all
// lines. Latin and most alphabetic scripts have more above than below, so
// the balance (above - below) / (above + below) is positive on an upright
// page and negative on one upside down. The same is done on the ink turned
// a quarter: the direction whose lines hold more of the ink is the line
// direction. The evidence grows with the balance (0.15 reads as certain) and
// the number of lines (12 and more); below 0.2 the page is called upright,
// the likeliest answer for a scanner's output. The confidence reported is
// that evidence scaled down when the lines disagree one by one: a line
// leans up or down when one side holds 1.5 times the other's ink, and the
// surplus of the majority over all leaning lines must reach 0.45 for full
// confidence (Latin text upright gives 0.3 to 0.6, capitals on striped
// paper or scripts without the asymmetry about 0.1).
#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kStripMm = 20.0;
constexpr double kMinLineMm = 0.8, kMaxLineMm = 12.0;
constexpr double kCoreShare = 0.4;
constexpr double kFullBalance = 0.15;
constexpr double kFullLines = 12.0;
constexpr double kCallUpright = 0.2;
constexpr double kLean = 1.5;        // a line leans one way with this much more ink on that side
constexpr double kFullAgreement = 0.45;

struct Lines {
    double inLines = 0;   // share of the ink in text lines
    double balance = 0;   // (above - below) / (above + below)
    double agreement = 0; // (lines leaning up - lines leaning down) / lines leaning
    int count = 0;
};

Lines MeasureLines(const cv::Mat &ink, int strip, int minLine, int maxLine) {
    Lines out;
    double above = 0, below = 0, lineInk = 0, total = 0;
    int up = 0, downLines = 0;
    std::vector<int> profile(static_cast<std::size_t>(ink.rows));
    for (int x0 = 0; x0 < ink.cols; x0 += strip) {
        const int x1 = std::min(ink.cols, x0 + strip);
        for (int y = 0; y < ink.rows; ++y) {
            const std::uint8_t *p = ink.ptr<std::uint8_t>(y);
            int n = 0;
            for (int x = x0; x < x1; ++x) n += p[x] != 0;
            profile[static_cast<std::size_t>(y)] = n;
            total += n;
        }
        for (int y = 0; y < ink.rows;) {
            if (profile[static_cast<std::size_t>(y)] == 0) {
                ++y;
                continue;
            }
            int end = y, peak = 0;
            double sum = 0;
            while (end < ink.rows && profile[static_cast<std::size_t>(end)] > 0) {
                peak = std::max(peak, profile[static_cast<std::size_t>(end)]);
                sum += profile[static_cast<std::size_t>(end)];
                ++end;
            }
            const int h = end - y;
            if (h >= minLine && h <= maxLine) {
                int c0 = y, c1 = end - 1;
                while (profile[static_cast<std::size_t>(c0)] < kCoreShare * peak) ++c0;
                while (profile[static_cast<std::size_t>(c1)] < kCoreShare * peak) --c1;
                double a = 0, b = 0;
                for (int r = y; r < c0; ++r) a += profile[static_cast<std::size_t>(r)];
                for (int r = c1 + 1; r < end; ++r) b += profile[static_cast<std::size_t>(r)];
                above += a;
                below += b;
                up += a > kLean * b;
                downLines += b > kLean * a;
                lineInk += sum;
                ++out.count;
            }
            y = end;
        }
    }
    out.inLines = total > 0 ? lineInk / total : 0.0;
    out.balance = above + below > 0 ? (above - below) / (above + below) : 0.0;
    out.agreement = up + downLines > 0 ? std::abs(up - downLines) / static_cast<double>(up + downLines) : 0.0;
    return out;
}

}  // namespace

Orientation FindOrientation(const ScanPage &page, const Sheet &sheet, const Skew &skew) {
    Orientation result;
    if (page.ink.empty()) return result;
    const int f = page.reduction;
    const cv::Rect area = cv::Rect(sheet.box.x / f, sheet.box.y / f, sheet.box.width / f, sheet.box.height / f) &
                          cv::Rect(0, 0, page.ink.cols, page.ink.rows);
    if (area.width < 16 || area.height < 16) return result;
    cv::Mat ink = page.ink(area).clone();
    if (sheet.sides != 0) ink &= sheet.paper(area);
    if (skew.confidence > 0 && std::abs(skew.angle) > 0.2) {
        const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(ink.cols / 2.0f, ink.rows / 2.0f), skew.angle, 1.0);
        cv::warpAffine(ink, ink, turn, ink.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT, cv::Scalar(0));
    }
    const double px = page.dpi / 25.4 / f;
    const int strip = std::max(8, static_cast<int>(kStripMm * px));
    const int minLine = std::max(2, static_cast<int>(kMinLineMm * px));
    const int maxLine = std::max(minLine + 1, static_cast<int>(kMaxLineMm * px));

    const Lines across = MeasureLines(ink, strip, minLine, maxLine);
    cv::Mat turned;
    cv::rotate(ink, turned, cv::ROTATE_90_CLOCKWISE);
    const Lines down = MeasureLines(turned, strip, minLine, maxLine);

    const bool vertical = down.inLines > across.inLines;
    const Lines &l = vertical ? down : across;
    const double direction = std::max(across.inLines, down.inLines) > 0
                                 ? std::abs(across.inLines - down.inLines) / std::max(across.inLines, down.inLines)
                                 : 0.0;
    const double confidence = std::min(1.0, std::abs(l.balance) / kFullBalance) *
                              std::min(1.0, l.count / kFullLines) * std::min(1.0, 2.0 * direction);
    // The call follows the summed balance; the confidence reported also
    // asks that the lines agree one by one, so a script or a page of
    // capitals without the asymmetry (a few lines leaning each way by
    // chance) reads unsure rather than confidently wrong.
    result.confidence = confidence * std::min(1.0, l.agreement / kFullAgreement);
    if (confidence < kCallUpright) return result;
    result.angle = vertical ? (l.balance > 0 ? 90 : 270) : (l.balance > 0 ? 0 : 180);
    return result;
}

}  // namespace quarvel::scan
