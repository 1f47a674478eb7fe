// Crop: cut a rectangle out of a page onto a fresh white canvas.
//
// The rectangle is the caller's region, or the extent of the page's print
// found by a content search (on a gray copy of the searched region: from each
// side inward, the first run of five consecutive dark lines, a dark line
// holding at least two pixels below 127), or the whole page. The canvas adds
// a border around it, or has a fixed target size into which it is fitted and
// centred. The crop box goes back to the caller in storage coordinates (rows
// counted from the bottom of the page).
//
// Our decisions where the caller's values would reach outside the page or
// the canvas: a region is clipped to the page (NULL if nothing is left); a
// negative border or border width, an empty target size or a null rectangle
// gives NULL.
#include <algorithm>
#include <cstdlib>
#include <vector>

#include "frame/convert.h"
#include "frame/round.h"
#include "frame/view.h"
#include "geometry/geometry.h"
#include "platform/rect.h"

namespace quarvel::geometry {

namespace {

// Index of the line that completes five consecutive dark lines, walking from
// `from` by `step` (stopping before `end`), or -1.
int FindFifthDarkLine(const std::vector<int> &darkCount, int from, int end, int step) {
    int run = 0;
    for (int i = from; i != end; i += step) {
        if (i < 0 || i >= static_cast<int>(darkCount.size())) break;
        run = darkCount[i] >= 2 ? run + 1 : 0;
        if (run == 5) return i;
    }
    return -1;
}

int LowEdge(int found) { return found > 6 ? found - 6 : 0; }
int HighEdge(int found, int size) {
    if (found <= 0) return size - 1;
    return size - found > 6 ? found + 6 : size - 1;
}

// The content box within region r (storage coordinates), or r itself when
// the box found is narrower or lower than 15 pixels.
RECT ContentBox(IplImage *view, const BITMAPINFOHEADER *header, const RECT &r) {
    RoiPtr roi(iplCreateROI(0, r.left, r.top, r.right - r.left, r.bottom - r.top));
    ImagePtr gray = roi ? MakeGrayImage(view, roi.get(), header) : nullptr;
    if (!gray) return r;
    const int wg = gray->width, hg = gray->height;
    std::vector<int> rowDark(static_cast<std::size_t>(hg), 0), colDark(static_cast<std::size_t>(wg), 0);
    for (int y = 0; y < hg; ++y) {
        const std::uint8_t *row = RowOf(*gray, y);
        int n = 0;
        for (int x = 0; x < wg; ++x) {
            if (row[x] < 127) {
                ++n;
                if (colDark[x] < 3) ++colDark[x];
            }
        }
        rowDark[y] = n;
    }
    const int yBottom = FindFifthDarkLine(rowDark, RoundToInt(0.01 * hg), hg, 1);
    const int yTop = FindFifthDarkLine(rowDark, RoundToInt(0.99 * hg) - 1, -1, -1);
    const int xLeft = FindFifthDarkLine(colDark, RoundToInt(0.01 * wg), wg, 1);
    const int xRight = FindFifthDarkLine(colDark, RoundToInt(0.99 * wg) - 1, -1, -1);
    const int yLo = yBottom < 0 ? 0 : LowEdge(yBottom);
    const int yHi = HighEdge(yTop, hg);
    const int xLo = xLeft < 0 ? 0 : LowEdge(xLeft);
    const int xHi = HighEdge(xRight, wg);
    RECT box{r.left + xLo, r.top + yLo, r.left + xHi, r.top + yHi};
    if (box.right - box.left < 15 || box.bottom - box.top < 15) return r;
    return box;
}

// Cuts or widens [lo, hi) toward `target` within a page of `size`.
void FitSpan(LONG *lo, LONG *hi, int target, int size) {
    const int width = *hi - *lo;
    if (width > target) {
        *lo = (*hi + *lo) / 2 - target / 2;
        *hi = *lo + target;
    } else if (width < target) {
        const int grow = std::min({(target - width) / 2, static_cast<int>(*lo), size - static_cast<int>(*hi) - 1});
        *lo -= grow;
        *hi += grow;
    }
}

}  // namespace

HGLOBAL Crop(HGLOBAL hDib, RECT *rect, int mode, int border) {
    if (rect == nullptr) return nullptr;
    if (mode < 0 || mode > 5) mode = 1;
    LockedDib in(hDib, kImageDepths);
    if (!in.ok()) return nullptr;
    ImagePtr view = DibToIplImage(in.header());
    if (!view) return nullptr;
    const int w = in.width(), h = in.height();
    const RECT page{0, 0, w, h};

    RECT r = page;
    if (mode == 0 || mode == 1) {
        const RECT asked = FlipRows(*rect, h);
        if (!IntersectRect(&r, &asked, &page)) return nullptr;
    }
    if ((mode <= 2 && border < 0) ||
        (mode == 3 && (rect->left < 0 || rect->right < 0 || rect->top < 0 || rect->bottom < 0)))
        return nullptr;
    const long long targetW = std::llabs(static_cast<long long>(rect->right) - rect->left);
    const long long targetH = std::llabs(static_cast<long long>(rect->bottom) - rect->top);
    if ((mode == 4 || mode == 5) && (targetW == 0 || targetH == 0 || targetW > INT32_MAX || targetH > INT32_MAX))
        return nullptr;

    RECT box = r;
    if (mode != 0 && mode != 5) box = ContentBox(view.get(), in.header(), r);
    if (mode == 4 || mode == 5) {
        FitSpan(&box.left, &box.right, static_cast<int>(targetW), w);
        FitSpan(&box.top, &box.bottom, static_cast<int>(targetH), h);
    }
    const int boxW = box.right - box.left, boxH = box.bottom - box.top;

    long long canvasW, canvasH, offX, offY;
    if (mode == 3) {
        canvasW = static_cast<long long>(boxW) + rect->left + rect->right;
        canvasH = static_cast<long long>(boxH) + rect->top + rect->bottom;
        offX = rect->left, offY = rect->top;
    } else if (mode == 4 || mode == 5) {
        canvasW = targetW, canvasH = targetH;
        offX = targetW / 2 - boxW / 2, offY = targetH / 2 - boxH / 2;
    } else {
        canvasW = boxW + 2LL * border, canvasH = boxH + 2LL * border;
        offX = offY = border;
    }
    if (!ResultSizeAllowed(canvasW, canvasH, w, h)) return nullptr;

    *rect = box;
    ResultBlock out = ResultBlock::Rewritten(in, FormatOf(*view), static_cast<int>(canvasW), static_cast<int>(canvasH),
                                             NewTable::kKeep);
    if (!out) return nullptr;
    out.Fill(BackgroundValue(in.header()));
    if (boxW > 0 && boxH > 0) {
        RoiPtr from(iplCreateROI(0, box.left, box.top, boxW, boxH));
        RoiPtr to(iplCreateROI(0, static_cast<int>(offX), static_cast<int>(offY), boxW, boxH));
        if (!from || !to) return nullptr;
        RoiScope fromScope(view.get(), from.get());
        RoiScope toScope(out.image(), to.get());
        iplCopy(view.get(), out.image());  // a box reaching past the canvas copies nothing
    }
    return out.Release();
}

}  // namespace quarvel::geometry
