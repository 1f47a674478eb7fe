// quarvel._quarvel: the native half of the Python package. It holds the Dib
// type (one page in the library's packed form, with its conversions to and
// from NumPy arrays), one function per library operation under its export
// name with every argument positional, the real-scan layer, and the tool's
// file readers and writers. The friendly names, keyword defaults and array
// handling live in the Python half (quarvel/_ops.py).
//
// Every call releases the interpreter lock while the library works, so
// threads run pages in parallel. A refused page raises ValueError naming the
// operation; nothing else of the library can throw.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "dib.h"
#include "formats.h"
#include "quarvel/scan.h"

namespace py = pybind11;
using qpy::Dib;

namespace {

using Rect4 = std::array<int, 4>;

RECT ToRect(const Rect4 &r) {
    return RECT{r[0], r[1], r[2], r[3]};
}

HGLOBAL Handle(const Dib *d) {
    return d != nullptr ? d->get() : nullptr;
}

// Runs the call without the interpreter lock and wraps its new page.
template <class F>
Dib Image(const char *name, F call) {
    HGLOBAL out;
    {
        py::gil_scoped_release unlocked;
        out = call();
    }
    if (out == nullptr) throw py::value_error(std::string(name) + " refused the page (unsupported depth or arguments)");
    return Dib(out);
}

template <class F>
auto Measure(F call) {
    py::gil_scoped_release unlocked;
    return call();
}

// A copy of the page in a block of its own (ImageAnd writes its first page).
Dib Copy(const Dib &d) {
    const std::size_t size = GlobalSize(d.get());
    Dib copy(GlobalAlloc(GHND, size));
    void *dst = GlobalLock(copy.get());
    const void *src = GlobalLock(d.get());
    if (dst != nullptr && src != nullptr) std::memcpy(dst, src, size);
    if (src != nullptr) GlobalUnlock(d.get());
    if (dst == nullptr) return Dib(nullptr);
    GlobalUnlock(copy.get());
    return copy;
}

qpy::DibLayout Checked(const Dib &d) {
    const qpy::DibLayout l = qpy::LayoutOf(d.get());
    if (!l.ok)
        throw py::value_error("the page cannot be read (freed, truncated, compressed or of an unsupported depth)");
    return l;
}

py::object Dpi(const Dib &d) {
    const qpy::DibLayout l = qpy::LayoutOf(d.get());
    if (!l.ok || l.xPelsPerMeter <= 0) return py::none();
    const double x = qpy::DpiOf(l.xPelsPerMeter);
    const double y = l.yPelsPerMeter > 0 ? qpy::DpiOf(l.yPelsPerMeter) : x;
    return py::make_tuple(x, y);
}

py::array ToArray(const Dib &d) {
    const qpy::DibLayout l = Checked(d);
    const qpy::Kind kind = qpy::ArrayKindOf(d.get(), l);
    std::vector<py::ssize_t> shape{l.height, l.width};
    if (kind == qpy::Kind::kRgb) shape.push_back(3);
    if (kind == qpy::Kind::kRgba) shape.push_back(4);
    py::array out = kind == qpy::Kind::kBool ? py::array(py::dtype::of<bool>(), shape)
                                             : py::array(py::dtype::of<std::uint8_t>(), shape);
    auto *data = static_cast<std::uint8_t *>(out.mutable_data());
    {
        py::gil_scoped_release unlocked;
        qpy::DibToArray(d.get(), l, kind, data);
    }
    return out;
}

Dib FromArray(const py::array &a, double dpiX, double dpiY) {
    const py::dtype dt = a.dtype();
    const bool isBool = dt.kind() == 'b', isByte = dt.kind() == 'u' && dt.itemsize() == 1;
    if (!isBool && !isByte)
        throw py::value_error("a page is a bool or uint8 array, got dtype " +
                              py::str(static_cast<const py::handle &>(dt)).cast<std::string>());
    qpy::ArrayView v{};
    v.data = static_cast<const std::uint8_t *>(a.data());
    if (a.ndim() == 2) {
        v.kind = isBool ? qpy::Kind::kBool : qpy::Kind::kGray;
    } else if (a.ndim() == 3 && isByte && (a.shape(2) == 3 || a.shape(2) == 4)) {
        v.kind = a.shape(2) == 3 ? qpy::Kind::kRgb : qpy::Kind::kRgba;
        v.channelStride = a.strides(2);
    } else {
        throw py::value_error("a page is H x W (bool or uint8), H x W x 3 (RGB) or H x W x 4 (RGBA), got " +
                              std::to_string(a.ndim()) + " dimensions");
    }
    v.height = a.shape(0), v.width = a.shape(1);
    v.rowStride = a.strides(0), v.colStride = a.strides(1);
    const int bits = v.kind == qpy::Kind::kBool   ? 1
                     : v.kind == qpy::Kind::kGray ? 8
                     : v.kind == qpy::Kind::kRgb  ? 24
                                                  : 32;
    // The library reads rows of at most 2^31 - 1 bytes in all.
    if (v.height < 1 || v.width < 1 || v.width > (1 << 30) ||
        (v.width * bits + 31) / 32 * 4 * v.height > std::int64_t{0x7fffffff})
        throw py::value_error("a page must hold 1 to 2^31 - 1 bytes of rows, got " + std::to_string(v.height) + " x " +
                              std::to_string(v.width));
    Dib d(nullptr);
    {
        py::gil_scoped_release unlocked;
        d = qpy::ArrayToDib(v, dpiX, dpiY);
    }
    if (d.get() == nullptr) throw std::bad_alloc();
    return d;
}

py::list BoxList(const RECT &r) {
    return py::cast(std::vector<long>{r.left, r.top, r.right, r.bottom});
}

QuarvelScanOptions Options(std::uint32_t steps, int dpi, double maxSkew, double minSkewConfidence,
                           double minOrientationConfidence, int margin, int method, int window, double k, int speck) {
    QuarvelScanOptions o{};
    QuarvelDefaultOptions(&o);
    o.steps = steps, o.dpi = dpi, o.max_skew = maxSkew, o.min_skew_confidence = minSkewConfidence;
    o.min_orientation_confidence = minOrientationConfidence, o.margin = margin, o.binarize_method = method;
    o.binarize_window = window, o.binarize_k = k, o.speck_size = speck;
    return o;
}

py::dict Report(const QuarvelPageReport &r) {
    py::dict d;
    d["width"] = r.width;
    d["height"] = r.height;
    d["dpi"] = r.dpi;
    const char *sources[] = {"", "given", "tag", "text", "size"};
    d["dpi_source"] = sources[r.dpi_source >= 0 && r.dpi_source <= 4 ? r.dpi_source : 0];
    py::dict skew, orientation, sheet, blank;
    skew["angle"] = r.skew_angle, skew["confidence"] = r.skew_confidence;
    orientation["angle"] = r.orientation, orientation["confidence"] = r.orientation_confidence;
    sheet["box"] = BoxList(r.sheet);
    sheet["frame"] = r.frame_sides != 0;
    py::list sides;
    static const std::pair<unsigned, const char *> kSides[] = {{QUARVEL_SIDE_LEFT, "left"},
                                                               {QUARVEL_SIDE_TOP, "top"},
                                                               {QUARVEL_SIDE_RIGHT, "right"},
                                                               {QUARVEL_SIDE_BOTTOM, "bottom"}};
    for (const auto &[bit, name] : kSides)
        if (r.frame_sides & bit) sides.append(name);
    sheet["sides"] = sides;
    d["skew"] = skew;
    d["orientation"] = orientation;
    d["sheet"] = sheet;
    d["content"] = r.has_content ? py::object(BoxList(r.content)) : py::object(py::none());
    py::list holes;
    for (int i = 0; i < std::min(r.hole_count, QUARVEL_MAX_HOLES); ++i) {
        py::dict h;
        h["cx"] = r.holes[i].cx, h["cy"] = r.holes[i].cy, h["r"] = r.holes[i].r;
        holes.append(h);
    }
    d["holes"] = holes;
    blank["blank"] = r.blank != 0, blank["ink"] = r.ink;
    d["blank"] = blank;
    d["mode"] = r.mode;
    return d;
}

void BindOperations(py::module_ &m) {
    using D = const Dib &;
    using O = const Dib *;
    m.def("Mirror", [](D p) { return Image("mirror", [&] { return Mirror(p.get()); }); });
    m.def("Flip", [](D p) { return Image("flip", [&] { return Flip(p.get()); }); });
    m.def("Invert", [](D p) { return Image("invert", [&] { return Invert(p.get()); }); });
    m.def("AdjustBrightness",
          [](D p, int b) { return Image("adjust_brightness", [&] { return AdjustBrightness(p.get(), b); }); });
    m.def("AdjustContrast",
          [](D p, int c) { return Image("adjust_contrast", [&] { return AdjustContrast(p.get(), c); }); });
    m.def("AdjustBrightnessAndContrast", [](D p, int b, int c) {
        return Image("adjust_brightness_and_contrast", [&] { return AdjustBrightnessAndContrast(p.get(), b, c); });
    });
    m.def("TextEffect",
          [](D p, int level) { return Image("text_effect", [&] { return TextEffect(p.get(), level); }); });
    m.def("TextEffectRect", [](D p, Rect4 r, int level) {
        return Image("text_effect_rect", [&] {
            RECT rc = ToRect(r);
            return TextEffectRect(p.get(), &rc, level);
        });
    });
    m.def("Fill", [](D p, Rect4 r, int value) {
        return Image("fill", [&] {
            RECT rc = ToRect(r);
            return Fill(p.get(), &rc, value);
        });
    });
    m.def("FillOutside", [](D p, Rect4 r, int value) {
        return Image("fill_outside", [&] {
            RECT rc = ToRect(r);
            return FillOutside(p.get(), &rc, value);
        });
    });
    m.def("ImageAnd", [](D p, D q, int x1, int y1, int x2, int y2, int w, int h) {
        const Dib first = Copy(p);
        return Image("image_and", [&] { return ImageAnd(first.get(), q.get(), x1, y1, x2, y2, w, h); });
    });
    m.def("ImageOr", [](D p, D q, int x1, int y1, int x2, int y2, int w, int h) {
        return Image("image_or", [&] { return ImageOr(p.get(), q.get(), x1, y1, x2, y2, w, h); });
    });
    m.def("GetLess", [](D p, D q) { return Image("get_less", [&] { return GetLess(p.get(), q.get()); }); });
    m.def("ConvertMode",
          [](D p, int mode, int t) { return Image("convert_mode", [&] { return ConvertMode(p.get(), mode, t); }); });
    m.def("ConvertModeToGrayEx", [](D p, int red, int blue) {
        return Image("convert_mode_to_gray_ex", [&] { return ConvertModeToGrayEx(p.get(), red, blue); });
    });
    m.def("Thumbnail", [](D p, int w, int h) { return Image("thumbnail", [&] { return Thumbnail(p.get(), w, h); }); });
    m.def("Resize", [](D p, int w, int h) { return Image("resize", [&] { return Resize(p.get(), w, h); }); });

    // A negative centre stands for the page centre, as in the tool.
    auto centred = [](const char *name, auto op) {
        return [name, op](D p, double angle, int x, int y, int interpolate) {
            return Image(name, [&] {
                const qpy::DibLayout l = qpy::LayoutOf(p.get());
                const int cx = x < 0 && l.ok ? l.width / 2 : x;
                const int cy = y < 0 && l.ok ? l.height / 2 : y;
                return op(p.get(), angle, cx, cy, interpolate);
            });
        };
    };
    m.def("Rotate", centred("rotate", [](auto... a) { return Rotate(a...); }));
    m.def("RotateEx", centred("rotate_ex", [](auto... a) { return RotateEx(a...); }));
    m.def("RotateEx1", centred("rotate_ex1", [](auto... a) { return RotateEx1(a...); }));
    m.def("RotateExpand", [](D p, double angle) {
        return Image("rotate_expand", [&] { return RotateExpand(p.get(), angle, 0, 0, 0); });
    });
    m.def("Crop", [](D p, Rect4 r, int mode, int border) {
        return Image("crop", [&] {
            RECT rc = ToRect(r);
            return Crop(p.get(), &rc, mode, border);
        });
    });
    m.def("RemoveBorder",
          [](D p, int t) { return Image("remove_border", [&] { return RemoveBorder(p.get(), t, 0, 0); }); });
    m.def("RemoveBorder1", [](D p, int t, int angle) {
        return Image("remove_border1", [&] { return RemoveBorder1(p.get(), t, angle, 0, 0); });
    });
    m.def("RemoveBorder_GPY",
          [](D p, int t) { return Image("remove_border_gpy", [&] { return RemoveBorder_GPY(p.get(), t); }); });
    m.def("RemoveBorder_Fill",
          [](D p, int t) { return Image("remove_border_fill", [&] { return RemoveBorder_Fill(p.get(), t); }); });
    m.def("RemoveHole", [](D p, bool left, bool top, bool right, bool bottom, int margin, int minHoles, int maxHoles,
                           int minSize, int maxSize, double density) {
        return Image("remove_hole", [&] {
            return RemoveHole(p.get(), left, top, right, bottom, margin, minHoles, maxHoles, minSize, maxSize, density);
        });
    });
    m.def("Denoise", [](D p, int size) { return Image("denoise", [&] { return Denoise(p.get(), size); }); });
    m.def("DenoiseRect", [](D p, Rect4 r, int size) {
        return Image("denoise_rect", [&] {
            RECT rc = ToRect(r);
            return DenoiseRect(p.get(), &rc, size);
        });
    });
    m.def("IsBlankPage", [](D p, int t) { return Measure([&] { return IsBlankPage(p.get(), t); }); });
    m.def("AddWaterMark",
          [](D p, D mark) { return Image("add_water_mark", [&] { return AddWaterMark(p.get(), mark.get()); }); });
    m.def("AddWaterMarkEx",
          [](D p, D mark) { return Image("add_water_mark_ex", [&] { return AddWaterMarkEx(p.get(), mark.get()); }); });
    m.def("Combine",
          [](D p, D q, int mode) { return Image("combine", [&] { return Combine(p.get(), q.get(), mode); }); });
    m.def("JudgeColorMode", [](D p, int t) { return Measure([&] { return JudgeColorMode(p.get(), t); }); });
    // Without a gray page, the gray version is made by ConvertMode(page, 8, 128), as in the tool.
    m.def(
        "ConvertHongTou",
        [](D p, O gray, int diff) {
            return Image("convert_hong_tou", [&] {
                Dib made(gray == nullptr ? ConvertMode(p.get(), 8, 128) : nullptr);
                return ConvertHongTou(p.get(), gray ? gray->get() : made.get(), 0, 0, 0, diff);
            });
        },
        py::arg("page"), py::arg("gray").none(true), py::arg("diff"));
    m.def(
        "ConvertHongTouEx",
        [](D p, O gray, int diff, int minLevel) {
            return Image("convert_hong_tou_ex", [&] {
                Dib made(gray == nullptr ? ConvertMode(p.get(), 8, 128) : nullptr);
                return ConvertHongTouEx(p.get(), gray ? gray->get() : made.get(), 0, 0, 0, diff,
                                        static_cast<BYTE>(minLevel));
            });
        },
        py::arg("page"), py::arg("gray").none(true), py::arg("diff"), py::arg("min_level"));
    m.def("EnhanceColor", [](D p, Rect4 r, int split, int brighten, int darken, int rt, int rb, int bt, int bb) {
        return Image("enhance_color", [&] {
            RECT rc = ToRect(r);
            return EnhanceColor(p.get(), &rc, split, brighten, darken, rt, rb, bt, bb);
        });
    });
    m.def(
        "EnhanceColorEx",
        [](D p, O map, Rect4 r, int split, int brighten, int darken, int rt, int rb, int bt, int bb) {
            return Image("enhance_color_ex", [&] {
                RECT rc = ToRect(r);
                return EnhanceColorEx(p.get(), Handle(map), &rc, split, brighten, darken, rt, rb, bt, bb);
            });
        },
        py::arg("page"), py::arg("map").none(true), py::arg("rect"), py::arg("split"), py::arg("brighten"),
        py::arg("darken"), py::arg("red_threshold"), py::arg("red_boost"), py::arg("blue_threshold"),
        py::arg("blue_boost"));
    m.def(
        "EnhanceColorEx1",
        [](D p, O base, O map, Rect4 r, int split, int brighten, int darken, int rt, int rb, int bt, int bb) {
            return Image("enhance_color_ex1", [&] {
                RECT rc = ToRect(r);
                return EnhanceColorEx1(p.get(), Handle(base), Handle(map), &rc, split, brighten, darken, rt, rb, bt,
                                       bb);
            });
        },
        py::arg("page"), py::arg("base").none(true), py::arg("map").none(true), py::arg("rect"), py::arg("split"),
        py::arg("brighten"), py::arg("darken"), py::arg("red_threshold"), py::arg("red_boost"),
        py::arg("blue_threshold"), py::arg("blue_boost"));
    m.def("DeColorize", [](D p, Rect4 r, int red, int blue, int green) {
        return Image("de_colorize", [&] {
            RECT rc = ToRect(r);
            return DeColorize(p.get(), &rc, red, blue, green);
        });
    });
    m.def("GetBinaryThresholdByOtsu", [](D p) { return Measure([&] { return GetBinaryThresholdByOtsu(p.get()); }); });
    m.def("GetBinaryThresholdByRidCal",
          [](D p) { return Measure([&] { return GetBinaryThresholdByRidCal(p.get()); }); });
    m.def("GetObliquity", [](D p) { return Measure([&] { return GetObliquity(p.get()); }); });
    // Resolution 0 takes the page's own, as in the tool; None when no test frame is found.
    m.def("TestPrecision", [](D p, int dpi) -> py::object {
        double h = 0, v = 0;
        const int status = Measure([&] {
            int resolution = dpi;
            if (resolution == 0)
                resolution = static_cast<int>(std::lround(qpy::DpiOf(qpy::LayoutOf(p.get()).xPelsPerMeter)));
            return TestPrecision(p.get(), resolution, &h, &v);
        });
        if (status != 0) return py::none();
        return py::make_tuple(h, v);
    });
}

void BindScan(py::module_ &m) {
    m.def("scan_defaults", [] {
        QuarvelScanOptions o{};
        QuarvelDefaultOptions(&o);
        py::dict d;
        d["steps"] = o.steps, d["dpi"] = o.dpi, d["max_skew"] = o.max_skew,
        d["min_skew_confidence"] = o.min_skew_confidence;
        d["min_orientation_confidence"] = o.min_orientation_confidence, d["margin"] = o.margin;
        d["binarize_method"] = o.binarize_method, d["binarize_window"] = o.binarize_window,
        d["binarize_k"] = o.binarize_k;
        d["speck_size"] = o.speck_size;
        return d;
    });
    m.def("AnalyzePage", [](const Dib &p, std::uint32_t steps, int dpi, double maxSkew, double minSkew,
                            double minOrient, int margin, int method, int window, double k, int speck) {
        const QuarvelScanOptions o = Options(steps, dpi, maxSkew, minSkew, minOrient, margin, method, window, k, speck);
        QuarvelPageReport r{};
        r.size = sizeof r;
        if (!Measure([&] { return QuarvelAnalyzePage(p.get(), &o, &r); }))
            throw py::value_error("detect could not read the page");
        return Report(r);
    });
    m.def("CleanPage", [](const Dib &p, std::uint32_t steps, int dpi, double maxSkew, double minSkew, double minOrient,
                          int margin, int method, int window, double k, int speck) {
        const QuarvelScanOptions o = Options(steps, dpi, maxSkew, minSkew, minOrient, margin, method, window, k, speck);
        QuarvelPageReport r{};
        r.size = sizeof r;
        Dib out = Image("clean", [&] { return QuarvelCleanPage(p.get(), &o, &r); });
        return py::make_tuple(std::move(out), Report(r));
    });
    m.def("BinarizePage", [](const Dib &p, int dpi, int method, int window, double k) {
        const QuarvelScanOptions o = Options(QUARVEL_CLEAN_DEFAULT, dpi, 0, 0.5, 0.6, -1, method, window, k, 0);
        return Image("binarize", [&] { return QuarvelBinarizePage(p.get(), &o); });
    });
    m.attr("CLEAN_DESKEW") = QUARVEL_CLEAN_DESKEW;
    m.attr("CLEAN_ORIENT") = QUARVEL_CLEAN_ORIENT;
    m.attr("CLEAN_CROP") = QUARVEL_CLEAN_CROP;
    m.attr("CLEAN_WHITEN") = QUARVEL_CLEAN_WHITEN;
    m.attr("CLEAN_HOLES") = QUARVEL_CLEAN_HOLES;
    m.attr("CLEAN_DESPECKLE") = QUARVEL_CLEAN_DESPECKLE;
    m.attr("CLEAN_BINARIZE") = QUARVEL_CLEAN_BINARIZE;
    m.attr("CLEAN_DEFAULT") = QUARVEL_CLEAN_DEFAULT;
}

void BindFiles(py::module_ &m) {
    py::register_exception<qtool::FormatError>(m, "FormatError", PyExc_ValueError);
    m.def("read", [](const std::string &path) {
        py::gil_scoped_release unlocked;
        return qtool::ReadImage(path);
    });
    m.def("write", [](const std::string &path, const std::vector<const Dib *> &pages, int quality) {
        py::gil_scoped_release unlocked;
        qtool::WriteImage(path, pages, quality);
    });
}

}  // namespace

