#include "page.h"

#include <cmath>
#include <cstring>

namespace qtool {

std::vector<RGBQUAD> GrayTable() {
    std::vector<RGBQUAD> t(256);
    for (int i = 0; i < 256; ++i) t[i] = RGBQUAD{static_cast<BYTE>(i), static_cast<BYTE>(i), static_cast<BYTE>(i), 0};
    return t;
}

std::vector<RGBQUAD> BitonalTable() {
    return {RGBQUAD{0, 0, 0, 0}, RGBQUAD{255, 255, 255, 0}};
}

double DpiOf(std::int32_t pelsPerMeter) {
    if (pelsPerMeter <= 0) return 0.0;
    // One pel per metre is 0.0254 dpi: the whole number within half of that
    // is the resolution that was stored.
    const double dpi = pelsPerMeter * 0.0254, whole = std::round(dpi);
    return std::fabs(dpi - whole) <= 0.0127 ? whole : dpi;
}

std::int32_t PelsPerMeter(double dpi) {
    return dpi > 0 ? static_cast<std::int32_t>(std::lround(dpi / 0.0254)) : 0;
}

Page NewPage(int w, int h, int bits, const std::vector<RGBQUAD> &table, double dpiX, double dpiY) {
    if (w <= 0 || h <= 0 || (bits != 1 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32))
        return Page();
    const std::size_t stride = ((static_cast<std::size_t>(w) * bits + 31) / 32) * 4;
    const std::size_t size = 40 + 4 * table.size() + stride * static_cast<std::size_t>(h);
    Page page(GlobalAlloc(GHND, size));
    auto *p = static_cast<std::uint8_t *>(GlobalLock(page.get()));
    if (p == nullptr) return Page();
    auto *hd = reinterpret_cast<BITMAPINFOHEADER *>(p);
    hd->biSize = 40;
    hd->biWidth = w;
    hd->biHeight = h;
    hd->biPlanes = 1;
    hd->biBitCount = static_cast<WORD>(bits);
    hd->biCompression = 0;
    hd->biSizeImage = static_cast<DWORD>(stride * h);
    hd->biXPelsPerMeter = PelsPerMeter(dpiX);
    hd->biYPelsPerMeter = PelsPerMeter(dpiY);
    hd->biClrUsed = static_cast<DWORD>(table.size());
    if (!table.empty()) std::memcpy(p + 40, table.data(), 4 * table.size());
    GlobalUnlock(page.get());
    return page;
}

Locked::Locked(HGLOBAL h) : h_(h) {
    void *p = GlobalLock(h);
    size_ = GlobalSize(h);
    if (p == nullptr || size_ < 40) {
        if (p != nullptr) GlobalUnlock(h);
        h_ = nullptr;
        return;
    }
    header_ = static_cast<BITMAPINFOHEADER *>(p);
    const int b = header_->biBitCount;
    const bool shape = header_->biSize == 40 && header_->biWidth > 0 && header_->biHeight > 0 && colors() <= 256 &&
                       (b == 1 || b == 4 || b == 8 || b == 16 || b == 24 || b == 32);
    if (!shape || 40 + 4ull * colors() + stride() * static_cast<std::size_t>(header_->biHeight) > size_) {
        GlobalUnlock(h);
        header_ = nullptr;
        h_ = nullptr;
    }
}

Locked::~Locked() {
    if (h_ != nullptr) GlobalUnlock(h_);
}

std::uint32_t Locked::colors() const {
    if (header_->biClrUsed != 0) return header_->biClrUsed;
    return header_->biBitCount <= 8 ? 1u << header_->biBitCount : 0;
}

RGBQUAD *Locked::table() const {
    return reinterpret_cast<RGBQUAD *>(reinterpret_cast<std::uint8_t *>(header_) + 40);
}

std::uint8_t *Locked::row(int storedRow) const {
    return reinterpret_cast<std::uint8_t *>(header_) + 40 + 4 * colors() +
           static_cast<std::size_t>(storedRow) * static_cast<std::size_t>(stride());
}

}  // namespace qtool
