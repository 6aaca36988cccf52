#!/usr/bin/env bash
# Makes the test media with the ffmpeg tool, once: files that exist are kept.
# Usage: make_media.sh OUTPUT_DIR
set -euo pipefail
out=${1:?output directory}
mkdir -p "$out"
cd "$out"

ff() { ffmpeg -nostdin -hide_banner -loglevel error -y "$@"; }
# The picture: a moving test pattern, 320x240 at 25 fps. Keys every second,
# B-frames on, so decode order differs from presentation order.
video() { echo "-f lavfi -i testsrc2=size=${1:-320x240}:rate=25:duration=${2:-5}"; }
tone() { echo "-f lavfi -i sine=frequency=440:sample_rate=${1}:duration=${2:-5}"; }
x264="-c:v libx264 -preset veryfast -bf 2 -g 25 -keyint_min 25 -sc_threshold 0 -pix_fmt yuv420p"

make() {  # make NAME COMMAND...: run only when NAME is missing, write atomically
  local name=$1; shift
  [ -s "$name" ] && return 0
  "$@" "tmp.$name"
  mv "tmp.$name" "$name"
}

# The main fixture: H.264 with B-frames + AAC 44100 Hz stereo, key every second, moov at the end.
make main.mp4 ff $(video) $(tone 44100) $x264 -c:a aac -ac 2 -b:a 96k -shortest
# The same with AAC 48000 Hz mono.
make mono48k.mp4 ff $(video) $(tone 48000) $x264 -c:a aac -ac 1 -b:a 64k -shortest
# H.264 without any audio.
make noaudio.mp4 ff $(video) $x264
# moov at the start of the file.
make faststart.mp4 ff $(video) $(tone 44100) $x264 -c:a aac -ac 2 -movflags +faststart -shortest
# Also a .mov container with the same content.
make main.mov ff $(video) $(tone 44100) $x264 -c:a aac -ac 2 -shortest
# A tiny file (one second, small picture) for loops of many walks.
make tiny.mp4 ff $(video 64x48 1) $(tone 44100 1) $x264 -c:a aac -ac 2 -shortest
# Top half red, bottom half blue: known colours for the 24-bit output test.
make halves.mp4 ff -f lavfi -i "color=c=red:size=320x120:rate=25:duration=2[t];color=c=blue:size=320x120:rate=25:duration=2[b];[t][b]vstack" \
  $(tone 44100 2) $x264 -c:a aac -ac 2 -shortest
# Accepted: a subtitle track (mov_text) beside H.264 + AAC.
[ -s subs.srt ] || printf '1\n00:00:00,000 --> 00:00:02,000\nhello\n\n2\n00:00:02,500 --> 00:00:04,000\nworld\n' > subs.srt
make subtitle.mp4 ff $(video) $(tone 44100) -i subs.srt -map 0:v -map 1:a -map 2:s $x264 -c:a aac -ac 2 -c:s mov_text -shortest
# Two H.264 video streams: both feed the one index.
make twovideo.mp4 ff $(video) $(video 160x120) $(tone 44100) -map 0:v -map 1:v -map 2:a $x264 -c:a aac -ac 2 -shortest
# H.264 + an attached picture (cover art) stream: the cover is a PNG video stream.
[ -s cover.png ] || ff -f lavfi -i color=c=green:size=64x64 -frames:v 1 cover.png
make coverart.mp4 ff -i main.mp4 -i cover.png -map 0 -map 1 -c copy -c:v:1 png -disposition:v:1 attached_pic

# Picture layouts, colour and stream shapes of other encoders and muxers: every
# picture of these is held against ffmpeg's decode. Small and short.
small="-f lavfi -i testsrc2=size=160x120:rate=25:duration=2"
x264small="-c:v libx264 -preset veryfast -bf 2 -g 25 -keyint_min 25 -sc_threshold 0"
for fmt in yuv420p10le yuv422p yuv422p10le yuv444p gray yuvj420p; do
  make "$fmt.mp4" ff $small $x264small -pix_fmt "$fmt"
