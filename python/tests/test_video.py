"""Frames from the test camera as numpy arrays: through the iterator and through on_frame, in
each pixel format, when the consumer is slow, and when a callback fails."""

import threading

import numpy as np
import pytest

import tavix
from conftest import BARS, bar_colours, wait_until

# Bar 1 of the pattern, yellow (191, 191, 0): its video-range luma is 161, its full-range grey
# level 169 (either is a fair grey picture), and its blue-difference chroma far below neutral.
YELLOW_LUMA = 161
YELLOW_GREY = 169


def test_thirty_bgra_frames_show_the_colour_bars(camera):
    frames = []
    with camera.capture(pixel_format="BGRA") as session:
        for frame in session:
            frames.append(frame)
            if len(frames) == 30:
                break
    assert session.frames_received >= 30
    for frame in frames:
        assert isinstance(frame, np.ndarray)
        assert frame.shape == (720, 1280, 4) and frame.dtype == np.uint8
        assert frame.pixel_format == "BGRA"
        assert frame.timecode is None  # a camera has none
        row = frame[400]
        assert (row[:, 3] == 255).all()
        np.testing.assert_allclose(bar_colours(row[:, 2::-1]), BARS, atol=8)
    # Arrival order, arrival times, and a pattern that moves from frame to frame.
    assert [f.index for f in frames] == sorted(f.index for f in frames)
    assert all(a.time < b.time for a, b in zip(frames, frames[1:]))
    assert not np.array_equal(frames[0], frames[-1])


def test_a_frame_never_changes_once_handed_out(camera):
    # Frame buffers are used again for later frames once nothing refers to them: a frame, or
    # only a slice of one, that is still held must keep its pixels.
    session = camera.capture(pixel_format="BGRA", size=(320, 240), queue_size=2)
    first = session.read(timeout=20)
    kept = first.copy()
    corner = session.read(timeout=20)[16:40, 16:120]  # the frame counter's digits
    kept_corner = corner.copy()
    later = [session.read(timeout=20) for _ in range(12)]
    session.stop()
    assert np.array_equal(first, kept)
    assert np.array_equal(corner, kept_corner)
    assert all(not np.shares_memory(first, f) and not np.shares_memory(corner, f) for f in later)
    assert not np.array_equal(later[-1][16:40, 16:120], kept_corner), "the counter moved on"


