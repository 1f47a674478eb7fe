# Quarvel's two commands for a fresh Debian machine:
#   make demo   installs what is missing, builds, and runs the demo
#   make test   installs what is missing, builds, and runs every test suite
# Also: make build, make bench, make check-asan, make clean,
#       make install PREFIX=/usr/local (tool, library, headers, pkg-config, CMake package).

BUILD      ?= build
ASAN_BUILD ?= build-asan
PREFIX     ?= /usr/local
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
DEMO_OUT   ?= demo-out
# ccache, where installed, shares compiled objects between build trees.
LAUNCHER   := $(if $(shell command -v ccache 2>/dev/null),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache -DCMAKE_C_COMPILER_LAUNCHER=ccache)
export CCACHE_BASEDIR ?= $(CURDIR)

.PHONY: all deps build test demo bench quality check-asan clean install

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

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(DEMO_OUT)
