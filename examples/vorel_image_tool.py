#!/usr/bin/env python3
"""The road of one image in a pipeline script: read a file, look at its pixels as a NumPy array
(no copy), run operations, convert for the target's extension and write it; then make an image
from an array and write that too. The library's messages arrive in Python's logging.

    PYTHONPATH=build/python python3 examples/vorel_image_tool.py [input] -o result.png
"""
import argparse
import logging

import numpy as np

import vorel_usd_image_processing as vip


def make_sample(path: str, size: int = 256) -> str:
    """A linear, premultiplied RGBA disc with a colour ramp, written as OpenEXR."""
    v, u = np.mgrid[0:size, 0:size].astype(np.float32) / (size - 1)
    alpha = np.clip((0.45 - np.hypot(u - 0.5, v - 0.5)) * 20.0, 0.0, 1.0)
    rgba = np.stack([u * alpha, v * alpha, (1.0 - u) * alpha, alpha], axis=-1)
    sample = vip.Image.from_array(np.ascontiguousarray(rgba, dtype=np.float32))
    vip.setColorSpace(sample, "linear")
    if not vip.writeImage(sample, path):
        raise SystemExit(1)
    return path


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("input", nargs="?", help="image to read (default: a sample it makes)")
    parser.add_argument("-o", "--output", default="result.png")
    parser.add_argument("--size", type=int, default=128, help="fit into SIZE x SIZE")
    parser.add_argument("-v", "--verbose", action="store_true", help="show debug messages")
    args = parser.parse_args()
    logging.basicConfig(level=logging.DEBUG if args.verbose else logging.INFO,
                        format="%(levelname)s %(name)s: %(message)s")

    image = vip.readImage(args.input or make_sample("vorel_sample.exr"))
    if not image:
        raise SystemExit(1)  # the reason is already in the log
    pixels = image.pixels()  # the image's own memory, in its own pixel type
    print(f"{image}: colour space '{vip.getColorSpace(image)}', "
          f"channel means {[round(float(m), 3) for m in pixels.mean(axis=(0, 1))]}")
    del pixels  # in-place operations that replace the pixels refuse while arrays use them

    image = vip.fit(image, vip.ROI(0, args.size, 0, args.size))
    if vip.getNumChannels(image) == 4:
        vip.compositeOverBackgroundColor(image, [0.2, 0.3, 0.4, 1.0])
    vip.colorConvertByFormat(image, args.output)
    if not vip.writeImage(image, args.output, 9):
        raise SystemExit(1)

    # An image made from an array: a mask of the written result's bright pixels.
    written = vip.readImage(args.output).pixels()
    mask = (written[..., :3].mean(axis=-1) > 128).astype(np.uint8) * 255
    mask_image = vip.Image.from_array(mask)
    vip.setColorSpace(mask_image, "sRGB")
    mask_path = args.output.rsplit(".", 1)[0] + "_mask.png"
    if not vip.writeImage(mask_image, mask_path):
        raise SystemExit(1)
    print(f"wrote {args.output} and {mask_path}")


if __name__ == "__main__":
    main()
