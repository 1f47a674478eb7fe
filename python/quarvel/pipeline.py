"""Pipelines in the syntax of ``quarvel run``: steps separated by ``|``, each
an operation name (kebab-case such as ``remove-border1``, or the export name
``RemoveBorder1``, in any case) and ``--option value`` pairs, e.g.
``"remove-border1 --threshold 100 | remove-hole --left | denoise --size 2"``.

The step table is the signatures of quarvel's functions: option
``--min-holes`` is keyword ``min_holes`` (``--with`` is ``with_``), and
absent options take the functions' defaults, which are the tool's. Words are
split as a shell would for plain words and quotes; ``--name=value`` works; a
bool option alone means 1; ``--no-NAME`` turns a bool option off. Options
naming a second page (``--with``, ``--mark``, ``--gray``, ``--map``,
``--base``) take a file, whose first page is read where the step runs.
Besides the 44 operations, ``deskew``, ``clean`` and ``binarize`` of the
real-scan layer are steps too.
"""
from __future__ import annotations

import inspect
import math
import os
import re
import threading
from dataclasses import dataclass, field
from typing import Any, Callable, Dict, List, Optional, Tuple

from . import _ops, _scan
from . import _quarvel as _q
from ._files import read_dibs


class UsageError(ValueError):
    """A pipeline that cannot be parsed: unknown operation or option, bad value."""


class OperationError(ValueError):
    """A step refused the page."""


def kebab_case(export_name: str) -> str:
    """``RemoveBorder1`` -> ``remove-border1``, ``RemoveBorder_GPY`` -> ``remove-border-gpy``."""
    out = []
    for i, c in enumerate(export_name):
        if c == "_":
            out.append("-")
            continue
        if c.isupper() and i > 0 and (export_name[i - 1].islower() or export_name[i - 1].isdigit()):
            out.append("-")
        out.append(c.lower())
    return "".join(out)


_SCAN_STEPS = {"deskew": _scan.deskew, "clean": _scan.clean, "binarize": _scan.binarize}


def _table() -> Dict[str, Tuple[str, Callable, bool]]:
    table = {}
    for export, fn in _ops.OPERATIONS.items():
        entry = (kebab_case(export), fn, export not in _ops.MEASUREMENTS)
        table[entry[0]] = entry
        table[export.lower()] = entry
    for name, fn in _SCAN_STEPS.items():
        table[name] = (name, fn, True)
    return table


OPERATION_TABLE = _table()


def find_operation(name: str):
    """(kebab name, function, is_image) for a step name, or None."""
    return OPERATION_TABLE.get(name.lower())


def split_words(text: str) -> List[str]:
    words, cur, any_, quote = [], [], False, None
    for c in text:
        if quote:
            if c == quote:
                quote = None
            else:
                cur.append(c)
        elif c in "\"'":
            quote, any_ = c, True
        elif c.isspace():
            if any_ or cur:
                words.append("".join(cur))
                cur, any_ = [], False
        else:
            cur.append(c)
    if quote:
        raise UsageError(f"unbalanced quote in: {text}")
    if any_ or cur:
        words.append("".join(cur))
    return words


_INT = re.compile(r"\s*[+-]?\d+")
_RECT = re.compile(r"\s*([+-]?\d+),\s*([+-]?\d+),\s*([+-]?\d+),\s*([+-]?\d+)")


def _kind(param: inspect.Parameter) -> str:
    text = str(param.annotation)
    if "PageLike" in text:
        return "page"
    for kind in ("Rect", "bool", "int", "float", "str"):
        if kind in text:
            return kind
    return "str"


def _convert(op: str, name: str, kind: str, text: str):
    def bad(what):
        return UsageError(f"--{name}: expected {what}, got '{text}'")

    if kind == "int":
        if not _INT.fullmatch(text) or not -2**31 <= int(text) < 2**31:
            raise bad("a whole number")
        return int(text)
    if kind == "float":
        if text != text.rstrip() or "_" in text or not text.strip():
            raise bad("a number")
        try:
            return float(text)
        except ValueError:
            try:
                return float.fromhex(text)
            except ValueError:
                raise bad("a number") from None
    if kind == "bool":
        t = text.lower()
        if t in ("1", "true", "yes", "on"):
            return True
        if t in ("0", "false", "no", "off"):
            return False
        raise UsageError(f"--{name}: expected 1 or 0, got '{t}'")
    if kind == "Rect":
        m = _RECT.match(text)
        if not m or m.end() != len(text):
            raise bad("left,top,right,bottom")
        return tuple(int(v) for v in m.groups())
    return text


