// Page cleaning and composition through the C API: which specks Denoise
// erases, colour smoothing confined to a rectangle, blank-page shares,
// watermark placement and subtraction, and every Combine layout.
#include <gtest/gtest.h>

#include <array>
#include <functional>
#include <tuple>

#include "support/pages.h"

using namespace qtest;

namespace {

// A white 8-bit page with black pixels where `ink(x, y)` holds (storage rows).
Block Inked(int w, int h, std::function<bool(int, int)> ink) {
    return MakePageWith(Shape(w, h, 8), [&](int x, int y, int) { return ink(x, y) ? 0 : 255; });
}

auto Square(int x0, int y0, int side) {
    return [=](int x, int y) { return x >= x0 && x < x0 + side && y >= y0 && y < y0 + side; };
}

TEST(Denoise, SpeckSizesAgainstN) {
    struct Case {
        int side, n;
        bool erased;
    } cases[] = {{1, 1, true}, {3, 3, true}, {3, 2, false}, {4, 4, true}, {4, 3, false}};
    for (const Case &c : cases) {
        Block page = Inked(60, 60, Square(20, 20, c.side));
        Block out(Denoise(page.get(), c.n));
        ASSERT_TRUE(out);
        EXPECT_EQ(DarkCount(out.get()), c.erased ? 0 : c.side * c.side) << c.side << " with n " << c.n;
    }
    // A 50-pixel line stays; so do specks within n of an edge.
    Block line = Inked(100, 40, [](int x, int y) { return y == 20 && x >= 20 && x < 70; });
    EXPECT_EQ(DarkCount(Block(Denoise(line.get(), 5)).get()), 50);
    for (auto [x, y, stays] : {std::tuple{2, 30, 1}, {3, 30, 0}, {56, 30, 0}, {57, 30, 1}, {30, 2, 1}, {30, 56, 0}, {30, 57, 1}}) {
        Block edge = Inked(60, 60, Square(x, y, 1));
        EXPECT_EQ(DarkCount(Block(Denoise(edge.get(), 3)).get()), stays) << x << "," << y;
    }
    Block same(Denoise(Inked(60, 60, Square(20, 20, 1)).get(), 0));
    EXPECT_EQ(DarkCount(same.get()), 1);
}

TEST(Denoise, LowContrastDotsStay) {
    // A dot must be more than 100 levels darker than its left and lower
    // neighbours (here 250 on white paper); an erased one takes the level of
    // its left neighbour.
    for (auto [dot, want] : {std::pair{150, 150}, {149, 250}, {155, 155}}) {
        Block page = MakePageWith(Shape(40, 40, 8), [dot = dot](int x, int y, int) {
            return x == 20 && y == 20 ? dot : (x == 19 && y == 20) || (x == 20 && y == 19) ? 250 : 255;
        });
        EXPECT_EQ(PageView(Block(Denoise(page.get(), 2)).get()).get(20, 20), want) << dot;
    }
}

TEST(Denoise, BitonalPagesKeepTheirPalette) {
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        const int ink = p == Palette::kDarkFirst ? 0 : 1;
        Block page = MakePageWith(Shape(70, 50, 1, p), [&](int x, int y, int) {
            const bool dark = (x == 30 && y == 25) || (y == 10 && x >= 10 && x < 60);
            return dark ? ink : 1 - ink;
        });
        Block out(Denoise(page.get(), 3));
        ASSERT_TRUE(out);
        EXPECT_EQ(out.header().biClrUsed, page.header().biClrUsed);
        PageView v(out.get());  // the speck is gone, the line stays
        EXPECT_EQ((std::vector<int>{v.get(30, 25), v.get(35, 10), v.get(5, 5)}), (std::vector<int>{1 - ink, ink, 1 - ink}));
    }
}

TEST(Denoise, ColourSmoothingInsideTheRectangleOnly) {
    Block page = MakePageWith(Shape(40, 30, 24), [](int x, int y, int c) { return ((x + y) % 2) * 200 + c; });
    RECT r{5, 5, 25, 20};  // storage rows 10..24
    Block out(DenoiseRect(page.get(), &r, 4));
    ASSERT_TRUE(out);
    PageView in(page.get()), res(out.get());
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x) {
            const bool inside = x >= 5 && x < 25 && y >= 10 && y < 25;
            if (!inside) {
                ASSERT_EQ(res.get(x, y, 1), in.get(x, y, 1));
            }
        }
    // Inside, a checkerboard smooths toward its mean.
    EXPECT_NEAR(res.get(15, 17, 0), 100, 20);
    // The whole page with n = 3 uses the 3 x 3 kernel: (1 2 1)^2 / 16 on a
    // checkerboard gives 200 * 8 / 16 or 200 * 8 / 16 again: 100.
    Block whole(Denoise(page.get(), 3));
    EXPECT_EQ(PageView(whole.get()).get(15, 15, 0), 100);
    // Above 3 the 5 x 5 kernel: one white pixel reaches two pixels away.
    Block dot = MakePageWith(Shape(20, 20, 24), [](int x, int y, int) { return x == 10 && y == 10 ? 255 : 0; });
    for (auto [n, reach] : {std::pair{1, 1}, {3, 1}, {4, 2}, {9, 2}}) {
        Block out(Denoise(dot.get(), n));
        PageView v(out.get());
        EXPECT_GT(v.get(10 + reach, 10, 1), 0) << n;
        EXPECT_EQ(v.get(10 + reach + 1, 10, 1), 0) << n;
    }
}

