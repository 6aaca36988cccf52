#!/usr/bin/env python3
"""Runs every benchmark program beside its reference and prints one table.

Each program prints lines `RESULT name=<id> key=value ...`; this script adds
the peak resident memory of each program (from wait4) and the walk's extra
references (ffprobe -show_packets, ffmsindex), then prints medians, ratios
and targets side by side.
"""
import os
import shutil
import statistics
import subprocess
import sys
import time

build, clip, reps = sys.argv[1], sys.argv[2], int(sys.argv[3]) if len(sys.argv) > 3 else 3


def run(argv):
    """Runs argv, returns (stdout, peak RSS in MiB)."""
    proc = subprocess.Popen(argv, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True)
    out = proc.stdout.read()
    _, status, usage = os.wait4(proc.pid, 0)
    proc.returncode = os.waitstatus_to_exitcode(status)
    if proc.returncode != 0:
        print(f"warning: {' '.join(argv)} exited with {proc.returncode}", file=sys.stderr)
    return out, usage.ru_maxrss / 1024.0


def timed(argv):
    start = time.monotonic()
    subprocess.run(argv, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    return time.monotonic() - start


rows = []
programs = sorted(p for p in os.listdir(os.path.join(build, "bench"))
                  if p.endswith("_bench") and os.access(os.path.join(build, "bench", p), os.X_OK))
for program in programs:
    out, rss = run([os.path.join(build, "bench", program), clip, str(reps)])
    for line in out.splitlines():
        if not line.startswith("RESULT "):
            continue
        fields = dict(kv.split("=", 1) for kv in line.split()[1:] if "=" in kv)
        fields.setdefault("rss", f"{rss:.0f}")
        fields["program"] = program
        rows.append(fields)

# The walk's further references: ffprobe listing every packet, and ffmsindex.
walk = next((r for r in rows if r.get("name", "").startswith("walk")), None)
if walk and "median_s" in walk:
    references = [("ffprobe -show_packets", ["ffprobe", "-v", "error", "-show_packets", "-of", "compact", clip])]
    if shutil.which("ffmsindex"):
        references.append(("ffmsindex", ["ffmsindex", "-f", clip, os.path.join(build, "bench", "long.ffindex")]))
    for label, argv in references:
        ref = statistics.median(timed(argv) for _ in range(reps))
        rows.append({"name": f"walk vs {label}", "median_s": walk["median_s"], "ref_median_s": f"{ref:.3f}",
                     "ratio": f"{float(walk['median_s']) / ref:.2f}", "target": "-", "rss": walk["rss"]})

print(f"{'benchmark':44} {'median s':>9} {'ref s':>9} {'ratio':>7} {'target':>8} {'value':>12} {'peak MiB':>9}")
for r in rows:
    print(f"{r.get('name', '?'):44} {r.get('median_s', '-'):>9} {r.get('ref_median_s', '-'):>9} "
          f"{r.get('ratio', '-'):>7} {r.get('target', '-'):>8} {r.get('value', '-'):>12} {r.get('rss', '-'):>9}")
