#include "frame/dib.h"

#include <algorithm>
#include <cstdint>
#include <limits>

namespace quarvel {

std::uint32_t DibColorCount(const BITMAPINFOHEADER *header) {
    if (header->biClrUsed != 0) return header->biClrUsed;
    switch (header->biBitCount) {
        case 1: return 2;
        case 2: return 4;
        case 4: return 16;
        case 8: return 256;
        default: return 0;
    }
}

std::uint8_t *DibPixelBits(BITMAPINFOHEADER *header) {
    return reinterpret_cast<std::uint8_t *>(header) + kHeaderSize + 4u * static_cast<std::size_t>(DibColorCount(header));
}

const std::uint8_t *DibPixelBits(const BITMAPINFOHEADER *header) {
    return DibPixelBits(const_cast<BITMAPINFOHEADER *>(header));
}

int DibRowStride(int width, int bitCount) {
    return static_cast<int>(DibRowStride64(width, bitCount));
}

std::uint64_t DibRowStride64(std::int64_t width, std::int64_t bitCount) {
    return static_cast<std::uint64_t>((width * bitCount + 31) / 32 * 4);
}

bool IsLightFirst(const BITMAPINFOHEADER *header) {
    if (header->biBitCount != 1 && header->biBitCount != 8) return false;
    if (DibColorCount(header) == 0) return false;
    const auto *table = reinterpret_cast<const RGBQUAD *>(reinterpret_cast<const std::uint8_t *>(header) + kHeaderSize);
    return table[0].rgbBlue > 128;
}

int BackgroundValue(const BITMAPINFOHEADER *header) { return IsLightFirst(header) ? 0 : 255; }

unsigned DepthBit(int bitCount) {
    switch (bitCount) {
        case 1: return kDepth1;
        case 4: return kDepth4;
        case 8: return kDepth8;
        case 16: return kDepth16;
        case 24: return kDepth24;
        case 32: return kDepth32;
        default: return bitCount >= 0 && bitCount < 24 ? static_cast<unsigned>(kOtherDepthsBelow24) : 0u;
    }
}

bool ResultSizeAllowed(long long width, long long height, int pageWidth, int pageHeight) {
    if (width <= 0 || height <= 0 || width > INT32_MAX || height > INT32_MAX) return false;
    const long long page = static_cast<long long>(std::max(pageWidth, 0)) * std::max(pageHeight, 0);
    return width * height <= std::max(64 * page, 1LL << 24);
}

DibError CheckDib(const BITMAPINFOHEADER *header, std::size_t blockSize, unsigned depths) {
    if (header == nullptr || blockSize == 0) return DibError::kNoBlock;
    if (blockSize < kHeaderSize) return DibError::kTooSmall;
    if (header->biWidth <= 0 || header->biHeight <= 0) return DibError::kBadSize;
    if (header->biCompression != BI_RGB) return DibError::kCompressed;
    if ((DepthBit(header->biBitCount) & depths) == 0) return DibError::kDepth;
    // Every size in 64 bits; the frame's images address at most 2 GiB of
    // pixels (IplImage sizes are 32-bit signed).
    const std::uint64_t stride = DibRowStride64(header->biWidth, header->biBitCount);
    const std::uint64_t pixels = stride * static_cast<std::uint64_t>(header->biHeight);
    if (pixels > static_cast<std::uint64_t>(std::numeric_limits<std::int32_t>::max())) return DibError::kOverflow;
    const std::uint64_t needed = kHeaderSize + 4ull * DibColorCount(header) + pixels;
    if (needed > blockSize) return DibError::kTooSmall;
    return DibError::kNone;
}

BlockLock::BlockLock(HGLOBAL h)
    : handle_(h), data_(static_cast<std::uint8_t *>(GlobalLock(h))), size_(data_ != nullptr ? GlobalSize(h) : 0) {}

BlockLock::~BlockLock() {
    if (data_ != nullptr) GlobalUnlock(handle_);
}

LockedDib::LockedDib(HGLOBAL h, unsigned depths)
    : lock_(h), error_(CheckDib(reinterpret_cast<const BITMAPINFOHEADER *>(lock_.data()), lock_.size(), depths)) {}

}  // namespace quarvel