TEST(Denoise, RectangleLimitsTheSpeckSearch) {
    Block page = Inked(80, 80, [](int x, int y) { return (x == 20 && y == 20) || (x == 60 && y == 60); });
    RECT r{0, 0, 40, 80};  // columns 0..39
    Block out(DenoiseRect(page.get(), &r, 2));
    EXPECT_EQ(PageView(out.get()).get(20, 20) * 1000 + PageView(out.get()).get(60, 60), 255000);
    EXPECT_EQ(DenoiseRect(page.get(), nullptr, 2), nullptr);
}

TEST(IsBlankPage, InkShares) {
    EXPECT_EQ(IsBlankPage(Inked(300, 300, [](int, int) { return false; }).get(), 128), 0);
    EXPECT_EQ(IsBlankPage(Inked(300, 300, [](int, int) { return true; }).get(), 128), 10000);
    // A 10-pixel frame lies in the margin.
    Block frame = Inked(300, 300, [](int x, int y) { return x < 10 || y < 10 || x >= 290 || y >= 290; });
    EXPECT_EQ(IsBlankPage(frame.get(), 128), 0);
    // A page 200 wide is analysed whole.
    Block narrow = Inked(200, 300, [](int x, int) { return x < 10; });
    EXPECT_EQ(IsBlankPage(narrow.get(), 128), 500);
    EXPECT_EQ(IsBlankPage(narrow.get(), 0), 0);
    EXPECT_EQ(IsBlankPage(narrow.get(), 256), 10000);
    EXPECT_EQ(IsBlankPage(Inked(7, 1, [](int x, int) { return x < 3; }).get(), 128), 4285);  // 3 / 7, truncated
    // 64 dark pixels in the 230 x 230 region of a 250 x 250 colour page.
    Block colour = MakePageWith(Shape(250, 250, 24), [](int x, int y, int) { return x >= 100 && x < 108 && y >= 100 && y < 108 ? 0 : 255; });
    EXPECT_EQ(IsBlankPage(colour.get(), 128), 12);
    EXPECT_EQ(IsBlankPage(nullptr, 128), -1);
    EXPECT_EQ(IsBlankPage(MakePage(Shape(8, 8, 4)).get(), 128), -1);
}

TEST(IsBlankPage, BitonalInkByPalette) {
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        const int ink = p == Palette::kDarkFirst ? 0 : 1;
        Block page = MakePageWith(Shape(100, 100, 1, p), [&](int x, int, int) { return x < 25 ? ink : 1 - ink; });
        EXPECT_EQ(IsBlankPage(page.get(), 128), 2500);
    }
}

Block Mark(int w, int h, int value) { return MakePageWith(Shape(w, h, 8), [=](int, int, int) { return value; }); }

TEST(WaterMark, CentredAndStacked) {
    Block page = MakePageWith(Shape(1000, 800, 8), [](int, int, int) { return 200; });
    Block mark = Mark(100, 100, 50);
    Block one(AddWaterMark(page.get(), mark.get()));
    ASSERT_TRUE(one);
    PageView v(one.get());
    EXPECT_EQ((std::vector<int>{v.get(450, 350), v.get(549, 449), v.get(449, 350), v.get(450, 450)}), (std::vector<int>{150, 150, 200, 200}));
    Block column(AddWaterMarkEx(page.get(), mark.get()));
    PageView c(column.get());
    for (int y : {0, 99, 100, 450, 799}) EXPECT_EQ(c.get(500, y), 150) << y;
    EXPECT_EQ(c.get(449, 0), 200);
    // A zero mark changes nothing.
    EXPECT_TRUE(qtest::SamePixels(Block(AddWaterMark(page.get(), Mark(30, 30, 0).get())).get(), page.get()));
}