# 200 pixels a side leaves the library's rows padded in every format (rows of 64-byte multiples),
# so each array is gathered row by row from the callback's buffer.
@pytest.mark.parametrize(
    "pixel_format, shape, check",
    [
        ("BGRA", (150, 200, 4), lambda px: px[:3][::-1]),
        ("ARGB", (150, 200, 4), lambda px: px[1:]),
        ("RGB", (150, 200, 3), lambda px: px),
        ("BGR", (150, 200, 3), lambda px: px[::-1]),
        ("GRAY", (150, 200), None),
        ("UYVY", (150, 200, 2), None),
        ("YUYV", (150, 200, 2), None),
        ("NV12", (225, 200), None),
    ],
)
def test_each_pixel_format_has_its_shape_and_layout(camera, pixel_format, shape, check):
    with camera.capture(pixel_format=pixel_format, size=(200, 150)) as session:
        frame = session.read(timeout=20)
    assert frame.shape == shape
    x, y = 36, 120  # inside the yellow bar (25..50), below the frame counter
    if check is not None:
        np.testing.assert_allclose(check(frame[y, x]), [191, 191, 0], atol=8)
    elif pixel_format == "GRAY":
        assert min(abs(int(frame[y, x]) - level) for level in (YELLOW_LUMA, YELLOW_GREY)) <= 2
    elif pixel_format == "UYVY":
        assert abs(int(frame[y, x, 1]) - YELLOW_LUMA) <= 2
    elif pixel_format == "YUYV":
        assert abs(int(frame[y, x, 0]) - YELLOW_LUMA) <= 2
    else:  # NV12: luma rows, then rows of interleaved Cb Cr at half the height
        assert abs(int(frame[y, x]) - YELLOW_LUMA) <= 2
        cb = int(frame[150 + y // 2, x & ~1])
        assert cb < 64, "yellow has little blue"


def test_the_native_format_is_delivered_when_none_is_asked(camera):
    with camera.capture(pixel_format=None) as session:
        frame = session.read(timeout=20)
    assert frame.pixel_format == "2vuy" and frame.shape == (720, 1280, 2)


@pytest.mark.parametrize("asked, used", [(60, 60), (50, 60), (None, 30)])
def test_the_camera_runs_at_the_offered_rate_nearest_the_one_asked(camera, asked, used):
    with camera.capture(size=(320, 240), rate=asked) as session:
        assert session.read(timeout=20) is not None
        assert session.rate == used
    assert session.rate is None, "no rate once the session has ended"


def test_a_slow_consumer_loses_the_oldest_frames_without_slowing_capture(camera):
    session = camera.capture(pixel_format="BGRA", size=(320, 240), queue_size=3)
    # Reads nothing while twenty frames come.
    assert wait_until(lambda: session.frames_received >= 20), "capture went on"
    received, dropped = session.frames_received, session.frames_dropped
    assert dropped >= received - 3 - 1
    waiting = [session.read(timeout=0) for _ in range(3)]
    assert all(f is not None for f in waiting)
    # The newest frames were kept, in order.
    assert [f.index for f in waiting] == list(range(waiting[0].index, waiting[0].index + 3))
    assert waiting[-1].index >= received - 2
    session.stop()
    assert not camera.is_capturing


def test_stopping_from_another_thread_ends_the_iteration_promptly(camera):
    session = camera.capture(pixel_format="BGRA", size=(320, 240))
    counted = []
    ended = threading.Event()

    def consume():
        for _ in session:
            counted.append(1)
        ended.set()

    consumer = threading.Thread(target=consume)
    consumer.start()
    assert wait_until(lambda: len(counted) >= 3)
    session.stop()
    assert ended.wait(20)
    consumer.join()
    assert counted
    assert session.read(timeout=0) is None


def test_frames_go_to_on_frame_on_the_capture_thread(camera):
    seen = []
    arrived = threading.Event()

    def on_frame(frame):
        seen.append((frame.shape, threading.current_thread() is threading.main_thread()))
        if len(seen) == 10:
            arrived.set()

    with camera.capture(pixel_format="BGRA", on_frame=on_frame) as session:
        assert arrived.wait(20)
        with pytest.raises(tavix.TavixError, match="on_frame"):
            session.read()
    assert seen[0] == ((720, 1280, 4), False)


def test_a_callback_may_stop_its_own_session(camera):
    def on_frame(frame):
        if frame.index == 2:
            session.stop()

    session = camera.capture(pixel_format="BGRA", size=(64, 48), on_frame=on_frame)
    assert wait_until(lambda: not session.running)
    assert session.frames_received == 3
    session.stop()


def test_a_callback_exception_is_raised_by_stop_and_ends_the_calls(camera):
    calls = []

    def on_frame(frame):
        calls.append(frame.index)
        if len(calls) == 3:
            raise ValueError("bad frame")

    session = camera.capture(pixel_format="BGRA", size=(64, 48), on_frame=on_frame)
    assert wait_until(lambda: session.frames_received > 3), "capture carries on"
    assert isinstance(session.error, ValueError)
    with pytest.raises(ValueError, match="bad frame"):
        session.stop()
    assert len(calls) == 3, "the failed callable is not called again"
    session.stop()  # raised once, not again


def test_a_callback_exception_leaving_the_device_block_is_raised_after_release():
    raised = threading.Event()

    def on_frame(frame):
        raised.set()
        raise RuntimeError("from the capture thread")

    with pytest.raises(RuntimeError, match="capture thread"):
        with tavix.Device("Tavix Test Camera") as device:
            device.capture(size=(64, 48), on_frame=on_frame)
            assert raised.wait(20)
    assert not tavix.has_devices_in_use()
