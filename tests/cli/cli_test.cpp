// The quarvel tool: format round trips of pixels and resolution at each
// depth, honest readers for truncated, absurd and palette files, strict
// option values and every error path's message and exit code, batches that
// refuse to overwrite inputs or each other, fail files whole and give the
// same bytes in parallel, escaped JSON, the scan commands' wiring, an
// interrupt that leaves no temporary file, and the demo.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "demo.h"
#include "formats.h"
#include "ops.h"
#include "page.h"
#include "pipeline.h"

namespace fs = std::filesystem;
using namespace qtool;

namespace {

struct Dir {
    std::string path;
    Dir() {
        char t[] = "/tmp/quarvel-cli-XXXXXX";
        path = mkdtemp(t);
    }
    ~Dir() { fs::remove_all(path); }
    std::string operator/(const std::string &n) const { return path + "/" + n; }
};

std::string Slurp(const std::string &p) {
    std::ifstream in(p, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

void Put(const std::string &p, const std::string &bytes) {
    fs::create_directories(fs::path(p).parent_path());
    std::ofstream(p, std::ios::binary) << bytes;
}

struct Out {
    int code;
    std::string out, err;
};

// Runs the tool in `d` (so relative paths are d's).
Out Tool(const Dir &d, const std::string &args) {
    const std::string cmd = "cd " + d.path + " && " + QUARVEL_TOOL + " " + args + " >.out 2>.err";
    const int st = std::system(cmd.c_str());
    Out o{WIFEXITED(st) ? WEXITSTATUS(st) : -1, Slurp(d / ".out"), Slurp(d / ".err")};
    fs::remove(d / ".out"), fs::remove(d / ".err");
    return o;
}

// A page of each depth with a pattern that survives lossless formats.
Page Pattern(int bits, int w = 37, int h = 23, double dpi = 300) {
    Page page = NewPage(w, h, bits, bits == 1 ? BitonalTable() : bits == 8 ? GrayTable() : std::vector<RGBQUAD>{}, dpi, dpi);
    Locked p(page.get());
    for (int y = 0; y < h; ++y)
        for (int x = 0; x < w; ++x) {
            std::uint8_t *r = p.row(y);
            if (bits == 1 && (x + y) % 3 == 0) r[x >> 3] |= static_cast<std::uint8_t>(0x80 >> (x & 7));
            for (int c = 0; bits > 1 && c < bits / 8; ++c)
                r[x * (bits / 8) + c] = static_cast<std::uint8_t>((x * 7 + y * 13 + 60 * c) % 256);
        }
    return page;
}

// Pixels as gray or colour values through the table, so pages whose tables
// differ but mean the same compare equal.
std::vector<int> Colours(const Page &page) {
    Locked p(page.get());
    std::vector<int> out;
    for (int y = 0; y < p.height(); ++y) {
        const std::uint8_t *r = p.row(y);
        for (int x = 0; x < p.width(); ++x) {
            if (p.bits() == 1) out.push_back(p.table()[(r[x >> 3] >> (7 - (x & 7))) & 1].rgbRed);
            if (p.bits() == 8) out.push_back(p.table()[r[x]].rgbRed);
            for (int c = 0; p.bits() > 8 && c < p.bits() / 8; ++c) out.push_back(r[x * (p.bits() / 8) + c]);
        }
    }
    return out;
}

void Write(const std::string &path, const std::vector<const Page *> &pages) {
    fs::create_directories(fs::path(path).parent_path());
    WriteImage(path, pages);
}

std::size_t Count(const std::string &dir) {
    std::size_t n = 0;
    for (const auto &e : fs::recursive_directory_iterator(dir)) n += e.is_regular_file();
    return n;
}

bool NoTemporaryFiles(const std::string &dir) {
    for (const auto &e : fs::recursive_directory_iterator(dir))
        if (e.path().string().find(".tmp-") != std::string::npos) return false;
    return true;
}

// A BMP of `bits` with the given table and packed rows (bottom-up).
std::string Bmp(int w, int h, int bits, const std::vector<std::uint32_t> &table, const std::string &rows,
                std::uint32_t compression = 0) {
    std::string b(54, '\0');
    auto put = [&](std::size_t o, std::uint32_t v, int n) { std::memcpy(&b[o], &v, n); };
    b[0] = 'B', b[1] = 'M';
    put(10, static_cast<std::uint32_t>(54 + 4 * table.size()), 4);
    put(14, 40, 4), put(18, w, 4), put(22, h, 4), put(26, 1, 2), put(28, bits, 2), put(30, compression, 4);
    put(46, static_cast<std::uint32_t>(table.size()), 4);
    for (std::uint32_t c : table) b.append(reinterpret_cast<const char *>(&c), 4);
    return b + rows;
}

TEST(Formats, RoundTripKeepsPixelsAndResolution) {
    Dir dir;
    for (const auto &[ext, bits] : std::initializer_list<std::pair<std::string, int>>{
             {"bmp", 1}, {"bmp", 8}, {"bmp", 24}, {"bmp", 32}, {"png", 1}, {"png", 8}, {"png", 24}, {"png", 32},
             {"tif", 1}, {"tif", 8}, {"tif", 24}, {"tif", 32}, {"pbm", 1}, {"pgm", 8}, {"ppm", 24}}) {
        SCOPED_TRACE(ext + std::to_string(bits));
        Page page = Pattern(bits);
        const std::string path = dir / ("page." + ext);
        WriteImage(path, {&page});
        std::vector<Page> back = ReadImage(path);
        ASSERT_EQ(back.size(), 1u);
        Locked a(page.get()), b(back[0].get());
        EXPECT_EQ(b.width() * 1000 + b.height(), a.width() * 1000 + a.height());
        EXPECT_EQ(Colours(back[0]), Colours(page));
        if (ext[0] != 'p' || ext == "png") EXPECT_EQ(DpiOf(b.header()->biXPelsPerMeter), 300.0);  // exactly; PNM has none
    }
}

TEST(Formats, JpegMultiPageTiffAndOnePageFormats) {
    Dir dir;
    for (int bits : {8, 24}) {
        Page page = Pattern(bits, 64, 48, 200);
        WriteImage(dir / "page.jpg", {&page}, 95);
        const std::vector<Page> back = ReadImage(dir / "page.jpg");
        Locked b(back[0].get());
        EXPECT_EQ(b.bits(), bits);
        EXPECT_NEAR(DpiOf(b.header()->biXPelsPerMeter), 200, 0.5);
    }
    Page a = Pattern(1), b = Pattern(8), c = Pattern(24);
    WriteImage(dir / "book.tif", {&a, &b, &c});
    std::vector<Page> back = ReadImage(dir / "book.tif");
    ASSERT_EQ(back.size(), 3u);
    EXPECT_EQ(Colours(back[0]), Colours(a));
    EXPECT_EQ(Colours(back[1]), Colours(b));
    EXPECT_EQ(Colours(back[2]), Colours(c));
    EXPECT_THROW(WriteImage(dir / "two.png", {&a, &b}), FormatError);
}

TEST(Readers, BadFilesFailWithTheFileNameBeforeAllocating) {
    Dir d;
    Page colour = NewPage(300, 200, 24, {}, 300, 300);
    Write(d / "ok.jpg", {&colour});
    Write(d / "ok.png", {&colour});
    Write(d / "ok.bmp", {&colour});
    const std::string jpg = Slurp(d / "ok.jpg"), png = Slurp(d / "ok.png");
    const struct {
        std::string name, bytes, message;
    } cases[] = {
        {"cut.jpg", jpg.substr(0, jpg.size() / 2), "Premature end of JPEG file"},
        {"cut.png", png.substr(0, png.size() / 2), ""},
        {"cut.bmp", Slurp(d / "ok.bmp").substr(0, 80), ""},
        {"cut.tif", std::string("II*\0garbage", 11), ""},
        {"empty.png", "", ""},
        {"text.png", "hello, not an image", ""},
        {"wide.ppm", "P6 100000000 1 255\n", "unsupported image size"},
        {"overflow.pgm", "P5 99999999999999999999 1 255\n", "PNM width out of range"},
        {"empty.pgm", "P5 16000 16000 255\n" + std::string(100, '\0'), "claims 16000 x 16000 pixels but holds only 100 bytes"},
        {"plain.pbm", "P1 3 2 0 1 0 1 x", "truncated or corrupt PNM data"},
        {"bitfields.bmp", Bmp(2, 1, 24, {}, std::string(8, '\0'), 1), "compressed BMP"},
        {"short.bmp", Bmp(64, 64, 24, {}, std::string(100, '\0')), "claims 64 x 64 pixels"},
    };
    for (const auto &c : cases) {
        Put(d / c.name, c.bytes);
        try {
            ReadImage(d / c.name);
            ADD_FAILURE() << c.name << " was read";
        } catch (const FormatError &e) {
            EXPECT_NE(std::string(e.what()).find(d / c.name), std::string::npos) << e.what();
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
    EXPECT_THROW(ReadImage(d / "missing.png"), FormatError);
    SetPixelLimit(10'000);
    EXPECT_THROW(ReadImage(d / "ok.jpg"), FormatError);  // 60,000 pixels
    SetPixelLimit(kDefaultPixelLimit);
    EXPECT_NO_THROW(ReadImage(d / "ok.jpg"));
}

TEST(Readers, PalettesAndOddDepthsAreReadThroughTheirColours) {
    Dir d;
    // 4 x 1 pixels; a gray table in disorder and a colour one.
    const std::vector<std::uint32_t> grays = {0xFFFFFF, 0x000000, 0x808080, 0x404040};
    const struct {
        const char *name;
        std::string bytes;
        int bits;
        std::vector<int> expect;  // gray levels, or B, G, R per pixel
    } cases[] = {
        {"p4.bmp", Bmp(4, 1, 4, grays, std::string("\x01\x23\0\0", 4)), 8, {0xFF, 0, 0x80, 0x40}},
        {"p2.bmp", Bmp(4, 1, 2, grays, std::string("\x1B\0\0\0", 4)), 8, {0xFF, 0, 0x80, 0x40}},
        {"p8.bmp", Bmp(4, 1, 8, {0xFF0000, 0x00FF00}, std::string("\x00\x01\x00\x01", 4)), 24,
         {0, 0, 255, 0, 255, 0, 0, 0, 255, 0, 255, 0}},
        {"p16.bmp", Bmp(2, 1, 16, {}, std::string("\x00\x7C\x1F\x00", 4)), 24, {0, 0, 255, 255, 0, 0}},
    };
    for (const auto &c : cases) {
        Put(d / c.name, c.bytes);
        std::vector<Page> pages = ReadImage(d / c.name);
        Locked p(pages[0].get());
        ASSERT_EQ(p.bits(), c.bits) << c.name;
        EXPECT_EQ(std::vector<int>(p.row(0), p.row(0) + c.expect.size()), c.expect) << c.name;
        if (c.bits == 8) {
            EXPECT_EQ(p.table()[200].rgbRed, 200) << c.name;  // a true gray ramp
        }
    }
}

TEST(Operations, TableNamesAndPipelines) {
    EXPECT_EQ(KebabCase("RemoveBorder_GPY"), "remove-border-gpy");
    ASSERT_NE(FindOp("RemoveHole"), nullptr);
    EXPECT_EQ(FindOp("RemoveHole"), FindOp("remove-hole"));
    EXPECT_EQ(FindOp("no-such-op"), nullptr);
    EXPECT_EQ(FindOp("rotate-whole-black"), FindOp("RotateEx1"));
    const std::vector<Step> steps = ParsePipeline("convert-mode --mode 8 | invert | get-binary-threshold-by-otsu");
    ASSERT_EQ(steps.size(), 3u);
    std::vector<std::pair<std::string, Measure>> measures;
    EXPECT_EQ(Locked(ApplySteps(steps, Pattern(24), &measures).get()).bits(), 8);
    EXPECT_EQ(measures.size(), 1u);
    for (const char *bad : {"denoise --size | invert", "denoise --sise 2", "invert || flip"})
        EXPECT_THROW(ParsePipeline(bad), UsageError) << bad;
    EXPECT_THROW(ApplySteps(ParsePipeline("adjust-contrast --contrast 50"), Pattern(1), nullptr), OperationError);
}

TEST(Options, EveryErrorHasItsMessageAndExitCode) {
    Dir d;
    Page bits = Pattern(1, 40, 30), gray = Pattern(8, 40, 30);
    Write(d / "bits.png", {&bits});
    Write(d / "in.png", {&gray});
    Put(d / "junk.png", "not an image");
    const std::string before = Slurp(d / "bits.png");
    const struct {
        std::string args;
        int code;
        std::string err, out;
    } cases[] = {
        {"", 2, "usage", ""},
        {"frobnicate a b", 2, "unknown command", ""},
        {"denoise --size x bits.png o.png", 2, "expected a whole number", ""},
        {"denoise --colour 2 bits.png o.png", 2, "unknown option", ""},
        {"resize bits.png o.png", 2, "is required", ""},
        {"denoise bits.png bits.png", 2, "overwrite the input", ""},
        {"denoise bits.png o.xyz", 2, "unknown output format", ""},
        {"denoise missing.png o.png", 3, "cannot open", ""},
        {"denoise junk.png o.png", 3, "unsupported file format", ""},
        {"adjust-contrast bits.png o.png", 4, "refused the page", ""},
        {"convert-mode --mode 1 bits.png o.jpg", 5, "not written as JPEG", ""},
        {"run invert bits.png", 2, "-o DIR is required", ""},
        {"rotate --angle nan in.png o.png", 2, "--angle: expected a finite number from -36000 to 36000, got 'nan'", ""},
        {"rotate --angle inf in.png o.png", 2, "got 'inf'", ""},
        {"run \"rotate --angle 'x y'\" -o o in.png", 2, "got 'x y'", ""},  // quoted words in a pipeline
        {"run \"rotate --angle '' --interpolate 1\" -o o in.png", 2, "got ''", ""},
        {"rotate --angle 3 --interpolate 7 in.png o.png", 2, "--interpolate: expected a number from 0 to 2, got '7'", ""},
        {"thumbnail --width 0 in.png o.png", 2, "--width: expected a number from 1 to 1048576", ""},
        {"convert-mode --mode 3 in.png o.png", 2, "expected one of 1|8|24|32", ""},
        {"binarize --method niblack in.png o.png", 2, "expected one of default|sauvola|wolf|otsu", ""},
        {"run mirror -j 2x -o o in.png", 2, "-j: expected a whole number from 1 to 256, got '2x'", ""},
        {"run mirror --format gif -o o in.png", 2, "--format: expected bmp, png", ""},
        {"--max-megapixels 0 mirror in.png o.png", 2, "expected a whole number from 1", ""},
        {"--version", 0, "", "quarvel "},
        {"help run", 0, "", "--no-progress"},
        {"--help", 0, "", "--in-place"},
        {"rotate --help", 0, "", "clockwise"},
        {"help get-obliquity", 0, "", "fall toward the right"},
        {"help RemoveHole", 0, "", "--density"},
        {"list", 0, "", "remove-border1"},
        {"get-obliquity --json in.png", 0, "", "\"operation\":\"get-obliquity\""},
    };
    for (const auto &c : cases) {
        const Out o = Tool(d, c.args);
        EXPECT_EQ(o.code, c.code) << c.args << o.err;
        EXPECT_NE(o.err.find(c.err), std::string::npos) << c.args << "\n" << o.err;
        EXPECT_NE(o.out.find(c.out), std::string::npos) << c.args << "\n" << o.out;
    }
    EXPECT_EQ(Slurp(d / "bits.png"), before);
    EXPECT_TRUE(NoTemporaryFiles(d.path));
    EXPECT_FALSE(fs::exists(d / "o.jpg") || fs::exists(d / "o.png"));
}

TEST(Options, RotationCentreDefaultsToTheMiddleOfANonSquarePage) {
    Dir d;
    Page g = Pattern(8, 120, 60);
    Write(d / "in.png", {&g});
    ASSERT_EQ(Tool(d, "rotate --angle 30 --interpolate 0 in.png default.png").code, 0);
    ASSERT_EQ(Tool(d, "rotate --angle 30 --interpolate 0 --x 60 --y 30 in.png explicit.png").code, 0);
    ASSERT_EQ(Tool(d, "rotate --angle 30 --interpolate 0 --x 30 --y 60 in.png swapped.png").code, 0);
    EXPECT_EQ(Slurp(d / "default.png"), Slurp(d / "explicit.png"));
    EXPECT_NE(Slurp(d / "default.png"), Slurp(d / "swapped.png"));
    // A quarter turn is clockwise unless told otherwise.
    ASSERT_EQ(Tool(d, "quarter-turn in.png q.png").code, 0);
    ASSERT_EQ(Tool(d, "quarter-turn --angle 90 in.png q90.png").code, 0);
    EXPECT_EQ(Slurp(d / "q.png"), Slurp(d / "q90.png"));
}

TEST(Options, JsonEscapesFileNames) {
    Dir d;
    Page g = Pattern(8, 40, 30);
    const std::string name = "odd \"name\" \\ here.png";
    Write(d / name, {&g});
    const Out o = Tool(d, "get-obliquity --json 'odd \"name\" \\ here.png'");
    ASSERT_EQ(o.code, 0) << o.err;
    const nlohmann::json j = nlohmann::json::parse(o.out);
    EXPECT_EQ(j["file"], name);
    EXPECT_EQ(j["page"], 1);
}

TEST(Batch, RefusesOutputsThatWouldReplaceInputsOrEachOther) {
    Dir d;
    Page g = Pattern(8, 30, 20);
    for (const char *f : {"same/p.png", "a/page.png", "b/page.png", "page.jpg", "x-2.png"}) Write(d / f, {&g});
    Write(d / "x.tif", {&g, &g, &g});
    const std::string before = Slurp(d / "same/p.png");
    const struct {
        std::string args, message;
    } cases[] = {
        {"run mirror -o same same/p.png", "holds the input same/p.png"},
        {"run mirror -o ./same/../same same/p.png", "holds the input"},
        {"run mirror -o oc a/page.png b/page.png page.jpg", "a/page.png and b/page.png would both be written to oc/page.png"},
        {"run mirror -o oc --format png x.tif x-2.png", "x.tif and x-2.png would both be written to oc/x-2.png"},
    };
    for (const auto &c : cases) {
        const Out o = Tool(d, c.args);
        EXPECT_EQ(o.code, 2) << c.args << o.err;
        EXPECT_NE(o.err.find(c.message), std::string::npos) << c.args << "\n" << o.err;
    }
    EXPECT_FALSE(fs::exists(d / "oc"));
    EXPECT_EQ(Slurp(d / "same/p.png"), before);
    EXPECT_EQ(Tool(d, "run invert -o same --in-place same/p.png").code, 0);
    EXPECT_NE(Slurp(d / "same/p.png"), before);
    EXPECT_EQ(Count(d / "same"), 1u);
}

TEST(Batch, NamesJpegInputsPngAndNumbersPagesOfOnePageFormats) {
    Dir d;
    Page a = Pattern(8, 30, 20), b = Pattern(24, 40, 20);
    Write(d / "in/book.tif", {&a, &b});
    Write(d / "in/photo.jpg", {&a});
    EXPECT_EQ(Tool(d, "run flip -o o1 in/book.tif in/photo.jpg").code, 0);
    EXPECT_TRUE(fs::exists(d / "o1/book.tif") && fs::exists(d / "o1/photo.png"));
    EXPECT_EQ(Tool(d, "run flip -o o2 --format .PNG in/book.tif").code, 0);
    EXPECT_EQ(Locked(ReadImage(d / "o2/book-2.png")[0].get()).width(), 40);
    EXPECT_EQ(Count(d / "o2"), 2u);
    EXPECT_EQ(Tool(d, "flip in/book.tif one.bmp").code, 0);  // the single command numbers pages too
    EXPECT_TRUE(fs::exists(d / "one-1.bmp") && fs::exists(d / "one-2.bmp") && !fs::exists(d / "one.bmp"));
    EXPECT_NE(Tool(d, "get-obliquity in/book.tif").out.find("in/book.tif[2]: "), std::string::npos);
    const Out json = Tool(d, "run get-obliquity --json -o o4 in/book.tif");
    EXPECT_EQ(nlohmann::json::parse(json.out.substr(json.out.find('\n') + 1))["page"], 2) << json.out;
}

TEST(Batch, RefusedPagesFailTheirFileAndParallelRunsAgree) {
    Dir d;
    Page gray = Pattern(8, 200, 150), colour = Pattern(24, 180, 120), bits = Pattern(1, 160, 100);
    Write(d / "book.tif", {&gray, &colour, &gray});
    Write(d / "bad.tif", {&gray, &bits, &gray});  // adjust-contrast refuses the 1-bit page
    Write(d / "ok.png", {&colour});
    fs::create_directories(d / "folder");
    Out runs[2];
    for (int j : {1, 2}) {
        const std::string out = "out" + std::to_string(j);
        const Out o = runs[j - 1] = Tool(d, "run \"adjust-contrast --contrast 20 | denoise --size 2 | get-obliquity\""
                                            " --no-progress -j " + std::to_string(j) + " -o " + out + " book.tif bad.tif folder ok.png");
        EXPECT_EQ(o.code, 1) << o.err;
        EXPECT_NE(o.err.find("folder: is a directory"), std::string::npos) << o.err;
        EXPECT_NE(o.err.find("bad.tif[2]: adjust-contrast refused the page; bad.tif not written"), std::string::npos) << o.err;
        EXPECT_NE(o.err.find("2 files written, 1 skipped, 1 failed"), std::string::npos) << o.err;
        EXPECT_EQ(Count(d / out), 2u);  // no temporary file
        const std::vector<Page> book = ReadImage(d / (out + "/book.tif"));
        ASSERT_EQ(book.size(), 3u);
        EXPECT_EQ(Locked(book[1].get()).width(), 180);  // order kept
    }
    EXPECT_EQ(Slurp(d / "out1/book.tif"), Slurp(d / "out2/book.tif"));
    EXPECT_EQ(Slurp(d / "out1/ok.png"), Slurp(d / "out2/ok.png"));
    EXPECT_EQ(runs[0].out, runs[1].out);
    EXPECT_EQ(Tool(d, "run invert -o out3 ok.png folder").code, 1);  // a file skipped, none failed
    const Out single = Tool(d, "mirror folder x.png");
    EXPECT_EQ(single.code, 3);
    EXPECT_NE(single.err.find("folder: is a directory"), std::string::npos);
}

TEST(Batch, InterruptRemovesTemporaryFilesAndReportsProgress) {
    Dir d;
    Page big = Pattern(8, 1500, 1500);
    std::string files;
    for (int i = 0; i < 40; ++i) {
        Write(d / (std::to_string(i) + ".tif"), {&big});
        files += " " + std::to_string(i) + ".tif";
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(d.path.c_str()) != 0) _exit(99);
        dup2(open("/dev/null", O_WRONLY), 1), dup2(open((d / "err.txt").c_str(), O_WRONLY | O_CREAT, 0644), 2);
        execl("/bin/sh", "sh", "-c", (std::string("exec ") + QUARVEL_TOOL + " run \"denoise --size 3 | mirror\" -o out" + files).c_str(),
              nullptr);
        _exit(98);
    }
    usleep(400000);
    kill(pid, SIGINT);
    int st = 0;
    waitpid(pid, &st, 0);
    ASSERT_TRUE(WIFEXITED(st));
    if (WEXITSTATUS(st) == 130)
        EXPECT_NE(Slurp(d / "err.txt").find("interrupted after"), std::string::npos);
    else
        EXPECT_EQ(WEXITSTATUS(st), 0);
    EXPECT_TRUE(NoTemporaryFiles(d / "out"));
}

TEST(Scan, OptionsReachTheRecord) {
    const struct {
        const char *op;
        std::vector<std::string> words;
        std::uint32_t steps;
        int method, margin, dpi;
    } cases[] = {
        {"clean", {}, QUARVEL_CLEAN_DEFAULT, QUARVEL_BINARIZE_DEFAULT, -1, 0},
        {"clean", {"--no-deskew", "--no-holes", "--margin", "7"}, QUARVEL_CLEAN_CROP | QUARVEL_CLEAN_DESPECKLE, 0, 7, 0},
        {"clean", {"--whiten", "--orient", "--no-despeckle", "--dpi", "150"},
         QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_ORIENT | QUARVEL_CLEAN_WHITEN | QUARVEL_CLEAN_HOLES, 0, -1, 150},
        {"clean", {"--no-crop", "--binarize", "--method", "Wolf"},
         QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_HOLES | QUARVEL_CLEAN_DESPECKLE | QUARVEL_CLEAN_BINARIZE, QUARVEL_BINARIZE_WOLF, -1, 0},
        {"deskew", {"--dpi", "600"}, QUARVEL_CLEAN_DESKEW, 0, -1, 600},
        {"binarize", {"--method", "otsu", "--window", "31", "--k", "0.3"}, 0, QUARVEL_BINARIZE_OTSU, -1, 0},
        {"clean", {"--min-confidence", "0.8"}, QUARVEL_CLEAN_DEFAULT, 0, -1, 0},
    };
    for (const auto &c : cases) {
        Values v;
        ParseArgs(*FindOp(c.op), c.words, &v);
        const QuarvelScanOptions o = ScanOptionsOf(*FindOp(c.op), v);
        if (c.steps) {
            EXPECT_EQ(o.steps, c.steps) << c.op << " " << c.words.size();
        }
        EXPECT_EQ(o.binarize_method, c.method) << c.op;
        EXPECT_EQ(o.margin * 1000 + o.dpi, c.margin * 1000 + c.dpi) << c.op << " " << c.words.size();
        if (c.words.size() == 6) {
            EXPECT_EQ(o.binarize_window, 31);
            EXPECT_DOUBLE_EQ(o.binarize_k, 0.3);
        }
        if (c.words.size() == 2 && c.dpi == 0) {
            EXPECT_DOUBLE_EQ(o.min_skew_confidence, 0.8);
        }
    }
}

TEST(Scan, DetectReportsEveryKeyInItsShape) {
    QuarvelPageReport r{};
    r.usable = 1, r.width = 100, r.height = 50, r.skew_angle = -1.5, r.orientation = 270;
    r.sheet = RECT{2, 3, 98, 49}, r.frame_sides = QUARVEL_SIDE_LEFT | QUARVEL_SIDE_BOTTOM;
    r.hole_count = 1, r.holes[0] = QuarvelHole{5, 25, 3};
    r.ink = 0.25, r.mode = 8;
    nlohmann::json j = nlohmann::json::parse(DescribeReport(r).json);
    EXPECT_EQ(j["sheet"]["box"], nlohmann::json({2, 3, 98, 49}));
    EXPECT_EQ(j["sheet"]["sides"], nlohmann::json({"left", "bottom"}));
    EXPECT_EQ(j["sheet"]["frame"], true);
    EXPECT_TRUE(j["content"].is_null());
    EXPECT_EQ(j["holes"][0]["cy"], 25.0);
    EXPECT_EQ(j["orientation"]["angle"], 270);
    EXPECT_EQ(j["blank"]["blank"], false);
    r.has_content = 1, r.content = RECT{10, 11, 12, 13};
    EXPECT_EQ(nlohmann::json::parse(DescribeReport(r).json)["content"], nlohmann::json({10, 11, 12, 13}));

    Dir d;
    Page a = Pattern(8, 60, 40), b = Pattern(8, 50, 40);
    Write(d / "two.tif", {&a, &b});
    const Out o = Tool(d, "detect --json two.tif");
    ASSERT_EQ(o.code, 0) << o.err;
    std::istringstream lines(o.out);
    int page = 0;
    for (std::string line; std::getline(lines, line);) {
        const nlohmann::json l = nlohmann::json::parse(line);
        EXPECT_EQ(l["page"], ++page);
        EXPECT_EQ(l["file"], "two.tif");
        for (const char *key : {"width", "height", "skew", "orientation", "sheet", "content", "holes", "blank", "mode"})
            EXPECT_TRUE(l.contains(key)) << key;
    }
    EXPECT_EQ(page, 2);
    EXPECT_EQ(Tool(d, "run \"deskew | binarize --method otsu | clean --no-crop\" -o out two.tif").code, 0);
}

TEST(Tool, DemoMeasuresItsOwnSkew) {
    Dir dir;
    DemoReport report;
    ASSERT_EQ(RunDemo(dir / "demo", &report, true), 0);
    EXPECT_NEAR(report.foundSkew, report.trueSkew, 0.2);
    EXPECT_EQ(report.colourMode, 24);
    for (const char *f : {"1-scan.png", "2-border-deskew.png", "5-holes.png", "7-black-white.png", "overview.png",
                          "scan-graph-paper-front.png", "scan-deskew-2.png", "scan-breviar.38.150.png"})
        EXPECT_TRUE(fs::exists(fs::path(dir / "demo") / f)) << f;
    // The real scans: the three holes of the graph paper, the gray score's
    // 2.2 degree skew straightened away, the breviary's red ink kept.
    ASSERT_EQ(report.scans.size(), 3u);
    EXPECT_EQ(report.scans[0].holes, 3);
    EXPECT_NEAR(std::abs(report.scans[1].skew), 2.2, 0.3);
    EXPECT_GE(report.scans[1].confidence, 0.5);
    EXPECT_EQ(report.scans[2].mode, 24);
    for (const DemoScan &s : report.scans) EXPECT_FALSE(s.blank) << s.file;
}

TEST(Docs, ManPageListsEveryOperation) {
    const std::string man = Slurp(std::string(QUARVEL_SOURCE_DIR) + "/docs/quarvel.1");
    for (const Op &op : Operations()) {
        std::string name;
        for (char c : op.name) name += c == '-' ? std::string("\\-") : std::string(1, c);
        EXPECT_NE(man.find(".B " + name + " ("), std::string::npos) << op.name << ": run tools/quarvel/make-man";
    }
}

}  // namespace
