#!/usr/bin/env bash
# Makes the seeds of foreign_disk_fuzzer from disks that qemu-img and qemu-io
# make: stream-optimized (and the same grains with the directory at the end,
# behind a footer), flat in one and in several files, sparse with zeroed
# grains, and a child over a stream-optimized parent; each with a little data
# across a grain border. Usage: fuzz/make_foreign_disk_seeds.sh OUT_DIR
set -euo pipefail
here=$(dirname "$(realpath "$0")")
out=$(realpath "$1")
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
cd "$work"
printf 'zarn keeps this across a grain border %.0s' {1..40} > text
python3 - <<'PY'
data = bytearray(128 * 1024)
text = open('text', 'rb').read()
data[65000:65000 + len(text)] = text
data[100000:100300] = bytes(range(256)) + bytes(44)
open('model.raw', 'wb').write(data)
PY

make_disk() {  # name, then the commands that make disk.vmdk in its folder
  local name=$1; shift
  mkdir "$name"
  (cd "$name" && eval "$@" >/dev/null)
}
make_disk stream "qemu-img convert -f raw -O vmdk -o subformat=streamOptimized ../model.raw disk.vmdk"
make_disk flat "qemu-img convert -f raw -O vmdk -o subformat=monolithicFlat ../model.raw disk.vmdk"
make_disk split-flat "qemu-img convert -f raw -O vmdk -o subformat=twoGbMaxExtentFlat ../model.raw disk.vmdk"
make_disk zeroed "qemu-img convert -f raw -O vmdk -o subformat=monolithicSparse,zeroed_grain=on ../model.raw disk.vmdk &&
  qemu-io -c 'write -z 64k 64k' disk.vmdk"
make_disk child "qemu-img convert -f raw -O vmdk -o subformat=streamOptimized ../model.raw base.vmdk &&
  qemu-img create -f vmdk -b base.vmdk -F vmdk disk.vmdk && qemu-io -c 'write -P 0x5a 70000 1000' disk.vmdk"
# The stream's grains where they are, its tables and directory moved behind
# them with their markers, the header saying "at the end", and a footer.
mkdir stream-footer
python3 - stream/disk.vmdk stream-footer/disk.vmdk <<'PY'
import struct, sys
data = bytearray(open(sys.argv[1], 'rb').read())
capacity, grain = struct.unpack_from('<QQ', data, 12)
entries, = struct.unpack_from('<I', data, 44)
directory, overhead = struct.unpack_from('<QQ', data, 56)
tables = ((capacity + grain - 1) // grain + entries - 1) // entries
table_sectors = (entries * 4 + 511) // 512
gd = [struct.unpack_from('<I', data, directory * 512 + 4 * t)[0] for t in range(tables)]
gts = [bytes(data[s * 512:s * 512 + entries * 4]) for s in gd]
end = overhead * 512  # past the last grain: the first all-zero sector
while data[end:end + 512].strip(b'\0'):
    lba, size = struct.unpack_from('<QI', data, end)
    end += (12 + size + 511) // 512 * 512
out = bytearray(data[:end])
out[512 * (1 + 20):overhead * 512] = bytes(overhead * 512 - 512 * 21)
marker = lambda count, kind: struct.pack('<QII', count, 0, kind) + bytes(496)
new_gd = []
for gt in gts:
    out += marker(table_sectors, 1)
    new_gd.append(len(out) // 512)
    out += gt + bytes(table_sectors * 512 - len(gt))
out += marker((tables * 4 + 511) // 512, 2)
new_directory = len(out) // 512
gd_bytes = b''.join(struct.pack('<I', s) for s in new_gd)
out += gd_bytes + bytes(-len(gd_bytes) % 512)
header = bytearray(out[:512])
struct.pack_into('<Q', header, 56, new_directory)
struct.pack_into('<Q', out, 56, 0xFFFFFFFFFFFFFFFF)
out += marker(1, 3) + header + marker(0, 0)
open(sys.argv[2], 'wb').write(out)
PY

python3 "$here/pack_files.py" "$out"
