#!/usr/bin/env bash
# Makes the seeds of disk_fuzzer from disks that zarn-img makes: every layout,
# encrypted (password "p") and a child over its parent, each with a little
# data across a grain border. Usage: fuzz/make_disk_seeds.sh ZARN_IMG OUT_DIR
set -euo pipefail
here=$(dirname "$(realpath "$0")")
zarn_img=$(realpath "$1")
out=$(realpath "$2")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
printf 'zarn keeps this across a grain border %.0s' {1..40} > data
export ZARN_PASSWORD=p

make_disk() {  # name, create options
  local name=$1; shift
  mkdir "$name"
  (cd "$name" && "$zarn_img" create "$@" disk.vmdk 8M >/dev/null &&
     "$zarn_img" write --offset 65000 disk.vmdk ../data >/dev/null)
}
make_disk plain
make_disk split -o subformat=twoGbMaxExtentSparse,split-size=2M
make_disk compressed -o subformat=streamOptimized
make_disk encrypted -o encrypted=on
mkdir child
(cd child && "$zarn_img" create p.vmdk 8M >/dev/null && "$zarn_img" write p.vmdk ../data >/dev/null &&
   "$zarn_img" create -o backing-file=p.vmdk disk.vmdk >/dev/null &&
   "$zarn_img" write --offset 130000 disk.vmdk ../data >/dev/null)

python3 "$here/pack_files.py" "$out"
