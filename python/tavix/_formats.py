"""The pixel formats and sample types the package can hand out as numpy arrays, and how a
frame of each is shaped."""

from __future__ import annotations

from fractions import Fraction
from typing import Any, Callable, Dict, List, NamedTuple, Optional, Tuple

import numpy as np

from ._library import FrameRateCallBack, SoundFormatCallBack, lib
from .errors import FormatError


def fourcc(text: str) -> int:
    return int.from_bytes(text.encode("ascii"), "big")


def fourcc_text(code: int) -> str:
    """A format code as text: the name of a known format, else its four characters, else hex."""
    known = _BY_CODE.get(code)
    if known is not None:
        return known.name
    raw = code.to_bytes(4, "big")
    if all(32 <= b < 127 for b in raw):
        return raw.decode("ascii")
    return f"0x{code:08x}"


class PixelFormat(NamedTuple):
    name: str  # as the library names it
    code: int  # the Core Video code passed to the library
    aliases: Tuple[str, ...]
    channels: int  # bytes per pixel in the array's last axis; 0 for 2-D arrays
    description: str


PIXEL_FORMATS = (
    PixelFormat("BGRA", fourcc("BGRA"), (), 4, "blue, green, red, alpha; OpenCV's BGRA order"),
    PixelFormat("ARGB", 0x20, (), 4, "alpha, red, green, blue"),
    PixelFormat("24RG", 0x18, ("RGB",), 3, "red, green, blue"),
    PixelFormat("24BG", fourcc("24BG"), ("BGR",), 3, "blue, green, red; OpenCV's order"),
    PixelFormat("L008", fourcc("L008"), ("GRAY",), 0, "grey, one byte a pixel"),
    PixelFormat("2vuy", fourcc("2vuy"), ("UYVY",), 2, "packed 4:2:2, U Y V Y"),
    PixelFormat("yuvs", fourcc("yuvs"), ("YUYV", "YUY2"), 2, "packed 4:2:2, Y U Y V"),
    PixelFormat("420v", fourcc("420v"), ("NV12",), 0, "4:2:0, luma rows then CbCr rows"),
)
_BY_CODE: Dict[int, PixelFormat] = {f.code: f for f in PIXEL_FORMATS}
_BY_NAME: Dict[str, PixelFormat] = {}
for _format in PIXEL_FORMATS:
    for _name in (_format.name,) + _format.aliases:
        _BY_NAME[_name.lower()] = _format
# 'y420' is a format the library delivers, but the callback does not tell where its two chroma
# planes start when rows are padded, so the package cannot lay it out reliably.
_UNSUPPORTED = {"y420": "'y420' frames cannot be laid out from the callback; ask for '420v' (NV12)"}


def pixel_format(name: str) -> PixelFormat:
    """The format a user's name stands for; ValueError naming the choices otherwise."""
    if not isinstance(name, str):
        raise TypeError(f"pixel_format must be a string such as 'BGRA', not {name!r}")
    found = _BY_NAME.get(name.lower())
    if found is not None:
        return found
    if name.lower() in _UNSUPPORTED:
        raise FormatError(_UNSUPPORTED[name.lower()])
    choices = ", ".join(
        f.name + (f" ({'/'.join(f.aliases)})" if f.aliases else "") for f in PIXEL_FORMATS
    )
    raise FormatError(f"pixel format {name!r} is not one the library delivers; choose one of {choices}")


