#!/usr/bin/env bash
# Installs the built tree into a scratch prefix and builds a consumer against
# it twice: through the CMake package and through pkg-config. Both programs
# run without LD_LIBRARY_PATH: the CMake build records where the library
# lies, and the pkg-config Libs line gives it as the run path.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
unset LD_LIBRARY_PATH
cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
mkdir "$scratch/disks-cmake" "$scratch/disks-pc"
"$scratch/cmake/consumer" "$scratch/disks-cmake"
export PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig:$scratch/prefix/lib/x86_64-linux-gnu/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/consumer.cc" -o "$scratch/consumer-pc" $(pkg-config --cflags --libs zarn)
"$scratch/consumer-pc" "$scratch/disks-pc"
# The installed tool needs no library of the tree at all.
"$scratch/prefix/bin/zarn-img" create "$scratch/disks-pc/tool.vmdk" 8M >/dev/null
echo "package consumer: ok"
