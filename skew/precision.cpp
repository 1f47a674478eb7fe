// The scanner precision test. A test sheet carries a square frame of dark
// lines, 100 mm a side. On the middle row the frame's left and right sides
// are found (an ink pixel confirmed by ink in five of six nearby rows); each
// side is traced down and up to its ends, ten rows at a time, and the four
// sides' lengths between those ends give the horizontal and vertical scale
// errors relative to 100 mm at the given resolution.
//
// Every read goes through Ink(), which treats positions outside the raster
// as paper, so small pages and small resolutions never read outside it.
#include <cmath>
#include <cstdlib>

#include "frame/round.h"
#include "skew/skew.h"

namespace quarvel::skew {

namespace {

struct Point {
    int x, y;
};

template <class Raster>
class FrameTracer {
public:
    FrameTracer(const Raster &raster, int threshold, int margin)
        : r_(raster), threshold_(threshold), margin_(margin) {}

    bool Ink(int x, int y) const {
        return x >= 0 && y >= 0 && x < r_.width && y < r_.height && r_.at(x, y) > threshold_;
    }

    // Ink in at least five of the rows y-5, y-3, y-1, y+1, y+3, y+5 within
    // columns x+from .. x+from+3.
    bool Confirmed(int x, int y, int from) const {
        static const int kRows[6] = {-5, -3, -1, 1, 3, 5};
        int rows = 0;
        for (int dy : kRows) {
            for (int dx = from; dx < from + 4; ++dx) {
                if (Ink(x + dx, y + dy)) {
                    ++rows;
                    break;
                }
            }
        }
        return rows >= 5;
    }

    // Follows one side from (x, y) toward the bottom (down) or top of the
    // page; false when the trace leaves the margin band.
    bool Trace(int x, int y, bool down, bool leftSide, Point *end) const {
        const int dir = down ? 1 : -1;
        const int outer = leftSide ? -1 : 1;  // toward the side's outer edge
        for (;;) {
            if (down ? y >= r_.height - margin_ : y <= margin_) break;
            bool found = false;
            for (int dy = 10; dy >= 1 && !found; --dy) {
                for (int c = 0; c < 6; ++c) {
                    const int cx = x + outer * (2 - c);
                    const int cy = y + dir * dy;
                    if (Ink(cx, cy)) {
                        x = cx, y = cy;
                        found = true;
                        break;
                    }
                }
            }
            if (!found) break;
            if (x < margin_ || x > r_.width - margin_) return false;
        }
        // Refine toward the outer edge, looking back along the line.
        for (int k = 3; k >= 1; --k) {
            const int col = x + outer * k;
            for (int back = 1; back <= 4; ++back) {
                if (Ink(col, y - dir * back)) {
                    *end = {col, y};
                    return true;
                }
            }
        }
        *end = {x, y};
        return true;
    }

private:
    const Raster &r_;
    int threshold_;
    int margin_;
};

double Distance(Point a, Point b) {
    const long long dx = a.x - b.x, dy = a.y - b.y;
    return std::sqrt(static_cast<double>(dx * dx + dy * dy));
}

// The better of two measured lengths, or their mean when that is nearer.
double Choose(double preferred, double other, double expected) {
    double chosen = std::fabs(preferred - expected) <= std::fabs(other - expected) ? preferred : other;
    const double mean = (preferred + other) / 2;
    if (std::fabs(mean - expected) < std::fabs(chosen - expected)) chosen = mean;
    return chosen;
}

}  // namespace

namespace {

template <class Raster>
int Measure(const Raster &raster, std::uint8_t ridlerCalvard, int resolution, double *horizontal, double *vertical) {
    const int threshold = RoundToInt(0.6 * ridlerCalvard);
    const int expected = RoundToInt(resolution * 3.9370078740157477);
    const int margin = resolution / 2;
    const int yc = raster.height / 2, wc = raster.width / 2;
    const FrameTracer<Raster> t(raster, threshold, margin);

    int xL = -1;
    for (int x = margin; x < wc; ++x) {
        if (t.Ink(x, yc) && t.Confirmed(x, yc, -1)) {
            xL = x;
            break;
        }
    }
    if (xL < 0) return -1;
    int xR = -1;
    for (int x = raster.width - margin; x > wc; --x) {
        if (t.Ink(x, yc) && t.Confirmed(x, yc, -2)) {
            xR = x;
            break;
        }
    }
    if (xR < 0) return -1;

    Point p1, p2, p3, p4;
    if (!t.Trace(xL, yc, true, true, &p1) || !t.Trace(xL, yc, false, true, &p2) ||
        !t.Trace(xR, yc, true, false, &p3) || !t.Trace(xR, yc, false, false, &p4))
        return -1;

    const double ht = Distance(p2, p4), hb = Distance(p1, p3);
    const double vl = Distance(p2, p1), vr = Distance(p4, p3);
    const double l = expected;
    *horizontal = (Choose(hb, ht, l) - l) / l;
    *vertical = (Choose(vr, vl, l) - l) / l;
    return 0;
}

}  // namespace

int MeasureTestFrame(const PageRaster &raster, int resolution, double *horizontal, double *vertical) {
    if (resolution <= 0 || raster.width <= 0 || raster.height <= 0) return -1;
    return Measure(raster, RidlerCalvardThreshold(raster, RECT{0, 0, 0, 0}), resolution, horizontal, vertical);
}

// The page's rows read in place: the threshold from a histogram counted
// straight from them, the few pixels the traces visit decoded one by one.
int MeasureTestFrame(const DibBlock &block, int resolution, double *horizontal, double *vertical) {
    std::uint32_t count[256];
    if (resolution <= 0 || !PageInkHistogram(block, count)) return -1;
    const PixelInks inks(block);
    if (inks.width <= 0 || inks.height <= 0) return -1;
    return Measure(inks, RidlerCalvardThreshold(count), resolution, horizontal, vertical);
}

}  // namespace quarvel::skew
