// Colour analysis and enhancement: colour-mode judgement, red-letterhead
// conversion, colour enhancement and decolorizing.
//
// These operations work on the pixel bytes of the packed DIBs directly:
// pixels of 3 or 4 bytes (blue, green, red, and a fourth byte that is never
// touched), rows padded to 4 bytes and stored bottom-up. An image operation
// returns a byte-for-byte copy of the block it starts from, changed in place;
// a block that cannot be read at all gives NULL, a page the rules do not
// apply to (fewer than 24 bits, a mismatched companion page, a rectangle
// reaching outside the page) the unchanged copy.
#pragma once

#include <cstdint>

#include "frame/dib.h"
#include "quarvel/win32.h"

namespace quarvel::colour {

// A copy of a whole block (GlobalSize bytes), locked while this lives. The
// bytes before and after the rows are copied at once; the rows either by
// CopyRows, which hands each row of a band to the pass right after copying
// it (so the pass finds it in cache instead of reading the copy back from
// memory), or, if no pass asked for them, by Release.
class BlockCopy {
public:
    explicit BlockCopy(const LockedDib &from);
    ~BlockCopy();
    BlockCopy(const BlockCopy &) = delete;
    BlockCopy &operator=(const BlockCopy &) = delete;

    explicit operator bool() const { return data_ != nullptr; }
    BITMAPINFOHEADER *header() const { return reinterpret_cast<BITMAPINFOHEADER *>(data_); }
    std::uint8_t *bits() const { return DibPixelBits(header()); }
    // Copies every stored row, calling work(y) right after row y is copied
    // for y in [y0, y1). Once only, before Release.
    template <class F>
    void CopyRows(int y0, int y1, F work) {
        for (int y = 0; y < rows_; ++y) {
            CopyRow(y);
            if (y >= y0 && y < y1) work(y);
        }
        rows_ = 0;
    }
    // Copies the rows no pass has copied, unlocks the copy and hands it to
    // the caller.
    HGLOBAL Release();

private:
    void CopyRow(int y);

    HGLOBAL handle_ = nullptr;
    std::uint8_t *data_ = nullptr;
    const std::uint8_t *from_ = nullptr;
    std::size_t first_ = 0, stride_ = 0;  // offset of row 0, row stride
    int rows_ = 0;                        // rows still to copy
};

// Pixel rows of a colour page: bytes per pixel and row stride.
struct ColourRows {
    std::uint8_t *bits;
    int width, height, bytesPerPixel, stride;
    std::uint8_t *row(int y) const { return bits + static_cast<std::size_t>(y) * static_cast<std::size_t>(stride); }
};
ColourRows RowsOf(BITMAPINFOHEADER *header);

// A caller's rectangle (top-down, right and bottom exclusive; right and
// bottom both 0 meaning the page's right and bottom edges) as columns
// [x0, x1) and storage rows [y0, y1). False when it reaches outside the page.
struct Span {
    int x0, x1, y0, y1;
    bool empty() const { return x0 >= x1 || y0 >= y1; }
};
bool ResolveRect(const RECT *rect, int width, int height, Span *span);

// The seven parameters of the enhancement rules.
struct EnhanceParams {
    int splitLevel, brighten, darken, redThreshold, redBoost, blueThreshold, blueBoost;
};

int JudgeColorMode(HGLOBAL hDib, int colorThreshold);
HGLOBAL ConvertHongTou(HGLOBAL hColorDib, HGLOBAL hGrayDib, int colorDiff, int minLevel, bool keepBlue);
HGLOBAL EnhanceColor(HGLOBAL hDib, const RECT *rect, const EnhanceParams &p);
HGLOBAL EnhanceColorEx(HGLOBAL hDib, HGLOBAL hMap, const RECT *rect, const EnhanceParams &p);
HGLOBAL EnhanceColorEx1(HGLOBAL hDib, HGLOBAL hBaseDib, HGLOBAL hMap, const RECT *rect, const EnhanceParams &p);
HGLOBAL DeColorize(HGLOBAL hDib, const RECT *rect, int redThreshold, int blueThreshold, int greenThreshold);

}  // namespace quarvel::colour
