// Rectangle arithmetic on Win32 RECTs (left, top, right, bottom; right and
// bottom exclusive), with Win32's meaning.
#pragma once

#include "quarvel/win32.h"

namespace quarvel {

void SetRect(RECT *r, int left, int top, int right, int bottom);
// True when the rectangle has no area: right <= left or bottom <= top.
bool IsRectEmpty(const RECT *r);
// The common part of a and b into out. An empty intersection sets out to
// all zeros and returns false.
bool IntersectRect(RECT *out, const RECT *a, const RECT *b);
// `r` (rows counted from the top) with its rows counted from the bottom of a
// page `height` rows high: {left, height - bottom, right, height - top}, taken
// in 64 bits and clamped to int, so rectangles reaching the ends of int stay
// in order instead of overflowing.
RECT FlipRows(const RECT &r, int height);

}  // namespace quarvel