PYBIND11_MODULE(_quarvel, m) {
    m.doc() = "Native half of the quarvel package: pages as packed DIBs and the library's operations.";
    py::class_<Dib>(m, "Dib", "One page in the library's own packed form (a DIB in a global-memory block).")
        .def_static(
            "from_array", [](const py::array &a, double dpiX, double dpiY) { return FromArray(a, dpiX, dpiY); },
            py::arg("array"), py::arg("dpi_x") = 0.0, py::arg("dpi_y") = 0.0)
        .def("to_array", &ToArray)
        .def("copy",
             [](const Dib &d) {
                 Checked(d);
                 return Copy(d);
             })
        .def_property_readonly("width", [](const Dib &d) { return Checked(d).width; })
        .def_property_readonly("height", [](const Dib &d) { return Checked(d).height; })
        .def_property_readonly("bits", [](const Dib &d) { return Checked(d).bits; })
        .def_property_readonly("nbytes", [](const Dib &d) { return GlobalSize(d.get()); })
        .def_property_readonly("dpi", &Dpi)
        // Pickled as the block's bytes; whatever comes back is checked by
        // every operation as any page is.
        .def(py::pickle(
            [](const Dib &d) {
                const std::size_t size = GlobalSize(d.get());
                const void *p = GlobalLock(d.get());
                py::bytes bytes(p != nullptr ? static_cast<const char *>(p) : "", p != nullptr ? size : 0);
                if (p != nullptr) GlobalUnlock(d.get());
                return bytes;
            },
            [](const py::bytes &b) {
                const std::string s = b;
                Dib d(GlobalAlloc(GHND, s.size()));
                void *p = GlobalLock(d.get());
                if (p == nullptr) throw py::value_error("not a pickled page");
                std::memcpy(p, s.data(), s.size());
                GlobalUnlock(d.get());
                return d;
            }))
        .def("__repr__", [](const Dib &d) {
            const qpy::DibLayout l = qpy::LayoutOf(d.get());
            return "<quarvel.Dib " + std::to_string(l.width) + " x " + std::to_string(l.height) + ", " +
                   std::to_string(l.bits) + " bits>";
        });
    BindOperations(m);
    BindScan(m);
    BindFiles(m);
}
