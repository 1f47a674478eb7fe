"""The library's 44 operations under snake_case names, with the keyword
defaults of the quarvel tool (``quarvel list``). Each takes a page (array,
Page, Pillow image or Dib) and returns a new page of the same kind, or a
measurement. A page the library refuses raises ValueError. The signatures
here are also the pipeline step table (quarvel.pipeline reads them): option
``--min-holes`` is keyword ``min_holes``, ``--with`` is ``with_``.

Rectangles are ``(left, top, right, bottom)`` with rows counted from the top
and right and bottom exclusive; ``(0, 0, 0, 0)`` is the whole page. Rotation
centres ``x``, ``y`` count columns and stored rows (the bottom row is 0); -1
is the page centre.
"""
from __future__ import annotations

from typing import Optional, Tuple, Union

from . import _quarvel as _q

PageLike = Union["numpy.ndarray", "Page", "_q.Dib", "PIL.Image.Image"]
Rect = Tuple[int, int, int, int]
WHOLE: Rect = (0, 0, 0, 0)


def _dib(page):
    if page is None or isinstance(page, _q.Dib):
        return page
    from ._page import to_dib

    return to_dib(page)


def _image(fn, page, *args):
    if isinstance(page, _q.Dib):
        return fn(page, *args)
    from ._page import from_dib, to_dib

    return from_dib(fn(to_dib(page), *args))


def mirror(page: PageLike) -> PageLike:
    """Mirror the page left to right."""
    return _image(_q.Mirror, page)


def flip(page: PageLike) -> PageLike:
    """Flip the page top to bottom."""
    return _image(_q.Flip, page)


def invert(page: PageLike) -> PageLike:
    """Invert every pixel."""
    return _image(_q.Invert, page)


def adjust_brightness(page: PageLike, brightness: int = 20) -> PageLike:
    """Add a level to every channel, saturated (8, 24, 32 bits)."""
    return _image(_q.AdjustBrightness, page, brightness)


def adjust_contrast(page: PageLike, contrast: int = 20) -> PageLike:
    """Stretch (> 0) or compress (< 0) levels about mid gray; per cent, -100 to 100."""
    return _image(_q.AdjustContrast, page, contrast)


def adjust_brightness_and_contrast(page: PageLike, brightness: int = 0, contrast: int = 20) -> PageLike:
    """Brightness, then contrast about a pivot moved by it."""
    return _image(_q.AdjustBrightnessAndContrast, page, brightness, contrast)


def text_effect(page: PageLike, level: int = 1) -> PageLike:
    """Thicken (level > 0) or thin (< 0) dark strokes (1, 8 bits); level is the neighbourhood size - 1."""
    return _image(_q.TextEffect, page, level)


def text_effect_rect(page: PageLike, rect: Rect = WHOLE, level: int = 1) -> PageLike:
    """Text effect inside a rectangle."""
    return _image(_q.TextEffectRect, page, rect, level)


def fill(page: PageLike, rect: Rect = WHOLE, value: int = 255) -> PageLike:
    """Paint a rectangle with a gray level (0 ink to 255 paper)."""
    return _image(_q.Fill, page, rect, value)


def fill_outside(page: PageLike, rect: Rect = WHOLE, value: int = 255) -> PageLike:
    """Paint everything but a rectangle."""
    return _image(_q.FillOutside, page, rect, value)


def image_and(page: PageLike, with_: PageLike, x1: int = 0, y1: int = 0, x2: int = 0, y2: int = 0,
              width: int = 1000000, height: int = 1000000) -> PageLike:
    """Bitwise AND of a rectangle (at x1, y1 on this page, x2, y2 on ``with_``) with another page's.
    The input page is not changed."""
    return _image(_q.ImageAnd, page, _dib(with_), x1, y1, x2, y2, width, height)