def frame_shape(code: int, width: int, height: int) -> Optional[Tuple[int, ...]]:
    """The array shape of a width x height frame of the format; None when the format is not
    known (the frame is then handed out as its raw rows)."""
    known = _BY_CODE.get(code)
    if known is None:
        return None
    if known.name == "420v":
        # OpenCV's layout for NV12 (cv2.COLOR_YUV2BGR_NV12): height * 3 / 2 rows of width bytes,
        # which is rectangular only for even sizes.
        if width % 2 or height % 2:
            return None
        return (height * 3 // 2, width)
    if known.channels == 2:
        return (height, width + (width & 1), 2)  # 4:2:2 pairs: an odd width carries one more
    if known.channels == 0:
        return (height, width)
    return (height, width, known.channels)


def check_frame_size(format_: PixelFormat, size: Tuple[int, int]) -> None:
    if format_.name == "420v" and (size[0] % 2 or size[1] % 2):
        raise FormatError(f"'420v' frames need an even width and height, not {size[0]} x {size[1]}")


class SampleType(NamedTuple):
    dtype: np.dtype
    flags: int  # Core Audio format flags: 1 float, 4 signed integer, 8 packed
    bytes_per_sample: int


# Little-endian, interleaved, packed: what numpy reads natively on the machines we build for.
SAMPLE_TYPES: Dict[str, SampleType] = {
    "float32": SampleType(np.dtype("<f4"), 1 | 8, 4),
    "float64": SampleType(np.dtype("<f8"), 1 | 8, 8),
    "int16": SampleType(np.dtype("<i2"), 4 | 8, 2),
    "int32": SampleType(np.dtype("<i4"), 4 | 8, 4),
    "uint8": SampleType(np.dtype("u1"), 8, 1),
}


def sample_type(dtype: object) -> SampleType:
    try:
        key = np.dtype(dtype).name  # type: ignore[call-overload]
    except TypeError:
        key = str(dtype)
    found = SAMPLE_TYPES.get(key)
    if found is None:
        raise FormatError(
            f"sample type {dtype!r} is not one the library converts to; choose one of "
            + ", ".join(SAMPLE_TYPES)
        )
    return found


def dtype_for(flags: int, bytes_per_sample: int) -> Optional[np.dtype]:
    """The numpy type of samples the callback describes; None for a layout numpy has no type
    for (24-bit samples)."""
    if flags & 2:
        order = ">"
    else:
        order = "<"
    if flags & 1:
        kind = "f"
    elif flags & 4:
        kind = "i"
    else:
        kind = "u"
    if bytes_per_sample not in (1, 2, 4, 8) or (kind == "f" and bytes_per_sample < 4):
        return None
    return np.dtype(f"{order if bytes_per_sample > 1 else '|'}{kind}{bytes_per_sample}")


class FrameRate(NamedTuple):
    """Frame rates a device offers at one format and size.

    ``fastest`` and ``slowest`` are frames per second, equal for a single rate. ``interval`` is
    the shortest time between pictures in seconds, exactly (``Fraction(1001, 30000)`` for
    29.97), ``max_interval`` the longest. A range offers every interval from ``interval`` to
    ``max_interval`` in steps of ``step`` seconds, or any between them when ``step`` is None.
    ``float(rate)`` is the fastest rate."""

    fastest: float
    slowest: float
    interval: Fraction
    max_interval: Fraction
    step: Optional[Fraction]

    def __float__(self) -> float:
        return self.fastest

    @property
    def is_range(self) -> bool:
        return self.max_interval != self.interval


def _fraction(numerator: int, denominator: int) -> Fraction:
    return Fraction(numerator, denominator) if denominator else Fraction(0)


def frame_rates(call: Callable[..., Any], code: int, width: int, height: int) -> Tuple[FrameRate, ...]:
    """The rates offered at a format and size, through the device's ``call`` helper."""
    found: List[FrameRate] = []

    def add(pointer: Any, context: Any) -> bool:
        rate = pointer.contents
        step = _fraction(rate.dwStepNumerator, rate.dwStepDenominator)
        found.append(
            FrameRate(
                rate.framesPerSecond,
                rate.minFramesPerSecond,
                _fraction(rate.dwIntervalNumerator, rate.dwIntervalDenominator),
                _fraction(rate.dwMaxIntervalNumerator, rate.dwMaxIntervalDenominator),
                step or None,
            )
        )
        return True

    call(lib.TavixDeviceFormatEnumerateFrameRates, code, width, height, FrameRateCallBack(add), None)
    return tuple(found)


class SoundDetails(NamedTuple):
    """A sound format as the device delivers it: its format type's code, samples per second,
    channels, bits of one channel's sample, and whether samples are floating point."""

    code: int
    sample_rate: float
    channels: int
    bits: int
    is_float: bool


def sound_formats(call: Callable[..., Any]) -> List[SoundDetails]:
    found: List[SoundDetails] = []

    def add(pointer: Any, context: Any) -> bool:
        sound = pointer.contents
        found.append(
            SoundDetails(
                sound.dwFormat,
                sound.sampleRate,
                sound.dwChannels,
                sound.dwBitsPerChannel,
                bool(sound.dwFormatFlags & 1),
            )
        )
        return True

    call(lib.TavixDeviceEnumerateSoundFormats, SoundFormatCallBack(add), None)
    return found
