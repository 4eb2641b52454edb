"""A job: one input and what to make of it, the only thing that travels to the workers."""

from __future__ import annotations

import dataclasses
import json
import pathlib
import time
from typing import Any

Result = dict[str, Any]


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

    @property
    def partial(self) -> str:
        """Where the output is written until it is complete; the extension picks the writer."""
        output = pathlib.Path(self.output)
        return str(output.with_name(f".{output.name}.partial{output.suffix}"))

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
               color_space: str = "") -> Result:
        """A report entry; seconds since `started` (time.monotonic), 0 without it."""
        seconds = round(time.monotonic() - started, 3) if started is not None else 0.0
        result = {"input": self.input, "status": status, "output": self.output, "reason": reason,
                  "color_space": color_space, "seconds": seconds}
        return {**result, "asset": self.asset} if self.asset else result
