// The shared library as a host sees it: exactly the operations of quarvel.h
// and the global-memory functions are exported, the export lists agree with
// the header, and a host that loads the library with dlopen can run a page
// through it.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <fstream>
#include <regex>
#include <set>
#include <sstream>
#include <string>

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

// The library's operations, by their export names.
const std::set<std::string> kOperations = {
    "Mirror", "Flip", "Invert", "AdjustBrightness", "AdjustContrast", "AdjustBrightnessAndContrast", "TextEffect",
    "TextEffectRect", "Fill", "FillOutside", "ImageAnd", "ImageOr", "GetLess", "ConvertMode", "ConvertModeToGrayEx",
    "Thumbnail", "Resize", "Rotate", "RotateEx", "RotateEx1", "RotateExpand", "Crop", "RemoveBorder", "RemoveBorder1",
    "RemoveBorder_GPY", "RemoveBorder_Fill", "RemoveHole", "Denoise", "DenoiseRect", "IsBlankPage", "AddWaterMark",
    "AddWaterMarkEx", "Combine", "JudgeColorMode", "ConvertHongTou", "ConvertHongTouEx", "EnhanceColor",
    "EnhanceColorEx", "EnhanceColorEx1", "DeColorize", "GetBinaryThresholdByOtsu", "GetBinaryThresholdByRidCal",
    "GetObliquity", "TestPrecision"};

TEST(Exports, HeaderDeclaresTheFortyFourOperations) {
    EXPECT_EQ(kOperations.size(), 44u);
    EXPECT_EQ(HeaderOperations(), kOperations);
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

}  // namespace
