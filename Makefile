# The front door. What a target needs is installed with apt if it is missing, but for `install`, which only installs what was made.
prefix ?= /usr/local
PREFIX ?= $(prefix)
DESTDIR ?=
BUILD ?= build

.PHONY: all demo test bench torture install uninstall format clean

all:
	@scripts/need build
	@scripts/build $(BUILD)

demo: all
	@scripts/demo $(BUILD)

test:
	@scripts/test

bench:
	@scripts/need bench
	@scripts/build build-bench -DKEST_BENCH=ON -DKEST_TESTS=OFF
	@bench/run build-bench

torture: all
	@scripts/need proof
	@KEST_BUILD=$(BUILD) tests/torture/run $(if $(SAMPLE),--sample $(SAMPLE)) --seed $(or $(SEED),1)

install:
	@scripts/install "$(BUILD)" "$(PREFIX)" "$(DESTDIR)"

uninstall:
	@scripts/uninstall "$(BUILD)" "$(DESTDIR)"

format:
	@scripts/need test
	@scripts/format

clean:
	rm -rf build build-asan build-tsan build-tidy build-bench
