"""``python -m tessalo info|keys|thumbs|cut``: the ``tessalo`` command's
everyday subcommands over the Python package.

Exit status: 0 done, 1 file refused or job failed, 2 usage error. Times are
milliseconds (1500) or hh:mm:ss.mmm (00:00:01.500, also mm:ss.mmm).
"""
from __future__ import annotations

import argparse
import contextlib
import json
import os
import re
import sys
from typing import IO, Iterator, List, Optional, Sequence, Tuple

from . import _images
from .errors import MissingPictures, TessaloError
from .media import DEFAULT_TIMEOUT, Media

EXIT_FAILURE = 1
EXIT_USAGE = 2

_CLOCK = re.compile(r"^(?:(\d+):)?(\d+):(\d+)(?:\.(\d{1,3}))?$")


def parse_time(text: str) -> int:
    """Milliseconds from ``1500`` or ``[hh:]mm:ss[.mmm]``; ValueError otherwise."""
    if text.isdigit():
        return int(text)
    match = _CLOCK.match(text)
    if not match:
        raise ValueError(f"bad time '{text}': use milliseconds (1500) or hh:mm:ss.mmm (00:00:01.500)")
    hours, minutes, seconds, fraction = match.groups()
    if int(seconds) >= 60 or (hours is not None and int(minutes) >= 60):
        raise ValueError(f"bad time '{text}': minutes and seconds run from 0 to 59")
    millis = int((fraction or "0").ljust(3, "0"))
    return ((int(hours or 0) * 60 + int(minutes)) * 60 + int(seconds)) * 1000 + millis


def parse_span(text: str) -> Tuple[int, int]:
    """(start, end) from ``START-END``."""
    parts = text.split("-")
    if len(parts) != 2:
        raise ValueError(f"bad span '{text}': write START-END, e.g. 1000-3000 or 00:00:01.000-00:00:03.000")
    start, end = parse_time(parts[0]), parse_time(parts[1])
    if end < start:
        raise ValueError(f"span '{text}' ends before it starts")
    return start, end


def clock(ms: int) -> str:
    """``hh:mm:ss.mmm`` for a timestamp."""
    sign, ms = ("-", -ms) if ms < 0 else ("", ms)
    return f"{sign}{ms // 3600000:02d}:{ms // 60000 % 60:02d}:{ms // 1000 % 60:02d}.{ms % 1000:03d}"


def _span_arg(text: str) -> Tuple[int, int]:
    try:
        return parse_span(text)
    except ValueError as e:
        raise argparse.ArgumentTypeError(str(e)) from None


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog="python -m tessalo", description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--timeout", type=float, default=DEFAULT_TIMEOUT,
                        help="seconds without an event of the library before the program gives up (walks and cuts also get the time a slow disk takes to read the source)")
    commands = parser.add_subparsers(dest="command", required=True)
    info = commands.add_parser("info", help="media information and an index summary")
    keys = commands.add_parser("keys", help="every key timestamp with the size of its group")
    thumbs = commands.add_parser("thumbs", help="every key picture as PNG, and a contact sheet")
    cut = commands.add_parser("cut", help="cut time ranges into a new MP4 without re-encoding")
    for command in (info, keys, thumbs, cut):
        command.add_argument("file", help="media file")
    for command in (info, keys, cut):
        command.add_argument("--json", action="store_true", help="print JSON")
    thumbs.add_argument("-o", "--output", default="thumbs", help="folder for the pictures (default: thumbs)")
    thumbs.add_argument("--sheet", help="contact sheet path (default: OUTPUT/sheet.png)")
    thumbs.add_argument("--columns", type=int, default=5, help="pictures across the sheet (default: 5)")
    thumbs.add_argument("--thumb-width", type=int, default=160, help="width of a picture on the sheet")
    cut.add_argument("-o", "--output", required=True, help="output file (.mp4 or .mov)")
    cut.add_argument("-r", "--range", dest="ranges", type=_span_arg, action="append", required=True,
                     metavar="START-END", help="range to keep, end inclusive; repeat for more")
    cut.add_argument("--offset", dest="offsets", type=_span_arg, action="append", default=[], metavar="A-B",
                     help="pair of source times to translate to the output's timeline")
    cut.add_argument("--kind", type=int, choices=(0, 1, 2), default=1,
                     help="1: synced cut, each range from the key at or before its start (default); "
                          "0: the original timeline; 2: as --exact")
    cut.add_argument("--exact", dest="kind", action="store_const", const=2,
                     help="frame-exact: each range shows exactly its pictures, re-encoding only what must be")
    return parser


def _info(media: Media, args: argparse.Namespace, out: IO[str]) -> None:
    info = media.info
    pictures = sum(len(media.group(k)) for k in sorted(set(media.keys())))
    if args.json:
        fields = dict(info.__dict__, has_audio=info.has_audio, display_size=list(info.display_size))
        json.dump({"file": media.path, **fields, "groups": len(media.keys()), "pictures": pictures}, out, indent=2)
        out.write("\n")
        return
    audio = (f"AAC {info.sample_rate} Hz, {info.channels} channel{'s' if info.channels != 1 else ''}, "
             f"{info.audio_bit_rate // 1000} kb/s" if info.has_audio else "none")
    out.write(f"file           {media.path}\n"
              f"video          H.264 {info.width}x{info.height}, {info.frame_rate} fps, "
              f"{info.video_bit_rate // 1000} kb/s\n"
              f"rotation       {info.rotation} degrees clockwise\n"
              f"audio          {audio}\n"
              f"duration       {info.duration_ms:.3f} ms ({clock(int(info.duration_ms))})\n"
              f"groups         {len(media.keys())}\n"
              f"pictures       {pictures}\n")


