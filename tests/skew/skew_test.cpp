// Page measurements through the C API: thresholds on pages with known
// histograms, skew of drawn text pages turned by known angles and of real
// scans, the precision test on drawn frames, and the answers for blocks that
// cannot be read.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <cstring>

#include "skew/skew.h"
#include "support/pages.h"
#include "text_pages.h"

using namespace qtest;

namespace {

PageShape Gray(int w, int h) { return qtest::Shape(w, h, 8); }

PageShape Colour(int w, int h, int bits = 24) { return qtest::Shape(w, h, bits, Palette::kNone); }

TEST(Thresholds, PagesOfKnownHistograms) {
    // Both answers are 255 minus a threshold on ink (255 - level).
    PageShape bits = qtest::Shape(64, 32, 1, Palette::kLightFirst);  // bit 1 is black
    const struct {
        const char *what;
        Block page;
        unsigned otsu, ridler;
    } cases[] = {
        // Every k ties and the first wins; the means of 0 and 255 meet at 127.
        {"half black", MakePageWith(Colour(20, 10), [](int x, int, int) { return x < 10 ? 0 : 255; }), 255, 127},
        {"uniform", MakePageWith(Gray(33, 7), [](int, int, int) { return 200; }), 255, 200},
        // Ink 195 on 30 %, 35 on the rest: Otsu's variance is flat between
        // the levels, so k = 35; Ridler-Calvard starts at the mean ink 83 and
        // settles at (35 + 195 + 1) / 2 = 115.
        {"30/70", MakePageWith(Gray(10, 10), [](int x, int, int) { return x < 3 ? 60 : 220; }), 255 - 35, 255 - 115},
        // Ink 0 (50 %), 100 (25 %), 255 (25 %): {0, 100} against {255} has
        // the larger between-class variance (9212.8 against 7876.6); the
        // class means 0 and 177.5 keep Ridler-Calvard at the mean ink 89.
        {"three levels", MakePageWith(Gray(4, 4), [](int x, int, int) { return x < 2 ? 255 : x == 2 ? 155 : 0; }), 155,
         255 - 89},
        // Ink 0, 100 and 3 x 255: the squared class distance puts k at 100.
        {"1:1:3", MakePageWith(Gray(5, 1), [](int x, int, int) { return x == 0 ? 255 : x == 1 ? 155 : 0; }), 155, 102},
        {"sparse bits", MakePageWith(bits, [](int x, int y, int) { return (x + y) % 7 == 0; }), 255, 127},
        // Almost all black: the rounded mean ink is already 255.
        {"black bits", MakePageWith(bits, [](int x, int y, int) { return x != 0 || y != 0; }), 255, 0},
    };
    for (const auto &c : cases) {
        EXPECT_EQ(GetBinaryThresholdByOtsu(c.page.get()), c.otsu) << c.what;
        EXPECT_EQ(GetBinaryThresholdByRidCal(c.page.get()), c.ridler) << c.what;
    }
}

TEST(Thresholds, RegionsRestrictTheHistogram) {
    quarvel::skew::PageRaster r;
    ASSERT_TRUE(r.Resize(4, 2));
    const std::uint8_t ink[8] = {0, 0, 255, 255, 40, 40, 40, 40};
    std::memcpy(r.data(), ink, 8);
    EXPECT_EQ(quarvel::skew::RidlerCalvardThreshold(r, RECT{0, 1, 4, 2}), 40);
    EXPECT_EQ(quarvel::skew::RidlerCalvardThreshold(r, RECT{0, 0, 4, 1}), 128);
    EXPECT_EQ(quarvel::skew::RidlerCalvardThreshold(r, RECT{2, 0, 2, 1}), quarvel::skew::RidlerCalvardThreshold(r, RECT{}));
    EXPECT_EQ(quarvel::skew::OtsuThreshold(r, RECT{0, 1, 4, 2}), 0);
}

quarvel::skew::PageRaster Load(HGLOBAL h) {
    quarvel::skew::DibBlock block;
    block.CopyFrom(h);
    quarvel::skew::PageRaster r;
    quarvel::skew::LoadPageRaster(r, block);
    return r;
}

TEST(Raster, DecodesEveryDepthTopRowFirst) {
    // 24 and 32 bits: (10, 20, 31) has ink 255 - 20 = 235; the stored bottom
    // row is the raster's last.
    for (int bits : {24, 32}) {
        Block c = MakePageWith(Colour(3, 2, bits), [](int x, int y, int ch) { return y == 0 && x == 1 ? 10 + 10 * ch + (ch == 2) : 255; });
        auto r = Load(c.get());
        ASSERT_EQ(r.width, 3);
        EXPECT_EQ((std::vector<int>{r.at(1, 1), r.at(1, 0), r.at(2, 1)}), (std::vector<int>{235, 0, 0})) << bits;
    }

    // 16 bits: 0x7FFF has ink 7.
    Block w = MakePage(Colour(2, 1, 16));
    {
        qtest::PageView v(w.get());
        v.row(0)[0] = 0xFF;
        v.row(0)[1] = 0x7F;
    }
    auto r16 = Load(w.get());
    EXPECT_EQ(r16.at(0, 0) * 1000 + r16.at(1, 0), 7255);

    // 1 bit, 10 wide: the second byte's top two bits are pixels 8 and 9; the
    // colours come from the table, whichever order it has.
    for (Palette p : {Palette::kDarkFirst, Palette::kLightFirst}) {
        PageShape s = qtest::Shape(10, 1, 1, p);
        Block b = MakePageWith(s, [p](int x, int, int) {
            const bool black = x == 0 || x == 9;
            return (p == Palette::kLightFirst) == black ? 1 : 0;
        });
        auto r1 = Load(b.get());
        EXPECT_EQ((std::vector<int>{r1.at(0, 0), r1.at(1, 0), r1.at(9, 0)}), (std::vector<int>{255, 0, 255}));
    }
}

TEST(Raster, TableSizeIgnoresClrUsedAndFourBitPages) {
    // biClrUsed is not consulted: an 8-bit page always has 256 entries before
    // its rows, so a block holding only the two entries biClrUsed names is
    // unreadable, and with the whole table index 7 reads entry 7.
    PageShape s = Gray(4, 1);
    s.clrUsed = 2;
    EXPECT_EQ(Load(MakePage(s).get()).width, 0);
    Block b = MakePage(Gray(4, 1));
    {
        qtest::PageView v(b.get());
        v.header()->biClrUsed = 2;
        v.row(0)[0] = 0;
        v.row(0)[1] = 255;
        v.row(0)[2] = 7;
    }
    auto r = Load(b.get());
    ASSERT_EQ(r.width, 4);
    EXPECT_EQ((std::vector<int>{r.at(0, 0), r.at(1, 0), r.at(2, 0)}), (std::vector<int>{255, 0, 255 - 7}));

    Block four = MakePage(qtest::Shape(3, 1, 4));  // gray ramp of 16 entries: index i is 17 i
    {
        qtest::PageView v(four.get());
        v.row(0)[0] = 0x0F;  // pixel 0 index 0 (black), pixel 1 index 15 (white)
        v.row(0)[1] = 0x50;  // pixel 2 index 5
    }
    auto r4 = Load(four.get());
    EXPECT_EQ((std::vector<int>{r4.at(0, 0), r4.at(1, 0), r4.at(2, 0)}), (std::vector<int>{255, 0, 255 - 85}));
}

// A header claiming w x h pixels of `bits` in a block of `size` bytes.
Block Header(int w, int h, int bits, std::size_t size) {
    Block b(GlobalAlloc(GHND, size));
    *static_cast<BITMAPINFOHEADER *>(GlobalLock(b.get())) = BITMAPINFOHEADER{40, w, h, 1, static_cast<WORD>(bits), 0, 0, 0, 0, 0, 0};
    GlobalUnlock(b.get());
    return b;
}

// Headers that claim huge pages without the rows to back them, and pages
// beyond the largest raster, are answered at once, without decoding.
TEST(Raster, UnreadableBlocksGiveTheEmptyPageAnswersAtOnce) {
    auto expectEmpty = [](HGLOBAL h) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(GetBinaryThresholdByOtsu(h), 255u);
        EXPECT_EQ(GetBinaryThresholdByRidCal(h), 127u);
        EXPECT_EQ(GetObliquity(h), 0.0);
        double hz = 9, vt = 9;
        EXPECT_EQ(TestPrecision(h, 300, &hz, &vt), -1);
        EXPECT_EQ(hz * 10 + vt, 99);
        EXPECT_LT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 1.0);
    };
    expectEmpty(nullptr);
    expectEmpty(reinterpret_cast<HGLOBAL>(0x12345678));
    expectEmpty(Block(GlobalAlloc(GHND, 20)).get());
    // Depth 0 has rows of 0 bytes: only the one-entry table must fit.
    for (auto [w, h] : {std::pair{1113637592, 1}, std::pair{1, 2147483434}, std::pair{46340, 46340}})
        expectEmpty(Header(w, h, 0, 44).get());
    // 16,385 x 16,384 one-bit pixels: 2^28 + 16,384, with every row present.
    expectEmpty(Header(16385, 16384, 1, 40 + 8 + static_cast<std::size_t>((16385 + 31) / 32 * 4) * 16384).get());

    auto mangled = [](void (*edit)(BITMAPINFOHEADER *)) {
        Block b = MakePageWith(Gray(64, 64), [](int x, int, int) { return x < 32 ? 0 : 255; });
        edit(static_cast<BITMAPINFOHEADER *>(GlobalLock(b.get())));
        GlobalUnlock(b.get());
        return b;
    };
    expectEmpty(mangled([](BITMAPINFOHEADER *h) { h->biHeight = -64; }).get());
    expectEmpty(mangled([](BITMAPINFOHEADER *h) { h->biWidth = 0; }).get());
    expectEmpty(mangled([](BITMAPINFOHEADER *h) { h->biCompression = 1; }).get());
    expectEmpty(mangled([](BITMAPINFOHEADER *h) { h->biHeight = 65; }).get());        // rows beyond the block
    expectEmpty(mangled([](BITMAPINFOHEADER *h) { h->biWidth = 0x40000000; }).get()); // overflowing size
    expectEmpty(mangled([](BITMAPINFOHEADER *h) { h->biSize = 0xFFFF; }).get());

    Block freed = MakePage(Gray(8, 8));
    HGLOBAL stale = freed.get();
    freed.reset();
    expectEmpty(stale);
}

