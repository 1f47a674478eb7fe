#include "ops.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <sstream>

#include "formats.h"
#include "quarvel/scan.h"

namespace qtool {

namespace {

std::string Lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Number(double v) {
    if (!std::isfinite(v)) return "null";
    char buf[64];
    if (v == std::trunc(v) && std::fabs(v) < 1e15) {
        std::snprintf(buf, sizeof buf, "%.0f", v);
        return buf;
    }
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

Measure Value(double v) {
    return Measure{Number(v), Number(v)};
}

const Arg kRect{"rect", ArgType::kRect, "0,0,0,0",
                "rectangle left,top,right,bottom (rows from the top; 0,0,0,0: whole page)"};

std::vector<Op> Build() {
    using V = const Values &;
    std::vector<Op> ops;
    auto image = [&](const char *exp, const char *summary, std::vector<Arg> args,
                     std::function<HGLOBAL(HGLOBAL, V)> f) {
        ops.push_back(Op{exp, KebabCase(exp), summary, true, std::move(args), std::move(f), nullptr});
    };
    auto measure = [&](const char *exp, const char *summary, std::vector<Arg> args,
                       std::function<Measure(HGLOBAL, V)> f) {
        ops.push_back(Op{exp, KebabCase(exp), summary, false, std::move(args), nullptr, std::move(f)});
    };

    image("Mirror", "mirror the page left to right", {}, [](HGLOBAL p, V) { return Mirror(p); });
    image("Flip", "flip the page top to bottom", {}, [](HGLOBAL p, V) { return Flip(p); });
    image("Invert", "invert every pixel", {}, [](HGLOBAL p, V) { return Invert(p); });
    image("AdjustBrightness", "add a level to every channel (8, 24, 32 bits)",
          {{"brightness", ArgType::kInt, "20", "level added, saturated", -255, 255}},
          [](HGLOBAL p, V v) { return AdjustBrightness(p, v.Int("brightness")); });
    image("AdjustContrast", "stretch (>0) or compress (<0) levels about mid gray",
          {{"contrast", ArgType::kInt, "20", "per cent, -100 to 100", -100, 100}},
          [](HGLOBAL p, V v) { return AdjustContrast(p, v.Int("contrast")); });
    image("AdjustBrightnessAndContrast", "brightness, then contrast about a pivot moved by it",
          {{"brightness", ArgType::kInt, "0", "level added", -255, 255},
           {"contrast", ArgType::kInt, "20", "per cent, -100 to 100", -100, 100}},
          [](HGLOBAL p, V v) { return AdjustBrightnessAndContrast(p, v.Int("brightness"), v.Int("contrast")); });
    image("TextEffect", "thicken (level > 0) or thin (< 0) dark strokes (1, 8 bits)",
          {{"level", ArgType::kInt, "1", "neighbourhood size - 1"}},
          [](HGLOBAL p, V v) { return TextEffect(p, v.Int("level")); });
    image("TextEffectRect", "text effect inside a rectangle", {kRect, {"level", ArgType::kInt, "1", "as text-effect"}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return TextEffectRect(p, &r, v.Int("level"));
          });
    image("Fill", "paint a rectangle with a gray level",
          {kRect, {"value", ArgType::kInt, "255", "0 ink to 255 paper", 0, 255}}, [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return Fill(p, &r, v.Int("value"));
          });
    image("FillOutside", "paint everything but a rectangle",
          {kRect, {"value", ArgType::kInt, "255", "0 ink to 255 paper", 0, 255}}, [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return FillOutside(p, &r, v.Int("value"));
          });
    const std::vector<Arg> twoRects = {{"with", ArgType::kFile, nullptr, "second page (file)"},
                                       {"x1", ArgType::kInt, "0", "left on this page"},
                                       {"y1", ArgType::kInt, "0", "top on this page"},
                                       {"x2", ArgType::kInt, "0", "left on the second page"},
                                       {"y2", ArgType::kInt, "0", "top on the second page"},
                                       {"width", ArgType::kInt, "1000000", "width (clipped to the pages)"},
                                       {"height", ArgType::kInt, "1000000", "height (clipped to the pages)"}};
    image("ImageAnd", "bitwise AND of a rectangle with another page's", twoRects, [](HGLOBAL p, V v) {
        return ImageAnd(p, v.File("with"), v.Int("x1"), v.Int("y1"), v.Int("x2"), v.Int("y2"), v.Int("width"),
                        v.Int("height"));
    });
    image("ImageOr", "bitwise OR of a rectangle with another page's", twoRects, [](HGLOBAL p, V v) {
        return ImageOr(p, v.File("with"), v.Int("x1"), v.Int("y1"), v.Int("x2"), v.Int("y2"), v.Int("width"),
                       v.Int("height"));
    });
    image("GetLess", "mark where this page exceeds another", {{"with", ArgType::kFile, nullptr, "second page (file)"}},
          [](HGLOBAL p, V v) { return GetLess(p, v.File("with")); });
    image("ConvertMode", "convert to 1, 8, 24 or 32 bits",
          {{"mode", ArgType::kInt, "8", "target bits: 1, 8, 24 or 32", 1, 32, "1|8|24|32"},
           {"threshold", ArgType::kInt, "128", "gray level for mode 1", 0, 255}},
          [](HGLOBAL p, V v) { return ConvertMode(p, v.Int("mode"), v.Int("threshold")); });
    image("ConvertModeToGrayEx", "gray, with strongly red and blue marks made black",
          {{"red", ArgType::kInt, "50", "least red excess (0: off)"},
           {"blue", ArgType::kInt, "50", "least blue excess (0: off)"}},
          [](HGLOBAL p, V v) { return ConvertModeToGrayEx(p, v.Int("red"), v.Int("blue")); });
    image("Thumbnail", "scale to fit a box",
          {{"width", ArgType::kInt, "200", "box width", 1, kMaxSide},
           {"height", ArgType::kInt, "200", "box height", 1, kMaxSide}},
          [](HGLOBAL p, V v) { return Thumbnail(p, v.Int("width"), v.Int("height")); });
    image("Resize", "scale into an exact size, centred on white",
          {{"width", ArgType::kInt, nullptr, "target width", 1, kMaxSide},
           {"height", ArgType::kInt, nullptr, "target height", 1, kMaxSide}},
          [](HGLOBAL p, V v) { return Resize(p, v.Int("width"), v.Int("height")); });
    const std::vector<Arg> rotation = {
        {"angle", ArgType::kDouble, nullptr, "degrees, positive turns the page clockwise", -36000, 36000},
        {"x", ArgType::kInt, "-1", "centre column (-1: width / 2)", -1, kMaxSide},
        {"y", ArgType::kInt, "-1", "centre stored row, counted from the bottom (-1: height / 2)", -1, kMaxSide},
        {"interpolate", ArgType::kInt, "1", "0 nearest, 1 linear, 2 cubic", 0, 2}};
    auto centred = [](HGLOBAL p, V v, auto op) {
        Locked l(p);
        const int cx = v.Int("x") < 0 && l.ok() ? l.width() / 2 : v.Int("x");
        const int cy = v.Int("y") < 0 && l.ok() ? l.height() / 2 : v.Int("y");
        return op(p, v.Double("angle"), cx, cy, v.Int("interpolate"));
    };
    image("Rotate", "turn within the page's frame", rotation,
          [=](HGLOBAL p, V v) { return centred(p, v, [](auto... a) { return Rotate(a...); }); });
    image("RotateEx", "turn onto a canvas that holds the whole page (white)", rotation,
          [=](HGLOBAL p, V v) { return centred(p, v, [](auto... a) { return RotateEx(a...); }); });
    image("RotateEx1", "turn onto a canvas that holds the whole page (black)", rotation,
          [=](HGLOBAL p, V v) { return centred(p, v, [](auto... a) { return RotateEx1(a...); }); });
    image("RotateExpand", "quarter or half turn",
          {{"angle", ArgType::kDouble, "90", "90, 180, 270 or -90", -90, 270, "90|180|270|-90"}},
          [](HGLOBAL p, V v) { return RotateExpand(p, v.Double("angle"), 0, 0, 0); });
    image("Crop", "cut a region or the content onto a white canvas",
          {{"rect", ArgType::kRect, "0,0,0,0", "region, border widths or target size (by mode)"},
           {"mode", ArgType::kInt, "2",
            "0 region, 1 content in region, 2 content, 3 per-side borders, 4 content fitted, 5 page fitted", 0, 5},
           {"border", ArgType::kInt, "10", "white border (modes 0 to 2)", 0, kMaxSide}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return Crop(p, &r, v.Int("mode"), v.Int("border"));
          });
    image("RemoveBorder", "cut the page out of a dark scanner frame",
          {{"threshold", ArgType::kInt, "100", "gray level of the sheet", 0, 255}},
          [](HGLOBAL p, V v) { return RemoveBorder(p, v.Int("threshold"), 0, 0); });
    image("RemoveBorder1", "deskew by the sheet's edges, cut out and turn",
          {{"threshold", ArgType::kInt, "100", "gray level of the sheet", 0, 255},
           {"angle", ArgType::kInt, "0", "extra turn: 0, 90, 180, 270, -90", -90, 270, "0|90|180|270|-90"}},
          [](HGLOBAL p, V v) { return RemoveBorder1(p, v.Int("threshold"), v.Int("angle"), 0, 0); });
    image("RemoveBorder_GPY", "cut out and straighten along the sheet's outline",
          {{"threshold", ArgType::kInt, "100", "gray level of the sheet"}},
          [](HGLOBAL p, V v) { return RemoveBorder_GPY(p, v.Int("threshold")); });
    image("RemoveBorder_Fill", "whiten the frame, keep the size",
          {{"threshold", ArgType::kInt, "100", "dark below this level"}},
          [](HGLOBAL p, V v) { return RemoveBorder_Fill(p, v.Int("threshold")); });
    image("RemoveHole", "paint out punch holes near the chosen edges",
          {{"left", ArgType::kBool, "0", "search the left band"},
           {"top", ArgType::kBool, "0", "search the top band"},
           {"right", ArgType::kBool, "0", "search the right band"},
           {"bottom", ArgType::kBool, "0", "search the bottom band"},
           {"margin", ArgType::kInt, "200", "band width, pixels"},
           {"min-holes", ArgType::kInt, "1", "fewest holes"},
           {"max-holes", ArgType::kInt, "6", "most holes"},
           {"min-size", ArgType::kInt, "20", "smallest hole side, pixels"},
           {"max-size", ArgType::kInt, "150", "largest hole side, pixels"},
           {"density", ArgType::kDouble, "0.5", "share of dark pixels of a hole", 0, 1}},
          [](HGLOBAL p, V v) {
              return RemoveHole(p, v.Bool("left"), v.Bool("top"), v.Bool("right"), v.Bool("bottom"), v.Int("margin"),
                                v.Int("min-holes"), v.Int("max-holes"), v.Int("min-size"), v.Int("max-size"),
                                v.Double("density"));
          });
    image("Denoise", "erase specks (1, 8 bits) or smooth (colour)",
          {{"size", ArgType::kInt, "2", "largest speck, pixels"}},
          [](HGLOBAL p, V v) { return Denoise(p, v.Int("size")); });
    image("DenoiseRect", "denoise inside a rectangle", {kRect, {"size", ArgType::kInt, "2", "largest speck, pixels"}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return DenoiseRect(p, &r, v.Int("size"));
          });
    measure("IsBlankPage", "ink share in hundredths of a per cent (-1: nothing counted)",
            {{"threshold", ArgType::kInt, "128", "levels below are ink", 0, 256}},
            [](HGLOBAL p, V v) { return Value(IsBlankPage(p, v.Int("threshold"))); });
    image("AddWaterMark", "subtract a gray mark in the middle",
          {{"mark", ArgType::kFile, nullptr, "8-bit gray mark (file)"}},
          [](HGLOBAL p, V v) { return AddWaterMark(p, v.File("mark")); });
    image("AddWaterMarkEx", "subtract a column of gray marks",
          {{"mark", ArgType::kFile, nullptr, "8-bit gray mark (file)"}},
          [](HGLOBAL p, V v) { return AddWaterMarkEx(p, v.File("mark")); });
    image("Combine", "join with another page",
          {{"with", ArgType::kFile, nullptr, "second page (file)"},
           {"mode", ArgType::kInt, "0", "0 side by side, 1 one above the other", 0, 1}},
          [](HGLOBAL p, V v) { return Combine(p, v.File("with"), v.Int("mode")); });
    measure("JudgeColorMode", "1 black and white, 8 gray, 24 colour",
            {{"threshold", ArgType::kInt, "-1", "negative: whole-page scan; else colour-patch density per 10,000"}},
            [](HGLOBAL p, V v) { return Value(JudgeColorMode(p, v.Int("threshold"))); });
    auto grayOf = [](HGLOBAL p, V v) {
        HGLOBAL g = v.File("gray");
        return g != nullptr ? Page() : Page(ConvertMode(p, 8, 128));
    };
    image("ConvertHongTou", "keep red letterheads pure red, the rest gray",
          {{"gray", ArgType::kFile, "", "gray version of the page (default: converted)"},
           {"diff", ArgType::kInt, "60", "least red excess"}},
          [=](HGLOBAL p, V v) {
              Page made = grayOf(p, v);
              return ConvertHongTou(p, made ? made.get() : v.File("gray"), 0, 0, 0, v.Int("diff"));
          });
    image("ConvertHongTouEx", "keep red and blue marks pure, the rest gray",
          {{"gray", ArgType::kFile, "", "gray version of the page (default: converted)"},
           {"diff", ArgType::kInt, "60", "least red or blue excess"},
           {"min-level", ArgType::kInt, "90", "least red or blue level", 0, 255}},
          [=](HGLOBAL p, V v) {
              Page made = grayOf(p, v);
              return ConvertHongTouEx(p, made ? made.get() : v.File("gray"), 0, 0, 0, v.Int("diff"),
                                      static_cast<BYTE>(v.Int("min-level")));
          });
    const std::vector<Arg> enhance = {kRect,
                                      {"split", ArgType::kInt, "128", "dark below this mean level"},
                                      {"brighten", ArgType::kInt, "20", "added to light pixels"},
                                      {"darken", ArgType::kInt, "20", "taken from dark pixels"},
                                      {"red-threshold", ArgType::kInt, "40", "least red excess (0: off)"},
                                      {"red-boost", ArgType::kInt, "40", "red strengthening"},
                                      {"blue-threshold", ArgType::kInt, "40", "least blue excess (0: off)"},
                                      {"blue-boost", ArgType::kInt, "40", "blue strengthening"}};
    auto params = [](V v, auto op) {
        RECT r = v.Rect("rect");
        return op(&r, v.Int("split"), v.Int("brighten"), v.Int("darken"), v.Int("red-threshold"), v.Int("red-boost"),
                  v.Int("blue-threshold"), v.Int("blue-boost"));
    };
    image("EnhanceColor", "strengthen red and blue, brighten light and darken dark pixels", enhance,
          [=](HGLOBAL p, V v) { return params(v, [&](auto... a) { return EnhanceColor(p, a...); }); });
    std::vector<Arg> withMap = enhance;
    withMap.insert(withMap.begin(), Arg{"map", ArgType::kFile, "", "colour-excess map (file; absent: make the map)"});
    image("EnhanceColorEx", "enhancement decided by a colour-excess map", withMap,
          [=](HGLOBAL p, V v) { return params(v, [&](auto... a) { return EnhanceColorEx(p, v.File("map"), a...); }); });
    std::vector<Arg> withBase = withMap;
    withBase.insert(withBase.begin(), Arg{"base", ArgType::kFile, "", "page the result is written into (file)"});
    image("EnhanceColorEx1", "map-driven enhancement written into a base page", withBase, [=](HGLOBAL p, V v) {
        return params(v, [&](auto... a) { return EnhanceColorEx1(p, v.File("base"), v.File("map"), a...); });
    });
    image("DeColorize", "gray the colour (whole page keeps distinct marks)",
          {kRect,
           {"red", ArgType::kInt, "50", "least red excess kept (0: off)"},
           {"blue", ArgType::kInt, "50", "least blue excess kept"},
           {"green", ArgType::kInt, "50", "least green excess kept"}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return DeColorize(p, &r, v.Int("red"), v.Int("blue"), v.Int("green"));
          });
    measure("GetBinaryThresholdByOtsu", "Otsu's binarisation threshold (gray level)", {},
            [](HGLOBAL p, V) { return Value(GetBinaryThresholdByOtsu(p)); });
    measure("GetBinaryThresholdByRidCal", "Ridler-Calvard binarisation threshold (gray level)", {},
            [](HGLOBAL p, V) { return Value(GetBinaryThresholdByRidCal(p)); });
    measure("GetObliquity", "skew of the text lines, degrees (positive: falling to the right)", {},
            [](HGLOBAL p, V) { return Value(GetObliquity(p)); });
    measure("TestPrecision", "scale errors of a scanned 100 mm test frame",
            {{"dpi", ArgType::kInt, "0", "resolution (0: from the file)", 0, 100000}}, [](HGLOBAL p, V v) {
                int dpi = v.Int("dpi");
                if (dpi == 0) {
                    Locked l(p);
                    if (l.ok()) dpi = static_cast<int>(std::lround(DpiOf(l.header()->biXPelsPerMeter)));
                }
                double h = 0, vert = 0;
                if (TestPrecision(p, dpi, &h, &vert) != 0) return Measure{"no frame found", "null"};
                return Measure{"horizontal " + Number(h) + " vertical " + Number(vert),
                               "{\"horizontal\": " + Number(h) + ", \"vertical\": " + Number(vert) + "}"};
            });

    // The real-scan layer: analysis and cleaning built for real scans.
    auto scanOp = [&](const char *exp, const char *name, const char *summary, bool isImage, std::vector<Arg> args,
                      std::function<HGLOBAL(HGLOBAL, V)> f, std::function<Measure(HGLOBAL, V)> m) {
        ops.push_back(Op{exp, name, summary, isImage, std::move(args), std::move(f), std::move(m)});
    };
    const Arg dpi{"dpi", ArgType::kInt, "0", "resolution to assume (0: the page's own, else estimated)", 0, 100000};
    const Arg confidence{
        "min-confidence", ArgType::kDouble, "0.5", "straighten only at or above this skew confidence", 0, 1};
    const Arg method{"method",
                     ArgType::kWord,
                     "default",
                     "binarisation: default, sauvola, wolf or otsu",
                     0,
                     0,
                     "default|sauvola|wolf|otsu"};
    scanOp("QuarvelAnalyzePage", "detect", "measure skew, orientation, sheet, content, holes, blank and colour mode",
           false, {dpi}, nullptr, [](HGLOBAL p, V v) {
               const QuarvelScanOptions o = ScanOptionsOf(*FindOp("detect"), v);
               QuarvelPageReport r{};
               r.size = sizeof r;
               if (!QuarvelAnalyzePage(p, &o, &r) || !r.usable)
                   return Measure{"the page could not be analysed", "null", false, false};
               return DescribeReport(r);
           });
    scanOp(
        "QuarvelCleanPage", "clean", "straighten, cut out the sheet, fill holes and remove specks of a scan", true,
        {{"no-deskew", ArgType::kBool, "0", "do not straighten"},
         {"orient", ArgType::kBool, "0", "turn upright by quarter turns when confident"},
         {"whiten", ArgType::kBool, "0", "keep the page size and paint the frame as paper instead of cropping"},
         {"no-crop", ArgType::kBool, "0", "keep the scanner frame"},
         {"no-holes", ArgType::kBool, "0", "keep punch holes"},
         {"no-despeckle", ArgType::kBool, "0", "keep specks"},
         {"binarize", ArgType::kBool, "0", "finish with a 1-bit page (see --method)"},
         method,
         {"margin", ArgType::kInt, "-1", "pixels of paper kept round the content (-1: about 2 mm)", -1, kMaxSide},
         dpi,
         confidence},
        [](HGLOBAL p, V v) {
            const QuarvelScanOptions o = ScanOptionsOf(*FindOp("clean"), v);
            return QuarvelCleanPage(p, &o, nullptr);
        },
        nullptr);
    scanOp(
        "QuarvelCleanPage", "deskew", "straighten the page when its skew is measured with confidence", true,
        {dpi, confidence},
        [](HGLOBAL p, V v) {
            const QuarvelScanOptions o = ScanOptionsOf(*FindOp("deskew"), v);
            return QuarvelCleanPage(p, &o, nullptr);
        },
        nullptr);
    scanOp(
        "QuarvelBinarizePage", "binarize", "a 1-bit page by an adaptive or global threshold", true,
        {method,
         {"window", ArgType::kInt, "0", "window side in pixels (0: from the resolution)", 0, 65535},
         {"k", ArgType::kDouble, "0", "the method's sensitivity (0: its default)", 0, 10},
         dpi},
        [](HGLOBAL p, V v) {
            const QuarvelScanOptions o = ScanOptionsOf(*FindOp("binarize"), v);
            return QuarvelBinarizePage(p, &o);
        },
        nullptr);

    // Plain-English names beside the export-style ones, and conventions.
    const std::map<std::string, std::vector<std::string>> aliases = {
        {"mirror", {"flip-left-right"}},
        {"flip", {"flip-top-bottom"}},
        {"rotate-ex", {"rotate-whole"}},
        {"rotate-ex1", {"rotate-whole-black"}},
        {"rotate-expand", {"quarter-turn"}},
        {"remove-border", {"crop-frame"}},
        {"remove-border1", {"deskew-crop-frame"}},
        {"remove-border-gpy", {"straighten-frame"}},
        {"remove-border-fill", {"whiten-frame"}},
        {"remove-hole", {"fill-punch-holes"}},
        {"denoise", {"despeckle"}},
        {"text-effect", {"thicken-text"}},
        {"is-blank-page", {"ink-share"}},
        {"judge-color-mode", {"color-mode"}},
        {"convert-hong-tou", {"keep-red"}},
        {"convert-hong-tou-ex", {"keep-red-blue"}},
        {"convert-mode-to-gray-ex", {"gray-keep-marks"}},
        {"de-colorize", {"decolorize"}},
        {"get-binary-threshold-by-otsu", {"otsu-threshold"}},
        {"get-binary-threshold-by-rid-cal", {"ridler-calvard-threshold"}},
        {"get-obliquity", {"measure-skew"}},
        {"test-precision", {"scale-check"}},
        {"get-less", {"mark-exceeding"}},
    };
    for (Op &op : ops) {
        auto it = aliases.find(op.name);
        if (it != aliases.end()) op.aliases = it->second;
        if (op.name.rfind("rotate", 0) == 0 && op.name != "rotate-expand")
            op.notes =
                "A positive angle turns the page clockwise as displayed; a page measured by get-obliquity\n"
                "at A degrees is straightened by rotating it by -A. The centre (x, y) counts x from the left and\n"
                "y in stored rows from the bottom; by default it is (width / 2, height / 2).";
        if (op.name == "rotate-expand")
            op.notes =
                "90 turns the page clockwise as displayed (a quarter turn right), 270 and -90 counter-clockwise.";
        if (op.name == "get-obliquity" || op.name == "detect")
            op.notes =
                "Skew in degrees: positive when text lines fall toward the right as displayed (the page was turned\n"
                "clockwise). Straighten with: quarvel rotate --angle -A.";
    }
    return ops;
}

}  // namespace

std::string JsonLine(const std::string &file, std::size_t page, const std::string &operation, const Measure &m) {
    nlohmann::ordered_json line{{"file", file}, {"page", page}};
    const nlohmann::ordered_json value = nlohmann::ordered_json::parse(m.json);
    if (m.flat)
        line.update(value);
    else
        line["operation"] = operation, line["value"] = value;
    return line.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

std::string KebabCase(const std::string &exportName) {
    std::string out;
    for (std::size_t i = 0; i < exportName.size(); ++i) {
        const char c = exportName[i];
        if (c == '_') {
            out += '-';
            continue;
        }
        const bool upper = std::isupper(static_cast<unsigned char>(c));
        if (upper && i > 0 &&
            (std::islower(static_cast<unsigned char>(exportName[i - 1])) ||
             std::isdigit(static_cast<unsigned char>(exportName[i - 1]))))
            out += '-';
        out += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return out;
}

const std::vector<Op> &Operations() {
    static const std::vector<Op> ops = Build();
    return ops;
}

const Op *FindOp(const std::string &name) {
    const std::string key = Lower(name);
    for (const Op &op : Operations())
        if (op.name == key) return &op;
    for (const Op &op : Operations())
        if (Lower(op.exportName) == key || std::find(op.aliases.begin(), op.aliases.end(), key) != op.aliases.end())
            return &op;
    return nullptr;
}

QuarvelScanOptions ScanOptionsOf(const Op &op, const Values &v) {
    QuarvelScanOptions o;
    QuarvelDefaultOptions(&o);
    auto has = [&](const char *name) { return v.text.count(name) > 0; };
    if (has("dpi")) o.dpi = v.Int("dpi");
    if (has("min-confidence")) o.min_skew_confidence = v.Double("min-confidence");
    if (has("method")) {
        const std::string &m = v.Word("method");
        o.binarize_method = m == "sauvola" ? QUARVEL_BINARIZE_SAUVOLA
                            : m == "wolf"  ? QUARVEL_BINARIZE_WOLF
                            : m == "otsu"  ? QUARVEL_BINARIZE_OTSU
                                           : QUARVEL_BINARIZE_DEFAULT;
    }
    if (has("window")) o.binarize_window = v.Int("window");
    if (has("k")) o.binarize_k = v.Double("k");
    if (has("margin")) o.margin = v.Int("margin");
    if (op.name == "deskew") o.steps = QUARVEL_CLEAN_DESKEW;
    if (op.name == "clean") {
        std::uint32_t steps = QUARVEL_CLEAN_DEFAULT;
        auto flag = [&](const char *name, std::uint32_t step, bool on) {
            if (v.Bool(name)) steps = on ? steps | step : steps & ~step;
        };
        flag("no-deskew", QUARVEL_CLEAN_DESKEW, false);
        flag("orient", QUARVEL_CLEAN_ORIENT, true);
        flag("no-crop", QUARVEL_CLEAN_CROP, false);
        flag("no-holes", QUARVEL_CLEAN_HOLES, false);
        flag("no-despeckle", QUARVEL_CLEAN_DESPECKLE, false);
        flag("binarize", QUARVEL_CLEAN_BINARIZE, true);
        if (v.Bool("whiten")) steps = (steps & ~QUARVEL_CLEAN_CROP) | QUARVEL_CLEAN_WHITEN;
        o.steps = steps;
    }
    return o;
}

namespace {

const char *DpiSourceName(int source) {
    switch (source) {
        case QUARVEL_DPI_GIVEN: return "given";
        case QUARVEL_DPI_TAG: return "tag";
        case QUARVEL_DPI_TEXT: return "text";
        case QUARVEL_DPI_SIZE: return "size";
        default: return "";
    }
}

}  // namespace

Measure DescribeReport(const QuarvelPageReport &r) {
    using nlohmann::ordered_json;
    auto box = [](const RECT &b) { return ordered_json::array({b.left, b.top, b.right, b.bottom}); };
    ordered_json sides = ordered_json::array();
    const std::pair<std::uint32_t, const char *> named[] = {{QUARVEL_SIDE_LEFT, "left"},
                                                            {QUARVEL_SIDE_TOP, "top"},
                                                            {QUARVEL_SIDE_RIGHT, "right"},
                                                            {QUARVEL_SIDE_BOTTOM, "bottom"}};
    std::string sideText;
    for (const auto &[bit, name] : named)
        if (r.frame_sides & bit) sides.push_back(name), sideText += (sideText.empty() ? "" : ",") + std::string(name);
    ordered_json holes = ordered_json::array();
    for (int i = 0; i < std::clamp(r.hole_count, 0, QUARVEL_MAX_HOLES); ++i)
        holes.push_back({{"cx", r.holes[i].cx}, {"cy", r.holes[i].cy}, {"r", r.holes[i].r}});
    const ordered_json j = {{"width", r.width},
                            {"height", r.height},
                            {"dpi", r.dpi},
                            {"dpi_source", DpiSourceName(r.dpi_source)},
                            {"skew", {{"angle", r.skew_angle}, {"confidence", r.skew_confidence}}},
                            {"orientation", {{"angle", r.orientation}, {"confidence", r.orientation_confidence}}},
                            {"sheet", {{"box", box(r.sheet)}, {"frame", r.frame_sides != 0}, {"sides", sides}}},
                            {"content", r.has_content ? box(r.content) : ordered_json(nullptr)},
                            {"holes", holes},
                            {"blank", {{"blank", r.blank != 0}, {"ink", r.ink}}},
                            {"mode", r.mode}};
    auto rect = [](const RECT &b) {
        return std::to_string(b.left) + "," + std::to_string(b.top) + "," + std::to_string(b.right) + "," +
               std::to_string(b.bottom);
    };
    const std::string text = std::to_string(r.width) + "x" + std::to_string(r.height) + " skew " +
                             Number(r.skew_angle) + " (confidence " + Number(r.skew_confidence) + ") orientation " +
                             std::to_string(r.orientation) + " (confidence " + Number(r.orientation_confidence) +
                             ") sheet " + rect(r.sheet) + (r.frame_sides ? " frame " + sideText : " no frame") +
                             " content " + (r.has_content ? rect(r.content) : std::string("none")) + " holes " +
                             std::to_string(r.hole_count) + (r.blank ? " blank" : " not blank") + " ink " +
                             Number(r.ink) + " mode " + std::to_string(r.mode);
    return Measure{text, j.dump(), true, true};
}

int Values::Int(const std::string &name) const {
    const std::string &t = text.at(name);
    try {
        std::size_t used = 0;
        const long long v = std::stoll(t, &used);
        if (used != t.size() || v < INT32_MIN || v > INT32_MAX) throw std::invalid_argument(t);
        return static_cast<int>(v);
    } catch (const std::exception &) {
        throw UsageError("--" + name + ": expected a whole number, got '" + t + "'");
    }
}

double Values::Double(const std::string &name) const {
    const std::string &t = text.at(name);
    try {
        std::size_t used = 0;
        const double v = std::stod(t, &used);
        if (used != t.size() || !std::isfinite(v)) throw std::invalid_argument(t);
        return v;
    } catch (const std::exception &) {
        throw UsageError("--" + name + ": expected a finite number, got '" + t + "'");
    }
}

bool Values::Bool(const std::string &name) const {
    const std::string t = Lower(text.at(name));
    if (t == "1" || t == "true" || t == "yes" || t == "on") return true;
    if (t == "0" || t == "false" || t == "no" || t == "off") return false;
    throw UsageError("--" + name + ": expected 1 or 0, got '" + t + "'");
}

RECT Values::Rect(const std::string &name) const {
    const std::string &t = text.at(name);
    RECT r{};
    long v[4];
    char tail;
    if (std::sscanf(t.c_str(), "%ld,%ld,%ld,%ld%c", &v[0], &v[1], &v[2], &v[3], &tail) != 4)
        throw UsageError("--" + name + ": expected left,top,right,bottom, got '" + t + "'");
    r.left = v[0], r.top = v[1], r.right = v[2], r.bottom = v[3];
    return r;
}

HGLOBAL Values::File(const std::string &name) const {
    auto it = files.find(name);
    return it == files.end() || it->second.empty() ? nullptr : it->second.front().get();
}

std::vector<std::string> ParseArgs(const Op &op, const std::vector<std::string> &words, Values *values) {
    std::vector<std::string> rest;
    for (std::size_t i = 0; i < words.size(); ++i) {
        const std::string &w = words[i];
        if (w.size() < 3 || w.compare(0, 2, "--") != 0) {
            rest.push_back(w);
            continue;
        }
        std::string name = w.substr(2), value;
        const std::size_t eq = name.find('=');
        if (eq != std::string::npos) value = name.substr(eq + 1), name = name.substr(0, eq);
        auto arg = std::find_if(op.args.begin(), op.args.end(), [&](const Arg &a) { return name == a.name; });
        if (arg == op.args.end())
            throw UsageError(op.name + ": unknown option --" + name + " (see: quarvel help " + op.name + ")");
        if (eq == std::string::npos) {
            const bool flag =
                arg->type == ArgType::kBool && (i + 1 >= words.size() || words[i + 1].compare(0, 2, "--") == 0 ||
                                                !(words[i + 1] == "0" || words[i + 1] == "1"));
            if (flag) {
                value = "1";
            } else {
                if (i + 1 >= words.size()) throw UsageError(op.name + ": --" + name + " needs a value");
                value = words[++i];
            }
        }
        values->text[name] = value;
    }
    for (const Arg &a : op.args) {
        if (values->text.count(a.name)) continue;
        if (a.fallback == nullptr) throw UsageError(op.name + ": --" + std::string(a.name) + " is required");
        values->text[a.name] = a.fallback;
    }
    for (const Arg &a : op.args) {
        if (a.type != ArgType::kFile || values->text[a.name].empty()) continue;
        values->files[a.name] = ReadImage(values->text[a.name]);
    }
    // Validate values now so a bad one is a usage error before any work.
    for (const Arg &a : op.args) {
        double v = 0;
        const std::string range = a.lo > -1e300 ? " from " + Number(a.lo) + " to " + Number(a.hi) : "";
        try {
            if (a.type == ArgType::kInt) v = values->Int(a.name);
            if (a.type == ArgType::kDouble) v = values->Double(a.name);
        } catch (const UsageError &) {
            throw UsageError(op.name + ": --" + a.name + ": expected a " +
                             (a.type == ArgType::kInt ? "whole" : "finite") + " number" + range + ", got '" +
                             values->text[a.name] + "'");
        }
        switch (a.type) {
            case ArgType::kBool:
                values->Bool(a.name);
                break;
            case ArgType::kRect:
                values->Rect(a.name);
                break;
            default:
                break;
        }
        const std::string &t = values->text[a.name];
        if (a.choices != nullptr) {
            const std::string all = std::string("|") + a.choices + "|";
            if (all.find("|" + Lower(t) + "|") == std::string::npos)
                throw UsageError(op.name + ": --" + a.name + ": expected one of " + a.choices + ", got '" + t + "'");
            if (a.type == ArgType::kWord) values->text[a.name] = Lower(t);
        } else if (v < a.lo || v > a.hi) {
            throw UsageError(op.name + ": --" + a.name + ": expected a number" + range + ", got '" + t + "'");
        }
    }
    return rest;
}

}  // namespace qtool
