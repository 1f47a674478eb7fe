// Orientation: which quarter turn makes the page upright, from text-line
// statistics alone. Every page gets its best guess; the confidence says how
// far to trust it.
//
// Line direction first, from two measures on the sheet's ink as it stands
// and turned a quarter: how far the best projection profile of the skew
// search (skew.cpp) stands above its sweep (its "rise"), and the share of
// the ink lying in text-sized lines (0.8 to 12 mm, cut at empty rows of
// 20 mm strips). The log ratios of the two directions are added; the
// larger side holds the lines and the sum says how sure that is (ln 4 and
// more: certain). Rules, box sides and a scanner edge lift the rise of
// the wrong direction on a form, while the letters of typewriting line up
// in columns and lift the share of the wrong one; together they agree
// with the text. When the sum is unsure, the cues below are read along
// both directions and the clearer reading wins. The ink is then turned so
// the lines run across and straightened by that direction's angle, which
// leaves it upright or upside down; five cues vote on which:
// - ascenders: a line's core (x-height band) is its rows with at least
//   40 % of its fullest row. Latin and most alphabetic scripts put more ink
//   above the core (ascenders, capitals) than below (descenders);
// - baseline: the profile steps more sharply at the bottom of the core
//   (every letter sits on the baseline) than at its top;
// - margins: line pieces (words joined across gaps under 2.5 mm) start
//   aligned on the left and end ragged on the right in left-to-right text;
// - marks: small marks clear of the core (dots of i and j, accents) sit
//   above it, hardly ever below;
// - stops: full stops and commas sit on the baseline, their tops inside
//   the core's lower half, in Latin, Greek, Cyrillic and Hebrew alike.
// Before the cues are read, the ink is brought to one scale of letters: a
// median line core over 14 pixels (a small page read near its full
// resolution, a tag that lies) is taken down to 10, a body line's core at
// 150 dpi, since several cues count in pixels; lines whose fullest row is
// nearly solid (rules, staves) do not count, and where they hold most of
// the lines' ink nothing is taken down and the confidence falls with their
// share. Marks and amounts of text are counted per letter (one core height
// of line), not per strip line.
// The first four are shapes of Latin-like text and count in proportion to
// the marks the page has (0.01 a letter for full): a page without dots or
// accents (capitals, handwriting, Hebrew) is read by its stops instead,
// whose vote then weighs as much as five cues, since Hebrew's sharp top
// line, final-letter descenders and right-aligned lines all read as Latin
// upside down. The call follows the sum of the votes (lines down the page:
// 90 or 270). The evidence is the support left after counting every
// opposing vote twice; the confidence is that evidence times the
// direction's certainty, the amount of text (360 letters and 30 strip
// lines for full) and two checks that the text is of the kind the shape
// cues were tuned on: the ascender vote must back the call (by half its
// full value for full trust, fading to none), and the side
// the call puts above the lines must carry marks. Hebrew is so called right
// and a page of capitals gets its best guess, but neither with confidence.
// Faint text: the page's ink takes only marks well under the paper, and a
// faded column gives it strokes in fragments. Where the reading is weak
// (under 0.6) and the reduced page holds many more pixels a little under
// its paper than the ink has, a light ink is made (LightInk: the flattened
// page against its paper's own grain, each pixel cut at the midpoint
// between the paper and the darkest pixel near it) and read the same way;
// the page's reading stands only where its ink saw at least a third of the
// light ink's strokes and has more evidence, weighed by that share (the
// show-through of a page's back alone can double its light ink).
// A tag that claims over twice the resolution the letters show (a small
// image scaled down that kept its scanner's tag) leaves every line under the
// cues' smallest size: a weak reading of a tagged page is made again at the
// letters' own scale (LetterScale) and the one with more evidence kept.
#include <algorithm>
#include <array>
#include <cmath>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kStripMm = 20.0;
constexpr double kMinLineMm = 0.8, kMaxLineMm = 12.0;
constexpr double kCoreShare = 0.4;
constexpr double kLean = 1.5;            // a line leans one way with this much more ink on that side
constexpr double kFullAgreement = 0.45;  // surplus of leaning lines for a full ascender vote
constexpr double kFullBalance = 0.25;    // ascender balance for a full vote
constexpr double kFullEdge = 0.08;       // baseline step surplus for a full vote
constexpr double kFullLetters = 360.0;  // line length, in median core heights, for full confidence
constexpr double kFullLines = 30.0;     // ... and strip lines
constexpr double kFullDirection = 4.0;  // product of the two directions' ratios for certainty
constexpr double kSureDirection = 0.5;  // certainty under which both directions are read
constexpr double kFullMarks = 0.01;     // marks per core height of line above the call's core for full trust
constexpr double kStopWidth = 0.3, kStopHeight = 0.6;  // largest stop (comma), in core heights
constexpr int kMaxCore = 14;           // median core height (pixels) above which the ink is taken down
constexpr double kMaxCoreMm = 4.0;     // ... while under this: larger cores (drawings, display type) are read as they are
constexpr double kTargetCore = 10.0;   // ... to this, a body text line's core at 150 dpi
constexpr double kLetterMm = 1.9;       // median letter-blob height of body text, by ink
constexpr int kMinLetter = 4;           // pixels: smaller medians are not read as letters
constexpr double kLetterTag = 2.0;      // a tag over this many times the letters' scale is not used
constexpr double kStopsWeight = 5.0;    // the stops' vote on a page without marks, against one cue's
// The light ink (LightInk) and when it is read.
constexpr double kLightBelow = 0.6;     // confidence under which the page's reading is weak
constexpr double kLightMore = 1.5;      // ... and the light ink is read when it holds this many times the ink
constexpr double kLightSeen = 0.34;     // share of the light ink (a third) under which the page's reading gives way
constexpr double kLightCellMm = 1.5, kLightPaperMm = 6.0;  // paper level: cells, and the window they spread over
constexpr int kLightDarkest = 64;       // darkest value taken for the paper's peak
constexpr double kLightGap = 0.06;      // ink lies this share of the paper under it at least
constexpr double kLightGrains = 4.0;    // ... and this many times the paper's grain
constexpr double kLightWindowMm = 2.5;  // window of the darkest pixel round each
constexpr int kLightSpeck = 3;          // blobs of fewer pixels are dropped

