# Shared by the scripts (sourced, not run): package installs that print one
# line a step and keep apt's own output in a log, root or sudo, the Debian
# mirror this machine uses, builds (the fuzz targets' too), and work run a
# few jobs at a time. Nothing here may end a script because a machine lacks
# an optional file: no command whose failure is harmless stands in a
# pipeline under `set -e -o pipefail`.

VESK_LOG_DIR=${VESK_LOG_DIR:-${TMPDIR:-/tmp}/vesk-setup}
VESK_APT_LOG=$VESK_LOG_DIR/apt.log

# The command prefix for what needs root: empty as root, sudo otherwise.
vesk_sudo() {
  if [ "$(id -u)" -eq 0 ]; then
    return 0
  fi
  if ! command -v sudo >/dev/null 2>&1; then
    echo "setup: not root and no sudo: run this as root, or install sudo" >&2
    exit 1
  fi
  echo sudo
}

# The packages of the list that are not installed, one a line.
vesk_missing() {
  local p status
  for p in "$@"; do
    status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null) || status=
    [ "$status" = "install ok installed" ] || echo "$p"
  done
}

vesk_apt_updated=0
# vesk_install WHAT PACKAGE...: installs what is missing of the packages,
# saying in one line what and how long, with apt's own output in the log.
vesk_install() {
  local what=$1
  shift
  local missing sudo start status=0
  missing=$(vesk_missing "$@")
  if [ -z "$missing" ]; then
    echo "setup: $what: present"
    return 0
  fi
  sudo=$(vesk_sudo)
  mkdir -p "$VESK_LOG_DIR"
  # shellcheck disable=SC2086 # one package a word
  echo "setup: $what: installing $(echo $missing | wc -w) packages (log: $VESK_APT_LOG)"
  start=$SECONDS
  {
    echo "== $(date -u '+%F %T') $what: $missing"
    if [ "$vesk_apt_updated" = 0 ]; then
      $sudo apt-get -o DPkg::Lock::Timeout=300 update
    fi
    # shellcheck disable=SC2086
    DEBIAN_FRONTEND=noninteractive $sudo apt-get -o DPkg::Lock::Timeout=300 install -y \
      --no-install-recommends $missing
  } >>"$VESK_APT_LOG" 2>&1 || status=$?
  if [ "$status" != 0 ]; then
    echo "setup: $what: apt-get failed (status $status); the end of $VESK_APT_LOG:" >&2
    tail -n 25 "$VESK_APT_LOG" >&2
    exit 1
  fi
  vesk_apt_updated=1
  echo "setup: $what: installed in $((SECONDS - start)) s"
}

# The first Debian archive URI of this machine's apt sources: deb822 files
# (a fresh Debian 12 has only those), then one-line ones, then Debian's
# default. Security and update archives are not it.
vesk_debian_mirror() {
  local f uri=
  for f in /etc/apt/sources.list.d/*.sources; do
    [ -r "$f" ] || continue
    uri=$(awk '$1 == "URIs:" { for (i = 2; i <= NF; i++) if ($i ~ /^https?:\/\/.*\/debian\/?$/) { print $i; exit } }' "$f")
    [ -n "$uri" ] && break
  done
  if [ -z "$uri" ]; then
    for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
      [ -r "$f" ] || continue
      # "deb [options] URI suite components": the URI is the first word
      # after "deb" that is not an option.
      uri=$(awk '$1 == "deb" { for (i = 2; i <= NF; i++) if ($i ~ /^https?:\/\//) { if ($i ~ /\/debian\/?$/) { print $i; exit } else break } }' "$f")
      [ -n "$uri" ] && break
    done
  fi
  echo "${uri:-http://deb.debian.org/debian}"
}

# vesk_build DIR [cmake options...]: configures and builds into DIR in one
# line; the compiler's output stays in DIR/build.log and its end is shown
# when the build fails.
vesk_build() {
  local dir=$1
  shift
  local top launcher=() start=$SECONDS status=0
  top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  # Worktrees and repeated runs share compiled objects when ccache is there.
  if command -v ccache >/dev/null 2>&1; then
    launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  fi
  mkdir -p "$dir"
  echo "build: $dir $*"
  {
    cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo "${launcher[@]}" "$@" &&
      cmake --build "$dir" --parallel "${VESK_BUILD_JOBS:-$(nproc)}"
  } >"$dir/build.log" 2>&1 || status=$?
  if [ "$status" != 0 ]; then
    echo "build: $dir failed (status $status); the end of $dir/build.log:" >&2
    tail -n 60 "$dir/build.log" >&2
    return 1
  fi
  echo "build: $dir built in $((SECONDS - start)) s"
}

# vesk_parallel JOBS FUNCTION ITEM...: runs FUNCTION ITEM for every item in the
# background, JOBS at a time, and returns once all have ended, whatever
# their status: each job reports for itself.
vesk_parallel() {
  local jobs=$1 task=$2 item running=0
  shift 2
  for item in "$@"; do
    if [[ $running -ge $jobs ]]; then
      wait -n || true
      running=$((running - 1))
    fi
    "$task" "$item" &
    running=$((running + 1))
  done
  wait || true
}

# The fuzz targets: every name X of tests/fuzz/fuzz_X.cpp, one a line.
vesk_fuzz_targets() {
  local f top
  top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  for f in "$top"/tests/fuzz/fuzz_*.cpp; do
    f=${f##*/fuzz_}
    echo "${f%.cpp}"
  done
}

# vesk_fuzz_args TARGET: the libFuzzer options of one target, one a line: its
# -max_len (8192, or "max_len = N" in tests/fuzz/TARGET.options, the
# [libfuzzer] file libFuzzer's runners read) and its dictionary
# (tests/fuzz/TARGET.dict) if it has one.
vesk_fuzz_args() {
  local t=$1 top max=8192 v
  top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  if [[ -f $top/tests/fuzz/$t.options ]]; then
    v=$(sed -n 's/^ *max_len *= *\([0-9][0-9]*\) *$/\1/p' "$top/tests/fuzz/$t.options" | tail -1)
    [[ -n $v ]] && max=$v
  fi
  echo "-max_len=$max"
  if [[ -f $top/tests/fuzz/$t.dict ]]; then echo "-dict=$top/tests/fuzz/$t.dict"; fi
}

# vesk_fuzz_build BUILD_DIR TARGET...: builds the fuzz targets with clang in
# BUILD_DIR (configure.log and build.log there, shown when a step fails).
# Ends the script with 1 when the build fails, with 2 when clang++ or one of
# the targets named is missing.
vesk_fuzz_build() {
  local build=$1 top t
  shift
  top=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
  command -v clang++ >/dev/null || { echo "clang++ not found (apt-get install clang)" >&2; exit 2; }
  echo "== building fuzz targets in $build"
  mkdir -p "$build"
  cmake -S "$top/tests/fuzz" -B "$build" -DCMAKE_CXX_COMPILER=clang++ -DVESK_FUZZ=ON \
    >"$build/configure.log" 2>&1 || { cat "$build/configure.log"; exit 1; }
  cmake --build "$build" -j"$(nproc)" >"$build/build.log" 2>&1 || { cat "$build/build.log"; exit 1; }
  for t in "$@"; do
    [[ -x $build/fuzz_$t ]] || { echo "no such target: $t" >&2; exit 2; }
  done
}
