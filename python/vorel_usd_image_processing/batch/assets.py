"""USD assets as inputs: each texture an asset uses becomes a job, and when they are done the asset
is written again (or packaged) to point at the converted files.

Outputs keep the layout of the inputs: a dependency below the input's folder lands at the same
place below the output folder, one elsewhere under ``_external/`` with its absolute path, and what
lies inside a ``.usdz`` in a folder named after the package. A texture used the same way by several
shaders or assets is one job; one used both as colour and as data is two, the data one named
``NAME.raw.EXT`` (and ``NAME.SRCEXT.EXT`` where two sources would meet in one name).
"""

from __future__ import annotations

import argparse
import dataclasses
import itertools
import os
import pathlib
import re
import shutil
import time
from typing import Any

import vorel_usd_image_processing as vip

from .child import Converter
from .colour import DATA, from_materialx, space_by_rule, to_materialx
from .job import Job, Result, Settings, partial_name
from .paths import NOT_REGULAR, forget_folders, is_regular, lies_under, member_problem

ASSET_EXTENSIONS = (".usd", ".usda", ".usdc", ".usdz")
PACKAGE_EXTENSIONS = (".png", ".jpg", ".jpeg")  # the textures a .usdz may hold
PACKAGED = re.compile(r"^(.*?\.usdz)\[(.*)\]$", re.IGNORECASE)  # package, path inside
_TILES = ("<UDIM>", "<UVTILE>")  # a set of tiles, converted as the tiles that exist


def is_asset(path: str) -> bool:
    return pathlib.Path(path).suffix.lower() in ASSET_EXTENSIONS


def outer_file(source: str) -> str:
    """The file on disk that holds a source: the package of pkg.usdz[inner], else itself."""
    packaged = PACKAGED.match(source)
    return outer_file(packaged[1]) if packaged else source


def is_packaged(source: str) -> bool:
    return PACKAGED.match(source) is not None


def usage(texture: dict[str, Any], file: str) -> str:
    """"raw" for data (never colour-converted), "color" for the colour policy of the target.

    A MaterialX image is colour where its type is (it has a colour space then). Otherwise an
    authored "raw" or "sRGB" decides, else ("auto") the batch's rule for sources that name no
    colour space says which images are data.
    """
    if texture["type"]:
        return "color" if texture["colorSpace"] else "raw"
    stated = stated_space(texture)
    if stated:
        return "raw" if stated == DATA else "color"
    found = vip.readAssetImageFormat(file)
    if found is None:
        return "color"  # the job fails with the reader's own reason
    return "raw" if space_by_rule(*found) == DATA else "color"


def stated_space(texture: dict[str, Any]) -> str:
    """The colour space an asset states for a texture (by the library's name); '' for "auto"."""
    if texture["type"]:
        return from_materialx(texture["colorSpace"])
    stated = str(texture["sourceColorSpace"])
    return stated if stated in ("raw", "sRGB") else ""


@dataclasses.dataclass
class Use:
    """One texture use of an asset: the path its shader is to name, and the jobs behind it."""

    target: str  # an output file, or a pattern of tiles
    usage: str
    outputs: list[str]
    materialx: bool  # read by a MaterialX node: it names a MaterialX colour space


@dataclasses.dataclass
class Asset:
    input: str
    output: str  # the written root layer, or the package with --usdz
    dependencies: dict[str, Any] = dataclasses.field(default_factory=dict)  # as `step` walks them
    outputs: dict[str, str] = dataclasses.field(default_factory=dict)  # layers and other files
    uses: list[Use | None] = dataclasses.field(default_factory=list)  # None: missing
    root_layer: str = ""  # where the root layer is written
    error: str = ""
    error_status: str = "failed"  # or crashed, timed_out: the walk's converter process

    def result(self, status: str, reason: str, started: float) -> Result:
        return {"input": self.input, "status": status, "output": self.output, "reason": reason,
                "color_space": "", "seconds": round(time.monotonic() - started, 3),
                "asset": self.input}


