// Pages for the Python module: Dib owns one packed DIB in a global-memory
// block; ArrayShape and the two conversions move pixels between a DIB and
// the NumPy layouts (bool H x W for 1-bit pages, uint8 H x W gray, H x W x 3
// RGB, H x W x 4 RGBA). The conversions touch only plain memory, so they run
// with the interpreter lock released.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>

#include "page.h"
#include "quarvel/quarvel.h"

namespace qpy {

// One page, owned: the block is freed with the object. The tool's page type,
// so pages move to and from its readers and writers without a copy.
using Dib = qtool::Page;

// What a DIB holds, checked against its block; ok is false for a page the
// conversions cannot read (freed, truncated, compressed, top-down, 16 bits).
struct DibLayout {
    bool ok = false;
    int width = 0, height = 0, bits = 0;
    std::size_t stride = 0;
    std::uint32_t colors = 0;
    std::int32_t xPelsPerMeter = 0, yPelsPerMeter = 0;
};
DibLayout LayoutOf(HGLOBAL h);

// The array a page turns into: kBool (H x W), kGray (H x W), kRgb (H x W x 3)
// or kRgba (H x W x 4). Palette pages become gray when every colour in their
// table is a gray, else RGB.
enum class Kind { kBool, kGray, kRgb, kRgba };
Kind ArrayKindOf(HGLOBAL h, const DibLayout &l);

// Writes the page's pixels into a C-contiguous array of that kind, top row first.
void DibToArray(HGLOBAL h, const DibLayout &l, Kind kind, std::uint8_t *out);

// A strided source array (strides in bytes, may be negative).
struct ArrayView {
    const std::uint8_t *data;
    Kind kind;
    std::int64_t height, width;
    std::int64_t rowStride, colStride, channelStride;
};
// A new page holding the array's pixels; resolution in dots per inch (0: none).
// Returns a null Dib when the block cannot be allocated.
Dib ArrayToDib(const ArrayView &a, double dpiX, double dpiY);

// Dots per inch from the header field and back, exact for whole dpi.
double DpiOf(std::int32_t pelsPerMeter);
std::int32_t PelsPerMeter(double dpi);

}  // namespace qpy
