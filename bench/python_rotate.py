"""The cost of the Python binding: quarvel.rotate on an A4 300-dpi array
beside the library call on the same page already in packed form (the C
call, through the native half with no conversion) and one copy of the page.
The binding's budget is 1.2 x the C call plus one copy, in wall-clock time
(best of the runs); the CPU time of the calling thread is shown beside it
(the library's OpenCV kernels also run on other threads). On a busy machine
compare instruction counts instead, e.g. valgrind --tool=callgrind on one
call each way.

    PYTHONPATH=build/python python3 bench/python_rotate.py [runs]
"""
import sys
import time

import numpy as np

import quarvel
from quarvel import _quarvel

RUNS = int(sys.argv[1]) if len(sys.argv) > 1 else 9


def timings(*fns):
    """Best wall-clock and best CPU milliseconds of this thread for each, the
    calls interleaved so a busy machine slows all of them alike (CPU time is
    the steadier figure on a shared machine)."""
    wall, cpu = [[] for _ in fns], [[] for _ in fns]
    for _ in range(RUNS):
        for w, c, fn in zip(wall, cpu, fns):
            start, start_cpu = time.perf_counter(), time.thread_time()
            fn()
            w.append(time.perf_counter() - start)
            c.append(time.thread_time() - start_cpu)
    return [(1000 * min(w), 1000 * min(c)) for w, c in zip(wall, cpu)]


def main():
    rng = np.random.default_rng(0)
    ok = True
    for kind, shape in (("gray", (3508, 2480)), ("rgb", (3508, 2480, 3)), ("bitonal", (3508, 2480))):
        page = rng.integers(0, 256, shape, dtype=np.uint8)
        if kind == "bitonal":
            page = page > 40
        dib = quarvel.to_dib(page)
        (c, cm), (py, pym), (copy, _) = timings(lambda: _quarvel.Rotate(dib, 2.5, -1, -1, 1),
                                                 lambda: quarvel.rotate(page, angle=2.5, interpolate=True),
                                                 lambda: page.copy())
        budget = 1.2 * c + copy
        ok &= py <= budget
        print(f"{kind:8s} wall (cpu of this thread) ms: C call {c:6.1f} ({cm:5.1f})  binding {py:6.1f} ({pym:5.1f})  "
              f"copy {copy:4.1f}  budget {budget:6.1f}  binding/C {py / c:4.2f}  {'ok' if py <= budget else 'OVER'}")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