class Planner:
    """Gives every dependency of the assets its output, and every texture file its job."""

    def __init__(self, args: argparse.Namespace, attributes: tuple[tuple[str, int], ...]) -> None:
        self.args, self.attributes = args, attributes
        self.settings = Settings(attributes, vip.__version__, args.color_config)
        # (source, usage, the space its asset states) → its job: a file that two documents or
        # shaders say different things of is converted for each
        self.jobs: dict[tuple[str, str, str], Job] = {}
        self.claimed: dict[str, tuple[str, str]] = {}  # output → (source, usage)
        self.failed: list[Result] = []  # inputs that fail before anything runs
        self.steps = Converter()  # OpenUSD on strangers' assets, in a process of its own

    def location(self, resolved: str, folder: pathlib.Path) -> pathlib.Path:
        """Where a dependency lands below the output folder."""
        packaged = PACKAGED.match(resolved)
        if packaged:
            return self.location(packaged[1], folder).with_suffix("") / packaged[2]
        path, output = pathlib.Path(resolved), pathlib.Path(self.args.output).absolute()
        try:
            return output / path.relative_to(folder.absolute())
        except ValueError:
            return output / "_external" / path.relative_to(path.anchor)

    def layer_output(self, layer: str, folder: pathlib.Path, packages: dict[str, Any]) -> str:
        """Where a layer is written; a package's root layer, in a folder named after it."""
        place = self.location(layer, folder)
        if not is_packaged(layer) and place.suffix.lower() == ".usdz":
            return str(place.with_suffix("") / packages[layer][0][0])  # its first member
        return str(place)

    def job(self, given: str, source: str, kind: str, place: pathlib.Path, asset: str = "",
            space: str = "", document: str = "") -> Job:
        """The job of `source` used as `kind`, made on its first use under a free name."""
        if (source, kind, space) in self.jobs:
            return self.jobs[(source, kind, space)]
        ext = self.args.ext
        base = place.with_suffix(ext)
        from_ext = place.suffix.lstrip(".").lower()
        names = [base, base.with_name(f"{base.stem}.{kind}{ext}"),
                 base.with_name(f"{base.stem}.{from_ext}{ext}"),
                 base.with_name(f"{base.stem}.{from_ext}.{kind}{ext}")]
        if kind == "color":
            names = [base, names[2]]
        numbered = (base.with_name(f"{base.stem}.{n}{ext}") for n in range(2, 1000))
        output = str(next(name for name in itertools.chain(names, numbered)
                          if str(name) not in self.claimed))
        self.claimed[output] = (source, kind)
        return self.add_job(given, source, kind, output, asset, space, document)

    def add_job(self, given: str, source: str, kind: str, output: str, asset: str = "",
                space: str = "", document: str = "") -> Job:
        """The job of `source` used as `kind` (in the colour `space` its asset states), written
        to `output` with the batch's options."""
        job = Job(given, source, output, tuple(self.args.op), self.args.png_compression,
                  self.attributes, self.args.timeout, self.args.texture,
                  usage="raw" if kind == "raw" else "", asset=asset, document=document,
                  version=vip.__version__,
                  color_space=space, assume=self.args.assume_color_space or "",
                  color_config=self.args.color_config)
        self.jobs[(source, kind, space)] = job
        return job

    def file(self, given: str, folder: pathlib.Path) -> None:
        """A file input: the colour policy, the job an asset may already have made of it, under
        a free name beside a data use of the same file. A name that another source claims is
        kept: the plan then refuses the two."""
        source = str(pathlib.Path(given).absolute())
        place = self.location(source, folder)
        output = str(place.with_suffix(self.args.ext))
        taken = self.claimed.get(output)
        if not is_regular(source):
            self.failed.append(Job(given, source, output).result("failed", NOT_REGULAR))
        elif taken is None or taken[0] == source:
            self.job(given, source, "color", place)
        else:
            self.add_job(given, source, "color", output)

    def asset(self, given: str, folder: pathlib.Path) -> Asset:
        source = str(pathlib.Path(given).absolute())
        place = self.location(source, folder)
        asset = Asset(given, str(place.with_suffix(".usdz") if self.args.usdz else place))
        if not is_regular(source):
            asset.error = NOT_REGULAR
            return asset
        own = os.path.dirname(source) if self.args.untrusted else ""
        walked = self.steps.ask({"asset_step": "walk", "source": source, "confine": own},
                                self.args.timeout, self.settings)
        if isinstance(walked, tuple):
            asset.error_status, asset.error = walked
            return asset
        asset.dependencies = found = walked
        asset.error = found["error"] or refusal(found, own)
        if asset.error:
            return asset
        asset.outputs = {layer: self.layer_output(layer, folder, found["packages"])
                         for layer in found["layers"]}
        asset.root_layer = asset.outputs[found["rootLayer"]]
        if not self.args.usdz:
            asset.output = asset.root_layer
        asset.outputs.update({file: str(self.location(file, folder))
                              for file in found["documents"] + found["files"]})
        asset.uses = [None] * len(found["textures"])
        # Colour first: a file that is also data keeps its own name for its colour use.
        for kind in ("color", "raw"):
            for at, texture in enumerate(found["textures"]):
                if texture["usage"] == kind:
                    asset.uses[at] = self.use(texture, kind, asset, folder)
        return asset

    def use(self, texture: dict[str, Any], kind: str, asset: Asset, folder: pathlib.Path) -> Use:
        space = stated_space(texture) if kind == "color" else DATA  # data, whoever says so
        jobs = [self.job(file, file, kind, self.location(file, folder), asset.input, space,
                         texture["document"])
                for file in texture["files"]]
        target = pathlib.Path(jobs[0].output)
        pattern = pathlib.PurePosixPath(texture["assetPath"]).name
        for token in (token for token in _TILES if token in pattern):
            # The first tile's output with its tile back to the token: names keep the part
            # before it.
            at = len(pattern.split(token)[0])
            tile = len(pathlib.PurePosixPath(inner_name(texture["files"][0])).name) \
                - len(pattern) + len(token)
            target = target.with_name(target.name[:at] + token + target.name[at + tile:])
        return Use(str(target), kind, [job.output for job in jobs], bool(texture["type"]))


