"""Signs that the library is at work on a file, for waits that measure
silence rather than total time: an index walk or a cut sends no event for as
long as the file takes, but its read position and its output keep moving."""
from __future__ import annotations

import os
from typing import Iterable, List, Set, Tuple

Fingerprint = Tuple[Tuple[int, ...], Tuple[Tuple[int, int], ...]]

_FD_DIR = "/proc/self/fd"


def _identity(path: str) -> Tuple[int, int]:
    st = os.stat(path)
    return st.st_dev, st.st_ino


class FileActivity:
    """A fingerprint of the process's work on some files: the offsets of every
    descriptor open on them and their sizes. It changes while the library
    reads or writes them. Where /proc is missing it never changes, and a wait
    falls back on events alone."""

    def __init__(self, paths: Iterable[str]) -> None:
        self._paths = list(paths)

    def snapshot(self) -> Fingerprint:
        """The current fingerprint; compare two with ``!=``."""
        identities: Set[Tuple[int, int]] = set()
        sizes: List[int] = []
        for path in self._paths:
            try:
                st = os.stat(path)
            except OSError:
                sizes.append(-1)
                continue
            identities.add((st.st_dev, st.st_ino))
            sizes.append(st.st_size)
        return tuple(sizes), tuple(sorted(self._offsets(identities)))

    @staticmethod
    def _offsets(identities: Set[Tuple[int, int]]) -> List[Tuple[int, int]]:
        offsets: List[Tuple[int, int]] = []
        try:
            descriptors = os.listdir(_FD_DIR)
        except OSError:
            return offsets
        for fd in descriptors:
            try:
                if _identity(f"{_FD_DIR}/{fd}") not in identities:
                    continue
                with open(f"/proc/self/fdinfo/{fd}", "rb") as info:
                    first = info.readline()  # b"pos:\t12345\n"
                offsets.append((int(fd), int(first.split()[1])))
            except (OSError, ValueError, IndexError):
                continue  # closed meanwhile
        return offsets
