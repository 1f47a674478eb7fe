// Content steps of the real-scan layer on drawn pages with known answers and
// on real scans: punch holes, blank pages, colour mode, binarisation and
// despeckling, plus bad input.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <opencv2/imgproc.hpp>
#include <random>

#include "quarvel/scan.h"
#include "scan/binarize.h"
#include "scan/paper.h"
#include "scan/scan.h"
#include "support/pages.h"

namespace {

using namespace quarvel::scan;

constexpr int kDpi = 150;
const cv::Size kA4(1240, 1754);  // A4 at 150 dpi

int Mm(double mm) {
    return static_cast<int>(std::lround(mm * kDpi / 25.4));
}

ScanPage PageOf(const cv::Mat &image, int dpi = kDpi, bool bitonal = false) {
    ScanPage p;
    p.width = image.cols;
    p.height = image.rows;
    p.dpi = dpi;
    p.dpiKnown = true;
    p.bitonalSource = bitonal;
    p.colorSource = image.channels() == 3;
    if (p.colorSource) {
        p.color = image;
        cv::cvtColor(image, p.gray, cv::COLOR_BGR2GRAY);
    } else {
        p.gray = image;
    }
    p.bits = bitonal ? 1 : image.channels() * 8;
    PrepareReduced(&p);
    return p;
}

Analysis WholeSheet(const ScanPage &p) {
    Analysis a;
    a.sheet.box = cv::Rect(0, 0, p.width, p.height);
    return a;
}

// Lines of word-like marks between the margins: letters (bars), dots of i,
// full stops, small rings (o) and bullets; `ink` is their colour.
void DrawText(cv::Mat *page, cv::Scalar ink, int top = Mm(30), int lines = 30) {
    std::mt19937 rng(7);
    for (int line = 0; line < lines; ++line) {
        const int y = top + line * Mm(7);
        if (y > page->rows - Mm(30)) break;
        cv::circle(*page, cv::Point(Mm(22), y - Mm(1)), Mm(1), ink, cv::FILLED);  // bullet in the margin
        for (int x = Mm(28); x < page->cols - Mm(25);) {
            const int word = 3 + static_cast<int>(rng() % 6);
            for (int k = 0; k < word; ++k, x += Mm(2.2)) {
                const int h = rng() % 3 == 0 ? Mm(3.2) : Mm(2.2);
                cv::rectangle(*page, cv::Rect(x, y - h, Mm(0.4) + 1, h), ink, cv::FILLED);
                if (rng() % 5 == 0) cv::circle(*page, cv::Point(x + 1, y - Mm(3.2)), 1, ink, cv::FILLED);   // i dot
                if (rng() % 7 == 0) cv::circle(*page, cv::Point(x + Mm(1.2), y - Mm(1)), Mm(0.9), ink, 1);  // o
            }
            cv::circle(*page, cv::Point(x, y - 1), 1, ink, cv::FILLED);  // full stop
            x += Mm(2.5);
        }
    }
}

// The analysis reads 8-bit gray ramps and 24/32-bit rows in place; the full
// decode gives the same reduced and coarse pages (coarse from the reduced
// page at 150 and 300 dpi, from the page at 225; a fragment smaller than a
// 75-dpi pixel keeps one), partial blocks at the right and bottom included,
// and the caller's block is kept.
TEST(ScanPage, InPlaceReadingMatchesTheFullDecode) {
    struct Case {
        int w, dpi, reduction, coarse;
    };
    for (const int bits : {8, 24, 32})
        for (const auto [w, dpi, reduction, coarse] :
             {Case{901, 150, 1, 2}, Case{1601, 300, 2, 4}, Case{1601, 225, 2, 3}, Case{7, 1200, 1, 7}}) {
            SCOPED_TRACE(std::to_string(bits) + " bits, " + std::to_string(dpi) + " dpi");
            const qtest::Block page = qtest::MakePageWith(qtest::Shape(w, w * 10 / 7, bits), [](int x, int y, int c) {
                return (x * 7 + y * 13 + c * 50 + (x / 40 + y / 30) % 2 * 120) & 255;
            });
            const std::vector<std::uint8_t> before = page.bytes();
            ScanPage quick, full;
            ASSERT_TRUE(LoadScanPage(page.get(), dpi, &quick, kReadReduced));
            ASSERT_TRUE(LoadScanPage(page.get(), dpi, &full, kReadBoth));
            EXPECT_TRUE(quick.gray.empty());
            EXPECT_EQ(quick.reduction, reduction);
            EXPECT_EQ(quick.coarseReduction, coarse);
            for (const auto &[a, b] : {std::pair{quick.reduced, full.reduced}, {quick.ink, full.ink},
                                       {quick.coarse, full.coarse}, {quick.coarseColor, full.coarseColor}})
                EXPECT_TRUE(a.size() == b.size() && (a.empty() || cv::norm(a, b, cv::NORM_INF) == 0));
            EXPECT_EQ(page.bytes(), before);
        }
}

struct HoleCase {
    const char *name;
    cv::Scalar paper, hole;
    bool bitonal;
    double skewDeg;
    double frameMm;  // dark scanner background along the left and top
    double aspect = 1;  // oval holes: width over height, same area
};

const HoleCase kHoleCases[] = {
    {"dark holes on white", cv::Scalar(245, 245, 245), cv::Scalar(40, 40, 40), false, 0, 0},
    {"white holes on yellow", cv::Scalar(170, 230, 235), cv::Scalar(252, 252, 252), false, 0, 0},
    {"black holes, 1-bit", cv::Scalar(255, 255, 255), cv::Scalar(0, 0, 0), true, 0, 0},
    {"skewed sheet", cv::Scalar(235, 240, 240), cv::Scalar(60, 60, 60), false, 2.5, 0},
    {"in a dark frame", cv::Scalar(225, 225, 225), cv::Scalar(20, 20, 20), false, 0, 20},
    {"oval holes", cv::Scalar(245, 245, 245), cv::Scalar(40, 40, 40), false, 0, 0, 1.3}};

TEST(Holes, FindsPunchedHolesAndFillsThemWithThePaper) {
    for (const HoleCase &c : kHoleCases) {
        cv::Mat page(kA4, CV_8UC3, c.paper);
        DrawText(&page, cv::Scalar(30, 30, 30));
        // Three holes 6.5 mm across, centres 12 mm from the left edge, 108 mm
        // apart, along a line turned by the skew.
        const double r = Mm(6.5) / 2.0, t = c.skewDeg * CV_PI / 180;
        std::vector<cv::Point2d> centres;
        for (int i = -1; i <= 1; ++i) {
            const double along = i * Mm(108);
            centres.emplace_back(Mm(12) - along * std::sin(t), kA4.height / 2.0 + along * std::cos(t));
            const cv::Point at(static_cast<int>(centres.back().x), static_cast<int>(centres.back().y));
            const cv::Size axes(static_cast<int>(r * std::sqrt(c.aspect)), static_cast<int>(r / std::sqrt(c.aspect)));
            if (c.aspect == 1)
                cv::circle(page, at, static_cast<int>(r), c.hole, cv::FILLED, cv::LINE_AA);
            else
                cv::ellipse(page, at, axes, 0, 0, 360, c.hole, cv::FILLED, cv::LINE_AA);
        }
        const int frame = Mm(c.frameMm);
        if (frame > 0) {
            cv::Mat framed(kA4.height + frame, kA4.width + frame, CV_8UC3, cv::Scalar(25, 25, 25));
            page.copyTo(framed(cv::Rect(frame, frame, kA4.width, kA4.height)));
            page = framed;
            for (cv::Point2d &centre : centres) centre += cv::Point2d(frame, frame);
        }
        if (c.bitonal) {
            cv::cvtColor(page, page, cv::COLOR_BGR2GRAY);
            cv::threshold(page, page, 128, 255, cv::THRESH_BINARY);
        }
        const ScanPage p = PageOf(page, kDpi, c.bitonal);
        const std::vector<Hole> holes = FindHoles(p, WholeSheet(p).sheet);
        ASSERT_EQ(holes.size(), 3u) << c.name;
        for (const cv::Point2d &centre : centres) {
            bool found = false;
            for (const Hole &h : holes)
                found = found || (std::hypot(h.cx - centre.x, h.cy - centre.y) < r / 3 && std::abs(h.r - r) < r / 4);
            EXPECT_TRUE(found) << c.name << " hole at " << centre;
        }
        cv::Mat filled = c.bitonal ? p.gray.clone() : p.color.clone();
        FillHoles(holes, &filled);
        const cv::Mat before = c.bitonal ? p.gray : p.color;
        for (const cv::Point2d &centre : centres) {
            const cv::Rect inside(static_cast<int>(centre.x - r / 2), static_cast<int>(centre.y - r / 2),
                                  static_cast<int>(r), static_cast<int>(r));
            const cv::Scalar mean = cv::mean(filled(inside));
            const cv::Scalar paper = c.bitonal ? cv::Scalar(255) : c.paper;
            for (int ch = 0; ch < filled.channels(); ++ch) EXPECT_NEAR(mean[ch], paper[ch], 3) << c.name;
        }
        // Text beyond the holes' rims is untouched.
        const cv::Rect text(frame + Mm(28), 0, kA4.width - Mm(28), kA4.height);
        EXPECT_EQ(cv::norm(filled(text), before(text), cv::NORM_INF), 0) << c.name;
    }
}

TEST(Holes, FillIgnoresHolesOffThePageOrMeaningless) {
    cv::Mat image(100, 100, CV_8UC1, cv::Scalar(200));
    const cv::Mat before = image.clone();
    const double nan = std::numeric_limits<double>::quiet_NaN();
    FillHoles({{nan, 50, 10}, {50, 50, -1}, {50, 50, 1e12}, {-500, -500, 20}}, &image);
    EXPECT_EQ(cv::norm(image, before, cv::NORM_INF), 0);
    FillHoles({{1, 1, 5}}, nullptr);
}

struct BlankCase {
    const char *name;
    bool blank;
    std::size_t holes;
    void (*draw)(cv::Mat *);
    int frameMm = 0;  // a dark frame on the left, given as the sheet
};

const BlankCase kBlankCases[] = {
    {"paper grain only", true, 0, [](cv::Mat *) {}},
    {"dark frame, stains, holes, a speck", true, 3,
     [](cv::Mat *m) {
         cv::rectangle(*m, cv::Rect(0, 0, m->cols, Mm(15)), cv::Scalar(30), cv::FILLED);
         cv::rectangle(*m, cv::Rect(m->cols - Mm(12), 0, Mm(12), m->rows), cv::Scalar(30), cv::FILLED);
         cv::ellipse(*m, cv::Point(Mm(100), Mm(150)), cv::Size(Mm(30), Mm(20)), 0, 0, 360, cv::Scalar(185), cv::FILLED);
         for (int i = -1; i <= 1; ++i) cv::circle(*m, cv::Point(Mm(12), m->rows / 2 + i * Mm(80)), Mm(3), cv::Scalar(20), cv::FILLED);
         cv::circle(*m, cv::Point(Mm(60), Mm(60)), 0, cv::Scalar(40), cv::FILLED);
     }},
    {"faint text (15 % below the paper)", false, 0, [](cv::Mat *m) { DrawText(m, cv::Scalar(200), Mm(40), 6); }},
    // Rings (letters O) and discs of hole size among text and near the edge,
    // a lone disc far inside: no holes.
    {"text to the edges, rings and discs", false, 0,
     [](cv::Mat *m) {
         DrawText(m, cv::Scalar(20), Mm(10), 60);
         cv::circle(*m, cv::Point(Mm(12), Mm(60)), Mm(3.5), cv::Scalar(20), Mm(0.8));
         cv::circle(*m, cv::Point(Mm(40), Mm(100)), Mm(3.2), cv::Scalar(20), cv::FILLED);
         cv::circle(*m, cv::Point(m->cols / 2, m->rows / 2), Mm(3), cv::Scalar(20), cv::FILLED);
     }},
    {"three short lines", false, 0,
     [](cv::Mat *m) {
         cv::Mat lines(m->rows, Mm(60), CV_8UC1, cv::Scalar(235));
         DrawText(&lines, cv::Scalar(30), Mm(120), 3);
         lines.copyTo((*m)(cv::Rect(Mm(80), 0, Mm(60), m->rows)));
     }},
    {"a lone disc 20 mm in from the edge", false, 0,
     [](cv::Mat *m) { cv::circle(*m, cv::Point(Mm(20), m->rows / 2), Mm(3), cv::Scalar(20), cv::FILLED); }},
    // A round dark nick 0.8 mm from the sheet's edge: no paper round it.
    {"a worn nick at the sheet's edge", false, 0,
     [](cv::Mat *m) {
         cv::rectangle(*m, cv::Rect(0, 0, Mm(20), m->rows), cv::Scalar(30), cv::FILLED);
         DrawText(m, cv::Scalar(30), Mm(12), 1);
         cv::circle(*m, cv::Point(Mm(23.8), m->rows / 2), Mm(3), cv::Scalar(30), cv::FILLED);
     },
     20},
    {"a title alone at the top, a frame on the left", false, 0,
     [](cv::Mat *m) {
         cv::rectangle(*m, cv::Rect(0, 0, Mm(20), m->rows), cv::Scalar(30), cv::FILLED);
         DrawText(m, cv::Scalar(30), Mm(12), 1);
     },
     20},
    // A smooth picture printed to the sheet's top edge: its blobs stand on
    // its own median, not on paper, and are no holes.
    {"a picture at the edge", false, 0,
     [](cv::Mat *m) {
         cv::Mat small(5, 7, CV_8UC1), picture;
         cv::RNG(3).fill(small, cv::RNG::UNIFORM, 30, 200);
         cv::resize(small, picture, cv::Size(Mm(90), Mm(50)), 0, 0, cv::INTER_CUBIC);
         picture.copyTo((*m)(cv::Rect(Mm(20), 0, Mm(90), Mm(50))));
         DrawText(m, cv::Scalar(30), Mm(70), 4);
     }},
    {"dense heavy print", false, 0,
     [](cv::Mat *m) {
         for (int y = Mm(20); y < m->rows - Mm(20); y += Mm(4))
             for (int x = Mm(20); x < m->cols - Mm(20); x += Mm(2.2))
                 cv::rectangle(*m, cv::Rect(x, y, Mm(1.5), Mm(2.5)), cv::Scalar(90), cv::FILLED);
     }}};

TEST(Blank, Verdict) {
    for (const BlankCase &c : kBlankCases) {
        cv::Mat page(kA4, CV_8UC1, cv::Scalar(235));
        cv::Mat grain(kA4, CV_8UC1);
        cv::randn(grain, 0, 4);
        page += grain;
        c.draw(&page);
        const ScanPage p = PageOf(page);
        Analysis a = WholeSheet(p);
        if (c.frameMm > 0) a.sheet.box = cv::Rect(Mm(c.frameMm), 0, p.width - Mm(c.frameMm), p.height);
        a.sheet.sides = c.frameMm > 0 ? QUARVEL_SIDE_LEFT : 0;
        a.holes = FindHoles(p, a.sheet);
        EXPECT_EQ(a.holes.size(), c.holes) << c.name;
        const Blank b = JudgeBlank(p, a);
        EXPECT_EQ(b.blank, c.blank) << c.name << " ink " << b.ink;
        EXPECT_EQ(b.ink < 0.0003, c.blank) << c.name;
    }
}

// Text under a heading rule, a punch hole's shadow inside its rim, a book
// edge's shadow on the right, a lone hairline (thinner than a speck, longer
// than one) far below, dust further down: the box runs from the rule to the
// hairline; shadows and dust are left out.
TEST(Content, LeavesOutEdgeAndHoleShadowsKeepsALoneHairline) {
    cv::Mat page(kA4, CV_8UC1, cv::Scalar(235));
    DrawText(&page, cv::Scalar(20), Mm(30), 10);
    const Hole hole{static_cast<double>(Mm(12)), kA4.height / 2.0, static_cast<double>(Mm(3.25))};
    cv::ellipse(page, cv::Point(static_cast<int>(hole.cx), static_cast<int>(hole.cy)),
                cv::Size(static_cast<int>(hole.r), static_cast<int>(hole.r)), 0, -40, 40, cv::Scalar(60), Mm(0.5));
    cv::rectangle(page, cv::Rect(kA4.width - Mm(1.5), Mm(30), Mm(1.5), Mm(200)), cv::Scalar(40), cv::FILLED);
    page(cv::Rect(Mm(150), Mm(250), 2, 2)).setTo(0);  // dust far from the text
    cv::rectangle(page, cv::Rect(Mm(60), Mm(20), Mm(40), Mm(2)), cv::Scalar(20), cv::FILLED);  // a heading rule
    const int hairline = Mm(200);
    cv::rectangle(page, cv::Rect(Mm(80), hairline, Mm(10), 2), cv::Scalar(20), cv::FILLED);
    const ScanPage p = PageOf(page);
    cv::Rect box;
    ASSERT_TRUE(FindContent(p, WholeSheet(p).sheet, {hole}, &box, nullptr));
    EXPECT_GE(box.x, hole.cx + hole.r * 1.2);
    EXPECT_LE(box.br().x, kA4.width - Mm(5));
    EXPECT_EQ(box.y, Mm(20));
    EXPECT_EQ(box.br().y, hairline + 2);
}

// A smooth picture printed to the sheet's top edge (its top rows light,
// no ink against its own tone) belongs to the box up to the edge; a gutter
// shadow darkening gradually to the right edge, as dark on the whole, does
// not (it meets the paper at no step).
TEST(Content, KeepsAPictureToTheEdgeLeavesOutGradualShading) {
    cv::Mat page(kA4, CV_8UC1, cv::Scalar(235));
    DrawText(&page, cv::Scalar(20), Mm(80), 10);
    const cv::Rect picture(Mm(40), 0, Mm(90), Mm(60));
    for (int y = 0; y < picture.height; ++y)
        for (int x = 0; x < picture.width; ++x)
            page.at<std::uint8_t>(y, picture.x + x) =
                cv::saturate_cast<std::uint8_t>(205 - 160.0 * y / picture.height + 20 * std::sin(x / 15.0));
    const int shade = Mm(20);
    for (int x = 0; x < shade; ++x) page.col(kA4.width - shade + x).setTo(235 - 135 * x / shade);
    const ScanPage p = PageOf(page);
    cv::Rect box;
    ASSERT_TRUE(FindContent(p, WholeSheet(p).sheet, {}, &box, nullptr));
    EXPECT_EQ(box.y, 0);
    EXPECT_LE(box.x, picture.x);
    EXPECT_LE(box.br().x, kA4.width - Mm(15));
}

// Text lines count from 0.8 mm tall (5 rows at 150 dpi): twelve such lines
// give full confidence; one row shorter they read as rules.
TEST(ScanSkew, LinesFromTheShortestTextHeightCount) {
    for (const int rows : {5, 4}) {
        cv::Mat page(kA4, CV_8UC1, cv::Scalar(235));
        for (int line = 0; line < 12; ++line)
            for (int x = Mm(25); x < kA4.width - Mm(25); x += 6)
                page(cv::Rect(x, Mm(40) + line * Mm(6), 4, rows)).setTo(20);
        const ScanPage p = PageOf(page);
        const Skew s = FindSkew(p, WholeSheet(p).sheet, 10);
        EXPECT_EQ(s.confidence >= 0.6, rows == 5) << rows << " rows: " << s.confidence << ", " << s.lines << " lines";
    }
}

struct ModeCase {
    const char *name;
    int mode;
    void (*draw)(cv::Mat *);
};

const ModeCase kModeCases[] = {
    {"black text on yellowed paper", QUARVEL_MODE_BITONAL, [](cv::Mat *m) { DrawText(m, cv::Scalar(35, 35, 35)); }},
    {"a red stamp", QUARVEL_MODE_COLOR,
     [](cv::Mat *m) {
         DrawText(m, cv::Scalar(35, 35, 35));
         cv::circle(*m, cv::Point(Mm(150), Mm(240)), Mm(12), cv::Scalar(40, 40, 200), Mm(2));
     }},
    {"blue ink", QUARVEL_MODE_COLOR, [](cv::Mat *m) { DrawText(m, cv::Scalar(170, 60, 30)); }},
    {"a photograph", QUARVEL_MODE_GRAY,
     [](cv::Mat *m) {
         DrawText(m, cv::Scalar(35, 35, 35));
         // Printed on the paper (its tint shows through): a ramp from 25 % to 75 % of it.
         cv::Mat photo((*m)(cv::Rect(Mm(40), Mm(60), Mm(80), Mm(60))));
         for (int x = 0; x < photo.cols; ++x) photo.col(x).setTo(cv::Scalar(175, 225, 238) * (0.25 + 0.5 * x / photo.cols));
     }}};

TEST(Mode, JudgesTheContentNotTheFile) {
    for (const ModeCase &c : kModeCases) {
        cv::Mat page(kA4, CV_8UC3, cv::Scalar(175, 225, 238));  // yellowed paper
        c.draw(&page);
        // JPEG-like noise, and colour fringes: the red channel registered a
        // whole pixel off the others.
        cv::Mat noise(kA4, CV_8UC3);
        cv::randn(noise, cv::Scalar::all(0), cv::Scalar::all(6));
        cv::Mat fringe = page.clone();
        std::vector<cv::Mat> ch;
        cv::split(fringe, ch);
        const cv::Mat m = (cv::Mat_<double>(2, 3) << 1, 0, 1, 0, 1, 0);
        cv::warpAffine(ch[2].clone(), ch[2], m, kA4, cv::INTER_NEAREST, cv::BORDER_REPLICATE);
        cv::merge(ch, fringe);
        fringe += noise;
        const ScanPage p = PageOf(fringe);
        EXPECT_EQ(JudgeContentMode(p, WholeSheet(p)), c.mode) << c.name;
    }
}

// A text page under a strong left-to-right shading and a dark stain.
cv::Mat ShadedText(cv::Mat *truth) {
    cv::Mat ink(kA4, CV_8UC1, cv::Scalar(255));
    DrawText(&ink, cv::Scalar(0));
    *truth = ink;
    cv::Mat page(kA4, CV_8UC1);
    for (int y = 0; y < page.rows; ++y)
        for (int x = 0; x < page.cols; ++x) {
            const double light =
                0.45 + 0.55 * x / page.cols - 0.25 * std::exp(-std::pow(std::hypot(x - 300.0, y - 900.0) / 200, 2));
            page.at<std::uint8_t>(y, x) =
                cv::saturate_cast<std::uint8_t>(light * (ink.at<std::uint8_t>(y, x) ? 240 : 50));
        }
    return page;
}

double InkF(const cv::Mat &got, const cv::Mat &truth) {
    const double tp = cv::countNonZero((got == 0) & (truth == 0));
    const double fp = cv::countNonZero((got == 0) & (truth != 0)), fn = cv::countNonZero((got != 0) & (truth == 0));
    return 2 * tp / (2 * tp + fp + fn);
}

TEST(Binarize, EveryLocalMethodRecoversTextOnShadedPaperAndTheGridMatchesThePlainWindow) {
    cv::Mat truth;
    const cv::Mat page = ShadedText(&truth);
    struct {
        int method;
        double minF;
    } const cases[] = {{QUARVEL_BINARIZE_DEFAULT, 0.97}, {QUARVEL_BINARIZE_SAUVOLA, 0.9}, {QUARVEL_BINARIZE_WOLF, 0.9}};
    for (const auto &c : cases) {
        const cv::Mat out = Binarize(page, c.method, 0, 0, kDpi);
        ASSERT_EQ(out.size(), page.size());
        EXPECT_EQ(cv::countNonZero((out != 0) & (out != 255)), 0);
        EXPECT_GT(InkF(out, truth), c.minF) << c.method;
    }
    // One global threshold cannot: the dark side goes black.
    EXPECT_LT(InkF(Binarize(page, QUARVEL_BINARIZE_OTSU, 0, 0, kDpi), truth), 0.7);
    // The cell grid agrees with the per-pixel window.
    const int window = BinarizeWindow(kDpi);
    const cv::Mat fast = Binarize(page, QUARVEL_BINARIZE_SAUVOLA, window, 0.34, kDpi);
    const cv::Mat plain = SauvolaPlain(page, window, 0.34);
    EXPECT_LT(cv::countNonZero(fast != plain), page.total() / 200);  // 99.5 % agree
}

TEST(Binarize, BadInputGivesNothingOrDefaults) {
    EXPECT_TRUE(Binarize(cv::Mat(), 0, 0, 0, 300).empty());
    EXPECT_TRUE(Binarize(cv::Mat(10, 10, CV_8UC3), 0, 0, 0, 300).empty());
    const cv::Mat tiny(1, 1, CV_8UC1, cv::Scalar(0));
    for (int method : {0, 1, 2, 3, 99})
        EXPECT_EQ(Binarize(tiny, method, 100000, std::numeric_limits<double>::quiet_NaN(), -5).size(), tiny.size());
    EXPECT_EQ(QuarvelBinarizePage(nullptr, nullptr), nullptr);
}

TEST(Despeckle, RemovesLoneSpecksKeepsDotsStopsAndStrokes) {
    cv::Mat page(kA4, CV_8UC1, cv::Scalar(240));
    DrawText(&page, cv::Scalar(20));
    cv::line(page, cv::Point(Mm(30), Mm(280)), cv::Point(Mm(180), Mm(280)), cv::Scalar(20), 1);  // hairline rule
    const cv::Mat clean = page.clone();
    std::mt19937 rng(3);
    std::vector<cv::Point> specks;
    for (int i = 0; i < 40; ++i) {
        specks.emplace_back(Mm(3) + static_cast<int>(rng() % Mm(12)),
                            Mm(20) + static_cast<int>(rng() % (kA4.height - Mm(40))));
        cv::rectangle(page, cv::Rect(specks.back(), cv::Size(1 + i % 2, 1 + i % 2)), cv::Scalar(30), cv::FILLED);
    }
    for (bool binary : {false, true}) {
        cv::Mat g = page.clone(), want = clean.clone();
        if (binary) {
            cv::threshold(g, g, 128, 255, cv::THRESH_BINARY);
            cv::threshold(want, want, 128, 255, cv::THRESH_BINARY);
        }
        Despeckle(&g, 0, kDpi);
        // Text, dots and stops bit for bit; specks gone (to the paper level).
        const cv::Rect text(Mm(20), 0, kA4.width - Mm(20), kA4.height);
        EXPECT_EQ(cv::norm(g(text), want(text), cv::NORM_INF), 0) << binary;
        for (const cv::Point &s : specks) EXPECT_GT(g.at<std::uint8_t>(s), 200) << binary << s;
    }
    cv::Mat wrong(4, 4, CV_8UC3);
    Despeckle(&wrong, 0, kDpi);
    Despeckle(nullptr, 0, kDpi);
}

// Blob labelling against OpenCV's: the same labels (numbering included) and
// statistics, on random masks from sparse specks to nearly full, odd and
// even sizes, a view into a larger image, and blobs meeting only at corners.
TEST(Blobs, LabelsMatchOpenCv) {
    std::mt19937 rng(7);
    struct Case {
        cv::Size size;
        int percent;
    };
    for (const Case c : {Case{{1, 1}, 100}, Case{{37, 1}, 50}, Case{{1, 29}, 50}, Case{{203, 151}, 3},
                         Case{{200, 150}, 30}, Case{{61, 90}, 55}, Case{{64, 64}, 80}, Case{{9, 13}, 97}}) {
        cv::Mat big(c.size.height + 4, c.size.width + 5, CV_8UC1);
        for (auto it = big.begin<std::uint8_t>(); it != big.end<std::uint8_t>(); ++it)
            *it = static_cast<int>(rng() % 100) < c.percent ? static_cast<std::uint8_t>(1 + rng() % 255) : 0;
        cv::Mat mask = big(cv::Rect(3, 2, c.size.width, c.size.height));
        cv::Mat labels, stats, want, wantStats, centroids;
        const int n = LabelBlobs(mask, &labels, &stats);
        const int m = cv::connectedComponentsWithStats(mask, want, wantStats, centroids, 8, CV_32S);
        ASSERT_EQ(n, m) << c.size << c.percent;
        EXPECT_EQ(cv::countNonZero(labels != want), 0) << c.size << c.percent;
        if (n > 1) {
            EXPECT_EQ(cv::norm(stats.rowRange(1, n), wantStats.rowRange(1, n), cv::NORM_INF), 0) << c.size;
        }
    }
    cv::Mat corners = (cv::Mat_<std::uint8_t>(4, 6) << 1, 0, 0, 0, 0, 1, 0, 1, 0, 0, 1, 0, 0, 0, 1, 0, 0, 0, 1, 0, 0, 1, 0, 1);
    cv::Mat labels, stats, want;
    EXPECT_EQ(LabelBlobs(corners, &labels, &stats), cv::connectedComponents(corners, want, 8, CV_32S));
    EXPECT_EQ(cv::countNonZero(labels != want), 0);
    // Masks of another kind hold no blobs.
    EXPECT_EQ(LabelBlobs(cv::Mat(), &labels, &stats), 1);
    EXPECT_EQ(LabelBlobs(cv::Mat(5, 5, CV_8UC3, cv::Scalar::all(255)), &labels, &stats), 1);
    EXPECT_EQ(cv::countNonZero(labels), 0);
}

// The content's blobs handed to the orientation give the orientation it
// finds by labelling its own image, and are kept only for unframed ink.
TEST(Blobs, SharedWithOrientation) {
    cv::Mat image(kA4, CV_8UC1, cv::Scalar(235));
    DrawText(&image, cv::Scalar(20));
    const ScanPage p = PageOf(image);
    Analysis a = WholeSheet(p);
    InkBlobs blobs;
    ASSERT_TRUE(FindContent(p, a.sheet, {}, &a.content, &blobs));
    EXPECT_GT(blobs.count, 100);
    const Skew skew = FindSkew(p, a.sheet, 45);
    const Orientation shared = FindOrientation(p, a.sheet, skew, 45, &blobs), own = FindOrientation(p, a.sheet, skew, 45);
    EXPECT_EQ(shared.angle, own.angle);
    EXPECT_EQ(shared.confidence, own.confidence);
    EXPECT_GT(own.confidence, 0);
    a.sheet.sides = QUARVEL_SIDE_LEFT;
    a.sheet.paper = cv::Mat(p.ink.size(), CV_8UC1, cv::Scalar(255));
    InkBlobs framed;
    FindContent(p, a.sheet, {}, &a.content, &framed);
    EXPECT_TRUE(framed.stats.empty());
}

}  // namespace
