#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the tools need, skipping those present.
# Idempotent; runs apt-get directly as root and through sudo otherwise.
set -euo pipefail

packages=(
  build-essential cmake pkg-config git
  libavformat-dev libavcodec-dev libswscale-dev libswresample-dev libavutil-dev
  libasound2-dev zlib1g-dev libyuv-dev libturbojpeg0-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  clang clang-format libclang-rt-14-dev
  ffmpeg valgrind python3
  libsdl2-dev xvfb xdotool imagemagick
  # The Python package, its tests and its offline install check, from Debian (no Python package
  # index is reachable).
  python3-numpy python3-pytest python3-setuptools python3-pip python3-venv
  # PipeWire: the library's backend (libpipewire, and GIO for the camera portal over D-Bus), and
  # for its tests a private daemon with its session manager, a bus, and a mock portal.
  libpipewire-0.3-dev libspa-0.2-dev libglib2.0-dev
  pipewire pipewire-bin wireplumber dbus-daemon python3-dbusmock python3-gi
)
# Tests against the kernel's virtual capture drivers boot a small VM.
vm_packages=(qemu-system-x86 busybox-static kmod v4l-utils alsa-utils)

missing=()
for p in "${packages[@]}" "${vm_packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
[ "$(id -u)" -eq 0 ] || sudo="sudo"
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -q
$sudo apt-get install -y -q --no-install-recommends "${missing[@]}"
