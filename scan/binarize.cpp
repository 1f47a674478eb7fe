// Binarisation: Sauvola, Wolf-Jolion, one global Otsu threshold, and the
// default, Otsu on the page normalised by its paper background.
//
// The local methods need the mean and deviation of a window round every
// pixel. Both change slowly at the scale of a window, so they are taken on a
// grid of c x c cells (c about an eighth of the window): one pass sums v and
// v^2 per cell, box sums over the grid give the window statistics at each
// cell centre, the threshold is computed per cell and interpolated bilinearly
// back to every pixel (cv::resize), and one compare makes the result. A page
// is read twice in all, which keeps an A4 300-dpi page near 10 ms.
//
// The default divides out the paper: the brightest pixel of each cell,
// spread over a window of about a quarter inch (a dilation, then a box
// mean), is the local paper level; one Otsu threshold on the page expressed
// as a fraction of its paper level then holds on stained, shaded and tinted
// paper alike, where a single threshold on the raw page fails and the local
// methods turn paper texture into ink.
#include "scan/binarize.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <opencv2/imgproc.hpp>
#include <utility>
#include <vector>

#include "scan/paper.h"
#include "scan/scan.h"

namespace quarvel::scan {
namespace {

constexpr double kSauvolaR = 128.0;  // the deviation range of 8-bit pages
// Normalised threshold cap: ink is at least 10 % darker than its paper, so a
// page with no ink (Otsu splitting paper grain) stays white.
constexpr int kMaxNormalisedThreshold = 230;

int Odd(int v) {
    return v | 1;
}

int CellSide(int window) {
    return std::clamp(window / 8, 1, 16);
}

void AddRow(const std::uint8_t *__restrict p, int n, std::uint32_t *__restrict s, std::uint32_t *__restrict q) {
    for (int x = 0; x < n; ++x) {
        s[x] += p[x];
        q[x] += static_cast<std::uint16_t>(p[x] * p[x]);  // 16-bit products: SSE2 multiplies those
    }
}

// Sums of v and v*v over c x c cells (the last row and column of cells may
// be partial: `rows` and `cols` hold each cell row's and column's pixel
// count, so a cell holds rows[gy] * cols[gx] pixels). Grids are CV_64F.
void CellSums(const cv::Mat &gray, int c, cv::Mat *sum, cv::Mat *sq, std::vector<double> *rows,
              std::vector<double> *cols) {
    const int gw = (gray.cols + c - 1) / c, gh = (gray.rows + c - 1) / c;
    sum->create(gh, gw, CV_64F);
    sq->create(gh, gw, CV_64F);
    rows->resize(static_cast<std::size_t>(gh));
    cols->resize(static_cast<std::size_t>(gw));
    for (int gx = 0; gx < gw; ++gx) (*cols)[static_cast<std::size_t>(gx)] = std::min(gray.cols, (gx + 1) * c) - gx * c;
    // Column totals over a band of c rows (a loop the compiler vectorises),
    // then the cells' columns added.
    std::vector<std::uint32_t> s(gray.cols), q(gray.cols);
    for (int gy = 0; gy < gh; ++gy) {
        std::fill(s.begin(), s.end(), 0u);
        std::fill(q.begin(), q.end(), 0u);
        const int y1 = std::min(gray.rows, (gy + 1) * c);
        for (int y = gy * c; y < y1; ++y) AddRow(gray.ptr<std::uint8_t>(y), gray.cols, s.data(), q.data());
        (*rows)[static_cast<std::size_t>(gy)] = y1 - gy * c;
        double *sumRow = sum->ptr<double>(gy), *sqRow = sq->ptr<double>(gy);
        for (int gx = 0; gx < gw; ++gx) {
            const int x0 = gx * c, x1 = std::min(gray.cols, x0 + c);
            std::uint64_t a = 0, b = 0;
            for (int x = x0; x < x1; ++x) {
                a += s[x];
                b += q[x];
            }
            sumRow[gx] = static_cast<double>(a);
            sqRow[gx] = static_cast<double>(b);
        }
    }
}

// Sums of `v` over the n values centred on each index (cut at the ends).
std::vector<double> WindowSums(const std::vector<double> &v, int n) {
    const int size = static_cast<int>(v.size()), r = n / 2;
    std::vector<double> out(v.size(), 0.0);
    for (int i = 0; i < size; ++i)
        for (int j = std::max(0, i - r); j <= std::min(size - 1, i + r); ++j)
            out[static_cast<std::size_t>(i)] += v[static_cast<std::size_t>(j)];
    return out;
}

// Position of pixel `i` between the centres of cells of side c: the lower
// cell and the weight of the next one.
void CellPosition(int i, int c, int cells, int *lower, float *weight) {
    const float f = (i - (c - 1) / 2.0f) / c;
    int j = static_cast<int>(std::floor(f));
    float w = f - j;
    if (j < 0) {
        j = 0;
        w = 0;
    }
    if (j >= cells - 1) {
        j = cells - 1;
        w = 0;
    }
    *lower = j;
    *weight = w;
}

// One row of the result: ink (0) where the pixel is below the threshold
// interpolated between two spread grid rows.
void CompareRow(const std::uint8_t *__restrict g, const float *__restrict a, const float *__restrict b, float wy, int w,
                std::uint8_t *__restrict o) {
    for (int x = 0; x < w; ++x) o[x] = static_cast<float>(g[x]) < a[x] + wy * (b[x] - a[x]) ? 0 : 255;
}

// Per-pixel result from a per-cell threshold grid (CV_32F, ink below it),
// interpolated bilinearly between cell centres: each grid row is spread
// along x once, and every page row is a weighted sum of two such rows.
cv::Mat ApplyGrid(const cv::Mat &gray, const cv::Mat &thresholds, int c) {
    const int w = gray.cols;
    std::vector<int> lowerX(w);
    std::vector<float> weightX(w);
    for (int x = 0; x < w; ++x) CellPosition(x, c, thresholds.cols, &lowerX[x], &weightX[x]);
    auto spread = [&](int row, std::vector<float> *out) {
        const float *t = thresholds.ptr<float>(row);
        for (int x = 0; x < w; ++x) {
            const int j = lowerX[x], j1 = std::min(j + 1, thresholds.cols - 1);
            (*out)[x] = t[j] + weightX[x] * (t[j1] - t[j]);
        }
    };
    std::vector<float> row0(w), row1(w);
    int have0 = -1, have1 = -1;
    cv::Mat out(gray.size(), CV_8U);
    for (int y = 0; y < gray.rows; ++y) {
        int j;
        float wy;
        CellPosition(y, c, thresholds.rows, &j, &wy);
        const int j1 = std::min(j + 1, thresholds.rows - 1);
        if (have0 != j) {
            if (have1 == j) {
                std::swap(row0, row1);
                have0 = j;
                have1 = -1;
            } else {
                spread(j, &row0);
                have0 = j;
            }
        }
        if (have1 != j1) {
            spread(j1, &row1);
            have1 = j1;
        }
        CompareRow(gray.ptr<std::uint8_t>(y), row0.data(), row1.data(), wy, w, out.ptr<std::uint8_t>(y));
    }
    return out;
}

cv::Mat LocalThreshold(const cv::Mat &gray, int method, int window, double k) {
    const int c = CellSide(window);
    cv::Mat sum, sq;
    std::vector<double> rows, cols;
    CellSums(gray, c, &sum, &sq, &rows, &cols);
    const int n = Odd(std::max(1, static_cast<int>(std::lround(static_cast<double>(window) / c))));
    cv::Mat wsum, wsq;
    cv::boxFilter(sum, wsum, CV_64F, cv::Size(n, n), cv::Point(-1, -1), false, cv::BORDER_CONSTANT);
    cv::boxFilter(sq, wsq, CV_64F, cv::Size(n, n), cv::Point(-1, -1), false, cv::BORDER_CONSTANT);
    // A window's pixel count is its cell rows' count times its columns'.
    const std::vector<double> wrows = WindowSums(rows, n), wcols = WindowSums(cols, n);
    auto stats = [&](int y, int x, double *m, double *d) {
        const double cnt = std::max(1.0, wrows[static_cast<std::size_t>(y)] * wcols[static_cast<std::size_t>(x)]);
        *m = wsum.at<double>(y, x) / cnt;
        *d = std::sqrt(std::max(0.0, wsq.at<double>(y, x) / cnt - *m * *m));
    };
    double minMean = 255, maxDev = 0;
    for (int y = 0; y < sum.rows; ++y) {
        for (int x = 0; x < sum.cols; ++x) {
            double m, d;
            stats(y, x, &m, &d);
            const double cells = rows[static_cast<std::size_t>(y)] * cols[static_cast<std::size_t>(x)];
            minMean = std::min(minMean, sum.at<double>(y, x) / std::max(1.0, cells));
            maxDev = std::max(maxDev, d);
        }
    }
    cv::Mat t(sum.size(), CV_32F);
    for (int y = 0; y < sum.rows; ++y) {
        for (int x = 0; x < sum.cols; ++x) {
            double m, d;
            stats(y, x, &m, &d);
            double v;
            if (method == QUARVEL_BINARIZE_WOLF) {
                // Wolf-Jolion: contrast relative to the page's darkest cell and
                // its largest local deviation.
                v = (1 - k) * m + k * minMean + (maxDev > 0 ? k * d / maxDev * (m - minMean) : 0.0);
            } else {
                v = m * (1 + k * (d / kSauvolaR - 1));
            }
            t.at<float>(y, x) = static_cast<float>(v);
        }
    }
    return ApplyGrid(gray, t, c);
}

int OtsuOfHistogram(const std::array<double, 256> &h) {
    double total = 0, sumAll = 0;
    for (int i = 0; i < 256; ++i) {
        total += h[i];
        sumAll += i * h[i];
    }
    double w0 = 0, sum0 = 0, best = -1;
    int t = 255;
    for (int i = 0; i < 255; ++i) {
        w0 += h[i];
        sum0 += i * h[i];
        const double w1 = total - w0;
        if (w0 <= 0 || w1 <= 0) continue;
        const double d = sum0 / w0 - (sumAll - sum0) / w1;
        const double between = w0 * w1 * d * d;
        if (between > best) {
            best = between;
            t = i;
        }
    }
    return t;  // ink: normalised value <= t
}

cv::Mat NormalisedOtsu(const cv::Mat &gray, int paperWindow, int dpi) {
    const int c = std::clamp(dpi / 40, 2, 16);
    cv::Mat cellMax = CellMax(gray, c);
    const int n = Odd(std::max(3, paperWindow / c));
    cv::Mat paper8, paper;
    cv::dilate(cellMax, paper8, cv::getStructuringElement(cv::MORPH_RECT, cv::Size(n, n)), cv::Point(-1, -1), 1,
               cv::BORDER_REPLICATE);
    cv::blur(paper8, paper8, cv::Size(n, n), cv::Point(-1, -1), cv::BORDER_REPLICATE);
    paper8.convertTo(paper, CV_32F);

    // Histogram of v / paper on every third row and every other column.
    std::array<std::uint32_t, 256> scale{};  // 255 / level in 16.16 fixed point
    for (int v = 0; v < 256; ++v) scale[v] = (255u << 16) / std::max(1, v);
    std::array<std::uint32_t, 256> counts{};
    for (int y = 0; y < gray.rows; y += 3) {
        const std::uint8_t *p = gray.ptr<std::uint8_t>(y);
        const std::uint8_t *bg = paper8.ptr<std::uint8_t>(y / c);
        for (int gx = 0; gx < paper8.cols; ++gx) {
            const std::uint32_t f = scale[bg[gx]];
            for (int x = gx * c; x < std::min(gray.cols, (gx + 1) * c); x += 2)
                ++counts[std::min<std::uint32_t>(255, (p[x] * f) >> 16)];
        }
    }
    std::array<double, 256> h{};
    for (int v = 0; v < 256; ++v) h[v] = counts[v];
    const int tn = std::min(OtsuOfHistogram(h), kMaxNormalisedThreshold);
    // Ink where v * 255 / paper <= tn, i.e. v < paper * (tn + 1) / 255.
    cv::Mat t = paper * ((tn + 1) / 255.0);
    return ApplyGrid(gray, t, c);
}

}  // namespace

int BinarizeWindow(int dpi) {
    return Odd(std::clamp(static_cast<int>(std::lround(dpi / 5.0)), 15, 255));
}

double BinarizeDefaultK(int method) {
    return method == QUARVEL_BINARIZE_WOLF ? 0.5 : 0.34;
}

cv::Mat SauvolaPlain(const cv::Mat &gray, int window, double k) {
    cv::Mat s, q;
    cv::integral(gray, s, q, CV_64F, CV_64F);
    cv::Mat out(gray.size(), CV_8U);
    const int r = window / 2;
    for (int y = 0; y < gray.rows; ++y) {
        const int y0 = std::max(0, y - r), y1 = std::min(gray.rows, y + r + 1);
        for (int x = 0; x < gray.cols; ++x) {
            const int x0 = std::max(0, x - r), x1 = std::min(gray.cols, x + r + 1);
            const double n = static_cast<double>(y1 - y0) * (x1 - x0);
            const double sum =
                s.at<double>(y1, x1) - s.at<double>(y0, x1) - s.at<double>(y1, x0) + s.at<double>(y0, x0);
            const double sq = q.at<double>(y1, x1) - q.at<double>(y0, x1) - q.at<double>(y1, x0) + q.at<double>(y0, x0);
            const double m = sum / n, d = std::sqrt(std::max(0.0, sq / n - m * m));
            out.at<std::uint8_t>(y, x) = gray.at<std::uint8_t>(y, x) < m * (1 + k * (d / kSauvolaR - 1)) ? 0 : 255;
        }
    }
    return out;
}

cv::Mat Binarize(const cv::Mat &gray, int method, int window, double k, int dpi) {
    if (gray.empty() || gray.type() != CV_8UC1) return cv::Mat();
    dpi = std::clamp(dpi, 20, 10000);
    const int userWindow = window;
    if (window <= 0) window = BinarizeWindow(dpi);
    window = Odd(std::clamp(window, 3, 4095));
    if (!(k > 0) || !(k < 10)) k = BinarizeDefaultK(method);
    switch (method) {
        case QUARVEL_BINARIZE_SAUVOLA:
        case QUARVEL_BINARIZE_WOLF:
            return LocalThreshold(gray, method, window, k);
        case QUARVEL_BINARIZE_OTSU: {
            cv::Mat out;
            cv::threshold(gray, out, 0, 255, cv::THRESH_BINARY | cv::THRESH_OTSU);
            return out;
        }
        default:
            // The paper window: the caller's, else a quarter inch, wider than
            // any stroke of text.
            return NormalisedOtsu(gray, userWindow > 0 ? window : Odd(dpi / 4), dpi);
    }
}

}  // namespace quarvel::scan
