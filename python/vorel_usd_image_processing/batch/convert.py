"""The conversion of one file, run in a converter process, and that process's loop."""

from __future__ import annotations

import json
import logging
import os
import pathlib
import time
from typing import IO

import vorel_usd_image_processing as vip

from . import update
from .assets import is_packaged, step
from .job import Job, Result, Texture
from .operations import OPERATIONS

LOGGER = "vorel_usd_image_processing"


class _Lines(logging.Handler):
    """The library's warning and error lines since the last clear."""

    def __init__(self) -> None:
        super().__init__(logging.WARNING)
        self.lines: list[str] = []

    def emit(self, record: logging.LogRecord) -> None:
        self.lines.append(record.getMessage())


def convert(job: Job, lines: _Lines) -> Result:
    """Reads, operates, converts and writes one file; a failure reports the library's line."""
    started = time.monotonic()

    def failed(step: str) -> Result:
        pathlib.Path(job.partial).unlink(missing_ok=True)
        return job.result("failed", lines.lines[-1] if lines.lines else f"{step} failed", started)

    lines.lines.clear()
    try:  # before reading: a source changed while it is converted is converted again next time
        record = update.source_record(job)
    except OSError:
        record = {}  # readImage fails below with the library's line
    image = vip.readAssetImage(job.source) if is_packaged(job.source) else vip.readImage(job.source)
    if not image:
        return failed("readImage")
    for op in job.ops:
        name, _, argument = op.partition("=")
        try:
            image = OPERATIONS[name](image, argument)
        except (ValueError, TypeError, IndexError) as error:
            return job.result("failed", f"--op {op}: {error}", started)
        if not image:
            return failed(f"--op {op}")
    if job.usage == "raw":  # data: no colour space, nothing converted
        vip.setColorSpace(image, "raw")
    else:
        vip.colorConvertByFormat(image, job.output)
    if not image:
        return failed("colorConvertByFormat")
    os.makedirs(os.path.dirname(job.output) or ".", exist_ok=True)
    vip.addMetadataToImage(image, {update.ATTRIBUTE: update.as_text(record)})
    if job.texture is not None:
        if not vip.makeTexture(image, job.partial, texture_options(job.texture)):
            return failed("makeTexture")
    elif not vip.writeImage(image, job.partial, job.png_compression):
        return failed("writeImage")
    color_space = "raw" if job.usage == "raw" else written_color_space(job, image)
    update.keep(job, record, color_space)
    return job.result("converted", "", started, color_space)


def texture_options(texture: Texture) -> vip.TextureOptions:
    nan = {"leave": vip.NanHandling.Leave, "fix": vip.NanHandling.FixBox3,
           "fail": vip.NanHandling.Fail}[texture.nan]
    mode = vip.TextureMode.LatLongEnvironment if texture.envlatl else vip.TextureMode.Texture
    return vip.TextureOptions(mode=mode, tileWidth=texture.tile_width,
                              tileHeight=texture.tile_height, mipFilter=texture.mip_filter,
                              dataFormat=texture.data_format, nanHandling=nan,
                              constantColorDetect=texture.constant_color_detect)


def written_color_space(job: Job, image: vip.Image) -> str:
    """The colour space that the written file names, as OpenImageIO reads it back.

    A TIFF names "sRGB" and no other; one that names none but holds half or float samples is
    linear by the convention of renderers, and is reported so.
    """
    named = vip.getFileStringAttribute(job.partial, "oiio:ColorSpace")
    if named or pathlib.Path(job.output).suffix.lower() not in (".tif", ".tiff", ".tx"):
        return named
    written = job.texture.data_format if job.texture and job.texture.data_format else ""
    floats = written in ("half", "float", "double") if written else image.dtype.kind == "f"
    return "linear" if floats else ""


def serve(settings: str, requests: IO[str], replies: IO[str]) -> None:
    """The converter's loop: OpenImageIO's attributes of `settings` (JSON) set before anything
    is read, its version as the first line out, then a job as a line of JSON in, its result as
    a line of JSON out."""
    lines = _Lines()
    logger = logging.getLogger(LOGGER)
    logger.addHandler(lines)
    logger.propagate = False
    for name, value in json.loads(settings)["attributes"]:
        vip.setOpenImageIOAttribute(name, value)
    replies.write(json.dumps({"version": vip.__version__}) + "\n")
    replies.flush()
    for request in requests:
        fields = json.loads(request)
        if "asset_step" in fields:  # a step of a USD asset, for the client (assets.step)
            reply = step(fields)
        else:
            reply = convert(Job.from_json(request), lines)
        replies.write(json.dumps(reply) + "\n")
        replies.flush()
