import json
import os
import re
import shutil
import signal
import subprocess
import sys
import time

import numpy as np
import pytest

import vorel_usd_image_processing as vip
from conftest import gradient

BATCH = [sys.executable, "-m", "vorel_usd_image_processing.batch"]
ENV = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(os.path.abspath(vip.__file__))))
CAPTURED = dict(env=ENV, capture_output=True, text=True, timeout=120)


def write(path, height=40, width=60):
    path.parent.mkdir(parents=True, exist_ok=True)
    image = vip.Image.from_array(gradient(height, width, 3))
    vip.setColorSpace(image, "linear")
    vip.colorConvertByFormat(image, path)
    assert vip.writeImage(image, path)


def test_every_input_once_then_a_rerun_skips_the_finished_ones(tmp_path):
    for name in ("a.exr", "c.png", "d.jpg", "sub/b.tif", "crash.iff"):
        write(tmp_path / "in" / name, *((12, 64) if name == "crash.iff" else (40, 60)))
    png = (tmp_path / "in" / "c.png").read_bytes()
    (tmp_path / "in" / "cut.png").write_bytes(png[:200])
    (tmp_path / "in" / "misnamed.exr").write_bytes(png)  # a PNG: --untrusted stops trying every reader
    # TBHD flags with BLACK set: OpenImageIO 2.4.7's IFF reader aborts on its assertion.
    crash = (tmp_path / "in" / "crash.iff").read_bytes()
    (tmp_path / "in" / "crash.iff").write_bytes(crash[:32] + b"\x7f\xff\xff\xff" + crash[36:])
    command = "in -o out --ext .png --op fit=32x32 --workers 2 --untrusted"
    done = subprocess.run(BATCH + command.split(), cwd=tmp_path, **CAPTURED)
    assert done.returncode == 1, done.stderr
    expected = {  # status, reason with TMP for the folder, status on the rerun below
        "in/a.exr": ("converted", "", "skipped"), "in/c.png": ("converted", "", "skipped"),
        "in/d.jpg": ("converted", "", "skipped"), "in/sub/b.tif": ("converted", "", "skipped"),
        "in/cut.png": ("failed", "Couldn't read image TMP/in/cut.png: readImage for a .png output "
                                 "failed, with no reason from OpenImageIO", "failed"),
        "in/misnamed.exr": ("failed", "Couldn't read image TMP/in/misnamed.exr:\n"
                                      '"TMP/in/misnamed.exr" is not an OpenEXR file', "converted"),
        "in/crash.iff": ("crashed", "the converter process ended with signal SIGABRT on each of 2 tries: "
                                    r".*Assertion '!\(flags & BLACK\)' failed.*", "crashed"),
    }
    report = [json.loads(line) for line in (tmp_path / "out" / "batch-report.jsonl").open()]
    assert sorted(entry["input"] for entry in report) == sorted(expected)
    for entry in report:
        status, reason, _ = expected[entry["input"]]
        assert entry["status"] == status, entry
        assert re.fullmatch(reason, entry["reason"].replace(str(tmp_path), "TMP")), entry
        if status == "converted":  # at the reported path, in the folder the input was found in
            image = vip.readImage(entry["output"])
            assert vip.getColorSpace(image) == "sRGB" and image.pixels().shape == (21, 32, 3)
    out = tmp_path / "out"
    assert sorted(p.relative_to(out).as_posix() for p in out.rglob("*")) == \
        [".batch.lock", "a.png", "batch-report.jsonl", "c.png", "d.png", "sub", "sub/b.png"]

    before = {p: p.stat().st_mtime_ns for p in out.rglob("*.png")}
    command = "in -o out --ext .png --skip-existing --workers 1 -q --report again.jsonl"
    done = subprocess.run(BATCH + command.split(), cwd=tmp_path, **CAPTURED)
    assert done.returncode == 1 and " s left" not in done.stderr  # -q: no progress
    again = {e["input"]: e["status"] for e in map(json.loads, (tmp_path / "again.jsonl").open())}
    assert again == {name: rerun for name, (_, _, rerun) in expected.items() if rerun}
    assert before == {p: p.stat().st_mtime_ns for p in before}


