"""One media file, indexed by the library: its information, its key and
group timestamps, its pictures as NumPy arrays, and cuts of it."""
from __future__ import annotations

import bisect
import contextlib
import ctypes
import mmap
import os
import signal
import threading
import uuid
import weakref
from dataclasses import dataclass
from typing import Dict, FrozenSet, Generator, Iterable, Iterator, List, Optional, Sequence, Set, Tuple, Union

import numpy as np

from . import _causes, _images, _library, _plan
from ._channel import Channel, Picture, RequestEnd, in_callback
from ._images import Image
from ._library import EditOffset, EditRange, Event, MediaInfoRecord
from .errors import CutError, MissingPictures, PictureError, Refused, TessaloError, Timeout

__all__ = ["Media", "MediaInfo", "CutResult", "DEFAULT_TIMEOUT"]

PathLike = Union[str, "os.PathLike[str]"]

#: Seconds that a wait allows between two events of the library before it
#: gives up with tessalo.Timeout. An index walk and a cut send one event, at
#: their end, so they also get the time a slow disk takes to read the source.
DEFAULT_TIMEOUT = 30.0
#: Bytes a second that a slow disk (a USB stick, a network share) still reads.
_SLOW_DISK = 20 * 2**20

_WALK_ENDS = (Event.INDEX_READY, Event.FILE_ERROR, Event.ERROR, Event.BAD_CODEC, Event.BAD_SAMPLE_RATE,
              Event.BAD_CHANNELS, Event.NO_VIDEO, Event.UNASSIGNED)
_CUT_ENDS = (Event.CUT_DONE, Event.CUT_FAILED)
_KNOWN_KINDS = (0, 1, 2)
_OUTPUT_SUFFIXES = (".mp4", ".mov", ".m4v", ".3gp")
# A timestamp that no group has.
_NO_PICTURE = -(1 << 62)
_INT64 = (-(1 << 63), (1 << 63) - 1)


@dataclass(frozen=True)
class MediaInfo:
    """The media information of an indexed file.

    ``frame_rate`` is truncated (29.97 fps gives 29); ``sample_rate`` and
    ``audio_codec`` are None, ``channels`` and ``audio_bit_rate`` 0 in a file
    without audio; ``rotation`` is the display rotation in degrees clockwise
    (0, 90, 180 or 270); ``width`` and ``height`` are the stored picture's.
    """

    width: int
    height: int
    frame_rate: int
    video_bit_rate: int
    sample_rate: Optional[int]
    channels: int
    audio_bit_rate: int
    duration_ms: float
    rotation: int
    video_codec: str
    audio_codec: Optional[str]

    @property
    def has_audio(self) -> bool:
        """Whether the file has an audio track that the library reads."""
        return self.sample_rate is not None

    @property
    def display_size(self) -> Tuple[int, int]:
        """(width, height) of the picture shown upright."""
        turned = _images.quarter_turns(self.rotation) % 2
        return (self.height, self.width) if turned else (self.width, self.height)

    @classmethod
    def from_record(cls, record: MediaInfoRecord) -> "MediaInfo":
        """The fields of the library's 48-byte record."""
        audio = record.sampleRate > 0
        return cls(
            width=record.width, height=record.height, frame_rate=record.frameRate,
            video_bit_rate=record.videoBitRate, sample_rate=record.sampleRate if audio else None,
            channels=record.channels & 0xFFFF, audio_bit_rate=record.audioBitRate,
            duration_ms=record.durationMs, rotation=record.rotation,
            video_codec="h264" if record.videoCodec == 0 else f"unknown ({record.videoCodec})",
            audio_codec=("aac" if record.audioCodec == 1 else f"unknown ({record.audioCodec})") if audio else None,
        )


@dataclass(frozen=True)
class CutResult:
    """A finished cut.

    ``offsets`` holds the offsets as the library rewrote them, in the order
    given: a pair that one kept range held is moved to the output's timeline,
    any other pair stays as given. It is None when the library sent no report.
    """

    path: str
    kind: int
    ranges: List[Tuple[int, int]]
    offsets: Optional[List[Tuple[int, int]]]


