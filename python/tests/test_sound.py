"""Sound as numpy arrays: the test microphone's 1 kHz tone in each sample type, through
read_audio and on_audio, and as a camera's companion."""

import threading

import numpy as np
import pytest

import tavix
from conftest import MICROPHONE, dominant_frequency


@pytest.mark.parametrize(
    "dtype, sample_rate, channels",
    [("float32", 48000, 2), ("int16", 16000, 1), ("int32", 44100, 2), ("uint8", 8000, 1),
     ("float64", 32000, 6)],
)
def test_each_sample_type_carries_the_tone(microphone, dtype, sample_rate, channels):
    with microphone.capture(sample_rate=sample_rate, channels=channels, dtype=dtype) as session:
        sound = session.read_audio(sample_rate // 5, timeout=20)
    assert sound.shape == (sample_rate // 5, channels) and sound.dtype == np.dtype(dtype)
    assert sound.sample_rate == sample_rate
    signal = sound[:, 0].astype(np.float64)
    # Frequency resolution of a 0.2 s window is 5 Hz.
    assert abs(dominant_frequency(signal - signal.mean(), sample_rate) - 1000) <= 5
    np.testing.assert_array_equal(sound[:, 0], sound[:, -1])
    if sound.dtype.kind == "f":
        assert 0.1 < np.abs(sound).max() <= 1.0


def test_read_audio_returns_exactly_what_is_asked_and_keeps_the_rest(microphone):
    with microphone.capture() as session:
        first = session.read_audio(1000, timeout=20)
        second = session.read_audio(1000, timeout=20)
        everything = session.read_audio(timeout=5)
    assert len(first) == len(second) == 1000
    assert len(everything) > 0
    # Consecutive reads continue the same tone: no gap between the two blocks.
    joined = np.concatenate([first[:, 0], second[:, 0]])
    assert abs(dominant_frequency(joined, 48000) - 1000) <= 25


def test_sound_goes_to_on_audio_on_the_capture_thread(microphone):
    blocks = []
    enough = threading.Event()

    def on_audio(block):
        blocks.append(block)
        if sum(len(b) for b in blocks) >= 4800:
            enough.set()

    with microphone.capture(dtype="int16", on_audio=on_audio):
        assert enough.wait(20)
    assert all(b.dtype == np.int16 and b.shape[1] == 2 for b in blocks)


def test_a_camera_takes_sound_from_a_companion_microphone(camera):
    with camera.capture(size=(160, 120), audio=MICROPHONE, dtype="int16") as session:
        frame = session.read(timeout=20)
        sound = session.read_audio(4800, timeout=20)
    assert frame.shape == (120, 160, 4)
    assert sound.shape == (4800, 2)
    assert abs(dominant_frequency(sound[:, 0].astype(float), 48000) - 1000) <= 10


def test_a_sound_only_session_has_no_frames(microphone):
    with microphone.capture() as session:
        assert not session.has_video
        with pytest.raises(tavix.TavixError, match="read_audio"):
            next(iter(session))
