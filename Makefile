# Thin convenience wrapper around CMake/CTest.  Everything real lives in
# CMakeLists.txt; these targets only pick build directories and options.
#
#   make run | test | build | build-sanitize | test-sanitize | test-clang
#   make fuzz-clang (the libFuzzer targets) | test-tsan (stress tests under ThreadSanitizer; not in CI)
#   make test-python PY=/root/.pyenv/versions/3.13.0/bin/python3
#   make bench | format | deps | clean
#
# Overridable: BUILD_TYPE, SANITIZE_BUILD_TYPE, BUILD_DIR, SANITIZE_DIR,
# CLANG_DIR, GENERATOR, JOBS, CTEST_JOBS, CTEST_ARGS, CMAKE_ARGS, WERROR,
# CLANG_CC, CLANG_CXX, CLANG_FORMAT.  With CI=true warnings are errors.

SHELL := /bin/bash
.DEFAULT_GOAL := build

CMAKE               ?= cmake
CTEST               ?= ctest
BUILD_TYPE          ?= RelWithDebInfo
SANITIZE_BUILD_TYPE ?= Debug
BUILD_DIR           ?= build
SANITIZE_DIR        ?= build-sanitize
CLANG_DIR           ?= build-clang
TSAN_DIR            ?= build-tsan
CLANG_CC            ?= clang-14
CLANG_CXX           ?= clang++-14
JOBS                ?= $(shell nproc 2>/dev/null || echo 2)
CTEST_JOBS          ?= 2
CTEST_ARGS          ?=
CMAKE_ARGS          ?=
# Ninja when installed, plain make otherwise (ninja is not required).
GENERATOR           ?= $(if $(shell command -v ninja 2>/dev/null),Ninja,Unix Makefiles)
WERROR              ?= $(if $(filter true TRUE 1 yes,$(CI)),ON,OFF)
CLANG_FORMAT        ?= $(firstword $(shell command -v clang-format clang-format-14 2>/dev/null) clang-format)

DEPS_STAMP := $(BUILD_DIR)/.deps.stamp

SANITIZER_ENV := \
  ASAN_OPTIONS=halt_on_error=1:detect_leaks=1:abort_on_error=1 \
  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
  LSAN_OPTIONS=suppressions=$(CURDIR)/scripts/lsan.supp \
  PYTHONMALLOC=malloc

# $(call configure,<dir>,<extra cmake args>[,<env prefix>])
# -G is only passed for a fresh build dir, so a dir configured with one
# generator keeps working if ninja gets installed/removed later.
define configure
	@set -e; \
	if [ -f "$(1)/CMakeCache.txt" ]; then gen=(); else gen=(-G "$(GENERATOR)"); fi; \
	echo "+ $(strip $(3) $(CMAKE) -S . -B $(1)) $${gen[*]} -DSARVODE_WERROR=$(WERROR) $(strip $(2) $(CMAKE_ARGS))"; \
	$(3) $(CMAKE) -S . -B "$(1)" "$${gen[@]}" -DSARVODE_WERROR=$(WERROR) $(2) $(CMAKE_ARGS)
endef

# $(call compile,<dir>)
define compile
	$(CMAKE) --build "$(1)" --parallel $(JOBS)
endef

# $(call runtests,<dir>[,<env prefix>])
define runtests
	$(2) $(CTEST) --test-dir "$(1)" --output-on-failure -j$(CTEST_JOBS) $(CTEST_ARGS)
endef

.PHONY: deps build test run build-sanitize test-sanitize build-tsan test-tsan build-clang test-clang fuzz-clang \
        test-python bench format clean help

help:
	@sed -n '1,11p' $(firstword $(MAKEFILE_LIST)) | sed 's/^# \{0,1\}//'

# ---------------------------------------------------------------------------
deps: $(DEPS_STAMP)

$(DEPS_STAMP): scripts/install-deps.sh
	@bash scripts/install-deps.sh
	@mkdir -p $(@D) && touch $@

# ---------------------------------------------------------------------------
build: deps
	$(call configure,$(BUILD_DIR),-DCMAKE_BUILD_TYPE=$(BUILD_TYPE))
	$(call compile,$(BUILD_DIR))

test: build
	$(call runtests,$(BUILD_DIR))

run: build
	bash scripts/run-examples.sh ./$(BUILD_DIR)/bin/sarvode

