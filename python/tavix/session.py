"""A running capture: frames and sound as numpy arrays, through an iterator or callbacks.

The library calls the two callbacks below on its capture threads with buffers that are valid only
during the call. Each callback copies its buffer once into a new array, which from then on
belongs to Python alone, and either hands it to the user's callable or appends it to a bounded
queue that drops its oldest entry when the consumer falls behind, so a capture thread never
waits for Python code that reads the queue.
"""

from __future__ import annotations

import collections
import ctypes
import sys
import threading
import time
import warnings
from typing import TYPE_CHECKING, Any, Callable, Deque, Iterator, Optional, Tuple

import numpy as np

from . import _formats
from ._library import AudioCallBack, VideoCallBack, lib, thread_scope
from .errors import FormatError, RecordingError, TavixError, TavixWarning
from .timecode import Timecode

if TYPE_CHECKING:
    from .device import Device

_memmove = ctypes.memmove
_monotonic = time.monotonic


class Frame(np.ndarray):
    """One video frame: a uint8 array of shape (height, width, 4) for 'BGRA' and 'ARGB',
    (height, width, 3) for 'RGB' and 'BGR', (height, width) for 'GRAY', (height, width, 2) for
    the packed 4:2:2 formats and (height * 3 // 2, width) for 'NV12' ('420v').

    The pixels are a copy made during the library's callback: nothing changes them afterwards.
    Besides the pixels a frame carries:

    - ``timecode``: the device's SMPTE ``Timecode`` of the frame, or None;
    - ``time``: when the frame arrived, in ``time.monotonic()`` seconds;
    - ``index``: its number in arrival order, from 0 (a gap means frames were dropped);
    - ``pixel_format``: the format's name ('BGRA', ...).
    """

    timecode: Optional[Timecode]
    time: float
    index: int
    pixel_format: str

    def __array_finalize__(self, source: Any) -> None:
        # Views and slices of a frame keep what is known about it.
        self.timecode = getattr(source, "timecode", None)
        self.time = getattr(source, "time", 0.0)
        self.index = getattr(source, "index", -1)
        self.pixel_format = getattr(source, "pixel_format", "")


class Sound(np.ndarray):
    """A block of sound: an array of shape (frames, channels) in the sample type asked for.

    - ``sample_rate``: samples per second of one channel;
    - ``time``: when the block arrived, in ``time.monotonic()`` seconds.
    """

    sample_rate: int
    time: float

    def __array_finalize__(self, source: Any) -> None:
        self.sample_rate = getattr(source, "sample_rate", 0)
        self.time = getattr(source, "time", 0.0)


def _references_of_an_unheld_item() -> int:
    # What sys.getrefcount reports for an item of a list that nothing else refers to, read the
    # same way the pool reads it (interpreters differ in the references they count).
    held = [object()]
    return sys.getrefcount(held[0])


_UNHELD = _references_of_an_unheld_item()


class _FramePool:
    """Frame buffers used again once Python holds no reference to them.

    A fresh 8 MB array for every 1080p frame costs the kernel's page faults on each one, which
    is half as much again as the copy itself. A buffer goes back into use only when its sole
    reference is the pool's own: every frame, slice or view handed out refers to its buffer, so
    a frame that Python code can still reach is never written again."""

    def __init__(self, limit: int) -> None:
        self._limit = limit
        self._buffers: list = []
        self._shape: Tuple[int, ...] = ()

    def take(self, shape: Tuple[int, ...]) -> np.ndarray:
        if shape != self._shape:
            self._buffers = []
            self._shape = shape
        for index in range(len(self._buffers)):
            if sys.getrefcount(self._buffers[index]) == _UNHELD:
                return self._buffers[index]
        buffer = np.empty(shape, np.uint8)
        if len(self._buffers) < self._limit:
            self._buffers.append(buffer)
        return buffer


def _copy_rows(target: np.ndarray, address: int, bytes_per_row: int) -> Frame:
    """A frame over the target buffer, holding its rows copied from a buffer whose rows are
    bytes_per_row apart; one copy, whole when the rows are not padded."""
    rows = target.shape[0]
    row_bytes = target.nbytes // rows if rows else 0
    if bytes_per_row == row_bytes:
        _memmove(target.ctypes.data, address, target.nbytes)
    else:
        span = bytes_per_row * (rows - 1) + row_bytes
        source = np.ndarray(
            (rows, row_bytes),
            np.uint8,
            buffer=(ctypes.c_ubyte * span).from_address(address),
            strides=(bytes_per_row, 1),
        )
        np.copyto(target.reshape(rows, row_bytes), source)
    return target.view(Frame)


