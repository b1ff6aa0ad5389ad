#!/bin/bash
# Builds the libFuzzer targets with clang (library and targets under
# AddressSanitizer and UndefinedBehaviorSanitizer) and runs each one for
# SECONDS (default 60) on a scratch copy of its seed corpus. Fails on the
# first crash, leak or sanitizer report; the input that caused it is left
# in the build directory (crash-*, leak-*, timeout-*, oom-*).
#   fuzz/run.sh [SECONDS]        FUZZ_BUILD=dir  FUZZ_TARGETS="fuzz_route ..."
set -euo pipefail
SECONDS_EACH=${1:-60}
ROOT=$(cd "$(dirname "$0")/.." && pwd)
BUILD=${FUZZ_BUILD:-$ROOT/build-fuzz}
TARGETS=${FUZZ_TARGETS:-"fuzz_route fuzz_getname fuzz_readblock fuzz_decompress fuzz_queue"}

# clang and its libFuzzer runtime, as the Makefile installs its own packages.
missing=""
command -v clang++ >/dev/null 2>&1 || missing="clang"
dpkg -s libclang-rt-14-dev >/dev/null 2>&1 || ls /usr/lib/llvm-*/lib/clang/*/lib/linux/libclang_rt.fuzzer-x86_64.a >/dev/null 2>&1 \
  || missing="$missing libclang-rt-14-dev"
for p in cmake make zlib1g-dev; do dpkg -s $p >/dev/null 2>&1 || missing="$missing $p"; done
if [ -n "$missing" ]; then
  SUDO=$([ "$(id -u)" = 0 ] || echo sudo)
  echo "installing:$missing"
  $SUDO apt-get update -q
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -q --no-install-recommends $missing
fi

CXX=clang++ cmake -S "$ROOT" -B "$BUILD" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DLINNET_FUZZ=ON \
  -DLINNET_TESTS=OFF -DLINNET_EXAMPLES=OFF -DLINNET_BENCH=OFF -DLINNET_INSTALL=OFF >/dev/null
cmake --build "$BUILD" -j "$(nproc 2>/dev/null || echo 2)" --target $TARGETS

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
for t in $TARGETS; do
  work="$BUILD/corpus-$t"
  rm -rf "$work" && mkdir -p "$work"
  cp "$ROOT/fuzz/corpus/$t/"* "$work/"
  log="$BUILD/$t.log"
  echo "== $t: ${SECONDS_EACH}s"
  if ! "$BUILD/fuzz/$t" -max_total_time="$SECONDS_EACH" -timeout=10 -print_final_stats=1 \
       -artifact_prefix="$BUILD/$t-" "$work" >"$log" 2>&1; then
    tail -n 60 "$log"
    echo "fuzz: $t FAILED (full log $log, input $BUILD/$t-*)"
    exit 1
  fi
  grep -E '^stat::(number_of_executed_units|peak_rss_mb)' "$log" | tr '\n' ' '
  echo "corpus $(ls "$work" | wc -l) files"
done
echo "fuzz: every target ran ${SECONDS_EACH}s without a crash"
