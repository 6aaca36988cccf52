"""Opening files: media information, key and group timestamps, refusals."""
import pytest

import tessalo
from conftest import ffprobe, media, packets


def _stream(doc: dict, kind: str) -> dict:
    return next((s for s in doc["streams"] if s["codec_type"] == kind), {})


@pytest.mark.parametrize("name", ["main.mp4", "mono48k.mp4", "noaudio.mp4", "main.mov"])
def test_info_matches_ffprobe(name):
    doc = ffprobe(media(name))
    video, audio = _stream(doc, "video"), _stream(doc, "audio")
    num, den = (int(v) for v in video["r_frame_rate"].split("/"))
    with tessalo.open(media(name)) as m:
        info = m.info
    assert (info.width, info.height, info.frame_rate) == (video["width"], video["height"], num // den)
    assert info.video_bit_rate == int(video["bit_rate"]) and info.video_codec == "h264"
    assert info.duration_ms == pytest.approx(float(doc["format"]["duration"]) * 1000, abs=0.001)
    assert info.rotation == 0 and info.display_size == (info.width, info.height)
    if audio:
        assert (info.sample_rate, info.channels, info.audio_bit_rate, info.audio_codec) == (
            int(audio["sample_rate"]), audio["channels"], int(audio["bit_rate"]), "aac")
    else:
        assert (info.has_audio, info.sample_rate, info.channels, info.audio_codec) == (False, None, 0, None)


def test_keys_and_groups_are_the_librarys_own(bare_host):
    host = bare_host(media("main.mp4"))
    with tessalo.open(media("main.mp4")) as m:
        assert m.keys() == host.keys()
        assert [m.group(k) for k in m.keys()] == [host.group(k) for k in host.keys()]
        with pytest.raises(ValueError, match=r"no group .* starts at 1500 ms; the nearest key timestamps are "
                                             r"1000 ms and 2000 ms"):
            m.group(1500)


def test_groups_that_open_at_one_timestamp_are_listed_together():
    # Two video streams: every key timestamp opens two groups, and the
    # library's count covers only the first of them.
    with tessalo.open(media("twovideo.mp4")) as m:
        keys = m.keys()
        assert all(keys.count(k) == 2 for k in keys)
        assert sum(len(m.group(k)) for k in set(keys)) == len(packets(media("twovideo.mp4"))["video"])


@pytest.mark.parametrize("name, event, words", [
    ("hevc.mp4", tessalo.Event.BAD_CODEC, "video codec HEVC (hvc1) is not supported: H.264 only"),
    ("mp3audio.mp4", tessalo.Event.BAD_CODEC, "audio codec MP3 (mp4a) is not supported: AAC only"),
    ("aac22050.mp4", tessalo.Event.BAD_SAMPLE_RATE, "audio sample rate 22050 Hz is not supported"),
    ("aac6ch.mp4", tessalo.Event.BAD_CHANNELS, "6 audio channels are not supported: 1 to 3 only"),
    ("audioonly.mp4", tessalo.Event.NO_VIDEO, "no H.264 video stream; it holds only AAC"),
    ("vp9.webm", tessalo.Event.BAD_CODEC, "neither H.264 video nor AAC audio"),
    ("text.mp4", tessalo.Event.FILE_ERROR, "cannot open: FFmpeg cannot open it as media"),
    ("empty.mp4", tessalo.Event.FILE_ERROR, "cannot open: the file is empty"),
    ("missing.mp4", tessalo.Event.FILE_ERROR, "cannot open: no such file"),
])
def test_a_refused_file_raises_with_its_cause(name, event, words):
    with pytest.raises(tessalo.Refused) as caught:
        tessalo.open(media(name))
    error = caught.value
    assert (error.event, error.path) == (event, media(name))
    assert words in error.cause
    assert str(error).startswith(media(name)) and event.c_name in str(error)
