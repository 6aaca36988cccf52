"""Cuts: outputs read back with ffprobe and ffmpeg, failures and Ctrl-C
leave no output behind."""
import json
import os
import signal
import subprocess
import sys
import time
from pathlib import Path

import pytest

import tessalo
from conftest import media, packets, run

RANGES = [(1040, 2499), (3000, 3519)]


def _opening_key(groups, start, kind):
    """The key a range opens on: kind 0 takes the group before the first key
    at or after the start (the first group when that is the first key), kind 1
    the last key at or before the start."""
    keys = [group[0][0] for group in groups]
    if kind == 1:
        return max([n for n, k in enumerate(keys) if k <= start], default=0)
    return max(0, next((n for n, k in enumerate(keys) if k >= start), len(keys)) - 1)


def _predicted_counts(path, ranges, kind):
    """Video and audio samples that a cut writes: from the opening key on in
    decode order until the first picture after the end; audio from the first
    sample at or after that key until the first after the end."""
    found = packets(path)
    groups = []
    for pts, key in found["video"]:
        if key:
            groups.append([])
        groups[-1].append((pts, key))
    video = audio = 0
    keys = []
    for start, end in ranges:
        opening = _opening_key(groups, start, kind)
        keys.append(groups[opening][0][0])
        stream = [p for group in groups[opening:] for p, _ in group]
        kept = next((n for n, p in enumerate(stream) if p > end), len(stream))
        video += kept
        if kind == 1:
            audio += _synced_audio(found, stream[:kept], keys[-1], _audio_lead(path))
        else:
            sound = [p for p, _ in found["audio"] if p >= keys[-1]]
            audio += next((n for n, p in enumerate(sound) if p > end), len(sound))
    return video, audio, keys


def _audio_lead(path):
    """How far the first audio packet stands after the first video packet,
    in ms: the synced cut works on the source's own clock."""
    doc = json.loads(run("ffprobe", "-v", "error", "-show_entries", "stream=codec_type,start_time", "-of", "json",
                         path).stdout)
    starts = {s["codec_type"]: float(s["start_time"]) for s in reversed(doc["streams"]) if "start_time" in s}
    return 1000.0 * (starts["audio"] - starts["video"]) if "audio" in starts else 0.0


def _synced_audio(found, kept, key, lead):
    """Kind 1's audio for one range: on the source's clock, from the opening
    key until the last kept picture stops showing (the next picture's time)."""
    if not kept:
        return 0
    shown = sorted(p for p, _ in found["video"])
    last = max(kept)
    stop = next((p for p in shown if p > last), last)
    return sum(1 for p, _ in found["audio"] if key <= p + lead < stop)


def _counts(path):
    doc = json.loads(run("ffprobe", "-v", "error", "-count_packets", "-show_entries",
                         "stream=codec_type,nb_read_packets", "-of", "json", path).stdout)
    counts = {s["codec_type"]: int(s["nb_read_packets"]) for s in doc["streams"]}
    return counts.get("video", 0), counts.get("audio", 0)


def _check_output(source, output, kind, result, offsets):
    video, audio, keys = _predicted_counts(source, RANGES, kind)
    assert _counts(output) == (video, audio)
    assert run("ffmpeg", "-v", "warning", "-i", output, "-f", "null", "-").stderr == b""
    # The first pair lies inside the first range, whose output starts at its key; the second straddles two ranges.
    (first, second), straddling = offsets
    assert result.offsets == [(first - keys[0], second - keys[0]), straddling]


def test_a_cut_holds_the_predicted_samples_and_offsets(main_media, tmp_path):
    out = tmp_path / "cut.mp4"
    offsets = [(1100, 1200), (2400, 3100)]
    result = main_media.cut(out, RANGES, kind=0, offsets=offsets)
    assert (result.path, result.kind, result.ranges) == (str(out), 0, RANGES)
    _check_output(main_media.path, str(out), 0, result, offsets)
    assert os.listdir(tmp_path) == ["cut.mp4"]


