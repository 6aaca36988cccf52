"""What the tracks of an MP4 or MOV file hold, read from its sample
descriptions, so that a refusal can name the codec, rate or channel count
that the library would not take. Only for messages: it reads the boxes that
it needs, never raises, and gives up on anything it does not follow."""
from __future__ import annotations

import struct
from dataclasses import dataclass
from typing import BinaryIO, Iterator, List, Optional, Tuple

_MOOV_LIMIT = 64 << 20  # a moov larger than this is not read
_RATES = (96000, 88200, 64000, 48000, 44100, 32000, 24000, 22050, 16000, 12000, 11025, 8000, 7350)
_VIDEO = {b"avc1": "H.264", b"avc3": "H.264", b"hvc1": "HEVC", b"hev1": "HEVC", b"mp4v": "MPEG-4 Part 2",
          b"vp09": "VP9", b"av01": "AV1", b"png ": "PNG", b"jpeg": "JPEG", b"mjpa": "Motion JPEG",
          b"s263": "H.263", b"apcn": "ProRes", b"apch": "ProRes", b"apcs": "ProRes", b"ap4h": "ProRes"}
_AUDIO = {b".mp3": "MP3", b"ac-3": "AC-3", b"ec-3": "E-AC-3", b"Opus": "Opus", b"fLaC": "FLAC",
          b"alac": "ALAC", b"sowt": "PCM", b"twos": "PCM", b"lpcm": "PCM", b"ipcm": "PCM", b"samr": "AMR"}
# objectTypeIndication of an MPEG-4 decoder configuration
_OBJECT_TYPES = {0x40: "AAC", 0x66: "AAC", 0x67: "AAC", 0x68: "AAC", 0x69: "MP3", 0x6B: "MP3", 0xA5: "AC-3"}


@dataclass(frozen=True)
class Track:
    """One track: ``kind`` is "video", "audio" or the handler type; ``codec``
    a readable name with the sample entry's code; rate and channels for audio."""

    kind: str
    codec: str
    sample_rate: Optional[int] = None
    channels: Optional[int] = None


def _boxes(data: bytes, start: int = 0, end: Optional[int] = None) -> Iterator[Tuple[bytes, int, int]]:
    """(type, payload start, payload end) of each box in data[start:end]."""
    end = len(data) if end is None else end
    while start + 8 <= end:
        size, kind = struct.unpack_from(">I4s", data, start)
        header = 8
        if size == 1 and start + 16 <= end:
            size = struct.unpack_from(">Q", data, start + 8)[0]
            header = 16
        elif size == 0:
            size = end - start
        if size < header or start + size > end:
            return
        yield kind, start + header, start + size
        start += size


def _child(data: bytes, start: int, end: int, *path: bytes) -> Optional[Tuple[int, int]]:
    for name in path:
        found = next(((s, e) for kind, s, e in _boxes(data, start, end) if kind == name), None)
        if found is None:
            return None
        start, end = found
    return start, end


def _read_moov(f: BinaryIO) -> Optional[bytes]:
    position = 0
    while True:
        f.seek(position)
        header = f.read(16)
        if len(header) < 8:
            return None
        size, kind = struct.unpack_from(">I4s", header)
        head = 8
        if size == 1 and len(header) == 16:
            size, head = struct.unpack_from(">Q", header, 8)[0], 16
        if kind == b"moov":
            if size == 0 or size > _MOOV_LIMIT:
                return None
            f.seek(position + head)
            return f.read(size - head)
        if size < head:
            return None
        position += size


def _descriptor(data: bytes, at: int) -> Tuple[int, int, int]:
    """(tag, payload start, payload end) of the MPEG-4 descriptor at ``at``."""
    tag, length, at = data[at], 0, at + 1
    for _ in range(4):
        byte = data[at]
        at += 1
        length = (length << 7) | (byte & 0x7F)
        if not byte & 0x80:
            break
    return tag, at, at + length


