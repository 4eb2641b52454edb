"""What the batch never does, on hostile trees: change a source, write outside its output folder,
take what it doesn't convert, or run two at once on one output folder."""
import dataclasses
import hashlib
import json
import os
import re
import socket
import subprocess
import sys

import pytest

import vorel_usd_image_processing as vip
from test_batch import BATCH, CAPTURED, write


def sources(folder, out="out"):
    """Every path outside `folder/out` with its kind and content: what a batch may not change."""
    found = {}
    for path in sorted(folder.rglob("*")):
        relative = path.relative_to(folder).as_posix()
        if relative == out or relative.startswith(out + "/"):
            continue
        if path.is_symlink():
            found[relative] = "-> " + os.readlink(path)
        elif path.is_file():
            found[relative] = hashlib.sha256(path.read_bytes()).hexdigest()
        else:
            found[relative] = "fifo" if path.is_fifo() else "folder"
    return found


def batch(folder, command):
    done = subprocess.run(BATCH + command.split() + ["-q", "--workers", "1"], cwd=folder, **CAPTURED)
    report = folder / "out" / "batch-report.jsonl"
    lines = [json.loads(line) for line in report.open()] if report.exists() else []
    return done, {entry["input"]: (entry["status"], entry["reason"]) for entry in lines}


@pytest.mark.parametrize("command, refusal", [
    ("in -o in --ext .png --op fit=32x32", r"TMP/in/a.png would be written over the source TMP/in/a.png"),
    ("in -o link --ext .png", r"TMP/link/a.png would be written over the source TMP/in/a.png"),
    ("in/a.png in/a.exr -o out --ext .tif",
     r"TMP/in/a.png and TMP/in/a.exr would both be written to TMP/out/a.tif"),
    ("in/c.png -o out --ext .png --report in/c.png",
     r"TMP/in/c.png would be written over the source TMP/in/c.png"),
    ("in/b in/c.png in/a.png -o out --ext .exr --dry-run",
     r"TMP/in/b/a.exr and TMP/in/a.png would both be written to TMP/out/a.exr"),
    ("in/b in/c.png -o out --ext .exr --dry-run", None),
])
def test_a_plan_that_would_change_a_source_or_mix_two_writes_nothing(tmp_path, command, refusal):
    for name in ("a.png", "a.exr", "b/a.exr", "c.png"):
        write(tmp_path / "in" / name)
    (tmp_path / "link").symlink_to("in")
    before = sources(tmp_path)
    done, report = batch(tmp_path, command)
    after = sources(tmp_path)
    assert after == before and not (tmp_path / "out").exists() and report == {}, done.stderr
    if "--dry-run" in command:  # each input and its output, then why the plan is refused
        assert done.stdout.replace(str(tmp_path), "TMP").splitlines()[:2] == [
            "in/b/a.exr -> TMP/out/a.exr", "in/c.png -> TMP/out/c.exr"]
        assert done.returncode == (2 if refusal else 0) and done.stdout.endswith(
            f"refused: {refusal}\n".replace("TMP", str(tmp_path)) if refusal else "exr\n")
    else:
        lines = done.stderr.replace(str(tmp_path), "TMP").splitlines()
        assert done.returncode == 2 and f"batch: refused: {refusal}" in lines, done.stderr
        assert lines[-1] == "batch: nothing was written"


