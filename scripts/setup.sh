#!/usr/bin/env bash
# Installs what building, running and testing need on Debian 12, if missing.
set -euo pipefail

packages=(
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev
  qtbase5-dev libqt5serialport5-dev
  libavformat-dev libavcodec-dev libavutil-dev libavdevice-dev libasound2-dev
  libgtest-dev ffmpeg python3
  # The RTSP server of the integration tests (scripts/rtsp-server.py).
  python3-gi python3-gst-1.0 gir1.2-gst-rtsp-server-1.0 gstreamer1.0-plugins-base
  gstreamer1.0-plugins-good gstreamer1.0-plugins-bad gstreamer1.0-plugins-ugly
  gstreamer1.0-libav gstreamer1.0-tools
)

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ((${#missing[@]})); then
  echo "setup: installing ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
else
  echo "setup: all build and test packages present"
fi
