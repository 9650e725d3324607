"""What handing 1080p 'BGRA' frames to a Python iterator costs, next to a bare memcpy of the
same frames.

The test camera's picture is 1280 x 720; the library scales it to 1920 x 1080 before the
callback, on the capture thread, and that is the library's cost, not the package's, so it is
left out. Each frame is handled three times on the capture thread, in turn first, second and
third:

- memcpy: a bare memmove of the frame into one buffer allocated beforehand, the same every time;
- memcpy2: the same into two such buffers in turn. A consumer that holds on to the frame it has
  while the next one arrives (``for frame in session``: ``frame`` still refers to the last one)
  needs the next in another buffer, so this is the least a copy handed to such a loop costs;
  the difference from the first is the cache;
- package: the package's video callback from entry to return (the copy into a frame buffer,
  the frame's details, the queue).

All are timed in processor time of that thread (time.thread_time_ns), so that other work on a
busy machine, and waits for the interpreter lock, do not count. To the package's time are added
the price of entering Python from C (a ctypes callback of the same signature that does nothing,
called through its C pointer; this counts the call from Python to C that makes it too) and the
processor time of the iterator's read of the frame.

    TAVIX_LIBRARY=build/libtavix.so.1 python3 python/benchmarks/frame_delivery.py [FRAMES]
"""

import ctypes
import statistics
import sys
import time
from pathlib import Path

import numpy as np

sys.path.insert(0, str(Path(__file__).resolve().parent.parent))

import tavix  # noqa: E402
from tavix import _library, session as session_module  # noqa: E402

WIDTH, HEIGHT = 1920, 1080
FRAME_BYTES = WIDTH * HEIGHT * 4


def median_us(samples):
    return statistics.median(samples) / 1000.0


def callback_dispatch(repeats):
    def nothing(pixels, code, width, height, bytes_per_row, timecode, data):
        pass

    callback = _library.VideoCallBack(nothing)
    function = ctypes.cast(callback, ctypes.c_void_p).value
    call = _library.VideoCallBack(function)
    times = []
    for _ in range(repeats):
        started = time.thread_time_ns()
        call(None, 0, WIDTH, HEIGHT, WIDTH * 4, None, 0)
        times.append(time.thread_time_ns() - started)
    return times


def delivery(frames):
    """Times the bare copies and the package's own callback on the same frames while an iterator
    consumes them; each frame takes the three in a different order, so that none of them always
    finds the frame in the cache."""
    one = np.ones(FRAME_BYTES, np.uint8)
    two = [np.ones(FRAME_BYTES, np.uint8), np.ones(FRAME_BYTES, np.uint8)]
    times = {"memcpy": [], "memcpy2": [], "package": []}
    read_times = []
    original = session_module.Session._video_arrived
    count = [0]

    def bare(name, target, pixels):
        started = time.thread_time_ns()
        ctypes.memmove(target.ctypes.data, pixels, FRAME_BYTES)
        times[name].append(time.thread_time_ns() - started)

    def package(self, arguments):
        started = time.thread_time_ns()
        original(self, *arguments)
        times["package"].append(time.thread_time_ns() - started)

    def timed(self, *arguments):
        count[0] += 1
        steps = [
            lambda: bare("memcpy", one, arguments[0]),
            lambda: bare("memcpy2", two[count[0] % 2], arguments[0]),
            lambda: package(self, arguments),
        ]
        turn = count[0] % 3
        for step in steps[turn:] + steps[:turn]:
            step()

    session_module.Session._video_arrived = timed
    try:
        with tavix.Device("Tavix Test Camera", "video") as camera:
            session = camera.capture(pixel_format="BGRA", size=(WIDTH, HEIGHT), queue_size=8)
            for _ in range(frames):
                # Processor time only: the wait for the frame costs none.
                started = time.thread_time_ns()
                frame = session.read(timeout=5)
                read_times.append(time.thread_time_ns() - started)
                assert frame.shape == (HEIGHT, WIDTH, 4)
            dropped = session.frames_dropped
            session.stop()
    finally:
        session_module.Session._video_arrived = original
    # The first few fill the frame buffers.
    return {name: values[5:] for name, values in times.items()}, read_times, dropped


def main():
    frames = int(sys.argv[1]) if len(sys.argv) > 1 else 150
    print(f"library: {tavix.library_path}")
    times, read, dropped = delivery(frames)
    dispatch = callback_dispatch(1000)
    one, two = median_us(times["memcpy"]), median_us(times["memcpy2"])
    read_us = median_us(read) if read else 0.0
    total_us = median_us(times["package"]) + median_us(dispatch) + read_us
    print(f"frames: {len(times['package'])} timed, {dropped} dropped by the iterator")
    print(f"bare memcpy into one buffer:                {one:8.1f} us")
    print(f"bare memcpy into two buffers in turn:       {two:8.1f} us")
    print(f"package callback (its copy included):       {median_us(times['package']):8.1f} us")
    print(f"ctypes callback dispatch:                   {median_us(dispatch):8.1f} us")
    print(f"iterator read of a frame:                   {read_us:8.1f} us")
    print(f"delivery / memcpy into one buffer:          {total_us / one:8.3f}")
    print(f"delivery / memcpy into two buffers:         {total_us / two:8.3f}")


if __name__ == "__main__":
    main()
