// The analysis raster: the caller's block read in place or copied (DibBlock) and
// its decoding into ink values (PageRaster), one byte per pixel, top row
// first. Stored rows are bottom-up, so stored row j lands in raster row
// h - 1 - j. Indexed pages look their colour up in the table (so a 1-bit page
// loads the same whichever order its two colours are in); 16-bit pixels are
// 5-5-5; the fourth byte of a 32-bit pixel is ignored.
#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "frame/dib.h"
#include "frame/histogram.h"
#include "frame/kernels.h"
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
    view_ = nullptr;
    BlockLock lock(h);
    if (!lock || lock.size() == 0 || lock.size() > UINT32_MAX) return;
    if (copy_.Allocate(static_cast<std::uint32_t>(lock.size()))) std::memcpy(copy_.data(), lock.data(), lock.size());
}

void DibBlock::View(const void *bytes, std::uint32_t size) {
    copy_.Free();
    view_ = size != 0 ? static_cast<const std::uint8_t *>(bytes) : nullptr;
    viewSize_ = view_ != nullptr ? size : 0;
}

void DibBlock::CopyFrom(const void *bytes, std::uint32_t size) {
    copy_.Free();
    view_ = nullptr;
    if (bytes == nullptr || size == 0) return;
    if (copy_.Allocate(size)) std::memcpy(copy_.data(), bytes, size);
}

const BITMAPINFOHEADER *DibBlock::header() const {
    return Size() >= kHeaderSize ? reinterpret_cast<const BITMAPINFOHEADER *>(Data()) : nullptr;
}

bool DibBlock::Readable() const {
    const BITMAPINFOHEADER *hd = header();
    if (hd == nullptr || hd->biSize < kHeaderSize || hd->biSize > Size()) return false;
    if (hd->biWidth <= 0 || hd->biHeight <= 0 || hd->biCompression != 0) return false;
    const std::uint64_t pixels = static_cast<std::uint64_t>(hd->biWidth) * static_cast<std::uint64_t>(hd->biHeight);
    if (pixels > kMaxRasterPixels || pixels > 8ull * Size()) return false;
    const std::uint64_t rows = DibRowStride64(hd->biWidth, hd->biBitCount) * static_cast<std::uint64_t>(hd->biHeight);
    const std::uint64_t table = hd->biBitCount == 16 ? 0 : 4 * GetColorCount();
    const std::uint64_t need = std::uint64_t{hd->biSize} + table + rows;
    return need <= Size();
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
    return hd != nullptr ? reinterpret_cast<const RGBQUAD *>(Data() + hd->biSize) : nullptr;
}