// One text line of a strip: rows [top, bottom), core rows [core0, core1],
// the ink of its fullest row (peak) and of the whole line.
struct Line {
    int x0, x1, top, bottom, core0, core1, peak;
    double ink;
};

struct Lines {
    double balance = 0;    // (above - below) / (above + below)
    double agreement = 0;  // |lines leaning up - lines leaning down| / lines leaning
    double edge = 0;       // (baseline step - top step) / both
    double inLines = 0;    // share of the ink in lines
    std::vector<Line> found;
};

Lines MeasureLines(const cv::Mat &ink, int strip, int minLine, int maxLine) {
    Lines out;
    double above = 0, below = 0, topStep = 0, baseStep = 0, total = 0, lineInk = 0;
    int up = 0, down = 0;
    std::vector<int> profile(static_cast<std::size_t>(ink.rows) + 1, 0);
    auto at = [&](int y) { return profile[static_cast<std::size_t>(y)]; };
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
            if (at(y) == 0) {
                ++y;
                continue;
            }
            int end = y, peak = 0;
            double sum = 0;
            for (; at(end) > 0; ++end) {
                peak = std::max(peak, at(end));
                sum += at(end);
            }
            const int h = end - y;
            if (h >= minLine && h <= maxLine) {
                int c0 = y, c1 = end - 1;
                while (at(c0) < kCoreShare * peak) ++c0;
                while (at(c1) < kCoreShare * peak) --c1;
                double a = 0, b = 0;
                for (int r = y; r < c0; ++r) a += at(r);
                for (int r = c1 + 1; r < end; ++r) b += at(r);
                above += a;
                below += b;
                up += a > kLean * b;
                down += b > kLean * a;
                topStep += at(c0) - (c0 > y ? at(c0 - 1) : 0);
                baseStep += at(c1) - at(c1 + 1);
                lineInk += sum;
                out.found.push_back(Line{x0, x1, y, end, c0, c1, peak, sum});
            }
            y = end;
        }
    }
    out.balance = above + below > 0 ? (above - below) / (above + below) : 0.0;
    out.agreement = up + down > 0 ? std::abs(up - down) / static_cast<double>(up + down) : 0.0;
    out.inLines = total > 0 ? lineInk / total : 0.0;
    out.edge = topStep + baseStep > 0 ? (baseStep - topStep) / (topStep + baseStep) : 0.0;
    return out;
}

