"""The package as its users meet it: many files in a row, the README's
example, the command line."""
import json
import os
import re
import subprocess
import sys
from pathlib import Path

import numpy as np

import tessalo
from conftest import ROOT, ffprobe, media

PACKAGE_DIR = str(Path(tessalo.__file__).parents[1])


def _open_files_and_threads():
    return len(os.listdir("/proc/self/fd")), len(os.listdir("/proc/self/task"))


def test_a_hundred_opens_leave_no_open_files_or_threads_behind():
    tiny = media("tiny.mp4")
    with tessalo.open(tiny) as m:
        m.picture(0)
    before = _open_files_and_threads()
    for _ in range(100):
        with tessalo.open(tiny) as m:
            m.picture(m.keys()[0], format="i420")
    assert m.closed and _open_files_and_threads() == before


def test_the_readme_contact_sheet_example_runs(tmp_path):
    readme = (ROOT / "README.md").read_text()
    example = re.search(r"```python\n(.*?contact.*?)```", readme, re.S).group(1)
    assert len(example.strip().splitlines()) <= 6
    subprocess.run([sys.executable, "-c", example.replace("movie.mp4", media("main.mp4"))], cwd=tmp_path,
                   check=True, env=dict(os.environ, PYTHONPATH=PACKAGE_DIR))
    header, pixels = (tmp_path / "sheet.ppm").read_bytes().split(b"\n", 1)
    width, height = (int(v) for v in header.split()[1:3])
    sheet = np.frombuffer(pixels, np.uint8).reshape(height, width, 3)
    with tessalo.open(media("main.mp4")) as m:
        assert sheet.shape == (60, 5 * 80, 3) and np.array_equal(sheet[:, :80], m.picture(0)[::4, ::4])


def _command(*args):
    return subprocess.run([sys.executable, "-m", "tessalo", *args], capture_output=True, text=True,
                          env=dict(os.environ, PYTHONPATH=PACKAGE_DIR))


def test_the_command_line_reports_info_and_refusals(tmp_path):
    info = _command("info", "--json", media("main.mp4"))
    assert info.returncode == 0, info.stderr
    video = next(s for s in ffprobe(media("main.mp4"))["streams"] if s["codec_type"] == "video")
    assert (json.loads(info.stdout)["width"], json.loads(info.stdout)["pictures"]) == (video["width"],
                                                                                       int(video["nb_frames"]))
    thumbs = _command("thumbs", media("main.mp4"), "-o", str(tmp_path))
    assert thumbs.returncode == 0 and len(list(tmp_path.glob("key_*.png"))) == 5
    assert (tmp_path / "sheet.png").read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    refused = _command("info", media("aac6ch.mp4"))
    assert refused.returncode == 1 and "6 audio channels are not supported" in refused.stderr
