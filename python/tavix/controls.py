"""A device's controls: brightness, exposure, focus, white balance, gain and the rest, read and
set by key, and a callable told when the device changes one."""

from __future__ import annotations

import ctypes
import threading
from collections.abc import Mapping
from typing import TYPE_CHECKING, Any, Callable, Dict, FrozenSet, Iterator, List, Optional, Union

from ._library import ControlChangeCallBack, ControlEnumerateCallBack, lib, thread_scope
from .errors import ControlError

if TYPE_CHECKING:
    from .device import Device

_TYPES = {1: "integer", 2: "boolean", 3: "menu", 4: "button", 5: "integer64", 7: "string",
          9: "integer_menu"}
_FLAGS = ((1, "read_only"), (2, "inactive"), (4, "volatile"), (8, "write_only"))
# TavixControlResult, as ControlError.reason reads.
_RESULTS = {1: "invalid", 2: "unknown_key", 3: "read_only", 4: "wrong_type", 5: "inactive",
            6: "busy", 7: "failed"}
_TEXT_SIZE = 65536  # a string control's longest text, with room to spare

Value = Union[int, str, None]


def _text(value: Optional[bytes]) -> str:
    return value.decode("utf-8", "replace") if value else ""


def _flag_names(bits: int) -> FrozenSet[str]:
    return frozenset(name for bit, name in _FLAGS if bits & bit)


class Control:
    """One control as the device listed it: ``key``, ``name`` (the driver's), ``type``
    ('integer', 'boolean', 'menu', 'integer_menu', 'button', 'integer64' or 'string'), ``min``,
    ``max``, ``step``, ``default``, ``menu`` (item index to name, or to the number for an integer
    menu; indices may skip) and ``flags`` (a frozenset of 'read_only', 'inactive', 'volatile',
    'write_only', as listed). ``value`` reads the device afresh; assigning it sets the control."""

    def __init__(self, controls: "Controls", entry: Any) -> None:
        self._controls = controls
        self.key: str = _text(entry.key)
        self.name: str = _text(entry.name)
        self.type: str = _TYPES.get(entry.type, str(entry.type))
        self.flags: FrozenSet[str] = _flag_names(entry.flags)
        self.min: int = entry.minimum
        self.max: int = entry.maximum
        self.step: int = entry.step
        self.default: int = entry.defaultValue
        self.menu: Dict[int, Union[str, int]] = {}
        for i in range(entry.menuCount if entry.menu else 0):
            item = entry.menu[i]
            self.menu[item.index] = item.value if self.type == "integer_menu" else _text(item.name)
        # What the listing read, for a listing of many controls without a call each.
        self._listed: Value = (
            _text(entry.text) if self.type == "string"
            else None if self.type == "button" else entry.value
        )

    @property
    def value(self) -> Value:
        """The current value: a number (a menu's item index), a string control's text, None for
        a button."""
        return self._controls._read(self.key, self.type)

    @value.setter
    def value(self, value: Union[int, bool, str]) -> None:
        self.set(value)

    def set(self, value: Union[int, bool, str]) -> Value:
        """Sets the control and returns the value the device holds afterwards. A number outside
        the range or off the step is taken to the nearest allowed one; text is read as a person
        types it: a menu item's name or first word ("manual"), "on"/"off", a number. Raises
        ControlError, with the library's reason, when the device refuses."""
        return self._controls._write(self.key, self.type, value)

    def press(self) -> None:
        """Performs a button's action (restore_defaults)."""
        self._controls._write(self.key, self.type, 1)

    def __repr__(self) -> str:
        shown = self._listed if self.type != "menu" else self.menu.get(self._listed, self._listed)
        flags = f" [{', '.join(sorted(self.flags))}]" if self.flags else ""
        return (f"<tavix.Control {self.key} {self.type} {shown!r} ({self.min}..{self.max} step "
                f"{self.step}, default {self.default}){flags}>")


