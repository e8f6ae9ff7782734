# Thin wrapper around the CMake build. The two commands a new user needs: `make demo` and
# `make test`; both install what is missing first.
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=
GENERATOR := $(shell command -v ninja >/dev/null 2>&1 && echo "-G Ninja")

.PHONY: all deps build test test-asan test-tsan demo bench fuzz-smoke fuzz-long soak valgrind install clean format

all: build

deps:
	@scripts/install-deps.sh

build/CMakeCache.txt:
	cmake -S . -B build $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS)

build: deps build/CMakeCache.txt
	cmake --build build -j $(JOBS)

test: build
	cd build && ctest --output-on-failure -j $(JOBS) --timeout 300

build-asan/CMakeCache.txt:
	cmake -S . -B build-asan $(GENERATOR) -DCMAKE_BUILD_TYPE=Debug -DQRB_SANITIZE=address $(CMAKE_FLAGS)

test-asan: deps build-asan/CMakeCache.txt
	cmake --build build-asan -j $(JOBS)
	cd build-asan && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 600

build-tsan/CMakeCache.txt:
	cmake -S . -B build-tsan $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DQRB_SANITIZE=thread $(CMAKE_FLAGS)

test-tsan: deps build-tsan/CMakeCache.txt
	cmake --build build-tsan -j $(JOBS)
	cd build-tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
	  ctest --output-on-failure -j $(JOBS) --timeout 900

demo: build
	scripts/demo.sh build

bench: build
	bench/run.sh build
	bench/picture.sh build
	bench/music.sh build
	bench/video.sh build
	bench/local.sh build
	bench/formats.sh build

build-fuzz/CMakeCache.txt:
	CC=clang CXX=clang++ cmake -S . -B build-fuzz $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DQRB_FUZZ=ON -DQRB_BUILD_TESTS=OFF $(CMAKE_FLAGS)

fuzz-smoke: deps build-fuzz/CMakeCache.txt
	cmake --build build-fuzz -j $(JOBS)
	fuzz/smoke.sh build-fuzz

# Not in CI: every target for FUZZ_SECONDS (default ten minutes) each; merges into fuzz/corpus.
FUZZ_SECONDS ?= 600
fuzz-long: deps build-fuzz/CMakeCache.txt
	cmake --build build-fuzz -j $(JOBS)
	fuzz/long.sh build-fuzz $(FUZZ_SECONDS)

# Not in CI (the test suite runs it for half a minute): the soak for SOAK_SECONDS (default ten
# minutes) under AddressSanitizer, then under ThreadSanitizer.
SOAK_SECONDS ?= 600
soak: deps build-asan/CMakeCache.txt build-tsan/CMakeCache.txt
	cmake --build build-asan -j $(JOBS) --target qrb-soak
	ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
	  reliability/soak.sh build-asan $(SOAK_SECONDS)
	cmake --build build-tsan -j $(JOBS) --target qrb-soak
	TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 reliability/soak.sh build-tsan $(SOAK_SECONDS)

# Not in CI: every test case of the plain suite under valgrind's memcheck (the test programs run
# through it as through an emulator), failing on any error or definite leak. A few minutes.
# Memcheck's own memory counts in the process, so memory bounds are checked as under sanitizers.
build-valgrind/CMakeCache.txt:
	cmake -S . -B build-valgrind $(GENERATOR) -DCMAKE_BUILD_TYPE=RelWithDebInfo $(CMAKE_FLAGS) \
	  -DQRB_MEMCHECK=ON \
	  "-DCMAKE_CROSSCOMPILING_EMULATOR=valgrind;--error-exitcode=99;--leak-check=full;--errors-for-leak-kinds=definite;--suppressions=$(CURDIR)/reliability/valgrind.supp;--quiet"

valgrind: deps build-valgrind/CMakeCache.txt
	cmake --build build-valgrind -j $(JOBS)
	cd build-valgrind && ctest --output-on-failure -j $(JOBS) --timeout 3600

install: build
	cmake --install build --prefix $(PREFIX)

format:
	find common platform libqrb-thumbnail tools testing fuzz bench -name '*.[ch]' -o -name '*.cpp' \
	  | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-fuzz
