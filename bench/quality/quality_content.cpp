// Quality of the content analyses on real pages: punch holes, blank pages,
// content colour mode and binarisation, scored against truth-content.txt and
// printed beside unpaper and Leptonica where they do the same job.
//
//   quality_content PAGES_DIR [ONE_PAGE]
//
// Holes: a truth hole is found when a reported centre lies within its radius;
// any other report is a false alarm. On pages without holes, hole filling must
// change no pixel. unpaper's black filter, its nearest job, runs beside: the
// pixels it changes on hole-free pages, the holes it clears on the others.
// Blank and mode verdicts are compared one by one. Binarisation: F-measure on
// ink pixels against each page's ground-truth binarisation, with Leptonica's
// Sauvola and background-normalised Otsu on the same page and window.
// Timings are medians of 5 runs of processor time in this process (run it
// with OPENCV_FOR_THREADS_NUM=1 for one thread).
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "formats.h"
#include "page.h"
#include "quarvel/scan.h"

#ifdef QUARVEL_HAVE_LEPTONICA
#include <leptonica/allheaders.h>
#endif

namespace {

struct TruthHole {
    double cx, cy, r;
};

struct Truth {
    std::string file;
    std::vector<TruthHole> holes;
    int blank = -1;  // -1: not annotated
    int mode = 0;
    std::string binTruth;  // ground-truth binarisation file, if any
};

std::vector<Truth> ReadTruth(const std::string &path) {
    std::vector<Truth> out;
    std::ifstream in(path);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') continue;
        std::istringstream s(line);
        Truth t;
        s >> t.file;
        std::string field;
        while (s >> field) {
            const auto eq = field.find('=');
            if (eq == std::string::npos) continue;
            const std::string key = field.substr(0, eq), value = field.substr(eq + 1);
            if (key == "blank") t.blank = std::atoi(value.c_str());
            if (key == "mode") t.mode = std::atoi(value.c_str());
            if (key == "bin") t.binTruth = value;
            if (key == "holes" && value != "-") {
                std::istringstream hs(value);
                std::string one;
                while (std::getline(hs, one, ';')) {
                    TruthHole h{};
                    if (std::sscanf(one.c_str(), "%lf,%lf,%lf", &h.cx, &h.cy, &h.r) == 3) t.holes.push_back(h);
                }
            }
        }
        out.push_back(t);
    }
    return out;
}

// Top-down gray levels of a page (palette applied).
std::vector<std::uint8_t> GrayOf(const qtool::Page &page, int *w, int *h) {
    qtool::Locked l(page.get());
    *w = l.width();
    *h = std::abs(l.height());
    std::vector<std::uint8_t> out(static_cast<std::size_t>(*w) * *h);
    const RGBQUAD *table = l.bits() <= 8 ? l.table() : nullptr;
    const std::uint32_t entries = l.bits() <= 8 ? l.colors() : 0;
    auto lumaOf = [](int b, int g, int r) {
        return static_cast<std::uint8_t>((306 * r + 601 * g + 117 * b + 512) >> 10);
    };
    for (int y = 0; y < *h; ++y) {
        const std::uint8_t *row = l.displayRow(y);
        for (int x = 0; x < *w; ++x) {
            int v = 0;
            if (l.bits() <= 8) {
                const int per = 8 / l.bits();
                const int idx = (row[x / per] >> ((per - 1 - x % per) * l.bits())) & ((1 << l.bits()) - 1);
                v = static_cast<std::uint32_t>(idx) < entries
                        ? lumaOf(table[idx].rgbBlue, table[idx].rgbGreen, table[idx].rgbRed)
                        : idx;
            } else {
                const int bpp = l.bits() / 8;
                v = lumaOf(row[x * bpp], row[x * bpp + 1], row[x * bpp + 2]);
            }
            out[static_cast<std::size_t>(y) * *w + x] = static_cast<std::uint8_t>(v);
        }
    }
    return out;
}

// Median processor time of `runs` calls in milliseconds (all threads of the
// process, so a shared machine's load does not count).
template <typename F>
double MedianMs(F &&f, int runs = 5) {
    std::vector<double> t;
    for (int i = 0; i < runs; ++i) {
        const std::clock_t a = std::clock();
        f();
        t.push_back(1000.0 * static_cast<double>(std::clock() - a) / CLOCKS_PER_SEC);
    }
    std::sort(t.begin(), t.end());
    return t[t.size() / 2];
}

double FMeasure(const std::vector<std::uint8_t> &got, const std::vector<std::uint8_t> &truth) {
    double tp = 0, fp = 0, fn = 0;
    for (std::size_t i = 0; i < got.size() && i < truth.size(); ++i) {
        const bool g = got[i] < 128, t = truth[i] < 128;
        tp += g && t;
        fp += g && !t;
        fn += !g && t;
    }
    return tp > 0 ? 2 * tp / (2 * tp + fp + fn) : 0.0;
}