TEST(WaterMark, DepthsAndLargeMarks) {
    // Centred with the halves truncated: columns 3..6 and rows 3..6 of 11 x 10.
    Block colour = MakePageWith(Shape(11, 10, 24), [](int, int, int c) { return std::array<int, 3>{30, 150, 255}[c]; });
    Block out(AddWaterMark(colour.get(), Mark(4, 4, 100).get()));
    PageView v(out.get());
    EXPECT_EQ((std::vector<int>{v.get(3, 3, 0), v.get(6, 6, 1), v.get(3, 6, 2), v.get(7, 6, 2), v.get(6, 7, 2)}), (std::vector<int>{0, 50, 155, 255, 255}));
    // 1-bit pages: mark levels of 128 and more clear bits.
    Block bits = MakePageWith(Shape(16, 4, 1), [](int, int, int) { return 1; });
    Block marked(AddWaterMark(bits.get(), MakePageWith(Shape(16, 4, 8), [](int x, int, int) { return x < 8 ? 128 : 127; }).get()));
    EXPECT_EQ(PageView(marked.get()).get(3, 1) * 10 + PageView(marked.get()).get(12, 1), 1);
    // A mark larger than the page draws only what lies inside it; the column
    // form clips its last copy at the top edge.
    Block page = MakePageWith(Shape(50, 50, 8), [](int, int, int) { return 200; });
    Block big(AddWaterMark(page.get(), Mark(80, 70, 10).get()));
    EXPECT_EQ(PageView(big.get()).get(49, 49), 190);
    Block tall(AddWaterMarkEx(page.get(), Mark(20, 30, 10).get()));
    EXPECT_EQ(PageView(tall.get()).get(25, 49) * 1000 + PageView(tall.get()).get(25, 9), 190200);  // copies at rows 10 and 40
    // A 1-bit result's bits past the width are clear even where the page's
    // are set and the mark reaches its last byte (13 pixels, rows of 4 bytes
    // at the block's end).
    Block narrow = MakePageWith(Shape(13, 6, 1), [](int x, int, int) { return x % 3 != 0; });
    auto *raw = static_cast<std::uint8_t *>(GlobalLock(narrow.get()));
    for (std::size_t y = 0, rows = GlobalSize(narrow.get()) - 6 * 4; y < 6; ++y) raw[rows + 4 * y + 1] |= 0x07;
    GlobalUnlock(narrow.get());
    EXPECT_EQ(qtest::DirtyPaddingRow(Block(AddWaterMarkEx(narrow.get(), Mark(13, 2, 0).get())).get()), -1);
    // The mark must be an 8-bit page.
    EXPECT_EQ(AddWaterMark(page.get(), MakePage(Shape(4, 4, 24)).get()), nullptr);
    EXPECT_EQ(AddWaterMarkEx(page.get(), nullptr), nullptr);
}

TEST(Combine, LayoutsAndMargins) {
    Block a = MakePageWith(Shape(100, 200, 8), [](int, int, int) { return 10; });
    Block b = MakePageWith(Shape(150, 120, 8), [](int, int, int) { return 20; });
    Block side(Combine(a.get(), b.get(), 0)), stacked(Combine(a.get(), b.get(), -3));
    ASSERT_EQ(side.size(), (std::pair{250, 200}));
    ASSERT_EQ(stacked.size(), (std::pair{150, 320}));
    PageView s(side.get()), t(stacked.get());
    EXPECT_EQ((std::vector<int>{s.get(99, 0), s.get(100, 199), s.get(100, 80), s.get(100, 79)}), (std::vector<int>{10, 20, 20, 255}));
    EXPECT_EQ((std::vector<int>{t.get(0, 319), t.get(120, 319), t.get(149, 0)}), (std::vector<int>{10, 255, 20}));
    Block shorterFirst(Combine(b.get(), a.get(), 0));  // flush with the top as well
    EXPECT_EQ(RowValues(shorterFirst.get(), 199)[0] * 1000 + RowValues(shorterFirst.get(), 79)[0], 20 * 1000 + 255);
}

TEST(Combine, FormatUnificationAndHeaders) {
    Block colour = MakePageWith(Shape(4, 4, 24), [](int, int, int) { return 77; });
    Block bits = MakePageWith(Shape(4, 4, 1), [](int x, int, int) { return x & 1; });
    Block cb(Combine(colour.get(), bits.get(), 0));
    ASSERT_EQ(cb.header().biBitCount, 24);
    EXPECT_EQ(PageView(cb.get()).get(4, 0, 0) * 1000 + PageView(cb.get()).get(5, 0, 2), 255);  // bits 0 black, 1 white
    // 1-bit page 1 with an 8-bit page 2: page 2's header and table.
    Block gray = MakePageWith(Shape(4, 4, 8, Palette::kLightFirst), [](int, int, int) { return 3; });
    Block bg(Combine(bits.get(), gray.get(), 1));
    ASSERT_EQ(bg.header().biBitCount, 8);
    EXPECT_EQ(bg.bytes()[40], 255);  // page 2's entry 0 (white)
    // Two 1-bit pages with different tables: bits unchanged, page 2's table.
    Block light = MakePageWith(Shape(4, 4, 1, Palette::kLightFirst), [](int, int, int) { return 0; });
    Block bb(Combine(bits.get(), light.get(), 0));
    EXPECT_EQ(PageView(bb.get()).get(1, 0), 1);
    EXPECT_EQ(bb.bytes()[40], 255);
    // 32 and 8 bits: the 8-bit page becomes 32-bit colour.
    Block deep = MakePage(Shape(3, 3, 32));
    Block d8(Combine(gray.get(), deep.get(), 0));
    EXPECT_EQ(d8.header().biBitCount, 32);
    EXPECT_EQ(Combine(colour.get(), nullptr, 0), nullptr);
}

}  // namespace
