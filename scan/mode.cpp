// Content colour mode. Placeholder until the content judgement lands: the
// stored mode.
#include "scan/scan.h"

namespace quarvel::scan {

int JudgeContentMode(const ScanPage &page, const Analysis &) {
    if (page.colorSource) return QUARVEL_MODE_COLOR;
    return page.bitonalSource ? QUARVEL_MODE_BITONAL : QUARVEL_MODE_GRAY;
}

}  // namespace quarvel::scan
