#!/usr/bin/env bash
# Installs the Debian packages the build, the tests and the benchmarks need,
# only when one of them is missing.
set -euo pipefail

PACKAGES=(
  cmake g++ ninja-build pkg-config binutils python3 python3-jsonschema
  libpango1.0-dev libcairo2-dev libfontconfig-dev libfreetype-dev
  libavformat-dev libavcodec-dev libswscale-dev libavutil-dev
  libinih-dev libepoxy-dev libegl-dev libegl-mesa0 libgl1-mesa-dri
  fonts-wqy-microhei fonts-noto-color-emoji
  nlohmann-json3-dev libcli11-dev libcpp-httplib-dev
  libgtest-dev libgmock-dev libbenchmark-dev libpixman-1-dev chromium
  ffmpeg clang libclang-rt-14-dev clang-format
  libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools
  gstreamer1.0-plugins-base gstreamer1.0-plugins-good gstreamer1.0-plugins-ugly
  gstreamer1.0-libav gstreamer1.0-x
  obs-studio libobs-dev xvfb xauth
)

missing=()
for package in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done

if [ ${#missing[@]} -eq 0 ]; then
  exit 0
fi

echo "Installing missing packages: ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  SUDO="sudo"
fi
$SUDO apt-get update
DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
