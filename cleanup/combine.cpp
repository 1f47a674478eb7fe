// Combine: two pages side by side (mode 0, flush with the top edge) or one
// above the other (any other mode, page 1 on top), on white. The page with
// fewer bits per pixel is converted to the other's format first; the result
// carries the header and colour table of the richer page, or of page 2 when
// the depths are equal.
#include <algorithm>
#include <climits>

#include "cleanup/cleanup.h"
#include "frame/convert.h"
#include "frame/view.h"

namespace quarvel::cleanup {

namespace {

bool CopyAt(IplImage &from, IplImage &to, int x, int y) {
    RoiPtr roi(iplCreateROI(0, x, y, from.width, from.height));
    if (!roi) return false;
    RoiScope scope(&to, roi.get());
    iplCopy(&from, &to);
    return true;
}

// The page converted to `bits` (8, 24 or 32), or null when it has them already.
ImagePtr Converted(IplImage *view, const LockedDib &page, int bits) {
    if (page.bitCount() == bits) return nullptr;
    return bits == 8 ? MakeGrayImage(view, nullptr, page.header()) : MakeColorImage(view, nullptr, page.header(), bits);
}

}  // namespace

HGLOBAL Combine(HGLOBAL hDib1, HGLOBAL hDib2, int nMode) {
    LockedDib page1(hDib1, kImageDepths), page2(hDib2, kImageDepths);
    if (!page1.ok() || !page2.ok()) return nullptr;
    ImagePtr view1 = DibToIplImage(page1.header()), view2 = DibToIplImage(page2.header());
    if (!view1 || !view2) return nullptr;
    const long long w1 = page1.width(), h1 = page1.height(), w2 = page2.width(), h2 = page2.height();
    const bool sideBySide = nMode == 0;
    const long long w = sideBySide ? w1 + w2 : std::max(w1, w2);
    const long long h = sideBySide ? std::max(h1, h2) : h1 + h2;
    if (w > INT_MAX || h > INT_MAX) return nullptr;

    const int b1 = page1.bitCount(), b2 = page2.bitCount();
    const LockedDib &chosen = b1 > b2 ? page1 : page2;
    const int bits = std::max(b1, b2);
    ImagePtr conv1 = Converted(view1.get(), page1, bits), conv2 = Converted(view2.get(), page2, bits);
    if ((b1 != bits && !conv1) || (b2 != bits && !conv2)) return nullptr;
    IplImage &img1 = conv1 ? *conv1 : *view1;
    IplImage &img2 = conv2 ? *conv2 : *view2;

    ResultBlock out = ResultBlock::Rewritten(chosen, FormatOf(img1), static_cast<int>(w), static_cast<int>(h),
                                             NewTable::kKeep);
    if (!out) return nullptr;
    out.Fill(255);
    IplImage &canvas = *out.image();
    bool ok;
    if (sideBySide)
        ok = CopyAt(img1, canvas, 0, static_cast<int>(h - h1)) &&
             CopyAt(img2, canvas, static_cast<int>(w1), static_cast<int>(h - h2));
    else
        ok = CopyAt(img1, canvas, 0, static_cast<int>(h2)) && CopyAt(img2, canvas, 0, 0);
    return ok ? out.Release() : nullptr;
}

}  // namespace quarvel::cleanup
