"""USD assets whose materials are MaterialX documents or MaterialX shaders in layers, written here."""
import json
import os
import subprocess
import zipfile

import numpy as np
import pytest

import vorel_usd_image_processing as vip
from conftest import gradient
from test_assets import write
from test_batch import BATCH, CAPTURED

pytestmark = pytest.mark.skipif(
    not vip.materialxAvailable,
    reason="MaterialX documents need a build against OpenUSD with UsdUtils and against MaterialX")
DOCUMENT = """<?xml version="1.0"?>
<materialx version="1.38" colorspace="lin_rec709" fileprefix="./textures/">
  <xi:include href="lib/defs.mtlx" />
  <nodegraph name="NG_wood">
    <token name="species" type="string" value="oak" />
    <image name="base" type="color3">
      <input name="file" type="filename" value="[species]_base.jpg" colorspace="srgb_texture" />
    </image>
    <image name="rough" type="float">
      <input name="file" type="filename" value="ROUGH" />
    </image>
    <tiledimage name="normal" type="vector3">
      <input name="file" type="filename" value="normal.<UDIM>.png" />
    </tiledimage>
    <image name="mask" type="float">
      <input name="file" type="filename" value="mask_<UVTILE>.png" />
    </image>
    <output name="base_out" type="color3" nodename="base" />
  </nodegraph>
</materialx>
"""
DEFINITIONS = """<?xml version="1.0"?>
<materialx version="1.38">
  <nodedef name="ND_stamp" node="stamp">
    <input name="file" type="filename" value="textures/stamp.png" />
    <output name="out" type="color3" />
  </nodedef>
</materialx>
"""
INLINE = """#usda 1.0
def Shader "Base" {{
    uniform token info:id = "ND_image_color3"
    asset inputs:file = @./materials/textures/oak_base.jpg@ ({space})
}}
def Shader "Rough" {{
    uniform token info:id = "ND_image_float"
    asset inputs:file = @./materials/textures/rough.png@
}}
def Shader "Studio" {{
    uniform token info:id = "ND_studio_stamp"
    asset inputs:file = @./materials/textures/rough.png@
}}
"""
SRGB = gradient(16, 16, 3, np.uint8) * 2  # 0 to 254


def make_asset(folder, rough="rough.png", space='colorSpace = "srgb_texture"'):
    (folder / "materials/lib/textures").mkdir(parents=True)
    (folder / "materials/textures").mkdir()
    write(folder / "materials/textures/oak_base.jpg", SRGB, "sRGB")
    write(folder / "materials/textures/rough.png", gradient(16, 16, 1, np.uint8), "sRGB")
    for tile in (1001, 1002):
        write(folder / f"materials/textures/normal.{tile}.png", np.full((8, 8, 3), 128, np.uint8), "sRGB")
    for tile in ("u1_v1", "u10_v1"):
        write(folder / f"materials/textures/mask_{tile}.png", np.full((8, 8), 9, np.uint8), "sRGB")
    write(folder / "materials/lib/textures/stamp.png", np.full((8, 8, 3), 200, np.uint8), "sRGB")
    (folder / "materials/wood.mtlx").write_text(DOCUMENT.replace("ROUGH", rough))
    (folder / "materials/lib/defs.mtlx").write_text(DEFINITIONS)
    (folder / "asset.usda").write_text(
        '#usda 1.0\ndef "Model" (prepend references = @./materials/wood.mtlx@</MaterialX>)\n{\n}\n')
    (folder / "inline.usda").write_text(INLINE.format(space=space))


def run(folder, options, inputs="in/asset.usda in/inline.usda"):
    done = subprocess.run(BATCH + f"{inputs} -o out -q {options}".split(), cwd=folder, **CAPTURED)
    lines = [json.loads(line) for line in (folder / "out/batch-report.jsonl").open()]
    return done.returncode, {(e["input"].rsplit("/", 1)[1].rstrip("]"),
                              e.get("document", "").rstrip("]")[-9:]): e for e in lines}


def packaged(folder):
    """The asset as a .usdz of its layer, documents and textures, stored as OpenUSD stores them."""
    with zipfile.ZipFile(folder / "asset.usdz", "w", zipfile.ZIP_STORED) as archive:
        for path in [folder / "asset.usda", *sorted((folder / "materials").rglob("*.*"))]:
            archive.write(path, path.relative_to(folder).as_posix())
    return "in/asset.usdz in/inline.usda"


def srgb_to_linear(values):
    values = values / 255.0
    return np.where(values > 0.04045, ((values + 0.055) / 1.055) ** 2.4, values / 12.92)


