"""The Python package zarn: disks as io.RawIOBase files, in every layout,
checked against a byte model, zarn-img and qemu-img."""

import array
import errno
import io
import json
import mmap
import os
import random
import subprocess
import sys

import pytest

import zarn
from peers import GRAIN, MIB, PASSWORD, mixed_bytes, require, zarn_img, zarn_img_raw

CREATE_CASES = {
    "monolithicSparse": dict(layout="monolithicSparse"),
    "split on demand": dict(layout="twoGbMaxExtentSparse", split_size=4 * MIB, on_demand=True),
    "streamOptimized split, level 9": dict(layout="streamOptimized", split_size=4 * MIB, compression_level=9),
    "encrypted": dict(layout="monolithicSparse", password=PASSWORD),
    "encrypted streamOptimized": dict(layout="streamOptimized", password=PASSWORD),
}


def random_piece(rng, n):
    kind = rng.randrange(3)
    if kind == 0:
        return rng.randbytes(n)
    if kind == 1:
        return bytes(n)
    return (b"text that packs %d " % rng.randrange(100) * (n // 16 + 1))[:n]


@pytest.mark.parametrize("case", CREATE_CASES)
def test_round_trip_against_a_byte_model(tmp_path, case):
    kwargs = CREATE_CASES[case]
    path = tmp_path / "disk.vmdk"
    size = 12 * MIB
    model = bytearray(size)
    rng = random.Random(case)
    with zarn.create(path, size, **kwargs) as disk:
        assert (disk.size, disk.tell(), disk.writable(), disk.mode) == (size, 0, True, "r+b")
        for _ in range(80):
            at = rng.randrange(size)
            n = min(size - at, rng.choice([1, 511, 4096, GRAIN, GRAIN + 7, 200000]))
            data = random_piece(rng, n)
            assert disk.seek(at) == at
            assert disk.write(data) == n
            assert disk.tell() == at + n
            model[at:at + n] = data
            back = rng.randrange(size)
            disk.seek(back)
            assert disk.read(70000) == model[back:back + 70000]
    with zarn.open(path, password=kwargs.get("password")) as disk:
        assert disk.read() == model
        assert disk.create_type == kwargs["layout"]
        assert disk.compressed == (kwargs["layout"] == "streamOptimized")
        assert disk.encrypted == ("password" in kwargs)
        assert disk.grain_size == GRAIN and disk.parent is None
        files = disk.extent_files
        assert (len(files) > 1) == ("split_size" in kwargs)
        assert all(os.path.isabs(f) and os.path.dirname(f) == str(tmp_path) for f in files)
        if not kwargs.get("on_demand"):
            assert all(os.path.exists(f) for f in files)
    assert zarn_img_raw(str(path), tmp_path / "disk.raw") == model


def test_io_protocol_of_a_read_only_disk(tmp_path):
    data = mixed_bytes(10 * MIB, seed=5)
    (tmp_path / "src.raw").write_bytes(data)
    path = tmp_path / "disk.vmdk"
    zarn_img("convert", "-O", "vmdk", tmp_path / "src.raw", path)
    with zarn.open(path) as disk:
        assert isinstance(disk, io.RawIOBase)
        assert (disk.readable(), disk.writable(), disk.seekable()) == (True, False, True)
        assert disk.name == str(path) and disk.mode == "rb"
        # seek with every whence, and reads at and past the end
        assert disk.seek(-10, io.SEEK_END) == len(data) - 10
        assert disk.read(100) == data[-10:]
        assert disk.read(100) == b"" and disk.readinto(bytearray(10)) == 0
        assert disk.seek(GRAIN - 3) == GRAIN - 3
        assert disk.seek(5, io.SEEK_CUR) == GRAIN + 2
        assert disk.read(6) == data[GRAIN + 2:GRAIN + 8]
        assert disk.seek(-8, io.SEEK_CUR) == GRAIN
        # readinto any writable buffer, counted in bytes
        targets = [bytearray(3000), memoryview(bytearray(5000))[1000:4000], array.array("I", bytes(4000)),
                   mmap.mmap(-1, 4096)]
        for target in targets:
            disk.seek(MIB - 17)
            n = disk.readinto(target)
            assert n == memoryview(target).nbytes
            assert bytes(memoryview(target).cast("B")) == data[MIB - 17:MIB - 17 + n]
        for unfit in (memoryview(bytearray(100))[::2], b"immutable", "text", None):
            with pytest.raises(TypeError):
                disk.readinto(unfit)
        with pytest.raises(io.UnsupportedOperation):
            disk.write(b"x")
        with pytest.raises(io.UnsupportedOperation):
            disk.truncate(0)
        # the standard library's wrappers work unchanged
        disk.seek(0)
        buffered = io.BufferedReader(disk, buffer_size=100000)
        assert buffered.read(12345) == data[:12345]
        assert buffered.peek(10)[:10] == data[12345:12355]
        buffered.seek(3 * MIB + 1)
        assert buffered.read(GRAIN) == data[3 * MIB + 1:3 * MIB + 1 + GRAIN]
    assert disk.closed
    for call in (lambda: disk.read(1), lambda: disk.readinto(bytearray(1)), lambda: disk.seek(0), disk.tell,
                 disk.flush, disk.readable, disk.space, disk.allocated, lambda: disk.content_id):
        with pytest.raises(ValueError):
            call()
    with pytest.raises(ValueError):
        with disk:
            pass
    disk.close()  # a second close does nothing


def test_space_is_what_zarn_img_info_reports(tmp_path):
    path = tmp_path / "disk.vmdk"
    rng = random.Random(7)
    with zarn.create(path, 16 * MIB) as disk:
        for grain in (0, 3, 4, 100, 255):
            disk.seek(grain * GRAIN)
            disk.write(rng.randbytes(GRAIN))
        disk.seek(50 * GRAIN)
        disk.write(bytes(GRAIN))  # a zero grain takes no room
        space = disk.space()
    assert space.payload_size == 5 * GRAIN
    assert space.payload_size_in_file >= 5 * GRAIN and space.header_size > 0
    info = json.loads(zarn_img("info", "--output=json", path).stdout)
    use = info["space-use"]
    for field, key in (("payload_size", "payload"), ("header_size", "header"),
                       ("payload_size_in_file", "payload-in-file"), ("dead_space_size", "dead-space")):
        assert use[key] == getattr(space, field), (field, use)


def test_a_child_reads_through_its_parent_and_maps_its_depths(tmp_path):
    base = tmp_path / "base"
    base.mkdir()
    parent_path = base / "parent.vmdk"
    data = mixed_bytes(12 * MIB, seed=9)
    with zarn.create(parent_path, len(data)) as parent:
        parent.write(data)
        parent_cid = parent.content_id
    (tmp_path / "vms").mkdir()
    child_path = tmp_path / "vms" / "child.vmdk"
    patch = random.Random(2).randbytes(3 * GRAIN)
    at = MIB + 5 * GRAIN - 1234  # over the parent's random bytes, across grain borders
    with zarn.create(child_path, None, parent=parent_path) as child:
        assert child.size == len(data)
        assert child.parent == os.path.join("..", "base", "parent.vmdk")
        child.seek(at)
        child.write(patch)
    data[at:at + len(patch)] = patch
    cwd = os.getcwd()
    os.chdir("/")  # the reference is relative to the child's folder, not ours
    try:
        with zarn.open(child_path) as child:
            assert child.read() == data
            runs = list(child.allocated())
            assert child.tell() == len(data), "allocated() leaves the position where it was"
    finally:
        os.chdir(cwd)
    zarn_map = json.loads(zarn_img("map", "--output=json", child_path).stdout)
    expected = [(r["start"], r["length"], r["depth"]) for r in zarn_map if r["data"]]
    assert runs == expected
    assert {depth for _, _, depth in runs} == {0, 1}
    assert (at // GRAIN * GRAIN, 4 * GRAIN, 0) in runs
    with zarn.open(parent_path) as parent:
        assert parent.content_id == parent_cid, "the parent was only read"


def test_a_disk_made_by_qemu_img_is_read_and_written(tmp_path):
    qemu_img = require("qemu-img")
    path = tmp_path / "qemu.vmdk"
    subprocess.run([qemu_img, "create", "-q", "-f", "vmdk", str(path), "12M"], check=True)
    subprocess.run([require("qemu-io"), "-f", "vmdk", "-c", "write -P 0x61 1000000 300000", str(path)],
                   check=True, capture_output=True)
    model = bytearray(12 * MIB)
    model[1000000:1300000] = b"a" * 300000
    with zarn.open(path, "r+b") as disk:
        assert disk.read() == model
        for at, n in ((GRAIN - 1, 2), (1299999, 5000), (12 * MIB - 77, 77)):
            piece = random.Random(at).randbytes(n)
            disk.seek(at)
            disk.write(piece)
            model[at:at + n] = piece
    subprocess.run([qemu_img, "check", "-q", str(path)], check=True)
    subprocess.run([qemu_img, "convert", "-f", "vmdk", "-O", "raw", str(path), str(tmp_path / "q.raw")],
                   check=True)
    assert (tmp_path / "q.raw").read_bytes() == model


def make_plain(tmp_path, name="disk.vmdk", size=8 * MIB):
    path = tmp_path / name
    zarn.create(path, size).close()
    return path


def expect_error(cls, call, *, code=None, errno_value=None, message=None, prop=None):
    with pytest.raises(cls) as caught:
        call()
    error = caught.value
    assert isinstance(error, zarn.Error) and isinstance(error, OSError)
    if code is not None:
        assert error.code == code
    if errno_value is not None:
        assert error.errno == errno_value
    if message is not None:
        assert message in error.message and message in str(error)
    if prop is not None:
        assert prop in error.properties and error.properties[prop] in str(error)
    return error


def test_errors_follow_the_librarys_family(tmp_path):
    path = make_plain(tmp_path)
    missing = tmp_path / "missing.vmdk"
    for mode in ("rb", "r+b"):
        error = expect_error(zarn.FileSystemError, lambda: zarn.open(missing, mode), errno_value=errno.ENOENT,
                             prop="uri")
        assert error.problem == zarn.FSPROB_NOT_FOUND
    expect_error(zarn.FileSystemError, lambda: zarn.create(tmp_path / "no" / "such.vmdk", 8 * MIB),
                 errno_value=errno.ENOENT)
    expect_error(zarn.InvalidArgError, lambda: zarn.create(tmp_path / "huge.vmdk", 1 << 60),
                 errno_value=errno.EINVAL, prop="sizeBytes")
    zarn.create(tmp_path / "secret.vmdk", 8 * MIB, password="right").close()
    expect_error(zarn.Error, lambda: zarn.open(tmp_path / "secret.vmdk", password="wrong"),
                 message="Specified VMDK encryption password is not correct.")
    with zarn.open(path, "r+b") as disk:
        expect_error(zarn.IOError, lambda: disk.seek(8 * MIB + 1), code=7, errno_value=errno.EINVAL)
        expect_error(zarn.IOError, lambda: disk.seek(-1), code=7)
        disk.seek(8 * MIB - 10)
        expect_error(zarn.IOError, lambda: disk.write(b"y" * 11), code=3, errno_value=errno.ENOSPC)
        assert disk.tell() == 8 * MIB - 10
        for unfit in ("text", None, memoryview(b"ab" * 8)[::2]):
            with pytest.raises(TypeError):
                disk.write(unfit)
        assert disk.write(memoryview(b"y" * 20)[5:15]) == 10
        for mode in ("rb", "r+b"):
            expect_error(zarn.LockFileError, lambda: zarn.open(path, mode), errno_value=errno.EBUSY,
                         message="locked")
    with zarn.open(path) as disk:
        disk.seek(8 * MIB - 10)
        assert disk.read() == b"y" * 10


def test_confine_refuses_a_parent_outside_the_folder(tmp_path):
    parent = make_plain(tmp_path, "parent.vmdk")
    (tmp_path / "inner").mkdir()
    child_path = tmp_path / "inner" / "child.vmdk"
    zarn.create(child_path, None, parent=parent).close()
    with zarn.open(child_path, confine=tmp_path / "inner") as child:
        error = expect_error(zarn.FileSystemError, lambda: child.read(512), errno_value=errno.EACCES,
                             message="outside the allowed folder", prop="folder")
        assert error.problem == zarn.FSPROB_ACCESS_DENIED
    with zarn.open(child_path, confine=tmp_path) as child:
        assert child.read(512) == bytes(512)


@pytest.mark.parametrize("call,text", [
    (lambda p: zarn.open(p, "w"), "mode"),
    (lambda p: zarn.open(p, "r"), "mode"),
    (lambda p: zarn.create(p, 8 * MIB, layout="vhd"), "layout"),
    (lambda p: zarn.create(p, 8 * MIB, split_size=4 * MIB), "split_size"),
    (lambda p: zarn.create(p, 8 * MIB, layout="streamOptimized", compression_level=10), "compression_level"),
    (lambda p: zarn.create(p, 8 * MIB, compression_level=1), "compression_level"),
    (lambda p: zarn.create(p, None), "size"),
    (lambda p: zarn.create(p, 0), "size"),
    (lambda p: zarn.create(p, 8 * MIB, on_demand=True), "on_demand"),
])
def test_arguments_python_refuses(tmp_path, call, text):
    with pytest.raises(ValueError, match=text):
        call(tmp_path / "x.vmdk")
    assert not (tmp_path / "x.vmdk").exists()


def test_with_releases_the_lock_for_another_process(tmp_path):
    path = make_plain(tmp_path)
    probe = [sys.executable, "-c", "import sys, zarn; zarn.open(sys.argv[1], 'r+b').close()", str(path)]
    with zarn.open(path, "r+b") as disk:
        disk.write(b"held")
        held = subprocess.run(probe, capture_output=True, text=True)
        assert held.returncode != 0 and "LockFileError" in held.stderr
        assert zarn_img("info", path, check=False).returncode == 1
    subprocess.run(probe, check=True)
    assert zarn_img("info", path).returncode == 0
