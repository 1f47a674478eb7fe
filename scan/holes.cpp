// Punch holes: finding them near the sheet's edges, and filling them with
// the paper round them.
//
// Holes are looked for on the coarse page (about 75 dpi) in a band 30 mm wide inside each edge
// of the sheet. Every pixel is compared with the paper of its neighbourhood
// (the per-channel median of cells 20 mm long along the band), so a hole
// shows whether it is darker (a dark lid, shadowed stacked sheets) or
// brighter (a white lid on tinted paper) than the paper, in gray or in
// colour. The differing pixels are closed, opened with a disc 1.5 mm across
// (ruled lines and pen strokes go), and every blob is tested:
//  - size: 4 to 11 mm across (punches make 5 to 8 mm holes; a shadowed rim
//    or torn edge makes them look larger);
//  - shape: round or rounded: bounding box aspect <= 1.35, overlap with the
//    circle of its area >= 0.7 (a shadowed hole shows as a crescent), an
//    outline no more than 1.45 times a circle's perimeter squared over area,
//    and its own pixels cover most of its disc (a ring or an O does not);
//  - on paper: a cell whose median is under 60 % of the sheet's paper level
//    (a picture reaching the sheet's edge) holds no hole;
//  - alone: the ring out to 1.9 radii is paper, so letters, words and
//    bullets inside text (which have neighbours) are never holes;
//  - position: the centre within 25 mm of a sheet edge, at least 1 mm of
//    paper between the hole and that edge, not cut by the page border;
//  - alignment: a hole is kept when it has a partner on its edge (within
//    20 % of its size, at the same distance from the edge up to about 3
//    degrees of skew), or alone when it is clearly one: its area within 15 %
//    of a circle's, a smooth outline, and its centre within 16 mm of the edge.
#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/imgproc.hpp>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kBandMm = 30.0;
constexpr double kCellMm = 20.0;
constexpr double kMinDiameterMm = 4.0, kMaxDiameterMm = 11.0;
constexpr double kMaxCentreToEdgeMm = 25.0;
constexpr double kMinPaperRoundMm = 1.0;  // paper between a hole and the sheet's edge
constexpr double kLoneCentreToEdgeMm = 16.0;
constexpr int kMinDifference = 28;  // levels off the paper that count as "not paper"
constexpr double kMinPaperLevel = 0.6;  // a cell darker than this share of the sheet's paper is no paper

struct Candidate {
    double cx, cy, r;  // reduced pixels
    int side;          // 0 left, 1 top, 2 right, 3 bottom
    bool clear;        // round and near the edge enough to stand alone
};

// Two candidates on one edge that look like holes of one punch: alike in
// size (within 20 %), apart along the edge, at one distance from it (up to
// about 3 degrees of skew).
bool Partners(const Candidate &a, const Candidate &b) {
    if (a.side != b.side || std::abs(a.r - b.r) > 0.2 * std::max(a.r, b.r)) return false;
    const bool vertical = a.side == 0 || a.side == 2;
    const double along = vertical ? std::abs(a.cy - b.cy) : std::abs(a.cx - b.cx);
    const double across = vertical ? std::abs(a.cx - b.cx) : std::abs(a.cy - b.cy);
    return along >= 4 * std::max(a.r, b.r) && across <= std::max(a.r, 0.05 * along);
}

// Per-channel median of the pixels of `image` in `r` (CV_8UC1 or CV_8UC3)
// that `sheet` marks (all of them when it is empty).
cv::Vec3b Median(const cv::Mat &image, const cv::Rect &r, const cv::Mat &sheet) {
    std::array<std::array<int, 256>, 3> h{};
    const int ch = image.channels();
    int n = 0;
    for (int y = r.y; y < r.y + r.height; ++y) {
        const std::uint8_t *p = image.ptr<std::uint8_t>(y) + r.x * ch;
        const std::uint8_t *m = sheet.empty() ? nullptr : sheet.ptr<std::uint8_t>(y) + r.x;
        for (int x = 0; x < r.width; ++x, p += ch) {
            if (m != nullptr && m[x] == 0) continue;
            ++n;
            for (int c = 0; c < ch; ++c) ++h[c][p[c]];
        }
    }
    cv::Vec3b out;
    const int half = n / 2;
    for (int c = 0; c < ch; ++c) {
        int acc = 0, v = 0;
        while (v < 255 && acc + h[c][v] <= half) acc += h[c][v++];
        out[c] = static_cast<std::uint8_t>(v);
    }
    return out;
}

