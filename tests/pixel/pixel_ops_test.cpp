// Tone, text effect, fill, arithmetic, mode conversion and resize through
// the C API, with the contrast tables checked entry by entry.
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "pixel/pixel.h"
#include "support/pages.h"

using qtest::Block;
using qtest::MakePage;
using qtest::MakePageWith;
using qtest::PageShape;
using qtest::Shape;
using qtest::PageView;
using qtest::Palette;

namespace {

// A 256 x 1 gray page holding every level once.
Block Ramp() { return MakePageWith(Shape(256, 1, 8), [](int x, int, int) { return x; }); }

std::vector<int> Levels(HGLOBAL h) {
    PageView v(h);
    std::vector<int> out;
    for (int x = 0; x < v.width(); ++x) out.push_back(v.get(x, 0));
    return out;
}

// ---- Brightness and contrast ---------------------------------------------------

TEST(Contrast, SampleTablesEntryByEntry) {
    const int at[9] = {0, 64, 100, 126, 127, 128, 160, 192, 255};
    struct Row {
        int brightness, contrast;
        bool both;
        int want[9];
    } rows[] = {
        {0, 50, false, {0, 2, 74, 126, 127, 129, 193, 255, 255}},
        {0, 20, false, {0, 49, 94, 126, 127, 128, 168, 207, 255}},
        {0, -50, false, {63, 96, 114, 127, 127, 127, 143, 159, 191}},
        {40, 50, true, {0, 0, 64, 116, 118, 120, 183, 247, 255}},
        {40, -50, true, {68, 101, 119, 132, 132, 133, 148, 164, 196}},
    };
    for (const Row &r : rows) {
        int t[256];
        ASSERT_TRUE(quarvel::pixel::ContrastTable(r.brightness, r.contrast, r.both, t));
        for (int i = 0; i < 9; ++i) EXPECT_EQ(t[at[i]], r.want[i]) << r.brightness << "/" << r.contrast << " at " << at[i];
    }
}

TEST(Contrast, ThroughTheApiOnEveryLevel) {
    Block ramp = Ramp();
    int t[256];
    for (int k : {-100, -37, 0, 13, 50, 99, 100}) {
        ASSERT_TRUE(quarvel::pixel::ContrastTable(0, k, false, t));
        Block out(AdjustContrast(ramp.get(), k));
        ASSERT_TRUE(out);
        EXPECT_EQ(Levels(out.get()), std::vector<int>(t, t + 256)) << k;
    }
    const std::vector<int> hard = Levels(Block(AdjustContrast(ramp.get(), 100)).get());
    EXPECT_EQ(hard[126], 0);
    EXPECT_EQ(hard[127], 255);
    EXPECT_EQ(Levels(Block(AdjustContrast(ramp.get(), -100)).get()), std::vector<int>(256, 127));
    EXPECT_EQ(Levels(Block(AdjustContrast(ramp.get(), 0)).get()), Levels(ramp.get()));
    // Brightness with contrast 0 is brightness alone; the pivot table with
    // brightness 0 is the plain table.
    EXPECT_EQ(Levels(Block(AdjustBrightnessAndContrast(ramp.get(), 33, 0)).get()),
              Levels(Block(AdjustBrightness(ramp.get(), 33)).get()));
    EXPECT_EQ(Levels(Block(AdjustBrightnessAndContrast(ramp.get(), 0, 50)).get()),
              Levels(Block(AdjustContrast(ramp.get(), 50)).get()));
    // Brightness then the pivot table.
    ASSERT_TRUE(quarvel::pixel::ContrastTable(-40, 30, true, t));
    const std::vector<int> both = Levels(Block(AdjustBrightnessAndContrast(ramp.get(), -40, 30)).get());
    for (int v = 0; v < 256; ++v) ASSERT_EQ(both[v], t[std::max(0, v - 40)]);
}

TEST(Brightness, SaturatesAndKeepsTheFourthByte) {
    EXPECT_EQ(Levels(Block(AdjustBrightness(Ramp().get(), 300)).get()), std::vector<int>(256, 255));
    EXPECT_EQ(Levels(Block(AdjustBrightness(Ramp().get(), -300)).get()), std::vector<int>(256, 0));
    Block page = MakePageWith(Shape(3, 2, 32), [](int x, int, int c) { return c == 3 ? 200 + x : 10 * c; });
    Block out(AdjustContrast(page.get(), 50));
    Block bright(AdjustBrightness(page.get(), 20));
    for (int x = 0; x < 3; ++x) {
        EXPECT_EQ(PageView(out.get()).get(x, 1, 3), 200 + x);
        EXPECT_EQ(PageView(bright.get()).get(x, 1, 2), 40);
        EXPECT_EQ(PageView(bright.get()).get(x, 1, 3), 200 + x);
    }
}

TEST(Tone, RefusesBitonalPagesAndOutOfRangeArguments) {
    Block bits = MakePage(Shape(8, 8, 1));
    EXPECT_EQ(AdjustBrightness(bits.get(), 10), nullptr);
    EXPECT_EQ(AdjustContrast(bits.get(), 10), nullptr);
    EXPECT_EQ(AdjustBrightnessAndContrast(bits.get(), 10, 10), nullptr);
    Block ramp = Ramp();
    EXPECT_EQ(AdjustContrast(ramp.get(), 101), nullptr);
    EXPECT_EQ(AdjustContrast(ramp.get(), -101), nullptr);
    EXPECT_EQ(AdjustBrightnessAndContrast(ramp.get(), 516, 10), nullptr);
    EXPECT_EQ(AdjustBrightnessAndContrast(ramp.get(), -512, 10), nullptr);
    EXPECT_NE(Block(AdjustBrightnessAndContrast(ramp.get(), 515, -100)).get(), nullptr);
    EXPECT_NE(Block(AdjustBrightnessAndContrast(ramp.get(), -511, 100)).get(), nullptr);
}

TEST(Contrast, ConcurrentCallsGetTheirOwnTables) {
    Block page = MakePageWith(Shape(300, 200, 24), [](int x, int y, int c) { return (x + y * 3 + c * 50) % 256; });
    const auto want40 = Block(AdjustContrast(page.get(), 40)).bytes();
    const auto wantMinus60 = Block(AdjustBrightnessAndContrast(page.get(), 20, -60)).bytes();
    bool ok1 = true, ok2 = true;
    std::thread a([&] {
        for (int i = 0; i < 40; ++i) ok1 = ok1 && Block(AdjustContrast(page.get(), 40)).bytes() == want40;
    });
    std::thread b([&] {
        for (int i = 0; i < 40; ++i)
            ok2 = ok2 && Block(AdjustBrightnessAndContrast(page.get(), 20, -60)).bytes() == wantMinus60;
    });
    a.join();
    b.join();
    EXPECT_TRUE(ok1);
    EXPECT_TRUE(ok2);
}

// ---- Text effect ----------------------------------------------------------------

TEST(TextEffect, NeighbourhoodReachesRightAndUp) {
    // One dark pixel at column 5, storage row 5 of a white page.
    Block page = MakePageWith(Shape(12, 12, 8), [](int x, int y, int) { return x == 5 && y == 5 ? 0 : 255; });
    Block thick(TextEffect(page.get(), 1));
    ASSERT_TRUE(thick);
    PageView v(thick.get());
    // Output (x, y) = min over columns x..x+1, stored rows y..y+1: the dot
    // grows left and down (toward lower columns and stored rows).
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x)
            ASSERT_EQ(v.get(x, y), (x == 4 || x == 5) && (y == 4 || y == 5) ? 0 : 255) << x << "," << y;
    Block thin(TextEffect(page.get(), -1));
    PageView t(thin.get());
    for (int y = 0; y < 12; ++y)
        for (int x = 0; x < 12; ++x) ASSERT_EQ(t.get(x, y), 255);
    Block same(TextEffect(page.get(), 0));
    EXPECT_TRUE(qtest::SamePixels(same.get(), page.get()));
}

