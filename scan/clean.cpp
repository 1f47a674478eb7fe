// Cleaning a page. Placeholder until the cleaning steps land: holes filled,
// specks removed, binarised on request; no geometry change yet.
#include "scan/scan.h"

namespace quarvel::scan {

HGLOBAL CleanPage(const ScanPage &page, const QuarvelScanOptions &options, Analysis *analysis) {
    *analysis = AnalyzePage(page, options);
    cv::Mat image = page.colorSource ? page.color.clone() : page.gray.clone();
    if (options.steps & QUARVEL_CLEAN_HOLES) FillHoles(analysis->holes, &image);
    if (options.steps & QUARVEL_CLEAN_BINARIZE) {
        cv::Mat gray = image;
        if (image.type() == CV_8UC3) gray = page.gray.clone();
        cv::Mat bin = Binarize(gray, options.binarize_method, options.binarize_window, options.binarize_k, page.dpi);
        if (options.steps & QUARVEL_CLEAN_DESPECKLE) Despeckle(&bin, options.speck_size, page.dpi);
        return MakeBitonalPage(bin, page);
    }
    return MakePageLike(image, page);
}

}  // namespace quarvel::scan
