"""The command line, the progress and the report."""

from __future__ import annotations

import argparse
import contextlib
import fcntl
import importlib.util
import itertools
import json
import os
import pathlib
import sys
import time
from typing import Any, Iterator

import vorel_usd_image_processing as vip

from . import __doc__ as _package_doc
from .assets import PACKAGE_EXTENSIONS, finish
from .job import Job, Result, Texture
from .operations import OPERATIONS, parse_op
from .plan import LOCK, Plan, check, describe, make_plan, refuse, remove_leftovers
from .update import up_to_date

UNTRUSTED_TIMEOUT = 600.0  # seconds, for --untrusted without --timeout


class Progress:
    """A bar on a terminal, a line every few seconds otherwise, nothing with -q."""

    def __init__(self, total: int, quiet: bool) -> None:
        self.total, self.quiet, self.done, self.failed = total, quiet, 0, 0
        self.started = self.last_line = time.monotonic()
        self.bar: Any = None
        if not quiet and sys.stderr.isatty():
            try:  # Debian has no stubs for tqdm; without tqdm, lines
                from tqdm import tqdm  # type: ignore[import]
            except ImportError:
                return
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


def triage(jobs: list[Job], args: argparse.Namespace) -> tuple[list[Result], list[Job]]:
    """The results of the jobs that need no conversion, and the jobs that do."""
    skipped: list[Result] = []
    pending: list[Job] = []
    if args.update:  # an output's own reader only: a damaged .png is never handed to the IFF one
        vip.setOpenImageIOAttribute("try_all_readers", 0)
    for job in jobs:
        if args.skip_existing and os.path.exists(job.output):
            skipped.append(job.result("skipped", "the output exists"))
        elif args.update and (result := up_to_date(job)) is not None:
            skipped.append(result)
        else:
            pending.append(job)
    return skipped, pending


TEXTURE_EXTENSIONS = (".tx", ".exr", ".tif", ".tiff")
TEXTURE_FLAGS = ("tile", "mip_filter", "format", "nan", "constant_color_detect", "envlatl")
DATA_FORMATS = ("uint8", "sint8", "uint16", "sint16", "half", "float")


def tile(text: str) -> tuple[int, int]:
    """argparse type of --tile: WxH, both positive."""
    try:
        width, height = (int(v) for v in text.lower().split("x"))
    except ValueError:
        width = height = 0
    if width <= 0 or height <= 0:
        raise argparse.ArgumentTypeError(f"'{text}' is not WIDTHxHEIGHT")
    return width, height


def no_dask(name: str) -> SystemExit:
    """Exit status 2 and one line on what is missing and how to get it."""
    python = sys.executable
    print(f"batch: this Python ({python}) can't import {name}: the batch converter runs on Dask; "
          f"install Debian's python3-distributed and run /usr/bin/python3, or run "
          f"{python} -m pip install dask distributed tqdm", file=sys.stderr)
    return SystemExit(2)


def dask_found() -> bool:
    """Whether this Python has Dask's distributed, without the second that importing it takes
    (a run of --update may need no cluster at all)."""
    try:
        return importlib.util.find_spec("distributed") is not None
    except (ImportError, ValueError):
        return False


