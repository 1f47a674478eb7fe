// Geometry quality on real pages: skew, sheet and frame, content box,
// orientation, and what cleaning keeps and removes, scored against the hand
// annotations in truth-geometry.tsv and printed beside Leptonica's skew
// search and unpaper's deskew and border handling in the same run.
//
//   quality_geometry PAGES_DIR
//
// Scores per page: skew error (degrees, our sign: positive when lines fall
// toward the right), sheet-box IoU, whether the content box lies inside the
// detected sheet, orientation of the page and of its 90/180/270 turns, and
// after cleaning (deskew + crop): the dark share of the output's outer band
// on the framed sides (frame left) and the ink kept (the ink darkness of the whole output over
// that inside the true content box of the input; see InkIn). Times are medians of three runs, one thread.
// Skew is also scored on the text pages turned 90, 180 and 270 degrees (a
// quarter turn leaves it as it was). Orientation also counts the wrong
// answers at the default turning confidence (0.6): those cleaning would act
// on. QUALITY_ONLY=name scores the pages whose name holds it;
// QUALITY_NO_UNPAPER=1 leaves unpaper out.
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <unistd.h>

#include "formats.h"
#include "quarvel/quarvel.h"
#include "quarvel/scan.h"
#include "truth.h"

#ifdef QUARVEL_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

using Truth = quality::GeometryTruth;

// Gray, top row first, from any page the library reads.
struct Gray {
    int w = 0, h = 0;
    std::vector<std::uint8_t> px;
    std::uint8_t at(int x, int y) const { return px[static_cast<std::size_t>(y) * w + x]; }
};

Gray ToGray(HGLOBAL page) {
    Gray g;
    auto *b = static_cast<std::uint8_t *>(GlobalLock(page));
    auto *h = reinterpret_cast<BITMAPINFOHEADER *>(b);
    g.w = h->biWidth;
    g.h = std::abs(h->biHeight);
    const int bits = h->biBitCount;
    const int colors = bits <= 8 ? (h->biClrUsed ? static_cast<int>(h->biClrUsed) : 1 << bits) : 0;
    auto *table = reinterpret_cast<RGBQUAD *>(b + h->biSize);
    const std::uint8_t *rows = b + h->biSize + 4 * colors;
    const std::size_t stride = ((static_cast<std::size_t>(g.w) * bits + 31) / 32) * 4;
    auto luma = [](int bl, int gr, int r) { return static_cast<std::uint8_t>((299 * r + 587 * gr + 114 * bl) / 1000); };
    g.px.resize(static_cast<std::size_t>(g.w) * g.h);
    for (int y = 0; y < g.h; ++y) {
        const std::uint8_t *s = rows + stride * static_cast<std::size_t>(h->biHeight > 0 ? g.h - 1 - y : y);
        for (int x = 0; x < g.w; ++x) {
            int v;
            if (bits <= 8) {
                const int idx = bits == 8 ? s[x] : bits == 4 ? (s[x / 2] >> (x & 1 ? 0 : 4)) & 15 : (s[x / 8] >> (7 - x % 8)) & 1;
                const RGBQUAD q = idx < colors ? table[idx] : RGBQUAD{0, 0, 0, 0};
                v = luma(q.rgbBlue, q.rgbGreen, q.rgbRed);
            } else {
                const std::uint8_t *p = s + x * (bits / 8);
                v = luma(p[0], p[1], p[2]);
            }
            g.px[static_cast<std::size_t>(y) * g.w + x] = static_cast<std::uint8_t>(v);
        }
    }
    GlobalUnlock(page);
    return g;
}

double Iou(const RECT &a, const RECT &b) {
    const double iw = std::max(0L, static_cast<long>(std::min(a.right, b.right) - std::max(a.left, b.left)));
    const double ih = std::max(0L, static_cast<long>(std::min(a.bottom, b.bottom) - std::max(a.top, b.top)));
    const double u = double(a.right - a.left) * (a.bottom - a.top) + double(b.right - b.left) * (b.bottom - b.top) - iw * ih;
    return u > 0 ? iw * ih / u : 0.0;
}

bool Inside(const RECT &in, const RECT &out) {
    return in.left >= out.left && in.top >= out.top && in.right <= out.right && in.bottom <= out.bottom;
}

template <class F>
double MedianMs(F f) {
    std::array<double, 3> ms{};
    for (double &m : ms) {
        const auto t0 = std::chrono::steady_clock::now();
        f();
        m = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    }
    std::sort(ms.begin(), ms.end());
    return ms[1];
}

