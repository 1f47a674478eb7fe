// Geometry through the C API: where every pixel lands under a turn, canvas
// sizes and the centre's place on them, fill values by palette and depth, the
// quarter-turn table (1-bit turns checked against each other), every Crop
// mode with its written-back rectangle at the boundaries of its content
// search, and the canvases that arguments may ask for.
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstring>
#include <random>

#include "support/pages.h"

using namespace qtest;

namespace {

// A page whose pixels identify their position (bits: a sparse pattern).
Block Numbered(int w, int h, int bits) {
    return MakePageWith(Shape(w, h, bits), [bits](int x, int y, int c) {
        if (bits == 1) return (x * 7 + y * 3) % 5 == 0 ? 1 : 0;
        return (x * 31 + y * 17 + c * 5) % 251;
    });
}

int Channels(int bits) { return bits >= 24 ? bits / 8 : 1; }

using Box = std::array<LONG, 4>;
Box Edges(const RECT &r) { return {r.left, r.top, r.right, r.bottom}; }

class Depths : public ::testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(Geometry, Depths, ::testing::Values(1, 8, 24, 32),
                         [](const auto &info) { return std::to_string(info.param) + "bit"; });

TEST_P(Depths, TurnsMoveEveryPixel) {
    const int bits = GetParam(), fill = bits == 1 ? 1 : 255;
    Block page = Numbered(24, 16, bits);
    // Nearest neighbour about (10, 6): (x, y) lands on (y + 10 - 6, 6 + 10 - x)
    // turning by 90, on the same canvas.
    Block out(Rotate(page.get(), 90.0, 10, 6, 0));
    ASSERT_TRUE(out);
    ExpectMoved(page.get(), out.get(), [](int x, int y) { return std::pair{y + 4, 16 - x}; }, "Rotate 90");
    EXPECT_EQ(PageView(out.get()).get(0, 15), fill);
    Block same(Rotate(page.get(), 0.0, 5, 9, 1));
    EXPECT_TRUE(qtest::SamePixels(page.get(), same.get()));
    // RotateEx at 0 frames the page with one pixel left and below, two right
    // and above.
    Block framed(RotateEx(page.get(), 0.0, 3, 3, 0));
    ASSERT_EQ(framed.size(), (std::pair{27, 19}));
    ExpectMoved(page.get(), framed.get(), [](int x, int y) { return std::pair{x + 1, y + 1}; }, "RotateEx 0");
    for (auto [x, y] : {std::pair{0, 0}, {25, 17}, {26, 18}}) EXPECT_EQ(PageView(framed.get()).get(x, y), fill);
    // RotateExpand's table: exact quarter turns at every depth.
    const int w = 24, h = 16;
    for (double a : {90.0, 450.0, 180.0, 270.0, -90.0}) {
        Block turned(RotateExpand(page.get(), a, 3, 4, 2));
        const int q = (static_cast<int>(a) + 360) % 360 / 90;
        ASSERT_EQ(turned.size(), (q == 2 ? std::pair{w, h} : std::pair{h, w})) << a;
        ExpectMoved(page.get(), turned.get(), [&](int x, int y) {
            return q == 1 ? std::pair{y, w - 1 - x} : q == 2 ? std::pair{w - 1 - x, h - 1 - y} : std::pair{h - 1 - y, x};
        }, "RotateExpand");
    }
    // A hair past a quarter turn takes the interpolating path with the
    // table's shifts: nearest neighbour gives the exact turn's pixels.
    for (double a : {90.0, 180.0, 270.0, -90.0}) {
        Block exact(RotateExpand(page.get(), a, 0, 0, 0)), past(RotateExpand(page.get(), a + (a > 0 ? 1e-3 : -1e-3), 0, 0, 0));
        EXPECT_TRUE(qtest::SamePixels(exact.get(), past.get())) << a;
    }
}

TEST(RotateEx, CanvasSizesAndTheCentresPlace) {
    Block page = MakePageWith(Shape(100, 60, 8), [](int x, int y, int) { return x == 40 && y == 25 ? 7 : 200; });
    struct Case {
        double angle;
        int w, h, cx, cy;  // canvas, and where the centre (40, 25) lands
    } cases[] = {{90.0, 103, 103, 41, 46}, {30.0, 119, 104, 49, 47}, {-30.0, 119, 104, 49, 47}};
    for (const Case &k : cases) {
        Block out(RotateEx(page.get(), k.angle, 40, 25, 0));
        ASSERT_EQ(out.size(), (std::pair{k.w, k.h})) << k.angle;
        EXPECT_EQ(PageView(out.get()).get(k.cx, k.cy), 7) << k.angle;
    }
    Block far(RotateEx(page.get(), 10.0, 1000, -500, 1));  // the canvas still holds the corners
    ASSERT_TRUE(far);
    EXPECT_GE(far.header().biWidth, 103);
    EXPECT_GE(far.header().biHeight, 63);
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

TEST(RotateExpand, FractionalUnknownAndRefusedTurns) {
    Block page = MakePageWith(Shape(100, 60, 8), [](int, int, int) { return 200; });
    // 90.6 uses the 90-degree row but turns a little further: pixels leave
    // the frame and the uncovered ones are 0.
    Block out(RotateExpand(page.get(), 90.6, 0, 0, 0));
    ASSERT_EQ(out.size(), (std::pair{60, 100}));
    EXPECT_GT(qtest::DarkCount(out.get()), 0);
    EXPECT_TRUE(qtest::SamePixels(page.get(), Block(RotateExpand(page.get(), 0.0, 0, 0, 0)).get()));
    for (double a : {-270.0, -180.0, 45.0, double(NAN)}) EXPECT_EQ(RotateExpand(page.get(), a, 0, 0, 0), nullptr) << a;
    Block four = MakePage(Shape(8, 8, 4));
    RECT r{0, 0, 4, 4};
    EXPECT_EQ(Rotate(four.get(), 3, 0, 0, 1), nullptr);
    EXPECT_EQ(Crop(four.get(), &r, 0, 0), nullptr);
}

// A white 8-bit page with dark print in columns [x0, x1) and page rows
// [top, bottom) counted from the top.
Block Printed(int w, int h, int x0, int x1, int top, int bottom) {
    return MakePageWith(Shape(w, h, 8), [=](int x, int y, int) {
        const int row = h - 1 - y;
        return x >= x0 && x < x1 && row >= top && row < bottom ? 0 : 255;
    });
}

TEST(Crop, Mode0CutsTheRegionWithABorder) {
    for (int bits : {1, 8, 24}) {
        Block page = Numbered(100, 90, bits);
        RECT r{10, 20, 61, 50};
        Block out(Crop(page.get(), &r, 0, 5));
        ASSERT_EQ(out.size(), (std::pair{61, 40}));
        // Written back in stored rows: rows 40..69 from the bottom.
        EXPECT_EQ(Edges(r), (Box{10, 40, 61, 70}));
        ExpectMoved(page.get(), out.get(), [](int x, int y) {
            return x >= 10 && x < 61 && y >= 40 && y < 70 ? std::pair{x - 5, y - 35} : std::pair{-1, -1};
        }, "mode 0");
        EXPECT_EQ(PageView(out.get()).get(60, 39), bits == 1 ? 1 : 255);
    }
}

TEST(Crop, ContentSearchStopsAtTheFifthDarkLineAndBacksOffSix) {
    // Print in stored rows 40..69, columns 20..69: edges 4 lines in, 6 out.
    Block page = Printed(100, 100, 20, 70, 30, 60);
    RECT r{0, 0, 0, 0};
    Block out(Crop(page.get(), &r, 2, 0));
    EXPECT_EQ(Edges(r), (Box{18, 38, 71, 71}));
    EXPECT_EQ(out.size(), (std::pair{53, 33}));
    // Lines count as dark with two dark pixels; a plus of bars two wide.
    Block plus = MakePageWith(Shape(100, 100, 8), [](int x, int y, int) {
        return (x >= 40 && x < 42 && y >= 20 && y < 80) || (y >= 50 && y < 52 && x >= 10 && x < 90) ? 0 : 255;
    });
    RECT p{0, 0, 0, 0};
    ASSERT_TRUE(Block(Crop(plus.get(), &p, 2, 0)));
    EXPECT_EQ(Edges(p), (Box{8, 18, 91, 81}));
    // Mode 1 (and unknown modes) search inside the caller's region: rows 2..
    // 91 from the top are stored rows 8..97; the print is cut at column 30,
    // within six columns of the region's edge.
    RECT inside{30, 2, 90, 92};
    Block seven(Crop(page.get(), &inside, 7, 2));
    EXPECT_EQ(Edges(inside), (Box{30, 38, 71, 71}));
    EXPECT_EQ(seven.header().biWidth, 41 + 4);
}

TEST(Crop, BoxesUnder15PixelsFallBackToTheRegion) {
    // Print of n rows gives a box of n + 3: 12 rows are kept, 11 are not.
    for (int rows : {11, 12}) {
        Block page = Printed(80, 50, 10, 70, 20, 20 + rows);
        RECT r{};
        ASSERT_TRUE(Block(Crop(page.get(), &r, 2, 0)));
        EXPECT_EQ((std::pair{r.right - r.left, r.bottom - r.top}), (rows == 12 ? std::pair{63, 15} : std::pair{80, 50}));
    }
    Block white = MakePageWith(Shape(80, 50, 8), [](int, int, int) { return 255; });
    RECT r{};
    ASSERT_TRUE(Block(Crop(white.get(), &r, 2, 0)));
    EXPECT_EQ((std::pair{r.right, r.bottom}), (std::pair{79, 49}));
}

TEST(Crop, Mode3BordersPerSideAndModes4And5FitTheTarget) {
    Block printed = Printed(100, 100, 20, 70, 30, 60);
    RECT sides{1, 2, 3, 4};  // left, bottom (first stored rows), right, top
    Block out(Crop(printed.get(), &sides, 3, 99));
    ASSERT_EQ(out.size(), (std::pair{53 + 1 + 3, 33 + 2 + 4}));
    EXPECT_EQ(PageView(out.get()).get(1 + 2, 2 + 2), 0);  // print starts 2 inside the box
    EXPECT_EQ(PageView(out.get()).get(1 + 1, 2 + 2), 255);
    Block page = Numbered(101, 61, 8);
    struct Case {
        RECT target;
        RECT box;      // written back
        int atX, atY;  // where the box's first pixel lands
    } cases[] = {
        {{0, 0, 120, 80}, {1, 1, 100, 60}, 11, 11},  // larger: the page less its outer lines, centred
        {{0, 0, 121, 81}, {1, 1, 100, 60}, 11, 11},
        {{40, 0, 0, 20}, {30, 20, 70, 40}, 0, 0},    // smaller, given with a negative width: the middle
        {{0, 0, 97, 57}, {2, 2, 99, 59}, 0, 0},
    };
    for (const Case &k : cases) {
        RECT r = k.target;
        Block fitted(Crop(page.get(), &r, 5, 0));
        ASSERT_EQ(fitted.size(), (std::pair<int, int>{std::abs(k.target.right - k.target.left), std::abs(k.target.bottom - k.target.top)}));
        EXPECT_EQ(Edges(r), (Box{k.box.left, k.box.top, k.box.right, k.box.bottom}));
        EXPECT_EQ(PageView(fitted.get()).get(k.atX, k.atY), PageView(page.get()).get(r.left, r.top)) << k.target.right;
    }
    RECT target{0, 0, 70, 70};
    Block fitted(Crop(printed.get(), &target, 4, 0));  // mode 4 fits the content box
    EXPECT_EQ(Edges(target), (Box{10, 20, 79, 89}));  // the box {18, 38, 71, 71} grown evenly to 70
    EXPECT_EQ(fitted.header().biWidth, 70);
}

TEST(Crop, OutOfRangeArgumentsAreClippedOrRefused) {
    Block page = Numbered(50, 40, 24);
    RECT partly{-10, -10, 20, 15};  // clipped to columns 0..19, rows 0..14 from the top
    EXPECT_EQ(Block(Crop(page.get(), &partly, 0, 0)).size(), (std::pair{20, 15}));
    RECT outside{60, 0, 80, 10}, r{0, 0, 10, 10}, negative{-1, 0, 0, 0}, empty{5, 5, 5, 9};
    EXPECT_EQ(Crop(page.get(), &outside, 0, 0), nullptr);
    EXPECT_EQ(Crop(page.get(), &r, 0, -1), nullptr);
    EXPECT_EQ(Crop(page.get(), &negative, 3, 0), nullptr);
    EXPECT_EQ(Crop(page.get(), &empty, 5, 0), nullptr);
    EXPECT_EQ(Crop(page.get(), nullptr, 2, 0), nullptr);
}

// Canvases sized by arguments are limited by the page: centres of RotateEx
// and RotateEx1 up to a page's width and height off the page turn as always,
// a centre a billion rows away is refused; Crop's canvas may have 64 times
// the page's pixels or 4096 x 4096, no more.
TEST(CanvasLimits, FarCentresAreRefusedNearOnesTurn) {
    Block one = qtest::MakePage(qtest::Shape(1, 1, 1));
    Block page = qtest::MakePage(qtest::Shape(40, 30, 8));
    for (auto rotate : {RotateEx, RotateEx1}) {
        EXPECT_EQ(rotate(one.get(), -0.044, 256, 2147483407, 1), nullptr);
        EXPECT_EQ(rotate(page.get(), 30.0, -2000000000, 15, 0), nullptr);
        for (auto [x, y] : {std::pair{-40, -30}, std::pair{80, 60}, std::pair{20, 15}})
            for (double angle : {45.0, -135.0, 90.0}) EXPECT_NE(Block(rotate(page.get(), angle, x, y, 0)).get(), nullptr);
    }
}

TEST(CanvasLimits, CropCanvasesBeyondTheLimitAreRefusedAndKeepTheRectangle) {
    Block page = qtest::MakePage(qtest::Shape(10, 10, 8));
    struct Case {
        RECT rect;
        int mode, border;
        bool made;
    } cases[] = {
        {{2043, 2043, 2043, 2043}, 3, 0, true},    // 4096 x 4096
        {{2044, 2043, 2043, 2043}, 3, 0, false},   // one column more
        {{0, 0, 4096, 4096}, 4, 0, true},
        {{0, 0, 5000, 4000}, 5, 0, false},
        {{0, 0, 10, 10}, 1, 1 << 29, false},
    };
    for (const Case &c : cases) {
        RECT r = c.rect;
        Block out(Crop(page.get(), &r, c.mode, c.border));
        EXPECT_EQ(static_cast<bool>(out), c.made) << c.mode << " " << c.rect.left;
        if (!c.made) {
            EXPECT_EQ(std::memcmp(&r, &c.rect, sizeof r), 0);
        }
    }
}

// 1-bit quarter turns move 8 x 8 blocks of bits; three turns by 90 degrees
// must equal one by 270 (and by -90) on random bits, for heights that are and
// are not multiples of 8, widths that leave padding, both palettes.
TEST(QuarterTurns, BitonalBlocksMatchThreeTurnsBy90) {
    std::mt19937 g(9);
    for (int w : {8, 37, 64}) {
        for (int h : {8, 40, 45}) {
            for (qtest::Palette p : {qtest::Palette::kDarkFirst, qtest::Palette::kLightFirst}) {
                SCOPED_TRACE(w * 1000 + h);
                Block page = qtest::MakePageWith(qtest::Shape(w, h, 1, p), [&](int, int, int) { return static_cast<int>(g() & 1); });
                Block once(RotateExpand(page.get(), 270.0, 0, 0, 0)), minus(RotateExpand(page.get(), -90.0, 0, 0, 0));
                Block a(RotateExpand(page.get(), 90.0, 0, 0, 0));
                Block b(RotateExpand(a.get(), 90.0, 0, 0, 0));
                Block thrice(RotateExpand(b.get(), 90.0, 0, 0, 0));
                ASSERT_TRUE(once && thrice && minus);
                EXPECT_EQ(once.bytes(), thrice.bytes());
                EXPECT_EQ(minus.bytes(), thrice.bytes());
                qtest::PageView in(page.get()), turned(a.get());
                EXPECT_EQ(turned.get(h - 1, w - 1), in.get(0, h - 1));  // top-left corner goes to the top right
            }
        }
    }
}

}  // namespace