TEST(Raster, UnsupportedDepthReadsAsBlankPaper) {
    PageShape s = Gray(16, 4);
    s.bitCount = 2;
    s.clrUsed = 4;
    Block b = MakePage(s);
    auto r = Load(b.get());
    ASSERT_EQ(r.width, 16);
    for (std::uint32_t i = 0; i < r.size(); ++i) ASSERT_EQ(r.data()[i], 0);
    EXPECT_EQ(GetObliquity(b.get()), 0.0);
}

TEST(Skew, BlankPagesGiveExactlyZero) {
    EXPECT_EQ(GetObliquity(MakePageWith(Colour(600, 900), [](int, int, int) { return 255; }).get()), 0.0);
    EXPECT_EQ(GetObliquity(MakePageWith(Gray(300, 200), [](int, int, int) { return 90; }).get()), 0.0);
}

// The coarse search follows the broad rise of the score toward the text
// angle, 5 degrees at a time; a full page of long lines keeps that rise
// within about 12 degrees.
TEST(Skew, FindsTheTurnOfDrawnText) {
    for (double angle : {-12.0, -3.0, -0.6, 0.35, 4.5, 12.0})
        EXPECT_NEAR(GetObliquity(qtest::TurnedTextPage(qtest::TextLayout{}, angle).get()), angle, 0.15) << angle;
}

