# Wraps the CMake build for the README's commands. `make check` is what CI runs.
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

.PHONY: all deps build tool check demo asan tsan stress stress-vm bench format vmtest clean fuzz

all: build

deps:
	bash scripts/install-deps.sh

build:
	cmake -S . -B build $(CMAKE_FLAGS)
	cmake --build build -j $(JOBS)

# The library and the `tavix` command only, without the test programs.
tool:
	cmake -S . -B build $(CMAKE_FLAGS)
	cmake --build build -j $(JOBS) --target tavix_tool

# Installs what is missing, builds, and runs every test.
check: deps build
	ctest --test-dir build --output-on-failure -j $(JOBS)

# AddressSanitizer + UndefinedBehaviorSanitizer, and ThreadSanitizer builds of the whole suite.
asan: deps
	cmake -S . -B build-asan -DTAVIX_SANITIZE=address -DTAVIX_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build build-asan -j $(JOBS)
	ctest --test-dir build-asan --output-on-failure -j $(JOBS)

tsan: deps
	cmake -S . -B build-tsan -DTAVIX_SANITIZE=thread -DTAVIX_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build build-tsan -j $(JOBS)
	ctest --test-dir build-tsan --output-on-failure -j $(JOBS)

# The whole suite STRESS_RUNS times in a row beside four busy loops, in the normal and the
# ThreadSanitizer builds (scripts/stress.sh); stops at the first failing run.
# STRESS_CTEST passes ctest arguments on, e.g. STRESS_CTEST="-E 'devices_vm|fuzz_'".
STRESS_RUNS ?= 10
STRESS_CTEST ?=
stress: deps build
	cmake -S . -B build-tsan -DTAVIX_SANITIZE=thread -DTAVIX_BUILD_BENCH=OFF $(CMAKE_FLAGS)
	cmake --build build-tsan -j $(JOBS)
	bash scripts/stress.sh build $(STRESS_RUNS) $(STRESS_CTEST)
	bash scripts/stress.sh build-tsan $(STRESS_RUNS) $(STRESS_CTEST)

# The device VM boots (ctest -R devices_vm, one at a time) STRESS_VM_RUNS times in a row beside
# two busy loops (STRESS_BUSY); stops at the first failing run, and counts a skipped boot (no VM
# could be started) as a failure.
STRESS_VM_RUNS ?= 5
stress-vm: deps build
	STRESS_BUSY=$${STRESS_BUSY:-2} STRESS_NO_SKIP=1 \
		bash scripts/stress.sh build $(STRESS_VM_RUNS) -R devices_vm

# The main job: records five seconds from the built-in test camera and microphone into a
# QuickTime movie, writes a PNG snapshot and prints the summary (files in build/demo/).
demo: deps tool
	mkdir -p build/demo
	build/tavix capture "Tavix Test Camera" --audio "Tavix Test Microphone" --seconds 5 \
		--record build/demo/capture.mov --snapshot build/demo/snapshot.png -y

bench: deps build
	build/bench/tavix_bench

# The fuzz targets built with clang in build-fuzz/, each run for FUZZ_SECONDS on a corpus kept in
# build-fuzz/corpus/ (the test suite runs them only briefly).
FUZZ_SECONDS ?= 60
fuzz:
	cmake -S fuzz -B build-fuzz -DCMAKE_CXX_COMPILER=clang++
	cmake --build build-fuzz -j $(JOBS)
	for target in utf8 paths match csv commandline mjpeg; do \
		mkdir -p build-fuzz/corpus/$$target && \
		build-fuzz/fuzz_$$target build-fuzz/corpus/$$target -max_total_time=$(FUZZ_SECONDS) \
			-max_len=12000 -timeout=10 || exit 1; \
	done

format:
	git ls-files -co --exclude-standard '*.cpp' '*.h' '*.c' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan

# The device tests against the kernel's vivid and snd-aloop drivers inside small VMs
# (scripts/devvm.sh; skipped, saying why, only when no VM can be started; a VM that boots and
# does not test fails).
vmtest: deps build
	ctest --test-dir build -R devices_vm --output-on-failure
