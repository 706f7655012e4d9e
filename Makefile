# Two commands do everything on a fresh Debian 12 machine: `make demo` and `make test`.
JOBS ?= $(shell nproc)
PRESET ?= default
BUILD_DIR = $(if $(filter default,$(PRESET)),build,build-$(PRESET))

.PHONY: deps configure build test demo bench asan tsan fuzz dynamodb dynamodb-stop format clean

deps:
	@scripts/install-deps.sh
	@scripts/npm-peers.sh >/dev/null

configure: deps
	@cmake --preset $(PRESET) >/dev/null

build: configure
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET) -j $(JOBS)

demo: build
	./$(BUILD_DIR)/tools/omra demo

bench: build
	cmake --build --preset $(PRESET) -j 1 --target bench

asan:
	$(MAKE) test PRESET=asan

tsan:
	$(MAKE) test PRESET=tsan

# Every libFuzzer harness for FUZZ_SECONDS each (default 60), from its seed corpus (build-fuzz/).
FUZZ_SECONDS ?= 60
fuzz: deps
	FUZZ_SECONDS=$(FUZZ_SECONDS) JOBS=$(JOBS) scripts/run-fuzzers.sh

# A local DynamoDB-compatible server (dynalite) on loopback, for the store tests and local use.
dynamodb:
	@scripts/dynalite.sh start

dynamodb-stop:
	@scripts/dynalite.sh stop

format:
	git ls-files '*.cc' '*.h' '*.c' | xargs clang-format -i

clean:
	rm -rf build build-asan build-tsan build-fuzz
