#!/usr/bin/env bash
# Seed corpora for the fuzz targets, cut from the test media.
# Usage: make_seeds.sh MEDIA_DIR CORPUS_DIR
set -euo pipefail
media=${1:?media dir}; corpus=${2:?corpus dir}
mkdir -p "$corpus"/{ring_fuzz,annexb_fuzz,fetch_fuzz,library_fuzz}
# The ring: a few short operation scripts.
printf '\x04\x10\x01\x05\x00\x00\x01\x40' > "$corpus/ring_fuzz/seed1"
head -c 256 /dev/urandom > "$corpus/ring_fuzz/seed2"
# Samples in length-prefixed form: the first bytes of a real file's media data.
for f in main tiny; do
  # head stops reading early and tail reads all it is given: no broken pipe under pipefail.
  [ -s "$media/$f.mp4" ] && head -c 5120 "$media/$f.mp4" | tail -c 4096 > "$corpus/annexb_fuzz/$f"
done
# The picture path's buffer logic: a header of positions and sizes.
head -c 512 /dev/urandom > "$corpus/fetch_fuzz/seed1"
# The whole library: small real files.
for f in tiny main noaudio faststart truncated; do
  [ -s "$media/$f.mp4" ] && cp "$media/$f.mp4" "$corpus/library_fuzz/$f.mp4"
done
exit 0
