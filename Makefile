# The front door. CMakePresets.json says how things are built, packaging/ what that needs and where it runs.

# Compilations and tests at a time.
JOBS ?= 2
# Where `make install` puts things; DESTDIR goes before it, for packagers.
PREFIX ?= /usr/local
DESTDIR ?=
FUZZ_SECONDS ?= 60

SHELL := /bin/bash
.SHELLFLAGS := -eu -o pipefail -c
.NOTPARALLEL:
.PHONY: help demo shell check check-asan check-i386 check-format check-static fuzz install format

# $(call build,PRESET,OPTIONS): configuring is quick where nothing changed, so it is not skipped.
build = cmake --preset $(1) $(2) --log-level=NOTICE >/dev/null && cmake --build --preset $(1) -j $(JOBS)
test = ctest --preset $(1) --output-on-failure -j $(JOBS)
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

check-static: ## clang-tidy over all that installs; .clang-tidy says what for
	@packaging/install-deps --ci
	@$(call build,release) --target quillsecurityd quillsec
	@git ls-files -z '*.cc' ':!tests' ':!fuzz' ':!bench' | xargs -0 -n 1 -P $(JOBS) clang-tidy --quiet -p build/release

fuzz: ## search for inputs that break a parser, FUZZ_SECONDS (60) for each harness
	@packaging/install-deps --fuzz
	@$(call build,fuzz)
	@for harness in build/fuzz/fuzz/fuzz_*; do \
	    name=$${harness##*/fuzz_}; echo "== $$name"; mkdir -p build/fuzz/found/$$name; \
	    $$harness -max_total_time=$(FUZZ_SECONDS) -artifact_prefix=build/fuzz/found/ -print_final_stats=1 \
	        build/fuzz/found/$$name fuzz/corpus/$$name 2>&1 | grep -E 'ERROR|SUMMARY|stat::number_of_executed|Test unit'; \
	done

install: ## build and install below PREFIX (/usr/local); DESTDIR is honoured
	@$(call build,release,-D CMAKE_INSTALL_PREFIX=$(PREFIX))
	@DESTDIR=$(DESTDIR) cmake --install build/release
	@if [ -z "$(DESTDIR)" ] && [ "$$(id -u)" = 0 ]; then ldconfig; fi

format: ## put every source into the format of .clang-format
	@packaging/install-deps --ci
	@$(sources) | xargs -0 clang-format -i
