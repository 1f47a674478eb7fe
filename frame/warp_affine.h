// Affine warps of 8-bit images (1, 3 or 4 bytes a pixel) by an inverse map,
// fused into one pass over the destination. The arithmetic is OpenCV 4's
// warpAffine to the bit: positions in 1/1024 pixel, a per-row term
// round((m01 Y + m02) 1024) plus a per-column term round(m00 X 1024), both
// rounded half to even; linear interpolation takes positions in 1/32 pixel
// and 15-bit weights (32 - a)(32 - b) 32 and so on, result (sum + 2^14) >> 15.
//
// Contracts: `in` and `out` are CV_8UC1, CV_8UC3 or CV_8UC4 Mats of the same
// type that do not overlap. Only destination pixels named below are written;
// every other byte keeps its value.
#pragma once

#include <opencv2/core.hpp>

namespace quarvel::warp {

// The columns [first, last] of destination row Y whose source position lies
// inside the closed box [0, w - 1] x [0, h - 1] (exact grid positions count
// as inside); first > last when none does. Computed in doubles.
struct Span {
    int first, last;
};
Span InsideSpan(const cv::Matx23d &m, int Y, int w, int h, int dstWidth);

// Linear interpolation of every pixel in each row's InsideSpan, with
// neighbours past the source's last row or column replicated: the pixels
// warpAffine(..., INTER_LINEAR | WARP_INVERSE_MAP, BORDER_REPLICATE) gives
// there. False (nothing written) when the case is not handled here: the
// processor lacks AVX2, the source is 32767 pixels or more a side, a
// destination row has more than 2^20 bytes, or the map's fixed-point terms
// could leave the int range.
bool WarpLinear(const cv::Mat &in, cv::Mat &out, const cv::Matx23d &m);

// Nearest neighbour: each pixel whose rounded source position lies inside the
// source is copied from there, the others keep their value, as
// warpAffine(..., INTER_NEAREST | WARP_INVERSE_MAP, BORDER_TRANSPARENT).
// False when the case is not handled here (as above, AVX2 aside).
bool WarpNearest(const cv::Mat &in, cv::Mat &out, const cv::Matx23d &m);

}  // namespace quarvel::warp
