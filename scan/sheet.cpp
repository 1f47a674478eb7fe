// Sheet and frame: where the paper lies inside dark scanner background, book
// edges or black strips.
//
// Works on the reduced page shrunk to about 37 dpi (at most four times). The paper
// level is the bright end of the page's middle half. Pixels clearly darker
// than it (below 70 %) are frame candidates. A side has a frame when at least
// half of its outermost lines are candidates; the frame is then every
// candidate region that touches such a side, so a dark photo or a line of
// text reaching one edge is never taken for background, and it must meet the
// paper at a clear step (shading darkens gradually) and be dark on the
// whole, at most half the paper level. Failing that, a light bed (a gray
// scanner lid or table round a book) is tried the same way: when the page's
// outer ring is flat (interquartile spread under a quarter of the gap) and
// has a median level clearly below the paper's (12 % at least) yet not
// dark (old paper's browned edges vary far more), candidates are pixels nearer that level than the paper's,
// and the step across the frame's edge must be most of the gap. The sheet is the
// bounding box of the largest paper region left, on framed sides only: a side
// without a frame keeps the page edge, so a page without a frame is not
// trimmed at all. A skewed sheet gives its axis-aligned bounding box.
//
// A sheet's shaded part (a curled edge, a gutter, a fold) can be as dark as
// the bed, but it is still paper: it carries print, and it has the paper's
// grain where a bed is flat. So grid cells covered by printed letters are
// never frame candidates, frame regions more varied than the bed at the
// page's edge that reach that print are taken back as paper, and the step
// across the frame's edge is judged only where the frame meets plain paper.
#include <algorithm>
#include <cmath>
#include <cstring>

#include <opencv2/imgproc.hpp>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kGridDpi = 37.5;     // resolution of the sheet grid
constexpr double kDarkFraction = 0.70;  // candidate: darker than 70 % of the paper level
constexpr double kSideCover = 0.5;    // a framed side's edge lines are at least half candidates
constexpr double kMinFrameMm = 1.0;   // thinner dark edges are not a frame
constexpr double kMinStep = 0.33;     // contrast across the frame's edge, share of the paper level
constexpr double kMaxFrameLevel = 0.5; // a frame's mean level, share of the paper level
constexpr double kStray = 0.02;       // sheet rows/columns with less paper than this share are trimmed
constexpr double kMinPaperShare = 0.2;  // a "sheet" smaller than this share of the page is not one
constexpr double kMinBedGap = 0.12;   // a light bed lies at least this share of the paper level below it,
constexpr double kBedStep = 0.6;      // meets the paper at a step of this share of the gap,
constexpr double kBedSpread = 0.25;   // and is flat: its ring's interquartile spread is at most this share
constexpr double kRectFill = 0.7;     // a paper region filling this share of its rectangle is a sheet
constexpr int kRectInset = 2;         // grid pixels (about 1.4 mm) of its rim left to the frame
constexpr int kBayWidth = 5;          // grid pixels (about 3.4 mm): thinner strips along the edge stay frame
constexpr double kBayLift = 0.10;     // a bay this share of the paper level above the bed's mean,
constexpr double kBayTexture = 0.15;  // or this much more varied (standard deviation), is the sheet's
constexpr double kLetterMinMm = 0.8;  // ink blobs 0.8 to 8 mm tall and at most 8 mm wide are letters
constexpr double kLetterMaxMm = 8.0;
constexpr double kLetterWideMm = 8.0;
constexpr double kLetterShape = 3.0;  // neither side over 3 times the other (rules, shadow lines, stack edges)
constexpr double kLetterDark = 0.5;   // printed: darkest pixel under this share of the paper round it
constexpr double kShadeRange = 0.04;  // shaded paper's grain: 3 x 3 range at least this share of the paper level
constexpr double kBridgeShare = 0.01; // light regions this share of the page that shaded paper must not join
constexpr double kTextCover = 0.25;   // grid cells whose 5 x 5 neighbourhood letters cover this share are text

