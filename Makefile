# A thin layer over CMake: each target installs the Debian packages it needs
# (apt-get, through sudo when not root), configures, builds and runs.

BUILD     ?= build
ASAN      ?= build-asan
TSAN      ?= build-tsan
RELEASE   ?= build-release
FUZZBUILD ?= build-fuzz
PREFIX    ?= /usr/local
JOBS      ?= $(shell nproc)
CMAKE_ARGS ?=

BASE_PACKAGES  = cmake make g++ pkg-config qt6-base-dev libpoco-dev libgtest-dev libgmock-dev
BENCH_PACKAGES = libbenchmark-dev libsqlite3-dev sqlite3
FUZZ_PACKAGES  = clang libclang-rt-14-dev
# The chart tests open each chart in headless Chromium and keep its screenshot;
# the shipping tests run a VictoriaMetrics.
TEST_PACKAGES  = chromium victoria-metrics
# The Python module kelts and its tests, for Debian's python3.
PYTHON_PACKAGES = pybind11-dev python3-pybind11 python3-dev python3-numpy python3-pandas python3-pytest

.PHONY: all deps build test test-sanitize test-tsan demo bench fuzz install clean

all: build

deps:
	@scripts/install-deps $(BASE_PACKAGES)

build: deps
	@scripts/install-deps $(PYTHON_PACKAGES)
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS)

test: build
	@scripts/install-deps $(TEST_PACKAGES)
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

# The same tests built with AddressSanitizer and UndefinedBehaviorSanitizer;
# any report fails the run.
test-sanitize: deps
	cmake -S . -B $(ASAN) -DCMAKE_BUILD_TYPE=Debug -DKELTS_SANITIZE=ON $(CMAKE_ARGS)
	cmake --build $(ASAN) -j $(JOBS)
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --test-dir $(ASAN) --output-on-failure -j $(JOBS) -E Packaging

# The reader and writer threads test built with ThreadSanitizer, the library
# too; any report fails the run. Only the test program is built, and only
# the threads tests run: the others start no thread.
test-tsan: deps
	cmake -S . -B $(TSAN) -DCMAKE_BUILD_TYPE=Debug -DKELTS_TSAN=ON -DKELTS_BUILD_TOOLS=OFF $(CMAKE_ARGS)
	cmake --build $(TSAN) -j $(JOBS) --target kelts_tests
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/tests/tsan.supp" \
	  ctest --test-dir $(TSAN) --output-on-failure -R '^Threads\.'

# Only the tool is built: seeing it work needs none of the tests.
demo: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_ARGS)
	cmake --build $(BUILD) -j $(JOBS) --target kelts
	$(BUILD)/tools/kelts/kelts demo

bench: deps
	@scripts/install-deps $(BENCH_PACKAGES)
	cmake -S . -B $(RELEASE) -DCMAKE_BUILD_TYPE=Release -DKELTS_BUILD_BENCH=ON -DKELTS_BUILD_TESTS=OFF $(CMAKE_ARGS)
	cmake --build $(RELEASE) -j $(JOBS) --target kelts_bench
	$(RELEASE)/bench/kelts_bench $(BENCH_ARGS)

fuzz: deps
	@scripts/install-deps $(FUZZ_PACKAGES)
	CXX=clang++ cmake -S . -B $(FUZZBUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DKELTS_BUILD_FUZZ=ON \
	  -DKELTS_SANITIZE=ON -DKELTS_BUILD_TESTS=OFF -DKELTS_BUILD_TOOLS=OFF $(CMAKE_ARGS)
	cmake --build $(FUZZBUILD) -j $(JOBS)
	fuzz/run $(FUZZBUILD) $(FUZZ_SECONDS)

install: build
	cmake --install $(BUILD) --prefix $(PREFIX)

clean:
	rm -rf $(BUILD) $(ASAN) $(TSAN) $(RELEASE) $(FUZZBUILD)