def test_the_synced_cut_holds_the_predicted_samples_with_or_without_audio(tmp_path):
    for name in ("main.mp4", "noaudio.mp4"):
        out = tmp_path / f"synced-{name}"
        offsets = [(1100, 1200), (2400, 3100)]
        with tessalo.open(media(name), timeout=1.5) as m:
            result = m.cut(out, RANGES, offsets=offsets)
        _check_output(media(name), str(out), 1, result, offsets)


@pytest.mark.parametrize("name, kind, ranges, event, words", [
    ("noaudio.mp4", 0, RANGES, None, "no audio track, and cut kind 0 cuts only files with video and audio"),
    ("main.mp4", 7, RANGES, None, "cut kind 7 is not one the library knows"),
    ("main.mp4", 0, [(1000, 2000), (9000, 9500)], tessalo.Event.CUT_FAILED,
     "range 2 (9000-9500 ms) starts after the last picture, at 4960 ms"),
])
def test_a_refused_or_failed_cut_names_its_cause_and_leaves_no_file(tmp_path, name, kind, ranges, event, words):
    with tessalo.open(media(name)) as m, pytest.raises(tessalo.CutError) as caught:
        m.cut(tmp_path / "out.mp4", ranges, kind=kind)
    assert caught.value.event == event and words in caught.value.cause
    assert os.listdir(tmp_path) == []


def test_a_cut_that_outlasts_its_wait_times_out_leaves_nothing_and_the_media_stays_usable(tmp_path):
    # Ten seconds of pictures encoded again take far longer than the wait allows.
    with tessalo.open(media("longgop.mp4")) as m:
        started = time.monotonic()
        with pytest.raises(tessalo.Timeout, match="cutting into"):
            m.cut(tmp_path / "slow.mp4", [(10, 4990), (5010, 9990)], kind=2, timeout=0.01)
        assert time.monotonic() - started < 3
        assert os.listdir(tmp_path) == []
        m.cut(tmp_path / "after.mp4", [(1000, 2000)], kind=1)
        assert os.listdir(tmp_path) == ["after.mp4"]


_INTERRUPTED_CHILD = """
import os, signal, sys, tessalo
# Ctrl-C as a terminal's script gets it, even where the runner started it with SIGINT ignored.
signal.signal(signal.SIGINT, signal.default_int_handler)
source, big, out = sys.argv[1:4]
media, long_one = tessalo.open(source), tessalo.open(big)
print("ready", flush=True)
try:
    # About 120 MB of output, half a second of work: still being written when the signal comes.
    long_one.cut(out, [(0, 1999)] * 6, kind=0)
    print("finished", flush=True)
except KeyboardInterrupt:
    left = sorted(os.listdir(os.path.dirname(out)))
    again = media.cut(out + ".again.mp4", [(0, 999)], kind=0)
    print("interrupted", left, len(tessalo.open(source).keys()), os.path.getsize(again.path) > 0, flush=True)
"""


def test_ctrl_c_during_a_cut_cancels_it_and_leaves_no_file(tmp_path):
    out = tmp_path / "out.mp4"
    child = subprocess.Popen([sys.executable, "-c", _INTERRUPTED_CHILD, media("main.mp4"), media("large.mp4"),
                              str(out)],
                             stdout=subprocess.PIPE, text=True, env=dict(os.environ, PYTHONPATH=str(Path(
                                 tessalo.__file__).parents[1])))
    try:
        assert child.stdout.readline() == "ready\n"
        deadline = time.monotonic() + 10
        while not any(".partial-" in name for name in os.listdir(tmp_path)) and time.monotonic() < deadline:
            time.sleep(0.002)
        child.send_signal(signal.SIGINT)
        report, _ = child.communicate(timeout=20)
    finally:
        child.kill()
    assert child.returncode == 0
    assert report.strip() == "interrupted [] 5 True"
    assert sorted(os.listdir(tmp_path)) == ["out.mp4.again.mp4"]
