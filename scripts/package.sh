#!/usr/bin/env bash
# scripts/package.sh [BUILD_DIR] [cmake options...]
# Builds the library and veskhost for /usr into BUILD_DIR (default
# build-deb/), makes the Debian packages (libveskio1, libveskio-dev,
# veskhost) for the build's architecture and lists them. When they are for
# this machine and we are root, installs them, builds the example receiver
# plug-in against them both ways, loads it with the installed veskhost, and
# removes them again.
# VESK_LOCK=/tmp/vesk-cpu.lock serialises the compile steps on a shared host.
set -euo pipefail
top=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$top/build-deb}
shift || true
lock=()
[ -n "${VESK_LOCK:-}" ] && lock=(flock "$VESK_LOCK")
launcher=()
command -v ccache >/dev/null && launcher=(-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)

cmake -S "$top" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX=/usr \
  -DVESK_TESTS=OFF "${launcher[@]}" "$@" >/dev/null
"${lock[@]}" cmake --build "$dir" --target VeskIO veskhost
rm -rf "$dir/packages"
(cd "$dir" && cpack -G DEB -B "$dir/packages" >/dev/null)
rm -rf "$dir/packages/_CPack_Packages"

debs=("$dir"/packages/*.deb)
for deb in "${debs[@]}"; do
  echo "== $(basename "$deb")"
  dpkg-deb -f "$deb" Package Version Architecture Depends
  dpkg-deb -c "$deb" | awk '$6 !~ /\/$/ {print "   ", $6, $7, $8}'
done

arch=$(dpkg-deb -f "${debs[0]}" Architecture)
if [ "$arch" != "$(dpkg --print-architecture)" ] || [ "$(id -u)" != 0 ]; then
  echo "== not installed here (packages for $arch, this machine $(dpkg --print-architecture), uid $(id -u))"
  exit 0
fi
for p in libveskio1 libveskio-dev veskhost; do
  if dpkg -s "$p" >/dev/null 2>&1; then
    echo "$p is already installed on this machine: not touching it" >&2
    exit 1
  fi
done

remove() {
  echo "== removing the packages"
  dpkg --purge veskhost libveskio-dev libveskio1 >/dev/null
}
trap remove EXIT
echo "== installing ${debs[*]##*/}"
apt-get -o DPkg::Lock::Timeout=300 install -y --no-install-recommends "${debs[@]}" >"$dir/packages/apt.log"
dpkg -L libveskio1 libveskio-dev veskhost | grep -E '\.so|\.pc$|Config\.cmake$|bin/' | sed 's/^/    /'
echo "== the example plug-in against the installed packages"
"$top/scripts/custom-receiver-check.sh" /usr "$dir/packages/example"
echo "== /usr/bin/veskhost inspect VeskInputRtsp"
/usr/bin/veskhost inspect VeskInputRtsp 2>&1 || true
