"""The live picture of a camera: in an OpenCV window when OpenCV is installed (Debian's
python3-opencv) and there is a display, as PNG snapshots otherwise.

    python3 live.py                                   the test camera
    python3 live.py "Integrated Camera" --seconds 10
    python3 live.py --snapshots shots/ --every 1.0    PNG files even with OpenCV

In the window, q or Escape ends it. Without OpenCV, a snapshot is written every --every seconds
for --seconds seconds (PNG written with zlib, so numpy is all it needs).
"""

import argparse
import os
import struct
import sys
import time
import zlib
from pathlib import Path

import tavix

try:
    import cv2
except ImportError:
    cv2 = None


def write_png(path, bgra):
    """A minimal PNG writer for an (height, width, 4) BGRA frame, as RGB."""
    height, width = bgra.shape[:2]
    rgb = bgra[:, :, 2::-1]
    rows = b"".join(b"\x00" + rgb[y].tobytes() for y in range(height))

    def chunk(kind, data):
        body = kind + data
        return struct.pack(">I", len(data)) + body + struct.pack(">I", zlib.crc32(body))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    Path(path).write_bytes(
        b"\x89PNG\r\n\x1a\n"
        + chunk(b"IHDR", header)
        + chunk(b"IDAT", zlib.compress(rows, 6))
        + chunk(b"IEND", b"")
    )


def show_in_window(session, name, seconds):
    title = f"tavix: {name}"
    deadline = time.monotonic() + seconds if seconds else None
    for frame in session:
        label = str(frame.timecode) if frame.timecode else f"frame {frame.index}"
        cv2.putText(frame, label, (20, frame.shape[0] - 20), cv2.FONT_HERSHEY_SIMPLEX, 1.0,
                    (255, 255, 255, 255), 2)
        cv2.imshow(title, frame)
        if cv2.waitKey(1) & 0xFF in (ord("q"), 27):
            break
        if deadline and time.monotonic() > deadline:
            break
    cv2.destroyAllWindows()


def write_snapshots(session, folder, every, seconds):
    folder.mkdir(parents=True, exist_ok=True)
    deadline = time.monotonic() + (seconds or 5)
    next_shot = 0.0
    for frame in session:
        if frame.time >= next_shot:
            path = folder / f"snapshot-{frame.index:06d}.png"
            write_png(path, frame)
            print(f"{path}  {frame.shape[1]} x {frame.shape[0]}  timecode {frame.timecode}")
            next_shot = frame.time + every
        if time.monotonic() > deadline:
            break


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("camera", nargs="?", default="Tavix Test Camera")
    parser.add_argument("--seconds", type=float, default=0, help="0: until closed (window), 5 (snapshots)")
    parser.add_argument("--snapshots", type=Path, help="write PNG snapshots into this folder")
    parser.add_argument("--every", type=float, default=1.0, help="seconds between snapshots")
    parser.add_argument("--size", help="WIDTHxHEIGHT to scale to")
    options = parser.parse_args()
    size = tuple(int(v) for v in options.size.split("x")) if options.size else None

    if options.camera not in tavix.devices("video"):
        print(f"no camera {options.camera!r}; cameras: {', '.join(tavix.devices('video'))}",
              file=sys.stderr)
        return 1
    with tavix.Device(options.camera, "video") as camera:
        with camera.capture(pixel_format="BGRA", size=size, audio=False) as session:
            has_display = bool(os.environ.get("DISPLAY") or os.environ.get("WAYLAND_DISPLAY"))
            if cv2 is not None and has_display and options.snapshots is None:
                show_in_window(session, options.camera, options.seconds)
            else:
                write_snapshots(session, options.snapshots or Path("snapshots"), options.every,
                                options.seconds)
        print(f"{session.frames_received} frames, {session.frames_dropped} dropped")
    return 0


if __name__ == "__main__":
    sys.exit(main())