// Left against right alignment of consecutive line pieces: words joined
// into line pieces (gaps under 2.5 mm closed), pieces at least 15 mm long,
// merged lines split at rows with under a third of the piece's median row;
// a piece and the next one below it (overlapping across by half the
// shorter, top within two line heights) count for the left when their left
// ends lie within 1 mm and their right ends over 3 mm apart, and the
// reverse for the right.
struct Margins {
    int left = 0, right = 0;
};

Margins MeasureMargins(const cv::Mat &ink, double px) {
    Margins out;
    cv::Mat joined;
    cv::dilate(ink, joined,
               cv::getStructuringElement(cv::MORPH_RECT, cv::Size(std::max(3, static_cast<int>(2.5 * px)), 1)));
    cv::Mat labels, stats;
    const int n = LabelBlobs(joined, &labels, &stats);
    struct Piece {
        int x0, x1, y0, y1;
    };
    std::vector<Piece> pieces;
    const int minLen = static_cast<int>(15 * px), minH = std::max(2, static_cast<int>(kMinLineMm * px)),
              maxH = static_cast<int>(kMaxLineMm * px);
    std::vector<int> rows, left, right;
    for (int i = 1; i < n; ++i) {
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
        if (w < minLen || h < minH) continue;
        rows.assign(static_cast<std::size_t>(h), 0);
        left.assign(static_cast<std::size_t>(h), x + w);
        right.assign(static_cast<std::size_t>(h), x - 1);
        for (int r = 0; r < h; ++r) {
            const int *l = labels.ptr<int>(y + r);
            const std::size_t k = static_cast<std::size_t>(r);
            for (int c = x; c < x + w; ++c)
                if (l[c] == i) {
                    ++rows[k];
                    left[k] = std::min(left[k], c);
                    right[k] = c;
                }
        }
        std::vector<int> sorted = rows;
        std::nth_element(sorted.begin(), sorted.begin() + h / 2, sorted.end());
        const int cut = sorted[static_cast<std::size_t>(h / 2)] / 3;
        for (int r = 0; r < h;) {
            if (rows[static_cast<std::size_t>(r)] <= cut) {
                ++r;
                continue;
            }
            Piece p{x + w, x - 1, y + r, 0};
            int e = r;
            for (; e < h && rows[static_cast<std::size_t>(e)] > cut; ++e) {
                p.x0 = std::min(p.x0, left[static_cast<std::size_t>(e)]);
                p.x1 = std::max(p.x1, right[static_cast<std::size_t>(e)]);
            }
            p.y1 = y + e;
            if (e - r >= minH && e - r <= maxH && p.x1 - p.x0 >= minLen) pieces.push_back(p);
            r = e;
        }
    }
    std::sort(pieces.begin(), pieces.end(), [](const Piece &a, const Piece &b) { return a.y0 < b.y0; });
    const double near = std::max(1.0, px), far = 3 * near;
    for (std::size_t i = 0; i < pieces.size(); ++i) {
        const Piece &a = pieces[i];
        const int reach = a.y1 + 2 * (a.y1 - a.y0);
        for (std::size_t j = i + 1; j < pieces.size() && pieces[j].y0 <= reach; ++j) {
            const Piece &b = pieces[j];
            if (b.y0 < a.y1 - (a.y1 - a.y0) / 2) continue;
            if (std::min(a.x1, b.x1) - std::max(a.x0, b.x0) < 0.5 * std::min(a.x1 - a.x0, b.x1 - b.x0)) continue;
            const int dl = std::abs(a.x0 - b.x0), dr = std::abs(a.x1 - b.x1);
            out.left += dl <= near && dr > far;
            out.right += dr <= near && dl > far;
            break;
        }
    }
    return out;
}

// Small marks (both sides at most 40 % of the core's height) lying wholly
// above or wholly below the core of the line they are in, and stops (at
// most 0.3 of the core wide and 0.6 tall) on its bottom or its top.
struct Marks {
    int above = 0, below = 0;
    int low = 0, high = 0;
};

