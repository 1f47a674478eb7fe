// Level kernels (tone lines, histograms, column sums) against their plain
// twins bit for bit, and the tone line against every contrast table it
// replaces.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

#include "frame/histogram.h"
#include "frame/kernels.h"
#include "frame/kernels_tone.h"
#include "pixel/pixel.h"

namespace {

namespace k = quarvel::kernels;

std::vector<std::uint8_t> Noise(std::size_t n, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<std::uint8_t> v(n);
    for (auto &b : v) b = static_cast<std::uint8_t>(g());
    return v;
}

// Every contrast table (with and without brightness, the pivot anywhere in
// 0..255) is a clamped line, except contrast 100, the hard step, which stays
// a lookup.
TEST(ToneLine, FitsEveryContrastTableButTheStep) {
    for (bool both : {false, true}) {
        for (int b = both ? -520 : 0; b <= (both ? 520 : 0); b += both ? 3 : 1) {
            for (int c = -100; c <= 100; ++c) {
                int t[256];
                if ((both && c == 0) || !quarvel::pixel::ContrastTable(b, c, both, t)) continue;
                std::uint8_t contrast[256], folded[256];
                for (int v = 0; v < 256; ++v) contrast[v] = static_cast<std::uint8_t>(t[v]);
                for (int v = 0; v < 256; ++v) folded[v] = contrast[both ? std::clamp(v + b, 0, 255) : v];
                k::ToneLine line{};
                const bool fits = k::FitToneLine(contrast, both ? 127 + b / 4 : 127, &line);
                line.brightness = both ? std::clamp(b, -255, 255) : 0;
                ASSERT_EQ(fits && k::ToneLineMatches(line, folded), c != 100) << b << " " << c << " " << both;
            }
        }
    }
}

TEST(ToneLine, FastRowsMatchThePlainRowAndKeepTheGuards) {
    const std::vector<k::ToneLine> lines = {{0, 127, 65536, 65536}, {-40, 117, 93623, 41000}, {255, 0, 8388607, 0},
                                            {-300, 255, 0, 127 << 16}, {17, 200, 1, 300000}};
    for (int n : {1, 15, 16, 33, 64, 250, 2481}) {
        const std::vector<std::uint8_t> src = Noise(static_cast<std::size_t>(n) + 32, static_cast<unsigned>(n));
        for (const k::ToneLine &line : lines) {
            for (bool fourth : {false, true}) {
                for (bool avx2 : {true, false}) {
                    std::vector<std::uint8_t> fast = Noise(src.size(), 5), slow = fast;
                    const bool was = k::UseAvx2(avx2);
                    k::ToneRow(src.data() + 16, fast.data() + 16, static_cast<std::size_t>(n), line, fourth);
                    k::UseAvx2(was);
                    k::plain::ToneRow(src.data() + 16, slow.data() + 16, static_cast<std::size_t>(n), line, fourth);
                    EXPECT_EQ(fast, slow) << n << " pivot " << line.pivot << " fourth " << fourth << " avx2 " << avx2;
                }
            }
        }
    }
}

// Rows of noise broken by runs of one level or one colour (runs longer and
// shorter than a step, starting anywhere) give the plain rows' histogram;
// the level counter over many rows, with and without its pair tables.
TEST(RowHistograms, FastRowsMatchThePlainRow) {
    for (bool pairs : {true, false}) {
        k::LevelCounter counter(pairs);
        std::uint32_t fast[256] = {}, slow[256] = {};
        for (int n : {1, 31, 32, 33, 100, 2481}) {
            std::vector<std::uint8_t> src = Noise(static_cast<std::size_t>(n), static_cast<unsigned>(n));
            for (int at = 3; at + 40 < n; at += 90) std::fill(src.begin() + at, src.begin() + std::min<int>(at + (at % 7) * 9, static_cast<int>(src.size())), src[at]);
            counter.AddRow(src.data(), n);
            k::plain::CountLevels(src.data(), n, slow);
        }
        counter.AddTo(fast);
        EXPECT_TRUE(std::equal(fast, fast + 256, slow)) << "pairs " << pairs;
    }
    for (int n : {1, 17, 31, 32, 40, 100, 2481}) {
        std::vector<std::uint8_t> src = Noise(4 * static_cast<std::size_t>(n), static_cast<unsigned>(n));
        for (int at = 3; at + 40 < 4 * n; at += 90) std::fill(src.begin() + at, src.begin() + std::min<int>(at + (at % 7) * 9, static_cast<int>(src.size())), src[at]);
        for (bool avx2 : {true, false}) {
            const bool was = k::UseAvx2(avx2);
            for (int bpp : {3, 4}) {
                std::vector<std::uint8_t> colour = src;
                // Runs of one pixel, and runs of pixels with one sum but different colours.
                for (int x = 5; x + 20 < n; x += 37)
                    for (int j = 0; j < 12; ++j)
                        for (int c = 0; c < 3; ++c) colour[static_cast<std::size_t>((x + j) * bpp + c)] = static_cast<std::uint8_t>(x % 2 ? 90 + c : 90 + (c + j) % 3);
                std::uint32_t fastSums[2][766] = {}, slowSums[2][766] = {};
                k::CountSumsRow(colour.data(), n, bpp, fastSums);
                k::plain::CountSumsRow(colour.data(), n, bpp, slowSums);
                for (int v = 0; v < 766; ++v) EXPECT_EQ(fastSums[0][v] + fastSums[1][v], slowSums[0][v]) << n << " sum " << v;
            }
            k::UseAvx2(was);
        }
    }
}

TEST(ColumnSums, FastRowsMatchThePlainRow) {
    for (int n : {1, 31, 32, 33, 95, 2481}) {
        const std::vector<std::uint8_t> src = Noise(static_cast<std::size_t>(n) + 8, static_cast<unsigned>(n));
        for (bool avx2 : {true, false}) {
            const bool was = k::UseAvx2(avx2);
            const std::vector<std::uint16_t> start(static_cast<std::size_t>(n) + 16, 65000);
            for (bool complement : {false, true}) {
                std::vector<std::uint16_t> fast = start, slow = start;
                k::AddBytesRow(src.data(), n, complement, fast.data());
                k::plain::AddBytesRow(src.data(), n, complement, slow.data());
                EXPECT_EQ(fast, slow) << n << " complement " << complement;
            }
            std::vector<std::uint16_t> fast = start, slow = start;
            k::AddBitsRow(src.data(), n, 3, 250, fast.data());
            k::plain::AddBitsRow(src.data(), n, 3, 250, slow.data());
            EXPECT_EQ(fast, slow) << n << " bits";
            for (int bpp : {3, 4}) {
                const std::vector<std::uint8_t> colour = Noise(static_cast<std::size_t>(n * bpp), static_cast<unsigned>(n + bpp));
                fast = slow = start;
                k::AddColourInkRow(colour.data(), n, bpp, fast.data());
                k::plain::AddColourInkRow(colour.data(), n, bpp, slow.data());
                EXPECT_EQ(fast, slow) << n << " ink " << bpp;
            }
            k::UseAvx2(was);
        }
    }
}

}  // namespace
