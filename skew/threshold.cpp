// Binarisation thresholds from a region's histogram of ink values: Otsu's
// maximum between-class variance and Ridler and Calvard's iterative
// selection (the threshold halfway between the means of the two classes it
// makes). One pass builds the histogram; the rest works on 256 bins, on the
// stack.
#include <cstring>

#include "platform/rect.h"
#include "skew/skew.h"

namespace quarvel::skew {

namespace {

// The region as used: an empty rectangle stands for the whole raster; any
// other is clipped to the raster so that no read leaves it.
RECT EffectiveRegion(const PageRaster &raster, RECT region) {
    RECT whole;
    SetRect(&whole, 0, 0, raster.width, raster.height);
    if (IsRectEmpty(&region)) return whole;
    RECT clipped;
    if (!IntersectRect(&clipped, &region, &whole)) SetRect(&clipped, 0, 0, 0, 0);
    return clipped;
}

void Histogram(const PageRaster &raster, const RECT &r, std::uint32_t count[256]) {
    std::memset(count, 0, 256 * sizeof count[0]);
    for (int y = r.top; y < r.bottom; ++y) {
        const std::uint8_t *row = raster.data() + static_cast<std::size_t>(y) * static_cast<std::size_t>(raster.width);
        for (int x = r.left; x < r.right; ++x) ++count[row[x]];
    }
}

}  // namespace

std::uint8_t OtsuThreshold(const PageRaster &raster, RECT region) {
    const RECT r = EffectiveRegion(raster, region);
    std::uint32_t count[256];
    Histogram(raster, r, count);
    return OtsuThreshold(count, static_cast<double>(r.bottom - r.top) * static_cast<double>(r.right - r.left));
}

std::uint8_t OtsuThreshold(const std::uint32_t count[256], double n) {
    if (n <= 0) return 0;

    double p[256], omega[256], mu[256];
    for (int i = 0; i < 256; ++i) p[i] = count[i] / n;
    omega[0] = p[0];
    mu[0] = 0;
    for (int i = 1; i < 256; ++i) {
        omega[i] = omega[i - 1] + p[i];
        mu[i] = mu[i - 1] + i * p[i];
    }
    const double muT = mu[255];
    double best = 0.0;
    int k = 0;
    for (int i = 0; i < 255; ++i) {
        double sigma = 0;
        if (omega[i] != 0.0 && omega[i] != 1.0) {
            const double d = muT * omega[i] - mu[i];
            sigma = d * d / ((1 - omega[i]) * omega[i]);
        }
        if (sigma > best) {  // strictly greater: the first maximum wins a tie
            best = sigma;
            k = i;
        }
    }
    return static_cast<std::uint8_t>(k);
}

std::uint8_t RidlerCalvardThreshold(const PageRaster &raster, RECT region) {
    const RECT r = EffectiveRegion(raster, region);
    std::uint32_t count[256];
    Histogram(raster, r, count);
    return RidlerCalvardThreshold(count);
}

std::uint8_t RidlerCalvardThreshold(const std::uint32_t count[256]) {
    double s0 = 0, s1 = 0;
    for (int i = 0; i < 256; ++i) {
        s0 += count[i];
        s1 += static_cast<double>(static_cast<std::uint32_t>(i) * count[i]);
    }
    if (s0 < 1.0) return 128;

    int t = static_cast<int>(s1 / s0 + 0.5);
    // Each round moves t to the midpoint of the class means. On real
    // histograms it settles within a few rounds; 256 rounds bound a threshold
    // that alternates between two values (the later one is kept).
    for (int round = 0; round < 256; ++round) {
        double a0 = 0, b0 = 0, a1 = 0, b1 = 0;
        for (int i = 0; i <= t; ++i) {
            a0 += count[i];
            b0 += static_cast<double>(static_cast<std::uint32_t>(i) * count[i]);
        }
        for (int i = t + 1; i < 256; ++i) {
            a1 += count[i];
            b1 += static_cast<double>(static_cast<std::uint32_t>(i) * count[i]);
        }
        const double mu0 = a0 > 0.9 ? b0 / a0 : t;
        const double mu1 = (t + 1 > 255 || a1 <= 0.9) ? t : b1 / a1;
        const int next = static_cast<int>((mu0 + mu1 + 1.0) * 0.5);
        if (next == t) break;
        t = next;
    }
    return static_cast<std::uint8_t>(t);
}

}  // namespace quarvel::skew
