"""The operations through the binding against the C path (the quarvel tool)
on the same real pages, one or two per family; the keyword defaults against
the tool's table; refusals; the real-scan layer's shapes."""
import inspect
import re

import numpy as np
import pytest

import quarvel

IMAGE_CASES = [  # file, the tool's step, the same call through the binding
    ("breviar.38.150.jpg", "adjust-brightness-and-contrast --brightness 10 --contrast 30",
     lambda p: quarvel.adjust_brightness_and_contrast(p, brightness=10, contrast=30)),
    ("deskew-2.png", "rotate --angle 3.5 --interpolate 2", lambda p: quarvel.rotate(p, angle=3.5, interpolate=2)),
    ("feyn-fract.tif", "rotate-ex --angle -2 --x 100 --y 50", lambda p: quarvel.rotate_ex(p, -2, x=100, y=50)),
    ("breviar.38.150.jpg", "remove-border1 --threshold 120 --angle 90",
     lambda p: quarvel.remove_border1(p, threshold=120, angle=90)),
    ("feyn-fract.tif", "denoise-rect --rect 10,20,600,400 --size 3",
     lambda p: quarvel.denoise_rect(p, rect=(10, 20, 600, 400), size=3)),
    ("breviar.38.150.jpg", "convert-hong-tou --diff 50", lambda p: quarvel.convert_hong_tou(p, diff=50)),
    ("deskew-2.png", "crop --mode 2 --border 5", lambda p: quarvel.crop(p, mode=2, border=5)),
]
MEASURE_CASES = [
    ("deskew-2.png", "get-obliquity", quarvel.get_obliquity),
    ("breviar.38.150.jpg", "judge-color-mode", quarvel.judge_color_mode),
    ("deskew-2.png", "get-binary-threshold-by-rid-cal", quarvel.get_binary_threshold_by_rid_cal),
    ("feyn-fract.tif", "is-blank-page --threshold 100", lambda p: quarvel.is_blank_page(p, threshold=100)),
]


@pytest.mark.parametrize("name, step, call", IMAGE_CASES, ids=[c[1].split()[0] for c in IMAGE_CASES])
def test_image_operations_match_the_tool(name, step, call, data, tool, tmp_path):
    out = tmp_path / "c.png"
    tool(*step.split(), data(name), out)
    (page,) = quarvel.read(data(name))
    got = call(page)
    (expected,) = quarvel.read(out)
    assert got.dtype == expected.dtype
    np.testing.assert_array_equal(got, expected)
    assert got.dpi == page.dpi


@pytest.mark.parametrize("name, step, call", MEASURE_CASES, ids=[c[1].split()[0] for c in MEASURE_CASES])
def test_measurements_match_the_tool(name, step, call, data, tool):
    printed = tool(*step.split(), data(name)).stdout.strip()
    (page,) = quarvel.read(data(name))
    assert "%.6g" % call(page) == printed


def test_defaults_are_the_tools(tool):
    # `quarvel list`: an operation per line, then its options with "= default" or "(required)".
    listed, op = {}, None
    for line in tool("list").stdout.splitlines():
        if m := re.match(r"([^\s,]+)[,\s]", line):
            op = listed.setdefault(m.group(1), {})
        elif m := re.match(r"\s+--(\S+) \S+(?: = (\S+))?", line):
            op[m.group(1)] = m.group(2)
    ours = {}
    for export, fn in quarvel.OPERATIONS.items():
        params = list(inspect.signature(fn).parameters.values())[1:]
        ours[quarvel.pipeline.kebab_case(export)] = {
            p.name.rstrip("_").replace("_", "-"):
                None if p.default in (inspect.Parameter.empty, None) else
                ",".join(map(str, p.default)) if isinstance(p.default, tuple) else
                str(int(p.default)) if isinstance(p.default, bool) else
                "%g" % p.default if isinstance(p.default, float) else str(p.default)
            for p in params}
    scan_commands = {"detect", "clean", "deskew", "binarize"}
    assert set(listed) - scan_commands == set(ours)
    assert ours == {name: args for name, args in listed.items() if name not in scan_commands}


@pytest.mark.parametrize("call, message", [
    (lambda p: quarvel.resize(p, 0, 0), "resize refused the page"),
    (lambda p: quarvel.text_effect(np.dstack([p] * 3)), "text_effect refused"),
    (lambda p: quarvel.add_water_mark(p, mark=np.zeros((3, 3, 3), np.uint8)), "add_water_mark refused"),
    (lambda p: quarvel.convert_mode(p, mode=5), "convert_mode refused"),
    (lambda p: quarvel.test_precision(p, dpi=300), "no test frame"),
    (lambda p: quarvel.test_precision(p), "needs the page.s resolution"),
    (lambda p: quarvel.binarize(p, method="magic"), "sauvola"),
])
def test_refusals_raise_value_error(call, message):
    with pytest.raises(ValueError, match=message):
        call(np.full((40, 60), 255, np.uint8))


def test_scan_layer_shapes(data):
    (page,) = quarvel.read(data("breviar.38.150.jpg"))
    report = quarvel.detect(page, file="breviar.38.150.jpg")
    assert list(report)[:2] == ["file", "page"] and report["file"] == "breviar.38.150.jpg"
    assert {"width", "height", "skew", "orientation", "sheet", "content", "holes", "blank", "mode"} <= set(report)
    assert (report["width"], report["height"]) == (575, 900) and report["dpi"] == 150
    assert set(report["sheet"]) == {"box", "frame", "sides"} and len(report["sheet"]["box"]) == 4
    assert report["mode"] in (1, 8, 24)
    cleaned, seen = quarvel.clean(page, report=True)
    assert seen == {**report, "file": None}
    assert cleaned.dtype == np.uint8 and cleaned.dpi == (150.0, 150.0)
    assert quarvel.binarize(page, method="sauvola").dtype == bool
    assert quarvel.clean(page, binarize=True).dtype == bool
