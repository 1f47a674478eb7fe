// The pixel operations through the C API (mirror, flip and invert are held
// by the golden hashes on every depth and padded width): contrast on every
// level, exact neighbourhoods and rectangles, arithmetic against a per-pixel
// model with rectangles placed differently on each page, and the values at
// every threshold's boundary.
#include <gtest/gtest.h>

#include <algorithm>
#include <vector>

#include "pixel/pixel.h"
#include "support/pages.h"

using namespace qtest;

namespace {

// A 256 x 1 gray page holding every level once.
Block Ramp() { return MakePageWith(Shape(256, 1, 8), [](int x, int, int) { return x; }); }

TEST(Contrast, ThroughTheApiOnEveryLevel) {
    Block ramp = Ramp();
    int t[256];
    ASSERT_TRUE(quarvel::pixel::ContrastTable(0, 13, false, t));
    EXPECT_EQ(RowValues(Block(AdjustContrast(ramp.get(), 13)).get()), std::vector<int>(t, t + 256));
    const std::vector<int> hard = RowValues(Block(AdjustContrast(ramp.get(), 100)).get());
    EXPECT_EQ(hard[126], 0);
    EXPECT_EQ(hard[127], 255);
    EXPECT_EQ(RowValues(Block(AdjustContrast(ramp.get(), -100)).get()), std::vector<int>(256, 127));
    // Brightness 0 with both is the plain table; otherwise brightness first,
    // then the table about the pivot.
    EXPECT_EQ(RowValues(Block(AdjustBrightnessAndContrast(ramp.get(), 0, 50)).get()),
              RowValues(Block(AdjustContrast(ramp.get(), 50)).get()));
    ASSERT_TRUE(quarvel::pixel::ContrastTable(-40, 30, true, t));
    const std::vector<int> both = RowValues(Block(AdjustBrightnessAndContrast(ramp.get(), -40, 30)).get());
    for (int v = 0; v < 256; ++v) ASSERT_EQ(both[v], t[std::max(0, v - 40)]) << v;
}

TEST(Tone, RefusesLevelsOutOfRange) {
    EXPECT_EQ(AdjustBrightnessAndContrast(MakePage(Shape(8, 8, 1)).get(), 10, 10), nullptr);
    Block ramp = Ramp();
    EXPECT_EQ(AdjustContrast(ramp.get(), 101), nullptr);
    EXPECT_EQ(AdjustContrast(ramp.get(), -101), nullptr);
    EXPECT_EQ(AdjustBrightnessAndContrast(ramp.get(), 516, 10), nullptr);  // the pivot leaves 0..255
    EXPECT_EQ(AdjustBrightnessAndContrast(ramp.get(), -512, 10), nullptr);
    EXPECT_TRUE(Block(AdjustBrightnessAndContrast(ramp.get(), 515, -100)));
    EXPECT_TRUE(Block(AdjustBrightnessAndContrast(ramp.get(), -511, 100)));
}

TEST(TextEffect, NeighbourhoodReachesRightAndUp) {
    // One dark pixel at column 5, storage row 5 of a white page; output (x, y)
    // is the minimum over columns x..x+n and stored rows y..y+n, so the dot
    // grows toward lower columns and stored rows.
    Block page = MakePageWith(Shape(12, 12, 8), [](int x, int y, int) { return x == 5 && y == 5 ? 0 : 255; });
    for (int level : {1, 2}) {
        Block thick(TextEffect(page.get(), level));
        ASSERT_TRUE(thick);
        PageView v(thick.get());
        for (int y = 0; y < 12; ++y)
            for (int x = 0; x < 12; ++x) {
                const bool dark = x >= 5 - level && x <= 5 && y >= 5 - level && y <= 5;
                ASSERT_EQ(v.get(x, y), dark ? 0 : 255) << level << " at " << x << "," << y;
            }
    }
    EXPECT_EQ(qtest::DarkCount(Block(TextEffect(page.get(), -1)).get()), 0);
    EXPECT_TRUE(qtest::SamePixels(Block(TextEffect(page.get(), 0)).get(), page.get()));
    EXPECT_EQ(TextEffect(MakePage(Shape(8, 8, 24)).get(), 1), nullptr);
}

TEST(TextEffect, BitonalPagesSpreadZeroBits) {
    // The minimum spreads 0 bits whatever the palette: ink grows into the
    // 3 x 3 cells left of and below it on a dark-first page and vanishes on a
    // light-first one.
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        const int ink = p == Palette::kDarkFirst ? 0 : 1;
        Block page = MakePageWith(Shape(37, 9, 1, p), [&](int x, int y, int) { return x == 20 && y == 4 ? ink : 1 - ink; });
        Block out(TextEffect(page.get(), 2));
        EXPECT_EQ(qtest::DarkCount(out.get()), ink == 0 ? 9 : 37 * 9);
        EXPECT_EQ(PageView(out.get()).get(18, 2), 0);
    }
}