const std::uint8_t *DibBlock::GetBits() const {
    const BITMAPINFOHEADER *hd = header();
    if (hd == nullptr) return nullptr;
    // Offsets beyond the block are cut to its end; Readable() refuses them.
    const std::uint64_t table = hd->biBitCount == 16 ? 0 : 4 * GetColorCount();
    return Data() + std::min<std::uint64_t>(std::uint64_t{hd->biSize} + table, Size());
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

namespace {

// Ink tables of a page: by (B + G + R) without a division per pixel, and by
// colour-table index.
struct InkTables {
    // The ink of one (B + G + R) sum, as bySum holds it.
    struct Sum {
        std::uint8_t operator()(unsigned s) const { return static_cast<std::uint8_t>(255 - s / 3); }
    };
    std::uint8_t bySum[766];
    std::uint8_t inks[256];
    InkTables(const DibBlock &block, int bits) {
        for (unsigned s = 0; s < 766; ++s) bySum[s] = static_cast<std::uint8_t>(255 - s / 3);
        if (bits == 1 || bits == 4 || bits == 8) TableInks(block, bits, inks);
    }
};

// Decodes the first w pixels of one stored row into ink values.
void DecodeRow(const std::uint8_t *src, std::uint8_t *dst, int w, int bits, const InkTables &t) {
    switch (bits) {
    case 1:
        for (int i = 0; i < w; ++i) dst[i] = t.inks[(src[i >> 3] >> (7 - (i & 7))) & 1];
        break;
    case 4:
        for (int i = 0; i < w; ++i) dst[i] = t.inks[(i & 1) ? (src[i >> 1] & 0x0F) : (src[i >> 1] >> 4)];
        break;
    case 8:
        for (int i = 0; i < w; ++i) dst[i] = t.inks[src[i]];
        break;
    case 16:
        for (int i = 0; i < w; ++i) {
            const unsigned word = src[2 * i] | (src[2 * i + 1] << 8);
            dst[i] = t.bySum[(word & 0x1F) * 8 + ((word >> 5) & 0x1F) * 8 + ((word >> 10) & 0x1F) * 8];
        }
        break;
    case 24:
        for (int i = 0; i < w; ++i, src += 3) dst[i] = t.bySum[src[0] + src[1] + src[2]];
        break;
    case 32:
        for (int i = 0; i < w; ++i, src += 4) dst[i] = t.bySum[src[0] + src[1] + src[2]];
        break;
    default:  // a depth without a decoding reads as blank paper
        std::memset(dst, 0, static_cast<std::size_t>(w));
        break;
    }
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
    const InkTables tables(block, bits);
    for (int j = 0; j < h; ++j) {
        DecodeRow(rows + static_cast<std::size_t>(j) * stride,
                  raster.data() + static_cast<std::size_t>(h - 1 - j) * static_cast<std::size_t>(w), w, bits, tables);
    }
}

// Raster row r is stored row h - 1 - r. Each group of k raster rows is
// decoded one row at a time straight into sums down the columns;
// the column sums are then summed across each block of k columns.
bool LoadReducedRaster(PageRaster &target, const DibBlock &block, int k) {
    if (!block.Readable() || k <= 0) return false;
    std::int32_t w = 0, h = 0;
    block.GetSize(&w, &h);
    const int rw = w / k, rh = h / k;
    if (!target.Resize(rw, rh)) return false;
    if (rw <= 0 || rh <= 0) return true;
    const int bits = block.GetBitCount();
    const std::size_t stride = DibRowStride(w, bits);
    const std::uint8_t *rows = block.GetBits();
    const InkTables tables(block, bits);
    const int used = rw * k;
    const unsigned area = static_cast<unsigned>(k) * static_cast<unsigned>(k);
    // 1-, 8-, 24- and 32-bit rows sum in 16 bits through the column kernels
    // (257 rows of inks up to 255 fit), carried into 32-bit column totals
    // every 257 rows; an 8-bit page whose inks are the complements of its
    // indices (a rising gray ramp) needs no lookup.
    bool ramp = bits == 8;
    for (int v = 0; ramp && v < 256; ++v) ramp = tables.inks[v] == 255 - v;
    const bool kernelled = bits == 1 || bits == 8 || bits == 24 || bits == 32;
    constexpr int kSixteenBitRows = 257;
    std::vector<std::uint8_t> line(static_cast<std::size_t>(w));
    std::vector<std::uint32_t> columns(static_cast<std::size_t>(used));
    std::vector<std::uint16_t> narrow(kernelled ? static_cast<std::size_t>(used) : 0);
    int pending = 0;
    auto carry = [&] {
        for (std::size_t x = 0; x < narrow.size(); ++x) columns[x] += narrow[x];
        std::fill(narrow.begin(), narrow.end(), std::uint16_t{0});
        pending = 0;
    };
    // Block rows from the bottom of the page up and their rows likewise, so
    // the stored rows are read in address order.
    for (int j = rh - 1; j >= 0; --j) {
        std::fill(columns.begin(), columns.end(), 0u);
        for (int dy = k - 1; dy >= 0; --dy) {
            const int stored = h - 1 - (j * k + dy);
            const std::uint8_t *src = rows + static_cast<std::size_t>(stored) * stride;
            if (!kernelled) {
                DecodeRow(src, line.data(), used, bits, tables);
                for (int x = 0; x < used; ++x) columns[static_cast<std::size_t>(x)] += line[static_cast<std::size_t>(x)];
                continue;
            }
            if (bits == 1) {
                kernels::AddBitsRow(src, used, tables.inks[0], tables.inks[1], narrow.data());
            } else if (bits >= 24) {
                kernels::AddColourInkRow(src, used, bits / 8, narrow.data());
            } else if (ramp) {
                kernels::AddBytesRow(src, used, true, narrow.data());
            } else {
                kernels::LookupRow(src, line.data(), static_cast<std::size_t>(used), tables.inks);
                kernels::AddBytesRow(line.data(), used, false, narrow.data());
            }
            if (++pending == kSixteenBitRows) carry();
        }
        if (pending > 0) carry();
        std::uint8_t *out = target.data() + static_cast<std::size_t>(j) * static_cast<std::size_t>(rw);
        for (int i = 0; i < rw; ++i) {
            std::uint32_t s = 0;
            const std::size_t at = static_cast<std::size_t>(i) * static_cast<std::size_t>(k);
            for (int dx = 0; dx < k; ++dx) s += columns[at + static_cast<std::size_t>(dx)];
            out[i] = static_cast<std::uint8_t>(s / area);
        }
    }
    return true;
}

PixelInks::PixelInks(const DibBlock &block) {
    if (!block.Readable()) return;
    block.GetSize(&width, &height);
    bits_ = block.GetBitCount();
    stride_ = DibRowStride(width, bits_);
    rows_ = block.GetBits();
    if (bits_ == 1 || bits_ == 4 || bits_ == 8) TableInks(block, bits_, inks_);
}

std::uint8_t PixelInks::at(int x, int y) const {
    const std::uint8_t *src = rows_ + static_cast<std::size_t>(height - 1 - y) * stride_;
    std::uint8_t ink = 0;
    InkTables::Sum sum;
    switch (bits_) {
    case 1: ink = inks_[(src[x >> 3] >> (7 - (x & 7))) & 1]; break;
    case 4: ink = inks_[(x & 1) ? (src[x >> 1] & 0x0F) : (src[x >> 1] >> 4)]; break;
    case 8: ink = inks_[src[x]]; break;
    case 16: {
        const unsigned word = src[2 * x] | (src[2 * x + 1] << 8);
        ink = sum((word & 0x1F) * 8 + ((word >> 5) & 0x1F) * 8 + ((word >> 10) & 0x1F) * 8);
        break;
    }
    case 24: ink = sum(src[3 * x] + src[3 * x + 1] + src[3 * x + 2]); break;
    case 32: ink = sum(src[4 * x] + src[4 * x + 1] + src[4 * x + 2]); break;
    default: break;
    }
    return ink;
}

// Counts per depth: 1-bit rows by population count, indexed rows by index
// (then folded through the table's inks), colour pixels by their B + G + R
// sum (then folded into inks); 8-bit rows by pairs of neighbours and colour
// rows by the row histogram kernel, both counting a run of equal values
// with one addition.
bool PageInkHistogram(const DibBlock &block, std::uint32_t count[256]) {
    std::memset(count, 0, 256 * sizeof count[0]);
    if (!block.Readable()) return false;
    std::int32_t w = 0, h = 0;
    block.GetSize(&w, &h);
    const int bits = block.GetBitCount();
    const std::size_t stride = DibRowStride(w, bits);
    const std::uint8_t *rows = block.GetBits();
    std::uint8_t bySum[766];
    for (unsigned s = 0; s < 766; ++s) bySum[s] = static_cast<std::uint8_t>(255 - s / 3);
    std::uint8_t inks[256];
    if (bits == 1 || bits == 4 || bits == 8) TableInks(block, bits, inks);
    std::uint32_t raw[4][256] = {};
    // Colour pixels are counted by their (B + G + R) sum, folded into inks
    // at the end.
    kernels::LevelCounter levels(bits == 8);
    const bool colour = bits == 24 || bits == 32;
    const std::unique_ptr<std::uint32_t[][766]> sums(colour ? new std::uint32_t[2][766]() : nullptr);
    for (int j = 0; j < h; ++j) {
        const std::uint8_t *src = rows + static_cast<std::size_t>(j) * stride;
        switch (bits) {
        case 1: {
            std::uint32_t ones = 0;
            const int whole = w >> 3;
            int i = 0;
            for (; i + 8 <= whole; i += 8) {
                std::uint64_t word;
                std::memcpy(&word, src + i, 8);
                ones += static_cast<std::uint32_t>(__builtin_popcountll(word));
            }
            for (; i < whole; ++i) ones += static_cast<std::uint32_t>(__builtin_popcount(src[i]));
            if (w & 7) ones += static_cast<std::uint32_t>(__builtin_popcount(src[whole] & (0xFF00u >> (w & 7)) & 0xFFu));
            raw[0][1] += ones;
            raw[0][0] += static_cast<std::uint32_t>(w) - ones;
            break;
        }
        case 4:
            for (int i = 0; i < w; ++i) ++raw[i & 3][(i & 1) ? (src[i >> 1] & 0x0F) : (src[i >> 1] >> 4)];
            break;
        case 8:
            levels.AddRow(src, w);
            break;
        case 16:
            for (int i = 0; i < w; ++i) {
                const unsigned word = src[2 * i] | (src[2 * i + 1] << 8);
                ++count[bySum[(word & 0x1F) * 8 + ((word >> 5) & 0x1F) * 8 + ((word >> 10) & 0x1F) * 8]];
            }
            break;
        case 24:
        case 32:
            kernels::CountSumsRow(src, w, bits / 8, sums.get());
            break;
        default:
            count[0] += static_cast<std::uint32_t>(w);
            break;
        }
    }
    if (colour)
        for (unsigned v = 0; v < 766; ++v) count[bySum[v]] += sums[0][v] + sums[1][v];
    levels.AddTo(raw[0]);
    const bool indexed = bits == 1 || bits == 4 || bits == 8;
    for (int v = 0; v < 256; ++v) {
        const std::uint32_t n = raw[0][v] + raw[1][v] + raw[2][v] + raw[3][v];
        count[indexed ? inks[v] : v] += n;
    }
    return true;
}

}  // namespace quarvel::skew
