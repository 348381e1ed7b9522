#!/usr/bin/env python3
"""Rates of the doors for other programs against zarn-img on one mixed disk.

Makes the seeded mixed image of bench_compare.py (1 MiB stripes: a quarter
zeros, a quarter random bytes, half text) as a monolithicSparse disk, then
times, best of --runs each, with the page cache warm:

  sequential reads into a raw file: zarn-img convert -O raw; nbdcopy and
  qemu-img convert from nbdkit with the zarn plugin (read-only export);
  shutil.copyfileobj from zarn.open with 1 MiB chunks;
  random 4 KiB reads in written grains: bench/random_io on the library;
  qemu-io over NBD; Python seek + read on zarn.Disk.

The same NBD clients against nbdkit's own file plugin serving the raw image
show what the transport costs without zarn.

Every output of the sequential rows is compared with the raw image. The
table goes to stdout and to BUILD_DIR/bench-doors.md.
"""

import argparse
import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from bench_compare import parse_size, read_load, write_mixed_image  # noqa: E402

MiB = 1 << 20


class Server:
    def __init__(self, plugin, image, work, name):
        self.socket = os.path.join(work, name + ".sock")
        pidfile = os.path.join(work, name + ".pid")
        for stale in (self.socket, pidfile):
            if os.path.exists(stale):
                os.unlink(stale)
        self.process = subprocess.Popen(["nbdkit", "--exit-with-parent", "-f", "-r", "-U", self.socket, "-P",
                                         pidfile, plugin, "file=" + image])
        deadline = time.monotonic() + 30
        while not os.path.exists(pidfile):
            if self.process.poll() is not None or time.monotonic() > deadline:
                self.stop()
                raise SystemExit("nbdkit did not start")
            time.sleep(0.02)
        self.uri = "nbd+unix:///?socket=" + self.socket

    def stop(self):
        if self.process.poll() is None:
            self.process.send_signal(signal.SIGTERM)
            self.process.wait(timeout=30)


def best_of(runs, work, before=None):
    times = []
    for _ in range(runs):
        if before:
            before()
        start = time.perf_counter()
        work()
        times.append(time.perf_counter() - start)
    return min(times)


def same_file(a, b):
    return subprocess.run(["cmp", "-s", a, b]).returncode == 0


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default="build")
    parser.add_argument("--size", default=os.environ.get("BENCH_SIZE", "1G"))
    parser.add_argument("--runs", type=int, default=int(os.environ.get("BENCH_RUNS", "3")))
    parser.add_argument("--ops", type=int, default=int(os.environ.get("BENCH_OPS", "20000")))
    parser.add_argument("--dir", default=os.environ.get("BENCH_DIR"))
    args = parser.parse_args(argv)
    build = os.path.abspath(args.build_dir)
    tool = os.path.join(build, "tools", "zarn-img")
    random_io = os.path.join(build, "bench", "random_io")
    plugin = os.path.join(build, "nbd", "nbdkit-zarn-plugin.so")
    sys.path.insert(0, os.path.join(build, "python"))
    import zarn  # noqa: E402  the module of this build

    size = parse_size(args.size)
    load = read_load()
    print("load average: %.2f %.2f %.2f" % load)
    work = tempfile.mkdtemp(prefix="zarn-doors-", dir=args.dir)
    rows = []
    try:
        raw = os.path.join(work, "mixed.raw")
        disk = os.path.join(work, "mixed.vmdk")
        out = os.path.join(work, "out.raw")
        write_mixed_image(raw, size, seed=1)
        subprocess.run([tool, "convert", "-O", "vmdk", raw, disk], check=True)

        def remove_out():
            if os.path.exists(out):
                os.unlink(out)

        def copy_py():
            with zarn.open(disk) as source, open(out, "wb") as target:
                shutil.copyfileobj(source, target, MiB)

        server = Server(plugin, disk, work, "zarn")
        baseline = Server("file", raw, work, "file")
        try:
            sequential = [
                ("zarn-img convert -O raw", [tool, "convert", "-O", "raw", disk, out]),
                ("nbdcopy from nbdkit zarn", ["nbdcopy", server.uri, out]),
                ("qemu-img convert from nbdkit zarn", ["qemu-img", "convert", "-f", "raw", server.uri, out]),
                ("nbdcopy from nbdkit file (the raw image; no zarn)", ["nbdcopy", baseline.uri, out]),
                ("qemu-img convert from nbdkit file (the raw image; no zarn)",
                 ["qemu-img", "convert", "-f", "raw", baseline.uri, out]),
                ("Python shutil.copyfileobj(zarn.open(...)), 1 MiB chunks", copy_py),
            ]
            for label, command in sequential:
                work_fn = command if callable(command) else (lambda c=command: subprocess.run(c, check=True))
                remove_out()
                work_fn()
                if not same_file(out, raw):
                    raise SystemExit("%s gave other bytes" % label)
                seconds = best_of(args.runs, work_fn, remove_out)
                rows.append(("sequential read of %d MiB: %s" % (size // MiB, label), seconds,
                             "%.0f MB/s" % (size / seconds / 1e6)))

            offsets_file = os.path.join(work, "offsets.txt")
            with open(offsets_file, "w") as f:
                subprocess.run([random_io, "list", disk, str(args.ops), "7"], stdout=f, check=True)
            offsets = [int(line) for line in open(offsets_file)]
            commands = "".join("read -q %d 4k\n" % o for o in offsets)

            def qemu_io_nbd(uri):
                result = subprocess.run(["qemu-io", "-r", "-f", "raw", uri], input=commands, text=True,
                                        capture_output=True, check=True)
                if "failed" in result.stdout + result.stderr:
                    raise SystemExit("qemu-io: " + result.stdout[-500:] + result.stderr[-500:])

            def python_reads():
                with zarn.open(disk) as source:
                    for o in offsets:
                        source.seek(o)
                        source.read(4096)

            random_rows = [
                ("bench/random_io on the library (whole process)",
                 lambda: subprocess.run([random_io, "read", disk, offsets_file], check=True,
                                        stderr=subprocess.DEVNULL)),
                ("qemu-io over NBD from nbdkit zarn", lambda: qemu_io_nbd(server.uri)),
                ("qemu-io over NBD from nbdkit file (the raw image; no zarn)", lambda: qemu_io_nbd(baseline.uri)),
                ("Python seek + read on zarn.Disk", python_reads),
            ]
            for label, work_fn in random_rows:
                seconds = best_of(args.runs, work_fn)
                rows.append(("%d random 4 KiB reads: %s" % (len(offsets), label), seconds,
                             "%.0f reads/s" % (len(offsets) / seconds)))
        finally:
            server.stop()
            baseline.stop()
    finally:
        shutil.rmtree(work, ignore_errors=True)

    lines = ["| what | best of %d | rate |" % args.runs, "|---|---|---|"]
    lines += ["| %s | %.3f s | %s |" % row for row in rows]
    table = "\n".join(lines) + "\n\nload average before: %.2f %.2f %.2f\n" % load
    print(table)
    with open(os.path.join(build, "bench-doors.md"), "w") as f:
        f.write(table)


if __name__ == "__main__":
    main()
