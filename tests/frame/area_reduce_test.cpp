// The area reduction and the halving against OpenCV's resize with
// INTER_AREA, their plain twin, byte for byte: random sizes and output sizes
// (halves among them) at 1, 3 and 4 channels over noise, flat runs and ramps
// (where rounding ties gather), 1-bit regions at any bit offset (through
// iplResize), the clipped corner, and guard bytes around the written block.
#include "frame/area_reduce.h"

#include <gtest/gtest.h>

#include <opencv2/imgproc.hpp>
#include <random>
#include <vector>

#include "frame/bits.h"
#include "frame/ipl.h"

namespace {

using quarvel::AreaReduce;
using quarvel::AreaReduceCovers;
using quarvel::AreaSource;

constexpr std::uint8_t kGuard = 0xA5;

// A page of three kinds of content side by side: noise, flat runs, ramps.
cv::Mat Page(int w, int h, int cn, std::mt19937 &rng) {
    cv::Mat m(h, w, CV_8UC(cn));
    const int flat = static_cast<int>(rng() % 256);
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w * cn; ++x) {
            const int kind = (x / cn) * 3 / w;
            m.ptr(y)[x] = static_cast<std::uint8_t>(kind == 0 ? rng() : kind == 1 ? flat : (x + 7 * y) & 255);
        }
    return m;
}

bool Halving(int srcW, int srcH, int outW, int outH) {
    return srcW == 2 * outW && srcH == 2 * outH;
}

// Runs AreaReduce (AreaHalve for a halving) into a guarded block; returns
// the w x h corner and checks the guard.
cv::Mat Reduce(const AreaSource &s, int outW, int outH, int w, int h) {
    const int cn = s.channels, pad = 5;
    cv::Mat block(h + 2, (w + 2 * pad) * cn, CV_8UC1, cv::Scalar(kGuard));
    std::uint8_t *at = block.ptr(1) + pad * cn;
    const auto step = static_cast<std::ptrdiff_t>(block.step);
    EXPECT_TRUE(Halving(s.width, s.height, outW, outH) ? quarvel::AreaHalve(s, at, step, w, h)
                                                       : AreaReduce(s, outW, outH, at, step, w, h));
    cv::Mat inner = block(cv::Rect(pad * cn, 1, w * cn, h)).clone();
    block(cv::Rect(pad * cn, 1, w * cn, h)).setTo(kGuard);
    EXPECT_EQ(cv::countNonZero(block != kGuard), 0) << "written outside the block";
    return inner.reshape(cn);
}

bool Same(const cv::Mat &a, const cv::Mat &b) {
    return a.size() == b.size() && a.type() == b.type() && cv::countNonZero(a.reshape(1) != b.reshape(1)) == 0;
}

TEST(AreaReduce, EqualsOpenCvAreaResize) {
    if (!AreaReduceCovers(3, 3, 2, 2)) GTEST_SKIP() << "no AVX2";
    std::mt19937 rng(5);
    struct Case {
        int srcW, srcH, outW, outH, cn;
    };
    std::vector<Case> cases = {{2480, 3508, 141, 200, 1}, {1240, 1754, 141, 200, 3}, {1000, 700, 999, 699, 4},
                               {300, 200, 100, 67, 3},    {17, 40, 5, 40, 1},        {40, 17, 40, 3, 4},
                               {2480, 702, 1240, 351, 3}, {62, 4, 31, 2, 1},         {34, 2, 17, 1, 4}};
    for (int i = 0; i < 150; ++i) {
        const int cn = i % 3 == 0 ? 1 : i % 3 == 1 ? 3 : 4;
        const int sw = 1 + static_cast<int>(rng() % 260), sh = 1 + static_cast<int>(rng() % 120);
        if (i % 4 == 0)
            cases.push_back({2 * sw, 2 * sh, sw, sh, cn});
        else
            cases.push_back({sw, sh, 1 + static_cast<int>(rng() % sw), 1 + static_cast<int>(rng() % sh), cn});
    }
    for (const Case &c : cases) {
        const bool halving = Halving(c.srcW, c.srcH, c.outW, c.outH);
        if (!(halving ? quarvel::AreaHalveCovers(c.srcW, c.srcH, c.outW, c.outH, c.cn)
                      : AreaReduceCovers(c.srcW, c.srcH, c.outW, c.outH)))
            continue;
        SCOPED_TRACE(::testing::Message()
                     << c.srcW << "x" << c.srcH << " to " << c.outW << "x" << c.outH << " cn " << c.cn);
        const cv::Mat in = Page(c.srcW, c.srcH, c.cn, rng);
        cv::Mat want;
        cv::resize(in, want, cv::Size(c.outW, c.outH), 0, 0, cv::INTER_AREA);
        AreaSource s{in.data, static_cast<std::ptrdiff_t>(in.step), c.srcW, c.srcH, c.cn};
        ASSERT_TRUE(Same(Reduce(s, c.outW, c.outH, c.outW, c.outH), want));
        const int w = 1 + static_cast<int>(rng() % c.outW), h = 1 + static_cast<int>(rng() % c.outH);
        ASSERT_TRUE(Same(Reduce(s, c.outW, c.outH, w, h), want(cv::Rect(0, 0, w, h)))) << "corner " << w << "x" << h;
    }
}

