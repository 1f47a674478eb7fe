// Page analysis on drawn pages with known answers and on real scans: skew
// and its confidence, orientation, sheet and frame, content box; bad input.
#include <gtest/gtest.h>

#include <cmath>
#include <cstddef>
#include <vector>

#include "scan/scan_pages.h"

using namespace qtest;

namespace {

cv::Mat TextPage(int margin = 140, bool capitals = false) {
    cv::Mat img(1754, 1240, CV_8UC1, cv::Scalar(235));
    DrawText(&img, cv::Rect(margin, 150, 1240 - 2 * margin, 1754 - 300), 0.9, capitals);
    return img;
}

// Angles across the range, asymmetric so a sign slip shows; -7.3 with
// full-width lines is where a coarse 5-degree bracket lands on a side peak;
// 0.1 must not read as upright.
TEST(ScanSkew, FindsDrawnAnglesWithConfidence) {
    for (const double angle : {0.0, 0.1, -0.35, 2.2, -7.3, 13.0, -44.0}) {
        SCOPED_TRACE(angle);
        const Block page = PageFromMat(Turned(TextPage(angle == -7.3 ? 20 : 140), angle), 150);
        const QuarvelPageReport r = Analyze(page.get());
        ASSERT_EQ(r.usable, 1);
        EXPECT_NEAR(r.skew_angle, angle, std::abs(angle) > 10 ? 0.1 : 0.05);
        EXPECT_GE(r.skew_confidence, 0.6);
    }
}

// Real scans, none blank: lines of known skew; sheet music and a title page
// of three short lines, whose skew is not to be trusted; faint newspaper
// text, bitonal; Hebrew, whose lines hang from a sharp top and carry more
// descenders than ascenders, must not read as confidently upside down;
// white holes on yellow graph paper with coloured ruling; red rubrics among
// brown print on browned paper.
TEST(ScanAnalyze, RealScans) {
    struct Case {
        const char *name;
        double angle;     // NAN: not checked
        int lines;        // skew confidence: 1 at least 0.6, 0 under 0.5, -1 either
        int sure;         // orientation: 1 upright at 0.6 or more; 0 under 0.6, any turn; -1 upright, any confidence
        int holes, mode;
    };
    const int bitonal = QUARVEL_MODE_BITONAL;  // linn.png is a 1-bit file
    for (const Case c : {Case{"deskew-2.png", -2.2, 1, 0, 0, bitonal}, Case{"linn.png", 0.0, 1, 1, 0, bitonal},
                         Case{"lion-page.00012.png", NAN, 0, 0, 0, bitonal}, Case{"lighttext.jpg", NAN, 1, 0, 0, bitonal},
                         Case{"hebtypo.jpg", 0.0, 1, 0, 0, bitonal},
                         Case{"graph-paper-front.jpg", NAN, -1, 0, 3, QUARVEL_MODE_COLOR},
                         Case{"breviar.38.150.jpg", NAN, -1, -1, 0, QUARVEL_MODE_COLOR}}) {
        SCOPED_TRACE(c.name);
        const QuarvelPageReport r = Analyze(LoadScan(c.name).get());
        ASSERT_EQ(r.usable, 1);
        if (!std::isnan(c.angle)) { EXPECT_NEAR(r.skew_angle, c.angle, 0.1); }
        if (c.lines >= 0) { EXPECT_TRUE(c.lines ? r.skew_confidence >= 0.6 : r.skew_confidence < 0.5) << r.skew_confidence; }
        EXPECT_EQ(r.blank, 0);
        if (c.sure != 0) { EXPECT_EQ(r.orientation, 0); }
        if (c.sure >= 0) { EXPECT_EQ(r.orientation_confidence >= 0.6, c.sure == 1) << r.orientation_confidence; }
        ASSERT_EQ(r.hole_count, c.holes);
        for (int i = 0; i < c.holes; ++i) EXPECT_NEAR(r.holes[i].cx, 156, 47);  // 12 mm in, on the left edge
        EXPECT_EQ(r.mode, c.mode);
    }
}

// Pages without lines: blank and a soft photo-like gradient.
TEST(ScanSkew, LowConfidenceWithoutLinesAcross) {
    cv::Mat blank(1200, 900, CV_8UC1, cv::Scalar(240));
    cv::Mat photo(1200, 900, CV_8UC1);
    for (int y = 0; y < photo.rows; ++y)
        for (int x = 0; x < photo.cols; ++x)
            photo.at<std::uint8_t>(y, x) =
                static_cast<std::uint8_t>(128 + 100 * std::sin(x * 0.013) * std::cos(y * 0.011));
    for (const cv::Mat &img : {blank, photo}) {
        const QuarvelPageReport r = Analyze(PageFromMat(img, 150).get());
        ASSERT_EQ(r.usable, 1);
        EXPECT_LT(r.skew_confidence, 0.3);
        EXPECT_LT(r.orientation_confidence, 0.5);
    }
}

// Four quarter turns of a page skewed by 4 degrees: the turn back is
// reported; lines running down the page are straightened by their own
// angle, which is the page's skew, before their up and down are read. The
// same page in capitals (no ascenders, descenders, dots or stops: nothing
// tells up from down) is never turned with confidence. Hebrew (a real page),
// whose letters read as Latin upside down, is called right by its full
// stops on the baseline, though not with confidence, both at 150 dpi and
// with the file's own 600-dpi tag, which leaves its letters twice the size
// the cues are read at until the ink is taken down by its letters' size.
// A newspaper crop (untagged) whose right column is too faint for the
// page's ink is read on the light ink, unsure, in every turn.
TEST(ScanOrientation, QuarterTurnsAreUndone) {
    const cv::Mat hebrew = MatFromPage(LoadScan("hebtypo.jpg").get());
    const cv::Mat faint = MatFromPage(LoadScan("lighttext.jpg").get());
    const struct {
        cv::Mat page;
        bool sure, called;  // confidence at least 0.6; the right turn reported
        double skew;
        int dpi;
    } pages[] = {{Turned(TextPage(), 4.0), true, true, 4.0, 150},
                 {Turned(TextPage(140, true), 4.0), false, false, 4.0, 150},
                 {hebrew, false, true, 0.0, 150},
                 {hebrew, false, true, 0.0, 600},
                 {faint, false, true, 0.24, 0}};
    const int codes[] = {-1, cv::ROTATE_90_COUNTERCLOCKWISE, cv::ROTATE_180, cv::ROTATE_90_CLOCKWISE};
    for (const auto &p : pages)
        for (int q = 0; q < 4; ++q) {
            SCOPED_TRACE(testing::Message() << p.page.cols << " wide at " << p.dpi << " dpi, turn " << q);
            cv::Mat img;  // never a header on `page`: rotating into it would overwrite it
            codes[q] >= 0 ? cv::rotate(p.page, img, codes[q]) : p.page.copyTo(img);
            const QuarvelPageReport r = Analyze(PageFromMat(img, p.dpi).get());
            if (p.called) { EXPECT_EQ(r.orientation, 90 * q); }
            EXPECT_EQ(p.sure, r.orientation_confidence >= 0.6) << r.orientation_confidence;
            EXPECT_NEAR(r.skew_angle, p.skew, 0.05);  // a quarter turn leaves the skew as it was
            EXPECT_GE(r.skew_confidence, 0.6);
        }
}

// A 150-dpi page tagged 600 (an image scaled down that kept its scanner's
// tag; the page's size does not contradict it): its lines are under the
// cues' smallest size at that tag, so the orientation reads its letters'
// own scale. Upright and turned a quarter either way it is called right
// and sure.
TEST(ScanOrientation, ATagOverTwiceTheLettersScaleGivesWay) {
    const Block colour = LoadScan("breviar.38.150.jpg");
    const PageView v(colour.get());
    ASSERT_EQ(v.bitCount(), 24);
    cv::Mat gray(v.height(), v.width(), CV_8UC1);
    for (int y = 0; y < gray.rows; ++y)
        for (int x = 0; x < gray.cols; ++x) {
            const std::uint8_t *p = v.row(gray.rows - 1 - y) + 3 * x;
            gray.at<std::uint8_t>(y, x) = static_cast<std::uint8_t>((114 * p[0] + 587 * p[1] + 299 * p[2]) / 1000);
        }
    const struct {
        int code, angle;
    } turns[] = {{-1, 0}, {cv::ROTATE_90_COUNTERCLOCKWISE, 90}, {cv::ROTATE_90_CLOCKWISE, 270}};
    for (const auto &t : turns) {
        SCOPED_TRACE(t.angle);
        cv::Mat img;
        t.code >= 0 ? cv::rotate(gray, img, t.code) : gray.copyTo(img);
        const QuarvelPageReport r = Analyze(PageFromMat(img, 600).get());
        EXPECT_EQ(r.orientation, t.angle);
        EXPECT_GE(r.orientation_confidence, 0.6);
    }
}

// A frame of known widths on given sides, dark or a light gray bed; the sheet
// is the paper, the content box the text's, and a page without a frame is
// not trimmed.
// A form whose rows of boxes and long right edge leave the line direction
// unsure (deskew-5 enlarged to 200 dpi, untagged): the letters' cues call it
// turned a quarter, unsure, but the skew stays the one its rows' profile found.
TEST(ScanOrientation, AnUnsureDirectionKeepsTheRowsSkew) {
    const QuarvelPageReport r = Analyze(LoadScan("deskew-5-200dpi.png").get());
    EXPECT_NEAR(r.skew_angle, 3.4, 0.1);
    EXPECT_LT(r.orientation_confidence, 0.6);
}

// The last sheet's right part is shaded (a curled edge) down to the bed's
// own level, its print running into the shade: still paper, by its print
// and its grain against the flat bed.
TEST(ScanSheet, FramesOnGivenSides) {
    struct Case {
        int left, top, right, bottom;
        unsigned sides;
        int bed;
        bool shaded;
    };
    const Case cases[] = {{0, 0, 0, 0, 0, 25, false},
                          {90, 0, 0, 0, QUARVEL_SIDE_LEFT, 25, false},
                          {0, 0, 120, 70, QUARVEL_SIDE_RIGHT | QUARVEL_SIDE_BOTTOM, 25, false},
                          {0, 0, 120, 0, QUARVEL_SIDE_RIGHT, 25, false},
                          {60, 80, 100, 40, 0xf, 25, false},
                          {70, 50, 110, 90, 0xf, 180, false},
                          {0, 100, 90, 0, QUARVEL_SIDE_TOP | QUARVEL_SIDE_RIGHT, 80, true}};
    for (const Case &c : cases) {
        SCOPED_TRACE(c.sides);
        const cv::Rect text(300, 300, c.shaded ? 780 : 640, 900);
        cv::Mat img(1754, 1240, CV_8UC1, cv::Scalar(c.bed));
        const cv::Rect paper(c.left, c.top, 1240 - c.left - c.right, 1754 - c.top - c.bottom);
        img(paper).setTo(235);
        DrawText(&img, text);
        if (c.shaded) {
            // Paper 235 falls to 85 over its right 450 pixels; grain of 2 mm
            // flecks on the paper.
            cv::Mat grain(img.rows / 8, img.cols / 8, CV_32F), shade(img.size(), CV_32F, cv::Scalar(1));
            cv::randn(grain, 0, 12);
            cv::resize(grain, grain, img.size(), 0, 0, cv::INTER_LINEAR);
            for (int x = paper.br().x - 450; x < paper.br().x; ++x)
                shade.col(x).setTo(1 - 0.64 * (x - paper.br().x + 450) / 450.0);
            cv::Mat f;
            img.convertTo(f, CV_32F);
            f = f.mul(shade) + grain;
            cv::Mat out;
            f.convertTo(out, CV_8U);
            out(paper).copyTo(img(paper));
        }
        const QuarvelPageReport r = Analyze(PageFromMat(img, 150).get());
        EXPECT_EQ(r.frame_sides, c.sides);
        EXPECT_TRUE(std::abs(r.sheet.left - paper.x) <= 3 && std::abs(r.sheet.top - paper.y) <= 3 &&
                    std::abs(r.sheet.right - paper.br().x) <= 3 && std::abs(r.sheet.bottom - paper.br().y) <= 3)
            << r.sheet.left << "," << r.sheet.top << "," << r.sheet.right << "," << r.sheet.bottom;
        ASSERT_EQ(r.has_content, 1);
        if (c.shaded) {  // the content box may take in the shade; it holds the text
            EXPECT_TRUE(r.content.left <= text.x && r.content.right >= text.br().x - 20 && r.content.top <= text.y + 30 &&
                        r.content.bottom >= text.br().y - 30 && r.content.right <= r.sheet.right);
            continue;
        }
        // Drawn letters sit inside the box given to DrawText, less a line's top.
        EXPECT_GE(r.content.left, text.x - 2);
        EXPECT_LE(r.content.right, text.x + text.width + 2);
        EXPECT_GE(r.content.top, text.y - 2);
        EXPECT_LE(r.content.bottom, text.y + text.height + 2);
        EXPECT_GE(r.content.right - r.content.left, text.width * 0.85);
    }
}

// Bad pages and options: no crash, usable 0 / NULL; a short report record
// is written only as far as its size says.
TEST(ScanAnalyze, RefusesBadInputAndHonoursRecordSize) {
    QuarvelPageReport r{};
    r.size = sizeof r;
    EXPECT_EQ(QuarvelAnalyzePage(nullptr, nullptr, &r), 0);
    EXPECT_EQ(r.usable, 0);
    EXPECT_EQ(QuarvelAnalyzePage(nullptr, nullptr, nullptr), 0);
    EXPECT_EQ(QuarvelCleanPage(nullptr, nullptr, nullptr), nullptr);

    Block compressed = MakePage(Shape(64, 64, 8));
    PageView(compressed.get()).header()->biCompression = 1;  // run-length rows
    EXPECT_EQ(QuarvelAnalyzePage(compressed.get(), nullptr, &r), 0);
    PageShape shortShape = Shape(64, 64, 8);
    Block tiny = MakePage(shortShape);
    PageView(tiny.get()).header()->biHeight = 1 << 20;  // rows past the block's end
    EXPECT_EQ(QuarvelAnalyzePage(tiny.get(), nullptr, &r), 0);
    EXPECT_EQ(QuarvelCleanPage(tiny.get(), nullptr, nullptr), nullptr);

    QuarvelScanOptions absurd;
    QuarvelDefaultOptions(&absurd);
    absurd.max_skew = NAN;
    absurd.min_skew_confidence = 7;
    absurd.margin = -50;
    absurd.dpi = 1 << 30;
    absurd.steps = 0xffffffffu;
    const Block page = PageFromMat(TextPage(), 150);
    EXPECT_EQ(QuarvelAnalyzePage(page.get(), &absurd, &r), 1);
    const Block out(QuarvelCleanPage(page.get(), &absurd, nullptr));
    EXPECT_TRUE(out);

    // Letters much taller than the page is wide at 10,000 dpi, read at full
    // size: the orientation takes its ink down by their size and must keep
    // a pixel across (its resize once had no width left to give).
    cv::Mat narrow(1990, 40, CV_8UC1, cv::Scalar(235));
    for (int y = 300; y < 1700; y += 10)
        for (int x = (y / 10) % 2 * 10; x < narrow.cols; x += 20) narrow(cv::Rect(x, y, 10, 10)).setTo(20);
    QuarvelScanOptions fine;
    QuarvelDefaultOptions(&fine);
    fine.dpi = 10000;
    EXPECT_EQ(QuarvelAnalyzePage(PageFromMat(narrow, 10000).get(), &fine, &r), 1);

    std::vector<unsigned char> bytes(sizeof(QuarvelPageReport), 0xab);
    auto *shortReport = reinterpret_cast<QuarvelPageReport *>(bytes.data());
    shortReport->size = offsetof(QuarvelPageReport, skew_angle);
    EXPECT_EQ(QuarvelAnalyzePage(page.get(), nullptr, shortReport), 1);
    EXPECT_EQ(shortReport->usable, 1);
    for (std::size_t i = offsetof(QuarvelPageReport, skew_angle); i < bytes.size(); ++i) ASSERT_EQ(bytes[i], 0xab);
}

}  // namespace