// Largest channel difference from the paper, over the band's cells. A cell
// whose median (mean of its channels) is under `minPaper` is not paper (a
// picture printed to the sheet's edge, a dark stamp) and is left at 0: its
// own blobs stand on its median as on paper and would pass for holes.
void PaperDifference(const cv::Mat &image, const cv::Mat &sheet, const cv::Rect &band, int cell, int minPaper,
                     cv::Mat *diff) {
    const int ch = image.channels();
    const bool horizontal = band.width >= band.height;
    const int length = horizontal ? band.width : band.height;
    for (int at = 0; at < length; at += cell) {
        const int n = std::min(cell, length - at);
        const cv::Rect c =
            horizontal ? cv::Rect(band.x + at, band.y, n, band.height) : cv::Rect(band.x, band.y + at, band.width, n);
        const cv::Vec3b paper = Median(image, c, sheet);
        int level = 0;
        for (int k = 0; k < ch; ++k) level += paper[k];
        if (level < minPaper * ch) continue;
        for (int y = c.y; y < c.y + c.height; ++y) {
            const std::uint8_t *p = image.ptr<std::uint8_t>(y) + c.x * ch;
            std::uint8_t *d = diff->ptr<std::uint8_t>(y) + c.x;
            const std::uint8_t *m = sheet.empty() ? nullptr : sheet.ptr<std::uint8_t>(y) + c.x;
            for (int x = 0; x < c.width; ++x) {
                if (m != nullptr && m[x] == 0) continue;
                int m = 0;
                for (int k = 0; k < ch; ++k) m = std::max(m, std::abs(p[x * ch + k] - paper[k]));
                d[x] = static_cast<std::uint8_t>(std::min(m, 255));
            }
        }
    }
}

// Fraction of `mask` pixels set in the ring between radii r0 and r1.
double RingCover(const cv::Mat &mask, double cx, double cy, double r0, double r1) {
    int set = 0, all = 0;
    const int y0 = std::max(0, static_cast<int>(cy - r1)), y1 = std::min(mask.rows - 1, static_cast<int>(cy + r1) + 1);
    const int x0 = std::max(0, static_cast<int>(cx - r1)), x1 = std::min(mask.cols - 1, static_cast<int>(cx + r1) + 1);
    for (int y = y0; y <= y1; ++y) {
        const std::uint8_t *m = mask.ptr<std::uint8_t>(y);
        for (int x = x0; x <= x1; ++x) {
            const double d = std::hypot(x - cx, y - cy);
            if (d < r0 || d > r1) continue;
            ++all;
            set += m[x] != 0;
        }
    }
    return all > 0 ? static_cast<double>(set) / all : 1.0;
}

}  // namespace

