// Content box: the box holding every printed or written mark on the sheet.
//
// Connected regions of the page's ink (scan/page.h, about 150 dpi) on the
// sheet's paper, away from the frame. Left out: regions inside a punch hole;
// specks (under 0.5 mm across) with no other mark within 5 mm, so a page
// number or a full stop at a line's end stays but scanner dust does not; and
// strips hugging the sheet's edge (under 3 mm thick, five times as long and
// a twentieth of the side at least: the shadow of a page edge, a book's
// fore-edge, pieces of a black strip). Stains rarely pass the ink
// threshold, which asks for marks clearly darker than the paper round them.
// Pictures are found apart: the ink threshold reads a photo's light parts
// against the photo itself and keeps only its dark pockets, so regions of
// the sheet darker than 90 % of its paper level (on 4 x 4 cells, each read
// by its lightest pixel, opened by 5 mm), at least 10 mm across both ways,
// filling half their box, dark on the whole (mean under 75 % of the paper:
// a stain or tinted patch is lighter), spread in tone (a bed is even) and
// meeting the paper at a step (a gutter shadow fades into it) join the box
// whole, out to the sheet's edge where they come within 2.5 mm of it.
#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kSpeckMm = 0.5;     // largest speck dropped when alone
constexpr double kNeighbourMm = 5.0; // a speck this close to a mark is kept
constexpr double kFrameGapMm = 1.5;  // ink this close to the frame is the frame's edge
constexpr double kEdgeLineMm = 3.0;  // edge shadows and strips are at most this thick,
constexpr double kEdgeLength = 5.0;  // at least this many times longer,
constexpr double kEdgeShare = 20.0;  // at least 1/20 of the sheet's side long,
constexpr double kEdgeTouchMm = 1.0; // and lie this close to the sheet's edge
constexpr double kPictureMm = 10.0;   // a picture is this wide and tall at least,
constexpr double kPictureTone = 0.9;  // its pixels below this share of the paper level,
constexpr double kPictureFill = 0.5;  // filling this share of its box,
constexpr double kPictureMean = 0.75; // with a mean below this share of the paper level,
constexpr double kPictureSpread = 0.08; // and tones spread this share of it at least (the bed is even)
constexpr double kPictureStep = 0.15;   // and meet the paper at a step of this share of it
constexpr double kPictureEdgeMm = 2.5; // a picture this close to the sheet's edge reaches it

