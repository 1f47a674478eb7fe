// iplAnd, iplOr, iplGreater, iplAddS and iplUserProcessPixel: primitives that
// compute each destination pixel from the source pixels at the same place.
// The fourth byte of a 32-bit pixel is carried over from the first source.
#include <algorithm>
#include <opencv2/core.hpp>
#include <vector>

#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"

namespace quarvel {

namespace {

// dst = src1 op src2 over the common regions; `op` works on whole bytes.
// With 32-bit pixels the fourth byte of src1 is kept.
template <class Op>
void Bitwise(IplImage *src1, IplImage *src2, IplImage *dst, Op op) {
    if (src1 == nullptr || src2 == nullptr || dst == nullptr) return;
    if (!SameFormat(*src1, *src2) || !SameFormat(*src1, *dst)) return;
    Region r1, r2, rd;
    if (!CommonRegions(*src1, *src2, *dst, &r1, &r2, &rd)) return;
    const PixelFormat f = FormatOf(*src1);
    if (f == PixelFormat::kBitonal) {
        const bool aligned = ((r1.x | r2.x | rd.x) & 7) == 0;
        for (int i = 0; i < r1.height; ++i) {
            std::uint8_t *d = RowOf(*dst, rd.y + i);
            if (aligned) {
                bits::CombineInPhase(RowOf(*src1, r1.y + i) + (r1.x >> 3), RowOf(*src2, r2.y + i) + (r2.x >> 3),
                                     d + (rd.x >> 3), 0, r1.width, op);
                continue;
            }
            if (dst != src1) bits::Copy(RowOf(*src1, r1.y + i), r1.x, d, rd.x, r1.width);
            bits::ApplyRow(RowOf(*src2, r2.y + i), r2.x, d, rd.x, r1.width, op);
        }
        return;
    }
    const int bpp = Traits(f).bytesPerPixel;
    for (int i = 0; i < r1.height; ++i) {
        const std::uint8_t *a = RowOf(*src1, r1.y + i) + static_cast<std::ptrdiff_t>(r1.x) * bpp;
        const std::uint8_t *b = RowOf(*src2, r2.y + i) + static_cast<std::ptrdiff_t>(r2.x) * bpp;
        std::uint8_t *d = RowOf(*dst, rd.y + i) + static_cast<std::ptrdiff_t>(rd.x) * bpp;
        const int n = r1.width * bpp;
        if (f == PixelFormat::kBgra) {
            for (int k = 0; k < n; ++k) d[k] = (k & 3) == 3 ? a[k] : static_cast<std::uint8_t>(op(a[k], b[k]));
        } else {
            for (int k = 0; k < n; ++k) d[k] = static_cast<std::uint8_t>(op(a[k], b[k]));
        }
    }
}

}  // namespace

void iplAnd(IplImage *src1, IplImage *src2, IplImage *dst) {
    Bitwise(src1, src2, dst, [](auto a, auto b) { return static_cast<decltype(a)>(a & b); });
}

void iplOr(IplImage *src1, IplImage *src2, IplImage *dst) {
    Bitwise(src1, src2, dst, [](auto a, auto b) { return static_cast<decltype(a)>(a | b); });
}

void iplGreater(IplImage *srcA, IplImage *srcB, IplImage *dst) {
    if (srcA == nullptr || srcB == nullptr || dst == nullptr || !SameFormat(*srcA, *srcB)) return;
    // 1-bit pages compare in whole rows (a & ~b) through the page kernels.
    if (FormatOf(*dst) != PixelFormat::kBitonal || FormatOf(*srcA) == PixelFormat::kBitonal) return;
    Region ra, rb, rd;
    if (!CommonRegions(*srcA, *srcB, *dst, &ra, &rb, &rd)) return;
    // A pixel is greater when any of its channels is.
    const int bpp = Traits(FormatOf(*srcA)).bytesPerPixel;
    const int channels = std::min(bpp, 3);
    for (int i = 0; i < ra.height; ++i) {
        const std::uint8_t *a = RowOf(*srcA, ra.y + i) + static_cast<std::ptrdiff_t>(ra.x) * bpp;
        const std::uint8_t *b = RowOf(*srcB, rb.y + i) + static_cast<std::ptrdiff_t>(rb.x) * bpp;
        std::uint8_t *d = RowOf(*dst, rd.y + i);
        for (int x = 0; x < ra.width; ++x, a += bpp, b += bpp) {
            bool greater = false;
            for (int c = 0; c < channels; ++c) greater = greater || a[c] > b[c];
            bits::Set(d, rd.x + x, greater);
        }
    }
}

void iplAddS(IplImage *src, IplImage *dst, int value) {
    if (src == nullptr || dst == nullptr || !SameFormat(*src, *dst) || src->depth == IPL_DEPTH_1U) return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const int channels = src->nChannels + (src->alphaChannel ? 1 : 0);
    cv::Mat lut(1, 256, CV_8UC(channels));
    for (int v = 0; v < 256; ++v) {
        std::uint8_t *e = lut.ptr<std::uint8_t>(0) + v * channels;
        for (int c = 0; c < channels; ++c)
            e[c] = c == 3 ? static_cast<std::uint8_t>(v) : static_cast<std::uint8_t>(std::clamp<long long>(static_cast<long long>(v) + value, 0, 255));
    }
    cv::Mat out = MatOf(*dst, rd);
    cv::LUT(MatOf(*src, rs), lut, out);
}

void iplUserProcessPixel(IplImage *src, IplImage *dst, IplUserFunc func) {
    if (src == nullptr || dst == nullptr || func == nullptr || !SameFormat(*src, *dst) || src->depth == IPL_DEPTH_1U)
        return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const int bpp = Traits(FormatOf(*src)).bytesPerPixel;
    for (int i = 0; i < rs.height; ++i) {
        std::uint8_t *s = RowOf(*src, rs.y + i) + static_cast<std::ptrdiff_t>(rs.x) * bpp;
        std::uint8_t *d = RowOf(*dst, rd.y + i) + static_cast<std::ptrdiff_t>(rd.x) * bpp;
        for (int x = 0; x < rs.width; ++x, s += bpp, d += bpp) func(src, s, dst, d);
    }
}

}  // namespace quarvel