// The resolution used for a drawn A4 page at 150 dpi (body text of about
// 1.8 mm letters) as tagged: a right tag is kept exactly; 72 (the page 24
// inches long) and 600 (the text's letters under 0.5 mm) give way to the
// text's; no tag gives the size's; a fragment with no tag, which the size
// would put at 52 dpi, takes the text's. An explicit option always wins.
TEST(ScanResolution, WrongTagsGiveWayToTheText) {
    // Letters drawn one by one, 2 pixels apart, so they stay apart as print does.
    cv::Mat page(1754, 1240, CV_8UC1, cv::Scalar(235));
    const std::string text = "the which held a black table field of and built kind light hill by its more ";
    for (int y = 180, k = 0; y < 1600; y += 30)
        for (int x = 140; x < 1080; ++k) {
            const std::string ch(1, text[static_cast<std::size_t>(k) % text.size()]);
            cv::putText(page, ch, cv::Point(x, y), cv::FONT_HERSHEY_SIMPLEX, 0.55, cv::Scalar(20), 1, cv::LINE_AA);
            x += cv::getTextSize(ch, cv::FONT_HERSHEY_SIMPLEX, 0.55, 1, nullptr).width + 2;
        }
    const struct {
        int tag, option;
        cv::Rect crop;
        int want;
        double tolerance;
        int source;
    } cases[] = {
        {150, 0, {}, 150, 0, QUARVEL_DPI_TAG},
        {72, 0, {}, 150, 0.25, QUARVEL_DPI_TEXT},
        {600, 0, {}, 150, 0.25, QUARVEL_DPI_TEXT},
        {0, 0, {}, 153, 0, QUARVEL_DPI_SIZE},
        {0, 0, {100, 300, 600, 400}, 150, 0.25, QUARVEL_DPI_TEXT},
        {72, 96, {}, 96, 0, QUARVEL_DPI_GIVEN},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(testing::Message() << c.tag << " " << c.option << " " << c.crop);
        const Block block = PageFromMat(c.crop.empty() ? page : page(c.crop), c.tag);
        QuarvelScanOptions o;
        QuarvelDefaultOptions(&o);
        o.dpi = c.option;
        const QuarvelPageReport r = Analyze(block.get(), &o);
        ASSERT_EQ(r.usable, 1);
        EXPECT_NEAR(r.dpi, c.want, c.want * c.tolerance);
        EXPECT_EQ(r.dpi_source, c.source);
    }
    // A 150-dpi scan tagged 30 (a 58-inch page): binarisation's window
    // follows the resolution the analysis settles on, not the tag.
    const Block real = LoadScan("deskew-2.png");
    auto *h = static_cast<BITMAPINFOHEADER *>(GlobalLock(real.get()));
    h->biXPelsPerMeter = h->biYPelsPerMeter = 1181;
    GlobalUnlock(real.get());
    const QuarvelPageReport r = Analyze(real.get());
    ASSERT_NE(r.dpi_source, QUARVEL_DPI_TAG);
    QuarvelScanOptions o;
    QuarvelDefaultOptions(&o);
    std::vector<std::uint8_t> bytes[3];
    for (const int dpi : {0, r.dpi, 30}) {
        o.dpi = dpi;
        const Block b(QuarvelBinarizePage(real.get(), &o));
        ASSERT_TRUE(b);
        const auto *p = static_cast<const std::uint8_t *>(GlobalLock(b.get()));
        bytes[dpi == 0 ? 0 : dpi == 30 ? 2 : 1].assign(p, p + GlobalSize(b.get()));
        GlobalUnlock(b.get());
    }
    EXPECT_TRUE(bytes[0] == bytes[1]);
    EXPECT_FALSE(bytes[0] == bytes[2]);
}