def _pairs(values: Iterable[Sequence[int]], what: str, ordered: bool) -> List[Tuple[int, int]]:
    pairs = []
    for value in values:
        try:
            a, b = (int(v) for v in value)
        except (TypeError, ValueError):
            raise ValueError(f"each {what} is a pair of millisecond timestamps, not {value!r}") from None
        if not all(_INT64[0] <= v <= _INT64[1] for v in (a, b)):
            raise ValueError(f"{what} {value!r} lies outside signed 64-bit milliseconds")
        if ordered and b < a:
            raise ValueError(f"{what} ({a}, {b}) ends before it starts")
        pairs.append((a, b))
    return pairs


@contextlib.contextmanager
def _interrupts_held() -> Iterator[None]:
    """Holds back Ctrl-C while a cleanup runs on the main thread, and raises it after."""
    try:
        held: List[int] = []
        previous = signal.signal(signal.SIGINT, lambda number, frame: held.append(number))
    except ValueError:  # not the main thread: signals do not come here
        yield
        return
    try:
        yield
    finally:
        signal.signal(signal.SIGINT, previous if previous is not None else signal.SIG_DFL)
        if held and callable(previous):
            previous(signal.SIGINT, None)


def _release(lib: ctypes.CDLL, channel: Channel) -> None:
    """Ends the instance: every thread of it has ended when this returns."""
    channel.close()
    handle, channel.handle = channel.handle, None
    if not handle or os.getpid() != channel.pid:
        return  # a forked child holds a copy of the instance without its threads
    if getattr(in_callback, "active", False):
        # A garbage collection inside a callback dropped the last reference:
        # destroying here would wait for this very thread.
        threading.Thread(target=lib.TSL_DestoryTessalo, args=(handle,), name="tessalo-release").start()
        return
    lib.TSL_DestoryTessalo(handle)


