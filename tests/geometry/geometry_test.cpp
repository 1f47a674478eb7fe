// Geometry through the C API: canvas sizes and placements, the turn table's
// pixel moves, fill values by palette and depth, every Crop mode with its
// written-back rectangle, and refusals.
#include <gtest/gtest.h>

#include <cmath>

#include "support/pages.h"

using qtest::Block;
using qtest::MakePage;
using qtest::MakePageWith;
using qtest::PageShape;
using qtest::Shape;
using qtest::PageView;
using qtest::Palette;

namespace {

// A page whose pixels identify their position (bits: a sparse pattern).
Block Numbered(int w, int h, int bits) {
    return MakePageWith(Shape(w, h, bits), [bits](int x, int y, int c) {
        if (bits == 1) return (x * 7 + y * 3) % 5 == 0 ? 1 : 0;
        return (x * 31 + y * 17 + c * 5) % 251;
    });
}

class Depths : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Geometry, Depths, ::testing::Values(1, 8, 24, 32),
                         [](const auto &info) { return std::to_string(info.param) + "bit"; });

int Channels(int bits) { return bits >= 24 ? bits / 8 : 1; }

// ---- Rotate -------------------------------------------------------------------

TEST_P(Depths, RotateByZeroIsACopy) {
    Block page = Numbered(37, 21, GetParam());
    Block out(Rotate(page.get(), 0.0, 5, 9, 1));
    ASSERT_TRUE(out);
    EXPECT_TRUE(qtest::SamePixels(page.get(), out.get()));
    EXPECT_EQ(out.header().biSizeImage, static_cast<DWORD>(quarvel::DibRowStride(37, GetParam()) * 21));
}

TEST_P(Depths, RotateMovesPixelsByTheMapping) {
    // A quarter turn about (10, 10) with nearest neighbour: source (x, y)
    // lands at (x', y') = (y, 20 - x).
    const int bits = GetParam();
    Block page = Numbered(24, 16, bits);
    Block out(Rotate(page.get(), 90.0, 10, 10, 0));
    ASSERT_TRUE(out);
    PageView in(page.get()), res(out.get());
    for (int y = 0; y < 16; ++y)
        for (int x = 0; x < 24; ++x) {
            const int X = y, Y = 20 - x;
            if (X < 0 || X >= 24 || Y < 0 || Y >= 16) continue;
            for (int c = 0; c < Channels(bits); ++c) ASSERT_EQ(res.get(X, Y, c), in.get(x, y, c)) << x << "," << y;
        }
    // Uncovered pixels: the background, 255 on these pages (bit 1 on a dark-first 1-bit page).
    EXPECT_EQ(res.get(23, 15), bits == 1 ? 1 : 255);
}

TEST(Rotate, BackgroundFollowsThePalette) {
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        Block page = MakePageWith(Shape(20, 20, 8, p), [](int, int, int) { return 100; });
        Block out(Rotate(page.get(), 45.0, 10, 10, 1));
        ASSERT_TRUE(out);
        EXPECT_EQ(PageView(out.get()).get(0, 0), p == Palette::kLightFirst ? 0 : 255);
        EXPECT_EQ(PageView(out.get()).get(10, 10), 100);
    }
}

TEST(Rotate, LinearInterpolationMatchesTheMappingInside) {
    // A smooth ramp turned by 3 degrees: every pixel well inside equals the
    // bilinear value at its mapped source position, within one level.
    Block page = MakePageWith(Shape(64, 48, 8), [](int x, int y, int) { return 2 * x + y; });
    Block out(Rotate(page.get(), 3.0, 32, 24, 1));
    ASSERT_TRUE(out);
    PageView res(out.get());
    const double a = 3.0 * M_PI / 180, c = std::cos(a), s = std::sin(a);
    double xs, ys;
    xs = 32 - (32 * c + 24 * s);
    ys = 24 - (-32 * s + 24 * c);
    for (int Y = 8; Y < 40; ++Y)
        for (int X = 8; X < 56; ++X) {
            const double x = c * (X - xs) - s * (Y - ys), y = s * (X - xs) + c * (Y - ys);
            ASSERT_NEAR(res.get(X, Y), 2 * x + y, 1.0);
        }
}

