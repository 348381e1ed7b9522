"""The parts of bench_compare.py whose mistakes would skew its numbers
without failing a run: the image bytes, the sparse layout, the medians, the
sizes and the commands handed to qemu-io."""

import os
import random
import shutil
import subprocess
import sys
import tempfile
import unittest
import zlib

import bench_compare as bc


class ParseSize(unittest.TestCase):
    def test_suffixes(self):
        self.assertEqual(bc.parse_size("64M"), 64 << 20)
        self.assertEqual(bc.parse_size("64MiB"), 64 << 20)
        self.assertEqual(bc.parse_size("1g"), 1 << 30)
        self.assertEqual(bc.parse_size("16384K"), 16 << 20)
        self.assertEqual(bc.parse_size(str(8 << 20)), 8 << 20)

    def test_refuses_what_the_stripes_cant_fill(self):
        for text in ("4M", "65537K", "lots", "", "M"):
            with self.assertRaises(ValueError, msg=text):
                bc.parse_size(text)


class Stripes(unittest.TestCase):
    def test_a_quarter_zeros_a_quarter_noise_half_text(self):
        kinds = [bc.stripe_kind(i) for i in range(16)]
        self.assertEqual(kinds.count("zeros"), 4)
        self.assertEqual(kinds.count("random"), 4)
        self.assertEqual(kinds.count("words"), 8)
        # Each run of four holds one of each, so any whole-MiB prefix is mixed.
        for start in range(0, 16, 4):
            self.assertEqual(sorted(kinds[start:start + 4]), ["random", "words", "words", "zeros"])

    def test_each_kind_compresses_as_it_should(self):
        rng = random.Random(5)
        zeros = bc.make_stripe("zeros", rng)
        noise = bc.make_stripe("random", rng)
        text = bc.make_stripe("words", rng)
        for stripe in (zeros, noise, text):
            self.assertEqual(len(stripe), bc.STRIPE)
        self.assertEqual(zeros.count(0), bc.STRIPE)
        self.assertGreater(len(zlib.compress(noise, 1)), bc.STRIPE)
        ratio = len(zlib.compress(text, 6)) / bc.STRIPE
        self.assertGreater(ratio, 0.2)
        self.assertLess(ratio, 0.5)

    def test_text_is_made_of_the_words(self):
        text = bc.make_stripe("words", random.Random(1)).decode()
        words = text.split(" ")[:-1]  # the last may be cut
        self.assertGreater(len(words), 100000)
        self.assertEqual(set(words) - set(bc.WORDS), set())
        self.assertGreater(len(set(words)), len(set(bc.WORDS)) * 0.9)

    def test_the_seed_decides_the_bytes(self):
        one = b"".join(bc.mixed_stripes(8, 3))
        self.assertEqual(one, b"".join(bc.mixed_stripes(8, 3)))
        self.assertNotEqual(one, b"".join(bc.mixed_stripes(8, 4)))
        # No two noise or text stripes alike: every stripe comes fresh from the generator.
        stripes = [s for s in bc.mixed_stripes(8, 3) if any(s)]
        self.assertEqual(len(set(stripes)), len(stripes))


