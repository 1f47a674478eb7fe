// Border and hole removal through the C API on drawn pages: white sheets on
// black frames (upright, skewed, quarter-turned), frames touching one edge,
// all-frame pages, winding dark paths, and punched pages with solid discs
// and margins at their ends.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <functional>

#include "support/pages.h"

using namespace qtest;

namespace {

// A page of `bits` whose pixel (x, y in storage rows) is white where
// `sheet` holds and black elsewhere.
Block Sheet(int w, int h, int bits, std::function<bool(double, double)> sheet) {
    return MakePageWith(Shape(w, h, bits), [&](int x, int y, int) {
        const bool white = sheet(x + 0.5, y + 0.5);
        return bits == 1 ? (white ? 1 : 0) : (white ? 255 : 0);
    });
}

// A sheet rectangle of sw x sh centred at (cx, cy), turned by `degrees`
// (counter-clockwise in column / stored-row coordinates).
std::function<bool(double, double)> Turned(double cx, double cy, double sw, double sh, double degrees) {
    const double a = degrees * M_PI / 180, c = std::cos(a), s = std::sin(a);
    return [=](double x, double y) {
        const double dx = x - cx, dy = y - cy;
        const double u = dx * c + dy * s, v = -dx * s + dy * c;
        return std::fabs(u) <= sw / 2 && std::fabs(v) <= sh / 2;
    };
}

int Dark(HGLOBAL h) { return qtest::DarkCount(h); }

TEST(RemoveBorder, FramelessPagesLoseTheirMargins) {
    // Below 510 pixels no margin: 3 in from each side, the far sides 4.
    const int cases[][5] = {{600, 800, 8, 600 - 47, 800 - 37}, {800, 600, 24, 800 - 37, 600 - 47}, {300, 400, 8, 300 - 7, 400 - 7}};
    for (const auto &c : cases) {
        Block page = Sheet(c[0], c[1], c[2], [](double, double) { return true; });
        EXPECT_EQ(Block(RemoveBorder(page.get(), 128, 7, 9)).size(), (std::pair{c[3], c[4]})) << c[0];
    }
}

// A 700 x 900 page: a sheet of levels 150..249 (a pattern that places every
// pixel) in columns 100..599 and stored rows 150..749, on a frame of `frame`.
Block FramedSheet(int bits, int frame = 0) {
    return MakePageWith(Shape(700, 900, bits), [=](int x, int y, int c) {
        const bool sheet = x >= 100 && x < 600 && y >= 150 && y < 750;
        if (bits == 1) return sheet ? (x * 3 + y * 7) % 5 != 0 : 0;
        return sheet ? 150 + (x * 3 + y * 7 + c * 11) % 100 : frame;
    });
}

// `out` at (x, y) equals `in` at (x + dx, y + dy) wherever both exist.
void ExpectShifted(HGLOBAL in, HGLOBAL out, int dx, int dy, const std::string &what) {
    ExpectMoved(in, out, [=](int x, int y) { return std::pair{x - dx, y - dy}; }, what);
}

TEST(RemoveBorder, CutsTheSheetPixelForPixel) {
    // Edges at the fourth line of each run (103, 153, 596, 746), then moved in
    // by 20 across and 15 along a portrait page. A frame at the threshold
    // is not bright: only levels above it count.
    for (int bits : {1, 8, 32}) {
        Block page = FramedSheet(bits, 128);
        Block out(RemoveBorder(page.get(), 128, 0, 0));
        ASSERT_EQ(out.size(), (std::pair{(596 - 20) - (103 + 20), (746 - 15) - (153 + 15)})) << bits;
        ExpectShifted(page.get(), out.get(), 123, 168, "RemoveBorder " + std::to_string(bits));
    }
}

TEST(RemoveBorder, EachSideMovesInByItsOwnRule) {
    // Vertical stripes one column wide: every row qualifies, no four
    // columns in a row do. The left scan ends on the dark last column, the
    // right scan on the bright first one, so only the right edge moves in.
    Block stripes = MakePageWith(Shape(600, 800, 8), [](int x, int, int) { return x % 2 == 0 ? 255 : 0; });
    Block out(RemoveBorder(stripes.get(), 128, 0, 0));
    ASSERT_EQ(out.size(), (std::pair{599 - 20, (796 - 15) - (3 + 15)}));
    EXPECT_EQ(PageView(out.get()).get(0, 0), 255);
}

TEST(RemoveBorder, AllFrameAndTinyPages) {
    Block black = Sheet(100, 80, 8, [](double, double) { return false; });
    EXPECT_EQ(Block(RemoveBorder(black.get(), 128, 0, 0)).size(), (std::pair{99, 79}));
    Block white = Sheet(100, 80, 8, [](double, double) { return true; });
    EXPECT_EQ(Block(RemoveBorder(white.get(), 255, 0, 0)).size(), (std::pair{99, 79}));  // nothing is brighter than 255
    Block tiny = Sheet(20, 15, 8, [](double, double) { return true; });
    EXPECT_EQ(Block(RemoveBorder(tiny.get(), 128, 0, 0)).size(), (std::pair{20, 15}));
    EXPECT_EQ(RemoveBorder(MakePage(Shape(8, 8, 4)).get(), 128, 0, 0), nullptr);
}

TEST(RemoveBorder1, UprightSheetsAreCutAndTurned) {
    // No skew: the plain cut, then the page turned. The mirrored offsets
    // count from the page's far edge, so a turned cut lies one pixel further
    // along the axes that turned over than the upright cut turned by
    // RotateExpand.
    Block page = FramedSheet(8);
    Block plain(RemoveBorder(page.get(), 128, 0, 0)), upright(RemoveBorder1(page.get(), 128, 0, 3, 4));
    ASSERT_TRUE(upright);
    EXPECT_EQ(upright.bytes(), plain.bytes());
    const struct {
        int angle, turn, dx, dy;
    } turns[] = {{90, 90, 0, -1}, {-270, 90, 0, -1}, {180, 180, -1, -1}, {270, 270, -1, 0}, {-90, 270, -1, 0}};
    for (const auto &t : turns) {
        Block turned(RemoveBorder1(page.get(), 128, t.angle, 0, 0));
        Block expected(RotateExpand(upright.get(), t.turn, 0, 0, 0));
        ASSERT_TRUE(turned);
        EXPECT_EQ(turned.size(), expected.size()) << t.angle;
        ExpectShifted(expected.get(), turned.get(), t.dx, t.dy, "turn " + std::to_string(t.angle));
    }
}

TEST(RemoveBorder1, StraightensSkewedSheets) {
    // A 600 x 800 sheet turned with a 500 x 3 rule across its middle: cut
    // out upright, less the finder's margins, with the rule level (four rows
    // with the interpolated edges) and centred, or turned upright by 90.
    for (auto [degrees, angle] : {std::pair{2.0, 0}, {-3.0, 0}, {-3.0, 90}, {5.0, 90}}) {
        const auto sheet = Turned(450, 550, 600, 800, degrees), rule = Turned(450, 550, 500, 3, degrees);
        Block page = Sheet(900, 1100, 8, [&](double x, double y) { return sheet(x, y) && !rule(x, y); });
        Block out(RemoveBorder1(page.get(), 128, angle, 0, 0));
        ASSERT_TRUE(out);
        PageView v(out.get());
        const int w = angle ? v.height() : v.width(), h = angle ? v.width() : v.height();
        EXPECT_NEAR(w, 600 - 47, 1) << degrees;
        EXPECT_NEAR(h, 800 - 37, 1) << degrees;
        int top = h, bottom = -1, left = w, right = -1;
        for (int y = 0; y < v.height(); ++y)
            for (int x = 0; x < v.width(); ++x) {
                if (v.get(x, y) >= 128) continue;
                const int across = angle ? y : x, along = angle ? x : y;
                top = std::min(top, along), bottom = std::max(bottom, along);
                left = std::min(left, across), right = std::max(right, across);
            }
        SCOPED_TRACE(std::to_string(degrees) + " turned " + std::to_string(angle));
        EXPECT_EQ(bottom - top, 3);
        EXPECT_NEAR((top + bottom) / 2.0, h / 2.0, 1.0);
        EXPECT_NEAR(left, (w - 500) / 2, 1);
        EXPECT_NEAR(right, left + 499, 1);
    }
}

TEST(RemoveBorderGpy, RefusesPagesWithoutASheet) {
    EXPECT_EQ(RemoveBorder_GPY(Sheet(300, 300, 8, [](double, double) { return false; }).get(), 128), nullptr);
    EXPECT_EQ(RemoveBorder_GPY(Sheet(300, 300, 8, Turned(150, 150, 40, 200, 0)).get(), 128), nullptr);
    // A sheet running off the page: outside the turned source the fill is
    // the frame's colour, black, which is index 255 under a light-first table.
    for (auto [bits, p] : {std::pair{8, Palette::kDarkFirst}, {8, Palette::kLightFirst}, {24, Palette::kNone}}) {
        Block page = MakePageWith(Shape(500, 500, bits, p), [](int x, int y, int) {
            return Turned(250, 250, 700, 200, 10)(x + 0.5, y + 0.5) ? 200 : 0;
        });
        Block out(RemoveBorder_GPY(page.get(), 128));
        ASSERT_TRUE(out);
        EXPECT_EQ(PageView(out.get()).get(0, 0), p == Palette::kLightFirst ? 255 : 0) << bits;
    }
}

TEST(RemoveBorderGpy, TheFirstOfEqualSheetsWins) {
    // Two equal sheets. OpenCV lists the contour it traced last first, so the
    // upper sheet in stored rows (the later one in its row-by-row scan) is
    // the first of the list and wins; it carries a dark mark.
    Block page = MakePageWith(Shape(400, 600, 8), [](int x, int y, int) {
        const bool lower = x >= 100 && x < 300 && y >= 50 && y < 250;
        const bool upper = x >= 100 && x < 300 && y >= 350 && y < 550;
        if (upper && x >= 190 && x < 210 && y >= 440 && y < 460) return 100;
        return lower || upper ? 255 : 0;
    });
    Block out(RemoveBorder_GPY(page.get(), 128));
    ASSERT_TRUE(out);
    int marked = 0;
    PageView v(out.get());
    for (int y = 0; y < v.height(); ++y)
        for (int x = 0; x < v.width(); ++x) marked += v.get(x, y) == 100;
    EXPECT_GT(marked, 300);
}

TEST(RemoveBorderFill, WhitensTheFrameAndKeepsTheText) {
    Block page = MakePageWith(Shape(200, 150, 8), [](int x, int y, int) {
        const bool frame = x < 20 || y < 15 || x >= 180 || y >= 130;
        const bool letter = x >= 90 && x < 95 && y >= 60 && y < 80;
        const bool line = y == 100 && x < 120;  // runs from the left frame into the page
        const bool back = y == 110 && x > 60;   // from the right frame: reached by the backward pass
        return frame || letter || line || back ? 0 : 240;
    });
    Block out(RemoveBorder_Fill(page.get(), 128));
    ASSERT_TRUE(out);
    PageView v(out.get());  // the frame and the lines joined to it go, the letter stays
    EXPECT_EQ((std::vector<int>{v.get(5, 5), v.get(199, 149), v.get(92, 70), v.get(119, 100), v.get(61, 110), v.get(50, 50)}),
              (std::vector<int>{255, 255, 0, 255, 255, 240}));
    // Threshold 0: nothing is dark; above 255 everything is.
    EXPECT_EQ(Block(RemoveBorder_Fill(page.get(), 0)).bytes(), page.bytes());
    EXPECT_EQ(Dark(Block(RemoveBorder_Fill(page.get(), 256)).get()), 0);
}

TEST(RemoveBorderFill, WindingPathsAreReachedOnlyAsFarAsThePassesGo) {
    // A dark U open at the top: the forward pass climbs from the frame up the
    // left arm; the right arm is reached through the bottom of the U.
    Block page = MakePageWith(Shape(100, 100, 8), [](int x, int y, int) {
        const bool frame = x == 0 || y == 0 || x == 99 || y == 99;
        const bool stem = x == 10 && y < 50;
        const bool bottom = y == 49 && x >= 10 && x <= 40;
        const bool arm = x == 40 && y >= 20 && y <= 49;
        return frame || stem || bottom || arm ? 0 : 255;
    });
    Block out(RemoveBorder_Fill(page.get(), 128));
    PageView v(out.get());  // the backward pass walks down the arm
    EXPECT_EQ((std::vector<int>{v.get(10, 30), v.get(30, 49), v.get(40, 20)}), std::vector<int>(3, 255));
}

// A white page with solid black discs of the given radius at the centres.
Block Punched(int w, int h, int bits, std::vector<std::pair<int, int>> centres, int radius) {
    return MakePageWith(Shape(w, h, bits), [&](int x, int y, int) {
        const int row = h - 1 - y;  // centres in display coordinates
        for (auto [cx, cy] : centres)
            if ((x - cx) * (x - cx) + (row - cy) * (row - cy) <= radius * radius) return 0;
        return bits == 1 ? 1 : 255;
    });
}

TEST(RemoveHole, EachFlagSearchesItsOwnBand) {
    // One disc in each band (display rows from the top) and one in the middle.
    const std::vector<std::pair<int, int>> discs = {{50, 300}, {300, 50}, {550, 300}, {300, 550}, {300, 300}};
    Block page = Punched(600, 600, 8, discs, 20);
    const int disc = qtest::DarkCount(Punched(600, 600, 8, {{300, 300}}, 20).get());
    struct Case {
        BOOL left, top, right, bottom;
        int painted;  // the disc index painted, or -1 for all four bands
    } cases[] = {{TRUE, FALSE, FALSE, FALSE, 0}, {FALSE, TRUE, FALSE, FALSE, 1}, {FALSE, FALSE, TRUE, FALSE, 2},
                 {FALSE, FALSE, FALSE, TRUE, 3}, {TRUE, TRUE, TRUE, TRUE, -1}};
    for (const Case &c : cases) {
        Block out(RemoveHole(page.get(), c.left, c.top, c.right, c.bottom, 100, 1, 5, 20, 60, 0.5));
        ASSERT_TRUE(out);
        PageView v(out.get());
        for (int i = 0; i < 5; ++i) {
            const bool gone = i < 4 && (c.painted == -1 || c.painted == i);
            EXPECT_EQ(v.get(discs[i].first, 599 - discs[i].second), gone ? 255 : 0) << c.painted << " disc " << i;
        }
        EXPECT_EQ(qtest::DarkCount(out.get()), disc * (c.painted == -1 ? 1 : 4)) << c.painted;
    }
    // No band at all: an unchanged copy.
    EXPECT_EQ(Block(RemoveHole(page.get(), FALSE, FALSE, FALSE, FALSE, 100, 0, 5, 20, 60, 0.5)).bytes(), page.bytes());
}

TEST(RemoveHole, SizeLimitsAreInclusive) {
    // A square blot of 30 x 30 in the left band.
    Block page = MakePageWith(Shape(400, 500, 8), [](int x, int y, int) { return x >= 20 && x < 50 && y >= 200 && y < 230 ? 0 : 255; });
    const int sizes[][3] = {{30, 30, 1}, {29, 30, 1}, {30, 31, 1}, {31, 40, 0}, {10, 29, 0}};
    for (const auto &z : sizes) {
        Block out(RemoveHole(page.get(), TRUE, FALSE, FALSE, FALSE, 80, 1, 3, z[0], z[1], 0.5));
        EXPECT_EQ(qtest::DarkCount(out.get()), z[2] ? 0 : 900) << z[0] << ".." << z[1];
    }
}

TEST(RemoveHole, CountRules) {
    Block page = Punched(800, 1000, 8, {{50, 200}, {50, 500}, {50, 800}, {750, 500}}, 20);
    // At most two holes: two of the four are painted.
    Block two(RemoveHole(page.get(), TRUE, FALSE, TRUE, FALSE, 100, 1, 2, 20, 60, 0.5));
    EXPECT_EQ(Dark(two.get()), Dark(page.get()) / 2);
    // More holes wanted than there are candidates: nothing painted.
    EXPECT_EQ(Block(RemoveHole(page.get(), TRUE, FALSE, TRUE, FALSE, 100, 5, 9, 20, 60, 0.5)).bytes(), page.bytes());
    // Solid squares have density 1: only candidates above the density count,
    // so at 1.0 just the fewest holes (one) are painted.
    Block squares = MakePageWith(Shape(400, 500, 8), [](int x, int y, int) {
        return x >= 20 && x < 50 && (y % 150) >= 50 && (y % 150) < 80 ? 0 : 255;
    });
    EXPECT_EQ(Dark(Block(RemoveHole(squares.get(), TRUE, FALSE, FALSE, FALSE, 80, 1, 5, 20, 40, 1.0)).get()), 2 * 900);
    // A density above every candidate: the fewest holes are painted anyway.
    Block least(RemoveHole(page.get(), TRUE, FALSE, TRUE, FALSE, 100, 3, 9, 20, 60, 0.9));
    EXPECT_EQ(Dark(least.get()), Dark(page.get()) / 4);
    // Discs outside the size limits are no holes.
    EXPECT_EQ(Block(RemoveHole(page.get(), TRUE, FALSE, TRUE, FALSE, 100, 1, 9, 50, 60, 0.5)).bytes(), page.bytes());
    // A margin above a third of the smaller side is lowered to it.
    EXPECT_EQ(Dark(Block(RemoveHole(page.get(), TRUE, FALSE, TRUE, FALSE, 5000, 1, 9, 20, 60, 0.5)).get()), 0);
}

TEST(RemoveHole, BlotsTouchingTheInnerBlockStay) {
    Block page = Punched(800, 1000, 8, {{95, 500}}, 20);  // reaches past the 100-pixel band
    Block out(RemoveHole(page.get(), TRUE, FALSE, FALSE, FALSE, 100, 1, 5, 20, 60, 0.5));
    EXPECT_EQ(out.bytes(), page.bytes());
}

TEST(RemoveHole, BitonalFillFollowsThePalette) {
    Block dark = Punched(400, 500, 1, {{40, 250}}, 15);
    EXPECT_EQ(PageView(Block(RemoveHole(dark.get(), TRUE, FALSE, FALSE, FALSE, 80, 1, 3, 10, 40, 0.5)).get()).get(40, 249), 1);
    // Entry 0 white: the holes are painted with 0 bits.
    Block light = MakePageWith(Shape(400, 500, 1, Palette::kLightFirst), [](int x, int y, int) {
        return (x - 40) * (x - 40) + (y - 249) * (y - 249) <= 225 ? 1 : 0;
    });
    EXPECT_EQ(PageView(Block(RemoveHole(light.get(), TRUE, FALSE, FALSE, FALSE, 80, 1, 3, 10, 40, 0.5)).get()).get(40, 249), 0);
}

// The margin at its ends: 0 makes the inner rectangle the whole page (the
// same as no edge flagged), so a black page is one blot; a negative margin
// searches nothing.
TEST(RemoveHole, MarginAtItsEnds) {
    for (int bits : {1, 8, 24}) {
        Block black = MakePageWith(Shape(30, 20, bits), [](int, int, int) { return 0; });
        for (BOOL flag : {FALSE, TRUE})
            EXPECT_TRUE(SamePixels(Block(RemoveHole(black.get(), flag, flag, flag, flag, 0, 1, 1, 1, 1000, 0.5)).get(),
                                   Block(Invert(black.get())).get())) << bits << " flags " << flag;
        for (int margin : {-1, INT_MIN})
            EXPECT_EQ(Block(RemoveHole(black.get(), TRUE, TRUE, TRUE, TRUE, margin, 1, 1, 1, 1000, 0.5)).bytes(), black.bytes());
    }
}

}  // namespace
