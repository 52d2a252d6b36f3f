#!/usr/bin/env bash
# Installs the Debian packages needed to build, test, benchmark and fuzz the SDK.
# Idempotent: packages that are already installed are left alone, and nothing is
# fetched when everything is present. Works as root and through sudo.
set -euo pipefail

packages=(
  # toolchain
  build-essential cmake ninja-build pkg-config ccache clang-14 libclang-rt-14-dev clang-format
  # libraries
  libcurl4-openssl-dev libssl-dev nlohmann-json3-dev libsqlite3-dev
  libavformat-dev libavcodec-dev libavutil-dev libswscale-dev libswresample-dev
  libavdevice-dev libavfilter-dev
  # faces and QR codes in camera pictures; qrencode makes the scanner tests' codes
  libopencv-objdetect-dev libopencv-imgproc-dev opencv-data libzbar-dev qrencode
  # a real photograph with a face (the face detector's test): OpenCV's sample pictures
  opencv-doc
  libcpp-httplib-dev libcli11-dev
  # VAST ad documents; the local service's transcripts (recogniser and its US English model);
  # now-playing information on the session bus
  libpugixml-dev libpocketsphinx-dev libsphinxbase-dev pocketsphinx-en-us libdbus-1-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  # screens: window, input, audio output and text; Xvfb for the window tests
  libsdl2-dev libsdl2-ttf-dev fonts-dejavu-core xvfb x11-apps
  # real peers for the integration tests and benchmarks
  nginx libnginx-mod-rtmp ffmpeg curl strace time
  # speech for the transcription tests; a private session bus for the now-playing tests
  espeak-ng dbus
  # what the benchmark scripts use to read forms and do sums
  jq bc
  # screen capture on Wayland: the ScreenCast portal's frames come through PipeWire; the portal
  # test runs a headless wlroots compositor, PipeWire and the portal with its wlroots backend
  libpipewire-0.3-dev sway pipewire wireplumber xdg-desktop-portal xdg-desktop-portal-wlr
)

missing=()
for p in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed'; then
    missing+=("$p")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  echo "install-deps: all ${#packages[@]} packages present"
  exit 0
fi

echo "install-deps: installing ${missing[*]}"
if [ "$(id -u)" -eq 0 ]; then
  as_root=()
elif command -v sudo >/dev/null; then
  as_root=(sudo)
else
  echo "install-deps: need root or sudo to install: ${missing[*]}" >&2
  exit 1
fi

export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get update -q
# Package scripts must not start system services (nginx would grab port 80);
# the tests start their own instances on free ports.
policy=/usr/sbin/policy-rc.d
created_policy=0
if [ ! -e "$policy" ]; then
  printf '#!/bin/sh\nexit 101\n' | "${as_root[@]}" tee "$policy" >/dev/null
  "${as_root[@]}" chmod +x "$policy"
  created_policy=1
fi
cleanup() { if [ "$created_policy" -eq 1 ]; then "${as_root[@]}" rm -f "$policy"; fi; }
trap cleanup EXIT
"${as_root[@]}" apt-get install -y -q --no-install-recommends "${missing[@]}"
