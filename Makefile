# The README's commands. Each starts by installing what it needs (idempotent).
#   make demo    build tunnelctl, then run the demo on the bundled example network
#   make test    build everything, then run every test
# More: make build | asan-test | tsan-test | bench | fuzz | fuzz-long | format | clean
BUILD      ?= build
JOBS       ?= $(shell nproc)
CMAKE_ARGS ?=
# Multi-process tests share two cores with the build's own load: a test that fails is run once
# more before the run fails (a real fault fails both times).
CTEST_ARGS ?= --repeat until-pass:2 --timeout 900

.PHONY: deps deps-bench deps-fuzz build test demo asan-test tsan-test bench fuzz fuzz-long format clean

# Build and test packages; the benchmarks' peers and the fuzzers' clang only for their targets.
deps:
	@bash scripts/install-deps

deps-bench:
	@bash scripts/install-deps bench

deps-fuzz:
	@bash scripts/install-deps fuzz

# Configuring needs the build packages (GTest too, for the tests' targets), but a configured tree
# is not configured again for them.
$(BUILD)/build.ninja: | deps
	cmake -S . -B $(BUILD) -G Ninja $(CMAKE_ARGS)

build: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS)

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS) $(CTEST_ARGS)

demo: deps $(BUILD)/build.ninja
	cmake --build $(BUILD) -j $(JOBS) --target tunnelctl
	$(BUILD)/tools/tunnelctl/tunnelctl --version
	$(BUILD)/tools/tunnelctl/tunnelctl demo

asan-test:
	$(MAKE) test BUILD=build-asan CMAKE_ARGS="-DTUNNEL_SANITIZE=address"

tsan-test:
	$(MAKE) test BUILD=build-tsan CMAKE_ARGS="-DTUNNEL_SANITIZE=thread"

bench: deps-bench
	cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=Release -DTUNNEL_TESTS=OFF -DTUNNEL_BENCH=ON
	cmake --build build-bench -j $(JOBS)
	bash bench/run build-bench

# Short bounded fuzz runs of every target (CI); fuzz-long runs each for FUZZ_SECONDS. The GCC
# builds are the warnings gate; the fuzz build (clang) only looks for faults at run time.
FUZZ_SECONDS ?= 20
fuzz: deps-fuzz
	CXX=clang++ cmake -S . -B build-fuzz -G Ninja -DTUNNEL_FUZZ=ON -DTUNNEL_TESTS=OFF -DTUNNEL_SANITIZE=address -DTUNNEL_WERROR=OFF
	cmake --build build-fuzz -j $(JOBS) --target fuzz_targets
	bash fuzz/run build-fuzz $(FUZZ_SECONDS)

fuzz-long:
	$(MAKE) fuzz FUZZ_SECONDS=600

format:
	git ls-files '*.cpp' '*.h' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-bench build-fuzz
