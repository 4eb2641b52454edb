"""Finding the inputs and planning an output for each."""

from __future__ import annotations

import argparse
import glob
import itertools
import os
import pathlib
import sys
from typing import Iterator

from .job import Job


def find_inputs(inputs: list[str]) -> Iterator[tuple[str, pathlib.Path]]:
    """(input as given or found, the folder its output path is relative to) for each input."""
    for given in inputs:
        if given.startswith("@"):
            listed = pathlib.Path(given[1:]).read_text().splitlines()
            yield from find_inputs([line.strip() for line in listed if line.strip()])
        elif os.path.isdir(given):
            for path in sorted(pathlib.Path(given).rglob("*")):
                if path.is_file():
                    yield str(path), pathlib.Path(given)
        elif glob.has_magic(given):
            # Outputs keep the path below the glob's fixed part: in/**/*.exr finds in/a/b.exr,
            # whose output is OUTDIR/a/b.EXT.
            parts = pathlib.PurePath(given).parts[:-1]
            fixed = pathlib.Path(*itertools.takewhile(lambda part: not glob.has_magic(part), parts))
            for found in sorted(glob.glob(given, recursive=True)):
                if os.path.isfile(found):
                    yield found, fixed
        else:
            yield given, pathlib.Path(given).parent


def plan(args: argparse.Namespace) -> list[Job]:
    """A job per input; exits with status 2 when two inputs would land on one output."""
    attributes: tuple[tuple[str, int], ...] = ()
    if args.untrusted:
        attributes = (("limits:imagesize_MB", args.max_image_mb),
                      ("limits:channels", args.max_channels), ("try_all_readers", 0))
    if not args.scheduler:
        # The local workers share this machine's cores with OpenImageIO's threads in each.
        attributes += (("threads", max(1, (os.cpu_count() or 1) // args.workers)),)
    jobs: list[Job] = []
    claimed: dict[str, str] = {}
    for given, folder in find_inputs(args.inputs):
        relative = pathlib.Path(given).relative_to(folder)
        output = str((args.output / relative).with_suffix(args.ext).absolute())
        if output in claimed:
            sys.exit(f"batch: {claimed[output]} and {given} would both be written to {output}")
        claimed[output] = given
        jobs.append(Job(given, str(pathlib.Path(given).absolute()), output, tuple(args.op),
                        args.png_compression, attributes, args.timeout, args.texture))
    return jobs
