"""The exceptions the package raises. Every one derives from TavixError; each also derives from
the built-in exception a Python programmer would reach for first."""


class TavixError(Exception):
    """Something the library refused or could not do."""


class DeviceNotFoundError(TavixError, LookupError):
    """No device has the name (and media type) asked for; the message lists those that exist."""


class DeviceClosedError(TavixError):
    """The device (or its capture session) was used after it was closed."""


class FormatError(TavixError, ValueError):
    """The device cannot deliver the pixel format, size or sound asked for."""


class RecordingError(TavixError, OSError):
    """The movie file cannot be written."""


class ControlError(TavixError, ValueError):
    """The device refused to set (or read) a control; the message is the library's reason and
    ``reason`` names it: 'unknown_key', 'read_only', 'wrong_type' (text that names no value),
    'inactive' (its auto partner is on), 'busy', 'failed' or 'invalid'."""

    def __init__(self, message: str, reason: str = "failed") -> None:
        super().__init__(message)
        self.reason = reason


class TavixWarning(UserWarning):
    """The library refused a part of a capture that goes on without it (sound it cannot
    deliver); the message says why."""
