// Reading packed DIBs: table sizes, row strides, views, result blocks, and
// the blocks that must be refused.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "frame/convert.h"
#include "frame/view.h"
#include "support/pages.h"

namespace {

using namespace quarvel;
using namespace qtest;

TEST(Dib, ColourCountsPixelOffsetsAndStrides) {
    struct Case {
        int bits;
        std::uint32_t clrUsed;
        std::size_t offset;
    } cases[] = {{8, 0, 1064}, {8, 2, 48}, {1, 0, 48}, {24, 0, 40}, {24, 3, 52}, {32, 0, 40}, {4, 0, 104}};
    for (const Case &c : cases) {
        BITMAPINFOHEADER h{};
        h.biBitCount = static_cast<WORD>(c.bits);
        h.biClrUsed = c.clrUsed;
        EXPECT_EQ(DibPixelBits(&h) - reinterpret_cast<std::uint8_t *>(&h), static_cast<std::ptrdiff_t>(c.offset))
            << c.bits << " bits, biClrUsed " << c.clrUsed;
    }
    EXPECT_EQ((std::vector<int>{DibRowStride(33, 1), DibRowStride(5, 24), DibRowStride(5, 8), DibRowStride(3, 32)}),
              (std::vector<int>{8, 16, 8, 12}));
}

TEST(Dib, RewrittenResultBlocksCarryTheirNewTable) {
    PageShape shape = qtest::Shape(5, 2, 24);
    Block page = qtest::MakePage(shape);
    LockedDib in(page.get());
    struct Case {
        PixelFormat format;
        NewTable table;
        int bits;
        std::uint32_t entries;
    } cases[] = {{PixelFormat::kBitonal, NewTable::kBitonal, 1, 2},
                 {PixelFormat::kGray, NewTable::kGray, 8, 256},
                 {PixelFormat::kBgra, NewTable::kNone, 32, 0},
                 {PixelFormat::kBgr, NewTable::kKeep, 24, 0}};
    for (const Case &c : cases) {
        ResultBlock out = ResultBlock::Rewritten(in, c.format, 7, 4, c.table);
        ASSERT_TRUE(out);
        Block block(out.Release());
        const BITMAPINFOHEADER h = block.header();
        EXPECT_EQ(block.size(), (std::pair{7, 4}));
        EXPECT_EQ(h.biBitCount * 1000 + h.biClrUsed, c.bits * 1000 + c.entries);
        EXPECT_EQ(h.biXPelsPerMeter, 11811);  // carried over
        EXPECT_EQ(h.biSizeImage, static_cast<DWORD>(DibRowStride(7, c.bits) * 4));
        EXPECT_EQ(GlobalSize(block.get()), 40 + 4 * c.entries + h.biSizeImage);
        const auto bytes = block.bytes();
        const std::size_t last = 40 + 4 * (c.entries - 1) + 2;  // black first, then a ramp to white
        EXPECT_TRUE(c.entries == 0 || (bytes[40] == 0 && bytes[45] == 255 / (c.entries - 1) && bytes[last] == 255)) << c.bits;
    }
}

// Each malformed block, and what makes it so.
struct Malformed {
    const char *name;
    void (*spoil)(BITMAPINFOHEADER *h);
    std::size_t blockSize;  // 0: as drawn
    DibError error;
};

const Malformed kMalformed[] = {
    {"NegativeHeight", [](BITMAPINFOHEADER *h) { h->biHeight = -h->biHeight; }, 0, DibError::kBadSize},
    {"ZeroWidth", [](BITMAPINFOHEADER *h) { h->biWidth = 0; }, 0, DibError::kBadSize},
    {"ZeroHeight", [](BITMAPINFOHEADER *h) { h->biHeight = 0; }, 0, DibError::kBadSize},
    {"Compressed", [](BITMAPINFOHEADER *h) { h->biCompression = 1; }, 0, DibError::kCompressed},
    {"FourBit", [](BITMAPINFOHEADER *h) { h->biBitCount = 4; }, 0, DibError::kDepth},
    {"SixteenBit", [](BITMAPINFOHEADER *h) { h->biBitCount = 16; }, 0, DibError::kDepth},
    {"RowsPastTheBlock", [](BITMAPINFOHEADER *h) { h->biHeight += 1; }, 0, DibError::kTooSmall},
    {"HugeColourTable", [](BITMAPINFOHEADER *h) { h->biClrUsed = 0xFFFFFFFFu; }, 0, DibError::kTooSmall},
    {"OverflowingWidth", [](BITMAPINFOHEADER *h) { h->biWidth = 0x7FFFFFFF; }, 0, DibError::kOverflow},
    {"OverflowingRows", [](BITMAPINFOHEADER *h) { h->biWidth = 1 << 20, h->biHeight = 1 << 14; }, 0, DibError::kOverflow},
    {"HeaderCut", [](BITMAPINFOHEADER *) {}, 39, DibError::kTooSmall},
};

class MalformedBlocks : public ::testing::TestWithParam<Malformed> {};

TEST_P(MalformedBlocks, AreRefusedWithoutTouchingTheBlock) {
    const Malformed &m = GetParam();
    PageShape shape = qtest::Shape(9, 4, 24);
    Block drawn = qtest::MakePage(shape);
    std::vector<std::uint8_t> bytes = drawn.bytes();
    m.spoil(reinterpret_cast<BITMAPINFOHEADER *>(bytes.data()));
    const std::size_t size = m.blockSize != 0 ? m.blockSize : bytes.size();
    Block page(GlobalAlloc(GHND, size));
    std::memcpy(GlobalLock(page.get()), bytes.data(), size);
    GlobalUnlock(page.get());
    const auto before = page.bytes();
    {
        LockedDib in(page.get());
        EXPECT_EQ(in.error(), m.error);
    }
    for (auto op : {Mirror, Flip, Invert}) EXPECT_EQ(op(page.get()), nullptr);
    EXPECT_EQ(page.bytes(), before);
    // Every lock was released.
    EXPECT_NE(GlobalLock(page.get()), nullptr);
    EXPECT_FALSE(GlobalUnlock(page.get()));
}

INSTANTIATE_TEST_SUITE_P(Frame, MalformedBlocks, ::testing::ValuesIn(kMalformed),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(Conversions, BitsBecomeGrayByThePalette) {
    // Entry 0 blue byte: 255 and 129 make 0 bits light; 128 makes them dark.
    for (int blue : {255, 129, 128}) {
        PageShape shape = qtest::Shape(10, 2, 1);
        Block page = qtest::MakePageWith(shape, [](int x, int, int) { return x % 2; });
        {
            qtest::PageView v(page.get());
            auto *table = reinterpret_cast<RGBQUAD *>(reinterpret_cast<std::uint8_t *>(v.header()) + 40);
            table[0] = RGBQUAD{static_cast<BYTE>(blue), 0, 0, 0};
        }
        LockedDib in(page.get());
        ImagePtr view = DibToIplImage(in.header());
        ImagePtr gray = MakeGrayImage(view.get(), nullptr, in.header());
        const int zero = blue > 128 ? 255 : 0;
        EXPECT_EQ(RowOf(*gray, 0)[0] * 1000 + RowOf(*gray, 0)[1], zero * 1000 + 255 - zero) << blue;
        ImagePtr colour = MakeColorImage(view.get(), nullptr, in.header(), 24);
        EXPECT_EQ(RowOf(*colour, 1)[3 * 1 + 2], 255 - zero);
        EXPECT_EQ(view->roi, nullptr);
    }
}

TEST(Conversions, ColourToGrayAndBitonalExpansion) {
    const int px[3][4] = {{30, 250, 90, 7}, {255, 255, 255, 0}, {0, 0, 200, 99}};
    for (int bits : {24, 32}) {
        Block page = qtest::MakePageWith(qtest::Shape(3, 1, bits), [&](int x, int, int c) { return px[x][c]; });
        LockedDib in(page.get());
        ImagePtr view = DibToIplImage(in.header());
        ImagePtr expanded = ExpandBitonalToGray(view.get(), in.header());
        EXPECT_EQ(std::vector<int>(RowOf(*expanded, 0), RowOf(*expanded, 0) + 3), (std::vector<int>{90, 255, 200}));  // max(B, R)
        // 0.212671 R + 0.715160 G + 0.072169 B, rounded.
        ImagePtr gray = MakeGrayImage(view.get(), nullptr, in.header());
        EXPECT_EQ(std::vector<int>(RowOf(*gray, 0), RowOf(*gray, 0) + 3), (std::vector<int>{200, 255, 43}));
    }
}

// Row padding and the bytes past the rows of every result of the page's
// size stay zero, also when the result reuses memory a freed block left
// dirty. Pages of at least 1 MiB, each row padded by one byte (1 bit: two
// bits and no byte); colour pages share the 8-bit paths.
TEST(ResultBlocks, PaddingStaysZeroInReusedMemory) {
    using Op = HGLOBAL (*)(HGLOBAL);
    static RECT r{3, 2, 300, 500};
    const std::pair<const char *, Op> ops[] = {
        {"Mirror", Mirror},
        {"Flip", Flip},
        {"Invert", Invert},
        {"AdjustBrightness", [](HGLOBAL h) { return AdjustBrightness(h, 9); }},
        {"AdjustContrast", [](HGLOBAL h) { return AdjustContrast(h, 30); }},
        {"TextEffect", [](HGLOBAL h) { return TextEffect(h, 1); }},
        {"TextEffectRect", [](HGLOBAL h) { return TextEffectRect(h, &r, -1); }},
        {"Fill", [](HGLOBAL h) { return Fill(h, &r, 90); }},
        {"FillOutside", [](HGLOBAL h) { return FillOutside(h, &r, 90); }},
        {"GetLess", [](HGLOBAL h) { return GetLess(h, h); }},
        {"Denoise", [](HGLOBAL h) { return Denoise(h, 2); }},
        {"DenoiseRect", [](HGLOBAL h) { return DenoiseRect(h, &r, 4); }},
        {"RemoveBorder_Fill", [](HGLOBAL h) { return RemoveBorder_Fill(h, 100); }},
        {"RemoveHole", [](HGLOBAL h) { return RemoveHole(h, TRUE, TRUE, TRUE, TRUE, 50, 1, 4, 10, 40, 0.5); }},
        {"Rotate", [](HGLOBAL h) { return Rotate(h, 3.0, 100, 200, 1); }},
        {"RotateEx1", [](HGLOBAL h) { return RotateEx1(h, -2.0, 100, 200, 0); }},
        {"ImageOr", [](HGLOBAL h) { return ImageOr(h, h, 0, 0, 0, 0, 9000, 9000); }},
        {"AddWaterMarkEx", [](HGLOBAL h) {
             static const Block mark = qtest::MakePageWith(qtest::Shape(301, 200, 8), [](int x, int y, int) { return (x ^ y) & 255; });
             return AddWaterMarkEx(h, mark.get());
         }},
    };
    for (int bits : {1, 8}) {
        qtest::PageShape shape = qtest::Shape(bits == 1 ? 8190 : 1023, 1030, bits);
        shape.extraBytes = 37;
        Block page = qtest::MakePageWith(shape, [](int x, int y, int c) { return (x * 13 + y * 7 + c) % 200 > 60; });
        const std::size_t size = GlobalSize(page.get()), end = size - 37;
        for (const auto &[name, op] : ops) {
            qtest::DirtyTheHeap(size);
            const std::string n = name;
            if (bits == 1 && (n.find("Denoise") == 0 || n.find("Remove") == 0)) continue;  // slow on 8 M pixels
            Block out(op(page.get()));
            if (!out) continue;  // not an operation for this depth
            EXPECT_EQ(qtest::DirtyPaddingRow(out.get()), -1) << name << " at " << bits << " bits";
            // Every byte is written: other dirt gives the same block.
            qtest::DirtyTheHeap(size, 0x5A);
            Block again(op(page.get()));
            EXPECT_TRUE(again && again.bytes() == out.bytes()) << name << " at " << bits << " bits";
            const auto bytes = out.bytes();
            if (bytes.size() == size) {  // a copied header keeps the block's size
                EXPECT_EQ(std::count(bytes.begin() + end, bytes.end(), 0), 37) << name << " at " << bits << " bits";
            }
        }
    }
}

}  // namespace
