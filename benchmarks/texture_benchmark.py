#!/usr/bin/env python3
"""Renderer-ready textures: readImage + makeTexture and the batch's --texture against maketx.

Three measurements on files that this script generates into a temporary folder (removed at the
end), each contender interleaved with the others and repeated:

1. One file at a time, for a float OpenEXR and an 8-bit PNG: `maketx IN -o OUT` against
   readImage + makeTexture with the default options, both as a process of their own (ours a
   Python interpreter that imports the package, reads and makes the texture: start-up
   included on both sides) and as work alone (ours in this process, the package already
   loaded; maketx's process less its start-up, `maketx --version`). The first file of each
   kind is compared with maketx's texture once: pixels of every MIP level with `idiff -a`,
   and the header attributes.
2. The batch converter with --texture on a local cluster of --workers against
   `xargs -P WORKERS maketx` over --files OpenEXR files: files per second.
3. The batch with --update over the set it has just converted, unchanged: its time against
   the conversion's.

    PYTHONPATH=build/python /usr/bin/python3 benchmarks/texture_benchmark.py \\
        [--files 48] [--size 1024] [--per-kind 2] [--repetitions 5] [--rounds 2] [--workers 2]
"""

from __future__ import annotations

import argparse
import dataclasses
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from typing import Any, Callable

import numpy as np

import vorel_usd_image_processing as vip

BATCH = [sys.executable, "-m", "vorel_usd_image_processing.batch"]
ENV = dict(os.environ, PYTHONPATH=str(pathlib.Path(vip.__file__).resolve().parent.parent))

# Our side as a process of its own: interpreter, import, read, texture, exit. It prints the
# seconds of readImage + makeTexture alone.
CHILD = """\
import sys, time
import vorel_usd_image_processing as vip
started = time.perf_counter()
image = vip.readImage(sys.argv[1])
ok = bool(image) and vip.makeTexture(image, sys.argv[2])
print(time.perf_counter() - started)
sys.exit(0 if ok else 1)
"""


@dataclasses.dataclass(frozen=True)
class Kind:
    name: str
    extension: str
    size: int
    channels: int
    dtype: type


def make_file(path: pathlib.Path, kind: Kind, seed: int) -> None:
    rng = np.random.default_rng(seed)
    shape = (kind.size, kind.size, kind.channels)
    pixels: np.ndarray[Any, Any]
    if kind.dtype is np.float32:
        pixels = rng.random(shape, dtype=np.float32)
    else:
        pixels = rng.integers(0, 256, shape, dtype=np.uint8)
    image = vip.Image.from_array(pixels)
    vip.setColorSpace(image, "linear" if kind.extension == ".exr" else "sRGB")
    assert vip.writeImage(image, path), path


def timed(action: Callable[[], object]) -> float:
    started = time.perf_counter()
    action()
    return time.perf_counter() - started


def run(command: list[str], stdout: int | None = None) -> subprocess.CompletedProcess[str]:
    return subprocess.run(command, env=ENV, check=True, text=True, stdout=stdout)


def median_spread(values: list[float]) -> str:
    return f"{statistics.median(values):.3f} ({min(values):.3f}–{max(values):.3f})"


# ---------------------------------------------------------------------------------------------
# 1. One file at a time
# ---------------------------------------------------------------------------------------------


@dataclasses.dataclass
class Single:
    maketx: list[float] = dataclasses.field(default_factory=list)
    ours_process: list[float] = dataclasses.field(default_factory=list)
    host_process: list[float] = dataclasses.field(default_factory=list)
    host_ratios: list[float] = dataclasses.field(default_factory=list)
    ours_child_work: list[float] = dataclasses.field(default_factory=list)
    ours_in_process: list[float] = dataclasses.field(default_factory=list)
    # The batch reads every texture back before it counts: that read against the conversion.
    read_back_ratios: list[float] = dataclasses.field(default_factory=list)
    # Per file and repetition: ours / maketx as processes; (ours, maketx) for the work alone.
    process_ratios: list[float] = dataclasses.field(default_factory=list)
    work_pairs: list[tuple[float, float]] = dataclasses.field(default_factory=list)


