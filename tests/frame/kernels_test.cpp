// Fast row kernels against their plain twins, bit for bit, over widths that
// end mid-block and mid-byte, with guard bytes around each destination row.
#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/kernels.h"

namespace {

namespace k = quarvel::kernels;

std::vector<std::uint8_t> Noise(std::size_t n, unsigned seed) {
    std::mt19937 g(seed);
    std::vector<std::uint8_t> v(n);
    for (auto &b : v) b = static_cast<std::uint8_t>(g());
    return v;
}

TEST(Kernels, FastRowsMatchPlainRowsAndKeepTheGuards) {
    std::uint8_t table[256];
    for (int i = 0; i < 256; ++i) table[i] = static_cast<std::uint8_t>((i * 37 + 11) ^ (i >> 3));
    for (int n : {1, 5, 6, 7, 15, 16, 17, 33, 63, 64, 65, 130, 256, 300, 2480, 2481}) {
        SCOPED_TRACE(n);
        const std::vector<std::uint8_t> src = Noise(4 * n + 32, n);
        for (int bpp : {1, 3, 4}) {
            for (bool avx2 : {true, false}) {
                std::vector<std::uint8_t> fast = Noise(4 * n + 32, 7), slow = fast;
                const bool was = k::UseAvx2(avx2);
                k::MirrorRow(src.data() + 16, fast.data() + 16, n, bpp);
                k::UseAvx2(was);
                k::plain::MirrorRow(src.data() + 16, slow.data() + 16, n, bpp);
                EXPECT_EQ(fast, slow) << "mirror " << bpp << " avx2 " << avx2;
            }
        }
        std::vector<std::uint8_t> fast = Noise(4 * n + 32, 8), slow = fast;
        for (bool avx2 : {true, false}) {
            const bool was = k::UseAvx2(avx2);
            k::MirrorBits(src.data() + 16, fast.data() + 16, n);
            k::UseAvx2(was);
            k::plain::MirrorBits(src.data() + 16, slow.data() + 16, n);
            EXPECT_EQ(fast, slow) << "bits avx2 " << avx2;
        }
        for (bool avx2 : {true, false}) {
            const bool was = k::UseAvx2(avx2);
            k::LookupRow(src.data(), fast.data() + 16, static_cast<std::size_t>(n), table);
            k::plain::LookupRow(src.data(), slow.data() + 16, static_cast<std::size_t>(n), table);
            EXPECT_EQ(fast, slow) << "lookup avx2 " << avx2;
            k::LookupRow32(src.data(), fast.data() + 16, static_cast<std::size_t>(n), table);
            k::plain::LookupRow32(src.data(), slow.data() + 16, static_cast<std::size_t>(n), table);
            EXPECT_EQ(fast, slow) << "lookup32 avx2 " << avx2;
            k::UseAvx2(was);
        }
        for (int t : {-5, 0, 1, 128, 255, 256}) {
            k::ThresholdToBits(src.data(), fast.data() + 16, n, t);
            k::plain::ThresholdToBits(src.data(), slow.data() + 16, n, t);
            EXPECT_EQ(fast, slow) << "threshold " << t;
        }
        for (int value : {-300, -255, -17, 0, 40, 254, 255, 1000}) {
            for (bool fourth : {false, true}) {
                k::AddSaturateRow(src.data(), fast.data() + 16, 4 * static_cast<std::size_t>(n), value, fourth);
                k::plain::AddSaturateRow(src.data(), slow.data() + 16, 4 * static_cast<std::size_t>(n), value, fourth);
                EXPECT_EQ(fast, slow) << "add " << value << " " << fourth;
            }
        }
        for (bool fourth : {false, true}) {
            std::vector<std::uint8_t> a1 = src, a2 = src;
            const std::vector<std::uint8_t> b = Noise(4 * n + 32, 9);
            k::AndRowTwice(a1.data() + 16, b.data(), fast.data() + 16, 4 * static_cast<std::size_t>(n), fourth);
            k::plain::AndRowTwice(a2.data() + 16, b.data(), slow.data() + 16, 4 * static_cast<std::size_t>(n), fourth);
            EXPECT_EQ(fast, slow) << "and " << fourth;
            EXPECT_EQ(a1, a2) << "and in place " << fourth;
            k::SubtractSaturateRow(src.data(), b.data(), fast.data() + 16, 4 * static_cast<std::size_t>(n), fourth);
            k::plain::SubtractSaturateRow(src.data(), b.data(), slow.data() + 16, 4 * static_cast<std::size_t>(n), fourth);
            EXPECT_EQ(fast, slow) << "subtract " << fourth;
        }
        for (int bpp : {1, 3, 4}) {
            k::ExpandBitsRow(src.data(), fast.data() + 16, n, bpp, 37, 201);
            k::plain::ExpandBitsRow(src.data(), slow.data() + 16, n, bpp, 37, 201);
            EXPECT_EQ(fast, slow) << "expand " << bpp;
        }
        for (int x : {0, 3, 8, 13}) {
            for (int count : {0, 1, 5, 7, 8, 9, 70, n}) {
                if (x + count <= 8 * n) {
                    EXPECT_EQ(k::CountOnes(src.data(), x, count), k::plain::CountOnes(src.data(), x, count)) << "ones " << x << " " << count;
                }
            }
        }
        for (int bpp : {3, 4}) {
            std::vector<std::uint32_t> inkFast(static_cast<std::size_t>(n), 7), inkSlow = inkFast;
            k::AddInkRow(src.data(), n, bpp, inkFast.data());
            k::plain::AddInkRow(src.data(), n, bpp, inkSlow.data());
            EXPECT_EQ(inkFast, inkSlow) << "ink " << bpp;
        }
        for (int bpp : {3, 4}) {
            for (bool keep : {false, true}) {
                std::vector<std::uint8_t> a1 = src, a2 = src;
                k::DecolourRow(a1.data() + 16, n, bpp, keep, 30, 0, 12);
                k::plain::DecolourRow(a2.data() + 16, n, bpp, keep, 30, 0, 12);
                EXPECT_EQ(a1, a2) << "decolour " << bpp << " " << keep;
            }
            for (int spread : {0, 40, 200}) {
                for (int from = 0; from < n; from += std::max(1, n / 5))
                    EXPECT_EQ(k::NextSpread(src.data(), from, n, bpp, spread), k::plain::NextSpread(src.data(), from, n, bpp, spread))
                        << "spread " << bpp << " " << spread << " " << from;
            }
            for (const auto &[diff, level] : {std::pair{40, 80}, {-300, -1}, {300, 1000}}) {
                std::vector<std::uint8_t> a1 = src, a2 = src;
                k::RedMarksRow(a1.data() + 16, src.data(), n, bpp, diff, level, diff < 100);
                k::plain::RedMarksRow(a2.data() + 16, src.data(), n, bpp, diff, level, diff < 100);
                EXPECT_EQ(a1, a2) << "red marks " << bpp << " " << diff;
            }
        }
        for (int bpp : {3, 4}) {
            for (int delta : {0, 30}) {
                k::ColourToGrayRow(src.data(), fast.data() + 16, n, bpp, delta, delta / 2);
                k::plain::ColourToGrayRow(src.data(), slow.data() + 16, n, bpp, delta, delta / 2);
                EXPECT_EQ(fast, slow) << "gray " << bpp << " " << delta;
            }
        }
    }
}

TEST(Kernels, MirrorTwiceIsTheIdentity) {
    const std::vector<std::uint8_t> src = Noise(3 * 77, 3);
    std::vector<std::uint8_t> once(src.size()), twice(src.size());
    k::MirrorRow(src.data(), once.data(), 77, 3);
    k::MirrorRow(once.data(), twice.data(), 77, 3);
    EXPECT_EQ(twice, src);
    EXPECT_EQ(once[0], src[3 * 76]);
}

}  // namespace

