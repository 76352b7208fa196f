# The commands of this tree. CMakePresets.json has the build options; packaging/install-deps installs what a
# target needs, and packaging/sandbox is where the demo and the tests run.

# The number of compilations, or tests, that run at the same time.
JOBS ?= 2
# Where `make install` installs; DESTDIR, for building packages, is put in front of it.
PREFIX ?= /usr/local
DESTDIR ?=
FUZZ_SECONDS ?= 60
FUZZ_RUNS ?=

SHELL := /bin/bash
.SHELLFLAGS := -eu -o pipefail -c
.NOTPARALLEL:
.PHONY: help demo shell check check-asan check-i386 check-format check-static check-headers torture torture-brief \
        fuzz bench bench-i386 bench-smoke build install uninstall deb check-deb format

# $(call build,PRESET,OPTIONS): configuring is quick where nothing changed, so it is not skipped.
build = cmake --preset $(1) $(2) --log-level=NOTICE >/dev/null && cmake --build --preset $(1) -j $(JOBS)
test = ctest --preset $(1) --output-on-failure -j $(JOBS)
# $(call torture,PRESET,full|brief,TESTS): label "torture", and what each of them counted and measured.
torture = failed=0; QUILL_TORTURE=$(2) ctest --preset torture-$(1) --no-tests=error -R '$(3)' || failed=$$?; \
    echo "== $(1)"; sed -n 's/^figures: /  /p' build/$(1)/Testing/Temporary/LastTest.log; exit $$failed
sources = git ls-files -z '*.h' '*.cc' '*.c'

help: ## this list
	@sed -n 's/^\([a-z0-9-]*\):.*## \(.*\)/make \1	\2/p' $(MAKEFILE_LIST) | expand -t 20

demo: ## build, then show the daemon and the client at work in a sandbox
	@packaging/install-deps --demo
	@$(call build,release) --target quillsecurityd quillsec
	@packaging/sandbox packaging/demo

shell: ## build, then a prompt in that sandbox, with the daemon running
	@packaging/install-deps --demo
	@$(call build,release) --target quillsecurityd quillsec
	@packaging/sandbox || [ $$? != 125 ]

check: ## build and run all tests
	@packaging/install-deps
	@$(call build,release)
	@$(call test,release)

check-asan: ## the same with address and undefined-behaviour sanitizers
	@packaging/install-deps
	@$(call build,asan)
	@$(call test,asan)

check-i386: ## the same for 32-bit x86
	@packaging/install-deps --i386
	@$(call build,i386)
	@$(call test,i386)

check-format: ## is every source as .clang-format wants it?
	@packaging/install-deps --ci
	@$(sources) | xargs -0 clang-format --dry-run --Werror

check-headers: ## does each header compile alone?
	@packaging/install-deps --bench
	@$(call build,release) --target headers

check-static: ## clang-tidy over all that installs; .clang-tidy says what for
	@packaging/install-deps --ci
	@$(call build,release) --target quillsecurityd quillsec
	@git ls-files -z '*.cc' ':!tests' ':!fuzz' ':!bench' | xargs -0 -n 1 -P $(JOBS) clang-tidy --quiet --extra-arg=-Wno-unknown-warning-option -p build/release

torture: ## endurance and faults at full scale, both targets, and threads under their sanitizer; hours
	@packaging/install-deps --i386
	@$(call build,release)
	@$(call torture,release,full,.)
	@$(call build,i386)
	@$(call torture,i386,full,.)
	@$(call build,tsan) --target clients_torture
	@$(call torture,tsan,brief,clients)

torture-brief: ## the same in a minute or two, amd64 alone
	@packaging/install-deps
	@$(call build,release)
	@export QUILL_KILLS=$${QUILL_KILLS:-500}; $(call torture,release,brief,.)

fuzz: ## search for inputs that break something, FUZZ_SECONDS (60) or FUZZ_RUNS for each harness
	@packaging/install-deps --fuzz
	@$(call build,fuzz) --target fuzz
	@FUZZ_SECONDS=$(FUZZ_SECONDS) FUZZ_RUNS=$(FUZZ_RUNS) fuzz/run

bench: ## measure, each figure beside its floor; a quarter of an hour on a machine that does nothing else
	@packaging/install-deps --bench
	@$(call build,release,-D QUILL_BENCH=ON) --target bench
	@bench/run release

bench-i386: ## the same of the 32-bit build
	@packaging/install-deps --bench --i386
	@$(call build,i386,-D QUILL_BENCH=ON) --target bench
	@bench/run i386

bench-smoke: ## do the benchmarks run?
	@packaging/install-deps --bench
	@$(call build,release,-D QUILL_BENCH=ON) --target bench
	@bench/run release --smoke

build: ## build what installs below PREFIX (/usr/local)
	@packaging/install-deps
	@$(call build,release,-D CMAKE_INSTALL_PREFIX=$(PREFIX)) --target quillsecurityd quillsec

install: ## install what `make build` built; DESTDIR is honoured
	@grep -qx 'CMAKE_INSTALL_PREFIX:PATH=$(PREFIX)' build/release/CMakeCache.txt 2>/dev/null || \
	    { echo "nothing is built for PREFIX=$(PREFIX); run 'make build PREFIX=$(PREFIX)' first" >&2; exit 1; }
	@DESTDIR=$(DESTDIR) cmake --install build/release
	@if [ -z "$(DESTDIR)" ] && [ "$$(id -u)" = 0 ]; then ldconfig; fi

uninstall: ## remove what `make install` installed; DESTDIR is honoured
	@packaging/uninstall build/release/install_manifest.txt "$(DESTDIR)"

deb: ## build Debian packages into build/deb
	@packaging/install-deps --deb
	@packaging/build-deb

check-deb: deb ## build the packages, check them, and install, upgrade and purge them in a Debian of their own
	@lintian --allow-root --fail-on warning build/deb/*.changes
	@tests/install/packages_test build/deb

format: ## put every source into the format of .clang-format
	@packaging/install-deps --ci
	@$(sources) | xargs -0 clang-format -i