def parse_args(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python3 -m vorel_usd_image_processing.batch",
        description=(_package_doc or "").splitlines()[0])
    parser.add_argument("inputs", nargs="*", metavar="INPUT",
                        help="files, folders (the images and USD assets in them), globs or @LIST files of paths")
    parser.add_argument("-o", "--output", type=pathlib.Path, help="the folder to write into")
    parser.add_argument("--ext", help="the extension to convert to, such as .png or .exr")
    parser.add_argument("--op", action="append", default=[], type=parse_op, metavar="NAME=ARGS",
                        help=f"an operation, applied in order: {', '.join(OPERATIONS)}")
    parser.add_argument("--png-compression", type=int, default=-1, metavar="N")
    parser.add_argument("--usdz", action="store_true",
                        help="write each USD asset input as one .usdz package (--ext .png, .jpg "
                             "or .jpeg) instead of a folder of its layers and textures")
    textures = parser.add_argument_group("textures")
    textures.add_argument("--texture", action="store_true",
                          help="make every output a tiled, MIP-mapped texture (--ext .tx, .exr, "
                               ".tif or .tiff)")
    textures.add_argument("--tile", type=tile, metavar="WxH", help="tile size (default: 64x64)")
    textures.add_argument("--mip-filter", metavar="NAME",
                          help="filter of the MIP levels, as maketx's --filter (default: box)")
    textures.add_argument("--format", choices=DATA_FORMATS, metavar="TYPE",
                          help=f"sample type: {', '.join(DATA_FORMATS)} (default: the image's)")
    textures.add_argument("--nan", choices=("fix", "fail"),
                          help="fix: NaN and infinite samples become the mean of their finite 3x3 "
                               "neighbours; fail: the file fails (default: left as they are)")
    textures.add_argument("--constant-color-detect", action="store_true",
                          help="a one-colour image becomes a texture of one tile")
    textures.add_argument("--envlatl", action="store_true",
                          help="a latitude-longitude environment map")
    colour = parser.add_argument_group("colour")
    colour.add_argument("--assume-color-space", metavar="NAME",
                        help="the colour space of 3- and 4-channel sources that name none and "
                             "whose asset states none (default: sRGB for 8-bit samples and CMYK "
                             "files, linear for others; 1- and 2-channel sources are data)")
    colour.add_argument("--color-config", type=pathlib.Path, metavar="FILE",
                        help="the OpenColorIO config whose colour space names sources, "
                             "assumptions and assets may use (default: $OCIO, else "
                             "OpenImageIO's built-in names: sRGB, linear, Rec709)")
    where = parser.add_mutually_exclusive_group()
    where.add_argument("--workers", type=int, default=os.cpu_count() or 1,
                       help="workers of a local cluster, each with its converter process "
                            "(default: the CPU count)")
    where.add_argument("--scheduler", metavar="tcp://HOST:PORT", help="an existing Dask cluster")
    parser.add_argument("--report", type=pathlib.Path,
                        help="JSON Lines report (default: OUTDIR/batch-report.jsonl)")
    redo = parser.add_mutually_exclusive_group()
    redo.add_argument("--skip-existing", action="store_true",
                      help="report outputs that exist as skipped and leave them")
    redo.add_argument("--update", action="store_true",
                      help="convert only where the output is missing or damaged, or was made "
                           "from other source bytes or other options")
    parser.add_argument("--untrusted", action="store_true",
                        help="set the limits below and try_all_readers 0 in every converter, "
                             "follow no link out of a folder walked, and fail an asset that "
                             "depends on files outside its own folder; the timeout is then "
                             f"{UNTRUSTED_TIMEOUT:g} s unless --timeout says otherwise")
    parser.add_argument("--max-image-mb", type=int, default=2048, metavar="MB")
    parser.add_argument("--max-channels", type=int, default=64, metavar="N")
    parser.add_argument("--timeout", type=float, metavar="SECONDS",
                        help="per file, and per step of an asset")
    parser.add_argument("--dry-run", action="store_true",
                        help="print the plan (each input and its outputs, or why it is refused) "
                             "and write nothing")
    parser.add_argument("-q", "--quiet", action="store_true", help="no progress")
    args = parser.parse_args(argv)
    if args.untrusted and args.timeout is None:
        args.timeout = UNTRUSTED_TIMEOUT
    if not (args.inputs and args.output and args.ext):
        parser.error("INPUT, -o OUTDIR and --ext are required")
    args.ext = args.ext if args.ext.startswith(".") else "." + args.ext
    if args.color_config is not None and not args.color_config.is_file():
        parser.error(f"--color-config {args.color_config}: no such file")
    # Carried to every converter process, which may run on another machine with another $OCIO.
    args.color_config = (str(args.color_config.absolute()) if args.color_config
                         else os.environ.get("OCIO", ""))
    given = [f"--{name.replace('_', '-')}" for name in TEXTURE_FLAGS if vars(args)[name]]
    if args.usdz and args.ext.lower() not in PACKAGE_EXTENSIONS:
        parser.error(f"--usdz packages hold {', '.join(PACKAGE_EXTENSIONS)} textures, "
                     f"not {args.ext}")
    if args.texture:
        if args.ext.lower() not in TEXTURE_EXTENSIONS:
            parser.error(f"--texture writes {', '.join(TEXTURE_EXTENSIONS)}, not {args.ext}")
        width, height = args.tile or (64, 64)
        args.texture = Texture(width, height, args.mip_filter or "box", args.format or "",
                               args.nan or "leave", args.constant_color_detect, args.envlatl)
    elif given:
        parser.error(f"{', '.join(given)} only with --texture")
    else:
        args.texture = None
    return args


@contextlib.contextmanager
def locked(folder: pathlib.Path) -> Iterator[None]:
    """Holds the output folder's lock, or exits with status 2 while another batch holds it. The
    lock is the kernel's on an open file, so a killed batch doesn't leave it held."""
    path = folder / LOCK
    with open(path, "a") as lock:
        try:
            fcntl.flock(lock, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except OSError:
            print(f"batch: another batch is writing into {folder} (it holds {path}); nothing "
                  "was written", file=sys.stderr)
            raise SystemExit(2) from None
        yield


def main(argv: list[str] | None = None) -> int:
    args = parse_args(argv)
    plan = make_plan(args)
    try:
        refused = check(plan)
        if args.dry_run:
            for line in describe(plan, refused):
                print(line)
            return 2 if refused else 0
        if refused:
            return refuse(refused)
        if plan.jobs and not dask_found():  # said before anything is written
            raise no_dask("distributed")
        args.output.mkdir(parents=True, exist_ok=True)
        with locked(args.output):
            remove_leftovers(plan)
            return carry_out(plan, args)
    finally:
        plan.steps.close()


def carry_out(plan: Plan, args: argparse.Namespace) -> int:
    """Converts what the plan holds and reports each input; the exit status."""
    skipped, pending = triage(plan.jobs, args)
    converted: Iterator[Result] = iter(())
    if pending:  # the cluster only when there is something to convert
        try:
            from .converters import run_on_cluster
        except ImportError as error:
            raise no_dask(error.name or "dask") from None
        converted = run_on_cluster(pending, args.workers, args.scheduler)
    plan.report.parent.mkdir(parents=True, exist_ok=True)
    progress = Progress(len(plan.failed) + len(skipped) + len(pending) + len(plan.assets),
                        args.quiet)
    all_done = True
    done: dict[str, Result] = {}  # by output: what the assets point at
    with plan.report.open("w") as lines:
        # An asset is written when all textures are done: any of them may be one of its.
        finished = (finish(asset, done, plan.steps, args.timeout, plan.settings)
                    for asset in plan.assets)
        for result in itertools.chain(plan.failed, skipped, converted, finished):
            done[result["output"]] = result
            lines.write(json.dumps(result) + "\n")
            lines.flush()
            progress.add(result["status"])
            all_done &= result["status"] in ("converted", "skipped")
    progress.close()
    remove_leftovers(plan)  # of a converter killed with its worker, its job done by another
    return 0 if all_done else 1
