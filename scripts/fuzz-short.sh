#!/usr/bin/env bash
# Builds the libFuzzer targets of tests/fuzz with clang (ASan + UBSan) in a
# build directory of their own and runs each for a short while, two at a
# time, starting from the checked-in corpus (tests/fuzz/corpus/TARGET), the
# hand-made seeds (tests/fuzz/seeds/TARGET) and whatever earlier short runs
# left in BUILD_DIR/corpus/TARGET. The checked-in corpus is only read here;
# scripts/fuzz-campaign.sh is what grows it.
#
# Usage: scripts/fuzz-short.sh [-t SECONDS] [-b BUILD_DIR] [-j JOBS] [SECONDS] [TARGET...]
#   SECONDS    per target, default 20 (also as the first plain argument)
#   BUILD_DIR  default build-fuzz beside this scripts/ folder
#   JOBS       targets run at the same time, default 2
#   TARGET     a name X of tests/fuzz/fuzz_X.cpp (default all)
# Exit status 0 when every target ran clean; findings are written to
# BUILD_DIR/artifacts/, each run's log to BUILD_DIR/logs/.
# Re-run one finding: build-fuzz/fuzz_rtp build-fuzz/artifacts/rtp-crash-<sha>
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/lib.sh
. "$repo/scripts/lib.sh"
seconds=20
build="$repo/build-fuzz"
jobs=2
while getopts "t:b:j:h" opt; do
    case $opt in
        t) seconds=$OPTARG ;;
        b) build=$OPTARG ;;
        j) jobs=$OPTARG ;;
        *) sed -n '2,16p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
if [[ $# -gt 0 && $1 =~ ^[0-9]+$ ]]; then
    seconds=$1
    shift
fi
targets=("$@")
if [[ ${#targets[@]} -eq 0 ]]; then
    mapfile -t targets < <(vesk_fuzz_targets)
fi
[[ $seconds =~ ^[0-9]+$ ]] || { echo "seconds must be a number: $seconds" >&2; exit 2; }
[[ $jobs =~ ^[1-9][0-9]*$ ]] || { echo "jobs must be a number above 0: $jobs" >&2; exit 2; }

vesk_fuzz_build "$build" "${targets[@]}"

mkdir -p "$build/artifacts" "$build/logs" "$build/results"

# One target: its run, then one summary line in BUILD_DIR/results/TARGET.
run() {
    local t=$1 log="$build/logs/$1.log" status=clean
    rm -f "$build/results/$t"
    local dirs=("$build/corpus/$t")
    mkdir -p "$build/corpus/$t"
    for d in "$repo/tests/fuzz/corpus/$t" "$repo/tests/fuzz/seeds/$t"; do
        [[ -d $d ]] && dirs+=("$d")
    done
    local extra
    mapfile -t extra < <(vesk_fuzz_args "$t")
    if ! "$build/fuzz_$t" -max_total_time="$seconds" \
        -timeout=10 -rss_limit_mb=4096 -print_final_stats=1 \
        -artifact_prefix="$build/artifacts/$t-" "${extra[@]}" "${dirs[@]}" >"$log" 2>&1; then
        status=FAILED
    fi
    local runs cov files
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    # A target that died before its first report has no "cov:" line: grep
    # finds nothing, which must not end the script.
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2) || cov=
    files=$(find "$build/corpus/$t" -type f | wc -l)
    printf '%-12s %-7s %10s runs  cov %-5s new corpus %s\n' "$t" "$status" "${runs:-?}" \
        "${cov:-?}" "$files" >"$build/results/$t"
}

echo "== ${#targets[@]} targets for ${seconds}s each, $jobs at a time"
vesk_parallel "$jobs" run "${targets[@]}"

echo
echo "== fuzz summary (${seconds}s per target, logs in $build/logs)"
failed=0
for t in "${targets[@]}"; do
    if [[ ! -f $build/results/$t ]]; then
        echo "$t: no result"
        failed=1
        continue
    fi
    cat "$build/results/$t"
    if grep -q ' FAILED ' "$build/results/$t"; then
        failed=1
        grep -E "^(==[0-9]+==ERROR|SUMMARY|.*runtime error|artifact_prefix|Test unit written)" \
            "$build/logs/$t.log" | head -8 || tail -20 "$build/logs/$t.log"
    fi
done
if [[ $failed -ne 0 ]]; then
    echo "FAILED: findings in $build/artifacts"
    exit 1
fi
echo "all targets clean"