TEST(Skew, BeyondThirtyDegreesTheTurnedPageIsSearchedAgain) {
    // One line of words: a score that rises steadily toward its angle, so
    // the bracket walks to +-30 and the page is turned and searched again.
    qtest::TextLayout t;
    t.margin = 300;
    t.lineSpacing = 2000;
    t.xHeight = 30;
    for (double angle : {-27.0, -25.0, 25.0, 27.0}) {
        Block page = qtest::TurnedTextPage(t, angle);
        EXPECT_NEAR(GetObliquity(page.get()), angle, 0.15) << angle;
    }
}

TEST(Skew, RealScans) {
    // A music score whose staff lines rise by about 2.2 degrees toward the
    // right; an upright brochure page.
    EXPECT_NEAR(GetObliquity(qtest::LoadScan("deskew-2.png").get()), -2.2, 0.15);
    EXPECT_NEAR(GetObliquity(qtest::LoadScan("linn.png").get()), 0.0, 0.15);
}

TEST(Skew, ReductionAveragesWholeBlocksOfTheRegion) {
    // Blocks of 3 x 2 over columns 1..6 of a 7 x 5 raster holding 10 x + y:
    // block (i, j) averages to 30 i + 20 + 2 j + 0.5, truncated; the fifth
    // row and column 0 are left out.
    quarvel::skew::PageRaster source, reduced;
    ASSERT_TRUE(source.Resize(7, 5));
    for (int y = 0; y < 5; ++y)
        for (int x = 0; x < 7; ++x) source.data()[y * 7 + x] = static_cast<std::uint8_t>(10 * x + y);
    quarvel::skew::ReduceRaster(reduced, source, RECT{1, 0, 7, 5}, 3, 2);
    ASSERT_EQ(reduced.width * 10 + reduced.height, 22);
    for (int j = 0; j < 2; ++j)
        for (int i = 0; i < 2; ++i) EXPECT_EQ(reduced.at(i, j), 30 * i + 20 + 2 * j) << i << "," << j;
}

