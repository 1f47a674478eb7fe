// ConvertMode and ConvertModeToGrayEx: a page converted to black and white
// (1 bit, black-then-white table), gray (8 bits, gray ramp) or colour (24 or
// 32 bits, no table) with the frame's conversions, under a fresh header.
// ConvertModeToGrayEx makes strongly red and strongly blue pixels of a colour
// page black in its gray result, so coloured marks come out as dark as ink;
// a 32-bit page is tested with its own 4-byte pixels. Colour pages go to
// gray, black-and-white pages to gray or colour, and colour pages to 24 or
// 32 bits, in one pass straight into the result block.
#include <algorithm>
#include <vector>

#include "frame/convert.h"
#include "frame/kernels.h"
#include "frame/view.h"
#include "pixel/pixel.h"

namespace quarvel::pixel {

namespace {

// The converted image under a rewritten header with the table of its depth
// and biClrUsed 0.
HGLOBAL Emit(const LockedDib &in, const IplImage &image, NewTable table) {
    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(image), image.width, image.height, table, true);
    if (!out) return nullptr;
    iplCopy(const_cast<IplImage *>(&image), out.image());
    out.header()->biClrUsed = 0;
    return out.Release();
}

// A colour page's gray result in one pass from its rows into the result block.
HGLOBAL GrayOfColour(const LockedDib &in, int redDelta, int blueDelta) {
    ResultBlock out = ResultBlock::Rewritten(in, PixelFormat::kGray, in.width(), in.height(), NewTable::kGray, true);
    if (!out) return nullptr;
    for (int y = 0; y < in.height(); ++y)
        kernels::ColourToGrayRow(in.row(y), RowOf(*out.image(), y), in.width(), in.bitCount() / 8, redDelta, blueDelta);
    out.header()->biClrUsed = 0;
    return out.Release();
}

// A colour page to black and white a row at a time: gray levels into a
// scratch row, thresholded straight into the result block's row.
HGLOBAL BitsOfColour(const LockedDib &in, int threshold) {
    ResultBlock out = ResultBlock::Rewritten(in, PixelFormat::kBitonal, in.width(), in.height(), NewTable::kBitonal, true);
    if (!out) return nullptr;
    std::vector<std::uint8_t> gray(static_cast<std::size_t>(in.width()));
    for (int y = 0; y < in.height(); ++y) {
        kernels::ColourToGrayRow(in.row(y), gray.data(), in.width(), in.bitCount() / 8, 0, 0);
        kernels::ThresholdToBits(gray.data(), RowOf(*out.image(), y), in.width(), threshold);
    }
    out.header()->biClrUsed = 0;
    return out.Release();
}

// A gray page to black and white or colour, converted straight into the
// result block.
HGLOBAL GrayConvertedInPlace(const LockedDib &in, IplImage *view, int mode, int threshold) {
    const PixelFormat format = mode == 1 ? PixelFormat::kBitonal : mode == 24 ? PixelFormat::kBgr : PixelFormat::kBgra;
    ResultBlock out = ResultBlock::Rewritten(in, format, in.width(), in.height(), mode == 1 ? NewTable::kBitonal : NewTable::kNone, true);
    if (!out) return nullptr;
    if (mode == 1) {
        iplThreshold(view, out.image(), threshold);
    } else {
        iplGrayToColor(view, out.image(), 1.0f, 1.0f, 1.0f);
    }
    out.header()->biClrUsed = 0;
    return out.Release();
}

// A black-and-white page to gray or colour, its bits expanded to the levels
// of its two table entries straight into the result block.
HGLOBAL ExpandedBitonal(const LockedDib &in, int mode) {
    const PixelFormat format = mode == 8 ? PixelFormat::kGray : mode == 24 ? PixelFormat::kBgr : PixelFormat::kBgra;
    ResultBlock out = ResultBlock::Rewritten(in, format, in.width(), in.height(), mode == 8 ? NewTable::kGray : NewTable::kNone, true);
    if (!out) return nullptr;
    int zero, one;
    BitonalScales(in.header(), &zero, &one);
    const auto z = static_cast<std::uint8_t>(std::clamp(zero, 0, 255));
    const auto o = static_cast<std::uint8_t>(std::clamp(one, 0, 255));
    for (int y = 0; y < in.height(); ++y) kernels::ExpandBitsRow(in.row(y), RowOf(*out.image(), y), in.width(), mode / 8, z, o);
    out.header()->biClrUsed = 0;
    return out.Release();
}

// A colour page to 24 or 32 bits, copied straight into the result block
// (a 24-bit pixel gains an opaque fourth byte, a 32-bit one drops it).
HGLOBAL ColourCopied(const LockedDib &in, IplImage *view, int mode) {
    ResultBlock out = ResultBlock::Rewritten(in, mode == 24 ? PixelFormat::kBgr : PixelFormat::kBgra, in.width(),
                                             in.height(), NewTable::kNone, true);
    if (!out) return nullptr;
    iplCopy(view, out.image());
    out.header()->biClrUsed = 0;
    return out.Release();
}

}  // namespace

HGLOBAL ConvertMode(HGLOBAL hDib, int mode, int threshold) {
    if (mode != 1 && mode != 8 && mode != 24 && mode != 32) return nullptr;
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    if (mode == 8 && in.bitCount() >= 24) return GrayOfColour(in, 0, 0);
    if (mode == 1 && in.bitCount() >= 24) return BitsOfColour(in, threshold);
    if (mode != 1 && in.bitCount() == 1) return ExpandedBitonal(in, mode);
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    if (in.bitCount() == 8 && mode != 8) return GrayConvertedInPlace(in, view.get(), mode, threshold);
    if (in.bitCount() >= 24 && mode >= 24) return ColourCopied(in, view.get(), mode);
    ImagePtr converted;
    NewTable table = NewTable::kNone;
    switch (mode) {
        case 1:
            converted = MakeBitonalImage(view.get(), nullptr, in.header(), threshold);
            table = NewTable::kBitonal;
            break;
        case 8:
            converted = MakeGrayImage(view.get(), nullptr, in.header());
            table = NewTable::kGray;
            break;
        default: converted = MakeColorImage(view.get(), nullptr, in.header(), mode); break;
    }
    if (!converted) return nullptr;
    return Emit(in, *converted, table);
}

HGLOBAL ConvertModeToGrayEx(HGLOBAL hDib, int redDelta, int blueDelta) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    if (in.bitCount() >= 24) return GrayOfColour(in, redDelta, blueDelta);
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    ImagePtr gray = MakeGrayImage(view.get(), nullptr, in.header());
    if (!gray) return nullptr;
    return Emit(in, *gray, NewTable::kGray);
}

}  // namespace quarvel::pixel