def image_or(page: PageLike, with_: PageLike, x1: int = 0, y1: int = 0, x2: int = 0, y2: int = 0,
             width: int = 1000000, height: int = 1000000) -> PageLike:
    """Bitwise OR of a rectangle with another page's."""
    return _image(_q.ImageOr, page, _dib(with_), x1, y1, x2, y2, width, height)


def get_less(page: PageLike, with_: PageLike) -> PageLike:
    """Mark where this page exceeds another."""
    return _image(_q.GetLess, page, _dib(with_))


def convert_mode(page: PageLike, mode: int = 8, threshold: int = 128) -> PageLike:
    """Convert to 1, 8, 24 or 32 bits (threshold: the gray level for mode 1)."""
    return _image(_q.ConvertMode, page, mode, threshold)


def convert_mode_to_gray_ex(page: PageLike, red: int = 50, blue: int = 50) -> PageLike:
    """Gray, with strongly red and blue marks made black (least excess; 0: off)."""
    return _image(_q.ConvertModeToGrayEx, page, red, blue)


def thumbnail(page: PageLike, width: int = 200, height: int = 200) -> PageLike:
    """Scale to fit a box."""
    return _image(_q.Thumbnail, page, width, height)


def resize(page: PageLike, width: int, height: int) -> PageLike:
    """Scale into an exact size, centred on white."""
    return _image(_q.Resize, page, width, height)


def rotate(page: PageLike, angle: float, x: int = -1, y: int = -1, interpolate: int = 1) -> PageLike:
    """Turn by ``angle`` degrees within the page's frame (interpolate: 0 nearest, 1 linear, 2 cubic)."""
    return _image(_q.Rotate, page, angle, x, y, interpolate)


def rotate_ex(page: PageLike, angle: float, x: int = -1, y: int = -1, interpolate: int = 1) -> PageLike:
    """Turn onto a canvas that holds the whole page (white)."""
    return _image(_q.RotateEx, page, angle, x, y, interpolate)


def rotate_ex1(page: PageLike, angle: float, x: int = -1, y: int = -1, interpolate: int = 1) -> PageLike:
    """Turn onto a canvas that holds the whole page (black)."""
    return _image(_q.RotateEx1, page, angle, x, y, interpolate)


def rotate_expand(page: PageLike, angle: float = 90.0) -> PageLike:
    """Quarter or half turn: 90, 180, 270 or -90."""
    return _image(_q.RotateExpand, page, angle)


def crop(page: PageLike, rect: Rect = WHOLE, mode: int = 2, border: int = 10) -> PageLike:
    """Cut a region or the content onto a white canvas. mode: 0 region, 1 content in region,
    2 content, 3 per-side borders, 4 content fitted, 5 page fitted; border: white border (modes 0 to 2)."""
    return _image(_q.Crop, page, rect, mode, border)


def remove_border(page: PageLike, threshold: int = 100) -> PageLike:
    """Cut the page out of a dark scanner frame (threshold: gray level of the sheet)."""
    return _image(_q.RemoveBorder, page, threshold)


def remove_border1(page: PageLike, threshold: int = 100, angle: int = 0) -> PageLike:
    """Deskew by the sheet's edges, cut out and turn (angle: extra turn 0, 90, 180, 270, -90)."""
    return _image(_q.RemoveBorder1, page, threshold, angle)


def remove_border_gpy(page: PageLike, threshold: int = 100) -> PageLike:
    """Cut out and straighten along the sheet's outline."""
    return _image(_q.RemoveBorder_GPY, page, threshold)


def remove_border_fill(page: PageLike, threshold: int = 100) -> PageLike:
    """Whiten the frame, keep the size (dark below threshold)."""
    return _image(_q.RemoveBorder_Fill, page, threshold)


