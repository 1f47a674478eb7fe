// iplFixedFilter, iplComputeHisto and iplSubtract.
//
// The fixed filters are the binomial Gaussians: 3 x 3 from (1 2 1) / 4 and
// 5 x 5 from (1 4 6 4 1) / 16 in each direction, rounded to the nearest
// level. A region is filtered as its own image: its edge pixels are repeated
// outward, so nothing outside it is read and edges do not darken. All
// channels are smoothed, the fourth byte of a 32-bit pixel included (a
// constant byte stays constant).
#include <algorithm>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "frame/bits.h"
#include "frame/kernels.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"

namespace quarvel {

void iplFixedFilter(IplImage *src, IplImage *dst, int filter) {
    if (src == nullptr || dst == nullptr || !SameFormat(*src, *dst) || src->depth == IPL_DEPTH_1U) return;
    if (filter != IPL_GAUSSIAN_3x3 && filter != IPL_GAUSSIAN_5x5) return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const int size = filter == IPL_GAUSSIAN_3x3 ? 3 : 5;
    const cv::Mat in = MatOf(*src, rs);
    cv::Mat out = MatOf(*dst, rd);
    // With sigma 0 and these sizes OpenCV uses exactly the binomial kernels.
    cv::GaussianBlur(in, out, cv::Size(size, size), 0, 0, cv::BORDER_REPLICATE | cv::BORDER_ISOLATED);
}

void iplComputeHisto(IplImage *image, IplLUT **luts) {
    if (image == nullptr || luts == nullptr || luts[0] == nullptr || image->depth == IPL_DEPTH_1U) return;
    IplLUT &lut = *luts[0];
    if (lut.num < 2 || lut.key == nullptr || lut.value == nullptr) return;
    Region r;
    if (!RegionOf(*image, &r)) return;
    const int bins = lut.num - 1;
    std::fill(lut.value, lut.value + bins, 0);
    // Bin of every level: key[i] <= v < key[i + 1].
    int binOf[256];
    for (int v = 0; v < 256; ++v) {
        binOf[v] = -1;
        for (int i = 0; i < bins; ++i)
            if (lut.key[i] <= v && v < lut.key[i + 1]) {
                binOf[v] = i;
                break;
            }
    }
    const int channels = image->nChannels;
    const int bpp = Traits(FormatOf(*image)).bytesPerPixel;
    for (int y = 0; y < r.height; ++y) {
        const std::uint8_t *p = RowOf(*image, r.y + y) + static_cast<std::ptrdiff_t>(r.x) * bpp;
        for (int x = 0; x < r.width; ++x, p += bpp)
            for (int c = 0; c < channels; ++c)
                if (binOf[p[c]] >= 0) ++lut.value[binOf[p[c]]];
    }
}

void iplSubtract(IplImage *src1, IplImage *src2, IplImage *dst) {
    if (src1 == nullptr || src2 == nullptr || dst == nullptr) return;
    if (!SameFormat(*src1, *src2) || !SameFormat(*src1, *dst)) return;
    Region r1, r2, rd;
    if (!CommonRegions(*src1, *src2, *dst, &r1, &r2, &rd)) return;
    const PixelFormat f = FormatOf(*src1);
    if (f == PixelFormat::kBitonal) {
        // 1 - 1 and 0 - x saturate to 0: a bit survives where src2 is 0.
        // src2's bits are taken before dst (which may be src2) is written.
        // Its bits are lined up with dst's bit phase, so the AND-NOT runs
        // on whole bytes.
        const int phase = rd.x & 7;
        std::vector<std::uint8_t> b(static_cast<std::size_t>(r1.width + 7) / 8 + 2);
        for (int i = 0; i < r1.height; ++i) {
            bits::Copy(RowOf(*src2, r2.y + i), r2.x, b.data(), phase, r1.width);
            std::uint8_t *d = RowOf(*dst, rd.y + i);
            bits::Copy(RowOf(*src1, r1.y + i), r1.x, d, rd.x, r1.width);
            bits::ApplyRow(b.data(), phase, d, rd.x, r1.width,
                           [](std::uint8_t a, std::uint8_t m) { return static_cast<std::uint8_t>(a & ~m); });
        }
        return;
    }
    const int bpp = Traits(f).bytesPerPixel;
    for (int i = 0; i < r1.height; ++i) {
        const std::uint8_t *a = RowOf(*src1, r1.y + i) + static_cast<std::ptrdiff_t>(r1.x) * bpp;
        const std::uint8_t *b = RowOf(*src2, r2.y + i) + static_cast<std::ptrdiff_t>(r2.x) * bpp;
        std::uint8_t *d = RowOf(*dst, rd.y + i) + static_cast<std::ptrdiff_t>(rd.x) * bpp;
        kernels::SubtractSaturateRow(a, b, d, static_cast<std::size_t>(r1.width) * bpp, bpp == 4);
    }
}

}  // namespace quarvel
