"""USD assets through the batch converter, on assets written here (a build against OpenUSD only)."""
import json
import logging
import os
import re
import subprocess

import numpy as np
import pytest

import vorel_usd_image_processing as vip
from conftest import LOGGER, gradient
import test_safety
from test_batch import BATCH, CAPTURED

needs_openusd = pytest.mark.skipif(
    not vip.usdAssetsAvailable,
    reason="USD assets need a build against OpenUSD with UsdUtils; this build uses the stand-in")
MATERIAL = """#usda 1.0
def Material "Mat"
{{
    asset notes = @../textures/notes.txt@
    asset inputs:bump = @../textures/bump.exr@
    def Shader "Bump"
    {{
        uniform token info:id = "UsdUVTexture"
        asset inputs:file.connect = </Mat.inputs:bump>
        uniform token inputs:sourceColorSpace = "raw"
    }}
{shaders}}}
"""
SHADER = """    def Shader "{name}"
    {{
        uniform token info:id = "UsdUVTexture"
        asset inputs:file = @../textures/{file}@
{space}    }}
"""
ROOT = """#usda 1.0
def "Model" (prepend references = @./layers/material.usda@</Mat>)
{
}
"""
# shader: (texture, authored sourceColorSpace)
SHADERS = {"Base": ("base.exr", ""), "Normal": ("normal.exr", "raw"),
           "Tint": ("normal.exr", "sRGB"), "Rough": ("rough.<UDIM>.png", ""),
           "Mask": ("mask.png", "")}
TILES = (1001, 1002, 1011)


def write(path, array, space):
    image = vip.Image.from_array(array)
    vip.setColorSpace(image, space)
    assert vip.writeImage(image, path)


def make_asset(folder, shaders):
    (folder / "textures").mkdir(parents=True)
    (folder / "layers").mkdir()
    write(folder / "textures/base.exr", gradient(16, 16, 3), "linear")
    write(folder / "textures/normal.exr", gradient(16, 16, 3), "linear")
    write(folder / "textures/bump.exr", gradient(16, 16, 3), "linear")
    write(folder / "textures/mask.png", gradient(16, 16, 1, np.uint8), "sRGB")
    for tile in TILES:
        tiles = np.full((8, 8, 3), tile % 100, np.uint8)
        write(folder / f"textures/rough.{tile}.png", tiles, "sRGB")
    (folder / "textures/notes.txt").write_text("not an image")
    (folder / "textures/damaged.png").write_bytes((folder / "textures/mask.png").read_bytes()[:90])
    text = "".join(SHADER.format(name=name, file=file, space=f'        uniform token '
                                 f'inputs:sourceColorSpace = "{space}"\n' if space else "")
                   for name, (file, space) in shaders.items())
    (folder / "layers/material.usda").write_text(MATERIAL.format(shaders=text))
    (folder / "asset.usda").write_text(ROOT)


def run(folder, options):
    done = subprocess.run(BATCH + f"in/asset.usda -o out -q --workers 2 {options}".split(),
                          cwd=folder, **CAPTURED)
    report = [json.loads(line) for line in (folder / "out/batch-report.jsonl").open()]
    return done.returncode, report


