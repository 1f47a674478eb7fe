// Page analysis: binarisation thresholds, skew detection and the scanner
// precision test.
//
// These measurements do not use the image-library layer. Each export takes a
// private copy of the caller's block (DibBlock), decodes it into a PageRaster
// of ink values (one byte per pixel, top row first, rows unpadded; 0 is white
// paper, 255 full black) and measures that raster.
#pragma once

#include <cstdint>
#include <memory>

#include "quarvel/win32.h"

namespace quarvel::skew {

// An owned block of bytes.
class ByteBuffer {
public:
    ByteBuffer() = default;
    virtual ~ByteBuffer() = default;
    ByteBuffer(const ByteBuffer &) = delete;
    ByteBuffer &operator=(const ByteBuffer &) = delete;
    ByteBuffer(ByteBuffer &&) noexcept = default;
    ByteBuffer &operator=(ByteBuffer &&) noexcept = default;

    // Drops the current block and allocates n bytes, not cleared. On failure
    // the buffer is left empty and the result is false.
    bool Allocate(std::uint32_t n);
    void Free();

    std::uint8_t *data() { return data_.get(); }
    const std::uint8_t *data() const { return data_.get(); }
    std::uint32_t size() const { return size_; }

private:
    std::unique_ptr<std::uint8_t[]> data_;
    std::uint32_t size_ = 0;
};

// The analysis' copy of one packed DIB, as many bytes as GlobalSize reports.
// The largest raster a measurement decodes: 2^28 pixels (256 MiB), more than
// an A2 sheet at 600 dpi (9,921 x 14,031).
constexpr std::uint64_t kMaxRasterPixels = std::uint64_t{1} << 28;

class DibBlock {
public:
    virtual ~DibBlock() = default;

    // Copies the whole block behind `h`. An unknown, freed or empty handle, or
    // a failed allocation, leaves the copy empty.
    void CopyFrom(HGLOBAL h);
    // Takes a copy of `size` bytes at `bytes` (for callers holding a page in
    // memory already).
    void CopyFrom(const void *bytes, std::uint32_t size);
    // Reads `size` bytes at `bytes` in place, without a copy; they must stay
    // valid and unchanged while this block is used.
    void View(const void *bytes, std::uint32_t size);

    // True when the copy holds a page this family can decode without reading
    // past its end: a header of at least 40 bytes, width and height above 0
    // (top-down pages are not read), uncompressed rows, a colour table and
    // rows that fit in the copy, and a raster of at most kMaxRasterPixels
    // pixels and at most 8 per byte of the copy (what 1-bit rows hold), so a
    // header without rows cannot ask for a large raster.
    bool Readable() const;

    // (biWidth, biHeight); (0, 0) for an empty copy.
    void GetSize(std::int32_t *width, std::int32_t *height) const;
    std::uint16_t GetBitCount() const;
    // Colour-table entries the depth implies: 0 for 24 and 32 bits, else
    // 2^bits (65,536 for 16 bits, whose rows nevertheless follow the header
    // directly). biClrUsed is not consulted. Saturates at 2^40 for depths
    // beyond 40 bits, which no copy can hold.
    std::uint64_t GetColorCount() const;
    // The table starts biSize bytes in, so a longer header is skipped.
    const RGBQUAD *GetColorTable() const;
    const std::uint8_t *GetBits() const;

    const ByteBuffer &bytes() const { return copy_; }

private:
    const BITMAPINFOHEADER *header() const;
    const std::uint8_t *Data() const { return view_ != nullptr ? view_ : copy_.data(); }
    std::uint32_t Size() const { return view_ != nullptr ? viewSize_ : copy_.size(); }
    ByteBuffer copy_;
    const std::uint8_t *view_ = nullptr;
    std::uint32_t viewSize_ = 0;
};

// One ink byte per pixel; pixel (x, y) is byte y * width + x, y = 0 at the top.
class PageRaster : public ByteBuffer {
public:
    std::int32_t height = 0;
    std::int32_t width = 0;

    std::uint8_t at(int x, int y) const {
        return data()[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
    }
    // Resizes to w x h (reusing the block when the size is unchanged); on
    // allocation failure the raster becomes empty. Returns whether it holds
    // w x h bytes.
    bool Resize(std::int32_t w, std::int32_t h);
};

// Fills the raster from the copy: ink = 255 - floor((B + G + R) / 3). A copy
// that is not Readable() gives an empty raster; a depth other than 1, 4, 8,
// 16, 24 or 32 gives a raster of the page's size that reads as white.
void LoadPageRaster(PageRaster &raster, const DibBlock &block);
// The raster ReduceRaster(target, raster, whole, k, k) would make of the
// loaded raster, made in one pass over the block's rows without the
// full-size raster; false when the block is not Readable() or the target
// cannot be allocated.
bool LoadReducedRaster(PageRaster &target, const DibBlock &block, int k);
// Single ink values of a Readable() block, as the loaded raster would hold
// them: at(x, y) with y = 0 at the top.
class PixelInks {
public:
    explicit PixelInks(const DibBlock &block);
    std::uint8_t at(int x, int y) const;
    std::int32_t width = 0, height = 0;

private:
    const std::uint8_t *rows_ = nullptr;
    std::size_t stride_ = 0;
    int bits_ = 0;
    std::uint8_t inks_[256] = {};
};

// The histogram of the ink values LoadPageRaster would give, counted straight
// from the block's rows; false when the block is not Readable().
bool PageInkHistogram(const DibBlock &block, std::uint32_t count[256]);

// Region in raster coordinates; an empty rectangle means the whole raster.
// Otsu's maximum between-class variance: ink values 0..k are the light class.
std::uint8_t OtsuThreshold(const PageRaster &raster, RECT region);
// Ridler and Calvard's iterative selection; 128 for a region without pixels.
std::uint8_t RidlerCalvardThreshold(const PageRaster &raster, RECT region);
// The same from a histogram of `pixels` values.
std::uint8_t OtsuThreshold(const std::uint32_t count[256], double pixels);
std::uint8_t RidlerCalvardThreshold(const std::uint32_t count[256]);

// Block averages of bw x bh source pixels over the region.
void ReduceRaster(PageRaster &target, const PageRaster &source, RECT region, int bw, int bh);
// Sums of ink along rows sheared by `slope` (cyclic within the region); one
// float per requested row.
void ShearedRowProfile(const PageRaster &raster, RECT region, float *profile, float slope);
// Turns the raster in place by `angle` degrees (clockwise as displayed for a
// positive angle) about (cx, cy); corners turned in from outside read white.
void RotateRaster(PageRaster &raster, double angle, int cx, int cy);
// The skew angle of the text lines, degrees; positive when lines fall toward
// the right. With prepare the raster is first reduced (blocks grow with the
// page height); the search never changes `raster` itself when prepare holds.
void FindSkewAngle(PageRaster &raster, double *result, bool prepare);

// Measures a 100 mm test frame; 0 and the relative scale errors on success,
// -1 (outputs untouched) when no frame is found or the resolution is not
// positive.
int MeasureTestFrame(const PageRaster &raster, int resolution, double *horizontal, double *vertical);
// The same straight from a Readable() block, without a raster.
int MeasureTestFrame(const DibBlock &block, int resolution, double *horizontal, double *vertical);

// The exports' bodies.
unsigned GetBinaryThresholdByOtsu(HGLOBAL h);
unsigned GetBinaryThresholdByRidCal(HGLOBAL h);
double GetObliquity(HGLOBAL h);
int TestPrecision(HGLOBAL h, int resolution, double *horizontal, double *vertical);

}  // namespace quarvel::skew
