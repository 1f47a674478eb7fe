// Despeckle. Placeholder until speck removal lands.
#include "scan/scan.h"

namespace quarvel::scan {

void Despeckle(cv::Mat *, int, int) {}

}  // namespace quarvel::scan
