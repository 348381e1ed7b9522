"""The nbdkit plugin against real NBD clients: qemu-img, qemu-io, nbdinfo,
nbdcopy and nbdfuse, each checked against what zarn-img reads."""

import json
import os
import pty
import re
import select
import subprocess
import time

import pytest

from peers import GRAIN, LAYOUTS, MIB, digest, make_disk, mixed_bytes, password_file, require, zarn_img, \
    zarn_img_raw


def params_for(folder, layout):
    return ["password-file=" + password_file(folder)] if layout == "encrypted" else []


def qemu_io(uri, *commands, check=True, readonly=False):
    args = [require("qemu-io"), "-f", "raw"] + (["-r"] if readonly else [])
    for command in commands:
        args += ["-c", command]
    result = subprocess.run(args + [uri], capture_output=True, text=True, timeout=120)
    if check and (result.returncode != 0 or "failed" in result.stdout + result.stderr):
        raise AssertionError("qemu-io %s: %s%s" % (commands, result.stdout, result.stderr))
    return result


class QemuIoSession:
    """qemu-io kept open on a connection, driven a command at a time. Its
    output goes to a terminal, where it prompts for each command when the
    one before has ended; into a pipe its answers would wait in its buffer."""

    PROMPT = b"qemu-io> "

    def __init__(self, uri):
        self.master, slave = pty.openpty()
        self.process = subprocess.Popen([require("qemu-io"), "-f", "raw", uri], stdin=subprocess.PIPE,
                                        stdout=slave, stderr=slave)
        os.close(slave)
        self.read_to_prompt("connecting")

    def read_to_prompt(self, what):
        output = b""
        deadline = time.monotonic() + 60
        while not output.endswith(self.PROMPT):
            ready, _, _ = select.select([self.master], [], [], max(0.0, deadline - time.monotonic()))
            if not ready:
                raise AssertionError("qemu-io did not finish %s: %r" % (what, output))
            try:
                chunk = os.read(self.master, 4096)
            except OSError:
                chunk = b""
            if not chunk:
                raise AssertionError("qemu-io ended while %s: %r" % (what, output))
            output += chunk
        return output[:-len(self.PROMPT)].decode(errors="replace")

    def run(self, command):
        """Runs `command` to its end and returns what it printed; any
        failure fails the test."""
        self.process.stdin.write(command.encode() + b"\n")
        self.process.stdin.flush()
        output = self.read_to_prompt(command)
        assert "failed" not in output, output
        return output

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
        self.process.wait()
        self.process.stdin.close()
        os.close(self.master)


def first_extent_border(disk):
    """The byte where the second extent of a split disk begins."""
    with open(disk, "rb") as f:
        text = f.read(4096).decode("latin-1")
    sectors = [int(n) for n in re.findall(r'^RW (\d+) SPARSE', text, re.M)]
    assert len(sectors) > 1, "not a split disk"
    return sectors[0] * 512


def data_runs(runs):
    """(start, length) pairs with touching runs joined."""
    joined = []
    for start, length in sorted(runs):
        if joined and joined[-1][0] + joined[-1][1] == start:
            joined[-1] = (joined[-1][0], joined[-1][1] + length)
        else:
            joined.append((start, length))
    return joined


@pytest.mark.parametrize("layout", LAYOUTS)
def test_qemu_img_convert_reads_what_zarn_img_reads(tmp_path, serve, layout):
    disk, model = make_disk(tmp_path, layout)
    server = serve(disk, *params_for(tmp_path, layout), readonly=True)
    assert server.started, server.log_text()
    out = tmp_path / "nbd.raw"
    subprocess.run([require("qemu-img"), "convert", "-f", "raw", server.uri, str(out)], check=True, timeout=120)
    assert out.read_bytes() == zarn_img_raw(disk, tmp_path / "zarn.raw") == model


@pytest.mark.parametrize("layout", LAYOUTS)
def test_odd_writes_are_what_zarn_img_reads_afterwards(tmp_path, serve, layout):
    disk, model = make_disk(tmp_path, layout)
    size = len(model)
    writes = [
        (GRAIN - 100, 300, 0x11),                 # across one grain border
        (3 * MIB + 7, 2 * GRAIN + 1000, 0x22),    # across two, into a text stripe
        (MIB + 4 * GRAIN + 3, 1, 0x33),           # one byte inside a grain of random bytes
        (size - 333, 333, 0x44),                  # up to the last byte
        (8 * MIB + 17 * 512 + 5, 40000, 0x00),    # zeros written as data, into a zero hole
    ]
    if layout == "split":
        border = first_extent_border(disk)
        writes.append((border - 4321, 9999, 0x55))  # across the extent files' border
    server = serve(disk, *params_for(tmp_path, layout))
    qemu_io(server.uri, *("write -P 0x%02x %d %d" % (p, at, n) for at, n, p in writes))
    assert server.stop() == 0, server.log_text()
    for at, n, p in writes:
        model[at:at + n] = bytes([p]) * n
    assert zarn_img_raw(disk, tmp_path / "after.raw") == model
    assert zarn_img("check", disk).returncode == 0


