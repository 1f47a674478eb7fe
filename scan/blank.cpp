// Blank pages. Placeholder until the blank test lands.
#include "scan/scan.h"

namespace quarvel::scan {

Blank JudgeBlank(const ScanPage &, const Analysis &analysis) {
    Blank b;
    b.blank = !analysis.hasContent;
    return b;
}

}  // namespace quarvel::scan