@dataclass
class Step:
    """One parsed step: the function, its keyword arguments, and the files
    that give its second pages (read once per process, where it runs)."""

    name: str
    function: Callable
    image: bool
    kwargs: Dict[str, Any] = field(default_factory=dict)
    files: Dict[str, str] = field(default_factory=dict)
    _pages: Optional[Dict[str, Any]] = field(default=None, repr=False, compare=False)

    def __getstate__(self):
        state = dict(self.__dict__)
        state["_pages"] = None
        return state

    def arguments(self) -> Dict[str, Any]:
        if self._pages is None:
            with _LOADING:
                if self._pages is None:
                    pages = {}
                    for kw, path in self.files.items():
                        try:
                            pages[kw] = read_dibs(path)[0]
                        except (OSError, _q.FormatError) as e:
                            raise OperationError(f"{self.name}: --{kw.rstrip('_')}: {e}") from None
                    self._pages = pages
        return {**self.kwargs, **self._pages}


_LOADING = threading.Lock()


def parse(text: str) -> List[Step]:
    """The steps of a pipeline; raises UsageError naming the fault."""
    steps = []
    for part in text.split("|"):
        words = split_words(part)
        if not words:
            raise UsageError(f"empty step in pipeline: {text}")
        found = find_operation(words[0])
        if found is None:
            raise UsageError(f"unknown operation '{words[0]}' (see: quarvel list)")
        name, fn, image = found
        params = {p.name.rstrip("_").replace("_", "-"): p for p in list(inspect.signature(fn).parameters.values())[1:]
                  if p.name != "report"}
        given: Dict[str, str] = {}
        i = 0
        while i < len(words[1:]):
            w = words[1 + i]
            if len(w) < 3 or not w.startswith("--"):
                raise UsageError(f"{name}: unexpected '{w}' in pipeline")
            opt, eq, value = w[2:].partition("=")
            negated = opt.startswith("no-") and opt[3:] in params and _kind(params[opt[3:]]) == "bool" and not eq
            if negated:
                opt, value = opt[3:], "0"
            elif opt not in params:
                raise UsageError(f"{name}: unknown option --{opt} (see: quarvel help {name})")
            elif not eq:
                nxt = words[2 + i] if 2 + i < len(words) else None
                if _kind(params[opt]) == "bool" and (nxt is None or nxt.startswith("--") or nxt not in ("0", "1")):
                    value = "1"
                else:
                    if nxt is None:
                        raise UsageError(f"{name}: --{opt} needs a value")
                    value = nxt
                    i += 1
            given[opt] = value
            i += 1
        step = Step(name, fn, image)
        for opt, p in params.items():
            kind = _kind(p)
            if opt not in given:
                if p.default is inspect.Parameter.empty:
                    raise UsageError(f"{name}: --{opt} is required")
                continue
            if kind == "page":
                if given[opt]:
                    step.files[p.name] = os.path.abspath(given[opt])
            elif p.name == "dpi" and "Optional" in str(p.annotation):
                step.kwargs[p.name] = _convert(name, opt, "float", given[opt])
            else:
                step.kwargs[p.name] = _convert(name, opt, kind, given[opt])
        steps.append(step)
    return steps


def format_measure(value) -> Tuple[str, str]:
    """A measurement as the tool prints it: (text, JSON value)."""
    if value is None:
        return "no frame found", "null"
    if isinstance(value, tuple):
        h, v = (_g(x) for x in value)
        return f"horizontal {h} vertical {v}", f'{{"horizontal": {h}, "vertical": {v}}}'
    return _g(value), _g(value)


def _g(v) -> str:
    v = float(v)
    if math.isnan(v):
        return "nan" if math.copysign(1, v) > 0 else "-nan"
    return "%.6g" % v


def apply(steps: List[Step], page: _q.Dib, measures: Optional[list] = None) -> _q.Dib:
    """Runs the steps on a page: image steps replace it, measurement steps
    append (name, value) to ``measures`` and pass the page on. Raises
    OperationError naming the step that refused the page."""
    for step in steps:
        if step.image:
            try:
                page = step.function(page, **step.arguments())
            except ValueError as e:
                if isinstance(e, OperationError):
                    raise
                raise OperationError(f"{step.name} refused the page") from e
        elif measures is not None:
            try:
                value = step.function(page, **step.arguments())
            except ValueError:
                value = None
            measures.append((step.name, value))
    return page