def _keys(media: Media, args: argparse.Namespace, out: IO[str]) -> None:
    rows = [(k, len(media.group(k))) for k in media.keys()]
    if args.json:
        json.dump({"file": media.path, "keys": [{"pts": k, "time": clock(k), "pictures": n} for k, n in rows]},
                  out, indent=2)
        out.write("\n")
        return
    out.write("key pts (ms)  time          pictures\n")
    for k, n in rows:
        out.write(f"{k:<14}{clock(k):<14}{n}\n")


def _thumbs(media: Media, args: argparse.Namespace, out: IO[str]) -> None:
    if not 1 <= args.columns <= 1000 or not 16 <= args.thumb_width <= 4096:
        raise ValueError("--columns runs from 1 to 1000 and --thumb-width from 16 to 4096")
    os.makedirs(args.output, exist_ok=True)
    sheet_path = args.sheet or os.path.join(args.output, "sheet.png")
    cells: List[Tuple[int, _images.Image]] = []
    missing: Optional[MissingPictures] = None
    try:
        for pts, image in media.pictures(media.keys()):
            name = f"key_{'-' if pts < 0 else ''}{abs(pts):09d}ms.png"
            with open(os.path.join(args.output, name), "wb") as f:
                f.write(_images.png_bytes(image))
            cells.append((pts, _images.shrink(image, args.thumb_width)))
    except MissingPictures as e:
        missing = e
    if not cells:
        raise missing or TessaloError("the library delivered no key picture", media.path)
    cells.sort(key=lambda cell: cell[0])
    sheet = _images.contact_sheet([image for _, image in cells], args.columns)
    with open(sheet_path, "wb") as f:
        f.write(_images.png_bytes(sheet))
    out.write(f"wrote {len(cells)} key picture{'s' if len(cells) != 1 else ''} to {args.output}\n"
              f"contact sheet {sheet_path} ({sheet.shape[1]}x{sheet.shape[0]}, "
              f"{min(args.columns, len(cells))} columns)\n")
    if missing:
        print(f"python -m tessalo: warning: {missing}", file=sys.stderr)


def _cut(media: Media, args: argparse.Namespace, out: IO[str]) -> None:
    result = media.cut(args.output, args.ranges, kind=args.kind, offsets=args.offsets)
    moved = result.offsets or []
    if args.json:
        json.dump({"source": media.path, "output": result.path, "kind": result.kind,
                   "ranges": [{"start": a, "end": b} for a, b in result.ranges],
                   "offsets": [{"source": list(s), "output": list(o)} for s, o in zip(args.offsets, moved)]},
                  out, indent=2)
        out.write("\n")
        return
    out.write(f"cut {media.path} -> {result.path} ({len(result.ranges)} range"
              f"{'s' if len(result.ranges) != 1 else ''}, kind {result.kind})\n")
    for n, (a, b) in enumerate(result.ranges, 1):
        out.write(f"  range {n}  {a}-{b} ms  ({clock(a)} - {clock(b)})\n")
    if moved:
        out.write("offsets on the output's timeline:\n")
    for (a, b), (c, d) in zip(args.offsets, moved):
        held = any(start <= a and b <= end for start, end in result.ranges)
        out.write(f"  {a}-{b} ms -> " + (f"{c}-{d} ms\n" if held else "not inside one kept range; left as given\n"))


_COMMANDS = {"info": _info, "keys": _keys, "thumbs": _thumbs, "cut": _cut}


@contextlib.contextmanager
def _private_stdout() -> Iterator[IO[str]]:
    """This program's own standard output. The library prints a few messages
    of its own to descriptor 1; meanwhile they go to standard error, so that
    they never mix with what this program prints (JSON above all)."""
    sys.stdout.flush()
    mine = os.dup(1)
    os.dup2(2, 1)
    out = os.fdopen(os.dup(mine), "w")
    try:
        yield out
    finally:
        out.close()
        os.dup2(mine, 1)
        os.close(mine)


def main(argv: Optional[Sequence[str]] = None) -> int:
    """Runs the command line; returns the exit status."""
    parser = _parser()
    try:
        args = parser.parse_args(argv)
    except SystemExit as e:
        return 0 if e.code == 0 else EXIT_USAGE
    try:
        with _private_stdout() as out, Media(args.file, timeout=args.timeout) as media:
            _COMMANDS[args.command](media, args, out)
        return 0
    except ValueError as e:
        print(f"python -m tessalo: {e}", file=sys.stderr)
        return EXIT_USAGE
    except (TessaloError, OSError) as e:
        print(f"python -m tessalo: {e}", file=sys.stderr)
        return EXIT_FAILURE
    except KeyboardInterrupt:
        print("python -m tessalo: interrupted", file=sys.stderr)
        return 130