def test_a_killed_batch_leaves_no_half_written_output(tmp_path):
    for i in range(24):
        write(tmp_path / "in" / f"{i:02}.exr", 256, 256)
    run = subprocess.Popen(BATCH + "in -o out --ext .tif --op resize=3000x3000 --workers 2 -q".split(),
                           cwd=tmp_path, env=dict(ENV, TMPDIR=str(tmp_path)),  # Dask's space too
                           start_new_session=True, stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 60
    while not list((tmp_path / "out").glob("[!.]*.tif")) and time.monotonic() < deadline:
        time.sleep(0.005)  # killed when its first output has a final name
    os.killpg(run.pid, signal.SIGKILL)
    run.wait()
    finished = list((tmp_path / "out").glob("[!.]*.tif"))
    assert 0 < len(finished) < 24
    expected = vip.resize(vip.readImage(tmp_path / "in" / "00.exr"), vip.ROI(0, 3000, 0, 3000))
    for path in finished:
        np.testing.assert_array_equal(vip.readImage(path).pixels(), expected.pixels())


def test_a_conversion_past_its_timeout_is_killed_and_reported(tmp_path):
    write(tmp_path / "in" / "a.exr")
    command = "in -o out --ext .exr --op resize=4000x4000 --timeout 0.2 -q --workers 1"
    done = subprocess.run(BATCH + command.split(), cwd=tmp_path, **CAPTURED)
    report = json.loads((tmp_path / "out" / "batch-report.jsonl").read_text())
    assert done.returncode == 1 and [report["status"], report["reason"]] == [
        "timed_out", "no result within 0.2 s; the converter was killed"]
    assert sorted(p.name for p in (tmp_path / "out").iterdir()) == [".batch.lock",
                                                                   "batch-report.jsonl"]


def run_batch(folder, command):
    done = subprocess.run(BATCH + command.split() + ["-q", "--workers", "2"], cwd=folder, **CAPTURED)
    assert done.returncode == 0, done.stderr
    report = [json.loads(line) for line in (folder / "out" / "batch-report.jsonl").open()]
    return {e["input"].split("/", 1)[1]: (e["status"], e["reason"], e["color_space"]) for e in report}


@pytest.mark.parametrize("options, colors, records, changed, remade", [
    ("--texture --ext .tx --tile 32x32", ("sRGB", "Linear", "sRGB"), True, "--format float",
     (np.float32, 60)),
    ("--ext .exr --op fit=30x30", ("linear",) * 3, False, "--op fit=20x20", (np.float16, 20)),
    ("--ext .png", ("sRGB",) * 3, False, "--png-compression 1", (np.uint8, 60)),
])
def test_update_redoes_exactly_what_changed_and_textures_are_tiled(tmp_path, options, colors,
                                                                   records, changed, remade):
    sources = {"a.png": np.uint8, "sub/b.exr": np.float32, "c.bmp": np.uint8}  # BMP: no tag
    for name, dtype in sources.items():
        (tmp_path / "in" / name).parent.mkdir(parents=True, exist_ok=True)
        image = vip.Image.from_array(gradient(40, 60, 3, dtype))
        vip.setColorSpace(image, "sRGB" if name == "a.png" else "linear")
        assert vip.writeImage(image, tmp_path / "in" / name)
    command = f"in/**/*.* -o out {options} --update"  # outputs keep the path below in/
    assert run_batch(tmp_path, command) == {
        name: ("converted", "", color) for name, color in zip(sources, colors)}
    out, ext = tmp_path / "out", options.split("--ext ")[1].split()[0]
    outputs = {"a.png": "a", "sub/b.exr": "sub/b", "c.bmp": "c"}
    files = [".batch.lock", "batch-report.jsonl"] + [o + ext for o in outputs.values()] + \
        [re.sub(r"(\w+)$", rf".\1{ext}.batch-record", o) for o in outputs.values() if records]
    assert sorted(p.relative_to(out).as_posix() for p in out.rglob("*.*")) == sorted(files)
    for name, output in outputs.items() if "--texture" in options else ():
        source, texture = vip.readImage(tmp_path / "in" / name), out / (output + ext)
        np.testing.assert_array_equal(vip.readImage(texture).pixels(), source.pixels())
        info = subprocess.run(["iinfo", "-v", texture], capture_output=True, text=True).stdout
        assert "MIP-map levels: 60x40 30x20 15x10 7x5 3x2 1x1\n" in info
        assert "tile size: 32 x 32\n" in info and 'textureformat: "Plain Texture"' in info

    folder = tmp_path / "moved"  # both trees moved; a.png copied over itself: new time, same bytes
    folder.mkdir()
    for tree in ("in", "out"):
        (tmp_path / tree).rename(folder / tree)
    written = {p: p.stat().st_mtime_ns for p in (folder / "out").rglob("*" + ext)}
    shutil.copy(folder / "in" / "a.png", folder / "in" / "a.copy")
    (folder / "in" / "a.copy").replace(folder / "in" / "a.png")
    c = folder / "in" / "c.bmp"
    stat, data = c.stat(), bytearray(c.read_bytes())
    data[-1] ^= 1  # another sample; size and time as recorded: not read, so not seen
    c.write_bytes(data)
    os.utime(c, ns=(stat.st_atime_ns, stat.st_mtime_ns))
    unchanged = {name: ("skipped", "up to date", color) for name, color in zip(sources, colors)}
    assert run_batch(folder, command) == unchanged
    assert written == {p: p.stat().st_mtime_ns for p in written}
    assert f'"mtime_ns":{(folder / "in" / "a.png").stat().st_mtime_ns},' in \
        (folder / "out" / f".a{ext}.batch-record").read_text()  # so it is read no more
    os.utime(c)  # now seen, with the size recorded
    write(tmp_path / "crash.iff", 12, 64)  # damaged b: an IFF on which OpenImageIO's reader aborts
    crash = (tmp_path / "crash.iff").read_bytes()
    (folder / "out" / f"sub/b{ext}").write_bytes(crash[:32] + b"\x7f\xff\xff\xff" + crash[36:])
    assert run_batch(folder, command) == dict(unchanged, **{
        "sub/b.exr": ("converted", "", colors[1]), "c.bmp": ("converted", "", colors[2])})
    assert run_batch(folder, command) == unchanged
    for statuses in ({"converted"}, {"skipped"}):
        assert {status for status, _, _ in run_batch(folder, f"{command} {changed}").values()} == statuses
    image = vip.readImage(folder / "out" / f"a{ext}")
    assert (image.dtype, image.width) == remade


@pytest.mark.parametrize("arguments, message", [
    ("in -o out --ext .png", r"batch: this Python \(.*python3.*\) can't import distributed: the batch "
     r"converter runs on Dask; install Debian's python3-distributed and run /usr/bin/python3, or "
     r"run .*python3.* -m pip install dask distributed tqdm"),
    ("in -o out --ext .png --texture", r".*error: --texture writes \.tx, \.exr, \.tif, \.tiff, not \.png"),
    ("in -o out --ext tx --tile 8x8 --envlatl", r".*error: --tile, --envlatl only with --texture"),
    ("in -o out --ext .tx --texture --tile 8", r".*error: argument --tile: '8' is not WIDTHxHEIGHT"),
])
def test_a_mistake_at_first_use_is_one_line_and_status_2(tmp_path, arguments, message):
    write(tmp_path / "in" / "a.png")
    (tmp_path / "sitecustomize.py").write_text(  # a Python without Dask's distributed
        "import sys\n"
        "class NoDistributed:\n"
        "    def find_spec(self, name, path=None, target=None):\n"
        "        if name.partition('.')[0] == 'distributed':\n"
        "            raise ModuleNotFoundError(f'No module named {name!r}', name=name)\n"
        "sys.meta_path.insert(0, NoDistributed())\n")
    env = dict(ENV, PYTHONPATH=os.pathsep.join([str(tmp_path), ENV["PYTHONPATH"]]))
    done = subprocess.run(BATCH + arguments.split(), cwd=tmp_path, **dict(CAPTURED, env=env))
    assert done.returncode == 2 and re.fullmatch(message, done.stderr.splitlines()[-1]), done.stderr
    assert "Traceback" not in done.stderr and not (tmp_path / "out").exists()


def test_texture_flags_reach_make_texture_by_its_names():
    from vorel_usd_image_processing.batch import cli, convert

    args = cli.parse_args("in -o out --ext .exr --texture --tile 16x8 --mip-filter lanczos3 --format "
                          "half --nan fix --constant-color-detect --envlatl".split())
    options = convert.texture_options(args.texture)
    assert {name: getattr(options, name) for name in ("mode", "tileWidth", "tileHeight", "mipFilter",
            "dataFormat", "nanHandling", "constantColorDetect")} == {
        "mode": vip.TextureMode.LatLongEnvironment, "tileWidth": 16, "tileHeight": 8,
        "mipFilter": "lanczos3", "dataFormat": "half", "nanHandling": vip.NanHandling.FixBox3,
        "constantColorDetect": True}
    defaults, made = vip.TextureOptions(), convert.texture_options(cli.parse_args(
        "in -o out --ext .tx --texture".split()).texture)
    assert all(getattr(made, name) == getattr(defaults, name) for name in dir(defaults)
               if not name.startswith("_"))
    assert convert.texture_options(cli.parse_args(
        "i -o o --ext .tx --texture --nan fail".split()).texture).nanHandling == vip.NanHandling.Fail
