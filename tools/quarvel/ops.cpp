#include "ops.h"

#include <algorithm>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <sstream>

#include "formats.h"

namespace qtool {

namespace {

std::string Lower(std::string s) {
    for (char &c : s) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    return s;
}

std::string Number(double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, "%.6g", v);
    return buf;
}

Measure Value(double v) { return Measure{Number(v), Number(v)}; }

const Arg kRect{"rect", ArgType::kRect, "0,0,0,0", "rectangle left,top,right,bottom (rows from the top; 0,0,0,0: whole page)"};

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
          {{"brightness", ArgType::kInt, "20", "level added, saturated"}},
          [](HGLOBAL p, V v) { return AdjustBrightness(p, v.Int("brightness")); });
    image("AdjustContrast", "stretch (>0) or compress (<0) levels about mid gray",
          {{"contrast", ArgType::kInt, "20", "per cent, -100 to 100"}},
          [](HGLOBAL p, V v) { return AdjustContrast(p, v.Int("contrast")); });
    image("AdjustBrightnessAndContrast", "brightness, then contrast about a pivot moved by it",
          {{"brightness", ArgType::kInt, "0", "level added"}, {"contrast", ArgType::kInt, "20", "per cent, -100 to 100"}},
          [](HGLOBAL p, V v) { return AdjustBrightnessAndContrast(p, v.Int("brightness"), v.Int("contrast")); });
    image("TextEffect", "thicken (level > 0) or thin (< 0) dark strokes (1, 8 bits)",
          {{"level", ArgType::kInt, "1", "neighbourhood size - 1"}},
          [](HGLOBAL p, V v) { return TextEffect(p, v.Int("level")); });
    image("TextEffectRect", "text effect inside a rectangle", {kRect, {"level", ArgType::kInt, "1", "as text-effect"}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return TextEffectRect(p, &r, v.Int("level"));
          });
    image("Fill", "paint a rectangle with a gray level", {kRect, {"value", ArgType::kInt, "255", "0 ink to 255 paper"}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return Fill(p, &r, v.Int("value"));
          });
    image("FillOutside", "paint everything but a rectangle", {kRect, {"value", ArgType::kInt, "255", "0 ink to 255 paper"}},
          [](HGLOBAL p, V v) {
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
        return ImageAnd(p, v.File("with"), v.Int("x1"), v.Int("y1"), v.Int("x2"), v.Int("y2"), v.Int("width"), v.Int("height"));
    });
    image("ImageOr", "bitwise OR of a rectangle with another page's", twoRects, [](HGLOBAL p, V v) {
        return ImageOr(p, v.File("with"), v.Int("x1"), v.Int("y1"), v.Int("x2"), v.Int("y2"), v.Int("width"), v.Int("height"));
    });
    image("GetLess", "mark where this page exceeds another", {{"with", ArgType::kFile, nullptr, "second page (file)"}},
          [](HGLOBAL p, V v) { return GetLess(p, v.File("with")); });
    image("ConvertMode", "convert to 1, 8, 24 or 32 bits",
          {{"mode", ArgType::kInt, "8", "target bits: 1, 8, 24 or 32"}, {"threshold", ArgType::kInt, "128", "gray level for mode 1"}},
          [](HGLOBAL p, V v) { return ConvertMode(p, v.Int("mode"), v.Int("threshold")); });
    image("ConvertModeToGrayEx", "gray, with strongly red and blue marks made black",
          {{"red", ArgType::kInt, "50", "least red excess (0: off)"}, {"blue", ArgType::kInt, "50", "least blue excess (0: off)"}},
          [](HGLOBAL p, V v) { return ConvertModeToGrayEx(p, v.Int("red"), v.Int("blue")); });
    image("Thumbnail", "scale to fit a box", {{"width", ArgType::kInt, "200", "box width"}, {"height", ArgType::kInt, "200", "box height"}},
          [](HGLOBAL p, V v) { return Thumbnail(p, v.Int("width"), v.Int("height")); });
    image("Resize", "scale into an exact size, centred on white",
          {{"width", ArgType::kInt, nullptr, "target width"}, {"height", ArgType::kInt, nullptr, "target height"}},
          [](HGLOBAL p, V v) { return Resize(p, v.Int("width"), v.Int("height")); });
    const std::vector<Arg> rotation = {{"angle", ArgType::kDouble, nullptr, "degrees"},
                                       {"x", ArgType::kInt, "-1", "centre column (-1: page centre)"},
                                       {"y", ArgType::kInt, "-1", "centre stored row (-1: page centre)"},
                                       {"interpolate", ArgType::kInt, "1", "0 nearest, 1 linear, 2 cubic"}};
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
    image("RotateExpand", "quarter or half turn", {{"angle", ArgType::kDouble, "90", "90, 180, 270 or -90"}},
          [](HGLOBAL p, V v) { return RotateExpand(p, v.Double("angle"), 0, 0, 0); });
    image("Crop", "cut a region or the content onto a white canvas",
          {{"rect", ArgType::kRect, "0,0,0,0", "region, border widths or target size (by mode)"},
           {"mode", ArgType::kInt, "2", "0 region, 1 content in region, 2 content, 3 per-side borders, 4 content fitted, 5 page fitted"},
           {"border", ArgType::kInt, "10", "white border (modes 0 to 2)"}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return Crop(p, &r, v.Int("mode"), v.Int("border"));
          });
    image("RemoveBorder", "cut the page out of a dark scanner frame", {{"threshold", ArgType::kInt, "100", "gray level of the sheet"}},
          [](HGLOBAL p, V v) { return RemoveBorder(p, v.Int("threshold"), 0, 0); });
    image("RemoveBorder1", "deskew by the sheet's edges, cut out and turn",
          {{"threshold", ArgType::kInt, "100", "gray level of the sheet"}, {"angle", ArgType::kInt, "0", "extra turn: 0, 90, 180, 270, -90"}},
          [](HGLOBAL p, V v) { return RemoveBorder1(p, v.Int("threshold"), v.Int("angle"), 0, 0); });
    image("RemoveBorder_GPY", "cut out and straighten along the sheet's outline",
          {{"threshold", ArgType::kInt, "100", "gray level of the sheet"}},
          [](HGLOBAL p, V v) { return RemoveBorder_GPY(p, v.Int("threshold")); });
    image("RemoveBorder_Fill", "whiten the frame, keep the size", {{"threshold", ArgType::kInt, "100", "dark below this level"}},
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
           {"density", ArgType::kDouble, "0.5", "share of dark pixels of a hole"}},
          [](HGLOBAL p, V v) {
              return RemoveHole(p, v.Bool("left"), v.Bool("top"), v.Bool("right"), v.Bool("bottom"), v.Int("margin"),
                                v.Int("min-holes"), v.Int("max-holes"), v.Int("min-size"), v.Int("max-size"), v.Double("density"));
          });
    image("Denoise", "erase specks (1, 8 bits) or smooth (colour)", {{"size", ArgType::kInt, "2", "largest speck, pixels"}},
          [](HGLOBAL p, V v) { return Denoise(p, v.Int("size")); });
    image("DenoiseRect", "denoise inside a rectangle", {kRect, {"size", ArgType::kInt, "2", "largest speck, pixels"}},
          [](HGLOBAL p, V v) {
              RECT r = v.Rect("rect");
              return DenoiseRect(p, &r, v.Int("size"));
          });
    measure("IsBlankPage", "ink share in hundredths of a per cent (-1: nothing counted)",
            {{"threshold", ArgType::kInt, "128", "levels below are ink"}},
            [](HGLOBAL p, V v) { return Value(IsBlankPage(p, v.Int("threshold"))); });
    image("AddWaterMark", "subtract a gray mark in the middle", {{"mark", ArgType::kFile, nullptr, "8-bit gray mark (file)"}},
          [](HGLOBAL p, V v) { return AddWaterMark(p, v.File("mark")); });
    image("AddWaterMarkEx", "subtract a column of gray marks", {{"mark", ArgType::kFile, nullptr, "8-bit gray mark (file)"}},
          [](HGLOBAL p, V v) { return AddWaterMarkEx(p, v.File("mark")); });
    image("Combine", "join with another page", {{"with", ArgType::kFile, nullptr, "second page (file)"},
                                                 {"mode", ArgType::kInt, "0", "0 side by side, 1 one above the other"}},
          [](HGLOBAL p, V v) { return Combine(p, v.File("with"), v.Int("mode")); });
    measure("JudgeColorMode", "1 black and white, 8 gray, 24 colour",
            {{"threshold", ArgType::kInt, "-1", "negative: whole-page scan; else colour-patch density per 10,000"}},
            [](HGLOBAL p, V v) { return Value(JudgeColorMode(p, v.Int("threshold"))); });
    auto grayOf = [](HGLOBAL p, V v) {
        HGLOBAL g = v.File("gray");
        return g != nullptr ? Page() : Page(ConvertMode(p, 8, 128));
    };
    image("ConvertHongTou", "keep red letterheads pure red, the rest gray",
          {{"gray", ArgType::kFile, "", "gray version of the page (default: converted)"}, {"diff", ArgType::kInt, "60", "least red excess"}},
          [=](HGLOBAL p, V v) {
              Page made = grayOf(p, v);
              return ConvertHongTou(p, made ? made.get() : v.File("gray"), 0, 0, 0, v.Int("diff"));
          });
    image("ConvertHongTouEx", "keep red and blue marks pure, the rest gray",
          {{"gray", ArgType::kFile, "", "gray version of the page (default: converted)"},
           {"diff", ArgType::kInt, "60", "least red or blue excess"},
           {"min-level", ArgType::kInt, "90", "least red or blue level"}},
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
    image("EnhanceColor", "strengthen red and blue, brighten light and darken dark pixels", enhance, [=](HGLOBAL p, V v) {
        return params(v, [&](auto... a) { return EnhanceColor(p, a...); });
    });
    std::vector<Arg> withMap = enhance;
    withMap.insert(withMap.begin(), Arg{"map", ArgType::kFile, "", "colour-excess map (file; absent: make the map)"});
    image("EnhanceColorEx", "enhancement decided by a colour-excess map", withMap, [=](HGLOBAL p, V v) {
        return params(v, [&](auto... a) { return EnhanceColorEx(p, v.File("map"), a...); });
    });
    std::vector<Arg> withBase = withMap;
    withBase.insert(withBase.begin(), Arg{"base", ArgType::kFile, "", "page the result is written into (file)"});
    image("EnhanceColorEx1", "map-driven enhancement written into a base page", withBase, [=](HGLOBAL p, V v) {
        return params(v, [&](auto... a) { return EnhanceColorEx1(p, v.File("base"), v.File("map"), a...); });
    });
    image("DeColorize", "gray the colour (whole page keeps distinct marks)",
          {kRect, {"red", ArgType::kInt, "50", "least red excess kept (0: off)"}, {"blue", ArgType::kInt, "50", "least blue excess kept"},
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
            {{"dpi", ArgType::kInt, "0", "resolution (0: from the file)"}}, [](HGLOBAL p, V v) {
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
    return ops;
}

}  // namespace

std::string KebabCase(const std::string &exportName) {
    std::string out;
    for (std::size_t i = 0; i < exportName.size(); ++i) {
        const char c = exportName[i];
        if (c == '_') {
            out += '-';
            continue;
        }
        const bool upper = std::isupper(static_cast<unsigned char>(c));
        if (upper && i > 0 && (std::islower(static_cast<unsigned char>(exportName[i - 1])) ||
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
        if (op.name == key || Lower(op.exportName) == key) return &op;
    return nullptr;
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
        if (used != t.size()) throw std::invalid_argument(t);
        return v;
    } catch (const std::exception &) {
        throw UsageError("--" + name + ": expected a number, got '" + t + "'");
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
        if (arg == op.args.end()) throw UsageError(op.name + ": unknown option --" + name + " (see: quarvel help " + op.name + ")");
        if (eq == std::string::npos) {
            const bool flag = arg->type == ArgType::kBool &&
                              (i + 1 >= words.size() || words[i + 1].compare(0, 2, "--") == 0 ||
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
    // Validate numbers now so a bad value is a usage error before any work.
    for (const Arg &a : op.args) {
        switch (a.type) {
            case ArgType::kInt: values->Int(a.name); break;
            case ArgType::kDouble: values->Double(a.name); break;
            case ArgType::kBool: values->Bool(a.name); break;
            case ArgType::kRect: values->Rect(a.name); break;
            default: break;
        }
    }
    return rest;
}

}  // namespace qtool
