// Sheet and frame. Placeholder until the sheet finder lands: the whole page,
// no frame.
#include "scan/scan.h"

namespace quarvel::scan {

Sheet FindSheet(const ScanPage &page) {
    Sheet s;
    s.box = cv::Rect(0, 0, page.width, page.height);
    return s;
}

}  // namespace quarvel::scan
