import logging
import pathlib
import tempfile

import numpy as np
import pytest

LOGGER = "vorel_usd_image_processing"


@pytest.fixture
def tmp_path():
    """A fresh folder, removed with its files afterwards (pytest's own keeps recent ones)."""
    with tempfile.TemporaryDirectory(prefix="vorel_python_test_") as folder:
        yield pathlib.Path(folder)


@pytest.fixture
def log(caplog):
    caplog.set_level(logging.DEBUG, logger=LOGGER)
    return caplog


def gradient(height=4, width=5, channels=3, dtype=np.float32):
    """Every sample differs: (y * width + x) * channels + c, scaled into 0..1 for floats."""
    values = np.arange(height * width * channels).reshape(height, width, channels)
    return (values / values.size if np.issubdtype(dtype, np.floating) else values).astype(dtype)