// The candidate regions that touch a side mostly made of candidates (as
// FindFrame reads them): all a frame could be.
cv::Mat FrameReach(cv::Mat dark, const cv::Rect edges[4]) {
    cv::morphologyEx(dark, dark, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3)));
    cv::Mat reach(dark.size(), CV_8UC1, cv::Scalar(0));
    bool any = false;
    for (int i = 0; i < 4; ++i) any = any || cv::countNonZero(dark(edges[i])) >= kSideCover * edges[i].area();
    if (!any) return reach;
    cv::Mat labels;
    const int n = cv::connectedComponents(dark, labels, 8, CV_32S);
    std::vector<char> touches(static_cast<std::size_t>(n), 0);
    for (int i = 0; i < 4; ++i) {
        if (cv::countNonZero(dark(edges[i])) < kSideCover * edges[i].area()) continue;
        const cv::Mat l = labels(edges[i]);
        for (int y = 0; y < l.rows; ++y)
            for (int x = 0; x < l.cols; ++x) touches[static_cast<std::size_t>(l.at<int>(y, x))] = 1;
    }
    touches[0] = 0;
    for (int y = 0; y < dark.rows; ++y)
        for (int x = 0; x < dark.cols; ++x)
            if (touches[static_cast<std::size_t>(labels.at<int>(y, x))]) reach.at<std::uint8_t>(y, x) = 255;
    return reach;
}

// Grid cells that carry text: the boxes of printed, letter-sized ink blobs
// (a bed is flat and leaves none; a shadow's rim, a rule or a page stack's
// edges are lines, far longer than they are thick; paper grain and fibres
// are faint), as the share of each cell they cover, averaged over 5 x 5
// cells (about 3.4 mm) so a line of text reads as one band and a stray blob
// does not. Only the ink within `roi` (grid cells) is read: text matters
// only where the frame could be.
cv::Mat TextCells(const ScanPage &page, int shrink, const cv::Mat &roi) {
    cv::Mat text(roi.size(), CV_8UC1, cv::Scalar(0));
    if (page.ink.size() != page.reduced.size() || cv::countNonZero(roi) == 0) return text;
    // The ink under the region's cells, copied run by run.
    cv::Mat ink(std::min(page.ink.rows, roi.rows * shrink), std::min(page.ink.cols, roi.cols * shrink), CV_8UC1,
                cv::Scalar(0));
    for (int y = 0; y < ink.rows; ++y) {
        const std::uint8_t *cells = roi.ptr<std::uint8_t>(y / shrink);
        for (int gx = 0; gx < roi.cols;) {
            if (!cells[gx]) {
                ++gx;
                continue;
            }
            const int start = gx;
            while (gx < roi.cols && cells[gx]) ++gx;
            const int x0 = start * shrink, x1 = std::min(ink.cols, gx * shrink);
            if (x1 > x0) std::memcpy(ink.ptr<std::uint8_t>(y) + x0, page.ink.ptr<std::uint8_t>(y) + x0, x1 - x0);
        }
    }
    cv::Mat stats;
    const int n = LabelBlobs(ink, nullptr, &stats);
    const double px = page.dpi / 25.4 / page.reduction;
    const cv::Mat &r = page.reduced;
    std::vector<int> cover(roi.total(), 0);
    for (int i = 1; i < n; ++i) {
        const int x0 = stats.at<int>(i, cv::CC_STAT_LEFT), y0 = stats.at<int>(i, cv::CC_STAT_TOP);
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        if (h < kLetterMinMm * px || h > kLetterMaxMm * px || w > kLetterWideMm * px || w > kLetterShape * h ||
            h > kLetterShape * w)
            continue;
        // Printed: its darkest pixel well under the paper round it (the
        // lightest pixel within half its height).
        const int ax = std::max(0, x0 - h / 2), ay = std::max(0, y0 - h / 2);
        const int bx = std::min(r.cols, x0 + w + h / 2), by = std::min(r.rows, y0 + h + h / 2);
        int darkest = 255, paper = 0;
        for (int y = ay; y < by; ++y) {
            const std::uint8_t *row = r.ptr<std::uint8_t>(y);
            const bool inBox = y >= y0 && y < y0 + h;
            for (int x = ax; x < bx; ++x) {
                paper = std::max(paper, int(row[x]));
                if (inBox && x >= x0 && x < x0 + w) darkest = std::min(darkest, int(row[x]));
            }
        }
        if (darkest > kLetterDark * paper) continue;
        for (int gy = y0 / shrink; gy <= (y0 + h - 1) / shrink && gy < roi.rows; ++gy) {
            const int dy = std::min(y0 + h, (gy + 1) * shrink) - std::max(y0, gy * shrink);
            for (int gx = x0 / shrink; gx <= (x0 + w - 1) / shrink && gx < roi.cols; ++gx)
                cover[static_cast<std::size_t>(gy) * roi.cols + gx] +=
                    dy * (std::min(x0 + w, (gx + 1) * shrink) - std::max(x0, gx * shrink));
        }
    }
    for (int y = 0; y < roi.rows; ++y)
        for (int x = 0; x < roi.cols; ++x)
            text.at<std::uint8_t>(y, x) = static_cast<std::uint8_t>(
                std::min(255, cover[static_cast<std::size_t>(y) * roi.cols + x] * 255 / (shrink * shrink)));
    // Dense enough over 5 x 5 cells, and between letters (closed over the
    // same span): never spilled past the print onto a bed beside it.
    const cv::Mat span = cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5));
    cv::Mat between;
    cv::morphologyEx(text > 0, between, cv::MORPH_CLOSE, span);
    cv::blur(text, text, span.size());
    return (text > kTextCover * 255) & between;
}

