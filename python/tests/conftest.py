"""Shared fixtures: the three built-in devices, opened for one test each, and the check that a
test leaves no device handle in use."""

import time

import numpy as np
import pytest

import tavix

CAMERA = "Tavix Test Camera"
MICROPHONE = "Tavix Test Microphone"
DECK = "Tavix Test Deck"

# The test camera's 75% colour bars, left to right, as red, green, blue.
BARS = np.array([[191, 191, 191], [191, 191, 0], [0, 191, 191], [0, 191, 0],
                 [191, 0, 191], [191, 0, 0], [0, 0, 191], [0, 0, 0]])


def bar_colours(rgb_row):
    """The colour of each of the eight bars along one row of (width, 3) RGB values: the median
    of the bar's inner columns, so that the moving white bar, narrower than a colour bar, does
    not count."""
    width = rgb_row.shape[0]
    colours = []
    for bar in range(8):
        x0, x1 = bar * width // 8, (bar + 1) * width // 8
        inner = rgb_row[x0 + (x1 - x0) // 8 : x1 - (x1 - x0) // 8]
        colours.append(np.median(inner, axis=0))
    return np.array(colours)


def dominant_frequency(samples, sample_rate):
    spectrum = np.abs(np.fft.rfft(samples * np.hanning(len(samples))))
    return np.fft.rfftfreq(len(samples), 1.0 / sample_rate)[np.argmax(spectrum)]


def wait_until(predicate, timeout=20):
    """Whether predicate came true within timeout seconds; generous, as a loaded machine needs."""
    deadline = time.monotonic() + timeout
    while not predicate():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.01)
    return True


@pytest.fixture(autouse=True)
def no_device_left_in_use():
    assert not tavix.has_devices_in_use(), "a device was in use before the test"
    yield
    assert not tavix.has_devices_in_use(), "the test left a device handle in use"


def _opened(name, media):
    """A fixture that opens the device for one test."""

    @pytest.fixture
    def fixture():
        with tavix.Device(name, media) as device:
            yield device

    return fixture


camera = _opened(CAMERA, "video")
microphone = _opened(MICROPHONE, "sound")
deck = _opened(DECK, "muxed")
