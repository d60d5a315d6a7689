#!/usr/bin/env bash
# make_media.sh DIR: the media of the source tests, made once and again when this script changes.
set -euo pipefail
stamp=$(md5sum <"${BASH_SOURCE[0]}")
mkdir -p "$1/hls" && cd "$1"
exec 9>.lock && flock 9
[ "$(cat .done 2>/dev/null)" = "$stamp" ] && exit 0
ff=(ffmpeg -nostdin -v error -y)
video=(-f lavfi -i testsrc=size=320x240:rate=25)
audio=(-f lavfi -i sine=frequency=440:sample_rate=48000 -c:a aac -ac 2 -b:a 96k)
x264=(-c:v libx264 -preset ultrafast -g 25 -pix_fmt yuv420p)
x265=(-c:v libx265 -preset ultrafast -g 25 -pix_fmt yuv420p -x265-params log-level=error)
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 8 "${x264[@]}" -movflags +faststart av8.mp4
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 2 "${x264[@]}" av2.mkv
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 0.2 "${x264[@]}" clip.mp4
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 6 "${x264[@]}" -f hls -hls_time 1 -hls_playlist_type vod \
  -hls_segment_filename 'hls/seg%02d.ts' hls/index.m3u8
"${ff[@]}" "${video[@]}" -t 2 "${x264[@]}" -preset fast -profile:v high high2.mp4
"${ff[@]}" "${video[@]}" -t 2 "${x264[@]}" -f h264 - | "${ff[@]}" -f h264 -i - -c copy sps.mkv
"${ff[@]}" "${video[@]}" -t 2 "${x265[@]}:repeat-headers=1" hevc2.mkv
"${ff[@]}" "${video[@]}" "${audio[@]}" -t 2 "${x265[@]}" hevc2.ts
"${ff[@]}" -f lavfi -i sine=frequency=660:sample_rate=44100 -f lavfi -i color=c=blue:size=64x64 \
  -t 3 -map 0:a -map 1:v -frames:v 1 -c:a libmp3lame -c:v png -disposition:v attached_pic tone.mp3
"${ff[@]}" -f lavfi -i testsrc=size=160x120:rate=25 "${audio[@]}" -t 3 "${x264[@]}" lp.flv
"${ff[@]}" "${video[@]}" -t 3 "${x264[@]}" v3.ts
"${ff[@]}" -f lavfi -i testsrc=size=160x120:rate=25 -t 4 -c:v libtheora -g 25 v4.ogg
head -c $(($(stat -c %s av8.mp4) * 2 / 5)) av8.mp4 >truncated.mp4
printf '1\n00:00:00,000 --> 00:00:01,000\nhello\n' >subs.srt
/usr/bin/python3 - <<'EOF'
import random
rng, flv, i, tags = random.Random(5), open('lp.flv', 'rb').read(), 13, 0
while i + 11 <= len(flv):  # video tags whose first length reads 00 00 01
    tags += flv[i] == 9 and flv[i + 12] == 1 and flv[i + 16:i + 19] == b'\0\0\1'
    i += 15 + int.from_bytes(flv[i + 1:i + 4], 'big')
assert tags >= 10, 'lp.flv has too few delta frames whose length reads 00 00 01'
bad = bytearray(flv)  # bytes trashed all over
for i in range(4000, len(bad) - 4, 997):
    bad[i] = rng.randrange(256)
    if rng.random() < 0.3:
        bad[i + 1:i + 4] = bytes([0xff, rng.randrange(256), 0])
open('bad.flv', 'wb').write(bad)
ts = open('v3.ts', 'rb').read()  # one TS packet out of frame 30
pk = [ts[i:i + 188] for i in range(0, len(ts), 188)]
video = [i for i, p in enumerate(pk) if ((p[1] & 0x1f) << 8 | p[2]) == 0x100]
gone = video[video.index([i for i in video if pk[i][1] & 0x40][30]) + 1]
open('ccgap.ts', 'wb').write(b''.join(pk[:gone] + pk[gone + 1:]))
ogg = open('v4.ogg', 'rb').read()  # 100 kB without "OggS" halfway
at = [i for i in range(len(ogg)) if ogg.startswith(b'OggS', i)][ogg.count(b'OggS') // 2]
open('garbage.ogg', 'wb').write(ogg[:at] + bytes(rng.randrange(80, 256) for _ in range(100000)) + ogg[at:])
EOF
echo "$stamp" >.done
