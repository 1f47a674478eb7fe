// FindPageRect and RemoveBorder: the page box inside a dark scanner frame,
// and the page cut out along it.
//
// Each scan walks lines inward from one side of the gray image and stops at
// the line that completes a run of four page lines; a line is a page line
// once a tenth of its pixels (counted from its start) are brighter than the
// threshold, so a scan reads only a few lines near each edge. On images of
// 510 pixels or more across a scan, the edge then moves a fixed margin
// inward (20 across the longer side, 15 across the shorter).
#include <algorithm>

#include "border/border.h"
#include "frame/convert.h"
#include "frame/view.h"

namespace quarvel::border {

namespace {

struct Scan {
    int found;      // the line completing the run, or -1
    int lastCount;  // the bright count of the last line examined
};

// Lines first, first + step, ... (count of them); `count(i, limit)` gives
// the bright count of line i, stopping at the limit.
template <class Count>
Scan RunOfFour(int first, int step, int lines, int limit, Count count) {
    int run = 0, last = 0;
    for (int k = 0; k < lines; ++k) {
        const int line = first + k * step;
        last = count(line, limit);
        run = last >= limit ? run + 1 : 0;
        if (run == 4) return Scan{line, last};
    }
    return Scan{-1, last};
}

}  // namespace

void FindPageRect(const BITMAPINFOHEADER *header, const IplImage &gray, int threshold, RECT *box) {
    const int w = gray.width, h = gray.height;
    const int rowLimit = static_cast<int>(0.1 * w), colLimit = static_cast<int>(0.1 * h);
    auto rowCount = [&](int y, int limit) {
        const std::uint8_t *row = RowOf(gray, y);
        int n = 0;
        for (int x = 0; x < w; ++x) {
            if (row[x] > threshold) ++n;
            if (n >= limit) break;
        }
        return n;
    };
    auto colCount = [&](int x, int limit) {
        int n = 0;
        for (int y = 0; y < h; ++y) {
            if (RowOf(gray, y)[x] > threshold) ++n;
            if (n >= limit) break;
        }
        return n;
    };
    const Scan top = RunOfFour(0, 1, h, rowLimit, rowCount);
    const Scan bottom = RunOfFour(h - 1, -1, h, rowLimit, rowCount);
    const Scan left = RunOfFour(0, 1, w, colLimit, colCount);
    const Scan right = RunOfFour(w - 1, -1, w, colLimit, colCount);
    RECT r;
    r.top = top.found >= 0 ? top.found : 0;
    r.bottom = bottom.found > 0 ? bottom.found : h - 1;
    r.left = left.found >= 0 ? left.found : 0;
    r.right = right.found > 0 ? right.found : w - 1;
    const int a = w > h ? 20 : 15, b = w > h ? 15 : 20;
    if (top.lastCount > 50) r.top += a;
    if (bottom.lastCount > 50) r.bottom -= a;
    if (left.lastCount > 50) r.left += b;
    if (right.lastCount > 50) r.right -= b;
    if (r.right - r.left < 20 || r.bottom - r.top < 20) {
        r.left = (w - header->biWidth) / 2;
        r.top = (h - header->biHeight) / 2;
        r.right = r.left + header->biWidth;
        r.bottom = r.top + header->biHeight;
    }
    *box = r;
}

HGLOBAL RemoveBorder(HGLOBAL hDib, int nThreshold) {
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    RECT box;
    {
        ImagePtr gray = ExpandBitonalToGray(view.get(), in.header());
        if (!gray) return nullptr;
        FindPageRect(in.header(), *gray, nThreshold, &box);
    }
    // The box lies inside the page; clip anyway so no copy can leave it.
    box.left = std::max<LONG>(box.left, 0), box.top = std::max<LONG>(box.top, 0);
    box.right = std::min<LONG>(box.right, in.width()), box.bottom = std::min<LONG>(box.bottom, in.height());
    const int w = box.right - box.left, h = box.bottom - box.top;
    if (w <= 0 || h <= 0) return nullptr;
    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(*view), w, h, NewTable::kKeep);
    if (!out) return nullptr;
    RoiPtr roi(iplCreateROI(0, box.left, box.top, w, h));
    if (!roi) return nullptr;
    RoiScope scope(view.get(), roi.get());
    iplCopy(view.get(), out.image());  // the box, pixel for pixel
    return out.Release();
}

}  // namespace quarvel::border