// A 300-dpi page with a frame of 3-pixel lines whose outer box is w x h.
// A 3-pixel frame on a 1700 x 1700 page; `gap` display rows of its left side
// from display row 852 are left out.
Block FramePage(int w, int h, int left = 220, int top = 200, int gap = 0) {
    return MakePageWith(Gray(1700, 1700), [=](int x, int y, int) {
        const int dy = 1700 - 1 - y;  // display row
        const bool inBox = x >= left && x < left + w && dy >= top && dy < top + h;
        const bool inner = x >= left + 3 && x < left + w - 3 && dy >= top + 3 && dy < top + h - 3;
        const bool cut = x < left + 3 && dy >= 852 && dy < 852 + gap;
        return inBox && !inner && !cut ? 0 : 255;
    });
}

TEST(Precision, MeasuresADrawnFrame) {
    // L = 1181 at 300 dpi. The sides measure from end point to end point:
    // outer width - 1 and outer height - 1.
    Block page = FramePage(1191, 1176);
    double hz = 0, vt = 0;
    ASSERT_EQ(TestPrecision(page.get(), 300, &hz, &vt), 0);
    EXPECT_NEAR(hz, (1190.0 - 1181) / 1181, 1e-12);
    EXPECT_NEAR(vt, (1175.0 - 1181) / 1181, 1e-12);

    // At 150 dpi L is 590.55 rounded: 591.
    for (auto [side, at, dpi] : {std::tuple{1182, 220, 300}, {592, 600, 150}}) {
        ASSERT_EQ(TestPrecision(FramePage(side, side, at, at).get(), dpi, &hz, &vt), 0);
        EXPECT_EQ((std::pair{hz, vt}), (std::pair{0.0, 0.0})) << dpi;
    }
    // A side needs ink in five of the six rows probed 5, 3 and 1 rows above
    // and below the middle row: a gap over rows +2..+3 leaves five, over +2..+6
    // four.
    EXPECT_EQ(TestPrecision(FramePage(1191, 1176, 220, 200, 2).get(), 300, &hz, &vt), 0);
    EXPECT_EQ(TestPrecision(FramePage(1191, 1176, 220, 200, 5).get(), 300, &hz, &vt), -1);
}

TEST(Precision, RefusesWhatIsNotAFrame) {
    double hz = 5, vt = 5;
    // A blank page, an isolated dot on the middle row, a frame reaching into
    // the half-inch margin band.
    EXPECT_EQ(TestPrecision(MakePageWith(Gray(1700, 1700), [](int, int, int) { return 255; }).get(), 300, &hz, &vt), -1);
    Block dot = MakePageWith(Gray(1700, 1700), [](int x, int y, int) { return x == 400 && y == 850 ? 0 : 255; });
    EXPECT_EQ(TestPrecision(dot.get(), 300, &hz, &vt), -1);
    EXPECT_EQ(TestPrecision(FramePage(1191, 1176, 100).get(), 300, &hz, &vt), -1);
    EXPECT_EQ((std::pair{hz, vt}), (std::pair{5.0, 5.0}));
    // A resolution of 0 or below, and missing outputs.
    Block page = FramePage(1191, 1176);
    for (int dpi : {0, -300}) EXPECT_EQ(TestPrecision(page.get(), dpi, &hz, &vt), -1) << dpi;
    EXPECT_EQ(TestPrecision(page.get(), 300, nullptr, &vt), -1);
}

TEST(Precision, TinyResolutionsStayInsideThePage) {
    // A margin of 0 lets the traces run to the page edges.
    Block page = MakePageWith(Gray(40, 30), [](int x, int, int) { return x == 1 || x == 38 ? 0 : 255; });
    double hz = 0, vt = 0;
    EXPECT_EQ(TestPrecision(page.get(), 1, &hz, &vt), 0);
}

}  // namespace
