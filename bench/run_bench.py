#!/usr/bin/env python3
"""Runs every benchmark job beside its reference and prints one table.

Each job is a whole process as a host lives it: bench_host creates an
instance, indexes the clip and makes one request; the reference is the ffmpeg
tool (or a plain av_read_frame loop) doing the same job from a fresh process.
Runs alternate, after one warm-up of each, so both read from the page cache.
A row is one entry of ROWS: a name, bench_host's arguments, the reference
command(s) and the target for the whole-process ratio.

Usage: run_bench.py BUILD_DIR CLIP [REPS [WORDS]]   (WORDS: a regular expression; only the rows whose name matches it)
"""
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

build, clip, reps = sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) > 3 else 3
only = sys.argv[4] if len(sys.argv) > 4 else ""
host = os.path.join(build, "bench", "bench_host")
scratch = tempfile.mkdtemp(prefix="tessalo_bench.")
FFMPEG = ["ffmpeg", "-nostdin", "-v", "error", "-y"]
FIVE = [(20, 50), (110, 140), (230, 260), (350, 380), (480, 510)]
FIVE_MS = ",".join(f"{a * 1000}-{b * 1000}" for a, b in FIVE)


def out(name):
    return os.path.join(scratch, name)


def ffmpeg_concat():
    """ffmpeg's five -c copy segments joined with the concat demuxer."""
    commands, listing = [], out("segments.txt")
    with open(listing, "w") as f:
        for i, (a, b) in enumerate(FIVE):
            segment = out(f"segment{i}.mp4")
            commands.append(FFMPEG + ["-ss", str(a), "-to", str(b), "-i", clip, "-c", "copy", segment])
            f.write(f"file '{segment}'\n")
    commands.append(FFMPEG + ["-f", "concat", "-safe", "0", "-i", listing, "-c", "copy", out("concat.mp4")])
    return commands




# The same five ranges with their starts inside groups (the clip's key frames are 2 s apart), for the
# frame-exact cut, which makes the pictures from each start to the next key frame again.
FIVE_INSIDE = [(a + 1.3, b + 1.3) for a, b in FIVE]
FIVE_INSIDE_MS = ",".join(f"{round(a * 1000)}-{round(b * 1000)}" for a, b in FIVE_INSIDE)


def ffmpeg_reencoded():
    """What a user without a frame-exact cut does: the five ranges encoded again whole, then joined."""
    commands, listing = [], out("reencoded.txt")
    with open(listing, "w") as f:
        for i, (a, b) in enumerate(FIVE_INSIDE):
            segment = out(f"reencoded{i}.mp4")
            commands.append(FFMPEG + ["-ss", f"{a:.3f}", "-to", f"{b:.3f}", "-i", clip, "-c:v", "libx264", "-preset",
                                      "veryfast", "-c:a", "copy", segment])
            f.write(f"file '{segment}'\n")
    commands.append(FFMPEG + ["-f", "concat", "-safe", "0", "-i", listing, "-c", "copy", out("reencoded.mp4")])
    return commands


def layout_clip(layout):
    """A 60 s 720p clip in another pixel layout, made once beside the long clip:
    its pictures go through libswscale rather than the 8-bit 4:2:0 fast path."""
    path = clip.rsplit(".", 1)[0] + f"_{layout}.mp4"
    if not os.path.exists(path) or os.path.getsize(path) == 0:
        subprocess.run(FFMPEG + ["-f", "lavfi", "-i", "testsrc2=size=1280x720:rate=30:duration=60", "-c:v", "libx264",
                                 "-preset", "ultrafast", "-g", "60", "-pix_fmt", layout, path + ".tmp.mp4"], check=True)
        os.replace(path + ".tmp.mp4", path)
    return path


def keys_bgr24(path):
    return [FFMPEG + ["-skip_frame", "nokey", "-i", path, "-fps_mode", "passthrough", "-pix_fmt", "bgr24", "-f",
                      "rawvideo", "/dev/null"]]


