#include "frame/view.h"

#include "frame/kernels_bits.h"
#include "platform/global_memory.h"

#include <cstring>

namespace quarvel {

ImagePtr DibToIplImage(BITMAPINFOHEADER *header) {
    PixelFormat format;
    if (header == nullptr || !FormatOfBitCount(header->biBitCount, &format)) return nullptr;
    return WrapRows(format, header->biWidth, header->biHeight, DibPixelBits(header));
}

ResultBlock::ResultBlock(ResultBlock &&other) noexcept
    : handle_(other.handle_), data_(other.data_), image_(std::move(other.image_)) {
    other.handle_ = nullptr;
    other.data_ = nullptr;
}

ResultBlock::~ResultBlock() {
    image_.reset();
    if (handle_ != nullptr) {
        GlobalUnlock(handle_);
        GlobalFree(handle_);
    }
}

bool ResultBlock::Open(std::size_t size, bool zeroed) {
    handle_ = AllocateBlock(size, zeroed);
    if (handle_ == nullptr) return false;
    data_ = static_cast<std::uint8_t *>(GlobalLock(handle_));
    return data_ != nullptr;
}

ResultBlock ResultBlock::CopiedHeader(const LockedDib &in, bool pixelsWritten) {
    return CopiedHeader(in, pixelsWritten ? ResultRows::kPaddingZeroed : ResultRows::kZeroed);
}

ResultBlock ResultBlock::CopiedHeader(const LockedDib &in, ResultRows rows) {
    ResultBlock out;
    PixelFormat format;
    if (!FormatOfBitCount(in.bitCount(), &format)) return out;
    if (!out.Open(in.blockSize(), rows == ResultRows::kZeroed)) return out;
    std::memcpy(out.data_, in.block(), in.prefixSize());
    if (rows != ResultRows::kZeroed) {
        // Zero what no pixel covers: each row's padding (from the byte
        // holding the last pixel's bits) and the block past the rows.
        const std::size_t stride = static_cast<std::size_t>(in.stride());
        const std::size_t used = static_cast<std::size_t>(in.width()) * static_cast<std::size_t>(in.bitCount()) / 8;
        std::uint8_t *first = out.data_ + in.prefixSize();
        if (used < stride && rows == ResultRows::kPaddingZeroed)
            for (int y = 0; y < in.height(); ++y) kernels::ZeroPadding(first + y * stride + used, stride - used);
        const std::size_t end = in.prefixSize() + in.imageSize();
        std::memset(out.data_ + end, 0, in.blockSize() - end);
    }
    out.image_ = WrapRows(format, in.width(), in.height(), DibPixelBits(out.header()));
    return out;
}

ResultBlock ResultBlock::Rewritten(const LockedDib &in, PixelFormat format, int width, int height, NewTable table,
                                   bool pixelsWritten) {
    return Rewritten(in, format, width, height, table, pixelsWritten ? ResultRows::kPaddingZeroed : ResultRows::kZeroed);
}

ResultBlock ResultBlock::Rewritten(const LockedDib &in, PixelFormat format, int width, int height, NewTable table,
                                   ResultRows rows) {
    const bool pixelsWritten = rows != ResultRows::kZeroed;
    ResultBlock out;
    if (table == NewTable::kKeep && !FormatOfBitCount(in.bitCount(), &format)) return out;
    ImagePtr probe = WrapRows(format, width, height, nullptr);
    if (!probe) return out;
    std::size_t entries = 0;
    switch (table) {
        case NewTable::kKeep: entries = in.colorCount(); break;
        case NewTable::kNone: entries = 0; break;
        case NewTable::kBitonal: entries = 2; break;
        case NewTable::kGray: entries = 256; break;
    }
    const std::size_t imageSize = static_cast<std::size_t>(probe->imageSize);
    const std::size_t prefix = kHeaderSize + 4 * entries;
    if (!out.Open(prefix + imageSize, !pixelsWritten)) return out;
    if (pixelsWritten) {
        // Zero the header and table before they are filled in, and each
        // row's padding from the byte holding the last pixel's bits.
        std::memset(out.data_, 0, prefix);
        const std::size_t stride = static_cast<std::size_t>(probe->widthStep);
        const std::size_t used = static_cast<std::size_t>(width) * static_cast<std::size_t>(Traits(format).bitCount) / 8;
        if (used < stride && rows == ResultRows::kPaddingZeroed)
            for (int y = 0; y < height; ++y) kernels::ZeroPadding(out.data_ + prefix + y * stride + used, stride - used);
    }
    std::memcpy(out.data_, in.block(), table == NewTable::kKeep ? in.prefixSize() : kHeaderSize);
    BITMAPINFOHEADER *h = out.header();
    h->biWidth = width;
    h->biHeight = height;
    h->biSizeImage = static_cast<DWORD>(imageSize);
    if (table != NewTable::kKeep) {
        h->biBitCount = static_cast<WORD>(Traits(format).bitCount);
        h->biClrUsed = static_cast<DWORD>(entries);
        auto *colors = reinterpret_cast<RGBQUAD *>(out.data_ + kHeaderSize);
        if (table == NewTable::kBitonal) {
            colors[0] = RGBQUAD{0, 0, 0, 0};
            colors[1] = RGBQUAD{255, 255, 255, 0};
        } else if (table == NewTable::kGray) {
            for (std::size_t i = 0; i < 256; ++i) {
                const auto v = static_cast<BYTE>(i);
                colors[i] = RGBQUAD{v, v, v, 0};
            }
        }
    }
    probe->imageData = DibPixelBits(h);
    out.image_ = std::move(probe);
    return out;
}

HGLOBAL ResultBlock::Release() {
    // The image header stays until this object goes, so a region scope
    // opened on it after this block may still put its region back; its rows
    // are no longer ours to touch.
    HGLOBAL h = handle_;
    if (h != nullptr) GlobalUnlock(h);
    handle_ = nullptr;
    data_ = nullptr;
    return h;
}

namespace {

HGLOBAL CopyPixels(ResultBlock block, const IplImage &result) {
    if (!block) return nullptr;
    std::memcpy(block.image()->imageData, result.imageData, static_cast<std::size_t>(result.imageSize));
    return block.Release();
}

}  // namespace

void PaintOutside(IplImage *from, IplImage *to, int x, int y, int w, int h, int value) {
    PaintAround(from, to, x, y, w, h, value, [](int) {});
}

HGLOBAL MakeResultBlock(const LockedDib &in, const IplImage &result) {
    if (result.width != in.width() || result.height != in.height() || BitCountOf(result) != in.bitCount()) {
        return nullptr;
    }
    return CopyPixels(ResultBlock::CopiedHeader(in), result);
}

HGLOBAL MakeResultBlock(const LockedDib &in, const IplImage &result, NewTable table) {
    if (table == NewTable::kKeep && BitCountOf(result) != in.bitCount()) return nullptr;
    return CopyPixels(ResultBlock::Rewritten(in, FormatOf(result), result.width, result.height, table), result);
}

}  // namespace quarvel
