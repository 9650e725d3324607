"""Listing the devices, their formats and their state."""

import pytest

import tavix
from tavix import devicechanges
from conftest import CAMERA, DECK, MICROPHONE


def test_lists_the_built_in_devices_by_media_type():
    assert tavix.devices()[-3:] == [CAMERA, MICROPHONE, DECK]
    assert tavix.devices("video")[-2:] == [CAMERA, DECK]
    assert tavix.devices("sound")[-2:] == [MICROPHONE, DECK]
    assert tavix.devices("muxed")[-1:] == [DECK]


def test_formats_list_sound_first_then_video_largest_first(camera, microphone, deck):
    camera_formats = camera.formats()
    assert camera_formats[0][:4] == ("video", "2vuy", 1280, 720)
    sizes = [f.width * f.height for f in camera_formats]
    assert sizes == sorted(sizes, reverse=True)
    assert all([float(r) for r in f.rates] == [30, 60] for f in camera_formats)

    sound = tavix.Format("sound", "lpcm", 0, 0, sample_rate=48000, channels=2, bits=32)
    assert microphone.formats() == [sound]

    deck_formats = deck.formats()
    assert deck_formats[0] == sound._replace(bits=16)
    assert (deck_formats[1].width, deck_formats[1].height) == (720, 576)
    assert all(f.media == "video" and [float(r) for r in f.rates] == [25] for f in deck_formats[1:])


def test_state_of_an_idle_device(camera, deck):
    assert not camera.is_capturing
    assert camera.has_media("video") and not camera.has_media("sound")
    assert deck.has_media("video") and deck.has_media("sound") and deck.has_media("muxed")
    assert camera.timecode is None, "no frame yet"



def test_unique_ids_find_devices_and_changes_reach_every_watcher():
    entries = tavix.devices(with_ids=True)[-3:]
    assert [(e.name, e.kind, e.connected) for e in entries] == [
        (CAMERA, "video", True), (MICROPHONE, "sound", True), (DECK, "muxed", True)]
    with tavix.Device(id=entries[2].id, media="sound") as deck:
        assert (deck.name, deck.id) == (DECK, entries[2].id)
        assert deck.has_media("muxed")
    with pytest.raises(tavix.DeviceNotFoundError, match="no-such-id"):
        tavix.Device(id="no-such-id").open()
    assert list(tavix.watch_devices(timeout=0.1)) == [], "nothing came or went"

    # What the library's thread reports reaches the callable and each watcher until it stops.
    seen = []
    tavix.on_device_change(seen.append)
    watcher = tavix.watch_devices(timeout=20)
    devicechanges._library_callback(b"Camera", b"usb-1", 2, True, None)
    assert next(watcher) == tavix.DeviceEvent("Camera", "usb-1", "video", True)
    watcher.close()
    tavix.on_device_change(None)
    devicechanges._library_callback(b"Mic", b"usb-2", 1, False, None)
    assert seen == [tavix.DeviceEvent("Camera", "usb-1", "video", True)]
    assert not devicechanges._listeners, "the library's callback is cleared with the last one"
