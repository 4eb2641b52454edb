"""A job: one input and what to make of it, the only thing that travels to the workers."""

from __future__ import annotations

import dataclasses
import json
import pathlib
import re
import time
from typing import Any

Result = dict[str, Any]


def partial_name(path: str) -> str:
    """Where a file is written until it is complete: hidden beside its final name, with the same
    extension, since the extension picks the writer (``.NAME.partial.EXT``)."""
    final = pathlib.Path(path)
    return str(final.with_name(f".{final.name}.partial{final.suffix}"))


def partial_of(name: str) -> str:
    """The partial name that a temporary file name belongs to: itself, or for what OpenImageIO's
    texture maker writes beside a partial file (``.NAME.partial.XXXX.temp.EXT``), that file's."""
    texture_temporary = _TEXTURE_TEMPORARY.fullmatch(name)
    return texture_temporary["partial"] + texture_temporary["ext"] if texture_temporary else name


_TEXTURE_TEMPORARY = re.compile(r"(?P<partial>\..*\.partial)\..*\.temp(?P<ext>\.[^.]*)")


@dataclasses.dataclass(frozen=True)
class Texture:
    """How --texture makes each output: the command line's settings, by the batch's names."""

    tile_width: int = 64
    tile_height: int = 64
    mip_filter: str = "box"
    data_format: str = ""  # the image's own type
    nan: str = "leave"  # or "fix" (the mean of the finite 3x3 neighbours) or "fail"
    constant_color_detect: bool = False
    envlatl: bool = False  # a latitude-longitude environment map


@dataclasses.dataclass(frozen=True)
class Settings:
    """What a converter process is started with; one started with other settings is replaced,
    so that a long-lived cluster applies each batch's own limits."""

    attributes: tuple[tuple[str, int], ...] = ()  # OpenImageIO's, set before its first file
    version: str = ""  # the package version the batch expects of it
    color_config: str = ""  # the OpenColorIO config its colour names come from; "" built-in


@dataclasses.dataclass(frozen=True)
class Job:
    input: str  # as the user gave it, or as found in a folder they gave
    source: str
    output: str
    ops: tuple[str, ...] = ()
    png_compression: int = -1
    attributes: tuple[tuple[str, int], ...] = ()  # OpenImageIO's, set in each converter
    timeout: float | None = None
    texture: Texture | None = None  # writeImage without
    usage: str = ""  # "raw": data, written without colour conversion; else the colour policy
    asset: str = ""  # the asset input whose texture this is (the first, when several use it)
    document: str = ""  # the MaterialX document of that asset that names it, if one does
    version: str = ""  # the batch's package version: a converter of another is replaced
    color_space: str = ""  # the space its asset states for it; "" when the file or rule decides
    assume: str = ""  # --assume-color-space: for colour sources that name none
    color_config: str = ""  # --color-config, else $OCIO where the batch runs; "" built-in names

    @property
    def partial(self) -> str:
        return partial_name(self.output)

    @property
    def settings(self) -> Settings:
        return Settings(self.attributes, self.version, self.color_config)

    def to_json(self) -> str:
        return json.dumps(dataclasses.asdict(self))

    @classmethod
    def from_json(cls, text: str) -> Job:
        fields = json.loads(text)
        fields["ops"] = tuple(fields["ops"])
        fields["attributes"] = tuple(map(tuple, fields["attributes"]))
        if fields["texture"] is not None:
            fields["texture"] = Texture(**fields["texture"])
        return cls(**fields)

    def result(self, status: str, reason: str = "", started: float | None = None,
               color_space: str = "", **said: str) -> Result:
        """A report entry, with what else it `said`; seconds since `started` (time.monotonic),
        0 without it."""
        seconds = round(time.monotonic() - started, 3) if started is not None else 0.0
        result = {"input": self.input, "status": status, "output": self.output, "reason": reason,
                  "color_space": color_space, **said, "seconds": seconds}
        if self.document:
            result["document"] = self.document
        return {**result, "asset": self.asset} if self.asset else result
