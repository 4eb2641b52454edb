import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time

import numpy as np
import pytest

import vorel_usd_image_processing as vip
from conftest import gradient

BATCH = [sys.executable, "-m", "vorel_usd_image_processing.batch"]
ENV = dict(os.environ, PYTHONPATH=os.path.dirname(os.path.dirname(os.path.abspath(vip.__file__))))


def write(path, height=40, width=60):
    path.parent.mkdir(parents=True, exist_ok=True)
    image = vip.Image.from_array(gradient(height, width, 3))
    vip.setColorSpace(image, "linear")
    vip.colorConvertByFormat(image, path)
    assert vip.writeImage(image, path)


@pytest.fixture(scope="module")
def batch():
    """One run over good, damaged and hostile files, and its report by input."""
    with tempfile.TemporaryDirectory(prefix="vorel_batch_test_") as folder:
        root = pathlib.Path(folder)
        yield root, *run_batch(root)


def run_batch(root):
    for name in ("a.exr", "c.png", "d.jpg", "sub/b.tif", "crash.iff"):
        write(root / "in" / name, 12 if name == "crash.iff" else 40, 64 if name == "crash.iff" else 60)
    (root / "in" / "garbage.exr").write_bytes(b"not an image")
    (root / "in" / "cut.png").write_bytes((root / "in" / "c.png").read_bytes()[:200])
    # TBHD flags with BLACK set: OpenImageIO 2.4.7's IFF reader aborts on its assertion.
    crash = bytearray((root / "in" / "crash.iff").read_bytes())
    crash[32:36] = b"\x7f\xff\xff\xff"
    (root / "in" / "crash.iff").write_bytes(crash)
    os.mkfifo(root / "slow.png")  # opening it waits for a writer that never comes
    args = ["in", "slow.png", "-o", "out", "--ext", ".png", "--op", "fit=32x32", "--workers", "2",
            "--timeout", "3", "--untrusted"]
    done = subprocess.run(BATCH + args, cwd=root, env=ENV, capture_output=True, text=True, timeout=120)
    return done, [json.loads(line) for line in (root / "out" / "batch-report.jsonl").open()]


def test_every_input_once_with_its_status_and_reason(batch):
    root, done, report = batch
    assert done.returncode == 1, done.stderr
    by_input = {entry["input"]: entry for entry in report}
    assert len(by_input) == len(report) == 8
    expected = {
        "in/a.exr": ("converted", ""), "in/c.png": ("converted", ""),
        "in/d.jpg": ("converted", ""), "in/sub/b.tif": ("converted", ""),
        "in/cut.png": ("failed", f"Couldn't read image {root}/in/cut.png:\n"),
        "in/garbage.exr": ("failed", f"Couldn't read image {root}/in/garbage.exr:\n"),
        "in/crash.iff": ("crashed", "the converter process ended with signal SIGABRT, twice: "),
        "slow.png": ("timed_out", "no result within 3 s; the converter was killed"),
    }
    for name, (status, reason) in expected.items():
        assert by_input[name]["status"] == status, by_input[name]
        assert by_input[name]["reason"].startswith(reason), by_input[name]
    assert "Assertion '!(flags & BLACK)' failed" in by_input["in/crash.iff"]["reason"]
    assert "is not an OpenEXR file" in by_input["in/garbage.exr"]["reason"]
    assert by_input["in/sub/b.tif"]["output"] == str(root / "out" / "sub" / "b.png")


def test_outputs_read_back_converted_and_nothing_else_is_left(batch):
    root, _, report = batch
    outputs = sorted(p.relative_to(root / "out").as_posix() for p in (root / "out").rglob("*"))
    assert outputs == ["a.png", "batch-report.jsonl", "c.png", "d.png", "sub", "sub/b.png"]
    for name in ("a.png", "c.png", "d.png", "sub/b.png"):
        image = vip.readImage(root / "out" / name)
        assert vip.getColorSpace(image) == "sRGB" and image.pixels().shape == (21, 32, 3)


def test_rerun_with_skip_existing_leaves_the_finished_ones(batch):
    root, _, _ = batch
    before = {p: p.stat().st_mtime_ns for p in (root / "out").rglob("*.png")}
    args = ["in", "-o", "out", "--ext", ".png", "--skip-existing", "--workers", "1", "-q",
            "--report", "again.jsonl"]
    done = subprocess.run(BATCH + args, cwd=root, env=ENV, capture_output=True, text=True, timeout=120)
    statuses = {e["input"]: e["status"] for e in map(json.loads, (root / "again.jsonl").open())}
    assert done.returncode == 1 and " s left" not in done.stderr  # -q: no progress
    assert [statuses[n] for n in ("in/a.exr", "in/sub/b.tif", "in/cut.png")] == \
        ["skipped", "skipped", "failed"]
    assert before == {p: p.stat().st_mtime_ns for p in (root / "out").rglob("*.png")}


def test_a_killed_batch_leaves_no_half_written_output(tmp_path):
    for i in range(24):
        write(tmp_path / "in" / f"{i:02}.exr", 256, 256)
    args = ["in", "-o", "out", "--ext", ".tif", "--op", "resize=3000x3000", "--workers", "2", "-q"]
    batch = subprocess.Popen(BATCH + args, cwd=tmp_path, env=ENV, start_new_session=True,
                             stderr=subprocess.DEVNULL)
    deadline = time.monotonic() + 60
    while not list((tmp_path / "out").glob("[!.]*.tif")) and time.monotonic() < deadline:
        time.sleep(0.005)  # killed when its first output has a final name
    os.killpg(batch.pid, signal.SIGKILL)
    batch.wait()
    finished = list((tmp_path / "out").glob("[!.]*.tif"))
    assert 0 < len(finished) < 24
    expected = vip.resize(vip.readImage(tmp_path / "in" / "00.exr"), vip.ROI(0, 3000, 0, 3000))
    for path in finished:
        np.testing.assert_array_equal(vip.readImage(path).pixels(), expected.pixels())
