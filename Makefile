# The front door. What a target needs is installed with apt if it is missing, but for `install`, which only installs what was made.
prefix ?= /usr/local
PREFIX ?= $(prefix)
DESTDIR ?=
BUILD ?= build

.PHONY: all demo test bench install uninstall format clean

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

install:
	@scripts/install "$(BUILD)" "$(PREFIX)" "$(DESTDIR)"

uninstall:
	@scripts/uninstall "$(BUILD)" "$(DESTDIR)"

format:
	@scripts/need test
	@scripts/format

clean:
	rm -rf build build-asan build-tsan build-tidy build-bench
