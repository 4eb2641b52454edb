"""Converts many image files on Dask: read, operations, colour for the target, write.

    python3 -m vorel_usd_image_processing.batch INPUT... -o OUTDIR --ext .png [--op NAME=ARGS]...

Every input is reported exactly once, as a line of JSON, with the status converted, failed,
crashed, timed_out or skipped. Each Dask worker converts in a child process of its own, so that a
file on which one of OpenImageIO's readers aborts costs that child, not the worker or the batch;
the same child is what a per-file timeout kills.
"""

from __future__ import annotations

import argparse
import dataclasses
import glob
import json
import logging
import os
import pathlib
import select
import signal
import subprocess
import sys
import tempfile
import threading
import time
from typing import IO, Any, Callable, Iterator

import vorel_usd_image_processing as vip

LOGGER = "vorel_usd_image_processing"
Result = dict[str, Any]


@dataclasses.dataclass(frozen=True)
class Job:
    """One input and what to make of it; the only thing that travels to the workers."""

    input: str  # as the user gave it, or as found in a folder they gave
    source: str
    output: str
    ops: tuple[str, ...] = ()
    png_compression: int = -1
    attributes: tuple[tuple[str, int], ...] = ()  # OpenImageIO's, set in each converter
    timeout: float | None = None

    @property
    def partial(self) -> str:
        """Where the output is written until it is complete; the extension picks the writer."""
        output = pathlib.Path(self.output)
        return str(output.with_name(f".{output.name}.partial{output.suffix}"))


# Operations by the names of the example host vorel_image_tool, each from an image and its
# argument text to a new image (empty on failure, with the library's line in the log).
def _ints(text: str) -> list[int]:
    return [int(v) for v in text.split(",")]


def _floats(text: str) -> list[float]:
    return [float(v) for v in text.split(",")]


def _range(text: str) -> tuple[float, float]:
    low, high = _floats(text)
    return low, high


def _size(text: str) -> vip.ROI:
    width, height = (int(v) for v in text.lower().split("x"))
    return vip.ROI(0, width, 0, height)


def _in_place(call: Callable[[vip.Image], object]) -> Callable[[vip.Image], vip.Image]:
    def run(image: vip.Image) -> vip.Image:
        call(image)
        return image

    return run


def _flatten(image: vip.Image, color: str) -> vip.Image:
    if vip.getNumChannels(image) == 3:
        vip.addAlphaChannel(image, 1.0)
    vip.compositeOverBackgroundColor(image, _floats(color))
    return image


def _cut(image: vip.Image, text: str) -> vip.Image:
    x, y, width, height = _ints(text)
    return vip.cut(image, vip.ROI(x, x + width, y, y + height))


def _add_alpha(image: vip.Image, alpha: str) -> vip.Image:
    return image if vip.addAlphaChannel(image, float(alpha)) else vip.Image()


OPERATIONS: dict[str, Callable[[vip.Image, str], vip.Image]] = {
    "fit": lambda image, a: vip.fit(image, _size(a)),
    "resize": lambda image, a: vip.resize(image, _size(a)),
    "cut": _cut,
    "rotate": lambda image, a: vip.rotate(image, float(a), True),
    "flatten": _flatten,
    "add-alpha": _add_alpha,
    "premult": lambda image, a: vip.preMultiply(image, vip.PreMultMode.Premult),
    "unpremult": lambda image, a: vip.preMultiply(image, vip.PreMultMode.Unpremult),
    "invert": lambda image, a: vip.invert(image),
    "invert-channel": lambda image, a: vip.invertChannel(image, a),
    "shuffle": lambda image, a: vip.shuffle(image, len(_ints(a)), _ints(a)),
    "normalize": lambda image, a: vip.normalize(image, *_range(a or "0,1")),
    "color-convert": lambda image, a: vip.colorConvert(image, *a.split(",")),
    "tag": lambda image, a: _in_place(lambda i: vip.setColorSpace(i, a))(image),
    "id-mask": lambda image, a: _in_place(vip.idImageToMask)(image),
}


def parse_op(text: str) -> str:
    """argparse type of --op: NAME or NAME=ARGS with a known NAME."""
    if text.partition("=")[0] not in OPERATIONS:
        raise argparse.ArgumentTypeError(f"unknown operation '{text}' ({', '.join(OPERATIONS)})")
    return text