done
# 4:4:4 10-bit as GStreamer's x264enc chooses it, through its mp4mux.
gst444() {
  gst-launch-1.0 -q videotestsrc num-buffers=50 pattern=smpte horizontal-speed=3 \
    ! video/x-raw,format=Y444_10LE,width=160,height=120,framerate=25/1 \
    ! x264enc key-int-max=25 bframes=2 speed-preset=veryfast ! mp4mux ! filesink location="$1"
}
make yuv444p10le.mp4 gst444
# BT.709 720p, one second.
make bt709_720p.mp4 ff -f lavfi -i testsrc2=size=1280x720:rate=25:duration=1 -vf scale=out_color_matrix=bt709 \
  -colorspace bt709 -color_primaries bt709 -color_trc bt709 $x264small -pix_fmt yuv420p
# Open GOP: the B-frames before each later key picture follow it in the stream
# and refer to the group before. Six groups, so that a request can skip some.
make opengop.mp4 ff -f lavfi -i testsrc2=size=160x120:rate=25:duration=5 -c:v libx264 -preset veryfast -pix_fmt yuv420p \
  -x264-params open-gop=1:bframes=3:b-adapt=0:keyint=24:min-keyint=24:scenecut=0
# Intra refresh: no IDR after the first picture; the sync samples are recovery points.
make intrarefresh.mp4 ff -f lavfi -i testsrc2=size=160x120:rate=25:duration=3 -c:v libx264 -preset veryfast \
  -bf 2 -g 25 -intra-refresh 1 -pix_fmt yuv420p
# A last group of two pictures, fewer than the decoder holds back.
make shortlast.mp4 ff $small $x264small -pix_fmt yuv420p -force_key_frames "expr:eq(n,0)+eq(n,25)+eq(n,48)"
# Red above blue, turned a quarter clockwise for display: the track header's
# matrix as a phone writes it (0 1 / -1 0, moved right by the stored height).
rotated() {
  ff -f lavfi -i "color=c=red:size=160x60:rate=25:duration=2[t];color=c=blue:size=160x60:rate=25:duration=2[b];[t][b]vstack" \
    $x264small -pix_fmt yuv420p "$1"
  local at
  at=$(grep -obUa tkhd "$1" | head -1 | cut -d: -f1)
  printf '\x00\x00\x00\x00\x00\x01\x00\x00\x00\x00\x00\x00\xff\xff\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x00\x78\x00\x00\x00\x00\x00\x00\x40\x00\x00\x00' |
    dd of="$1" bs=1 seek=$((at + 44)) conv=notrunc status=none
}
make rotated90.mp4 rotated
# Variable frame rate: irregular timestamps at 1/90000, so that FFmpeg's
# nominal rate is the time base.
make vfr.mp4 ff $small -vf "settb=1/90000,setpts='if(eq(N,0),0,PREV_OUTPTS+(0.021+0.05*random(0))/TB)'" \
  -fps_mode vfr -enc_time_base 1/90000 -video_track_timescale 90000 $x264small -pix_fmt yuv420p
# Colour bars made in RGB (75% white, yellow, cyan, green, magenta, red, blue,
# black) and turned into YUV with a known matrix and range.
bars="color=c=0xBFBFBF:s=20x120:d=1,format=rgb24[c0];color=c=0xBFBF00:s=20x120:d=1,format=rgb24[c1];\
color=c=0x00BFBF:s=20x120:d=1,format=rgb24[c2];color=c=0x00BF00:s=20x120:d=1,format=rgb24[c3];\
color=c=0xBF00BF:s=20x120:d=1,format=rgb24[c4];color=c=0xBF0000:s=20x120:d=1,format=rgb24[c5];\
color=c=0x0000BF:s=20x120:d=1,format=rgb24[c6];color=c=0x000000:s=20x120:d=1,format=rgb24[c7];\
[c0][c1][c2][c3][c4][c5][c6][c7]hstack=inputs=8"
make bars709.mp4 ff -f lavfi -i "$bars,scale=out_color_matrix=bt709:out_range=tv,format=yuv420p" \
  -colorspace bt709 -color_primaries bt709 -color_trc bt709 -color_range tv -c:v libx264 -preset veryfast -qp 0
make barsfull.mp4 ff -f lavfi -i "$bars,scale=out_color_matrix=bt601:out_range=pc,format=yuvj420p" \
  -colorspace smpte170m -color_range pc -c:v libx264 -preset veryfast -qp 0

