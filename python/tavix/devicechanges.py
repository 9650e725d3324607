"""Devices that come and go: unique ids in the device listing, a callable told of each arrival
and departure, and a blocking iterator of the same events."""

from __future__ import annotations

import ctypes
import queue
import threading
from typing import Callable, Iterator, List, NamedTuple, Optional

from ._library import ChangeCallBack, EnumerateWithIdsCallBack, lib, thread_scope

_KINDS = {1: "sound", 2: "video", 3: "muxed"}

class DeviceEntry(NamedTuple):
    """A device as ``tavix.devices(with_ids=True)`` lists it."""

    name: str
    id: str
    kind: str  # 'video', 'sound' or 'muxed'
    connected: bool


class DeviceEvent(NamedTuple):
    """A device that arrived (``arrived`` true) or left."""

    name: str
    id: str
    kind: str  # 'video', 'sound' or 'muxed'
    arrived: bool


def _text(value: Optional[bytes]) -> str:
    return value.decode("utf-8", "replace") if value else ""


def device_entries(kind: int, include_disconnected: bool) -> List[DeviceEntry]:
    entries: List[DeviceEntry] = []

    def add(name, unique_id, media, connected, context) -> bool:
        entries.append(DeviceEntry(_text(name), _text(unique_id), _KINDS.get(media, "video"),
                                   bool(connected)))
        return True

    callback = EnumerateWithIdsCallBack(add)
    with thread_scope():
        lib.TavixDeviceEnumerateWithUniqueIDs(callback, None, kind,
                                              1 if include_disconnected else 0)
    return entries


def handle_for_id(unique_id: str) -> int:
    """A handle to the device with this unique id (or at this /dev node); 0 when none."""
    with thread_scope():
        return lib.TavixDeviceGetWithUniqueID(unique_id.encode("utf-8")) or 0


def unique_id_of(handle: int) -> str:
    buffer = ctypes.create_string_buffer(1024)
    with thread_scope():
        found = lib.TavixDeviceGetUniqueID(handle, buffer, len(buffer))
    return _text(buffer.value) if found else ""


# One library callback serves every Python listener: the callable set with on_device_change and
# each running watch_devices(). It is set while there is one and cleared when none is left.
_lock = threading.Lock()  # never taken by the library's call, which clearing waits for
_listeners: tuple = ()
_user_listener: Optional[Callable[[DeviceEvent], None]] = None


def _tell(name, unique_id, media, arrived, context) -> None:
    event = DeviceEvent(_text(name), _text(unique_id), _KINDS.get(media, "video"), bool(arrived))
    for listener in _listeners:
        try:
            listener(event)
        except BaseException:  # an exception cannot cross into the library's thread
            pass


_library_callback = ChangeCallBack(_tell)


def _subscribe(listener: Callable[[DeviceEvent], None]) -> None:
    global _listeners
    with _lock:
        if not _listeners and not lib.TavixDeviceSetChangeCallBack(_library_callback, None):
            raise OSError("tavix: the library could not start watching for devices")
        _listeners = _listeners + (listener,)


def _unsubscribe(listener: Callable[[DeviceEvent], None]) -> None:
    global _listeners
    with _lock:
        # Bound methods (a queue's put) are made anew on each access: compare, not identity.
        remaining = tuple(entry for entry in _listeners if entry != listener)
        if _listeners and not remaining:
            lib.TavixDeviceSetChangeCallBack(ChangeCallBack(), None)  # a null function
        _listeners = remaining


def on_device_change(listener: Optional[Callable[[DeviceEvent], None]]) -> None:
    """Calls ``listener(event)`` with a DeviceEvent for each device that arrives or leaves from
    now on, on a library thread; None stops. Once this returns with None (or another listener),
    the previous listener is not running and will not be called again. Exceptions the listener
    raises are dropped."""
    global _user_listener
    if _user_listener is not None:
        _unsubscribe(_user_listener)
        _user_listener = None
    if listener is not None:
        _subscribe(listener)
        _user_listener = listener


def watch_devices(timeout: Optional[float] = None) -> Iterator[DeviceEvent]:
    """Yields a DeviceEvent for each device that arrives or leaves from the call on, waiting for
    the next as long as it takes; with a timeout (seconds) the iteration ends once none has come
    for that long. Break out of the loop (or close the iterator) to stop watching::

        for event in tavix.watch_devices():
            print("arrived" if event.arrived else "left", event.name, event.id)
    """
    events: "queue.Queue[DeviceEvent]" = queue.Queue()
    _subscribe(events.put)
    return _drain(events, timeout)


def _drain(events: "queue.Queue[DeviceEvent]", timeout: Optional[float]) -> Iterator[DeviceEvent]:
    try:
        while True:
            try:
                yield events.get(timeout=timeout)
            except queue.Empty:
                return
    finally:
        _unsubscribe(events.put)