std::vector<Hole> FindHoles(const ScanPage &page, const Sheet &sheet) {
    const cv::Mat &image = page.coarseColor.empty() ? page.coarse : page.coarseColor;
    const int f = page.coarseReduction;
    const double mm = PaperDpi(page) / 25.4 / f;  // coarse pixels per millimetre
    const double minD = kMinDiameterMm * mm, maxD = kMaxDiameterMm * mm;
    if (minD < 4 || image.empty()) return {};  // too coarse to tell a hole from a blot
    cv::Rect box =
        ShrinkRect(sheet.box.area() > 0 ? sheet.box : cv::Rect(0, 0, page.width, page.height), f, image.size());
    // No frame found: cut dark background off the sides ourselves.
    if (sheet.sides == 0) box = PaperBox(page.coarse, box);
    const int band = std::min(static_cast<int>(kBandMm * mm), std::min(box.width, box.height) / 2);
    if (band < maxD) return {};

    // Differences from the paper in the four bands.
    cv::Mat diff(image.size(), CV_8U, cv::Scalar(0));
    const int cell = std::max(8, static_cast<int>(kCellMm * mm));
    const std::array<cv::Rect, 4> bands = {cv::Rect(box.x, box.y, band, box.height),
                                           cv::Rect(box.x, box.y, box.width, band),
                                           cv::Rect(box.x + box.width - band, box.y, band, box.height),
                                           cv::Rect(box.x, box.y + box.height - band, box.width, band)};
    const int minPaper = static_cast<int>(kMinPaperLevel * sheet.paperLevel);
    // The frame (the bed beside a skewed sheet's corner) is neither paper
    // nor hole: left out of the cells' medians and of the differences.
    cv::Mat onSheet;
    if (sheet.sides != 0 && !sheet.paper.empty()) {
        const int k = std::max(1, f / std::max(1, page.reduction));
        const cv::Rect whole(0, 0, std::min(sheet.paper.cols, image.cols * k),
                             std::min(sheet.paper.rows, image.rows * k));
        const cv::Mat cropped = sheet.paper(whole);
        cv::resize(cropped, onSheet, image.size(), 0, 0, cv::INTER_NEAREST);
    }
    for (const cv::Rect &b : bands) PaperDifference(image, onSheet, b, cell, minPaper, &diff);
    cv::Mat raw = diff > kMinDifference;
    cv::Mat mask;
    cv::morphologyEx(raw, mask, cv::MORPH_CLOSE, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(3, 3)));
    const int open = std::max(3, static_cast<int>(std::lround(1.5 * mm))) | 1;
    cv::morphologyEx(mask, mask, cv::MORPH_OPEN, cv::getStructuringElement(cv::MORPH_ELLIPSE, cv::Size(open, open)));

    // Blobs band by band (a blob in a corner is met twice and kept once).
    std::vector<Candidate> found;
    for (const cv::Rect &bandBox : bands) {
        cv::Mat labels, stats;
        const int n = LabelBlobs(mask(bandBox), &labels, &stats);
        for (int i = 1; i < n; ++i) {
            const int lx = stats.at<int>(i, cv::CC_STAT_LEFT), ly = stats.at<int>(i, cv::CC_STAT_TOP);
            const int x = lx + bandBox.x, y = ly + bandBox.y;
            const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
            if (std::max(w, h) < minD || std::max(w, h) > maxD) continue;
            if (std::max(w, h) > 1.35 * std::min(w, h)) continue;
            if (x <= 0 || y <= 0 || x + w >= image.cols || y + h >= image.rows) continue;
            // Fill the blob's inner gaps (a hole's shadowed rings) before judging its shape.
            cv::Mat blob = labels(cv::Rect(lx, ly, w, h)) == i;
            cv::Mat filled = blob.clone();
            cv::Mat outside(h + 2, w + 2, CV_8U, cv::Scalar(0));
            blob.copyTo(outside(cv::Rect(1, 1, w, h)));
            cv::floodFill(outside, cv::Point(0, 0), cv::Scalar(128));
            filled.setTo(255, outside(cv::Rect(1, 1, w, h)) == 0);
            // Compare with the circle of the same area round the blob's centroid.
            const cv::Moments mo = cv::moments(filled, true);
            if (mo.m00 <= 0) continue;
            const double bx = mo.m10 / mo.m00, by = mo.m01 / mo.m00;
            const double r = std::sqrt(mo.m00 / CV_PI);
            int inside = 0, disc = 0;
            for (int yy = 0; yy < h; ++yy)
                for (int xx = 0; xx < w; ++xx) {
                    const bool in = std::hypot(xx - bx, yy - by) <= r;
                    disc += in;
                    inside += in && filled.at<std::uint8_t>(yy, xx) != 0;
                }
            const double iou = inside / (mo.m00 + disc - inside);
            if (iou < 0.7) continue;
            std::vector<std::vector<cv::Point>> contours;
            cv::findContours(filled, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
            if (contours.size() != 1) continue;
            const double perimeter = cv::arcLength(contours[0], true);
            const double ragged = perimeter * perimeter / (4 * CV_PI * mo.m00);
            if (ragged > 1.45) continue;                                      // a letter or a blot
            if (RingCover(raw, x + bx, y + by, 0, r * 0.9) < 0.55) continue;  // a ring or a letter O
            // Reported: the box round the blob, which holds a hole's shadowed
            // crescent and its paler rim alike.
            const double cx = x + (w - 1) / 2.0, cy = y + (h - 1) / 2.0, reach = std::max(w, h) / 2.0;
            if (RingCover(raw, cx, cy, reach * 1.3, reach * 1.9) > 0.12) continue;  // has neighbours: text
            const std::array<double, 4> toEdge = {cx - box.x, cy - box.y, box.x + box.width - cx,
                                                  box.y + box.height - cy};
            const int side = static_cast<int>(std::min_element(toEdge.begin(), toEdge.end()) - toEdge.begin());
            if (toEdge[side] > kMaxCentreToEdgeMm * mm) continue;
            // Punched through the sheet, so paper all round: a blob reaching
            // the sheet's edge is a worn corner or a notch.
            if (toEdge[side] - reach < kMinPaperRoundMm * mm) continue;
            const bool clear = iou >= 0.85 && ragged <= 1.3 && toEdge[side] <= kLoneCentreToEdgeMm * mm;
            bool seen = false;
            for (const Candidate &o : found) seen = seen || std::hypot(o.cx - cx, o.cy - cy) < reach;
            if (!seen) found.push_back({cx, cy, reach, side, clear});
        }
    }
    // A hole stands alone only when it is clearly one; others need a partner.
    std::vector<Hole> out;
    for (const Candidate &c : found) {
        bool keep = c.clear;
        for (const Candidate &o : found) keep = keep || (&o != &c && Partners(c, o));
        if (keep) out.push_back({c.cx * f + (f - 1) / 2.0, c.cy * f + (f - 1) / 2.0, c.r * f});
    }
    return out;
}

