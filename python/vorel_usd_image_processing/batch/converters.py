"""The converter processes, one per Dask worker thread, and the cluster that runs them.

A file on which one of OpenImageIO's readers aborts costs a converter process, not the worker or
the batch; the same process is what a per-file timeout kills.
"""

from __future__ import annotations

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
from typing import IO, Iterator

import dask
from distributed import Client, LocalCluster, as_completed

import vorel_usd_image_processing as vip

from .job import Job, Result


class Converter:
    """A child process of this worker thread, restarted after a crash or a timeout."""

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
        child.stdin.write(job.to_json() + "\n")
        child.stdin.flush()
        ready, _, _ = select.select([child.stdout], [], [], job.timeout)
        if not ready:
            self._stop()
            pathlib.Path(job.partial).unlink(missing_ok=True)
            return job.result("timed_out",
                              f"no result within {job.timeout:g} s; the converter was killed",
                              started)
        reply = child.stdout.readline()
        result: Result | None = json.loads(reply) if reply else None
        return result

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
        return job.result("crashed", f"the converter process ended with {how} on each of {tries} "
                                     f"tries: {self._last_error()}", started)


_converters = threading.local()


def convert_on_worker(job: Job) -> Result:
    """The task that Dask runs: one file, through this worker thread's converter process."""
    if not hasattr(_converters, "converter"):
        _converters.converter = Converter()
    converter: Converter = _converters.converter
    return converter.run(job)


def run_on_cluster(jobs: list[Job], workers: int, scheduler: str | None) -> Iterator[Result]:
    """Each job's result as it arrives, from a local cluster of `workers` or from `scheduler`."""
    # A task whose worker dies is given to one more worker, then reported: crashed.
    with dask.config.set({"distributed.scheduler.allowed-failures": 1}), \
            tempfile.TemporaryDirectory(prefix="vorel-batch-dask-") as space:
        # Locally, the workers are threads of this process: each only waits on its converter
        # process, which is what isolates a crash, and threads start a second sooner.
        cluster = None if scheduler else LocalCluster(  # type: ignore[no-untyped-call]
            n_workers=workers, threads_per_worker=1, processes=False, local_directory=space,
            dashboard_address=None, silence_logs=logging.ERROR)
        with Client(scheduler or cluster) as client:  # type: ignore[no-untyped-call]
            futures = client.map(convert_on_worker, jobs, pure=False)
            job_of = {future.key: job for future, job in zip(futures, jobs)}
            for future in as_completed(futures):  # type: ignore[no-untyped-call]
                job = job_of[future.key]
                try:
                    yield future.result()
                except Exception as error:  # KilledWorker, a lost worker: the task's end
                    yield job.result("crashed", f"{type(error).__name__}: {error}")
        if cluster is not None:
            cluster.close()  # type: ignore[no-untyped-call]
