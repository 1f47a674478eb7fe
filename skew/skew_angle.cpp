// Skew detection by projection energy. The page's ink is summed along
// families of parallel sheared rows; the sum of squares of those row sums
// (the skew score) peaks when the rows follow the text lines. The search
// brackets the peak in 5-degree steps within +-30 degrees, then narrows it by
// parabolic interpolation until the estimate moves by 0.01 degree or less. A
// bracket that reaches +-30 degrees turns the page by that bound and searches
// again. The search runs on a block-averaged copy of about 500 rows.
//
// Profiles, scores and angles are single-precision floats throughout, and
// the score is accumulated in row order, so the same page always gives the
// same angle.
#include <algorithm>
#include <cmath>
#include <cstring>
#include <vector>

#include "frame/round.h"
#include "platform/rect.h"
#include "skew/skew.h"

namespace quarvel::skew {

namespace {

constexpr double kRadiansPerDegree = 0.0174532925;
// A bracket at +-30 degrees turns the page by 30 degrees and searches again;
// twelve turns make a full circle, beyond which a page with no peak is
// measured where it stands.
constexpr int kMaxRepeatedSearches = 12;
// The re-bracketing walk moves by the bracket spacing; real pages stop after
// a few steps.
constexpr int kMaxRebracketSteps = 400;

}  // namespace

void ReduceRaster(PageRaster &target, const PageRaster &source, RECT region, int bw, int bh) {
    if (bw <= 0 || bh <= 0) {
        target.Resize(0, 0);
        return;
    }
    RECT whole, r;
    SetRect(&whole, 0, 0, source.width, source.height);
    if (!IntersectRect(&r, &region, &whole)) SetRect(&r, 0, 0, 0, 0);
    const int w = (r.right - r.left) / bw;
    const int h = (r.bottom - r.top) / bh;
    if (!target.Resize(w, h) || w <= 0 || h <= 0) return;

    const unsigned area = static_cast<unsigned>(bw) * static_cast<unsigned>(bh);
    std::vector<std::uint32_t> sums(static_cast<std::size_t>(w));
    for (int j = 0; j < h; ++j) {
        std::fill(sums.begin(), sums.end(), 0u);
        for (int dy = 0; dy < bh; ++dy) {
            const std::uint8_t *row = source.data() +
                                      static_cast<std::size_t>(r.top + j * bh + dy) * static_cast<std::size_t>(source.width) +
                                      r.left;
            for (int i = 0; i < w; ++i) {
                const std::uint8_t *p = row + static_cast<std::size_t>(i) * bw;
                std::uint32_t s = 0;
                for (int dx = 0; dx < bw; ++dx) s += p[dx];
                sums[i] += s;
            }
        }
        std::uint8_t *out = target.data() + static_cast<std::size_t>(j) * static_cast<std::size_t>(w);
        for (int i = 0; i < w; ++i) out[i] = static_cast<std::uint8_t>(sums[i] / area);
    }
}

void ShearedRowProfile(const PageRaster &raster, RECT region, float *profile, float slope) {
    RECT whole, r;
    SetRect(&whole, 0, 0, raster.width, raster.height);
    if (!IntersectRect(&r, &region, &whole)) SetRect(&r, 0, 0, 0, 0);
    const int requested = region.bottom - region.top;
    if (requested <= 0) return;
    const int rows = r.bottom - r.top;
    const int above = std::clamp(r.top - region.top, 0, requested);
    const int used = std::clamp(rows, 0, requested - above);
    for (int i = 0; i < above; ++i) profile[i] = 0.0f;
    for (int i = above + used; i < requested; ++i) profile[i] = 0.0f;
    if (used <= 0 || r.right <= r.left) {
        for (int i = above; i < above + std::max(used, 0); ++i) profile[i] = 0.0f;
        return;
    }

    // Column x enters entry i at stored row top + (offset(x) + i) mod rows, so
    // a pixel at region row y feeds entry (y - offset(x)) mod rows. Walking
    // the raster row by row keeps the reads sequential; the sums are whole
    // numbers, exact in 64 bits and in a float while below 2^24.
    const float cx = (region.left + region.right) * 0.5f;
    const int cols = r.right - r.left;
    std::vector<int> offset(static_cast<std::size_t>(cols));
    for (int c = 0; c < cols; ++c) {
        const int x = r.left + c;
        const int shift = RoundToInt((static_cast<double>(x) - static_cast<double>(cx)) * static_cast<double>(slope));
        int o = shift % rows;
        if (o < 0) o += rows;
        offset[c] = o;
    }
    std::vector<std::uint64_t> sums(static_cast<std::size_t>(rows), 0);
    for (int y = 0; y < rows; ++y) {
        const std::uint8_t *row =
            raster.data() + static_cast<std::size_t>(r.top + y) * static_cast<std::size_t>(raster.width) + r.left;
        for (int c = 0; c < cols; ++c) {
            int e = y - offset[c];
            if (e < 0) e += rows;
            sums[e] += row[c];
        }
    }
    for (int i = 0; i < used; ++i) profile[above + i] = static_cast<float>(sums[i]);
}

void RotateRaster(PageRaster &raster, double angle, int cx, int cy) {
    if (std::fabs(angle) < 0.05) return;
    const int w = raster.width, h = raster.height;
    if (w <= 0 || h <= 0) return;
    const double theta = angle * kRadiansPerDegree;
    const double c = std::cos(theta), s = std::sin(theta);
    auto srcX = [&](double x, double y) { return cx + (x - cx) * c + (y - cy) * s; };
    auto srcY = [&](double x, double y) { return cy - (x - cx) * s + (y - cy) * c; };
    const double xs[4] = {srcX(0, 0), srcX(w, 0), srcX(0, h), srcX(w, h)};
    const double ys[4] = {srcY(0, 0), srcY(w, 0), srcY(0, h), srcY(w, h)};
    const int x0 = static_cast<int>(std::min({xs[0], xs[1], xs[2], xs[3], 0.0}) - 1);
    const int y0 = static_cast<int>(std::min({ys[0], ys[1], ys[2], ys[3], 0.0}) - 1);
    const int cw = static_cast<int>(std::max({xs[0], xs[1], xs[2], xs[3], static_cast<double>(w)}) - x0 + 2);
    const int ch = static_cast<int>(std::max({ys[0], ys[1], ys[2], ys[3], static_cast<double>(h)}) - y0 + 2);

    // The page on a white canvas, so that positions outside it read white.
    std::vector<std::uint8_t> canvas(static_cast<std::size_t>(cw) * static_cast<std::size_t>(ch), 0);
    for (int y = 0; y < h; ++y)
        std::memcpy(&canvas[static_cast<std::size_t>(y - y0) * cw - x0], raster.data() + static_cast<std::size_t>(y) * w,
                    static_cast<std::size_t>(w));
    auto px = [&](int x, int y) -> unsigned {
        return x < 0 || y < 0 || x >= cw || y >= ch ? 0u : canvas[static_cast<std::size_t>(y) * cw + x];
    };

    const double stepX = (xs[1] - xs[0]) / w, stepY = (ys[1] - ys[0]) / w;
    for (int y = 0; y < h; ++y) {
        double fx = xs[0] + (xs[2] - xs[0]) * y / h - x0;
        double fy = ys[0] + (ys[2] - ys[0]) * y / h - y0;
        std::uint8_t *out = raster.data() + static_cast<std::size_t>(y) * w;
        for (int x = 0; x < w; ++x, fx += stepX, fy += stepY) {
            const int ix = static_cast<int>(std::floor(fx)), iy = static_cast<int>(std::floor(fy));
            const unsigned p00 = px(ix, iy), p10 = px(ix + 1, iy), p01 = px(ix, iy + 1), p11 = px(ix + 1, iy + 1);
            if (p00 == p10 && p00 == p01 && p00 == p11) {
                out[x] = static_cast<std::uint8_t>(p00);
                continue;
            }
            const double ax = fx - ix, ay = fy - iy;
            const double v = (p00 * (1 - ax) + p10 * ax) * (1 - ay) + (p01 * (1 - ax) + p11 * ax) * ay;
            out[x] = static_cast<std::uint8_t>(std::clamp(v, 0.0, 255.0));
        }
    }
}

namespace {

// One search level over a working raster: the profile buffer, the score and
// the evaluation counter.
class SkewSearch {
public:
    explicit SkewSearch(const PageRaster &raster)
        : raster_(raster), profile_(static_cast<std::size_t>(std::max(raster.height, 0))) {}