Marks MeasureMarks(const cv::Mat &ink, const Lines &lines, int strip, const InkBlobs *known) {
    Marks out;
    cv::Mat stats = known != nullptr ? known->stats : cv::Mat();
    const int n = known != nullptr ? known->count : LabelBlobs(ink, nullptr, &stats);
    // Lines of each strip, in order down the page.
    std::vector<std::vector<const Line *>> byStrip(static_cast<std::size_t>(ink.cols / strip + 1));
    for (const Line &l : lines.found) byStrip[static_cast<std::size_t>(l.x0 / strip)].push_back(&l);
    for (int i = 1; i < n; ++i) {
        const int w = stats.at<int>(i, cv::CC_STAT_WIDTH), h = stats.at<int>(i, cv::CC_STAT_HEIGHT);
        const int x = stats.at<int>(i, cv::CC_STAT_LEFT), y = stats.at<int>(i, cv::CC_STAT_TOP);
        const auto &list = byStrip[static_cast<std::size_t>((x + w / 2) / strip)];
        const auto it =
            std::find_if(list.begin(), list.end(), [&](const Line *l) { return y >= l->top && y + h <= l->bottom; });
        if (it == list.end()) continue;
        const Line &l = **it;
        const double core = l.core1 - l.core0 + 1;
        const double limit = 0.4 * core;
        if (w > limit || h > limit) continue;
        out.above += y + h <= l.core0;
        out.below += y > l.core1;
        // Stops: a dot or comma sits on the baseline, its top inside the
        // core's lower half; upside down, it hangs from the top of the core.
        if (w <= kStopWidth * core && h <= kStopHeight * core) {
            const double mid = (l.core0 + l.core1) / 2.0;
            const int bottom = y + h - 1;
            out.low += y > mid && y < l.core1 && bottom >= l.core1 - 1 && bottom <= l.core1 + core / 2;
            out.high += bottom < mid && bottom > l.core0 && y <= l.core0 + 1 && y >= l.core0 - core / 2;
        }
    }
    return out;
}

// The median core height of the lines of letters, in pixels, each line
// weighing its ink (paper texture and specks make many thin lines with
// little ink); 0 without them. A line whose fullest row is inked over 80 %
// of the strip is a rule or a staff, not letters, whose rows have gaps
// between strokes. `letterShare` gets the share of the lines' ink that is
// in lines of letters.
int MedianCore(const Lines &l, double *letterShare = nullptr) {
    std::vector<std::pair<int, double>> cores;
    cores.reserve(l.found.size());
    double total = 0, rules = 0;
    for (const Line &line : l.found)
        if (5 * line.peak < 4 * (line.x1 - line.x0)) {
            cores.emplace_back(line.core1 - line.core0 + 1, line.ink);
            total += line.ink;
        } else {
            rules += line.ink;
        }
    if (letterShare != nullptr) *letterShare = total + rules > 0 ? total / (total + rules) : 0.0;
    std::sort(cores.begin(), cores.end());
    double seen = 0;
    for (const auto &c : cores)
        if ((seen += c.second) * 2 >= total) return c.first;
    return 0;
}

double Vote(double value, double full) {
    return std::clamp(value / full, -1.0, 1.0);
}

// The cues read on ink turned so its lines run across, upright or upside
// down: each vote in -1..1, positive for upright.
struct Reading {
    double votes[5] = {};
    double sum = 0, evidence = 0, confidence = 0;
    int lines = 0;
};

