#!/usr/bin/env python3
"""zarn-img against qemu-img, qemu-io and cat on the same images.

Run through `make bench-compare`. Settings from the environment:
  BENCH_SIZE   size of the mixed image (default 1G; 64M for a trial); the
               sparse image with holes scales with it (64 GiB holding 256 MiB
               of data at 1G)
  BENCH_PAIRS  timed A B pairs per row (default 5), after one warm-up each
  BENCH_OPS    4 KiB operations per random I/O run (default 20000)
  BENCH_DIR    where the images and outputs go (default BUILD/bench-compare)
  BENCH_SEED   seed of the image bytes and the random offsets (default 21)
  BENCH_ROWS   only the rows whose names contain one of these comma-separated
               words (default: every row); the table then goes to
               bench-compare-rows.md, not over the full one

Each row runs its two sides as A B A B ..., deletes the outputs after every
run, and reports the median time of each side and the median of the per-pair
ratio A/B. Every warm-up output is checked for the right content before
anything is timed, so a fast but wrong conversion shows as a failure.
"""

import argparse
import os
import random
import shutil
import statistics
import subprocess
import sys
import time
import zlib

MiB = 1 << 20
GiB = 1 << 30
STRIPE = MiB
# The full-size sparse image: this much address space with this much data.
SPARSE_VIRTUAL_AT_1G = 64 * GiB
SPARSE_DATA_AT_1G = 256 * MiB
SPARSE_RUN = 4 * MiB
PASSWORD = "bench-compare"
WRITE_PATTERN = 0xAB

# Common English words: text of them deflates about as well as prose does.
WORDS = """
the of and to in is was that for it as with be on not he by this are or his
from at which but have an they you were her she there been one all we their
has would when if so no more out up into do any your what time other some
can only new about could these two may first then than its like over also
after such made most many before must through back years where much your way
well down should because each just those people how too little state good
very make world still own see men work long get here between both life being
under never day same another know while last might us great old year off
come since against go came right used take three himself few house use
during without again place around however home small found thought went say
part once general high upon school every does got united left number course
war until always away something fact though water less public put think
almost hand enough far took head yet government system better set told
nothing night end why called didn't eyes find going look asked later knew
point next program city business give group toward young days let room
president side social given present several order national possible rather
second face per among form important often things looking early white case
john become large big need four within felt along children saw best church
ever least power development light thing seemed family interest want members
mind country area others done turned although open god service problem
certain kind different thus began door help means sense whole matter perhaps
itself york times human law line above name example action company hands
local show whether five history gave today either act feet across taken past
quite anything having seen death experience body word half really week field
""".split()


def parse_size(text):
    """Bytes of "64M", "1G", "512MiB", "8388608"; whole MiB, at least 8 MiB."""
    value = text.strip().upper()
    for suffix in ("IB", "B"):
        if value.endswith(suffix) and len(value) > len(suffix) and value[-len(suffix) - 1] in "KMGT":
            value = value[: -len(suffix)]
    scale = 1
    if value and value[-1] in "KMGT":
        scale = 1 << (10 * ("KMGT".index(value[-1]) + 1))
        value = value[:-1]
    try:
        size = int(value) * scale
    except ValueError:
        raise ValueError(f"not a size: {text!r}") from None
    if size < 8 * MiB or size % MiB:
        raise ValueError(f"the size must be whole MiB and at least 8 MiB: {text!r}")
    return size


# --- the images ------------------------------------------------------------

def stripe_kind(index):
    """Zeros, noise, text, text, over and over: a quarter, a quarter, a half."""
    return ("zeros", "random", "words", "words")[index % 4]


