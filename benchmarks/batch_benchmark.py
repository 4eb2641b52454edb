#!/usr/bin/env python3
"""Files per second of the batch converter with 1 and 2 workers, against a plain loop.

Each round runs, on the same generated set and in turn: the same calls in a plain loop in this
process, the batch with 1 worker, with 2 workers, and the batch over a single file (its fixed
cost: starting the cluster and the converter processes). Medians over the rounds are printed.

    PYTHONPATH=build/python python3 benchmarks/batch_benchmark.py [--files 64] [--rounds 3]
"""

import argparse
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import vorel_usd_image_processing as vip

BATCH = [sys.executable, "-m", "vorel_usd_image_processing.batch"]


def make_set(folder: pathlib.Path, files: int, size: int) -> None:
    rng = np.random.default_rng(7)
    for i in range(files):
        image = vip.Image.from_array(rng.random((size, size, 4), dtype=np.float32))
        vip.setColorSpace(image, "linear")
        assert vip.writeImage(image, folder / f"{i:03}.exr")


def plain_loop(folder: pathlib.Path, out: pathlib.Path) -> float:
    started = time.perf_counter()
    for source in sorted(folder.iterdir()):
        image = vip.fit(vip.readImage(source), vip.ROI(0, 256, 0, 256))
        vip.compositeOverBackgroundColor(image, [0.2, 0.3, 0.4, 1.0])
        vip.colorConvertByFormat(image, "x.png")
        assert vip.writeImage(image, out / (source.stem + ".png"))
    return time.perf_counter() - started


def batch(inputs: list[str], out: pathlib.Path, workers: int) -> float:
    env = dict(os.environ, PYTHONPATH=str(pathlib.Path(vip.__file__).resolve().parent.parent))
    started = time.perf_counter()
    subprocess.run(BATCH + inputs + ["-o", str(out), "--ext", ".png", "--op", "fit=256x256",
                                     "--op", "flatten=0.2,0.3,0.4,1", "--workers", str(workers),
                                     "-q"], env=env, check=True)
    return time.perf_counter() - started


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=64)
    parser.add_argument("--size", type=int, default=1024, help="width and height of each file")
    parser.add_argument("--rounds", type=int, default=3)
    args = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="vorel_batch_bench_") as root:
        folder = pathlib.Path(root) / "in"
        folder.mkdir()
        make_set(folder, args.files, args.size)
        first = str(sorted(folder.iterdir())[0])
        times: dict[str, list[float]] = {"loop": [], "1 worker": [], "2 workers": [], "fixed": []}
        for round_ in range(args.rounds):
            out = pathlib.Path(root) / f"out{round_}"
            (out / "loop").mkdir(parents=True)
            times["loop"].append(plain_loop(folder, out / "loop"))
            times["1 worker"].append(batch([str(folder)], out / "one", 1))
            times["2 workers"].append(batch([str(folder)], out / "two", 2))
            times["fixed"].append(batch([first], out / "fixed", 1))
    median = {name: statistics.median(values) for name, values in times.items()}
    n = args.files
    print(f"{n} files of {args.size}x{args.size} RGBA float OpenEXR -> fit 256x256, flatten, PNG; "
          f"medians of {args.rounds} rounds")
    for name in ("loop", "1 worker", "2 workers"):
        print(f"  {name:10} {median[name]:7.2f} s  {n / median[name]:6.1f} files/s")
    print(f"  fixed cost of a batch (cluster, converters; one file): {median['fixed']:.2f} s")
    per_file = (median["1 worker"] - median["fixed"]) / (n - 1) - median["loop"] / n
    print(f"  overhead per file, 1 worker against the loop: {per_file * 1000:.1f} ms")
    print(f"  2 workers against 1: {median['1 worker'] / median['2 workers']:.2f}x")


if __name__ == "__main__":
    main()
