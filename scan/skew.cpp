// Skew with confidence. Placeholder until the skew search lands.
#include "scan/scan.h"

namespace quarvel::scan {

Skew FindSkew(const ScanPage &, const Sheet &, double) { return Skew{}; }

}  // namespace quarvel::scan