@pytest.mark.parametrize("layout", ["plain", "compressed", "child"])
def test_flushed_bytes_survive_a_killed_server(tmp_path, serve, layout):
    disk, model = make_disk(tmp_path, layout)
    server = serve(disk)
    session = QemuIoSession(server.uri)
    try:
        # Grains of the zero stripe at the start have no slot yet: without a
        # flush their tables would stay in the server's memory.
        session.run("write -P 0x5a 100000 200000")
        session.run("flush")
        server.kill()
    finally:
        session.close()
    model[100000:300000] = b"\x5a" * 200000
    assert zarn_img_raw(disk, tmp_path / "after.raw") == model


@pytest.mark.parametrize("layout", ["plain", "split", "compressed", "child"])
def test_nbdinfo_map_agrees_with_zarn_img_map(tmp_path, serve, layout):
    disk, _ = make_disk(tmp_path, layout)
    server = serve(disk, readonly=True)
    result = subprocess.run([require("nbdinfo"), "--map", "--json", server.uri], capture_output=True, text=True,
                            check=True, timeout=60)
    extents = json.loads(result.stdout)
    nbd_data = data_runs((e["offset"], e["length"]) for e in extents if not e["type"] & 1)
    holes = [e for e in extents if e["type"] & 1]
    assert all(e["type"] == 3 for e in holes), "holes read as zeros"
    zarn_map = json.loads(zarn_img("map", "--output=json", disk).stdout)
    assert nbd_data == data_runs((run["start"], run["length"]) for run in zarn_map if run["data"])
    assert nbd_data, "the test disk has data"
    assert holes, "and holes"


def test_read_only_export_refuses_writes(tmp_path, serve):
    disk, _ = make_disk(tmp_path, "plain")
    before = digest(disk)
    server = serve(disk, readonly=True)
    result = qemu_io(server.uri, "write -P 0x77 0 4096", check=False)
    assert result.returncode != 0 and "Permission denied" in result.stderr, result
    assert server.stop() == 0
    assert digest(disk) == before


def test_second_writer_is_refused_with_the_librarys_message(tmp_path, serve):
    disk, _ = make_disk(tmp_path, "plain")
    server = serve(disk)
    first = QemuIoSession(server.uri)
    try:
        first.run("read 0 512")
        refused = subprocess.run([require("nbdinfo"), server.uri], capture_output=True, text=True, timeout=60)
        assert refused.returncode != 0
        assert "VMDK file is locked by another process" in server.log_text()
        # Another program is kept out as well.
        assert zarn_img("info", disk, check=False).returncode == 1
    finally:
        first.close()
    again = subprocess.run([require("nbdinfo"), "--size", server.uri], capture_output=True, text=True, timeout=60)
    assert again.returncode == 0, server.log_text()
    assert int(again.stdout) == 12 * MIB


def test_two_read_only_connections_run_side_by_side(tmp_path, serve):
    disk, model = make_disk(tmp_path, "compressed")
    server = serve(disk, readonly=True)
    outs = [tmp_path / ("out%d.raw" % n) for n in range(2)]
    copies = [subprocess.Popen([require("qemu-img"), "convert", "-f", "raw", server.uri, str(out)])
              for out in outs]
    assert [copy.wait(timeout=120) for copy in copies] == [0, 0]
    assert all(out.read_bytes() == model for out in outs)


def test_zero_requests(tmp_path, serve):
    """nbdcopy sends zero requests for the zero stretches of its source;
    over a child they must hide the parent's bytes, and over grains that
    nothing holds they take no room."""
    child, _ = make_disk(tmp_path, "child")
    source = mixed_bytes(12 * MIB, seed=3)  # other data, zeros where the parent has some
    (tmp_path / "source.raw").write_bytes(source)
    server = serve(child)
    subprocess.run([require("nbdcopy"), str(tmp_path / "source.raw"), server.uri], check=True, timeout=120)
    assert server.stop() == 0, server.log_text()
    assert zarn_img_raw(child, tmp_path / "child-after.raw") == source

    empty = tmp_path / "empty.vmdk"
    zarn_img("create", empty, "16M")
    server = serve(empty)
    qemu_io(server.uri, "write -z 0 8M", "write -z 12345 100000")
    assert server.stop() == 0, server.log_text()
    info = json.loads(zarn_img("info", "--output=json", empty).stdout)
    assert info["space-use"]["payload"] == 0, info
    assert zarn_img_raw(empty, tmp_path / "empty.raw") == bytes(16 * MIB)


