// The canvas of RotateEx and RotateEx1 is limited by the page: centres up to
// a page's width and height off the page turn as always, a centre a billion
// rows away is refused instead of making a canvas of millions of pixels.
#include <gtest/gtest.h>

#include "support/pages.h"

using qtest::Block;

namespace {

TEST(CanvasLimits, FarCentresAreRefusedNearOnesTurn) {
    Block one = qtest::MakePage(qtest::Shape(1, 1, 1));
    Block page = qtest::MakePage(qtest::Shape(40, 30, 8));
    for (auto rotate : {RotateEx, RotateEx1}) {
        EXPECT_EQ(rotate(one.get(), -0.044, 256, 2147483407, 1), nullptr);
        EXPECT_EQ(rotate(page.get(), 30.0, -2000000000, 15, 0), nullptr);
        for (auto [x, y] : {std::pair{-40, -30}, std::pair{80, 60}, std::pair{20, 15}})
            for (double angle : {45.0, -135.0, 90.0}) EXPECT_NE(Block(rotate(page.get(), angle, x, y, 0)).get(), nullptr);
    }
}

}  // namespace
