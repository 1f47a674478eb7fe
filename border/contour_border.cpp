// RemoveBorder_GPY: cut a skewed sheet out of its dark frame along its
// outline and straighten it. The page is reduced to two levels; the largest
// outer contour (the sheet) is traced with OpenCV; the bounding box of its
// points is measured at 15 probe angles, 0 to 84 degrees, using every tenth
// point and a local search around each extreme; the angle of the smallest
// box is interpolated between its neighbours; the final box at that angle
// comes from the points around the best probe's extremes. The page is then
// turned by that angle so the box becomes the whole result.
#include <opencv2/imgproc.hpp>

#include <cmath>
#include <vector>

#include "border/border.h"
#include "frame/convert.h"
#include "frame/ipl_mat.h"
#include "frame/view.h"

namespace quarvel::border {

namespace {

constexpr double kPi = 3.14159265358979323846;

struct Box {
    int minU = 99999, minV = 99999, maxU = -99999, maxV = -99999;
    int iMinU = 0, iMinV = 0, iMaxU = 0, iMaxV = 0;
};

class Projector {
public:
    Projector(const std::vector<cv::Point> &pts, double degrees)
        : pts_(pts), c_(std::cos(degrees * kPi / 180.0)), s_(std::sin(degrees * kPi / 180.0)) {}
    int U(int i) const { return static_cast<int>(pts_[i].x * c_ - pts_[i].y * s_); }
    int V(int i) const { return static_cast<int>(pts_[i].x * s_ + pts_[i].y * c_); }
    void Update(Box &b, int i) const {
        const int u = U(i), v = V(i);
        if (u < b.minU) b.minU = u, b.iMinU = i;
        if (v < b.minV) b.minV = v, b.iMinV = i;
        if (u > b.maxU) b.maxU = u, b.iMaxU = i;
        if (v > b.maxV) b.maxV = v, b.iMaxV = i;
    }

private:
    const std::vector<cv::Point> &pts_;
    double c_, s_;
};

double Area(const Box &b) { return static_cast<double>(static_cast<long long>(b.maxV - b.minV) * (b.maxU - b.minU)); }

}  // namespace

HGLOBAL RemoveBorderGpy(HGLOBAL hDib, int nThreshold) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    std::vector<cv::Point> pts;
    {
        ImagePtr gray = ExpandBitonalToGray(view.get(), in.header());
        if (!gray) return nullptr;
        cv::Mat twoLevel = MatOf(*gray, Region{0, 0, gray->width, gray->height});
        cv::threshold(twoLevel, twoLevel, nThreshold, 255, cv::THRESH_BINARY);
        if (nThreshold < 0) twoLevel.setTo(255);  // every level is above a negative threshold
        std::vector<std::vector<cv::Point>> contours;
        cv::findContours(twoLevel, contours, cv::RETR_EXTERNAL, cv::CHAIN_APPROX_NONE);
        if (contours.empty()) return nullptr;
        std::size_t best = 0;
        long long bestArea = -1;
        for (std::size_t i = 0; i < contours.size(); ++i) {
            const long long area = static_cast<long long>(std::fabs(cv::contourArea(contours[i])));
            if (area > bestArea) bestArea = area, best = i;  // the first of equal contours wins
        }
        pts = std::move(contours[best]);
    }
    const int count = static_cast<int>(pts.size());
    auto valid = [count](int i) { return i >= 1 && i < count; };

    Box probes[15];
    double areas[15];
    {
        Box &b = probes[0];
        b = Box{};
        for (int i = 0; i < count; ++i) {
            const int x = pts[i].x, y = pts[i].y;
            if (x < b.minU) b.minU = x, b.iMinU = i;
            if (x > b.maxU) b.maxU = x, b.iMaxU = i;
            if (y < b.minV) b.minV = y, b.iMinV = i;
            if (y > b.maxV) b.maxV = y, b.iMaxV = i;
        }
        areas[0] = Area(b);
    }
    const int extremes0[4] = {probes[0].iMinU, probes[0].iMaxU, probes[0].iMinV, probes[0].iMaxV};
    for (int k = 1; k < 15; ++k) {
        const Projector pr(pts, 6.0 * k);
        Box &b = probes[k];
        for (int i = 0; i < count; i += 10) pr.Update(b, i);
        for (int i : extremes0) pr.Update(b, i);
        // Local search around each extreme, updating that extreme only.
        const int start[4] = {b.iMinU, b.iMinV, b.iMaxU, b.iMaxV};
        for (int which = 0; which < 4; ++which) {
            for (int off : {-5, -3, -1, 1, 3, 5}) {
                const int i = start[which] + off;
                if (!valid(i)) continue;
                switch (which) {
                    case 0: if (pr.U(i) < b.minU) b.minU = pr.U(i), b.iMinU = i; break;
                    case 1: if (pr.V(i) < b.minV) b.minV = pr.V(i), b.iMinV = i; break;
                    case 2: if (pr.U(i) > b.maxU) b.maxU = pr.U(i), b.iMaxU = i; break;
                    default: if (pr.V(i) > b.maxV) b.maxV = pr.V(i), b.iMaxV = i; break;
                }
            }
        }
        areas[k] = Area(b);
    }
    int best = 0;
    for (int k = 1; k < 15; ++k)
        if (areas[k] < areas[best]) best = k;
    const double ap = areas[(best + 14) % 15], an = areas[(best + 1) % 15];
    const double m = std::max(ap, an);
    double theta = m - areas[best] == 0 ? 6.0 * best : 6.0 * best + 3.0 * (ap - an) / (m - areas[best]);
    if (theta > 45) theta -= 90;

    const Projector final(pts, theta);
    Box box;
    const int around[4] = {probes[best].iMinU, probes[best].iMinV, probes[best].iMaxU, probes[best].iMaxV};
    for (int idx : around)
        for (int i = idx - 5; i <= idx + 5; ++i)
            if (valid(i)) final.Update(box, i);
    const int w = box.maxU - box.minU, h = box.maxV - box.minV;
    if (w < 50 || h < 50) return nullptr;

    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(*view), w, h, NewTable::kKeep);
    if (!out) return nullptr;
    // The frame's colour: black on the usual palettes.
    out.Fill(in.bitCount() < 24 && IsLightFirst(in.header()) ? 255 : 0);
    iplRotate(view.get(), out.image(), -theta, -box.minU, -box.minV, IPL_INTER_LINEAR);
    return out.Release();
}

}  // namespace quarvel::border
