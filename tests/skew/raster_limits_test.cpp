// The measurements' raster limits: a header that claims a huge page without
// the rows to back it, or a page beyond the largest raster, is answered as
// an unreadable page at once instead of being decoded.
#include <gtest/gtest.h>

#include <chrono>

#include "support/pages.h"

namespace {

using qtest::Block;

// Returns the seconds the four measurements took.
double ExpectUnusable(HGLOBAL h) {
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(GetBinaryThresholdByOtsu(h), 255u);
    EXPECT_EQ(GetBinaryThresholdByRidCal(h), 127u);
    EXPECT_EQ(GetObliquity(h), 0.0);
    double hz = 9, vt = 9;
    EXPECT_EQ(TestPrecision(h, 300, &hz, &vt), -1);
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

Block Header(int width, int height, int bits, std::size_t blockSize) {
    Block b(GlobalAlloc(GHND, blockSize));
    auto *h = static_cast<BITMAPINFOHEADER *>(GlobalLock(b.get()));
    h->biSize = 40;
    h->biWidth = width;
    h->biHeight = height;
    h->biPlanes = 1;
    h->biBitCount = static_cast<WORD>(bits);
    GlobalUnlock(b.get());
    return b;
}

TEST(RasterLimits, HeadersWithoutRowsAreRefused) {
    // Depth 0 has rows of 0 bytes: only the one-entry table must fit.
    for (auto [w, h] : {std::pair{1113637592, 1}, std::pair{1, 2147483434}, std::pair{46340, 46340}}) {
        Block b = Header(w, h, 0, 44);
        EXPECT_LT(ExpectUnusable(b.get()), 1.0);
    }
}

TEST(RasterLimits, PagesBeyondTheLargestRasterAreRefused) {
    // 16,385 x 16,384 one-bit pixels: 2^28 + 16,384, with every row present.
    const int w = 16385, h = 16384;
    Block b = Header(w, h, 1, 40 + 8 + static_cast<std::size_t>((w + 31) / 32 * 4) * h);
    ExpectUnusable(b.get());
}

}  // namespace