Reading Read(const cv::Mat &upright, const Lines &l, double px, int strip, const InkBlobs *blobs) {
    Reading r;
    const Margins m = MeasureMargins(upright, px);
    const Marks k = MeasureMarks(upright, l, strip, blobs);
    // Line length in letters (median core heights), which does not change
    // with the pixel scale or the strip width as a count of strip lines does.
    double length = 0;
    for (const Line &line : l.found) length += line.x1 - line.x0;
    const double letters = length / std::max(1, MedianCore(l));
    // How far the shape cues can be trusted: Latin-like text has a dot or
    // an accent clear of the core every few lines (kFullMarks a letter).
    // Where marks are scarce (capitals, handwriting, Hebrew) the shape cues
    // fade and the stops, which sit on the baseline in every script with
    // full stops, weigh in.
    const double latin = std::min(1.0, std::max(k.above, k.below) / std::max(1.0, letters) / kFullMarks);
    r.votes[0] = Vote(l.balance, kFullBalance) * std::min(1.0, l.agreement / kFullAgreement);
    r.votes[1] = Vote(l.edge, kFullEdge);
    r.votes[2] = (m.left - m.right) / (m.left + m.right + 6.0);
    r.votes[3] = (k.above - k.below) / (k.above + k.below + 10.0);
    for (int i = 0; i < 4; ++i) r.votes[i] *= latin;
    r.votes[4] = (1 - latin) * kStopsWeight * (k.low - k.high) / (k.low + k.high + 10.0);
    double magnitude = 0;
    for (double v : r.votes) {
        r.sum += v;
        magnitude += std::abs(v);
    }
    const double against = (magnitude - std::abs(r.sum)) / 2;  // the opposing votes' total
    const double support = magnitude - against;
    r.evidence = std::clamp((support - 2 * against) / 1.5, 0.0, 1.0);
    // Marks on the side the call puts above the lines: Latin-like text,
    // which the other cues are tuned on, has a dot or accent every few
    // lines; a script without them (or text read the wrong way up) is not
    // trusted as far.
    const double marks = (r.sum >= 0 ? k.above : k.below) / std::max(1.0, letters);
    // The ascender balance is the cue the others stand beside: a call it
    // backs by less than half its full vote is trusted less, down to not at
    // all (vertical Japanese and sheet music balance weakly). (Hebrew's balance
    // swings with the scale it is read at while its sharp top line and
    // right-aligned lines both read as Latin upside down.)
    const double backed = std::clamp(2 * (r.sum >= 0 ? r.votes[0] : -r.votes[0]), 0.0, 1.0);
    const double amount = std::min({1.0, letters / kFullLetters, static_cast<double>(l.found.size()) / kFullLines});
    r.confidence = r.evidence * backed * amount * std::min(1.0, marks / kFullMarks);
    r.lines = static_cast<int>(l.found.size());
    return r;
}

// `level` turned by `angle` degrees about its centre (lines straightened),
// or `level` itself when the turn is too small to matter.
cv::Mat Straighten(const cv::Mat &level, const Skew &lines) {
    if (lines.rise <= 0 || std::abs(lines.angle) <= 0.2) return level;
    cv::Mat out;
    const cv::Mat turn = cv::getRotationMatrix2D(cv::Point2f(level.cols / 2.0f, level.rows / 2.0f), lines.angle, 1.0);
    cv::warpAffine(level, out, turn, level.size(), cv::INTER_NEAREST, cv::BORDER_CONSTANT, cv::Scalar(0));
    return out;
}

// One reading of a sheet's ink: the call, and the evidence behind it
// weighed by the direction's certainty.
struct Call {
    Orientation orientation;
    double evidence = 0;
};

