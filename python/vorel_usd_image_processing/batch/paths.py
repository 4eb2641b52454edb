"""The rules on paths: what the batch may read, and where it may write.

Every path is compared after links are resolved, so that a link can't make a source look like an
output, or an output folder look like somewhere else.
"""

from __future__ import annotations

import functools
import os
import pathlib
import stat

NOT_REGULAR = "not a regular file"


def real(path: str | os.PathLike[str]) -> str:
    """The path with every link resolved. Folders are resolved once: a plan holds thousands of
    paths in a few folders."""
    if ".." in os.fspath(path).split(os.sep):  # the system takes a link before its '..'
        return os.path.realpath(path)
    folder, name = os.path.split(os.path.abspath(path))
    resolved = os.path.join(_real_folder(folder), name)
    return os.path.realpath(resolved) if os.path.islink(resolved) else resolved


@functools.lru_cache(maxsize=4096)
def _real_folder(folder: str) -> str:
    return os.path.realpath(folder)


def forget_folders() -> None:
    """Resolves folders anew: links may have changed since (a converter process lives long)."""
    _real_folder.cache_clear()


def lies_under(path: str | os.PathLike[str], folder: str | os.PathLike[str]) -> bool:
    """Whether `path`, links resolved, is `folder` or lies below it."""
    path, folder = real(path), real(folder)
    return path == folder or path.startswith(folder.rstrip(os.sep) + os.sep)


def is_hidden(name: str) -> bool:
    """Hidden files are never taken by a folder walk: the batch's own records, temporaries and
    lock are hidden, and so are a desktop's own files (.DS_Store)."""
    return name.startswith(".")


def is_regular(path: str) -> bool:
    """Whether a path that exists is a regular file (links followed). A device, FIFO, socket or
    folder is never opened: reading one blocks for ever or never ends. A path that doesn't exist
    passes: its reader says so."""
    try:
        return stat.S_ISREG(os.stat(path).st_mode)
    except FileNotFoundError:
        return True
    except OSError:
        return False


def member_problem(name: str, stored: bool) -> str:
    """Why a member of a .usdz package can't be taken as a file of the asset; '' when it can.

    A name that is absolute or climbs out with '..' would land outside the output folder (as
    tar and unzip refuse such members); a folder entry or a compressed or encrypted member is no
    file that OpenUSD reads.
    """
    parts = pathlib.PurePosixPath(name.replace("\\", "/")).parts
    if name.startswith(("/", "\\")) or (parts and ":" in parts[0]):
        return f"package member {name} has an absolute name"
    if ".." in parts:
        return f"package member {name} climbs out of the package with '..'"
    if name.endswith("/") or not stored:
        return f"package member {name} is not a regular file entry"
    return ""
