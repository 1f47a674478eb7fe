// Border and hole removal: cutting a sheet out of the dark scanner frame
// (with or without straightening it), whitening the frame in place, and
// painting out punch holes.
//
// Coordinates are columns and stored rows: row 0 is the first stored row, the
// bottom line of the displayed page. Edges named top and bottom in the frame
// finder are the smaller and larger stored-row indices.
#pragma once

#include "frame/ipl.h"
#include "quarvel/win32.h"

namespace quarvel::border {

// The page box inside a dark frame on an 8-bit gray image (value > threshold
// is page): from each side, the line that completes the first run of four
// page lines (a line holding at least a tenth of its length of page pixels),
// moved inward by a margin on large images. A box smaller than 20 x 20
// becomes the page's own size (biWidth x biHeight) centred in the image.
void FindPageRect(const BITMAPINFOHEADER *header, const IplImage &gray, int threshold, RECT *box);

HGLOBAL RemoveBorder(HGLOBAL hDib, int nThreshold);
HGLOBAL RemoveBorder1(HGLOBAL hDib, int nThreshold, int nAngle);
HGLOBAL RemoveBorderGpy(HGLOBAL hDib, int nThreshold);
HGLOBAL RemoveBorderFill(HGLOBAL hDib, int nThreshold);

struct HoleSearch {
    bool left, top, right, bottom;
    int margin, minHoles, maxHoles, minSize, maxSize;
    double density;
};
HGLOBAL RemoveHole(HGLOBAL hDib, const HoleSearch &search);

}  // namespace quarvel::border
