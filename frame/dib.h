// Packed DIB access: the header, colour table and rows of a page held in a
// global-memory block, and the checks that make a block safe to read.
//
// A packed DIB is a 40-byte BITMAPINFOHEADER, DibColorCount() RGBQUADs, then
// biHeight rows of DibRowStride() bytes, bottom row first. biSize is not read:
// the colour table always starts at byte 40.
#pragma once

#include <cstddef>
#include <cstdint>

#include "quarvel/win32.h"

namespace quarvel {

constexpr std::size_t kHeaderSize = 40;
static_assert(sizeof(BITMAPINFOHEADER) == kHeaderSize, "BITMAPINFOHEADER must be 40 bytes");

// Colour-table entries: biClrUsed if set, else 2^bits for 1, 2, 4 and 8 bits,
// else 0.
std::uint32_t DibColorCount(const BITMAPINFOHEADER *header);
// First byte of the first stored row: 40 + 4 * DibColorCount bytes in.
std::uint8_t *DibPixelBits(BITMAPINFOHEADER *header);
const std::uint8_t *DibPixelBits(const BITMAPINFOHEADER *header);
// Bytes per stored row, padded to a multiple of 4.
int DibRowStride(int width, int bitCount);
// The same in 64 bits, for validating sizes that may overflow.
std::uint64_t DibRowStride64(std::int64_t width, std::int64_t bitCount);

// A 1- or 8-bit page whose colour-table entry 0 has a blue byte above 128:
// bit 0 / index 0 is the light colour. Only that one byte is read.
bool IsLightFirst(const BITMAPINFOHEADER *header);
// The pixel value that stands for white paper: 0 on a light-first page, 255
// on every other page.
int BackgroundValue(const BITMAPINFOHEADER *header);

// Sets of bit depths an operation accepts.
enum DepthSet : unsigned {
    kDepth1 = 1u << 0,
    kDepth4 = 1u << 1,
    kDepth8 = 1u << 2,
    kDepth16 = 1u << 3,
    kDepth24 = 1u << 4,
    kDepth32 = 1u << 5,
    kImageDepths = kDepth1 | kDepth8 | kDepth24 | kDepth32,
    kColorDepths = kDepth24 | kDepth32,
    kAllDepths = kDepth1 | kDepth4 | kDepth8 | kDepth16 | kDepth24 | kDepth32,
    // Any other depth below 24 (0, 2, 3, 5 ...): for the colour operations,
    // which hand such pages back as unchanged copies.
    kOtherDepthsBelow24 = 1u << 6,
    kBelowColourToo = kAllDepths | kOtherDepthsBelow24,
};
unsigned DepthBit(int bitCount);

// Whether a result whose size comes from an operation's arguments (Resize,
// Thumbnail, Crop's canvas, the canvases of RotateEx and RotateEx1) may have
// width x height pixels: at most 64 times the page's pixels, and always up to
// 2^24 (4096 x 4096), so a small page cannot be blown up to gigabytes.
bool ResultSizeAllowed(long long width, long long height, int pageWidth, int pageHeight);

// Why a block cannot be read as a page.
enum class DibError {
    kNone,
    kNoBlock,        // null, unknown or freed handle, or a block of 0 bytes
    kTooSmall,       // smaller than header + colour table + rows
    kBadSize,        // width or height 0 or below (negative height: top-down rows)
    kCompressed,     // biCompression other than BI_RGB
    kDepth,          // a bit depth outside the accepted set
    kOverflow,       // sizes beyond what the frame addresses (2 GiB of pixels)
};

// Checks a header against the bytes that hold it. `blockSize` is the number
// of readable bytes starting at `header`.
DibError CheckDib(const BITMAPINFOHEADER *header, std::size_t blockSize, unsigned depths);

// A locked global-memory block, unlocked when this goes out of scope.
class BlockLock {
public:
    explicit BlockLock(HGLOBAL h);
    ~BlockLock();
    BlockLock(const BlockLock &) = delete;
    BlockLock &operator=(const BlockLock &) = delete;

    HGLOBAL handle() const { return handle_; }
    std::uint8_t *data() const { return data_; }
    std::size_t size() const { return size_; }
    explicit operator bool() const { return data_ != nullptr; }

private:
    HGLOBAL handle_;
    std::uint8_t *data_;
    std::size_t size_;
};

// A page locked and validated: every accessor is safe to use once ok() holds.
class LockedDib {
public:
    explicit LockedDib(HGLOBAL h, unsigned depths = kImageDepths);

    bool ok() const { return error_ == DibError::kNone; }
    DibError error() const { return error_; }

    HGLOBAL handle() const { return lock_.handle(); }
    std::size_t blockSize() const { return lock_.size(); }
    BITMAPINFOHEADER *header() const { return reinterpret_cast<BITMAPINFOHEADER *>(lock_.data()); }
    std::uint8_t *block() const { return lock_.data(); }
    std::uint8_t *bits() const { return DibPixelBits(header()); }
    const RGBQUAD *colorTable() const { return reinterpret_cast<const RGBQUAD *>(lock_.data() + kHeaderSize); }
    int width() const { return header()->biWidth; }
    int height() const { return header()->biHeight; }
    int bitCount() const { return header()->biBitCount; }
    std::uint32_t colorCount() const { return DibColorCount(header()); }
    int stride() const { return DibRowStride(width(), bitCount()); }
    // Header and colour table: the bytes before the first row.
    std::size_t prefixSize() const { return kHeaderSize + 4u * static_cast<std::size_t>(colorCount()); }
    std::size_t imageSize() const { return static_cast<std::size_t>(stride()) * static_cast<std::size_t>(height()); }
    std::uint8_t *row(int y) const { return bits() + static_cast<std::size_t>(y) * static_cast<std::size_t>(stride()); }

private:
    BlockLock lock_;
    DibError error_;
};

}  // namespace quarvel
