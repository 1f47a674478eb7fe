// The quarvel tool: format round trips of pixels and resolution at each
// depth, multi-page TIFF pipelines, parallel runs giving the same bytes,
// every error path's message and exit code, and the demo.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

#include "demo.h"
#include "formats.h"
#include "ops.h"
#include "page.h"
#include "pipeline.h"

namespace fs = std::filesystem;
using namespace qtool;

namespace {

// A page of each depth with a pattern that survives lossless formats.
Page Pattern(int bits, int w = 37, int h = 23, double dpi = 300) {
    std::vector<RGBQUAD> table = bits == 1 ? BitonalTable() : bits == 8 ? GrayTable() : std::vector<RGBQUAD>{};
    Page page = NewPage(w, h, bits, table, dpi, dpi);
    Locked p(page.get());
    for (int y = 0; y < h; ++y) {
        std::uint8_t *r = p.row(y);
        for (int x = 0; x < w; ++x) {
            const int v = (x * 7 + y * 13) % 256;
            switch (bits) {
                case 1:
                    if ((x + y) % 3 == 0) r[x >> 3] |= static_cast<std::uint8_t>(0x80 >> (x & 7));
                    break;
                case 8:
                    r[x] = static_cast<std::uint8_t>(v);
                    break;
                default:
                    for (int c = 0; c < bits / 8; ++c)
                        r[x * (bits / 8) + c] = static_cast<std::uint8_t>((v + 60 * c) % 256);
            }
        }
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
            if (p.bits() == 1) {
                const RGBQUAD c = p.table()[(r[x >> 3] >> (7 - (x & 7))) & 1];
                out.push_back(c.rgbRed);
            } else if (p.bits() == 8) {
                out.push_back(p.table()[r[x]].rgbRed);
            } else {
                for (int c = 0; c < p.bits() / 8; ++c) out.push_back(r[x * (p.bits() / 8) + c]);
            }
        }
    }
    return out;
}

class TempDir {
public:
    TempDir() {
        char tmpl[] = "/tmp/quarvel-cli-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { fs::remove_all(path_); }
    std::string operator/(const std::string &name) const { return (fs::path(path_) / name).string(); }
    const std::string &path() const { return path_; }

private:
    std::string path_;
};

struct Result {
    int code;
    std::string out, err;
};

Result Tool(const std::string &args, const TempDir &dir) {
    const std::string out = dir / "stdout.txt", err = dir / "stderr.txt";
    const int status = std::system((std::string(QUARVEL_TOOL) + " " + args + " >" + out + " 2>" + err).c_str());
    auto slurp = [](const std::string &p) {
        std::ifstream in(p);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    };
    return Result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, slurp(out), slurp(err)};
}

std::string Bytes(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream s;
    s << in.rdbuf();
    return s.str();
}

// ---- Formats ------------------------------------------------------------------------

struct RoundTrip {
    const char *ext;
    int bits;
};

class Formats : public ::testing::TestWithParam<RoundTrip> {};

TEST_P(Formats, RoundTripKeepsPixelsAndResolution) {
    TempDir dir;
    const RoundTrip t = GetParam();
    Page page = Pattern(t.bits);
    const std::string path = dir / (std::string("page.") + t.ext);
    WriteImage(path, {&page});
    std::vector<Page> back = ReadImage(path);
    ASSERT_EQ(back.size(), 1u);
    Locked a(page.get()), b(back[0].get());
    EXPECT_EQ(b.width(), a.width());
    EXPECT_EQ(b.height(), a.height());
    EXPECT_EQ(Colours(back[0]), Colours(page)) << t.ext << " " << t.bits;
    const std::string ext = t.ext;
    if (ext != "pgm" && ext != "pbm" && ext != "ppm") {                 // PNM carries no resolution
        EXPECT_EQ(DpiOf(b.header()->biXPelsPerMeter), 300.0) << t.ext;  // exactly, not 299.9994
    }
}

INSTANTIATE_TEST_SUITE_P(Cli, Formats,
                         ::testing::Values(RoundTrip{"bmp", 1}, RoundTrip{"bmp", 8}, RoundTrip{"bmp", 24},
                                           RoundTrip{"bmp", 32}, RoundTrip{"png", 1}, RoundTrip{"png", 8},
                                           RoundTrip{"png", 24}, RoundTrip{"png", 32}, RoundTrip{"tif", 1},
                                           RoundTrip{"tif", 8}, RoundTrip{"tif", 24}, RoundTrip{"tif", 32},
                                           RoundTrip{"pbm", 1}, RoundTrip{"pgm", 8}, RoundTrip{"ppm", 24}),
                         [](const auto &info) {
                             return std::string(info.param.ext) + std::to_string(info.param.bits);
                         });

