// Every operation with each int argument at INT_MIN and INT_MAX, rectangles
// reaching the ends of int, and NaN or infinite angles: no undefined
// behaviour (the sanitizer build checks that), a result that is NULL or a
// well-formed page, the caller's pages unchanged, and no call that takes long.
#include <gtest/gtest.h>

#include <chrono>
#include <climits>
#include <cmath>
#include <vector>

#include "support/operations.h"
#include "support/pages.h"

namespace {

using qtest::Block;
using qtest::OpArgs;

Block Drawn(int bits) {
    return qtest::MakePageWith(qtest::Shape(37, 23, bits), [bits](int x, int y, int c) {
        if (bits == 1) return (x / 3 + y / 2) % 3 == 0 ? 1 : 0;
        return x < 4 || y < 3 ? 20 : (x * 7 + y * 13 + c * 50) % 256;
    });
}

std::vector<OpArgs> Variants() {
    OpArgs base;
    const int typical[10] = {3, 5, 7, 11, 13, 17, 19, 23, 29, 31};
    std::copy(typical, typical + 10, base.i);
    base.rect = RECT{2, 3, 30, 20};
    base.d = 5.0;
    std::vector<OpArgs> all;
    for (int slot = 0; slot < 10; ++slot)
        for (int v : {INT_MIN, INT_MAX}) {
            OpArgs a = base;
            a.i[slot] = v;
            all.push_back(a);
        }
    for (int v : {INT_MIN, INT_MAX, -1}) {
        OpArgs a = base;
        std::fill(a.i, a.i + 10, v);
        all.push_back(a);
    }
    const RECT rects[] = {{INT_MIN, INT_MIN, INT_MAX, INT_MAX}, {INT_MAX, INT_MAX, INT_MIN, INT_MIN},
                          {INT_MIN, INT_MIN, INT_MIN, INT_MIN}, {INT_MAX, INT_MAX, INT_MAX, INT_MAX},
                          {-5, INT_MIN, 10, INT_MAX},           {INT_MIN, 4, INT_MAX, 9}};
    for (const RECT &r : rects)
        for (int mode : {0, 1, 2, 3, 4, 5}) {
            OpArgs a = base;
            a.rect = r;
            a.i[0] = mode;  // Crop's mode; a small level elsewhere
            a.i[1] = 2;
            all.push_back(a);
        }
    for (double d : {std::nan(""), HUGE_VAL, -HUGE_VAL, 1e300, -1e300, 4.9e-324}) {
        OpArgs a = base;
        a.d = d;
        all.push_back(a);
    }
    return all;
}

class ExtremeArguments : public ::testing::TestWithParam<int> {};

TEST_P(ExtremeArguments, GiveNullOrAPageAndLeaveInputsAlone) {
    const int bits = GetParam();
    Block page = Drawn(bits), second = Drawn(bits), map = Drawn(8);
    const auto before = page.bytes(), secondBefore = second.bytes(), mapBefore = map.bytes();
    const std::vector<OpArgs> variants = Variants();
    for (std::size_t k = 0; k < qtest::kOperationCount; ++k) {
        const qtest::Operation &op = qtest::kOperations[k];
        for (std::size_t v = 0; v < variants.size(); ++v) {
            OpArgs a = variants[v];
            Block own = op.writesFirst ? Drawn(bits) : Block();
            a.page = op.writesFirst ? own.get() : page.get();
            a.second = second.get();
            a.third = map.get();
            const auto start = std::chrono::steady_clock::now();
            Block result(op.call(a).page);
            const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
            EXPECT_LT(seconds, 2.0) << op.name << " variant " << v;
            if (result) {
                EXPECT_TRUE(qtest::WellFormedPage(result.get())) << op.name << " variant " << v;
            }
            ASSERT_EQ(page.bytes(), before) << op.name << " variant " << v;
            ASSERT_EQ(second.bytes(), secondBefore) << op.name << " variant " << v;
            ASSERT_EQ(map.bytes(), mapBefore) << op.name << " variant " << v;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Depths, ExtremeArguments, ::testing::Values(1, 8, 24, 32));

}  // namespace
