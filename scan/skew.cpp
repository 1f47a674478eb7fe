// Skew of the text lines, with a confidence.
//
// Projection profiles of the page's ink (scan/page.h, about 150 dpi) inside
// the sheet. The ink is cut into vertical strips; each strip's row counts
// are shifted by -x * tan(angle) (x: the strip's centre) and summed into one
// profile per angle. A profile is scored by its edges: every row's count
// enters as a box one row tall, drawn on a grid of 1/kSub row, and the score
// is the sum of squares of the box edges (the differences of the profile).
// Lines aligned with the angle stack their tops and bottoms into a few bins
// and the score peaks. Drawing boxes on a fine grid, rather than rounding or
// interpolating shifts, keeps upright (all shifts whole) from scoring higher
// than a tenth of a degree beside it.
//
// Search: every degree over +-maxSkew on counts pooled 8 x 8 (about 19 dpi,
// one-column strips), then, on the ink turned back by that angle when it is
// more than 2 degrees, every 0.1 degree over +-0.7 at full reduced
// resolution, every 0.02 degree over +-0.1 round the best, and the vertex of
// a parabola through the best three. The last sweep scores the squares of
// the profile itself rather than of its steps: the steps follow the tops and
// bottoms of lines, which ascenders and halftones pull, while the profile's
// own squares weigh each line's whole mass (mean error on the shared pages
// 0.027 degree, against 0.041 with steps throughout). Confidence: how far the coarse
// peak stands above the sweep's median, relative to that median, on a log
// scale where body text reads 1 and pages without lines across read 0,
// times the share of 8 text lines the best profile holds (a caption or a
// title alone is too little to straighten a page by).
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr int kSub = 8;                  // profile grid steps per row
constexpr int kCoarsePool = 8;           // reduced pixels per coarse cell
constexpr double kStripMm = 2.7;         // fine strip width
constexpr double kTurnAbove = 2.0;       // degrees: turn the ink before the fine search
constexpr double kMarginMm = 3.0;        // sheet edge left out (frame edges, shadows)
constexpr double kRiseNone = 5.0;        // peak rise over the median read as no lines
constexpr double kRiseFull = 40.0;       // and as certain lines
constexpr double kMinInkShare = 0.0005;  // less ink than this share of the sheet: no lines
constexpr double kMinLineMm = 0.8;       // shorter runs of the profile are rules, not text lines
constexpr double kMaxLineMm = 12.0;      // and longer ones blocks
constexpr double kFullLines = 8.0;       // lines for full confidence

// Row counts per vertical strip: counts[s * rows + y].
struct Strips {
    int strips = 0, rows = 0;
    std::vector<int> counts;
    std::vector<double> centre;  // strip centre minus the image centre, in rows
    // Each strip's counts as steps, steps[s * (rows + 1) + y] = count[y] -
    // count[y - 1], the last one closing the strip's profile back to 0.
    std::vector<int> steps;
};

// Pixels of p[0..n) at 128 or more, eight at a time.
int CountInk(const std::uint8_t *p, int n) {
    int count = 0, x = 0;
    for (; x + 8 <= n; x += 8) {
        std::uint64_t v;
        std::memcpy(&v, p + x, 8);
        v = (v >> 7) & 0x0101010101010101ull;
        count += static_cast<int>((v * 0x0101010101010101ull) >> 56);
    }
    for (; x < n; ++x) count += p[x] >> 7;
    return count;
}

void MakeSteps(Strips *s) {
    const std::size_t rows = static_cast<std::size_t>(s->rows);
    s->steps.assign(static_cast<std::size_t>(s->strips) * (rows + 1), 0);
    for (std::size_t i = 0; i < static_cast<std::size_t>(s->strips); ++i) {
        const int *c = &s->counts[i * rows];
        int *d = &s->steps[i * (rows + 1)];
        int previous = 0;
        for (std::size_t y = 0; y < rows; ++y) {
            d[y] = c[y] - previous;
            previous = c[y];
        }
        d[rows] = -previous;
    }
}

