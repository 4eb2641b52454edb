import concurrent.futures
import logging
import subprocess
import sys

import numpy as np

import vorel_usd_image_processing as vip
from conftest import LOGGER, gradient


def test_failures_give_the_failure_value_and_one_record(tmp_path, log):
    image = vip.Image.from_array(gradient())
    missing = tmp_path / "missing.png"
    cases = [
        (lambda: vip.readImage(missing), logging.WARNING, f"Couldn't read image {missing}:\n"),
        (lambda: vip.getImageSpec(missing).width, logging.ERROR, f"Couldn't open image {missing}:\n"),
        (lambda: vip.getPixelUIntValue(image, 0, 0, 0, 0), logging.ERROR,
         "getPixelUIntValue requires UINT image, but image is float"),
        (lambda: vip.addMetadataToImage(image, {"list": [1, 2]}), logging.ERROR,
         "Unsupported metadata value type"),
        (lambda: vip.colorConvertByFormat(image, missing), logging.WARNING,
         "Image has no color space set and is unknown, no conversions will be done"),
    ]
    for call, level, message in cases:
        log.clear()
        assert not call(), message
        found = [(r.levelno, r.funcName, r.pathname[-4:], r.getMessage()[:len(message)])
                 for r in log.records if r.levelno >= logging.WARNING]
        assert found == [(level, LOGGER, ".cpp", message)]


def test_arguments_and_results_convert_from_python(tmp_path, log):
    rgba = vip.Image.from_array(gradient(channels=4))
    rgba.properties["asset"] = "chair"
    crop = vip.cut(rgba, vip.ROI(1, 3, 0, 2))
    assert dict(crop.properties) == {"asset": "chair"}
    np.testing.assert_array_equal(crop.pixels(), rgba.pixels()[0:2, 1:3])
    np.testing.assert_array_equal(vip.shuffle(rgba, 2, [3, 0]).pixels(), rgba.pixels()[..., [3, 0]])
    metadata = {"Note": "take 2", "Frame": 12, "Gain": 1.5}
    assert vip.addMetadataToImage(rgba, metadata)
    assert vip.getMetadataFromImage(rgba) | metadata == vip.getMetadataFromImage(rgba)
    vip.setColorSpace(rgba, "linear")
    assert vip.colorConvertByFormat(rgba, tmp_path / "out.PNG") and vip.getColorSpace(rgba) == "sRGB"
    assert (log.records[-1].levelno, log.records[-1].getMessage()) == \
        (logging.DEBUG, "Converted image from 'linear' to 'sRGB' for extension '.png'")
    rgb = vip.shuffle(rgba, 3, [0, 1, 2])  # PNG would store the colour unassociated
    assert vip.writeImage(rgb, tmp_path / "out.png", 9)
    back = vip.readImage(tmp_path / "out.png")
    assert back.dtype == np.uint8 and vip.getColorSpace(back) == "sRGB" and dict(back.properties) == {}
    np.testing.assert_array_equal(back.pixels(), np.round(rgb.pixels() * 255))
    assert vip.writeMultiPartEXR(["a", "b"], [rgba, vip.invert(rgba)], tmp_path / "layers.exr")
    np.testing.assert_array_equal(vip.readImage(tmp_path / "layers.exr").pixels(), rgba.pixels())
    frames = [rgba, vip.Image.from_array(gradient(height=2, width=2, channels=4))]
    assert not vip.writeAnimatedGif(frames, tmp_path / "anim.gif", 12.0)
    assert frames[0].geterror() == "" and frames[1].geterror() != ""


def test_eight_threads_give_what_one_gives(tmp_path, log):
    path = tmp_path / "plate.exr"
    assert vip.writeImage(vip.Image.from_array(gradient(64, 48, 4)), path)
    log.clear()

    def road(index):
        image = vip.invert(vip.fit(vip.readImage(path), vip.ROI(0, 32, 0, 32)))
        vip.readImage(tmp_path / f"missing{index}.png")  # one warning per call
        return vip.normalize(image, 0.1, 0.9).pixels().copy()

    with concurrent.futures.ThreadPoolExecutor(8) as pool:
        for result in pool.map(road, range(16)):
            np.testing.assert_array_equal(result, road(-1))
    assert len([r for r in log.records if r.levelno == logging.WARNING]) == 32


def test_interpreter_exit_hands_logging_back_to_spdlog():
    # The first exit handler runs last, after the bridge is down: its message goes to spdlog's
    # own console logger. Daemon threads still logging meanwhile must not take the process down.
    script = (
        "import atexit, threading, numpy\n"
        "atexit.register(lambda: vip.readImage('/nonexistent/after.png'))\n"
        "import vorel_usd_image_processing as vip\n"
        "image = vip.Image.from_array(numpy.zeros((2, 2, 3), numpy.float32))\n"
        "def spin():\n"
        "    while True: vip.invertChannel(image, 'Q')\n"
        "for _ in range(4): threading.Thread(target=spin, daemon=True).start()\n"
        "vip.readImage('/nonexistent/before.png')\n")
    done = subprocess.run([sys.executable, "-c", script], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0, done.stderr[-2000:]
    assert "Couldn't read image /nonexistent/before.png" in done.stderr
    after = [line for line in done.stdout.splitlines() if "read image /nonexistent/after" in line]
    assert len(after) == 1 and "[warning]" in after[0]
