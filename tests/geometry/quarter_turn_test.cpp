// 1-bit quarter turns move 8 x 8 blocks of bits; three turns by 90 degrees
// must equal one by 270 (and by -90) on random bits, for heights that are and
// are not multiples of 8, widths that leave padding, both palettes.
#include <gtest/gtest.h>

#include <random>

#include "support/pages.h"

namespace {

using qtest::Block;

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