void FillHoles(const std::vector<Hole> &holes, cv::Mat *image) {
    if (image == nullptr || image->empty()) return;
    const int ch = image->channels();
    for (const Hole &h : holes) {
        if (!(h.r > 0) || !std::isfinite(h.cx) || !std::isfinite(h.cy) || h.r > std::max(image->cols, image->rows))
            continue;
        // Cover the rim and shadow too; sample the paper just outside it.
        const double fill = h.r * 1.2 + 2, ring = fill * 1.3 + 2;
        const cv::Rect area = cv::Rect(static_cast<int>(h.cx - ring), static_cast<int>(h.cy - ring),
                                       static_cast<int>(2 * ring) + 2, static_cast<int>(2 * ring) + 2) &
                              cv::Rect(0, 0, image->cols, image->rows);
        std::array<std::vector<std::uint8_t>, 3> samples;
        for (int y = area.y; y < area.y + area.height; ++y) {
            const std::uint8_t *p = image->ptr<std::uint8_t>(y);
            for (int x = area.x; x < area.x + area.width; ++x) {
                const double d = std::hypot(x - h.cx, y - h.cy);
                if (d > fill + 1 && d <= ring)
                    for (int c = 0; c < ch; ++c) samples[c].push_back(p[x * ch + c]);
            }
        }
        if (samples[0].empty()) continue;
        std::array<std::uint8_t, 3> paper{};
        for (int c = 0; c < ch; ++c) {
            auto mid = samples[c].begin() + samples[c].size() / 2;
            std::nth_element(samples[c].begin(), mid, samples[c].end());
            paper[c] = *mid;
        }
        for (int y = area.y; y < area.y + area.height; ++y) {
            std::uint8_t *p = image->ptr<std::uint8_t>(y);
            for (int x = area.x; x < area.x + area.width; ++x)
                if (std::hypot(x - h.cx, y - h.cy) <= fill)
                    for (int c = 0; c < ch; ++c) p[x * ch + c] = paper[c];
        }
    }
}

}  // namespace quarvel::scan