TEST(TextEffect, BitonalPagesByPalette) {
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        // Ink is bit 0 on a dark-first page, bit 1 on a light-first page.
        const int ink = p == Palette::kDarkFirst ? 0 : 1;
        Block page = MakePageWith(Shape(37, 9, 1, p), [&](int x, int y, int) { return x == 20 && y == 4 ? ink : 1 - ink; });
        Block out(TextEffect(page.get(), 2));
        ASSERT_TRUE(out);
        PageView v(out.get());
        int inked = 0;
        for (int y = 0; y < 9; ++y)
            for (int x = 0; x < 37; ++x) inked += v.get(x, y) == ink;
        // The minimum spreads 0 bits: ink grows on the dark-first page,
        // vanishes on the light-first one.
        EXPECT_EQ(inked, p == Palette::kDarkFirst ? 9 : 0);
    }
}

TEST(TextEffect, RectangleFiltersOnlyInside) {
    Block page = MakePageWith(Shape(40, 30, 8), [](int x, int y, int) { return (x * 7 + y * 13) % 256; });
    RECT full{0, 0, 40, 30};
    EXPECT_EQ(Block(TextEffectRect(page.get(), &full, 2)).bytes(), Block(TextEffect(page.get(), 2)).bytes());
    RECT part{10, 5, 20, 15};  // storage rows 15..24
    Block out(TextEffectRect(page.get(), &part, -2));
    PageView in(page.get()), res(out.get());
    for (int y = 0; y < 30; ++y)
        for (int x = 0; x < 40; ++x)
            if (x < 10 || x >= 20 || y < 15 || y >= 25) {
                ASSERT_EQ(res.get(x, y), in.get(x, y));
            }
    RECT outside{100, 100, 120, 120};
    EXPECT_TRUE(qtest::SamePixels(Block(TextEffectRect(page.get(), &outside, 3)).get(), page.get()));
    EXPECT_EQ(TextEffect(MakePage(Shape(8, 8, 24)).get(), 1), nullptr);
    EXPECT_EQ(TextEffectRect(page.get(), nullptr, 1), nullptr);
}

