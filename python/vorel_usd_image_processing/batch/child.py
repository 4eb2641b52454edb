"""The converter process, a child of a worker thread (or of the client, for USD assets' steps).

A file on which one of OpenImageIO's readers (or an asset on which OpenUSD) aborts costs that
process, not the worker or the batch; the same process is what a timeout kills.
"""

from __future__ import annotations

import dataclasses
import json
import os
import pathlib
import select
import signal
import subprocess
import sys
import tempfile
import time
from typing import IO, Any

import vorel_usd_image_processing as vip

from .job import Job, Result, Settings

START_SECONDS = 60  # for a converter process to import the package and say its version


class Converter:
    """A child process of this worker thread, restarted after a crash or a timeout, and replaced
    when a job comes with other settings than it was started with."""

    def __init__(self) -> None:
        self.child: subprocess.Popen[str] | None = None
        self.settings: Settings | None = None
        self.errors: IO[bytes] | None = None

    def _start(self, settings: Settings) -> subprocess.Popen[str] | str:
        """The running child, or a new one with `settings`; the reason when it can't serve."""
        if self.child is not None and self.child.poll() is None and self.settings != settings:
            self._stop()
        if self.child is None or self.child.poll() is not None:
            package_parent = str(pathlib.Path(vip.__file__).resolve().parent.parent)
            env = dict(os.environ)
            env["PYTHONPATH"] = os.pathsep.join(filter(None, [package_parent,
                                                              env.get("PYTHONPATH")]))
            # OpenImageIO reads $OCIO once, at its first colour call: the batch's config, and
            # never one that this worker happens to have.
            env.pop("OCIO", None)
            if settings.color_config:
                env["OCIO"] = settings.color_config
            self.errors = tempfile.TemporaryFile()
            self.settings = settings
            self.child = subprocess.Popen(
                [sys.executable, "-m", "vorel_usd_image_processing.batch", "--serve",
                 json.dumps(dataclasses.asdict(settings))],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=self.errors, text=True,
                env=env)
            assert self.child.stdout is not None
            ready, _, _ = select.select([self.child.stdout], [], [], START_SECONDS)
            hello = json.loads(self.child.stdout.readline() or "{}") if ready else {}
            if hello.get("version") != settings.version:
                self._stop()
                error = self._last_error()  # why it said nothing, if it didn't
                return (f"the converter process here runs version {hello.get('version')} of "
                        f"vorel_usd_image_processing, the batch {settings.version}"
                        + (f": {error}" if error else ""))
        return self.child

    def _stop(self) -> int:
        assert self.child is not None
        self.child.kill()
        code = self.child.wait()
        self.child = None
        return code

    def _last_error(self) -> str:
        if self.errors is None:
            return ""
        self.errors.seek(0)
        text = self.errors.read().decode(errors="replace").strip().splitlines()
        return text[-1][:300] if text else ""

    def run(self, job: Job) -> Result:
        """The job's result; a file that takes the child down is tried once more in a fresh one."""
        started = time.monotonic()
        answer = self.ask(dataclasses.asdict(job), job.timeout, job.settings)
        if isinstance(answer, tuple):
            pathlib.Path(job.partial).unlink(missing_ok=True)
            return job.result(*answer, started)
        return answer

    def ask(self, request: dict[str, Any], timeout: float | None,
            settings: Settings) -> dict[str, Any] | tuple[str, str]:
        """The child's reply to one request, tried once more in a fresh child if the first dies;
        otherwise the status (failed, crashed, timed_out) and the reason."""
        for tries in (1, 2):
            child = self._start(settings)
            if isinstance(child, str):
                return "failed", child
            assert child.stdin is not None and child.stdout is not None
            child.stdin.write(json.dumps(request) + "\n")
            child.stdin.flush()
            ready, _, _ = select.select([child.stdout], [], [], timeout)
            reply = child.stdout.readline() if ready else ""
            if reply:
                answer: dict[str, Any] = json.loads(reply)
                return answer
            code = self._stop()
            if not ready:
                return "timed_out", f"no result within {timeout:g} s; the converter was killed"
        how = f"signal {signal.Signals(-code).name}" if code < 0 else f"exit status {code}"
        return "crashed", (f"the converter process ended with {how} on each of {tries} tries: "
                           f"{self._last_error()}")

    def close(self) -> None:
        """Ends the child: its loop ends with its input."""
        if self.child is not None and self.child.poll() is None:
            assert self.child.stdin is not None
            self.child.stdin.close()
            self.child.wait()
