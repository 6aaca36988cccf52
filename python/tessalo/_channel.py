"""The bridge between the library's threads and the caller's.

The library calls back on its own threads (walk, picture worker, cut and
muxer threads). The callback here does only what must happen inside the
event: it copies a picture out during "picture ready" and the rewritten
offsets during "cut done", into memory that Python owns. Everything else is
noted and handed to the caller's thread, which waits with a bounded silence.
The callback never raises and never calls an export that waits for a thread.
"""
from __future__ import annotations

import ctypes
import os
import threading
import time
from collections import deque
from dataclasses import dataclass
from typing import Callable, Deque, Dict, FrozenSet, List, Optional, Tuple, Union

import numpy as np


from ._images import Image
from ._library import Callback, EditOffset, Event
from .errors import PictureError, TessaloError, Timeout

# Set while this thread runs the callback: the one place where a library call
# that waits for the library's threads would wait for itself.
in_callback = threading.local()

# Pictures copied out but not yet taken by the caller; the library's worker
# waits for room, so that a slow consumer cannot make memory grow.
_PICTURE_ROOM = 4
_REQUEST_ENDS = (Event.PIC_DONE, Event.FILE_ERROR, Event.ERROR)
_POLL = 0.2


@dataclass(frozen=True)
class Picture:
    """A picture as the library delivered it, copied."""

    request: int
    pts: int
    key: bool
    data: Image


@dataclass(frozen=True)
class RequestEnd:
    """How a picture request ended."""

    event: int
    decode_errors: int
    no_picture: bool


