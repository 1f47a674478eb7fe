// JudgeColorMode: whether a page needs colour (24), gray (8) or black and
// white (1).
//
// 1-bit pages answer 1 and indexed pages (4 and 8 bits) answer 8 without
// looking at their pixels; a block that is not a readable page (2-bit pages
// among them) answers 0, no mode. Pages of 16, 24 and 32 bits are judged by their
// own pixels (16-bit pixels decoded 5-5-5). A negative threshold scans the
// whole page: any pixel that is not neutral gray makes it colour; otherwise
// it is gray when it holds more mid-gray pixels than twice its dark ones. A
// threshold of 0 or more measures the density of coherent colour patches:
// distinctly coloured pixels that agree with their neighbours above and
// below, counted when they touch another such pixel in their column.
#include <algorithm>
#include <vector>

#include "colour/colour.h"
#include "frame/kernels.h"

namespace quarvel::colour {

namespace {

struct Bgr {
    int b, g, r;
};

// Reads pixel x of a stored row as (B, G, R).
class PixelReader {
public:
    explicit PixelReader(int bitCount) : bits_(bitCount) {}
    Bgr operator()(const std::uint8_t *row, int x) const {
        if (bits_ == 16) {
            const unsigned w = row[2 * x] | (row[2 * x + 1] << 8);
            return Bgr{static_cast<int>(w & 0x1F) * 8, static_cast<int>((w >> 5) & 0x1F) * 8,
                       static_cast<int>((w >> 10) & 0x1F) * 8};
        }
        const std::uint8_t *p = row + static_cast<std::size_t>(x) * (bits_ / 8);
        return Bgr{p[0], p[1], p[2]};
    }

private:
    int bits_;
};

int WholePageScan(const LockedDib &in) {
    const PixelReader read(in.bitCount());
    int mode = 1;
    long long dark = 0, mid = 0;
    for (int y = 0; y < in.height(); ++y) {
        const std::uint8_t *row = in.row(y);
        for (int x = 0; x < in.width(); ++x) {
            const Bgr p = read(row, x);
            if (p.b != p.g || p.g != p.r) return 24;
            if (p.b < 10) {
                ++dark;
            } else if (p.b <= 245) {
                ++mid;
                mode = 8;
            }
        }
    }
    if (mode == 8 && dark > mid / 2) mode = 1;
    return mode;
}

bool DistinctlyColoured(const Bgr &p) {
    const int mx = std::max({p.b, p.g, p.r}), mn = std::min({p.b, p.g, p.r});
    const int spread = mx - mn;
    return spread >= 80 || (mx >= 111 && spread >= 50) || (mx >= 111 && p.r == mx && spread >= 40);
}

bool NearWhite(const Bgr &p) { return p.b > 220 && p.g > 220 && p.r > 220; }

int Distance2(const Bgr &a, const Bgr &b) {
    return (a.b - b.b) * (a.b - b.b) + (a.g - b.g) * (a.g - b.g) + (a.r - b.r) * (a.r - b.r);
}

// The mask of coherent colour pixels is made one row at a time; a row is
// counted once the rows above and below it are known, so three rows of the
// mask are kept instead of the whole page.
int PatchDensity(const LockedDib &in, int colorThreshold) {
    const int w = in.width(), h = in.height();
    const PixelReader read(in.bitCount());
    const int mx = w / 100, my = h / 100;
    const int yFirst = std::max(my, 1), yLast = std::min(h - my, h - 2);
    const int xFirst = mx, xLast = std::min(w - mx, w - 1);
    auto maskRow = [&](int y, std::uint8_t *mask) {
        std::fill(mask, mask + w, 0);
        if (y < yFirst || y > yLast) return;
        const std::uint8_t *row = in.row(y), *next = in.row(y + 1), *prev = in.row(y - 1);
        // Every distinctly coloured pixel spreads its channels by 40 or more.
        const bool colour = in.bitCount() >= 24;
        for (int x = xFirst; x <= xLast; ++x) {
            if (colour && (x = kernels::NextSpread(row, x, xLast + 1, in.bitCount() / 8, 40)) > xLast) break;
            const Bgr p = read(row, x);
            if (!DistinctlyColoured(p)) continue;
            const Bgr n = read(next, x), q = read(prev, x);
            const bool nWhite = NearWhite(n), pWhite = NearWhite(q);
            const int dn = nWhite ? 0 : Distance2(p, n), dp = pWhite ? 0 : Distance2(p, q);
            if (!nWhite && dn >= 800) continue;
            if (std::max(dn, dp) < 800) mask[x] = 1;
        }
    };
    long long count = 0;
    if (yFirst <= yLast) {
        std::vector<std::uint8_t> above(static_cast<std::size_t>(w), 0), here(static_cast<std::size_t>(w)),
            below(static_cast<std::size_t>(w));
        maskRow(yFirst, here.data());
        for (int y = yFirst; y <= yLast; ++y) {
            maskRow(y + 1, below.data());
            for (int x = 0; x < w; ++x) count += here[x] & (above[x] | below[x]);
            std::swap(above, here);
            std::swap(here, below);
        }
    }
    const double area = static_cast<double>(w) * static_cast<double>(h);
    if (area <= 0) return 1;
    const double ratio = count * 10000.0 / area;
    return colorThreshold < ratio ? 24 : 1;
}

}  // namespace

int JudgeColorMode(HGLOBAL hDib, int colorThreshold) {
    LockedDib in(hDib, kAllDepths);
    if (!in.ok()) return 0;  // no mode for a block that is not a page
    switch (in.bitCount()) {
        case 1: return 1;
        case 4:
        case 8: return 8;
        default: break;
    }
    return colorThreshold < 0 ? WholePageScan(in) : PatchDensity(in, colorThreshold);
}

}  // namespace quarvel::colour