def single_files(root: pathlib.Path, kinds: list[Kind], per_kind: int, repetitions: int,
                 maketx: str, host: str) -> tuple[dict[str, Single], list[float], list[float]]:
    files = []
    for k, kind in enumerate(kinds):
        for i in range(per_kind):
            path = root / f"single_{k}_{i}{kind.extension}"
            make_file(path, kind, seed=100 * k + i)
            files.append((kind, path))
    out = root / "single_out"
    out.mkdir()
    results = {kind.name: Single() for kind in kinds}
    maketx_start: list[float] = []
    python_start: list[float] = []
    for repetition in range(repetitions):
        maketx_start.append(timed(lambda: run([maketx, "--version"], stdout=subprocess.DEVNULL)))
        python_start.append(timed(lambda: run([sys.executable, "-c",
                                               "import vorel_usd_image_processing"])))
        for index, (kind, source) in enumerate(files):
            theirs, ours = out / "maketx.tx", out / "ours.tx"
            times: dict[str, float] = {}
            child_work = 0.0

            def with_maketx() -> None:
                theirs.unlink(missing_ok=True)
                times["maketx"] = timed(lambda: run([maketx, str(source), "-o", str(theirs)],
                                                    stdout=subprocess.DEVNULL))

            def with_process() -> None:
                nonlocal child_work
                ours.unlink(missing_ok=True)
                started = time.perf_counter()
                done = run([sys.executable, "-c", CHILD, str(source), str(ours)],
                           stdout=subprocess.PIPE)
                times["process"] = time.perf_counter() - started
                child_work = float(done.stdout)

            def with_host() -> None:
                # The C++ example host: a compiled program against a compiled program.
                ours.unlink(missing_ok=True)
                times["host"] = timed(lambda: run([host, str(source), "-o", str(ours), "--texture"],
                                                  stdout=subprocess.DEVNULL))

            def in_process() -> None:
                ours.unlink(missing_ok=True)
                started = time.perf_counter()
                image = vip.readImage(source)
                assert image and vip.makeTexture(image, ours), source
                times["in_process"] = time.perf_counter() - started
                times["read_back"] = timed(lambda: vip.readBackImageFile(ours))
                assert not vip.readBackImageFile(ours).error, ours

            contenders = [with_maketx, with_process, with_host, in_process]
            turn = (repetition + index) % len(contenders)  # each goes first in turn
            for contender in contenders[turn:] + contenders[:turn]:
                contender()
            single = results[kind.name]
            single.maketx.append(times["maketx"])
            single.ours_process.append(times["process"])
            single.host_process.append(times["host"])
            single.host_ratios.append(times["host"] / times["maketx"])
            single.ours_child_work.append(child_work)
            single.ours_in_process.append(times["in_process"])
            single.read_back_ratios.append(times["read_back"] / times["in_process"])
            single.process_ratios.append(times["process"] / times["maketx"])
            single.work_pairs.append((times["in_process"], times["maketx"]))
    # maketx's start-up as measured in the same repetitions; its median is taken off each of
    # maketx's times for the work-alone ratio.
    start = statistics.median(maketx_start)
    for single in results.values():
        single.work_pairs = [(ours, theirs - start) for ours, theirs in single.work_pairs]
    return results, maketx_start, python_start


def header(path: pathlib.Path) -> dict[str, str]:
    """iinfo -v's attribute lines of a file, by name (the first line names the file)."""
    text = subprocess.run(["iinfo", "-v", str(path)], check=True, capture_output=True,
                          text=True).stdout
    lines = {}
    for line in text.splitlines()[1:]:
        name, _, value = line.strip().partition(": ")
        lines[name] = value
    return lines


def compare_with_maketx(root: pathlib.Path, source: pathlib.Path, maketx: str) -> list[str]:
    """Lines on how our texture of `source` differs from maketx's, default options."""
    ours, theirs = root / "compare_ours.tx", root / "compare_maketx.tx"
    image = vip.readImage(source)
    assert image and vip.makeTexture(image, ours)
    run([maketx, str(source), "-o", str(theirs)], stdout=subprocess.DEVNULL)
    idiff = subprocess.run(["idiff", "-a", str(ours), str(theirs)], capture_output=True,
                           text=True)
    verdict = idiff.stdout.strip().splitlines()[-1] if idiff.stdout.strip() else "no output"
    lines = [f"`idiff -a` (every MIP level): {verdict} (exit status {idiff.returncode})"]
    mine, its = header(ours), header(theirs)
    for name in sorted(set(mine) | set(its)):
        if name != "DateTime" and mine.get(name) != its.get(name):
            lines.append(f"header `{name}`: ours {mine.get(name, '(none)')}, "
                         f"maketx's {its.get(name, '(none)')}".replace(str(root), "…"))
    # OpenImageIO's readers keep a texture's "oiio:SHA-1" only from a file whose "Software"
    # names OpenImageIO or maketx; say whether the digest is in the file's bytes all the same.
    if "oiio:SHA-1" in its and "oiio:SHA-1" not in mine:
        written = b"oiio:SHA-1=" + its["oiio:SHA-1"].strip('"').encode() in ours.read_bytes()
        lines.append(f"our file holds maketx's SHA-1 in its ImageDescription: "
                     f"{'yes' if written else 'no'}")
    ours.unlink()
    theirs.unlink()
    return lines