// On 1 bit, levels 1 and -1 filter the rectangle's rows as one run of bytes
// and put the page back around it: the rectangle must equal the filtered crop (its
// last column and row with nothing beyond) and every other bit the page,
// for rectangles at every bit phase, one byte wide, one row high and
// reaching the page's right edge.
TEST(TextEffect, BitonalRectangleEqualsTheFilteredCrop) {
    const int w = 203, h = 41;
    Block page = MakePageWith(Shape(w, h, 1), [](int x, int y, int) { return (x * 7 + y * 13 + x * y) % 5 < 2; });
    RECT rects[] = {{3, 2, 150, 30}, {9, 0, 14, 41}, {0, 7, 203, 8}, {77, 11, 203, 40}, {130, 5, 138, 25}, {1, 1, 2, 2}};
    PageView in(page.get());
    for (RECT &r : rects)
        for (int level : {1, -1}) {
            const int rw = r.right - r.left, rh = r.bottom - r.top, y0 = h - r.bottom;  // storage rows y0 .. y0 + rh - 1
            Block crop = MakePageWith(Shape(rw, rh, 1), [&](int x, int y, int) { return in.get(r.left + x, y0 + y); });
            Block want(TextEffect(crop.get(), level)), got(TextEffectRect(page.get(), &r, level));
            PageView cut(want.get()), res(got.get());
            for (int y = 0; y < h; ++y)
                for (int x = 0; x < w; ++x) {
                    const bool inside = x >= r.left && x < r.right && y >= y0 && y < y0 + rh;
                    ASSERT_EQ(res.get(x, y), inside ? cut.get(x - r.left, y - y0) : in.get(x, y)) << r.left << " " << r.top << " " << level;
                }
        }
}

TEST(TextEffect, RectangleFiltersOnlyInside) {
    Block page = MakePageWith(Shape(40, 30, 8), [](int x, int y, int) { return (x * 7 + y * 13) % 256; });
    RECT full{0, 0, 40, 30};
    for (int level : {2, 1, -1})  // levels 1 and -1 filter the rectangle in the pass that copies around it
        EXPECT_EQ(Block(TextEffectRect(page.get(), &full, level)).bytes(), Block(TextEffect(page.get(), level)).bytes()) << level;
    RECT part{10, 5, 20, 15};  // storage rows 15..24
    Block out(TextEffectRect(page.get(), &part, -2));
    PageView in(page.get()), res(out.get());
    int changed = 0;
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) {
            const bool inside = x >= 10 && x < 20 && y >= 15 && y < 25;
            if (!inside) {
                ASSERT_EQ(res.get(x, y), in.get(x, y)) << x << "," << y;
            }
            changed += inside && res.get(x, y) != in.get(x, y);
        }
    EXPECT_GT(changed, 50);
    RECT outside{100, 100, 120, 120};
    EXPECT_TRUE(qtest::SamePixels(Block(TextEffectRect(page.get(), &outside, 3)).get(), page.get()));
    EXPECT_EQ(TextEffectRect(page.get(), nullptr, 1), nullptr);
}

