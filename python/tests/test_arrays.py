import gc

import numpy as np
import pytest

import vorel_usd_image_processing as vip
from conftest import gradient


@pytest.mark.parametrize("dtype, extension", [
    (np.uint8, "png"), (np.uint16, "png"), (np.int8, "tif"), (np.int16, "tif"),
    (np.uint32, "tif"), (np.int32, "tif"), (np.float16, "exr"), (np.float32, "exr"),
    (np.float64, "tif"),
])
def test_round_trip_through_array_and_file(tmp_path, dtype, extension):
    source, path = gradient(dtype=dtype), tmp_path / f"round.{extension}"
    assert vip.writeImage(vip.Image.from_array(source), path)
    back = vip.readImage(str(path))
    assert back.dtype == source.dtype and vip.getImageSpec(path) == vip.ImageSpec(5, 4)
    np.testing.assert_array_equal(back.pixels(), source)


def test_pixels_share_memory_and_outlive_the_image():
    image = vip.Image.from_array(gradient())
    image.pixels()  # a temporary array releases its hold when it goes
    assert vip.addAlphaChannel(image, 1.0)
    pixels = image.pixels()
    pixels[1, 2, 0] = 0.25
    assert vip.getPixelValue(image, 2, 1, 0, 0) == 0.25 and pixels.shape == (4, 5, 4)
    # Replacing the pixels in place would leave the array dangling: refused while it lives.
    with pytest.raises(ValueError, match="addAlphaChannel"):
        vip.addAlphaChannel(image, 1.0)
    view = pixels[1:, ::2]
    del image, pixels
    gc.collect()
    assert view[0, 1, 0] == 0.25 and view.sum() > 0


def test_unusable_arrays_and_buffers_are_refused():
    with pytest.raises(ValueError, match="C-contiguous"):
        vip.Image.from_array(gradient(width=6)[:, ::2])
    for array, error in [*((np.zeros((2, 2, 1), d), TypeError) for d in (bool, "c8", "i8", ">f4")),
                         *((np.zeros(s, "u1"), ValueError) for s in ((4,), (0, 3, 1), (1, 1, 1, 1)))]:
        with pytest.raises(error):
            vip.Image.from_array(array)
    with pytest.raises(ValueError, match="needs 24 bytes"):
        vip.createImageFromData(bytes(23), 2, 3, 4, np.uint8)
    with pytest.raises(ValueError):
        vip.Image().pixels()
    image = vip.createImageFromData(bytes(range(24)), 2, 3, 4, "uint8")
    assert image.pixels()[2, 1, 3] == 23 and vip.getColorSpace(image) == ""