TEST(Rotate, RefusesWhatItCannotRead) {
    EXPECT_EQ(Rotate(nullptr, 3, 0, 0, 1), nullptr);
    Block four = MakePage(Shape(8, 8, 4));
    EXPECT_EQ(Rotate(four.get(), 3, 0, 0, 1), nullptr);
    EXPECT_EQ(RotateEx(four.get(), 3, 0, 0, 1), nullptr);
    EXPECT_EQ(RotateExpand(four.get(), 90, 0, 0, 0), nullptr);
    RECT r{0, 0, 4, 4};
    EXPECT_EQ(Crop(four.get(), &r, 0, 0), nullptr);
}

// ---- RotateEx and RotateEx1 ------------------------------------------------------

TEST_P(Depths, RotateExAtZeroFramesThePage) {
    const int bits = GetParam();
    Block page = Numbered(13, 9, bits);
    Block out(RotateEx(page.get(), 0.0, 3, 3, 0));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.header().biWidth, 16);
    EXPECT_EQ(out.header().biHeight, 12);
    PageView in(page.get()), res(out.get());
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 13; ++x) ASSERT_EQ(res.get(x + 1, y + 1), in.get(x, y));
    const int fill = bits == 1 ? 1 : 255;
    EXPECT_EQ(res.get(0, 0), fill);
    EXPECT_EQ(res.get(14, 10), fill);
    EXPECT_EQ(res.get(15, 11), fill);
}

TEST(RotateEx, CanvasSizesAndPlacement) {
    Block page = MakePageWith(Shape(100, 60, 8), [](int x, int y, int) { return x == 50 && y == 30 ? 7 : 200; });
    Block quarter(RotateEx(page.get(), 90.0, 50, 30, 0));
    ASSERT_TRUE(quarter);
    EXPECT_EQ(quarter.header().biWidth, 103);
    EXPECT_EQ(quarter.header().biHeight, 103);

    Block thirty(RotateEx(page.get(), 30.0, 50, 30, 0));
    ASSERT_TRUE(thirty);
    EXPECT_EQ(thirty.header().biWidth, 119);
    EXPECT_EQ(thirty.header().biHeight, 103);
    EXPECT_EQ(PageView(thirty.get()).get(59, 51), 7);  // the centre of rotation

    // A centre far off the page still gives a canvas that holds the corners.
    int w = 0, h = 0;
    Block far(RotateEx(page.get(), 10.0, 1000, -500, 1));
    ASSERT_TRUE(far);
    w = far.header().biWidth, h = far.header().biHeight;
    EXPECT_GE(w, 103);
    EXPECT_GE(h, 63);
}

TEST(RotateEx, FillValuesByPaletteAndDepth) {
    struct Case {
        int bits;
        Palette palette;
        int ex, ex1;
    } cases[] = {{8, Palette::kDarkFirst, 255, 0}, {8, Palette::kLightFirst, 0, 255}, {24, Palette::kNone, 255, 0},
                 {32, Palette::kNone, 255, 0},     {1, Palette::kDarkFirst, 1, 0},    {1, Palette::kLightFirst, 0, 1}};
    for (const Case &c : cases) {
        Block page = MakePage(Shape(10, 10, c.bits, c.palette));
        Block ex(RotateEx(page.get(), 20.0, 5, 5, 1)), ex1(RotateEx1(page.get(), 20.0, 5, 5, 1));
        ASSERT_TRUE(ex && ex1);
        for (int ch = 0; ch < Channels(c.bits); ++ch) {
            EXPECT_EQ(PageView(ex.get()).get(0, 0, ch), c.ex) << c.bits;
            EXPECT_EQ(PageView(ex1.get()).get(0, 0, ch), c.ex1) << c.bits;
        }
    }
}

// ---- RotateExpand ------------------------------------------------------------------

TEST_P(Depths, RotateExpandTurnTable) {
    const int bits = GetParam(), w = 100, h = 60;
    Block page = Numbered(w, h, bits);
    PageView in(page.get());
    struct Turn {
        double angle;
        int outW;
    } turns[] = {{90, h}, {180, w}, {270, h}, {-90, h}, {450, h}};
    for (const Turn &t : turns) {
        Block out(RotateExpand(page.get(), t.angle, 3, 4, 2));
        ASSERT_TRUE(out) << t.angle;
        ASSERT_EQ(out.header().biWidth, t.outW);
        PageView res(out.get());
        for (int y = 0; y < h; ++y)
            for (int x = 0; x < w; ++x) {
                int X, Y;
                const int rem = static_cast<int>(t.angle) % 360;
                if (rem == 90) X = y, Y = w - 1 - x;
                else if (rem == 180) X = w - 1 - x, Y = h - 1 - y;
                else X = h - 1 - y, Y = x;
                for (int c = 0; c < Channels(bits); ++c)
                    ASSERT_EQ(res.get(X, Y, c), in.get(x, y, c)) << t.angle << " at " << x << "," << y;
            }
    }
}

