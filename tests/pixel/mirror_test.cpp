// Mirror, Flip and Invert through the C interface, over every depth and
// padded widths.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>

#include "support/pages.h"

namespace {

using qtest::Block;
using qtest::PageShape;
using qtest::PageView;

struct Shape {
    int bitCount;
    int width;
    int height;
};

class SamePageOps : public ::testing::TestWithParam<Shape> {
protected:
    Block Draw() const {
        const Shape s = GetParam();
        PageShape shape;
        shape.width = s.width;
        shape.height = s.height;
        shape.bitCount = s.bitCount;
        return qtest::MakePageWith(shape, [&](int x, int y, int c) {
            return s.bitCount == 1 ? ((x * 7 + y * 3) % 5 < 2) : (x * 31 + y * 17 + c * 101) % 256;
        });
    }
};

TEST_P(SamePageOps, MirrorMovesColumnsAndKeepsPadding) {
    Block page = Draw();
    Block out(Mirror(page.get()));
    ASSERT_TRUE(out);
    PageView in(page.get()), res(out.get());
    const int channels = in.bitCount() >= 24 ? in.bitCount() / 8 : 1;
    for (int y = 0; y < in.height(); ++y)
        for (int x = 0; x < in.width(); ++x)
            for (int c = 0; c < channels; ++c)
                ASSERT_EQ(res.get(in.width() - 1 - x, y, c), in.get(x, y, c)) << x << "," << y;
    // Row padding (bytes and bits past the last pixel) stays 0.
    const int usedBits = in.width() * in.bitCount();
    for (int y = 0; y < in.height(); ++y)
        for (int b = usedBits; b < in.stride() * 8; ++b)
            ASSERT_EQ((res.row(y)[b >> 3] >> (7 - (b & 7))) & 1, 0) << "padding bit " << b;
}

TEST_P(SamePageOps, FlipMovesRows) {
    Block page = Draw();
    Block out(Flip(page.get()));
    ASSERT_TRUE(out);
    PageView in(page.get()), res(out.get());
    const int usedBytes = (in.width() * in.bitCount() + 7) / 8;
    for (int y = 0; y < in.height(); ++y)
        ASSERT_EQ(std::memcmp(res.row(in.height() - 1 - y), in.row(y), usedBytes), 0) << y;
}

TEST_P(SamePageOps, InvertComplementsColoursAndKeepsFourthByte) {
    Block page = Draw();
    Block out(Invert(page.get()));
    ASSERT_TRUE(out);
    PageView in(page.get()), res(out.get());
    const int channels = in.bitCount() >= 24 ? in.bitCount() / 8 : 1;
    const int max = in.bitCount() == 1 ? 1 : 255;
    for (int y = 0; y < in.height(); ++y)
        for (int x = 0; x < in.width(); ++x)
            for (int c = 0; c < channels; ++c)
                ASSERT_EQ(res.get(x, y, c), c == 3 ? in.get(x, y, c) : max - in.get(x, y, c));
}

TEST_P(SamePageOps, TwiceIsTheIdentityAndTheInputIsUntouched) {
    Block page = Draw();
    const auto before = page.bytes();
    for (auto op : {Mirror, Flip, Invert}) {
        Block once(op(page.get()));
        Block twice(op(once.get()));
        ASSERT_TRUE(twice);
        EXPECT_EQ(twice.bytes(), before);
    }
    EXPECT_EQ(page.bytes(), before);
}

INSTANTIATE_TEST_SUITE_P(Depths, SamePageOps,
                         ::testing::Values(Shape{1, 33, 5}, Shape{1, 64, 3}, Shape{1, 1, 1}, Shape{1, 7, 9},
                                           Shape{8, 5, 4}, Shape{8, 1, 1}, Shape{24, 5, 3}, Shape{24, 4, 2},
                                           Shape{32, 3, 3}),
                         [](const auto &info) {
                             return std::to_string(info.param.bitCount) + "bit_" + std::to_string(info.param.width) +
                                    "x" + std::to_string(info.param.height);
                         });

TEST(SamePageOps, ResultBlockCopiesHeaderTableAndAllocatedSize) {
    PageShape shape;
    shape.width = 6;
    shape.height = 3;
    shape.bitCount = 8;
    shape.clrUsed = 2;
    shape.extraBytes = 37;
    Block page = qtest::MakePageWith(shape, [](int x, int y, int) { return x + 10 * y; });
    {
        PageView v(page.get());
        v.header()->biSizeImage = 0;  // kept as it is in the copied header
    }
    Block out(Mirror(page.get()));
    ASSERT_TRUE(out);
    const auto in = page.bytes(), res = out.bytes();
    ASSERT_EQ(res.size(), in.size());
    EXPECT_TRUE(std::equal(in.begin(), in.begin() + 48, res.begin()));  // header + 2-entry table
    EXPECT_EQ(PageView(out.get()).get(5, 2), 20);                       // pixels start at byte 48
    for (std::size_t i = res.size() - 37; i < res.size(); ++i) EXPECT_EQ(res[i], 0) << i;
}

TEST(SamePageOps, InvertOfAColourPixel) {
    PageShape shape;
    shape.width = 1;
    shape.height = 1;
    shape.bitCount = 24;
    const int bgr[3] = {10, 200, 255};
    Block page = qtest::MakePageWith(shape, [&](int, int, int c) { return bgr[c]; });
    Block out(Invert(page.get()));
    PageView v(out.get());
    EXPECT_EQ(v.get(0, 0, 0), 245);
    EXPECT_EQ(v.get(0, 0, 1), 55);
    EXPECT_EQ(v.get(0, 0, 2), 0);
}

TEST(SamePageOps, RealScanRoundTrips) {
    for (const char *name : {"deskew-2.png", "linn.png"}) {
        Block page = qtest::LoadScan(name);
        Block mirrored(Mirror(page.get()));
        Block back(Mirror(mirrored.get()));
        Block flipped(Flip(back.get()));
        Block flippedBack(Flip(flipped.get()));
        ASSERT_TRUE(flippedBack) << name;
        EXPECT_EQ(flippedBack.bytes(), page.bytes()) << name;
        EXPECT_FALSE(qtest::SamePixels(mirrored.get(), page.get())) << name;
    }
}

}  // namespace