int PaperLevel(const cv::Mat &g) {
    const cv::Mat mid = g(cv::Rect(g.cols / 4, g.rows / 4, std::max(1, g.cols / 2), std::max(1, g.rows / 2)));
    int hist[256] = {};
    for (int y = 0; y < mid.rows; ++y)
        for (int x = 0; x < mid.cols; ++x) ++hist[mid.at<std::uint8_t>(y, x)];
    // The 90th percentile: above most ink, below stray white specks.
    const long total = static_cast<long>(mid.total());
    long seen = 0;
    for (int v = 0; v < 256; ++v) {
        seen += hist[v];
        if (seen * 10 >= total * 9) return std::max(v, 1);
    }
    return 255;
}

// The median of the grid's outermost two lines all round, and their
// interquartile spread.
int RingLevel(const cv::Mat &g, int *spread) {
    int hist[256] = {};
    long total = 0;
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x)
            if (x < 2 || y < 2 || x >= g.cols - 2 || y >= g.rows - 2) {
                ++hist[g.at<std::uint8_t>(y, x)];
                ++total;
            }
    int q[3] = {255, 255, 255};
    long seen = 0;
    for (int v = 255; v >= 0; --v) {
        seen += hist[v];
        for (int k = 0; k < 3; ++k)
            if (q[k] == 255 && seen * 4 >= total * (k + 1)) q[k] = v;
    }
    *spread = q[0] - q[2];
    return q[1];
}

// Marks the labels (of n) found in the edge strips of the framed sides.
std::vector<char> LabelsOnSides(const cv::Mat &labels, int n, const cv::Rect edges[4], const bool framed[4]) {
    std::vector<char> on(static_cast<std::size_t>(n), 0);
    for (int i = 0; i < 4; ++i) {
        if (!framed[i]) continue;
        const cv::Mat l = labels(edges[i]);
        for (int y = 0; y < l.rows; ++y)
            for (int x = 0; x < l.cols; ++x) on[static_cast<std::size_t>(l.at<int>(y, x))] = 1;
    }
    return on;
}

