"""Pipelines and batches: the step parser, a local batch and `python -m
quarvel run` byte for byte against `quarvel run -j 1`, threads, and a
two-worker Dask cluster that loses a worker midway."""
import filecmp
import os
import signal
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import quarvel
from quarvel import batch, pipeline

PIPE = ("remove-border1 --threshold 100 | get-obliquity | rotate --angle 1.5 --interpolate 2"
        " | convert-mode --mode 8 | denoise --size 2 | is-blank-page")


@pytest.mark.parametrize("text, expected", [
    ("rotate --angle 2.5", [("rotate", {"angle": 2.5})]),
    ("RemoveBorder1 --threshold=90 | REMOVE-HOLE --left --top 0 --right 1 --density 0.25",
     [("remove-border1", {"threshold": 90}), ("remove-hole", {"left": True, "top": False, "right": True, "density": 0.25})]),
    ("fill --rect '1, 2,30,40' --value -3", [("fill", {"rect": (1, 2, 30, 40), "value": -3})]),
    ("clean --no-crop --binarize --method otsu --dpi 300", [("clean", {"crop": False, "binarize": True, "method": "otsu", "dpi": 300.0})]),
])
def test_parse_accepts_the_tools_syntax(text, expected):
    assert [(s.name, s.kwargs) for s in pipeline.parse(text)] == expected


@pytest.mark.parametrize("text, message", [
    ("rotate", "rotate: --angle is required"),
    ("mirror | | flip", "empty step"),
    ("spin --angle 3", "unknown operation 'spin'"),
    ("rotate --angle 3 --speed 2", "rotate: unknown option --speed"),
    ("denoise --size 2.5", "--size: expected a whole number, got '2.5'"),
    ("denoise --size 4294967296", "expected a whole number"),
    ("rotate --angle x", "--angle: expected a number"),
    ("fill --rect 1,2,3", "--rect: expected left,top,right,bottom"),
    ("remove-hole --left maybe", "unexpected 'maybe'"),
    ("mirror 'half", "unbalanced quote"),
    ("denoise --size", "--size needs a value"),
])
def test_parse_refuses_with_the_reason(text, message):
    with pytest.raises(pipeline.UsageError, match=message):
        pipeline.parse(text)


def _same_tree(a, b):
    names = sorted(os.listdir(a))
    assert names == sorted(os.listdir(b))
    assert filecmp.cmpfiles(a, b, names, shallow=False)[0] == names


@pytest.fixture(scope="module")
def tool_run(tool, batch_files, tmp_path_factory):
    """`quarvel run -j 1` on the batch: output folder and printed lines."""
    out = tmp_path_factory.mktemp("tool")
    done = tool("run", PIPE, "-o", out, "-j", "1", *batch_files, "/nonexistent.png", check=False)
    assert done.returncode == 1
    return out, done


def test_local_batch_and_cli_match_the_tool(tool_run, batch_files, tmp_path):
    out, done = tool_run
    summary = batch.run(PIPE, batch_files + ["/nonexistent.png"], tmp_path / "lib", jobs=2)
    _same_tree(out, tmp_path / "lib")
    assert (summary.pages, summary.done, len(summary.written)) == (8, 8, 7)
    assert [f[0] for f in summary.failed] == ["/nonexistent.png"]
    assert [(p, name) for p, name, _ in summary.files[-2].measures] == [
        (1, "get-obliquity"), (1, "is-blank-page"), (2, "get-obliquity"), (2, "is-blank-page")]
    cli = subprocess.run([sys.executable, "-m", "quarvel", "run", PIPE, "-o", tmp_path / "cli", *batch_files,
                          "/nonexistent.png"], capture_output=True, text=True)
    assert cli.returncode == 1 and cli.stdout == done.stdout
    assert cli.stderr.splitlines()[:-1] == done.stderr.splitlines()[:-1]
    _same_tree(out, tmp_path / "cli")


def test_threads_run_in_parallel_and_agree():
    page = np.random.default_rng(1).integers(0, 256, (2400, 1800), dtype=np.uint8)
    expected = quarvel.rotate(page, angle=3.0, interpolate=2)
    started = time.perf_counter()
    quarvel.rotate(page, angle=3.0, interpolate=2)
    one = time.perf_counter() - started
    results, ticks = [], []

    def work():
        results.extend(quarvel.rotate(page, angle=3.0, interpolate=2) for _ in range(3))

    threads = [threading.Thread(target=work) for _ in range(2)]
    for t in threads:
        t.start()
    while any(t.is_alive() for t in threads):
        ticks.append(time.perf_counter())
        time.sleep(0.001)
    assert all(np.array_equal(r, expected) for r in results)
    # The interpreter lock is free during each call: this thread kept ticking.
    assert max(np.diff(ticks), default=0) < 0.5 * one


def test_cluster_batch_survives_a_lost_worker(tool_run, batch_files, tmp_path):
    distributed = pytest.importorskip("distributed")
    out, _ = tool_run
    with distributed.LocalCluster(n_workers=2, threads_per_worker=1, processes=True, dashboard_address=None,
                                  silence_logs=50) as cluster, distributed.Client(cluster) as client:
        pids = client.run(os.getpid)
        target, seen = tmp_path / "dask", []

        def kill_when_started():
            # Kill a worker once the first file is written: the batch is under way.
            deadline = time.monotonic() + 20
            while time.monotonic() < deadline and not (target.exists() and os.listdir(target)):
                time.sleep(0.01)
            seen.append(len(os.listdir(target)))
            os.kill(next(iter(pids.values())), signal.SIGKILL)

        killer = threading.Thread(target=kill_when_started)
        killer.start()
        summary = batch.run(PIPE, batch_files, target, client=client)
        killer.join()
        assert set(client.run(os.getpid).values()).isdisjoint({next(iter(pids.values()))})
    assert seen[0] < 7 and summary.ok and summary.done == 8
    _same_tree(out, target)


def test_a_refused_page_fails_its_whole_file(tmp_path):
    # A 3 x 3 gray page turned colour is refused by text-effect: the file is
    # reported with the refusing step and not written, as `quarvel run` does,
    # never written short.
    page = tmp_path / "page.pgm"
    page.write_bytes(b"P5\n3 3\n255\n" + bytes(range(0, 90, 10)))
    summary = batch.run("convert-mode --mode 24 | text-effect", [str(page)], str(tmp_path / "out"))
    assert summary.written == [] and [(p, "text-effect" in why) for _, p, why in summary.failed] == [(1, True)]
    assert not (tmp_path / "out" / "page.pgm").exists()