class Channel:
    """Events and copies from the library's threads, for one instance.

    Picture requests are numbered in the order they are made. Every request
    that the library accepts ends with exactly one of "picture done", "file
    error" or "error", and requests never overlap, so the callback knows a
    picture's request by counting those ends; a picture of a request that
    nobody waits for any more is not copied.
    """

    def __init__(self, lib: ctypes.CDLL) -> None:
        self._lib = lib
        self.handle: Optional[int] = None
        self.pid = os.getpid()  # the library's threads exist only in this process
        self.callback = Callback(self._on_event)  # kept for the whole life of the instance
        self._cond = threading.Condition(threading.RLock())
        self._events: List[int] = []  # every event but pictures and decode errors
        self._count = 0  # every event, as a sign of life
        self._fault: Optional[BaseException] = None
        self._fetching = False  # the index is ready; failure events now end picture requests
        self._issued = 0
        self._ended = 0
        self._ends: Dict[int, RequestEnd] = {}
        self._decode_errors = 0
        self._no_picture = False
        self._wanted: Optional[int] = None
        self._keep: Optional[FrozenSet[int]] = None
        self._pictures: Deque[Picture] = deque()
        self._offset_count = 0
        self._offsets: Optional[List[Tuple[int, int]]] = None
        self.closed = False

    # ---- on the library's threads -------------------------------------------------

    def _on_event(self, user: Optional[int], event: int) -> int:
        in_callback.active = True
        try:
            self._receive(event)
        except BaseException as e:  # nothing may unwind into the library's thread
            with self._cond:
                self._fault = self._fault or e
                self._count += 1
                self._cond.notify_all()
        finally:
            in_callback.active = False
        return 0

    def _receive(self, event: int) -> None:
        offsets = self._read_offsets() if event == Event.CUT_DONE else None
        if event == Event.PIC_READY:
            self._take_picture()
        with self._cond:
            self._count += 1
            if event == Event.DECODE_ERROR:
                self._decode_errors += 1
            elif event != Event.PIC_READY:
                self._note(event, offsets)
            self._cond.notify_all()

    def _note(self, event: int, offsets: Optional[List[Tuple[int, int]]]) -> None:
        self._events.append(event)
        if event == Event.CUT_DONE:
            self._offsets = offsets
        elif event == Event.INDEX_READY:
            self._fetching = True
        elif event == Event.NO_PIC:
            self._no_picture = True
        elif self._fetching and event in _REQUEST_ENDS:
            self._ends[self._ended] = RequestEnd(event, self._decode_errors, self._no_picture)
            self._ends.pop(self._ended - 8, None)
            self._ended += 1
            self._decode_errors, self._no_picture = 0, False

    def _take_picture(self) -> None:
        with self._cond:
            request, keep = self._ended, self._keep
            if self._wanted != request:
                return
        lib, handle = self._lib, self.handle
        if keep is not None and lib.TSL_GetPicPts(handle) not in keep:
            return
        size = lib.TSL_GetOnePicSize(handle)
        if size <= 0:
            return
        data = np.empty(size, dtype=np.uint8)
        pts, key = ctypes.c_int64(-1), ctypes.c_uint8(0)
        copied = lib.TSL_GetPic(handle, data.ctypes.data, ctypes.byref(pts), ctypes.byref(key))
        if copied <= 0:
            return
        picture = Picture(request, pts.value, bool(key.value), data[:copied])
        with self._cond:
            while len(self._pictures) >= _PICTURE_ROOM and self._wanted == request:
                self._cond.wait()
            if self._wanted == request:
                self._pictures.append(picture)

    def _read_offsets(self) -> Optional[List[Tuple[int, int]]]:
        count = self._offset_count
        if count <= 0:
            return []
        out = (EditOffset * count)()
        written = ctypes.c_int32(0)
        if not self._lib.TSL_GetEditOffsetPts(self.handle, out, count, ctypes.byref(written)):
            return None
        return [(o.first, o.second) for o in out[: max(0, min(written.value, count))]]

    # ---- on the caller's thread ---------------------------------------------------

    def mark(self) -> int:
        """A position in the event list; events after it are newer."""
        with self._cond:
            return len(self._events)

    def since(self, mark: int) -> List[int]:
        with self._cond:
            return self._events[mark:]

    def wait_for_event(self, mark: int, wanted: Tuple[int, ...], timeout: float, doing: str,
                       path: Optional[str]) -> int:
        """The first of ``wanted`` among the events after ``mark``, once it has come."""
        def first() -> Optional[int]:
            return next((e for e in self._events[mark:] if e in wanted), None)

        self.wait(lambda: first() is not None, timeout, doing, path)
        with self._cond:
            found = first()
        assert found is not None
        return found

    def wait(self, done: Callable[[], bool], timeout: float, doing: str, path: Optional[str]) -> None:
        """Waits until ``done()`` holds, tested with the lock held.

        Raises :class:`Timeout` once the library has sent no event for
        ``timeout`` seconds: its events are the only sign of work it gives.
        """
        poll = max(0.005, min(_POLL, timeout / 4))
        count = -1
        quiet_since = time.monotonic()
        while True:
            with self._cond:
                self._check(path)
                if done():
                    return
                self._cond.wait(poll)
                if done():
                    return
                now_count = self._count
            now = time.monotonic()
            if now_count != count:
                count, quiet_since = now_count, now
            elif now - quiet_since >= timeout:
                raise Timeout(f"the library sent no event for {timeout:g} s while {doing}", path, seconds=timeout)

    def _check(self, path: Optional[str]) -> None:
        if self.closed:
            raise TessaloError("the media is closed", path)
        if self._fault is not None:
            fault, self._fault = self._fault, None
            raise PictureError(f"a picture could not be copied out of the library: {fault!r}", path)

    # ---- picture requests ---------------------------------------------------------

    def settled(self) -> bool:
        """No request runs, and the last one ended after the library's worker
        had stopped, so that a new output format takes effect."""
        with self._cond:
            last = self._ends.get(self._ended - 1)
            return self._ended == self._issued and (last is None or last.event == Event.PIC_DONE)

    def begin(self, keep: Optional[FrozenSet[int]]) -> int:
        """Makes the next request the one whose pictures are copied (those
        in ``keep``, or all); returns its number."""
        with self._cond:
            self._wanted, self._keep = self._issued, keep
            self._pictures.clear()
            self._cond.notify_all()
            return self._issued

    def started(self, accepted: bool) -> None:
        """Notes whether the library took the request of :meth:`begin`."""
        with self._cond:
            if accepted:
                self._issued += 1
            else:
                self._wanted = None

    def release(self, request: int) -> None:
        """Nobody waits for ``request`` any more: a worker waiting for room goes on."""
        with self._cond:
            if self._wanted == request:
                self._wanted = None
                self._pictures.clear()
            self._cond.notify_all()

    def next_picture(self, request: int, timeout: float, doing: str, path: str) -> Union[Picture, RequestEnd]:
        """The next picture of ``request``, or how it ended once all have been taken."""
        def ready() -> bool:
            if self._wanted != request:
                raise PictureError("the picture request was given up for a later request on the same media", path)
            return bool(self._pictures) or request in self._ends

        self.wait(ready, timeout, doing, path)
        with self._cond:
            if self._pictures:
                picture = self._pictures.popleft()
                self._cond.notify_all()
                return picture
            return self._ends[request]

    def end_of(self, request: int) -> Optional[RequestEnd]:
        with self._cond:
            return self._ends.get(request)

    # ---- cuts ---------------------------------------------------------------------

    def expect_offsets(self, count: int) -> None:
        """The next cut reports ``count`` offsets in its "cut done" event."""
        with self._cond:
            self._offset_count, self._offsets = count, None

    def offsets(self) -> Optional[List[Tuple[int, int]]]:
        with self._cond:
            return self._offsets

    def close(self) -> None:
        """No more waiting: a worker waiting for room goes on, waits end."""
        with self._cond:
            self.closed = True
            self._wanted = None
            self._pictures.clear()
            self._cond.notify_all()
