# Entry points for people and CI. Everything installs what it needs first.
SHELL := /bin/bash
PRESET ?= debug
JOBS ?= 2
FUZZ_SECONDS ?= 60

DEB_PACKAGES := cmake ninja-build g++ pkg-config libboost-json1.81-dev libssl-dev uuid-dev \
	libicu-dev nlohmann-json3-dev clang libclang-rt-14-dev libgtest-dev libgmock-dev \
	libbenchmark-dev libsqlite3-dev libsqlitecpp-dev libcpp-httplib-dev chromium
SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: deps configure build test check-sanitizers fuzz demo bench clean

# Installs only the Debian packages that are missing, so a ready machine pays nothing.
deps:
	@missing=$$(for p in $(DEB_PACKAGES); do \
	  dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q '^install ok installed' || echo $$p; \
	done); \
	command -v node >/dev/null && command -v npm >/dev/null || missing="$$missing nodejs npm"; \
	if [ -n "$$missing" ]; then \
	  echo "Installing missing packages:" $$missing; \
	  $(SUDO) apt-get update -qq && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -qq --no-install-recommends $$missing; \
	fi

configure: deps
	cmake --preset $(PRESET)

build: configure
	cmake --build --preset $(PRESET) -j $(JOBS)

test: build
	ctest --preset $(PRESET)

check-sanitizers: deps
	$(MAKE) build PRESET=asan && ctest --preset asan
	$(MAKE) build PRESET=tsan && ctest --preset tsan

# libFuzzer targets (fuzz/), built with clang under address + undefined-behaviour sanitizers
# in build/fuzz, each run for FUZZ_SECONDS.
fuzz: deps
	JOBS=$(JOBS) fuzz/run.sh $(FUZZ_SECONDS)

# A scripted purchase session on the bundled sample store, printed for people to follow.
demo: configure
	cmake --build --preset $(PRESET) -j $(JOBS) --target vorntesk-storekit
	@echo
	@echo "vorntesk-storekit --transcript < examples/demo.jsonl"
	@echo "(send: a line to the service; answer: its envelope; event: an update the observer pushed)"
	build/$(PRESET)/tools/vorntesk-storekit --transcript < examples/demo.jsonl
	@echo
	@echo "A renewal that fails for a billing issue: grace period, billing retry, recovery"
	@echo "(README, Testing a failed renewal):"
	build/$(PRESET)/tools/vorntesk-storekit --transcript < examples/failed_renewal.jsonl
	@echo
	@echo "To watch and drive the store in a browser, start the driver with --server 127.0.0.1:8123"
	@echo "(and --api-key, --key-id, --issuer-id) and open http://127.0.0.1:8123/ (README, The"
	@echo "Transaction Manager page)."

# Benchmarks (bench/README.md): the release build with the benchmark programs, every figure
# beside its floor and its peers, gathered into build/bench/summary.json and printed.
bench: deps
	cmake --preset release -DVORNTESK_BUILD_BENCHMARKS=ON
	cmake --build --preset release -j $(JOBS) --target vorntesk_benchmarks
	bench/run_benchmarks.sh build/release/bench build/bench

clean:
	rm -rf build
