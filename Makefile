# Thin wrappers over the CMake presets; see README.md.
.PHONY: all demo engine-demo torture test test-asan test-tsan bench fuzz install packaging-check clean

all:
	cmake --preset default >/dev/null && cmake --build --preset default

# The main job: the agent simulation (RP/DF publisher, agent restarted halfway, reader) across
# processes. It stays alive after its summary until Ctrl-C, so that quarnctl can look at its
# tables (it prints two command lines to try). DEMO_ARGS=--short for a run of a few seconds;
# DEMO_KEEP= to end right after the summary.
DEMO_KEEP ?= --keep
# The operator's tool, built with the demonstration and installed with the library.
INSTALLED_TOOLS = $(if $(wildcard tools/quarnctl),quarnctl)
demo:
	cmake --preset release >/dev/null && cmake --build --preset release --target bidir_agent $(INSTALLED_TOOLS)
	./build/release/tools/bidir_agent $(DEMO_KEEP) $(DEMO_ARGS)

# The engine alone: one writer and two readers of one table across processes.
engine-demo:
	cmake --preset release >/dev/null && cmake --build --preset release --target quarn_demo
	./build/release/examples/quarn_demo

# The agent simulation under trouble, TORTURE_RUNS times per scenario (default 20): its
# /dev/shm filled mid-run (a private tmpfs), its reader stopped for seconds at random moments.
# Fails unless every run ends EQUAL. TORTURE_SCENARIOS= picks some (fulltmpfs, stopreader).
TORTURE_RUNS ?= 20
TORTURE_SCENARIOS ?=
torture:
	cmake --preset default >/dev/null && cmake --build --preset default --target bidir_agent
	tools/torture/run.sh build/default/tools/bidir_agent $(TORTURE_RUNS) $(TORTURE_SCENARIOS)

# The whole test suite.
test:
	cmake --preset default >/dev/null && cmake --build --preset default
	ctest --preset default

# The whole test suite under AddressSanitizer and UndefinedBehaviorSanitizer (clang). The same
# tree builds the fuzz targets (make fuzz).
test-asan:
	cmake --preset asan >/dev/null && cmake --build --preset asan
	ctest --preset asan

test-tsan:
	cmake --preset tsan >/dev/null && cmake --build --preset tsan
	ctest --preset tsan

bench:
	cmake --preset release >/dev/null && cmake --build --preset release --target quarn_bench
	./build/release/bench/quarn_bench

# The libFuzzer targets of the text readers, built in the asan tree (clang), each run for
# FUZZ_SECONDS (default 300).
FUZZ_SECONDS ?= 300
fuzz:
	cmake --preset asan >/dev/null && cmake --build --preset asan --target fuzz_targets
	fuzz/run.sh $(FUZZ_SECONDS)

# The library, its headers, its CMake package (find_package(BidirPim)) and its pkg-config file
# (bidirpim.pc), under PREFIX (default /usr/local), from the release build. INSTALL_PRESET=default
# installs the test build instead (it is already built after make test).
PREFIX ?= /usr/local
INSTALL_PRESET ?= release
install:
	cmake --preset $(INSTALL_PRESET) >/dev/null && cmake --build --preset $(INSTALL_PRESET) --target bidirpim $(INSTALLED_TOOLS)
	cmake --install build/$(INSTALL_PRESET) --prefix $(PREFIX)

# The two examples built out of tree against an installed copy, both ways, run against each other.
packaging-check:
	.ci/packaging

clean:
	rm -rf build
