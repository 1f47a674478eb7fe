// Mirror, Flip and Invert: the plainest complete operations, and the run
// nearly every image operation follows. Lock and check the page, lay a view
// over its rows, open the result block (copied-header form) with an image
// over its rows, run one primitive from the view into it, hand the block
// back. Pixels are read in place and written once.
//
// Invert complements blue, green and red; the fourth byte of a 32-bit pixel
// is not a colour and is kept.
//
// A 1-bit page skips the image layer: each result row is written whole by
// one row kernel straight from the page's row (reversed, copied or
// complemented in whole bytes), its bits past the last pixel and its padding
// cleared while the row is in cache, so no byte is written twice and no pass
// clears the padding first.
#include "frame/kernels.h"
#include "frame/kernels_bits.h"
#include "frame/view.h"
#include "pixel/pixel.h"

namespace quarvel::pixel {

namespace {

enum class BitonalPass { kMirror, kFlip, kInvert };

HGLOBAL BitonalRows(const LockedDib &in, BitonalPass pass) {
    ResultBlock out = ResultBlock::CopiedHeader(in, ResultRows::kUnset);
    if (!out) return nullptr;
    const int w = in.width(), h = in.height(), stride = in.stride();
    const std::uint8_t *rows = in.bits();
    std::uint8_t *d = RowOf(*out.image(), 0);
    if (pass == BitonalPass::kMirror) {
        kernels::MirrorBitRows(rows, d, stride, w, h);
    } else if (pass == BitonalPass::kFlip) {
        const std::uint8_t *top = rows + static_cast<std::ptrdiff_t>(h - 1) * stride;
        kernels::LogicRows({top, -stride, top, -stride, d, stride, w, h}, kernels::Logic::kCopy);
    } else {
        kernels::LogicRows({rows, stride, rows, stride, d, stride, w, h}, kernels::Logic::kNot);
    }
    return out.Release();
}

template <class Primitive>
HGLOBAL SamePageOperation(HGLOBAL hDib, BitonalPass pass, Primitive primitive) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    if (in.bitCount() == 1) return BitonalRows(in, pass);
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in, true);  // every pixel is written
    if (!view || !out) return nullptr;
    primitive(view.get(), out.image());
    return out.Release();
}

}  // namespace

HGLOBAL Mirror(HGLOBAL hDib) {
    return SamePageOperation(hDib, BitonalPass::kMirror, [](IplImage *view, IplImage *result) { iplMirror(view, result, 1); });
}

HGLOBAL Flip(HGLOBAL hDib) {
    return SamePageOperation(hDib, BitonalPass::kFlip, [](IplImage *view, IplImage *result) { iplMirror(view, result, 0); });
}

HGLOBAL Invert(HGLOBAL hDib) {
    return SamePageOperation(hDib, BitonalPass::kInvert, [](IplImage *view, IplImage *result) { iplNot(view, result); });
}

}  // namespace quarvel::pixel
