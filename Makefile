# Quarvel's two commands for a fresh Debian machine:
#   make demo   installs what is missing, builds, and runs the demo
#   make test   installs what is missing, builds, and runs every test suite
# Also: make build, make bench, make quality, make check-asan, make check-tsan,
#       make fuzz, make fuzz-replay, make clean,
#       make install PREFIX=/usr/local (tool, library, headers, pkg-config, CMake package).

BUILD      ?= build
ASAN_BUILD ?= build-asan
TSAN_BUILD ?= build-tsan
FUZZ_BUILD ?= build-fuzz
FUZZ_TIME  ?= 60
FUZZ_TARGETS := ops scan read_bmp read_png read_tiff read_jpeg read_pnm
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
DEMO_OUT   ?= demo-out
# ccache, where installed, shares compiled objects between build trees.
LAUNCHER   := $(if $(shell command -v ccache 2>/dev/null),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
export CCACHE_BASEDIR ?= $(CURDIR)

.PHONY: all deps build test demo bench quality check-asan check-tsan fuzz-build fuzz fuzz-replay clean install

all: build

deps:
	@scripts/install-deps

$(BUILD)/CMakeCache.txt: | deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=Release $(LAUNCHER)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

demo: build
	@if [ -x $(BUILD)/tools/quarvel/quarvel ]; then \
		$(BUILD)/tools/quarvel/quarvel demo $(DEMO_OUT); \
	else \
		$(BUILD)/examples/mirror_demo $(DEMO_OUT); \
	fi

# Medians beside the floor (new block + memcpy) and the peers, as ratios.
bench: build
	scripts/bench-table $(BUILD)/bench/quarvel_bench

# Real-scan quality on the shared real pages, beside unpaper and Leptonica.
quality: build
	bench/quality/run $(BUILD)

check-asan: deps
	cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug $(LAUNCHER) -DQUARVEL_SANITIZE=ON -DQUARVEL_BUILD_BENCH=OFF
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 ctest --output-on-failure -j $(JOBS)

# The concurrency suite under ThreadSanitizer: every operation from several
# threads at once, the block cache included.
check-tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(LAUNCHER) -DQUARVEL_TSAN=ON -DQUARVEL_BUILD_BENCH=OFF
	cmake --build $(TSAN_BUILD) -j $(JOBS) --target test_threads
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1" $(TSAN_BUILD)/tests/test_threads

# libFuzzer targets (clang, ASan and UBSan); see fuzz/README.md.
fuzz-build: deps
	cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_C_COMPILER=clang-14 \
		-DCMAKE_CXX_COMPILER=clang++-14 $(LAUNCHER) -DQUARVEL_FUZZ=ON -DQUARVEL_BUILD_TESTS=OFF -DQUARVEL_BUILD_BENCH=OFF
	cmake --build $(FUZZ_BUILD) -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))

# Each target for FUZZ_TIME seconds, growing $(FUZZ_BUILD)/corpus.
fuzz: fuzz-build
	fuzz/run fuzz $(FUZZ_BUILD) $(FUZZ_TIME) $(FUZZ_TARGETS)

# Replays the seed corpora and every saved reproducer (fuzz/regressions).
fuzz-replay: fuzz-build
	fuzz/run replay $(FUZZ_BUILD) 0 $(FUZZ_TARGETS)

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(FUZZ_BUILD) $(DEMO_OUT)