TEST(Fill, RowsFromTheTopValuesByPaletteAndClipping) {
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        Block page = MakePage(Shape(20, 10, 1, p));
        RECT r{2, 0, 10, 4};  // top rows: storage rows 6..9
        Block white(Fill(page.get(), &r, 255)), black(Fill(page.get(), &r, 0));
        const int w = p == Palette::kDarkFirst ? 1 : 0;  // outside: untouched zero bits
        PageView a(white.get()), b(black.get());
        EXPECT_EQ((std::vector<int>{a.get(2, 9), a.get(1, 9), b.get(9, 6), a.get(9, 5)}), (std::vector<int>{w, 0, 1 - w, 0}));
    }
    Block page = MakePageWith(Shape(16, 12, 8), [](int x, int y, int) { return x + y; });
    RECT corner{0, 0, 10, 3};
    Block top(Fill(page.get(), &corner, 200)), rest(FillOutside(page.get(), &corner, 7));
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 16; ++x) {
            const bool inside = x < 10 && y >= 9;
            ASSERT_EQ(PageView(top.get()).get(x, y), inside ? 200 : x + y);
            ASSERT_EQ(PageView(rest.get()).get(x, y), inside ? x + y : 7);
        }
    RECT beyond{-5, -5, 10, 3}, whole{0, 0, 16, 12}, inverted{10, 10, 2, 2};
    EXPECT_EQ(Block(FillOutside(page.get(), &beyond, 7)).bytes(), rest.bytes());
    EXPECT_TRUE(qtest::SamePixels(Block(FillOutside(page.get(), &whole, 9)).get(), page.get()));
    EXPECT_TRUE(qtest::SamePixels(Block(Fill(page.get(), &inverted, 0)).get(), page.get()));
    Block colour = MakePage(Shape(4, 4, 24));
    EXPECT_EQ(RowValues(Block(Fill(colour.get(), &whole, 128)).get(), 3, 2), std::vector<int>(4, 128));
    EXPECT_EQ(Fill(page.get(), &whole, 256), nullptr);
    EXPECT_EQ(Fill(page.get(), nullptr, 0), nullptr);
}

// Page 1 combined with page 2 by a per-pixel model: the rectangle of w x h at
// (x1, y1) on page 1 meets the one at (x2, y2) on page 2 (rows from the top)
// wherever both points lie on their pages; a 32-bit pixel keeps page 1's
// fourth byte.
std::vector<int> Combined(HGLOBAL p1, HGLOBAL p2, const int r[6], bool andOp) {
    PageView a(p1), b(p2);
    const int channels = a.bitCount() >= 24 ? a.bitCount() / 8 : 1;
    std::vector<int> out;
    for (int Y = 0; Y < a.height(); ++Y)
        for (int X = 0; X < a.width(); ++X)
            for (int c = 0; c < channels; ++c) {
                int v = a.get(X, a.height() - 1 - Y, c);
                const int u = X - r[0] + r[2], w = Y - r[1] + r[3];
                if (c < 3 && X >= r[0] && X < r[0] + r[4] && Y >= r[1] && Y < r[1] + r[5] && u >= 0 && u < b.width() && w >= 0 &&
                    w < b.height()) {
                    const int q = b.get(u, b.height() - 1 - w, c);
                    v = andOp ? (v & q) : (v | q);
                }
                out.push_back(v);
            }
    return out;
}

std::vector<int> TopDown(HGLOBAL h) {
    static const int none[6] = {0, 0, 0, 0, 0, 0};
    return Combined(h, h, none, false);
}

