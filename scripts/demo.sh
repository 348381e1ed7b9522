#!/usr/bin/env bash
# make demo: a 256 MiB raw image through every disk layout of zarn-img and
# back, each result compared byte for byte with what it should read.
set -euo pipefail

build_dir=${1:-build}
tool=$(cd "$build_dir" && pwd)/tools/zarn-img
[ -x "$tool" ] || { echo "demo: $tool is missing; run 'make demo' (or 'make build') first" >&2; exit 1; }

work=$(mktemp -d "${TMPDIR:-/tmp}/zarn-demo-XXXXXX")
trap 'rm -rf "$work"' EXIT
cd "$work"

mib=$((1024 * 1024))
size_mib=256
export ZARN_PASSWORD=demo-password  # read by zarn-img, never passed as an argument

now() { date +%s.%N; }
rate() { awk -v b="$1" -v s="$2" -v e="$3" 'BEGIN { t = e - s; if (t <= 0) t = 0.001; printf "%.0f", b / 1000000 / t }'; }
bytes_of() { stat -c %s "$@" | awk '{ n += $1 } END { print n }'; }
rows=()

echo "== 1. A raw image of $size_mib MiB: zeros, random bytes, compressible text"
# MiB 0-32 zeros, 32-96 random, 96-160 text, 160-192 zeros, 192-224 random
# and text in turns of 1 MiB, 224-256 zeros.
dd if=/dev/zero of=sample.raw bs=1M count=$size_mib status=none
dd if=/dev/urandom of=sample.raw bs=1M seek=32 count=64 conv=notrunc status=none
{ yes "zarn-img demo: a line of text that deflate packs well, line after line." || true; } |
  head -c $((64 * mib)) | dd of=sample.raw bs=1M seek=96 conv=notrunc status=none iflag=fullblock
for i in $(seq 192 2 222); do
  dd if=/dev/urandom of=sample.raw bs=1M seek="$i" count=1 conv=notrunc status=none
  dd if=sample.raw of=sample.raw bs=1M skip=96 seek=$((i + 1)) count=1 conv=notrunc status=none
done
ls -l sample.raw

# convert LAYOUT FILE [zarn-img convert options...]: makes FILE from the
# sample, reads it back to raw and compares; one row of the table.
convert() {
  local layout=$1 file=$2
  shift 2
  echo
  echo "== $layout: zarn-img convert -p $* sample.raw $file"
  local start end
  start=$(now)
  "$tool" convert -p "$@" sample.raw "$file"
  end=$(now)
  verify "$file" sample.raw
  local files=("${file%.vmdk}"*.vmdk)
  rows+=("$layout|${#files[@]}|$(bytes_of "${files[@]}")|$(rate $((size_mib * mib)) "$start" "$end")")
}

verify() {
  "$tool" convert "$1" back.raw
  cmp back.raw "$2"
  echo "   read back through zarn-img convert -O raw: identical to $2"
  rm -f back.raw
}

echo
echo "== 2. The sample in each layout, each read back and compared"
convert "monolithicSparse" plain.vmdk -O vmdk
convert "twoGbMaxExtentSparse" split.vmdk -O vmdk -o subformat=twoGbMaxExtentSparse,split-size=64M
convert "streamOptimized, -j 2" compressed.vmdk -O vmdk -o subformat=streamOptimized -j 2
convert "encrypted (AES-256)" encrypted.vmdk -O vmdk -o encrypted=on

echo
echo "== 3. A differencing child over plain.vmdk, 4 MiB written at an odd offset"
"$tool" create -o backing-file=plain.vmdk child.vmdk
head -c $((4 * mib)) /dev/urandom > patch.bin
offset=$((100 * mib + 12345))
start=$(now)
"$tool" write --offset "$offset" child.vmdk patch.bin
end=$(now)
cp sample.raw expected.raw
dd if=patch.bin of=expected.raw bs=1M seek="$offset" oflag=seek_bytes conv=notrunc status=none
verify child.vmdk expected.raw
rows+=("child (4 MiB written)|1|$(bytes_of child.vmdk)|$(rate $((4 * mib)) "$start" "$end")")
"$tool" map child.vmdk | head -4
"$tool" check child.vmdk | head -2

echo
echo "== 4. Summary ($size_mib MiB sample, $(bytes_of sample.raw) bytes raw)"
printf "%-24s %6s %15s %8s\n" "layout" "files" "bytes on disk" "MB/s"
for row in "${rows[@]}"; do
  IFS='|' read -r layout files bytes speed <<< "$row"
  printf "%-24s %6s %15s %8s\n" "$layout" "$files" "$bytes" "$speed"
done
