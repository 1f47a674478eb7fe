// Shared by the colour operations: whole-block copies, colour rows and the
// caller's rectangle.
#include <cstring>

#include "colour/colour.h"
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
    std::memcpy(data_, from.block(), from.blockSize());
}

BlockCopy::~BlockCopy() {
    if (handle_ != nullptr) {
        GlobalUnlock(handle_);
        GlobalFree(handle_);
    }
}

HGLOBAL BlockCopy::Release() {
    HGLOBAL h = handle_;
    if (h != nullptr) GlobalUnlock(h);
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