TEST(Arithmetic, RectanglesPlacedDifferentlyOnEachPage) {
    // x1, y1, x2, y2, width, height
    const int rects[][6] = {{0, 0, 9, 4, 5, 3},   {7, 2, 0, 0, 6, 4}, {-3, 1, 2, -2, 9, 7},
                            {25, 14, 1, 2, 9, 9}, {2, 3, 30, 1, 8, 5}, {1, 0, -4, 2, 9, 5}, {0, 0, 0, 0, 40, 40}};
    for (int bits : {1, 8, 24, 32}) {
        Block p1 = MakePageWith(Shape(29, 17, bits), [&](int x, int y, int c) {
            return bits == 1 ? (x * 3 + y) % 4 != 0 : (x * 37 + y * 11 + c * 5) % 256;
        });
        Block p2 = MakePageWith(Shape(35, 13, bits, Palette::kLightFirst), [&](int x, int y, int c) {
            return bits == 1 ? (x + y * 5) % 3 == 0 : (x * 53 + y * 29 + c * 7) % 256;
        });
        for (const auto &r : rects) {
            const auto before = p1.bytes();
            Block orr(ImageOr(p1.get(), p2.get(), r[0], r[1], r[2], r[3], r[4], r[5]));
            ASSERT_TRUE(orr);
            EXPECT_EQ(p1.bytes(), before) << "ImageOr keeps page 1";
            EXPECT_EQ(TopDown(orr.get()), Combined(p1.get(), p2.get(), r, false)) << bits << " bits, " << r[0] << "," << r[1];
            if (bits < 24) {
                EXPECT_EQ(orr.bytes()[40], 255) << "page 2's table comes with the result";
            }
            const auto wantAnd = Combined(p1.get(), p2.get(), r, true);
            Block target = Copy(p1.get());
            Block andd(ImageAnd(target.get(), p2.get(), r[0], r[1], r[2], r[3], r[4], r[5]));
            ASSERT_TRUE(andd);
            EXPECT_EQ(TopDown(andd.get()), wantAnd) << bits << " bits, " << r[0] << "," << r[1];
            EXPECT_EQ(TopDown(target.get()), wantAnd) << "ImageAnd writes page 1 too";
        }
    }
    Block gray = MakePage(Shape(10, 10, 8));
    EXPECT_EQ(ImageAnd(gray.get(), MakePage(Shape(10, 10, 24)).get(), 0, 0, 0, 0, 5, 5), nullptr);
}

TEST(Arithmetic, GetLessMarksStrictlyGreaterPixels) {
    // 1 bit: 1 where page 1 has 1 and page 2 has 0.
    Block a = MakePageWith(Shape(16, 2, 1), [](int x, int, int) { return (x / 4) & 1; });
    Block b = MakePageWith(Shape(16, 2, 1), [](int x, int, int) { return (x / 8) & 1; });
    Block bits(GetLess(a.get(), b.get()));
    for (int x = 0; x < 16; ++x) EXPECT_EQ(PageView(bits.get()).get(x, 1), ((x / 4) & 1) > ((x / 8) & 1)) << x;
    // Deeper pages: 255 where any colour channel is greater, 0 where equal.
    Block g1 = MakePageWith(Shape(4, 1, 8), [](int x, int, int) { return x * 10; });
    Block g2 = MakePageWith(Shape(4, 1, 8), [](int, int, int) { return 20; });
    EXPECT_EQ(RowValues(Block(GetLess(g1.get(), g2.get())).get()), (std::vector<int>{0, 0, 0, 255}));
    const int c1[3][4] = {{5, 9, 9, 200}, {5, 9, 9, 0}, {5, 9, 10, 7}}, c2[3][4] = {{5, 9, 9, 0}, {5, 9, 9, 255},
                                                                                   {5, 10, 9, 7}};
    for (int bitsPer : {24, 32}) {
        Block x1 = MakePageWith(Shape(3, 1, bitsPer), [&](int x, int, int c) { return c1[x][c]; });
        Block x2 = MakePageWith(Shape(3, 1, bitsPer), [&](int x, int, int c) { return c2[x][c]; });
        Block out(GetLess(x1.get(), x2.get()));
        ASSERT_TRUE(out);
        for (int c = 0; c < 3; ++c) EXPECT_EQ(RowValues(out.get(), 0, c), (std::vector<int>{0, 0, 255})) << bitsPer;
    }
    EXPECT_EQ(GetLess(g1.get(), MakePage(Shape(4, 2, 8)).get()), nullptr);  // sizes differ
}