class Controls(Mapping):
    """``device.controls``: the device's controls by key, in the device's order. Each access
    asks the device, so keys, flags and values are current::

        camera.controls["exposure_auto"].value = "manual"   # the auto control off first,
        camera.controls["exposure"].value = 200             # then the manual value
        for key, control in camera.controls.items(): ...
    """

    def __init__(self, device: "Device") -> None:
        self._device = device

    # -- the mapping ----------------------------------------------------------------------------

    def _list(self) -> List[Control]:
        found: List[Control] = []

        def add(pointer: Any, context: Any) -> bool:
            found.append(Control(self, pointer.contents))
            return True

        callback = ControlEnumerateCallBack(add)
        if not self._call(lib.TavixDeviceEnumerateControls, callback, None):
            raise ControlError(f"the controls of {self._device.name!r} cannot be read now")
        return found

    def __getitem__(self, key: str) -> Control:
        for control in self._list():
            if control.key == key:
                return control
        raise KeyError(key)

    def __iter__(self) -> Iterator[str]:
        return iter([control.key for control in self._list()])

    def __len__(self) -> int:
        return len(self._list())

    def __repr__(self) -> str:
        return f"<tavix.Controls of {self._device.name!r}: {', '.join(self)}>"

    # -- saving and restoring -------------------------------------------------------------------

    def dump(self) -> Dict[str, Value]:
        """The values that can be set back, by key in the device's order: every control that is
        neither read-only, a button nor inactive now (exposure only while exposure_auto is off).
        Menus give their item index, string controls their text."""
        return {
            control.key: control._listed
            for control in self._list()
            if control.type != "button"
            and not control.flags & {"read_only", "write_only", "inactive"}
        }

    def load(self, values: Dict[str, Any], ignore_unknown: bool = False) -> Dict[str, Value]:
        """Sets the controls a ``dump()`` (or any dict of key to value) names, in the device's
        order, so an auto control is set before its manual partner; returns what the device
        holds afterwards. A key the device lacks raises KeyError before anything is set, unless
        ``ignore_unknown``; a refusal raises ControlError, leaving the controls before it set."""
        listed = self._list()
        known = {control.key for control in listed}
        unknown = [key for key in values if key not in known]
        if unknown and not ignore_unknown:
            raise KeyError(f"{self._device.name!r} has no control {', '.join(map(repr, unknown))}")
        return {
            control.key: control.set(values[control.key])
            for control in listed
            if control.key in values
        }

    # -- changes --------------------------------------------------------------------------------

    def on_change(self, callback: Optional[Callable[[str, Value, FrozenSet[str]], Any]]) -> None:
        """Calls ``callback(key, value, flags)`` for each control the device reports changed (a
        volatile value it moved itself, flags changed by an auto partner, a value set by this or
        another program), on a library thread; None stops. Once this returns, the previous
        callable is not running and will not be called again. The callable may read and set
        controls. What it raises is printed on standard error, as Python does for exceptions
        nobody can catch, and the device goes on."""
        self._device._set_control_callback(callback)

    # -- calls ----------------------------------------------------------------------------------

    def _call(self, function: Callable[..., Any], *arguments: Any) -> Any:
        # Inside the change callable the device is known to be open (closing waits for the
        # callable), and another thread may hold the device's lock while it waits for this
        # call to end: the call goes straight to the library.
        if self._device._in_control_callback():
            with thread_scope():
                return function(self._device._handle, *arguments)
        return self._device._call(function, *arguments)

    def _refusal(self, key: str, result: int) -> ControlError:
        reason = self._device.last_error or f"{key}: refused"
        return ControlError(reason, _RESULTS.get(result, "failed"))

    def _read(self, key: str, kind: str) -> Value:
        name = key.encode("utf-8")
        if kind == "button":
            return None
        if kind == "string":
            text = ctypes.create_string_buffer(_TEXT_SIZE)
            if not self._call(lib.TavixDeviceGetControlText, name, text, len(text)):
                raise ControlError(f"{key} of {self._device.name!r} cannot be read now", "failed")
            return _text(text.value)
        value = ctypes.c_longlong()
        if not self._call(lib.TavixDeviceGetControl, name, ctypes.byref(value)):
            raise ControlError(f"{key} of {self._device.name!r} cannot be read now", "failed")
        return value.value

    def _write(self, key: str, kind: str, value: Union[int, bool, str]) -> Value:
        name = key.encode("utf-8")
        if isinstance(value, str):
            result = self._call(lib.TavixDeviceSetControlText, name, value.encode("utf-8"))
            if result != 0:
                raise self._refusal(key, result)
            return self._read(key, kind)
        if isinstance(value, float) and value.is_integer():
            value = int(value)
        if not isinstance(value, int):
            raise TypeError(f"{key} takes a whole number or text, not {value!r}")
        held = ctypes.c_longlong()
        result = self._call(lib.TavixDeviceSetControl, name, int(value), ctypes.byref(held))
        if result != 0:
            raise self._refusal(key, result)
        return None if kind == "button" else held.value


class ControlCallbacks:
    """The device's one change callable, kept with the ctypes function the library calls."""

    def __init__(self) -> None:
        self.user: Optional[Callable[..., Any]] = None
        self.function: Optional[Any] = None  # the ctypes callback: alive while the library has it
        self.running = threading.local()

    def trampoline(self, controls: Controls) -> Any:
        kinds: Dict[str, str] = {}

        def told(key: bytes, value: int, text: bytes, flags: int, context: Any) -> None:
            user = self.user
            if user is None:
                return
            self.running.active = True
            try:
                name = _text(key)
                if name not in kinds:  # a string control's value is its text
                    kinds.update((c.key, c.type) for c in controls._list())
                user(name, _text(text) if kinds.get(name) == "string" else value,
                     _flag_names(flags))
            finally:
                self.running.active = False

        return ControlChangeCallBack(told)