@needs_openusd
@pytest.mark.parametrize("options, ext, base_space", [
    ("--ext .png", ".png", "sRGB"),  # linear EXR as an sRGB PNG
    ("--ext .tx --texture", ".tx", "raw"),  # linear stays linear: used as it is
    ("--ext .png --usdz", ".png", "sRGB"),
])
def test_an_asset_points_at_its_converted_textures(tmp_path, options, ext, base_space):
    make_asset(tmp_path / "in", SHADERS)
    code, report = run(tmp_path, options)
    assert code == 0, report
    *textures, asset = report
    package = "--usdz" in options
    root = tmp_path / ("out/asset.usdz" if package else "out/asset.usda")
    assert asset == dict(asset, input="in/asset.usda", status="converted", output=str(root))
    # base, normal as data and as colour, three tiles, mask, bump: each its own line, of this asset
    assert len(textures) == 8 and all(t["status"] == "converted" and t["asset"] == "in/asset.usda"
                                      for t in textures)
    assert vip.checkAsset(str(root)) == []
    written = vip.findAssetDependencies(str(root))
    assert [f.rsplit("/", 1)[1].rstrip("]") for f in written.files] == ["notes.txt"]
    # by shader, the material's input as "Interface"; a package is flattened, its files in a folder
    authored = {name.split(".")[0] if name.endswith(".inputs:file") else "Interface": t
                for t in written.textures for name in [t.attribute.rsplit("/", 1)[1]]}
    folder = "../textures/"
    expected = {"Base": ("base", base_space), "Normal": ("normal.raw", "raw"),
                "Tint": ("normal", "sRGB"), "Rough": ("rough.<UDIM>", "sRGB"),
                "Mask": ("mask", "raw"),  # one 8-bit channel: data, as OpenUSD's "auto" has it
                "Interface": ("bump", "raw")}  # data by the shader that the material's input feeds
    assert {name: (folder + t.assetPath.rsplit("/", 1)[-1] if package else t.assetPath,
                   t.sourceColorSpace) for name, t in authored.items()} == {
        name: (f"{folder}{stem}{ext}", space) for name, (stem, space) in expected.items()}
    read = vip.readAssetImage if package else vip.readImage
    scale = 255 if ext == ".png" else 1
    linear = gradient(16, 16, 3)
    encoded = np.where(linear > 0.0031308, linear ** (1 / 2.4) * 1.055 - 0.055, linear * 12.92) \
        if ext == ".png" else linear  # a linear EXR as colour: sRGB in a PNG, linear in a .tx
    # Tint's shader says its file holds sRGB values: they stay as they are, still sRGB.
    for name, values in (("Normal", linear), ("Interface", linear), ("Tint", linear), ("Base", encoded)):
        pixels = read(authored[name].files[0]).pixels()
        np.testing.assert_allclose(pixels / scale, values, atol=0.6 / scale, err_msg=name)
    spaces = {t["output"].rsplit("/", 1)[1]: t["color_space"] for t in textures}
    assert (spaces[f"base{ext}"], spaces[f"normal{ext}"]) == ("sRGB" if ext == ".png" else "Linear", "sRGB")
    assert spaces[f"normal.raw{ext}"] == spaces[f"mask{ext}"] == "raw"
    assert [int(re.findall(r"\.(\d{4})\.", f)[-1]) for f in authored["Rough"].files] == list(TILES)

    again = run(tmp_path, options + " --update")[1]  # textures up to date, the asset written again
    assert [e["status"] for e in again] == ["skipped"] * 8 + ["converted"]


@needs_openusd
def test_missing_and_damaged_textures_fail_the_asset_by_name(tmp_path, log):
    make_asset(tmp_path / "in", dict(SHADERS, Gone=("gone.png", ""), Bad=("damaged.png", "")))
    code, report = run(tmp_path, "--ext .png")
    assert code == 1
    statuses = {e["input"].rsplit("/", 1)[1]: e["status"] for e in report}
    assert statuses["damaged.png"] == "failed" and statuses["asset.usda"] == "failed"
    reason = report[-1]["reason"].replace(str(tmp_path), "TMP")
    assert reason.startswith("missing: ../textures/gone.png (in TMP/in/layers/material.usda); "
                             "not converted: TMP/in/textures/damaged.png; ")
    assert "TMP/out/textures/gone.png" in reason  # the written asset doesn't resolve it either
    assert "gone" not in (tmp_path / "out/layers/material.usda").read_text().split("Gone")[0]

    os.mkfifo(tmp_path / "slow.usda")  # OpenUSD would wait on it for a writer that never comes
    done = subprocess.run(BATCH + "slow.usda -o slow -q --ext .png".split(), cwd=tmp_path, **CAPTURED)
    assert [json.loads((tmp_path / "slow/batch-report.jsonl").read_text())[key]
            for key in ("status", "reason")] == ["failed", "not a regular file"]

    broken = tmp_path / "broken.usda"
    broken.write_text("#usda 1.0\ndef Xform {\n")
    assert vip.findAssetDependencies(str(broken)).error.startswith(f"{broken}:2:")
    log.clear()
    assert not vip.readAssetImage(f"{tmp_path}/in/none.usdz[a.png]")
    assert [(r.levelno, r.getMessage()) for r in log.records if r.name == LOGGER] == [
        (logging.WARNING, f"Couldn't read image {tmp_path}/in/none.usdz[a.png]:\n"
                          "OpenUSD's resolver can't open it")]


