# Entry points for newcomers and CI. Every target installs what is missing first.
BUILD_DIR      ?= build
ASAN_BUILD_DIR ?= build-asan
FUZZ_BUILD_DIR ?= build-fuzz
TSAN_BUILD_DIR ?= build-tsan
FUZZ_SECONDS   ?= 60
FUZZ_RUNS      ?= 1000000
JOBS           ?= $(shell nproc)
CTEST_FLAGS    ?= --output-on-failure -j $(JOBS)

# Let ccache share objects between clones of the repository (CI builds a fresh clone).
export CCACHE_BASEDIR   := $(CURDIR)
export CCACHE_NOHASHDIR := 1
export CCACHE_MAXSIZE   ?= 5G

.PHONY: all deps build test unit-test asan-test tsan tsan-test demo bench fuzz clean

all: build

deps:
	@scripts/install-deps.sh

build: deps
	cmake -S . -B $(BUILD_DIR) -G Ninja
	cmake --build $(BUILD_DIR) -j $(JOBS)

# Unit, integration and fuzz-corpus tests, then the unit tests and corpora again under
# AddressSanitizer + UndefinedBehaviorSanitizer. Ends on CTest's summary.
test: build
	ctest --test-dir $(BUILD_DIR) -L 'unit|integration|fuzz' $(CTEST_FLAGS)
	cmake -S . -B $(ASAN_BUILD_DIR) -G Ninja -DNEMBRA_SANITIZE=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build $(ASAN_BUILD_DIR) -j $(JOBS) --target peerless_tests
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/lsan.supp \
	  ctest --test-dir $(ASAN_BUILD_DIR) -L 'unit|fuzz' $(CTEST_FLAGS)

# The unit and integration tests under ThreadSanitizer: not part of `make test` (time), but it
# must pass whenever concurrency changes. Suppressions (scripts/tsan.supp) cover only the
# uninstrumented libraries' own threads.
tsan: deps
	cmake -S . -B $(TSAN_BUILD_DIR) -G Ninja -DNEMBRA_TSAN=ON -DCMAKE_BUILD_TYPE=Debug
	cmake --build $(TSAN_BUILD_DIR) -j $(JOBS)
	ctest --test-dir $(TSAN_BUILD_DIR) -L 'unit|integration' $(CTEST_FLAGS)

tsan-test: tsan

demo: build
	@scripts/demo.sh $(BUILD_DIR)

bench: build
	@scripts/run-benchmarks.sh $(BUILD_DIR)

# Each target runs until FUZZ_RUNS executions or FUZZ_SECONDS, whichever comes first, and the
# run ends on a table of executions and exec/s per target.
fuzz: deps
	CC=clang-14 CXX=clang++-14 cmake -S . -B $(FUZZ_BUILD_DIR) -G Ninja -DNEMBRA_FUZZ=ON
	cmake --build $(FUZZ_BUILD_DIR) -j $(JOBS) --target fuzzers
	@scripts/run-fuzzers.sh $(FUZZ_BUILD_DIR) $(FUZZ_SECONDS) $(FUZZ_RUNS)

clean:
	rm -rf $(BUILD_DIR) $(ASAN_BUILD_DIR) $(FUZZ_BUILD_DIR) $(TSAN_BUILD_DIR)
