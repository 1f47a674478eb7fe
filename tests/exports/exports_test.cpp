// The shared library as a host sees it: exactly the operations of quarvel.h
// and the global-memory functions are exported, the export lists agree with
// the header, a host that loads the library with dlopen can run a page
// through it, and every export hands its arguments, all different, to its
// family's function in order.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <functional>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "border/border.h"
#include "cleanup/cleanup.h"
#include "colour/colour.h"
#include "geometry/geometry.h"
#include "pixel/pixel.h"
#include "skew/skew.h"
#include "support/operations.h"
#include "support/pages.h"

namespace {

std::string ReadFile(const std::string &path) {
    std::ifstream in(path);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

std::set<std::string> HeaderOperations(const char *name = "quarvel.h") {
    const std::string header = ReadFile(std::string(QUARVEL_SOURCE_DIR) + "/include/quarvel/" + name);
    std::set<std::string> names;
    const std::regex decl(R"(QUARVEL_CALL\s+(\w+)\s*\()");
    for (auto it = std::sregex_iterator(header.begin(), header.end(), decl); it != std::sregex_iterator(); ++it)
        names.insert((*it)[1]);
    return names;
}

// Both public headers: the operations and the real-scan layer.
std::set<std::string> PublicFunctions() {
    std::set<std::string> names = HeaderOperations();
    const std::set<std::string> scan = HeaderOperations("scan.h");
    names.insert(scan.begin(), scan.end());
    return names;
}

const std::set<std::string> kGlobalFunctions = {"GlobalAlloc", "GlobalLock", "GlobalUnlock", "GlobalSize",
                                                "GlobalFree"};

TEST(Exports, HeaderDeclaresTheFortyFourOperations) {
    std::set<std::string> table;
    for (std::size_t k = 0; k < qtest::kOperationCount; ++k) table.insert(qtest::kOperations[k].name);
    EXPECT_EQ(table.size(), 44u);
    EXPECT_EQ(HeaderOperations(), table);
}

TEST(Exports, DynamicSymbolsAreExactlyTheOperationsAndGlobalFunctions) {
    const std::string command = std::string("nm -D --defined-only ") + QUARVEL_SHARED_LIBRARY;
    FILE *pipe = popen(command.c_str(), "r");
    ASSERT_NE(pipe, nullptr);
    std::set<std::string> exported;
    char line[512];
    while (std::fgets(line, sizeof line, pipe) != nullptr) {
        char type = 0;
        char name[400];
        unsigned long long address = 0;
        if (std::sscanf(line, "%llx %c %399s", &address, &type, name) == 3 && (type == 'T' || type == 'W')) {
            exported.insert(name);
        }
    }
    ASSERT_EQ(pclose(pipe), 0);
    std::set<std::string> expected = PublicFunctions();
    expected.insert(kGlobalFunctions.begin(), kGlobalFunctions.end());
    EXPECT_EQ(exported, expected);
}

TEST(Exports, ExportListsAgreeWithTheHeader) {
    const std::set<std::string> ops = PublicFunctions();
    EXPECT_GE(ops.size(), 44u + 5u);
    const std::string map = ReadFile(std::string(QUARVEL_SOURCE_DIR) + "/exports/quarvel.map");
    const std::string def = ReadFile(std::string(QUARVEL_SOURCE_DIR) + "/exports/quarvel.def");
    std::set<std::string> inMap, inDef;
    const std::regex mapEntry(R"(\n\s+(\w+);)");
    for (auto it = std::sregex_iterator(map.begin(), map.end(), mapEntry); it != std::sregex_iterator(); ++it)
        inMap.insert((*it)[1]);
    bool inExports = false;
    std::istringstream lines(def);
    for (std::string l; std::getline(lines, l);) {
        if (l.rfind("EXPORTS", 0) == 0) {
            inExports = true;
            continue;
        }
        std::smatch m;
        if (inExports && std::regex_match(l, m, std::regex(R"(\s+(\w+)\s*)"))) inDef.insert(m[1]);
    }
    std::set<std::string> withGlobals = ops;
    withGlobals.insert(kGlobalFunctions.begin(), kGlobalFunctions.end());
    EXPECT_EQ(inMap, withGlobals);
    EXPECT_EQ(inDef, ops);
}

TEST(Exports, AHostLoadsTheLibraryAndMirrorsAPage) {
    void *lib = dlopen(QUARVEL_SHARED_LIBRARY, RTLD_NOW | RTLD_LOCAL);
    ASSERT_NE(lib, nullptr) << dlerror();
    using Alloc = void *(*)(unsigned, size_t);
    using Lock = void *(*)(void *);
    using Unlock = int (*)(void *);
    using Free = void *(*)(void *);
    using Op = void *(*)(void *);
    auto alloc = reinterpret_cast<Alloc>(dlsym(lib, "GlobalAlloc"));
    auto lock = reinterpret_cast<Lock>(dlsym(lib, "GlobalLock"));
    auto unlock = reinterpret_cast<Unlock>(dlsym(lib, "GlobalUnlock"));
    auto release = reinterpret_cast<Free>(dlsym(lib, "GlobalFree"));
    auto mirror = reinterpret_cast<Op>(dlsym(lib, "Mirror"));
    ASSERT_TRUE(alloc && lock && unlock && release && mirror);
    EXPECT_EQ(dlsym(lib, "iplCopy"), nullptr);  // internals stay hidden

    // A 2 x 1 page of 8 bits: pixels 10 and 20.
    void *page = alloc(0x42, 40 + 1024 + 4);
    auto *p = static_cast<unsigned char *>(lock(page));
    const int header[] = {40, 2, 1};
    std::memcpy(p, header, sizeof header);
    p[12] = 1;   // planes
    p[14] = 8;   // bits
    p[1064] = 10;
    p[1065] = 20;
    unlock(page);
    void *out = mirror(page);
    ASSERT_NE(out, nullptr);
    auto *q = static_cast<unsigned char *>(lock(out));
    EXPECT_EQ(q[1064], 20);
    EXPECT_EQ(q[1065], 10);
    unlock(out);
    release(out);
    release(page);
    EXPECT_EQ(mirror(page), nullptr);  // freed handle
    dlclose(lib);
}

// A colour page with a gradient, a red and a blue patch, and a dark blot in
// each edge band; `shift` moves the blots and patches right; `blotsOnly`
// leaves only the blots on white.
qtest::Block Page(int bits, int shift = 0, bool blotsOnly = false) {
    return qtest::MakePageWith(qtest::Shape(64, 48, bits), [=](int x, int y, int c) {
        auto in = [&](int x0, int y0, int n) { return x >= x0 + shift && x < x0 + shift + n && y >= y0 && y < y0 + n; };
        if (in(2, 20, 6) || in(30, 40, 6) || in(56, 10, 6) || in(12, 2, 6)) return 0;
        if (blotsOnly) return 255;
        if (in(20, 20, 8)) return c == 2 ? 220 : 40;
        if (in(36, 20, 8)) return c == 0 ? 200 : 70;
        return 90 + (x * 2 + y * 3 + c * 20) % 160;
    });
}

TEST(Exports, EachPassesItsArgumentsInOrder) {
    namespace q = quarvel;
    using qtest::Block;
    Block c = Page(24), g = Page(8), g2 = Page(8, 1), holes = Page(8, 0, true), mark = qtest::MakePageWith(qtest::Shape(20, 9, 8), [](int x, int y, int) {
        return (x * 9 + y * 40) % 256;
    });
    Block map(EnhanceColorEx(c.get(), nullptr, nullptr, 0, 0, 0, 0, 0, 0, 0));
    RECT r{3, 5, 40, 30}, w1{0, 0, 0, 0}, w2 = w1;
    const q::colour::EnhanceParams e{100, 20, 30, 40, 50, 60, 70};
    const q::border::HoleSearch h1{true, true, false, false, 12, 1, 3, 2, 9, 0.4}, h2{true, false, true, false, 12, 1, 3, 2, 9, 0.4};
    using Call = std::function<HGLOBAL()>;
    // The export's call, then the same through the family's function.
#define SAME(abi, ...) {#abi, [&] { return abi; }, [&] { return __VA_ARGS__; }}
    const std::vector<std::tuple<std::string, Call, Call>> calls = {
        SAME(AdjustBrightness(c.get(), 17), q::pixel::AdjustBrightness(c.get(), 17)),
        SAME(AdjustContrast(c.get(), 23), q::pixel::AdjustContrast(c.get(), 23)),
        SAME(AdjustBrightnessAndContrast(c.get(), 40, -30), q::pixel::AdjustBrightnessAndContrast(c.get(), 40, -30)),
        SAME(TextEffect(g.get(), 2), q::pixel::TextEffect(g.get(), 2)),
        SAME(TextEffectRect(g.get(), &r, -1), q::pixel::TextEffectRect(g.get(), &r, -1)),
        SAME(Fill(g.get(), &r, 77), q::pixel::Fill(g.get(), &r, 77)),
        SAME(FillOutside(g.get(), &r, 77), q::pixel::FillOutside(g.get(), &r, 77)),
        SAME(ImageOr(g.get(), g2.get(), 2, 3, 9, 1, 20, 11), q::pixel::ImageOr(g.get(), g2.get(), 2, 3, 9, 1, 20, 11)),
        SAME(GetLess(g.get(), g2.get()), q::pixel::GetLess(g.get(), g2.get())),
        SAME(ConvertMode(c.get(), 1, 100), q::pixel::ConvertMode(c.get(), 1, 100)),
        SAME(ConvertModeToGrayEx(c.get(), 30, 90), q::pixel::ConvertModeToGrayEx(c.get(), 30, 90)),
        SAME(Thumbnail(c.get(), 40, 20), q::pixel::Thumbnail(c.get(), 40, 20)),
        SAME(Resize(c.get(), 50, 30), q::pixel::Resize(c.get(), 50, 30)),
        SAME(Rotate(c.get(), 7.5, 20, 9, 1), q::geometry::Rotate(c.get(), 7.5, 20, 9, 1)),
        SAME(RotateEx(c.get(), 7.5, 20, 9, 1), q::geometry::RotateEx(c.get(), 7.5, 20, 9, 1)),
        SAME(RotateEx1(c.get(), 7.5, 20, 9, 1), q::geometry::RotateEx1(c.get(), 7.5, 20, 9, 1)),
        SAME(RotateExpand(c.get(), 90, 3, 4, 2), q::geometry::RotateExpand(c.get(), 90)),
        SAME(RemoveBorder(g.get(), 100, 5, 6), q::border::RemoveBorder(g.get(), 100)),
        SAME(RemoveBorder1(g.get(), 100, 90, 5, 6), q::border::RemoveBorder1(g.get(), 100, 90)),
        SAME(RemoveBorder_GPY(g.get(), 100), q::border::RemoveBorderGpy(g.get(), 100)),
        SAME(RemoveBorder_Fill(g.get(), 100), q::border::RemoveBorderFill(g.get(), 100)),
        SAME(RemoveHole(holes.get(), TRUE, TRUE, FALSE, FALSE, 12, 1, 3, 2, 9, 0.4), q::border::RemoveHole(holes.get(), h1)),
        SAME(RemoveHole(holes.get(), TRUE, FALSE, TRUE, FALSE, 12, 1, 3, 2, 9, 0.4), q::border::RemoveHole(holes.get(), h2)),
        SAME(Denoise(g.get(), 3), q::cleanup::Denoise(g.get(), 3)),
        SAME(DenoiseRect(c.get(), &r, 4), q::cleanup::DenoiseRect(c.get(), &r, 4)),
        SAME(AddWaterMark(c.get(), mark.get()), q::cleanup::AddWaterMark(c.get(), mark.get())),
        SAME(AddWaterMarkEx(c.get(), mark.get()), q::cleanup::AddWaterMarkEx(c.get(), mark.get())),
        SAME(Combine(c.get(), mark.get(), 1), q::cleanup::Combine(c.get(), mark.get(), 1)),
        SAME(ConvertHongTou(c.get(), g.get(), 1, 2, 3, 40), q::colour::ConvertHongTou(c.get(), g.get(), 40, 90, false)),
        SAME(ConvertHongTouEx(c.get(), g.get(), 1, 2, 3, 40, 70), q::colour::ConvertHongTou(c.get(), g.get(), 40, 70, true)),
        SAME(EnhanceColor(c.get(), &r, 100, 20, 30, 40, 50, 60, 70), q::colour::EnhanceColor(c.get(), &r, e)),
        SAME(EnhanceColorEx(c.get(), map.get(), &r, 100, 20, 30, 40, 50, 60, 70),
             q::colour::EnhanceColorEx(c.get(), map.get(), &r, e)),
        SAME(EnhanceColorEx1(c.get(), g2.get(), map.get(), &r, 100, 20, 30, 40, 50, 60, 70),
             q::colour::EnhanceColorEx1(c.get(), g2.get(), map.get(), &r, e)),
        SAME(DeColorize(c.get(), &w1, 30, 60, 90), q::colour::DeColorize(c.get(), &w2, 30, 60, 90)),
    };
#undef SAME
    EXPECT_EQ(qtest::DarkCount(Block(q::border::RemoveHole(holes.get(), h1)).get()), 2 * 36);  // two bands painted
    for (const auto &[name, viaAbi, direct] : calls) {
        Block a(viaAbi()), b(direct());
        ASSERT_TRUE(b || name.rfind("RemoveBorder_GPY", 0) == 0) << name;  // no sheet of 50 pixels: refused
        EXPECT_EQ(a.bytes(), b.bytes()) << name;
    }
    // ImageAnd writes page 1, and Crop the rectangle: each on its own copies.
    Block p1(ImageAnd(g.get(), g2.get(), 2, 3, 9, 1, 20, 11)), g3 = Page(8), p2(q::pixel::ImageAnd(g3.get(), g2.get(), 2, 3, 9, 1, 20, 11));
    EXPECT_EQ(p1.bytes(), p2.bytes());
    RECT c1{2, 3, 5, 7}, c2 = c1;
    EXPECT_EQ(Block(Crop(c.get(), &c1, 3, 4)).bytes(), Block(q::geometry::Crop(c.get(), &c2, 3, 4)).bytes());
    EXPECT_EQ(c1.left, c2.left);
    EXPECT_EQ(c1.bottom, c2.bottom);
    EXPECT_EQ(IsBlankPage(g.get(), 140), q::cleanup::IsBlankPage(g.get(), 140));
    EXPECT_EQ(JudgeColorMode(c.get(), 5), q::colour::JudgeColorMode(c.get(), 5));
    EXPECT_EQ(GetBinaryThresholdByOtsu(g.get()), q::skew::GetBinaryThresholdByOtsu(g.get()));
    EXPECT_EQ(GetBinaryThresholdByRidCal(g.get()), q::skew::GetBinaryThresholdByRidCal(g.get()));
    EXPECT_EQ(GetObliquity(g.get()), q::skew::GetObliquity(g.get()));
}

}  // namespace