class Media:
    """A media file indexed by the library; made by :func:`tessalo.open`.

    Use it as a context manager or call :meth:`close`. One thread at a time
    should use a Media; separate Media objects work side by side, and each
    process opens its own (a Media does not cross ``fork``). Timestamps are
    integer milliseconds from the file's first video packet, as :meth:`keys`
    and :meth:`group` report them. Every wait gives up with
    :class:`tessalo.Timeout` after ``timeout`` seconds without an event; an
    index walk and a cut, which report only their end, get ``timeout`` plus the
    time a slow disk takes to read the whole source.

    Attributes: ``path`` (the file), ``info`` (:class:`MediaInfo`),
    ``timeout`` (seconds, the default of every wait).
    """

    path: str
    info: "MediaInfo"
    timeout: float

    def __init__(self, path: PathLike, *, timeout: float = DEFAULT_TIMEOUT) -> None:
        """Indexes ``path``; raises :class:`tessalo.Refused` with the cause for
        a file the library will not take."""
        self.path = os.fspath(path)
        self.timeout = float(timeout)
        self._lib = _library.load()
        self._calls = threading.RLock()
        self._channel = Channel(self._lib)
        self._format: Optional[int] = None
        self._members: Dict[int, Tuple[int, ...]] = {}
        self._owners: Optional[Dict[int, int]] = None
        handle = self._lib.TSL_CreateTessalo(None, self._channel.callback)
        if not handle:
            raise TessaloError("the library could not make an instance (out of memory?)", self.path)
        self._channel.handle = handle
        self._finalizer = weakref.finalize(self, _release, self._lib, self._channel)
        try:
            self._index()
        except BaseException:
            with _interrupts_held():
                self.close()
            raise

    def _index(self) -> None:
        mark = self._channel.mark()
        if not self._lib.TSL_StartPic(self._channel.handle, os.fsencode(self.path)):
            raise TessaloError("the library could not start reading (no thread or memory)", self.path)
        end = self._channel.wait_for_event(mark, _WALK_ENDS, self._whole_file(self.timeout), "indexing",
                                           self.path)
        if end != Event.INDEX_READY:
            raise Refused(_causes.refusal(end, self.path), self.path, end)
        record = MediaInfoRecord()
        self._lib.TSL_GetMediaInfo(self._channel.handle, ctypes.byref(record))
        self.info = MediaInfo.from_record(record)
        count = max(0, self._lib.TSL_GetKeyPtsCount(self._channel.handle))
        keys = np.zeros(count, np.int64)
        written = self._lib.TSL_GetKeyPts(self._channel.handle, keys.ctypes.data) if count else 0
        self._keys: List[int] = keys[: max(0, min(written, count))].tolist()
        self._slots: Dict[int, int] = {}
        for slot, key in enumerate(self._keys):
            self._slots.setdefault(key, slot)
        if not self._keys:
            raise Refused("the file holds no key picture: there is nothing to index", self.path, end)

    # ---- life ---------------------------------------------------------------------

    def close(self) -> None:
        """Ends the library's work on this file and frees the instance. A
        running cut is stopped and its output removed. Safe to call twice."""
        with self._calls:
            self._finalizer()

    @property
    def closed(self) -> bool:
        """Whether :meth:`close` has run."""
        return not self._finalizer.alive

    def __enter__(self) -> "Media":
        return self

    def __exit__(self, *exc: object) -> None:
        self.close()

    def __repr__(self) -> str:
        state = "closed" if self.closed else f"{len(self._keys)} groups"
        return f"<tessalo.Media {self.path!r}, {state}>"

    def _live_handle(self) -> int:
        if self.closed or not self._channel.handle:
            raise TessaloError("the media is closed", self.path)
        if os.getpid() != self._channel.pid:
            raise TessaloError("a Media works only in the process that opened it; open the file in each process",
                               self.path)
        return self._channel.handle

    # ---- the index ----------------------------------------------------------------

    def keys(self) -> List[int]:
        """The key timestamps, one per group, in the file's order (ms)."""
        return list(self._keys)

    def group(self, key: int) -> List[int]:
        """Every timestamp of the group that ``key`` opens, in presentation order (ms).

        Where two groups open at the same timestamp (two video streams), both
        are listed, the first one's first. Raises ValueError, naming the
        nearest keys, for a timestamp that opens no group.
        """
        key = int(key)
        with self._calls:
            if key not in self._members:
                self._members[key] = self._read_group(key)
        return list(self._members[key])

    def _read_group(self, key: int) -> Tuple[int, ...]:
        handle = self._live_handle()
        count = self._lib.TSL_GetPtsCountByKeyPts(handle, key)
        if count <= 0:
            at = bisect.bisect_left(self._keys, key)
            near = sorted(set(self._keys[max(0, at - 1):at + 1]))
            raise ValueError(f"no group of {self.path} starts at {key} ms; the nearest key timestamps are "
                             + " and ".join(f"{k} ms" for k in near))
        if self._keys.count(key) == 1:
            out = np.zeros(count, np.int64)
            written = self._lib.TSL_GetPtsByKeyPts(handle, key, out.ctypes.data)
            return tuple(out[: max(0, min(written, count))].tolist())
        return self._read_shared_group(handle, key)

    def _read_shared_group(self, handle: int, key: int) -> Tuple[int, ...]:
        # Several groups open at this timestamp. The library counts only the
        # first but lists them all, and no export gives the others' sizes; its
        # one bound is the 32-bit result. So the block is a reservation of that
        # many values that the system backs only where the library writes.
        room = (1 << 31) * 8
        no_reserve = 0x4000 if hasattr(os, "uname") and os.uname().sysname == "Linux" else 0
        try:
            block = mmap.mmap(-1, room, flags=mmap.MAP_PRIVATE | mmap.MAP_ANONYMOUS | no_reserve)
        except (OSError, ValueError) as e:
            raise TessaloError(f"no room for the timestamps of the groups at {key} ms: {e}", self.path) from None
        try:
            view = (ctypes.c_int64 * 1).from_buffer(block)
            written = self._lib.TSL_GetPtsByKeyPts(handle, key, ctypes.addressof(view))
            del view
            return tuple(np.frombuffer(block, np.int64, count=max(0, written)).tolist())
        finally:
            block.close()

    def _group_of(self, pts: int) -> Tuple[int, Tuple[int, ...]]:
        if pts in self._slots:
            return self._slots[pts], tuple(self.group(pts))
        if self._owners is None:
            owners: Dict[int, int] = {}
            for key in self._slots:
                for member in self.group(key):
                    owners.setdefault(member, key)
            self._owners = owners
        owner = self._owners.get(pts)
        if owner is None:
            raise ValueError(f"no picture of {self.path} has the timestamp {pts} ms (see keys() and group())")
        if self._keys.count(owner) > 1:
            raise ValueError(f"{pts} ms lies in one of several groups that open at {owner} ms; "
                             "pictures inside such groups cannot be told apart")
        return self._slots[owner], tuple(self.group(owner))

    # ---- pictures -----------------------------------------------------------------

    def picture(self, pts: int, format: str = "rgb", rotate: bool = True,
                timeout: Optional[float] = None) -> Image:
        """The picture at ``pts``.

        ``format="rgb"`` (or ``"bgr"``) gives a uint8 array (height, width, 3),
        top row first, turned upright by the display rotation unless
        ``rotate=False``. ``format="i420"`` gives the 1-D uint8 block of the
        picture as stored: the Y plane, then U and V at half size each way.
        Raises ValueError for a timestamp the index does not hold, and
        :class:`tessalo.PictureError` when the library cannot deliver it.
        """
        for _, image in self.pictures([pts], format=format, rotate=rotate, timeout=timeout):
            return image
        raise AssertionError("unreachable: pictures() raises for a missing picture")

    def pictures(self, pts: Iterable[int], format: str = "rgb", rotate: bool = True,
                 timeout: Optional[float] = None) -> Iterator[Tuple[int, Image]]:
        """A generator of ``(pts, picture)`` for every asked timestamp, in the
        order the library delivers them, pictures as in :meth:`picture`.

        Any timestamps of the index work; consecutive keys (``keys()``) and
        whole groups (``group(key)``) are the fastest lists. After the last
        picture it raises :class:`tessalo.MissingPictures` naming those that
        did not come. Stopping early gives up the rest of the work; another
        request on the same Media gives up an unfinished generator.
        """
        form = _images.check_form(format)
        asked = [int(p) for p in pts]
        with self._calls:
            self._live_handle()
            requests = _plan.plan(asked, self._slots, self._group_of)
        turns = _images.quarter_turns(self.info.rotation) if rotate else 0
        wait = self.timeout if timeout is None else float(timeout)
        return self._deliver(requests, form, turns, wait)

    def _deliver(self, requests: List[_plan.Request], form: str, turns: int,
                 timeout: float) -> Iterator[Tuple[int, Image]]:
        missing: List[int] = []
        decode_errors = 0
        for request in requests:
            outcome = yield from self._serve(request, form, turns, timeout)
            missing += outcome[0]
            decode_errors += outcome[1]
        if missing:
            why = f"; {decode_errors} samples failed to decode" if decode_errors else ""
            shown = ", ".join(str(p) for p in missing[:10]) + (" ..." if len(missing) > 10 else "")
            raise MissingPictures(f"the library delivered no picture for {len(missing)} asked timestamp"
                                  f"{'s' if len(missing) != 1 else ''} ({shown} ms){why}", self.path, missing)

    def _serve(self, request: _plan.Request, form: str, turns: int,
               timeout: float) -> Generator[Tuple[int, Image], None, Tuple[List[int], int]]:
        number = self._start(request, form, timeout)
        wanted, delivered = set(request.wanted), set()  # type: Set[int], Set[int]
        try:
            while True:
                item = self._channel.next_picture(number, timeout, "delivering pictures", self.path)
                if isinstance(item, RequestEnd):
                    break
                if item.pts in wanted and item.pts not in delivered:
                    delivered.add(item.pts)
                    yield item.pts, self._convert(item, form, turns)
        finally:
            self._channel.release(number)
        if item.event != Event.PIC_DONE:
            raise PictureError(self._request_failure(item.event, request), self.path, item.event)
        return [p for p in request.wanted if p not in delivered], item.decode_errors

    def _start(self, request: _plan.Request, form: str, timeout: float) -> int:
        with self._calls:
            handle = self._live_handle()
            code = _images.FORMATS[form]
            if code != self._format:
                # The format takes effect only while no worker runs.
                if not self._channel.settled():
                    self._settle(handle, timeout)
                self._lib.TSL_SetOutputPicFormat(handle, code)
                self._format = code
            return self._request(handle, request.asked, None if request.exact else frozenset(request.wanted))

    def _request(self, handle: int, asked: Sequence[int], keep: Optional[FrozenSet[int]]) -> int:
        number = self._channel.begin(keep)
        values = (ctypes.c_int64 * len(asked))(*asked)
        accepted = bool(self._lib.TSL_GetPicByPts(handle, values, len(asked)))
        self._channel.started(accepted)
        if not accepted:
            raise PictureError("the library could not start a picture request (no thread)", self.path)
        return number

    def _settle(self, handle: int, timeout: float) -> None:
        """Stops a request that may still run, and leaves the library's worker
        stopped: two timestamps that no group has make a short run over the
        last group, which ends with "picture done"."""
        number = self._request(handle, (_NO_PICTURE, _NO_PICTURE), frozenset())
        try:
            end = self._channel.next_picture(number, timeout, "stopping a picture request", self.path)
        finally:
            self._channel.release(number)
        if isinstance(end, RequestEnd) and end.event != Event.PIC_DONE:
            raise PictureError("the library could not read the file for pictures any more", self.path, end.event)

    def _request_failure(self, event: int, request: _plan.Request) -> str:
        if event == Event.FILE_ERROR:
            return "the library could not open or read the file for pictures: " + _causes.refusal(event, self.path)
        return (f"the picture request from {request.asked[0]} ms could not start: the decoder could not be set up, "
                "or no group opens with that key sample")

    def _convert(self, picture: Picture, form: str, turns: int) -> Image:
        width, height = self.info.width, self.info.height
        size = _images.expected_size(form, width, height)
        if picture.data.size != size:
            raise PictureError(f"the picture at {picture.pts} ms has {picture.data.size} bytes, not the {size} of a "
                               f"{width}x{height} picture in {form}", self.path)
        return _images.to_array(picture.data, form, width, height, turns)

    # ---- cuts ---------------------------------------------------------------------

    def cut(self, output: PathLike, ranges: Iterable[Sequence[int]], kind: int = 1,
            offsets: Iterable[Sequence[int]] = (), timeout: Optional[float] = None) -> CutResult:
        """Cuts the ``ranges`` ((start, end) ms, end inclusive) into one new
        file at ``output``; .mp4 or .mov by its name.

        ``kind`` 1 keeps audio and video in sync across joins and opens each
        range on the key at or before its start; kind 0 is the original
        timeline, which opens a range one group earlier and needs audio;
        kind 2 is frame-exact on kind 1's timeline: each range shows exactly
        its pictures, those before its first key frame (and any after its
        last clean point) encoded again, the rest copied.
        ``offsets`` are (first, second) pairs of source times to translate to
        the output's timeline (see :class:`CutResult`).

        The output appears only when the cut is complete: a failure, a
        timeout or Ctrl-C cancels the job and leaves no file at ``output``.
        Raises :class:`tessalo.CutError` with the cause.
        """
        spans, pairs = _pairs(ranges, "range", True), _pairs(offsets, "offset", False)
        if not spans:
            raise ValueError("a cut needs at least one range")
        out = os.fspath(output)
        if os.path.exists(out) and os.path.samefile(out, self.path):
            raise ValueError(f"the output {out} is the source file itself")
        wait = self.timeout if timeout is None else float(timeout)
        with self._calls:
            handle = self._live_handle()
            partial = self._partial_name(out)
            try:
                self._run_cut(handle, out, partial, spans, pairs, int(kind), wait)
                os.replace(partial, out)
            except BaseException:
                with _interrupts_held():
                    self._lib.TSL_CancelFile(handle)
                    with contextlib.suppress(OSError):
                        os.remove(partial)
                raise
        return CutResult(out, int(kind), spans, self._channel.offsets() if pairs else [])

    def _whole_file(self, timeout: float) -> float:
        """A wait for a job that reads up to the whole source before its one event."""
        try:
            return timeout + os.path.getsize(self.path) / _SLOW_DISK
        except OSError:
            return timeout

    @staticmethod
    def _partial_name(out: str) -> str:
        # The library picks the container by the name's ending, so it stays.
        folder, name = os.path.split(out)
        stem, suffix = os.path.splitext(name)
        return os.path.join(folder, f".{stem}.partial-{os.getpid()}-{uuid.uuid4().hex[:8]}{suffix}")

    def _run_cut(self, handle: int, out: str, partial: str, spans: List[Tuple[int, int]],
                 pairs: List[Tuple[int, int]], kind: int, timeout: float) -> None:
        ranges = (EditRange * len(spans))(*(EditRange(a, b) for a, b in spans))
        offsets = (EditOffset * len(pairs))(*(EditOffset(a, b) for a, b in pairs)) if pairs else None
        self._channel.expect_offsets(len(pairs))
        mark = self._channel.mark()
        if not self._lib.TSL_CutFile(handle, os.fsencode(self.path), os.fsencode(partial), ranges, len(spans),
                                     offsets, len(pairs), kind):
            raise CutError(self._refused_cut(kind, out), self.path)
        end = self._channel.wait_for_event(mark, _CUT_ENDS, self._whole_file(timeout),
                                           f"cutting into {out} (kind {kind})", self.path)
        self._lib.TSL_CancelFile(handle)  # joins the job's threads; the output is closed
        if end != Event.CUT_DONE:
            raise CutError(self._failed_cut(spans, out), self.path, end)

    def _refused_cut(self, kind: int, out: str) -> str:
        folder = os.path.dirname(out) or "."
        if kind not in _KNOWN_KINDS:
            return (f"cut kind {kind} is not one the library knows "
                    "(1: the synced cut, 0: the original timeline, 2: the frame-exact cut)")
        if kind == 0 and not self.info.has_audio:
            return "the file has no audio track, and cut kind 0 cuts only files with video and audio"
        if not os.path.isdir(folder):
            return f"cannot write {out}: there is no folder {folder}"
        if not os.access(folder, os.W_OK):
            return f"cannot write {out}: the folder is not writable"
        if not out.lower().endswith(_OUTPUT_SUFFIXES):
            return f"cannot write {out}: the name must end in .mp4 or .mov for the library to choose the container"
        return f"the library refused to cut the file into {out}"

    def _failed_cut(self, spans: List[Tuple[int, int]], out: str) -> str:
        last = max(self.group(self._keys[-1]))
        for n, (start, end) in enumerate(spans, 1):
            if start > last:
                return f"range {n} ({start}-{end} ms) starts after the last picture, at {last} ms"
        try:
            full = os.statvfs(os.path.dirname(out) or ".").f_bavail == 0
        except OSError:
            full = False
        if full:
            return f"could not write {out}: the disk is full"
        return f"the cut into {out} failed in the library: a range could not be read or written"