TEST(Kernels, IntegerGrayEqualsTheDoubleFormulaForEveryColour) {
    std::vector<std::uint8_t> row(3 * 256), fast(256), slow(256);
    for (int r = 0; r < 256; ++r) {
        for (int g = 0; g < 256; ++g) {
            for (int b = 0; b < 256; ++b) row[3 * b] = static_cast<std::uint8_t>(b), row[3 * b + 1] = static_cast<std::uint8_t>(g),
                                          row[3 * b + 2] = static_cast<std::uint8_t>(r);
            k::ColourToGrayRow(row.data(), fast.data(), 256, 3, 0, 0);
            k::plain::ColourToGrayRow(row.data(), slow.data(), 256, 3, 0, 0);
            ASSERT_EQ(fast, slow) << r << " " << g;
        }
    }
}

// 1-bit rotation copies runs of source bits; the plain path samples each
// pixel. Odd sizes, regions at odd bit offsets, every quadrant of angles.
TEST(Kernels, BitonalRotationRunsMatchThePlainPath) {
    using namespace quarvel;
    std::mt19937 g(5);
    for (double angle : {0.0, 1e-6, 0.3, -1.7, 3.0, 44.9, 89.9, 90.0, -90.0, 135.5, 180.0, 267.0, -33.3}) {
        for (int size : {37, 203, 701}) {
            SCOPED_TRACE(angle * 1000 + size);
            ImagePtr src = CreateImage(PixelFormat::kBitonal, size, size * 3 / 4, 0);
            for (int i = 0; i < src->imageSize; ++i) reinterpret_cast<std::uint8_t *>(src->imageData)[i] = static_cast<std::uint8_t>(g());
            ImagePtr fast = CreateImage(PixelFormat::kBitonal, size + 13, size + 5, 1), slow = CreateImage(PixelFormat::kBitonal, size + 13, size + 5, 1);
            for (int i = 0; i < fast->imageSize; ++i) reinterpret_cast<std::uint8_t *>(fast->imageData)[i] = static_cast<std::uint8_t>(g());
            std::memcpy(slow->imageData, fast->imageData, static_cast<std::size_t>(fast->imageSize));
            IplROI roi{0, 3, 2, size - 5, size / 2}, out{0, 13, 1, size - 1, size + 4};
            src->roi = &roi;
            fast->roi = slow->roi = size > 300 ? &out : nullptr;
            double xs, ys;
            iplGetRotateShift(size / 3.0, size / 5.0, angle, &xs, &ys);
            RotateImage(src.get(), fast.get(), angle, xs + 1.25, ys - 0.5, 1, false);
            RotateImage(src.get(), slow.get(), angle, xs + 1.25, ys - 0.5, 1, true);
            src->roi = fast->roi = slow->roi = nullptr;
            EXPECT_EQ(0, std::memcmp(fast->imageData, slow->imageData, static_cast<std::size_t>(fast->imageSize)));
        }
    }
}

