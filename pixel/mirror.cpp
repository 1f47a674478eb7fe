// Mirror, Flip and Invert: the plainest complete operations, and the run
// nearly every image operation follows. Lock and check the page, lay a view
// over its rows, open the result block (copied-header form) with an image
// over its rows, run one primitive from the view into it, hand the block
// back. Pixels are read in place and written once.
//
// Invert complements blue, green and red; the fourth byte of a 32-bit pixel
// is not a colour and is kept.
#include "frame/view.h"
#include "pixel/pixel.h"

namespace quarvel::pixel {

namespace {

template <class Primitive>
HGLOBAL SamePageOperation(HGLOBAL hDib, Primitive primitive) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in, true);  // every pixel is written
    if (!view || !out) return nullptr;
    primitive(view.get(), out.image());
    return out.Release();
}

}  // namespace

HGLOBAL Mirror(HGLOBAL hDib) {
    return SamePageOperation(hDib, [](IplImage *view, IplImage *result) { iplMirror(view, result, 1); });
}

HGLOBAL Flip(HGLOBAL hDib) {
    return SamePageOperation(hDib, [](IplImage *view, IplImage *result) { iplMirror(view, result, 0); });
}

HGLOBAL Invert(HGLOBAL hDib) {
    return SamePageOperation(hDib, [](IplImage *view, IplImage *result) { iplNot(view, result); });
}

}  // namespace quarvel::pixel
