// RemoveHole's margin at its ends: 0 makes the inner rectangle the whole
// page (the same as no edge flagged), a negative margin searches nothing.
#include <gtest/gtest.h>

#include <climits>

#include "support/pages.h"

using qtest::Block;

namespace {

TEST(HoleMargin, ZeroMarginSearchesTheWholePageAsOneBlot) {
    for (int bits : {1, 8, 24}) {
        Block black = qtest::MakePageWith(qtest::Shape(30, 20, bits), [](int, int, int) { return 0; });
        for (BOOL flag : {FALSE, TRUE}) {
            Block out(RemoveHole(black.get(), flag, flag, flag, flag, 0, 1, 1, 1, 1000, 0.5));
            ASSERT_TRUE(out);
            Block white(Invert(black.get()));
            EXPECT_TRUE(qtest::SamePixels(out.get(), white.get())) << bits << " flags " << flag;
        }
    }
}

TEST(HoleMargin, NegativeMarginGivesAnUnchangedCopy) {
    Block black = qtest::MakePageWith(qtest::Shape(30, 20, 8), [](int, int, int) { return 0; });
    for (int margin : {-1, INT_MIN}) {
        Block out(RemoveHole(black.get(), TRUE, TRUE, TRUE, TRUE, margin, 1, 1, 1, 1000, 0.5));
        ASSERT_TRUE(out);
        EXPECT_EQ(out.bytes(), black.bytes());
    }
}

}  // namespace
