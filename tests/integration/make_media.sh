#!/usr/bin/env bash
# make_media.sh DIR: the media the network and file source tests play, made
# once with ffmpeg and shared by every test process (the first one makes
# them, the others wait on the lock).
set -euo pipefail
out=${1:?usage: make_media.sh DIR}
mkdir -p "$out"
exec 9>"$out/.lock"
flock 9
[ -f "$out/.done" ] && exit 0

cd "$out"
ff=(ffmpeg -nostdin -v error -y)
video=(-f lavfi -i testsrc=size=320x240:rate=25)
audio=(-f lavfi -i sine=frequency=440:sample_rate=48000)
x264=(-c:v libx264 -preset ultrafast -g 25 -pix_fmt yuv420p)
x265=(-c:v libx265 -preset ultrafast -g 25 -pix_fmt yuv420p -x265-params log-level=error)
aac=(-c:a aac -ac 2 -b:a 96k)

# H.264 + AAC: MP4 (length-prefixed units, avcC), MKV; 8 s for pacing.
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 8 "${x264[@]}" "${aac[@]}" -movflags +faststart av8.mp4
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 2 "${x264[@]}" "${aac[@]}" av2.mkv
# High profile: its avcC carries fields behind the PPS.
"${ff[@]}" "${video[@]}" -t 2 -c:v libx264 -preset fast -profile:v high -g 25 -pix_fmt yuv420p \
  high2.mp4
# H.265 in MKV (hvcC, no parameter sets in band) and in TS (start codes).
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 2 "${x265[@]}" "${aac[@]}" hevc2.mkv
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 2 "${x265[@]}" "${aac[@]}" -f mpegts hevc2.ts
# MP3 with cover art.
"${ff[@]}" -f lavfi -i color=c=blue:size=64x64 -frames:v 1 cover.png
"${ff[@]}" -f lavfi -i sine=frequency=660:sample_rate=44100 -i cover.png -t 3 -map 0:a -map 1:v \
  -c:a libmp3lame -b:a 64k -c:v png -disposition:v attached_pic -id3v2_version 3 tone.mp3
# A clip short enough to reopen many times a second.
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 0.2 "${x264[@]}" "${aac[@]}" clip.mp4
# FLV over HTTP: length-prefixed H.264 from the network; and a copy with
# bytes trashed all over its tag bodies.
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 4 "${x264[@]}" "${aac[@]}" av4.flv
/usr/bin/python3 - av4.flv bad.flv <<'EOF'
import random, sys
data = bytearray(open(sys.argv[1], 'rb').read())
rng = random.Random(5)
for i in range(4000, len(data), 997):
    data[i] = rng.randrange(256)
    if rng.random() < 0.3:
        data[i + 1:i + 4] = bytes([0xff, rng.randrange(256), 0])
open(sys.argv[2], 'wb').write(data)
EOF
# Cut off in the middle of the media data.
head -c $(($(stat -c %s av8.mp4) * 2 / 5)) av8.mp4 > truncated.mp4
# Nothing a source can play: subtitles only.
printf '1\n00:00:00,000 --> 00:00:01,000\nhello\n' > subs.srt
# HLS, 6 s in 1 s segments, served by a plain HTTP server.
mkdir -p hls
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 6 "${x264[@]}" "${aac[@]}" -f hls -hls_time 1 \
  -hls_playlist_type vod -hls_segment_filename 'hls/seg%02d.ts' hls/index.m3u8

touch .done
