"""Devices: listing them, opening one, its formats and state, a deck's transport, capture."""

from __future__ import annotations

import atexit
import ctypes
import os
import threading
import weakref
from typing import Any, Callable, List, NamedTuple, Optional, Tuple, Union

from . import _formats
from .controls import ControlCallbacks, Controls
from ._library import (
    ControlChangeCallBack,
    DeviceFormat,
    EnumerateCallBack,
    FormatEnumerateCallBack,
    SMPTETime,
    lib,
    thread_scope,
)
from .devicechanges import DeviceEntry, device_entries, handle_for_id, unique_id_of
from .errors import DeviceClosedError, DeviceNotFoundError, FormatError, TavixError
from .session import Frame, Session, Sound, last_error
from .timecode import Timecode, Transport

_MEDIA_TYPES = {None: 0, "any": 0, "sound": 1, "audio": 1, "video": 2, "muxed": 3}
_LARGEST_SIDE = 16384  # the library's limit for a frame's width and height
_SAMPLE_RATES = (8000, 384000)  # the telephone rate to the highest studio rate
_CHANNELS = (1, 32)


def _media_type(media: Optional[str]) -> int:
    key = media.lower() if isinstance(media, str) else media
    if key not in _MEDIA_TYPES:
        raise ValueError(f"media must be 'video', 'sound', 'muxed' or None, not {media!r}")
    return _MEDIA_TYPES[key]


def devices(
    media: Optional[str] = None, include_disconnected: bool = False, with_ids: bool = False
) -> Union[List[str], List[DeviceEntry]]:
    """The display names of the devices with the media type: 'video' (cameras and decks),
    'sound' (sound inputs and decks), 'muxed' (decks) or None (all). Real devices come first,
    then the built-in test devices. ``with_ids=True`` lists DeviceEntry tuples instead: name,
    unique id (which ``Device(id=...)`` takes, and which stays the same across runs and
    renumbered device nodes), kind ('video', 'sound' or 'muxed') and whether it is connected."""
    kind = _media_type(media)
    if with_ids:
        return device_entries(kind, include_disconnected)
    names: List[str] = []

    def add(name: bytes, context: Any) -> bool:
        names.append(name.decode("utf-8", "replace"))
        return True

    callback = EnumerateCallBack(add)
    with thread_scope():
        lib.TavixDeviceEnumerateWithCallBack(callback, None, kind, 1 if include_disconnected else 0)
    return names


def device_list_error() -> Optional[str]:
    """Why the last listing left devices out (the camera portal is missing or refused access), or
    None when nothing was wrong."""
    text = ctypes.create_string_buffer(4096)
    with thread_scope():
        if not lib.TavixDeviceGetListError(text, len(text)):
            return None
    return text.value.decode("utf-8", "replace")


def has_devices_in_use() -> bool:
    """True while any device handle of this process is in use (opened and not yet released)."""
    with thread_scope():
        return bool(lib.TavixHasUsedDevices())


class Format(NamedTuple):
    """A format a device delivers: ``media`` is 'video' or 'sound'; ``pixel_format`` the
    format's name ('2vuy', 'BGRA', ... for video, 'lpcm' for sound); width and height 0 for
    sound. A video format's ``rates`` are the ``FrameRate`` entries offered at its size (pass
    one to ``capture(rate=...)``); a sound format's ``sample_rate``, ``channels`` and ``bits``
    (of one channel's sample) say what the device delivers before conversion."""

    media: str
    pixel_format: str
    width: int
    height: int
    rates: Tuple[_formats.FrameRate, ...] = ()
    sample_rate: float = 0
    channels: int = 0
    bits: int = 0


# Devices still open when the interpreter exits are closed first, so that no capture thread
# calls back into an interpreter that is shutting down.
_open_devices: "weakref.WeakSet[Device]" = weakref.WeakSet()


@atexit.register
def _close_open_devices() -> None:
    for device in list(_open_devices):
        try:
            device.close()
        except BaseException:
            pass


