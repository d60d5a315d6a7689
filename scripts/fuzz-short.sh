#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang (ASan + UBSan) in a
# build directory of their own and runs each for a short while, starting from
# a few realistic seeds plus whatever corpus earlier runs left behind.
#
# Usage: scripts/fuzz-short.sh [-t SECONDS] [-b BUILD_DIR] [SECONDS] [TARGET...]
#   SECONDS    per target, default 20 (also as the first plain argument)
#   BUILD_DIR  default build-fuzz beside this scripts/ folder
#   TARGET     any of: sdp rtp h264_sps h265_sps rtsp_reader mcu_line mjpeg (default all)
# Exit status 0 when every target ran clean; findings are written to
# BUILD_DIR/artifacts/, each run's log to BUILD_DIR/logs/.
#
# Longer run, before a release or after a change to input/RtpMedia.* or
# input/RtspReader.*: an hour per target, then several hours of the packet
# target on both cores; the corpus in BUILD_DIR/corpus/ grows from run to run.
#   scripts/fuzz-short.sh -t 3600
#   build-fuzz/fuzz_rtp -jobs=2 -workers=2 -max_len=8192 -timeout=10 \
#       -max_total_time=14400 build-fuzz/corpus/rtp build-fuzz/seeds/rtp
# Re-run one finding: build-fuzz/fuzz_rtp build-fuzz/artifacts/rtp-crash-<sha>
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
seconds=20
build="$repo/build-fuzz"
while getopts "t:b:h" opt; do
    case $opt in
        t) seconds=$OPTARG ;;
        b) build=$OPTARG ;;
        *) sed -n '2,11p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