// Boxes of the pictures on `gray` (a sheet's reduced pixels; `paper` 255 on
// the sheet), in gray's pixels.
std::vector<cv::Rect> FindPictures(const cv::Mat &gray, const cv::Mat &paper, int level, int minSide, int reach) {
    constexpr int kCell = 4;
    std::vector<cv::Rect> found;
    if (gray.cols < kCell || gray.rows < kCell || minSide < 2 * kCell) return found;
    // A cell's lightest pixel stands for it (a picture's cells are dark
    // throughout), the paper mask's nearest pixel for its paper.
    const cv::Mat cells = CellMax(gray, kCell);
    const int cw = cells.cols, ch = cells.rows;
    cv::Mat onPaper, dark;
    cv::resize(paper, onPaper, cells.size(), 0, 0, cv::INTER_NEAREST);
    cv::bitwise_and(cells < kPictureTone * level, onPaper > 127, dark);
    // Opened by half a picture's side, so text, rules and a shaded rim
    // beside a picture do not join it.
    const int open = minSide / (2 * kCell) | 1;
    cv::morphologyEx(dark, dark, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(open, open)));
    cv::Mat labels, stats, centroids;
    const int n = cv::connectedComponentsWithStats(dark, labels, stats, centroids, 8, CV_32S);
    for (int i = 1; i < n; ++i) {
        const cv::Rect b(stats.at<int>(i, cv::CC_STAT_LEFT), stats.at<int>(i, cv::CC_STAT_TOP),
                         stats.at<int>(i, cv::CC_STAT_WIDTH), stats.at<int>(i, cv::CC_STAT_HEIGHT));
        if (b.width * kCell < minSide || b.height * kCell < minSide ||
            stats.at<int>(i, cv::CC_STAT_AREA) < kPictureFill * b.area())
            continue;
        cv::Scalar mean, spread;
        cv::meanStdDev(cells(b), mean, spread, labels(b) == i);
        if (mean[0] >= kPictureMean * level || spread[0] < kPictureSpread * level) continue;
        // A picture meets the paper at a step (its rim against the ring of
        // cells round it); shading fades into the paper.
        const cv::Rect near = cv::Rect(b.x - 2, b.y - 2, b.width + 4, b.height + 4) & cv::Rect(0, 0, cw, ch);
        cv::Mat region = labels(near) == i, grown, shrunk;
        cv::dilate(region, grown, cv::Mat());
        cv::erode(region, shrunk, cv::Mat());
        const cv::Mat ring = (grown & ~region) & (onPaper(near) > 127), rim = region & ~shrunk;
        const double step =
            cv::countNonZero(ring) == 0 ? level : cv::mean(cells(near), ring)[0] - cv::mean(cells(near), rim)[0];
        if (step < kPictureStep * level) continue;
        cv::Rect r(b.x * kCell, b.y * kCell, b.width * kCell, b.height * kCell);
        // A region within `reach` of the sheet's edge (the paper's outline
        // is coarser than the cells) goes on to it.
        if (r.x <= reach) r.width += r.x, r.x = 0;
        if (r.y <= reach) r.height += r.y, r.y = 0;
        if (r.br().x >= gray.cols - reach) r.width = gray.cols - r.x;
        if (r.br().y >= gray.rows - reach) r.height = gray.rows - r.y;
        found.push_back(r & cv::Rect(0, 0, gray.cols, gray.rows));
    }
    return found;
}

}  // namespace