int PaperLevel(const Gray &g) {
    std::vector<int> hist(256, 0);
    for (std::uint8_t v : g.px) ++hist[v];
    long seen = 0;
    for (int v = 0; v < 256; ++v)
        if ((seen += hist[v]) * 10 >= static_cast<long>(g.px.size()) * 9) return v;
    return 255;
}

// Darkness of the ink in a box: the sum of how far each pixel lies below
// the paper level less a noise allowance. Unlike a count of dark pixels it
// survives resampling: a stroke blurred over two pixels by a turn keeps most
// of its sum.
// With nearPaperOnly, only pixels with paper (over 70 % of its level)
// within 0.5 % of the short side count: strokes lie near paper, while the
// inside of a scanner frame's wedge reaching into a skewed page's content
// box does not. The input is measured so; the output counts every pixel, so
// frame left behind never lowers the share kept (FrameLeft reports it).
double InkIn(const Gray &g, const RECT &r, int paper, bool nearPaperOnly) {
    const int floor = paper - 16;
    const int reach = std::max(2, std::min(g.w, g.h) / 200);
    std::vector<int> bright(static_cast<std::size_t>(g.w + 1) * (g.h + 1), 0);  // summed-area table
    for (int y = 0; y < g.h; ++y)
        for (int x = 0; x < g.w; ++x)
            bright[static_cast<std::size_t>(y + 1) * (g.w + 1) + x + 1] = (g.at(x, y) * 10 > paper * 7) +
                bright[static_cast<std::size_t>(y) * (g.w + 1) + x + 1] + bright[static_cast<std::size_t>(y + 1) * (g.w + 1) + x] -
                bright[static_cast<std::size_t>(y) * (g.w + 1) + x];
    auto nearPaper = [&](int x, int y) {
        const int x0 = std::max(0, x - reach), x1 = std::min(g.w, x + reach + 1);
        const int y0 = std::max(0, y - reach), y1 = std::min(g.h, y + reach + 1);
        const std::size_t w = static_cast<std::size_t>(g.w + 1);
        return bright[y1 * w + x1] - bright[y0 * w + x1] - bright[y1 * w + x0] + bright[y0 * w + x0] > 0;
    };
    double sum = 0;
    for (int y = std::max(0, int(r.top)); y < std::min<int>(g.h, r.bottom); ++y)
        for (int x = std::max(0, int(r.left)); x < std::min<int>(g.w, r.right); ++x) {
            const int d = floor - g.at(x, y);
            if (d > 0 && (!nearPaperOnly || nearPaper(x, y))) sum += d;
        }
    return sum;
}

// Dark share of the outer band (1 % of the short side) of a cleaned page,
// on the sides the input had a frame on: text running to an unframed edge
// is content, not frame left behind.
double FrameLeft(const Gray &g, unsigned sides) {
    const int band = std::max(2, std::min(g.w, g.h) / 100);
    long dark = 0, all = 0;
    for (int y = 0; y < g.h; ++y)
        for (int x = 0; x < g.w; ++x) {
            const bool inBand = ((sides & QUARVEL_SIDE_LEFT) && x < band) || ((sides & QUARVEL_SIDE_TOP) && y < band) ||
                                ((sides & QUARVEL_SIDE_RIGHT) && x >= g.w - band) ||
                                ((sides & QUARVEL_SIDE_BOTTOM) && y >= g.h - band);
            if (!inBand) continue;
            ++all;
            dark += g.at(x, y) < 80;
        }
    return all ? double(dark) / all : 0.0;
}

struct Cleaned {
    double frameLeft = 0, kept = 0;
};

// Frame left and ink kept for a cleaned page against its input.
Cleaned ScoreClean(const Gray &in, const Gray &out, const Truth &t) {
    Cleaned c;
    const int inPaper = PaperLevel(in), outPaper = PaperLevel(out);
    const double before = InkIn(in, t.content, inPaper, true);
    const double after = InkIn(out, RECT{0, 0, out.w, out.h}, outPaper, false);
    c.kept = before > 0 ? std::min(1.0, double(after) / before) : 1.0;
    c.frameLeft = t.sides ? FrameLeft(out, t.sides) : 0.0;
    return c;
}