def last_error(handle: int) -> Optional[str]:
    """The library's last capture or recording error for the handle, or None."""
    text = ctypes.create_string_buffer(4096)
    with thread_scope():
        if not lib.TavixDeviceGetLastError(handle, text, len(text)):
            return None
    return text.value.decode("utf-8", "replace")


class Session:
    """A capture session, returned by ``Device.capture``; capture runs until ``stop()``, the end of
    a ``with`` block around the session, or the device's.

    Iterating the session yields ``Frame`` arrays as they arrive. A consumer slower than the
    camera loses the oldest frames, never delays capture: at most ``queue_size`` frames wait,
    and ``frames_dropped`` counts the rest. Sound, when asked for, is read with ``read_audio``.
    With ``on_frame`` / ``on_audio`` given, frames / sound go to those callables instead; they
    run on the library's capture threads, so keep them short. An exception a callable raises
    ends the calls to it and is raised again by ``stop()``.

    A start the library refuses raises its reason (``FormatError``, ``RecordingError``). Sound
    it refuses while capture goes on gives a ``TavixWarning`` and ``sound_refused`` says why.
    """

    def __init__(
        self,
        device: "Device",
        *,
        video: bool,
        sound: bool,
        pixel_format: Optional[_formats.PixelFormat],
        size: Optional[Tuple[int, int]],
        audio_device: Optional[str],
        sample: _formats.SampleType,
        sample_rate: int,
        channels: int,
        record: Optional[str],
        encoding: Tuple[Optional[str], int, Optional[str]],
        rate: float,
        on_frame: Optional[Callable[[Frame], Any]],
        on_audio: Optional[Callable[[Sound], Any]],
        queue_size: int,
        audio_queue_seconds: float,
    ) -> None:
        self._device = device
        self.has_video = video
        self.has_sound = sound
        self.pixel_format = pixel_format.name if pixel_format else None
        self.record_path = record
        self.sample_rate = sample_rate
        self.channels = channels
        self.dtype = sample.dtype
        self._on_frame = on_frame
        self._on_audio = on_audio

        # Frames and sound blocks wait here for the consumer. The condition's lock is held only
        # for a queue operation, never across a library call.
        self._ready = threading.Condition(threading.Lock())
        self._frames: Deque[Frame] = collections.deque(maxlen=queue_size)
        self._sound: Deque[Sound] = collections.deque()
        self._sound_queued = 0
        self._sound_limit = max(1, int(sample_rate * audio_queue_seconds))

        self.frames_received = 0
        self.frames_dropped = 0
        self.sound_frames_received = 0
        self.sound_frames_dropped = 0
        self._frame_shapes: dict = {}
        # Enough buffers for a full queue, the frame being read and a few kept a little longer.
        self._pool = _FramePool(queue_size + 4)

        self._stopping = False  # callbacks return at once from here on
        self._ended = False  # the library's session is stopped
        self._error: Optional[BaseException] = None
        self._in_callback = threading.local()

        # The library keeps only the function pointers: these objects must live as long as the
        # capture does, so the session holds them until it is stopped.
        self._video_callback = VideoCallBack(self._video_arrived) if video else VideoCallBack()
        self._audio_callback = AudioCallBack(self._sound_arrived) if sound else AudioCallBack()
        self._start(pixel_format, size, audio_device, sample, record, encoding, rate)

    def _start(self, pixel_format, size, audio_device, sample, record, encoding, rate) -> None:
        code = pixel_format.code if pixel_format else 0
        width, height = size if size else (0, 0)
        path = record.encode() if record else None
        flags, bytes_per_sample = (sample.flags, sample.bytes_per_sample) if self.has_sound else (0, 0)
        handle = self._device._handle
        with thread_scope():
            # The wish stays with the device's handle: each start states its own, 0 included.
            lib.TavixDeviceSetCaptureFrameRate(handle, rate)
            codec, quality, audio_codec = encoding
            lib.TavixDeviceSetRecordingOptions(
                handle, codec.encode() if codec else None, quality, audio_codec.encode() if audio_codec else None
            )
            if audio_device:
                started = lib.TavixDeviceStartCaptureWithAudioDevice(
                    handle, audio_device.encode(), self._video_callback, 0, code, width, height,
                    self._audio_callback, 0, flags, self.sample_rate, self.channels,
                    bytes_per_sample, path,
                )
            else:
                started = lib.TavixDeviceStartCapture(
                    handle, self._video_callback, 0, code, width, height,
                    self._audio_callback, 0, flags, self.sample_rate, self.channels,
                    bytes_per_sample, path,
                )
        why = last_error(handle)
        if not started:
            self._ended = True
            if why is None:
                raise TavixError(f"capture from {self._device.name!r} did not start")
            # The library's sentence names the refused part: a recording, or a picture wish.
            raise (RecordingError if record and "record" in why else FormatError)(why)
        #: Why the library refused the sound asked for (capture goes on without it), or None.
        self.sound_refused = why if self.has_sound else None
        if why is not None:
            warnings.warn(why, TavixWarning, stacklevel=4)

    # -- the library's capture threads --------------------------------------------------------

    def _video_arrived(self, pixels, code, width, height, bytes_per_row, time_, data) -> None:
        arrival = _monotonic()
        if self._stopping or not pixels:
            return
        self._in_callback.active = True
        try:
            key = (code, width, height)
            known = self._frame_shapes.get(key)
            if known is None:
                shape = _formats.frame_shape(code, width, height) or (height, bytes_per_row)
                known = self._frame_shapes[key] = (shape, _formats.fourcc_text(code))
            frame = _copy_rows(self._pool.take(known[0]), pixels, bytes_per_row)
            frame.timecode = Timecode._from_c(time_.contents) if time_ else None
            frame.time = arrival
            frame.index = self.frames_received
            frame.pixel_format = known[1]
            self.frames_received += 1
            if self._on_frame is not None:
                self._call_user(self._on_frame, frame, "_on_frame")
                return
            with self._ready:
                if len(self._frames) == self._frames.maxlen:
                    self.frames_dropped += 1
                self._frames.append(frame)
                self._ready.notify_all()
        except BaseException as error:  # never let an exception reach the capture thread
            self._keep(error)
        finally:
            self._in_callback.active = False

    def _sound_arrived(self, samples, flags, rate, channels, bytes_per_sample, count, data) -> None:
        arrival = _monotonic()
        if self._stopping or not samples:
            return
        self._in_callback.active = True
        try:
            dtype = _formats.dtype_for(flags, bytes_per_sample)
            if dtype is None or channels == 0:
                return
            block = np.ndarray.__new__(Sound, (count, channels), dtype)
            _memmove(block.ctypes.data, samples, block.nbytes)
            block.sample_rate = rate
            block.time = arrival
            self.sound_frames_received += count
            if self._on_audio is not None:
                self._call_user(self._on_audio, block, "_on_audio")
                return
            with self._ready:
                self._sound.append(block)
                self._sound_queued += count
                while self._sound_queued > self._sound_limit and len(self._sound) > 1:
                    dropped = self._sound.popleft()
                    self._sound_queued -= len(dropped)
                    self.sound_frames_dropped += len(dropped)
                self._ready.notify_all()
        except BaseException as error:
            self._keep(error)
        finally:
            self._in_callback.active = False

    def _call_user(self, function: Callable[[Any], Any], argument: Any, slot: str) -> None:
        try:
            function(argument)
        except BaseException as error:
            # The callable is not called again; stop() raises what it raised.
            setattr(self, slot, _ignore)
            self._keep(error)

    def _keep(self, error: BaseException) -> None:
        with self._ready:
            if self._error is None:
                self._error = error

    # -- the consumer ------------------------------------------------------------------------

    def __iter__(self) -> Iterator[Frame]:
        return self

    def __next__(self) -> Frame:
        frame = self.read()
        if frame is None:
            raise StopIteration
        return frame

    def read(self, timeout: Optional[float] = None) -> Optional[Frame]:
        """The oldest waiting frame, waiting for one up to ``timeout`` seconds (None: as long as
        the session runs); None when the session has ended and no frame is left, or on timeout."""
        if not self.has_video:
            raise TavixError(f"{self._device.name!r} captures no video; read its sound with read_audio()")
        if self._on_frame is not None:
            raise TavixError("frames go to on_frame; a session with on_frame cannot be iterated")
        deadline = None if timeout is None else _monotonic() + timeout
        with self._ready:
            while not self._frames:
                if self._ended or self._stopping:
                    return None
                remaining = None if deadline is None else deadline - _monotonic()
                if remaining is not None and remaining <= 0:
                    return None
                # Wake now and then so that a session stopped elsewhere ends the wait.
                self._ready.wait(0.25 if remaining is None else min(remaining, 0.25))
            return self._frames.popleft()

    def read_audio(self, frames: Optional[int] = None, timeout: Optional[float] = None) -> Sound:
        """Sound as an array of shape (frames, channels).

        With ``frames``, waits until that many sample frames have arrived and returns exactly
        those (what is left of a block stays for the next call); without, returns everything
        waiting, after waiting for at least one block. Fewer frames come back, possibly none,
        when ``timeout`` seconds pass or the session ends first."""
        if not self.has_sound:
            raise TavixError(f"this capture from {self._device.name!r} carries no sound")
        if self._on_audio is not None:
            raise TavixError("sound goes to on_audio; read_audio() has nothing to return")
        if frames is not None and frames < 0:
            raise ValueError("frames must be 0 or more")
        deadline = None if timeout is None else _monotonic() + timeout
        taken: list = []
        count = 0
        with self._ready:
            while True:
                while self._sound and (frames is None or count < frames):
                    block = self._sound.popleft()
                    self._sound_queued -= len(block)
                    if frames is not None and count + len(block) > frames:
                        keep = frames - count
                        rest = block[keep:]
                        self._sound.appendleft(rest)
                        self._sound_queued += len(rest)
                        block = block[:keep]
                    taken.append(block)
                    count += len(block)
                done = (frames is None and count > 0) or (frames is not None and count >= frames)
                if done or self._ended or self._stopping:
                    break
                remaining = None if deadline is None else deadline - _monotonic()
                if remaining is not None and remaining <= 0:
                    break
                self._ready.wait(0.25 if remaining is None else min(remaining, 0.25))
        if taken:
            result = np.concatenate(taken).view(Sound)
            result.time = taken[0].time
        else:
            result = np.empty((0, self.channels), self.dtype).view(Sound)
            result.time = 0.0
        result.sample_rate = self.sample_rate
        return result

    @property
    def rate(self) -> Optional[float]:
        """The frames per second the device delivers, as it states them (29.97002997... for
        30000/1001); None before the first frame has come, once the session has ended, or when
        the device does not say."""
        value = ctypes.c_double()
        with self._device._lock:
            if self._ended or self._stopping or not self._device._handle:
                return None
            with thread_scope():
                known = lib.TavixDeviceGetCaptureFrameRate(self._device._handle, ctypes.byref(value))
        return value.value if known else None

    # -- stopping ----------------------------------------------------------------------------

    @property
    def running(self) -> bool:
        """True until the session is stopped."""
        return not (self._ended or self._stopping)

    @property
    def error(self) -> Optional[BaseException]:
        """The first exception a callback raised, until stop() raises it."""
        return self._error

    def stop(self) -> None:
        """Stops capture and closes the recording; the device stays open. Frames already waiting
        can still be read. Raises the first exception an on_frame / on_audio callable raised.
        Safe to call more than once, from any thread, also from inside on_frame / on_audio."""
        self._stopping = True
        if not self._ended:
            if getattr(self._in_callback, "active", False):
                self._stop_from_callback()
            else:
                with self._device._lock:
                    self._stop_capture()
        with self._ready:
            self._ready.notify_all()
            error, self._error = self._error, None
        if error is not None:
            raise error

    def _stop_capture(self) -> None:
        # Called with the device's lock held; the capture threads never take it, and ctypes lets
        # go of the interpreter lock during the call, so a running callback can finish.
        if self._ended:
            return
        handle = self._device._handle
        if handle:
            with thread_scope():
                lib.TavixDeviceStopCapture(handle)
        self._ended = True
        self._device._session_ended(self)

    def _stop_from_callback(self) -> None:
        # The library lets a callback stop its own capture. When another thread is in the middle
        # of a call for this device (stopping it, perhaps, and so waiting for this callback),
        # waiting for the lock would never end: the flag already stops delivery, and that
        # thread, or the device's close, ends the session.
        if self._device._lock.acquire(blocking=False):
            try:
                self._stop_capture()
            finally:
                self._device._lock.release()

    def __enter__(self) -> "Session":
        return self

    def __exit__(self, kind, value, traceback) -> None:
        if kind is None:
            self.stop()
            return
        # An exception is already on its way out: stop, and let that one be the one seen.
        try:
            self.stop()
        except BaseException:
            pass

    def __repr__(self) -> str:
        state = "running" if self.running else "stopped"
        return (
            f"<tavix.Session {self._device.name!r} {state}, {self.frames_received} frames, "
            f"{self.frames_dropped} dropped>"
        )


def _ignore(argument: Any) -> None:
    pass
