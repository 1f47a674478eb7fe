// The image-library layer's primitives on every depth, confined to regions of
// interest at odd offsets, on images that sit inside larger buffers with guard
// bytes: the region gets the primitive's result, everything else (pixels
// outside the region, row padding, the guards) keeps its bytes.
#include <gtest/gtest.h>

#include <functional>
#include <vector>

#include "frame/ipl.h"

namespace {

using namespace quarvel;

constexpr std::uint8_t kGuard = 0xA5;
constexpr int kGuardBytes = 64;

// An image over rows inside a guarded buffer.
struct Guarded {
    std::vector<std::uint8_t> buffer;
    ImagePtr image;

    Guarded(PixelFormat format, int width, int height) {
        image = WrapRows(format, width, height, nullptr);
        buffer.assign(static_cast<std::size_t>(image->imageSize) + 2 * kGuardBytes, kGuard);
        image->imageData = buffer.data() + kGuardBytes;
    }
    bool guardsIntact() const {
        for (int i = 0; i < kGuardBytes; ++i)
            if (buffer[i] != kGuard || buffer[buffer.size() - 1 - i] != kGuard) return false;
        return true;
    }
};

int Channels(const IplImage &im) { return Traits(FormatOf(im)).bytesPerPixel == 0 ? 1 : Traits(FormatOf(im)).bytesPerPixel; }

int Get(const IplImage &im, int x, int y, int c) {
    const std::uint8_t *r = RowOf(im, y);
    if (FormatOf(im) == PixelFormat::kBitonal) return (r[x >> 3] >> (7 - (x & 7))) & 1;
    return r[x * Channels(im) + c];
}

void Set(IplImage &im, int x, int y, int c, int v) {
    std::uint8_t *r = RowOf(im, y);
    if (FormatOf(im) == PixelFormat::kBitonal) {
        const int m = 0x80 >> (x & 7);
        r[x >> 3] = static_cast<std::uint8_t>(v ? r[x >> 3] | m : r[x >> 3] & ~m);
        return;
    }
    r[x * Channels(im) + c] = static_cast<std::uint8_t>(v);
}

void Pattern(IplImage &im, int seed) {
    for (int y = 0; y < im.height; ++y)
        for (int x = 0; x < im.width; ++x)
            for (int c = 0; c < Channels(im); ++c)
                Set(im, x, y, c, FormatOf(im) == PixelFormat::kBitonal ? (x * 5 + y * 3 + seed) % 7 < 3
                                                                       : (x * 37 + y * 11 + c * 71 + seed) % 256);
}

// expected(srcImage, sx, sy, c) gives the destination value for the pixel
// whose source (in region coordinates) is computed by `from`.
using Expect = std::function<int(const IplImage &src, int rx, int ry, int c, int rw, int rh)>;

void CheckRegionOp(PixelFormat format, const std::function<void(IplImage *, IplImage *)> &op, const Expect &expect) {
    Guarded src(format, 37, 11), dst(format, 41, 13);
    Pattern(*src.image, 1);
    Pattern(*dst.image, 2);
    const std::vector<std::uint8_t> before = dst.buffer;
    Guarded original(format, 41, 13);
    std::copy(before.begin(), before.end(), original.buffer.begin());
    IplROI rs{0, 3, 2, 29, 7}, rd{0, 5, 4, 29, 7};
    src.image->roi = &rs;
    dst.image->roi = &rd;
    op(src.image.get(), dst.image.get());
    src.image->roi = dst.image->roi = nullptr;
    ASSERT_TRUE(dst.guardsIntact());
    for (int y = 0; y < 13; ++y)
        for (int x = 0; x < 41; ++x)
            for (int c = 0; c < Channels(*dst.image); ++c) {
                const bool inside = x >= 5 && x < 5 + 29 && y >= 4 && y < 4 + 7;
                const int want = inside ? expect(*src.image, x - 5, y - 4, c, 29, 7) : Get(*original.image, x, y, c);
                ASSERT_EQ(Get(*dst.image, x, y, c), want) << "pixel " << x << "," << y << " channel " << c;
            }
    // Row padding is untouched.
    const int usedBits = 41 * Traits(format).bitCount;
    for (int y = 0; y < 13; ++y)
        for (int b = usedBits; b < dst.image->widthStep * 8; ++b)
            ASSERT_EQ((RowOf(*dst.image, y)[b >> 3] >> (7 - (b & 7))) & 1,
                      (RowOf(*original.image, y)[b >> 3] >> (7 - (b & 7))) & 1);
}

int SrcAt(const IplImage &src, int rx, int ry, int c) { return Get(src, 3 + rx, 2 + ry, c); }

// Copy moves the region; Not complements colours and keeps the fourth byte;
// mirrors about either axis; Set fills only the region.
TEST(Primitives, RegionOpsOnEveryDepth) {
    const struct {
        const char *name;
        std::function<void(IplImage *, IplImage *)> op;
        Expect expect;
    } ops[] = {
        {"copy", iplCopy, [](const IplImage &s, int rx, int ry, int c, int, int) { return SrcAt(s, rx, ry, c); }},
        {"not", iplNot,
         [](const IplImage &s, int rx, int ry, int c, int, int) {
             const int v = SrcAt(s, rx, ry, c);
             return FormatOf(s) == PixelFormat::kBitonal ? 1 - v : c == 3 ? v : 255 - v;
         }},
        {"mirror vertical axis", [](IplImage *s, IplImage *d) { iplMirror(s, d, 1); },
         [](const IplImage &s, int rx, int ry, int c, int rw, int) { return SrcAt(s, rw - 1 - rx, ry, c); }},
        {"mirror horizontal axis", [](IplImage *s, IplImage *d) { iplMirror(s, d, 0); },
         [](const IplImage &s, int rx, int ry, int c, int, int rh) { return SrcAt(s, rx, rh - 1 - ry, c); }},
        {"set", [](IplImage *, IplImage *d) { iplSet(d, 200); },
         [](const IplImage &s, int, int, int, int, int) { return FormatOf(s) == PixelFormat::kBitonal ? 1 : 200; }},
    };
    for (const auto &o : ops)
        for (PixelFormat f : {PixelFormat::kBitonal, PixelFormat::kGray, PixelFormat::kBgr, PixelFormat::kBgra}) {
            SCOPED_TRACE(testing::Message() << o.name << " format " << static_cast<int>(f));
            CheckRegionOp(f, o.op, o.expect);
        }
}

TEST(Primitives, RegionsOutsideTheImageDoNothing) {
    Guarded src(PixelFormat::kGray, 10, 10), dst(PixelFormat::kGray, 10, 10);
    Pattern(*dst.image, 3);
    const auto before = dst.buffer;
    IplROI outside{0, 6, 0, 5, 5}, negative{0, -1, 0, 4, 4};
    for (IplROI *roi : {&outside, &negative}) {
        dst.image->roi = roi;
        iplCopy(src.image.get(), dst.image.get());
        iplSet(dst.image.get(), 0);
        iplNot(src.image.get(), dst.image.get());
    }
    EXPECT_EQ(dst.buffer, before);
}

TEST(Primitives, MirrorInPlace) {
    for (int axis : {0, 1}) {
        Guarded im(PixelFormat::kBgr, 5, 3), was(PixelFormat::kBgr, 5, 3);
        Pattern(*im.image, 4), Pattern(*was.image, 4);
        iplMirror(im.image.get(), im.image.get(), axis);
        for (int y = 0; y < 3; ++y)
            for (int x = 0; x < 5; ++x)
                ASSERT_EQ(Get(*im.image, x, y, 1), Get(*was.image, axis ? 4 - x : x, axis ? y : 2 - y, 1)) << axis;
    }
}

TEST(Primitives, BitonalFiltersAgreeWithGrayAtAnyAnchor) {
    Guarded bits(PixelFormat::kBitonal, 23, 9), gray(PixelFormat::kGray, 23, 9);
    Guarded outBits(PixelFormat::kBitonal, 23, 9), outGray(PixelFormat::kGray, 23, 9);
    Pattern(*bits.image, 5);
    for (int y = 0; y < 9; ++y)
        for (int x = 0; x < 23; ++x) Set(*gray.image, x, y, 0, 255 * Get(*bits.image, x, y, 0));
    for (auto [ax, ay] : {std::pair{0, 0}, {1, 2}, {2, 3}})
        for (auto filter : {iplMinFilter, iplMaxFilter}) {
            filter(bits.image.get(), outBits.image.get(), 3, 4, ax, ay);
            filter(gray.image.get(), outGray.image.get(), 3, 4, ax, ay);
            for (int y = 0; y < 9; ++y)
                for (int x = 0; x < 23; ++x)
                    ASSERT_EQ(255 * Get(*outBits.image, x, y, 0), Get(*outGray.image, x, y, 0)) << ax << "," << ay << " at " << x << "," << y;
        }
}

TEST(Primitives, ThresholdToBytesAndBits) {
    Guarded gray(PixelFormat::kGray, 256, 1), bytes(PixelFormat::kGray, 256, 1), bitsOut(PixelFormat::kBitonal, 256, 1);
    for (int x = 0; x < 256; ++x) RowOf(*gray.image, 0)[x] = static_cast<std::uint8_t>(x);
    for (int t : {0, 1, 127, 128, 255, 256}) {
        iplThreshold(gray.image.get(), bytes.image.get(), t);
        iplThreshold(gray.image.get(), bitsOut.image.get(), t);
        for (int x = 0; x < 256; ++x) {
            ASSERT_EQ(RowOf(*bytes.image, 0)[x], x < t ? 0 : 255) << t << " " << x;
            ASSERT_EQ(Get(*bitsOut.image, x, 0, 0), x < t ? 0 : 1) << t << " " << x;
        }
    }
    // In place.
    iplThreshold(gray.image.get(), gray.image.get(), 128);
    EXPECT_EQ(RowOf(*gray.image, 0)[127] * 1000 + RowOf(*gray.image, 0)[128], 255);
    EXPECT_TRUE(bitsOut.guardsIntact());
}

TEST(Primitives, BitonalToGrayAndGrayToColour) {
    Guarded bits(PixelFormat::kBitonal, 19, 2), gray(PixelFormat::kGray, 19, 2), colour(PixelFormat::kBgra, 19, 2);
    Pattern(*bits.image, 0);
    iplBitonalToGray(bits.image.get(), gray.image.get(), 255, 0);
    for (int y = 0; y < 2; ++y)
        for (int x = 0; x < 19; ++x) ASSERT_EQ(Get(*gray.image, x, y, 0), Get(*bits.image, x, y, 0) ? 0 : 255);
    iplGrayToColor(gray.image.get(), colour.image.get(), 1.0f, 1.0f, 1.0f);
    for (int x = 0; x < 19; ++x)
        for (int c = 0; c < 3; ++c) ASSERT_EQ(Get(*colour.image, x, 1, c), Get(*gray.image, x, 1, 0));
    EXPECT_TRUE(colour.guardsIntact());
}

}  // namespace