def test_a_walk_takes_what_it_converts_and_never_its_own_outputs(tmp_path):
    folder = tmp_path / "in"
    for name in ("a.png", "sub/b.exr", "br[1].png", ".hidden/c.png", "../elsewhere/d.png"):
        write(folder / name)
    (folder / "README.txt").write_text("notes")
    (folder / ".DS_Store").write_bytes(b"\0\0\0\1Bud1")
    (folder / "loop").symlink_to(".")  # a folder that holds itself
    (folder / "latest.png").symlink_to("a.png")  # a versioned publish
    (folder / "sub" / "outside.png").symlink_to("../../elsewhere/d.png")
    os.mkfifo(folder / "pipe.png")  # a walk skips it; named, it fails at once
    command = "in in/br[1].png in/pipe.png -o in/out --texture --ext .tx --update -q --workers 2"
    before = sources(tmp_path, "in/out")
    with socket.socket() as dashboard:  # Dask's default port taken, as by a notebook's cluster
        try:
            dashboard.bind(("", 8787))
            dashboard.listen()
        except OSError:
            pass  # taken already
        done = subprocess.run(BATCH + command.split(), cwd=tmp_path, **CAPTURED)
    assert done.returncode == 1 and done.stderr == "", done.stderr  # -q is quiet
    first = {"in/a.png": "converted", "in/br[1].png": "converted", "in/latest.png": "converted",
             "in/sub/b.exr": "converted", "in/sub/outside.png": "converted", "in/pipe.png": "failed"}
    report = [json.loads(line) for line in (folder / "out/batch-report.jsonl").open()]
    assert {entry["input"]: entry["status"] for entry in report} == first
    assert next(e["reason"] for e in report if e["input"] == "in/pipe.png") == "not a regular file"

    # Again, untrusted: the outputs inside the input folder are not inputs, nothing is redone, and
    # no link leads out of the folder walked.
    done = subprocess.run(BATCH + command.split() + ["--untrusted"], cwd=tmp_path, **CAPTURED)
    report = [json.loads(line) for line in (folder / "out/batch-report.jsonl").open()]
    del first["in/sub/outside.png"]
    assert {entry["input"]: entry["status"] for entry in report} == dict(
        {name: "skipped" for name in first}, **{"in/pipe.png": "failed"}), done.stderr
    written = sorted(path.relative_to(folder / "out").as_posix()
                     for path in (folder / "out").rglob("*") if path.is_file())
    assert written == [".a.tx.batch-record", ".batch.lock", ".br[1].tx.batch-record",
                       ".latest.tx.batch-record", "a.tx", "batch-report.jsonl", "br[1].tx",
                       "latest.tx", "sub/.b.tx.batch-record", "sub/.outside.tx.batch-record",
                       "sub/b.tx", "sub/outside.tx"]
    assert sources(tmp_path, "in/out") == before


def test_one_batch_at_a_time_on_an_output_folder_and_leftovers_of_its_own_only(tmp_path):
    write(tmp_path / "in" / "a.png")
    (tmp_path / "out").mkdir()
    holder = subprocess.Popen([sys.executable, "-c", (
        "import fcntl, sys, time\n"
        "lock = open('out/.batch.lock', 'a')\n"
        "fcntl.flock(lock, fcntl.LOCK_EX)\n"
        "print('held', flush=True)\n"
        "time.sleep(120)\n")], cwd=tmp_path, stdout=subprocess.PIPE, text=True)
    try:
        assert holder.stdout.readline() == "held\n"
        done, report = batch(tmp_path, "in -o out --ext .png")
        assert done.returncode == 2 and report == {}
        assert done.stderr.replace(str(tmp_path), "TMP") == (
            "batch: another batch is writing into out (it holds out/.batch.lock); nothing was "
            "written\n")
    finally:
        holder.kill()  # killed, it holds the lock no more
        holder.wait()
    leftovers = [".a.png.partial.png", ".a.png.partial.k3Xq9.temp.png", "..a.png.batch-record"
                 ".partial.batch-record"]
    kept = [".b.png.partial.png", ".a.png.partial", "a.png.partial.png", ".a.png.partial.x.temp.tx"]
    for name in leftovers + kept:
        (tmp_path / "out" / name).write_text("left by a killed batch")
    done, report = batch(tmp_path, "in -o out --ext .png")
    assert done.returncode == 0 and report == {"in/a.png": ("converted", "")}, done.stderr
    assert sorted(p.name for p in (tmp_path / "out").iterdir()) == sorted(
        kept + [".batch.lock", "a.png", "batch-report.jsonl"])
    assert re.fullmatch(r"[0-9a-f]{64}", sources(tmp_path)["in/a.png"])


def test_a_converter_of_another_version_of_the_package_is_not_used(tmp_path):
    from vorel_usd_image_processing.batch.child import Converter
    from vorel_usd_image_processing.batch.job import Job

    write(tmp_path / "a.png")
    job = Job("a.png", str(tmp_path / "a.png"), str(tmp_path / "b.png"), version="0.0.1")
    converter = Converter()
    try:
        result = converter.run(job)
        assert (result["status"], result["reason"]) == ("failed", (
            f"the converter process here runs version {vip.__version__} of "
            "vorel_usd_image_processing, the batch 0.0.1"))
        assert converter.run(dataclasses.replace(job, version=vip.__version__))["status"] == \
            "converted"
    finally:
        converter.close()
