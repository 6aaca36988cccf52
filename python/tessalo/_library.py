"""Finding and loading libtessalo, and the C types of its sixteen exports."""
from __future__ import annotations

import ctypes
import ctypes.util
import enum
import os
import threading
from pathlib import Path
from typing import Optional

from .errors import LibraryNotFound

__all__ = ["Event", "find_library", "load", "Callback", "MediaInfoRecord", "EditRange", "EditOffset"]


class Event(enum.IntEnum):
    """The library's event codes, as its callback reports them."""

    MEDIA_INFO = 0
    INDEX_READY = 1
    PIC_START = 2
    PIC_READY = 3
    PIC_DONE = 4
    FILE_ERROR = 5
    ERROR = 6
    BAD_CODEC = 7
    BAD_SAMPLE_RATE = 8
    BAD_CHANNELS = 9
    NO_PIC = 10
    DECODE_ERROR = 11
    UNASSIGNED = 12
    NO_VIDEO = 13
    CUT_FAILED = 14
    CUT_DONE = 15

    @property
    def c_name(self) -> str:
        """The name of the code in the C header, such as ``kHostEventBadCodec``."""
        return "kHostEvent" + "".join(part.capitalize() for part in self.name.split("_"))

    @classmethod
    def describe(cls, code: int) -> str:
        """``"event 7 (kHostEventBadCodec)"`` for a code, also for one outside the table."""
        try:
            return f"event {code} ({cls(code).c_name})"
        except ValueError:
            return f"event {code} (unknown)"


# The host's callback: (user pointer, event code) -> ignored int.
Callback = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_void_p, ctypes.c_int32)


class MediaInfoRecord(ctypes.Structure):
    """The 48-byte record of ``TSL_GetMediaInfo``; height stands before width."""

    _fields_ = [
        ("height", ctypes.c_int32),
        ("width", ctypes.c_int32),
        ("frameRate", ctypes.c_int32),
        ("videoBitRate", ctypes.c_int32),
        ("sampleRate", ctypes.c_int32),
        ("channels", ctypes.c_int32),
        ("audioBitRate", ctypes.c_int32),
        ("rotation", ctypes.c_int32),
        ("durationMs", ctypes.c_double),
        ("videoCodec", ctypes.c_int32),
        ("audioCodec", ctypes.c_int32),
    ]


class EditRange(ctypes.Structure):
    """One stretch to keep, start and end (inclusive) in ms of the index's timeline."""

    _fields_ = [("start", ctypes.c_int64), ("end", ctypes.c_int64)]


class EditOffset(ctypes.Structure):
    """A pair of source times that a cut translates to the output's timeline."""

    _fields_ = [("first", ctypes.c_int64), ("second", ctypes.c_int64)]


assert ctypes.sizeof(MediaInfoRecord) == 48 and MediaInfoRecord.durationMs.offset == 32
assert ctypes.sizeof(EditRange) == ctypes.sizeof(EditOffset) == 16

_handle = ctypes.c_void_p
_i64p = ctypes.POINTER(ctypes.c_int64)
_PROTOTYPES = {
    "TSL_CreateTessalo": (_handle, [ctypes.c_void_p, Callback]),
    "TSL_DestoryTessalo": (None, [_handle]),
    "TSL_StartPic": (ctypes.c_bool, [_handle, ctypes.c_char_p]),
    "TSL_GetMediaInfo": (None, [_handle, ctypes.POINTER(MediaInfoRecord)]),
    "TSL_GetPicByPts": (ctypes.c_bool, [_handle, _i64p, ctypes.c_int32]),
    "TSL_GetOnePicSize": (ctypes.c_int32, [_handle]),
    "TSL_GetPic": (ctypes.c_int32, [_handle, ctypes.c_void_p, _i64p, ctypes.POINTER(ctypes.c_uint8)]),
    "TSL_GetPicPts": (ctypes.c_int64, [_handle]),
    "TSL_SetOutputPicFormat": (None, [_handle, ctypes.c_int32]),
    "TSL_GetKeyPtsCount": (ctypes.c_int32, [_handle]),
    "TSL_GetKeyPts": (ctypes.c_int32, [_handle, ctypes.c_void_p]),
    "TSL_GetPtsCountByKeyPts": (ctypes.c_int32, [_handle, ctypes.c_int64]),
    "TSL_GetPtsByKeyPts": (ctypes.c_int32, [_handle, ctypes.c_int64, ctypes.c_void_p]),
    "TSL_CutFile": (
        ctypes.c_bool,
        [_handle, ctypes.c_char_p, ctypes.c_char_p, ctypes.POINTER(EditRange), ctypes.c_int32,
         ctypes.POINTER(EditOffset), ctypes.c_int32, ctypes.c_int32],
    ),
    "TSL_CancelFile": (None, [_handle]),
    "TSL_GetEditOffsetPts": (
        ctypes.c_bool, [_handle, ctypes.POINTER(EditOffset), ctypes.c_int32, ctypes.POINTER(ctypes.c_int32)]),
}

_NAMES = ("libtessalo.so", "libtessalo.so.0")


def find_library() -> str:
    """Where the library will be loaded from.

    In this order: the path in the environment variable ``TESSALO_LIBRARY``;
    a ``libtessalo.so`` in the package's own folder; else the name that the
    system's loader resolves (``LD_LIBRARY_PATH``, the loader cache,
    ``/usr/local/lib``), returned as a bare name. Raises
    :class:`~tessalo.LibraryNotFound` when ``TESSALO_LIBRARY`` names no file.
    """
    named = os.environ.get("TESSALO_LIBRARY")
    if named:
        if not os.path.isfile(named):
            raise LibraryNotFound(f"TESSALO_LIBRARY is set to {named}, which is not a file")
        return named
    here = Path(__file__).resolve().parent
    for name in _NAMES:
        if (here / name).is_file():
            return str(here / name)
    return ctypes.util.find_library("tessalo") or _NAMES[1]


_lock = threading.Lock()
_loaded: Optional[ctypes.CDLL] = None


def load() -> ctypes.CDLL:
    """The library, loaded once per process with every export's C types set."""
    global _loaded
    with _lock:
        if _loaded is None:
            _loaded = _open(find_library())
        return _loaded


def _open(path: str) -> ctypes.CDLL:
    try:
        lib = ctypes.CDLL(path)
    except OSError as e:
        raise LibraryNotFound(
            f"cannot load the Tessalo library ({e}); build it, install it, or set TESSALO_LIBRARY to its path"
        ) from None
    for name, (restype, argtypes) in _PROTOTYPES.items():
        try:
            function = getattr(lib, name)
        except AttributeError:
            raise LibraryNotFound(f"{path} is no Tessalo library: it lacks the export {name}") from None
        function.restype = restype
        function.argtypes = argtypes
    return lib
