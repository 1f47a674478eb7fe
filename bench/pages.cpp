#include "pages.h"

#include <cmath>
#include <cstdlib>
#include <map>
#include <mutex>

namespace qbench {

namespace {

bool Small() { return std::getenv("QUARVEL_BENCH_SMALL") != nullptr; }

int Stride(int width, int bitCount) { return (width * bitCount + 31) / 32 * 4; }

// Paper white, ink black: 1-bit pages use a dark-first table (1 = white).
HGLOBAL Build(int bitCount, bool framed) {
    const int w = PageWidth(), h = PageHeight();
    const int colors = bitCount <= 8 ? 1 << bitCount : 0;
    const int stride = Stride(w, bitCount);
    HGLOBAL page = GlobalAlloc(GHND, 40 + 4 * colors + static_cast<std::size_t>(stride) * h);
    auto *p = static_cast<std::uint8_t *>(GlobalLock(page));
    auto *hdr = reinterpret_cast<BITMAPINFOHEADER *>(p);
    hdr->biSize = 40;
    hdr->biWidth = w;
    hdr->biHeight = h;
    hdr->biPlanes = 1;
    hdr->biBitCount = static_cast<WORD>(bitCount);
    hdr->biSizeImage = static_cast<DWORD>(stride * h);
    hdr->biXPelsPerMeter = hdr->biYPelsPerMeter = 11811;
    auto *table = reinterpret_cast<RGBQUAD *>(p + 40);
    for (int i = 0; i < colors; ++i) {
        const auto v = static_cast<BYTE>(i * 255 / (colors - 1));
        table[i] = RGBQUAD{v, v, v, 0};
    }
    std::uint8_t *bits = p + 40 + 4 * colors;
    const double s = std::sin(1.5 * 0.0174532925), c = std::cos(1.5 * 0.0174532925);
    const int margin = w / 12;
    for (int y = 0; y < h; ++y) {
        std::uint8_t *row = bits + static_cast<std::size_t>(y) * stride;
        for (int x = 0; x < w; ++x) {
            int v = 250;
            // Lines of text-like marks: 28-pixel rows of words, 60-pixel pitch.
            const int ty = h - 1 - y;
            if (ty > margin && ty < h - margin && x > margin && x < w - margin && ty % 60 < 28 &&
                (x / 9) % 7 != 0 && ((x * 7 + ty * 3) % 11) < 6) {
                v = 20;
            }
            if (framed) {
                // Turn the sheet by 1.5 degrees inside a dark frame of 5%.
                const double cx = x - w / 2.0, cy = y - h / 2.0;
                const double u = c * cx - s * cy, t = s * cx + c * cy;
                if (std::fabs(u) > w * 0.45 || std::fabs(t) > h * 0.45) v = 15;
            }
            switch (bitCount) {
                case 1:
                    if (v > 128) row[x >> 3] |= static_cast<std::uint8_t>(0x80 >> (x & 7));
                    break;
                case 8: row[x] = static_cast<std::uint8_t>(v); break;
                default: {
                    std::uint8_t *px = row + x * (bitCount / 8);
                    px[0] = px[1] = px[2] = static_cast<std::uint8_t>(v);
                    if (v < 128 && x % 97 < 20) px[2] = 200;  // some red marks
                    break;
                }
            }
        }
    }
    GlobalUnlock(page);
    return page;
}

HGLOBAL Cached(int bitCount, bool framed) {
    static std::mutex mutex;
    static std::map<std::pair<int, bool>, HGLOBAL> pages;
    std::lock_guard<std::mutex> guard(mutex);
    HGLOBAL &page = pages[{bitCount, framed}];
    if (page == nullptr) page = Build(bitCount, framed);
    return page;
}

}  // namespace

int PageWidth() { return Small() ? 248 : 2480; }
int PageHeight() { return Small() ? 351 : 3508; }

HGLOBAL A4Page(int bitCount) { return Cached(bitCount, false); }
HGLOBAL FramedPage(int bitCount) { return Cached(bitCount, true); }

std::size_t PixelBytes(HGLOBAL page) {
    const auto *h = static_cast<const BITMAPINFOHEADER *>(GlobalLock(page));
    const std::size_t n = static_cast<std::size_t>(Stride(h->biWidth, h->biBitCount)) * h->biHeight;
    GlobalUnlock(page);
    return n;
}

}  // namespace qbench
