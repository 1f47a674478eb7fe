// Mirror, Flip and Invert through the C interface: every pixel checked over
// every depth and padded widths, padding left zero, twice is the identity,
// and the caller's block is untouched.
#include <gtest/gtest.h>

#include "support/pages.h"

namespace {

using qtest::Block;
using qtest::PageView;

struct Dims {
    int bitCount, width, height;
};

class SamePageOps : public ::testing::TestWithParam<Dims> {
protected:
    Block Draw() const {
        const Dims d = GetParam();
        return qtest::MakePageWith(qtest::Shape(d.width, d.height, d.bitCount), [&](int x, int y, int c) {
            return d.bitCount == 1 ? ((x * 7 + y * 3) % 5 < 2) : (x * 31 + y * 17 + c * 101) % 256;
        });
    }
};

TEST_P(SamePageOps, EveryPixelMovesOrComplements) {
    Block page = Draw();
    const auto before = page.bytes();
    Block mirrored(Mirror(page.get())), flipped(Flip(page.get())), inverted(Invert(page.get()));
    ASSERT_TRUE(mirrored && flipped && inverted);
    PageView in(page.get()), m(mirrored.get()), f(flipped.get()), n(inverted.get());
    const int w = in.width(), h = in.height(), bits = in.bitCount();
    const int channels = bits >= 24 ? bits / 8 : 1, max = bits == 1 ? 1 : 255;
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x)
            for (int c = 0; c < channels; ++c) {
                const int v = in.get(x, y, c);
                ASSERT_EQ(m.get(w - 1 - x, y, c), v) << x << "," << y;
                ASSERT_EQ(f.get(x, h - 1 - y, c), v) << x << "," << y;
                ASSERT_EQ(n.get(x, y, c), c == 3 ? v : max - v) << x << "," << y;  // the fourth byte is kept
            }
    for (HGLOBAL out : {mirrored.get(), flipped.get(), inverted.get()}) EXPECT_EQ(qtest::DirtyPaddingRow(out), -1);
    for (auto op : {Mirror, Flip, Invert}) {
        Block once(op(page.get()));
        EXPECT_EQ(Block(op(once.get())).bytes(), before);
    }
    EXPECT_EQ(page.bytes(), before);
}

INSTANTIATE_TEST_SUITE_P(Depths, SamePageOps,
                         ::testing::Values(Dims{1, 33, 5}, Dims{1, 64, 3}, Dims{1, 1, 1}, Dims{1, 7, 9}, Dims{8, 5, 4},
                                           Dims{8, 1, 1}, Dims{24, 5, 3}, Dims{24, 4, 2}, Dims{32, 3, 3}),
                         [](const auto &info) {
                             return std::to_string(info.param.bitCount) + "bit_" + std::to_string(info.param.width) +
                                    "x" + std::to_string(info.param.height);
                         });

}  // namespace