// ---- Fill -------------------------------------------------------------------------

TEST(Fill, ValuesByPaletteAndDepth) {
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        Block page = MakePage(Shape(20, 10, 1, p));
        RECT r{2, 0, 10, 4};  // top rows: storage rows 6..9
        Block white(Fill(page.get(), &r, 255)), black(Fill(page.get(), &r, 0));
        const int whiteBit = p == Palette::kDarkFirst ? 1 : 0;
        EXPECT_EQ(PageView(white.get()).get(2, 9), whiteBit);
        EXPECT_EQ(PageView(black.get()).get(9, 6), 1 - whiteBit);
        EXPECT_EQ(PageView(black.get()).get(9, 5), 0);  // outside: untouched zero bits
    }
    Block colour = MakePage(Shape(10, 10, 24));
    RECT r{0, 0, 10, 10};
    Block gray(Fill(colour.get(), &r, 128));
    EXPECT_EQ(PageView(gray.get()).get(3, 3, 2), 128);
}

TEST(Fill, OutsideAndClipping) {
    Block page = MakePageWith(Shape(16, 12, 8), [](int x, int y, int) { return x + y; });
    RECT whole{0, 0, 16, 12};
    EXPECT_TRUE(qtest::SamePixels(Block(FillOutside(page.get(), &whole, 9)).get(), page.get()));
    RECT corner{0, 0, 10, 10};
    Block top(Fill(page.get(), &corner, 200));
    EXPECT_EQ(PageView(top.get()).get(0, 11), 200);  // the top row is the last stored row
    EXPECT_EQ(PageView(top.get()).get(0, 1), 1);
    RECT beyond{-5, -5, 100, 3};
    Block clipped(FillOutside(page.get(), &beyond, 7));
    ASSERT_TRUE(clipped);
    EXPECT_EQ(PageView(clipped.get()).get(15, 11), 15 + 11);
    EXPECT_EQ(PageView(clipped.get()).get(15, 8), 7);
    RECT inverted{10, 10, 2, 2};
    EXPECT_TRUE(qtest::SamePixels(Block(Fill(page.get(), &inverted, 0)).get(), page.get()));
    EXPECT_EQ(Fill(page.get(), &whole, 256), nullptr);
    EXPECT_EQ(Fill(page.get(), nullptr, 0), nullptr);
}