def remove_hole(page: PageLike, left: bool = False, top: bool = False, right: bool = False, bottom: bool = False,
                margin: int = 200, min_holes: int = 1, max_holes: int = 6, min_size: int = 20, max_size: int = 150,
                density: float = 0.5) -> PageLike:
    """Paint out punch holes in the bands (``margin`` pixels wide) along the chosen edges."""
    return _image(_q.RemoveHole, page, left, top, right, bottom, margin, min_holes, max_holes, min_size, max_size,
                  density)


def denoise(page: PageLike, size: int = 2) -> PageLike:
    """Erase specks up to ``size`` pixels (1, 8 bits) or smooth (colour)."""
    return _image(_q.Denoise, page, size)


def denoise_rect(page: PageLike, rect: Rect = WHOLE, size: int = 2) -> PageLike:
    """Denoise inside a rectangle."""
    return _image(_q.DenoiseRect, page, rect, size)


def is_blank_page(page: PageLike, threshold: int = 128) -> int:
    """Ink share in hundredths of a per cent (levels below threshold are ink; -1: nothing counted)."""
    return _q.IsBlankPage(_dib(page), threshold)


def add_water_mark(page: PageLike, mark: PageLike) -> PageLike:
    """Subtract a gray mark (8-bit) in the middle."""
    return _image(_q.AddWaterMark, page, _dib(mark))


def add_water_mark_ex(page: PageLike, mark: PageLike) -> PageLike:
    """Subtract a column of gray marks."""
    return _image(_q.AddWaterMarkEx, page, _dib(mark))


def combine(page: PageLike, with_: PageLike, mode: int = 0) -> PageLike:
    """Join with another page: 0 side by side, 1 one above the other."""
    return _image(_q.Combine, page, _dib(with_), mode)


def judge_color_mode(page: PageLike, threshold: int = -1) -> int:
    """1 black and white, 8 gray, 24 colour (threshold < 0: whole-page scan; else colour-patch density per 10,000)."""
    return _q.JudgeColorMode(_dib(page), threshold)


def convert_hong_tou(page: PageLike, gray: Optional[PageLike] = None, diff: int = 60) -> PageLike:
    """Keep red letterheads pure red, the rest gray (gray: the gray version; None: converted)."""
    return _image(_q.ConvertHongTou, page, _dib(gray), diff)


def convert_hong_tou_ex(page: PageLike, gray: Optional[PageLike] = None, diff: int = 60,
                        min_level: int = 90) -> PageLike:
    """Keep red and blue marks pure, the rest gray."""
    return _image(_q.ConvertHongTouEx, page, _dib(gray), diff, min_level)


def enhance_color(page: PageLike, rect: Rect = WHOLE, split: int = 128, brighten: int = 20, darken: int = 20,
                  red_threshold: int = 40, red_boost: int = 40, blue_threshold: int = 40,
                  blue_boost: int = 40) -> PageLike:
    """Strengthen red and blue, brighten light and darken dark pixels."""
    return _image(_q.EnhanceColor, page, rect, split, brighten, darken, red_threshold, red_boost, blue_threshold,
                  blue_boost)


def enhance_color_ex(page: PageLike, map: Optional[PageLike] = None, rect: Rect = WHOLE, split: int = 128,
                     brighten: int = 20, darken: int = 20, red_threshold: int = 40, red_boost: int = 40,
                     blue_threshold: int = 40, blue_boost: int = 40) -> PageLike:
    """Enhancement decided by a colour-excess map (None: make the map)."""
    return _image(_q.EnhanceColorEx, page, _dib(map), rect, split, brighten, darken, red_threshold, red_boost,
                  blue_threshold, blue_boost)


def enhance_color_ex1(page: PageLike, base: Optional[PageLike] = None, map: Optional[PageLike] = None,
                      rect: Rect = WHOLE, split: int = 128, brighten: int = 20, darken: int = 20,
                      red_threshold: int = 40, red_boost: int = 40, blue_threshold: int = 40,
                      blue_boost: int = 40) -> PageLike:
    """Map-driven enhancement written into a base page."""
    return _image(_q.EnhanceColorEx1, page, _dib(base), _dib(map), rect, split, brighten, darken, red_threshold,
                  red_boost, blue_threshold, blue_boost)


