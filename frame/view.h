// Image views over packed DIBs and the result blocks operations return.
//
// A view is an IplImage header over a locked page's rows: it owns no pixels,
// and releasing it leaves the block alone. A result block is the new packed
// DIB an image operation hands back. ResultBlock lays an image over the new
// block's rows, so an operation's primitives write their output straight into
// the block and pixels are copied exactly once.
#pragma once

#include "frame/dib.h"
#include "frame/ipl.h"

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

class ResultBlock {
public:
    // Copied-header form: as large as the input block (GlobalSize), with the
    // input's header and colour table byte for byte; rows zero-filled, or,
    // for an operation that writes every pixel (`pixelsWritten`), only their
    // padding and the bytes past the rows zeroed.
    static ResultBlock CopiedHeader(const LockedDib &in, bool pixelsWritten = false);
    // Rewritten-header form: the input's header with the new width, height
    // and biSizeImage; the colour table and depth that `table` says (the
    // input's for kKeep, else those of `format`); rows zero-filled, or, with
    // `pixelsWritten`, only their padding.
    static ResultBlock Rewritten(const LockedDib &in, PixelFormat format, int width, int height, NewTable table,
                                 bool pixelsWritten = false);

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