TEST(RotateExpand, FractionalAndUnknownTurns) {
    Block page = MakePageWith(Shape(100, 60, 8), [](int, int, int) { return 200; });
    // 90.6 uses the 90-degree row but turns a little further: some pixels
    // leave the frame and the uncovered ones are 0.
    Block out(RotateExpand(page.get(), 90.6, 0, 0, 0));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.header().biWidth, 60);
    PageView res(out.get());
    int zeros = 0;
    for (int y = 0; y < 100; ++y)
        for (int x = 0; x < 60; ++x) zeros += res.get(x, y) == 0;
    EXPECT_GT(zeros, 0);
    // No turn: an unchanged copy. Turns without a row: refused.
    Block same(RotateExpand(page.get(), 0.0, 0, 0, 0));
    ASSERT_TRUE(same);
    EXPECT_TRUE(qtest::SamePixels(page.get(), same.get()));
    EXPECT_EQ(RotateExpand(page.get(), -270, 0, 0, 0), nullptr);
    EXPECT_EQ(RotateExpand(page.get(), -180, 0, 0, 0), nullptr);
    EXPECT_EQ(RotateExpand(page.get(), 45, 0, 0, 0), nullptr);
    EXPECT_EQ(RotateExpand(page.get(), NAN, 0, 0, 0), nullptr);
}

// ---- Crop ------------------------------------------------------------------------------

// A 100 x 100 white 8-bit page with a dark block at page rows 30..59 (from
// the top) and columns 20..69.
Block PrintedPage() {
    return MakePageWith(Shape(100, 100, 8), [](int x, int y, int) {
        const int row = 99 - y;
        return x >= 20 && x < 70 && row >= 30 && row < 60 ? 0 : 255;
    });
}

TEST(Crop, Mode0CutsTheRegionWithABorder) {
    Block page = Numbered(100, 100, 8);
    RECT r{10, 20, 60, 50};
    Block out(Crop(page.get(), &r, 0, 5));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.header().biWidth, 60);
    EXPECT_EQ(out.header().biHeight, 40);
    EXPECT_EQ(r.left, 10);
    EXPECT_EQ(r.top, 50);
    EXPECT_EQ(r.right, 60);
    EXPECT_EQ(r.bottom, 80);
    PageView in(page.get()), res(out.get());
    EXPECT_EQ(res.get(5, 5), in.get(10, 50));
    EXPECT_EQ(res.get(54, 34), in.get(59, 79));
    EXPECT_EQ(res.get(0, 0), 255);
    EXPECT_EQ(res.get(59, 39), 255);
}

TEST(Crop, ContentSearchFindsThePrint) {
    Block page = PrintedPage();
    // Print in storage rows 40..69 and columns 20..69: the search stops at
    // the fifth dark line and backs off six.
    RECT r{0, 0, 0, 0};
    Block out(Crop(page.get(), &r, 2, 0));
    ASSERT_TRUE(out);
    EXPECT_EQ(r.left, 20 + 4 - 6);
    EXPECT_EQ(r.top, 40 + 4 - 6);
    EXPECT_EQ(r.right, 69 - 4 + 6);
    EXPECT_EQ(r.bottom, 69 - 4 + 6);
    EXPECT_EQ(out.header().biWidth, r.right - r.left);
    // Mode 7 behaves as mode 1: the search inside the caller's region.
    RECT inside{0, 0, 100, 100};
    Block seven(Crop(page.get(), &inside, 7, 2));
    ASSERT_TRUE(seven);
    EXPECT_EQ(inside.left, 18);
    EXPECT_EQ(seven.header().biWidth, inside.right - inside.left + 4);
}

TEST(Crop, BlankAndTinyContentFallBackToTheRegion) {
    Block white = MakePageWith(Shape(80, 50, 8), [](int, int, int) { return 255; });
    RECT r{};
    Block out(Crop(white.get(), &r, 2, 0));
    ASSERT_TRUE(out);
    EXPECT_EQ(r.right, 79);
    EXPECT_EQ(r.bottom, 49);
    // One short line of print gives a box lower than 15 rows: the whole page.
    Block line = MakePageWith(Shape(80, 50, 8), [](int x, int y, int) { return y >= 20 && y < 26 && x > 10 && x < 70 ? 0 : 255; });
    RECT q{};
    Block whole(Crop(line.get(), &q, 2, 0));
    ASSERT_TRUE(whole);
    EXPECT_EQ(q.right - q.left, 80);
    EXPECT_EQ(q.bottom - q.top, 50);
}

