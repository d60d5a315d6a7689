# Shared by the set-up scripts (sourced, not run): package installs that
# print one line a step and keep apt's own output in a log, root or sudo,
# and the Debian mirror this machine uses. Nothing here may end a script
# because a machine lacks an optional file: no command whose failure is
# harmless stands in a pipeline under `set -e -o pipefail`.

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
