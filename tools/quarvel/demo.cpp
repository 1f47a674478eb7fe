// The demo page: a letter-size sheet at 200 dpi with lines of word-like
// marks, a red stamp, three punch holes and specks, turned by a known angle
// on a dark scanner background. The cleaning pipeline: border removal with
// deskew, colour-mode judgement, gray conversion, a contrast stretch that
// whitens the paper, punch-hole removal, despeckling and a black-and-white
// version at Otsu's threshold.
//
// Then real scans from the source tree (tests/data; the folder is compiled
// in and the part is skipped when it is missing): each cleaned with
// QuarvelCleanPage's default steps and written as one picture, the input
// scaled down beside the result, with one line of what analysis found and
// what cleaning changed.
#include "demo.h"

#include <cctype>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <utility>
#include <vector>

#include "formats.h"
#include "page.h"
#include "quarvel/scan.h"

namespace qtool {

namespace {

constexpr double kTrueSkew = 2.5;  // degrees; lines fall toward the right

// A 5 x 7 font for the overview's labels: one row of 5 bits per byte.
struct Glyph {
    char c;
    std::uint8_t rows[7];
};
const Glyph kFont[] = {
    {'A', {14, 17, 17, 31, 17, 17, 17}}, {'B', {30, 17, 17, 30, 17, 17, 30}}, {'C', {14, 17, 16, 16, 16, 17, 14}},
    {'D', {30, 17, 17, 17, 17, 17, 30}}, {'E', {31, 16, 16, 30, 16, 16, 31}}, {'G', {14, 17, 16, 23, 17, 17, 15}},
    {'H', {17, 17, 17, 31, 17, 17, 17}}, {'I', {14, 4, 4, 4, 4, 4, 14}},      {'K', {17, 18, 20, 24, 20, 18, 17}},
    {'L', {16, 16, 16, 16, 16, 16, 31}}, {'N', {17, 25, 21, 19, 17, 17, 17}}, {'O', {14, 17, 17, 17, 17, 17, 14}},
    {'P', {30, 17, 17, 30, 16, 16, 16}}, {'R', {30, 17, 17, 30, 20, 18, 17}}, {'S', {15, 16, 16, 14, 1, 1, 30}},
    {'T', {31, 4, 4, 4, 4, 4, 4}},       {'W', {17, 17, 17, 21, 21, 21, 10}}, {'Y', {17, 17, 10, 4, 4, 4, 4}},
    {'&', {12, 18, 20, 8, 21, 18, 13}},  {'1', {4, 12, 4, 4, 4, 4, 14}},      {'2', {14, 17, 1, 2, 4, 8, 31}},
    {'3', {30, 1, 1, 14, 1, 1, 30}},     {'4', {2, 6, 10, 18, 31, 2, 2}},     {'5', {31, 16, 30, 1, 1, 17, 14}},
    {'6', {6, 8, 16, 30, 17, 17, 14}},   {'7', {31, 1, 2, 4, 8, 8, 8}},       {'M', {17, 27, 21, 21, 17, 17, 17}},
    {'U', {17, 17, 17, 17, 17, 17, 14}}, {'F', {31, 16, 16, 30, 16, 16, 16}}, {'X', {17, 17, 10, 4, 10, 17, 17}},
    {'V', {17, 17, 17, 17, 17, 10, 4}},  {'J', {7, 2, 2, 2, 2, 18, 12}},      {'Q', {14, 17, 17, 17, 21, 18, 13}},
    {'Z', {31, 1, 2, 4, 8, 16, 31}},     {'0', {14, 17, 19, 21, 25, 17, 14}}, {'8', {14, 17, 17, 14, 17, 17, 14}},
    {'9', {14, 17, 17, 15, 1, 2, 12}},   {'.', {0, 0, 0, 0, 0, 12, 12}},      {',', {0, 0, 0, 0, 12, 4, 8}},
    {':', {0, 12, 12, 0, 12, 12, 0}},    {'-', {0, 0, 0, 31, 0, 0, 0}},       {'+', {0, 4, 4, 31, 4, 4, 0}},
};

// Draws text (top-left at x, y in display coordinates) on a 24-bit page.
void Label(const Page &page, int x0, int y0, const std::string &text, int scale) {
    Locked p(page.get());
    int x = x0;
    for (char c : text) {
        const Glyph *g = nullptr;
        for (const Glyph &k : kFont)
            if (k.c == std::toupper(static_cast<unsigned char>(c))) g = &k;
        if (g != nullptr) {
            for (int r = 0; r < 7; ++r)
                for (int b = 0; b < 5; ++b)
                    if (g->rows[r] & (16 >> b))
                        for (int dy = 0; dy < scale; ++dy)
                            for (int dx = 0; dx < scale; ++dx) {
                                const int px = x + b * scale + dx, py = y0 + r * scale + dy;
                                if (px < 0 || py < 0 || px >= p.width() || py >= p.height()) continue;
                                std::uint8_t *q = p.displayRow(py) + 3 * px;
                                q[0] = 160, q[1] = 40, q[2] = 0;
                            }
        }
        x += 6 * scale;
    }
}

// The drawn scan: 24-bit, 1900 x 2400 (200 dpi), sheet 1700 x 2200.
Page DrawScan() {
    const int W = 1900, H = 2400, sw = 1700, sh = 2200;
    Page page = NewPage(W, H, 24, {}, 200, 200);
    Locked p(page.get());
    const double a = kTrueSkew * M_PI / 180, c = std::cos(a), s = std::sin(a);
    const double cx = W / 2.0, cy = H / 2.0;
    unsigned seed = 12345;
    auto rnd = [&seed](int lo, int hi) {
        seed = seed * 1103515245u + 12345u;
        return lo + static_cast<int>((seed >> 16) % static_cast<unsigned>(hi - lo + 1));
    };
    // The sheet's content in sheet coordinates (u right, v down), as a mask
    // of colours: 0 paper, 1 ink, 2 stamp red, 3 hole.
    std::vector<std::uint8_t> sheet(static_cast<std::size_t>(sw) * sh, 0);
    auto put = [&](int u, int v, std::uint8_t k) {
        if (u >= 0 && v >= 0 && u < sw && v < sh) sheet[static_cast<std::size_t>(v) * sw + u] = k;
    };
    for (int top = 220; top < sh - 250; top += 56) {
        int u = 200 + rnd(0, 30);
        const int end = sw - 160 - rnd(0, 300);
        while (u < end) {
            const int word = rnd(30, 170);
            for (int v = top; v < top + 22; ++v)
                for (int k = u; k < std::min(u + word, end); ++k) put(k, v, 1);
            u += word + rnd(16, 28);
        }
    }
    // A red stamp: a ring with a bar, bottom right.
    for (int v = -160; v <= 160; ++v)
        for (int u = -160; u <= 160; ++u) {
            const double r = std::sqrt(u * u + v * v);
            if ((r > 130 && r < 158) || (std::abs(v) < 22 && std::abs(u) < 110)) put(sw - 420 + u, sh - 480 + v, 2);
        }
    // Punch holes in the left margin, and specks.
    for (int hole : {sh / 4, sh / 2, 3 * sh / 4})
        for (int v = -32; v <= 32; ++v)
            for (int u = -32; u <= 32; ++u)
                if (u * u + v * v <= 32 * 32) put(90 + u, hole + v, 3);
    for (int i = 0; i < 120; ++i) {
        const int u = rnd(150, sw - 150), v = rnd(150, sh - 150), size = rnd(1, 2);
        for (int dv = 0; dv < size; ++dv)
            for (int du = 0; du < size; ++du)
                if (sheet[static_cast<std::size_t>(v + dv) * sw + u + du] == 0) put(u + du, v + dv, 1);
    }
    for (int y = 0; y < H; ++y) {
        std::uint8_t *row = p.displayRow(y);
        for (int x = 0; x < W; ++x) {
            // Back to sheet coordinates: turn by -a about the centre.
            const double dx = x + 0.5 - cx, dy = y + 0.5 - cy;
            const double u = cx + dx * c + dy * s - (W - sw) / 2.0, v = cy - dx * s + dy * c - (H - sh) / 2.0;
            std::uint8_t *q = row + 3 * x;
            const int iu = static_cast<int>(std::floor(u)), iv = static_cast<int>(std::floor(v));
            const int noise = rnd(0, 6);
            if (iu < 0 || iv < 0 || iu >= sw || iv >= sh) {
                q[0] = q[1] = q[2] = static_cast<std::uint8_t>(24 + noise);  // scanner background
                continue;
            }
            switch (sheet[static_cast<std::size_t>(iv) * sw + iu]) {
                case 1:
                    q[0] = q[1] = q[2] = static_cast<std::uint8_t>(35 + noise);
                    break;
                case 2:
                    q[0] = static_cast<std::uint8_t>(40 + noise), q[1] = static_cast<std::uint8_t>(45 + noise),
                    q[2] = 205;
                    break;
                case 3:
                    q[0] = q[1] = q[2] = static_cast<std::uint8_t>(24 + noise);
                    break;
                default:
                    q[0] = static_cast<std::uint8_t>(238 + noise), q[1] = static_cast<std::uint8_t>(240 + noise),
                    q[2] = static_cast<std::uint8_t>(242 + noise);
            }
        }
    }
    return page;
}

// Real scans from the source tree cleaned with QuarvelCleanPage's default
// steps: each written as one picture, the input beside the result.
struct RealScan {
    const char *file, *title;
};
const RealScan kRealScans[] = {
    {"graph-paper-front.jpg", "GRAPH PAPER, 300 DPI, PUNCH HOLES"},
    {"deskew-2.png", "SKEWED GRAY SCAN OF A SCORE"},
    {"breviar.38.150.jpg", "COLOUR BOOK PAGE, 150 DPI"},
};
constexpr int kPanelW = 560, kPanelH = 720, kGap = 30, kTitle = 4, kSub = 3;

void Fill(const Page &page, int x0, int y0, int w, int h, std::uint8_t level) {
    Locked p(page.get());
    for (int y = std::max(y0, 0); y < std::min(y0 + h, p.height()); ++y) {
        const int from = std::max(x0, 0), to = std::min(x0 + w, p.width());
        if (from < to) std::memset(p.displayRow(y) + 3 * from, level, static_cast<std::size_t>(to - from) * 3);
    }
}

// The page fitted into a panel, as 24 bits, drawn centred at the top of the
// panel whose top-left corner is (x0, y0), with a thin gray outline.
void DrawPanel(const Page &canvas, HGLOBAL page, int x0, int y0) {
    Page thumb(Thumbnail(page, kPanelW, kPanelH));
    Page colour(ConvertMode(thumb.get(), 24, 0));
    if (!colour) throw FormatError("the demo could not scale a page");
    Locked t(colour.get());
    const int x = x0 + (kPanelW - t.width()) / 2;
    Fill(canvas, x - 1, y0 - 1, t.width() + 2, t.height() + 2, 150);
    Locked c(canvas.get());
    for (int y = 0; y < t.height(); ++y)
        std::memcpy(c.displayRow(y0 + y) + 3 * x, t.displayRow(y), static_cast<std::size_t>(t.width()) * 3);
}

std::string Sides(std::uint32_t sides) {
    std::string out;
    const std::pair<std::uint32_t, const char *> names[] = {
        {QUARVEL_SIDE_LEFT, "left"}, {QUARVEL_SIDE_TOP, "top"}, {QUARVEL_SIDE_RIGHT, "right"}, {QUARVEL_SIDE_BOTTOM, "bottom"}};
    for (const auto &[bit, name] : names)
        if (sides & bit) {
            if (!out.empty()) out += ' ';
            out += name;
        }
    return out.empty() ? "none" : out;
}

const char *ModeName(int mode) {
    return mode == QUARVEL_MODE_COLOR ? "colour" : mode == QUARVEL_MODE_GRAY ? "gray" : "black and white";
}

std::string Printf(const char *fmt, double a, double b = 0) {
    char buf[64];
    std::snprintf(buf, sizeof buf, fmt, std::abs(a) < 0.005 ? 0.0 : a, b);  // no "-0.00"
    return buf;
}

// Cleans one real scan, writes its before/after picture and returns what
// detection found and cleaning did, in one line.
std::string CleanRealScan(const RealScan &scan, const std::filesystem::path &in, const std::string &outDir,
                          DemoScan *result) {
    std::vector<Page> pages = ReadImage(in.string());
    QuarvelScanOptions options;
    QuarvelDefaultOptions(&options);
    QuarvelPageReport r{};
    r.size = sizeof r;
    Page clean(QuarvelCleanPage(pages.front().get(), &options, &r));
    if (!clean || !r.usable) throw FormatError(in.string() + ": the page could not be cleaned");
    const Locked after(clean.get());
    *result = DemoScan{scan.file, r.skew_angle, r.skew_confidence, r.hole_count, r.mode, r.blank != 0,
                       r.width, r.height, after.width(), after.height()};

    const int width = 3 * kGap + 2 * kPanelW, top = kGap + 7 * kTitle + 24, panels = top + 7 * kSub + 14;
    Page canvas = NewPage(width, panels + kPanelH + kGap, 24, {});
    if (!canvas) throw FormatError("out of memory");
    Fill(canvas, 0, 0, width, panels + kPanelH + kGap, 236);
    Label(canvas, kGap, kGap, scan.title, kTitle);
    Label(canvas, kGap, top, "BEFORE " + std::to_string(r.width) + " X " + std::to_string(r.height), kSub);
    Label(canvas, 2 * kGap + kPanelW, top,
          "AFTER " + std::to_string(after.width()) + " X " + std::to_string(after.height()), kSub);
    DrawPanel(canvas, pages.front().get(), kGap, panels);
    DrawPanel(canvas, clean.get(), 2 * kGap + kPanelW, panels);
    const std::string name = "scan-" + in.stem().string() + ".png";
    WriteImage((std::filesystem::path(outDir) / name).string(), {&canvas});

    const bool turned = r.skew_confidence >= options.min_skew_confidence && std::abs(r.skew_angle) >= 0.02;
    std::string changed;
    auto add = [&changed](const std::string &what) { changed += (changed.empty() ? "" : ", ") + what; };
    if (turned) add(Printf("straightened by %.2f deg", r.skew_angle));
    if (r.hole_count > 0) add(std::to_string(r.hole_count) + (r.hole_count == 1 ? " hole" : " holes") + " filled");
    add("despeckled");
    return "  " + name + ": " + std::to_string(r.width) + " x " + std::to_string(r.height) + " at " +
           std::to_string(r.dpi) + " dpi; skew " + Printf("%+.2f deg (confidence %.2f)", r.skew_angle, r.skew_confidence) +
           ", frame " + Sides(r.frame_sides) + ", " + std::to_string(r.hole_count) + " holes, " + ModeName(r.mode) +
           (r.blank ? ", blank" : ", not blank") + "\n      cleaned to " + std::to_string(after.width()) + " x " +
           std::to_string(after.height()) + ": " + changed;
}

}  // namespace

std::string DemoScanFolder() {
#ifdef QUARVEL_DEMO_SCANS
    return QUARVEL_DEMO_SCANS;
#else
    return {};
#endif
}

int RunDemo(const std::string &outDir, DemoReport *report, bool quiet, const std::string &scans) {
    std::error_code ec;
    std::filesystem::create_directories(outDir, ec);
    if (ec) {
        std::fprintf(stderr, "quarvel: %s: cannot create the output folder (%s)\n", outDir.c_str(),
                     ec.message().c_str());
        return 5;
    }
    struct Shot {
        std::string file, label;
        Page page;
    };
    std::vector<Shot> shots;
    auto keep = [&](const std::string &file, const std::string &label, HGLOBAL h) -> HGLOBAL {
        if (h == nullptr) throw FormatError("the demo step '" + label + "' was refused");
        shots.push_back(Shot{file, label, Page(h)});
        WriteImage((std::filesystem::path(outDir) / file).string(), {&shots.back().page});
        return h;
    };
    try {
        Page drawn = DrawScan();
        report->trueSkew = kTrueSkew;
        report->foundSkew = GetObliquity(drawn.get());
        HGLOBAL scan = keep("1-scan.png", "1 SCAN", ConvertMode(drawn.get(), 24, 0));
        HGLOBAL straight = keep("2-border-deskew.png", "2 BORDER & DESKEW", RemoveBorder1(scan, 100, 0, 0, 0));
        report->colourMode = JudgeColorMode(straight, 10);
        HGLOBAL gray = keep("3-gray.png", "3 GRAY", ConvertMode(straight, 8, 0));
        // Stretching the levels makes the paper pure white, so the punch
        // holes stand alone in their band.
        HGLOBAL contrast = keep("4-contrast.png", "4 CONTRAST", AdjustContrast(gray, 40));
        HGLOBAL holes =
            keep("5-holes.png", "5 HOLES", RemoveHole(contrast, TRUE, FALSE, FALSE, FALSE, 200, 1, 6, 40, 100, 0.5));
        HGLOBAL clean = keep("6-despeckle.png", "6 DESPECKLE", Denoise(holes, 3));
        report->otsu = GetBinaryThresholdByOtsu(clean);
        report->ridcal = GetBinaryThresholdByRidCal(clean);
        report->blankShare = IsBlankPage(clean, static_cast<int>(report->otsu));
        keep("7-black-white.png", "7 BLACK & WHITE", ConvertMode(clean, 1, static_cast<int>(report->otsu)));

        // The overview: every step as a thumbnail 480 high, side by side,
        // each labelled, on a white band.
        Page strip;
        for (Shot &s : shots) {
            Page thumb(Thumbnail(s.page.get(), 400, 480));
            Page colour(ConvertMode(thumb.get(), 24, 0));
            Page padded(Resize(colour.get(), 420, 560));
            {
                Locked l(padded.get());
                for (int y = 0; y < 60; ++y) std::memset(l.displayRow(y), 255, static_cast<std::size_t>(l.width()) * 3);
            }
            Label(padded, 14, 18, s.label, 3);
            strip = strip ? Page(Combine(strip.get(), padded.get(), 0)) : std::move(padded);
        }
        WriteImage((std::filesystem::path(outDir) / "overview.png").string(), {&strip});
    } catch (const std::exception &e) {
        std::fprintf(stderr, "quarvel: demo: %s\n", e.what());
        return 4;
    }

    // Real scans, when the source tree's test pages are at hand.
    std::vector<std::string> scanLines;
    if (scans.empty() || !std::filesystem::is_directory(scans)) {
        scanLines.push_back("  skipped: the real scans of the source tree (tests/data) are not at " +
                            (scans.empty() ? std::string("hand") : scans));
    } else {
        for (const RealScan &scan : kRealScans) {
            const std::filesystem::path in = std::filesystem::path(scans) / scan.file;
            try {
                DemoScan result;
                scanLines.push_back(CleanRealScan(scan, in, outDir, &result));
                report->scans.push_back(result);
            } catch (const std::exception &e) {
                scanLines.push_back(std::string("  skipped ") + scan.file + ": " + e.what());
            }
        }
    }
    if (!quiet) {
        std::printf("Quarvel demo: a drawn scan cleaned step by step, written to %s/\n", outDir.c_str());
        for (const Shot &s : shots) std::printf("  %s\n", s.file.c_str());
        std::printf("  overview.png\n");
        std::printf("skew: drawn %.2f deg, measured %.2f deg\n", report->trueSkew, report->foundSkew);
        std::printf("colour mode of the straightened page: %d (%s)\n", report->colourMode,
                    report->colourMode == 24  ? "colour: the red stamp"
                    : report->colourMode == 8 ? "gray"
                                              : "black and white");
        std::printf("thresholds: Otsu %u, Ridler-Calvard %u\n", report->otsu, report->ridcal);
        std::printf("ink share at Otsu's threshold: %.2f %%\n", report->blankShare / 100.0);
        std::printf("\nReal scans cleaned by QuarvelCleanPage (default steps), before beside after:\n");
        for (const std::string &line : scanLines) std::printf("%s\n", line.c_str());
    }
    return 0;
}

}  // namespace qtool