// 8-bit and colour rotation runs the fused warp; the plain path is OpenCV's
// warpAffine. Random sizes (some narrower than a 16-byte step), angles over
// the whole turn, tiny and near quarter turns, centres and fractional shifts
// off the page (some far enough for the fixed-point terms to leave the
// kernel's range), source regions, both interpolations; destinations start
// as noise, so pixels left alone are checked too.
TEST(Kernels, FusedWarpMatchesOpenCvWarpBitForBit) {
    using namespace quarvel;
    std::mt19937 g(17);
    std::uniform_real_distribution<double> unit(0.0, 1.0);
    const PixelFormat formats[] = {PixelFormat::kGray, PixelFormat::kBgr, PixelFormat::kBgra};
    for (int i = 0; i < 600; ++i) {
        const double u = unit(g);
        const double angles[] = {360 * u, (u - 0.5) * 1e-3, 90 + (u - 0.5) * 1e-3, (u - 0.5) * 10, -3.0, 270.0, 180.0};
        const double angle = angles[i % 7];
        const int w = 1 + static_cast<int>(g() % (i % 5 == 0 ? 400 : 70)), h = 1 + static_cast<int>(g() % 90);
        // Case 5: destination rows past the kernel's 2^20 bytes, left to the plain warp.
        const int dw = i == 5 ? 300000 : std::max(1, w + static_cast<int>(g() % 41) - 20);
        const int dh = i == 5 ? 3 : std::max(1, h + static_cast<int>(g() % 41) - 20);
        const PixelFormat format = formats[i % 3];
        const int interpolate = (i / 3) % 2;
        SCOPED_TRACE(testing::Message() << i << ": " << w << "x" << h << " -> " << dw << "x" << dh << " angle " << angle);
        ImagePtr src = CreateImage(format, w + 3, h + 2, 0);
        ImagePtr fast = CreateImage(format, dw, dh, 0), slow = CreateImage(format, dw, dh, 0);
        for (IplImage *im : {src.get(), fast.get()})
            for (int k = 0; k < im->imageSize; ++k) reinterpret_cast<std::uint8_t *>(im->imageData)[k] = static_cast<std::uint8_t>(g());
        std::memcpy(slow->imageData, fast->imageData, static_cast<std::size_t>(fast->imageSize));
        IplROI roi{0, 2, 1, w, h};
        src->roi = &roi;
        double xs, ys;
        iplGetRotateShift(w * (unit(g) * 1.4 - 0.2), h * (unit(g) * 1.4 - 0.2), angle, &xs, &ys);
        xs += (unit(g) - 0.5) * 8 + (i % 50 == 7 ? 6e5 : 0), ys += (unit(g) - 0.5) * 8;
        RotateImage(src.get(), fast.get(), angle, xs, ys, interpolate, false);
        RotateImage(src.get(), slow.get(), angle, xs, ys, interpolate, true);
        src->roi = nullptr;
        ASSERT_EQ(0, std::memcmp(fast->imageData, slow->imageData, static_cast<std::size_t>(fast->imageSize)));
    }
}

