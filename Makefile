# SPDX-License-Identifier: MIT
# The front door: each target installs what it needs (Debian), builds and runs. All building is Meson's, in build/NAME.
MAKEFLAGS += --no-print-directory
.DEFAULT_GOAL := help

prefix ?= /usr/local
FORMAT ?= xrgb8888
TIME ?= 60
export PICTURE FORMAT

.PHONY: help build demo panel test build-clang test-clang soak fuzz hostile bench e2e arm packages check format sanitize install clean

help:
	@echo 'make demo            show it: a virtual panel, the server, four clients; writes build/demo.png'
	@echo '                     (PICTURE=FILE: your own picture, FORMAT=rgb565: a 16-bit panel)'
	@echo 'make panel           the same, kept running; refreshes build/panel.png until Ctrl-C'
	@echo 'make build           everything that is installed, in build/product'
	@echo 'make test            debug, sanitized and release builds with gcc, and all tests in each'
	@echo 'make build-clang     everything that is installed, by clang, in build/clang-product'
	@echo 'make test-clang      the tests as well: all builds with clang, and all tests in each'
	@echo 'make sanitize        the tests under the address and undefined-behaviour sanitizers alone'
	@echo 'make soak            clients that come and go on the real server, and beside them random histories against the'
	@echo '                     model, both under the sanitizers (TIME=SECONDS in all; an hour says what grows)'
	@echo 'make fuzz            fuzzes each target in fuzz/ by clang and libFuzzer (TIME=SECONDS per target)'
	@echo 'make hostile         programs that misbehave, on the release build: writes the table of docs/robustness.md'
	@echo 'make bench           processor time, latency, memory, start and growth, beside Xvfb, Weston and a bare loop;'
	@echo '                     recovery, and fairness under floods: writes docs/performance.md, in about 7 minutes (ROUNDS=2: a quick look)'
	@echo 'make e2e             the installed server on real kernels in emulated machines; see build/e2e/report.html'
	@echo '                     (MACHINES="bochs cirrus": these only)'
	@echo 'make arm             cross builds for armhf and arm64, and their tests in emulated processors'
	@echo '                     (ARCH=armhf: one of them, QUICK=1: less optimisation and fewer random cases)'
	@echo 'make packages        Debian packages in build/packages, tried in a clean Debian (root or sudo)'
	@echo 'make check           formatting, clang-tidy, shell scripts, the direction of includes'
	@echo 'make format          formats the sources'
	@echo 'make install         installs to $(prefix) (prefix=/usr, DESTDIR=FOLDER)'
	@echo 'make clean           removes build/'

build:
	@scripts/deps build
	@scripts/build product

demo:
	@scripts/deps build demo
	@scripts/build product
	@scripts/demo

panel:
	@scripts/deps build demo
	@scripts/build product
	@scripts/demo --keep

test:
	@scripts/deps build demo test
	@scripts/test debug sanitized release

build-clang:
	@scripts/deps build clang
	@scripts/build clang-product

test-clang:
	@scripts/deps build demo test clang
	@scripts/test clang-debug clang-sanitized clang-release

sanitize:
	@scripts/deps build demo test
	@scripts/test sanitized

soak:
	@scripts/deps build demo test
	@scripts/soak $(TIME)

fuzz:
	@scripts/deps build demo clang
	@TIME=$(TIME) scripts/fuzz

hostile:
	@scripts/deps build demo test
	@scripts/build release
	@scripts/robustness

bench:
	@scripts/deps build bench
	@scripts/build bench -Dbench=true
	@scripts/bench

e2e:
	@scripts/e2e $(MACHINES)

arm:
	@scripts/arm $(if $(QUICK),--quick) $(ARCH)

packages:
	@scripts/deps build package
	@scripts/package

check:
	@scripts/deps build test check
	@scripts/check

format:
	@scripts/deps check
	@git ls-files 'src/*.c' 'src/*.cpp' 'src/*.h' 'tests/*.c' 'tests/*.cpp' 'tests/*.h' 'examples/*.c' 'examples/*.h' 'fuzz/*.cpp' 'fuzz/*.h' 'bench/*.c' 'bench/*.cpp' 'bench/*.h' \
		':!tests/e2e/module' | \
		xargs clang-format -i

# Built as whoever owns the tree, installed as root: "make build && sudo make install" leaves no root-owned files there.
install:
	@scripts/deps build
	@scripts/build product -Dprefix=$(prefix)
	@meson install -C build/product --no-rebuild --quiet $(if $(DESTDIR),--destdir "$(abspath $(DESTDIR))")

clean:
	rm -rf build