// A sheet's shaded part (a curled edge, a gutter) can be as dark as the bed
// and join the frame, but a bed is flat while paper has grain and print.
// Frame regions varied beyond the bed's own noise (the 3 x 3 range on the
// grid above twice the median range of the frame at the page's edge, and 4 %
// of the paper level at least) that reach printed cells are the sheet's.
// A book's stack edges or cover lie beyond the sheet's white margin and
// reach no print, so they stay frame.
cv::Mat ReclaimShadedPaper(const cv::Mat &g, int paperLevel, const cv::Mat &nearText, const cv::Rect edges[4],
                           const bool framed[4], cv::Mat *paperGrid) {
    cv::Mat &p = *paperGrid;
    cv::Mat reclaimed(g.size(), CV_8UC1, cv::Scalar(0));
    if (cv::countNonZero(nearText & ~p) == 0) return reclaimed;
    cv::Mat range;
    cv::morphologyEx(g, range, cv::MORPH_GRADIENT, cv::Mat());
    int hist[256] = {};
    long total = 0;
    for (int i = 0; i < 4; ++i) {
        if (!framed[i]) continue;
        for (int y = edges[i].y; y < edges[i].br().y; ++y)
            for (int x = edges[i].x; x < edges[i].br().x; ++x)
                if (p.at<std::uint8_t>(y, x) == 0) ++hist[range.at<std::uint8_t>(y, x)], ++total;
    }
    int median = 0;
    for (long seen = 0; median < 255 && (seen += hist[median]) * 2 < total;) ++median;
    const double limit = std::max(2.0 * median, kShadeRange * paperLevel);
    // Opened by 5 cells (about 3.4 mm), so the band a straight step leaves
    // (its cells' range holds both sides) and a shadowed rim do not count.
    cv::Mat varied = (range > limit) & ~p, labels;
    cv::morphologyEx(varied, varied, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(5, 5)));
    const int n = cv::connectedComponents(varied, labels, 8, CV_32S);
    // The print must be the main paper region's, and a shaded strip never
    // bridges it to another light region of any size (a ruler, the next
    // page, a lid): paper regions grown by a cell show what each strip meets.
    cv::Mat regions, stats, centroids;
    const int pn = cv::connectedComponentsWithStats(p, regions, stats, centroids, 4, CV_32S);
    int main = 0;
    for (int i = 1; i < pn; ++i)
        if (main == 0 || stats.at<int>(i, cv::CC_STAT_AREA) > stats.at<int>(main, cv::CC_STAT_AREA)) main = i;
    if (main == 0) return reclaimed;
    cv::Mat mainGrown, otherGrown;
    cv::dilate((regions == main) & nearText, mainGrown, cv::Mat());
    cv::Mat other = (regions != main) & p;
    for (int i = 1; i < pn; ++i)
        if (i != main && stats.at<int>(i, cv::CC_STAT_AREA) < kBridgeShare * g.total()) other &= regions != i;
    cv::dilate(other, otherGrown, cv::Mat());
    std::vector<char> printed(static_cast<std::size_t>(n), 0), bridges(printed);
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x) {
            const std::size_t l = static_cast<std::size_t>(labels.at<int>(y, x));
            if (mainGrown.at<std::uint8_t>(y, x)) printed[l] = 1;
            if (otherGrown.at<std::uint8_t>(y, x)) bridges[l] = 1;
        }
    printed[0] = 0;
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x) {
            const std::size_t l = static_cast<std::size_t>(labels.at<int>(y, x));
            if (printed[l] && !bridges[l]) reclaimed.at<std::uint8_t>(y, x) = 255;
        }
    // Frame pockets the shaded paper now closes in (darker patches of it)
    // no longer reach the bed: they are paper too.
    cv::Mat frame = ~(p | reclaimed);
    const int m = cv::connectedComponents(frame, labels, 8, CV_32S);
    const std::vector<char> bed = LabelsOnSides(labels, m, edges, framed);
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x)
            if (frame.at<std::uint8_t>(y, x) && !bed[static_cast<std::size_t>(labels.at<int>(y, x))])
                reclaimed.at<std::uint8_t>(y, x) = 255;
    // A varied cell next to the bed holds the step to it in its range: the
    // bed's side of the edge, left to the frame.
    cv::Mat beside;
    cv::dilate(frame & ~reclaimed, beside, cv::Mat());
    reclaimed &= ~beside;
    p |= reclaimed;
    return reclaimed;
}