# name, bench_host arguments, reference commands, target for the whole-process ratio
ROWS = [
    ("index", ["index", clip], [[host, "read_frame", clip]], 0.10),
    ("one picture at 300 s", ["picture", clip, "300000"],
     [FFMPEG + ["-ss", "300", "-i", clip, "-frames:v", "1", "-f", "rawvideo", "/dev/null"]], 0.5),
    ("all key pictures, BGR24", ["keys_bgr24", clip], keys_bgr24(clip), 0.4),
    ("key pictures, 10-bit 4:2:0", ["keys_bgr24", layout_clip("yuv420p10le")], keys_bgr24(layout_clip("yuv420p10le")),
     1.0),
    ("key pictures, 4:4:4", ["keys_bgr24", layout_clip("yuv444p")], keys_bgr24(layout_clip("yuv444p")), 1.0),
    ("one 300 s range cut", ["cut", clip, out("one.mp4"), "100000-400000"],
     [FFMPEG + ["-ss", "100", "-to", "400", "-i", clip, "-c", "copy", out("ref_one.mp4")]], 1.0),
    ("five ranges", ["cut", clip, out("five.mp4"), FIVE_MS],
     ffmpeg_concat(), 0.3),
    # The synced cut against the original timeline: the same engine, so as fast.
    ("one range, kind 1 vs 0", ["cut", clip, out("one1.mp4"), "100000-400000", "1"],
     [[host, "cut", clip, out("one0.mp4"), "100000-400000", "0"]], 1.0),
    ("five ranges, kind 1 vs 0", ["cut", clip, out("five1.mp4"), FIVE_MS, "1"],
     [[host, "cut", clip, out("five0.mp4"), FIVE_MS, "0"]], 1.0),
    # Frame-exact: against re-encoding the ranges whole (slow, so fewer runs), and the price of
    # exactness against the synced cut of the same ranges (printed, no target).
    ("five exact vs re-encoding", ["cut", clip, out("five2.mp4"), FIVE_INSIDE_MS, "2"], ffmpeg_reencoded(), 0.25, 2),
    ("five ranges, kind 2 vs 1", ["cut", clip, out("five2b.mp4"), FIVE_INSIDE_MS, "2"],
     [[host, "cut", clip, out("five1b.mp4"), FIVE_INSIDE_MS, "1"]], None),
]


def timed(argv):
    start = time.monotonic()
    proc = subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    if proc.returncode != 0:
        sys.exit(f"{' '.join(argv)} exited with {proc.returncode}: {proc.stderr.strip()}")
    return time.monotonic() - start


def ours(args):
    """One host process: (wall s, its HOST fields, peak RSS MiB)."""
    start = time.monotonic()
    proc = subprocess.Popen([host] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    stdout = proc.stdout.read()
    stderr = proc.stderr.read()
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.monotonic() - start
    if os.waitstatus_to_exitcode(status) != 0:
        sys.exit(f"bench_host {' '.join(args)} failed: {stderr.strip()}")
    fields = dict(kv.split("=", 1) for line in stdout.splitlines() if line.startswith("HOST ")
                  for kv in line.split()[1:])
    return wall, fields, usage.ru_maxrss / 1024.0


def reference(commands):
    return sum(timed(c) for c in commands)


size = os.path.getsize(clip)
results = []
for name, args, refs, target, *most in (row for row in ROWS if re.search(only, row[0])):
    ours(args), reference(refs)  # warm-up
    walls, requests, rchar, disk, rss, theirs = [], [], [], [], [], []
    for _ in range(min(reps, *most) if most else reps):
        wall, fields, peak = ours(args)
        walls.append(wall)
        requests.append(float(fields["index_s" if args[0] == "index" else "request_s"]))
        rchar.append(int(fields["walk_rchar"]))
        disk.append(int(fields["walk_read_bytes"]))
        rss.append(peak)
        theirs.append(reference(refs))
    m = statistics.median
    results.append((name, m(requests), m(walls), m(theirs), target, m(rchar), m(disk), max(rss)))

print(f"clip: {clip} ({size / 2**20:.1f} MiB), median of {reps} runs; ratios are ours / reference")
print(f"{'job':26} {'request s':>9} {'process s':>9} {'ref s':>7} {'request x':>9} {'process x':>9} "
      f"{'target':>6} {'met':>4} {'walk read':>14} {'peak MiB':>8}")
for name, request, wall, ref, target, rchar, disk, rss in results:
    ratio = wall / ref
    met = "-" if target is None else "yes" if ratio <= target else "no"
    print(f"{name:26} {request:9.3f} {wall:9.3f} {ref:7.3f} {request / ref:9.2f} {ratio:9.2f} "
          f"{'-' if target is None else f'{target:.2f}':>6} {met:>4} {rchar / 2**20:6.2f} MiB {100 * rchar / size:4.1f}% "
          f"{rss:8.0f}")
index = next((r for r in results if r[0] == "index"), None)
cut = next((r for r in results if r[0] == "one 300 s range cut"), None)
if index:
    print(f"walk: {index[5]:,} bytes read ({100 * index[5] / size:.2f}% of the file, target <= 2%), "
          f"{index[6]:,} of them from the device rather than the page cache")
if cut:
    print(f"peak memory of the one-range cut process: {cut[7]:.0f} MiB (target <= 160)")

# Programs that time a part rather than a job (the muxer alone) print their own RESULT lines.
for program in sorted(p for p in os.listdir(os.path.join(build, "bench")) if p.endswith("_bench")):
    proc = subprocess.run([os.path.join(build, "bench", program), clip, str(reps)], stdout=subprocess.PIPE,
                          stderr=subprocess.DEVNULL, text=True)
    for line in proc.stdout.splitlines():
        if line.startswith("RESULT "):
            print(f"{program}: {line[7:]}")
subprocess.run(["rm", "-rf", scratch])
