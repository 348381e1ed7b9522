#!/usr/bin/env python3
"""Packs each folder of disk files in the working folder into one input of the
disk fuzz targets (see fuzz/packed_files.h): per file its name, a zero byte,
its length (u32), the count of pieces (u16), and per run of non-zero bytes its
offset (u32), length (u16) and bytes; the main file, disk.vmdk, first.

Usage: pack_files.py OUT_DIR  (writes OUT_DIR/seed-FOLDER for every folder)"""
import os
import struct
import sys


def pieces_of(data):
    pieces, i = [], 0
    while i < len(data):
        if data[i] == 0:
            i += 1
            continue
        j = i
        # A run ends at 16 zero bytes, or when its length would overflow a u16.
        while j < len(data) and j - i < 65535 and (data[j] != 0 or data[j:j + 16].strip(b'\0')):
            j += 1
        pieces.append((i, data[i:j]))
        i = j
    return pieces


def pack(folder):
    names = ['disk.vmdk'] + sorted(n for n in os.listdir(folder) if n != 'disk.vmdk' and not n.endswith('.lock'))
    blob = b''
    for name in names:
        data = open(os.path.join(folder, name), 'rb').read()
        pieces = pieces_of(data)
        blob += name.encode() + b'\0' + struct.pack('<IH', len(data), len(pieces))
        for offset, piece in pieces:
            blob += struct.pack('<IH', offset, len(piece)) + piece
    return blob


if __name__ == '__main__':
    out = sys.argv[1]
    for folder in sorted(os.listdir('.')):
        if os.path.isdir(folder):
            open(os.path.join(out, 'seed-' + folder), 'wb').write(pack(folder))