Strips MakeStrips(const cv::Mat &ink, int stripWidth) {
    Strips s;
    s.rows = ink.rows;
    s.strips = (ink.cols + stripWidth - 1) / stripWidth;
    s.counts.assign(static_cast<std::size_t>(s.strips) * s.rows, 0);
    for (int y = 0; y < ink.rows; ++y) {
        const std::uint8_t *p = ink.ptr<std::uint8_t>(y);
        for (int i = 0; i < s.strips; ++i) {
            const int x1 = std::min(ink.cols, (i + 1) * stripWidth);
            s.counts[static_cast<std::size_t>(i) * s.rows + y] = CountInk(p + i * stripWidth, x1 - i * stripWidth);
        }
    }
    for (int i = 0; i < s.strips; ++i)
        s.centre.push_back((i * stripWidth + std::min(stripWidth, ink.cols - i * stripWidth) / 2.0) - ink.cols / 2.0);
    MakeSteps(&s);
    return s;
}

// Counts pooled over cells of `cell` x `cell`, one strip per cell column.
Strips PooledStrips(const cv::Mat &ink, int cell) {
    Strips s;
    s.rows = (ink.rows + cell - 1) / cell;
    s.strips = (ink.cols + cell - 1) / cell;
    s.counts.assign(static_cast<std::size_t>(s.strips) * s.rows, 0);
    // Each band of `cell` rows summed down every column first (at most
    // kCoarsePool, so a byte holds it), then across each cell.
    std::vector<std::uint8_t> column(static_cast<std::size_t>(ink.cols));
    for (int band = 0; band < s.rows; ++band) {
        std::fill(column.begin(), column.end(), 0);
        for (int y = band * cell; y < std::min(ink.rows, (band + 1) * cell); ++y) {
            const std::uint8_t *p = ink.ptr<std::uint8_t>(y);
            std::uint8_t *c = column.data();
            for (int x = 0; x < ink.cols; ++x) c[x] = static_cast<std::uint8_t>(c[x] + (p[x] >> 7));
        }
        for (int i = 0; i < s.strips; ++i) {
            int n = 0;
            for (int x = i * cell; x < std::min(ink.cols, (i + 1) * cell); ++x) n += column[static_cast<std::size_t>(x)];
            s.counts[static_cast<std::size_t>(i) * s.rows + band] = n;
        }
    }
    for (int i = 0; i < s.strips; ++i) s.centre.push_back((i + 0.5) * cell / cell - ink.cols / (2.0 * cell));
    MakeSteps(&s);
    return s;
}

// Score of the profile at `degrees`, taken at every 1/kSub row: with
// `edges`, the sum of squares of its differences one row apart, else the
// sum of squares of the profile itself; `scratch` is reused.
double Score(const Strips &s, double degrees, std::vector<std::int32_t> &scratch, bool edges = true) {
    const double t = std::tan(degrees * kPi / 180.0);
    double reach = 0;
    for (double c : s.centre) reach = std::max(reach, std::abs(c * t));
    const int pad = static_cast<int>(std::ceil(reach)) + 2;
    const std::size_t rowsOut = static_cast<std::size_t>(s.rows + 2 * pad + 2), bins = rowsOut * kSub;
    // Each row's count as a box kSub steps long: where one row's box ends
    // the next one's starts, so each boundary takes the step. A strip
    // shifted by q whole rows and r steps puts its steps on grid phase r,
    // so the steps are summed per phase, whole rows apart (contiguous
    // adds), then interleaved and run into the profile.
    scratch.resize(bins + bins);
    std::int32_t *phase = scratch.data() + bins;
    std::fill(phase, phase + bins, 0);
    const std::size_t stepsPerStrip = static_cast<std::size_t>(s.rows) + 1;
    for (int i = 0; i < s.strips; ++i) {
        const long shift = std::lround((pad - s.centre[static_cast<std::size_t>(i)] * t) * kSub);
        const int *d = &s.steps[static_cast<std::size_t>(i) * stepsPerStrip];
        std::int32_t *e = phase + static_cast<std::size_t>(shift % kSub) * rowsOut + shift / kSub;
        for (std::size_t y = 0; y < stepsPerStrip; ++y) e[y] += d[y];
    }
    std::int32_t run = 0;
    for (std::size_t row = 0; row < rowsOut; ++row)
        for (std::size_t r = 0; r < std::size_t{kSub}; ++r) scratch[row * kSub + r] = (run += phase[r * rowsOut + row]);
    double sum = 0;
    for (std::size_t i = kSub; i < bins; ++i) {
        const double d = edges ? scratch[i] - scratch[i - kSub] : scratch[i];
        sum += d * d;
    }
    return sum / kSub;
}

