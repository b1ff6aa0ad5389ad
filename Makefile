# linnet: the two commands of the README, and their helpers.
#   make demo       build the library and the tools, run the demo host
#   make test       build everything and pass every test
#   make test-asan  the same suite under AddressSanitizer + UBSan
#   make test-valgrind   the suite under valgrind memcheck (heavy tests scaled down)
#   make test-fortify    the suite built -O1 -D_FORTIFY_SOURCE=2 (an fd_set index
#                        out of range aborts)
#   make fuzz       each libFuzzer target for FUZZ_SECONDS (default 60)
#   make bench      the benchmarks and their ratio table
#   make install    the library, headers, CMake and pkg-config files, tools, their
#                   manual pages and the docs under PREFIX (default /usr/local),
#                   staged under DESTDIR
#   make uninstall  removes what `make install` put under the same DESTDIR and
#                   PREFIX (each destination keeps its own list)
# Missing Debian packages are installed with apt-get (as root, or via sudo):
# demo and install only what the library and the tools need, test and bench
# what they need besides.

BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_FORTIFY ?= build-fortify
# The library and the tools alone, without tests: what demo and install build.
DIST       ?= build-dist
FUZZ_SECONDS ?= 60
PREFIX     ?= /usr/local
DESTDIR    ?=
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
LIB_PKGS   := cmake g++ make zlib1g-dev
TEST_PKGS  := $(LIB_PKGS) pkg-config libboost-dev libgtest-dev libgmock-dev iproute2 groff-base python3
BENCH_PKGS := $(LIB_PKGS) libboost-dev libbenchmark-dev
SUDO       := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps deps-lib deps-bench build dist demo test test-asan test-valgrind test-fortify fuzz bench abi \
        clean install install-files uninstall format format-check

all: build

# $(call apt_need,PACKAGES): installs those of PACKAGES not installed yet.
define apt_need
	@missing=""; for p in $(1); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -q --no-install-recommends $$missing; \
	fi
endef

deps-lib:
	$(call apt_need,$(LIB_PKGS))
deps:
	$(call apt_need,$(TEST_PKGS))
deps-bench:
	$(call apt_need,$(BENCH_PKGS))

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX="$(PREFIX)"
	cmake --build $(BUILD) -j $(JOBS)

dist: deps-lib
	cmake -S . -B $(DIST) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLINNET_TESTS=OFF -DCMAKE_INSTALL_PREFIX="$(PREFIX)"
	cmake --build $(DIST) -j $(JOBS)

# The installed tools find the library through a run path relative to
# themselves ($ORIGIN/../lib...), so any PREFIX works without ldconfig.
# install-files installs the build in DIST as it is (the package test gives
# it its own). Each destination keeps the list of what was installed there
# in MANIFEST, so that installs to several prefixes can each be undone.
MANIFEST ?= $(DESTDIR)$(PREFIX)/share/linnet/install-manifest.txt
install: dist
	@$(MAKE) --no-print-directory install-files

install-files:
	DESTDIR="$(DESTDIR)" cmake --install $(DIST) --prefix "$(PREFIX)"
	@mkdir -p -- "$$(dirname -- "$(MANIFEST)")" && cp $(DIST)/install_manifest.txt "$(MANIFEST)"

# Removes every file the install to this DESTDIR and PREFIX listed (cmake
# lists them with or without DESTDIR), the list itself, then the
# directories only linnet uses, once empty.
uninstall:
	@test -f "$(MANIFEST)" || { echo "nothing to uninstall: $(MANIFEST) not found"; exit 1; }
	@while IFS= read -r f || [ -n "$$f" ]; do \
	  case "$$f" in "$(DESTDIR)"/*) ;; *) f="$(DESTDIR)$$f" ;; esac; \
	  rm -f -- "$$f" && echo "removed $$f"; \
	done < "$(MANIFEST)"
	@rm -f -- "$(MANIFEST)"
	@for d in include/linnet lib/cmake/linnet lib/*/cmake/linnet lib64/cmake/linnet share/doc/linnet share/linnet; do \
	  for p in "$(DESTDIR)$(PREFIX)"/$$d; do [ -d "$$p" ] && rmdir -- "$$p" 2>/dev/null || true; done; \
	done

demo: dist
	./$(DIST)/examples/linnet-demo

test: build
	cd $(BUILD) && ctest --output-on-failure -j $(JOBS)

test-asan: deps
	cmake -S . -B $(BUILD_ASAN) -DCMAKE_BUILD_TYPE=Debug -DLINNET_SANITIZE=ON
	cmake --build $(BUILD_ASAN) -j $(JOBS)
	cd $(BUILD_ASAN) && ASAN_OPTIONS=detect_leaks=1:abort_on_error=1 \
	  UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 ctest --output-on-failure -j $(JOBS)

test-valgrind: build
	@command -v valgrind >/dev/null || { $(SUDO) apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -q --no-install-recommends valgrind; }
	tests/valgrind.sh $(BUILD)

test-fortify: deps
	cmake -S . -B $(BUILD_FORTIFY) -DCMAKE_BUILD_TYPE=Debug \
	  -DCMAKE_CXX_FLAGS="-O1 -D_FORTIFY_SOURCE=2" -DLINNET_EXAMPLES=OFF
	cmake --build $(BUILD_FORTIFY) -j $(JOBS)
	cd $(BUILD_FORTIFY) && ctest --output-on-failure -j $(JOBS) -E package_consumers

# The house style (.clang-format): format rewrites the tree, format-check
# lists what differs and fails (CI runs it).
format:
	$(call apt_need,clang-format)
	git ls-files '*.cpp' '*.h' | xargs clang-format --style=file -i
format-check:
	$(call apt_need,clang-format)
	tests/lint/format.sh

fuzz: deps
	fuzz/run.sh $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD) $(DIST) $(BUILD_ASAN) $(BUILD_BENCH) $(BUILD_FORTIFY) build-fuzz

# Benchmarks: every figure beside its baselines in one run, then a ratio table.
BUILD_BENCH ?= build-bench
bench: deps-bench
	cmake -S . -B $(BUILD_BENCH) -DCMAKE_BUILD_TYPE=Release -DLINNET_BENCH=ON -DLINNET_TESTS=OFF
	cmake --build $(BUILD_BENCH) -j $(JOBS) --target linnet-bench
	./$(BUILD_BENCH)/bench/linnet-bench --benchmark_min_time=0.5 --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
	  --benchmark_report_aggregates_only=true

# Record the exported API after a deliberate change.
abi: build
	tests/abi/symbols.sh $(BUILD)/liblinnet.so > abi/linnet.symbols
