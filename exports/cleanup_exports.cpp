// Exports of the page cleaning and composition operations.
#include "cleanup/cleanup.h"
#include "exports/export.h"

using quarvel::Guarded;
namespace cleanup = quarvel::cleanup;

extern "C" {

HGLOBAL QUARVEL_CALL Denoise(HGLOBAL hDib, int nSize) {
    return Guarded<HGLOBAL>(nullptr, [&] { return cleanup::Denoise(hDib, nSize); });
}
HGLOBAL QUARVEL_CALL DenoiseRect(HGLOBAL hDib, RECT *prcArea, int nSize) {
    return Guarded<HGLOBAL>(nullptr, [&] { return cleanup::DenoiseRect(hDib, prcArea, nSize); });
}
int QUARVEL_CALL IsBlankPage(HGLOBAL hDib, int threshold) {
    return Guarded<int>(-1, [&] { return cleanup::IsBlankPage(hDib, threshold); });
}
HGLOBAL QUARVEL_CALL AddWaterMark(HGLOBAL hDib, HGLOBAL hMark) {
    return Guarded<HGLOBAL>(nullptr, [&] { return cleanup::AddWaterMark(hDib, hMark); });
}
HGLOBAL QUARVEL_CALL AddWaterMarkEx(HGLOBAL hDib, HGLOBAL hMark) {
    return Guarded<HGLOBAL>(nullptr, [&] { return cleanup::AddWaterMarkEx(hDib, hMark); });
}
HGLOBAL QUARVEL_CALL Combine(HGLOBAL hDib1, HGLOBAL hDib2, int nMode) {
    return Guarded<HGLOBAL>(nullptr, [&] { return cleanup::Combine(hDib1, hDib2, nMode); });
}

}  // extern "C"
