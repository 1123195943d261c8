# SPDX-License-Identifier: Apache-2.0
# A thin face over the CMake presets. Each target first installs the Debian packages it needs (as root; else
# it names the missing ones).
#
#   make run      build, then a tour: real clients get leases from real servers through the relay, in a lab
#                 PAGE=1 keeps the lab and its web page up until Enter
#   make test     everything that is checked: unit tests (plain and sanitized), lab tests, lints
#   make check    the quick part of that, for between two edits: lints and unit tests of what changed (T=ravo_db: one)
#   make analyze  clang's analyzer over all sources
#   make coverage which lines and branches the unit tests run, by room (ROOM=platform/linux/log: by file)
#   make build    the programs, into build/
#   make bench    what the relay costs, measured in the lab
#   make trouble  what one client notes of the trouble others make, and a table of it (build/trouble.json)
#   make soak     a quarter of an hour of kills (SOAK_KILLS: 200), restarts, changes, storms, clocks, full disks and a million clients, and a table of it
#   make faults   every system call of the daemon fails once, each in a life of its own; minutes (build/faults.txt)
#   make mutate   small changes of the relay, each of which its unit tests have to notice; about half an hour (MUTATE_ARGS=dhcp: one source)
#   make cross    the relay's unit tests for a 32-bit and for a big-endian processor (CROSS_ARGS=i686: one of them)
#   make fuzz     the fuzzers, FUZZ_SECONDS each (60)
#   make fuzz-coverage  which lines the fuzzers' corpora reach, by room
#   make vm-test  tests on a kernel with 802.1Q devices, in a virtual machine
#   make deb      the Debian packages
#   make deb-test the packages' life in booted Debians 12 and 13: installed, used, upgraded, rebooted, removed (RELEASES=12: one)
#   make install  programs, unit, groups, manual pages and the kit for other platforms, below PREFIX (/usr/local) and DESTDIR
#   make uninstall  removes what that put (same PREFIX, same DESTDIR); configuration, users and groups stay
#   make clean    remove what was built

PREFIX ?= /usr/local
DESTDIR ?=
BUILD ?= build
FUZZ_SECONDS ?= 60
SOAK_KILLS ?= 200
SOAK_SECONDS ?= 10
PYTHON = /usr/bin/python3
UNIT_DIR ?= $(if $(filter /usr,$(PREFIX)),/usr/lib/systemd/system,/etc/systemd/system)
SYSUSERS_DIR ?= $(if $(filter /usr,$(PREFIX)),/usr/lib/sysusers.d,/etc/sysusers.d)
TMPFILES_DIR ?= $(if $(filter /usr,$(PREFIX)),/usr/lib/tmpfiles.d,/etc/tmpfiles.d)
QUIET_CONFIGURE = cmake --log-level=WARNING

.PHONY: help run test check analyze coverage build bench cross faults mutate trouble soak fuzz fuzz-coverage vm-test deb deb-test install install-built install-users uninstall clean
.NOTPARALLEL:

help:
	@sed -n 's/^#   \(make .*\)/\1/p' Makefile

run:
	@lab/check-host run
	@packaging/dependencies build lab faces
	@$(QUIET_CONFIGURE) --preset release >/dev/null
	@cmake --build build --target ravod ravosh ravo-web ravo-snmp
	@PAGE='$(PAGE)' $(PYTHON) -B lab/run.py

test:
	@lab/check-host test
	@packaging/dependencies build lab unit check page deb booted
	@$(PYTHON) -B tests/run

check:
	@packaging/dependencies build unit check
	@tests/check/all $(T)

analyze:
	@packaging/dependencies build check
	@tests/lint/tidy --analyze

coverage:
	@packaging/dependencies build unit coverage
	@tests/coverage $(ROOM)

build:
	@packaging/dependencies build
	@$(QUIET_CONFIGURE) --preset release >/dev/null
	@cmake --build build

bench:
	@test -x bench/run || { echo "make bench: not available in this version" >&2; exit 1; }
	@lab/check-host bench
	@packaging/dependencies build lab unit check bench
	@$(QUIET_CONFIGURE) --preset release -DRAVO_BENCH=ON -DRAVO_TESTS=ON >/dev/null
	@cmake --build build --target ravod ravosh relay_load minimal_relay ravo_micro flood good_client
	@bench/run $(BENCH_ARGS)
	@bench/configuration
	@bench/instructions
	@bench/micro $(MICRO_ARGS)
	@bench/trouble $(TROUBLE_ARGS)

soak:
	@lab/check-host soak
	@packaging/dependencies build lab unit check
	@$(QUIET_CONFIGURE) --preset release -DRAVO_TESTS=ON >/dev/null
	@cmake --build build --target ravod ravosh good_client many_clients clock_shim
	@echo "make soak: about a quarter of an hour: a line when each part ends, and a table at the end"
	@SOAK=full SOAK_KILLS=$(SOAK_KILLS) SOAK_SECONDS=$(SOAK_SECONDS) $(PYTHON) -B -m pytest -p no:cacheprovider -v \
	    tests/lab/test_restart_load.py tests/lab/test_soak_changes.py tests/lab/test_soak_faults.py tests/lab/test_soak.py

trouble:
	@lab/check-host trouble
	@packaging/dependencies build lab unit check
	@$(QUIET_CONFIGURE) --preset release -DRAVO_TESTS=ON >/dev/null
	@cmake --build build --target ravod ravosh flood good_client
	@RAVO_TROUBLE=full RAVO_TROUBLE_RESULTS=build/trouble.json $(PYTHON) -B -m pytest -p no:cacheprovider -q tests/lab/trouble