// ---- Image arithmetic -----------------------------------------------------------

// 1-bit pages (bit 0 black) whose four quarters hold the four bit pairs.
Block Quarter(int which) {
    return MakePageWith(Shape(16, 2, 1), [which](int x, int, int) { return which == 0 ? (x / 4) & 1 : (x / 8) & 1; });
}

TEST(Arithmetic, TruthTables) {
    Block a = Quarter(0), b = Quarter(1);
    const auto before = a.bytes();
    Block orr(ImageOr(a.get(), b.get(), 0, 0, 0, 0, 16, 2));
    EXPECT_EQ(a.bytes(), before);
    Block andd(ImageAnd(a.get(), b.get(), 0, 0, 0, 0, 16, 2));
    PageView o(orr.get()), n(andd.get()), pa(a.get());
    for (int x = 0; x < 16; ++x) {
        const int p = (x / 4) & 1, q = (x / 8) & 1;
        EXPECT_EQ(o.get(x, 0), p | q);
        EXPECT_EQ(n.get(x, 0), p & q);
        EXPECT_EQ(pa.get(x, 0), p & q);  // page 1's own block holds the result too
    }
    Block less(GetLess(Quarter(0).get(), Quarter(1).get()));
    PageView l(less.get());
    for (int x = 0; x < 16; ++x) EXPECT_EQ(l.get(x, 1), ((x / 4) & 1) > ((x / 8) & 1) ? 1 : 0);
    Block self(GetLess(b.get(), b.get()));
    PageView s(self.get());
    for (int x = 0; x < 16; ++x) EXPECT_EQ(s.get(x, 0), 0);
}

TEST(Arithmetic, RectanglesAtDifferentPlacesAndHeaders) {
    Block p1 = MakePageWith(Shape(120, 80, 8), [](int, int, int) { return 0xF0; });
    Block p2 = MakePageWith(Shape(200, 100, 8, Palette::kLightFirst), [](int x, int y, int) {
        const int row = 99 - y;
        return x >= 100 && x < 110 && row >= 50 && row < 60 ? 0x3C : 0xFF;
    });
    Block out(ImageOr(p1.get(), p2.get(), 0, 0, 100, 50, 10, 10));
    ASSERT_TRUE(out);
    EXPECT_EQ(out.header().biWidth, 120);
    PageView v(out.get());
    EXPECT_EQ(v.get(0, 79), 0xFC);  // page 1's top-left corner
    EXPECT_EQ(v.get(9, 70), 0xFC);
    EXPECT_EQ(v.get(10, 79), 0xF0);
    EXPECT_EQ(v.get(0, 69), 0xF0);
    // Page 2's colour table comes with the result.
    EXPECT_GT(v.header()->biSize, 0u);
    const auto *table = reinterpret_cast<const RGBQUAD *>(reinterpret_cast<const std::uint8_t *>(v.header()) + 40);
    EXPECT_EQ(table[0].rgbBlue, 255);
    // Rectangles reaching outside are clipped; depths must agree.
    Block clipped(ImageOr(p1.get(), p2.get(), 115, -5, 195, 95, 50, 50));
    EXPECT_TRUE(clipped);
    EXPECT_EQ(ImageAnd(p1.get(), MakePage(Shape(10, 10, 24)).get(), 0, 0, 0, 0, 5, 5), nullptr);
    EXPECT_EQ(GetLess(p1.get(), p2.get()), nullptr);  // sizes differ
}