bool FindContent(const ScanPage &page, const Sheet &sheet, const std::vector<Hole> &holes, cv::Rect *box,
                 InkBlobs *blobs) {
    *box = cv::Rect();
    if (page.ink.empty()) return false;
    const int f = page.reduction;
    const cv::Rect area = cv::Rect(sheet.box.x / f, sheet.box.y / f, (sheet.box.width + f - 1) / f,
                                   (sheet.box.height + f - 1) / f) &
                          cv::Rect(0, 0, page.ink.cols, page.ink.rows);
    if (area.empty()) return false;
    // The page's own ink, only read; a new image where the frame is cut.
    cv::Mat ink = page.ink(area);
    if (sheet.sides != 0) {
        cv::Mat paper, masked;
        const int gap = std::max(1, MmToPixels(page, kFrameGapMm) / f);
        cv::erode(sheet.paper(area), paper, cv::Mat(), cv::Point(-1, -1), gap);
        cv::bitwise_and(ink, paper, masked);
        ink = masked;
    }

    cv::Mat labels, stats;
    const int n = LabelBlobs(ink, &labels, &stats);
    if (blobs != nullptr && sheet.sides == 0) *blobs = InkBlobs{area, stats, n};
    const double toRed = 1.0 / f;
    const int speck = std::max(1, static_cast<int>(std::lround(kSpeckMm * page.dpi / 25.4 * toRed)));
    const int neighbour = std::max(1, static_cast<int>(std::lround(kNeighbourMm * page.dpi / 25.4 * toRed)));
    const int edgeThick = std::max(1, static_cast<int>(std::lround(kEdgeLineMm * page.dpi / 25.4 * toRed)));
    const int edgeTouch = std::max(1, static_cast<int>(std::lround(kEdgeTouchMm * page.dpi / 25.4 * toRed)));

    std::vector<char> keep(static_cast<std::size_t>(n), 0), small(static_cast<std::size_t>(n), 0);
    std::vector<std::uint8_t> paint(static_cast<std::size_t>(n), 0);
    for (int i = 1; i < n; ++i) {
        const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        const double cx = (area.x + x + w / 2.0) * f, cy = (area.y + y + h / 2.0) * f;
        bool inHole = false;
        for (const Hole &hole : holes) inHole = inHole || std::hypot(cx - hole.cx, cy - hole.cy) <= hole.r * 1.2;
        if (inHole) continue;
        const bool vertical = w <= edgeThick && h >= kEdgeLength * w && h * kEdgeShare >= ink.rows &&
                              (x <= edgeTouch || x + w >= ink.cols - edgeTouch);
        const bool horizontal = h <= edgeThick && w >= kEdgeLength * h && w * kEdgeShare >= ink.cols &&
                                (y <= edgeTouch || y + h >= ink.rows - edgeTouch);
        if (vertical || horizontal) continue;
        keep[static_cast<std::size_t>(i)] = 1;
        if (std::max(w, h) < speck) {
            small[static_cast<std::size_t>(i)] = 1;
        } else {
            paint[static_cast<std::size_t>(i)] = 255;
        }
    }
    // The larger marks' pixels, in one pass over the labels.
    cv::Mat marks(ink.size(), CV_8UC1);
    for (int y = 0; y < ink.rows; ++y) {
        const int *l = labels.ptr<int>(y);
        std::uint8_t *m = marks.ptr<std::uint8_t>(y);
        for (int x = 0; x < ink.cols; ++x) m[x] = paint[static_cast<std::size_t>(l[x])];
    }
    // Specks count only near a larger mark: marks grown by `neighbour`, on
    // cells of 4 x 4 pixels (whole cells only), a cell marked when any of
    // its pixels is.
    constexpr int kCell = 4;
    const cv::Size cells(std::max(1, marks.cols / kCell), std::max(1, marks.rows / kCell));
    cv::Mat near = CellMax(
        marks(cv::Rect(0, 0, std::min(marks.cols, cells.width * kCell), std::min(marks.rows, cells.height * kCell))), kCell);
    const int reach = neighbour / kCell + 1;
    cv::dilate(near, near, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(2 * reach + 1, 2 * reach + 1)));
    int left = ink.cols, top = ink.rows, right = 0, bottom = 0;
    if (page.reduced.size() == page.ink.size()) {
        const int minSide = static_cast<int>(std::lround(kPictureMm * page.dpi / 25.4 * toRed));
        const cv::Mat paper = sheet.paper.size() == page.ink.size() ? sheet.paper(area)
                                                                   : cv::Mat(area.size(), CV_8UC1, cv::Scalar(255));
        for (const cv::Rect &p : FindPictures(page.reduced(area), paper, sheet.paperLevel, minSide,
                                                  MmToPixels(page, kPictureEdgeMm) / f)) {
            left = std::min(left, p.x);
            top = std::min(top, p.y);
            right = std::max(right, p.br().x);
            bottom = std::max(bottom, p.br().y);
        }
    }
    for (int i = 1; i < n; ++i) {
        if (!keep[static_cast<std::size_t>(i)]) continue;
        const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        if (small[static_cast<std::size_t>(i)] &&
            near.at<std::uint8_t>(std::min(near.rows - 1, (y + h / 2) / kCell), std::min(near.cols - 1, (x + w / 2) / kCell)) == 0)
            continue;
        left = std::min(left, x);
        top = std::min(top, y);
        right = std::max(right, x + w);
        bottom = std::max(bottom, y + h);
    }
    if (right <= left || bottom <= top) return false;
    // Reduced to page pixels: every page pixel the reduced ones cover.
    cv::Rect r((area.x + left) * f, (area.y + top) * f, (right - left) * f, (bottom - top) * f);
    if (area.x + right >= page.ink.cols) r.width = page.width - r.x;
    if (area.y + bottom >= page.ink.rows) r.height = page.height - r.y;
    *box = r & sheet.box;
    return !box->empty();
}

}  // namespace quarvel::scan
