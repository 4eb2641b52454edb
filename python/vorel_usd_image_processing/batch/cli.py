"""The command line, the progress and the report."""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import sys
import time
from typing import Any, Iterator

from . import __doc__ as _package_doc
from .inputs import plan
from .job import Job, Result
from .operations import OPERATIONS, parse_op


class Progress:
    """A bar on a terminal, a line every few seconds otherwise, nothing with -q."""

    def __init__(self, total: int, quiet: bool) -> None:
        self.total, self.quiet, self.done, self.failed = total, quiet, 0, 0
        self.started = self.last_line = time.monotonic()
        self.bar: Any = None
        if not quiet and sys.stderr.isatty():
            # Debian has no stubs for tqdm.
            from tqdm import tqdm  # type: ignore[import]

            self.bar = tqdm(total=total, unit="file", dynamic_ncols=True)

    def add(self, status: str) -> None:
        self.done += 1
        self.failed += status not in ("converted", "skipped")
        now = time.monotonic()
        if self.bar is not None:
            self.bar.set_postfix(failed=self.failed, refresh=False)
            self.bar.update()
        elif not self.quiet and (now - self.last_line >= 5 or self.done == self.total):
            rate = self.done / max(now - self.started, 1e-9)
            left = (self.total - self.done) / rate if rate else 0
            print(f"{self.done}/{self.total} done, {self.failed} failed, {rate:.1f} files/s, "
                  f"{left:.0f} s left", file=sys.stderr, flush=True)
            self.last_line = now

    def close(self) -> None:
        if self.bar is not None:
            self.bar.close()


def results(jobs: list[Job], args: argparse.Namespace) -> Iterator[Result]:
    """Skipped ones first, then each converted file's result as it arrives from the cluster."""
    pending = []
    for job in jobs:
        if args.skip_existing and os.path.exists(job.output):
            yield job.result("skipped", "the output exists")
        else:
            pending.append(job)
    if pending:
        from .converters import run_on_cluster

        yield from run_on_cluster(pending, args.workers, args.scheduler)


def parse_args(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python3 -m vorel_usd_image_processing.batch",
        description=(_package_doc or "").splitlines()[0])
    parser.add_argument("inputs", nargs="*", metavar="INPUT",
                        help="files, folders (every file in them), globs or @LIST files of paths")
    parser.add_argument("-o", "--output", type=pathlib.Path, help="the folder to write into")
    parser.add_argument("--ext", help="the extension to convert to, such as .png or .exr")
    parser.add_argument("--op", action="append", default=[], type=parse_op, metavar="NAME=ARGS",
                        help=f"an operation, applied in order: {', '.join(OPERATIONS)}")
    parser.add_argument("--png-compression", type=int, default=-1, metavar="N")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, default=os.cpu_count() or 1,
                       help="worker processes of a local cluster (default: the CPU count)")
    where.add_argument("--scheduler", metavar="tcp://HOST:PORT", help="an existing Dask cluster")
    parser.add_argument("--report", type=pathlib.Path,
                        help="JSON Lines report (default: OUTDIR/batch-report.jsonl)")
    parser.add_argument("--skip-existing", action="store_true",
                        help="report outputs that exist as skipped and leave them")
    parser.add_argument("--untrusted", action="store_true",
                        help="set the limits below and try_all_readers 0 in every converter")
    parser.add_argument("--max-image-mb", type=int, default=2048, metavar="MB")
    parser.add_argument("--max-channels", type=int, default=64, metavar="N")
    parser.add_argument("--timeout", type=float, metavar="SECONDS", help="per file")
    parser.add_argument("-q", "--quiet", action="store_true", help="no progress")
    args = parser.parse_args(argv)
    if not (args.inputs and args.output and args.ext):
        parser.error("INPUT, -o OUTDIR and --ext are required")
    return args


def main(argv: list[str] | None = None) -> int:
    args = parse_args(argv)
    jobs = plan(args)
    report = args.report or args.output / "batch-report.jsonl"
    report.parent.mkdir(parents=True, exist_ok=True)
    progress = Progress(len(jobs), args.quiet)
    all_done = True
    with report.open("w") as lines:
        for result in results(jobs, args):
            lines.write(json.dumps(result) + "\n")
            lines.flush()
            progress.add(result["status"])
            all_done &= result["status"] in ("converted", "skipped")
    progress.close()
    return 0 if all_done else 1
