"""What a source's pixels are when its file doesn't say, and what a target format keeps of them.

The batch decides a source's colour space once, before any operation or conversion, and says on
the report line where it came from: the file's own tag ("file"), the asset that uses it
("asset"), or the rule below or --assume-color-space ("assumed").
"""

from __future__ import annotations

import functools
import hashlib
import pathlib

import numpy

import vorel_usd_image_processing as vip

DATA = "raw"  # the tag of data: never colour-converted
RULE_VERSION = 2  # of `space_by_rule` and `widened`; --update redoes outputs made under another

_EIGHT_BIT = ("uint8", "int8")
# OpenImageIO's own names, which mean the same under any config (measured under ACES configs).
_BUILT_IN = ("linear", "srgb", "rec709")


def space_by_rule(channels: int, sample_type: str, from_cmyk: bool = False) -> str:
    """The colour space of a source that names none.

    8-bit colour is stored sRGB-encoded almost everywhere; 16-bit, half and float colour is what
    renderers and compositors write, linear. One or two channels are masks, roughness, heights:
    data. This is also OpenUSD's rule for a texture whose source colour space is "auto". The RGB
    that OpenImageIO makes of a CMYK file's inks is display-referred at any depth: sRGB.
    """
    if channels not in (3, 4):
        return DATA
    return "sRGB" if sample_type in _EIGHT_BIT or from_cmyk else "linear"


# MaterialX's names of the two spaces that the library knows by its own names.
_MATERIALX_NAMES = {"srgb_texture": "sRGB", "lin_rec709": "linear"}


def from_materialx(name: str) -> str:
    """The library's name of a MaterialX colour space; another name goes to OpenColorIO as it is."""
    return _MATERIALX_NAMES.get(name, name)


def to_materialx(space: str) -> str:
    """The MaterialX name of a written file's colour space."""
    by_library = {library.lower(): name for name, library in _MATERIALX_NAMES.items()}
    return by_library.get(space.lower(), space)


def source_space(image: vip.Image, stated: str, usage: str, assumed: str,
                 from_cmyk: bool = False) -> tuple[str, str]:
    """The colour space of a source as read, and where it came from: `stated` by its asset, data
    by `usage`, the file's tag, else `assumed` (--assume-color-space) or the rule, which alone
    says what one- and two-channel images are."""
    if stated:
        return stated, "asset"
    if usage == DATA:
        return DATA, "assumed"
    tagged = vip.getColorSpace(image)
    if tagged:
        return tagged, "file"
    by_rule = space_by_rule(vip.getNumChannels(image), str(image.dtype), from_cmyk)
    return (assumed if assumed and by_rule != DATA else by_rule), "assumed"


def convert_for(image: vip.Image, target: str, output: str) -> vip.Image:
    """The image in `target`, the space that the extension of `output` calls for, by the
    library's policy; empty when no conversion can be made. A space that only the colour config
    knows goes through "linear" first: OpenImageIO 2.4.7 converts between a config's space and
    its own "sRGB" only when the config names both."""
    space = vip.getColorSpace(image)
    if target == "linear" and space != target and image.dtype == numpy.uint8:
        image = widened(image, pathlib.Path(output).suffix.lower())
    if target and space != target and space.lower() not in _BUILT_IN:
        image = vip.colorConvert(image, space, "linear")
        if not image:
            return image
    vip.colorConvertByFormat(image, output)
    return image


def widened(image: vip.Image, extension: str) -> vip.Image:
    """An 8-bit image with wider samples, its metadata kept: 8 bits hold sRGB-encoded colour
    well and linear colour badly (its darks fall into a few steps), so an 8-bit source is widened
    before it is converted to linear: to half, what OpenEXR stores of 8 bits anyway, and to 16
    bits for a TIFF."""
    pixels = image.pixels().astype(numpy.float32) / 255
    if extension in (".tif", ".tiff"):
        pixels = numpy.rint(pixels * 65535).astype(numpy.uint16)
    else:
        pixels = pixels.astype(numpy.float16)
    wide = vip.Image.from_array(numpy.ascontiguousarray(pixels))
    vip.addMetadataToImage(wide, vip.getMetadataFromImage(image))
    vip.setColorSpace(wide, vip.getColorSpace(image))
    return wide


def foreign_profile(image: vip.Image) -> str:
    """The name of an embedded RGB ICC profile that is not an sRGB one (Display P3, Adobe RGB),
    else '': such pixels are converted as their tag says, and the user should know."""
    profile = vip.getIccProfileInfo(image)
    if profile.colorSpace != "RGB" or "srgb" in profile.description.lower():
        return ""
    return profile.description or "an unnamed RGB profile"


@functools.lru_cache(maxsize=None)
def config_digest(path: str) -> str:
    """SHA-256 of a colour configuration's text: a changed config redoes outputs under --update."""
    if not path:
        return ""
    try:
        with open(path, "rb") as file:
            return hashlib.file_digest(file, "sha256").hexdigest()
    except OSError:
        return "unreadable"


# How many channels each writer keeps (measured with OpenImageIO 2.4.7): the rest are dropped.
_CHANNELS_HELD = {".png": 4, ".tga": 4, ".bmp": 4, ".gif": 4, ".webp": 4}
_NO_ALPHA = (".jpg", ".jpeg")  # one grey channel, or three colour channels


def channels_written(count: int, extension: str) -> int:
    """How many channels a file of `extension` holds, written from an image of `count`: a JPEG
    of grey and alpha is written as RGB, and a GIF reads back as RGBA whatever it was."""
    if extension in _NO_ALPHA:
        return 1 if count == 1 else 3
    if extension == ".gif":
        return 4
    return min(count, _CHANNELS_HELD.get(extension, count))


def channels_lost(count: int, extension: str) -> str:
    """What a file of `extension` drops of an image of `count` channels (R, G, B, A, then the
    rest), in words; '' for nothing."""
    if extension in _NO_ALPHA and count in (2, 4):
        return "alpha"
    held = channels_written(count, extension)
    return f"channels {held + 1}-{count}" if held < count else ""


def tag_read_back(meant: str, extension: str) -> str | None:
    """The colour tag that OpenImageIO 2.4.7 reads back from a file of `extension` written from an
    image tagged `meant`, in lower case; None where the format says nothing that can be checked.
    A TIFF holds "sRGB" and no other name; OpenEXR always reads back as linear."""
    if meant not in ("sRGB", "linear"):
        return None
    if extension in (".tif", ".tiff", ".tx"):
        return "srgb" if meant == "sRGB" else ""
    if extension == ".exr":
        return "linear"
    if extension in (".jpg", ".jpeg", ".webp", ".gif"):
        return "srgb"
    return meant.lower() if extension == ".png" else None
