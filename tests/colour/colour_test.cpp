// Colour operations through the C API: every rule at and around its
// boundaries, pages of known composition for the mode judgement, the map
// round trip of the Ex forms, and mismatched companions.
#include <gtest/gtest.h>

#include <array>
#include <vector>

#include "support/pages.h"

using namespace qtest;

namespace {

using Bgr = std::array<int, 3>;

PageShape Colour(int w, int h, int bits = 24) { return qtest::Shape(w, h, bits, Palette::kNone); }

// A one-row page holding the given pixels (fourth byte 77 at 32 bits).
Block Row(const std::vector<Bgr> &px, int bits = 24) {
    return MakePageWith(Colour(static_cast<int>(px.size()), 1, bits),
                        [&](int x, int, int c) { return c < 3 ? px[x][c] : 77; });
}

Bgr At(HGLOBAL h, int x, int y = 0) {
    PageView v(h);
    return {v.get(x, y, 0), v.get(x, y, 1), v.get(x, y, 2)};
}

std::vector<Bgr> Pixels(HGLOBAL h) {
    std::vector<Bgr> out;
    for (int x = 0; x < PageView(h).width(); ++x) out.push_back(At(h, x));
    return out;
}

Block GrayLike(int w, int h, int level) {
    PageShape s = qtest::Shape(w, h, 8);
    return MakePageWith(s, [=](int, int, int) { return level; });
}

TEST(JudgeColorMode, IndexedPagesAnswerByDepth) {
    EXPECT_EQ(JudgeColorMode(MakePage(qtest::Shape(8, 8, 1)).get(), -1), 1);
    EXPECT_EQ(JudgeColorMode(MakePage(qtest::Shape(8, 8, 8)).get(), 5), 8);
    EXPECT_EQ(JudgeColorMode(nullptr, -1), 0);
}

TEST(JudgeColorMode, WholePageScanCountsDarkAndMidGray) {
    auto page = [](int mid, int dark, Bgr odd = {-1, -1, -1}) {
        return MakePageWith(Colour(100, 20), [=](int x, int y, int c) {
            const int i = y * 100 + x;
            if (i == 1999 && odd[0] >= 0) return odd[c];
            if (i < mid) return 128;
            if (i < mid + dark) return 0;
            return 255;
        });
    };
    EXPECT_EQ(JudgeColorMode(page(0, 1000).get(), -1), 1);
    EXPECT_EQ(JudgeColorMode(page(1, 1000).get(), -1), 1);  // 1000 dark > 1 / 2
    EXPECT_EQ(JudgeColorMode(page(10, 5).get(), -1), 8);    // 5 is not more than 5
    EXPECT_EQ(JudgeColorMode(page(10, 6).get(), -1), 1);
    EXPECT_EQ(JudgeColorMode(page(10, 4, {0, 0, 1}).get(), -1), 24);
    // Level 10 is mid-gray, 9 dark, 246 white.
    EXPECT_EQ(JudgeColorMode(MakePageWith(Colour(10, 10), [](int, int, int) { return 10; }).get(), -1), 8);
    EXPECT_EQ(JudgeColorMode(MakePageWith(Colour(10, 10), [](int, int, int) { return 246; }).get(), -1), 1);
}

TEST(JudgeColorMode, DensityCountsCoherentPatches) {
    // A white 300 x 300 page: a red seal of 20 x 20 makes 400 pairs in 90,000
    // pixels, a density of 44.4 per 10,000.
    auto page = [](auto pixel) { return MakePageWith(Colour(300, 300), pixel); };
    Block seal = page([](int x, int y, int c) {
        const bool in = x >= 100 && x < 120 && y >= 100 && y < 120;
        return in ? std::array<int, 3>{40, 40, 200}[c] : 255;
    });
    EXPECT_EQ(JudgeColorMode(seal.get(), 0), 24);
    EXPECT_EQ(JudgeColorMode(seal.get(), 44), 24);
    EXPECT_EQ(JudgeColorMode(seal.get(), 45), 1);
    // Isolated coloured pixels (no vertical neighbour marked) never count.
    Block noise = page([](int x, int y, int c) {
        return (x % 7 == 0 && y % 5 == 0) ? std::array<int, 3>{40, 40, 200}[c] : 255;
    });
    EXPECT_EQ(JudgeColorMode(noise.get(), 0), 1);
    // Colour fringes against black text: the neighbour below differs strongly.
    Block fringe = page([](int x, int y, int c) {
        if (x >= 50 && x < 250 && y % 10 == 1) return std::array<int, 3>{40, 40, 200}[c];
        if (x >= 50 && x < 250 && y % 10 == 2) return 0;
        return 255;
    });
    EXPECT_EQ(JudgeColorMode(fringe.get(), 0), 1);
    // A gray page gives 1, never 8, with this method.
    EXPECT_EQ(JudgeColorMode(page([](int, int, int) { return 128; }).get(), 0), 1);
}

TEST(JudgeColorMode, DistinctColourBoundaries) {
    // Reddish (150, 105, 105) is distinct; the same spread in blue is not.
    auto judge = [](Bgr p) {
        Block b = MakePageWith(Colour(300, 300), [&](int x, int y, int c) {
            return x >= 100 && x < 110 && y >= 100 && y < 110 ? p[c] : 255;
        });
        return JudgeColorMode(b.get(), 0);
    };
    EXPECT_EQ(judge({105, 105, 150}), 24);
    EXPECT_EQ(judge({150, 105, 105}), 1);
    EXPECT_EQ(judge({70, 70, 110}), 1);    // red strongest, spread 40, but max below 111
    EXPECT_EQ(judge({70, 70, 111}), 24);
    EXPECT_EQ(judge({0, 79, 79}), 1);      // spread 79, max below 111
    EXPECT_EQ(judge({0, 80, 80}), 24);     // spread 80
}

TEST(JudgeColorMode, ThirtyTwoBitPagesUseTheirOwnPixels) {
    Block gray = MakePageWith(Colour(50, 50, 32), [](int, int, int c) { return c == 3 ? 9 : 200; });
    EXPECT_EQ(JudgeColorMode(gray.get(), -1), 8);
    Block red = MakePageWith(Colour(300, 300, 32), [](int x, int y, int c) {
        return c < 3 && x >= 100 && x < 120 && y >= 100 && y < 120 ? std::array<int, 3>{40, 40, 200}[c] : 255;
    });
    EXPECT_EQ(JudgeColorMode(red.get(), 10), 24);
    // The scan leaves out a hundredth of each side: 3 columns of a 300-wide
    // page, so a red bar in columns 4..9 counts (6 x 60 pixels, 12 per 10,000).
    Block edge = MakePageWith(Colour(300, 1000), [](int x, int y, int c) {
        return x >= 4 && x < 10 && y >= 400 && y < 460 ? std::array<int, 3>{40, 40, 200}[c] : 255;
    });
    EXPECT_EQ(JudgeColorMode(edge.get(), 10), 24);
    EXPECT_EQ(JudgeColorMode(edge.get(), 12), 1);
}

TEST(ConvertHongTou, RulesInOrder) {
    Block page = Row({{60, 70, 200}, {40, 40, 85}, {200, 90, 80}, {10, 20, 30}, {0, 0, 99}, {0, 0, 100}});
    Block gray = GrayLike(6, 1, 123);
    const Bgr red{0, 0, 255}, blue{255, 0, 0}, g{123, 123, 123};
    // Pixel 4 is relative red (99 > 50), pixel 5 too (100 > 50, T = 50) and strong red.
    Block a(ConvertHongTou(page.get(), gray.get(), 0, 0, 0, 100));
    ASSERT_TRUE(a);
    EXPECT_EQ(Pixels(a.get()), (std::vector<Bgr>{red, g, g, g, red, red}));
    Block b(ConvertHongTou(page.get(), gray.get(), 0, 0, 0, 140));
    EXPECT_EQ(At(b.get(), 0), red);  // second rule: 130 > 100
    Block c(ConvertHongTouEx(page.get(), gray.get(), 0, 0, 0, 40, 80));
    EXPECT_EQ(At(c.get(), 1), red);
    Block d(ConvertHongTouEx(page.get(), gray.get(), 0, 0, 0, 100, 100));
    EXPECT_EQ(At(d.get(), 2), blue);
    // R exactly 100: T = 50, so an excess of exactly 50 is not above it.
    Block e(ConvertHongTou(Row({{50, 50, 100}}).get(), GrayLike(1, 1, 7).get(), 0, 0, 0, 255));
    EXPECT_EQ(At(e.get(), 0), (Bgr{7, 7, 7}));
    // The first rule's excess is inclusive: 90 over a limit T of 100.
    Block edge = Row({{50, 110, 200}});
    EXPECT_EQ(At(Block(ConvertHongTou(edge.get(), GrayLike(1, 1, 7).get(), 0, 0, 0, 90)).get(), 0), red);
    EXPECT_EQ(At(Block(ConvertHongTou(edge.get(), GrayLike(1, 1, 7).get(), 0, 0, 0, 91)).get(), 0), (Bgr{7, 7, 7}));
    // colorDiff -255 makes every pixel at the minimum level red.
    Block f(ConvertHongTou(Row({{255, 255, 90}}).get(), GrayLike(1, 1, 7).get(), 0, 0, 0, -255));
    EXPECT_EQ(At(f.get(), 0), red);
}

TEST(ConvertHongTou, MismatchedPagesGiveAnUnchangedCopy) {
    Block page = Row({{60, 70, 200}, {1, 2, 3}}, 32), wide = GrayLike(3, 1, 5), colour = MakePage(Colour(2, 1, 24));
    for (HGLOBAL gray : {wide.get(), colour.get(), HGLOBAL{nullptr}})
        EXPECT_EQ(Block(ConvertHongTou(page.get(), gray, 0, 0, 0, 10)).bytes(), page.bytes());
    EXPECT_EQ(ConvertHongTou(nullptr, GrayLike(2, 1, 5).get(), 0, 0, 0, 10), nullptr);
    // The fourth byte of a 32-bit pixel is kept.
    Block out(ConvertHongTou(page.get(), GrayLike(2, 1, 5).get(), 0, 0, 0, 10));
    EXPECT_EQ(PageView(out.get()).get(1, 0, 3), 77);
}

TEST(EnhanceColor, RuleExamples) {
    Block page = Row({{100, 100, 100}, {200, 200, 250}, {80, 90, 150}, {80, 90, 55}});
    RECT all{0, 0, 0, 0};
    Block a(EnhanceColor(page.get(), &all, 128, 20, 0, 0, 0, 0, 0));
    EXPECT_EQ(Pixels(a.get()), (std::vector<Bgr>{{100, 100, 100}, {220, 220, 255}, {80, 90, 150}, {80, 90, 55}}));
    Block b(EnhanceColor(page.get(), &all, 128, 0, 0, 40, 30, 0, 0));  // pixel 3: R below 60, not red
    EXPECT_EQ(Pixels(b.get()), (std::vector<Bgr>{{100, 100, 100}, {170, 170, 255}, {50, 60, 180}, {80, 90, 55}}));
    // All amounts 0, or negative ones (clamped, never wrapped: brighten <= 0
    // and darken 0 turn the rule off): an unchanged copy.
    for (auto [split, brighten, darken] : {std::tuple{0, 0, 0}, {0, -300, 0}, {255, 0, -300}})
        EXPECT_EQ(Block(EnhanceColor(page.get(), &all, split, brighten, darken, 0, 0, 0, 0)).bytes(), page.bytes()) << brighten;
    Block bright(EnhanceColor(page.get(), &all, 0, 10, -20, 0, 0, 0, 0));
    EXPECT_EQ(At(bright.get(), 1), (Bgr{210, 210, 255}));
}

TEST(EnhanceColor, BlueRuleAndRectangle) {
    // Two rows; the rectangle (top-down) covers only the top row, which is
    // storage row 1.
    Block page = MakePageWith(Colour(2, 2), [](int, int, int c) { return std::array<int, 3>{200, 50, 60}[c]; });
    RECT top{0, 0, 2, 1};
    Block out(EnhanceColor(page.get(), &top, 0, 0, 0, 0, 0, 100, 20));
    EXPECT_EQ(At(out.get(), 0, 1), (Bgr{220, 30, 40}));
    EXPECT_EQ(At(out.get(), 0, 0), (Bgr{200, 50, 60}));
    // The blue rule needs blue at 60 or more.
    Block faint = Row({{60, 0, 0}, {59, 0, 0}});
    EXPECT_EQ(Pixels(Block(EnhanceColor(faint.get(), nullptr, 0, 0, 0, 0, 0, 50, 20)).get()), (std::vector<Bgr>{{80, 0, 0}, {59, 0, 0}}));
    // A rectangle reaching outside the page: an unchanged copy.
    RECT outside{0, 0, 3, 2};
    Block copy(EnhanceColor(page.get(), &outside, 0, 0, 0, 0, 0, 100, 20));
    EXPECT_EQ(copy.bytes(), page.bytes());
}

TEST(EnhanceColorEx, MapThenApplyEqualsEnhanceColor) {
    Block page = MakePageWith(Colour(40, 30, 32), [](int x, int y, int c) { return (x * 37 + y * 11 + c * 90) % 256; });
    RECT r{3, 4, 30, 25};
    Block map(EnhanceColorEx(page.get(), nullptr, &r, 0, 0, 0, 0, 0, 0, 0));
    ASSERT_TRUE(map);
    EXPECT_EQ(At(Row({{60, 90, 200}}).get(), 0), (Bgr{60, 90, 200}));
    Block onePixelMap(EnhanceColorEx(Row({{60, 90, 200}}).get(), nullptr, nullptr, 0, 0, 0, 0, 0, 0, 0));
    EXPECT_EQ(At(onePixelMap.get(), 0), (Bgr{0, 116, 110}));
    for (int split : {0, 100, 128, 200})
        for (int red : {0, 20}) {
            Block ex(EnhanceColorEx(page.get(), map.get(), &r, split, 15, 25, red, 30, 30, 40));
            Block plain(EnhanceColor(page.get(), &r, split, 15, 25, red, 30, 30, 40));
            ASSERT_EQ(ex.bytes(), plain.bytes()) << split << " " << red;
        }
    // A map of another size is not used: an unchanged copy.
    Block small = MakePage(Colour(10, 10, 32));
    Block copy(EnhanceColorEx(page.get(), small.get(), &r, 100, 15, 25, 20, 30, 30, 40));
    EXPECT_EQ(copy.bytes(), page.bytes());
}

// A base page of another size gives its unchanged copy.
TEST(EnhanceColorEx1, MismatchedBaseGivesItsCopy) {
    Block page = Row({{80, 90, 150}, {100, 100, 100}, {250, 250, 250}}), other = MakePage(Colour(5, 1));
    Block map(EnhanceColorEx(page.get(), nullptr, nullptr, 0, 0, 0, 0, 0, 0, 0));
    RECT two{0, 0, 2, 1};
    Block copy(EnhanceColorEx1(page.get(), other.get(), map.get(), &two, 128, 0, 10, 0, 0, 0, 0));
    EXPECT_EQ(copy.bytes(), other.bytes());
}

// Pages below 24 bits, including depths the rest of the library refuses
// (2 bits, say), come back as unchanged copies.
TEST(LowDepth, ColourOperationsCopyPagesBelowTwentyFourBits) {
    for (int bits : {1, 2, 4, 8, 16}) {
        Block page = MakePage(qtest::Shape(13, 7, bits)), gray = MakePage(qtest::Shape(13, 7, 8));
        {
            PageView v(page.get());
            for (int y = 0; y < 7; ++y)
                for (int i = 0; i < v.stride(); ++i) v.row(y)[i] = static_cast<std::uint8_t>(i * 37 + y);
        }
        RECT all{0, 0, 0, 0};
        for (HGLOBAL r : {EnhanceColor(page.get(), &all, 128, 10, 10, 30, 40, 30, 40),
                          EnhanceColorEx(page.get(), nullptr, &all, 128, 10, 10, 30, 40, 30, 40),
                          EnhanceColorEx1(page.get(), nullptr, nullptr, &all, 128, 10, 10, 30, 40, 30, 40),
                          DeColorize(page.get(), &all, 30, 30, 30), DeColorize(page.get(), nullptr, 0, 0, 0),
                          ConvertHongTou(page.get(), gray.get(), 0, 0, 0, 30),
                          ConvertHongTouEx(page.get(), gray.get(), 0, 0, 0, 30, 90)})
            EXPECT_EQ(Block(r).bytes(), page.bytes()) << bits;
    }
    EXPECT_EQ(EnhanceColor(nullptr, nullptr, 0, 50, 0, 0, 0, 0, 0), nullptr);
}

TEST(DeColorize, WholePageAndRectangle) {
    Block page = Row({{255, 255, 255}, {40, 60, 200}, {40, 60, 100}, {50, 50, 200}}, 32);
    RECT whole{0, 0, 0, 0};
    Block a(DeColorize(page.get(), &whole, 50, 0, 0));
    EXPECT_EQ(Pixels(a.get()), (std::vector<Bgr>{{253, 253, 253}, {40, 60, 200}, {65, 65, 65}, {50, 50, 200}}));
    EXPECT_EQ(PageView(a.get()).get(2, 0, 3), 77);
    Block b(DeColorize(page.get(), &whole, 0, 0, 0));
    EXPECT_EQ(At(b.get(), 1), (Bgr{10 + 30 + 50, 90, 90}));
    RECT rect{3, 0, 4, 1};
    Block c(DeColorize(page.get(), &rect, 50, 50, 50));
    EXPECT_EQ(At(c.get(), 3), (Bgr{12 + 25 + 50, 87, 87}));
    EXPECT_EQ(At(c.get(), 1), (Bgr{40, 60, 200}));
    RECT full{0, 0, 4, 1};
    Block d(DeColorize(page.get(), &full, 50, 50, 50));
    EXPECT_EQ(At(d.get(), 1), (Bgr{90, 90, 90}));
    // Over the whole page, left and top leave columns from the left and rows
    // from the top alone: (B >> 2) + (G >> 1) + (R >> 2) = 100 elsewhere.
    Block two = MakePageWith(Shape(3, 2, 24), [](int, int, int c) { return 40 + 60 * c; });
    RECT offset{1, 1, 0, 0};
    Block e(DeColorize(two.get(), &offset, 0, 0, 0));
    PageView v(e.get());
    EXPECT_EQ((std::vector<int>{v.get(0, 0), v.get(1, 0), v.get(1, 1)}), (std::vector<int>{40, 100, 40}));
    // Over the whole page each threshold keeps only its own colour, from an
    // excess equal to it: red, blue, green, then a green just short.
    Block marks = Row({{40, 60, 110}, {110, 60, 40}, {40, 110, 60}, {40, 109, 60}});
    const struct {
        int red, blue, green;
        bool kept[4];
    } cases[] = {{50, 0, 0, {true, false, false, false}},
                 {0, 50, 0, {false, true, false, false}},
                 {0, 0, 50, {false, false, true, false}},
                 {51, 51, 51, {false, false, false, false}}};
    for (const auto &k : cases) {
        Block out(DeColorize(marks.get(), &whole, k.red, k.blue, k.green));
        for (int x = 0; x < 4; ++x)
            EXPECT_EQ(At(out.get(), x) == At(marks.get(), x), k.kept[x]) << k.red << k.blue << k.green << " at " << x;
    }
}

}  // namespace
