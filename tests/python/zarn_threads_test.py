"""zarn.Disk under threads: calls on one disk run one at a time and each
whole; calls on two disks run with the GIL released."""

import collections
import threading
import time

import zarn
from peers import GRAIN, MIB

THREADS = 4
GRAINS_EACH = 40


def text_mib(n):
    line = b"disk %d: a line of text for the compressed layout, %s\n" % (n, b"abcdefghij" * n)
    return (line * (MIB // len(line) + 1))[:MIB]


def run_threads(target, count=THREADS):
    errors = []

    def guarded(n):
        try:
            target(n)
        except BaseException as error:  # reported by the test thread
            errors.append(error)

    threads = [threading.Thread(target=guarded, args=(n,)) for n in range(count)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join(timeout=120)
    assert not errors, errors


def test_writes_and_reads_from_many_threads_stay_whole(tmp_path):
    """Each write and read moves the shared position by one grain; if two
    ran at once, grains would tear, overlap or be skipped."""
    path = tmp_path / "disk.vmdk"
    with zarn.create(path, 16 * MIB, layout="streamOptimized") as disk:
        run_threads(lambda n: [disk.write(bytes([n + 1]) * GRAIN) for _ in range(GRAINS_EACH)])
        assert disk.tell() == THREADS * GRAINS_EACH * GRAIN
        disk.seek(0)
        seen = collections.Counter()
        lock = threading.Lock()

        def read_grains(_):
            for _ in range(GRAINS_EACH):
                grain = disk.read(GRAIN)
                assert grain == grain[:1] * GRAIN, "a whole grain of one writer"
                with lock:
                    seen[grain[0]] += 1

        run_threads(read_grains)
    assert seen == {n + 1: GRAINS_EACH for n in range(THREADS)}


def test_close_from_another_thread_ends_reads_with_value_error(tmp_path):
    path = tmp_path / "disk.vmdk"
    zarn.create(path, 8 * MIB).close()
    disk = zarn.open(path)
    outcome = []

    def reader(_):
        try:
            while True:
                disk.seek(0)
                disk.read(MIB)
        except ValueError:
            outcome.append("closed")

    thread = threading.Thread(target=reader, args=(0,))
    thread.start()
    time.sleep(0.05)
    disk.close()
    thread.join(timeout=60)
    assert outcome == ["closed"]
    with zarn.open(path, "r+b"):
        pass  # the lock went with the close


def test_two_disks_in_two_threads_run_without_the_gil(tmp_path):
    """While one thread reads a large piece of one disk, another thread of
    Python keeps running. With the GIL held the main thread would stand
    still for the whole read; allowing for a loaded machine, its longest
    pause must stay well below that."""
    size = 64 * MIB
    paths = []
    for n in range(2):
        path = tmp_path / ("disk%d.vmdk" % n)
        # Compressed text: unpacking makes each read last tens of ms.
        with zarn.create(path, size, layout="streamOptimized") as disk:
            for _ in range(size // MIB):
                disk.write(text_mib(n))
        paths.append(path)
    disks = [zarn.open(p) for p in paths]
    try:
        ratios = []
        for _ in range(3):
            buffers = [bytearray(size) for _ in disks]
            times = {}

            def read_all(n):
                disks[n].seek(0)
                start = time.perf_counter()
                assert disks[n].readinto(buffers[n]) == size
                times[n] = (start, time.perf_counter())

            readers = [threading.Thread(target=read_all, args=(n,)) for n in range(2)]
            stamps = []
            for reader in readers:
                reader.start()
            while any(reader.is_alive() for reader in readers):
                stamps.append(time.perf_counter())
            for reader in readers:
                reader.join()
            start = min(t[0] for t in times.values())
            end = max(t[1] for t in times.values())
            inside = [s for s in stamps if start <= s <= end]
            gaps = [b - a for a, b in zip([start] + inside, inside + [end])]
            ratios.append(max(gaps) / (end - start))
            for n in range(2):
                assert buffers[n][:MIB] == text_mib(n) and buffers[n][-MIB:] == text_mib(n)
            if ratios[-1] < 0.5:
                break
        assert min(ratios) < 0.5, ratios
    finally:
        for disk in disks:
            disk.close()


def test_a_disk_left_open_is_closed_by_the_collector(tmp_path):
    path = tmp_path / "disk.vmdk"
    disk = zarn.create(path, 8 * MIB)
    disk.write(b"kept")
    del disk
    with zarn.open(path, "r+b") as disk:
        assert disk.read(4) == b"kept"
