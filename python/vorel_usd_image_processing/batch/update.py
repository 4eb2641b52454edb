"""The record of what made an output, kept with it, and whether the output is up to date.

A record holds a digest of the options (everything that shapes the output, the library's version
included) and the source's size, modification time and SHA-256 of its bytes; never a path, so
input and output trees moved or copied together still match. It is kept in the output's own
metadata as the string attribute "vorel:batch" where the format keeps such a string (OpenEXR,
PNG), otherwise in a hidden file beside the output, ``.NAME.batch-record``, which then also holds
the output's size and the colour space reported for it.
"""

from __future__ import annotations

import dataclasses
import hashlib
import json
import os
import pathlib
from typing import Any

import vorel_usd_image_processing as vip

from .assets import PACKAGED, outer_file
from .colour import RULE_VERSION, config_digest
from .job import Job, Result, partial_name

ATTRIBUTE = "vorel:batch"
Record = dict[str, Any]


def sidecar(output: str) -> pathlib.Path:
    path = pathlib.Path(output)
    return path.with_name(f".{path.name}.batch-record")


def options_digest(job: Job) -> str:
    """Of what shapes the output: operations, extension, PNG compression, texture, library, and
    the colour decision (stated or assumed space, the rule's version, the config's text)."""
    extension = pathlib.Path(job.output).suffix.lower()
    options = {"ops": job.ops, "extension": extension, "library": vip.__version__,
               "png_compression": job.png_compression if extension == ".png" else None,
               "texture": dataclasses.asdict(job.texture) if job.texture else None,
               "usage": job.usage, "color_space": job.color_space, "assume": job.assume,
               "color_rule": RULE_VERSION, "color_config": config_digest(job.color_config)}
    return hashlib.sha256(json.dumps(options, sort_keys=True).encode()).hexdigest()


def source_digest(source: str) -> str:
    """SHA-256 of a source's bytes: of the file inside, for a texture in a .usdz package, so that
    another change to the package leaves it up to date. The bytes inside are read by OpenUSD's
    resolver, the reader that converts them, so that what is recorded is what was converted."""
    if PACKAGED.match(source) is None:
        with open(source, "rb") as file:
            return hashlib.file_digest(file, "sha256").hexdigest()
    data = vip.readAssetBytes(source)
    if data is None:
        raise OSError(f"{source} can't be read")
    return hashlib.sha256(data).hexdigest()


def source_record(job: Job) -> Record:
    """The record of the job's source as it is now; reads all of its bytes. The size and time are
    its file's: a texture in a package has the package's."""
    stat = os.stat(outer_file(job.source))
    return {"options": options_digest(job), "size": stat.st_size, "mtime_ns": stat.st_mtime_ns,
            "sha256": source_digest(job.source)}


def as_text(record: Record) -> str:
    return json.dumps(record, sort_keys=True, separators=(",", ":"))


def write_sidecar(output: str, record: Record) -> None:
    """Under a temporary name, then renamed: a reader never sees half a record."""
    path = sidecar(output)
    partial = pathlib.Path(partial_name(str(path)))
    partial.write_text(as_text(record))
    os.replace(partial, path)


def keep(job: Job, record: Record, color_space: str) -> None:
    """Puts the written job.partial in place under job.output, with its record.

    The record was set on the image as ATTRIBUTE before writing; where the file kept it, any
    record beside an earlier output goes, otherwise the record is written there.
    """
    in_file = vip.getFileStringAttribute(job.partial, ATTRIBUTE) == as_text(record)
    sidecar(job.output).unlink(missing_ok=True)
    os.replace(job.partial, job.output)
    if not in_file:
        write_sidecar(job.output, {**record, "output_size": os.stat(job.output).st_size,
                                   "color_space": color_space})


def read_record(output: str) -> Record | None:
    """The record beside the output, else the one in it; None for none (or a damaged one)."""
    try:
        text = sidecar(output).read_text()
    except FileNotFoundError:
        text = vip.getFileStringAttribute(output, ATTRIBUTE)
    except OSError:
        return None
    try:
        record = json.loads(text)
    except ValueError:
        return None
    return record if isinstance(record, dict) else None


def up_to_date(job: Job) -> Result | None:
    """The skipped result when the output was made from this source's bytes with these options.

    A source whose size and modification time are those recorded is not read; one whose time
    alone changed (touched, copied) is read for its digest, and when that matches, the record
    beside the output takes the new time so that the next run need not read it again.
    """
    record = read_record(job.output)
    if record is None or record.get("options") != options_digest(job):
        return None
    try:
        stat = os.stat(outer_file(job.source))
        if "output_size" in record and os.stat(job.output).st_size != record["output_size"]:
            return None
    except OSError:
        return None
    if (stat.st_size, stat.st_mtime_ns) != (record.get("size"), record.get("mtime_ns")):
        if stat.st_size != record.get("size") and not PACKAGED.match(job.source):
            return None
        try:
            now = source_record(job)
        except OSError:
            return None
        if now["sha256"] != record.get("sha256"):
            return None
        try:
            record.setdefault("output_size", os.stat(job.output).st_size)
            write_sidecar(job.output, {**record, **now})
        except OSError:
            pass  # a read-only output folder: the next run reads the source again
    return job.result("skipped", "up to date", color_space=record.get("color_space", ""))
