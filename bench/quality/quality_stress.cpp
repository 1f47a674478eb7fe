// Stress set for the real-scan layer: variants of the shared real pages that
// the layer was never tuned on, each with a truth that follows from the
// page's own annotation (truth-geometry.tsv) and the transformation made.
//
//   quality_stress PAGES_DIR
//
// Variants (deterministic; every page gets the ones that make sense for it):
// turned by known angles (0.1 to 30 degrees, both signs, on a canvas grown
// to hold the whole page, corners filled with its paper colour); set on a
// dark scanner bed (gray 10-80 with noise, an uneven shadow on the sheet's
// rim) on 1-4 sides, and skewed on the bed; scaled to 150/200/400 dpi with a
// correct tag, no tag or a 72 tag; JPEG at quality 40; lightened; low
// contrast; yellowed and gray paper; bleed-through of the page's own back;
// punch holes (dark or lid-white discs) in its widest margin; cropped tight
// to its content; one line (not blank) or a page number (its blank verdict
// not scored: the layer judges the share of the sheet) on a bare sheet; a bare sheet with only show-through (blank;
// its darkest marks 15 % under the paper); a photo touching a framed
// sheet's edge.
//
// Truth. A variant is the base page under an affine map M (source pixel to
// variant pixel; a turn by a is a clockwise turn as displayed, so its skew is
// the page's plus a). Sheet: the box of M's image of the true sheet, clipped
// to the canvas (a skewed sheet is reported by its axis-aligned box, as the
// layer reports it); the whole canvas when no bed shows. Content: the box of
// M's image of the true content box, exact only when M does not turn (then
// the reported box must hold it, within 1 mm). Frame sides: the sides the
// bed shows on. Holes and pasted photos are drawn, so their truth is known.
//
// Scores per variant, as quality_geometry's: skew error, sheet IoU, content
// inside the sheet, holes found and false, blank verdict, orientation (every
// variant is upright), and after cleaning (deskew + crop) frame left on the
// framed sides and ink kept (input ink counted on the true sheet only).
// Lines are printed only for failures (QUALITY_VERBOSE=1: every variant);
// QUALITY_ONLY=text keeps the variants whose name holds it;
// QUALITY_STRESS_SAVE=DIR writes each failing variant there as a BMP.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <sstream>
#include <string>
#include <vector>

#include "formats.h"
#include "page.h"
#include "quarvel/scan.h"
#include "truth.h"

#ifdef QUARVEL_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

constexpr double kDeg = 3.14159265358979323846 / 180.0;

using Truth = quality::GeometryTruth;

cv::Rect2d TruthBox(const RECT &r) {
    return {double(r.left), double(r.top), double(r.right - r.left), double(r.bottom - r.top)};
}

// Base pages: unframed, read with their true resolution (the tag where it is
// right, else from the sheet size or the truth file's notes).
struct Base {
    const char *file;
    double dpi;
    bool colour;
};
const Base kBases[] = {
    {"8087_054.3B.tif", 300, false},  {"linn.png", 300, false},       {"rabi.png", 300, false},
    {"stamp00010029.jpg", 300, true}, {"1-g4.tif", 294, false},       {"deskew-5.png", 150, false},
    {"deskew-6.png", 120, true},      {"feyn-fract.tif", 300, false}, {"hebtypo.jpg", 300, false},
    {"w91frag.jpg", 160, false},      {"notesA1.jpg", 300, true},     {"OCR-D-IMG_PR6.png", 300, false},
};

// A page of the stress set: pixels (BGR, top row first), the resolution tag
// to write (0: none) and its truth.
struct Variant {
    std::string name;
    cv::Mat img;
    cv::Mat sheetMask;        // 255 on the true sheet
    double tag = 0, dpi = 0;  // tag written; true resolution
    bool gray = true;
    bool hasSkew = false, exactContent = false, text = false, hasContent = true;
    double skew = 0;
    cv::Rect2d sheet, content;
    unsigned sides = 0, frameSides = 0;  // bed sides; sides scored for frame left
    int blank = 0;                       // -1: not scored
    std::vector<cv::Vec3d> holes;        // cx, cy, r
};

cv::Mat FromPage(HGLOBAL page) {
    qtool::Locked l(page);
    cv::Mat m(std::abs(l.height()), l.width(), CV_8UC3);
    const int bits = l.bits();
    const RGBQUAD *table = l.table();
    const std::uint32_t colors = l.colors();
    for (int y = 0; y < m.rows; ++y) {
        const std::uint8_t *s = l.height() > 0 ? l.displayRow(y) : l.row(y);
        auto *d = m.ptr<cv::Vec3b>(y);
        if (bits == 24) {
            std::memcpy(d, s, static_cast<std::size_t>(m.cols) * 3);
            continue;
        }
        for (int x = 0; x < m.cols; ++x) {
            if (bits == 8) {
                const RGBQUAD q = s[x] < colors ? table[s[x]] : RGBQUAD{0, 0, 0, 0};
                d[x] = {q.rgbBlue, q.rgbGreen, q.rgbRed};
            } else if (bits < 8) {
                const unsigned idx = bits == 8   ? s[x]
                                     : bits == 4 ? (s[x / 2] >> (x & 1 ? 0 : 4)) & 15
                                                 : (s[x / 8] >> (7 - x % 8)) & 1;
                const RGBQUAD q = idx < colors ? table[idx] : RGBQUAD{0, 0, 0, 0};
                d[x] = {q.rgbBlue, q.rgbGreen, q.rgbRed};
            } else {
                const std::uint8_t *p = s + x * (bits / 8);
                d[x] = {p[0], p[1], p[2]};
            }
        }
    }
    return m;
}

