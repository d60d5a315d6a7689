#!/usr/bin/env bash
# scripts/fresh-check.sh [--keep] [COMMAND...]
#
# Tries the README's two commands as a new user would, on a Debian 12 machine
# that has never seen the project: makes a clean root with mmdebstrap (the
# "apt" variant), gives it this machine's apt sources in deb822 form only (a
# fresh Debian 12 has no /etc/apt/sources.list), copies in the committed tree
# (git archive HEAD: nothing from the work tree or a build directory), mounts
# /proc, /sys, /dev, /dev/pts, a fresh /dev/shm and /run, and runs each command
# there in turn as root, printing its exit status and wall time. The root is
# unmounted and removed whatever happened (--keep leaves it, for a look).
#
# COMMAND defaults to the README's: scripts/demo.sh, then scripts/test.sh.
# Needs root (mount, chroot); takes as long as the commands and their
# installs. Each command's output goes to $VESK_FRESH_LOGS (default
# /tmp/vesk-fresh) as NAME.log; the last lines are the summary:
#   fresh-check: scripts/demo.sh: exit 0 in 3 min 12 s
#   fresh-check: scripts/test.sh: exit 0 in 41 min 5 s
#   fresh-check: passed
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
# shellcheck source=scripts/lib.sh
. "$top/scripts/lib.sh"

keep=0
commands=()
for a in "$@"; do
  case $a in
    --keep) keep=1 ;;
    -h | --help) sed -n '2,20p' "$0" | sed 's/^# \{0,1\}//'; exit 0 ;;
    -*) echo "fresh-check: unknown option $a" >&2; exit 2 ;;
    *) commands+=("$a") ;;
  esac
done
((${#commands[@]})) || commands=(scripts/demo.sh scripts/test.sh)
if [ "$(id -u)" -ne 0 ]; then
  echo "fresh-check: needs root (mount, chroot)" >&2
  exit 2
fi

logs=${VESK_FRESH_LOGS:-/tmp/vesk-fresh}
mkdir -p "$logs"
vesk_install "the clean-root maker" mmdebstrap

work=$(mktemp -d "${TMPDIR:-/tmp}/vesk-fresh-root.XXXXXX")
root=$work/root
cleanup() {
  # Mounts live in the private namespace of the run below and go with it;
  # this only makes sure nothing is left mounted before removing the tree.
  local m
  for m in $(awk -v r="$root" 'index($2, r) == 1 { print $2 }' /proc/mounts | sort -r); do
    umount -l "$m" 2>/dev/null || true
  done
  if ((keep)); then
    echo "fresh-check: the root is kept in $root"
  else
    rm -rf "$work"
  fi
}
trap cleanup EXIT

mirror=${VESK_DEBIAN_MIRROR:-$(vesk_debian_mirror)}
echo "fresh-check: making a clean Debian 12 root from $mirror (log: $logs/mmdebstrap.log)"
start=$SECONDS
if ! mmdebstrap --variant=apt bookworm "$root" "deb $mirror bookworm main" >"$logs/mmdebstrap.log" 2>&1; then
  echo "fresh-check: mmdebstrap failed; the end of its log:" >&2
  tail -n 25 "$logs/mmdebstrap.log" >&2
  exit 1
fi
echo "fresh-check: root made in $((SECONDS - start)) s ($(du -sm "$root" | cut -f1) MB)"

# The machine's sources, deb822 only, as a fresh machine has them: its
# .sources files as they are, and its one-line entries turned into deb822.
rm -f "$root/etc/apt/sources.list"
rm -f "$root"/etc/apt/sources.list.d/*
for f in /etc/apt/sources.list.d/*.sources; do
  [ -r "$f" ] && cp "$f" "$root/etc/apt/sources.list.d/"
done
for f in /etc/apt/sources.list /etc/apt/sources.list.d/*.list; do
  [ -r "$f" ] || continue
  awk '$1 == "deb" {
    i = 2
    if ($i ~ /^\[/) { while ($i !~ /\]$/) i++; i++ }
    uri = $i; suite = $(i + 1); comps = ""
    for (j = i + 2; j <= NF; j++) comps = comps (comps == "" ? "" : " ") $j
    printf "Types: deb\nURIs: %s\nSuites: %s\nComponents: %s\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n\n", uri, suite, comps
  }' "$f" >>"$root/etc/apt/sources.list.d/from-one-line.sources"
done
if ! ls "$root"/etc/apt/sources.list.d/*.sources >/dev/null 2>&1; then
  printf 'Types: deb\nURIs: %s\nSuites: bookworm bookworm-updates\nComponents: main\nSigned-By: /usr/share/keyrings/debian-archive-keyring.gpg\n' \
    "$mirror" >"$root/etc/apt/sources.list.d/debian.sources"
fi
cp /etc/resolv.conf "$root/etc/resolv.conf" 2>/dev/null || true

# The committed tree, as a clone would have it.
mkdir -p "$root/src/veskio"
git -C "$top" archive HEAD | tar -x -C "$root/src/veskio"
echo "fresh-check: copied $(git -C "$top" rev-parse --short HEAD) into /src/veskio"

# One private mount and PID namespace for all the commands: what is mounted
# and whatever a test leaves running end with it.
results=$logs/results
: >"$results"
unshare --mount --pid --fork --propagation private bash -s -- "$root" "$logs" "$results" \
  "${commands[@]}" <<'INNER'
set -uo pipefail
root=$1 logs=$2 results=$3
shift 3
mount -t proc proc "$root/proc"
mount --rbind /sys "$root/sys"
mount --rbind /dev "$root/dev"
mount -t tmpfs -o mode=1777 tmpfs "$root/dev/shm"
mount -t devpts -o newinstance,ptmxmode=0666,mode=0620 devpts "$root/dev/pts"
# A booted machine's /run, with the lock directory serial ports use.
mount -t tmpfs -o mode=0755 tmpfs "$root/run"
mkdir -p "$root/run/lock"
chmod 1777 "$root/run/lock"
for cmd in "$@"; do
  name=$(basename "${cmd%% *}" .sh | tr -c 'A-Za-z0-9._\n-' _)
  echo "fresh-check: running $cmd (log: $logs/$name.log)"
  start=$SECONDS
  status=0
  chroot "$root" /usr/bin/env -i HOME=/root PATH=/usr/local/sbin:/usr/local/bin:/usr/sbin:/usr/bin:/sbin:/bin \
    LANG=C.UTF-8 TERM=dumb bash -c "cd /src/veskio && $cmd" </dev/null >"$logs/$name.log" 2>&1 || status=$?
  took=$((SECONDS - start))
  printf '%s\t%s\t%s\n' "$status" "$took" "$cmd" >>"$results"
  echo "fresh-check: $cmd: exit $status in $((took / 60)) min $((took % 60)) s"
  if [ "$status" != 0 ]; then
    echo "fresh-check: the end of $logs/$name.log:"
    tail -n 30 "$logs/$name.log"
  fi
done
INNER

echo
failed=0
ran=0
while IFS=$'\t' read -r status took cmd; do
  ran=$((ran + 1))
  echo "fresh-check: $cmd: exit $status in $((took / 60)) min $((took % 60)) s"
  [ "$status" = 0 ] || failed=1
done <"$results"
if ((failed)) || [ "$ran" != "${#commands[@]}" ]; then
  echo "fresh-check: FAILED"
  exit 1
fi
echo "fresh-check: passed"