    float Score(float angle) {
        evaluations_ += 1.0f;
        if (profile_.empty()) return 0.0f;
        const float slope = static_cast<float>(std::tan(static_cast<long double>(angle) * kRadiansPerDegree));
        RECT whole;
        SetRect(&whole, 0, 0, raster_.width, raster_.height);
        ShearedRowProfile(raster_, whole, profile_.data(), slope);
        float score = 0.0f;
        for (float e : profile_) score += e * e;
        return score;
    }
    float evaluations() const { return evaluations_; }

private:
    const PageRaster &raster_;
    std::vector<float> profile_;
    float evaluations_ = 0.0f;
};

float Vertex(float a0, float a1, float s0, float s1, float d) { return (s0 - s1) * (a0 - a1) / d + (a0 + a1) * 0.5f; }

void Search(PageRaster &work, double *result, int depth) {
    SkewSearch search(work);
    float a0 = -5, a1 = 0, a2 = 5;
    float s0 = search.Score(a0), s1 = search.Score(a1), s2 = search.Score(a2);

    // Coarse bracketing in 5-degree steps.
    for (;;) {
        if (s0 <= s1 && s2 <= s1) break;
        if (a0 <= -30 || a2 >= 30) break;
        if (s0 > s1) {
            a2 = a1, s2 = s1;
            a1 = a0, s1 = s0;
            a0 = a0 - 5;
            s0 = search.Score(a0);
        } else {
            a0 = a1, s0 = s1;
            a1 = a2, s1 = s2;
            a2 = a2 + 5;
            s2 = search.Score(a2);
        }
    }

    // A bracket at a bound: turn the page by the bound and search again.
    if (depth < kMaxRepeatedSearches && (a0 <= -30 || a2 >= 30)) {
        const float bound = a0 <= -30 ? a0 : a2;
        RotateRaster(work, -bound, work.width / 2, work.height / 2);
        Search(work, result, depth + 1);
        *result += bound;
        return;
    }

    float d = 2 * s1 - s0 - s2;
    float x = d == 0 ? a1 : Vertex(a0, a1, s0, s1, d);
    if (std::fabs(x - 1000.0f) <= 0.01f) {
        *result = x;
        return;
    }

    for (;;) {
        const float h = a1 - a0;
        if (h <= 0.2f || search.evaluations() >= 100) break;
        const float dist = a1 - x;
        const float ad = std::fabs(dist);
        if (h < 1 && ad < h / 8) {
            a0 = a1 - h / 4, a2 = a1 + h / 4;
            s0 = search.Score(a0), s2 = search.Score(a2);
        } else if (ad < h / 16) {
            a0 = a1 - h / 8, a2 = a1 + h / 8;
            s0 = search.Score(a0), s2 = search.Score(a2);
        } else if (x < a1 && dist < h / 8) {
            a2 = a1, s2 = s1;
            a0 = a1 - h / 4, a1 = a1 - h / 8;
            s0 = search.Score(a0), s1 = search.Score(a1);
        } else if (x > a1 && x - a1 < h / 8) {
            a0 = a1, s0 = s1;
            a1 = a0 + h / 8, a2 = a0 + h / 4;
            s1 = search.Score(a1), s2 = search.Score(a2);
        } else if (x < a1 && dist < h / 4) {
            a2 = a1, s2 = s1;
            a0 = 2 * x - a2, a1 = x;
            s0 = search.Score(a0), s1 = search.Score(a1);
        } else if (x > a1 && x - a1 < h / 4) {
            a0 = a1, s0 = s1;
            a1 = x, a2 = 2 * x - a0;
            s1 = search.Score(a1), s2 = search.Score(a2);
        } else if (s0 > s2) {
            a2 = a1, s2 = s1;
            a1 = (a0 + a2) / 2;
            s1 = search.Score(a1);
        } else {
            a0 = a1, s0 = s1;
            a1 = (a0 + a2) / 2;
            s1 = search.Score(a1);
        }

        // Re-bracket around the peak at the new spacing.
        for (int step = 0; step < kMaxRebracketSteps; ++step) {
            if ((s0 <= s1 && s2 <= s1) || s0 == s1 || s1 == s2) break;
            if (s0 > s1) {
                const float na = 2 * a0 - a1;
                a2 = a1, s2 = s1;
                a1 = a0, s1 = s0;
                a0 = na, s0 = search.Score(a0);
            } else {
                const float na = 2 * a2 - a1;
                a0 = a1, s0 = s1;
                a1 = a2, s1 = s2;
                a2 = na, s2 = search.Score(a2);
            }
        }

        d = 2 * s1 - s0 - s2;
        float next;
        if (d == 0) {
            if (a1 - a0 < 0.1f) break;
            next = a1;
        } else {
            next = Vertex(a0, a1, s0, s1, d);
        }
        const bool moved = std::fabs(next - x) > 0.01f;
        x = next;
        if (!moved) break;
    }
    *result = x;
}

}  // namespace

void FindSkewAngle(PageRaster &raster, double *result, bool prepare) {
    if (!prepare) {
        Search(raster, result, 0);
        return;
    }
    int k = (raster.height + 200) / 500;
    if (k <= 1) k = 1;
    PageRaster reduced;
    RECT whole;
    SetRect(&whole, 0, 0, raster.width, raster.height);
    ReduceRaster(reduced, raster, whole, k, k);
    Search(reduced, result, 0);
}

}  // namespace quarvel::skew
