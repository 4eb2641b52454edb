"""Finding the inputs: files as given, folders walked, globs and @LIST files."""

from __future__ import annotations

import functools
import glob
import itertools
import os
import pathlib
from typing import Iterator

import vorel_usd_image_processing as vip

from .assets import is_asset
from .paths import is_hidden, lies_under, real


@functools.cache
def image_extensions() -> frozenset[str]:
    return frozenset(e.lower().lstrip(".") for e in vip.getSupportedImageExtensions())


def converts(name: str) -> bool:
    """Whether a folder walk takes a file of this name: an image the library reads, or a USD
    asset. Reports, records, notes and desktop files stay where they are."""
    return pathlib.PurePath(name).suffix.lower().lstrip(".") in image_extensions() or \
        is_asset(name)


def walk(folder: pathlib.Path, never: frozenset[str], untrusted: bool) -> Iterator[pathlib.Path]:
    """The files a folder holds that the batch converts, in name order, below it at any depth.

    Links to files are followed (versioned publishes are links), and links to folders too, but
    no folder is entered twice (a link loop) and none of `never` (real paths: the output
    folder) is entered at all; with `untrusted`, no link leads out of `folder`.
    """
    entered: set[str] = set()

    def visit(directory: pathlib.Path) -> Iterator[pathlib.Path]:
        if real(directory) in entered or real(directory) in never:
            return
        entered.add(real(directory))
        try:
            entries = sorted(os.scandir(directory), key=lambda entry: entry.name)
        except OSError:
            return
        for entry in entries:
            path = pathlib.Path(entry.path)
            if is_hidden(entry.name) or (untrusted and entry.is_symlink() and
                                         not lies_under(path, folder)):
                continue
            if entry.is_dir():
                yield from visit(path)
            elif entry.is_file() and converts(entry.name):
                yield path

    yield from visit(folder)


def find_inputs(inputs: list[str], never: frozenset[str],
                untrusted: bool) -> Iterator[tuple[str, pathlib.Path]]:
    """(input as given or found, the folder its output path is relative to) for each input.

    A path that exists is taken as it is, even when its name holds glob characters; a file
    named explicitly is taken whatever its kind. Only a path that doesn't exist is a glob.
    """
    for given in inputs:
        if given.startswith("@") and not os.path.lexists(given):
            listed = pathlib.Path(given[1:]).read_text().splitlines()
            yield from find_inputs([line.strip() for line in listed if line.strip()], never,
                                   untrusted)
        elif os.path.isdir(given):
            # The output folder is never walked, unless it is this very folder: then its files
            # are sources, and the plan refuses to write over them.
            skipped = never - {real(given)}
            for path in walk(pathlib.Path(given), skipped, untrusted):
                yield str(path), pathlib.Path(given)
        elif not os.path.lexists(given) and glob.has_magic(given):
            # Outputs keep the path below the glob's fixed part: in/**/*.exr finds in/a/b.exr,
            # whose output is OUTDIR/a/b.EXT.
            parts = pathlib.PurePath(given).parts[:-1]
            fixed = pathlib.Path(*itertools.takewhile(lambda part: not glob.has_magic(part), parts))
            for found in sorted(glob.glob(given, recursive=True)):
                if os.path.isfile(found) and not any(lies_under(found, n) for n in never):
                    yield found, fixed
        else:
            yield given, pathlib.Path(given).parent
