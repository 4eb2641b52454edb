"""The conversion of one file, run in a converter process, and that process's loop."""

from __future__ import annotations

import json
import logging
import os
import pathlib
import time
from typing import IO

import numpy

import vorel_usd_image_processing as vip

from . import update
from .assets import is_packaged, step
from .colour import (DATA, channels_lost, channels_written, convert_for, foreign_profile,
                     source_space, tag_read_back)
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
    """Reads, operates, converts and writes one file, then reads the written file back before it
    takes its final name; a failure reports the library's line."""
    started = time.monotonic()
    extension = pathlib.Path(job.output).suffix.lower()
    said = {"color_config": job.color_config} if job.color_config else {}

    def failed(reason: str) -> Result:
        pathlib.Path(job.partial).unlink(missing_ok=True)
        return job.result("failed", reason, started, **said)

    lines.lines.clear()
    try:  # before reading: a source changed while it is converted is converted again next time
        record = update.source_record(job)
    except OSError:
        record = {}  # readImage fails below with the library's line
    image = vip.readAssetImage(job.source) if is_packaged(job.source) else vip.readImage(job.source)
    if not image:
        return failed(library_reason(lines, "readImage", extension))
    from_cmyk = vip.removeCmykAttributes(image)  # RGB now: a file written of it must say so
    space, said["color_space_source"] = source_space(image, job.color_space, job.usage,
                                                     job.assume, from_cmyk)
    if space != DATA and (profile := foreign_profile(image)):
        said["icc_profile"] = profile
    if space != vip.getColorSpace(image):
        vip.setColorSpace(image, space)
    for op in job.ops:
        name, _, argument = op.partition("=")
        try:
            image = OPERATIONS[name](image, argument)
        except (ValueError, TypeError, IndexError) as error:
            return failed(f"--op {op}: {error}")
        if not image:
            return failed(library_reason(lines, f"--op {op}", extension))
    meant = vip.getColorSpace(image)
    if meant != DATA:
        target = vip.getColorSpaceForExtension(job.output)
        image = convert_for(image, target, job.output)
        if not image:
            config = job.color_config or "OpenImageIO's built-in colour names"
            return failed(f"no conversion from '{meant}' to '{target}' for {extension} with "
                          f"{config}: " + library_reason(lines, "colorConvert", extension))
        meant = vip.getColorSpace(image)
    if record:  # a skipped line says what this one says, in whatever case the file reads back
        record["color_space"] = meant
    os.makedirs(os.path.dirname(job.output) or ".", exist_ok=True)
    vip.addMetadataToImage(image, {update.ATTRIBUTE: update.as_text(record)})
    if job.texture is not None:
        if not vip.makeTexture(image, job.partial, texture_options(job.texture)):
            return failed(library_reason(lines, "makeTexture", extension))
    elif not vip.writeImage(image, job.partial, job.png_compression):
        return failed(library_reason(lines, "writeImage", extension))
    back = vip.readBackImageFile(job.partial)
    problem = back.error or unlike(back, image, meant, extension)
    if problem:
        return failed(problem)
    lost = [words for words in (channels_lost(vip.getNumChannels(image), extension),
                                clipped(image, back.format)) if words]
    if lost:
        said["lost"] = "; ".join(lost)
    update.keep(job, record, meant)
    return job.result("converted", "", started, meant, **said)


def library_reason(lines: _Lines, step: str, extension: str) -> str:
    """The library's last line, else (or where that line stops at its colon) the step that failed
    and the output's format: a failed line never goes without a reason."""
    line = lines.lines[-1].strip() if lines.lines else ""
    if line and not line.endswith(":"):
        return line
    return " ".join(filter(None, [line, f"{step} for a {extension} output failed, with no "
                                        "reason from OpenImageIO"]))


def unlike(back: vip.ReadBack, image: vip.Image, meant: str, extension: str) -> str:
    """How a file read back differs from what was meant to be written, or ''."""
    channels = channels_written(vip.getNumChannels(image), extension)
    if back.channels != channels:
        return f"the written file reads back with {back.channels} channels, not {channels}"
    tag = tag_read_back(meant, extension)
    if tag is not None and back.colorSpace.lower() != tag:
        return f"the written file reads back tagged '{back.colorSpace}', not as {meant}"
    return ""


_INTEGER_FORMATS = ("uint8", "int8", "uint16", "int16", "uint32", "int32")


def clipped(image: vip.Image, written_format: str) -> str:
    """Says so when float samples outside 0-1 went to an integer file, which clips them."""
    if written_format not in _INTEGER_FORMATS or image.dtype.kind != "f":
        return ""
    pixels = image.pixels()
    low, high = float(numpy.nanmin(pixels)), float(numpy.nanmax(pixels))
    return f"values {low:.4g} to {high:.4g} clipped to 0-1" if low < 0 or high > 1 else ""


def texture_options(texture: Texture) -> vip.TextureOptions:
    nan = {"leave": vip.NanHandling.Leave, "fix": vip.NanHandling.FixBox3,
           "fail": vip.NanHandling.Fail}[texture.nan]
    mode = vip.TextureMode.LatLongEnvironment if texture.envlatl else vip.TextureMode.Texture
    return vip.TextureOptions(mode=mode, tileWidth=texture.tile_width,
                              tileHeight=texture.tile_height, mipFilter=texture.mip_filter,
                              dataFormat=texture.data_format, nanHandling=nan,
                              constantColorDetect=texture.constant_color_detect)


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
