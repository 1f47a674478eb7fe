// Canvases sized by arguments are limited by the page: centres of RotateEx
// and RotateEx1 up to a page's width and height off the page turn as always,
// a centre a billion rows away is refused; Crop's canvas may have 64 times
// the page's pixels or 4096 x 4096, no more.
#include <gtest/gtest.h>

#include <cstring>

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

TEST(CanvasLimits, CropCanvasesBeyondTheLimitAreRefusedAndKeepTheRectangle) {
    Block page = qtest::MakePage(qtest::Shape(10, 10, 8));
    struct Case {
        RECT rect;
        int mode, border;
        bool made;
    } cases[] = {
        {{2043, 2043, 2043, 2043}, 3, 0, true},    // 4096 x 4096
        {{2044, 2043, 2043, 2043}, 3, 0, false},   // one column more
        {{0, 0, 4096, 4096}, 4, 0, true},
        {{0, 0, 5000, 4000}, 5, 0, false},
        {{0, 0, 10, 10}, 1, 1 << 29, false},
    };
    for (const Case &c : cases) {
        RECT r = c.rect;
        Block out(Crop(page.get(), &r, c.mode, c.border));
        EXPECT_EQ(static_cast<bool>(out), c.made) << c.mode << " " << c.rect.left;
        if (!c.made) {
            EXPECT_EQ(std::memcmp(&r, &c.rect, sizeof r), 0);
        }
    }
}

}  // namespace