qtool::Page ToPage(const cv::Mat &img, bool gray, double dpi) {
    qtool::Page page =
        qtool::NewPage(img.cols, img.rows, gray ? 8 : 24, gray ? qtool::GrayTable() : std::vector<RGBQUAD>{}, dpi, dpi);
    qtool::Locked l(page.get());
    cv::Mat g;
    if (gray) cv::cvtColor(img, g, cv::COLOR_BGR2GRAY);
    for (int y = 0; y < img.rows; ++y)
        std::memcpy(l.displayRow(y), gray ? g.ptr(y) : img.ptr(y), static_cast<std::size_t>(img.cols) * (gray ? 1 : 3));
    return page;
}

cv::Mat Gray(const cv::Mat &bgr) {
    cv::Mat g;
    if (bgr.channels() == 3)
        cv::cvtColor(bgr, g, cv::COLOR_BGR2GRAY);
    else
        g = bgr;
    return g;
}

// The 90th percentile of each channel: the paper colour.
cv::Scalar Paper(const cv::Mat &bgr) {
    cv::Scalar p;
    for (int c = 0; c < 3; ++c) {
        std::vector<long> hist(256, 0);
        for (int y = 0; y < bgr.rows; y += 2)
            for (int x = 0; x < bgr.cols; x += 2) ++hist[bgr.at<cv::Vec3b>(y, x)[c]];
        long total = 0, seen = 0;
        for (long h : hist) total += h;
        int v = 0;
        while (v < 255 && (seen += hist[v]) * 10 < total * 9) ++v;
        p[c] = v;
    }
    return p;
}

cv::Rect2d MapBox(const cv::Matx23d &m, const cv::Rect2d &r, const cv::Size &canvas) {
    double x0 = 1e18, y0 = 1e18, x1 = -1e18, y1 = -1e18;
    for (const cv::Point2d p : {r.tl(), cv::Point2d(r.x + r.width, r.y), r.br(), cv::Point2d(r.x, r.y + r.height)}) {
        const double x = m(0, 0) * p.x + m(0, 1) * p.y + m(0, 2), y = m(1, 0) * p.x + m(1, 1) * p.y + m(1, 2);
        x0 = std::min(x0, x), y0 = std::min(y0, y), x1 = std::max(x1, x), y1 = std::max(y1, y);
    }
    x0 = std::max(0.0, x0), y0 = std::max(0.0, y0);
    x1 = std::min<double>(canvas.width, x1), y1 = std::min<double>(canvas.height, y1);
    return {x0, y0, std::max(0.0, x1 - x0), std::max(0.0, y1 - y0)};
}

// Applies m to the variant's pixels (outside filled with `fill`), its sheet
// mask and its truth.
void Warp(Variant &v, const cv::Matx23d &m, cv::Size canvas, const cv::Scalar &fill, bool fillIsPaper) {
    cv::Mat out, mask;
    cv::warpAffine(v.img, out, cv::Mat(m), canvas, cv::INTER_LINEAR, cv::BORDER_CONSTANT, fill);
    cv::warpAffine(v.sheetMask, mask, cv::Mat(m), canvas, cv::INTER_NEAREST, cv::BORDER_CONSTANT,
                   fillIsPaper ? 255 : 0);
    const double turn = std::atan2(m(1, 0), m(0, 0)) / kDeg;
    v.skew += turn;
    v.exactContent = v.exactContent && std::abs(turn) < 1e-9;
    v.sheet = fillIsPaper ? cv::Rect2d(0, 0, canvas.width, canvas.height) : MapBox(m, v.sheet, canvas);
    v.content = MapBox(m, v.content, canvas);
    for (cv::Vec3d &h : v.holes) {
        const double x = m(0, 0) * h[0] + m(0, 1) * h[1] + m(0, 2), y = m(1, 0) * h[0] + m(1, 1) * h[1] + m(1, 2);
        h = {x, y, h[2] * std::hypot(m(0, 0), m(1, 0))};
    }
    v.img = out;
    v.sheetMask = mask;
}

// A clockwise turn (as displayed) by a degrees, on a canvas that holds the
// whole page, the corners filled with paper.
void Turn(Variant &v, double a) {
    const double c = std::cos(a * kDeg), s = std::sin(a * kDeg);
    const double w = v.img.cols, h = v.img.rows;
    const int cw = static_cast<int>(std::ceil(std::abs(c) * w + std::abs(s) * h));
    const int ch = static_cast<int>(std::ceil(std::abs(s) * w + std::abs(c) * h));
    cv::Matx23d m(c, -s, 0, s, c, 0);
    m(0, 2) = cw / 2.0 - (c * w / 2 - s * h / 2);
    m(1, 2) = ch / 2.0 - (s * w / 2 + c * h / 2);
    Warp(v, m, {cw, ch}, Paper(v.img), true);
}

