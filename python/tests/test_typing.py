"""The stubs against the built module, and scripts against the stubs (needs Debian's mypy)."""
import os
import pathlib
import subprocess
import sys

import pytest

import vorel_usd_image_processing as vip

pytest.importorskip("mypy")
PACKAGE = pathlib.Path(vip.__file__).resolve().parent
ROOT = pathlib.Path(__file__).resolve().parents[2]
MISTAKES = """import vorel_usd_image_processing as vip
vip.readImage(42)
vip.cut(vip.Image(), "0,0,4,4")
vip.getColorSpace("plate.exr")
vip.writeImage(vip.readImage("a.exr"), "b.png", 9)
"""


def mypy(*args):
    cache = ["--cache-dir", str(PACKAGE.parent.parent / "mypy_cache")] if args[0] == "mypy" else []
    return subprocess.run([sys.executable, "-m", *args, *cache], capture_output=True, text=True,
                          env=dict(os.environ, PYTHONPATH=str(PACKAGE.parent)), timeout=300)


def test_stubs_match_the_built_module(tmp_path):
    allowlists = ["--allowlist", str(pathlib.Path(__file__).with_name("stubtest_allowlist.txt"))]
    if not vip.usdAssetsAvailable:  # the stubs state them for a build against OpenUSD
        (tmp_path / "assets.txt").write_text(r"vorel_usd_image_processing\._core\.(\w*Asset\w*|listPackage)(\..*)?" "\n")
        allowlists += ["--allowlist", str(tmp_path / "assets.txt")]
    done = mypy("mypy.stubtest", "vorel_usd_image_processing._core", *allowlists)
    assert done.returncode == 0, done.stdout + done.stderr


def test_scripts_check_strictly_and_wrong_arguments_are_flagged(tmp_path):
    done = mypy("mypy", "--strict", str(ROOT / "examples" / "vorel_image_tool.py"),
                str(PACKAGE / "batch"))
    assert done.returncode == 0, done.stdout
    (tmp_path / "mistakes.py").write_text(MISTAKES)
    done = mypy("mypy", "--strict", str(tmp_path / "mistakes.py"))
    flagged = {int(line.split(":")[1]) for line in done.stdout.splitlines() if ": error:" in line}
    assert flagged == {2, 3, 4}, done.stdout
