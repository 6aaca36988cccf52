"""Pictures as the library delivers them, turned into NumPy arrays; PNG
files and contact sheets for the command line."""
from __future__ import annotations

import struct
import zlib
from typing import Sequence

import numpy as np
import numpy.typing as npt

Image = npt.NDArray[np.uint8]

# The library's output format for each form: 0 is its packed I420 block, any
# other value bottom-up 24-bit BGR.
FORMATS = {"rgb": 3, "bgr": 3, "i420": 0}


def check_form(form: str) -> str:
    """The form in lower case, or ValueError naming the ones there are."""
    lowered = str(form).lower()
    if lowered not in FORMATS:
        raise ValueError(f"unknown picture format {form!r}: use 'rgb', 'bgr' or 'i420'")
    return lowered


def expected_size(form: str, width: int, height: int) -> int:
    """Bytes of one picture of the library's in ``form``."""
    if form == "i420":
        return width * height + 2 * (width >> 1) * (height >> 1)
    return 3 * width * height


def quarter_turns(rotation: int) -> int:
    """Counter-clockwise quarter turns (``np.rot90``'s k) that show a picture
    stored with ``rotation`` degrees of clockwise display rotation upright."""
    return (-(rotation // 90)) % 4 if rotation % 90 == 0 else 0


def to_array(raw: Image, form: str, width: int, height: int, turns: int) -> Image:
    """A delivered picture as an array: I420 stays the 1-D block as stored;
    RGB and BGR become (height, width, 3), top row first, turned ``turns``
    quarter turns counter-clockwise."""
    if form == "i420":
        return raw
    image = raw.reshape(height, width, 3)[::-1]  # the library's rows run bottom-up
    if form == "rgb":
        image = image[..., ::-1]
    if turns:
        image = np.rot90(image, turns)
    upright: Image = np.ascontiguousarray(image)
    return upright


def png_bytes(image: Image) -> bytes:
    """An 8-bit RGB PNG of an (height, width, 3) uint8 array."""
    height, width = image.shape[:2]
    rows = np.concatenate([np.zeros((height, 1), np.uint8), image.reshape(height, width * 3)], axis=1)

    def chunk(kind: bytes, data: bytes) -> bytes:
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))

    header = struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", header) + chunk(b"IDAT", zlib.compress(rows.tobytes(), 6))
            + chunk(b"IEND", b""))


def shrink(image: Image, width: int) -> Image:
    """``image`` scaled to ``width`` pixels across by averaging, aspect kept."""
    height, old_width = image.shape[:2]
    if old_width <= width:
        return image
    new_height = max(1, round(height * width / old_width))
    rows = np.linspace(0, height, new_height + 1).astype(int)
    cols = np.linspace(0, old_width, width + 1).astype(int)
    summed = np.add.reduceat(np.add.reduceat(image.astype(np.uint32), rows[:-1], axis=0), cols[:-1], axis=1)
    counts = np.outer(np.diff(rows), np.diff(cols))[..., None]
    shrunk: Image = (summed / counts + 0.5).astype(np.uint8)
    return shrunk


def contact_sheet(images: Sequence[Image], columns: int, gap: int = 4) -> Image:
    """The pictures on a grid, left to right and top to bottom, on dark grey."""
    cell_h = max(i.shape[0] for i in images)
    cell_w = max(i.shape[1] for i in images)
    rows = -(-len(images) // columns)
    across = min(columns, len(images))
    sheet = np.full((gap + rows * (cell_h + gap), gap + across * (cell_w + gap), 3), 32, np.uint8)
    for n, image in enumerate(images):
        top = gap + (n // columns) * (cell_h + gap)
        left = gap + (n % columns) * (cell_w + gap)
        sheet[top:top + image.shape[0], left:left + image.shape[1]] = image
    return sheet