// The sheet on a dark bed showing on `sides`, turned by a degrees (then the
// bed shows all round); noise and an uneven shadow along the bed's edge.
void OnBed(Variant &v, unsigned sides, double a, int level, double dpi, unsigned seed) {
    cv::RNG rng(seed);
    const double mm = dpi / 25.4;
    const double c = std::cos(a * kDeg), s = std::sin(a * kDeg);
    const double w = v.img.cols, h = v.img.rows;
    const double bw = std::abs(c) * w + std::abs(s) * h, bh = std::abs(s) * w + std::abs(c) * h;
    const double l = sides & QUARVEL_SIDE_LEFT ? rng.uniform(6.0, 20.0) * mm : 0;
    const double t = sides & QUARVEL_SIDE_TOP ? rng.uniform(6.0, 20.0) * mm : 0;
    const double r = sides & QUARVEL_SIDE_RIGHT ? rng.uniform(6.0, 20.0) * mm : 0;
    const double b = sides & QUARVEL_SIDE_BOTTOM ? rng.uniform(6.0, 20.0) * mm : 0;
    const cv::Size canvas(static_cast<int>(l + bw + r), static_cast<int>(t + bh + b));
    cv::Matx23d m(c, -s, 0, s, c, 0);
    m(0, 2) = l + bw / 2 - (c * w / 2 - s * h / 2);
    m(1, 2) = t + bh / 2 - (s * w / 2 + c * h / 2);
    const cv::Mat page = v.img;
    Warp(v, m, canvas, cv::Scalar::all(0), false);
    // Bed: the level with noise and a slow gradient; the sheet's rim darkened
    // over a width that changes along the edge (0.3 to 1.5 mm).
    cv::Mat bed(canvas, CV_32F), noise(canvas, CV_32F);
    rng.fill(noise, cv::RNG::NORMAL, 0, 6);
    for (int y = 0; y < canvas.height; ++y)
        for (int x = 0; x < canvas.width; ++x)
            bed.at<float>(y, x) = static_cast<float>(level * (0.8 + 0.4 * x / canvas.width)) + noise.at<float>(y, x);
    cv::Mat dist;
    cv::distanceTransform(v.sheetMask, dist, cv::DIST_L2, 3);
    const double phase = rng.uniform(0.0, 6.28);
    for (int y = 0; y < canvas.height; ++y) {
        auto *p = v.img.ptr<cv::Vec3b>(y);
        const std::uint8_t *k = v.sheetMask.ptr(y);
        for (int x = 0; x < canvas.width; ++x) {
            const float g = std::clamp(bed.at<float>(y, x), 0.f, 255.f);
            if (!k[x]) {
                p[x] = cv::Vec3b::all(static_cast<std::uint8_t>(g));
                continue;
            }
            const float d = dist.at<float>(y, x);
            if (d > 8 * mm) continue;  // past 5 widths the shadow is under 1 %
            const double width = (0.3 + 1.2 * (0.5 + 0.5 * std::sin(phase + (x + y) / (40 * mm)))) * mm;
            const double f = 1 - 0.35 * std::exp(-d / width);
            for (int ch = 0; ch < 3; ++ch) p[x][ch] = static_cast<std::uint8_t>(p[x][ch] * f);
        }
    }
    v.sides = v.frameSides = std::abs(a) > 0 ? 15u : sides;
}

void Scale(Variant &v, double f) {
    cv::Matx23d m(f, 0, 0, 0, f, 0);
    const cv::Size canvas(static_cast<int>(std::lround(v.img.cols * f)), static_cast<int>(std::lround(v.img.rows * f)));
    cv::Mat out;
    cv::resize(v.img, out, canvas, 0, 0, f < 1 ? cv::INTER_AREA : cv::INTER_CUBIC);
    Warp(v, m, canvas, Paper(v.img), true);
    v.img = out;
    v.dpi *= f;
}

void Jpeg(Variant &v, int quality) {
    const std::string path = "/tmp/quality_stress." + std::to_string(getpid()) + ".jpg";
    const qtool::Page page = ToPage(v.img, v.gray, v.tag);
    qtool::WriteImage(path, {&page}, quality);
    const std::vector<qtool::Page> back = qtool::ReadImage(path);
    std::remove(path.c_str());
    v.img = FromPage(back.at(0).get());
}

// Every channel mapped linearly: 0 to lo, 255 to hi (per channel).
void Tone(Variant &v, cv::Scalar lo, cv::Scalar hi) {
    std::vector<cv::Mat> ch;
    cv::split(v.img, ch);
    for (int c = 0; c < 3; ++c) ch[c].convertTo(ch[c], CV_8U, (hi[c] - lo[c]) / 255.0, lo[c]);
    cv::merge(ch, v.img);
}

// The page's own back showing through: mirrored, shifted, blurred and faint.
void BleedThrough(Variant &v, const cv::Mat &back, double strength, double dpi) {
    cv::Mat b;
    cv::flip(back, b, 1);
    cv::resize(b, b, v.img.size());
    cv::GaussianBlur(b, b, cv::Size(), 0.4 * dpi / 25.4);
    cv::Mat f;
    b.convertTo(f, CV_32FC3, strength / 255.0, 1 - strength);
    cv::Mat img;
    v.img.convertTo(img, CV_32FC3);
    cv::multiply(img, f, img);
    img.convertTo(v.img, CV_8UC3);
}

