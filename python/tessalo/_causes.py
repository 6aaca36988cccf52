"""The reason in words for a refused file: the event says which rule the file
broke, the file's own sample descriptions say with what."""
from __future__ import annotations

import os
from typing import List, Optional

from . import _mp4
from ._library import Event


def _unreadable(path: str) -> str:
    if not os.path.lexists(path):
        return "no such file"
    if not os.path.exists(path):
        return "a link to a file that does not exist"
    if os.path.isdir(path):
        return "it is a folder, not a file"
    if not os.access(path, os.R_OK):
        return "permission denied"
    if os.path.getsize(path) == 0:
        return "the file is empty"
    return "FFmpeg cannot open it as media: not a container it knows, or damaged"


def _names(tracks: List[_mp4.Track], kind: str) -> str:
    return ", ".join(t.codec for t in tracks if t.kind == kind)


def _bad_codec(tracks: Optional[List[_mp4.Track]]) -> str:
    for t in tracks or []:
        if t.kind == "video" and not t.codec.startswith("H.264"):
            return f"video codec {t.codec} is not supported: H.264 only"
        if t.kind == "audio" and not t.codec.startswith("AAC"):
            return f"audio codec {t.codec} is not supported: AAC only"
        if t.kind == "cover":
            return f"the file carries a {t.codec}, which the library counts as a video stream that is not H.264"
    return "a stream is neither H.264 video nor AAC audio"


def _audio_rule(tracks: Optional[List[_mp4.Track]], event: int) -> str:
    audio = [t for t in tracks or [] if t.kind == "audio"]
    if event == Event.BAD_SAMPLE_RATE:
        for t in audio:
            if t.sample_rate not in (44100, 48000):
                return f"audio sample rate {t.sample_rate} Hz is not supported: 44100 or 48000 Hz only"
        return "the audio sample rate is not supported: 44100 or 48000 Hz only"
    for t in audio:
        if t.channels is not None and not 1 <= t.channels <= 3:
            return f"{t.channels} audio channels are not supported: 1 to 3 only"
    return "the audio channel count is not supported: 1 to 3 only"


def refusal(event: int, path: str) -> str:
    """Why the library refused ``path`` with ``event``, in one clause."""
    if event == Event.FILE_ERROR:
        return "cannot open: " + _unreadable(path)
    tracks = _mp4.tracks(path)
    if event == Event.NO_VIDEO:
        others = _names(tracks or [], "audio")
        return "no H.264 video stream" + (f"; it holds only {others}" if others and not _names(tracks or [], "video") else "")
    if event == Event.BAD_CODEC:
        return _bad_codec(tracks)
    if event in (Event.BAD_SAMPLE_RATE, Event.BAD_CHANNELS):
        return _audio_rule(tracks, event)
    if event == Event.ERROR:
        return "the library could not set the file up for reading, or gave up after repeated read failures"
    if event == Event.UNASSIGNED:
        return "the library reported an unexplained reading error"
    return "the library refused the file"
