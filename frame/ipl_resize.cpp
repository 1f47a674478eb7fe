// iplResize: scale the source region by xDst / xSrc and yDst / ySrc into the
// destination region (which it fills from its corner: the scaled size is
// clipped to the region). Cubic interpolation (2) or, for reductions,
// super-sampling (3, an area average); any other mode is linear. 8-bit and
// colour images run on OpenCV; a 1-bit image is resampled as gray levels 0
// and 255 and thresholded at 128, so thin strokes survive a reduction.
#include <algorithm>
#include <opencv2/imgproc.hpp>

#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/ipl_mat.h"

namespace quarvel {

namespace {

int CvMode(int interpolate) {
    switch (interpolate) {
        case IPL_INTER_CUBIC: return cv::INTER_CUBIC;
        case IPL_INTER_SUPER: return cv::INTER_AREA;
        case IPL_INTER_NN: return cv::INTER_NEAREST;
        default: return cv::INTER_LINEAR;
    }
}

}  // namespace

void iplResize(IplImage *src, IplImage *dst, int xDst, int xSrc, int yDst, int ySrc, int interpolate) {
    if (src == nullptr || dst == nullptr || !SameFormat(*src, *dst)) return;
    if (xDst <= 0 || xSrc <= 0 || yDst <= 0 || ySrc <= 0) return;
    Region rs, rd;
    if (!RegionOf(*src, &rs) || !RegionOf(*dst, &rd)) return;
    const long long outW = static_cast<long long>(rs.width) * xDst / xSrc;
    const long long outH = static_cast<long long>(rs.height) * yDst / ySrc;
    const int w = static_cast<int>(std::min<long long>(outW, rd.width));
    const int h = static_cast<int>(std::min<long long>(outH, rd.height));
    if (w <= 0 || h <= 0) return;
    const int mode = CvMode(interpolate);

    if (FormatOf(*src) == PixelFormat::kBitonal) {
        cv::Mat gray(rs.height, rs.width, CV_8UC1);
        for (int y = 0; y < rs.height; ++y) {
            const std::uint8_t *row = RowOf(*src, rs.y + y);
            std::uint8_t *g = gray.ptr<std::uint8_t>(y);
            for (int x = 0; x < rs.width; ++x) g[x] = bits::Get(row, rs.x + x) ? 255 : 0;
        }
        cv::Mat scaled;
        cv::resize(gray, scaled, cv::Size(static_cast<int>(outW), static_cast<int>(outH)), 0, 0, mode);
        for (int y = 0; y < h; ++y) {
            const std::uint8_t *g = scaled.ptr<std::uint8_t>(y);
            std::uint8_t *row = RowOf(*dst, rd.y + y);
            for (int x = 0; x < w; ++x) bits::Set(row, rd.x + x, g[x] >= 128);
        }
        return;
    }
    const cv::Mat in = MatOf(*src, rs);
    cv::Mat out = MatOf(*dst, Region{rd.x, rd.y, w, h});
    if (w == outW && h == outH) {
        cv::resize(in, out, out.size(), 0, 0, mode);
    } else {  // the scaled image is larger than the region: keep its corner
        cv::Mat scaled;
        cv::resize(in, scaled, cv::Size(static_cast<int>(outW), static_cast<int>(outH)), 0, 0, mode);
        scaled(cv::Rect(0, 0, w, h)).copyTo(out);
    }
}

}  // namespace quarvel