def test_a_damaged_grain_fails_that_read_only(tmp_path, serve):
    disk, model = make_disk(tmp_path, "compressed")
    # Random bytes are kept in stored blocks, so a piece of them is found
    # as it is in the file; grain 17 lies in the first random stripe.
    grain = 17
    piece = bytes(model[grain * GRAIN + 5000:grain * GRAIN + 5064])
    content = bytearray(open(disk, "rb").read())
    where = content.find(piece)
    assert where > 0, "the grain's bytes are in the file as they are"
    content[where:where + 64] = bytes(b ^ 0xFF for b in piece)
    with open(disk, "wb") as f:
        f.write(content)
    server = serve(disk, readonly=True)
    result = qemu_io(server.uri, "read %d 4096" % (grain * GRAIN), "read -P 0 0 4096",
                     "read %d 4096" % ((grain + 1) * GRAIN), check=False, readonly=True)
    output = result.stdout + result.stderr
    assert "read failed: Input/output error" in output
    assert output.count("read 4096/4096 bytes") == 2, output
    log = server.log_text()
    assert "read of 4096 bytes at %d: Damaged compressed data" % (grain * GRAIN) in log, log


@pytest.mark.parametrize("case,params,message", [
    ("missing password", [], "VMDK is encrypted but no password provided"),
    ("wrong password", ["password-file=WRONG"], "Specified VMDK encryption password is not correct"),
    ("unknown parameter", ["colour=blue"], "unknown parameter 'colour'"),
])
def test_refusals_at_start_carry_the_reason(tmp_path, serve, case, params, message):
    disk, _ = make_disk(tmp_path, "encrypted")
    params = [p.replace("WRONG", password_file(tmp_path, "not-it")) for p in params]
    server = serve(disk, *params)
    assert not server.started and server.process.returncode != 0, case
    assert message in server.log_text()


def test_confined_export_refuses_a_parent_outside(tmp_path, serve):
    inner = tmp_path / "inner"
    inner.mkdir()
    parent, _ = make_disk(tmp_path, "plain")
    child = inner / "child.vmdk"
    zarn_img("create", "-o", "backing-file=../plain.vmdk", child)
    server = serve(child, "confine=%s" % inner, readonly=True)
    assert server.started, server.log_text()
    result = qemu_io(server.uri, "read %d 512" % MIB, check=False, readonly=True)
    assert "read failed: Operation not permitted" in result.stdout + result.stderr
    assert "outside the allowed folder" in server.log_text()


def test_nbdfuse_mounts_the_export_as_a_file(tmp_path, serve):
    if not os.path.exists("/dev/fuse"):
        pytest.skip("/dev/fuse is missing: no FUSE mount on this machine")
    nbdfuse = require("nbdfuse")
    fusermount = require("fusermount3")
    disk, model = make_disk(tmp_path, "split")
    server = serve(disk, readonly=True)
    mountpoint = tmp_path / "mnt"
    mountpoint.mkdir()
    mount = subprocess.Popen([nbdfuse, "-r", str(mountpoint / "disk.raw"), server.uri],
                             stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
    try:
        deadline = time.monotonic() + 30
        while not os.path.exists(mountpoint / "disk.raw"):
            if mount.poll() is not None:
                output = mount.stdout.read()
                if any(reason in output for reason in ("device not found", "Permission denied",
                                                       "Operation not permitted")):
                    pytest.skip("FUSE can't mount here: " + output)
                raise AssertionError("nbdfuse ended: " + output)
            assert time.monotonic() < deadline, "nbdfuse did not mount"
            time.sleep(0.05)
        (tmp_path / "model.raw").write_bytes(model)
        subprocess.run(["cmp", str(mountpoint / "disk.raw"), str(tmp_path / "model.raw")], check=True)
    finally:
        subprocess.run([fusermount, "-u", str(mountpoint)], capture_output=True)
        try:
            mount.wait(timeout=20)
        except subprocess.TimeoutExpired:
            mount.kill()
            mount.wait()
        mount.stdout.close()
