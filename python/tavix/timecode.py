"""SMPTE timecode and tape transport modes."""

from __future__ import annotations

import enum
from typing import NamedTuple, Union

from ._library import SMPTETime, lib, thread_scope

# SMPTE time types whose frame numbers drop, written with ';' before the frames.
_DROP_FRAME_TYPES = {2, 5}


class Timecode(NamedTuple):
    """A frame's SMPTE timecode, as the device reported it."""

    hours: int
    minutes: int
    seconds: int
    frames: int
    subframes: int = 0
    subframe_divisor: int = 0
    counter: int = 0
    type: int = 0  # the SMPTE time type: 0 24 fps, 1 25, 2 30 drop, 3 30, 4 29.97, ...
    flags: int = 0  # 1 valid, 2 running

    @classmethod
    def _from_c(cls, time: SMPTETime) -> "Timecode":
        return cls(
            time.mHours,
            time.mMinutes,
            time.mSeconds,
            time.mFrames,
            time.mSubframes,
            time.mSubframeDivisor,
            time.mCounter,
            time.mType,
            time.mFlags,
        )

    @property
    def valid(self) -> bool:
        return bool(self.flags & 1)

    @property
    def running(self) -> bool:
        """True while the tape moves."""
        return bool(self.flags & 2)

    @property
    def milliseconds(self) -> int:
        """The time since 00:00:00:00, frames scaled by the nominal rate of the time type."""
        time = SMPTETime(
            self.subframes,
            self.subframe_divisor,
            self.counter,
            self.type,
            self.flags,
            self.hours,
            self.minutes,
            self.seconds,
            self.frames,
        )
        with thread_scope():
            return int(lib.TavixDeviceSMPTE2Milliseconds(time))

    def __str__(self) -> str:
        separator = ";" if self.type in _DROP_FRAME_TYPES else ":"
        return (
            f"{self.hours:02d}:{self.minutes:02d}:{self.seconds:02d}{separator}{self.frames:02d}"
        )


class Transport(enum.IntEnum):
    """A tape deck's transport mode. Assign one to Device.transport, or its name as text
    ('play', 'stop', 'rewind', 'fast_forward' or 'ff', ...)."""

    STOP = 0
    PLAY = 1
    REWIND = 2
    FAST_FORWARD = 3
    PLAY_FAST_REVERSE = 4
    PLAY_FAST_FORWARD = 5
    UNAVAILABLE = 6

    def __str__(self) -> str:
        return self.name.lower()

    @classmethod
    def parse(cls, mode: Union["Transport", int, str]) -> "Transport":
        if isinstance(mode, str):
            key = mode.strip().lower().replace("-", "_").replace(" ", "_")
            key = {"ff": "fast_forward", "rew": "rewind"}.get(key, key)
            try:
                return cls[key.upper()]
            except KeyError:
                names = ", ".join(m.name.lower() for m in cls if m is not cls.UNAVAILABLE)
                raise ValueError(f"unknown transport mode {mode!r}; use one of {names}") from None
        try:
            return cls(mode)
        except ValueError:
            raise ValueError(f"unknown transport mode {mode!r}") from None
