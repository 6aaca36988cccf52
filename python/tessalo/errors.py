"""The exceptions of the package. Each names the file, the library's event
where there is one, and the cause in words."""
from __future__ import annotations

from typing import Any, Callable, Dict, Optional, Sequence, Tuple, Type

__all__ = ["TessaloError", "LibraryNotFound", "Refused", "Timeout", "PictureError", "MissingPictures", "CutError"]


class TessaloError(Exception):
    """Base of every error of the package.

    ``path`` is the file concerned (or None), ``event`` the library's event
    code that reported the problem (or None when no event did), and
    ``cause`` the reason in words, without the file name.
    """

    def __init__(self, cause: str, path: Optional[str] = None, event: Optional[int] = None) -> None:
        self.cause = cause
        self.path = path
        self.event = event
        super().__init__(self._sentence())

    def _sentence(self) -> str:
        # Imported here: the event table lives with the library's types, which import this module.
        from ._library import Event

        text = f"{self.path}: {self.cause}" if self.path else self.cause
        return f"{text} [{Event.describe(self.event)}]" if self.event is not None else text

    def __reduce__(self) -> Tuple[Callable[..., "TessaloError"], Tuple[Any, ...]]:
        # Keeps the fields through pickling, as multiprocessing pools do to errors.
        return (_rebuild, (type(self), self.__dict__.copy()))


def _rebuild(cls: Type[TessaloError], fields: Dict[str, Any]) -> TessaloError:
    error = cls.__new__(cls)
    error.__dict__.update(fields)
    Exception.__init__(error, error._sentence())
    return error


class LibraryNotFound(TessaloError, ImportError):
    """libtessalo.so could not be found or loaded."""


class Refused(TessaloError):
    """The library would not index the file: it could not be opened, or its
    streams are not the H.264 video and AAC audio (44100 or 48000 Hz, 1 to 3
    channels) that the library serves."""


class Timeout(TessaloError, TimeoutError):
    """The library sent no event for longer than the wait allowed.

    ``seconds`` is the time that was allowed.
    """

    def __init__(self, cause: str, path: Optional[str] = None, event: Optional[int] = None,
                 seconds: float = 0.0) -> None:
        self.seconds = seconds
        super().__init__(cause, path, event)


class PictureError(TessaloError):
    """A picture request failed, or the library delivered something that is
    not a picture of the asked form."""


class MissingPictures(PictureError):
    """A picture request ended without some of the asked pictures.

    ``missing`` lists their timestamps (ms) in the asked order; the pictures
    that did come have been delivered before this is raised.
    """

    def __init__(self, cause: str, path: Optional[str], missing: Sequence[int], event: Optional[int] = None) -> None:
        self.missing = list(missing)
        super().__init__(cause, path, event)


class CutError(TessaloError):
    """A cut was refused before it started (``event`` is None) or failed in
    the library (``event`` is 14, cut failed). No output file is left."""
