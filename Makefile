# postclone: `make demo` and `make test` set up a fresh Debian machine, build and run.

BUILD      ?= build
ASAN_BUILD ?= build-asan
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?= -DCMAKE_BUILD_TYPE=RelWithDebInfo

.PHONY: all setup build test test-real demo bench asan format clean

all: build

setup:
	@scripts/setup

build: setup
	@cmake -S . -B $(BUILD) $(CMAKE_ARGS) >/dev/null
	@cmake --build $(BUILD) -j $(JOBS)

test: build
	@ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# Real Debian 12 disks (built with mmdebstrap, booted once), copied with dd, post-processed and
# booted under qemu: MBR and GPT, alone and beside their source. Downloads packages the first time
# and takes minutes; not part of `make test`.
REAL_LINUX ?= ../shared/real-linux
test-real: build
	@scripts/setup real
	@scripts/test-real $(REAL_LINUX) $(abspath $(BUILD))/cli/postclone

demo: build
	@scripts/demo $(BUILD)/cli/postclone

# Costs that grow with the input: sectors touched and time per step.
bench: build
	@for b in $(BUILD)/benchmarks/*_benchmark; do $$b; done

# AddressSanitizer and UndefinedBehaviorSanitizer over the whole suite.
asan: setup
	@cmake -S . -B $(ASAN_BUILD) -DCMAKE_BUILD_TYPE=Debug -DPOSTCLONE_SANITIZE=ON >/dev/null
	@cmake --build $(ASAN_BUILD) -j $(JOBS)
	@ASAN_OPTIONS=detect_leaks=1:exitcode=86 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1:exitcode=87 \
	  ctest --test-dir $(ASAN_BUILD) --output-on-failure -j $(JOBS)

format:
	@git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD)