def _esds(data: bytes, start: int, end: int) -> Tuple[Optional[str], Optional[int], Optional[int]]:
    """Codec name, sample rate and channels from an esds box's payload."""
    tag, at, stop = _descriptor(data, start + 4)  # after version and flags
    if tag != 3:
        return None, None, None
    flags = data[at + 2]
    at += 3 + (2 if flags & 0x80 else 0)
    if flags & 0x40:
        at += 1 + data[at]
    at += 2 if flags & 0x20 else 0
    tag, at, stop = _descriptor(data, at)
    if tag != 4:
        return None, None, None
    codec = _OBJECT_TYPES.get(data[at], f"MPEG-4 object type 0x{data[at]:02X}")
    tag, at, stop = _descriptor(data, at + 13)
    if tag != 5 or codec != "AAC" or stop - at < 2:
        return codec, None, None
    bits, used = int.from_bytes(data[at:min(stop, at + 6)].ljust(6, b"\0"), "big"), 0

    def take(count: int) -> int:
        nonlocal used
        used += count
        return (bits >> (48 - used)) & ((1 << count) - 1)

    if take(5) == 31:  # an escaped object type
        take(6)
    index = take(4)
    rate = take(24) if index == 15 else (_RATES[index] if index < len(_RATES) else None)
    channels = take(4)
    return codec, rate, channels or None


def _audio(data: bytes, kind: bytes, start: int, end: int) -> Track:
    version = struct.unpack_from(">H", data, start + 8)[0]
    channels = struct.unpack_from(">H", data, start + 16)[0]
    rate = struct.unpack_from(">I", data, start + 24)[0] >> 16
    children = start + 28 + {1: 16, 2: 36}.get(version, 0)
    codec = _AUDIO.get(kind, kind.decode("latin-1").strip())
    if kind == b"mp4a":
        esds = _child(data, children, end, b"esds") or _child(data, children, end, b"wave", b"esds")
        if esds:
            named, coded_rate, coded_channels = _esds(data, *esds)
            codec, rate, channels = named or "MPEG-4 audio", coded_rate or rate, coded_channels or channels
    return Track("audio", f"{codec} ({kind.decode('latin-1')})", rate, channels)


def _track(data: bytes, start: int, end: int) -> Optional[Track]:
    mdia = _child(data, start, end, b"mdia")
    hdlr = mdia and _child(data, *mdia, b"hdlr")
    stsd = mdia and _child(data, *mdia, b"minf", b"stbl", b"stsd")
    if not hdlr or not stsd:
        return None
    handler = data[hdlr[0] + 8:hdlr[0] + 12]
    entry = next(_boxes(data, stsd[0] + 8, stsd[1]), None)
    if entry is None:
        return None
    kind, entry_start, entry_end = entry
    if handler == b"soun":
        return _audio(data, kind, entry_start, entry_end)
    name = _VIDEO.get(kind, kind.decode("latin-1").strip())
    return Track("video" if handler == b"vide" else handler.decode("latin-1"), f"{name} ({kind.decode('latin-1')})")


def _cover(moov: bytes) -> Optional[Track]:
    """The cover picture of the file's metadata, which FFmpeg shows as a video stream."""
    meta = _child(moov, 0, len(moov), b"udta", b"meta")
    covr = meta and _child(moov, meta[0] + 4, meta[1], b"ilst", b"covr")
    data = covr and _child(moov, *covr, b"data")
    if not data:
        return None
    kind = {13: "JPEG", 14: "PNG", 27: "BMP"}.get(struct.unpack_from(">I", moov, data[0])[0] & 0xFFFFFF, "picture")
    return Track("cover", f"{kind} (cover picture)")


def tracks(path: str) -> Optional[List[Track]]:
    """The tracks of an MP4/MOV file in order, or None when it cannot be read as one."""
    try:
        with open(path, "rb") as f:
            moov = _read_moov(f)
        if moov is None:
            return None
        found = [_track(moov, s, e) for kind, s, e in _boxes(moov) if kind == b"trak"] + [_cover(moov)]
        return [t for t in found if t is not None]
    except (OSError, struct.error, IndexError, ValueError):
        return None