// The frame from candidate pixels: sides whose two outermost lines are
// mostly candidates, then every candidate region touching such a side; it
// must meet the paper at a mean step of at least `minStep` (3-pixel
// gradient, about 2 mm: shading darkens gradually) and average at most
// `maxLevel`. Fills `framed` and the paper grid (255 off the frame).
bool FindFrame(const cv::Mat &g, int paperLevel, cv::Mat dark, const cv::Mat &nearText, double minStep, double maxLevel,
               const cv::Rect edges[4], bool framed[4], cv::Mat *paperGrid, cv::Mat *shaded) {
    // Strokes of text near the edge are thinner than any frame: opened away,
    // they cannot join the frame and be cut with it.
    cv::morphologyEx(dark, dark, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(3, 3)));
    bool any = false;
    for (int i = 0; i < 4; ++i) {
        framed[i] = cv::countNonZero(dark(edges[i])) >= kSideCover * edges[i].area();
        any = any || framed[i];
    }
    if (!any) return false;
    cv::Mat labels;
    const int n = cv::connectedComponents(dark, labels, 8, CV_32S);
    std::vector<char> frame = LabelsOnSides(labels, n, edges, framed);
    frame[0] = 0;
    cv::Mat &p = *paperGrid;
    p.create(g.size(), CV_8UC1);
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x) p.at<std::uint8_t>(y, x) = frame[static_cast<std::size_t>(labels.at<int>(y, x))] ? 0 : 255;
    cv::Mat gradient, rim;
    cv::morphologyEx(g, gradient, cv::MORPH_GRADIENT, cv::Mat());
    cv::dilate(p, rim, cv::Mat());
    rim &= ~p;
    // Where the frame meets printed paper, or is itself shaded paper, it is
    // a shadow over the sheet, not its edge: the step is judged elsewhere.
    *shaded = ReclaimShadedPaper(g, paperLevel, nearText, edges, framed, &p);
    const cv::Mat &reclaimed = *shaded;
    rim &= ~(nearText | reclaimed);
    if (cv::countNonZero(rim) > 0 && cv::mean(gradient, rim)[0] < minStep) return false;
    return cv::mean(g, ~p)[0] <= maxLevel;
}

// A sheet is a rectangle: a dark picture printed to its edge joins the
// frame there and leaves a bay in the paper region, but it lies inside the
// rectangle the region fits, while the bed (and the wedges round a skewed
// sheet) lie outside it. So the rectangle, less its rim, is sheet whenever
// the region fills most of it (a book's stack edges and binding leave shapes
// that do not); only bays at least 3.4 mm thick are taken back, so a page
// edge's shadow or a strip the scanner left along the sheet's side stays
// frame. A bay at the bed's own level and about as flat is the bed seen past
// the sheet (a torn corner, a dark glove holding the page) and stays frame
// too; a picture is lighter on the whole, or far more varied (a dark
// halftone).
void ReclaimBays(const cv::Mat &g, const cv::Mat &paperGrid, const cv::Mat &shaded, int area, int paperLevel,
                 cv::Mat *sheetGrid) {
    // Each row's first and last paper pixel hold the region's hull.
    std::vector<cv::Point> points;
    for (int y = 0; y < sheetGrid->rows; ++y) {
        const std::uint8_t *row = sheetGrid->ptr<std::uint8_t>(y);
        int x0 = 0, x1 = sheetGrid->cols - 1;
        while (x0 <= x1 && row[x0] == 0) ++x0;
        while (x1 >= x0 && row[x1] == 0) --x1;
        if (x0 > x1) continue;
        points.emplace_back(x0, y);
        points.emplace_back(x1, y);
    }
    if (points.empty()) return;
    const cv::RotatedRect fit = cv::minAreaRect(points);
    if (area < kRectFill * fit.size.area() || std::min(fit.size.width, fit.size.height) <= 4 * kRectInset) return;
    auto corners = [](const cv::RotatedRect &r) {
        cv::Point2f c[4];
        r.points(c);
        std::vector<cv::Point> quad;
        for (const cv::Point2f &p : c) quad.emplace_back(cvRound(p.x), cvRound(p.y));
        return quad;
    };
    cv::Mat bays(sheetGrid->size(), CV_8UC1, cv::Scalar(0));
    cv::fillConvexPoly(
        bays, corners(cv::RotatedRect(fit.center, fit.size - cv::Size2f(2 * kRectInset, 2 * kRectInset), fit.angle)),
        cv::Scalar(255));
    // Shaded paper taken back counts with its bay, so a picture whose
    // varied parts were taken is judged whole.
    bays &= ~*sheetGrid | shaded;
    cv::morphologyEx(bays, bays, cv::MORPH_OPEN,
                     cv::getStructuringElement(cv::MORPH_RECT, cv::Size(kBayWidth, kBayWidth)));
    if (cv::countNonZero(bays) == 0) return;
    cv::Mat outside(sheetGrid->size(), CV_8UC1, cv::Scalar(255));
    cv::fillConvexPoly(outside, corners(fit), cv::Scalar(0));
    outside &= ~paperGrid;
    cv::Scalar bed(0), bedSpread(0);
    if (cv::countNonZero(outside) > 0) cv::meanStdDev(g, bed, bedSpread, outside);
    cv::Mat labels;
    const int n = cv::connectedComponents(bays, labels, 8, CV_32S);
    std::vector<double> sum(static_cast<std::size_t>(n), 0.0), squares(sum), count(sum);
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x) {
            const std::size_t l = static_cast<std::size_t>(labels.at<int>(y, x));
            const double v = g.at<std::uint8_t>(y, x);
            sum[l] += v;
            squares[l] += v * v;
            count[l] += 1;
        }
    std::vector<char> sheet(static_cast<std::size_t>(n), 0);
    for (std::size_t l = 1; l < sum.size(); ++l) {
        const double mean = sum[l] / count[l];
        const double spread = std::sqrt(std::max(0.0, squares[l] / count[l] - mean * mean));
        sheet[l] = mean > bed[0] + kBayLift * paperLevel || spread > bedSpread[0] + kBayTexture * paperLevel;
    }
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x)
            if (sheet[static_cast<std::size_t>(labels.at<int>(y, x))]) sheetGrid->at<std::uint8_t>(y, x) = 255;
}

}  // namespace

