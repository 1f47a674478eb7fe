"""The real-scan layer: ``detect`` measures a page (skew, orientation, sheet
and frame, content box, punch holes, blank verdict, content mode), ``clean``
straightens and tidies it, ``binarize`` makes it black and white. Coordinates
in reports are those of the page as displayed, before any correction: x to
the right, y down from the top-left corner, boxes ``[left, top, right,
bottom]`` with right and bottom exclusive. Skew angles are positive when text
lines fall toward the right (as get_obliquity).
"""
from __future__ import annotations

from typing import Optional

from . import _quarvel as _q
from ._ops import PageLike, _dib

BINARIZE_METHODS = {"default": 0, "sauvola": 1, "wolf": 2, "otsu": 3}
_DEFAULTS = _q.scan_defaults()


def _method(method) -> int:
    if isinstance(method, int):
        return method
    try:
        return BINARIZE_METHODS[str(method).lower()]
    except KeyError:
        raise ValueError(f"binarize method must be one of {', '.join(BINARIZE_METHODS)}, got {method!r}") from None


def _whole_dpi(dpi) -> int:
    if dpi is None:
        return 0
    if not isinstance(dpi, (int, float)):
        dpi = dpi[0]
    return int(round(dpi))


def detect(page: PageLike, dpi: Optional[float] = None, max_skew: float = _DEFAULTS["max_skew"],
           file: Optional[str] = None, index: int = 1) -> dict:
    """The page's analysis as a dict shaped like a ``quarvel detect --json`` line: file, page,
    width, height, skew {angle, confidence}, orientation {angle, confidence}, sheet {box, frame,
    sides}, content (box or None), holes [{cx, cy, r}], blank {blank, ink}, mode (1, 8 or 24),
    and the dpi used. ``file`` and ``index`` only fill the first two keys."""
    d = _DEFAULTS
    report = _q.AnalyzePage(_dib(page), d["steps"], _whole_dpi(dpi), max_skew, d["min_skew_confidence"],
                            d["min_orientation_confidence"], d["margin"], d["binarize_method"], d["binarize_window"],
                            d["binarize_k"], d["speck_size"])
    return {"file": file, "page": index, **report}


def clean(page: PageLike, deskew: bool = True, orient: bool = False, crop: bool = True, whiten: bool = False,
          holes: bool = True, despeckle: bool = True, binarize: bool = False, method: str = "default",
          margin: int = -1, dpi: Optional[float] = None, min_confidence: float = _DEFAULTS["min_skew_confidence"],
          min_orientation_confidence: float = _DEFAULTS["min_orientation_confidence"],
          max_skew: float = _DEFAULTS["max_skew"], speck_size: int = 0, window: int = 0, k: float = 0.0,
          report: bool = False):
    """The cleaned page: straightened (when the skew confidence reaches ``min_confidence``), turned
    upright (``orient``), cut out of the scanner frame (``crop``; ``whiten`` keeps the size and paints
    the frame as paper instead), punch holes filled, specks removed, optionally binarised. Content is
    never cut. ``margin`` is the paper kept round the content (-1: about 2 mm). With ``report=True``,
    returns ``(page, detect-style dict of the input)``."""
    steps = ((_q.CLEAN_DESKEW if deskew else 0) | (_q.CLEAN_ORIENT if orient else 0)
             | (_q.CLEAN_CROP if crop and not whiten else 0) | (_q.CLEAN_WHITEN if whiten else 0)
             | (_q.CLEAN_HOLES if holes else 0) | (_q.CLEAN_DESPECKLE if despeckle else 0)
             | (_q.CLEAN_BINARIZE if binarize else 0))
    return _clean(page, steps, dpi, max_skew, min_confidence, min_orientation_confidence, margin, _method(method),
                  window, k, speck_size, report)


def deskew(page: PageLike, dpi: Optional[float] = None, min_confidence: float = _DEFAULTS["min_skew_confidence"],
           max_skew: float = _DEFAULTS["max_skew"]) -> PageLike:
    """The page straightened, and nothing else (clean with only its deskew step)."""
    d = _DEFAULTS
    return _clean(page, _q.CLEAN_DESKEW, dpi, max_skew, min_confidence, d["min_orientation_confidence"], d["margin"],
                  d["binarize_method"], 0, 0.0, d["speck_size"], False)


def _clean(page, steps, dpi, max_skew, min_conf, min_orient, margin, method, window, k, speck, report):
    out, info = _q.CleanPage(_dib(page), steps, _whole_dpi(dpi), max_skew,
                             min_conf, min_orient, margin, method, window, k, speck)
    if not isinstance(page, _q.Dib):
        from ._page import from_dib

        out = from_dib(out)
    return (out, {"file": None, "page": 1, **info}) if report else out


def binarize(page: PageLike, method: str = "default", window: int = 0, k: float = 0.0,
             dpi: Optional[float] = None) -> PageLike:
    """A black-and-white page by an adaptive or global threshold: method "default" (the library's
    best general method), "sauvola", "wolf" (Wolf-Jolion) or "otsu"; window side in pixels (0: from
    the resolution); k the method's sensitivity (0: its default)."""
    out = _q.BinarizePage(_dib(page), _whole_dpi(dpi), _method(method), window, k)
    if isinstance(page, _q.Dib):
        return out
    from ._page import from_dib

    return from_dib(out)
