// Colour enhancement kernels against their plain twins, bit for bit: rows of
// random pixels mixed with edge colours (channels at 0, 59, 60, 255 and one
// channel just above or below another), rules at and past their limits, with
// and without a map, in place and into another row, with guard bytes.
#include <gtest/gtest.h>

#include <climits>
#include <random>
#include <vector>

#include "frame/kernels.h"
#include "frame/kernels_colour.h"

namespace {

namespace k = quarvel::kernels;

std::vector<std::uint8_t> Pixels(int n, int bpp, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<std::uint8_t> v(static_cast<std::size_t>(n * bpp + 64));
    for (auto &b : v) b = static_cast<std::uint8_t>(g());
    const int edges[] = {0, 59, 60, 61, 100, 200, 254, 255};
    for (int x = 0; x < n; x += 3) {
        std::uint8_t *p = v.data() + 16 + x * bpp;
        p[g() % 3] = static_cast<std::uint8_t>(edges[g() % 8]);
        if (x % 2) p[g() % 3] = static_cast<std::uint8_t>(p[g() % 3] + static_cast<int>(g() % 5) - 2);
    }
    return v;
}

TEST(ColourKernels, EnhanceRowsMatchThePlainRow) {
    const std::vector<k::EnhanceRule> rules = {
        {40, 40, 384, true, {{-30, -30, 30}, {30, -30, -30}, {-20, -20, -20}, {20, 20, 20}}},
        {1, 0, 0, false, {{255, -255, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}}},
        {INT_MAX, 256, 766, true, {{9, 9, 9}, {-9, 9, -9}, {-255, -255, -255}, {255, 255, 255}}},
        {0, 1, LLONG_MIN, true, {{0, 0, 0}, {-255, 7, 200}, {-1, -2, -3}, {3, 2, 1}}},
        {-5, 120, 128, true, {{0, 0, 0}, {-100, -100, -100}, {-50, 0, 50}, {50, 0, -50}}},
    };
    for (int n : {1, 7, 8, 13, 100, 2481}) {
        for (int bpp : {3, 4}) {
            const std::vector<std::uint8_t> in = Pixels(n, bpp, static_cast<unsigned>(n * bpp)), map = Pixels(n, bpp, 99);
            for (std::size_t r = 0; r < rules.size(); ++r) {
                for (bool withMap : {false, true}) {
                    for (bool inPlace : {false, true}) {
                        for (bool avx2 : {true, false}) {
                            std::vector<std::uint8_t> fast = inPlace ? in : Pixels(n, bpp, 5), slow = fast;
                            const bool was = k::UseAvx2(avx2);
                            k::EnhanceRow((inPlace ? fast.data() : in.data()) + 16, withMap ? map.data() + 16 : nullptr, fast.data() + 16, n, bpp, rules[r]);
                            k::UseAvx2(was);
                            k::plain::EnhanceRow((inPlace ? slow.data() : in.data()) + 16, withMap ? map.data() + 16 : nullptr, slow.data() + 16, n, bpp, rules[r]);
                            ASSERT_EQ(fast, slow) << "n " << n << " bpp " << bpp << " rule " << r << " map " << withMap << " in place " << inPlace << " avx2 " << avx2;
                        }
                    }
                }
            }
            for (bool avx2 : {true, false}) {
                std::vector<std::uint8_t> fast = in, slow = in;
                const bool was = k::UseAvx2(avx2);
                k::ExcessMapRow(fast.data() + 16, n, bpp);
                k::UseAvx2(was);
                k::plain::ExcessMapRow(slow.data() + 16, n, bpp);
                EXPECT_EQ(fast, slow) << "map n " << n << " bpp " << bpp;
            }
        }
    }
}

}  // namespace
