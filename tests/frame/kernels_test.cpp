// Fast row kernels against their plain twins, bit for bit: one harness runs
// every kernel over rows of noise (with edge colours and runs of one value
// mixed in) at lengths that end mid-block and mid-byte, at odd source
// offsets, AVX-512, AVX2 with and without GFNI, and SSE2, and compares the destination (guard bytes around
// it included) and the source, which in-place kernels write. Then the image
// level twins: integer gray, 1-bit and fused rotation, bit spans, filters.
#include <gtest/gtest.h>

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <vector>

#include "frame/bits.h"
#include "frame/histogram.h"
#include "frame/ipl.h"
#include "frame/kernels.h"
#include "frame/kernels_bits.h"
#include "frame/kernels_colour.h"
#include "frame/kernels_tone.h"
#include "pixel/pixel.h"

namespace {

namespace k = quarvel::kernels;
using Bytes = std::vector<std::uint8_t>;

Bytes Noise(std::size_t n, unsigned seed) {
    std::mt19937 g(seed);
    Bytes v(n);
    for (auto &b : v) b = static_cast<std::uint8_t>(g());
    return v;
}

// Noise with channels at the colour rules' edges (0, 59, 60, 255, one
// channel next to another) and runs of one byte, of one pixel and of one
// B + G + R sum in different colours.
Bytes Source(std::size_t n, unsigned seed) {
    Bytes v = Noise(n, seed);
    std::mt19937 g(seed + 1);
    const int edges[] = {0, 59, 60, 61, 100, 200, 254, 255};
    for (std::size_t x = 0; x + 4 < n; x += 9) {
        v[x + g() % 3] = static_cast<std::uint8_t>(edges[g() % 8]);
        if (x % 2) v[x + 1] = static_cast<std::uint8_t>(v[x] + static_cast<int>(g() % 5) - 2);
    }
    for (std::size_t at = 3; at + 100 < n; at += 190) {
        std::fill(v.begin() + at, v.begin() + at + (at % 7) * 9, v[at]);
        for (std::size_t j = 0; j < 12 && at + 100 + 4 * j + 3 < n; ++j)
            for (std::size_t c = 0; c < 3; ++c) v[at + 50 + 4 * j + c] = static_cast<std::uint8_t>(at % 2 ? 90 + c : 90 + (c + j) % 3);
    }
    return v;
}

struct Args {
    int n, bpp, a, b;
    bool plain;
};
// Runs the fast (or plain) twin on src and dst; a kernel that returns a
// value or fills a table stores it at the start of dst.
using Kernel = std::function<void(const Args &, std::uint8_t *src, std::uint8_t *dst)>;
struct Twin {
    const char *name;
    std::vector<int> bpps, as, bs;
    Kernel run;
};

template <typename T>
void Store(std::uint8_t *dst, const T &v) { std::memcpy(dst, &v, sizeof v); }

std::size_t Bytes4(const Args &c) { return 4 * static_cast<std::size_t>(c.n); }

const std::uint8_t *Table() {
    static std::uint8_t t[256];
    for (int i = 0; i < 256; ++i) t[i] = static_cast<std::uint8_t>((i * 37 + 11) ^ (i >> 3));
    return t;
}

const k::ToneLine kLines[] = {{0, 127, 65536, 65536}, {-40, 117, 93623, 41000}, {255, 0, 8388607, 0},
                              {-300, 255, 0, 127 << 16}, {17, 200, 1, 300000}};
const k::EnhanceRule kRules[] = {
    {40, 40, 384, true, {{-30, -30, 30}, {30, -30, -30}, {-20, -20, -20}, {20, 20, 20}}},
    {1, 0, 0, false, {{255, -255, 0}, {0, 0, 0}, {0, 0, 0}, {0, 0, 0}}},
    {INT_MAX, 256, 766, true, {{9, 9, 9}, {-9, 9, -9}, {-255, -255, -255}, {255, 255, 255}}},
    {0, 1, LLONG_MIN, true, {{0, 0, 0}, {-255, 7, 200}, {-1, -2, -3}, {3, 2, 1}}},
    {-5, 120, 128, true, {{0, 0, 0}, {-100, -100, -100}, {-50, 0, 50}, {50, 0, -50}}},
};

#define TWIN(f, ...) (c.plain ? k::plain::f(__VA_ARGS__) : k::f(__VA_ARGS__))

const std::vector<Twin> kTwins = {
    {"mirror", {1, 3, 4}, {0}, {0}, [](auto c, auto s, auto d) { TWIN(MirrorRow, s, d, c.n, c.bpp); }},
    {"and rows back", {1}, {0, 1}, {0},  // a: b covers a (nothing to write back) or noise
     [](auto c, auto s, auto d) {
         const int stride = (c.n + 31) / 32 * 4, w = c.n / 8 * 8;
         if (c.a == 0) std::memset(s + 5 * stride, 0xFF, 5 * static_cast<std::size_t>(stride));
         TWIN(AndRowsBack, s, stride, s + 5 * stride, stride, d, stride, w, 5);
     }},
    {"filter 2x2", {1, 4, 8}, {0, 1}, {0, 1},  // bpp: bit phase + 1; a: minimum; b: with a row above
     [](auto c, auto s, auto d) { TWIN(Filter2x2Row, s, c.b ? s + c.n : nullptr, d, c.bpp - 1, c.n, c.a == 1); }},
    {"filter 2x2 rows", {1, 4}, {0, 1}, {0},
     [](auto c, auto s, auto d) { TWIN(Filter2x2Rows, s, c.n / 8 + 3, d, c.n / 8 + 2, c.bpp - 1, c.n, 5, c.a == 1); }},
    {"filter 2x2 page", {1}, {0, 1}, {0, 5},  // a: minimum; b: extra padding and 40 rows (two bands)
     [](auto c, auto s, auto d) { TWIN(Filter2x2Page, s, d, (c.n + 31) / 32 * 4 + c.b, c.n, c.b ? 40 : 5, c.a == 1); }},
    {"filter 2x2 rect page", {1, 2}, {0, 1, 2, 3, 4, 5, 6}, {0, 5},  // bpp: 2 minimum; a: the rectangle; b: extra padding
     [](auto c, auto s, auto d) {
         // Rectangles: whole; to the top right; one pixel; mid-byte ends;
         // the last column; and near both ends, from within 31 and 62 bytes.
         const int x = c.n / 5, near = std::min(13, c.n - 1), mid = std::min(300, c.n - 1);
         const int spans[7][4] = {{0, 0, c.n, 40}, {c.n / 3, 3, c.n - c.n / 3, 37}, {(c.n - 1) / 2, 7, 1, 1},
                                  {x, 2, std::max(1, (c.n - x) / 2), 35}, {c.n - 1, 0, 1, 40}, {near, 1, std::max(1, c.n - near - 27), 18},
                                  {mid, 4, std::max(1, c.n - mid - 100), 30}};
         const auto *r = spans[c.a];  // 40 rows: two bands of the run kernel
         TWIN(Filter2x2RectPage, s, d, (c.n + 31) / 32 * 4 + c.b, c.n, 40, {r[0], r[1], r[2], r[3]}, c.bpp == 2);
     }},
    {"and not spans", {1}, {0}, {0, 1},  // b: one mask row for every row
     [](auto c, auto s, auto d) {
         const int n = (c.n + 7) / 8;
         TWIN(AndNotSpanRows, s, n + 3, s + 4 * c.n + 32, c.b ? 0 : n + 1, d, n + 2, n, 5);
     }},
    {"mirror bits", {1}, {0}, {0}, [](auto c, auto s, auto d) { TWIN(MirrorBits, s, d, c.n); }},
    {"min max 2 x 2", {1}, {0, 1}, {0, 1},
     [](auto c, auto s, auto d) { TWIN(MinMaxSquareRow, s, c.b ? s : s + 4 * c.n + 32, d, c.n, c.a); }},
    {"copy", {1}, {0, 1}, {0}, [](auto c, auto s, auto d) { TWIN(CopyRow, s, d, Bytes4(c), c.a ? s + 4 * c.n + 32 : nullptr); }},
    {"mirror bit rows", {1}, {0}, {0}, [](auto c, auto s, auto d) { TWIN(MirrorBitRows, s, d, (c.n + 31) / 32 * 4, c.n, 5); }},
    {"logic rows", {1, 2, 3}, {0, 1, 2, 3, 4}, {0, 1},
     [](auto c, auto s, auto d) {  // bpp: row order (down, up, one b row); b: in place
         const int stride = (c.n + 31) / 32 * 4, up = c.bpp == 2 ? -1 : 1;
         std::uint8_t *out = c.b == 1 ? s : d;
         const k::BitRows rows{s + (up < 0 ? 4 * stride : 0), up * stride, s + 5 * stride, c.bpp == 3 ? 0 : stride, out, stride, c.n, 5};
         TWIN(LogicRows, rows, static_cast<k::Logic>(c.a));
     }},
    {"lookup", {1}, {0}, {0}, [](auto c, auto s, auto d) { TWIN(LookupRow, s, d, Bytes4(c), Table()); }},
    {"lookup32", {1}, {0}, {0}, [](auto c, auto s, auto d) { TWIN(LookupRow32, s, d, static_cast<std::size_t>(c.n), Table()); }},
    {"threshold", {1}, {-5, 0, 1, 128, 255, 256}, {0}, [](auto c, auto s, auto d) { TWIN(ThresholdToBits, s, d, c.n, c.a); }},
    {"add", {1}, {-300, -255, -17, 0, 40, 254, 255, 1000}, {0, 1},
     [](auto c, auto s, auto d) { TWIN(AddSaturateRow, s, d, Bytes4(c), c.a, c.b); }},
    {"subtract", {1}, {0}, {0, 1}, [](auto c, auto s, auto d) { TWIN(SubtractSaturateRow, s, s + 7, d, Bytes4(c), c.b); }},
    {"and twice", {1}, {0}, {0, 1}, [](auto c, auto s, auto d) { TWIN(AndRowTwice, s, s + 4 * c.n + 32, d, Bytes4(c), c.b); }},
    {"expand", {1, 3, 4}, {0}, {0}, [](auto c, auto s, auto d) { TWIN(ExpandBitsRow, s, d, c.n, c.bpp, 37, 201); }},
    {"decolour", {3, 4}, {0, 1}, {0, 30}, [](auto c, auto s, auto) { TWIN(DecolourRow, s, c.n, c.bpp, c.a, c.b, c.b / 3, 12); }},
    {"spread", {3, 4}, {0, 40, 200}, {0, 1, 2, 3, 4},
     [](auto c, auto s, auto d) { Store(d, TWIN(NextSpread, s, c.b * c.n / 5, c.n, c.bpp, c.a)); }},
    {"red marks", {3, 4}, {0, 1, 2}, {0},
     [](auto c, auto s, auto d) {
         const int diff[] = {40, -300, 300}, level[] = {80, -1, 1000};
         TWIN(RedMarksRow, d, s, c.n, c.bpp, diff[c.a], level[c.a], c.a == 0);
     }},
    {"gray", {3, 4}, {0, 30}, {0, 1}, [](auto c, auto s, auto d) { TWIN(ColourToGrayRow, s, d, c.n, c.bpp, c.a * c.b, c.a / 2); }},
    {"tone", {1}, {0, 1, 2, 3, 4}, {0, 1}, [](auto c, auto s, auto d) { TWIN(ToneRow, s, d, static_cast<std::size_t>(c.n), kLines[c.a], c.b); }},
    {"enhance", {3, 4}, {0, 1, 2, 3, 4}, {0, 1, 2, 3},
     [](auto c, auto s, auto d) {  // b: with a map (the source's second half), in place
         const std::uint8_t *map = c.b & 1 ? s + 4 * c.n + 32 : nullptr;
         TWIN(EnhanceRow, c.b & 2 ? d : s, map, d, c.n, c.bpp, kRules[c.a]);
     }},
    {"excess map", {3, 4}, {0}, {0}, [](auto c, auto s, auto) { TWIN(ExcessMapRow, s, c.n, c.bpp); }},
    {"column bytes", {1}, {0, 1}, {0}, [](auto c, auto s, auto d) { TWIN(AddBytesRow, s, c.n, c.a, reinterpret_cast<std::uint16_t *>(d)); }},
    {"column bits", {1}, {0}, {0}, [](auto c, auto s, auto d) { TWIN(AddBitsRow, s, c.n, 3, 250, reinterpret_cast<std::uint16_t *>(d)); }},
    {"column ink", {3, 4}, {0}, {0},
     [](auto c, auto s, auto d) { TWIN(AddColourInkRow, s, c.n, c.bpp, reinterpret_cast<std::uint16_t *>(d)); }},
    {"sums", {3, 4}, {0}, {0},
     [](auto c, auto s, auto d) {  // the fast count splits between two tables
         std::uint32_t sums[2][766] = {};
         TWIN(CountSumsRow, s, c.n, c.bpp, sums);
         for (int v = 0; v < 766; ++v) sums[0][v] += sums[1][v];
         Store(d, sums[0]);
     }},
    {"levels", {1}, {0, 1}, {0},
     [](auto c, auto s, auto d) {
         std::uint32_t count[256] = {};
         if (c.plain) {
             for (int row = 0; row < 3; ++row) k::plain::CountLevels(s + row, c.n, count);
         } else {
             k::LevelCounter counter(c.a);
             for (int row = 0; row < 3; ++row) counter.AddRow(s + row, c.n);
             counter.AddTo(count);
         }
         Store(d, count);
     }},
};

TEST(Kernels, FastRowsMatchPlainRowsAndKeepTheGuards) {
    for (const Twin &t : kTwins) {
        for (int n : {1, 5, 7, 8, 13, 15, 16, 17, 31, 32, 33, 63, 64, 65, 100, 130, 256, 300, 2480, 2481}) {
            const std::size_t size = 8 * static_cast<std::size_t>(n) + 8192;
            const Bytes src = Source(size, static_cast<unsigned>(n)), dst = Noise(size, 7);
            for (int bpp : t.bpps)
                for (int a : t.as)
                    for (int b : t.bs)
                        for (int simd : {3, 2, 1, 0}) {  // AVX-512, AVX2 with GFNI, AVX2 alone, SSE2
                            Bytes fs = src, fd = dst, ps = src, pd = dst;
                            const int offset = 16 + n % 3;
                            const bool was = k::UseAvx2(simd >= 1), was512 = k::UseAvx512(simd == 3), gfni = k::UseGfni(simd >= 2);
                            t.run({n, bpp, a, b, false}, fs.data() + offset, fd.data() + 16);
                            k::UseAvx2(was), k::UseAvx512(was512), k::UseGfni(gfni);
                            t.run({n, bpp, a, b, true}, ps.data() + offset, pd.data() + 16);
                            ASSERT_TRUE(fd == pd && fs == ps) << t.name << " n " << n << " bpp " << bpp << " " << a << " " << b << " simd " << simd;
                        }
        }
    }
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

// An image of random bytes; with `twin`, a second image of the same bytes.
quarvel::ImagePtr NoiseImage(quarvel::PixelFormat f, int w, int h, std::mt19937 &g, quarvel::ImagePtr *twin = nullptr) {
    quarvel::ImagePtr im = quarvel::CreateImage(f, w, h, 0);
    for (int i = 0; i < im->imageSize; ++i) reinterpret_cast<std::uint8_t *>(im->imageData)[i] = static_cast<std::uint8_t>(g());
    if (twin != nullptr) *twin = quarvel::CreateImageLike(*im, w, h, 0);
    if (twin != nullptr) std::memcpy((*twin)->imageData, im->imageData, static_cast<std::size_t>(im->imageSize));
    return im;
}

bool SameBytes(const quarvel::IplImage &a, const quarvel::IplImage &b) {
    return std::memcmp(a.imageData, b.imageData, static_cast<std::size_t>(a.imageSize)) == 0;
}

// 1-bit rotation copies runs of source bits; the plain path samples each
// pixel. Odd sizes, regions at odd bit offsets, every quadrant of angles.
TEST(Kernels, BitonalRotationRunsMatchThePlainPath) {
    using namespace quarvel;
    std::mt19937 g(5);
    for (double angle : {0.0, 1e-6, 0.3, -1.7, 3.0, 44.9, 89.9, 90.0, -90.0, 135.5, 180.0, 267.0, -33.3}) {
        for (int size : {37, 203, 701}) {
            SCOPED_TRACE(angle * 1000 + size);
            ImagePtr src = NoiseImage(PixelFormat::kBitonal, size, size * 3 / 4, g), slow;
            ImagePtr fast = NoiseImage(PixelFormat::kBitonal, size + 13, size + 5, g, &slow);
            IplROI roi{0, 3, 2, size - 5, size / 2}, out{0, 13, 1, size - 1, size + 4};
            src->roi = &roi;
            fast->roi = slow->roi = size > 300 ? &out : nullptr;
            double xs, ys;
            iplGetRotateShift(size / 3.0, size / 5.0, angle, &xs, &ys);
            RotateImage(src.get(), fast.get(), angle, xs + 1.25, ys - 0.5, 1, false);
            RotateImage(src.get(), slow.get(), angle, xs + 1.25, ys - 0.5, 1, true);
            EXPECT_TRUE(SameBytes(*fast, *slow));
            // Filled: every uncovered bit set or cleared, padding cleared (a
            // NaN shift turns nothing and fills the whole destination).
            const double shift = size == 203 && angle == 3.0 ? std::nan("") : xs + 1.25;
            RotateBitonalFilled(src.get(), fast.get(), angle, shift, ys - 0.5, size & 1, false);
            RotateBitonalFilled(src.get(), slow.get(), angle, shift, ys - 0.5, size & 1, true);
            src->roi = fast->roi = slow->roi = nullptr;
            EXPECT_TRUE(SameBytes(*fast, *slow));
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
        ImagePtr src = NoiseImage(format, w + 3, h + 2, g), slow, fast = NoiseImage(format, dw, dh, g, &slow);
        IplROI roi{0, 2, 1, w, h};
        src->roi = &roi;
        double xs, ys;
        iplGetRotateShift(w * (unit(g) * 1.4 - 0.2), h * (unit(g) * 1.4 - 0.2), angle, &xs, &ys);
        xs += (unit(g) - 0.5) * 8 + (i % 50 == 7 ? 6e5 : 0), ys += (unit(g) - 0.5) * 8;
        RotateImage(src.get(), fast.get(), angle, xs, ys, interpolate, false);
        RotateImage(src.get(), slow.get(), angle, xs, ys, interpolate, true);
        src->roi = nullptr;
        ASSERT_TRUE(SameBytes(*fast, *slow));
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
                ImagePtr src = NoiseImage(f, 211, 67, g), slow, fast = NoiseImage(f, 203, 71, g, &slow);
                IplROI rs{0, xs, 3, xs == 5 ? 197 : 45, 60}, rd{0, 19 - xs, 2, 190, 66};
                src->roi = &rs;
                fast->roi = slow->roi = &rd;
                for (int run = 0; run < 4; ++run) {  // minimum and maximum, AVX2 on and off
                    const bool minimum = run & 1, was = k::UseAvx2(run < 2);
                    MinMaxFilter(src.get(), fast.get(), cols, rows, 0, 0, minimum, false);
                    k::UseAvx2(was);
                    MinMaxFilter(src.get(), slow.get(), cols, rows, 0, 0, minimum, true);
                    EXPECT_TRUE(SameBytes(*fast, *slow)) << static_cast<int>(f) << " " << minimum << " run " << run;
                }
                src->roi = fast->roi = slow->roi = nullptr;
            }
        }
    }
}
