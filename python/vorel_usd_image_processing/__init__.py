"""Image reading, writing and operations for USD pipelines, over OpenImageIO.

The functions keep their C++ names and failure values: an empty (falsy) Image, False or 0, with
the reason in the "vorel_usd_image_processing" logger of Python's logging. The compiled bindings
live in ``_core``; ``vorel_usd_image_processing.batch`` converts many files on Dask.
"""

from ._core import *  # noqa: F401,F403  (the bindings' names, at the package's top level)
# The library's version: star imports skip it, and "as" exports it to mypy --strict.
from ._core import __version__ as __version__  # noqa: F401
