// The spare-block cache behind GlobalAlloc/GlobalFree: kept buffers are never
// handed to two live blocks, whatever the order of sizes.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "quarvel/win32.h"

namespace {

TEST(BlockCache, FullCacheNeverHandsOutAFreedBuffer) {
    // Growing sizes never reuse a kept buffer, so 1, 60, 70 and 80 MB fill
    // the four slots; 90 MB does not fit the total even after displacing the
    // oldest one, so nothing may be displaced.
    for (std::size_t mb : {1, 60, 70, 80, 90}) ASSERT_EQ(GlobalFree(GlobalAlloc(GHND, mb << 20)), nullptr);
    const std::size_t size = 1u << 20;
    HGLOBAL a = GlobalAlloc(GHND, size), b = GlobalAlloc(GHND, size);
    auto *pa = static_cast<unsigned char *>(GlobalLock(a));
    auto *pb = static_cast<unsigned char *>(GlobalLock(b));
    ASSERT_TRUE(pa != nullptr && pb != nullptr);
    EXPECT_TRUE(pa + size <= pb || pb + size <= pa);
    std::memset(pa, 0x5A, size);
    for (std::size_t i = 0; i < size; i += 4099) ASSERT_EQ(pb[i], 0) << i;
    GlobalUnlock(a);
    GlobalUnlock(b);
    GlobalFree(a);
    GlobalFree(b);
}

}  // namespace
