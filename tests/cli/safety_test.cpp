// The tool's safety rules and choices: batches that refuse to overwrite
// inputs or each other, files failed whole, honest readers for truncated,
// absurd and palette files, strict option values, escaped JSON, the scan
// commands' wiring, and an interrupt that leaves no temporary file.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <nlohmann/json.hpp>
#include <sstream>

#include "formats.h"
#include "ops.h"
#include "page.h"

namespace fs = std::filesystem;
using namespace qtool;

namespace {

struct Dir {
    std::string path;
    Dir() {
        char t[] = "/tmp/quarvel-safety-XXXXXX";
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

Page Gray(int w, int h, int level = 200) {
    Page p = NewPage(w, h, 8, GrayTable(), 300, 300);
    Locked l(p.get());
    for (int y = 0; y < h; ++y) std::memset(l.row(y), level, l.stride());
    return p;
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

// ---- Batches ---------------------------------------------------------------------

TEST(Batch, RefusesOutputsThatWouldReplaceInputsOrEachOther) {
    Dir d;
    Page g = Gray(30, 20), a = Gray(30, 20, 10), b = Gray(30, 20, 90);
    Write(d / "same/p.png", {&g});
    Write(d / "a/page.png", {&g});
    Write(d / "b/page.png", {&g});
    Write(d / "page.jpg", {&g});
    Write(d / "x.tif", {&g, &a, &b});
    Write(d / "x-2.png", {&g});
    const std::string before = Slurp(d / "same/p.png");
    const struct {
        std::string args, message;
    } cases[] = {
        {"run mirror -o same same/p.png", "holds the input same/p.png"},
        {"run mirror -o ./same/../same same/p.png", "holds the input"},
        {"run mirror -o oc a/page.png b/page.png page.jpg",
         "a/page.png and b/page.png would both be written to oc/page.png"},
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
    Page a = Gray(30, 20, 10), b = Gray(40, 20, 90);
    Write(d / "in/book.tif", {&a, &b});
    Write(d / "in/photo.jpg", {&a});
    EXPECT_EQ(Tool(d, "run flip -o o1 in/book.tif in/photo.jpg").code, 0);
    EXPECT_TRUE(fs::exists(d / "o1/book.tif") && fs::exists(d / "o1/photo.png"));
    EXPECT_EQ(Tool(d, "run flip -o o3 -j 2 in/book.tif").code, 0);  // pages of one file in parallel
    EXPECT_EQ(Slurp(d / "o3/book.tif"), Slurp(d / "o1/book.tif"));
    EXPECT_EQ(Tool(d, "run flip -o o2 --format .PNG in/book.tif").code, 0);
    EXPECT_EQ(Locked(ReadImage(d / "o2/book-2.png")[0].get()).width(), 40);
    EXPECT_EQ(Count(d / "o2"), 2u);
    EXPECT_EQ(Tool(d, "flip in/book.tif one.bmp").code, 0);  // the single command numbers pages too
    EXPECT_TRUE(fs::exists(d / "one-1.bmp") && fs::exists(d / "one-2.bmp") && !fs::exists(d / "one.bmp"));
    const Out json = Tool(d, "run get-obliquity --json -o o4 in/book.tif");
    EXPECT_EQ(nlohmann::json::parse(json.out.substr(json.out.find('\n') + 1))["page"], 2) << json.out;
}

TEST(Batch, DirectoriesAndRefusedPagesFailTheirFileOnly) {
    Dir d;
    Page gray = Gray(30, 20), bits = NewPage(30, 20, 1, BitonalTable(), 300, 300);
    Write(d / "book.tif", {&gray, &bits, &gray});  // adjust-contrast refuses the 1-bit page
    Write(d / "ok.png", {&gray});
    fs::create_directories(d / "folder");
    for (const char *jobs : {"1", "2"}) {
        const Out o = Tool(d, std::string("run \"adjust-contrast --contrast 20\" --no-progress -j ") + jobs +
                                  " -o out" + jobs + " book.tif folder ok.png");
        EXPECT_EQ(o.code, 1) << o.err;
        EXPECT_NE(o.err.find("folder: is a directory"), std::string::npos) << o.err;
        EXPECT_NE(o.err.find("book.tif[2]: adjust-contrast refused the page; book.tif not written"), std::string::npos)
            << o.err;
        EXPECT_NE(o.err.find("1 files written, 1 skipped, 1 failed"), std::string::npos) << o.err;
        EXPECT_EQ(Count(d / (std::string("out") + jobs)), 1u);  // ok.png only, no temporary file
    }
    const Out single = Tool(d, "mirror folder x.png");
    EXPECT_EQ(single.code, 3);
    EXPECT_NE(single.err.find("folder: is a directory"), std::string::npos);
}

TEST(Batch, InterruptRemovesTemporaryFilesAndReportsProgress) {
    Dir d;
    Page big = Gray(1500, 1500);
    std::string files;
    for (int i = 0; i < 40; ++i) {
        std::string name = std::to_string(i);
        name += ".tif";
        Write(d / name, {&big});
        files += ' ';
        files += name;
    }
    const pid_t pid = fork();
    if (pid == 0) {
        if (chdir(d.path.c_str()) != 0) _exit(99);
        const int null = open("/dev/null", O_WRONLY);
        dup2(null, 1), dup2(open((d / "err.txt").c_str(), O_WRONLY | O_CREAT, 0644), 2);
        execl("/bin/sh", "sh", "-c",
              (std::string("exec ") + QUARVEL_TOOL + " run \"denoise --size 3 | mirror\" -o out" + files).c_str(),
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
    for (const auto &e : fs::directory_iterator(d / "out"))
        EXPECT_EQ(e.path().string().find(".tmp-"), std::string::npos);
}

// ---- Readers ----------------------------------------------------------------------

TEST(Readers, BadFilesFailWithTheFileNameBeforeAllocating) {
    Dir d;
    Page g = Gray(300, 200, 120);
    Page colour = NewPage(300, 200, 24, {}, 300, 300);
    Write(d / "ok.jpg", {&colour});
    const std::string jpg = Slurp(d / "ok.jpg");
    const struct {
        std::string name, bytes, message;
    } cases[] = {
        {"cut.jpg", jpg.substr(0, jpg.size() / 2), "Premature end of JPEG file"},
        {"wide.ppm", "P6 100000000 1 255\n", "unsupported image size"},
        {"overflow.pgm", "P5 99999999999999999999 1 255\n", "PNM width out of range"},
        {"empty.pgm", "P5 16000 16000 255\n" + std::string(100, '\0'),
         "claims 16000 x 16000 pixels but holds only 100 bytes"},
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
        {"p8.bmp",
         Bmp(4, 1, 8, {0xFF0000, 0x00FF00}, std::string("\x00\x01\x00\x01", 4)),
         24,
         {0, 0, 255, 0, 255, 0, 0, 0, 255, 0, 255, 0}},
        {"p16.bmp", Bmp(2, 1, 16, {}, std::string("\x00\x7C\x1F\x00", 4)), 24, {0, 0, 255, 255, 0, 0}},
    };
    for (const auto &c : cases) {
        Put(d / c.name, c.bytes);
        std::vector<Page> pages = ReadImage(d / c.name);
        Locked p(pages[0].get());
        ASSERT_EQ(p.bits(), c.bits) << c.name;
        std::vector<int> got(p.row(0), p.row(0) + c.expect.size());
        EXPECT_EQ(got, c.expect) << c.name;
        if (c.bits == 8) {
            EXPECT_EQ(p.table()[200].rgbRed, 200) << c.name;  // a true gray ramp
        }
    }
}

// ---- Options and output ------------------------------------------------------------

TEST(Options, OutOfRangeValuesAreUsageErrorsNamingTheRange) {
    Dir d;
    Page g = Gray(40, 30);
    Write(d / "in.png", {&g});
    const struct {
        std::string args;
        int code;
        std::string message;
    } cases[] = {
        {"rotate --angle nan in.png o.png", 2, "--angle: expected a finite number from -36000 to 36000, got 'nan'"},
        {"rotate --angle inf in.png o.png", 2, "got 'inf'"},
        {"rotate --angle 3 --interpolate 7 in.png o.png", 2, "--interpolate: expected a number from 0 to 2, got '7'"},
        {"thumbnail --width 0 in.png o.png", 2, "--width: expected a number from 1 to 1048576"},
        {"convert-mode --mode 3 in.png o.png", 2, "expected one of 1|8|24|32"},
        {"binarize --method niblack in.png o.png", 2, "expected one of default|sauvola|wolf|otsu"},
        {"run mirror -j 2x -o o in.png", 2, "-j: expected a whole number from 1 to 256, got '2x'"},
        {"run mirror --format gif -o o in.png", 2, "--format: expected bmp, png"},
        {"--max-megapixels 0 mirror in.png o.png", 2, "expected a whole number from 1"},
        {"--version", 0, ""},
        {"help run", 0, ""},
        {"rotate --help", 0, ""},
    };
    for (const auto &c : cases) {
        const Out o = Tool(d, c.args);
        EXPECT_EQ(o.code, c.code) << c.args << o.err;
        EXPECT_NE(o.err.find(c.message), std::string::npos) << c.args << "\n" << o.err;
    }
    EXPECT_NE(Tool(d, "help run").out.find("--no-progress"), std::string::npos);
    EXPECT_NE(Tool(d, "--help").out.find("--in-place"), std::string::npos);
    EXPECT_NE(Tool(d, "rotate --help").out.find("clockwise"), std::string::npos);
    EXPECT_NE(Tool(d, "help get-obliquity").out.find("fall toward the right"), std::string::npos);
}

TEST(Options, RotationCentreDefaultsToTheMiddleOfANonSquarePage) {
    Dir d;
    Page g = Gray(120, 60);
    {
        Locked l(g.get());
        std::memset(l.row(5), 0, 30);  // a mark off-centre
    }
    Write(d / "in.png", {&g});
    ASSERT_EQ(Tool(d, "rotate --angle 30 --interpolate 0 in.png default.png").code, 0);
    ASSERT_EQ(Tool(d, "rotate --angle 30 --interpolate 0 --x 60 --y 30 in.png explicit.png").code, 0);
    ASSERT_EQ(Tool(d, "rotate --angle 30 --interpolate 0 --x 30 --y 60 in.png swapped.png").code, 0);
    EXPECT_EQ(Slurp(d / "default.png"), Slurp(d / "explicit.png"));
    EXPECT_NE(Slurp(d / "default.png"), Slurp(d / "swapped.png"));
}

TEST(Options, JsonEscapesFileNames) {
    Dir d;
    Page g = Gray(40, 30);
    const std::string name = "odd \"name\" \\ here.png";
    Write(d / name, {&g});
    const Out o = Tool(d, "get-obliquity --json 'odd \"name\" \\ here.png'");
    ASSERT_EQ(o.code, 0) << o.err;
    const nlohmann::json j = nlohmann::json::parse(o.out);
    EXPECT_EQ(j["file"], name);
    EXPECT_EQ(j["page"], 1);
}

// ---- Scan commands -------------------------------------------------------------------

TEST(Scan, OptionsReachTheRecord) {
    const struct {
        const char *op;
        std::vector<std::string> words;
        std::uint32_t steps;
        int method, margin, dpi;
    } cases[] = {
        {"clean", {}, QUARVEL_CLEAN_DEFAULT, QUARVEL_BINARIZE_DEFAULT, -1, 0},
        {"clean",
         {"--no-deskew", "--no-holes", "--margin", "7"},
         QUARVEL_CLEAN_CROP | QUARVEL_CLEAN_DESPECKLE,
         0,
         7,
         0},
        {"clean",
         {"--whiten", "--orient", "--no-despeckle", "--dpi", "150"},
         QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_ORIENT | QUARVEL_CLEAN_WHITEN | QUARVEL_CLEAN_HOLES,
         0,
         -1,
         150},
        {"clean",
         {"--no-crop", "--binarize", "--method", "Wolf"},
         QUARVEL_CLEAN_DESKEW | QUARVEL_CLEAN_HOLES | QUARVEL_CLEAN_DESPECKLE | QUARVEL_CLEAN_BINARIZE,
         QUARVEL_BINARIZE_WOLF,
         -1,
         0},
        {"deskew", {"--dpi", "600"}, QUARVEL_CLEAN_DESKEW, 0, -1, 600},
        {"binarize", {"--method", "otsu"}, 0, QUARVEL_BINARIZE_OTSU, -1, 0},
    };
    for (const auto &c : cases) {
        Values v;
        ParseArgs(*FindOp(c.op), c.words, &v);
        const QuarvelScanOptions o = ScanOptionsOf(*FindOp(c.op), v);
        if (c.steps) {
            EXPECT_EQ(o.steps, c.steps) << c.op << " " << c.words.size();
        }
        EXPECT_EQ(o.binarize_method, c.method) << c.op;
        EXPECT_EQ(o.margin, c.margin) << c.op;
        EXPECT_EQ(o.dpi, c.dpi) << c.op;
    }
    Values v;
    ParseArgs(*FindOp("binarize"), {"--window", "31", "--k", "0.3"}, &v);
    const QuarvelScanOptions o = ScanOptionsOf(*FindOp("binarize"), v);
    EXPECT_EQ(o.binarize_window, 31);
    EXPECT_DOUBLE_EQ(o.binarize_k, 0.3);
    Values c;
    ParseArgs(*FindOp("clean"), {"--min-confidence", "0.8"}, &c);
    EXPECT_DOUBLE_EQ(ScanOptionsOf(*FindOp("clean"), c).min_skew_confidence, 0.8);
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
    Page a = Gray(60, 40), b = Gray(50, 40);
    Write(d / "two.tif", {&a, &b});
    const Out o = Tool(d, "detect --json two.tif");
    ASSERT_EQ(o.code, 0) << o.err;
    std::istringstream lines(o.out);
    std::string line;
    int page = 0;
    while (std::getline(lines, line)) {
        const nlohmann::json l = nlohmann::json::parse(line);
        EXPECT_EQ(l["page"], ++page);
        EXPECT_EQ(l["file"], "two.tif");
        for (const char *key : {"width", "height", "skew", "orientation", "sheet", "content", "holes", "blank", "mode"})
            EXPECT_TRUE(l.contains(key)) << key;
    }
    EXPECT_EQ(page, 2);
    EXPECT_EQ(Tool(d, "run \"deskew | binarize --method otsu | clean --no-crop\" -o out two.tif").code, 0);
}

}  // namespace

namespace {

TEST(Docs, ManPageListsEveryOperation) {
    const std::string man = Slurp(std::string(QUARVEL_SOURCE_DIR) + "/docs/quarvel.1");
    for (const Op &op : Operations()) {
        std::string name;
        for (char c : op.name) name += c == '-' ? std::string("\\-") : std::string(1, c);
        EXPECT_NE(man.find(".B " + name + " ("), std::string::npos) << op.name << ": run tools/quarvel/make-man";
    }
}

}  // namespace