// The whole reading of one ink image of the sheet: the lines' direction,
// then the cues along it (along both when unsure). `skew` is the search's
// result across the ink, `stay` the skew kept when only the cues turned the
// call down the page; `px` pixels a millimetre.
Call Orient(const cv::Mat &ink, const ScanPage &page, double px, const Skew &skew, const Skew &stay, double maxSkew,
            const InkBlobs *blobs, bool same) {
    Call call;
    Orientation &result = call.orientation;
    const int strip = std::max(8, static_cast<int>(kStripMm * px));
    const int minLine = std::max(2, static_cast<int>(kMinLineMm * px));
    const int maxLine = std::max(minLine + 1, static_cast<int>(kMaxLineMm * px));

    // Line direction: the page's own skew search against the same search on
    // the ink turned a quarter clockwise, and the share of the ink lying in
    // text-sized lines along each.
    cv::Mat turned;
    cv::rotate(ink, turned, cv::ROTATE_90_CLOCKWISE);
    Skew across = skew;
    Skew down = FindInkSkew(turned, page, maxSkew, false);
    const Lines acrossLines = MeasureLines(ink, strip, minLine, maxLine);
    const Lines downLines = MeasureLines(turned, strip, minLine, maxLine);
    const double score = std::log(std::max(1.0, down.rise) / std::max(1.0, across.rise)) +
                         std::log(std::max(0.01, downLines.inLines) / std::max(0.01, acrossLines.inLines));
    bool vertical = score > 0;
    const double direction = std::clamp(std::abs(score) / std::log(kFullDirection), 0.0, 1.0);
    if (vertical || direction < kSureDirection) down = FindInkSkew(turned, page, maxSkew);
    // `same`: the content's blobs are those of `ink` (see FindOrientation).
    auto read = [&](bool v) {
        const Skew &lines = v ? down : across;
        const cv::Mat &level = v ? turned : ink;
        const cv::Mat upright = Straighten(level, lines);
        const bool kept = upright.data == level.data;
        const Lines l = kept ? (v ? downLines : acrossLines) : MeasureLines(upright, strip, minLine, maxLine);
        // Lines mostly of rules or staves (sheet music, an empty form) are
        // not text: neither taken down by them nor trusted as far.
        double share = 0;
        const int core = MedianCore(l, &share);
        if (core <= kMaxCore || core > kMaxCoreMm * px || share < 0.5) {
            Reading r = Read(upright, l, px, strip, same && !v && kept ? blobs : nullptr);
            r.confidence *= share;
            return r;
        }
        // Letters drawn larger than the cues were made for (a small page
        // analysed near its full resolution, a tag that lies): the ink is
        // taken down until the median core is kTargetCore pixels tall.
        const double k = kTargetCore / core;
        cv::Mat small;
        // At least a pixel either way: letters can stand taller than a narrow
        // page is wide. (Otherwise the size follows from k, as a size given
        // would change the scale the area average uses.)
        const bool empty = std::lround(upright.cols * k) < 1 || std::lround(upright.rows * k) < 1;
        const cv::Size size = empty ? cv::Size(std::max(1, static_cast<int>(std::lround(upright.cols * k))),
                                               std::max(1, static_cast<int>(std::lround(upright.rows * k))))
                                    : cv::Size();
        cv::resize(upright, small, size, k, k, cv::INTER_AREA);
        cv::threshold(small, small, 127, 255, cv::THRESH_BINARY);
        const int s2 = std::max(8, static_cast<int>(strip * k));
        const int min2 = std::max(2, static_cast<int>(minLine * k)), max2 = std::max(min2 + 1, static_cast<int>(maxLine * k));
        Reading r = Read(small, MeasureLines(small, s2, min2, max2), px * k, s2, nullptr);
        r.confidence *= share;
        return r;
    };
    Reading r = read(vertical);
    // Unsure of the direction: the one whose cues read clearer; one the
    // profiles leaned against is never more than a quarter sure.
    double certainty = direction;
    bool flipped = false;
    if (direction < kSureDirection) {
        const Reading other = read(!vertical);
        if (other.evidence * (1 - direction) > r.evidence * (1 + direction)) {
            vertical = !vertical;
            flipped = true;
            r = other;
            certainty = (kSureDirection - direction) / 2;
        }
    }
    // Lines running down the page carry the page's skew (AnalyzePage), so
    // a quarter turn leaves the reported skew as it was; but where only the
    // cues, against the profiles, turned the call down the page, the
    // profiles' own skew across it stays (a form's long edge and box sides
    // give the search down it a skew of their own).
    result.vertical = vertical;
    if (vertical) result.lines = flipped ? stay : down;
    result.confidence = r.confidence * certainty;
    result.angle = vertical ? (r.sum >= 0 ? 90 : 270) : (r.sum >= 0 ? 0 : 180);
    call.evidence = r.evidence * certainty;
    return call;
}