class Device:
    """A capture device, by display name and media type ('video', 'sound', 'muxed' or None
    for any). Use it as a context manager::

        with tavix.Device("Tavix Test Camera", "video") as camera:
            for frame in camera.capture(pixel_format="BGRA"):
                ...

    Entering opens the device; leaving stops any capture, closes the device and releases it.
    ``open()`` and ``close()`` do the same without a ``with`` block. A closed device cannot be
    used again: make a new Device.
    """

    def __init__(
        self, name: Optional[str] = None, media: Optional[str] = None, *, id: Optional[str] = None
    ) -> None:
        # By unique id (or a camera's /dev/videoN path) instead of the name: see devices().
        self._id = id
        if id is not None:
            if name is not None or not isinstance(id, str) or not id:
                raise ValueError(f"give a device's name or its id (a non-empty string), not both")
            name = id
        elif not isinstance(name, str) or not name:
            raise ValueError(f"a device name is a non-empty string, not {name!r}")
        self.name = name
        self.media = media
        self._media_type = _media_type(media)
        self._handle = 0
        self._state = "new"  # then "open", then "closed"
        self._session: Optional[Session] = None
        # Serialises this device's library calls across Python threads. The library's capture
        # threads never take it.
        self._lock = threading.RLock()
        self._control_callbacks = ControlCallbacks()

    # -- life ---------------------------------------------------------------------------------

    def open(self) -> "Device":
        """Looks the device up and opens it; returns the device."""
        with self._lock:
            if self._state == "open":
                return self
            if self._state == "closed":
                raise DeviceClosedError(f"device {self.name!r} was closed; make a new Device")
            with thread_scope():
                if self._id is not None:
                    handle = handle_for_id(self._id)
                    if handle and not lib.TavixDeviceHasMediaType(handle, self._media_type):
                        lib.TavixDeviceRelease(handle)
                        handle = 0
                else:
                    handle = lib.TavixDeviceGet(self.name.encode("utf-8"), self._media_type)
                if not handle:
                    raise DeviceNotFoundError(self._not_found_message())
                if self._id is not None:
                    self._id = unique_id_of(handle)
                    self.name = next(
                        (e.name for e in device_entries(0, True) if e.id == self._id), self.name
                    )
                if not lib.TavixDeviceOpen(handle):
                    busy = lib.TavixDeviceIsUsedByAnotherApplication(handle)
                    lib.TavixDeviceRelease(handle)
                    reason = ": another application uses it" if busy else ""
                    raise TavixError(f"device {self.name!r} did not open{reason}")
            self._handle = handle
            self._state = "open"
            _open_devices.add(self)
            return self

    def close(self) -> None:
        """Stops capture, closes and releases the device. Raises what an on_frame / on_audio
        callable raised, once the device is released."""
        with self._lock:
            if self._state != "open":
                self._state = "closed"
                return
            error: Optional[BaseException] = None
            if self._session is not None:
                try:
                    self._session.stop()
                except BaseException as raised:
                    error = raised
            with thread_scope():
                if self._control_callbacks.function is not None:
                    # Waits for a running change callable, which may still read controls.
                    lib.TavixDeviceSetControlChangeCallBack(
                        self._handle, ControlChangeCallBack(), None
                    )
                    self._control_callbacks.function = None
                lib.TavixDeviceStopCapture(self._handle)  # a session stopped from a callback
                lib.TavixDeviceClose(self._handle)
                lib.TavixDeviceRelease(self._handle)
            self._handle = 0
            self._state = "closed"
            _open_devices.discard(self)
        if error is not None:
            raise error

    def __enter__(self) -> "Device":
        return self.open()

    def __exit__(self, kind, value, traceback) -> None:
        if kind is None:
            self.close()
            return
        try:
            self.close()
        except BaseException:
            pass  # the exception already leaving the block is the one to see

    def __del__(self) -> None:
        if getattr(self, "_state", None) == "open":
            try:
                self.close()
            except BaseException:
                pass

    def __repr__(self) -> str:
        return f"<tavix.Device {self.name!r} {self._state}>"

    @property
    def id(self) -> str:
        """The device's unique id: given, or learnt when the device opened; '' before that for a
        device given by name."""
        if self._state == "open":
            with self._lock:
                return unique_id_of(self._handle)
        return self._id or ""

    def _not_found_message(self) -> str:
        if self._id is not None:
            listed = ", ".join(f"{e.id!r} ({e.name})" for e in device_entries(0, False))
            return f"no device with id {self._id!r}; there are: {listed or 'none'}"
        same_kind = devices(self.media)
        where = f" with media {self.media!r}" if self.media else ""
        message = f"no device named {self.name!r}{where}; "
        if same_kind:
            message += "there are: " + ", ".join(repr(n) for n in same_kind)
        else:
            message += "there is none"
        others = [n for n in devices(None) if n not in same_kind]
        if others and self.media:
            message += "; other devices: " + ", ".join(repr(n) for n in others)
        return message

    def _require_open(self) -> int:
        if self._state != "open":
            state = "was closed" if self._state == "closed" else "is not open"
            raise DeviceClosedError(
                f"device {self.name!r} {state}: use it inside its 'with' block (or after open())"
            )
        return self._handle

    def _call(self, function: Callable[..., Any], *arguments: Any) -> Any:
        with self._lock:
            handle = self._require_open()
            with thread_scope():
                return function(handle, *arguments)

    def _session_ended(self, session: Session) -> None:
        if self._session is session:
            self._session = None

    # -- state --------------------------------------------------------------------------------

    def has_media(self, media: str) -> bool:
        """True when the device delivers the media type ('video', 'sound' or 'muxed')."""
        return bool(self._call(lib.TavixDeviceHasMediaType, _media_type(media)))

    @property
    def is_connected(self) -> bool:
        return bool(self._call(lib.TavixDeviceIsConnected))

    @property
    def in_use_by_another_application(self) -> bool:
        return bool(self._call(lib.TavixDeviceIsUsedByAnotherApplication))

    @property
    def is_capturing(self) -> bool:
        return bool(self._call(lib.TavixDeviceIsCapturing))

    def formats(self) -> List[Format]:
        """The formats the device delivers: sound formats first, then video formats, largest
        first. The first call for a real device may capture briefly to learn them."""
        found: List[Format] = []

        def add(pointer: Any, is_video: bool, context: Any) -> bool:
            entry: DeviceFormat = pointer.contents
            found.append(
                Format(
                    "video" if is_video else "sound",
                    _formats.fourcc_text(entry.dwFormat),
                    entry.dwWidth,
                    entry.dwHeight,
                )
            )
            return True

        callback = FormatEnumerateCallBack(add)
        self._call(lib.TavixDeviceFormatEnumerateWithCallBack, callback, None)
        return self._with_details(found)

    def _with_details(self, found: List[Format]) -> List[Format]:
        # Rates for each video format; each sound format once per way the device delivers it.
        sounds = _formats.sound_formats(self._call)
        detailed: List[Format] = []
        for entry in found:
            if entry.media == "video":
                code = _formats.fourcc(entry.pixel_format) if len(entry.pixel_format) == 4 else 0
                rates = _formats.frame_rates(self._call, code, entry.width, entry.height)
                detailed.append(entry._replace(rates=rates))
                continue
            matching = [s for s in sounds if _formats.fourcc_text(s.code) == entry.pixel_format]
            detailed.extend(
                entry._replace(sample_rate=s.sample_rate, channels=s.channels, bits=s.bits)
                for s in matching
            )
            if not matching:
                detailed.append(entry)
        return detailed

    # -- controls -------------------------------------------------------------------------------

    @property
    def controls(self) -> Controls:
        """The device's controls by key (brightness, exposure, ...): see ``tavix.Controls``."""
        self._require_open()
        return Controls(self)

    def _in_control_callback(self) -> bool:
        return getattr(self._control_callbacks.running, "active", False)

    def _set_control_callback(self, callback: Optional[Callable[..., Any]]) -> None:
        callbacks = self._control_callbacks
        with self._lock:
            self._require_open()
            if callback is None:
                if callbacks.function is not None:
                    # Returns once no call of the previous callable runs.
                    self._call(
                        lib.TavixDeviceSetControlChangeCallBack, ControlChangeCallBack(), None
                    )
                callbacks.function = None
                callbacks.user = None
                return
            function = callbacks.trampoline(Controls(self))
            if not self._call(lib.TavixDeviceSetControlChangeCallBack, function, None):
                raise TavixError(f"device {self.name!r} cannot report control changes")
            callbacks.user = callback
            callbacks.function = function  # the library calls it from now on: keep it alive

    # -- tape transport -----------------------------------------------------------------------

    @property
    def has_transport(self) -> bool:
        """True for a tape deck whose transport can be driven."""
        return bool(self._call(lib.TavixDeviceIsTransportAvailable))

    @property
    def transport(self) -> Transport:
        """The deck's transport mode; Transport.UNAVAILABLE for a device without one. Assign a
        Transport or its name ('play', 'stop', 'rewind', 'ff', ...) to drive the deck."""
        return Transport(self._call(lib.TavixDeviceGetTransportMode))

    @transport.setter
    def transport(self, mode: Union[Transport, int, str]) -> None:
        wanted = Transport.parse(mode)
        if wanted is Transport.UNAVAILABLE:
            raise ValueError("UNAVAILABLE is a state a device reports, not a mode to set")
        with self._lock:
            if not self.has_transport:
                raise TavixError(f"device {self.name!r} has no transport controls")
            self._call(lib.TavixDeviceSetTransportMode, int(wanted))

    @property
    def timecode(self) -> Optional[Timecode]:
        """The SMPTE timecode of the latest captured frame; None when the device is not
        capturing or its frames carry none."""
        time = SMPTETime()
        if not self._call(lib.TavixDeviceGetSMPTETime, ctypes.byref(time)):
            return None
        return Timecode._from_c(time)

    @property
    def recorded_frames(self) -> Optional[Tuple[int, int]]:
        """(pictures in the file, pictures not recorded) of the current or last recording: the
        recorder drops whole pictures when its encoder falls behind, and writes none after the
        file failed. None when the device has not recorded since it was opened."""
        recorded, not_recorded = ctypes.c_ulong(), ctypes.c_ulong()
        if not self._call(
            lib.TavixDeviceGetRecordingFrameCounts,
            ctypes.byref(recorded),
            ctypes.byref(not_recorded),
        ):
            return None
        return recorded.value, not_recorded.value

    @property
    def last_error(self) -> Optional[str]:
        """Why the last capture start refused something (sound that capture goes on without),
        or why the current or last recording failed while being written (a full disk); None
        when neither happened. Each start clears it."""
        return last_error(self._handle)

    # -- capture ------------------------------------------------------------------------------

    def capture(
        self,
        pixel_format: Optional[str] = "BGRA",
        size: Optional[Tuple[int, int]] = None,
        audio: Union[None, bool, str] = None,
        sample_rate: int = 48000,
        channels: int = 2,
        dtype: Any = "float32",
        record: Union[None, str, "os.PathLike[str]"] = None,
        codec: Optional[str] = None,
        quality: Optional[int] = None,
        audio_codec: Optional[str] = None,
        rate: Union[None, float, _formats.FrameRate] = None,
        on_frame: Optional[Callable[[Frame], Any]] = None,
        on_audio: Optional[Callable[[Sound], Any]] = None,
        queue_size: int = 4,
        audio_queue_seconds: float = 2.0,
    ) -> Session:
        """Starts capture and returns the running ``Session`` (iterate it for frames).

        - ``pixel_format``: 'BGRA' (default), 'ARGB', 'RGB', 'BGR', 'GRAY', 'UYVY' ('2vuy'),
          'YUYV' ('yuvs') or 'NV12' ('420v'); None takes what the device delivers natively.
        - ``size``: (width, height); the library scales. None keeps the device's size.
        - ``audio``: None takes the device's own sound when it has any; False takes none;
          True requires the device's own sound; a name takes sound from that sound device
          (a camera's companion microphone).
        - ``sample_rate``, ``channels``, ``dtype``: the sound to receive: 'float32' (default),
          'float64', 'int16', 'int32' or 'uint8' samples, converted by the library.
        - ``record``: a movie file to record into at the same time; its extension sets the
          container: .mov, .mp4, .m4v, .mkv or .avi.
        - ``codec``: the recording's pictures: 'h264', 'ffv1' (lossless; .mkv, .mov or .avi) or
          'mjpeg' (a Motion-JPEG camera's own pictures are stored unchanged); None: H.264 (a
          deck's DV stays DV where the container holds DV). ``quality``: H.264's constant rate
          factor, 0 (best) to 51; None: 23. ``audio_codec``: 'aac' or 'pcm' (.mov, .mkv or
          .avi); None: PCM, AAC in .mp4. A container that cannot hold a codec raises
          RecordingError.
        - ``rate``: frames per second (or a ``FrameRate`` of ``Format.rates``); the device uses
          the offered rate nearest to it, which ``Session.rate`` reads back. None lets the
          device choose.
        - ``on_frame`` / ``on_audio``: callables that receive each ``Frame`` / ``Sound`` on the
          library's capture thread, instead of the session's queues.
        - ``queue_size``: frames kept for a slow iterator before the oldest are dropped;
          ``audio_queue_seconds``: the same for sound waiting for ``read_audio``.
        """
        with self._lock:
            self._require_open()
            if self._session is not None and self._session.running:
                raise TavixError(f"device {self.name!r} is already capturing; stop that session first")
            video = self.has_media("video")
            sound, audio_device = self._sound_source(audio)
            if not video and not sound:
                raise FormatError(f"device {self.name!r} has nothing to capture with audio={audio!r}")
            wanted_format = _formats.pixel_format(pixel_format) if pixel_format is not None else None
            wanted_size = _check_size(size)
            if wanted_format is not None and wanted_size is not None:
                _formats.check_frame_size(wanted_format, wanted_size)
            sample = _formats.sample_type(dtype)
            if sound:
                _check_range("sample_rate", sample_rate, _SAMPLE_RATES)
                _check_range("channels", channels, _CHANNELS)
            if not isinstance(queue_size, int) or queue_size < 1:
                raise ValueError(f"queue_size must be a positive integer, not {queue_size!r}")
            path = _check_recording_path(record) if record is not None else None
            encoding = _check_encoding(path, codec, quality, audio_codec)
            wanted_rate = _check_rate(rate)
            session = Session(
                self,
                video=video,
                sound=sound,
                pixel_format=wanted_format,
                size=wanted_size,
                audio_device=audio_device,
                sample=sample,
                sample_rate=sample_rate,
                channels=channels,
                record=path,
                encoding=encoding,
                rate=wanted_rate,
                on_frame=on_frame,
                on_audio=on_audio,
                queue_size=queue_size,
                audio_queue_seconds=audio_queue_seconds,
            )
            self._session = session
            return session

    def _sound_source(self, audio: Union[None, bool, str]) -> Tuple[bool, Optional[str]]:
        own = self.has_media("sound")
        if audio is None:
            return own, None
        if audio is False:
            return False, None
        if audio is True:
            if not own:
                raise FormatError(
                    f"device {self.name!r} has no sound of its own; pass audio=NAME with one of "
                    + ", ".join(repr(n) for n in devices("sound"))
                )
            return True, None
        if isinstance(audio, str):
            if own:
                raise FormatError(f"device {self.name!r} has sound of its own; leave audio unset")
            sound_devices = devices("sound")
            if not any(n.lower() == audio.lower() for n in sound_devices):
                raise DeviceNotFoundError(
                    f"no sound device named {audio!r}; there are: "
                    + ", ".join(repr(n) for n in sound_devices)
                )
            return True, audio
        raise TypeError(f"audio must be None, True, False or a sound device's name, not {audio!r}")


