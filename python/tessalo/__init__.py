"""Tessalo for Python: index MP4 files (H.264 video, AAC audio), take their
pictures by timestamp as NumPy arrays, and cut time ranges into a new file
without re-encoding, over the Tessalo library (libtessalo.so).

>>> import tessalo
>>> with tessalo.open("movie.mp4") as media:
...     media.info.width, media.keys()[:3]
...     first = media.picture(media.keys()[0])          # (height, width, 3) RGB
...     media.cut("clip.mp4", [(1000, 2500), (4000, 6000)])

The library is found through ``TESSALO_LIBRARY``, next to this package, or by
the system's loader (see :func:`find_library`).
"""
from __future__ import annotations

import os
from typing import Union

from ._library import Event, find_library
from .errors import (CutError, LibraryNotFound, MissingPictures, PictureError, Refused, TessaloError,
                     Timeout)
from .media import DEFAULT_TIMEOUT, CutResult, Media, MediaInfo

__all__ = ["open", "Media", "MediaInfo", "CutResult", "Event", "find_library", "DEFAULT_TIMEOUT",
           "TessaloError", "LibraryNotFound", "Refused", "Timeout", "PictureError", "MissingPictures",
           "CutError", "__version__"]

__version__ = "0.1.0"


def open(path: Union[str, "os.PathLike[str]"], *, timeout: float = DEFAULT_TIMEOUT) -> Media:
    """Indexes the media file at ``path`` and returns it as a :class:`Media`.

    Raises :class:`Refused` with the cause for a file that the library will
    not take (unreadable, no H.264 video, audio other than AAC at 44100 or
    48000 Hz with 1 to 3 channels), :class:`Timeout` when the walk has not
    ended after ``timeout`` seconds plus the time a slow disk takes to read
    the file, and :class:`LibraryNotFound`
    when there is no library to load.
    """
    return Media(path, timeout=timeout)
