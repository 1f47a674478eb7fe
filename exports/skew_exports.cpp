// Exports of the page measurements: thresholds, skew and the precision test.
#include "exports/export.h"
#include "skew/skew.h"

using quarvel::Guarded;
namespace skew = quarvel::skew;

extern "C" {

unsigned int QUARVEL_CALL GetBinaryThresholdByOtsu(HGLOBAL hDib) {
    return Guarded<unsigned>(255u, [&] { return skew::GetBinaryThresholdByOtsu(hDib); });
}
unsigned int QUARVEL_CALL GetBinaryThresholdByRidCal(HGLOBAL hDib) {
    return Guarded<unsigned>(127u, [&] { return skew::GetBinaryThresholdByRidCal(hDib); });
}
double QUARVEL_CALL GetObliquity(HGLOBAL hDib) {
    return Guarded<double>(0.0, [&] { return skew::GetObliquity(hDib); });
}
int QUARVEL_CALL TestPrecision(HGLOBAL hDib, int resolution, double *horizontal, double *vertical) {
    return Guarded<int>(-1, [&] { return skew::TestPrecision(hDib, resolution, horizontal, vertical); });
}

}  // extern "C"
