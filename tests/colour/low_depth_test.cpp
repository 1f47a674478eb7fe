// The colour operations hand back an unchanged copy of any page below 24
// bits, including depths the rest of the library refuses (2 bits, say).
#include <gtest/gtest.h>

#include "support/pages.h"

using qtest::Block;

namespace {

TEST(LowDepth, ColourOperationsCopyPagesBelowTwentyFourBits) {
    for (int bits : {1, 2, 4, 8, 16}) {
        qtest::PageShape s = qtest::Shape(13, 7, bits);
        Block page = qtest::MakePage(s);
        {
            qtest::PageView v(page.get());
            for (int y = 0; y < 7; ++y)
                for (int i = 0; i < v.stride(); ++i) v.row(y)[i] = static_cast<std::uint8_t>(i * 37 + y);
        }
        Block gray = qtest::MakePage(qtest::Shape(13, 7, 8));
        RECT all{0, 0, 0, 0};
        Block results[] = {
            Block(EnhanceColor(page.get(), &all, 128, 10, 10, 30, 40, 30, 40)),
            Block(EnhanceColorEx(page.get(), nullptr, &all, 128, 10, 10, 30, 40, 30, 40)),
            Block(EnhanceColorEx1(page.get(), nullptr, nullptr, &all, 128, 10, 10, 30, 40, 30, 40)),
            Block(DeColorize(page.get(), &all, 30, 30, 30)),
            Block(ConvertHongTou(page.get(), gray.get(), 0, 0, 0, 30)),
            Block(ConvertHongTouEx(page.get(), gray.get(), 0, 0, 0, 30, 90)),
        };
        for (const Block &r : results) {
            ASSERT_TRUE(r) << bits;
            EXPECT_EQ(r.bytes(), page.bytes()) << bits;
        }
    }
}

}  // namespace
