// Whole-page pixel operations: the family's entry points, one per exported
// operation, with the exported argument lists.
#pragma once

#include "quarvel/win32.h"

namespace quarvel::pixel {

HGLOBAL Mirror(HGLOBAL hDib);
HGLOBAL Flip(HGLOBAL hDib);
HGLOBAL Invert(HGLOBAL hDib);

}  // namespace quarvel::pixel
