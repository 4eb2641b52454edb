"""The --op operations, by the names of the example host vorel_image_tool.

Each goes from an image and its argument text to a new image (empty on failure, with the
library's line in the log).
"""

from __future__ import annotations

import argparse
from typing import Callable

import vorel_usd_image_processing as vip


def _ints(text: str) -> list[int]:
    return [int(v) for v in text.split(",")]


def _floats(text: str) -> list[float]:
    return [float(v) for v in text.split(",")]


def _range(text: str) -> tuple[float, float]:
    low, high = _floats(text)
    return low, high


def _size(text: str) -> vip.ROI:
    width, height = (int(v) for v in text.lower().split("x"))
    return vip.ROI(0, width, 0, height)


def _in_place(call: Callable[[vip.Image], object]) -> Callable[[vip.Image], vip.Image]:
    def run(image: vip.Image) -> vip.Image:
        call(image)
        return image

    return run


def _flatten(image: vip.Image, color: str) -> vip.Image:
    if vip.getNumChannels(image) == 3:
        vip.addAlphaChannel(image, 1.0)
    vip.compositeOverBackgroundColor(image, _floats(color))
    return image


def _cut(image: vip.Image, text: str) -> vip.Image:
    x, y, width, height = _ints(text)
    return vip.cut(image, vip.ROI(x, x + width, y, y + height))


def _add_alpha(image: vip.Image, alpha: str) -> vip.Image:
    return image if vip.addAlphaChannel(image, float(alpha)) else vip.Image()


OPERATIONS: dict[str, Callable[[vip.Image, str], vip.Image]] = {
    "fit": lambda image, a: vip.fit(image, _size(a)),
    "resize": lambda image, a: vip.resize(image, _size(a)),
    "cut": _cut,
    "rotate": lambda image, a: vip.rotate(image, float(a), True),
    "flatten": _flatten,
    "add-alpha": _add_alpha,
    "premult": lambda image, a: vip.preMultiply(image, vip.PreMultMode.Premult),
    "unpremult": lambda image, a: vip.preMultiply(image, vip.PreMultMode.Unpremult),
    "invert": lambda image, a: vip.invert(image),
    "invert-channel": lambda image, a: vip.invertChannel(image, a),
    "shuffle": lambda image, a: vip.shuffle(image, len(_ints(a)), _ints(a)),
    "normalize": lambda image, a: vip.normalize(image, *_range(a or "0,1")),
    "color-convert": lambda image, a: vip.colorConvert(image, *a.split(",")),
    "tag": lambda image, a: _in_place(lambda i: vip.setColorSpace(i, a))(image),
    "id-mask": lambda image, a: _in_place(vip.idImageToMask)(image),
}


def parse_op(text: str) -> str:
    """argparse type of --op: NAME or NAME=ARGS with a known NAME."""
    if text.partition("=")[0] not in OPERATIONS:
        raise argparse.ArgumentTypeError(f"unknown operation '{text}' ({', '.join(OPERATIONS)})")
    return text