TEST(Arithmetic, GetLessOnGrayPages) {
    Block a = MakePageWith(Shape(4, 1, 8), [](int x, int, int) { return x * 10; });
    Block b = MakePageWith(Shape(4, 1, 8), [](int, int, int) { return 15; });
    Block out(GetLess(a.get(), b.get()));
    ASSERT_TRUE(out);
    EXPECT_EQ(Levels(out.get()), (std::vector<int>{0, 0, 255, 255}));
}

// ---- Mode conversion ---------------------------------------------------------------

TEST(ConvertMode, EveryPairOfDepths) {
    for (int from : {1, 8, 24, 32}) {
        Block page = MakePageWith(Shape(13, 5, from), [from](int x, int y, int c) {
            return from == 1 ? (x + y) & 1 : (x * 20 + y * 7 + c) % 256;
        });
        for (int to : {1, 8, 24, 32}) {
            Block out(ConvertMode(page.get(), to, 128));
            ASSERT_TRUE(out) << from << "->" << to;
            const BITMAPINFOHEADER h = out.header();
            EXPECT_EQ(h.biBitCount, to);
            EXPECT_EQ(h.biWidth, 13);
            EXPECT_EQ(h.biClrUsed, 0u);
            EXPECT_EQ(h.biSizeImage, static_cast<DWORD>(quarvel::DibRowStride(13, to) * 5));
            const std::size_t table = to == 1 ? 2 : to == 8 ? 256 : 0;
            EXPECT_EQ(GlobalSize(out.get()), 40 + 4 * table + h.biSizeImage);
        }
    }
    EXPECT_EQ(ConvertMode(MakePage(Shape(4, 4, 8)).get(), 4, 128), nullptr);
}

TEST(ConvertMode, PaletteRules) {
    // A light-first 1-bit page to mode 1 keeps its bits under a
    // black-then-white table: its colours are exchanged.
    Block light = MakePageWith(Shape(9, 1, 1, Palette::kLightFirst), [](int x, int, int) { return x & 1; });
    Block bw(ConvertMode(light.get(), 1, 128));
    PageView v(bw.get());
    for (int x = 0; x < 9; ++x) EXPECT_EQ(v.get(x, 0), x & 1);
    // An 8-bit page to mode 8 keeps its values under a gray ramp.
    Block gray = MakePageWith(Shape(4, 1, 8, Palette::kLightFirst), [](int x, int, int) { return x * 50; });
    Block g(ConvertMode(gray.get(), 8, 0));
    EXPECT_EQ(Levels(g.get()), (std::vector<int>{0, 50, 100, 150}));
    const auto *table = reinterpret_cast<const RGBQUAD *>(reinterpret_cast<const std::uint8_t *>(PageView(g.get()).header()) + 40);
    EXPECT_EQ(table[200].rgbRed, 200);
    // Luminance 127 is black, 128 white at threshold 128.
    Block colour = MakePageWith(Shape(2, 1, 24), [](int x, int, int) { return 127 + x; });
    Block b(ConvertMode(colour.get(), 1, 128));
    EXPECT_EQ(PageView(b.get()).get(0, 0), 0);
    EXPECT_EQ(PageView(b.get()).get(1, 0), 1);
}

TEST(ConvertModeToGrayEx, RedAndBlueBecomeBlack) {
    const int px[4][3] = {{20, 30, 200}, {20, 30, 59}, {150, 30, 210}, {170, 30, 210}};
    for (int bits : {24, 32}) {
        Block page = MakePageWith(Shape(4, 1, bits), [&](int x, int, int c) { return c < 3 ? px[x][c] : 0; });
        Block out(ConvertModeToGrayEx(page.get(), 50, 0));
        ASSERT_TRUE(out);
        const std::vector<int> g = Levels(out.get());
        const std::vector<int> plain = Levels(Block(ConvertMode(page.get(), 8, 0)).get());
        EXPECT_EQ(g[0], 0);
        EXPECT_EQ(g[1], plain[1]);
        EXPECT_EQ(g[2], 0);
        EXPECT_EQ(g[3], plain[3]);
        EXPECT_EQ(Block(ConvertModeToGrayEx(page.get(), 0, 0)).bytes(), Block(ConvertMode(page.get(), 8, 0)).bytes());
        Block blue(ConvertModeToGrayEx(page.get(), 0, 100));
        EXPECT_EQ(Levels(blue.get()), plain);
    }
}

