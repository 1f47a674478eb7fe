// The thresholds' histogram, counted straight from a page's rows, against the
// histogram of the decoded raster: every depth, padded widths, short tables.
#include <gtest/gtest.h>

#include <random>

#include "skew/skew.h"
#include "support/pages.h"

namespace {

using namespace quarvel::skew;

TEST(PageInkHistogram, EqualsTheDecodedRastersHistogram) {
    for (int bits : {1, 4, 8, 16, 24, 32}) {
        for (std::uint32_t clrUsed : {0u, 3u}) {
            if (clrUsed != 0 && (bits == 1 || bits > 8)) continue;
            SCOPED_TRACE(bits * 100 + static_cast<int>(clrUsed));
            qtest::PageShape shape = qtest::Shape(37, 9, bits);
            shape.clrUsed = clrUsed;
            qtest::Block page = qtest::MakePage(shape);
            auto *p = static_cast<std::uint8_t *>(GlobalLock(page.get()));
            std::mt19937 g(bits);
            const std::size_t size = GlobalSize(page.get());
            for (std::size_t i = 40 + 4 * (clrUsed ? clrUsed : bits <= 8 ? 1u << bits : 0u); i < size; ++i)
                p[i] = static_cast<std::uint8_t>(g());
            DibBlock block;
            block.View(p, static_cast<std::uint32_t>(size));
            PageRaster raster;
            LoadPageRaster(raster, block);
            std::uint32_t want[256] = {}, got[256];
            for (std::uint32_t i = 0; i < raster.size(); ++i) ++want[raster.data()[i]];
            ASSERT_TRUE(PageInkHistogram(block, got));
            EXPECT_TRUE(std::equal(want, want + 256, got));
            EXPECT_EQ(OtsuThreshold(got, 37 * 9), OtsuThreshold(raster, RECT{0, 0, 0, 0}));
            EXPECT_EQ(RidlerCalvardThreshold(got), RidlerCalvardThreshold(raster, RECT{0, 0, 0, 0}));
            GlobalUnlock(page.get());
        }
    }
}

}  // namespace
