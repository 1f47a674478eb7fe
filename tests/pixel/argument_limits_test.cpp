// Arguments at and beyond the usual ranges: contrast 0 is the brightness
// change alone whatever the brightness, brightness saturates at the ends of
// int, and text-effect levels of any size work (a level wider than the page
// acts as the page's width), the packed 1-bit filter agreeing with the 8-bit
// one pixel for pixel.
#include <gtest/gtest.h>

#include <climits>
#include <vector>

#include "support/pages.h"

using qtest::Block;
using qtest::MakePageWith;
using qtest::PageView;
using qtest::Shape;

namespace {

TEST(ToneLimits, BrightnessSaturatesAtTheEndsOfIntAndContrastZeroIsItAlone) {
    for (int bits : {8, 24, 32}) {
        Block page = MakePageWith(Shape(5, 3, bits), [](int x, int y, int c) { return 40 * x + 10 * y + c; });
        for (int b : {INT_MAX, INT_MIN, 600, -512}) {
            Block out(AdjustBrightness(page.get(), b)), both(AdjustBrightnessAndContrast(page.get(), b, 0));
            ASSERT_TRUE(out && both);
            EXPECT_EQ(both.bytes(), out.bytes()) << b;
            PageView in(page.get()), v(out.get());
            for (int y = 0; y < 3; ++y)
                for (int x = 0; x < 5; ++x)
                    for (int c = 0; c < bits / 8; ++c)
                        ASSERT_EQ(v.get(x, y, c), c == 3 ? in.get(x, y, c) : (b > 0 ? 255 : 0)) << bits;
        }
    }
    Block ramp = MakePageWith(Shape(256, 1, 8), [](int x, int, int) { return x; });
    for (int b : {516, 40, -40})
        EXPECT_EQ(Block(AdjustBrightnessAndContrast(ramp.get(), b, 0)).bytes(), Block(AdjustBrightness(ramp.get(), b)).bytes()) << b;
}

// Dark (1) or light (0) per pixel of a page, in storage rows.
std::vector<int> Darkness(HGLOBAL h) {
    PageView v(h);
    std::vector<int> out;
    for (int y = 0; y < v.height(); ++y)
        for (int x = 0; x < v.width(); ++x) out.push_back(v.bitCount() == 1 ? v.get(x, y) == 0 : v.get(x, y) < 128);
    return out;
}

TEST(TextEffectLimits, AnyLevelOnBothDepthsAgrees) {
    // Scattered dark specks on 1-bit (bit 0 black) and 8-bit copies of one page.
    const int w = 45, h = 29;
    auto dark = [](int x, int y) { return (x * 7 + y * 11) % 23 == 0 || (x > 30 && y < 4); };
    Block one = MakePageWith(Shape(w, h, 1), [&](int x, int y, int) { return dark(x, y) ? 0 : 1; });
    Block gray = MakePageWith(Shape(w, h, 8), [&](int x, int y, int) { return dark(x, y) ? 0 : 255; });
    const RECT rect{3, 5, 40, 22};
    for (int level : {1, 2, 3, 7, 8, 40, 44, 45, 300, INT_MAX, -1, -2, -9, -300, INT_MIN}) {
        Block a(TextEffect(one.get(), level)), b(TextEffect(gray.get(), level));
        Block c(TextEffectRect(one.get(), const_cast<RECT *>(&rect), level));
        Block d(TextEffectRect(gray.get(), const_cast<RECT *>(&rect), level));
        ASSERT_TRUE(a && b && c && d) << level;
        EXPECT_EQ(Darkness(a.get()), Darkness(b.get())) << level;
        EXPECT_EQ(Darkness(c.get()), Darkness(d.get())) << level;
    }
    // Beyond the page's width and height every level gives the same page.
    for (int level : {45, 300, INT_MAX}) {
        EXPECT_EQ(Block(TextEffect(gray.get(), level)).bytes(), Block(TextEffect(gray.get(), 44)).bytes());
        EXPECT_EQ(Block(TextEffect(one.get(), -level)).bytes(), Block(TextEffect(one.get(), -44)).bytes());
    }
}

TEST(TextEffectLimits, LevelThreeHundredOnALargePage) {
    // One dark pixel grows into a 301 x 301 square reaching left and down.
    Block page = MakePageWith(Shape(600, 600, 8), [](int x, int y, int) { return x == 400 && y == 450 ? 0 : 255; });
    Block out(TextEffect(page.get(), 300));
    ASSERT_TRUE(out);
    PageView v(out.get());
    EXPECT_EQ(qtest::DarkCount(out.get()), 301 * 301);
    EXPECT_EQ((std::vector<int>{v.get(100, 150), v.get(99, 150), v.get(400, 451)}), (std::vector<int>{0, 255, 255}));
}

TEST(SizeLimits, ResultsSizedByArgumentsStayWithinTheLimit) {
    // 64 times the page's pixels, or 4096 x 4096 for small pages.
    Block tiny = qtest::MakePage(Shape(1, 1, 1)), page = qtest::MakePage(Shape(600, 500, 1));
    EXPECT_TRUE(Block(Resize(tiny.get(), 4096, 4096)));
    EXPECT_FALSE(Block(Resize(tiny.get(), 4097, 4096)));
    EXPECT_FALSE(Block(Resize(tiny.get(), INT_MAX, 5)));
    EXPECT_TRUE(Block(Resize(page.get(), 4800, 4000)));
    EXPECT_FALSE(Block(Resize(page.get(), 4801, 4000)));
    EXPECT_TRUE(Block(Thumbnail(tiny.get(), 4096, 4096)));
    EXPECT_FALSE(Block(Thumbnail(tiny.get(), 5000, 5000)));
}

}  // namespace
