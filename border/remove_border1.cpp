// RemoveBorder1: measure a sheet's skew from its own edges, turn it
// straight, cut it out of the frame and turn it by the caller's angle, all
// with one resampling of the page.
//
// Edge scans find, from each side of the gray copy, the first line holding a
// run of more than 10 bright pixels. Two skew estimates follow: one from the
// four corners of those runs, one from two sample lines across each edge
// (the first run of 5 bright pixels); each pairs the edge angles whose
// difference is smallest. When the chosen estimate is consistent (its edge
// angles differ by less than 0.04 rad) and not negligible (above 0.001 rad),
// the gray copy is turned onto an enlarged canvas, the page box is found on
// it, and the page is turned once with the same angle and shifts less the
// box offset. Otherwise the page box is cut and turned by the caller's angle
// only.
#include <cmath>

#include "border/border.h"
#include "frame/convert.h"
#include "frame/view.h"

namespace quarvel::border {

namespace {

struct Estimate {
    double e, d;
};

double Fold(double s) { return std::fabs(s) > 1 ? -1 / s : s; }

double Slope(double num, double den) { return den == 0 ? 0.0 : num / den; }

// Pairs four edge angles: the pair with the smallest difference, tried in
// the order (1, 3), (1, 2), (1, 4), (3, 2), (3, 4), (2, 4).
Estimate Pair(const double s[4]) {
    double a[4];
    for (int i = 0; i < 4; ++i) a[i] = std::atan(Fold(s[i]));
    Estimate best{(a[0] + a[2]) / 2, std::fabs(a[0] - a[2])};
    const int pairs[5][2] = {{0, 1}, {0, 3}, {2, 1}, {2, 3}, {1, 3}};
    for (const auto &p : pairs) {
        const double d = std::fabs(a[p[0]] - a[p[1]]);
        if (d < best.d) best = Estimate{(a[p[0]] + a[p[1]]) / 2, d};
    }
    return best;
}

class Gray {
public:
    Gray(const IplImage &image, int threshold) : image_(image), t_(threshold) {}
    int width() const { return image_.width; }
    int height() const { return image_.height; }
    bool Bright(int x, int y) const {
        return x >= 0 && y >= 0 && x < image_.width && y < image_.height && RowOf(image_, y)[x] > t_;
    }

private:
    const IplImage &image_;
    int t_;
};

struct Edges {
    int yT = -1, xT1 = -1, xT2 = -1, yB = -1, xB1 = -1, xB2 = -1;
    int xL = -1, yL1 = -1, yL2 = -1, xR = -1, yR1 = -1, yR2 = -1;
};

// Scans lines from `first` by `step`; along each line positions 0..length-1.
// On the first line with a run past 10: lineOut = line, startOut = position
// - 10 of the first such run, endOut = one past the last position at which
// any run of that line was past 10.
template <class Bright>
bool EdgeScan(int first, int last, int step, int length, Bright bright, int *lineOut, int *startOut, int *endOut) {
    for (int line = first; step > 0 ? line <= last : line >= last; line += step) {
        int run = 0;
        bool found = false;
        for (int pos = 0; pos < length; ++pos) {
            run = bright(line, pos) ? run + 1 : 0;
            if (run > 10) {
                if (!found) *startOut = pos - 10;
                found = true;
                *endOut = pos + 1;
            }
        }
        if (found) {
            *lineOut = line;
            return true;
        }
    }
    return false;
}

bool FindEdges(const Gray &g, Edges &e) {
    const int w = g.width(), h = g.height();
    auto alongRow = [&](int y, int x) { return g.Bright(x, y); };
    auto alongColumn = [&](int x, int y) { return g.Bright(x, y); };
    if (!EdgeScan(1, h - 2, 1, w, alongRow, &e.yT, &e.xT1, &e.xT2)) return false;
    if (e.yT == 1) e.yT = 0;
    int yB = -1;
    if (!EdgeScan(h - 2, 1, -1, w, alongRow, &yB, &e.xB1, &e.xB2)) return false;
    e.yB = yB + 1;
    if (e.yB == e.yT) return false;
    if (e.yB == h - 1) e.yB = h;
    if (!EdgeScan(1, w - 2, 1, h, alongColumn, &e.xL, &e.yL1, &e.yL2)) return false;
    if (e.xL == 1) e.xL = 0;
    int xR = -1;
    if (!EdgeScan(w - 2, 1, -1, h, alongColumn, &xR, &e.yR1, &e.yR2)) return false;
    e.xR = xR + 1;
    if (e.xR == e.xL) return false;
    if (e.xR == w - 1) e.xR = w;
    return true;
}

// Position along a line (from `from` toward `to`, inclusive) where the first
// run of 5 bright pixels completes, or -1.
template <class Bright>
int FifthBright(int from, int to, Bright bright) {
    const int step = to >= from ? 1 : -1;
    int run = 0;
    for (int i = from; step > 0 ? i <= to : i >= to; i += step) {
        run = bright(i) ? run + 1 : 0;
        if (run == 5) return i;
    }
    return -1;
}

// Two sample positions on an edge, truncated toward zero; when they lie
// closer than 5 % of the edge run, positions 1/4 and 3/4 along the run.
struct SamplePair {
    int p, q;
};

SamplePair Sampled(double p, double q, int run1, int run2) {
    SamplePair s{static_cast<int>(p), static_cast<int>(q)};
    if (std::abs(s.q - s.p) < 0.05 * (run2 - run1))
        s = SamplePair{static_cast<int>(0.75 * run2 + 0.25 * run1), static_cast<int>(0.25 * run2 + 0.75 * run1)};
    return s;
}

// Slope from the hits at two sample lines; `rowsOverColumns` gives
// (hit p - hit q) / (p - q) for the top and bottom edges, else
// (p - q) / (hit p - hit q). 0 when a hit is missing or the slope is undefined.
double SampleSlope(SamplePair s, int hp, int hq, bool rowsOverColumns) {
    if (hp < 0 || hq < 0) return 0.0;
    if (rowsOverColumns) return s.p == s.q ? 0.0 : static_cast<double>(hp - hq) / (s.p - s.q);
    return hp == hq ? 0.0 : static_cast<double>(s.p - s.q) / (hp - hq);
}

Estimate SampleEstimate(const Gray &g, const Edges &e) {
    double t[4];
    // Top edge: sample columns, each scanned up the stored rows from yT; the
    // hit is the first row of the first run of 5.
    SamplePair s = std::abs(e.xL - e.xT1) > std::abs(e.xR - e.xT2)
                       ? Sampled(0.25 * e.xT1 + 0.75 * e.xL, 0.75 * e.xT1 + 0.25 * e.xL, e.xT1, e.xT2)
                       : Sampled(0.75 * e.xT2 + 0.25 * e.xR - 1, 0.25 * e.xT2 + 0.75 * e.xR - 1, e.xT1, e.xT2);
    auto topHit = [&](int x) {
        const int r = FifthBright(e.yT, e.yB - 1, [&](int y) { return g.Bright(x, y); });
        return r < 0 ? -1 : r - 4;
    };
    t[0] = SampleSlope(s, topHit(s.p), topHit(s.q), true);
    // Bottom edge: scanned down from yB - 1; the hit is one past the run.
    s = std::abs(e.xL - e.xB1) > std::abs(e.xR - e.xB2)
            ? Sampled(0.25 * e.xB1 + 0.75 * e.xL, 0.75 * e.xB1 + 0.25 * e.xL, e.xB1, e.xB2)
            : Sampled(0.75 * e.xB2 + 0.25 * e.xR - 1, 0.25 * e.xB2 + 0.75 * e.xR - 1, e.xB1, e.xB2);
    auto bottomHit = [&](int x) {
        const int r = FifthBright(e.yB - 1, e.yT, [&](int y) { return g.Bright(x, y); });
        return r < 0 ? -1 : r + 5;
    };
    t[1] = SampleSlope(s, bottomHit(s.p), bottomHit(s.q), true);
    // Left edge: sample rows, scanned rightward from xL.
    s = std::abs(e.yT - e.yL1) > std::abs(e.yB - e.yL2)
            ? Sampled(0.75 * e.yT + 0.25 * e.yL1, 0.25 * e.yT + 0.75 * e.yL1, e.yL1, e.yL2)
            : Sampled(0.75 * e.yB + 0.25 * e.yL2 - 1, 0.25 * e.yB + 0.75 * e.yL2 - 1, e.yL1, e.yL2);
    auto leftHit = [&](int y) {
        const int c = FifthBright(e.xL, e.xR - 1, [&](int x) { return g.Bright(x, y); });
        return c < 0 ? -1 : c - 4;
    };
    t[2] = SampleSlope(s, leftHit(s.p), leftHit(s.q), false);
    // Right edge: scanned leftward from xR - 1.
    s = std::abs(e.yT - e.yR1) > std::abs(e.yB - e.yR2)
            ? Sampled(0.75 * e.yT + 0.25 * e.yR1, 0.25 * e.yT + 0.75 * e.yR1, e.yR1, e.yR2)
            : Sampled(0.75 * e.yB + 0.25 * e.yR2 - 1, 0.25 * e.yB + 0.75 * e.yR2 - 1, e.yR1, e.yR2);
    auto rightHit = [&](int y) {
        const int c = FifthBright(e.xR - 1, e.xL, [&](int x) { return g.Bright(x, y); });
        return c < 0 ? -1 : c + 5;
    };
    t[3] = SampleSlope(s, rightHit(s.p), rightHit(s.q), false);
    // Pairs in the order top-left, top-bottom, top-right, left-bottom,
    // left-right, bottom-right: slots 1, 2, 3, 4 are top, bottom, left, right.
    return Pair(t);
}

bool QuarterTurn(int angle) { return angle == 90 || angle == 270 || angle == -90 || angle == -270; }

}  // namespace

HGLOBAL RemoveBorder1(HGLOBAL hDib, int nThreshold, int nAngle) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    ImagePtr gray = ExpandBitonalToGray(view.get(), in.header());
    if (!gray) return nullptr;
    const int W = in.width(), H = in.height();
    const Gray g(*gray, nThreshold);

