"""Batches: one pipeline over many files, on local threads or on a
dask.distributed cluster.

``run(pipeline, inputs, out_dir, client=None)`` makes one task per input
file. A task reads the file, applies the steps to every page, and writes
``out_dir/<stem><ext>`` itself, exactly as ``quarvel run -j 1`` names and
writes it: the input's extension (JPEG inputs and unknown extensions as
.png) or ``format``; a multi-page result in a single-page format as
``<stem>-1<ext>``, ``<stem>-2<ext>``...; a page refused by a step fails
its whole file, which is then not written (never a file with a page
missing, so a book's pages cannot shift). Outputs go
to a temporary name beside the target and are renamed into place, so a task
that dies leaves no partial file under the final name; when a Dask worker
dies, the scheduler runs its tasks again on another worker and they rewrite
the same bytes. Temporary files left by dead workers are removed at the end.

Without a client, files run on ``jobs`` threads of this process (the
library releases the interpreter lock). With a Client, tasks run on its
workers, which must be able to import quarvel and see the paths.
"""
from __future__ import annotations

import glob
import os
import time
from concurrent.futures import ThreadPoolExecutor
from dataclasses import dataclass, field
from typing import Iterable, List, Optional, Sequence, Tuple, Union

from . import _quarvel as _q
from .pipeline import OperationError, Step, apply, parse

_MULTI_PAGE = {".tif", ".tiff"}
_KNOWN = {".bmp", ".dib", ".png", ".tif", ".tiff", ".jpg", ".jpeg", ".pbm", ".pgm", ".ppm", ".pnm"}


def output_path(out_dir: str, input_path: str, format: Optional[str] = None) -> str:
    """Where the result of ``input_path`` goes, as ``quarvel run`` names it."""
    stem, ext = os.path.splitext(os.path.basename(input_path))
    if format:
        ext = "." + format
    known = ext.lower() in _KNOWN
    if not known or (not format and ext.lower() in (".jpg", ".jpeg")):
        ext = ".png"
    return os.path.join(out_dir, stem + ext)


@dataclass
class FileResult:
    """What one task did with one file."""

    file: str
    pages: int = 0                      # pages read
    done: int = 0                       # pages through every step
    failed: List[Tuple[int, str]] = field(default_factory=list)  # (page, reason); page 0: the whole file
    measures: List[Tuple[int, str, object]] = field(default_factory=list)  # (page, step, value)
    written: List[str] = field(default_factory=list)
    unreadable: Optional[str] = None    # why the file could not be read


@dataclass
class Summary:
    """A batch's outcome, files in input order."""

    files: List[FileResult]
    seconds: float

    @property
    def pages(self) -> int:
        return sum(f.pages for f in self.files)

    @property
    def done(self) -> int:
        return sum(f.done for f in self.files)

    @property
    def failed(self) -> List[Tuple[str, int, str]]:
        """(file, page, reason) of every page that failed; page 0 for a file not read or not written."""
        out = [(f.file, 0, f.unreadable) for f in self.files if f.unreadable]
        out += [(f.file, p, why) for f in self.files for p, why in f.failed]
        return out

    @property
    def written(self) -> List[str]:
        return [w for f in self.files for w in f.written]

    @property
    def ok(self) -> bool:
        return not self.failed


def process_file(steps: Sequence[Step], path: str, out_dir: str, format: Optional[str] = None) -> FileResult:
    """One task: every page of one file through the steps, the result written."""
    result = FileResult(path)
    try:
        pages = _q.read(path)
    except _q.FormatError as e:
        result.unreadable = str(e)
        return result
    result.pages = len(pages)
    outputs = []
    for index, page in enumerate(pages, 1):
        measures: list = []
        try:
            outputs.append(apply(steps, page, measures))
            result.done += 1
        except OperationError as e:
            result.failed.append((index, str(e)))
        result.measures += [(index, name, value) for name, value in measures]
    if result.failed or not outputs:
        return result
    out = output_path(out_dir, path, format)
    stem, ext = os.path.splitext(out)
    try:
        if len(outputs) > 1 and ext.lower() not in _MULTI_PAGE:
            for i, page in enumerate(outputs, 1):
                _q.write(f"{stem}-{i}{ext}", [page], 90)
                result.written.append(f"{stem}-{i}{ext}")
        else:
            _q.write(out, outputs, 90)
            result.written.append(out)
    except _q.FormatError as e:
        result.failed.append((0, str(e)))
        result.done = 0
    return result


def run(pipeline: Union[str, Sequence[Step]], inputs: Iterable[str], out_dir: str, client=None,
        format: Optional[str] = None, jobs: int = 1) -> Summary:
    """Applies ``pipeline`` (text as for ``quarvel run``, or parsed steps) to every page of every
    input file and writes the results into ``out_dir``; returns the Summary. ``client``: a
    dask.distributed Client to run the tasks on (one task per file); without one, ``jobs``
    threads of this process."""
    started = time.monotonic()
    steps = parse(pipeline) if isinstance(pipeline, str) else list(pipeline)
    files = [os.path.abspath(os.fspath(p)) for p in inputs]
    out_dir = os.path.abspath(os.fspath(out_dir))
    if format is not None:
        format = format.lstrip(".").lower()
        if "." + format not in _KNOWN:
            raise ValueError(f"unknown format '{format}'")
    os.makedirs(out_dir, exist_ok=True)
    if client is not None:
        futures = client.map(process_file, [steps] * len(files), files, out_dir=out_dir, format=format, pure=False)
        results = [_outcome(future, f) for future, f in zip(futures, files)]
    else:
        with ThreadPoolExecutor(max(1, int(jobs))) as pool:
            results = list(pool.map(lambda f: process_file(steps, f, out_dir, format), files))
    _remove_leftovers(out_dir, files, format)
    return Summary(results, time.monotonic() - started)


def _outcome(future, path: str) -> FileResult:
    # A task the scheduler gave up on (its workers kept dying) is a failed
    # file in the summary, not the end of the batch.
    try:
        return future.result()
    except Exception as e:  # noqa: BLE001 - any task error is reported with the file
        return FileResult(path, failed=[(0, f"{path}: task failed ({type(e).__name__}: {e})")])


def _remove_leftovers(out_dir: str, files: List[str], format: Optional[str]) -> None:
    # A writer killed between creating its temporary file and renaming it
    # leaves NAME.tmp-PID-N beside the target.
    for f in files:
        stem, ext = (glob.escape(part) for part in os.path.splitext(output_path(out_dir, f, format)))
        for pattern in (f"{stem}{ext}.tmp-*", f"{stem}-*{ext}.tmp-*"):
            for leftover in glob.glob(pattern):
                try:
                    os.remove(leftover)
                except OSError:
                    pass
