# Two set-up commands: `make run` and `make test` (see README.md).
RELEASE_DIR := build/release
TEST_DIR    := build/test
FUZZ_DIR    := build/fuzz
FUZZ_SECONDS ?= 60
FUZZ_TARGETS ?= client_request source_answer udp_order config_file
JOBS        ?= $(shell nproc)

.PHONY: all deps build build-test run test fuzz bench clean

all: build

deps:
	@scripts/install-deps.sh

$(RELEASE_DIR)/build.ninja:
	cmake -S . -B $(RELEASE_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	      -DCMAKE_CXX_FLAGS_RELWITHDEBINFO="-O2 -g"

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

# Download throughput figures of the release build (not a test; BENCH_ARGS=--quick for a smoke run).
bench: deps build
	/usr/bin/python3 bench/throughput.py --vsk $(RELEASE_DIR)/vesk/vsk $(BENCH_ARGS)

clean:
	rm -rf build
