"""What the Python-driven tests share: the built programs, peers found on
PATH or skipped with the package that brings them, zarn-img runs, and the
test disks in every layout made from one seeded mixed image."""

import hashlib
import os
import random
import shutil
import subprocess

import pytest

MIB = 1 << 20
GRAIN = 64 * 1024
PASSWORD = "doors-password"

# The Debian package behind each peer, for the skip message.
PACKAGES = {
    "nbdkit": "nbdkit",
    "qemu-img": "qemu-utils",
    "qemu-io": "qemu-utils",
    "nbdinfo": "libnbd-bin",
    "nbdcopy": "libnbd-bin",
    "nbdfuse": "libnbd-bin",
    "fusermount3": "fuse3",
}

# Every layout a test disk comes in: zarn-img -o options, and whether it
# is a child over a plain parent.
LAYOUTS = {
    "plain": "subformat=monolithicSparse",
    "split": "subformat=twoGbMaxExtentSparse,split-size=4M",
    "compressed": "subformat=streamOptimized",
    "encrypted": "subformat=monolithicSparse,encrypted=on",
    "child": None,
}


def require(program):
    """The path of `program`, or a skip that names its package."""
    path = shutil.which(program)
    if not path:
        pytest.skip("%s is missing (Debian package %s; scripts/install-deps.sh installs it)"
                    % (program, PACKAGES.get(program, "?")))
    return path


def built(variable):
    """A path that CTest hands in through the environment."""
    path = os.environ.get(variable)
    if not path or not os.path.exists(path):
        pytest.skip("%s is not set to a built file; run the test through CTest" % variable)
    return path


def zarn_img(*args, check=True, password=True):
    env = dict(os.environ)
    if password:
        env["ZARN_PASSWORD"] = PASSWORD
    result = subprocess.run([built("ZARN_IMG"), *map(str, args)], capture_output=True, text=True, env=env,
                            stdin=subprocess.DEVNULL, timeout=120)
    if check and result.returncode != 0:
        raise AssertionError("zarn-img %s failed (%d): %s" % (" ".join(map(str, args)), result.returncode,
                                                               result.stderr))
    return result


def mixed_bytes(size, seed):
    """Stripes of 1 MiB (the last may be shorter) that are zeros, random
    bytes or text in turn, with grain-sized zero holes inside the data, so
    that a disk made from them has every kind of grain."""
    rng = random.Random(seed)
    out = bytearray(size)
    text = b"zarn stripes of text that deflate packs well, one after the other. " * 16
    for n, start in enumerate(range(0, size, MIB)):
        end = min(size, start + MIB)
        kind = n % 4
        if kind == 1:
            out[start:end] = rng.randbytes(end - start)
        elif kind in (2, 3):
            piece = (text * ((end - start) // len(text) + 1))[: end - start]
            out[start:end] = piece
        if kind == 3 and end - start > 2 * GRAIN:
            hole = start + GRAIN * rng.randrange(1, (end - start) // GRAIN - 1)
            out[hole:hole + GRAIN] = bytes(GRAIN)
    return out


def digest(path):
    h = hashlib.sha256()
    with open(path, "rb") as f:
        for chunk in iter(lambda: f.read(MIB), b""):
            h.update(chunk)
    return h.hexdigest()


def make_disk(folder, layout, size=12 * MIB, seed=1):
    """A disk of `layout` in `folder` and the bytes it reads as. The child is
    made over a plain parent (the bytes of `seed`) and holds random bytes at
    an odd offset across grain borders, so it reads through its parent
    around them."""
    folder = str(folder)
    data = mixed_bytes(size, seed)
    raw = os.path.join(folder, "%s.raw" % layout)
    with open(raw, "wb") as f:
        f.write(data)
    disk = os.path.join(folder, "%s.vmdk" % layout)
    if layout == "child":
        parent, data = make_disk(folder, "plain", size, seed)
        zarn_img("create", "-o", "backing-file=" + os.path.basename(parent), disk)
        patch = random.Random(seed + 1).randbytes(3 * GRAIN)
        at = MIB + 5 * GRAIN - 1234
        patch_file = os.path.join(folder, "patch.bin")
        with open(patch_file, "wb") as f:
            f.write(patch)
        zarn_img("write", "--offset", at, disk, patch_file)
        data[at:at + len(patch)] = patch
        with open(raw, "wb") as f:
            f.write(data)
    else:
        zarn_img("convert", "-f", "raw", "-O", "vmdk", "-o", LAYOUTS[layout], raw, disk)
    return disk, data


def password_file(folder, text=PASSWORD):
    path = os.path.join(str(folder), "password.txt")
    with open(path, "w") as f:
        f.write(text + "\n")
    return path


def zarn_img_raw(disk, out):
    """The disk's bytes as zarn-img convert -O raw gives them."""
    zarn_img("convert", "-O", "raw", disk, out)
    with open(out, "rb") as f:
        return f.read()