# The conversion itself, in the child process.
class _Lines(logging.Handler):
    """The library's warning and error lines since the last clear."""

    def __init__(self) -> None:
        super().__init__(logging.WARNING)
        self.lines: list[str] = []

    def emit(self, record: logging.LogRecord) -> None:
        self.lines.append(record.getMessage())


def convert(job: Job, lines: _Lines) -> Result:
    """Reads, operates, converts and writes one file; a failure reports the library's line."""
    started = time.monotonic()

    def result(status: str, reason: str = "") -> Result:
        return {"input": job.input, "status": status, "output": job.output, "reason": reason,
                "seconds": round(time.monotonic() - started, 3)}

    def failed(step: str) -> Result:
        pathlib.Path(job.partial).unlink(missing_ok=True)
        return result("failed", lines.lines[-1] if lines.lines else f"{step} failed")

    lines.lines.clear()
    image = vip.readImage(job.source)
    if not image:
        return failed("readImage")
    for op in job.ops:
        name, _, argument = op.partition("=")
        try:
            image = OPERATIONS[name](image, argument)
        except (ValueError, TypeError, IndexError) as error:
            return result("failed", f"--op {op}: {error}")
        if not image:
            return failed(f"--op {op}")
    vip.colorConvertByFormat(image, job.output)
    if not image:
        return failed("colorConvertByFormat")
    os.makedirs(os.path.dirname(job.output) or ".", exist_ok=True)
    if not vip.writeImage(image, job.partial, job.png_compression):
        return failed("writeImage")
    os.replace(job.partial, job.output)
    return result("converted")


def serve(requests: IO[str], replies: IO[str]) -> None:
    """The child's loop: a job as a line of JSON in, its result as a line of JSON out."""
    lines = _Lines()
    logger = logging.getLogger(LOGGER)
    logger.addHandler(lines)
    logger.propagate = False
    attributes_set = False
    for request in requests:
        job = Job(**{k: tuple(map(tuple, v)) if k == "attributes" else v
                     for k, v in json.loads(request).items()})
        if not attributes_set:
            for name, value in job.attributes:
                vip.setOpenImageIOAttribute(name, value)
            attributes_set = True
        replies.write(json.dumps(convert(job, lines)) + "\n")
        replies.flush()


# The worker's side: a child process per worker thread, restarted after a crash or a timeout.
class Converter:
    def __init__(self) -> None:
        self.child: subprocess.Popen[str] | None = None
        self.errors: IO[bytes] | None = None

    def _start(self) -> subprocess.Popen[str]:
        if self.child is None or self.child.poll() is not None:
            package_parent = str(pathlib.Path(vip.__file__).resolve().parent.parent)
            env = dict(os.environ)
            env["PYTHONPATH"] = os.pathsep.join(filter(None, [package_parent,
                                                              env.get("PYTHONPATH")]))
            self.errors = tempfile.TemporaryFile()
            self.child = subprocess.Popen(
                [sys.executable, "-m", "vorel_usd_image_processing.batch", "--serve"],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors, text=True,
                env=env)
        return self.child

    def _stop(self) -> int:
        assert self.child is not None
        self.child.kill()
        return self.child.wait()

    def _last_error(self) -> str:
        if self.errors is None:
            return ""
        self.errors.seek(0)
        text = self.errors.read().decode(errors="replace").strip().splitlines()
        return text[-1][:300] if text else ""

    def run_once(self, job: Job) -> Result | None:
        """The child's result, a timed_out result, or None when the child died on the way."""
        child = self._start()
        assert child.stdin is not None and child.stdout is not None
        started = time.monotonic()
        child.stdin.write(json.dumps(dataclasses.asdict(job)) + "\n")
        child.stdin.flush()
        ready, _, _ = select.select([child.stdout], [], [], job.timeout)
        if not ready:
            self._stop()
            pathlib.Path(job.partial).unlink(missing_ok=True)
            return {"input": job.input, "status": "timed_out", "output": job.output,
                    "reason": f"no result within {job.timeout:g} s; the converter was killed",
                    "seconds": round(time.monotonic() - started, 3)}
        reply = child.stdout.readline()
        return json.loads(reply) if reply else None

    def run(self, job: Job) -> Result:
        """Tries a file that takes the child down once more in a fresh child, then gives up."""
        started = time.monotonic()
        for tries in (1, 2):
            result = self.run_once(job)
            if result is not None:
                return result
            code = self._stop()
            pathlib.Path(job.partial).unlink(missing_ok=True)
        how = f"signal {signal.Signals(-code).name}" if code < 0 else f"exit status {code}"
        return {"input": job.input, "status": "crashed", "output": job.output,
                "reason": f"the converter process ended with {how} on each of {tries} tries: "
                          f"{self._last_error()}",
                "seconds": round(time.monotonic() - started, 3)}


