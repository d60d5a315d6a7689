#!/usr/bin/env bash
# A fuzz campaign: every target (or the ones named) runs until N runs or its
# first finding, two at a time, starting from the checked-in corpus
# (tests/fuzz/corpus/TARGET) and the hand-made seeds (tests/fuzz/seeds/TARGET).
# What a run found is then merged back: the corpus is replaced by the
# smallest set of inputs (libFuzzer's -merge=1) that covers all of the old
# corpus, the seeds and the new inputs, so it stays small. Commit the changed
# corpus with the campaign's table (written to BUILD_DIR/campaign.md) in the
# README.
#
# Usage: scripts/fuzz-campaign.sh [--runs N] [--jobs J] [-b BUILD_DIR] [TARGET...]
#   N          runs per target, default 10000000
#   J          targets at the same time, default 2
#   BUILD_DIR  default build-fuzz beside this scripts/ folder
#   TARGET     a name X of tests/fuzz/fuzz_X.cpp (default all)
# Prints per target: runs, coverage (edges), wall time, clean or the
# finding; the last line says how the campaign ended. Exit status 1 when a
# target found something (its input is in BUILD_DIR/artifacts/), 2 on wrong
# use. Logs: BUILD_DIR/campaign/TARGET.log and TARGET.merge.log.
set -euo pipefail

repo=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
# shellcheck source=scripts/lib.sh
. "$repo/scripts/lib.sh"
runs=10000000
jobs=2
build="$repo/build-fuzz"
targets=()
while [[ $# -gt 0 ]]; do
    case $1 in
        --runs) runs=${2:-}; shift 2 ;;
        --runs=*) runs=${1#--runs=}; shift ;;
        --jobs) jobs=${2:-}; shift 2 ;;
        --jobs=*) jobs=${1#--jobs=}; shift ;;
        -b) build=${2:-}; shift 2 ;;
        -h|--help) sed -n '2,20p' "$0"; exit 0 ;;
        -*) echo "unknown option: $1" >&2; sed -n '11,15p' "$0" >&2; exit 2 ;;
        *) targets+=("$1"); shift ;;
    esac
done
[[ $runs =~ ^[1-9][0-9]*$ ]] || { echo "--runs needs a number above 0: $runs" >&2; exit 2; }
[[ $jobs =~ ^[1-9][0-9]*$ ]] || { echo "--jobs needs a number above 0: $jobs" >&2; exit 2; }
if [[ ${#targets[@]} -eq 0 ]]; then
    mapfile -t targets < <(vesk_fuzz_targets)
fi
vesk_fuzz_build "$build" "${targets[@]}"

work="$build/campaign"
mkdir -p "$work" "$build/artifacts"

duration() {
    printf '%dh%02dm%02ds' $(($1 / 3600)) $(($1 % 3600 / 60)) $(($1 % 60))
}

# One target: the run, the merge, and one line "status|runs|cov|seconds|
# corpus files|finding" in campaign/TARGET.result.
# shellcheck disable=SC2317 # called through vesk_parallel
campaign() {
    local t=$1
    rm -f "$work/$t.result"
    local log="$work/$t.log" found="$work/$t.new" merged="$work/$t.merged"
    local corpus="$repo/tests/fuzz/corpus/$t" seeds="$repo/tests/fuzz/seeds/$t"
    rm -rf "$found" "$merged"
    mkdir -p "$found" "$merged" "$corpus"
    local dirs=("$corpus")
    [[ -d $seeds ]] && dirs+=("$seeds")
    local extra
    mapfile -t extra < <(vesk_fuzz_args "$t")

    local start status=clean finding=
    start=$(date +%s)
    # Without allocation stacks: the sanitizer keeps every distinct one for
    # the whole run: after a million runs of one target that was a gigabyte,
    # and storing them a quarter of its time. A finding's input re-run alone
    # gets them back.
    if ! ASAN_OPTIONS=${ASAN_OPTIONS:-malloc_context_size=0} \
        "$build/fuzz_$t" -runs="$runs" -timeout=10 -rss_limit_mb=4096 \
        -print_final_stats=1 -artifact_prefix="$build/artifacts/$t-" "${extra[@]}" \
        "$found" "${dirs[@]}" >"$log" 2>&1; then
        status=FINDING
        finding=$( (grep -m1 -E '^SUMMARY: |^==[0-9]+==ERROR: ' "$log" || echo "exited badly") |
            sed 's/^==[0-9]*==//')
        finding+="; input $(sed -n 's/.*Test unit written to //p' "$log" | tail -1)"
    fi
    local seconds=$(($(date +%s) - start))
    local count cov
    count=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -1)
    cov=$(grep -o 'cov: [0-9]*' "$log" | tail -1 | cut -d' ' -f2) || cov=

    # The corpus is replaced only by a merge that went through.
    if "$build/fuzz_$t" -merge=1 -timeout=10 -rss_limit_mb=4096 "${extra[@]}" \
        "$merged" "${dirs[@]}" "$found" >"$work/$t.merge.log" 2>&1; then
        find "$corpus" -type f -delete
        cp "$merged"/* "$corpus"/ 2>/dev/null || true
    else
        finding+="${finding:+; }merge failed, corpus kept (see $work/$t.merge.log)"
        [[ $status == clean ]] && status=FINDING
    fi
    local files
    files=$(find "$corpus" -type f | wc -l)
    echo "$status|${count:-?}|${cov:-?}|$seconds|$files|$finding" >"$work/$t.result"
}

echo "== ${#targets[@]} targets to $runs runs each, $jobs at a time (logs in $work)"
vesk_parallel "$jobs" campaign "${targets[@]}"

table="$build/campaign.md"
{
    echo "Campaign of $(date -u +%Y-%m-%d), $runs runs per target ($jobs at a time):"
    echo
    echo "| Target | Runs | Coverage (edges) | Time | Corpus files | Result |"
    echo "|---|---|---|---|---|---|"
} >"$table"
echo
printf '%-12s %-8s %10s %6s %10s %7s\n' target result runs cov time corpus
bad=()
for t in "${targets[@]}"; do
    if [[ ! -f $work/$t.result ]]; then
        printf '%-12s %s\n' "$t" "no result (see $work/$t.log)"
        bad+=("$t")
        continue
    fi
    IFS='|' read -r status count cov seconds files finding <"$work/$t.result"
    printf '%-12s %-8s %10s %6s %10s %7s\n' "$t" "$status" "$count" "$cov" \
        "$(duration "$seconds")" "$files"
    [[ -n $finding ]] && echo "             $finding"
    [[ $status == clean ]] || bad+=("$t")
    echo "| $t | $count | $cov | $(duration "$seconds") | $files | ${status,,} |" >>"$table"
done
echo "(table for the README: $table)"
if [[ ${#bad[@]} -eq 0 ]]; then
    echo "fuzz campaign: ${#targets[@]} targets, $runs runs each, all clean"
    exit 0
fi
echo "fuzz campaign: ${#targets[@]} targets, $runs runs each, ${#bad[@]} with findings: ${bad[*]}"
exit 1