// Two or three punch holes (radius 3 mm) in the widest margin, 11 mm in from
// the sheet's edge; false when no margin is wide enough.
bool Punch(Variant &v, cv::Scalar colour, double dpi) {
    const double mm = dpi / 25.4, r = 3 * mm, in = 11 * mm;
    const cv::Rect2d s = v.sheet, c = v.content;
    const double margins[4] = {c.x - s.x, c.y - s.y, s.x + s.width - c.x - c.width, s.y + s.height - c.y - c.height};
    const int side = static_cast<int>(std::max_element(margins, margins + 4) - margins);
    if (margins[side] < in + r + 1.5 * mm) return false;
    const bool vertical = side == 0 || side == 2;
    const double along = vertical ? s.height : s.width, mid = (vertical ? s.y : s.x) + along / 2;
    const int count = along > 200 * mm ? 3 : 2;
    const double gap = count == 3 ? 108 * mm : 80 * mm;
    if (along < gap * (count - 1) + 20 * mm) return false;
    for (int i = 0; i < count; ++i) {
        const double a = mid + (i - (count - 1) / 2.0) * gap;
        const double e = side == 0   ? s.x + in
                         : side == 1 ? s.y + in
                         : side == 2 ? s.x + s.width - in
                                     : s.y + s.height - in;
        const cv::Point2d p = vertical ? cv::Point2d(e, a) : cv::Point2d(a, e);
        cv::circle(v.img, cv::Point(cvRound(p.x * 16), cvRound(p.y * 16)), cvRound(r * 16), colour, cv::FILLED,
                   cv::LINE_AA, 4);
        v.holes.push_back({p.x, p.y, r});
    }
    return true;
}

// The box of the pixels in `r` darker than 60 % of the paper.
cv::Rect InkBox(const cv::Mat &img, const cv::Rect &r) {
    const cv::Mat g = Gray(img(r));
    cv::Mat dark = g < Paper(img)[1] * 0.6;
    std::vector<cv::Point> points;
    cv::findNonZero(dark, points);
    if (points.empty()) return {};
    const cv::Rect b = cv::boundingRect(points);
    return b + r.tl();
}

// The first line of ink in the content box (rows darker than 60 % of paper).
cv::Rect FirstLine(const cv::Mat &img, const cv::Rect2d &content, double dpi) {
    const cv::Mat g = Gray(img);
    const int paper = static_cast<int>(Paper(img)[1]);
    const cv::Rect c = cv::Rect(content) & cv::Rect(0, 0, img.cols, img.rows);
    int y0 = -1;
    for (int y = c.y; y < c.y + c.height; ++y) {
        int n = 0;
        for (int x = c.x; x < c.x + c.width; ++x) n += g.at<std::uint8_t>(y, x) * 10 < paper * 6;
        if (y0 < 0 && n > 3) y0 = y;
        if (y0 < 0 || n > 0) continue;
        if (y - y0 > 10 * dpi / 25.4) return {};
        const cv::Rect line = cv::Rect(c.x, y0 - 2, std::min(c.width, int(120 * dpi / 25.4)), y - y0 + 4) &
                              cv::Rect(0, 0, img.cols, img.rows);
        // Under 1.5 mm tall is a rule or dust; under 50 mm of ink, a word.
        if (y - y0 > 1.5 * dpi / 25.4 && InkBox(img, line).width > 50 * dpi / 25.4) return line;
        y0 = -1;
    }
    return {};
}

// A bare sheet of the page's paper (with its grain) holding only `piece` of
// the page, put at `at`.
void Bare(Variant &v, const cv::Rect &piece, cv::Point at, unsigned seed) {
    cv::Mat sheet(v.img.size(), CV_8UC3, Paper(v.img));
    cv::Mat noise(v.img.size(), CV_8UC3);
    cv::RNG(seed).fill(noise, cv::RNG::UNIFORM, 0, 4);
    sheet -= noise;
    if (piece.area() > 0 &&
        cv::Rect(at, piece.size()) == (cv::Rect(at, piece.size()) & cv::Rect(0, 0, sheet.cols, sheet.rows))) {
        v.img(piece).copyTo(sheet(cv::Rect(at, piece.size())));
        v.content = InkBox(v.img, piece) - piece.tl() + at;
    }
    v.img = sheet;
    v.hasSkew = false;
    v.text = false;
}

// A smooth photo (levels 30-200) pasted at the sheet's top-left, touching
// its top edge where the bed shows.
void Photo(Variant &v, unsigned seed) {
    cv::RNG rng(seed);
    const cv::Rect2d s = v.sheet;
    const cv::Rect box(cvRound(s.x + s.width * 0.1), cvRound(s.y), cvRound(s.width * 0.45), cvRound(s.height * 0.22));
    cv::Mat small(6, 8, CV_8UC3), photo;
    rng.fill(small, cv::RNG::UNIFORM, 30, 200);
    cv::resize(small, photo, box.size(), 0, 0, cv::INTER_CUBIC);
    photo.copyTo(v.img(box));
    v.sheetMask(box).setTo(255);
    const double x0 = std::min(v.content.x, double(box.x)), y0 = std::min(v.content.y, double(box.y));
    const double x1 = std::max(v.content.x + v.content.width, double(box.br().x));
    const double y1 = std::max(v.content.y + v.content.height, double(box.br().y));
    v.content = {x0, y0, x1 - x0, y1 - y0};
    v.frameSides &= ~unsigned(QUARVEL_SIDE_TOP);
    v.hasSkew = false;
}

// The 90th percentile of every other pixel of every other row.
int PaperLevel(const cv::Mat &gray) {
    std::vector<long> hist(256, 0);
    long total = 0;
    for (int y = 0; y < gray.rows; y += 2) {
        const std::uint8_t *p = gray.ptr<std::uint8_t>(y);
        for (int x = 0; x < gray.cols; x += 2, ++total) ++hist[p[x]];
    }
    long seen = 0;
    int paper = 0;
    while (paper < 255 && (seen += hist[paper]) * 10 < total * 9) ++paper;
    return paper;
}

