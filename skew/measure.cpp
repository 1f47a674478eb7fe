// The four measuring operations read the caller's block in place: the
// thresholds count a histogram straight from its rows, the skew search loads
// and reduces its raster in one pass, and the precision test decodes only
// the pixels its traces visit. A block that cannot be read as a
// page answers as a page without pixels would: Otsu 255, Ridler-Calvard 127,
// skew 0.0, precision test -1.
#include <algorithm>

#include "frame/dib.h"
#include "skew/skew.h"

namespace quarvel::skew {

namespace {

// The ink histogram of the caller's rows and their pixel count; false when
// the block is not a readable page.
bool Histogram(HGLOBAL h, std::uint32_t count[256], double *pixels) {
    BlockLock lock(h);
    if (!lock || lock.size() == 0 || lock.size() > UINT32_MAX) return false;
    DibBlock block;
    block.View(lock.data(), static_cast<std::uint32_t>(lock.size()));
    if (!PageInkHistogram(block, count)) return false;
    std::int32_t w = 0, hh = 0;
    block.GetSize(&w, &hh);
    *pixels = static_cast<double>(w) * static_cast<double>(hh);
    return true;
}

}  // namespace

unsigned GetBinaryThresholdByOtsu(HGLOBAL h) {
    std::uint32_t count[256];
    double pixels = 0;
    if (!Histogram(h, count, &pixels)) return 255;
    return 255u - OtsuThreshold(count, pixels);
}

unsigned GetBinaryThresholdByRidCal(HGLOBAL h) {
    std::uint32_t count[256];
    double pixels = 0;
    if (!Histogram(h, count, &pixels)) return 255u - 128u;
    return 255u - RidlerCalvardThreshold(count);
}

// The skew search runs on the page reduced by k = (height + 200) / 500 in
// each direction (at least 1), loaded and reduced in one pass.
double GetObliquity(HGLOBAL h) {
    BlockLock lock(h);
    if (!lock || lock.size() == 0 || lock.size() > UINT32_MAX) return 0.0;
    DibBlock block;
    block.View(lock.data(), static_cast<std::uint32_t>(lock.size()));
    if (!block.Readable()) return 0.0;
    std::int32_t w = 0, height = 0;
    block.GetSize(&w, &height);
    PageRaster reduced;
    if (!LoadReducedRaster(reduced, block, static_cast<int>(std::max<long long>(1, (height + 200LL) / 500)))) return 0.0;
    double angle = 0.0;
    FindSkewAngle(reduced, &angle, false);
    return angle;
}

int TestPrecision(HGLOBAL h, int resolution, double *horizontal, double *vertical) {
    if (horizontal == nullptr || vertical == nullptr || resolution <= 0) return -1;
    BlockLock lock(h);
    if (!lock || lock.size() == 0 || lock.size() > UINT32_MAX) return -1;
    DibBlock block;
    block.View(lock.data(), static_cast<std::uint32_t>(lock.size()));
    if (!block.Readable()) return -1;
    return MeasureTestFrame(block, resolution, horizontal, vertical);
}

}  // namespace quarvel::skew