def _check_size(size: Optional[Tuple[int, int]]) -> Optional[Tuple[int, int]]:
    if size is None:
        return None
    try:
        width, height = (int(v) for v in size)
    except (TypeError, ValueError):
        raise ValueError(f"size must be (width, height), not {size!r}") from None
    if not (1 <= width <= _LARGEST_SIDE and 1 <= height <= _LARGEST_SIDE):
        raise FormatError(
            f"the library delivers frames of 1 to {_LARGEST_SIDE} pixels a side, not {width} x {height}"
        )
    return width, height


def _check_rate(rate: Union[None, float, _formats.FrameRate]) -> float:
    if rate is None:
        return 0.0
    try:
        value = float(rate)
    except (TypeError, ValueError):
        raise ValueError(f"rate must be frames per second, not {rate!r}") from None
    if not 0 < value <= 1000:
        raise FormatError(f"rate must be above 0 and at most 1000 frames per second, not {rate!r}")
    return value


def _check_range(name: str, value: Any, bounds: Tuple[int, int]) -> None:
    if not isinstance(value, int) or not bounds[0] <= value <= bounds[1]:
        raise FormatError(f"{name} must be an integer from {bounds[0]} to {bounds[1]}, not {value!r}")


_VIDEO_CODECS = ("h264", "ffv1", "mjpeg")
_AUDIO_CODECS = ("aac", "pcm")


