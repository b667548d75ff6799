# kelbase: the two quick-start commands (make demo, make test) and the developer targets.
# Everything is a thin wrapper around CMake; each target installs missing packages first.

JOBS        ?= $(shell nproc)
BUILD       ?= build
ASAN_BUILD  ?= build-asan
TSAN_BUILD  ?= build-tsan
VG_BUILD    ?= build-vg
FUZZ_BUILD  ?= build-fuzz
FUZZ_SECONDS ?= 120
CMAKE_FLAGS ?=
CTEST_FLAGS ?= --output-on-failure -j $(JOBS) -LE soak
# The suites that start threads: the ones ThreadSanitizer has something to say about.
TSAN_LABELS ?= threads|pool|sockets|channel|ssl|faults
# Test time-outs (and test discovery) are stretched this many times under valgrind.
VG_TIMEOUT_FACTOR ?= 20
# The soak test's length in seconds (read by the test program).
SOAK_SECONDS ?= 180
# The soak test runs over TLS; SOAK_PLAIN=1 runs it over plain TCP.
SOAK_PLAIN ?= 0

.PHONY: all deps build test test-asan demo tour tsan valgrind soak bench fuzz format clean package docs

all: build

deps:
	@scripts/install-deps.sh

$(BUILD)/CMakeCache.txt:
	cmake -S . -B $(BUILD) -DKEL_WERROR=ON $(CMAKE_FLAGS)

build: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) -j $(JOBS)

# The sanitizer build runs first, so the plain suite's CTest summary closes the output. It is
# built with Clang, the plain one with GCC: both compilers are held to warnings-as-errors.
test: build test-asan
	@echo "== kelbase test suite =="
	cd $(BUILD) && ctest $(CTEST_FLAGS)

test-asan: deps
	CC=clang CXX=clang++ cmake -S . -B $(ASAN_BUILD) -DKEL_WERROR=ON -DKEL_SANITIZE=address,undefined \
	      -DKEL_BUILD_BENCH=OFF -DKEL_BUILD_EXAMPLES=OFF -DCMAKE_BUILD_TYPE=Debug $(CMAKE_FLAGS)
	cmake --build $(ASAN_BUILD) -j $(JOBS)
	@echo "== kelbase test suite under AddressSanitizer + UndefinedBehaviorSanitizer =="
	cd $(ASAN_BUILD) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	    UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest $(CTEST_FLAGS)

# The suite's exchange end to end: a TLS monitoring service and its client on loopback.
# DEMO_LANG=de shows every text in German.
DEMO_LANG ?= en
demo: build
	@$(BUILD)/examples/kel_monitor --lang $(DEMO_LANG)

# A tour of the library's basics: strings, formatting, failures, languages, the pool, trace.
tour: build
	@$(BUILD)/examples/kel_demo

tsan: deps
	cmake -S . -B $(TSAN_BUILD) -DKEL_WERROR=ON -DKEL_SANITIZE=thread \
	      -DKEL_BUILD_BENCH=OFF -DKEL_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS)
	cmake --build $(TSAN_BUILD) -j $(JOBS)
	cd $(TSAN_BUILD) && TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 \
	    suppressions=$(CURDIR)/scripts/tsan.supp" ctest $(CTEST_FLAGS) -L '$(TSAN_LABELS)'

# memcheck over the whole plain suite: every test (and the test discovery) runs under valgrind;
# any error or definitely lost block fails the test.
valgrind: deps
	cmake -S . -B $(VG_BUILD) -DKEL_WERROR=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	      -DKEL_BUILD_BENCH=OFF -DKEL_BUILD_EXAMPLES=OFF -DKEL_TEST_TIMEOUT_FACTOR=$(VG_TIMEOUT_FACTOR) \
	      "-DCMAKE_CROSSCOMPILING_EMULATOR=valgrind;--tool=memcheck;--error-exitcode=99;--leak-check=full;--errors-for-leak-kinds=definite;--track-origins=yes;--num-callers=30;--suppressions=$(CURDIR)/scripts/valgrind.supp" \
	      $(CMAKE_FLAGS)
	cmake --build $(VG_BUILD) -j $(JOBS)
	cd $(VG_BUILD) && nice -n 19 ctest $(CTEST_FLAGS)

# The long-running service test (label soak), SOAK_SECONDS long, over TLS unless SOAK_PLAIN=1.
soak: build
	cd $(BUILD) && KEL_SOAK_SECONDS=$(SOAK_SECONDS) KEL_SOAK_PLAIN=$(SOAK_PLAIN) ctest --output-on-failure -L soak

bench: build
	@for b in $(BUILD)/bench/bench_*; do echo "== $$b"; $$b --benchmark_repetitions=5 \
	    --benchmark_report_aggregates_only=true || exit 1; done

fuzz: deps
	CC=clang CXX=clang++ cmake -S . -B $(FUZZ_BUILD) -DKEL_BUILD_FUZZ=ON \
	      -DKEL_SANITIZE=address,undefined -DKEL_BUILD_TESTS=OFF -DKEL_BUILD_BENCH=OFF \
	      -DKEL_BUILD_EXAMPLES=OFF $(CMAKE_FLAGS)
	cmake --build $(FUZZ_BUILD) -j $(JOBS)
	scripts/run-fuzzers.sh $(FUZZ_BUILD)/fuzz $(FUZZ_SECONDS)

# Debian packages (libkelbase7, libkelbase-dev, kelbase-tools) in $(BUILD).
package: build
	cd $(BUILD) && cpack -G DEB

# API documentation (Doxygen) in $(BUILD)/docs/html; any warning fails the build.
docs: deps $(BUILD)/CMakeCache.txt
	cmake --build $(BUILD) --target docs

format:
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(ASAN_BUILD) $(TSAN_BUILD) $(VG_BUILD) $(FUZZ_BUILD)