# ---------------------------------------------------------------------------
build-sanitize: deps
	$(call configure,$(SANITIZE_DIR),-DSARVODE_SANITIZE=ON -DCMAKE_BUILD_TYPE=$(SANITIZE_BUILD_TYPE))
	$(call compile,$(SANITIZE_DIR))

test-sanitize: build-sanitize
	$(call runtests,$(SANITIZE_DIR),$(SANITIZER_ENV))

# ---------------------------------------------------------------------------
# ThreadSanitizer over the stress tests (label "stress").
build-tsan: deps
	$(call configure,$(TSAN_DIR),-DSARVODE_TSAN=ON -DCMAKE_BUILD_TYPE=$(SANITIZE_BUILD_TYPE))
	$(CMAKE) --build "$(TSAN_DIR)" --parallel $(JOBS) --target stress_tests

test-tsan: build-tsan
	TSAN_OPTIONS="halt_on_error=1 second_deadlock_stack=1 suppressions=$(CURDIR)/scripts/tsan.supp" \
	  $(CTEST) --test-dir "$(TSAN_DIR)" --output-on-failure -j1 -L stress $(CTEST_ARGS)

# ---------------------------------------------------------------------------
# CC/CXX only take effect when the dir is configured the first time.
# The clang build also makes the libFuzzer targets (tests/fuzz).
build-clang: deps
	$(call configure,$(CLANG_DIR),-DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DSARVODE_FUZZ=ON,CC=$(CLANG_CC) CXX=$(CLANG_CXX))
	$(call compile,$(CLANG_DIR))

test-clang: build-clang
	$(call runtests,$(CLANG_DIR))

# Each fuzz target over its seed corpus for a fixed number of runs (~2 min).
fuzz-clang: build-clang
	bash scripts/run-fuzzers.sh $(CLANG_DIR)

# ---------------------------------------------------------------------------
# make test-python PY=/root/.pyenv/versions/3.13.0/bin/python3
# The plain build's tests on another Python: the same binaries, with the
# Python chosen when each test starts (SARVODE_PYTHON). Left out: the object
# model's own tests (label "object-model"), where no Python takes part, the
# stress tests and CPython's suites (the plain build's job). ctest takes one
# -LE pattern: a second one would narrow the first, not add to it.
PY_EXE = $(shell command -v "$(PY)" 2>/dev/null)
PY_EXCLUDED_LABELS ?= object-model|stress|cpython-suite

test-python: build
	@if [ -z "$(PY)" ]; then echo "usage: make $(MAKECMDGOALS) PY=/path/to/python3" >&2; exit 2; fi
	@if [ -z "$(PY_EXE)" ]; then echo "error: '$(PY)' not found" >&2; exit 2; fi
	SARVODE_PYTHON="$(PY_EXE)" ./$(BUILD_DIR)/bin/sarvode --version
	SARVODE_PYTHON="$(PY_EXE)" $(CTEST) --test-dir "$(BUILD_DIR)" --output-on-failure -j$(CTEST_JOBS) \
	  -LE '$(PY_EXCLUDED_LABELS)' $(CTEST_ARGS)

# ---------------------------------------------------------------------------
bench: deps
	$(call configure,$(BUILD_DIR),-DCMAKE_BUILD_TYPE=$(BUILD_TYPE) -DSARVODE_BUILD_BENCH=ON)
	$(call compile,$(BUILD_DIR))
	@set -e; found=0; results=(); \
	for b in $(BUILD_DIR)/bin/bench_*; do \
	  if [ -f "$$b" ] && [ -x "$$b" ]; then \
	    found=1; echo "=== $$b"; \
	    "$$b" --benchmark_repetitions=5 --benchmark_report_aggregates_only=true \
	      --benchmark_out="$$b.json" --benchmark_out_format=json; \
	    results+=("$$b.json"); \
	  fi; \
	done; \
	if [ $$found -eq 0 ]; then echo "no bench_* executables in $(BUILD_DIR)/bin"; \
	else python3 bench/ratios.py "$${results[@]}"; fi

# ---------------------------------------------------------------------------
format:
	@command -v $(CLANG_FORMAT) >/dev/null || { echo "clang-format not found (apt-get install clang-format)" >&2; exit 1; }
	git ls-files -z -- '*.cpp' '*.hpp' | xargs -0 -r $(CLANG_FORMAT) -i

clean:
	rm -rf $(BUILD_DIR) $(SANITIZE_DIR) $(CLANG_DIR) build-py-*
