# The front door. What a target needs is installed with apt if it is missing, but for `install`, which only installs what was made.
prefix ?= /usr/local
PREFIX ?= $(prefix)
DESTDIR ?=
BUILD ?= build

.PHONY: all demo test bench torture fuzz coverage mutants soak install uninstall deb package-test suite cross release sizes format clean

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

fuzz:
	@scripts/need proof
	@scripts/fuzz $(or $(RUNS:=x),$(SECONDS),5) $(TARGETS)

coverage:
	@scripts/need proof
	@scripts/coverage

mutants:
	@scripts/need proof
	@/usr/bin/python3 tests/mutants/run --seed $(or $(SEED),1) --count $(or $(COUNT),300)

soak: all
	@scripts/need proof
	@KEST_BUILD=$(BUILD) /usr/bin/python3 tests/tools/soak --seed $(or $(SEED),1) --minutes $(or $(MINUTES),30)

install:
	@scripts/install "$(BUILD)" "$(PREFIX)" "$(DESTDIR)"

uninstall:
	@scripts/uninstall "$(BUILD)" "$(DESTDIR)"

# The Debian packages, into dist/; and their trial in fresh systems.
deb:
	@scripts/need deb
	@scripts/deb

package-test: deb
	@scripts/need package-test
	@scripts/package-test

# Units and chosen tests in a fresh system of another Debian release: make suite SUITE=trixie
suite:
	@scripts/need package-test
	@scripts/suite "$(or $(SUITE),trixie)"

# make cross TARGET=arm64|armhf|mipsel|riscv64|s390x|musl
cross:
	@scripts/cross "$(TARGET)"

# make release VERSION=1.2.3
release:
	@scripts/need deb
	@scripts/release "$(VERSION)"

sizes:
	@scripts/need sizes
	@scripts/sizes

format:
	@scripts/need test
	@scripts/format

clean:
	rm -rf build build-* dist