#ifdef QUARVEL_HAVE_LEPTONICA
PIX *PixOfGray(const std::vector<std::uint8_t> &g, int w, int h) {
    PIX *pix = pixCreate(w, h, 8);
    for (int y = 0; y < h; ++y) {
        l_uint32 *line = pixGetData(pix) + y * pixGetWpl(pix);
        for (int x = 0; x < w; ++x) SET_DATA_BYTE(line, x, g[static_cast<std::size_t>(y) * w + x]);
    }
    return pix;
}

std::vector<std::uint8_t> GrayOfPix1(PIX *pix) {
    const int w = pixGetWidth(pix), h = pixGetHeight(pix);
    std::vector<std::uint8_t> out(static_cast<std::size_t>(w) * h);
    for (int y = 0; y < h; ++y) {
        const l_uint32 *line = pixGetData(pix) + y * pixGetWpl(pix);
        for (int x = 0; x < w; ++x) out[static_cast<std::size_t>(y) * w + x] = GET_DATA_BIT(line, x) ? 0 : 255;
    }
    return out;
}
#endif

// Pixels of the page image that differ between two pages of the same layout.
long ChangedPixels(const qtool::Page &a, const qtool::Page &b) {
    int wa, ha, wb, hb;
    const auto ga = GrayOf(a, &wa, &ha), gb = GrayOf(b, &wb, &hb);
    if (wa != wb || ha != hb) return -1;
    long n = 0;
    for (std::size_t i = 0; i < ga.size(); ++i) n += ga[i] != gb[i];
    return n;
}

// unpaper's black filter alone (its nearest job to hole removal; it has no
// blank-page test), through PGM files: the page it returns, or nothing.
std::vector<std::uint8_t> UnpaperBlackFilter(const std::vector<std::uint8_t> &g, int w, int h) {
    char in[] = "/tmp/quality_content_XXXXXX";
    const int fd = mkstemp(in);
    if (fd < 0) return {};
    close(fd);
    const std::string inPath = std::string(in) + ".pgm", outPath = std::string(in) + "-out.pgm";
    {
        std::ofstream f(inPath, std::ios::binary);
        f << "P5\n" << w << " " << h << "\n255\n";
        f.write(reinterpret_cast<const char *>(g.data()), static_cast<std::streamsize>(g.size()));
    }
    const std::string cmd =
        "unpaper -q --overwrite --no-noisefilter --no-blurfilter --no-grayfilter --no-mask-scan "
        "--no-mask-center --no-deskew --no-wipe --no-border --no-border-scan --no-border-align "
        "--no-processing 0 " +
        inPath + " " + outPath + " >/dev/null 2>&1";
    std::vector<std::uint8_t> o;
    if (std::system(cmd.c_str()) == 0) {
        std::ifstream f(outPath, std::ios::binary);
        std::string magic;
        int ow = 0, oh = 0, maxv = 0;
        f >> magic >> ow >> oh >> maxv;
        f.get();
        if (magic == "P5" && ow == w && oh == h) {
            o.resize(g.size());
            f.read(reinterpret_cast<char *>(o.data()), static_cast<std::streamsize>(o.size()));
        }
    }
    std::remove(in);
    std::remove(inPath.c_str());
    std::remove(outPath.c_str());
    return o;
}

}  // namespace

