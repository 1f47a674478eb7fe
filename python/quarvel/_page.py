"""Pages on the Python side: the Page array type and the conversions that
every operation runs its page through.

A page is a NumPy array: bool H x W (black-and-white, True is white, as in
Pillow's mode "1"), uint8 H x W (gray), uint8 H x W x 3 (RGB, the channel
order of Pillow and scikit-image) or uint8 H x W x 4 (RGBA). Results are
``Page`` arrays: plain ndarrays with a ``dpi`` attribute, an ``(x, y)`` pair
of dots per inch or None. A ``quarvel.Dib`` (the library's own packed form)
is accepted everywhere too; an operation given a Dib returns a Dib, with no
conversion at all. Pillow images are accepted and converted once.
"""
from __future__ import annotations

import numpy as np

from . import _quarvel


class Page(np.ndarray):
    """A page array with its resolution: ``page.dpi`` is ``(x, y)`` or None."""

    dpi: tuple[float, float] | None

    def __array_finalize__(self, obj):
        self.dpi = getattr(obj, "dpi", None)

    # Pickles (as Dask sends pages) keep the resolution.
    def __reduce__(self):
        rebuild, args, state = super().__reduce__()
        return rebuild, args, (state, self.dpi)

    def __setstate__(self, state):
        array_state, self.dpi = state
        super().__setstate__(array_state)


def _dpi_pair(dpi):
    if dpi is None:
        return None
    if np.ndim(dpi) == 0:
        return (float(dpi), float(dpi))
    x, y = dpi
    return (float(x), float(y))


def as_page(array, dpi=None) -> Page:
    """The array as a Page (no copy), with ``dpi`` (a number or an (x, y)
    pair) or, when None, the array's own ``dpi`` attribute."""
    if _is_pil(array):
        return from_pil(array) if dpi is None else as_page(from_pil(array), dpi)
    page = np.asarray(array).view(Page)
    page.dpi = _dpi_pair(dpi if dpi is not None else getattr(array, "dpi", None))
    return page


def to_dib(page, dpi=None) -> _quarvel.Dib:
    """The page in the library's packed form (one copy; a Dib is returned as is)."""
    if isinstance(page, _quarvel.Dib):
        return page
    if _is_pil(page):
        page = from_pil(page)
    pair = _dpi_pair(dpi if dpi is not None else getattr(page, "dpi", None)) or (0.0, 0.0)
    return _quarvel.Dib.from_array(np.asarray(page), *pair)


def from_dib(dib: _quarvel.Dib) -> Page:
    page = dib.to_array().view(Page)
    page.dpi = dib.dpi
    return page


def _is_pil(obj) -> bool:
    return type(obj).__module__.startswith("PIL.")


def from_pil(image) -> Page:
    """A Pillow image as a page: mode "1" as bool, "L" as gray, "RGB" and
    "RGBA" as they are; other modes are converted to "RGB" (or "L" when the
    image has no colour, as for "I;16" or a gray palette)."""
    mode = image.mode
    if mode not in ("1", "L", "RGB", "RGBA"):
        if mode == "P" and image.palette is not None:
            colours = np.frombuffer(image.palette.tobytes(), np.uint8)
            rgb = image.palette.mode == "RGB" and len(colours) % 3 == 0
            gray = rgb and (colours.reshape(-1, 3) == colours.reshape(-1, 3)[:, :1]).all()
            image = image.convert("L" if gray else "RGBA" if "transparency" in image.info else "RGB")
        elif mode in ("LA", "PA", "RGBa", "La"):
            image = image.convert("RGBA")
        elif mode in ("I", "I;16", "I;16B", "I;16L", "F"):
            image = image.convert("L")
        else:
            image = image.convert("RGB")
    page = np.asarray(image).view(Page)
    dpi = image.info.get("dpi")
    page.dpi = _dpi_pair(dpi) if dpi and min(dpi) > 0 else None
    return page


def to_pil(page):
    """The page as a Pillow image (mode "1", "L", "RGB" or "RGBA"), its
    resolution in ``info["dpi"]``."""
    from PIL import Image

    if isinstance(page, _quarvel.Dib):
        page = from_dib(page)
    array = np.asarray(page)
    image = Image.fromarray(np.ascontiguousarray(array))
    dpi = getattr(page, "dpi", None)
    if dpi:
        image.info["dpi"] = tuple(dpi)
    return image
