# The two commands: `make test` and `make demo`. Both install what they need.
BUILD_DIR    ?= build
# make demo and make install build only the library and zarn-img, in a tree
# of their own: no tests, benchmarks or fuzz targets to wait for, and no
# fight with the test build over how a tree is configured.
DEMO_DIR     ?= build-demo
PREFIX       ?= /usr/local
SAN_DIR      ?= build-sanitize
JOBS         ?= $(shell nproc)
CMAKE_FLAGS  ?=

.PHONY: all deps configure build test test-sanitize test-slow bench bench-compare bench-doors fuzz demo demo-build install clean

all: build

deps:
	@./scripts/install-deps.sh

$(BUILD_DIR)/build.ninja: | deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

configure: $(BUILD_DIR)/build.ninja

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS)

# The whole suite under AddressSanitizer and UndefinedBehaviorSanitizer.
test-sanitize: deps
	cmake -S . -B $(SAN_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug -DZARN_SANITIZE=ON \
	  -DZARN_BUILD_BENCHMARKS=OFF $(CMAKE_FLAGS)
	cmake --build $(SAN_DIR) -j $(JOBS)
	cd $(SAN_DIR) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
	  ctest --output-on-failure -j $(JOBS)

bench: build
	@for b in $(BUILD_DIR)/bench/*_bench; do echo "== $$b"; $$b --benchmark_min_time=0.2; done

# zarn-img against qemu-img, qemu-io and cat on the same images (bench/bench_compare.py;
# not part of `make test`). BENCH_SIZE (1G), BENCH_PAIRS (5), BENCH_OPS (20000) and
# BENCH_DIR set it; `BENCH_SIZE=64M BENCH_PAIRS=2` makes a trial. The table goes to
# $(BUILD_DIR)/bench-compare.md.
bench-compare: build
	@./scripts/install-deps.sh python3 time
	cd bench && BENCH_BUILD_DIR=$(abspath $(BUILD_DIR)) /usr/bin/python3 -m unittest -q test_bench_compare
	/usr/bin/python3 bench/bench_compare.py --build-dir $(BUILD_DIR)

# The NBD export and the Python module against zarn-img convert on one mixed
# disk (bench/bench_doors.py; not part of `make test`): sequential reads and
# random 4 KiB reads. BENCH_SIZE (1G), BENCH_RUNS (3), BENCH_OPS (20000) and
# BENCH_DIR set it. The table goes to $(BUILD_DIR)/bench-doors.md.
bench-doors: build
	/usr/bin/python3 bench/bench_doors.py --build-dir $(BUILD_DIR)

# libFuzzer runs of every fuzz target (clang), FUZZ_SECONDS each; new inputs
# collect in $(FUZZ_DIR)/corpus/<target>.
FUZZ_DIR     ?= build-fuzz
FUZZ_SECONDS ?= 60
fuzz: deps
	@command -v clang++ >/dev/null || ./scripts/install-deps.sh clang
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DZARN_BUILD_FUZZERS=ON -DZARN_SANITIZE=ON -DZARN_BUILD_TESTS=OFF -DZARN_BUILD_BENCHMARKS=OFF -DZARN_INSTALL=OFF
	cmake --build $(FUZZ_DIR) -j $(JOBS)
	@for f in $(FUZZ_DIR)/fuzz/*_fuzzer; do n=$$(basename $$f); mkdir -p $(FUZZ_DIR)/corpus/$$n; \
	  echo "== $$n"; $$f -max_total_time=$(FUZZ_SECONDS) -rss_limit_mb=2048 $(FUZZ_DIR)/corpus/$$n testdata/fuzz/$$n || exit 1; done

$(DEMO_DIR)/build.ninja: | deps
	cmake -S . -B $(DEMO_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DZARN_BUILD_TESTS=OFF \
	  -DZARN_BUILD_BENCHMARKS=OFF -DZARN_BUILD_FUZZERS=OFF $(CMAKE_FLAGS)

demo-build: $(DEMO_DIR)/build.ninja
	cmake --build $(DEMO_DIR) -j $(JOBS) --target zarn-img

demo: demo-build
	./scripts/demo.sh $(DEMO_DIR)

# The library (shared and static), its headers, the CMake and pkg-config
# files, zarn-img, the nbdkit plugin and the Python package, under PREFIX:
# make install PREFIX=$$HOME/opt/zarn. PREFIX=/usr puts the plugin where
# `nbdkit zarn` finds it and the package where /usr/bin/python3 finds it;
# Debian's python3 searches /usr/local too.
install: $(DEMO_DIR)/build.ninja
	cmake -S . -B $(DEMO_DIR) -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(DEMO_DIR) -j $(JOBS)
	cmake --install $(DEMO_DIR)

clean:
	rm -rf $(BUILD_DIR) $(DEMO_DIR) $(SAN_DIR)
