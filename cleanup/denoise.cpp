// Denoise and DenoiseRect. Bitonal and gray pages go through EraseSpecks on
// an inverted gray copy (so specks are bright on dark paper); colour pages
// are smoothed with the 5 x 5 Gaussian for a speck size above 3, else the
// 3 x 3 one. DenoiseRect confines the work to a rectangle (rows counted
// from the top), clipped to the page; outside it the result is the input.
#include <algorithm>

#include "cleanup/cleanup.h"
#include "frame/convert.h"
#include "frame/view.h"
#include "platform/rect.h"

namespace quarvel::cleanup {

namespace {

inline bool Above(const std::uint8_t *row, int x, int width, int t) { return x >= 0 && x < width && row[x] > t; }

}  // namespace

void EraseSpecks(std::uint8_t *rows, int width, int height, int stride, RECT area, int n) {
    if (rows == nullptr || n < 1) return;
    const RECT inner{n, n, width - n, height - n};
    RECT a;
    if (!IntersectRect(&a, &area, &inner)) return;
    auto row = [&](int y) { return rows + static_cast<std::ptrdiff_t>(y) * stride; };
    for (int y = a.top; y < a.bottom; ++y) {
        std::uint8_t *cur = row(y);
        const std::uint8_t *prev = row(y - 1);
        for (int x = a.left; x < a.right; ++x) {
            const int v = cur[x], left = cur[x - 1], under = prev[x];
            if (v - left <= 100 || v - under <= 100) continue;
            const int t = v - 100;
            // First row: the run of speck pixels with dark pixels under it.
            int k = 0;
            while (k < n && cur[x + k + 1] > t && prev[x + k + 1] < t) ++k;
            if (k == n || prev[x + k + 1] >= t) continue;
            // Following rows: grow the span until a row closes it.
            int lo = 0, hi = k;
            for (int r = 0; r < n; ++r) {
                const std::uint8_t *next = row(y + 1 + r);
                while (hi - lo <= n && Above(next, x + lo - 1, width, t)) --lo;
                while (hi - lo <= n && Above(next, x + hi + 1, width, t)) ++hi;
                if (hi - lo > n) break;  // too wide for a speck
                bool closed = true;
                for (int i = lo; i <= hi && closed; ++i) closed = next[x + i] < t;
                if (closed) {
                    for (int yy = y; yy <= y + r; ++yy)
                        std::fill(row(yy) + x + lo, row(yy) + x + hi + 1, static_cast<std::uint8_t>(left));
                    break;
                }
            }
        }
    }
}

namespace {

HGLOBAL Clean(HGLOBAL hDib, const RECT *area, int n) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in);
    if (!view || !out) return nullptr;
    const int w = in.width(), h = in.height();
    RECT work{0, 0, w, h};
    if (area != nullptr) {
        const RECT asked = FlipRows(*area, h);
        if (!IntersectRect(&work, &asked, &work)) work = RECT{0, 0, 0, 0};
    }

    if (in.bitCount() >= 24) {
        const int filter = n > 3 ? IPL_GAUSSIAN_5x5 : IPL_GAUSSIAN_3x3;
        if (area == nullptr) {
            iplFixedFilter(view.get(), out.image(), filter);
            return out.Release();
        }
        iplCopy(view.get(), out.image());
        if (IsRectEmpty(&work)) return out.Release();
        RoiPtr roi(iplCreateROI(0, work.left, work.top, work.right - work.left, work.bottom - work.top));
        if (!roi) return nullptr;
        {
            RoiScope a(view.get(), roi.get()), b(out.image(), roi.get());
            iplFixedFilter(view.get(), out.image(), filter);
        }  // the regions come off before the block is handed over
        return out.Release();
    }

    ImagePtr gray = MakeGrayImage(view.get(), nullptr, in.header());
    if (!gray) return nullptr;
    iplNot(gray.get(), gray.get());
    EraseSpecks(reinterpret_cast<std::uint8_t *>(gray->imageData), w, h, gray->widthStep, work, n);
    if (in.bitCount() == 8) {
        iplNot(gray.get(), out.image());
        return out.Release();
    }
    // Ink is bright in the inverted copy: bit 1 is ink after the threshold;
    // a page whose entry 0 is dark keeps its own meaning of the bits.
    iplThreshold(gray.get(), out.image(), 127);
    const RGBQUAD *table = in.colorTable();
    if (table[0].rgbBlue < 127) iplNot(out.image(), out.image());
    return out.Release();
}

}  // namespace

HGLOBAL Denoise(HGLOBAL hDib, int nSize) { return Clean(hDib, nullptr, nSize); }

HGLOBAL DenoiseRect(HGLOBAL hDib, const RECT *area, int nSize) {
    if (area == nullptr) return nullptr;
    return Clean(hDib, area, nSize);
}

}  // namespace quarvel::cleanup