// Ink darkness in a box: the sum of how far each cell lies below the paper
// level less a noise allowance, counted only where `mask` is set (null:
// everywhere). The page (the rest painted paper) is area-reduced to cells of
// about 1/75 inch from its origin, and the paper level is the cells' 90th
// percentile, so resampling (which spreads a stroke's darkness over its
// neighbours but keeps its sum, and smooths the paper's grain) does not read
// as ink lost.
double InkIn(const cv::Mat &gray, cv::Rect r, const cv::Mat *mask, double dpi) {
    const int f = std::max(1, cvRound(dpi / 75));
    const cv::Size size((gray.cols + f - 1) / f, (gray.rows + f - 1) / f);
    cv::Mat cells;
    cv::resize(gray, cells, size, 0, 0, cv::INTER_AREA);
    const int paper = PaperLevel(cells);
    cv::Mat kept(gray.size(), CV_8UC1, cv::Scalar(paper));
    r &= cv::Rect(0, 0, gray.cols, gray.rows);
    if (r.area() == 0) return 0;
    if (mask)
        gray(r).copyTo(kept(r), (*mask)(r));
    else
        gray(r).copyTo(kept(r));
    cv::resize(kept, cells, size, 0, 0, cv::INTER_AREA);
    double sum = 0;
    for (int y = 0; y < cells.rows; ++y)
        for (int x = 0; x < cells.cols; ++x) sum += std::max(0, paper - 6 - cells.at<std::uint8_t>(y, x));
    return sum * f * f;
}

double FrameLeft(const cv::Mat &g, unsigned sides) {
    const int band = std::max(2, std::min(g.cols, g.rows) / 100);
    long dark = 0, all = 0;
    for (int y = 0; y < g.rows; ++y)
        for (int x = 0; x < g.cols; ++x) {
            if (!(((sides & QUARVEL_SIDE_LEFT) && x < band) || ((sides & QUARVEL_SIDE_TOP) && y < band) ||
                  ((sides & QUARVEL_SIDE_RIGHT) && x >= g.cols - band) ||
                  ((sides & QUARVEL_SIDE_BOTTOM) && y >= g.rows - band)))
                continue;
            ++all;
            dark += g.at<std::uint8_t>(y, x) < 80;
        }
    return all ? double(dark) / all : 0.0;
}

double Iou(const RECT &a, const cv::Rect2d &b) {
    const cv::Rect2d ra(a.left, a.top, a.right - a.left, a.bottom - a.top);
    const double i = (ra & b).area(), u = ra.area() + b.area() - i;
    return u > 0 ? i / u : 0.0;
}

#ifdef QUARVEL_HAVE_LEPTONICA
// Leptonica's sweep-and-search (+-7 degrees) on the page thresholded at half
// its paper level, in our sign.
double LeptonicaSkew(const cv::Mat &gray) {
    PIX *pix = pixCreate(gray.cols, gray.rows, 8);
    const int wpl = pixGetWpl(pix);
    l_uint32 *data = pixGetData(pix);
    for (int y = 0; y < gray.rows; ++y)
        for (int x = 0; x < gray.cols; ++x) SET_DATA_BYTE(data + y * wpl, x, gray.at<std::uint8_t>(y, x));
    PIX *bin = pixThresholdToBinary(pix, PaperLevel(gray) / 2);
    l_float32 a = 0, conf = 0;
    const int rc = pixFindSkewSweepAndSearch(bin, &a, &conf, 4, 2, 7.0f, 1.0f, 0.01f);
    pixDestroy(&bin);
    pixDestroy(&pix);
    return rc == 0 && conf > 0 ? -a : 0.0;
}
#endif

struct Sum {
    int n = 0;
    double total = 0, worst = 0;
    void add(double e) {
        ++n;
        total += e;
        worst = std::max(worst, e);
    }
    double mean() const { return n ? total / n : 0.0; }
};

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: quality_stress PAGES_DIR\n");
        return 2;
    }
    const std::string pages = argv[1];
    const std::vector<Truth> truth =
        quality::ReadGeometryTruth(std::string(QUARVEL_QUALITY_DIR) + "/truth-geometry.tsv");
    if (truth.empty()) {
        std::fprintf(stderr, "quality_stress: no truth file\n");
        return 2;
    }
    const bool verbose = std::getenv("QUALITY_VERBOSE") != nullptr;
    const char *only = std::getenv("QUALITY_ONLY");
    const char *save = std::getenv("QUALITY_STRESS_SAVE");
    cv::setNumThreads(1);
#ifdef QUARVEL_HAVE_LEPTONICA
    setMsgSeverity(L_SEVERITY_ERROR);  // its sweep's "max found at sweep edge" on turns past 7 degrees
