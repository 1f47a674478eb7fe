#!/usr/bin/env python3
"""Clean a folder of scans with quarvel, from Python.

    python3 examples/clean_folder.py SCANS OUT                 # this machine, a thread per core
    python3 examples/clean_folder.py SCANS OUT --workers 4     # a local Dask cluster of 4 processes
    python3 examples/clean_folder.py SCANS OUT --scheduler tcp://host:8786   # a running cluster

Two ways are shown. On this machine, the pages go through the Python API
page by page on a few threads (the library releases the interpreter lock,
so they run in parallel): each page is measured (its report printed as a
JSON line), cleaned, and written as a TIFF per input file. On a cluster, quarvel.batch runs a pipeline in `quarvel run`
syntax as one task per file; the workers write the outputs, and a worker
that dies has its files redone elsewhere.
"""
import argparse
import json
import os
import sys
from concurrent.futures import ThreadPoolExecutor

import quarvel
from quarvel import batch

EXTENSIONS = (".png", ".tif", ".tiff", ".jpg", ".jpeg", ".bmp", ".pbm", ".pgm", ".ppm")
PIPELINE = "remove-border1 --threshold 100 | remove-hole --left --top | denoise --size 2"


def clean_file(path, out_dir, drop_blank):
    """Every page of one file: measured, cleaned (blank pages dropped if asked), reports kept."""
    kept, reports = [], []
    for index, page in enumerate(quarvel.read(path), 1):
        report = quarvel.detect(page, file=path, index=index)
        reports.append(report)
        if not (drop_blank and report["blank"]["blank"]):
            kept.append(quarvel.clean(page, orient=True))
    name = os.path.splitext(os.path.basename(path))[0]
    if kept:
        quarvel.write(os.path.join(out_dir, name + ".tif"), kept)
    return reports


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("scans")
    parser.add_argument("out")
    parser.add_argument("--workers", type=int, default=0, help="run on a local Dask cluster of N processes")
    parser.add_argument("--scheduler", help="run on the Dask scheduler at this address")
    parser.add_argument("--pipeline", default=PIPELINE, help="steps for the cluster run (quarvel run syntax)")
    parser.add_argument("--drop-blank", action="store_true", help="leave out pages detected as blank")
    args = parser.parse_args()
    files = sorted(os.path.join(args.scans, f) for f in os.listdir(args.scans) if f.lower().endswith(EXTENSIONS))
    os.makedirs(args.out, exist_ok=True)

    if not (args.workers or args.scheduler):
        with ThreadPoolExecutor(os.cpu_count()) as pool:
            for reports in pool.map(lambda f: clean_file(f, args.out, args.drop_blank), files):
                for report in reports:
                    print(json.dumps(report))
        return 0

    from dask.distributed import Client, LocalCluster

    cluster = LocalCluster(n_workers=args.workers, threads_per_worker=1) if args.workers else None
    with Client(cluster or args.scheduler) as client:
        summary = batch.run(args.pipeline, files, args.out, client=client)
    if cluster is not None:
        cluster.close()
    for file, page, reason in summary.failed:
        print(f"{file}[{page}]: {reason}", file=sys.stderr)
    print(f"{summary.done} of {summary.pages} pages cleaned in {summary.seconds:.1f} s; "
          f"{len(summary.written)} files written", file=sys.stderr)
    return 0 if summary.ok else 1


if __name__ == "__main__":
    sys.exit(main())
