// Shared by the colour operations: block copies whose rows are copied as a
// pass reaches them, colour rows and the caller's rectangle.
#include <cstring>

#include "colour/colour.h"
#include "frame/kernels.h"
#include "platform/global_memory.h"

namespace quarvel::colour {

BlockCopy::BlockCopy(const LockedDib &from) {
    if (!from.ok()) return;
    // Every byte is copied over, so the block skips the zero fill.
    handle_ = AllocateBlock(from.blockSize(), false);
    if (handle_ == nullptr) return;
    data_ = static_cast<std::uint8_t *>(GlobalLock(handle_));
    if (data_ == nullptr) {
        GlobalFree(handle_);
        handle_ = nullptr;
        return;
    }
    from_ = from.block();
    first_ = static_cast<std::size_t>(from.bits() - from.block());
    stride_ = static_cast<std::size_t>(from.stride());
    rows_ = from.height();
    const std::size_t end = first_ + from.imageSize();
    std::memcpy(data_, from_, first_);
    std::memcpy(data_ + end, from_ + end, from.blockSize() - end);
}

BlockCopy::~BlockCopy() {
    if (handle_ != nullptr) {
        GlobalUnlock(handle_);
        GlobalFree(handle_);
    }
}

void BlockCopy::CopyRow(int y) {
    const std::size_t at = first_ + static_cast<std::size_t>(y) * stride_;
    // The next row is prefetched while this one is copied, so that it
    // arrives while the pass works on this one.
    kernels::CopyRow(from_ + at, data_ + at, stride_, y + 1 < rows_ ? from_ + at + stride_ : nullptr);
}

HGLOBAL BlockCopy::Release() {
    HGLOBAL h = handle_;
    if (h == nullptr) return nullptr;
    for (int y = 0; y < rows_; ++y) CopyRow(y);
    GlobalUnlock(h);
    handle_ = nullptr;
    data_ = nullptr;
    return h;
}

ColourRows RowsOf(BITMAPINFOHEADER *header) {
    return ColourRows{DibPixelBits(header), header->biWidth, header->biHeight, header->biBitCount / 8,
                      DibRowStride(header->biWidth, header->biBitCount)};
}

bool ResolveRect(const RECT *rect, int width, int height, Span *span) {
    RECT r = rect != nullptr ? *rect : RECT{0, 0, 0, 0};
    if (r.right == 0 && r.bottom == 0) {
        r.right = width;
        r.bottom = height;
    }
    if (r.left >= r.right || r.top >= r.bottom) {  // no rows or no columns
        *span = Span{0, 0, 0, 0};
        return true;
    }
    if (r.left < 0 || r.top < 0 || r.right > width || r.bottom > height) return false;
    *span = Span{static_cast<int>(r.left), static_cast<int>(r.right), height - static_cast<int>(r.bottom),
                 height - static_cast<int>(r.top)};
    return true;
}

}  // namespace quarvel::colour
