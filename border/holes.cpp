// RemoveHole: paint out punch holes along the edges the caller names.
//
// A gray copy of the page is inverted (marks become bright) and everything
// but bands of the margin's width along the flagged edges is set to one
// solid block, so only blots lying wholly inside a band stay separate. The
// outer contours (two-level retrieval, top level) are the blots; a blot
// whose box is within the size limits on both axes and whose share of dark
// pixels exceeds the density (never more than 0.6) is a candidate. The
// densest candidates — those above the caller's density, at least the
// fewest and at most the most holes — have their whole box painted white.
#include <opencv2/imgproc.hpp>

#include <algorithm>
#include <vector>

#include "border/border.h"
#include "frame/convert.h"
#include "frame/ipl_mat.h"
#include "frame/view.h"

namespace quarvel::border {

namespace {

struct Candidate {
    int minX, maxX, minY, maxY;
    double density;
};

}  // namespace

HGLOBAL RemoveHole(HGLOBAL hDib, const HoleSearch &s) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    ResultBlock out = ResultBlock::CopiedHeader(in);
    if (!view || !out) return nullptr;
    iplCopy(view.get(), out.image());
    const int w = in.width(), h = in.height();
    int m = s.margin;
    const int third = std::min(w, h) / 3;
    if (m >= third) m = third;
    if (m < 0) return out.Release();  // a band of negative width: nothing to search

    ImagePtr search = MakeGrayImage(view.get(), nullptr, in.header());
    ImagePtr counts = MakeGrayImage(view.get(), nullptr, in.header());
    if (!search || !counts) return nullptr;
    iplNot(search.get(), search.get());
    const int left = s.left ? m : 0, top = s.top ? m : 0;
    const int right = s.right ? w - m : w, bottom = s.bottom ? h - m : h;
    if (right > left && bottom > top) {
        RoiPtr inner(iplCreateROI(0, left, h - bottom, right - left, bottom - top));
        if (!inner) return nullptr;
        RoiScope scope(search.get(), inner.get());
        iplSet(search.get(), 255);
    }

    cv::Mat image = MatOf(*search, Region{0, 0, w, h});
    std::vector<std::vector<cv::Point>> contours;
    std::vector<cv::Vec4i> hierarchy;
    cv::findContours(image, contours, hierarchy, cv::RETR_CCOMP, cv::CHAIN_APPROX_NONE);
    // The outer list: the first top-level contour and its successors.
    std::vector<int> outer;
    for (int i = 0; i < static_cast<int>(contours.size()); ++i) {
        if (hierarchy[i][3] < 0) {
            for (int j = i; j >= 0; j = hierarchy[j][0]) outer.push_back(j);
            break;
        }
    }
    if (static_cast<int>(outer.size()) < s.minHoles) return out.Release();

    const double accept = std::min(s.density, 0.6);
    std::vector<Candidate> candidates;
    for (int i : outer) {
        const auto &pts = contours[i];
        if (pts.empty()) continue;
        Candidate c{pts[0].x, pts[0].x, pts[0].y, pts[0].y, 0};
        for (const cv::Point &p : pts) {
            c.minX = std::min(c.minX, p.x), c.maxX = std::max(c.maxX, p.x);
            c.minY = std::min(c.minY, p.y), c.maxY = std::max(c.maxY, p.y);
        }
        const int bw = c.maxX - c.minX + 1, bh = c.maxY - c.minY + 1;
        if (bw < s.minSize || bw > s.maxSize || bh < s.minSize || bh > s.maxSize) continue;
        long long dark = 0;
        for (int y = c.minY; y <= c.maxY; ++y) {
            const std::uint8_t *row = RowOf(*counts, y);
            for (int x = c.minX; x <= c.maxX; ++x) dark += row[x] < 128;
        }
        c.density = static_cast<double>(dark) / bw / bh;
        if (c.density > accept) candidates.push_back(c);
    }
    const int k = static_cast<int>(candidates.size());
    if (k < s.minHoles) return out.Release();
    std::stable_sort(candidates.begin(), candidates.end(),
                     [](const Candidate &a, const Candidate &b) { return a.density > b.density; });
    int paint = 0;
    while (paint < k && candidates[paint].density > s.density) ++paint;
    if (paint > s.maxHoles) {
        paint = s.maxHoles;
    } else if (paint < s.minHoles) {
        paint = s.minHoles;
    }
    paint = std::clamp(paint, 0, k);

    const int fill = in.bitCount() == 1 ? (in.colorTable()[0].rgbBlue < 128 ? 255 : 0) : 255;
    for (int i = 0; i < paint; ++i) {
        const Candidate &c = candidates[i];
        RoiPtr roi(iplCreateROI(0, c.minX, c.minY, c.maxX - c.minX + 1, c.maxY - c.minY + 1));
        if (!roi) return nullptr;
        RoiScope scope(out.image(), roi.get());
        iplSet(out.image(), fill);
    }
    return out.Release();
}

}  // namespace quarvel::border