Sheet FindSheet(const ScanPage &page) {
    Sheet s;
    s.box = cv::Rect(0, 0, page.width, page.height);
    s.paper = cv::Mat(page.reduced.size(), CV_8UC1, cv::Scalar(255));
    if (page.reduced.empty()) return s;

    cv::Mat g;
    // About kGridDpi; a low-resolution page keeps its own pixels, so its
    // text does not blur into frame-dark cells.
    const int kShrink = std::clamp(static_cast<int>(std::lround(page.dpi / static_cast<double>(page.reduction) / kGridDpi)), 1, 4);
    const int gw = std::max(1, page.reduced.cols / kShrink), gh = std::max(1, page.reduced.rows / kShrink);
    cv::resize(page.reduced(cv::Rect(0, 0, std::min(page.reduced.cols, gw * kShrink), std::min(page.reduced.rows, gh * kShrink))),
               g, cv::Size(gw, gh), 0, 0, cv::INTER_AREA);
    s.paperLevel = PaperLevel(g);
    if (gw < 8 || gh < 8) return s;
    const cv::Rect edges[4] = {cv::Rect(0, 0, 2, gh), cv::Rect(0, 0, gw, 2), cv::Rect(gw - 2, 0, 2, gh),
                               cv::Rect(0, gh - 2, gw, 2)};
    const unsigned sideBits[4] = {QUARVEL_SIDE_LEFT, QUARVEL_SIDE_TOP, QUARVEL_SIDE_RIGHT, QUARVEL_SIDE_BOTTOM};
    bool framed[4];
    cv::Mat paperGrid, shaded;
    // A dark frame first (black bed, book edges, strips); failing that a
    // light one: a gray bed whose level the page's outer ring holds. Cells
    // that carry text are paper however dark: the shaded part of a sheet (a
    // gutter, a curled edge) is as dark as a bed but still printed on.
    int spread = 0;
    const int bed = RingLevel(g, &spread);
    const double gap = s.paperLevel - bed;
    const bool lightBed =
        gap >= kMinBedGap * s.paperLevel && bed >= kDarkFraction * s.paperLevel && spread <= kBedSpread * gap;
    const double split = bed + gap / 2;
    // Text is read within 7 cells (about 5 mm) of what could be frame.
    cv::Mat roi = FrameReach(g < kDarkFraction * s.paperLevel, edges);
    if (lightBed) roi |= FrameReach(g < split, edges);
    cv::dilate(roi, roi, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(15, 15)));
    // A printed cell is varied (its letters against the paper); a flat
    // one beside the print is bed, however close a line ends to it.
    cv::Mat range;
    cv::morphologyEx(g, range, cv::MORPH_GRADIENT, cv::Mat());
    const cv::Mat text = TextCells(page, kShrink, roi) & (range > kShadeRange * s.paperLevel);
    cv::Mat nearText;
    cv::dilate(text, nearText, cv::Mat());
    if (!FindFrame(g, s.paperLevel, (g < kDarkFraction * s.paperLevel) & ~text, nearText, kMinStep * s.paperLevel,
                   kMaxFrameLevel * s.paperLevel, edges, framed, &paperGrid, &shaded)) {
        if (!lightBed) return s;
        if (!FindFrame(g, s.paperLevel, (g < split) & ~text, nearText, kBedStep * gap, split, edges, framed, &paperGrid,
                       &shaded))
            return s;
    }

    // The largest paper region (4-connected, so a thin paper bridge along
    // the frame does not join stray bright spots to the sheet).
    cv::Mat plabels, stats, centroids;
    const int pn = cv::connectedComponentsWithStats(paperGrid, plabels, stats, centroids, 4, CV_32S);
    int best = 0;
    for (int i = 1; i < pn; ++i)
        if (best == 0 || stats.at<int>(i, cv::CC_STAT_AREA) > stats.at<int>(best, cv::CC_STAT_AREA)) best = i;
    if (best == 0 || stats.at<int>(best, cv::CC_STAT_AREA) < kMinPaperShare * gw * gh) return s;
    // Its box, less rows and columns holding under 2 % of the fullest: a
    // strip of light scanner lid beyond a black bed, or a stray corner, does
    // not stretch the sheet to the page edge.
    cv::Mat sheetGrid = (plabels == best), cols, rows;
    ReclaimBays(g, paperGrid, shaded, stats.at<int>(best, cv::CC_STAT_AREA), s.paperLevel, &sheetGrid);
    cv::reduce(sheetGrid, cols, 0, cv::REDUCE_SUM, CV_32S);
    cv::reduce(sheetGrid, rows, 1, cv::REDUCE_SUM, CV_32S);
    double colMax = 0, rowMax = 0;
    cv::minMaxLoc(cols, nullptr, &colMax);
    cv::minMaxLoc(rows, nullptr, &rowMax);
    int gl = 0, gr = gw, gt = 0, gb = gh;
    while (gl < gr - 1 && cols.at<int>(gl) < kStray * colMax) ++gl;
    while (gr > gl + 1 && cols.at<int>(gr - 1) < kStray * colMax) --gr;
    while (gt < gb - 1 && rows.at<int>(gt) < kStray * rowMax) ++gt;
    while (gb > gt + 1 && rows.at<int>(gb - 1) < kStray * rowMax) --gb;
    const cv::Rect grid(gl, gt, gr - gl, gb - gt);

    // Grid to page pixels; the box leaves a framed side's edge only when the
    // sheet stands clear of it by at least kMinFrameMm.
    const int scale = kShrink * page.reduction;
    const int minFrame = MmToPixels(page, kMinFrameMm);
    int left = grid.x * scale, top = grid.y * scale;
    int right = std::min(page.width, (grid.x + grid.width) * scale);
    int bottom = std::min(page.height, (grid.y + grid.height) * scale);
    if (grid.x + grid.width >= gw) right = page.width;
    if (grid.y + grid.height >= gh) bottom = page.height;
    if (!framed[0] || left < minFrame) left = 0;
    if (!framed[1] || top < minFrame) top = 0;
    if (!framed[2] || page.width - right < minFrame) right = page.width;
    if (!framed[3] || page.height - bottom < minFrame) bottom = page.height;
    // A framed side counts even where a skewed sheet's corner reaches the
    // page edge: its wedges are frame all the same.
    for (int i = 0; i < 4; ++i)
        if (framed[i]) s.sides |= sideBits[i];
    s.box = cv::Rect(left, top, right - left, bottom - top);
    if (s.sides == 0) return s;

    // The paper mask at the reduced scale: the sheet region, frame elsewhere.
    cv::Mat exact;
    cv::resize(sheetGrid, exact, cv::Size(gw * kShrink, gh * kShrink), 0, 0, cv::INTER_NEAREST);
    cv::copyMakeBorder(exact, s.paper, 0, page.reduced.rows - exact.rows, 0, page.reduced.cols - exact.cols,
                       cv::BORDER_REPLICATE);
    return s;
}

}  // namespace quarvel::scan
