// Exports of the border and punch-hole removal operations.
#include "border/border.h"
#include "exports/export.h"

using quarvel::Guarded;
namespace border = quarvel::border;

extern "C" {

HGLOBAL QUARVEL_CALL RemoveBorder(HGLOBAL hDib, int nThreshold, int /*nParam3*/, int /*nParam4*/) {
    return Guarded<HGLOBAL>(nullptr, [&] { return border::RemoveBorder(hDib, nThreshold); });
}
HGLOBAL QUARVEL_CALL RemoveBorder1(HGLOBAL hDib, int nThreshold, int nAngle, int /*nParam4*/, int /*nParam5*/) {
    return Guarded<HGLOBAL>(nullptr, [&] { return border::RemoveBorder1(hDib, nThreshold, nAngle); });
}
HGLOBAL QUARVEL_CALL RemoveBorder_GPY(HGLOBAL hDib, int nThreshold) {
    return Guarded<HGLOBAL>(nullptr, [&] { return border::RemoveBorderGpy(hDib, nThreshold); });
}
HGLOBAL QUARVEL_CALL RemoveBorder_Fill(HGLOBAL hDib, int nThreshold) {
    return Guarded<HGLOBAL>(nullptr, [&] { return border::RemoveBorderFill(hDib, nThreshold); });
}
HGLOBAL QUARVEL_CALL RemoveHole(HGLOBAL hDib, BOOL bLeft, BOOL bTop, BOOL bRight, BOOL bBottom, int nMargin,
                                int nMinHoles, int nMaxHoles, int nMinSize, int nMaxSize, double dDensity) {
    const border::HoleSearch s{bLeft != 0, bTop != 0, bRight != 0, bBottom != 0, nMargin,
                               nMinHoles,  nMaxHoles, nMinSize,   nMaxSize,    dDensity};
    return Guarded<HGLOBAL>(nullptr, [&] { return border::RemoveHole(hDib, s); });
}

}  // extern "C"