TEST(ConvertMode, PaletteAndThresholdRules) {
    // A light-first 1-bit page keeps its bits under a black-then-white table.
    Block light = MakePageWith(Shape(9, 1, 1, Palette::kLightFirst), [](int x, int, int) { return x & 1; });
    EXPECT_EQ(RowValues(Block(ConvertMode(light.get(), 1, 128)).get()), RowValues(light.get()));
    // An 8-bit page to mode 8 keeps its values under a gray ramp.
    Block gray = MakePageWith(Shape(4, 1, 8, Palette::kLightFirst), [](int x, int, int) { return x * 50; });
    Block g(ConvertMode(gray.get(), 8, 0));
    EXPECT_EQ(RowValues(g.get()), (std::vector<int>{0, 50, 100, 150}));
    EXPECT_EQ(g.bytes()[40 + 4 * 200 + 2], 200);
    // Luminance 0.2127 R + 0.7152 G + 0.0722 B, rounded; at threshold t a
    // level t is white and t - 1 black.
    const int bgr[4][3] = {{127, 127, 127}, {128, 128, 128}, {0, 0, 255}, {255, 0, 0}};
    Block colour = MakePageWith(Shape(4, 1, 24), [&](int x, int, int c) { return bgr[x][c]; });
    EXPECT_EQ(RowValues(Block(ConvertMode(colour.get(), 8, 0)).get()), (std::vector<int>{127, 128, 54, 18}));
    EXPECT_EQ(RowValues(Block(ConvertMode(colour.get(), 1, 128)).get()), (std::vector<int>{0, 1, 0, 0}));
    EXPECT_EQ(RowValues(Block(ConvertMode(colour.get(), 1, 54)).get()), (std::vector<int>{1, 1, 1, 0}));
    Block steps = MakePageWith(Shape(3, 1, 8), [](int x, int, int) { return 99 + x; });
    EXPECT_EQ(RowValues(Block(ConvertMode(steps.get(), 1, 100)).get()), (std::vector<int>{0, 1, 1}));
    EXPECT_EQ(ConvertMode(steps.get(), 4, 128), nullptr);
}

TEST(ConvertModeToGrayEx, RedAndBlueBecomeBlack) {
    // Red: r >= 60 and r - max(g, b) >= redDelta; blue likewise with b.
    const int px[6][3] = {{20, 30, 200}, {20, 30, 59}, {0, 10, 60}, {150, 30, 210}, {200, 30, 20}, {60, 10, 0}};
    struct Case {
        int red, blue;
        bool black[6];
    } cases[] = {{50, 0, {true, false, true, true, false, false}},
                 {0, 50, {false, false, false, false, true, true}},
                 {61, 51, {true, false, false, false, true, false}},
                 {50, 180, {true, false, true, true, false, false}},
                 {0, 0, {false, false, false, false, false, false}}};
    for (int bits : {24, 32}) {
        Block page = MakePageWith(Shape(6, 1, bits), [&](int x, int, int c) { return c < 3 ? px[x][c] : 0; });
        const std::vector<int> plain = RowValues(Block(ConvertMode(page.get(), 8, 0)).get());
        for (const Case &k : cases) {
            const std::vector<int> g = RowValues(Block(ConvertModeToGrayEx(page.get(), k.red, k.blue)).get());
            for (int x = 0; x < 6; ++x) EXPECT_EQ(g[x], k.black[x] ? 0 : plain[x]) << k.red << "/" << k.blue << " px " << x;
        }
    }
}