# Refusals.
# HEVC video.
make hevc.mp4 ff $(video) $(tone 44100) -c:v libx265 -x265-params log-level=error -tag:v hvc1 -c:a aac -shortest
# MPEG-4 Part 2 video.
make mpeg4.mp4 ff $(video) $(tone 44100) -c:v mpeg4 -c:a aac -shortest
# MP3 audio beside H.264.
make mp3audio.mp4 ff $(video) $(tone 44100) $x264 -c:a libmp3lame -shortest
# AAC at 22050 Hz.
make aac22050.mp4 ff $(video) $(tone 22050) $x264 -c:a aac -ar 22050 -shortest
# AAC with 6 channels.
make aac6ch.mp4 ff $(video) $(tone 48000) $x264 -c:a aac -ac 6 -shortest
# Audio only.
make audioonly.mp4 ff $(tone 44100) -c:a aac -ac 2
# VP9 in WebM.
make vp9.webm ff $(video 320x240 2) -c:v libvpx-vp9 -deadline realtime -cpu-used 8 -b:v 200k
# A zero-byte file and a text file named .mp4.
[ -e empty.mp4 ] || : > empty.mp4
[ -s text.mp4 ] || printf 'This is not a video file.\nJust some text.\n' > text.mp4
# Truncated: the first 40% of a moov-at-the-end file (no moov at all) ...
[ -s truncated_nomoov.mp4 ] || head -c $(( $(stat -c %s main.mp4) * 4 / 10 )) main.mp4 > truncated_nomoov.mp4
# ... and a moov-at-the-start file cut in its media data.
[ -s truncated.mp4 ] || head -c $(( $(stat -c %s faststart.mp4) * 6 / 10 )) faststart.mp4 > truncated.mp4

# Larger than 20 MiB: reads must cross the 20 MiB buffer of the picture and cut paths.
# Lossless noisy 640x360 keeps the size up in a few seconds.
make large.mp4 ff -f lavfi -i "testsrc2=size=640x360:rate=25:duration=3,noise=alls=40:allf=t" $(tone 44100 3) \
  -c:v libx264 -preset ultrafast -qp 0 -g 25 -keyint_min 25 -sc_threshold 0 -pix_fmt yuv420p -c:a aac -ac 2 -shortest

# The index from the sample tables, against the walk that reads every byte.
# Audio that starts before the video: the video's edit list opens with an empty edit.
make tables_audiofirst.mp4 ff -itsoffset 0.5 -i noaudio.mp4 $(tone 44100 6) -map 0:v -map 1:a -c:v copy -c:a aac -ac 2
# Negative composition offsets in place of the B-frame delay edit.
make tables_negcts.mp4 ff $(video) $(tone 44100) $x264 -c:a aac -ac 2 -movflags negative_cts_offsets -shortest
# Variable frame rate: pictures dropped at irregular places, the rest keep their times.
make tables_vfr.mp4 ff -f lavfi -i "testsrc2=size=320x240:rate=25:duration=5,select='not(eq(mod(n\,7)\,3))*not(eq(mod(n\,11)\,5))'" \
  $(tone 44100) $x264 -fps_mode vfr -c:a aac -ac 2 -shortest
# Fragmented: the samples are described by movie fragments, not by the movie box.
make tables_fragmented.mp4 ff $(video) $(tone 44100) $x264 -c:a aac -ac 2 -movflags frag_keyframe+empty_moov -shortest
# No sync sample table: every sample counts as a sync sample to the tables, only IDR pictures to the bitstream.
[ -s tables_nostss.mp4 ] || perl -0777 -pe 's/stss/free/' main.mp4 > tables_nostss.mp4
# Another producer's tables: GStreamer's x264enc with B-frames, into mp4mux and qtmux, with ffmpeg's AAC.
[ -s tables_tone.aac ] || ff $(tone 44100) -c:a aac -ac 2 tables_tone.aac
gst() {  # gst MUXER OUTPUT
  gst-launch-1.0 -q videotestsrc num-buffers=125 pattern=ball ! video/x-raw,width=320,height=240,framerate=25/1 \
    ! x264enc key-int-max=25 bframes=2 speed-preset=veryfast ! "$1" name=mux ! filesink location="$2" \
    filesrc location=tables_tone.aac ! aacparse ! mux.
}
make tables_gst.mp4 gst mp4mux
make tables_gst.mov gst qtmux
# Tracks stored 3 s apart by GStreamer's mp4mux: a cut needs samples the better part of 1 MB apart at once.
make coarse_source.mp4 ff $(video 640x360 6) $(tone 44100 6) $x264 -b:v 4M -c:a aac -ac 2 -shortest
coarse() {  # coarse OUTPUT
  local unbounded="queue max-size-buffers=0 max-size-bytes=0 max-size-time=0"
  gst-launch-1.0 -q filesrc location=coarse_source.mp4 ! qtdemux name=d mp4mux name=mux interleave-time=3000000000 \
    ! filesink location="$1" d.video_0 ! $unbounded ! mux.video_0 d.audio_0 ! $unbounded ! mux.audio_0
}
make coarse.mp4 coarse
# Not MP4 at all: MPEG-TS (video only: AAC in MPEG-TS has a 90 kHz time base and is refused).
make tables_ts.ts ff -i noaudio.mp4 -c copy


