// Binarisation internals shared by the cleaning steps, the tests and the
// benchmarks: the defaults chosen from the resolution, and the per-pixel
// Sauvola threshold that the fast cell-grid version is checked against.
#pragma once

#include <opencv2/core.hpp>

namespace quarvel::scan {

// Window side for the local methods: about a fifth of an inch, odd, 15..255.
int BinarizeWindow(int dpi);
// The method's sensitivity when the caller gives none.
double BinarizeDefaultK(int method);
// Sauvola with the exact window round every pixel (integral images); slow,
// the oracle for the grid version. 0/255 with 0 = ink.
cv::Mat SauvolaPlain(const cv::Mat &gray, int window, double k);

}  // namespace quarvel::scan