TEST(Resize, FittedSizesAndInterpolation) {
    const int fits[][6] = {{2000, 1000, 200, 200, 200, 100}, {100, 100, 300, 200, 200, 200}, {300, 100, 100, 90, 100, 33}};
    for (const auto &f : fits) {
        int w = 0, h = 0;
        ASSERT_TRUE(quarvel::pixel::FittedSize(f[0], f[1], f[2], f[3], &w, &h));
        EXPECT_EQ(w, f[4]);
        EXPECT_EQ(h, f[5]);
    }
    Block big = MakePageWith(Shape(2000, 1000, 8), [](int x, int, int) { return x < 1001 ? 0 : 200; });
    Block thumb(Thumbnail(big.get(), 200, 150));
    ASSERT_EQ(thumb.size(), (std::pair{200, 100}));
    // Super-sampling averages: the column over the edge is a mix.
    const std::vector<int> row = RowValues(thumb.get(), 50);
    EXPECT_EQ((std::vector<int>(row.begin() + 99, row.begin() + 102)), (std::vector<int>{0, 180, 200}));
    EXPECT_EQ(Block(Thumbnail(big.get(), 0, 0)).size(), (std::pair{1, 1}));
    // Below 70 % along one axis (7 of 11 columns, though 7 of 10 rows is not)
    // the whole page is area-averaged: stripes of 0 and 255 become the share
    // of 255 each output column covers.
    Block stripes = MakePageWith(Shape(11, 10, 8), [](int x, int, int) { return x % 2 * 255; });
    Block seven(Thumbnail(stripes.get(), 100, 7));
    ASSERT_EQ(seven.header().biWidth, 7);
    const double step = 11.0 / 7;
    for (int X = 0; X < 7; ++X) {
        double covered = 0;
        for (int x = 1; x < 11; x += 2) covered += std::max(0.0, std::min(X * step + step, x + 1.0) - std::max(X * step, 1.0 * x));
        EXPECT_NEAR(RowValues(seven.get(), 3)[X], 255 * covered / step, 1.0) << X;
    }
    // A 1-bit page comes back as a gray thumbnail with its ink dark.
    Block bits = MakePageWith(Shape(64, 64, 1, Palette::kLightFirst), [&](int x, int, int) { return x < 32; });
    Block gray(Thumbnail(bits.get(), 16, 16));
    ASSERT_EQ(gray.header().biBitCount * 1000 + gray.header().biClrUsed, 8256u);
    EXPECT_EQ(RowValues(gray.get(), 2)[2] + RowValues(gray.get(), 2)[13], 255);
}

TEST(Resize, CentresOnWhiteMargins) {
    Block page = MakePageWith(Shape(2000, 1000, 24), [](int, int, int) { return 10; });
    Block out(Resize(page.get(), 500, 501));  // 500 x 250 inside: 125 rows below, 126 above
    ASSERT_TRUE(out);
    PageView v(out.get());
    for (int c = 0; c < 3; ++c)
        EXPECT_EQ((std::vector<int>{v.get(250, 124, c), v.get(250, 125, c), v.get(250, 374, c), v.get(250, 375, c)}),
                  (std::vector<int>{255, 10, 10, 255}));
    const std::vector<int> wide = RowValues(Block(Resize(page.get(), 503, 100)).get(), 50);  // 200 x 100: 151 columns left
    EXPECT_EQ((std::vector<int>{wide[150], wide[151], wide[350], wide[351]}), (std::vector<int>{255, 10, 10, 255}));
    Block bits = MakePageWith(Shape(100, 50, 1), [](int x, int, int) { return x >= 50; });
    const std::vector<int> half = RowValues(Block(Resize(bits.get(), 50, 25)).get(), 10);
    EXPECT_EQ(half[24] * 10 + half[25], 1);
    EXPECT_EQ(Resize(page.get(), 0, 10), nullptr);
    EXPECT_EQ(Resize(page.get(), 10, -1), nullptr);
}

}  // namespace
