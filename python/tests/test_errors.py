"""What a mistake gets: an exception that says what went wrong, and no device left in use."""

import os

import pytest

import tavix
from conftest import CAMERA, DECK, MICROPHONE


def test_an_unknown_device_name_lists_the_devices_there_are():
    with pytest.raises(tavix.DeviceNotFoundError) as raised:
        with tavix.Device("Nonexistent Camera", "video"):
            pass
    message = str(raised.value)
    assert "'Nonexistent Camera'" in message and repr(CAMERA) in message and repr(DECK) in message
    assert isinstance(raised.value, LookupError)

    # A real name with the wrong media type is not found either, and the others are named.
    with pytest.raises(tavix.DeviceNotFoundError, match=f"other devices: '{CAMERA}'"):
        tavix.Device(CAMERA, "sound").open()

    with pytest.raises(ValueError, match="media must be"):
        tavix.Device(CAMERA, "pictures")


@pytest.mark.parametrize(
    "options, message",
    [
        ({"pixel_format": "MJPG"}, "'MJPG' is not one the library delivers; choose one of BGRA"),
        ({"pixel_format": "y420"}, "ask for '420v'"),
        ({"size": (0, 480)}, "1 to 16384 pixels a side"),
        ({"size": (20000, 480)}, "not 20000 x 480"),
        ({"pixel_format": "NV12", "size": (321, 240)}, "even width and height"),
        ({"audio": True}, f"no sound of its own; pass audio=NAME with one of '{MICROPHONE}'"),
        ({"audio": MICROPHONE, "dtype": "int8"}, "sample type 'int8'"),
        ({"audio": MICROPHONE, "sample_rate": 0}, "sample_rate must be an integer from 8000"),
        ({"audio": MICROPHONE, "channels": 100}, "channels must be an integer from 1 to 32"),
    ],
)
def test_a_format_the_device_cannot_deliver_is_refused_before_capture(camera, options, message):
    with pytest.raises(tavix.FormatError, match=message.replace("(", r"\(")):
        camera.capture(**options)
    assert not camera.is_capturing


def test_an_unknown_companion_sound_device_is_named(camera):
    with pytest.raises(tavix.DeviceNotFoundError, match="no sound device named 'Nope'"):
        camera.capture(audio="Nope")


def test_a_path_that_cannot_be_written_is_refused_and_left_alone(camera, tmp_path):
    # The library's own reasons.
    with pytest.raises(tavix.RecordingError, match="Cannot record to .*missing/take.mov: No such"):
        camera.capture(record=tmp_path / "missing" / "take.mov")
    with pytest.raises(OSError, match="Is a directory"):
        camera.capture(record=tmp_path)
    assert not camera.is_capturing
    # A path that can be written is not left behind when the check is all that happened.
    assert os.listdir(tmp_path) == []


def test_a_device_cannot_be_used_after_its_block(camera):
    with tavix.Device(DECK) as deck:
        session = deck.capture(size=(90, 72))
    assert not session.running
    for use in (deck.formats, lambda: deck.capture(), lambda: deck.transport, deck.open):
        with pytest.raises(tavix.DeviceClosedError, match=f"'{DECK}' was closed"):
            use()
    # Its session ended with it: what was waiting can still be read, then nothing.
    while session.read(timeout=0) is not None:
        pass
    assert list(session) == []
    deck.close()  # closing again does nothing


def test_one_capture_at_a_time(camera):
    with camera.capture(size=(64, 48)):
        with pytest.raises(tavix.TavixError, match="already capturing"):
            camera.capture()
    with camera.capture(size=(64, 48)) as again:
        assert again.read(timeout=20) is not None


def test_reading_what_a_session_does_not_carry(camera):
    with camera.capture(size=(64, 48)) as session:
        with pytest.raises(tavix.TavixError, match="carries no sound"):
            session.read_audio()
