// The page as the real-scan layer sees it: read once, top row first, as two
// reduced pages every analysis shares (gray at about 150 dpi with its ink,
// and gray plus colour at about 75 dpi), and, when cleaning needs them, the
// whole page in gray (palette applied, 255 = white) and BGR; plus the
// resolution the analyses size their windows by. And the way back: a result
// block from a top-down image.
#pragma once

#include <cstdint>

#include <opencv2/core.hpp>

#include "quarvel/scan.h"

namespace quarvel::scan {

// Pages above this many pixels are refused as unusable (a 600-dpi A2 sheet is
// about 70 million); the decoded copies cost 4 bytes per pixel at most.
constexpr std::int64_t kMaxScanPixels = std::int64_t{1} << 28;

enum class DpiSource { kGiven, kTag, kText, kSize };

struct ScanPage {
    int width = 0;
    int height = 0;
    int bits = 0;            // stored depth: 1, 4, 8, 16, 24 or 32
    bool colorSource = false; // stored as colour (24/32 bits, or a palette with any non-gray entry)
    bool bitonalSource = false; // 1-bit page, or a palette of two entries
    // The resolution the analyses size their windows by, and where it came
    // from: the option, the page's tag, the text's scale or the page's size
    // (scan/page.cpp). A page marked dpiKnown keeps its dpi as it is; any
    // other is checked against its text when the reduced page is made.
    int dpi = 0;
    bool dpiKnown = false;
    DpiSource dpiSource = DpiSource::kGiven;
    // Whole page (only when read with kReadWhole): CV_8UC1, row 0 = top as
    // displayed, 255 = white paper; CV_8UC3 BGR, empty unless colorSource.
    cv::Mat gray;
    cv::Mat color;
    double xPelsPerMeter = 0, yPelsPerMeter = 0; // as stored, carried to results

    // Computed once for every analysis: the page reduced by `reduction`
    // (page pixels per reduced pixel, chosen so the reduced page is about
    // kReducedDpi) by area averaging, and its ink: 255 where the reduced page
    // is clearly darker than the paper round it (background flattened, then
    // one threshold), else 0. A reduced pixel (x, y) covers page pixels
    // [x * reduction, (x + 1) * reduction).
    int reduction = 1;
    cv::Mat reduced;         // CV_8UC1
    cv::Mat ink;             // CV_8UC1, 0 or 255
    // The coarse page for judgements over areas (holes, blank, mode): block
    // means at about kCoarseDpi of the sheet's resolution (PaperDpi),
    // `coarseReduction` page pixels per pixel (made from the reduced page
    // when that is a whole number of its pixels); coarseColor (BGR) only for colour sources; coarsePaper the
    // paper level round each coarse pixel (PaperLevel over 1 mm cells and
    // a 6 mm window, wider than any stroke).
    int coarseReduction = 1;
    cv::Mat coarse;          // CV_8UC1
    cv::Mat coarseColor;     // CV_8UC3 or empty
    cv::Mat coarsePaper;     // CV_8UC1
};

// The resolution the analyses work at.
constexpr int kReducedDpi = 150;
constexpr int kReducedMinSide = 1000;
constexpr int kReducedMaxSide = 2400;
constexpr double kCoarseDpi = 75.0;

// Fills reduction, reduced, ink and the coarse pages from page->color
// (colour sources) or page->gray; unless page->dpiKnown, first checks
// page->dpi against the text (which may change dpi and dpiSource).
void PrepareReduced(ScanPage *page);

// Whether PrepareReduced would measure the text to check page.dpi: an
// untagged page, or a tag that makes the page too long or that its size
// disagrees with. A caller that reads only the whole page calls
// PrepareReduced first when this holds.
bool DpiWantsText(const ScanPage &page);

// What LoadScanPage makes: the reduced and coarse pages every analysis
// reads, the whole page (gray, and color for colour sources) that cleaning
// and binarisation change, or both.
enum ScanRead : unsigned { kReadReduced = 1, kReadWhole = 2, kReadBoth = 3 };

// Reads a page block; false (and nothing set) when it cannot be read: bad
// handle, short block, compressed rows, a depth outside 1/4/8/16/24/32, no
// pixels, or more than kMaxScanPixels. `dpiOverride` > 0 replaces the page's.
// The reduced pages alone are made without a whole-page copy for gray
// ramps and 24/32-bit pages (reduced straight from the block's rows); both
// routes give the same reduced pages.
bool LoadScanPage(HGLOBAL h, int dpiOverride, ScanPage *page, ScanRead read = kReadBoth);

// The options with every default filled in, whatever the caller's record size
// (`options` may be null).
QuarvelScanOptions ResolveOptions(const QuarvelScanOptions *options);

// New page blocks from top-down images, with the source page's resolution:
// an 8-bit gray page (gray table), a 24-bit page from BGR, or a 1-bit page
// (black then white) from a gray image where values below 128 are black.
HGLOBAL MakeGrayPage(const cv::Mat &gray, const ScanPage &like);
HGLOBAL MakeColorPage(const cv::Mat &bgr, const ScanPage &like);
HGLOBAL MakeBitonalPage(const cv::Mat &gray, const ScanPage &like);
// The page in the depth family it came in: 1-bit for bitonal sources, 24-bit
// for colour sources, else 8-bit gray. `image` is CV_8UC1 or CV_8UC3.
HGLOBAL MakePageLike(const cv::Mat &image, const ScanPage &like);

// Millimetres to pixels at the page's resolution, at least 1.
int MmToPixels(const ScanPage &page, double mm);

}  // namespace quarvel::scan
