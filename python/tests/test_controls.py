"""The test camera's controls through device.controls: what is listed, what a setting comes to,
refusals, a dump loaded back, changes reported while capturing, and the picture following
brightness."""

import threading

import pytest

import tavix
from conftest import wait_until


@pytest.fixture
def controls(camera):
    yield camera.controls
    camera.controls["restore_defaults"].press()  # the camera keeps its values across opens


@pytest.mark.parametrize(
    "key, value, expected",
    [
        ("brightness", 300, 255),  # clamped to the range
        ("hue", "-90", -90),  # text as typed
        ("test_pattern", 2, 1),  # the menu has no item 2: the nearer, halfway the lower
        ("test_pattern", "black", 3),  # an item's name, without case
        ("exposure_auto", "manual", 1),  # an item's first word
        ("exposure", 200, "inactive"),  # while exposure_auto is automatic
        ("test_pattern", "purple", "wrong_type"),
    ],
)
def test_a_setting_gives_the_value_held_or_the_reason(controls, key, value, expected):
    control = controls[key]
    if isinstance(expected, str):
        with pytest.raises(tavix.ControlError) as refused:
            control.value = value
        assert refused.value.reason == expected and str(refused.value)
    else:
        assert control.set(value) == expected and control.value == expected


def test_listing_dump_load_and_changes_while_capturing(camera, controls):
    assert list(controls) == ["brightness", "contrast", "saturation", "hue", "test_pattern",
                              "exposure_auto", "exposure", "gain", "restore_defaults"]
    brightness, pattern = controls["brightness"], controls["test_pattern"]
    assert (brightness.type, brightness.min, brightness.max, brightness.default) == (
        "integer", 0, 255, 128)
    assert (pattern.type, pattern.menu) == ("menu", {0: "Colour Bars", 1: "Grey Bars", 3: "Black"})
    assert controls["gain"].flags == {"volatile", "inactive"}
    assert controls["restore_defaults"].type == "button" and "nope" not in controls
    with pytest.raises(KeyError):
        controls["nope"]

    # While streaming under auto exposure, the camera moves gain itself and says so; brightness
    # set from another thread reaches the picture.
    changes = []
    controls.on_change(lambda *change: changes.append(change))
    with camera.capture(pixel_format="GRAY", size=(160, 120)) as session:
        dark = session.read(timeout=20).mean()
        threading.Thread(target=setattr, args=(brightness, "value", 228)).start()
        assert wait_until(lambda: session.read(timeout=20).mean() > dark + 50)
        assert wait_until(lambda: any(key == "gain" for key, _, _ in changes))
    assert wait_until(lambda: ("brightness", 228, frozenset()) in changes)

    saved = controls.dump()
    assert "gain" not in saved and "restore_defaults" not in saved
    controls["exposure_auto"].value = "manual"
    controls["exposure"].value = 200
    saved = controls.dump()
    assert saved["exposure"] == 200 and saved["brightness"] == 228
    controls.on_change(None)
    controls["restore_defaults"].press()
    assert controls["exposure"].value == 333 and "inactive" in controls["exposure"].flags
    assert controls.load(dict(reversed(saved.items()))) == saved, "set in the device's order"
    with pytest.raises(KeyError, match="nope"):
        controls.load({"nope": 1, "brightness": 1})
    assert controls["brightness"].value == 228, "nothing set when a key is unknown"
