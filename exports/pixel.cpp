// Exports of the whole-page pixel operations.
#include "exports/export.h"
#include "pixel/pixel.h"

using quarvel::Guarded;

extern "C" {

HGLOBAL QUARVEL_CALL Mirror(HGLOBAL hDib) { return Guarded<HGLOBAL>(nullptr, [&] { return quarvel::pixel::Mirror(hDib); }); }
HGLOBAL QUARVEL_CALL Flip(HGLOBAL hDib) { return Guarded<HGLOBAL>(nullptr, [&] { return quarvel::pixel::Flip(hDib); }); }
HGLOBAL QUARVEL_CALL Invert(HGLOBAL hDib) { return Guarded<HGLOBAL>(nullptr, [&] { return quarvel::pixel::Invert(hDib); }); }

}  // extern "C"