@pytest.mark.parametrize("options, ext, base_space, package", [
    ("--ext .exr", ".exr", "lin_rec709", False),  # an sRGB JPEG as a linear EXR
    ("--ext .tx --texture", ".tx", "srgb_texture", False),  # the encoding kept
    ("--ext .exr", ".exr", "lin_rec709", True),  # documents and textures read inside a package
])
def test_every_texture_of_a_document_converts_and_the_written_document_points_at_it(
        tmp_path, options, ext, base_space, package):
    make_asset(tmp_path / "in")
    code, report = run(tmp_path, options, *[packaged(tmp_path / "in")] * package)
    out = tmp_path / ("out/asset" if package else "out")
    assert code == 0, report
    assert {key: (e["status"], e["color_space"]) for key, e in report.items()
            if key[1]} == {("oak_base.jpg", "wood.mtlx"): ("converted", "linear" if ext == ".exr" else "sRGB"),
                           ("rough.png", "wood.mtlx"): ("converted", "raw"),
                           ("normal.1001.png", "wood.mtlx"): ("converted", "raw"),
                           ("normal.1002.png", "wood.mtlx"): ("converted", "raw"),
                           ("mask_u1_v1.png", "wood.mtlx"): ("converted", "raw"),
                           ("mask_u10_v1.png", "wood.mtlx"): ("converted", "raw"),
                           ("stamp.png", "defs.mtlx"): ("converted", "linear")}  # MaterialX's default
    assert report[("asset.usdz" if package else "asset.usda", "")]["status"] == "converted"
    assert report[("inline.usda", "")]["status"] == "converted"
    root = out / "asset.usda"
    assert vip.checkAsset(str(root)) == []
    written = {t.attribute: t for t in vip.findAssetDependencies(str(root)).textures}
    assert {name: (t.assetPath, t.type, t.colorSpace, len(t.files)) for name, t in written.items()} == {
        "NG_wood/base/file": (f"./textures/oak_base{ext}", "color3", base_space, 1),
        "NG_wood/rough/file": (f"./textures/rough{ext}", "float", "", 1),
        "NG_wood/normal/file": (f"./textures/normal.<UDIM>{ext}", "vector3", "", 2),
        "NG_wood/mask/file": (f"./textures/mask_<UVTILE>{ext}", "float", "", 2),
        "ND_stamp/file": (f"./textures/stamp{ext}", "color3", "lin_rec709", 1)}
    text = (out / "materials/wood.mtlx").read_text()
    assert "fileprefix" not in text and '<xi:include href="./lib/defs.mtlx" />' in text
    base = vip.readImage(written["NG_wood/base/file"].files[0]).pixels()
    source = vip.readImage(tmp_path / "in/materials/textures/oak_base.jpg").pixels().astype(float)
    np.testing.assert_allclose(base / (1 if ext == ".exr" else 255),
                               srgb_to_linear(source) if ext == ".exr" else source / 255, atol=1e-3)
    rough = vip.readImage(written["NG_wood/rough/file"].files[0]).pixels()  # data: as it was
    np.testing.assert_allclose(rough * (255 if ext == ".exr" else 1), gradient(16, 16, 1, np.uint8))
    # the inline shaders, known or not: no sourceColorSpace of UsdUVTexture; a colour image's
    # space rewritten
    layer = (tmp_path / "out/inline.usda").read_text()
    assert "sourceColorSpace" not in layer and layer.count("colorSpace") == 1
    assert f'colorSpace = "{base_space}"' in layer


@pytest.mark.parametrize("rough, space, reason", [
    ("gone.png", 'colorSpace = "srgb_texture"',
     "missing: ./textures/gone.png (input NG_wood/rough/file in TMP/in/materials/wood.mtlx)"),
    ("rough.png", 'colorSpace = "acescg"',  # no config knows it: not converted, by name
     "no conversion from 'acescg' to 'linear' for .exr"),
])
def test_a_texture_that_is_missing_or_cannot_be_converted_fails_its_asset_by_name(
        tmp_path, rough, space, reason):
    make_asset(tmp_path / "in", rough, space)
    code, report = run(tmp_path, "--ext .exr")
    failed = " ".join(e["reason"] for e in report.values() if e["status"] == "failed")
    assert code == 1 and reason in failed.replace(str(tmp_path), "TMP")


def test_a_document_that_includes_a_fifo_fails_its_asset_before_anything_reads_it(tmp_path):
    make_asset(tmp_path / "in")
    os.mkfifo(tmp_path / "in/materials/lib/pipe.mtlx")  # read, it would block for good
    defs = tmp_path / "in/materials/lib/defs.mtlx"
    defs.write_text(defs.read_text().replace("<nodedef", '<xi:include href="pipe.mtlx" />\n  <nodedef'))
    code, report = run(tmp_path, "--ext .png --timeout 60", "in/asset.usda")
    assert code == 1 and report[("asset.usda", "")]["reason"] == \
        f"{tmp_path}/in/materials/lib/pipe.mtlx: not a regular file"
    assert sorted(p.name for p in (tmp_path / "out").iterdir()) == [".batch.lock", "batch-report.jsonl"]
