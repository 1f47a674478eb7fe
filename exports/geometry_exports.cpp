// Exports of the geometry operations.
#include "exports/export.h"
#include "geometry/geometry.h"

using quarvel::Guarded;
namespace geometry = quarvel::geometry;

extern "C" {

HGLOBAL QUARVEL_CALL Rotate(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate) {
    return Guarded<HGLOBAL>(nullptr, [&] { return geometry::Rotate(hDib, angle, xCenter, yCenter, interpolate); });
}
HGLOBAL QUARVEL_CALL RotateEx(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate) {
    return Guarded<HGLOBAL>(nullptr, [&] { return geometry::RotateEx(hDib, angle, xCenter, yCenter, interpolate); });
}
HGLOBAL QUARVEL_CALL RotateEx1(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate) {
    return Guarded<HGLOBAL>(nullptr, [&] { return geometry::RotateEx1(hDib, angle, xCenter, yCenter, interpolate); });
}
HGLOBAL QUARVEL_CALL RotateExpand(HGLOBAL hDib, double angle, int /*xCenter*/, int /*yCenter*/, int /*interpolate*/) {
    return Guarded<HGLOBAL>(nullptr, [&] { return geometry::RotateExpand(hDib, angle); });
}
HGLOBAL QUARVEL_CALL Crop(HGLOBAL hDib, RECT *rect, int mode, int border) {
    return Guarded<HGLOBAL>(nullptr, [&] { return geometry::Crop(hDib, rect, mode, border); });
}

}  // extern "C"
