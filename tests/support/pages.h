// Pages for tests: packed DIBs drawn in the test or loaded from tests/data,
// owned by RAII handles, with accessors in page coordinates.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "frame/dib.h"
#include "quarvel/quarvel.h"

namespace qtest {

// Owns a global-memory block and frees it.
class Block {
public:
    Block() = default;
    explicit Block(HGLOBAL h) : h_(h) {}
    Block(Block &&o) noexcept : h_(o.h_) { o.h_ = nullptr; }
    Block &operator=(Block &&o) noexcept {
        reset(o.h_);
        o.h_ = nullptr;
        return *this;
    }
    Block(const Block &) = delete;
    ~Block() { reset(); }
    void reset(HGLOBAL h = nullptr) {
        if (h_ != nullptr) GlobalFree(h_);
        h_ = h;
    }
    HGLOBAL get() const { return h_; }
    HGLOBAL release() {
        HGLOBAL h = h_;
        h_ = nullptr;
        return h;
    }
    explicit operator bool() const { return h_ != nullptr; }

    // Snapshot of the whole block.
    std::vector<std::uint8_t> bytes() const;
    BITMAPINFOHEADER header() const;
    std::pair<int, int> size() const { return {header().biWidth, header().biHeight}; }

private:
    HGLOBAL h_ = nullptr;
};

// Colour tables for 1- and 8-bit pages.
enum class Palette {
    kDarkFirst,   // entry 0 black: 1 bits / high indices are light
    kLightFirst,  // entry 0 white
    kNone,        // no table (24 and 32 bits)
};

struct PageShape {
    int width = 16;
    int height = 16;
    int bitCount = 8;
    Palette palette = Palette::kDarkFirst;
    std::uint32_t clrUsed = 0;     // written to biClrUsed (0: default count)
    std::size_t extraBytes = 0;    // block allocated larger than the DIB
};

// The shape of a w x h page of `bits`; colour pages get no table.
inline PageShape Shape(int w, int h, int bits, Palette p = Palette::kDarkFirst) {
    PageShape s;
    s.width = w;
    s.height = h;
    s.bitCount = bits;
    s.palette = bits >= 24 ? Palette::kNone : p;
    return s;
}

// A page with zeroed pixels; the table is gray (8-bit) or black/white (1-bit)
// in the palette's order.
Block MakePage(const PageShape &shape);
// A page with every pixel byte filled by f(x, y, channel), y in storage rows
// (for 1-bit pages f gives the bit).
template <class F>
Block MakePageWith(const PageShape &shape, F f);

// Pixel access in storage coordinates (row 0 = bottom row). Channels: blue,
// green, red, fourth byte.
class PageView {
public:
    explicit PageView(HGLOBAL h);
    ~PageView();
    PageView(const PageView &) = delete;
    int width() const { return header_->biWidth; }
    int height() const { return header_->biHeight; }
    int bitCount() const { return header_->biBitCount; }
    int stride() const { return quarvel::DibRowStride(width(), bitCount()); }
    std::uint8_t *row(int y) const { return bits_ + static_cast<std::size_t>(y) * stride(); }
    int get(int x, int y, int channel = 0) const;
    void set(int x, int y, int value, int channel = 0) const;
    BITMAPINFOHEADER *header() const { return header_; }

private:
    HGLOBAL h_;
    BITMAPINFOHEADER *header_;
    std::uint8_t *bits_;
};

// A real scan from tests/data as a packed DIB: 1-bit (palette kept as the file
// gives it), 8-bit gray or 24-bit colour. PNG and JPEG.
Block LoadScan(const std::string &name);

// Every pixel (x, y) of `in`, all channels, equals `out` at to(x, y)
// wherever that lies on `out`; a failure names `what` and the pixel.
using Move = std::function<std::pair<int, int>(int, int)>;
void ExpectMoved(HGLOBAL in, HGLOBAL out, const Move &to, const std::string &what);

// A new block holding the same bytes.
Block Copy(HGLOBAL h);
// Pixel rows of a page (without padding bits) equal to another's.
bool SamePixels(HGLOBAL a, HGLOBAL b);

// Storage row y of an 8-bit page (or channel c of a colour page) as values.
std::vector<int> RowValues(HGLOBAL h, int y = 0, int channel = 0);
// Pixels (any channel) darker than 128, or 0 bits on a 1-bit page.
int DarkCount(HGLOBAL h);
// The first row whose padding bits or bytes are not zero, or -1.
int DirtyPaddingRow(HGLOBAL h);
// Frees eight blocks of `bytes` filled with `value`. The memory of freed
// blocks of 1 MiB and more is kept and handed to the next results of about
// that size, so those show any byte they forget to write.
void DirtyTheHeap(std::size_t bytes, std::uint8_t value = 0xA5);

template <class F>
Block MakePageWith(const PageShape &shape, F f) {
    Block page = MakePage(shape);
    PageView v(page.get());
    const int channels = shape.bitCount >= 24 ? shape.bitCount / 8 : 1;
    for (int y = 0; y < shape.height; ++y)
        for (int x = 0; x < shape.width; ++x)
            for (int c = 0; c < channels; ++c) v.set(x, y, f(x, y, c), c);
    return page;
}

}  // namespace qtest
