// Quarter-turn orientation. Placeholder until the orientation test lands.
#include "scan/scan.h"

namespace quarvel::scan {

Orientation FindOrientation(const ScanPage &, const Sheet &, const Skew &) { return Orientation{}; }

}  // namespace quarvel::scan
