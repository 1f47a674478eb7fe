// The four conversions operations share: a page view (whole, or a region of
// it) turned into a new bitonal, 8-bit gray or colour image of the region's
// size, owned by the caller.
//
// Bits become gray levels by the page's palette: on a light-first page
// (colour-table entry 0 with blue above 128) a 0 bit becomes 255 and a 1 bit
// 0; on any other page the other way round. So the light colour is always 255
// (paper) and the other 0 (ink). 8-bit pixels are gray levels as they stand;
// the colour table is not consulted.
//
// A region is given in storage coordinates (columns from the left, rows from
// the first stored row); null means the whole page. A region that does not lie
// inside the page gives no image: callers clip first. The view is left as
// handed in.
#pragma once

#include "frame/dib.h"
#include "frame/ipl.h"

namespace quarvel {

// 1-bit image; 8-bit and colour pages are thresholded (gray below `threshold`
// gives 0), 1-bit pages copied bit for bit whatever their palette.
ImagePtr MakeBitonalImage(IplImage *view, const IplROI *roi, const BITMAPINFOHEADER *header, int threshold);
// 8-bit image of the whole page; colour pixels become max(blue, red).
ImagePtr ExpandBitonalToGray(IplImage *view, const BITMAPINFOHEADER *header);
// 8-bit gray image; colour pixels by the luminance weights.
ImagePtr MakeGrayImage(IplImage *view, const IplROI *roi, const BITMAPINFOHEADER *header);
// Colour image of 24 bits (3 bytes per pixel) or, for bits = 32, with an
// alpha byte (4 bytes per pixel).
ImagePtr MakeColorImage(IplImage *view, const IplROI *roi, const BITMAPINFOHEADER *header, int bits);

// Gray levels of a 0 bit and a 1 bit on this page.
void BitonalScales(const BITMAPINFOHEADER *header, int *zeroScale, int *oneScale);

}  // namespace quarvel