def inner_name(source: str) -> str:
    """The name of a source where it lies: inside its package, for pkg.usdz[inner]."""
    packaged = PACKAGED.match(source)
    return inner_name(packaged[2]) if packaged else source


def read_files(found: dict[str, Any]) -> list[str]:
    """Every file on disk that an asset's walk found it to read: layers, packages, documents,
    textures and other files."""
    files = found["layers"] + found["unopened"] + found["documents"] + found["files"] + [
        file for texture in found["textures"] for file in texture["files"]]
    return list(dict.fromkeys(outer_file(file) for file in files))


def may_read(file: str, own: str) -> bool:
    """Whether a file of a stranger's asset may be opened at all: a regular file and, with `own`
    (--untrusted), in the asset's own folder. `refusal` says why not."""
    outer = outer_file(file)
    return is_regular(outer) and (not own or lies_under(outer, own))


def refusal(found: dict[str, Any], own: str) -> str:
    """Why the asset is failed before anything of it is read or written, or ''. A package with a
    member that would land outside the output folder, a dependency that is no regular file and,
    with `own` (--untrusted), one outside the asset's own folder."""
    problems = []
    for package, members in found["packages"].items():
        if members is None:
            problems.append(f"{package}: OpenUSD can't read it as a package")
        else:
            named = (member_problem(name, stored) for name, stored in members)
            problems += [f"{package}: {problem}" for problem in named if problem]
    files = read_files(found)
    problems += [f"{file}: {NOT_REGULAR}" for file in files if not is_regular(file)]
    if own:
        outside = [file for file in files if not lies_under(file, own)]
        if outside:
            problems.append(f"depends on files outside its folder {own} (--untrusted): "
                            + ", ".join(outside))
    if found["unopened"] and not problems:  # refused by the walk, since changed
        problems.append("layers not opened: " + ", ".join(found["unopened"]))
    return "; ".join(problems)


def write_file(output: str, data: bytes | None = None, source: str = "") -> None:
    """Writes `data` (or a copy of `source`) under a temporary name, then renames it."""
    os.makedirs(os.path.dirname(output), exist_ok=True)
    partial = partial_name(output)
    try:
        if data is None:
            shutil.copyfile(source, partial)
        else:
            pathlib.Path(partial).write_bytes(data)
        os.replace(partial, output)
    finally:
        pathlib.Path(partial).unlink(missing_ok=True)


def copy_dependency(source: str, output: str) -> str:
    """Copies a file that is not converted (one that a layer or document names and that is no
    image); a reason on failure."""
    if not is_regular(outer_file(source)):
        return f"{source}: {NOT_REGULAR}"
    if is_packaged(source):
        data = vip.readAssetBytes(source)
        if data is None:
            return f"{source} can't be read"
        write_file(output, data)
        return ""
    try:
        write_file(output, source=source)
    except OSError as error:
        return f"{source}: {error.strerror}"
    return ""