def make_stripe(kind, rng, size=STRIPE):
    if kind == "zeros":
        return bytes(size)
    if kind == "random":
        return rng.randbytes(size)
    # Average word with its space is about 5 bytes; ask for enough to cut.
    text = " ".join(rng.choices(WORDS, k=size // 4)).encode()
    while len(text) < size:
        text += b" " + " ".join(rng.choices(WORDS, k=size // 4)).encode()
    return text[:size]


def mixed_stripes(count, seed, first_index=0):
    """The stripes of a mixed image, from one generator so bytes repeat by seed."""
    rng = random.Random(seed)
    for index in range(first_index, first_index + count):
        yield make_stripe(stripe_kind(index), rng)


def write_atomically(path, fill):
    temp = path + ".part"
    with open(temp, "wb") as out:
        fill(out)
    os.replace(temp, path)


def write_mixed_image(path, size, seed):
    def fill(out):
        for stripe in mixed_stripes(size // STRIPE, seed):
            out.write(stripe)
    write_atomically(path, fill)


def sparse_layout(virtual, data, run=SPARSE_RUN, seed=0):
    """Offsets of the data runs of the sparse image: one run in each of
    data/run equal slots of the address space, at a seeded place in its slot,
    so the data is spread out and no run touches another."""
    run = min(run, data)
    count = data // run
    slot = virtual // count
    if slot < run + MiB:
        raise ValueError("the data doesn't fit the address space with holes between")
    rng = random.Random(seed)
    # At least a MiB of hole after each run, also before the next slot's.
    places = (slot - run - MiB) // MiB
    return [i * slot + rng.randint(0, places) * MiB for i in range(count)], run


def write_sparse_image(path, virtual, data, seed):
    offsets, run = sparse_layout(virtual, data, seed=seed)

    def fill(out):
        out.truncate(virtual)
        stripes = mixed_stripes(len(offsets) * (run // STRIPE), seed + 1)
        for offset in offsets:
            out.seek(offset)
            for _ in range(run // STRIPE):
                out.write(next(stripes))
    write_atomically(path, fill)


def ensure_image(path, size, writer, note):
    """Makes the image once; its name holds its size and seed, so a later
    run with the same settings reuses it."""
    if os.path.exists(path) and os.path.getsize(path) == size:
        return
    print(f"making {note}: {path}", file=sys.stderr, flush=True)
    writer()


# --- measuring -------------------------------------------------------------

def median_ratio(pairs):
    """Median of A, of B, and of A/B taken pair by pair."""
    a = [p[0] for p in pairs]
    b = [p[1] for p in pairs]
    return statistics.median(a), statistics.median(b), statistics.median(x / y for x, y in pairs)


def disk_usage(path):
    """Apparent and allocated bytes of a file, or of all files under a folder."""
    files = [path]
    if os.path.isdir(path):
        files = [os.path.join(d, f) for d, _, names in os.walk(path) for f in names]
    apparent = allocated = 0
    for f in files:
        st = os.lstat(f)
        apparent += st.st_size
        allocated += st.st_blocks * 512
    return apparent, allocated


def qemu_io_commands(offsets, write):
    """qemu-io lines for the same 4 KiB operations random_io makes."""
    op = f"write -q -P 0x{WRITE_PATTERN:x}" if write else "read -q"
    return "".join(f"{op} {offset} 4k\n" for offset in offsets)


def qemu_io_failed(output):
    """qemu-io goes on after a failed command: its words tell."""
    lower = output.lower()
    return "failed" in lower or "error" in lower or "could not" in lower


class RunFailed(Exception):
    pass


class Command:
    """One side of a row: a command, where its output goes, what to do
    before each run (not timed) and how to check a warm-up's output."""

    def __init__(self, argv, out=None, stdin=None, stdout_to=None, env=None, prepare=None, verify=None,
                 check_output=None, usage_of=None):
        self.argv = argv
        self.out = out              # folder of this side's outputs, made empty before each run
        self.stdin = stdin          # a file fed to the command
        self.stdout_to = stdout_to  # a file the command's output goes to (cat)
        self.env = env or {}
        self.prepare = prepare
        self.verify = verify
        self.check_output = check_output
        self.usage_of = usage_of or out


def run_timed(command, rss_file):
    """Wall seconds (the whole process) and peak RSS in KiB."""
    if command.out:
        shutil.rmtree(command.out, ignore_errors=True)
        os.makedirs(command.out)
    if command.prepare:
        command.prepare()
    # Every run starts with the device settled: no side pays for writing back
    # what an earlier run left in the page cache.
    os.sync()
    env = dict(os.environ)
    env.pop("ZARN_PASSWORD", None)
    env.update(command.env)
    argv = ["/usr/bin/time", "-f", "%M", "-o", rss_file] + command.argv
    stdin = open(command.stdin, "rb") if command.stdin else subprocess.DEVNULL
    stdout = open(command.stdout_to, "wb") if command.stdout_to else subprocess.PIPE
    try:
        start = time.perf_counter()
        result = subprocess.run(argv, stdin=stdin, stdout=stdout, stderr=subprocess.PIPE, env=env)
        seconds = time.perf_counter() - start
    finally:
        if command.stdin:
            stdin.close()
        if command.stdout_to:
            stdout.close()
    output = (result.stdout or b"").decode(errors="replace") + result.stderr.decode(errors="replace")
    if result.returncode != 0 or (command.check_output and command.check_output(output)):
        lines = [l for l in output.replace("qemu-io> ", "").splitlines() if l.strip()]
        raise RunFailed(f"{' '.join(command.argv)}: exit {result.returncode}: {' '.join(lines[:2])[:300]}")
    with open(rss_file) as f:
        rss = int(f.read().strip().splitlines()[-1])
    return seconds, rss, output


class Row:
    """`peer_may_refuse`: the peer is known not to do everything zarn does;
    its failure in the warm-up leaves zarn-img's side alone in the row. Any
    other failure ends the benchmark."""

    def __init__(self, name, zarn, peer, note="", peer_may_refuse=False):
        self.name = name
        self.zarn = zarn
        self.peer = peer
        self.note = note
        self.peer_may_refuse = peer_may_refuse
        self.result = None


def measure_row(row, pairs, work):
    rss_file = os.path.join(work, "rss")
    a, b = row.zarn, row.peer
    # Warm-up: also the one run whose output is checked.
    run_timed(a, rss_file)
    if a.verify:
        a.verify()
    usage_a = disk_usage(a.usage_of) if a.usage_of else None
    peer_failed = None
    usage_b = None
    try:
        run_timed(b, rss_file)
        if b.verify:
            b.verify()
        usage_b = disk_usage(b.usage_of) if b.usage_of else None
    except RunFailed as failure:
        if not row.peer_may_refuse:
            raise
        peer_failed = str(failure)
    times, rss_a, rss_b, outputs = [], [], [], []
    for _ in range(pairs):
        ta, ra, out_a = run_timed(a, rss_file)
        rss_a.append(ra)
        outputs.append(out_a)
        tb = None
        if not peer_failed:
            tb, rb, _ = run_timed(b, rss_file)
            rss_b.append(rb)
        times.append((ta, tb))
        # Each pair goes to the log, so a row whose median surprises can be
        # read pair by pair.
        print(f"   pair {len(times)}: zarn {ta:.3f} s" + (f", peer {tb:.3f} s" if tb is not None else ""),
              file=sys.stderr, flush=True)
    for side in (a, b):
        if side.out:
            shutil.rmtree(side.out, ignore_errors=True)
    result = {
        "zarn_s": statistics.median(t[0] for t in times),
        "zarn_rss": max(rss_a) / 1024,
        "zarn_usage": usage_a,
        "peer_usage": usage_b,
        "peer_failed": peer_failed,
        "outputs": outputs,
    }
    if not peer_failed:
        result["zarn_s"], result["peer_s"], result["ratio"] = median_ratio(times)
        result["peer_rss"] = max(rss_b) / 1024
    row.result = result
    return result


def format_usage(usage):
    return "—" if usage is None else f"{usage[0]} / {usage[1]}"


def format_table(rows):
    head = ["row", "zarn-img median s", "peer median s", "median ratio zarn/peer",
            "zarn output bytes (apparent / allocated)", "peer output bytes (apparent / allocated)",
            "zarn peak RSS MiB", "peer peak RSS MiB", "notes"]
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    for row in rows:
        r = row.result
        note = row.note
        if r.get("extra_note"):
            note = (note + "; " if note else "") + r["extra_note"]
        if r["peer_failed"]:
            peer_s, ratio, peer_rss = "refused", "—", "—"
            note = (note + "; " if note else "") + "peer: " + r["peer_failed"].replace("|", "/")
        else:
            peer_s, ratio, peer_rss = f"{r['peer_s']:.3f}", f"{r['ratio']:.2f}", f"{r['peer_rss']:.1f}"
        cells = [row.name, f"{r['zarn_s']:.3f}", peer_s, ratio, format_usage(r["zarn_usage"]),
                 format_usage(r["peer_usage"]), f"{r['zarn_rss']:.1f}", peer_rss, note]
        lines.append("| " + " | ".join(cells) + " |")
    return "\n".join(lines) + "\n"


def read_load():
    with open("/proc/loadavg") as f:
        fields = f.read().split()
    return float(fields[0]), float(fields[1]), float(fields[2])


# --- the rows --------------------------------------------------------------

def check(argv, what):
    result = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                            env={**os.environ, "ZARN_PASSWORD": PASSWORD})
    if result.returncode != 0:
        raise RunFailed(f"{what}: {' '.join(argv)}: {result.stdout.decode(errors='replace').strip()[:400]}")


def same_content(source, source_format, target, target_format):
    return lambda: check(["qemu-img", "compare", "-q", "-f", source_format, "-F", target_format, source, target],
                         f"{target} doesn't read as {source}")


def build_rows(tool, random_io, work, mixed, sparse, ops, seed):
    a_out = os.path.join(work, "out-a")
    b_out = os.path.join(work, "out-b")
    a_vmdk = os.path.join(a_out, "disk.vmdk")
    b_vmdk = os.path.join(b_out, "disk.vmdk")
    a_raw = os.path.join(a_out, "disk.raw")
    b_raw = os.path.join(b_out, "disk.raw")

    def zarn_convert(src, dst, *options, source_format="raw", target_format="vmdk"):
        return [tool, "convert", "-f", source_format, "-O", target_format, *options, src, dst]

    def qemu_convert(src, dst, *options, source_format="raw", target_format="vmdk"):
        return ["qemu-img", "convert", "-f", source_format, "-O", target_format, *options, src, dst]

    # The inputs of the read rows, made once by each tool.
    plain = os.path.join(work, "zarn-plain.vmdk")
    zarn_stream = os.path.join(work, "zarn-stream.vmdk")
    qemu_stream = os.path.join(work, "qemu-stream.vmdk")
    for path, argv in ((plain, zarn_convert(mixed, plain)),
                       (zarn_stream, zarn_convert(mixed, zarn_stream, "-o", "subformat=streamOptimized")),
                       (qemu_stream, qemu_convert(mixed, qemu_stream, "-o", "subformat=streamOptimized"))):
        for stale in (path, path + ".lock"):
            if os.path.exists(stale):
                os.remove(stale)
        check(argv, f"making {path}")
        same_content(mixed, "raw", path, "vmdk")()

    stream = "subformat=streamOptimized"
    rows = [
        Row("plain write: raw → monolithicSparse vs qemu-img",
            Command(zarn_convert(mixed, a_vmdk), a_out, verify=same_content(mixed, "raw", a_vmdk, "vmdk")),
            Command(qemu_convert(mixed, b_vmdk), b_out, verify=same_content(mixed, "raw", b_vmdk, "vmdk"))),
        Row("plain write vs `cat` (page cache, no sync)",
            Command(zarn_convert(mixed, a_vmdk), a_out),
            Command(["cat", mixed], b_out, stdout_to=b_raw, usage_of=b_out),
            "zarn-img ends with fdatasync, cat doesn't"),
        Row("plain write vs `dd conv=fdatasync` (waits for the device)",
            Command(zarn_convert(mixed, a_vmdk), a_out),
            Command(["dd", f"if={mixed}", f"of={b_raw}", "bs=1M", "conv=fdatasync", "status=none"], b_out)),
    ]
    for jobs in ("1", "2"):
        rows.append(Row(
            f"compressed write -j {jobs}: raw → streamOptimized vs qemu-img",
            Command(zarn_convert(mixed, a_vmdk, "-o", stream, "-j", jobs), a_out,
                    verify=same_content(mixed, "raw", a_vmdk, "vmdk")),
            Command(qemu_convert(mixed, b_vmdk, "-o", stream), b_out,
                    verify=same_content(mixed, "raw", b_vmdk, "vmdk")),
            "qemu-img runs the same command in both rows: it has no thread option for compressing"))
    rows += [
        Row("plain read: monolithicSparse → raw vs qemu-img",
            Command(zarn_convert(plain, a_raw, source_format="vmdk", target_format="raw"), a_out,
                    verify=same_content(mixed, "raw", a_raw, "raw")),
            Command(qemu_convert(plain, b_raw, source_format="vmdk", target_format="raw"), b_out,
                    verify=same_content(mixed, "raw", b_raw, "raw")),
            "both read zarn's monolithicSparse file"),
        Row("plain read vs `cat` of the .vmdk file (page cache)",
            Command(zarn_convert(plain, a_raw, source_format="vmdk", target_format="raw"), a_out),
            Command(["cat", plain], b_out, stdout_to=b_raw)),
    ]
    reads = (("compressed read", zarn_stream, "zarn-img reads the file zarn-img made, qemu-img the file qemu-img made"),
             ("foreign read: qemu-img's file", qemu_stream,
              "both read the file qemu-img made; zarn-img through its read-only importer"))
    for label, source, note in reads:
        for jobs in ("1", "2"):
            rows.append(Row(
                f"{label} -j {jobs}: streamOptimized → raw vs qemu-img",
                Command(zarn_convert(source, a_raw, "-j", jobs, source_format="vmdk", target_format="raw"), a_out,
                        verify=same_content(mixed, "raw", a_raw, "raw")),
                Command(qemu_convert(qemu_stream, b_raw, source_format="vmdk", target_format="raw"), b_out,
                        verify=same_content(mixed, "raw", b_raw, "raw")),
                note))

    def encrypted_reads_back():
        back = os.path.join(work, "encrypted-back.raw")
        check(zarn_convert(a_vmdk, back, source_format="vmdk", target_format="raw"), "reading the encrypted disk")
        try:
            same_content(mixed, "raw", back, "raw")()
        finally:
            os.remove(back)

    rows += [
        Row("encrypted -j 2: raw → monolithicSparse, encrypted=on vs zarn-img plain",
            Command(zarn_convert(mixed, a_vmdk, "-o", "encrypted=on", "-j", "2"), a_out,
                    env={"ZARN_PASSWORD": PASSWORD}, verify=encrypted_reads_back),
            Command(zarn_convert(mixed, b_vmdk, "-j", "2"), b_out),
            "peer is zarn-img without encryption: the ratio is what encryption costs; AES runs on the threads"),
        Row("raw source with holes → monolithicSparse vs qemu-img",
            Command(zarn_convert(sparse, a_vmdk), a_out, verify=same_content(sparse, "raw", a_vmdk, "vmdk")),
            Command(qemu_convert(sparse, b_vmdk), b_out, verify=same_content(sparse, "raw", b_vmdk, "vmdk")),
            f"{os.path.getsize(sparse) // GiB} GiB file, {disk_usage(sparse)[1] // MiB} MiB of data"),
    ]

    # Random 4 KiB operations: the same offsets for both tools, each run a
    # whole process that opens the disk, does them all and closes it.
    def offsets_of(disk, name):
        path = os.path.join(work, name)
        with open(path, "w") as f:
            subprocess.run([random_io, "list", disk, str(ops), str(seed)], stdout=f, check=True)
        with open(path) as f:
            offsets = [int(line) for line in f]
        commands = path + ".qemu-io"
        return path, offsets, commands

    def random_rows(disk, label, write, compressed=False):
        offsets_file, offsets, commands = offsets_of(disk, f"offsets-{label}-{'write' if write else 'read'}")
        with open(commands, "w") as f:
            f.write(qemu_io_commands(offsets, write))
        if not write:
            return Row(f"random 4 KiB reads, {label}: random_io vs qemu-io",
                       Command([random_io, "read", disk, offsets_file],
                               verify=lambda: check([random_io, "read", disk, offsets_file, "--verify", mixed],
                                                    "random_io read wrong bytes")),
                       Command(["qemu-io", "-f", "vmdk", "-r", disk], stdin=commands,
                               check_output=qemu_io_failed),
                       f"{ops} reads in written grains of zarn's file")
        copy_a = os.path.join(a_out, "disk.vmdk")
        copy_b = os.path.join(b_out, "disk.vmdk")

        def copier(target):
            return lambda: shutil.copyfile(disk, target)

        def written(target):
            def verify():
                check([random_io, "read", target, offsets_file, "--expect", str(WRITE_PATTERN)],
                      f"the writes into {target} didn't land")
                check(["qemu-img", "check", "-q", "-f", "vmdk", target], f"{target} is inconsistent")
            return verify

        return Row(f"random 4 KiB writes, {label}: random_io vs qemu-io",
                   Command([random_io, "write", copy_a, offsets_file], a_out, prepare=copier(copy_a),
                           verify=written(copy_a)),
                   Command(["qemu-io", "-f", "vmdk", "-t", "writeback", copy_b], b_out, stdin=commands,
                           prepare=copier(copy_b), check_output=qemu_io_failed, verify=written(copy_b)),
                   f"{ops} writes into written grains of a fresh copy of zarn's file, then one flush",
                   peer_may_refuse=compressed)

    rows += [
        random_rows(plain, "monolithicSparse", False),
        random_rows(plain, "monolithicSparse", True),
        random_rows(zarn_stream, "streamOptimized", False),
        random_rows(zarn_stream, "streamOptimized", True, compressed=True),
    ]
    return rows


def ops_per_second(row, ops):
    """The random rows' rates: whole processes, and random_io's own count of
    the operations alone."""
    r = row.result
    parts = [f"zarn {ops / r['zarn_s']:.0f} ops/s"]
    if not r["peer_failed"]:
        parts.append(f"qemu-io {ops / r['peer_s']:.0f} ops/s")
    inner = [float(line.split()[-2]) for out in r["outputs"] for line in out.splitlines()
             if line.startswith("random_io:") and line.endswith("ops/s")]
    if inner:
        parts.append(f"random_io's loop alone {statistics.median(inner):.0f} ops/s")
    return ", ".join(parts)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default="build")
    args = parser.parse_args(argv)
    build = os.path.abspath(args.build_dir)
    tool = os.path.join(build, "tools", "zarn-img")
    random_io = os.path.join(build, "bench", "random_io")
    size = parse_size(os.environ.get("BENCH_SIZE", "1G"))
    pairs = int(os.environ.get("BENCH_PAIRS", "5"))
    ops = int(os.environ.get("BENCH_OPS", "20000"))
    seed = int(os.environ.get("BENCH_SEED", "21"))
    work = os.path.abspath(os.environ.get("BENCH_DIR", os.path.join(build, "bench-compare")))
    if pairs < 1 or ops < 1:
        sys.exit("BENCH_PAIRS and BENCH_OPS must be at least 1")
    for program in (tool, random_io):
        if not os.access(program, os.X_OK):
            sys.exit(f"{program} is missing: build first (make build)")
    for program in ("qemu-img", "qemu-io", "/usr/bin/time"):
        if not shutil.which(program):
            sys.exit(f"{program} is missing: scripts/install-deps.sh installs it")

    load = read_load()
    print(f"load average: {load[0]:.2f} {load[1]:.2f} {load[2]:.2f}")
    if load[0] > 1.0:
        print(f"warning: the 1-minute load is {load[0]:.2f}, above 1.0: other work shares the machine "
              "and the numbers will spread", file=sys.stderr)

    os.makedirs(work, exist_ok=True)
    mixed = os.path.join(work, f"mixed-v1-{size // MiB}M-{seed}.raw")
    sparse_virtual = SPARSE_VIRTUAL_AT_1G * size // GiB
    sparse_data = max(MiB, SPARSE_DATA_AT_1G * size // GiB // MiB * MiB)
    sparse = os.path.join(work, f"holes-v1-{sparse_virtual // MiB}M-{sparse_data // MiB}M-{seed}.raw")
    ensure_image(mixed, size, lambda: write_mixed_image(mixed, size, seed), f"the {size // MiB} MiB mixed image")
    ensure_image(sparse, sparse_virtual, lambda: write_sparse_image(sparse, sparse_virtual, sparse_data, seed),
                 f"the {sparse_virtual // MiB} MiB sparse image")

    try:
        rows = build_rows(tool, random_io, work, mixed, sparse, ops, seed)
        wanted = [w.strip() for w in os.environ.get("BENCH_ROWS", "").split(",") if w.strip()]
        if wanted:
            rows = [row for row in rows if any(w in row.name for w in wanted)]
            if not rows:
                sys.exit(f"BENCH_ROWS={os.environ['BENCH_ROWS']} names no row")
        for row in rows:
            print(f"== {row.name}", file=sys.stderr, flush=True)
            measure_row(row, pairs, work)
            if row.name.startswith("random"):
                row.result["extra_note"] = ops_per_second(row, ops)
    except RunFailed as failure:
        sys.exit(f"bench-compare: {failure}")

    load_after = read_load()
    table = format_table(rows)
    header = (f"zarn-img against its peers: {size // MiB} MiB mixed image, {pairs} pairs per row, "
              f"seed {seed}; load average before {load[0]:.2f}, after {load_after[0]:.2f}\n\n")
    print()
    print(header + table)
    out = os.path.join(build, "bench-compare-rows.md" if wanted else "bench-compare.md")
    with open(out, "w") as f:
        f.write(header + table)
    print(f"written to {out}")


if __name__ == "__main__":
    main()