# A/V sync: the picture flashes white and the audio starts a 1 kHz beep at every whole second, so a cut's
# sync can be measured on what a player shows. Groups of 37 pictures keep the key frames off the whole
# seconds; B-frames throughout.
sync_source() {  # FPS RATE
  echo "-f lavfi -i color=c=black:size=160x90:rate=$1:duration=12,geq=lum=if(eq(mod(N\,$1)\,0)\,235\,16):cb=128:cr=128"
  echo "-f lavfi -i aevalsrc=if(lt(mod(t\,1)\,0.1)\,0.5*sin(2*PI*1000*t)\,0):s=$2:d=12"
}
sync264="-c:v libx264 -preset veryfast -g 37 -keyint_min 37 -sc_threshold 0 -pix_fmt yuv420p"
make sync24.mp4 ff $(sync_source 24 44100) $sync264 -bf 2 -c:a aac -ac 1 -b:a 64k -shortest
make sync25.mp4 ff $(sync_source 25 48000) $sync264 -bf 3 -c:a aac -ac 2 -b:a 64k -shortest
make sync30.mp4 ff $(sync_source 30 44100) $sync264 -bf 2 -c:a aac -ac 2 -b:a 64k -shortest

# Frame-exact cuts: a key frame every 5 s, B-frames in a pyramid, and a moving pattern that tells every
# picture from its neighbours.
make longgop.mp4 ff -f lavfi -i testsrc2=size=192x108:rate=25:duration=12 $(tone 44100 12) -c:v libx264 -preset veryfast \
  -g 125 -keyint_min 125 -sc_threshold 0 -bf 3 -x264-params b-pyramid=normal -pix_fmt yuv420p -c:a aac -ac 2 -shortest
# Interlaced, top field first, as broadcast recordings are.
make interlaced.mp4 ff -f lavfi -i testsrc2=size=160x128:rate=25:duration=3 $(tone 44100 3) -c:v libx264 -preset veryfast \
  -flags +ildct+ilme -x264-params tff=1 -g 50 -pix_fmt yuv420p -c:a aac -ac 2 -shortest

# Shapes the walk and the refusals meet in the field, made from the fixtures above.
# An MPEG-TS that starts inside a group: its video before the first key packet is dropped.
midgop() { ff -i noaudio.mp4 -c copy -f mpegts - | tail -c +$((188 * 120 + 1)) > "$1"; }
make midgop.ts midgop
# Every key packet dropped: nothing to index.
make nokeys.mp4 ff -i main.mp4 -c copy -bsf:v noise=drop=key
# Two audio streams, AAC 44100 Hz stereo then 48000 Hz mono: only the first is indexed.
make twoaudio.mp4 ff -i main.mp4 -i mono48k.mp4 -map 0:v -map 0:a -map 1:a -c copy
# AAC then MP3: every audio stream must pass, not only the first.
make aac_mp3.mp4 ff -i main.mp4 -map 0:v -map 0:a -map 0:a -c:v copy -c:a:0 copy -c:a:1 libmp3lame
# AAC in MPEG-TS, its 44100 Hz counted in 1/90000.
make main.ts ff -i main.mp4 -c copy
# Many small packets, so that a walk lasts long enough to be interrupted: five minutes of 64x48 at 50 fps.
make long_walk.mp4 ff -f lavfi -i testsrc2=size=64x48:rate=50:duration=300 -c:v libx264 -preset ultrafast -bf 2 -g 25 \
  -pix_fmt yuv420p

touch .complete