# ---------------------------------------------------------------------------------------------
# 2 and 3. Many files
# ---------------------------------------------------------------------------------------------


def batch_help() -> str:
    return run(BATCH + ["--help"], stdout=subprocess.PIPE).stdout


def with_xargs(sources: list[pathlib.Path], out: pathlib.Path, workers: int,
               maketx: str) -> float:
    out.mkdir()
    arguments = b"".join(b"%s\0-o\0%s\0" % (bytes(source), bytes(out / (source.stem + ".tx")))
                         for source in sources)
    started = time.perf_counter()
    subprocess.run(["xargs", "-0", "-n", "3", "-P", str(workers), maketx], input=arguments,
                   stdout=subprocess.DEVNULL, check=True)
    return time.perf_counter() - started


def with_batch(folder: pathlib.Path, out: pathlib.Path, workers: int,
               update: bool) -> tuple[float, dict[str, int], float]:
    """Seconds of the whole command, the report's count of each status and its total seconds
    (the converters' time on the files)."""
    report = out.parent / (out.name + (".update" if update else ".convert") + ".jsonl")
    command = BATCH + [str(folder), "-o", str(out), "--ext", ".tx", "--texture", "--workers",
                       str(workers), "--report", str(report), "-q"]
    started = time.perf_counter()
    run(command + (["--update"] if update else []))
    seconds = time.perf_counter() - started
    statuses: dict[str, int] = {}
    converting = 0.0
    for line in report.read_text().splitlines():
        entry = json.loads(line)
        statuses[entry["status"]] = statuses.get(entry["status"], 0) + 1
        converting += entry["seconds"]
    report.unlink()
    return seconds, statuses, converting


@dataclasses.dataclass
class Many:
    xargs: list[float] = dataclasses.field(default_factory=list)
    batch: list[float] = dataclasses.field(default_factory=list)
    update: list[float] = dataclasses.field(default_factory=list)
    converting: list[float] = dataclasses.field(default_factory=list)  # the report's sum
    same_pixels: str = ""


def many_files(root: pathlib.Path, files: int, size: int, workers: int, rounds: int,
               maketx: str) -> Many:
    folder = root / "many"
    folder.mkdir()
    kind = Kind("float", ".exr", size, 4, np.float32)
    for i in range(files):
        make_file(folder / f"{i:03}.exr", kind, seed=1000 + i)
    sources = sorted(folder.iterdir())
    many = Many()
    for round_ in range(rounds):
        xargs_out, batch_out = root / f"xargs{round_}", root / f"batch{round_}"

        def xargs() -> None:
            many.xargs.append(with_xargs(sources, xargs_out, workers, maketx))

        def batch() -> None:
            seconds, statuses, converting = with_batch(folder, batch_out, workers, update=False)
            assert statuses == {"converted": files}, statuses
            many.batch.append(seconds)
            many.converting.append(converting)

        for contender in ([xargs, batch] if round_ % 2 == 0 else [batch, xargs]):
            contender()
        seconds, statuses, _ = with_batch(folder, batch_out, workers, update=True)
        assert statuses == {"skipped": files}, statuses
        many.update.append(seconds)
        if round_ == 0:
            first = sources[0].stem + ".tx"
            idiff = subprocess.run(["idiff", "-a", str(batch_out / first), str(xargs_out / first)],
                                   capture_output=True, text=True)
            many.same_pixels = (f"{first}: batch against xargs maketx, `idiff -a` exit status "
                                f"{idiff.returncode}")
        shutil.rmtree(xargs_out)
        shutil.rmtree(batch_out)
    return many