// iplResize of a 1-bit region at any bit offset, by whole factors (counted
// on packed bits) and not (the area reduction): the region's levels 0 and
// 255 resized by OpenCV and thresholded at 128, with the destination
// region's neighbours untouched.
TEST(AreaReduce, BitonalRegionResizeAtBitOffsets) {
    using namespace quarvel;
    std::mt19937 rng(3);
    for (int i = 0; i < 80; ++i) {
        const int fx = 1 + static_cast<int>(rng() % 18), fy = 1 + static_cast<int>(rng() % 5);
        const int outW = 1 + static_cast<int>(rng() % 40), outH = 1 + static_cast<int>(rng() % 20);
        const bool whole = i % 2 == 0;
        const int sw = whole ? fx * outW : outW + static_cast<int>(rng() % 200),
                  sh = whole ? fy * outH : outH + static_cast<int>(rng() % 60);
        const int sx = static_cast<int>(rng() % 11), sy = static_cast<int>(rng() % 3), dx = static_cast<int>(rng() % 9);
        ImagePtr src = CreateImage(PixelFormat::kBitonal, sx + sw + 5, sy + sh, 0);
        ImagePtr dst = CreateImage(PixelFormat::kBitonal, dx + outW + 9, outH + 1, 0);
        for (int y = 0; y < src->height; ++y)
            for (int x = 0; x < src->width; ++x) bits::Set(RowOf(*src, y), x, (rng() % 3) == 0);
        for (int y = 0; y < dst->height; ++y)
            for (int x = 0; x < dst->width; ++x) bits::Set(RowOf(*dst, y), x, static_cast<int>((x + y) & 1));
        ImagePtr before = CreateImage(PixelFormat::kBitonal, dst->width, dst->height, 0);
        iplCopy(dst.get(), before.get());
        cv::Mat gray(sh, sw, CV_8UC1), want;
        for (int y = 0; y < sh; ++y)
            for (int x = 0; x < sw; ++x) gray.at<std::uint8_t>(y, x) = bits::Get(RowOf(*src, sy + y), sx + x) ? 255 : 0;
        cv::resize(gray, want, cv::Size(outW, outH), 0, 0, cv::INTER_AREA);
        RoiPtr rs(iplCreateROI(0, sx, sy, sw, sh)), rd(iplCreateROI(0, dx, 0, outW + 9, outH + 1));
        {
            RoiScope a(src.get(), rs.get()), b(dst.get(), rd.get());
            iplResize(src.get(), dst.get(), outW, sw, outH, sh, IPL_INTER_SUPER);
        }
        for (int y = 0; y < dst->height; ++y)
            for (int x = 0; x < dst->width; ++x) {
                const bool inside = x >= dx && x < dx + outW && y < outH;
                const int expected = inside ? want.at<std::uint8_t>(y, x - dx) >= 128 : bits::Get(RowOf(*before, y), x);
                ASSERT_EQ(bits::Get(RowOf(*dst, y), x), expected)
                    << sw << "x" << sh << " at " << sx << " to " << outW << "x" << outH << " pixel " << x << "," << y;
            }
    }
}

TEST(AreaReduce, CoversReductionsNotWholeOnBothAxes) {
    if (!AreaReduceCovers(3, 3, 2, 2)) GTEST_SKIP() << "no AVX2";
    struct Case {
        int srcW, srcH, outW, outH;
        bool covered;
    } const cases[] = {{100, 100, 50, 50, false}, {100, 100, 100, 100, false}, {100, 100, 50, 30, true},
                       {100, 100, 100, 99, true}, {100, 100, 101, 50, false},  {100, 100, 50, 101, false},
                       {100, 100, 0, 50, false},  {0, 100, 1, 1, false},       {99, 99, 33, 9, false}};
    for (const Case &c : cases)
        EXPECT_EQ(AreaReduceCovers(c.srcW, c.srcH, c.outW, c.outH), c.covered)
            << c.srcW << "x" << c.srcH << " to " << c.outW << "x" << c.outH;
    const bool was = quarvel::UseAreaReduce(false);
    EXPECT_FALSE(AreaReduceCovers(100, 100, 50, 30));
    quarvel::UseAreaReduce(was);
}

}  // namespace