struct Best {
    double angle = 0, score = 0;
};

// Every `step` from lo to hi; the best, refined by a parabola through it
// and its neighbours.
Best Sweep(const Strips &s, double lo, double hi, double step, std::vector<double> *all = nullptr, bool edges = true) {
    std::vector<std::int32_t> scratch;
    std::vector<double> scores;
    const int n = static_cast<int>(std::lround((hi - lo) / step)) + 1;
    for (int i = 0; i < n; ++i) scores.push_back(Score(s, lo + i * step, scratch, edges));
    const int k = static_cast<int>(std::max_element(scores.begin(), scores.end()) - scores.begin());
    Best b{lo + k * step, scores[static_cast<std::size_t>(k)]};
    if (k > 0 && k + 1 < n) {
        const double l = scores[static_cast<std::size_t>(k - 1)], r = scores[static_cast<std::size_t>(k + 1)];
        const double den = l - 2 * b.score + r;
        if (den < 0) b.angle += std::clamp(0.5 * (l - r) / den, -0.5, 0.5) * step;
    }
    if (all != nullptr) *all = std::move(scores);
    return b;
}

// Text lines in the profile of strips [first, last) of `s` at `degrees`,
// whole-row shifts: runs of rows above a fifth of the 90th percentile of
// the inked rows, `minLine` to `maxLine` rows long (longer runs are
// photos, drawings or lines of two columns out of step).
int CountLines(const Strips &s, int first, int last, double degrees, int minLine, int maxLine) {
    const double t = std::tan(degrees * kPi / 180.0);
    double reach = 0;
    for (double c : s.centre) reach = std::max(reach, std::abs(c * t));
    const int pad = static_cast<int>(std::ceil(reach)) + 1;
    std::vector<int> profile(static_cast<std::size_t>(s.rows + 2 * pad + 1), 0);
    for (int i = first; i < last; ++i) {
        const long shift = std::lround(pad - s.centre[static_cast<std::size_t>(i)] * t);
        const int *c = &s.counts[static_cast<std::size_t>(i) * s.rows];
        for (int y = 0; y < s.rows; ++y) profile[static_cast<std::size_t>(y + shift)] += c[y];
    }
    std::vector<int> inked;
    for (int v : profile)
        if (v > 0) inked.push_back(v);
    if (inked.empty()) return 0;
    std::nth_element(inked.begin(), inked.begin() + inked.size() * 9 / 10, inked.end());
    const double floor = 0.2 * inked[inked.size() * 9 / 10];
    int lines = 0, run = 0;
    for (int v : profile) {
        if (v > floor) {
            ++run;
            continue;
        }
        lines += run >= minLine && run <= maxLine;
        run = 0;
    }
    return lines + (run >= minLine && run <= maxLine);
}

}  // namespace