@needs_openusd
def test_a_folder_of_an_asset_and_its_textures_gives_each_output_one_source(tmp_path):
    make_asset(tmp_path / "in", SHADERS)  # its layers/material.usda is an input as well
    done = subprocess.run(BATCH + "in -o out -q --ext .png".split(), cwd=tmp_path, **CAPTURED)
    report = [json.loads(line) for line in (tmp_path / "out/batch-report.jsonl").open()]
    spaces = {e["output"].replace(str(tmp_path), "TMP"): e["color_space"] for e in report}
    assert done.returncode == 1 and len(spaces) == len(report)  # damaged.png fails
    assert [spaces[f"TMP/out/textures/{name}"] for name in ("bump.png", "bump.exr.png")] == [
        "raw", "sRGB"]  # data for the asset, the colour policy as a file of the folder


@needs_openusd
def test_an_image_in_a_package_reads_as_the_same_file_outside(tmp_path):
    make_asset(tmp_path, SHADERS)
    assert vip.packageAsset(str(tmp_path / "asset.usda"), str(tmp_path / "pkg.usdz")) == ""
    inside_of = {t.attribute.rsplit("/", 1)[1].split(".")[0]: t.files[0]
                 for t in vip.findAssetDependencies(str(tmp_path / "pkg.usdz")).textures}
    for name, file in (("Base", "base.exr"), ("Mask", "mask.png")):
        inside = vip.readAssetImage(inside_of[name])
        assert ".usdz[" in inside_of[name]
        outside = vip.readImage(tmp_path / "textures" / file)
        np.testing.assert_array_equal(inside.pixels(), outside.pixels())
        assert vip.getMetadataFromImage(inside) == vip.getMetadataFromImage(outside)
    # a package referenced from a layer: written as a folder of its layers and textures
    room = ROOT.replace("./layers/material.usda@</Mat>", "./pkg.usdz@")
    (tmp_path / "room.usda").write_text(room)
    convert = BATCH + "room.usda -o out -q --ext .jpg".split()
    done = subprocess.run(convert, cwd=tmp_path, **CAPTURED)
    assert done.returncode == 0 and "@./pkg/asset.usdc@" in (tmp_path / "out/room.usda").read_text()
    assert len(list((tmp_path / "out/pkg").rglob("*.jpg"))) == 8
    write(tmp_path / "textures/mask.png", gradient(32, 32, 1, np.uint8), "sRGB")  # a larger package
    assert vip.packageAsset(str(tmp_path / "asset.usda"), str(tmp_path / "pkg.usdz")) == ""
    subprocess.run(convert + ["--update"], cwd=tmp_path, **CAPTURED)
    report = [json.loads(line) for line in (tmp_path / "out/batch-report.jsonl").open()]
    assert {e["input"].split("/")[-1]: e["status"] for e in report if e["status"] == "converted"} \
        == {"mask.png]": "converted", "room.usda": "converted"}  # the one that changed
    # OpenUSD's Hio road through Ar's package resolver, which the usd library registers
    hio = vip.getImageFromAssetPath(inside_of["Rough"])
    assert vip.getColorSpace(hio) == "sRGB" and hio.pixels().shape == (8, 8, 3)


@pytest.mark.skipif(vip.usdAssetsAvailable, reason="a build against OpenUSD reads assets")
def test_a_stand_in_build_says_in_one_line_that_assets_need_openusd(tmp_path):
    command = BATCH + "in/asset.usda -o out --ext .png".split()
    done = subprocess.run(command, cwd=tmp_path, **CAPTURED)
    assert done.returncode == 2 and done.stderr == (
        "batch: in/asset.usda is a USD asset, and USD assets need a build of "
        "vorel_usd_image_processing against OpenUSD with UsdUtils; this one was built against the "
        "stand-in (or an OpenUSD without UsdUtils)\n")


def package(path, members):
    """A .usdz of (name, bytes) members, stored as OpenUSD writes them, whatever their names."""
    import zipfile
    with zipfile.ZipFile(path, "w", zipfile.ZIP_STORED) as archive:
        for name, data in members:
            archive.writestr(zipfile.ZipInfo(name), data)


TEXTURED = '#usda 1.0\ndef Shader "T"\n{{\n    uniform token info:id = "UsdUVTexture"\n' \
    '    asset inputs:file = @{texture}@\n}}\n{extra}'


