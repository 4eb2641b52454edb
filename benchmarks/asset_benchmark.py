#!/usr/bin/env python3
"""A USD asset through the batch converter against its textures given as files.

Generates --files float OpenEXR textures and an asset whose material layer (referenced from the
root layer) names each of them from a UsdUVTexture shader, then converts both ways with the same
options, interleaved and repeated on a local cluster of --workers: the folder of textures, and the
asset (the walk of its layers, the textures, the asset written and checked). Reports the median
seconds of each, their ratio, and the seconds of the asset's own line (writing and checking it).
Needs a build against OpenUSD with its scene description libraries.

    PYTHONPATH=build-usd/python /usr/bin/python3 benchmarks/asset_benchmark.py \\
        [--files 48] [--size 512] [--repetitions 3] [--workers 2] [--ext .tx]
"""

from __future__ import annotations

import argparse
import json
import os
import pathlib
import shutil
import statistics
import subprocess
import sys
import tempfile
import time

import numpy as np

import vorel_usd_image_processing as vip

BATCH = [sys.executable, "-m", "vorel_usd_image_processing.batch"]
ENV = dict(os.environ, PYTHONPATH=str(pathlib.Path(vip.__file__).resolve().parent.parent))
SHADER = """    def Shader "T{i}"
    {{
        uniform token info:id = "UsdUVTexture"
        asset inputs:file = @../textures/t{i}.exr@
    }}
"""


def make(folder: pathlib.Path, files: int, size: int) -> None:
    (folder / "textures").mkdir(parents=True)
    (folder / "layers").mkdir()
    rng = np.random.default_rng(7)
    for i in range(files):
        image = vip.Image.from_array(rng.random((size, size, 3), dtype=np.float32))
        vip.setColorSpace(image, "linear")
        assert vip.writeImage(image, folder / "textures" / f"t{i}.exr")
    shaders = "".join(SHADER.format(i=i) for i in range(files))
    (folder / "layers/material.usda").write_text(
        f'#usda 1.0\ndef Material "Mat"\n{{\n{shaders}}}\n')
    (folder / "asset.usda").write_text(
        '#usda 1.0\ndef "Model" (prepend references = @./layers/material.usda@</Mat>)\n{\n}\n')


def run(folder: pathlib.Path, given: str, ext: str, workers: int) -> tuple[float, list[dict]]:
    out = folder / "out"
    shutil.rmtree(out, ignore_errors=True)
    options = ["--texture"] if ext in (".tx", ".exr", ".tif") else []
    started = time.perf_counter()
    subprocess.run(BATCH + [given, "-o", str(out), "--ext", ext, "-q", "--workers", str(workers),
                            *options], cwd=folder, env=ENV, check=True)
    seconds = time.perf_counter() - started
    return seconds, [json.loads(line) for line in (out / "batch-report.jsonl").open()]


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--files", type=int, default=48)
    parser.add_argument("--size", type=int, default=512)
    parser.add_argument("--repetitions", type=int, default=3)
    parser.add_argument("--workers", type=int, default=2)
    parser.add_argument("--ext", default=".tx")
    args = parser.parse_args()
    if not vip.usdAssetsAvailable:
        sys.exit("asset_benchmark: this build has no USD assets (built against the stand-in)")
    with tempfile.TemporaryDirectory(prefix="vorel_asset_benchmark_") as space:
        folder = pathlib.Path(space)
        make(folder, args.files, args.size)
        times: dict[str, list[float]] = {"textures": [], "asset": []}
        asset_lines: list[float] = []
        for _ in range(args.repetitions):
            times["textures"].append(run(folder, "textures", args.ext, args.workers)[0])
            seconds, report = run(folder, "asset.usda", args.ext, args.workers)
            assert report[-1]["status"] == "converted" and len(report) == args.files + 1, report[-1]
            times["asset"].append(seconds)
            asset_lines.append(report[-1]["seconds"])
    textures, asset = (statistics.median(times[k]) for k in ("textures", "asset"))
    print(f"{args.files} textures of {args.size}x{args.size} to {args.ext}, "
          f"{args.workers} workers, median of {args.repetitions}:")
    print(f"  as files        {textures:7.2f} s")
    print(f"  as an asset     {asset:7.2f} s   ({asset / textures:.3f} x; writing and checking the "
          f"asset {statistics.median(asset_lines):.3f} s)")
    return 0


if __name__ == "__main__":
    sys.exit(main())
