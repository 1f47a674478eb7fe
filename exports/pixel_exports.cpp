// Exports of the pixel family: mirror, flip, invert, tone, text effect, fills,
// page arithmetic, mode conversions, thumbnail and resize.
#include "exports/export.h"
#include "pixel/pixel.h"

using quarvel::Guarded;
namespace pixel = quarvel::pixel;

extern "C" {

HGLOBAL QUARVEL_CALL Mirror(HGLOBAL hDib) { return Guarded<HGLOBAL>(nullptr, [&] { return pixel::Mirror(hDib); }); }
HGLOBAL QUARVEL_CALL Flip(HGLOBAL hDib) { return Guarded<HGLOBAL>(nullptr, [&] { return pixel::Flip(hDib); }); }
HGLOBAL QUARVEL_CALL Invert(HGLOBAL hDib) { return Guarded<HGLOBAL>(nullptr, [&] { return pixel::Invert(hDib); }); }
HGLOBAL QUARVEL_CALL AdjustBrightness(HGLOBAL hDib, int brightness) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::AdjustBrightness(hDib, brightness); });
}
HGLOBAL QUARVEL_CALL AdjustContrast(HGLOBAL hDib, int contrast) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::AdjustContrast(hDib, contrast); });
}
HGLOBAL QUARVEL_CALL AdjustBrightnessAndContrast(HGLOBAL hDib, int brightness, int contrast) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::AdjustBrightnessAndContrast(hDib, brightness, contrast); });
}
HGLOBAL QUARVEL_CALL TextEffect(HGLOBAL hDib, int level) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::TextEffect(hDib, level); });
}
HGLOBAL QUARVEL_CALL TextEffectRect(HGLOBAL hDib, RECT *rect, int level) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::TextEffectRect(hDib, rect, level); });
}
HGLOBAL QUARVEL_CALL Fill(HGLOBAL hDib, RECT *rect, int value) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::Fill(hDib, rect, value); });
}
HGLOBAL QUARVEL_CALL FillOutside(HGLOBAL hDib, RECT *rect, int value) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::FillOutside(hDib, rect, value); });
}
HGLOBAL QUARVEL_CALL ImageAnd(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::ImageAnd(hDib1, hDib2, x1, y1, x2, y2, width, height); });
}
HGLOBAL QUARVEL_CALL ImageOr(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::ImageOr(hDib1, hDib2, x1, y1, x2, y2, width, height); });
}
HGLOBAL QUARVEL_CALL GetLess(HGLOBAL hDib1, HGLOBAL hDib2) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::GetLess(hDib1, hDib2); });
}
HGLOBAL QUARVEL_CALL ConvertMode(HGLOBAL hDib, int mode, int threshold) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::ConvertMode(hDib, mode, threshold); });
}
HGLOBAL QUARVEL_CALL ConvertModeToGrayEx(HGLOBAL hDib, int redDelta, int blueDelta) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::ConvertModeToGrayEx(hDib, redDelta, blueDelta); });
}
HGLOBAL QUARVEL_CALL Thumbnail(HGLOBAL hDib, int maxWidth, int maxHeight) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::Thumbnail(hDib, maxWidth, maxHeight); });
}
HGLOBAL QUARVEL_CALL Resize(HGLOBAL hDib, int width, int height) {
    return Guarded<HGLOBAL>(nullptr, [&] { return pixel::Resize(hDib, width, height); });
}

}  // extern "C"
