# The face for people: every target installs what it needs, builds, and goes. CMake does the work (CMakePresets.json). Under sudo only
# packages and the program are installed by root; what is built stays the user's.

PREFIX ?= /usr/local
DESTDIR ?=
# For CMake, as the shell reads words: make deb CMAKE_OPTIONS='-D VANTRIC_WEB_SITE=https://... -D "CMAKE_CXX_FLAGS=-O2 -g"'
CMAKE_OPTIONS ?=
# How long each fuzz target runs
SECONDS ?= 60

.DEFAULT_GOAL := help
.PHONY: help run check test bench fuzz install uninstall deb check-packaging screenshots contact-sheets format clean

help: ## Show this list
	@awk -F ':.*## ' '/^[a-z-]+:.*## / {printf "  make %-15s %s\n", $$1, $$2}' $(MAKEFILE_LIST)

run: ## Build the monitor and open it (on a virtual screen, for a picture, where there is no display)
	@tools/ensure-packages build
	@tools/as-user tools/build release $(CMAKE_OPTIONS)
	@tools/as-user tools/run build/release/vantric

check: ## While you work: run the unit tests, and check format and static analysis
	@tools/ensure-packages build test check
	@tools/as-user tools/build test --target unit_tests $(CMAKE_OPTIONS)
	@tools/as-user tools/check

test: ## Build everything and run every test
	@tools/ensure-packages build test
	@tools/as-user tools/build test --target needed_by_pytest $(CMAKE_OPTIONS)
	@tools/as-user tools/run-tests test

bench: ## Build and run the benchmarks
	@tools/ensure-packages build test deb bench
	@tools/as-user tools/build bench $(CMAKE_OPTIONS)
	@tools/as-user bench/run build/bench

fuzz: ## Fuzz whatever reads files or colours (make fuzz SECONDS=600)
	@tools/ensure-packages build fuzz
	@tools/as-user tools/fuzz $(SECONDS)

install uninstall: export PREFIX := $(PREFIX)
install uninstall: export DESTDIR := $(DESTDIR)

install: ## Build and install below PREFIX (/usr/local)
	@tools/ensure-packages build
	@tools/install "$$PREFIX" "$$DESTDIR" $(CMAKE_OPTIONS)

uninstall: ## Remove what install has put below PREFIX
	@tools/uninstall "$$PREFIX" "$$DESTDIR"

deb: export VANTRIC_CMAKE_OPTIONS := $(CMAKE_OPTIONS)
deb: ## Build the Debian package
	@tools/ensure-packages build deb
	@tools/as-user tools/build-deb build/deb
	@ls build/deb/vantric_*.deb

check-packaging: ## Build the package twice, and put everything that is installed before its own validator
	@tools/ensure-packages build deb package
	@tools/as-user tools/check-packaging

screenshots: ## Make the README's pictures anew
	@tools/ensure-packages build test
	@tools/as-user tools/build release $(CMAKE_OPTIONS)
	@tools/as-user tools/screenshots build/release/vantric docs/screenshots

contact-sheets: ## Make pictures of both windows in every language, many on a sheet (build/contact-sheets)
	@tools/ensure-packages build test
	@tools/as-user tools/build release $(CMAKE_OPTIONS)
	@tools/as-user tools/contact-sheet build/release/vantric build/contact-sheets

format: ## Bring all C++ sources into the project's format
	@tools/ensure-packages check
	@tools/as-user tools/format

clean: ## Remove everything that was built
	@rm -rf build
