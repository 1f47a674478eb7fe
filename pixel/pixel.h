// Whole-page pixel operations: the family's entry points, one per exported
// operation, with the exported argument lists.
#pragma once

#include "quarvel/win32.h"

namespace quarvel::pixel {

HGLOBAL Mirror(HGLOBAL hDib);
HGLOBAL Flip(HGLOBAL hDib);
HGLOBAL Invert(HGLOBAL hDib);

// Brightness and contrast. The contrast table for (brightness, contrast):
// 256 levels, built per call; false when the arguments leave the table's
// range (contrast outside -100..100, a pivot outside 0..255).
bool ContrastTable(int brightness, int contrast, bool withBrightness, int table[256]);
HGLOBAL AdjustBrightness(HGLOBAL hDib, int brightness);
HGLOBAL AdjustContrast(HGLOBAL hDib, int contrast);
HGLOBAL AdjustBrightnessAndContrast(HGLOBAL hDib, int brightness, int contrast);

// Text thickening (level > 0) and thinning (level < 0).
HGLOBAL TextEffect(HGLOBAL hDib, int level);
HGLOBAL TextEffectRect(HGLOBAL hDib, const RECT *rect, int level);

// Region fill.
HGLOBAL Fill(HGLOBAL hDib, const RECT *rect, int value);
HGLOBAL FillOutside(HGLOBAL hDib, const RECT *rect, int value);

// Image arithmetic.
HGLOBAL ImageAnd(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height);
HGLOBAL ImageOr(HGLOBAL hDib1, HGLOBAL hDib2, int x1, int y1, int x2, int y2, int width, int height);
HGLOBAL GetLess(HGLOBAL hDib1, HGLOBAL hDib2);

// Colour-mode conversion.
HGLOBAL ConvertMode(HGLOBAL hDib, int mode, int threshold);
HGLOBAL ConvertModeToGrayEx(HGLOBAL hDib, int redDelta, int blueDelta);

// Resize and thumbnail. The fitted size of a w x h page in a box, and
// whether the reduction calls for super-sampling; false when a size is 0 or
// below or a product overflows.
bool FittedSize(int w, int h, int boxW, int boxH, int *fitW, int *fitH);
HGLOBAL Thumbnail(HGLOBAL hDib, int maxWidth, int maxHeight);
HGLOBAL Resize(HGLOBAL hDib, int width, int height);

}  // namespace quarvel::pixel
