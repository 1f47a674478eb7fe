// Cleaning: never cuts content, removes the frame, keeps the depth family,
// straightens only when confident, and whitening keeps the page size.
#include <gtest/gtest.h>

#include "scan/scan_pages.h"

using namespace qtest;

namespace {

// A sheet of text turned by 3 degrees on a dark scanner bed; with a finger,
// a dark bar from the bed reaches over the sheet's left margin into the
// text block's blank left part; with a picture, a smooth photograph is
// printed to the sheet's top edge.
const cv::Rect kPicture(300, 0, 500, 250);

cv::Mat FramedSkewedPage(bool finger = false, bool picture = false) {
    cv::Mat sheet(1600, 1100, CV_8UC1, cv::Scalar(235));
    DrawText(&sheet, cv::Rect(120, 140, 860, 660));
    DrawText(&sheet, cv::Rect(320, 800, 660, 640));
    if (finger) sheet(cv::Rect(0, 900, 260, 90)).setTo(20);
    if (picture) {
        cv::Mat small(5, 7, CV_8UC1);
        cv::RNG(5).fill(small, cv::RNG::UNIFORM, 30, 200);
        cv::resize(small, sheet(kPicture), kPicture.size(), 0, 0, cv::INTER_CUBIC);
    }
    cv::Mat bed(1754, 1240, CV_8UC1, cv::Scalar(20));
    sheet.copyTo(bed(cv::Rect(70, 77, 1100, 1600)));
    cv::Mat mask(1754, 1240, CV_8UC1, cv::Scalar(0));
    mask(cv::Rect(70, 77, 1100, 1600)).setTo(255);
    cv::Mat turned = Turned(bed, 3.0, 20), turnedMask = Turned(mask, 3.0, 0);
    turned.setTo(20, turnedMask < 128);
    return turned;
}

int InkCount(const cv::Mat &gray, const cv::Rect &r) { return cv::countNonZero(gray(r) < 110); }

TEST(ScanClean, CropsFrameAndKeepsEveryMark) {
    const cv::Mat img = FramedSkewedPage();
    const Block page = PageFromMat(img, 150);
    QuarvelPageReport report{};
    report.size = sizeof report;
    for (const unsigned steps : {QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_CROP, unsigned{QUARVEL_CLEAN_CROP},
                                 QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_WHITEN}) {
        SCOPED_TRACE(steps);
        QuarvelScanOptions o;
        QuarvelDefaultOptions(&o);
        o.steps = steps;
        const Block out(QuarvelCleanPage(page.get(), &o, &report));
        ASSERT_TRUE(out);
        ASSERT_EQ(report.usable, 1);
        EXPECT_NEAR(report.skew_angle, 3.0, 0.05);
        EXPECT_EQ(out.header().biBitCount, 8);
        const cv::Mat clean = MatFromPage(out.get());
        const cv::Rect content(report.content.left, report.content.top, report.content.right - report.content.left,
                               report.content.bottom - report.content.top);
        // Every ink pixel of the content survives, up to resampling.
        EXPECT_GE(InkCount(clean, cv::Rect(0, 0, clean.cols, clean.rows)), 0.97 * InkCount(img, content));
        // No dark frame left along the edges.
        const int band = 4;
        const cv::Rect edges[] = {{0, 0, band, clean.rows}, {0, 0, clean.cols, band},
                                  {clean.cols - band, 0, band, clean.rows}, {0, clean.rows - band, clean.cols, band}};
        for (const cv::Rect &e : edges) EXPECT_LT(cv::countNonZero(clean(e) < 80), 0.01 * e.area());
        // A finger touching the content box goes with the frame: the clean
        // page holds no more ink with it than without it.
        const Block fingered(QuarvelCleanPage(PageFromMat(FramedSkewedPage(true), 150).get(), &o, nullptr));
        const cv::Mat withFinger = MatFromPage(fingered.get());
        EXPECT_LE(InkCount(withFinger, cv::Rect(0, 0, withFinger.cols, withFinger.rows)),
                  InkCount(clean, cv::Rect(0, 0, clean.cols, clean.rows)) + 200);
        // A picture printed to the sheet's edge meets the bed there but is
        // the sheet's: it was once taken for frame and painted over (its
        // rim along the edge, 1.4 mm, still goes).
        const cv::Mat pictured = FramedSkewedPage(false, true);
        const Block withPicture(QuarvelCleanPage(PageFromMat(pictured, 150).get(), &o, nullptr));
        const cv::Mat kept = MatFromPage(withPicture.get());
        const cv::Rect all(0, 0, img.cols, img.rows);
        EXPECT_GE(InkCount(kept, cv::Rect(0, 0, kept.cols, kept.rows)),
                  InkCount(clean, cv::Rect(0, 0, clean.cols, clean.rows)) +
                      0.9 * (InkCount(pictured, all) - InkCount(img, all)));
        if (steps & QUARVEL_CLEAN_WHITEN) {
            EXPECT_EQ(clean.cols, img.cols);
            EXPECT_EQ(clean.rows, img.rows);
        } else {
            EXPECT_LT(clean.cols, img.cols - 100);
        }
    }
}

// Text skewed or quarter-turned either way comes back straight and upright;
// margin 0 keeps no paper round text reaching a turned page's edges, 12 does.
TEST(ScanClean, StraightensBothWaysTurnsUprightAndKeepsTheMarginAsked) {
    cv::Mat text(900, 1240, CV_8UC1, cv::Scalar(235));
    DrawText(&text, cv::Rect(20, 30, 1200, 850));
    const struct {
        double skew;
        int turn;  // cv::rotate code, -1: none
    } cases[] = {{3.0, -1}, {-3.0, -1}, {0.0, cv::ROTATE_90_CLOCKWISE}, {0.0, cv::ROTATE_90_COUNTERCLOCKWISE}};
    QuarvelScanOptions o;
    QuarvelDefaultOptions(&o);
    o.steps = QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_ORIENT;
    for (const auto &c : cases) {
        SCOPED_TRACE(c.skew + c.turn);
        cv::Mat img = Turned(text, c.skew);
        if (c.turn >= 0) cv::rotate(img, img, c.turn);
        const QuarvelPageReport r = Analyze(Block(QuarvelCleanPage(PageFromMat(img, 150).get(), &o, nullptr)).get());
        EXPECT_NEAR(r.skew_angle, 0.0, 0.1);
        EXPECT_EQ(r.orientation, 0);
        EXPECT_GE(r.orientation_confidence, 0.6);
    }
    o.steps = QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_CROP;
    const Block turned = PageFromMat(Turned(text, 3.0), 150);
    int heights[2];
    for (const int margin : {0, 12}) {
        o.margin = margin;
        heights[margin > 0] = Block(QuarvelCleanPage(turned.get(), &o, nullptr)).header().biHeight;
    }
    EXPECT_GT(heights[1], heights[0] + 10);
}

// Without a frame and with low skew confidence nothing moves: the page comes
// back pixel for pixel; a 1-bit page stays 1-bit; binarising gives 1 bit.
TEST(ScanClean, LeavesUnframedPagesAndDepthsAlone) {
    cv::Mat img(900, 700, CV_8UC1, cv::Scalar(240));
    img(cv::Rect(300, 400, 40, 30)).setTo(30);
    const Block page = PageFromMat(img, 100);
    const Block same(QuarvelCleanPage(page.get(), nullptr, nullptr));
    ASSERT_TRUE(same);
    EXPECT_TRUE(SamePixels(page.get(), same.get()));

    QuarvelScanOptions o;
    QuarvelDefaultOptions(&o);
    o.steps = QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_CROP | QUARVEL_CLEAN_BINARIZE;
    const Block bin(QuarvelCleanPage(page.get(), &o, nullptr));
    ASSERT_TRUE(bin);
    EXPECT_EQ(bin.header().biBitCount, 1);

    const Block real = LoadScan("linn.png");
    const Block cleaned(QuarvelCleanPage(real.get(), nullptr, nullptr));
    ASSERT_TRUE(cleaned);
    EXPECT_EQ(cleaned.header().biBitCount, 1);
    EXPECT_EQ(cleaned.header().biWidth, real.header().biWidth);
}

}  // namespace
