// Cleaning a page: the analysis, then the steps in the order a user expects:
// fill punch holes, remove specks, straighten (when the skew confidence
// allows), cut the sheet out of its frame (or paint the frame as paper),
// turn upright (when the orientation confidence allows), and binarise last.
//
// Geometry is one affine warp: the turn that straightens the lines about
// the page centre, then a shift that puts the kept region at the origin. The
// kept region, in the straightened page, is the sheet (rows and columns that
// are mostly paper in the turned sheet mask) or the whole page, always grown
// to hold the content box's turned corners plus the margin, so no crop cuts
// into content. What the warp brings in from outside the page, and what is
// left of the frame outside the content box and margin, becomes paper.
#include <algorithm>
#include <cmath>

#include <opencv2/imgproc.hpp>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kMarginMm = 2.0;   // default paper kept round the content
constexpr double kMinTurn = 0.02;   // degrees: smaller skews are left alone

// The paper's colour: the mean of the sheet's pixels near the paper level.
cv::Scalar PaperColour(const ScanPage &page, const Sheet &sheet, const cv::Mat &image) {
    const int level = sheet.paperLevel;
    if (image.channels() == 1) return cv::Scalar(level);
    double sum[3] = {0, 0, 0};
    long n = 0;
    const cv::Rect b = sheet.box & cv::Rect(0, 0, image.cols, image.rows);
    const int step = std::max(1, std::min(b.width, b.height) / 200);
    for (int y = b.y; y < b.y + b.height; y += step) {
        const std::uint8_t *g = page.gray.ptr<std::uint8_t>(y);
        const cv::Vec3b *c = image.ptr<cv::Vec3b>(y);
        for (int x = b.x; x < b.x + b.width; x += step) {
            if (std::abs(g[x] - level) > 12) continue;
            for (int k = 0; k < 3; ++k) sum[k] += c[x][k];
            ++n;
        }
    }
    if (n == 0) return cv::Scalar(level, level, level);
    return cv::Scalar(sum[0] / n, sum[1] / n, sum[2] / n);
}

cv::Rect BoundsOf(const std::vector<cv::Point2d> &pts) {
    double l = 1e18, t = 1e18, r = -1e18, b = -1e18;
    for (const cv::Point2d &p : pts) {
        l = std::min(l, p.x);
        t = std::min(t, p.y);
        r = std::max(r, p.x);
        b = std::max(b, p.y);
    }
    const int x0 = static_cast<int>(std::floor(l)), y0 = static_cast<int>(std::floor(t));
    return cv::Rect(x0, y0, static_cast<int>(std::ceil(r)) - x0, static_cast<int>(std::ceil(b)) - y0);
}

std::vector<cv::Point2d> Corners(const cv::Rect &r, const cv::Matx23d &m) {
    std::vector<cv::Point2d> out;
    for (const cv::Point2d p : {cv::Point2d(r.x, r.y), cv::Point2d(r.x + r.width, r.y), cv::Point2d(r.x, r.y + r.height),
                                cv::Point2d(r.x + r.width, r.y + r.height)})
        out.emplace_back(m(0, 0) * p.x + m(0, 1) * p.y + m(0, 2), m(1, 0) * p.x + m(1, 1) * p.y + m(1, 2));
    return out;
}

// Rows and columns of the mask that are at least half set, as a box (the
// mask's bounding box trimmed of the wedges a skewed sheet leaves).
cv::Rect MostlySet(const cv::Mat &mask) {
    cv::Mat rows, cols;
    cv::reduce(mask, rows, 1, cv::REDUCE_AVG, CV_32F);
    cv::reduce(mask, cols, 0, cv::REDUCE_AVG, CV_32F);
    int t = 0, b = mask.rows, l = 0, r = mask.cols;
    while (t < b && rows.at<float>(t) < 127.5f) ++t;
    while (b > t && rows.at<float>(b - 1) < 127.5f) --b;
    while (l < r && cols.at<float>(l) < 127.5f) ++l;
    while (r > l && cols.at<float>(r - 1) < 127.5f) --r;
    return cv::Rect(l, t, r - l, b - t);
}

}  // namespace

