#!/usr/bin/env bash
# Installs what building, running and testing need on Debian 12, if missing,
# one line a group; apt's own output goes to the log it names.
set -euo pipefail
# shellcheck source=scripts/lib.sh
. "$(dirname "$0")/lib.sh"

vesk_install "compilers and build tools" \
  build-essential cmake ninja-build pkg-config clang clang-format libclang-rt-14-dev ccache
vesk_install "Qt, FFmpeg, ALSA and GoogleTest" \
  qtbase5-dev libqt5serialport5-dev libavformat-dev libavcodec-dev libavutil-dev libavdevice-dev \
  libasound2-dev libgtest-dev
vesk_install "the test peers (ffmpeg, python, the RTSP server's GStreamer)" \
  ffmpeg python3 python3-gi python3-gst-1.0 gir1.2-gst-rtsp-server-1.0 \
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-bad \
  gstreamer1.0-plugins-ugly gstreamer1.0-libav gstreamer1.0-tools