Skew FindInkSkew(const cv::Mat &ink, const ScanPage &page, double maxSkew, bool fine) {
    Skew result;
    maxSkew = std::clamp(maxSkew, 1.0, 45.0);
    const int f = page.reduction;
    const int inkCount = cv::countNonZero(ink);
    if (inkCount < kMinInkShare * ink.total() || inkCount < 200) return result;

    // Coarse: every degree; for the rise alone, every third degree and
    // the degrees either side of the best of those.
    std::vector<double> coarse;
    const Strips pooled = PooledStrips(ink, std::clamp(ink.cols / 100, 2, kCoarsePool));
    const double span = std::floor(maxSkew);
    const double step = fine || span < 6 ? 1.0 : 3.0;
    Best best = Sweep(pooled, -span, span, step, &coarse);
    if (step > 1) {
        std::vector<std::int32_t> scratch;
        for (const double a : {best.angle - 1, best.angle + 1}) {
            const double score = Score(pooled, std::round(a), scratch);
            if (score > best.score) best = Best{std::round(a), score};
        }
    }
    std::vector<double> sorted = coarse;
    std::nth_element(sorted.begin(), sorted.begin() + sorted.size() / 2, sorted.end());
    const double median = sorted[sorted.size() / 2];
    const double rise = median > 0 ? (best.score - median) / median : 0.0;
    if (!fine) {
        result.angle = best.angle;
        result.rise = rise;
        return result;
    }

    // Fine: on the ink turned back by the coarse angle when it is large.
    double base = std::round(best.angle);
    // A new image for the turned ink: the caller's is only read.
    cv::Mat fineInk;
    if (std::abs(base) > kTurnAbove) {
        const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(ink.cols / 2.0f, ink.rows / 2.0f), base, 1.0);
        cv::warpAffine(ink, fineInk, turn, ink.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT, cv::Scalar(0));
    } else {
        fineInk = ink;
        base = 0;
    }
    const double centre = std::abs(base) > 0 ? 0.0 : best.angle;
    const int strip = std::max(4, MmToPixels(page, kStripMm) / f);
    const Strips narrow = MakeStrips(fineInk, strip);
    Best mid = Sweep(narrow, centre - 0.7, centre + 0.7, 0.1);
    Best last = Sweep(narrow, mid.angle - 0.1, mid.angle + 0.1, 0.02, nullptr, false);
    double angle = base + last.angle;
    if (std::abs(angle) > maxSkew) angle = std::clamp(angle, -maxSkew, maxSkew);

    result.angle = angle;
    result.rise = rise;
    // Lines over the whole width, or over either half where two columns'
    // lines fall out of step.
    const int minLine = std::max(2, MmToPixels(page, kMinLineMm) / f), maxLine = MmToPixels(page, kMaxLineMm) / f;
    const int half = narrow.strips / 2;
    result.lines = std::max({CountLines(narrow, 0, narrow.strips, last.angle, minLine, maxLine),
                             CountLines(narrow, 0, half, last.angle, minLine, maxLine),
                             CountLines(narrow, half, narrow.strips, last.angle, minLine, maxLine)});
    // Body text lifts the peak 20 to 200 times its height above the median;
    // the same pages turned a quarter (no lines across) 1 to 5 times. On a
    // log scale, 5 reads as nothing and 40 and more as certain. A handful of
    // lines (a title page, a caption under a drawing) gives a sharp peak
    // too, but too little to trust: full confidence needs kFullLines.
    const double sharp =
        rise > kRiseNone ? std::clamp(std::log(rise / kRiseNone) / std::log(kRiseFull / kRiseNone), 0.0, 1.0) : 0.0;
    result.confidence = sharp * std::min(1.0, result.lines / kFullLines);
    return result;
}

Skew FindSkew(const ScanPage &page, const Sheet &sheet, double maxSkew) {
    if (page.ink.empty()) return Skew{};

    // The ink on the sheet, away from its edges.
    const int f = page.reduction;
    const int margin = std::max(1, MmToPixels(page, kMarginMm) / f);
    cv::Rect area(sheet.box.x / f, sheet.box.y / f, sheet.box.width / f, sheet.box.height / f);
    area = cv::Rect(area.x + margin, area.y + margin, area.width - 2 * margin, area.height - 2 * margin);
    area &= cv::Rect(0, 0, page.ink.cols, page.ink.rows);
    if (area.width < 16 || area.height < 16) return Skew{};
    // The page's own ink, only read; a new image where the frame is cut.
    cv::Mat ink = page.ink(area);
    if (sheet.sides != 0) {
        cv::Mat paper, masked;
        cv::erode(sheet.paper(area), paper, cv::Mat(), cv::Point(-1, -1), margin);
        cv::bitwise_and(ink, paper, masked);
        ink = masked;
    }
    return FindInkSkew(ink, page, maxSkew);
}

}  // namespace quarvel::scan