TEST(Formats, JpegKeepsSizeResolutionAndApproximatePixels) {
    TempDir dir;
    for (int bits : {8, 24}) {
        Page page = Pattern(bits, 64, 48, 200);
        WriteImage(dir / "page.jpg", {&page}, 95);
        std::vector<Page> back = ReadImage(dir / "page.jpg");
        Locked b(back[0].get());
        EXPECT_EQ(b.bits(), bits);
        EXPECT_NEAR(DpiOf(b.header()->biXPelsPerMeter), 200, 0.5);
    }
    Page bits = Pattern(1);
    EXPECT_THROW(WriteImage(dir / "x.jpg", {&bits}), FormatError);
}

TEST(Formats, MultiPageTiffAndGroup4) {
    TempDir dir;
    Page a = Pattern(1), b = Pattern(8), c = Pattern(24);
    WriteImage(dir / "book.tif", {&a, &b, &c});
    std::vector<Page> back = ReadImage(dir / "book.tif");
    ASSERT_EQ(back.size(), 3u);
    EXPECT_EQ(Colours(back[0]), Colours(a));
    EXPECT_EQ(Colours(back[1]), Colours(b));
    EXPECT_EQ(Colours(back[2]), Colours(c));
    Page twice = Pattern(8);
    EXPECT_THROW(WriteImage(dir / "two.png", {&a, &twice}), FormatError);
}

TEST(Formats, CorruptFilesAreRefusedWithTheirReason) {
    TempDir dir;
    auto write = [&](const std::string &name, const std::string &bytes) {
        std::ofstream(dir / name, std::ios::binary) << bytes;
        return dir / name;
    };
    EXPECT_THROW(ReadImage(write("empty.png", "")), FormatError);
    EXPECT_THROW(ReadImage(write("text.png", "hello, not an image")), FormatError);
    Page page = Pattern(24);
    WriteImage(dir / "ok.png", {&page});
    const std::string full = Bytes(dir / "ok.png");
    EXPECT_THROW(ReadImage(write("cut.png", full.substr(0, full.size() / 2))), FormatError);
    WriteImage(dir / "ok.bmp", {&page});
    const std::string bmp = Bytes(dir / "ok.bmp");
    EXPECT_THROW(ReadImage(write("cut.bmp", bmp.substr(0, 80))), FormatError);
    EXPECT_THROW(ReadImage(write("cut.tif", "II*\0garbage")), FormatError);
    EXPECT_THROW(ReadImage(dir / "missing.png"), FormatError);
}

// ---- The operation table --------------------------------------------------------------

TEST(Operations, EveryExportHasAnEntryAndAKebabName) {
    EXPECT_EQ(Operations().size(), 48u);  // the 44 exports and detect, clean, deskew, binarize
    EXPECT_EQ(KebabCase("RemoveBorder1"), "remove-border1");
    EXPECT_EQ(KebabCase("RemoveBorder_GPY"), "remove-border-gpy");
    EXPECT_EQ(KebabCase("GetObliquity"), "get-obliquity");
    ASSERT_NE(FindOp("RemoveHole"), nullptr);
    EXPECT_EQ(FindOp("RemoveHole"), FindOp("remove-hole"));
    EXPECT_EQ(FindOp("no-such-op"), nullptr);
    EXPECT_EQ(FindOp("rotate-whole-black"), FindOp("RotateEx1"));
}

TEST(Operations, PipelinesParseAndApply) {
    const std::vector<Step> steps = ParsePipeline("convert-mode --mode 8 | invert | get-binary-threshold-by-otsu");
    ASSERT_EQ(steps.size(), 3u);
    std::vector<std::pair<std::string, Measure>> measures;
    Page out = ApplySteps(steps, Pattern(24), &measures);
    EXPECT_EQ(Locked(out.get()).bits(), 8);
    ASSERT_EQ(measures.size(), 1u);
    EXPECT_THROW(ParsePipeline("denoise --size | invert"), UsageError);
    EXPECT_THROW(ParsePipeline("denoise --sise 2"), UsageError);
    EXPECT_THROW(ParsePipeline("invert || flip"), UsageError);
    EXPECT_THROW(ApplySteps(ParsePipeline("adjust-contrast --contrast 50"), Pattern(1), nullptr), OperationError);
}

// ---- The tool as a user runs it ---------------------------------------------------------

TEST(Tool, ImageOperationAndMeasurements) {
    TempDir dir;
    Page page = Pattern(8, 120, 90);
    WriteImage(dir / "in.png", {&page});
    Result r = Tool("mirror " + (dir / "in.png") + " " + (dir / "out.bmp"), dir);
    EXPECT_EQ(r.code, 0) << r.err;
    EXPECT_TRUE(fs::exists(dir / "out.bmp"));
    r = Tool("get-obliquity --json " + (dir / "in.png"), dir);
    EXPECT_EQ(r.code, 0);
    EXPECT_NE(r.out.find("\"operation\":\"get-obliquity\""), std::string::npos) << r.out;
    r = Tool("list", dir);
    EXPECT_NE(r.out.find("remove-border1"), std::string::npos);
    r = Tool("help RemoveHole", dir);
    EXPECT_NE(r.out.find("--density"), std::string::npos);
}

