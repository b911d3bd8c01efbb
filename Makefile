# postclone: `make demo` and `make test` set up a fresh Debian machine, build and run.

BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all setup build test test-real demo bench asan fuzz fuzz-build release-builds deb format clean

all: build

setup:
	@scripts/setup

build: setup
	@cmake -S . -B $(BUILD) $(CMAKE_ARGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test: build fuzz-build release-builds deb
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# The whole tree in Release with GCC and with Clang, warnings as errors, as packagers build it:
# -O3 finds warnings the tested build does not. Built only; the tests run on $(BUILD).
release-builds: setup
	@cmake -S . -B build-release-gcc -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-release-gcc -j $(JOBS) >/dev/null
	@CC=clang CXX=clang++ cmake -S . -B build-release-clang -DCMAKE_BUILD_TYPE=Release >/dev/null
	@cmake --build build-release-clang -j $(JOBS) >/dev/null

# The Debian packages (postclone, libpostclone0.15, libpostclone-dev) built by dpkg-buildpackage
# from a copy of the tree, into build-deb/; the suite checks them with lintian and runs them.
deb: setup
	@JOBS=$(JOBS) scripts/build-deb build-deb

# Real Debian 12 disks (built with mmdebstrap, booted once), copied with dd, post-processed and
# booted under qemu: MBR and GPT, alone and beside their source. Downloads packages the first time
# and takes minutes; not part of `make test`.
REAL_LINUX ?= ../shared/real-linux
test-real: build
	@scripts/setup real
	@scripts/test-real $(REAL_LINUX) $(abspath $(BUILD))/cli/postclone

demo: build
	@scripts/demo $(BUILD)/cli/postclone

# Costs that grow with the input: sectors touched and time per step; preset 1 traced on a
# 4-partition disk; the peak memory of an ext4 UUID change at 100,000 and 1,000,000 files (minutes).
bench: build
	@for b in $(BUILD)/benchmarks/*_benchmark; do $$b; done
	@benchmarks/preset_io_benchmark.py $(BUILD)/cli/postclone
	@benchmarks/ext_uuid_memory_benchmark.py $(BUILD)/cli/postclone

# AddressSanitizer and UndefinedBehaviorSanitizer over the whole suite.
asan: setup
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DPOSTCLONE_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@ASAN_OPTIONS=detect_leaks=1:exitcode=86 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:exitcode=87 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

# libFuzzer targets (clang): `make test` builds them; `make fuzz` runs each for FUZZ_SECONDS on
# corpora seeded from real-tool images. Crashes are left as crash-* files in $(FUZZ_BUILD).
FUZZ_BUILD   ?= build-fuzz
FUZZ_SECONDS ?= 600
fuzz-build: setup
	@CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DPOSTCLONE_FUZZ=ON >/dev/null
	@cmake --build $(FUZZ_BUILD) -j $(JOBS) >/dev/null

fuzz: fuzz-build
	@scripts/fuzz-seeds $(FUZZ_BUILD)/corpus
	@for t in $(FUZZ_BUILD)/fuzz/*_fuzzer; do \
	  name=$$(basename $$t _fuzzer); \
	  (cd $(FUZZ_BUILD) && ./fuzz/$${name}_fuzzer -max_total_time=$(FUZZ_SECONDS) -max_len=1048576 \
	    -print_final_stats=1 corpus/$$name 2>&1 | grep -E 'stat::number_of_executed_units|ERROR|SUMMARY' \
	    | sed "s/^/$$name: /"); \
	done

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(FUZZ_BUILD) build-release-gcc build-release-clang build-deb
