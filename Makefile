# The face for people: every target installs what it needs, builds, and goes. CMake does the work (CMakePresets.json).

PREFIX ?= /usr/local
# Release build by default; `make install DESTDIR=/tmp/root PREFIX=/usr` as usual
CMAKE_OPTIONS ?=

.DEFAULT_GOAL := help
.PHONY: help run test bench install format clean

help: ## Show this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / {printf "  make %-10s %s\n", $$1, $$2}' $(MAKEFILE_LIST)

run: ## Build the monitor and open it (on a virtual screen, for a picture, where there is no display)
	@tools/ensure-packages build
	@tools/build release $(CMAKE_OPTIONS)
	@tools/run build/release/vantric

test: ## Build everything and run every test
	@tools/ensure-packages build test
	@tools/build test
	@tools/run-tests test

bench: ## Build and run the benchmarks
	@tools/ensure-packages build test bench
	@tools/build bench
	@bench/run build/bench

install: ## Build and install below PREFIX (/usr/local)
	@tools/ensure-packages build
	@tools/build release -D CMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_OPTIONS)
	@DESTDIR=$(DESTDIR) cmake --install build/release

format: ## Bring all C++ sources into the project's format
	@tools/ensure-packages check
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean: ## Remove everything that was built
	@rm -rf build
