# The face for people: every target installs what it needs, builds, and goes. CMake does the work (CMakePresets.json).

PREFIX ?= /usr/local
# Release build by default; `make install DESTDIR=/tmp/root PREFIX=/usr` as usual
CMAKE_OPTIONS ?=
# How long each fuzz target runs
SECONDS ?= 60

.DEFAULT_GOAL := help
.PHONY: help run test bench fuzz install uninstall deb check-packaging screenshots contact-sheets format clean

help: ## Show this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / {printf "  make %-15s %s\n", $$1, $$2}' $(MAKEFILE_LIST)

run: ## Build the monitor and open it (on a virtual screen, for a picture, where there is no display)
	@tools/ensure-packages build
	@tools/build release $(CMAKE_OPTIONS)
	@tools/run build/release/vantric

test: ## Build everything and run every test
	@tools/ensure-packages build test
	@tools/build test
	@tools/run-tests test

bench: ## Build and run the benchmarks
	@tools/ensure-packages build test deb bench
	@tools/build bench
	@bench/run build/bench

fuzz: ## Fuzz whatever reads files or colours (make fuzz SECONDS=600)
	@tools/ensure-packages build fuzz
	@tools/fuzz $(SECONDS)

install: ## Build and install below PREFIX (/usr/local)
	@tools/ensure-packages build
	@tools/build release -D CMAKE_INSTALL_PREFIX=$(PREFIX) $(CMAKE_OPTIONS)
	@DESTDIR=$(DESTDIR) cmake --install build/release
	@tools/refresh-icons "$(PREFIX)" "$(DESTDIR)"

uninstall: ## Remove what install has put below PREFIX
	@tools/uninstall "$(PREFIX)" "$(DESTDIR)"

deb: ## Build the Debian package
	@tools/ensure-packages build deb
	@tools/build-deb build/deb
	@ls build/deb/vantric_*.deb

check-packaging: ## Build the package twice, and put everything that is installed before its own validator
	@tools/ensure-packages build deb package
	@tools/check-packaging

screenshots: ## Make the README's pictures anew
	@tools/ensure-packages build test
	@tools/build release
	@tools/screenshots build/release/vantric docs/screenshots

contact-sheets: ## Make pictures of both windows in every language, many on a sheet (build/contact-sheets)
	@tools/ensure-packages build test
	@tools/build release
	@tools/contact-sheet build/release/vantric build/contact-sheets

format: ## Bring all C++ sources into the project's format
	@tools/ensure-packages check
	@git ls-files '*.h' '*.cpp' | xargs clang-format -i

clean: ## Remove everything that was built
	@rm -rf build
