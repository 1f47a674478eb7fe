// Zero-copy bridge from our images to OpenCV: a cv::Mat over an image's
// region, sharing its rows. Stored row 0 is Mat row 0 (bottom-up stays
// bottom-up); nothing is flipped.
#pragma once

#include <opencv2/core.hpp>

#include "frame/ipl.h"

namespace quarvel {

// CV_8UC1, CV_8UC3 or CV_8UC4 for 8-bit images; -1 for bitonal images.
int MatType(const IplImage &image);
// A Mat over the given region of an 8-bit or colour image.
cv::Mat MatOf(const IplImage &image, const Region &region);

// The regions two or three images share: each image's own region, cut to
// the common width and height. False when any region is invalid.
bool CommonRegions(const IplImage &a, const IplImage &b, Region *ra, Region *rb);
bool CommonRegions(const IplImage &a, const IplImage &b, const IplImage &c, Region *ra, Region *rb, Region *rc);

// Whether two images have the same pixel format.
bool SameFormat(const IplImage &a, const IplImage &b);

}  // namespace quarvel
