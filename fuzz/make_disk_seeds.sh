#!/usr/bin/env bash
# Makes the seeds of disk_fuzzer from disks that zarn-img makes: every layout,
# encrypted (password "p") and a child over its parent, each with a little
# data across a grain border. Usage: fuzz/make_disk_seeds.sh ZARN_IMG OUT_DIR
set -euo pipefail
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

# name\0, u32 length, u16 pieces, then (u32 offset, u16 length, bytes) for
# each run of non-zero bytes; the main file first.
python3 - "$out" <<'PY'
import os, struct, sys
out = sys.argv[1]
for disk in sorted(os.listdir('.')):
    if not os.path.isdir(disk):
        continue
    names = ['disk.vmdk'] + sorted(n for n in os.listdir(disk) if n != 'disk.vmdk' and not n.endswith('.lock'))
    blob = b''
    for name in names:
        data = open(os.path.join(disk, name), 'rb').read()
        pieces, i = [], 0
        while i < len(data):
            if data[i] == 0:
                i += 1
                continue
            j = i
            while j < len(data) and j - i < 65535 and (data[j] != 0 or data[j:j + 16].strip(b'\0')):
                j += 1
            pieces.append((i, data[i:j]))
            i = j
        blob += name.encode() + b'\0' + struct.pack('<IH', len(data), len(pieces))
        for offset, piece in pieces:
            blob += struct.pack('<IH', offset, len(piece)) + piece
    open(os.path.join(out, 'seed-' + disk), 'wb').write(blob)
PY
