import json
import os
import pathlib
import shutil
import re
import struct
import subprocess

import numpy as np
import pytest

import vorel_usd_image_processing as vip
from vorel_usd_image_processing.batch import convert
from vorel_usd_image_processing.batch.job import Job
from test_batch import BATCH, CAPTURED

# A config that names one space OpenImageIO doesn't know: linear values squared.
CONFIG = """ocio_profile_version: 1
search_path: .
roles: {default: linear, scene_linear: linear}
displays:
  default:
    - !<View> {name: raw, colorspace: linear}
colorspaces:
  - !<ColorSpace> {name: linear}
  - !<ColorSpace>
    name: squared
    to_reference: !<ExponentTransform> {value: [2, 2, 2, 1]}
"""


def icc_profile(space, description):
    """An ICC v2 profile header with a 'desc' tag: enough for readers that check profiles."""
    text = description.encode().ljust(len(description) // 4 * 4 + 4, b"\0")
    desc = b"desc" + bytes(4) + struct.pack(">I", len(text)) + text
    size = 128 + 4 + 12 + len(desc)
    header = struct.pack(">I4sI4s4s", size, b"none", 0x02100000, b"prtr" if space == "CMYK"
                         else b"mntr", space.ljust(4).encode()) + b"XYZ " + bytes(12) + b"acsp"
    d50 = struct.pack(">3i", 0xF6D6, 0x10000, 0xD32D)  # libpng wants the PCS illuminant D50
    header = header.ljust(68, b"\0") + d50
    return header.ljust(128, b"\0") + struct.pack(">I4sII", 1, b"desc", 144, len(desc)) + desc


def source(tmp_path, name, pixel, *attributes, icc=None):
    """A file of one `pixel` ("VALUE CHANNELS TYPE", an opaque alpha as the fourth) by oiiotool's
    writers, with no colour tag but the one its reader gives."""
    (tmp_path / "in").mkdir(exist_ok=True)
    if pixel in FILES:  # a file of ours
        return shutil.copy(FILES[pixel], tmp_path / "in" / name)
    value, channels, dtype = pixel.split()
    color = ",".join(([value] * 3 + ["1"] * 2)[:int(channels)] if channels != "1" else [value])
    if icc:
        (tmp_path / "p.icc").write_bytes(icc_profile(*icc))
        attributes += ("--iccread", tmp_path / "p.icc")
    subprocess.run(["oiiotool", "--pattern", f"constant:color={color}", "64x64", channels,
                    *attributes, "-d", dtype, "-o", tmp_path / "in" / name], check=True)


def batch(tmp_path, options):
    done = subprocess.run(BATCH + ["in", "-o", "out", "--workers", "1", "-q", *options.split()],
                          cwd=tmp_path, **CAPTURED)
    report = [json.loads(line) for line in (tmp_path / "out" / "batch-report.jsonl").open()]
    return done, {entry["input"].split("/", 1)[1]: entry for entry in report}


# 16-bit CMYK, planar, as libtiff's test images: OpenImageIO 2.4.7 aborts reading a texture
# written with its attributes.
FILES = {"cmyk16": pathlib.Path(__file__).parents[2] / "tests/files/cmyk16-planar.tif"}
CMYK = ("--attrib", "tiff:ColorSpace", "CMYK")  # OpenImageIO writes it as a separated TIFF
ROWS = [  # options, source name, its pixel, oiiotool attributes, ICC profile, expected fields, sample
    (".png", "linear_float.tif", "0.2 3 float", (), None, {"color_space_source": "assumed"}, 124),
    (".png", "cmyk.tif", "0.4 3 uint8", CMYK, ("CMYK", "Coated FOGRA39"), {"color_space": "sRGB"}, 102),
    (".png", "p3.jpg", "0.4 3 uint8", (), ("RGB", "Display P3"), {"icc_profile": "Display P3"}, 102),
    (".png", "bright.exr", "2 3 half", (), None, {"lost": r"values 1\.35\d to 1\.35\d clipped to 0-1"}, 255),
    (".jpg", "rgba.png", "0.4 4 uint8", (), None, {"lost": "alpha"}, 102),
    (".exr", "srgb_8bit.tif", "0.0314 3 uint8", (), None, {"color_space": "linear"}, 0.002428),  # 8 of 255: not in 8-bit steps
    (".exr", "mask.tif", "0.502 1 uint8", (), None, {"color_space": "raw"}, 0.502),
    (".exr --assume-color-space linear", "srgb_8bit.tif", "0.502 3 uint8", (), None, {"color_space": "linear"}, 0.502),
    (".gif", "rgb.png", "0.4 3 uint8", (), None, {"color_space": "sRGB"}, 102),
    (".tx --texture", "cmyk.tif", "cmyk16", (), None,
     {"color_space": "sRGB", "color_space_source": "assumed"}, 47186),  # inks make no linear RGB
    (".png --assume-color-space squared --color-config cfg.ocio", "linear_float.tif",
     "0.2 3 float", (), None, {"color_space": "sRGB", "color_config": "TMP/cfg.ocio"}, 56),
    (".png --assume-color-space squared", "linear_float.tif", "0.2 3 float", (), None,
     {"status": "failed"}, "no conversion from 'squared' to 'sRGB' for .png with OpenImageIO's "
                           "built-in colour names: colorConvert operation failed:"),
]


@pytest.mark.parametrize("options, name, pixel, attributes, icc, fields, sample", ROWS)
def test_every_source_is_written_in_the_space_its_line_says(tmp_path, options, name, pixel,
                                                           attributes, icc, fields, sample):
    (tmp_path / "cfg.ocio").write_text(CONFIG)
    source(tmp_path, name, pixel, *attributes, icc=icc)
    done, report = batch(tmp_path, "--ext " + options)
    entry = {key: str(value).replace(str(tmp_path), "TMP") for key, value in report[name].items()}
    assert all(re.fullmatch(value, entry.get(key, "")) for key, value in fields.items()), \
        (entry, done.stderr)
    if entry["status"] == "failed":
        assert entry["reason"].startswith(sample) and not (tmp_path / "out" / name).exists()
        return
    assert entry["status"] == "converted", entry
    # Read back in a process of its own: a reader that aborts on the file fails the test only.
    output = report[name]["output"]
    read = subprocess.run(["oiiotool", output, "-v", "--info", "--printstats"],
                          capture_output=True, text=True, timeout=20)
    assert read.returncode == 0 and '"CMYK"' not in read.stdout, read.stdout + read.stderr
    written = vip.readImage(output).pixels()
    np.testing.assert_allclose(written[0, 0, 0], sample, atol=1.01 if written.dtype == np.uint8
                               else 0.001)


def test_colour_options_are_part_of_what_makes_an_output_up_to_date(tmp_path):
    source(tmp_path, "a.tif", "0.502 3 uint8")
    (tmp_path / "cfg.ocio").write_text(CONFIG)
    runs = ["", "", "--assume-color-space sRGB", "--color-config cfg.ocio", "--color-config cfg.ocio"]
    statuses = [batch(tmp_path, f"--ext .tif --update {run}")[1]["a.tif"]["status"] for run in runs]
    assert statuses == ["converted", "skipped", "converted", "converted", "skipped"]
    (tmp_path / "cfg.ocio").write_text(CONFIG + "# edited\n")
    assert batch(tmp_path, "--ext .tif --update --color-config cfg.ocio")[1]["a.tif"]["status"] \
        == "converted"


@pytest.mark.parametrize("damage, reason", [
    (lambda path: os.truncate(path, os.path.getsize(path) // 2), "Couldn't read back"),
    (lambda path: None, "")])
def test_a_file_that_does_not_read_back_whole_fails(tmp_path, monkeypatch, damage, reason):
    source(tmp_path, "a.exr", "0.5 3 half")
    written = vip.writeImage

    def write_then_damage(image, path, compression=-1):
        assert written(image, path, compression)
        damage(path)
        return True

    monkeypatch.setattr(vip, "writeImage", write_then_damage)
    job = Job("a.exr", str(tmp_path / "in" / "a.exr"), str(tmp_path / "out" / "a.png"))
    result = convert.convert(job, convert._Lines())
    assert (result["status"], result["reason"][:len(reason)]) == (
        "failed" if reason else "converted", reason)
    assert sorted(p.name for p in (tmp_path / "out").iterdir()) == ([] if reason else ["a.png"])
