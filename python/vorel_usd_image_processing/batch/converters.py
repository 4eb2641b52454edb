"""The cluster that runs the jobs, each worker thread through a converter process of its own."""

from __future__ import annotations

import logging
import tempfile
import threading
from typing import Iterator

import dask
from distributed import Client, LocalCluster, as_completed

from .child import Converter
from .job import Job, Result

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
        # process, which is what isolates a crash, and threads start a second sooner. Its HTTP
        # server takes any free port: on the default one, taken by another cluster, Dask warns.
        cluster = None if scheduler else LocalCluster(  # type: ignore[no-untyped-call]
            n_workers=workers, threads_per_worker=1, processes=False, local_directory=space,
            dashboard_address=":0", silence_logs=logging.ERROR)
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