int main(int argc, char **argv) {
    if (argc < 2) {
        std::fprintf(stderr, "usage: quality_content PAGES_DIR\n");
        return 2;
    }
    const std::string dir = argv[1];
    const auto truth = ReadTruth(std::string(QUARVEL_QUALITY_DIR) + "/truth-content.txt");
    if (truth.empty()) {
        std::fprintf(stderr, "quality_content: no truth file\n");
        return 2;
    }
#ifdef QUARVEL_HAVE_LEPTONICA
    setMsgSeverity(L_SEVERITY_NONE);
#endif
    const bool haveUnpaper = std::system("command -v unpaper >/dev/null 2>&1") == 0;

    int holesUnpaper = 0;
    int holesTrue = 0, holesFound = 0, falseHoles = 0, holeFreePages = 0, holeFreeTouched = 0;
    int blankRight = 0, blankTotal = 0, modeRight = 0, modeTotal = 0;
    std::vector<double> analyseMs;
    std::printf("%-24s %5s %5s %5s %8s %9s %5s %6s %4s %4s %7s\n", "page", "holes", "found", "false", "changed",
                "unpaperBF", "blank", "ink%", "mode", "want", "ms");
    const std::string only = argc > 2 ? argv[2] : "";
    for (const Truth &t : truth) {
        if (!only.empty() && t.file != only) continue;
        std::vector<qtool::Page> pages;
        try {
            pages = qtool::ReadImage(dir + "/" + t.file);
        } catch (const std::exception &e) {
            std::printf("%-24s unreadable: %s\n", t.file.c_str(), e.what());
            continue;
        }
        if (pages.empty()) continue;
        const qtool::Page &page = pages[0];
        QuarvelPageReport r{};
        r.size = sizeof r;
        const double ms = MedianMs([&] { QuarvelAnalyzePage(page.get(), nullptr, &r); });
        analyseMs.push_back(ms);
        if (!r.usable) {
            std::printf("%-24s not usable\n", t.file.c_str());
            continue;
        }
        // Holes: recall and false alarms.
        int found = 0;
        std::vector<bool> used(r.hole_count, false);
        for (const TruthHole &h : t.holes) {
            for (int i = 0; i < std::min(r.hole_count, QUARVEL_MAX_HOLES); ++i) {
                if (!used[i] && std::hypot(r.holes[i].cx - h.cx, r.holes[i].cy - h.cy) <= h.r) {
                    used[i] = true;
                    ++found;
                    break;
                }
            }
        }
        const int falses = r.hole_count - found;
        for (int i = 0; i < std::min(r.hole_count, QUARVEL_MAX_HOLES); ++i)
            if (!used[i] || std::getenv("QUALITY_VERBOSE"))
                std::printf("  hole at %.0f,%.0f r %.0f\n", r.holes[i].cx, r.holes[i].cy, r.holes[i].r);
        holesTrue += static_cast<int>(t.holes.size());
        holesFound += found;
        falseHoles += falses;
        // Pixels changed by hole filling alone, and by unpaper's black filter.
        long changed = -1, unpaperChanged = -1, unpaperCleared = -1;
        if (t.holes.empty()) {
            QuarvelScanOptions holes{};
            QuarvelDefaultOptions(&holes);
            holes.steps = QUARVEL_CLEAN_HOLES;
            qtool::Page filled(QuarvelCleanPage(page.get(), &holes, nullptr));
            if (filled) changed = ChangedPixels(page, filled);
            ++holeFreePages;
            holeFreeTouched += changed != 0;
            if (haveUnpaper) {
                int w, h;
                const auto g = GrayOf(page, &w, &h);
                const auto o = UnpaperBlackFilter(g, w, h);
                if (!o.empty()) {
                    unpaperChanged = 0;
                    for (std::size_t i = 0; i < g.size(); ++i) unpaperChanged += std::abs(int(o[i]) - int(g[i])) > 8;
                }
            }
        } else if (haveUnpaper) {
            // Holes unpaper's black filter cleared: most of the disc changed.
            int w, h;
            const auto g = GrayOf(page, &w, &h);
            const auto o = UnpaperBlackFilter(g, w, h);
            if (!o.empty()) {
                unpaperCleared = 0;
                for (const TruthHole &th : t.holes) {
                    long in = 0, moved = 0;
                    for (int y = std::max(0, int(th.cy - th.r)); y < std::min(h, int(th.cy + th.r)); ++y)
                        for (int x = std::max(0, int(th.cx - th.r)); x < std::min(w, int(th.cx + th.r)); ++x)
                            if (std::hypot(x - th.cx, y - th.cy) <= 0.8 * th.r) {
                                ++in;
                                const std::size_t i = static_cast<std::size_t>(y) * w + x;
                                moved += std::abs(int(o[i]) - int(g[i])) > 8;
                            }
                    unpaperCleared += in > 0 && moved * 2 >= in;
                }
                holesUnpaper += unpaperCleared;
            }
        }
        if (t.blank >= 0) {
            ++blankTotal;
            blankRight += r.blank == t.blank;
        }
        if (t.mode > 0) {
            ++modeTotal;
            modeRight += r.mode == t.mode;
        }
        std::printf("%-24s %5zu %5d %5d %8ld %9ld %5s %6.2f %4d %4d %7.1f\n", t.file.c_str(), t.holes.size(), found,
                    falses, changed, t.holes.empty() ? unpaperChanged : unpaperCleared,
                    r.blank == t.blank ? (r.blank ? "B ok" : "- ok") : (r.blank ? "B BAD" : "- BAD"), 100 * r.ink,
                    r.mode, t.mode, ms);
    }
    std::sort(analyseMs.begin(), analyseMs.end());
    std::printf("\nholes: %d of %d found, %d false; hole-free pages touched: %d of %d\n", holesFound, holesTrue,
                falseHoles, holeFreeTouched, holeFreePages);
    if (haveUnpaper)
        std::printf(
            "unpaper's black filter (unpaperBF: pixels changed on hole-free pages, holes cleared on the "
            "others): %d of %d holes cleared\n",
            holesUnpaper, holesTrue);
    std::printf("blank verdicts: %d of %d right; modes: %d of %d right\n", blankRight, blankTotal, modeRight,
                modeTotal);
    if (!analyseMs.empty())
        std::printf(
            "whole analysis (every step, public API, decoding included): median %.1f ms, max %.1f ms CPU per page\n",
            analyseMs[analyseMs.size() / 2], analyseMs.back());

    // Binarisation against ground truth.
    std::printf("\n%-24s %-28s %7s %8s\n", "page", "method", "F", "ms");
    for (const Truth &t : truth) {
        if (t.binTruth.empty() || (!only.empty() && t.file != only)) continue;
        std::vector<qtool::Page> pages, gt;
        try {
            pages = qtool::ReadImage(dir + "/" + t.file);
            gt = qtool::ReadImage(dir + "/" + t.binTruth);
        } catch (const std::exception &e) {
            std::printf("%-24s unreadable: %s\n", t.file.c_str(), e.what());
            continue;
        }
        int w, h, gw, gh;
        const auto truthGray = GrayOf(gt[0], &gw, &gh);
        const auto gray = GrayOf(pages[0], &w, &h);
        struct Method {
            const char *name;
            int id;
        };
        const Method methods[] = {{"quarvel default", QUARVEL_BINARIZE_DEFAULT},
                                  {"quarvel sauvola", QUARVEL_BINARIZE_SAUVOLA},
                                  {"quarvel wolf", QUARVEL_BINARIZE_WOLF},
                                  {"quarvel otsu", QUARVEL_BINARIZE_OTSU}};
        int window = 0;
        for (const Method &m : methods) {
            QuarvelScanOptions o{};
            QuarvelDefaultOptions(&o);
            o.binarize_method = m.id;
            qtool::Page out;
            const double ms = MedianMs([&] { out = qtool::Page(QuarvelBinarizePage(pages[0].get(), &o)); });
            int ow, oh;
            std::printf("%-24s %-28s %7.4f %8.1f\n", t.file.c_str(), m.name, FMeasure(GrayOf(out, &ow, &oh), truthGray),
                        ms);
        }
        QuarvelPageReport r{};
        r.size = sizeof r;
        QuarvelAnalyzePage(pages[0].get(), nullptr, &r);
        window = std::clamp(static_cast<int>(std::lround(r.dpi / 5.0)), 15, 255) | 1;
#ifdef QUARVEL_HAVE_LEPTONICA
        PIX *pix = PixOfGray(gray, w, h);
        PIX *bin = nullptr;
        double ms = MedianMs([&] {
            pixDestroy(&bin);
            pixSauvolaBinarize(pix, window / 2, 0.34f, 1, nullptr, nullptr, nullptr, &bin);
        });
        char name[64];
        std::snprintf(name, sizeof name, "leptonica sauvola w%d k.34", window);
        if (bin)
            std::printf("%-24s %-28s %7.4f %8.1f\n", t.file.c_str(), name, FMeasure(GrayOfPix1(bin), truthGray), ms);
        pixDestroy(&bin);
        ms = MedianMs([&] {
            pixDestroy(&bin);
            pixSauvolaBinarize(pix, 7, 0.34f, 1, nullptr, nullptr, nullptr, &bin);
        });
        if (bin)
            std::printf("%-24s %-28s %7.4f %8.1f\n", t.file.c_str(), "leptonica sauvola w15 k.34",
                        FMeasure(GrayOfPix1(bin), truthGray), ms);
        pixDestroy(&bin);
        ms = MedianMs([&] {
            pixDestroy(&bin);
            bin = pixOtsuThreshOnBackgroundNorm(pix, nullptr, 10, 15, 100, 50, 255, 2, 2, 0.1f, nullptr);
        });
        if (bin)
            std::printf("%-24s %-28s %7.4f %8.1f\n", t.file.c_str(), "leptonica otsu on bg norm",
                        FMeasure(GrayOfPix1(bin), truthGray), ms);
        pixDestroy(&bin);
        ms = MedianMs([&] {
            pixDestroy(&bin);
            pixOtsuAdaptiveThreshold(pix, 200, 200, 0, 0, 0.1f, nullptr, &bin);
        });
        if (bin)
            std::printf("%-24s %-28s %7.4f %8.1f\n", t.file.c_str(), "leptonica otsu adaptive",
                        FMeasure(GrayOfPix1(bin), truthGray), ms);
        pixDestroy(&bin);
        pixDestroy(&pix);
#else
        (void)window;
#endif
    }
    return 0;
}
