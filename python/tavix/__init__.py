"""tavix: cameras, sound inputs and tape decks for Python, frames and sound as numpy arrays.

Quick start::

    import tavix
    with tavix.Device("Tavix Test Camera", "video") as camera:
        for frame in camera.capture(pixel_format="BGRA"):   # (720, 1280, 4) uint8 arrays
            print(frame.shape, frame.timecode)
            break

The package calls libtavix.so.1 through ctypes. It looks for the library at the path in the
TAVIX_LIBRARY environment variable, else in the source tree's build folder, else where the
system's loader and the usual install prefixes have it.
"""

from ._library import lib as _lib
from .controls import Control, Controls
from .device import Device, Format, device_list_error, devices, has_devices_in_use
from .devicechanges import DeviceEntry, DeviceEvent, on_device_change, watch_devices
from .errors import (
    ControlError,
    DeviceClosedError,
    DeviceNotFoundError,
    FormatError,
    RecordingError,
    TavixError,
    TavixWarning,
)
from .session import Frame, Session, Sound
from .timecode import Timecode, Transport

__version__ = "1.0.0"

#: The path of the library the package loaded.
library_path: str = _lib._name

__all__ = [
    "Control",
    "ControlError",
    "Controls",
    "Device",
    "DeviceClosedError",
    "DeviceEntry",
    "DeviceEvent",
    "DeviceNotFoundError",
    "Format",
    "FormatError",
    "Frame",
    "RecordingError",
    "Session",
    "Sound",
    "TavixError",
    "TavixWarning",
    "Timecode",
    "Transport",
    "device_list_error",
    "devices",
    "has_devices_in_use",
    "library_path",
    "on_device_change",
    "watch_devices",
]