HGLOBAL CleanPage(const ScanPage &page, const QuarvelScanOptions &options, Analysis *analysis) {
    *analysis = AnalyzePage(page, options);
    const Analysis &a = *analysis;
    const unsigned steps = options.steps;
    cv::Mat image = page.colorSource ? page.color.clone() : page.gray.clone();
    // Speck sizes and windows in millimetres need a resolution that fits the
    // sheet, not a placeholder 72 or 96 dpi header.
    const int dpi = PaperDpi(page);

    if (steps & QUARVEL_CLEAN_HOLES) FillHoles(a.holes, &image);
    if ((steps & QUARVEL_CLEAN_DESPECKLE) && !(steps & QUARVEL_CLEAN_BINARIZE) && options.speck_size >= 0) {
        if (image.channels() == 1) {
            Despeckle(&image, options.speck_size, dpi);
        } else {
            // Specks found on gray; the colour pixels they covered take the new gray.
            cv::Mat gray, before;
            cv::cvtColor(image, gray, cv::COLOR_BGR2GRAY);
            before = gray.clone();
            Despeckle(&gray, options.speck_size, dpi);
            cv::Mat changed = gray != before, grayBgr;
            cv::cvtColor(gray, grayBgr, cv::COLOR_GRAY2BGR);
            grayBgr.copyTo(image, changed);
        }
    }

    const bool crop = (steps & QUARVEL_CLEAN_CROP) != 0;
    const bool paint = crop || (steps & QUARVEL_CLEAN_WHITEN) != 0;
    const double angle = (steps & QUARVEL_CLEAN_DESKEW) && a.skew.confidence >= options.min_skew_confidence &&
                                 std::abs(a.skew.angle) >= kMinTurn
                             ? a.skew.angle
                             : 0.0;
    const int margin = options.margin >= 0 ? options.margin : MmToPixels(page, kMarginMm);
    const cv::Scalar paper = PaperColour(page, a.sheet, image);

    // The straightening turn about the page centre (positive skew: lines
    // fall to the right, undone by a counter-clockwise turn).
    const cv::Point2f centre(page.width / 2.0f, page.height / 2.0f);
    cv::Matx23d turn = angle != 0.0 ? cv::Matx23d(cv::getRotationMatrix2D(centre, angle, 1.0))
                                    : cv::Matx23d(1, 0, 0, 0, 1, 0);
    const cv::Matx23d scaleUp(page.reduction, 0, 0, 0, page.reduction, 0);
    auto compose = [](const cv::Matx23d &m, const cv::Matx23d &n) {  // m after n
        return cv::Matx23d(m(0, 0) * n(0, 0) + m(0, 1) * n(1, 0), m(0, 0) * n(0, 1) + m(0, 1) * n(1, 1),
                           m(0, 0) * n(0, 2) + m(0, 1) * n(1, 2) + m(0, 2), m(1, 0) * n(0, 0) + m(1, 1) * n(1, 0),
                           m(1, 0) * n(0, 1) + m(1, 1) * n(1, 1), m(1, 0) * n(0, 2) + m(1, 1) * n(1, 2) + m(1, 2));
    };

    // The kept region in the straightened page.
    const cv::Rect pageBounds = BoundsOf(Corners(cv::Rect(0, 0, page.width, page.height), turn));
    cv::Rect keep;
    if (crop && a.sheet.sides != 0) {
        cv::Mat turnedPaper;
        const cv::Matx23d toTurned = compose(turn, scaleUp);
        // The paper mask in straightened page pixels at the reduced scale.
        cv::Matx23d m = toTurned;
        const double s = 1.0 / page.reduction;
        m = cv::Matx23d(m(0, 0) * s, m(0, 1) * s, (m(0, 2) - pageBounds.x) * s, m(1, 0) * s, m(1, 1) * s,
                        (m(1, 2) - pageBounds.y) * s);
        const cv::Size redSize((pageBounds.width + page.reduction - 1) / page.reduction,
                               (pageBounds.height + page.reduction - 1) / page.reduction);
        cv::warpAffine(a.sheet.paper, turnedPaper, m, redSize, cv::INTER_NEAREST, cv::BORDER_CONSTANT, cv::Scalar(0));
        const cv::Rect inner = MostlySet(turnedPaper);
        keep = cv::Rect(pageBounds.x + inner.x * page.reduction, pageBounds.y + inner.y * page.reduction,
                        inner.width * page.reduction, inner.height * page.reduction);
    } else {
        // The page's own size about its centre.
        keep = cv::Rect(static_cast<int>(std::lround(centre.x - page.width / 2.0)),
                        static_cast<int>(std::lround(centre.y - page.height / 2.0)), page.width, page.height);
    }
    cv::Rect guard;
    if (a.hasContent) {
        const cv::Rect c(a.content.x - margin, a.content.y - margin, a.content.width + 2 * margin,
                         a.content.height + 2 * margin);
        guard = BoundsOf(Corners(c, turn)) & pageBounds;
        keep |= guard;
    }
    keep &= (crop ? pageBounds : (pageBounds | keep));
    if (keep.width <= 0 || keep.height <= 0) keep = pageBounds;

    // One warp into the kept region.
    const cv::Matx23d toOut(turn(0, 0), turn(0, 1), turn(0, 2) - keep.x, turn(1, 0), turn(1, 1), turn(1, 2) - keep.y);
    cv::Mat out;
    if (angle == 0.0 && (keep & cv::Rect(0, 0, page.width, page.height)) == keep) {
        out = image(keep).clone();
    } else {
        const bool bitonal = page.bitonalSource;
        cv::warpAffine(image, out, toOut, keep.size(), bitonal ? cv::INTER_NEAREST : cv::INTER_LINEAR, cv::BORDER_CONSTANT,
                       paper);
    }

    // Paint what is left of the frame as paper, outside the content guard.
    if (paint && a.sheet.sides != 0) {
        cv::Mat paperMask;
        cv::Mat frameGrow;
        cv::erode(a.sheet.paper, frameGrow, cv::Mat(), cv::Point(-1, -1), 2);
        cv::warpAffine(frameGrow, paperMask, compose(toOut, scaleUp), keep.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT,
                       cv::Scalar(0));
        if (a.hasContent) {
            // Inside the guard only the frame itself goes, not the grown
            // rim: content ink was only ever looked for on the sheet, clear
            // of the frame, so a dark corner or finger reaching into the
            // content box is painted without touching a mark.
            cv::Mat frameOnly;
            cv::warpAffine(a.sheet.paper, frameOnly, compose(toOut, scaleUp), keep.size(), cv::INTER_NEAREST,
                           cv::BORDER_CONSTANT, cv::Scalar(255));
            const cv::Rect g = cv::Rect(guard.x - keep.x, guard.y - keep.y, guard.width, guard.height) &
                               cv::Rect(0, 0, out.cols, out.rows);
            frameOnly(g).copyTo(paperMask(g));
        }
        out.setTo(paper, paperMask == 0);
    }

    if ((steps & QUARVEL_CLEAN_ORIENT) && a.orientation.confidence >= options.min_orientation_confidence) {
        if (a.orientation.angle == 90) cv::rotate(out, out, cv::ROTATE_90_CLOCKWISE);
        if (a.orientation.angle == 180) cv::rotate(out, out, cv::ROTATE_180);
        if (a.orientation.angle == 270) cv::rotate(out, out, cv::ROTATE_90_COUNTERCLOCKWISE);
    }

    if (steps & QUARVEL_CLEAN_BINARIZE) {
        cv::Mat gray = out;
        if (out.channels() == 3) cv::cvtColor(out, gray, cv::COLOR_BGR2GRAY);
        cv::Mat bin = Binarize(gray, options.binarize_method, options.binarize_window, options.binarize_k, dpi);
        if ((steps & QUARVEL_CLEAN_DESPECKLE) && options.speck_size >= 0) Despeckle(&bin, options.speck_size, dpi);
        return MakeBitonalPage(bin, page);
    }
    return MakePageLike(out, page);
}

}  // namespace quarvel::scan
