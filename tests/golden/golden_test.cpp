// Golden results: every operation is run over drawn pages (a seeded generator
// at 1, 8, 24 and 32 bits, both palettes, padded widths) and the real scans in
// tests/data with several argument sets, and a 64-bit FNV-1a hash of each
// whole result block (or of each measurement) is compared with the hash
// recorded in golden.txt. Speed-ups must leave every one unchanged.
//
// QUARVEL_GOLDEN_WRITE=<file> records the current results into <file> instead.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <map>

#include "support/pages.h"

namespace {

using qtest::Block;
using qtest::Copy;
using qtest::Palette;
using qtest::PageView;

std::uint64_t Fnv(const void *data, std::size_t n, std::uint64_t h = 1469598103934665603ull) {
    const auto *p = static_cast<const std::uint8_t *>(data);
    for (std::size_t i = 0; i < n; ++i) h = (h ^ p[i]) * 1099511628211ull;
    return h;
}

std::string Hex(std::uint64_t h) {
    char s[20];
    std::snprintf(s, sizeof s, "%016llx", static_cast<unsigned long long>(h));
    return s;
}

std::string HashBlock(HGLOBAL h) {
    if (h == nullptr) return "null";
    Block b(h);
    const std::vector<std::uint8_t> bytes = b.bytes();
    return Hex(Fnv(bytes.data(), bytes.size()));
}

std::string HashNumber(double v) {
    char s[40];
    std::snprintf(s, sizeof s, "%.17g", v);
    return Hex(Fnv(s, std::strlen(s)));
}

// A scanned-looking page: paper with noise, a dark scanner frame on two
// sides, text lines of ink blocks turned by about 1.5 degrees, red and blue
// stamps, two punch holes near the left edge. Same seed, same page.
int Level(int x, int y, int c, int w, int h, unsigned seed) {
    unsigned n = (static_cast<unsigned>(x) * 73856093u) ^ (static_cast<unsigned>(y) * 19349663u) ^ (seed * 83492791u);
    n = (n ^ (n >> 13)) * 0x5bd1e995u;
    n ^= n >> 15;
    int v = 225 + static_cast<int>(n % 21);
    if (x < w / 14 || y > h - h / 12) return static_cast<int>(n % 40);
    const int yy = y + (x * 26) / 1000;  // about 1.5 degrees
    if ((yy / 9) % 3 == 1 && (x / 7) % 5 != 0 && x > w / 8 && x < w - w / 10) v = 20 + static_cast<int>(n % 30);
    const int hx = w / 9, hy1 = h / 4, hy2 = 3 * h / 4, r = std::max(3, w / 40);
    if ((x - hx) * (x - hx) + (y - hy1) * (y - hy1) < r * r || (x - hx) * (x - hx) + (y - hy2) * (y - hy2) < r * r) return 8;
    if (x > w / 2 && x < w / 2 + w / 6 && y > h / 3 && y < h / 2) return c == 2 ? 230 : v / 3;        // red stamp
    if (x > w / 4 && x < w / 3 && y > h / 2 && y < h / 2 + h / 8) return c == 0 ? 210 : v / 4 + 20;  // blue stamp
    return std::clamp(v - (c * 5), 0, 255);
}

Block Drawn(int w, int h, int bits, Palette palette, unsigned seed) {
    qtest::PageShape shape = qtest::Shape(w, h, bits, palette);
    return qtest::MakePageWith(shape, [&](int x, int y, int c) {
        const int channel = bits >= 24 ? c : -1;
        int v = channel < 0 ? (Level(x, y, 0, w, h, seed) + 2 * Level(x, y, 1, w, h, seed) + Level(x, y, 2, w, h, seed)) / 4
                            : channel == 3 ? 255 - (x % 7) : Level(x, y, channel, w, h, seed);
        if (bits == 1) v = v >= 128;
        return palette == Palette::kLightFirst ? (bits == 1 ? 1 - v : 255 - v) : v;
    });
}

// A gray page with the square 100 mm frame the precision test looks for, at
// 100 dpi (394 pixels a side).
Block PrecisionSheet() {
    return qtest::MakePageWith(qtest::Shape(480, 470, 8), [](int x, int y, int) {
        const int l = 40, b = 30, s = 394;
        const bool vertical = (x >= l && x < l + 3) || (x >= l + s && x < l + s + 3);
        const bool horizontal = (y >= b && y < b + 3) || (y >= b + s - 1 && y < b + s + 2);
        return (vertical && y >= b && y < b + s + 2) || (horizontal && x >= l && x < l + s + 3) ? 10 : 240;
    });
}

// A 24-bit page from an 8-bit one, tinted so the colour rules have work.
Block Tinted(HGLOBAL gray) {
    PageView g(gray);
    return qtest::MakePageWith(qtest::Shape(g.width(), g.height(), 24), [&](int x, int y, int c) {
        const int v = g.get(x, y);
        if (c == 2 && x > g.width() / 3 && x < g.width() / 2) return std::min(255, v + 90);
        if (c == 0 && y > g.height() / 2 && y < g.height() / 2 + 200) return std::min(255, v + 70);
        return v;
    });
}

struct GoldenPage {
    std::string name;
    std::function<Block()> make;
    std::function<Block()> other;  // a second page of the same shape
    bool full;                     // every argument set, or the first only
};

using Results = std::map<std::string, std::string>;

// Runs every operation on `page` and records the hashes under `prefix`.
void RunAll(const std::string &prefix, const GoldenPage &gp, Results *out) {
    Block page = gp.make();
    Block other = gp.other();
    PageView v(page.get());
    const int w = v.width(), h = v.height(), bits = v.bitCount();
    HGLOBAL p = page.get();
    const int sets = gp.full ? 3 : 1;
    auto put = [&](const std::string &key, const std::string &hash) { (*out)[prefix + "/" + key] = hash; };
    auto img = [&](const std::string &key, HGLOBAL r) { put(key, HashBlock(r)); };
    auto num = [&](const std::string &key, double r) { put(key, HashNumber(r)); };
    const RECT rects[3] = {{w / 5, h / 7, w - w / 3, h - h / 9}, {3, 5, w / 2 + 1, h / 3 + 2}, {-20, h / 2, w + 30, h + 40}};

    img("Mirror", Mirror(p));
    img("Flip", Flip(p));
    img("Invert", Invert(p));
    const int tone[3][2] = {{35, 40}, {-60, -25}, {120, 85}};
    for (int s = 0; s < sets; ++s) {
        const std::string k = std::to_string(s);
        RECT r = rects[s];
        img("AdjustBrightness" + k, AdjustBrightness(p, tone[s][0]));
        img("AdjustContrast" + k, AdjustContrast(p, tone[s][1]));
        img("AdjustBrightnessAndContrast" + k, AdjustBrightnessAndContrast(p, tone[s][0], tone[s][1]));
        const int level = s == 0 ? 1 : s == 1 ? -2 : 3;
        img("TextEffect" + k, TextEffect(p, level));
        img("TextEffectRect" + k, TextEffectRect(p, &r, -level));
        img("Fill" + k, Fill(p, &r, 40 + 70 * s));
        img("FillOutside" + k, FillOutside(p, &r, 250 - 90 * s));
        const int a[3][6] = {{0, 0, 0, 0, w, h}, {5, 9, 17, 2, w / 2, h / 3}, {w / 3, 1, 0, h / 4, w, h}};
        Block first = Copy(p);
        Block firstOr = Copy(p);
        img("ImageAnd" + k, ImageAnd(first.get(), other.get(), a[s][0], a[s][1], a[s][2], a[s][3], a[s][4], a[s][5]));
        img("ImageAnd.first" + k, Copy(first.get()).release());
        img("ImageOr" + k, ImageOr(firstOr.get(), other.get(), a[s][0], a[s][1], a[s][2], a[s][3], a[s][4], a[s][5]));
        img("Thumbnail" + k, Thumbnail(p, s == 2 ? w * 2 : 97 + 40 * s, s == 2 ? h * 2 : 131 - 50 * s));
        img("Resize" + k, Resize(p, s == 0 ? w / 2 + 1 : s == 1 ? w * 3 / 2 : w - 7, s == 0 ? h / 3 : s == 1 ? h + 11 : h * 2));
        img("Crop.m" + k, Crop(p, &r, s, 5 * s));
        RECT sides{w / 20, h / 30, w / 25, h / 15};
        img("Crop.sides" + k, Crop(p, &sides, 3, 0));
        RECT fit{w / (2 + s), h / (3 - s), 0, 0};
        img("Crop.fit" + k, Crop(p, &fit, 4 + (s & 1), 0));
        img("Denoise" + k, Denoise(p, 1 + s * 2));
        img("DenoiseRect" + k, DenoiseRect(p, &r, 2 + s));
        num("IsBlankPage" + k, IsBlankPage(p, 60 + 60 * s));
        img("Combine" + k, Combine(p, other.get(), s == 2 ? -3 : s));
        num("JudgeColorMode" + k, JudgeColorMode(p, s == 0 ? -1 : 30 * s));
    }
    img("GetLess", GetLess(p, other.get()));
    img("GetLess.swapped", GetLess(other.get(), p));
    for (int mode : {1, 8, 24, 32}) {
        img("ConvertMode" + std::to_string(mode), ConvertMode(p, mode, 128));
        if (gp.full) img("ConvertMode.t" + std::to_string(mode), ConvertMode(p, mode, 77));
    }
    img("ConvertModeToGrayEx", ConvertModeToGrayEx(p, 50, 40));
    if (gp.full) img("ConvertModeToGrayEx.1", ConvertModeToGrayEx(p, 0, 25));
    const double angles[3] = {3.0, -7.25, 33.0};
    for (int s = 0; s < sets; ++s) {
        for (int interp = 0; interp < 3; ++interp) {
            const std::string k = std::to_string(s) + "." + std::to_string(interp);
            const int cx = s == 1 ? w / 3 : w / 2, cy = s == 1 ? h / 5 : h / 2;
            img("Rotate" + k, Rotate(p, angles[s], cx, cy, interp));
            img("RotateEx" + k, RotateEx(p, angles[s], cx, cy, interp));
            img("RotateEx1" + k, RotateEx1(p, angles[s], cx, cy, interp));
        }
    }
    for (double a : {90.0, 180.0, 270.0, -90.0, 2.0}) img("RotateExpand" + std::to_string(int(a)), RotateExpand(p, a, w / 2, h / 2, 1));
    const int thresholds[3] = {100, 128, 60};
    for (int s = 0; s < sets; ++s) {
        const std::string k = std::to_string(s);
        img("RemoveBorder" + k, RemoveBorder(p, thresholds[s], 3 * s, 2 * s));
        img("RemoveBorder1." + k, RemoveBorder1(p, thresholds[s], s == 1 ? 90 : s == 2 ? -90 : 0, s, 2 * s));
        img("RemoveBorder1.180." + k, RemoveBorder1(p, thresholds[s], 180, 0, 0));
        img("RemoveBorder_GPY" + k, RemoveBorder_GPY(p, thresholds[s]));
        img("RemoveBorder_Fill" + k, RemoveBorder_Fill(p, thresholds[s]));
        img("RemoveHole" + k, RemoveHole(p, TRUE, s == 1, s == 2, FALSE, w / 5, 1, 4, std::max(2, w / 60), w / 8 + 4, 0.5 - 0.1 * s));
    }
    Block mark = Drawn(std::max(2, w / 8), std::max(2, h / 9), 8, Palette::kDarkFirst, 5);
    img("AddWaterMark", AddWaterMark(p, mark.get()));
    img("AddWaterMarkEx", AddWaterMarkEx(p, mark.get()));
    for (int s = 0; s < sets; ++s) {
        const std::string k = std::to_string(s);
        RECT r = rects[s];
        const int diff = 40 + 30 * s;
        Block gray(ConvertMode(p, 8, 128));
        img("ConvertHongTou" + k, ConvertHongTou(p, gray.get(), 0, 0, 0, diff));
        img("ConvertHongTouEx" + k, ConvertHongTouEx(p, gray.get(), 0, 0, 0, diff, static_cast<BYTE>(60 + 40 * s)));
        const int e[7] = {128 - 20 * s, 20 + 10 * s, 25 - 10 * s, 40 + s * 20, 40 - 30 * s, 45 - s * 15, 30 + s * 25};
        img("EnhanceColor" + k, EnhanceColor(p, &r, e[0], e[1], e[2], e[3], e[4], e[5], e[6]));
        Block map(EnhanceColorEx(p, nullptr, &r, e[0], e[1], e[2], e[3], e[4], e[5], e[6]));
        img("EnhanceColorEx.map" + k, map ? Copy(map.get()).release() : nullptr);
        img("EnhanceColorEx" + k, EnhanceColorEx(p, map.get(), &r, e[0], e[1], e[2], e[3], e[4], e[5], e[6]));
        img("EnhanceColorEx1" + k, EnhanceColorEx1(p, other.get(), map.get(), &r, e[0], e[1], e[2], e[3], e[4], e[5], e[6]));
        img("EnhanceColorEx1.nomap" + k, EnhanceColorEx1(p, nullptr, nullptr, &r, e[0], e[1], e[2], e[3], e[4], e[5], e[6]));
        img("DeColorize" + k, DeColorize(p, &r, 50 - 10 * s, 40 + 10 * s, 60 - 20 * s));
    }
    num("Otsu", GetBinaryThresholdByOtsu(p));
    num("RidCal", GetBinaryThresholdByRidCal(p));
    num("GetObliquity", GetObliquity(p));
    num("GetObliquity.a4", GetObliquity(Block(Resize(p, w, 1754)).get()));  // A4 at 150 dpi: reduced by 3
    for (int dpi : {100, 300}) {
        double hz = -1, vt = -1;
        const int r = TestPrecision(p, dpi, &hz, &vt);
        num("TestPrecision" + std::to_string(dpi), r * 1e6 + hz * 1e3 + vt);
    }
    (void)bits;
}

std::vector<GoldenPage> Pages() {
    std::vector<GoldenPage> pages;
    for (int bits : {1, 8, 24, 32}) {
        for (Palette pal : {Palette::kDarkFirst, Palette::kLightFirst}) {
            if (bits >= 24 && pal == Palette::kLightFirst) continue;
            const std::string name = "drawn" + std::to_string(bits) + (pal == Palette::kLightFirst ? "L" : "");
            pages.push_back({name, [=] { return Drawn(333, 251, bits, pal, 1); }, [=] { return Drawn(333, 251, bits, pal, 2); }, true});
            pages.push_back({name + "s", [=] { return Drawn(61, 45, bits, pal, 3); }, [=] { return Drawn(61, 45, bits, pal, 4); }, true});
        }
    }
    pages.push_back({"precision", PrecisionSheet, [] { return Drawn(480, 470, 8, Palette::kDarkFirst, 6); }, false});
    pages.push_back({"linn", [] { return qtest::LoadScan("linn.png"); }, [] { return Block(Flip(qtest::LoadScan("linn.png").get())); }, false});
    pages.push_back({"deskew2", [] { return qtest::LoadScan("deskew-2.png"); },
                     [] { return Block(Mirror(qtest::LoadScan("deskew-2.png").get())); }, false});
    pages.push_back({"deskew2c", [] { return Tinted(qtest::LoadScan("deskew-2.png").get()); },
                     [] { return Tinted(Block(Mirror(qtest::LoadScan("deskew-2.png").get())).get()); }, false});
    return pages;
}

const std::string kGoldenFile = std::string(QUARVEL_SOURCE_DIR) + "/tests/golden/golden.txt";

Results Recorded() {
    Results r;
    std::ifstream in(kGoldenFile);
    std::string key, hash;
    while (in >> key >> hash) r[key] = hash;
    return r;
}

class Golden : public ::testing::TestWithParam<GoldenPage> {};

TEST_P(Golden, EveryOperationGivesTheRecordedBytes) {
    Results now;
    RunAll(GetParam().name, GetParam(), &now);
    if (const char *path = std::getenv("QUARVEL_GOLDEN_WRITE")) {
        std::ofstream o(path, std::ios::app);
        for (const auto &[k, v] : now) o << k << ' ' << v << '\n';
        return;
    }
    const Results want = Recorded();
    ASSERT_FALSE(want.empty()) << kGoldenFile;
    for (const auto &[k, v] : now) {
        const auto it = want.find(k);
        EXPECT_TRUE(it != want.end() && it->second == v) << k << " gives " << v;
    }
}

INSTANTIATE_TEST_SUITE_P(Pages, Golden, ::testing::ValuesIn(Pages()),
                         [](const ::testing::TestParamInfo<GoldenPage> &i) { return i.param.name; });

}  // namespace