@needs_openusd
@pytest.mark.parametrize("case, command, status, reason", [
    ("climbing member", "in/pkg.usdz -o out/deep --ext .png", 1,
     "TMP/in/pkg.usdz: package member ../../slipped.png climbs out of the package with '..'"),
    ("absolute member", "in/abs.usdz -o out --ext .png", 1,
     "TMP/in/abs.usdz: package member /tmp/abs.png has an absolute name"),
    ("device", "in/device.usda -o out --ext .png", 1, "/dev/zero: not a regular file"),
    ("outside, untrusted", "in/outside.usda -o out --ext .png --untrusted", 1,
     "depends on files outside its folder TMP/in (--untrusted): TMP/elsewhere/notes.txt"),
    ("outside, trusted", "in/outside.usda -o out --ext .png", 0, ""),
    ("layer outside, untrusted", "in/sublayered.usda -o out --ext .png --untrusted", 1,  # unread:
     "depends on files outside its folder TMP/in (--untrusted): TMP/elsewhere/broken.usda"),
    ("FIFO layer", "in/piped.usda -o out --ext .png", 1, "TMP/in/pipe.usda: not a regular file"),
    ("layer onto layer", "in -o out --ext .png", 2,
     "TMP/in/chair/chair.usda and TMP/in/chair.usdz would both be written to "
     "TMP/out/chair/chair.usda"),
    ("--usdz onto the sources", "in/outside.usda -o in --ext .png --usdz", 2,
     "TMP/in/outside.usda would be written over the source TMP/in/outside.usda"),
])
def test_a_hostile_asset_writes_nothing_outside_and_copies_nothing_it_doesnt_own(
        tmp_path, case, command, status, reason):
    folder = tmp_path / "in"
    folder.mkdir()
    png = tmp_path / "t.png"
    write(png, gradient(8, 8, 3, np.uint8), "sRGB")
    texture = png.read_bytes()
    package(folder / "pkg.usdz", [("root.usda", TEXTURED.format(texture="../../slipped.png",
                                                                  extra="")),
                                   ("../../slipped.png", texture)])
    package(folder / "abs.usdz", [("root.usda", TEXTURED.format(texture="t.png", extra="")),
                                  ("t.png", texture), ("/tmp/abs.png", texture)])
    (folder / "t.png").write_bytes(texture)
    (folder / "device.usda").write_text(TEXTURED.format(
        texture="./t.png", extra='def "Secret"\n{\n    asset secret = @/dev/zero@\n}\n'))
    (tmp_path / "elsewhere").mkdir()
    (tmp_path / "elsewhere/notes.txt").write_text("not the asset's")
    (folder / "outside.usda").write_text(TEXTURED.format(
        texture="./t.png", extra='def "Notes"\n{\n    asset notes = @../elsewhere/notes.txt@\n}\n'))
    (tmp_path / "elsewhere/broken.usda").write_text("#usda 1.0\ndef Xform {\n")  # were it read
    (folder / "sublayered.usda").write_text("#usda 1.0\n(subLayers = [@../elsewhere/broken.usda@])\n")
    os.mkfifo(folder / "pipe.usda")  # read, it would block the walk for good
    (folder / "piped.usda").write_text("#usda 1.0\n(subLayers = [@./pipe.usda@])\n")
    if case == "layer onto layer":
        for path in folder.iterdir():
            path.unlink()
        package(folder / "chair.usdz", [("chair.usda", "#usda 1.0\n")])
        (folder / "chair").mkdir()
        (folder / "chair/chair.usda").write_text("#usda 1.0\n")
    before = test_safety.sources(tmp_path)
    done = subprocess.run(BATCH + command.split() + ["-q"], cwd=tmp_path, **CAPTURED)
    assert done.returncode == status, done.stderr
    assert test_safety.sources(tmp_path) == before
    out = tmp_path / command.split("-o ")[1].split()[0]
    if status == 2:
        assert f"batch: refused: {reason}" in done.stderr.replace(str(tmp_path), "TMP").splitlines()
        return
    report = [json.loads(line) for line in (out / "batch-report.jsonl").open()]
    assert report[-1]["reason"].replace(str(tmp_path), "TMP") == reason
    written = sorted(p.relative_to(out).as_posix() for p in out.rglob("*") if p.is_file())
    if status == 1:  # nothing of the asset
        assert [entry["status"] for entry in report] == ["failed"] and written == [
            ".batch.lock", "batch-report.jsonl"]
    else:  # an asset of one's own may use files beside it
        assert "_external/" + str(tmp_path / "elsewhere/notes.txt").lstrip("/") in written
