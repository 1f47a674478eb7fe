// Binarisation. Placeholder until the adaptive methods land: Otsu.
#include "scan/scan.h"

#include <opencv2/imgproc.hpp>

namespace quarvel::scan {

cv::Mat Binarize(const cv::Mat &gray, int, int, double, int) {
    cv::Mat out;
    cv::threshold(gray, out, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
    return out;
}

}  // namespace quarvel::scan