// ---- Resize and thumbnail ----------------------------------------------------------

TEST(Resize, FittedSizesAndInterpolation) {
    int w = 0, h = 0;
    ASSERT_TRUE(quarvel::pixel::FittedSize(2000, 1000, 200, 200, &w, &h));
    EXPECT_EQ(w, 200);
    EXPECT_EQ(h, 100);
    ASSERT_TRUE(quarvel::pixel::FittedSize(100, 100, 300, 200, &w, &h));
    EXPECT_EQ(w, 200);
    EXPECT_EQ(h, 200);
    Block big = MakePageWith(Shape(2000, 1000, 8), [](int x, int, int) { return x < 1000 ? 0 : 200; });
    Block thumb(Thumbnail(big.get(), 200, 200));
    ASSERT_TRUE(thumb);
    EXPECT_EQ(thumb.header().biWidth, 200);
    EXPECT_EQ(thumb.header().biHeight, 100);
    // Super-sampling averages: the column at the boundary is a mix.
    EXPECT_EQ(PageView(thumb.get()).get(50, 50), 0);
    EXPECT_EQ(PageView(thumb.get()).get(150, 50), 200);
    Block tiny(Thumbnail(big.get(), 0, 0));
    EXPECT_EQ(tiny.header().biWidth, 1);
    EXPECT_EQ(tiny.header().biHeight, 1);
}

TEST(Resize, ThumbnailOfABitonalPageIsGray) {
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        const int ink = p == Palette::kDarkFirst ? 0 : 1;
        Block page = MakePageWith(Shape(64, 64, 1, p), [&](int x, int, int) { return x < 32 ? ink : 1 - ink; });
        Block out(Thumbnail(page.get(), 16, 16));
        ASSERT_TRUE(out);
        EXPECT_EQ(out.header().biBitCount, 8);
        EXPECT_EQ(out.header().biClrUsed, 256u);
        EXPECT_EQ(PageView(out.get()).get(2, 2), 0);  // ink stays dark
        EXPECT_EQ(PageView(out.get()).get(13, 2), 255);
    }
}

TEST(Resize, CentresOnWhiteMargins) {
    Block page = MakePageWith(Shape(2000, 1000, 24), [](int, int, int) { return 10; });
    Block out(Resize(page.get(), 500, 500));
    ASSERT_TRUE(out);
    PageView v(out.get());
    EXPECT_EQ(v.get(250, 124), 255);
    EXPECT_EQ(v.get(250, 125), 10);
    EXPECT_EQ(v.get(250, 374), 10);
    EXPECT_EQ(v.get(250, 375), 255);
    Block exact = MakePageWith(Shape(1000, 500, 8), [](int, int, int) { return 10; });
    Block full(Resize(exact.get(), 500, 250));
    EXPECT_EQ(PageView(full.get()).get(0, 0), 10);
    EXPECT_EQ(PageView(full.get()).get(499, 249), 10);
    Block bits = MakePageWith(Shape(100, 50, 1), [](int x, int, int) { return x < 50 ? 0 : 1; });
    Block halved(Resize(bits.get(), 50, 25));
    ASSERT_TRUE(halved);
    EXPECT_EQ(PageView(halved.get()).get(10, 10), 0);
    EXPECT_EQ(PageView(halved.get()).get(40, 10), 1);
    EXPECT_EQ(Resize(page.get(), 0, 10), nullptr);
    EXPECT_EQ(Resize(page.get(), 10, -1), nullptr);
}

}  // namespace