faults:
	@lab/check-host faults
	@packaging/dependencies build lab unit check
	@$(QUIET_CONFIGURE) --preset debug >/dev/null
	@cmake --build build-debug --target ravod ravosh
	@tests/faults/sites build-debug/ravod
	@mkdir -p build
	@RAVO_FAULTS=full $(PYTHON) -B -m pytest -p no:cacheprovider -q tests/lab/test_faults.py

cross:
	@packaging/dependencies build cross
	@tests/cross/run $(CROSS_ARGS)

mutate:
	@packaging/dependencies build unit
	@tests/mutate/run $(MUTATE_ARGS)

fuzz:
	@test -f tests/fuzz/CMakeLists.txt || { echo "make fuzz: not available in this version" >&2; exit 1; }
	@packaging/dependencies build fuzz
	@$(QUIET_CONFIGURE) --preset fuzz >/dev/null
	@cmake --build build-fuzz --target fuzzers
	@tests/fuzz/run --seconds $(FUZZ_SECONDS) build-fuzz

fuzz-coverage:
	@test -f tests/fuzz/CMakeLists.txt || { echo "make fuzz-coverage: not available in this version" >&2; exit 1; }
	@packaging/dependencies build fuzz
	@tests/fuzz/coverage

vm-test:
	@test -x tests/vm/run || { echo "make vm-test: not available in this version" >&2; exit 1; }
	@packaging/dependencies build lab check vm
	@$(QUIET_CONFIGURE) --preset release >/dev/null
	@cmake --build build
	@tests/vm/run

deb:
	@test -x packaging/build-deb || { echo "make deb: not available in this version" >&2; exit 1; }
	@packaging/dependencies build deb
	@packaging/build-deb

deb-test:
	@packaging/dependencies build deb booted roots
	@tests/booted/run $(RELEASES)

install: build install-built install-users

# Into a folder of a package nothing but files is put: whoever installs that makes the users.
install-users:
	@if [ -n "$(DESTDIR)" ]; then \
	    echo "-- Next, where these files go: systemd-sysusers && systemd-tmpfiles --create"; \
	elif [ "$$(id -u)" = 0 ]; then \
	    packaging/make-users; \
	    echo "-- Next: systemctl daemon-reload && systemctl enable --now ravod, then ravosh"; \
	else \
	    echo "-- Next, as root: packaging/make-users && systemctl daemon-reload && systemctl enable --now ravod"; \
	fi

# What goes is what an installation puts: one is made in a folder of its own, and its list is what counts.
uninstall:
	@test -f $(BUILD)/cmake_install.cmake || { echo "make uninstall: $(BUILD) has no build that was installed; make build first" >&2; exit 1; }
	@set -e; put=$$(mktemp -d); trap 'rm -rf "$$put"' EXIT; \
	$(MAKE) --no-print-directory install-built DESTDIR="$$put" >/dev/null; \
	find "$$put" ! -type d -printf '/%P\n' | LC_ALL=C sort | while read -r file; do \
	    if [ -e "$(DESTDIR)$$file" ] || [ -L "$(DESTDIR)$$file" ]; then \
	        echo "-- Removing: $(DESTDIR)$$file"; rm -f "$(DESTDIR)$$file"; \
	    fi; \
	done; \
	find "$$put" -depth -type d \( -name ravo -o -path '*/ravo/*' \) -printf '/%P\n' | while read -r folder; do \
	    if [ -d "$(DESTDIR)$$folder" ]; then rmdir --ignore-fail-on-non-empty "$(DESTDIR)$$folder"; fi; \
	done
	@echo "-- Left: /etc/ravo, /var/lib/ravo, the users and groups. Next: systemctl disable --now ravod; systemctl stop ravo-gate.socket; systemctl daemon-reload"

install-built:
	@DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix "$(PREFIX)" --strip $(if $(COMPONENT),--component $(COMPONENT))
	@set -e; put() { echo "-- Installing: $(DESTDIR)$$2"; install -D -m 644 "$$1" "$(DESTDIR)$$2"; }; \
	for unit in packaging/*.service packaging/*.socket; do \
	    test -f "$$unit" || continue; \
	    to="$(UNIT_DIR)/$${unit##*/}"; \
	    put "$$unit" "$$to"; \
	    sed -i 's,=/usr/sbin/,=$(PREFIX)/sbin/,; s,=/usr/bin/,=$(PREFIX)/bin/,' "$(DESTDIR)$$to"; \
	done; \
	for groups in packaging/*.sysusers; do \
	    test -f "$$groups" || continue; \
	    name="$${groups##*/}"; \
	    put "$$groups" "$(SYSUSERS_DIR)/$${name%.sysusers}.conf"; \
	done; \
	for folders in packaging/*.tmpfiles; do \
	    name="$${folders##*/}"; \
	    put "$$folders" "$(TMPFILES_DIR)/$${name%.tmpfiles}.conf"; \
	done; \
	put packaging/kernel.conf "$(PREFIX)/share/doc/ravo/kernel.conf"; \
	for module in docs/mibs/*.txt; do \
	    put "$$module" "$(PREFIX)/share/snmp/mibs/$${module##*/}"; \
	done; \
	for page in docs/man/*.[1-8]; do \
	    test -f "$$page" || continue; \
	    put "$$page" "$(PREFIX)/share/man/man$${page##*.}/$${page##*/}"; \
	done

clean:
	rm -rf build build-cross build-mutate build-check build-coverage build-debug build-sanitized build-clang build-fuzz build-fuzz-coverage build-package lab-artifacts .pytest_cache
