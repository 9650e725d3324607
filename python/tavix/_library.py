"""Finds and loads libtavix.so.1 and declares the C functions the package calls.

Nothing outside the package sees these names: the public modules speak numpy and context
managers, and this module is the only place where the C interface's types appear.
"""

from __future__ import annotations

import contextlib
import ctypes
import ctypes.util
import os
from pathlib import Path
from typing import Iterator, List, Optional

LIBRARY_NAME = "libtavix.so.1"

c_handle = ctypes.c_ulong


class SMPTETime(ctypes.Structure):
    """The 24-byte SMPTE timecode record of llib/mac/smptetime.h."""

    _fields_ = [
        ("mSubframes", ctypes.c_int16),
        ("mSubframeDivisor", ctypes.c_int16),
        ("mCounter", ctypes.c_uint32),
        ("mType", ctypes.c_uint32),
        ("mFlags", ctypes.c_uint32),
        ("mHours", ctypes.c_int16),
        ("mMinutes", ctypes.c_int16),
        ("mSeconds", ctypes.c_int16),
        ("mFrames", ctypes.c_int16),
    ]


class DeviceFormat(ctypes.Structure):
    """TavixDeviceFormat_C."""

    _fields_ = [
        ("dwFormat", ctypes.c_uint),
        ("dwWidth", ctypes.c_uint),
        ("dwHeight", ctypes.c_uint),
        ("dwBytesPerRow", ctypes.c_uint),
    ]


class FrameRate(ctypes.Structure):
    """TavixFrameRate_C."""

    _fields_ = [
        ("framesPerSecond", ctypes.c_double),
        ("minFramesPerSecond", ctypes.c_double),
        ("dwIntervalNumerator", ctypes.c_uint),
        ("dwIntervalDenominator", ctypes.c_uint),
        ("dwMaxIntervalNumerator", ctypes.c_uint),
        ("dwMaxIntervalDenominator", ctypes.c_uint),
        ("dwStepNumerator", ctypes.c_uint),
        ("dwStepDenominator", ctypes.c_uint),
    ]


class SoundFormat(ctypes.Structure):
    """TavixSoundFormat_C."""

    _fields_ = [
        ("sampleRate", ctypes.c_double),
        ("dwFormat", ctypes.c_uint),
        ("dwFormatFlags", ctypes.c_uint),
        ("dwChannels", ctypes.c_uint),
        ("dwBitsPerChannel", ctypes.c_uint),
    ]


class ControlMenuItem(ctypes.Structure):
    """TavixControlMenuItem_C."""

    _fields_ = [
        ("index", ctypes.c_longlong),
        ("name", ctypes.c_char_p),
        ("value", ctypes.c_longlong),
    ]


class Control(ctypes.Structure):
    """TavixControl_C."""

    _fields_ = [
        ("key", ctypes.c_char_p),
        ("name", ctypes.c_char_p),
        ("type", ctypes.c_int),
        ("flags", ctypes.c_uint),
        ("minimum", ctypes.c_longlong),
        ("maximum", ctypes.c_longlong),
        ("step", ctypes.c_longlong),
        ("defaultValue", ctypes.c_longlong),
        ("value", ctypes.c_longlong),
        ("text", ctypes.c_char_p),
        ("menu", ctypes.POINTER(ControlMenuItem)),
        ("menuCount", ctypes.c_uint),
    ]


# The pixel and sample pointers are taken as plain addresses (c_void_p arrives as an int or
# None), so a callback copies straight from the address without building a ctypes object.
VideoCallBack = ctypes.CFUNCTYPE(
    None,
    ctypes.c_void_p,  # pixels
    ctypes.c_ulong,  # pixel format
    ctypes.c_ulong,  # width
    ctypes.c_ulong,  # height
    ctypes.c_ulong,  # bytes per row
    ctypes.POINTER(SMPTETime),  # timecode or NULL
    ctypes.c_long,  # data
)
AudioCallBack = ctypes.CFUNCTYPE(
    None,
    ctypes.c_void_p,  # samples
    ctypes.c_uint,  # format flags
    ctypes.c_ulong,  # sample rate
    ctypes.c_ulong,  # channels
    ctypes.c_ulong,  # bytes per sample
    ctypes.c_ulong,  # sample frames
    ctypes.c_long,  # data
)
EnumerateCallBack = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.c_char_p, ctypes.c_void_p)
FormatEnumerateCallBack = ctypes.CFUNCTYPE(
    ctypes.c_bool, ctypes.POINTER(DeviceFormat), ctypes.c_bool, ctypes.c_void_p
)
FrameRateCallBack = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(FrameRate), ctypes.c_void_p)
SoundFormatCallBack = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(SoundFormat), ctypes.c_void_p)
ChangeCallBack = ctypes.CFUNCTYPE(
    None, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_bool, ctypes.c_void_p
)
EnumerateWithIdsCallBack = ctypes.CFUNCTYPE(
    ctypes.c_bool, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_int, ctypes.c_bool, ctypes.c_void_p
)
ControlEnumerateCallBack = ctypes.CFUNCTYPE(ctypes.c_bool, ctypes.POINTER(Control), ctypes.c_void_p)
ControlChangeCallBack = ctypes.CFUNCTYPE(
    None, ctypes.c_char_p, ctypes.c_longlong, ctypes.c_char_p, ctypes.c_uint, ctypes.c_void_p
)

