#!/usr/bin/env bash
# Installs the Debian packages the build needs, and only those that are missing.
set -euo pipefail

packages=(build-essential g++ cmake ninja-build pkg-config libwxgtk3.2-dev zlib1g-dev libssl-dev
  libdeflate-dev googletest libgtest-dev libbenchmark-dev qemu-utils libvmdk-utils
  nbdkit nbdkit-plugin-dev libnbd-bin fuse3 pybind11-dev python3-dev python3-pytest)
# Extra packages a caller names, such as clang for the fuzz targets.
packages+=("$@")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

sudo=""
if [ "$(id -u)" -ne 0 ]; then sudo="sudo"; fi
echo "Installing: ${missing[*]}"
$sudo apt-get update -qq
DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
