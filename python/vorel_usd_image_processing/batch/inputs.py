"""Finding the inputs and planning an output for each."""

from __future__ import annotations

import argparse
import glob
import itertools
import os
import pathlib
import sys
from typing import Iterator

import vorel_usd_image_processing as vip

from .assets import Asset, Planner, is_asset
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


def plan(args: argparse.Namespace) -> tuple[list[Job], list[Asset], Planner]:
    """A job per file input and per texture of the asset inputs; exits with status 2 when two
    file inputs would land on one output or an asset can't be read by this build."""
    attributes: tuple[tuple[str, int], ...] = ()
    if args.untrusted:
        attributes = (("limits:imagesize_MB", args.max_image_mb),
                      ("limits:channels", args.max_channels), ("try_all_readers", 0))
    if not args.scheduler:
        # The local workers share this machine's cores with OpenImageIO's threads in each.
        attributes += (("threads", max(1, (os.cpu_count() or 1) // args.workers)),)
    planner = Planner(args, attributes)
    found = list(find_inputs(args.inputs))
    assets = [(given, folder) for given, folder in found if is_asset(given)]
    if assets and not vip.usdAssetsAvailable:
        print(f"batch: {assets[0][0]} is a USD asset, and USD assets need a build of "
              "vorel_usd_image_processing against OpenUSD with UsdUtils; this one was built "
              "against the stand-in (or an OpenUSD without UsdUtils)", file=sys.stderr)
        raise SystemExit(2)
    # Assets first: a texture given as a file too is then the same job.
    planned = [planner.asset(given, folder) for given, folder in assets]
    for given, folder in found:
        if not is_asset(given):
            planner.file(given, folder)
    return list(planner.jobs.values()), planned, planner
