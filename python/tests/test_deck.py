"""The test deck: transport modes, and the timecode its frames carry as the tape moves."""

import pytest

import tavix


def frame_number(timecode):
    return ((timecode.hours * 60 + timecode.minutes) * 60 + timecode.seconds) * 25 + timecode.frames


def first_running(session):
    """The first frame whose tape is moving."""
    for _ in range(250):
        frame = session.read(timeout=20)
        if frame.timecode.running:
            return frame
    raise AssertionError("the tape never moved")


def latest_frame(session):
    frame = session.read(timeout=20)
    while True:
        newer = session.read(timeout=0)
        if newer is None:
            return frame
        frame = newer


def test_transport_drives_the_tape_and_its_timecode(deck):
    assert deck.has_transport
    deck.transport = "stop"
    assert deck.transport is tavix.Transport.STOP

    with deck.capture(size=(180, 144)) as session:
        held = latest_frame(session).timecode
        assert held.valid and not held.running
        still = [frame_number(session.read(timeout=20).timecode) for _ in range(8)]
        assert still == [frame_number(held)] * 8

        deck.transport = tavix.Transport.PLAY
        frames = [first_running(session)] + [session.read(timeout=20) for _ in range(4)]
        numbers = [frame_number(f.timecode) for f in frames]
        assert numbers == list(range(numbers[0], numbers[0] + 5)), "one timecode frame a frame"
        assert all(f.timecode.running for f in frames)
        assert frame_number(deck.timecode) >= numbers[-1]
        assert str(deck.timecode).count(":") == 3

        # Winding shows no picture; the tape moves many times faster than playing.
        before = frame_number(latest_frame(session).timecode)
        deck.transport = "ff"
        assert deck.transport is tavix.Transport.FAST_FORWARD
        # Frames from before the wind come out, then none for half a second of winding.
        pictures = 0
        while session.read(timeout=0.5) is not None:
            pictures += 1
            assert pictures < 25, "pictures while winding"
        deck.transport = "play"
        after = frame_number(session.read(timeout=20).timecode)
        assert after - before > 50

        deck.transport = "rewind"
        assert deck.transport is tavix.Transport.REWIND
        deck.transport = "stop"


def test_timecode_converts_to_milliseconds():
    timecode = tavix.Timecode(0, 1, 2, 5, type=1, flags=1)  # 25 fps
    assert timecode.milliseconds == 62200
    assert str(timecode) == "00:01:02:05"


def test_transport_names_and_refusals(camera, deck):
    assert tavix.Transport.parse("Fast Forward") is tavix.Transport.FAST_FORWARD
    with pytest.raises(ValueError, match="unknown transport mode 'eject'"):
        deck.transport = "eject"
    with pytest.raises(ValueError):
        deck.transport = tavix.Transport.UNAVAILABLE
    with pytest.raises(tavix.TavixError, match="no transport"):
        camera.transport = "play"
