// Page cleaning and composition: speck removal, the blank-page test,
// watermarks and joining two pages.
#pragma once

#include <cstdint>

#include "quarvel/win32.h"

namespace quarvel::cleanup {

// Erases small bright islands on a dark 8-bit image in place (the caller
// inverts a page so that specks are bright): an island at most n pixels
// wide in its first row, n + 1 in the others and n rows high, whose first
// pixel stands more than 100 levels above its left and lower neighbours, is
// painted with that left neighbour's value. `rows` is the first stored row,
// `stride` the row length; `area` is in columns and stored rows and is kept
// n pixels away from every edge.
void EraseSpecks(std::uint8_t *rows, int width, int height, int stride, RECT area, int n);

HGLOBAL Denoise(HGLOBAL hDib, int nSize);
HGLOBAL DenoiseRect(HGLOBAL hDib, const RECT *area, int nSize);
int IsBlankPage(HGLOBAL hDib, int threshold);
HGLOBAL AddWaterMark(HGLOBAL hDib, HGLOBAL hMark);
HGLOBAL AddWaterMarkEx(HGLOBAL hDib, HGLOBAL hMark);
HGLOBAL Combine(HGLOBAL hDib1, HGLOBAL hDib2, int nMode);

}  // namespace quarvel::cleanup
