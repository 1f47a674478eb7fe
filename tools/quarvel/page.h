// Pages as the tool holds them: packed DIBs in global-memory blocks, owned
// by a handle that frees them, with the few accessors the file formats and
// the demo need.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "quarvel/quarvel.h"

namespace qtool {

class Page {
public:
    Page() = default;
    explicit Page(HGLOBAL h) : h_(h) {}
    Page(Page &&o) noexcept : h_(o.h_) { o.h_ = nullptr; }
    Page &operator=(Page &&o) noexcept {
        if (this != &o) {
            reset();
            h_ = o.h_;
            o.h_ = nullptr;
        }
        return *this;
    }
    Page(const Page &) = delete;
    Page &operator=(const Page &) = delete;
    ~Page() { reset(); }

    HGLOBAL get() const { return h_; }
    explicit operator bool() const { return h_ != nullptr; }
    void reset() {
        if (h_ != nullptr) GlobalFree(h_);
        h_ = nullptr;
    }

private:
    HGLOBAL h_ = nullptr;
};

// A new page of w x h at `bits` (1, 8, 24 or 32) with zeroed rows and the
// given colour table (`colors` entries), resolution in dots per inch.
Page NewPage(int w, int h, int bits, const std::vector<RGBQUAD> &table, double dpiX = 0, double dpiY = 0);
// A gray ramp (256 entries) and a black-then-white pair.
std::vector<RGBQUAD> GrayTable();
std::vector<RGBQUAD> BitonalTable();

// A locked view of a page.
class Locked {
public:
    explicit Locked(HGLOBAL h);
    ~Locked();
    Locked(const Locked &) = delete;
    Locked &operator=(const Locked &) = delete;
    bool ok() const { return header_ != nullptr; }
    BITMAPINFOHEADER *header() const { return header_; }
    int width() const { return header_->biWidth; }
    int height() const { return header_->biHeight; }
    int bits() const { return header_->biBitCount; }
    std::size_t stride() const { return ((static_cast<std::size_t>(width()) * bits() + 31) / 32) * 4; }
    std::uint32_t colors() const;
    RGBQUAD *table() const;
    std::uint8_t *row(int storedRow) const;
    // Rows as displayed, top first.
    std::uint8_t *displayRow(int y) const { return row(height() - 1 - y); }

private:
    HGLOBAL h_;
    BITMAPINFOHEADER *header_ = nullptr;
    std::size_t size_ = 0;
};

// Dots per inch of a DIB's pels per metre; a whole number of dots per inch
// comes back exactly (11811 pels per metre is 300 dpi, not 299.9994).
double DpiOf(std::int32_t pelsPerMeter);
std::int32_t PelsPerMeter(double dpi);

}  // namespace qtool
