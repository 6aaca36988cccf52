"""Turning any list of picture timestamps into requests that the library
answers with the right picture under each label.

The library serves two shapes of request. Key mode, for a list whose first
two entries are the keys of neighbouring groups (or a single key), decodes
only key samples and matches later asked keys by their own timestamps. Run
mode, for any other list, decodes every sample from the key of the group that
holds the first entry and labels the k-th picture out with the k-th asked
timestamp: right only for a list of consecutive pictures that starts at that
key. So a picture inside a group is asked together with the pictures before
it in its group, and those the caller did not ask for are dropped.
"""
from __future__ import annotations

from dataclasses import dataclass
from typing import Callable, Dict, List, Sequence, Tuple


@dataclass(frozen=True)
class Request:
    """One request: ``asked`` goes to the library, ``wanted`` (a part of it,
    in the caller's order) to the caller."""

    asked: Tuple[int, ...]
    wanted: Tuple[int, ...]

    @property
    def exact(self) -> bool:
        """Every picture asked of the library is wanted."""
        return self.asked == self.wanted


def plan(asked: Sequence[int], slots: Dict[int, int],
         group_of: Callable[[int], Tuple[int, Tuple[int, ...]]]) -> List[Request]:
    """Requests for ``asked``, in its order.

    ``slots`` maps a key timestamp to the place of its group; ``group_of``
    gives the place and the sorted timestamps of the group that holds a
    timestamp, or raises ValueError for one the index does not hold.
    """
    requests: List[Request] = []
    i = 0
    while i < len(asked):
        first, slot = asked[i], slots.get(asked[i])
        after = asked[i + 1] if i + 1 < len(asked) else None
        if slot is not None and after is not None and slots.get(after) == slot + 1:
            keys, i = _key_run(asked, i, slots)
            requests.append(Request(keys, keys))
            continue
        place, members = group_of(first)
        wanted = [first]
        i += 1
        while i < len(asked) and asked[i] > wanted[-1] and group_of(asked[i])[0] == place:
            wanted.append(asked[i])
            i += 1
        if slot is not None and len(wanted) == 1:
            requests.append(Request((first,), (first,)))
            continue
        last = members.index(wanted[-1])
        requests.append(Request(members[: last + 1], tuple(wanted)))
    return requests


def _key_run(asked: Sequence[int], i: int, slots: Dict[int, int]) -> Tuple[Tuple[int, ...], int]:
    """The keys from ``asked[i]`` on that rise group by group; where they end."""
    run = [asked[i], asked[i + 1]]
    i += 2
    while i < len(asked) and slots.get(asked[i], -1) > slots[run[-1]]:
        run.append(asked[i])
        i += 1
    return tuple(run), i