#ifdef QUARVEL_HAVE_LEPTONICA
// Leptonica's sweep-and-search on the page thresholded at half its paper level.
bool LeptonicaSkew(const Gray &g, double *angle, double *ms) {
    PIX *pix = pixCreate(g.w, g.h, 8);
    for (int y = 0; y < g.h; ++y)
        for (int x = 0; x < g.w; ++x) pixSetPixel(pix, x, y, g.at(x, y));
    PIX *bin = pixThresholdToBinary(pix, PaperLevel(g) / 2);
    l_float32 a = 0, conf = 0;
    int rc = 1;
    *ms = MedianMs([&] { rc = pixFindSkewSweepAndSearch(bin, &a, &conf, 4, 2, 7.0f, 1.0f, 0.01f); });
    pixDestroy(&bin);
    pixDestroy(&pix);
    // Leptonica's angle is the turn that straightens the page, clockwise
    // positive as displayed: lines falling toward the right need a
    // counter-clockwise turn, so the sign flips into ours.
    *angle = -a;
    return rc == 0 && conf > 0;
}
#endif

// unpaper with its defaults (deskew within +-5 degrees, border and mask
// detection, filters) on a PNM copy; its verbose log gives the rotation it
// applied (none when its edge estimates disagree).
struct Unpaper {
    bool ran = false;
    bool hasAngle = false;
    double angle = 0, ms = 0;
    Gray out;
};

Unpaper RunUnpaper(const qtool::Page &page) {
    Unpaper u;
    const std::string dir = "/tmp/quality_geometry." + std::to_string(getpid());
    std::system(("mkdir -p " + dir).c_str());
    const std::string in = dir + "/in.pnm", out = dir + "/out.pnm", log = dir + "/log.txt";
    qtool::WriteImage(in, {&page});
    const std::string cmd = "unpaper -v --overwrite " + in + " " + out + " > " + log + " 2>&1";
    const auto t0 = std::chrono::steady_clock::now();
    const int rc = std::system(cmd.c_str());
    u.ms = std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - t0).count();
    if (rc != 0) return u;
    std::ifstream l(log);
    std::string line;
    while (std::getline(l, line)) {
        // "rotate (x,y): angle": the turn unpaper applied, in radians, with
        // our sign (its "detected rotation" lines read -0.0384 on
        // deskew-2, which falls 2.2 degrees to the left).
        if (line.rfind("rotate (", 0) == 0) {
            const auto colon = line.find(':');
            if (colon != std::string::npos) {
                u.angle = std::atof(line.c_str() + colon + 1) * 180.0 / 3.14159265358979323846;
                u.hasAngle = true;
            }
        }
    }
    try {
        auto pages = qtool::ReadImage(out);
        if (!pages.empty()) {
            u.out = ToGray(pages[0].get());
            u.ran = true;
        }
    } catch (const std::exception &) {
    }
    std::system(("rm -rf " + dir).c_str());
    return u;
}