class Images(unittest.TestCase):
    def setUp(self):
        self.dir = tempfile.TemporaryDirectory()
        self.addCleanup(self.dir.cleanup)

    def test_mixed_image(self):
        path = os.path.join(self.dir.name, "m.raw")
        bc.write_mixed_image(path, 8 * bc.MiB, 7)
        with open(path, "rb") as f:
            data = f.read()
        self.assertEqual(data, b"".join(bc.mixed_stripes(8, 7)))
        self.assertFalse(os.path.exists(path + ".part"))

    def test_sparse_layout_spreads_runs_that_never_touch(self):
        for virtual, data in ((64 << 30, 256 << 20), (4 << 30, 16 << 20), (512 << 20, 1 << 20)):
            offsets, run = bc.sparse_layout(virtual, data, seed=2)
            self.assertEqual(len(offsets) * run, data)
            self.assertEqual(offsets, sorted(offsets))
            for a, b in zip(offsets, offsets[1:]):
                self.assertGreater(b, a + run)
            self.assertLessEqual(offsets[-1] + run, virtual)
            self.assertTrue(all(o % bc.MiB == 0 for o in offsets))
            # Spread out: the data reaches past three quarters of the space.
            self.assertGreater(offsets[-1], virtual * 3 // 4 - run)
        self.assertNotEqual(bc.sparse_layout(4 << 30, 16 << 20, seed=1)[0],
                            bc.sparse_layout(4 << 30, 16 << 20, seed=2)[0])

    def test_sparse_image_holds_its_data_and_nothing_else(self):
        path = os.path.join(self.dir.name, "s.raw")
        virtual, data = 256 * bc.MiB, 8 * bc.MiB
        bc.write_sparse_image(path, virtual, data, 9)
        self.assertEqual(os.path.getsize(path), virtual)
        apparent, allocated = bc.disk_usage(path)
        self.assertEqual(apparent, virtual)
        self.assertLess(allocated, 2 * data)
        offsets, run = bc.sparse_layout(virtual, data, seed=9)
        expected = b"".join(bc.mixed_stripes(data // bc.STRIPE, 10))
        got = b""
        with open(path, "rb") as f:
            for offset in offsets:
                f.seek(offset)
                got += f.read(run)
            # Between the runs: zeros.
            f.seek(offsets[0] + run)
            self.assertEqual(f.read(bc.MiB).count(0), bc.MiB)
        self.assertEqual(got, expected)

    def test_disk_usage_adds_up_a_folder(self):
        with open(os.path.join(self.dir.name, "a"), "wb") as f:
            f.write(b"x" * 10000)
        with open(os.path.join(self.dir.name, "b"), "wb") as f:
            f.truncate(1 << 20)
        apparent, allocated = bc.disk_usage(self.dir.name)
        self.assertEqual(apparent, 10000 + (1 << 20))
        self.assertGreaterEqual(allocated, 10000)
        self.assertLess(allocated, 1 << 20)


class Measuring(unittest.TestCase):
    def test_ratio_is_taken_pair_by_pair(self):
        # Medians of the sides are 3 and 2 (1.5); the pairs' own ratios have median 2.
        a, b, ratio = bc.median_ratio([(1, 0.5), (3, 1.5), (10, 2), (2, 20), (4, 2)])
        self.assertEqual((a, b), (3, 2))
        self.assertEqual(ratio, 2)

    def test_qemu_io_commands(self):
        self.assertEqual(bc.qemu_io_commands([0, 65536], False), "read -q 0 4k\nread -q 65536 4k\n")
        self.assertEqual(bc.qemu_io_commands([4096], True), "write -q -P 0xab 4096 4k\n")

    def test_qemu_io_failures_are_seen(self):
        self.assertFalse(bc.qemu_io_failed("qemu-io> qemu-io> "))
        self.assertTrue(bc.qemu_io_failed("qemu-io> write failed: Input/output error"))
        self.assertTrue(bc.qemu_io_failed("qemu-io: Could not write to allocated cluster for streamOptimized"))
        self.assertTrue(bc.qemu_io_failed("Pattern verification failed at offset 0, 4096 bytes"))

    def test_table_has_every_row_and_says_when_the_peer_refused(self):
        ok = bc.Row("fast", None, None, "a note")
        ok.result = {"zarn_s": 1.0, "peer_s": 2.0, "ratio": 0.5, "zarn_rss": 10.0, "peer_rss": 20.0,
                     "zarn_usage": (100, 50), "peer_usage": None, "peer_failed": None}
        refused = bc.Row("alone", None, None)
        refused.result = {"zarn_s": 3.0, "zarn_rss": 5.0, "zarn_usage": None, "peer_usage": None,
                          "peer_failed": "qemu-io: Could not write | here"}
        lines = bc.format_table([ok, refused]).splitlines()
        self.assertEqual(len(lines), 4)
        self.assertEqual(len({line.count("|") for line in lines}), 1)
        self.assertIn("| fast | 1.000 | 2.000 | 0.50 | 100 / 50 | — | 10.0 | 20.0 | a note |", lines[2])
        self.assertIn("refused", lines[3])
        self.assertIn("Could not write / here", lines[3])


@unittest.skipUnless(shutil.which("/usr/bin/time"), "needs GNU time (Debian's package time)")
class Runs(unittest.TestCase):
    def test_a_run_reports_time_and_memory_and_fails_loudly(self):
        out = os.path.join(self.dir_name(), "out")
        rss = os.path.join(self.dir_name(), "rss")
        seconds, kib, _ = bc.run_timed(bc.Command(["sh", "-c", "sleep 0.2; echo hi > " + out + "/f"], out), rss)
        self.assertGreaterEqual(seconds, 0.2)
        self.assertGreater(kib, 0)
        with open(os.path.join(out, "f")) as f:
            self.assertEqual(f.read(), "hi\n")
        # Another run starts from an empty folder.
        bc.run_timed(bc.Command(["true"], out), rss)
        self.assertEqual(os.listdir(out), [])
        with self.assertRaises(bc.RunFailed):
            bc.run_timed(bc.Command(["sh", "-c", "exit 3"]), rss)
        with self.assertRaises(bc.RunFailed):
            bc.run_timed(bc.Command(["echo", "write failed"], check_output=bc.qemu_io_failed), rss)

    def test_peak_memory_is_the_programs(self):
        rss = os.path.join(self.dir_name(), "rss")
        small = bc.run_timed(bc.Command(["true"]), rss)[1]
        big = bc.run_timed(bc.Command([sys.executable, "-c", "x = bytearray(200 << 20); x[::4096] = b'1' * len(x[::4096])"]),
                           rss)[1]
        self.assertGreater(big - small, 150 << 10)

    def dir_name(self):
        if not hasattr(self, "_dir"):
            self._dir = tempfile.TemporaryDirectory()
            self.addCleanup(self._dir.cleanup)
        return self._dir.name


# The built programs, when the build passes their folder (ctest does).
BUILD = os.environ.get("BENCH_BUILD_DIR", "")
RANDOM_IO = os.path.join(BUILD, "bench", "random_io")
ZARN_IMG = os.path.join(BUILD, "tools", "zarn-img")


@unittest.skipUnless(BUILD and os.access(RANDOM_IO, os.X_OK) and os.access(ZARN_IMG, os.X_OK),
                     "needs BENCH_BUILD_DIR with random_io and zarn-img built")
class RandomIO(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.dir = tempfile.TemporaryDirectory()
        cls.raw = os.path.join(cls.dir.name, "mixed.raw")
        cls.disk = os.path.join(cls.dir.name, "disk.vmdk")
        bc.write_mixed_image(cls.raw, 8 * bc.MiB, 4)
        subprocess.run([ZARN_IMG, "convert", "-f", "raw", "-O", "vmdk", cls.raw, cls.disk], check=True)

    @classmethod
    def tearDownClass(cls):
        cls.dir.cleanup()

    def run_io(self, *args):
        return subprocess.run([RANDOM_IO, *args], stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)

    def offsets(self, count, seed):
        result = self.run_io("list", self.disk, str(count), str(seed))
        self.assertEqual(result.returncode, 0, result.stderr)
        return [int(line) for line in result.stdout.split()]

    def offsets_file(self, offsets):
        path = os.path.join(self.dir.name, "offsets")
        with open(path, "w") as f:
            f.write("".join(f"{o}\n" for o in offsets))
        return path

    def test_offsets_fall_in_written_grains_only_and_follow_the_seed(self):
        offsets = self.offsets(300, 1)
        self.assertEqual(len(offsets), 300)
        self.assertEqual(offsets, self.offsets(300, 1))
        self.assertNotEqual(offsets, self.offsets(300, 2))
        self.assertTrue(all(o % 4096 == 0 and 0 <= o < 8 * bc.MiB for o in offsets))
        # The zero stripes were never stored: nothing may land there.
        self.assertEqual([o for o in offsets if bc.stripe_kind(o // bc.MiB) == "zeros"], [])
        self.assertEqual({o // bc.MiB for o in offsets}, {i for i in range(8) if bc.stripe_kind(i) != "zeros"})

    def test_reads_are_checked_and_writes_land(self):
        offsets = self.offsets_file(self.offsets(200, 3))
        self.assertEqual(self.run_io("read", self.disk, offsets, "--verify", self.raw).returncode, 0)
        wrong = self.run_io("read", self.disk, offsets, "--expect", "0xab")
        self.assertNotEqual(wrong.returncode, 0)
        self.assertIn("200 of 200 pieces read wrong", wrong.stderr)
        copy = os.path.join(self.dir.name, "copy.vmdk")
        shutil.copyfile(self.disk, copy)
        written = self.run_io("write", copy, offsets)
        self.assertEqual(written.returncode, 0, written.stderr)
        self.assertIn("200 writes", written.stderr)
        self.assertEqual(self.run_io("read", copy, offsets, "--expect", "0xab").returncode, 0)
        self.assertNotEqual(self.run_io("read", copy, offsets, "--verify", self.raw).returncode, 0)
        # Rewritten in place: the file doesn't grow.
        self.assertEqual(os.path.getsize(copy), os.path.getsize(self.disk))

    def test_refuses_a_bad_offsets_file(self):
        path = self.offsets_file([])
        with open(path, "w") as f:
            f.write("4096\nforty\n")
        result = self.run_io("read", self.disk, path)
        self.assertNotEqual(result.returncode, 0)
        self.assertIn("not a list of offsets", result.stderr)


if __name__ == "__main__":
    unittest.main()
