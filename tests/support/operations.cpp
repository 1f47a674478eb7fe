// The table of every exported operation; each entry unpacks OpArgs in the
// export's argument order.
#include "support/operations.h"

#include "frame/dib.h"

namespace qtest {
namespace {

RECT *Rect(const OpArgs &a, RECT *copy) {
    *copy = a.rect;
    return a.nullRect ? nullptr : copy;
}

OpResult Page(HGLOBAL h) { return OpResult{h, 0.0}; }
OpResult Value(double v) { return OpResult{nullptr, v}; }

}  // namespace

#define IMAGE(name, ...) {#name, true, false, [](const OpArgs &a) { RECT r; (void)r; return Page(name(__VA_ARGS__)); }}
#define MEASURE(name, ...) {#name, false, false, [](const OpArgs &a) { return Value(name(__VA_ARGS__)); }}

const Operation kOperations[] = {
    IMAGE(Mirror, a.page),
    IMAGE(Flip, a.page),
    IMAGE(Invert, a.page),
    IMAGE(AdjustBrightness, a.page, a.i[0]),
    IMAGE(AdjustContrast, a.page, a.i[0]),
    IMAGE(AdjustBrightnessAndContrast, a.page, a.i[0], a.i[1]),
    IMAGE(TextEffect, a.page, a.i[0]),
    IMAGE(TextEffectRect, a.page, Rect(a, &r), a.i[0]),
    IMAGE(Fill, a.page, Rect(a, &r), a.i[0]),
    IMAGE(FillOutside, a.page, Rect(a, &r), a.i[0]),
    {"ImageAnd", true, true,
     [](const OpArgs &a) {
         return Page(ImageAnd(a.page, a.second, a.i[0], a.i[1], a.i[2], a.i[3], a.i[4], a.i[5]));
     }},
    IMAGE(ImageOr, a.page, a.second, a.i[0], a.i[1], a.i[2], a.i[3], a.i[4], a.i[5]),
    IMAGE(GetLess, a.page, a.second),
    IMAGE(ConvertMode, a.page, a.i[0], a.i[1]),
    IMAGE(ConvertModeToGrayEx, a.page, a.i[0], a.i[1]),
    IMAGE(Thumbnail, a.page, a.i[0], a.i[1]),
    IMAGE(Resize, a.page, a.i[0], a.i[1]),
    IMAGE(Rotate, a.page, a.d, a.i[0], a.i[1], a.i[2]),
    IMAGE(RotateEx, a.page, a.d, a.i[0], a.i[1], a.i[2]),
    IMAGE(RotateEx1, a.page, a.d, a.i[0], a.i[1], a.i[2]),
    IMAGE(RotateExpand, a.page, a.d, a.i[0], a.i[1], a.i[2]),
    IMAGE(Crop, a.page, Rect(a, &r), a.i[0], a.i[1]),
    IMAGE(RemoveBorder, a.page, a.i[0], a.i[1], a.i[2]),
    IMAGE(RemoveBorder1, a.page, a.i[0], a.i[1], a.i[2], a.i[3]),
    IMAGE(RemoveBorder_GPY, a.page, a.i[0]),
    IMAGE(RemoveBorder_Fill, a.page, a.i[0]),
    IMAGE(RemoveHole, a.page, a.i[0] & 1, a.i[0] >> 1 & 1, a.i[0] >> 2 & 1, a.i[0] >> 3 & 1, a.i[1], a.i[2], a.i[3],
          a.i[4], a.i[5], a.d),
    IMAGE(Denoise, a.page, a.i[0]),
    IMAGE(DenoiseRect, a.page, Rect(a, &r), a.i[0]),
    MEASURE(IsBlankPage, a.page, a.i[0]),
    IMAGE(AddWaterMark, a.page, a.second),
    IMAGE(AddWaterMarkEx, a.page, a.second),
    IMAGE(Combine, a.page, a.second, a.i[0]),
    MEASURE(JudgeColorMode, a.page, a.i[0]),
    IMAGE(ConvertHongTou, a.page, a.second, a.i[0], a.i[1], a.i[2], a.i[3]),
    IMAGE(ConvertHongTouEx, a.page, a.second, a.i[0], a.i[1], a.i[2], a.i[3], static_cast<BYTE>(a.i[4])),
    IMAGE(EnhanceColor, a.page, Rect(a, &r), a.i[0], a.i[1], a.i[2], a.i[3], a.i[4], a.i[5], a.i[6]),
    IMAGE(EnhanceColorEx, a.page, a.second, Rect(a, &r), a.i[0], a.i[1], a.i[2], a.i[3], a.i[4], a.i[5], a.i[6]),
    IMAGE(EnhanceColorEx1, a.page, a.second, a.third, Rect(a, &r), a.i[0], a.i[1], a.i[2], a.i[3], a.i[4], a.i[5],
          a.i[6]),
    IMAGE(DeColorize, a.page, Rect(a, &r), a.i[0], a.i[1], a.i[2]),
    MEASURE(GetBinaryThresholdByOtsu, a.page),
    MEASURE(GetBinaryThresholdByRidCal, a.page),
    MEASURE(GetObliquity, a.page),
    {"TestPrecision", false, false,
     [](const OpArgs &a) {
         double h = 0.0, v = 0.0;
         return Value(TestPrecision(a.page, a.i[0], &h, &v) + h + v);
     }},
};
const std::size_t kOperationCount = sizeof(kOperations) / sizeof(kOperations[0]);

bool WellFormedPage(HGLOBAL h) {
    const std::size_t size = GlobalSize(h);
    const auto *header = static_cast<const BITMAPINFOHEADER *>(GlobalLock(h));
    if (header == nullptr) return false;
    const bool ok = quarvel::CheckDib(header, size, quarvel::kImageDepths) == quarvel::DibError::kNone;
    GlobalUnlock(h);
    return ok;
}

}  // namespace qtest