// The gray page turned counter-clockwise (as displayed) q quarter turns, as
// an 8-bit gray page carrying the original's resolution (x and y swapped on
// odd turns), so turn 0 is the page as the user stored it, tag and all.
qtool::Page TurnedGray(const Gray &g, int q, HGLOBAL original) {
    Gray t = g;
    for (int i = 0; i < q; ++i) {
        Gray n;
        n.w = t.h;
        n.h = t.w;
        n.px.resize(t.px.size());
        for (int y = 0; y < n.h; ++y)
            for (int x = 0; x < n.w; ++x) n.px[static_cast<std::size_t>(y) * n.w + x] = t.at(t.w - 1 - y, x);
        t = std::move(n);
    }
    qtool::Page page = qtool::NewPage(t.w, t.h, 8, qtool::GrayTable());
    auto *b = static_cast<std::uint8_t *>(GlobalLock(page.get()));
    auto *h = reinterpret_cast<BITMAPINFOHEADER *>(b);
    if (const auto *o = static_cast<const BITMAPINFOHEADER *>(GlobalLock(original))) {
        h->biXPelsPerMeter = q % 2 ? o->biYPelsPerMeter : o->biXPelsPerMeter;
        h->biYPelsPerMeter = q % 2 ? o->biXPelsPerMeter : o->biYPelsPerMeter;
        GlobalUnlock(original);
    }
    std::uint8_t *rows = b + h->biSize + 4 * 256;
    const std::size_t stride = (static_cast<std::size_t>(t.w) + 3) / 4 * 4;
    for (int y = 0; y < t.h; ++y) std::memcpy(rows + stride * (t.h - 1 - y), &t.px[static_cast<std::size_t>(y) * t.w], t.w);
    GlobalUnlock(page.get());
    return page;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: quality_geometry PAGES_DIR\n");
        return 2;
    }
    const std::string pages = argv[1];
    const std::vector<Truth> truth = quality::ReadGeometryTruth(std::string(QUARVEL_QUALITY_DIR) + "/truth-geometry.tsv");
    if (truth.empty()) {
        std::fprintf(stderr, "quality_geometry: no truth file\n");
        return 2;
    }
    std::printf("%-24s %7s %7s %7s %7s | %5s %5s %4s | %3s %5s | %5s %5s %5s %5s | %6s %6s %6s\n", "page", "truth", "ours",
                "lept", "unpap", "iou", "sides", "in", "ori", "turns", "frOur", "frUnp", "kOur", "kUnp", "msDet",
                "msCln", "msUnp");
    struct Sum {
        int n = 0;
        double total = 0, worst = 0;
        void add(double e) {
            ++n;
            total += e;
            worst = std::max(worst, e);
        }
    } skewOurs, skewLept, skewUnp, skewTurns, iouFramed, iouPlain;
    int contentInside = 0, oriRight = 0, oriWrongSure = 0, oriTotal = 0, pagesDone = 0, frameLeftOurs = 0, frameLeftUnp = 0, cutOurs = 0, cutUnp = 0;
    double minIouFramed = 1, minIouPlain = 1, detMs = 0, clnMs = 0, unpMs = 0, leptMs = 0;
    double minKeptOurs = 1, minKeptUnp = 1;
    const char *only = std::getenv("QUALITY_ONLY");
    for (const Truth &t : truth) {
        if (only != nullptr && t.file.find(only) == std::string::npos) continue;
        std::vector<qtool::Page> read;
        try {
            read = qtool::ReadImage(pages + "/" + t.file);
        } catch (const std::exception &e) {
            std::printf("%-24s unreadable: %s\n", t.file.c_str(), e.what());
            continue;
        }
        if (read.empty()) continue;
        ++pagesDone;
        HGLOBAL page = read[0].get();
        const Gray gray = ToGray(page);

        QuarvelPageReport r{};
        r.size = sizeof r;
        const double det = MedianMs([&] { QuarvelAnalyzePage(page, nullptr, &r); });
        QuarvelScanOptions o;
        QuarvelDefaultOptions(&o);
        o.steps = QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_CROP;
        HGLOBAL cleaned = nullptr;
        const double cln = MedianMs([&] {
            if (cleaned) GlobalFree(cleaned);
            cleaned = QuarvelCleanPage(page, &o, nullptr);
        });
        const Cleaned ours = cleaned ? ScoreClean(gray, ToGray(cleaned), t) : Cleaned{};
        if (cleaned) GlobalFree(cleaned);
        detMs += det;
        clnMs += cln;

        double lept = NAN, lms = 0;
#ifdef QUARVEL_HAVE_LEPTONICA
        if (!LeptonicaSkew(gray, &lept, &lms)) lept = 0;
        leptMs += lms;
#endif
        const Unpaper u = std::getenv("QUALITY_NO_UNPAPER") ? Unpaper{} : RunUnpaper(read[0]);
        const Cleaned theirs = u.ran ? ScoreClean(gray, u.out, t) : Cleaned{};
        unpMs += u.ms;

        const double iou = Iou(r.sheet, t.sheet);
        (t.sides ? iouFramed : iouPlain).add(iou);
        (t.sides ? minIouFramed : minIouPlain) = std::min(t.sides ? minIouFramed : minIouPlain, iou);
        const bool inside = !r.has_content || Inside(r.content, r.sheet);
        contentInside += inside;
        if (t.hasSkew) {
            skewOurs.add(std::abs(r.skew_angle - t.skew));
            skewLept.add(std::abs(lept - t.skew));
            skewUnp.add(std::abs((u.hasAngle ? u.angle : 0.0) - t.skew));
        }
        std::string turns = "-";
        if (t.text) {
            turns.clear();
            for (int q = 0; q < 4; ++q) {
                const qtool::Page turned = TurnedGray(gray, q, page);
                QuarvelPageReport tr{};
                tr.size = sizeof tr;
                QuarvelAnalyzePage(turned.get(), nullptr, &tr);
                // q counter-clockwise turns need q * 90 clockwise to be upright.
                const bool right = tr.orientation == q * 90;
                oriRight += right;
                oriWrongSure += !right && tr.orientation_confidence >= 0.6;
                // A quarter turn leaves the skew as it was.
                if (t.hasSkew && q > 0) skewTurns.add(std::abs(tr.skew_angle - t.skew));
                ++oriTotal;
                turns += right ? '+' : '-';
            }
        }
        if (t.sides) {
            frameLeftOurs += ours.frameLeft > 0.02;
            frameLeftUnp += theirs.frameLeft > 0.02;
        }
        cutOurs += ours.kept < 0.98;
        cutUnp += theirs.kept < 0.98;
        minKeptOurs = std::min(minKeptOurs, ours.kept);
        minKeptUnp = std::min(minKeptUnp, theirs.kept);
        char truthSkew[16] = "-";
        if (t.hasSkew) std::snprintf(truthSkew, sizeof truthSkew, "%.2f", t.skew);
        std::printf("%-24s %7s %7.2f %7.2f %7.2f | %5.3f %2x/%-2x %4s | %3d %5s | %5.3f %5.3f %5.3f %5.3f | %6.1f %6.1f %6.0f\n",
                    t.file.c_str(), truthSkew, r.skew_angle, lept, u.hasAngle ? u.angle : 0.0, iou, r.frame_sides,
                    t.sides, inside ? "yes" : "NO", r.orientation, turns.c_str(), ours.frameLeft, theirs.frameLeft,
                    ours.kept, theirs.kept, det, cln, u.ms);
        std::printf("%-24s conf skew %.2f orient %.2f sheet %ld,%ld,%ld,%ld content %ld,%ld,%ld,%ld\n", "",
                    r.skew_confidence, r.orientation_confidence, long(r.sheet.left), long(r.sheet.top),
                    long(r.sheet.right), long(r.sheet.bottom), long(r.content.left), long(r.content.top),
                    long(r.content.right), long(r.content.bottom));
    }
    if (pagesDone == 0) return 2;
    auto mean = [](const Sum &s) { return s.n ? s.total / s.n : 0.0; };
    std::printf("\n%-34s %10s %10s %10s\n", "summary", "quarvel", "leptonica", "unpaper");
    std::printf("%-34s %10.3f %10.3f %10.3f\n", "skew mean |error| (deg)", mean(skewOurs), mean(skewLept), mean(skewUnp));
    std::printf("%-34s %10.3f %10.3f %10.3f\n", "skew worst |error| (deg)", skewOurs.worst, skewLept.worst, skewUnp.worst);
    std::printf("%-34s %10.3f %10s %10s\n", "skew mean |error|, turned pages", mean(skewTurns), "-", "-");
    std::printf("%-34s %10.3f %10s %10s\n", "skew worst |error|, turned pages", skewTurns.worst, "-", "-");
    std::printf("%-34s %10.3f %10s %10s\n", "sheet IoU mean, framed", mean(iouFramed), "-", "-");
    std::printf("%-34s %10.3f %10s %10s\n", "sheet IoU worst, framed", minIouFramed, "-", "-");
    std::printf("%-34s %10.3f %10s %10s\n", "sheet IoU worst, unframed", minIouPlain, "-", "-");
    std::printf("%-34s %7d/%-2d %10s %10s\n", "content box inside sheet", contentInside, pagesDone, "-", "-");
    std::printf("%-34s %7d/%-2d %10s %10s\n", "orientation right (4 turns each)", oriRight, oriTotal, "-", "-");
    std::printf("%-34s %7d/%-2d %10s %10s\n", "orientation wrong, confidence>=0.6", oriWrongSure, oriTotal, "-", "-");
    std::printf("%-34s %10d %10s %10d\n", "framed pages with frame left", frameLeftOurs, "-", frameLeftUnp);
    std::printf("%-34s %10d %10s %10d\n", "pages with ink cut (kept < 98%)", cutOurs, "-", cutUnp);
    std::printf("%-34s %10.3f %10s %10.3f\n", "least ink kept", minKeptOurs, "-", minKeptUnp);
    std::printf("%-34s %10.1f %10.1f %10.1f\n", "ms per page: detect (lept: skew)", detMs / pagesDone, leptMs / pagesDone,
                unpMs / pagesDone);
    std::printf("%-34s %10.1f %10s %10s\n", "ms per page: clean", clnMs / pagesDone, "-", "(with I/O)");
    if (std::getenv("QUALITY_NO_UNPAPER")) std::printf("(unpaper left out: its columns are empty)\n");
    return 0;
}
