// Resize of 1-bit pages against its definition: the page resampled as gray
// levels 0 and 255 and thresholded at 128, which is what Resize of the same
// page at 8 bits gives before the threshold. Random sizes cover whole-factor
// reductions (counted on packed bits) and every other case.
#include <gtest/gtest.h>

#include <random>

#include "support/pages.h"

using qtest::Block;
using qtest::PageView;

namespace {

TEST(BitonalResize, EqualsTheThresholdedGrayResize) {
    std::mt19937 rng(11);
    int wholeFactors = 0;
    for (int round = 0; round < 120; ++round) {
        const int k = 1 + static_cast<int>(rng() % 9);
        const int a = 1 + static_cast<int>(rng() % 17), b = 1 + static_cast<int>(rng() % 13);
        // Mostly pages of k times the box (whole factors), sometimes any size.
        const bool whole = round % 3 != 0;
        const int w = whole ? k * a : 1 + static_cast<int>(rng() % 120);
        const int h = whole ? k * b : 1 + static_cast<int>(rng() % 90);
        const int boxW = whole ? a : 1 + static_cast<int>(rng() % 150), boxH = whole ? b : 1 + static_cast<int>(rng() % 150);
        wholeFactors += whole && k > 1;
        const unsigned density = rng() % 4;
        std::vector<int> white(static_cast<std::size_t>(w) * h);
        for (int &v : white) v = (rng() % 4) >= density;
        auto bit = [&](int x, int y, int) { return white[static_cast<std::size_t>(y) * w + x]; };
        Block one = qtest::MakePageWith(qtest::Shape(w, h, 1), bit);
        Block gray = qtest::MakePageWith(qtest::Shape(w, h, 8), [&](int x, int y, int c) { return 255 * bit(x, y, c); });
        Block r1(Resize(one.get(), boxW, boxH)), r8(Resize(gray.get(), boxW, boxH));
        ASSERT_TRUE(r1 && r8) << w << "x" << h << " to " << boxW << "x" << boxH;
        PageView v1(r1.get()), v8(r8.get());
        ASSERT_EQ(v1.width(), v8.width());
        ASSERT_EQ(v1.height(), v8.height());
        for (int y = 0; y < v1.height(); ++y)
            for (int x = 0; x < v1.width(); ++x)
                ASSERT_EQ(v1.get(x, y), v8.get(x, y) >= 128 ? 1 : 0)
                    << w << "x" << h << " to " << boxW << "x" << boxH << " at " << x << "," << y;
    }
    EXPECT_GT(wholeFactors, 50);
}

// A 1-bit resize that would hold more than the intermediate limit in gray
// levels is refused before anything is allocated; whole-factor reductions
// need no gray copy and are never refused.
TEST(BitonalResize, GrayIntermediateIsLimited) {
    Block big = qtest::MakePage(qtest::Shape(6000, 6000, 1));
    ASSERT_TRUE(big);
    EXPECT_EQ(Resize(big.get(), 33000, 33000), nullptr);  // 0.036 + 1.089 billion gray levels
    Block cells(Resize(big.get(), 3000, 3000));            // cells of 2 x 2 counted on bits
    ASSERT_TRUE(cells);
    EXPECT_EQ(PageView(cells.get()).width(), 3000);
}

}  // namespace