def de_colorize(page: PageLike, rect: Rect = WHOLE, red: int = 50, blue: int = 50, green: int = 50) -> PageLike:
    """Gray the colour; a whole-page call keeps distinct marks (least excess kept; 0: off)."""
    return _image(_q.DeColorize, page, rect, red, blue, green)


def get_binary_threshold_by_otsu(page: PageLike) -> int:
    """Otsu's binarisation threshold (gray level)."""
    return _q.GetBinaryThresholdByOtsu(_dib(page))


def get_binary_threshold_by_rid_cal(page: PageLike) -> int:
    """Ridler-Calvard binarisation threshold (gray level)."""
    return _q.GetBinaryThresholdByRidCal(_dib(page))


def get_obliquity(page: PageLike) -> float:
    """Skew of the text lines in degrees (positive: falling toward the right)."""
    return _q.GetObliquity(_dib(page))


def test_precision(page: PageLike, dpi: int = 0) -> Tuple[float, float]:
    """Scale errors (horizontal, vertical) of a scanned 100 mm test frame; dpi 0 takes the page's own.
    Raises ValueError when no frame is found."""
    dib = _dib(page)
    if dpi == 0 and dib.dpi is None:
        raise ValueError("test_precision needs the page's resolution: the page has none, pass dpi=")
    result = _q.TestPrecision(dib, dpi)
    if result is None:
        raise ValueError("test_precision found no test frame on the page")
    return result


test_precision.__test__ = False  # not a pytest test

OPERATIONS = {
    "Mirror": mirror, "Flip": flip, "Invert": invert, "AdjustBrightness": adjust_brightness,
    "AdjustContrast": adjust_contrast, "AdjustBrightnessAndContrast": adjust_brightness_and_contrast,
    "TextEffect": text_effect, "TextEffectRect": text_effect_rect, "Fill": fill, "FillOutside": fill_outside,
    "ImageAnd": image_and, "ImageOr": image_or, "GetLess": get_less, "ConvertMode": convert_mode,
    "ConvertModeToGrayEx": convert_mode_to_gray_ex, "Thumbnail": thumbnail, "Resize": resize, "Rotate": rotate,
    "RotateEx": rotate_ex, "RotateEx1": rotate_ex1, "RotateExpand": rotate_expand, "Crop": crop,
    "RemoveBorder": remove_border, "RemoveBorder1": remove_border1, "RemoveBorder_GPY": remove_border_gpy,
    "RemoveBorder_Fill": remove_border_fill, "RemoveHole": remove_hole, "Denoise": denoise,
    "DenoiseRect": denoise_rect, "IsBlankPage": is_blank_page, "AddWaterMark": add_water_mark,
    "AddWaterMarkEx": add_water_mark_ex, "Combine": combine, "JudgeColorMode": judge_color_mode,
    "ConvertHongTou": convert_hong_tou, "ConvertHongTouEx": convert_hong_tou_ex, "EnhanceColor": enhance_color,
    "EnhanceColorEx": enhance_color_ex, "EnhanceColorEx1": enhance_color_ex1, "DeColorize": de_colorize,
    "GetBinaryThresholdByOtsu": get_binary_threshold_by_otsu,
    "GetBinaryThresholdByRidCal": get_binary_threshold_by_rid_cal, "GetObliquity": get_obliquity,
    "TestPrecision": test_precision,
}
"""Export name -> function, in the order of `quarvel list`."""

MEASUREMENTS = frozenset({"IsBlankPage", "JudgeColorMode", "GetBinaryThresholdByOtsu", "GetBinaryThresholdByRidCal",
                          "GetObliquity", "TestPrecision"})

__all__ = [f.__name__ for f in OPERATIONS.values()] + ["PageLike", "Rect"]