def _check_encoding(
    path: Optional[str], codec: Optional[str], quality: Optional[int], audio_codec: Optional[str]
) -> Tuple[Optional[str], int, Optional[str]]:
    """(codec, quality, audio codec) as the library takes them; None and -1 are its defaults."""
    if path is None and (codec, quality, audio_codec) != (None, None, None):
        raise ValueError("codec, quality and audio_codec need record=PATH")
    for name, value, choices in (("codec", codec, _VIDEO_CODECS), ("audio_codec", audio_codec, _AUDIO_CODECS)):
        if value is not None and (not isinstance(value, str) or value.lower() not in choices):
            raise ValueError(f"{name} must be one of {', '.join(map(repr, choices))} or None, not {value!r}")
    if quality is not None:
        if isinstance(quality, bool) or not isinstance(quality, int) or not 0 <= quality <= 51:
            raise ValueError(f"quality must be an integer from 0 to 51 (H.264's rate factor), not {quality!r}")
        if codec is not None and codec.lower() != "h264":
            raise ValueError(f"quality is for H.264; {codec!r} has no rate factor")
    return codec, -1 if quality is None else quality, audio_codec


def _check_recording_path(record: Union[str, "os.PathLike[str]"]) -> str:
    """The path as text; the library refuses, with its reason, a file it cannot create."""
    path = os.fspath(record)
    if not isinstance(path, str) or not path:
        raise ValueError(f"record must be a file path, not {record!r}")
    return path