TEST(Crop, Mode3BorderWidthsPerSide) {
    Block page = PrintedPage();
    RECT r{1, 2, 3, 4};  // left, bottom (first stored rows), right, top
    Block out(Crop(page.get(), &r, 3, 99));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.header().biWidth, (r.right - r.left) + 1 + 3);
    EXPECT_EQ(out.header().biHeight, (r.bottom - r.top) + 2 + 4);
    EXPECT_EQ(PageView(out.get()).get(0, 0), 255);
}

TEST(Crop, Modes4And5FitTheTarget) {
    Block page = Numbered(100, 60, 8);
    // Larger target: the page less its outermost column and row per side,
    // centred.
    RECT big{0, 0, 120, 80};
    Block out(Crop(page.get(), &big, 5, 0));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.header().biWidth, 120);
    EXPECT_EQ(out.header().biHeight, 80);
    EXPECT_EQ(big.left, 1);
    EXPECT_EQ(big.right, 99);
    EXPECT_EQ(big.top, 1);
    EXPECT_EQ(big.bottom, 59);
    EXPECT_EQ(PageView(out.get()).get(120 / 2 - 98 / 2, 80 / 2 - 58 / 2), PageView(page.get()).get(1, 1));
    // Smaller target, given with a negative width: the middle of the page.
    RECT small{40, 0, 0, 20};
    Block mid(Crop(page.get(), &small, 5, 0));
    ASSERT_TRUE(mid);
    EXPECT_EQ(mid.header().biWidth, 40);
    EXPECT_EQ(small.left, 30);
    EXPECT_EQ(small.right, 70);
    EXPECT_EQ(small.top, 20);
    EXPECT_EQ(small.bottom, 40);
    // Mode 4 fits the content box.
    Block printed = PrintedPage();
    RECT target{0, 0, 70, 70};
    Block fitted(Crop(printed.get(), &target, 4, 0));
    ASSERT_TRUE(fitted);
    EXPECT_EQ(fitted.header().biWidth, 70);
}

TEST(Crop, OutOfRangeArgumentsAreClippedOrRefused) {
    Block page = Numbered(50, 40, 24);
    RECT partly{-10, -10, 20, 15};  // clipped to columns 0..19, rows 0..14 from the top
    Block out(Crop(page.get(), &partly, 0, 0));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.header().biWidth, 20);
    EXPECT_EQ(out.header().biHeight, 15);
    RECT outside{60, 0, 80, 10};
    EXPECT_EQ(Crop(page.get(), &outside, 0, 0), nullptr);
    RECT r{0, 0, 10, 10};
    EXPECT_EQ(Crop(page.get(), &r, 0, -1), nullptr);
    RECT negative{-1, 0, 0, 0};
    EXPECT_EQ(Crop(page.get(), &negative, 3, 0), nullptr);
    RECT empty{5, 5, 5, 9};
    EXPECT_EQ(Crop(page.get(), &empty, 5, 0), nullptr);
    EXPECT_EQ(Crop(page.get(), nullptr, 2, 0), nullptr);
}

TEST(Crop, OneBitPagesKeepTheirBits) {
    Block page = Numbered(70, 30, 1);
    RECT r{3, 4, 40, 25};
    Block out(Crop(page.get(), &r, 0, 2));
    ASSERT_TRUE(out);
    PageView in(page.get()), res(out.get());
    for (int y = r.top; y < r.bottom; ++y)
        for (int x = r.left; x < r.right; ++x) ASSERT_EQ(res.get(x - r.left + 2, y - r.top + 2), in.get(x, y));
}

TEST(Geometry, DeskewARealScan) {
    // Measure the skew of a real scan and turn it back: the result measures
    // close to 0.
    Block scan = qtest::LoadScan("deskew-2.png");
    const double angle = GetObliquity(scan.get());
    ASSERT_GT(std::fabs(angle), 1.0);
    const BITMAPINFOHEADER h = scan.header();
    // Rows are stored bottom-up, so the page turns back by the opposite angle.
    Block straight(RotateEx(scan.get(), -angle, h.biWidth / 2, h.biHeight / 2, 1));
    ASSERT_TRUE(straight);
    EXPECT_NEAR(GetObliquity(straight.get()), 0.0, 0.2);
}

}  // namespace