TEST(Tool, ErrorsHaveMessagesAndExitCodes) {
    TempDir dir;
    Page page = Pattern(1, 40, 30);
    WriteImage(dir / "bits.png", {&page});
    std::ofstream(dir / "junk.png") << "not an image";
    const std::string before = Bytes(dir / "bits.png");
    struct Case {
        std::string args;
        int code;
        const char *message;
    } cases[] = {
        {"", 2, "usage"},
        {"frobnicate a b", 2, "unknown command"},
        {"denoise --size x " + (dir / "bits.png") + " " + (dir / "o.png"), 2, "expected a whole number"},
        {"denoise --colour 2 " + (dir / "bits.png") + " " + (dir / "o.png"), 2, "unknown option"},
        {"resize " + (dir / "bits.png") + " " + (dir / "o.png"), 2, "is required"},
        {"denoise " + (dir / "bits.png") + " " + (dir / "bits.png"), 2, "overwrite the input"},
        {"denoise " + (dir / "bits.png") + " " + (dir / "o.xyz"), 2, "unknown output format"},
        {"denoise " + (dir / "missing.png") + " " + (dir / "o.png"), 3, "cannot open"},
        {"denoise " + (dir / "junk.png") + " " + (dir / "o.png"), 3, "unsupported file format"},
        {"adjust-contrast " + (dir / "bits.png") + " " + (dir / "o.png"), 4, "refused the page"},
        {"convert-mode --mode 1 " + (dir / "bits.png") + " " + (dir / "o.jpg"), 5, "not written as JPEG"},
        {"run invert " + (dir / "bits.png"), 2, "-o DIR is required"},
    };
    for (const Case &c : cases) {
        const Result r = Tool(c.args, dir);
        EXPECT_EQ(r.code, c.code) << c.args << "\n" << r.err;
        EXPECT_NE(r.err.find(c.message), std::string::npos) << c.args << "\n" << r.err;
    }
    EXPECT_EQ(Bytes(dir / "bits.png"), before);
    // No partial or temporary output is left behind.
    for (const auto &e : fs::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().string().find(".tmp-"), std::string::npos);
    EXPECT_FALSE(fs::exists(dir / "o.jpg"));
}

TEST(Tool, InPlaceOverwritesOnlyWhenAsked) {
    TempDir dir;
    Page page = Pattern(8);
    WriteImage(dir / "p.png", {&page});
    const std::string before = Bytes(dir / "p.png");
    EXPECT_EQ(Tool("invert --in-place " + (dir / "p.png"), dir).code, 0);
    EXPECT_NE(Bytes(dir / "p.png"), before);
}

TEST(Tool, BatchesInParallelGiveTheSameBytes) {
    TempDir dir;
    Page a = Pattern(8, 200, 150), b = Pattern(24, 180, 120), c = Pattern(1, 160, 100);
    WriteImage(dir / "book.tif", {&a, &b, &c});
    WriteImage(dir / "single.png", {&b});
    std::ofstream(dir / "bad.png") << "broken";
    const std::string pipeline = "\"invert | denoise --size 2 | get-obliquity\"";
    Result one = Tool("run " + pipeline + " -o " + (dir / "one") + " -j 1 " + (dir / "book.tif") + " " +
                          (dir / "single.png") + " " + (dir / "bad.png"),
                      dir);
    Result two = Tool("run " + pipeline + " -o " + (dir / "two") + " -j 2 " + (dir / "book.tif") + " " +
                          (dir / "single.png") + " " + (dir / "bad.png"),
                      dir);
    // The bad file is reported and skipped; the rest is processed.
    EXPECT_EQ(one.code, 1);
    EXPECT_NE(one.err.find("bad.png"), std::string::npos);
    EXPECT_EQ(Bytes(dir / "one/book.tif"), Bytes(dir / "two/book.tif"));
    EXPECT_EQ(Bytes(dir / "one/single.png"), Bytes(dir / "two/single.png"));
    EXPECT_EQ(one.out, two.out);
    // Multi-page in, multi-page out, order kept.
    std::vector<Page> pages = ReadImage(dir / "one/book.tif");
    ASSERT_EQ(pages.size(), 3u);
    EXPECT_EQ(Locked(pages[0].get()).width(), 200);
    EXPECT_EQ(Locked(pages[2].get()).width(), 160);
}

TEST(Tool, DemoMeasuresItsOwnSkew) {
    TempDir dir;
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

TEST(Tool, DemoWithoutRealScansStillRuns) {
    TempDir dir;
    DemoReport report;
    ASSERT_EQ(RunDemo(dir / "demo", &report, true, dir / "no-such-folder"), 0);
    EXPECT_TRUE(report.scans.empty());
    EXPECT_TRUE(fs::exists(fs::path(dir / "demo") / "overview.png"));
}

}  // namespace