def space(result: Result) -> str:
    """The colour space of a converted texture; a skipped one's, its file's."""
    return result["color_space"] or vip.getFileStringAttribute(result["output"], "oiio:ColorSpace")


def finish(asset: Asset, results: dict[str, Result], steps: Converter,
           timeout: float | None, settings: Settings) -> Result:
    """Writes the asset once its textures are done, and checks that it opens and resolves."""
    started = time.monotonic()
    if asset.error:
        return asset.result(asset.error_status, asset.error, started)
    found = asset.dependencies
    problems = [f"missing: {path}" for path in found["missing"]]
    targets: list[dict[str, str] | None] = []
    for use in asset.uses:
        done = [results.get(output, {"input": output, "status": ""}) for output in use.outputs] \
            if use else []
        bad = [result["input"] for result in done
               if result["status"] not in ("converted", "skipped")]
        if use is None or bad:
            problems += [f"not converted: {name}" for name in bad]
            targets.append(None)
            continue
        colour = use.usage == "color"
        srgb = all(space(result) == "sRGB" for result in done)
        targets.append({"path": use.target, "sourceColorSpace": "sRGB" if colour and srgb else "raw",
                        "colorSpace": to_materialx(space(done[0])) if colour and use.materialx
                        else ""})
    written = steps.ask({"asset_step": "write", "dependencies": found, "outputs": asset.outputs,
                         "targets": targets, "root": asset.root_layer,
                         "package": asset.output if asset.output != asset.root_layer else ""},
                        timeout, settings)
    if isinstance(written, tuple):
        return asset.result(written[0], written[1], started)
    unique = list(dict.fromkeys(problems + written["problems"]))
    return asset.result("failed" if unique else "converted", "; ".join(unique), started)


def step(request: dict[str, Any]) -> dict[str, Any]:
    """A step of an asset in the converter process: "walk" (what it uses, and how each texture is
    used) or "write" (the asset written again, checked and maybe packaged: what is wrong)."""
    if request["asset_step"] == "walk":
        forget_folders()
        own = request["confine"]
        found = vip.findAssetDependencies(request["source"], lambda layer: may_read(layer, own))
        walked = found.toJson()
        # One reader of packages, OpenUSD's, for listing as for converting.
        walked["packages"] = {package: vip.listPackage(package)
                              for package in read_files(walked)
                              if pathlib.Path(package).suffix.lower() == ".usdz" and
                              may_read(package, own)}
        for texture in walked["textures"]:
            files = texture["files"]
            readable = files and all(may_read(file, own) for file in files)
            texture["usage"] = usage(texture, files[0]) if readable else ""
        return walked
    return {"problems": write(request)}


def write(request: dict[str, Any]) -> list[str]:
    found = vip.AssetDependencies.fromJson(request["dependencies"])
    outputs, root, package = request["outputs"], request["root"], request["package"]
    copied = {file: copy_dependency(file, outputs[file]) for file in found.files}
    problems = [problem for problem in copied.values() if problem]
    wrote = [outputs[file] for file, problem in copied.items() if not problem]
    targets = [vip.TextureTarget.fromJson(target) if target else None
               for target in request["targets"]]
    temporaries = {layer: partial_name(outputs[layer]) for layer in found.layers + found.documents}
    written = vip.writeAsset(found, outputs, targets, temporaries)
    for layer, temporary in temporaries.items():  # all in place, or none
        if not written and os.path.exists(temporary):
            os.replace(temporary, outputs[layer])
            wrote.append(outputs[layer])
        pathlib.Path(temporary).unlink(missing_ok=True)
    if written:
        return problems + [written]
    problems += vip.checkAsset(root)
    if package:
        packaged = vip.packageAsset(root, partial_name(package))
        if not packaged:
            os.replace(partial_name(package), package)
        pathlib.Path(partial_name(package)).unlink(missing_ok=True)
        problems += filter(None, [packaged])
        for file in wrote:  # the package holds them now; only what this run wrote goes
            pathlib.Path(file).unlink(missing_ok=True)
            try:
                os.removedirs(os.path.dirname(file))
            except OSError:
                pass  # a folder that holds more (converted textures)
        if os.path.exists(package):
            problems += vip.checkAsset(package)
    return problems
