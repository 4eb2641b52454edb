"""The plan: every path the batch will read and write, computed and checked as a whole before
anything is written. The rest of the batch only carries it out."""

from __future__ import annotations

import argparse
import dataclasses
import os
import pathlib
import sys
from typing import Iterator

import vorel_usd_image_processing as vip

from .assets import Asset, Planner, is_asset, outer_file, read_files
from .child import Converter
from .inputs import find_inputs
from .job import Job, Result, Settings, partial_name, partial_of
from .paths import forget_folders, lies_under, real
from .update import sidecar

LOCK = ".batch.lock"  # in the output folder: one batch at a time writes there
MOST_REFUSALS = 20  # lines printed; the rest are counted


@dataclasses.dataclass
class Plan:
    output: pathlib.Path  # the output folder
    report: pathlib.Path
    jobs: list[Job]  # of the file inputs and of the assets' textures
    assets: list[Asset]
    failed: list[Result]  # inputs that fail before anything runs
    steps: Converter  # the converter process that walked the assets, and writes them
    settings: Settings

    def writes(self) -> Iterator[tuple[str, str, str]]:
        """(path, the source it is written from, the output it belongs to) for every file the
        batch may write: outputs, and their temporaries and records."""
        for job in self.jobs:
            record = str(sidecar(job.output))
            source = f"{job.source} (as {job.usage})" if job.usage else job.source
            for path in (job.output, job.partial, record, partial_name(record)):
                yield path, source, job.output
        for asset in self.assets:
            if asset.error:
                continue
            package = {asset.output: str(pathlib.Path(asset.input).absolute())} \
                if asset.output != asset.root_layer else {}  # --usdz
            for output, source in {**{o: s for s, o in asset.outputs.items()}, **package}.items():
                yield output, source, output
                yield partial_name(output), source, output
        for special, what in ((self.report, "the report"), (self.output / LOCK, "the lock")):
            yield str(special), what, str(special)

    def reads(self) -> dict[str, str]:
        """Every file read, by its real path: inputs, and the files that assets are made of (a
        package for what lies inside it)."""
        files = [job.source for job in self.jobs] + [failed["input"] for failed in self.failed]
        for asset in self.assets:
            files.append(asset.input)
            if asset.dependencies and not asset.dependencies["error"]:
                files += read_files(asset.dependencies)
        return {real(outer_file(file)): outer_file(file) for file in files}


def make_plan(args: argparse.Namespace) -> Plan:
    """A job per file input and per texture of the asset inputs; exits with status 2 when an
    asset can't be read by this build."""
    attributes: tuple[tuple[str, int], ...] = ()
    if args.untrusted:
        attributes = (("limits:imagesize_MB", args.max_image_mb),
                      ("limits:channels", args.max_channels), ("try_all_readers", 0))
    if not args.scheduler:
        # The local workers share this machine's cores with OpenImageIO's threads in each.
        attributes += (("threads", max(1, (os.cpu_count() or 1) // args.workers)),)
    forget_folders()
    planner = Planner(args, attributes)
    never = frozenset({real(args.output)})
    found = list(find_inputs(args.inputs, never, args.untrusted))
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
    report = args.report or args.output / "batch-report.jsonl"
    return Plan(args.output, report, list(planner.jobs.values()), planned, planner.failed,
                planner.steps, planner.settings)


def check(plan: Plan) -> list[str]:
    """Why the plan can't run, a line for each path: an output that is a source or the package
    a source is read from, that lies outside the output folder, or that two sources share."""
    reads = plan.reads()
    owners: dict[str, tuple[str, str]] = {}  # real path → (source, path as planned)
    refused: dict[str, str] = {}  # by the real path of the output: its first reason only
    output = ""
    for path, source, belongs_to in plan.writes():
        if belongs_to != output:  # an output comes first, then its temporaries and record
            output, key = belongs_to, real(belongs_to)
        if key in refused:
            continue
        path, at = os.path.abspath(path), real(path)
        if at in reads:
            refused[key] = f"{path} would be written over the source {reads[at]}"
        elif source != "the report" and not lies_under(at, plan.output):
            refused[key] = f"{path}, written from {source}, lies outside the output folder " \
                           f"{plan.output}"
        elif owners.setdefault(at, (source, path))[0] != source:
            refused[key] = f"{owners[at][0]} and {source} would both be written to {path}"
    return list(refused.values())


def refuse(lines: list[str]) -> int:
    """Prints why the plan can't run; the exit status of a refused plan."""
    for line in lines[:MOST_REFUSALS]:
        print(f"batch: refused: {line}", file=sys.stderr)
    if len(lines) > MOST_REFUSALS:
        print(f"batch: refused: {len(lines) - MOST_REFUSALS} more", file=sys.stderr)
    print("batch: nothing was written", file=sys.stderr)
    return 2


def describe(plan: Plan, refused: list[str]) -> Iterator[str]:
    """The plan as --dry-run prints it: each input and its outputs, or why it fails, then what
    refuses the plan."""
    for job in plan.jobs:
        yield f"{job.input} -> {job.output}" + (f"  (texture of {job.asset})" if job.asset else "")
    for failed in plan.failed:
        yield f"{failed['input']}: failed: {failed['reason']}"
    for asset in plan.assets:
        if asset.error:
            yield f"{asset.input}: {asset.error_status}: {asset.error}"
            continue
        yield f"{asset.input} -> {asset.output}"
        for source, output in asset.outputs.items():
            yield f"  {source} -> {output}"
    for line in refused:
        yield f"refused: {line}"


def remove_leftovers(plan: Plan) -> None:
    """Removes what a killed batch or converter left under temporary names of this plan's
    outputs, and nothing else."""
    partials: dict[str, set[str]] = {}  # folder → the partial names of the outputs in it
    for path, _, _ in plan.writes():
        partial = pathlib.Path(partial_name(path))
        partials.setdefault(str(partial.parent), set()).add(partial.name)
    for folder, names in partials.items():
        try:
            found = os.listdir(folder)
        except OSError:
            continue  # not there yet
        for name in found:
            if partial_of(name) in names:
                pathlib.Path(folder, name).unlink(missing_ok=True)