// The pixels a millimetre the letters imply: the median size of
// letter-sized blobs (3 pixels to an eighth of the image, neither side over
// 15 times the other), each weighing its ink, over kLetterMm, across the
// lines: heights or widths, whichever spread less (words merge along their
// lines). 0 with under 40 such blobs, quartiles over 0.75 of the median
// apart, or a median under 4 pixels (strokes broken into specks, as on a
// 45-dpi photograph enlarged, measure so too).
double LetterScale(const cv::Mat &ink, const InkBlobs *known) {
    cv::Mat stats = known != nullptr ? known->stats : cv::Mat();
    const int n = known != nullptr ? known->count : LabelBlobs(ink, nullptr, &stats);
    const int largest = std::max(ink.rows, ink.cols) / 8;
    std::vector<std::pair<int, int>> sizes[2];  // (height or width, area)
    for (int i = 1; i < n; ++i) {
        const int *b = stats.ptr<int>(i);
        const int w = b[cv::CC_STAT_WIDTH], h = b[cv::CC_STAT_HEIGHT];
        if (std::max(w, h) < 3 || std::max(w, h) > largest || w > 15 * h || h > 15 * w) continue;
        sizes[0].emplace_back(h, b[cv::CC_STAT_AREA]);
        sizes[1].emplace_back(w, b[cv::CC_STAT_AREA]);
    }
    if (sizes[0].size() < 40) return 0;
    // Quartiles within 0.75 of the median: closer than the factor of 2 the
    // caller tests, so the median cannot be off by that much.
    double best = 0, spread = 0.75;
    for (auto &v : sizes) {
        std::sort(v.begin(), v.end());
        std::int64_t total = 0, seen = 0;
        for (const auto &e : v) total += e.second;
        double q[3] = {0, 0, 0};
        int k = 0;
        for (const auto &e : v) {
            seen += e.second;
            while (k < 3 && 4 * seen >= (k + 1) * total) q[k++] = e.first;
        }
        if (q[1] >= kMinLetter && (q[2] - q[0]) / q[1] <= spread) {
            spread = (q[2] - q[0]) / q[1];
            best = q[1] / kLetterMm;
        }
    }
    return best;
}

// The level of the paper of `gray` and the value under which a pixel lies
// clearly below it: the level is the peak of the histogram (the most common
// value from kLightDarkest up) and the paper's grain the half width of the
// peak on its bright side, where no ink lies, over 1.1774 for a standard
// deviation; clearly below is more than 6 % of the level or `grains`
// grains under it.
struct PaperPeak {
    int level = 0, under = 0;
    std::int64_t below = 0;  // pixels under `under`
};

PaperPeak ReadPaper(const cv::Mat &gray, double grains = kLightGrains) {
    std::array<std::int64_t, 256> hist{};
    for (int y = 0; y < gray.rows; ++y) {
        const std::uint8_t *r = gray.ptr<std::uint8_t>(y);
        for (int x = 0; x < gray.cols; ++x) ++hist[r[x]];
    }
    int level = kLightDarkest;
    for (int v = kLightDarkest; v < 256; ++v)
        if (hist[static_cast<std::size_t>(v)] > hist[static_cast<std::size_t>(level)]) level = v;
    int half = level;
    while (half < 255 && 2 * hist[static_cast<std::size_t>(half + 1)] >= hist[static_cast<std::size_t>(level)]) ++half;
    const double grain = (half + 1 - level) / 1.1774;
    PaperPeak out;
    out.level = level;
    out.under = static_cast<int>(level - std::max(kLightGap * level, grains * grain));
    for (int v = 0; v < out.under; ++v) out.below += hist[static_cast<std::size_t>(v)];
    return out;
}

// A lighter ink than the page's, for faint text the page's ink (one
// threshold at least 18 % under the paper) misses: the reduced page divided
// by its paper level (the brightest of 1.5 mm cells over 6 mm). A pixel is
// ink where it lies clearly under the paper (InkUnder) and under the
// midpoint between the paper and the darkest pixel within 2.5 mm (about a
// letter's height: strokes of dark text are cut at half their depth and
// do not swell, faint ones at half theirs). Blobs under 3 pixels are
// dropped.
cv::Mat LightInk(const ScanPage &page, const cv::Rect &area, double px) {
    const cv::Mat gray = page.reduced(area);
    const cv::Mat level =
        PaperLevel(gray, std::max(2, static_cast<int>(kLightCellMm * px)), static_cast<int>(kLightPaperMm * px));
    cv::Mat flat;
    cv::divide(gray, cv::max(level, 1), flat, 255.0);
    const PaperPeak paper = ReadPaper(flat);
    cv::Mat dark;
    const int window = std::max(3, static_cast<int>(kLightWindowMm * px)) | 1;
    cv::erode(flat, dark, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(window, window)));
    cv::Mat light(flat.size(), CV_8U);
    for (int y = 0; y < flat.rows; ++y) {
        const std::uint8_t *r = flat.ptr<std::uint8_t>(y), *d = dark.ptr<std::uint8_t>(y);
        std::uint8_t *o = light.ptr<std::uint8_t>(y);
        for (int x = 0; x < flat.cols; ++x) o[x] = r[x] < paper.under && 2 * r[x] < paper.level + d[x] ? 255 : 0;
    }
    cv::Mat labels, stats;
    LabelBlobs(light, &labels, &stats);
    for (int y = 0; y < light.rows; ++y) {
        std::uint8_t *o = light.ptr<std::uint8_t>(y);
        const int *l = labels.ptr<int>(y);
        for (int x = 0; x < light.cols; ++x)
            if (o[x] != 0 && stats.at<int>(l[x], cv::CC_STAT_AREA) < kLightSpeck) o[x] = 0;
    }
    return light;
}

}  // namespace

