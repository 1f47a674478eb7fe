// Thumbnail and Resize: scale a page with its aspect ratio kept. The fitted
// size is the largest with the page's proportions inside the box (the height
// is fitted when its ratio is the smaller, else the width). Reductions below
// 70 % along either axis are super-sampled (an area average), everything else
// is cubic. Thumbnail returns the fitted size itself (at least 1 x 1; a 1-bit
// page comes back as an 8-bit gray thumbnail, reduced straight from its bits
// where the area reduction covers the sizes); Resize returns exactly the
// requested size with the scaled page centred on white (255) margins.
#include <algorithm>
#include <climits>

#include "frame/area_reduce.h"
#include "frame/convert.h"
#include "frame/view.h"
#include "pixel/pixel.h"

namespace quarvel::pixel {

namespace {

int Interpolation(int fitW, int fitH, int w, int h) {
    return fitW < 0.7 * w || fitH < 0.7 * h ? IPL_INTER_SUPER : IPL_INTER_CUBIC;
}

}  // namespace

bool FittedSize(int w, int h, int boxW, int boxH, int *fitW, int *fitH) {
    if (w <= 0 || h <= 0 || boxW < 0 || boxH < 0) return false;
    const double rw = static_cast<double>(boxW) / w, rh = static_cast<double>(boxH) / h;
    long long fw, fh;
    if (rh < rw) {
        fh = boxH;
        fw = static_cast<long long>(w) * boxH / h;
    } else {
        fw = boxW;
        fh = static_cast<long long>(h) * boxW / w;
    }
    if (fw > INT_MAX || fh > INT_MAX) return false;
    *fitW = static_cast<int>(fw);
    *fitH = static_cast<int>(fh);
    return true;
}

HGLOBAL Thumbnail(HGLOBAL hDib, int maxWidth, int maxHeight) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    int fitW = 0, fitH = 0;
    if (!FittedSize(in.width(), in.height(), std::max(maxWidth, 0), std::max(maxHeight, 0), &fitW, &fitH))
        return nullptr;
    fitW = std::max(fitW, 1);
    fitH = std::max(fitH, 1);
    if (!ResultSizeAllowed(fitW, fitH, in.width(), in.height())) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    const int mode = Interpolation(fitW, fitH, in.width(), in.height());
    if (in.bitCount() == 1) {
        if (!BitonalResizeFits(in.width(), in.height(), fitW, fitH, mode)) return nullptr;
        ResultBlock out = ResultBlock::Rewritten(in, PixelFormat::kGray, fitW, fitH, NewTable::kGray);
        if (!out) return nullptr;
        if (mode == IPL_INTER_SUPER) {  // straight from the bits, with no gray copy of the page
            AreaSource bits;
            bits.data = RowOf(*view, 0);
            bits.step = view->widthStep;
            bits.width = in.width();
            bits.height = in.height();
            bits.bitX = 0;
            int zero = 0, one = 0;
            BitonalScales(in.header(), &zero, &one);
            bits.zero = static_cast<std::uint8_t>(zero);
            bits.one = static_cast<std::uint8_t>(one);
            IplImage *o = out.image();
            if (AreaReduce(bits, fitW, fitH, RowOf(*o, 0), o->widthStep, fitW, fitH)) return out.Release();
        }
        ImagePtr gray = MakeGrayImage(view.get(), nullptr, in.header());
        if (!gray) return nullptr;
        iplResize(gray.get(), out.image(), fitW, in.width(), fitH, in.height(), mode);
        return out.Release();
    }
    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(*view), fitW, fitH, NewTable::kKeep);
    if (!out) return nullptr;
    iplResize(view.get(), out.image(), fitW, in.width(), fitH, in.height(), mode);
    return out.Release();
}

HGLOBAL Resize(HGLOBAL hDib, int width, int height) {
    if (width <= 0 || height <= 0) return nullptr;
    LockedDib in(hDib, kImageDepths);
    if (!in.ok() || !ResultSizeAllowed(width, height, in.width(), in.height())) return nullptr;
    int fitW = 0, fitH = 0;
    if (!FittedSize(in.width(), in.height(), width, height, &fitW, &fitH)) return nullptr;
    const int mode = Interpolation(fitW, fitH, in.width(), in.height());
    if (in.bitCount() == 1 && fitW > 0 && fitH > 0 && !BitonalResizeFits(in.width(), in.height(), fitW, fitH, mode))
        return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    // Only the margins around the scaled page's rectangle are painted white,
    // then the scaled page is written into it: each pixel is written once.
    // A 1-bit rectangle shares its edge bytes with the margins and is written
    // bit by bit into them, so those rows start zeroed; deeper rows start
    // with only their padding set.
    const ResultRows rows = in.bitCount() == 1 ? ResultRows::kZeroed : ResultRows::kPaddingZeroed;
    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(*view), width, height, NewTable::kKeep, rows);
    if (!out) return nullptr;
    if (fitW <= 0 || fitH <= 0) {
        out.Fill(255);
        return out.Release();
    }
    const int x = (width - fitW) / 2, y = (height - fitH) / 2;
    RoiPtr roi(iplCreateROI(0, x, y, fitW, fitH));
    if (!roi) return nullptr;
    PaintOutside(nullptr, out.image(), x, y, fitW, fitH, 255);
    {
        RoiScope scope(out.image(), roi.get());
        iplResize(view.get(), out.image(), fitW, in.width(), fitH, in.height(), mode);
    }
    return out.Release();
}

}  // namespace quarvel::pixel
