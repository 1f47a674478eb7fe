// Punch holes. Placeholder until the hole finder lands: none found.
#include "scan/scan.h"

namespace quarvel::scan {

std::vector<Hole> FindHoles(const ScanPage &, const Sheet &) { return {}; }

void FillHoles(const std::vector<Hole> &, cv::Mat *) {}

}  // namespace quarvel::scan