Orientation FindOrientation(const ScanPage &page, const Sheet &sheet, const Skew &skew, double maxSkew,
                            const InkBlobs *blobs) {
    if (page.ink.empty()) return Orientation{};
    const int f = page.reduction;
    const cv::Rect area = cv::Rect(sheet.box.x / f, sheet.box.y / f, sheet.box.width / f, sheet.box.height / f) &
                          cv::Rect(0, 0, page.ink.cols, page.ink.rows);
    if (area.width < 16 || area.height < 16) return Orientation{};
    cv::Mat ink = page.ink(area).clone();
    if (sheet.sides != 0) ink &= sheet.paper(area);
    // The content's blobs are those of this very image when the ink was
    // neither masked, turned nor straightened and covers the same area.
    const bool same = blobs != nullptr && !blobs->stats.empty() && sheet.sides == 0 && blobs->area == area;
    double px = page.dpi / 25.4 / f;
    Call first = Orient(ink, page, px, skew, skew, maxSkew, blobs, same);
    // A tag the page's size did not contradict stands for the other analyses,
    // but a tag claiming over twice the resolution its letters show (an image
    // scaled down that kept its scanner's tag) leaves the lines under the
    // cues' smallest size: a weak reading is read again at the letters'
    // millimetre, and the one with more evidence kept.
    if (first.orientation.confidence < kLightBelow && page.dpiSource == DpiSource::kTag) {
        const double letters = LetterScale(ink, same ? blobs : nullptr);
        if (letters > 0 && letters * kLetterTag < px) {
            const Call other = Orient(ink, page, letters, skew, skew, maxSkew, blobs, same);
            if (other.evidence > first.evidence) {
                first = other;
                px = letters;
            }
        }
    }
    if (first.orientation.confidence >= kLightBelow) return first.orientation;
    // A weak reading: read the light ink too when it holds much more than
    // the page's ink. Where the page's ink saw under a third of the light
    // ink's strokes, its cues read fragments and the light reading stands;
    // else the reading with more evidence, the page's weighed by the share
    // of the strokes it saw.
    // First a cheap look, before the paper is flattened: the pixels of the
    // reduced page 6 % under its paper's peak, grain or not, are a generous
    // count of the light ink's strokes (on clean paper, the page's ink alone).
    const int inkCount = cv::countNonZero(ink);
    if (ReadPaper(page.reduced(area), 0).below < kLightMore * inkCount) return first.orientation;
    cv::Mat light = LightInk(page, area, px);
    if (sheet.sides != 0) light &= sheet.paper(area);
    const int lightCount = cv::countNonZero(light);
    if (lightCount == 0 || lightCount < kLightMore * inkCount) return first.orientation;
    const Call second = Orient(light, page, px, FindInkSkew(light, page, maxSkew), skew, maxSkew, nullptr, false);
    const double seen = static_cast<double>(inkCount) / lightCount;
    Call kept = first;
    kept.evidence *= seen;
    kept.orientation.confidence *= seen;
    if (seen >= kLightSeen && kept.evidence >= second.evidence) return kept.orientation;
    // Lines the page's ink also found running down the page keep the skew
    // it found along them, as an upright reading keeps the page's own.
    Orientation out = second.orientation;
    if (out.vertical && first.orientation.vertical) out.lines = first.orientation.lines;
    return out;
}

}  // namespace quarvel::scan
