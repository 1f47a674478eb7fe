// Image views over packed DIBs and the result blocks operations return.
//
// A view is an IplImage header over a locked page's rows: it owns no pixels,
// and releasing it leaves the block alone. A result block is the new packed
// DIB an image operation hands back. ResultBlock lays an image over the new
// block's rows, so an operation's primitives write their output straight into
// the block and pixels are copied exactly once.
#pragma once

#include "frame/dib.h"
#include "frame/bits.h"
#include "frame/ipl.h"
#include "frame/kernels.h"

#include <cstring>

namespace quarvel {

// A view over the page's rows, or null for a depth other than 1, 8, 24, 32.
ImagePtr DibToIplImage(BITMAPINFOHEADER *header);

// The colour table a rewritten-header result block gets.
enum class NewTable {
    kKeep,     // the input's table and depth
    kNone,     // no table: 24 or 32 bits, biClrUsed 0
    kBitonal,  // 2 entries, black then white
    kGray,     // 256 entries, entry i = (i, i, i)
};

// What a new result block's rows hold before the operation writes them.
enum class ResultRows {
    kZeroed,         // every byte 0
    kPaddingZeroed,  // each row's padding 0 (from the byte holding the last pixel's bits), pixels unset
    kUnset,          // nothing set: the operation writes every byte of every row, padding included
};

class ResultBlock {
public:
    // Copied-header form: as large as the input block (GlobalSize), with the
    // input's header and colour table byte for byte; rows zero-filled, or,
    // for an operation that writes every pixel (`pixelsWritten`), only their
    // padding and the bytes past the rows zeroed; or, with `rows`, as that
    // says (the bytes past the rows always zeroed).
    static ResultBlock CopiedHeader(const LockedDib &in, bool pixelsWritten = false);
    static ResultBlock CopiedHeader(const LockedDib &in, ResultRows rows);
    // Rewritten-header form: the input's header with the new width, height
    // and biSizeImage; the colour table and depth that `table` says (the
    // input's for kKeep, else those of `format`); rows zero-filled, or, with
    // `pixelsWritten`, only their padding; or as `rows` says.
    static ResultBlock Rewritten(const LockedDib &in, PixelFormat format, int width, int height, NewTable table,
                                 bool pixelsWritten = false);
    static ResultBlock Rewritten(const LockedDib &in, PixelFormat format, int width, int height, NewTable table,
                                 ResultRows rows);

    ResultBlock(ResultBlock &&other) noexcept;
    ResultBlock &operator=(ResultBlock &&) = delete;
    ResultBlock(const ResultBlock &) = delete;
    ~ResultBlock();

    explicit operator bool() const { return image_ != nullptr; }
    // The image over the block's rows (no region).
    IplImage *image() const { return image_.get(); }
    BITMAPINFOHEADER *header() const { return reinterpret_cast<BITMAPINFOHEADER *>(data_); }
    // Sets every pixel (not the row padding) to value.
    void Fill(int value) { iplSet(image_.get(), value); }
    // Unlocks the block and hands it to the caller.
    HGLOBAL Release();

private:
    ResultBlock() = default;
    bool Open(std::size_t size, bool zeroed = true);

    HGLOBAL handle_ = nullptr;
    std::uint8_t *data_ = nullptr;
    ImagePtr image_;
};

// The pixels of `to` outside the rectangle (x, y, w, h) of stored rows, which
// lies inside the image: copied from `from` (same size and format), or with
// `from` null set to `value`; `inside(i)` is called for each stored row i of
// the rectangle between its left and right parts, to write the rectangle's
// pixels of that row. One pass down the rows, each byte written once.
template <class Inside>
void PaintAround(IplImage *from, IplImage *to, int x, int y, int w, int h, int value, Inside inside) {
    const int pw = to->width;
    const bool bitonal = FormatOf(*to) == PixelFormat::kBitonal;
    const std::size_t bpp = bitonal ? 0 : static_cast<std::size_t>(Traits(FormatOf(*to)).bytesPerPixel);
    const auto v = static_cast<std::uint8_t>(value < 0 ? 0 : value > 255 ? 255 : value);
    const auto part = [&](int row, int from0, int n) {
        if (n <= 0) return;
        std::uint8_t *d = RowOf(*to, row);
        if (bitonal) {
            if (from == nullptr)
                bits::Fill(d, from0, n, value);
            else
                bits::Copy(RowOf(*from, row), from0, d, from0, n);
        } else if (from == nullptr) {
            std::memset(d + bpp * static_cast<std::size_t>(from0), v, bpp * static_cast<std::size_t>(n));
        } else {
            kernels::CopyRow(RowOf(*from, row) + bpp * static_cast<std::size_t>(from0), d + bpp * static_cast<std::size_t>(from0),
                             bpp * static_cast<std::size_t>(n), nullptr);
        }
    };
    for (int i = 0; i < to->height; ++i) {
        if (i < y || i >= y + h) {
            part(i, 0, pw);
            continue;
        }
        part(i, 0, x);
        inside(i);
        part(i, x + w, pw - x - w);
    }
}

// PaintAround with the rectangle's pixels left for the caller.
void PaintOutside(IplImage *from, IplImage *to, int x, int y, int w, int h, int value);

// The result block of a separately made result image, copied-header form.
HGLOBAL MakeResultBlock(const LockedDib &in, const IplImage &result);
// The same in the rewritten-header form.
HGLOBAL MakeResultBlock(const LockedDib &in, const IplImage &result, NewTable table);

// Runs an operation's body so that nothing thrown inside (an allocation
// failure, an OpenCV error) crosses the C interface: it gives `fallback`.
template <class R, class F>
R Guarded(R fallback, F &&body) noexcept {
    try {
        return body();
    } catch (...) {
        return fallback;
    }
}

}  // namespace quarvel
