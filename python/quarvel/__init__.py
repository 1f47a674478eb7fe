"""Quarvel for Python: document-image operations for scanned pages.

Pages are NumPy arrays -- bool H x W for black-and-white pages (True is
white, as in Pillow's mode "1"), uint8 H x W gray, uint8 H x W x 3 RGB
(Pillow's and scikit-image's channel order), uint8 H x W x 4 RGBA -- or
Pillow images, or ``Dib`` objects (the library's own packed form, kept
between calls without conversion). Results are ``Page`` arrays carrying
``dpi``. Every call releases the interpreter lock while the library works.

    import quarvel
    pages = quarvel.read("scan.tif")
    straight = quarvel.rotate(pages[0], angle=-quarvel.get_obliquity(pages[0]))
    quarvel.write("out.png", quarvel.clean(straight))

Batches of files, locally or on a Dask cluster: ``quarvel.batch.run``.
"""
from ._quarvel import Dib, FormatError
from ._ops import *  # noqa: F401,F403
from ._ops import OPERATIONS, MEASUREMENTS
from ._scan import BINARIZE_METHODS, binarize, clean, deskew, detect
from ._files import read, read_dibs, write

__version__ = "0.1.0"

from typing import TYPE_CHECKING

if TYPE_CHECKING:  # what __getattr__ below provides on first use
    from . import batch, pipeline
    from ._page import Page, as_page, from_dib, from_pil, to_dib, to_pil

_LAZY = {"Page", "as_page", "to_dib", "from_dib", "from_pil", "to_pil"}


def __getattr__(name):
    # NumPy is imported on first use, so the package imports without it.
    if name in _LAZY:
        from . import _page

        return getattr(_page, name)
    if name in ("batch", "pipeline"):
        import importlib

        return importlib.import_module(f".{name}", __name__)
    raise AttributeError(f"module 'quarvel' has no attribute {name!r}")


def __dir__():
    return sorted(set(globals()) | _LAZY | {"batch", "pipeline"})
