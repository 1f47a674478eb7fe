// The four measuring operations: copy the caller's block, decode it into a
// raster, measure, and give back a number. A block that cannot be read as a
// page answers as a page without pixels would: Otsu 255, Ridler-Calvard 127,
// skew 0.0, precision test -1.
#include "skew/skew.h"

namespace quarvel::skew {

namespace {

// Copy and decode; false when the block is not a readable page.
bool Load(HGLOBAL h, PageRaster &raster) {
    DibBlock block;
    block.CopyFrom(h);
    if (!block.Readable()) return false;
    LoadPageRaster(raster, block);
    return raster.width > 0 && raster.height > 0;
}

}  // namespace

unsigned GetBinaryThresholdByOtsu(HGLOBAL h) {
    PageRaster raster;
    if (!Load(h, raster)) return 255;
    return 255u - OtsuThreshold(raster, RECT{0, 0, 0, 0});
}

unsigned GetBinaryThresholdByRidCal(HGLOBAL h) {
    PageRaster raster;
    if (!Load(h, raster)) return 255u - 128u;
    return 255u - RidlerCalvardThreshold(raster, RECT{0, 0, 0, 0});
}

double GetObliquity(HGLOBAL h) {
    PageRaster raster;
    if (!Load(h, raster)) return 0.0;
    double angle = 0.0;
    FindSkewAngle(raster, &angle, true);
    return angle;
}

int TestPrecision(HGLOBAL h, int resolution, double *horizontal, double *vertical) {
    if (horizontal == nullptr || vertical == nullptr || resolution <= 0) return -1;
    PageRaster raster;
    if (!Load(h, raster)) return -1;
    return MeasureTestFrame(raster, resolution, horizontal, vertical);
}

}  // namespace quarvel::skew
