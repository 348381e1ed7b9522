#!/usr/bin/env bash
# Installs the built tree into a scratch prefix and builds a consumer against
# it twice: through the CMake package and through pkg-config.
set -euo pipefail
build_dir=$1
source_dir=$(cd "$(dirname "$0")" && pwd)
scratch=$(mktemp -d)
trap 'rm -rf "$scratch"' EXIT
cmake --install "$build_dir" --prefix "$scratch/prefix" >/dev/null
cmake -S "$source_dir" -B "$scratch/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$scratch/prefix" >/dev/null
cmake --build "$scratch/cmake" >/dev/null
LD_LIBRARY_PATH="$scratch/prefix/lib:$scratch/prefix/lib/x86_64-linux-gnu" "$scratch/cmake/consumer" "$scratch/disk.vmdk"
export PKG_CONFIG_PATH="$scratch/prefix/lib/pkgconfig:$scratch/prefix/lib/x86_64-linux-gnu/pkgconfig"
# shellcheck disable=SC2046
c++ -std=c++17 "$source_dir/consumer.cc" -o "$scratch/consumer-pc" $(pkg-config --cflags --libs zarn)
LD_LIBRARY_PATH="$scratch/prefix/lib:$scratch/prefix/lib/x86_64-linux-gnu" "$scratch/consumer-pc" "$scratch/disk-pc.vmdk"
echo "package consumer: ok"
