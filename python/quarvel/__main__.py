"""python -m quarvel run "OP [--arg value] | OP ..." -o DIR [-j N] [--format EXT] [--json]
                       [--no-progress] [--scheduler ADDRESS | --workers N] FILES...

The options of ``quarvel run``, with the same messages, output files and
exit codes (0 done, 1 some pages failed, 2 usage error, 3 no input could be
read), plus two ways onto Dask: ``--scheduler ADDRESS`` runs the tasks on a
running dask.distributed scheduler, ``--workers N`` on a local cluster of N
worker processes. ``-j N`` is the number of threads (of this process, or of
each local worker).
"""
from __future__ import annotations

import sys
from json import dumps

from .pipeline import UsageError, format_measure

USAGE = __doc__.split("\n\n")[0]


def _run(args) -> int:
    from . import _quarvel as _q
    from .batch import _KNOWN, run

    if not args:
        raise UsageError("run needs a pipeline")
    pipeline, out_dir, jobs, fmt, json, scheduler, workers, files = args[0], "", 1, None, False, None, 0, []
    i = 1
    while i < len(args):
        a = args[i]

        def value():
            nonlocal i
            if i + 1 >= len(args):
                raise UsageError(f"{a} needs a value")
            i += 1
            return args[i]

        if a in ("-o", "--out"):
            out_dir = value()
        elif a in ("-j", "--jobs"):
            v = value()
            jobs = int(v) if v.strip().lstrip("+-").isdigit() else 0
            if not 1 <= jobs <= 256:
                raise UsageError(f"-j: expected 1 to 256, got '{v}'")
        elif a == "--format":
            fmt = value()
        elif a == "--json":
            json = True
        elif a == "--no-progress":
            pass
        elif a == "--scheduler":
            scheduler = value()
        elif a == "--workers":
            v = value()
            workers = int(v) if v.isdigit() else 0
            if not 1 <= workers <= 256:
                raise UsageError(f"--workers: expected 1 to 256, got '{v}'")
        elif a.startswith("-") and len(a) > 1:
            raise UsageError(f"run: unknown option {a}")
        else:
            files.append(a)
        i += 1
    if not out_dir:
        raise UsageError("run: -o DIR is required")
    if not files:
        raise UsageError("run: no input files")
    if fmt is not None and "." + fmt.lower() not in _KNOWN:
        raise UsageError(f"run: unknown format '{fmt}'")
    try:
        from .pipeline import parse

        steps = parse(pipeline)
    except _q.FormatError as e:
        print(f"quarvel: {e}", file=sys.stderr)
        return 3

    client = cluster = None
    if scheduler or workers:
        from dask.distributed import Client, LocalCluster

        if scheduler:
            client = Client(scheduler)
        else:
            cluster = LocalCluster(n_workers=workers, threads_per_worker=jobs, processes=True)
            client = Client(cluster)
    try:
        summary = run(steps, files, out_dir, client=client, format=fmt, jobs=jobs)
    finally:
        if client is not None:
            client.close()
        if cluster is not None:
            cluster.close()

    # Messages in input order, as the tool prints them.
    failed = unreadable = 0
    for given, f in zip(files, summary.files):
        if f.unreadable:
            print(f"quarvel: {f.unreadable} (skipped)", file=sys.stderr)
            unreadable += 1
    for given, f in zip(files, summary.files):
        reasons = dict(f.failed)
        for page in range(1, f.pages + 1):
            where = f"{given}[{page}]" if f.pages > 1 else given
            if page in reasons:
                print(f"quarvel: {where}: {reasons[page]}; {given} not written", file=sys.stderr)
            for p, name, value in f.measures:
                if p != page:
                    continue
                text, js = format_measure(value)
                if json:
                    print(f'{{"file": {dumps(given, ensure_ascii=False)}, "page": {page}, "operation": "{name}", '
                          f'"value": {js}}}')
                else:
                    print(f"{where}: {name} {text}")
    written = pages_done = 0
    for f in summary.files:
        if 0 in dict(f.failed):
            print(f"quarvel: {dict(f.failed)[0]}", file=sys.stderr)
        if f.written:
            written += 1
            pages_done += f.done
        elif not f.unreadable:
            failed += 1
    secs = summary.seconds
    print(f"quarvel: {pages_done} pages from {len(files)} files in {secs:.1f} s "
          f"({pages_done / max(secs, 1e-6):.1f} pages/s); {written} files written, {unreadable} skipped, {failed} failed",
          file=sys.stderr)
    if unreadable == len(files):
        return 3
    return 1 if failed or unreadable else 0


def main(argv=None) -> int:
    args = list(sys.argv[1:] if argv is None else argv)
    if not args or args[0] in ("-h", "--help"):
        print(__doc__.strip(), file=sys.stdout if args else sys.stderr)
        return 0 if args else 2
    if args[0] == "--version":
        from . import __version__

        print(__version__)
        return 0
    if args[0] != "run":
        print(f"quarvel: unknown command '{args[0]}' (python -m quarvel offers: run)", file=sys.stderr)
        return 2
    try:
        return _run(args[1:])
    except UsageError as e:
        print(f"quarvel: {e}", file=sys.stderr)
        return 2


if __name__ == "__main__":
    sys.exit(main())
