"""The batch on a real cluster: a Dask scheduler and two workers, processes of their own on
127.0.0.1, one of them killed with its converter mid-batch, the other serving a later batch."""
import glob
import json
import os
import signal
import subprocess
import sys
import time

import pytest

from test_batch import BATCH, CAPTURED, ENV, write

pytest.importorskip("distributed")
DASK = [sys.executable, "-m", "distributed.cli.dask_scheduler"]
WORKER = [sys.executable, "-m", "distributed.cli.dask_worker"]


def started(command, folder):
    """A process in a session of its own, so that it dies with its children."""
    return subprocess.Popen(command, cwd=folder, env=ENV, start_new_session=True,
                            stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)


def wait_for(condition, seconds=60):
    deadline = time.monotonic() + seconds
    while not (found := condition()):
        assert time.monotonic() < deadline
        time.sleep(0.01)
    return found


def writing(folder, groups):
    """The process group, among `groups`, of a process that holds a texture's temporary in
    `folder` open: a converter in the middle of a job."""
    for temporary in folder.glob(".*.partial.*.temp.tx"):
        for link in glob.glob("/proc/[0-9]*/fd/*"):
            try:
                if os.readlink(link) == str(temporary):
                    group = os.getpgid(int(link.split("/")[2]))
                    return group if group in groups else None
            except OSError:
                pass  # gone meanwhile
    return None


def test_a_worker_killed_with_its_converter_loses_nothing(tmp_path):
    for i in range(12):
        write(tmp_path / "in" / f"t{i:02}.exr", 64, 64)
    address = tmp_path / "scheduler.json"
    processes = [started(DASK + ["--host", "127.0.0.1", "--port", "0", "--no-dashboard",
                                 "--scheduler-file", str(address)], tmp_path)]
    try:
        wait_for(address.exists)
        workers = [started(WORKER + ["--scheduler-file", str(address), "--nthreads", "1",
                                     "--no-dashboard", "--no-nanny", "--host", "127.0.0.1"], tmp_path)
                   for _ in range(2)]
        processes += workers
        scheduler = json.loads(address.read_text())["address"]
        command = (f"in -o out --texture --ext .tx --op resize=1500x1500 -q --scheduler {scheduler}"
                   .split())
        batch = subprocess.Popen(BATCH + command, cwd=tmp_path, env=ENV, stderr=subprocess.PIPE,
                                 text=True)
        report = tmp_path / "out" / "batch-report.jsonl"
        wait_for(lambda: report.exists() and len(report.read_text().splitlines()) >= 2, 120)
        # The worker whose converter is writing a texture, killed with it: its temporary stays.
        os.killpg(wait_for(lambda: writing(tmp_path / "out", [w.pid for w in workers])),
                  signal.SIGKILL)
        assert batch.wait(timeout=CAPTURED["timeout"]) == 0, batch.stderr.read()

        # A later batch's limits reach the converter that an earlier one started on the worker.
        write(tmp_path / "big" / "big.exr", 1024, 1024)  # 12 MB of pixels
        command = f"big -o limited --ext .exr --untrusted --max-image-mb 1 -q --scheduler {scheduler}"
        done = subprocess.run(BATCH + command.split(), cwd=tmp_path, **CAPTURED)
        limited = json.loads((tmp_path / "limited" / "batch-report.jsonl").read_text())
        assert done.returncode == 1 and limited["reason"] == (
            f"Couldn't read image {tmp_path}/big/big.exr:\n"
            "12 MB of pixel data exceed the limit of 1 MB (limits:imagesize_MB)")
    finally:
        for process in processes:
            os.killpg(process.pid, signal.SIGKILL)
            process.wait()
    lines = [json.loads(line) for line in report.open()]
    assert sorted(entry["input"] for entry in lines) == [f"in/t{i:02}.exr" for i in range(12)]
    assert {entry["status"] for entry in lines} == {"converted"}
    written = sorted(path.name for path in (tmp_path / "out").iterdir())
    assert written == sorted([".batch.lock", "batch-report.jsonl"] + [f"t{i:02}.tx" for i in range(12)]
                             + [f".t{i:02}.tx.batch-record" for i in range(12)])
