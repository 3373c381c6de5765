# Two set-up commands: `make run` and `make test` (see README.md).
RELEASE_DIR := build/release
TEST_DIR    := build/test
FUZZ_DIR    := build/fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= client_request source_answer udp_order config_file
JOBS        ?= $(shell nproc)
# `make install` puts the agent under PREFIX, staged under DESTDIR when that is set. The release
# tree is configured with the prefix, because the installed configuration and unit name
# absolute paths under it.
PREFIX      ?= /usr/local
DESTDIR     ?=
# `make package` builds the .deb in a tree of its own, configured for /usr and without tests.
PACKAGE_DIR ?= build/package
RELEASE_FLAGS := -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g"

.PHONY: all deps bench-deps build build-test run test fuzz bench bench-acl install package clean

all: build

deps:
	@scripts/install-deps.sh

bench-deps:
	@scripts/install-deps.sh --bench

$(RELEASE_DIR)/build.ninja:
	cmake -S . -B $(RELEASE_DIR) $(RELEASE_FLAGS)

$(TEST_DIR)/build.ninja:
	cmake -S . -B $(TEST_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	      -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DVSK_SANITIZE=ON -DVSK_WERROR=ON

build: $(RELEASE_DIR)/build.ninja
	cmake --build $(RELEASE_DIR) -j $(JOBS) --target vsk

build-test: $(TEST_DIR)/build.ninja
	cmake --build $(TEST_DIR) -j $(JOBS)

run: deps build
	mkdir -p var/data var/lock
	$(RELEASE_DIR)/vesk/vsk -C etc/vsk.conf -T

test: deps build-test
	cd $(TEST_DIR) && ctest --output-on-failure -j $(JOBS)

$(FUZZ_DIR)/build.ninja:
	CXX=clang++ cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=Debug \
	      -DCMAKE_CXX_FLAGS_DEBUG="-O1 -g" -DVSK_FUZZ=ON

# Fuzzes every parser of outside input for FUZZ_SECONDS each (clang is installed on demand: only
# this target needs it). FUZZ_TARGETS picks some of them.
fuzz:
	@scripts/install-deps.sh clang libclang-rt-dev
	$(MAKE) $(FUZZ_DIR)/build.ninja
	cmake --build $(FUZZ_DIR) -j $(JOBS) --target $(addprefix fuzz_,$(FUZZ_TARGETS))
	scripts/run-fuzz.sh $(FUZZ_DIR) $(FUZZ_SECONDS) $(FUZZ_TARGETS)

# The release build side by side with cp -r, curl -Z and an aria2c RPC daemon on the same files:
# one table (build/bench/bench.md) and chart (bench.svg). Not a test; BENCH_ARGS=--quick for a
# smoke run, BENCH_ARGS="--inflight 4096" adds 4096 requests in flight on one listener.
bench: bench-deps build
	cmake --build $(RELEASE_DIR) -j $(JOBS) --target vsk_drive
	/usr/bin/python3 bench/throughput.py --vsk $(RELEASE_DIR)/vesk/vsk $(BENCH_ARGS)

# Cost of one access-list look-up (allow_clients, allow_sources, deny_sources) in the release
# build, in nanoseconds. Not a test.
bench-acl: $(RELEASE_DIR)/build.ninja
	cmake --build $(RELEASE_DIR) -j $(JOBS) --target acl_bench
	$(RELEASE_DIR)/acl_bench

install: deps
	cmake -S . -B $(RELEASE_DIR) $(RELEASE_FLAGS) -DCMAKE_INSTALL_PREFIX=$(PREFIX)
	cmake --build $(RELEASE_DIR) -j $(JOBS) --target vsk
	DESTDIR="$(DESTDIR)" cmake --install $(RELEASE_DIR)

package: deps
	cmake -S . -B $(PACKAGE_DIR) $(RELEASE_FLAGS) -DCMAKE_INSTALL_PREFIX=/usr -DVSK_TESTS=OFF
	cmake --build $(PACKAGE_DIR) -j $(JOBS) --target package

clean:
	rm -rf build
