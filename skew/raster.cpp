// The analysis raster: a private copy of the caller's block (DibBlock) and
// its decoding into ink values (PageRaster), one byte per pixel, top row
// first. Stored rows are bottom-up, so stored row j lands in raster row
// h - 1 - j. Indexed pages look their colour up in the table (so a 1-bit page
// loads the same whichever order its two colours are in); 16-bit pixels are
// 5-5-5; the fourth byte of a 32-bit pixel is ignored.
#include <algorithm>
#include <cstring>
#include <new>

#include "frame/dib.h"
#include "skew/skew.h"

namespace quarvel::skew {

bool ByteBuffer::Allocate(std::uint32_t n) {
    Free();
    if (n == 0) return true;
    data_.reset(new (std::nothrow) std::uint8_t[n]);
    if (!data_) return false;
    size_ = n;
    return true;
}

void ByteBuffer::Free() {
    data_.reset();
    size_ = 0;
}

void DibBlock::CopyFrom(HGLOBAL h) {
    copy_.Free();
    BlockLock lock(h);
    if (!lock || lock.size() == 0 || lock.size() > UINT32_MAX) return;
    if (copy_.Allocate(static_cast<std::uint32_t>(lock.size()))) std::memcpy(copy_.data(), lock.data(), lock.size());
}

void DibBlock::CopyFrom(const void *bytes, std::uint32_t size) {
    copy_.Free();
    if (bytes == nullptr || size == 0) return;
    if (copy_.Allocate(size)) std::memcpy(copy_.data(), bytes, size);
}

const BITMAPINFOHEADER *DibBlock::header() const {
    return copy_.size() >= kHeaderSize ? reinterpret_cast<const BITMAPINFOHEADER *>(copy_.data()) : nullptr;
}

bool DibBlock::Readable() const {
    const BITMAPINFOHEADER *hd = header();
    if (hd == nullptr || hd->biSize < kHeaderSize || hd->biSize > copy_.size()) return false;
    if (hd->biWidth <= 0 || hd->biHeight <= 0 || hd->biCompression != 0) return false;
    const std::uint64_t pixels = static_cast<std::uint64_t>(hd->biWidth) * static_cast<std::uint64_t>(hd->biHeight);
    if (pixels > kMaxRasterPixels || pixels > 8ull * copy_.size()) return false;
    const std::uint64_t rows = DibRowStride64(hd->biWidth, hd->biBitCount) * static_cast<std::uint64_t>(hd->biHeight);
    const std::uint64_t table = hd->biBitCount == 16 ? 0 : 4 * GetColorCount();
    const std::uint64_t need = std::uint64_t{hd->biSize} + table + rows;
    return need <= copy_.size();
}

void DibBlock::GetSize(std::int32_t *width, std::int32_t *height) const {
    const BITMAPINFOHEADER *hd = header();
    *width = hd != nullptr ? hd->biWidth : 0;
    *height = hd != nullptr ? hd->biHeight : 0;
}

std::uint16_t DibBlock::GetBitCount() const {
    const BITMAPINFOHEADER *hd = header();
    return hd != nullptr ? hd->biBitCount : 0;
}

std::uint64_t DibBlock::GetColorCount() const {
    const BITMAPINFOHEADER *hd = header();
    if (hd == nullptr || hd->biBitCount == 24 || hd->biBitCount == 32) return 0;
    return std::uint64_t{1} << std::min<unsigned>(hd->biBitCount, 40);
}

const RGBQUAD *DibBlock::GetColorTable() const {
    const BITMAPINFOHEADER *hd = header();
    return hd != nullptr ? reinterpret_cast<const RGBQUAD *>(copy_.data() + hd->biSize) : nullptr;
}

const std::uint8_t *DibBlock::GetBits() const {
    const BITMAPINFOHEADER *hd = header();
    if (hd == nullptr) return nullptr;
    // Offsets beyond the copy are cut to its end; Readable() refuses them.
    const std::uint64_t table = hd->biBitCount == 16 ? 0 : 4 * GetColorCount();
    return copy_.data() + std::min<std::uint64_t>(std::uint64_t{hd->biSize} + table, copy_.size());
}

bool PageRaster::Resize(std::int32_t w, std::int32_t h) {
    if (w == width && h == height && size() == static_cast<std::uint32_t>(w) * static_cast<std::uint32_t>(h))
        return true;
    const std::uint64_t n = static_cast<std::uint64_t>(w < 0 ? 0 : w) * static_cast<std::uint64_t>(h < 0 ? 0 : h);
    if (w <= 0 || h <= 0 || n > INT32_MAX || !Allocate(static_cast<std::uint32_t>(n))) {
        Free();
        width = height = 0;
        return w <= 0 || h <= 0 ? n == 0 : false;
    }
    width = w;
    height = h;
    return true;
}

namespace {

inline std::uint8_t InkOf(unsigned b, unsigned g, unsigned r) { return static_cast<std::uint8_t>(255 - (b + g + r) / 3); }

// Ink of every colour-table entry; indices beyond a short table read white.
void TableInks(const DibBlock &block, int bits, std::uint8_t *inks) {
    const unsigned entries = 1u << bits;
    const std::uint64_t count = block.GetColorCount();
    const RGBQUAD *table = block.GetColorTable();
    for (unsigned i = 0; i < entries; ++i)
        inks[i] = i < count ? InkOf(table[i].rgbBlue, table[i].rgbGreen, table[i].rgbRed) : 0;
}

}  // namespace

void LoadPageRaster(PageRaster &raster, const DibBlock &block) {
    if (!block.Readable()) {
        raster.Resize(0, 0);
        return;
    }
    std::int32_t w = 0, h = 0;
    block.GetSize(&w, &h);
    if (!raster.Resize(w, h)) return;
    const int bits = block.GetBitCount();
    const std::size_t stride = DibRowStride(w, bits);
    const std::uint8_t *rows = block.GetBits();

    // Ink by (B + G + R) without a division per pixel.
    std::uint8_t bySum[766];
    for (unsigned s = 0; s < 766; ++s) bySum[s] = static_cast<std::uint8_t>(255 - s / 3);
    std::uint8_t inks[256];
    if (bits == 1 || bits == 4 || bits == 8) TableInks(block, bits, inks);

    for (int j = 0; j < h; ++j) {
        const std::uint8_t *src = rows + static_cast<std::size_t>(j) * stride;
        std::uint8_t *dst = raster.data() + static_cast<std::size_t>(h - 1 - j) * static_cast<std::size_t>(w);
        switch (bits) {
        case 1:
            for (int i = 0; i < w; ++i) dst[i] = inks[(src[i >> 3] >> (7 - (i & 7))) & 1];
            break;
        case 4:
            for (int i = 0; i < w; ++i) dst[i] = inks[(i & 1) ? (src[i >> 1] & 0x0F) : (src[i >> 1] >> 4)];
            break;
        case 8:
            for (int i = 0; i < w; ++i) dst[i] = inks[src[i]];
            break;
        case 16:
            for (int i = 0; i < w; ++i) {
                const unsigned word = src[2 * i] | (src[2 * i + 1] << 8);
                dst[i] = bySum[(word & 0x1F) * 8 + ((word >> 5) & 0x1F) * 8 + ((word >> 10) & 0x1F) * 8];
            }
            break;
        case 24:
            for (int i = 0; i < w; ++i, src += 3) dst[i] = bySum[src[0] + src[1] + src[2]];
            break;
        case 32:
            for (int i = 0; i < w; ++i, src += 4) dst[i] = bySum[src[0] + src[1] + src[2]];
            break;
        default:  // a depth without a decoding reads as blank paper
            std::memset(dst, 0, static_cast<std::size_t>(w));
            break;
        }
    }
}

}  // namespace quarvel::skew