_converters = threading.local()


def convert_on_worker(job: Job) -> Result:
    """The task that Dask runs: one file, through this worker thread's converter process."""
    if not hasattr(_converters, "converter"):
        _converters.converter = Converter()
    converter: Converter = _converters.converter
    return converter.run(job)


# The client's side: inputs, outputs, the cluster, the report and the progress.
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
            for found in sorted(glob.glob(given, recursive=True)):
                if os.path.isfile(found):
                    yield found, pathlib.Path(found).parent
        else:
            yield given, pathlib.Path(given).parent


def plan(args: argparse.Namespace) -> list[Job]:
    """A job per input; exits with status 2 when two inputs would land on one output."""
    extension = args.ext if args.ext.startswith(".") else "." + args.ext
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
        output = str((args.output / relative).with_suffix(extension).absolute())
        if output in claimed:
            sys.exit(f"batch: {claimed[output]} and {given} would both be written to {output}")
        claimed[output] = given
        jobs.append(Job(given, str(pathlib.Path(given).absolute()), output, tuple(args.op),
                        args.png_compression, attributes, args.timeout))
    return jobs


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
    import dask
    from distributed import Client, LocalCluster, as_completed

    pending = []
    for job in jobs:
        if args.skip_existing and os.path.exists(job.output):
            yield {"input": job.input, "status": "skipped", "output": job.output,
                   "reason": "the output exists", "seconds": 0.0}
        else:
            pending.append(job)
    if not pending:
        return
    # A task whose worker dies is given to one more worker, then reported: crashed.
    with dask.config.set({"distributed.scheduler.allowed-failures": 1}), \
            tempfile.TemporaryDirectory(prefix="vorel-batch-dask-") as space:
        cluster = None if args.scheduler else LocalCluster(  # type: ignore[no-untyped-call]
            n_workers=args.workers, threads_per_worker=1, processes=True, local_directory=space,
            dashboard_address=None, silence_logs=logging.ERROR)
        with Client(args.scheduler or cluster) as client:  # type: ignore[no-untyped-call]
            futures = client.map(convert_on_worker, pending, pure=False)
            job_of = {future.key: job for future, job in zip(futures, pending)}
            for future in as_completed(futures):  # type: ignore[no-untyped-call]
                job = job_of[future.key]
                try:
                    yield future.result()
                except Exception as error:  # KilledWorker, a lost worker: the task's end
                    yield {"input": job.input, "status": "crashed", "output": job.output,
                           "reason": f"{type(error).__name__}: {error}", "seconds": 0.0}
        if cluster is not None:
            cluster.close()  # type: ignore[no-untyped-call]


def parse_args(argv: list[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(
        prog="python3 -m vorel_usd_image_processing.batch", description=__doc__.splitlines()[0])
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
    parser.add_argument("--serve", action="store_true", help=argparse.SUPPRESS)
    args = parser.parse_args(argv)
    if not args.serve and not (args.inputs and args.output and args.ext):
        parser.error("INPUT, -o OUTDIR and --ext are required")
    return args


def main(argv: list[str] | None = None) -> int:
    args = parse_args(argv)
    if args.serve:
        serve(sys.stdin, sys.stdout)
        return 0
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


if __name__ == "__main__":
    # Run as the package's module, not as __main__: Dask sends the task and its jobs by name.
    from vorel_usd_image_processing.batch import main as batch_main

    sys.exit(batch_main())