#endif

    Sum skew, skewLept, iouFramed, detMs, clnMs;
    double iouPlainWorst = 1, iouFramedWorst = 1, keptLeast = 1;
    int variants = 0, inside = 0, framed = 0, frameLeft = 0, cut = 0, contentMissed = 0, exact = 0, skewOver = 0,
        skewOverSure = 0, leptOver = 0, holesDrawn = 0, holesFound = 0, holesFalse = 0, blankWrong = 0, oriTotal = 0,
        oriWrong = 0, oriWrongSure = 0, plain = 0, plainWrong = 0;
    std::printf("%-34s %7s %7s %5s %5s | %s\n", "variant (failures only)", "truth", "ours", "conf", "iou", "faults");

    std::vector<std::string> oriFailures;
    int baseIndex = 0;
    for (const Base &base : kBases) {
        const auto t = std::find_if(truth.begin(), truth.end(), [&](const Truth &x) { return x.file == base.file; });
        if (t == truth.end()) continue;
        std::vector<qtool::Page> read;
        try {
            read = qtool::ReadImage(pages + "/" + base.file);
        } catch (const std::exception &e) {
            std::printf("%-34s unreadable: %s\n", base.file, e.what());
            continue;
        }
        if (read.empty()) continue;
        Variant original;
        original.img = FromPage(read[0].get());
        original.sheetMask = cv::Mat(original.img.size(), CV_8U, cv::Scalar(255));
        original.tag = original.dpi = base.dpi;
        original.gray = !base.colour;
        original.hasSkew = t->hasSkew;
        original.skew = t->skew;
        original.text = t->text;
        original.exactContent = true;
        original.sheet = TruthBox(t->sheet);
        original.content = TruthBox(t->content);
        const unsigned i = static_cast<unsigned>(baseIndex++);
        const double dpi = base.dpi;
        // Which variants this page gets: turns spread over the pages so every
        // angle and sign is used; the rest by turns of the page index.
        static const double kAngles[] = {0.1, 0.3, 1, 3, 7, 15, 30};
        std::vector<std::pair<std::string, std::function<bool(Variant &)>>> make;
        for (int k = 0; k < 3; ++k) {
            const double a = kAngles[(i * 3 + k) % 7] * ((i + k) % 2 ? -1 : 1);
            char name[32];
            std::snprintf(name, sizeof name, "turn%+.1f", a);
            make.push_back({name, [a](Variant &v) {
                                Turn(v, a);
                                return true;
                            }});
        }
        const unsigned sideSets[] = {QUARVEL_SIDE_LEFT, QUARVEL_SIDE_TOP | QUARVEL_SIDE_RIGHT,
                                     QUARVEL_SIDE_LEFT | QUARVEL_SIDE_TOP | QUARVEL_SIDE_BOTTOM, 15u};
        const unsigned sides = sideSets[i % 4];
        const int level = 10 + static_cast<int>(i * 23 % 71);
        make.push_back({"bed" + std::to_string(sides), [=](Variant &v) {
                            OnBed(v, sides, 0, level, dpi, i);
                            return true;
                        }});
        const double sheetTurn = (i % 2 ? -1 : 1) * (i % 3 == 0 ? 1.5 : 4.0);
        make.push_back({"bed-turned", [=](Variant &v) {
                            OnBed(v, 15, sheetTurn, level, dpi, i + 100);
                            return true;
                        }});
        for (double target : {150.0, 200.0, 400.0}) {
            if (target == 400 && dpi * dpi / 300 > 400) continue;
            const double tags[] = {target, 0.0, 72.0};
            const double tag = tags[(i + static_cast<unsigned>(target)) % 3];
            const std::string n = "dpi" + std::to_string(int(target)) + "-tag" + std::to_string(int(tag));
            make.push_back({n, [=](Variant &v) {
                                Scale(v, target / dpi);
                                v.tag = tag;
                                return true;
                            }});
        }
        make.push_back({"jpeg40", [](Variant &v) {
                            Jpeg(v, 40);
                            return true;
                        }});
        make.push_back({"light", [](Variant &v) {
                            Tone(v, cv::Scalar::all(150), cv::Scalar::all(255));
                            return true;
                        }});
        make.push_back({"lowcontrast", [](Variant &v) {
                            Tone(v, cv::Scalar::all(90), cv::Scalar::all(200));
                            return true;
                        }});
        make.push_back({"yellowed", [](Variant &v) {
                            Tone(v, {10, 15, 20}, {175, 232, 248});
                            v.gray = false;
                            return true;
                        }});
        make.push_back({"graypaper", [](Variant &v) {
                            Tone(v, cv::Scalar::all(0), cv::Scalar::all(185));
                            return true;
                        }});
        make.push_back({"bleed", [dpi](Variant &v) {
                            BleedThrough(v, v.img, 0.35, dpi);
                            return true;
                        }});
        make.push_back({"holes-dark", [dpi](Variant &v) { return Punch(v, cv::Scalar::all(25), dpi); }});
        make.push_back({"holes-lid", [dpi](Variant &v) {
                            Tone(v, cv::Scalar::all(0), cv::Scalar::all(215));
                            return Punch(v, cv::Scalar::all(255), dpi);
                        }});
        make.push_back({"tight", [](Variant &v) {
                            const cv::Rect c = cv::Rect(v.content) & cv::Rect(0, 0, v.img.cols, v.img.rows);
                            v.img = v.img(c).clone();
                            v.sheetMask = v.sheetMask(c).clone();
                            v.sheet = v.content = cv::Rect2d(0, 0, c.width, c.height);
                            return true;
                        }});
        make.push_back({"oneline", [=](Variant &v) {
                            const cv::Rect line = FirstLine(v.img, v.content, dpi);
                            if (line.area() == 0) return false;
                            Bare(v, line, {line.x, v.img.rows / 2}, i);
                            return true;
                        }});
        make.push_back(
            {"pagenumber", [=](Variant &v) {
                 cv::Rect line = FirstLine(v.img, v.content, dpi);
                 if (line.area() == 0) return false;
                 const cv::Rect ink = InkBox(v.img, line);
                 if (ink.area() == 0) return false;
                 line.x = ink.x - 2;
                 line.width = std::min(line.width, static_cast<int>(8 * dpi / 25.4));
                 Bare(v, line,
                      {(v.img.cols - line.width) / 2, v.img.rows - static_cast<int>(15 * dpi / 25.4) - line.height}, i);
                 v.blank = -1;  // blank or not: the layer judges by the share of a sheet
                 return true;
             }});
        make.push_back({"blank-bleed", [=](Variant &v) {
                            const cv::Mat back = v.img.clone();
                            Bare(v, {}, {}, i);
                            BleedThrough(v, back, 0.10, dpi);
                            v.hasContent = false;
                            v.blank = 1;
                            return true;
                        }});
        make.push_back({"photo-bed", [=](Variant &v) {
                            OnBed(v, 15, 0, level, dpi, i + 200);
                            Photo(v, i);
                            return true;
                        }});

        for (auto &[what, apply] : make) {
            Variant v = original;
            v.img = original.img.clone();
            v.sheetMask = original.sheetMask.clone();
            v.name = std::string(base.file).substr(0, std::string(base.file).find('.')) + ":" + what;
            if (only && v.name.find(only) == std::string::npos) continue;
            if (!apply(v)) continue;
            ++variants;
            const qtool::Page page = ToPage(v.img, v.gray, v.tag);
            QuarvelPageReport r{};
            r.size = sizeof r;
            auto t0 = std::chrono::steady_clock::now();
            QuarvelAnalyzePage(page.get(), nullptr, &r);
            detMs.add(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());
            QuarvelScanOptions o;
            QuarvelDefaultOptions(&o);
            o.steps = QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_CROP;
            t0 = std::chrono::steady_clock::now();
            const qtool::Page cleaned(QuarvelCleanPage(page.get(), &o, nullptr));
            clnMs.add(std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count());

            std::string faults;
            const cv::Mat gray = Gray(v.img);
            if (v.hasSkew) {
                const double e = std::abs(r.skew_angle - v.skew);
                skew.add(e);
                if (e > 0.2) {
                    ++skewOver;
                    faults += " skew";
                    if (r.skew_confidence >= 0.5) ++skewOverSure, faults += "(sure)";
                }
#ifdef QUARVEL_HAVE_LEPTONICA
                const double el = std::abs(LeptonicaSkew(gray) - v.skew);
                skewLept.add(el);
                leptOver += el > 0.2;
#endif
            }
            const double iou = Iou(r.sheet, v.sheet);
            if (v.sides) {
                ++framed;
                iouFramed.add(iou);
                iouFramedWorst = std::min(iouFramedWorst, iou);
                if (iou < 0.95) faults += " sheet";
            } else {
                ++plain;
                iouPlainWorst = std::min(iouPlainWorst, iou);
                if (iou < 0.99) faults += " sheet", ++plainWrong;
            }
            const bool in = !r.has_content || (r.content.left >= r.sheet.left && r.content.top >= r.sheet.top &&
                                               r.content.right <= r.sheet.right && r.content.bottom <= r.sheet.bottom);
            inside += in;
            if (!in) faults += " content-outside";
            if (v.exactContent && v.hasContent) {
                ++exact;
                // 1 mm, and 1.5 mm more by a bed: marks that close to the
                // sheet's edge are left to the frame.
                const double tol = v.dpi / 25.4 * (v.sides ? 2.5 : 1.0);
                const bool holds = r.has_content && r.content.left <= v.content.x + tol &&
                                   r.content.top <= v.content.y + tol &&
                                   r.content.right >= v.content.x + v.content.width - tol &&
                                   r.content.bottom >= v.content.y + v.content.height - tol;
                if (!holds) ++contentMissed, faults += " content-missed";
            }
            for (const cv::Vec3d &h : v.holes) {
                ++holesDrawn;
                bool found = false;
                for (int k = 0; k < std::min(r.hole_count, QUARVEL_MAX_HOLES); ++k)
                    found = found || std::hypot(r.holes[k].cx - h[0], r.holes[k].cy - h[1]) < h[2];
                holesFound += found;
                if (!found) faults += " hole-missed";
            }
            for (int k = 0; k < std::min(r.hole_count, QUARVEL_MAX_HOLES); ++k) {
                bool drawn = false;
                for (const cv::Vec3d &h : v.holes)
                    drawn = drawn || std::hypot(r.holes[k].cx - h[0], r.holes[k].cy - h[1]) < h[2];
                if (!drawn) {
                    ++holesFalse;
                    char at[64];
                    std::snprintf(at, sizeof at, " hole-false(%.0f,%.0f r%.0f)", r.holes[k].cx, r.holes[k].cy,
                                  r.holes[k].r);
                    faults += at;
                }
            }
            if (!v.holes.empty() && r.has_content) {
                for (const cv::Vec3d &h : v.holes)
                    if (h[0] + h[2] * 0.5 > r.content.left && h[0] - h[2] * 0.5 < r.content.right &&
                        h[1] + h[2] * 0.5 > r.content.top && h[1] - h[2] * 0.5 < r.content.bottom &&
                        !v.content.contains({h[0], h[1]})) {
                        faults += " hole-as-content";
                        break;
                    }
            }
            if (v.blank >= 0 && r.blank != v.blank) ++blankWrong, faults += " blank";
            if (v.text) {
                ++oriTotal;
                if (r.orientation != 0) {
                    ++oriWrong;
                    faults += " orientation";
                    oriFailures.push_back(v.name);
                    if (r.orientation_confidence >= 0.6) ++oriWrongSure, faults += "(sure)";
                }
            }
            if (cleaned) {
                const cv::Mat out = Gray(FromPage(cleaned.get()));
                if (v.frameSides) {
                    const double left = FrameLeft(out, v.frameSides);
                    if (left > 0.02) ++frameLeft, faults += " frame-left";
                }
                if (v.hasContent) {
                    cv::Mat mask;
                    cv::erode(v.sheetMask, mask, cv::Mat(), {-1, -1}, v.sides ? static_cast<int>(2 * v.dpi / 25.4) : 0);
                    const double before = InkIn(gray, cv::Rect(v.content), &mask, v.dpi);
                    const double after = InkIn(out, cv::Rect(0, 0, out.cols, out.rows), nullptr, v.dpi);
                    const double kept = before > 0 ? std::min(1.0, after / before) : 1.0;
                    keptLeast = std::min(keptLeast, kept);
                    if (kept < 0.98) {
                        ++cut;
                        char k[32];
                        std::snprintf(k, sizeof k, " ink-cut(%.3f)", kept);
                        faults += k;
                    }
                }
            } else {
                faults += " clean-failed";
            }
            if (faults.empty() && !verbose) continue;
            char truthSkew[16] = "-";
            if (v.hasSkew) std::snprintf(truthSkew, sizeof truthSkew, "%.2f", v.skew);
            std::printf("%-34s %7s %7.2f %5.2f %5.3f |%s\n", v.name.c_str(), truthSkew, r.skew_angle, r.skew_confidence,
                        iou, faults.empty() ? " ok" : faults.c_str());
            if (verbose || !faults.empty())
                std::printf(
                    "%-34s dpi %d sheet %ld,%ld,%ld,%ld (truth %.0f,%.0f,%.0f,%.0f) content %ld,%ld,%ld,%ld (truth "
                    "%.0f,%.0f,%.0f,%.0f) holes %d\n",
                    "", r.dpi, long(r.sheet.left), long(r.sheet.top), long(r.sheet.right), long(r.sheet.bottom),
                    v.sheet.x, v.sheet.y, v.sheet.x + v.sheet.width, v.sheet.y + v.sheet.height, long(r.content.left),
                    long(r.content.top), long(r.content.right), long(r.content.bottom), v.content.x, v.content.y,
                    v.content.x + v.content.width, v.content.y + v.content.height, r.hole_count);
            if (save && !faults.empty()) {
                std::string file = v.name;
                std::replace(file.begin(), file.end(), ':', '_');
                qtool::WriteImage(std::string(save) + "/" + file + ".bmp", {&page});
            }
        }
    }
    if (variants == 0) return 2;
    std::printf("\n%-38s %10s %10s\n", "summary", "quarvel", "leptonica");
    std::printf("%-38s %10d\n", "variants", variants);
    std::printf("%-38s %10.3f %10.3f\n", "skew mean |error| (deg)", skew.mean(), skewLept.mean());
    std::printf("%-38s %10.3f %10.3f\n", "skew worst |error| (deg)", skew.worst, skewLept.worst);
    std::printf("%-38s %6d/%-3d %6d/%-3d\n", "skew error over 0.2", skewOver, skew.n, leptOver, skewLept.n);
    std::printf("%-38s %6d/%-3d\n", "  of which confidence >= 0.5", skewOverSure, skew.n);
    std::printf("%-38s %10.3f\n", "sheet IoU mean, framed", iouFramed.mean());
    std::printf("%-38s %10.3f\n", "sheet IoU worst, framed", iouFramedWorst);
    std::printf("%-38s %10.3f\n", "sheet IoU worst, unframed", iouPlainWorst);
    std::printf("%-38s %6d/%-3d\n", "unframed not the whole page (<0.99)", plainWrong, plain);
    std::printf("%-38s %6d/%-3d\n", "content box inside sheet", inside, variants);
    std::printf("%-38s %6d/%-3d\n", "content box misses true content", contentMissed, exact);
    std::printf("%-38s %6d/%-3d\n", "holes found", holesFound, holesDrawn);
    std::printf("%-38s %10d\n", "holes false", holesFalse);
    std::printf("%-38s %6d/%-3d\n", "blank verdict wrong", blankWrong, variants);
    std::printf("%-38s %6d/%-3d\n", "orientation wrong (text pages)", oriWrong, oriTotal);
    std::printf("%-38s %6d/%-3d\n", "orientation wrong, confidence>=0.6", oriWrongSure, oriTotal);
    std::printf("%-38s %6d/%-3d\n", "framed variants with frame left", frameLeft, framed);
    std::printf("%-38s %6d/%-3d\n", "variants with ink cut (kept < 98%)", cut, variants);
    std::printf("%-38s %10.3f\n", "least ink kept", keptLeast);
    std::printf("%-38s %10.1f\n", "ms per variant: detect", detMs.mean());
    std::printf("%-38s %10.1f\n", "ms per variant: clean", clnMs.mean());
    if (!oriFailures.empty()) {
        std::printf("orientation misses:");
        for (const std::string &n : oriFailures) std::printf(" %s", n.c_str());
        std::printf("\n");
    }
    return 0;
}
