"""Shared fixtures: the library and media of the build tree, truths from
ffprobe and ffmpeg, and a bare host of the library's exports."""
from __future__ import annotations

import ctypes
import functools
import json
import os
import queue
import subprocess
from pathlib import Path
from typing import Dict, List, Tuple

import numpy as np
import pytest

ROOT = Path(__file__).resolve().parents[2]
os.environ.setdefault("TESSALO_LIBRARY", str(ROOT / "build" / "libtessalo.so"))
MEDIA = Path(os.environ.get("TESSALO_MEDIA", ROOT / "build" / "media"))

import tessalo  # noqa: E402  (after the library's path is known)


def media(name: str) -> str:
    """A fixture file of the build tree's media cache."""
    path = MEDIA / name
    if not path.exists() and name != "missing.mp4":
        pytest.fail(f"{path} is missing: build the test media first (cmake --build build --target test_media)")
    return str(path)


def run(*command: str) -> subprocess.CompletedProcess:
    """A reference tool; it stays out of a sanitizer preloaded for the library."""
    env = {k: v for k, v in os.environ.items() if k != "LD_PRELOAD"}
    return subprocess.run(command, capture_output=True, check=True, env=env)


@functools.lru_cache(maxsize=None)
def ffprobe(path: str) -> dict:
    """Streams and format of a file, as ffprobe reads them."""
    return json.loads(run("ffprobe", "-v", "error", "-show_streams", "-show_format", "-of", "json", path).stdout)


@functools.lru_cache(maxsize=None)
def frames(path: str, pix_fmt: str) -> np.ndarray:
    """Every picture of the first video stream as ffmpeg decodes it, in presentation order."""
    video = next(s for s in ffprobe(path)["streams"] if s["codec_type"] == "video")
    raw = run("ffmpeg", "-v", "error", "-i", path, "-map", "0:v:0", "-fps_mode", "passthrough", "-f", "rawvideo",
              "-pix_fmt", pix_fmt, "-").stdout
    per_frame = {"yuv420p": video["width"] * video["height"] * 3 // 2, "rgb24": video["width"] * video["height"] * 3}
    return np.frombuffer(raw, np.uint8).reshape(-1, per_frame[pix_fmt])


Packet = Tuple[int, bool]  # (pts in ms on the library's timeline, key), in decode order


@functools.lru_cache(maxsize=None)
def packets(path: str) -> Dict[str, List[Packet]]:
    """The video and first audio stream's packets, with timestamps converted
    as the library's reader converts them: milliseconds from each kind's first
    delivered packet, truncated; video before the first key packet dropped."""
    doc = json.loads(run("ffprobe", "-v", "error", "-show_entries",
                         "stream=index,codec_type,time_base:packet=stream_index,pts,dts,flags", "-of", "json",
                         path).stdout)
    kinds = {s["index"]: s for s in doc["streams"]}
    first_audio = min((i for i, s in kinds.items() if s["codec_type"] == "audio"), default=None)
    out: Dict[str, List[Packet]] = {"video": [], "audio": []}
    base: Dict[str, int] = {}
    for p in doc["packets"]:
        stream = kinds[p["stream_index"]]
        kind, key = stream["codec_type"], "K" in p["flags"]
        if (kind == "audio" and p["stream_index"] != first_audio) or kind not in out:
            continue
        if kind == "video" and not out["video"] and not key:
            continue
        num, den = (int(v) for v in stream["time_base"].split("/"))
        ticks = den / num if kind == "video" else float(den // num)
        pts = int(p.get("pts", p["dts"]))
        base.setdefault(kind, pts)
        out[kind].append((int((pts - base[kind]) * 1000.0 / ticks), key))
    return out


def presentation_index(path: str, pts: int) -> int:
    """Where the picture at ``pts`` stands among the file's pictures in presentation order."""
    return sorted(p for p, _ in packets(path)["video"]).index(pts)


class BareHost:
    """The library driven through its exports directly, without the package:
    the reference for what the package reports."""

    def __init__(self, path: str) -> None:
        lib = self.lib = ctypes.CDLL(os.environ["TESSALO_LIBRARY"])
        lib.TSL_CreateTessalo.restype = ctypes.c_void_p
        for name in ("TSL_GetKeyPts", "TSL_GetPtsByKeyPts", "TSL_GetPic", "TSL_GetPicByPts"):
            getattr(lib, name).restype = ctypes.c_int32
        self.events: "queue.Queue[int]" = queue.Queue()
        self.bgr: List[bytes] = []
        self.callback = ctypes.CFUNCTYPE(ctypes.c_int32, ctypes.c_void_p, ctypes.c_int32)(self._on_event)
        self.handle = ctypes.c_void_p(lib.TSL_CreateTessalo(None, self.callback))
        lib.TSL_StartPic(self.handle, path.encode())
        self.wait_for(1)

    def _on_event(self, user: int, event: int) -> int:
        if event == 3:  # a picture exists only inside this event
            block = ctypes.create_string_buffer(self.lib.TSL_GetOnePicSize(self.handle))
            pts, key = ctypes.c_int64(), ctypes.c_uint8()
            self.lib.TSL_GetPic(self.handle, block, ctypes.byref(pts), ctypes.byref(key))
            self.bgr.append(block.raw)
        self.events.put(event)
        return 0

    def wait_for(self, wanted: int) -> None:
        while (event := self.events.get(timeout=10)) != wanted:
            assert event in (0, 2, 3, 10, 11), f"the library reported event {event}"

    def keys(self) -> List[int]:
        out = (ctypes.c_int64 * self.lib.TSL_GetKeyPtsCount(self.handle))()
        return out[: self.lib.TSL_GetKeyPts(self.handle, out)]

    def group(self, key: int) -> List[int]:
        out = (ctypes.c_int64 * self.lib.TSL_GetPtsCountByKeyPts(self.handle, ctypes.c_int64(key)))()
        return out[: self.lib.TSL_GetPtsByKeyPts(self.handle, ctypes.c_int64(key), out)]

    def bgr_picture(self, key: int) -> bytes:
        """The library's own bottom-up BGR24 picture of one key timestamp."""
        self.lib.TSL_SetOutputPicFormat(self.handle, 3)
        self.lib.TSL_GetPicByPts(self.handle, (ctypes.c_int64 * 1)(key), 1)
        self.wait_for(4)
        return self.bgr.pop()

    def close(self) -> None:
        self.lib.TSL_DestoryTessalo(self.handle)


@pytest.fixture
def bare_host():
    hosts: List[BareHost] = []
    yield lambda path: hosts.append(BareHost(path)) or hosts[-1]
    for host in hosts:
        host.close()


@pytest.fixture(scope="module")
def main_media():
    with tessalo.open(media("main.mp4")) as m:
        yield m