# name: (result type, argument types)
_PROTOTYPES = {
    "TavixHasUsedDevices": (ctypes.c_bool, []),
    "TavixDeviceGet": (c_handle, [ctypes.c_char_p, ctypes.c_int]),
    "TavixDeviceRetain": (ctypes.c_bool, [c_handle]),
    "TavixDeviceRelease": (ctypes.c_bool, [c_handle]),
    "TavixDeviceOpen": (ctypes.c_bool, [c_handle]),
    "TavixDeviceClose": (ctypes.c_bool, [c_handle]),
    "TavixDeviceIsOpened": (ctypes.c_bool, [c_handle]),
    "TavixDeviceIsConnected": (ctypes.c_bool, [c_handle]),
    "TavixDeviceIsUsedByAnotherApplication": (ctypes.c_bool, [c_handle]),
    "TavixDeviceHasMediaType": (ctypes.c_bool, [c_handle, ctypes.c_int]),
    "TavixDeviceStartCapture": (
        ctypes.c_bool,
        [
            c_handle,
            VideoCallBack,
            ctypes.c_long,
            ctypes.c_ulong,
            ctypes.c_ulong,
            ctypes.c_ulong,
            AudioCallBack,
            ctypes.c_long,
            ctypes.c_uint,
            ctypes.c_ulong,
            ctypes.c_ulong,
            ctypes.c_ulong,
            ctypes.c_char_p,
        ],
    ),
    "TavixDeviceStartCaptureWithAudioDevice": (
        ctypes.c_bool,
        [
            c_handle,
            ctypes.c_char_p,
            VideoCallBack,
            ctypes.c_long,
            ctypes.c_ulong,
            ctypes.c_ulong,
            ctypes.c_ulong,
            AudioCallBack,
            ctypes.c_long,
            ctypes.c_uint,
            ctypes.c_ulong,
            ctypes.c_ulong,
            ctypes.c_ulong,
            ctypes.c_char_p,
        ],
    ),
    "TavixDeviceStopCapture": (ctypes.c_bool, [c_handle]),
    "TavixDeviceStopRecording": (ctypes.c_bool, [c_handle]),
    "TavixDeviceIsCapturing": (ctypes.c_bool, [c_handle]),
    "TavixDeviceGetRecordingFrameCounts": (
        ctypes.c_bool,
        [c_handle, ctypes.POINTER(ctypes.c_ulong), ctypes.POINTER(ctypes.c_ulong)],
    ),
    "TavixDeviceGetLastError": (ctypes.c_bool, [c_handle, ctypes.c_char_p, ctypes.c_size_t]),
    "TavixDeviceGetListError": (ctypes.c_bool, [ctypes.c_char_p, ctypes.c_size_t]),
    "TavixDeviceSetChangeCallBack": (ctypes.c_bool, [ChangeCallBack, ctypes.c_void_p]),
    "TavixDeviceEnumerateWithUniqueIDs": (
        None,
        [EnumerateWithIdsCallBack, ctypes.c_void_p, ctypes.c_int, ctypes.c_uint],
    ),
    "TavixDeviceGetWithUniqueID": (ctypes.c_ulong, [ctypes.c_char_p]),
    "TavixDeviceGetUniqueID": (ctypes.c_bool, [c_handle, ctypes.c_char_p, ctypes.c_size_t]),
    "TavixDeviceFormatEnumerateFrameRates": (
        ctypes.c_bool,
        [c_handle, ctypes.c_ulong, ctypes.c_ulong, ctypes.c_ulong, FrameRateCallBack, ctypes.c_void_p],
    ),
    "TavixDeviceSetCaptureFrameRate": (ctypes.c_bool, [c_handle, ctypes.c_double]),
    "TavixDeviceSetRecordingOptions": (
        ctypes.c_bool,
        [c_handle, ctypes.c_char_p, ctypes.c_int, ctypes.c_char_p],
    ),
    "TavixDeviceGetCaptureFrameRate": (ctypes.c_bool, [c_handle, ctypes.POINTER(ctypes.c_double)]),
    "TavixDeviceEnumerateSoundFormats": (
        ctypes.c_bool,
        [c_handle, SoundFormatCallBack, ctypes.c_void_p],
    ),
    "TavixDeviceEnumerateControls": (
        ctypes.c_bool,
        [c_handle, ControlEnumerateCallBack, ctypes.c_void_p],
    ),
    "TavixDeviceGetControl": (
        ctypes.c_bool,
        [c_handle, ctypes.c_char_p, ctypes.POINTER(ctypes.c_longlong)],
    ),
    "TavixDeviceSetControl": (
        ctypes.c_int,
        [c_handle, ctypes.c_char_p, ctypes.c_longlong, ctypes.POINTER(ctypes.c_longlong)],
    ),
    "TavixDeviceGetControlText": (
        ctypes.c_bool,
        [c_handle, ctypes.c_char_p, ctypes.c_char_p, ctypes.c_size_t],
    ),
    "TavixDeviceSetControlText": (ctypes.c_int, [c_handle, ctypes.c_char_p, ctypes.c_char_p]),
    "TavixDeviceSetControlChangeCallBack": (
        ctypes.c_bool,
        [c_handle, ControlChangeCallBack, ctypes.c_void_p],
    ),
    "TavixDeviceIsTransportAvailable": (ctypes.c_bool, [c_handle]),
    "TavixDeviceGetTransportMode": (ctypes.c_int, [c_handle]),
    "TavixDeviceSetTransportMode": (None, [c_handle, ctypes.c_int]),
    "TavixDeviceGetSMPTETime": (ctypes.c_bool, [c_handle, ctypes.POINTER(SMPTETime)]),
    "TavixDeviceSMPTE2Milliseconds": (ctypes.c_ulong, [ctypes.POINTER(SMPTETime)]),
    "TavixThreadInit": (ctypes.c_void_p, []),
    "TavixThreadDestroy": (None, [ctypes.c_void_p]),
    "TavixIsMainThread": (ctypes.c_bool, []),
    "TavixDeviceEnumerateWithCallBack": (
        None,
        [EnumerateCallBack, ctypes.c_void_p, ctypes.c_int, ctypes.c_uint],
    ),
    "TavixDeviceFormatEnumerateWithCallBack": (
        ctypes.c_bool,
        [c_handle, FormatEnumerateCallBack, ctypes.c_void_p],
    ),
}


