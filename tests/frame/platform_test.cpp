// Global-memory handles, the spare-block cache, and rectangle arithmetic.
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "platform/rect.h"
#include "quarvel/win32.h"

namespace {

TEST(GlobalMemory, LiveHandlesLockNestAndZeroFill) {
    HGLOBAL h = GlobalAlloc(GHND, 100);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(GlobalSize(h), 100u);
    auto *p = static_cast<unsigned char *>(GlobalLock(h));
    ASSERT_NE(p, nullptr);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(p[i], 0);
    EXPECT_EQ(GlobalLock(h), p);
    EXPECT_TRUE(GlobalUnlock(h));   // still locked once
    EXPECT_FALSE(GlobalUnlock(h));  // now unlocked
    EXPECT_FALSE(GlobalUnlock(h));  // not locked at all
    EXPECT_EQ(GlobalFree(h), nullptr);
}

TEST(GlobalMemory, NullUnknownAndFreedHandlesAreRefused) {
    HGLOBAL h = GlobalAlloc(GHND, 16);
    ASSERT_EQ(GlobalFree(h), nullptr);
    int local = 0;
    for (HGLOBAL bad : {HGLOBAL{nullptr}, h, static_cast<HGLOBAL>(&local), reinterpret_cast<HGLOBAL>(0x1234)}) {
        EXPECT_EQ(GlobalLock(bad), nullptr);
        EXPECT_EQ(GlobalSize(bad), 0u);
        EXPECT_FALSE(GlobalUnlock(bad));
        if (bad != nullptr) {
            EXPECT_EQ(GlobalFree(bad), bad);
        }
    }
    EXPECT_EQ(GlobalFree(nullptr), nullptr);
}

TEST(GlobalMemory, EmptyBlockLocksToNull) {
    HGLOBAL h = GlobalAlloc(GHND, 0);
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(GlobalLock(h), nullptr);
    EXPECT_EQ(GlobalSize(h), 0u);
    EXPECT_EQ(GlobalFree(h), nullptr);
}

TEST(GlobalMemory, ReusedLargeBlocksComeBackZeroed) {
    const std::size_t size = 5u << 20;
    for (int round = 0; round < 3; ++round) {
        HGLOBAL h = GlobalAlloc(GHND, size);
        auto *p = static_cast<unsigned char *>(GlobalLock(h));
        ASSERT_NE(p, nullptr);
        for (std::size_t i = 0; i < size; i += 4093) ASSERT_EQ(p[i], 0) << "round " << round << " byte " << i;
        std::memset(p, 0xAB, size);
        GlobalUnlock(h);
        GlobalFree(h);
    }
}

// The spare-block cache behind GlobalAlloc/GlobalFree never hands a kept
// buffer to two live blocks, whatever the order of sizes.
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

TEST(Rectangles, IntersectAndEmptiness) {
    RECT a, b, out;
    quarvel::SetRect(&a, 0, 0, 10, 10);
    quarvel::SetRect(&b, 5, -3, 20, 4);
    EXPECT_TRUE(quarvel::IntersectRect(&out, &a, &b));
    EXPECT_EQ((std::vector<LONG>{out.left, out.top, out.right, out.bottom}), (std::vector<LONG>{5, 0, 10, 4}));
    quarvel::SetRect(&b, 10, 0, 12, 5);  // touching edges share nothing
    EXPECT_FALSE(quarvel::IntersectRect(&out, &a, &b));
    EXPECT_TRUE(quarvel::IsRectEmpty(&out));
    quarvel::SetRect(&b, 5, 5, 4, 9);  // inverted
    EXPECT_TRUE(quarvel::IsRectEmpty(&b));
}

}  // namespace
