#!/usr/bin/env bash
# The benchmark clip, made once and cached: 10 minutes of 720p30 H.264 with
# B-frames and AAC 44100 stereo, a key frame every 2 seconds.
# Usage: make_long_clip.sh OUTPUT_PATH [SECONDS]
set -euo pipefail
outpath=${1:?output path}
seconds=${2:-600}
[ -s "$outpath" ] && exit 0
mkdir -p "$(dirname "$outpath")"
ffmpeg -nostdin -hide_banner -loglevel error -y \
  -f lavfi -i "testsrc2=size=1280x720:rate=30:duration=$seconds" \
  -f lavfi -i "sine=frequency=440:sample_rate=44100:duration=$seconds" \
  -c:v libx264 -preset ultrafast -tune zerolatency -bf 2 -x264-params bframes=2:b-adapt=0 \
  -g 60 -keyint_min 60 -sc_threshold 0 -b:v 2500k -pix_fmt yuv420p \
  -c:a aac -ac 2 -b:a 128k -shortest "$outpath.tmp.mp4"
mv "$outpath.tmp.mp4" "$outpath"
