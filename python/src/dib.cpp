// Conversions between packed DIB pages and NumPy arrays. DIB rows are stored
// bottom row first, padded to four bytes, colour as B, G, R (and a fourth
// byte at 32 bits); arrays are top row first, colour as R, G, B (and alpha),
// as Pillow and scikit-image hold them. 1-bit pages map to bool arrays with
// True for white (Pillow's mode "1"): the bit of a page whose table lists
// black then white is the array value itself; for a table listing white
// first, the bit is complemented. Colour rows are swapped through OpenCV's
// channel conversion, one row at a time, so the vertical flip costs nothing.
// 1-bit rows move eight pixels at a time (a table of eight bools per byte one
// way, a multiply that gathers eight bytes' low bits the other); strided
// arrays and row tails take the plain per-pixel loop, which the round-trip
// tests run beside the fast one.
#include "dib.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <opencv2/imgproc.hpp>

namespace qpy {

namespace {

constexpr std::size_t kHeader = 40;

int Luma(const RGBQUAD &c) {
    return (c.rgbRed * 299 + c.rgbGreen * 587 + c.rgbBlue * 114 + 500) / 1000;
}

class Lock {
public:
    explicit Lock(HGLOBAL h) : h_(h), p_(static_cast<std::uint8_t *>(GlobalLock(h))) {}
    ~Lock() {
        if (p_ != nullptr) GlobalUnlock(h_);
    }
    Lock(const Lock &) = delete;
    Lock &operator=(const Lock &) = delete;
    std::uint8_t *get() const { return p_; }

private:
    HGLOBAL h_;
    std::uint8_t *p_;
};

const RGBQUAD *Table(const std::uint8_t *block) {
    return reinterpret_cast<const RGBQUAD *>(block + kHeader);
}

const std::uint8_t *StoredRow(const std::uint8_t *block, const DibLayout &l, int storedRow) {
    return block + kHeader + 4 * std::size_t{l.colors} + static_cast<std::size_t>(storedRow) * l.stride;
}

// The palette index that reads as white in a 1-bit page: the lighter entry
// (the second on a tie, as in a black-then-white table).
int WhiteIndex(const std::uint8_t *block, const DibLayout &l) {
    if (l.colors < 2) return 1;
    const RGBQUAD *t = Table(block);
    return Luma(t[0]) > Luma(t[1]) ? 0 : 1;
}

// Calls row(y) for every row, in bands of rows spread over OpenCV's threads
// (the library's own operations run there too): a page's conversion then
// takes a fraction of the operation's time.
template <class F>
void ForRows(std::int64_t height, F row) {
    cv::parallel_for_(
        cv::Range(0, static_cast<int>(height)),
        [&](const cv::Range &r) {
            for (int y = r.start; y < r.end; ++y) row(y);
        },
        std::max(1.0, static_cast<double>(height) / 128));
}

// Eight bools (bytes 0 or 1, first pixel first) per packed byte, most
// significant bit first, complemented when `flip`.
struct UnpackTable {
    std::uint64_t bytes[256];
    explicit UnpackTable(std::uint8_t flip) {
        for (int b = 0; b < 256; ++b) {
            std::uint8_t v[8];
            for (int k = 0; k < 8; ++k) v[k] = static_cast<std::uint8_t>(((b >> (7 - k)) & 1) ^ flip);
            std::memcpy(&bytes[b], v, 8);
        }
    }
};

// Eight bytes (any non-zero is set) to one byte, the first byte in the top
// bit. Each non-zero byte becomes 0x01; the multiply by 0x8040201008040201
// moves byte i's bit to bit 63 - i, and no two partial products share a bit,
// so nothing carries into the top byte.
inline std::uint8_t PackEight(const std::uint8_t *src) {
    std::uint64_t v;
    std::memcpy(&v, src, 8);
    v = ((((v & 0x7F7F7F7F7F7F7F7FULL) + 0x7F7F7F7F7F7F7F7FULL) | v) >> 7) & 0x0101010101010101ULL;
    return static_cast<std::uint8_t>((v * 0x8040201008040201ULL) >> 56);
}

}  // namespace

double DpiOf(std::int32_t pelsPerMeter) {
    if (pelsPerMeter <= 0) return 0.0;
    const double dpi = pelsPerMeter * 0.0254;
    // 300 dpi is stored as 11811 pels per meter, which reads back as 299.9994.
    const double whole = std::round(dpi);
    return std::lround(whole / 0.0254) == pelsPerMeter ? whole : dpi;
}

std::int32_t PelsPerMeter(double dpi) {
    if (!(dpi > 0) || dpi > 1e6) return 0;
    return static_cast<std::int32_t>(std::lround(dpi / 0.0254));
}

DibLayout LayoutOf(HGLOBAL h) {
    DibLayout l;
    Lock lock(h);
    const std::size_t size = GlobalSize(h);
    if (lock.get() == nullptr || size < kHeader) return l;
    BITMAPINFOHEADER hd;
    std::memcpy(&hd, lock.get(), sizeof hd);
    const int bits = hd.biBitCount;
    if (hd.biWidth <= 0 || hd.biHeight <= 0 || hd.biCompression != 0) return l;
    if (bits != 1 && bits != 4 && bits != 8 && bits != 24 && bits != 32) return l;
    const std::uint64_t colors = hd.biClrUsed != 0 ? hd.biClrUsed : (bits <= 8 ? 1u << bits : 0);
    if (colors > 256) return l;
    const std::uint64_t stride = (static_cast<std::uint64_t>(hd.biWidth) * bits + 31) / 32 * 4;
    if (kHeader + 4 * colors + stride * static_cast<std::uint64_t>(hd.biHeight) > size) return l;
    l.width = hd.biWidth;
    l.height = hd.biHeight;
    l.bits = bits;
    l.stride = static_cast<std::size_t>(stride);
    l.colors = static_cast<std::uint32_t>(colors);
    l.xPelsPerMeter = hd.biXPelsPerMeter;
    l.yPelsPerMeter = hd.biYPelsPerMeter;
    l.ok = true;
    return l;
}

Kind ArrayKindOf(HGLOBAL h, const DibLayout &l) {
    if (l.bits == 1) return Kind::kBool;
    if (l.bits == 24) return Kind::kRgb;
    if (l.bits == 32) return Kind::kRgba;
    Lock lock(h);
    const RGBQUAD *t = Table(lock.get());
    for (std::uint32_t i = 0; i < l.colors; ++i)
        if (t[i].rgbRed != t[i].rgbGreen || t[i].rgbGreen != t[i].rgbBlue) return Kind::kRgb;
    return Kind::kGray;
}

void DibToArray(HGLOBAL h, const DibLayout &l, Kind kind, std::uint8_t *out) {
    Lock lock(h);
    const std::uint8_t *block = lock.get();
    const std::size_t w = static_cast<std::size_t>(l.width);
    if (l.bits == 1) {
        const std::uint8_t flip = WhiteIndex(block, l) == 1 ? 0 : 1;
        const UnpackTable table(flip);
        ForRows(l.height, [&](int y) {
            const std::uint8_t *r = StoredRow(block, l, l.height - 1 - y);
            std::uint8_t *o = out + y * w;
            std::size_t x = 0;
            for (; x + 8 <= w; x += 8) std::memcpy(o + x, &table.bytes[r[x >> 3]], 8);
            for (; x < w; ++x) o[x] = static_cast<std::uint8_t>(((r[x >> 3] >> (7 - (x & 7))) & 1) ^ flip);
        });
        return;
    }
    if (l.bits == 24 || l.bits == 32) {
        const int channels = l.bits / 8;
        ForRows(l.height, [&](int y) {
            const cv::Mat src(1, l.width, CV_8UC(channels),
                              const_cast<std::uint8_t *>(StoredRow(block, l, l.height - 1 - y)));
            cv::Mat dst(1, l.width, CV_8UC(channels), out + y * w * channels);
            cv::cvtColor(src, dst, channels == 3 ? cv::COLOR_BGR2RGB : cv::COLOR_BGRA2RGBA);
        });
        return;
    }
    // Palette pages (4 and 8 bits): look every index up; indices past the
    // table read as black.
    const RGBQUAD *t = Table(block);
    std::uint8_t lut[256][3] = {};
    bool identity = l.bits == 8 && kind == Kind::kGray && l.colors == 256;
    for (std::uint32_t i = 0; i < l.colors; ++i) {
        lut[i][0] = t[i].rgbRed, lut[i][1] = t[i].rgbGreen, lut[i][2] = t[i].rgbBlue;
        identity = identity && t[i].rgbRed == i;
    }
    ForRows(l.height, [&](int y) {
        const std::uint8_t *r = StoredRow(block, l, l.height - 1 - y);
        if (identity) {
            std::memcpy(out + y * w, r, w);
            return;
        }
        for (std::size_t x = 0; x < w; ++x) {
            const int index = l.bits == 8 ? r[x] : (r[x >> 1] >> ((x & 1) ? 0 : 4)) & 15;
            if (kind == Kind::kGray)
                out[y * w + x] = lut[index][0];
            else
                std::memcpy(out + (y * w + x) * 3, lut[index], 3);
        }
    });
}

Dib ArrayToDib(const ArrayView &a, double dpiX, double dpiY) {
    const int bits = a.kind == Kind::kBool ? 1 : a.kind == Kind::kGray ? 8 : a.kind == Kind::kRgb ? 24 : 32;
    const std::uint32_t colors = bits == 1 ? 2 : bits == 8 ? 256 : 0;
    const std::size_t stride = (static_cast<std::size_t>(a.width) * bits + 31) / 32 * 4;
    Dib page(GlobalAlloc(GHND, kHeader + 4 * colors + stride * static_cast<std::size_t>(a.height)));
    Lock lock(page.get());
    std::uint8_t *block = lock.get();
    if (block == nullptr) return Dib(nullptr);
    BITMAPINFOHEADER hd{};
    hd.biSize = 40;
    hd.biWidth = static_cast<LONG>(a.width);
    hd.biHeight = static_cast<LONG>(a.height);
    hd.biPlanes = 1;
    hd.biBitCount = static_cast<WORD>(bits);
    hd.biSizeImage = static_cast<DWORD>(stride * a.height);
    hd.biXPelsPerMeter = PelsPerMeter(dpiX);
    hd.biYPelsPerMeter = PelsPerMeter(dpiY);
    hd.biClrUsed = colors;
    std::memcpy(block, &hd, sizeof hd);
    auto *table = reinterpret_cast<RGBQUAD *>(block + kHeader);
    for (std::uint32_t i = 0; i < colors; ++i) {
        const BYTE v = static_cast<BYTE>(bits == 1 ? 255 * i : i);
        table[i] = RGBQUAD{v, v, v, 0};
    }
    std::uint8_t *rows = block + kHeader + 4 * colors;
    const std::size_t w = static_cast<std::size_t>(a.width);
    ForRows(a.height, [&](std::int64_t y) {
        const std::uint8_t *src = a.data + y * a.rowStride;
        std::uint8_t *dst = rows + static_cast<std::size_t>(a.height - 1 - y) * stride;
        if (bits == 1) {
            std::size_t x = 0;
            if (a.colStride == 1)
                for (; x + 8 <= w; x += 8) dst[x >> 3] = PackEight(src + x);
            for (; x < w; ++x)
                if (src[x * a.colStride] != 0) dst[x >> 3] |= static_cast<std::uint8_t>(0x80 >> (x & 7));
        } else if (bits == 8) {
            if (a.colStride == 1)
                std::memcpy(dst, src, w);
            else
                for (std::size_t x = 0; x < w; ++x) dst[x] = src[x * a.colStride];
        } else {
            const int channels = bits / 8;
            if (a.colStride == channels && a.channelStride == 1) {
                const cv::Mat s(1, a.width, CV_8UC(channels), const_cast<std::uint8_t *>(src));
                cv::Mat d(1, a.width, CV_8UC(channels), dst);
                cv::cvtColor(s, d, channels == 3 ? cv::COLOR_RGB2BGR : cv::COLOR_RGBA2BGRA);
            } else {
                static constexpr int kOrder[4] = {2, 1, 0, 3};
                for (std::size_t x = 0; x < w; ++x)
                    for (int c = 0; c < channels; ++c)
                        dst[x * channels + kOrder[c]] = src[x * a.colStride + c * a.channelStride];
            }
        }
    });
    return page;
}

}  // namespace qpy
