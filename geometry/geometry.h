// Geometry: rotation within the page's frame, onto an enlarged canvas, by
// quarter turns, and cropping onto a white canvas.
//
// Pixel coordinates are (column, stored row): row 0 is the first stored row,
// the bottom of the page. Rectangles that callers pass count rows from the
// top of the page as displayed.
#pragma once

#include "quarvel/win32.h"

namespace quarvel::geometry {

// The canvas RotateEx and RotateEx1 use for a W x H page turned by `angle`
// degrees about (xCenter, yCenter): the turned corners (taken at W and H)
// with a margin, never smaller than W + 3 by H + 3. False when it would not
// fit in an int.
bool RotatedCanvas(int width, int height, double angle, int xCenter, int yCenter, int *newWidth, int *newHeight);

HGLOBAL Rotate(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate);
HGLOBAL RotateEx(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate);
HGLOBAL RotateEx1(HGLOBAL hDib, double angle, int xCenter, int yCenter, int interpolate);
HGLOBAL RotateExpand(HGLOBAL hDib, double angle);
HGLOBAL Crop(HGLOBAL hDib, RECT *rect, int mode, int border);

}  // namespace quarvel::geometry