    Edges e;
    bool deskew = false;
    Estimate chosen{0, 1};
    if (FindEdges(g, e)) {
        const double s[4] = {Slope(e.yT - e.yL1, e.xT1 - e.xL), Slope(e.yB - e.yR2, e.xB2 - e.xR),
                             Slope(e.yT - e.yR1, e.xT2 - e.xR), Slope(e.yB - e.yL2, e.xB1 - e.xL)};
        // The corner slopes pair in the order (1, 3), (1, 2), (1, 4), (3, 2), (3, 4), (2, 4).
        const Estimate first = Pair(s);
        const Estimate second = SampleEstimate(g, e);
        chosen = second;
        if (std::fabs(second.e) < 0.0001) {
            if (first.d < 0.02 || first.d < second.d) chosen = first;
        } else if (std::fabs(first.e) < 0.0001) {
            if (second.d > 0.02 && first.d < second.d) chosen = first;
        } else if (first.d < second.d) {
            chosen = first;
        }
        deskew = chosen.d < 0.04 && std::fabs(chosen.e) > 0.001;
    }

    double angle, xShift, yShift;
    int w, h;
    RECT box;
    if (!deskew) {
        FindPageRect(in.header(), *gray, nThreshold, &box);
        int x0 = box.left, y0 = box.top;
        w = box.right - box.left, h = box.bottom - box.top;
        if (nAngle == 90 || nAngle == -270) {
            x0 = box.top, y0 = W - box.right, w = box.bottom - box.top, h = box.right - box.left;
        } else if (nAngle == 270 || nAngle == -90) {
            x0 = H - box.bottom, y0 = box.left, w = box.bottom - box.top, h = box.right - box.left;
        } else if (nAngle == 180) {
            x0 = W - box.right, y0 = H - box.bottom;
        }
        double sx, sy;
        iplGetRotateShift(W * 0.5, H * 0.5, nAngle, &sx, &sy);
        xShift = sx - x0, yShift = sy - y0;
        if (QuarterTurn(nAngle)) {
            xShift -= (W - H) / 2;
            yShift -= (H - W) / 2;
        }
        angle = nAngle;
    } else {
        const double r = std::sqrt(static_cast<double>(W) * W + static_cast<double>(H) * H);
        const double phi = std::atan(static_cast<double>(H) / W), beta = std::fabs(chosen.e);
        int cw = static_cast<int>(r * std::cos(phi - beta)), ch = static_cast<int>(r * std::sin(phi + beta));
        double deg = chosen.e * 57.29577957855229;
        if (deg < -45) {
            deg += 90;
        } else if (deg > 45) {
            deg -= 90;
        }
        angle = nAngle + deg;
        if (QuarterTurn(nAngle)) std::swap(cw, ch);
        ImagePtr canvas = CreateImage(PixelFormat::kGray, cw, ch, 0);
        if (!canvas) return nullptr;
        double sx, sy;
        iplGetRotateShift((e.xL + e.xR) * 0.5, (e.yT + e.yB) * 0.5, angle, &sx, &sy);
        xShift = sx - (e.xL + e.xR - cw) / 2;
        yShift = sy - (e.yT + e.yB - ch) / 2;
        iplRotate(gray.get(), canvas.get(), angle, xShift, yShift, IPL_INTER_NN);
        gray.reset();
        FindPageRect(in.header(), *canvas, nThreshold, &box);
        xShift -= box.left;
        yShift -= box.top;
        if (std::fabs(angle) > 0.00001) {
            xShift -= 1;
            yShift -= 1;
        }
        w = box.right - box.left, h = box.bottom - box.top;
    }
    if (w <= 0 || h <= 0) return nullptr;
    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(*view), w, h, NewTable::kKeep);
    if (!out) return nullptr;
    out.Fill(255);
    iplRotate(view.get(), out.image(), angle, xShift, yShift, IPL_INTER_LINEAR);
    return out.Release();
}

}  // namespace quarvel::border
