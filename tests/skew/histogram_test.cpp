// The thresholds' histogram and the skew search's reduced raster, made
// straight from a page's rows, against the decoded full raster: every depth,
// padded widths, reductions taller than 16-bit column sums hold.
#include <gtest/gtest.h>

#include <random>

#include "skew/skew.h"
#include "support/pages.h"

namespace {

using namespace quarvel::skew;

TEST(PageInkHistogram, HistogramAndReductionEqualTheDecodedRasters) {
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        SCOPED_TRACE(bits);  // tables are sized by depth alone
        qtest::Block page = qtest::MakePage(qtest::Shape(301, 302, bits));
        auto *p = static_cast<std::uint8_t *>(GlobalLock(page.get()));
        std::mt19937 g(bits);
        const std::size_t size = GlobalSize(page.get());
        for (std::size_t i = 40 + 4 * (bits <= 8 ? 1u << bits : 0u); i < size; ++i) p[i] = static_cast<std::uint8_t>(i % 7 == 0 ? g() : g() % 16);  // mostly dark: sums near their limit
        DibBlock block;
        block.View(p, static_cast<std::uint32_t>(size));
        PageRaster raster;
        LoadPageRaster(raster, block);
        std::uint32_t want[256] = {}, got[256];
        for (std::uint32_t i = 0; i < raster.size(); ++i) ++want[raster.data()[i]];
        ASSERT_TRUE(PageInkHistogram(block, got));
        EXPECT_TRUE(std::equal(want, want + 256, got));
        EXPECT_EQ(OtsuThreshold(got, 301 * 302), OtsuThreshold(raster, RECT{0, 0, 0, 0}));
        EXPECT_EQ(RidlerCalvardThreshold(got), RidlerCalvardThreshold(raster, RECT{0, 0, 0, 0}));
        for (int k : {1, 3, 40, 300}) {  // 300: more rows than 16-bit sums hold
            PageRaster once, twice;
            ASSERT_TRUE(LoadReducedRaster(once, block, k));
            ReduceRaster(twice, raster, RECT{0, 0, raster.width, raster.height}, k, k);
            ASSERT_EQ(once.width * 1000 + once.height, twice.width * 1000 + twice.height) << k;
            EXPECT_TRUE(std::equal(once.data(), once.data() + once.size(), twice.data())) << k;
        }
        GlobalUnlock(page.get());
    }
}

}  // namespace