targets=("$@")
[[ ${#targets[@]} -gt 0 ]] || targets=(sdp rtp h264_sps h265_sps rtsp_reader mcu_line mjpeg)
[[ $seconds =~ ^[0-9]+$ ]] || { echo "seconds must be a number: $seconds" >&2; exit 2; }

command -v clang++ >/dev/null || { echo "clang++ not found (apt-get install clang)" >&2; exit 2; }

echo "== building fuzz targets in $build"
mkdir -p "$build"
cmake -S "$repo/tests/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DVESK_FUZZ=ON \
    >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
cmake --build "$build" -j"$(nproc)" >"$build/build.log" 2>&1 || { cat "$build/build.log"; exit 1; }

# Seeds: hex text to bytes.
seed() {
    mkdir -p "$(dirname "$1")"
    printf '%b' "$(sed 's/../\\x&/g' <<<"$2")" >"$1"
}
# One record of fuzz_rtp: flags, repeat, 16-bit length, RTP packet.
record() {
    local flags=$1 repeat=$2 payload=$3
    local len=$(( ${#payload} / 2 + 12 ))
    printf '%02x%02x%04x80600001%08x2089abcd%s' "$flags" "$repeat" "$len" "$4" "$payload"
}
s="$build/seeds"
rm -rf "$s"
crlf() { sed 's/$/\r/' >"$1"; }
mkdir -p "$s/sdp"
crlf "$s/sdp/h264-aac" <<'EOF'
v=0
o=- 1 1 IN IP4 127.0.0.1
s=Session
t=0 0
m=video 0 RTP/AVP 96
a=rtpmap:96 H264/90000
a=framerate:25
a=fmtp:96 packetization-mode=1;sprop-parameter-sets=Z01AKOygPAET8uAiAAADAAIAAAMAZB4wYyw=,aOvjyyA=
a=control:stream=0
m=audio 0 RTP/AVP 97
a=rtpmap:97 MPEG4-GENERIC/48000/2
a=fmtp:97 streamtype=5;mode=AAC-hbr
a=control:stream=1
EOF
crlf "$s/sdp/h265-pcma" <<'EOF'
v=0
m=video 0 RTP/AVP 96
a=rtpmap:96 H265/90000
a=fmtp:96 sprop-vps=QAEMAf//AWAAAAMAkAAAAwAAAwB4lZgJ;sprop-sps=QgEBAWAAAAMAkAAAAwAAAwB4oAPAgBDlllZpJMrwFoCAAAADAIAAAAyE;sprop-pps=RAHBcrRiQA==
a=control:rtsp://10.0.0.2/cam/trackID=1
m=audio 0 RTP/AVP 8
a=rtpmap:8 PCMA/8000
a=control:trackID=2
EOF
seed "$s/h264_sps/1080" 674d4028eca03c0113f2e022000003000200000300641e30632c
seed "$s/h264_sps/444" 67f4001e919b281405ff1380880000030008000003019078b16cb0
seed "$s/h264_sps/scaling" 67640028ad95d10ae2e57442b8b95d10ae2e57442b8b95d10ae2e57442b8b95d10ae8857442ba215d10ae88562e57442ba215d10ae8857442ba2158b2ca805002264
seed "$s/h264_sps/poc1" 674d0028950e3888a00961016824c8
seed "$s/h265_sps/1080" 420101016000000300900000030000030078a003c08010e596566924caf0168080000003008000000c84
seed "$s/rtp/h264-aac" "00$(record 0 0 65a1a2 1)$(record 0 0 7c85b1b2 2)$(record 0 3 7c05c1 2)\
$(record 0 0 7c45d1 2)$(record 0 0 180006674d4028eca0000468ebe3cb 3)$(record 1 0 00101c00abcdef 4)\
$(record 3 0 aabb02 5)"
seed "$s/rtp/h265" "01$(record 0 0 0201aa 1)$(record 0 0 620181f1 2)$(record 0 1 620101f2 2)\
$(record 0 0 620141f3 2)$(record 1 0 d5d5 3)"
# A fragmented unit that outgrows the reassembly buffer.
seed "$s/rtp/overflow" "00$(record 0 0 7c85 9)$(record 0 255 "7c05$(printf '%04200d' 0)" 9)\
$(record 0 255 "7c05$(printf '%04200d' 0)" 9)$(record 0 0 7c4501 9)"
# The RTSP reader: a whole dialogue with frames behind it, frames alone.
cp -r "$repo/tests/fuzz/seeds/rtsp_reader" "$s/rtsp_reader"
# The microcontroller line: status, key, configuration and version frames.
cp -r "$repo/tests/fuzz/seeds/mcu_line" "$s/mcu_line"
# The camera's MJPEG: a frame with its tables at byte 299, then one without
# any; an opening that starts without tables.
seed "$s/mjpeg/tables-at-299" "ff0132ffd8fffe0127$(printf '%0586d' 0)ffc4001f00ffd90008ffd8ffdb0004ffd9"
seed "$s/mjpeg/none" "01000affd8ffe00004ffd9ff"

mkdir -p "$build/artifacts" "$build/logs"
declare -a summary
failed=0
for t in "${targets[@]}"; do
    bin="$build/fuzz_$t"
    [[ -x $bin ]] || { echo "no such target: $t" >&2; exit 2; }
    corpus="$build/corpus/$t"
    log="$build/logs/$t.log"
    mkdir -p "$corpus" "$s/$t"
    extra=()
    [[ $t == sdp ]] && extra+=(-dict="$repo/tests/fuzz/sdp.dict")
    echo "== fuzz_$t for ${seconds}s"
    status=clean
    if ! "$bin" -max_total_time="$seconds" -max_len=8192 \
        -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$t-" "${extra[@]}" "$corpus" "$s/$t" >"$log" 2>&1; then
        status=FAILED
        failed=1
        grep -E "^(==[0-9]+==ERROR|SUMMARY|.*runtime error|artifact_prefix|Test unit written)" "$log" |
            head -8 || tail -20 "$log"
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    # A target that died before its first report has no "cov:" line: grep
    # finds nothing, which must not end the script.
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2) || cov=
    files=$(find "$corpus" -type f | wc -l)
    summary+=("$(printf '%-10s %-7s %10s runs  cov %-5s corpus %s' "$t" "$status" "${runs:-?}" \
        "${cov:-?}" "$files")")
done

echo
echo "== fuzz summary (${seconds}s per target, logs in $build/logs)"
printf '%s\n' "${summary[@]}"
if [[ $failed -ne 0 ]]; then
    echo "FAILED: findings in $build/artifacts"
    exit 1
fi
echo "all targets clean"