# ---------------------------------------------------------------------------------------------


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=48, help="files of the batch runs")
    parser.add_argument("--size", type=int, default=1024,
                        help="edge of the float OpenEXR files; the PNG's is twice as long")
    parser.add_argument("--per-kind", type=int, default=2,
                        help="files of each kind for the one-at-a-time runs")
    parser.add_argument("--repetitions", type=int, default=5,
                        help="repetitions of the one-at-a-time runs")
    parser.add_argument("--rounds", type=int, default=2, help="rounds of the batch runs")
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--maketx", default=shutil.which("maketx") or "/usr/bin/maketx")
    parser.add_argument("--host", default=str(pathlib.Path(__file__).resolve().parents[1] / "build"
                                              / "examples" / "vorel_image_tool"),
                        help="the example host vorel_image_tool, built with the library")
    parser.add_argument("--skip-batch", action="store_true", help="measure 1 only")
    args = parser.parse_args()

    kinds = [Kind(f"{args.size}² RGBA float OpenEXR", ".exr", args.size, 4, np.float32),
             Kind(f"{2 * args.size}² RGB 8-bit PNG", ".png", 2 * args.size, 3, np.uint8)]
    help_text = "" if args.skip_batch else batch_help()
    batch_ready = "--texture" in help_text and "--update" in help_text
    if not args.skip_batch and not batch_ready:
        print("the batch converter has no --texture and --update here: measuring 1 only",
              file=sys.stderr)
    started = time.perf_counter()
    with tempfile.TemporaryDirectory(prefix="vorel_texture_bench_") as temp:
        root = pathlib.Path(temp)
        singles, maketx_start, python_start = single_files(root, kinds, args.per_kind,
                                                           args.repetitions, args.maketx,
                                                           args.host)
        comparisons = {kind.name: compare_with_maketx(root, root / f"single_{k}_0{kind.extension}",
                                                      args.maketx)
                       for k, kind in enumerate(kinds)}
        many = (many_files(root, args.files, args.size, args.workers, args.rounds, args.maketx)
                if batch_ready else None)
    elapsed = time.perf_counter() - started

    oiio = run([args.maketx, "--version"], stdout=subprocess.PIPE).stdout.strip()
    load = " ".join(f"{value:.2f}" for value in os.getloadavg())
    print(f"# {os.cpu_count()} cores; vorel_usd_image_processing {vip.__version__}, maketx of "
          f"OpenImageIO {oiio}; load average {load} at the end; the run took {elapsed:.0f} s")
    print()
    print(f"## 1. One file: readImage + makeTexture against `maketx IN -o OUT` "
          f"({args.per_kind} files per kind × {args.repetitions} repetitions; "
          f"medians, min–max in brackets)")
    print()
    print(f"Start-up alone: `maketx --version` {median_spread(maketx_start)} s; "
          f"`python3 -c 'import vorel_usd_image_processing'` {median_spread(python_start)} s.")
    print()
    print("| input | maketx process s | ours, Python process s | ratio | ours, C++ host process s "
          "| ratio | ours, in-process s | ratio, work alone |")
    print("|---|---:|---:|---:|---:|---:|---:|---:|")
    for name, single in singles.items():
        work = [ours / theirs for ours, theirs in single.work_pairs]
        print(f"| {name} | {median_spread(single.maketx)} | {median_spread(single.ours_process)} "
              f"| **{median_spread(single.process_ratios)}** "
              f"| {median_spread(single.host_process)} | **{median_spread(single.host_ratios)}** "
              f"| {median_spread(single.ours_in_process)} | **{median_spread(work)}** |")
    print()
    print("Ours, readImage + makeTexture timed inside the separate process: " + "; ".join(
        f"{name} {median_spread(single.ours_child_work)} s" for name, single in singles.items()))
    print()
    print("The batch's read-back of each texture (`readBackImageFile`: header and smallest MIP "
          "level) against readImage + makeTexture of it, in this process: " + "; ".join(
              f"{name} {median_spread([100 * r for r in single.read_back_ratios])} %"
              for name, single in singles.items()))
    print()
    print("Against maketx's texture of the same file, default options:")
    for name, lines in comparisons.items():
        print(f"- {name}:")
        for line in lines:
            print(f"  - {line}")
    if many is None:
        return 0
    print()
    n = args.files
    print(f"## 2. {n} files of {args.size}² RGBA float OpenEXR, {args.workers} workers "
          f"({args.rounds} rounds; medians, min–max in brackets)")
    print()
    print("| | seconds | files per second |")
    print("|---|---:|---:|")
    rates = {name: [n / s for s in values]
             for name, values in (("xargs", many.xargs), ("batch", many.batch))}
    print(f"| `xargs -P {args.workers} maketx` | {median_spread(many.xargs)} "
          f"| {median_spread(rates['xargs'])} |")
    print(f"| batch `--texture --workers {args.workers}` | {median_spread(many.batch)} "
          f"| {median_spread(rates['batch'])} |")
    per_round = [x / b for x, b in zip(many.xargs, many.batch)]
    print()
    print(f"Batch against xargs, files per second, per round: **{median_spread(per_round)}**. "
          f"{many.same_pixels}.")
    per_file = [c / n for c in many.converting]
    rest = [b - c / args.workers for b, c in zip(many.batch, many.converting)]
    print()
    print(f"In the batch, a file took {median_spread(per_file)} s in its converter (the report's "
          f"seconds); the wall time less the converters' time per worker, "
          f"{median_spread(rest)} s, is the cluster's start, the scheduling and the stop.")
    print()
    print("## 3. `--update` over the unchanged, converted set")
    print()
    cost = [u / b for u, b in zip(many.update, many.batch)]
    print(f"`--update` run {median_spread(many.update)} s, against its round's conversion: "
          f"**{median_spread([100 * c for c in cost])} %**.")
    return 0


if __name__ == "__main__":
    sys.exit(main())
