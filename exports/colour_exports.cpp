// Exports of the colour analysis and enhancement operations.
#include "colour/colour.h"
#include "exports/export.h"

using quarvel::Guarded;
namespace colour = quarvel::colour;

extern "C" {

int QUARVEL_CALL JudgeColorMode(HGLOBAL hDib, int colorThreshold) {
    return Guarded<int>(0, [&] { return colour::JudgeColorMode(hDib, colorThreshold); });
}
HGLOBAL QUARVEL_CALL ConvertHongTou(HGLOBAL hColorDib, HGLOBAL hGrayDib, int /*reserved1*/, int /*reserved2*/,
                                    int /*reserved3*/, int colorDiff) {
    return Guarded<HGLOBAL>(nullptr, [&] { return colour::ConvertHongTou(hColorDib, hGrayDib, colorDiff, 90, false); });
}
HGLOBAL QUARVEL_CALL ConvertHongTouEx(HGLOBAL hColorDib, HGLOBAL hGrayDib, int /*reserved1*/, int /*reserved2*/,
                                      int /*reserved3*/, int colorDiff, BYTE minLevel) {
    return Guarded<HGLOBAL>(nullptr,
                            [&] { return colour::ConvertHongTou(hColorDib, hGrayDib, colorDiff, minLevel, true); });
}
HGLOBAL QUARVEL_CALL EnhanceColor(HGLOBAL hDib, RECT *rect, int splitLevel, int brighten, int darken,
                                  int redThreshold, int redBoost, int blueThreshold, int blueBoost) {
    const colour::EnhanceParams p{splitLevel, brighten, darken, redThreshold, redBoost, blueThreshold, blueBoost};
    return Guarded<HGLOBAL>(nullptr, [&] { return colour::EnhanceColor(hDib, rect, p); });
}
HGLOBAL QUARVEL_CALL EnhanceColorEx(HGLOBAL hDib, HGLOBAL hMap, RECT *rect, int splitLevel, int brighten, int darken,
                                    int redThreshold, int redBoost, int blueThreshold, int blueBoost) {
    const colour::EnhanceParams p{splitLevel, brighten, darken, redThreshold, redBoost, blueThreshold, blueBoost};
    return Guarded<HGLOBAL>(nullptr, [&] { return colour::EnhanceColorEx(hDib, hMap, rect, p); });
}
HGLOBAL QUARVEL_CALL EnhanceColorEx1(HGLOBAL hDib, HGLOBAL hBaseDib, HGLOBAL hMap, RECT *rect, int splitLevel,
                                     int brighten, int darken, int redThreshold, int redBoost, int blueThreshold,
                                     int blueBoost) {
    const colour::EnhanceParams p{splitLevel, brighten, darken, redThreshold, redBoost, blueThreshold, blueBoost};
    return Guarded<HGLOBAL>(nullptr, [&] { return colour::EnhanceColorEx1(hDib, hBaseDib, hMap, rect, p); });
}
HGLOBAL QUARVEL_CALL DeColorize(HGLOBAL hDib, RECT *rect, int redThreshold, int blueThreshold, int greenThreshold) {
    return Guarded<HGLOBAL>(nullptr,
                            [&] { return colour::DeColorize(hDib, rect, redThreshold, blueThreshold, greenThreshold); });
}

}  // extern "C"
