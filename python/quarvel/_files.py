"""Image files through the quarvel tool's own readers and writers: BMP, PNG,
TIFF (multi-page; 1-bit pages as CCITT Group 4), JPEG and PNM. Resolution
travels between the file and the pages' ``dpi``. Writes go to a temporary
file renamed into place, so a failed write leaves nothing behind.
"""
from __future__ import annotations

import os
from typing import Iterable, List

from . import _quarvel as _q


def read_dibs(path) -> List[_q.Dib]:
    """Every page of the file in the library's packed form (no conversion)."""
    path = os.fspath(path)
    if not os.path.exists(path):
        raise FileNotFoundError(2, "No such file or directory", path)
    return _q.read(path)


def read(path) -> list:
    """Every page of the file (a TIFF may hold several) as Page arrays."""
    from ._page import from_dib

    return [from_dib(d) for d in read_dibs(path)]


def write(path, pages, quality: int = 90) -> None:
    """Writes one page or a list of pages (arrays, Pages, Pillow images or Dibs) in the format of
    the path's extension; formats other than TIFF take exactly one page. ``quality`` is JPEG's."""
    from ._ops import _dib

    if isinstance(pages, _q.Dib) or hasattr(pages, "shape") or type(pages).__module__.startswith("PIL."):
        pages = [pages]
    _q.write(os.fspath(path), [_dib(p) for p in pages], int(quality))
