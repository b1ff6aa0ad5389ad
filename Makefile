# linnet: the two commands of the README, and their helpers.
#   make demo       build everything and run the demo host
#   make test       build and pass every test
#   make test-asan  the same suite under AddressSanitizer + UBSan
#   make test-valgrind   the suite under valgrind memcheck (heavy tests scaled down)
#   make test-fortify    the suite built -O1 -D_FORTIFY_SOURCE=2 (an fd_set index
#                        out of range aborts)
#   make fuzz       each libFuzzer target for FUZZ_SECONDS (default 60)
#   make bench      the benchmarks and their ratio table
#   make install    the library, headers, CMake and pkg-config files, tools and
#                   docs under PREFIX (default /usr/local), staged under DESTDIR
#   make uninstall  removes what the last `make install` of this build put there
# Missing Debian packages are installed with apt-get (as root, or via sudo).

BUILD      ?= build
BUILD_ASAN ?= build-asan
BUILD_FORTIFY ?= build-fortify
FUZZ_SECONDS ?= 60
PREFIX     ?= /usr/local
DESTDIR    ?=
JOBS       ?= $(shell nproc 2>/dev/null || echo 2)
PKGS       := cmake g++ make pkg-config zlib1g-dev libboost-dev libgtest-dev libgmock-dev \
              libbenchmark-dev iproute2 python3
SUDO       := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps build demo test test-asan test-valgrind test-fortify fuzz bench abi clean install install-files uninstall

all: build

deps:
	@missing=""; for p in $(PKGS); do dpkg -s $$p >/dev/null 2>&1 || missing="$$missing $$p"; done; \
	if [ -n "$$missing" ]; then \
	  echo "installing:$$missing"; \
	  $(SUDO) apt-get update -q && \
	  DEBIAN_FRONTEND=noninteractive $(SUDO) apt-get install -y -q --no-install-recommends $$missing; \
	fi

build: deps
	cmake -S . -B $(BUILD) -DCMAKE_BUILD_TYPE=RelWithDebInfo -DCMAKE_INSTALL_PREFIX="$(PREFIX)"
	cmake --build $(BUILD) -j $(JOBS)

# The installed tools find the library through a run path relative to
# themselves ($ORIGIN/../lib...), so any PREFIX works without ldconfig.
# install-files installs an existing build as it is (the package test uses it);
# MANIFEST lists what was installed, for uninstall.
MANIFEST ?= $(BUILD)/linnet-installed.txt
install: build
	@$(MAKE) --no-print-directory install-files

install-files:
	DESTDIR="$(DESTDIR)" cmake --install $(BUILD) --prefix "$(PREFIX)"
	@cp $(BUILD)/install_manifest.txt "$(MANIFEST)"

# Removes every file the last install listed (cmake lists them without
# DESTDIR, so give the same DESTDIR and PREFIX as to install), then the
# directories only linnet uses, once empty.
uninstall:
	@test -f "$(MANIFEST)" || { echo "nothing to uninstall: $(MANIFEST) not found"; exit 1; }
	@while IFS= read -r f || [ -n "$$f" ]; do \
	  case "$$f" in "$(DESTDIR)"/*) ;; *) f="$(DESTDIR)$$f" ;; esac; \
	  rm -f -- "$$f" && echo "removed $$f"; \
	done < "$(MANIFEST)"
	@for d in include/linnet lib/cmake/linnet lib/*/cmake/linnet lib64/cmake/linnet share/doc/linnet; do \
	  for p in "$(DESTDIR)$(PREFIX)"/$$d; do [ -d "$$p" ] && rmdir -- "$$p" 2>/dev/null || true; done; \
	done
	@rm -f -- "$(MANIFEST)"

demo: build
	./$(BUILD)/examples/linnet-demo

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

fuzz: deps
	fuzz/run.sh $(FUZZ_SECONDS)

clean:
	rm -rf $(BUILD) $(BUILD_ASAN) $(BUILD_BENCH) $(BUILD_FORTIFY) build-fuzz

# Benchmarks: every figure beside its baselines in one run, then a ratio table.
BUILD_BENCH ?= build-bench
bench: deps
	cmake -S . -B $(BUILD_BENCH) -DCMAKE_BUILD_TYPE=Release -DLINNET_BENCH=ON -DLINNET_TESTS=OFF
	cmake --build $(BUILD_BENCH) -j $(JOBS) --target linnet-bench
	./$(BUILD_BENCH)/bench/linnet-bench --benchmark_min_time=0.5 --benchmark_repetitions=5 --benchmark_enable_random_interleaving=true \
	  --benchmark_report_aggregates_only=true

# Record the exported API after a deliberate change.
abi: build
	tests/abi/symbols.sh $(BUILD)/liblinnet.so > abi/linnet.symbols
