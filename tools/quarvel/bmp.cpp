// BMP files, read and written directly: 1-, 4-, 8-, 16-, 24- and 32-bit
// pages, bottom-up or top-down, BI_RGB and BI_BITFIELDS. The pixel data the
// header claims must be in the file byte for byte before a page is allocated.
#include "format_io.h"

#include <cstring>

namespace qtool::detail {

namespace {

int LowBit(std::uint32_t m) {
    return m == 0 ? 0 : __builtin_ctz(m);
}

std::uint8_t MaskedLevel(std::uint32_t v, std::uint32_t mask) {
    if (mask == 0) return 0;
    const std::uint32_t top = mask >> LowBit(mask);
    return static_cast<std::uint8_t>(((v & mask) >> LowBit(mask)) * 255u / top);
}

}  // namespace

std::vector<Page> ReadBmp(const std::string &path, const std::vector<std::uint8_t> &f) {
    if (f.size() < 54) throw FormatError(path + ": truncated BMP file");
    auto u32 = [&](std::size_t o) {
        std::uint32_t v;
        std::memcpy(&v, &f[o], 4);
        return v;
    };
    const std::uint32_t offBits = u32(10), hdrSize = u32(14);
    if (hdrSize < 40 || hdrSize > f.size() - 14) throw FormatError(path + ": unsupported BMP header");
    BITMAPINFOHEADER h;
    std::memcpy(&h, &f[14], 40);
    const int bits = h.biBitCount;
    const bool fields = h.biCompression == 3 && (bits == 16 || bits == 32);
    if (h.biCompression != 0 && !fields) throw FormatError(path + ": compressed BMP files are not supported");
    if (bits != 1 && bits != 2 && bits != 4 && bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw FormatError(path + ": unsupported BMP depth " + std::to_string(bits));
    const bool topDown = h.biHeight < 0;
    const long long w = h.biWidth, hh = topDown ? -static_cast<long long>(h.biHeight) : h.biHeight;
    CheckSize(w, hh, path);
    std::uint32_t masks[3] = {0x7C00, 0x03E0, 0x001F};  // red, green, blue of 16-bit pages
    std::size_t tableAt = 14 + hdrSize;
    if (fields) {
        const std::size_t at = hdrSize >= 52 ? 54 : 14 + hdrSize;
        if (at + 12 > f.size()) throw FormatError(path + ": truncated BMP header");
        for (int k = 0; k < 3; ++k) masks[k] = u32(at + 4 * k);
        if (hdrSize < 52) tableAt += 12;
    }
    const std::uint32_t full = bits <= 8 ? 1u << bits : 0;
    const std::uint32_t colors = bits <= 8 ? (h.biClrUsed != 0 ? h.biClrUsed : full) : 0;
    if (colors > full) throw FormatError(path + ": bad BMP colour table");
    if (tableAt + 4ull * colors > f.size()) throw FormatError(path + ": truncated BMP colour table");
    std::vector<RGBQUAD> table(colors);
    if (colors) std::memcpy(table.data(), &f[tableAt], 4 * colors);
    const std::size_t stride = ((static_cast<std::size_t>(w) * bits + 31) / 32) * 4;
    if (offBits > f.size() || stride * hh > f.size() - offBits) Implausible(path, w, hh, f.size());
    const int pageBits = bits == 2 || bits == 4 ? 8 : bits == 16 ? 24 : bits;
    if (pageBits == 8) table.resize(256, RGBQUAD{0, 0, 0, 0});
    if (pageBits == 1) table.resize(2, RGBQUAD{0, 0, 0, 0});
    Page page = NewPage(static_cast<int>(w), static_cast<int>(hh), pageBits, table, DpiOf(h.biXPelsPerMeter),
                        DpiOf(h.biYPelsPerMeter));
    if (!page) throw FormatError(path + ": out of memory");
    {
        Locked p(page.get());
        for (long long y = 0; y < hh; ++y) {
            const std::uint8_t *s = &f[offBits + (topDown ? hh - 1 - y : y) * stride];
            std::uint8_t *d = p.row(static_cast<int>(y));
            if (bits == pageBits) {
                std::memcpy(d, s, stride);
            } else if (bits == 16) {
                for (long long x = 0; x < w; ++x, d += 3) {
                    const std::uint32_t v = s[2 * x] | s[2 * x + 1] << 8;
                    d[0] = MaskedLevel(v, masks[2]), d[1] = MaskedLevel(v, masks[1]), d[2] = MaskedLevel(v, masks[0]);
                }
            } else {
                const int per = 8 / bits;
                for (long long x = 0; x < w; ++x)
                    d[x] = static_cast<std::uint8_t>((s[x / per] >> (8 - bits * (x % per + 1))) & ((1 << bits) - 1));
            }
        }
    }
    return One(pageBits == 8 ? ThroughPalette(std::move(page), path) : std::move(page));
}

std::vector<std::uint8_t> EncodeBmp(const Page &page) {
    Locked p(page.get());
    const std::size_t dib = 40 + 4 * p.colors() + static_cast<std::size_t>(p.stride()) * p.height();
    std::vector<std::uint8_t> out(14 + dib);
    const std::uint32_t size = static_cast<std::uint32_t>(out.size()),
                        off = static_cast<std::uint32_t>(14 + 40 + 4 * p.colors());
    out[0] = 'B', out[1] = 'M';
    std::memcpy(&out[2], &size, 4);
    std::memcpy(&out[10], &off, 4);
    std::memcpy(&out[14], p.header(), dib);
    const std::uint32_t headerSize = 40;
    std::memcpy(&out[14], &headerSize, 4);
    return out;
}

}  // namespace qtool::detail