// Bit spans filled and copied a byte at a time in the middle, against
// bit-by-bit loops, at every offset pair; bits outside the span keep theirs.
TEST(Kernels, BitSpansMatchBitByBitLoops) {
    namespace b = quarvel::bits;
    const std::vector<std::uint8_t> src = Noise(40, 11);
    for (int x = 0; x < 16; ++x) {
        for (int dx : {0, 3, 8}) {
            for (int count : {0, 5, 17, 90, 200}) {
                std::vector<std::uint8_t> fast = Noise(40, 12), slow = fast, filled = fast, filledSlow = fast;
                std::vector<std::uint8_t> masked = fast, maskedSlow = fast;
                b::Copy(src.data(), x, fast.data(), x + dx, count);
                b::Fill(filled.data(), x + dx, count, x & 1);
                b::ApplyRow(src.data(), x, masked.data(), x + dx, count,
                            [](std::uint8_t d, std::uint8_t m) { return static_cast<std::uint8_t>(d & ~m); });
                for (int i = 0; i < count; ++i) {
                    b::Set(slow.data(), x + dx + i, b::Get(src.data(), x + i));
                    b::Set(filledSlow.data(), x + dx + i, x & 1);
                    b::Set(maskedSlow.data(), x + dx + i, b::Get(maskedSlow.data(), x + dx + i) & !b::Get(src.data(), x + i));
                }
                EXPECT_EQ(fast, slow) << x << " " << dx << " " << count;
                EXPECT_EQ(filled, filledSlow) << x << " " << dx << " " << count;
                EXPECT_EQ(masked, maskedSlow) << x << " " << dx << " " << count;
                if (x < 8 && dx == 0) {
                    std::vector<std::uint8_t> both = Noise(40, 13), bothSlow = both;
                    b::CombineInPhase(src.data(), fast.data(), both.data(), x, count,
                                      [](auto p, auto q) { return static_cast<decltype(p)>(p & ~q); });
                    for (int i = x; i < x + count; ++i) b::Set(bothSlow.data(), i, b::Get(src.data(), i) & !b::Get(fast.data(), i));
                    EXPECT_EQ(both, bothSlow) << x << " " << count;
                }
            }
        }
    }
}

// The word-wise 1-bit and row-wise 8-bit filters against the plain paths:
// sides from 1 past the region, regions at odd bit offsets in both images,
// destination pixels outside the region kept.
TEST(Kernels, MinMaxFiltersMatchThePlainPath) {
    using namespace quarvel;
    std::mt19937 g(9);
    for (PixelFormat f : {PixelFormat::kBitonal, PixelFormat::kGray}) {
        for (int cols : {1, 2, 3, 7, 64, 65, 300}) {
            for (int rows : {1, 2, 3, 9, 300})
            for (int xs : {5, 8}) {
                SCOPED_TRACE(cols * 10000 + rows * 10 + xs);
                ImagePtr src = CreateImage(f, 211, 67, 0), fast = CreateImage(f, 203, 71, 0), slow = CreateImage(f, 203, 71, 0);
                for (IplImage *im : {src.get(), fast.get()})
                    for (int i = 0; i < im->imageSize; ++i) im->imageData[i] = static_cast<std::uint8_t>(g());
                std::memcpy(slow->imageData, fast->imageData, static_cast<std::size_t>(fast->imageSize));
                IplROI rs{0, xs, 3, xs == 5 ? 197 : 45, 60}, rd{0, 19 - xs, 2, 190, 66};
                src->roi = &rs;
                fast->roi = slow->roi = &rd;
                for (bool minimum : {true, false}) {
                    MinMaxFilter(src.get(), fast.get(), cols, rows, 0, 0, minimum, false);
                    MinMaxFilter(src.get(), slow.get(), cols, rows, 0, 0, minimum, true);
                    EXPECT_EQ(0, std::memcmp(fast->imageData, slow->imageData, static_cast<std::size_t>(fast->imageSize)))
                        << static_cast<int>(f) << " " << minimum;
                }
                src->roi = fast->roi = slow->roi = nullptr;
            }
        }
    }
}
