// iplThreshold, iplColorToGray, iplGrayToColor and iplBitonalToGray: the
// primitives that change a pixel's format.
#include <array>
#include <cstring>
#include <opencv2/core.hpp>
#include <opencv2/imgproc.hpp>
#include <vector>

#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"
#include "frame/kernels.h"

namespace quarvel {

void iplThreshold(IplImage *src, IplImage *dst, int threshold) {
    if (src == nullptr || dst == nullptr || FormatOf(*src) != PixelFormat::kGray) return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const PixelFormat fd = FormatOf(*dst);
    if (fd == PixelFormat::kGray) {
        // Values below the threshold give 0, the others 255. OpenCV sets a
        // value to the maximum where v > t - 1, which for whole levels is
        // v >= t; t <= 0 sets every value, t > 255 clears every value.
        cv::Mat d = MatOf(*dst, rd);
        cv::threshold(MatOf(*src, rs), d, static_cast<double>(threshold) - 1.0, 255, cv::THRESH_BINARY);
        return;
    }
    if (fd != PixelFormat::kBitonal) return;
    const int w = rs.width;
    std::vector<std::uint8_t> packed(static_cast<std::size_t>((w + 7) / 8));
    for (int i = 0; i < rs.height; ++i) {
        kernels::ThresholdToBits(RowOf(*src, rs.y + i) + rs.x, packed.data(), w, threshold);
        bits::Copy(packed.data(), 0, RowOf(*dst, rd.y + i), rd.x, w);
    }
}

// gray = 0.212671 R + 0.715160 G + 0.072169 B, rounded to the nearest level
// (in exact integer arithmetic, see kernels.cpp).
void iplColorToGray(IplImage *src, IplImage *dst) {
    if (src == nullptr || dst == nullptr || src->nChannels != 3 || FormatOf(*dst) != PixelFormat::kGray) return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const int bpp = Traits(FormatOf(*src)).bytesPerPixel;
    for (int i = 0; i < rs.height; ++i) {
        const std::uint8_t *s = RowOf(*src, rs.y + i) + static_cast<std::ptrdiff_t>(rs.x) * bpp;
        kernels::ColourToGrayRow(s, RowOf(*dst, rd.y + i) + rd.x, rs.width, bpp, 0, 0);
    }
}

void iplGrayToColor(IplImage *src, IplImage *dst, float fractR, float fractG, float fractB) {
    if (src == nullptr || dst == nullptr || FormatOf(*src) != PixelFormat::kGray || dst->nChannels != 3) return;
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const bool alpha = FormatOf(*dst) == PixelFormat::kBgra;
    cv::Mat s = MatOf(*src, rs);
    cv::Mat d = MatOf(*dst, rd);
    if (fractR == 1.0f && fractG == 1.0f && fractB == 1.0f) {
        cv::cvtColor(s, d, alpha ? cv::COLOR_GRAY2BGRA : cv::COLOR_GRAY2BGR);
        return;
    }
    const int bpp = alpha ? 4 : 3;
    for (int i = 0; i < rs.height; ++i) {
        const std::uint8_t *sp = s.ptr<std::uint8_t>(i);
        std::uint8_t *dp = d.ptr<std::uint8_t>(i);
        for (int x = 0; x < rs.width; ++x, dp += bpp) {
            dp[0] = cv::saturate_cast<std::uint8_t>(sp[x] * fractB);
            dp[1] = cv::saturate_cast<std::uint8_t>(sp[x] * fractG);
            dp[2] = cv::saturate_cast<std::uint8_t>(sp[x] * fractR);
            if (alpha) dp[3] = 255;
        }
    }
}

void iplBitonalToGray(IplImage *src, IplImage *dst, int zeroScale, int oneScale) {
    if (src == nullptr || dst == nullptr || FormatOf(*src) != PixelFormat::kBitonal ||
        FormatOf(*dst) != PixelFormat::kGray) {
        return;
    }
    Region rs, rd;
    if (!CommonRegions(*src, *dst, &rs, &rd)) return;
    const auto zero = static_cast<std::uint8_t>(std::clamp(zeroScale, 0, 255));
    const auto one = static_cast<std::uint8_t>(std::clamp(oneScale, 0, 255));
    // Eight gray bytes for every value of a packed byte.
    std::array<std::array<std::uint8_t, 8>, 256> expand{};
    for (int v = 0; v < 256; ++v)
        for (int k = 0; k < 8; ++k) expand[v][k] = (v >> (7 - k)) & 1 ? one : zero;
    const int w = rs.width;
    std::vector<std::uint8_t> packed(static_cast<std::size_t>((w + 7) / 8));
    for (int i = 0; i < rs.height; ++i) {
        bits::Copy(RowOf(*src, rs.y + i), rs.x, packed.data(), 0, w);
        std::uint8_t *d = RowOf(*dst, rd.y + i) + rd.x;
        const int whole = w / 8;
        for (int j = 0; j < whole; ++j) std::memcpy(d + 8 * j, expand[packed[j]].data(), 8);
        for (int x = whole * 8; x < w; ++x) d[x] = expand[packed[whole]][x - whole * 8];
    }
}

}  // namespace quarvel