def _source_tree_build() -> Path:
    # python/tavix/_library.py -> the repository's build/ folder, for a package used in place.
    return Path(__file__).resolve().parent.parent.parent / "build" / LIBRARY_NAME


def candidates() -> List[str]:
    """Where the library is looked for, in order: TAVIX_LIBRARY, the source tree's build folder
    (when the package is used from the source tree), then the system's library path and the usual
    install prefixes."""
    found: List[str] = []
    explicit = os.environ.get("TAVIX_LIBRARY")
    if explicit:
        # A path given on purpose is the only one tried: falling back would hide a mistake.
        return [explicit]
    build = _source_tree_build()
    if build.exists():
        found.append(str(build))
    found.append(LIBRARY_NAME)
    for prefix in ("/usr/local/lib", "/usr/local/lib64", "/usr/lib", "/usr/lib64"):
        found.append(os.path.join(prefix, LIBRARY_NAME))
    system = ctypes.util.find_library("tavix")
    if system:
        found.append(system)
    return found


def _load() -> ctypes.CDLL:
    errors = []
    for path in candidates():
        try:
            library = ctypes.CDLL(path)
        except OSError as error:
            errors.append(f"  {path}: {error}")
            continue
        for name, (result, arguments) in _PROTOTYPES.items():
            function = getattr(library, name)
            function.restype = result
            function.argtypes = arguments
        return library
    raise ImportError(
        f"tavix: cannot load {LIBRARY_NAME}; build it (cmake --build build --target tavix), "
        "install it, or set TAVIX_LIBRARY to its path. Tried:\n" + "\n".join(errors)
    )


lib = _load()


@contextlib.contextmanager
def thread_scope() -> Iterator[None]:
    """Wraps library calls made on a thread other than the one that loaded the library in the
    per-thread scope the library asks for (its autorelease pool)."""
    pool: Optional[int] = None if lib.TavixIsMainThread() else lib.TavixThreadInit()
    try:
        yield
    finally:
        if pool is not None:
            lib.TavixThreadDestroy(pool)
