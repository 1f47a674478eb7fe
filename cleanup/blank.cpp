// IsBlankPage: the share of ink on a page in hundredths of a per cent. The
// page (without a 10-pixel margin when it is larger than 200 x 200) is made
// gray, thresholded (levels below the threshold are ink) and counted.
#include "cleanup/cleanup.h"
#include "frame/convert.h"
#include "frame/view.h"

namespace quarvel::cleanup {

int IsBlankPage(HGLOBAL hDib, int threshold) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return -1;  // nothing counted
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return -1;
    const int w = in.width(), h = in.height();
    const bool margin = w > 200 && h > 200;
    RoiPtr region(margin ? iplCreateROI(0, 10, 10, w - 20, h - 20) : iplCreateROI(0, 0, 0, w, h));
    if (!region) return -1;
    ImagePtr gray = MakeGrayImage(view.get(), region.get(), in.header());
    if (!gray) return -1;
    iplThreshold(gray.get(), gray.get(), threshold);

    int keys[257], values[256], factors[256] = {};
    for (int i = 0; i <= 256; ++i) keys[i] = i;
    IplLUT lut{257, keys, values, factors, 1};
    IplLUT *luts[1] = {&lut};
    iplComputeHisto(gray.get(), luts);
    const double dark = values[0], light = values[255];
    const double total = dark + light;
    return total > 0 ? static_cast<int>(dark * 10000.0 / total) : -1;
}

}  // namespace quarvel::cleanup
