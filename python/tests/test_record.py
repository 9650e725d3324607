"""Recording to a movie file while frames and sound arrive, checked with ffprobe."""

import json
import shutil
import subprocess

import pytest

import tavix

from conftest import MICROPHONE

ffprobe = shutil.which("ffprobe")


def probe(path):
    output = subprocess.run(
        [ffprobe, "-v", "error", "-show_streams", "-show_format", "-of", "json", str(path)],
        check=True,
        capture_output=True,
        text=True,
    ).stdout
    return json.loads(output)


@pytest.mark.skipif(ffprobe is None, reason="ffprobe (Debian's ffmpeg package) is not installed")
def test_records_picture_and_sound_while_frames_arrive(camera, tmp_path):
    take = tmp_path / "take.mp4"
    with camera.capture(size=(640, 360), audio=MICROPHONE, record=take) as session:
        # Forty-five frames take at least a second and a half of the camera's time, however
        # slowly they are read.
        for _ in range(45):
            assert session.read(timeout=20) is not None

    info = probe(take)
    streams = {s["codec_type"]: s for s in info["streams"]}
    assert set(streams) == {"video", "audio"}
    # The file keeps the camera's own picture size; the frames handed out are scaled.
    assert (streams["video"]["width"], streams["video"]["height"]) == (1280, 720)
    assert streams["audio"]["sample_rate"] == "48000"
    assert float(info["format"]["duration"]) >= 1.0


@pytest.mark.skipif(ffprobe is None, reason="ffprobe (Debian's ffmpeg package) is not installed")
def test_a_deck_recording_starts_at_its_first_frames_timecode(deck, tmp_path):
    deck.transport = "play"
    with deck.capture(size=(180, 144)) as session:
        while session.read(timeout=20).timecode.seconds < 1:
            pass
    take = tmp_path / "tape.mov"
    with deck.capture(size=(180, 144), record=take) as session:
        first = str(session.read(timeout=20).timecode)
        for _ in range(10):
            session.read(timeout=20)
    deck.transport = "stop"
    # The picture's stream and QuickTime's timecode track both start there.
    assert [s.get("tags", {}).get("timecode") for s in probe(take)["streams"]].count(first) == 2


@pytest.mark.skipif(ffprobe is None, reason="ffprobe (Debian's ffmpeg package) is not installed")
def test_recording_codecs_are_chosen_and_refused_where_the_container_cannot_hold_them(camera, tmp_path):
    take = tmp_path / "take.mkv"
    with camera.capture(audio=MICROPHONE, record=take, codec="FFV1", audio_codec="pcm") as session:
        for _ in range(15):
            assert session.read(timeout=20) is not None
    codecs = {s["codec_type"]: s["codec_name"] for s in probe(take)["streams"]}
    assert codecs == {"video": "ffv1", "audio": "pcm_s16le"}

    with pytest.raises(tavix.RecordingError, match=r"\.mp4 cannot hold FFV1.*\.mkv"):
        camera.capture(record=tmp_path / "take.mp4", codec="ffv1")
    for wrong in ({"codec": "vp9"}, {"codec": "ffv1", "quality": 10}, {"quality": 52}, {"audio_codec": "mp3"}):
        with pytest.raises(ValueError):
            camera.capture(record=tmp_path / "x.mov", **wrong)
    with pytest.raises(ValueError):
        camera.capture(codec="h264")
